// rtsockd's handling of a client's record on any bytes: the framing of
// envelopes (one, or many back to back in bulk mode), raw records, and what
// the stores answer. The first byte picks the mode. A refused record outside
// bulk mode brings no reply; notifications are drained from the client's end
// of a socket pair.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "server.h"

using namespace rtsockd;

namespace {

const char *const kState[] = {
    "rttable af=63 index=7 name=vs1.bridge",
    "ifd index=2 name=ge-0/0/0 snmp_index=501 mtu=1514",
    "ifl index=71 ifd_index=2 unit=0 name=ge-0/0/0 snmp_index=502",
    "iff ifl_index=71 af=2 name=ge-0/0/0.0 mtu=1500",
    "ifa ifl_index=71 af=2 local=192.0.2.1/32 dest=192.0.2.0/24",
    "bd index=5 rtb_id=7 name=bd5 vnid=100 cfg_flags=0x800 vlan.vlan=10",
    "mac rtb=7 bd=5 addr=00:11:22:33:44:55 nh_index=1001",
    "route table=0 af=2 prefix=10.0.0.0/8 type=2 nh_index=2",
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxRecord + 1) return 0;
  Store store;
  for (const char *line : kState) {
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    if (!parse_object(line, &type, &obj, &why) || store.apply(RTS_OP_ADD, type, obj->rec())) abort();
  }
  std::string why;
  if (!store.counters.set("ifdstats index=2 ibytes=5 base.ibytes=1 queue.0.tx_packets=3 mac.in_frames=1 link.speed=1",
                          false, &why))
    abort();
  Server server(store, "/nonexistent/rtsock");
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) != 0) abort();
  Client c;
  c.id = 1;
  c.data = sv[0];
  c.hello = true;
  c.sync_mode = data[0] & 1;
  std::vector<uint8_t> replies;
  int verdict = server.record(c, data + 1, size - 1, &replies);
  if (verdict && !(c.sync_mode & 1) && !replies.empty()) {
    std::fprintf(stderr, "verdict %d with %zu bytes of replies\n", verdict, replies.size());
    abort();
  }
  if (verdict < 0 || verdict > 4095) {
    std::fprintf(stderr, "verdict %d is no errno\n", verdict);
    abort();
  }
  if (c.bulk[1] > c.bulk[2]) {
    std::fprintf(stderr, "%u accepted of %u\n", c.bulk[1], c.bulk[2]);
    abort();
  }
  static uint8_t buf[1 << 16];
  while (recv(sv[1], buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
  close(sv[0]);
  close(sv[1]);
  return 0;
}
