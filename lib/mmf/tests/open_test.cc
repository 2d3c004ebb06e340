// The open rules: new and existing files, damaged files rebuilt without
// asserting, an initialiser that died, growth cut short, a full file system.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mmf_fixture.h"
#include "platform/path.h"

namespace {

using Open = MmfTest;

// A pid that is certainly not running: a child that exited and was reaped.
pid_t dead_pid() {
  pid_t p = fork();
  if (p == 0) _exit(0);
  waitpid(p, nullptr, 0);
  return p;
}

TEST_F(Open, ExistingFileKeepsItsBlocksAcrossReopen) {
  bool created = false;
  mmf *m = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, 0, &created);
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(created);
  off_t off;
  strcpy(static_cast<char *>(mmf_alloc(m, 32, &off)), "kept");
  mmf_close(m);
  m = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, 0, &created);
  ASSERT_NE(m, nullptr);
  EXPECT_FALSE(created);
  EXPECT_STREQ(static_cast<char *>(mmf_user_ptr(m, off, 32)), "kept");
  EXPECT_EQ(+m->shared_info->init_calls, 1u);
  EXPECT_EQ(+m->shared_info->invalid_count, 0u);
  mmf_destroy(m);
  EXPECT_NE(access(real().c_str(), F_OK), 0);
}

// Processes that open a file that does not exist yet, all at once: the
// creation semaphore lets one make it, the others find it ready.
TEST_F(Open, ConcurrentFirstOpensMakeTheFileOnce) {
  constexpr int kProcs = 5;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<pid_t> kids;
  for (int k = 0; k < kProcs; k++) {
    pid_t p = fork();
    if (p == 0) {
      bool made = false;
      mmf *m = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, 0, &made);
      off_t off;
      char verdict = !m ? 'x' : !mmf_alloc(m, 100, &off) ? 'a' : made ? 'c' : 'o';
      if (write(fds[1], &verdict, 1) != 1) _exit(2);
      _exit(0);
    }
    kids.push_back(p);
  }
  close(fds[1]);
  std::string verdicts;
  char c;
  while (read(fds[0], &c, 1) == 1) verdicts += c;
  close(fds[0]);
  for (pid_t p : kids) waitpid(p, nullptr, 0);
  std::sort(verdicts.begin(), verdicts.end());
  EXPECT_EQ(verdicts, "coooo");
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->shared_info->init_calls, 1u);
  EXPECT_EQ(m->shared_info->alloc_count, uint32_t(kProcs));
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

// Each damage is found at open and the file comes back empty and valid.
TEST_F(Open, DamagedFilesAreRebuiltNotAsserted) {
  struct damage {
    const char *what;
    uint64_t at;
    uint32_t value;
    bool counted;  // counted as an invalid header
  } cases[] = {
      {"reserved word over 50", 0x00c, 51, true},
      {"reserved word equal to the magic", 0x00c, MMF_MAGIC_READY, true},
      {"version", 0x018, 3, true},
      {"header size", 0x01c, 0x600, true},
      {"first node pattern", 4096 + 8, 0xdeadbeef, false},
      {"first node length", 4096 + 16, 200, false},
      {"trailer", 65536 - 8, 0, false},
      {"no classes", 0x02c, 0, false},
      {"classes out of order", 0x048, 10, false},
      {"free-list head past the end", 0x344 + 3 * 8, 0x7fffffff, false},
      {"first node offset", 0x550, 4000, false},
  };
  for (const damage &d : cases) {
    SCOPED_TRACE(d.what);
    mmf *m = open();
    ASSERT_NE(m, nullptr);
    off_t off;
    ASSERT_NE(mmf_alloc(m, 5000, &off), nullptr);
    mmf_close(m);
    poke(d.at, &d.value, 4);
    m = open();
    ASSERT_NE(m, nullptr);
    const mmf_shared_info_t *si = m->shared_info;
    EXPECT_EQ(+si->magic, MMF_MAGIC_READY);
    EXPECT_EQ(+si->allocated_bytes, 0u);
    EXPECT_EQ(+si->invalid_count, d.counted ? 1u : 0u);
    EXPECT_EQ(+si->init_calls, 2u);
    EXPECT_EQ(walk_nodes(m).size(), 1u);
    EXPECT_TRUE(mmf_valid(m, false));
    mmf_destroy(m);
  }
}

