// The replicator's stream: the scan, queued changes, lost changes that force
// a rescan, resets, and a mirror that must end equal to the database.
#include <gtest/gtest.h>

#include <csignal>
#include <deque>
#include <map>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "../src/internal.h"
#include "mmdb_fixture.h"
#include "mmf/crashpoint.h"

namespace {

// An in-process stand-in for the change queue: a bounded FIFO per queue number.
struct fake_queue {
  std::map<int, std::deque<std::string>> q;
  size_t limit = 1000000;
  uint32_t sent = 0, refused = 0;
};

bool fq_send(int n, const void *msg, uint32_t len, void *ctx) {
  auto *f = static_cast<fake_queue *>(ctx);
  if (f->q[n].size() >= f->limit) {
    f->refused++;
    return false;
  }
  f->q[n].emplace_back(static_cast<const char *>(msg), len);
  f->sent++;
  return true;
}

uint32_t fq_receive(int n, void *buf, uint32_t room, void *ctx) {
  auto *f = static_cast<fake_queue *>(ctx);
  auto &d = f->q[n];
  if (d.empty()) return 0;
  std::string m = d.front();
  d.pop_front();
  if (m.size() > room) return 0;
  memcpy(buf, m.data(), m.size());
  return static_cast<uint32_t>(m.size());
}

// What a replicator builds from the stream: a resync start marks every key
// stale, updates and deletes apply, a resync done drops what is still stale.
struct mirror {
  std::map<std::string, std::string> data;
  std::map<std::string, bool> stale;
  uint32_t resyncs = 0, records = 0;

  // Drains the stream; the status that ended it.
  int drain(mmdb_iterator *it) {
    for (;;) {
      uint8_t buf[4096];
      uint32_t len = sizeof buf;
      int st = mmdb_rep_get_next(it, &len, buf);
      if (st != MMDB_SUCCESS) return st;
      mmdb_rep_header h;
      memcpy(&h, buf, sizeof h);
      std::string key(reinterpret_cast<char *>(buf + sizeof h), h.keylen);
      std::string rep(reinterpret_cast<char *>(buf + sizeof h + h.keylen), h.replen);
      EXPECT_EQ(len, sizeof h + h.keylen + h.replen);
      records++;
      switch (h.op) {
        case MMDB_REP_UPDATE:
          data[key] = rep;
          stale.erase(key);
          break;
        case MMDB_REP_DELETE:
          data.erase(key);
          stale.erase(key);
          break;
        case MMDB_REP_RESYNC_START:
          resyncs++;
          stale.clear();
          for (auto &kv : data) stale[kv.first] = true;
          break;
        case MMDB_REP_RESYNC_DONE:
          for (auto &kv : stale) data.erase(kv.first);
          stale.clear();
          break;
        default:
          ADD_FAILURE() << "op " << h.op;
      }
    }
  }
};

// The replicated parts the database holds.
std::map<std::string, std::string> replicated(mmdb *db) {
  std::map<std::string, std::string> m;
  mmdb_iterator *it = mmdb_iterator_create_all(db);
  EXPECT_NE(it, nullptr);
  char key[128], val[4096];
  uint32_t kl = sizeof key, vl = sizeof val, rep = 0;
  while (mmdb_iterator_get_next(it, key, &kl, val, &vl, &rep) == MMDB_SUCCESS) {
    m[std::string(key, kl)] = std::string(val, rep);
    kl = sizeof key;
    vl = sizeof val;
  }
  mmdb_iterator_delete(it);
  return m;
}

}  // namespace

class MmdbRep : public MmdbTest {
 protected:
  void SetUp() override {
    MmdbTest::SetUp();
    db_ = open_db(params());
    ASSERT_NE(db_, nullptr);
  }
  void plug() {
    mmdb_change_queue_ops ops = {fq_send, fq_receive, &fq_};
    mmdb_set_change_queue(&ops);
  }
  fake_queue fq_;
};

TEST_F(MmdbRep, ScanThenNothingWaiting) {
  ASSERT_EQ(put_str(db_, "a", "AAAtail", 0, 3), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "b", "B", 0, 0), MMDB_SUCCESS);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  ASSERT_NE(it, nullptr);
  EXPECT_EQ(mmdb_header(db_)->reps_want_msgs, 1u);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 1u);
  // A record with nothing replicated still goes out, with no value.
  EXPECT_EQ(m.data, (std::map<std::string, std::string>{{"a", "AAA"}, {"b", ""}}));
  EXPECT_EQ(m.records, 4u);  // start, two records, done
  mmdb_iterator_delete(it);
  EXPECT_EQ(mmdb_header(db_)->reps_registered, 0u);
}

