// fdblearnd: the state file and the query rules, then the real program
// against the library's query and against clients that misbehave.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "oam/oam.h"
#include "platform/path.h"
#include "state.h"

namespace {

using namespace fdblearnd;

State state_of(std::initializer_list<const char *> lines) {
  State s;
  for (const char *l : lines) {
    Entry e;
    bool blank;
    std::string why;
    EXPECT_TRUE(parse_line(l, &e, &blank, &why)) << l << ": " << why;
    if (!blank) s.entries.push_back(e);
  }
  return s;
}

TEST(FdblearndState, LinesAndTheirErrors) {
  Entry e;
  bool blank;
  std::string why;
  ASSERT_TRUE(parse_line("  10 5000 192.0.2.9 bd-blue 17  # tail", &e, &blank, &why));
  EXPECT_FALSE(blank);
  EXPECT_EQ(e.rtb, 10u);
  EXPECT_EQ(e.vni, 5000u);
  EXPECT_EQ(e.vtep, 0x090200C0u);
  EXPECT_EQ(e.name, "bd-blue");
  EXPECT_EQ(e.ifl_index, 17u);
  ASSERT_TRUE(parse_line("   # nothing", &e, &blank, &why));
  EXPECT_TRUE(blank);
  const char *bad[][2] = {{"10 5000 192.0.2.9 bd", "want RTB VNI VTEP NAME IFL_INDEX"},
                          {"70000 1 * b 1", "bad routing table '70000'"},
                          {"1 16777216 * b 1", "bad VNI '16777216'"},
                          {"1 -1 * b 1", "bad VNI '-1'"},
                          {"1 1 300.1.1.1 b 1", "bad VTEP address '300.1.1.1'"},
                          {"1 1 * a/b 1", "bad bridge-domain name (at most 383 bytes, no '/')"},
                          {"1 1 * b 4294967296", "bad interface index '4294967296'"}};
  for (auto &b : bad) {
    EXPECT_FALSE(parse_line(b[0], &e, &blank, &why)) << b[0];
    EXPECT_EQ(why, b[1]);
  }
}

TEST(FdblearndState, QueriesMatchTableVniAndVtep) {
  State s = state_of({"10 5000 192.0.2.9 bd-blue 17", "10 5001 * bd-green 18", "20 5000 * bd-red 21"});
  EXPECT_EQ(answer(s, "10/5000/0/151126208"), "bd-blue/17");
  EXPECT_EQ(answer(s, "10/5000/0/0"), "bd-blue/17") << "VTEP 0 is any";
  EXPECT_EQ(answer(s, "10/5000/0/1"), "") << "another VTEP";
  EXPECT_EQ(answer(s, "20/5000/0/1"), "bd-red/21");
  EXPECT_EQ(answer(s, "0/5001/0/99"), "bd-green/18") << "table 0 asks every table";
  EXPECT_EQ(answer(s, "10/6000/0/0"), "");
  for (const char *q : {"", "10/5000", "10/5000/0/", "10/5000/0/x", "a/b/c/d", "10/5000/0/0/9", "99999999999/1/0/0"})
    EXPECT_EQ(answer(s, q), "") << q;
}

// The real program, on a socket under a temporary root.
class FdblearndRun : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/fdbltestXXXXXX";
    root_ = mkdtemp(tmpl);
    tvx_path_set_root(root_.c_str());
    tvx_mkdirs((root_ + "/var/run").c_str(), 0755);
    state_ = root_ + "/fdb.state";
    std::ofstream(state_) << "7 100 * bd5 80\n7 200 192.0.2.9 bd6 81\n";
  }
  void TearDown() override {
    stop();
    tvx_path_set_root(nullptr);
    EXPECT_EQ(system(("rm -rf '" + root_ + "'").c_str()), 0);
  }
  void start() {
    pid_ = fork();
    if (pid_ == 0) {
      setenv("TAVOX_ROOT", root_.c_str(), 1);
      umask(0);  // the socket must still come out 0600
      execl(FDBLEARND_BIN, "fdblearnd", "-f", state_.c_str(), static_cast<char *>(nullptr));
      _exit(127);
    }
    // Ready once the socket exists.
    std::string sock = tvx_path(FDBLEARND_PATH);
    for (int i = 0; i < 2000 && access(sock.c_str(), F_OK) != 0; i++) usleep(1000);
  }
  int stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  int connect_raw() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tvx_path(FDBLEARND_PATH).c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0);
    return fd;
  }
  std::string root_, state_;
  pid_t pid_ = -1;
};

TEST_F(FdblearndRun, AnswersTheLibraryAndSurvivesBadClients) {
  start();
  struct stat st;
  ASSERT_EQ(stat(tvx_path(FDBLEARND_PATH).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "made under umask 0";

  // Clients that misbehave: connect and never write, write a megabyte, close at once.
  int silent = connect_raw();
  int flood = connect_raw();
  std::string mb(1 << 20, '7');
  send(flood, mb.data(), mb.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  close(connect_raw());

  char name[FDBLEARND_NAME_LEN] = "unset";
  uint32_t index = 0;
  fdblearnd_lookup(100, 0, 0, 0, name, &index);
  EXPECT_STREQ(name, "bd5");
  EXPECT_EQ(index, 80u);
  fdblearnd_lookup(200, 7, 0, 0x090200C0, name, &index);
  EXPECT_STREQ(name, "bd6");
  EXPECT_EQ(index, 81u);
  strcpy(name, "unset");
  index = 5;
  fdblearnd_lookup(300, 7, 0, 0, name, &index);
  EXPECT_STREQ(name, "default") << "an unknown VNI is a lone NUL";
  EXPECT_EQ(index, 5u);

  // The flooding client was answered from its first kilobyte and dropped.
  char buf[64];
  EXPECT_EQ(recv(flood, buf, sizeof buf, 0), 1);
  close(flood);
  close(silent);
  EXPECT_EQ(stop(), 0);
  EXPECT_NE(access(tvx_path(FDBLEARND_PATH).c_str(), F_OK), 0) << "socket removed at the end";
}

TEST_F(FdblearndRun, RefusesToReplaceAFileThatIsNotASocket) {
  std::string sock = tvx_path(FDBLEARND_PATH);
  std::ofstream(sock) << "precious";
  pid_ = fork();
  if (pid_ == 0) {
    setenv("TAVOX_ROOT", root_.c_str(), 1);
    execl(FDBLEARND_BIN, "fdblearnd", "-f", state_.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int status;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  EXPECT_EQ(WEXITSTATUS(status), 1);
  std::ifstream in(sock);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "precious");
}

}  // namespace
