// A lock holder stuck past the limit: its core and the waiter's own are
// dumped with gcore, then it is asked to end and, failing that, killed.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "internal.h"
#include "platform/path.h"

int mmf_fatal_line;
extern char **environ;

namespace {

// Holder's grace after the dumps, its polls after SIGTERM, and the waits
// for a dump to finish (seconds, scaled).
constexpr double kGraceSeconds = 1;
constexpr int kTermPolls = 11;
constexpr double kDumpSettleSeconds = 2;
constexpr double kDumpLookEvery = 2;
constexpr double kDumpLookFor = 30;

void sleep_scaled(double seconds) { mmf_sleep_ns(static_cast<int64_t>(mmf_scaled(seconds) * 1e9)); }

}  // namespace

int mmf_run_shell(const char *line) {
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  const char *argv[] = {"/bin/sh", "-c", line, nullptr};
  pid_t child;
  int rc = posix_spawn(&child, "/bin/sh", nullptr, &attr, const_cast<char **>(argv), environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) return -1;
  int st;
  while (waitpid(child, &st, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

namespace {

// gcore of pid into PREFIX.pid, unless that core exists already. For another
// process, waits until the core stops growing.
void dump(const char *name, pid_t pid, bool other) {
  std::string prefix = tvx_path((std::string("/var/tmp/") + name + "_lock_holder.core").c_str());
  std::string core = prefix + "." + std::to_string(pid);
  struct stat st;
  if (stat(core.c_str(), &st) == 0) return;
  if (mmf_run_shell(("gcore -o '" + prefix + "' " + std::to_string(pid) + " >/dev/null 2>&1").c_str()) != 0) return;
  sleep_scaled(kDumpSettleSeconds);
  if (!other) return;
  off_t last = -1;
  for (double waited = 0; waited < kDumpLookFor; waited += kDumpLookEvery) {
    if (stat(core.c_str(), &st) == 0 && st.st_size > 0 && st.st_size == last) return;
    last = stat(core.c_str(), &st) == 0 ? st.st_size : -1;
    sleep_scaled(kDumpLookEvery);
  }
}

}  // namespace

void mmf_kill_holder(const char *name, pid_t pid) {
  if (pid == mmf_pid()) {
    dump(name, pid, false);
    exit(0);
  }
  // The first waiter to claim the holder does the work; the others leave it.
  std::string dir = tvx_path("/var/tmp");
  tvx_mkdirs(dir.c_str(), 0755);
  std::string marker = dir + "/" + name + "_lock_holder.pid" + std::to_string(pid) + ".lock";
  int fd = open(marker.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) return;
  close(fd);
  dump(name, pid, true);
  dump(name, mmf_pid(), false);
  sleep_scaled(kGraceSeconds);
  if (!mmf_pid_alive(pid)) return;
  kill(pid, SIGTERM);
  for (int i = 0; i < kTermPolls && mmf_pid_alive(pid); i++) sleep_scaled(1);
  if (mmf_pid_alive(pid)) kill(pid, SIGKILL);
}

[[noreturn]] void mmf_detected_fatal_problem(int line) {
  mmf_fatal_line = line;
  mmf_assert_fail("mmf_detected_fatal_problem", __FILE__, line);
}