TEST_F(MmdbRep, BufferSizes) {
  ASSERT_EQ(put_str(db_, "key", std::string(100, 'v'), 0, 100), MMDB_SUCCESS);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  uint8_t buf[200];
  uint32_t len = 11;
  EXPECT_EQ(mmdb_rep_get_next(it, &len, buf), MMDB_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 0u);
  len = 12;
  EXPECT_EQ(mmdb_rep_get_next(it, &len, buf), MMDB_SUCCESS);  // the start mark
  len = 50;
  EXPECT_EQ(mmdb_rep_get_next(it, &len, buf), MMDB_BUFFER_TOO_SMALL);
  EXPECT_EQ(len, 12u + 3 + 100);
  // The record waits for a buffer that fits.
  len = sizeof buf;
  ASSERT_EQ(mmdb_rep_get_next(it, &len, buf), MMDB_SUCCESS);
  mmdb_rep_header h;
  memcpy(&h, buf, sizeof h);
  EXPECT_EQ(h.op, MMDB_REP_UPDATE);
  EXPECT_EQ(h.db_id, 3u);
  EXPECT_EQ(h.keylen, 3u);
  EXPECT_EQ(h.replen, 100u);
  mmdb_iterator_delete(it);
}

TEST_F(MmdbRep, WithoutAQueueEveryChangeForcesARescan) {
  mmdb_set_change_queue(nullptr);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  ASSERT_EQ(put_str(db_, "x", "1", 0, 1), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "y", "2", 0, 1), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_header(db_)->rep[mmdb_iterator_slot(it)].lost, 2u);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.data, (std::map<std::string, std::string>{{"x", "1"}, {"y", "2"}}));
  ASSERT_EQ(mmdb_delete(db_, "x", 1), MMDB_SUCCESS);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.data, (std::map<std::string, std::string>{{"y", "2"}}));
  EXPECT_EQ(m.resyncs, 3u);
  mmdb_iterator_delete(it);
}

TEST_F(MmdbRep, QueuedChangesNeedNoRescan) {
  plug();
  ASSERT_EQ(put_str(db_, "pre", "P", 0, 1), MMDB_SUCCESS);  // before the replicator: no message
  EXPECT_EQ(fq_.sent, 0u);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  ASSERT_EQ(put_str(db_, "a", "1", 0, 1), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "a", "2", 0, 1), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_delete(db_, "pre", 3), MMDB_SUCCESS);
  EXPECT_EQ(fq_.sent, 3u);
  // The message of queue id*5+slot carries the database id in its spare byte.
  const std::string &msg = fq_.q[static_cast<int>(3 * MMDB_MAX_REPLICATORS + mmdb_iterator_slot(it))].front();
  EXPECT_EQ(msg, std::string("\x01\x00\x00\x03" "a", 5));
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 1u);
  mmdb_iterator_delete(it);  // one iterator per process: the check needs its own
  EXPECT_EQ(m.data, replicated(db_));
}

