// The module table and its walks: one-time startup, variable inits, the
// configuration pass by order class, inits.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "format/task_fmt.h"
#include "internal.h"
#include "task/lifecycle.h"

namespace {

uint32_t *module_state;
uint32_t module_count;
bool startup_done;

constexpr uint32_t kLongRunUsec = 3000000;

const task_module *walk_table(task_app_ctx_t *ctx) {
  // One role here: the backup table serves the "Test" state, the master table the rest.
  if ((task_state & TASKS_TEST) || !ctx->app_is_master) return ctx->modules.backup;
  return ctx->modules.master;
}

bool filtered(task_app_ctx_t *ctx, const task_module *m, int phase) {
  return ctx->app_module_filter && ctx->app_module_filter(m->module_id, m->module_tag, phase) != 0;
}

void back_to_scheduler(void) { task_set_current(nullptr); }

}  // namespace

void task_module_state_alloc(task_app_ctx_t *ctx) {
  free(module_state);
  module_count = ctx->modules.count;
  module_state = module_count ? static_cast<uint32_t *>(calloc(module_count, sizeof(uint32_t))) : nullptr;
  task_assert(module_count == 0 || module_state);
}

void task_module_state_reset(void) {
  if (module_state) memset(module_state, 0, module_count * sizeof(uint32_t));
}

bool task_module_running(uint32_t module_id) {
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  if (module_count == 0 || ctx->modules.count == 0) return false;
  task_assert(module_id < ctx->modules.count);
  return module_state[module_id] != 0;
}

uint32_t task_module_state(uint32_t module_id) {
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  if (module_count == 0 || ctx->modules.count == 0) return 0;
  task_assert(module_id < ctx->modules.count);
  return module_state[module_id];
}

void task_set_module_state(uint32_t module_id, uint32_t state) {
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  task_assert(module_id < ctx->modules.count && module_id < module_count);
  module_state[module_id] = state;
}

void task_milestone(const char *text) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app->app_milestone) app->app_milestone(text);
  TASK_TRACE(nullptr, TR_TASK, "milestone: %s", text);
}

void task_module_onetime_startup(void) {
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  if (startup_done) return;
  startup_done = true;
  task_milestone("Modules Startup start");
  if (ctx->app_use_own_modules && ctx->app_modules_startup) {
    ctx->app_modules_startup(ctx);
  } else if (const task_module *t = walk_table(ctx)) {
    for (const task_module *m = t; m->module_name; m++) {
      if (filtered(ctx, m, TASK_MODULE_PHASE_STARTUP)) continue;
      TASK_TRACE(nullptr, TR_TASK, "task_module_onetime_startup: startup for %s", m->module_name);
      if (m->module_startup) m->module_startup();
      task_set_module_state(m->module_id, TASK_MODULE_STARTED);
      back_to_scheduler();
    }
  }
  task_milestone("Modules Startup end");
}

void task_module_var_inits(task_app_ctx_t *ctx) {
  task_milestone("Module Var Init start");
  if (ctx->app_use_own_modules && ctx->app_modules_var_init) {
    ctx->app_modules_var_init(ctx);
  } else if (const task_module *t = walk_table(ctx)) {
    for (const task_module *m = t; m->module_name; m++) {
      // The state moves on even for a row the filter skips or without a method:
      // the row counts as running from here on.
      if (!filtered(ctx, m, TASK_MODULE_PHASE_VAR_INIT)) {
        TASK_TRACE(nullptr, TR_TASK, "task_module_var_inits: initializing %s", m->module_name);
        if (m->module_var_init) m->module_var_init();
      }
      task_set_module_state(m->module_id, TASK_MODULE_VAR_INIT);
      back_to_scheduler();
    }
  }
  task_milestone("Module Var Init end");
}

void task_module_inits(task_app_ctx_t *ctx) {
  task_milestone("Module Init start");
  if (ctx->app_use_own_modules && ctx->app_modules_init) {
    ctx->app_modules_init(ctx);
  } else if (const task_module *t = walk_table(ctx)) {
    for (const task_module *m = t; m->module_name; m++) {
      if (filtered(ctx, m, TASK_MODULE_PHASE_INIT)) continue;
      TASK_TRACE(nullptr, TR_TASK, "task_module_inits: initializing %s", m->module_name);
      if (!m->module_init) continue;
      m->module_init();
      task_set_module_state(m->module_id, TASK_MODULE_INIT);
      back_to_scheduler();
    }
  }
  task_milestone("Module Init end");
}

int task_module_config(task_app_ctx_t *ctx, char *buffer, size_t length) {
  if (task_options.tc_lr_name[0]) {
    if (!ctx->app_lr_check) {
      TASK_TRACE(nullptr, TR_TASK, "task_module_config: logical system %s not supported", task_options.tc_lr_name);
      __task_quit__(0);
    }
    if (ctx->app_lr_check() == 0) {
      task_newstate(TASKS_TERMINATE_REQUEST, 0);
      return 1;
    }
    TASK_TRACE(nullptr, TR_TASK, "task_module_config: logical system %s accepted", task_options.tc_lr_name);
  }
  if (ctx->app_use_own_modules && ctx->app_modules_config) {
    ctx->app_modules_config(ctx);
    return 1;
  }
  const task_module *t = walk_table(ctx);
  if (!t) return 1;
  task_utime sum{0, 0};
  int callbacks = 0;
  bool sum_reported = false;
  for (uint32_t level = 0; level < TASK_MODULE_CONFIG_LEVELS; level++) {
    for (const task_module *m = t; m->module_name; m++) {
      if (m->module_config_level != level || (!m->module_config && !m->module_config_with_ctx)) continue;
      if (filtered(ctx, m, TASK_MODULE_PHASE_CONFIG)) continue;
      TASK_TRACE(nullptr, TR_TASK, "%s(%d): reading configuration for %s", "task_module_config",
                 static_cast<int>(level), m->module_name);
      task_time_update();
      task_utime start = task_now;
      if (buffer && length) buffer[0] = '\0';
      int ok = m->module_config ? m->module_config(buffer, length) : m->module_config_with_ctx(ctx, buffer, length);
      back_to_scheduler();
      if (!ok) return 0;
      task_set_module_state(m->module_id, TASK_MODULE_CONFIGURED);
      task_time_update();
      task_utime took = task_utime_sub(task_now, start);
      callbacks++;
      if (task_state & TASKS_TEST) continue;
      char text[512];
      if (task_utime_to_usec(took) >= kLongRunUsec) {
        task_fmt::snprintf(text, sizeof text, "ZTASK_CFG_CALLBACK_LONGRUNTIME: %s: excessive runtime %.3#t during %s of %s",
                           task_daemon_name(), &took, "configuration", m->module_name);
        logging_event(LOG_WARNING, "ZTASK_CFG_CALLBACK_LONGRUNTIME", "%s", text);
      }
      sum = task_utime_add(sum, took);
      if (!sum_reported && task_utime_to_usec(sum) >= kLongRunUsec) {
        sum_reported = true;
        task_fmt::snprintf(text, sizeof text,
                           "ZTASK_CFG_SCHED_CUMU_LONGRUNTIME: %s: excessive runtime (total of %.3#t in %d callbacks) "
                           "after %s of %s",
                           task_daemon_name(), &sum, callbacks, "configuration", m->module_name);
        logging_event(LOG_WARNING, "ZTASK_CFG_SCHED_CUMU_LONGRUNTIME", "%s", text);
      }
    }
  }
  return 1;
}
