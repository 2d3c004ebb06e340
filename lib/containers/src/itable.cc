// 32-bit indexed table: class ladder, bucket bit maps, used and free searches.
#include <cstring>

#include "containers/itable.h"
#include "ctr_internal.h"

namespace {

using tvx::containers::hi_bit;
using tvx::containers::lazy_block;
using tvx::containers::lazy_cookie;
using tvx::containers::lo_bit;

constexpr uint32_t kShift = 6;
constexpr uint32_t kSlots = 64;
constexpr uint32_t kAllOnes = 0xffffffffu;
constexpr unsigned kHeapClass = 6;
constexpr uint32_t kClassSize[kHeapClass] = {1, 4, 16, 64, 256, 1023};

lazy_block table_block{"itable", sizeof(itable_t)};
lazy_block bucket_block{"itable_bucket", sizeof(itb)};
lazy_block indirect_blocks[kHeapClass] = {
    {nullptr, 0},
    {"itable_indirect_4", 4 * sizeof(itb *)},
    {"itable_indirect_16", 16 * sizeof(itb *)},
    {"itable_indirect_64", 64 * sizeof(itb *)},
    {"itable_indirect_256", 256 * sizeof(itb *)},
    {"itable_indirect_1023", 1023 * sizeof(itb *)},
};
// Arrays past the last class.
lazy_cookie indirect_cookie{"itable_indirect"};

unsigned class_for_need(uint32_t need) {
  for (unsigned c = 0; c < kHeapClass; c++)
    if (need <= kClassSize[c]) return c;
  return kHeapClass;
}

uint32_t size_for_need(uint32_t need) {
  unsigned c = class_for_need(need);
  if (c < kHeapClass) return kClassSize[c];
  return (2u << (31 - __builtin_clz(need))) - 1;
}

unsigned class_of_size(uint32_t size) {
  for (unsigned c = 0; c < kHeapClass; c++)
    if (size == kClassSize[c]) return c;
  return kHeapClass;
}

// Buckets that may exist: those up to the one of the last used index.
inline uint32_t used_buckets(const itable_t *itp) {
  return static_cast<uint32_t>((uint64_t{itp->itab_maxentry} + kSlots - 1) >> kShift);
}

itb **indirect_alloc(uint32_t size) {
  unsigned c = class_of_size(size);
  if (c < kHeapClass) return static_cast<itb **>(indirect_blocks[c].alloc());
  return static_cast<itb **>(indirect_cookie.zalloc(size * sizeof(itb *)));
}

void indirect_free(itable_t *itp) {
  unsigned c = class_of_size(itp->itab_indirsize);
  if (c == 0) return;
  if (c < kHeapClass)
    indirect_blocks[c].free(itp->itab_indirect);
  else
    indirect_cookie.free(itp->itab_indirect);
}

// Moves the used part of the array into one of `size` pointers; size 1 is
// the table's own word.
void indirect_move(itable_t *itp, uint32_t size, uint32_t keep) {
  itb **old = itp->itab_indirect;
  itb **arr;
  if (size == 1) {
    itb *b0 = keep ? old[0] : nullptr;
    indirect_free(itp);
    itp->itab_bucket0 = b0;
    arr = &itp->itab_bucket0;
  } else {
    arr = indirect_alloc(size);
    std::memcpy(arr, old, keep * sizeof(itb *));
    indirect_free(itp);
  }
  itp->itab_indirect = arr;
  itp->itab_indirsize = size;
}

void indirect_shrink(itable_t *itp, uint32_t need) {
  unsigned idx = class_for_need(need);
  unsigned current = class_of_size(itp->itab_indirsize);
  CONT_ASSERT(idx < current);
  indirect_move(itp, size_for_need(need), need);
}

inline uint32_t none_if_over(const itable_t *itp, uint64_t r) {
  return r <= itp->itab_maxindex ? static_cast<uint32_t>(r) : ITAB_NONE;
}

}  // namespace

