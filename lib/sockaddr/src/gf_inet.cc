// The INET family: IPv4 addresses with a port, and with a multicast source
// when the length reaches SOCKADDR_INMC_LEN. Also its format letters.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "sockaddr/families.h"
#include "zsock_internal.h"
#include "zsock_text.h"

using namespace zsock;

unsigned gf_inet = GF_UNSPEC;

namespace {

enum { kOffset = 4, kMaxSize = SOCKADDR_INMC_MAXLEN, kMaskCount = 129, kAddrBits = 32 };
alignas(4) uint8_t inet_masks[kMaskCount * kMaxSize];
static_assert(offsetof(zsockaddr_inet_t, gin_addr) == kOffset && offsetof(zsockaddr_inet_t, gin_src) == 8 &&
              offsetof(zsockaddr_inet_t, gin_sport) == SOCKADDR_INMC_LEN && sizeof(zsockaddr_inet_t) == kMaxSize);

inline const zsockaddr_inet_t *in(const zsockaddr_t *a) { return reinterpret_cast<const zsockaddr_inet_t *>(a); }
inline zsockaddr_inet_t *in(zsockaddr_t *a) { return reinterpret_cast<zsockaddr_inet_t *>(a); }
inline const uint8_t *raw(const zsockaddr_t *a) { return reinterpret_cast<const uint8_t *>(a); }

void check_gf() { ZSOCK_ASSERT(gf_inet != GF_UNSPEC); }

// The 32-bit address word; bytes past a short address read as zero.
uint32_t addr_word(const zsockaddr_t *a) {
  unsigned len = socklen(a);
  if (len >= 8) return in(a)->gin_addr;
  uint32_t w = 0;
  if (len > kOffset) memcpy(&w, raw(a) + kOffset, len - kOffset);
  return w;
}

int inet_cmp2(const zsockaddr_t *a, const zsockaddr_t *b) {
  return cmp_shorter_first(raw(a), socklen(a), raw(b), socklen(b), kOffset);
}

bool inet_maskedeq(const zsockaddr_t *a, const zsockaddr_t *b, const zsockaddr_t *mask) {
  if (a->zs_gf != b->zs_gf) return false;
  uint32_t m;
  memcpy(&m, raw(mask) + kOffset, 4);
  return ((addr_word(a) ^ addr_word(b)) & m) == 0;
}

void inet_andmask(zsockaddr_t *a, const zsockaddr_t *mask) {
  unsigned len = std::min(socklen(a), socklen(mask));
  uint8_t *pa = reinterpret_cast<uint8_t *>(a);
  for (unsigned i = 2; i + 4 <= len; i += 4) {
    uint32_t x, y;
    memcpy(&x, pa + i, 4);
    memcpy(&y, raw(mask) + i, 4);
    x &= y;
    memcpy(pa + i, &x, 4);
  }
  for (unsigned i = 2 + ((len - 2) & ~3u); i < len; i++) pa[i] &= raw(mask)[i];
  socklen_set(a, len);
}

void inet_cutlen(zsockaddr_t *a, unsigned bits) { cut_bits(a, bits, kOffset, SOCKADDR_IN_LEN); }

// The second index shares INET's masks.
const zsockaddr_t *inet_hostmask(const zsockaddr_t *a) {
  return inet_sockmask_len(gf_inet, socklen(a) > 8 ? 64 : 32);
}
int inet_hostmasklen(unsigned) { return 32; }
int inet_host_plen(const zsockaddr_t *a) { return socklen(a) > 8 ? 64 : 32; }

int inet_masklen(unsigned gf, const zsockaddr_t *mask) {
  int i = sockmask_index(zsock_family_row(gf), mask);
  if (i >= 0) return i;
  // A mask built by hand: count its leading one-bits.
  int n = 0;
  for (unsigned k = kOffset, len = socklen(mask); k < len; k++) {
    uint8_t b = raw(mask)[k];
    if (b == 0xff) {
      n += 8;
      continue;
    }
    n += __builtin_clz(~static_cast<unsigned>(b) << 24);
    break;
  }
  return n;
}

void inet_setport(zsockaddr_t *a, unsigned port) { in(a)->gin_port = static_cast<uint16_t>(port); }
uint32_t inet_extract(const zsockaddr_t *a, void *) { return inet_sockextract_in(a); }
uint32_t inet_extractsrc(const zsockaddr_t *a, void *) { return inet_sockextractsrc(a); }
uint32_t inet_extractgrp(const zsockaddr_t *a, void *) { return sockextractgrp_in(a); }
const uint8_t *inet_grp_ptr(const zsockaddr_t *a) { return raw(a) + kOffset; }

zsockaddr_t *inet_build_mc(const zsockaddr_t *a, const void *arg) {
  const auto *src = static_cast<const zsockaddr_t *>(arg);
  ZSOCK_ASSERT(!src || socktype(src) == socktype(a));
  // Read before building: the ring may hand out the block a lies in.
  uint16_t port = sockport_in(a);
  uint32_t group = addr_word(a), source = src ? addr_word(src) : 0;
  zsockaddr_t *m = sockbuild(a->zs_gf, SOCKADDR_INMC_LEN);
  in(m)->gin_port = port;
  in(m)->gin_addr = group;
  in(m)->gin_src = source;
  return m;
}

// Flow fields exist in the full-size form only.
bool has_flow(const zsockaddr_t *a) { return socklen(a) >= SOCKADDR_INMC_MAXLEN; }
zsockaddr_inet_t *flow(zsockaddr_t *a) {
  ZSOCK_ASSERT(socklen(a) == SOCKADDR_INMC_MAXLEN);
  return in(a);
}
uint32_t inet_get_proto(const zsockaddr_t *a) { return has_flow(a) ? in(a)->gin_proto : 0; }
uint32_t inet_get_sport(const zsockaddr_t *a) { return has_flow(a) ? in(a)->gin_sport : 0; }
uint32_t inet_get_dport(const zsockaddr_t *a) { return has_flow(a) ? in(a)->gin_dport : 0; }

// "a.b.c.d" in inet_aton's forms, then an optional "/" and a mask: a decimal
// length, hexadecimal after "0x", or a dotted mask of at most four parts.
bool inet_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  if (size < SOCKADDR_IN_LEN) return false;
  char host[64];
  const char *slash = strchr(text, '/');
  size_t hl = slash ? static_cast<size_t>(slash - text) : strlen(text);
  if (hl == 0 || hl >= sizeof host) return false;
  memcpy(host, text, hl);
  host[hl] = 0;
  struct in_addr ia;
  if (!inet_aton(host, &ia)) return false;
  int plen = -1;
  if (slash) {
    const char *m = slash + 1;
    if (m[0] == '0' && (m[1] == 'x' || m[1] == 'X')) {
      char *end;
      if (!m[2] || strlen(m + 2) > 8) return false;
      unsigned long v = strtoul(m + 2, &end, 16);
      if (*end || (plen = contiguous_len(static_cast<uint32_t>(v))) < 0) return false;
    } else if (strchr(m, '.')) {
      uint32_t v = 0;
      int parts = 0;
      for (const char *p = m;; p++) {
        if (*p < '0' || *p > '9') return false;
        unsigned part = 0;
        for (; *p >= '0' && *p <= '9'; p++)
          if ((part = part * 10 + (*p - '0')) > 255) return false;
        v = v << 8 | part;
        parts++;
        if (!*p) break;
        if (*p != '.' || parts == 4) return false;
      }
      v <<= 8 * (4 - parts);
      if ((plen = contiguous_len(v)) < 0) return false;
    } else if (!parse_plen(m, 32, &plen)) {
      return false;
    }
  }
  memset(buf, 0, SOCKADDR_IN_LEN);
  socksetlen(buf, gf_inet, SOCKADDR_IN_LEN);
  in(buf)->gin_addr = ia.s_addr;
  *result_len = plen;
  return true;
}

