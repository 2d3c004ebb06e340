// Pipes and framing on real socket pairs: the header's bytes, whole messages
// out of reads cut anywhere, partial writes kept and continued, failures
// that hold nothing, the size limits, end of file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ipc/ipc_pipe.h"
#include "platform/sys.h"

namespace {

class Pipe : public ::testing::Test {
 protected:
  int fds[2] = {-1, -1};
  ipc_pipe *p = nullptr;
  ipc_pipe_cb cb{sizeof(ipc_pipe_cb), nullptr, nullptr, nullptr};

  void SetUp() override {
    tvx_fault_clear();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    make(0xFFFF, 0);
  }
  void TearDown() override {
    tvx_fault_clear();
    ipc_pipe_destroy(p);
    close(fds[0]);
    close(fds[1]);
  }
  void make(uint32_t size, uint32_t headroom) {
    ipc_pipe_destroy(p);
    p = ipc_pipe_create_with_params(size, headroom, &cb);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(ipc_pipe_attach_socket(p, fds[0]), 0);
  }
  // Everything the peer end has received so far.
  std::string drain_peer() {
    std::string out;
    char buf[65536];
    ssize_t n;
    while ((n = read(fds[1], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
  }
  void peer_send(const std::string &bytes) {
    ASSERT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

std::string frame(uint16_t type, uint16_t subtype, const std::string &payload, uint8_t opcode = 1) {
  ipc_msg h{type, subtype, static_cast<uint16_t>(payload.size()), opcode, 0};
  return std::string(reinterpret_cast<const char *>(&h), sizeof h) + payload;
}

std::string pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 31 + seed) & 0xFF);
  return s;
}

TEST_F(Pipe, HeaderGoesOutInHostOrderBeforeThePayload) {
  const uint8_t id[12] = {7, 0, 0, 0, 0x39, 0x30, 0, 0, 2, 0, 0, 0};
  ipc_msg h{0x417, 0xFFFE, 12, IPC_MSG_OP_SEND, 0};
  ASSERT_EQ(ipc_msg_write(p, &h, id), 0);
  ASSERT_EQ(ipc_x_pipe_write(p), 0);
  EXPECT_TRUE(ipc_pipe_write_is_empty(p));
  const uint8_t want[] = {0x17, 0x04, 0xFE, 0xFF, 0x0C, 0x00, 0x01, 0x00,
                          7, 0, 0, 0, 0x39, 0x30, 0, 0, 2, 0, 0, 0};
  EXPECT_EQ(drain_peer(), std::string(reinterpret_cast<const char *>(want), sizeof want));
}

TEST_F(Pipe, WholeMessagesComeOutOfReadsCutAnywhere) {
  // Twenty messages of varied sizes (empty ones among them), read back with
  // every read cut short at a seeded length.
  std::mt19937 rng(25);
  std::vector<std::string> payloads;
  std::string stream;
  for (int i = 0; i < 20; i++) {
    payloads.push_back(pattern(i % 5 == 0 ? 0 : rng() % 300, static_cast<unsigned>(i)));
    stream += frame(0x417, static_cast<uint16_t>(i), payloads.back());
  }
  peer_send(stream);
  size_t got = 0;
  for (int reads = 0; got < payloads.size(); reads++) {
    ASSERT_LT(reads, 10000);
    tvx_fault_short(TVX_SYS_READ, 1 + rng() % 13);
    ASSERT_GT(ipc_x_pipe_read(p), 0);
    while (ipc_msg *m = ipc_msg_read(p)) {
      ASSERT_LT(got, payloads.size());
      EXPECT_EQ(m->subtype, got);
      EXPECT_EQ(std::string(reinterpret_cast<char *>(ipc_msg_payload(m)), m->length), payloads[got]);
      got++;
    }
  }
  EXPECT_EQ(ipc_pipe_read_pending(p), 0u);
  EXPECT_EQ(ipc_x_pipe_read(p), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Pipe, ReadBufferKeepsTheHeadroomInFrontAndCleanDropsTheRest) {
  make(256, 32);
  peer_send(frame(1, 2, "abc") + frame(1, 3, "defg"));
  ASSERT_GT(ipc_x_pipe_read(p), 0);
  uint32_t headroom = 0;
  uint8_t *base = ipc_x_pipe_get_read_buffer(p, &headroom);
  ipc_msg *m = ipc_msg_read(p);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(headroom, 32u);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(m), base + 32);
  ipc_pipe_read_clean(p);
  EXPECT_EQ(ipc_msg_read(p), nullptr);
}

TEST_F(Pipe, EndOfFileIsAnOrderlyCloseAndAnOversizedAnnouncementIsRefused) {
  make(64, 0);
  // Announces 0xFFFF bytes that a 64-byte pipe can never hold.
  peer_send(frame(1, 1, "").replace(4, 2, "\xFF\xFF") + std::string(56, 'x'));
  ASSERT_EQ(ipc_x_pipe_read(p), 64);
  EXPECT_EQ(ipc_msg_read(p), nullptr);
  EXPECT_EQ(ipc_x_pipe_read(p), -1);
  EXPECT_EQ(errno, EMSGSIZE);

  ipc_pipe_read_clean(p);
  shutdown(fds[1], SHUT_WR);
  EXPECT_EQ(ipc_pipe_read(p), 0);
  EXPECT_EQ(ipc_x_pipe_read(p), -1);
  EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(Pipe, SizeLimitsAndOneMessageAtATime) {
  make(100, 0);
  std::string max(100 - IPC_PIPE_OVERHEAD, 'm');
  ipc_msg h{0x417, 1, static_cast<uint16_t>(max.size()), 1, 0};
  EXPECT_EQ(ipc_msg_write(p, &h, max.data()), 0);
  // The first is still held.
  EXPECT_EQ(ipc_msg_write(p, &h, max.data()), -1);
  EXPECT_EQ(errno, EBUSY);
  ASSERT_EQ(ipc_x_pipe_write(p), 0);
  h.length++;
  std::string over(h.length, 'o');
  EXPECT_EQ(ipc_msg_write(p, &h, over.data()), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(ipc_x_msg_write(p, &h, over.data()), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_TRUE(ipc_pipe_write_is_empty(p));
  EXPECT_EQ(drain_peer(), frame(0x417, 1, max));
}

TEST_F(Pipe, PartialWriteKeepsTheRestAndContinues) {
  for (bool external : {false, true}) {
    SCOPED_TRACE(external ? "external payload" : "copied payload");
    std::string payload = pattern(1000, external);
    ipc_msg h{0x417, 9, 1000, 1, 0};
    ASSERT_EQ(external ? ipc_x_msg_write(p, &h, payload.data()) : ipc_msg_write(p, &h, payload.data()), 0);
    // Cut inside the header, then inside the payload.
    tvx_fault_short(TVX_SYS_SENDMSG, 5);
    EXPECT_EQ(ipc_x_pipe_write(p), IPC_PIPE_PARTIAL);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(ipc_pipe_write_is_empty(p));
    tvx_fault_short(TVX_SYS_SENDMSG, 400);
    EXPECT_EQ(ipc_x_pipe_write(p), IPC_PIPE_PARTIAL);
    // A full socket now: the held rest stays.
    tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
    EXPECT_EQ(ipc_x_pipe_write(p), IPC_PIPE_PARTIAL);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(ipc_x_pipe_write(p), 0);
    EXPECT_TRUE(ipc_pipe_write_is_empty(p));
    EXPECT_EQ(drain_peer(), frame(0x417, 9, payload));
  }
}

TEST_F(Pipe, FailureBeforeAnyByteOrATerminalOneHoldsNothing) {
  ipc_msg h{0x417, 1, 3, 1, 0};
  ASSERT_EQ(ipc_msg_write(p, &h, "abc"), 0);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
  EXPECT_EQ(ipc_x_pipe_write(p), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(ipc_pipe_write_is_empty(p));

  // EINTR is retried; a terminal error after a partial write drops the rest.
  h.subtype = 2;
  ASSERT_EQ(ipc_msg_write(p, &h, "def"), 0);
  tvx_fault_errno(TVX_SYS_SENDMSG, EINTR, 2);
  tvx_fault_short(TVX_SYS_SENDMSG, 4);
  EXPECT_EQ(ipc_x_pipe_write(p), IPC_PIPE_PARTIAL);
  tvx_fault_errno(TVX_SYS_SENDMSG, EPIPE);
  EXPECT_EQ(ipc_x_pipe_write(p), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_TRUE(ipc_pipe_write_is_empty(p));
  EXPECT_EQ(drain_peer(), frame(0x417, 2, "def").substr(0, 4));
}

TEST_F(Pipe, AFullSocketGivesPartialWritesThatDrainInOrder) {
  // Real back-pressure: a small send buffer, large messages, the peer
  // reading only when the pipe reports a partial write.
  int small = 4096;
  ASSERT_EQ(setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  std::string want, got;
  int partials = 0;
  for (unsigned i = 0; i < 40; i++) {
    std::string payload = pattern(20000, i);
    want += frame(0x417, static_cast<uint16_t>(i), payload);
    ipc_msg h{0x417, static_cast<uint16_t>(i), 20000, 1, 0};
    int rc;
    do {
      // Refused whole (-1, EAGAIN): the pipe holds nothing and the message is
      // offered again, as a connection's queue does.
      if (ipc_pipe_write_is_empty(p)) {
        ASSERT_EQ(ipc_x_msg_write(p, &h, payload.data()), 0);
      }
      rc = ipc_x_pipe_write(p);
      if (rc == IPC_PIPE_PARTIAL) partials++;
      if (rc == -1) {
        ASSERT_EQ(errno, EAGAIN);
        ASSERT_TRUE(ipc_pipe_write_is_empty(p));
      }
      if (rc != 0) got += drain_peer();
    } while (rc != 0);
  }
  got += drain_peer();
  EXPECT_GT(partials, 0);
  EXPECT_EQ(got, want);
}

TEST_F(Pipe, DetachForgetsWhatWasBufferedAndCreateRefusesBadParameters) {
  peer_send(frame(1, 1, "x"));
  ASSERT_GT(ipc_x_pipe_read(p), 0);
  ipc_msg h{1, 1, 1, 1, 0};
  ASSERT_EQ(ipc_msg_write(p, &h, "y"), 0);
  EXPECT_EQ(ipc_pipe_detach_socket(p), fds[0]);
  EXPECT_TRUE(ipc_pipe_write_is_empty(p));
  EXPECT_EQ(ipc_msg_read(p), nullptr);
  EXPECT_EQ(ipc_x_pipe_read(p), -1);
  EXPECT_EQ(errno, EBADF);

  EXPECT_EQ(ipc_pipe_create_with_params(0, 0, nullptr), nullptr);
  ipc_pipe_cb short_cb{4, nullptr, nullptr, nullptr};
  EXPECT_EQ(ipc_pipe_create_with_params(0, 0, &short_cb), nullptr);
  EXPECT_EQ(ipc_pipe_create_with_params(IPC_PIPE_OVERHEAD - 1, 0, &cb), nullptr);
  ipc_pipe *dflt = ipc_pipe_create_with_params(0, 0, &cb);
  ASSERT_NE(dflt, nullptr);
  EXPECT_EQ(dflt->ip_size, 0xFFFFu);
  ipc_pipe_destroy(dflt);
}

// The pipe's memory comes from the application's allocator and all goes back.
int live_blocks;
void *counting_malloc(void *ctx, size_t n) {
  ++*static_cast<int *>(ctx);
  return malloc(n);
}
void counting_free(void *ctx, void *ptr) {
  --*static_cast<int *>(ctx);
  free(ptr);
}

TEST_F(Pipe, MemoryComesFromTheApplicationsAllocator) {
  ipc_pipe_cb mine{sizeof(ipc_pipe_cb), &live_blocks, counting_malloc, counting_free};
  ipc_pipe *q = ipc_pipe_create_with_params(128, 8, &mine);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(live_blocks, 3);
  ipc_pipe_destroy(q);
  EXPECT_EQ(live_blocks, 0);
}

}  // namespace
