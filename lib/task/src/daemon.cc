// The daemon's start on the machine: detaching, the PID file and its lock,
// the version file, and replacing a predecessor (-p).
#include <dirent.h>
#include <fcntl.h>
#include <regex.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "internal.h"
#include "platform/path.h"
#include "platform/version.h"
#include "task/process.h"

namespace {

void default_nap(void) {
  timespec ts{0, 10 * 1000 * 1000};
  nanosleep(&ts, nullptr);
}

char lock_path[512];
int lock_fd = -1;
pid_t lock_owner;

void make_parent(const char *path) {
  std::string dir(path);
  size_t slash = dir.rfind('/');
  if (slash == std::string::npos || slash == 0) return;
  dir.resize(slash);
  tvx_mkdirs(dir.c_str(), 0755);
}

// Removes the run directory's regular files and links whose names match.
void cleanup_run_dir(const char *pattern) {
  regex_t re;
  if (regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB) != 0) return;
  const char *dir = path_solvane_run_dir();
  if (DIR *d = opendir(dir)) {
    while (dirent *de = readdir(d)) {
      if (de->d_type != DT_REG && de->d_type != DT_LNK) continue;
      if (regexec(&re, de->d_name, 0, nullptr, 0) != 0) continue;
      std::string p = std::string(dir) + "/" + de->d_name;
      unlink(p.c_str());
    }
    closedir(d);
  }
  regfree(&re);
}

// Gone, or a zombie its parent has not reaped yet: either way its lock is free.
bool gone(pid_t pid) {
  if (kill(pid, 0) < 0 && errno == ESRCH) return true;
  char path[64], stat[256] = {};
  snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  FILE *f = fopen(path, "r");
  if (!f) return false;
  size_t n = fread(stat, 1, sizeof stat - 1, f);
  fclose(f);
  const char *close_paren = strrchr(stat, ')');  // the name may hold anything
  return n && close_paren && close_paren[1] == ' ' && close_paren[2] == 'Z';
}

}  // namespace

void (*task_daemon_nap)(void) = default_nap;

void task_daemonize(task_app_ctx_t *ctx) {
  if (task_state & TASKS_NODETACH) return;
  for (int s : {SIGTTOU, SIGTTIN, SIGTSTP}) signal(s, SIG_IGN);
  if (!(task_state & TASKS_FOREGROUND)) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
      perror("task_daemonize: fork");
      exit(1);
    }
    if (pid > 0) exit(0);
    // A new session has no controlling terminal: nothing to detach from /dev/tty.
    if (setsid() < 0) {
      perror("task_daemonize: setpgrp");
      exit(1);
    }
    closelog();
    for (int fd = 3; fd < 64; fd++) close(fd);
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      for (int fd = 0; fd < 3; fd++) dup2(null, fd);
      if (null > 2) close(null);
    }
  }
  umask(18);
  if (ctx && ctx->app_cleanup_pattern) cleanup_run_dir(ctx->app_cleanup_pattern);
}

int task_lockfile_open(const char *path) {
  make_parent(path);
  // No O_TRUNC: a second start must still read the running daemon's pid.
  int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    logging_event(LOG_ERR, "ZTASK_LOCK_OPEN", "ZTASK_LOCK_OPEN: Unable to open %s: %m", path);
    return -1;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
    if (errno == EWOULDBLOCK) {
      char buf[32] = {};
      ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
      int pid = n > 0 ? atoi(buf) : 0;
      if (pid > 0)
        logging_event(LOG_ERR, "ZTASK_LOCK_LOCKED", "ZTASK_LOCK_LOCKED: Unable to obtain a lock on %s, %s[%d] is still running",
                      path, task_daemon_name(), pid);
      else
        logging_event(LOG_ERR, "ZTASK_LOCK_FLOCKED",
                      "ZTASK_LOCK_FLOCKED: Unable to obtain a lock on %s, is another copy of pathd running?", path);
    } else {
      logging_event(LOG_ERR, "ZTASK_TASK_PIDFLOCK", "ZTASK_TASK_PIDFLOCK: flock(%s, LOCK_EX): %m", path);
    }
    close(fd);
    return -1;
  }
  if (task_lockfile_writepid(fd) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int task_lockfile_writepid(int fd) {
  char text[32];
  int n = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  if (ftruncate(fd, 0) < 0 || pwrite(fd, text, n, 0) != n) {
    logging_event(LOG_ERR, "ZTASK_TASK_PIDWRITE", "ZTASK_TASK_PIDWRITE: Unable to write to fd %d: %m", fd);
    return -1;
  }
  return 0;
}

void task_lockfile_close(int fd, const char *path) {
  if (fd < 0) return;
  if (unlink(path) < 0 || close(fd) < 0)
    logging_event(LOG_ERR, "ZTASK_TASK_PIDCLOSED", "ZTASK_TASK_PIDCLOSED: Unable to close and remove %s: %m", path);
}

// The daemon's own lock, released by the exit path of the process that took it.
bool task_lock_take(const char *logical) {
  std::string real = tvx_path(logical);
  int fd = task_lockfile_open(real.c_str());
  if (fd < 0) return false;
  snprintf(lock_path, sizeof lock_path, "%s", real.c_str());
  lock_fd = fd;
  lock_owner = getpid();
  return true;
}

void task_lock_release(void) {
  if (lock_fd < 0) return;
  if (getpid() == lock_owner)
    task_lockfile_close(lock_fd, lock_path);
  else
    close(lock_fd);  // a child's copy: the file is its parent's
  lock_fd = -1;
}

const char *task_lockfile_path(void) { return lock_fd >= 0 ? lock_path : ""; }

int task_version_file_write(void) {
  char logical[256];
  snprintf(logical, sizeof logical, "/var/run/%s.version", task_daemon_name());
  std::string real = tvx_path(logical);
  make_parent(real.c_str());
  FILE *f = fopen(real.c_str(), "w");
  if (!f) return -1;
  time_t now = time(nullptr);
  char when[64];
  ctime_r(&now, when);  // ends in a newline
  fprintf(f, "%s version %s built %s\n\tpid %d, started %s", task_daemon_name(), tvx_build_version(),
          tvx_build_date(), static_cast<int>(getpid()), when);
  return fclose(f) == 0 ? 0 : -1;
}

int task_replace_predecessor(pid_t pid) {
  if (pid <= 0 || pid == getpid()) return 0;
  constexpr int kTerms = 4, kKills = 4;
  for (int tries = 0; tries < kTerms + kKills; tries++) {
    if (kill(pid, tries < kTerms ? SIGTERM : SIGKILL) < 0 && errno == ESRCH) return 0;
    task_time_update();
    task_utime until = task_utime_add(task_now, task_utime{3, 0});
    while (task_utime_lt(task_now, until)) {
      if (gone(pid)) return 0;
      task_daemon_nap();
      task_time_update();
    }
  }
  return -1;
}
