// The slip detector: its limits, its signal, the dumping child and back-off,
// driven by calling the handler's work directly instead of waiting seconds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include "task/slip.h"
#include "task/task.h"

namespace {

class Slip : public ::testing::Test {
 protected:
  void SetUp() override {
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);  // the dumping children leave no files here
    task_slip_detector_config(4, 5, TASK_SLIP_TIMER_REAL, true, true);
  }
  void TearDown() override { task_slip_detector_stop(); }
  static const task_slip_detector &st() { return *task_slip_detector_state(); }
  static long armed_seconds() {
    itimerval v;
    getitimer(ITIMER_REAL, &v);
    return v.it_value.tv_sec + (v.it_value.tv_usec > 0);
  }
  // The last dump's child must have died of SIGABRT.
  static void expect_aborted_child() {
    int status = 0;
    ASSERT_EQ(waitpid(st().sd_last_child, &status, 0), st().sd_last_child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
  }
};

TEST_F(Slip, ConfigurationIsLimited) {
  task_slip_detector_config(0, 2, 7, false, false);
  EXPECT_EQ(st().sd_max_dumps, 1u);
  EXPECT_EQ(st().sd_config_timeout, 4u);
  EXPECT_EQ(st().sd_which, TASK_SLIP_TIMER_REAL);
  task_slip_detector_config(50, 100, TASK_SLIP_TIMER_VIRTUAL, true, true);
  EXPECT_EQ(st().sd_max_dumps, 10u);
  EXPECT_EQ(st().sd_config_timeout, 60u);
  EXPECT_EQ(st().sd_which, TASK_SLIP_TIMER_VIRTUAL);
}

TEST_F(Slip, StartInstallsAnUnblockedHandlerAndArmsTheTimer) {
  sigset_t block;
  sigemptyset(&block);
  sigaddset(&block, SIGALRM);
  sigprocmask(SIG_BLOCK, &block, nullptr);
  task_slip_detector_start();
  struct sigaction now;
  sigaction(SIGALRM, nullptr, &now);
  EXPECT_NE(now.sa_handler, SIG_DFL);
  EXPECT_TRUE(sigismember(&now.sa_mask, SIGABRT));
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGALRM)) << "a stuck pass must be interruptible";
  EXPECT_EQ(armed_seconds(), 5);
  task_slip_detector_disarm();
  EXPECT_EQ(armed_seconds(), 0);
  task_slip_detector_stop();
  sigaction(SIGALRM, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL) << "the previous action is back";
}

TEST_F(Slip, EachFiringDumpsFromAChildAndBacksOffUntilTheLast) {
  task_slip_detector_config(3, 5, TASK_SLIP_TIMER_REAL, true, true);
  task_slip_detector_start();
  task_slip_detector_fire();
  expect_aborted_child();
  EXPECT_EQ(st().sd_dumps, 1u);
  EXPECT_EQ(armed_seconds(), 10) << "back-off doubles the timeout";
  task_slip_detector_fire();
  expect_aborted_child();
  EXPECT_EQ(armed_seconds(), 20);
  EXPECT_EQ(st().sd_largest_timeout, 10u);
  task_slip_detector_arm();  // the pass came back
  EXPECT_EQ(armed_seconds(), 5);
  task_slip_detector_fire();
  expect_aborted_child();
  EXPECT_EQ(st().sd_dumps, 3u);
  EXPECT_FALSE(st().sd_armed) << "the last dump disarms";
  pid_t last = st().sd_last_child;
  task_slip_detector_fire();
  EXPECT_EQ(st().sd_last_child, last) << "no more dumps once disarmed";
}

TEST_F(Slip, NoDumpWhileTheConfigurationIsRead) {
  task_slip_detector_start();
  uint32_t saved = task_state;
  task_state |= TASKS_PARSECONFIG;
  task_slip_detector_fire();
  EXPECT_EQ(st().sd_dumps, 0u);
  task_state = saved;
  task_slip_detector_config(4, 5, TASK_SLIP_TIMER_REAL, true, false);
  task_state |= TASKS_RECONFIG;
  task_slip_detector_fire();
  expect_aborted_child();
  EXPECT_EQ(st().sd_dumps, 1u) << "unless told to dump then too";
  task_state = saved;
}

TEST_F(Slip, ASlipSignalDuringAStuckPassTakesADump) {
  task_slip_detector_config(1, 4, TASK_SLIP_TIMER_REAL, false, true);
  task_slip_detector_start();
  // Stand in for a stuck pass: the real signal, raised at once.
  raise(SIGALRM);
  expect_aborted_child();
  EXPECT_EQ(st().sd_dumps, 1u);
}

}  // namespace
