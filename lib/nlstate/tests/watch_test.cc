// The rtnetlink sockets against the real kernel, in a private network
// namespace (root): what a dump finds, events that follow, and an overrun.
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "nlstate/nlstate.h"

namespace {

class Watch : public ::testing::Test {
 protected:
  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "needs root for a private network namespace";
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    ASSERT_EQ(system("ip link set lo up"), 0);
  }
  static bool sh(const char *cmd) { return system(cmd) == 0; }
  // Reads events into st until done(st) holds; false after 5 s without an event.
  template <class Done>
  bool follow(nlstate::Watch &w, nlstate::State &st, Done done) {
    while (!done(st)) {
      pollfd p{w.fd(), POLLIN, 0};
      if (poll(&p, 1, 5000) != 1) return false;
      if (w.read([&](const nlstate::Event &e) { st.apply(e); }) != 0) return false;
    }
    return true;
  }
  static const nlstate::Link *named(const nlstate::State &st, const std::string &name) {
    for (auto &[ix, l] : st.links())
      if (l.name == name) return &l;
    return nullptr;
  }
};

}  // namespace

TEST_F(Watch, ADumpFindsBridgesVxlanEntriesAndAddressesAndEventsFollow) {
  if (!sh("ip link add vx0 type vxlan id 100 dstport 4789 local 192.0.2.1 2>/dev/null"))
    GTEST_SKIP() << "no VXLAN devices here";
  ASSERT_TRUE(sh("ip link add br0 type bridge && ip link set vx0 master br0 && ip link set vx0 up && "
                 "ip link set br0 up && ip addr add 10.0.0.1/24 dev br0 && "
                 "bridge fdb add 00:11:22:33:44:55 dev vx0 dst 192.0.2.9 && "
                 "bridge fdb add 00:11:22:33:44:66 dev vx0 master static"));
  nlstate::Watch w;
  ASSERT_EQ(w.open(), 0);
  nlstate::State st;
  ASSERT_EQ(w.dump([&](const nlstate::Event &e) { st.apply(e); }), 0);
  const nlstate::Link *lo = named(st, "lo"), *br = named(st, "br0"), *vx = named(st, "vx0");
  ASSERT_TRUE(lo && br && vx);
  EXPECT_TRUE(lo->loopback);
  EXPECT_EQ(br->kind, "bridge");
  EXPECT_EQ(vx->kind, "vxlan");
  EXPECT_TRUE(vx->has_vni);
  EXPECT_EQ(vx->vni, 100u);
  EXPECT_EQ(vx->port, 4789);
  EXPECT_EQ(vx->master, br->ifindex);
  ASSERT_EQ(vx->local_len, 4);
  EXPECT_EQ(vx->local[0], 192);
  EXPECT_EQ(st.members(br->ifindex).count(vx->ifindex), 1u);
  EXPECT_EQ(nlstate::vxlan_of(st, br->ifindex), vx);
  EXPECT_EQ(nlstate::table_of(st, *br), nlstate::kDefaultTable);
  const uint8_t remote[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55}, local[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x66};
  auto remote_fdb = st.fdbs_of(vx->ifindex, remote);
  ASSERT_EQ(remote_fdb.size(), 1u);
  EXPECT_EQ(remote_fdb[0]->dst_len, 4);
  EXPECT_EQ(remote_fdb[0]->dst[3], 9);
  EXPECT_EQ(st.fdbs_of(vx->ifindex, local).size(), 1u);
  bool has_addr = false;
  for (auto &[k, a] : st.addrs())
    has_addr |= a.ifindex == br->ifindex && a.family == 2 && a.local[0] == 10 && a.prefixlen == 24;
  EXPECT_TRUE(has_addr);

  const int vx_index = vx->ifindex, br_index = br->ifindex;
  ASSERT_TRUE(sh("bridge fdb del 00:11:22:33:44:66 dev vx0 master"));
  ASSERT_TRUE(follow(w, st, [&](const nlstate::State &s) { return s.fdbs_of(vx_index, local).empty(); }));
  // Leaving the bridge is no deletion of the device (the bridge's own
  // message of the port says "deleted").
  ASSERT_TRUE(sh("ip link set vx0 nomaster"));
  ASSERT_TRUE(follow(w, st, [&](const nlstate::State &s) { return !s.link(vx_index) || !s.link(vx_index)->master; }));
  ASSERT_NE(st.link(vx_index), nullptr);
  EXPECT_TRUE(st.members(br_index).empty());
  ASSERT_TRUE(sh("ip link del vx0"));
  ASSERT_TRUE(follow(w, st, [&](const nlstate::State &s) { return !s.link(vx_index); }));
  EXPECT_TRUE(st.fdbs_of(vx_index).empty());
}

TEST_F(Watch, AnOverrunIsToldAndADumpCatchesUp) {
  nlstate::Watch w;
  ASSERT_EQ(w.open(4096), 0);  // the smallest buffer the kernel gives
  std::string batch = "/tmp/nlstate_watch_batch." + std::to_string(getpid());
  {
    std::ofstream b(batch);
    for (int i = 0; i < 300; i++) b << "link add d" << i << " type bridge\n";
  }
  if (!sh(("ip -batch " + batch + " 2>/dev/null").c_str())) {
    unlink(batch.c_str());
    GTEST_SKIP() << "cannot make bridges here";
  }
  unlink(batch.c_str());
  nlstate::State st;
  int err = 0;
  for (int reads = 0; reads < 10000 && err == 0; reads++) {
    pollfd p{w.fd(), POLLIN, 0};
    if (poll(&p, 1, 0) != 1) break;
    err = w.read([&](const nlstate::Event &e) { st.apply(e); });
  }
  EXPECT_EQ(err, ENOBUFS);
  EXPECT_LT(st.links().size(), 300u);
  nlstate::State fresh;
  ASSERT_EQ(w.dump([&](const nlstate::Event &e) { fresh.apply(e); }), 0);
  EXPECT_EQ(fresh.links().size(), 301u);  // and lo
}
