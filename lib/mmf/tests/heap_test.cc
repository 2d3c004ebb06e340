// Allocation, free and merging by their rules, growth, the common block, and
// a seeded random run against a model with the file validated after each step.
#include <cstring>
#include <map>
#include <random>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "mmf_fixture.h"

namespace {

using Heap = MmfTest;

std::string show(mmf *m) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&buf, &len);
  mmf_show_to(f, "t", m);
  fclose(f);
  std::string s(buf, len);
  free(buf);
  return s;
}

TEST_F(Heap, SmallRequestTakesSmallestClassRoundedTo8) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t a, b;
  ASSERT_NE(mmf_alloc(m, 1, &a), nullptr);
  EXPECT_EQ(mmf_get_user_usable_len(m, a), 64u);
  ASSERT_NE(mmf_alloc(m, 65, &b), nullptr);
  EXPECT_EQ(mmf_get_user_usable_len(m, b), 72u);
  EXPECT_EQ(b - a, 64 + 52);
  EXPECT_EQ(+m->shared_info->allocated_bytes, 116u + 124u);
  mmf_close(m);
}

TEST_F(Heap, NodeExactlyAtTheSplitBoundIsHandedOutWhole) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  // Carve a free node of exactly 104 + 116 + 200 bytes between two live ones.
  const uint32_t whole = 104 + 116 + 200;
  off_t lo, mid, hi, again;
  ASSERT_NE(mmf_alloc(m, 8, &lo), nullptr);
  ASSERT_NE(mmf_alloc(m, whole - 52, &mid), nullptr);
  ASSERT_NE(mmf_alloc(m, 8, &hi), nullptr);
  mmf_free_offset(m, mid);
  ASSERT_NE(mmf_alloc(m, 200, &again), nullptr);
  EXPECT_EQ(again, mid);
  EXPECT_EQ(mmf_get_user_usable_len(m, again), whole - 52);
  mmf_free_offset(m, again);
  // One byte of user size less leaves room to split.
  ASSERT_NE(mmf_alloc(m, 192, &again), nullptr);
  EXPECT_EQ(mmf_get_user_usable_len(m, again), 192u);
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

TEST_F(Heap, AdjacentFreesCoalesceInEitherOrder) {
  for (int order = 0; order < 2; order++) {
    mmf *m = open();
    ASSERT_NE(m, nullptr);
    off_t a, b, c;
    ASSERT_NE(mmf_alloc(m, 300, &a), nullptr);
    ASSERT_NE(mmf_alloc(m, 300, &b), nullptr);
    ASSERT_NE(mmf_alloc(m, 300, &c), nullptr);
    mmf_free_offset(m, order ? b : a);
    mmf_free_offset(m, order ? a : b);
    auto nodes = walk_nodes(m);
    ASSERT_EQ(nodes.size(), 3u);  // a+b free, c, the rest
    EXPECT_EQ(nodes[0].flags, MMF_FLAG_FREE);
    EXPECT_EQ(nodes[0].len, 2u * (304 + 52));
    EXPECT_EQ(show(m).find("should coalesce"), std::string::npos);
    mmf_free_offset(m, c);
    nodes = walk_nodes(m);
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].len, m->shared_info->current_bytes - m->shared_info->first_alloc_offset);
    EXPECT_EQ(+m->shared_info->allocated_bytes, 0u);
    EXPECT_TRUE(mmf_valid(m, false));
    mmf_destroy(m);
  }
}

TEST_F(Heap, ShowListsEveryFreeNodeByClass) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t a, b, c;
  ASSERT_NE(mmf_alloc(m, 64, &a), nullptr);
  ASSERT_NE(mmf_alloc(m, 64, &b), nullptr);
  ASSERT_NE(mmf_alloc(m, 64, &c), nullptr);
  mmf_free_offset(m, a);
  std::string s = show(m);
  EXPECT_NE(s.find(" free i 0 (  116): c         1 b       116\n"), std::string::npos) << s;
  EXPECT_NE(s.find("tfree            t c         2 b"), std::string::npos) << s;
  mmf_close(m);
}

