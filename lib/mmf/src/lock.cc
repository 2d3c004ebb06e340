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

pthread_once_t pid_once = PTHREAD_ONCE_INIT;

void refresh_pid() { __atomic_store_n(&mmf_cached_pid, getpid(), __ATOMIC_RELAXED); }
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

pid_t mmf_cached_pid;

pid_t mmf_pid_slow(void) {
  pthread_once(&pid_once, setup_pid);
  return mmf_cached_pid;
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

namespace {

// The handle this thread is releasing, between clearing locker_thread and
// swapping the word to 0: a signal handler that locks the same file in that
// window knows the word for its own. A handler may nest another release, so
// each release restores what it found.
__attribute__((tls_model("initial-exec"))) thread_local mmf *releasing;

// Crash points armed, or the variable not read yet.
inline bool crashpoints_live() {
#if TVX_CRASHPOINTS
  return __atomic_load_n(&tvx_crashpoint_state, __ATOMIC_RELAXED) != 0;
#else
  return false;
#endif
}

// pthread_self, cached: the library call costs as much as the rest of an
// uncontended lock. A fork child's thread keeps its parent thread's id.
__attribute__((tls_model("initial-exec"))) thread_local pthread_t self_cache;
inline pthread_t self() {
  pthread_t t = self_cache;
  if (__builtin_expect(t == pthread_t(), 0)) self_cache = t = pthread_self();
  return t;
}

// The rare end of an uncontended lock: a multiple of 1000 locks.
__attribute__((noinline)) void lock_report(mmf *m, uint64_t n) {
  if (m->meminfo_offset >= 0 && (n % 1000000 == 0 || mmf_meminfo_wanted(m))) meminfo_mmf_update(m);
}

// What a lock does once the word is this thread's: the bookkeeping, kept off
// the compare-and-swap path's critical instructions.
inline void acquired(mmf *m, mmf_shared_info_t *si) {
  TVX_CRASHPOINT("mmf_lock_taken");
  MMF_ASSERT(__atomic_load_n(&m->locker_cnt, __ATOMIC_RELAXED) == 0);
  m->locker_thread = self();
  __atomic_store_n(&m->locker_cnt, 1u, __ATOMIC_RELAXED);
  uint64_t n = ++si->lock_count;
  m->lock_count++;
  if (__builtin_expect(n % 1000 == 0, 0)) lock_report(m, n);
  if (__builtin_expect(debug_mask != 0, 0) && (mmf_debug() & MMF_DEBUG_CHECK_FIRST_NODE) &&
      si->magic == MMF_MAGIC_READY) {
    const mmf_node_header_t *node = mmf_node_at(m, si->first_alloc_offset);
    MMF_ASSERT(node->len);
    MMF_ASSERT(node->offset);
    MMF_ASSERT(node->user_offset);
  }
}

// The word names this process: this thread holds it already, or is between
// the steps of its own release (interrupted by a handler that locks). True
// when the lock was granted that way.
bool own_word(mmf *m, mmf_shared_info_t *si) {
  uint32_t cnt = __atomic_load_n(&m->locker_cnt, __ATOMIC_RELAXED);
  bool mine = pthread_equal(m->locker_thread, self());
  if (cnt == 0) {
    if (mine) {  // the count reached 0, locker_thread not yet cleared
      si->lock_after_unlock_hits++;
      __atomic_store_n(&m->locker_cnt, 1u, __ATOMIC_RELAXED);
      return true;
    }
    if (releasing == m) {  // locker_thread cleared, the word not yet swapped
      si->unlock_in_progress_hits++;
      m->locker_thread = self();
      __atomic_store_n(&m->locker_cnt, 1u, __ATOMIC_RELAXED);
      return true;
    }
    return false;
  }
  if (!mine) return false;
  si->recursive_lock_count++;
  if (cnt + 1 > si->deepest_recursion) si->deepest_recursion = cnt + 1;
  __atomic_store_n(&m->locker_cnt, cnt + 1, __ATOMIC_RELAXED);
  return true;
}

// The word is not free: recursion, our own release in progress, or another
// holder to wait for (and to take over from if it died).
__attribute__((noinline)) void lock_contended(mmf *m, mmf_shared_info_t *si, uint32_t me, uint32_t seen) {
  uint32_t *word = &si->lockerpid;
  if (seen == me && own_word(m, si)) return;
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
    uint32_t holder = expect;
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
          m->locker_thread = self();
          __atomic_store_n(&m->locker_cnt, 1u, __ATOMIC_RELAXED);
          mmf_unlock(m);
        }
      }
    }
    waited += lock_backoff(rounds);
    rounds++;
  }
  if (rounds) note_contention(m, rounds, waited);
  acquired(m, si);
}

