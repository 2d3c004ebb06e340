// Writers killed at each named crash point: the survivor takes the bucket
// over, and reads either the old value, the new one, or nothing: never a
// value that was not written.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "mmdb_fixture.h"
#include "mmf/crashpoint.h"

namespace {

// Runs fn in a child armed to die at `point`; true when it died there.
template <class F>
bool die_at(const char *point, F fn) {
  pid_t pid = fork();
  if (pid == 0) {
    tvx_crashpoint_set(point);
    fn();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace

class MmdbCrash : public MmdbTest {
 protected:
  void SetUp() override {
    MmdbTest::SetUp();
    if (!tvx_crashpoints_built()) GTEST_SKIP() << "crash points are compiled out";
    mmdb_lock_spin_limit = 5;
    db_ = open_db(params());
    ASSERT_NE(db_, nullptr);
    ASSERT_EQ(put_str(db_, "old", "old value", 64), MMDB_SUCCESS);
    ASSERT_EQ(put_str(db_, "other", "stays"), MMDB_SUCCESS);
  }
  void TearDown() override {
    mmdb_lock_spin_limit = 500;
    MmdbTest::TearDown();
  }
  // After the death: nothing hangs, chains are whole, the bystander is intact.
  void check_whole() {
    char why[200] = "";
    EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why;
    EXPECT_EQ(get_str(db_, "other"), "stays");
    EXPECT_EQ(put_str(db_, "after", "works"), MMDB_SUCCESS);
    EXPECT_EQ(get_str(db_, "after"), "works");
  }
};

TEST_F(MmdbCrash, InPlaceUpdateNeverReadsTorn) {
  std::string fresh(60, 'N');
  ASSERT_TRUE(die_at("mmdb_put_copied", [&] { put_str(db_, "old", fresh); }));
  int st;
  std::string v = get_str(db_, "old", &st);
  // The value was copied but its length not stored: the record is dropped.
  EXPECT_EQ(st, MMDB_NOT_FOUND) << v;
  EXPECT_GE(mmdb_header(db_)->lock.stolen, 1u);
  check_whole();
}

TEST_F(MmdbCrash, NewRecordAllocatedOrLinked) {
  ASSERT_TRUE(die_at("mmdb_put_allocated", [&] { put_str(db_, "new", "N"); }));
  int st;
  get_str(db_, "new", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  check_whole();
  ASSERT_TRUE(die_at("mmdb_put_linked", [&] { put_str(db_, "new2", "N2"); }));
  EXPECT_EQ(get_str(db_, "new2", &st), "N2");
  // The count was not raised before the death: the walk puts it right.
  EXPECT_EQ(mmdb_header(db_)->record_count, 3u);
  char why[200] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS);
  EXPECT_STREQ(why, "record count corrected from 3 to 4");
  EXPECT_EQ(mmdb_header(db_)->record_count, 4u);
}

TEST_F(MmdbCrash, MovingUpdateLeavesOldOrNothing) {
  std::string big(500, 'B');
  ASSERT_TRUE(die_at("mmdb_put_allocated", [&] { put_str(db_, "old", big); }));
  int st;
  std::string v = get_str(db_, "old", &st);
  EXPECT_TRUE(st == MMDB_NOT_FOUND || v == "old value") << v;
  check_whole();
}

TEST_F(MmdbCrash, DeleteUnlinked) {
  ASSERT_TRUE(die_at("mmdb_delete_unlinked", [&] { mmdb_delete(db_, "old", 3); }));
  int st;
  get_str(db_, "old", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(get_str(db_, "other"), "stays");
  EXPECT_EQ(put_str(db_, "old", "again"), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "old"), "again");
}

TEST_F(MmdbCrash, AppendMoved) {
  ASSERT_TRUE(die_at("mmdb_append_moved", [&] { mmdb_append_replicated(db_, 3, "old", 2, "XY"); }));
  int st;
  std::string v = get_str(db_, "old", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND) << v;
  check_whole();
}

TEST_F(MmdbCrash, ResetCutShortReopens) {
  ASSERT_TRUE(die_at("mmdb_reset_heads", [&] { mmdb_reset(db_); }));
  mmdb_close(db_);
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  int st;
  get_str(db_, "old", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(put_str(db_, "after", "works"), MMDB_SUCCESS);
  char why[200] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why;
}

TEST_F(MmdbCrash, EveryPointIsVisited) {
  // Each named point kills a writer somewhere in the calls above.
  for (size_t i = 0; i < mmdb_crashpoint_count; i++) {
    const char *p = mmdb_crashpoints[i];
    bool died = die_at(p, [&] {
      put_str(db_, "old", "in place");
      put_str(db_, "fresh", "new");
      mmdb_append_replicated(db_, 3, "old", 1, "R");
      mmdb_delete(db_, "fresh", 5);
      mmdb_reset(db_);
    });
    EXPECT_TRUE(died) << p;
    mmdb_reset(db_);
    ASSERT_EQ(put_str(db_, "old", "old value", 64), MMDB_SUCCESS);
  }
}
