// The flow-specification families: qualifier lists with the long length,
// their text, order and builders.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "sockaddr/families.h"
#include "sockaddr/flow.h"
#include "sockaddr/routing.h"
#include "zsock_fields.h"
#include "zsock_internal.h"
#include "zsock_rows.h"

using namespace zsock;

namespace {

struct FlowKind {
  bool v6, vpn;
};
FlowKind g_kind[ZSOCK_GF_LIMIT];
bool g_is_flow[ZSOCK_GF_LIMIT];

constexpr const char *kNames[FLOW_QUAL_MAX + 1] = {nullptr,    "dst",      "src",      "proto", "port",
                                                   "dstport",  "srcport",  "icmptype", "icmpcode", "tcp",
                                                   "len",      "dscp",     "frag"};
bool is_prefix(unsigned t) { return t == FLOW_DST || t == FLOW_SRC; }
bool is_bitmask(unsigned t) { return t == FLOW_TCP || t == FLOW_FRAG; }

inline uint8_t *raw(zsockaddr_t *a) { return reinterpret_cast<uint8_t *>(a); }
inline const uint8_t *raw(const zsockaddr_t *a) { return reinterpret_cast<const uint8_t *>(a); }

unsigned overhead(unsigned gf) { return g_kind[gf].vpn ? 12 : 4; }

// Size of the qualifier at p with n bytes left, or 0 when it is not whole.
inline __attribute__((always_inline)) unsigned qual_size(bool v6, const uint8_t *p, unsigned n) {
  if (n < 2) return 0;
  unsigned t = p[0];
  if (is_prefix(t)) {
    if (!v6) {
      unsigned k = 2 + sockbytes(p[1]);
      return k <= n ? k : 0;
    }
    if (n < 3) return 0;
    unsigned k = 3 + (p[2] <= p[1] ? sockbytes(p[1] - p[2]) : 0);
    return k <= n ? k : 0;
  }
  if (n < 3) return 0;
  unsigned k = 3 + (p[1] << 8 | p[2]);
  return k <= n ? k : 0;
}

// The terms of a numeric or bitmask qualifier of k bytes fill it exactly.
bool terms_ok(const uint8_t *q, unsigned k) {
  unsigned i = 3;
  while (i < k) i += 1 + (1u << ((q[i] >> 4) & 3));
  return i == k && k > 3;
}

// Operator bits with no meaning: an operator with any of them is unknown.
inline uint8_t reserved_bits(unsigned type) { return is_bitmask(type) ? 0x8c : 0x88; }

void check_flow(const zsockaddr_t *a) { ZSOCK_ASSERT_TEXT(g_is_flow[socktype(a)], "a flow family"); }

// Bits [from, to) of a pattern placed at address bits from.
void pattern_to_addr(const uint8_t *pat, unsigned from, unsigned to, uint8_t out[16]) {
  memset(out, 0, 16);
  for (unsigned b = from; b < to && b < 128; b++) {
    unsigned i = b - from;
    if (pat[i >> 3] & (0x80 >> (i & 7))) out[b >> 3] |= 0x80 >> (b & 7);
  }
}

void addr_to_pattern(const uint8_t addr[16], unsigned from, unsigned to, uint8_t *pat) {
  memset(pat, 0, sockbytes(to - from));
  for (unsigned b = from; b < to && b < 128; b++) {
    unsigned i = b - from;
    if (addr[b >> 3] & (0x80 >> (b & 7))) pat[i >> 3] |= 0x80 >> (i & 7);
  }
}

void print_prefix(Out &o, bool v6, const uint8_t *q) {
  unsigned plen = q[1];
  if (!v6) {
    if (plen > 32) {
      o.str("(BadV4PrefixLen=");
      o.u(plen);
      o.ch(')');
      return;
    }
    uint8_t b[4] = {};
    memcpy(b, q + 2, sockbytes(plen));
    o.v4(b);
    o.ch('/');
    o.u(plen);
    return;
  }
  unsigned off = q[2];
  if (plen > 128 || off > plen) {
    o.str(plen > 128 ? "(BadV6PrefixLen=" : "(BadV6PrefixOffset=");
    o.u(plen > 128 ? plen : off);
    o.ch(')');
    return;
  }
  uint8_t b[16];
  pattern_to_addr(q + 3, off, plen, b);
  o.v6(b);
  o.ch('/');
  o.u(plen);
  if (off) {
    o.ch('@');
    o.u(off);
  }
}

unsigned min_width(uint64_t v) { return v <= 0xff ? 1 : v <= 0xffff ? 2 : v <= 0xffffffffu ? 4 : 8; }

void print_terms(Out &o, const uint8_t *q, unsigned n) {
  static constexpr const char *kNumeric[8] = {"!", "=", ">", ">=", "<", "<=", "!=", "~"};
  static constexpr const char *kBitmask[4] = {"~", "=", "!~", "!="};
  bool bitmask = is_bitmask(q[0]);
  uint8_t reserved = reserved_bits(q[0]);
  for (unsigned i = 3; i < n;) {
    uint8_t op = q[i];
    unsigned w = 1u << ((op >> 4) & 3);
    uint64_t v = load_be(q + i + 1, w);
    if (op & FLOW_OP_AND)
      o.ch('&');
    else if (i > 3)
      o.ch('|');
    if (op & reserved) {
      o.u(op & ~FLOW_OP_AND);
      o.str("-UNKNOWN:");
    } else {
      o.str(bitmask ? kBitmask[op & 3] : kNumeric[op & 7]);
    }
    if (w == min_width(v) || (op & reserved)) {
      o.u(v);
    } else {
      // A value wider than it needs keeps its width in the text.
      o.str("0x");
      for (unsigned k = 0; k < w; k++) o.hex2(q[i + 1 + k]);
    }
    i += 1 + w;
  }
}

int flow_print(char *text, size_t size, const zsockaddr_t *a, int) {
  Out o(text, size);
  unsigned gf = socktype(a), len = socklen(a), off = overhead(gf);
  bool v6 = g_kind[gf].v6;
  if (g_kind[gf].vpn) {
    uint8_t rd[8] = {};
    if (len > 4) memcpy(rd, raw(a) + 4, std::min(len - 4, 8u));
    o.rd(rd);
  } else if (len <= off) {
    o.str("any");
  }
  unsigned at = off;
  while (at < len) {
    unsigned k = qual_size(v6, raw(a) + at, len - at);
    if (o.n) o.ch(',');
    const uint8_t *q = raw(a) + at;
    if (!k || q[0] == 0 || q[0] > FLOW_QUAL_MAX || (!is_prefix(q[0]) && !terms_ok(q, k))) {
      // Bytes that hold no qualifier: their hex, so that nothing hides.
      o.str("(bad ");
      o.dotted_hex(q, len - at);
      o.ch(')');
      break;
    }
    o.str(kNames[q[0]]);
    if (is_prefix(q[0])) {
      o.ch(' ');
      print_prefix(o, v6, q);
    } else {
      print_terms(o, q, k);
    }
    at += k;
  }
  return o.len();
}

bool read_prefix(const char *&t, bool v6, uint8_t *q, unsigned *k) {
  uint64_t plen, off = 0;
  if (!v6) {
    uint8_t b[4];
    if (!read_v4(t, b) || *t++ != '/' || !read_u(t, 32, &plen)) return false;
    q[1] = static_cast<uint8_t>(plen);
    memcpy(q + 2, b, sockbytes(plen));
    if (plen & 7) q[1 + sockbytes(plen)] &= static_cast<uint8_t>(0xff00u >> (plen & 7));
    *k = 2 + sockbytes(plen);
    return true;
  }
  uint8_t b[16];
  if (!read_v6(t, b) || *t++ != '/' || !read_u(t, 128, &plen)) return false;
  if (*t == '@') {
    t++;
    if (!read_u(t, plen, &off)) return false;
  }
  q[1] = static_cast<uint8_t>(plen);
  q[2] = static_cast<uint8_t>(off);
  addr_to_pattern(b, off, plen, q + 3);
  *k = 3 + sockbytes(plen - off);
  return true;
}

bool read_terms(const char *&t, unsigned type, uint8_t *q, unsigned room, unsigned *k) {
  static constexpr struct {
    const char *s;
    uint8_t bits;
  } kNumeric[] = {{">=", 3}, {"<=", 5}, {"!=", 6}, {"=", 1}, {">", 2}, {"<", 4}, {"!", 0}, {"~", 7}},
    kBitmask[] = {{"!~", 2}, {"!=", 3}, {"~", 0}, {"=", 1}};
  bool bitmask = is_bitmask(type);
  unsigned i = 3;
  for (bool first = true;; first = false) {
    uint8_t op = 0;
    if (*t == '&') {
      op |= FLOW_OP_AND;
      t++;
    } else if (*t == '|' && !first) {
      t++;
    } else if (!first) {
      break;
    }
    uint64_t v;
    bool unknown = false;
    if (*t >= '0' && *t <= '9') {
      if (!read_u(t, 0xff, &v) || (v & FLOW_OP_AND) || !read_word(t, "-UNKNOWN:")) return false;
      op |= static_cast<uint8_t>(v);
      unknown = true;
    } else {
      bool found = false;
      const auto *tb = bitmask ? kBitmask : kNumeric;
      size_t tn = bitmask ? std::size(kBitmask) : std::size(kNumeric);
      for (size_t j = 0; j < tn && !found; j++)
        if (read_word(t, tb[j].s)) {
          op |= tb[j].bits;
          found = true;
        }
      if (!found) return false;
    }
    unsigned w;
    if (!unknown && t[0] == '0' && t[1] == 'x') {
      t += 2;
      unsigned digits = 0;
      v = 0;
      for (; digits < 17; digits++) {
        char c = t[digits];
        int h = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (h < 0) break;
        v = v << 4 | h;
      }
      if (digits != 2 && digits != 4 && digits != 8 && digits != 16) return false;
      t += digits;
      w = digits / 2;
    } else {
      if (!read_u(t, UINT64_MAX, &v)) return false;
      w = unknown ? 1u << ((op >> 4) & 3) : min_width(v);
      if (unknown && w < 8 && v >> (8 * w)) return false;
    }
    if (!unknown) op = static_cast<uint8_t>((op & ~0x30) | (w == 1 ? 0 : w == 2 ? 0x10 : w == 4 ? 0x20 : 0x30));
    if (i + 1 + w > room) return false;
    q[i] = op;
    store_be(q + i + 1, w, v);
    i += 1 + w;
  }
  if (i - 3 > 0xffff) return false;
  store_be(q + 1, 2, i - 3);
  *k = i;
  return true;
}

bool flow_parse_gf(unsigned gf, const char *text, zsockaddr_t *result, size_t size, int *result_len) {
  static thread_local uint8_t buf[ZSOCK_LONG_MAX + 1];
  const FlowKind fk = g_kind[gf];
  unsigned off = overhead(gf), at = off;
  memset(buf, 0, off);
  const char *t = text;
  bool any = false;
  if (fk.vpn) {
    if (!read_rd(t, buf + 4)) return false;
  } else if (read_word(t, "any")) {
    any = true;
  }
  unsigned last_type = 0;
  bool first = true;
  while (*t && !any) {
    if ((!first || fk.vpn) && *t++ != ',') return false;
    first = false;
    char word[12];
    size_t n = 0;
    while (n < sizeof word - 1 && t[n] >= 'a' && t[n] <= 'z') {
      word[n] = t[n];
      n++;
    }
    word[n] = 0;
    unsigned type = 0;
    for (unsigned j = 1; j <= FLOW_QUAL_MAX; j++)
      if (!strcmp(word, kNames[j])) type = j;
    if (!type || type <= last_type) return false;
    t += n;
    last_type = type;
    uint8_t *q = buf + at;
    unsigned room = ZSOCK_LONG_MAX - at, k = 0;
    if (room < 40) return false;
    q[0] = static_cast<uint8_t>(type);
    if (is_prefix(type)) {
      if (*t++ != ' ' || !read_prefix(t, fk.v6, q, &k)) return false;
    } else if (!read_terms(t, type, q, room, &k)) {
      return false;
    }
    at += k;
  }
  if (*t || at > size) return false;
  buf[1] = static_cast<uint8_t>(gf);
  memcpy(result, buf, at);
  socklen_set(result, at);
  *result_len = -1;
  return true;
}

int flow_cmp(const zsockaddr_t *a, const zsockaddr_t *b) { return flow_common_sockaddrcmp2(a, b); }

template <unsigned Kind>
bool flow_parse(const char *text, zsockaddr_t *result, size_t size, int *result_len) {
  for (unsigned gf = 0; gf < ZSOCK_GF_LIMIT; gf++)
    if (g_is_flow[gf] && zsock_family_row(gf) && zsock_family_row(gf)->gf_kind == Kind)
      return flow_parse_gf(gf, text, result, size, result_len);
  return false;
}

template <unsigned Kind>
void flow_init(zsock_ops *ops) {
  ops->printer = flow_print;
  ops->parse = flow_parse<Kind>;
  ops->sockaddrcmp2 = flow_cmp;
  ops->sockcutlen = cut_from_offset;
  ops->sockandmask = andmask_from_offset;
  ops->sockaddreq = [](const zsockaddr_t *a, const zsockaddr_t *b) { return common_sockaddrcmp2(a, b) == 0; };
}

// Index of the first byte from `from` where x and y differ; n if none.
unsigned first_diff(const uint8_t *x, const uint8_t *y, unsigned from, unsigned n) {
  unsigned i = from;
  for (; i + 8 <= n; i += 8) {
    uint64_t u, v;
    memcpy(&u, x + i, 8);
    memcpy(&v, y + i, 8);
    if (u != v) return i + (__builtin_ctzll(u ^ v) >> 3);
  }
  for (; i < n; i++)
    if (x[i] != y[i]) return i;
  return n;
}

// A qualifier's bytes, compared as the order wants: -1, 0 or 1.
int qual_cmp(bool v6, const uint8_t *x, unsigned xn, const uint8_t *y, unsigned yn) {
  if (x[0] != y[0]) return x[0] < y[0] ? -1 : 1;
  if (is_prefix(x[0])) {
    unsigned hx = v6 ? 3 : 2;
    if (v6 && x[2] != y[2]) return x[2] < y[2] ? -1 : 1;
    unsigned bx = x[1] - (v6 ? std::min(x[2], x[1]) : 0), by = y[1] - (v6 ? std::min(y[2], y[1]) : 0);
    unsigned bits = std::min({bx, by, 8 * (xn - hx), 8 * (yn - hx)});
    unsigned whole = bits >> 3;
    int c = memcmp(x + hx, y + hx, whole);
    if (!c && (bits & 7)) {
      uint8_t m = static_cast<uint8_t>(0xff00u >> (bits & 7));
      c = (x[hx + whole] & m) - (y[hx + whole] & m);
    }
    if (c) return c < 0 ? -1 : 1;
    if (x[1] != y[1]) return x[1] > y[1] ? -1 : 1;  // the longer prefix first
    return 0;
  }
  // Term by term is byte by byte: equal operators mean equal value sizes,
  // and values are big-endian. A list that goes on sorts after the same
  // list ended.
  unsigned n = std::min(xn, yn);
  if (int c = memcmp(x + 3, y + 3, n - 3)) return c < 0 ? -1 : 1;
  return xn == yn ? 0 : xn < yn ? -1 : 1;
}

// The qualifiers of flow after distinguisher rd, in the ring, as family vpn.
zsockaddr_t *vpn_form(const uint8_t rd[8], const zsockaddr_t *flow, const char *vpn) {
  unsigned gf = zsock_registered_gf(vpn), n = socklen(flow) - 4;
  ZSOCK_ASSERT(gf != GF_UNSPEC);
  zsockaddr_t *v = sockbuild(gf, 12 + n);
  memcpy(raw(v) + 4, rd, 8);
  memcpy(raw(v) + 12, raw(flow) + 4, n);
  return v;
}

}  // namespace

