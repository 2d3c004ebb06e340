// tvxmm against files made by the library, then damaged behind its back.
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "mmf_fixture.h"
#include "run_tvxmm.h"

namespace {

using Cli = MmfTest;

TEST_F(Cli, ValidWalkAndShowOfAHealthyFile) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t a, b;
  ASSERT_NE(mmf_alloc(m, 100, &a), nullptr);
  ASSERT_NE(mmf_alloc(m, 2000, &b), nullptr);
  mmf_free_offset(m, a);
  mmf_close(m);

  auto r = tvxmm("mmf valid /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_NE(r.out.find("valid, 3 nodes walked"), std::string::npos) << r.out;
  r = tvxmm("mmf walk /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("4096 len 156 free user 4140"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("4252 len 2052 used user 4296"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("3 nodes"), std::string::npos);
  r = tvxmm("mmf show /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("magic 0xabcd1234 version 4 header 1572"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("tfree"), std::string::npos) << r.out;
}

// A damaged node is reported where it is, and the tool leaves the file as
// it found it: a later open is what rebuilds.
TEST_F(Cli, DamageIsReportedAndLeftInPlace) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t a;
  ASSERT_NE(mmf_alloc(m, 100, &a), nullptr);
  mmf_close(m);
  uint32_t bad = 0x12345678;
  poke(4096 + 156 + 8, &bad, 4);  // the second node's pattern
  auto before = bytes();
  auto r = tvxmm("mmf valid /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 1) << r.out;
  EXPECT_NE(r.out.find("not valid"), std::string::npos);
  r = tvxmm("mmf walk /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("4252 len"), std::string::npos);
  EXPECT_NE(r.out.find("DAMAGED"), std::string::npos) << r.out;
  // A free list that leads into the damage ends the listing, not the tool.
  r = tvxmm("mmf show /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_NE(r.out.find("tfree"), std::string::npos) << r.out;
  auto after = bytes();  // the header keeps the walk's statistics: compare the heap
  EXPECT_EQ(std::vector<uint8_t>(before.begin() + 0x1000, before.end()),
            std::vector<uint8_t>(after.begin() + 0x1000, after.end()));
}

TEST_F(Cli, MeminfoListsOpenFilesAndSetsReporting) {
  EXPECT_EQ(tvxmm("meminfo").rc, 1);  // no report yet under this root
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  auto r = tvxmm("meminfo");
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_NE(r.out.find("meminfo version 1: 1 records"), std::string::npos) << r.out;
  std::string line = "mmf /mfs/var/t/heap pid " + std::to_string(getpid()) + " current 65536 max 1048576";
  EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("reporting"), std::string::npos);
  EXPECT_EQ(tvxmm("meminfo report /mfs/var/t/heap on").rc, 0);
  EXPECT_NE(tvxmm("meminfo").out.find(" reporting"), std::string::npos);
  r = tvxmm("meminfo report /mfs/var/t/none on");
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("no record in the memory report"), std::string::npos) << r.out;
  EXPECT_EQ(tvxmm("meminfo report /mfs/var/t/heap maybe").rc, 2);
  mmf_close(m);
}

TEST_F(Cli, MissingFileAndUsageErrors) {
  EXPECT_EQ(tvxmm("mmf valid /mfs/var/t/none").rc, 1);
  EXPECT_EQ(tvxmm("mmf").rc, 2);
  auto r = tvxmm("mmf frob /mfs/var/t/heap");
  EXPECT_EQ(r.rc, 2);
  EXPECT_EQ(r.out.rfind("tvxmm: unknown mmf subcommand", 0), 0u) << r.out;
  r = tvxmm("--help");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("usage: tvxmm mmf show FILE"), std::string::npos);
}

}  // namespace