// "g,s/len", built backwards into an 80-byte work area.
int put_prefix(char *text, size_t size, const zsockaddr_t *a) {
  char work[80];
  uint32_t src = inet_sockextractsrc(a);
  const char *s = inet_snp_format_prefix_guts(work, sizeof work, in(a)->gin_addr, &src, 8 * (socklen(a) - kOffset));
  return put_text(text, size, s, strlen(s));
}

const char *render_i(char *buf, size_t size, const zsock_fmt_value *v, int) {
  if (size < 15) return nullptr;
  uint32_t net = htonl(v[0].u32);
  *put_quad(buf, reinterpret_cast<const uint8_t *>(&net)) = 0;
  return buf;
}

// The word's low half is the address; a group-and-source prefix (a length
// past 32) takes its source from the high half, given with "ll" (%llzm), and
// shows "*" for none, as the printer shows a missing source.
const char *render_m(char *buf, size_t size, const zsock_fmt_value *v, int) {
  uint32_t net = htonl(static_cast<uint32_t>(v[0].u64));
  uint32_t src = htonl(static_cast<uint32_t>(v[0].u64 >> 32));
  if (v[1].u32 > 32 && src) return inet_snp_format_prefix_guts(buf, size + 1, net, &src, v[1].u32);
  if (v[1].u32 > 32) {
    if (size < 24) return nullptr;
    char *p = put_quad(buf, reinterpret_cast<const uint8_t *>(&net));
    memcpy(p, ",*/", 3);
    char digits[12], *d = put_uint_back(digits + sizeof digits, v[1].u32);
    size_t n = digits + sizeof digits - d;
    memcpy(p + 3, d, n);
    p[3 + n] = 0;
    return buf;
  }
  return inet_snp_format_prefix_guts(buf, size + 1, net, nullptr, v[1].u32);
}

