// Writing one message, reading one, and decoding a reply into one block.
#include <unistd.h>

#include <cstdlib>
#include <cerrno>
#include <cstring>

#include "platform/sysctl.h"
#include "rtslib_internal.h"

using namespace rtslib;

uint32_t rtslib_msglen;

namespace {

// The kernel-backtrace bracket around a write.
void kbt(rtslib_cookie *c, int on) {
  if (!c->kbt_enable) return;
  int v[3] = {static_cast<int>(getpid()), -1, on};
  sysctlbyname("debug.enable_kbt", nullptr, nullptr, v, sizeof v);
}

// A bump allocator over the reply's block: base, limit, used.
struct Bump {
  uint8_t *base;
  size_t limit;
  size_t used;
  static void *alloc(void *ctx, size_t n) {
    auto *b = static_cast<Bump *>(ctx);
    n = (n + 7) & ~size_t{7};  // records hold pointers
    if (n > b->limit - b->used) return nullptr;
    void *p = b->base + b->used;
    b->used += n;
    return p;
  }
};

uint32_t word(const uint8_t *p, int i) {
  uint32_t v;
  memcpy(&v, p + 4 * i, 4);
  return v;
}

}  // namespace

int rtslib::send_message(rtslib_cookie *c, uint32_t type, const void *record, const uint8_t *mask) {
  rts_msg_pair pair{type, const_cast<void *>(record)};
  size_t room = kRequestBlock;
  auto *block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, room));
  if (!block) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes", static_cast<int>(room));
    return ENOMEM;
  }
  int n = mask ? rts_tlv_encode(&pair, mask, block, static_cast<uint32_t>(room))
               : rts_idr_encode(&pair, block, static_cast<uint32_t>(room));
  if (static_cast<size_t>(n) > room) {
    release(RTSLIB_MEM_MSG, block);
    room = static_cast<size_t>(n);
    block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, room));
    if (!block) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes", n);
      return ENOMEM;
    }
    n = mask ? rts_tlv_encode(&pair, mask, block, static_cast<uint32_t>(room))
             : rts_idr_encode(&pair, block, static_cast<uint32_t>(room));
  }
  rtslib_msglen = static_cast<uint32_t>(n);
  kbt(c, 1);
  ssize_t w = edge().lo_write(edge().lo_ctx, c->fd, block, static_cast<size_t>(n));
  int err = errno;
  kbt(c, 0);
  release(RTSLIB_MEM_MSG, block);
  if (w < 0) return err;
  if (w != n) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "wrote %u byte%s to routing socket, got %d", n, n == 1 ? "" : "s",
               static_cast<int>(w));
    return EIO;
  }
  return 0;
}

int rtslib_msg_write_idl(rtslib_cookie *c, uint32_t type, void *record, const uint8_t *mask) {
  if (!c || !record) return EINVAL;
  return send_message(c, type, record, mask);
}

