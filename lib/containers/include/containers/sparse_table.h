// Sparse tables: map 16-bit or 32-bit integer keys to non-null pointers with
// a few array indexings and no hashing, in memory that follows the use of the
// key space. The bridge-domain and VNI tables of the responder and the
// route-socket library's generic configuration keep their objects in them.
//
// sparse_table16: keys 0 to 65535, a three-level radix of 4, 6 and 6 bits;
// blocks of 64 pointers are allocated and zeroed on demand, and the blocks
// under a root slot are freed when its last key goes.
// sparse_table32: an outer sparse_table16 on the high 16 bits whose values are
// inner sparse_table16 tables on the low 16 bits.
//
// All memory, the tables' own records included, comes from the allocator pair
// given at creation, with its context; a null pair means malloc and free.
// Keys are passed by pointer. `high` is one past the highest key in use, 0 for
// an empty table.
//
// Inserting a null value is the same as deleting the key, so that `high` and
// the blocks always follow the keys really in use. Lookups of a 16-bit table
// with a key above 65535 return null rather than reading outside the table.
// The 32-bit table's `high` is 64 bits wide, so that key 0xFFFFFFFF is an
// ordinary key.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

typedef void *(*sparse_alloc_fn)(void *context, size_t size);
typedef void (*sparse_free_fn)(void *context, void *block);

#define SPARSE16_LIMIT 65536u
#define SPARSE32_LIMIT 0xFFFFFFFFu

struct sparse_table16 {
  uint32_t high;
  uint32_t limit;
  uint32_t reserved;
  sparse_alloc_fn alloc;
  sparse_free_fn free;
  void *context;
  uint8_t flags[2];
  // Keys in use below each root slot.
  uint16_t root_count[16];
  // Level-one blocks of 64 pointers to level-two blocks of 64 values.
  void ***root[16];
};

struct sparse_table32 {
  uint64_t high;
  uint32_t limit;
  sparse_alloc_fn alloc;
  sparse_free_fn free;
  void *context;
  uint8_t flags[2];
  // Keyed by the high half; values are sparse_table16 tables.
  sparse_table16 *top;
};

// The table, or null when it cannot be allocated.
sparse_table16 *sparse_table16_create(sparse_alloc_fn alloc, sparse_free_fn free, void *context);
// Frees the blocks and the table; the values are the caller's.
void sparse_table16_destroy(sparse_table16 *table);
// The lookups are inline (below): a walk of a few array indexings at the
// caller, with no call and no hashing.
inline void *sparse_table16_lookup(const sparse_table16 *table, const uint32_t *key);
// 0, 1 when the key is at or above the limit, 12 when a block cannot be had.
int sparse_table16_insert(sparse_table16 *table, void *value, const uint32_t *key);
// Removing an absent key does nothing.
void sparse_table16_delete(sparse_table16 *table, const uint32_t *key);
// The value of the least key above *prev_key (from key 0 when prev_key is
// null), its key stored in *out_key; null at the end.
void *sparse_table16_next(const sparse_table16 *table, const uint32_t *prev_key, uint32_t *out_key);

sparse_table32 *sparse_table32_create(sparse_alloc_fn alloc, sparse_free_fn free, void *context);
void sparse_table32_destroy(sparse_table32 *table);
inline void *sparse_table32_lookup(const sparse_table32 *table, const uint32_t *key);
int sparse_table32_insert(sparse_table32 *table, void *value, const uint32_t *key);
void sparse_table32_delete(sparse_table32 *table, const uint32_t *key);
void *sparse_table32_next(const sparse_table32 *table, const uint32_t *prev_key, uint32_t *out_key);

// Root slot, level-one block, level-two block: bits 15-12, 11-6 and 5-0.
inline void *sparse_table16_walk(const sparse_table16 *t, uint32_t k) {
  void **const *l1 = t->root[k >> 12];
  if (__builtin_expect(!l1, 0)) return nullptr;
  void *const *l2 = l1[(k >> 6) & 63];
  if (__builtin_expect(!l2, 0)) return nullptr;
  return l2[k & 63];
}

inline void *sparse_table16_lookup(const sparse_table16 *table, const uint32_t *key) {
  uint32_t k = *key;
  return k >> 16 ? nullptr : sparse_table16_walk(table, k);
}

inline void *sparse_table32_lookup(const sparse_table32 *table, const uint32_t *key) {
  uint32_t k = *key;
  auto *inner = static_cast<const sparse_table16 *>(sparse_table16_walk(table->top, k >> 16));
  return __builtin_expect(inner != nullptr, 1) ? sparse_table16_walk(inner, k & 0xffff) : nullptr;
}

}  // extern "C"
