// The queue's event context on the event library (ipc/ev.h): the descriptor
// is selected for reading, the timers are repeating event timers. One per
// queue; any number per process.
#pragma once

#include "ipc/ev.h"
#include "mmcq/mm_ctx.h"

mm_ctx *mm_ev_create(__evContext ev);
// Deselects, clears its timers and frees the context (the descriptor stays open).
void mm_ev_destroy(mm_ctx *ctx);

void mm_ev_sock_set(mm_ctx *ctx, int fd);
void mm_ev_sock_reset(mm_ctx *ctx);
int mm_ev_sock_enable_read(mm_ctx *ctx, mm_sock_cb cb);
void mm_ev_sock_disable_read(mm_ctx *ctx);
int mm_ev_conn_timer_create(mm_ctx *ctx, uint32_t msec, mm_timer_cb cb, int timeridx);
void mm_ev_conn_timer_destroy(mm_ctx *ctx, int timeridx);
