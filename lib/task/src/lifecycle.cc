// Start-up, the configuration read, and reconfiguration on SIGHUP.
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/ddl.h"
#include "internal.h"
#include "platform/path.h"
#include "platform/version.h"
#include "task/accounting.h"
#include "task/lifecycle.h"
#include "task/process.h"

namespace {

task_config_var config_var;
uint32_t config_magic;
bool parsing;
char host_name[256];

const char *name_of_task(const void *tp) { return task_name(static_cast<task *>(const_cast<void *>(tp))); }

void set_core_limit(void) {
  rlimit rl;
  if (getrlimit(RLIMIT_CORE, &rl) != 0) return;
  rl.rlim_cur = (task_state & TASKS_NODUMP) ? 0 : rl.rlim_max;
  setrlimit(RLIMIT_CORE, &rl);
}

void hold_for_debugger(void) {
  if (!task_options.tc_debug_wait) return;
  task_debugger_hold = task_options.tc_debug_wait;
  task_time_update();
  task_utime until = task_utime_add(task_now, task_utime{30, 0});
  while (task_debugger_hold && task_utime_lt(task_now, until)) {
    task_daemon_nap();
    task_time_update();
  }
}

void open_log(void) {
  char ident[TASK_LR_NAME_MAX + 130];
  if (task_options.tc_lr_name[0])
    snprintf(ident, sizeof ident, "%s:%s", task_options.tc_lr_name, task_daemon_name());
  else
    snprintf(ident, sizeof ident, "%s", task_daemon_name());
  event_open(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON);
  event_setmask(127);
  logging_set_mode(LOGGING_MODE_SYSLOG | (task_options.tc_foreground ? LOGGING_MODE_STDERR : 0));
  logging_register_logfunc(event_send_vsyslog);
}

// -t and the trace file of the command line, on the kernel's own handle (the
// scheduler task's): "t" its task lines, "i" its timer lines, no letter all.
// A trace file without -t traces nothing until flags are configured.
void commit_command_line_trace(void) {
  if (!task_options.tc_trace_set && !task_options.tc_trace_file) return;
  uint32_t letters = task_options.tc_trace_flags;
  uint64_t flags = letters == TASK_TRACE_FLAG_ALL ? ~uint64_t{0}
                                                   : ((letters & TASK_TRACE_FLAG_TASK) ? TR_TASK : 0) |
                                                         ((letters & TASK_TRACE_FLAG_TIMER) ? TR_TIMER : 0);
  tvx_mkdirs(path_solvane_log_dir(), 0755);  // where a relative name goes
  trace_file *f = task_options.tc_trace_file
                      ? trace_file_locate(task_options.tc_trace_file, 1u << 20, 0, 3, TRF_WORLD_READABLE, nullptr, false)
                      : trace_file_locate(nullptr, 0, 0, 0, 0, nullptr, false);
  if (!f) return;
  task *st = task_scheduler_task();
  ztrace_store(&st->task_trace, static_cast<uint32_t>(flags), static_cast<uint32_t>(flags >> 32), 0, f, nullptr);
  if (task_options.tc_trace_file) trace_on(f);
}

void run_cleanup_methods(task_accounting_cumulative *acc) {
  task *head = task_get_head();
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_cleanup) continue;
    TASK_TRACE(tp, TR_TASK, "task_reconfigure: cleanup for %s", task_name(tp));
    task_set_current(tp);
    if (task_accounting_on) task_accounting_overhead(TASK_ACCT_OTHER, "cleanup");
    tp->task_cleanup(tp);
    if (task_accounting_on) task_accounting_charge(tp, TASK_ACCT_OTHER, "cleanup", name_of_task, tp);
    task_set_current(nullptr);
    task_accounting_report_internal(acc, task_name(tp), "reconfiguration");
    task_timer_hiprio_check();
  }
}

