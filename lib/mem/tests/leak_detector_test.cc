// The leak detector on the real allocation path: its window, its trees, its
// dump file and its shutdown.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "../src/internal.h"
#include "evlog/evlog.h"
#include "mem/leak.h"
#include "platform/path.h"

namespace fs = std::filesystem;

namespace {

task_mem_cookie *cookie;

__attribute__((noinline)) void *from_a() {
  void *p = task_cookie_malloc(cookie, 40);
  asm volatile("" ::: "memory");
  return p;
}
__attribute__((noinline)) void *from_b() {
  void *p = task_cookie_malloc(cookie, 40);
  asm volatile("" ::: "memory");
  return p;
}

// n allocations from one call site: a trip count the compiler cannot see keeps
// the loop from being unrolled into several sites.
__attribute__((noinline)) void take(void *(*fn)(), void **out, int n) {
  volatile int count = n;
  for (int i = 0; i < count; i++) out[i] = fn();
}

// The detector's stacks, read without allocating: in a normal build every
// allocation of the test itself would be sampled too.
struct stack_list {
  struct entry {
    const char *text;
    int count;
  } e[8];
  size_t n = 0;
};
stack_list stacks() {
  stack_list l;
  const task_leak_detector *ld = task_leak_detector_state();
  for (patricia_node *n = patricia_find_next(&ld->ld_bt, nullptr); n && l.n < 8; n = patricia_find_next(&ld->ld_bt, n)) {
    auto *b = PATRICIA_ENTRY(n, task_leak_detector_bt, ldb_node);
    l.e[l.n++] = {b->ldb_text, b->ldb_count};
  }
  return l;
}

std::vector<std::string> lines_of(const fs::path &p) {
  std::ifstream in(p);
  std::vector<std::string> v;
  for (std::string l; std::getline(in, l);) v.push_back(l);
  return v;
}

class LeakDetector : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(task_memory_init(nullptr), 0);
    cookie = task_mem_cookie_get("leak-test");
    char tmpl[] = "/tmp/mem_leak_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    fs::create_directories(root_ / "var/log");
    tvx_path_set_root(root_.c_str());
  }
  void TearDown() override {
    task_leak_detector_fini();
    tvx_path_set_root(nullptr);
    fs::remove_all(root_);
  }
  std::vector<fs::path> dumps() {
    std::vector<fs::path> v;
    for (auto &e : fs::directory_iterator(root_ / "var/log"))
      if (e.path().filename().string().rfind("leak_detector_", 0) == 0) v.push_back(e.path());
    return v;
  }
  fs::path root_;
};

}  // namespace

TEST_F(LeakDetector, SamplesInsideTheWindowAndForgetsFreedMemory) {
  void *before = task_cookie_malloc(cookie, 8);
  void *a[3], *b[2];
  task_leak_detector_init(2, 1000, true);
  void *early[2] = {task_cookie_malloc(cookie, 8), task_cookie_malloc(cookie, 8)};  // 0 and 1: before the window
  const task_leak_detector *ld = task_leak_detector_state();
  EXPECT_EQ(ld->ld_count, 2u);
  EXPECT_EQ(ld->ld_info.patricia_count, 0u);
  take(from_a, a, 3);
  take(from_b, b, 2);
  EXPECT_EQ(ld->ld_count, 7u);  // its own nodes are not counted
  EXPECT_EQ(ld->ld_info.patricia_count, 5u);
  stack_list s = stacks();
  ASSERT_EQ(s.n, 2u);
  EXPECT_EQ(s.e[0].count + s.e[1].count, 5);
  EXPECT_TRUE(s.e[0].count == 2 || s.e[0].count == 3);
  for (size_t i = 0; i < s.n; i++) {
    EXPECT_EQ(strncmp(s.e[i].text, "^0x", 3), 0) << s.e[i].text;
    EXPECT_EQ(s.e[i].text[strlen(s.e[i].text) - 1], ' ');
  }

  task_cookie_free(cookie, before);  // never seen: ignored
  for (void *p : early) task_cookie_free(cookie, p);
  task_cookie_free(cookie, a[0]);
  for (void *p : b) task_cookie_free(cookie, p);  // its stack goes
  s = stacks();
  ASSERT_EQ(s.n, 1u);
  EXPECT_EQ(s.e[0].count, 2);
  EXPECT_EQ(ld->ld_info.patricia_count, 2u);

  ASSERT_EQ(task_leak_detector_dump_traces(), 0);
  std::vector<fs::path> files = dumps();
  ASSERT_EQ(files.size(), 1u);
  std::vector<std::string> lines = lines_of(files[0]);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], std::string("2: ") + s.e[0].text);
  task_cookie_free(cookie, a[1]);
  task_cookie_free(cookie, a[2]);
}

