// Socket I/O against libev, libevent and libuv, and against the bare system call.
//
// PipeChain: N stream socket pairs in a ring. A read callback reads one byte
//   from its pair and writes one byte to the next pair, so exactly one byte
//   travels and every callback costs one loop pass (a wait that returns one
//   event), one read and one write, for every implementation. One iteration
//   is one callback of a running loop: CPU time per callback, the pass
//   included. /100 and /1000 pairs. PipeChainSlip/ours is the same with the
//   scheduler's slip monitor on (the loop a daemon runs); PipeChainAcct/ours
//   the same with accounting on (process times read around each callback).
// UdpReceive: one datagram taken with its destination address and interface
//   (IP_PKTINFO) from a loopback socket that a sender thread on the other core
//   fills batch by batch while the clock is stopped. ours: task_receive_packet (source and destination
//   as typed addresses, the control data walked); floor: a bare recvmsg with
//   the same buffers and the same control data, walked with CMSG_NXTHDR.
//   UdpReceiveRtb/ours adds "RecvRtb": the ingress interface's table id, from
//   the cache after the first datagram.
//   CPU time of the receiving thread per datagram.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <ev.h>
// libevent's header redefines EV_READ with its own value: libev's is kept here.
constexpr int kLibevRead = EV_READ;
#include <event2/event.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "sockaddr/families.h"
#include "sockaddr/zsockaddr.h"
#include "task/accounting.h"
#include "task/io.h"
#include "task/sched.h"
#include "task/task.h"

#include "../common/libevent_dl.h"
#include "../common/pinned_main.h"

namespace {

task *keeper;
void kernel() {
  static bool up;
  if (up) return;
  up = true;
  task_kernel_init();
  zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  keeper = task_alloc("keeper", 100, nullptr);
  task_create(keeper);
}

// ---- PipeChain ----
struct ring {
  std::vector<int> rd, wr;
  explicit ring(size_t n) : rd(n), wr(n) {
    for (size_t i = 0; i < n; i++) {
      int sv[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) != 0) abort();
      rd[i] = sv[0];
      wr[i] = sv[1];
    }
  }
  ~ring() {
    for (size_t i = 0; i < rd.size(); i++) {
      close(rd[i]);
      close(wr[i]);
    }
  }
  void kick() const { (void)!write(wr[0], "x", 1); }
  // One hop: take the byte of pair i, pass it to the next pair.
  // Spurious readiness costs the implementation a callback but is no hop.
  bool hop(size_t i) const {
    char c;
    if (read(rd[i], &c, 1) != 1) return false;
    (void)!write(wr[(i + 1) % wr.size()], &c, 1);
    return true;
  }
};

benchmark::State *chain_state;
const ring *chain;

bool chain_done;
// False once the state has said so (and then without asking it again).
bool keep_running() { return !chain_done && !(chain_done = !chain_state->KeepRunning()); }

void ours_read(task *tp) {
  if (chain->hop(static_cast<size_t>(task_get_user_word(tp))) && !keep_running()) task_scheduler_stop();
}

// plain: the nested loop; slip: the loop with the slip monitor; acct: the
// nested loop with accounting on (two process-time readings per callback).
enum class chain_mode { plain, slip, acct };

void chain_ours(benchmark::State &st, chain_mode mode) {
  kernel();
  bool slip = mode == chain_mode::slip;
  task_accounting_set(mode == chain_mode::acct);
  ring r(st.range(0));
  chain = &r;
  chain_state = &st;
  chain_done = false;
  std::vector<task *> t(r.rd.size());
  for (size_t i = 0; i < t.size(); i++) {
    t[i] = task_alloc("pipe", 10, nullptr);
    task_set_user_word(t[i], static_cast<uint32_t>(i));
    task_set_recv(t[i], ours_read);
    task_set_socket(t[i], r.rd[i]);
    task_create(t[i]);
  }
  r.kick();
  if (slip) {
    task_var_scheduler(nullptr)->run_scheduler = 1;
    task_scheduler_internal(true, false);
  } else {
    task_scheduler_run();
  }
  task_accounting_set(false);
  // The ring's descriptors are closed by the ring, not by the tasks.
  for (task *tp : t) {
    task_reset_socket(tp);
    task_delete(tp);
  }
}

