// The database's records: texts, the hash, put/get/delete against a model,
// limits, a full file, the cookie form, reopen and the registry.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sys/stat.h>
#include <random>

#include "mmdb_fixture.h"
#include "../src/internal.h"
#include "mmf/meminfo.h"

TEST(MmdbTexts, StatusAndOperations) {
  EXPECT_STREQ(mmdb_status_str(0), "mmdb: success");
  EXPECT_STREQ(mmdb_status_str(1), "mmdb: invalid argument");
  EXPECT_STREQ(mmdb_status_str(2), "mmdb: corrupt");
  EXPECT_STREQ(mmdb_status_str(3), "mmdb: mem allocation failure");
  EXPECT_STREQ(mmdb_status_str(4), "mmdb: not found");
  EXPECT_STREQ(mmdb_status_str(5), "mmdb: no more");
  EXPECT_STREQ(mmdb_status_str(6), "mmdb: buffer too small");
  EXPECT_STREQ(mmdb_status_str(7), "mmdb: status unknown");
  EXPECT_STREQ(mmdb_status_str(-1), "mmdb: status unknown");
  EXPECT_STREQ(mmdb_oper_str(0), "NONE");
  EXPECT_STREQ(mmdb_oper_str(15), "CLEAR_QUEUE");
  EXPECT_STREQ(mmdb_oper_str(16), "unknown");
  EXPECT_STREQ(mmdb_oper_str(17), "GET_DATAPTR");
  EXPECT_STREQ(mmdb_oper_str(29), "REP_ADD_FAIL");
  EXPECT_STREQ(mmdb_oper_str(30), "unknown");
}

TEST(MmdbHash, RulesByLength) {
  const uint8_t k[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  // Odd: first byte, then bytes shifted by 1, 2, 3, ... wrapping from 8 to 0.
  EXPECT_EQ(mmdb_hash(5, k), 1u + (2u << 1) + (3u << 2) + (4u << 3) + (5u << 4));
  uint8_t odd[11];
  memset(odd, 1, sizeof odd);
  EXPECT_EQ(mmdb_hash(11, odd), 1u + 2 + 4 + 8 + 16 + 32 + 64 + 128 + 256 + 1 + 2);
  // Even: 16-bit halves.
  EXPECT_EQ(mmdb_hash(6, k), 0x0201u + 0x0403u + 0x0605u);
  // Multiples of 4: 32-bit words.
  EXPECT_EQ(mmdb_hash(12, k), 0x04030201u + 0x08070605u + 0x0c0b0a09u);
  EXPECT_EQ(mmdb_hash(8, k), 0x04030201u + 0x08070605u);
  EXPECT_EQ(mmdb_hash(4, k), 0x04030201u);
}

TEST_F(MmdbTest, PutGetDeleteAndStatuses) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  int st;
  get_str(db_, "a", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(put_str(db_, "a", "one", 0, 2), MMDB_SUCCESS);
  uint32_t rep = 0;
  EXPECT_EQ(get_str(db_, "a", &st, &rep), "one");
  EXPECT_EQ(rep, 2u);
  EXPECT_EQ(put_str(db_, "a", "two", 0, 0, true), MMDB_EXISTS);
  EXPECT_EQ(get_str(db_, "a"), "one");
  EXPECT_EQ(put_str(db_, "a", "three"), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "a"), "three");
  char small[2];
  uint32_t len = sizeof small;
  EXPECT_EQ(mmdb_get(db_, "a", 1, small, &len, nullptr), MMDB_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(mmdb_header(db_)->record_count, 1u);
  EXPECT_EQ(mmdb_delete(db_, "a", 1), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_delete(db_, "a", 1), MMDB_NOT_FOUND);
  EXPECT_EQ(mmdb_header(db_)->record_count, 0u);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
  // An empty value is a record too.
  EXPECT_EQ(put_str(db_, "e", ""), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "e", &st), "");
  EXPECT_EQ(st, MMDB_SUCCESS);
}

