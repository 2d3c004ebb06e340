// The exported malloc family. Before the memory system is up the libc vector
// serves under the libc cookie; afterwards the vector in force, under
// "--System--". A failure of the vector is fatal.
#include <unistd.h>

#include <cerrno>

#include "internal.h"

namespace {

inline const task_mem_vector &vec(task_mem_cookie **c) {
  if (mem_up.load(std::memory_order_acquire)) {
    *c = task_mem_system_cookie;
    return *mem_vector;
  }
  *c = &task_mem_libc_cookie;
  return mem_libc_vector;
}

inline void *checked(int rc, void *p, const char *op) {
  if (rc) {
    MEM_FATAL(op, "(rc ==0)");
    errno = rc;
    return nullptr;
  }
  return p;
}

size_t page_size() {
  static size_t ps = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return ps;
}

}  // namespace

extern "C" {

void *tvx_fd_malloc(size_t size) {
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_malloc(c, size, &p);
  return checked(rc, p, "malloc");
}

void *tvx_fd_calloc(size_t count, size_t size) {
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_calloc(c, count, size, &p);
  return checked(rc, p, "calloc");
}

void *tvx_fd_realloc(void *ptr, size_t size) {
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_realloc(c, ptr, size, 0, &p);
  return checked(rc, p, "realloc");
}

void *tvx_fd_reallocf(void *ptr, size_t size) {
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_realloc(c, ptr, size, 1, &p);
  return checked(rc, p, "reallocf");
}

char *tvx_fd_strdup(const char *s) {
  if (!s) return nullptr;
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  char *p = nullptr;
  int rc = v.tmv_strdup(c, s, &p);
  return static_cast<char *>(checked(rc, p, "strdup"));
}

void tvx_fd_free(void *ptr) {
  if (!ptr) return;
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  checked(v.tmv_free(c, ptr), nullptr, "free");
}

int tvx_fd_posix_memalign(void **out, size_t align, size_t size) {
  if (align < sizeof(void *) || (align & (align - 1))) return EINVAL;
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_memalign(c, align, size, &p);
  if (!checked(rc, p, "posix_memalign")) return rc;
  *out = p;
  return 0;
}

void *tvx_fd_aligned_alloc(size_t align, size_t size) {
  if (align == 0 || (align & (align - 1))) {
    errno = EINVAL;
    return nullptr;
  }
  task_mem_cookie *c;
  const task_mem_vector &v = vec(&c);
  void *p = nullptr;
  int rc = v.tmv_memalign(c, align, size, &p);
  return checked(rc, p, "aligned_alloc");
}

void *tvx_fd_memalign(size_t align, size_t size) { return tvx_fd_aligned_alloc(align, size); }

void *tvx_fd_valloc(size_t size) { return tvx_fd_aligned_alloc(page_size(), size); }

void *tvx_fd_pvalloc(size_t size) {
  size_t ps = page_size();
  return tvx_fd_aligned_alloc(ps, size ? (size + ps - 1) & ~(ps - 1) : ps);
}

size_t tvx_fd_malloc_usable_size(void *ptr) {
  if (!ptr) return 0;
  return mem_payload_size(ptr);
}

#ifndef TVX_SANITIZE
// The process's allocator. Sanitizer builds leave these to the sanitizer.
#define TVX_EXPORT(ret, name, args, target) ret name args __attribute__((alias(#target), visibility("default")))
TVX_EXPORT(void *, malloc, (size_t), tvx_fd_malloc);
TVX_EXPORT(void *, calloc, (size_t, size_t), tvx_fd_calloc);
TVX_EXPORT(void *, realloc, (void *, size_t), tvx_fd_realloc);
TVX_EXPORT(void *, reallocf, (void *, size_t), tvx_fd_reallocf);
TVX_EXPORT(char *, strdup, (const char *), tvx_fd_strdup);
TVX_EXPORT(void, free, (void *), tvx_fd_free);
TVX_EXPORT(int, posix_memalign, (void **, size_t, size_t), tvx_fd_posix_memalign);
TVX_EXPORT(void *, aligned_alloc, (size_t, size_t), tvx_fd_aligned_alloc);
TVX_EXPORT(void *, memalign, (size_t, size_t), tvx_fd_memalign);
TVX_EXPORT(void *, valloc, (size_t), tvx_fd_valloc);
TVX_EXPORT(void *, pvalloc, (size_t), tvx_fd_pvalloc);
TVX_EXPORT(size_t, malloc_usable_size, (void *), tvx_fd_malloc_usable_size);
#endif
}
