// mmdbload: a writer of a mapped database for tests of the replicator: seeded
// puts and deletes over a shared set of keys, every value checking itself.
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "mmdb/mmdb.h"

namespace {

const char kUsage[] =
    "usage: mmdbload [-a] [-i ID] [-n COUNT] [-k KEYS] [-r SEED] [-w WRITER] [-x N]\n"
    "       mmdbload -C      the database's crash points, one a line\n"
    "COUNT (10000) seeded changes to database ID (7, made if missing: \"load\" with\n"
    "64 buckets): a put of key \"kN\" (N below KEYS, 500), or one in five a delete.\n"
    "One put in eight of an existing key replaces its replicated part instead;\n"
    "-x N resets the database before change N.\n"
    "A value is \"WRITER:SEQ:\" and a filler derived from them; every get is\n"
    "checked against that rule.\n"
    "-a: the database keeps acknowledgements (when it is made); after its changes\n"
    "the writer takes its acks until no record waits for one (10 s at most).\n"
    "Exit status: 0 done, 1 a database call failed or a value was wrong, 2 usage,\n"
    "3 (-a) records still waited for their ack after 10 s.\n";

long num(const char *s, long lo, long hi) {
  char *end;
  errno = 0;
  long v = strtol(s, &end, 10);
  if (errno || end == s || *end || v < lo || v > hi) {
    fprintf(stderr, "mmdbload: bad number %s\n%s", s, kUsage);
    exit(2);
  }
  return v;
}

std::string value(long writer, long seq) {
  std::string v = std::to_string(writer) + ":" + std::to_string(seq) + ":";
  size_t len = v.size() + static_cast<size_t>((seq * 13 + writer * 7) % 90);
  while (v.size() < len) v += static_cast<char>('a' + (seq + static_cast<long>(v.size())) % 26);
  return v;
}

// Whether a value read back is one that some writer could have written.
bool well_formed(const std::string &v) {
  long w, s;
  int n = 0;
  if (sscanf(v.c_str(), "%ld:%ld:%n", &w, &s, &n) != 2 || n == 0) return false;
  return value(w, s) == v;
}

}  // namespace

int main(int argc, char **argv) {
  long id = 7, count = 10000, keys = 500, seed = 1, writer = 1;
  long reset_at = -1;
  bool acks = false;
  int c;
  while ((c = getopt(argc, argv, "ai:n:k:r:w:x:Ch")) != -1) {
    switch (c) {
      case 'C':
        for (size_t i = 0; i < mmdb_crashpoint_count; i++) puts(mmdb_crashpoints[i]);
        return 0;
      case 'x': reset_at = num(optarg, 0, 100000000); break;
      case 'a': acks = true; break;
      case 'i': id = num(optarg, 1, MMDB_MAX_IDS - 1); break;
      case 'n': count = num(optarg, 0, 100000000); break;
      case 'k': keys = num(optarg, 1, 1000000); break;
      case 'r': seed = num(optarg, 0, 1L << 30); break;
      case 'w': writer = num(optarg, 0, 1000000); break;
      case 'h': fputs(kUsage, stdout); return 0;
      default: fputs(kUsage, stderr); return 2;
    }
  }
  if (optind != argc) {
    fprintf(stderr, "mmdbload: no operands expected\n%s", kUsage);
    return 2;
  }
  mmdb_params p = {};
  snprintf(p.name, sizeof p.name, "load");
  p.id = static_cast<uint32_t>(id);
  p.flags = MMDB_F_REPLICATE | (acks ? MMDB_F_ACKS : 0);
  p.bucket_count = 64;
  p.max_bytes = p.mapped_span = 32 << 20;
  p.default_bytes = p.grow_by_bytes = 1 << 20;
  p.max_mapped_regions = 1;
  p.max_key = 32;
  p.max_data = p.max_replicated = 256;
  int st;
  mmdb *db = mmdb_open(&p, &st);
  if (!db) {
    fprintf(stderr, "mmdbload: database %ld: %s\n", id, mmdb_status_str(st));
    return 1;
  }
  std::mt19937 rng(static_cast<uint32_t>(seed));
  for (long i = 0; i < count; i++) {
    std::string key = "k" + std::to_string(rng() % static_cast<uint32_t>(keys));
    uint32_t kl = static_cast<uint32_t>(key.size());
    if (i == reset_at && (st = mmdb_reset(db)) != MMDB_SUCCESS) {
      fprintf(stderr, "mmdbload: reset: %s\n", mmdb_status_str(st));
      return 1;
    }
    if (rng() % 5 == 0) {
      st = mmdb_delete(db, key.data(), kl);
      if (st == MMDB_NOT_FOUND) st = MMDB_SUCCESS;
    } else if (rng() % 4 == 0) {
      char buf[512];
      uint32_t len = sizeof buf;
      st = mmdb_get(db, key.data(), kl, buf, &len, nullptr);
      if (st == MMDB_SUCCESS && !well_formed(std::string(buf, len))) {
        fprintf(stderr, "mmdbload: key %s: wrong value %.*s\n", key.c_str(), static_cast<int>(len), buf);
        return 1;
      }
      if (st == MMDB_NOT_FOUND) st = MMDB_SUCCESS;
    } else {
      std::string v = value(writer, i);
      uint32_t n = static_cast<uint32_t>(v.size());
      // The whole value is replicated: replacing that part replaces it all.
      if (rng() % 8 == 0) {
        st = mmdb_append_replicated(db, kl, key.data(), n, v.data());
        if (st == MMDB_NOT_FOUND) st = MMDB_SUCCESS;
      } else {
        st = mmdb_put(db, key.data(), kl, v.data(), n, n, n, false);
      }
    }
    if (st != MMDB_SUCCESS) {
      fprintf(stderr, "mmdbload: database %ld: %s\n", id, mmdb_status_str(st));
      return 1;
    }
  }
  long acked = 0;
  if (acks) {
    // Every record, ours or the other writers', must be acknowledged in the end.
    bool waiting = true;
    for (int round = 0; round < 1000 && waiting; round++) {
      char key[64];
      uint32_t kl = sizeof key;
      while (mmdb_ack_get_next(nullptr, key, &kl, nullptr) == MMDB_SUCCESS) {
        acked++;
        kl = sizeof key;
      }
      waiting = false;
      for (long k = 0; k < keys && !waiting; k++) {
        std::string key_s = "k" + std::to_string(k);
        bool pending = false;
        mmdb_ack_pending(db, key_s.data(), static_cast<uint32_t>(key_s.size()), &pending);
        waiting = pending;
      }
      if (waiting) usleep(10000);
    }
    if (waiting) {
      fprintf(stderr, "mmdbload: records still wait for their ack\n");
      return 3;
    }
  }
  mmdb_close(db);
  printf("mmdbload: %ld changes, %ld acks\n", count, acked);
  return 0;
}
