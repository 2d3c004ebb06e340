// rtsockd: the route-socket peer. Its stores of kernel objects, the text form
// of those objects (state file and admin socket), and the server.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_msg.h"
#include "stats.h"

namespace rtsockd {

// A bump allocator over a caller's block, for decoding a record into it: the
// decoders' allocation hook. Nothing is freed; the block goes as a whole.
struct Bump {
  uint8_t *base;
  size_t limit, used;
  static void *alloc(void *ctx, size_t n) {
    auto *b = static_cast<Bump *>(ctx);
    n = (n + 7) & ~size_t{7};
    if (n > b->limit - b->used) return nullptr;
    void *p = b->base + b->used;
    b->used += n;
    return p;
  }
};

// One stored object: a record decoded into a block of its own.
struct Object {
  std::vector<uint8_t> block;
  uint32_t type = 0;
  void *rec() { return block.data(); }
  const void *rec() const { return block.data(); }
  rts_msg_hdr &hdr() { return *static_cast<rts_msg_hdr *>(rec()); }
};

// A copy of a record (and everything it points to) in a new object.
std::unique_ptr<Object> clone(uint32_t type, const void *record);

// The stores, one ordered map per type, keyed so that the map's order is the
// order of getnext.
class Store {
 public:
  // The quota of the stores, whoever adds: objects, and the bytes they hold
  // (each its decoded record, its key and kObjectOverhead for the tables).
  static constexpr size_t kMaxObjects = 65536;
  static constexpr size_t kMaxObjectBytes = size_t{64} << 20;
  static constexpr size_t kObjectOverhead = 96;
  // "object quota reached (...)": what an add past the quota is told.
  static std::string quota_text();

  // The key of a record of a type this peer keeps; empty for other types.
  static std::string key_of(uint32_t type, const void *record);
  static bool serves(uint32_t type);

  // 0, EEXIST (add of a present key), ENOENT (change or delete of an absent
  // one), ENOSPC (past the quota), EINVAL (a record that does not encode) or
  // EOPNOTSUPP.
  int apply(uint8_t op, uint32_t type, const void *record);
  // The same with an object made for it (parse_object's), kept as it is.
  int apply(uint8_t op, std::unique_ptr<Object> obj);
  // The object that a get (op 4) or getnext (op 5) asks for, or null.
  const Object *lookup(uint8_t op, uint32_t type, const void *request) const;
  // Stored objects of a type in order, for show and tests.
  const std::map<std::string, std::unique_ptr<Object>> &table(uint32_t type) const;
  size_t size() const;
  size_t bytes() const { return bytes_; }
  const Object *find_exact(uint32_t type, const std::string &key) const;
  // The counters served in statistics messages (types 15 and 16).
  Counters counters;

 private:
  const Object *find_next(uint32_t type, const std::string &key) const;
  const Object *match(uint32_t type, const void *request) const;
  static size_t cost(const std::string &key, const Object &obj);
  int apply(uint8_t op, uint32_t type, const void *record, std::unique_ptr<Object> *own);
  std::map<uint32_t, std::map<std::string, std::unique_ptr<Object>>> tables_;
  size_t count_ = 0, bytes_ = 0;
};

// ---- Text ----------------------------------------------------------------------------------
// "KIND field=value ..." with KIND one of rttable, route, mac, ifd, ifl, iff,
// ifa, bd; fields by their names in the layout table or without their prefix
// ("index" for "bdm_index"), nested ones as "group.field".

// Builds a record; false with *error set.
bool parse_object(const std::string &line, uint32_t *type, std::unique_ptr<Object> *out,
                  std::string *error);
// The line that parse_object reads back.
std::string print_object(uint32_t type, const void *record);
// The kind of a type ("bd"), or null.
const char *kind_name(uint32_t type);

}  // namespace rtsockd
