// The event library over the task kernel.
#include "ipc/ev.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>

#include "htimer/utime.h"
#include "task/io.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

namespace {

constexpr uint32_t kCtxMagic = 0x65766378;  // "evcx"

struct ev_ctx;
struct ev_conn;

struct ev_sel {
  struct ev_fd *owner;
  int mask;
  __evFileFunc func;
  void *uap;
  bool dead;
  ev_sel *next;
  ev_conn *conn;  // a connect waiting for writability
};

struct ev_fd {
  ev_ctx *ctx;
  int fd;
  task *tp;
  ev_sel *sels;
  int busy;  // dispatches under way: dead selections are swept after them
  int applied;  // the mask the task's interest stands for
};

struct ev_timer {
  ev_ctx *ctx;
  task_timer *tip;
  __evTimerFunc func;
  void *uap;
  timespec due, inter;
  bool running, dead;
  ev_timer *next, *prev;
};

struct ev_conn {
  ev_ctx *ctx;
  int fd;
  __evConnFunc func;
  void *uap;
  sockaddr_storage ra;
  socklen_t ralen;
  task_job *job;  // completed at once: reported by this job
  ev_sel *sel;    // in progress: reported on writability
  ev_conn *next, *prev;
};

struct ev_ctx {
  uint32_t magic;
  task *tp;  // owner of the timers and jobs
  std::unordered_map<int, ev_fd *> fds;
  ev_timer *timers;
  ev_conn *conns;
};

ev_ctx *ctx_of(__evContext c) {
  auto *x = static_cast<ev_ctx *>(c.opaque);
  if (!x || x->magic != kCtxMagic) {
    errno = EINVAL;
    return nullptr;
  }
  return x;
}

__evContext handle(ev_ctx *x) { return __evContext{x}; }

template <class T>
void link(T *&head, T *r) {
  r->prev = nullptr;
  r->next = head;
  if (head) head->prev = r;
  head = r;
}
template <class T>
void unlink(T *&head, T *r) {
  if (r->prev)
    r->prev->next = r->next;
  else
    head = r->next;
  if (r->next) r->next->prev = r->prev;
}

// ---- Descriptors ----------------------------------------------------------

int live_mask(const ev_fd *f) {
  int m = 0;
  for (const ev_sel *s = f->sels; s; s = s->next)
    if (!s->dead) m |= s->mask;
  return m;
}

int kevent_soft(task *, int, int) { return 0; }  // a refused registration fails the select, not the process

void fd_dispatch(task *tp, int what);
void fd_read(task *tp) { fd_dispatch(tp, EV_READ | EV_EXCEPT); }
void fd_write(task *tp) { fd_dispatch(tp, EV_WRITE); }

// Brings the task's interest in line with the live selections; the errno of
// a refused registration, or 0.
int fd_apply(ev_fd *f) {
  int m = live_mask(f);
  int want_r = m & (EV_READ | EV_EXCEPT), want_w = m & EV_WRITE;
  f->tp->task_kevent_errno = 0;
  if (want_r && !(f->applied & EV_READ)) task_read_enable(f->tp);
  if (!want_r && (f->applied & EV_READ)) task_read_disable(f->tp);
  if (want_w && !(f->applied & EV_WRITE)) task_write_enable(f->tp);
  if (!want_w && (f->applied & EV_WRITE)) task_write_disable(f->tp);
  f->applied = (want_r ? EV_READ : 0) | (want_w ? EV_WRITE : 0);
  return f->tp->task_kevent_errno;
}

void fd_release(ev_fd *f) {
  f->ctx->fds.erase(f->fd);
  task_reset_socket(f->tp);  // forgets the registrations, leaves the descriptor open
  task_set_data(f->tp, nullptr);
  task_delete(f->tp);
  free(f);
}

// Frees dead selections, and the descriptor's record once none is left.
void fd_sweep(ev_fd *f) {
  if (f->busy) return;
  for (ev_sel **pp = &f->sels; *pp;) {
    ev_sel *s = *pp;
    if (s->dead) {
      *pp = s->next;
      free(s);
    } else {
      pp = &s->next;
    }
  }
  if (!f->sels) fd_release(f);
}

// Sweeps f (which may free it), then brings what is left in line.
void fd_settle(ev_fd *f) {
  ev_ctx *x = f->ctx;
  int fd = f->fd;
  fd_sweep(f);
  auto it = x->fds.find(fd);
  if (it != x->fds.end()) fd_apply(it->second);
}

ev_fd *fd_get(ev_ctx *x, int fd) {
  auto it = x->fds.find(fd);
  if (it != x->fds.end()) return it->second;
  auto *f = static_cast<ev_fd *>(calloc(1, sizeof(ev_fd)));
  if (!f) return nullptr;
  char name[32];
  snprintf(name, sizeof name, "ev fd %d", fd);
  f->ctx = x;
  f->fd = fd;
  f->tp = task_alloc(name, 10, nullptr);
  task_set_data(f->tp, f);
  task_set_kevent_error(f->tp, kevent_soft);
  // Both methods set: interest is then turned on and off by enable and disable.
  task_set_recv(f->tp, fd_read);
  task_set_write(f->tp, fd_write);
  task_flag_set(f->tp, TASK_FLAG_READDISABLE | TASK_FLAG_WRITEDISABLE);
  task_set_socket(f->tp, fd);
  task_create(f->tp);
  x->fds[fd] = f;
  return f;
}

void conn_write_ready(ev_conn *c);

void fd_dispatch(task *tp, int what) {
  auto *f = static_cast<ev_fd *>(task_get_data(tp));
  if (!f) return;
  f->busy++;
  // Selections added by a callback wait for the next event.
  ev_sel *end = nullptr;
  for (ev_sel *s = f->sels; s; s = s->next) end = s;
  for (ev_sel *s = f->sels; s; s = s->next) {
    if (!s->dead && (s->mask & what)) {
      if (s->conn)
        conn_write_ready(s->conn);
      else
        s->func(handle(f->ctx), s->uap, f->fd, s->mask & what);
    }
    if (s == end) break;
  }
  f->busy--;
  if (!f->busy) fd_settle(f);
}

ev_sel *select_internal(ev_ctx *x, int fd, int mask, __evFileFunc func, void *uap, ev_conn *conn) {
  if (fcntl(fd, F_GETFD) < 0) return nullptr;  // EBADF
  ev_fd *f = fd_get(x, fd);
  if (!f) return nullptr;
  auto *s = static_cast<ev_sel *>(calloc(1, sizeof(ev_sel)));
  if (!s) {
    fd_sweep(f);
    errno = ENOMEM;
    return nullptr;
  }
  *s = ev_sel{f, mask, func, uap, false, nullptr, conn};
  ev_sel **pp = &f->sels;
  while (*pp) pp = &(*pp)->next;
  *pp = s;
  if (int err = fd_apply(f)) {
    s->dead = true;
    fd_settle(f);
    errno = err;
    return nullptr;
  }
  return s;
}

void deselect_internal(ev_sel *s) {
  ev_fd *f = s->owner;
  s->dead = true;
  if (!f->busy) fd_settle(f);  // else the dispatch does
}

// ---- Timers -----------------------------------------------------------------

task_utime to_utime(const timespec &t) {
  if (t.tv_sec < 0) return task_utime{0, 0};
  return task_utime{static_cast<uint32_t>(t.tv_sec), static_cast<uint32_t>(t.tv_nsec / 1000)};
}

void timer_free(ev_timer *t) {
  unlink(t->ctx->timers, t);
  task_timer_delete(t->tip);
  free(t);
}

void timer_fire(task_timer *tip, uint32_t) {
  auto *t = static_cast<ev_timer *>(task_timer_data(tip));
  if (!t || t->dead) return;
  bool once = t->inter.tv_sec == 0 && t->inter.tv_nsec == 0;
  timespec due = t->due;
  if (!once) t->due = __evAddTime(t->due, t->inter);
  t->running = true;
  t->func(handle(t->ctx), t->uap, due, t->inter);
  t->running = false;
  if (once || t->dead) timer_free(t);
}

// ---- Connects ------------------------------------------------------------------

void conn_free(ev_conn *c) {
  unlink(c->ctx->conns, c);
  if (c->job) task_job_delete(c->job);
  if (c->sel) deselect_internal(c->sel);
  free(c);
}

void conn_report(ev_conn *c, int err) {
  ev_ctx *x = c->ctx;
  __evConnFunc func = c->func;
  void *uap = c->uap;
  int fd = c->fd;
  sockaddr_storage ra = c->ra, la{};
  socklen_t ralen = c->ralen, lalen = sizeof la;
  if (!err && getsockname(fd, reinterpret_cast<sockaddr *>(&la), &lalen) < 0) err = errno;
  conn_free(c);  // before the callback, which may close or reuse the descriptor
  if (err) {
    errno = err;
    func(handle(x), uap, -1, nullptr, 0, nullptr, 0);
  } else {
    func(handle(x), uap, fd, &la, static_cast<int>(lalen), &ra, static_cast<int>(ralen));
  }
}

void conn_job(task_job *jp) {
  auto *c = static_cast<ev_conn *>(task_job_get_data(jp));
  task_job_delete(jp);
  c->job = nullptr;
  conn_report(c, 0);
}

void conn_write_ready(ev_conn *c) {
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0) err = errno;
  conn_report(c, err);
}

}  // namespace

