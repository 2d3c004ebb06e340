// A daemon's life on the task kernel: its modules, start-up, configuration,
// reconfiguration on SIGHUP, and the command line. A daemon's main is
//
//   static task_app_ctx_t app;            // hooks, module tables, paths
//   task_init(argc, argv, &app);          // arguments, start, lock, one-time startup
//   task_read_config(&app, SCHEMA, (task_state & TASKS_TEST) != 0);
//   task_post_read_config(&app);          // module inits, "Init" cleared
//   task_scheduler();
//
// A daemon is a table of modules (task_module rows, ended by a row with a null
// name). Each row may have a one-time startup, a variable init (run at the
// start of every configuration), a configuration method of an order class 0
// to 4, and an init (run at the end of every configuration). Module state per
// id: 0 not running, 1 started, 2 variables initialised, 3 initialised, 4
// configured; it goes back to 0 at each reconfiguration.
//
// docs/task.md tells the order of every step and the options of the command line.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "task/task.h"

extern "C" {

// ---- Modules ---------------------------------------------------------------------
// Rows are written with designated initializers; fields left out are zero.
struct task_module {
  uint32_t module_id = 0;
  void (*module_startup)(void) = nullptr;
  void (*module_init)(void) = nullptr;
  void (*module_var_init)(void) = nullptr;
  uint32_t module_config_level = 0;  // 0 to 4
  // Configuration methods: non-zero for success; on failure a message in buffer.
  int (*module_config_with_ctx)(task_app_ctx_t *ctx, char *buffer, size_t length) = nullptr;
  int (*module_config)(char *buffer, size_t length) = nullptr;
  void *module_config_logical = nullptr;
  const char *module_name = nullptr;
  uintptr_t module_tag = 0;  // handed to app_module_filter
};

// Phases given to app_module_filter.
enum { TASK_MODULE_PHASE_STARTUP, TASK_MODULE_PHASE_VAR_INIT, TASK_MODULE_PHASE_CONFIG, TASK_MODULE_PHASE_INIT };
enum { TASK_MODULE_CONFIG_LEVELS = 5 };
enum : uint32_t {
  TASK_MODULE_NOT_RUNNING,
  TASK_MODULE_STARTED,
  TASK_MODULE_VAR_INIT,
  TASK_MODULE_INIT,
  TASK_MODULE_CONFIGURED,
};

bool task_module_running(uint32_t module_id);
void task_set_module_state(uint32_t module_id, uint32_t state);
uint32_t task_module_state(uint32_t module_id);

// The walks. Each row may be skipped by app_module_filter; the startup runs
// once per process however often it is called.
void task_module_onetime_startup(void);
void task_module_var_inits(task_app_ctx_t *ctx);
void task_module_inits(task_app_ctx_t *ctx);
// The configuration pass, classes 0 to 4; 0 at the first failing method,
// whose message is then in buffer.
int task_module_config(task_app_ctx_t *ctx, char *buffer, size_t length);

// ---- Start and configuration ------------------------------------------------------
// The schema identity of a daemon's configuration, as the responder passes it.
constexpr uint32_t TASK_CONFIG_MAGIC = 0xcf06eee5;

void task_init(int argc, char **argv, task_app_ctx_t *ctx);
void task_daemon_init(task_app_ctx_t *ctx, int argc, char **argv);
// Reads the configuration. In the "Test" state (-c, -C; is_check says the
// same) the process ends here: exit 0 or 1 by the result. Outside it a failure
// ends the process with __task_quit__(0); the result (1) is returned.
int task_read_config(task_app_ctx_t *ctx, uint32_t magic, bool is_check);
void task_post_read_config(task_app_ctx_t *ctx);

bool task_open_configuration(const char *name, uint32_t arg, int flags);
void task_close_configuration(void);
bool task_open_db_schema(const char *name, uint32_t schema_id);
// The default app_read_config: reads the sequence number, then runs the
// module configuration pass; a failure is reported with its message.
int task_default_read_config(void);
int task_parse_read_db(task_app_ctx_t *ctx, char *buffer, size_t length);
void task_default_process_reconfigure(void);

// What the configuration reads have seen.
struct task_config_var {
  uint8_t tcv_db_open;       // a dynamic data base is open
  uint32_t tcv_sequence;     // last sequence number read
  uint8_t tcv_same_sequence; // the last read found the number unchanged
  uint32_t tcv_reconfigs;    // reconfigurations run
};
task_config_var *task_var_config(void);

// ---- Reconfiguration ----------------------------------------------------------------
// SIGHUP runs ctx->task_reconfigure, task_reconfigure_complete after start.
void task_reconfigure_complete(void *ctx, void *arg);
void task_reconfigure_short(void *ctx, void *arg);
// Each task's task_reinit method.
void task_reinit(void);
void task_re_switchover(void);
void task_replicate_reconfigure(int *switched);

// ---- The command line ---------------------------------------------------------------
// What the options asked for. -J options are kept for the management channel.
enum { TASK_LR_NAME_MAX = 63, TASK_J_MAX = 16 };
struct task_cmdline {
  const char *tc_config_file;  // -f; null: "/etc/<program>.conf"
  const char *tc_trace_file;   // the word without a dash
  uint32_t tc_trace_flags;     // -t
  uint8_t tc_trace_set;        // some -t was given
  uint8_t tc_verbose;          // -cc, -CC
  uint8_t tc_foreground;       // -N given (a copy of the log goes to standard error)
  uint8_t tc_memory;           // -M
  uint8_t tc_debug_wait;       // 'D' for -Gd, 'C' for -Gc, 0
  pid_t tc_replace_pid;        // -p
  uint8_t tc_version;          // -v count
  uint8_t tc_j_async;          // -Ja
  uint16_t tc_j_port;          // -Jt; 0 none
  const char *tc_j_commands[TASK_J_MAX];  // -Jd
  const char *tc_j_files[TASK_J_MAX];     // -Jf
  uint8_t tc_j_ncommands, tc_j_nfiles;
  char tc_lr_name[TASK_LR_NAME_MAX + 1];  // -Jl, -JL
};
extern task_cmdline task_options;

// app_parse_arg(argc, argv, index) sees each option first: it returns how many
// words it took (0: not its own, -1: an error). task_parse_args returns the
// number of errors; each has printed its line, the usage and the banner.
int task_parse_args(int argc, char **argv, int (*app_parse_arg)(int argc, char **argv, int index));
// -t letters and their flags.
enum : uint32_t {
  TASK_TRACE_FLAG_TASK = 0x1,   // t
  TASK_TRACE_FLAG_TIMER = 0x2,  // i
  TASK_TRACE_FLAG_CONFIG = 0x4, // c
  TASK_TRACE_FLAG_NORMAL = 0x8, // n
  TASK_TRACE_FLAG_ROUTE = 0x10, // r
  TASK_TRACE_FLAG_ALL = 0x1f,
};

// The engine's role is always master here; a test sets this before task_init
// to reach the backup paths (the backup module table, app_check_backup).
extern bool task_backup_for_test;

// Milestones go to app_milestone and the trace.
void task_milestone(const char *text);

}  // extern "C"
