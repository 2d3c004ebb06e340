// The learning-daemon query against a scripted daemon on the real socket path
// under a temporary root.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "oam/oam.h"
#include "platform/path.h"

namespace {

class Fdblearnd : public testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/oamtestXXXXXX";
    root_ = mkdtemp(tmpl);
    tvx_path_set_root(root_.c_str());
    std::string run = root_ + "/var/run";
    tvx_mkdirs(run.c_str(), 0755);
  }
  void TearDown() override {
    tvx_path_set_root(nullptr);
    std::string cmd = "rm -rf '" + root_ + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
  }

  // Listens on the daemon's path and answers one connection with reply
  // (bytes as given, NULs included); records the query.
  std::thread serve(std::string reply, bool answer = true) {
    int ls = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tvx_path(FDBLEARND_PATH).c_str());
    unlink(sun.sun_path);
    EXPECT_EQ(bind(ls, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0);
    EXPECT_EQ(listen(ls, 1), 0);
    return std::thread([this, ls, reply, answer] {
      int c = accept(ls, nullptr, nullptr);
      char buf[256] = {};
      ssize_t n = read(c, buf, sizeof buf);
      query_.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
      // The reader may stop at its buffer's end and close: no SIGPIPE.
      if (answer) {
        EXPECT_GT(send(c, reply.data(), reply.size(), MSG_NOSIGNAL), 0);
      }
      close(c);
      close(ls);
    });
  }

  std::string root_;
  std::string query_;
};

TEST_F(Fdblearnd, AnswerGivesNameAndIndex) {
  std::thread t = serve(std::string("bd-blue/17\0", 11));
  char name[FDBLEARND_NAME_LEN] = "unset";
  uint32_t index = 0;
  EXPECT_EQ(fdblearnd_lookup(5000, 10, 0, 0x0A000001, name, &index), 1);
  t.join();
  EXPECT_EQ(query_, std::string("10/5000/0/167772161\0", 20));
  EXPECT_STREQ(name, "bd-blue");
  EXPECT_EQ(index, 17u);
}

TEST_F(Fdblearnd, OddAnswers) {
  struct {
    std::string reply;
    const char *name;
    uint32_t index;
  } cases[] = {
      {std::string("plain\0", 6), "plain", 0},           // no "/": the rest is empty
      {std::string("\0", 1), "default", 99},             // a lone NUL
      {std::string("/5\0", 3), "5", 0},                  // strtok_r skips the leading "/"
      {std::string(2000, 'x'), nullptr, 99},             // no NUL within the buffer: cut
  };
  for (auto &c : cases) {
    std::thread t = serve(c.reply);
    char name[FDBLEARND_NAME_LEN] = "unset";
    uint32_t index = 99;
    EXPECT_EQ(fdblearnd_lookup(1, 0, 0, 0, name, &index), 1);
    t.join();
    if (c.name) {
      EXPECT_STREQ(name, c.name);
      EXPECT_EQ(index, c.index) << c.name;
    } else {
      EXPECT_EQ(strlen(name), FDBLEARND_NAME_LEN - 1u) << "a long name is cut to the buffer";
    }
  }
}

TEST_F(Fdblearnd, SilentDaemonLeavesTheResultsAlone) {
  std::thread t = serve("", false);
  char name[FDBLEARND_NAME_LEN] = "unset";
  uint32_t index = 3;
  EXPECT_EQ(fdblearnd_lookup(1, 2, 0, 3, name, &index), 1);
  t.join();
  EXPECT_STREQ(name, "unset");
  EXPECT_EQ(index, 3u);
}

TEST_F(Fdblearnd, NoDaemonEndsTheProcessWithMinusTwo) {
  char name[FDBLEARND_NAME_LEN];
  uint32_t index = 0;
  EXPECT_EXIT(fdblearnd_lookup(1, 2, 0, 3, name, &index), testing::ExitedWithCode(254), "");
}

}  // namespace
