// The ping command's readers of what the network sends it: the echo reply on
// its UDP socket and the ICMP error on its raw socket. Neither may read past
// the packet, whatever it holds.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>

#include "oam/oam.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ping_reply r;
  ping_reply_parse(data, size, &r);
  in_addr src;
  src.s_addr = htonl(0xC0000202);  // 192.0.2.2, as in the seeds
  uint8_t type, code;
  ping_icmp_parse(data, size, src, &type, &code, &r);
  return 0;
}
