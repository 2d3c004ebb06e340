// The allocator's profiler switch: the state it leaves and the files it writes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "../src/jem.h"
#include "mem/leak.h"
#include "mem/mem.h"
#include "platform/path.h"

namespace fs = std::filesystem;

namespace {

bool prof_active() {
  bool on = false;
  size_t len = sizeof on;
  EXPECT_EQ(jem_mallctl("prof.active", &on, &len, nullptr, 0), 0);
  return on;
}

size_t lg_sample() {
  size_t lg = 0;
  size_t len = sizeof lg;
  EXPECT_EQ(jem_mallctl("prof.lg_sample", &lg, &len, nullptr, 0), 0);
  return lg;
}

size_t heaps_here() {
  size_t n = 0;
  for (auto &e : fs::directory_iterator(fs::current_path())) n += e.path().extension() == ".heap";
  return n;
}

class ProfSwitch : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(task_memory_init(nullptr), 0);
    char tmpl[] = "/tmp/mem_prof_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    fs::create_directories(root_ / "var/log");
    tvx_path_set_root(root_.c_str());
  }
  void TearDown() override {
    tvx_path_set_root(nullptr);
    fs::remove_all(root_);
  }
  fs::path profile(unsigned n) {
    return root_ / "var/log" /
           ("heap_profile_" + std::string(program_invocation_short_name) + "_default." + std::to_string(getpid()) +
            "." + std::to_string(n) + ".heap");
  }
  fs::path root_;
};

}  // namespace

TEST_F(ProfSwitch, EnableDumpDisable) {
  ASSERT_FALSE(prof_active());  // as the allocator starts
  size_t here = heaps_here();
  EXPECT_EQ(task_mem_leak_detection_jemalloc(TASK_MEM_PROF_ENABLE), 0);
  EXPECT_TRUE(prof_active());
  EXPECT_EQ(lg_sample(), 0u);
  EXPECT_TRUE(fs::exists(profile(0)));
  // Every allocation is sampled now; a dump shows them.
  void *keep = task_cookie_malloc(task_mem_anonymous_cookie, 100000);
  EXPECT_EQ(task_mem_leak_detection_jemalloc(TASK_MEM_PROF_DUMP), 0);
  EXPECT_GT(fs::file_size(profile(1)), 0u);
  EXPECT_EQ(task_mem_leak_detection_jemalloc(TASK_MEM_PROF_DISABLE), 0);
  EXPECT_FALSE(prof_active());
  EXPECT_EQ(lg_sample(), 19u);
  EXPECT_TRUE(fs::exists(profile(2)));  // the dump comes first
  task_cookie_free(task_mem_anonymous_cookie, keep);
  EXPECT_EQ(heaps_here(), here);  // nothing lands in the current directory
}

TEST_F(ProfSwitch, UnknownOperationIsFatal) {
  EXPECT_DEATH(task_mem_leak_detection_jemalloc(3), "task_mem_leak_detection_jemalloc");
}

TEST_F(ProfSwitch, AFailingCallIsFatal) {
  fs::remove_all(root_ / "var/log");  // the dump has nowhere to go
  EXPECT_DEATH(task_mem_leak_detection_jemalloc(TASK_MEM_PROF_DUMP), "rc == 0");
}
