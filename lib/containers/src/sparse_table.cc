// Sparse tables: the 16-bit radix of 4/6/6 bits and the 32-bit table of
// 16-bit tables built on it.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "containers/sparse_table.h"

namespace {

constexpr unsigned kRootShift = 12;
constexpr unsigned kMidShift = 6;
constexpr uint32_t kLow6 = 63;
constexpr unsigned kRoots = 16;
constexpr unsigned kBlockSlots = 64;
constexpr size_t kBlockBytes = kBlockSlots * sizeof(void *);

void *default_alloc(void *, size_t size) { return std::malloc(size); }
void default_free(void *, void *block) { std::free(block); }

template <typename T>
T *zalloc(sparse_alloc_fn alloc, void *context, size_t size) {
  void *p = alloc(context, size);
  if (p) std::memset(p, 0, size);
  return static_cast<T *>(p);
}


// The lookups are inline in the header; these keep them callable by name (the
// debug shell, other languages).
[[gnu::used]] void *(*const lookups[])(const sparse_table16 *, const uint32_t *) = {sparse_table16_lookup};
[[gnu::used]] void *(*const lookups32[])(const sparse_table32 *, const uint32_t *) = {sparse_table32_lookup};

void free_root(sparse_table16 *t, unsigned r) {
  void ***l1 = t->root[r];
  for (unsigned i = 0; i < kBlockSlots; i++)
    if (l1[i]) t->free(t->context, l1[i]);
  t->free(t->context, l1);
  t->root[r] = nullptr;
}

// One above the highest used key at or below root slot `from`, or 0.
uint32_t find_high(const sparse_table16 *t, unsigned from) {
  for (unsigned r = from + 1; r-- > 0;) {
    void ***l1 = t->root[r];
    if (!l1) continue;
    for (unsigned i = kBlockSlots; i-- > 0;) {
      void **l2 = l1[i];
      if (!l2) continue;
      for (unsigned s = kBlockSlots; s-- > 0;)
        if (l2[s]) return (r << kRootShift) + (i << kMidShift) + s + 1;
    }
  }
  return 0;
}

}  // namespace

