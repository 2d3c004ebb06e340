// The binding to the application: the context in force, its defaults and
// setters, trace_init and the per-process state.
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "config/ddl.h"
#include "evlog/evlog.h"
#include "internal.h"
#include "trace/trace_config.h"

namespace tvx::trace {

void assert_fail(const char *expr, const char *func, const char *file, int line) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expr, func, file, line);
  std::fflush(stderr);
  std::abort();
}

tbc &ctx() {
  static tbc c;
  return c;
}

char *scratch() {
  tbc &c = ctx();
  char *s = c.scratch[c.scratch_idx];
  c.scratch_idx = (c.scratch_idx + 1) % ZTRACE_SCRATCH_N;
  s[0] = '\0';
  return s;
}

pid_t line_pid() {
  ztrace_app_ctx *a = trace_app_ctx;
  if (a->cached_pid == 0) a->cached_pid = a->get_pid ? a->get_pid() : a->main_pid;
  return a->cached_pid;
}

namespace {

void *default_alloc(int, size_t size) { return calloc(1, size); }
void default_free(int, void *p) { free(p); }
char *default_strdup(const char *s) { return strdup(s); }
bool default_may_use(void) { return true; }
pid_t default_get_pid(void) { return getpid(); }

// The wall clock, its text cached per second.
const char *default_time_string(uint32_t *usec) {
  static time_t cached_sec = -1;
  static char text[32];
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  if (ts.tv_sec != cached_sec) {
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    strftime(text, sizeof text, "%b %e %H:%M:%S", &tm);
    cached_sec = ts.tv_sec;
  }
  *usec = static_cast<uint32_t>(ts.tv_nsec / 1000);
  return text;
}

char start_text[32];
const char *default_start_time_string(void) { return start_text; }

void default_parse_trace(const char *text) {
  ZTRACE_STMT(ztrace_enabled_flags, ztrace_global, ~0ull, 0, 0, "%s", text);
}

constexpr ztrace_app_ctx make_defaults() {
  ztrace_app_ctx c{};
  c.magic = ZTRACE_MAGIC;
  c.progname = "tavox";
  c.get_pid = default_get_pid;
  c.time_string = default_time_string;
  c.start_time_string = default_start_time_string;
  c.ztrace_snprintf = snprintf;
  c.ztrace_fprintf = fprintf;
  c.ztrace_sprintf = sprintf;
  c.ztrace_vsprintf = vsprintf;
  c.ztrace_vsnprintf = vsnprintf;
  c.ztrace_vfprintf = vfprintf;
  c.alloc = default_alloc;
  c.free = default_free;
  c.strdup = default_strdup;
  c.may_use = default_may_use;
  c.event = event_send_syslog;
  c.control_names = ztrace_control_names;
  c.parse_trace = default_parse_trace;
  return c;
}

constinit ztrace_app_ctx builtin = make_defaults();
bool builtin_backend_set = false;

void child_after_fork(void) { trace_app_ctx->cached_pid = 0; }

}  // namespace

}  // namespace tvx::trace

using namespace tvx::trace;

ztrace_app_ctx *trace_app_ctx = &builtin;

void ztrace_app_ctx_defaults(ztrace_app_ctx *c) {
  *c = make_defaults();
  ztrace_backend_reset(c);
}

void ztrace_set_alloc(void *(*a)(int, size_t), void (*f)(int, void *), char *(*d)(const char *)) {
  trace_app_ctx->alloc = a;
  trace_app_ctx->free = f;
  trace_app_ctx->strdup = d;
}

void ztrace_set_printf(int (*snp)(char *, size_t, const char *, ...), int (*fp)(FILE *, const char *, ...),
                       int (*sp)(char *, const char *, ...), int (*vsp)(char *, const char *, va_list),
                       int (*vsnp)(char *, size_t, const char *, va_list),
                       int (*vfp)(FILE *, const char *, va_list)) {
  ztrace_app_ctx *c = trace_app_ctx;
  c->ztrace_snprintf = snp;
  c->ztrace_fprintf = fp;
  c->ztrace_sprintf = sp;
  c->ztrace_vsprintf = vsp;
  c->ztrace_vsnprintf = vsnp;
  c->ztrace_vfprintf = vfp;
}

void ztrace_set_time(const char *(*fn)(uint32_t *usec)) { trace_app_ctx->time_string = fn; }

void ztrace_set_format_lookups(int (*zext)(int, int, int *, int *, int *), int (*zgf)(int, int *, int *)) {
  ztrace_app_ctx *c = trace_app_ctx;
  if (c == &builtin && !builtin_backend_set) {
    ztrace_backend_reset(c);  // or trace_init's first reset would undo this
    builtin_backend_set = true;
  }
  c->backend.ztask_ztrace_zext = zext;
  c->backend.ztask_ztrace_zgf = zgf;
}
void ztrace_set_progname(const char *name) { trace_app_ctx->progname = name; }

void ztrace_set_syslog_mode(int mode) { ctx().syslog_mode = mode; }
int ztrace_syslog_mode(void) { return ctx().syslog_mode; }
void ztrace_pid_reset(void) { trace_app_ctx->cached_pid = 0; }