bool open_for_read(task_app_ctx_t *ctx) {
  if (ctx->app_has_no_config) return true;
  if (ctx->app_db_per_thread) {
    ddl_access_per_thread_init();
    task_newstate(TASKS_PARSECONFIG, 0);
    return true;
  }
  return task_open_configuration(task_options.tc_config_file, config_magic, 0);
}

void close_after_read(task_app_ctx_t *ctx) {
  if (ctx->app_has_no_config) return;
  if (ctx->app_db_per_thread) {
    ddl_access_per_thread_close();
    task_newstate(0, TASKS_PARSECONFIG);
  } else if (!ctx->app_keep_db) {
    task_close_configuration();
  }
}

// The body both forms of reconfiguration share, after the data base is open.
void reconfigure_body(task_app_ctx_t *ctx, void *arg, bool complete, task_accounting_cumulative *acc) {
  run_cleanup_methods(acc);
  event_setmask(127);
  task_module_state_reset();
  if (complete && ctx->app_pre_read) ctx->app_pre_read();
  task_module_var_inits(ctx);
  if (complete && ctx->app_process_reconfigure) ctx->app_process_reconfigure();
  if (ctx->app_reconfigure_done) ctx->app_reconfigure_done(ctx, arg);
  if (complete) close_after_read(ctx);
  if (ctx->app_no_flush && !ctx->app_keep_db && ctx->app_flush) ctx->app_flush();
  task_timer_hiprio_check();
  task_module_inits(ctx);
  task_reinit();
  if (ctx->app_finish) ctx->app_finish(ctx, arg);
  task_newstate(0, TASKS_RECONFIG);
  task_accounting_report_internal(acc, "system", "overall reconfiguration");
  if (task_state & TASKS_TERMINATE_REQUEST) kill(getpid(), SIGTERM);
}

}  // namespace

volatile int task_debugger_hold;
bool task_backup_for_test;

task_config_var *task_var_config(void) { return &config_var; }

const char *task_host_name(void) { return host_name; }

// ---- The configuration data base ------------------------------------------------

bool task_open_configuration(const char *name, uint32_t arg, int flags) {
  task_assert(task_get_task_app_ctx()->app_has_no_config == false);
  task_newstate(TASKS_PARSECONFIG, 0);
  ddax_close_db();
  ddl_db_t *db = ddl_access_open_db(0, name, arg, flags, (task_state & TASKS_TEST) != 0);
  if (!db) {
    int err = errno;
    // The store has said where the file is wrong; the line carries that on.
    std::string why = ddl_access_config_error_count() ? ddl_access_config_last_error() : strerror(err);
    ddl_access_config_error("Static configuration DB open failure: %s\n", why.c_str());
    task_newstate(0, TASKS_PARSECONFIG);
    errno = err;
    return false;
  }
  task_app_ctx_t *app = task_get_task_app_ctx();
  app->app_db_handle = reinterpret_cast<uintptr_t>(db);
  if (app->app_db_opened) app->app_db_opened();
  return true;
}

void task_close_configuration(void) {
  task_newstate(0, TASKS_PARSECONFIG);
  ddl_access_close_db(0, 0);
  if (task_state & TASKS_HUP_PENDING) {
    task_newstate(0, TASKS_HUP_PENDING);
    kill(getpid(), SIGHUP);
  }
}

bool task_open_db_schema(const char *name, uint32_t schema_id) {
  if (!ddax_open_db(name, schema_id)) {
    ddl_access_config_error("Dynamic configuration DB open failure\n");
    return false;
  }
  config_var.tcv_db_open = 1;
  return true;
}

int task_parse_read_db(task_app_ctx_t *ctx, char *buffer, size_t length) {
  auto *db = reinterpret_cast<const ddl_db_t *>(ctx->app_db_handle);
  uint32_t seq = config_var.tcv_sequence;
  config_var.tcv_same_sequence = db && ddl_access_check_sequence(db, &seq) == 0 ? 1 : 0;
  config_var.tcv_sequence = seq;
  return task_module_config(ctx, buffer, length);
}

