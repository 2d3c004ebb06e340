// Message framing over the pipe's buffers.
#include <cerrno>
#include <cstring>

#include "ipc/ipc_pipe.h"

namespace {

int put_header(ipc_pipe *p, const ipc_msg *hdr, const void *payload) {
  if (!p || !hdr || (!payload && hdr->length)) {
    errno = EINVAL;
    return -1;
  }
  if (!ipc_pipe_write_is_empty(p)) {
    errno = EBUSY;
    return -1;
  }
  if (uint32_t{hdr->length} + IPC_PIPE_OVERHEAD > p->ip_size) {
    errno = EMSGSIZE;
    return -1;
  }
  memcpy(p->ip_wbuf, hdr, IPC_MSG_HDR_LEN);
  p->ip_whead = 0;
  p->ip_wtail = IPC_MSG_HDR_LEN;
  p->ip_wstarted = 0;
  return 0;
}

}  // namespace

extern "C" {

ipc_msg *ipc_msg_read(ipc_pipe *p) {
  if (!p) return nullptr;
  uint32_t avail = p->ip_rtail - p->ip_rhead;
  if (avail < IPC_MSG_HDR_LEN) return nullptr;
  auto *m = reinterpret_cast<ipc_msg *>(p->ip_rbuf + p->ip_rhead);
  uint32_t whole = IPC_MSG_HDR_LEN + uint32_t{m->length};
  if (avail < whole) return nullptr;
  p->ip_rhead += whole;
  return m;
}

int ipc_msg_write(ipc_pipe *p, const ipc_msg *hdr, const void *payload) {
  if (put_header(p, hdr, payload) < 0) return -1;
  if (hdr->length) memcpy(p->ip_wbuf + IPC_MSG_HDR_LEN, payload, hdr->length);
  p->ip_wtail += hdr->length;
  return 0;
}

int ipc_x_msg_write(ipc_pipe *p, const ipc_msg *hdr, const void *payload) {
  if (put_header(p, hdr, payload) < 0) return -1;
  p->ip_xbuf = static_cast<const uint8_t *>(payload);
  p->ip_xoff = 0;
  p->ip_xlen = hdr->length;
  return 0;
}

}  // extern "C"