void trace_init(ztrace_app_ctx *c) {
  if (!c) {
    c = &builtin;
    if (!builtin_backend_set) ztrace_backend_reset(c);
    builtin_backend_set = true;
  }
  ZTRACE_ASSERT_MSG(c->magic == ZTRACE_MAGIC, "trace_app_ctx->init.magic == ZTRACE_MAGIC");
  ZTRACE_ASSERT_MSG(c->ztrace_snprintf, "ZTRACE_SNPRINTF");
  ZTRACE_ASSERT_MSG(c->ztrace_fprintf, "ZTRACE_FPRINTF");
  ZTRACE_ASSERT_MSG(c->ztrace_vsprintf, "ZTRACE_VSPRINTF");
  ZTRACE_ASSERT_MSG(c->ztrace_vsnprintf, "ZTRACE_VSNPRINTF");
  ZTRACE_ASSERT_MSG(c->ztrace_vfprintf, "ZTRACE_VFPRINTF");
  ZTRACE_ASSERT_MSG(c->alloc && c->free && c->strdup, "trace_app_ctx->alloc");
  // Slots the caller left empty take the defaults.
  ztrace_backend defaults;
  {
    ztrace_app_ctx tmp{};
    ztrace_backend_reset(&tmp);
    defaults = tmp.backend;
  }
  auto fill = [](auto &slot, auto dflt) {
    if (!slot) slot = dflt;
  };
  ztrace_backend &b = c->backend;
  fill(b.append, defaults.append);
  fill(b.start_message, defaults.start_message);
  fill(b.write_line, defaults.write_line);
  fill(b.reset_message, defaults.reset_message);
  fill(b.first, defaults.first);
  fill(b.next, defaults.next);
  fill(b.find_by_name, defaults.find_by_name);
  fill(b.add, defaults.add);
  fill(b.remove, defaults.remove);
  fill(b.release, defaults.release);
  fill(b.finish, defaults.finish);
  fill(b.ztask_ztrace_fmtinit, defaults.ztask_ztrace_fmtinit);
  fill(b.render, defaults.render);
  fill(b.set_stream, defaults.set_stream);
  fill(b.off, defaults.off);
  fill(b.on, defaults.on);
  fill(b.toggle, defaults.toggle);
  fill(b.add_bytes, defaults.add_bytes);
  fill(c->may_use, &default_may_use);
  fill(c->time_string, &default_time_string);
  fill(c->start_time_string, &default_start_time_string);
  fill(c->parse_trace, &default_parse_trace);
  fill(c->control_names, ztrace_control_names);
  if (!c->main_pid) c->main_pid = getpid();
  c->cached_pid = 0;
  trace_app_ctx = c;

  static bool atfork = false;
  if (!atfork) {
    pthread_atfork(nullptr, nullptr, child_after_fork);
    atfork = true;
  }
  if (!start_text[0]) {
    uint32_t usec;
    strncpy(start_text, default_time_string(&usec), sizeof start_text - 1);
  }

  global_handle_make();
  ddl_access_config_error_set_trace_func(c->parse_trace);
  ddl_access_config_error_set_vsnprintf_func(c->ztrace_vsnprintf);
  logging_set_vsnprintf(c->ztrace_vsnprintf);
  c->backend.on(ztrace_global->tr_file);
}

void trace_shutdown(void) {
  ztrace_app_ctx *c = trace_app_ctx;
  if (ztrace_global) {
    trace_handle *g = ztrace_global;
    ztrace_global = nullptr;
    if (g->tr_file) {
      __atomic_fetch_sub(&g->tr_file->trf_trpcount, 1, __ATOMIC_SEQ_CST);
      c->backend.release(g->tr_file);
    }
    if (g->tr_filters) trace_filter_free(g->tr_filters);
    release(TRACE_CLASS_HANDLE, g);
  }
  // Interned handles left by modules that never released them.
  tbc &t = ctx();
  while (hbt_node *n = hbt_iterate_next(&t.trace_list, nullptr)) {
    trace_handle *tp = HBT_ENTRY(n, trace_handle, tr_hnode);
    hbt_delete(&t.trace_list, n);
    if (tp->tr_file) {
      __atomic_fetch_sub(&tp->tr_file->trf_trpcount, 1, __ATOMIC_SEQ_CST);
      c->backend.release(tp->tr_file);
    }
    if (tp->tr_filters) trace_filter_free(tp->tr_filters);
    release(TRACE_CLASS_HANDLE, tp);
  }
  // Files still retained by their holders are closed and freed.
  while (trace_file *f = c->files) {
    c->files = f->trf_next;
    if (f->trf_stream && f->trf_stream != stderr) fclose(f->trf_stream);
    release(TRACE_CLASS_FILENAME, f->trf_name);
    release(TRACE_CLASS_FILE, f);
  }
  filters_shutdown();
  release(TRACE_CLASS_FILENAME, t.event_name);
  t.event_name = nullptr;
  ztrace_msg_reset();
}
