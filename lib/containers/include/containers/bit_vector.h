// Growable sets of small integers (bit_vector): client ids of the kernel
// tables, slot maps, flag sets. One heap object: a 32-bit byte count, then
// that many bytes of bits, bit n being mask 1 << (n & 7) of byte n >> 3.
// Byte counts are multiples of 4, so the bits read as an array of 32-bit
// words. Functions that may grow or shrink a vector take the address of the
// caller's pointer and may replace it; a null pointer there is an empty
// vector that the first set creates.
//
// Storage is charged to the cookie "bit_vector" through the containers'
// memory hooks (containers/mem_hooks.h), made by bit_vector_lib_init or on
// first use. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

struct bit_vector {
  uint32_t bv_count;   // bytes of bits, a multiple of 4
  uint8_t bv_bits[];
};

// Makes the "bit_vector" cookie; failing to is the assertion "bvcookie".
void bit_vector_lib_init(void);

// An empty vector (byte count 0).
bit_vector *bit_vector_create(void);
// A copy; null for null.
bit_vector *bit_vector_copy(const bit_vector *v);
void bit_vector_free(bit_vector *v);
// Empties the vector and gives its storage back; the vector stays.
void bit_vector_clear(bit_vector **slot);

// Both null, or the same byte count and the same bytes. A vector with its
// zero words is not equal to a shorter one; null is not equal to empty.
bool bit_vector_equal(const bit_vector *a, const bit_vector *b);

// Sets a bit, growing the vector to ((bit >> 3) + 4) & ~3 bytes if shorter.
// Set, clear and test are inline: they are the hot paths of their callers.
void bit_vector_set_grow(bit_vector **slot, uint32_t bit);
inline void bit_vector_set(bit_vector **slot, uint32_t bit) {
  bit_vector *v = *slot;
  if (!v || (bit >> 3) >= v->bv_count) return bit_vector_set_grow(slot, bit);
  v->bv_bits[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
}
// Clears a bit; a bit past the end is already clear.
inline void bit_vector_clear_bit(bit_vector **slot, uint32_t bit) {
  bit_vector *v = *slot;
  if (v && (bit >> 3) < v->bv_count) v->bv_bits[bit >> 3] &= static_cast<uint8_t>(~(1u << (bit & 7)));
}
inline bool bit_vector_test(const bit_vector *v, uint32_t bit) {
  return v && (bit >> 3) < v->bv_count && (v->bv_bits[bit >> 3] >> (bit & 7) & 1);
}
// Keeps the bits up to and including bit: a longer vector shrinks to
// ((bit >> 3) + 4) & ~3 bytes and everything above bit is cleared.
void bit_vector_trim(bit_vector **slot, uint32_t bit);

// No bit set (a null vector too).
bool bit_vector_is_empty(const bit_vector *v);
// The lowest clear bit; the size in bits when every bit is set (0 for null).
uint32_t bit_vector_first_clear(const bit_vector *v);
// The lowest set bit at or above from, or -1.
int64_t bit_vector_next_set(const bit_vector *v, uint32_t from);
// Number of set bits.
uint32_t bit_vector_count(const bit_vector *v);
// Size in bits (byte count * 8).
uint32_t bit_vector_size(const bit_vector *v);

// *slot &= ~other over the words both have.
void bit_vector_and_not(bit_vector **slot, const bit_vector *other);
// *slot &= other; words of *slot past other's end are cleared.
void bit_vector_and(bit_vector **slot, const bit_vector *other);
// *slot |= other, growing *slot to other's byte count if shorter.
void bit_vector_or(bit_vector **slot, const bit_vector *other);

// Copies whole words (as many as fit in size bytes) into buffer; returns the
// number of words copied.
uint32_t bit_vector_words(const bit_vector *v, void *buffer, size_t size);

// The set bits as text, runs as ranges: "0-3,7,40". A null vector prints
// "(Null)", an empty one "(Empty)". Stops at the end of the buffer (always
// terminated when size > 0); returns the length written.
size_t bit_vector_print(const bit_vector *v, char *buffer, size_t size);

}  // extern "C"
