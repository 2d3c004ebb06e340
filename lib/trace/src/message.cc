// The statement path: the message buffer, call-site preparation, rendering,
// the syslog path and the event path.
#include <cstring>

#include "internal.h"
#include "platform/backtrace.h"

namespace tvx::trace {

namespace {

// Keeps the message in progress across a report of the library's own.
struct saved_message {
  char text[ZTRACE_MSG_SIZE];
  size_t cursor, remaining;
  saved_message() {
    tbc &c = ctx();
    memcpy(text, c.msg, c.cursor + 1);
    cursor = c.cursor;
    remaining = c.remaining;
  }
  ~saved_message() {
    tbc &c = ctx();
    memcpy(c.msg, text, cursor + 1);
    c.cursor = cursor;
    c.remaining = remaining;
  }
};

}  // namespace

void report(int priority, uint32_t control, const char *fmt, ...) {
  saved_message keep;
  const int saved_errno = errno;
  ztrace_msg_reset();
  va_list ap;
  va_start(ap, fmt);
  ztrace_msg_vappend(fmt, ap);
  va_end(ap);
  ztrace_syslog(priority, nullptr);
  if (trace_enabled(ztrace_global, ~0u, ~0u)) trace_app_ctx->backend.write_line(ztrace_global, control);
  ztrace_msg_reset();
  errno = saved_errno;
}

void report_syslog(int priority, const char *tag, const char *fmt, ...) {
  saved_message keep;
  const int saved_errno = errno;
  ztrace_msg_reset();
  va_list ap;
  va_start(ap, fmt);
  ztrace_msg_vappend(fmt, ap);
  va_end(ap);
  ztrace_syslog(priority, tag);
  ztrace_msg_reset();
  errno = saved_errno;
}

namespace {

void default_append(const char *fmt, va_list ap) {
  tbc &c = ctx();
  const int saved = errno;
  c.appends++;
  if (c.remaining > 1) {
    int n = ZTRACE_VSNPRINTF(c.msg + c.cursor, c.remaining, fmt, ap);
    size_t took = n < 0 ? 0 : static_cast<size_t>(n);
    if (took > c.remaining - 1) took = c.remaining - 1;
    c.cursor += took;
    c.remaining -= took;
    c.msg[c.cursor] = '\0';
  }
  errno = saved;
}

char *default_start_message(void) { return ctx().msg + ctx().cursor; }

void default_reset_message(void) {
  tbc &c = ctx();
  c.cursor = 0;
  c.msg[0] = '\0';
  c.remaining = ZTRACE_MSG_SIZE;
}

// Conversion characters that end a directive of the system's printf, and the
// framework's own (T t A m B b a; z and Z take a letter).
bool ends_directive(char ch) { return ch && strchr("diouxXeEfFgGaAcspnmTtBbzZ", ch) != nullptr; }

// Records the call site and its segments. Extension directives ask the
// framework's look-up for their argument count; an unknown letter is an error.
int default_fmtinit(ztrace_callsite *site, const char *fmt, const char *file, const char *func, int line) {
  site->zcs_file = file;
  site->zcs_func = func;
  site->zfmt_fmtstr = fmt;
  size_t len = strlen(fmt);
  site->zcs_fmtlen = static_cast<uint16_t>(len > 0xffff ? 0xffff : len);
  site->zcs_nseg = 0;
  site->zcs_next = 0;
  const ztrace_backend &b = trace_app_ctx->backend;
  for (const char *p = fmt; (p = strchr(p, '%')) != nullptr;) {
    const char *start = p++;
    if (*p == '%' || *p == ' ') {
      p++;
      continue;
    }
    while (*p && strchr("#-+0123456789*.lLhqj", *p)) p++;
    if (!ends_directive(*p)) continue;
    ztrace_segment seg{};
    seg.zs_start = static_cast<uint16_t>(start - fmt);
    seg.zs_letter = static_cast<uint8_t>(*p);
    seg.zs_argcount = *p == 'm' ? 0 : 1;
    if (*p == 'z' || *p == 'Z') {
      const char letter = p[1];
      if (!letter) return EINVAL;
      p++;
      seg.zs_letter = static_cast<uint8_t>(letter);
      seg.zs_ext = 1;
      if (letter != 'T' && b.ztask_ztrace_zext) {
        int code, v2, fam;
        int count = 1;
        if (b.ztask_ztrace_zext(letter, 1, &code, &v2, &fam) != 0) {
          if (b.ztask_ztrace_zext(letter, 2, &code, &v2, &fam) != 0) return EINVAL;
          count = 2;
        }
        seg.zs_argcount = static_cast<uint16_t>(count);
      }
      site->zcs_next = static_cast<uint16_t>(site->zcs_next + seg.zs_argcount);
    }
    seg.zs_end = static_cast<uint16_t>(p + 1 - fmt);
    p++;
    if (site->zcs_nseg < ZTASK_FMT_MAXARGS) site->zcs_seg[site->zcs_nseg++] = seg;
  }
  site->zcs_line = line;
  return 0;
}

void append_stack(void) {
  tbc &c = ctx();
  if (c.remaining <= 9) return;
  const size_t mark = c.cursor;
  ztrace_msg_append(" ");
  void *frames[20];
  int n = tvx_backtrace(frames, 20);
  int added = 0;
  for (int i = 1; i < n; i++, added++) ztrace_msg_append("^%p ", frames[i]);
  if (!added) {
    c.cursor = mark;
    c.remaining = ZTRACE_MSG_SIZE - mark;
    c.msg[mark] = '\0';
  }
}

void default_render(ztrace_msg *m, const char *fmt, va_list ap) {
  errno = m->zm_errno;
  trace_app_ctx->backend.append(fmt, ap);
  if (m->zm_priority) {
    if (m->zm_control & TRC_STACK) append_stack();
    ztrace_syslog(m->zm_priority, nullptr);
  }
  if (m->zm_to_trace) trace_app_ctx->backend.write_line(m->zm_trace, m->zm_control);
}

}  // namespace

void fill_message_backend(ztrace_backend &b) {
  b.append = default_append;
  b.start_message = default_start_message;
  b.write_line = ztrace_trace_st;
  b.reset_message = default_reset_message;
  b.ztask_ztrace_fmtinit = default_fmtinit;
  b.render = default_render;
}

}  // namespace tvx::trace

