// A daemon's start, configuration checks, reconfiguration on SIGHUP and the
// end on SIGTERM, through task_init as a daemon's main calls it. A start is
// once per process: ctest runs every test case in a process of its own, and
// the exits run in death-test children.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/ddl.h"
#include "evlog/evlog.h"
#include "platform/path.h"
#include "task/evq.h"
#include "task/lifecycle.h"
#include "task/process.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

task_app_ctx_t app;
std::string greeting;
int var_inits, inits, startups, cleanups;

constexpr ddl_node statements[] = {{.dn_name = "greeting", .dn_type = DDL_STRING, .dn_maxlen = 63}, {}};
constexpr ddl_node schema = {.dn_name = "", .dn_type = DDL_CONTAINER, .dn_children = statements};

int read_greeting(char *buf, size_t len) {
  char text[64] = "hello";
  ddl_object_t *obj = nullptr;
  if (dax_get_object_by_name(nullptr, "greeting", &obj)) {
    dax_get_string_by_name(obj, nullptr, text, sizeof text);
    dax_release_object(&obj);
    if (!text[0]) {
      snprintf(buf, len, "greeting must not be empty");
      return 0;
    }
  }
  greeting = text;
  return 1;
}

task *cleaner;
void var_init() {
  var_inits++;
  if (cleaner) return;
  cleaner = task_alloc("cleaner", 10, nullptr);
  task_set_cleanup(cleaner, [](task *) { cleanups++; });
  task_create(cleaner);
}

const task_module modules[] = {
    {.module_id = 0, .module_config_level = 1, .module_config = read_greeting, .module_name = "Config"},
    {.module_id = 1, .module_var_init = var_init, .module_name = "Var"},
    {.module_id = 2, .module_init = [] { inits++; }, .module_name = "Init"},
    {.module_id = 3, .module_startup = [] { startups++; }, .module_name = "Startup"},
    {},
};

struct Start : ::testing::Test {
  std::string root, conf;
  std::vector<std::string> words;
  std::vector<char *> argv;

  void SetUp() override {
    char dir[] = "/tmp/task_start_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root = dir;
    tvx_path_set_root(root.c_str());
    conf = root + "/example.conf";
    app = {};
    app.modules.count = 4;
    app.modules.backup = app.modules.master = modules;
    app.app_read_config = task_default_read_config;
    app.app_process_reconfigure = task_default_process_reconfigure;
    app.app_allow_nonroot = 1;
    ddl_schema_register(TASK_CONFIG_MAGIC, &schema);
  }
  void TearDown() override { std::system(("rm -rf " + root).c_str()); }

  void write(const std::string &text) { std::ofstream(conf) << text; }
  std::string read(const std::string &logical) {
    std::ifstream f(tvx_path(logical.c_str()));
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
  }
  bool exists(const std::string &logical) { return access(tvx_path(logical.c_str()).c_str(), F_OK) == 0; }

  // task_init, the read and the post-read, as a daemon's main does them.
  void start(std::vector<std::string> args) {
    words = {"exampled", "-N", "-f", conf};
    words.insert(words.end(), args.begin(), args.end());
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    task_init(static_cast<int>(words.size()), argv.data(), &app);
    task_read_config(&app, TASK_CONFIG_MAGIC, (task_state & TASKS_TEST) != 0);
    task_post_read_config(&app);
  }
};

