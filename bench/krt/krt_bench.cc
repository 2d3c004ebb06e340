// Route-socket channel benchmarks.
//
// Notify: CPU per bridge-domain notification from the socket to its handler.
//   ours: the "KRT" task's socket is one end of a SEQPACKET socket pair
//   behind the lower edge; a batch of 256 TLV notifications is written to the
//   other end with the clock stopped, then scheduler passes run until the
//   handler has seen them all: epoll, the read callback, the "krt read" job,
//   the stack arena, the decoder, the dispatch.
//   floor: the same batch read by a bare recv loop into a buffer, decoded by
//   the same decoder into a stack arena, dispatched by a switch.
// Scan: wall time per bridge domain of a scan of 65,000 through the real
//   rtsockd (a wall-clock round trip each: most of it is spent in the peer).
//   ours: the background scan job with its slice, get then getnext.
//   floor: a synchronous getnext loop with rtslib.
// QueuedPasses: 100,000 notifications queued at once (the in-process peer) and
//   a 50 ms timer, due while they are being read; reports the longest pass of
//   the scheduler, how late the timer fired, and how many passes took over a
//   millisecond (counters worst_pass_us, timer_late_us, passes_over_1ms).
// IfLookupByIndex, IfLookupByName: CPU per lookup of a device among 10,000,
//   in a fixed random order of 4,096 keys.
//   ours: the interface mirror's index tree and name tree (lib/ifstate).
//   libnl: libnl-route-3's link cache holding links of the same indexes and
//   names (rtnl_link_get, rtnl_link_get_by_name, each with its put).
// IfScan: wall time of the interface scans through the real rtsockd into an
//   empty mirror: 2,000 devices, 10,000 logical interfaces with inet and inet6
//   and an address in each (52,000 objects, a round trip each); the
//   counter bytes_per_ifl is what the mirror's blocks hold per logical
//   interface afterwards.
// RtInstanceFind: CPU per lookup of a routing instance by (family, id) among
//   2,048 (1,024 ids in each of two families), 4,096 keys in a fixed random order.
//   ours: rt_instance_find. stdmap: a std::map keyed by the same pair.
#include <benchmark/benchmark.h>
#include <netlink/route/link.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include <map>
#include <random>
#include <string>

#include "fake_peer.h"
#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"
#include "mem/block.h"
#include "krt/krt.h"
#include "krt/krt_scan.h"
#include "mem/pool.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"
#include "rtsockd_proc.h"
#include "task/evq.h"
#include "task/io.h"
#include "task/sched.h"
#include "task/timer.h"