TEST_F(MmdbTest, KeyAndValueLimits) {
  mmdb_params p = params();
  p.max_key = MMDB_MAX_KEYLEN;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  std::string longest(MMDB_MAX_KEYLEN, 'k'), too_long(MMDB_MAX_KEYLEN + 1, 'k');
  longest[7] = 'x';
  EXPECT_EQ(put_str(db_, longest, "v"), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, longest), "v");
  EXPECT_EQ(put_str(db_, "k", "w"), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "k"), "w");
  EXPECT_EQ(put_str(db_, too_long, "v"), MMDB_INVALID_ARG);
  EXPECT_EQ(mmdb_put(db_, "k", 0, "v", 1, 1, 0, false), MMDB_INVALID_ARG);
  std::string biggest(2048, 'd'), too_big(2049, 'd');
  EXPECT_EQ(put_str(db_, "big", biggest, 0, 1024), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "big"), biggest);
  EXPECT_EQ(put_str(db_, "big2", too_big), MMDB_INVALID_ARG);
  EXPECT_EQ(put_str(db_, "rep", biggest, 0, 1025), MMDB_INVALID_ARG);
  EXPECT_EQ(mmdb_header(db_)->longest_key, static_cast<uint32_t>(MMDB_MAX_KEYLEN));
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
  // A database's own key limit is lower than the format's.
  mmdb_close(db_);
  db_ = nullptr;
  p = params(4);
  mmdb *db = open_db(p);
  EXPECT_EQ(put_str(db, std::string(64, 'a'), "v"), MMDB_SUCCESS);
  EXPECT_EQ(put_str(db, std::string(65, 'a'), "v"), MMDB_INVALID_ARG);
  mmdb_close(db);
  p.max_key = MMDB_MAX_KEYLEN + 1;
  EXPECT_EQ(open_db(p, MMDB_INVALID_ARG), nullptr);
  p = params(MMDB_MAX_IDS);
  EXPECT_EQ(open_db(p, MMDB_INVALID_ARG), nullptr);
}

TEST_F(MmdbTest, ValueGrowsInPlaceWithinCapacity) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "key", "short", 100), MMDB_SUCCESS);
  void *p1;
  mmdb_cookie c1;
  ASSERT_EQ(mmdb_get_dataptr(db_, "key", 3, &p1, &c1), MMDB_SUCCESS);
  EXPECT_GE(c1.capacity, 100u);
  mmdb_release_dataptr_ack(db_, &c1);
  std::string fits(c1.capacity, 'f');
  ASSERT_EQ(put_str(db_, "key", fits), MMDB_SUCCESS);
  mmdb_cookie c2;
  void *p2;
  ASSERT_EQ(mmdb_get_dataptr(db_, "key", 3, &p2, &c2), MMDB_SUCCESS);
  EXPECT_EQ(c2.offset, c1.offset) << "a value within the node's room moved";
  mmdb_release_dataptr_ack(db_, &c2);
  std::string larger(c1.capacity + 1, 'g');
  ASSERT_EQ(put_str(db_, "key", larger), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_get_dataptr(db_, "key", 3, &p2, &c2), MMDB_SUCCESS);
  EXPECT_GT(c2.capacity, c1.capacity);
  mmdb_release_dataptr_ack(db_, &c2);
  EXPECT_EQ(get_str(db_, "key"), larger);
  EXPECT_EQ(mmdb_header(db_)->record_count, 1u);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, CookieFormWritesInPlace) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "ck", "abcdef", 32, 3), MMDB_SUCCESS);
  void *v;
  mmdb_cookie c;
  ASSERT_EQ(mmdb_get_dataptr(db_, "ck", 2, &v, &c), MMDB_SUCCESS);
  EXPECT_EQ(c.keylen, 2u);
  EXPECT_EQ(c.datalen, 6u);
  EXPECT_EQ(c.replen, 3u);
  EXPECT_EQ(c.hashval, mmdb_hash(2, "ck"));
  // The bucket stays locked by this thread: recursion works, another process waits.
  EXPECT_EQ(get_str(db_, "ck"), "abcdef");
  memcpy(v, "XYZdefGHI", 9);
  c.replen = 4;
  ASSERT_EQ(mmdb_update_dataptr(db_, &c, 9), MMDB_SUCCESS);
  uint32_t rep;
  EXPECT_EQ(get_str(db_, "ck", nullptr, &rep), "XYZdefGHI");
  EXPECT_EQ(rep, 4u);
  // Beyond the node's room is refused and the reference still ends.
  ASSERT_EQ(mmdb_get_dataptr(db_, "ck", 2, &v, &c), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_update_dataptr(db_, &c, static_cast<uint32_t>(c.capacity) + 1), MMDB_INVALID_ARG);
  EXPECT_EQ(get_str(db_, "ck"), "XYZdefGHI");
  for (uint32_t b = 0; b < 16; b++) EXPECT_EQ(db_->buckets[b].pid, 0u) << "bucket " << b << " left locked";
  EXPECT_EQ(mmdb_get_dataptr(db_, "no", 2, &v, &c), MMDB_NOT_FOUND);
}