int task_default_read_config(void) {
  char message[512] = "";
  int ok = task_parse_read_db(task_get_task_app_ctx(), message, sizeof message);
  if (!ok) ddl_access_config_error("%s", message[0] ? message : "configuration refused");
  return ok;
}

void task_default_process_reconfigure(void) {
  task_app_ctx_t *ctx = task_get_task_app_ctx();
  int ok = ctx->app_read_config ? ctx->app_read_config() : 1;
  // A configuration edited by hand can be refused by a module: that is logged
  // and the process goes on with what the modules accepted.
  if (!ok)
    logging_event(LOG_ERR, "ZTASK_TASK_REINIT", "ZTASK_TASK_REINIT: Reinitialization: configuration refused: %s",
                  ddl_access_config_last_error());
}

// ---- Start ----------------------------------------------------------------------------

void task_init(int argc, char **argv, task_app_ctx_t *ctx) {
  int version = 0;
  bool xml = false;
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "-X")) {
      ddl_access_config_error_set_flags(DDL_ERR_STDERR);
      xml = true;
    } else if (!strcmp(argv[i], "-v")) {
      version = 1;
    } else if (!strcmp(argv[i], "-vv")) {
      version = 2;
    }
  }
  if (ctx->app_name) tvx_set_product(ctx->app_name);
  if (version) {
    show_daemon_version(nullptr, version, xml && xml_on_board());
    exit(0);
  }
  task_set_argv(argc, argv);
  task_set_task_app_ctx(ctx);
  task_kernel_init_early();
  ctx->task_reconfigure = task_reconfigure_short;
  task_daemon_init(ctx, argc, argv);
  if (ctx->app_after_init) ctx->app_after_init();
  task_module_onetime_startup();
  ctx->task_reconfigure = task_reconfigure_complete;
  if (!ctx->app_has_no_config) {
    ddl_access_config_error_set_flags(DDL_ERR_LOG);
    ddl_access_config_error_set_level(LOG_ERR);
  }
}

void task_daemon_init(task_app_ctx_t *ctx, int argc, char **argv) {
  task_assert(task_var_get_context() == task_main_context);
  parsing = true;
  task_set_daemon_name(argv[0]);
  if (ctx->app_name) tvx_set_product(ctx->app_name);
  task_kernel_init_early();
  // The trace context, unless the daemon set one up itself: the built-in one
  // with whatever hooks the daemon gave it.
  if (!ztrace_global) {
    ztrace_set_progname(task_daemon_name());
    trace_init(nullptr);
  }
  gethostname(host_name, sizeof host_name - 1);
  task_process_ids_init();
  task_newstate(TASKS_INIT | TASKS_FOREGROUND, 0);
  if (ctx->app_pre_parse) ctx->app_pre_parse();
  if (task_parse_args(argc, argv, ctx->app_parse_arg) != 0) __task_quit__(0);
  parsing = false;
  // The daemon leaves its starting directory: a relative -f is taken from there.
  static char config_path[4096];
  if (task_options.tc_config_file && task_options.tc_config_file[0] != '/' && getcwd(config_path, 2048)) {
    size_t n = strlen(config_path);
    snprintf(config_path + n, sizeof config_path - n, "/%s", task_options.tc_config_file);
    task_options.tc_config_file = config_path;
  }
  if (!(task_state & TASKS_NODETACH)) {
    const char *run = path_solvane_run_dir();
    tvx_mkdirs(run, 0755);
    if (chdir(run) != 0) TASK_TRACE(nullptr, TR_TASK, "task_daemon_init: chdir(%s): %m", run);
  }
  set_core_limit();
  if (geteuid() != 0 && !(task_state & TASKS_TEST) && !ctx->app_allow_nonroot) {
    fprintf(stderr, "%s: must be root\n", task_daemon_name());
    exit(2);
  }
  task_daemonize(ctx);
  task_process_ids_init();  // detaching made a new process
  task_module_state_alloc(ctx);
  task_kernel_init_late();
  task_memory_timers_init(ctx);
  if (ctx->app_start_hook) ctx->app_start_hook();
  if (ctx->app_init_begin) ctx->app_init_begin();
  task_milestone("libRoleAgent Init");
  if (ctx->app_role_wait) ctx->app_role_wait();
  task_milestone("Got Role from the agent");
  // One routing engine, always master, unless a test asks for a backup.
  ctx->app_is_master = task_backup_for_test ? 0 : 1;
  task_milestone(ctx->app_is_master ? "PATHD task_re_mode_master = MASTER" : "PATHD task_re_mode_master = BACKUP");
  if (ctx->app_role_hook) ctx->app_role_hook();
  if (ctx->app_init_end) ctx->app_init_end();
  if (task_options.tc_replace_pid) task_replace_predecessor(task_options.tc_replace_pid);
  open_log();
  logging_event(LOG_INFO, "ZTASK_START", "ZTASK_START: Start %s[%d] version %s built %s", task_daemon_name(),
                static_cast<int>(getpid()), tvx_build_version(), tvx_build_date());
  // A configuration check runs beside the daemon: it takes no lock.
  if (!(task_state & TASKS_TEST)) {
    hold_for_debugger();
    if (!ctx->app_no_pid_file) {
      char logical[256];
      if (ctx->app_pid_path)
        snprintf(logical, sizeof logical, "%s", ctx->app_pid_path);
      else
        snprintf(logical, sizeof logical, "/var/run/%s.pid", task_daemon_name());
      if (!task_lock_take(logical)) __task_quit__(0);
    }
    task_version_file_write();
  }
}

