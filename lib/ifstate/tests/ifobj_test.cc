// The interface mirror kept by the four messages: what is refused, what is
// ignored until later, identity, deletion and its order, aggregates, the
// rarer attributes and extension slots.
#include "fixture.h"
#include "mem/block.h"
#include "msgs.h"

namespace {

using namespace ist;
using V = std::vector<std::string>;

class IfObj : public tt::Kernel {
 protected:
  void SetUp() override {
    tt::Kernel::SetUp();
    told.clear();
    if_init();
  }
};

TEST_F(IfObj, WrongVersionAndNameConflictsAreRefusedEverythingElseIsAccepted) {
  auto r = record<rts_ifd_msg>(RTS_T_IFDEV, RTS_OP_ADD);
  r.ifdm_index = 1;
  r.ifdm_name = const_cast<char *>("ge-0/0/0");
  r.hdr.version = 105;
  EXPECT_EQ(if_rtsock_decode_ifdev(&r, 0), 0);
  EXPECT_EQ(ifd_count(), 0u);
  for (uint8_t type : {RTS_T_IFLOGICAL, RTS_T_IFFAMILY, RTS_T_IFADDR}) {
    rts_msg_hdr h{};
    h.version = 1;
    h.type = type;
    EXPECT_EQ(if_rtsock_msg_sanity(&h, type, rts_type_table[type].version), 0);
  }
  EXPECT_EQ(ifd(1, "ge-0/0/0"), 1);
  // Another index with the same name.
  EXPECT_EQ(ifd(2, "ge-0/0/0"), 0);
  EXPECT_EQ(ifd_find_by_name("ge-0/0/0")->ifd_index, 1);
  EXPECT_EQ(ifd_find_by_index(2), nullptr);
  // Index 0 is no device.
  EXPECT_EQ(ifd(0, "none"), 1);
  EXPECT_EQ(ifd_count(), 1u);
  // Two logical interfaces cannot be the same unit of one device.
  EXPECT_EQ(ifl(70, 1, 0), 1);
  EXPECT_EQ(ifl(71, 1, 0), 0);
  EXPECT_EQ(ifl_find_by_name("ge-0/0/0.0")->ifl_index, 70u);
  EXPECT_EQ(ifl_count(), 1u);
}

TEST_F(IfObj, UnknownParentsAreIgnoredUntilTheyExistSoArrivalOrderDoesNotMatter) {
  listener();
  EXPECT_EQ(ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32), 1);
  EXPECT_EQ(iff(70, RTS_AF_INET), 1);
  EXPECT_EQ(ifl(70, 1, 0), 1);
  EXPECT_TRUE(told.empty());
  EXPECT_EQ(ifl_count(), 0u);
  // The next scan brings them in order.
  ASSERT_EQ(ifd(1, "lo0"), 1);
  ASSERT_EQ(ifl(70, 1, 0), 1);
  // An address before its family is still ignored.
  EXPECT_EQ(ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32), 1);
  ASSERT_EQ(iff(70, RTS_AF_INET), 1);
  ASSERT_EQ(ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32), 1);
  EXPECT_EQ(told, (V{"ifd new lo0", "ifl new lo0.0", "iff new lo0.0 inet", "ifa new lo0.0 10.0.0.1/32"}));
  // Family 1 and unknown families are no business of the mirror.
  EXPECT_EQ(ifa(70, 1, v4(1, 2, 3, 4), 32), 1);
  EXPECT_EQ(iff(70, 1), 1);
  // A delete of an address that is not there.
  EXPECT_EQ(ifa(70, RTS_AF_INET, v4(10, 0, 0, 9), 32, RTS_OP_DELETE), 1);
  EXPECT_EQ(told.size(), 4u);
  if_link *l = ifl_find_by_index(70);
  EXPECT_EQ(iff_find(l, IF_FAM_INET)->iff_addr_count, 1u);
}