extern "C" {

int __evCreate(__evContext *ctx) {
  if (!ctx) {
    errno = EINVAL;
    return -1;
  }
  auto *x = new (std::nothrow) ev_ctx{};
  if (!x) {
    errno = ENOMEM;
    return -1;
  }
  x->magic = kCtxMagic;
  x->tp = task_alloc("ev", 10, nullptr);
  task_create(x->tp);
  ctx->opaque = x;
  return 0;
}

int __evDestroy(__evContext ctx) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  while (x->conns) conn_free(x->conns);
  while (x->timers) timer_free(x->timers);
  while (!x->fds.empty()) {
    ev_fd *f = x->fds.begin()->second;
    for (ev_sel *s = f->sels; s; s = s->next) s->dead = true;
    f->busy = 0;
    fd_sweep(f);
  }
  x->magic = 0;
  task_delete(x->tp);
  delete x;
  return 0;
}

int __evSelectFD(__evContext ctx, int fd, int mask, __evFileFunc func, void *uap, __evFileID *id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  if (fd < 0 || !func || !id || mask == 0 || (mask & ~(EV_READ | EV_WRITE | EV_EXCEPT))) {
    errno = fd < 0 ? EBADF : EINVAL;
    return -1;
  }
  ev_sel *s = select_internal(x, fd, mask, func, uap, nullptr);
  if (!s) return -1;
  id->opaque = s;
  return 0;
}

