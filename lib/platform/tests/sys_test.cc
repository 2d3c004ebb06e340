#include "platform/sys.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
struct Pipe {
  int fd[2];
  Pipe() { EXPECT_EQ(pipe(fd), 0); }
  ~Pipe() {
    close(fd[0]);
    close(fd[1]);
  }
};
}  // namespace

class SysFaults : public ::testing::Test {
 protected:
  void TearDown() override { tvx_fault_clear(); }
};

TEST_F(SysFaults, ErrnoThenRealCall) {
  Pipe p;
  tvx_fault_errno(TVX_SYS_WRITE, EINTR);
  tvx_fault_errno(TVX_SYS_WRITE, EAGAIN, 2);
  errno = 0;
  EXPECT_EQ(tvx_sys.sys_write(p.fd[1], "abc", 3), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(tvx_sys.sys_write(p.fd[1], "abc", 3), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(tvx_sys.sys_write(p.fd[1], "abc", 3), -1);
  EXPECT_EQ(tvx_sys.sys_write(p.fd[1], "abc", 3), 3);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_WRITE), 4u);

  // Nothing was written by the failed calls.
  char buf[8];
  EXPECT_EQ(read(p.fd[0], buf, sizeof buf), 3);
}

TEST_F(SysFaults, ShortTransfersAndDescriptorFilter) {
  Pipe a, b;
  tvx_fault_short(TVX_SYS_WRITE, 2, 1, b.fd[1]);
  EXPECT_EQ(tvx_sys.sys_write(a.fd[1], "hello", 5), 5);  // other descriptor untouched
  EXPECT_EQ(tvx_sys.sys_write(b.fd[1], "hello", 5), 2);
  EXPECT_EQ(tvx_sys.sys_write(b.fd[1], "llo", 3), 3);
  char buf[8] = {};
  EXPECT_EQ(read(b.fd[0], buf, sizeof buf), 5);
  EXPECT_STREQ(buf, "hello");

  Pipe c;
  tvx_fault_short(TVX_SYS_READ, 1);
  ASSERT_EQ(write(c.fd[1], "xy", 2), 2);
  memset(buf, 0, sizeof buf);
  EXPECT_EQ(tvx_sys.sys_read(c.fd[0], buf, sizeof buf), 1);
  EXPECT_EQ(tvx_sys.sys_read(c.fd[0], buf + 1, sizeof buf - 1), 1);
  EXPECT_STREQ(buf, "xy");
}

TEST_F(SysFaults, ShortMessagesTruncateDatagrams) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
  char part1[] = "abcd", part2[] = "efgh";
  iovec out[2] = {{part1, 4}, {part2, 4}};
  msghdr m{};
  m.msg_iov = out;
  m.msg_iovlen = 2;
  tvx_fault_short(TVX_SYS_SENDMSG, 6);
  EXPECT_EQ(tvx_sys.sys_sendmsg(sv[0], &m, 0), 6);

  char in[16] = {};
  iovec iv = {in, sizeof in};
  msghdr r{};
  r.msg_iov = &iv;
  r.msg_iovlen = 1;
  tvx_fault_short(TVX_SYS_RECVMSG, 3);
  EXPECT_EQ(tvx_sys.sys_recvmsg(sv[1], &r, 0), 3);
  EXPECT_TRUE(r.msg_flags & MSG_TRUNC);
  EXPECT_STREQ(in, "abc");

  tvx_fault_errno(TVX_SYS_SENDTO, ENOBUFS);
  EXPECT_EQ(tvx_sys.sys_sendto(sv[0], "x", 1, 0, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOBUFS);
  close(sv[0]);
  close(sv[1]);
}

TEST_F(SysFaults, SocketFaultsByFamilyAndClearRestores) {
  tvx_fault_errno(TVX_SYS_SOCKET, EMFILE, 1, AF_INET6);
  int s4 = tvx_sys.sys_socket(AF_INET, SOCK_DGRAM, 0);
  EXPECT_GE(s4, 0);
  close(s4);
  EXPECT_EQ(tvx_sys.sys_socket(AF_INET6, SOCK_DGRAM, 0), -1);
  EXPECT_EQ(errno, EMFILE);

  tvx_fault_errno(TVX_SYS_WRITE, EIO, 5);
  tvx_fault_clear();
  EXPECT_EQ(tvx_sys.sys_write, tvx_sys_default.sys_write);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_WRITE), 0u);
}
