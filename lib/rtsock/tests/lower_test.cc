// The default lower edge against a scripted peer on real sockets: the verdict
// and the reply of a write come as one record and are handed up as a verdict,
// then a record to read, behind the notifications the peer sent before them;
// a verdict or option answer that comes after the edge gave up waiting
// belongs to the request that timed out, never to the next one.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "rtsock/rts_lower.h"

namespace {

struct Ctl {
  rts_ctl_msg m;
  uint8_t value[RTS_CTL_VALUE_MAX];
};

// A peer that answers the hello and then runs the test's script; the script
// and the test hand each other turns through a socket pair, never a clock.
struct ScriptedPeer {
  std::string dir, path;
  int listener = -1, data = -1, ctl = -1;
  int turn[2] = {-1, -1};  // [0] the test's end, [1] the peer's
  std::thread thread;

  explicit ScriptedPeer(std::function<void(ScriptedPeer &)> script) {
    char tmpl[] = "/tmp/rts-lower-XXXXXX";
    dir = mkdtemp(tmpl);
    path = dir + "/sock";
    listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strcpy(sa.sun_path, path.c_str());
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, turn), 0);
    setenv("RTSOCK_PATH", path.c_str(), 1);
    thread = std::thread([this, script] {
      data = accept(listener, nullptr, nullptr);
      Ctl hello;
      alignas(cmsghdr) char cbuf[CMSG_SPACE(sizeof(int))];
      iovec iov{&hello, sizeof hello};
      msghdr mh{};
      mh.msg_iov = &iov;
      mh.msg_iovlen = 1;
      mh.msg_control = cbuf;
      mh.msg_controllen = sizeof cbuf;
      if (recvmsg(data, &mh, 0) < 0 || !CMSG_FIRSTHDR(&mh)) return;
      memcpy(&ctl, CMSG_DATA(CMSG_FIRSTHDR(&mh)), sizeof ctl);
      answer(RTS_CTL_HELLO, 0, 0);
      script(*this);
    });
  }
  ~ScriptedPeer() {
    thread.join();
    for (int fd : {listener, data, ctl, turn[0], turn[1]})
      if (fd >= 0) close(fd);
    unsetenv("RTSOCK_PATH");
    unlink(path.c_str());
    rmdir(dir.c_str());
  }
  void answer(uint32_t op, int name, int error, uint32_t value = 0, bool with_value = false) {
    Ctl a{{RTS_CTL_MAGIC, op, name, error, with_value ? 4u : 0u}, {}};
    memcpy(a.value, &value, 4);
    send(ctl, &a, sizeof a.m + a.m.len, 0);
  }
  // A verdict with the count of data records sent before it and the reply.
  void verdict(int error, uint32_t data_sent, const std::string &reply = "") {
    std::vector<uint8_t> out(sizeof(rts_ctl_msg) + sizeof(rts_ctl_verdict) + reply.size());
    rts_ctl_msg m{RTS_CTL_MAGIC, RTS_CTL_VERDICT, 0, error,
                  static_cast<uint32_t>(sizeof(rts_ctl_verdict) + reply.size())};
    rts_ctl_verdict v{data_sent};
    memcpy(out.data(), &m, sizeof m);
    memcpy(out.data() + sizeof m, &v, sizeof v);
    memcpy(out.data() + sizeof m + sizeof v, reply.data(), reply.size());
    send(ctl, out.data(), out.size(), 0);
  }
  void notify(const std::string &text) { send(data, text.data(), text.size(), 0); }
  // Blocks until the other side passes the turn.
  static void wait(int fd) {
    char b;
    ASSERT_EQ(recv(fd, &b, 1, 0), 1);
  }
  static void pass(int fd) { ASSERT_EQ(send(fd, "t", 1, 0), 1); }
  std::vector<uint8_t> record() {
    std::vector<uint8_t> b(65536);
    ssize_t n = recv(data, b.data(), b.size(), 0);
    b.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return b;
  }
  Ctl request() {
    Ctl r{};
    recv(ctl, &r, sizeof r, 0);
    return r;
  }
};

// The next record the edge hands up, or the error's name.
std::string read_one(int fd) {
  char buf[256];
  ssize_t n = rts_lower_seqpacket.lo_read(nullptr, fd, buf, sizeof buf);
  if (n < 0) return errno == EAGAIN ? "EAGAIN" : errno == EMSGSIZE ? "EMSGSIZE" : strerror(errno);
  return std::string(buf, static_cast<size_t>(n));
}

struct ShortTimeout {
  int saved = rts_ctl_timeout_ms;
  ShortTimeout() { rts_ctl_timeout_ms = 20; }
  ~ShortTimeout() { rts_ctl_timeout_ms = saved; }
};

TEST(LowerEdge, LateVerdictIsNotTakenByTheNextWrite) {
  ScriptedPeer peer([](ScriptedPeer &p) {
    p.record();                      // A: no verdict yet
    ScriptedPeer::wait(p.turn[1]);   // until the edge has given up on A
    p.verdict(0, 0, "reply A");      // A's, late, with its reply
    p.record();                      // B
    p.verdict(ENOENT, 0);
    p.record();                      // C
    p.verdict(0, 0, "reply C");
  });
  int fd = rts_lower_seqpacket.lo_open(nullptr);
  ASSERT_GE(fd, 0);
  {
    ShortTimeout quick;  // only while the peer holds back on purpose
    EXPECT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "A", 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
  }
  ScriptedPeer::pass(peer.turn[0]);
  EXPECT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "B", 1), -1) << "took A's verdict for B's";
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "C", 1), 1);
  EXPECT_EQ(read_one(fd), "reply C") << "the late verdict's reply was handed up";
  EXPECT_EQ(read_one(fd), "EAGAIN");
  rts_lower_seqpacket.lo_close(nullptr, fd);
}

