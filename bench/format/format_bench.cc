// FormatInet: "%A" of an INET address against inet_ntop. FormatPlain: a trace
// line without the framework's directives against snprintf. FormatMixed:
// "%s %A %d %T" against the same text composed by hand with inet_ntop,
// localtime_r and snprintf (and libfmt, for information). SockCompare:
// common_sockaddrcmp2 of two INET6 addresses against memcmp of their 16 bytes.
// FormatEvpn: "%A" of an EVPN MAC route against snprintf building the same
// text with ether_ntoa_r and inet_ntop. FlowCompare: the order of two flow
// specifications that differ in their last byte against memcmp of their
// bytes. RegisterFamilies: zsock_register_every_family() once more; the RSS
// that the first registration added is its counter rss_added_kB.
// Every case formats the same rotating inputs; the texts are checked equal
// before timing.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/ether.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "format/task_fmt.h"
#include "sockaddr/families.h"
#include "sockaddr/flow.h"
#include "sockaddr/routing.h"

namespace {

constexpr size_t kN = 256;  // inputs, rotated through

void *b_alloc(unsigned, size_t size) { return malloc(size); }
void b_free(void *p, unsigned) { free(p); }

struct world {
  std::vector<zsockaddr_t *> addrs;  // INET, owned
  std::vector<uint32_t> words;       // the same addresses, network order
  std::vector<int32_t> times;        // seconds with a non-zero hour in UTC
  std::vector<zsockaddr_t *> a6, b6;  // INET6 pairs differing in the last byte
  struct evpn_route {
    uint32_t asn, num, tag;
    uint8_t esi[10];
    ether_addr mac;
    uint32_t ip;
  };
  std::vector<evpn_route> routes;
  std::vector<zsockaddr_t *> evpn;                // the same routes as addresses, owned
  std::vector<std::vector<uint8_t>> fa, fb;       // inetflow pairs differing in the last byte
  long rss_added_kb = 0;

  static long rss_kb() {
    long pages = 0, resident = 0;
    if (FILE *f = fopen("/proc/self/statm", "r")) {
      if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
      fclose(f);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
  }

  world() {
    setenv("TZ", "UTC", 1);
    tzset();
    task_fmt_init(GF_MAX_DAEMON);
    zsock_hooks h{};
    h.alloc = b_alloc;
    h.free = b_free;
    task_fmt_zsock_hooks(&h);
    zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
    long before = rss_kb();
    zsock_register_every_family();
    rss_added_kb = rss_kb() - before;
    std::mt19937 rng(4789);
    for (size_t i = 0; i < kN; i++) {
      uint32_t w = rng();
      words.push_back(w);
      addrs.push_back(sockcreate_in(htons(4789), w));
      times.push_back(1700000000 + static_cast<int32_t>(rng() % 3600));  // 22:13 to 23:13 UTC
      uint8_t b[16];
      for (auto &x : b) x = static_cast<uint8_t>(rng());
      a6.push_back(sockcreate_in6(0, b));
      b[15] ^= 1;
      b6.push_back(sockcreate_in6(0, b));

      evpn_route r{uint32_t(rng() & 0xffff), uint32_t(rng()), uint32_t(rng() & 0xffffff), {}, {}, uint32_t(rng())};
      for (auto &e : r.esi) e = static_cast<uint8_t>(rng());
      for (auto &m : r.mac.ether_addr_octet) m = static_cast<uint8_t>(rng());
      routes.push_back(r);
      uint8_t rd[8] = {0, 0, uint8_t(r.asn >> 8), uint8_t(r.asn), uint8_t(r.num >> 24), uint8_t(r.num >> 16),
                       uint8_t(r.num >> 8), uint8_t(r.num)};
      evpn.push_back(sockdup(evpn_addr_build_mac(rd, r.esi, r.tag, r.mac.ether_addr_octet, sockbuild_in(0, r.ip))));

      // dst prefix, protocol, two port ranges and a DSCP value: 26 bytes.
      std::vector<uint8_t> room(64);
      zsockaddr_t *f = flow_common_init(room.data(), room.size(), GF_INETFLOW, nullptr);
      inetflow_add_prefix(f, room.size(), FLOW_DST, static_cast<uint32_t>(rng()), 24);
      flow_term proto[] = {{FLOW_OP_EQ, 6}, {FLOW_OP_EQ, 17}};
      flow_common_add_terms(f, room.size(), FLOW_PROTO, proto, 2);
      flow_term ports[] = {{FLOW_OP_GT | FLOW_OP_EQ, 1024}, {FLOW_OP_AND | FLOW_OP_LT, 2048 + rng() % 1000}};
      flow_common_add_terms(f, room.size(), FLOW_DSTPORT, ports, 2);
      flow_term dscp[] = {{FLOW_OP_EQ, rng() % 64}};
      flow_common_add_terms(f, room.size(), FLOW_DSCP, dscp, 1);
      room.resize(socklen(f));
      fa.push_back(room);
      room.back() ^= 1;
      fb.push_back(room);
    }
  }
};

world &w() {
  static world x;
  return x;
}

// --- FormatInet ---
void FormatInetOurs(benchmark::State &state) {
  auto &x = w();
  char buf[64];
  size_t i = 0;
  for (auto _ : state) {
    task_fmt_snprintf(buf, sizeof buf, "%A", x.addrs[i]);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) % kN;
  }
}

void FormatInetGlibc(benchmark::State &state) {
  auto &x = w();
  char buf[64], ours[64];
  task_fmt_snprintf(ours, sizeof ours, "%A", x.addrs[0]);
  inet_ntop(AF_INET, &x.words[0], buf, sizeof buf);
  if (strcmp(buf, ours) != 0) state.SkipWithError("texts differ");
  size_t i = 0;
  for (auto _ : state) {
    inet_ntop(AF_INET, &x.words[i], buf, sizeof buf);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) % kN;
  }
}

