// Default allocation hooks: malloc-backed blocks, and the assertion path.
#include <cstdio>
#include <cstdlib>

#include "ctr_internal.h"

namespace {

struct default_block {
  const char *name;
  size_t size;
};

[[noreturn]] void out_of_memory(const char *what, size_t size) {
  std::fprintf(stderr, "containers: out of memory allocating %zu bytes for %s\n", size, what);
  std::abort();
}

void *default_block_init(const char *name, size_t size) {
  auto *b = static_cast<default_block *>(std::malloc(sizeof(default_block)));
  if (!b) out_of_memory(name, sizeof(default_block));
  b->name = name;
  b->size = size;
  return b;
}

void *default_block_alloc(void *block) {
  auto *b = static_cast<default_block *>(block);
  void *p = std::calloc(1, b->size);
  if (!p) out_of_memory(b->name, b->size);
  return p;
}

void default_block_free(void *, void *object) { std::free(object); }

void *default_calloc(size_t count, size_t size) {
  void *p = std::calloc(count, size);
  if (!p) out_of_memory("task memory", count * size);
  return p;
}

void default_free(void *ptr) { std::free(ptr); }

constexpr ctr_alloc_hooks defaults = {default_block_init, default_block_alloc, default_block_free,
                                      default_calloc, default_free};

}  // namespace

extern "C" {

ctr_alloc_hooks ctr_alloc = defaults;

void ctr_alloc_hooks_set(const ctr_alloc_hooks *hooks) { ctr_alloc = hooks ? *hooks : defaults; }

}  // extern "C"

namespace tvx::ctr {

void assert_fail(const char *expr, const char *func, const char *file, int line) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expr, func, file,
               line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace tvx::ctr
