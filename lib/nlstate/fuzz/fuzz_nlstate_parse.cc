// Any bytes as one rtnetlink message (its length the input's): parsed, and
// applied to a state that already holds a bridge with a VXLAN device, so that
// the bridge-domain view is walked over whatever the message made.
#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "nlstate/nlstate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < sizeof(nlmsghdr) || size > 65536) return 0;
  std::vector<uint32_t> buf((size + 3) / 4);  // aligned as a socket buffer is
  memcpy(buf.data(), data, size);
  auto *nlh = reinterpret_cast<nlmsghdr *>(buf.data());
  nlh->nlmsg_len = static_cast<uint32_t>(size);
  nlstate::State st;
  nlstate::Event e{};
  e.kind = nlstate::Kind::kLink;
  e.link.ifindex = 2;
  e.link.name = "br0";
  e.link.kind = "bridge";
  st.apply(e);
  e.link.ifindex = 3;
  e.link.name = "vx0";
  e.link.kind = "vxlan";
  e.link.master = 2;
  e.link.has_vni = true;
  st.apply(e);
  nlstate::Event ev{};
  if (nlstate::parse(nlh, &ev) != 1) return 0;
  st.apply(ev);
  unsigned domains = 0;
  for (auto &[ix, l] : st.links())
    if (nlstate::vxlan_of(st, ix)) domains += nlstate::table_of(st, l);
  // Keeps the walk: an empty asm that reads the count.
  asm volatile("" : : "r"(domains));
  return 0;
}
