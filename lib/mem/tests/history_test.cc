// The allocation history ring.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <string>

#include "mem/block.h"
#include "mem/leak.h"
#include "mem/mem.h"
#include "platform/path.h"

TEST(History, MissesBeforeTheRingThenWrapsOverSlotZero) {
  ASSERT_EQ(task_memory_init(nullptr), 0);
  uint64_t misses = task_mem_history_misses();
  tvx_fd_free(tvx_fd_malloc(10));
  EXPECT_GE(task_mem_history_misses(), misses + 2);

  // Every allocation of the process is recorded: make the block first, and
  // between records call nothing that allocates.
  task_block *bp = task_block_init(16, "hist");
  task_mem_history_init(4, false);
  void *a = task_block_alloc(bp);       // seq 0
  task_block_free(bp, a);               // seq 1
  task_mem_history_add(a, 16, 'A', 'c', 7);  // seq 2
  ASSERT_EQ(task_mem_history_count(), 3u);
  const task_mem_history *r = task_mem_history_get(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->tmh_type, 'A');
  EXPECT_EQ(r->tmh_class, 'b');
  EXPECT_EQ(r->tmh_id, bp->tb_id);
  EXPECT_EQ(r->tmh_ptr, a);
  EXPECT_NE(r->tmh_bt[0], nullptr);
  EXPECT_EQ(task_mem_history_get(1)->tmh_type, 'F');
  task_mem_history_add(a, 1, 'F', 'c', 8);  // seq 3
  task_mem_history_add(a, 2, 'A', 'c', 9);  // seq 4: slot 0 again
  EXPECT_EQ(task_mem_history_get(0), nullptr);
  EXPECT_EQ(task_mem_history_get(4)->tmh_id, 9u);
  EXPECT_EQ(task_mem_history_get(5), nullptr);
  task_mem_history_init(0, false);
}

TEST(History, WrapDumpWritesTheWholeRingFirst) {
  ASSERT_EQ(task_memory_init(nullptr), 0);
  char tmpl[] = "/tmp/histXXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  tvx_path_set_root(tmpl);
  ASSERT_EQ(system((std::string("mkdir -p ") + tmpl + "/var/log").c_str()), 0);
  task_mem_history_init(3, true);
  for (uint32_t i = 0; i < 3; i++) task_mem_history_add(nullptr, i, 'A', 'c', 100 + i);
  task_mem_history_add(nullptr, 3, 'A', 'c', 103);  // the wrap: dump, then overwrite
  std::string path = std::string(tmpl) + "/var/log/dbgtrace_" + program_invocation_short_name + "_default." +
                     std::to_string(getpid()) + ".0.gz";
  gzFile f = gzopen(path.c_str(), "rb");
  ASSERT_NE(f, nullptr) << path;
  char buf[4096] = {};
  int n = gzread(f, buf, sizeof buf - 1);
  gzclose(f);
  std::string text(buf, n > 0 ? n : 0);
  EXPECT_NE(text.find("id 100"), std::string::npos) << text;
  EXPECT_NE(text.find("id 102"), std::string::npos);
  EXPECT_EQ(text.find("id 103"), std::string::npos);
  task_mem_history_init(0, false);
  tvx_path_set_root(nullptr);
  ASSERT_EQ(system((std::string("rm -rf ") + tmpl).c_str()), 0);
}
