// The INET6 family: IPv6 addresses with port, flow information and scope,
// and a multicast source after the address; the v4-mapped and v4-compatible
// conversions.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "sockaddr/families.h"
#include "zsock_internal.h"
#include "zsock_text.h"

using namespace zsock;

unsigned gf_inet6 = GF_UNSPEC;

namespace {

enum { kOffset = 12, kMaxSize = SOCKADDR_IN6_MAXLEN, kMaskCount = 321 };
alignas(4) uint8_t inet6_masks[kMaskCount * kMaxSize];

inline const zsockaddr_inet6_t *in6(const zsockaddr_t *a) {
  return reinterpret_cast<const zsockaddr_inet6_t *>(a);
}
inline zsockaddr_inet6_t *in6(zsockaddr_t *a) { return reinterpret_cast<zsockaddr_inet6_t *>(a); }
inline const uint8_t *raw(const zsockaddr_t *a) { return reinterpret_cast<const uint8_t *>(a); }

void check_gf() { ZSOCK_ASSERT(gf_inet6 != GF_UNSPEC); }

// 16 bytes at off, zero past the address's length.
void copy16(uint8_t out[16], const zsockaddr_t *a, unsigned off) {
  memset(out, 0, 16);
  unsigned len = socklen(a);
  if (len > off) memcpy(out, raw(a) + off, std::min(len - off, 16u));
}

int inet6_cmp2(const zsockaddr_t *a, const zsockaddr_t *b) {
  return cmp_shorter_first(raw(a), socklen(a), raw(b), socklen(b), kOffset);
}

// The header before the address stays; a unicast address keeps its length.
void inet6_cutlen(zsockaddr_t *a, unsigned bits) { cut_bits(a, bits, kOffset, SOCKADDR_IN6_LEN); }

const zsockaddr_t *inet6_hostmask(const zsockaddr_t *a) {
  return inet6_sockmask_len(a->zs_gf, socklen(a) > SOCKADDR_IN6_LEN ? 256 : 128);
}
int inet6_hostmasklen(unsigned) { return 128; }
int inet6_host_plen(const zsockaddr_t *a) { return socklen(a) > SOCKADDR_IN6_LEN ? 256 : 128; }
int inet6_masklen(unsigned gf, const zsockaddr_t *mask) {
  int i = sockmask_index(zsock_family_row(gf), mask);
  return i >= 0 ? i : static_cast<int>(sockbitcount(mask));
}
void inet6_setport(zsockaddr_t *a, unsigned port) { in6(a)->gin6_port = static_cast<uint16_t>(port); }
const uint8_t *inet6_grp_ptr(const zsockaddr_t *a) { return raw(a) + kOffset; }

// Header and group of a, the address of arg as the source.
zsockaddr_t *inet6_build_mc(const zsockaddr_t *a, const void *arg) {
  const auto *src = static_cast<const zsockaddr_t *>(arg);
  ZSOCK_ASSERT(!src || socktype(src) == socktype(a));
  // Read before building: the ring may hand out the block a lies in.
  alignas(4) uint8_t head[kOffset] = {};
  memcpy(head, raw(a), std::min(socklen(a), unsigned{kOffset}));
  uint8_t group[16], source[16] = {};
  copy16(group, a, kOffset);
  if (src) copy16(source, src, kOffset);
  zsockaddr_t *m = sockbuild(a->zs_gf, SOCKADDR_IN6MC_LEN);
  memcpy(m->zs_data, head + 2, kOffset - 2);
  memcpy(in6(m)->gin6_addr, group, 16);
  memcpy(in6(m)->gin6_src, source, 16);
  return m;
}

bool inet6_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  if (size < SOCKADDR_IN6_LEN) return false;
  char host[INET6_ADDRSTRLEN];
  const char *slash = strchr(text, '/');
  size_t hl = slash ? static_cast<size_t>(slash - text) : strlen(text);
  if (hl == 0 || hl >= sizeof host) return false;
  memcpy(host, text, hl);
  host[hl] = 0;
  uint8_t addr[16];
  if (inet_pton(AF_INET6, host, addr) != 1) return false;
  int plen = -1;
  if (slash && !parse_plen(slash + 1, 128, &plen)) return false;
  memset(buf, 0, SOCKADDR_IN6_LEN);
  socksetlen(buf, gf_inet6, SOCKADDR_IN6_LEN);
  memcpy(in6(buf)->gin6_addr, addr, 16);
  *result_len = plen;
  return true;
}

int put_ntop(char *p, const uint8_t addr[16]) {
  return inet_ntop(AF_INET6, addr, p, INET6_ADDRSTRLEN) ? static_cast<int>(strlen(p)) : 0;
}

