// The EVPN family: route type at byte 4, the route distinguisher after it,
// then the fields of the route type; its builders, text and parser.
#include <algorithm>
#include <cstring>

#include "sockaddr/families.h"
#include "sockaddr/routing.h"
#include "zsock_fields.h"
#include "zsock_internal.h"
#include "zsock_rows.h"

using namespace zsock;

namespace {

enum { kType = 4, kRd = 5, kBody = 13, kEsi = 10, kMaxLen = 255 };

inline uint8_t *raw(zsockaddr_t *a) { return reinterpret_cast<uint8_t *>(a); }

unsigned g_gf = GF_UNSPEC;

unsigned need_gf() {
  ZSOCK_ASSERT_TEXT(g_gf != GF_UNSPEC, "evpn");
  return g_gf;
}

// An IP as a bit length and its bytes; bits 0 for none.
void put_ip(uint8_t *&p, const uint8_t *ip, unsigned n) {
  *p++ = static_cast<uint8_t>(8 * n);
  memcpy(p, ip, n);
  p += n;
}

zsockaddr_t *finish(const uint8_t *buf, const uint8_t *end) {
  unsigned len = static_cast<unsigned>(end - buf);
  zsockaddr_t *a = sockbuild(need_gf(), len);
  memcpy(raw(a) + 2, buf + 2, len - 2);
  return a;
}

uint8_t *start(uint8_t *buf, unsigned type, const uint8_t rd[8]) {
  memset(buf, 0, kMaxLen + 1);
  buf[kType] = static_cast<uint8_t>(type);
  if (rd) memcpy(buf + kRd, rd, 8);
  return buf + kBody;
}

// Reads "bits,bytes" written by put_ip, bounded by end; nullptr when short.
const uint8_t *get_ip(const uint8_t *p, const uint8_t *end, unsigned *n) {
  if (p >= end) return nullptr;
  unsigned bits = *p++;
  if (bits != 0 && bits != 32 && bits != 128) return nullptr;
  *n = bits / 8;
  return p + *n <= end ? p : nullptr;
}

void out_ip(Out &o, const uint8_t *ip, unsigned n) {
  if (n == 4)
    o.v4(ip);
  else
    o.v6(ip);
}

// The body after "type:rd"; false when the bytes do not hold the type's
// fields (the caller then prints them in hex).
bool print_body(Out &o, unsigned type, const uint8_t *p, const uint8_t *end) {
  unsigned n = 0;
  const uint8_t *ip;
  switch (type) {
    case EVPN_AD:
      if (end - p != kEsi + 4) return false;
      o.ch(':');
      o.esi(p);
      o.ch(':');
      o.u(load_be(p + kEsi, 4));
      return true;
    case EVPN_MAC:
      if (end - p < kEsi + 4 + 1 + 6 + 1 || p[kEsi + 4] != 48) return false;
      if (!(ip = get_ip(p + kEsi + 11, end, &n)) || ip + n != end) return false;
      o.ch(':');
      o.esi(p);
      o.ch(':');
      o.u(load_be(p + kEsi, 4));
      o.ch(':');
      o.u(48);
      o.ch('.');
      o.mac(p + kEsi + 5, true);
      if (n) {
        o.ch(':');
        out_ip(o, ip, n);
      }
      return true;
    case EVPN_INCL_MULT:
    case EVPN_ETH_SEGMENT: {
      unsigned head = type == EVPN_INCL_MULT ? 4 : kEsi;
      if (end - p < head + 1 || !(ip = get_ip(p + head, end, &n)) || ip + n != end) return false;
      o.ch(':');
      if (type == EVPN_INCL_MULT)
        o.u(load_be(p, 4));
      else
        o.esi(p);
      if (n) {
        o.ch(':');
        out_ip(o, ip, n);
      }
      return true;
    }
    case EVPN_IP_PREFIX:
      if (end - p < 6 || !(ip = get_ip(p + 5, end, &n)) || !n || ip + n != end || p[4] > 8 * n) return false;
      o.ch(':');
      o.u(load_be(p, 4));
      o.ch(':');
      out_ip(o, ip, n);
      o.ch('/');
      o.u(p[4]);
      return true;
    case EVPN_SMET: {
      unsigned m = 0;
      const uint8_t *grp;
      if (end - p < 6 || !(ip = get_ip(p + 4, end, &n)) || !(grp = get_ip(ip + n, end, &m)) || grp + m != end)
        return false;
      o.ch(':');
      o.u(load_be(p, 4));
      o.ch(':');
      if (n) out_ip(o, ip, n); else o.ch('*');
      o.ch(',');
      if (m) out_ip(o, grp, m); else o.ch('*');
      return true;
    }
    default:
      return false;
  }
}

// An IPv4 or IPv6 address, or "*" for none when allowed.
bool read_ip(const char *&t, uint8_t *&p, bool star) {
  uint8_t ip[16];
  if (star && *t == '*') {
    t++;
    *p++ = 0;
    return true;
  }
  const char *s = t;
  if (read_v4(s, ip) && *s != ':' && *s != '.' && !(*s >= '0' && *s <= '9')) {
    t = s;
    put_ip(p, ip, 4);
    return true;
  }
  if (!read_v6(t, ip)) return false;
  put_ip(p, ip, 16);
  return true;
}

bool read_tag(const char *&t, uint8_t *&p) {
  uint64_t v;
  if (!read_u(t, 0xffffffff, &v)) return false;
  store_be(p, 4, v);
  p += 4;
  return true;
}

bool evpn_parse(const char *text, zsockaddr_t *result, size_t size, int *result_len) {
  alignas(4) uint8_t buf[kMaxLen + 1];
  const char *t = text;
  uint64_t type, v;
  if (!read_u(t, 255, &type) || *t++ != ':') return false;
  uint8_t *p = start(buf, type, nullptr);
  if (!read_rd(t, buf + kRd)) return false;
  bool ok = *t++ == ':';
  switch (type) {
    case EVPN_AD:
      ok = ok && read_esi(t, p) && *t++ == ':' && (p += kEsi, read_tag(t, p));
      break;
    case EVPN_MAC:
      ok = ok && read_esi(t, p) && *t++ == ':' && (p += kEsi, read_tag(t, p)) && *t++ == ':' &&
           read_u(t, 48, &v) && v == 48 && *t++ == '.';
      if (ok) {
        *p++ = 48;
        ok = read_mac(t, p, true);
        p += 6;
        if (ok && *t == ':') {
          t++;
          ok = read_ip(t, p, false);
        } else {
          *p++ = 0;
        }
      }
      break;
    case EVPN_INCL_MULT:
    case EVPN_ETH_SEGMENT:
      if (type == EVPN_INCL_MULT)
        ok = ok && read_tag(t, p);
      else
        ok = ok && read_esi(t, p) && (p += kEsi, true);
      if (ok && *t == ':') {
        t++;
        ok = read_ip(t, p, false);
      } else {
        *p++ = 0;
      }
      break;
    case EVPN_IP_PREFIX: {
      uint8_t *plen = p + 4;
      ok = ok && read_tag(t, p) && *t++ == ':' && (++p, read_ip(t, p, false)) && *t++ == '/' &&
           read_u(t, plen[1], &v);
      if (ok) *plen = static_cast<uint8_t>(v);
      break;
    }
    case EVPN_SMET:
      ok = ok && read_tag(t, p) && *t++ == ':' && read_ip(t, p, true) && *t++ == ',' && read_ip(t, p, true);
      break;
    default: {
      size_t k = 0;
      ok = ok && read_dotted_hex(t, p, buf + kMaxLen - p, &k);
      p += k;
    }
  }
  unsigned len = static_cast<unsigned>(p - buf);
  if (!ok || *t || len > size) return false;
  buf[0] = static_cast<uint8_t>(len);
  buf[1] = static_cast<uint8_t>(g_gf);
  memcpy(result, buf, len);
  *result_len = -1;
  return true;
}

int evpn_masklen(unsigned gf, const zsockaddr_t *mask) { return masklen_checked(gf, mask, 2009); }

void evpn_init(zsock_ops *ops) {
  ops->printer = vprintf_evpn_format_addr;
  ops->parse = evpn_parse;
  ops->sockcutlen = cut_from_offset;
  ops->sockandmask = andmask_from_offset;
  ops->sockmasklen = evpn_masklen;
}

// The IP's bits field of a, or nullptr when its route type has none.
uint8_t *ip_field(uint8_t *b) {
  switch (b[kType]) {
    case EVPN_MAC: return b + kBody + kEsi + 11;
    case EVPN_INCL_MULT: return b + kBody + 4;
    case EVPN_ETH_SEGMENT: return b + kBody + kEsi;
    case EVPN_IP_PREFIX: return b + kBody + 5;
    default: return nullptr;
  }
}

}  // namespace