// A bounded queue that overflows often, random changes and partial drains:
// the mirror ends equal to the database, every time.
TEST_F(MmdbRep, RandomRunWithOverflowsEndsEqual) {
  plug();
  for (uint32_t seed = 1; seed <= 20; seed++) {
  SCOPED_TRACE(seed);
  fq_ = {};
  fq_.limit = 1 + seed % 4;
  mmdb_reset(db_);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  mirror m;
  std::mt19937 rng(seed);
  for (int step = 0; step < 1000; step++) {
    std::string k = "k" + std::to_string(rng() % 12);
    uint32_t op = rng() % 10;
    if (op < 5) {
      std::string v(1 + rng() % 40, static_cast<char>('a' + step % 26));
      ASSERT_EQ(put_str(db_, k, v, 0, static_cast<uint32_t>(rng() % (v.size() + 1))), MMDB_SUCCESS);
    } else if (op < 7) {
      mmdb_delete(db_, k.data(), static_cast<uint32_t>(k.size()));
    } else if (op < 8) {
      mmdb_append_replicated(db_, static_cast<uint32_t>(k.size()), k.data(), 2, "RR");
    } else {
      // Part of the stream only: a few records.
      for (int i = 0, n = static_cast<int>(rng() % 6); i < n; i++) {
        uint8_t buf[4096];
        uint32_t len = sizeof buf;
        if (mmdb_rep_get_next(it, &len, buf) != MMDB_SUCCESS) break;
        mmdb_rep_header h;
        memcpy(&h, buf, sizeof h);
        std::string key(reinterpret_cast<char *>(buf + sizeof h), h.keylen);
        std::string rep(reinterpret_cast<char *>(buf + sizeof h + h.keylen), h.replen);
        if (h.op == MMDB_REP_UPDATE) {
          m.data[key] = rep;
          m.stale.erase(key);
        } else if (h.op == MMDB_REP_DELETE) {
          m.data.erase(key);
          m.stale.erase(key);
        } else if (h.op == MMDB_REP_RESYNC_START) {
          m.stale.clear();
          for (auto &kv : m.data) m.stale[kv.first] = true;
        } else {
          for (auto &kv : m.stale) m.data.erase(kv.first);
          m.stale.clear();
        }
      }
    }
  }
  EXPECT_GT(fq_.refused, 0u);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  mmdb_iterator_delete(it);
  EXPECT_EQ(m.data, replicated(db_));
  EXPECT_GT(m.data.size(), 2u);
  }
}

TEST_F(MmdbRep, ResetWhileReplicatorRuns) {
  plug();
  for (int i = 0; i < 20; i++) ASSERT_EQ(put_str(db_, "r" + std::to_string(i), "v", 0, 1), MMDB_SUCCESS);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  // Halfway through the scan, the database is reset and refilled a little.
  uint8_t buf[256];
  for (int i = 0; i < 8; i++) {
    uint32_t len = sizeof buf;
    ASSERT_EQ(mmdb_rep_get_next(it, &len, buf), MMDB_SUCCESS);
  }
  mirror m;
  ASSERT_EQ(mmdb_reset(db_), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "after", "A", 0, 1), MMDB_SUCCESS);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.data, (std::map<std::string, std::string>{{"after", "A"}}));
  mmdb_iterator_delete(it);
}

TEST_F(MmdbRep, DeadWriterForcesARescan) {
  if (!tvx_crashpoints_built()) GTEST_SKIP() << "crash points are compiled out";
  plug();
  mmdb_lock_spin_limit = 5;
  ASSERT_EQ(put_str(db_, "k", "old", 64, 3), MMDB_SUCCESS);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  pid_t pid = fork();
  if (pid == 0) {
    tvx_crashpoint_set("mmdb_put_copied");
    put_str(db_, "k", "new", 64, 3);
    _exit(0);
  }
  int status;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  // The dead writer sent nothing; the survivor that takes its bucket over
  // drops the half-written record and makes the replicator rescan.
  int st;
  get_str(db_, "k", &st);
  EXPECT_EQ(st, MMDB_NOT_FOUND);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 2u);
  EXPECT_TRUE(m.data.empty());
  mmdb_iterator_delete(it);
  mmdb_lock_spin_limit = 500;
}

TEST_F(MmdbRep, TransformShapesTheReplicatedBytes) {
  mmdb_close(db_);
  mmdb_params p = params();
  p.transform = [](const void *in, uint32_t inlen, void *out, uint32_t *outlen) {
    const char *s = static_cast<const char *>(in);
    char *d = static_cast<char *>(out);
    for (uint32_t i = 0; i < inlen; i++) d[i] = static_cast<char>(toupper(s[inlen - 1 - i]));
    *outlen = inlen;
  };
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  ASSERT_EQ(put_str(db_, "t", "abcxyz", 0, 3), MMDB_SUCCESS);
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  mirror m;
  m.drain(it);
  EXPECT_EQ(m.data["t"], "CBA");
  mmdb_iterator_delete(it);
}

TEST_F(MmdbRep, SixthIteratorWaitsThenAsserts) {
  // Five slots held by live processes (this one, as far as the slots know).
  for (mmdb_replicator_t &r : mmdb_header(db_)->rep) r.pid = static_cast<uint32_t>(getppid());
  EXPECT_DEATH(mmdb_iterator_create_all(db_), "attempt < 10");
  for (mmdb_replicator_t &r : mmdb_header(db_)->rep) r.pid = 0;
}