int task_read_config(task_app_ctx_t *ctx, uint32_t magic, bool is_check) {
  config_magic = magic;
  int ok = open_for_read(ctx) ? 1 : 0;
  if (ok) {
    ok = ctx->app_pre_read ? ctx->app_pre_read() : 1;
    if (ctx->app_role_hook) ctx->app_role_hook();
    if (ok) {
      task_module_var_inits(ctx);
      if (!ctx->app_has_no_config) ok = ctx->app_read_config ? ctx->app_read_config() : 1;
      close_after_read(ctx);
    } else if (!ctx->app_has_no_config) {
      close_after_read(ctx);
    }
  }
  bool checking = (task_state & TASKS_TEST) != 0;
  // A configuration that cannot be read at start ends the process, check or not.
  if (!ok) {
    if (checking) {
      if (task_options.tc_verbose) fprintf(stderr, "%s: configuration check failed\n", task_daemon_name());
      exit(1);
    }
    __task_quit__(0);
  }
  if (checking) {
    if (task_options.tc_verbose) fprintf(stderr, "%s: configuration check succeeded\n", task_daemon_name());
    exit(ctx->app_has_no_config || !ctx->app_check_config ? 0 : ctx->app_check_config());
  }
  // Neither non-stop routing nor warm standby exists here: a backup that needs them cannot run.
  if (ctx->app_check_backup && !ctx->app_is_master) {
    logging_event(LOG_ERR, "ZTASK_NSR_OR_WARM_STANDBY_CONFIG_ERROR",
                  "ZTASK_NSR_OR_WARM_STANDBY_CONFIG_ERROR: Neither NSR nor warm-standby config is present.Exiting in "
                  "backup re");
    __task_quit__(0);
  }
  (void)is_check;
  return ok;
}

