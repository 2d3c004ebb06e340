// Trace files: the list, look-up by name, opening without following links,
// turning off, the toggle.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "internal.h"
#include "platform/path.h"

namespace tvx::trace {
namespace {

trace_file *list_first(void) { return trace_app_ctx->files; }
trace_file *list_next(trace_file *f) { return f ? f->trf_next : nullptr; }

trace_file *list_find(const char *name) {
  for (trace_file *f = trace_app_ctx->files; f; f = f->trf_next) {
    if (!name && !f->trf_name) return f;
    if (name && f->trf_name && strcmp(name, f->trf_name) == 0) return f;
  }
  return nullptr;
}

// Appends, so that walks see files in the order they were made.
void list_add(trace_file *f) {
  trace_file **link = &trace_app_ctx->files;
  trace_file *prev = nullptr;
  while (*link) {
    prev = *link;
    link = &(*link)->trf_next;
  }
  f->trf_prev = prev;
  f->trf_next = nullptr;
  *link = f;
}

void list_remove(trace_file *f) {
  if (f->trf_prev)
    f->trf_prev->trf_next = f->trf_next;
  else if (trace_app_ctx->files == f)
    trace_app_ctx->files = f->trf_next;
  if (f->trf_next) f->trf_next->trf_prev = f->trf_prev;
  f->trf_next = f->trf_prev = nullptr;
}

void file_release(trace_file *f) {
  if (!f) return;
  int32_t old = __atomic_fetch_sub(&f->trf_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(old - 1 >= 0, "refcount-1 >= 0");
  if (old - 1 > 0) return;
  ZTRACE_ASSERT_MSG(f->trf_trpcount == 0, "tfp->trf_trpcount == 0");
  trace_app_ctx->backend.off(f, false);
  trace_app_ctx->backend.remove(f);
  release(TRACE_CLASS_FILENAME, f->trf_name);
  release(TRACE_CLASS_FILE, f);
}

void set_stream(trace_file *f, FILE *stream) {
  FILE *old = f->trf_stream;
  f->trf_stream = stream;
  if (old && old != stderr && old != stream) fclose(old);
}

void add_bytes(trace_file *f, uint32_t n) { f->trf_bytes += n; }

void on_hook(trace_file *f) {
  trace_on_safe(f);
  f->trf_flags &= ~TRF_REPLACE;
  f->trf_changed = 0;
}

void toggle(void) {
  const ztrace_backend &b = trace_app_ctx->backend;
  bool any_open = false;
  for (trace_file *f = b.first(); f; f = b.next(f))
    if (f->trf_stream && f->trf_name) any_open = true;
  for (trace_file *f = b.first(); f; f = b.next(f)) {
    if (!f->trf_name) continue;
    if (any_open)
      b.off(f, true);
    else
      b.on(f);
  }
}

// The real path of a trace file name.
std::string file_path(const char *name, const char *subdir, bool no_create) {
  if (name[0] == '/') return tvx_path(name);
  const ztrace_app_ctx *a = trace_app_ctx;
  std::string dir = a->logdir ? a->logdir : path_solvane_log_dir();
  const char *sub = subdir ? subdir : a->default_subdir;
  if (sub && *sub) {
    dir += "/";
    dir += sub;
    if (!no_create) tvx_mkdirs(dir.c_str(), 0755);
  }
  return dir + "/" + name;
}

}  // namespace

void fill_file_backend(ztrace_backend &b) {
  b.first = list_first;
  b.next = list_next;
  b.find_by_name = list_find;
  b.add = list_add;
  b.remove = list_remove;
  b.release = file_release;
  b.set_stream = set_stream;
  b.off = trace_off_st;
  b.on = on_hook;
  b.toggle = toggle;
  b.add_bytes = add_bytes;
}

}  // namespace tvx::trace

using namespace tvx::trace;

namespace {
void default_finish(void) {}
}  // namespace

void ztrace_backend_reset(ztrace_app_ctx *c) {
  c->backend = ztrace_backend{};
  fill_message_backend(c->backend);
  fill_file_backend(c->backend);
  c->backend.finish = default_finish;
}

trace_file *trace_file_retain(trace_file *f) {
  if (!f) return nullptr;
  int32_t old = __atomic_fetch_add(&f->trf_refcount, 1, __ATOMIC_SEQ_CST);
  ZTRACE_ASSERT_MSG(old + 1 > 0, "refcount+1 > 0");
  return f;
}

void trace_file_release(trace_file *f) { trace_app_ctx->backend.release(f); }

trace_file *trace_file_locate(const char *name, uint32_t size, uint32_t, uint32_t files, uint32_t flags,
                              const char *subdir, bool no_create) {
  if (!name) return ztrace_global ? trace_file_retain(ztrace_global->tr_file) : nullptr;
  const ztrace_backend &b = trace_app_ctx->backend;
  const std::string path = file_path(name, subdir, no_create);
  trace_file *f = trace_app_ctx->may_use() ? b.find_by_name(path.c_str()) : nullptr;
  if (!f) {
    f = static_cast<trace_file *>(alloc(TRACE_CLASS_FILE, sizeof(trace_file)));
    f->trf_name = dup(path.c_str());
    f->trf_limit_size = size;
    f->trf_limit_files = files;
    f->trf_flags = flags & (TRF_REPLACE | TRF_WORLD_READABLE);
    f->trf_refcount = 1;
    b.add(f);
    return f;
  }
  trace_file_retain(f);
  const char *fn = "trace_file_locate";
  if (f->trf_limit_size != size) {
    report(LOG_WARNING, 0, "%s: replacing %s file size limit %u with %u", fn, f->trf_name, f->trf_limit_size, size);
    f->trf_limit_size = size;
  }
  if (f->trf_limit_files != files) {
    report(LOG_WARNING, 0, "%s: replacing %s file count limit %u with %u", fn, f->trf_name, f->trf_limit_files,
           files);
    f->trf_limit_files = files;
  }
  if ((f->trf_flags ^ flags) & TRF_REPLACE) {
    report(LOG_WARNING, 0, "%s: changing %s to %s", fn, f->trf_name, flags & TRF_REPLACE ? "replace" : "append");
    f->trf_flags ^= TRF_REPLACE;
    f->trf_changed = 0;
  }
  if ((f->trf_flags ^ flags) & TRF_WORLD_READABLE) {
    const bool wr = flags & TRF_WORLD_READABLE;
    report(LOG_WARNING, 0, "%s: changing %s to %s", fn, f->trf_name, wr ? "world-readable" : "non-world-readable");
    f->trf_flags ^= TRF_WORLD_READABLE;
    f->trf_changed = 0;
    // Through the open descriptor only: the path may name something else by
    // now (a link planted there). A file not open takes its mode when opened.
    FILE *s = f->trf_stream;
    if (s && s != stderr) {
      struct stat st;
      int fd = fileno(s);
      if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) fchmod(fd, wr ? 0644 : 0640);
    }
  }
  return f;
}