int __evDeselectFD(__evContext ctx, __evFileID id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  auto *s = static_cast<ev_sel *>(id.opaque);
  if (!s || s->dead || s->conn || s->owner->ctx != x) {
    errno = EINVAL;
    return -1;
  }
  deselect_internal(s);
  return 0;
}

int __evSetTimer(__evContext ctx, __evTimerFunc func, void *uap, struct timespec due, struct timespec inter,
                 __evTimerID *id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  if (!func || due.tv_nsec < 0 || due.tv_nsec >= 1000000000L || inter.tv_sec < 0 || inter.tv_nsec < 0 ||
      inter.tv_nsec >= 1000000000L) {
    errno = EINVAL;
    return -1;
  }
  auto *t = static_cast<ev_timer *>(calloc(1, sizeof(ev_timer)));
  if (!t) {
    errno = ENOMEM;
    return -1;
  }
  t->ctx = x;
  t->func = func;
  t->uap = uap;
  t->due = due;
  t->inter = inter;
  // Never zero: a zero offset would leave the timer stopped.
  task_utime offset = task_utime_sub(to_utime(due), task_now);
  if (task_utime_zero(&offset)) offset = task_utime{0, 1};
  task_utime interval = to_utime(inter);
  if (task_utime_zero(&interval) && (inter.tv_sec || inter.tv_nsec)) interval = task_utime{0, 1};
  t->tip = task_timer_ucreate(x->tp, "ev timer", 0, task_utime_zero(&interval) ? nullptr : &interval, &offset, 0,
                              timer_fire, t);
  if (!t->tip) {
    free(t);
    errno = ENOMEM;
    return -1;
  }
  link(x->timers, t);
  if (id) id->opaque = t;
  return 0;
}

