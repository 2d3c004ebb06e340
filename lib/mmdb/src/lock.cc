// Bucket locks: a compare-and-swap of the holder's pid in the bucket's slot,
// recursive for the holding thread, taken over from a holder that died (whose
// half-written records are dropped on the way).
#include <cerrno>
#include <ctime>
#include <unistd.h>

#include "internal.h"
#include "mmf/crashpoint.h"

double mmdb_lock_check_seconds = 2;
double mmdb_lock_giveup_seconds = 60;
double mmdb_unlock_giveup_seconds = 20;
uint32_t mmdb_lock_spin_limit = 500;

void mmdb_sleep_us(int64_t us) {
  timespec ts = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

double mmdb_now(void) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

namespace {

thread_local uint64_t self_id;
inline uint64_t self() {
  if (!self_id) self_id = static_cast<uint64_t>(pthread_self());
  return self_id;
}

// The pid, cached and refreshed in a fork child: a child must not take its
// parent's locks for its own, and getpid is a system call.
uint32_t cached_pid;
pthread_once_t pid_once = PTHREAD_ONCE_INIT;
void refresh_pid() { __atomic_store_n(&cached_pid, static_cast<uint32_t>(getpid()), __ATOMIC_RELAXED); }
void setup_pid() {
  refresh_pid();
  pthread_atfork(nullptr, nullptr, refresh_pid);
}
inline uint32_t me() {
  uint32_t p = __atomic_load_n(&cached_pid, __ATOMIC_RELAXED);
  if (__builtin_expect(p == 0, 0)) {
    pthread_once(&pid_once, setup_pid);
    p = __atomic_load_n(&cached_pid, __ATOMIC_RELAXED);
  }
  return p;
}

void note_wait(mmdb *db, uint32_t rounds, int64_t waited_ns) {
  mmdb_lock_stats_t &s = db->hdr->lock;
  s.contended++;
  s.wait_ns += static_cast<uint64_t>(waited_ns);
  if (rounds > s.most_rounds) s.most_rounds = rounds;
  s.histogram[rounds >= 19 ? 19 : rounds]++;
}

void lock_slot(mmdb *db, uint32_t b) {
  mmdb_bucket_t *slot = &db->buckets[b];
  uint32_t pid = me();
  if (__atomic_load_n(&slot->pid, __ATOMIC_ACQUIRE) == pid && slot->thread == self()) {
    slot->cnt++;
    db->hdr->lock.recursion++;
    if (slot->cnt > db->hdr->lock.deepest) db->hdr->lock.deepest = slot->cnt;
    return;
  }
  // A closing handle parks every thread but the closer.
  while (db->closing && !pthread_equal(db->closing_thread, pthread_self())) mmdb_sleep_us(10000);
  uint32_t rounds = 0;
  int64_t waited = 0;
  double start = 0, next_check = 0;
  bool stolen = false;
  for (;;) {
    uint32_t expect = 0;
    if (__atomic_compare_exchange_n(&slot->pid, &expect, pid, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) break;
    rounds++;
    if (rounds >= mmdb_lock_spin_limit) {
      double now = mmdb_now();
      if (start == 0) {
        start = now;
        next_check = now + mmdb_scaled(mmdb_lock_check_seconds);
      } else if (now >= next_check) {
        next_check = now + mmdb_scaled(mmdb_lock_check_seconds);
        if (expect != pid && !mmf_holder_alive(db->hash, static_cast<pid_t>(expect))) {
          uint32_t dead = expect;
          if (__atomic_compare_exchange_n(&slot->pid, &dead, pid, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            db->hdr->lock.stolen++;
            stolen = true;
            break;
          }
        } else if (now - start >= mmdb_scaled(mmdb_lock_giveup_seconds) && expect != pid) {
          mmf_kill_holder(db->p.name, static_cast<pid_t>(expect));
          mmdb_assert_fail("bucket lock holder stuck", __FILE__, __LINE__);
        }
      }
    }
    int64_t us = rounds <= 50 ? 1 : rounds <= 9999 ? rounds : 10000;
    mmdb_sleep_us(us);
    waited += us * 1000;
  }
  slot->thread = self();
  slot->cnt = 1;
  db->hdr->lock.lock_count++;
  if (__builtin_expect(++db->locks % 1000000 == 0, 0)) mmdb_meminfo_update(db);
  if (rounds) note_wait(db, rounds, waited);
  if (stolen) mmdb_repair_bucket(db, b);
}

void unlock_slot(mmdb *db, uint32_t b) {
  mmdb_bucket_t *slot = &db->buckets[b];
  uint32_t pid = me();
  MMDB_ASSERT(slot->pid == pid && slot->thread == self() && slot->cnt > 0);
  if (--slot->cnt) return;
  slot->thread = 0;
  double start = 0;
  for (int64_t round = 0;; round++) {
    uint32_t expect = pid;
    if (__atomic_compare_exchange_n(&slot->pid, &expect, 0u, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) return;
    if (start == 0) start = mmdb_now();
    if (mmdb_now() - start > mmdb_scaled(mmdb_unlock_giveup_seconds))
      mmdb_assert_fail("bucket unlock", __FILE__, __LINE__);
    mmdb_sleep_us(round < 50 ? 1 : 1000);
  }
}

}  // namespace

void mmdb_lock_bucket(mmdb *db, uint32_t b) {
  if (db->p.flags & MMDB_F_DB_LOCK) lock_slot(db, db->p.bucket_count);
  lock_slot(db, b);
}

void mmdb_unlock_bucket(mmdb *db, uint32_t b) {
  unlock_slot(db, b);
  if (db->p.flags & MMDB_F_DB_LOCK) unlock_slot(db, db->p.bucket_count);
}

void mmdb_repair_bucket(mmdb *db, uint32_t b) {
  // The dead holder may have left a record half-written: it goes, and every
  // replicator rescans, since the holder died before it could send its change.
  uint64_t prev = 0, off = mmdb_load64(&db->buckets[b].head);
  uint32_t n = 0;
  while (off) {
    mmdb_record_t *e = mmf_validate_user_offset(db->data, static_cast<off_t>(off), false)
                           ? mmdb_rec(db, off, MMDB_RECORD_BYTES)
                           : nullptr;
    if (!e || e->offset != off || e->next == off || ++n > 1000000) {
      // Damage, not a half-written record: the file is marked, and the next
      // open rebuilds it.
      __atomic_store_n(&db->hdr->invalid, uint8_t{1}, __ATOMIC_RELEASE);
      break;
    }
    uint64_t next = e->next;
    if (e->eflag & MMDB_EF_WRITING) {
      mmdb_log(db, e, MMDB_OPER_REMOVE_INTERNAL, nullptr, 0, __LINE__);
      mmdb_unlink(db, b, off, prev);
    } else {
      prev = off;
    }
    off = next;
  }
  mmdb_mark_lost(db);
}

void mmdb_lock_clean(mmdb *db, bool at_open) {
  for (uint32_t b = 0; b <= db->p.bucket_count; b++) {
    mmdb_bucket_t *slot = &db->buckets[b];
    uint32_t holder = __atomic_load_n(&slot->pid, __ATOMIC_ACQUIRE);
    // At open no thread of this process can hold a bucket of this database
    // (one handle per id): a word naming this pid is stale.
    if (!holder || (holder == me() && !at_open)) continue;
    if (holder != me() && mmf_holder_alive(db->hash, static_cast<pid_t>(holder))) continue;
    if (!__atomic_compare_exchange_n(&slot->pid, &holder, me(), false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) continue;
    db->hdr->lock.stolen++;
    slot->thread = self();
    slot->cnt = 1;
    if (b < db->p.bucket_count) mmdb_repair_bucket(db, b);
    unlock_slot(db, b);
  }
}
