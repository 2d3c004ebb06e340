// Region mode: nodes across a region border, the bound on what is mapped,
// and agreement with a handle that maps the whole file.
#include <cstring>

#include "mmf_fixture.h"

namespace {

using Region = MmfTest;
constexpr int64_t kRegion = 16 << 10;

mmf *open_regions(uint32_t max_mapped) {
  return mmf_create("/mfs/var/t/heap", 1 << 20, 64 << 10, kRegion, false, kRegion, max_mapped, 3,
                    MmfTest::kSizes, 0, nullptr);
}

TEST_F(Region, NodeAcrossABorderIsOneDoubleMappingSeenWholeByOtherHandles) {
  mmf *m = open_regions(3);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->region_shift, 14u);
  EXPECT_EQ(m->regions, 64u);
  // 1000-byte blocks from 4096 on: one of them crosses 16384.
  off_t off = 0, straddler = 0;
  for (int i = 0; i < 20 && !straddler; i++) {
    ASSERT_NE(mmf_alloc(m, 1000, &off), nullptr);
    if (off / kRegion != (off + 999) / kRegion) straddler = off;
  }
  ASSERT_NE(straddler, 0);
  auto *p = static_cast<uint8_t *>(mmf_user_ptr(m, straddler, 1000));
  for (int i = 0; i < 1000; i++) p[i] = static_cast<uint8_t>(i * 7);
  uint64_t s = static_cast<uint64_t>(straddler) / kRegion, e = s + 1;
  ASSERT_NE(m->region_table[s].entry, nullptr);
  EXPECT_EQ(m->region_table[e].entry, m->region_table[s].entry);
  EXPECT_EQ(m->region_table[e].bytes, kRegion);
  EXPECT_EQ(m->region_table[e].ptr, m->region_table[s].ptr + (e * kRegion - m->region_table[s].entry->start));
  EXPECT_TRUE(mmf_valid(m, false));

  mmf *whole = open();
  ASSERT_NE(whole, nullptr);
  auto *q = static_cast<uint8_t *>(mmf_user_ptr(whole, straddler, 1000));
  for (int i = 0; i < 1000; i++) ASSERT_EQ(q[i], static_cast<uint8_t>(i * 7)) << i;
  mmf_close(whole);
  mmf_close(m);
}

TEST_F(Region, MappingBeyondTheBudgetEvictsTheOldest) {
  mmf *m = open_regions(2);
  ASSERT_NE(m, nullptr);
  mmf_shared_info_t *si = m->shared_info;
  ASSERT_GE(+si->current_bytes, 4u * kRegion);
  // Touch regions 1, 2, 3 one after the other, a node header's worth each.
  char *r1 = static_cast<char *>(mmf_ensure_mapped(m, kRegion, 52));
  char *r2 = static_cast<char *>(mmf_ensure_mapped(m, 2 * kRegion, 52));
  ASSERT_NE(r1, nullptr);
  ASSERT_NE(r2, nullptr);
  EXPECT_NE(m->region_table[1].ptr, nullptr);
  EXPECT_NE(m->region_table[2].ptr, nullptr);
  EXPECT_EQ(static_cast<char *>(mmf_ensure_mapped(m, kRegion + 100, 8)), r1 + 100);  // no new mapping
  ASSERT_NE(mmf_ensure_mapped(m, 3 * kRegion, 52), nullptr);
  EXPECT_EQ(m->region_table[1].ptr, nullptr);
  EXPECT_NE(m->region_table[2].ptr, nullptr);
  EXPECT_NE(m->region_table[3].ptr, nullptr);
  EXPECT_LE(m->mapped_bytes, 2 * kRegion);
  EXPECT_EQ(m->mapped_list->slot, 2u);  // oldest first
  EXPECT_EQ(m->mapped_list_tail->slot, 3u);
  mmf_close(m);
}

TEST_F(Region, RegionTooSmallForTheLargestNodeIsRefused) {
  EXPECT_DEATH(mmf_create("/mfs/var/t/heap", 1 << 20, 64 << 10, 2048, false, 2048, 4, 3, kSizes, 0, nullptr),
               "region_map_bytes");
}

}  // namespace
