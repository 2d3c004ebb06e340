// Route-socket benchmarks of the asynchronous path and the filter compiler.
//
// AsyncDispatch: CPU per notification read and dispatched. Batches of 64
// bridge-domain notifications (TLV, as rtsockd sends them) wait in a
// SEQPACKET socket pair, written while the timer is paused. ours:
// rtslib_async_event_process through the lower edge, with its read limit of
// 10 (so a batch takes 7 calls, the last one ending on an empty socket), each
// message decoded into its own block and handed to a handler that releases
// it. floor: a bare read(2) per message and the same decoder
// (rtslib_msg_decode) into a block, then its release: what dispatching can
// cost no less than.
// FilterCompile: one five-clause expression to a program. ours:
// rts_filter_compile of "bd->vnid >= 200 and bd->operation != 3 and
// bd->rtb_id == 7 or bd->bdm_index < 100 and bd->cfg_flags & 0x800". libpcap:
// pcap_compile, optimised, on an Ethernet handle, of "tcp and port 80 and
// host 10.0.0.1 and not src net 192.168.0.0/16 and len > 100" (five
// clauses, numeric only: no name lookups), then pcap_freecode.
#include <benchmark/benchmark.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "rtsock/rts_filter.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib_async.h"
#include "samples.h"

namespace {

constexpr int kBatch = 64;

// A lower edge over one end of a socket pair: reads and writes are the
// system's, options are answered here.
struct PairEdge {
  static inline int fd = -1;
  static int open(void *) { return fd; }
  static int close(void *, int) { return 0; }
  static int setopt(void *, int, int, int, const void *, socklen_t) { return 0; }
  static int getopt(void *, int, int level, int name, void *v, socklen_t *len) {
    if (level == RTS_SOL && name == RTS_OPT_VERSION) {
      uint8_t b[RTS_VERSION_OPT_LEN] = {RTS_TYPE_COUNT - 1, RTS_IFACE_VERSION};
      for (unsigned t = 1; t <= RTS_TYPE_LAST; t++) b[t + 1] = rts_type_table[t].version;
      *len = *len < sizeof b ? *len : static_cast<socklen_t>(sizeof b);
      memcpy(v, b, *len);
      return 0;
    }
    int x = 0x80000;
    memcpy(v, &x, 4);
    *len = 4;
    return 0;
  }
  static ssize_t write(void *, int f, const void *b, size_t n) { return ::write(f, b, n); }
  static ssize_t read(void *, int f, void *b, size_t n) { return ::recv(f, b, n, MSG_DONTWAIT); }
  static ssize_t peek(void *, int f, void *b, size_t n) { return ::recv(f, b, n, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT); }
  static constexpr rts_lower_ops kOps = {open, close, setopt, getopt, write, read, peek, nullptr};
};

struct Pair {
  int sv[2] = {-1, -1};
  std::vector<uint8_t> msg;
  samples::Store st;
  Pair() {
    socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv);
    int big = 1 << 22;
    setsockopt(sv[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    rts_bd_msg bd = samples::bd(st);
    msg = samples::wire(RTS_T_BRIDGE_DOMAIN, &bd, true);
    PairEdge::fd = sv[0];
    rts_lower_set(&PairEdge::kOps);
  }
  ~Pair() {
    rts_lower_set(nullptr);
    ::close(sv[0]);
    ::close(sv[1]);
  }
  bool fill() {
    for (int i = 0; i < kBatch; i++)
      if (send(sv[1], msg.data(), msg.size(), 0) != static_cast<ssize_t>(msg.size())) return false;
    return true;
  }
};

int dispatched;
void handler(rtslib_cookie *c, void *, void *m) {
  dispatched++;
  rtslib_msg_idl_release(c, m);
}

void AsyncDispatchOurs(benchmark::State &state) {
  Pair p;
  rtslib_cookie *c = rtslib_open(1);
  if (!c || rtslib_set_async_context(c, __evContext{nullptr}) != 0) {
    state.SkipWithError("open");
    return;
  }
  // The external loop is this function: the selection only records itself.
  static const rtslib_async_dispatch d = {
      [](void *, int, int, void (*)(void *), void *, void **id) { *id = nullptr; return 0; },
      [](void *, void *) { return 0; }, nullptr};
  rtslib_set_async_dispatch(c, &d);
  rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL);
  rtslib_bd_async_register(c, nullptr, handler);
  for (auto _ : state) {
    state.PauseTiming();
    if (!p.fill()) state.SkipWithError("fill");
    dispatched = 0;
    state.ResumeTiming();
    while (rtslib_async_event_process(c) == 0) {
    }
    if (dispatched != kBatch) state.SkipWithError("lost messages");
  }
  state.counters["per_msg"] = benchmark::Counter(kBatch, benchmark::Counter::kIsIterationInvariantRate |
                                                             benchmark::Counter::kInvert);
  rtslib_close(c);
}

void AsyncDispatchFloor(benchmark::State &state) {
  Pair p;
  rtslib_cookie *c = rtslib_open(1);  // for the decoder's log and memory hooks
  if (!c) {
    state.SkipWithError("open");
    return;
  }
  std::vector<uint8_t> buf(0x80000);
  for (auto _ : state) {
    state.PauseTiming();
    if (!p.fill()) state.SkipWithError("fill");
    state.ResumeTiming();
    for (int i = 0; i < kBatch; i++) {
      ssize_t n = ::read(p.sv[0], buf.data(), buf.size());
      void *m = nullptr;
      if (n <= 0 || rtslib_msg_decode(c, buf.data(), static_cast<uint32_t>(n), &m) != 0) {
        state.SkipWithError("read");
        break;
      }
      benchmark::DoNotOptimize(m);
      rtslib_msg_idl_release(c, m);
    }
  }
  state.counters["per_msg"] = benchmark::Counter(kBatch, benchmark::Counter::kIsIterationInvariantRate |
                                                             benchmark::Counter::kInvert);
  rtslib_close(c);
}

const char kOurFilter[] =
    "bd->vnid >= 200 and bd->operation != 3 and bd->rtb_id == 7 or bd->bdm_index < 100 and bd->cfg_flags & 0x800";
const char kPcapFilter[] = "tcp and port 80 and host 10.0.0.1 and not src net 192.168.0.0/16 and len > 100";

void FilterCompileOurs(benchmark::State &state) {
  uint8_t prog[RTS_FILTER_MAX];
  for (auto _ : state) {
    if (rts_filter_compile(kOurFilter, sizeof kOurFilter - 1, prog, sizeof prog, nullptr) != 0) {
      state.SkipWithError("compile");
      break;
    }
    benchmark::DoNotOptimize(prog);
  }
}

void FilterCompileLibpcap(benchmark::State &state) {
  pcap_t *p = pcap_open_dead(DLT_EN10MB, 65535);
  for (auto _ : state) {
    bpf_program prog;
    if (pcap_compile(p, &prog, kPcapFilter, 1, PCAP_NETMASK_UNKNOWN) != 0) {
      state.SkipWithError("pcap_compile");
      break;
    }
    benchmark::DoNotOptimize(prog.bf_insns);
    pcap_freecode(&prog);
  }
  pcap_close(p);
}

}  // namespace

BENCHMARK(AsyncDispatchOurs)->Name("AsyncDispatch/ours");
BENCHMARK(AsyncDispatchFloor)->Name("AsyncDispatch/floor");
BENCHMARK(FilterCompileOurs)->Name("FilterCompile/ours");
BENCHMARK(FilterCompileLibpcap)->Name("FilterCompile/libpcap");
