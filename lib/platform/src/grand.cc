// xorshift64* with a seeding hook.
#include "platform/grand.h"

namespace {
uint64_t grand_state = 0x9e3779b97f4a7c15ull;
grand_seed_hook_t seed_hook = nullptr;

uint64_t next() {
  uint64_t x = grand_state;
  x ^= x >> 12;
  x ^= x << 25;
  x ^= x >> 27;
  grand_state = x;
  return x * 0x2545f4914f6cdd1dull;
}
}  // namespace

void grand_set_seed_hook(grand_seed_hook_t hook) { seed_hook = hook; }

void grand_seed(uint32_t seed) {
  if (seed_hook) seed = seed_hook(seed);
  // Spread the 32-bit seed over the state; the state must never be zero.
  uint64_t z = (static_cast<uint64_t>(seed) + 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  grand_state = (z ^ (z >> 31)) | 1;
}

uint32_t grand(uint32_t n) {
  if (n == 0) return 0;
  // Multiply-shift maps the high 32 bits onto [0, n) without a division.
  return static_cast<uint32_t>(((next() >> 32) * static_cast<uint64_t>(n)) >> 32);
}
