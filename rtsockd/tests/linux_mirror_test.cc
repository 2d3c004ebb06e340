// The Linux backend's mapping of kernel facts to objects, and the claim that
// following events one by one ends where a dump of the final state would.
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/neighbour.h>
#include <sys/socket.h>

#include <random>
#include <sstream>

#include "events.h"
#include "linux_mirror.h"

namespace {

using namespace rtsockd;
using nlstate::Event;
using nlstate::Kind;

// A store behind a mirror, with what was published, as "op line".
struct Peer {
  Store store;
  std::vector<std::string> told;
  LinuxMirror mirror{store, [this](uint8_t op, std::unique_ptr<Object> obj) {
                       told.push_back(std::string(rts_op_name(op)) + " " + print_object(obj->type, obj->rec()));
                       return store.apply(op, std::move(obj));
                     }};
  std::string show() const {
    std::ostringstream o;
    for (uint32_t t : {RTS_T_RTTABLE, RTS_T_ROUTE, RTS_T_IFDEV, RTS_T_IFLOGICAL, RTS_T_IFFAMILY, RTS_T_IFADDR,
                       RTS_T_BRIDGE_DOMAIN})
      for (auto &[k, obj] : store.table(t)) o << print_object(t, obj->rec()) << "\n";
    return o.str();
  }
  bool has(const std::string &line) const { return show().find(line + "\n") != std::string::npos; }
};

// The kernel as the tests tell it: facts, and each event's change followed.
struct Kernel {
  nlstate::State st;
  Peer peer;
  void apply(const Event &e) { peer.mirror.changed(st, st.apply(e)); }
  void link(int ix, const std::string &name, const std::string &kind, int master = 0, uint32_t vni = 0) {
    apply(nlstate::test::link_event(ix, name, kind, master, vni));
  }
  void unlink(int ix) { apply(nlstate::test::link_event(ix, "", "", 0, 0, true)); }
  void fdb(int ix, uint8_t last, bool removed = false, uint8_t flags = NTF_SELF) {
    apply(nlstate::test::fdb_event(ix, last, flags, removed));
  }
  void addr(int ix, uint8_t family, const uint8_t *local, uint8_t plen, const uint8_t *peer = nullptr,
            bool removed = false) {
    Event e = nlstate::test::addr_event(ix, family, local, plen, removed);
    if (peer) {
      e.addr.has_peer = true;
      memcpy(e.addr.peer, peer, 4);
    }
    apply(e);
  }
};

}  // namespace

TEST(LinuxMirror, BridgeWithVxlanIsABridgeDomainAndItsEntriesRoutes) {
  Kernel k;
  k.link(5, "br0", "bridge");
  k.link(6, "eth1", "veth", 5);
  k.fdb(6, 0x01, false, NTF_MASTER);
  EXPECT_EQ(k.peer.store.table(RTS_T_BRIDGE_DOMAIN).size(), 0u);  // no VXLAN device yet
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 0u);
  k.link(7, "vx100", "vxlan", 5, 100);
  EXPECT_TRUE(k.peer.has("bd index=5 rtb_id=254 name=br0 irb_ifl=5 cfg_flags=2048 vnid=100 vtep_src_ifl=7 "
                         "udp_port=4789 mtu=1500 ifl_count=2"))
      << k.peer.show();
  // The entry learnt before the bridge became a domain is there now.
  EXPECT_TRUE(k.peer.has("route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:01/80 ifl_index=6"));
  k.fdb(7, 0x02);  // on the VXLAN device
  k.fdb(5, 0x03);  // on the bridge itself
  EXPECT_TRUE(k.peer.has("route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:02/80 ifl_index=7"));
  EXPECT_TRUE(k.peer.has("route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:03/80 ifl_index=5"));
  // The all-zero MAC is a VXLAN device's default destination, no host.
  Event zero{};
  zero.kind = Kind::kFdb;
  zero.fdb.ifindex = 7;
  zero.fdb.dst_len = 4;
  k.apply(zero);
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 3u);
  k.fdb(7, 0x02, true);
  EXPECT_EQ(k.peer.told.back(),
            "delete route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:02/80 ifl_index=7");

  // The VXLAN device goes: the routes, then the bridge domain, then the device.
  k.peer.told.clear();
  k.unlink(7);
  ASSERT_GE(k.peer.told.size(), 4u);
  EXPECT_EQ(k.peer.told[0].rfind("delete route ", 0), 0u) << k.peer.told[0];
  EXPECT_EQ(k.peer.told[1].rfind("delete route ", 0), 0u) << k.peer.told[1];
  EXPECT_EQ(k.peer.told[2].rfind("delete bd index=5", 0), 0u) << k.peer.told[2];
  EXPECT_EQ(k.peer.told.back(), "delete ifd index=7 name=vx100 snmp_index=7 flags=1 mtu=1500");
  EXPECT_TRUE(k.peer.has("ifd index=5 name=br0 snmp_index=5 flags=1 mtu=1500"));
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 0u);
}

