// Replicator slots, change messages and iterators: the scan of the records
// and the stream a replicator reads. How no change is ever silently missed is
// told in docs/mmdb.md.
#include <unistd.h>

#include <memory>

#include "internal.h"

namespace {

mmdb_change_queue_ops queue_ops = {mmdb_mmcq_send, mmdb_mmcq_receive, nullptr};
pthread_mutex_t queue_mu = PTHREAD_MUTEX_INITIALIZER;

bool queue_send(uint32_t queue, const void *msg, uint32_t len) {
  pthread_mutex_lock(&queue_mu);
  mmdb_change_queue_ops ops = queue_ops;
  pthread_mutex_unlock(&queue_mu);
  return ops.send && ops.send(static_cast<int>(queue), msg, len, ops.ctx);
}

// Whether a process is the machine's replicator, by its command line.
bool is_replicator(uint32_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%u/cmdline", pid);
  FILE *f = fopen(path, "re");
  if (!f) return false;
  char buf[4096];
  size_t n = fread(buf, 1, sizeof buf - 1, f);
  fclose(f);
  for (size_t i = 0; i < n; i++)
    if (!buf[i]) buf[i] = ' ';
  buf[n] = 0;
  return strstr(buf, "/duplexord") || strstr(buf, "/dupd");
}

void count_slots(mmdb_hash_header_t *h) {
  uint16_t regs = 0, msgs = 0;
  for (const mmdb_replicator_t &r : h->rep) {
    regs += r.pid != 0;
    msgs += r.pid != 0 && r.want_msgs;
  }
  h->reps_registered = regs;
  h->reps_want_msgs = msgs;
}

}  // namespace

uint32_t mmdb_queue_number(uint32_t id, uint32_t slot) { return id * MMDB_MAX_REPLICATORS + slot; }

uint32_t mmdb_queue_receive(uint32_t queue, void *buf, uint32_t room) {
  pthread_mutex_lock(&queue_mu);
  mmdb_change_queue_ops ops = queue_ops;
  pthread_mutex_unlock(&queue_mu);
  return ops.receive ? ops.receive(static_cast<int>(queue), buf, room, ops.ctx) : 0;
}

void mmdb_set_change_queue(const mmdb_change_queue_ops *ops) {
  pthread_mutex_lock(&queue_mu);
  queue_ops = ops ? *ops : mmdb_change_queue_ops{};
  pthread_mutex_unlock(&queue_mu);
}

void mmdb_send_change(mmdb *db, const void *key, uint32_t keylen, bool del) {
  mmdb_hash_header_t *h = db->hdr;
  if (db->cookie_bytes && !del) mmdb_ack_stamp(db, key, keylen);
  if (!__atomic_load_n(&h->reps_want_msgs, __ATOMIC_ACQUIRE)) return;
  uint8_t msg[4 + MMDB_MAX_KEYLEN];
  uint16_t kl = static_cast<uint16_t>(keylen);
  memcpy(msg, &kl, 2);
  msg[2] = del ? 1 : 0;
  msg[3] = static_cast<uint8_t>(db->id);
  memcpy(msg + 4, key, keylen);
  for (uint32_t i = 0; i < MMDB_MAX_REPLICATORS; i++) {
    mmdb_replicator_t &r = h->rep[i];
    if (!__atomic_load_n(&r.pid, __ATOMIC_ACQUIRE) || !r.want_msgs) continue;
    if (queue_send(mmdb_queue_number(db->id, i), msg, 4 + keylen)) {
      r.seen++;
      h->report[0]++;
    } else {
      // The replicator rescans when it sees the count move.
      __atomic_add_fetch(&r.lost, 1u, __ATOMIC_RELEASE);
      h->report[1]++;
    }
  }
}

void mmdb_mark_lost(mmdb *db) {
  for (mmdb_replicator_t &r : db->hdr->rep)
    if (__atomic_load_n(&r.pid, __ATOMIC_ACQUIRE) && r.want_msgs) __atomic_add_fetch(&r.lost, 1u, __ATOMIC_RELEASE);
}

void mmdb_clear_replicators(mmdb *db) {
  mmf_lock(db->hash);
  uint32_t me = static_cast<uint32_t>(getpid());
  for (mmdb_replicator_t &r : db->hdr->rep) {
    if (!r.pid) continue;
    bool clear;
    if (r.pid == me)
      clear = true;  // at open a stale slot of this pid; at close this process's own
    else if (!mmf_pid_alive(static_cast<pid_t>(r.pid)))
      clear = true;
    else
      clear = r.want_msgs && !is_replicator(r.pid);
    if (clear) memset(&r, 0, sizeof r);
  }
  count_slots(db->hdr);
  mmf_unlock(db->hash);
}

