// Acknowledgements: the cookie a change stamps, the replicator's ack that
// clears it and reaches the writer through its queue, stale acks, the ack
// registry's entries, and the layout the file keeps whatever the opener asks.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "mmdb_fixture.h"

namespace {

bool pending(mmdb *db, const std::string &key) {
  bool p = false;
  EXPECT_EQ(mmdb_ack_pending(db, key.data(), static_cast<uint32_t>(key.size()), &p), MMDB_SUCCESS);
  return p;
}

// Reads the stream to its end; the cookie of each key's last update.
std::map<std::string, uint64_t> drain(mmdb_iterator *it) {
  std::map<std::string, uint64_t> got;
  uint8_t buf[4096];
  for (;;) {
    uint32_t len = sizeof buf;
    if (mmdb_rep_get_next(it, &len, buf) != MMDB_SUCCESS) return got;
    mmdb_rep_header h;
    memcpy(&h, buf, sizeof h);
    if (h.op == MMDB_REP_UPDATE) got[std::string(reinterpret_cast<char *>(buf + sizeof h), h.keylen)] = mmdb_rep_cookie(it);
  }
}

std::string report() {
  char *text = nullptr;
  size_t n = 0;
  FILE *f = open_memstream(&text, &n);
  mmdb_ack_report(f);
  fclose(f);
  std::string s(text, n);
  free(text);
  return s;
}

}  // namespace

class MmdbAck : public MmdbTest {
 protected:
  static mmdb_params ack_params(uint32_t id = 3) {
    mmdb_params p = params(id);
    p.flags |= MMDB_F_ACKS;
    return p;
  }
};

TEST_F(MmdbAck, AnAckClearsTheMarkAndReachesTheWriter) {
  mmdb_ack_set_identity("writer one", 2);
  db_ = open_db(ack_params());
  ASSERT_NE(db_, nullptr);
  EXPECT_EQ(mmdb_header(db_)->acks_enabled, 1u);
  const mmdb_ack_registry_t *reg = mmdb_ack_registry_peek();
  ASSERT_NE(reg, nullptr);
  EXPECT_EQ(reg->entry[0].pid, static_cast<uint32_t>(getpid()));
  EXPECT_STREQ(reg->entry[0].name, "writer one");
  EXPECT_EQ(reg->entry[0].instance, 2u);

  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  ASSERT_EQ(mmdb_rep_start(), MMDB_SUCCESS);
  EXPECT_EQ(reg->running, 1u);
  EXPECT_EQ(reg->rep_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(reg->start_count, 1u);
  drain(it);
  ASSERT_EQ(put_str(db_, "a", "alpha", 0, 5), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "b", "beta", 0, 4), MMDB_SUCCESS);
  EXPECT_TRUE(pending(db_, "a"));
  auto got = drain(it);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got["a"] >> 32, static_cast<uint64_t>(getpid()));
  EXPECT_NE(got["a"], got["b"]);
  // The value is unharmed by the cookie in front of it.
  EXPECT_EQ(get_str(db_, "a"), "alpha");

  ASSERT_EQ(mmdb_process_ack_from_rep(it, "b", 1, got["b"]), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_process_ack_from_rep(it, "a", 1, got["a"]), MMDB_SUCCESS);
  EXPECT_FALSE(pending(db_, "a"));
  EXPECT_FALSE(pending(db_, "b"));
  // In the order the replicator sent them.
  char key[8];
  uint32_t id = 0, kl = 0;
  uint64_t cookie = 0;
  EXPECT_EQ(mmdb_ack_get_next(&id, key, &kl, &cookie), MMDB_BUFFER_TOO_SMALL);
  EXPECT_EQ(kl, 1u);
  kl = sizeof key;
  ASSERT_EQ(mmdb_ack_get_next(&id, key, &kl, &cookie), MMDB_SUCCESS);
  EXPECT_EQ(std::string(key, kl), "b");
  EXPECT_EQ(id, 3u);
  EXPECT_EQ(cookie, got["b"]);
  kl = sizeof key;
  ASSERT_EQ(mmdb_ack_get_next(&id, key, &kl, &cookie), MMDB_SUCCESS);
  EXPECT_EQ(std::string(key, kl), "a");
  kl = sizeof key;
  EXPECT_EQ(mmdb_ack_get_next(&id, key, &kl, &cookie), MMDB_NOT_FOUND);
  std::string r = report();
  EXPECT_NE(r.find("ack queued cnt                           2\n"), std::string::npos) << r;
  EXPECT_NE(r.find("ack dequeued cnt                         2    mmdb_ackq_writer_one_i2\n"), std::string::npos) << r;
  EXPECT_NE(r.find("from dupd cnt                            2\n"), std::string::npos) << r;
  mmdb_rep_stop();
  EXPECT_EQ(reg->running, 0u);
  mmdb_iterator_delete(it);
}

