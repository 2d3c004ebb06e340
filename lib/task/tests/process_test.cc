// The process around the kernel: termination steps on the fake clock, the
// low-memory pass, children, the PID lock, -p and detaching.
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fixture.h"
#include "task/lifecycle.h"
#include "task/process.h"

namespace {

using tt::Kernel;

task_app_ctx_t app;
std::vector<std::string> order;

class Process : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    app = {};
    task_set_task_app_ctx(&app);
    order.clear();
    logging_set_mode(LOGGING_MODE_STDERR | LOGGING_MODE_SYSLOG);
  }
  std::vector<std::string> tags(const evlog_capture &cap) {
    std::vector<std::string> v;
    for (auto &r : cap.records) v.push_back(r.tag);
    return v;
  }
};

// ---- Termination ---------------------------------------------------------------

uint32_t remaining = 7;

TEST_F(Process, PlainDaemonEndsOnFirstSigtermAfterPreTerminate) {
  task *tp = task_alloc("worker", 10, nullptr);
  task_set_pre_terminate(tp, [](task *) { fprintf(stderr, "pre-terminate ran\n"); });
  task_create(tp);
  EXPECT_EXIT(task_signal_event(SIGTERM), ::testing::ExitedWithCode(0),
              "first termination signal received(.|\n)*pre-terminate ran(.|\n)*ZTASK_EXIT");
}

TEST_F(Process, SigtermsThatChangeNothingEndAtTheFourthRepeat) {
  app.app_needs_terminate_wait = 1;
  app.app_term_limit = 100;
  app.app_term_remaining = [] { return remaining; };
  task *tp = task_alloc("slow", 10, nullptr);
  task_set_terminate(tp, [](task *) { order.push_back("terminate"); });  // does not delete itself
  task_create(tp);
  task_signal_event(SIGTERM);
  EXPECT_TRUE(task_state & TASKS_TERMINATE);
  EXPECT_TRUE(task_state & TASKS_NORECONFIG);
  EXPECT_EQ(order.size(), 1u);
  ASSERT_NE(task_var_base(nullptr)->taskbase_term_timer, nullptr);
  remaining = 5;  // progress: the repeats start again
  task_signal_event(SIGTERM);
  task_signal_event(SIGTERM);
  task_signal_event(SIGTERM);
  task_signal_event(SIGTERM);
  EXPECT_EQ(order.size(), 5u);
  EXPECT_EXIT(task_signal_event(SIGTERM), ::testing::ExitedWithCode(0),
              "sixth termination signal received(.|\n)*Exiting with active tasks: slow\n(.|\n)*ZTASK_EXIT");
}

TEST_F(Process, TerminateGuardEndsWithActiveTasksAfter600Seconds) {
  app.app_needs_terminate_wait = 1;
  app.app_term_limit = 10;
  task *tp = task_alloc("stuck", 10, nullptr);
  task_set_terminate(tp, [](task *) {});
  task_create(tp);
  task_signal_event(SIGTERM);
  tt::advance(599);
  tt::passes(1);
  EXPECT_TRUE(task_var_base(nullptr)->taskbase_term_timer);
  tt::advance(1);
  // Status 16: the abort line and a core, with the names of what stayed.
  EXPECT_DEATH(tt::passes(1), "Exiting with active tasks: .*stuck(.|\n)*ZTASK_ABORT");
}

TEST_F(Process, TerminateLimitAndVeto) {
  app.app_needs_terminate_wait = 1;
  app.app_term_limit = 1;
  task *tp = task_alloc("t", 10, nullptr);
  task_set_terminate(tp, [](task *) {});
  task_create(tp);
  remaining = 1;
  app.app_term_remaining = [] { return remaining++; };  // always progress
  task_signal_event(SIGTERM);
  EXPECT_EXIT(task_signal_event(SIGTERM), ::testing::ExitedWithCode(0), "second termination(.|\n)*ZTASK_EXIT");
  app.app_term_veto = [] { return 1; };
  EXPECT_EXIT(task_signal_event(SIGTERM), ::testing::ExitedWithCode(0), "ZTASK_EXIT");
}

TEST_F(Process, LastTaskDeletedByTerminateEndsTheProcess) {
  app.app_needs_terminate_wait = 1;
  app.app_term_limit = 3;
  task_delete(keeper);  // the keeper's default terminate would do the same
  task *tp = task_alloc("x", 10, nullptr);
  task_create(tp);
  EXPECT_EXIT(task_signal_event(SIGTERM), ::testing::ExitedWithCode(0), "ZTASK_EXIT");
}

// ---- Low memory ---------------------------------------------------------------------

