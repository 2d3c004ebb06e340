// rtsockd's Linux backend: the kernel's own links, addresses, VXLAN devices,
// bridges and bridge forwarding entries (nlstate) as the peer's objects, kept
// equal to them change by change.
//
//   link            ifd and ifl of the same index, unit 0, iff for families 2
//                   and 28; the loopback answers as "lo0"
//   address         ifa on the link's ifl: local/32 (/128), dest the subnet
//                   (or the peer of a point-to-point address), bcast
//   bridge holding  bd: index and name the bridge's, vnid and udp_port the
//   a VXLAN device  VXLAN device's, rtb_id the table of the bridge's VRF, else
//                   nlstate::kDefaultTable (254); cfg_flags 0x800
//   forwarding      mac route of family 63 in the bd's table, for every entry
//   entry           on the bridge, on a port of it or on its VXLAN device
//   VRF             rttable of families 2, 28 and 63 under its table id, named
//                   NAME.inet, NAME.inet6, NAME.bridge; beside default.inet and
//                   default.inet6 (0) and default.bridge (254)
//
// Devices whose index does not fit the record (an ifd index above 65535, a bd
// index likewise, a VRF table above 65535) are left out.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "nlstate/nlstate.h"
#include "peer.h"

namespace rtsockd {

class LinuxMirror {
 public:
  // Applies one change to the store and tells the listeners; 0 or the
  // store's errno. A deletion is given the object as it was.
  using Publish = std::function<int(uint8_t op, std::unique_ptr<Object> obj)>;

  LinuxMirror(const Store &store, Publish publish) : store_(store), publish_(std::move(publish)) {}

  // Every object again from the facts: what the store holds and is no longer
  // wanted is deleted (at start, and after the kernel dropped events). Routes
  // of other families than 63 are left alone.
  void full(const nlstate::State &st);
  // One change, already applied to st.
  void changed(const nlstate::State &st, const nlstate::Change &c);

  // The bridge domain (a bridge's index) that a port's forwarding entries
  // belong to, or 0.
  static int bd_of_port(const nlstate::State &st, int ifindex);

 private:
  void sync(uint32_t type, const std::string &key, std::unique_ptr<Object> want);
  void sync_link(const nlstate::State &st, int ifindex);
  void sync_addr(const nlstate::State &st, const nlstate::AddrKey &key);
  void sync_bd(const nlstate::State &st, int bridge);
  void sync_route(const nlstate::State &st, int bridge, const uint8_t mac[6]);
  void sync_tables(const nlstate::State &st);
  void link_changed(const nlstate::State &st, const nlstate::Change &c);

  const Store &store_;
  Publish publish_;
};

}  // namespace rtsockd
