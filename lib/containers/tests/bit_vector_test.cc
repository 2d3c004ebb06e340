#include "containers/bit_vector.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "containers/mem_hooks.h"

namespace {

// The vector's bits and byte count against std::vector<bool>, which is grown
// exactly as the vector must be.
void expect_same(const bit_vector *v, const std::vector<bool> &m, int step) {
  ASSERT_EQ(bit_vector_size(v), m.size()) << step;
  ASSERT_EQ(v->bv_count % 4, 0u);
  uint32_t count = 0, first_clear = static_cast<uint32_t>(m.size());
  for (uint32_t i = 0; i < m.size(); i++) {
    ASSERT_EQ(bit_vector_test(v, i), m[i]) << step << " bit " << i;
    count += m[i];
    if (!m[i] && first_clear == m.size()) first_clear = i;
  }
  EXPECT_FALSE(bit_vector_test(v, static_cast<uint32_t>(m.size()) + 5));
  ASSERT_EQ(bit_vector_count(v), count) << step;
  ASSERT_EQ(bit_vector_is_empty(v), count == 0) << step;
  ASSERT_EQ(bit_vector_first_clear(v), first_clear) << step;
}

std::vector<bool> random_model(std::mt19937 &rng) {
  std::vector<bool> m(((rng() % 40) * 4) * 8);
  for (size_t i = 0; i < m.size(); i++) m[i] = rng() % 3 == 0;
  return m;
}

bit_vector *from_model(const std::vector<bool> &m) {
  bit_vector *v = bit_vector_create();
  for (uint32_t i = 0; i < m.size(); i++) bit_vector_set(&v, i);
  for (uint32_t i = 0; i < m.size(); i++)
    if (!m[i]) bit_vector_clear_bit(&v, i);
  return v;
}

uint32_t bytes_for(uint32_t bit) { return ((bit >> 3) + 4) & ~3u; }

TEST(BitVector, MatchesVectorBoolModel) {
  std::mt19937 rng(31337);
  bit_vector *v = bit_vector_create();
  std::vector<bool> m;
  for (int step = 0; step < 6000; step++) {
    uint32_t bit = rng() % 700;
    switch (rng() % 9) {
      case 0:
      case 1:
      case 2:
        bit_vector_set(&v, bit);
        if (m.size() < bytes_for(bit) * 8) m.resize(bytes_for(bit) * 8);
        m[bit] = true;
        break;
      case 3:
      case 4:
        bit_vector_clear_bit(&v, bit);
        if (bit < m.size()) m[bit] = false;
        break;
      case 5:
        if (rng() % 4) break;  // trims are rare, so vectors grow long
        bit_vector_trim(&v, bit);
        if (m.size() > bytes_for(bit) * 8) m.resize(bytes_for(bit) * 8);
        for (size_t i = bit + 1; i < m.size(); i++) m[i] = false;
        break;
      case 6: {
        std::vector<bool> o = random_model(rng);
        bit_vector *other = from_model(o);
        switch (rng() % 3) {
          case 0:
            bit_vector_and_not(&v, other);
            for (size_t i = 0; i < std::min(m.size(), o.size()); i++) m[i] = m[i] && !o[i];
            break;
          case 1:
            bit_vector_and(&v, other);
            for (size_t i = 0; i < m.size(); i++) m[i] = m[i] && i < o.size() && o[i];
            break;
          case 2:
            bit_vector_or(&v, other);
            if (m.size() < o.size()) m.resize(o.size());
            for (size_t i = 0; i < o.size(); i++) m[i] = m[i] || o[i];
            break;
        }
        bit_vector_free(other);
        break;
      }
      case 7: {
        bit_vector *c = bit_vector_copy(v);
        EXPECT_TRUE(bit_vector_equal(c, v));
        bit_vector_set(&c, bit);
        EXPECT_EQ(bit_vector_equal(c, v), bit < m.size() && m[bit]);
        bit_vector_free(c);
        int64_t next = bit_vector_next_set(v, bit);
        int64_t want = -1;
        for (size_t i = bit; i < m.size(); i++)
          if (m[i]) {
            want = static_cast<int64_t>(i);
            break;
          }
        ASSERT_EQ(next, want) << step;
        break;
      }
      case 8:
        if (rng() % 50) break;
        bit_vector_clear(&v);
        m.clear();
        break;
    }
    expect_same(v, m, step);
    if (HasFatalFailure()) return;
  }
  bit_vector_free(v);
}

TEST(BitVector, EdgesFromTheDesign) {
  bit_vector *v = bit_vector_create();
  EXPECT_TRUE(bit_vector_is_empty(v));
  EXPECT_EQ(v->bv_count, 0u);
  EXPECT_EQ(bit_vector_first_clear(v), 0u);
  for (uint32_t i = 0; i < 32; i++) bit_vector_set(&v, i);
  EXPECT_EQ(v->bv_count, 4u);
  EXPECT_EQ(bit_vector_first_clear(v), 32u);
  bit_vector_set(&v, 32);
  EXPECT_EQ(v->bv_count, 8u);
  EXPECT_EQ(bit_vector_first_clear(v), 33u);

  bit_vector *empty = bit_vector_create();
  EXPECT_FALSE(bit_vector_equal(nullptr, empty));
  EXPECT_FALSE(bit_vector_equal(empty, nullptr));
  EXPECT_TRUE(bit_vector_equal(nullptr, nullptr));
  // Same members, different byte counts: not equal.
  bit_vector *longer = bit_vector_create();
  bit_vector_set(&longer, 100);
  bit_vector_clear_bit(&longer, 100);
  EXPECT_FALSE(bit_vector_equal(empty, longer));
  EXPECT_TRUE(bit_vector_is_empty(longer));

  // A null slot is an empty vector that the first set creates.
  bit_vector *lazy = nullptr;
  bit_vector_clear_bit(&lazy, 3);
  EXPECT_EQ(lazy, nullptr);
  bit_vector_set(&lazy, 3);
  ASSERT_NE(lazy, nullptr);
  EXPECT_TRUE(bit_vector_test(lazy, 3));

  for (bit_vector *x : {v, empty, longer, lazy}) bit_vector_free(x);
}

// Long runs of ones, which the scan skips in strides: one clear bit at every
// position of vectors of several sizes, and no clear bit at all.
TEST(BitVector, FirstClearAfterLongRuns) {
  for (uint32_t bytes : {4u, 8u, 28u, 32u, 36u, 64u, 100u, 132u}) {
    bit_vector *v = nullptr;
    for (uint32_t b = 0; b < bytes * 8; b++) bit_vector_set(&v, b);
    ASSERT_EQ(v->bv_count, bytes);
    EXPECT_EQ(bit_vector_first_clear(v), bytes * 8);
    for (uint32_t p = 0; p < bytes * 8; p++) {
      bit_vector_clear_bit(&v, p);
      ASSERT_EQ(bit_vector_first_clear(v), p) << bytes;
      bit_vector_set(&v, p);
    }
    bit_vector_free(v);
  }
}

TEST(BitVector, WordsAndPrint) {
  bit_vector *v = nullptr;
  char buf[64];
  EXPECT_EQ(bit_vector_print(nullptr, buf, sizeof buf), 6u);
  EXPECT_STREQ(buf, "(Null)");
  for (uint32_t b : {0u, 1u, 2u, 3u, 7u, 40u, 63u, 64u}) bit_vector_set(&v, b);
  EXPECT_EQ(bit_vector_print(v, buf, sizeof buf), std::string("0-3,7,40,63-64").size());
  EXPECT_STREQ(buf, "0-3,7,40,63-64");
  // Cut at the end of the buffer, still terminated.
  EXPECT_EQ(bit_vector_print(v, buf, 6), 5u);
  EXPECT_STREQ(buf, "0-3,7");
  EXPECT_EQ(bit_vector_print(v, buf, 4), 3u);
  EXPECT_STREQ(buf, "0-3");

  uint32_t words[4] = {};
  EXPECT_EQ(bit_vector_words(v, words, 7), 1u);  // only whole words
  EXPECT_EQ(words[0], 0x8fu);
  EXPECT_EQ(words[1], 0u);
  EXPECT_EQ(bit_vector_words(v, words, sizeof words), 3u);
  EXPECT_EQ(words[1], 0x80000100u);
  EXPECT_EQ(words[2], 1u);

  bit_vector_clear(&v);
  EXPECT_EQ(bit_vector_print(v, buf, sizeof buf), 7u);
  EXPECT_STREQ(buf, "(Empty)");
  bit_vector_free(v);
}

// Storage goes through the cookie hooks, always under the one cookie. (When
// the whole binary runs in one process the cookie may already exist from an
// earlier test, made by the default hooks; only its constancy is checked.)
int live_allocs;
void *seen_cookie;
void same_cookie(void *c) {
  if (!seen_cookie) seen_cookie = c;
  EXPECT_EQ(c, seen_cookie);
}
void *test_cookie_create(const char *name) {
  EXPECT_STREQ(name, "bit_vector");
  return &live_allocs;
}
void *test_malloc(void *c, size_t size) {
  same_cookie(c);
  live_allocs++;
  return malloc(size);
}
void *test_realloc(void *c, void *p, size_t size) {
  same_cookie(c);
  if (!p) live_allocs++;
  return realloc(p, size);
}
void test_free(void *c, void *p) {
  same_cookie(c);
  live_allocs--;
  free(p);
}

TEST(BitVector, ChargedToItsCookie) {
  containers_mem_hooks h = containers_mem;
  h.cmh_cookie_create = test_cookie_create;
  h.cmh_cookie_malloc = test_malloc;
  h.cmh_cookie_realloc = test_realloc;
  h.cmh_cookie_free = test_free;
  containers_mem_hooks_set(&h);
  bit_vector *a = bit_vector_create();
  bit_vector_set(&a, 1000);
  bit_vector *b = bit_vector_copy(a);
  EXPECT_EQ(live_allocs, 2);
  bit_vector_free(a);
  bit_vector_free(b);
  EXPECT_EQ(live_allocs, 0);
  containers_mem_hooks_set(nullptr);
}

TEST(BitVectorDeathTest, CookieRefused) {
  containers_mem_hooks h = containers_mem;
  h.cmh_cookie_create = [](const char *) -> void * { return nullptr; };
  containers_mem_hooks_set(&h);
  EXPECT_DEATH(bit_vector_lib_init(), "Assertion failed: \\(bvcookie\\)");
  containers_mem_hooks_set(nullptr);
}

}  // namespace
