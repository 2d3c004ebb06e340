// The composite families: typed fields after a 4-byte header, from a
// constant table copied to writable memory with its masks at registration.
#include <algorithm>
#include <cstring>
#include <vector>

#include "sockaddr/composite.h"
#include "sockaddr/families.h"
#include "zsock_fields.h"
#include "zsock_internal.h"
#include "zsock_rows.h"

using namespace zsock;

// The opaque composite declares 253 bytes of field; a one-byte length holds
// 251 of them after the header, so its addresses stop at 255 bytes.
extern "C" const zsock_composite_info zsock_composite_table[] = {
    {37, "inetcolor", 2, 8, 12, 65, 2, {{ZSOCK_FIELD_IPV4, 4}, {ZSOCK_FIELD_WORD, 4}}, nullptr},
    {38, "inet6color", 2, 20, 24, 161, 28, {{ZSOCK_FIELD_IPV6, 16}, {ZSOCK_FIELD_WORD, 4}}, nullptr},
    {35, "srte", 3, 12, 16, 97, 2, {{ZSOCK_FIELD_WORD, 4}, {ZSOCK_FIELD_IPV4, 4}, {ZSOCK_FIELD_WORD, 4}}, nullptr},
    {36, "srte6", 3, 24, 28, 193, 28, {{ZSOCK_FIELD_WORD, 4}, {ZSOCK_FIELD_IPV6, 16}, {ZSOCK_FIELD_WORD, 4}}, nullptr},
    {56, "composite", 1, 253, 255, 0, 0, {{ZSOCK_FIELD_BYTES, 253}}, nullptr},
    {0, nullptr, 0, 0, 0, 0, 0, {}, nullptr},
};

namespace {

constexpr unsigned kRows = sizeof zsock_composite_table / sizeof zsock_composite_table[0] - 1;
zsock_composite_info g_rows[kRows];
std::vector<const zsockaddr_t *> g_mask_lists[kRows];

const zsock_composite_info *info_of(unsigned gf) {
  const zsock_family *r = zsock_family_row(gf);
  return r ? static_cast<const zsock_composite_info *>(r->gf_composite) : nullptr;
}

const zsock_composite_info &need_info(const zsockaddr_t *a) {
  const zsock_composite_info *ci = info_of(socktype(a));
  ZSOCK_ASSERT_TEXT(ci != nullptr, "a composite family");
  return *ci;
}

unsigned field_at(const zsock_composite_info &ci, unsigned field) {
  unsigned at = ZSOCK_COMPOSITE_OFFSET;
  for (unsigned i = 0; i < field; i++) at += ci.ci_fields[i].cf_size;
  return at;
}

// Room for the field inside an address of the family's maximum size.
unsigned field_room(const zsock_composite_info &ci, unsigned field) {
  unsigned at = field_at(ci, field);
  return std::min<unsigned>(ci.ci_fields[field].cf_size, ci.ci_max_size - at);
}

// An address of the family's full size from get (heap or ring), the first
// count fields from values.
zsockaddr_t *make(unsigned gf, unsigned count, const void *const *values, zsockaddr_t *(*get)(unsigned, unsigned)) {
  const zsock_composite_info *ci = info_of(gf);
  ZSOCK_ASSERT(ci != nullptr);
  ZSOCK_ASSERT(count <= ci->ci_nfields);
  zsockaddr_t *a = get(gf, ci->ci_max_size);
  for (unsigned i = 0; i < count; i++)
    if (values && values[i]) setsock_field_composite(a, i, values[i]);
  return a;
}

int composite_print(char *text, size_t size, const zsockaddr_t *a, int) {
  const zsock_composite_info &ci = need_info(a);
  Out o(text, size);
  alignas(4) uint8_t buf[256] = {};
  unsigned len = std::min(socklen(a), 255u);
  memcpy(buf, a, len);
  for (unsigned i = 0; i < ci.ci_nfields; i++) {
    const uint8_t *p = buf + field_at(ci, i);
    if (i) o.ch(',');
    switch (ci.ci_fields[i].cf_type) {
      case ZSOCK_FIELD_WORD: o.u(load_be(p, 4)); break;
      case ZSOCK_FIELD_IPV4: o.v4(p); break;
      case ZSOCK_FIELD_IPV6: o.v6(p); break;
      default: {
        unsigned at = field_at(ci, i);
        o.dotted_hex(p, len > at ? std::min(len - at, field_room(ci, i)) : 0);
      }
    }
  }
  return o.len();
}

template <unsigned R>
bool row_parse(const char *text, zsockaddr_t *result, size_t size, int *plen) {
  return composite_parse_prefix(g_rows[R].ci_gf, text, result, size, plen);
}
template <unsigned R>
int row_masklen(unsigned gf, const zsockaddr_t *mask) {
  return masklen_checked(gf, mask, g_rows[R].ci_mask_count);
}

template <unsigned R>
void row_init(zsock_ops *ops) {
  ops->printer = composite_print;
  ops->parse = row_parse<R>;
  ops->sockcutlen = cut_from_offset;
  ops->sockandmask = andmask_from_offset;
  if (g_rows[R].ci_mask_count) ops->sockmasklen = row_masklen<R>;
}

constexpr zsock_family_init_fn kInits[] = {row_init<0>, row_init<1>, row_init<2>, row_init<3>, row_init<4>};
static_assert(sizeof kInits / sizeof kInits[0] == kRows);

}  // namespace