using namespace tvx::trace;

void ztrace_msg_vappend(const char *fmt, va_list ap) { trace_app_ctx->backend.append(fmt, ap); }

void ztrace_msg_append(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  trace_app_ctx->backend.append(fmt, ap);
  va_end(ap);
}

const char *ztrace_msg_text(void) { return ctx().msg; }
size_t ztrace_msg_len(void) { return ctx().cursor; }
void ztrace_msg_reset(void) { trace_app_ctx->backend.reset_message(); }
unsigned long ztrace_msg_appends(void) { return ctx().appends; }

void ztrace_syslog(int priority, const char *tag) {
  const char *text = ctx().msg;
  switch (ctx().syslog_mode) {
    case 0:
      if (trace_app_ctx->event) trace_app_ctx->event(priority, tag, "%s", text);
      break;
    case 2:
      if (priority < 5) fprintf(stderr, "%s\n", text);
      break;
    default:
      break;
  }
}

void ztrace_fmt_valist(bool dynamic, const char *fmt, const char *file, const char *func, int line,
                       ztrace_msg *m, va_list ap) {
  const ztrace_backend &b = trace_app_ctx->backend;
  if (dynamic) {
    tbc &c = ctx();
    errno = m->zm_errno;
    int n = ZTRACE_VSNPRINTF(c.msg, ZTRACE_MSG_SIZE, fmt, ap);
    size_t took = n < 0 ? 0 : static_cast<size_t>(n);
    if (took > ZTRACE_MSG_SIZE - 1) took = ZTRACE_MSG_SIZE - 1;
    c.cursor = took;
    c.remaining = ZTRACE_MSG_SIZE - took;
    if (m->zm_to_trace) b.write_line(m->zm_trace, m->zm_control);
  } else {
    if (m->zm_site->zcs_line == 0) {
      int rc = b.ztask_ztrace_fmtinit(m->zm_site, fmt, file, func, line);
      ZTRACE_ASSERT(!rc);
    }
    b.render(m, fmt, ap);
  }
  b.reset_message();
}

void ztrace_fmt(bool dynamic, const char *fmt, const char *file, const char *func, int line, ztrace_msg *m,
                ...) {
  va_list ap;
  va_start(ap, m);
  ztrace_fmt_valist(dynamic, fmt, file, func, line, m, ap);
  va_end(ap);
}

void ztrace_fmt_events_valist(const void *evobj, int index, const char *fmt, const char *file,
                              const char *func, int line, ztrace_msg *m, va_list ap) {
  ztrace_app_ctx *a = trace_app_ctx;
  const ztrace_backend &b = a->backend;
  if (m->zm_site->zcs_line == 0) {
    int rc = b.ztask_ztrace_fmtinit(m->zm_site, fmt, file, func, line);
    ZTRACE_ASSERT(!rc);
  }
  if (!evobj) return;
  char name[128] = "";
  if (a->event_name) a->event_name(evobj, index, name, sizeof name);
  const int severity = a->event_severity ? a->event_severity(evobj, index) : 0;
  if (severity == 5 || severity == 2 || severity == 3) m->zm_control |= TRC_EVENT;
  if (severity == 4 && a->event_level) m->zm_priority = a->event_level(evobj, index) & 0xff;
  if (a->event_report && (m->zm_control & TRC_EVENT)) {
    char text[ZTRACE_MSG_SIZE];
    char head[ZTRACE_MSG_SIZE];
    a->ztrace_snprintf(head, sizeof head, "%s %s", name, fmt);
    errno = m->zm_errno;
    a->ztrace_vsnprintf(text, sizeof text, head, ap);
    a->event_report(text);
  } else {
    ztrace_msg_append("%s ", name);
    b.render(m, fmt, ap);
  }
  b.reset_message();
}
