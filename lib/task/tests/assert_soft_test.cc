// Soft assertions: the count and its line, hard when the mode is off, and
// the rate-limited live core (an aborting child of a "gcore" task, or the
// core helper for the process form) under a temporary root.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "fixture.h"
#include "platform/path.h"
#include "task/io.h"

namespace tt {
namespace {

class Soft : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    cap = &evlog_capture_start();
    char dir[] = "/tmp/soft_test_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    tvx_path_set_root(dir);
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);  // the aborting children leave no files
  }
  void TearDown() override {
    evlog_capture_stop();
    std::string cmd = "rm -rf " + root;
    EXPECT_EQ(system(cmd.c_str()), 0);
  }
  void make_dir(const std::string &logical) { ASSERT_EQ(tvx_mkdirs((root + logical).c_str(), 0755), 0); }
  // The live "gcore" task of a child, or null.
  static task *gcore_of(pid_t pid) {
    task *head = task_get_head();
    for (task *tp = head->task_forw; tp != head; tp = tp->task_forw)
      if (!(tp->task_flags & TASK_FLAG_DELETE) && tp->task_pid == pid && strcmp(tp->task_name_base, "gcore") == 0)
        return tp;
    return nullptr;
  }
  std::string expected(unsigned index, int line, const char *file, const char *expr) const {
    return "ZTASK_ASSERT_SOFT: Soft assertion failed " + std::string(task_daemon_name()) + "[" +
           std::to_string(getpid()) + "], Index " + std::to_string(index) + "(mod 256): file \"" + file +
           "\", line " + std::to_string(line) + ": \"" + expr + "\", daemon continued running";
  }
  evlog_capture *cap = nullptr;
  std::string root;
};

TEST_F(Soft, CountedAndLoggedWithTheIndexModulo256) {
  int x = 1;
  EXPECT_TRUE(task_assert_soft(x == 1));
  EXPECT_TRUE(cap->records.empty());
  EXPECT_EQ(task_assert_soft_count(), 0u);
  int line = __LINE__ + 1;
  EXPECT_FALSE(task_assert_soft(x == 2));
  ASSERT_EQ(cap->records.size(), 1u);
  EXPECT_EQ(cap->records[0].tag, "ZTASK_ASSERT_SOFT");
  EXPECT_EQ(cap->records[0].priority, LOG_ERR);
  EXPECT_EQ(cap->records[0].text, expected(1, line, "assert_soft_test.cc", "x == 2"));
  line = __LINE__ + 1;
  for (int i = 0; i < 256; i++) task_assert_soft_process(x > 1);
  EXPECT_EQ(task_assert_soft_count(), 257u);
  EXPECT_EQ(cap->records[255].text, expected(0, line, "assert_soft_test.cc", "x > 1"));
  EXPECT_EQ(cap->records[256].text, expected(1, line, "assert_soft_test.cc", "x > 1"));
  EXPECT_EQ(task_assert_soft_last_core(), 0) << "cores are off in this fixture";
}

TEST_F(Soft, HardWhenSoftModeIsOff) {
  EXPECT_TRUE(task_assert_soft_mode());
  EXPECT_DEATH(
      {
        task_assert_soft_mode_set(false);
        task_assert_soft(1 + 1 == 3);
      },
      "ZTASK_ASSERT: Assertion failed .*file \"assert_soft_test.cc\", line [0-9]+: \"1 \\+ 1 == 3\"");
  EXPECT_DEATH(
      {
        task_assert_soft_mode_set(false);
        task_assert_soft_process(!"process");
      },
      "ZTASK_ASSERT: Assertion failed");
}

void never(task *, void *) {}

