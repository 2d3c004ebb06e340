// Indexed heap: a binary min-heap of pointers to user objects, each object
// holding its own position in a 32-bit word at a fixed offset. Deleting or
// repositioning an object costs O(log n) from a pointer to it, with no search.
// Timers keep their expiry order in it.
//
// Positions run from 1 to iheap_entries; a position word of 0 means "not in a
// heap". The array lives in buckets of 64 pointers reached through a directory
// that grows 1, 4, 16, 64, 256, 1024 and then doubles (2046, 4094, 8190, ...:
// each size is a power of two less 2). The directory never shrinks while the
// heap lives; iheap_release and iheap_free give it back.
//
// The comparison returns -1, 0 or 1. Equal keys keep their order of arrival at
// the top: an entry added later never rises above an equal older one.
#pragma once

#include <cstdint>

extern "C" {

#define IHEAP_MAGIC 0xdeaf

typedef int (*iheap_compare_fn)(const void *a, const void *b);

struct iheap {
  // Directory while only one bucket exists: holds the bucket pointer.
  void **iheap_bucket0;
  // Directory of bucket pointers; points at iheap_bucket0 at the start.
  void ***iheap_dir;
  uint32_t iheap_entries;
  uint32_t iheap_dirsize;
  // Offset of the object's 32-bit position word.
  uint16_t iheap_offset;
  uint16_t iheap_magic;
  iheap_compare_fn iheap_compare;
};

// Initialises a zeroed record; asserts it is not initialised already.
void iheap_init(iheap *heap, uint16_t offset, iheap_compare_fn compare);
// Allocates and initialises a heap.
iheap *iheap_create(uint16_t offset, iheap_compare_fn compare);
// Both assert an empty heap. free releases the record of iheap_create;
// release gives back the directory and clears the record for iheap_init.
void iheap_free(iheap *heap);
void iheap_release(iheap *heap);

// Adds an object whose position word is 0 (asserted).
void iheap_add(iheap *heap, void *object);
// Removes an object that is in the heap (asserted); its position word is 0 after.
void iheap_delete(iheap *heap, void *object);
// Restores the order after the object's key changed.
void iheap_change(iheap *heap, void *object);
// The least object, or null when empty.
void *iheap_first(const iheap *heap);
// Sorts the array into key order, which is also a valid heap, and rewrites
// every position word. Walks by position then see the objects in order.
void iheap_sort(iheap *heap);
// The object at a position from 1 to iheap_entries, for walks; null outside.
void *iheap_at(const iheap *heap, uint32_t position);

}  // extern "C"
