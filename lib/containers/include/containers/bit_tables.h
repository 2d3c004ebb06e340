// Bit positions within a byte, by table: the radix tree, the indexed tables and
// the trace filters find bits a byte at a time with these.
#pragma once

#include <cstdint>

extern "C" {
// Position of the highest set bit, counted from the most significant bit
// (0x80 -> 0, 0x01 -> 7); 8 for a zero byte.
extern const uint8_t bit_hi_table[256];
// Position of the lowest set bit, counted from the least significant bit
// (0x01 -> 0, 0x80 -> 7); 8 for a zero byte.
extern const uint8_t bit_lo_table[256];
// The highest set bit as a mask (0x13 -> 0x10); 0 for a zero byte.
extern const uint8_t bit_hi_bit_table[256];
}