TEST_F(Soft, IoHookWithoutItsPointersAssertsSoftly) {
  EXPECT_EQ(task_io_hook_add(0, keeper, nullptr, nullptr, "x"), nullptr);
  EXPECT_EQ(task_io_hook_add(0, nullptr, nullptr, never, "x"), nullptr);
  EXPECT_EQ(task_io_hook_add(0, keeper, nullptr, never, nullptr), nullptr);
  EXPECT_EQ(task_assert_soft_count(), 3u);
  ASSERT_EQ(cap->records.size(), 3u);
  EXPECT_NE(cap->records[0].text.find("file \"hooks.cc\""), std::string::npos);
  EXPECT_NE(cap->records[0].text.find("\"tp && callback && name\""), std::string::npos);
  EXPECT_EQ(keeper->task_hooks, nullptr);
  EXPECT_DEATH(
      {
        task_assert_soft_mode_set(false);
        task_io_hook_add(0, keeper, nullptr, nullptr, "x");
      },
      "ZTASK_ASSERT: .*tp && callback && name");
}

// How a child ended, without reaping it.
siginfo_t ended(pid_t pid) {
  siginfo_t si{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOWAIT), 0);
  return si;
}
bool aborted(const siginfo_t &si) {
  return (si.si_code == CLD_KILLED || si.si_code == CLD_DUMPED) && si.si_status == SIGABRT;
}

TEST_F(Soft, LiveCoreOncePerPeriodFromAGcoreTaskThatSigchldReaps) {
  task_assert_soft_cores_disable(false);
  task_assert_soft(false);  // the root has no run directory yet
  int status = 0;
  pid_t lost = task_assert_soft_last_core();
  ASSERT_EQ(waitpid(lost, &status, 0), lost);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 134) << "no core where the child stands";
  make_dir("/var/run");
  advance(TASK_ASSERT_SOFT_CORE_PERIOD);
  task_assert_soft(false);
  pid_t first = task_assert_soft_last_core();
  ASSERT_GT(first, 0);
  task *g = gcore_of(first);
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->task_priority, 10);
  EXPECT_TRUE(aborted(ended(first))) << "the child aborts in the run directory";
  advance(double{TASK_ASSERT_SOFT_CORE_PERIOD} - 0.5);
  task_assert_soft(false);
  EXPECT_EQ(task_assert_soft_last_core(), first) << "one core per period";
  EXPECT_EQ(task_assert_soft_count(), 3u);
  // SIGCHLD reaps the child, and its task goes with it.
  script.push_back({task_kevent{SIGCHLD, TASK_EVFILT_SIGNAL, 0, 0, 1, nullptr}});
  passes(1);
  EXPECT_EQ(gcore_of(first), nullptr);
  errno = 0;
  EXPECT_EQ(waitpid(first, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  advance(0.5);
  task_assert_soft(false);
  pid_t second = task_assert_soft_last_core();
  EXPECT_NE(second, first);
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

TEST_F(Soft, ProcessFormRunsTheCoreHelperWhenThereIsOne) {
  make_dir("/var/run");
  make_dir("/usr/sbin");
  std::string helper = root + "/usr/sbin/getcore";
  {
    std::ofstream f(helper);
    f << "#!/bin/sh\necho \"$@\" > \"$0.args\"\n";
  }
  ASSERT_EQ(chmod(helper.c_str(), 0755), 0);
  task_assert_soft_cores_disable(false);
  task_assert_soft_process(false);
  int status = 0;
  pid_t child = task_assert_soft_last_core();
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::ifstream args(helper + ".args");
  std::stringstream got;
  got << args.rdbuf();
  EXPECT_EQ(got.str(), root + "/var/tmp/" + task_daemon_name() + ".live.core " +
                           std::to_string(getpid()) + "\n");
  // The plain form never runs it; nor does the process form once it is gone.
  ASSERT_EQ(unlink((helper + ".args").c_str()), 0);
  advance(TASK_ASSERT_SOFT_CORE_PERIOD);
  task_assert_soft(false);
  child = task_assert_soft_last_core();
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
  EXPECT_NE(access((helper + ".args").c_str(), F_OK), 0);
  ASSERT_EQ(unlink(helper.c_str()), 0);
  advance(TASK_ASSERT_SOFT_CORE_PERIOD);
  task_assert_soft_process(false);
  child = task_assert_soft_last_core();
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

}  // namespace
}  // namespace tt