// The ack of a version that a later change replaced leaves the mark: the
// later version's own ack clears it.
TEST_F(MmdbAck, AStaleAckChangesNothing) {
  db_ = open_db(ack_params());
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  drain(it);
  ASSERT_EQ(put_str(db_, "k", "one", 0, 3), MMDB_SUCCESS);
  uint64_t first = drain(it)["k"];
  ASSERT_EQ(put_str(db_, "k", "two", 0, 3), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_process_ack_from_rep(it, "k", 1, first), MMDB_SUCCESS);
  EXPECT_TRUE(pending(db_, "k"));
  uint64_t second = drain(it)["k"];
  EXPECT_NE(second, first);
  ASSERT_EQ(mmdb_process_ack_from_rep(it, "k", 1, second), MMDB_SUCCESS);
  EXPECT_FALSE(pending(db_, "k"));
  // Acks of records gone, and of nothing, are counted and harmless.
  ASSERT_EQ(mmdb_delete(db_, "k", 1), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_process_ack_from_rep(it, "k", 1, second), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_process_ack_from_rep(it, "k", 1, 0), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_process_ack_from_rep(nullptr, "k", 1, 1), MMDB_INVALID_ARG);
  std::string r = report();
  EXPECT_NE(r.find("get acked not acked cnt                  1\n"), std::string::npos) << r;
  EXPECT_NE(r.find("get ack null cnt                         1\n"), std::string::npos) << r;
  EXPECT_NE(r.find("existing pending ack cnt                 1    FAILED\n"), std::string::npos) << r;
  mmdb_iterator_delete(it);
}

// Twenty live holders leave no entry: the open fails with status 3. An entry
// of a dead process is wiped and taken.
TEST_F(MmdbAck, TheRegistryHoldsTwentyProcesses) {
  db_ = open_db(ack_params());
  mmdb_close(db_);
  db_ = nullptr;
  auto *reg = const_cast<mmdb_ack_registry_t *>(mmdb_ack_registry_peek());
  ASSERT_NE(reg, nullptr);
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  for (int i = 0; i < MMDB_ACK_ENTRIES; i++) {
    reg->entry[i].pid = 1;  // alive
    snprintf(reg->entry[i].name, sizeof reg->entry[i].name, "other%d", i);
  }
  mmdb_ack_set_identity("late", 0);
  int st = -1;
  mmdb_params p = ack_params();
  EXPECT_EQ(mmdb_open(&p, &st), nullptr);
  EXPECT_EQ(st, MMDB_NOMEM);
  reg = const_cast<mmdb_ack_registry_t *>(mmdb_ack_registry_peek());
  reg->entry[7].pid = static_cast<uint32_t>(dead);
  db_ = open_db(ack_params());
  ASSERT_NE(db_, nullptr);
  EXPECT_EQ(reg->entry[7].pid, static_cast<uint32_t>(getpid()));
  EXPECT_STREQ(reg->entry[7].name, "late");
}

// The file decides the layout: opened later without the flag, records keep
// their cookie and their values read right; a file made without it has none.
TEST_F(MmdbAck, TheFileKeepsItsLayout) {
  db_ = open_db(ack_params());
  ASSERT_EQ(put_str(db_, "key", "value", 0, 5), MMDB_SUCCESS);
  mmdb_close(db_);
  db_ = open_db(params());
  EXPECT_EQ(mmdb_header(db_)->acks_enabled, 1u);
  EXPECT_EQ(get_str(db_, "key"), "value");
  EXPECT_TRUE(pending(db_, "key"));
  char why[128] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why;
  mmdb_close(db_);
  db_ = open_db(params(4));
  EXPECT_EQ(mmdb_header(db_)->acks_enabled, 0u);
  ASSERT_EQ(put_str(db_, "key", "value", 0, 5), MMDB_SUCCESS);
  EXPECT_FALSE(pending(db_, "key"));
}

// Two live processes of one name and instance would share an ack queue, and
// the second receiver would take the first one's acks: the later one takes
// the next instance.
TEST_F(MmdbAck, ASecondProcessOfOneNameTakesTheNextInstance) {
  db_ = open_db(ack_params());
  mmdb_close(db_);
  db_ = nullptr;
  auto *reg = const_cast<mmdb_ack_registry_t *>(mmdb_ack_registry_peek());
  ASSERT_NE(reg, nullptr);
  memset(reg->entry, 0, sizeof reg->entry);
  reg->entry[0].pid = 1;  // alive
  strcpy(reg->entry[0].name, "twin");
  reg->entry[2].pid = 1;
  strcpy(reg->entry[2].name, "twin");
  reg->entry[2].instance = 1;
  mmdb_ack_close();
  mmdb_ack_set_identity("twin", 0);
  db_ = open_db(ack_params());
  ASSERT_NE(db_, nullptr);
  reg = const_cast<mmdb_ack_registry_t *>(mmdb_ack_registry_peek());
  EXPECT_EQ(reg->entry[1].pid, static_cast<uint32_t>(getpid()));
  EXPECT_STREQ(reg->entry[1].name, "twin");
  EXPECT_EQ(reg->entry[1].instance, 2u);
  EXPECT_NE(report().find("mmdb_ackq_twin_i2\n"), std::string::npos) << report();
}
