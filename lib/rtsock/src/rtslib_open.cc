// Open and close, the version handshake, buffers and the sync mode.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "rtslib_internal.h"

using namespace rtslib;

namespace {

int connect_socket(rtslib_cookie *c) {
  if (c->fd != -1) return EINVAL;
  int fd = edge().lo_open(edge().lo_ctx);
  if (fd < 0) {
    int err = errno;
    rtslib_log(c, RTSLIB_LOG_ERROR, "%s(): Failed to open a new routing socket with errno %u",
               "rtslib_connect", err);
    return err;
  }
  c->fd = fd;
  return 0;
}

// The peer's version array against the table this library was built for.
int handshake(rtslib_cookie *c) {
  if (c->version_info) return EINVAL;
  uint8_t buf[RTS_VERSION_OPT_LEN] = {};
  socklen_t len = sizeof buf;
  if (edge().lo_getopt(edge().lo_ctx, c->fd, RTS_SOL, RTS_OPT_VERSION, buf, &len) < 0) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "version sockopt failed: %s", strerror(errno));
    return -1;
  }
  if (len < 2 || buf[1] != RTS_IFACE_VERSION) {
    rtslib_log(c, RTSLIB_LOG_FATAL,
               "interface version mismatch: kernel=%d library=%d,a reboot or software upgrade may be "
               "required",
               len < 2 ? 0 : buf[1], RTS_IFACE_VERSION);
    errno = ECONNREFUSED;
    return -1;
  }
  unsigned expected = RTS_TYPE_COUNT - 1;
  if (buf[0] > expected)
    rtslib_log(c, RTSLIB_LOG_WARNING,
               "kernel has new unknown messages: expected %d got %d,a reboot or software upgrade may "
               "be required",
               expected, buf[0]);
  else if (buf[0] < expected)
    rtslib_log(c, RTSLIB_LOG_ERROR,
               "kernel does not support all messages: expected %d got %d,a reboot or software upgrade "
               "may be required",
               expected, buf[0]);
  for (unsigned t = 1; t <= RTS_TYPE_LAST && t + 1 < len; t++)
    if (buf[t + 1] != rts_type_table[t].version)
      rtslib_log(c, RTSLIB_LOG_WARNING,
                 "version mismatch for msg %s (%d): expected %d got %d,a reboot or software upgrade "
                 "may be required",
                 rts_type_table[t].name, t, rts_type_table[t].version, buf[t + 1]);
  c->version_info = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, len));
  if (!c->version_info) {
    rtslib_log(c, RTSLIB_LOG_WARNING, "Malloc failure for version_info");
    return -1;
  }
  memcpy(c->version_info, buf, len);
  c->version_len = len;
  return 0;
}

}  // namespace

rtslib_cookie *rtslib_open(uint8_t sender_id) {
  auto *c = static_cast<rtslib_cookie *>(zalloc(RTSLIB_MEM_COOKIE, sizeof(rtslib_cookie)));
  if (!c) {
    rtslib_log(nullptr, RTSLIB_LOG_ERROR, "Failed to allocate memory for rtslib_cookie");
    return nullptr;
  }
  c->fd = -1;
  c->seq = 1;
  c->sender_id = sender_id;
  rtslib_default_log(&c->log_fn, &c->log_ctx);
  c->read_buffer = static_cast<uint8_t *>(alloc(RTSLIB_MEM_READBUF, kReadBuffer));
  if (!c->read_buffer) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Failed to allocate memory for rtslib cookie read_buffer");
    release(RTSLIB_MEM_COOKIE, c);
    return nullptr;
  }
  if (connect_socket(c) != 0 || handshake(c) != 0) {
    rtslib_close(c);
    return nullptr;
  }
  if (edge().lo_setopt(edge().lo_ctx, c->fd, RTS_SOL, RTS_OPT_SENDER_ID, &sender_id, 1) < 0)
    rtslib_log(c, RTSLIB_LOG_WARNING, "setsockopt(ROUTE_SENDER_ID) failed, %s", strerror(errno));
  if (rtslib_set_buffers(c, 0x80000, 0x80000) != 0) {
    rtslib_close(c);
    return nullptr;
  }
  return c;
}