namespace zsock {

void register_flow(unsigned gf, unsigned kind, unsigned offset, unsigned max, const char *name) {
  ZSOCK_ASSERT(is_long_family(gf));
  g_kind[gf] = {kind == 170 || kind == 171, kind == 158 || kind == 171};
  g_is_flow[gf] = true;
  zsock_family_init_fn init = kind == 157   ? flow_init<157>
                              : kind == 158 ? flow_init<158>
                              : kind == 170 ? flow_init<170>
                                            : flow_init<171>;
  zsock_init_family(kind, gf, offset, max, nullptr, 0, name, init);
}

}  // namespace zsock

extern "C" {

unsigned flow_sockoverhead(unsigned gf) { return overhead(gf); }

zsockaddr_t *flow_common_init(void *buf, size_t room, unsigned gf, const uint8_t *rd) {
  ZSOCK_ASSERT(g_is_flow[gf] && zsock_family_row(gf));
  unsigned off = overhead(gf);
  ZSOCK_ASSERT(room >= off);
  auto *a = static_cast<zsockaddr_t *>(buf);
  memset(a, 0, off);
  socksetlen(a, gf, off);
  if (g_kind[gf].vpn) {
    ZSOCK_ASSERT(rd != nullptr);
    memcpy(raw(a) + 4, rd, 8);
  }
  return a;
}

void flow_common_add_qual(zsockaddr_t *a, size_t room, unsigned type, const uint8_t *value, size_t value_len) {
  check_flow(a);
  unsigned len = socklen(a);
  ZSOCK_ASSERT(len + 1 + value_len <= std::min<size_t>(room, ZSOCK_LONG_MAX));
  raw(a)[len] = static_cast<uint8_t>(type);
  if (value_len) memcpy(raw(a) + len + 1, value, value_len);
  socklen_set(a, len + 1 + value_len);
}

void flow_common_add_terms(zsockaddr_t *a, size_t room, unsigned type, const flow_term *terms, size_t n) {
  ZSOCK_ASSERT(n > 0 && type >= FLOW_PROTO && type <= FLOW_QUAL_MAX);
  uint8_t v[2 + 9 * 64];
  size_t k = 2;
  for (size_t i = 0; i < n; i++) {
    ZSOCK_ASSERT(k + 9 <= sizeof v);
    unsigned w = min_width(terms[i].value);
    uint8_t op = static_cast<uint8_t>((terms[i].op & 0x4f) | (w == 1 ? 0 : w == 2 ? 0x10 : w == 4 ? 0x20 : 0x30));
    v[k] = op;
    store_be(v + k + 1, w, terms[i].value);
    k += 1 + w;
  }
  store_be(v, 2, k - 2);
  flow_common_add_qual(a, room, type, v, k);
}

void inetflow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, uint32_t addr, unsigned plen) {
  ZSOCK_ASSERT(!g_kind[socktype(a)].v6 && is_prefix(type));
  ZSOCK_ASSERT(plen <= 255);
  uint8_t v[33] = {static_cast<uint8_t>(plen)};
  memcpy(v + 1, &addr, std::min(4u, sockbytes(plen)));
  flow_common_add_qual(a, room, type, v, 1 + sockbytes(plen));
}

