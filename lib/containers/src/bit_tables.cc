// The three byte tables, computed at compile time.
#include "containers/bit_tables.h"

namespace {

constexpr uint8_t hi_of(int b) {
  for (int i = 0; i < 8; i++)
    if (b & (0x80 >> i)) return static_cast<uint8_t>(i);
  return 8;
}
constexpr uint8_t lo_of(int b) {
  for (int i = 0; i < 8; i++)
    if (b & (1 << i)) return static_cast<uint8_t>(i);
  return 8;
}
constexpr uint8_t hi_bit_of(int b) { return b ? static_cast<uint8_t>(0x80 >> hi_of(b)) : 0; }

static_assert(hi_of(0x80) == 0 && hi_of(0x01) == 7 && hi_of(0x13) == 3 && hi_of(0) == 8);
static_assert(lo_of(0x01) == 0 && lo_of(0x80) == 7 && lo_of(0x18) == 3 && lo_of(0) == 8);
static_assert(hi_bit_of(0x13) == 0x10 && hi_bit_of(0xff) == 0x80 && hi_bit_of(0) == 0);

}  // namespace

// 256 initialisers f(0) ... f(255).
#define TVX_B2(f, n) f(n), f(n + 1)
#define TVX_B4(f, n) TVX_B2(f, n), TVX_B2(f, n + 2)
#define TVX_B8(f, n) TVX_B4(f, n), TVX_B4(f, n + 4)
#define TVX_B16(f, n) TVX_B8(f, n), TVX_B8(f, n + 8)
#define TVX_B32(f, n) TVX_B16(f, n), TVX_B16(f, n + 16)
#define TVX_B64(f, n) TVX_B32(f, n), TVX_B32(f, n + 32)
#define TVX_B128(f, n) TVX_B64(f, n), TVX_B64(f, n + 64)
#define TVX_B256(f, n) TVX_B128(f, n), TVX_B128(f, n + 128)

extern "C" {
alignas(64) const uint8_t bit_hi_table[256] = {TVX_B256(hi_of, 0)};
alignas(64) const uint8_t bit_lo_table[256] = {TVX_B256(lo_of, 0)};
alignas(64) const uint8_t bit_hi_bit_table[256] = {TVX_B256(hi_bit_of, 0)};
}
