// Where the radix tree, the bit vectors and the variable contexts get their
// memory. They allocate fixed-size objects from named blocks (the radix
// inodes, the context block) and growable storage charged to a named cookie
// (the "bit_vector" cookie). The memory library installs its blocks and
// cookies here at start; until then the defaults below use calloc, realloc
// and free. Install before the first container is used: block and cookie
// handles are taken once and kept.
#pragma once

#include <cstddef>

extern "C" {

struct containers_mem_hooks {
  // Creates (or finds) the block of objects of one size; returns its handle.
  void *(*cmh_block_init)(const char *name, size_t size);
  // Zeroed object of the block; never null (running out ends the process).
  void *(*cmh_block_alloc)(void *block);
  void (*cmh_block_free)(void *block, void *object);
  // Creates a named cookie; null when it cannot.
  void *(*cmh_cookie_create)(const char *name);
  // Memory charged to the cookie; never null for a non-zero size.
  void *(*cmh_cookie_malloc)(void *cookie, size_t size);
  void *(*cmh_cookie_realloc)(void *cookie, void *ptr, size_t size);
  void (*cmh_cookie_free)(void *cookie, void *ptr);
};

// Installs a table (copied); null restores the defaults.
void containers_mem_hooks_set(const containers_mem_hooks *hooks);

// The table in force.
extern containers_mem_hooks containers_mem;

}  // extern "C"
