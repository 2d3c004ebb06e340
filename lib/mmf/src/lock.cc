// The lock word: a compare-and-swap of the holder's pid, with threads told
// apart in the handle, back-off, and dead holders found through /proc.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "internal.h"
#include "mmf/crashpoint.h"
#include "platform/sysctl.h"

uint32_t mmf_spin_limit;

namespace {

// Rounds of failed compare-and-swap before the clock is first read.
constexpr uint32_t kQuietRounds = 500;
// How often a waiter asks /proc whether the holder lives, and how long it
// waits at most before the holder counts as stuck (both scaled).
constexpr double kHolderCheckSeconds = 2;
constexpr double kStuckSeconds = 60;

pid_t cached_pid;
pthread_once_t pid_once = PTHREAD_ONCE_INIT;

void refresh_pid() { cached_pid = getpid(); }
void setup_pid() {
  refresh_pid();
  pthread_atfork(nullptr, nullptr, refresh_pid);
}

double time_scale = -1;
int64_t debug_mask = -1;

int cpus() {
  static int n = 0;
  if (!n) {
    int v = 1;
    size_t len = sizeof v;
    n = sysctlbyname("kern.smp.cpus", &v, &len, nullptr, 0) == 0 && v > 0 ? v : 1;
  }
  return n;
}

// Sleeps for the round's back-off; returns the nanoseconds slept.
int64_t lock_backoff(int64_t round) {
  if (cpus() > 1 && mmf_spin_limit && round >= 0 && round < mmf_spin_limit / 1000) {
    double until = mmf_now() + 1e-6;
    while (mmf_now() < until) {
    }
    return 0;
  }
  int64_t ns;
  if (round >= 0 && round <= 50)
    ns = 1000;
  else if (round > 50 && round <= 9999)
    ns = round * 1000;
  else
    ns = 10000000;
  mmf_sleep_ns(ns);
  return ns;
}

bool in_progress_last_is_me(mmf *m) {
  uint32_t c = __atomic_load_n(&m->unlock_in_progress_cnt, __ATOMIC_ACQUIRE);
  return c > 0 && c <= MMF_MAX_UNLOCK_IN_PROGRESS && pthread_equal(m->unlock_in_progress[c - 1], pthread_self());
}

void note_contention(mmf *m, uint32_t rounds, int64_t waited) {
  mmf_shared_info_t *si = m->shared_info;
  if (rounds > si->most_rounds) si->most_rounds = rounds;
  si->spin_histogram[rounds >= 9 ? 9 : rounds]++;
  si->contended_count++;
  si->wait_ns += static_cast<uint64_t>(waited);
  m->contended_count++;
  m->wait_ns += static_cast<uint64_t>(waited);
}

// Takes the word from a dead holder; true when this thread now holds it.
bool take_from_dead(mmf *m, uint32_t *word, uint32_t dead, uint32_t me) {
  if (!__atomic_compare_exchange_n(word, &dead, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return false;
  m->shared_info->dead_holder_takeovers++;
  return true;
}

}  // namespace

[[noreturn]] void mmf_assert_fail(const char *expr, const char *file, int line) {
  fprintf(stderr, "mmf: assertion '%s' failed at %s:%d\n", expr, file, line);
  fflush(stderr);
  abort();
}

void mmf_sleep_ns(int64_t ns) {
  timespec ts = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

pid_t mmf_pid(void) {
  pthread_once(&pid_once, setup_pid);
  return cached_pid;
}

double mmf_time_scale(void) {
  if (time_scale < 0) {
    const char *e = getenv("TVX_MM_TIME_SCALE");
    double v = e ? strtod(e, nullptr) : 1;
    time_scale = v > 0 ? v : 1;
  }
  return time_scale;
}
void mmf_set_time_scale(double scale) { time_scale = scale > 0 ? scale : 1; }
double mmf_scaled(double seconds) { return seconds * mmf_time_scale(); }

uint32_t mmf_debug(void) {
  if (debug_mask < 0) {
    const char *e = getenv("TVX_MMF_DEBUG");
    debug_mask = e ? static_cast<int64_t>(strtoul(e, nullptr, 0) & 0xffffffffu) : 0;
  }
  return static_cast<uint32_t>(debug_mask);
}
void mmf_set_debug(uint32_t mask) { debug_mask = mask; }

double mmf_now(void) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

bool mmf_pid_alive(pid_t pid) {
  if (pid <= 0) return false;
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
  FILE *f = fopen(path, "re");
  if (!f) return false;
  // A killed process that nobody reaped yet still has the file.
  char line[128];
  bool alive = true;
  while (fgets(line, sizeof line, f)) {
    if (strncmp(line, "State:", 6) != 0) continue;
    const char *s = line + 6;
    while (*s == ' ' || *s == '\t') s++;
    alive = *s != 'Z' && *s != 'X';
    break;
  }
  fclose(f);
  return alive;
}

// Whether pid has this file mapped: /proc/PID/maps lists the device and
// inode of every file mapping. A holder always maps the file it locks.
bool maps_file(const mmf *m, pid_t pid) {
  struct stat st;
  if (fstat(m->fd, &st) != 0) return true;  // cannot tell: keep the holder
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/maps", static_cast<int>(pid));
  FILE *f = fopen(path, "re");
  if (!f) return false;
  char line[512];
  bool found = false;
  while (!found && fgets(line, sizeof line, f)) {
    unsigned major, minor;
    unsigned long long inode;
    if (sscanf(line, "%*s %*s %*s %x:%x %llu", &major, &minor, &inode) == 3)
      found = inode == st.st_ino && major == major(st.st_dev) && minor == minor(st.st_dev);
    // A line longer than the buffer: skip its rest.
    while (!strchr(line, '\n') && fgets(line, sizeof line, f)) {
    }
  }
  fclose(f);
  return found;
}

bool mmf_holder_alive(const mmf *m, pid_t pid) {
  if (!mmf_pid_alive(pid)) return false;
  return pid == mmf_pid() || maps_file(m, pid);
}

void mmf_lock(mmf *m) {
  while (m->closing && !pthread_equal(m->closing_thread, pthread_self())) usleep(10000);
  mmf_shared_info_t *si = m->shared_info;
  uint32_t *word = &si->lockerpid;
  uint32_t me = static_cast<uint32_t>(mmf_pid());
  uint32_t seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);
  if (seen == me) {
    if (m->locker_cnt == 0) {
      // Our own release has not reached the word yet.
      if (pthread_equal(m->locker_thread, pthread_self())) {
        si->lock_after_unlock_hits++;
        m->locker_cnt++;
        return;
      }
      if (in_progress_last_is_me(m)) {
        si->unlock_in_progress_hits++;
        m->locker_thread = pthread_self();
        m->locker_cnt++;
        return;
      }
    } else if (pthread_equal(m->locker_thread, pthread_self())) {
      si->recursive_lock_count++;
      if (m->locker_cnt + 1 > si->deepest_recursion) si->deepest_recursion = m->locker_cnt + 1;
      m->locker_cnt++;
      return;
    }
  }
  uint32_t rounds = 0;
  int64_t waited = 0;
  double start = 0, next_check = 0;
  for (;;) {
    uint32_t expect = 0;
    if (__atomic_compare_exchange_n(word, &expect, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) break;
    if (rounds == kQuietRounds) {
      start = mmf_now();
      next_check = start + mmf_scaled(kHolderCheckSeconds);
    }
    uint32_t holder = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    if (holder == 0) {
      si->free_while_checking++;
      rounds++;
      continue;
    }
    if (rounds > kQuietRounds) {
      double now = mmf_now();
      // A holder that keeps the word this long will not give it back: it is
      // dumped and killed, and this process ends too, leaving the word to
      // the survivors' dead-holder path.
      if (now - start >= mmf_scaled(kStuckSeconds)) {
        mmf_kill_holder("mmf", static_cast<pid_t>(holder));
        mmf_detected_fatal_problem(__LINE__);
      }
      if (now >= next_check) {
        next_check = now + mmf_scaled(kHolderCheckSeconds);
        if (!mmf_holder_alive(m, static_cast<pid_t>(holder)) && take_from_dead(m, word, holder, me)) {
          TVX_CRASHPOINT("mmf_lock_takeover");
          // Released at once, so the next round competes fairly for it.
          m->locker_thread = pthread_self();
          m->locker_cnt = 1;
          mmf_unlock(m);
        }
      }
    }
    waited += lock_backoff(rounds);
    rounds++;
  }
  TVX_CRASHPOINT("mmf_lock_taken");
  MMF_ASSERT(m->locker_cnt == 0);
  m->locker_thread = pthread_self();
  m->locker_cnt++;
  if (rounds) note_contention(m, rounds, waited);
  si->lock_count++;
  m->lock_count++;
  if (si->lock_count % 1000 == 0 && m->meminfo_offset >= 0 &&
      (si->lock_count % 1000000 == 0 || mmf_meminfo_wanted(m)))
    meminfo_mmf_update(m);
  if (mmf_debug() & MMF_DEBUG_CHECK_FIRST_NODE && si->magic == MMF_MAGIC_READY) {
    const mmf_node_header_t *n = mmf_node_at(m, si->first_alloc_offset);
    MMF_ASSERT(n->len);
    MMF_ASSERT(n->offset);
    MMF_ASSERT(n->user_offset);
  }
}

void mmf_unlock(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t *word = &si->lockerpid;
  uint32_t me = static_cast<uint32_t>(mmf_pid());
  MMF_ASSERT((__atomic_load_n(word, __ATOMIC_ACQUIRE) == me) && pthread_equal(m->locker_thread, pthread_self()));
  MMF_ASSERT(m->locker_cnt);
  MMF_ASSERT(m->unlock_in_progress_cnt < MMF_MAX_UNLOCK_IN_PROGRESS);
  if (__atomic_sub_fetch(&m->locker_cnt, 1, __ATOMIC_ACQ_REL) != 0) return;
  si->unlock_count++;
  // Between clearing locker_thread and the swap this thread may be
  // interrupted and lock again; the in-progress list lets it know itself.
  uint32_t slot = __atomic_fetch_add(&m->unlock_in_progress_cnt, 1, __ATOMIC_ACQ_REL);
  m->unlock_in_progress[slot] = pthread_self();
  m->locker_thread = pthread_t();
  MMF_ASSERT(m->unlock_in_progress_cnt);
  TVX_CRASHPOINT("mmf_unlock_release");
  uint32_t expect = me;
  if (!__atomic_compare_exchange_n(word, &expect, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
    si->release_misses++;
  if (pthread_equal(m->unlock_in_progress[slot], pthread_self())) m->unlock_in_progress[slot] = pthread_t();
  __atomic_sub_fetch(&m->unlock_in_progress_cnt, 1, __ATOMIC_ACQ_REL);
}
