// The counters rtsockd serves in statistics messages (types 15 and 16): one
// entry per device or logical interface, set from the state file and the
// admin socket ("stats set|bump|clear|delete|show").
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "rtsock/rts_msg.h"

namespace rtsockd {

struct StatsEntry {
  std::string name;
  uint8_t flags = 0, media = 0;
  uint16_t link_type = 0;
  uint64_t rates[4] = {};  // ibps, ipps, obps, opps
  uint64_t clear_time = 0;
  uint64_t cur[RTS_IFSC_COUNT] = {};
  bool has_base = false;
  uint64_t base[RTS_IFSC_COUNT] = {};
  std::vector<rts_ifst_queue> queues, base_queues, voqs, base_voqs;
  bool has_mac = false, has_link = false;
  alignas(8) rts_ifst_ether_mac mac{};  // wire records: 4-byte aligned unless told
  alignas(8) rts_ifst_ether_link link{};
};

class Counters {
 public:
  static constexpr size_t kMaxEntries = 65536;
  static constexpr unsigned kMaxQueues = 32;  // egress queues, and virtual output queues

  // "KIND index=N field=value ...", KIND ifdstats or iflstats. set stores the
  // values given (an entry is made when there is none), bump adds them to
  // counters. False with *error set; nothing changes then.
  bool set(const std::string &line, bool bump, std::string *error);
  // "KIND index=N": the baseline becomes the current counters, at time now.
  bool clear(const std::string &line, uint64_t now, std::string *error);
  bool clear(uint32_t type, uint32_t index, uint64_t now);
  bool erase(const std::string &line, std::string *error);
  // Every entry as a line that set reads back, in (kind, index) order.
  std::string show() const;
  const StatsEntry *find(uint32_t type, uint32_t index) const;
  size_t size() const { return entries_.size(); }

 private:
  bool key(std::istringstream &in, uint32_t *type, uint32_t *index, std::string *error) const;
  std::map<std::pair<uint32_t, uint32_t>, StatsEntry> entries_;
};

// One TLV of a statistics message (padded to 4) at the end of tlv; a queue
// set as its TLV (the count, then the queues).
void put_tlv(std::vector<uint8_t> &tlv, uint16_t type, const void *value, size_t len);
void put_queues(std::vector<uint8_t> &tlv, uint16_t type, const std::vector<rts_ifst_queue> &qs);

// The statistics message answering req for index: the entry's counters, or,
// with entry null, the name alone (an interface known but never counted).
// Empty when it would not fit a message (RTS_MSG_MAX).
std::vector<uint8_t> stats_message(const rts_raw_hdr &req, uint32_t index, const StatsEntry *entry,
                                   const std::string &name);

}  // namespace rtsockd
