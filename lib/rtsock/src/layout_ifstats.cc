// The interface statistics message: the raw layout that rts_ifstats.h
// describes, shared by the peer that builds it and the readers.
#include <cstring>

#include "rtsock/rts_ifstats.h"

extern "C" {
const char *const rts_ifsm_slot_names[RTS_IFSC_COUNT] = {
    "ibytes",  "ipackets", "iucast",   "imcast",   "ibcast",   "obytes",    "opackets",
    "oucast",  "omcast",   "obcast",   "i6bytes",  "i6packets", "o6bytes",  "o6packets",
    "ierrors", "idrops",   "iframing", "irunts",    "igiants",  "idiscards", "iresource",
    "oerrors", "odrops",   "ocollisions", "oaged", "omtu",     "carrier",   "tibytes",
    "tipackets", "tiucast", "timcast", "tibcast",  "tobytes",  "topackets", "toucast",
    "tomcast", "tobcast"};
}

namespace {
constexpr uint32_t pad4(uint32_t n) { return (n + 3) & ~3u; }
}  // namespace

bool rts_ifsm_parts_of(const void *msg, uint32_t len, rts_ifsm_parts *out) {
  *out = {};
  if (!msg || len < sizeof(rts_ifstats_msg)) return false;
  rts_ifstats_msg f;
  memcpy(&f, msg, sizeof f);
  if (f.hdr.word0 != 0 || (f.hdr.type != RTS_T_IFDSTATS && f.hdr.type != RTS_T_IFLSTATS)) return false;
  uint32_t end = f.hdr.length < len ? f.hdr.length : len;
  if (end < sizeof f) return false;
  auto *b = static_cast<const uint8_t *>(msg);
  if (end == sizeof f && f.ifsm_name_len == 0 && f.ifsm_cur_count == 0 && f.ifsm_base_count == 0)
    return true;  // the fixed part alone: a request, or an interface with nothing counted
  uint64_t at = f.ifsm_var_off;
  if (at < sizeof f || at > end) return false;
  if (f.ifsm_name_len) {
    if (at + f.ifsm_name_len > end || b[at + f.ifsm_name_len - 1] != 0) return false;
    out->name = reinterpret_cast<const char *>(b + at);
    out->name_len = f.ifsm_name_len;
  }
  at += pad4(f.ifsm_name_len);
  uint64_t cur_bytes = uint64_t{f.ifsm_cur_count} * 8, base_bytes = uint64_t{f.ifsm_base_count} * 8;
  if (at + cur_bytes + base_bytes > end) return false;
  if (f.ifsm_cur_count) out->cur = b + at;
  out->cur_count = f.ifsm_cur_count;
  at += cur_bytes;
  if (f.ifsm_base_count) out->base = b + at;
  out->base_count = f.ifsm_base_count;
  at += base_bytes;
  if (at < end) {
    out->tlv = b + at;
    out->tlv_len = static_cast<uint32_t>(end - at);
  }
  return true;
}

uint64_t rts_ifsm_counter(const uint8_t *section, uint32_t count, unsigned slot) {
  uint64_t v = 0;
  if (section && slot < count) memcpy(&v, section + size_t{slot} * 8, 8);
  return v;
}

uint32_t rts_ifsm_encode(const rts_ifstats_msg *fixed, const char *name, const uint64_t *cur,
                         uint32_t cur_count, const uint64_t *base, uint32_t base_count,
                         const void *tlv, uint32_t tlv_len, void *buffer, uint32_t room) {
  size_t name_len = name && *name ? strlen(name) + 1 : 0;
  if (name_len > 255 || cur_count > 255 || base_count > 255) return 0;
  uint64_t need = sizeof(rts_ifstats_msg) + pad4(static_cast<uint32_t>(name_len)) +
                  uint64_t{cur_count} * 8 + uint64_t{base_count} * 8 + tlv_len;
  if (need > RTS_MSG_MAX) return 0;
  auto n = static_cast<uint32_t>(need);
  if (!buffer || room < n) return n;
  rts_ifstats_msg f = *fixed;
  f.hdr.length = n;
  f.ifsm_var_off = sizeof f;
  f.ifsm_name_len = static_cast<uint8_t>(name_len);
  f.ifsm_cur_count = static_cast<uint8_t>(cur_count);
  f.ifsm_base_count = static_cast<uint8_t>(base_count);
  auto *b = static_cast<uint8_t *>(buffer);
  memset(b, 0, n);
  memcpy(b, &f, sizeof f);
  size_t at = sizeof f;
  if (name_len) memcpy(b + at, name, name_len);
  at += pad4(static_cast<uint32_t>(name_len));
  if (cur_count) memcpy(b + at, cur, size_t{cur_count} * 8);
  at += size_t{cur_count} * 8;
  if (base_count) memcpy(b + at, base, size_t{base_count} * 8);
  at += size_t{base_count} * 8;
  if (tlv_len) memcpy(b + at, tlv, tlv_len);
  return n;
}

uint32_t rts_ifsm_tlv_encode(uint16_t type, const void *value, uint16_t len, void *buffer,
                             uint32_t room) {
  uint32_t n = 4 + pad4(len);
  if (!buffer || room < n) return n;
  auto *b = static_cast<uint8_t *>(buffer);
  memset(b, 0, n);
  memcpy(b, &type, 2);
  memcpy(b + 2, &len, 2);
  if (len) memcpy(b + 4, value, len);
  return n;
}