__attribute__((noinline)) void wait_while_closing(mmf *m) {
  while (m->closing && !pthread_equal(m->closing_thread, pthread_self())) usleep(10000);
}

// Everything mmf_lock does, for the calls that leave the fast path.
__attribute__((noinline)) void lock_slow(mmf *m) {
  if (m->closing) wait_while_closing(m);
  mmf_shared_info_t *si = m->shared_info;
  uint32_t me = static_cast<uint32_t>(mmf_pid());
  uint32_t expect = 0;
  if (__atomic_compare_exchange_n(&si->lockerpid, &expect, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
    acquired(m, si);
  else
    lock_contended(m, si, me, expect);
}


// The release of the word once the count reached 0. Between clearing
// locker_thread and the swap this thread may be interrupted and lock
// again: `releasing` lets it know the word for its own.
inline void release_word(mmf *m, mmf_shared_info_t *si, uint32_t me, bool with_crashpoint) {
  si->unlock_count++;
  mmf *outer = releasing;
  releasing = m;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);  // a handler sees releasing before the cleared thread
  m->locker_thread = pthread_t();
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  if (with_crashpoint) TVX_CRASHPOINT("mmf_unlock_release");
  uint32_t expect = me;
  if (!__atomic_compare_exchange_n(&si->lockerpid, &expect, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
    si->release_misses++;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  releasing = outer;
}

__attribute__((noinline)) void unlock_slow(mmf *m);

}  // namespace

// The uncontended path is one compare-and-swap with the cached pid and no
// call: anything unusual (the handle closing, the pid or thread id not
// cached yet, crash points armed or not yet read, debug switches, the word
// not free) leaves for the slow path, which does the same and more.
void mmf_lock(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t me = static_cast<uint32_t>(__atomic_load_n(&mmf_cached_pid, __ATOMIC_RELAXED));
  pthread_t t = self_cache;
  if (__builtin_expect(m->closing || !me || t == pthread_t() || debug_mask != 0 || crashpoints_live(), 0))
    return lock_slow(m);
  uint32_t expect = 0;
  if (__builtin_expect(
          !__atomic_compare_exchange_n(&si->lockerpid, &expect, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED), 0))
    return lock_contended(m, si, me, expect);
  MMF_ASSERT(__atomic_load_n(&m->locker_cnt, __ATOMIC_RELAXED) == 0);
  m->locker_thread = t;
  __atomic_store_n(&m->locker_cnt, 1u, __ATOMIC_RELAXED);
  uint64_t n = ++si->lock_count;
  m->lock_count++;
  if (__builtin_expect(n % 1000 == 0, 0)) lock_report(m, n);
}

// Only the holding thread changes locker_cnt and locker_thread (other
// threads of the process read them), so the release is one
// compare-and-swap of the word, as the lock is.
void mmf_unlock(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t me = static_cast<uint32_t>(__atomic_load_n(&mmf_cached_pid, __ATOMIC_RELAXED));
  pthread_t t = self_cache;
  uint32_t cnt = __atomic_load_n(&m->locker_cnt, __ATOMIC_RELAXED);
  if (__builtin_expect(!me || t == pthread_t() || cnt == 0 || crashpoints_live() ||
                           __atomic_load_n(&si->lockerpid, __ATOMIC_RELAXED) != me ||
                           !pthread_equal(m->locker_thread, t), 0))
    return unlock_slow(m);
  __atomic_store_n(&m->locker_cnt, cnt - 1, __ATOMIC_RELAXED);
  if (cnt == 1) release_word(m, si, me, false);
}

namespace {
// Everything mmf_unlock does, with its checks and the crash point.
void unlock_slow(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t *word = &si->lockerpid;
  uint32_t me = static_cast<uint32_t>(mmf_pid());
  MMF_ASSERT((__atomic_load_n(word, __ATOMIC_RELAXED) == me) && pthread_equal(m->locker_thread, self()));
  uint32_t cnt = __atomic_load_n(&m->locker_cnt, __ATOMIC_RELAXED);
  MMF_ASSERT(cnt);
  __atomic_store_n(&m->locker_cnt, cnt - 1, __ATOMIC_RELAXED);
  if (cnt == 1) release_word(m, si, me, true);
}

}  // namespace
