// Start of the address library, the family table, lengths, ownership and the
// scratch ring.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <algorithm>

#include "platform/compat.h"
#include "zsock_fields.h"
#include "zsock_internal.h"

namespace zsock {

State g;

void *alloc(unsigned cls, size_t size) { return g.hooks.alloc(cls, size); }

void release(void *p, unsigned cls, size_t size) {
  if (g.hooks.free_sized)
    g.hooks.free_sized(p, cls, size);
  else
    g.hooks.free(p, cls);
}

}  // namespace zsock

using namespace zsock;

extern "C" {

namespace {
void *libc_alloc(unsigned, size_t size) { return calloc(1, size); }
void libc_free(void *p, unsigned) { free(p); }
// An address of no family prints its bytes from 2 in dotted hex, and parses
// back from that text.
int unspec_print(char *text, size_t size, const zsockaddr_t *a, int) {
  Out o(text, size);
  unsigned len = std::min(socklen(a), 156u);
  o.dotted_hex(a->zs_data, len > 2 ? len - 2 : 0);
  return o.len();
}

bool unspec_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  uint8_t b[154];
  size_t k;
  const char *t = text;
  if (!read_dotted_hex(t, b, sizeof b, &k) || *t || k + 2 > size) return false;
  socksetlen(buf, GF_UNSPEC, k + 2);
  memcpy(buf->zs_data, b, k);
  *result_len = -1;
  return true;
}

void unspec_init(zsock_ops *ops) {
  ops->printer = unspec_print;
  ops->parse = unspec_parse;
}

}  // namespace

zsock_hooks zsock_hooks_libc(void) {
  zsock_hooks h{};
  h.alloc = libc_alloc;
  h.free = libc_free;
  h.snprintf = snprintf;
  h.fprintf = fprintf;
  h.vsnprintf = vsnprintf;
  return h;
}

void zsock_init(unsigned gf_max, const zsock_family_name *names, size_t ring_size, const zsock_hooks *hooks) {
  ZSOCK_ASSERT(hooks && hooks->alloc && (hooks->free || hooks->free_sized));
  ZSOCK_ASSERT(gf_max > 0 && gf_max <= ZSOCK_GF_LIMIT);
  ZSOCK_ASSERT(ring_size >= 256);
  g = State{};
  g.hooks = *hooks;
  g.gf_max = gf_max;
  g.names = names;
  g.table = static_cast<zsock_family *>(alloc(ZSOCK_CLASS_FAMILY_TABLE, gf_max * sizeof(zsock_family)));
  memset(g.table, 0, gf_max * sizeof(zsock_family));
  g.ring = static_cast<uint8_t *>(alloc(ZSOCK_CLASS_RING, ring_size));
  memset(g.ring, 0, ring_size);
  g.ring_size = ring_size;
  zsock_init_family(147, GF_UNSPEC, 2, 156, nullptr, 0, "zsockaddr_gf_unspec", unspec_init);
}

void zsock_shutdown(void) {
  if (!g.table) return;
  for (unsigned gf = 0; gf < g.gf_max; gf++)
    if (g.table[gf].gf_ops) release(g.table[gf].gf_ops, ZSOCK_CLASS_OPS, sizeof(zsock_ops));
  release(g.table, ZSOCK_CLASS_FAMILY_TABLE, g.gf_max * sizeof(zsock_family));
  release(g.ring, ZSOCK_CLASS_RING, g.ring_size);
  g = State{};
}

