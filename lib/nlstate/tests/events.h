// Events as rtnetlink gives them, for the tests of nlstate and of the
// backends built on it.
#pragma once

#include <linux/if.h>

#include <cstring>
#include <string>

#include "nlstate/nlstate.h"

namespace nlstate::test {

// A link, up, MTU 1500; a VXLAN device with vni has it (port 4789), a VRF
// takes vni as its table.
inline Event link_event(int ix, const std::string &name, const std::string &kind = "", int master = 0,
                        uint32_t vni = 0, bool removed = false) {
  Event e{};
  e.kind = Kind::kLink;
  e.removed = removed;
  e.link.ifindex = ix;
  e.link.name = name;
  e.link.kind = kind;
  e.link.master = master;
  e.link.mtu = 1500;
  e.link.flags = IFF_UP;
  e.link.loopback = name == "lo";
  if (kind == "vxlan" && vni) {
    e.link.has_vni = true;
    e.link.vni = vni;
    e.link.port = 4789;
  }
  if (kind == "vrf") e.link.vrf_table = vni;
  return e;
}

// A forwarding entry of MAC 00:11:22:33:44:last.
inline Event fdb_event(int ix, uint8_t last, uint8_t flags, bool removed = false) {
  Event e{};
  e.kind = Kind::kFdb;
  e.removed = removed;
  e.fdb.ifindex = ix;
  e.fdb.flags = flags;
  const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, last};
  memcpy(e.fdb.mac, mac, 6);
  return e;
}

inline Event addr_event(int ix, uint8_t family, const uint8_t *local, uint8_t plen, bool removed = false) {
  Event e{};
  e.kind = Kind::kAddr;
  e.removed = removed;
  e.addr.ifindex = ix;
  e.addr.family = family;
  e.addr.prefixlen = plen;
  memcpy(e.addr.local, local, family == 2 ? 4 : 16);
  return e;
}

}  // namespace nlstate::test
