// Indexed tables: map an integer index to a pointer, for index spaces dense in
// places and sparse elsewhere, such as interface indexes. Two levels: an
// indirect array of buckets, and per bucket an occupancy bit map, so that the
// first used or free index is found a word at a time, not a slot at a time.
//
// itable: 32-bit indexes, buckets of 64 slots. The indirect array grows by
// classes (1, 4, 16, 64, 256, 1023 pointers, then twice the highest power of
// two in the need, less 1) and shrinks back when the top entries go, down to
// the table's own word for a table of one bucket.
// itable8: indexes 0 to 255, buckets of 8 slots, arrays of 1 to 32 pointers.
//
// The searches return an index, or (uint32_t)-1 at the end. Storing a null
// pointer is the same as resetting the index. (uint32_t)-1 is never a legal
// index: a maximum of -1 is stored as -2. itable8 maxima above 255 are stored
// as 255.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

#define ITAB_MAXINDEX 0xffffffffu
#define ITAB_NONE 0xffffffffu

struct itb {
  void *itb_slot[64];
  // Bit n set when slot n is used, low word first.
  uint32_t itb_bmask[2];
};

struct itable_t {
  // Indirect array while one bucket is possible.
  itb *itab_bucket0;
  itb **itab_indirect;
  // One past the highest used index; 0 when empty.
  uint32_t itab_maxentry;
  uint32_t itab_maxindex;
  uint32_t itab_indirsize;
  // Every bucket below this one is known to be full.
  uint32_t itab_free_hint;
};

// Creates the blocks the tables use, each only if missing.
void itable_init_blocks(void);
itable_t *itable_create(uint32_t maxindex);
void itable_init(itable_t *itp, uint32_t maxindex);
void itable_set(itable_t *itp, uint32_t idx, void *ptr);
void *itable_get(const itable_t *itp, uint32_t idx);
void itable_reset(itable_t *itp, uint32_t idx);
// Frees every bucket and the array: the table is empty and of class 0 again.
void itable_clear(itable_t *itp);
// Asserts the table is empty, then frees it.
void itable_free(itable_t *itp);
uint32_t itable_find_first_used(const itable_t *itp);
// The next used index above idx; idx (uint32_t)-1 starts at 0.
uint32_t itable_getnext_used(const itable_t *itp, uint32_t idx);
// The lowest free index; with zero_ok false, index 0 counts as used. Moves the
// free hint to where the search ended.
uint32_t itable_find_first_free(itable_t *itp, int zero_ok);
// The next free index above idx, up to itab_maxindex; idx (uint32_t)-1 starts at 0.
uint32_t itable_getnext_free(const itable_t *itp, uint32_t idx);

// The highest index an itable8 can hold.
#define ITAB8_TOPINDEX 255u

struct itb8 {
  void *itb8_slot[8];
  uint8_t itb8_bmask;
};

struct itable8_t {
  itb8 *itab8_bucket0;
  itb8 **itab8_indirect;
  uint16_t itab8_maxentry;
  uint8_t itab8_maxindex;
  uint8_t itab8_indirsize;
  uint8_t itab8_free_hint;
};

// Memory for the tables and their arrays (not the buckets) from this pair
// instead of the blocks; null, null goes back to the blocks. Set it before
// the first table is made and keep it while any table lives.
void itable8_set_allocator(void *(*alloc_fn)(size_t size), void (*free_fn)(void *ptr));
void itable8_init_blocks(void);
itable8_t *itable8_create(uint32_t maxindex);
void itable8_init(itable8_t *itp, uint32_t maxindex);
void itable8_set(itable8_t *itp, uint32_t idx, void *ptr);
void *itable8_get(const itable8_t *itp, uint32_t idx);
void itable8_reset(itable8_t *itp, uint32_t idx);
void itable8_clear(itable8_t *itp);
void itable8_free(itable8_t *itp);
uint32_t itable8_find_first_used(const itable8_t *itp);
uint32_t itable8_getnext_used(const itable8_t *itp, uint32_t idx);
uint32_t itable8_find_first_free(itable8_t *itp, int zero_ok);
uint32_t itable8_getnext_free(const itable8_t *itp, uint32_t idx);

}  // extern "C"
