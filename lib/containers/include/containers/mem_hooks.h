// Where the containers get their memory. Fixed-size objects come from named
// blocks: radix inodes, variable contexts, heap and table structs, buckets and
// the smaller directories. Growable or large storage is charged to a named
// cookie: "bit_vector" for bit vectors, "iheap_indirect" and
// "itable_indirect" for heap directories and table arrays past the block
// sizes. The sparse tables take their allocator from the caller and the
// radix tree may take its inodes from the root; neither path uses these hooks.
// Until the memory library installs its table, the defaults below serve
// everything from malloc, calloc, realloc and free.
//
// When to install: before the first container allocates and before
// bit_vector_lib_init, itable_init_blocks or itable8_init_blocks run. Block
// and cookie handles are taken on first use (or by those init calls) and kept
// for the life of the process, and objects are given back through the table
// in force when they are freed, so swapping tables while containers hold
// memory hands one allocator's memory to another.
#pragma once

#include <cstddef>

extern "C" {

struct containers_mem_hooks {
  // Creates (or finds) the block of objects of `size` bytes named `name`;
  // returns its handle, which must stay valid for the life of the process.
  // Never null.
  void *(*cmh_block_init)(const char *name, size_t size);
  // A zeroed object of the block; never null (running out ends the process).
  void *(*cmh_block_alloc)(void *block);
  // Gives back an object that cmh_block_alloc returned for the same block.
  void (*cmh_block_free)(void *block, void *object);
  // Creates a cookie named `name` for the life of the process; null when it
  // cannot (the container then asserts).
  void *(*cmh_cookie_create)(const char *name);
  // Memory charged to the cookie, not zeroed; never null for a non-zero size
  // (running out ends the process).
  void *(*cmh_cookie_malloc)(void *cookie, size_t size);
  // realloc semantics: a null ptr allocates; contents are kept up to the
  // smaller size and the tail is not zeroed. Never null for a non-zero size.
  void *(*cmh_cookie_realloc)(void *cookie, void *ptr, size_t size);
  // Gives back memory from cmh_cookie_malloc or cmh_cookie_realloc of the
  // same cookie; ptr is never null.
  void (*cmh_cookie_free)(void *cookie, void *ptr);
};

// Installs a table (copied); null restores the defaults. Every hook must be
// set.
void containers_mem_hooks_set(const containers_mem_hooks *hooks);

// The table in force.
extern containers_mem_hooks containers_mem;

}  // extern "C"
