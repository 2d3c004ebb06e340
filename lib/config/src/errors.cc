// Where configuration errors and warnings go.
#include <syslog.h>

#include <cstdio>
#include <string>

#include "evlog/evlog.h"
#include "tree.h"

namespace {

struct error_state {
  int flags = DDL_ERR_STDERR;
  int level = LOG_ERR;
  void (*trace)(const char *) = nullptr;
  int (*format)(char *, size_t, const char *, va_list) = vsnprintf;
  unsigned count = 0;
  std::string last;
};

error_state &es() {
  static error_state s;
  return s;
}

std::string vformat(const char *fmt, va_list ap) {
  char buf[2048];
  int n = es().format(buf, sizeof buf, fmt, ap);
  std::string s(buf, n < 0 ? 0 : std::min<size_t>(n, sizeof buf - 1));
  while (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

void deliver(const std::string &text, bool warning) {
  error_state &s = es();
  if (!warning) {
    s.count++;
    s.last = text;
  }
  if (s.trace) s.trace(text.c_str());
  if (s.flags & DDL_ERR_STDERR) fprintf(stderr, "%s\n", text.c_str());
  if (s.flags & DDL_ERR_LOG) logging(warning ? s.level + 1 : s.level, "%s", text.c_str());
}

}  // namespace

void ddl_report_at(const std::string &file, unsigned line, unsigned col, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string msg = vformat(fmt, ap);
  va_end(ap);
  deliver(file + ":" + std::to_string(line) + ":" + std::to_string(col) + ": " + msg, false);
}

void ddl_access_config_error(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string msg = vformat(fmt, ap);
  va_end(ap);
  deliver(msg, false);
}

void ddl_access_config_warning(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string msg = vformat(fmt, ap);
  va_end(ap);
  deliver("warning: " + msg, true);
}

void dax_error(const ddl_object_t *obj, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string msg = vformat(fmt, ap);
  va_end(ap);
  if (obj)
    deliver(obj->tree->file + ":" + std::to_string(obj->line) + ":" + std::to_string(obj->col) + ": " + msg,
            false);
  else
    deliver(msg, false);
}

void ddl_access_config_error_set_flags(int flags) { es().flags |= flags; }
void ddl_access_config_error_clear_flags(int flags) { es().flags &= ~flags; }
void ddl_access_config_error_set_level(int level) { es().level = level; }
void ddl_access_config_error_set_trace_func(void (*fn)(const char *)) { es().trace = fn; }
void ddl_access_config_error_set_vsnprintf_func(int (*fn)(char *, size_t, const char *, va_list)) {
  es().format = fn ? fn : vsnprintf;
}
unsigned ddl_access_config_error_count(void) { return es().count; }
const char *ddl_access_config_last_error(void) { return es().last.c_str(); }
