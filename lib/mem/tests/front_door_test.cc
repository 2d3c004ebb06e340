// The front door and its accounting, linked as in production.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "../src/internal.h"
#include "../src/jem.h"
#include "mem/block.h"
#include "mem/mem.h"

namespace {

// Hides where a pointer came from, so that the compiler's bounds tracking
// does not object to reading the frame in front of it.
template <typename T>
T *opaque(T *p) {
  asm volatile("" : "+r"(p));
  return p;
}

struct Counts {
  size_t bytes = 0, allocs = 0;
};
Counts counts(task_mem_cookie *c) {
  Counts r;
  task_mem_cookie_get_allocated(c, &r.bytes, &r.allocs);
  return r;
}

class FrontDoor : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(task_memory_init(nullptr), 0); }
};

}  // namespace

TEST(FrontDoorStart, BlocksFromBeforeInitStayValid) {
  ASSERT_FALSE(task_memory_is_up());
  char *early = static_cast<char *>(tvx_fd_malloc(100));
  strcpy(early, "early");
  EXPECT_EQ(*mem_zone_word(early), mem_cookie_zone(&task_mem_libc_cookie));
  ASSERT_EQ(task_memory_init(nullptr), 0);
  ASSERT_TRUE(task_memory_is_up());
  EXPECT_EQ(task_mem_vector_index(), unsigned{TASK_MEM_VECTOR_JEMALLOC});
  // Reallocated and freed through jemalloc's vector, recognised by its zone.
  early = static_cast<char *>(tvx_fd_realloc(early, 5000));
  EXPECT_STREQ(early, "early");
  EXPECT_EQ(*mem_zone_word(early), mem_cookie_zone(task_mem_system_cookie));
  tvx_fd_free(early);
}

// Where the process may not reserve the range, large requests are framed like
// small ones, and blocks of the large classes pass by the threads' caches.
int without_the_range() {
  long kb = 0;
  FILE *f = fopen("/proc/self/status", "r");
  char line[256];
  while (f && fgets(line, sizeof line, f))
    if (strncmp(line, "VmSize:", 7) == 0) kb = atol(line + 7);
  if (f) fclose(f);
  struct rlimit lim;
  lim.rlim_cur = lim.rlim_max = static_cast<rlim_t>(kb + (256 << 10)) << 10;
  if (setrlimit(RLIMIT_AS, &lim) != 0) return 3;
  if (task_memory_init(nullptr) != 0 || mem_large.span != 0) return 4;
  for (int round = 0; round < 3; round++) {
    auto *p = static_cast<unsigned char *>(tvx_fd_malloc(1024));
    if (mem_is_large(p) || mem_obtained(p) <= 1024 || tvx_fd_malloc_usable_size(p) < 1024) return 5;
    for (int i = 0; i < 1024; i++)
      if (p[i]) return 6;
    memset(p, 1, 1024);
    task_block *bp = task_block_init(1020, "unranged");
    void *o = task_block_alloc(bp);
    task_block_free(bp, o);
    tvx_fd_free(p);
  }
  return 0;
}

TEST(FrontDoorStart, WithoutTheRangeLargeRequestsAreFramed) {
  EXPECT_EXIT(_exit(without_the_range()), ::testing::ExitedWithCode(0), "");
}

TEST_F(FrontDoor, FixedCookiesInOrder) {
  const task_mem_cookie *fixed[] = {task_mem_orphan_cookie, task_mem_system_cookie, task_mem_anonymous_cookie,
                                    task_mem_pool_cookie, task_mem_lfll_cookie};
  const char *names[] = {"--Orphan--", "--System--", "--Anonymous--", "--Pool--", "--LFLL--"};
  for (int i = 0; i < 5; i++) {
    ASSERT_NE(fixed[i], nullptr);
    EXPECT_STREQ(fixed[i]->tmc_name, names[i]);
    if (i) {
      EXPECT_GT(fixed[i]->tmc_id, fixed[i - 1]->tmc_id);
    }
  }
}