void inet6flow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, const uint8_t addr[16], unsigned plen,
                          unsigned prefix_offset) {
  ZSOCK_ASSERT_TEXT(socktype(a) == zsock_registered_gf("inet6flow"), "socktype(addr) == GF_INET6FLOW");
  ZSOCK_ASSERT(plen <= 255);
  ZSOCK_ASSERT(prefix_offset <= plen);
  uint8_t v[2 + 32] = {static_cast<uint8_t>(plen), static_cast<uint8_t>(prefix_offset)};
  addr_to_pattern(addr, prefix_offset, plen, v + 2);
  flow_common_add_qual(a, room, type, v, 2 + sockbytes(plen - prefix_offset));
}

void in6vpnflow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, const uint8_t addr[16], unsigned prefixlen,
                           unsigned offset) {
  ZSOCK_ASSERT_TEXT(socktype(a) == zsock_registered_gf("in6vpnflow"), "socktype(addr) == GF_IN6VPNFLOW");
  ZSOCK_ASSERT(prefixlen <= 255);
  ZSOCK_ASSERT(prefixlen >= offset);
  uint8_t v[2 + 32] = {static_cast<uint8_t>(prefixlen), static_cast<uint8_t>(offset)};
  addr_to_pattern(addr, offset, prefixlen, v + 2);
  flow_common_add_qual(a, room, type, v, 2 + sockbytes(prefixlen - offset));
}