int __evClearTimer(__evContext ctx, __evTimerID id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  auto *t = static_cast<ev_timer *>(id.opaque);
  if (!t || t->dead || t->ctx != x) {
    errno = EINVAL;
    return -1;
  }
  if (t->running)
    t->dead = true;  // freed when its callback returns
  else
    timer_free(t);
  return 0;
}

int __evConnect(__evContext ctx, int fd, const void *ra, int ralen, __evConnFunc func, void *uap,
                __evConnID *id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  if (fd < 0 || !ra || ralen <= 0 || static_cast<size_t>(ralen) > sizeof(sockaddr_storage) || !func) {
    errno = EINVAL;
    return -1;
  }
  int fl = fcntl(fd, F_GETFL);
  if (fl < 0 || fcntl(fd, F_SETFL, fl | O_NONBLOCK) < 0) return -1;
  int rc;
  do rc = connect(fd, static_cast<const sockaddr *>(ra), static_cast<socklen_t>(ralen));
  while (rc < 0 && errno == EINTR);
  if (rc < 0 && errno != EINPROGRESS) return -1;
  auto *c = static_cast<ev_conn *>(calloc(1, sizeof(ev_conn)));
  if (!c) {
    errno = ENOMEM;
    return -1;
  }
  c->ctx = x;
  c->fd = fd;
  c->func = func;
  c->uap = uap;
  memcpy(&c->ra, ra, static_cast<size_t>(ralen));
  c->ralen = static_cast<socklen_t>(ralen);
  if (rc == 0) {
    c->job = task_job_create_foreground(x->tp, "ev connect", conn_job, c);
  } else {
    c->sel = select_internal(x, fd, EV_WRITE, nullptr, nullptr, c);
  }
  if (!c->job && !c->sel) {
    int err = errno;
    free(c);
    errno = err ? err : ENOMEM;
    return -1;
  }
  link(x->conns, c);
  if (id) id->opaque = c;
  return 0;
}

int __evCancelConn(__evContext ctx, __evConnID id) {
  ev_ctx *x = ctx_of(ctx);
  if (!x) return -1;
  auto *c = static_cast<ev_conn *>(id.opaque);
  if (!c || c->ctx != x) {
    errno = EINVAL;
    return -1;
  }
  conn_free(c);
  return 0;
}

struct timespec __evNowTime(void) {
  return timespec{static_cast<time_t>(task_now.ut_sec), static_cast<long>(task_now.ut_usec) * 1000};
}

struct timespec __evConsTime(time_t sec, long nsec) { return timespec{sec, nsec}; }

struct timespec __evAddTime(struct timespec a, struct timespec b) {
  timespec r{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
  if (r.tv_nsec >= 1000000000L) {
    r.tv_sec++;
    r.tv_nsec -= 1000000000L;
  }
  return r;
}

}  // extern "C"
