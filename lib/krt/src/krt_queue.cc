// The write queue: queue entries by priority, the databases, the job that
// sends them, retries through "krt defer", and the errno rules of a send.
#include "krt/krt_queue.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "krt_internal.h"
#include "task/io.h"
#include "task/timer.h"

const char *const krt_db_table_names[DB_TABLE_MAX] = {
    "INVALID", "INSTANCE", "VLAN", "VMEMBERS", "VCLASS", "INTERFACE", "FDB", "NH", "Composite NH", "DEVRT",
    "VLAN_INTERFACE", "L3NH", "STP", "ANALYZER", "DHCPSNOOP", "bridge mcast", "inet mcast", "Indirect NH",
    "inet mcrt", "", "", "fc fabric", "fc members", "fm route", "fc route", "", "", "fc nexthop", "", "", "", "",
    "", "", "", "", "", "", "", "", "DHCPV6SNOOP", "", "", "", "Satellite route"};

krt_queue_counters krt_queue_stats[DB_TABLE_MAX][4];

namespace {

enum { kRetryList = KRT_PRIO_COUNT, kLists = KRT_PRIO_COUNT + 1 };
enum { kDone = 0, kRetry = 1, kFull = 2, kYield = 3 };

struct list_head {
  krt_queue_entry *first, *last;
  uint32_t count;
};

list_head queues[kLists];
bool queues_ready;
hbt_root krt_db_list;
task_job *krt_queue_job_p;
task_timer *defer_timer;
uint32_t kq_alive;
int master_state;
bool write_side;

int kde_cmp(const hbt_node *a, const hbt_node *b) {
  uint32_t x = HBT_ENTRY(a, krt_db_entry, kde_node)->k_db_handle;
  uint32_t y = HBT_ENTRY(b, krt_db_entry, kde_node)->k_db_handle;
  return x < y ? -1 : x > y;
}

krt_db_entry *find_db(uint32_t db) {
  krt_db_entry probe{};
  probe.k_db_handle = db;
  hbt_node *n = hbt_lookup(&krt_db_list, &probe.kde_node, kde_cmp);
  return n ? HBT_ENTRY(n, krt_db_entry, kde_node) : nullptr;
}

void unlink(krt_queue_entry *kq) {
  if (kq->kq_list >= kLists) return;
  list_head &q = queues[kq->kq_list];
  (kq->kq_prev ? kq->kq_prev->kq_next : q.first) = kq->kq_next;
  (kq->kq_next ? kq->kq_next->kq_prev : q.last) = kq->kq_prev;
  kq->kq_next = kq->kq_prev = nullptr;
  kq->kq_list = kLists;
  q.count--;
}

void link_tail(krt_queue_entry *kq, int list) {
  list_head &q = queues[list];
  kq->kq_prev = q.last;
  kq->kq_next = nullptr;
  (q.last ? q.last->kq_next : q.first) = kq;
  q.last = kq;
  kq->kq_list = static_cast<uint8_t>(list);
  q.count++;
}

uint32_t now_sec() { return task_now.ut_sec; }
bool terminating() { return task_state & TASKS_TERMINATE; }

// A queue entry is gone; during termination the last one takes the task.
void krt_entry_free(krt_queue_entry *kq) {
  unlink(kq);
  if (kq->kq_owner) kq->kq_owner->kde_q_ent = nullptr;
  free(kq);
  if (--kq_alive == 0 && terminating() && krt_g.tp) {
    task *tp = krt_g.tp;
    krt_g.tp = nullptr;
    if (krt_g.config) krt_g.config->task = nullptr;
    task_delete(tp);
  }
}

// A kq that is done: a delete also gives the entry back.
void done(krt_queue_entry *kq) {
  krt_db_ent *owner = kq->kq_owner;
  krt_db_entry *kde = kq->kq_db;
  bool was_delete = kq->kq_op == KQ_DELETE;
  krt_entry_free(kq);
  if (was_delete && owner && kde->kde_type->kqt_free) kde->kde_type->kqt_free(kde, owner);
}

void defer_fired(task_timer *, uint32_t) {
  defer_timer = nullptr;
  if (!krt_g.deferred) krt_queue_start_job();
}

int dequeue(krt_queue_entry *kq) {
  const krt_queue_type *t = kq->kq_db->kde_type;
  const char *name = "krt_dequeue";
  const char *tname = krt_db_table_names[kq->kq_type];
  const char *oname = krt_kq_op_name(kq->kq_op);
  if (kq->kq_op == KQ_ADD && t->kqt_add_ready && !t->kqt_add_ready(kq)) {
    KRT_TRACE("%s: not yet set up for the ADD - defer ", name);
    return kRetry;
  }
  uint32_t length = t->kqt_encode(kq, kq->kq_op, rtsm_buffer, KRT_RTSM_BUFFER_SIZE);
  if (length == 0) {
    KRT_TRACE("%s: type %s op %s encode returned 0", name, tname, oname);
    return kRetry;
  }
  uint32_t rtsm_buffer_size;
  uint8_t *buf = krt_buffer_for(length, &rtsm_buffer_size);
  if (buf != rtsm_buffer) {
    length = t->kqt_encode(kq, kq->kq_op, buf, rtsm_buffer_size);
    task_assert(length <= rtsm_buffer_size);
  }
  krt_queue_counters &c = krt_queue_stats[kq->kq_type][kq->kq_op];
  c.sent++;
  KRT_TRACE("%s: type %s op %s", name, tname, oname);
  // The reply of a synchronous type is known by its type (envelope or raw).
  uint8_t rtype = buf[0] || buf[1] || buf[2] || buf[3] ? buf[8] : buf[5];
  int err = krt_send_raw(buf, length);
  krt_big_free(buf);
  if (err) {
    errno = err;
    KRT_TRACE("%s: send failed: errno %d - %m", name, err);
    c.failed++;
    c.last_errno = err;
    kq->kq_errno = err;
    if (err == EAGAIN) return kFull;
    if ((err == ENOENT || err == EOPNOTSUPP || err == EAFNOSUPPORT) && kq->kq_op != KQ_DELETE && t->kqt_absent_ok)
      return kDone;
    if (err == EPERM && terminating() && kq->kq_op == KQ_DELETE) return kDone;
    return kRetry;
  }
  if (t->kqt_sync) {
    alignas(16) uint8_t arena[KRT_DECODE_ARENA];
    rts_msg_pair reply{};
    size_t rlen;
    int res;
    int r = krt_receive_reply(krt_g.tp, rtype, 0, KRT_ANY_OP, arena, sizeof arena, &reply, &rlen, &res);
    if (r > 0) {
      errno = r;
      KRT_TRACE("%s: recv failed %m", name);
      return kRetry;
    }
    if (r < 0) {
      KRT_TRACE("%s: invalid reply", name);
      return kRetry;
    }
  }
  return kDone;
}

// One walk of the queues in order; *wait gets the earliest retry time.
int dequeue_thread(task_job *jp, uint32_t *wait) {
  *wait = 0;
  for (int l = 0; l < kLists; l++) {
    for (krt_queue_entry *kq = queues[l].first, *next; kq; kq = next) {
      next = kq->kq_next;
      if (kq->kq_retry > now_sec()) {
        if (!*wait || kq->kq_retry < *wait) *wait = kq->kq_retry;
        continue;
      }
      const krt_queue_type *t = kq->kq_db->kde_type;
      if (kq->kq_op == KQ_DELETE && t->kqt_delete_wait && t->kqt_delete_wait(kq)) {
        kq->kq_retry = now_sec() + (terminating() ? KRT_RETRY_TERMINATING : KRT_RETRY_SECONDS);
        if (!*wait || kq->kq_retry < *wait) *wait = kq->kq_retry;
        if (l != kRetryList) {
          unlink(kq);
          link_tail(kq, kRetryList);
        }
        continue;
      }
      int r = dequeue(kq);
      if (r == kFull) return kFull;
      if (r == kDone) {
        done(kq);
      } else {
        kq->kq_retry = now_sec() + (terminating() ? KRT_RETRY_TERMINATING : KRT_RETRY_SECONDS);
        if (!*wait || kq->kq_retry < *wait) *wait = kq->kq_retry;
        if (l != kRetryList) {
          unlink(kq);
          link_tail(kq, kRetryList);
        }
      }
      if (krt_slice_over(jp)) return kYield;
    }
  }
  return kDone;
}

void krt_dequeue_job(task_job *jp) {
  if (defer_timer) {
    task_timer_delete(defer_timer);
    defer_timer = nullptr;
  }
  krt_slice_start();
  uint32_t wait;
  int r = dequeue_thread(jp, &wait);
  if (r == kYield) return;
  task_job_delete(jp);
  krt_queue_job_p = nullptr;
  if (r == kFull) {
    if (!krt_g.tp) return;
    // A socket with room said EAGAIN for the peer: our receive backlog is
    // full. Drain it with the read job and come back by the defer timer.
    // Write selection is for a socket that is full itself.
    pollfd pf{krt_g.tp->task_socket, POLLOUT, 0};
    if (poll(&pf, 1, 0) == 1 && (pf.revents & POLLOUT)) {
      krt_read_ready(krt_g.tp);
      defer_timer = task_timer_create(krt_g.tp, "krt defer", TIMERF_DELETE, 0, KRT_RETRY_BACKLOG, 0, defer_fired,
                                      nullptr);
    } else {
      task_write_enable(krt_g.tp);
    }
    return;
  }
  if (wait) {
    uint32_t in = wait > now_sec() ? wait - now_sec() : 0;
    defer_timer = task_timer_create(krt_g.tp, "krt defer", TIMERF_DELETE, 0, in ? in : 1, 0, defer_fired, nullptr);
    return;
  }
  if (kq_alive == 0) {
    for (hbt_node *n = hbt_iterate_next(&krt_db_list, nullptr); n; n = hbt_iterate_next(&krt_db_list, n)) {
      krt_db_entry *kde = HBT_ENTRY(n, krt_db_entry, kde_node);
      if (kde->kde_type->kqt_drained) kde->kde_type->kqt_drained(kde);
    }
  }
}

}  // namespace

