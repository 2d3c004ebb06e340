// tunechod: the overlay-ping responder's entry. main fills the application
// record and hands control to the task kernel; the module hooks do the rest:
//
//   0 "TUNECHOD Config"     reads the trace options
//   1 "TUNECHOD Recv"       raw send socket, route-socket handle, UDP 4789 task
//   2 "TUNECHOD Local Recv" the ping command's local socket
//   3 "TUNECHOD Kernel"     the route-socket channel and the bridge-domain scan
//
// All variable inits run before the inits, so the sockets exist before the
// channel opens. docs/tunechod.md is the operator's page.
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "evlog/evlog.h"
#include "format/task_fmt.h"
#include "krt/krt.h"
#include "platform/compat.h"
#include "sockaddr/routing.h"
#include "task/lifecycle.h"
#include "task/sched.h"
#include "trace/trace.h"
#include "tunechod.h"

namespace {

task_app_ctx_t app;
char pid_pattern[64], pid_path[64], mgmt_path[64];

int config_module(char *, size_t) { return tunechod_config_read(); }

const task_module modules[] = {
    {.module_id = 0, .module_config_level = 1, .module_config = config_module, .module_name = "TUNECHOD Config"},
    {.module_id = 1, .module_var_init = tunechod_rx_module_init, .module_config_level = 1,
     .module_name = "TUNECHOD Recv"},
    {.module_id = 2, .module_var_init = tunechod_local_rx_init, .module_config_level = 1,
     .module_name = "TUNECHOD Local Recv"},
    {.module_id = 3, .module_init = tunechod_krt_init, .module_var_init = krt_var_init, .module_config_level = 1,
     .module_name = "TUNECHOD Kernel"},
    {},
};

// The address families, by id, with their registration routines.
struct af_row {
  unsigned id;
  void (*register_fn)(unsigned gf);
};
const af_row af_table[] = {
    {GF_INET, zsock_register_inet}, {GF_INET6, zsock_register_inet6}, {GF_UNIX, zsock_register_unix},
    {GF_STRING, nullptr},           {GF_I802, zsock_register_i802},
};

void *trace_alloc_hook(int, size_t size) { return tunechod_app_alloc(size); }
void trace_free_hook(int, void *block) { tunechod_app_free(block); }
void *zsock_alloc_hook(unsigned, size_t size) { return tunechod_app_alloc2(nullptr, size); }
void zsock_free_hook(void *block, unsigned) { tunechod_app_free(block); }

void families_init(void) {
  task_fmt_init(GF_MAX_DAEMON);
  zsock_hooks h = zsock_hooks_libc();
  h.alloc = zsock_alloc_hook;
  h.free = zsock_free_hook;
  h.free_sized = nullptr;
  task_fmt_zsock_hooks(&h);
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  for (const af_row &r : af_table)
    if (r.register_fn) r.register_fn(r.id);
  // The routing, composite and flow families too: kernel messages may carry
  // any of them.
  for (unsigned i = 0; zsock_table_rows[i].name; i++)
    if (unsigned gf = zsock_table_daemon_gf(i); !zsock_family_row(gf))
      zsock_register_row(zsock_table_rows[i].short_name, gf);
}

}  // namespace

int main(int argc, char **argv) {
  memset(&app, 0, sizeof app);
  app.app_name = "tunechod";
  app.modules.count = 4;
  app.modules.backup = app.modules.master = modules;
  app.app_af_count = sizeof af_table / sizeof af_table[0];
  app.app_af_table = af_table;
  app.app_pagesize = static_cast<uint32_t>(getpagesize());
  app.app_alloc = tunechod_app_alloc;
  app.app_free = tunechod_app_free;
  app.app_read_config = task_default_read_config;
  app.app_process_reconfigure = task_default_process_reconfigure;

  ztrace_set_alloc(trace_alloc_hook, trace_free_hook, strdup);

  strlcpy(pid_pattern, "%s.pid", sizeof pid_pattern);
  strlcpy(pid_path, "/var/run/tunechod.pid", sizeof pid_path);
  strlcpy(mgmt_path, "/var/run/tunechod_mgmt", sizeof mgmt_path);
  app.app_pid_pattern = pid_pattern;
  app.app_pid_path = pid_path;
  app.app_mgmt_path = mgmt_path;

  families_init();
  tunechod_schema_register();
  task_init(argc, argv, &app);
  // The management channel lives from here to the end; a configuration check
  // leaves a running daemon's socket alone.
  if (!(task_state & TASKS_TEST)) tunechod_mgmt_init(app.app_mgmt_path);
  task_read_config(&app, TUNECHOD_SCHEMA, (task_state & TASKS_TEST) != 0);
  task_post_read_config(&app);
  logging_event(LOG_DEBUG, "TUNECHOD_TASK_SCHEDULER",
                "TUNECHOD_TASK_SCHEDULER: ******* Running the TUNECHOD task scheduler ******");
  task_scheduler();
}
