// Allocation charged to a task or to a cookie.
#include <cerrno>

#include "internal.h"

namespace {

const task_mem_task_ops *task_ops = nullptr;

const task_mem_vector &vec() { return mem_up.load(std::memory_order_acquire) ? *mem_vector : mem_libc_vector; }

// A null task uses "--Anonymous--"; a task without a cookie gets one named after it.
task_mem_cookie *cookie_of(task *tp) {
  if (!tp || !task_ops) return task_mem_anonymous_cookie ? task_mem_anonymous_cookie : &task_mem_libc_cookie;
  task_mem_cookie **slot = task_ops->cookie_slot(tp);
  if (!*slot) {
    const task_mem_vector &v = vec();
    if (!v.tmv_cookie_get || v.tmv_cookie_get(task_ops->name(tp), tp, slot) != 0)
      MEM_FATAL("task_mem_cookie_get", "(rc ==0)");
  }
  return *slot;
}

void *checked(int rc, void *p, const char *op) {
  if (rc) {
    MEM_FATAL(op, "(rc ==0)");
    errno = rc;
    return nullptr;
  }
  return p;
}

void *c_malloc(task_mem_cookie *c, size_t n, const char *op) {
  void *p = nullptr;
  int rc = vec().tmv_malloc(c, n, &p);
  return checked(rc, p, op);
}
void *c_calloc(task_mem_cookie *c, size_t k, size_t n, const char *op) {
  void *p = nullptr;
  int rc = vec().tmv_calloc(c, k, n, &p);
  return checked(rc, p, op);
}
void *c_realloc(task_mem_cookie *c, void *ptr, size_t n, int f, const char *op) {
  void *p = nullptr;
  int rc = vec().tmv_realloc(c, ptr, n, f, &p);
  return checked(rc, p, op);
}
char *c_strdup(task_mem_cookie *c, const char *s, const char *op) {
  if (!s) return nullptr;
  char *p = nullptr;
  int rc = vec().tmv_strdup(c, s, &p);
  return static_cast<char *>(checked(rc, p, op));
}
void c_free(task_mem_cookie *c, void *ptr, const char *op) {
  if (ptr) checked(vec().tmv_free(c, ptr), nullptr, op);
}

}  // namespace

void task_mem_set_task_ops(const task_mem_task_ops *ops) { task_ops = ops; }

void *task_mem_malloc(task *tp, size_t n) { return c_malloc(cookie_of(tp), n, "task_mem_malloc"); }
void *task_mem_calloc(task *tp, size_t k, size_t n) { return c_calloc(cookie_of(tp), k, n, "task_mem_calloc"); }
void *task_mem_realloc(task *tp, void *p, size_t n) { return c_realloc(cookie_of(tp), p, n, 0, "task_mem_realloc"); }
void *task_mem_reallocf(task *tp, void *p, size_t n) { return c_realloc(cookie_of(tp), p, n, 1, "task_mem_reallocf"); }
char *task_mem_strdup(task *tp, const char *s) { return c_strdup(cookie_of(tp), s, "task_mem_strdup"); }
void task_mem_free(task *tp, void *p) { c_free(cookie_of(tp), p, "task_mem_free"); }

void *task_cookie_malloc(task_mem_cookie *c, size_t n) { return c_malloc(c, n, "task_cookie_malloc"); }
void *task_cookie_calloc(task_mem_cookie *c, size_t k, size_t n) { return c_calloc(c, k, n, "task_cookie_calloc"); }
void *task_cookie_realloc(task_mem_cookie *c, void *p, size_t n) { return c_realloc(c, p, n, 0, "task_cookie_realloc"); }
void *task_cookie_reallocf(task_mem_cookie *c, void *p, size_t n) { return c_realloc(c, p, n, 1, "task_cookie_reallocf"); }
char *task_cookie_strdup(task_mem_cookie *c, const char *s) { return c_strdup(c, s, "task_cookie_strdup"); }
void task_cookie_free(task_mem_cookie *c, void *p) { c_free(c, p, "task_cookie_free"); }

task_mem_cookie *task_mem_cookie_get(const char *name) {
  task_mem_cookie *c = nullptr;
  const task_mem_vector &v = vec();
  if (!v.tmv_cookie_get || v.tmv_cookie_get(name, nullptr, &c) != 0) MEM_FATAL("task_mem_cookie_get", "(rc ==0)");
  return c;
}

void task_mem_cookie_put(task_mem_cookie *c) {
  if (!c) return;
  const task_mem_vector &v = vec();
  if (v.tmv_cookie_put) v.tmv_cookie_put(c);
}

void task_mem_cookie_free(task *tp) {
  if (!tp || !task_ops) return;
  task_mem_cookie **slot = task_ops->cookie_slot(tp);
  task_mem_cookie_put(*slot);
  *slot = nullptr;
}

int task_mem_task_get_allocated(task *tp, size_t *bytes, size_t *allocations) {
  task_mem_cookie *c = tp && task_ops ? *task_ops->cookie_slot(tp) : nullptr;
  return task_mem_cookie_get_allocated(c, bytes, allocations);
}