void trace_on_safe(trace_file *f) {
  if (!f || f->trf_stream) return;
  ztrace_app_ctx *a = trace_app_ctx;
  const char *name = f->trf_name;
  if (name) {
    bool append = (a->options & ZTRACE_OPT_INCREMENTAL) || !(f->trf_flags & TRF_REPLACE);
    struct stat st;
    uint32_t size = 0;
    bool regular = false;
    if (lstat(name, &st) != 0) {
      if (errno != ENOENT) {
        report(LOG_ERR, 0, "trace_on: stat(%s): %m", name);
        return;
      }
    } else {
      size = static_cast<uint32_t>(st.st_size);
      if (S_ISBLK(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)) {
        report(LOG_ERR, 0, "trace_on: \"%s\" is not a regular file", name);
        return;
      }
      regular = S_ISREG(st.st_mode);
      if (!regular) {
        if (f->trf_limit_size) {
          f->trf_limit_size = 0;
          report(LOG_WARNING, 0, "trace_on: \"%s\" is not a regular file, ignoring size limit", name);
        }
        append = false;
      }
    }
    const mode_t mode = (f->trf_flags & TRF_WORLD_READABLE) ? 0644 : 0640;
    // O_NOFOLLOW closes the window between lstat and open.
    int fd = open(name, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), mode);
    if (fd < 0) {
      report(LOG_ERR, 0, "Could not open \"%s\": %s", name, strerror(errno));
      return;
    }
    // An existing file takes the mode through the descriptor, never the path.
    if (regular && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) fchmod(fd, mode);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK)
        report(LOG_ERR, 0, "trace_on: trace file \"%s\" appears to be in use", name);
      else
        report(LOG_ERR, 0, "trace_on: Could not obtain lock on \"%s\": %s", name, strerror(errno));
      close(fd);
      return;
    }
    if (!append) size = 0;
    FILE *s = fdopen(fd, append ? "a" : "w");
    if (!s) {
      report(LOG_ERR, 0, "trace_on: can not open \"%s\" for writing: %s", name, strerror(errno));
      close(fd);
      return;
    }
    setvbuf(s, nullptr, _IOLBF, BUFSIZ);
    a->backend.set_stream(f, s);
    f->trf_size = size;
    report_syslog(LOG_INFO, nullptr, "trace_on: tracing to \"%s\" started", name);
    uint32_t usec;
    const char *t = a->time_string(&usec);
    if (!t) t = "";
    int n = a->ztrace_fprintf(s, "%s%strace_on: Tracing to \"%s\" started\n", t, *t ? " " : "", name);
    if (n > 0) f->trf_size += static_cast<uint32_t>(n);
  } else {
    a->backend.set_stream(f, stderr);
  }
}

void trace_on(trace_file *f) {
  if (f) trace_app_ctx->backend.on(f);
}

void trace_off_st(trace_file *f, bool announce) {
  if (!f) return;
  FILE *s = f->trf_stream;
  f->trf_stream = nullptr;
  if (announce) report(LOG_INFO, TRC_NL_AFTER | TRC_NL_BEFORE, "Tracing to \"%s\" suspended", f->trf_name ? f->trf_name : "(stderr)");
  if (s && s != stderr) fclose(s);
}

void trace_toggle(void) { trace_app_ctx->backend.toggle(); }
