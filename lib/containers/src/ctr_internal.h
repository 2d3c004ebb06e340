// Private helpers of the heap and table sources: the assertion path, the
// block handles taken through the allocation hooks, and word bit scans.
#pragma once

#include <cstddef>
#include <cstdint>

#include "containers/bit_tables.h"
#include "containers/alloc_hooks.h"

namespace tvx::ctr {

// Writes the failed expression to stderr and aborts.
[[noreturn]] void assert_fail(const char *expr, const char *func, const char *file, int line);

// A block handle taken on first use.
struct lazy_block {
  const char *name;
  size_t size;
  void *handle = nullptr;

  void *get() {
    if (!handle) handle = ctr_alloc.cah_block_init(name, size);
    return handle;
  }
  void *alloc() { return ctr_alloc.cah_block_alloc(get()); }
  void free(void *p) { ctr_alloc.cah_block_free(get(), p); }
};

}  // namespace tvx::ctr

// The text printed is the expression as written, so the expressions in the
// sources are spelt the way the assertion messages must read.
#define CTR_ASSERT(expr) \
  ((expr) ? (void)0 : ::tvx::ctr::assert_fail(#expr, __func__, __FILE__, __LINE__))
#define CTR_ASSERT_MSG(cond, text) \
  ((cond) ? (void)0 : ::tvx::ctr::assert_fail(text, __func__, __FILE__, __LINE__))

namespace tvx::ctr {

// Lowest and highest set bit of a non-zero word, counted from bit 0, a byte
// at a time through the exported tables.
inline unsigned lo_bit(uint32_t w) {
  if (w & 0xff) return bit_lo_table[w & 0xff];
  if (w & 0xff00) return 8 + bit_lo_table[(w >> 8) & 0xff];
  if (w & 0xff0000) return 16 + bit_lo_table[(w >> 16) & 0xff];
  return 24 + bit_lo_table[w >> 24];
}
inline unsigned hi_bit(uint32_t w) {
  if (w >> 24) return 31 - bit_hi_table[w >> 24];
  if (w >> 16) return 23 - bit_hi_table[(w >> 16) & 0xff];
  if (w >> 8) return 15 - bit_hi_table[(w >> 8) & 0xff];
  return 7 - bit_hi_table[w & 0xff];
}

}  // namespace tvx::ctr
