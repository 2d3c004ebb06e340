// rtnetlink messages built as the kernel lays them out, read back as events.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <vector>

#include "nlstate/nlstate.h"

using nlstate::Event;
using nlstate::Kind;

namespace {

struct Msg {
  std::vector<char> buf = std::vector<char>(8192);
  nlmsghdr *nlh;
  explicit Msg(uint16_t type) {
    nlh = mnl_nlmsg_put_header(buf.data());
    nlh->nlmsg_type = type;
  }
  template <class T>
  T *head() {
    return static_cast<T *>(mnl_nlmsg_put_extra_header(nlh, sizeof(T)));
  }
};

Msg vxlan_link(uint16_t type, uint8_t family, bool external) {
  Msg m(type);
  auto *ifi = m.head<ifinfomsg>();
  ifi->ifi_family = family;
  ifi->ifi_index = 7;
  ifi->ifi_type = ARPHRD_ETHER;
  ifi->ifi_flags = IFF_UP;
  mnl_attr_put_strz(m.nlh, IFLA_IFNAME, "vx100");
  mnl_attr_put_u32(m.nlh, IFLA_MTU, 1450);
  mnl_attr_put_u32(m.nlh, IFLA_MASTER, 5);
  const uint8_t mac[6] = {2, 0, 0, 0, 0, 7};
  mnl_attr_put(m.nlh, IFLA_ADDRESS, 6, mac);
  nlattr *info = mnl_attr_nest_start(m.nlh, IFLA_LINKINFO);
  mnl_attr_put_strz(m.nlh, IFLA_INFO_KIND, "vxlan");
  nlattr *data = mnl_attr_nest_start(m.nlh, IFLA_INFO_DATA);
  mnl_attr_put_u32(m.nlh, IFLA_VXLAN_ID, 100);
  mnl_attr_put_u16(m.nlh, IFLA_VXLAN_PORT, htons(4789));
  in_addr local{htonl(0xC0000201)};
  mnl_attr_put(m.nlh, IFLA_VXLAN_LOCAL, 4, &local);
  mnl_attr_put_u32(m.nlh, IFLA_VXLAN_LINK, 3);
  if (external) mnl_attr_put_u8(m.nlh, IFLA_VXLAN_COLLECT_METADATA, 1);
  mnl_attr_nest_end(m.nlh, data);
  mnl_attr_nest_end(m.nlh, info);
  return m;
}

}  // namespace

TEST(Parse, VxlanLinkWithItsInfo) {
  Msg m = vxlan_link(RTM_NEWLINK, AF_UNSPEC, false);
  Event ev{};
  ASSERT_EQ(nlstate::parse(m.nlh, &ev), 1);
  EXPECT_EQ(ev.kind, Kind::kLink);
  EXPECT_FALSE(ev.removed);
  const nlstate::Link &l = ev.link;
  EXPECT_EQ(l.ifindex, 7);
  EXPECT_EQ(l.name, "vx100");
  EXPECT_EQ(l.kind, "vxlan");
  EXPECT_EQ(l.mtu, 1450u);
  EXPECT_EQ(l.master, 5);
  EXPECT_TRUE(l.has_mac);
  EXPECT_EQ(l.mac[5], 7);
  EXPECT_TRUE(l.has_vni);
  EXPECT_EQ(l.vni, 100u);
  EXPECT_EQ(l.port, 4789);  // the kernel gives it in network order
  ASSERT_EQ(l.local_len, 4);
  EXPECT_EQ(l.local[0], 192);
  EXPECT_EQ(l.local[3], 1);
  EXPECT_EQ(l.lower, 3);
  EXPECT_FALSE(l.loopback);
}

TEST(Parse, SkipsWhatIsNotOurs) {
  // A collect-metadata device has no VNI of its own.
  Msg ext = vxlan_link(RTM_NEWLINK, AF_UNSPEC, true);
  Event ev{};
  ASSERT_EQ(nlstate::parse(ext.nlh, &ev), 1);
  EXPECT_FALSE(ev.link.has_vni);
  // The bridge's per-port message on leaving it is no deletion of the device.
  Msg port = vxlan_link(RTM_DELLINK, AF_BRIDGE, false);
  EXPECT_EQ(nlstate::parse(port.nlh, &ev), 0);
  // ARP neighbours.
  Msg arp(RTM_NEWNEIGH);
  arp.head<ndmsg>()->ndm_family = AF_INET;
  EXPECT_EQ(nlstate::parse(arp.nlh, &ev), 0);
  Msg route(RTM_NEWROUTE);
  route.head<rtmsg>();
  EXPECT_EQ(nlstate::parse(route.nlh, &ev), 0);
}

