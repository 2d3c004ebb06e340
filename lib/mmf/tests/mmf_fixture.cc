// The per-test root and raw access to a file's bytes.
#include "mmf_fixture.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mmf/meminfo.h"
#include "platform/path.h"

const uint32_t MmfTest::kSizes[3] = {64, 256, 1024};

void MmfTest::SetUp() {
  char tmpl[] = "/tmp/mmf_test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  root_ = tmpl;
  tvx_path_set_root(root_.c_str());
  setenv("TAVOX_ROOT", root_.c_str(), 1);
  // No test may write a real core: a waiter that judges a holder stuck runs
  // gcore, and a core of a sanitizer process runs to gigabytes. A fake
  // gcore that records its arguments comes first on PATH, and cores are off.
  std::string bin = root_ + "/bin";
  ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
  FILE *f = fopen((bin + "/gcore").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fprintf(f, "#!/bin/sh\necho \"$@\" >> %s/gcore.log\n", root_.c_str());
  fclose(f);
  chmod((bin + "/gcore").c_str(), 0755);
  const char *path = getenv("PATH");
  setenv("PATH", (bin + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
  rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  // A death test's child dies holding the lock; the parent takes it over
  // after the holder check, 20 ms here instead of 2 s.
  mmf_set_time_scale(0.01);
}

void MmfTest::TearDown() {
  struct stat st;
  if (!gcore_expected_) {
    EXPECT_NE(stat((root_ + "/gcore.log").c_str(), &st), 0) << "a holder was judged stuck";
  }
  meminfo_close();
  mmf_sem_remove();
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

mmf *MmfTest::open(const char *name, int64_t max, int64_t def, int64_t grow, uint32_t flags, bool *created) {
  return mmf_create(name, max, def, grow, true, 0, 1, 3, kSizes, flags, created);
}

std::string MmfTest::real(const char *name) const { return tvx_path(name); }

std::vector<uint8_t> MmfTest::bytes(const char *name) const {
  std::vector<uint8_t> v;
  int fd = ::open(real(name).c_str(), O_RDONLY);
  if (fd < 0) return v;
  v.resize(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
  EXPECT_EQ(pread(fd, v.data(), v.size(), 0), static_cast<ssize_t>(v.size()));
  close(fd);
  return v;
}

void MmfTest::poke(uint64_t off, const void *p, size_t n, const char *name) const {
  int fd = ::open(real(name).c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, p, n, static_cast<off_t>(off)), static_cast<ssize_t>(n));
  close(fd);
}

std::vector<walked_node> walk_nodes(mmf *m) {
  std::vector<walked_node> v;
  const mmf_shared_info_t *si = m->shared_info;
  for (uint64_t off = si->first_alloc_offset; off < si->current_bytes;) {
    mmf_node_header_t n;
    memcpy(&n, mmf_ensure_mapped(m, static_cast<off_t>(off), sizeof n), sizeof n);
    v.push_back({n.offset, n.len, n.flags});
    if (n.len == 0) break;
    off += n.len;
  }
  return v;
}
