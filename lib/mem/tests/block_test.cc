// Typed blocks and local pools, linked as in production.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "../src/internal.h"
#include "mem/block.h"
#include "mem/pool.h"

namespace {

size_t objects(const task_block *bp) {
  size_t b, o;
  task_block_get_allocated(bp, &b, &o);
  return o;
}

uint32_t pooled(const task_block *bp, int t = 0) {
  return bp->tb_lp[t] ? bp->tb_lp[t]->lp_count : 0;
}

class Blocks : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(task_memory_init(nullptr), 0);
    task_mem_block_pool_enable();
  }
};

}  // namespace

TEST_F(Blocks, OneBlockPerTripleAndSizeLimits) {
  task_block *a = task_block_init(40, "things");
  EXPECT_EQ(task_block_init(40, "things"), a);
  EXPECT_NE(task_block_init(40, "things2"), a);
  EXPECT_NE(task_block_init_flags(40, "things", TASK_BLOCK_LOCAL_POOL), a);
  EXPECT_NE(task_block_init(TASK_BLOCK_MAX_SIZE, "largest"), nullptr);
  errno = 0;
  EXPECT_EQ(task_block_init(TASK_BLOCK_MAX_SIZE + 1, "too large"), nullptr);
  EXPECT_EQ(errno, EFAULT);
  // Below 4 bytes an object gets no pool.
  EXPECT_FALSE(task_block_init_flags(2, "tiny", TASK_BLOCK_LOCAL_POOL)->tb_flags & TASK_BLOCK_LOCAL_POOL);
  EXPECT_FALSE(task_block_init_flags(3, "tiny3", TASK_BLOCK_LOCAL_POOL)->tb_flags & TASK_BLOCK_LOCAL_POOL);
  EXPECT_TRUE(task_block_init_flags(8, "small", TASK_BLOCK_LOCAL_POOL)->tb_flags & TASK_BLOCK_LOCAL_POOL);
}

// Objects of 4 to 7 bytes are pooled although their 8-byte list link is longer
// than they are: while they wait in the pool the link must leave their red
// zone alone, and they come back cleared.
TEST_F(Blocks, ObjectsShorterThanALinkArePooledWithTheirZones) {
  for (size_t size = 4; size < 8; size++) {
    task_block *bp = task_block_init_flags(size, "short", TASK_BLOCK_LOCAL_POOL);
    ASSERT_TRUE(bp->tb_flags & TASK_BLOCK_LOCAL_POOL) << size;
    uint32_t zone = MEM_RZ_BLOCK | (bp->tb_id & 0xffff);
    char *p[3];
    for (char *&q : p) {
      q = static_cast<char *>(task_block_alloc(bp));
      memset(q, 0xff, size);
    }
    for (char *q : p) task_block_free(bp, q);
    ASSERT_EQ(pooled(bp), 3u);
    for (char *q : p) EXPECT_EQ(*mem_rz_at(q, bp->tb_real_size), zone) << size;
    for (int i = 2; i >= 0; i--) {
      auto *q = static_cast<unsigned char *>(task_block_alloc(bp));
      EXPECT_EQ(reinterpret_cast<char *>(q), p[i]);  // from the pool, newest first
      for (size_t k = 0; k < size; k++) EXPECT_EQ(q[k], 0) << size;
    }
    EXPECT_EQ(pooled(bp), 0u);
    for (char *q : p) task_block_free(bp, q);
    task_mem_block_pool_empty();
    EXPECT_EQ(objects(bp), 0u);
  }
}