TEST(LowerEdge, LateOptionAnswerIsNotTakenByTheNextCall) {
  ScriptedPeer peer([](ScriptedPeer &p) {
    p.request();  // get 1
    ScriptedPeer::wait(p.turn[1]);
    p.answer(RTS_CTL_GETOPT, RTS_OPT_ASYNC_MODE, 0, 111, true);  // late
    p.record();
    p.verdict(0, 0);
    p.request();  // get 2
    p.answer(RTS_CTL_GETOPT, RTS_OPT_ASYNC_MODE, 0, 222, true);
  });
  int fd = rts_lower_seqpacket.lo_open(nullptr);
  ASSERT_GE(fd, 0);
  uint32_t v = 0;
  socklen_t len = sizeof v;
  {
    ShortTimeout quick;
    EXPECT_EQ(rts_lower_seqpacket.lo_getopt(nullptr, fd, RTS_SOL, RTS_OPT_ASYNC_MODE, &v, &len), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
  }
  ScriptedPeer::pass(peer.turn[0]);
  EXPECT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "A", 1), 1);
  len = sizeof v;
  ASSERT_EQ(rts_lower_seqpacket.lo_getopt(nullptr, fd, RTS_SOL, RTS_OPT_ASYNC_MODE, &v, &len), 0);
  EXPECT_EQ(v, 222u);
  rts_lower_seqpacket.lo_close(nullptr, fd);
}

TEST(LowerEdge, ReplyComesWithItsVerdictBehindEarlierNotifications) {
  ScriptedPeer peer([](ScriptedPeer &p) {
    p.notify("n0");
    ScriptedPeer::pass(p.turn[1]);   // the test reads n0 before it writes
    p.record();                      // A
    p.notify("n1");
    p.notify("n2");
    p.verdict(0, 3, "reply A");      // three data records went before it
    p.notify("n3");                  // and one after
    ScriptedPeer::pass(p.turn[1]);
    p.record();                      // B: a get that finds nothing
    p.verdict(ENOENT, 4);
  });
  int fd = rts_lower_seqpacket.lo_open(nullptr);
  ASSERT_GE(fd, 0);
  ScriptedPeer::wait(peer.turn[0]);
  EXPECT_EQ(read_one(fd), "n0");
  ASSERT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "A", 1), 1);
  // The peek sees what the read then takes, in the order the peer sent it.
  char head[3] = {};
  EXPECT_EQ(rts_lower_seqpacket.lo_peek(nullptr, fd, head, 2), 2);
  EXPECT_EQ(std::string(head, 2), "n1");
  EXPECT_EQ(read_one(fd), "n1");
  EXPECT_EQ(read_one(fd), "n2");
  EXPECT_EQ(rts_lower_seqpacket.lo_peek(nullptr, fd, head, 3), 7) << "the held reply's whole length";
  EXPECT_EQ(std::string(head, 3), "rep");
  EXPECT_EQ(read_one(fd), "reply A");
  ScriptedPeer::wait(peer.turn[0]);
  EXPECT_EQ(read_one(fd), "n3");
  EXPECT_EQ(read_one(fd), "EAGAIN");
  EXPECT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "B", 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(read_one(fd), "EAGAIN");
  rts_lower_seqpacket.lo_close(nullptr, fd);
}

TEST(LowerEdge, RepliesOfWritesNotYetReadKeepTheirOrder) {
  ScriptedPeer peer([](ScriptedPeer &p) {
    p.record();
    p.verdict(0, 0, "reply A");
    p.record();
    p.verdict(0, 0, "reply B");
    p.record();
    p.verdict(0, 0, std::string(300, 'x'));  // longer than the reader's buffer
    p.notify("n1");
    p.record();
    p.verdict(0, 1, "reply D");
  });
  int fd = rts_lower_seqpacket.lo_open(nullptr);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "A", 1), 1);
  ASSERT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "B", 1), 1);
  EXPECT_EQ(read_one(fd), "reply A");
  ASSERT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "C", 1), 1);
  EXPECT_EQ(read_one(fd), "reply B");
  // Too long for the buffer: an error, and the record is gone, as on the socket.
  EXPECT_EQ(read_one(fd), "EMSGSIZE");
  ASSERT_EQ(rts_lower_seqpacket.lo_write(nullptr, fd, "D", 1), 1);
  EXPECT_EQ(read_one(fd), "n1");
  EXPECT_EQ(read_one(fd), "reply D");
  EXPECT_EQ(read_one(fd), "EAGAIN");
  rts_lower_seqpacket.lo_close(nullptr, fd);
}

TEST(LowerEdge, PeekReportsTheWholeRecord) {
  ScriptedPeer peer([](ScriptedPeer &p) {
    std::vector<uint8_t> big(3000, 7);
    send(p.data, big.data(), big.size(), 0);
    ScriptedPeer::pass(p.turn[1]);
  });
  int fd = rts_lower_seqpacket.lo_open(nullptr);
  ASSERT_GE(fd, 0);
  ScriptedPeer::wait(peer.turn[0]);
  uint8_t head[24];
  EXPECT_EQ(rts_lower_seqpacket.lo_peek(nullptr, fd, head, sizeof head), 3000);
  EXPECT_EQ(head[23], 7);
  std::vector<uint8_t> all(4000);
  EXPECT_EQ(rts_lower_seqpacket.lo_read(nullptr, fd, all.data(), all.size()), 3000);
  rts_lower_seqpacket.lo_close(nullptr, fd);
}

}  // namespace
