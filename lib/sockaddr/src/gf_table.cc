// The family table: every row with its kind, index rule, offset, size and
// masks; registration by row name; and the families whose address is a plain
// sequence of fields (VPN, transport, labelled, MDT, multicast, layer-2,
// link-state, ISO and others), printed and parsed by one engine from their
// field lists.
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "sockaddr/composite.h"
#include "sockaddr/flow.h"
#include "sockaddr/routing.h"
#include "zsock_fields.h"
#include "zsock_internal.h"
#include "zsock_rows.h"

using namespace zsock;

namespace {

enum Impl : uint8_t { I_LAYOUT, I_INET, I_INET_ALIAS, I_INET6, I_UNIX, I_STR, I_I802, I_EVPN, I_FLOW, I_COMPOSITE };

// fields, for I_LAYOUT: one letter per field; fields after '|' are optional
// (printed when the length reaches them). b u8, s u16, w u32, 4 IPv4, 6 IPv6,
// m MAC, r route distinguisher, x dotted hex (the rest of the address; last
// only).
struct RowImpl {
  Impl impl;
  const char *fields;
};

}  // namespace

extern "C" const zsock_table_row zsock_table_rows[] = {
    {"zsockaddr_inet_t", "inet", 2, -1, 4, 20, 129},
    {"zsockaddr_inet_t", "inet-alias", 172, 34, 4, 20, 129},
    {"zsockaddr_inet6_t", "inet6", 28, -1, 12, 52, 321},
    {"zsockaddr_unix_t", "unix", 1, -1, 2, 0, 0},
    {"zsockaddr_str_t", "str", 168, -1, 2, 0, 0},
    {"zsockaddr_t.i802", "i802", 161, 51, 2, 8, 0},
    {"zsockaddr_t.link", "link", 18, 55, 2, 12, 0},
    {"zsockaddr_t.dli", "dli", 13, 53, 2, 12, 0},
    {"zsockaddr_t.crh", "crh", 174, 41, 4, 8, 322},
    {"zsockaddr_t.mcsn", "mcsn", 175, 42, 4, 17, 0},
    {"zsockaddr_t.mcsn6", "mcsn6", 176, 43, 4, 41, 0},
    {"zsockaddr_t.inetflow", "inetflow", 157, 14, 4, 4063, 0},
    {"zsockaddr_t.invpnflow", "invpnflow", 158, -1, 4, 4063, 0},
    {"zsockaddr_t.in6vpnflow", "in6vpnflow", 171, -1, 4, 4063, 0},
    {"zsockaddr_t.inet6flow", "inet6flow", 170, -1, 4, 4063, 0},
    {"zsockaddr_t.mdt", "mdt", 156, -1, 4, 24, 145},
    {"zsockaddr_t.target", "target", 160, -1, 4, 16, 97},
    {"zsockaddr_t_bgpmcast", "bgpmcast", 180, -1, 4, 36, 241},
    {"zsockaddr_t_bgpmcast6", "bgpmcast6", 181, -1, 4, 84, 625},
    {"zsockaddr_t_evpn", "evpn", 166, -1, 4, 256, 2009},
    {"zsockaddr_evpnmcsn6_t", "evpnmcsn6", 173, -1, 12, 52, 321},
    {"zsockaddr_t_l2ckt", "l2ckt", 152, -1, 4, 16, 97},
    {"zsockaddr_t_l2id", "l2id", 169, -1, 6, 12, 49},
    {"zsockaddr_t_l2protec", "l2protec", 155, -1, 4, 20, 129},
    {"zsockaddr_t_l2vpn", "l2vpn", 151, -1, 4, 44, 321},
    {"zsockaddr_t_lsdist", "lsdist", 167, -1, 4, 156, 0},
    {"zsockaddr_t_mvpn", "mvpn", 153, -1, 4, 36, 241},
    {"zsockaddr_t_mvpn6", "mvpn6", 154, -1, 4, 60, 433},
    {"zsockaddr_t_tag", "tag", 39, -1, 4, 12, 65},
    {"zsockaddr_t_tagvpn", "tagvpn", 177, -1, 4, 20, 0},
    {"zsockaddr_t_vpn", "vpn", 109, -1, 4, 16, 97},
    {"zsockaddr_t_in6vpn", "in6vpn", 150, -1, 4, 28, 193},
    {"zsockaddr_t_inettransport", "inettransport", 178, -1, 4, 16, 97},
    {"zsockaddr_t_in6transport", "in6transport", 179, -1, 4, 28, 193},
    {"zsockaddr_t_iso", "iso", 7, -1, 2, 22, 161},
    {"zscoakddr_t_vpls", "vpls", 63, -1, 4, 16, 81},
    {"inetcolor", "inetcolor", 2, 37, 4, 12, 65},
    {"inet6color", "inet6color", 28, 38, 4, 24, 161},
    {"srte", "srte", 2, 35, 4, 16, 97},
    {"srte6", "srte6", 28, 36, 4, 28, 193},
    {"composite", "composite", 0, 56, 4, 255, 0},
    {nullptr, nullptr, 0, 0, 0, 0, 0},
};

