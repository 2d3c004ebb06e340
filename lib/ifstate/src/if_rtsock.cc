// Families and addresses (the iffamily and ifaddr messages), the version
// checks, and the handler table of types 5 to 8.
#include <arpa/inet.h>

#include <cstdio>

#include "ifstate_internal.h"

namespace {

if_rtsock_filter_fn iffamily_filter;
void (*mtu_hook)(if_family *, uint16_t);
void (*features_hook)(if_family *, uint64_t);
void (*no_family_hook)(if_link *);

uint16_t derived_mtu(uint32_t mtu, uint32_t max_mtu) {
  uint32_t v = mtu && max_mtu ? (mtu < max_mtu ? mtu : max_mtu) : (mtu ? mtu : max_mtu);
  return static_cast<uint16_t>(v > 0xffff ? 0xffff : v);
}

const char *addr_text(uint8_t af, const uint8_t *p, char *buf, size_t size) {
  uint8_t a[16] = {};
  if (p) memcpy(a, p, af == RTS_AF_INET ? 4 : 16);
  if (!inet_ntop(af == RTS_AF_INET6 ? AF_INET6 : AF_INET, a, buf, static_cast<socklen_t>(size))) buf[0] = '\0';
  return buf;
}

}  // namespace

// ---- Version checks -------------------------------------------------------------------------------
int if_rtsock_msg_sanity(const void *message, uint32_t type, uint8_t version) {
  auto *h = static_cast<const rts_msg_hdr *>(message);
  if (h->version == version) return 1;
  IF_TRACE("%s msg: version mismatch", type < RTS_TYPE_COUNT ? rts_type_table[type].name : "unknown");
  return 0;
}
int if_rtsock_ifdev_sanity(const void *m) { return if_rtsock_msg_sanity(m, RTS_T_IFDEV, 106); }
int if_rtsock_iflogical_sanity(const void *m) { return if_rtsock_msg_sanity(m, RTS_T_IFLOGICAL, 107); }
int if_rtsock_iffamily_sanity(const void *m) { return if_rtsock_msg_sanity(m, RTS_T_IFFAMILY, 102); }
int if_rtsock_ifam_sanity(const void *m) { return if_rtsock_msg_sanity(m, RTS_T_IFADDR, 101); }

void if_rtsock_iffamily_filter_set(if_rtsock_filter_fn fn) { iffamily_filter = fn; }
void if_family_mtu_hook_set(void (*fn)(if_family *, uint16_t)) { mtu_hook = fn; }
void if_family_features_hook_set(void (*fn)(if_family *, uint64_t)) { features_hook = fn; }
void if_link_no_family_hook_set(void (*fn)(if_link *)) { no_family_hook = fn; }

// ---- iffamily ----------------------------------------------------------------------------------------
int if_rtsock_decode_iffamily(void *message, uint32_t) {
  auto *m = static_cast<rts_iff_msg *>(message);
  if (!if_rtsock_iffamily_sanity(m)) return 0;
  uint8_t family = if_family_map(m->iffm_af);
  if (family == IF_FAM_NONE) {
    IF_TRACE("%s msg: af %d is not usable", "iffamily", int(m->iffm_af));
    return 1;
  }
  if (iffamily_filter && iffamily_filter(m)) return 1;
  if_link *ifl = ifl_find_by_index(m->iffm_ifl_index);
  if (!ifl) {
    IF_TRACE("%s msg: unknown logical interface: %d", "iffamily", int(m->iffm_ifl_index));
    return 1;
  }
  bool del = m->hdr.operation == RTS_OP_DELETE;
  if_family *iff = iff_find(ifl, family);
  if (!iff && del) return 1;
  if (del) {
    iff->iff_change = 0;
    if_family_delete(iff);
    if (!ifl->ifl_family_count && no_family_hook) no_family_hook(ifl);
    return 1;
  }
  bool created = !iff;
  if (created) iff = if_family_add(ifl, family);
  iff->iff_change = created ? IF_CHANGE_NEW : 0u;
  uint32_t old_flags = iff->iff_flags;
  iff->iff_flags = m->iffm_flags;
  uint16_t old16 = iff->iff_mtu16;
  uint64_t old_features = iff->iff_features;
  uint16_t mtu16 = derived_mtu(m->iffm_mtu, m->iffm_max_mtu);
  if (!created && (iff->iff_mtu != m->iffm_mtu || iff->iff_max_mtu != m->iffm_max_mtu || old16 != mtu16 ||
                   old_features != m->iffm_features || old_flags != m->iffm_flags))
    iff->iff_change = IF_CHANGE_CHANGED;
  iff->iff_mtu = m->iffm_mtu;
  iff->iff_max_mtu = m->iffm_max_mtu;
  iff->iff_mtu16 = mtu16;
  iff->iff_features = m->iffm_features;
  if (!created && old16 != mtu16 && mtu_hook) mtu_hook(iff, old16);
  if (!created && old_features != m->iffm_features && features_hook) features_hook(iff, old_features);
  IF_TRACE("%s msg: %s for %s %s flags: %x", "iffamily", rts_op_name(m->hdr.operation), ifl->ifl_name,
           if_family_name(family), iff->iff_flags);
  if (!created && old_flags != iff->iff_flags) task_iff_flag_change(iff, old_flags, iff->iff_flags, nullptr);
  task_iffchange(iff, iff_change_arg(iff), nullptr, 0, IF_IN_CHANGE, 0);
  return 1;
}

