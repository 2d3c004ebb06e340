// What the mirror's source files share.
#pragma once

#include <cstdio>
#include <cstring>

#include "ifstate/ifchange.h"
#include "ifstate/ifobj.h"
#include "task/quit.h"
#include "trace/trace.h"

#define IF_TRACE(fmt, ...) ZTRACE(if_trace_handle(), IF_TRACE_FLAG, fmt __VA_OPT__(, ) __VA_ARGS__)

namespace ifs {

inline uint32_t prefix_bytes(uint32_t bits) {
  uint32_t n = (bits + 7) / 8;
  return n > IF_ADDR_BYTES ? IF_ADDR_BYTES : n;
}

// Copies a prefix of a record (bits, and plen bytes behind src) into a
// fixed field, zero beyond its bits; a length beyond the bytes that came is
// cut to them.
inline void prefix_copy(uint8_t *dst, uint16_t *dst_bits, const uint8_t *src, uint16_t bits, uint16_t plen) {
  memset(dst, 0, IF_ADDR_BYTES);
  if (!src) plen = 0;
  if (bits > 8 * IF_ADDR_BYTES) bits = 8 * IF_ADDR_BYTES;
  if (bits > 8 * plen) bits = static_cast<uint16_t>(8 * plen);
  if (src) memcpy(dst, src, prefix_bytes(bits));
  *dst_bits = bits;
}

// "device.unit", the device's name cut to leave room for any unit.
inline void link_name(char *dst, const char *device, uint32_t unit) {
  snprintf(dst, IF_NAME_SIZE, "%.48s.%u", device, unit);
}

// The message's fields into an address; true when anything differed.
bool addr_fill(if_address *ifa, const rts_ifa_msg *m);

if_link_vtep_data_t *vtep_alloc(void);
void vtep_free(if_link_vtep_data_t *v);

// Aggregates: a member is linked into its parent's chain while both exist.
void agg_unlink(if_device *member);          // re-announces nothing
void agg_forget_parent(if_device *parent);   // its members wait for a parent again
// Links ifd to the parent its index names, and adopts members waiting for
// ifd; parents whose chain changed go into *changed (up to 2).
void agg_link(if_device *ifd, if_device **changed, int *n_changed);

}  // namespace ifs

// The argument a family's broadcast carries: its change word, with a plain
// change (0x8000) given as 0, so that only a new or deleted family is told
// apart by the argument; what changed is read from the family.
inline uint32_t iff_change_arg(const if_family *iff) {
  return iff->iff_change == IF_CHANGE_CHANGED ? 0 : iff->iff_change;
}

// Announce and free a logical interface (its families and addresses
// first), and a family (its addresses first).
void if_link_delete(if_link *ifl);
void if_family_delete(if_family *iff);
