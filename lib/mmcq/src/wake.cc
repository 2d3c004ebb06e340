// The wake-up FIFO and the senders' watch over the receiver.
#include <cerrno>
#include <unistd.h>

#include "internal.h"

namespace {

// Reads what senders wrote: at most 11 reads of 1000 bytes.
void read_wakeups(mmcq *h) {
  char buf[1000];
  for (int i = 0; i < 11; i++) {
    ssize_t n = read(h->wake_fd, buf, sizeof buf);
    if (n <= 0) break;
    h->q->wakeups_read++;
    h->q->wakeup_bytes_read += static_cast<uint32_t>(n);
    if (n < static_cast<ssize_t>(sizeof buf)) break;
  }
}

}  // namespace

int mmcq_wake_fd(const mmcq *h) { return h ? h->wake_fd : -1; }

void mmcq_ensure_receiver_notify(mmcq *h) {
  mmcq_header_t *q = h->q;
  // The sender's message (put_offset) is stored before rnw is looked at, as
  // the receiver stores rnw before it looks at put_offset: one of the two
  // always sees the other.
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
  if (!mmcq_load(&q->rnw) || mmcq_load(&q->receiver_stopped)) return;
  uint8_t one = 1;
  if (!__atomic_compare_exchange_n(&q->rnw, &one, static_cast<uint8_t>(0), false, __ATOMIC_ACQ_REL,
                                   __ATOMIC_ACQUIRE))
    return;  // another sender is waking it
  char b = 1;
  ssize_t n;
  do n = write(h->wake_fd, &b, 1);
  while (n < 0 && errno == EINTR);
  if (n == 1) {
    __atomic_add_fetch(&q->wakeups_sent, 1, __ATOMIC_RELAXED);
    __atomic_add_fetch(&q->wakeup_bytes_sent, 1, __ATOMIC_RELAXED);
    return;
  }
  mmcq_store<uint8_t>(&q->rnw, 1);
  // A full FIFO already holds wake-ups enough.
  if (!(n < 0 && errno == EAGAIN)) mmcq_print(h, "%s: send to receiver failed?\n", h->name);
}

void mmcq_receiver_receive(mmcq *h) {
  if (!h || h->sender) return;
  mmcq_header_t *q = h->q;
  mmcq_store<uint8_t>(&q->rnw, 0);
  read_wakeups(h);
  if (h->receive_cb) h->receive_cb(h, h->cookie);
  q = h->q;
  mmcq_store<uint8_t>(&q->rnw, 1);
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
  // A message stored while the callback ran (its sender saw rnw clear):
  // wake ourselves, the next pass takes it.
  if (mmcq_load(&q->put_offset) != mmcq_load(&q->take_offset)) mmcq_ensure_receiver_notify(h);
}

bool mmcq_check_receiver(mmcq *h) {
  if (!h || !h->sender) return false;
  mmcq_header_t *q = h->q;
  uint32_t pid = mmcq_load(&q->receiver_pid);
  bool alive = pid && mmf_holder_alive(h->m, static_cast<pid_t>(pid));
  if (pid && !alive) {
    mmf_lock(h->m);
    mmcq_cas(&h->q->receiver_pid, pid, 0);
    mmf_unlock(h->m);
  }
  bool changed = alive != h->receiver_up || (alive && pid != h->last_receiver_pid);
  h->receiver_up = alive;
  if (alive) h->last_receiver_pid = pid;
  if (changed && h->receiver_status_change_cb) h->receiver_status_change_cb(h, h->cookie, alive);
  return alive;
}