namespace {

constexpr unsigned kRows = sizeof zsock_table_rows / sizeof zsock_table_rows[0] - 1;

constexpr RowImpl kImpl[kRows] = {
    {I_INET, nullptr},       {I_INET_ALIAS, nullptr}, {I_INET6, nullptr},     {I_UNIX, nullptr},
    {I_STR, nullptr},        {I_I802, nullptr},       {I_LAYOUT, "wm"},       {I_LAYOUT, "ssm"},
    {I_LAYOUT, "w"},         {I_LAYOUT, "b44w"},      {I_LAYOUT, "b66w"},     {I_FLOW, nullptr},
    {I_FLOW, nullptr},       {I_FLOW, nullptr},       {I_FLOW, nullptr},      {I_LAYOUT, "r44"},
    {I_LAYOUT, "wr"},        {I_LAYOUT, "br444"},     {I_LAYOUT, "br666"},    {I_EVPN, nullptr},
    {I_LAYOUT, "6|6"},       {I_LAYOUT, "4ww"},       {I_LAYOUT, "m"},        {I_LAYOUT, "4w4w"},
    {I_LAYOUT, "rsssw"},     {I_LAYOUT, "bbx"},       {I_LAYOUT, "br444"},    {I_LAYOUT, "br66"},
    {I_LAYOUT, "w4"},        {I_LAYOUT, "wr4"},       {I_LAYOUT, "r4"},       {I_LAYOUT, "r6"},
    {I_LAYOUT, "r4"},        {I_LAYOUT, "r6"},        {I_LAYOUT, "x"},        {I_LAYOUT, "rss"},
    {I_COMPOSITE, nullptr},  {I_COMPOSITE, nullptr},  {I_COMPOSITE, nullptr}, {I_COMPOSITE, nullptr},
    {I_COMPOSITE, nullptr},
};

// The daemon's index of each row.
constexpr unsigned kDaemonGf[kRows] = {
    GF_INET,         GF_INET_ALIAS,    GF_INET6,     GF_UNIX,       GF_STRING,      GF_I802,    GF_LINK,
    GF_DLI,          GF_CRH,           GF_MCSN,      GF_MCSN6,      GF_INETFLOW,    GF_INVPNFLOW, GF_IN6VPNFLOW,
    GF_INET6FLOW,    GF_MDT,           GF_TARGET,    GF_BGPMCAST,   GF_BGPMCAST6,   GF_EVPN,    GF_EVPNMCSN6,
    GF_L2CKT,        GF_L2ID,          GF_L2PROTEC,  GF_L2VPN,      GF_LSDIST,      GF_MVPN,    GF_MVPN6,
    GF_TAG,          GF_TAGVPN,        GF_VPN,       GF_IN6VPN,     GF_INETTRANSPORT, GF_IN6TRANSPORT, GF_ISO,
    GF_VPLS,         GF_INETCOLOR,     GF_INET6COLOR, GF_SRTE,      GF_SRTE6,       GF_COMPOSITE,
};

// The index each row was registered at; GF_UNSPEC before.
unsigned g_row_gf[kRows];

// --- the field-list engine ---

unsigned field_size(char f) {
  switch (f) {
    case 'b': return 1;
    case 's': return 2;
    case 'w': case '4': return 4;
    case '6': return 16;
    case 'm': return 6;
    case 'r': return 8;
    default: return 0;  // x: the rest
  }
}

int layout_print(char *text, size_t size, const zsockaddr_t *a, const zsock_table_row &r, const char *fields) {
  Out o(text, size);
  alignas(4) uint8_t buf[256] = {};
  unsigned len = std::min(socklen(a), 255u);
  memcpy(buf, a, len);
  const uint8_t *p = buf + r.offset;
  unsigned at = r.offset;
  bool optional = false, first = true;
  for (const char *f = fields; *f; f++) {
    if (*f == '|') {
      optional = true;
      continue;
    }
    unsigned sz = *f == 'x' ? (len > at ? len - at : 0) : field_size(*f);
    if (optional && at + sz > len) break;
    if (!first) o.ch(',');
    first = false;
    switch (*f) {
      case 'b': case 's': case 'w': o.u(load_be(p, sz)); break;
      case '4': o.v4(p); break;
      case '6': o.v6(p); break;
      case 'm': o.mac(p, false); break;
      case 'r': o.rd(p); break;
      case 'x': o.dotted_hex(p, std::min(sz, r.max_size - r.offset)); break;
    }
    p += sz;
    at += sz;
  }
  return o.len();
}

// Fields joined by ',', then an optional "/bits".
bool layout_parse(const char *text, zsockaddr_t *result, size_t size, int *result_len, const zsock_table_row &r,
                  unsigned gf, const char *fields) {
  alignas(4) uint8_t buf[256] = {};
  unsigned at = r.offset;
  const char *t = text;
  bool optional = false, first = true;
  for (const char *f = fields; *f; f++) {
    if (*f == '|') {
      optional = true;
      continue;
    }
    if (!first) {
      if (*t != ',') {
        if (optional) break;
        return false;
      }
      t++;
    }
    first = false;
    uint8_t *p = buf + at;
    uint64_t v;
    size_t k = 0;
    bool ok;
    switch (*f) {
      case 'b': ok = read_u(t, 0xff, &v) && (store_be(p, 1, v), true); break;
      case 's': ok = read_u(t, 0xffff, &v) && (store_be(p, 2, v), true); break;
      case 'w': ok = read_u(t, 0xffffffff, &v) && (store_be(p, 4, v), true); break;
      case '4': ok = read_v4(t, p); break;
      case '6': ok = read_v6(t, p); break;
      case 'm': ok = read_mac(t, p, false); break;
      case 'r': ok = read_rd(t, p); break;
      default: ok = read_dotted_hex(t, p, r.max_size - at, &k); break;
    }
    if (!ok) return false;
    at += *f == 'x' ? k : field_size(*f);
  }
  return finish_parse(t, r.masks, r.offset, buf, at, gf, result, size, result_len);
}

template <unsigned R>
int row_print(char *text, size_t size, const zsockaddr_t *a, int) {
  return layout_print(text, size, a, zsock_table_rows[R], kImpl[R].fields);
}

template <unsigned R>
bool row_parse(const char *text, zsockaddr_t *result, size_t size, int *result_len) {
  return layout_parse(text, result, size, result_len, zsock_table_rows[R], g_row_gf[R], kImpl[R].fields);
}

template <unsigned R>
int row_masklen(unsigned gf, const zsockaddr_t *mask) {
  return masklen_checked(gf, mask, zsock_table_rows[R].masks);
}

template <unsigned R>
int row_hostmasklen(unsigned) {
  unsigned bits = 0;
  for (const char *f = kImpl[R].fields; *f && *f != '|'; f++) bits += 8 * field_size(*f);
  return static_cast<int>(bits);
}

// Offset of the inner address inside the family's address bytes.
inline const uint8_t *bytes(const zsockaddr_t *a) { return reinterpret_cast<const uint8_t *>(a); }

// The 32-bit word at byte at, zero past the length.
uint32_t word_at(const zsockaddr_t *a, unsigned at) {
  uint32_t w = 0;
  unsigned len = socklen(a);
  if (len > at) memcpy(&w, bytes(a) + at, std::min(len - at, 4u));
  return w;
}

uint32_t vpn_extract(const zsockaddr_t *a, void *) { return word_at(a, 12); }
uint32_t tagvpn_extract(const zsockaddr_t *a, void *) { return word_at(a, 16); }
uint32_t tag_extract(const zsockaddr_t *a, void *) { return word_at(a, 8); }

// Multicast keys: group, then source, then the whole address as usual.
int mcsn_cmp(const zsockaddr_t *a, const zsockaddr_t *b, unsigned src_at, unsigned n) {
  if (a == b) return 0;
  if (!a || !b) return common_sockaddrcmp2(a, b);
  if (a->zs_gf != b->zs_gf) return a->zs_gf < b->zs_gf ? -1 : 1;
  uint8_t x[64] = {}, y[64] = {};
  memcpy(x, a, std::min<unsigned>(socklen(a), sizeof x));
  memcpy(y, b, std::min<unsigned>(socklen(b), sizeof y));
  int c = memcmp(x + src_at + n, y + src_at + n, n);
  if (!c) c = memcmp(x + src_at, y + src_at, n);
  if (c) return c < 0 ? -1 : 1;
  return common_sockaddrcmp2(a, b);
}

template <unsigned R>
void layout_init(zsock_ops *ops) {
  const zsock_table_row &r = zsock_table_rows[R];
  ops->printer = row_print<R>;
  ops->parse = row_parse<R>;
  ops->sockhostmasklen = row_hostmasklen<R>;
  if (r.offset != 2) {
    ops->sockcutlen = cut_from_offset;
    ops->sockandmask = andmask_from_offset;
  }
  if (r.masks) ops->sockmasklen = row_masklen<R>;
  const char *f = kImpl[R].fields;
  unsigned kind = r.kind;
  if (!strcmp(f, "r4")) ops->sockextract_in = vpn_extract;  // vpn, inettransport
  if (kind == 177) ops->sockextract_in = tagvpn_extract;
  if (kind == 39) ops->sockextract_in = tag_extract;
  if (kind == 156) {
    ops->sockextractsrc = sockextractsrc_mdt;
    ops->sockextractgrp = sockextractgrp_mdt;
  }
  if (kind == 175) ops->sockaddrcmp2 = inetmcsn_sockaddrcmp2;
  if (kind == 176) ops->sockaddrcmp2 = inet6mcsn_sockaddrcmp2;
}

template <unsigned R>
void row_init(zsock_ops *ops) {
  if constexpr (kImpl[R].impl == I_LAYOUT) layout_init<R>(ops);
}

using InitFn = void (*)(zsock_ops *);
template <size_t... I>
constexpr auto make_inits(std::index_sequence<I...>) {
  return std::array<InitFn, sizeof...(I)>{row_init<I>...};
}
constexpr auto kInits = make_inits(std::make_index_sequence<kRows>{});

void register_layout(unsigned i, unsigned gf) {
  const zsock_table_row &r = zsock_table_rows[i];
  size_t bytes = 0;
  const uint8_t *masks = r.masks ? build_masks(gf, r.offset, r.max_size, r.masks, &bytes) : nullptr;
  zsock_init_family(r.kind, gf, r.offset, r.max_size, masks, bytes, r.name, kInits[i]);
}

int find_row(const char *name) {
  for (unsigned i = 0; i < kRows; i++)
    if (!strcasecmp(zsock_table_rows[i].name, name) || !strcasecmp(zsock_table_rows[i].short_name, name))
      return static_cast<int>(i);
  return -1;
}

unsigned need_gf(const char *short_name) {
  int i = find_row(short_name);
  ZSOCK_ASSERT(i >= 0);
  unsigned gf = g_row_gf[i];
  ZSOCK_ASSERT_TEXT(gf != GF_UNSPEC, short_name);
  return gf;
}

zsockaddr_t *inner_v4(const zsockaddr_t *a, unsigned at) {
  uint32_t w = word_at(a, at);
  return sockbuild_in(0, w);
}

zsockaddr_t *inner_v6(const zsockaddr_t *a, unsigned at) {
  uint8_t v6[16] = {};
  unsigned len = socklen(a);
  if (len > at) memcpy(v6, bytes(a) + at, std::min(len - at, 16u));
  return sockbuild_in6(0, v6);
}

unsigned minus(unsigned plen, unsigned bits) { return plen > bits ? plen - bits : 0; }

}  // namespace