const char *krt_kq_op_name(unsigned op) {
  static const char *const names[] = {"none", "add", "delete", "change"};
  return op < 4 ? names[op] : "unknown";
}

void krt_queue_init(void) {
  for (auto &q : queues) q = list_head{};
  queues_ready = true;
}

void krt_db_register(krt_db_entry *kde) {
  task_assert(kde->kde_type && kde->kde_type->kqt_type < DB_TABLE_MAX &&
              kde->kde_type->kqt_type != DB_TABLE_INVALID && kde->kde_type->kqt_prio < KRT_PRIO_COUNT);
  task_assert(hbt_insert(&krt_db_list, &kde->kde_node, kde_cmp));
}

void krt_db_delete(uint32_t db) {
  krt_db_entry *kde = find_db(db);
  if (!kde) return;
  for (auto &q : queues)
    for (krt_queue_entry *kq = q.first, *next; kq; kq = next) {
      next = kq->kq_next;
      if (kq->kq_db == kde) krt_entry_free(kq);
    }
  hbt_delete(&krt_db_list, &kde->kde_node);
}

void krt_db_purge(uint32_t db, krt_db_ent *entry) {
  if (!find_db(db) || !entry->kde_q_ent) return;
  krt_entry_free(entry->kde_q_ent);
}

