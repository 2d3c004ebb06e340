// Reply matching: every probe counted once, whatever comes back and when.
#include <gtest/gtest.h>

#include <cmath>

#include "tracker.h"

namespace {

constexpr uint32_t kHandle = 0x1234;
constexpr int64_t kWait = 1000000;  // 1 s

TEST(Tracker, AnswerDuplicateLateAndForeign) {
  po_tracker t(kHandle, kWait);
  int64_t rtt = -1;
  EXPECT_EQ(t.sent(0), 1u);
  EXPECT_EQ(t.sent(100), 2u);
  EXPECT_EQ(t.reply(kHandle, 1, 4, 250, &rtt), PO_ANSWER);
  EXPECT_EQ(rtt, 250);
  EXPECT_EQ(t.reply(kHandle, 1, 4, 300, &rtt), PO_DUPLICATE);
  EXPECT_EQ(t.reply(kHandle + 1, 2, 4, 300, &rtt), PO_FOREIGN) << "another sender's handle";
  EXPECT_EQ(t.reply(kHandle, 3, 4, 300, &rtt), PO_FOREIGN) << "a sequence never sent";
  EXPECT_EQ(t.reply(kHandle, 0, 4, 300, &rtt), PO_FOREIGN);
  // Probe 2's wait ends; its reply afterwards is late, and stays late.
  EXPECT_EQ(t.expire(kWait + 99), std::vector<uint32_t>{});
  EXPECT_EQ(t.expire(kWait + 100), std::vector<uint32_t>{2});
  EXPECT_EQ(t.reply(kHandle, 2, 2, kWait + 200, &rtt), PO_LATE);
  EXPECT_EQ(t.reply(kHandle, 2, 2, kWait + 300, &rtt), PO_LATE);
  const po_stats &s = t.stats();
  EXPECT_EQ(s.sent, 2u);
  EXPECT_EQ(s.received, 1u);
  EXPECT_EQ(s.duplicates, 1u);
  EXPECT_EQ(s.late, 2u);
  EXPECT_EQ(s.foreign, 3u);
  EXPECT_EQ(s.return_codes.size(), 1u) << "only answers count by return code";
  EXPECT_EQ(s.return_codes.at(4), 1u);
  EXPECT_DOUBLE_EQ(s.loss_percent(), 50.0);
}

TEST(Tracker, DeadlinesSkipAnsweredProbes) {
  po_tracker t(kHandle, kWait);
  EXPECT_EQ(t.next_deadline(), -1);
  int64_t rtt;
  t.sent(0);
  t.sent(10);
  t.sent(20);
  EXPECT_EQ(t.next_deadline(), kWait);
  t.reply(kHandle, 1, 4, 5, &rtt);
  t.reply(kHandle, 3, 4, 25, &rtt);
  EXPECT_EQ(t.next_deadline(), kWait + 10);
  EXPECT_EQ(t.expire(10 * kWait), std::vector<uint32_t>{2});
  EXPECT_FALSE(t.waiting());
}

TEST(Tracker, AnIcmpErrorEndsTheWaitOnce) {
  po_tracker t(kHandle, kWait);
  t.sent(0);
  t.sent(0);
  EXPECT_TRUE(t.error(1));
  EXPECT_FALSE(t.error(1)) << "counted once";
  EXPECT_FALSE(t.error(7)) << "not one of ours";
  EXPECT_EQ(t.expire(2 * kWait), std::vector<uint32_t>{2}) << "no timeout after the error";
  int64_t rtt;
  EXPECT_EQ(t.reply(kHandle, 1, 4, 10, &rtt), PO_LATE);
  EXPECT_EQ(t.stats().errors, 1u);
  EXPECT_EQ(t.stats().received, 0u);
}

TEST(Tracker, RoundTripFiguresAsPingGivesThem) {
  po_tracker t(kHandle, kWait);
  int64_t rtt;
  const int64_t rtts[] = {1000, 2000, 6000};  // microseconds
  for (int64_t r : rtts) {
    uint32_t seq = t.sent(0);
    t.reply(kHandle, seq, seq == 2 ? 2 : 4, r, &rtt);
  }
  const po_stats &s = t.stats();
  EXPECT_EQ(s.rtt_min, 1000);
  EXPECT_EQ(s.rtt_max, 6000);
  EXPECT_DOUBLE_EQ(s.rtt_avg_ms(), 3.0);
  EXPECT_NEAR(s.rtt_mdev_ms(), std::sqrt((1.0 + 4.0 + 36.0) / 3 - 9.0), 1e-9);
  EXPECT_EQ(s.return_codes.at(4), 2u);
  EXPECT_EQ(s.return_codes.at(2), 1u);
  EXPECT_DOUBLE_EQ(s.loss_percent(), 0.0);
}

TEST(Tracker, ARepliesFarBehindTheWindowIsLateNotForeign) {
  po_tracker t(kHandle, kWait);
  for (uint32_t i = 0; i < po_tracker::kWindow + 5; i++) t.sent(0);
  int64_t rtt;
  EXPECT_EQ(t.reply(kHandle, 3, 4, 1, &rtt), PO_LATE) << "its slot holds a newer probe";
  EXPECT_EQ(t.reply(kHandle, po_tracker::kWindow + 3, 4, 1, &rtt), PO_ANSWER);
}

}  // namespace
