// The file format in golden bytes: what a fresh file and its first
// allocation put on disk, read back without the library.
#include <cstring>

#include "mmf_fixture.h"

namespace {

uint32_t u32(const std::vector<uint8_t> &b, size_t at) {
  uint32_t v;
  memcpy(&v, &b[at], 4);
  return v;
}
uint64_t u64(const std::vector<uint8_t> &b, size_t at) {
  uint64_t v;
  memcpy(&v, &b[at], 8);
  return v;
}
std::vector<uint8_t> le(std::initializer_list<std::pair<uint64_t, int>> fields) {
  std::vector<uint8_t> v;
  for (auto [val, width] : fields)
    for (int i = 0; i < width; i++) v.push_back(static_cast<uint8_t>(val >> (8 * i)));
  return v;
}

using Format = MmfTest;

TEST_F(Format, FreshFileHeaderAndFirstNodeOnDisk) {
  bool created = false;
  mmf *m = open("/mfs/var/t/heap", 1 << 20, 64 << 10, 64 << 10, 0, &created);
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(created);
  off_t off = 0;
  ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);
  auto b = bytes();
  ASSERT_EQ(b.size(), 65536u);
  EXPECT_EQ(u32(b, 0x000), 0u);              // lock word free
  EXPECT_EQ(u32(b, 0x00c), 0u);
  EXPECT_EQ(u32(b, 0x018), 4u);
  EXPECT_EQ(u32(b, 0x01c), 0x624u);
  EXPECT_EQ(u32(b, 0x020), 0xABCD1234u);
  EXPECT_EQ(u64(b, 0x024), 65536u);
  EXPECT_EQ(b[0x02c], 4);                    // three classes and the top one
  EXPECT_EQ(u64(b, 0x034), 156u);            // allocated bytes
  EXPECT_EQ(u32(b, 0x03c), 1u);
  EXPECT_EQ(u32(b, 0x044), 64u + 52);
  EXPECT_EQ(u32(b, 0x048), 256u + 52);
  EXPECT_EQ(u32(b, 0x04c), 1024u + 52);
  EXPECT_EQ(u32(b, 0x050), 1025u + 52);
  EXPECT_EQ(u32(b, 0x144 + 3 * 4), 1u);      // the allocation came from the top class
  EXPECT_EQ(u64(b, 0x344 + 3 * 8), 4096u + 156);  // the remainder heads the top class
  EXPECT_EQ(u64(b, 0x550), 4096u);
  EXPECT_EQ(b[0x558], 0);                    // shared flag
  EXPECT_EQ(b[0x620], 1);                    // created flag
  EXPECT_EQ(off, 4096 + 44);

  auto node = le({{4096, 8}, {0x11112222, 4}, {0, 4}, {156, 4}, {4140, 8}, {0, 8}, {0, 8}});
  EXPECT_EQ(std::vector<uint8_t>(b.begin() + 4096, b.begin() + 4096 + 44), node);
  auto trailer = le({{0x77778888, 4}, {156, 4}});
  EXPECT_EQ(std::vector<uint8_t>(b.begin() + 4096 + 148, b.begin() + 4096 + 156), trailer);
  auto rest = le({{4252, 8}, {0x11112222, 4}, {1, 4}, {65536 - 4252, 4}, {4252 + 44, 8}, {0, 8}, {0, 8}});
  EXPECT_EQ(std::vector<uint8_t>(b.begin() + 4252, b.begin() + 4252 + 44), rest);
  EXPECT_EQ(std::vector<uint8_t>(b.end() - 8, b.end()), le({{0x77778888, 4}, {65536 - 4252, 4}}));
  mmf_close(m);
}

TEST_F(Format, ClassTableSortedWithTopClassAndCallerSizesBack) {
  const uint32_t sizes[] = {500, 40, 2000};
  mmf *m = mmf_create("/mfs/var/t/c", 1 << 20, 64 << 10, 64 << 10, true, 0, 1, 3, sizes, 0, nullptr);
  ASSERT_NE(m, nullptr);
  const mmf_shared_info_t *si = m->shared_info;
  ASSERT_EQ(+si->num_alloc_sizes, 4);
  EXPECT_EQ(+si->alloc_sizes[0], 92u);
  EXPECT_EQ(+si->alloc_sizes[1], 552u);
  EXPECT_EQ(+si->alloc_sizes[2], 2052u);
  EXPECT_EQ(+si->alloc_sizes[3], 2053u);
  uint32_t n = 0, back[8];
  mmf_get_allocation_info(m, &n, back);
  ASSERT_EQ(n, 3u);
  EXPECT_EQ(back[0], 40u);
  EXPECT_EQ(back[1], 500u);
  EXPECT_EQ(back[2], 2000u);
  mmf_close(m);
}

TEST_F(Format, DuplicateClassSizesAreRefused) {
  const uint32_t sizes[] = {64, 64};
  EXPECT_DEATH(mmf_create("/mfs/var/t/d", 1 << 20, 64 << 10, 64 << 10, true, 0, 1, 2, sizes, 0, nullptr),
               "alloc_sizes|cls\\[i\\] < cls\\[i \\+ 1\\]");
}

}  // namespace
