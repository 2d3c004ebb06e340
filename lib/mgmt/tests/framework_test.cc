// The framework's command table, mounted beside a daemon's: help over both,
// merged "show" rows, the kernel's dumps, trace flags.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "mgmt/dbgsh.h"
#include "mgmt_fixture.h"
#include "task/process.h"
#include "task/timer.h"
#include "trace/trace.h"

using namespace tt;

namespace {

int show_vni(mgmt_cmd_ctx *ctx, char *args) {
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "vni %s", args ? args : "all");
  return MGMT_CMD_DONE;
}
const mgmt_cmd daemon_show[] = {{"vni", MGMT_MODULE_NONE, nullptr, show_vni}, {}};
const mgmt_cmd daemon_cmds[] = {{"show", MGMT_MODULE_NONE, daemon_show, nullptr}, {}};

class Framework : public Mgmt {
 protected:
  const mgmt_cmd *root_table() override { return mgmt_framework_cmds; }
  void SetUp() override {
    Mgmt::SetUp();
    mgmt_framework_mount(daemon_cmds);
  }
};

TEST_F(Framework, HelpCoversBothTablesAndShowRowsMerge) {
  int s = client();
  EXPECT_EQ(ask(s, "help"), "200-abort\r\n200-quit\r\n200-help\r\n200-show\r\n200-set\r\n200 dump\r\n");
  EXPECT_EQ(ask(s, "help show"),
            "200-version\r\n200-memory\r\n200-task\r\n200-timer\r\n200-jobs\r\n200-accounting\r\n200-trace\r\n"
            "200 vni\r\n");
  EXPECT_EQ(ask(s, "show vni 5000"), "100 vni 5000\r\n");
  EXPECT_EQ(ask(s, "help show vni"), "201 Command syntax correct\r\n");
  close(s);
}

TEST_F(Framework, ShowCommandsReportTheKernel) {
  mgmt_set_idle_timeout(60);
  int s = client();
  std::string v = ask(s, "show version");
  EXPECT_NE(v.find(" release "), std::string::npos) << v;
  EXPECT_EQ(v.compare(0, 4, "100 "), 0);  // one line, the last
  std::string t = ask(s, "show task");
  EXPECT_NE(t.find("100-Task State: "), std::string::npos) << t;
  EXPECT_NE(t.find("MGMT_Listen"), std::string::npos) << t;
  EXPECT_NE(t.find("Accept MServer"), std::string::npos) << t;
  std::string ti = ask(s, "show timer");
  EXPECT_NE(ti.find("Normal priority timers:"), std::string::npos) << ti;
  EXPECT_NE(ti.find("| PeerIdleTimeOut"), std::string::npos) << ti;  // under the task's parent
  EXPECT_NE(ti.find("     1:00       0      1:00  T"), std::string::npos) << ti;  // time left, interval
  mgmt_set_idle_timeout(0);
#ifdef TVX_DEBUG_SHELL
  std::string shell = ask(s, "show timer");
  EXPECT_NE(shell.find("Listen_Init"), std::string::npos) << shell;  // the debug shell starts a second from now
  dbg_sh_shutdown();
#endif
  mgmt_shutdown();
  mgmt_listen_on("/var/run/test_mgmt");
  close(s);
  s = client();
  EXPECT_EQ(ask(s, "show timer"), "100 \r\n");  // no timer anywhere: still one line, the last
  std::string j = ask(s, "show jobs");
  EXPECT_NE(j.find("100-Jobs queued: "), std::string::npos) << j;
  EXPECT_NE(ask(s, "show accounting").find("Accounting: off"), std::string::npos);
  std::string m = ask(s, "show memory");
  EXPECT_NE(m.find("mgmtPeer"), std::string::npos) << m;  // the peers' block
  EXPECT_EQ(m.substr(m.size() - 2), "\r\n");
  close(s);
}

