// cntd's request parser and reply builder on any bytes. The first byte is the
// ipcconn subtype's low byte (0: take the payload's own type); the rest is the
// payload. A request answered must give a reply that libstats reads whole,
// whose TLVs convert; a second pass checks that the faults leave it sound too.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "service.h"
#include "stats/libstats.h"

namespace {

cntd::Service *service() {
  static cntd::Service *s = [] {
    auto *n = new cntd::Service;
    std::string why;
    n->counters.set("iflstats index=1 ibytes=5 base.ibytes=2 queue.3.tx_packets=1 voq.0.tx_bytes=9 mac.in_frames=1 "
                    "link.speed=10",
                    false, &why);
    return n;
  }();
  return s;
}

void check(const std::vector<uint8_t> &reply) {
  ls_reply r;
  libstats_ifl_figures f;
  if (!ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r) ||
      libstats_iflstats_full_convert_from_tlvs_to_iflsm(r.tlv, r.tlv_len, &f) != 0) {
    fprintf(stderr, "a reply libstats cannot read\n");
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > LS_MSG_MAX) return 0;
  cntd::Service *s = service();
  const uint8_t *p = data + 1;
  uint32_t n = static_cast<uint32_t>(size - 1);
  uint32_t subtype = data[0] ? data[0] : (n >= 12 ? ls_get32(p + 8) : 0);
  for (int round = 0; round < 2; round++) {
    s->faults = round ? cntd::Faults{5, false, false, false} : cntd::Faults{};
    std::vector<uint8_t> reply;
    if (s->request(subtype, p, n, 1, &reply) == cntd::Outcome::reply) check(reply);
  }
  return 0;
}
