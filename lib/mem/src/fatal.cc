// The memory library's fatal path.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "mem/mem.h"

void task_mem_fatal(const char *function, const char *file, int line, const char *expression) {
  static volatile sig_atomic_t entered = 0;
  if (entered) exit(1);
  entered = 1;
  // Local copies, so that the texts stand in a core file.
  char fn[256], fl[256], ex[256];
  snprintf(fn, sizeof fn, "%s", function);
  snprintf(fl, sizeof fl, "%s", file);
  snprintf(ex, sizeof ex, "%s", expression);
  char msg[900];
  int n = snprintf(msg, sizeof msg, "task_mem_fatal: %s: %s, line %d: %s\n", fn, fl, line, ex);
  if (n > 0) {
    ssize_t w = write(STDERR_FILENO, msg, static_cast<size_t>(n) < sizeof msg ? n : sizeof msg - 1);
    (void)w;
  }
  raise(SIGABRT);
  entered = 0;  // a handler that returns lets the caller go on, as a test may
}