TEST_F(IfObj, ARepeatedMessageIsAChangeOnlyWhenAFieldDiffers) {
  listener();
  ifd(1, "ge-0/0/0", RTS_OP_ADD, RTS_IFF_UP);
  ifd(1, "ge-0/0/0", RTS_OP_CHANGE, RTS_IFF_UP);
  ifd(1, "ge-0/0/0", RTS_OP_CHANGE, 0);
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET6, RTS_OP_ADD, 1500);
  iff(70, RTS_AF_INET6, RTS_OP_CHANGE, 9000);
  EXPECT_EQ(told, (V{"ifd new ge-0/0/0", "ifd same ge-0/0/0", "ifd changed ge-0/0/0", "ifl new ge-0/0/0.0",
                     "iff new ge-0/0/0.0 inet6", "iff changed ge-0/0/0.0 inet6"}));
  EXPECT_EQ(iff_find(ifl_find_by_index(70), IF_FAM_INET6)->iff_mtu16, 9000);
}

TEST_F(IfObj, AnAddressLongerThanItsBytesIsCutToThem) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  auto r = record<rts_ifa_msg>(RTS_T_IFADDR, RTS_OP_ADD);
  static uint8_t four[4] = {10, 0, 0, 1};
  r.ifam_ifl_index = 70;
  r.ifam_af = RTS_AF_INET;
  r.ifam_local = four;
  r.ifam_local_plen = 4;
  r.ifam_local_bits = 64;
  ASSERT_EQ(if_rtsock_decode_ifam(&r, 0), 1);
  if_address *a = ifa_first(iff_find(ifl_find_by_index(70), IF_FAM_INET));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->ifa_local_bits, 32);
  EXPECT_EQ(ifa_find(a->ifa_iff, four, 32), a);
}

TEST_F(IfObj, AReusedDeviceIndexGivesOneDeleteAndOneAdd) {
  ifd(5, "ge-0/0/5");
  ifl(75, 5, 0);
  listener();
  ASSERT_EQ(ifd(5, "xe-1/0/0"), 1);
  EXPECT_EQ(told, (V{"ifl delete ge-0/0/5.0 gone", "ifd delete ge-0/0/5 gone", "ifd new xe-1/0/0"}));
  EXPECT_EQ(ifd_find_by_name("ge-0/0/5"), nullptr);
  EXPECT_EQ(ifd_find_by_index(5), ifd_find_by_name("xe-1/0/0"));
  EXPECT_EQ(ifl_find_by_index(75), nullptr);
  EXPECT_EQ(ifd_count(), 1u);
}

// Deletion: each broadcast sees the object marked, then it is gone; a device
// takes its addresses, then families, then logical interfaces with it.
if_address *seen_ifa;
void keep_ifa(task *, if_address *a) {
  seen_ifa = a;
  EXPECT_EQ(a->ifa_state & IF_STATE_DELETED, IF_STATE_DELETED);
  EXPECT_EQ(a->ifa_change, IF_CHANGE_DELETE);
  // Still reachable from its family during the broadcast.
  EXPECT_EQ(ifa_find(a->ifa_iff, a->ifa_local, a->ifa_local_bits), a);
}

TEST_F(IfObj, ADeleteIsBroadcastOnTheMarkedObjectThenItIsFreed) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  ifa(70, RTS_AF_INET, v4(192, 0, 2, 1), 24);
  task *tp = task_alloc("deletes", 10, nullptr);
  task_create(tp);
  task_set_ifachange(tp, keep_ifa);
  ASSERT_EQ(ifa(70, RTS_AF_INET, v4(192, 0, 2, 1), 24, RTS_OP_DELETE), 1);
  ASSERT_NE(seen_ifa, nullptr);
  if_family *f = iff_find(ifl_find_by_index(70), IF_FAM_INET);
  EXPECT_EQ(ifa_first(f), nullptr);
  EXPECT_EQ(f->iff_addr_count, 0u);
}