TEST_F(Process, LowMemoryPassRunsByPriorityAndStopsWhenCleared) {
  auto mk = [](const char *name, uint32_t prio, task_method m) {
    task *tp = task_alloc(name, 10, nullptr);
    task_create(tp);
    task_set_lowmem(tp, m, prio);
    return tp;
  };
  mk("c", 30, [](task *tp) { order.push_back(task_name(tp)); });
  mk("a", 10, [](task *tp) { order.push_back(task_name(tp)); });
  task *b = mk("b", 20, [](task *tp) { order.push_back(task_name(tp)); });
  task *gone = mk("gone", 15, [](task *tp) { order.push_back(task_name(tp)); });
  task_delete(gone);
  task_signal_event(SIGURG);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_FALSE(task_state & TASKS_LOWMEM);
  order.clear();
  task_set_lowmem(b, [](task *tp) {
    order.push_back(task_name(tp));
    task_newstate(0, TASKS_LOWMEM);  // enough memory again
  }, 20);
  task_lowmem_pass();
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));
}

// ---- Signals -----------------------------------------------------------------------

TEST_F(Process, UnknownSignalsAndCountedOnes) {
  evlog_capture &cap = evlog_capture_start();
  task_signal_event(SIGINT);
  task_signal_event(SIGQUIT);
  task_signal_event(40);
  evlog_capture_stop();
  EXPECT_EQ(task_signal_count(SIGINT), 1u);
  ASSERT_EQ(cap.records.size(), 2u);
  EXPECT_EQ(cap.records[0].text, "ZTASK_SIGNAL_UNKNOWN: Ignoring unknown signal SIGQUIT (3)");
  EXPECT_EQ(cap.records[0].priority, LOG_WARNING);
  EXPECT_NE(cap.records[1].text.find("(40)"), std::string::npos);
  ::testing::internal::CaptureStdout();
  task_signal_event(SIGWINCH);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Coverage analysis has not been enabled.\n");
}

int handled;
TEST_F(Process, EnableWithHandlerAndDisable) {
  task_signal_enable(SIGUSR2, [](int s) { handled = s; });
  task_signal_event(SIGUSR2);
  EXPECT_EQ(handled, SIGUSR2);
  // Disabled: taken out of the signalfd and unblocked, so its own action runs.
  signal(SIGUSR2, [](int s) { handled = -s; });
  task_signal_disable(SIGUSR2);
  sigset_t now;
  sigprocmask(SIG_BLOCK, nullptr, &now);
  EXPECT_FALSE(sigismember(&now, SIGUSR2));
  task_signal_event(SIGUSR2);  // an event read before the disable is sent again
  EXPECT_EQ(handled, -SIGUSR2);
  task_signal_block(SIGUSR2);
  sigprocmask(SIG_BLOCK, nullptr, &now);
  EXPECT_TRUE(sigismember(&now, SIGUSR2));
  task_signal_unblock(SIGUSR2);
  signal(SIGUSR2, SIG_DFL);
}

// ---- Children ------------------------------------------------------------------------

// Waits for the child to change state without reaping it, then lets SIGCHLD's action reap it.
void reap_when(pid_t pid, int what) {
  siginfo_t si{};
  ASSERT_EQ(waitid(P_PID, pid, &si, what | WNOWAIT), 0);
  task_signal_event(SIGCHLD);
}

int exit_seen;
TEST_F(Process, ForkedChildStartsWithCleanSignalsAndRunsItsMethod) {
  task_signal_ignore(SIGQUIT);
  task *tp = task_alloc("child", 10, nullptr);
  pid_t pid = task_fork(
      tp,
      [](task *) {
        // Bits of the exit status say what was wrong.
        int bad = 0;
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        if (sigismember(&mask, SIGHUP) || sigismember(&mask, SIGTERM) || sigismember(&mask, SIGCHLD)) bad |= 1;
        struct sigaction sa;
        sigaction(SIGQUIT, nullptr, &sa);
        if (sa.sa_handler != SIG_DFL) bad |= 2;
        sigaction(SIGTERM, nullptr, &sa);
        if (sa.sa_handler == SIG_DFL || sa.sa_handler == SIG_IGN) bad |= 4;
        if (!task_is_forked()) bad |= 8;
        _exit(bad ? 10 + bad : 0);
      },
      [](task *t) {
        exit_seen++;
        task_delete(t);
      });
  ASSERT_GT(pid, 0);
  EXPECT_EQ(tp->task_pid, pid);
  EXPECT_FALSE(task_is_forked());
  evlog_capture &cap = evlog_capture_start();
  reap_when(pid, WEXITED);
  evlog_capture_stop();
  EXPECT_EQ(exit_seen, 1);
  EXPECT_TRUE(cap.records.empty());  // a normal exit is only traced
}