TEST_F(Open, GarbageFileIsRebuilt) {
  std::string path = real();
  ASSERT_EQ(tvx_mkdirs(path.substr(0, path.rfind('/')).c_str(), 0755), 0);
  std::vector<uint8_t> junk(3 * 4096 + 100);
  std::mt19937 rng(7);
  for (auto &b : junk) b = static_cast<uint8_t>(rng());
  memset(junk.data(), 0, 4);  // a lock word naming nobody
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
  close(fd);
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(+m->shared_info->magic, MMF_MAGIC_READY);
  EXPECT_TRUE(mmf_valid(m, false));
  off_t off;
  EXPECT_NE(mmf_alloc(m, 100, &off), nullptr);
  mmf_close(m);
}

TEST_F(Open, FileResizedBehindTheHeadersBackIsRebuiltAtItsSize) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  mmf_close(m);
  ASSERT_EQ(truncate(real().c_str(), 96 << 10), 0);
  m = open();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(+m->shared_info->current_bytes, 96u << 10);
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

// An opener sizes the file, then waits for the lock while another process
// grows it: the size it took before waiting is stale, not a sign of damage,
// and the file in use must not be rebuilt under its users.
TEST_F(Open, GrowthWhileAnOpenerWaitsForTheLockIsNoMismatch) {
  mmf_set_time_scale(1);  // this process holds the word while the child starts: never judged stuck
  for (bool single : {true, false}) {
    SCOPED_TRACE(single ? "single mapping" : "region mode");
    mmf_unlink("/mfs/var/t/heap");
    auto open_it = [&] {
      return single ? open() : mmf_create("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, false, 16 << 10, 4, 3,
                                          kSizes, 0, nullptr);
    };
    mmf *m = open_it();
    ASSERT_NE(m, nullptr);
    off_t a;
    void *p = mmf_alloc(m, 100, &a);
    ASSERT_NE(p, nullptr);
    memset(p, 0x5a, 100);
    uint32_t inits = m->shared_info->init_calls;
    mmf_lock(m);
    pid_t child = fork();
    if (child == 0) {
      mmf *c = open_it();  // blocks on the word after sizing and mapping the file
      _exit(c && mmf_valid(c, false) ? 0 : 1);
    }
    // The opener maps the file just before it asks for the lock.
    while (__atomic_load_n(&m->shared_info->last_mapper_pid, __ATOMIC_ACQUIRE) != static_cast<uint32_t>(child))
      usleep(1000);
    ASSERT_TRUE(mmf_grow(m));
    mmf_unlock(m);
    int st;
    ASSERT_EQ(waitpid(child, &st, 0), child);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    EXPECT_EQ(m->shared_info->init_calls, inits);
    uint64_t current = m->shared_info->current_bytes;  // packed: copied, not bound
    EXPECT_EQ(current, 128u << 10);
    EXPECT_TRUE(mmf_valid(m, false));
    ASSERT_TRUE(mmf_validate_user_offset(m, a, false));
    const mmf_node_header_t *n = mmf_node_validate(m, a - mmf_node_header_bytes);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->flags & MMF_FLAG_FREE, 0u);
    auto *q = static_cast<uint8_t *>(mmf_user_ptr(m, a, 100));
    EXPECT_EQ(std::count(q, q + 100, 0x5a), 100);
    mmf_close(m);
  }
}

TEST_F(Open, LockHeldByADeadProcessAtOpenIsTakenOver) {
  mmf_set_time_scale(0.001);
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  mmf_close(m);
  uint32_t pid = static_cast<uint32_t>(dead_pid());
  poke(0, &pid, 4);
  m = open();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(+m->shared_info->dead_holder_takeovers, 1u);
  EXPECT_EQ(+m->shared_info->lockerpid, 0u);
  mmf_close(m);
}

