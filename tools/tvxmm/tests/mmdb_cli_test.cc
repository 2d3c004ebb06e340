// tvxmm mmdb against a database made by the library.
#include <cstdio>
#include <string>
#include <sys/wait.h>

#include "mmdb/mmdb.h"
#include "mmf_fixture.h"
#include "run_tvxmm.h"

namespace {

class MmdbCli : public MmfTest {
 protected:
  void SetUp() override {
    MmfTest::SetUp();
    mmdb_params p = {};
    snprintf(p.name, sizeof p.name, "routes");
    p.id = 7;
    p.bucket_count = 32;
    p.max_bytes = p.mapped_span = 1 << 20;
    p.default_bytes = p.grow_by_bytes = 64 << 10;
    p.max_mapped_regions = 1;
    p.max_key = 32;
    p.max_data = 256;
    p.max_replicated = 4;
    int st;
    mmdb *db = mmdb_open(&p, &st);
    ASSERT_NE(db, nullptr);
    ASSERT_EQ(mmdb_put(db, "alpha", 5, "first", 5, 5, 2, false), MMDB_SUCCESS);
    ASSERT_EQ(mmdb_put(db, "\x01\x02", 2, "\x00\xff", 2, 2, 0, false), MMDB_SUCCESS);
    mmdb_close(db);
  }
  void TearDown() override {
    mmdb_registry_close();
    MmfTest::TearDown();
  }
};

}  // namespace

TEST_F(MmdbCli, ListGetPutDelDump) {
  auto r = tvxmm("mmdb list");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find(" 7 routes"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("2 records"), std::string::npos) << r.out;
  r = tvxmm("mmdb get 7 alpha");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "first (replicated 2 of 5 bytes)\n");
  r = tvxmm("mmdb get 7 0x0102");
  EXPECT_EQ(r.out, "0x00ff (replicated 0 of 2 bytes)\n");
  r = tvxmm("mmdb put 7 beta 0x6869 -r 1");
  EXPECT_EQ(r.rc, 0) << r.out;
  r = tvxmm("mmdb get 7 beta");
  EXPECT_EQ(r.out, "hi (replicated 1 of 2 bytes)\n");
  // All of the value is replicated by default, up to the database's limit.
  r = tvxmm("mmdb put 7 gamma longvalue");
  EXPECT_EQ(tvxmm("mmdb get 7 gamma").out, "longvalue (replicated 4 of 9 bytes)\n");
  r = tvxmm("mmdb dump 7");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("alpha = first (replicated 2)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("0x0102 = 0x00ff (replicated 0)\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("4 records\n"), std::string::npos) << r.out;
  r = tvxmm("mmdb del 7 alpha");
  EXPECT_EQ(r.rc, 0);
  r = tvxmm("mmdb get 7 alpha");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out, "tvxmm: database 7: mmdb: not found\n");
  r = tvxmm("mmdb del 7 alpha");
  EXPECT_EQ(r.rc, 1);
  r = tvxmm("mmdb put 7 " + std::string(33, 'k') + " v");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out, "tvxmm: database 7: mmdb: invalid argument\n");
}

TEST_F(MmdbCli, ShowVerifyReset) {
  auto r = tvxmm("mmdb show 7");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("mmdb 7 routes: valid"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("records 2  with data 2"), std::string::npos) << r.out;
  r = tvxmm("mmdb verify 7");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "database 7: valid\n");
  r = tvxmm("mmdb reset 7");
  EXPECT_EQ(r.rc, 0) << r.out;
  r = tvxmm("mmdb dump 7");
  EXPECT_EQ(r.out, "0 records\n");
}

TEST_F(MmdbCli, MemoryReportShowsTheDatabase) {
  auto r = tvxmm("meminfo");
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("mmdb 7 routes pid "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" buckets 32 "), std::string::npos) << r.out;
}

TEST_F(MmdbCli, Misuse) {
  EXPECT_EQ(tvxmm("mmdb").rc, 2);
  EXPECT_EQ(tvxmm("mmdb frob 7").rc, 2);
  EXPECT_EQ(tvxmm("mmdb get 7").rc, 2);
  EXPECT_EQ(tvxmm("mmdb get 23 k").rc, 2);
  EXPECT_EQ(tvxmm("mmdb get 0 k").rc, 2);
  EXPECT_EQ(tvxmm("mmdb put 7 k 0x123").rc, 2);
  EXPECT_EQ(tvxmm("mmdb put 7 k v -r 5").rc, 2);
  auto r = tvxmm("mmdb show 9");
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out, "tvxmm: database 9: no such id in the registry\n");
}