TEST_F(LeakDetector, TheEndOfTheWindowStopsAndWritesOneFile) {
  setenv("ZLSYSNAME", "lsys7", 1);
  void *p[5];
  uint32_t dump = task_leak_detector_state()->ld_dump_count;
  task_leak_detector_init(0, 3, true);
  take(from_a, p, 5);  // the fourth allocation ends the window
  const task_leak_detector *ld = task_leak_detector_state();
  EXPECT_FALSE(ld->ld_enabled);
  EXPECT_EQ(mem_leak.load(), nullptr);
  EXPECT_EQ(ld->ld_count, 4u);
  std::vector<fs::path> files = dumps();
  ASSERT_EQ(files.size(), 1u);
  char want[256];
  snprintf(want, sizeof want, "leak_detector_%s_lsys7.%d.%u.4", program_invocation_short_name,
           static_cast<int>(getpid()), dump);
  EXPECT_EQ(files[0].filename(), want);
  std::vector<std::string> lines = lines_of(files[0]);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("3: ^0x", 0), 0u) << lines[0];
  for (void *q : p) task_cookie_free(cookie, q);
  EXPECT_EQ(stacks().e[0].count, 3);  // frozen once stopped
  unsetenv("ZLSYSNAME");
}

TEST_F(LeakDetector, ReallocMovesTheRecord) {
  task_leak_detector_init(0, 1000, true);
  void *p = from_a();
  p = task_cookie_realloc(cookie, p, 5000);
  const task_leak_detector *ld = task_leak_detector_state();
  EXPECT_EQ(ld->ld_info.patricia_count, 1u);
  EXPECT_NE(patricia_get(&ld->ld_info, 0, &p), nullptr);
  task_cookie_free(cookie, p);
  EXPECT_TRUE(patricia_isempty(&ld->ld_info));
  EXPECT_TRUE(patricia_isempty(&ld->ld_bt));
}

TEST_F(LeakDetector, FiniDropsEverythingAndAllowsANewWindow) {
  task_leak_detector_init(0, 1000, true);
  void *p = from_a();
  void *q = from_b();
  task_leak_detector_init(5, 6, true);  // once only: the first window stands
  const task_leak_detector *ld = task_leak_detector_state();
  EXPECT_EQ(ld->ld_end, 1000u);
  task_leak_detector_fini();
  EXPECT_FALSE(ld->ld_initialized);
  EXPECT_EQ(mem_leak.load(), nullptr);
  task_cookie_free(cookie, p);  // after shutdown: nothing to find, nothing breaks
  task_leak_detector_init(0, 1000, true);
  EXPECT_TRUE(patricia_isempty(&ld->ld_info));
  p = from_a();
  EXPECT_EQ(ld->ld_info.patricia_count, 1u);
  task_cookie_free(cookie, p);
  task_cookie_free(cookie, q);
}

TEST_F(LeakDetector, ADumpThatCannotOpenIsLogged) {
  task_leak_detector_init(0, 1000, true);
  fs::remove_all(root_ / "var/log");
  evlog_capture &cap = evlog_capture_start();
  EXPECT_EQ(task_leak_detector_dump_traces(), ENOENT);
  evlog_capture_stop();
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].priority, 3);
  EXPECT_EQ(cap.records[0].text.rfind("Failed to open leak detector tracefile " + (root_ / "var/log").string(), 0),
            0u);
  EXPECT_NE(cap.records[0].text.find(": No such file or directory."), std::string::npos) << cap.records[0].text;
}

TEST_F(LeakDetector, ThreadsShareTheTrees) {
  task_leak_detector_init(0, 1000000, true);
  auto work = [] {
    void *ring[16] = {};
    for (int i = 0; i < 2000; i++) {
      task_cookie_free(cookie, ring[i % 16]);
      ring[i % 16] = task_cookie_malloc(cookie, 24 + i % 100);
    }
    for (void *p : ring) task_cookie_free(cookie, p);
  };
  std::thread t1(work), t2(work);
  t1.join();
  t2.join();
  const task_leak_detector *ld = task_leak_detector_state();
  EXPECT_TRUE(ld->ld_enabled);
  EXPECT_GE(ld->ld_count, 4000u);
  // What the threads' own start-up left may remain; the trees agree with each other.
  EXPECT_TRUE(patricia_verify(&ld->ld_info));
  EXPECT_TRUE(patricia_verify(&ld->ld_bt));
  stack_list s = stacks();
  int sum = 0;
  for (size_t i = 0; i < s.n; i++) sum += s.e[i].count;
  EXPECT_LT(s.n, 8u);
  EXPECT_EQ(static_cast<size_t>(sum), ld->ld_info.patricia_count);
}
