// Indexed heap: bucketed array, directory ladder, sift up and down.
#include "containers/iheap.h"

#include <cstring>

#include "ctr_internal.h"

namespace {

using tvx::containers::lazy_block;
using tvx::containers::lazy_cookie;

constexpr uint32_t kBucketShift = 6;
constexpr uint32_t kBucketSlots = 1u << kBucketShift;
constexpr uint32_t kBucketMask = kBucketSlots - 1;
// Past the last block-sized directory, directories are charged to a cookie.
constexpr uint32_t kLastBlockDir = 1024;

lazy_block heap_block{"iheap_struct", sizeof(iheap)};
lazy_block bucket_block{"iheap_bucket", kBucketSlots * sizeof(void *)};
lazy_block dir_blocks[] = {
    {"iheap_indirect_4", 4 * sizeof(void *)},     {"iheap_indirect_16", 16 * sizeof(void *)},
    {"iheap_indirect_64", 64 * sizeof(void *)},   {"iheap_indirect_256", 256 * sizeof(void *)},
    {"iheap_indirect_1024", 1024 * sizeof(void *)},
};
lazy_cookie dir_cookie{"iheap_indirect"};

lazy_block &dir_block(uint32_t size) {
  unsigned i = 0;
  for (uint32_t s = 4; s < size; s <<= 2) i++;
  return dir_blocks[i];
}

// 1, 4, 16, 64, 256, 1024, then 2046, 4094, ...: the largest power of two
// within 2 x (n + 2), less 2.
uint32_t next_dir_size(uint32_t n) {
  if (n < kLastBlockDir) return n * 4;
  uint32_t want = 2 * (n + 2);
  return (1u << (31 - __builtin_clz(want))) - 2;
}

void **alloc_dir(uint32_t size) {
  if (size <= kLastBlockDir) return static_cast<void **>(dir_block(size).alloc());
  return static_cast<void **>(dir_cookie.zalloc(size * sizeof(void *)));
}

void free_dir(iheap *heap) {
  uint32_t size = heap->iheap_dirsize;
  if (size > 1) {
    if (size <= kLastBlockDir)
      dir_block(size).free(heap->iheap_dir);
    else
      dir_cookie.free(heap->iheap_dir);
  }
  heap->iheap_dir = reinterpret_cast<void ***>(&heap->iheap_bucket0);
  heap->iheap_dirsize = 1;
  heap->iheap_bucket0 = nullptr;
}

void grow_dir(iheap *heap) {
  uint32_t old_size = heap->iheap_dirsize;
  uint32_t size = next_dir_size(old_size);
  void **dir = alloc_dir(size);
  std::memcpy(dir, heap->iheap_dir, old_size * sizeof(void *));
  if (old_size > 1) {
    if (old_size <= kLastBlockDir)
      dir_block(old_size).free(heap->iheap_dir);
    else
      dir_cookie.free(heap->iheap_dir);
  }
  heap->iheap_dir = reinterpret_cast<void ***>(dir);
  heap->iheap_dirsize = size;
}

inline uint32_t *pos_word(const iheap *heap, const void *object) {
  return reinterpret_cast<uint32_t *>(
      const_cast<char *>(static_cast<const char *>(object)) + heap->iheap_offset);
}

inline void **slot(void ***dir, uint32_t p) { return &dir[p >> kBucketShift][p & kBucketMask]; }

// Moves `entry` up from p past every parent that sorts after it.
inline void sift_up(iheap *heap, uint32_t p, void *entry) {
  void ***dir = heap->iheap_dir;
  iheap_compare_fn cmp = heap->iheap_compare;
  uint16_t off = heap->iheap_offset;
  while (p > 1) {
    uint32_t parent = p >> 1;
    void *pe = *slot(dir, parent);
    if (cmp(pe, entry) != 1) break;
    *slot(dir, p) = pe;
    *reinterpret_cast<uint32_t *>(static_cast<char *>(pe) + off) = p;
    p = parent;
  }
  *slot(dir, p) = entry;
  *reinterpret_cast<uint32_t *>(static_cast<char *>(entry) + off) = p;
}

// Moves `entry` down from p below every lesser child; of equal children the
// second is taken.
inline void sift_down(iheap *heap, uint32_t p, void *entry) {
  void ***dir = heap->iheap_dir;
  iheap_compare_fn cmp = heap->iheap_compare;
  uint16_t off = heap->iheap_offset;
  uint32_t n = heap->iheap_entries;
  for (;;) {
    uint32_t c = 2 * p;
    if (c > n || c < p) break;
    void *ce = *slot(dir, c);
    if (c + 1 <= n) {
      void *c2 = *slot(dir, c + 1);
      if (cmp(ce, c2) != -1) {
        c++;
        ce = c2;
      }
    }
    if (cmp(entry, ce) != 1) break;
    *slot(dir, p) = ce;
    *reinterpret_cast<uint32_t *>(static_cast<char *>(ce) + off) = p;
    p = c;
  }
  *slot(dir, p) = entry;
  *reinterpret_cast<uint32_t *>(static_cast<char *>(entry) + off) = p;
}

}  // namespace

