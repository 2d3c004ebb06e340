// Route-socket benchmarks.
//
// Decode89 / Encode89: one full bridge-domain message (every field, a name and
// a blob) in each encoding; decoding goes into a bump arena reset per message,
// as rtslib decodes a reply.
// DecodeAttrs: the same 64 attributes (arrays, values, structures and types
// not understood), each implementation walking its own wire form of them
// (ours: 16-bit type then length; netlink's: length then type), and both doing
// the same work per attribute: check its size for its kind, copy it into a
// bump arena, enter it in a list of 128, keep what is not understood aside.
// SyncGet: rtslib_rtm_get of a bridge MAC route through the real rtsockd
// process, against a bare SEQPACKET echo of a request of the same size to a
// child process. Both are wall-clock round trips: most of their time is spent
// in the other process, which CPU time of this one would not see. The counter
// cpu_both is the CPU time of both processes per round trip (from the
// scheduler's account of each): on one core with nothing else running it is
// the wall time, and unlike the wall time it holds when other work shares
// the core.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "rtsock/rtslib.h"
#include "samples.h"

namespace {

// ---- Bridge domain ------------------------------------------------------------------

struct Bd {
  samples::Store st;
  rts_bd_msg msg = samples::bd(st);
  std::vector<uint8_t> bytes(bool tlv) {
    rts_msg_pair pair{RTS_T_BRIDGE_DOMAIN, &msg};
    int n = tlv ? rts_tlv_encode(&pair, nullptr, nullptr, 0) : rts_idr_encode(&pair, nullptr, 0);
    std::vector<uint8_t> b(static_cast<size_t>(n));
    if (tlv) rts_tlv_encode(&pair, nullptr, b.data(), n);
    else rts_idr_encode(&pair, b.data(), n);
    return b;
  }
};

void Decode89(benchmark::State &state, bool tlv) {
  Bd bd;
  auto b = bd.bytes(tlv);
  samples::Arena a(4096);
  for (auto _ : state) {
    a.used = 0;
    rts_msg_pair out{};
    int r = tlv ? rts_tlv_decode(&out, nullptr, b.data(), static_cast<uint32_t>(b.size()), samples::Arena::alloc, &a)
                : rts_idr_decode(&out, b.data(), static_cast<uint32_t>(b.size()), samples::Arena::alloc, &a);
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(out.record);
  }
  state.counters["bytes"] = static_cast<double>(b.size());
}

void Encode89(benchmark::State &state, bool tlv) {
  Bd bd;
  std::vector<uint8_t> out(1024);
  rts_msg_pair pair{RTS_T_BRIDGE_DOMAIN, &bd.msg};
  for (auto _ : state) {
    int n = tlv ? rts_tlv_encode(&pair, nullptr, out.data(), 1024) : rts_idr_encode(&pair, out.data(), 1024);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
}

// ---- Attribute lists ----------------------------------------------------------------------

struct Attr {
  uint16_t type;
  std::vector<uint8_t> value;
};

std::vector<Attr> attrs() {
  std::vector<Attr> v;
  for (int i = 0; i < 64; i++) {
    switch (i % 8) {
      case 0: v.push_back({1, std::vector<uint8_t>(12, 1)}); break;      // array of 3 words
      case 1: v.push_back({4, {1, 0, 0, 0}}); break;                      // 32-bit value
      case 2: v.push_back({9, {2, 0}}); break;                            // 16-bit value
      case 3: v.push_back({20, std::vector<uint8_t>(8, 3)}); break;       // 64-bit value
      case 4: v.push_back({10, std::vector<uint8_t>(16, 4)}); break;      // structure
      case 5: v.push_back({5, {5, 5, 5, 5}}); break;                      // not understood
      case 6: v.push_back({26, std::vector<uint8_t>(32, 6)}); break;      // array of 8 words
      case 7: v.push_back({48, {7}}); break;                              // 8-bit value
    }
  }
  return v;
}

std::vector<uint8_t> ours_list(const std::vector<Attr> &list) {
  std::vector<uint8_t> b;
  for (const Attr &a : list) {
    uint16_t hdr[2] = {a.type, static_cast<uint16_t>(4 + a.value.size())};
    b.insert(b.end(), reinterpret_cast<uint8_t *>(hdr), reinterpret_cast<uint8_t *>(hdr) + 4);
    b.insert(b.end(), a.value.begin(), a.value.end());
    while (b.size() % 4) b.push_back(0);
  }
  return b;
}

std::vector<uint8_t> netlink_list(const std::vector<Attr> &list) {
  std::vector<uint8_t> b;
  for (const Attr &a : list) {
    uint16_t hdr[2] = {static_cast<uint16_t>(4 + a.value.size()), a.type};
    b.insert(b.end(), reinterpret_cast<uint8_t *>(hdr), reinterpret_cast<uint8_t *>(hdr) + 4);
    b.insert(b.end(), a.value.begin(), a.value.end());
    while (b.size() % 4) b.push_back(0);
  }
  return b;
}

void DecodeAttrsOurs(benchmark::State &state) {
  auto b = ours_list(attrs());
  samples::Arena a(1 << 16);
  for (auto _ : state) {
    a.used = 0;
    rts_attr_set set;
    int n = rts_attr_walk(&set, b.data(), static_cast<uint32_t>(b.size()), samples::Arena::alloc, &a);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(set.ras_rest_len);
  }
}

// The same per-attribute work as rts_attr_walk, in libmnl's callback.
struct MnlWalk {
  samples::Arena *arena;
  rts_attr_set *set;
  uint32_t rest_cap;
};

int mnl_cb(const nlattr *attr, void *data) {
  auto *w = static_cast<MnlWalk *>(data);
  uint16_t type = mnl_attr_get_type(attr);
  uint16_t n = mnl_attr_get_payload_len(attr);
  uint8_t kind = rts_attr_kind(type);
  bool ok = false;
  switch (kind) {
    case RTS_ATTR_ARRAY: ok = n % 4 == 0; break;
    case RTS_ATTR_VALUE:
      ok = (n == 1 && mnl_attr_validate(attr, MNL_TYPE_U8) == 0) || (n == 2 && mnl_attr_validate(attr, MNL_TYPE_U16) == 0) ||
           (n == 4 && mnl_attr_validate(attr, MNL_TYPE_U32) == 0) || (n == 8 && mnl_attr_validate(attr, MNL_TYPE_U64) == 0);
      break;
    case RTS_ATTR_STRUCT: ok = type == 438 ? n == 588 : n > 0; break;
    default: break;
  }
  if (ok && w->set->ras_count < RTS_ATTR_LIST_MAX) {
    auto *e = static_cast<rts_attr *>(samples::Arena::alloc(w->arena, sizeof(rts_attr) + n));
    e->ra_type = type;
    e->ra_kind = kind;
    e->ra_len = n;
    e->ra_value = 0;
    memcpy(e->ra_data, mnl_attr_get_payload(attr), n);
    if (kind == RTS_ATTR_VALUE) memcpy(&e->ra_value, e->ra_data, n);
    w->set->ras_list[w->set->ras_count++] = e;
  } else {
    if (!w->set->ras_rest) w->set->ras_rest = static_cast<uint8_t *>(samples::Arena::alloc(w->arena, w->rest_cap));
    uint32_t len = static_cast<uint32_t>(MNL_ALIGN(attr->nla_len));
    memcpy(w->set->ras_rest + w->set->ras_rest_len, attr, len);
    w->set->ras_rest_len += len;
  }
  return MNL_CB_OK;
}

void DecodeAttrsLibmnl(benchmark::State &state) {
  auto b = netlink_list(attrs());
  samples::Arena a(1 << 16);
  for (auto _ : state) {
    a.used = 0;
    rts_attr_set set;
    memset(&set, 0, sizeof set);
    MnlWalk w{&a, &set, static_cast<uint32_t>(b.size())};
    int r = mnl_attr_parse_payload(b.data(), b.size(), mnl_cb, &w);
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(set.ras_rest_len);
  }
}

// ---- Round trips ---------------------------------------------------------------------------

// Nanoseconds a process has run, as the scheduler counts them.
uint64_t run_ns(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/schedstat", static_cast<int>(pid));
  FILE *f = fopen(path, "r");
  unsigned long long ns = 0;
  if (f) {
    if (fscanf(f, "%llu", &ns) != 1) ns = 0;
    fclose(f);
  }
  return ns;
}

// The CPU time of this process and of `other` across the timed loop.
struct BothCpu {
  pid_t other;
  uint64_t start;
  explicit BothCpu(pid_t p) : other(p), start(run_ns(getpid()) + run_ns(p)) {}
  void report(benchmark::State &state) {
    state.counters["cpu_both"] = benchmark::Counter(
        static_cast<double>(run_ns(getpid()) + run_ns(other) - start), benchmark::Counter::kAvgIterations);
  }
};

// The real rtsockd on a temporary path, with the sample state.
struct PeerProcess {
  pid_t pid = -1;
  std::string dir, sock;
  bool ready = false;
  PeerProcess() {
    char tmpl[] = "/tmp/bench_rtsock.XXXXXX";
    dir = mkdtemp(tmpl);
    sock = dir + "/rtsock";
    int p[2];
    if (pipe(p)) return;
    pid = fork();
    if (pid == 0) {
      dup2(p[1], 2);
      execl(RTSOCKD_BIN, "rtsockd", "-f", SAMPLE_STATE, "-s", sock.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    std::string log;
    char buf[512];
    pollfd pf{p[0], POLLIN, 0};
    while (log.find("serving") == std::string::npos && poll(&pf, 1, 10000) > 0) {
      ssize_t n = read(p[0], buf, sizeof buf);
      if (n <= 0) break;
      log.append(buf, static_cast<size_t>(n));
    }
    close(p[0]);
    ready = log.find("serving") != std::string::npos;
    setenv("RTSOCK_PATH", sock.c_str(), 1);
  }
  ~PeerProcess() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    std::string cmd = "rm -rf " + dir;
    if (system(cmd.c_str())) {
    }
  }
};

void SyncGetOurs(benchmark::State &state) {
  PeerProcess peer;
  rtslib_cookie *c = peer.ready ? rtslib_open(131) : nullptr;
  if (!c) {
    state.SkipWithError("rtsockd did not start");
    return;
  }
  const uint8_t key[10] = {0, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  BothCpu cpu(peer.pid);
  for (auto _ : state) {
    rts_rt_msg *rt;
    if (rtslib_rtm_get(c, 7, RTS_AF_BRIDGE, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0) != 0) {
      state.SkipWithError("get failed");
      break;
    }
    benchmark::DoNotOptimize(rt->rtm_nh_index);
    rtslib_msg_idl_release(c, rt);
  }
  cpu.report(state);
  rtslib_close(c);
}

void SyncGetFloor(benchmark::State &state) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv)) {
    state.SkipWithError("socketpair");
    return;
  }
  pid_t pid = fork();
  if (pid == 0) {
    close(sv[0]);
    char buf[4096];
    for (;;) {
      ssize_t n = recv(sv[1], buf, sizeof buf, 0);
      if (n <= 0 || send(sv[1], buf, static_cast<size_t>(n), 0) < 0) _exit(0);
    }
  }
  close(sv[1]);
  // A request the size of the route get's, answered with the same bytes.
  std::vector<uint8_t> req(120, 1), reply(4096);
  BothCpu cpu(pid);
  for (auto _ : state) {
    send(sv[0], req.data(), req.size(), 0);
    ssize_t n = recv(sv[0], reply.data(), reply.size(), 0);
    benchmark::DoNotOptimize(n);
  }
  cpu.report(state);
  close(sv[0]);
  waitpid(pid, nullptr, 0);
}

BENCHMARK_CAPTURE(Decode89, ours/tlv, true)->Name("Decode89/ours/tlv");
BENCHMARK_CAPTURE(Decode89, ours/idr, false)->Name("Decode89/ours/idr");
BENCHMARK_CAPTURE(Encode89, ours/tlv, true)->Name("Encode89/ours/tlv");
BENCHMARK_CAPTURE(Encode89, ours/idr, false)->Name("Encode89/ours/idr");
BENCHMARK(DecodeAttrsOurs)->Name("DecodeAttrs/ours");
BENCHMARK(DecodeAttrsLibmnl)->Name("DecodeAttrs/libmnl");
BENCHMARK(SyncGetOurs)->Name("SyncGet/ours")->UseRealTime();
BENCHMARK(SyncGetFloor)->Name("SyncGet/floor")->UseRealTime();

}  // namespace
