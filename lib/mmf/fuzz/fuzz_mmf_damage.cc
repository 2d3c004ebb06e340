// A mapped file damaged by the input: a fresh file with a few blocks is
// written, then the input's patches land on its bytes behind every mapping's
// back. The tool's path (attach as it stands, validate, show) must report
// damage, never crash; the daemon's path (mmf_create on the same file) must
// come out with a valid file, rebuilt if need be, that allocates and frees.
//
// Input: records of 4 bytes, a 16-bit offset (little-endian, taken modulo the
// file's size), a byte to write and a byte ORed into the next offset's byte.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mmf/mmf.h"
#include "platform/path.h"
#include "fuzz_root.h"

namespace {

const uint32_t kSizes[3] = {64, 256, 1024};
const char *const kName = "/mfs/var/fuzz/heap";
mmf *open_file(void) { return mmf_create(kName, 1 << 20, 16 << 10, 16 << 10, true, 0, 1, 3, kSizes, 0, nullptr); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mmf_fuzz_setup_root();
  mmf_unlink(kName);
  mmf *m = open_file();
  if (!m) abort();
  off_t off[6];
  for (int i = 0; i < 6; i++) {
    void *p = mmf_alloc(m, kSizes[i % 3] - 8, &off[i]);
    if (!p) abort();
    memset(p, 0x5a, kSizes[i % 3] - 8);
  }
  mmf_free_offset(m, off[1]);
  mmf_free_offset(m, off[4]);
  mmf_close(m);

  std::string path = tvx_path(kName);
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) abort();
  off_t len = lseek(fd, 0, SEEK_END);
  for (size_t i = 0; i + 4 <= size; i += 4) {
    off_t at = (data[i] | (data[i + 1] << 8)) % len;
    uint8_t b = data[i + 2];
    if (pwrite(fd, &b, 1, at) != 1) abort();
    uint8_t next = 0;
    off_t at2 = (at + 1) % len;
    if (pread(fd, &next, 1, at2) != 1) abort();
    next |= data[i + 3];
    if (pwrite(fd, &next, 1, at2) != 1) abort();
  }
  close(fd);

  // The tool's view: whatever it finds is reported.
  if (mmf *t = mmf_open_existing(kName)) {
    mmf_valid(t, false);
    FILE *sink = fopen("/dev/null", "w");
    mmf_show_to(sink, "fuzz", t);
    fclose(sink);
    mmf_close(t);
  }

  // The daemon's view: a valid file, rebuilt where it was not.
  m = open_file();
  if (!m) return 0;  // refused is allowed; asserting or crashing is not
  if (!mmf_valid(m, false)) abort();
  off_t o;
  void *p = mmf_alloc(m, 200, &o);
  if (!p) abort();
  memset(p, 0xa5, 200);
  mmf_free_offset(m, o);
  if (!mmf_valid(m, false)) abort();
  mmf_close(m);
  return 0;
}
