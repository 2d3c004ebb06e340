// The module walks: states, filters, order classes, the one-time startup.
#include <string>
#include <vector>

#include "fixture.h"
#include "task/lifecycle.h"

void task_module_state_alloc(task_app_ctx_t *ctx);

namespace {

using tt::Kernel;

std::vector<std::string> calls;
task_app_ctx_t app;

void var_a() { calls.push_back("var a"); }
void var_b() { calls.push_back("var b"); }
void init_a() { calls.push_back("init a"); }
void start_a() { calls.push_back("start a"); }
void start_b() { calls.push_back("start b"); }

int filter_id1(uint32_t id, uintptr_t tag, int phase) {
  EXPECT_EQ(tag, 0x77u * id);
  return id == 1 && phase == TASK_MODULE_PHASE_VAR_INIT;
}

template <int N>
int config_ok(char *, size_t) {
  calls.push_back("config " + std::to_string(N));
  return 1;
}
int config_fails(char *buf, size_t len) {
  calls.push_back("config fails");
  snprintf(buf, len, "value out of range");
  return 0;
}
int config_ctx(task_app_ctx_t *ctx, char *, size_t) {
  EXPECT_EQ(ctx, &app);
  calls.push_back("config ctx");
  return 1;
}

class Modules : public Kernel {
 protected:
  void use(const task_module *table, uint32_t count) {
    app = {};
    app.modules.count = count;
    app.modules.backup = app.modules.master = table;
    app.app_is_master = 1;
    task_set_task_app_ctx(&app);
    task_module_state_alloc(&app);
    calls.clear();
  }
};

TEST_F(Modules, VarInitReachesStateTwoWithNullOrFilteredMethod) {
  static const task_module table[] = {
      {.module_id = 0, .module_name = "no method", .module_tag = 0},
      {.module_id = 1, .module_var_init = var_b, .module_name = "filtered", .module_tag = 0x77},
      {.module_id = 2, .module_var_init = var_a, .module_name = "plain", .module_tag = 0xee},
      {},
  };
  use(table, 3);
  app.app_module_filter = filter_id1;
  EXPECT_FALSE(task_module_running(0));
  task_module_var_inits(&app);
  EXPECT_EQ(calls, (std::vector<std::string>{"var a"}));
  for (uint32_t id = 0; id < 3; id++) {
    EXPECT_EQ(task_module_state(id), TASK_MODULE_VAR_INIT) << id;
    EXPECT_TRUE(task_module_running(id));
  }
  // Inits mark only the rows whose method ran.
  static const task_module with_init[] = {
      {.module_id = 0, .module_init = init_a, .module_name = "a"}, {.module_id = 1, .module_name = "b"}, {}};
  app.modules.backup = app.modules.master = with_init;
  app.app_module_filter = nullptr;
  task_module_inits(&app);
  EXPECT_EQ(task_module_state(0), TASK_MODULE_INIT);
  EXPECT_EQ(task_module_state(1), TASK_MODULE_VAR_INIT);
}

TEST_F(Modules, ConfigRunsByClassThenTableOrder) {
  static const task_module table[] = {
      {.module_id = 0, .module_config_level = 3, .module_config = config_ok<3>, .module_name = "three"},
      {.module_id = 1, .module_config_level = 0, .module_config = config_ok<0>, .module_name = "zero"},
      {.module_id = 2, .module_config_level = 1, .module_config_with_ctx = config_ctx, .module_name = "ctx"},
      {.module_id = 3, .module_config_level = 1, .module_config = config_ok<1>, .module_name = "one"},
      {.module_id = 4, .module_name = "none"},
      {},
  };
  use(table, 5);
  char buf[64];
  EXPECT_EQ(task_module_config(&app, buf, sizeof buf), 1);
  EXPECT_EQ(calls, (std::vector<std::string>{"config 0", "config ctx", "config 1", "config 3"}));
  for (uint32_t id = 0; id < 4; id++) EXPECT_EQ(task_module_state(id), TASK_MODULE_CONFIGURED) << id;
  EXPECT_EQ(task_module_state(4), TASK_MODULE_NOT_RUNNING);
}

TEST_F(Modules, FailingClassTwoMethodStopsThePass) {
  static const task_module table[] = {
      {.module_id = 0, .module_config_level = 4, .module_config = config_ok<4>, .module_name = "four"},
      {.module_id = 1, .module_config_level = 2, .module_config = config_fails, .module_name = "bad"},
      {.module_id = 2, .module_config_level = 2, .module_config = config_ok<2>, .module_name = "two after"},
      {.module_id = 3, .module_config_level = 3, .module_config = config_ok<3>, .module_name = "three"},
      {.module_id = 4, .module_config_level = 1, .module_config = config_ok<1>, .module_name = "one"},
      {},
  };
  use(table, 5);
  char buf[64] = "stale";
  EXPECT_EQ(task_module_config(&app, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "value out of range");
  EXPECT_EQ(calls, (std::vector<std::string>{"config 1", "config fails"}));
  EXPECT_EQ(task_module_state(4), TASK_MODULE_CONFIGURED);
  EXPECT_NE(task_module_state(1), TASK_MODULE_CONFIGURED);
  EXPECT_NE(task_module_state(0), TASK_MODULE_CONFIGURED);
}

TEST_F(Modules, LongConfigMethodsAreLogged) {
  static const task_module table[] = {
      {.module_id = 0, .module_config_level = 0, .module_config = [](char *, size_t) {
         tt::advance(2.0);
         return 1;
       }, .module_name = "slow"},
      {.module_id = 1, .module_config_level = 1, .module_config = [](char *, size_t) {
         tt::advance(3.0);
         return 1;
       }, .module_name = "slower"},
      {},
  };
  use(table, 2);
  evlog_capture &cap = evlog_capture_start();
  char buf[64];
  EXPECT_EQ(task_module_config(&app, buf, sizeof buf), 1);
  evlog_capture_stop();
  std::vector<std::string> tags;
  for (auto &r : cap.records) tags.push_back(r.tag);
  // 2 s alone is below the limit; 3 s alone reaches it, and so does the sum of 5 s.
  EXPECT_EQ(tags, (std::vector<std::string>{"ZTASK_CFG_CALLBACK_LONGRUNTIME", "ZTASK_CFG_SCHED_CUMU_LONGRUNTIME"}));
  EXPECT_NE(cap.records[0].text.find("during configuration of slower"), std::string::npos) << cap.records[0].text;
  EXPECT_NE(cap.records[1].text.find("in 2 callbacks"), std::string::npos) << cap.records[1].text;
}

TEST_F(Modules, OnetimeStartupRunsOnce) {
  static const task_module table[] = {
      {.module_id = 0, .module_startup = start_a, .module_name = "a"},
      {.module_id = 1, .module_startup = start_b, .module_name = "b"},
      {.module_id = 2, .module_name = "c"},
      {},
  };
  use(table, 3);
  task_module_onetime_startup();
  task_module_onetime_startup();
  EXPECT_EQ(calls, (std::vector<std::string>{"start a", "start b"}));
  EXPECT_EQ(task_module_state(2), TASK_MODULE_STARTED);
}

TEST_F(Modules, TestStateWalksTheBackupTable) {
  static const task_module master[] = {{.module_id = 0, .module_var_init = var_a, .module_name = "m"}, {}};
  static const task_module backup[] = {{.module_id = 0, .module_var_init = var_b, .module_name = "b"}, {}};
  use(master, 1);
  app.modules.backup = backup;
  task_module_var_inits(&app);
  task_newstate(TASKS_TEST, 0);
  task_module_var_inits(&app);
  task_newstate(0, TASKS_TEST);
  EXPECT_EQ(calls, (std::vector<std::string>{"var a", "var b"}));
}

TEST_F(Modules, StateOutsideTheTableAsserts) {
  static const task_module table[] = {{.module_id = 0, .module_name = "a"}, {}};
  use(table, 1);
  EXPECT_DEATH(task_set_module_state(1, 2), "module_id < ctx->modules.count");
  EXPECT_DEATH(task_module_running(5), "module_id < ctx->modules.count");
  app.modules.count = 0;
  EXPECT_FALSE(task_module_running(5));
}

}  // namespace
