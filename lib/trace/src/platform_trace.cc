// The platform's tracer calls (daemon_trace, trace and their kin) as
// forwarders to the trace core.
#include "trace/platform_trace.h"

#include "internal.h"

const trace_flag_entry daemon_trace_flags[] = {
    {1, DAEMON_TRACE_FLAG_PACKETS, 0, 0, 0, TRACE_KIND_PLAIN, "packets"},
    {2, DAEMON_TRACE_FLAG_KERNEL, 0, 0, 0, TRACE_KIND_PLAIN, "kernel"},
    {3, DAEMON_TRACE_FLAG_CONFIG, 0, 0, 0, TRACE_KIND_PLAIN, "config"},
    {4, DAEMON_TRACE_FLAG_ALL, 0, 0, 0, TRACE_KIND_PLAIN, "all"},
    {0, 0, 0, 0, 0, 0, nullptr},
};

const trace_types daemon_trace_types[] = {
    {DAEMON_TRACE_FLAG_PACKETS, 0, "packets"},
    {DAEMON_TRACE_FLAG_KERNEL, 0, "kernel"},
    {DAEMON_TRACE_FLAG_CONFIG, 0, "config"},
    {0, 0, nullptr},
};

namespace {

// Writes the formatted line through the handle (and syslog when asked, with
// the tag that names the message).
void write_line(trace_ctx_t *tc, int priority, uint32_t flag, const char *tag, const char *fmt, va_list ap) {
  ztrace_msg m{};
  static ztrace_callsite site;  // the forwarders render formats as they come
  m.zm_site = &site;
  m.zm_errno = errno;
  m.zm_flags = flag;
  m.zm_priority = priority >= 0 ? priority : 0;
  m.zm_trace = tc ? tc->tc_handle : nullptr;
  // An error goes to the trace file whatever the flags: it is the line an
  // operator reading the trace needs most.
  m.zm_to_trace = tc && (tag ? ztrace_file_on(tc->tc_handle ? tc->tc_handle->tr_file : nullptr)
                             : trace_enabled(tc->tc_handle, flag, 0));
  if (m.zm_to_trace) {
    va_list copy;
    va_copy(copy, ap);
    ztrace_fmt_valist(true, fmt, __FILE__, __func__, __LINE__, &m, copy);
    va_end(copy);
  }
  if (priority >= 0) {
    errno = m.zm_errno;
    ztrace_msg_reset();
    ztrace_msg_vappend(fmt, ap);
    ztrace_syslog(priority, tag);
    ztrace_msg_reset();
  }
  errno = m.zm_errno;
}

// Re-stores the context's handle with its flags and control word, on the
// same file.
void restore(trace_ctx_t *tc) {
  if (!tc->tc_handle) return;
  trace_file *f = trace_file_retain(tc->tc_handle->tr_file);
  ztrace_store(&tc->tc_handle, tc->tc_flags, 0, tc->tc_aux_flags, f, tc->tc_handle->tr_types);
}

}  // namespace

void(daemon_trace)(trace_ctx_t *tc, int priority, uint32_t cls, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write_line(tc, priority, daemon_trace_flag_of(cls), nullptr, fmt, ap);
  va_end(ap);
}

void(daemon_trace_error)(trace_ctx_t *tc, int severity, const char *tag, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write_line(tc, severity, 0, tag, fmt, ap);
  va_end(ap);
}

int daemon_trace_read_config(int, const char *const *path, trace_ctx_t *tc) {
  if (!tc) return 0;
  ddl_object_t *obj = nullptr;
  if (!dax_get_object_by_path(nullptr, path, &obj)) {
    daemon_trace_close(tc);
    return 1;
  }
  const bool ok =
      ztrace_config_trace_options(obj, &tc->tc_handle, daemon_trace_flags, daemon_trace_types, nullptr, nullptr);
  dax_release_object(&obj);
  if (!ok) return 0;
  tc->tc_flags = tc->tc_handle ? static_cast<uint32_t>(tc->tc_handle->tr_flags) : 0;
  tc->tc_aux_flags = tc->tc_handle ? tc->tc_handle->tr_control : 0;
  return 1;
}

void daemon_trace_close(trace_ctx_t *tc) {
  if (!tc) return;
  trace_free(tc->tc_handle);
  tc->tc_handle = nullptr;
  tc->tc_flags = 0;
}

void trace(trace_ctx_t *tc, uint32_t flag, const char *fmt, ...) {
  if (!tc || !trace_enabled(tc->tc_handle, flag, 0)) return;
  va_list ap;
  va_start(ap, fmt);
  write_line(tc, -1, flag, nullptr, fmt, ap);
  va_end(ap);
}

bool trace_flag_is_set(const trace_ctx_t *tc, uint32_t flag) { return tc && (tc->tc_flags & flag); }

void trace_flag_set(trace_ctx_t *tc, uint32_t flag) {
  if (!tc) return;
  tc->tc_flags |= flag;
  restore(tc);
}

void trace_flag_clear(trace_ctx_t *tc, uint32_t flag) {
  if (!tc) return;
  tc->tc_flags &= ~flag;
  restore(tc);
}

void trace_aux_flags_set(trace_ctx_t *tc, uint32_t flags) {
  if (!tc) return;
  tc->tc_aux_flags = flags;
  restore(tc);
}

int trace_file_open(trace_ctx_t *tc, const char *path, uint32_t size, uint32_t files) {
  if (!tc || !path) return -1;
  trace_file *f = trace_file_locate(path, size, 0, files, 0, nullptr, false);
  if (!f) return -1;
  const trace_types *types = tc->tc_handle ? tc->tc_handle->tr_types : nullptr;
  trace_handle *tp = ztrace_store(&tc->tc_handle, tc->tc_flags, 0, tc->tc_aux_flags, f, types);
  trace_on(tp->tr_file);
  return tp->tr_file->trf_stream ? 0 : -1;
}
