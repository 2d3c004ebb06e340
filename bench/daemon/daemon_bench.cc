// The responder's request path, whole, against bare loops of the same
// system calls (CPU time a request; pinned to CPU 0, peers on CPU 1):
//
//   OamUnknownVni/ours   a request for an unknown VNI: the receive task's
//                        read method (recvmsg with its control data, the
//                        parse, the table walk, the reply built, sendto from
//                        the raw socket)
//   OamUnknownVni/floor  recvmsg with IP_PKTINFO, 130 bytes copied, sendto
//                        from a raw socket
//   OamKnownMac/ours     a known VNI with a MAC the bridge domain holds, to
//                        the loopback address: as above plus the learning
//                        daemon's query (the real fdblearnd, one stream
//                        connection) and three route-socket gets (the MAC, lo0,
//                        its address) from the real rtsockd
//   OamKnownMac/floor    the same receive and send with one bare Unix-stream
//                        connection (connect, write, read, close) and three bare
//                        SEQPACKET round trips, against a peer process on CPU 1
//   BdLoad/ours          16,000 VXLAN bridge domains learnt by the start-up scan
//                        from the real rtsockd: wall time per domain, the RSS
//                        of the tables (kB), reported
//
// Requests are queued in batches of 128 while the clock is stopped, so no
// wake-up is timed. Replies go to 127.0.0.3:4789, a socket never read. Needs
// root (raw sockets).
#include <arpa/inet.h>
#include <fcntl.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "../common/pinned_main.h"
#include "config/ddl.h"
#include "oam/oam.h"
#include "platform/path.h"
#include "sockaddr/families.h"
#include "task/evq.h"
#include "task/io.h"
#include "task/sched.h"
#include "trace/trace.h"
#include "tunechod.h"

namespace {

constexpr int kBatch = 128;
std::string root;
std::vector<pid_t> peers;

void pin(int cpu) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  sched_setaffinity(0, sizeof one, &one);
}

pid_t spawn(std::vector<std::string> argv) {
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    pin(1);
    setenv("TAVOX_ROOT", root.c_str(), 1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    std::vector<char *> args;
    for (auto &a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  peers.push_back(pid);
  return pid;
}

bool connectable(const std::string &path, int type) {
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path.c_str());
  bool ok = connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) == 0;
  close(fd);
  return ok;
}

void wait_listening(const std::string &path, int type) {
  for (int i = 0; i < 10000 && !connectable(path, type); i++) usleep(1000);
}

uint64_t rss_kb() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6));
  return 0;
}

// The process-wide set-up of the responder: kernel, families, trace (off),
// peers, the raw socket, one VXLAN bridge domain.
bool daemon_up(benchmark::State &st) {
  static int state = 0;
  if (state) return state > 0;
  state = -1;
  if (geteuid() != 0) {
    st.SkipWithError("needs root for raw sockets");
    return false;
  }
  char tmpl[] = "/tmp/benchdaemonXXXXXX";
  root = mkdtemp(tmpl);
  tvx_path_set_root(root.c_str());
  tvx_mkdirs((root + "/var/run").c_str(), 0755);
  task_kernel_init();
  zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  zsock_register_unix(GF_UNIX);
  static ztrace_app_ctx actx;
  ztrace_app_ctx_defaults(&actx);
  trace_init(&actx);
  std::ofstream(root + "/rtsockd.state") << "ifd index=1 name=lo0\n"
                                            "ifl index=70 ifd_index=1 unit=0 name=lo0\n"
                                            "ifa ifl_index=70 af=2 local=127.0.0.1/32\n"
                                            "bd index=5 rtb_id=7 name=bd5 vnid=100 cfg_flags=0x800\n"
                                            "mac rtb=7 bd=5 addr=00:11:22:33:44:55 nh_index=1001\n";
  std::ofstream(root + "/fdblearnd.state") << "7 100 * bd5 80\n";
  spawn({RTSOCKD_BIN, "-f", root + "/rtsockd.state", "-s", root + "/rtsock"});
  spawn({FDBLEARND_BIN, "-f", root + "/fdblearnd.state"});
  wait_listening(root + "/rtsock", SOCK_SEQPACKET);
  wait_listening(tvx_path(FDBLEARND_PATH), SOCK_STREAM);
  setenv("RTSOCK_PATH", (root + "/rtsock").c_str(), 1);
  tunechod_tables_init();
  tunechod_app.rts_sync_cookie = rtslib_open(TUNECHOD_SENDER_ID);
  tunechod_app.raw_sock = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
  int one = 1;
  setsockopt(tunechod_app.raw_sock, IPPROTO_IP, IP_HDRINCL, &one, sizeof one);
  rts_bd_msg m{};
  m.hdr.operation = RTS_OP_ADD;
  m.rtb_id = 7;
  m.bdm_index = 5;
  m.vnid = 100;
  m.cfg_flags = TUNECHOD_BD_VXLAN;
  if (!tunechod_app.rts_sync_cookie || tunechod_app.raw_sock < 0 || tunechod_rtsock_decode_bd(&m) != 1) {
    st.SkipWithError("responder set-up failed");
    return false;
  }
  atexit([] {
    for (pid_t p : peers) kill(p, SIGTERM);
    for (pid_t p : peers) waitpid(p, nullptr, 0);
    std::string cmd = "rm -rf '" + root + "'";
    if (system(cmd.c_str())) {
    }
  });
  state = 1;
  return true;
}