const char *render_p(char *buf, size_t size, const zsock_fmt_value *v, int) {
  const zsockaddr_t *a = static_cast<const zsockaddr_t *>(v[0].ptr);
  if (!a || socklen(a) == 0) return nullptr;
  uint32_t src = socklen(a) >= SOCKADDR_INMC_LEN ? inet_sockextractsrc(a) : 0;
  return inet_snp_format_prefix_guts(buf, size + 1, addr_word(a), src ? &src : nullptr, v[1].u32);
}

void inet_family_init(zsock_ops *ops) {
  ops->sockaddrcmp2 = inet_cmp2;
  ops->sockmaskedeq = inet_maskedeq;
  ops->sockandmask = inet_andmask;
  ops->sockcutlen = inet_cutlen;
  ops->sockhostmask = inet_hostmask;
  ops->sockhostmasklen = inet_hostmasklen;
  ops->sockmasklen = inet_masklen;
  ops->parse = inet_parse;
  ops->sock_host_plen = inet_host_plen;
  ops->sock2unix = sock2unix_inet;
  ops->sockextract_in = inet_extract;
  ops->sockextractsrc = inet_extractsrc;
  ops->sockextractgrp = inet_extractgrp;
  ops->sockgrp_ptr = inet_grp_ptr;
  ops->printer = inet_vprintf;
  ops->sockprefixcmp = inet_pfx_cmp;
  ops->setsockport = inet_setport;
  ops->sockbuild_mc = inet_build_mc;
  ops->getters[ZSOCK_GET_PROTO] = inet_get_proto;
  ops->getters[ZSOCK_GET_SPORT] = inet_get_sport;
  ops->getters[ZSOCK_GET_DPORT] = inet_get_dport;
  ops->zsock2fwd_sock = zsock2fwd_sock_inet;
  ops->fwd_sock2zsock = fwd_sock2zsock_inet;
}

}  // namespace