TEST_F(Framework, TraceFlagsOfTheDaemon) {
  int s = client();
  EXPECT_EQ(ask(s, "show trace"), "500 Tracing is not configured\r\n");
  static const trace_types mine[] = {{0x1, 0, "packets"}, {0x2, 0, "kernel"}, {0, 0, nullptr}};
  static trace_handle *handle;
  trace_init(nullptr);
  char path[128];
  snprintf(path, sizeof path, "%s/daemon.trace", dir);
  ztrace_store(&handle, 0, 0, 0, trace_file_locate(path, 1 << 20, 0, 3, 0, nullptr, false), mine);
  ASSERT_NE(handle, nullptr);
  mgmt_framework_set_trace(&handle, mine);
  EXPECT_EQ(ask(s, "set trace packets,kernel"), "100 Tracing flags enabled: packets, kernel\r\n");
  EXPECT_EQ(handle->tr_flags, 0x3u);
  EXPECT_EQ(ask(s, "set trace bogus"), "500 Unknown trace flag bogus\r\n");
  EXPECT_EQ(ask(s, "set trace"), "500 Missing trace flags\r\n");
  std::string t = ask(s, "show trace");
  EXPECT_NE(t.find("packets"), std::string::npos) << t;
  EXPECT_NE(t.find("daemon.trace"), std::string::npos) << t;
  close(s);
}

std::string file_text(const std::string &path) {
  std::string t;
  if (FILE *f = fopen(path.c_str(), "r")) {
    char b[4096];
    for (size_t n; (n = fread(b, 1, sizeof b, f)) > 0;) t.append(b, n);
    fclose(f);
  }
  return t;
}

TEST_F(Framework, DumpAppendsTheTracingStateAndTaskListUnderALock) {
  task_set_daemon_name("mgmt_channel");
  tvx_mkdirs((std::string(dir) + "/var/tmp").c_str(), 0755);
  std::string path = tvx_path("/var/tmp/mgmt_channel_dump");
  int s = client();
  EXPECT_EQ(ask(s, "dump"), "100 Dump written to /var/tmp/mgmt_channel_dump\r\n");
  EXPECT_EQ(ask(s, "dump"), "100 Dump written to /var/tmp/mgmt_channel_dump\r\n");
  std::string t = file_text(path);
  EXPECT_EQ(t.rfind("mgmt_channel[" + std::to_string(getpid()) + "] version ", 0), 0u) << t;
  EXPECT_NE(t.find("\t\tStarted at "), std::string::npos) << t;
  EXPECT_NE(t.find("Tracing:\n"), std::string::npos) << t;
  EXPECT_NE(t.find("MGMT_Listen"), std::string::npos) << t;
  size_t first = t.find("\nDone\n");
  EXPECT_NE(first, std::string::npos);
  EXPECT_NE(t.find("\nDone\n", first + 1), std::string::npos);  // appended, not replaced

  // Another holder of the lock: ten waits of 15 seconds, then the dump is given up.
  evlog_capture &cap = evlog_capture_start();
  int holder = open(path.c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  static int naps;
  naps = 0;
  task_daemon_nap = [] {
    naps++;
    advance(5);
  };
  ASSERT_EQ(trace_do_dump(), -1);
  EXPECT_EQ(naps, 30);
  int waits = 0;
  for (auto &r : cap.records) waits += r.text == "trace_do_dump: dump file \"" + path + "\" in use, waiting...";
  EXPECT_EQ(waits, 10);
  close(holder);
  // Something that is not a regular file is refused at once.
  unlink(path.c_str());
  mkdir(path.c_str(), 0755);
  EXPECT_EQ(ask(s, "dump"), "500 Dump to /var/tmp/mgmt_channel_dump failed (the log says why)\r\n");
  bool said = false;
  for (auto &r : cap.records) said |= r.text == "trace_do_dump: \"" + path + "\" is not a regular file";
  EXPECT_TRUE(said);
  evlog_capture_stop();
  close(s);
}

}  // namespace
