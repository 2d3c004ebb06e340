// The memory timer: the periodic memory-high check and its threshold.
#include "internal.h"
#include "mem/leak.h"

namespace {

// Often enough to see a runaway within a minute, rarely enough that the
// allocator's statistics cost nothing worth counting.
constexpr uint32_t kMemCheckSeconds = 30;
constexpr uint32_t kDefaultHighPercent = 80;

task_timer *mem_timer;

void mem_check(task_timer *, uint32_t) {
  task_time_update();
  task_memory_timeout();
}

}  // namespace

void task_memory_timers_init(const task_app_ctx_t *ctx) {
  uint32_t percent = ctx && ctx->app_mem_high_percent ? ctx->app_mem_high_percent : kDefaultHighPercent;
  task_mem_info_get()->task_mem_high_percent = percent;
  if (mem_timer) return;
  mem_timer = task_timer_create(task_scheduler_task(), "Memory check", TIMERF_LOWPRIO, kMemCheckSeconds, 0, 0,
                                mem_check, nullptr);
}