extern "C" {

void itable_init_blocks(void) {
  table_block.get();
  bucket_block.get();
  for (unsigned c = 1; c < kHeapClass; c++) indirect_blocks[c].get();
  indirect_cookie.get();
}

void itable_init(itable_t *itp, uint32_t maxindex) {
  itp->itab_bucket0 = nullptr;
  itp->itab_indirect = &itp->itab_bucket0;
  itp->itab_maxentry = 0;
  itp->itab_maxindex = maxindex == ITAB_MAXINDEX ? ITAB_MAXINDEX - 1 : maxindex;
  itp->itab_indirsize = 1;
  itp->itab_free_hint = 0;
}

itable_t *itable_create(uint32_t maxindex) {
  auto *itp = static_cast<itable_t *>(table_block.alloc());
  itable_init(itp, maxindex);
  return itp;
}

void itable_set(itable_t *itp, uint32_t idx, void *ptr) {
  CONT_ASSERT(itp->itab_indirsize && idx != ITAB_MAXINDEX && idx <= itp->itab_maxindex);
  if (!ptr) {
    itable_reset(itp, idx);
    return;
  }
  uint32_t b = idx >> kShift;
  if (b >= itp->itab_indirsize) indirect_move(itp, size_for_need(b + 1), used_buckets(itp));
  itb *bucket = itp->itab_indirect[b];
  if (!bucket) bucket = itp->itab_indirect[b] = static_cast<itb *>(bucket_block.alloc());
  uint32_t s = idx & (kSlots - 1);
  bucket->itb_slot[s] = ptr;
  bucket->itb_bmask[s >> 5] |= 1u << (s & 31);
  if (idx >= itp->itab_maxentry) itp->itab_maxentry = idx + 1;
}

void *itable_get(const itable_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab_indirsize);
  uint32_t b = idx >> kShift;
  if (b >= itp->itab_indirsize) return nullptr;
  const itb *bucket = itp->itab_indirect[b];
  return bucket ? bucket->itb_slot[idx & (kSlots - 1)] : nullptr;
}

void itable_reset(itable_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab_indirsize);
  if (idx >= itp->itab_maxentry) return;
  uint32_t b = idx >> kShift;
  itb *bucket = itp->itab_indirect[b];
  if (!bucket) return;
  if (b < itp->itab_free_hint) itp->itab_free_hint = b;
  uint32_t s = idx & (kSlots - 1);
  bucket->itb_slot[s] = nullptr;
  bucket->itb_bmask[s >> 5] &= ~(1u << (s & 31));
  if (bucket->itb_bmask[0] == 0 && bucket->itb_bmask[1] == 0) {
    bucket_block.free(bucket);
    itp->itab_indirect[b] = nullptr;
  }
  if (idx + 1 != itp->itab_maxentry) return;

  uint32_t maxentry = 0;
  for (uint32_t k = b + 1; k-- > 0;) {
    const itb *kb = itp->itab_indirect[k];
    if (!kb) continue;
    uint32_t hi = kb->itb_bmask[1];
    maxentry = hi ? (k << kShift) + 32 + hi_bit(hi) + 1 : (k << kShift) + hi_bit(kb->itb_bmask[0]) + 1;
    break;
  }
  itp->itab_maxentry = maxentry;
  uint32_t need = used_buckets(itp);
  if (class_for_need(need) < class_of_size(itp->itab_indirsize)) indirect_shrink(itp, need);
}

void itable_clear(itable_t *itp) {
  CONT_ASSERT(itp->itab_indirsize);
  uint32_t n = used_buckets(itp);
  for (uint32_t b = 0; b < n; b++)
    if (itp->itab_indirect[b]) bucket_block.free(itp->itab_indirect[b]);
  indirect_free(itp);
  itable_init(itp, itp->itab_maxindex);
}

