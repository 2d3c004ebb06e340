// The interface scans: devices, logical interfaces, families, then addresses
// across both families.
#include "ifstate_internal.h"
#include "krt/krt_scan.h"

namespace {

template <class C>
C *cursor(krt_scan_state *st) {
  return reinterpret_cast<C *>(st->priv);
}

bool is_type(const void *m, uint32_t type) { return static_cast<const rts_msg_hdr *>(m)->type == type; }

// Each reply is applied as the message would be, and moves the cursor; a
// cursor that would not move ends the table rather than loop.
int ifd_reply(void *m, uint32_t len, krt_scan_state *st) {
  if (!is_type(m, RTS_T_IFDEV)) return 0;
  auto *r = static_cast<rts_ifd_msg *>(m);
  auto *c = cursor<krt_cursor_ifd>(st);
  if (r->ifdm_index <= c->index) return 0;
  c->index = r->ifdm_index;
  if_rtsock_decode_ifdev(r, len);
  return 1;
}

int ifl_reply(void *m, uint32_t len, krt_scan_state *st) {
  if (!is_type(m, RTS_T_IFLOGICAL)) return 0;
  auto *r = static_cast<rts_ifl_msg *>(m);
  auto *c = cursor<krt_cursor_ifl>(st);
  if (r->iflm_index <= c->index) return 0;
  c->index = r->iflm_index;
  if_rtsock_decode_iflogical(r, len);
  return 1;
}

int iff_reply(void *m, uint32_t len, krt_scan_state *st) {
  if (!is_type(m, RTS_T_IFFAMILY)) return 0;
  auto *r = static_cast<rts_iff_msg *>(m);
  auto *c = cursor<krt_cursor_iff>(st);
  if (r->iffm_ifl_index < c->ifl_index || (r->iffm_ifl_index == c->ifl_index && r->iffm_af <= c->af)) return 0;
  c->ifl_index = r->iffm_ifl_index;
  c->af = r->iffm_af;
  if_rtsock_decode_iffamily(r, len);
  return 1;
}

// Ordered as the peer orders them: logical index, family, address.
bool ifa_after(const rts_ifa_msg *r, const uint8_t *local, uint16_t bits, const krt_cursor_ifa *c) {
  if (r->ifam_ifl_index != c->ifl_index) return r->ifam_ifl_index > c->ifl_index;
  if (r->ifam_af != c->af) return r->ifam_af > c->af;
  if (int d = memcmp(local, c->local, IF_ADDR_BYTES)) return d > 0;
  return bits > c->local_bits;
}

int ifa_reply(void *m, uint32_t len, krt_scan_state *st) {
  if (!is_type(m, RTS_T_IFADDR)) return 0;
  auto *r = static_cast<rts_ifa_msg *>(m);
  auto *c = cursor<krt_cursor_ifa>(st);
  uint8_t local[IF_ADDR_BYTES];
  uint16_t bits;
  ifs::prefix_copy(local, &bits, r->ifam_local, r->ifam_local_bits, r->ifam_local_plen);
  if (!ifa_after(r, local, bits, c)) return 0;
  c->ifl_index = r->ifam_ifl_index;
  c->af = r->ifam_af;
  c->local_bits = bits;
  memcpy(c->local, local, sizeof c->local);
  if_rtsock_decode_ifam(r, len);
  return 1;
}

// The kernel's end of one family's addresses: on to the next family.
int ifa_on_end(krt_scan_state *st) { return krt_next_ifl_with_af(cursor<krt_cursor_ifa>(st)); }

bool address_family(uint8_t family) { return family == IF_FAM_INET || family == IF_FAM_INET6; }

const krt_scan kScans[IF_SCAN_COUNT] = {
    {RTS_T_IFDEV, 1, sizeof(krt_cursor_ifd), 0, nullptr, nullptr, nullptr, krt_scan_req_ifdev, ifd_reply, nullptr},
    {RTS_T_IFLOGICAL, 1, sizeof(krt_cursor_ifl), 0, nullptr, nullptr, nullptr, krt_scan_req_iflogical, ifl_reply,
     nullptr},
    {RTS_T_IFFAMILY, 1, sizeof(krt_cursor_iff), 0, nullptr, nullptr, nullptr, krt_scan_req_iffamily, iff_reply,
     nullptr},
    {RTS_T_IFADDR, 1, sizeof(krt_cursor_ifa), 0, nullptr, nullptr, ifa_on_end, krt_scan_req_ifaddr, ifa_reply,
     nullptr},
};

}  // namespace

const krt_scan *if_scan_list(void) { return kScans; }

bool krt_next_ifl_with_af(krt_cursor_ifa *c) {
  uint8_t after = if_family_map(c->af ? c->af : uint8_t(RTS_AF_INET));
  if_link *ifl = ifl_find_by_index(c->ifl_index);
  if (!c->af) after = IF_FAM_NONE;  // not started on this one yet
  for (;;) {
    if (ifl)
      for (if_family *iff = iff_first(ifl); iff; iff = iff_next(iff))
        if (iff->iff_family > after && address_family(iff->iff_family)) {
          c->ifl_index = ifl->ifl_index;
          c->af = if_family_rts_af(iff->iff_family);
          c->local_bits = 0;
          memset(c->local, 0, sizeof c->local);
          IF_TRACE("IFA scan move to ifl %d iff %d", int(c->ifl_index), int(c->af));
          return true;
        }
    ifl = ifl_find_next(ifl ? ifl->ifl_index : c->ifl_index);
    if (!ifl) return false;
    after = IF_FAM_NONE;
  }
}