extern "C" {

void iheap_init(iheap *iheap, uint16_t offset, iheap_compare_fn compare) {
  CONT_ASSERT(iheap->iheap_magic != IHEAP_MAGIC);
  iheap->iheap_bucket0 = nullptr;
  iheap->iheap_dir = reinterpret_cast<void ***>(&iheap->iheap_bucket0);
  iheap->iheap_entries = 0;
  iheap->iheap_dirsize = 1;
  iheap->iheap_offset = offset;
  iheap->iheap_magic = IHEAP_MAGIC;
  iheap->iheap_compare = compare;
}

iheap *iheap_create(uint16_t offset, iheap_compare_fn compare) {
  auto *heap = static_cast<iheap *>(heap_block.alloc());
  iheap_init(heap, offset, compare);
  return heap;
}

void iheap_release(iheap *iheap) {
  CONT_ASSERT(iheap->iheap_magic == IHEAP_MAGIC && iheap->iheap_entries == 0);
  free_dir(iheap);
  std::memset(static_cast<void *>(iheap), 0, sizeof(*iheap));
}

void iheap_free(iheap *iheap) {
  CONT_ASSERT(iheap->iheap_magic == IHEAP_MAGIC && iheap->iheap_entries == 0);
  free_dir(iheap);
  iheap->iheap_magic = 0;
  heap_block.free(iheap);
}

void iheap_add(iheap *heap, void *entry) {
  uint32_t *pos = pos_word(heap, entry);
  CONT_ASSERT(*pos == 0);
  uint32_t i = heap->iheap_entries + 1;
  CONT_ASSERT(i != 0);
  if ((i & kBucketMask) == 0 || heap->iheap_entries == 0) {
    uint32_t b = i >> kBucketShift;
    if (b >= heap->iheap_dirsize) grow_dir(heap);
    heap->iheap_dir[b] = static_cast<void **>(bucket_block.alloc());
  }
  heap->iheap_entries = i;
  sift_up(heap, i, entry);
}

void iheap_delete(iheap *heap, void *entry) {
  uint32_t *pos = pos_word(heap, entry);
  uint32_t i = *pos;
  CONT_ASSERT(i != 0);
  *pos = 0;
  uint32_t last = heap->iheap_entries;
  void ***dir = heap->iheap_dir;
  void *replacement = *slot(dir, last);
  heap->iheap_entries = last - 1;
  if ((last & kBucketMask) == 0 || last == 1) {
    bucket_block.free(dir[last >> kBucketShift]);
    dir[last >> kBucketShift] = nullptr;
  }
  if (i == last) {
    CONT_ASSERT(replacement == entry);
    return;
  }
  void **loc = slot(dir, i);
  CONT_ASSERT(*loc == entry);
  if (i > 1 && heap->iheap_compare(replacement, entry) == -1)
    sift_up(heap, i, replacement);
  else
    sift_down(heap, i, replacement);
}

void iheap_change(iheap *heap, void *entry) {
  uint32_t i = *pos_word(heap, entry);
  uint32_t n_entries = heap->iheap_entries;
  CONT_ASSERT(i && i <= n_entries);
  void **loc = slot(heap->iheap_dir, i);
  CONT_ASSERT(*loc == entry);
  if (i > 1 && heap->iheap_compare(*slot(heap->iheap_dir, i >> 1), entry) == 1)
    sift_up(heap, i, entry);
  else
    sift_down(heap, i, entry);
}

void *iheap_first(const iheap *heap) {
  return heap->iheap_entries ? heap->iheap_dir[0][1] : nullptr;
}

void *iheap_at(const iheap *heap, uint32_t position) {
  if (position == 0 || position > heap->iheap_entries) return nullptr;
  return *slot(heap->iheap_dir, position);
}

void iheap_sort(iheap *heap) {
  uint32_t n = heap->iheap_entries;
  void ***dir = heap->iheap_dir;
  // Taking the least to the end each round leaves the array in descending
  // order; reversed it is ascending, which is a heap too.
  for (uint32_t k = n; k > 1; k--) {
    void *least = *slot(dir, 1);
    void *moving = *slot(dir, k);
    *slot(dir, k) = least;
    heap->iheap_entries = k - 1;
    sift_down(heap, 1, moving);
  }
  heap->iheap_entries = n;
  for (uint32_t a = 1, b = n; a < b; a++, b--) {
    void *t = *slot(dir, a);
    *slot(dir, a) = *slot(dir, b);
    *slot(dir, b) = t;
  }
  for (uint32_t p = 1; p <= n; p++) *pos_word(heap, *slot(dir, p)) = p;
}

}  // extern "C"
