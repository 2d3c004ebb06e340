// GifWalk: one statistics message's TLVs walked into an index by type.
// ours: gif_ifd_parse_tlv over the TLV buffer (index zeroed, each TLV's value
// and length entered, type 0x41 to its own field). libmnl: the same
// attributes in netlink form (the length counts the 4-byte header), walked by
// mnl_attr_parse_payload with the usual callback that checks the type against
// the table's size and stores the attribute in a zeroed table of 487. The
// argument is the count of TLVs: 4 is a device's message as rtsockd sends it
// (queues, their baseline, the MAC counters, the link), more adds 8-byte
// counters of other types.
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>

#include <cstring>
#include <vector>

#include "pinned_main.h"
#include "stats/ifstat.h"

namespace {

struct Attr {
  uint16_t type;
  std::vector<uint8_t> value;
};

std::vector<Attr> attrs(int n) {
  std::vector<Attr> a;
  auto queues = [](uint32_t count) {
    std::vector<uint8_t> v(4 + count * sizeof(rts_ifst_queue), 1);
    memcpy(v.data(), &count, 4);
    return v;
  };
  a.push_back({RTS_IFST_QUEUE, queues(4)});
  a.push_back({RTS_IFST_QUEUE_BASE, queues(4)});
  a.push_back({RTS_IFST_ETHER_MAC, std::vector<uint8_t>(sizeof(rts_ifst_ether_mac), 2)});
  a.push_back({RTS_IFST_ETHER_LINK, std::vector<uint8_t>(sizeof(rts_ifst_ether_link), 3)});
  for (int i = 4; i < n; i++) a.push_back({static_cast<uint16_t>(0x100 + i), std::vector<uint8_t>(8, 4)});
  return a;
}

std::vector<uint8_t> ours_buffer(const std::vector<Attr> &a) {
  std::vector<uint8_t> b;
  for (const Attr &x : a) {
    size_t at = b.size();
    uint16_t len = static_cast<uint16_t>(x.value.size());
    b.resize(at + rts_ifsm_tlv_encode(x.type, nullptr, len, nullptr, 0));
    rts_ifsm_tlv_encode(x.type, x.value.data(), len, b.data() + at, static_cast<uint32_t>(b.size() - at));
  }
  return b;
}

std::vector<uint8_t> mnl_buffer(const std::vector<Attr> &a) {
  std::vector<uint8_t> b;
  for (const Attr &x : a) {
    size_t at = b.size();
    b.resize(at + MNL_ALIGN(MNL_ATTR_HDRLEN + x.value.size()));
    auto *nla = reinterpret_cast<nlattr *>(b.data() + at);
    nla->nla_type = x.type;
    nla->nla_len = static_cast<uint16_t>(MNL_ATTR_HDRLEN + x.value.size());
    memcpy(b.data() + at + MNL_ATTR_HDRLEN, x.value.data(), x.value.size());
  }
  return b;
}

void GifWalkOurs(benchmark::State &state) {
  std::vector<uint8_t> b = ours_buffer(attrs(static_cast<int>(state.range(0))));
  gif_ifd p;
  for (auto _ : state) {
    gif_ifd_parse_tlv(&p, nullptr, static_cast<uint32_t>(b.size()), b.data());
    benchmark::DoNotOptimize(p.walked);
    benchmark::ClobberMemory();
  }
  if (p.walked != state.range(0)) state.SkipWithError("walked another count");
}

struct MnlTable {
  const nlattr *tb[GIF_TLV_COUNT];
  uint16_t walked;
};

int mnl_cb(const nlattr *attr, void *data) {
  auto *t = static_cast<MnlTable *>(data);
  t->walked++;
  if (mnl_attr_type_valid(attr, GIF_TLV_COUNT - 1) < 0) return MNL_CB_OK;
  t->tb[mnl_attr_get_type(attr)] = attr;
  return MNL_CB_OK;
}

void GifWalkLibmnl(benchmark::State &state) {
  std::vector<uint8_t> b = mnl_buffer(attrs(static_cast<int>(state.range(0))));
  MnlTable t;
  for (auto _ : state) {
    memset(&t, 0, sizeof t);
    int r = mnl_attr_parse_payload(b.data(), b.size(), mnl_cb, &t);
    benchmark::DoNotOptimize(r);
    benchmark::DoNotOptimize(t.walked);
    benchmark::ClobberMemory();
  }
  if (t.walked != state.range(0)) state.SkipWithError("walked another count");
}

}  // namespace

BENCHMARK(GifWalkOurs)->Name("GifWalk/ours")->Arg(4)->Arg(40);
BENCHMARK(GifWalkLibmnl)->Name("GifWalk/libmnl")->Arg(4)->Arg(40);

TVX_BENCH_PINNED_MAIN()