TEST_F(Blocks, ObjectsAreZeroedAndGuarded) {
  task_block *bp = task_block_init(100, "guarded");
  EXPECT_GE(bp->tb_real_size, 104u);
  EXPECT_EQ(bp->tb_real_size % 4, 0u);
  auto *p = static_cast<unsigned char *>(task_block_alloc(bp));
  for (int i = 0; i < 100; i++) ASSERT_EQ(p[i], 0);
  EXPECT_EQ(*mem_rz_at(reinterpret_cast<char *>(p), bp->tb_real_size), MEM_RZ_BLOCK | (bp->tb_id & 0xffff));
  EXPECT_EQ(objects(bp), 1u);
  memset(p, 0xee, 100);
  task_block_free(bp, p);
  EXPECT_EQ(objects(bp), 0u);
  void *q = task_block_alloc(bp);
  task_block_free_clear(bp, &q);
  EXPECT_EQ(q, nullptr);

  task_block *bare = task_block_init_flags(100, "bare", TASK_BLOCK_NO_REDZONE);
  EXPECT_LT(bare->tb_real_size, bp->tb_real_size + 4);
  task_block_free(bare, task_block_alloc(bare));
}

TEST_F(Blocks, LocalPoolReusesClearedObjectsAndAges) {
  mem_junk = true;  // pooled objects are filled with 0x5a: allocation must clear them
  task_block *bp = task_block_init_flags(64, "pooled", TASK_BLOCK_LOCAL_POOL);
  std::vector<void *> v;
  for (int i = 0; i < 6000; i++) v.push_back(task_block_alloc(bp));
  for (void *p : v) task_block_free(bp, p);
  EXPECT_EQ(pooled(bp), 6000u);
  EXPECT_EQ(objects(bp), 6000u);  // pooled objects are still held
  EXPECT_EQ(static_cast<unsigned char *>(v.back())[8], 0x5a);

  auto *p = static_cast<unsigned char *>(task_block_alloc(bp));
  EXPECT_EQ(p, v.back());  // last in, first out
  for (int i = 0; i < 64; i++) ASSERT_EQ(p[i], 0);
  EXPECT_EQ(*mem_rz_at(reinterpret_cast<char *>(p), bp->tb_real_size), MEM_RZ_BLOCK | (bp->tb_id & 0xffff));

  // A round gives back what the pool held when it began; the budget cuts it.
  EXPECT_FALSE(task_mem_block_pool_age());
  EXPECT_EQ(pooled(bp), 999u);
  EXPECT_EQ(objects(bp), 1000u);
  void *q = task_block_alloc(bp);  // used during the round: lp_trim follows the count
  EXPECT_TRUE(task_mem_block_pool_age());
  EXPECT_EQ(pooled(bp), 0u);
  EXPECT_EQ(objects(bp), 2u);
  EXPECT_TRUE(bp->tb_lp[0]->lp_done);

  task_block_free(bp, q);
  task_block_free(bp, p);
  EXPECT_FALSE(bp->tb_lp[0]->lp_done);
  task_mem_block_pool_empty();
  EXPECT_EQ(pooled(bp), 0u);
  EXPECT_EQ(objects(bp), 0u);

  // Disabled pools are bypassed.
  task_mem_block_pool_disable();
  task_block_free(bp, task_block_alloc(bp));
  EXPECT_EQ(pooled(bp), 0u);
  mem_junk = false;
}

TEST_F(Blocks, BlockRemovalDrainsAndOrphans) {
  task_block *bp = task_block_init_flags(32, "doomed", TASK_BLOCK_LOCAL_POOL);
  void *kept = task_block_alloc(bp);
  task_block_free(bp, task_block_alloc(bp));
  size_t ob, oa;
  task_mem_cookie_get_allocated(task_mem_orphan_cookie, &ob, &oa);
  EXPECT_EQ(task_block_block_free(bp), 0);
  size_t nb, na;
  task_mem_cookie_get_allocated(task_mem_orphan_cookie, &nb, &na);
  EXPECT_EQ(na, oa + 1);  // the object never freed
  EXPECT_EQ(task_block_block_free(bp), 3);
  (void)kept;
}

