// The library's two local questions, the learning daemon's and the local
// responder's, against scripted peers on the real socket paths under a
// temporary root.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "oam/oam.h"
#include "platform/path.h"

namespace {

class UnixPeer : public testing::Test {
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

  // Listens on the peer's path and answers one connection with reply
  // (bytes as given, NULs included); records the query.
  std::thread serve(std::string reply, bool answer = true, const char *logical = FDBLEARND_PATH) {
    int ls = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tvx_path(logical).c_str());
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

class Fdblearnd : public UnixPeer {};
class LocalResponder : public UnixPeer {};

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

TEST_F(LocalResponder, AsksVniAndVtepAndReadsTheBridgeDomain) {
  std::thread t = serve(std::string("5\0", 2), true, OAM_LOCAL_PATH);
  uint32_t bd = 99;
  in_addr vtep;
  vtep.s_addr = 0x0100000A;  // bytes 10.0.0.1 on a little-endian machine
  EXPECT_EQ(oam_local_lookup(100, vtep, 1000, &bd), 0);
  t.join();
  EXPECT_EQ(query_, std::string("100/16777226\0", 13)) << "the address as its bytes in memory, as the daemon reads it";
  EXPECT_EQ(bd, 5u);
}

TEST_F(LocalResponder, NotRunningAndOddAnswersAreErrors) {
  uint32_t bd = 99;
  EXPECT_EQ(oam_local_lookup(1, in_addr{}, 1000, &bd), ENOENT) << "no socket file";
  struct {
    std::string reply;
    bool answer;
    int error;
  } cases[] = {
      {"", false, EPROTO},                   // closes without a word
      {std::string("x5\0", 3), true, EPROTO},  // not a number
      {std::string("5x\0", 3), true, EPROTO},
      {std::string("0\0", 2), true, 0},       // unknown, but an answer
  };
  for (auto &c : cases) {
    std::thread t = serve(c.reply, c.answer, OAM_LOCAL_PATH);
    EXPECT_EQ(oam_local_lookup(1, in_addr{}, 1000, &bd), c.error) << c.reply;
    t.join();
  }
  EXPECT_EQ(bd, 0u);
}

}  // namespace
