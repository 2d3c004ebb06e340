// task_example: a whole daemon on the task kernel, as small as it gets. Four
// modules, one configuration statement:
//
//   greeting "hello";        # in /etc/task_example.conf, or the -f file
//
// It starts as a daemon does (lock and PID file, version file), reads the
// file, and logs "EXAMPLE_READY: greeting <text>, configuration <n>" each
// time the modules have been (re)initialised; SIGHUP reloads the file,
// SIGTERM ends it with ZTASK_EXIT. It serves the management channel on
// /var/run/task_example_mgmt: the framework's commands and "show greeting".
// docs/task.md walks through it.
#include <cstdio>
#include <syslog.h>

#include <cstring>

#include "config/ddl.h"
#include "evlog/evlog.h"
#include "mgmt/mgmt.h"
#include "task/lifecycle.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

task_app_ctx_t app;
char greeting[64] = "hello";
uint32_t configurations;
task *example_task;

constexpr ddl_node statements[] = {
    {.dn_name = "greeting", .dn_type = DDL_STRING, .dn_maxlen = 63},
    {},
};
constexpr ddl_node schema = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = statements};

// Module 0: the one statement. An empty greeting is refused.
int example_config(char *buffer, size_t length) {
  char text[64] = "hello";
  ddl_object_t *obj = nullptr;
  if (dax_get_object_by_name(nullptr, "greeting", &obj)) {
    bool got = dax_get_string_by_name(obj, nullptr, text, sizeof text);
    dax_release_object(&obj);
    if (!got || !text[0]) {
      snprintf(buffer, length, "greeting must not be empty");
      return 0;
    }
  }
  strcpy(greeting, text);
  return 1;
}

// Module 1: the daemon's task, made once.
void example_var_init(void) {
  configurations++;
  if (example_task) return;
  example_task = task_alloc("example", 10, nullptr);
  task_create(example_task);
}

// Module 2: what the tests wait for.
void example_init(void) {
  logging_event(LOG_NOTICE, "EXAMPLE_READY", "EXAMPLE_READY: greeting %s, configuration %u", greeting,
                configurations);
}

// "show greeting": guarded by module 0, so it fails until the file was read.
int show_greeting(mgmt_cmd_ctx *ctx, char *) {
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "greeting %s, configuration %u", greeting, configurations);
  return MGMT_CMD_DONE;
}
const mgmt_cmd show_rows[] = {{"greeting", 0, nullptr, show_greeting}, {}};
const mgmt_cmd example_cmds[] = {{"show", MGMT_MODULE_NONE, show_rows, nullptr}, {}};

// Module 3: once per process; the management channel lives from here to the end.
void example_startup(void) {
  logging_event(LOG_NOTICE, "EXAMPLE_STARTUP", "EXAMPLE_STARTUP: modules starting");
  mgmt_framework_mount(example_cmds);
  mgmt_listen_on(app.app_mgmt_path);
}

const task_module modules[] = {
    {.module_id = 0, .module_config_level = 1, .module_config = example_config, .module_name = "EXAMPLE Config"},
    {.module_id = 1, .module_var_init = example_var_init, .module_name = "EXAMPLE Task"},
    {.module_id = 2, .module_init = example_init, .module_name = "EXAMPLE Ready"},
    {.module_id = 3, .module_startup = example_startup, .module_name = "EXAMPLE Startup"},
    {},
};

}  // namespace

int main(int argc, char **argv) {
  app.app_name = "EXAMPLE";
  app.app_mgmt_path = "/var/run/task_example_mgmt";
  app.modules.count = 4;
  app.modules.backup = app.modules.master = modules;
  app.app_read_config = task_default_read_config;
  app.app_process_reconfigure = task_default_process_reconfigure;
  ddl_schema_register(TASK_CONFIG_MAGIC, &schema);
  task_init(argc, argv, &app);
  task_read_config(&app, TASK_CONFIG_MAGIC, (task_state & TASKS_TEST) != 0);
  task_post_read_config(&app);
  task_scheduler();
}
