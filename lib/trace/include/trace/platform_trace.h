// The platform's tracer calls, forwarded to this library.
//
// daemon_trace is the responder's own: a statement names a class, 0x100
// packets, 0x200 kernel messages, 0x300 configuration, each tied to one trace
// flag of "protocols overlay traceoptions" ("packets", "kernel", "config";
// "all" sets the three). daemon_trace_read_config fills a context from that
// configuration. The trace family (trace, trace_flag_*, trace_aux_flags_set,
// trace_file_open) is what the statistics and database libraries use: flags
// are plain bits of one word, the file is opened by the caller.
//
//   static trace_ctx_t tunechod_trace;
//   const char *path[] = {"protocols", "overlay", nullptr};
//   if (!daemon_trace_read_config(0, path, &tunechod_trace)) ...
//   daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS, "C(%d-%s): got %u", getpid(), __func__, n);
//
// daemon_trace is also a macro that tests the class first, so that the
// arguments of a disabled statement are not evaluated; the context and class
// arguments are evaluated twice. (daemon_trace)(...) calls the function.
#pragma once

#include <cstdint>

#include "trace/trace.h"
#include "trace/trace_config.h"

// The daemon's classes.
enum daemon_trace_class : uint32_t {
  DAEMON_TRACE_PACKETS = 0x100,
  DAEMON_TRACE_KERNEL = 0x200,
  DAEMON_TRACE_CONFIG = 0x300,
};

// The trace flags behind the classes.
enum : uint32_t {
  DAEMON_TRACE_FLAG_PACKETS = 0x1,
  DAEMON_TRACE_FLAG_KERNEL = 0x2,
  DAEMON_TRACE_FLAG_CONFIG = 0x4,
  DAEMON_TRACE_FLAG_ALL = 0x7,
};

// The flag of a class; 0 for a number that is not a class.
constexpr uint32_t daemon_trace_flag_of(uint32_t cls) {
  switch (cls) {
    case DAEMON_TRACE_PACKETS: return DAEMON_TRACE_FLAG_PACKETS;
    case DAEMON_TRACE_KERNEL: return DAEMON_TRACE_FLAG_KERNEL;
    case DAEMON_TRACE_CONFIG: return DAEMON_TRACE_FLAG_CONFIG;
    default: return 0;
  }
}

// "packets", "kernel", "config", "all", for the configuration and printers.
extern const trace_flag_entry daemon_trace_flags[];
extern const trace_types daemon_trace_types[];

// A tracer context of the platform calls.
struct trace_ctx_t {
  trace_handle *tc_handle;  // the handle lines go through; null until a file is known
  uint32_t tc_flags;        // flags set (daemon: DAEMON_TRACE_FLAG_*)
  uint32_t tc_aux_flags;    // control word of the handle (TRC_*)
};

inline bool daemon_trace_enabled(const trace_ctx_t *tc, uint32_t cls) {
  return tc && trace_enabled(tc->tc_handle, daemon_trace_flag_of(cls), 0);
}

// One line under cls when its flag is on; with priority >= 0 it also goes to
// syslog at that priority (-1: trace only). The format is the framework's
// (%A, %T, %m...): the macro below checks it while compiling, where C's
// printf attribute would misread those directives.
void daemon_trace(trace_ctx_t *tc, int priority, uint32_t cls, const char *fmt, ...);
#define daemon_trace(tc, priority, cls, ...)                                                              \
  ((false ? ztrace_check_format(__VA_ARGS__) : (void)0),                                                  \
   (daemon_trace_enabled((tc), (cls)) || (priority) >= 0) ? (daemon_trace)((tc), (priority), (cls), __VA_ARGS__) \
                                                          : (void)0)

// The error path in its tagged form: the line ("TAG: text...") goes to the
// log at severity (3 for an error) as an event named by tag, and to the
// context's trace file whenever one is open, whatever its flags. The process
// goes on.
//   daemon_trace_error(&tunechod_trace, 3, "TUNECHOD_MEM_ALLOC_FAILED",
//                      "TUNECHOD_MEM_ALLOC_FAILED: Mem alloc failed");
void daemon_trace_error(trace_ctx_t *tc, int severity, const char *tag, const char *fmt, ...);
#define daemon_trace_error(tc, severity, tag, ...) \
  ((false ? ztrace_check_format(__VA_ARGS__) : (void)0), (daemon_trace_error)((tc), (severity), (tag), __VA_ARGS__))

// Reads "traceoptions" under the object at path (null-ended names from the
// top) into tc. 1 on success (also when there are no trace options: tracing
// is then off), 0 on a configuration error (the context keeps what it had).
// ctx must be 0.
int daemon_trace_read_config(int ctx, const char *const *path, trace_ctx_t *tc);

// Releases the context's handle.
void daemon_trace_close(trace_ctx_t *tc);

// The trace family; formats are the framework's, printed through the hooks.
void trace(trace_ctx_t *tc, uint32_t flag, const char *fmt, ...);
bool trace_flag_is_set(const trace_ctx_t *tc, uint32_t flag);
void trace_flag_set(trace_ctx_t *tc, uint32_t flag);
void trace_flag_clear(trace_ctx_t *tc, uint32_t flag);
void trace_aux_flags_set(trace_ctx_t *tc, uint32_t flags);
// Opens path (relative names under /var/log) for the context, with a size
// limit and the generations kept. 0, or -1 when the file could not be opened.
int trace_file_open(trace_ctx_t *tc, const char *path, uint32_t size, uint32_t files);
