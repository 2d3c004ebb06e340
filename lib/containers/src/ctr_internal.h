// Private helpers of the heap and table sources: block and cookie handles
// taken through the memory hooks on first use, and word bit scans.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "containers/bit_tables.h"
#include "containers/mem_hooks.h"
#include "fatal.h"

namespace tvx::containers {

// A block handle taken on first use.
struct lazy_block {
  const char *name;
  size_t size;
  void *handle = nullptr;

  void *get() {
    if (!handle) handle = containers_mem.cmh_block_init(name, size);
    return handle;
  }
  void *alloc() { return containers_mem.cmh_block_alloc(get()); }
  void free(void *p) { containers_mem.cmh_block_free(get(), p); }
};

// A cookie handle taken on first use, for arrays too large for any block.
struct lazy_cookie {
  const char *name;
  void *handle = nullptr;

  void *get() {
    if (!handle) {
      handle = containers_mem.cmh_cookie_create(name);
      CONT_ASSERT(handle);
    }
    return handle;
  }
  // Zeroed like a block object: the arrays are read for null slots.
  void *zalloc(size_t size) {
    void *p = containers_mem.cmh_cookie_malloc(get(), size);
    std::memset(p, 0, size);
    return p;
  }
  void free(void *p) { containers_mem.cmh_cookie_free(get(), p); }
};

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

}  // namespace tvx::containers