TEST_F(MmdbTest, CookieOfAnotherRecordAsserts) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "ck", "abcdef"), MMDB_SUCCESS);
  void *v;
  mmdb_cookie c;
  ASSERT_EQ(mmdb_get_dataptr(db_, "ck", 2, &v, &c), MMDB_SUCCESS);
  mmdb_cookie bad = c;
  bad.keylen = 3;
  EXPECT_DEATH(mmdb_update_dataptr(db_, &bad, 1), "cookie->keylen == e->keylen");
  bad = c;
  bad.hashval++;
  EXPECT_DEATH(mmdb_release_dataptr_ack(db_, &bad), "cookie->hashval == hashv");
  mmdb_release_dataptr_ack(db_, &c);
}

TEST_F(MmdbTest, AppendReplicatedKeepsTheTail) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "r", "RRRtail", 64, 3), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_append_replicated(db_, 1, "r", 5, "NEWRP"), MMDB_SUCCESS);
  uint32_t rep;
  EXPECT_EQ(get_str(db_, "r", nullptr, &rep), "NEWRPtail");
  EXPECT_EQ(rep, 5u);
  ASSERT_EQ(mmdb_append_replicated(db_, 1, "r", 1, "x"), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "r", nullptr, &rep), "xtail");
  EXPECT_EQ(rep, 1u);
  // Past the node's room: built anew, the tail kept.
  std::string big(500, 'b');
  ASSERT_EQ(mmdb_append_replicated(db_, 1, "r", 500, big.data()), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "r", nullptr, &rep), big + "tail");
  EXPECT_EQ(rep, 500u);
  EXPECT_EQ(mmdb_append_replicated(db_, 1, "q", 1, "x"), MMDB_NOT_FOUND);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

// Seeded random put/get/delete/scan against std::map, every chain checked after each step.
TEST_F(MmdbTest, RandomRunMatchesMap) {
  mmdb_params p = params();
  p.bucket_count = 7;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  std::mt19937 rng(20261123);
  std::map<std::string, std::pair<std::string, uint32_t>> model;
  auto rand_key = [&] {
    // Few distinct keys so that updates and deletes hit; lengths 1 to the limit.
    uint32_t len = 1 + rng() % 64;
    std::string k(len, 'a');
    uint32_t tag = rng() % 40;
    k[0] = static_cast<char>('A' + tag % 26);
    if (len > 1) k[len - 1] = static_cast<char>('0' + tag % 10);
    return k;
  };
  for (int step = 0; step < 3000; step++) {
    std::string k = rand_key();
    uint32_t op = rng() % 10;
    if (op < 5) {
      std::string v(rng() % 600, static_cast<char>('a' + step % 26));
      uint32_t cap = static_cast<uint32_t>(v.size()) + rng() % 200;
      uint32_t rep = v.empty() ? 0 : rng() % std::min<uint32_t>(static_cast<uint32_t>(v.size()) + 1, 1024);
      bool must_new = rng() % 8 == 0;
      int st = put_str(db_, k, v, cap, rep, must_new);
      if (must_new && model.count(k)) {
        ASSERT_EQ(st, MMDB_EXISTS);
      } else {
        ASSERT_EQ(st, MMDB_SUCCESS) << "step " << step;
        model[k] = {v, rep};
      }
    } else if (op < 7) {
      int st = mmdb_delete(db_, k.data(), static_cast<uint32_t>(k.size()));
      ASSERT_EQ(st, model.erase(k) ? MMDB_SUCCESS : MMDB_NOT_FOUND) << "step " << step;
    } else if (op < 9) {
      int st;
      uint32_t rep = 0;
      std::string v = get_str(db_, k, &st, &rep);
      auto it = model.find(k);
      if (it == model.end()) {
        ASSERT_EQ(st, MMDB_NOT_FOUND);
      } else {
        ASSERT_EQ(st, MMDB_SUCCESS);
        ASSERT_EQ(v, it->second.first) << "step " << step;
        ASSERT_EQ(rep, it->second.second);
      }
    } else {
      mmdb_iterator *it = mmdb_iterator_create_all(db_);
      ASSERT_NE(it, nullptr);
      std::map<std::string, std::pair<std::string, uint32_t>> seen;
      char key[64], val[2048];
      for (;;) {
        uint32_t kl = sizeof key, vl = sizeof val, rep;
        int st = mmdb_iterator_get_next(it, key, &kl, val, &vl, &rep);
        if (st == MMDB_NO_MORE) break;
        ASSERT_EQ(st, MMDB_SUCCESS);
        ASSERT_TRUE(seen.emplace(std::string(key, kl), std::make_pair(std::string(val, vl), rep)).second);
      }
      mmdb_iterator_delete(it);
      ASSERT_EQ(seen, model) << "step " << step;
    }
    char why[200] = "";
    ASSERT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why << " at step " << step;
    ASSERT_STREQ(why, "") << "at step " << step;
    ASSERT_EQ(mmdb_header(db_)->record_count, model.size());
  }
}

