// The ping command's send path: a probe built and sent against a bare sendto
// of the same bytes (CPU time a probe):
//
//   ProbeSend/ours    probe_build (inner IPv4, MAC mode: the hash port, two
//                     checksums, the time stamp) and sendto from the
//                     library's raw send socket
//   ProbeSend/floor   sendto of the same 148 bytes, built once, from the same
//                     kind of socket
//
// Probes go to 127.0.0.4:4789, a socket never read, so the kernel drops them
// once its buffer is full, the same for both. Needs root (raw sockets).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include "oam/oam.h"

namespace {

struct probe_rig {
  int send_fd = -1, sink = -1;
  sockaddr_in to{};
  ping_probe pp{};

  bool open(benchmark::State &st) {
    if (geteuid() != 0) {
      st.SkipWithError("needs root (raw sockets)");
      return false;
    }
    inet_pton(AF_INET, "127.0.0.4", &to.sin_addr);
    to.sin_family = AF_INET;
    sink = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = to;
    at.sin_port = htons(OAM_PORT);
    if (bind(sink, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
      st.SkipWithError("cannot bind 127.0.0.4:4789");
      return false;
    }
    send_fd = ping_send_socket_v4();
    inet_pton(AF_INET, "127.0.0.1", &pp.pp_tunnel_src);
    pp.pp_tunnel_dst = to.sin_addr;
    ping_probe_defaults(&pp);
    pp.pp_vni = 100;
    pp.pp_target = PING_TARGET_MAC;
    probe_build(&pp, to.sin_addr, 64, true);
    return true;
  }
  ~probe_rig() {
    if (send_fd >= 0) close(send_fd);
    if (sink >= 0) close(sink);
  }
  void send() {
    ssize_t n = sendto(send_fd, pp.pp_buf, pp.pp_len, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    benchmark::DoNotOptimize(n);
  }
};

void probe_ours(benchmark::State &st) {
  probe_rig r;
  if (!r.open(st)) return;
  for (auto _ : st) {
    r.pp.pp_seq++;
    probe_build(&r.pp, r.to.sin_addr, 64, true);
    r.send();
  }
}

void probe_floor(benchmark::State &st) {
  probe_rig r;
  if (!r.open(st)) return;
  for (auto _ : st) r.send();
}

}  // namespace

BENCHMARK(probe_ours)->Name("ProbeSend/ours");
BENCHMARK(probe_floor)->Name("ProbeSend/floor");