TEST_F(FrontDoor, EveryAllocationIsZeroedAndFramed) {
  void *z = tvx_fd_malloc(0);
  ASSERT_NE(z, nullptr);
  EXPECT_GE(reinterpret_cast<char *>(z) - mem_block_of(z), 12);
  tvx_fd_free(z);
  for (size_t n : {1u, 24u, 1000u, 70000u}) {
    for (int round = 0; round < 3; round++) {  // reused memory too
      auto *p = static_cast<unsigned char *>(tvx_fd_malloc(n));
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
      for (size_t i = 0; i < n; i++) ASSERT_EQ(p[i], 0) << n;
      EXPECT_GE(tvx_fd_malloc_usable_size(p), n);
      memset(p, 0xff, tvx_fd_malloc_usable_size(p));
      tvx_fd_free(p);
    }
  }
}

TEST_F(FrontDoor, CookieAccountingThroughEveryEntryPoint) {
  task_mem_cookie *c = task_mem_cookie_get("acct");
  EXPECT_EQ(counts(c).allocs, 0u);
  void *a = task_cookie_malloc(c, 100);
  void *b = task_cookie_calloc(c, 10, 10);
  char *s = task_cookie_strdup(c, "hello");
  Counts n = counts(c);
  EXPECT_EQ(n.allocs, 3u);
  EXPECT_GE(n.bytes, 100u + 100u + 6u);
  a = task_cookie_realloc(c, a, 10000);
  EXPECT_EQ(counts(c).allocs, 3u);
  EXPECT_GT(counts(c).bytes, n.bytes + 9000);
  EXPECT_STREQ(s, "hello");
  task_cookie_free(c, a);
  task_cookie_free(c, s);
  EXPECT_EQ(counts(c).allocs, 1u);
  int t = task_mem_thread_index();
  ASSERT_EQ(t, 0);
  EXPECT_EQ(c->tmc_threads[0]->tmt_allocs_hw, 4);  // realloc holds old and new a moment
  EXPECT_EQ(c->tmc_threads[0]->tmt_frees, 3u);  // realloc's free counts too

  // A free under the wrong cookie is charged to the block's own.
  Counts sys = counts(task_mem_system_cookie);
  void *x = tvx_fd_malloc(64);
  EXPECT_EQ(counts(task_mem_system_cookie).allocs, sys.allocs + 1);
  task_cookie_free(c, x);
  EXPECT_EQ(counts(task_mem_system_cookie).allocs, sys.allocs);
  EXPECT_EQ(counts(c).allocs, 1u);

  // Releasing a cookie leaves what it held to the orphan cookie.
  Counts orphan = counts(task_mem_orphan_cookie);
  task_mem_cookie_put(c);
  EXPECT_EQ(counts(task_mem_orphan_cookie).allocs, orphan.allocs + 1);
  EXPECT_EQ(task_mem_vector_get(TASK_MEM_VECTOR_JEMALLOC)->tmv_cookie_put(c), 3);  // no longer listed
  // b's memory stays valid; it is simply no longer accounted to anyone listed.
  EXPECT_EQ(static_cast<char *>(b)[99], 0);
}

TEST_F(FrontDoor, ThreadsWithoutASlotCountOnTheOrphan) {
  Counts before, after, sys_before, sys_after;
  void *p = nullptr;
  std::thread([&] {
    EXPECT_EQ(task_mem_thread_index(), -1);
    before = counts(task_mem_orphan_cookie);
    sys_before = counts(task_mem_system_cookie);
    p = tvx_fd_malloc(256);
    after = counts(task_mem_orphan_cookie);
    sys_after = counts(task_mem_system_cookie);
  }).join();
  EXPECT_EQ(after.allocs, before.allocs + 1);
  EXPECT_GE(after.bytes, before.bytes + 256);
  EXPECT_EQ(sys_after.allocs, sys_before.allocs);
  tvx_fd_free(p);  // on the main thread: the system cookie's record takes it
}