namespace zsock {

const uint8_t *build_masks(unsigned gf, unsigned offset, unsigned max, unsigned count, size_t *bytes) {
  static std::unique_ptr<uint8_t[]> storage[ZSOCK_GF_LIMIT];
  static size_t storage_bytes[ZSOCK_GF_LIMIT];
  unsigned entry = (max + 3) & ~3u;
  size_t n = size_t{count} * entry;
  if (storage_bytes[gf] != n) {
    storage[gf].reset(new uint8_t[n]);
    storage_bytes[gf] = n;
  }
  uint8_t *t = storage[gf].get();
  memset(t, 0, n);
  unsigned room = 8 * (max - offset);
  for (unsigned i = 0; i < count; i++) {
    uint8_t *m = t + size_t{i} * entry;
    unsigned bits = std::min(i, room);
    m[0] = static_cast<uint8_t>(offset + sockbytes(bits));
    m[1] = static_cast<uint8_t>(gf);
    memset(m + offset, 0xff, bits >> 3);
    if (bits & 7) m[offset + (bits >> 3)] = static_cast<uint8_t>(0xff00u >> (bits & 7));
  }
  *bytes = n;
  return t;
}

bool finish_parse(const char *t, unsigned masks, unsigned offset, uint8_t *buf, unsigned len, unsigned gf,
                  zsockaddr_t *result, size_t size, int *plen) {
  int bits = -1;
  if (*t == '/') {
    t++;
    uint64_t v;
    if (!read_u(t, std::min(masks ? masks - 1 : ~0u, 8 * (len - offset)), &v)) return false;
    bits = static_cast<int>(v);
  }
  if (*t || len > size) return false;
  buf[0] = static_cast<uint8_t>(len);
  buf[1] = static_cast<uint8_t>(gf);
  memcpy(result, buf, len);
  if (plen) *plen = bits;
  return true;
}

void cut_from_offset(zsockaddr_t *a, unsigned bits) {
  const zsock_family *r = zsock_family_row(a->zs_gf);
  unsigned off = r ? r->gf_offset : 2;
  cut_bits(a, bits, off, off);
}

void andmask_from_offset(zsockaddr_t *a, const zsockaddr_t *mask) {
  const zsock_family *r = zsock_family_row(a->zs_gf);
  unsigned off = r ? r->gf_offset : 2;
  unsigned len = std::min(socklen(a), socklen(mask));
  uint8_t *pa = reinterpret_cast<uint8_t *>(a);
  for (unsigned i = off; i < len; i++) pa[i] &= bytes(mask)[i];
  if (len >= off) socklen_set(a, len);
}

int masklen_checked(unsigned gf, const zsockaddr_t *mask, unsigned count) {
  int i = sockmask_index(zsock_family_row(gf), mask);
  if (i < 0) i = static_cast<int>(sockbitcount(mask));
  ZSOCK_ASSERT_TEXT(static_cast<unsigned>(i) < count, "bits < mask count");
  return i;
}

unsigned ip_bytes_of(const zsockaddr_t *ip, uint8_t out[16]) {
  if (!ip) return 0;
  if (socktype(ip) == gf_inet6) {
    memcpy(out, inet6_sockextract_in(ip), 16);
    return 16;
  }
  ZSOCK_ASSERT_TEXT(socktype(ip) == gf_inet, "socktype(ip) == GF_INET || socktype(ip) == GF_INET6");
  uint32_t w = inet_sockextract_in(ip);
  memcpy(out, &w, 4);
  return 4;
}

}  // namespace zsock