extern "C" {

void zsock_register_inet(unsigned gf) {
  fill_masks(inet_masks, kMaskCount, kMaxSize, gf, kOffset);
  gf_inet = gf;
  zsock_init_family(2, gf, kOffset, kMaxSize, inet_masks, sizeof inet_masks, "INET", inet_family_init);
  if (const zsock_hooks *h = zsock_get_hooks(); h->register_ext) {
    h->register_ext('i', render_i, 0, 2, gf, 0);
    // "m" and "p" take a length after their address: their second value,
    // the bits of an address, makes the look-ups count two arguments.
    h->register_ext('m', render_m, 0, 2, gf, kAddrBits);
    h->register_ext('p', render_p, 0, 2, gf, kAddrBits);
  }
}

void zsock_register_inet_alias(unsigned gf) {
  check_gf();
  zsock_init_family(172, gf, kOffset, kMaxSize, inet_masks, sizeof inet_masks, "INET", inet_family_init);
}

zsockaddr_t *sockbuild_in(uint16_t port, uint32_t addr) {
  check_gf();
  zsockaddr_t *a = sockbuild(gf_inet, SOCKADDR_IN_LEN);
  in(a)->gin_port = port;
  in(a)->gin_addr = addr;
  return a;
}

zsockaddr_t *sockcreate_in(uint16_t port, uint32_t addr) {
  check_gf();
  zsockaddr_t *a = sockalloc(gf_inet, SOCKADDR_IN_LEN);
  in(a)->gin_port = port;
  in(a)->gin_addr = addr;
  return a;
}

zsockaddr_t *sockbuild_inmax(void) {
  check_gf();
  return sockbuild(gf_inet, SOCKADDR_INMC_MAXLEN);
}

zsockaddr_t *sockcreate_inmax(void) {
  check_gf();
  return sockalloc(gf_inet, SOCKADDR_INMC_MAXLEN);
}

uint32_t inet_sockextract_in(const zsockaddr_t *a) { return a ? addr_word(a) : 0; }
uint32_t sockextractgrp_in(const zsockaddr_t *a) { return inet_sockextract_in(a); }
uint16_t sockport_in(const zsockaddr_t *a) { return a && socklen(a) >= 4 ? in(a)->gin_port : 0; }

uint32_t socksrc_in(const zsockaddr_t *a) {
  if (!a) return 0;
  unsigned len = socklen(a);
  if (len >= SOCKADDR_INMC_LEN) return in(a)->gin_src;
  // A short address has no source: bytes of one inside its length are a
  // corrupt address. Past the length nothing may be read (8-byte blocks).
  uint32_t part = 0;
  if (len > SOCKADDR_IN_LEN) memcpy(&part, raw(a) + SOCKADDR_IN_LEN, len - SOCKADDR_IN_LEN);
  ZSOCK_ASSERT_TEXT(part == 0, "!(sa->in_mc.gin_src)");
  return 0;
}
uint32_t inet_sockextractsrc(const zsockaddr_t *a) { return socksrc_in(a); }

void setsockproto_in(zsockaddr_t *a, uint8_t proto) { flow(a)->gin_proto = proto; }
void setsocksport_in(zsockaddr_t *a, uint16_t port) { flow(a)->gin_sport = port; }
void setsockdport_in(zsockaddr_t *a, uint16_t port) { flow(a)->gin_dport = port; }

void setsocksrc_in(zsockaddr_t *a, uint32_t src) {
  if (socklen(a) < SOCKADDR_INMC_LEN) socklen_set(a, SOCKADDR_INMC_LEN);
  in(a)->gin_src = src;
}

const zsockaddr_t *inet_sockmask_len(unsigned gf, unsigned bits) {
  ZSOCK_ASSERT(gf == gf_inet);
  ZSOCK_ASSERT(bits <= 128);
  return sockmask_for_len(gf, bits);
}

int inet_vprintf(char *text, size_t size, const zsockaddr_t *a, int alt) {
  if (!size) return 0;
  unsigned len = socklen(a);
  char buf[64], *p = buf;
  if (len <= SOCKADDR_IN_LEN) {
    uint32_t w = addr_word(a);
    p = put_quad(p, reinterpret_cast<const uint8_t *>(&w));
    uint16_t port = len >= 4 ? ntohs(in(a)->gin_port) : 0;
    if (alt && port > 0) p = put_plus_port(p, port);
    return put_text(text, size, buf, p - buf);
  }
  if (len < 16) {
    uint32_t w = in(a)->gin_addr, src = 0;
    memcpy(&src, raw(a) + 8, std::min(len, 12u) - 8);
    p = put_quad(p, reinterpret_cast<const uint8_t *>(&w));
    // The separator only when the caller's buffer has room after the group.
    if (size > static_cast<size_t>(p - buf) + 3) {
      memcpy(p, ", ", 2);
      p += 2;
    }
    if (src)
      p = put_quad(p, reinterpret_cast<const uint8_t *>(&src));
    else
      *p++ = '*';
    return put_text(text, size, buf, p - buf);
  }
  return put_prefix(text, size, a);
}

int inet_pfx_cmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen) {
  uint8_t x[16] = {}, y[16] = {};
  memcpy(x, raw(a) + kOffset, std::min(socklen(a) - kOffset, 16u));
  memcpy(y, raw(b) + kOffset, std::min(socklen(b) - kOffset, 16u));
  int c = cmp_bits(x, y, std::min({alen, blen, 128u}));
  if (c) return c;
  return alen == blen ? 0 : alen < blen ? -1 : 1;
}

