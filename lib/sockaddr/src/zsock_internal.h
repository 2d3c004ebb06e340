// Internal to the address library: the assertion that names the failed
// operation, and the family-row look-ups the operations share.
#pragma once

#include "sockaddr/zsockaddr.h"

// glibc's assertion reporter; <assert.h> hides it in NDEBUG builds, and these
// assertions hold in every build.
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned int line,
                                           const char *function) noexcept;

// Library assertions report this library's file name, whatever source file
// they come from, and the text the caller chose (an operation's name).
#define ZSOCK_ASSERT_TEXT(cond, text) \
  ((cond) ? (void)0 : __assert_fail((text), "zsockaddr.cc", __LINE__, __func__))
#define ZSOCK_ASSERT(cond) ZSOCK_ASSERT_TEXT(cond, #cond)

namespace zsock {

struct State {
  unsigned gf_max;
  zsock_family *table;  // gf_max rows; a row with gf_ops == nullptr is unregistered
  const zsock_family_name *names;
  zsock_hooks hooks;
  uint8_t *ring;
  size_t ring_size;
  size_t ring_cursor;
};
extern State g;

// The row of a registered family, or nullptr.
inline const zsock_family *row(unsigned gf) {
  return gf < g.gf_max && g.table && g.table[gf].gf_ops ? &g.table[gf] : nullptr;
}
inline const zsock_ops *ops_of(const zsockaddr_t *a) {
  const zsock_family *r = row(a->zs_gf);
  return r ? r->gf_ops : nullptr;
}
// Address offset of a's family; 2 for a family that is not registered.
inline unsigned offset_of(const zsockaddr_t *a) {
  const zsock_family *r = row(a->zs_gf);
  return r ? r->gf_offset : 2;
}
inline bool is_long_family(unsigned gf) { return gf == 14 || gf == 15 || gf == 32 || gf == 33; }

void *alloc(unsigned cls, size_t size);
void release(void *p, unsigned cls, size_t size);

// The generic operations, which the default table holds.
void fill_default_ops(zsock_ops *ops);

// Keeps the first bits of a's bytes from offset, clears the rest up to the
// length, and shortens the length to what was kept, never below min_len.
void cut_bits(zsockaddr_t *a, unsigned bits, unsigned offset, unsigned min_len);

}  // namespace zsock
