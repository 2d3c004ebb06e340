// The event context on the task kernel.
#include "mmcq/mm_task.h"

#include <cstdlib>

#include "internal.h"
#include "task/io.h"
#include "task/task.h"
#include "task/timer.h"

namespace {

struct mm_task_timer {
  task_timer *tip;
  mm_timer_cb cb;
  int idx;
};

struct mm_task_ctx_t {
  mm_ctx base;  // first: the context is this record
  task *tp;
  int fd;
  mm_sock_cb read_cb;
  mm_task_timer timers[MM_MAX_TIMERS];
};

mm_task_ctx_t *mm_task_ctx;

const mm_ctx_ops kOps = {mm_task_sock_set,          mm_task_sock_reset,        mm_task_sock_enable_read,
                         mm_task_sock_disable_read, mm_task_conn_timer_create, mm_task_conn_timer_destroy};

mm_task_ctx_t *check(mm_ctx *ctx) {
  auto *task_ctx = reinterpret_cast<mm_task_ctx_t *>(ctx);
  MMCQ_ASSERT(task_ctx == mm_task_ctx);
  return task_ctx;
}

void on_read(task *tp) {
  auto *c = static_cast<mm_task_ctx_t *>(task_get_data(tp));
  if (c && c->read_cb) c->read_cb(&c->base);
}

void on_timer(task_timer *tip, uint32_t) {
  auto *t = static_cast<mm_task_timer *>(task_timer_data(tip));
  if (t && t->cb && mm_task_ctx) t->cb(&mm_task_ctx->base, t->idx);
}

}  // namespace

mm_ctx *mm_task_create(void) {
  MMCQ_ASSERT(mm_task_ctx == 0);
  auto *c = static_cast<mm_task_ctx_t *>(calloc(1, sizeof(mm_task_ctx_t)));
  if (!c) return nullptr;
  c->base.ops = &kOps;
  c->fd = -1;
  c->tp = task_alloc("mm task", 10, nullptr);
  task_set_data(c->tp, c);
  task_set_recv(c->tp, on_read);
  task_flag_set(c->tp, TASK_FLAG_READDISABLE);
  task_create(c->tp);
  mm_task_ctx = c;
  return &c->base;
}

void mm_task_destroy(mm_ctx *ctx) {
  mm_task_ctx_t *c = check(ctx);
  for (int i = 0; i < MM_MAX_TIMERS; i++) mm_task_conn_timer_destroy(ctx, i);
  mm_task_sock_reset(ctx);
  task_set_data(c->tp, nullptr);
  task_delete(c->tp);
  mm_task_ctx = nullptr;
  free(c);
}

void mm_task_sock_set(mm_ctx *ctx, int fd) {
  mm_task_ctx_t *c = check(ctx);
  c->fd = fd;
  task_set_socket(c->tp, fd);
}

void mm_task_sock_reset(mm_ctx *ctx) {
  mm_task_ctx_t *c = check(ctx);
  if (c->fd < 0) return;
  task_read_disable(c->tp);
  task_reset_socket(c->tp);  // leaves the descriptor open: the queue owns it
  c->fd = -1;
}

int mm_task_sock_enable_read(mm_ctx *ctx, mm_sock_cb cb) {
  mm_task_ctx_t *c = check(ctx);
  if (c->fd < 0 || !cb) return -1;
  c->read_cb = cb;
  c->tp->task_kevent_errno = 0;
  task_read_enable(c->tp);
  return c->tp->task_kevent_errno ? -1 : 0;
}

void mm_task_sock_disable_read(mm_ctx *ctx) {
  mm_task_ctx_t *c = check(ctx);
  if (c->fd >= 0) task_read_disable(c->tp);
  c->read_cb = nullptr;
}

int mm_task_conn_timer_create(mm_ctx *ctx, uint32_t msec, mm_timer_cb cb, int timeridx) {
  mm_task_ctx_t *c = check(ctx);
  MMCQ_ASSERT(timeridx < MM_MAX_TIMERS);
  MMCQ_ASSERT(timeridx >= 0);
  mm_task_conn_timer_destroy(ctx, timeridx);
  if (!cb || msec == 0) return -1;
  mm_task_timer *t = &c->timers[timeridx];
  t->cb = cb;
  t->idx = timeridx;
  task_utime every = task_utime_from_usec(static_cast<uint64_t>(msec) * 1000);
  t->tip = task_timer_ucreate(c->tp, "mm task timer cb", 0, &every, &every, 0, on_timer, t);
  return t->tip ? 0 : -1;
}

void mm_task_conn_timer_destroy(mm_ctx *ctx, int timeridx) {
  mm_task_ctx_t *c = check(ctx);
  MMCQ_ASSERT(timeridx < MM_MAX_TIMERS);
  mm_task_timer *t = &c->timers[timeridx];
  if (t->tip) task_timer_delete(t->tip);
  *t = {};
}