zsockaddr_t *inet_prefix_to_sockaddr(const uint8_t *prefix, unsigned plen) {
  check_gf();
  ZSOCK_ASSERT(plen <= 64);
  zsockaddr_t *a = sockbuild(gf_inet, plen > 32 ? SOCKADDR_INMC_LEN : SOCKADDR_IN_LEN);
  uint8_t *p = reinterpret_cast<uint8_t *>(a) + kOffset;
  memcpy(p, prefix, sockbytes(plen));
  if (plen & 7) p[plen >> 3] &= static_cast<uint8_t>(0xff00u >> (plen & 7));
  return a;
}

const char *inet_snp_format_prefix_guts(char *buf, size_t size, uint32_t addr, const uint32_t *src,
                                        unsigned plen) {
  if (size < 40) return "";
  char *end = buf + size - 1, *p = end;
  *end = 0;
  p = put_uint_back(p, plen);
  *--p = '/';
  auto quad_back = [&](uint32_t w) {
    const uint8_t *b = reinterpret_cast<const uint8_t *>(&w);
    for (int i = 3; i >= 0; i--) {
      const ByteText &e = kByteText.t[b[i]];
      p -= e.len;
      memcpy(p, e.s, e.len);
      if (i) *--p = '.';
    }
  };
  if (src) {
    quad_back(*src);
    *--p = ',';
  }
  quad_back(addr);
  return p;
}

int sock2unix_inet(const zsockaddr_t *a, void *target) {
  auto *sin = static_cast<struct sockaddr_in *>(target);
  memset(sin, 0, sizeof *sin);
  sin->sin_family = AF_INET;
  sin->sin_port = sockport_in(a);
  sin->sin_addr.s_addr = addr_word(a);
  return sizeof *sin;
}

int zsock2fwd_sock_inet(const zsockaddr_t *a, void *target) { return sock2unix_inet(a, target); }

zsockaddr_t *fwd_sock2zsock_inet(const void *fwd) {
  const auto *sin = static_cast<const struct sockaddr_in *>(fwd);
  return sin->sin_family == AF_INET ? sockbuild_in(sin->sin_port, sin->sin_addr.s_addr) : nullptr;
}

}  // extern "C"
