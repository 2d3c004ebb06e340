// The one exit of the process, and the kernel's assertion.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "platform/backtrace.h"
#include "platform/version.h"

namespace {
bool recursed;
int quit_status = -1;
}  // namespace

int task_quit_status(void) { return quit_status; }

extern "C" [[noreturn]] void __task_quit__(int status) {
  int saved = errno;
  if (recursed) {
    // A failure within quit: no second round of hooks, just the core.
    fprintf(stderr, "ZTASK_ASSERT: Assertion failed %s[%d]: file \"%s\", line %d: \"%s\"\n", task_daemon_name(),
            static_cast<int>(getpid()), __FILE_NAME__, __LINE__, "!recursed");
    abort();
  }
  recursed = true;
  quit_status = status;
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  if (ctx->app_quit_hook) ctx->app_quit_hook(status);
  task *st = task_scheduler_task();
  if (st->task_socket >= 0) {
    close(st->task_socket);
    st->task_socket = -1;
  }
  task_time_update();
  task_lock_release();
  TASK_TRACE(nullptr, TR_TASK, "__task_quit__: exiting with status %d", status);
  const char *name = task_daemon_name();
  int pid = static_cast<int>(getpid());
  if (status == ENOSPC) {
    void *addrs[64];
    int n = tvx_backtrace(addrs, 64);
    char bt[2048];
    size_t len = 0;
    bt[0] = '\0';
    for (int i = 0; i < n && len < sizeof bt; i++)
      len += snprintf(bt + len, sizeof bt - len, "%s%p", i ? " " : "", addrs[i]);
    logging_event(LOG_ERR, "ZTASK_TERMINATE_DISK_SPACE",
                  "ZTASK_TERMINATE_DISK_SPACE: disk full, terminating %s[%d] version %s built by %s on %s.\n"
                  "BACKTRACE: %s",
                  name, pid, tvx_build_version(), tvx_builder(), tvx_build_date(), bt);
  } else if (status == 0 || status == 129) {
    void *addrs[4] = {};
    tvx_backtrace(addrs, 4);
    char caller[64];
    // The first address is this function's own frame.
    snprintf(caller, sizeof caller, "%p %p %p", addrs[1], addrs[2], addrs[3]);
    logging_event(LOG_NOTICE, "ZTASK_EXIT", "ZTASK_EXIT: Exit %s[%d] version %s built by %s on %s, caller %s", name,
                  pid, tvx_build_version(), tvx_builder(), tvx_build_date(), caller);
  } else {
    errno = saved;
    logging_event(LOG_ERR, "ZTASK_ABORT", "ZTASK_ABORT: abort %s[%d] version %s built by %s on %s: %m", name, pid,
                  tvx_build_version(), tvx_builder(), tvx_build_date());
    abort();
  }
  exit(status);
}

void task_assert_internal(const char *file, int line, const char *expression) {
  // A failing clock asserts too: refresh the time once only.
  static bool in_assert;
  if (!recursed && !in_assert) {
    in_assert = true;
    task_time_update();
  }
  task_assert_fail(file, line, expression);
}
