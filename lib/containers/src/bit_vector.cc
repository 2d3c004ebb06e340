// bit_vector: the bits are scanned eight bytes at a time where they can be;
// byte counts are multiples of 4, so a scan ends with at most one 4-byte word.
#include "containers/bit_vector.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "containers/mem_hooks.h"
#include "fatal.h"

namespace {

void *bvcookie;

inline uint32_t bytes_for(uint32_t bit) { return ((bit >> 3) + 4) & ~3u; }

void *cookie() {
  if (!bvcookie) bit_vector_lib_init();
  return bvcookie;
}

bit_vector *resize(bit_vector *v, uint32_t count) {
  auto *n = static_cast<bit_vector *>(
      containers_mem.cmh_cookie_realloc(cookie(), v, sizeof(bit_vector) + count));
  uint32_t old = v ? n->bv_count : 0;
  if (count > old) std::memset(n->bv_bits + old, 0, count - old);
  n->bv_count = count;
  return n;
}

inline uint64_t load64(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}
inline uint32_t load32(const uint8_t *p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;
}

// Applies op word-wise to a's first n bytes against b's.
template <class Op>
void combine(uint8_t *a, const uint8_t *b, uint32_t n, Op op) {
  uint32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w = op(load64(a + i), load64(b + i));
    std::memcpy(a + i, &w, 8);
  }
  for (; i < n; i += 4) {
    uint32_t w = op(load32(a + i), load32(b + i));
    std::memcpy(a + i, &w, 4);
  }
}

}  // namespace