// ---- Iterators ------------------------------------------------------------

struct mmdb_iterator {
  mmdb *db;
  mmdb_iter_kind kind;
  int slot;
  std::vector<std::string> prefixes;
  // The scan: the next bucket to load, and the keys (or records) of the
  // bucket loaded last, handed out one by one.
  bool scanning;
  bool start_sent;
  uint32_t next_bucket;
  std::deque<std::string> keys;
  struct rec {
    std::string key, value;
    uint32_t replen;
  };
  std::deque<rec> recs;
  // A queued change not yet handed out (it waits for a larger buffer).
  bool pending_del;
  // What the slot's lost count and the reset count were at the last rescan.
  uint32_t lost_seen, resets_seen;
  // The ack cookie of the record handed out last.
  uint64_t last_cookie;
};

namespace {

bool matches(const mmdb_iterator *it, const uint8_t *key, uint32_t keylen) {
  if (it->kind != MMDB_ITER_PREFIX) return true;
  for (const std::string &p : it->prefixes)
    if (p.size() <= keylen && memcmp(p.data(), key, p.size()) == 0) return true;
  return false;
}

// Loads the next non-empty bucket of the scan; false when the scan is through.
bool load_bucket(mmdb_iterator *it) {
  mmdb *db = it->db;
  while (it->keys.empty() && it->recs.empty()) {
    if (it->next_bucket >= db->p.bucket_count) return false;
    uint32_t b = it->next_bucket++;
    mmdb_lock_bucket(db, b);
    for (uint64_t off = mmdb_load64(&db->buckets[b].head); off;) {
      mmdb_record_t *e = mmdb_rec(db, off, MMDB_RECORD_BYTES);
      e = mmdb_rec(db, off, mmdb_rec_len(db, e));
      const uint8_t *k = mmdb_rec_key(e);
      if (matches(it, k, e->keylen)) {
        std::string key(reinterpret_cast<const char *>(k), e->keylen);
        if (it->kind == MMDB_ITER_REP)
          it->keys.push_back(std::move(key));
        else
          it->recs.push_back({std::move(key),
                              std::string(reinterpret_cast<const char *>(mmdb_rec_value(db, e)), e->datalen),
                              e->replen});
      }
      off = e->next;
    }
    mmdb_unlock_bucket(db, b);
  }
  return true;
}

void restart_scan(mmdb_iterator *it) {
  mmdb_hash_header_t *h = it->db->hdr;
  // The counts first: a change lost from now on moves them again.
  it->lost_seen = __atomic_load_n(&h->rep[it->slot].lost, __ATOMIC_ACQUIRE);
  it->resets_seen = __atomic_load_n(&h->resets, __ATOMIC_ACQUIRE);
  // What the queue holds is older than the scan, which covers it.
  if (it->kind == MMDB_ITER_REP) {
    uint8_t buf[4 + MMDB_MAX_KEYLEN];
    while (mmdb_queue_receive(mmdb_queue_number(it->db->id, static_cast<uint32_t>(it->slot)), buf, sizeof buf)) {
    }
  }
  it->scanning = true;
  it->start_sent = false;
  it->next_bucket = 0;
  it->keys.clear();
  it->recs.clear();
}

// A replication record for one key as the database holds it now: an
// update with its replicated bytes, or a delete when it is gone.
int rep_record(mmdb_iterator *it, const std::string &key, bool known_deleted, uint32_t *len, void *buf) {
  mmdb *db = it->db;
  mmdb_rep_header hd = {};
  hd.db_id = static_cast<uint16_t>(db->id);
  hd.keylen = static_cast<uint16_t>(key.size());
  std::unique_ptr<uint8_t[]> rep;
  uint32_t replen = 0;
  uint64_t cookie = 0;
  hd.op = MMDB_REP_DELETE;
  if (!known_deleted) {
    uint32_t b;
    uint64_t prev, off;
    if (mmdb_record_t *e = mmdb_find_record(db, key.data(), static_cast<uint32_t>(key.size()), &b, &prev, &off)) {
      replen = e->replen;
      cookie = mmdb_record_cookie(db, e);
      uint32_t room = db->p.transform ? db->p.max_replicated + 1024 : replen;
      rep.reset(new uint8_t[room ? room : 1]);
      if (db->p.transform) {
        uint32_t out = room;
        db->p.transform(mmdb_rec_value(db, e), e->replen, rep.get(), &out);
        replen = out < room ? out : room;
      } else {
        memcpy(rep.get(), mmdb_rec_value(db, e), replen);
      }
      mmdb_log(db, e, MMDB_OPER_REP_ADD, key.data(), hd.keylen, __LINE__);
      mmdb_unlock_bucket(db, b);
      hd.op = MMDB_REP_UPDATE;
    }
  }
  hd.replen = replen;
  uint32_t need = static_cast<uint32_t>(sizeof hd + key.size() + replen);
  if (*len < need) {
    *len = need;
    return MMDB_BUFFER_TOO_SMALL;
  }
  uint8_t *p = static_cast<uint8_t *>(buf);
  memcpy(p, &hd, sizeof hd);
  memcpy(p + sizeof hd, key.data(), key.size());
  if (replen) memcpy(p + sizeof hd + key.size(), rep.get(), replen);
  *len = need;
  it->last_cookie = cookie;
  db->hdr->rep[it->slot].seen++;
  return MMDB_SUCCESS;
}

int rep_mark(mmdb_iterator *it, uint16_t op, uint32_t *len, void *buf) {
  mmdb_rep_header hd = {};
  hd.db_id = static_cast<uint16_t>(it->db->id);
  hd.op = op;
  it->last_cookie = 0;
  memcpy(buf, &hd, sizeof hd);
  *len = sizeof hd;
  return MMDB_SUCCESS;
}

}  // namespace