TEST_F(MmdbTest, FullDatabaseRefusesThenRecovers) {
  mmdb_params p = params(3, 256 << 10);
  p.default_bytes = p.grow_by_bytes = 64 << 10;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  std::string v(1000, 'v');
  int n = 0, st = MMDB_SUCCESS;
  for (; n < 10000; n++) {
    st = put_str(db_, "key" + std::to_string(n), v);
    if (st != MMDB_SUCCESS) break;
  }
  ASSERT_EQ(st, MMDB_NOMEM);
  EXPECT_GT(n, 100);
  for (int i = 0; i < n; i++) ASSERT_EQ(get_str(db_, "key" + std::to_string(i)), v);
  EXPECT_EQ(mmdb_header(db_)->record_count, static_cast<uint32_t>(n));
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
  // Freed neighbours merge into room for a new record.
  for (int i = 0; i < 10; i++) ASSERT_EQ(mmdb_delete(db_, ("key" + std::to_string(i)).c_str(), 4), MMDB_SUCCESS);
  EXPECT_EQ(put_str(db_, "new", v), MMDB_SUCCESS);
  EXPECT_EQ(get_str(db_, "new"), v);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, ReopenByIdKeepsRecordsAndRegistry) {
  mmdb_params p = params(5);
  p.flags = MMDB_F_REPLICATE;
  p.extra = 0xfeedu;
  p.key_prefix_len = 3;
  memcpy(p.key_prefix, "pfx", 3);
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "persist", "value"), MMDB_SUCCESS);
  // One handle per id and process.
  EXPECT_EQ(open_db(p, MMDB_INVALID_ARG), nullptr);
  mmdb_close(db_);
  db_ = nullptr;
  EXPECT_STREQ(mmdb_get_path_by_id(5), "db5");
  EXPECT_STREQ(mmdb_get_path_by_id(6), "");
  EXPECT_STREQ(mmdb_get_path_by_id(23), "");
  mmdb_params q;
  EXPECT_EQ(mmdb_get_create_params_by_id(23, &q), MMDB_INVALID_ARG);
  EXPECT_EQ(mmdb_get_create_params_by_id(6, &q), MMDB_NOT_FOUND);
  ASSERT_EQ(mmdb_get_create_params_by_id(5, &q), MMDB_SUCCESS);
  EXPECT_EQ(q.extra, 0xfeedu);
  EXPECT_EQ(q.bucket_count, 16u);
  EXPECT_EQ(q.max_key, 64u);
  EXPECT_EQ(memcmp(q.key_prefix, "pfx", 3), 0);
  int st;
  db_ = mmdb_open_by_id(5, &st);
  ASSERT_NE(db_, nullptr) << mmdb_status_str(st);
  EXPECT_EQ(get_str(db_, "persist"), "value");
  EXPECT_EQ(mmdb_get_params(db_)->flags, MMDB_F_REPLICATE);
  EXPECT_EQ(mmdb_open_by_id(6, &st), nullptr);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
}

