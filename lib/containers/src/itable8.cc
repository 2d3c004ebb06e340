// Small indexed table: 8-slot buckets, arrays of 1 to 32 pointers.
#include <cstring>

#include "containers/itable.h"
#include "ctr_internal.h"

namespace {

using tvx::containers::hi_bit;
using tvx::containers::lazy_block;
using tvx::containers::lo_bit;

constexpr uint32_t kShift = 3;
constexpr uint32_t kSlots = 8;
constexpr unsigned kClasses = 6;
constexpr uint32_t kMaxNeed = 32;

// Needed array size (0 to 32) to class; class c holds 1 << c pointers.
constexpr uint8_t kNeedToClass[kMaxNeed + 1] = {0, 0, 1, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4,
                                                5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};

lazy_block table_block{"itable8_t", sizeof(itable8_t)};
lazy_block bucket_block{"itable8_bucket_t", sizeof(itb8)};
lazy_block indirect_blocks[kClasses] = {
    {nullptr, 0},
    {"itable8_indirect_2", 2 * sizeof(itb8 *)},
    {"itable8_indirect_4", 4 * sizeof(itb8 *)},
    {"itable8_indirect_8", 8 * sizeof(itb8 *)},
    {"itable8_indirect_16", 16 * sizeof(itb8 *)},
    {"itable8_indirect_32", 32 * sizeof(itb8 *)},
};

void *(*alt_alloc)(size_t) = nullptr;
void (*alt_free)(void *) = nullptr;

unsigned itab8_size_to_idx(uint32_t need) {
  CONT_ASSERT_MSG(need <= kMaxNeed, "itab8_size_to_idx");
  return kNeedToClass[need];
}

unsigned class_of_size(uint32_t size) { return static_cast<unsigned>(__builtin_ctz(size)); }

void *mem_alloc(lazy_block &block) {
  if (!alt_alloc) return block.alloc();
  void *p = alt_alloc(block.size);
  CONT_ASSERT(p != nullptr);
  std::memset(p, 0, block.size);
  return p;
}

void mem_free(lazy_block &block, void *p) {
  if (alt_free)
    alt_free(p);
  else
    block.free(p);
}

inline uint32_t used_buckets(const itable8_t *itp) {
  return (uint32_t{itp->itab8_maxentry} + kSlots - 1) >> kShift;
}

void indirect_free(itable8_t *itp) {
  unsigned c = class_of_size(itp->itab8_indirsize);
  if (c) mem_free(indirect_blocks[c], itp->itab8_indirect);
}

void indirect_move(itable8_t *itp, unsigned cls, uint32_t keep) {
  itb8 **old = itp->itab8_indirect;
  itb8 **arr;
  if (cls == 0) {
    itb8 *b0 = keep ? old[0] : nullptr;
    indirect_free(itp);
    itp->itab8_bucket0 = b0;
    arr = &itp->itab8_bucket0;
  } else {
    arr = static_cast<itb8 **>(mem_alloc(indirect_blocks[cls]));
    std::memcpy(arr, old, keep * sizeof(itb8 *));
    indirect_free(itp);
  }
  itp->itab8_indirect = arr;
  itp->itab8_indirsize = static_cast<uint8_t>(1u << cls);
}

inline uint32_t none_if_over(const itable8_t *itp, uint32_t r) {
  return r <= itp->itab8_maxindex ? r : ITAB_NONE;
}

}  // namespace

extern "C" {

void itable8_set_allocator(void *(*alloc_fn)(size_t), void (*free_fn)(void *)) {
  alt_alloc = alloc_fn;
  alt_free = free_fn;
}

void itable8_init_blocks(void) {
  table_block.get();
  bucket_block.get();
  for (unsigned c = 1; c < kClasses; c++) indirect_blocks[c].get();
}

void itable8_init(itable8_t *itp, uint32_t maxindex) {
  itp->itab8_bucket0 = nullptr;
  itp->itab8_indirect = &itp->itab8_bucket0;
  itp->itab8_maxentry = 0;
  itp->itab8_maxindex = static_cast<uint8_t>(maxindex > ITAB8_TOPINDEX ? ITAB8_TOPINDEX : maxindex);
  itp->itab8_indirsize = 1;
  itp->itab8_free_hint = 0;
}

itable8_t *itable8_create(uint32_t maxindex) {
  auto *itp = static_cast<itable8_t *>(mem_alloc(table_block));
  itable8_init(itp, maxindex);
  return itp;
}

void itable8_set(itable8_t *itp, uint32_t idx, void *ptr) {
  CONT_ASSERT(itp->itab8_indirsize && idx <= itp->itab8_maxindex);
  if (!ptr) {
    itable8_reset(itp, idx);
    return;
  }
  uint32_t b = idx >> kShift;
  if (b >= itp->itab8_indirsize) indirect_move(itp, itab8_size_to_idx(b + 1), used_buckets(itp));
  itb8 *bucket = itp->itab8_indirect[b];
  if (!bucket) bucket = itp->itab8_indirect[b] = static_cast<itb8 *>(bucket_block.alloc());
  uint32_t s = idx & (kSlots - 1);
  bucket->itb8_slot[s] = ptr;
  bucket->itb8_bmask = static_cast<uint8_t>(bucket->itb8_bmask | (1u << s));
  if (idx >= itp->itab8_maxentry) itp->itab8_maxentry = static_cast<uint16_t>(idx + 1);
}

void *itable8_get(const itable8_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab8_indirsize);
  uint32_t b = idx >> kShift;
  if (b >= itp->itab8_indirsize) return nullptr;
  const itb8 *bucket = itp->itab8_indirect[b];
  return bucket ? bucket->itb8_slot[idx & (kSlots - 1)] : nullptr;
}

