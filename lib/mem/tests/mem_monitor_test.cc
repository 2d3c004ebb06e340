// The memory-high check and the available-memory query, with the vector's
// page count and the machine's memory under the test's control.
#include <gtest/gtest.h>

#include <cstdlib>

#include "../src/internal.h"
#include "evlog/evlog.h"
#include "mem/leak.h"

namespace {

uint64_t fake_pages = 0;
int fake_status(task_mem_status *st) {
  *st = task_mem_status{};
  st->tms_pages = fake_pages;
  return 0;
}
task_mem_vector fake;

class MemMonitor : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(task_memory_init(nullptr), 0);
    // The jemalloc vector with a page count the test decides.
    fake = mem_jemalloc_vector;
    fake.tmv_status = fake_status;
    task_mem_vector_set(&fake, TASK_MEM_VECTOR_JEMALLOC);
    ASSERT_EQ(task_mem_call_vector_select(), 0);
    setenv("TVX_SYSCTL_HW_512BMEM", "8192", 1);  // 4 MiB of memory
  }
  void TearDown() override {
    task_mem_vector_set(&mem_jemalloc_vector, TASK_MEM_VECTOR_JEMALLOC);
    task_mem_call_vector_select();
    unsetenv("TVX_SYSCTL_HW_512BMEM");
    evlog_capture_stop();
  }
  // The events one check logs.
  std::vector<evlog_record> check(uint64_t pages) {
    fake_pages = pages;
    evlog_capture &cap = evlog_capture_start();
    task_memory_timeout();
    std::vector<evlog_record> r = cap.records;
    evlog_capture_stop();
    return r;
  }
};

}  // namespace

TEST_F(MemMonitor, AvailableMemoryFromTheSysctl) {
  EXPECT_EQ(task_get_available_mem_internal(), 4194304u);
  setenv("TVX_SYSCTL_HW_512BMEM", "17179869184", 1);  // 8 TiB: needs 8 bytes
  EXPECT_EQ(task_get_available_mem_internal(), 17179869184ull * 512);

  evlog_capture &cap = evlog_capture_start();
  setenv("TVX_SYSCTL_HW_512BMEM", "lots", 1);
  EXPECT_EQ(task_get_available_mem_internal(), 0u);
  setenv("TVX_SYSCTL_HW_512BMEM", "0", 1);
  EXPECT_EQ(task_get_available_mem_internal(), 0u);
  ASSERT_EQ(cap.records.size(), 2u);
  EXPECT_EQ(cap.records[0].text, "task_get_available_mem_internal: sysctl(hw.512bmem): Invalid argument");
  EXPECT_EQ(cap.records[1].text, "task_get_available_mem_internal: sysctl(hw.512bmem) returned 0 chunks");
}

TEST_F(MemMonitor, ReportsEachRiseOnce) {
  task_mem_info *info = task_mem_info_get();
  ASSERT_EQ(info->task_mem_high_percent, 50u);
  ASSERT_EQ(info->task_mem_high_step, 5u);
  EXPECT_TRUE(check(400).empty());  // 39 percent: below the threshold
  std::vector<evlog_record> r = check(512);
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].tag, "ZTASK_OS_MEMHIGH");
  EXPECT_EQ(r[0].text, "ZTASK_OS_MEMHIGH: Using 2048 KB of memory, 50 percent of available");
  EXPECT_EQ(info->task_pages_reported, 512u);
  EXPECT_TRUE(check(512).empty());  // no rise
  EXPECT_TRUE(check(560).empty());  // 54 percent: not a step more
  r = check(600);
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].text, "ZTASK_OS_MEMHIGH: Using 2400 KB of memory, 58 percent of available");
  EXPECT_TRUE(check(300).empty());  // falling says nothing
  EXPECT_TRUE(check(620).empty());
  EXPECT_EQ(check(680).size(), 1u);  // 66 percent
  EXPECT_EQ(info->task_pages_in_use, 680u);
  EXPECT_EQ(info->task_mem_available, 4194304u);
}

TEST_F(MemMonitor, ThresholdsAreRunTimeValues) {
  task_mem_info *info = task_mem_info_get();
  info->task_mem_high_percent = 10;
  info->task_mem_high_step = 1;
  std::vector<evlog_record> r = check(103);
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].text, "ZTASK_OS_MEMHIGH: Using 412 KB of memory, 10 percent of available");
  EXPECT_EQ(check(113).size(), 1u);
  EXPECT_TRUE(check(115).empty());
}

TEST_F(MemMonitor, UnknownMemoryReportsNothing) {
  setenv("TVX_SYSCTL_HW_512BMEM", "0", 1);
  std::vector<evlog_record> r = check(100000);
  ASSERT_EQ(r.size(), 1u);  // only the sysctl's complaint
  EXPECT_EQ(r[0].text.rfind("task_get_available_mem_internal:", 0), 0u);
  EXPECT_EQ(task_mem_info_get()->task_pages_reported, 0u);
}
