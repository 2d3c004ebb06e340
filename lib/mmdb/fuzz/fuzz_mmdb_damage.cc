// A database whose files the input damages: a fresh database with a few
// records is written and closed, then the input's patches land on the bytes
// of its hash or data file behind every mapping's back. The next open must
// come out with a database whose chains are whole (the damage rebuilt away,
// or harmless), or refuse with a status; the calls after it must answer, not
// crash or hang.
//
// Input: records of 4 bytes: a 16-bit offset (little-endian; its top bit
// picks the data file, the rest is taken modulo the file's size), a byte to
// write, and a byte ORed into the next one.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../../mmf/fuzz/fuzz_root.h"
#include "mmdb/mmdb.h"
#include "platform/path.h"

namespace {

mmdb_params params(void) {
  mmdb_params p = {};
  snprintf(p.name, sizeof p.name, "fuzzdb");
  p.id = 9;
  p.bucket_count = 8;
  p.max_bytes = p.mapped_span = 256 << 10;
  p.default_bytes = p.grow_by_bytes = 32 << 10;
  p.max_mapped_regions = 1;
  p.num_alloc_sizes = 2;
  p.alloc_sizes[0] = 32;
  p.alloc_sizes[1] = 256;
  p.max_key = 16;
  p.max_data = 200;
  p.max_replicated = 100;
  return p;
}

void patch(const char *suffix, const uint8_t *data, size_t size, bool want_data) {
  char name[256];
  mmdb_file_name("fuzzdb", suffix, name, sizeof name);
  std::string path = tvx_path(name);
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) abort();
  off_t len = lseek(fd, 0, SEEK_END);
  for (size_t i = 0; i + 4 <= size; i += 4) {
    uint16_t raw = static_cast<uint16_t>(data[i] | (data[i + 1] << 8));
    if (((raw & 0x8000) != 0) != want_data) continue;
    off_t at = (raw & 0x7fff) % len;
    uint8_t b = data[i + 2];
    if (pwrite(fd, &b, 1, at) != 1) abort();
    uint8_t next = 0;
    off_t at2 = (at + 1) % len;
    if (pread(fd, &next, 1, at2) != 1) abort();
    next |= data[i + 3];
    if (pwrite(fd, &next, 1, at2) != 1) abort();
  }
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mmf_fuzz_root("mmdb_fuzz", mmdb_registry_close);
  mmdb_remove("fuzzdb");
  mmdb_params p = params();
  int st;
  mmdb *db = mmdb_open(&p, &st);
  if (!db) abort();
  char key[8], val[64];
  for (int i = 0; i < 24; i++) {
    snprintf(key, sizeof key, "k%d", i);
    memset(val, 'a' + i, sizeof val);
    if (mmdb_put(db, key, static_cast<uint32_t>(strlen(key)), val, 10 + i, 10 + i + i % 3, i % 5, false)) abort();
  }
  for (int i = 0; i < 24; i += 5) {
    snprintf(key, sizeof key, "k%d", i);
    mmdb_delete(db, key, static_cast<uint32_t>(strlen(key)));
  }
  mmdb_close(db);

  patch("_hash", data, size, false);
  patch("_data", data, size, true);

  db = mmdb_open(&p, &st);
  if (!db) {
    if (st != MMDB_CORRUPT && st != MMDB_NOMEM) abort();
    return 0;
  }
  // Whatever the damage, the chains are whole now, and every call answers.
  char why[200] = "";
  if (mmdb_verify_chains(db, why, sizeof why) != MMDB_SUCCESS) {
    fprintf(stderr, "chains after open: %s\n", why);
    abort();
  }
  char buf[256];
  for (int i = 0; i < 26; i++) {
    snprintf(key, sizeof key, "k%d", i);
    uint32_t kl = static_cast<uint32_t>(strlen(key)), len = sizeof buf;
    mmdb_get(db, key, kl, buf, &len, nullptr);
    if (i % 2) mmdb_put(db, key, kl, buf, 20, 40, 5, false);
    if (i % 7 == 0) mmdb_delete(db, key, kl);
  }
  if (mmdb_iterator *it = mmdb_iterator_create_all(db)) {
    uint32_t kl = sizeof key, vl = sizeof buf;
    for (int n = 0; n < 100 && mmdb_iterator_get_next(it, key, &kl, buf, &vl, nullptr) == MMDB_SUCCESS; n++) {
      kl = sizeof key;
      vl = sizeof buf;
    }
    mmdb_iterator_delete(it);
  }
  if (mmdb_verify_chains(db, why, sizeof why) != MMDB_SUCCESS) {
    fprintf(stderr, "chains after calls: %s\n", why);
    abort();
  }
  mmdb_close(db);
  return 0;
}
