// The memory reports, read back: each figure against the counters it shows,
// and each total against its rows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "../src/internal.h"
#include "mem/leak.h"
#include "mem/pool.h"

namespace {

std::vector<std::string> run(void (*report)(FILE *)) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&buf, &len);
  report(f);
  fclose(f);
  std::vector<std::string> lines;
  std::istringstream in(std::string(buf, len));
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  free(buf);
  return lines;
}

size_t find(const std::vector<std::string> &lines, const std::string &prefix, size_t from = 0) {
  for (size_t i = from; i < lines.size(); i++)
    if (lines[i].rfind(prefix, 0) == 0) return i;
  return std::string::npos;
}

unsigned long field(const std::string &line, int n) {
  std::istringstream in(line);
  std::string w;
  for (int i = 0; i <= n; i++) in >> w;
  return strtoul(w.c_str(), nullptr, 10);
}

class MemReport : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(task_memory_init(nullptr), 0); }
};

}  // namespace

TEST_F(MemReport, BlockRowsShowTheirCounters) {
  task_block *bp = task_block_init(100, "report_blk");
  task_block *pooled = task_block_init_flags(64, "report_pooled", TASK_BLOCK_LOCAL_POOL);
  void *o[3];
  for (void *&p : o) p = task_block_alloc(bp);
  task_block_free(bp, o[2]);
  void *q = task_block_alloc(pooled);
  task_block_free(pooled, q);  // waits in the thread's local pool

  std::vector<std::string> lines = run(task_mgmt_show_mem_internals);
  size_t head = find(lines, "------------------------ Allocator Memory Report");
  ASSERT_NE(head, std::string::npos);
  size_t row = find(lines, "report_blk ", head);
  ASSERT_NE(row, std::string::npos);
  unsigned long real = bp->tb_real_size;
  char want[256];
  snprintf(want, sizeof want, "%-22s %-5u %-7lu %-6c %-9lu %-9lu %-9lu %-9lu {%lu}", "report_blk", 100u, real, ' ', 2ul,
           2 * real, 3ul, 3 * real, 4ul);
  EXPECT_EQ(lines[row], want);
  snprintf(want, sizeof want, " [%03d %-15.15s [%-5u %-6lu] %-6s %-9ld %-9ld %-9ld %-9ld [%-9ld]]", 0, "report_blk", 100u,
           real, "", 2l, static_cast<long>(2 * real), 3l, static_cast<long>(3 * real), 4l);
  EXPECT_EQ(lines[row + 1], want);

  row = find(lines, "report_pooled ", head);
  ASSERT_NE(row, std::string::npos);
  EXPECT_EQ(field(lines[row], 3), 1u);  // a pooled object still counts as allocated
  ASSERT_EQ(lines[row + 2].rfind(" {000 report_pooled", 0), 0u) << lines[row + 2];
  EXPECT_NE(lines[row + 2].find("] P      1         " + std::to_string(pooled->tb_real_size) + " "), std::string::npos)
      << lines[row + 2];

  // The closing total is the sum of the rows' bytes and high-water bytes.
  size_t end = find(lines, "-------------------------------------------------------------------------", head + 1);
  ASSERT_NE(end, std::string::npos);
  unsigned long bytes = 0, high = 0;
  for (size_t i = head + 3; i < end; i++)
    if (lines[i][0] != ' ') {
      unsigned long allocs, b, allocs_hw, h;
      ASSERT_EQ(sscanf(lines[i].c_str() + 44, "%lu %lu %lu %lu", &allocs, &b, &allocs_hw, &h), 4) << lines[i];
      bytes += b;
      high += h;
    }
  EXPECT_EQ(field(lines[end + 1], 0), bytes);
  EXPECT_EQ(field(lines[end + 1], 1), high);
  for (int i = 0; i < 2; i++) task_block_free(bp, o[i]);
}