TEST_F(Open, InitialiserThatDiedIsNotWaitedFor) {
  mmf_set_time_scale(0.001);
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t off;
  ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);
  mmf_close(m);
  uint32_t magic = MMF_MAGIC_INIT, pid = static_cast<uint32_t>(dead_pid());
  poke(0x020, &magic, 4);
  poke(0x030, &pid, 4);
  m = open();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(+m->shared_info->magic, MMF_MAGIC_READY);
  EXPECT_EQ(+m->shared_info->init_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(+m->shared_info->allocated_bytes, 0u);
  mmf_close(m);
}

TEST_F(Open, GrowthCutShortIsRepairedAtValidation) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  // As if a growth had stored current_bytes and died before cutting nodes.
  m->shared_info->current_bytes = 128 << 10;
  EXPECT_TRUE(mmf_valid(m, false));
  EXPECT_EQ(+m->shared_info->current_bytes, 64u << 10);
  mmf_close(m);
}

TEST_F(Open, EmptyFileTakesTheNewCallersClasses) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  mmf_close(m);
  const uint32_t sizes[] = {100, 200};
  m = mmf_create("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, true, 0, 1, 2, sizes, 0, nullptr);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(+m->shared_info->num_alloc_sizes, 3);
  EXPECT_EQ(+m->shared_info->alloc_sizes[0], 152u);
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

TEST_F(Open, UnreachableFolderFailsTheOpen) {
  ASSERT_EQ(tvx_mkdirs((root_ + "/mfs/var").c_str(), 0755), 0);
  int fd = ::open((root_ + "/mfs/var/t").c_str(), O_CREAT | O_WRONLY, 0600);  // a file where the folder goes
  close(fd);
  EXPECT_EQ(open(), nullptr);
  EXPECT_EQ(mmf_open_errno, ENOTDIR);
}

TEST_F(Open, ReadOnlyHandleReadsAndLocksButCannotWriteData) {
  mmf *w = open();
  ASSERT_NE(w, nullptr);
  off_t off;
  strcpy(static_cast<char *>(mmf_alloc(w, 16, &off)), "data");
  mmf *r = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, MMF_FLAG_READ_ONLY);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(static_cast<char *>(mmf_user_ptr(r, off, 16)), "data");
  mmf_lock(r);
  mmf_unlock(r);
  EXPECT_DEATH(static_cast<char *>(mmf_user_ptr(r, off, 16))[0] = 'x', "");
  mmf_close(r);
  mmf_close(w);
}

// A file system that fills up gives a failed allocation, never SIGBUS. Needs
// a mount namespace of its own (root); elsewhere it skips.
TEST_F(Open, FullFileSystemFailsAllocationWithoutSigbus) {
  pid_t p = fork();
  ASSERT_GE(p, 0);
  if (p == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    std::string dir = root_ + "/mfs";
    if (tvx_mkdirs(dir.c_str(), 0755) != 0) _exit(3);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=192k") != 0) _exit(77);
    mmf *m = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10);
    if (!m) _exit(4);
    off_t off;
    int n = 0;
    while (mmf_alloc(m, 2000, &off)) memset(mmf_user_ptr(m, off, 2000), ++n, 2000);
    // The last growth failed; what is there still validates and is intact.
    if (m->shared_info->current_bytes >= (256u << 10)) _exit(5);
    if (!mmf_valid(m, false)) _exit(6);
    _exit(n > 40 ? 0 : 7);
  }
  int st = 0;
  ASSERT_EQ(waitpid(p, &st, 0), p);
  ASSERT_FALSE(WIFSIGNALED(st)) << "killed by " << sigabbrev_np(WTERMSIG(st));
  if (WEXITSTATUS(st) == 77) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(WEXITSTATUS(st), 0);
}

}  // namespace
