// The event log: where a daemon's events go, over syslog(3).
//
// event_* are the log itself (open, mask, send). logging_* are what the
// framework calls to log: logging() passes through the registered log function
// (normally event_send_vsyslog); logging_event() sends a structured event whose
// tag names the message ("ZTASK_START"). Mode bits choose the outlets: syslog,
// and a copy on standard error for a daemon run in the foreground (-N).
//
// Where lines finally go is a sink: syslog by default, or the capture sink that
// tests read. The log is single-threaded, as the framework is.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

// Opens the log under the name ident (copied). option and facility are
// syslog's: event_open(name, LOG_PID | LOG_NDELAY, LOG_DAEMON) is the daemon's.
void event_open(const char *ident, int option, int facility);
void event_close(void);
// The priorities let through: a mask of LOG_MASK bits (127 is up to LOG_INFO).
// Returns the previous mask.
int event_setmask(int mask);
// One event, structured by its tag (may be null).
void event_send_syslog(int priority, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
// The log-function shape: one event without a separate tag. A message that
// starts with a tag ("ZTASK_EXIT: ...") is tagged by it.
void event_send_vsyslog(int priority, const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));

enum {
  LOGGING_MODE_STDERR = 1,  // also write each event to standard error
  LOGGING_MODE_SYSLOG = 2,  // send events to the log (through the log function)
};
void logging_set_mode(int mode);
int logging_get_mode(void);

using logging_func_t = void (*)(int priority, const char *fmt, va_list ap);
// The function that logging() hands its events to; null sends them straight to the log.
void logging_register_logfunc(logging_func_t fn);

void logging(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void logging_event(int priority, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The formatter of the log's messages; vsnprintf by default. The framework
// installs its own, which knows its extra directives.
using logging_vsnprintf_t = int (*)(char *buf, size_t len, const char *fmt, va_list ap);
void logging_set_vsnprintf(logging_vsnprintf_t fn);

// The lower edge of the log.
struct evlog_sink {
  void (*es_open)(const char *ident, int option, int facility);
  void (*es_close)(void);
  void (*es_setmask)(int mask);
  void (*es_write)(int priority, const char *tag, const char *text);
};
// Installs a sink (null: syslog).
void evlog_set_sink(const evlog_sink *sink);

// The capture sink, for tests: it keeps what syslog would have been given.
struct evlog_record {
  int priority;     // without the facility
  std::string tag;  // empty when the event has none
  std::string text;
};
struct evlog_capture {
  bool open = false;
  std::string ident;
  int option = 0;
  int facility = 0;
  int mask = 0xff;
  std::vector<evlog_record> records;
};
// Installs the capture sink with an empty capture; returns it.
evlog_capture &evlog_capture_start(void);
// Restores syslog as the sink.
void evlog_capture_stop(void);