void krt_enqueue(krt_queue_entry *kq, int queue) {
  task_assert(queue >= 0 && queue < KRT_PRIO_COUNT);
  // Already waiting on that queue: it keeps its place.
  if (kq->kq_list != queue) {
    if (kq->kq_list < kLists) unlink(kq);
    link_tail(kq, queue);
  }
  if (!krt_g.deferred && !krt_queue_job_p) krt_queue_start_job();
}

void krt_db_notify(uint32_t db, krt_db_ent *entry) {
  krt_db_entry *kde = find_db(db);
  if (!kde) return;
  const krt_queue_type *t = kde->kde_type;
  if (t->kqt_veto && t->kqt_veto(kde, entry)) return;
  krt_queue_entry *kq = entry->kde_q_ent;
  if (entry->kde_deleted) {
    if (!t->kqt_in_kernel || !t->kqt_in_kernel(entry)) {
      // Never reached the kernel: dropped at once.
      if (kq) krt_entry_free(kq);
      if (t->kqt_free) t->kqt_free(kde, entry);
      return;
    }
  }
  if (!kq) {
    kq = static_cast<krt_queue_entry *>(calloc(1, sizeof(krt_queue_entry) + t->kqt_private_size));
    task_assert(kq);
    kq->kq_type = t->kqt_type;
    kq->kq_list = kLists;
    kq->kq_owner = entry;
    kq->kq_db = kde;
    entry->kde_q_ent = kq;
    kq_alive++;
  }
  task_assert(kq->kq_type != DB_TABLE_INVALID && kq->kq_type < DB_TABLE_MAX);
  if (entry->kde_deleted) {
    // A delete that must wait keeps its retry time.
    if (!(t->kqt_delete_wait && t->kqt_delete_wait(kq))) kq->kq_retry = 0;
    kq->kq_op = KQ_DELETE;
    krt_enqueue(kq, t->kqt_prio);
    return;
  }
  memset(kq->kq_private, 0, t->kqt_private_size);
  kq->kq_retry = 0;
  int r = t->kqt_build(kq, entry);
  task_assert(kq->kq_op <= KQ_CHANGE);
  if (r == 2) {
    krt_entry_free(kq);
    return;
  }
  krt_enqueue(kq, t->kqt_prio);
}

