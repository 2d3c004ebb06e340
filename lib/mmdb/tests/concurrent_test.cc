// Writer processes and threads on one database at once: every value read is
// one that some writer wrote whole, every writer's own keys hold what it
// wrote last, and the chains are whole at the end.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>
#include <thread>

#include "mmdb_fixture.h"

namespace {

// A self-checking value: its length and every byte derive from a seed.
std::string make_value(uint32_t seed) {
  std::string v(8 + seed % 300, '\0');
  memcpy(v.data(), &seed, 4);
  uint32_t len = static_cast<uint32_t>(v.size());
  memcpy(v.data() + 4, &len, 4);
  for (size_t i = 8; i < v.size(); i++) v[i] = static_cast<char>(seed * 31 + i);
  return v;
}
bool well_formed(const std::string &v) {
  if (v.size() < 8) return false;
  uint32_t seed;
  memcpy(&seed, v.data(), 4);
  return v == make_value(seed);
}

// One writer: its own keys ("w<n>-<k>") checked against a model, shared keys
// ("s<k>") only for being well formed. Returns the number of failures.
int writer(mmdb *db, uint32_t n, int steps) {
  std::mt19937 rng(n * 7919 + 1);
  std::map<std::string, std::string> mine;
  int bad = 0;
  for (int i = 0; i < steps; i++) {
    bool shared = rng() % 2;
    std::string k = shared ? "s" + std::to_string(rng() % 20) : "w" + std::to_string(n) + "-" + std::to_string(rng() % 50);
    uint32_t op = rng() % 4;
    if (op < 2) {
      std::string v = make_value(static_cast<uint32_t>(rng()));
      uint32_t cap = static_cast<uint32_t>(v.size()) + rng() % 64;
      if (put_str(db, k, v, cap, 4) != MMDB_SUCCESS) bad++;
      if (!shared) mine[k] = v;
    } else if (op == 2) {
      int st = mmdb_delete(db, k.data(), static_cast<uint32_t>(k.size()));
      if (!shared && st != (mine.erase(k) ? MMDB_SUCCESS : MMDB_NOT_FOUND)) bad++;
    } else {
      int st;
      std::string v = get_str(db, k, &st);
      if (st == MMDB_SUCCESS && !well_formed(v)) bad++;
      if (!shared) {
        auto it = mine.find(k);
        if (it == mine.end() ? st != MMDB_NOT_FOUND : v != it->second) bad++;
      }
    }
  }
  return bad;
}

}  // namespace

TEST_F(MmdbTest, ProcessesAndThreadsWriteAtOnce) {
  mmdb_params p = params();
  p.bucket_count = 5;  // few buckets: writers meet on the same locks
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  // The writers start together: each waits for the end of a pipe.
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  std::vector<pid_t> kids;
  for (uint32_t n = 0; n < 3; n++) {
    pid_t pid = fork();
    if (pid == 0) {
      close(go[1]);
      char c;
      while (read(go[0], &c, 1) > 0) {
      }
      _exit(writer(db_, n, 3000) ? 1 : 0);
    }
    kids.push_back(pid);
  }
  close(go[0]);
  close(go[1]);
  // Two threads of this process as well.
  int bad[2] = {0, 0};
  std::thread t1([&] { bad[0] = writer(db_, 10, 3000); });
  std::thread t2([&] { bad[1] = writer(db_, 11, 3000); });
  t1.join();
  t2.join();
  EXPECT_EQ(bad[0] + bad[1], 0);
  for (pid_t pid : kids) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer " << pid << " status " << status;
  }
  char why[200] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why;
  EXPECT_STREQ(why, "");
}

// Resets while other processes write: a writer never walks into a chain the
// reset is tearing down (every value it reads is whole, nothing asserts), and
// the database is whole after.
TEST_F(MmdbTest, ResetsWhileProcessesWrite) {
  mmdb_params p = params();
  p.bucket_count = 8;
  db_ = open_db(p);
  ASSERT_NE(db_, nullptr);
  std::vector<pid_t> kids;
  for (int n = 0; n < 2; n++) {
    pid_t pid = fork();
    if (pid == 0) {
      mmdb_close(db_);
      int st;
      mmdb *db = mmdb_open(&p, &st);
      if (!db) _exit(3);
      std::mt19937 rng(static_cast<uint32_t>(n) + 11);
      int bad = 0;
      for (int i = 0; i < 20000; i++) {
        std::string k = "s" + std::to_string(rng() % 100);
        if (rng() % 3) {
          std::string v = make_value(static_cast<uint32_t>(rng()));
          if (put_str(db, k, v, 0, 4) != MMDB_SUCCESS) bad++;
        } else {
          std::string v = get_str(db, k, &st);
          if (st == MMDB_SUCCESS && !well_formed(v)) bad++;
        }
      }
      mmdb_close(db);
      _exit(bad ? 1 : 0);
    }
    kids.push_back(pid);
  }
  // Resets for as long as the writers run.
  int resets = 0;
  for (size_t done = 0; done < kids.size();) {
    ASSERT_EQ(mmdb_reset(db_), MMDB_SUCCESS);
    resets++;
    for (pid_t &k : kids) {
      int status = 0;
      if (k && waitpid(k, &status, WNOHANG) == k) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer status " << status;
        k = 0;
        done++;
      }
    }
  }
  EXPECT_GT(resets, 10);
  char why[200] = "";
  EXPECT_EQ(mmdb_verify_chains(db_, why, sizeof why), MMDB_SUCCESS) << why;
}