namespace {

// ---- The kernel, polled without waiting ------------------------------------------------

uint64_t handled, target;
task_app_ctx_t app;

int poll_wait(int level, task_kevent *out, int max, const task_utime *) {
  task_utime zero{0, 0};
  int n = task_evq_default.wait(level, out, max, &zero);
  if (level == 0 && handled >= target) task_scheduler_stop();
  return n;
}

void kernel_once() {
  static bool done;
  if (done) return;
  done = true;
  task_set_task_app_ctx(&app);
  task_kernel_init();
  task *keeper = task_alloc("keeper", 100, nullptr);
  task_create(keeper);
  task_evq.wait = poll_wait;
}

// A fresh channel on the lower edge in force.
void restart(krt_config *cfg) {
  if (krt_task()) task_delete(krt_task());
  krt_reset();
  krt_var_init();
  krt_start(cfg);
}

void run_until(uint64_t n) {
  target = n;
  while (handled < target) task_scheduler_run();
}

void count_bd(task *, void *m, uint32_t) {
  benchmark::DoNotOptimize(static_cast<rts_bd_msg *>(m)->vnid);
  handled++;
}

std::vector<uint8_t> notification() {
  rts_bd_msg m{};
  m.hdr.version = 98;
  m.hdr.type = RTS_T_BRIDGE_DOMAIN;
  m.hdr.operation = RTS_OP_CHANGE;
  m.hdr.size = 200;
  m.bdm_index = 5;
  m.rtb_id = 7;
  m.vnid = 100;
  m.cfg_flags = RTS_BD_CFG_VXLAN;
  char name[] = "bd5";
  m.bdm_name = name;
  m.bdm_name_len = 4;
  rts_msg_pair pair{RTS_T_BRIDGE_DOMAIN, &m};
  int n = rts_tlv_encode(&pair, nullptr, nullptr, 0);
  std::vector<uint8_t> b(static_cast<size_t>(n));
  rts_tlv_encode(&pair, nullptr, b.data(), static_cast<uint32_t>(n));
  return b;
}

// ---- Notify -----------------------------------------------------------------------------

constexpr int kBatch = 256;
int pair_fd[2] = {-1, -1};

int sp_open(void *) { return pair_fd[0]; }
int sp_close(void *, int) { return 0; }
int sp_setopt(void *, int, int, int, const void *, socklen_t) { return 0; }
int sp_getopt(void *, int, int, int, void *, socklen_t *len) {
  *len = 0;
  return 0;
}
ssize_t sp_write(void *, int fd, const void *b, size_t n) { return send(fd, b, n, MSG_DONTWAIT); }
ssize_t sp_read(void *, int fd, void *b, size_t n) { return recv(fd, b, n, MSG_DONTWAIT); }
ssize_t sp_peek(void *, int fd, void *b, size_t n) { return recv(fd, b, n, MSG_DONTWAIT | MSG_PEEK); }
const rts_lower_ops kPair = {sp_open, sp_close, sp_setopt, sp_getopt, sp_write, sp_read, sp_peek, nullptr};

void open_pair() {
  if (pair_fd[0] >= 0) return;
  socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair_fd);
  int big = 4 << 20;
  for (int fd : pair_fd) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
  }
}

void write_batch(const std::vector<uint8_t> &m) {
  for (int i = 0; i < kBatch; i++)
    if (send(pair_fd[1], m.data(), m.size(), 0) < 0) abort();
}

void NotifyOurs(benchmark::State &state) {
  kernel_once();
  open_pair();
  rts_lower_set(&kPair);
  static krt_handler_fn handlers[KRT_HANDLER_COUNT];
  handlers[RTS_T_BRIDGE_DOMAIN] = count_bd;
  static krt_config cfg{};
  cfg.async_mode_on = 1;
  cfg.listen_mask[1] = 0x1000;
  cfg.handlers = handlers;
  restart(&cfg);
  auto m = notification();
  for (auto _ : state) {
    state.PauseTiming();
    write_batch(m);
    state.ResumeTiming();
    run_until(handled + kBatch);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["ns_per_msg"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kBatch), benchmark::Counter::kIsRate |
                                                                             benchmark::Counter::kInvert);
  rts_lower_set(nullptr);
}

void *arena_alloc(void *ctx, size_t n) { return mem_temp_alloc(n, static_cast<mem_temp *>(ctx)); }

void NotifyFloor(benchmark::State &state) {
  open_pair();
  auto m = notification();
  std::vector<uint8_t> buf(65536);
  uint64_t seen = 0;
  for (auto _ : state) {
    state.PauseTiming();
    write_batch(m);
    state.ResumeTiming();
    for (int i = 0; i < kBatch; i++) {
      ssize_t n = recv(pair_fd[0], buf.data(), buf.size(), MSG_DONTWAIT);
      if (n <= 0) abort();
      alignas(16) uint8_t mem[KRT_DECODE_ARENA];
      mem_temp arena;
      mem_temp_init(&arena, mem, sizeof mem, false);
      rts_msg_pair pair{};
      if (rts_tlv_decode(&pair, nullptr, buf.data(), static_cast<uint32_t>(n), arena_alloc, &arena) <= 0) abort();
      switch (pair.type) {
        case RTS_T_BRIDGE_DOMAIN:
          benchmark::DoNotOptimize(static_cast<rts_bd_msg *>(pair.record)->vnid);
          seen++;
          break;
        default: break;
      }
    }
  }
  benchmark::DoNotOptimize(seen);
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["ns_per_msg"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kBatch), benchmark::Counter::kIsRate |
                                                                             benchmark::Counter::kInvert);
}