void inet6_family_init(zsock_ops *ops) {
  ops->sockaddrcmp2 = inet6_cmp2;
  ops->sockcutlen = inet6_cutlen;
  ops->sockhostmask = inet6_hostmask;
  ops->sockhostmasklen = inet6_hostmasklen;
  ops->sockmasklen = inet6_masklen;
  ops->parse = inet6_parse;
  ops->sock_host_plen = inet6_host_plen;
  ops->sock2unix = sock2unix_inet6;
  ops->sockgrp_ptr = inet6_grp_ptr;
  ops->printer = inet6_vprintf;
  ops->sockprefixcmp = inet6_pfx_cmp;
  ops->setsockport = inet6_setport;
  ops->sockbuild_mc = inet6_build_mc;
  ops->zsock2fwd_sock = sock2unix_inet6;
  ops->fwd_sock2zsock = fwd_sock2zsock_inet6;
}

// ::ffff:a.b.c.d or ::a.b.c.d from an INET address or mask. A mask keeps its
// length in the low 32 bits, behind 96 ones.
zsockaddr_t *from_v4(const zsockaddr_t *v4, bool mapped, bool mask) {
  check_gf();
  zsockaddr_t *a = sockbuild(gf_inet6, SOCKADDR_IN6_LEN);
  uint8_t *p = in6(a)->gin6_addr;
  if (mask)
    memset(p, 0xff, 12);
  else if (mapped)
    p[10] = p[11] = 0xff;
  uint32_t w = inet_sockextract_in(v4);
  memcpy(p + 12, &w, 4);
  if (!mask) in6(a)->gin6_port = sockport_in(v4);
  return a;
}

zsockaddr_t *to_v4(const zsockaddr_t *v6) {
  uint32_t w;
  memcpy(&w, in6(v6)->gin6_addr + 12, 4);
  return sockbuild_in(in6(v6)->gin6_port, w);
}

}  // namespace

extern "C" {

void zsock_register_inet6(unsigned gf) {
  fill_masks(inet6_masks, kMaskCount, kMaxSize, gf, kOffset);
  gf_inet6 = gf;
  zsock_init_family(28, gf, kOffset, kMaxSize, inet6_masks, sizeof inet6_masks, "INET6", inet6_family_init);
}

zsockaddr_t *sockbuild_in6(uint16_t port, const uint8_t addr[16]) {
  check_gf();
  zsockaddr_t *a = sockbuild(gf_inet6, SOCKADDR_IN6_LEN);
  in6(a)->gin6_port = port;
  memcpy(in6(a)->gin6_addr, addr, 16);
  return a;
}

zsockaddr_t *sockcreate_in6(uint16_t port, const uint8_t addr[16]) {
  check_gf();
  zsockaddr_t *a = sockalloc(gf_inet6, SOCKADDR_IN6_LEN);
  in6(a)->gin6_port = port;
  memcpy(in6(a)->gin6_addr, addr, 16);
  return a;
}

const uint8_t *inet6_sockextract_in(const zsockaddr_t *a) { return in6(a)->gin6_addr; }

const zsockaddr_t *inet6_sockmask_len(unsigned gf, unsigned bits) {
  ZSOCK_ASSERT(gf == gf_inet6);
  ZSOCK_ASSERT(bits <= 320);
  return sockmask_for_len(gf, bits);
}

zsockaddr_t *inet6_build_v4_mapped_dest(const zsockaddr_t *v4_dest) {
  ZSOCK_ASSERT(socktype(v4_dest) == GF_INET);
  return from_v4(v4_dest, true, false);
}
zsockaddr_t *inet6_build_v4_compatible_dest(const zsockaddr_t *v4_dest) {
  ZSOCK_ASSERT(socktype(v4_dest) == GF_INET);
  return from_v4(v4_dest, false, false);
}
zsockaddr_t *inet6_build_v4_mapped_mask(const zsockaddr_t *v4_mask) {
  ZSOCK_ASSERT(socktype(v4_mask) == GF_INET);
  return from_v4(v4_mask, true, true);
}
zsockaddr_t *inet6_build_v4_compatible_mask(const zsockaddr_t *v4_mask) {
  ZSOCK_ASSERT(socktype(v4_mask) == GF_INET);
  return from_v4(v4_mask, false, true);
}
zsockaddr_t *inet6_build_inet_from_v4_mapped_dest(const zsockaddr_t *v6_dest) {
  ZSOCK_ASSERT(socktype(v6_dest) == GF_INET6);
  return to_v4(v6_dest);
}
zsockaddr_t *inet6_build_inet_from_v4_compatible_dest(const zsockaddr_t *v6_dest) {
  ZSOCK_ASSERT(socktype(v6_dest) == GF_INET6);
  return to_v4(v6_dest);
}

int inet6_vprintf(char *text, size_t size, const zsockaddr_t *a, int alt) {
  if (!size) return 0;
  unsigned len = socklen(a);
  char buf[128];
  uint8_t addr[16];
  copy16(addr, a, kOffset);
  int n = put_ntop(buf, addr);
  if (len <= SOCKADDR_IN6_LEN) {
    uint16_t port = len >= 4 ? ntohs(in6(a)->gin6_port) : 0;
    if (alt && port > 0) n = put_plus_port(buf + n, port) - buf;
    return put_text(text, size, buf, n);
  }
  uint8_t src[16];
  copy16(src, a, SOCKADDR_IN6_LEN);
  static constexpr uint8_t kZero[16] = {};
  bool has_src = memcmp(src, kZero, 16) != 0;
  if (len < SOCKADDR_IN6MC_LEN + 4) {
    if (size > static_cast<size_t>(n) + 3) {
      memcpy(buf + n, ", ", 2);
      n += 2;
    }
    if (has_src)
      n += put_ntop(buf + n, src);
    else
      buf[n++] = '*';
    return put_text(text, size, buf, n);
  }
  char work[128];
  const char *s = inet6_snp_format_prefix_guts(work, sizeof work, addr, src, 8 * (len - kOffset));
  return put_text(text, size, s, strlen(s));
}

int inet6_pfx_cmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen) {
  ZSOCK_ASSERT_TEXT(socktype(a) == GF_INET6, "socktype(addr1) == GF_INET6");
  ZSOCK_ASSERT_TEXT(socktype(b) == GF_INET6, "socktype(addr2) == GF_INET6");
  uint8_t x[16], y[16];
  copy16(x, a, kOffset);
  copy16(y, b, kOffset);
  int c = cmp_bits(x, y, std::min({alen, blen, 128u}));
  if (c) return c;
  return alen == blen ? 0 : alen < blen ? -1 : 1;
}