void itable8_reset(itable8_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab8_indirsize);
  if (idx >= itp->itab8_maxentry) return;
  uint32_t b = idx >> kShift;
  itb8 *bucket = itp->itab8_indirect[b];
  if (!bucket) return;
  if (b < itp->itab8_free_hint) itp->itab8_free_hint = static_cast<uint8_t>(b);
  uint32_t s = idx & (kSlots - 1);
  bucket->itb8_slot[s] = nullptr;
  bucket->itb8_bmask = static_cast<uint8_t>(bucket->itb8_bmask & ~(1u << s));
  if (bucket->itb8_bmask == 0) {
    bucket_block.free(bucket);
    itp->itab8_indirect[b] = nullptr;
  }
  if (idx + 1 != itp->itab8_maxentry) return;

  uint32_t maxentry = 0;
  for (uint32_t k = b + 1; k-- > 0;) {
    const itb8 *kb = itp->itab8_indirect[k];
    if (!kb) continue;
    maxentry = (k << kShift) + hi_bit(kb->itb8_bmask) + 1;
    break;
  }
  itp->itab8_maxentry = static_cast<uint16_t>(maxentry);
  uint32_t need = used_buckets(itp);
  unsigned idx_class = itab8_size_to_idx(need);
  unsigned current = class_of_size(itp->itab8_indirsize);
  if (idx_class < current) indirect_move(itp, idx_class, need);
}

void itable8_clear(itable8_t *itp) {
  CONT_ASSERT(itp->itab8_indirsize);
  uint32_t n = used_buckets(itp);
  for (uint32_t b = 0; b < n; b++)
    if (itp->itab8_indirect[b]) bucket_block.free(itp->itab8_indirect[b]);
  indirect_free(itp);
  itable8_init(itp, itp->itab8_maxindex);
}

void itable8_free(itable8_t *itp) {
  CONT_ASSERT(itp->itab8_indirsize);
  CONT_ASSERT(itp->itab8_maxentry == 0);
  indirect_free(itp);
  itp->itab8_indirsize = 0;
  mem_free(table_block, itp);
}

uint32_t itable8_find_first_used(const itable8_t *itp) {
  CONT_ASSERT(itp->itab8_indirsize);
  uint32_t n = used_buckets(itp);
  for (uint32_t b = 0; b < n; b++) {
    const itb8 *bucket = itp->itab8_indirect[b];
    if (bucket) return (b << kShift) + bit_lo_table[bucket->itb8_bmask];
  }
  CONT_ASSERT(itp->itab8_maxentry == 0);
  return ITAB_NONE;
}

uint32_t itable8_getnext_used(const itable8_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab8_indirsize);
  uint32_t start = idx + 1;
  if (start >= itp->itab8_maxentry) return ITAB_NONE;
  uint32_t n = used_buckets(itp);
  uint32_t mask = 0xffu << (start & (kSlots - 1));
  for (uint32_t b = start >> kShift; b < n; b++, mask = 0xff) {
    const itb8 *bucket = itp->itab8_indirect[b];
    if (!bucket) continue;
    uint32_t w = bucket->itb8_bmask & mask;
    if (w) return (b << kShift) + lo_bit(w);
  }
  return ITAB_NONE;
}

uint32_t itable8_find_first_free(itable8_t *itp, int zero_ok) {
  CONT_ASSERT(itp->itab8_indirsize);
  const itb8 *b0 = itp->itab8_indirect[0];
  if (!b0) return none_if_over(itp, zero_ok ? 0 : 1);
  uint32_t w = b0->itb8_bmask | (zero_ok ? 0u : 1u);
  if (w != 0xff) return none_if_over(itp, lo_bit(~w & 0xff));

  uint32_t n = used_buckets(itp);
  uint32_t b = itp->itab8_free_hint ? itp->itab8_free_hint : 1;
  uint32_t r;
  for (;; b++) {
    const itb8 *bucket = b < n ? itp->itab8_indirect[b] : nullptr;
    if (!bucket) {
      r = b << kShift;
      break;
    }
    if (bucket->itb8_bmask != 0xff) {
      r = (b << kShift) + lo_bit(~bucket->itb8_bmask & 0xffu);
      break;
    }
  }
  itp->itab8_free_hint = static_cast<uint8_t>(b);  // at most 32
  return none_if_over(itp, r);
}

uint32_t itable8_getnext_free(const itable8_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab8_indirsize);
  uint32_t pos = idx + 1;
  if (pos > itp->itab8_maxindex) return ITAB_NONE;
  while (pos < itp->itab8_maxentry) {
    const itb8 *bucket = itp->itab8_indirect[pos >> kShift];
    if (!bucket) break;
    uint32_t w = ~uint32_t{bucket->itb8_bmask} & (0xffu << (pos & (kSlots - 1))) & 0xffu;
    if (w) return none_if_over(itp, (pos & ~(kSlots - 1)) + lo_bit(w));
    pos = (pos & ~(kSlots - 1)) + kSlots;
  }
  return none_if_over(itp, pos);
}

}  // extern "C"
