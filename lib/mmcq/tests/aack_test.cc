// The acknowledgement ledger: strict FIFO of ids, items in order, only the
// head acknowledged.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mmcq/aack.h"

namespace {

std::vector<std::string> drain(aack *a) {
  std::vector<std::string> out;
  uint32_t len;
  const void *data;
  while (aack_id_get_next(a, &len, &data) == AACK_SUCCESS) out.emplace_back(static_cast<const char *>(data), len);
  return out;
}

TEST(Aack, OnlyTheHeadIsAcknowledgedAndItemsComeOutInOrder) {
  aack a = {};
  aack_id *x = aack_id_create(&a), *y = aack_id_create(&a);
  ASSERT_EQ(aack_id_add(x, 1, "a"), AACK_SUCCESS);
  ASSERT_EQ(aack_id_add(x, 2, "bb"), AACK_SUCCESS);
  ASSERT_EQ(aack_id_add(y, 3, "ccc"), AACK_SUCCESS);
  // Nothing acknowledged: nothing comes out.
  EXPECT_TRUE(drain(&a).empty());
  // y is not the head: refused, unchanged.
  EXPECT_EQ(aack_id_ack(&a, y), 0);
  EXPECT_EQ(y->flag, 0u);
  EXPECT_EQ(aack_id_ack(&a, nullptr), 0);
  EXPECT_EQ(aack_id_ack(&a, x), 1);
  // x's items, then x is freed and the head moves to y (not acknowledged).
  EXPECT_EQ(drain(&a), (std::vector<std::string>{"a", "bb"}));
  EXPECT_EQ(a.first, y);
  EXPECT_TRUE(drain(&a).empty());
  EXPECT_EQ(aack_id_ack(&a, y), 1);
  EXPECT_EQ(drain(&a), std::vector<std::string>{"ccc"});
  EXPECT_EQ(a.first, nullptr);
  EXPECT_EQ(a.last, nullptr);
  // An id with no items is freed by one call.
  aack_id *z = aack_id_create(&a);
  EXPECT_EQ(aack_id_ack(&a, z), 1);
  uint32_t len;
  const void *data;
  EXPECT_EQ(aack_id_get_next(&a, &len, &data), AACK_NO_MORE);
  EXPECT_EQ(a.first, nullptr);
}

TEST(Aack, FlushFreesEverythingAndTextsAreNamed) {
  aack a = {};
  for (int i = 0; i < 3; i++) {
    aack_id *id = aack_id_create(&a);
    for (int k = 0; k < 4; k++) aack_id_add(id, 4, "data");
  }
  aack_flush(&a);
  EXPECT_EQ(a.first, nullptr);
  EXPECT_EQ(a.last, nullptr);
  EXPECT_STREQ(aack_status_str(AACK_SUCCESS), "aack success");
  EXPECT_STREQ(aack_status_str(AACK_NO_MORE), "aack no more");
  EXPECT_STREQ(aack_status_str(7), "aack status unknown");
}

TEST(AackDeathTest, HeadAcknowledgedTwiceIsAFault) {
  aack a = {};
  aack_id *x = aack_id_create(&a);
  aack_id_ack(&a, x);
  EXPECT_DEATH(aack_id_ack(&a, x), "AACK_FLAG_ACKED");
  aack_flush(&a);
}

}  // namespace
