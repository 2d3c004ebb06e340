// The change stream over mmcq: queue `n` ("mmdb_mmcq_%d", n = id x 5 + slot)
// carries the change messages of one database to one replicator slot.
// Writers hold a sender handle per queue, made on their first message; the
// replicator holds the receivers. A send that fails for any reason (queue
// at its maximum, no file space) returns false, and the caller counts the
// change as lost, which makes the replicator rescan.
#include <cstdlib>

#include "internal.h"
#include "mmcq/mmcq.h"

uint32_t mmdb_queue_max_msg_bytes = 0x19000;
int64_t mmdb_queue_default_bytes = 0x100000;
int64_t mmdb_queue_max_bytes = 0x6400000;

namespace {

constexpr int kQueues = MMDB_MAX_IDS * MMDB_MAX_REPLICATORS;

pthread_mutex_t mu = PTHREAD_MUTEX_INITIALIZER;
mmcq *senders[kQueues];
mmcq *receivers[kQueues];
bool sizes_read;

// TVX_MMDB_QUEUE_BYTES=DEFAULT,MAX overrides the queue sizes (tests that
// want an overflow); every process of a test must agree on them.
void read_sizes() {
  if (sizes_read) return;
  sizes_read = true;
  const char *e = getenv("TVX_MMDB_QUEUE_BYTES");
  if (!e || !*e) return;
  char *end;
  long long d = strtoll(e, &end, 0);
  if (*end != ',') return;
  long long m = strtoll(end + 1, &end, 0);
  if (*end || d < 8192 || m < d) return;
  mmdb_queue_default_bytes = d;
  mmdb_queue_max_bytes = m;
}

void queue_name(int n, char *out, size_t len) { snprintf(out, len, MMDB_QUEUE_NAME, n); }

}  // namespace

bool mmdb_mmcq_send(int n, const void *msg, uint32_t len, void *) {
  if (n < 0 || n >= kQueues) return false;
  pthread_mutex_lock(&mu);
  read_sizes();
  mmcq *s = senders[n];
  if (!s) {
    char name[32];
    queue_name(n, name, sizeof name);
    s = mmcq_sender_create(name, nullptr, mmdb_queue_max_msg_bytes, mmdb_queue_default_bytes,
                           mmdb_queue_max_bytes, 0, nullptr, nullptr);
    if (s) s->print = 0;  // a full queue is counted, not printed on every change
    senders[n] = s;
  }
  pthread_mutex_unlock(&mu);
  return s && mmcq_send(s, msg, len) == MMCQ_SUCCESS;
}

namespace {

mmcq *receiver(int n, mm_ctx *ctx, mmcq_receive_cb cb, void *cookie) {
  pthread_mutex_lock(&mu);
  read_sizes();
  mmcq *r = receivers[n];
  if (!r) {
    char name[32];
    queue_name(n, name, sizeof name);
    r = mmcq_receiver_create(name, ctx, mmdb_queue_max_msg_bytes, mmdb_queue_default_bytes, mmdb_queue_max_bytes, 0,
                             cb, cookie, nullptr);
    receivers[n] = r;
  }
  pthread_mutex_unlock(&mu);
  return r;
}

}  // namespace

uint32_t mmdb_mmcq_receive(int n, void *buf, uint32_t room, void *) {
  if (n < 0 || n >= kQueues) return 0;
  mmcq *r = receiver(n, nullptr, nullptr, nullptr);
  if (!r) return 0;
  int st;
  return mmcq_get_next(r, room, buf, &st);
}

mmcq *mmdb_rep_mmcq(mmdb_iterator *it, mm_ctx *ctx, mmcq_receive_cb cb, void *cookie) {
  int slot = mmdb_iterator_slot(it);
  if (slot < 0) return nullptr;
  return receiver(static_cast<int>(mmdb_queue_number(mmdb_iterator_db_id(it), static_cast<uint32_t>(slot))), ctx, cb,
                  cookie);
}

void mmdb_rep_stop(void) {
  pthread_mutex_lock(&mu);
  for (mmcq *&r : receivers) {
    if (r) mmcq_delete(r);
    r = nullptr;
  }
  pthread_mutex_unlock(&mu);
  mmdb_ack_rep_running(false);
}

void mmdb_change_queue_close(void) {
  pthread_mutex_lock(&mu);
  for (mmcq *&s : senders) {
    if (s) mmcq_delete(s);
    s = nullptr;
  }
  sizes_read = false;
  pthread_mutex_unlock(&mu);
}
