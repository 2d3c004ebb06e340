// mem_temp: region arithmetic, and the debug headers that catch overruns,
// double frees and blocks never freed.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "mem/pool.h"

namespace {

uint32_t word_at(const char *p) {
  uint32_t w;
  memcpy(&w, p, sizeof w);
  return w;
}

}  // namespace

TEST(MemTemp, PlainRegionFillsExactly) {
  alignas(8) char buf[64];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, false);
  char *a = static_cast<char *>(mem_temp_alloc(1, &r));
  EXPECT_EQ(a, buf);
  char *b = static_cast<char *>(mem_temp_alloc(13, &r));
  EXPECT_EQ(b, buf + 8);  // sizes round up to 8
  EXPECT_EQ(mem_temp_alloc(41, &r), nullptr);  // 48 would be needed, 40 left
  char *c = static_cast<char *>(mem_temp_alloc(40, &r));
  EXPECT_EQ(c, buf + 24);
  EXPECT_EQ(r.used, sizeof buf);
  EXPECT_EQ(mem_temp_alloc(1, &r), nullptr);
  EXPECT_EQ(mem_temp_alloc(SIZE_MAX, &r), nullptr);
  mem_temp_free(a, &r);  // nothing to do without debug
  mem_temp_sanity(&r);
}

TEST(MemTemp, DebugRegionFillsExactlyWithHeaders) {
  alignas(8) char buf[MEM_TEMP_HEAD + 32];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, true);
  for (size_t i = 0; i + 4 <= sizeof buf; i += 4) ASSERT_EQ(word_at(buf + i), MEM_TEMP_FILL);
  EXPECT_EQ(mem_temp_alloc(33, &r), nullptr);  // one byte more than fits
  char *p = static_cast<char *>(mem_temp_alloc(32, &r));
  ASSERT_EQ(p, buf + MEM_TEMP_HEAD);
  EXPECT_EQ(word_at(buf), MEM_TEMP_MAGIC);
  EXPECT_EQ(word_at(buf + 4), sizeof buf);  // the block's length, header included
  EXPECT_EQ(mem_temp_alloc(0, &r), nullptr);
  mem_temp_free(p, &r);
  EXPECT_EQ(word_at(buf), MEM_TEMP_FILL);
  mem_temp_sanity(&r);
}

TEST(MemTemp, FreeHeaderPlantedOnlyWhereOneFits) {
  alignas(8) char buf[128];
  mem_temp r;
  // 24 bytes for the block; 16 left behind it take a free header.
  mem_temp_init(&r, buf, 40, true);
  memset(buf + 24, 0xab, 16);
  ASSERT_NE(mem_temp_alloc(8, &r), nullptr);
  EXPECT_EQ(word_at(buf + 24), MEM_TEMP_FILL);
  // 15 left: too few for a header, so the tail stays as it was.
  mem_temp_init(&r, buf, 39, true);
  memset(buf + 24, 0xab, 15);
  ASSERT_NE(mem_temp_alloc(8, &r), nullptr);
  for (int i = 24; i < 39; i++) EXPECT_EQ(static_cast<unsigned char>(buf[i]), 0xab) << i;
}

TEST(MemTemp, UnalignedBufferWorks) {
  alignas(8) char store[100];
  char *buf = store + 4;
  mem_temp r;
  mem_temp_init(&r, buf, 90, true);
  void *a = mem_temp_alloc(10, &r);
  void *b = mem_temp_alloc(10, &r);
  EXPECT_EQ(static_cast<char *>(b) - static_cast<char *>(a), static_cast<ptrdiff_t>(16 + MEM_TEMP_HEAD));
  mem_temp_free(b, &r);
  mem_temp_free(a, &r);
  mem_temp_sanity(&r);
}

TEST(MemTempDeath, SanityWantsEveryBlockFreed) {
  alignas(8) char buf[256];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, true);
  void *a = mem_temp_alloc(8, &r);
  void *b = mem_temp_alloc(24, &r);
  mem_temp_free(a, &r);
  EXPECT_DEATH(mem_temp_sanity(&r), "mem_temp_sanity");
  mem_temp_free(b, &r);
  mem_temp_sanity(&r);
}

TEST(MemTempDeath, DoubleFreeIsFatal) {
  alignas(8) char buf[256];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, true);
  void *a = mem_temp_alloc(8, &r);
  mem_temp_free(a, &r);
  EXPECT_DEATH(mem_temp_free(a, &r), "mem_temp_free");
  EXPECT_DEATH(mem_temp_free(buf + 200, &r), "mem_temp_free");  // never handed out
}

TEST(MemTempDeath, OverrunIsCaughtAtTheNextAllocation) {
  alignas(8) char buf[256];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, true);
  auto *a = static_cast<char *>(mem_temp_alloc(8, &r));
  memset(a, 0, 9);  // one byte into the next header
  EXPECT_DEATH(mem_temp_alloc(8, &r), "mem_temp_alloc");
}

TEST(MemTempDeath, CorruptLengthIsCaughtBySanity) {
  alignas(8) char buf[256];
  mem_temp r;
  mem_temp_init(&r, buf, sizeof buf, true);
  void *a = mem_temp_alloc(8, &r);
  mem_temp_free(a, &r);
  memset(buf + 4, 0, 4);  // a zero length would stop the walk for good
  EXPECT_DEATH(mem_temp_sanity(&r), "mem_temp_sanity");
}