TEST_F(MmdbRep, StaleSlotsClearedAtOpen) {
  mmdb_header(db_)->rep[1].pid = 999999;  // no such process
  mmdb_header(db_)->rep[1].want_msgs = 1;
  mmdb_header(db_)->rep[2].pid = static_cast<uint32_t>(getppid());  // alive, not the replicator
  mmdb_header(db_)->rep[2].want_msgs = 1;
  mmdb_header(db_)->rep[3].pid = static_cast<uint32_t>(getppid());  // alive, a plain iterator
  mmdb_close(db_);
  db_ = open_db(params());
  ASSERT_NE(db_, nullptr);
  EXPECT_EQ(mmdb_header(db_)->rep[1].pid, 0u);
  EXPECT_EQ(mmdb_header(db_)->rep[2].pid, 0u);
  EXPECT_EQ(mmdb_header(db_)->rep[3].pid, static_cast<uint32_t>(getppid()));
  EXPECT_EQ(mmdb_header(db_)->reps_registered, 1u);
  mmdb_header(db_)->rep[3].pid = 0;
}

// The queue in place from the start: real mmcq files, one per database and slot.
TEST_F(MmdbRep, ChangesTravelOverTheMappedQueue) {
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  ASSERT_EQ(mmdb_rep_start(), MMDB_SUCCESS);
  mmcq *q = mmdb_rep_mmcq(it, nullptr, nullptr, nullptr);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(mmdb_rep_mmcq(it, nullptr, nullptr, nullptr), q);
  char name[32];
  snprintf(name, sizeof name, MMDB_QUEUE_NAME, static_cast<int>(3 * MMDB_MAX_REPLICATORS + mmdb_iterator_slot(it)));
  EXPECT_STREQ(q->name, name);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  ASSERT_EQ(put_str(db_, "a", "1", 0, 1), MMDB_SUCCESS);
  ASSERT_EQ(put_str(db_, "b", "22", 0, 2), MMDB_SUCCESS);
  ASSERT_EQ(mmdb_delete(db_, "a", 1), MMDB_SUCCESS);
  EXPECT_EQ(q->q->sent, 3u);
  EXPECT_EQ(mmdb_header(db_)->rep[mmdb_iterator_slot(it)].lost, 0u);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 1u);  // the first scan only
  EXPECT_EQ(q->q->received, 3u);
  // A replicator that starts again sends the whole database once more.
  ASSERT_EQ(mmdb_rep_start(), MMDB_SUCCESS);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 2u);
  mmdb_rep_stop();
  mmdb_iterator_delete(it);
  EXPECT_EQ(m.data, replicated(db_));
}

// A queue at its maximum refuses; the change is counted lost and the next
// read rescans, so the mirror still ends equal.
TEST_F(MmdbRep, AFullMappedQueueForcesARescan) {
  mmdb_queue_default_bytes = 8192;
  mmdb_queue_max_bytes = 16384;
  mmdb_iterator *it = mmdb_iterator_create_rep(db_);
  ASSERT_NE(mmdb_rep_mmcq(it, nullptr, nullptr, nullptr), nullptr);
  mirror m;
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  std::mt19937 rng(26);
  for (int i = 0; i < 2000; i++) {
    std::string key = "k" + std::to_string(rng() % 300);
    if (rng() % 5 == 0)
      mmdb_delete(db_, key.data(), static_cast<uint32_t>(key.size()));
    else
      ASSERT_EQ(put_str(db_, key, std::string(1 + rng() % 40, static_cast<char>('a' + i % 26))), MMDB_SUCCESS);
  }
  EXPECT_GT(mmdb_header(db_)->rep[mmdb_iterator_slot(it)].lost, 0u);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 2u);
  // Changes after the rescan come as messages again.
  uint32_t lost = mmdb_header(db_)->rep[mmdb_iterator_slot(it)].lost;
  ASSERT_EQ(put_str(db_, "late", "L", 0, 1), MMDB_SUCCESS);
  EXPECT_EQ(mmdb_header(db_)->rep[mmdb_iterator_slot(it)].lost, lost);
  EXPECT_EQ(m.drain(it), MMDB_NOT_FOUND);
  EXPECT_EQ(m.resyncs, 2u);
  mmdb_rep_stop();
  mmdb_iterator_delete(it);
  EXPECT_EQ(m.data, replicated(db_));
}
