// Traffic and error records from the current and baseline sections.
#include <cstdlib>

#include "stats/ifstat.h"

namespace {

// A section's counters in the order of a record's fields.
struct Reader {
  const gif_ifd *p;
  bool abs;
  uint64_t operator()(unsigned slot) const {
    if (!p->msg) return 0;
    const rts_ifsm_parts &s = p->msg->parts;
    uint64_t cur = rts_ifsm_counter(s.cur, s.cur_count, slot);
    if (abs || !s.base) return cur;
    return gif_since_clear(cur, rts_ifsm_counter(s.base, s.base_count, slot));
  }
};

bool usable(const gif_ifd *p, uint8_t type) { return p && (!p->msg || p->msg->fixed.hdr.type == type); }

gif_traffic *traffic(const gif_ifd *p, uint8_t type, unsigned first, bool v6, bool abs) {
  if (!usable(p, type)) return nullptr;
  auto *t = static_cast<gif_traffic *>(calloc(1, sizeof(gif_traffic)));
  if (!t) return nullptr;
  Reader r{p, abs};
  t->in_bytes = r(first + 0);
  t->in_packets = r(first + 1);
  t->in_ucast = r(first + 2);
  t->in_mcast = r(first + 3);
  t->in_bcast = r(first + 4);
  t->out_bytes = r(first + 5);
  t->out_packets = r(first + 6);
  t->out_ucast = r(first + 7);
  t->out_mcast = r(first + 8);
  t->out_bcast = r(first + 9);
  if (v6) {
    t->in6_bytes = r(RTS_IFSC_I6BYTES);
    t->in6_packets = r(RTS_IFSC_I6PACKETS);
    t->out6_bytes = r(RTS_IFSC_O6BYTES);
    t->out6_packets = r(RTS_IFSC_O6PACKETS);
  }
  if (p->msg) {
    const rts_ifstats_msg &f = p->msg->fixed;
    t->flags = f.ifsm_flags;
    t->in_bps = f.ifsm_ibps;
    t->in_pps = f.ifsm_ipps;
    t->out_bps = f.ifsm_obps;
    t->out_pps = f.ifsm_opps;
    t->clear_time = f.ifsm_clear_time;
  }
  return t;
}

gif_errors *errors(const gif_ifd *p, bool abs) {
  if (!usable(p, RTS_T_IFDSTATS)) return nullptr;
  auto *e = static_cast<gif_errors *>(calloc(1, sizeof(gif_errors)));
  if (!e) return nullptr;
  Reader r{p, abs};
  e->in_errors = r(RTS_IFSC_IERRORS);
  e->in_drops = r(RTS_IFSC_IDROPS);
  e->in_framing = r(RTS_IFSC_IFRAMING);
  e->in_runts = r(RTS_IFSC_IRUNTS);
  e->in_giants = r(RTS_IFSC_IGIANTS);
  e->in_discards = r(RTS_IFSC_IDISCARDS);
  e->in_resource = r(RTS_IFSC_IRESOURCE);
  e->out_errors = r(RTS_IFSC_OERRORS);
  e->out_drops = r(RTS_IFSC_ODROPS);
  e->out_collisions = r(RTS_IFSC_OCOLLISIONS);
  e->out_aged = r(RTS_IFSC_OAGED);
  e->out_mtu = r(RTS_IFSC_OMTU);
  e->carrier_transitions = r(RTS_IFSC_CARRIER);
  if (p->msg) e->flags = p->msg->fixed.ifsm_flags;
  return e;
}

}  // namespace

gif_traffic *gif_ifd_traffic(const gif_ifd *p) { return traffic(p, RTS_T_IFDSTATS, RTS_IFSC_IBYTES, true, false); }
gif_traffic *gif_abs_ifd_traffic(const gif_ifd *p) { return traffic(p, RTS_T_IFDSTATS, RTS_IFSC_IBYTES, true, true); }
gif_errors *gif_ifd_errors(const gif_ifd *p) { return errors(p, false); }
gif_errors *gif_abs_ifd_errors(const gif_ifd *p) { return errors(p, true); }
gif_traffic *gif_ifl_local_traffic(const gif_ifd *p) {
  return traffic(p, RTS_T_IFLSTATS, RTS_IFSC_IBYTES, true, false);
}
gif_traffic *gif_abs_ifl_local_traffic(const gif_ifd *p) {
  return traffic(p, RTS_T_IFLSTATS, RTS_IFSC_IBYTES, true, true);
}
gif_traffic *gif_ifl_remote_traffic(const gif_ifd *p) {
  if (!gif_platform_feature("platform.support_transit_acccounting")) return nullptr;
  return traffic(p, RTS_T_IFLSTATS, RTS_IFSC_TIBYTES, false, false);
}
gif_traffic *gif_abs_ifl_remote_traffic(const gif_ifd *p) {
  if (!gif_platform_feature("platform.support_transit_acccounting")) return nullptr;
  return traffic(p, RTS_T_IFLSTATS, RTS_IFSC_TIBYTES, false, true);
}
