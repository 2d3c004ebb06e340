// What the client and the session share: socket options and Unix addresses,
// the queue records, the framed send, the errno classes and the loop clock.
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "htimer/utime.h"
#include "internal.h"
#include "platform/path.h"
#include "task/sched.h"

// Linux has no SO_SNDLOWAT to set (it refuses the option): the stream bit
// asks for nothing here.
int ipcconn_common_socket_setup(int s, bool nonblocking, uint32_t rcv_timeout) {
  int size = 65536;
  if (setsockopt(s, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] ERR: ipc: failed to set SO_SNDBUF for socket (%d)", __func__,
                __LINE__, s);
    return IPCCONN_ERR_SOCKET;
  }
  if (setsockopt(s, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] ERR: ipc: failed to set SO_RCVBUF for socket (%d)", __func__,
                __LINE__, s);
    return IPCCONN_ERR_SOCKET;
  }
  if (nonblocking) {
    int fl = fcntl(s, F_GETFL);
    if (fl < 0 || fcntl(s, F_SETFL, fl | O_NONBLOCK) < 0) {
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] ERR: ipc: failed to set non-blocking mode", __func__, __LINE__);
      return IPCCONN_ERR_SOCKET;
    }
  }
  if (rcv_timeout) {
    timeval tv{static_cast<time_t>(rcv_timeout), 0};
    if (setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) < 0) {
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] ERR: ipc: failed to set SO_RCVTIMEO for socket (%d)", __func__,
                  __LINE__, s);
      return IPCCONN_ERR_SOCKET;
    }
  }
  return 0;
}

bool ipcconn_unix_addr(const char *logical, sockaddr_un *out) {
  char real[sizeof out->sun_path + 1];
  if (!logical || !*logical || !tvx_path(logical, real, sizeof real) || strlen(real) > sizeof out->sun_path - 1)
    return false;
  memset(out, 0, sizeof *out);
  out->sun_family = AF_UNIX;
  memcpy(out->sun_path, real, strlen(real));
  return true;
}

int ipcconn_screen_message(const ipc_msg *m, bool check_type, uint16_t want_type, uint32_t app_id, const void *who,
                           const char *kind) {
  if (check_type && m->type != want_type) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), %s (%p), Unexpected message type %d", __func__,
                __LINE__, app_id, kind, const_cast<void *>(who), m->type);
    return -1;
  }
  if (m->opcode & IPC_MSG_OP_ERROR) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), %s (%p), error code %d type %d subtype %d opcode %d",
                __func__, __LINE__, app_id, kind, const_cast<void *>(who), m->error, m->type, m->subtype, m->opcode);
    return 1;
  }
  return 0;
}

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