TEST_F(FrontDoor, ReallocRules) {
  char *p = static_cast<char *>(tvx_fd_realloc(nullptr, 10));  // acts as malloc
  ASSERT_NE(p, nullptr);
  memcpy(p, "0123456789", 10);
  p = static_cast<char *>(tvx_fd_realloc(p, 4));
  EXPECT_EQ(memcmp(p, "0123", 4), 0);
  p = static_cast<char *>(tvx_fd_realloc(p, 100));
  EXPECT_EQ(memcmp(p, "0123", 4), 0);
  for (int i = 4; i < 100; i++) ASSERT_EQ(p[i], 0);

  // reallocf frees the old block when the new one cannot be had.
  const task_mem_vector *v = task_mem_vector_get(TASK_MEM_VECTOR_JEMALLOC);
  task_mem_cookie *c = task_mem_cookie_get("reallocf");
  void *q = task_cookie_malloc(c, 32), *out = q;
  EXPECT_EQ(v->tmv_realloc(c, q, SIZE_MAX - 8, 1, &out), ENOMEM);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(counts(c).allocs, 0u);
  q = task_cookie_malloc(c, 32);
  EXPECT_EQ(v->tmv_realloc(c, q, SIZE_MAX - 8, 0, &out), ENOMEM);
  EXPECT_EQ(counts(c).allocs, 1u);
  task_cookie_free(c, q);
  task_mem_cookie_put(c);
  tvx_fd_free(p);
}

TEST_F(FrontDoor, AlignedForms) {
  for (size_t align : {16u, 32u, 64u, 4096u}) {
    void *p = nullptr;
    ASSERT_EQ(tvx_fd_posix_memalign(&p, align, 100), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u);
    EXPECT_GE(tvx_fd_malloc_usable_size(p), 100u);
    static_cast<char *>(p)[99] = 1;
    tvx_fd_free(p);
  }
  void *p = nullptr;
  EXPECT_EQ(tvx_fd_posix_memalign(&p, 24, 8), EINVAL);
  EXPECT_EQ(tvx_fd_aligned_alloc(3, 8), nullptr);
  void *v = tvx_fd_valloc(10), *pv = tvx_fd_pvalloc(5000);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(v) % 4096, 0u);
  EXPECT_GE(tvx_fd_malloc_usable_size(pv), 8192u);
  tvx_fd_free(v);
  tvx_fd_free(pv);
}

TEST_F(FrontDoor, LegacyIsRefusedClearly) {
  testing::internal::CaptureStderr();
  task_mem_force_legacy(true);
  EXPECT_EQ(task_mem_call_vector_select(), ENOSYS);
  task_mem_force_legacy(false);
  EXPECT_EQ(task_mem_call_vector_toggle(), ENOSYS);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("legacy page allocator is not built"), std::string::npos);
  EXPECT_EQ(task_mem_vector_index(), unsigned{TASK_MEM_VECTOR_JEMALLOC});
  void *p = tvx_fd_malloc(10);  // and allocation goes on
  tvx_fd_free(p);
}

#ifndef TVX_SANITIZE
TEST_F(FrontDoor, TheProcessMallocIsTheFrontDoor) {
  void *p = opaque(malloc(40));
  EXPECT_EQ(*mem_zone_word(p), mem_cookie_zone(task_mem_system_cookie));
  free(p);
  std::vector<char> v(500, 'x');  // operator new reaches it through malloc
  char *d = opaque(v.data());
  EXPECT_EQ(*mem_zone_word(d), mem_cookie_zone(task_mem_system_cookie));
}
#endif

using FrontDoorDeath = FrontDoor;

