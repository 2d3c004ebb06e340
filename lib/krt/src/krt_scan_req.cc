// Request builders of the scans over the landed message types.
#include <cstring>

#include "krt/krt_scan.h"

namespace {

template <class R>
R *begin(void *message, uint32_t type, uint8_t version, krt_scan_state *st) {
  auto *r = static_cast<R *>(message);
  memset(r, 0, sizeof *r);
  r->hdr.version = version;
  r->hdr.type = static_cast<uint8_t>(type);
  r->hdr.size = rts_type_table[type].size;
  r->hdr.seq = krt_seq();
  r->hdr.operation = st->first_request ? RTS_OP_GET : RTS_OP_GETNEXT;
  return r;
}

template <class C>
C *cursor(krt_scan_state *st) {
  return reinterpret_cast<C *>(st->priv);
}

void rttable(void *m, uint32_t *len, krt_scan_state *st, uint8_t af) {
  auto *r = begin<rts_rtb_msg>(m, RTS_T_RTTABLE, 98, st);
  r->rtbm_af = af;
  r->rtbm_index = cursor<krt_cursor_rtb>(st)->index;
  *len = sizeof *r;
}

}  // namespace

void krt_scan_req_rttable_inet(void *m, uint32_t *len, krt_scan_state *st) { rttable(m, len, st, RTS_AF_INET); }
void krt_scan_req_rttable_inet6(void *m, uint32_t *len, krt_scan_state *st) { rttable(m, len, st, RTS_AF_INET6); }

void krt_scan_req_ifdev(void *m, uint32_t *len, krt_scan_state *st) {
  auto *r = begin<rts_ifd_msg>(m, RTS_T_IFDEV, 106, st);
  r->ifdm_index = cursor<krt_cursor_ifd>(st)->index;
  *len = sizeof *r;
}

void krt_scan_req_iflogical(void *m, uint32_t *len, krt_scan_state *st) {
  auto *r = begin<rts_ifl_msg>(m, RTS_T_IFLOGICAL, 107, st);
  r->iflm_index = cursor<krt_cursor_ifl>(st)->index;
  *len = sizeof *r;
}

void krt_scan_req_iffamily(void *m, uint32_t *len, krt_scan_state *st) {
  auto *r = begin<rts_iff_msg>(m, RTS_T_IFFAMILY, 102, st);
  r->iffm_ifl_index = cursor<krt_cursor_iff>(st)->ifl_index;
  r->iffm_af = cursor<krt_cursor_iff>(st)->af;
  *len = sizeof *r;
}

void krt_scan_req_ifaddr(void *m, uint32_t *len, krt_scan_state *st) {
  auto *r = begin<rts_ifa_msg>(m, RTS_T_IFADDR, 101, st);
  auto *c = cursor<krt_cursor_ifa>(st);
  r->ifam_ifl_index = c->ifl_index;
  r->ifam_af = c->af ? c->af : static_cast<uint8_t>(RTS_AF_INET);
  // The last address as a prefix; the record points into the cursor.
  if (c->local_bits) {
    r->ifam_local_bits = c->local_bits;
    r->ifam_local_plen = static_cast<uint16_t>((c->local_bits + 7) / 8 + 3) & ~3;
    if (r->ifam_local_plen > sizeof c->local) r->ifam_local_plen = sizeof c->local;
    r->ifam_local = c->local;
  }
  *len = sizeof *r;
}

void krt_scan_req_bridge_domain(void *m, uint32_t *len, krt_scan_state *st) {
  auto *r = begin<rts_bd_msg>(m, RTS_T_BRIDGE_DOMAIN, 98, st);
  r->bdm_index = cursor<krt_cursor_bd>(st)->index;
  *len = sizeof *r;
}

bool krt_scan_version_ok(const void *record) {
  auto *h = static_cast<const rts_msg_hdr *>(record);
  return h && h->version == 98 && h->size >= 200;
}