TEST_F(Heap, GrowsOnDemandUpToMaxThenFails) {
  mmf *m = open("/mfs/var/t/heap", 256 << 10, 64 << 10, 64 << 10);
  ASSERT_NE(m, nullptr);
  std::vector<off_t> live;
  off_t off;
  while (mmf_alloc(m, 1000, &off)) {
    live.push_back(off);
    memset(mmf_user_ptr(m, off, 1000), static_cast<int>(live.size()), 1000);
  }
  EXPECT_EQ(off, 0);
  EXPECT_EQ(+m->shared_info->current_bytes, 256u << 10);
  EXPECT_EQ(+m->shared_info->grow_count, 3u);
  EXPECT_GT(live.size(), 200u);
  EXPECT_FALSE(mmf_grow(m));
  EXPECT_FALSE(mmf_try_grow(m));
  // Contents written before each growth survive the remaps.
  for (size_t i = 0; i < live.size(); i++) {
    auto *p = static_cast<uint8_t *>(mmf_user_ptr(m, live[i], 1000));
    ASSERT_EQ(p[0], static_cast<uint8_t>(i + 1));
    ASSERT_EQ(p[999], static_cast<uint8_t>(i + 1));
  }
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

TEST_F(Heap, CommonBlockInTheSlackOrTheHeap) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  uint32_t len = 0;
  off_t off;
  EXPECT_EQ(mmf_alloc_common(m, &len, &off), nullptr);
  len = 128;
  void *p = mmf_alloc_common(m, &len, &off);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(off, 0x624);
  EXPECT_EQ(+m->shared_info->allocated_bytes, 0u);  // no node
  EXPECT_EQ(walk_nodes(m).size(), 1u);
  len = 0;
  EXPECT_EQ(mmf_alloc_common(m, &len, &off), p);   // what exists
  EXPECT_EQ(len, 128u);
  mmf_destroy(m);

  m = open();
  len = 8000;  // beyond the slack: a node of its own
  p = mmf_alloc_common(m, &len, &off);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(off, static_cast<off_t>(4096 + 44));
  EXPECT_EQ(+m->shared_info->alloc_count, 1u);
  mmf_close(m);
}

TEST_F(Heap, FreeAllLeavesOneFreeSpace) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t off;
  for (int i = 0; i < 50; i++) ASSERT_NE(mmf_alloc(m, 100 + i * 30, &off), nullptr);
  mmf_free_all(m);
  EXPECT_EQ(+m->shared_info->allocated_bytes, 0u);
  EXPECT_EQ(walk_nodes(m).size(), 1u);
  EXPECT_TRUE(mmf_valid(m, false));
  ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);
  EXPECT_EQ(off, static_cast<off_t>(4096 + 44));
  mmf_close(m);
}

TEST_F(Heap, FreeOfAnOffsetThatNamesNoNodeEndsTheProcess) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t off;
  ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);
  EXPECT_DEATH(mmf_free_offset(m, off + 8), "offset");
  mmf_free_offset(m, off);
  EXPECT_DEATH(mmf_free_offset(m, off), "MMF_FLAG_FREE");
  mmf_close(m);
}

TEST_F(Heap, DamagedNodeIsRefusedByUserPointerAndByCheckedAllocation) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  off_t a, b;
  ASSERT_NE(mmf_alloc(m, 100, &a), nullptr);
  ASSERT_NE(mmf_alloc(m, 100, &b), nullptr);
  // An overrun of a's bytes into b's header.
  memset(static_cast<char *>(mmf_user_ptr(m, a, 100)) + 104, 0x5a, 24);
  EXPECT_DEATH(mmf_user_ptr(m, b, 100), "names a node");
  EXPECT_DEATH(mmf_free_offset(m, b), "off == n->offset");
  EXPECT_FALSE(mmf_valid(m, false));
  mmf_set_debug(MMF_DEBUG_VALIDATE_ALLOC);
  off_t c;
  EXPECT_EQ(mmf_alloc(m, 100, &c), nullptr);
  EXPECT_EQ(c, 0);
  mmf_set_debug(0);
  mmf_close(m);
}

// Random allocations and frees against a model of the live blocks: blocks
// never overlap, their contents survive every other operation, and the file
// validates after each step.
void random_run(mmf *m) {
  std::mt19937 rng(24);
  std::map<off_t, std::pair<uint32_t, uint8_t>> live;  // offset -> size, fill byte
  uint64_t model_bytes = 0;
  for (int step = 0; step < 4000; step++) {
    bool do_alloc = live.empty() || rng() % 100 < 55;
    if (do_alloc) {
      uint32_t size = rng() % 4 == 0 ? 1 + rng() % 3000 : 1 + rng() % 300;
      off_t off;
      void *p = mmf_alloc(m, size, &off);
      if (!p) {
        ASSERT_EQ(off, 0);
        continue;
      }
      ASSERT_GE(mmf_get_user_usable_len(m, off), size);
      auto next = live.lower_bound(off);
      if (next != live.end()) {
        ASSERT_LE(off + static_cast<off_t>(size), next->first) << step;
      }
      if (next != live.begin()) {
        auto prev = std::prev(next);
        ASSERT_LE(prev->first + static_cast<off_t>(prev->second.first), off) << step;
      }
      uint8_t fill = static_cast<uint8_t>(rng());
      p = mmf_user_ptr(m, off, size);  // in region mode the checks above may have moved it
      memset(p, fill, size);
      live[off] = {size, fill};
      model_bytes += mmf_get_user_usable_len(m, off) + mmf_node_bytes;
    } else {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      auto *p = static_cast<uint8_t *>(mmf_user_ptr(m, it->first, it->second.first));
      for (uint32_t i = 0; i < it->second.first; i++) ASSERT_EQ(p[i], it->second.second) << step;
      model_bytes -= mmf_get_user_usable_len(m, it->first) + mmf_node_bytes;
      mmf_free_offset(m, it->first);
      live.erase(it);
    }
    ASSERT_TRUE(mmf_valid(m, false)) << step;
    if (step % 50 == 0) {
      for (auto &[o, v] : live) {
        auto *q = static_cast<uint8_t *>(mmf_user_ptr(m, o, v.first));
        for (uint32_t i = 0; i < v.first; i++) ASSERT_EQ(q[i], v.second) << step << " at " << o + i;
      }
    }
    ASSERT_EQ(+m->shared_info->allocated_bytes, model_bytes) << step;
  }
  for (auto &[off, v] : live) {
    auto *p = static_cast<uint8_t *>(mmf_user_ptr(m, off, v.first));
    ASSERT_EQ(p[v.first - 1], v.second);
    mmf_free_offset(m, off);
  }
  auto nodes = walk_nodes(m);
  for (size_t i = 1; i < nodes.size(); i++)
    EXPECT_FALSE(nodes[i - 1].flags & nodes[i].flags & MMF_FLAG_FREE) << "adjacent free nodes at " << i;
  EXPECT_EQ(+m->shared_info->allocated_bytes, 0u);
}

