// The pipe's buffers and its socket I/O.
#include "ipc/ipc_pipe.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/sys.h"

namespace {

void *pipe_alloc(const ipc_pipe_cb &cb, size_t n) {
  return cb.ipc_cb_malloc ? cb.ipc_cb_malloc(cb.ipc_cb_ctx, n) : malloc(n);
}
void pipe_free(const ipc_pipe_cb &cb, void *ptr) {
  if (!ptr) return;
  if (cb.ipc_cb_free)
    cb.ipc_cb_free(cb.ipc_cb_ctx, ptr);
  else
    free(ptr);
}

void write_reset(ipc_pipe *p) {
  p->ip_whead = p->ip_wtail = 0;
  p->ip_xbuf = nullptr;
  p->ip_xoff = p->ip_xlen = 0;
  p->ip_wstarted = 0;
}

bool retryable(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS; }

}  // namespace

extern "C" {

ipc_pipe *ipc_pipe_create_with_params(uint32_t size, uint32_t headroom, const ipc_pipe_cb *cb) {
  if (!cb || cb->ipc_cb_len < sizeof(ipc_pipe_cb)) return nullptr;
  if (size == 0) size = 0xFFFF;
  if (size < IPC_PIPE_OVERHEAD) return nullptr;
  auto *p = static_cast<ipc_pipe *>(pipe_alloc(*cb, sizeof(ipc_pipe)));
  if (!p) return nullptr;
  memset(p, 0, sizeof *p);
  p->ip_cb = *cb;
  p->ip_fd = -1;
  p->ip_size = size;
  p->ip_headroom = headroom;
  p->ip_rmem = static_cast<uint8_t *>(pipe_alloc(*cb, size_t{headroom} + size));
  p->ip_wbuf = static_cast<uint8_t *>(pipe_alloc(*cb, size));
  if (!p->ip_rmem || !p->ip_wbuf) {
    ipc_pipe_destroy(p);
    return nullptr;
  }
  p->ip_rbuf = p->ip_rmem + headroom;
  return p;
}

void ipc_pipe_destroy(ipc_pipe *p) {
  if (!p) return;
  ipc_pipe_cb cb = p->ip_cb;
  pipe_free(cb, p->ip_rmem);
  pipe_free(cb, p->ip_wbuf);
  pipe_free(cb, p);
}

int ipc_pipe_attach_socket(ipc_pipe *p, int fd) {
  if (!p || fd < 0) {
    errno = EINVAL;
    return -1;
  }
  ipc_pipe_detach_socket(p);
  p->ip_fd = fd;
  return 0;
}

int ipc_pipe_detach_socket(ipc_pipe *p) {
  if (!p) return -1;
  int fd = p->ip_fd;
  p->ip_fd = -1;
  p->ip_rhead = p->ip_rtail = 0;
  write_reset(p);
  return fd;
}

ssize_t ipc_pipe_read(ipc_pipe *p) {
  if (!p || p->ip_fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (p->ip_rhead > 0) {
    memmove(p->ip_rbuf, p->ip_rbuf + p->ip_rhead, p->ip_rtail - p->ip_rhead);
    p->ip_rtail -= p->ip_rhead;
    p->ip_rhead = 0;
  }
  if (p->ip_rtail == p->ip_size) {
    // Full, and ipc_msg_read found no whole message in it: the peer announced
    // more than this pipe can ever hold.
    errno = EMSGSIZE;
    return -1;
  }
  ssize_t n;
  do n = tvx_sys.sys_read(p->ip_fd, p->ip_rbuf + p->ip_rtail, p->ip_size - p->ip_rtail);
  while (n < 0 && errno == EINTR);
  if (n > 0) p->ip_rtail += static_cast<uint32_t>(n);
  return n;
}

ssize_t ipc_x_pipe_read(ipc_pipe *p) {
  ssize_t n = ipc_pipe_read(p);
  if (n == 0) {
    errno = ECONNRESET;
    return -1;
  }
  return n;
}

void ipc_pipe_read_clean(ipc_pipe *p) {
  if (p) p->ip_rhead = p->ip_rtail = 0;
}

uint8_t *ipc_x_pipe_get_read_buffer(ipc_pipe *p, uint32_t *headroom) {
  if (!p) return nullptr;
  if (headroom) *headroom = p->ip_headroom;
  return p->ip_rmem;
}

uint32_t ipc_pipe_read_pending(const ipc_pipe *p) { return p ? p->ip_rtail - p->ip_rhead : 0; }

bool ipc_pipe_write_is_empty(const ipc_pipe *p) {
  return !p || (p->ip_whead == p->ip_wtail && p->ip_xoff == p->ip_xlen);
}

int ipc_x_pipe_write(ipc_pipe *p) {
  if (!p) {
    errno = EINVAL;
    return -1;
  }
  for (;;) {
    uint32_t buffered = p->ip_wtail - p->ip_whead, external = p->ip_xlen - p->ip_xoff;
    if (buffered + external == 0) {
      write_reset(p);
      return 0;
    }
    iovec iov[2];
    int n = 0;
    if (buffered) iov[n++] = {p->ip_wbuf + p->ip_whead, buffered};
    if (external) iov[n++] = {const_cast<uint8_t *>(p->ip_xbuf + p->ip_xoff), external};
    msghdr mh{};
    mh.msg_iov = iov;
    mh.msg_iovlen = static_cast<size_t>(n);
    ssize_t sent = p->ip_fd < 0 ? (errno = EBADF, -1) : tvx_sys.sys_sendmsg(p->ip_fd, &mh, MSG_NOSIGNAL);
    if (sent == 0) errno = EAGAIN;  // nothing taken: as if the socket were full
    if (sent <= 0) {
      if (errno == EINTR) continue;
      if (p->ip_wstarted && retryable(errno)) return IPC_PIPE_PARTIAL;
      int err = errno;
      write_reset(p);
      errno = err;
      return -1;
    }
    auto s = static_cast<uint32_t>(sent);
    uint32_t from_buffer = s < buffered ? s : buffered;
    p->ip_whead += from_buffer;
    p->ip_xoff += s - from_buffer;
    if (s > 0) p->ip_wstarted = 1;
    if (s < buffered + external) {
      errno = EAGAIN;
      return IPC_PIPE_PARTIAL;
    }
  }
}

}  // extern "C"
