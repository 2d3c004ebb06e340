// Default memory hooks: malloc-backed blocks and cookies.
#include "containers/mem_hooks.h"

#include <cstdio>
#include <cstdlib>

namespace {

struct default_block {
  const char *name;
  size_t size;
};

[[noreturn]] void out_of_memory(const char *what, size_t size) {
  std::fprintf(stderr, "containers: out of memory allocating %zu bytes for %s\n", size, what);
  std::abort();
}

void *block_init(const char *name, size_t size) {
  auto *b = static_cast<default_block *>(std::malloc(sizeof(default_block)));
  if (!b) out_of_memory(name, sizeof(default_block));
  *b = {name, size};
  return b;
}

void *block_alloc(void *block) {
  auto *b = static_cast<default_block *>(block);
  void *p = std::calloc(1, b->size);
  if (!p) out_of_memory(b->name, b->size);
  return p;
}

void block_free(void *, void *object) { std::free(object); }

// A default cookie is just its name: there is no accounting to charge.
void *cookie_create(const char *name) { return const_cast<char *>(name); }

void *cookie_malloc(void *cookie, size_t size) {
  void *p = std::malloc(size);
  if (!p && size) out_of_memory(static_cast<const char *>(cookie), size);
  return p;
}

void *cookie_realloc(void *cookie, void *ptr, size_t size) {
  void *p = std::realloc(ptr, size);
  if (!p && size) out_of_memory(static_cast<const char *>(cookie), size);
  return p;
}

void cookie_free(void *, void *ptr) { std::free(ptr); }

constexpr containers_mem_hooks defaults = {block_init,    block_alloc,    block_free, cookie_create,
                                           cookie_malloc, cookie_realloc, cookie_free};

}  // namespace

extern "C" {

containers_mem_hooks containers_mem = defaults;

void containers_mem_hooks_set(const containers_mem_hooks *hooks) {
  containers_mem = hooks ? *hooks : defaults;
}

}  // extern "C"