TEST_F(IfObj, ADeviceDeleteRemovesAddressesThenFamiliesThenLogicalInterfaces) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  ifl(71, 1, 1);
  iff(70, RTS_AF_INET);
  iff(70, RTS_AF_INET6);
  iff(71, RTS_AF_INET);
  ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32);
  ifa(71, RTS_AF_INET, v4(10, 0, 1, 1), 32);
  ifd(2, "ge-0/0/1");
  ifl(80, 2, 0);
  listener();
  ASSERT_EQ(ifd(1, "ge-0/0/0", RTS_OP_DELETE), 1);
  EXPECT_EQ(told, (V{"ifa delete ge-0/0/0.0 10.0.0.1/32 gone", "ifa delete ge-0/0/0.1 10.0.1.1/32 gone",
                     "iff delete ge-0/0/0.0 inet gone", "iff delete ge-0/0/0.0 inet6 gone",
                     "iff delete ge-0/0/0.1 inet gone", "ifl delete ge-0/0/0.0 gone", "ifl delete ge-0/0/0.1 gone",
                     "ifd delete ge-0/0/0 gone"}));
  EXPECT_EQ(ifd_count(), 1u);
  EXPECT_EQ(ifl_count(), 1u);
  EXPECT_EQ(ifl_first()->ifl_index, 80u);
  EXPECT_EQ(ifl_find_by_name("ge-0/0/0.1"), nullptr);
  // A family delete takes its addresses; the last family gone calls the hook.
  static int no_family;
  if_link_no_family_hook_set([](if_link *) { no_family++; });
  iff(80, RTS_AF_INET);
  ifa(80, RTS_AF_INET, v4(10, 2, 0, 1), 32);
  told.clear();
  iff(80, RTS_AF_INET, RTS_OP_DELETE);
  EXPECT_EQ(told, (V{"ifa delete ge-0/0/1.0 10.2.0.1/32 gone", "iff delete ge-0/0/1.0 inet gone"}));
  EXPECT_EQ(no_family, 1);
  EXPECT_EQ(iff(80, RTS_AF_INET, RTS_OP_DELETE), 1);  // gone already
  EXPECT_EQ(told.size(), 2u);
}

TEST_F(IfObj, LookupsByIndexByNameAndWalksInOrder) {
  ifd(3, "xe-0/0/3");
  ifd(1, "ge-0/0/1");
  ifd(2, "et-0/0/2");
  ifl(90, 2, 7);
  ifl(80, 2, 3);
  ifl(95, 1, 0);
  std::string order;
  for (if_device *d = ifd_first(); d; d = ifd_next(d)) order += d->ifd_name + std::string(" ");
  EXPECT_EQ(order, "ge-0/0/1 et-0/0/2 xe-0/0/3 ");
  order.clear();
  for (if_link *l = ifl_first(); l; l = ifl_next(l)) order += l->ifl_name + std::string(" ");
  EXPECT_EQ(order, "et-0/0/2.3 et-0/0/2.7 ge-0/0/1.0 ");
  order.clear();
  for (if_link *l = ifl_first_of(ifd_find_by_index(2)); l; l = ifl_next_of(l)) order += std::to_string(l->ifl_unit);
  EXPECT_EQ(order, "37");
  EXPECT_EQ(ifl_find_by_name("et-0/0/2.7")->ifl_index, 90u);
  EXPECT_EQ(ifl_find_by_name("et-0/0/2"), nullptr);
  EXPECT_EQ(ifd_find_by_name("et-0/0/2.7"), nullptr);
  EXPECT_EQ(ifl_find_next(80)->ifl_index, 90u);
  EXPECT_EQ(ifl_find_next(95), nullptr);
  iff(80, RTS_AF_INET6);
  iff(80, RTS_AF_INET);
  iff(80, RTS_AF_BRIDGE);
  order.clear();
  for (if_family *f = iff_first(ifl_find_by_index(80)); f; f = iff_next(f)) order += if_family_name(f->iff_family) + std::string(" ");
  EXPECT_EQ(order, "inet inet6 bridge ");
  ifa(80, RTS_AF_INET, v4(10, 0, 0, 9), 32);
  ifa(80, RTS_AF_INET, v4(10, 0, 0, 1), 32);
  ifa(80, RTS_AF_INET, v4(10, 0, 0, 1), 24);
  if_family *f = iff_find(ifl_find_by_index(80), IF_FAM_INET);
  order.clear();
  for (if_address *a = ifa_first(f); a; a = ifa_next(a)) order += std::to_string(a->ifa_local[3]) + "/" + std::to_string(a->ifa_local_bits) + " ";
  EXPECT_EQ(order, "0/24 1/32 9/32 ");  // a prefix keeps only its bits
}