// ---- Scan -----------------------------------------------------------------------------------

constexpr uint32_t kScanBds = 65000;

Rtsockd *scan_peer() {
  static Rtsockd *p = [] {
    std::string state;
    for (uint32_t i = 1; i <= kScanBds; i++)
      state += "bd index=" + std::to_string(i) + " rtb_id=7 vnid=" + std::to_string(i) + " cfg_flags=0x800\n";
    return new Rtsockd(state);
  }();
  return p;
}

uint64_t scan_seen;
bool scan_over;
int scan_reply(void *m, uint32_t, krt_scan_state *st) {
  reinterpret_cast<krt_cursor_bd *>(st->priv)->index = static_cast<rts_bd_msg *>(m)->bdm_index;
  scan_seen++;
  return 1;
}
void scan_done() {
  scan_over = true;
  handled = target;  // stops the loop
}

void ScanOurs(benchmark::State &state) {
  Rtsockd *p = scan_peer();
  if (!p->ready()) return state.SkipWithError("rtsockd did not start");
  kernel_once();
  static const krt_scan scan = {89, 1, sizeof(krt_cursor_bd), 1, nullptr, nullptr, nullptr,
                                krt_scan_req_bridge_domain, scan_reply, scan_done};
  static krt_handler_fn handlers[KRT_HANDLER_COUNT];
  static krt_config cfg{};
  cfg.sender_id = 131;
  cfg.async_mode_on = 1;
  cfg.handlers = handlers;
  cfg.scans = &scan;
  cfg.scan_count = 1;
  cfg.scans = nullptr;  // started by hand below
  restart(&cfg);
  cfg.scans = &scan;
  for (auto _ : state) {
    scan_seen = 0;
    scan_over = false;
    handled = 0;
    krt_scan_background(krt_task());
    target = 1;
    while (!scan_over) task_scheduler_run();
    if (scan_seen != kScanBds) state.SkipWithError("scan incomplete");
  }
  state.SetItemsProcessed(state.iterations() * kScanBds);
  state.counters["us_per_bd"] = benchmark::Counter(static_cast<double>(state.iterations() * kScanBds) / 1e6,
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void ScanFloor(benchmark::State &state) {
  Rtsockd *p = scan_peer();
  if (!p->ready()) return state.SkipWithError("rtsockd did not start");
  rtslib_cookie *c = rtslib_open(132);
  if (!c) return state.SkipWithError("rtslib_open failed");
  for (auto _ : state) {
    uint64_t n = 0;
    uint16_t index = 0;
    uint8_t op = RTS_OP_GET;
    for (;;) {
      rts_bd_msg req{};
      req.hdr.version = 98;
      req.hdr.type = RTS_T_BRIDGE_DOMAIN;
      req.hdr.operation = op;
      req.hdr.size = 200;
      req.hdr.seq = c->seq++;
      req.bdm_index = index;
      int err = rtslib_msg_write_idl(c, RTS_T_BRIDGE_DOMAIN, &req, nullptr);
      if (err == ENOENT && op == RTS_OP_GET) {
        op = RTS_OP_GETNEXT;
        continue;
      }
      if (err) break;
      void *reply = nullptr;
      if (rtslib_msg_read_idl(c, &reply) != 0) break;
      index = static_cast<rts_bd_msg *>(reply)->bdm_index;
      rtslib_msg_idl_release(c, reply);
      op = RTS_OP_GETNEXT;
      n++;
    }
    if (n != kScanBds) state.SkipWithError("scan incomplete");
  }
  rtslib_close(c);
  state.SetItemsProcessed(state.iterations() * kScanBds);
  state.counters["us_per_bd"] = benchmark::Counter(static_cast<double>(state.iterations() * kScanBds) / 1e6,
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// ---- Passes under a queue ---------------------------------------------------------------------

task_utime pass_start;
uint64_t worst_pass_us, passes, long_passes;
task_utime timer_due;
int64_t timer_late_us = -1;

void post_wait() { pass_start = task_now; }
void pre_wait() {
  task_time_update();
  uint64_t us = task_utime_to_usec(task_now) - task_utime_to_usec(pass_start);
  if (us > worst_pass_us) worst_pass_us = us;
  passes++;
  if (us > 1000) long_passes++;
}
void timer_fired(task_timer *, uint32_t) {
  task_time_update();
  timer_late_us = static_cast<int64_t>(task_utime_to_usec(task_now)) - static_cast<int64_t>(task_utime_to_usec(timer_due));
}

void QueuedPasses(benchmark::State &state) {
  kernel_once();
  auto m = notification();
  for (auto _ : state) {
    FakePeer peer;  // the in-process peer: the queue costs nothing to fill
    static krt_handler_fn handlers[KRT_HANDLER_COUNT];
    handlers[RTS_T_BRIDGE_DOMAIN] = count_bd;
    static krt_config cfg{};
    cfg.async_mode_on = 1;
    cfg.handlers = handlers;
    restart(&cfg);
    for (int i = 0; i < 100000; i++) peer.queue.push_back(m);
    peer.sync();
    handled = 0;
    worst_pass_us = passes = long_passes = 0;
    timer_late_us = -1;
    app.app_post_wait = post_wait;
    app.app_pre_wait = pre_wait;
    task_time_update();
    pass_start = task_now;
    // Due while the queue is still being read (it takes about 100 ms of CPU).
    task_utime in = task_utime_from_usec(50000);
    timer_due = task_utime_add(task_now, in);
    task_timer_ucreate(krt_task(), "bench 100ms", TIMERF_DELETE, nullptr, &in, 0, timer_fired, nullptr);
    run_until(100000);
    while (timer_late_us < 0) task_scheduler_run();
    app.app_post_wait = nullptr;
    app.app_pre_wait = nullptr;
    task_delete(krt_task());
    krt_reset();
  }
  state.counters["worst_pass_us"] = static_cast<double>(worst_pass_us);
  state.counters["timer_late_us"] = static_cast<double>(timer_late_us);
  state.counters["passes"] = static_cast<double>(passes);
  state.counters["passes_over_1ms"] = static_cast<double>(long_passes);
}

// ---- Interface lookups ---------------------------------------------------------------------

constexpr uint32_t kIfs = 10000, kProbes = 4096;

std::string if_name(uint32_t i) { return "ge-" + std::to_string(i / 1000) + "/" + std::to_string(i / 100 % 10) + "/" + std::to_string(i % 100); }

// The same probes for every implementation.
const std::vector<uint32_t> &probes(uint32_t n) {
  static std::map<uint32_t, std::vector<uint32_t>> cache;
  auto &v = cache[n];
  if (v.empty()) {
    std::mt19937 rng(42);
    for (uint32_t i = 0; i < kProbes; i++) v.push_back(1 + rng() % n);
  }
  return v;
}

void mirror_devices() {
  static bool done;
  if (done) return;
  done = true;
  if_init();
  for (uint32_t i = 1; i <= kIfs; i++) ifd_create_internal(static_cast<uint16_t>(i), if_name(i).c_str(), 0);
}

nl_cache *link_cache() {
  static nl_cache *cache = [] {
    nl_cache *c = nullptr;
    if (nl_cache_alloc_name("route/link", &c) < 0) return static_cast<nl_cache *>(nullptr);
    for (uint32_t i = 1; i <= kIfs; i++) {
      rtnl_link *l = rtnl_link_alloc();
      rtnl_link_set_ifindex(l, static_cast<int>(i));
      rtnl_link_set_name(l, if_name(i).c_str());
      nl_cache_add(c, reinterpret_cast<nl_object *>(l));
      rtnl_link_put(l);
    }
    return c;
  }();
  return cache;
}

std::vector<std::string> probe_names() {
  std::vector<std::string> names;
  for (uint32_t i : probes(kIfs)) names.push_back(if_name(i));
  return names;
}

void IfLookupByIndexOurs(benchmark::State &state) {
  mirror_devices();
  const auto &keys = probes(kIfs);
  size_t k = 0;
  for (auto _ : state) {
    if_device *d = ifd_find_by_index(static_cast<uint16_t>(keys[k++ & (kProbes - 1)]));
    benchmark::DoNotOptimize(d->ifd_mtu);
  }
}

void IfLookupByIndexLibnl(benchmark::State &state) {
  nl_cache *c = link_cache();
  if (!c) return state.SkipWithError("no link cache");
  const auto &keys = probes(kIfs);
  size_t k = 0;
  for (auto _ : state) {
    rtnl_link *l = rtnl_link_get(c, static_cast<int>(keys[k++ & (kProbes - 1)]));
    benchmark::DoNotOptimize(rtnl_link_get_mtu(l));
    rtnl_link_put(l);
  }
}

void IfLookupByNameOurs(benchmark::State &state) {
  mirror_devices();
  auto names = probe_names();
  size_t k = 0;
  for (auto _ : state) {
    if_device *d = ifd_find_by_name(names[k++ & (kProbes - 1)].c_str());
    benchmark::DoNotOptimize(d->ifd_mtu);
  }
}

void IfLookupByNameLibnl(benchmark::State &state) {
  nl_cache *c = link_cache();
  if (!c) return state.SkipWithError("no link cache");
  auto names = probe_names();
  size_t k = 0;
  for (auto _ : state) {
    rtnl_link *l = rtnl_link_get_by_name(c, names[k++ & (kProbes - 1)].c_str());
    benchmark::DoNotOptimize(rtnl_link_get_mtu(l));
    rtnl_link_put(l);
  }
}

// ---- Interface scan -------------------------------------------------------------------------

constexpr uint32_t kScanDevs = 2000, kScanUnits = 5;

// The peer's state file text.
std::string if_state() {
  static std::string text = [] {
    std::string state;
    uint32_t n = 0;
    for (uint32_t d = 1; d <= kScanDevs; d++) {
      state += "ifd index=" + std::to_string(d) + " name=" + if_name(d) + " mtu=1514\n";
      for (uint32_t u = 0; u < kScanUnits; u++, n++) {
        std::string x = std::to_string(100000 + d * 10 + u), name = if_name(d) + "." + std::to_string(u);
        state += "ifl index=" + x + " ifd_index=" + std::to_string(d) + " unit=" + std::to_string(u) +
                 " name=" + if_name(d) + "\n";
        state += "iff ifl_index=" + x + " af=2 mtu=1500 name=" + name + "\n";
        state += "iff ifl_index=" + x + " af=28 mtu=1500 name=" + name + "\n";
        std::string a = std::to_string(n >> 8) + "." + std::to_string(n & 255);
        state += "ifa ifl_index=" + x + " af=2 local=10.0." + a + "/32\n";
        char v6[32];
        snprintf(v6, sizeof v6, "2001:db8::%x", n + 1);
        state += "ifa ifl_index=" + x + " af=28 local=" + v6 + "/128\n";
      }
    }
    return state;
  }();
  return text;
}

size_t mirror_bytes() {
  size_t total = 0;
  task_block_walk(
      [](task_block *bp, void *arg) {
        size_t bytes, objects;
        task_block_get_allocated(bp, &bytes, &objects);
        const char *name = bp->tb_name;
        if (!strncmp(name, "if_", 3)) *static_cast<size_t *>(arg) += bytes;
      },
      &total);
  return total;
}

void IfScanOurs(benchmark::State &state) {
  Rtsockd peer(if_state());  // gone with the run: it must not outlive the benchmark
  Rtsockd *p = &peer;
  if (!p->ready()) return state.SkipWithError("rtsockd did not start");
  kernel_once();
  rts_lower_set(nullptr);
  static krt_scan scans[IF_SCAN_COUNT];
  memcpy(scans, if_scan_list(), sizeof scans);
  scans[IF_SCAN_COUNT - 1].done = scan_done;
  static krt_handler_fn handlers[KRT_HANDLER_COUNT];
  if_rtsock_install(handlers);
  static krt_config cfg{};
  cfg.sender_id = 131;
  cfg.async_mode_on = 1;
  cfg.handlers = handlers;
  cfg.scans = nullptr;  // started by hand below
  restart(&cfg);
  cfg.scans = scans;
  cfg.scan_count = IF_SCAN_COUNT;
  if_init();
  size_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if_reset();
    state.ResumeTiming();
    scan_over = false;
    handled = 0;
    krt_scan_background(krt_task());
    target = 1;
    while (!scan_over) task_scheduler_run();
    if (ifl_count() != kScanDevs * kScanUnits) state.SkipWithError("scan incomplete");
    bytes = mirror_bytes();
  }
  task_delete(krt_task());
  krt_reset();
  if_reset();
  state.counters["bytes_per_ifl"] = static_cast<double>(bytes) / (kScanDevs * kScanUnits);
  state.counters["objects"] = 52000;
}

// ---- Routing instances ------------------------------------------------------------------------

constexpr uint32_t kRtIds = 1024;

void RtInstanceFindOurs(benchmark::State &state) {
  static bool filled;
  if (!filled) {
    filled = true;
    kernel_once();
    rt_instance_init();
    for (uint8_t af : {uint8_t(RTS_AF_INET), uint8_t(RTS_AF_INET6)})
      for (uint32_t id = 1; id <= kRtIds; id++) {
        rts_rtb_msg m{};
        m.hdr.version = 98;
        m.hdr.type = RTS_T_RTTABLE;
        m.hdr.operation = RTS_OP_ADD;
        m.rtbm_af = af;
        m.rtbm_index = static_cast<uint16_t>(id);
        std::string name = "vrf" + std::to_string(id);
        m.rtbm_name = name.data();
        rt_instance_rtsock_handler(&m, 0);
      }
  }
  const auto &keys = probes(2 * kRtIds);
  size_t k = 0;
  for (auto _ : state) {
    uint32_t key = keys[k++ & (kProbes - 1)] - 1;
    rt_instance *r = rt_instance_find(key & 1 ? RTS_AF_INET6 : RTS_AF_INET, static_cast<uint16_t>(1 + key / 2));
    benchmark::DoNotOptimize(r->rti_attr);
  }
}

struct StdInstance {
  uint8_t af;
  uint16_t id;
  char name[RT_INSTANCE_NAME_SIZE];
  uint16_t attr;
};

void RtInstanceFindStdmap(benchmark::State &state) {
  static std::map<std::pair<uint8_t, uint16_t>, StdInstance> table;
  if (table.empty())
    for (uint8_t af : {uint8_t(RTS_AF_INET), uint8_t(RTS_AF_INET6)})
      for (uint32_t id = 1; id <= kRtIds; id++) {
        StdInstance &x = table[{af, static_cast<uint16_t>(id)}];
        x.af = af;
        x.id = static_cast<uint16_t>(id);
        snprintf(x.name, sizeof x.name, "vrf%u&AF=%d", id, af);
      }
  const auto &keys = probes(2 * kRtIds);
  size_t k = 0;
  for (auto _ : state) {
    uint32_t key = keys[k++ & (kProbes - 1)] - 1;
    auto it = table.find({key & 1 ? RTS_AF_INET6 : RTS_AF_INET, static_cast<uint16_t>(1 + key / 2)});
    benchmark::DoNotOptimize(it->second.attr);
  }
}

}  // namespace

BENCHMARK(NotifyOurs)->Name("Notify/ours");
BENCHMARK(NotifyFloor)->Name("Notify/floor");
BENCHMARK(ScanOurs)->Name("Scan/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ScanFloor)->Name("Scan/floor")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(QueuedPasses)->Name("QueuedPasses/ours")->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(IfLookupByIndexOurs)->Name("IfLookupByIndex/ours");
BENCHMARK(IfLookupByIndexLibnl)->Name("IfLookupByIndex/libnl");
BENCHMARK(IfLookupByNameOurs)->Name("IfLookupByName/ours");
BENCHMARK(IfLookupByNameLibnl)->Name("IfLookupByName/libnl");
BENCHMARK(IfScanOurs)->Name("IfScan/ours")->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(RtInstanceFindOurs)->Name("RtInstanceFind/ours");
BENCHMARK(RtInstanceFindStdmap)->Name("RtInstanceFind/stdmap");

BENCHMARK_MAIN();
