// The assertion line and the exit behind task_assert.
#include "format/task_assert.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

#include "evlog/evlog.h"

extern "C" [[noreturn]] __attribute__((weak)) void __task_quit__(int status) { exit(status); }

extern "C" void task_assert_fail(const char *file, int line, const char *text) {
  const char *prog = program_invocation_short_name;
  int pid = static_cast<int>(getpid());
  event_send_syslog(LOG_ERR, "ZTASK_ASSERT", "ZTASK_ASSERT: Assertion failed %s[%d]: file \"%s\", line %d: \"%s\"",
                    prog, pid, file, line, text);
  fprintf(stderr, "ZTASK_ASSERT: Assertion failed %s[%d]: file \"%s\", line %d: \"%s\"\n", prog, pid, file, line,
          text);
  fflush(stderr);
  __task_quit__(22);
}