TEST_F(IfObj, AggregateMembersLinkToTheirParentInEitherOrderAndTheParentIsReannounced) {
  auto member = [](uint16_t index, const char *name, uint16_t parent, uint8_t op = RTS_OP_ADD) {
    auto r = record<rts_ifd_msg>(RTS_T_IFDEV, op);
    r.ifdm_index = index;
    r.ifdm_name = const_cast<char *>(name);
    r.ifdm_agg_parentidx = parent;
    return if_rtsock_decode_ifdev(&r, 0);
  };
  member(11, "ge-0/0/1", 20);  // before its parent
  ifd(20, "ae0");
  if_device *ae = ifd_find_by_index(20);
  ASSERT_NE(ae->ifd_members, nullptr);
  EXPECT_EQ(ae->ifd_members->ifd_index, 11);
  listener();
  member(12, "ge-0/0/2", 20);
  EXPECT_EQ(told, (V{"ifd new ge-0/0/2", "ifd changed ae0"}));
  int n = 0;
  for (if_device *m = ae->ifd_members; m; m = m->ifd_sibs) n++;
  EXPECT_EQ(n, 2);
  // A member leaving.
  told.clear();
  member(12, "ge-0/0/2", 0, RTS_OP_CHANGE);
  EXPECT_EQ(ae->ifd_members->ifd_index, 11);
  EXPECT_EQ(ae->ifd_members->ifd_sibs, nullptr);
  // The parent goes: members wait for it again, and find it when it comes back.
  ifd(20, "ae0", RTS_OP_DELETE);
  EXPECT_EQ(ifd_find_by_index(11)->ifd_agg_parent, nullptr);
  ifd(20, "ae0");
  EXPECT_EQ(ifd_find_by_index(20)->ifd_members, ifd_find_by_index(11));
}

TEST_F(IfObj, TheRarerAttributesAreKeptAndTheirChangesTold) {
  auto r = record<rts_ifd_msg>(RTS_T_IFDEV, RTS_OP_ADD);
  r.ifdm_index = 3;
  r.ifdm_name = const_cast<char *>("ae0");
  r.ifdm_porttype = 24;
  r.ifdm_mcae = {1, 3, 1, 1, 2, 0};
  r.ifdm_ep = {RTS_IFD_EP_FLOW_CONTROL, 2, 1, 127};
  r.ifdm_fw = {0, 12};
  r.ifdm_state = RTS_IFD_STATE_LINKDOWN;
  ASSERT_EQ(if_rtsock_decode_ifdev(&r, 0), 1);
  if_device *d = ifd_find_by_index(3);
  EXPECT_EQ(d->ifd_mcae.rg_id, 1u);
  EXPECT_EQ(d->ifd_mcae.local_port_id, 2);
  EXPECT_EQ(d->ifd_ep.lacp_mode, 2);
  ASSERT_EQ(d->ifd_fw_count, 1);
  EXPECT_EQ(d->ifd_fw[0].ifb_index, 12u);
  EXPECT_EQ(d->ifd_fw[0].ifb_type, RTS_FW_BIND_OUTPUT);
  EXPECT_EQ(d->ifd_state, RTS_IFD_STATE_LINKDOWN);
  listener();
  r.ifdm_mcae.status = 2;
  if_rtsock_decode_ifdev(&r, 0);
  r.hdr.operation = RTS_OP_CHANGE;
  if_rtsock_decode_ifdev(&r, 0);
  // The port type is fixed once the device exists.
  r.ifdm_porttype = 25;
  EXPECT_EQ(if_rtsock_decode_ifdev(&r, 0), 0);
  EXPECT_EQ(told, (V{"ifd changed ae0", "ifd same ae0"}));

  auto l = ifl_rec(70, 3, 0);
  l.iflm_df_role = 1;
  l.iflm_vtep = {1, 4789, {192, 0, 2, 1}};
  l.iflm_rtb_id = 9;
  if_rtsock_decode_iflogical(&l, 0);
  if_link *x = ifl_find_by_index(70);
  EXPECT_EQ(x->ifl_bw_weight, IF_BW_WEIGHT_DEFAULT);
  EXPECT_EQ(x->ifl_df_role, 1);
  EXPECT_EQ(x->ifl_instance, 9);
  ASSERT_NE(x->ifl_vtep, nullptr);
  EXPECT_EQ(x->ifl_vtep->vtep_udp_port, 4789);
  l.iflm_vtep = {};
  l.iflm_df_role = 2;
  if_rtsock_decode_iflogical(&l, 0);
  EXPECT_EQ(x->ifl_vtep, nullptr);
  EXPECT_EQ(x->ifl_change, IF_CHANGE_CHANGED);
}

