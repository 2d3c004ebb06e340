// FormatInet: "%A" of an INET address against inet_ntop. FormatPlain: a trace
// line without the framework's directives against snprintf. FormatMixed:
// "%s %A %d %T" against the same text composed by hand with inet_ntop,
// localtime_r and snprintf (and libfmt, for information). SockCompare:
// common_sockaddrcmp2 of two INET6 addresses against memcmp of their 16 bytes.
// Every case formats the same rotating inputs; the texts are checked equal
// before timing.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "format/task_fmt.h"
#include "sockaddr/families.h"

namespace {

constexpr size_t kN = 256;  // inputs, rotated through

void *b_alloc(unsigned, size_t size) { return malloc(size); }
void b_free(void *p, unsigned) { free(p); }

struct world {
  std::vector<zsockaddr_t *> addrs;  // INET, owned
  std::vector<uint32_t> words;       // the same addresses, network order
  std::vector<int32_t> times;        // seconds with a non-zero hour in UTC
  std::vector<zsockaddr_t *> a6, b6;  // INET6 pairs differing in the last byte

  world() {
    setenv("TZ", "UTC", 1);
    tzset();
    task_fmt_init(GF_MAX_DAEMON);
    zsock_hooks h{};
    h.alloc = b_alloc;
    h.free = b_free;
    task_fmt_zsock_hooks(&h);
    zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
    zsock_register_inet(GF_INET);
    zsock_register_inet6(GF_INET6);
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

}  // namespace

BENCHMARK(FormatInetOurs)->Name("FormatInet/ours");
BENCHMARK(FormatInetGlibc)->Name("FormatInet/glibc");
BENCHMARK(FormatPlainOurs)->Name("FormatPlain/ours");
BENCHMARK(FormatPlainSnprintf)->Name("FormatPlain/snprintf");
BENCHMARK(FormatMixed<mixed_ours>)->Name("FormatMixed/ours");
BENCHMARK(FormatMixed<mixed_snprintf>)->Name("FormatMixed/snprintf");
BENCHMARK(FormatMixed<mixed_fmt>)->Name("FormatMixed/fmt");
BENCHMARK(SockCompareOurs)->Name("SockCompare/ours");
BENCHMARK(SockCompareMemcmp)->Name("SockCompare/memcmp");