void zsock_init_family(unsigned kind, unsigned gf, unsigned offset, unsigned max_size, const void *mask_table,
                       size_t mask_table_bytes, const char *name, zsock_family_init_fn init) {
  ZSOCK_ASSERT(g.table);
  ZSOCK_ASSERT(gf < g.gf_max);
  zsock_family &r = g.table[gf];
  if (r.gf_ops) release(r.gf_ops, ZSOCK_CLASS_OPS, sizeof(zsock_ops));
  r = zsock_family{};
  r.gf_native = gf == 34 ? 1 : gf == 39 ? 6 : gf;
  r.gf_offset = offset;
  r.gf_max_size = max_size;
  r.gf_kind = kind;
  strlcpy(r.gf_name, name ? name : "", sizeof r.gf_name);
  if (max_size && mask_table) {
    r.gf_masks.mt_count = mask_table_bytes / max_size;
    r.gf_masks.mt_entry_size = (max_size + 3) & ~3u;
    r.gf_masks.mt_start = static_cast<const uint8_t *>(mask_table);
    r.gf_masks.mt_end = r.gf_masks.mt_start + mask_table_bytes;
  }
  auto *ops = static_cast<zsock_ops *>(alloc(ZSOCK_CLASS_OPS, sizeof(zsock_ops)));
  fill_default_ops(ops);
  if (init) init(ops);
  r.gf_ops = ops;
  if (ops->printer && g.hooks.printf_ext) g.hooks.printf_ext(gf, ops->printer, ZTASK_FMT_ZSOCKA, r.gf_native);
}

void zsock_init_composite_info(unsigned gf, const void *info) {
  ZSOCK_ASSERT(row(gf) != nullptr);
  g.table[gf].gf_composite = const_cast<void *>(info);
}

unsigned zsock_gf_max(void) { return g.gf_max; }
const zsock_family *zsock_family_row(unsigned gf) { return row(gf); }
const zsock_hooks *zsock_get_hooks(void) { return &g.hooks; }

zsock_printer_fn zsock_printer(unsigned gf) {
  const zsock_family *r = row(gf);
  return r ? r->gf_ops->printer : nullptr;
}

unsigned sockfamily_by_name(const char *name) {
  if (!name || !g.names) return 0;
  for (const zsock_family_name *n = g.names; n->name; n++)
    if (strcasecmp(n->name, name) == 0) return n->value;
  return 0;
}

unsigned socklen(const zsockaddr_t *a) {
  if (is_long_family(a->zs_gf)) {
    uint16_t len;
    memcpy(&len, a->zs_data, sizeof len);
    return len;
  }
  return a->zs_len;
}

void socklen_set(zsockaddr_t *a, unsigned len) {
  if (is_long_family(a->zs_gf)) {
    ZSOCK_ASSERT(len <= ZSOCK_LONG_MAX && len >= 4);
    uint16_t l = len;
    memcpy(a->zs_data, &l, sizeof l);
  } else {
    ZSOCK_ASSERT(len <= 255);
  }
  a->zs_len = len & 0xff;
}

void socksetlen(zsockaddr_t *a, unsigned gf, unsigned len) {
  a->zs_gf = gf;
  socklen_set(a, len);
}

unsigned sockbitcount(const zsockaddr_t *a) {
  static constexpr auto popcount = [] {
    struct {
      uint8_t v[256];
    } t{};
    for (int i = 0; i < 256; i++) t.v[i] = (i & 1) + (i >> 1 & 1) + (i >> 2 & 1) + (i >> 3 & 1) + (i >> 4 & 1) +
                                          (i >> 5 & 1) + (i >> 6 & 1) + (i >> 7 & 1);
    return t;
  }();
  const uint8_t *p = reinterpret_cast<const uint8_t *>(a);
  unsigned n = 0;
  for (unsigned i = 2, len = socklen(a); i < len; i++) n += popcount.v[p[i]];
  return n;
}

const uint8_t *sockaddrptr(const zsockaddr_t *a) {
  const zsock_family *r = row(a->zs_gf);
  const uint8_t *p = reinterpret_cast<const uint8_t *>(a);
  return r ? p + r->gf_offset : p;
}

zsockaddr_t *sockalloc(unsigned gf, unsigned len) {
  ZSOCK_ASSERT(len >= 2);
  auto *a = static_cast<zsockaddr_t *>(alloc(gf, len));
  memset(a, 0, len);
  socksetlen(a, gf, len);
  return a;
}

zsockaddr_t *sockdup(const zsockaddr_t *a) {
  if (!a) return nullptr;
  const zsock_ops *ops = ops_of(a);
  ZSOCK_ASSERT_TEXT(ops && ops->copy, "copy");
  auto *d = static_cast<zsockaddr_t *>(alloc(a->zs_gf, socklen(a)));
  ops->copy(d, a);
  return d;
}