extern "C" {

sparse_table16 *sparse_table16_create(sparse_alloc_fn alloc, sparse_free_fn free, void *context) {
  if (!alloc || !free) {
    alloc = default_alloc;
    free = default_free;
  }
  auto *t = zalloc<sparse_table16>(alloc, context, sizeof(sparse_table16));
  if (!t) return nullptr;
  t->limit = SPARSE16_LIMIT;
  t->alloc = alloc;
  t->free = free;
  t->context = context;
  return t;
}

void sparse_table16_destroy(sparse_table16 *table) {
  for (unsigned r = 0; r < kRoots; r++)
    if (table->root[r]) free_root(table, r);
  table->free(table->context, table);
}

int sparse_table16_insert(sparse_table16 *table, void *value, const uint32_t *key) {
  uint32_t k = *key;
  if (k >= table->limit) return 1;
  if (!value) {
    sparse_table16_delete(table, key);
    return 0;
  }
  unsigned r = k >> kRootShift;
  void ***l1 = table->root[r];
  bool new_l1 = false;
  if (!l1) {
    l1 = zalloc<void **>(table->alloc, table->context, kBlockBytes);
    if (!l1) return ENOMEM;
    table->root[r] = l1;
    new_l1 = true;
  }
  void **&l2 = l1[(k >> kMidShift) & kLow6];
  if (!l2) {
    l2 = zalloc<void *>(table->alloc, table->context, kBlockBytes);
    if (!l2) {
      if (new_l1) free_root(table, r);
      return ENOMEM;
    }
  }
  void *&s = l2[k & kLow6];
  if (!s) table->root_count[r]++;
  s = value;
  if (k >= table->high && k != table->limit) table->high = k + 1;
  return 0;
}

void sparse_table16_delete(sparse_table16 *table, const uint32_t *key) {
  uint32_t k = *key;
  if (k >> 16) return;
  unsigned r = k >> kRootShift;
  void ***l1 = table->root[r];
  if (!l1) return;
  void **l2 = l1[(k >> kMidShift) & kLow6];
  if (!l2 || !l2[k & kLow6]) return;
  l2[k & kLow6] = nullptr;
  if (--table->root_count[r] == 0) free_root(table, r);
  if (k + 1 == table->high) table->high = find_high(table, r);
}

void *sparse_table16_next(const sparse_table16 *table, const uint32_t *prev_key, uint32_t *out_key) {
  uint32_t high = table->high;
  if (high == 0) return nullptr;
  uint32_t k = 0;
  if (prev_key) {
    if (*prev_key >= high - 1) return nullptr;
    k = *prev_key + 1;
  }
  while (k < high) {
    void ***l1 = table->root[k >> kRootShift];
    if (!l1) {
      k = ((k >> kRootShift) + 1) << kRootShift;
      continue;
    }
    void **l2 = l1[(k >> kMidShift) & kLow6];
    if (!l2) {
      k = (k | kLow6) + 1;
      continue;
    }
    if (void *v = l2[k & kLow6]) {
      *out_key = k;
      return v;
    }
    k++;
  }
  return nullptr;
}

sparse_table32 *sparse_table32_create(sparse_alloc_fn alloc, sparse_free_fn free, void *context) {
  if (!alloc || !free) {
    alloc = default_alloc;
    free = default_free;
  }
  auto *t = zalloc<sparse_table32>(alloc, context, sizeof(sparse_table32));
  if (!t) return nullptr;
  t->top = sparse_table16_create(alloc, free, context);
  if (!t->top) {
    free(context, t);
    return nullptr;
  }
  t->limit = SPARSE32_LIMIT;
  t->alloc = alloc;
  t->free = free;
  t->context = context;
  return t;
}

void sparse_table32_destroy(sparse_table32 *table) {
  uint32_t hi;
  const uint32_t *prev = nullptr;
  while (void *inner = sparse_table16_next(table->top, prev, &hi)) {
    sparse_table16_destroy(static_cast<sparse_table16 *>(inner));
    prev = &hi;
  }
  sparse_table16_destroy(table->top);
  table->free(table->context, table);
}

int sparse_table32_insert(sparse_table32 *table, void *value, const uint32_t *key) {
  uint32_t k = *key;
  if (k > table->limit) return 1;
  if (!value) {
    sparse_table32_delete(table, key);
    return 0;
  }
  uint32_t hi = k >> 16, lo = k & 0xffff;
  auto *inner = static_cast<sparse_table16 *>(sparse_table16_walk(table->top, hi));
  bool created = false;
  if (!inner) {
    inner = sparse_table16_create(table->alloc, table->free, table->context);
    if (!inner) return ENOMEM;
    if (sparse_table16_insert(table->top, inner, &hi) != 0) {
      sparse_table16_destroy(inner);
      return ENOMEM;
    }
    created = true;
  }
  int rc = sparse_table16_insert(inner, value, &lo);
  if (rc != 0) {
    if (created) {
      sparse_table16_delete(table->top, &hi);
      sparse_table16_destroy(inner);
    }
    return rc;
  }
  if (k >= table->high) table->high = uint64_t{k} + 1;
  return 0;
}

void sparse_table32_delete(sparse_table32 *table, const uint32_t *key) {
  uint32_t k = *key;
  uint32_t hi = k >> 16, lo = k & 0xffff;
  auto *inner = static_cast<sparse_table16 *>(sparse_table16_walk(table->top, hi));
  if (!inner) return;
  sparse_table16_delete(inner, &lo);
  if (inner->high == 0) {
    sparse_table16_delete(table->top, &hi);
    sparse_table16_destroy(inner);
  }
  if (table->high != uint64_t{k} + 1) return;
  if (table->top->high == 0) {
    table->high = 0;
    return;
  }
  uint32_t top_key = table->top->high - 1;
  auto *last = static_cast<const sparse_table16 *>(sparse_table16_walk(table->top, top_key));
  table->high = (uint64_t{top_key} << 16) + last->high;
}

void *sparse_table32_next(const sparse_table32 *table, const uint32_t *prev_key, uint32_t *out_key) {
  uint64_t high = table->high;
  if (high == 0) return nullptr;
  uint32_t start = 0;
  if (prev_key) {
    if (*prev_key >= high - 1) return nullptr;
    start = *prev_key + 1;
  }
  uint32_t hi = start >> 16, lo = start & 0xffff;
  auto *inner = static_cast<const sparse_table16 *>(sparse_table16_walk(table->top, hi));
  uint32_t lo_prev = lo - 1;
  uint32_t found;
  // The first inner table is entered at `lo`; later ones from their start.
  const uint32_t *from = lo ? &lo_prev : nullptr;
  for (;;) {
    if (inner) {
      if (void *v = sparse_table16_next(inner, from, &found)) {
        *out_key = (hi << 16) | found;
        return v;
      }
    }
    inner = static_cast<const sparse_table16 *>(sparse_table16_next(table->top, &hi, &hi));
    if (!inner) return nullptr;
    from = nullptr;
  }
}

}  // extern "C"