TEST(LinuxMirror, AMacOnTwoPortsStaysUntilBothLetGo) {
  Kernel k;
  k.link(5, "br0", "bridge");
  k.link(7, "vx100", "vxlan", 5, 100);
  k.link(8, "eth1", "veth", 5);
  k.fdb(8, 0x09, false, NTF_MASTER);
  k.fdb(7, 0x09);
  const std::string on7 = "route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:09/80 ifl_index=7";
  const std::string on8 = "route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:09/80 ifl_index=8";
  EXPECT_TRUE(k.peer.has(on7)) << k.peer.show();
  k.fdb(7, 0x09, true);
  EXPECT_TRUE(k.peer.has(on8)) << k.peer.show();
  EXPECT_EQ(k.peer.told.back(), "change " + on8);
  // The port leaves the bridge: its entries leave the domain with it.
  k.link(8, "eth1", "veth", 0);
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 0u);
}

TEST(LinuxMirror, NamesAddressesAndWhatDoesNotFit) {
  Kernel k;
  k.link(1, "lo", "");
  k.link(3, "eth0", "veth");
  const uint8_t lo[4] = {10, 255, 0, 1}, a[4] = {192, 0, 2, 1}, p2p[4] = {198, 51, 100, 9};
  uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8};
  v6[15] = 1;
  k.addr(1, AF_INET, lo, 32);
  k.addr(3, AF_INET, a, 24);
  k.addr(3, AF_INET6, v6, 64);
  k.addr(3, AF_INET, p2p, 32, lo);
  EXPECT_TRUE(k.peer.has("ifl ifd_index=1 index=1 name=lo0 snmp_index=1 flags=1")) << k.peer.show();
  EXPECT_TRUE(k.peer.has("iff ifl_index=1 af=2 mtu=1500 name=lo0.0"));
  EXPECT_TRUE(k.peer.has("ifa ifl_index=1 af=2 local=10.255.0.1/32"));
  EXPECT_TRUE(k.peer.has("ifa ifl_index=3 af=2 local=192.0.2.1/32 dest=192.0.2.0/24"));
  EXPECT_TRUE(k.peer.has("ifa ifl_index=3 af=28 local=2001:db8::1/128 dest=2001:db8::/64"));
  EXPECT_TRUE(k.peer.has("ifa ifl_index=3 af=2 local=198.51.100.9/32 dest=10.255.0.1/32"));
  k.addr(3, AF_INET, a, 24, nullptr, true);
  EXPECT_FALSE(k.peer.has("ifa ifl_index=3 af=2 local=192.0.2.1/32 dest=192.0.2.0/24"));
  // An index past the records' 16 bits is left out, and so is its domain.
  size_t before = k.peer.store.size();
  k.link(70000, "br9", "bridge");
  k.link(70001, "vx9", "vxlan", 70000, 900);
  EXPECT_EQ(k.peer.store.size(), before);
  // The device's removal takes its addresses even when the kernel does not say so.
  k.unlink(3);
  EXPECT_EQ(k.peer.store.table(RTS_T_IFADDR).size(), 1u) << k.peer.show();
}

