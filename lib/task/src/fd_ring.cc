// The open-descriptor ring: who opened, accepted and closed which socket,
// kept for the diagnostics that must say which task a descriptor was.
#include <cstring>

#include "internal.h"
#include "io_internal.h"
#include "platform/compat.h"
#include "task/sched.h"

namespace {

struct fd_ring {
  task_fd_record rec[TASK_FD_RING_SIZE];
  uint64_t written;
};
fd_ring ring;

const char *op_name(uint8_t op) {
  switch (op) {
    case TASK_FD_OPEN: return "open";
    case TASK_FD_ACCEPT: return "accept";
    case TASK_FD_CLOSE: return "close";
    default: return "?";
  }
}

}  // namespace

void task_fd_ring_note(int fd, task_fd_op op, const task *tp) {
  task_fd_record &r = ring.rec[ring.written++ % TASK_FD_RING_SIZE];
  r.tfr_time = task_now;
  r.tfr_fd = fd;
  r.tfr_op = op;
  strlcpy(r.tfr_task, tp ? task_name(const_cast<task *>(tp)) : "", sizeof r.tfr_task);
}

size_t task_fd_ring_get(task_fd_record *out, size_t max) {
  constexpr uint64_t cap = TASK_FD_RING_SIZE;
  uint64_t have = ring.written < cap ? ring.written : cap;
  uint64_t first = ring.written - have;
  size_t n = 0;
  for (uint64_t i = first; i < ring.written && n < max; i++) out[n++] = ring.rec[i % TASK_FD_RING_SIZE];
  return n;
}

void task_fd_ring_dump(FILE *f) {
  task_fd_record recs[TASK_FD_RING_SIZE];
  size_t n = task_fd_ring_get(recs, TASK_FD_RING_SIZE);
  for (size_t i = 0; i < n; i++)
    fprintf(f, "%ld.%06ld fd %d %s task %s\n", static_cast<long>(recs[i].tfr_time.ut_sec),
            static_cast<long>(recs[i].tfr_time.ut_usec), recs[i].tfr_fd, op_name(recs[i].tfr_op), recs[i].tfr_task);
}