// Requests from 127.0.0.3 (where the replies then go, to a socket never
// read), queued by a sender thread on CPU 1 while the clock is stopped.
struct rig {
  int rx, sink;
  std::vector<uint8_t> request;
  std::atomic<int> want{0}, sent{0};
  std::atomic<bool> stop{false};
  std::thread sender;
  rig(int rx_socket, std::vector<uint8_t> req) : rx(rx_socket), request(std::move(req)) {
    int big = 4 << 20, one = 1;
    setsockopt(rx, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
    setsockopt(rx, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    sockaddr_in me{}, from{};
    me.sin_family = from.sin_family = AF_INET;
    me.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(rx, reinterpret_cast<sockaddr *>(&me), sizeof me) != 0) abort();
    socklen_t l = sizeof me;
    getsockname(rx, reinterpret_cast<sockaddr *>(&me), &l);
    inet_pton(AF_INET, "127.0.0.3", &from.sin_addr);
    sink = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setsockopt(sink, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    from.sin_port = htons(OAM_PORT);
    bind(sink, reinterpret_cast<sockaddr *>(&from), sizeof from);
    int tiny = 1;
    setsockopt(sink, SOL_SOCKET, SO_RCVBUF, &tiny, sizeof tiny);
    from.sin_port = 0;
    sender = std::thread([this, me, from] {
      pin(1);
      int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      bind(s, reinterpret_cast<const sockaddr *>(&from), sizeof from);
      // The sender sleeps between batches (a futex wait, not a spin), so the
      // process's CPU time is the responder's.
      while (!stop.load(std::memory_order_acquire)) {
        want.wait(0, std::memory_order_acquire);
        int n = want.exchange(0, std::memory_order_acq_rel);
        if (!n) continue;
        int ok = 0;
        for (int i = 0; i < n; i++)
          ok += sendto(s, request.data(), request.size(), 0, reinterpret_cast<const sockaddr *>(&me), sizeof me) > 0;
        sent.store(ok, std::memory_order_release);
        sent.notify_one();
      }
      close(s);
    });
  }
  bool fill() {
    sent.store(-1, std::memory_order_relaxed);
    want.store(kBatch, std::memory_order_release);
    want.notify_one();
    sent.wait(-1, std::memory_order_acquire);
    return sent.load(std::memory_order_acquire) == kBatch;
  }
  ~rig() {
    stop = true;
    want.store(-1, std::memory_order_release);
    want.notify_one();
    sender.join();
    close(sink);
  }
};

std::vector<uint8_t> request(uint32_t vni) {
  ping_probe pp{};
  inet_pton(AF_INET, "127.0.0.3", &pp.pp_tunnel_src);
  ping_probe_defaults(&pp);
  pp.pp_vni = vni;
  const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  memcpy(pp.pp_target_mac, mac, 6);
  probe_build(&pp, in_addr{htonl(INADDR_LOOPBACK)}, 64, true);
  return std::vector<uint8_t>(pp.pp_buf + 28, pp.pp_buf + 130);  // the UDP payload
}

template <typename F>
void run(benchmark::State &st, rig &r, F batch) {
  while (st.KeepRunningBatch(kBatch)) {
    st.PauseTiming();
    bool full = r.fill();
    st.ResumeTiming();
    if (!full || !batch()) {
      st.SkipWithError("a batch was not taken whole");
      return;
    }
  }
}

void oam_ours(benchmark::State &st, uint32_t vni) {
  if (!daemon_up(st)) return;
  task *tp = task_alloc("tunechod-rx-task", 0, nullptr);
  int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
  task_set_socket(tp, s);
  task_set_option(tp, TASKOPTION_RCVDSTADDR, 1);
  task_set_option(tp, TASKOPTION_RCVIF, 1);
  task_set_option(tp, TASKOPTION_RECV_RTB, 1);  // table 0 as Linux reports it: the walk
  task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
  rig r(s, request(vni));
  const bool known = vni == 100;
  run(st, r, [&] {
    uint64_t before = tunechod_stats.tx_replies, present = tunechod_stats.mac_present;
    tunechod_rx_read(tp);
    // The path measured must be the one named: every request known with its
    // MAC present, or every one unknown.
    return tunechod_stats.tx_replies - before == kBatch &&
           tunechod_stats.mac_present - present == (known ? uint64_t{kBatch} : 0);
  });
  task_close(tp);
  task_delete(tp);
}

// The floor's peers, in a child process on CPU 1 as rtsockd and fdblearnd
// are, so that neither side's figure holds the peers' CPU: an echo of one
// SEQPACKET record, and a stream server that answers one line a connection.
struct floor_peers {
  int seq_client = -1;
  std::string stream_path;
  pid_t child = -1;
  floor_peers() {
    int sv[2];
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv);
    seq_client = sv[0];
    stream_path = root + "/floor.sock";
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", stream_path.c_str());
    unlink(stream_path.c_str());
    bind(listener, reinterpret_cast<sockaddr *>(&sun), sizeof sun);
    listen(listener, 64);
    child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      pin(1);
      close(sv[0]);
      pollfd fds[2] = {{sv[1], POLLIN, 0}, {listener, POLLIN, 0}};
      uint8_t buf[4096];
      for (;;) {
        if (poll(fds, 2, -1) < 0) continue;
        if (fds[0].revents & POLLIN) {
          ssize_t n = read(sv[1], buf, sizeof buf);
          if (n <= 0) _exit(0);
          if (write(sv[1], buf, static_cast<size_t>(n)) < 0) _exit(1);
        }
        if (fds[1].revents & POLLIN) {
          int c = accept(listener, nullptr, nullptr);
          if (c < 0) continue;
          if (read(c, buf, sizeof buf) > 0 && write(c, "bd5/80", 7) < 0) _exit(1);
          close(c);
        }
      }
    }
    close(sv[1]);
    close(listener);
  }
  ~floor_peers() {
    close(seq_client);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    unlink(stream_path.c_str());
  }
};