namespace zsock {

void register_evpn(unsigned gf, unsigned kind, unsigned offset, unsigned max, unsigned masks, const char *name) {
  size_t bytes = 0;
  const uint8_t *table = build_masks(gf, offset, max, masks, &bytes);
  g_gf = gf;
  zsock_init_family(kind, gf, offset, max, table, bytes, name, evpn_init);
}

}  // namespace zsock

extern "C" {

int vprintf_evpn_format_addr(char *text, size_t size, const zsockaddr_t *a, int) {
  Out o(text, size);
  const uint8_t *b = reinterpret_cast<const uint8_t *>(a);
  unsigned len = std::min(socklen(a), unsigned{kMaxLen});
  if (len < kBody) {
    o.str("(short evpn ");
    o.dotted_hex(b + 2, len > 2 ? len - 2 : 0);
    o.ch(')');
    return o.len();
  }
  o.u(b[kType]);
  o.ch(':');
  o.rd(b + kRd);
  size_t mark = o.n;
  if (!print_body(o, b[kType], b + kBody, b + len)) {
    o.n = mark;
    if (o.size) o.buf[mark] = 0;
    o.ch(':');
    o.dotted_hex(b + kBody, len - kBody);
  }
  return o.len();
}

zsockaddr_t *evpn_addr_build_ad(const uint8_t rd[8], const uint8_t esi[10], uint32_t tag) {
  alignas(4) uint8_t buf[kMaxLen + 1];
  uint8_t *p = start(buf, EVPN_AD, rd);
  memcpy(p, esi, kEsi);
  store_be(p + kEsi, 4, tag);
  return finish(buf, p + kEsi + 4);
}

zsockaddr_t *evpn_addr_build_mac(const uint8_t rd[8], const uint8_t esi[10], uint32_t tag, const uint8_t mac[6],
                                 const zsockaddr_t *ip) {
  alignas(4) uint8_t buf[kMaxLen + 1], bytes[16];
  uint8_t *p = start(buf, EVPN_MAC, rd);
  if (esi) memcpy(p, esi, kEsi);
  store_be(p + kEsi, 4, tag);
  p += kEsi + 4;
  *p++ = 48;
  memcpy(p, mac, 6);
  p += 6;
  put_ip(p, bytes, ip_bytes_of(ip, bytes));
  return finish(buf, p);
}

zsockaddr_t *evpn_addr_build_eth_segment(const uint8_t rd[8], const uint8_t esi[10], const zsockaddr_t *ip) {
  alignas(4) uint8_t buf[kMaxLen + 1], bytes[16];
  uint8_t *p = start(buf, EVPN_ETH_SEGMENT, rd);
  memcpy(p, esi, kEsi);
  p += kEsi;
  put_ip(p, bytes, ip_bytes_of(ip, bytes));
  return finish(buf, p);
}

zsockaddr_t *evpn_addr_build_incl_mult(const uint8_t rd[8], uint32_t tag, const zsockaddr_t *ip) {
  alignas(4) uint8_t buf[kMaxLen + 1], bytes[16];
  uint8_t *p = start(buf, EVPN_INCL_MULT, rd);
  store_be(p, 4, tag);
  p += 4;
  put_ip(p, bytes, ip_bytes_of(ip, bytes));
  return finish(buf, p);
}

zsockaddr_t *evpn_addr_build_ip_prefix(const uint8_t rd[8], uint32_t tag, const zsockaddr_t *ip, unsigned plen) {
  alignas(4) uint8_t buf[kMaxLen + 1], bytes[16];
  unsigned n = ip_bytes_of(ip, bytes);
  ZSOCK_ASSERT(n && plen <= 8 * n);
  uint8_t *p = start(buf, EVPN_IP_PREFIX, rd);
  store_be(p, 4, tag);
  p[4] = static_cast<uint8_t>(plen);
  p += 5;
  put_ip(p, bytes, n);
  return finish(buf, p);
}

zsockaddr_t *evpn_addr_put_sock(const zsockaddr_t *a, const zsockaddr_t *ip) {
  ZSOCK_ASSERT(socktype(a) == need_gf());
  alignas(4) uint8_t buf[kMaxLen + 1] = {}, bytes[16];
  memcpy(buf, a, std::min(socklen(a), unsigned{kMaxLen}));
  uint8_t *p = ip_field(buf);
  ZSOCK_ASSERT_TEXT(p != nullptr, "a route type with an IP");
  unsigned n = ip_bytes_of(ip, bytes);
  ZSOCK_ASSERT(buf[kType] != EVPN_IP_PREFIX || (n && buf[kBody + 4] <= 8 * n));
  put_ip(p, bytes, n);
  return finish(buf, p);
}

zsockaddr_t *evpn_addr_put_igmp_sock(const zsockaddr_t *a, const zsockaddr_t *src, const zsockaddr_t *grp) {
  ZSOCK_ASSERT(socktype(a) == need_gf());
  alignas(4) uint8_t buf[kMaxLen + 1] = {}, bytes[16];
  memcpy(buf, a, std::min(socklen(a), unsigned{kMaxLen}));
  // The tag stands first after the distinguisher in both route types.
  ZSOCK_ASSERT(buf[kType] == EVPN_SMET || buf[kType] == EVPN_INCL_MULT);
  buf[kType] = EVPN_SMET;
  uint8_t *p = buf + kBody + 4;
  put_ip(p, bytes, ip_bytes_of(src, bytes));
  put_ip(p, bytes, ip_bytes_of(grp, bytes));
  return finish(buf, p);
}

}  // extern "C"