// The registry's bytes as the file holds them.
TEST_F(MmdbTest, RegistryGoldenBytes) {
  mmdb_params p = params(22);
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  const mmdb_registry_t *r = mmdb_registry_peek();
  ASSERT_NE(r, nullptr);
  const uint8_t *b = reinterpret_cast<const uint8_t *>(r);
  auto u32 = [&](size_t off) {
    uint32_t v;
    memcpy(&v, b + off, 4);
    return v;
  };
  EXPECT_EQ(u32(0x00), 0x12344321u);
  EXPECT_EQ(u32(0x04), 2u);
  EXPECT_EQ(u32(0x0c), 0xA7E8u);
  EXPECT_EQ(u32(0x10), 23u);
  const size_t e = 0x14 + 22 * 0x74C;
  EXPECT_EQ(u32(e + 0x00), 22u);
  EXPECT_EQ(u32(e + 0x08), 16u);
  EXPECT_EQ(u32(e + 0x0c), 4u << 20);
  EXPECT_EQ(b[e + 0x2e], 3u);
  EXPECT_EQ(u32(e + 0x34), 2048u);
  EXPECT_STREQ(reinterpret_cast<const char *>(b + e + 0x48), "db22");
  EXPECT_EQ(u32(e + 0x648), 64u);
  EXPECT_EQ(u32(0x14 + 21 * 0x74C), 0u);
  // The file is a valid mapped file: the next process's open keeps it.
  mmf *m = mmf_open_existing("/mfs/var/mmdb/mmdb_open_params_v2");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(mmf_valid(m, false));
  mmf_close(m);
}

TEST_F(MmdbTest, HashHeaderGoldenBytes) {
  mmdb_params p = params();
  p.flags = MMDB_F_REPLICATE;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "abcd", "v"), MMDB_SUCCESS);
  const uint8_t *h = reinterpret_cast<const uint8_t *>(mmdb_header(db_));
  auto u32 = [&](size_t off) {
    uint32_t v;
    memcpy(&v, h + off, 4);
    return v;
  };
  EXPECT_EQ(u32(0x000), 4u);
  EXPECT_EQ(u32(0x004), 0x178u);
  EXPECT_EQ(u32(0x008), MMDB_F_REPLICATE);
  EXPECT_EQ(u32(0x13c), 2048u);
  EXPECT_EQ(u32(0x140), 1024u);
  EXPECT_EQ(u32(0x174), 1u);
  // The record's bucket slot, behind the header.
  uint32_t b = mmdb_hash(4, "abcd") % 16;
  uint64_t head;
  memcpy(&head, h + 0x178 + b * 0x18 + 16, 8);
  EXPECT_NE(head, 0u);
  const uint8_t *rec = static_cast<const uint8_t *>(mmf_user_ptr(mmdb_data_mmf(db_), static_cast<off_t>(head), 48));
  uint64_t own;
  memcpy(&own, rec, 8);
  EXPECT_EQ(own, head);
  uint16_t kl;
  memcpy(&kl, rec + 20, 2);
  EXPECT_EQ(kl, 4u);
  EXPECT_EQ(memcmp(rec + 40, "abcd", 4), 0);
  EXPECT_EQ(rec[44], 'v');
}

TEST_F(MmdbTest, CorruptChainAsserts) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "abcd", "v"), MMDB_SUCCESS);
  uint32_t b = mmdb_hash(4, "abcd") % 16;
  uint64_t head;
  memcpy(&head, &db_->buckets[b].head, 8);
  auto *e = static_cast<mmdb_record_t *>(mmf_user_ptr(mmdb_data_mmf(db_), static_cast<off_t>(head), 40));
  e->next = head;  // self-linked
  EXPECT_DEATH(get_str(db_, "qbcd" /* same bucket: walks the chain */), "corrupt chain");
  mmdb_header(db_)->invalid = 0;  // the dying child marked the file
  e->next = 0;
  e->offset = head + 8;
  EXPECT_DEATH(get_str(db_, "abcd"), "corrupt chain");
  mmdb_header(db_)->invalid = 0;
  e->offset = head;
  EXPECT_EQ(get_str(db_, "abcd"), "v");
}

