// A private root for each test, so files and the creation semaphore of one
// test never meet another's.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mmf/mmf.h"

class MmfTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A file of page-sized steps with classes {64, 256, 1024}.
  mmf *open(const char *name = "/mfs/var/t/heap", int64_t max = 1 << 20, int64_t def = 64 << 10,
            int64_t grow = 64 << 10, uint32_t flags = 0, bool *created = nullptr);
  std::string real(const char *name = "/mfs/var/t/heap") const;
  // The file's bytes as they are on disk.
  std::vector<uint8_t> bytes(const char *name = "/mfs/var/t/heap") const;
  // Writes n bytes at a file offset, behind every mapping's back.
  void poke(uint64_t off, const void *p, size_t n, const char *name = "/mfs/var/t/heap") const;

  std::string root_;
  // A test that means a holder to be judged stuck; any other that ran the
  // (fake) gcore fails: a live holder was taken for stuck.
  bool gcore_expected_ = false;

 public:
  static const uint32_t kSizes[3];
};

// Every node of the file in order: (offset, len, flags), by the raw bytes.
struct walked_node {
  uint64_t offset;
  uint32_t len, flags;
};
std::vector<walked_node> walk_nodes(mmf *m);