void itable_free(itable_t *itp) {
  CONT_ASSERT(itp->itab_indirsize);
  CONT_ASSERT(itp->itab_maxentry == 0);
  indirect_free(itp);
  itp->itab_indirsize = 0;
  table_block.free(itp);
}

uint32_t itable_find_first_used(const itable_t *itp) {
  CONT_ASSERT(itp->itab_indirsize);
  uint32_t n = used_buckets(itp);
  for (uint32_t b = 0; b < n; b++) {
    const itb *bucket = itp->itab_indirect[b];
    if (!bucket) continue;
    if (bucket->itb_bmask[0]) return (b << kShift) + lo_bit(bucket->itb_bmask[0]);
    CONT_ASSERT(bucket->itb_bmask[1]);
    return (b << kShift) + 32 + lo_bit(bucket->itb_bmask[1]);
  }
  CONT_ASSERT(itp->itab_maxentry == 0);
  return ITAB_NONE;
}

uint32_t itable_getnext_used(const itable_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab_indirsize);
  uint32_t start = idx + 1;
  if (start >= itp->itab_maxentry) return ITAB_NONE;
  uint32_t n = used_buckets(itp);
  uint32_t k = (start >> 5) & 1;
  uint32_t mask = kAllOnes << (start & 31);
  for (uint32_t b = start >> kShift; b < n; b++, k = 0, mask = kAllOnes) {
    const itb *bucket = itp->itab_indirect[b];
    if (!bucket) continue;
    for (; k < 2; k++, mask = kAllOnes) {
      uint32_t w = bucket->itb_bmask[k] & mask;
      if (w) return (b << kShift) + (k << 5) + lo_bit(w);
    }
  }
  return ITAB_NONE;
}

uint32_t itable_find_first_free(itable_t *itp, int zero_ok) {
  CONT_ASSERT(itp->itab_indirsize);
  const itb *b0 = itp->itab_indirect[0];
  if (!b0) return none_if_over(itp, zero_ok ? 0 : 1);
  uint32_t w = b0->itb_bmask[0] | (zero_ok ? 0u : 1u);
  if (w != kAllOnes) return none_if_over(itp, lo_bit(~w));
  if (b0->itb_bmask[1] != kAllOnes) return none_if_over(itp, 32 + lo_bit(~b0->itb_bmask[1]));

  uint32_t n = used_buckets(itp);
  uint32_t b = itp->itab_free_hint ? itp->itab_free_hint : 1;
  uint64_t r;
  for (;; b++) {
    const itb *bucket = b < n ? itp->itab_indirect[b] : nullptr;
    if (!bucket) {
      r = uint64_t{b} << kShift;
      break;
    }
    if (bucket->itb_bmask[0] != kAllOnes) {
      r = (uint64_t{b} << kShift) + lo_bit(~bucket->itb_bmask[0]);
      break;
    }
    if (bucket->itb_bmask[1] != kAllOnes) {
      r = (uint64_t{b} << kShift) + 32 + lo_bit(~bucket->itb_bmask[1]);
      break;
    }
  }
  itp->itab_free_hint = b;
  return none_if_over(itp, r);
}

uint32_t itable_getnext_free(const itable_t *itp, uint32_t idx) {
  CONT_ASSERT(itp->itab_indirsize);
  uint64_t pos = uint32_t(idx + 1);
  if (pos > itp->itab_maxindex) return ITAB_NONE;
  while (pos < itp->itab_maxentry) {
    const itb *bucket = itp->itab_indirect[pos >> kShift];
    if (!bucket) break;
    uint32_t k = (pos >> 5) & 1;
    uint32_t w = ~bucket->itb_bmask[k] & (kAllOnes << (pos & 31));
    if (w) return none_if_over(itp, (pos & ~uint64_t{31}) + lo_bit(w));
    pos = (pos & ~uint64_t{31}) + 32;
  }
  return none_if_over(itp, pos);
}

}  // extern "C"
