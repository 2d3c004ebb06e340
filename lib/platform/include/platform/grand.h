// The platform's random numbers: a small xorshift generator for timer jitter and
// the like, never for anything secret. A seeding hook lets tests pin the seed.
#pragma once

#include <cstdint>

// Seeds the generator. The seeding hook, when set, sees the seed first and
// returns the seed to use.
void grand_seed(uint32_t seed);

// A number below n (0 when n is 0).
uint32_t grand(uint32_t n);

// Installs the seeding hook (null removes it).
using grand_seed_hook_t = uint32_t (*)(uint32_t seed);
void grand_set_seed_hook(grand_seed_hook_t hook);