std::vector<uint32_t> agg_moves;
void on_agg(task *, const if_agg_member *m) {
  agg_moves.push_back(m->iam_old_agg_index);
  agg_moves.push_back(m->iam_new_agg_index);
}

TEST_F(IfObj, AnAggregateIndexChangeIsToldOnItsOwn) {
  ifd(1, "ge-0/0/0");
  task *tp = listener();
  task_set_ifl_agg_change(tp, on_agg);
  auto l = ifl_rec(70, 1, 0);
  if_rtsock_decode_iflogical(&l, 0);
  l.iflm_agg_index = 500;
  if_rtsock_decode_iflogical(&l, 0);
  if_rtsock_decode_iflogical(&l, 0);
  EXPECT_EQ(agg_moves, (std::vector<uint32_t>{0, 500}));
}

TEST_F(IfObj, MacFiltersFillBlocksAndStayPackedAsTheyGo) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  if_link *l = ifl_find_by_index(70);
  auto mac = [](uint8_t i) { return std::vector<uint8_t>{0, 0x11, 0x22, 0, 0, i}; };
  for (uint8_t i = 0; i < 20; i++) EXPECT_TRUE(ifl_mac_filter_add(l, mac(i).data()));
  EXPECT_FALSE(ifl_mac_filter_add(l, mac(3).data()));
  EXPECT_EQ(ifl_mac_filter_count(l), 20u);
  // Removing from a full block takes the head's last MAC into the hole.
  for (uint8_t i = 0; i < 20; i += 2) EXPECT_TRUE(ifl_mac_filter_delete(l, mac(i).data()));
  EXPECT_FALSE(ifl_mac_filter_delete(l, mac(0).data()));
  EXPECT_EQ(ifl_mac_filter_count(l), 10u);
  for (uint8_t i = 0; i < 20; i++) EXPECT_EQ(ifl_mac_filter_has(l, mac(i).data()), i % 2 == 1) << int(i);
  int blocks = 0;
  for (ifl_mac_filter_block *b = l->ifl_mac_filters; b; b = b->mfb_next) blocks++;
  EXPECT_EQ(blocks, 2);
  // They go with the logical interface.
  ifl(70, 1, 0, RTS_OP_DELETE);
  size_t bytes, objects;
  task_block_get_allocated(task_block_init(sizeof(ifl_mac_filter_block), "ifl_mac_filter_block"), &bytes, &objects);
  EXPECT_EQ(objects, 0u);
}

TEST_F(IfObj, ExtensionSlotsIgnoreIndexesPastTheCount) {
  // if_init ran in SetUp with no slots: a late declaration changes nothing.
  ifd_slots_declare(4);
  ifd(1, "ge-0/0/0");
  if_device *d = ifd_find_by_index(1);
  ifd_slot_set(d, 0, 42);
  EXPECT_EQ(ifd_slot_get(d, 0), 0u);
}

TEST(IfObjSlots, DeclaredSlotsHoldAWordEach) {
  ifd_slots_declare(2);
  ifl_slots_declare(1);
  if_init();
  if_device *d = ifd_create_internal(1, "ge-0/0/0", 0);
  if_link *l = ifl_create_internal(d, 70, 0);
  ifd_slot_set(d, 1, 7);
  ifd_slot_set(d, 2, 9);
  ifl_slot_set(l, 0, 5);
  ifl_slot_set(l, 1, 6);
  EXPECT_EQ(ifd_slot_get(d, 1), 7u);
  EXPECT_EQ(ifd_slot_get(d, 2), 0u);
  EXPECT_EQ(ifl_slot_get(l, 0), 5u);
  EXPECT_EQ(ifl_slot_get(l, 1), 0u);
  EXPECT_STREQ(l->ifl_name, "ge-0/0/0.0");
  if_reset();
  EXPECT_EQ(ifd_count(), 0u);
  EXPECT_EQ(ifl_count(), 0u);
}

TEST_F(IfObj, ALongDeviceNameLeavesRoomForTheUnit) {
  std::string name(IF_NAME_SIZE - 1, 'x');
  ASSERT_EQ(ifd(1, name), 1);
  ASSERT_EQ(ifl(70, 1, 4000000000u), 1);
  EXPECT_EQ(std::string(ifl_find_by_index(70)->ifl_name), std::string(48, 'x') + ".4000000000");
}

}  // namespace
