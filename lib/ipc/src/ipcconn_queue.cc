// The pieces of the send path the client and the session share: the queue
// records, the framed send, the errno classes and the loop clock.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "htimer/utime.h"
#include "internal.h"
#include "task/sched.h"

namespace {
uint8_t *payload_of(ipcconn_pending *r) { return reinterpret_cast<uint8_t *>(r + 1); }
}  // namespace

ipcconn_pending *ipcconn_pending_new(ipcconn_malloc_fn m, uint32_t subtype, const void *buf, uint32_t length,
                                     bool external, bool partial) {
  bool copy = !external && !partial;
  size_t size = sizeof(ipcconn_pending) + (copy ? length : 0);
  auto *r = static_cast<ipcconn_pending *>(m ? m(size) : malloc(size));
  if (!r) return nullptr;
  memset(r, 0, sizeof *r);
  r->subtype = subtype;
  r->length = length;
  r->timestamp_us = ipcconn_now_us();
  r->partially_written = partial;
  r->external = external;
  r->external_buf = external ? const_cast<void *>(buf) : nullptr;
  if (copy && length) memcpy(payload_of(r), buf, length);
  return r;
}

void ipcconn_pending_append(ipcconn_pending *&head, ipcconn_pending *&tail, ipcconn_pending *r) {
  r->prev = tail;
  r->next = nullptr;
  if (tail)
    tail->next = r;
  else
    head = r;
  tail = r;
}

void ipcconn_pending_unlink(ipcconn_pending *&head, ipcconn_pending *&tail, ipcconn_pending *r) {
  if (r->prev)
    r->prev->next = r->next;
  else
    head = r->next;
  if (r->next)
    r->next->prev = r->prev;
  else
    tail = r->prev;
}

void ipcconn_app_free(ipcconn_free_fn f, void *p) {
  if (!p) return;
  if (f)
    f(p);
  else
    free(p);
}

void ipcconn_pending_release(ipcconn_free_fn f, ipcconn_pending *r) {
  if (r->external) ipcconn_app_free(f, r->external_buf);
  ipcconn_app_free(f, r);
}

const void *ipcconn_pending_data(ipcconn_pending *r) { return r->external ? r->external_buf : payload_of(r); }

int ipcconn_msg_send(ipc_pipe *p, uint16_t type, uint32_t subtype, const void *buf, uint32_t length, bool external) {
  ipc_msg h{type, static_cast<uint16_t>(subtype), static_cast<uint16_t>(length), IPC_MSG_OP_SEND, 0};
  int rc = external ? ipc_x_msg_write(p, &h, buf) : ipc_msg_write(p, &h, buf);
  if (rc < 0) return -1;
  return ipc_x_pipe_write(p);
}

bool ipcconn_send_retryable(int err) {
  return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS || err == EMSGSIZE;
}

bool ipcconn_terminal_read_error(int err) {
  return err == ECONNRESET || err == ENOTCONN || err == EBADF || err == ENOTSOCK || err == EFAULT;
}

uint64_t ipcconn_now_us() { return task_utime_to_usec(task_now); }

uint64_t ipcconn_clock_us() {
  task_time_update();
  return task_utime_to_usec(task_now);
}
