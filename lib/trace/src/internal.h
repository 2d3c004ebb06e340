// Private to the trace library: the per-process context, the assertion path
// and the allocation helpers every source uses.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "trace/trace.h"

namespace tvx::trace {

// Writes the failed expression to stderr and aborts.
[[noreturn]] void assert_fail(const char *expr, const char *func, const char *file, int line);

// The one per-process trace context.
struct tbc {
  char msg[ZTRACE_MSG_SIZE];
  size_t cursor = 0;                  // bytes in msg
  size_t remaining = ZTRACE_MSG_SIZE;
  unsigned long appends = 0;
  char scratch[ZTRACE_SCRATCH_N][ZTRACE_MSG_SIZE];
  unsigned scratch_idx = 0;
  hbt_root trace_list{};
  void *app_word = nullptr;
  char *event_name = nullptr;
  int syslog_mode = 0;
  bool config_pending = false;
};

tbc &ctx();

// The next scratch string of the rotation, emptied.
char *scratch();

inline void *alloc(int cls, size_t size) { return trace_app_ctx->alloc(cls, size); }
inline void release(int cls, void *p) {
  if (p) trace_app_ctx->free(cls, p);
}
inline char *dup(const char *s) { return trace_app_ctx->strdup(s); }

// The pid of lines, cached.
pid_t line_pid();

// A statement of the library itself at a syslog priority, to the syslog path
// and the global trace; the message buffer in progress survives it.
void report(int priority, uint32_t control, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// Opens the global handle's stderr file when the handle is made.
void global_handle_make();
// Releases every filter node (trace_shutdown).
void filters_shutdown();
// Drops a reference to an interned filter table that another holder keeps.
void filter_unref_shared(trace_filter *table);
// Default back-end slots, by source.
void fill_message_backend(ztrace_backend &b);
void fill_file_backend(ztrace_backend &b);
// A report at priority to the syslog path only; the message buffer survives.
void report_syslog(int priority, const char *tag, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

}  // namespace tvx::trace

#define ZTRACE_ASSERT(expr) \
  ((expr) ? (void)0 : ::tvx::trace::assert_fail(#expr, __func__, __FILE__, __LINE__))
#define ZTRACE_ASSERT_MSG(cond, text) \
  ((cond) ? (void)0 : ::tvx::trace::assert_fail(text, __func__, __FILE__, __LINE__))
