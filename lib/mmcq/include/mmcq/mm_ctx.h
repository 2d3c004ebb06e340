// The event system under a queue: one record with a table of operations, so
// that the queue runs on the task kernel (mm_task.h) or on the event library
// (mm_ev.h) without knowing which. A context watches one descriptor for
// reading and runs up to MM_MAX_TIMERS periodic timers; every callback gets
// the context back, with the `arg` its user stored in it.
#pragma once

#include <cstdint>

#define MM_MAX_TIMERS 2

struct mm_ctx;
typedef void (*mm_sock_cb)(mm_ctx *ctx);
typedef void (*mm_timer_cb)(mm_ctx *ctx, int idx);

struct mm_ctx_ops {
  // The descriptor to watch (not yet for reading), and forgetting it (it is
  // not closed).
  void (*sock_set)(mm_ctx *ctx, int fd);
  void (*sock_reset)(mm_ctx *ctx);
  // cb runs whenever the descriptor is readable, until disabled. 0 or -1.
  int (*sock_enable_read)(mm_ctx *ctx, mm_sock_cb cb);
  void (*sock_disable_read)(mm_ctx *ctx);
  // Timer idx (below MM_MAX_TIMERS) runs cb every msec milliseconds until
  // destroyed; creating a running timer restarts it. 0 or -1.
  int (*conn_timer_create)(mm_ctx *ctx, uint32_t msec, mm_timer_cb cb, int idx);
  void (*conn_timer_destroy)(mm_ctx *ctx, int idx);
};

struct mm_ctx {
  const mm_ctx_ops *ops;
  void *arg;  // its user's (a queue stores itself here)
};