// A chain that never ends (two records linked to each other) is walked to
// the limit of 1,000,000 records, then ends in the corruption path.
TEST_F(MmdbTest, EndlessChainHitsTheLimit) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  // "abcd" and "qbcd" share a bucket; the later one is the head.
  ASSERT_EQ(put_str(db_, "abcd", "1"), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "qbcd", "2"), MMDB_SUCCESS);
  uint32_t b = mmdb_hash(4, "abcd") % 16;
  uint64_t head;
  memcpy(&head, &db_->buckets[b].head, 8);
  auto *first = static_cast<mmdb_record_t *>(mmf_user_ptr(mmdb_data_mmf(db_), static_cast<off_t>(head), 40));
  uint64_t second = first->next;
  auto *tail = static_cast<mmdb_record_t *>(mmf_user_ptr(mmdb_data_mmf(db_), static_cast<off_t>(second), 40));
  tail->next = head;
  EXPECT_DEATH(get_str(db_, "Abcd" /* same bucket, absent */), "corrupt chain");
  char why[200] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_CORRUPT);
  EXPECT_NE(strstr(why, "repeats a key"), nullptr) << why;
  tail->next = 0;
  mmdb_header(db_)->invalid = 0;
  EXPECT_EQ(get_str(db_, "abcd"), "1");
}

// A corrupt chain kills the process that walks into it, but marks the file:
// others get status 2 instead of dying too, and the next open rebuilds.
TEST_F(MmdbTest, CorruptChainMarksTheFileForEveryone) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "abcd", "v"), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "other", "w"), MMDB_SUCCESS);
  uint32_t b = mmdb_hash(4, "abcd") % 16;
  uint64_t bad = mmf_first_alloc_offset(mmdb_data_mmf(db_)) + 4000;  // inside some node, not a record
  memcpy(&db_->buckets[b].head, &bad, 8);
  EXPECT_DEATH(get_str(db_, "abcd"), "corrupt chain");
  EXPECT_EQ(mmdb_header(db_)->invalid, 1u);
  int st;
  get_str(db_, "other", &st);
  EXPECT_EQ(st, MMDB_CORRUPT);
  EXPECT_EQ(put_str(db_, "new", "x"), MMDB_CORRUPT);
  mmdb_close(db_);
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  get_str(db_, "other", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(put_str(db_, "new", "x"), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, InvalidFileRefusesWritesUntilReset) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "a", "1"), MMDB_SUCCESS);
  // Damage the data file's first node behind every mapping's back.
  mmf *d = mmdb_data_mmf(db_);
  uint32_t junk = 0xdeadbeef;
  poke(d->shared_info->first_alloc_offset + 8, &junk, 4, "/mfs/var/mmdb/db3_data");
  EXPECT_EQ(mmdb_verify(db_), MMDB_CORRUPT);
  EXPECT_EQ(mmdb_header(db_)->invalid, 1u);
  EXPECT_EQ(put_str(db_, "b", "2"), MMDB_CORRUPT);
  EXPECT_EQ(mmdb_delete(db_, "a", 1), MMDB_CORRUPT);
  int st;
  get_str(db_, "a", &st);
  EXPECT_EQ(st, MMDB_CORRUPT);
  EXPECT_EQ(mmdb_reset(db_), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_header(db_)->resets, 2u);  // the first made the new database
  get_str(db_, "a", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(put_str(db_, "b", "2"), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, DamagedFileAtOpenIsRebuiltEmpty) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "a", "1"), MMDB_SUCCESS);
  uint64_t first = mmdb_data_mmf(db_)->shared_info->first_alloc_offset;
  mmdb_close(db_);
  db_ = nullptr;
  uint32_t junk = 0xdeadbeef;
  poke(first + 8, &junk, 4, "/mfs/var/mmdb/db3_data");
  // The mapped file rebuilds itself at open; the buckets then name nothing.
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  int st;
  get_str(db_, "a", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(mmdb_header(db_)->record_count, 0u);
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, DestroyAndRemoveDropBothFiles) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  mmdb_destroy(db_);
  db_ = nullptr;
  struct stat st;
  EXPECT_NE(stat(real("/mfs/var/mmdb/db3_hash").c_str(), &st), 0);
  EXPECT_NE(stat(real("/mfs/var/mmdb/db3_data").c_str(), &st), 0);
  mmdb *db = open_db(params());
  mmdb_close(db);
  EXPECT_EQ(mmdb_remove("db3"), MMDB_SUCCESS);
  EXPECT_NE(stat(real("/mfs/var/mmdb/db3_hash").c_str(), &st), 0);
  EXPECT_EQ(mmdb_remove("db3"), MMDB_NOT_FOUND);
}

