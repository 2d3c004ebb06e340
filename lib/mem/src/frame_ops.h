// Operations every vector builds from its own allocate and free: realloc,
// calloc and strdup, with the front door's copy and failure rules.
#pragma once

#include <cerrno>

#include "history.h"
#include "internal.h"

// Takes a block the allocator gave (null: out of memory): zeroes and frames
// it, counts it on the cookie and leaves its history and leak records.
inline int mem_take_block(char *b, size_t size, uint32_t offset, task_mem_cookie *c, void **out) {
  if (!b) {
    *out = nullptr;
    return ENOMEM;
  }
  memset(b, 0, size);
  *out = mem_frame(b, size, offset, c);
  mem_count_alloc(c, static_cast<int64_t>(size));
  mem_history_record(*out, size, 'A', 'c', c->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_alloc(*out);
  return 0;
}

// The same for a large block of `size` bytes asked for `n`: the head goes to
// the side table, and a red zone into the block's last word if the class has
// room for it after the request.
inline int mem_take_large(char *b, size_t size, size_t n, task_mem_cookie *c, void **out) {
  memset(b, 0, size);
  uint32_t zone = mem_cookie_zone(c);
  mem_side *s = mem_side_of(b);
  s->ms_size = size;
  s->ms_zone = zone;
  s->ms_offset = mem_side_offset(b);
  s->ms_tail = size - n >= sizeof(uint32_t);
  if (s->ms_tail) *mem_rz_at(b, size) = zone;
  *out = b;
  mem_count_alloc(c, static_cast<int64_t>(size));
  mem_history_record(b, size, 'A', 'c', c->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_alloc(b);
  return 0;
}

inline bool mem_want(size_t n, size_t offset, size_t *want) {
  if (n > SIZE_MAX / 2) return false;
  *want = (n + offset + sizeof(uint32_t) + 3) & ~size_t{3};
  return true;
}

template <const task_mem_vector &V>
int mem_calloc_via(task_mem_cookie *c, size_t count, size_t size, void **out) {
  size_t n;
  if (__builtin_mul_overflow(count, size, &n)) {
    *out = nullptr;
    return ENOMEM;
  }
  return V.tmv_malloc(c, n, out);  // every block is zeroed already
}

template <const task_mem_vector &V>
int mem_strdup_via(task_mem_cookie *c, const char *s, char **out) {
  size_t n = strlen(s) + 1;
  void *p;
  int rc = V.tmv_malloc(c, n, &p);
  if (rc) return rc;
  memcpy(p, s, n);
  *out = static_cast<char *>(p);
  return 0;
}

template <const task_mem_vector &V>
int mem_realloc_via(task_mem_cookie *c, void *ptr, size_t size, int free_on_failure, void **out) {
  if (!ptr) return V.tmv_malloc(c, size, out);
  void *p;
  int rc = V.tmv_malloc(c, size, &p);
  if (rc) {
    if (free_on_failure) V.tmv_free(c, ptr);
    *out = nullptr;
    return rc;
  }
  size_t old = mem_payload_size(ptr);
  memcpy(p, ptr, old < size ? old : size);
  rc = V.tmv_free(c, ptr);
  *out = p;
  return rc;
}
