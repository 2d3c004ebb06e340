// The write queue of the route-socket channel: a daemon's databases mirrored
// in the kernel. A registered database (krt_db_entry) tells the channel of a
// changed entry with krt_db_notify; the entry gets a queue entry (kq) with an
// operation (add, change, delete) on the queue of its type's priority, and the
// job "krt queue" sends them, one message each, in queue order, yielding at
// the time slice. A message the kernel refuses is retried after 5 seconds (1
// while terminating) through the timer "krt defer"; a socket that is full
// turns write selection on; deferral (krt_block) stops the job. When every
// queue is empty each database's drained hook runs.
//
// Errno rules of a send: EAGAIN stops the walk: from a socket that is full
// itself, write selection brings the job back; from the peer (our receive
// backlog is full), the read job drains it and the timer "krt defer" brings
// the job back after KRT_RETRY_BACKLOG seconds. ENOENT, EOPNOTSUPP or EAFNOSUPPORT on an add or change
// counts as done when the type allows it; EPERM on a delete while the
// process terminates counts as done; every other error is retried.
#pragma once

#include <cstdint>

#include "containers/hbt.h"
#include "krt/krt.h"

extern "C" {

enum { KRT_PRIO_COUNT = 4 };
enum : uint8_t { KQ_NONE = 0, KQ_ADD = 1, KQ_DELETE = 2, KQ_CHANGE = 3 };
enum : uint8_t { DB_TABLE_INVALID = 0, DB_TABLE_MAX = 45 };
enum : uint32_t { KRT_RETRY_SECONDS = 5, KRT_RETRY_TERMINATING = 1, KRT_RETRY_BACKLOG = 1 };

// "INVALID", "INSTANCE", "VLAN", ...; empty between the named ones.
extern const char *const krt_db_table_names[DB_TABLE_MAX];
const char *krt_kq_op_name(unsigned op);

struct krt_queue_entry;
struct krt_db_entry;

// The head of a daemon's object that the queue knows: put it first.
struct krt_db_ent {
  krt_queue_entry *kde_q_ent;
  uint8_t kde_deleted;
};

// What a database type tells the queue.
struct krt_queue_type {
  uint8_t kqt_type;  // kq_type, below DB_TABLE_MAX
  uint8_t kqt_prio;  // below KRT_PRIO_COUNT
  uint32_t kqt_private_size;
  bool (*kqt_veto)(krt_db_entry *kde, krt_db_ent *entry);  // true: not the kernel's business
  bool (*kqt_in_kernel)(krt_db_ent *entry);
  // Fills the private data and sets kq_op (add or change): 1 to send, 2 for
  // nothing to do.
  int (*kqt_build)(krt_queue_entry *kq, krt_db_ent *entry);
  bool (*kqt_delete_wait)(krt_queue_entry *kq);  // null: never waits
  bool (*kqt_add_ready)(krt_queue_entry *kq);    // null: always ready
  // The encoded message: bytes needed (written when they fit in room), 0 on failure.
  uint32_t (*kqt_encode)(krt_queue_entry *kq, uint8_t op, void *buffer, uint32_t room);
  uint8_t kqt_absent_ok;  // ENOENT/EOPNOTSUPP/EAFNOSUPPORT on add or change is done
  uint8_t kqt_sync;       // the kernel answers each message: read the reply
  void (*kqt_free)(krt_db_entry *kde, krt_db_ent *entry);  // a deleted entry, once the kernel has it gone
  void (*kqt_drained)(krt_db_entry *kde);
};

struct krt_db_entry {
  hbt_node kde_node;
  uint32_t k_db_handle;
  void *kde_entry_pool;
  void *kde_kq_pool;
  const krt_queue_type *kde_type;
};

struct krt_queue_entry {
  krt_queue_entry *kq_next, *kq_prev;
  uint8_t kq_type;
  uint8_t kq_op;
  uint8_t kq_list;    // the queue it is on: a priority, or KRT_PRIO_COUNT for the retry list
  uint32_t kq_retry;  // seconds of the task clock; 0: now
  int32_t kq_errno;
  krt_db_ent *kq_owner;
  krt_db_entry *kq_db;
  alignas(8) uint8_t kq_private[];
};

struct krt_queue_counters {
  uint64_t sent;
  uint64_t failed;
  int32_t last_errno;
};
extern krt_queue_counters krt_queue_stats[DB_TABLE_MAX][4];

void krt_queue_init(void);
void krt_db_register(krt_db_entry *kde);
void krt_db_delete(uint32_t db);
void krt_db_purge(uint32_t db, krt_db_ent *entry);
void krt_db_notify(uint32_t db, krt_db_ent *entry);
void krt_enqueue(krt_queue_entry *kq, int queue);
// Queue entries alive, and the ones on queue q (KRT_PRIO_COUNT: retry).
uint32_t krt_queue_count(void);
uint32_t krt_queue_length(int q);
task_job *krt_queue_job(void);
task_timer *krt_queue_defer_timer(void);
// The switchover's state, as krt_lib_re_switchover left it.
void krt_queue_switchover(int state);
int krt_queue_master_state(void);

}  // extern "C"
