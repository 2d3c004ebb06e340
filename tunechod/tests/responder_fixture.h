// A responder in a private network namespace (root only): the raw send
// socket, a raw receive socket that sees every UDP packet on the loopback,
// and the real rtsockd and fdblearnd with small states under the test root.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "fixture.h"

class Responder : public Tunechod {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts rtsockd on this state (objects, one a line) and opens the handle.
  void start_rtsockd(const std::string &state);
  void start_fdblearnd(const std::string &state);
  // The next UDP packet seen on the loopback, IP header first; empty when none.
  std::vector<uint8_t> next_packet();

  // A request as the ping command sends it, UDP payload only: VXLAN flags,
  // inner IPv4 or IPv6, echo header, TLV with a MAC sub-TLV.
  static std::vector<uint8_t> request(uint32_t vni, bool inner_v4 = true, const uint8_t *mac = nullptr);
  // Hands a datagram to the receive path as from 127.0.0.1:port to dst:4789.
  int handle(const std::vector<uint8_t> &req, const char *dst = "127.0.0.1", uint32_t rtb = 0, uint32_t ifl = 0,
             bool through_recv = false);

  int raw_ = -1;
  int sniff_ = -1;
  std::vector<pid_t> children_;
};

uint16_t get16(const uint8_t *p);
uint32_t get32(const uint8_t *p);
