// The aborting child of a live core.
#include "live_core.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

void task_live_core_child(const char *dir) {
  struct rlimit rl;
  int top = getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < 65536 ? static_cast<int>(rl.rlim_cur) : 1024;
  for (int fd = 3; fd < top; fd++) {
    int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC)) close(fd);
  }
  if (dir && dir[0] && chdir(dir) != 0) {
    // No core in whatever directory the process happened to be in.
    _exit(134);
  }
  sigset_t abrt;
  sigemptyset(&abrt);
  sigaddset(&abrt, SIGABRT);
  sigprocmask(SIG_UNBLOCK, &abrt, nullptr);
  signal(SIGABRT, SIG_DFL);
  raise(SIGABRT);
  _exit(134);
}
