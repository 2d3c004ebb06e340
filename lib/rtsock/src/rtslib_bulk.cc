// Bulk synchronous mode: many messages per write, their replies read back in
// as few reads as the receive buffer allows.
#include <cerrno>
#include <cstring>

#include "rtslib_internal.h"

using namespace rtslib;

namespace {

bool wants_reply(const void *msg) {
  uint8_t op = static_cast<const rts_msg_hdr *>(msg)->operation;
  return op == RTS_OP_GET || op == RTS_OP_GETNEXT;
}

bool buffers_sane(rtslib_cookie *c) {
  if (!c->wbuf || !c->rbuf || c->wbuf_end < c->wbuf || c->wbuf_end > c->wbuf + c->wbuf_size) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "%s: Invalid/Corrupted common send buffer", "rtslib_msg_writev_idl");
    return false;
  }
  if (c->rbuf_pos < c->rbuf || c->rbuf_last > c->rbuf + c->rbuf_size || c->rbuf_pos > c->rbuf_last) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "%s: Invalid/Corrupted common receive buffer",
               "rtslib_msg_writev_idl");
    return false;
  }
  return true;
}

// Encodes from iov[i] on into wbuf; returns how many fit, or -1 when not even one does.
int encode_batch(rtslib_cookie *c, uint32_t i, uint32_t count, rtslib_bulk_iov *iov,
                 const uint8_t *const *masks) {
  c->wbuf_end = c->wbuf;
  uint32_t n = 0;
  for (; i + n < count; n++) {
    auto *h = static_cast<rts_msg_hdr *>(iov[i + n].rbi_msg);
    rts_msg_pair pair{h->type, h};
    size_t room = c->wbuf + c->wbuf_size - c->wbuf_end;
    const uint8_t *mask = masks ? masks[i + n] : nullptr;
    uint32_t need = static_cast<uint32_t>(mask ? rts_tlv_encode(&pair, mask, nullptr, 0)
                                               : rts_idr_encode(&pair, nullptr, 0));
    if (need > room) {
      if (n == 0) {
        rtslib_log(c, RTSLIB_LOG_FATAL, "%s: Cookie buffer(%u) not big enough for even one message(%u)",
                   "rtslib_msg_writev_idl", static_cast<unsigned>(c->wbuf_size), need);
        return -1;
      }
      break;
    }
    h->seq = c->seq++;
    if (mask) rts_tlv_encode(&pair, mask, c->wbuf_end, static_cast<uint32_t>(room));
    else rts_idr_encode(&pair, c->wbuf_end, static_cast<uint32_t>(room));
    c->wbuf_end += need;
  }
  return static_cast<int>(n);
}

// Reads the replies of iov[from, to) that expect one; 0 or the read's error.
int read_replies(rtslib_cookie *c, uint32_t from, uint32_t to, rtslib_bulk_iov *iov) {
  uint32_t next = from;
  auto advance = [&] {
    while (next < to && !wants_reply(iov[next].rbi_msg)) next++;
  };
  advance();
  while (next < to) {
    ssize_t n = edge().lo_read(edge().lo_ctx, c->fd, c->rbuf, c->rbuf_size);
    if (n <= 0) {
      int err = n < 0 ? errno : EIO;
      for (; next < to; next++)
        if (wants_reply(iov[next].rbi_msg)) iov[next].rbi_read_error = err;
      return err;
    }
    c->rbuf_pos = c->rbuf;
    c->rbuf_last = c->rbuf + n;
    while (c->rbuf_pos + RTS_ENVELOPE_SIZE <= c->rbuf_last && next < to) {
      uint32_t len;
      memcpy(&len, c->rbuf_pos + 4, 4);
      uint64_t total = uint64_t{len} + RTS_ENVELOPE_SIZE;
      if (total > static_cast<uint64_t>(c->rbuf_last - c->rbuf_pos)) {
        rtslib_log(c, RTSLIB_LOG_ERROR, "corrupted msg_len (%d) (%d bytes left)", static_cast<int>(total),
                   static_cast<int>(c->rbuf_last - c->rbuf_pos));
        break;
      }
      void *msg;
      int err = rtslib_msg_decode(c, c->rbuf_pos, static_cast<uint32_t>(total), &msg);
      c->rbuf_pos += total;
      if (!err && !answers(msg, iov[next].rbi_msg)) {
        rtslib_msg_idl_release(c, msg);  // the answer to an earlier request
        continue;
      }
      if (err) iov[next].rbi_read_error = err;
      else iov[next].rbi_reply = msg;
      next++;
      advance();
    }
  }
  return 0;
}

}  // namespace

int rtslib_msg_writev_idl(rtslib_cookie *c, uint32_t count, rtslib_bulk_iov *iov,
                          const uint8_t *const *masks) {
  if (!c) {
    rtslib_log(nullptr, RTSLIB_LOG_FATAL, "%s: Invalid/Corrupted cookie", "rtslib_msg_writev_idl");
    return EINVAL;
  }
  if (!(c->sync_mode & RTS_SYNC_BULK_ENABLE) || !iov) return EINVAL;
  if (!buffers_sane(c)) return EINVAL;
  for (uint32_t k = 0; k < count; k++) {
    iov[k].rbi_reply = nullptr;
    iov[k].rbi_write_error = iov[k].rbi_read_error = 0;
  }
  int first_error = 0;
  uint32_t i = 0;
  while (i < count) {
    int batch = encode_batch(c, i, count, iov, masks);
    if (batch < 0) return EMSGSIZE;
    uint32_t accepted = static_cast<uint32_t>(batch);
    size_t bytes = static_cast<size_t>(c->wbuf_end - c->wbuf);
    rtslib_msglen = static_cast<uint32_t>(bytes);
    if (edge().lo_write(edge().lo_ctx, c->fd, c->wbuf, bytes) < 0) {
      int err = errno;
      uint32_t status[3] = {static_cast<uint32_t>(err), 0, 0};
      socklen_t len = sizeof status;
      if (edge().lo_getopt(edge().lo_ctx, c->fd, RTS_SOL, RTS_OPT_BULK_ERROR, status, &len) < 0)
        status[1] = 0;
      int32_t verdict = status[0] ? static_cast<int32_t>(status[0]) : err;
      if (!first_error) first_error = verdict;
      if (status[1] >= accepted) {
        // Every message was taken, yet the write failed: their replies could
        // not be queued. The failure is their reads', not one message's write.
        read_replies(c, i, i + accepted, iov);
        for (uint32_t k = i; k < i + accepted; k++)
          if (wants_reply(iov[k].rbi_msg) && !iov[k].rbi_reply && iov[k].rbi_read_error == EAGAIN)
            iov[k].rbi_read_error = verdict;
        i += accepted;
        continue;
      }
      accepted = status[1];
      iov[i + accepted].rbi_write_error = verdict;
      int rerr = read_replies(c, i, i + accepted, iov);
      if (rerr && !first_error) first_error = rerr;
      i += accepted + 1;  // resume behind the one that failed
      continue;
    }
    int rerr = read_replies(c, i, i + accepted, iov);
    if (rerr && !first_error) first_error = rerr;
    i += accepted;
  }
  return first_error;
}
