// task_lite pools: carving, big objects, reset, destroy and their accounting.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "../src/internal.h"
#include "mem/pool.h"

namespace {

size_t pool_bytes() {
  size_t bytes = 0, allocs = 0;
  task_mem_cookie_get_allocated(task_mem_pool_cookie, &bytes, &allocs);
  return bytes;
}

bool all_zero(const void *p, size_t n) {
  const auto *b = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; i++)
    if (b[i]) return false;
  return true;
}

class LitePool : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(task_memory_init(nullptr), 0); }
};

}  // namespace

TEST_F(LitePool, ObjectsAreZeroedAlignedAndDisjoint) {
  size_t before = pool_bytes();
  task_lite_pool *pool = task_lite_mpool("carve");
  std::mt19937 rng(7);
  struct obj {
    unsigned char *p;
    size_t n;
  };
  std::vector<obj> objs;
  for (int i = 0; i < 2000; i++) {
    size_t n = rng() % 3 == 0 ? rng() % 9000 : rng() % 300;
    auto *p = static_cast<unsigned char *>(task_lite_malloc(pool, n));
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    ASSERT_TRUE(all_zero(p, n)) << i;
    memset(p, static_cast<int>(i & 0xff), n);
    objs.push_back({p, n});
  }
  // Nothing was handed out twice: every object still holds its own byte.
  for (size_t i = 0; i < objs.size(); i++)
    for (size_t k = 0; k < objs[i].n; k++) ASSERT_EQ(objs[i].p[k], i & 0xff) << i;
  uint32_t pages, high;
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, high);
  // What the pool holds is what "--Pool--" was charged, and it all goes back.
  EXPECT_EQ(pool->tlp_bytes, pool_bytes() - before);
  EXPECT_GE(uint64_t{pages} * TASK_LITE_PAGE, pool->tlp_bytes);
  task_lite_mdestroy(pool);
  EXPECT_EQ(pool_bytes(), before);
}

TEST_F(LitePool, SmallObjectsShareAPageAndBigOnesDoNotDisturbIt) {
  task_lite_pool *pool = task_lite_mpool("pages");
  auto *a = static_cast<char *>(task_lite_malloc(pool, 1));
  auto *big = static_cast<char *>(task_lite_malloc(pool, 5000));
  auto *b = static_cast<char *>(task_lite_malloc(pool, 0));
  auto *c = static_cast<char *>(task_lite_malloc(pool, 17));
  EXPECT_EQ(b, a + 16);  // the big object did not end the current page
  EXPECT_EQ(c, b + 16);
  EXPECT_TRUE(big < a || big >= a + TASK_LITE_PAGE);
  uint32_t pages, high;
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, 1u + (mem_obtained(big - 16) + TASK_LITE_PAGE - 1) / TASK_LITE_PAGE);
  // The page is used up to its last 16 bytes before the next one is taken.
  uint32_t start = pages;
  size_t room = (TASK_LITE_PAGE - MEM_FRAME - 16) / 16 * 16 - 64;
  for (size_t i = 0; i < room / 16; i++) task_lite_malloc(pool, 16);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, start);
  task_lite_malloc(pool, 16);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, start + 1);
  task_lite_mdestroy(pool);
}

TEST_F(LitePool, ResetKeepsFourClearedPagesForReuse) {
  task_lite_pool *pool = task_lite_mpool("reset");
  for (int i = 0; i < 6 * 4; i++) memset(task_lite_malloc(pool, 1000), 0xee, 1000);  // six pages
  task_lite_malloc(pool, 20000);
  uint32_t pages, high;
  task_lite_pages(pool, &pages, &high);
  ASSERT_EQ(pages, 6u + 5u);  // the big one takes five
  task_lite_mreset(pool);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, 4u);
  EXPECT_EQ(high, 11u);
  size_t held = pool_bytes();
  // The kept pages come back cleared, and using them costs no new memory.
  for (int i = 0; i < 4 * 4; i++) {
    void *p = task_lite_malloc(pool, 1000);
    ASSERT_TRUE(all_zero(p, 1000)) << i;
  }
  EXPECT_EQ(pool_bytes(), held);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, 4u);
  task_lite_malloc(pool, 1000);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, 5u);
  // A second reset keeps four again, not eight.
  task_lite_mreset(pool);
  task_lite_pages(pool, &pages, &high);
  EXPECT_EQ(pages, 4u);
  task_lite_mdestroy(pool);
}

TEST_F(LitePool, RecordsComeFromTheirBlock) {
  task_lite_pool *a = task_lite_mpool("a");
  task_block *bp = task_block_init(sizeof(task_lite_pool), "je_task_lite_mpool_block");
  size_t bytes, objects;
  task_block_get_allocated(bp, &bytes, &objects);
  EXPECT_EQ(objects, 1u);
  task_lite_mdestroy(a);
  task_block_get_allocated(bp, &bytes, &objects);
  EXPECT_EQ(objects, 0u);
}

TEST_F(LitePool, TheSizeLimitAndDestroyingTwice) {
  task_lite_pool *pool = task_lite_mpool("misuse");
  size_t max = task_memory_max_alloc_size_int();
  auto *p = static_cast<unsigned char *>(task_lite_malloc(pool, max));
  EXPECT_EQ(p[0] | p[max - 1], 0);
  EXPECT_DEATH(task_lite_malloc(pool, task_memory_max_alloc_size_int() + 1),
               "size <= task_memory_max_alloc_size_int\\(\\)");
  task_lite_pool *other = task_lite_mpool("other");
  task_lite_mdestroy(pool);
  EXPECT_DEATH(task_lite_mdestroy(pool), "task_lite_mdestroy_internal");
  task_lite_mdestroy(other);
}