TEST_F(Start, ConfigurationChecksExitByResult) {
  write("greeting \"hi\";\n");
  EXPECT_EXIT(start({"-c"}), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(start({"-cc"}), ::testing::ExitedWithCode(0), "configuration check succeeded");
  write("greeting \"hi\"\n");  // no ';'
  EXPECT_EXIT(start({"-c"}), ::testing::ExitedWithCode(1), "example.conf:2");
  write("greeting \"\";\n");  // refused by its module
  EXPECT_EXIT(start({"-C"}), ::testing::ExitedWithCode(1), "greeting must not be empty");
  EXPECT_EXIT(start({"-CC"}), ::testing::ExitedWithCode(1), "configuration check failed");
  // A check takes no lock and leaves no PID file.
  EXPECT_FALSE(exists("/var/run/exampled.pid"));
}

TEST_F(Start, StartRunsTheWalksInOrderAndTakesTheLock) {
  write("greeting \"hi\";\n");
  evlog_capture &cap = evlog_capture_start();
  start({});
  EXPECT_EQ(startups, 1);
  EXPECT_EQ(var_inits, 1);
  EXPECT_EQ(inits, 1);
  EXPECT_EQ(greeting, "hi");
  EXPECT_FALSE(task_state & TASKS_INIT);
  for (uint32_t id = 0; id < 4; id++) EXPECT_TRUE(task_module_running(id));
  EXPECT_EQ(task_module_state(0), TASK_MODULE_CONFIGURED);
  EXPECT_EQ(task_module_state(2), TASK_MODULE_INIT);
  EXPECT_EQ(read("/var/run/exampled.pid"), std::to_string(getpid()) + "\n");
  std::string version = read("/var/run/exampled.version");
  EXPECT_EQ(version.rfind("exampled version ", 0), 0u) << version;
  EXPECT_NE(version.find("\n\tpid " + std::to_string(getpid()) + ", started "), std::string::npos) << version;
  EXPECT_EQ(cap.ident, "exampled");
  bool started = false;
  for (auto &r : cap.records)
    if (r.tag == "ZTASK_START") started = r.text.find("Start exampled[" + std::to_string(getpid()) + "] version") != std::string::npos;
  EXPECT_TRUE(started);
  // A second daemon of the same name is refused with this one's pid.
  int fd = task_lockfile_open(tvx_path("/var/run/exampled.pid").c_str());
  EXPECT_EQ(fd, -1);
  ASSERT_FALSE(cap.records.empty());
  EXPECT_EQ(cap.records.back().tag, "ZTASK_LOCK_LOCKED");
  EXPECT_NE(cap.records.back().text.find("exampled[" + std::to_string(getpid()) + "] is still running"),
            std::string::npos);
  evlog_capture_stop();
}

TEST_F(Start, SighupRereadsChangedUnchangedAndBrokenFiles) {
  write("greeting \"one\";\n");
  start({});
  evlog_capture &cap = evlog_capture_start();
  task_config_var *cv = task_var_config();
  uint32_t seq = cv->tcv_sequence;

  write("greeting \"two\";\n");
  task_signal_event(SIGHUP);
  EXPECT_EQ(greeting, "two");
  EXPECT_EQ(cv->tcv_reconfigs, 1u);
  EXPECT_EQ(cv->tcv_same_sequence, 0);
  EXPECT_NE(cv->tcv_sequence, seq);
  EXPECT_EQ(cleanups, 1);
  EXPECT_EQ(var_inits, 2);
  EXPECT_EQ(inits, 2);
  EXPECT_EQ(startups, 1);  // once per process
  EXPECT_EQ(task_module_state(0), TASK_MODULE_CONFIGURED);

  // Comments and layout are not content: the same sequence, recorded as such.
  write("# unchanged\ngreeting   \"two\" ;\n");
  seq = cv->tcv_sequence;
  task_signal_event(SIGHUP);
  EXPECT_EQ(cv->tcv_same_sequence, 1);
  EXPECT_EQ(cv->tcv_sequence, seq);
  EXPECT_EQ(inits, 3);

  // A broken file: logged where it is wrong; nothing else runs, the old configuration stays.
  cap.records.clear();
  write("greeting \"three\"\n");
  task_signal_event(SIGHUP);
  EXPECT_EQ(greeting, "two");
  EXPECT_EQ(cleanups, 2);
  EXPECT_EQ(inits, 3);
  EXPECT_FALSE(task_state & (TASKS_RECONFIG | TASKS_PARSECONFIG));
  std::string failed;
  for (auto &r : cap.records)
    if (r.tag == "ZTASK_TASK_REINIT" && r.priority == LOG_ERR) failed = r.text;
  EXPECT_NE(failed.find("configuration unchanged"), std::string::npos) << failed;
  EXPECT_NE(failed.find("example.conf:2"), std::string::npos) << failed;

  // In "NoReConfig" a SIGHUP only says so.
  task_newstate(TASKS_NORECONFIG, 0);
  write("greeting \"four\";\n");
  task_signal_event(SIGHUP);
  EXPECT_EQ(greeting, "two");
  EXPECT_EQ(cap.records.back().tag, "ZTASK_TASK_NOREINIT");
  evlog_capture_stop();
}

TEST_F(Start, ShortFormLeavesTheDataBaseAlone) {
  write("greeting \"one\";\n");
  start({});
  write("greeting \"two\"\n");  // broken, and never opened
  task_reconfigure_short(&app, nullptr);
  EXPECT_EQ(greeting, "one");
  EXPECT_EQ(cleanups, 1);
  EXPECT_EQ(var_inits, 2);
  EXPECT_EQ(inits, 2);
  EXPECT_EQ(task_module_state(1), TASK_MODULE_VAR_INIT);
  EXPECT_EQ(task_module_state(0), TASK_MODULE_VAR_INIT);  // no configuration pass
}

TEST_F(Start, SighupDuringAReadIsHeldAndResentOnClose) {
  write("greeting \"one\";\n");
  start({});
  app.app_hup_deferred = 1;
  ASSERT_TRUE(task_open_configuration(conf.c_str(), TASK_CONFIG_MAGIC, 0));
  task_signal_event(SIGHUP);
  EXPECT_EQ(task_var_config()->tcv_reconfigs, 0u);
  EXPECT_TRUE(task_state & TASKS_HUP_PENDING);
  sigset_t pending;
  sigpending(&pending);
  ASSERT_FALSE(sigismember(&pending, SIGHUP));
  task_close_configuration();
  EXPECT_FALSE(task_state & (TASKS_HUP_PENDING | TASKS_PARSECONFIG));
  sigpending(&pending);
  EXPECT_TRUE(sigismember(&pending, SIGHUP));  // blocked, waiting for the next pass
}

TEST_F(Start, SigtermExitsAndRemovesThePidFile) {
  write("greeting \"hi\";\n");
  EXPECT_EXIT(
      {
        start({});
        if (!exists("/var/run/exampled.pid")) _exit(3);
        task_signal_event(SIGTERM);
      },
      ::testing::ExitedWithCode(0), "ZTASK_SIGNAL_TERMINATE: first termination signal received(.|\n)*ZTASK_EXIT: Exit exampled");
  EXPECT_FALSE(exists("/var/run/exampled.pid"));
  EXPECT_TRUE(exists("/var/run/exampled.version"));
}

TEST_F(Start, TraceOptionsReachTheKernelsTraceFile) {
  write("greeting \"hi\";\n");
  start({"-tt", "kernel.trace"});
  write("greeting \"ho\";\n");
  task_signal_event(SIGHUP);
  std::string text = read("/var/log/kernel.trace");
  EXPECT_NE(text.find("task_post_read_config: configuration read"), std::string::npos) << text;
  EXPECT_NE(text.find("task_module_config(1): reading configuration for Config"), std::string::npos) << text;
  EXPECT_NE(text.find("Received SIGHUP"), std::string::npos) << text;
}

task_utime fake_now{5000, 0};
int naps;

TEST_F(Start, DebuggerHoldWaitsUntilReleasedOrThirtySeconds) {
  write("greeting \"hi\";\n");
  task_set_time_hook([](task_utime *now) { *now = fake_now; });
  task_daemon_nap = [] {
    naps++;
    fake_now.ut_sec++;
    if (naps == 5 && task_debugger_hold == 'D') task_debugger_hold = 0;  // the debugger lets go
  };
  EXPECT_EXIT(
      {
        naps = 100;  // never released
        start({"-Gc"});
        fprintf(stderr, "held %d\n", naps - 100);
        exit(0);
      },
      ::testing::ExitedWithCode(0), "held 30\n");
  start({"-Gd"});
  EXPECT_EQ(naps, 5);
}

TEST_F(Start, BackupWithoutStandbyConfigurationQuits) {
  write("greeting \"hi\";\n");
  task_backup_for_test = true;
  app.app_check_backup = 1;
  EXPECT_EXIT(start({}), ::testing::ExitedWithCode(0),
              "ZTASK_NSR_OR_WARM_STANDBY_CONFIG_ERROR: Neither NSR nor warm-standby config is present.Exiting in "
              "backup re(.|\n)*ZTASK_EXIT");
  app.app_check_backup = 0;
  start({});
  EXPECT_EQ(app.app_is_master, 0u);
  EXPECT_EQ(greeting, "hi");  // the backup table is the same table here
}

TEST_F(Start, BadOptionsQuitBeforeAnything) {
  EXPECT_EXIT(start({"-n", "-n"}), ::testing::ExitedWithCode(0), "ZTASK_PARSE_CMD_DUPLICATE");
  EXPECT_FALSE(exists("/var/run/exampled.pid"));
}

TEST_F(Start, NotRootIsRefused) {
  app.app_allow_nonroot = 0;
  EXPECT_EXIT(
      {
        if (geteuid() == 0 && setuid(65534) != 0) _exit(4);
        start({});
      },
      ::testing::ExitedWithCode(2), "exampled: must be root");
}

}  // namespace