TEST_F(MemReport, PoolAndMallocReports) {
  task_lite_pool *pool = task_lite_mpool("report_pool");
  task_lite_malloc(pool, 3000);
  task_lite_malloc(pool, 3000);
  task_mem_cookie *c = task_mem_cookie_get("report_cookie");
  void *a = task_cookie_malloc(c, 1000);
  void *b = task_cookie_malloc(c, 5000);
  void *gone = task_cookie_malloc(c, 10);
  unsigned long gone_size = mem_obtained(gone);
  task_cookie_free(c, gone);
  unsigned long obtained = mem_obtained(a) + mem_obtained(b);
  unsigned long peak = obtained + gone_size;

  std::vector<std::string> lines = run(task_mgmt_show_mem_internals);
  size_t ph = find(lines, "-------------------------- Pool Usage Report");
  ASSERT_NE(ph, std::string::npos);
  EXPECT_EQ(lines[ph + 1], "Name                      Pages     Bytes MaxPages  MaxBytes ");
  size_t row = find(lines, "report_pool", ph);
  ASSERT_NE(row, std::string::npos);
  char want[256];
  snprintf(want, sizeof want, "%-26s  %-8d %-8d %-8d %-8d ", "report_pool", 2, 8192, 2, 8192);
  EXPECT_EQ(lines[row], want);
  size_t per_thread = find(lines, " [000 --Pool--", ph);
  ASSERT_NE(per_thread, std::string::npos);
  EXPECT_GE(field(lines[per_thread], 3), 8192u);

  size_t mh = find(lines, "-------------------------- Malloc Usage Report");
  ASSERT_NE(mh, std::string::npos);
  row = find(lines, "report_cookie", mh);
  ASSERT_NE(row, std::string::npos);
  snprintf(want, sizeof want, "%-26s %-8d %-8lu %-8d %-8lu %-8d {%lu}", "report_cookie", 2, obtained, 3, peak, 4,
           static_cast<unsigned long>(c->tmc_id));
  EXPECT_EQ(lines[row], want);
  snprintf(want, sizeof want, " [%03d %-20s %-8d %-8lu %-8d %-8lu %-8d [%-8d %-8lu] ]", 0, "report_cookie", 2, obtained, 3,
           peak, 4, 1, gone_size);
  EXPECT_EQ(lines[row + 1], want);
  EXPECT_NE(find(lines, "--libc--", mh), std::string::npos);

  // The malloc total is the sum of the cookie rows, and the run's totals are kept.
  unsigned long bytes = 0, high = 0;
  size_t total = lines.size() - 1;
  for (size_t i = mh + 2; i < total; i++)
    if (lines[i][0] != ' ') {
      bytes += field(lines[i], 2);
      high += field(lines[i], 4);
    }
  EXPECT_EQ(field(lines[total], 0), bytes);
  EXPECT_EQ(field(lines[total], 1), high);
  size_t ah = find(lines, "------------------------ Allocator Memory Report");
  size_t aend = find(lines, "-------------------------------------------------------------------------", ah + 1);
  task_mem_info *info = task_mem_info_get();
  EXPECT_EQ(info->task_mem_total_bytes, field(lines[aend + 1], 0) + bytes);
  EXPECT_EQ(info->task_mem_total_max_bytes, field(lines[aend + 1], 1) + high);

  task_cookie_free(c, a);
  task_cookie_free(c, b);
  task_lite_mdestroy(pool);
}

TEST_F(MemReport, FragmentationAgreesWithItself) {
  std::vector<void *> keep;
  for (int i = 0; i < 4000; i++) keep.push_back(task_cookie_malloc(task_mem_anonymous_cookie, 100 + i % 700));
  for (size_t i = 0; i < keep.size(); i += 2) task_cookie_free(task_mem_anonymous_cookie, keep[i]);

  std::vector<std::string> lines = run(task_mgmt_show_mem_fragmentation);
  size_t head = find(lines, "Allocator fragmentation summary:");
  ASSERT_NE(head, std::string::npos);
  size_t total_pages = 0, arena_pages = 0;
  int arenas = 0;
  for (size_t i = head + 1; i < lines.size(); i++) {
    char name[64];
    size_t pages;
    double needed, frag;
    const char *l = lines[i].c_str();
    const char *colon = strchr(l, ':');
    ASSERT_NE(colon, nullptr) << l;
    snprintf(name, sizeof name, "%.*s", static_cast<int>(colon - l), l);
    ASSERT_EQ(sscanf(colon, ": pages in use %zu pages needed %lf\tfragmentation %lf%%", &pages, &needed, &frag), 3)
        << l;
    EXPECT_LE(needed, static_cast<double>(pages)) << l;
    EXPECT_NEAR(frag, pages ? 100.0 * (1.0 - needed / pages) : 0.0, 0.01) << l;
    if (strcmp(name, "jemalloc") == 0) {
      total_pages = pages;
    } else {
      EXPECT_EQ(strncmp(name, "jemalloc arena ", 15), 0) << l;
      arena_pages += pages;
      arenas++;
    }
  }
  EXPECT_GT(total_pages, 0u);
  EXPECT_GE(arenas, 1);
  EXPECT_EQ(arena_pages, total_pages);
  for (size_t i = 1; i < keep.size(); i += 2) task_cookie_free(task_mem_anonymous_cookie, keep[i]);
}
