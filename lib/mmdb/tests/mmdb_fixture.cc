#include "mmdb_fixture.h"

#include <cstring>

void MmdbTest::TearDown() {
  if (db_) mmdb_close(db_);
  db_ = nullptr;
  mmdb_rep_stop();
  mmdb_change_queue_close();
  mmdb_ack_close();
  mmdb_set_change_queue(nullptr);
  mmdb_registry_close();
  MmfTest::TearDown();
}

mmdb_params MmdbTest::params(uint32_t id, uint64_t max_bytes) {
  mmdb_params p = {};
  snprintf(p.name, sizeof p.name, "db%u", id);
  p.id = id;
  p.bucket_count = 16;
  p.max_bytes = p.mapped_span = max_bytes;
  p.default_bytes = 64 << 10;
  p.grow_by_bytes = 64 << 10;
  p.max_mapped_regions = 1;
  p.num_alloc_sizes = 3;
  p.alloc_sizes[0] = 64;
  p.alloc_sizes[1] = 256;
  p.alloc_sizes[2] = 2048 + 64;
  p.max_key = 64;
  p.max_data = 2048;
  p.max_replicated = 1024;
  return p;
}

mmdb *MmdbTest::open_db(const mmdb_params &p, int expect) {
  int st = -1;
  mmdb *db = mmdb_open(&p, &st);
  EXPECT_EQ(st, expect) << mmdb_status_str(st);
  return db;
}

std::string get_str(mmdb *db, const std::string &key, int *status, uint32_t *replen) {
  char buf[4096];
  uint32_t len = sizeof buf;
  int st = mmdb_get(db, key.data(), static_cast<uint32_t>(key.size()), buf, &len, replen);
  if (status) *status = st;
  return st == MMDB_SUCCESS ? std::string(buf, len) : std::string();
}

int put_str(mmdb *db, const std::string &key, const std::string &value, uint32_t capacity, uint32_t replen,
            bool must_be_new) {
  uint32_t n = static_cast<uint32_t>(value.size());
  return mmdb_put(db, key.data(), static_cast<uint32_t>(key.size()), value.data(), n, capacity < n ? n : capacity,
                  replen > n ? n : replen, must_be_new);
}