void sockfree(zsockaddr_t *a) {
  if (!a) return;
  const zsock_ops *ops = ops_of(a);
  if (ops && ops->release) ops->release(a);
  release(a, a->zs_gf, socklen(a));
}

void sockreplace(zsockaddr_t **slot, const zsockaddr_t *a) {
  sockfree(*slot);
  *slot = sockdup(a);
}

zsockaddr_t *sockbuild_empty(unsigned gf, unsigned len) {
  ZSOCK_ASSERT(g.ring && gf < g.gf_max);
  ZSOCK_ASSERT(len >= 2 && len <= g.ring_size);
  size_t need = (len + 3) & ~size_t{3};
  // A block that would reach the ring's end starts over at the front; earlier
  // blocks there are silently reused.
  if (g.ring_cursor + need >= g.ring_size) g.ring_cursor = 0;
  auto *a = reinterpret_cast<zsockaddr_t *>(g.ring + g.ring_cursor);
  g.ring_cursor += need;
  memset(a, 0, len);
  socksetlen(a, gf, len);
  return a;
}

zsockaddr_t *sockbuild(unsigned gf, unsigned len) {
  ZSOCK_ASSERT(gf != GF_UNSPEC && gf < g.gf_max);
  return sockbuild_empty(gf, len);
}

const zsockaddr_t *sockmask_for_len(unsigned gf, unsigned bits) {
  const zsock_family *r = row(gf);
  if (!r || bits >= r->gf_masks.mt_count) return nullptr;
  // A count worked out from a maximum size that is not a multiple of 4 (the
  // iso row's) says more than the table holds: past its end there is none.
  const uint8_t *m = r->gf_masks.mt_start + size_t{bits} * r->gf_masks.mt_entry_size;
  if (m + r->gf_masks.mt_entry_size > r->gf_masks.mt_end) return nullptr;
  return reinterpret_cast<const zsockaddr_t *>(m);
}

int sockmask_index(const zsock_family *r, const zsockaddr_t *mask) {
  const uint8_t *p = reinterpret_cast<const uint8_t *>(mask);
  if (!r || !r->gf_masks.mt_start || p < r->gf_masks.mt_start || p >= r->gf_masks.mt_end) return -1;
  size_t off = p - r->gf_masks.mt_start;
  if (off % r->gf_masks.mt_entry_size) return -1;
  return off / r->gf_masks.mt_entry_size;
}

bool sockparse_prefix(unsigned gf, const char *text, size_t size, zsockaddr_t *result, int *result_len) {
  const zsock_family *r = row(gf);
  if (!r || !r->gf_ops->parse || !text || !result) return false;
  int plen = -1;
  if (!r->gf_ops->parse(text, result, size, &plen)) return false;
  result->zs_gf = gf;  // a parser shared by two indexes writes its first one
  if (result_len) *result_len = plen;
  return true;
}

bool sockparse(unsigned gf, const char *text, size_t size, zsockaddr_t *result) {
  return sockparse_prefix(gf, text, size, result, nullptr);
}

int sockparse_len(unsigned gf, const char *text) {
  alignas(8) uint8_t buf[ZSOCK_LONG_MAX + 1];
  auto *a = reinterpret_cast<zsockaddr_t *>(buf);
  return sockparse(gf, text, sizeof buf, a) ? static_cast<int>(socklen(a)) : -1;
}

int sockprint(char *text, size_t size, const zsockaddr_t *a, int alt) {
  if (!size) return 0;
  const char *word = nullptr;
  zsock_printer_fn printer = nullptr;
  if (!a || socklen(a) == 0)
    word = "zero-len";
  else if (!(printer = zsock_printer(a->zs_gf)))
    word = "Func Null";
  if (word) return strlcpy(text, word, size) >= size ? static_cast<int>(size - 1) : static_cast<int>(strlen(word));
  return printer(text, size, a, alt);
}

}  // extern "C"
