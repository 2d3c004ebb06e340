// Writes the seed corpus of the route-socket fuzz targets: a real encoded
// message of every type with a codec, in IDR, in TLV, and in TLV with part of
// its fields; with per-operation errors and an attribute list where the type
// has them; an envelope of a type without a codec and one above the table;
// and a raw statistics record. For the read target, the same messages as
// the queue of a peer: answers to its requests, stale ones, a batch refused.
// Usage: rtsock_fuzz_seeds messages FOLDER... | rtsock_fuzz_seeds records FOLDER...
#include <cstdio>
#include <string>
#include <vector>

#include "samples.h"

namespace {

void write(const std::vector<std::string> &dirs, const std::string &name, const std::vector<uint8_t> &b) {
  for (const std::string &d : dirs) {
    std::string path = d + "/seed-" + name;
    FILE *f = fopen(path.c_str(), "wb");
    if (!f || fwrite(b.data(), 1, b.size(), f) != b.size()) {
      perror(path.c_str());
      exit(1);
    }
    fclose(f);
  }
}

using samples::wire;

// A raw statistics record, as the peer answers one.
std::vector<uint8_t> raw_stats(uint32_t seq) {
  rts_ifstats_msg raw{};
  raw.hdr.type = RTS_T_IFDSTATS;
  raw.hdr.operation = RTS_OP_GET;
  raw.hdr.length = sizeof raw;
  raw.hdr.seq = seq;
  raw.ifsm_index = 3;
  auto *b = reinterpret_cast<const uint8_t *>(&raw);
  return std::vector<uint8_t>(b, b + sizeof raw);
}

// A verdict byte, an accepted count, then records as 16-bit length and bytes.
struct Queue {
  std::vector<uint8_t> b;
  Queue(uint8_t verdict, uint8_t accepted) : b{verdict, accepted} {}
  Queue &add(const std::vector<uint8_t> &m) {
    b.push_back(static_cast<uint8_t>(m.size()));
    b.push_back(static_cast<uint8_t>(m.size() >> 8));
    b.insert(b.end(), m.begin(), m.end());
    return *this;
  }
};

// The fuzz target's requests carry numbers 1 (route get), 2 (raw statistics)
// and 3 to 5 (a batch of bridge-domain gets).
int records(const std::vector<std::string> &dirs, rts_rt_msg rt, rts_bd_msg bd) {
  rt.hdr.operation = bd.hdr.operation = RTS_OP_GET;
  rt.hdr.errors = nullptr;
  rt.hdr.error_count = 0;
  auto route = [&](uint32_t seq, bool tlv) {
    rt.hdr.seq = seq;
    return wire(RTS_T_ROUTE, &rt, tlv, nullptr);
  };
  std::vector<uint8_t> batch;
  for (uint32_t seq = 3; seq <= 5; seq++) {
    bd.hdr.seq = seq;
    bd.bdm_index = static_cast<uint16_t>(seq - 2);
    auto m = wire(RTS_T_BRIDGE_DOMAIN, &bd, seq != 4, nullptr);
    batch.insert(batch.end(), m.begin(), m.end());
  }
  std::vector<uint8_t> stats = raw_stats(2);
  write(dirs, "answers", Queue(0, 0).add(route(1, true)).add(stats).add(batch).b);
  write(dirs, "stale-first", Queue(0, 0).add(route(0, false)).add(route(1, false)).add(batch).add(stats).b);
  write(dirs, "batch-refused-all-accepted", Queue(3, 3).add(batch).b);
  write(dirs, "batch-refused-after-one", Queue(1, 1).add(batch).b);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  std::vector<std::string> dirs(argv + (argc > 1 ? 2 : 1), argv + argc);
  if ((mode != "messages" && mode != "records") || dirs.empty()) {
    fprintf(stderr, "usage: rtsock_fuzz_seeds messages|records FOLDER...\n");
    return 2;
  }
  samples::AllSamples all;
  rts_err_rec err{RTS_T_ROUTE, RTS_OP_ADD, 17, 3, "route exists"};
  std::vector<samples::Sample> list = all.list();
  all.nop.errors = all.rt.hdr.errors = &err;
  all.nop.error_count = all.rt.hdr.error_count = 1;
  rts_msg_hdr &nop = all.nop;
  if (mode == "records") return records(dirs, all.rt, all.bd);
  for (const samples::Sample &s : list) {
    const rts_struct *layout = rts_type_struct(s.type);
    write(dirs, std::string(s.name) + "-idr", wire(s.type, s.record, false, nullptr));
    write(dirs, std::string(s.name) + "-tlv", wire(s.type, s.record, true, nullptr));
    // Every other field, the header among them.
    std::vector<uint8_t> mask(layout->rs_mask_size, 0);
    rts_mask_set_all(layout, mask.data());
    uint64_t top;
    memcpy(&top, mask.data(), 8);
    top &= 0x5555555555555555ull;
    memcpy(mask.data(), &top, 8);
    write(dirs, std::string(s.name) + "-tlv-part", wire(s.type, s.record, true, mask.data()));
  }
  // Types the codecs do not know, and a raw record.
  write(dirs, "ifdstats-envelope", wire(RTS_T_IFDSTATS, &nop, false, nullptr));
  write(dirs, "type-109-envelope", wire(109, &nop, true, nullptr));
  write(dirs, "ifdstats-raw", raw_stats(9));
  return 0;
}
