// The answering side's entries from the kernel's VXLAN devices in bridges.
#include "linux.h"

#include <cstring>
#include <set>
#include <utility>

namespace fdblearnd {

namespace {

// A unicast IPv4 address as the query carries it (s_addr), 0 for others.
uint32_t unicast_v4(const uint8_t *addr, uint8_t len) {
  if (len != 4 || (addr[0] & 0xF0) == 0xE0) return 0;
  uint32_t v;
  memcpy(&v, addr, 4);
  return v;
}

}  // namespace

// The entries naming a VTEP come first, so that a question naming one finds
// the device that knows it before any device that takes any VTEP.
State from_kernel(const nlstate::State &kernel) {
  State out, any;
  for (auto &[ix, bridge] : kernel.links()) {
    const nlstate::Link *vx = nlstate::vxlan_of(kernel, ix);
    if (!vx) continue;
    Entry e{nlstate::table_of(kernel, bridge), vx->vni, 0, bridge.name, static_cast<uint32_t>(vx->ifindex)};
    std::set<uint32_t> remotes;
    if (uint32_t r = unicast_v4(vx->remote, vx->remote_len)) remotes.insert(r);
    for (const nlstate::Fdb *f : kernel.fdbs_of(vx->ifindex))
      if (uint32_t r = unicast_v4(f->dst, f->dst_len)) remotes.insert(r);
    for (uint32_t r : remotes) {
      e.vtep = r;
      out.entries.push_back(e);
    }
    e.vtep = 0;
    any.entries.push_back(e);
  }
  out.entries.insert(out.entries.end(), any.entries.begin(), any.entries.end());
  return out;
}

}  // namespace fdblearnd
