// A private root per test (from the mapped-file fixture) and a small database.
#pragma once

#include <string>

#include "mmdb/mmdb.h"
#include "mmf_fixture.h"

class MmdbTest : public MmfTest {
 protected:
  void TearDown() override;
  // Database `id` named "dbID": 16 buckets, 4 MB single-mapped, keys up to 64,
  // values up to 2048 with 1024 replicated.
  static mmdb_params params(uint32_t id = 3, uint64_t max_bytes = 4 << 20);
  mmdb *open_db(const mmdb_params &p, int expect = MMDB_SUCCESS);
  mmdb *db_ = nullptr;
};

std::string get_str(mmdb *db, const std::string &key, int *status = nullptr, uint32_t *replen = nullptr);
int put_str(mmdb *db, const std::string &key, const std::string &value, uint32_t capacity = 0, uint32_t replen = 0,
            bool must_be_new = false);