void task_post_read_config(task_app_ctx_t *ctx) {
  task_time_update();
  task_sched_var *sp = task_var_scheduler(nullptr);
  task_process_times(&sp->sched_last_user, &sp->sched_last_sys);
  task_utime started = task_now;
  commit_command_line_trace();
  if (ctx->app_version_hook) ctx->app_version_hook();
  task_module_inits(ctx);
  if (!(task_state & TASKS_NODETACH) && chdir(path_solvane_run_dir()) != 0)
    TASK_TRACE(nullptr, TR_TASK, "task_post_read_config: chdir: %m");
  TASK_TRACE(nullptr, TR_TASK, "task_post_read_config: configuration read");
  task_newstate(0, TASKS_INIT);
  task_reinit();
  task_time_update();
  task_utime took = task_utime_sub(task_now, started);
  TASK_TRACE(nullptr, TR_TASK, "task_post_read_config: reconfigured in %u.%06u s", took.ut_sec, took.ut_usec);
  if (ctx->app_post_config) ctx->app_post_config();
}

// ---- Reconfiguration ---------------------------------------------------------------------

void task_reinit(void) {
  task *head = task_get_head();
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_reinit) continue;
    task_set_current(tp);
    tp->task_reinit(tp);
    task_set_current(nullptr);
  }
}

namespace {
// The first steps of both forms: false when a termination was asked for.
bool reconfigure_begin(task_accounting_cumulative *acc) {
  if (task_state & TASKS_TERMINATE_REQUEST) return false;
  logging_event(LOG_INFO, "ZTASK_TASK_REINIT", "ZTASK_TASK_REINIT: Reinitializing");
  task_accounting_report_start(acc);
  task_newstate(TASKS_RECONFIG, 0);
  config_var.tcv_reconfigs++;
  return true;
}
}  // namespace

void task_reconfigure_complete(void *vctx, void *arg) {
  auto *ctx = static_cast<task_app_ctx_t *>(vctx);
  task_accounting_cumulative acc;
  if (!reconfigure_begin(&acc)) return;
  if (!open_for_read(ctx)) {
    int err = errno;
    // A file that does not read or check is refused whole by the store, and
    // the configuration in force stays; any other failure is fatal.
    if (err == EINVAL || err == EFBIG) {
      logging_event(LOG_ERR, "ZTASK_TASK_REINIT", "ZTASK_TASK_REINIT: Reinitialization failed, configuration unchanged: %s",
                    ddl_access_config_last_error());
      task_newstate(0, TASKS_RECONFIG);
      return;
    }
    __task_quit__(22);
  }
  if (ctx->app_db_after_open) ctx->app_db_after_open();
  if (ctx->app_after_reread) ctx->app_after_reread();
  gethostname(host_name, sizeof host_name - 1);
  TASK_TRACE(nullptr, TR_TASK, "task_reconfigure: reconfiguration %u", config_var.tcv_reconfigs);
  reconfigure_body(ctx, arg, true, &acc);
}

void task_reconfigure_short(void *vctx, void *arg) {
  auto *ctx = static_cast<task_app_ctx_t *>(vctx);
  task_accounting_cumulative acc;
  if (!reconfigure_begin(&acc)) return;
  reconfigure_body(ctx, arg, false, &acc);
}

void task_re_switchover(void) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app->app_switchover_begin) app->app_switchover_begin(1);
  app->app_is_master = 1;
  logging_event(LOG_INFO, "ZTASK_TASK_MASTERSHIP", "ZTASK_TASK_MASTERSHIP: Assuming mastership");
  TASK_TRACE(nullptr, TR_TASK, "%s: Assuming mastership", task_daemon_name());
  if (app->app_role_hook) app->app_role_hook();
  task *first = app->app_mastership_task ? app->app_mastership_task() : nullptr;
  if (first && first->task_mastership) {
    task_set_current(first);
    first->task_mastership(first);
    task_set_current(nullptr);
  }
  task *head = task_get_head();
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if (tp == first || (tp->task_flags & TASK_FLAG_DELETE) || !tp->task_mastership) continue;
    task_set_current(tp);
    tp->task_mastership(tp);
    task_set_current(nullptr);
  }
  if (app->app_mastership_done) app->app_mastership_done();
}

void task_replicate_reconfigure(int *switched) {
  // One engine, always master: the role never changes.
  task_milestone("Task replicate reconfigure start");
  if (switched) *switched = 0;
}