extern "C" {

void bit_vector_lib_init(void) {
  if (bvcookie) return;
  bvcookie = containers_mem.cmh_cookie_create("bit_vector");
  CONT_ASSERT(bvcookie);
}

bit_vector *bit_vector_create(void) { return resize(nullptr, 0); }

bit_vector *bit_vector_copy(const bit_vector *v) {
  if (!v) return nullptr;
  bit_vector *n = resize(nullptr, v->bv_count);
  std::memcpy(n->bv_bits, v->bv_bits, v->bv_count);
  return n;
}

void bit_vector_free(bit_vector *v) {
  if (v) containers_mem.cmh_cookie_free(cookie(), v);
}

void bit_vector_clear(bit_vector **slot) {
  CONT_ASSERT(slot);
  *slot = resize(*slot, 0);
}

bool bit_vector_equal(const bit_vector *a, const bit_vector *b) {
  if (!a || !b) return a == b;
  return a->bv_count == b->bv_count && std::memcmp(a->bv_bits, b->bv_bits, a->bv_count) == 0;
}

void bit_vector_set_grow(bit_vector **slot, uint32_t bit) {
  bit_vector *v = *slot;
  if (!v || (bit >> 3) >= v->bv_count) *slot = v = resize(v, bytes_for(bit));
  v->bv_bits[bit >> 3] |= static_cast<uint8_t>(1u << (bit & 7));
}

void bit_vector_trim(bit_vector **slot, uint32_t bit) {
  bit_vector *v = *slot;
  if (!v) return;
  uint32_t keep = bytes_for(bit);
  if (v->bv_count > keep) *slot = v = resize(v, keep);
  uint32_t byte = bit >> 3;
  if (byte >= v->bv_count) return;
  v->bv_bits[byte] &= static_cast<uint8_t>(0xffu >> (7 - (bit & 7)));
  std::memset(v->bv_bits + byte + 1, 0, v->bv_count - byte - 1);
}

bool bit_vector_is_empty(const bit_vector *v) {
  if (!v || v->bv_count < 4) return true;
  uint32_t i = 0;
  for (; i + 8 <= v->bv_count; i += 8)
    if (load64(v->bv_bits + i)) return false;
  return i == v->bv_count || !load32(v->bv_bits + i);
}

uint32_t bit_vector_first_clear(const bit_vector *v) {
  if (!v) return 0;
  const uint32_t n = v->bv_count;
  uint32_t i = 0;
  // Runs of ones are skipped 32 bytes at a time: one branch per four words.
  for (; i + 32 <= n; i += 32) {
    const uint8_t *p = v->bv_bits + i;
    if (~(load64(p) & load64(p + 8) & load64(p + 16) & load64(p + 24))) break;
  }
  for (; i + 8 <= n; i += 8) {
    uint64_t w = load64(v->bv_bits + i);
    if (~w) return i * 8 + static_cast<uint32_t>(std::countr_one(w));
  }
  if (i < n) {
    uint32_t w = load32(v->bv_bits + i);
    if (~w) return i * 8 + static_cast<uint32_t>(std::countr_one(w));
  }
  return n * 8;
}

int64_t bit_vector_next_set(const bit_vector *v, uint32_t from) {
  if (!v) return -1;
  for (uint32_t i = (from >> 5) * 4; i < v->bv_count; i += 4) {
    uint32_t w = load32(v->bv_bits + i);
    if (i * 8 < from) w &= ~0u << (from & 31);
    if (w) return static_cast<int64_t>(i) * 8 + std::countr_zero(w);
  }
  return -1;
}

uint32_t bit_vector_count(const bit_vector *v) {
  if (!v) return 0;
  uint32_t c = 0, i = 0;
  for (; i + 8 <= v->bv_count; i += 8) c += static_cast<uint32_t>(std::popcount(load64(v->bv_bits + i)));
  if (i < v->bv_count) c += static_cast<uint32_t>(std::popcount(load32(v->bv_bits + i)));
  return c;
}

uint32_t bit_vector_size(const bit_vector *v) { return v ? v->bv_count * 8 : 0; }

void bit_vector_and_not(bit_vector **slot, const bit_vector *other) {
  bit_vector *v = *slot;
  if (!v || !other) return;
  uint32_t n = v->bv_count < other->bv_count ? v->bv_count : other->bv_count;
  combine(v->bv_bits, other->bv_bits, n, [](auto a, auto b) { return a & ~b; });
}

void bit_vector_and(bit_vector **slot, const bit_vector *other) {
  bit_vector *v = *slot;
  if (!v) return;
  uint32_t n = other ? (v->bv_count < other->bv_count ? v->bv_count : other->bv_count) : 0;
  if (n) combine(v->bv_bits, other->bv_bits, n, [](auto a, auto b) { return a & b; });
  std::memset(v->bv_bits + n, 0, v->bv_count - n);
}

void bit_vector_or(bit_vector **slot, const bit_vector *other) {
  if (!other) return;
  bit_vector *v = *slot;
  if (!v || v->bv_count < other->bv_count) *slot = v = resize(v, other->bv_count);
  combine(v->bv_bits, other->bv_bits, other->bv_count, [](auto a, auto b) { return a | b; });
}

uint32_t bit_vector_words(const bit_vector *v, void *buffer, size_t size) {
  if (!v) return 0;
  size_t n = v->bv_count < size ? v->bv_count : size & ~size_t{3};
  std::memcpy(buffer, v->bv_bits, n);
  return static_cast<uint32_t>(n / 4);
}

size_t bit_vector_print(const bit_vector *v, char *buffer, size_t size) {
  if (!size) return 0;
  size_t used = 0;
  auto put = [&](const char *fmt, auto... args) {
    if (used + 1 >= size) return;
    int w = std::snprintf(buffer + used, size - used, fmt, args...);
    if (w > 0) used += static_cast<size_t>(w) < size - used ? static_cast<size_t>(w) : size - used - 1;
  };
  buffer[0] = 0;
  if (!v) {
    put("(Null)");
    return used;
  }
  int64_t b = bit_vector_next_set(v, 0);
  if (b < 0) put("(Empty)");
  bool first = true;
  while (b >= 0 && used + 1 < size) {
    int64_t end = b;
    while (bit_vector_test(v, static_cast<uint32_t>(end + 1))) end++;
    if (end == b) put(first ? "%lld" : ",%lld", static_cast<long long>(b));
    else put(first ? "%lld-%lld" : ",%lld-%lld", static_cast<long long>(b), static_cast<long long>(end));
    first = false;
    b = bit_vector_next_set(v, static_cast<uint32_t>(end + 1));
  }
  return used;
}

}  // extern "C"
