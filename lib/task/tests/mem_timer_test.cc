// The memory-high check as a daemon's start sets it up: a timer runs it, with
// the threshold the application gave (app_mem_high_percent, 0 for 80 %).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "evlog/evlog.h"
#include "mem/leak.h"
#include "mem/mem.h"
#include "platform/path.h"
#include "task/lifecycle.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

namespace {

task_utime fake_now{5000, 0};
uint64_t fake_pages;
task_mem_vector fake;
int fake_status(task_mem_status *st) {
  *st = task_mem_status{};
  st->tms_pages = fake_pages;
  return 0;
}

class MemTimer : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/task_memtimer_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root_ = dir;
    tvx_path_set_root(dir);
    setenv("TVX_SYSCTL_HW_512BMEM", "8192", 1);  // 4 MiB of memory: 1024 pages of 4 KiB
  }
  void TearDown() override { std::system(("rm -rf " + root_).c_str()); }

  void start(uint32_t percent) {
    app_ = {};
    app_.app_allow_nonroot = 1;
    app_.app_mem_high_percent = percent;
    task_set_time_hook([](task_utime *now) { *now = fake_now; });
    char *argv[] = {const_cast<char *>("memd"), const_cast<char *>("-N"), nullptr};
    task_daemon_init(&app_, 2, argv);
    fake = *task_mem_vector_get(task_mem_vector_index());
    fake.tmv_status = fake_status;
    task_mem_vector_set(&fake, task_mem_vector_index());
    ASSERT_EQ(task_mem_call_vector_select(), 0);
  }
  // What the timers of the next `seconds` log, run as the scheduler would.
  std::vector<std::string> run_for(uint32_t seconds, uint64_t pages) {
    fake_pages = pages;
    evlog_capture &cap = evlog_capture_start();
    task_timer_var *tv = task_var_timers();
    for (uint32_t s = 0; s < seconds; s++) {
      fake_now.ut_sec++;
      task_time_update();
      for (task_timer *root : {&tv->timer_high_root, &tv->timer_normal_root, &tv->timer_low_root})
        task_timer_dispatch(root, root == &tv->timer_high_root, 100);
    }
    std::vector<std::string> texts;
    for (auto &r : cap.records)
      if (r.tag == "ZTASK_OS_MEMHIGH") texts.push_back(r.text);
    evlog_capture_stop();
    return texts;
  }

  std::string root_;
  task_app_ctx_t app_;
};

TEST_F(MemTimer, ATimerRunsTheCheckAtEightyPercentByDefault) {
  start(0);
  EXPECT_EQ(task_mem_info_get()->task_mem_high_percent, 80u);
  EXPECT_TRUE(run_for(120, 800).empty());  // 78 %
  std::vector<std::string> r = run_for(120, 830);
  ASSERT_EQ(r.size(), 1u) << "the check runs by itself, once a rise is seen";
  EXPECT_EQ(r[0], "ZTASK_OS_MEMHIGH: Using 3320 KB of memory, 81 percent of available");
}

TEST_F(MemTimer, TheApplicationsThresholdHolds) {
  start(65);
  EXPECT_EQ(task_mem_info_get()->task_mem_high_percent, 65u);
  EXPECT_TRUE(run_for(120, 640).empty());  // 62 %
  EXPECT_EQ(run_for(120, 680).size(), 1u);  // 66 %
}

}  // namespace
