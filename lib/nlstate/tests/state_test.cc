// The facts kept from events: what each one changed, memberships, and what a
// device's removal takes with it.
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include "events.h"

using namespace nlstate;

namespace {

Event link(int ix, const char *name, int master = 0, bool removed = false) {
  return test::link_event(ix, name, "", master, 0, removed);
}

Event fdb(int ix, uint8_t last, uint8_t flags, bool removed = false) { return test::fdb_event(ix, last, flags, removed); }

Event addr(int ix, uint8_t last, bool removed = false) {
  const uint8_t a[4] = {192, 0, 2, last};
  return test::addr_event(ix, 2, a, 24, removed);
}

}  // namespace

TEST(State, ChangesAreReportedOnceAndRepeatsAreNot) {
  State st;
  Change c = st.apply(link(3, "vx0"));
  EXPECT_FALSE(c.link_before);
  ASSERT_TRUE(c.link_after);
  // The same state again (a dump after an event) changes nothing.
  EXPECT_FALSE(st.apply(link(3, "vx0")).changed());
  c = st.apply(link(3, "vx1"));
  ASSERT_TRUE(c.link_before && c.link_after);
  EXPECT_EQ(c.link_before->name, "vx0");
  EXPECT_EQ(st.link(3)->name, "vx1");
  // Deleting what is not there is no change either.
  EXPECT_FALSE(st.apply(link(9, "x", 0, true)).changed());
  EXPECT_FALSE(st.apply(fdb(3, 1, NTF_SELF, true)).changed());
  EXPECT_FALSE(st.apply(addr(3, 1, true)).changed());
}

TEST(State, MembersFollowTheMaster) {
  State st;
  st.apply(link(5, "br0"));
  st.apply(link(6, "br1"));
  st.apply(link(3, "vx0", 5));
  st.apply(link(4, "eth0", 5));
  EXPECT_EQ(st.members(5), (std::set<int>{3, 4}));
  st.apply(link(3, "vx0", 6));  // moved to another bridge
  EXPECT_EQ(st.members(5), (std::set<int>{4}));
  EXPECT_EQ(st.members(6), (std::set<int>{3}));
  st.apply(link(4, "eth0", 0));  // released
  EXPECT_TRUE(st.members(5).empty());
  st.apply(link(3, "vx0", 6, true));
  EXPECT_TRUE(st.members(6).empty());
}

TEST(State, RemovalTakesAddressesAndEntriesOfThatDeviceOnly) {
  State st;
  st.apply(link(3, "vx0"));
  st.apply(link(4, "vx1"));
  st.apply(addr(3, 1));
  st.apply(addr(4, 1));
  st.apply(fdb(3, 1, NTF_SELF));
  st.apply(fdb(3, 1, NTF_MASTER));  // the same MAC in the bridge's table: another entry
  st.apply(fdb(3, 2, NTF_SELF));
  st.apply(fdb(4, 1, NTF_SELF));
  uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 1};
  EXPECT_EQ(st.fdbs_of(3, mac).size(), 2u);
  EXPECT_EQ(st.fdbs_of(3).size(), 3u);
  Change c = st.apply(link(3, "vx0", 0, true));
  EXPECT_EQ(c.gone_addrs.size(), 1u);
  EXPECT_EQ(c.gone_fdbs.size(), 3u);
  EXPECT_EQ(st.fdbs().size(), 1u);
  EXPECT_EQ(st.addrs().size(), 1u);
  EXPECT_TRUE(st.fdbs_of(3, mac).empty());
  EXPECT_EQ(st.fdbs_of(4, mac).size(), 1u);
}

TEST(State, EntriesOfAnUnknownDeviceAreStale) {
  State st;
  EXPECT_FALSE(st.apply(addr(3, 1)).changed());
  EXPECT_FALSE(st.apply(fdb(3, 1, NTF_SELF)).changed());
  st.apply(link(3, "vx0"));
  EXPECT_TRUE(st.addrs().empty());
  EXPECT_TRUE(st.fdbs().empty());
}