void krt_queue_start_job(void) {
  bool krt_queue_job = krt_queue_job_p != nullptr;
  task_assert(!krt_queue_job);
  if (!krt_g.tp) return;
  krt_config *c = krt_g.config;
  krt_queue_job_p = c && c->multi_thread_queue
                        ? task_job_create_foreground(krt_g.tp, "krt foreground queue", krt_dequeue_job, nullptr)
                        : task_job_create_background(krt_g.tp, 3, "krt queue", krt_dequeue_job, nullptr);
}

void krt_queue_stop_job(void) {
  if (krt_queue_job_p) task_job_delete(krt_queue_job_p);
  krt_queue_job_p = nullptr;
}

void krt_write_cb(task *tp) {
  task_write_disable(tp);
  if (!krt_queue_job_p && !krt_g.deferred) krt_queue_start_job();
}

bool krt_queue_empty(void) { return kq_alive == 0; }
uint32_t krt_queue_count(void) { return kq_alive; }
uint32_t krt_queue_length(int q) { return q >= 0 && q < kLists ? queues[q].count : 0; }
task_job *krt_queue_job(void) { return krt_queue_job_p; }
task_timer *krt_queue_defer_timer(void) { return defer_timer; }

void krt_queue_switchover(int state) {
  master_state = state;
  write_side = false;
}
int krt_queue_master_state(void) { return master_state; }

void krt_queue_reset(void) {
  for (auto &q : queues)
    for (krt_queue_entry *kq = q.first, *next; kq; kq = next) {
      next = kq->kq_next;
      free(kq);  // owners may be gone already: not touched
    }
  for (auto &q : queues) q = list_head{};
  krt_db_list = hbt_root{};
  krt_queue_job_p = nullptr;
  defer_timer = nullptr;
  kq_alive = 0;
  master_state = 0;
  write_side = false;
  memset(krt_queue_stats, 0, sizeof krt_queue_stats);
}