void chain_libev(benchmark::State &st) {
  ring r(st.range(0));
  chain = &r;
  chain_state = &st;
  chain_done = false;
  struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
  std::vector<ev_io> w(r.rd.size());
  for (size_t i = 0; i < w.size(); i++) {
    ev_io_init(&w[i],
               [](struct ev_loop *l, ev_io *io, int) {
                 if (chain->hop(reinterpret_cast<uintptr_t>(io->data)) && !keep_running()) ev_break(l, EVBREAK_ALL);
               },
               r.rd[i], kLibevRead);
    w[i].data = reinterpret_cast<void *>(i);
    ev_io_start(loop, &w[i]);
  }
  r.kick();
  ev_run(loop, 0);
  for (auto &x : w) ev_io_stop(loop, &x);
  ev_loop_destroy(loop);
}

event_base *le_base;
void chain_libevent(benchmark::State &st) {
  if (!le().base_new) {
    st.SkipWithError("libevent not found");
    return;
  }
  ring r(st.range(0));
  chain = &r;
  chain_state = &st;
  chain_done = false;
  le_base = le().base_new();
  std::vector<event *> e(r.rd.size());
  for (size_t i = 0; i < e.size(); i++) {
    e[i] = le().event_new(
        le_base, r.rd[i], EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void *arg) {
          if (chain->hop(reinterpret_cast<uintptr_t>(arg)) && !keep_running()) le().loopbreak(le_base);
        },
        reinterpret_cast<void *>(i));
    le().add(e[i], nullptr);
  }
  r.kick();
  le().loop(le_base, 0);
  for (auto *x : e) le().free(x);
  le().base_free(le_base);
}

