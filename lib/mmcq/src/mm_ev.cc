// The event context on the event library.
#include "mmcq/mm_ev.h"

#include <cstdlib>

#include "internal.h"

namespace {

struct mm_ev_timer {
  bool on;
  __evTimerID id;
  mm_timer_cb cb;
  int idx;
  struct mm_ev_ctx_t *ctx;
};

struct mm_ev_ctx_t {
  mm_ctx base;  // first: the context is this record
  __evContext ev;
  int fd;
  bool selected;
  __evFileID fid;
  mm_sock_cb read_cb;
  mm_ev_timer timers[MM_MAX_TIMERS];
};

const mm_ctx_ops kOps = {mm_ev_sock_set,          mm_ev_sock_reset,        mm_ev_sock_enable_read,
                         mm_ev_sock_disable_read, mm_ev_conn_timer_create, mm_ev_conn_timer_destroy};

mm_ev_ctx_t *of(mm_ctx *ctx) {
  MMCQ_ASSERT(ctx && ctx->ops == &kOps);
  return reinterpret_cast<mm_ev_ctx_t *>(ctx);
}

void on_read(__evContext, void *uap, int, int) {
  auto *c = static_cast<mm_ev_ctx_t *>(uap);
  if (c->read_cb) c->read_cb(&c->base);
}

void on_timer(__evContext, void *uap, struct timespec, struct timespec) {
  auto *t = static_cast<mm_ev_timer *>(uap);
  if (t->cb) t->cb(&t->ctx->base, t->idx);
}

}  // namespace

mm_ctx *mm_ev_create(__evContext ev) {
  if (!ev.opaque) return nullptr;
  auto *c = static_cast<mm_ev_ctx_t *>(calloc(1, sizeof(mm_ev_ctx_t)));
  if (!c) return nullptr;
  c->base.ops = &kOps;
  c->ev = ev;
  c->fd = -1;
  return &c->base;
}

void mm_ev_destroy(mm_ctx *ctx) {
  mm_ev_ctx_t *c = of(ctx);
  for (int i = 0; i < MM_MAX_TIMERS; i++) mm_ev_conn_timer_destroy(ctx, i);
  mm_ev_sock_reset(ctx);
  free(c);
}

void mm_ev_sock_set(mm_ctx *ctx, int fd) {
  mm_ev_ctx_t *c = of(ctx);
  if (c->fd != fd) mm_ev_sock_reset(ctx);
  c->fd = fd;
}

void mm_ev_sock_reset(mm_ctx *ctx) {
  mm_ev_ctx_t *c = of(ctx);
  mm_ev_sock_disable_read(ctx);
  c->fd = -1;
}

int mm_ev_sock_enable_read(mm_ctx *ctx, mm_sock_cb cb) {
  mm_ev_ctx_t *c = of(ctx);
  if (c->fd < 0 || !cb) return -1;
  c->read_cb = cb;
  if (c->selected) return 0;
  if (__evSelectFD(c->ev, c->fd, EV_READ, on_read, c, &c->fid) != 0) return -1;
  c->selected = true;
  return 0;
}

void mm_ev_sock_disable_read(mm_ctx *ctx) {
  mm_ev_ctx_t *c = of(ctx);
  if (c->selected) __evDeselectFD(c->ev, c->fid);
  c->selected = false;
  c->read_cb = nullptr;
}

int mm_ev_conn_timer_create(mm_ctx *ctx, uint32_t msec, mm_timer_cb cb, int timeridx) {
  mm_ev_ctx_t *c = of(ctx);
  MMCQ_ASSERT(timeridx < MM_MAX_TIMERS);
  MMCQ_ASSERT(timeridx >= 0);
  mm_ev_conn_timer_destroy(ctx, timeridx);
  if (!cb || msec == 0) return -1;
  mm_ev_timer *t = &c->timers[timeridx];
  t->cb = cb;
  t->idx = timeridx;
  t->ctx = c;
  timespec every = __evConsTime(msec / 1000, static_cast<long>(msec % 1000) * 1000000L);
  if (__evSetTimer(c->ev, on_timer, t, __evAddTime(__evNowTime(), every), every, &t->id) != 0) {
    *t = {};
    return -1;
  }
  t->on = true;
  return 0;
}

void mm_ev_conn_timer_destroy(mm_ctx *ctx, int timeridx) {
  mm_ev_ctx_t *c = of(ctx);
  MMCQ_ASSERT(timeridx < MM_MAX_TIMERS);
  mm_ev_timer *t = &c->timers[timeridx];
  if (t->on) __evClearTimer(c->ev, t->id);
  *t = {};
}