namespace zsock {

void register_composite(unsigned gf, const char *name) {
  unsigned i = 0;
  while (i < kRows && strcmp(zsock_composite_table[i].ci_name, name)) i++;
  ZSOCK_ASSERT(i < kRows);
  zsock_composite_info &ci = g_rows[i];
  ci = zsock_composite_table[i];
  ZSOCK_ASSERT(gf == ci.ci_gf);
  size_t bytes = 0;
  const uint8_t *masks =
      ci.ci_mask_count ? build_masks(gf, ZSOCK_COMPOSITE_OFFSET, ci.ci_max_size, ci.ci_mask_count, &bytes) : nullptr;
  zsock_init_family(ci.ci_kind, gf, ZSOCK_COMPOSITE_OFFSET, ci.ci_max_size, masks, bytes, ci.ci_name, kInits[i]);
  g_mask_lists[i].clear();
  for (unsigned b = 0; b < ci.ci_mask_count; b++) g_mask_lists[i].push_back(sockmask_for_len(gf, b));
  ci.ci_masks = g_mask_lists[i].data();
  zsock_init_composite_info(gf, &ci);
}

}  // namespace zsock

extern "C" {

void composite_family_init(void) {
  for (unsigned i = 0; i < kRows; i++) register_composite(zsock_composite_table[i].ci_gf, zsock_composite_table[i].ci_name);
}

const zsock_composite_info *sock_info_composite_vec(unsigned gf) { return info_of(gf); }

zsockaddr_t *sockcreate_composite(unsigned gf, unsigned count, const void *const *values) {
  return make(gf, count, values, sockalloc);
}

zsockaddr_t *sockbuild_composite(unsigned gf, unsigned count, const void *const *values) {
  return make(gf, count, values, sockbuild);
}

const uint8_t *getsock_field_composite(const zsockaddr_t *a, unsigned field, unsigned *size) {
  const zsock_composite_info &ci = need_info(a);
  ZSOCK_ASSERT(field < ci.ci_nfields);
  if (size) *size = field_room(ci, field);
  return reinterpret_cast<const uint8_t *>(a) + field_at(ci, field);
}

uint32_t getsock_word_composite(const zsockaddr_t *a, unsigned field) {
  const zsock_composite_info &ci = need_info(a);
  ZSOCK_ASSERT(field < ci.ci_nfields && ci.ci_fields[field].cf_type == ZSOCK_FIELD_WORD);
  unsigned at = field_at(ci, field);
  return socklen(a) >= at + 4 ? static_cast<uint32_t>(load_be(reinterpret_cast<const uint8_t *>(a) + at, 4)) : 0;
}

void setsock_field_composite(zsockaddr_t *a, unsigned field, const void *value) {
  const zsock_composite_info &ci = need_info(a);
  ZSOCK_ASSERT(field < ci.ci_nfields);
  unsigned at = field_at(ci, field), room = field_room(ci, field);
  ZSOCK_ASSERT(socklen(a) >= at + room);
  uint8_t *p = reinterpret_cast<uint8_t *>(a) + at;
  if (!value)
    memset(p, 0, room);
  else if (ci.ci_fields[field].cf_type == ZSOCK_FIELD_WORD)
    store_be(p, 4, *static_cast<const uint32_t *>(value));
  else
    memcpy(p, value, room);
}

bool composite_parse_prefix(unsigned gf, const char *text, zsockaddr_t *result, size_t size, int *plen) {
  const zsock_composite_info *ci = info_of(gf);
  if (!ci || !text) return false;
  alignas(4) uint8_t buf[256] = {};
  const char *t = text;
  unsigned len = ci->ci_max_size;
  for (unsigned i = 0; i < ci->ci_nfields; i++) {
    if (i && *t++ != ',') return false;
    uint8_t *p = buf + field_at(*ci, i);
    uint64_t v;
    size_t k;
    bool ok;
    switch (ci->ci_fields[i].cf_type) {
      case ZSOCK_FIELD_WORD: ok = read_u(t, 0xffffffff, &v) && (store_be(p, 4, v), true); break;
      case ZSOCK_FIELD_IPV4: ok = read_v4(t, p); break;
      case ZSOCK_FIELD_IPV6: ok = read_v6(t, p); break;
      default:
        ok = read_dotted_hex(t, p, field_room(*ci, i), &k);
        len = field_at(*ci, i) + k;
    }
    if (!ok) return false;
  }
  return finish_parse(t, ci->ci_mask_count, ZSOCK_COMPOSITE_OFFSET, buf, len, gf, result, size, plen);
}

const zsockaddr_t *const *composite_init_mask_list(unsigned gf) {
  const zsock_composite_info *ci = info_of(gf);
  return ci ? ci->ci_masks : nullptr;
}

zsockaddr_t *sock_composite_underlying(const zsockaddr_t *a) {
  const zsock_composite_info &ci = need_info(a);
  for (unsigned i = 0; i < ci.ci_nfields; i++) {
    unsigned type = ci.ci_fields[i].cf_type;
    if (type != ZSOCK_FIELD_IPV4 && type != ZSOCK_FIELD_IPV6) continue;
    uint8_t ip[16] = {};
    unsigned at = field_at(ci, i), len = socklen(a);
    if (len > at) memcpy(ip, reinterpret_cast<const uint8_t *>(a) + at, std::min(len - at, type == ZSOCK_FIELD_IPV4 ? 4u : 16u));
    if (type == ZSOCK_FIELD_IPV6) return sockbuild_in6(0, ip);
    uint32_t w;
    memcpy(&w, ip, 4);
    return sockbuild_in(0, w);
  }
  return nullptr;
}

}  // extern "C"