// --- FormatPlain: a receive trace line ---
#define PLAIN_FMT "C(%d-%s): received %u bytes from %s port %u on ifl %u, vni %u, flags 0x%x"
void FormatPlainOurs(benchmark::State &state) {
  char buf[256];
  unsigned i = 0;
  for (auto _ : state) {
    task_fmt_snprintf(buf, sizeof buf, PLAIN_FMT, 4242, "tunechod_rx_read", 130 + (i & 7), "10.1.2.3", 4789u,
                      1000 + i % 256, 5000 + i, 0x8u);
    benchmark::DoNotOptimize(buf);
    i++;
  }
}

void FormatPlainSnprintf(benchmark::State &state) {
  char buf[256];
  unsigned i = 0;
  for (auto _ : state) {
    snprintf(buf, sizeof buf, PLAIN_FMT, 4242, "tunechod_rx_read", 130 + (i & 7), "10.1.2.3", 4789u, 1000 + i % 256,
             5000 + i, 0x8u);
    benchmark::DoNotOptimize(buf);
    i++;
  }
}

// --- FormatMixed: "%s %A %d %T" ---
int mixed_ours(char *buf, size_t size, size_t i) {
  auto &x = w();
  return task_fmt::snprintf(buf, size, "%s %A %d %T", "echo from", x.addrs[i], static_cast<int>(i), x.times[i]);
}

int mixed_snprintf(char *buf, size_t size, size_t i) {
  auto &x = w();
  char a[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &x.words[i], a, sizeof a);
  time_t t = x.times[i];
  struct tm tm;
  localtime_r(&t, &tm);
  return snprintf(buf, size, "%s %s %d %d:%02d:%02d", "echo from", a, static_cast<int>(i), tm.tm_hour, tm.tm_min,
                  tm.tm_sec);
}

int mixed_fmt(char *buf, size_t size, size_t i) {
  auto &x = w();
  char a[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &x.words[i], a, sizeof a);
  time_t t = x.times[i];
  struct tm tm;
  localtime_r(&t, &tm);
  auto r = fmt::format_to_n(buf, size - 1, "{} {} {} {}:{:02}:{:02}", "echo from", a, i, tm.tm_hour, tm.tm_min,
                            tm.tm_sec);
  *r.out = '\0';
  return static_cast<int>(r.size);
}

template <int (*F)(char *, size_t, size_t)>
void FormatMixed(benchmark::State &state) {
  char buf[128], ours[128];
  for (size_t i = 0; i < kN; i++) {
    mixed_ours(ours, sizeof ours, i);
    F(buf, sizeof buf, i);
    if (strcmp(buf, ours) != 0) {
      state.SkipWithError(("texts differ: " + std::string(ours) + " / " + buf).c_str());
      return;
    }
  }
  size_t i = 0;
  for (auto _ : state) {
    F(buf, sizeof buf, i);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) % kN;
  }
}

