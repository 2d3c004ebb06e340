// The text form of objects: what the state file and the admin socket read.
#include <gtest/gtest.h>

#include "peer.h"

namespace {

using namespace rtsockd;

TEST(PeerText, LinesReadBackAsTheyArePrinted) {
  const char *lines[] = {
      "rttable index=7 af=63 name=vs1.bridge",
      "route table=7 af=63 type=2 nh_index=1001 prefix=00:05:00:00:00:11:22:33:44:55/80",
      "route af=2 type=2 nh_index=2 prefix=10.0.0.0/8",
      "route af=28 prefix=2001:db8::/32",
      "ifd index=2 name=ge-0/0/0 snmp_index=501 speed=1000000000 mac=02:00:00:00:00:02",
      "ifl ifd_index=1 index=70 name=lo0 snmp_index=17",
      "ifd index=3 name=ae0 agg_parentidx=9 state=4 duplex=2 autoneg=1 mcae.rg_id=1 mcae.mcae_id=3 "
      "mcae.mode=1 mcae.local_port_id=2 ep.flags=1 ep.lacp_mode=2 fw.input=11 fw.output=12",
      "ifl ifd_index=3 index=72 name=ae0 agg_index=80 df_role=1 bw_weight=100 vtep.flags=1 vtep.udp_port=4789 "
      "vtep.src=c0:00:02:01:00:00:00:00:00:00:00:00:00:00:00:00",
      "iff ifl_index=70 af=2 mtu=65535 name=lo0.0",
      "iff ifl_index=72 af=28 mtu=1500 name=ae0.0 max_mtu=9192 features=4294967298",
      "rttable index=9 af=2 name=blue attr=3",
      "ifa ifl_index=71 af=2 local=192.0.2.1/32 dest=192.0.2.0/24",
      "bd index=5 rtb_id=7 name=bd5 vlan.vlan=0a:00:00:00 mac.mac_limit=9 cfg_flags=2048 vnid=100",
  };
  for (const char *line : lines) {
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    ASSERT_TRUE(parse_object(line, &type, &obj, &why)) << line << ": " << why;
    EXPECT_EQ(print_object(type, obj->rec()), line);
  }
}

TEST(PeerText, ShortNamesMacRoutesAndRefusals) {
  uint32_t type;
  std::unique_ptr<Object> obj;
  std::string why;
  ASSERT_TRUE(parse_object("bd bdm_index=5 rtb_id=0x7 vnid=100", &type, &obj, &why)) << why;
  auto *bd = static_cast<rts_bd_msg *>(obj->rec());
  EXPECT_EQ(type, RTS_T_BRIDGE_DOMAIN);
  EXPECT_EQ(bd->hdr.version, 98);
  EXPECT_EQ(bd->hdr.size, 200);
  EXPECT_EQ(bd->rtb_id, 7);

  ASSERT_TRUE(parse_object("mac rtb=7 bd=0x105 addr=00:11:22:33:44:55", &type, &obj, &why)) << why;
  auto *rt = static_cast<rts_rt_msg *>(obj->rec());
  const uint8_t key[10] = {1, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  EXPECT_EQ(rt->rtm_af, RTS_AF_BRIDGE);
  EXPECT_EQ(rt->rtm_type, 2);
  EXPECT_EQ(rt->rtm_prefix_bits, 80);
  EXPECT_EQ(memcmp(rt->rtm_prefix, key, 10), 0);

  struct Bad {
    const char *line, *why;
  } bad[] = {
      {"vlan index=1", "unknown kind vlan"},
      {"bd index=70000", "bad number for index: 70000"},
      {"bd index", "expected field=value, got index"},
      {"bd colour=red", "unknown field colour"},
      {"ifa af=2 local=300.1.1.1/32", "bad prefix for ifam_local: 300.1.1.1/32"},
      {"ifa af=2 local=10.0.0.0/33", "bad prefix for ifam_local: 10.0.0.0/33"},
      {"mac rtb=7 bd=5", "mac needs addr="},
      {"route table=1 attrs=xx", "field attrs cannot be given as text"},
  };
  for (const Bad &b : bad) {
    EXPECT_FALSE(parse_object(b.line, &type, &obj, &why)) << b.line;
    EXPECT_EQ(why, b.why);
  }
}

TEST(PeerStore, GetnextWalksInKeyOrderAndChangesFollowTheRules) {
  Store store;
  for (const char *line : {"bd index=9 vnid=3", "bd index=5 vnid=1", "bd index=300 vnid=2"}) {
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    ASSERT_TRUE(parse_object(line, &type, &obj, &why));
    ASSERT_EQ(store.apply(RTS_OP_ADD, type, obj->rec()), 0);
    EXPECT_EQ(store.apply(RTS_OP_ADD, type, obj->rec()), EEXIST);
  }
  rts_bd_msg cursor{};
  std::vector<unsigned> seen;
  while (const Object *o = store.lookup(RTS_OP_GETNEXT, RTS_T_BRIDGE_DOMAIN, &cursor)) {
    cursor.bdm_index = static_cast<const rts_bd_msg *>(o->rec())->bdm_index;
    seen.push_back(cursor.bdm_index);
  }
  EXPECT_EQ(seen, (std::vector<unsigned>{5, 9, 300}));
  cursor.bdm_index = 7;
  EXPECT_EQ(store.lookup(RTS_OP_GET, RTS_T_BRIDGE_DOMAIN, &cursor), nullptr);
  EXPECT_EQ(store.apply(RTS_OP_CHANGE, RTS_T_BRIDGE_DOMAIN, &cursor), ENOENT);
  EXPECT_EQ(store.apply(RTS_OP_DELETE, RTS_T_BRIDGE_DOMAIN, &cursor), ENOENT);
  cursor.bdm_index = 9;
  EXPECT_EQ(store.apply(RTS_OP_DELETE, RTS_T_BRIDGE_DOMAIN, &cursor), 0);
  EXPECT_EQ(store.size(), 2u);
  EXPECT_EQ(store.apply(RTS_OP_ADD, 14, &cursor), EOPNOTSUPP);  // firewall: not kept here
}

}  // namespace

namespace {

TEST(PeerStore, AnObjectCostsItsRecordAndNoMore) {
  uint32_t type;
  std::unique_ptr<Object> obj;
  std::string why;
  ASSERT_TRUE(parse_object("bd index=5 name=bd5 vnid=1", &type, &obj, &why)) << why;
  // The record, then its name (8-byte aligned): nothing held in reserve.
  EXPECT_EQ(obj->block.size(), (sizeof(rts_bd_msg) + 7) / 8 * 8 + 8);
  Store store;
  ASSERT_EQ(store.apply(RTS_OP_ADD, type, obj->rec()), 0);
  const Object *kept = store.find_exact(type, Store::key_of(type, obj->rec()));
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->block.size(), obj->block.size());
  EXPECT_EQ(kept->block.capacity(), obj->block.size());
}

}  // namespace
