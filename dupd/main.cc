// dupd: the replicator of the mapped databases. It reads the change stream of
// every database in the registry (lib/mmdb) and keeps a mirror of each: a
// text file "DIR/mmdb_ID.txt" (and, when asked, a second database). See
// docs/dupd.md.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mmdb/mmdb.h"
#include "mmf/crashpoint.h"

namespace {

const char kUsage[] =
    "usage: dupd [options] DIR\n"
    "Mirrors every mapped database of the registry into DIR/mmdb_ID.txt, one\n"
    "line per record: the key and the replicated bytes, both in hex, sorted by key.\n"
    "options:\n"
    "  -m SRC:DST  also mirror database SRC into database DST (same sizes, name\n"
    "              SRC's name with \"_mirror\"); may be repeated\n"
    "  -s MSEC     be slow: wait MSEC milliseconds after every record\n"
    "  -p MSEC     look for changes and new databases every MSEC (20)\n"
    "  -h, --help  this text\n"
    "SIGTERM or SIGINT stops it after the record in hand: the mirrors are written\n"
    "and a line of figures printed. TVX_CRASHPOINT=NAME[:N] kills it at a named\n"
    "point (dupd_applied, dupd_mirror_written) in test builds.\n"
    "Exit status: 0 stopped by a signal, 1 a database or the mirror could not be\n"
    "opened or written, 2 usage error.\n";

volatile sig_atomic_t stop_asked;
void on_signal(int) { stop_asked = 1; }

std::string hex(const uint8_t *p, size_t n) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  s.reserve(2 * n);
  for (size_t i = 0; i < n; i++) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

struct replica {
  uint32_t id = 0;
  mmdb *db = nullptr;
  mmdb_iterator *it = nullptr;
  mmdb *copy = nullptr;          // the second database, if any
  std::map<std::string, std::string> data;
  std::set<std::string> stale;   // keys held before a running scan, not seen since
  bool scanning = false;
  bool dirty = true;
  // Updates applied but not yet written out: acknowledged once they are.
  std::vector<std::pair<std::string, uint64_t>> acks;
};

std::string out_dir;
std::map<uint32_t, uint32_t> copies;  // source id -> mirror database id
long slow_ms = 0, poll_ms = 20;
uint64_t records, scans;

[[noreturn]] void fail(const char *fmt, const char *what, const char *why) {
  fprintf(stderr, "dupd: ");
  fprintf(stderr, fmt, what, why);
  fputc('\n', stderr);
  exit(1);
}

void write_mirror(replica &r) {
  char path[4096], tmp[4200];
  snprintf(path, sizeof path, "%s/mmdb_%u.txt", out_dir.c_str(), r.id);
  snprintf(tmp, sizeof tmp, "%s.tmp", path);
  FILE *f = fopen(tmp, "we");
  if (!f) fail("%s: %s", tmp, strerror(errno));
  for (auto &kv : r.data)
    fprintf(f, "%s %s\n", hex(reinterpret_cast<const uint8_t *>(kv.first.data()), kv.first.size()).c_str(),
            hex(reinterpret_cast<const uint8_t *>(kv.second.data()), kv.second.size()).c_str());
  if (fflush(f) != 0 || fsync(fileno(f)) != 0) fail("%s: %s", tmp, strerror(errno));
  fclose(f);
  TVX_CRASHPOINT("dupd_mirror_written");
  if (rename(tmp, path) != 0) fail("%s: %s", path, strerror(errno));
  r.dirty = false;
  // Stored now: the writers may hear so.
  for (auto &a : r.acks)
    mmdb_process_ack_from_rep(r.it, a.first.data(), static_cast<uint32_t>(a.first.size()), a.second);
  r.acks.clear();
}

void copy_put(replica &r, const std::string &k, const std::string &v) {
  if (!r.copy) return;
  uint32_t n = static_cast<uint32_t>(v.size());
  mmdb_put(r.copy, k.data(), static_cast<uint32_t>(k.size()), v.data(), n, n, n, false);
}
void copy_del(replica &r, const std::string &k) {
  if (r.copy) mmdb_delete(r.copy, k.data(), static_cast<uint32_t>(k.size()));
}

void apply(replica &r, const mmdb_rep_header &h, const uint8_t *body) {
  std::string key(reinterpret_cast<const char *>(body), h.keylen);
  switch (h.op) {
    case MMDB_REP_UPDATE: {
      std::string v(reinterpret_cast<const char *>(body + h.keylen), h.replen);
      copy_put(r, key, v);
      if (uint64_t cookie = mmdb_rep_cookie(r.it)) r.acks.emplace_back(key, cookie);
      r.data[key] = std::move(v);
      r.stale.erase(key);
      break;
    }
    case MMDB_REP_DELETE:
      copy_del(r, key);
      r.data.erase(key);
      r.stale.erase(key);
      break;
    case MMDB_REP_RESYNC_START:
      scans++;
      r.scanning = true;
      r.stale.clear();
      for (auto &kv : r.data) r.stale.insert(kv.first);
      break;
    case MMDB_REP_RESYNC_DONE:
      for (const std::string &k : r.stale) {
        copy_del(r, k);
        r.data.erase(k);
      }
      r.stale.clear();
      r.scanning = false;
      break;
  }
  r.dirty = true;
  records++;
  TVX_CRASHPOINT("dupd_applied");
  if (slow_ms) usleep(static_cast<useconds_t>(slow_ms * 1000));
}

void open_copy(replica &r, uint32_t dst) {
  mmdb_params p = *mmdb_get_params(r.db);
  std::string name = std::string(mmdb_get_params(r.db)->name) + "_mirror";
  if (name.size() >= sizeof p.name) fail("mirror database of %s: %s", mmdb_get_params(r.db)->name, "name too long");
  memcpy(p.name, name.c_str(), name.size() + 1);
  p.id = dst;
  p.flags &= ~(MMDB_F_REPLICATE | MMDB_F_ACKS);
  p.transform = nullptr;
  int st;
  r.copy = mmdb_open(&p, &st);
  if (!r.copy) {
    char id[16];
    snprintf(id, sizeof id, "%u", dst);
    fail("mirror database %s: %s", id, mmdb_status_str(st));
  }
  // What the copy holds from an earlier run is what the next scan's end
  // judges: a key deleted while no replicator ran must leave the copy too.
  mmdb_iterator *it = mmdb_iterator_create_all(r.copy);
  std::vector<char> key(MMDB_MAX_KEYLEN + 1), val(p.max_data + 1);
  for (;;) {
    uint32_t kl = static_cast<uint32_t>(key.size()), vl = static_cast<uint32_t>(val.size()), rl = 0;
    if (mmdb_iterator_get_next(it, key.data(), &kl, val.data(), &vl, &rl) != MMDB_SUCCESS) break;
    r.data[std::string(key.data(), kl)] = std::string(val.data(), rl);
  }
  mmdb_iterator_delete(it);
}

// Opens every database of the registry not yet replicated.
void discover(std::map<uint32_t, replica> &reps) {
  const mmdb_registry_t *reg = mmdb_registry_peek();
  if (!reg) return;
  std::set<uint32_t> dsts;
  for (auto &c : copies) dsts.insert(c.second);
  for (uint32_t id = 1; id < MMDB_MAX_IDS; id++) {
    if (reg->entry[id].id != id || reps.count(id) || dsts.count(id)) continue;
    int st;
    mmdb *db = mmdb_open_by_id(id, &st);
    if (!db) continue;  // being made by its first opener; the next round tries again
    replica &r = reps[id];
    r.id = id;
    r.db = db;
    r.it = mmdb_iterator_create_rep(db);
    if (!r.it || !mmdb_rep_mmcq(r.it, nullptr, nullptr, nullptr)) {
      char s[16];
      snprintf(s, sizeof s, "%u", id);
      fail("database %s: %s", s, "no replicator slot or change queue");
    }
    if (copies.count(id)) open_copy(r, copies[id]);
  }
}

// Applies what the stream of one database holds; false when it held nothing.
bool drain(replica &r) {
  bool any = false;
  static std::vector<uint8_t> buf(12 + MMDB_MAX_KEYLEN + 4096);
  while (!stop_asked) {
    uint32_t len = static_cast<uint32_t>(buf.size());
    int st = mmdb_rep_get_next(r.it, &len, buf.data());
    if (st == MMDB_NOT_FOUND) break;
    if (st == MMDB_BUFFER_TOO_SMALL && len > buf.size()) {
      buf.resize(len);
      continue;
    }
    if (st != MMDB_SUCCESS) {
      // A database found invalid is rebuilt by its next open; meanwhile wait.
      if (st != MMDB_CORRUPT) fprintf(stderr, "dupd: database %u: %s\n", r.id, mmdb_status_str(st));
      break;
    }
    mmdb_rep_header h;
    memcpy(&h, buf.data(), sizeof h);
    apply(r, h, buf.data() + sizeof h);
    any = true;
  }
  return any;
}

bool parse_num(const char *s, long lo, long hi, long *out) {
  char *end;
  errno = 0;
  long v = strtol(s, &end, 10);
  if (errno || end == s || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int misuse(const char *why) {
  fprintf(stderr, "dupd: %s\n", why);
  fputs(kUsage, stderr);
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  static const option longopts[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "m:s:p:h", longopts, nullptr)) != -1) {
    switch (c) {
      case 'm': {
        long src, dst;
        std::string a = optarg;
        size_t colon = a.find(':');
        if (colon == std::string::npos || !parse_num(a.substr(0, colon).c_str(), 1, MMDB_MAX_IDS - 1, &src) ||
            !parse_num(a.substr(colon + 1).c_str(), 1, MMDB_MAX_IDS - 1, &dst) || src == dst)
          return misuse("-m: SRC:DST, two different database ids 1 to 22");
        copies[static_cast<uint32_t>(src)] = static_cast<uint32_t>(dst);
        break;
      }
      case 's':
        if (!parse_num(optarg, 0, 60000, &slow_ms)) return misuse("-s: milliseconds 0 to 60000");
        break;
      case 'p':
        if (!parse_num(optarg, 1, 60000, &poll_ms)) return misuse("-p: milliseconds 1 to 60000");
        break;
      case 'h':
        fputs(kUsage, stdout);
        return 0;
      default:
        fputs(kUsage, stderr);
        return 2;
    }
  }
  if (argc - optind != 1) return misuse("one mirror directory expected");
  out_dir = argv[optind];
  struct stat sb;
  if (stat(out_dir.c_str(), &sb) != 0 || !S_ISDIR(sb.st_mode))
    fail("%s: %s", out_dir.c_str(), stat(out_dir.c_str(), &sb) != 0 ? strerror(errno) : "not a directory");

  struct sigaction sa = {};
  sa.sa_handler = on_signal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);

  std::map<uint32_t, replica> reps;
  discover(reps);
  mmdb_rep_start();
  printf("dupd: replicating\n");
  fflush(stdout);
  long rounds = 0;
  while (!stop_asked) {
    // New databases are looked for every 25 rounds: opening costs more than a poll.
    if (++rounds % 25 == 0) discover(reps);
    bool any = false;
    for (auto &e : reps) {
      replica &r = e.second;
      any = drain(r) || any;
      // A mirror is written whole, and never in the middle of a scan.
      if (r.dirty && !r.scanning) write_mirror(r);
    }
    if (!any && !stop_asked) poll(nullptr, 0, static_cast<int>(poll_ms));
  }
  for (auto &e : reps) {
    replica &r = e.second;
    if (r.dirty && !r.scanning) write_mirror(r);
    mmdb_iterator_delete(r.it);
    if (r.copy) mmdb_close(r.copy);
    mmdb_close(r.db);
  }
  mmdb_rep_stop();
  printf("dupd: stopped: %zu databases, %llu records, %llu full scans\n", reps.size(),
         static_cast<unsigned long long>(records), static_cast<unsigned long long>(scans));
  return 0;
}
