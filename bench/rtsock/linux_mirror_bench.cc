// The Linux backend of rtsockd (root; in a private network namespace).
//
// LinuxMirror: wall time from a kernel change to its notification reaching a
// client. Each iteration adds one bridge forwarding entry (a netlink request
// with its acknowledgement) to a bridge holding a VXLAN device, then waits for
// the change: ours, the route-socket notification from the real
// `rtsockd --linux` on a listening client's data socket; the floor, the
// kernel's own neighbour event read by a bare libmnl loop on a socket
// subscribed to it. 10,000 entries, added once each.
//
// LinuxStartup: `rtsockd --linux` started on a kernel holding 4,000 VXLAN
// devices (each in a bridge of its own) and 10,000 forwarding entries: wall
// time to its ready line, and its resident set (counter rss_mb).
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "rtsock/rts_lower.h"

namespace {

constexpr int kEntries = 10000;
constexpr int kDevices = 4000;

bool sh(const std::string &cmd) { return system(cmd.c_str()) == 0; }

// Once per process: a network namespace of our own, its loopback up.
bool private_netns() {
  static int done = -1;
  if (done < 0) done = getuid() == 0 && unshare(CLONE_NEWNET) == 0 && sh("ip link set lo up");
  return done;
}

// Adds or deletes bridge forwarding entries over netlink, each acknowledged.
struct FdbWriter {
  mnl_socket *nl = mnl_socket_open(NETLINK_ROUTE);
  unsigned seq = 1;
  int ifindex;
  explicit FdbWriter(const char *dev) : ifindex(static_cast<int>(if_nametoindex(dev))) {
    mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID);
  }
  ~FdbWriter() { mnl_socket_close(nl); }
  bool change(int i, bool add) {
    char buf[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr *nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = add ? RTM_NEWNEIGH : RTM_DELNEIGH;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    nlh->nlmsg_seq = ++seq;
    auto *nd = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
    nd->ndm_family = AF_BRIDGE;
    nd->ndm_ifindex = ifindex;
    nd->ndm_flags = NTF_MASTER;
    nd->ndm_state = NUD_NOARP;
    const uint8_t mac[6] = {0x02, 0, 0, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8),
                            static_cast<uint8_t>(i)};
    mnl_attr_put(nlh, NDA_LLADDR, 6, mac);
    if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) return false;
    ssize_t n = mnl_socket_recvfrom(nl, buf, sizeof buf);
    return n > 0 && mnl_cb_run(buf, static_cast<size_t>(n), seq, mnl_socket_get_portid(nl), nullptr, nullptr) >= 0;
  }
};

// One bridge holding one VXLAN device.
bool bridge_with_vxlan() {
  static bool done = false;
  if (!done)
    done = sh("ip link add br0 type bridge && ip link add vx0 type vxlan id 100 dstport 4789 && "
              "ip link set vx0 master br0 && ip link set vx0 up && ip link set br0 up");
  return done;
}

