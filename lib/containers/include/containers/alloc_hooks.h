// Where the indexed heap and the indexed tables get their memory. They allocate
// typed fixed-size blocks by name ("iheap_bucket", "itable_indirect_64", ...)
// and, for arrays past the block ladder, plain task memory with no owning task.
// Until the memory library installs its own table, the defaults below serve
// both from malloc/calloc/free. The sparse tables take their allocator from the
// caller instead and do not use these hooks.
#pragma once

#include <cstddef>

extern "C" {

struct ctr_alloc_hooks {
  // Creates (or finds) the block of objects of one size; returns its handle.
  void *(*cah_block_init)(const char *name, size_t size);
  // Zeroed object of the block; never null (running out ends the process).
  void *(*cah_block_alloc)(void *block);
  void (*cah_block_free)(void *block, void *object);
  // Zeroed task memory; never null.
  void *(*cah_calloc)(size_t count, size_t size);
  void (*cah_free)(void *ptr);
};

// Installs a table (copied); null restores the defaults. Install before the
// first container is created: block handles are taken once and kept.
void ctr_alloc_hooks_set(const ctr_alloc_hooks *hooks);

// The table in force.
extern ctr_alloc_hooks ctr_alloc;

}  // extern "C"