int rtslib::take_record(rtslib_cookie *c, uint8_t **block, uint32_t *length) {
  *block = nullptr;
  *length = 0;
  uint8_t head[kPeek];
  // The edge reports the record's whole length: the block is sized by what
  // arrived, never by what a header claims.
  ssize_t n = edge().lo_peek(edge().lo_ctx, c->fd, head, sizeof head);
  if (n < 0) {
    if (errno == EMSGSIZE) {  // a peek of 24 bytes cannot be too long: the socket is not ours
      rtslib_log(c, RTSLIB_LOG_FATAL, "%s", "errno != EMSGSIZE");
      abort();
    }
    return errno;
  }
  if (n == 0) return ECONNRESET;  // the peer has gone
  if (static_cast<size_t>(n) < kPeek) {
    // No whole header yet: would-block, as for an empty socket; the record
    // stays queued.
    errno = EAGAIN;
    return EAGAIN;
  }
  if (n > 0x7FFFFFFD) {
    // Beyond any length a message may have: taken off the socket, so that it
    // does not sit in front of every later reply.
    edge().lo_read(edge().lo_ctx, c->fd, head, sizeof head);
    rtslib_log(c, RTSLIB_LOG_ERROR, "msg of %lld bytes is too large", static_cast<long long>(n));
    return EIO;
  }
  uint32_t magic = word(head, 0);
  bool envelope = magic == RTS_MAGIC_TLV || magic == RTS_MAGIC_IDR;
  auto len = static_cast<size_t>(n);
  auto *buf = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, len));
  if (!buf) {
    edge().lo_read(edge().lo_ctx, c->fd, head, sizeof head);
    rtslib_log(c, RTSLIB_LOG_ERROR, "Allocation Failure for (%d) bytes", static_cast<int>(len));
    return ENOMEM;
  }
  ssize_t got = edge().lo_read(edge().lo_ctx, c->fd, buf, len);
  if (got < 0) {
    int err = errno;
    if (err != EAGAIN) rtslib_log(c, RTSLIB_LOG_FATAL, "read failed: (%d) %s", err, strerror(err));
    release(RTSLIB_MEM_MSG, buf);
    return err;
  }
  len = static_cast<size_t>(got);  // an envelope is taken with the length read
  if (!envelope && len >= kPeek) {
    uint32_t expect = word(buf, 2);
    if (len < expect) {
      rtslib_log(c, RTSLIB_LOG_FATAL, "msg read too short got (%d), expected %d", static_cast<int>(len),
                 static_cast<int>(expect));
      release(RTSLIB_MEM_MSG, buf);
      return EIO;
    }
    if (len > expect) {
      rtslib_log(c, RTSLIB_LOG_WARNING, "msg read too long got (%d), expected %d", static_cast<int>(len),
                 static_cast<int>(expect));
      len = expect;
    }
  }
  if (len < kPeek) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "msg read too small for header: %d", static_cast<int>(len));
    release(RTSLIB_MEM_MSG, buf);
    return EIO;
  }
  *block = buf;
  *length = static_cast<uint32_t>(len);
  return 0;
}

bool rtslib::raw_seq_ok(rtslib_cookie *c, uint32_t seq) {
  uint32_t expect = c->seq - 1;
  if (seq == expect || (c->async && c->async_zero_seq_ok && seq == 0)) return true;
  if (c->seq_err_fn) c->seq_err_fn(c, c->seq_err_ctx, expect, seq);
  else
    rtslib_log(c, c->async ? RTSLIB_LOG_ERROR : RTSLIB_LOG_FATAL, "%s seq mismatch: (%u != %u)",
               c->async ? "async message" : "request/reply", seq, expect);
  if (c->async) c->seq = seq + 1;
  return false;
}

int rtslib_msg_read(rtslib_cookie *c, uint8_t **block, uint32_t *length) {
  uint8_t *buf;
  uint32_t len;
  int err = take_record(c, &buf, &len);
  if (err) {
    *block = nullptr;
    *length = 0;
    return err;
  }
  if (word(buf, 0) != RTS_MAGIC_TLV && word(buf, 0) != RTS_MAGIC_IDR && !raw_seq_ok(c, word(buf, 3))) {
    release(RTSLIB_MEM_MSG, buf);
    return -2;
  }
  *block = buf;
  *length = len;
  return 0;
}

