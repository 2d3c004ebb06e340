// Records of the interface and table messages as the channel hands them to
// the handlers, and a task that writes down what it is told.
#pragma once

#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "ifstate/ifchange.h"
#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"

namespace ist {

template <class R>
R record(uint8_t type, uint8_t op) {
  R r{};
  r.hdr.version = rts_type_table[type].version;
  r.hdr.type = type;
  r.hdr.operation = op;
  r.hdr.size = rts_type_table[type].size;
  return r;
}

// Names live as long as the test: records point at them.
inline const char *keep(const std::string &s) {
  static std::deque<std::string> *names = new std::deque<std::string>;  // never moves its strings
  names->push_back(s);
  return names->back().c_str();
}

inline int ifd(uint16_t index, const std::string &name, uint8_t op = RTS_OP_ADD, uint32_t flags = 0) {
  auto r = record<rts_ifd_msg>(RTS_T_IFDEV, op);
  r.ifdm_index = index;
  r.ifdm_name = const_cast<char *>(keep(name));
  r.ifdm_name_len = static_cast<uint32_t>(name.size() + 1);
  r.ifdm_flags = flags;
  return if_rtsock_decode_ifdev(&r, 0);
}

inline rts_ifl_msg ifl_rec(uint32_t index, uint16_t ifd_index, uint32_t unit, uint8_t op = RTS_OP_ADD) {
  auto r = record<rts_ifl_msg>(RTS_T_IFLOGICAL, op);
  r.iflm_index = index;
  r.iflm_ifd_index = ifd_index;
  r.iflm_unit = unit;
  return r;
}
inline int ifl(uint32_t index, uint16_t ifd_index, uint32_t unit, uint8_t op = RTS_OP_ADD) {
  auto r = ifl_rec(index, ifd_index, unit, op);
  return if_rtsock_decode_iflogical(&r, 0);
}

inline int iff(uint32_t ifl_index, uint8_t af, uint8_t op = RTS_OP_ADD, uint32_t mtu = 1500, uint32_t flags = 0) {
  auto r = record<rts_iff_msg>(RTS_T_IFFAMILY, op);
  r.iffm_ifl_index = ifl_index;
  r.iffm_af = af;
  r.iffm_mtu = mtu;
  r.iffm_flags = flags;
  return if_rtsock_decode_iffamily(&r, 0);
}

// local as four bytes of an IPv4 address (or the first four of an IPv6 one).
inline int ifa(uint32_t ifl_index, uint8_t af, uint32_t local_be, uint16_t bits, uint8_t op = RTS_OP_ADD) {
  static uint8_t bytes[16];
  auto r = record<rts_ifa_msg>(RTS_T_IFADDR, op);
  r.ifam_ifl_index = ifl_index;
  r.ifam_af = af;
  memset(bytes, 0, sizeof bytes);
  memcpy(bytes, &local_be, 4);
  r.ifam_local = bytes;
  r.ifam_local_bits = bits;
  r.ifam_local_plen = af == RTS_AF_INET ? 4 : 16;
  return if_rtsock_decode_ifam(&r, 0);
}

inline uint32_t v4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  uint8_t x[4] = {a, b, c, d};
  uint32_t v;
  memcpy(&v, x, 4);
  return v;
}

inline int rtt(uint8_t af, uint16_t index, const std::string &name, uint8_t op = RTS_OP_ADD, uint16_t attr = 0) {
  auto r = record<rts_rtb_msg>(RTS_T_RTTABLE, op);
  r.rtbm_af = af;
  r.rtbm_index = index;
  r.rtbm_name = const_cast<char *>(keep(name));
  r.rtbm_name_len = static_cast<uint32_t>(name.size() + 1);
  r.rtbm_attr = attr;
  return rt_instance_rtsock_handler(&r, 0);
}

// What listeners were told, one line each: "ifd add ge-0 state=0x0".
inline std::vector<std::string> told;

inline std::string change_word(uint32_t c) {
  return c & IF_CHANGE_DELETE ? "delete" : c & IF_CHANGE_NEW ? "new" : c & IF_CHANGE_CHANGED ? "changed" : "same";
}

inline void on_ifd(task *, if_device *d, void *, uint32_t) {
  char b[160];
  snprintf(b, sizeof b, "ifd %s %s%s", change_word(d->ifd_change).c_str(), d->ifd_name,
           d->ifd_state & IF_STATE_DELETED ? " gone" : "");
  told.push_back(b);
}
inline void on_ifl(task *, if_link *l) {
  told.push_back("ifl " + change_word(l->ifl_change) + " " + l->ifl_name +
                 (l->ifl_state & IF_STATE_DELETED ? " gone" : ""));
}
inline void on_iff(task *, if_family *f, uint32_t, void *, int) {
  told.push_back("iff " + change_word(f->iff_change) + " " + f->iff_ifl->ifl_name + " " +
                 if_family_name(f->iff_family) + (f->iff_state & IF_STATE_DELETED ? " gone" : ""));
}
inline void on_ifa(task *, if_address *a) {
  char b[160];
  snprintf(b, sizeof b, "ifa %s %s %u.%u.%u.%u/%u%s", change_word(a->ifa_change).c_str(),
           a->ifa_iff->iff_ifl->ifl_name, a->ifa_local[0], a->ifa_local[1], a->ifa_local[2], a->ifa_local[3],
           a->ifa_local_bits, a->ifa_state & IF_STATE_DELETED ? " gone" : "");
  told.push_back(b);
}
inline void on_rtt(task *, rt_instance *r) {
  char b[200];
  snprintf(b, sizeof b, "rtt %s flags=%u", r->rti_name, r->rti_flags);
  told.push_back(b);
}

// A created task that hears every kind.
inline task *listener(const char *name = "listener", int priority = 10) {
  task *tp = task_alloc(name, priority, nullptr);
  task_create(tp);
  task_set_ifdchange(tp, on_ifd);
  task_set_iflchange(tp, on_ifl);
  task_set_iffchange(tp, on_iff);
  task_set_ifachange(tp, on_ifa);
  task_set_rttchange(tp, on_rtt);
  return tp;
}

}  // namespace ist