extern "C" {

unsigned zsock_table_daemon_gf(unsigned row) { return row < kRows ? kDaemonGf[row] : unsigned{GF_UNSPEC}; }

bool zsock_register_row(const char *name, unsigned gf) {
  int i = name ? find_row(name) : -1;
  if (i < 0) return false;
  const zsock_table_row &r = zsock_table_rows[i];
  if (r.fixed_gf >= 0) ZSOCK_ASSERT_TEXT(gf == static_cast<unsigned>(r.fixed_gf), "gf == the row's fixed index");
  switch (kImpl[i].impl) {
    case I_LAYOUT: register_layout(i, gf); break;
    case I_INET: zsock_register_inet(gf); break;
    case I_INET_ALIAS: zsock_register_inet_alias(gf); break;
    case I_INET6: zsock_register_inet6(gf); break;
    case I_UNIX: zsock_register_unix(gf); break;
    case I_STR: register_str(gf, r.kind, r.name); break;
    case I_I802: zsock_register_i802(gf); break;
    case I_EVPN: register_evpn(gf, r.kind, r.offset, r.max_size, r.masks, r.name); break;
    case I_FLOW: register_flow(gf, r.kind, r.offset, r.max_size, r.name); break;
    case I_COMPOSITE: register_composite(gf, r.name); break;
  }
  g_row_gf[i] = gf;
  return true;
}

void zsock_register_every_family(void) {
  for (unsigned i = 0; i < kRows; i++) zsock_register_row(zsock_table_rows[i].short_name, kDaemonGf[i]);
}

int zsock_family_lookup(const char *name) {
  if (!name || !*name) return -1;
  if (!strcasecmp(name, "unspec")) return zsock_family_row(GF_UNSPEC) ? GF_UNSPEC : -1;
  int i = find_row(name);
  if (i >= 0) return zsock_family_row(g_row_gf[i]) ? static_cast<int>(g_row_gf[i]) : -1;
  const char *p = name;
  uint64_t v;
  if (read_u(p, 255, &v) && !*p) return zsock_family_row(v) ? static_cast<int>(v) : -1;
  if (unsigned gf = sockfamily_by_name(name); gf && zsock_family_row(gf)) return static_cast<int>(gf);
  for (unsigned gf = 0; gf < zsock_gf_max(); gf++)
    if (const zsock_family *r = zsock_family_row(gf); r && !strcasecmp(r->gf_name, name)) return static_cast<int>(gf);
  return -1;
}

unsigned zsock_registered_gf(const char *name) {
  int i = find_row(name);
  return i >= 0 ? g_row_gf[i] : unsigned{GF_UNSPEC};
}

zsockaddr_t *inetvpn_sockextract_in(const zsockaddr_t *a) {
  ZSOCK_ASSERT(socktype(a) == need_gf("vpn"));
  return inner_v4(a, 12);
}
unsigned inetvpn_extract_plen_in(unsigned plen) { return minus(plen, 64); }

zsockaddr_t *inet6vpn_sockextract_in(const zsockaddr_t *a) {
  ZSOCK_ASSERT(socktype(a) == need_gf("in6vpn"));
  return inner_v6(a, 12);
}
unsigned inet6vpn_extract_plen_in(unsigned plen) { return minus(plen, 64); }

zsockaddr_t *tagvpn_sockextract_in(const zsockaddr_t *a) {
  ZSOCK_ASSERT(socktype(a) == need_gf("tagvpn"));
  return inner_v4(a, 16);
}
unsigned tagvpn_extract_plen_in(unsigned plen) { return minus(plen, 96); }

zsockaddr_t *inettransport_sockextract_in(const zsockaddr_t *a) {
  ZSOCK_ASSERT(socktype(a) == need_gf("inettransport"));
  return inner_v4(a, 12);
}
unsigned inettransport_extract_plen_in(unsigned plen) { return minus(plen, 64); }

zsockaddr_t *inet6transport_sockextract_in(const zsockaddr_t *a) {
  ZSOCK_ASSERT(socktype(a) == need_gf("in6transport"));
  return inner_v6(a, 12);
}
unsigned inet6transport_extract_plen_in(unsigned plen) { return minus(plen, 64); }

zsockaddr_t *sockbuild_inetvpn(const uint8_t rd[8], uint32_t addr) {
  zsockaddr_t *a = sockbuild(need_gf("vpn"), 16);
  memcpy(a->zs_data + 2, rd, 8);
  memcpy(a->zs_data + 10, &addr, 4);
  return a;
}

zsockaddr_t *sockbuild_inet6vpn(const uint8_t rd[8], const uint8_t addr[16]) {
  zsockaddr_t *a = sockbuild(need_gf("in6vpn"), 28);
  memcpy(a->zs_data + 2, rd, 8);
  memcpy(a->zs_data + 10, addr, 16);
  return a;
}

const zsockaddr_t *iso_sockmask_len(unsigned gf, unsigned bits) {
  ZSOCK_ASSERT(gf == need_gf("iso"));
  // The row's count says 175 (table bytes over the maximum size); the
  // table holds 161 masks.
  ZSOCK_ASSERT(bits < 161);
  return sockmask_for_len(gf, bits);
}

const zsockaddr_t *tag_sockmask_len(unsigned gf, unsigned bits) {
  ZSOCK_ASSERT(gf == need_gf("tag"));
  ZSOCK_ASSERT(bits < 65);
  return sockmask_for_len(gf, bits);
}

const zsockaddr_t *inetmdt_mask_len(unsigned gf, unsigned bits) {
  ZSOCK_ASSERT(gf == need_gf("mdt"));
  ZSOCK_ASSERT(bits < 145);
  return sockmask_for_len(gf, bits);
}

// MDT: distinguisher at 4, source at 12, group at 16.
uint32_t sockextractsrc_mdt(const zsockaddr_t *a, void *) { return a ? word_at(a, 12) : 0; }
uint32_t sockextractgrp_mdt(const zsockaddr_t *a, void *) { return a ? word_at(a, 16) : 0; }

// mcsn: flags at 4, source at 5, group after it.
int inetmcsn_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b) { return mcsn_cmp(a, b, 5, 4); }
int inet6mcsn_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b) { return mcsn_cmp(a, b, 5, 16); }

int vprintf_lsdist_format_addr(char *text, size_t size, const zsockaddr_t *a, int alt) {
  ZSOCK_ASSERT(socktype(a) == need_gf("lsdist"));
  return zsock_printer(socktype(a))(text, size, a, alt);
}

}  // extern "C"