// --- SockCompare ---
void SockCompareOurs(benchmark::State &state) {
  auto &x = w();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(common_sockaddrcmp2(x.a6[i], x.b6[i]));
    i = (i + 1) % kN;
  }
}

void SockCompareMemcmp(benchmark::State &state) {
  auto &x = w();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(memcmp(sockaddrptr(x.a6[i]), sockaddrptr(x.b6[i]), 16));
    i = (i + 1) % kN;
  }
}

// --- FormatEvpn ---
void FormatEvpnOurs(benchmark::State &state) {
  auto &x = w();
  char buf[128];
  size_t i = 0;
  for (auto _ : state) {
    task_fmt_snprintf(buf, sizeof buf, "%A", x.evpn[i]);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) % kN;
  }
}

void evpn_snprintf(char *buf, size_t size, const world::evpn_route &r) {
  char mac[24], ip[INET_ADDRSTRLEN];
  ether_ntoa_r(&r.mac, mac);
  inet_ntop(AF_INET, &r.ip, ip, sizeof ip);
  const uint8_t *e = r.esi;
  snprintf(buf, size, "%d:%u:%u:%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x:%u:%d.%s:%s", 2, r.asn, r.num,
           e[0], e[1], e[2], e[3], e[4], e[5], e[6], e[7], e[8], e[9], r.tag, 48, mac, ip);
}

void FormatEvpnSnprintf(benchmark::State &state) {
  auto &x = w();
  char buf[128], ours[128];
  for (size_t k = 0; k < kN; k++) {
    task_fmt_snprintf(ours, sizeof ours, "%A", x.evpn[k]);
    evpn_snprintf(buf, sizeof buf, x.routes[k]);
    if (strcmp(buf, ours) != 0) {
      state.SkipWithError("texts differ");
      return;
    }
  }
  size_t i = 0;
  for (auto _ : state) {
    evpn_snprintf(buf, sizeof buf, x.routes[i]);
    benchmark::DoNotOptimize(buf);
    i = (i + 1) % kN;
  }
}

// --- FlowCompare ---
void FlowCompareOurs(benchmark::State &state) {
  auto &x = w();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(flow_common_sockaddrcmp2(reinterpret_cast<const zsockaddr_t *>(x.fa[i].data()),
                                                      reinterpret_cast<const zsockaddr_t *>(x.fb[i].data())));
    i = (i + 1) % kN;
  }
}

void FlowCompareMemcmp(benchmark::State &state) {
  auto &x = w();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(memcmp(x.fa[i].data(), x.fb[i].data(), x.fa[i].size()));
    i = (i + 1) % kN;
  }
}

// --- RegisterFamilies ---
void RegisterFamiliesOurs(benchmark::State &state) {
  auto &x = w();
  for (auto _ : state) zsock_register_every_family();
  state.counters["rss_added_kB"] = static_cast<double>(x.rss_added_kb);
}

}  // namespace

BENCHMARK(FormatEvpnOurs)->Name("FormatEvpn/ours");
BENCHMARK(FormatEvpnSnprintf)->Name("FormatEvpn/snprintf");
BENCHMARK(FlowCompareOurs)->Name("FlowCompare/ours");
BENCHMARK(FlowCompareMemcmp)->Name("FlowCompare/memcmp");
BENCHMARK(RegisterFamiliesOurs)->Name("RegisterFamilies/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(FormatInetOurs)->Name("FormatInet/ours");
BENCHMARK(FormatInetGlibc)->Name("FormatInet/glibc");
BENCHMARK(FormatPlainOurs)->Name("FormatPlain/ours");
BENCHMARK(FormatPlainSnprintf)->Name("FormatPlain/snprintf");
BENCHMARK(FormatMixed<mixed_ours>)->Name("FormatMixed/ours");
BENCHMARK(FormatMixed<mixed_snprintf>)->Name("FormatMixed/snprintf");
BENCHMARK(FormatMixed<mixed_fmt>)->Name("FormatMixed/fmt");
BENCHMARK(SockCompareOurs)->Name("SockCompare/ours");
BENCHMARK(SockCompareMemcmp)->Name("SockCompare/memcmp");
