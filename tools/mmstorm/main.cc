// mmstorm: writer processes that share one mapped file, each with threads
// doing seeded allocations and frees whose contents check themselves, and a
// log of what was acknowledged to them; and the check of a file against those
// logs after writers were killed. See docs/mmf.md.
//
//   mmstorm writer -i ID FILE LOGDIR     one writer process
//   mmstorm run -w N FILE LOGDIR         N writer processes, forked
//   mmstorm check FILE LOGDIR            reopen and compare with the logs
#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "mmf/crashpoint.h"
#include "mmf/mmf.h"
#include "platform/path.h"

namespace {

const char kUsage[] =
    "usage: mmstorm writer -i ID [options] FILE LOGDIR   one writer process\n"
    "       mmstorm run [-w N] [-k ID] [options] FILE LOGDIR\n"
    "                                                  N writer processes (4), forked\n"
    "       mmstorm check [--region] FILE LOGDIR       reopen FILE, compare with the logs\n"
    "       mmstorm crashpoints                        the named crash points, one a line\n"
    "options: -t N threads per writer (2), -n N operations per thread (2000),\n"
    "         -l N live blocks per thread at most (64), -s SEED (1),\n"
    "         --region  region mode (64 KiB regions, 4 mapped) instead of one mapping\n"
    "With run, only writer -k ID keeps TVX_CRASHPOINT (default: every writer).\n"
    "FILE is a logical path (\"/mfs/var/...\") under TAVOX_ROOT. Each writer thread\n"
    "logs to LOGDIR/wIDtT.log: \"A OFF SIZE TAG\" once a block is allocated and\n"
    "filled, \"f OFF\" before and \"F OFF\" after its free.\n"
    "Exit status: 0 done (check: valid, every acknowledged block intact),\n"
    "1 a block's contents changed, overlapped another, or went missing,\n"
    "2 usage, 3 the file could not be opened or an allocation failed (crashpoints:\n"
    "the build has none),\n"
    "4 (check) the file was not valid and a reopen rebuilt it empty,\n"
    "5 (run) a writer died otherwise than by SIGKILL.\n";

constexpr uint32_t kClasses[] = {64, 256, 1024, 4096};
constexpr int64_t kMax = int64_t(64) << 20, kDefault = 256 << 10, kGrow = 256 << 10, kRegion = 64 << 10;

struct Options {
  int id = -1, writers = 4, threads = 2, ops = 2000, live = 64, armed = -1;
  uint64_t seed = 1;
  bool region = false;
  const char *file = nullptr, *logdir = nullptr;
};

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

int usage(FILE *f, int rc) {
  fputs(kUsage, f);
  return rc;
}

int misuse(const char *why) {
  fprintf(stderr, "mmstorm: %s\n", why);
  return usage(stderr, 2);
}

mmf *open_file(const Options &o) {
  return mmf_create(o.file, kMax, kDefault, kGrow, !o.region, o.region ? kRegion : 0, o.region ? 4 : 1,
                    sizeof kClasses / sizeof kClasses[0], kClasses, 0, nullptr);
}

uint64_t splitmix(uint64_t &x) {
  uint64_t z = (x += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// A block's contents: a stream of its tag, so that any byte of another
// writer's (or of a node header) shows.
void fill(uint8_t *p, uint32_t size, uint64_t tag) {
  uint64_t x = tag;
  for (uint32_t i = 0; i < size; i += 8) {
    uint64_t v = splitmix(x);
    memcpy(p + i, &v, std::min<uint32_t>(8, size - i));
  }
}

bool intact(const uint8_t *p, uint32_t size, uint64_t tag) {
  uint64_t x = tag;
  for (uint32_t i = 0; i < size; i += 8) {
    uint64_t v = splitmix(x);
    if (memcmp(p + i, &v, std::min<uint32_t>(8, size - i)) != 0) return false;
  }
  return true;
}

// Takes the lock, keeping the longest wait: every operation of a writer
// thread goes through here, so a survivor's wait for a dead holder shows.
void lock(mmf *m, double *longest) {
  double t0 = now();
  mmf_lock(m);
  *longest = std::max(*longest, now() - t0);
}

// Checks a block under the lock (a region-mode pointer lives until the next map).
bool check_block(mmf *m, off_t off, uint32_t size, uint64_t tag, double *longest) {
  lock(m, longest);
  const auto *p = static_cast<const uint8_t *>(mmf_user_ptr(m, off, size));
  bool ok = p && intact(p, size, tag);
  mmf_unlock(m);
  return ok;
}

// One line, one write: a SIGKILL never leaves half a line.
void log_line(int fd, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void log_line(int fd, const char *fmt, ...) {
  char buf[128];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (write(fd, buf, static_cast<size_t>(n)) != n) {
    perror("mmstorm: log");
    _exit(3);
  }
}

struct Thread {
  const Options *o;
  mmf *m;
  int index;
  int rc = 0;
  double max_lock_wait = 0;
  pthread_t tid;
};

struct Block {
  off_t off;
  uint32_t size;
  uint64_t tag;
};

void *writer_thread(void *arg) {
  Thread *t = static_cast<Thread *>(arg);
  const Options &o = *t->o;
  mmf *m = t->m;
  std::string path = std::string(o.logdir) + "/w" + std::to_string(o.id) + "t" + std::to_string(t->index) + ".log";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    fprintf(stderr, "mmstorm: %s: %s\n", path.c_str(), strerror(errno));
    t->rc = 3;
    return nullptr;
  }
  std::mt19937_64 rng(o.seed * 1000003u + static_cast<uint64_t>(o.id) * 1009u + static_cast<uint64_t>(t->index));
  std::vector<Block> live;
  auto bad = [&](const Block &b, const char *when) {
    fprintf(stderr, "mmstorm: writer %d thread %d: block at %lld (%u bytes) changed %s\n", o.id, t->index,
            static_cast<long long>(b.off), b.size, when);
    t->rc = 1;
  };
  for (int op = 0; op < o.ops && t->rc == 0; op++) {
    // Three allocations to two frees: the live set climbs to its cap and stays near it.
    bool alloc = live.empty() || (static_cast<int>(live.size()) < o.live && rng() % 5 < 3);
    if (alloc) {
      // Mostly small, sometimes large, so that nodes split, merge and the file grows.
      uint32_t size = rng() % 8 == 0 ? 1024 + static_cast<uint32_t>(rng() % 3073)
                                     : 1 + static_cast<uint32_t>(rng() % 1024);
      uint64_t tag = (uint64_t(o.id) << 48) | (uint64_t(t->index) << 40) | uint64_t(op);
      lock(m, &t->max_lock_wait);
      off_t off;
      auto *p = static_cast<uint8_t *>(mmf_alloc(m, size, &off));
      if (p) fill(p, size, tag);
      mmf_unlock(m);
      if (!p) {
        fprintf(stderr, "mmstorm: writer %d thread %d: allocation of %u bytes failed\n", o.id, t->index, size);
        t->rc = 3;
        break;
      }
      live.push_back({off, size, tag});
      log_line(fd, "A %lld %u %" PRIu64 "\n", static_cast<long long>(off), size, tag);
    } else {
      size_t i = rng() % live.size();
      Block b = live[i];
      if (!check_block(m, b.off, b.size, b.tag, &t->max_lock_wait)) {
        bad(b, "before its free");
        break;
      }
      log_line(fd, "f %lld\n", static_cast<long long>(b.off));
      lock(m, &t->max_lock_wait);
      mmf_free_offset(m, b.off);
      mmf_unlock(m);
      log_line(fd, "F %lld\n", static_cast<long long>(b.off));
      live[i] = live.back();
      live.pop_back();
    }
    if (op % 256 == 255)
      for (const Block &b : live)
        if (!check_block(m, b.off, b.size, b.tag, &t->max_lock_wait)) {
          bad(b, "while live");
          break;
        }
  }
  // The blocks still live stay allocated, for the check to find.
  for (const Block &b : live)
    if (t->rc == 0 && !check_block(m, b.off, b.size, b.tag, &t->max_lock_wait)) bad(b, "at the end");
  close(fd);
  return nullptr;
}

int writer(const Options &o) {
  mmf *m = open_file(o);
  if (!m) {
    fprintf(stderr, "mmstorm: writer %d: %s: cannot open: %s\n", o.id, o.file, strerror(mmf_open_errno));
    return 3;
  }
  printf("writer %d: open\n", o.id);  // tests start a crash after the others are in
  std::vector<Thread> ts(static_cast<size_t>(o.threads));
  for (int i = 0; i < o.threads; i++) {
    ts[i].o = &o;
    ts[i].m = m;
    ts[i].index = i;
    pthread_create(&ts[i].tid, nullptr, writer_thread, &ts[i]);
  }
  int rc = 0;
  double wait = 0;
  for (Thread &t : ts) {
    pthread_join(t.tid, nullptr);
    if (t.rc && !rc) rc = t.rc;
    wait = std::max(wait, t.max_lock_wait);
  }
  printf("writer %d: %d threads, %d operations each, longest lock wait %.3f s\n", o.id, o.threads, o.ops, wait);
  mmf_close(m);
  return rc;
}

int run(const Options &o) {
  std::vector<pid_t> kids;
  for (int i = 0; i < o.writers; i++) {
    pid_t p = fork();
    if (p < 0) {
      perror("mmstorm: fork");
      return 3;
    }
    if (p == 0) {
      if (o.armed >= 0 && o.armed != i) tvx_crashpoint_set(nullptr);
      Options w = o;
      w.id = i;
      fflush(stdout);
      _exit(writer(w));
    }
    kids.push_back(p);
  }
  int rc = 0;
  for (int i = 0; i < o.writers; i++) {
    int st;
    while (waitpid(kids[i], &st, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(st)) {
      printf("writer %d killed by SIG%s\n", i, sigabbrev_np(WTERMSIG(st)));
      if (WTERMSIG(st) != SIGKILL && !rc) rc = 5;
    } else if (WEXITSTATUS(st) && !rc) {
      rc = WEXITSTATUS(st);
    }
  }
  return rc;
}

// ---- check ----------------------------------------------------------------

struct Acked {
  uint32_t size;
  uint64_t tag;
  std::string log;
};

// Replays every log: the blocks acknowledged and not freed, and those whose
// free was begun but not acknowledged (either outcome is right for them).
// Each log is in its thread's order; logs of different threads are not
// ordered with each other, so an offset may recur across them, but never
// live in two at the end.
bool replay(const char *logdir, std::map<off_t, Acked> &live, size_t &unsure, bool &clash) {
  DIR *d = opendir(logdir);
  if (!d) return false;
  while (dirent *e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() < 5 || name.compare(name.size() - 4, 4, ".log") != 0) continue;
    FILE *f = fopen((std::string(logdir) + "/" + name).c_str(), "r");
    if (!f) continue;
    std::map<off_t, Acked> mine, pending;
    char kind;
    long long off;
    while (fscanf(f, " %c %lld", &kind, &off) == 2) {
      if (kind == 'A') {
        unsigned size;
        uint64_t tag;
        if (fscanf(f, "%u %" SCNu64, &size, &tag) != 2) break;
        if (mine.count(off)) {
          printf("offset %lld acknowledged twice in %s\n", off, name.c_str());
          clash = true;
        }
        pending.erase(off);
        mine[off] = {size, tag, name};
      } else if (kind == 'f') {
        auto it = mine.find(off);
        if (it != mine.end()) {
          pending[off] = it->second;
          mine.erase(it);
        }
      } else if (kind == 'F') {
        pending.erase(off);
      }
    }
    fclose(f);
    for (auto &[o, b] : mine) {
      if (live.count(o)) {
        printf("offset %lld is live in %s and in %s\n", static_cast<long long>(o), live[o].log.c_str(), name.c_str());
        clash = true;
      }
      live[o] = b;
    }
    unsure += pending.size();
  }
  closedir(d);
  return true;
}

int check(const Options &o) {
  std::map<off_t, Acked> live;
  size_t unsure = 0;
  bool clash = false;
  if (!replay(o.logdir, live, unsure, clash)) {
    fprintf(stderr, "mmstorm: %s: %s\n", o.logdir, strerror(errno));
    return 3;
  }
  // How the writers left the file, before an open can rebuild it.
  bool valid_before = false;
  uint32_t takeovers = 0, inits = 0;
  if (mmf *seen = mmf_open_existing(o.file)) {
    valid_before = seen->shared_info->magic == MMF_MAGIC_READY && mmf_valid(seen, false);
    takeovers = seen->shared_info->dead_holder_takeovers;
    inits = seen->shared_info->init_calls;
    mmf_close(seen);
  }
  mmf *m = open_file(o);
  if (!m) {
    fprintf(stderr, "mmstorm: %s: cannot open: %s\n", o.file, strerror(mmf_open_errno));
    return 3;
  }
  m->fatal = 0;  // damage is reported here, not died of
  int rc = clash ? 1 : 0;
  if (!mmf_valid(m, false)) {
    printf("the file is not valid after the reopen\n");
    rc = 1;
  }
  // A file that walks is still rebuilt when it is longer than its header
  // says (a writer died inside a growth that nobody finished since).
  if (!valid_before || m->shared_info->init_calls != inits) {
    bool empty = m->shared_info->allocated_bytes == 0;
    printf("rebuilt: the file was not valid; %zu acknowledged blocks discarded%s\n", live.size(),
           empty ? "" : ", but the rebuilt file is not empty");
    mmf_close(m);
    return rc ? rc : (empty ? 4 : 1);
  }
  // Every acknowledged block is still an allocated node holding its contents,
  // and no two of them share a byte.
  size_t lost = 0;
  uint64_t end = 0;
  off_t last = 0;
  for (const auto &[off, b] : live) {
    mmf_lock(m);
    bool node = mmf_validate_user_offset(m, off, false);
    const mmf_node_header_t *n = node ? mmf_node_validate(m, off - mmf_node_header_bytes) : nullptr;
    bool used = n && !(n->flags & MMF_FLAG_FREE) && n->len >= b.size + mmf_node_bytes;
    uint64_t nend = n ? static_cast<uint64_t>(off) - mmf_node_header_bytes + n->len : 0;
    const auto *p = used ? static_cast<const uint8_t *>(mmf_ensure_mapped(m, off, b.size)) : nullptr;
    bool same = p && intact(p, b.size, b.tag);
    mmf_unlock(m);
    if (!used || !same) {
      printf("block at %lld (%u bytes, %s) %s\n", static_cast<long long>(off), b.size, b.log.c_str(),
             !used ? "is not an allocated node" : "lost its contents");
      lost++;
    }
    if (static_cast<uint64_t>(off) - mmf_node_header_bytes < end) {
      printf("block at %lld overlaps the block at %lld\n", static_cast<long long>(off), static_cast<long long>(last));
      lost++;
    }
    if (nend > end) end = nend;
    last = off;
  }
  printf("valid: %zu acknowledged blocks checked, %zu lost or overlapping, %zu frees unacknowledged, "
         "%u locks taken from dead holders\n",
         live.size(), lost, unsure, takeovers);
  mmf_close(m);
  return lost ? 1 : rc;
}

int to_int(const char *s, int lo, bool *ok) {
  char *end;
  long v = strtol(s, &end, 10);
  if (*end || v < lo || v > 1000000) *ok = false;
  return static_cast<int>(v);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) return usage(stdout, 0);
  if (argc < 2) return misuse("a command is needed");
  std::string cmd = argv[1];
  if (cmd == "crashpoints") {
    if (!tvx_crashpoints_built()) {
      fprintf(stderr, "mmstorm: this build has no crash points (TVX_CRASHPOINTS=OFF)\n");
      return 3;
    }
    for (size_t i = 0; i < mmf_crashpoint_count; i++) puts(mmf_crashpoints[i]);
    return 0;
  }
  if (cmd != "writer" && cmd != "run" && cmd != "check") return misuse("unknown command (writer, run or check)");
  Options o;
  static option longs[] = {{"region", no_argument, nullptr, 'r'}, {"help", no_argument, nullptr, 'h'}, {}};
  bool ok = true;
  optind = 2;
  int c;
  while ((c = getopt_long(argc, argv, "i:w:k:t:n:l:s:", longs, nullptr)) != -1) {
    switch (c) {
      case 'i': o.id = to_int(optarg, 0, &ok); break;
      case 'w': o.writers = to_int(optarg, 1, &ok); break;
      case 'k': o.armed = to_int(optarg, 0, &ok); break;
      case 't': o.threads = to_int(optarg, 1, &ok); break;
      case 'n': o.ops = to_int(optarg, 0, &ok); break;
      case 'l': o.live = to_int(optarg, 1, &ok); break;
      case 's': o.seed = static_cast<uint64_t>(to_int(optarg, 0, &ok)); break;
      case 'r': o.region = true; break;
      case 'h': return usage(stdout, 0);
      default: return usage(stderr, 2);
    }
  }
  if (!ok) return misuse("a number is out of range");
  if (argc - optind != 2) return misuse("FILE and LOGDIR are needed");
  o.file = argv[optind];
  o.logdir = argv[optind + 1];
  if (cmd == "check") return check(o);
  if (int err = tvx_mkdirs(o.logdir, 0755)) {
    fprintf(stderr, "mmstorm: %s: %s\n", o.logdir, strerror(err));
    return 3;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (cmd == "writer") {
    if (o.id < 0) return misuse("writer needs -i ID");
    return writer(o);
  }
  return run(o);
}
