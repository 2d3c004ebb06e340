// Every named crash point is reached by ordinary work, kills the process
// there, and leaves a file that the survivor takes the lock of and a reopen
// validates (or, where the point lies in a rebuild or before a growth is
// recorded, rebuilds).
#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

#include "mmf/crashpoint.h"
#include "mmf_fixture.h"

namespace {

using Crashpoint = MmfTest;

// Passes every point of the library: a new file (rebuild), allocations with
// splits, frees with merges, growth, and the lock taken from a dead holder.
void workload(MmfTest *t) {
  mmf *m = mmf_create("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, true, 0, 1, 3, MmfTest::kSizes, 0, nullptr);
  if (!m) _exit(3);
  off_t a, b, c;
  if (!mmf_alloc(m, 100, &a) || !mmf_alloc(m, 100, &b) || !mmf_alloc(m, 100, &c)) _exit(4);
  mmf_free_offset(m, a);
  mmf_free_offset(m, b);  // merges with a
  for (int i = 0; i < 80; i++) {  // past the default size: a growth
    off_t x;
    if (!mmf_alloc(m, 1000, &x)) _exit(5);
  }
  pid_t holder = fork();
  if (holder == 0) {
    mmf_lock(m);
    _exit(0);  // dies holding the word
  }
  waitpid(holder, nullptr, 0);
  mmf_lock(m);
  mmf_unlock(m);
  (void)t;
  _exit(0);
}

int run_child(MmfTest *t, const char *arming) {
  pid_t p = fork();
  if (p == 0) {
    tvx_crashpoint_set(arming);
    workload(t);
  }
  int st;
  waitpid(p, &st, 0);
  return st;
}

TEST_F(Crashpoint, WorkloadRunsToItsEndUnarmed) {
  int st = run_child(this, nullptr);
  ASSERT_TRUE(WIFEXITED(st));
  EXPECT_EQ(WEXITSTATUS(st), 0);
}

TEST_F(Crashpoint, EveryPointKillsAndLeavesARecoverableFile) {
  if (!tvx_crashpoints_built()) GTEST_SKIP() << "crash points are compiled out";
  // Points after which a reopen must rebuild: a growth the header does not
  // know of yet makes the file's size disagree with it, and a rebuild cut
  // short leaves the initialising mark (or a header not yet of the format).
  const std::set<std::string> rebuilds = {"mmf_grow_extended", "mmf_grow_written", "mmf_init_marked",
                                          "mmf_init_built"};
  for (size_t i = 0; i < mmf_crashpoint_count; i++) {
    std::string name = mmf_crashpoints[i];
    // The lock's points on a later pass, once the file is made and in use.
    std::string arming = name + (name == "mmf_lock_taken" || name == "mmf_unlock_release" ? ":12" : ":1");
    SCOPED_TRACE(arming);
    mmf_unlink("/mfs/var/t/heap");
    int st = run_child(this, arming.c_str());
    ASSERT_TRUE(WIFSIGNALED(st)) << "not reached: exit " << WEXITSTATUS(st);
    EXPECT_EQ(WTERMSIG(st), SIGKILL);

    mmf *seen = mmf_open_existing("/mfs/var/t/heap");
    const bool had_format = seen != nullptr;
    bool walkable = false;
    uint32_t inits = 0;
    uint64_t allocated = 0;
    if (seen) {
      walkable = mmf_valid(seen, false) && seen->shared_info->magic == MMF_MAGIC_READY;
      inits = seen->shared_info->init_calls;
      allocated = seen->shared_info->allocated_bytes;
      mmf_close(seen);
    } else {
      EXPECT_EQ(rebuilds.count(name), 1u);
    }

    mmf *m = open();  // takes the word over from the dead writer if it held it
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(mmf_valid(m, false));
    bool rebuilt = !had_format || m->shared_info->init_calls != inits;
    EXPECT_EQ(rebuilt, rebuilds.count(name) == 1);
    if (!rebuilt) {
      EXPECT_TRUE(walkable);
      uint64_t now_allocated = m->shared_info->allocated_bytes;  // packed: copied, not bound
      EXPECT_EQ(now_allocated, allocated);
    }
    // The heap works on: what the dead writer left does not hand out a node twice.
    std::set<off_t> live;
    for (int k = 0; k < 100; k++) {
      off_t o;
      ASSERT_NE(mmf_alloc(m, 200, &o), nullptr);
      EXPECT_TRUE(live.insert(o).second);
    }
    for (off_t o : live) mmf_free_offset(m, o);
    EXPECT_TRUE(mmf_valid(m, false));
    EXPECT_EQ(m->shared_info->lockerpid, 0u);
    mmf_close(m);
  }
}

}  // namespace

namespace {

mmf *reentered;
int reentries;

// What a signal handler that locks the file does, run at the exact moment a
// release has cleared its thread but not yet swapped the word.
void lock_from_handler(const char *) {
  mmf_lock(reentered);
  reentries++;
  mmf_unlock(reentered);
}

// A thread interrupted inside its own release and locking again knows the
// word for its own instead of waiting on itself; the release it was in then
// finds the word already free and counts a miss.
TEST_F(Crashpoint, LockInsideOwnReleaseIsGranted) {
  if (!tvx_crashpoints_built()) GTEST_SKIP() << "crash points are compiled out";
  reentered = open();
  ASSERT_NE(reentered, nullptr);
  mmf_shared_info_t *si = reentered->shared_info;
  uint32_t hits = si->unlock_in_progress_hits, misses = si->release_misses;
  // In a child: a thread that waited on itself would reach the stuck limit,
  // and a holder judged stuck that is the waiter itself ends with status 0.
  pid_t child = fork();
  if (child == 0) {
    tvx_crashpoint_set_hook(lock_from_handler);
    tvx_crashpoint_set("mmf_unlock_release:2");
    mmf_lock(reentered);
    mmf_unlock(reentered);  // pass 1
    mmf_lock(reentered);
    mmf_lock(reentered);    // recursion: only the outer unlock releases
    mmf_unlock(reentered);
    mmf_unlock(reentered);  // pass 2: the handler locks inside it
    tvx_crashpoint_set(nullptr);
    _exit(reentries == 1 && reentered->locker_cnt == 0 ? 42 : 1);
  }
  int st;
  ASSERT_EQ(waitpid(child, &st, 0), child);
  ASSERT_TRUE(WIFEXITED(st));
  EXPECT_EQ(WEXITSTATUS(st), 42);
  EXPECT_EQ(si->unlock_in_progress_hits, hits + 1);
  EXPECT_EQ(si->release_misses, misses + 1);
  EXPECT_EQ(si->lockerpid, 0u);
  // And the lock works on as before, from this thread and another.
  mmf_lock(reentered);
  std::thread t([] {
    mmf_lock(reentered);
    mmf_unlock(reentered);
  });
  mmf_unlock(reentered);
  t.join();
  EXPECT_EQ(si->lockerpid, 0u);
  mmf_close(reentered);
}

}  // namespace
