// The debug shell over its local socket: print, set, dump and call on this
// program's exported test variable and functions, fork's status lines, the
// shared-library commands and their errors, help, asynchronous messages with
// past and monitor, -Jd, and the socket's mode.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <csignal>
#include <vector>
#include <cstdlib>
#include <string>

#include "io_fixture.h"
#include "unix_client.h"
#include "mgmt/dbgsh.h"
#include "platform/path.h"
#include "task/lifecycle.h"

extern "C" {
uint32_t dbgsh_test_var = 0x1234;
uint32_t dbgsh_test_array[8] = {1, 2, 3, 4, 5, 6, 7, 8};
long dbgsh_test_fn(long a, long b) { return a * 10 + b; }
long dbgsh_test_exit(long code) { return code; }
long dbgsh_test_kill(void) {
  raise(SIGKILL);
  return 0;
}
}

using namespace tt;

namespace {

const std::string kPrompt = "dbgsh_test-DbgSh # ";

class DbgSh : public Io {
 protected:
  temp_root tmp;
  void SetUp() override {
    Io::SetUp();
    tmp.make();
    task_set_daemon_name("dbgsh_test");
  }
  void start() {
    dbg_sh_init();
    advance(1.5);  // "Listen_Init"
    real_passes(2);
  }
  void TearDown() override {
    dbg_sh_shutdown();
    tmp.remove();
    Io::TearDown();
  }
  int client() {
    int s = unix_client("/var/run/dbgsh_test_dbgsh");
    real_passes(2);
    EXPECT_EQ(drain(s), kPrompt);
    return s;
  }
  // The command's output, without the prompt that follows it.
  std::string ask(int s, const std::string &line) {
    std::string text = line + "\n";
    EXPECT_EQ(write(s, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    real_passes(2);
    std::string got = drain(s);
    if (got.size() >= kPrompt.size() && got.compare(got.size() - kPrompt.size(), kPrompt.size(), kPrompt) == 0)
      got.resize(got.size() - kPrompt.size());
    else
      ADD_FAILURE() << "no prompt after " << line << ": " << got;
    return got;
  }
};

TEST_F(DbgSh, PrivateSocketAndPrompt) {
  start();
  struct stat st{};
  ASSERT_EQ(stat(tvx_path("/var/run/dbgsh_test_dbgsh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  int s = client();
  EXPECT_EQ(ask(s, "nonsense here"), "Syntax error: try 'help'.\n");
  std::string h = ask(s, "help");
  EXPECT_EQ(h.rfind("dbgsh_test debug shell -- supports the following commands:\n\n", 0), 0u) << h;
  EXPECT_NE(h.find("\nx/dump <variable/addr> [num-rows] - Show memory hex dump\n"), std::string::npos) << h;
  EXPECT_NE(h.find("\nasync test [on|off]               - Enable/disable async debug test\n"), std::string::npos);
  EXPECT_NE(h.find("\nquit                              - Exit from the shell\n"), std::string::npos);
  std::string line(2000, 'x');
  EXPECT_EQ(ask(s, line), "Command line too long\n");
  EXPECT_EQ(write(s, "quit\n", 5), 5);
  real_passes(2);
  char c;
  EXPECT_EQ(read(s, &c, 1), 0);
  close(s);
}

TEST_F(DbgSh, PrintSetDumpAndCallReachExportedSymbols) {
  start();
  int s = client();
  char addr[32];
  snprintf(addr, sizeof addr, "0x%016lX", reinterpret_cast<unsigned long>(&dbgsh_test_var));
  EXPECT_EQ(ask(s, "print dbgsh_test_var"), std::string("dbgsh_test_var (") + addr + ") = 4660 (0x1234)\n");
  EXPECT_EQ(ask(s, std::string("p ") + addr), std::string(addr) + " (" + addr + ") = 4660 (0x1234)\n");
  EXPECT_EQ(ask(s, "set dbgsh_test_var 77"), "    Variable dbgsh_test_var changed from 4660 (0x1234) to 77 (0x004D)\n");
  EXPECT_EQ(dbgsh_test_var, 77u);
  EXPECT_EQ(ask(s, "set dbgsh_test_var"), "dbgsh_test_var is currently set to 77 (0x004D)\n");
  EXPECT_EQ(ask(s, "set dbgsh_test_var 12abc"), "Invalid value 12abc cannot be set to dbgsh_test_var\n");
  EXPECT_EQ(ask(s, "set no_such_variable 1"), "Variable no_such_variable not found\n");
  EXPECT_EQ(dbgsh_test_var, 77u);
  char row0[32], row1[32];
  snprintf(row0, sizeof row0, "0x%016lX", reinterpret_cast<unsigned long>(&dbgsh_test_array[0]));
  snprintf(row1, sizeof row1, "0x%016lX", reinterpret_cast<unsigned long>(&dbgsh_test_array[4]));
  EXPECT_EQ(ask(s, "x dbgsh_test_array 2"), std::string("\n") + row0 +
                                                ": 0x00000001 0x00000002 0x00000003 0x00000004 \n" + row1 +
                                                ": 0x00000005 0x00000006 0x00000007 0x00000008 \n");
  EXPECT_EQ(ask(s, "dump nothing_here"), "Variable/address nothing_here not found\n");
  EXPECT_EQ(ask(s, "call dbgsh_test_fn 4 2"), "dbgsh_test_fn() returned 42 (0x2A)\n");
  EXPECT_EQ(ask(s, "c no_such_function"), "no_such_function() not found\n");
  close(s);
}

TEST_F(DbgSh, ForkReportsHowTheChildEnded) {
  start();
  int s = client();
  EXPECT_EQ(ask(s, "fork dbgsh_test_exit 3"), "fork: child exited with status 3\n");
  EXPECT_EQ(ask(s, "fork dbgsh_test_kill"), "fork: child killed by signal 9\n");
  EXPECT_EQ(ask(s, "fork no_such_function"), "fork: child exited with status 127\n");
  EXPECT_EQ(ask(s, "fork"), "Missing command for 'fork'\n");
  close(s);
}

TEST_F(DbgSh, SharedLibraryCommandsAndTheirErrors) {
  start();
  int s = client();
  EXPECT_EQ(ask(s, "lib-show"), "Library not loaded.\n");
  EXPECT_EQ(ask(s, "lib-exec abs 1"), "Library not loaded.\n");
  EXPECT_EQ(ask(s, "lib-unload"), "Library not loaded.\n");
  std::string def = tvx_path("/var/tmp/libunit-test.so");
  std::string e = ask(s, "lib-load");
  EXPECT_EQ(e.rfind("Failed to dlopen shared library " + def + ": ", 0), 0u) << e;
  EXPECT_EQ(e.substr(e.size() - 2), ".\n");
  EXPECT_EQ(ask(s, "lib-load libc.so.6"), "Library libc.so.6 loaded.\n");
  EXPECT_EQ(ask(s, "lib-load libc.so.6"), "Library already open.\n");
  EXPECT_EQ(ask(s, "lib-show"), "Library libc.so.6 loaded.\n");
  EXPECT_EQ(ask(s, "lib-exec abs -5"), "abs() returned 5 (0x5)\n");
  EXPECT_EQ(ask(s, "lib-exec abs 1 2 3 4 5"), "Too many args 5.\n");
  e = ask(s, "lib-exec no_such_entry");
  EXPECT_EQ(e.rfind("dlsym failed for entry point no_such_entry: ", 0), 0u) << e;
  EXPECT_EQ(ask(s, "lib-unload"), "Library libc.so.6 unloaded.\n");
  EXPECT_EQ(ask(s, "lib-show"), "Library not loaded.\n");
  close(s);
}

TEST_F(DbgSh, AsyncMessagesInPastAndMonitor) {
  start();
  int a = client(), b = client();
  EXPECT_EQ(ask(a, "async"), "Asynchronous message collection: disabled\nAsynchronous message test: not running\n");
  DBG_SH_ASYNC("dropped %d", 1);  // collection is off
  EXPECT_EQ(ask(a, "past"), "");
  EXPECT_EQ(ask(a, "async on"), "Asynchronous message collection: enabled\n");
  EXPECT_EQ(ask(a, "async maybe"), "Syntax error. 'maybe' must be 'on', 'off' or 'test'\n");
  EXPECT_EQ(write(b, "monitor\n", 8), 8);
  real_passes(2);
  EXPECT_EQ(drain(b), "Monitoring asynchronous debug messages.  Press Enter to stop.\n");
  DBG_SH_ASYNC("value %d", 42);
  real_passes(2);
  std::string m = drain(b);
  EXPECT_EQ(m.rfind("DBG_SH_START:\n", 0), 0u) << m;
  EXPECT_NE(m.find("dbgsh_test.cc:TestBody():"), std::string::npos) << m;
  EXPECT_NE(m.find("\nDBG_SH_MSG:\nvalue 42\nDBG_SH_BT:\n0x"), std::string::npos) << m;
  EXPECT_EQ(m.substr(m.size() - 13), "\nDBG_SH_END:\n");
  EXPECT_EQ(ask(a, "past"), m);
  EXPECT_EQ(ask(b, ""), "Monitor mode stopped.\n");
  EXPECT_EQ(ask(a, "async test on"), "Asynchronous message test: running\n");
  advance(1.5);
  real_passes(2);
  EXPECT_NE(ask(a, "past").find("asynchronous debug test message"), std::string::npos);
  EXPECT_EQ(ask(a, "async test off"), "Asynchronous message test: not running\n");
  close(a);
  close(b);
}

TEST_F(DbgSh, StartupCommandsRunWhenTheShellStarts) {
  static char cmd[] = "set dbgsh_test_var 5";
  task_options.tc_j_commands[0] = cmd;
  task_options.tc_j_ncommands = 1;
  dbgsh_test_var = 1;
  dbg_sh_init();
  EXPECT_EQ(dbgsh_test_var, 1u);
  start();
  EXPECT_EQ(dbgsh_test_var, 5u);
  task_options.tc_j_ncommands = 0;
}

}  // namespace

namespace {

TEST_F(DbgSh, TcpOnlyWithJtAndOnlyOnLoopback) {
  start();
  EXPECT_EQ(task_options.tc_j_port, 0);
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sin;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr *>(&sin), sizeof sin), 0);  // a free port to use
  getsockname(probe, reinterpret_cast<sockaddr *>(&sin), &len);
  close(probe);
  dbg_sh_shutdown();
  task_options.tc_j_port = ntohs(sin.sin_port);
  start();
  task_options.tc_j_port = 0;
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(s, reinterpret_cast<sockaddr *>(&sin), sizeof sin), 0) << strerror(errno);
  fcntl(s, F_SETFL, O_NONBLOCK);
  real_passes(2);
  EXPECT_EQ(drain(s), kPrompt);
  sockaddr_in local{};
  len = sizeof local;
  getpeername(s, reinterpret_cast<sockaddr *>(&local), &len);
  EXPECT_EQ(ntohl(local.sin_addr.s_addr), INADDR_LOOPBACK);
  close(s);
}

TEST_F(DbgSh, MonitorsAreLimited) {
  evlog_capture &cap = evlog_capture_start();
  start();
  std::vector<int> c;
  for (int i = 0; i <= DBG_SH_CONNECTLIST_SIZE; i++) {
    c.push_back(client());
    EXPECT_EQ(write(c.back(), "monitor\n", 8), 8);
    real_passes(2);
    std::string got = drain(c.back());
    if (i < DBG_SH_CONNECTLIST_SIZE)
      EXPECT_EQ(got, "Monitoring asynchronous debug messages.  Press Enter to stop.\n");
    else
      EXPECT_EQ(got, kPrompt);  // refused, the session goes on
  }
  bool logged = false;
  for (auto &r : cap.records) logged |= r.text.find("dbg_sh_monitors < DBG_SH_CONNECTLIST_SIZE") != std::string::npos;
  EXPECT_TRUE(logged);
  evlog_capture_stop();
  for (int s : c) close(s);
}

TEST_F(DbgSh, CommandFilesRunAtStartAndDieAborts) {
  std::string file = std::string(tmp.dir) + "/cmds";
  FILE *f = fopen(file.c_str(), "w");
  fprintf(f, "# a comment\nset dbgsh_test_var 9\n%s\nset dbgsh_test_var 11\n", std::string(1500, 'y').c_str());
  fclose(f);
  task_options.tc_j_files[0] = file.c_str();
  task_options.tc_j_nfiles = 1;
  dbgsh_test_var = 0;
  testing::internal::CaptureStderr();
  start();
  std::string err = testing::internal::GetCapturedStderr();
  task_options.tc_j_nfiles = 0;
  EXPECT_EQ(dbgsh_test_var, 11u);
  EXPECT_NE(err.find("Command line too long\n"), std::string::npos) << err;
  char die[] = "die";
  EXPECT_DEATH(dbg_sh_run_line(stdout, die), "");
}

}  // namespace