TEST(Parse, MalformedMessagesAreRefused) {
  Msg shortl(RTM_NEWLINK);  // no ifinfomsg
  Event ev{};
  EXPECT_EQ(nlstate::parse(shortl.nlh, &ev), -1);
  Msg nomac(RTM_NEWNEIGH);
  auto *nd = nomac.head<ndmsg>();
  nd->ndm_family = AF_BRIDGE;
  nd->ndm_ifindex = 4;
  const uint8_t half[3] = {1, 2, 3};
  mnl_attr_put(nomac.nlh, NDA_LLADDR, 3, half);
  EXPECT_EQ(nlstate::parse(nomac.nlh, &ev), -1);
  Msg noaddr(RTM_NEWADDR);
  noaddr.head<ifaddrmsg>()->ifa_family = AF_INET;
  EXPECT_EQ(nlstate::parse(noaddr.nlh, &ev), -1);
  // An attribute whose length runs past the message is not read (the walk
  // ends there): the link comes without the information it would carry.
  Msg cut = vxlan_link(RTM_NEWLINK, AF_UNSPEC, false);
  cut.nlh->nlmsg_len -= 6;
  ASSERT_EQ(nlstate::parse(cut.nlh, &ev), 1);
  EXPECT_EQ(ev.link.name, "vx100");
  EXPECT_FALSE(ev.link.has_vni);
}

TEST(Parse, Addresses) {
  // IPv4: IFA_LOCAL is the address; IFA_ADDRESS the same, or the peer.
  for (bool p2p : {false, true}) {
    Msg m(RTM_NEWADDR);
    auto *ifa = m.head<ifaddrmsg>();
    ifa->ifa_family = AF_INET;
    ifa->ifa_prefixlen = 24;
    ifa->ifa_index = 3;
    in_addr local{htonl(0xC0000201)}, peer{htonl(p2p ? 0xC0000202 : 0xC0000201)}, bcast{htonl(0xC00002FF)};
    mnl_attr_put(m.nlh, IFA_ADDRESS, 4, &peer);
    mnl_attr_put(m.nlh, IFA_LOCAL, 4, &local);
    mnl_attr_put(m.nlh, IFA_BROADCAST, 4, &bcast);
    Event ev{};
    ASSERT_EQ(nlstate::parse(m.nlh, &ev), 1);
    EXPECT_EQ(ev.addr.ifindex, 3);
    EXPECT_EQ(ev.addr.prefixlen, 24);
    EXPECT_EQ(ev.addr.local[3], 1);
    EXPECT_EQ(ev.addr.has_peer, p2p);
    if (p2p) {
      EXPECT_EQ(ev.addr.peer[3], 2);
    }
    EXPECT_TRUE(ev.addr.has_bcast);
    EXPECT_EQ(ev.addr.bcast[3], 0xFF);
  }
  // IPv6: only IFA_ADDRESS.
  Msg m(RTM_DELADDR);
  auto *ifa = m.head<ifaddrmsg>();
  ifa->ifa_family = AF_INET6;
  ifa->ifa_prefixlen = 64;
  ifa->ifa_index = 1;
  in6_addr a6{};
  inet_pton(AF_INET6, "2001:db8::1", &a6);
  mnl_attr_put(m.nlh, IFA_ADDRESS, 16, &a6);
  Event ev{};
  ASSERT_EQ(nlstate::parse(m.nlh, &ev), 1);
  EXPECT_TRUE(ev.removed);
  EXPECT_EQ(memcmp(ev.addr.local, &a6, 16), 0);
  EXPECT_FALSE(ev.addr.has_peer);
}

TEST(Parse, ForwardingEntry) {
  Msg m(RTM_NEWNEIGH);
  auto *nd = m.head<ndmsg>();
  nd->ndm_family = AF_BRIDGE;
  nd->ndm_ifindex = 7;
  nd->ndm_flags = NTF_SELF;
  nd->ndm_state = NUD_PERMANENT;
  const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  mnl_attr_put(m.nlh, NDA_LLADDR, 6, mac);
  in_addr dst{htonl(0xC0000209)};
  mnl_attr_put(m.nlh, NDA_DST, 4, &dst);
  mnl_attr_put_u16(m.nlh, NDA_VLAN, 10);
  mnl_attr_put_u32(m.nlh, NDA_MASTER, 5);
  Event ev{};
  ASSERT_EQ(nlstate::parse(m.nlh, &ev), 1);
  EXPECT_EQ(ev.kind, Kind::kFdb);
  EXPECT_EQ(ev.fdb.ifindex, 7);
  EXPECT_EQ(memcmp(ev.fdb.mac, mac, 6), 0);
  EXPECT_EQ(ev.fdb.dst_len, 4);
  EXPECT_EQ(ev.fdb.dst[3], 9);
  EXPECT_EQ(ev.fdb.vlan, 10);
  EXPECT_EQ(ev.fdb.master, 5);
  EXPECT_EQ(ev.fdb.flags, NTF_SELF);
}
