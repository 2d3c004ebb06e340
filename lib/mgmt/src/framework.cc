// The framework's command table: help, the show commands over the kernel's
// and the memory's reports, and the daemon's trace flags.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "mgmt/dbgsh.h"
#include "mem/leak.h"
#include "platform/version.h"
#include "task/accounting.h"
#include "task/job.h"
#include "task/timer.h"

namespace {

trace_handle **trace_slot;
const trace_types *trace_module_types;

// A report written to a FILE, answered as lines of 100.
int report(mgmt_cmd_ctx *ctx, void (*fill)(FILE *)) {
  char *text = nullptr;
  size_t len = 0;
  FILE *fp = open_memstream(&text, &len);
  if (!fp) {
    mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "Out of memory for the report");
    return MGMT_CMD_DONE;
  }
  fill(fp);
  fclose(fp);
  int rc = mgmt_reply_text(ctx->mc_peer, MGMT_CODE_OUTPUT, text, len);
  free(text);
  return rc;
}

int cmd_help(mgmt_cmd_ctx *ctx, char *) { return mgmt_list_roots(ctx->mc_peer); }

int show_version(mgmt_cmd_ctx *ctx, char *) {
  return report(ctx, [](FILE *fp) { show_daemon_version(fp, 1, 0); });
}
int show_memory(mgmt_cmd_ctx *ctx, char *) {
  return report(ctx, [](FILE *fp) {
    task_mgmt_show_mem_internals(fp);
    task_mgmt_show_mem_fragmentation(fp);
  });
}
int show_task(mgmt_cmd_ctx *ctx, char *) { return report(ctx, task_dump); }
int show_timer(mgmt_cmd_ctx *ctx, char *) { return report(ctx, task_timer_dump); }
int show_jobs(mgmt_cmd_ctx *ctx, char *) { return report(ctx, task_job_dump); }
int show_accounting(mgmt_cmd_ctx *ctx, char *) { return report(ctx, task_accounting_dump); }

trace_handle *daemon_trace(mgmt_cmd_ctx *ctx) {
  trace_handle *tp = trace_slot ? *trace_slot : nullptr;
  if (!tp) mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "Tracing is not configured");
  return tp;
}

int show_trace(mgmt_cmd_ctx *ctx, char *) {
  trace_handle *tp = daemon_trace(ctx);
  if (!tp) return MGMT_CMD_DONE;
  char *text = nullptr;
  size_t len = 0;
  FILE *fp = open_memstream(&text, &len);
  trace_dump_handle(fp, tp);
  fclose(fp);
  int rc = mgmt_reply_text(ctx->mc_peer, MGMT_CODE_OUTPUT, text, len);
  free(text);
  return rc;
}

const trace_types *find_flag(const trace_types *t, const char *name) {
  for (; t && (t->tt_lo || t->tt_hi); t++)
    if (t->tt_name && strcasecmp(t->tt_name, name) == 0) return t;
  return nullptr;
}

// "set trace NAME[,NAME...]": the names replace the flags in force, as the
// configuration's flag statements do; "none" clears them.
int set_trace(mgmt_cmd_ctx *ctx, char *args) {
  trace_handle *tp = daemon_trace(ctx);
  if (!tp) return MGMT_CMD_DONE;
  if (!args) {
    mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "Missing trace flags");
    return MGMT_CMD_DONE;
  }
  uint64_t flags = 0;
  for (char *name; (name = strsep(&args, ", \t"));) {
    if (!*name) continue;
    if (strcasecmp(name, "all") == 0) {
      flags = ~0ull;
    } else if (strcasecmp(name, "none") == 0) {
      flags = 0;
    } else {
      const trace_types *t = find_flag(trace_module_types, name);
      if (!t) t = find_flag(trace_app_ctx->global_types, name);
      if (!t) {
        mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "Unknown trace flag %s", name);
        return MGMT_CMD_DONE;
      }
      flags |= t->tt_lo | static_cast<uint64_t>(t->tt_hi) << 32;
    }
  }
  ztrace_set_tr_flags(tp, static_cast<uint32_t>(flags), static_cast<uint32_t>(flags >> 32));
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "Tracing flags enabled:%s",
             trace_bits2(trace_module_types, trace_app_ctx->global_types, tp->tr_flags));
  return MGMT_CMD_DONE;
}

int cmd_dump(mgmt_cmd_ctx *ctx, char *) {
  char logical[256];
  snprintf(logical, sizeof logical, "/var/tmp/%s_dump", task_daemon_name());
  if (trace_do_dump() == 0)
    mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "Dump written to %s", logical);
  else
    mgmt_reply(ctx->mc_peer, MGMT_CODE_FAIL, 0, "Dump to %s failed (the log says why)", logical);
  return MGMT_CMD_DONE;
}

const mgmt_cmd show_rows[] = {
    {"version", MGMT_MODULE_NONE, nullptr, show_version},
    {"memory", MGMT_MODULE_NONE, nullptr, show_memory},
    {"task", MGMT_MODULE_NONE, nullptr, show_task},
    {"timer", MGMT_MODULE_NONE, nullptr, show_timer},
    {"jobs", MGMT_MODULE_NONE, nullptr, show_jobs},
    {"accounting", MGMT_MODULE_NONE, nullptr, show_accounting},
    {"trace", MGMT_MODULE_NONE, nullptr, show_trace},
    {},
};
const mgmt_cmd set_rows[] = {
    {"trace", MGMT_MODULE_NONE, nullptr, set_trace},
    {},
};

}  // namespace

const mgmt_cmd mgmt_framework_cmds[] = {
    {"help", MGMT_MODULE_NONE, nullptr, cmd_help},
    {"show", MGMT_MODULE_NONE, show_rows, nullptr},
    {"set", MGMT_MODULE_NONE, set_rows, nullptr},
    {"dump", MGMT_MODULE_NONE, nullptr, cmd_dump},
    {},
};

void mgmt_framework_mount(const mgmt_cmd *daemon_table) {
  mgmt_init();
  mgmt_cmd_register(mgmt_framework_cmds);
  mgmt_cmd_mount(daemon_table);
#ifdef TVX_DEBUG_SHELL
  dbg_sh_init();
#endif
}

void mgmt_framework_set_trace(trace_handle **slot, const trace_types *module_types) {
  trace_slot = slot;
  trace_module_types = module_types;
}