TEST_F(Process, ChildLinesForKillAndStop) {
  task *tp = task_alloc("sleeper", 10, nullptr);
  pid_t pid = task_fork(tp, [](task *) { pause(); }, [](task *) { exit_seen++; });
  ASSERT_GT(pid, 0);
  evlog_capture &cap = evlog_capture_start();
  kill(pid, SIGSTOP);
  reap_when(pid, WSTOPPED);
  kill(pid, SIGKILL);
  reap_when(pid, WEXITED);
  evlog_capture_stop();
  ASSERT_EQ(cap.records.size(), 2u);
  std::string name = "sleeper[" + std::to_string(pid) + "]";
  EXPECT_EQ(cap.records[0].text, "ZTASK_TASK_CHILDSTOPPED: " + name + " stopped by SIGSTOP");
  EXPECT_EQ(cap.records[1].text, "ZTASK_TASK_CHILDKILLED: " + name + " terminated by SIGKILL");
  EXPECT_EQ(cap.records[1].priority, LOG_ERR);
  EXPECT_EQ(exit_seen, 2);  // the child method runs for each change SIGCHLD reports
}

TEST_F(Process, ChildKilledWithACoreSaysSo) {
  // The child aborts in a directory of its own; whether a core is written is
  // the machine's affair, the line must say what happened.
  static char dir[] = "/tmp/task_core_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  task *tp = task_alloc("aborter", 10, nullptr);
  pid_t pid = task_fork(tp, [](task *) {
    rlimit rl;
    getrlimit(RLIMIT_CORE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_CORE, &rl);
    if (chdir(dir) != 0) _exit(9);
    abort();
  }, nullptr);
  ASSERT_GT(pid, 0);
  siginfo_t si{};
  ASSERT_EQ(waitid(P_PID, pid, &si, WEXITED | WNOWAIT), 0);
  ASSERT_TRUE(si.si_code == CLD_KILLED || si.si_code == CLD_DUMPED);
  evlog_capture &cap = evlog_capture_start();
  task_signal_event(SIGCHLD);
  evlog_capture_stop();
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].text, "ZTASK_TASK_CHILDKILLED: aborter[" + std::to_string(pid) + "] terminated by SIGABRT" +
                                     (si.si_code == CLD_DUMPED ? " (core dumped)" : ""));
  std::system((std::string("rm -rf ") + dir).c_str());
}

TEST_F(Process, ForkedTaskTerminateSignalsTheChild) {
  task *tp = task_alloc("forked", 10, nullptr);
  pid_t pid = task_fork(tp, [](task *) { pause(); }, nullptr);
  ASSERT_GT(pid, 0);
  tp->task_terminate(tp);  // the default became "SIGTERM the child, delete the task"
  int status;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  // The child's SIGTERM ends it with _exit(0).
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(task_flag_test(tp, TASK_FLAG_DELETE));
}

TEST_F(Process, CloseFdsClosesOnlyCloseOnExec) {
  int keep = open("/dev/null", O_RDONLY);
  int drop = open("/dev/null", O_RDONLY | O_CLOEXEC);
  task_fork_close_fds();
  EXPECT_NE(fcntl(keep, F_GETFD), -1);
  EXPECT_EQ(fcntl(drop, F_GETFD), -1);
  close(keep);
}

// ---- The PID lock and -p ----------------------------------------------------------------

TEST_F(Process, LockfileWritesPidRefusesSecondAndRemovesOnClose) {
  char dir[] = "/tmp/task_lock_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string path = std::string(dir) + "/run/d.pid";
  task_set_daemon_name("d");
  int fd = task_lockfile_open(path.c_str());
  ASSERT_GE(fd, 0);
  char buf[32] = {};
  ASSERT_GT(pread(fd, buf, sizeof buf - 1, 0), 0);
  EXPECT_EQ(std::string(buf), std::to_string(getpid()) + "\n");
  evlog_capture &cap = evlog_capture_start();
  EXPECT_EQ(task_lockfile_open(path.c_str()), -1);
  // The running daemon's file is left whole.
  EXPECT_EQ(pread(fd, buf, sizeof buf - 1, 0), static_cast<ssize_t>(std::to_string(getpid()).size() + 1));
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].text, "ZTASK_LOCK_LOCKED: Unable to obtain a lock on " + path + ", d[" +
                                     std::to_string(getpid()) + "] is still running");
  ASSERT_EQ(ftruncate(fd, 0), 0);  // no pid in it: the other message
  EXPECT_EQ(task_lockfile_open(path.c_str()), -1);
  EXPECT_EQ(cap.records.back().tag, "ZTASK_LOCK_FLOCKED");
  evlog_capture_stop();
  task_lockfile_close(fd, path.c_str());
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  std::system((std::string("rm -rf ") + dir).c_str());
}

