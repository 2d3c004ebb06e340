// Non-blocking stdio: byte-exact output through a slow reader while the loop
// keeps running timers, a peer that goes away, the generator's memory bound,
// pipelined input, fork and abort.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "io_fixture.h"
#include "task/noblock.h"

using namespace tt;

namespace {

noblock_cookie *cookie;
void write_ready(task *) { noblock_write_ready(cookie); }

// A task on one end of a stream pair with a small send buffer; returns the peer.
task *stream_task(int *peer, int sndbuf = 16384) {
  int sv[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  task *tp = task_alloc("mgmt", 10, nullptr);
  task_set_socket(tp, sv[0]);
  task_create(tp);
  *peer = sv[1];
  cookie = noblock_fdopen(tp, "mgmt peer", write_ready);
  EXPECT_NE(cookie, nullptr);
  return tp;
}

std::string pattern(size_t n) {
  std::string s(n, '\0');
  uint32_t x = 12345;
  for (auto &c : s) {
    x = x * 1103515245 + 12345;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

// Reads the peer in small pieces, yielding between them, until end of stream.
struct slow_reader {
  std::string got;
  std::thread th;
  explicit slow_reader(int fd) {
    fcntl(fd, F_SETFL, 0);
    th = std::thread([this, fd] {
      char b[3000];
      for (;;) {
        ssize_t n = read(fd, b, sizeof b);
        if (n <= 0) break;
        got.append(b, static_cast<size_t>(n));
        std::this_thread::yield();
      }
    });
  }
  void join() { th.join(); }
};

int ticks;
void tick(task_timer *, uint32_t) { ticks++; }
task *watched;
void stop_when_closed(task_timer *, uint32_t) {
  if (watched->task_socket < 0) task_scheduler_stop();
}

// The loop on the real clock and real waits until the stream's socket is closed.
void run_until_closed(task *tp) {
  task_set_time_hook(nullptr);
  task_evq.wait = task_evq_default.wait;
  watched = tp;
  task_utime every{0, 1000};
  task_timer *t1 = task_timer_ucreate(tp, "tick", 0, &every, nullptr, 0, tick, nullptr);
  task_timer *t2 = task_timer_ucreate(tp, "watch", 0, &every, nullptr, 0, stop_when_closed, nullptr);
  task_scheduler_run();
  task_timer_delete(t1);
  task_timer_delete(t2);
}

}  // namespace

class Noblock : public Io {};

TEST_F(Noblock, TenMegabytesByteExactToASlowReaderWhileTimersRun) {
  int peer;
  task *tp = stream_task(&peer);
  std::string data = pattern(10 << 20);
  slow_reader r(peer);
  FILE *f = noblock_stream(cookie);
  // Pieces of odd sizes through stdio's buffer, then one large write.
  size_t off = 0;
  for (size_t piece = 1; off + piece < data.size() / 2; piece = piece * 3 % 7919 + 1) {
    ASSERT_EQ(fwrite(data.data() + off, 1, piece, f), piece);
    off += piece;
  }
  ASSERT_EQ(fwrite(data.data() + off, 1, data.size() - off, f), data.size() - off);
  ASSERT_EQ(fflush(f), 0);
  EXPECT_GT(noblock_outstanding(cookie), 0u);  // the reader is slower than we are
  ASSERT_EQ(fclose(f), 0);                     // the cookie lives on until the queue drains
  EXPECT_GE(tp->task_socket, 0);
  ticks = 0;
  run_until_closed(tp);
  r.join();
  EXPECT_GT(ticks, 0);
  ASSERT_EQ(r.got.size(), data.size());
  EXPECT_TRUE(r.got == data);
  close(peer);
}

TEST_F(Noblock, PeerClosingMidOutputMakesTheStreamFail) {
  evlog_capture_start();
  int peer;
  task *tp = stream_task(&peer);
  FILE *f = noblock_stream(cookie);
  std::string data = pattern(1 << 20);
  ASSERT_EQ(fwrite(data.data(), 1, data.size(), f), data.size());
  ASSERT_EQ(fflush(f), 0);
  close(peer);
  task_evq.wait = real_wait;
  real_passes(3);  // the next flush meets the closed peer
  EXPECT_TRUE(cookie->co_flags & NOBLOCK_F_ERROR);
  EXPECT_EQ(cookie->co_errno, EPIPE);
  EXPECT_EQ(fprintf(f, "more\n"), 5);  // stdio buffers it...
  EXPECT_NE(fflush(f), 0);             // ...and the flush reports the failure
  EXPECT_NE(fclose(f), 0);
  EXPECT_EQ(tp->task_write, nullptr);
  evlog_capture_stop();
  task_delete(tp);
}

size_t gen_left, gen_max_outstanding;
bool gen_closed;
void generate(task *, void *data) {
  EXPECT_EQ(noblock_outstanding(cookie), 0u);  // only ever called on an empty queue
  std::string *chunk = static_cast<std::string *>(data);
  fwrite(chunk->data(), 1, chunk->size(), noblock_stream(cookie));
  if (--gen_left == 0) {
    noblock_clear_generator(cookie);
    fclose(noblock_stream(cookie));
  }
}
void gen_close(task *, void *) { gen_closed = true; }
void measure(task_timer *, uint32_t) {
  gen_max_outstanding = std::max(gen_max_outstanding, noblock_outstanding(cookie));
}

TEST_F(Noblock, GeneratorRunsOnlyOnAnEmptyQueueSoMemoryStaysBounded) {
  int peer;
  task *tp = stream_task(&peer);
  std::string chunk = pattern(5000);
  gen_left = 2000;  // 10 MB in all
  gen_max_outstanding = 0;
  gen_closed = false;
  noblock_assign_generator(cookie, generate, gen_close, &chunk);
  EXPECT_TRUE(noblock_generator_registered(cookie));
  EXPECT_DEATH(noblock_assign_generator(cookie, generate, gen_close, &chunk), "cookie->co_genfunc == \\(\\(void \\*\\)0\\)");
  slow_reader r(peer);
  task_utime every{0, 200};
  task_timer *m = task_timer_ucreate(tp, "measure", 0, &every, nullptr, 0, measure, nullptr);
  run_until_closed(tp);
  task_timer_delete(m);
  r.join();
  EXPECT_EQ(gen_left, 0u);
  EXPECT_FALSE(gen_closed);  // cleared by the generator itself, not dropped
  EXPECT_EQ(r.got.size(), 2000u * chunk.size());
  EXPECT_LE(gen_max_outstanding, chunk.size() + BUFSIZ);
  close(peer);
}

std::vector<std::string> lines;
void read_lines(task *) {
  char b[64];
  for (;;) {
    int rc = noblock_fgets(b, sizeof b, cookie);
    if (rc < 0) {
      lines.push_back("<end>");
      return;
    }
    if (!b[0]) return;  // not yet
    lines.push_back(b);
  }
}

TEST_F(Noblock, PipelinedLinesAreAllHandledAndPartialLinesWait) {
  int peer;
  task *tp = stream_task(&peer);
  task_set_recv(tp, read_lines);
  task_read_enable(tp);
  lines.clear();
  ASSERT_EQ(write(peer, "one\ntwo\nthree\npar", 17), 17);
  real_passes(1);
  EXPECT_EQ(lines, (std::vector<std::string>{"one\n", "two\n", "three\n"}));
  // A reply in between must not drop input already received.
  fprintf(noblock_stream(cookie), "ok\n");
  fflush(noblock_stream(cookie));
  ASSERT_EQ(write(peer, "tial\n", 5), 5);
  real_passes(1);
  EXPECT_EQ(lines.back(), "partial\n");
  std::string longline(100, 'x');
  longline += "\n";
  ASSERT_EQ(write(peer, longline.data(), longline.size()), static_cast<ssize_t>(longline.size()));
  real_passes(1);
  EXPECT_EQ(lines[lines.size() - 2], std::string(63, 'x'));
  EXPECT_EQ(lines.back(), std::string(37, 'x') + "\n");
  char b[8];
  ASSERT_EQ(read(peer, b, sizeof b), 3);
  shutdown(peer, SHUT_WR);
  real_passes(1);
  EXPECT_EQ(lines.back(), "<end>");
  noblock_abort(cookie);
  close(peer);
}

TEST_F(Noblock, ForkedChildWritesNothing) {
  int peer;
  task *tp = stream_task(&peer);
  pid_t pid = fork();
  if (pid == 0) {
    fprintf(noblock_stream(cookie), "from the child\n");
    fflush(noblock_stream(cookie));
    _exit(0);
  }
  int st;
  waitpid(pid, &st, 0);
  char b[32];
  EXPECT_EQ(recv(peer, b, sizeof b, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
  fprintf(noblock_stream(cookie), "parent\n");
  fflush(noblock_stream(cookie));
  EXPECT_EQ(recv(peer, b, sizeof b, MSG_DONTWAIT), 7);
  noblock_abort(cookie);
  EXPECT_EQ(tp->task_socket, -1);
  close(peer);
}

TEST_F(Noblock, AbortDropsQueuedOutputAndLaterWritesDoNothing) {
  int peer;
  task *tp = stream_task(&peer);
  std::string data = pattern(1 << 20);
  fwrite(data.data(), 1, data.size(), noblock_stream(cookie));
  fflush(noblock_stream(cookie));
  ASSERT_GT(noblock_outstanding(cookie), 0u);
  EXPECT_EQ(tp->task_write, write_ready);
  noblock_abort(cookie);
  EXPECT_EQ(tp->task_socket, -1);  // the stream and its socket are gone
  EXPECT_EQ(tp->task_write, nullptr);
  task_evq.wait = real_wait;
  real_passes(2);
  close(peer);
}

TEST_F(Noblock, ShortSendsAndInterruptionsLoseNothing) {
  int peer;
  task *tp = stream_task(&peer, 1 << 20);
  // Several queued pages go in one sendmsg, the last one alone by sendto.
  tvx_fault_short(TVX_SYS_SENDMSG, 7, 20);
  tvx_fault_errno(TVX_SYS_SENDMSG, EINTR, 3);
  tvx_fault_short(TVX_SYS_SENDTO, 7, 20);
  tvx_fault_errno(TVX_SYS_SENDTO, EINTR, 3);
  std::string data = pattern(20000);
  fwrite(data.data(), 1, data.size(), noblock_stream(cookie));
  fflush(noblock_stream(cookie));
  tvx_fault_clear();
  task_evq.wait = real_wait;
  real_passes(3);
  EXPECT_EQ(noblock_outstanding(cookie), 0u);
  std::string got(data.size() + 10, '\0');
  ssize_t n = recv(peer, got.data(), got.size(), MSG_DONTWAIT);
  ASSERT_EQ(n, static_cast<ssize_t>(data.size()));
  got.resize(n);
  EXPECT_TRUE(got == data);
  fclose(noblock_stream(cookie));
  EXPECT_EQ(tp->task_socket, -1);
  close(peer);
}
