// Routing instances: both trees, names, flags of the handler, slots.
#include "fixture.h"
#include "msgs.h"

namespace {

using namespace ist;
using V = std::vector<std::string>;

class RtInstance : public tt::Kernel {
 protected:
  void SetUp() override {
    tt::Kernel::SetUp();
    told.clear();
    rt_instance_init();
    listener();
  }
};

TEST_F(RtInstance, TheSameIdInTwoFamiliesIsTwoInstancesFoundEachWay) {
  rtt(RTS_AF_INET6, 7, "blue");
  rtt(RTS_AF_INET, 7, "blue");
  rtt(RTS_AF_INET, 3, "red");
  EXPECT_EQ(rt_instance_count(), 3u);
  rt_instance *a = rt_instance_find(RTS_AF_INET, 7), *b = rt_instance_find(RTS_AF_INET6, 7);
  ASSERT_TRUE(a && b && a != b);
  EXPECT_STREQ(a->rti_name, "blue&AF=2");
  EXPECT_STREQ(b->rti_name, "blue&AF=28");
  EXPECT_EQ(rt_instance_find_by_name("blue&AF=28"), b);
  EXPECT_EQ(rt_instance_find_by_name("blue"), nullptr);
  EXPECT_EQ(rt_instance_find_by_id(7), a);
  EXPECT_EQ(rt_instance_find_by_id(3)->rti_af, RTS_AF_INET);
  EXPECT_EQ(rt_instance_find_by_id(4), nullptr);
  // Only in the second family.
  rtt(RTS_AF_INET6, 12, "green");
  EXPECT_EQ(rt_instance_find_by_id(12)->rti_af, RTS_AF_INET6);
  std::string order;
  for (rt_instance *r = rt_instance_first(); r; r = rt_instance_next(r)) order += std::string(r->rti_name) + " ";
  EXPECT_EQ(order, "red&AF=2 blue&AF=2 blue&AF=28 green&AF=28 ");
}

TEST_F(RtInstance, AFullLengthNameIsCutAndTheKeyIsTheCutText) {
  std::string name(130, 'n');
  rtt(RTS_AF_INET, 1, name);
  rt_instance *r = rt_instance_find(RTS_AF_INET, 1);
  ASSERT_NE(r, nullptr);
  std::string cut = (name + "&AF=2").substr(0, RT_INSTANCE_NAME_SIZE - 1);
  EXPECT_EQ(std::string(r->rti_name), cut);
  EXPECT_EQ(rt_instance_find_by_name(cut.c_str()), r);
  EXPECT_EQ(rt_instance_find_by_name((name + "&AF=2").c_str()), nullptr);
}

TEST_F(RtInstance, FlagsSayNewChangedOrDeletedAndAnUnknownDeleteSaysNothing) {
  EXPECT_EQ(rtt(RTS_AF_INET, 5, "vrf", RTS_OP_DELETE), 1);
  EXPECT_TRUE(told.empty());
  rtt(RTS_AF_INET, 5, "vrf", RTS_OP_ADD, 1);
  rtt(RTS_AF_INET, 5, "vrf", RTS_OP_ADD, 1);
  rtt(RTS_AF_INET, 5, "vrf", RTS_OP_CHANGE, 2);
  rtt(RTS_AF_INET, 5, "vrf", RTS_OP_DELETE, 2);
  EXPECT_EQ(told, (V{"rtt vrf&AF=2 flags=4", "rtt vrf&AF=2 flags=0", "rtt vrf&AF=2 flags=1", "rtt vrf&AF=2 flags=2"}));
  EXPECT_EQ(rt_instance_find(RTS_AF_INET, 5), nullptr);
  EXPECT_EQ(rt_instance_find_by_name("vrf&AF=2"), nullptr);
  EXPECT_EQ(rt_instance_count(), 0u);
}

TEST_F(RtInstance, ANameHeldByAnotherTableOfTheFamilyIsIgnored) {
  rtt(RTS_AF_INET, 1, "blue");
  EXPECT_EQ(rtt(RTS_AF_INET, 2, "blue"), 1);
  rtt(RTS_AF_INET6, 2, "blue");  // another family: another key
  EXPECT_EQ(rt_instance_find(RTS_AF_INET, 2), nullptr);
  EXPECT_EQ(rt_instance_find_by_name("blue&AF=2")->rti_id, 1);
  EXPECT_EQ(rt_instance_count(), 2u);
}

TEST_F(RtInstance, AFilterTakesMessagesAsHandled) {
  rt_instance_filter_set([](const void *m) { return static_cast<const rts_rtb_msg *>(m)->rtbm_index > 100; });
  EXPECT_EQ(rtt(RTS_AF_INET, 101, "big"), 1);
  rtt(RTS_AF_INET, 1, "small");
  EXPECT_EQ(rt_instance_count(), 1u);
  EXPECT_EQ(told, (V{"rtt small&AF=2 flags=4"}));
  rt_instance_filter_set(nullptr);
}

class RtInstanceSlots : public tt::Kernel {};

TEST_F(RtInstanceSlots, DeclaredSlotsHoldAWordEach) {
  rt_instance_slots_declare(2);
  rt_instance_init();
  rt_instance_slots_declare(5);  // too late: ignored
  rtt(RTS_AF_INET, 1, "a");
  rt_instance *r = rt_instance_find(RTS_AF_INET, 1);
  rt_instance_slot_set(r, 1, 77);
  rt_instance_slot_set(r, 2, 88);
  EXPECT_EQ(rt_instance_slot_get(r, 1), 77u);
  EXPECT_EQ(rt_instance_slot_get(r, 2), 0u);
  rt_instance_reset();
  EXPECT_EQ(rt_instance_count(), 0u);
}

}  // namespace