mmdb_iterator *mmdb_iterator_create_common(mmdb *db, mmdb_iter_kind kind, uint32_t nprefix,
                                           const void *const *prefixes, const uint32_t *prefix_lens,
                                           bool want_msgs) {
  if (!db || db->iter || (kind == MMDB_ITER_PREFIX && nprefix && (!prefixes || !prefix_lens))) return nullptr;
  mmdb_hash_header_t *h = db->hdr;
  int slot = -1;
  for (int attempt = 0; slot < 0; attempt++) {
    mmf_lock(db->hash);
    for (int i = 0; i < MMDB_MAX_REPLICATORS && slot < 0; i++)
      if (!h->rep[i].pid) slot = i;
    if (slot >= 0) {
      mmdb_replicator_t &r = h->rep[slot];
      memset(&r, 0, sizeof r);
      r.want_msgs = want_msgs ? 1 : 0;
      __atomic_store_n(&r.pid, static_cast<uint32_t>(getpid()), __ATOMIC_RELEASE);
      if (want_msgs) h->last_rep_idx = static_cast<uint16_t>(slot);
      count_slots(h);
    }
    mmf_unlock(db->hash);
    if (slot >= 0) break;
    MMDB_ASSERT(attempt < 10);
    mmdb_sleep_us(static_cast<int64_t>(mmdb_scaled(20000)));
  }
  auto *it = new mmdb_iterator();
  it->db = db;
  it->kind = kind;
  it->slot = slot;
  for (uint32_t i = 0; kind == MMDB_ITER_PREFIX && i < nprefix; i++)
    it->prefixes.emplace_back(static_cast<const char *>(prefixes[i]), prefix_lens[i]);
  restart_scan(it);
  db->iter = it;
  return it;
}

mmdb_iterator *mmdb_iterator_create_all(mmdb *db) {
  return mmdb_iterator_create_common(db, MMDB_ITER_ALL, 0, nullptr, nullptr, false);
}
mmdb_iterator *mmdb_iterator_create_prefix(mmdb *db, uint32_t nprefix, const void *const *prefixes,
                                           const uint32_t *prefix_lens) {
  return mmdb_iterator_create_common(db, MMDB_ITER_PREFIX, nprefix, prefixes, prefix_lens, false);
}
mmdb_iterator *mmdb_iterator_create_rep(mmdb *db) {
  return mmdb_iterator_create_common(db, MMDB_ITER_REP, 0, nullptr, nullptr, true);
}

int mmdb_iterator_slot(const mmdb_iterator *it) { return it ? it->slot : -1; }
uint32_t mmdb_iterator_db_id(const mmdb_iterator *it) { return it ? it->db->id : 0; }
mmdb *mmdb_iterator_db(mmdb_iterator *it) { return it ? it->db : nullptr; }
uint64_t mmdb_rep_cookie(const mmdb_iterator *it) { return it ? it->last_cookie : 0; }

