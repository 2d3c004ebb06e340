// Writing a line: the prefix, the size limit and rotation, the line controls,
// and what a failed write does.
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "internal.h"
#include "platform/backtrace.h"

namespace tvx::trace {
namespace {

constexpr size_t kPrefixMax = 2048;

// Decimal digits of v, right-aligned ending at end; returns the start.
char *digits(char *end, uint64_t v) {
  do {
    *--end = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  return end;
}

// The prefix of a line: time text and microseconds, "[pid] " outside the
// main process, the stack. Built by hand: it runs for every line.
size_t build_prefix(char *out, const trace_handle *tp, uint32_t control) {
  ztrace_app_ctx *a = trace_app_ctx;
  size_t n = 0;
  if (!((control | tp->tr_control) & TRC_NO_TIMESTAMP)) {
    uint32_t usec = 0;
    const char *t = a->time_string(&usec);
    if (t && *t) {
      size_t tl = strnlen(t, 64);
      memcpy(out, t, tl);
      n = tl;
      out[n++] = '.';
      uint32_t u = usec % 1000000;
      for (int i = 5; i >= 0; i--, u /= 10) out[n + i] = static_cast<char>('0' + u % 10);
      n += 6;
      out[n++] = ' ';
    }
  }
  const pid_t pid = line_pid();
  if (pid != a->main_pid) {
    char buf[ZTRACE_PID_LEN + 1];
    char *end = buf + sizeof buf;
    char *p = digits(end, static_cast<uint64_t>(pid < 0 ? -pid : pid));
    if (pid < 0) *--p = '-';
    size_t len = static_cast<size_t>(end - p);
    if (len > ZTRACE_PID_LEN - 1) len = ZTRACE_PID_LEN - 1;  // room for "%d" and its NUL
    out[n++] = '[';
    memcpy(out + n, p, len);
    n += len;
    out[n++] = ']';
    out[n++] = ' ';
  }
  if ((control & TRC_STACK) && (tp->tr_control & TRC_STACK)) {
    void *frames[20];
    int count = tvx_backtrace(frames, 20);
    if (count >= 2) {
      for (int i = 1; i < count && n + 24 < kPrefixMax; i++) {
        int w = a->ztrace_snprintf(out + n, kPrefixMax - n, "^0x%lx ", reinterpret_cast<unsigned long>(frames[i]));
        if (w > 0) n += static_cast<size_t>(w);
      }
    }
  }
  out[n] = '\0';
  return n;
}

inline bool put(FILE *s, const char *p, size_t n) { return n == 0 || fwrite_unlocked(p, 1, n, s) == n; }
inline bool put_nl(FILE *s) { return fputc_unlocked('\n', s) != EOF; }

}  // namespace
}  // namespace tvx::trace

using namespace tvx::trace;

void ztrace_trace_st(trace_handle *tp, uint32_t control) {
  ztrace_app_ctx *a = trace_app_ctx;
  tbc &c = ctx();
  if (!a->may_use() || !tp || !tp->tr_file || !tp->tr_file->trf_stream || c.cursor == 0) return;
  if (control & TRC_LOG_ONLY) return;
  trace_file *f = tp->tr_file;

  char prefix[kPrefixMax];
  const size_t plen = build_prefix(prefix, tp, control);
  const uint32_t len = static_cast<uint32_t>(plen + c.cursor + 1);
  FILE *s = f->trf_stream;
  if (s != stderr && f->trf_limit_size && static_cast<uint64_t>(f->trf_size) + len > f->trf_limit_size) {
    // The old file ends with a line of its own: the prefix, then the rotation notice.
    put(s, prefix, plen);
    trace_rotate(f);
    s = f->trf_stream;
    if (!s) return;
  }
  f->trf_size += len;
  a->backend.add_bytes(f, len);

  const uint32_t all = control | tp->tr_control;
  bool ok = true;
  if (all & TRC_NL_BEFORE) ok = put(s, prefix, plen) && put_nl(s);
  ok = ok && put(s, prefix, plen) && put(s, c.msg, c.cursor);
  if (all & TRC_NL_AFTER) ok = ok && put_nl(s) && put(s, prefix, plen);
  if (!(all & TRC_NO_NEWLINE)) ok = ok && put_nl(s);
  if (!ok) {
    clearerr(s);
    ztrace_msg_reset();
    ztrace_msg_append("ZTRACE_FAILED: Unable to write to trace file %s", f->trf_name ? f->trf_name : "(stderr)");
    ztrace_syslog(LOG_ERR, "ZTRACE_FAILED");
    ztrace_msg_reset();
    trace_off_st(f, false);
  }
}

void trace_rotate(trace_file *f) {
  if (!f || !f->trf_name) return;
  ztrace_app_ctx *a = trace_app_ctx;
  if (f->trf_stream) fputs("trace_rotate: Rotating trace files\n", f->trf_stream);
  report_syslog(LOG_INFO, nullptr, "trace_rotate: rotating %s", f->trf_name);
  a->backend.set_stream(f, nullptr);
  rotate_log(f->trf_name, f->trf_limit_files, 2);
  trace_on_safe(f);
}

// name.(files-2) is the oldest kept: it is dropped, the others move up one,
// and name becomes name.0.
int rotate_log(const char *name, unsigned files, int mode) {
  if (!name || mode != 2) return EINVAL;
  auto gen = [name](unsigned i) { return std::string(name) + "." + std::to_string(i); };
  if (files < 2) {
    if (unlink(name) != 0 && errno != ENOENT) return errno;
    return 0;
  }
  if (unlink(gen(files - 2).c_str()) != 0 && errno != ENOENT) return errno;
  for (unsigned i = files - 2; i-- > 0;)
    if (rename(gen(i).c_str(), gen(i + 1).c_str()) != 0 && errno != ENOENT) return errno;
  if (rename(name, gen(0).c_str()) != 0 && errno != ENOENT) return errno;
  return 0;
}
