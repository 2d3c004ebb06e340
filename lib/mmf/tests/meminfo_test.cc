// The memory report: records written by the files' own paths, kept per name,
// checked and reset at first use, shared between processes.
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>

#include "mmf/meminfo.h"
#include "mmf_fixture.h"

namespace {

using Meminfo = MmfTest;

// name -> payload of every mmf record, through the reader.
std::map<std::string, meminfo_mmf_payload_t> records() {
  std::map<std::string, meminfo_mmf_payload_t> out;
  meminfo_reader *r = meminfo_reader_create();
  if (!r) return out;
  while (const meminfo_record_t *rec = meminfo_reader_next(r, MEMINFO_TYPE_MMF)) {
    meminfo_mmf_payload_t p;
    memcpy(&p, meminfo_payload(rec), sizeof p);
    out[p.name] = p;
  }
  meminfo_reader_delete(r);
  return out;
}

meminfo_header_t header_copy() {
  meminfo_header_t h{};
  meminfo_reader *r = meminfo_reader_create();
  if (r) {
    h = *r->header;
    meminfo_reader_delete(r);
  }
  return h;
}

TEST_F(Meminfo, OpenAndGrowWriteOneRecordPerFile) {
  mmf *a = open("/mfs/var/t/a");
  mmf *b = open("/mfs/var/t/b");
  ASSERT_TRUE(a && b);
  auto recs = records();
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_EQ(recs["/mfs/var/t/a"].current_bytes, 64u << 10);
  EXPECT_EQ(recs["/mfs/var/t/a"].pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(recs["/mfs/var/t/b"].max_bytes, 1u << 20);
  ASSERT_TRUE(mmf_grow(a));
  EXPECT_EQ(records()["/mfs/var/t/a"].current_bytes, 128u << 10);
  // A reopen (and a new handle with no cached offset) updates the same record.
  mmf_close(b);
  b = open("/mfs/var/t/b");
  meminfo_header_t h = header_copy();
  EXPECT_EQ(h.record_count, 2u);
  EXPECT_EQ(h.bytes_free, h.data_size - 2 * (156 + 16));
  EXPECT_GE(h.write_count, 4u);
  mmf_close(a);
  mmf_close(b);
}

TEST_F(Meminfo, RecordAskingForReportsIsKeptCurrentEveryThousandLocks) {
  mmf *a = open("/mfs/var/t/a");
  ASSERT_TRUE(a);
  uint64_t base = a->shared_info->lock_count;
  for (int i = 0; i < 2000; i++) {
    mmf_lock(a);
    mmf_unlock(a);
  }
  // Not asked for: the record keeps its figures from the open.
  EXPECT_LT(records()["/mfs/var/t/a"].lock_count, base + 10);
  ASSERT_TRUE(meminfo_set_report(MEMINFO_TYPE_MMF, "/mfs/var/t/a", true));
  EXPECT_FALSE(meminfo_set_report(MEMINFO_TYPE_MMF, "/mfs/var/t/none", true));
  for (int i = 0; i < 1000; i++) {
    mmf_lock(a);
    mmf_unlock(a);
  }
  auto p = records()["/mfs/var/t/a"];
  EXPECT_GE(p.lock_count, base + 2000);
  EXPECT_EQ(p.lock_count % 1000, 0u);
  EXPECT_TRUE(p.flags & MEMINFO_REC_REPORT);  // the writer keeps the reader's flag
  mmf_close(a);
}

// Damage of several kinds, each found at a process's first use and reset,
// the reason and the pid kept in the history.
TEST_F(Meminfo, DamagedReportIsResetWithItsHistoryKept) {
  mmf *a = open("/mfs/var/t/a");
  ASSERT_TRUE(a);
  mmf_close(a);
  meminfo_close();
  mmf *rep = mmf_open_existing(MEMINFO_NAME);
  ASSERT_TRUE(rep);
  uint64_t common = rep->shared_info->common_offset;
  mmf_close(rep);
  struct damage {
    uint64_t at;
    uint32_t value;
  } cases[] = {
      {offsetof(meminfo_header_t, version), 7},
      {offsetof(meminfo_header_t, record_count), 5},         // count and chain disagree
      {MEMINFO_HEADER_SIZE + 4, 9},                           // the record's type
      {MEMINFO_HEADER_SIZE + 8, MEMINFO_HEADER_SIZE},         // its chain points at itself
      {MEMINFO_HEADER_SIZE, 12},                              // a record too short
  };
  uint32_t resets = 0;
  for (const damage &d : cases) {
    SCOPED_TRACE(d.at);
    poke(common + d.at, &d.value, 4, MEMINFO_NAME);
    a = open("/mfs/var/t/a");  // first use in this process: checked
    ASSERT_TRUE(a);
    meminfo_header_t h = header_copy();
    EXPECT_EQ(h.resets, ++resets);
    EXPECT_EQ(h.reset_history[0].pid, static_cast<uint32_t>(getpid()));
    EXPECT_NE(h.reset_history[0].line, 0u);
    EXPECT_EQ(h.record_count, 1u);  // the reset emptied it; the open wrote a's again
    EXPECT_EQ(records().count("/mfs/var/t/a"), 1u);
    mmf_close(a);
    meminfo_close();
  }
}

TEST_F(Meminfo, FullReportDropsNewRecordsButUpdatesOldOnes) {
  mmf *a = open("/mfs/var/t/a");
  ASSERT_TRUE(a);
  meminfo_mmf_payload_t p = {};
  int added = 0;
  for (int i = 0; i < 1000; i++) {
    snprintf(p.name, sizeof p.name, "/mfs/var/t/fake%d", i);
    if (!meminfo_update(MEMINFO_TYPE_MMF, p.name, &p, sizeof p, nullptr)) break;
    added++;
  }
  meminfo_header_t h = header_copy();
  EXPECT_EQ(added + 1u, h.record_count);
  EXPECT_EQ(h.record_count, h.data_size / 172);
  EXPECT_LT(h.bytes_free, 172u);
  EXPECT_TRUE(mmf_grow(a));  // an existing record still takes updates
  EXPECT_EQ(records()["/mfs/var/t/a"].current_bytes, 128u << 10);
  mmf_close(a);
}

TEST_F(Meminfo, ProcessesShareOneReport) {
  mmf *a = open("/mfs/var/t/a");
  ASSERT_TRUE(a);
  pid_t child = fork();
  if (child == 0) {
    mmf *b = open("/mfs/var/t/b");
    _exit(b && mmf_grow(b) ? 0 : 1);
  }
  int st;
  ASSERT_EQ(waitpid(child, &st, 0), child);
  ASSERT_EQ(WEXITSTATUS(st), 0);
  auto recs = records();
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_EQ(recs["/mfs/var/t/b"].pid, static_cast<uint32_t>(child));
  EXPECT_EQ(recs["/mfs/var/t/b"].current_bytes, 128u << 10);
  EXPECT_EQ(recs["/mfs/var/t/a"].pid, static_cast<uint32_t>(getpid()));
  mmf_close(a);
}

}  // namespace