void rtslib_close(rtslib_cookie *c) {
  if (!c) return;
  if (c->async_release) c->async_release(c);
  pending_release(c);
  if (c->fd >= 0) edge().lo_close(edge().lo_ctx, c->fd);
  release(RTSLIB_MEM_MSG, c->version_info);
  release(RTSLIB_MEM_READBUF, c->read_buffer);
  release(RTSLIB_MEM_MSG, c->wbuf);
  release(RTSLIB_MEM_MSG, c->rbuf);
  release(RTSLIB_MEM_COOKIE, c);
}

int rtslib_set_buffers(rtslib_cookie *c, int send_size, int receive_size) {
  if (!c) return EINVAL;
  if (send_size <= 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Attempted to set an invalid send buffer size %d", send_size);
    return EINVAL;
  }
  if (receive_size <= 0) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Attempted  to set an invalid receive buffer size %d", receive_size);
    return EINVAL;
  }
  // Bulk async reads take several messages at once: room for them.
  if (c->async && (c->async_mode & RTSLIB_ASYNC_BULK) &&
      (send_size < 0x80000 || receive_size < 0x80000)) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Attempted to set an invalid buffer size(send size: %d, recv size: %d)",
               send_size, receive_size);
    return EINVAL;
  }
  const rts_lower_ops &e = edge();
  if (e.lo_setopt(e.lo_ctx, c->fd, SOL_SOCKET, SO_SNDBUF, &send_size, sizeof send_size) < 0 ||
      e.lo_setopt(e.lo_ctx, c->fd, SOL_SOCKET, SO_RCVBUF, &receive_size, sizeof receive_size) < 0)
    return errno;
  if (c->rbuf && ((c->sync_mode & RTS_SYNC_BULK_ENABLE) || c->async)) {
    void *p = mem.realloc(RTSLIB_MEM_MSG, c->rbuf, static_cast<size_t>(receive_size));
    if (!p) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "%s: Failed to re-allocate rbuf %s", "rtslib_set_buffers",
                 strerror(ENOMEM));
      return ENOMEM;
    }
    c->rbuf = static_cast<uint8_t *>(p);
    c->rbuf_size = static_cast<size_t>(receive_size);
    c->rbuf_pos = c->rbuf_last = c->rbuf;
  }
  return 0;
}

int rtslib_set_sync_mode(rtslib_cookie *c, uint32_t mode) {
  if (!c) return EINVAL;
  if (mode > RTS_SYNC_BULK_ENABLE) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "%s: Unsupported setting for sync mode %u", "rtslib_set_sync_mode",
               mode);
    return EINVAL;
  }
  if ((mode & RTS_SYNC_BULK_ENABLE) && (c->sync_mode & RTS_SYNC_BULK_ENABLE)) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "%s: RTS_SYNC_BULK_ENABLE has already been set!",
               "rtslib_set_sync_mode");
    return EINVAL;
  }
  const rts_lower_ops &e = edge();
  if (e.lo_setopt(e.lo_ctx, c->fd, RTS_SOL, RTS_OPT_SYNC_MODE, &mode, sizeof mode) < 0) return errno;
  if (mode & RTS_SYNC_BULK_ENABLE) {
    int snd = 0, rcv = 0;
    socklen_t l1 = sizeof snd, l2 = sizeof rcv;
    if (e.lo_getopt(e.lo_ctx, c->fd, SOL_SOCKET, SO_SNDBUF, &snd, &l1) < 0 ||
        e.lo_getopt(e.lo_ctx, c->fd, SOL_SOCKET, SO_RCVBUF, &rcv, &l2) < 0)
      return errno;
    // The peer answers a batch in one record: room for what the socket can hold.
    c->wbuf = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, static_cast<size_t>(snd)));
    c->rbuf = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, static_cast<size_t>(rcv)));
    if (!c->wbuf || !c->rbuf) {
      release(RTSLIB_MEM_MSG, c->wbuf);
      release(RTSLIB_MEM_MSG, c->rbuf);
      c->wbuf = c->rbuf = nullptr;
      return ENOMEM;
    }
    c->wbuf_size = static_cast<size_t>(snd);
    c->wbuf_end = c->wbuf;
    c->rbuf_size = static_cast<size_t>(rcv);
    c->rbuf_pos = c->rbuf_last = c->rbuf;
  } else {
    release(RTSLIB_MEM_MSG, c->wbuf);
    release(RTSLIB_MEM_MSG, c->rbuf);
    c->wbuf = c->wbuf_end = c->rbuf = c->rbuf_pos = c->rbuf_last = nullptr;
    c->wbuf_size = c->rbuf_size = 0;
  }
  c->sync_mode = mode;
  return 0;
}