// The real rtsockd --linux on a temporary path; ready when it says so.
struct LinuxPeer {
  pid_t pid = -1;
  std::string dir, sock;
  bool ready = false;
  double start_s = 0;
  double objects = 0;  // as its ready line says
  LinuxPeer() {
    char tmpl[] = "/tmp/bench_linux.XXXXXX";
    dir = mkdtemp(tmpl);
    sock = dir + "/rtsock";
    int p[2];
    if (pipe(p)) return;
    auto t0 = std::chrono::steady_clock::now();
    pid = fork();
    if (pid == 0) {
      dup2(p[1], 2);
      execl(RTSOCKD_BIN, "rtsockd", "--linux", "-s", sock.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    std::string log;
    char buf[512];
    pollfd pf{p[0], POLLIN, 0};
    while (log.find("serving") == std::string::npos && poll(&pf, 1, 120000) > 0) {
      ssize_t n = read(p[0], buf, sizeof buf);
      if (n <= 0) break;
      log.append(buf, static_cast<size_t>(n));
    }
    start_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    close(p[0]);
    ready = log.find("serving") != std::string::npos;
    if (ready) objects = std::stod(log.substr(log.find("serving") + 8));
    setenv("RTSOCK_PATH", sock.c_str(), 1);
  }
  // CPU time the peer has used, in seconds.
  double cpu_s() const {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t at = stat.rfind(')');
    if (at == std::string::npos) return 0;
    std::istringstream f(stat.substr(at + 2));
    std::string skip;
    unsigned long long utime = 0, stime = 0;
    for (int i = 0; i < 11; i++) f >> skip;  // state ... cmajflt
    f >> utime >> stime;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  double rss_mb() const {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
      if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024;
    return 0;
  }
  ~LinuxPeer() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    sh("rm -rf " + dir);
  }
};

// Waits for one record on fd and reads it; false after 5 s without one.
bool one_record(int fd, ssize_t (*rd)(int, void *, size_t)) {
  static char buf[65536];
  for (;;) {
    pollfd pf{fd, POLLIN, 0};
    if (poll(&pf, 1, 5000) != 1) return false;
    if (rd(fd, buf, sizeof buf) > 0) return true;
  }
}

ssize_t lower_read(int fd, void *buf, size_t len) { return rts_lower()->lo_read(rts_lower()->lo_ctx, fd, buf, len); }

void LinuxMirrorOurs(benchmark::State &state) {
  if (!private_netns() || !bridge_with_vxlan()) {
    state.SkipWithError("needs root and VXLAN devices");
    return;
  }
  LinuxPeer peer;
  const rts_lower_ops *lo = rts_lower();
  int fd = peer.ready ? lo->lo_open(lo->lo_ctx) : -1;
  uint32_t mask[2] = {0x1, 0};  // routes
  if (fd < 0 || lo->lo_setopt(lo->lo_ctx, fd, RTS_SOL, RTS_OPT_LISTEN_MASK, mask, sizeof mask) != 0) {
    state.SkipWithError("rtsockd --linux did not start");
    return;
  }
  FdbWriter w("vx0");
  int i = 0;
  const double cpu0 = peer.cpu_s();
  for (auto _ : state) {
    if (!w.change(i++, true) || !one_record(fd, lower_read)) {
      state.SkipWithError("no notification");
      break;
    }
  }
  // What the peer spent per change (ticks of 10 ms: coarse, but over 10,000).
  state.counters["peer_cpu_us"] = (peer.cpu_s() - cpu0) * 1e6 / (i ? i : 1);
  for (int j = 0; j < i; j++) w.change(j, false);  // after the timed loop
  lo->lo_close(lo->lo_ctx, fd);
}

ssize_t mnl_read(int fd, void *buf, size_t len) {
  ssize_t n = recv(fd, buf, len, 0);
  // The event walked as a libmnl reader walks it: headers and attributes.
  if (n > 0)
    mnl_cb_run(buf, static_cast<size_t>(n), 0, 0,
               [](const nlmsghdr *nlh, void *) {
                 return mnl_attr_parse(nlh, sizeof(ndmsg), [](const nlattr *, void *) { return MNL_CB_OK; },
                                       nullptr);
               },
               nullptr);
  return n;
}

void LinuxMirrorFloor(benchmark::State &state) {
  if (!private_netns() || !bridge_with_vxlan()) {
    state.SkipWithError("needs root and VXLAN devices");
    return;
  }
  mnl_socket *events = mnl_socket_open(NETLINK_ROUTE);
  mnl_socket_bind(events, RTMGRP_NEIGH, MNL_SOCKET_AUTOPID);
  FdbWriter w("vx0");
  int i = 0;
  for (auto _ : state) {
    if (!w.change(i++, true) || !one_record(mnl_socket_get_fd(events), mnl_read)) {
      state.SkipWithError("no event");
      break;
    }
  }
  for (int j = 0; j < i; j++) w.change(j, false);
  mnl_socket_close(events);
}

void LinuxStartup(benchmark::State &state) {
  if (!private_netns() || !bridge_with_vxlan()) {
    state.SkipWithError("needs root and VXLAN devices");
    return;
  }
  // 4,000 VXLAN devices (br0's vx0 and 3,999 more, each in a bridge of its
  // own), and 10,000 entries in br0.
  std::string batch = "/tmp/bench_linux_batch";
  {
    std::ofstream b(batch);
    for (int d = 1; d < kDevices; d++)
      b << "link add vb" << d << " type bridge\nlink add vx" << d << " type vxlan id " << 1000 + d
        << " dstport 4789\nlink set vx" << d << " master vb" << d << "\n";
  }
  FdbWriter w("vx0");
  bool ok = sh("ip -batch " + batch);
  for (int i = 0; ok && i < kEntries; i++) ok = w.change(i, true);
  if (!ok) {
    state.SkipWithError("could not build the kernel's state");
    return;
  }
  double secs = 0, rss = 0, objects = 0;
  for (auto _ : state) {
    LinuxPeer peer;
    if (!peer.ready) {
      state.SkipWithError("rtsockd --linux did not start");
      break;
    }
    secs = peer.start_s;
    rss = peer.rss_mb();
    objects = peer.objects;
    state.SetIterationTime(secs);
  }
  state.counters["rss_mb"] = rss;
  state.counters["start_s"] = secs;
  state.counters["objects"] = objects;
  for (int i = 0; i < kEntries; i++) w.change(i, false);
  {
    std::ofstream b(batch);
    for (int d = 1; d < kDevices; d++) b << "link del vx" << d << "\nlink del vb" << d << "\n";
  }
  sh("ip -batch " + batch);
  unlink(batch.c_str());
}

}  // namespace

BENCHMARK(LinuxMirrorOurs)->Name("LinuxMirror/ours")->Iterations(kEntries)->UseRealTime();
BENCHMARK(LinuxMirrorFloor)->Name("LinuxMirror/floor")->Iterations(kEntries)->UseRealTime();
BENCHMARK(LinuxStartup)->Name("LinuxStartup/ours")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