// ---- ifaddr --------------------------------------------------------------------------------------------
bool ifs::addr_fill(if_address *ifa, const rts_ifa_msg *m) {
  if_address before = *ifa;
  ifa->ifa_flags = m->ifam_flags;
  prefix_copy(ifa->ifa_local, &ifa->ifa_local_bits, m->ifam_local, m->ifam_local_bits, m->ifam_local_plen);
  prefix_copy(ifa->ifa_dest, &ifa->ifa_dest_bits, m->ifam_dest, m->ifam_dest_bits, m->ifam_dest_plen);
  prefix_copy(ifa->ifa_bcast, &ifa->ifa_bcast_bits, m->ifam_bcast, m->ifam_bcast_bits, m->ifam_bcast_plen);
  return before.ifa_flags != ifa->ifa_flags || memcmp(before.ifa_dest, ifa->ifa_dest, IF_ADDR_BYTES) ||
         before.ifa_dest_bits != ifa->ifa_dest_bits || memcmp(before.ifa_bcast, ifa->ifa_bcast, IF_ADDR_BYTES) ||
         before.ifa_bcast_bits != ifa->ifa_bcast_bits;
}

int if_rtsock_decode_ifam(void *message, uint32_t) {
  auto *m = static_cast<rts_ifa_msg *>(message);
  if (!if_rtsock_ifam_sanity(m)) return 0;
  char text[64];
  IF_TRACE("%s msg: %s for index %lu %s flags: %x", "ifaddr", rts_op_name(m->hdr.operation),
           static_cast<unsigned long>(m->ifam_ifl_index), addr_text(m->ifam_af, m->ifam_local, text, sizeof text),
           m->ifam_flags);
  if (m->ifam_af != RTS_AF_INET && m->ifam_af != RTS_AF_INET6) {
    IF_TRACE("%s msg: af is not interesting", "ifaddr");
    return 1;
  }
  if_link *ifl = ifl_find_by_index(m->ifam_ifl_index);
  if (!ifl) {
    IF_TRACE("%s msg: unknown logical interface %d", "ifaddr", int(m->ifam_ifl_index));
    return 1;
  }
  uint8_t family = if_family_map(m->ifam_af);
  if_family *iff = iff_find(ifl, family);
  if (!iff) {
    IF_TRACE("%s msg: unknown family on interface %d", "ifaddr", int(m->ifam_ifl_index));
    return 1;
  }
  uint8_t local[IF_ADDR_BYTES];
  uint16_t bits;
  ifs::prefix_copy(local, &bits, m->ifam_local, m->ifam_local_bits, m->ifam_local_plen);
  if_address *ifa = ifa_find(iff, local, bits);
  if (ifa) ifa->ifa_change = 0;
  if (m->hdr.operation == RTS_OP_DELETE) {
    if (!ifa) {
      IF_TRACE("if address not found on interface %lu", static_cast<unsigned long>(m->ifam_ifl_index));
      return 1;
    }
    ifa->ifa_state |= IF_STATE_DELETED;
    ifa->ifa_change = IF_CHANGE_DELETE;
  } else if (ifa) {
    ifs::addr_fill(ifa, m);
    ifa->ifa_change = IF_CHANGE_CHANGED;
  } else {
    ifa = if_addr_add(iff, m);
    ifa->ifa_change = IF_CHANGE_NEW;
  }
  task_ifachange(ifa, IF_IN_CHANGE);
  if (ifa->ifa_state & IF_STATE_DELETED) ifa_free(ifa);
  return 1;
}

// ---- The handler table ------------------------------------------------------------------------------------
namespace {
void h_ifdev(task *, void *m, uint32_t len) { if_rtsock_decode_ifdev(m, len); }
void h_iflogical(task *, void *m, uint32_t len) { if_rtsock_decode_iflogical(m, len); }
void h_iffamily(task *, void *m, uint32_t len) { if_rtsock_decode_iffamily(m, len); }
void h_ifaddr(task *, void *m, uint32_t len) { if_rtsock_decode_ifam(m, len); }
}  // namespace

void if_rtsock_install(void (**handlers)(task *, void *, uint32_t)) {
  handlers[RTS_T_IFDEV] = h_ifdev;
  handlers[RTS_T_IFLOGICAL] = h_iflogical;
  handlers[RTS_T_IFFAMILY] = h_iffamily;
  handlers[RTS_T_IFADDR] = h_ifaddr;
}
