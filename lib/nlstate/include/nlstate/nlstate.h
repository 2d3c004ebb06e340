// The Linux kernel's own interface state, read over rtnetlink with libmnl:
// links (with what a VXLAN, bridge or VRF device adds), addresses, and the
// bridge forwarding entries (family AF_BRIDGE neighbours). What the Linux
// backends of rtsockd and fdblearnd build on.
//
//   nlstate::Watch w;                      // subscribes, then dumps
//   nlstate::State st;
//   if (w.open() != 0) ...;                // errno
//   w.dump([&](const nlstate::Event &e) { st.apply(e); });
//   ... when w.fd() is readable:
//   int err = w.read([&](const nlstate::Event &e) { Change c = st.apply(e); ... });
//   if (err == ENOBUFS) ...                // events were lost: dump again into a new State
//
// Errors are errno values (0 for success). Messages of other families (a
// bridge port's AF_BRIDGE link messages, ARP and NDP neighbours) are skipped.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

struct nlmsghdr;

namespace nlstate {

// A network device. Fields of a kind the device is not are zero.
struct Link {
  int ifindex = 0;
  std::string name;
  std::string kind;  // "vxlan", "bridge", "vrf", "veth", ... or "" (no link info)
  unsigned flags = 0;  // IFF_*
  unsigned mtu = 0;
  int master = 0;  // the bridge or VRF it is enslaved to
  bool loopback = false;
  uint8_t mac[6] = {};
  bool has_mac = false;
  // VXLAN
  bool has_vni = false;  // false also for a collect-metadata (external) device
  uint32_t vni = 0;
  uint16_t port = 0;  // host order
  uint8_t local[16] = {};
  uint8_t local_len = 0;  // 4, 16, or 0 when none is set
  uint8_t remote[16] = {};
  uint8_t remote_len = 0;
  int lower = 0;  // the underlay device it is bound to, if any
  // Bridge
  uint32_t ageing = 0;  // seconds
  // VRF
  uint32_t vrf_table = 0;
  bool operator==(const Link &) const = default;
};

// An interface address. For IPv4, local is the address and address the peer
// (the same unless point-to-point); for IPv6 local is the address.
struct Addr {
  int ifindex = 0;
  uint8_t family = 0;  // AF_INET, AF_INET6
  uint8_t prefixlen = 0;
  uint8_t local[16] = {};
  uint8_t peer[16] = {};
  bool has_peer = false;  // a point-to-point address's other end
  uint8_t bcast[4] = {};
  bool has_bcast = false;
  bool operator==(const Addr &) const = default;
};

// One bridge forwarding entry, on a bridge port, on a bridge itself ("self"
// entries of the bridge device), or on a VXLAN device (its remote VTEP in dst).
struct Fdb {
  int ifindex = 0;
  uint8_t mac[6] = {};
  uint16_t vlan = 0;
  uint8_t flags = 0;   // NTF_*
  uint16_t state = 0;  // NUD_*
  int master = 0;      // the bridge, when the kernel names it
  uint8_t dst[16] = {};
  uint8_t dst_len = 0;  // 4, 16, or 0
  uint32_t vni = 0;
  bool operator==(const Fdb &) const = default;
};

enum class Kind { kLink, kAddr, kFdb };

struct Event {
  Kind kind;
  bool removed;  // RTM_DEL*
  Link link;
  Addr addr;
  Fdb fdb;
};

// One rtnetlink message as an event: 1 when it is one, 0 when it is of a kind
// or family skipped here, -1 when it is malformed.
int parse(const nlmsghdr *nlh, Event *ev);

// Keys: a link by its index; an address by (index, family, local, prefix
// length); a forwarding entry by (port, MAC, VLAN, self or master, remote).
using AddrKey = std::tuple<int, uint8_t, std::string, uint8_t>;
using FdbKey = std::tuple<int, std::string, uint16_t, uint8_t, std::string>;
AddrKey key_of(const Addr &a);
FdbKey key_of(const Fdb &f);
std::string mac_bytes(const uint8_t mac[6]);

// What apply changed: the object as it was (empty when new) and as it is
// (empty when gone); both empty when the event changed nothing. A link's
// removal takes its addresses and forwarding entries with it (listed in
// gone_*) whether or not the kernel says so.
struct Change {
  Kind kind = Kind::kLink;
  std::optional<Link> link_before, link_after;
  std::optional<Addr> addr_before, addr_after;
  std::optional<Fdb> fdb_before, fdb_after;
  std::vector<Addr> gone_addrs;
  std::vector<Fdb> gone_fdbs;
  bool changed() const {
    return link_before || link_after || addr_before || addr_after || fdb_before || fdb_after;
  }
};

// The facts, as the kernel last told them. An address or forwarding entry
// of a device not known (yet, or any more) is stale and changes nothing.
class State {
 public:
  Change apply(const Event &e);
  const Link *link(int ifindex) const;
  const std::map<int, Link> &links() const { return links_; }
  const std::map<AddrKey, Addr> &addrs() const { return addrs_; }
  const std::map<FdbKey, Fdb> &fdbs() const { return fdbs_; }
  // Devices enslaved to a master.
  const std::set<int> &members(int master) const;
  // The forwarding entries of one port for one MAC, in key order.
  std::vector<const Fdb *> fdbs_of(int ifindex, const uint8_t mac[6]) const;
  // All forwarding entries of one port.
  std::vector<const Fdb *> fdbs_of(int ifindex) const;

 private:
  std::map<int, Link> links_;
  std::map<int, std::set<int>> members_;
  std::map<AddrKey, Addr> addrs_;
  std::map<FdbKey, Fdb> fdbs_;
};

// The bridge-domain view that the backends share: a bridge holding a VXLAN
// device with a VNI of its own is a bridge domain, and its table is that of
// the VRF the bridge is enslaved to (1 to 65535), else kDefaultTable, Linux's
// main table (non-zero: a VNI walk skips table 0).
constexpr uint16_t kDefaultTable = 254;
// The VXLAN device that makes a bridge a bridge domain (the lowest index
// among several), or null when it is none.
const Link *vxlan_of(const State &st, int bridge);
uint16_t table_of(const State &st, const Link &bridge);

// The rtnetlink sockets: one subscribed to link, address and neighbour
// events, one for dumps. Subscribed before the dump, so that nothing that
// changes during the dump is missed; events met again after it converge.
class Watch {
 public:
  Watch() = default;
  Watch(const Watch &) = delete;
  Watch &operator=(const Watch &) = delete;
  ~Watch();
  // Room for a burst of events before the kernel drops any (4,000 devices
  // made at once, 10,000 forwarding entries); root may go past rmem_max.
  static constexpr int kEventBuffer = 32 << 20;
  int open(int event_buffer = kEventBuffer);
  int fd() const;
  // Links, then addresses, then forwarding entries.
  int dump(const std::function<void(const Event &)> &fn);
  // The events of one datagram, without blocking (call it each time fd() is
  // readable); ENOBUFS when the kernel dropped some (the caller dumps
  // again), else 0.
  int read(const std::function<void(const Event &)> &fn);

 private:
  struct mnl_socket *events_ = nullptr;
  struct mnl_socket *dumps_ = nullptr;
  unsigned seq_ = 0;
};

}  // namespace nlstate