TEST(LinuxMirror, VrfGivesTheTableOfItsBridges) {
  Kernel k;
  k.link(4, "blue", "vrf", 0, 10);
  k.link(5, "br0", "bridge", 4);
  k.link(7, "vx100", "vxlan", 5, 100);
  k.fdb(7, 0x01);
  EXPECT_TRUE(k.peer.has("rttable index=10 af=63 name=blue.bridge")) << k.peer.show();
  EXPECT_TRUE(k.peer.has("rttable index=10 af=2 name=blue.inet"));
  EXPECT_TRUE(k.peer.has("ifl ifd_index=5 index=5 name=br0 snmp_index=5 flags=1 rtb_id=10"));
  EXPECT_NE(k.peer.show().find("bd index=5 rtb_id=10 "), std::string::npos);
  EXPECT_TRUE(k.peer.has("route table=10 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:01/80 ifl_index=7"));
  // The bridge leaves the VRF: its domain and routes move to the default table.
  k.link(5, "br0", "bridge", 0);
  EXPECT_NE(k.peer.show().find("bd index=5 rtb_id=254 "), std::string::npos) << k.peer.show();
  EXPECT_TRUE(k.peer.has("route table=254 af=63 type=2 prefix=00:05:00:00:00:11:22:33:44:01/80 ifl_index=7"));
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 1u);
  k.unlink(4);
  EXPECT_FALSE(k.peer.has("rttable index=10 af=63 name=blue.bridge"));
}

// Random kernels changed by random events: the store followed event by event
// is the store a dump of the final state makes, and a dump of it again finds
// nothing to do.
TEST(LinuxMirror, FollowingEventsEndsWhereADumpWould) {
  for (unsigned seed = 1; seed <= 40; seed++) {
    std::mt19937 rng(seed);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    Kernel k;
    k.link(1, "lo", "");
    for (int step = 0; step < 300; step++) {
      const int ix = 2 + pick(10);
      switch (pick(6)) {
        case 0: k.link(ix, "br" + std::to_string(ix), "bridge", pick(3) ? 0 : 12); break;
        case 1: k.link(ix, "vx" + std::to_string(ix), "vxlan", pick(4) ? 2 + pick(10) : 0, 100 + pick(3)); break;
        case 2: k.link(ix, "eth" + std::to_string(ix), "veth", pick(2) ? 2 + pick(10) : 0); break;
        case 3: k.unlink(ix); break;
        case 4: k.fdb(ix, static_cast<uint8_t>(pick(5)), pick(3) == 0, pick(2) ? NTF_SELF : NTF_MASTER); break;
        case 5: {
          const uint8_t a[4] = {192, 0, 2, static_cast<uint8_t>(pick(4))};
          k.addr(ix, AF_INET, a, 24, nullptr, pick(2) == 0);
          break;
        }
      }
      if (step == 150) k.link(12, "red", "vrf", 0, 20);
    }
    Peer fresh;
    fresh.mirror.full(k.st);
    ASSERT_EQ(k.peer.show(), fresh.show()) << "seed " << seed;
    k.peer.told.clear();
    k.peer.mirror.full(k.st);
    EXPECT_TRUE(k.peer.told.empty()) << "seed " << seed << ": " << k.peer.told.front();
  }
}

TEST(LinuxMirror, ADumpRemovesWhatTheKernelNoLongerHas) {
  Kernel k;
  k.link(5, "br0", "bridge");
  k.link(7, "vx100", "vxlan", 5, 100);
  k.fdb(7, 0x01);
  const uint8_t a[4] = {192, 0, 2, 1};
  k.addr(7, AF_INET, a, 24);
  // Events were lost; the kernel now holds only the bridge.
  nlstate::State now;
  Event br{};
  br.kind = Kind::kLink;
  br.link = *k.st.link(5);
  now.apply(br);
  k.peer.mirror.full(now);
  EXPECT_EQ(k.peer.store.table(RTS_T_ROUTE).size(), 0u);
  EXPECT_EQ(k.peer.store.table(RTS_T_BRIDGE_DOMAIN).size(), 0u);
  EXPECT_EQ(k.peer.store.table(RTS_T_IFADDR).size(), 0u);
  EXPECT_EQ(k.peer.store.table(RTS_T_IFDEV).size(), 1u);
  EXPECT_EQ(k.peer.store.table(RTS_T_IFFAMILY).size(), 2u);
}