const uint8_t *flow_common_sock_qual_next(const zsockaddr_t *a, const uint8_t *qual, unsigned *qual_len) {
  check_flow(a);
  unsigned len = socklen(a), at;
  bool v6 = g_kind[socktype(a)].v6;
  if (!qual) {
    at = overhead(socktype(a));
  } else {
    at = static_cast<unsigned>(qual - raw(a));
    unsigned k = qual_size(v6, qual, len - at);
    if (!k) return nullptr;
    at += k;
  }
  if (at >= len) return nullptr;
  unsigned k = qual_size(v6, raw(a) + at, len - at);
  if (!k) return nullptr;
  if (qual_len) *qual_len = k;
  return raw(a) + at;
}

bool flow_common_sockaddr_valid(const zsockaddr_t *a) {
  if (!a || !g_is_flow[socktype(a)]) return false;
  unsigned len = socklen(a), at = overhead(socktype(a)), last = 0;
  bool v6 = g_kind[socktype(a)].v6;
  if (len < at) return false;
  while (at < len) {
    const uint8_t *q = raw(a) + at;
    unsigned k = qual_size(v6, q, len - at);
    if (!k || q[0] <= last || q[0] > FLOW_QUAL_MAX) return false;
    if (is_prefix(q[0]) ? (v6 ? q[1] > 128 || q[2] > q[1] : q[1] > 32) : !terms_ok(q, k)) return false;
    last = q[0];
    at += k;
  }
  return true;
}

