// rtslib's log: a prefix and a level word, then the handle's sink.
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "evlog/evlog.h"
#include "rtslib_internal.h"

namespace {

rtslib_log_fn default_fn = rtslib_syslog_sink;
void *default_ctx = nullptr;

const char *const kWords[] = {"DEBUG ", "INFO ", "WARNING ", "ERROR ", "FATAL ERROR "};
const int kPriorities[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT};

}  // namespace

void rtslib_syslog_sink(rtslib_cookie *, void *, int level, const char *text) {
  if (level < 0 || level > RTSLIB_LOG_FATAL) {
    fprintf(stderr, "%s\n", text);
    return;
  }
  event_send_syslog(kPriorities[level], nullptr, "%s", text);
  if (level == RTSLIB_LOG_FATAL) exit(1);
}

void rtslib_set_default_log(rtslib_log_fn fn, void *ctx) {
  default_fn = fn ? fn : rtslib_syslog_sink;
  default_ctx = fn ? ctx : nullptr;
}

void rtslib_log(rtslib_cookie *cookie, int level, const char *fmt, ...) {
  rtslib_log_fn fn = cookie ? cookie->log_fn : default_fn;
  void *ctx = cookie ? cookie->log_ctx : default_ctx;
  if (!fn) return;
  int saved = errno;
  char text[256];
  int n = snprintf(text, sizeof text, "rtslib: %s",
                   level >= 0 && level <= RTSLIB_LOG_FATAL ? kWords[level] : "");
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text + n, sizeof text - n, fmt, ap);
  va_end(ap);
  fn(cookie, ctx, level, text);
  errno = saved;
}

void rtslib_lib_error_register(rtslib_cookie *cookie, rtslib_log_fn fn, void *ctx) {
  if (!cookie) return;
  cookie->log_fn = fn;
  cookie->log_ctx = ctx;
}

void rtslib_seq_error_register(rtslib_cookie *cookie, rtslib_seq_err_fn fn, void *ctx) {
  if (!cookie) return;
  cookie->seq_err_fn = fn;
  cookie->seq_err_ctx = ctx;
}

// Used by rtslib_open for the handle's first sink.
void rtslib_default_log(rtslib_log_fn *fn, void **ctx) {
  *fn = default_fn;
  *ctx = default_ctx;
}