void chain_libuv(benchmark::State &st) {
  ring r(st.range(0));
  chain = &r;
  chain_state = &st;
  chain_done = false;
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_poll_t> p(r.rd.size());
  for (size_t i = 0; i < p.size(); i++) {
    uv_poll_init(&loop, &p[i], r.rd[i]);
    p[i].data = reinterpret_cast<void *>(i);
    uv_poll_start(&p[i], UV_READABLE, [](uv_poll_t *h, int, int) {
      if (chain->hop(reinterpret_cast<uintptr_t>(h->data)) && !keep_running()) uv_stop(h->loop);
    });
  }
  r.kick();
  uv_run(&loop, UV_RUN_DEFAULT);
  for (auto &x : p) uv_close(reinterpret_cast<uv_handle_t *>(&x), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}

// ---- UdpReceive ----
// The sender thread (on the other core) queues a batch of datagrams while the
// clock is stopped; the receiver then takes the whole batch with the clock
// running, so it never sleeps in recvmsg and a wake-up is never part of the
// figure. Both cases use the same rig, batch and payload.
constexpr int kUdpBatch = 128;
struct udp_rig {
  int rx = -1;
  std::atomic<int> want{0}, sent{0};
  std::atomic<bool> stop{false};
  std::thread sender;
  explicit udp_rig(int rx_socket) : rx(rx_socket) {
    int big = 4 << 20;
    if (setsockopt(rx, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big) != 0)
      setsockopt(rx, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    int on = 1;
    setsockopt(rx, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    sockaddr_in me{};
    me.sin_family = AF_INET;
    me.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(rx, reinterpret_cast<sockaddr *>(&me), sizeof me) != 0) abort();
    socklen_t l = sizeof me;
    getsockname(rx, reinterpret_cast<sockaddr *>(&me), &l);
    sender = std::thread([this, me] {
      cpu_set_t other;
      CPU_ZERO(&other);
      CPU_SET(1, &other);
      sched_setaffinity(0, sizeof other, &other);
      int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      char payload[100] = {8};
      while (!stop.load(std::memory_order_acquire)) {
        int n = want.exchange(0, std::memory_order_acq_rel);
        if (!n) {
          std::this_thread::yield();
          continue;
        }
        int ok = 0;
        for (int i = 0; i < n; i++)
          ok += sendto(s, payload, sizeof payload, 0, reinterpret_cast<const sockaddr *>(&me), sizeof me) > 0;
        sent.store(ok, std::memory_order_release);
      }
      close(s);
    });
  }
  // Queues n datagrams; false when the socket could not take them all.
  bool fill(int n) {
    sent.store(-1, std::memory_order_relaxed);
    want.store(n, std::memory_order_release);
    int got;
    while ((got = sent.load(std::memory_order_acquire)) < 0) std::this_thread::yield();
    return got == n;
  }
  ~udp_rig() {
    stop = true;
    sender.join();
  }
};

// Runs receive() batch by batch, each batch queued with the clock stopped.
template <typename F>
void udp_run(benchmark::State &st, udp_rig &rig, F receive) {
  while (st.KeepRunningBatch(kUdpBatch)) {
    st.PauseTiming();
    bool full = rig.fill(kUdpBatch);
    st.ResumeTiming();
    if (!full) {
      st.SkipWithError("the receive queue did not take a whole batch");
      return;
    }
    for (int i = 0; i < kUdpBatch; i++)
      if (!receive()) {
        st.SkipWithError("receive failed");
        return;
      }
  }
}

void udp_ours(benchmark::State &st, bool rtb) {
  kernel();
  task *tp = task_alloc("rx", 10, nullptr);
  int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
  task_set_socket(tp, s);
  if (rtb && task_set_option(tp, TASKOPTION_RECV_RTB, 1) != 0) {
    st.SkipWithError("RecvRtb refused");
    return;
  }
  udp_rig rig(s);
  size_t n, bytes = 0;
  udp_run(st, rig, [&] {
    if (task_receive_packet(tp, &n) != 0) return false;
    bytes += n + static_cast<size_t>(task_get_recv_info()->tri_ifindex);
    return true;
  });
  benchmark::DoNotOptimize(bytes);
  task_close(tp);
  task_delete(tp);
}

void udp_floor(benchmark::State &st) {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  udp_rig rig(s);
  static uint8_t buf[65536];
  size_t bytes = 0;
  udp_run(st, rig, [&] {
    sockaddr_storage from;
    alignas(cmsghdr) uint8_t ctrl[512];
    iovec iov{buf, sizeof buf};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctrl;
    msg.msg_controllen = sizeof ctrl;
    ssize_t n = recvmsg(s, &msg, 0);
    if (n < 0) return false;
    int ifindex = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
      if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
        in_pktinfo pi;
        memcpy(&pi, CMSG_DATA(c), sizeof pi);
        ifindex = pi.ipi_ifindex;
      }
    bytes += static_cast<size_t>(n) + static_cast<size_t>(ifindex);
    return true;
  });
  benchmark::DoNotOptimize(bytes);
  close(s);
}

}  // namespace

BENCHMARK_CAPTURE(chain_ours, plain, chain_mode::plain)->Name("PipeChain/ours")->Arg(100)->Arg(1000);
BENCHMARK(chain_libev)->Name("PipeChain/libev")->Arg(100)->Arg(1000);
BENCHMARK(chain_libevent)->Name("PipeChain/libevent")->Arg(100)->Arg(1000);
BENCHMARK(chain_libuv)->Name("PipeChain/libuv")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(chain_ours, slip, chain_mode::slip)->Name("PipeChainSlip/ours")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(chain_ours, acct, chain_mode::acct)->Name("PipeChainAcct/ours")->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(udp_ours, plain, false)->Name("UdpReceive/ours");
BENCHMARK_CAPTURE(udp_ours, rtb, true)->Name("UdpReceiveRtb/ours");
BENCHMARK(udp_floor)->Name("UdpReceive/floor");

TVX_BENCH_PINNED_MAIN()
