// rtsockd's state-file lines on any bytes: a line is either refused with a
// reason, or it becomes an object whose printed line reads back to itself; the
// objects then go into a store, which walks in key order. Counter lines
// (ifdstats, iflstats) are refused with a reason or kept, and what the
// counters show reads back to the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>

#include "peer.h"

using namespace rtsockd;

namespace {

void check(bool ok, const char *what, const std::string &line) {
  if (ok) return;
  std::fprintf(stderr, "%s: %s\n", what, line.c_str());
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  Store store;
  Counters counters;
  size_t start = 0;
  for (int lines = 0; start <= text.size() && lines < 64; lines++) {
    size_t nl = text.find('\n', start);
    std::string line = text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    start = nl == std::string::npos ? text.size() + 1 : nl + 1;
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    if (line.rfind("ifdstats", 0) == 0 || line.rfind("iflstats", 0) == 0) {
      check(counters.set(line, false, &why) || !why.empty(), "counters refused without a reason", line);
      continue;
    }
    if (!parse_object(line, &type, &obj, &why)) {
      check(!why.empty(), "refused without a reason", line);
      continue;
    }
    check(obj && obj->type == type && kind_name(type), "no object", line);
    std::string printed = print_object(type, obj->rec());
    uint32_t again_type;
    std::unique_ptr<Object> again;
    check(parse_object(printed, &again_type, &again, &why), "printed line does not read back", printed);
    check(again_type == type && print_object(type, again->rec()) == printed, "printed line changes", printed);
    check(Store::key_of(type, again->rec()) == Store::key_of(type, obj->rec()), "key changes", printed);
    store.apply(RTS_OP_ADD, type, obj->rec());
  }
  std::string shown = counters.show();
  Counters again;
  std::istringstream in(shown);
  std::string why;
  for (std::string line; std::getline(in, line);) check(again.set(line, false, &why), "shown counters do not read back", line);
  check(again.show() == shown, "shown counters change", shown);
  // A getnext from each object finds the one after it, and the last finds none.
  for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++) {
    const auto &table = store.table(t);
    for (auto it = table.begin(); it != table.end(); ++it) {
      auto next = std::next(it);
      const Object *found = store.lookup(RTS_OP_GETNEXT, t, it->second->rec());
      check(found == (next == table.end() ? nullptr : next->second.get()), "getnext out of order", it->first);
    }
  }
  return 0;
}