pid_t victim;
int victim_status, naps;
// The fake clock moves a second a nap; the nap returns early when the
// predecessor ends (a signal's delivery takes real time), and reaps it.
void nap_and_reap() {
  naps++;
  tt::advance(1);
  int fd = static_cast<int>(syscall(SYS_pidfd_open, victim, 0));
  if (fd >= 0) {
    pollfd p{fd, POLLIN, 0};
    poll(&p, 1, 20);
    close(fd);
  }
  int st;
  if (waitpid(victim, &st, WNOHANG) == victim) victim_status = st;
}

TEST_F(Process, ReplacePredecessorEscalatesToSigkill) {
  task_daemon_nap = nap_and_reap;
  // A predecessor that ignores SIGTERM: four of them, 3 s apart, then SIGKILL.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  victim = fork();
  if (victim == 0) {
    signal(SIGTERM, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (write(ready[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  victim_status = 0;
  EXPECT_EQ(task_replace_predecessor(victim), 0);
  if (!victim_status) waitpid(victim, &victim_status, 0);  // a zombie counts as gone
  EXPECT_TRUE(WIFSIGNALED(victim_status) && WTERMSIG(victim_status) == SIGKILL) << victim_status;
  EXPECT_GE(naps, 12);  // 4 x 3 s of the fake clock
  EXPECT_LE(naps, 14);

  // One that goes at the first SIGTERM costs no wait to speak of.
  naps = 0;
  victim = fork();
  if (victim == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGTERM, SIG_DFL);
    if (write(ready[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  victim_status = 0;
  EXPECT_EQ(task_replace_predecessor(victim), 0);
  if (!victim_status) waitpid(victim, &victim_status, 0);
  EXPECT_TRUE(WIFSIGNALED(victim_status) && WTERMSIG(victim_status) == SIGTERM) << victim_status;
  EXPECT_LE(naps, 3);
}

TEST_F(Process, DetachingForksIntoANewSessionWithNullStdio) {
  // Descriptors from 64 up outlive the sweep: the detached process reports through one.
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_EQ(dup2(p[1], 100), 100);
  close(p[1]);
  pid_t mid = fork();
  if (mid == 0) {
    task_newstate(0, TASKS_FOREGROUND | TASKS_NODETACH);
    task_daemonize(&app);
    char line[128];
    char stdin_path[64] = {};
    ssize_t n = readlink("/proc/self/fd/0", stdin_path, sizeof stdin_path - 1);
    int len = snprintf(line, sizeof line, "%d %d %s %o %d\n", getsid(0) == getpid(), getppid() != 0,
                       n > 0 ? stdin_path : "?", static_cast<unsigned>(umask(0)), fcntl(p[0], F_GETFD) == -1);
    if (write(100, line, len) != len) _exit(1);
    _exit(0);
  }
  close(100);
  int status;
  ASSERT_EQ(waitpid(mid, &status, 0), mid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);  // the parent side exits 0 at once
  std::string got;
  char buf[128];
  ssize_t n;
  while ((n = read(p[0], buf, sizeof buf)) > 0) got.append(buf, n);
  // New session, stdin on /dev/null, umask 022, inherited descriptors below 64 closed.
  EXPECT_EQ(got, "1 1 /dev/null 22 1\n");
}

}  // namespace

namespace {

TEST_F(Process, SwitchModeReexecutesWithTheSameArguments) {
  char sh[] = "/bin/sh", c[] = "-c", cmd[] = "exit 7";
  char *av[] = {sh, c, cmd, nullptr};
  task_set_argv(3, av);
  EXPECT_EXIT(
      {
        task_switch_mode(32, "/bin/sh");         // nothing to switch to
        task_switch_mode(64, "/nonexistent/x");  // not executable: nothing
        task_switch_mode(64, "/bin/sh");
      },
      ::testing::ExitedWithCode(7), "ZTASK_MODE_SWITCH: Switching to 64-bit mode");
}

task *first_task;
TEST_F(Process, SwitchoverRunsTheNamedTaskFirstThenTheOthers) {
  auto mastership = [](task *tp) { order.push_back(task_name(tp)); };
  for (const char *n : {"a", "b", "c"}) {
    task *tp = task_alloc(n, 10, nullptr);
    task_set_mastership(tp, mastership);
    task_create(tp);
    if (!strcmp(n, "b")) first_task = tp;
  }
  app.app_mastership_task = [] { return first_task; };
  app.app_switchover_begin = [](int starting) { order.push_back("begin " + std::to_string(starting)); };
  app.app_mastership_done = [] { order.push_back("done"); };
  task_re_switchover();
  // Equal priorities: the newest first in the list.
  EXPECT_EQ(order, (std::vector<std::string>{"begin 1", "b", "c", "a", "done"}));
  EXPECT_EQ(app.app_is_master, 1u);
}

}  // namespace