int rtslib_msg_decode(rtslib_cookie *c, const uint8_t *buffer, uint32_t length, void **message) {
  *message = nullptr;
  if (length < 4) {
    rtslib_log(c, RTSLIB_LOG_DEBUG, "Failed to peek magic");
    return EOPNOTSUPP;
  }
  uint32_t magic = word(buffer, 0);
  if (magic == 0) return EOPNOTSUPP;
  if (length < 8) {
    rtslib_log(c, RTSLIB_LOG_DEBUG, "Failed to peek message");
    return EOPNOTSUPP;
  }
  if (magic != RTS_MAGIC_TLV && magic != RTS_MAGIC_IDR) return EOPNOTSUPP;
  bool tlv = magic == RTS_MAGIC_TLV;
  // What the envelope claims is believed only as far as the bytes hold it:
  // no block is sized by a length that did not arrive.
  uint64_t env = word(buffer, 1);
  if (length < RTS_ENVELOPE_SIZE || env > length - RTS_ENVELOPE_SIZE) {
    rtslib_log(c, RTSLIB_LOG_DEBUG, "IDL %s Decode Error %d(%s)", tlv ? "TLV" : "IDR", RTS_DEC_SIZE,
               rts_decode_error_text(RTS_DEC_SIZE));
    return EINVAL;
  }
  size_t size = env > RTS_MSG_MAX ? static_cast<size_t>(env) + 1024 : RTS_MSG_MAX;
  for (;;) {
    auto *block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, size));
    if (!block) {
      rtslib_log(c, RTSLIB_LOG_ERROR, "Allocation Failure");
      return ENOMEM;
    }
    Bump bump{block, size, 0};
    rts_msg_pair pair{};
    int r = tlv ? rts_tlv_decode(&pair, nullptr, buffer, length, Bump::alloc, &bump)
                : rts_idr_decode(&pair, buffer, length, Bump::alloc, &bump);
    if (r == RTS_DEC_NOMEM) {
      rtslib_log(c, RTSLIB_LOG_DEBUG, "Insufficient buffer. Growing the buffer and retrying");
      release(RTSLIB_MEM_MSG, block);
      size += 1024;
      continue;
    }
    if (r <= 0) {
      rtslib_log(c, RTSLIB_LOG_DEBUG, "IDL %s Decode Error %d(%s)", tlv ? "TLV" : "IDR", r,
                 rts_decode_error_text(r));
      release(RTSLIB_MEM_MSG, block);
      return r == RTS_DEC_NOMEM ? ENOMEM : EINVAL;
    }
    if (!pair.record) {  // a type that carries no record here
      release(RTSLIB_MEM_MSG, block);
      return EINVAL;
    }
    static_cast<rts_msg_hdr *>(pair.record)->length = length;
    *message = pair.record;  // the block's first allocation: releasing it frees all
    return 0;
  }
}

int rtslib_msg_read_idl(rtslib_cookie *c, void **message) {
  *message = nullptr;
  uint8_t *buf;
  uint32_t len;
  int err = rtslib_msg_read(c, &buf, &len);
  if (err) return err;
  err = rtslib_msg_decode(c, buf, len, message);
  release(RTSLIB_MEM_MSG, buf);
  return err;
}

int rtslib_msg_read_raw(rtslib_cookie *c, void **message) {
  *message = nullptr;
  ssize_t n = edge().lo_read(edge().lo_ctx, c->fd, c->read_buffer, kReadBuffer);
  if (n < 0) return errno;
  if (static_cast<size_t>(n) > RTS_MSG_MAX) {
    rtslib_log(c, RTSLIB_LOG_FATAL, "msg read too large for rtsock message: %d", static_cast<int>(n));
    return EIO;
  }
  if (static_cast<size_t>(n) < sizeof(rts_raw_hdr)) {
    rtslib_log(c, RTSLIB_LOG_ERROR, "msg read too small for header: %d", static_cast<int>(n));
    return EIO;
  }
  auto *block = static_cast<uint8_t *>(alloc(RTSLIB_MEM_MSG, static_cast<size_t>(n)));
  if (!block) return ENOMEM;
  memcpy(block, c->read_buffer, static_cast<size_t>(n));
  *message = block;
  return 0;
}

void rtslib_msg_free(rtslib_cookie *, void *block) { release(RTSLIB_MEM_MSG, block); }

void rtslib_msg_idl_release(rtslib_cookie *c, void *message) { rtslib_msg_free(c, message); }
