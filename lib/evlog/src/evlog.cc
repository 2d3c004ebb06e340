// Event log: formatting, mask, outlets and sinks.
#include "evlog/evlog.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace {

void syslog_open(const char *ident, int option, int facility) { openlog(ident, option, facility); }
void syslog_close() { closelog(); }
void syslog_setmask(int mask) { setlogmask(mask); }
void syslog_write(int priority, const char *, const char *text) { syslog(priority, "%s", text); }

const evlog_sink syslog_sink = {syslog_open, syslog_close, syslog_setmask, syslog_write};

struct log_state {
  const evlog_sink *sink = &syslog_sink;
  std::string ident;  // openlog keeps the pointer: it must outlive the log
  int mask = 0xff;
  int mode = LOGGING_MODE_SYSLOG;
  logging_func_t logfunc = nullptr;
  logging_vsnprintf_t format = vsnprintf;
};

log_state &st() {
  static log_state s;
  return s;
}

evlog_capture capture;

std::string vformat(const char *fmt, va_list ap) {
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = st().format(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return fmt;
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
  std::string big(n + 1, '\0');
  st().format(big.data(), big.size(), fmt, ap);
  big.resize(n);
  return big;
}

// A message "TAG_NAME: text" is tagged by its first word.
std::string tag_of(const std::string &text) {
  size_t i = 0;
  while (i < text.size() && (isupper(static_cast<unsigned char>(text[i])) ||
                             isdigit(static_cast<unsigned char>(text[i])) || text[i] == '_'))
    i++;
  if (i > 0 && i + 1 < text.size() && text[i] == ':' && text[i + 1] == ' ') return text.substr(0, i);
  return {};
}

// to_sink false: standard error only, for a log whose syslog outlet is off.
void emit(int priority, const char *tag, const std::string &text, bool to_sink = true) {
  log_state &s = st();
  if (!(LOG_MASK(LOG_PRI(priority)) & s.mask)) return;
  std::string derived;
  if (!tag || !*tag) {
    derived = tag_of(text);
    tag = derived.c_str();
  }
  if (to_sink) s.sink->es_write(priority, tag, text.c_str());
  if (s.mode & LOGGING_MODE_STDERR) {
    const char *name = s.ident.empty() ? program_invocation_short_name : s.ident.c_str();
    fprintf(stderr, "%s[%d]: %s\n", name, static_cast<int>(getpid()), text.c_str());
  }
}

void capture_open(const char *ident, int option, int facility) {
  capture.open = true;
  capture.ident = ident;
  capture.option = option;
  capture.facility = facility;
}
void capture_close() { capture.open = false; }
void capture_setmask(int mask) { capture.mask = mask; }
void capture_write(int priority, const char *tag, const char *text) {
  capture.records.push_back({LOG_PRI(priority), tag ? tag : "", text});
}

const evlog_sink capture_sink = {capture_open, capture_close, capture_setmask, capture_write};

}  // namespace

void event_open(const char *ident, int option, int facility) {
  log_state &s = st();
  s.ident = ident ? ident : "";
  s.sink->es_open(s.ident.c_str(), option, facility);
}

void event_close(void) { st().sink->es_close(); }

int event_setmask(int mask) {
  log_state &s = st();
  int old = s.mask;
  if (mask != 0) {  // as with setlogmask, 0 asks without changing
    s.mask = mask;
    s.sink->es_setmask(mask);
  }
  return old;
}

void event_send_syslog(int priority, const char *tag, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  emit(priority, tag, text);
}

void event_send_vsyslog(int priority, const char *fmt, va_list ap) {
  emit(priority, nullptr, vformat(fmt, ap));
}

void logging_set_mode(int mode) { st().mode = mode; }
int logging_get_mode(void) { return st().mode; }
void logging_register_logfunc(logging_func_t fn) { st().logfunc = fn; }
void logging_set_vsnprintf(logging_vsnprintf_t fn) { st().format = fn ? fn : vsnprintf; }

void logging(int priority, const char *fmt, ...) {
  log_state &s = st();
  va_list ap;
  va_start(ap, fmt);
  if ((s.mode & LOGGING_MODE_SYSLOG) && s.logfunc)
    s.logfunc(priority, fmt, ap);
  else if (s.mode & (LOGGING_MODE_SYSLOG | LOGGING_MODE_STDERR))
    emit(priority, nullptr, vformat(fmt, ap), s.mode & LOGGING_MODE_SYSLOG);
  va_end(ap);
}

void logging_event(int priority, const char *tag, const char *fmt, ...) {
  log_state &s = st();
  if (!(s.mode & (LOGGING_MODE_SYSLOG | LOGGING_MODE_STDERR))) return;
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  emit(priority, tag, text, s.mode & LOGGING_MODE_SYSLOG);
}

void evlog_set_sink(const evlog_sink *sink) { st().sink = sink ? sink : &syslog_sink; }

evlog_capture &evlog_capture_start(void) {
  capture = evlog_capture{};
  capture.mask = st().mask;
  evlog_set_sink(&capture_sink);
  return capture;
}

void evlog_capture_stop(void) { evlog_set_sink(nullptr); }