TEST_F(MmdbTest, RegionModeDataFile) {
  mmdb_params p = params(3, 8 << 20);
  p.mapped_span = 1 << 20;
  p.max_mapped_regions = 4;  // 256 KB regions, four at a time
  p.default_bytes = p.grow_by_bytes = 256 << 10;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  std::string v(1500, 'r');
  for (int i = 0; i < 3000; i++) {
    v[0] = static_cast<char>(i);
    ASSERT_EQ(put_str(db_, "k" + std::to_string(i), v), MMDB_SUCCESS) << i;
  }
  for (int i = 0; i < 3000; i++) {
    v[0] = static_cast<char>(i);
    ASSERT_EQ(get_str(db_, "k" + std::to_string(i)), v) << i;
  }
  EXPECT_EQ(mmdb_verify_chains(db_, nullptr, 0), MMDB_SUCCESS);
}

TEST_F(MmdbTest, ScanAllMarksAllButThePrefixKey) {
  mmdb_params p = params();
  p.key_prefix_len = 2;
  memcpy(p.key_prefix, "pp", 2);
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  for (const char *k : {"pp", "ppa", "x", "yy"}) ASSERT_EQ(put_str(db_, k, "v"), MMDB_SUCCESS);
  uint32_t seen = 0;
  ASSERT_EQ(mmdb_scan_all(db_, &seen), MMDB_SUCCESS);
  EXPECT_EQ(seen, 4u);
  for (const char *k : {"pp", "ppa", "x", "yy"}) {
    void *v;
    mmdb_cookie c;
    ASSERT_EQ(mmdb_get_dataptr(db_, k, static_cast<uint32_t>(strlen(k)), &v, &c), MMDB_SUCCESS);
    auto *e = static_cast<mmdb_record_t *>(mmf_user_ptr(mmdb_data_mmf(db_), static_cast<off_t>(c.offset), 40));
    EXPECT_EQ((e->eflag & MMDB_EF_RESYNC) != 0, strcmp(k, "pp") != 0) << k;
    mmdb_release_dataptr_ack(db_, &c);
  }
  mmdb_close(db_);
  db_ = nullptr;
  // With the reset flag a resynchronisation empties the database instead.
  p.flags = MMDB_F_RESET_ON_RESYNC;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(mmdb_scan_all(db_, &seen), MMDB_SUCCESS);
  int st;
  get_str(db_, "x", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
}

TEST_F(MmdbTest, PrefixIterator) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  for (const char *k : {"ab1", "ab2", "ac", "b", "xab"}) ASSERT_EQ(put_str(db_, k, k), MMDB_SUCCESS);
  const void *pre[] = {"ab", "b"};
  const uint32_t lens[] = {2, 1};
  mmdb_iterator *it = mmdb_iterator_create_prefix(db_, 2, pre, lens);
  ASSERT_NE(it, nullptr);
  // One iterator per process and database.
  EXPECT_EQ(mmdb_iterator_create_all(db_), nullptr);
  std::set<std::string> seen;
  char key[64], val[64];
  uint32_t kl = sizeof key, vl = sizeof val;
  while (mmdb_iterator_get_next(it, key, &kl, val, &vl, nullptr) == MMDB_SUCCESS) {
    EXPECT_EQ(std::string(key, kl), std::string(val, vl));
    seen.insert(std::string(key, kl));
    kl = sizeof key;
    vl = sizeof val;
  }
  EXPECT_EQ(seen, (std::set<std::string>{"ab1", "ab2", "b"}));
  mmdb_iterator_delete(it);
}

TEST_F(MmdbTest, RecordInTheMemoryReport) {
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  meminfo_reader *r = meminfo_reader_create();
  ASSERT_NE(r, nullptr);
  const meminfo_record_t *rec = meminfo_reader_next(r, MEMINFO_TYPE_MMDB);
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->length, 176u + 16);
  mmdb_meminfo_payload_t p;
  memcpy(&p, meminfo_payload(rec), sizeof p);
  EXPECT_STREQ(p.name, "db3");
  EXPECT_EQ(p.id, 3u);
  EXPECT_EQ(p.bucket_count, 16u);
  EXPECT_EQ(p.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(meminfo_reader_next(r, MEMINFO_TYPE_MMDB), nullptr);
  meminfo_reader_delete(r);
}