TEST_F(Heap, RandomRunAgainstModel) {
  mmf *m = open("/mfs/var/t/heap", 2 << 20, 64 << 10, 64 << 10);
  ASSERT_NE(m, nullptr);
  random_run(m);
  mmf_close(m);
}

// The same in region mode with three 8 KiB regions mapped at most: nodes
// straddle borders and every mapping may evict the one a pointer was in.
TEST_F(Heap, RandomRunAgainstModelInRegionMode) {
  mmf *m = mmf_create("/mfs/var/t/heap", 2 << 20, 64 << 10, 8 << 10, false, 8 << 10, 3, 3, kSizes, 0, nullptr);
  ASSERT_NE(m, nullptr);
  random_run(m);
  EXPECT_LE(m->mapped_bytes, 3 * (8 << 10));
  mmf_close(m);
}

}  // namespace

namespace {

// A control file whose nodes name data in another file, and both emptied by
// the paired free.
TEST_F(Heap, ControlNodesNameDataInAnotherFile) {
  mmf *c = open("/mfs/var/t/control");
  mmf *d = open("/mfs/var/t/data");
  ASSERT_NE(c, nullptr);
  ASSERT_NE(d, nullptr);
  std::vector<off_t> offs;
  for (int i = 0; i < 30; i++) {
    off_t off;
    auto *p = static_cast<char *>(mmf_alloc2(c, d, 500, &off));
    ASSERT_NE(p, nullptr);
    snprintf(p, 500, "record %d", i);
    offs.push_back(off);
  }
  EXPECT_EQ(c->shared_info->alloc_count, 30u);
  EXPECT_EQ(d->shared_info->alloc_count, 30u);
  for (int i = 0; i < 30; i++)
    EXPECT_STREQ(static_cast<char *>(mmf_ensure_mapped2(c, d, offs[i], 500)), ("record " + std::to_string(i)).c_str());
  EXPECT_TRUE(mmf_valid(c, false));
  EXPECT_TRUE(mmf_valid(d, false));
  // A plain offset of the control file is not a control node.
  off_t plain;
  ASSERT_NE(mmf_alloc(c, 8, &plain), nullptr);
  EXPECT_DEATH(mmf_ensure_mapped2(c, d, plain, 8), "MMF_FLAG_DATA_OTHER_MMF");
  mmf_free_offset(c, plain);
  // Every other first: freed control nodes between live ones stay unmerged.
  for (size_t i = 0; i < offs.size(); i += 2) mmf_free_offset2(c, d, offs[i]);
  EXPECT_TRUE(mmf_valid(c, false));
  for (size_t i = 1; i < offs.size(); i += 2) mmf_free_offset2(c, d, offs[i]);
  EXPECT_EQ(+c->shared_info->allocated_bytes, 0u);
  EXPECT_EQ(+d->shared_info->allocated_bytes, 0u);
  EXPECT_EQ(walk_nodes(c).size(), 1u);
  EXPECT_EQ(walk_nodes(d).size(), 1u);
  EXPECT_TRUE(mmf_valid(c, false));
  mmf_close(d);
  mmf_close(c);
}

}  // namespace

// A process whose mapping trails another's growth judges the file by the
// file, not by its own stale view, also where a node merged across the end
// of that view.
TEST_F(Heap, ValidAfterAnotherProcessGrewTheFile) {
  mmf *m = open();
  ASSERT_NE(m, nullptr);
  int64_t before = m->mapped_bytes;
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<off_t> offs(200);
    for (off_t &off : offs)
      if (!mmf_alloc(m, 1000, &off)) _exit(1);
    for (off_t off : offs) mmf_free_offset(m, off);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_GT(static_cast<int64_t>(m->shared_info->current_bytes), before);
  EXPECT_EQ(m->mapped_bytes, before);  // nothing of ours has mapped since
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}
