// The database against LMDB, both on tmpfs: 200,000 records of 256 bytes
// under 8-byte keys, loaded before the timed loops.
//
// DbGet: one lookup of a key from a fixed random sequence, the value copied
// out. Ours is mmdb_get (the bucket locked, the value copied); LMDB's is its
// fast read path: a read transaction renewed and reset around mdb_get, and
// the value copied.
// DbPut: one overwrite of a key from the same sequence with a new 256-byte
// value. Ours is mmdb_put (in place: the value fits its node); LMDB's is one
// write transaction per put (begin, mdb_put, commit), with MDB_NOSYNC: tmpfs
// has nothing to sync to, and this is the anchor's fastest setting. mmdb
// keeps no journal and LMDB's copy-on-write pages are its crash safety, so the
// two do not buy the same guarantee: see the README beside the figures.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "mmdb/mmdb.h"
#include "platform/path.h"

namespace {

constexpr uint32_t kRecords = 200000;
constexpr uint32_t kValue = 256;

uint64_t key_of(uint32_t i) { return (uint64_t(i) + 1) * 0x9E3779B97F4A7C15ull; }

// The order both implementations visit the keys in.
const std::vector<uint32_t> &order() {
  static std::vector<uint32_t> v = [] {
    std::vector<uint32_t> o(kRecords);
    for (uint32_t i = 0; i < kRecords; i++) o[i] = i;
    std::shuffle(o.begin(), o.end(), std::mt19937(42));
    return o;
  }();
  return v;
}

void fill_value(char *v, uint32_t i, uint64_t gen) {
  memset(v, static_cast<int>('a' + i % 26), kValue);
  memcpy(v, &gen, 8);
  memcpy(v + 8, &i, 4);
}

mmdb *ours() {
  static mmdb *db = [] {
    mmdb_params p = {};
    snprintf(p.name, sizeof p.name, "benchdb");
    p.id = 20;
    p.bucket_count = 1 << 18;
    p.max_bytes = p.mapped_span = uint64_t(512) << 20;
    p.default_bytes = p.grow_by_bytes = uint64_t(64) << 20;
    p.max_mapped_regions = 1;
    p.num_alloc_sizes = 1;
    p.alloc_sizes[0] = kValue + 8;
    p.max_key = 8;
    p.max_data = p.max_replicated = kValue;
    mmdb_remove(p.name);
    int st;
    mmdb *d = mmdb_open(&p, &st);
    if (!d) return d;
    char v[kValue];
    for (uint32_t i = 0; i < kRecords; i++) {
      uint64_t k = key_of(i);
      fill_value(v, i, 0);
      if (mmdb_put(d, &k, 8, v, kValue, kValue, kValue, false) != MMDB_SUCCESS) return static_cast<mmdb *>(nullptr);
    }
    return d;
  }();
  return db;
}

struct Lmdb {
  MDB_env *env = nullptr;
  MDB_dbi dbi = 0;
  bool ok = false;
  Lmdb() {
    std::string dir = std::string(tvx_path_root()) + "/lmdb";
    mkdir(dir.c_str(), 0700);
    if (mdb_env_create(&env) || mdb_env_set_mapsize(env, size_t(1) << 30) ||
        mdb_env_open(env, dir.c_str(), MDB_NOSYNC, 0600))
      return;
    MDB_txn *txn;
    if (mdb_txn_begin(env, nullptr, 0, &txn) || mdb_dbi_open(txn, nullptr, 0, &dbi)) return;
    char v[kValue];
    for (uint32_t i = 0; i < kRecords; i++) {
      uint64_t k = key_of(i);
      fill_value(v, i, 0);
      MDB_val key = {8, &k}, val = {kValue, v};
      if (mdb_put(txn, dbi, &key, &val, 0)) return;
    }
    ok = mdb_txn_commit(txn) == 0;
  }
};

Lmdb &lmdb() {
  static Lmdb l;
  return l;
}

// Each implementation's answer for one key, checked before a timed loop.
bool check_ours(mmdb *db, uint32_t i) {
  uint64_t k = key_of(i);
  char v[kValue];
  uint32_t len = kValue;
  uint32_t got;
  return mmdb_get(db, &k, 8, v, &len, nullptr) == MMDB_SUCCESS && len == kValue && (memcpy(&got, v + 8, 4), got == i);
}

void DbGet_ours(benchmark::State &s) {
  mmdb *db = ours();
  if (!db || !check_ours(db, 12345)) {
    s.SkipWithError("mmdb setup failed");
    return;
  }
  const auto &o = order();
  char v[kValue];
  size_t n = 0;
  for (auto _ : s) {
    uint64_t k = key_of(o[n++ % kRecords]);
    uint32_t len = kValue;
    if (mmdb_get(db, &k, 8, v, &len, nullptr) != MMDB_SUCCESS) {
      s.SkipWithError("mmdb_get failed");
      break;
    }
    benchmark::DoNotOptimize(v);
  }
}

void DbGet_lmdb(benchmark::State &s) {
  Lmdb &l = lmdb();
  MDB_txn *txn;
  if (!l.ok || mdb_txn_begin(l.env, nullptr, MDB_RDONLY, &txn)) {
    s.SkipWithError("lmdb setup failed");
    return;
  }
  mdb_txn_reset(txn);
  const auto &o = order();
  char v[kValue];
  size_t n = 0;
  for (auto _ : s) {
    uint64_t k = key_of(o[n++ % kRecords]);
    MDB_val key = {8, &k}, val;
    mdb_txn_renew(txn);
    if (mdb_get(txn, l.dbi, &key, &val) || val.mv_size != kValue) {
      s.SkipWithError("mdb_get failed");
      break;
    }
    memcpy(v, val.mv_data, kValue);
    mdb_txn_reset(txn);
    benchmark::DoNotOptimize(v);
  }
  mdb_txn_abort(txn);
}

void DbPut_ours(benchmark::State &s) {
  mmdb *db = ours();
  if (!db || !check_ours(db, 777)) {
    s.SkipWithError("mmdb setup failed");
    return;
  }
  const auto &o = order();
  char v[kValue];
  uint64_t gen = 1;
  size_t n = 0;
  for (auto _ : s) {
    uint32_t i = o[n++ % kRecords];
    uint64_t k = key_of(i);
    fill_value(v, i, gen++);
    if (mmdb_put(db, &k, 8, v, kValue, kValue, kValue, false) != MMDB_SUCCESS) {
      s.SkipWithError("mmdb_put failed");
      break;
    }
  }
  if (!check_ours(db, o[0])) s.SkipWithError("a put was lost");
}

void DbPut_lmdb(benchmark::State &s) {
  Lmdb &l = lmdb();
  if (!l.ok) {
    s.SkipWithError("lmdb setup failed");
    return;
  }
  const auto &o = order();
  char v[kValue];
  uint64_t gen = 1;
  size_t n = 0;
  for (auto _ : s) {
    uint32_t i = o[n++ % kRecords];
    uint64_t k = key_of(i);
    fill_value(v, i, gen++);
    MDB_val key = {8, &k}, val = {kValue, v};
    MDB_txn *txn;
    if (mdb_txn_begin(l.env, nullptr, 0, &txn) || mdb_put(txn, l.dbi, &key, &val, 0) || mdb_txn_commit(txn)) {
      s.SkipWithError("lmdb put failed");
      break;
    }
  }
}

BENCHMARK(DbGet_ours)->Name("DbGet/ours");
BENCHMARK(DbGet_lmdb)->Name("DbGet/lmdb");
BENCHMARK(DbPut_ours)->Name("DbPut/ours");
BENCHMARK(DbPut_lmdb)->Name("DbPut/lmdb");

}  // namespace