TEST_F(Blocks, ThreadsGetTheirOwnRecordsAndPools) {
  task_block *bp = task_block_init_flags(48, "threads", TASK_BLOCK_LOCAL_POOL);
  task_mem_thread_slots_grow(4);
  ASSERT_EQ(bp->tb_lp_count, 4u);
  task_block *later = task_block_init(48, "made after growth");
  EXPECT_EQ(later->tb_lp_count, 4u);
  void *p = nullptr;
  std::thread([&] {
    task_mem_set_thread_index(2);
    p = task_block_alloc(bp);
    task_block_free(bp, p);  // into thread 2's own pool
    EXPECT_EQ(task_block_alloc(bp), p);
  }).join();
  EXPECT_EQ(bp->tb_threads[2]->tmt_allocs, 1);
  EXPECT_EQ(objects(bp), 1u);
  task_block_free(bp, p);  // freed on the main thread: into thread 0's pool
  EXPECT_EQ(pooled(bp, 0), 1u);
  EXPECT_EQ(pooled(bp, 2), 0u);
}

TEST_F(Blocks, RandomUseAgainstAModel) {
  std::mt19937 rng(4242);
  task_block *blocks[3] = {task_block_init_flags(24, "r24", TASK_BLOCK_LOCAL_POOL), task_block_init(200, "r200"),
                           task_block_init_flags(1000, "r1000", TASK_BLOCK_LOCAL_POOL)};
  std::map<unsigned char *, int> live;  // object -> block index; each holds a pattern
  for (int step = 0; step < 20000; step++) {
    if (live.empty() || rng() % 3) {
      int b = rng() % 3;
      auto *p = static_cast<unsigned char *>(task_block_alloc(blocks[b]));
      for (size_t i = 0; i < blocks[b]->tb_size; i++) ASSERT_EQ(p[i], 0);
      memset(p, static_cast<int>(reinterpret_cast<uintptr_t>(p) & 0xff), blocks[b]->tb_size);
      ASSERT_TRUE(live.emplace(p, b).second) << "object handed out twice";
    } else {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      task_block *bp = blocks[it->second];
      for (size_t i = 0; i < bp->tb_size; i++)
        ASSERT_EQ(it->first[i], reinterpret_cast<uintptr_t>(it->first) & 0xff) << "object overwritten";
      task_block_free(bp, it->first);
      live.erase(it);
    }
    if (step % 5000 == 4999) task_mem_block_pool_age();
  }
  for (int b = 0; b < 3; b++) {
    size_t in_use = 0;
    for (auto &e : live) in_use += e.second == b;
    EXPECT_EQ(objects(blocks[b]), in_use + pooled(blocks[b]));
  }
}

using BlocksDeath = Blocks;

TEST_F(BlocksDeath, OverrunFailsAtFree) {
  EXPECT_DEATH(
      {
        task_block *bp = task_block_init(40, "overrun");
        char *p = static_cast<char *>(task_block_alloc(bp));
        memset(p, 'x', bp->tb_real_size - 4 + 1);  // one byte into the red zone
        task_block_free(bp, p);
      },
      "task_block_free_jemalloc");
}

TEST_F(BlocksDeath, AllocationFailureIsFatal) {
  EXPECT_DEATH(
      {
        task_block *bp = task_block_init(40, "failing");
        task_block_fail_alloc = 1;
        task_block_alloc(bp);
      },
      "ptr != \\(\\(void \\*\\)0\\)");
}

#include "containers/bit_vector.h"

// Once the memory system is up, the containers allocate through it.
TEST_F(Blocks, ContainersAllocateThroughBlocksAndCookies) {
  bit_vector_lib_init();
  bit_vector *bv = bit_vector_create();
  bit_vector_set(&bv, 5000);
  size_t found = 0;
  auto count = [](task_mem_cookie *c, void *arg) {
    if (strcmp(c->tmc_name, "bit_vector") == 0) {
      size_t b, a;
      task_mem_cookie_get_allocated(c, &b, &a);
      *static_cast<size_t *>(arg) += a;
    }
  };
  mem_cookie_walk_fn(count, &found);
  EXPECT_GE(found, 1u);
  bit_vector_free(bv);
}
