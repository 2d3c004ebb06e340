// tvxmm mmcq against a queue made by the library: the header as it stands,
// the waiting messages left in place, damage reported, not repaired.
#include <string>

#include "mmcq/mmcq.h"
#include "mmf_fixture.h"
#include "run_tvxmm.h"

namespace {

using MmcqCli = MmfTest;

TEST_F(MmcqCli, ShowAndPeekLeaveTheMessagesInPlace) {
  mmcq *r = mmcq_receiver_create("jobs", nullptr, 100, 8192, 8192, 0, nullptr, nullptr, nullptr);
  mmcq *s = mmcq_sender_create("jobs", nullptr, 100, 8192, 8192, 0, nullptr, nullptr);
  ASSERT_NE(s, nullptr);
  // Wrap the ring, so that peek follows the mark back to the start.
  std::string big(90, 'z');
  int n = 0;
  while (mmcq_send(s, big.data(), 90) == MMCQ_SUCCESS) n++;
  char buf[100];
  int st;
  for (int i = 0; i < n - 1; i++) ASSERT_EQ(mmcq_get_next(r, sizeof buf, buf, &st), 90u);
  // Too long for what is left before the end: it goes to the start.
  std::string hello = "hello\x01" + std::string(54, 'h');
  ASSERT_EQ(mmcq_send(s, hello.data(), 60), MMCQ_SUCCESS);
  auto out = tvxmm("mmcq show jobs");
  EXPECT_EQ(out.rc, 0) << out.out;
  EXPECT_NE(out.out.find("queue jobs: version 11 magic 0x55557777 (ready)"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("receiver " + std::to_string(getpid()) + " (alive)"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("sent " + std::to_string(n + 1) + " received " + std::to_string(n - 1)),
            std::string::npos)
      << out.out;
  out = tvxmm("mmcq peek jobs");
  EXPECT_EQ(out.rc, 0);
  EXPECT_NE(out.out.find("len 90: " + std::string(48, 'z') + "..."), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("4096 len 60: hello." + std::string(42, 'h') + "...\n2 messages shown\n"), std::string::npos) << out.out;
  out = tvxmm("mmcq peek jobs -n 1");
  EXPECT_NE(out.out.find("1 messages shown"), std::string::npos) << out.out;
  // Still there for the receiver.
  EXPECT_EQ(mmcq_get_next(r, sizeof buf, buf, &st), 90u);
  EXPECT_EQ(mmcq_get_next(r, sizeof buf, buf, &st), 60u);
  // A damaged length is reported where it lies.
  ASSERT_EQ(mmcq_send(s, "x", 1), MMCQ_SUCCESS);
  uint32_t bad = 3;
  poke(r->q->take_offset, &bad, 4, "/mfs/var/mmcq/jobs");
  out = tvxmm("mmcq peek jobs");
  EXPECT_EQ(out.rc, 1);
  EXPECT_NE(out.out.find("DAMAGED length 3"), std::string::npos) << out.out;
  mmcq_delete(s);
  mmcq_delete(r);
}

TEST_F(MmcqCli, NotAQueueAndUsage) {
  EXPECT_EQ(tvxmm("mmcq show nothere").rc, 1);
  mmf *m = open("/mfs/var/mmcq/plain");
  mmf_close(m);
  auto out = tvxmm("mmcq show plain");
  EXPECT_EQ(out.rc, 1);
  EXPECT_NE(out.out.find("not a queue"), std::string::npos) << out.out;
  EXPECT_EQ(tvxmm("mmcq show").rc, 2);
  EXPECT_EQ(tvxmm("mmcq peek q -n 0").rc, 2);
  EXPECT_EQ(tvxmm("mmcq show a/b").rc, 2);
  EXPECT_EQ(tvxmm("mmcq frob q").rc, 2);
  EXPECT_NE(tvxmm("--help").out.find("tvxmm mmcq peek NAME [-n COUNT]"), std::string::npos);
}

}  // namespace
