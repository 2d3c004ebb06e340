// The answers of fdblearnd --linux, from kernel facts as rtnetlink tells them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include "events.h"
#include "linux.h"

namespace {

using nlstate::Event;

struct Kernel {
  nlstate::State st;
  void link(int ix, const std::string &name, const std::string &kind, int master = 0, uint32_t vni = 0,
            const char *remote = nullptr) {
    Event e = nlstate::test::link_event(ix, name, kind, master, vni);
    if (remote) {
      inet_pton(AF_INET, remote, e.link.remote);
      e.link.remote_len = 4;
    }
    st.apply(e);
  }
  void fdb(int ix, const char *dst) {
    Event e{};
    e.kind = nlstate::Kind::kFdb;
    e.fdb.ifindex = ix;
    e.fdb.flags = NTF_SELF;
    inet_pton(AF_INET, dst, e.fdb.dst);
    e.fdb.dst_len = 4;
    st.apply(e);
  }
  std::string ask(uint32_t rtb, uint32_t vni, const char *vtep = nullptr) const {
    in_addr a{};
    if (vtep) inet_pton(AF_INET, vtep, &a);
    return fdblearnd::answer(fdblearnd::from_kernel(st),
                             std::to_string(rtb) + "/" + std::to_string(vni) + "/0/" + std::to_string(a.s_addr));
  }
};

}  // namespace

TEST(FdblearndLinux, BridgeNameAndVxlanDeviceByVniAndTable) {
  Kernel k;
  k.link(5, "br0", "bridge");
  k.link(7, "vx100", "vxlan", 5, 100);
  k.link(8, "vx200", "vxlan", 0, 200);  // in no bridge: no bridge domain
  EXPECT_EQ(k.ask(0, 100), "br0/7");
  EXPECT_EQ(k.ask(254, 100), "br0/7");
  EXPECT_EQ(k.ask(7, 100), "");
  EXPECT_EQ(k.ask(0, 200), "");
  EXPECT_EQ(k.ask(0, 100, "192.0.2.9"), "br0/7");  // any VTEP
  // In a VRF, the VRF's table.
  k.link(4, "blue", "vrf", 0, 10);
  k.link(5, "br0", "bridge", 4);
  EXPECT_EQ(k.ask(10, 100), "br0/7");
  EXPECT_EQ(k.ask(254, 100), "");
}

TEST(FdblearndLinux, AVtepAskedForFindsTheDeviceThatKnowsIt) {
  Kernel k;
  k.link(5, "br-a", "bridge");
  k.link(6, "br-b", "bridge");
  k.link(7, "vxa", "vxlan", 5, 100);
  k.link(8, "vxb", "vxlan", 6, 100, "198.51.100.2");
  k.fdb(7, "192.0.2.9");
  EXPECT_EQ(k.ask(0, 100, "198.51.100.2"), "br-b/8");
  EXPECT_EQ(k.ask(0, 100, "192.0.2.9"), "br-a/7");
  EXPECT_EQ(k.ask(0, 100), "br-a/7");  // the first bridge domain of that VNI
}