int flow_common_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b) {
  if (a == b) return 0;
  if (!a || !b || a->zs_gf != b->zs_gf || !g_is_flow[a->zs_gf]) return common_sockaddrcmp2(a, b);
  unsigned gf = a->zs_gf, off = overhead(gf), la = socklen(a), lb = socklen(b);
  bool v6 = g_kind[gf].v6;
  // Bytes the two share decide nothing: start at the qualifier holding the
  // first difference.
  unsigned n = std::min(la, lb), p = first_diff(raw(a), raw(b), 4, n);
  if (p == n && la == lb) return 0;
  unsigned start = off;
  if (n >= off) {
    if (p < off) return raw(a)[p] < raw(b)[p] ? -1 : 1;  // in the distinguisher
    for (unsigned k; start < p && (k = qual_size(v6, raw(a) + start, la - start)) && start + k <= p;) start += k;
  } else if (g_kind[gf].vpn) {
    uint8_t x[8] = {}, y[8] = {};
    memcpy(x, raw(a) + 4, std::min(la, 12u) - std::min(la, 4u));
    memcpy(y, raw(b) + 4, std::min(lb, 12u) - std::min(lb, 4u));
    if (int c = memcmp(x, y, 8)) return c < 0 ? -1 : 1;
  }
  unsigned i = start, j = start;
  while (i < la && j < lb) {
    unsigned xn = qual_size(v6, raw(a) + i, la - i), yn = qual_size(v6, raw(b) + j, lb - j);
    if (!xn || !yn) break;  // damaged lists: the bytes decide below
    if (int c = qual_cmp(v6, raw(a) + i, xn, raw(b) + j, yn)) return c;
    i += xn;
    j += yn;
  }
  bool more_a = i < la, more_b = j < lb;
  if (more_a != more_b) return more_a ? -1 : 1;
  return common_sockaddrcmp2(a, b);
}

int flow_common_vprintf_numeric(char *text, size_t size, const uint8_t *qual, unsigned qual_len) {
  Out o(text, size);
  if (qual_len >= 3 && !is_prefix(qual[0]) && terms_ok(qual, qual_len)) print_terms(o, qual, qual_len);
  return o.len();
}

zsockaddr_t *sockbuild_invpnflow_flow(const uint8_t rd[8], const zsockaddr_t *flow) {
  ZSOCK_ASSERT_TEXT(socktype(flow) == zsock_registered_gf("inetflow"), "socktype(addr) == GF_INETFLOW");
  return vpn_form(rd, flow, "invpnflow");
}

zsockaddr_t *sockbuild_in6vpnflow_flow(const uint8_t rd[8], const zsockaddr_t *flow) {
  ZSOCK_ASSERT_TEXT(socktype(flow) == zsock_registered_gf("inet6flow"), "socktype(addr) == GF_INET6FLOW");
  return vpn_form(rd, flow, "in6vpnflow");
}

}  // extern "C"
