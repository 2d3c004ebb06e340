#include "containers/bit_tables.h"

#include <gtest/gtest.h>

// Every entry against the compiler's own bit scans.
TEST(BitTables, AgreeWithBitScans) {
  EXPECT_EQ(bit_hi_table[0], 8);
  EXPECT_EQ(bit_lo_table[0], 8);
  EXPECT_EQ(bit_hi_bit_table[0], 0);
  for (unsigned b = 1; b < 256; b++) {
    EXPECT_EQ(bit_hi_table[b], __builtin_clz(b) - 24) << b;
    EXPECT_EQ(bit_lo_table[b], __builtin_ctz(b)) << b;
    EXPECT_EQ(bit_hi_bit_table[b], 1u << (31 - __builtin_clz(b))) << b;
  }
}