void oam_floor(benchmark::State &st, int seqpacket_trips, bool stream_trip) {
  if (!daemon_up(st)) return;
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  rig r(s, request(100));
  floor_peers fp;
  int raw = tunechod_app.raw_sock;
  static uint8_t buf[65536], reply[1024];
  run(st, r, [&] {
    for (int i = 0; i < kBatch; i++) {
      sockaddr_in from;
      alignas(cmsghdr) uint8_t ctrl[256];
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
      in_addr dst{};
      for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
          in_pktinfo pi;
          memcpy(&pi, CMSG_DATA(c), sizeof pi);
          dst = pi.ipi_addr;
        }
      if (stream_trip) {
        int c = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sun{};
        sun.sun_family = AF_UNIX;
        snprintf(sun.sun_path, sizeof sun.sun_path, "%s", fp.stream_path.c_str());
        char answer[64];
        if (connect(c, reinterpret_cast<sockaddr *>(&sun), sizeof sun) != 0 || write(c, "0/100/0/0", 10) != 10 ||
            read(c, answer, sizeof answer) <= 0)
          return false;
        close(c);
      }
      for (int t = 0; t < seqpacket_trips; t++) {
        uint8_t rec[256] = {1};
        if (write(fp.seq_client, rec, sizeof rec) != sizeof rec || read(fp.seq_client, rec, sizeof rec) <= 0)
          return false;
      }
      memset(reply, 0, 130);
      reply[0] = 0x45;
      memcpy(reply + 12, &dst, 4);
      memcpy(reply + 16, &from.sin_addr, 4);
      memcpy(reply + 28, buf, 102);
      from.sin_port = htons(OAM_PORT);
      if (sendto(raw, reply, 130, 0, reinterpret_cast<sockaddr *>(&from), sizeof from) != 130) return false;
    }
    return true;
  });
  close(s);
}

void bd_load(benchmark::State &st) {
  if (!daemon_up(st)) return;
  constexpr int kDomains = 16000;
  {
    std::ofstream f(root + "/bdload.state");
    for (int i = 1; i <= kDomains; i++)
      f << "bd index=" << i << " rtb_id=" << 1 + i % 4 << " name=bd" << i << " vnid=" << 10000 + i
        << " cfg_flags=0x800\n";
  }
  spawn({RTSOCKD_BIN, "-f", root + "/bdload.state", "-s", root + "/rtsock-load"});
  wait_listening(root + "/rtsock-load", SOCK_SEQPACKET);
  setenv("RTSOCK_PATH", (root + "/rtsock-load").c_str(), 1);
  task_evq.wait = [](int level, task_kevent *out, int max, const task_utime *timeout) {
    int n = task_evq_default.wait(level, out, max, timeout);
    if (level == 0 && tunechod_scan_complete) task_scheduler_stop();
    return n;
  };
  for (auto _ : st) {
    uint64_t rss_before = rss_kb();
    auto start = std::chrono::steady_clock::now();
    tunechod_krt_init();
    while (!tunechod_scan_complete) task_scheduler_run();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    st.SetIterationTime(secs / kDomains);
    st.counters["domains"] = kDomains;
    st.counters["rss_kB"] = static_cast<double>(rss_kb());
    st.counters["tables_kB"] = static_cast<double>(rss_kb() - rss_before);
  }
}

BENCHMARK_CAPTURE(oam_ours, unknown, 999)->Name("OamUnknownVni/ours");
BENCHMARK_CAPTURE(oam_floor, unknown, 0, false)->Name("OamUnknownVni/floor");
BENCHMARK_CAPTURE(oam_ours, known, 100)->Name("OamKnownMac/ours");
BENCHMARK_CAPTURE(oam_floor, known, 3, true)->Name("OamKnownMac/floor");
BENCHMARK(bd_load)->Name("BdLoad/ours")->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

TVX_BENCH_PINNED_MAIN()
