// The queue's event context on the task kernel: the watched descriptor
// belongs to a task of its own ("mm task"), the timers are task timers
// ("mm task timer cb") on the kernel's clock. One per process.
#pragma once

#include "mmcq/mm_ctx.h"

// The process's context; a second call while one exists is a fault.
mm_ctx *mm_task_create(void);
// Stops its timers, forgets the descriptor (leaving it open), deletes the task.
void mm_task_destroy(mm_ctx *ctx);

void mm_task_sock_set(mm_ctx *ctx, int fd);
void mm_task_sock_reset(mm_ctx *ctx);
int mm_task_sock_enable_read(mm_ctx *ctx, mm_sock_cb cb);
void mm_task_sock_disable_read(mm_ctx *ctx);
int mm_task_conn_timer_create(mm_ctx *ctx, uint32_t msec, mm_timer_cb cb, int timeridx);
void mm_task_conn_timer_destroy(mm_ctx *ctx, int timeridx);
