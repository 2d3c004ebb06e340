// One text line per message, for traces: the bridge domain in its own words,
// every other type as its fields by name from the layout table.
#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "codec_internal.h"

using namespace rts_codec;

namespace {

struct Line {
  char *buf;
  size_t size;
  size_t len = 0;
  bool over = false;
  void add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (over) return;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf + len, size - len, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size - len) over = true;
    else len += static_cast<size_t>(n);
  }
};

bool printable(const uint8_t *p, uint32_t n) {
  if (!n) return true;
  if (p[n - 1] == 0) n--;
  for (uint32_t i = 0; i < n; i++)
    if (!isprint(p[i])) return false;
  return true;
}

void prefix(Line &l, int af, const uint8_t *p, unsigned bits, unsigned plen) {
  char text[INET6_ADDRSTRLEN];
  uint8_t a[16] = {};
  if (p && af == RTS_AF_INET && plen <= 4) {
    memcpy(a, p, plen);
    l.add("%s/%u", inet_ntop(AF_INET, a, text, sizeof text), bits);
  } else if (p && af == RTS_AF_INET6 && plen <= 16) {
    memcpy(a, p, plen);
    l.add("%s/%u", inet_ntop(AF_INET6, a, text, sizeof text), bits);
  } else {
    for (unsigned i = 0; i < (bits + 7) / 8 && i < plen; i++) l.add(i ? ":%02x" : "%02x", p[i]);
    l.add("/%u", bits);
  }
}

void fields(Line &l, const rts_struct *s, const uint8_t *rec, int af) {
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    if (f.rf_kind == RK_NESTED && f.rf_nested == &rts_hdr_struct) continue;
    switch (f.rf_kind) {
      case RK_U8:
      case RK_U16:
      case RK_U32:
      case RK_U64: l.add(" %s=%" PRIu64, f.rf_name, get_int(rec, f)); break;
      case RK_FIXED:
        l.add(" %s=", f.rf_name);
        for (unsigned k = 0; k < f.rf_width; k++) l.add("%02x", rec[f.rf_off + k]);
        break;
      case RK_BLOB:
      case RK_ATTRS: {
        const uint8_t *p = ptr_at<uint8_t>(rec, f.rf_off);
        uint32_t n = ld32(rec + f.rf_off2);
        if (p && n && printable(p, n)) l.add(" %s=%.*s", f.rf_name, static_cast<int>(n), p);
        else l.add(" %s=<%u bytes>", f.rf_name, n);
        break;
      }
      case RK_PREFIX: {
        uint16_t bits = ld16(rec + f.rf_off2), plen = ld16(rec + f.rf_off2 + 2);
        if (!plen && !bits) break;
        l.add(" %s=", f.rf_name);
        prefix(l, af, ptr_at<uint8_t>(rec, f.rf_off), bits, plen);
        break;
      }
      case RK_NESTED:
        l.add(" %s={", f.rf_name);
        fields(l, f.rf_nested, rec + f.rf_off, af);
        l.add(" }");
        break;
      case RK_ERRORS:
      case RK_ARRAY:
        l.add(" %s=[%u]", f.rf_name,
              f.rf_kind == RK_ERRORS ? ld32(rec + f.rf_off2) : get_count(rec, f));
        break;
    }
  }
}

int family_of(const rts_struct *s, const uint8_t *rec) {
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    size_t n = strlen(f.rf_name);
    if (f.rf_kind == RK_U8 && n > 3 && strcmp(f.rf_name + n - 3, "_af") == 0)
      return static_cast<int>(get_int(rec, f));
  }
  return 0;
}

}  // namespace

int rtslib_format_output(char *buffer, size_t size, const void *record) {
  if (!buffer || !size) return -1;
  Line l{buffer, size};
  const auto *hdr = static_cast<const rts_msg_hdr *>(record);
  if (!hdr) {
    l.add("(no message)");
  } else if (hdr->type == RTS_T_BRIDGE_DOMAIN) {
    const auto *bd = static_cast<const rts_bd_msg *>(record);
    l.add("Bridge Domain %s, index %u, flags %u, cfg flags %llx, rtb %u, vlan %d IRB IFL %u, vlan "
          "token 0x%x vnid:%d",
          bd->bdm_name ? bd->bdm_name : "", bd->bdm_index, bd->bdm_flags,
          static_cast<unsigned long long>(bd->cfg_flags), bd->rtb_id, bd->vlan.vlan, bd->bdm_irb_ifl,
          bd->bdm_vlan_token, static_cast<int>(bd->vnid));
  } else {
    const rts_type_info &t = rts_type_table[hdr->type < RTS_TYPE_COUNT ? hdr->type : unsigned{RTS_T_UNKNOWN}];
    l.add("%s %s seq %u", t.name, rts_op_name(hdr->operation), hdr->seq);
    const rts_struct *s = rts_type_struct(hdr->type);
    if (s) fields(l, s, static_cast<const uint8_t *>(record), family_of(s, static_cast<const uint8_t *>(record)));
  }
  if (l.over) {
    snprintf(buffer, size, "rtslib_format_output error: %s", strerror(ENOSPC));
    return -1;
  }
  return static_cast<int>(l.len);
}
