// Where the connection library's lines go.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "evlog/evlog.h"
#include "internal.h"

namespace {
ipcconn_log_fn log_hook;
}

extern "C" void ipcconn_set_log_hook(ipcconn_log_fn hook) { log_hook = hook; }

void ipcconn_log(int level, const char *fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  if (log_hook)
    log_hook(level, line);
  else
    logging(level == IPCCONN_LOG_ERROR ? LOG_ERR : LOG_DEBUG, "%s", line);
}

bool ipcconn_insist(bool ok, const char *expr, const char *file, const char *func, int line) {
  if (!ok) ipcconn_log(IPCCONN_LOG_ERROR, "%s:%s:%d: insist '%s' failed", file, func, line, expr);
  return ok;
}