TEST_F(FrontDoorDeath, DoubleFreeIsCaughtAtTheRedZone) {
  EXPECT_DEATH(
      {
        void *p = tvx_fd_malloc(48);
        tvx_fd_free(p);
        tvx_fd_free(p);
      },
      "Cookie RedZone Validation Failed");
}

TEST_F(FrontDoorDeath, OverrunIsCaughtAtFree) {
  EXPECT_DEATH(
      {
        char *p = static_cast<char *>(tvx_fd_malloc(48));
        memset(p, 'x', tvx_fd_malloc_usable_size(p) + 1);
        tvx_fd_free(p);
      },
      "task_mem_fatal: free: .*Cookie RedZone Validation Failed");
}

// ---- Large blocks: the head beside the block ----------------------------------

// A request that a 16-byte head would push past 896 bytes takes jemalloc's
// class of the request itself, 1 KiB at least; the smaller ones stay framed.
TEST_F(FrontDoor, LargeRequestsKeepTheirOwnSizeClass) {
  ASSERT_NE(mem_large.span, 0u);
  for (size_t n : {MEM_LARGE_FROM - 1, MEM_LARGE_FROM, size_t{1020}, size_t{1024}, size_t{1100}, size_t{4096},
                   size_t{70000}, size_t{3} << 20}) {
    for (int round = 0; round < 3; round++) {  // reused blocks too
      auto *p = static_cast<unsigned char *>(tvx_fd_malloc(n));
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << n;
      EXPECT_EQ(mem_is_large(p), n >= MEM_LARGE_FROM) << n;
      if (n >= MEM_LARGE_FROM)
        EXPECT_EQ(mem_obtained(p), std::max(jem_nallocx(n, 0), size_t{1024})) << n;
      else
        EXPECT_LE(mem_obtained(p), 896u) << n;
      size_t usable = tvx_fd_malloc_usable_size(p);
      EXPECT_GE(usable, n);
      EXPECT_LE(usable, mem_obtained(p));
      for (size_t i = 0; i < usable; i++) ASSERT_EQ(p[i], 0) << n;
      memset(p, 0xff, usable);
      tvx_fd_free(p);
    }
  }
}

TEST_F(FrontDoor, LargeBlocksAreChargedToTheCookieWhoseZoneTheyCarry) {
  task_mem_cookie *c = task_mem_cookie_get("large_owner");
  void *own = task_cookie_malloc(c, 1024);
  EXPECT_EQ(counts(c).bytes, 1024u);
  EXPECT_EQ(counts(c).allocs, 1u);
  EXPECT_EQ(*mem_zone_word(own), mem_cookie_zone(c));
  Counts before = counts(task_mem_system_cookie);
  void *p = tvx_fd_malloc(1024);  // "--System--"'s, freed with another cookie
  EXPECT_EQ(counts(task_mem_system_cookie).bytes, before.bytes + 1024);
  task_cookie_free(c, p);
  EXPECT_EQ(counts(task_mem_system_cookie).bytes, before.bytes);
  EXPECT_EQ(counts(c).bytes, 1024u);
  task_cookie_free(c, own);
  EXPECT_EQ(counts(c).bytes, 0u);
  EXPECT_EQ(counts(c).allocs, 0u);
  task_mem_cookie_put(c);
}

TEST_F(FrontDoor, LargeAlignedRequestsAreAlignedBlocksOfTheRange) {
  for (size_t align : {32u, 64u, 4096u}) {
    for (size_t n : {100u, 2000u}) {
      void *p = tvx_fd_aligned_alloc(align, n);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u);
      EXPECT_EQ(mem_is_large(p), n + align + 4 > 896) << align << " " << n;
      EXPECT_GE(tvx_fd_malloc_usable_size(p), n);
      EXPECT_EQ(*mem_zone_word(p), mem_cookie_zone(task_mem_system_cookie));
      tvx_fd_free(p);
    }
  }
}

