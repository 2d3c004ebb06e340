// The lock word across threads and processes, a holder killed while holding
// it, and processes that map the file at different addresses.
#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <cstring>
#include <random>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "mmf_fixture.h"

namespace {

using Lock = MmfTest;

// Unprotected read-modify-write with a yield in the middle: loses updates
// unless the lock serialises it.
// User bytes start 4 bytes past an 8-byte boundary: 64-bit values go
// through memcpy.
int64_t ld(mmf *m, off_t off, int i = 0) {
  int64_t v;
  memcpy(&v, static_cast<char *>(mmf_user_ptr(m, off, 16)) + 8 * i, 8);
  return v;
}
void st(void *p, int i, int64_t v) { memcpy(static_cast<char *>(p) + 8 * i, &v, 8); }

void bump(mmf *m, off_t counter) {
  mmf_lock(m);
  int64_t v = ld(m, counter);
  sched_yield();
  st(mmf_user_ptr(m, counter, 8), 0, v + 1);
  mmf_unlock(m);
}

int wait_exit(pid_t p) {
  int st = 0;
  if (waitpid(p, &st, 0) != p) return -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

TEST_F(Lock, RecursiveForTheHolderAndReleasedByTheLastUnlock) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  uint32_t before = m->shared_info->recursive_lock_count;
  mmf_lock(m);
  mmf_lock(m);
  mmf_lock(m);
  EXPECT_EQ(+m->shared_info->lockerpid, static_cast<uint32_t>(getpid()));
  mmf_unlock(m);
  mmf_unlock(m);
  EXPECT_EQ(+m->shared_info->lockerpid, static_cast<uint32_t>(getpid()));
  mmf_unlock(m);
  EXPECT_EQ(+m->shared_info->lockerpid, 0u);
  EXPECT_EQ(+m->shared_info->recursive_lock_count - before, 2u);
  EXPECT_GE(+m->shared_info->deepest_recursion, 3u);
  EXPECT_DEATH(mmf_unlock(m), "locker_thread");
  mmf_close(m);
}

TEST_F(Lock, ThreadsOfOneProcessSerialise) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t counter;
  memset(mmf_alloc(m, 8, &counter), 0, 8);
  constexpr int kThreads = 4, kEach = 3000;
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; t++)
    ts.emplace_back([&] {
      for (int i = 0; i < kEach; i++) bump(m, counter);
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(ld(m, counter), int64_t(kThreads) * kEach);
  EXPECT_EQ(+m->shared_info->lockerpid, 0u);
  mmf_close(m);
}

// Threads that allocate until the file grows many times: a growth maps the
// file anew while other threads of the process wait on the lock word.
TEST_F(Lock, ThreadsWaitThroughGrowth) {
  mmf *m = open("/mfs/var/t/heap", 16 << 20, 16 << 10, 4 << 10);
  ASSERT_NE(m, nullptr);
  constexpr int kThreads = 4, kEach = 400;
  std::vector<std::thread> ts;
  std::vector<std::vector<off_t>> offs(kThreads);
  for (int t = 0; t < kThreads; t++)
    ts.emplace_back([&, t] {
      for (int i = 0; i < kEach; i++) {
        off_t off;
        void *p = mmf_alloc(m, 1000, &off);
        if (!p) return;
        memset(p, t + 1, 1000);
        offs[t].push_back(off);
      }
    });
  for (auto &t : ts) t.join();
  EXPECT_GT(m->shared_info->grow_count, 50u);
  for (int t = 0; t < kThreads; t++) {
    ASSERT_EQ(offs[t].size(), size_t(kEach));
    for (off_t off : offs[t]) {
      auto *q = static_cast<uint8_t *>(mmf_user_ptr(m, off, 1000));
      ASSERT_EQ(q[0], t + 1);
      ASSERT_EQ(q[999], t + 1);
    }
  }
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

// Processes, some with the handle inherited through fork, some with their
// own, one of them in region mode, allocate, fill, check and free blocks while bumping a shared counter.
TEST_F(Lock, ProcessesSerialiseAndTheHeapStaysWhole) {
  // Nobody dies here: the unscaled stuck limit (60 s), so that a holder the
  // scheduler leaves waiting on a loaded machine is not taken for stuck.
  mmf_set_time_scale(1);
  mmf *m = open("/mfs/var/t/heap", 4 << 20, 64 << 10, 64 << 10);
  ASSERT_NE(m, nullptr);
  off_t counter;
  memset(mmf_alloc(m, 8, &counter), 0, 8);
  constexpr int kProcs = 4, kEach = 1500;
  std::vector<pid_t> kids;
  for (int k = 0; k < kProcs; k++) {
    pid_t p = fork();
    ASSERT_GE(p, 0);
    if (p == 0) {
      // Child 3 maps by regions, so the two mapping modes share the file.
      mmf *h = k == 3   ? mmf_create("/mfs/var/t/heap", 4 << 20, 64 << 10, 64 << 10, false, 16 << 10, 3, 3,
                                     kSizes, 0, nullptr)
               : k % 2 ? open("/mfs/var/t/heap", 4 << 20, 64 << 10, 64 << 10)
                       : m;
      if (!h) _exit(2);
      std::mt19937 rng(100 + k);
      std::vector<std::pair<off_t, uint32_t>> mine;
      for (int i = 0; i < kEach; i++) {
        bump(h, counter);
        if (mine.empty() || rng() % 2) {
          uint32_t size = 8 + rng() % 600;
          off_t off;
          void *q = mmf_alloc(h, size, &off);
          if (!q) _exit(3);
          memset(q, k + 1, size);
          mine.push_back({off, size});
        } else {
          auto [off, size] = mine.back();
          mine.pop_back();
          mmf_lock(h);
          auto *q = static_cast<uint8_t *>(mmf_user_ptr(h, off, size));
          for (uint32_t j = 0; j < size; j++)
            if (q[j] != k + 1) _exit(4);
          mmf_unlock(h);
          mmf_free_offset(h, off);
        }
      }
      _exit(mmf_valid(h, false) ? 0 : 5);
    }
    kids.push_back(p);
  }
  for (pid_t p : kids) EXPECT_EQ(wait_exit(p), 0);
  EXPECT_EQ(ld(m, counter), int64_t(kProcs) * kEach);
  EXPECT_TRUE(mmf_valid(m, false));
  EXPECT_GT(+m->shared_info->lock_count, uint64_t(kProcs) * kEach);
  mmf_close(m);
}

// The child opens the file while the parent's mapping is still in its
// address space, so its mapping lies elsewhere; every offset names the same
// bytes in both.
TEST_F(Lock, TwoProcessesAtDifferentAddressesAgreeOnEveryOffset) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  std::vector<off_t> offs;
  for (int i = 0; i < 200; i++) {
    off_t off;
    void *q = mmf_alloc(m, 16 + (i % 7) * 40, &off);
    ASSERT_NE(q, nullptr);
    st(q, 0, off);
    st(q, 1, i);
    offs.push_back(off);
  }
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t p = fork();
  if (p == 0) {
    close(fds[0]);
    mmf *h = open();
    if (!h || h->shared_info == m->shared_info) _exit(2);
    for (size_t i = 0; i < offs.size(); i++) {
      if (ld(h, offs[i]) != offs[i] || ld(h, offs[i], 1) != static_cast<off_t>(i)) _exit(3);
    }
    // The child's own blocks, named to the parent by offset only; enough of
    // them to grow the file, so the parent must follow the new size.
    for (int i = 0; i < 100; i++) {
      off_t off;
      void *q = mmf_alloc(h, 1000, &off);
      if (!q) _exit(4);
      st(q, 0, off);
      st(q, 1, -i);
      if (write(fds[1], &off, sizeof off) != sizeof off) _exit(5);
    }
    _exit(0);
  }
  close(fds[1]);
  std::vector<off_t> theirs;
  off_t off;
  while (read(fds[0], &off, sizeof off) == sizeof off) theirs.push_back(off);
  close(fds[0]);
  ASSERT_EQ(wait_exit(p), 0);
  ASSERT_EQ(theirs.size(), 100u);
  EXPECT_GT(+m->shared_info->current_bytes, 64u << 10);
  for (size_t i = 0; i < theirs.size(); i++) {
    EXPECT_EQ(ld(m, theirs[i]), theirs[i]);
    EXPECT_EQ(ld(m, theirs[i], 1), -static_cast<off_t>(i));
  }
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

// A holder killed with SIGKILL while holding the word, whether or not its
// parent has reaped it yet: the waiters take the lock over and go on.
TEST_F(Lock, HolderKilledWhileHoldingIsTakenOver) {
  mmf_set_time_scale(0.01);  // the 2 s holder check every 20 ms
  for (bool reap : {false, true}) {
    SCOPED_TRACE(reap ? "reaped" : "zombie");
    mmf *m = open();
    ASSERT_NE(m, nullptr);
    off_t counter;
    memset(mmf_alloc(m, 8, &counter), 0, 8);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t holder = fork();
    if (holder == 0) {
      mmf_lock(m);
      char c = 1;
      if (write(fds[1], &c, 1) != 1) _exit(2);
      pause();
      _exit(3);
    }
    char c;
    ASSERT_EQ(read(fds[0], &c, 1), 1);
    ASSERT_EQ(+m->shared_info->lockerpid, static_cast<uint32_t>(holder));
    // Another survivor waits beside this process.
    pid_t other = fork();
    if (other == 0) {
      bump(m, counter);
      _exit(0);
    }
    kill(holder, SIGKILL);
    if (reap) {
      ASSERT_EQ(wait_exit(holder), 128 + SIGKILL);
    }
    bump(m, counter);
    EXPECT_EQ(wait_exit(other), 0);
    if (!reap) {
      EXPECT_EQ(wait_exit(holder), 128 + SIGKILL);
    }
    EXPECT_EQ(ld(m, counter), 2);
    EXPECT_EQ(+m->shared_info->dead_holder_takeovers, 1u);
    EXPECT_EQ(+m->shared_info->lockerpid, 0u);
    close(fds[0]);
    close(fds[1]);
    mmf_destroy(m);
  }
}

// A lock word naming a live process that does not map the file (damage, or
// a dead holder's pid reused) is no holder: it is taken over at the first
// holder check, and that process is neither dumped nor killed.
TEST_F(Lock, AWordNamingAProcessWithoutTheFileIsTakenOver) {
  mmf_set_time_scale(0.01);  // holder check every 20 ms, stuck limit 0.6 s
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  int unmapped[2];
  ASSERT_EQ(pipe(unmapped), 0);
  pid_t stranger = fork();
  if (stranger == 0) {
    mmf_close(m);  // lives on without the file
    if (write(unmapped[1], "u", 1) != 1) _exit(2);
    pause();
    _exit(3);
  }
  char c;
  ASSERT_EQ(read(unmapped[0], &c, 1), 1);
  close(unmapped[0]);
  close(unmapped[1]);
  m->shared_info->lockerpid = static_cast<uint32_t>(stranger);
  mmf_lock(m);
  EXPECT_EQ(+m->shared_info->lockerpid, static_cast<uint32_t>(getpid()));
  mmf_unlock(m);
  EXPECT_EQ(+m->shared_info->dead_holder_takeovers, 1u);
  EXPECT_TRUE(mmf_pid_alive(stranger));
  kill(stranger, SIGKILL);
  EXPECT_EQ(wait_exit(stranger), 128 + SIGKILL);
  mmf_destroy(m);
}

// A holder stopped with SIGSTOP keeps the word past the (scaled) limit: the
// waiter dumps both cores with gcore (a fake that records its arguments),
// kills the holder and ends itself; this process then takes the word over.
TEST_F(Lock, StuckHolderIsDumpedAndKilled) {
  mmf_set_time_scale(0.001);  // the 60 s limit becomes 60 ms
  gcore_expected_ = true;
  std::string bin = root_ + "/bin", log = root_ + "/gcore.log";
  FILE *f = fopen((bin + "/gcore").c_str(), "w");  // the fixture's fake, writing a core too
  fprintf(f, "#!/bin/sh\necho \"$@\" >> %s\nprintf core > \"$2.$3\"\n", log.c_str());
  fclose(f);

  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t counter;
  memset(mmf_alloc(m, 8, &counter), 0, 8);
  pid_t holder = fork();
  if (holder == 0) {
    mmf_lock(m);
    raise(SIGSTOP);
    _exit(3);
  }
  int st;
  ASSERT_EQ(waitpid(holder, &st, WUNTRACED), holder);
  ASSERT_TRUE(WIFSTOPPED(st));
  pid_t waiter = fork();
  if (waiter == 0) {
    bump(m, counter);
    _exit(0);
  }
  EXPECT_EQ(wait_exit(waiter), 128 + SIGABRT);
  EXPECT_EQ(wait_exit(holder), 128 + SIGKILL);
  std::string prefix = root_ + "/var/tmp/mmf_lock_holder.core";
  std::ifstream in(log);
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(all.find("-o " + prefix + " " + std::to_string(holder) + "\n"), std::string::npos) << all;
  EXPECT_NE(all.find("-o " + prefix + " " + std::to_string(waiter) + "\n"), std::string::npos) << all;
  EXPECT_EQ(access((root_ + "/var/tmp/mmf_lock_holder.pid" + std::to_string(holder) + ".lock").c_str(), F_OK), 0);
  bump(m, counter);
  EXPECT_EQ(ld(m, counter), 1);
  EXPECT_EQ(+m->shared_info->dead_holder_takeovers, 1u);
  mmf_close(m);
}

TEST_F(Lock, ProcessAliveByProc) {
  EXPECT_TRUE(mmf_pid_alive(getpid()));
  EXPECT_FALSE(mmf_pid_alive(0));
  pid_t p = fork();
  if (p == 0) _exit(0);
  // Unreaped, the child is a zombie: dead for the lock.
  for (int i = 0; i < 1000 && mmf_pid_alive(p); i++) usleep(1000);
  EXPECT_FALSE(mmf_pid_alive(p));
  waitpid(p, nullptr, 0);
  EXPECT_FALSE(mmf_pid_alive(p));
}

}  // namespace
