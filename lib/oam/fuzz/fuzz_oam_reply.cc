// The ping command's readers of what the network sends it: the datagram on
// its raw reply socket, the echo reply in it and the ICMP error on its ICMP
// socket. Neither may read past
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
  in_addr from;
  const uint8_t *payload;
  size_t len;
  if (ping_udp_payload(data, size, src, &from, &payload, &len)) ping_reply_parse(payload, len, &r);
  return 0;
}