int mmdb_rep_start(void) {
  // Whatever this process's iterators had read belongs to a replicator that
  // starts over: each sends the whole database again.
  mmdb_for_each_open([](mmdb *db) {
    if (db->iter && db->iter->kind == MMDB_ITER_REP) restart_scan(db->iter);
  });
  mmdb_ack_rep_running(true);
  return MMDB_SUCCESS;
}

void mmdb_iterator_delete(mmdb_iterator *it) {
  if (!it) return;
  mmdb *db = it->db;
  mmf_lock(db->hash);
  mmdb_replicator_t &r = db->hdr->rep[it->slot];
  if (r.pid == static_cast<uint32_t>(getpid())) memset(&r, 0, sizeof r);
  count_slots(db->hdr);
  mmf_unlock(db->hash);
  if (db->iter == it) db->iter = nullptr;
  delete it;
}

int mmdb_iterator_get_next(mmdb_iterator *it, void *key, uint32_t *keylen, void *data, uint32_t *datalen,
                           uint32_t *replen) {
  if (!it || !keylen || it->kind == MMDB_ITER_REP) return MMDB_INVALID_ARG;
  if (mmdb_is_invalid(it->db)) return MMDB_CORRUPT;
  if (!load_bucket(it)) return MMDB_NO_MORE;
  const mmdb_iterator::rec &r = it->recs.front();
  bool fits = *keylen >= r.key.size() && (!datalen || *datalen >= r.value.size());
  *keylen = static_cast<uint32_t>(r.key.size());
  if (datalen) *datalen = static_cast<uint32_t>(r.value.size());
  if (replen) *replen = r.replen;
  if (!fits) return MMDB_BUFFER_TOO_SMALL;
  memcpy(key, r.key.data(), r.key.size());
  if (data && datalen) memcpy(data, r.value.data(), r.value.size());
  it->recs.pop_front();
  return MMDB_SUCCESS;
}

int mmdb_rep_iterator_get_next(mmdb_iterator *it, uint32_t *len, void *buf) {
  if (!it || !len || it->kind != MMDB_ITER_REP) return MMDB_INVALID_ARG;
  if (*len < sizeof(mmdb_rep_header)) {
    *len = 0;
    return MMDB_BUFFER_TOO_SMALL;
  }
  if (mmdb_is_invalid(it->db)) return MMDB_CORRUPT;
  if (!it->scanning) return MMDB_NO_MORE;
  if (!it->start_sent) {
    it->start_sent = true;
    return rep_mark(it, MMDB_REP_RESYNC_START, len, buf);
  }
  if (!load_bucket(it)) {
    it->scanning = false;
    return rep_mark(it, MMDB_REP_RESYNC_DONE, len, buf);
  }
  int st = rep_record(it, it->keys.front(), false, len, buf);
  if (st == MMDB_SUCCESS) it->keys.pop_front();
  return st;
}

int mmdb_rep_get_next(mmdb_iterator *it, uint32_t *len, void *buf) {
  if (!it || !len || it->kind != MMDB_ITER_REP) return MMDB_INVALID_ARG;
  if (*len < sizeof(mmdb_rep_header)) {
    *len = 0;
    return MMDB_BUFFER_TOO_SMALL;
  }
  mmdb *db = it->db;
  if (mmdb_is_invalid(db)) return MMDB_CORRUPT;
  mmdb_hash_header_t *h = db->hdr;
  if (__atomic_load_n(&h->rep[it->slot].lost, __ATOMIC_ACQUIRE) != it->lost_seen ||
      __atomic_load_n(&h->resets, __ATOMIC_ACQUIRE) != it->resets_seen)
    restart_scan(it);
  if (it->scanning) return mmdb_rep_iterator_get_next(it, len, buf);
  // A message that did not fit waits in the iterator for a larger buffer.
  if (it->keys.empty()) {
    uint8_t msg[4 + MMDB_MAX_KEYLEN];
    uint32_t n = mmdb_queue_receive(mmdb_queue_number(db->id, static_cast<uint32_t>(it->slot)), msg, sizeof msg);
    if (!n) return MMDB_NOT_FOUND;
    uint16_t kl;
    memcpy(&kl, msg, 2);
    if (n < 4 || kl + 4u != n || msg[3] != db->id) {
      // Not a message of this database's format: rescan rather than guess.
      restart_scan(it);
      return mmdb_rep_iterator_get_next(it, len, buf);
    }
    it->keys.emplace_back(reinterpret_cast<const char *>(msg + 4), kl);
    it->pending_del = msg[2] != 0;
  }
  int st = rep_record(it, it->keys.front(), it->pending_del, len, buf);
  if (st == MMDB_SUCCESS) it->keys.pop_front();
  return st;
}
