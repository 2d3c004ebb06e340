// The queue (lib/mmcq) against what a program would otherwise use between
// processes.
//
// QueueSendRecv: one 64-byte message sent and taken back, in one process
// (the receiver polls, so nobody is woken), against Boost.Interprocess's
// message_queue (send, try_receive). Both carry the message through shared
// memory under their own locking; contents are checked before timing.
// QueueWake: a round trip between two processes, each woken by the other:
// this process sends into the child's queue, the child's receiver is woken
// through its FIFO, takes the message and sends it back into ours, which
// wakes us. The floor is the same round trip of one byte over two bare FIFOs
// (write, poll, read on each side), what the wake-up itself costs.
//
// Files go under the run's root, a fresh directory of /dev/shm (see
// mmf_bench.cc); Boost's queue is a uniquely named /dev/shm object, removed
// after its case.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/interprocess/ipc/message_queue.hpp>
#include <cstring>
#include <string>

#include "mmcq/mmcq.h"
#include "platform/path.h"

namespace bip = boost::interprocess;

namespace {

constexpr uint32_t kMsg = 64;

void QueueSendRecv_ours(benchmark::State &s) {
  mmcq_unlink("bench_sr");
  mmcq *r = mmcq_receiver_create("bench_sr", nullptr, 1024, 1 << 20, 1 << 20, 0, nullptr, nullptr, nullptr);
  mmcq *q = mmcq_sender_create("bench_sr", nullptr, 1024, 1 << 20, 1 << 20, 0, nullptr, nullptr);
  if (!r || !q) {
    s.SkipWithError("mmcq create failed");
    return;
  }
  char out[kMsg], in[1024];
  int st;
  for (uint32_t i = 0; i < 100000; i++) {
    memset(out, static_cast<int>(i), sizeof out);
    if (mmcq_send(q, out, kMsg) != MMCQ_SUCCESS || mmcq_get_next(r, sizeof in, in, &st) != kMsg ||
        memcmp(in, out, kMsg) != 0) {
      s.SkipWithError("a message did not come back");
      return;
    }
  }
  for (auto _ : s) {
    mmcq_send(q, out, kMsg);
    benchmark::DoNotOptimize(mmcq_get_next(r, sizeof in, in, &st));
  }
  mmcq_delete(q);
  mmcq_delete(r);
  mmcq_unlink("bench_sr");
}

void QueueSendRecv_boostipc(benchmark::State &s) {
  std::string name = "bench_mq_" + std::to_string(getpid());
  bip::message_queue::remove(name.c_str());
  {
    bip::message_queue mq(bip::create_only, name.c_str(), 1024, 1024);
    char out[kMsg], in[1024];
    bip::message_queue::size_type got;
    unsigned prio;
    for (uint32_t i = 0; i < 100000; i++) {
      memset(out, static_cast<int>(i), sizeof out);
      mq.send(out, kMsg, 0);
      if (!mq.try_receive(in, sizeof in, got, prio) || got != kMsg || memcmp(in, out, kMsg) != 0) {
        s.SkipWithError("a message did not come back");
        break;
      }
    }
    for (auto _ : s) {
      mq.send(out, kMsg, 0);
      benchmark::DoNotOptimize(mq.try_receive(in, sizeof in, got, prio));
    }
  }
  bip::message_queue::remove(name.c_str());
}

BENCHMARK(QueueSendRecv_ours)->Name("QueueSendRecv/ours");
BENCHMARK(QueueSendRecv_boostipc)->Name("QueueSendRecv/boostipc");

// ---- QueueWake ----------------------------------------------------------------

struct echo {
  mmcq *back;
  int got;
};

// The child's receiver: every message goes back; "q" ends it.
void echo_back(mmcq *r, void *cookie) {
  auto *e = static_cast<echo *>(cookie);
  char buf[1024];
  int st;
  while (uint32_t n = mmcq_get_next(r, sizeof buf, buf, &st)) {
    if (n == 1 && buf[0] == 'q') _exit(0);
    mmcq_send(e->back, buf, n);
  }
}

void count_in(mmcq *r, void *cookie) {
  auto *e = static_cast<echo *>(cookie);
  char buf[1024];
  int st;
  while (mmcq_get_next(r, sizeof buf, buf, &st)) e->got++;
}

// Waits for the queue's wake-up and runs its receiver.
void wake_once(mmcq *r) {
  pollfd p = {mmcq_wake_fd(r), POLLIN, 0};
  while (poll(&p, 1, -1) < 0) {
  }
  mmcq_receiver_receive(r);
}

void QueueWake_ours(benchmark::State &s) {
  mmcq_unlink("bench_a");
  mmcq_unlink("bench_b");
  echo mine = {nullptr, 0};
  mmcq *a = mmcq_receiver_create("bench_a", nullptr, 1024, 1 << 16, 1 << 16, 0, count_in, &mine, nullptr);
  mmcq *to_b = mmcq_sender_create("bench_b", nullptr, 1024, 1 << 16, 1 << 16, 0, nullptr, nullptr);
  if (!a || !to_b) {
    s.SkipWithError("mmcq create failed");
    return;
  }
  pid_t kid = fork();
  if (kid == 0) {
    echo e = {mmcq_sender_create("bench_a", nullptr, 1024, 1 << 16, 1 << 16, 0, nullptr, nullptr), 0};
    mmcq *b = mmcq_receiver_create("bench_b", nullptr, 1024, 1 << 16, 1 << 16, 0, echo_back, &e, nullptr);
    if (!e.back || !b) _exit(1);
    for (;;) wake_once(b);
  }
  char out[kMsg] = {};
  for (auto _ : s) {
    int before = mine.got;
    mmcq_send(to_b, out, kMsg);
    while (mine.got == before) wake_once(a);
  }
  mmcq_send(to_b, "q", 1);
  waitpid(kid, nullptr, 0);
  mmcq_delete(to_b);
  mmcq_delete(a);
  mmcq_unlink("bench_a");
  mmcq_unlink("bench_b");
}

int open_fifo(const std::string &path) {
  unlink(path.c_str());
  if (mkfifo(path.c_str(), 0600) != 0) return -1;
  return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

// Poll, then read: the calls a woken receiver makes, and no more.
void read_byte(int fd) {
  pollfd p = {fd, POLLIN, 0};
  char c;
  for (;;) {
    while (poll(&p, 1, -1) < 0) {
    }
    if (read(fd, &c, 1) == 1) return;
  }
}

void QueueWake_floor(benchmark::State &s) {
  std::string dir = tvx_path("/var/tmp");
  tvx_mkdirs(dir.c_str(), 0755);
  int to_kid = open_fifo(dir + "/bench_floor_a"), to_us = open_fifo(dir + "/bench_floor_b");
  if (to_kid < 0 || to_us < 0) {
    s.SkipWithError("mkfifo failed");
    return;
  }
  pid_t kid = fork();
  if (kid == 0) {
    for (;;) {
      read_byte(to_kid);
      char c = 1;
      if (write(to_us, &c, 1) != 1) _exit(1);
    }
  }
  for (auto _ : s) {
    char c = 1;
    if (write(to_kid, &c, 1) != 1) break;
    read_byte(to_us);
  }
  kill(kid, SIGKILL);
  waitpid(kid, nullptr, 0);
  close(to_kid);
  close(to_us);
  unlink((dir + "/bench_floor_a").c_str());
  unlink((dir + "/bench_floor_b").c_str());
}

BENCHMARK(QueueWake_ours)->Name("QueueWake/ours");
BENCHMARK(QueueWake_floor)->Name("QueueWake/floor");

}  // namespace
