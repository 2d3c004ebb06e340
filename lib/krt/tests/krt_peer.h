// The channel's tests: the task kernel on real event queues with a fake
// clock, the in-process route-socket peer behind the lower edge, and a store
// of bridge domains that answers get and getnext as the kernel would.
#pragma once

#include <map>
#include <vector>

#include "fake_peer.h"
#include "io_fixture.h"
#include "krt/krt.h"
#include "krt/krt_queue.h"
#include "krt/krt_scan.h"
#include "task/io.h"

namespace kt {

inline rts_bd_msg bd(uint16_t index, uint32_t vnid, uint8_t op = RTS_OP_ADD, uint32_t seq = 0) {
  rts_bd_msg m{};
  m.hdr.version = 98;
  m.hdr.type = RTS_T_BRIDGE_DOMAIN;
  m.hdr.operation = op;
  m.hdr.seq = seq;
  m.hdr.size = rts_type_table[RTS_T_BRIDGE_DOMAIN].size;
  m.bdm_index = index;
  m.rtb_id = 7;
  m.vnid = vnid;
  m.cfg_flags = RTS_BD_CFG_VXLAN;
  return m;
}

// A raw record: the 28-byte header, then the given 32-bit words.
inline FakePeer::Msg raw(uint8_t type, std::vector<uint32_t> words = {}, uint32_t seq = 0, uint8_t op = 0) {
  FakePeer::Msg m(sizeof(rts_raw_hdr) + 4 * words.size());
  rts_raw_hdr h{};
  h.type = type;
  h.operation = op;
  h.seq = seq;
  h.length = static_cast<uint32_t>(m.size());
  memcpy(m.data(), &h, sizeof h);
  if (!words.empty()) memcpy(m.data() + sizeof h, words.data(), 4 * words.size());
  return m;
}

// What handlers saw.
struct Seen {
  uint8_t type, op;
  uint16_t index;
  uint32_t vnid;
  uint32_t length;
  bool raw;
};
inline std::vector<Seen> seen;
inline void record(task *, void *m, uint32_t len) {
  auto *h = static_cast<rts_msg_hdr *>(m);
  Seen s{h->type, h->operation, 0, 0, len, h->word0 == 0 && len >= sizeof(rts_raw_hdr) && h->type != RTS_T_BRIDGE_DOMAIN};
  if (h->type == RTS_T_BRIDGE_DOMAIN && !s.raw) {
    s.index = static_cast<rts_bd_msg *>(m)->bdm_index;
    s.vnid = static_cast<rts_bd_msg *>(m)->vnid;
  }
  seen.push_back(s);
}

class Krt : public tt::Io {
 protected:
  FakePeer peer;
  krt_handler_fn handlers[KRT_HANDLER_COUNT] = {};
  krt_config cfg{};
  std::map<uint16_t, rts_bd_msg> bds;  // the kernel's table of type 89
  int gets = 0, getnexts = 0;
  // Notifications the peer queues in front of the reply of the next request.
  std::vector<rts_bd_msg> before_reply;

  void SetUp() override {
    tt::Io::SetUp();
    seen.clear();
    krt_reset();
    krt_var_init();
    cfg.sender_id = 131;
    cfg.listen_mask[1] = 0x1000;
    cfg.async_mode_on = 1;
    cfg.handlers = handlers;
    handlers[RTS_T_BRIDGE_DOMAIN] = record;
    peer.on_write = [this](const FakePeer::Msg &m) { return serve(m); };
  }
  void TearDown() override {
    krt_reset();
    tt::Io::TearDown();
  }

  int serve(const FakePeer::Msg &m) {
    uint32_t magic;
    memcpy(&magic, m.data(), 4);
    if (magic == 0) return raw_verdict(m);
    samples::Arena a;
    auto *r = peer.request<rts_bd_msg>(a);
    if (!r) return EINVAL;
    if (r->hdr.type != RTS_T_BRIDGE_DOMAIN) return other_type(r->hdr.type);
    for (auto &n : before_reply) peer.reply(RTS_T_BRIDGE_DOMAIN, &n, true);
    before_reply.clear();
    const rts_bd_msg *found = nullptr;
    if (r->hdr.operation == RTS_OP_GET) {
      gets++;
      auto it = bds.find(r->bdm_index);
      if (it != bds.end()) found = &it->second;
    } else if (r->hdr.operation == RTS_OP_GETNEXT) {
      getnexts++;
      auto it = bds.upper_bound(r->bdm_index);
      if (it != bds.end()) found = &it->second;
    } else {
      return EOPNOTSUPP;
    }
    if (!found) return ENOENT;
    rts_bd_msg out = *found;
    out.hdr.operation = r->hdr.operation;
    out.hdr.seq = r->hdr.seq;
    peer.reply(RTS_T_BRIDGE_DOMAIN, &out, false);
    return 0;
  }
  // Verdicts of other message types, raw records; tests replace them.
  std::function<int(uint8_t)> other_type = [](uint8_t) { return EOPNOTSUPP; };
  std::function<int(const FakePeer::Msg &)> raw_verdict = [](const FakePeer::Msg &) { return EOPNOTSUPP; };

  void notify(const rts_bd_msg &m) { peer.reply(RTS_T_BRIDGE_DOMAIN, &m, true); }
  static void passes(int n) { real_passes(n); }
  // Passes until cond holds (at most max steps); false when it never did.
  // A step is two passes: the first pass of a nested run runs no background job.
  template <class F>
  static bool until(F cond, int max = 50) {
    for (int i = 0; i < max; i++) {
      if (cond()) return true;
      real_passes(2);
    }
    return cond();
  }
};

}  // namespace kt