zsockaddr_t *inet6_prefix_to_sockaddr(const uint8_t *prefix, unsigned plen) {
  check_gf();
  ZSOCK_ASSERT(plen <= 128);
  zsockaddr_t *a = sockbuild(gf_inet6, SOCKADDR_IN6_LEN);
  uint8_t *p = in6(a)->gin6_addr;
  memcpy(p, prefix, sockbytes(plen));
  if (plen & 7) p[plen >> 3] &= static_cast<uint8_t>(0xff00u >> (plen & 7));
  return a;
}

const char *inet6_snp_format_prefix_guts(char *buf, size_t size, const uint8_t *addr, const uint8_t *src,
                                         unsigned plen) {
  if (size < 2 * INET6_ADDRSTRLEN + 8) return "";
  char *end = buf + size - 1, *p = end;
  *end = 0;
  p = put_uint_back(p, plen);
  *--p = '/';
  char t[INET6_ADDRSTRLEN];
  auto text_back = [&](const uint8_t *x) {
    int n = put_ntop(t, x);
    p -= n;
    memcpy(p, t, n);
  };
  if (src) {
    text_back(src);
    *--p = ',';
  }
  text_back(addr);
  return p;
}

zsockaddr_t *fwd_sock2zsock_inet6(const void *fwd) {
  const auto *sin6 = static_cast<const struct sockaddr_in6 *>(fwd);
  if (sin6->sin6_family != AF_INET6) return nullptr;
  zsockaddr_t *a = sockbuild_in6(sin6->sin6_port, sin6->sin6_addr.s6_addr);
  in6(a)->gin6_flowinfo = sin6->sin6_flowinfo;
  in6(a)->gin6_scope_id = sin6->sin6_scope_id;
  return a;
}

int sock2unix_inet6(const zsockaddr_t *a, void *target) {
  auto *sin6 = static_cast<struct sockaddr_in6 *>(target);
  memset(sin6, 0, sizeof *sin6);
  sin6->sin6_family = AF_INET6;
  if (socklen(a) >= 4) sin6->sin6_port = in6(a)->gin6_port;
  if (socklen(a) >= kOffset) {
    sin6->sin6_flowinfo = in6(a)->gin6_flowinfo;
    sin6->sin6_scope_id = in6(a)->gin6_scope_id;
  }
  copy16(sin6->sin6_addr.s6_addr, a, kOffset);
  return sizeof *sin6;
}

}  // extern "C"