// The threads' caches keep blocks by size class for every arena: a block of
// the large classes from another arena, freed into the cache by code that
// calls jemalloc itself, must not be handed out as a large block.
TEST_F(FrontDoor, AnotherArenasBlockInTheCacheIsNotTaken) {
  std::vector<void *> foreign;
  for (int i = 0; i < 8; i++) foreign.push_back(jem_mallocx(1024, 0));
  for (void *f : foreign) jem_sdallocx(f, 1024, 0);
  for (int i = 0; i < 8; i++) {
    void *p = tvx_fd_malloc(1024);
    EXPECT_TRUE(mem_is_large(p));
    tvx_fd_free(p);
  }
  // Typed blocks of the large classes come from the range's arena as well.
  task_block *bp = task_block_init(1020, "large_objects");
  void *o = task_block_alloc(bp);
  EXPECT_TRUE(mem_is_large(o));
  task_block_free(bp, o);
}

TEST_F(FrontDoor, ReallocMovesContentsAcrossLayouts) {
  auto *p = static_cast<unsigned char *>(tvx_fd_malloc(100));
  for (int i = 0; i < 100; i++) p[i] = static_cast<unsigned char>(i);
  p = static_cast<unsigned char *>(tvx_fd_realloc(p, 1024));  // framed to large
  ASSERT_TRUE(mem_is_large(p));
  for (int i = 0; i < 100; i++) ASSERT_EQ(p[i], i);
  for (int i = 100; i < 1024; i++) ASSERT_EQ(p[i], 0);
  memset(p + 100, 7, 924);
  p = static_cast<unsigned char *>(tvx_fd_realloc(p, 5000));  // large to large
  ASSERT_EQ(p[1023], 7);
  p = static_cast<unsigned char *>(tvx_fd_realloc(p, 50));  // large to framed
  ASSERT_FALSE(mem_is_large(p));
  for (int i = 0; i < 50; i++) ASSERT_EQ(p[i], i);
  tvx_fd_free(p);
}

// Blocks cross threads both ways, and threads that end leave their caches to
// the next ones; the counts come out even.
TEST_F(FrontDoor, LargeBlocksCrossThreads) {
  task_mem_cookie *c = task_mem_cookie_get("large_threads");
  std::vector<void *> made(64);
  for (int round = 0; round < 4; round++) {
    std::thread t([&] {
      for (auto &p : made) p = task_cookie_malloc(c, 2000);
    });
    t.join();
    for (auto &p : made) {
      ASSERT_TRUE(mem_is_large(p));
      task_cookie_free(c, p);
    }
    std::thread u([&] {
      for (auto &p : made) p = task_cookie_malloc(c, 3000);
      for (auto &p : made) task_cookie_free(c, p);
    });
    u.join();
  }
  size_t bytes, allocs;
  task_mem_cookie_get_allocated(c, &bytes, &allocs);
  EXPECT_EQ(bytes, 0u);
  EXPECT_EQ(allocs, 0u);
  task_mem_cookie_put(c);
}

TEST_F(FrontDoorDeath, LargeDoubleFreeInteriorPointerAndOverrunAreFatal) {
  EXPECT_DEATH(
      {
        void *p = tvx_fd_malloc(1024);
        tvx_fd_free(p);
        tvx_fd_free(p);
      },
      "Cookie RedZone Validation Failed");
  EXPECT_DEATH(
      {
        char *p = static_cast<char *>(tvx_fd_malloc(2048));
        tvx_fd_free(p + 16);  // inside the block's first KiB, where its head is found
      },
      "Cookie RedZone Validation Failed");
  EXPECT_DEATH(
      {
        char *p = static_cast<char *>(tvx_fd_malloc(1100));  // the 1,280-byte class: room for a red zone
        memset(p, 'x', tvx_fd_malloc_usable_size(p) + 1);
        tvx_fd_free(p);
      },
      "task_mem_fatal: free: .*Cookie RedZone Validation Failed");
}
