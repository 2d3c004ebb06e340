// The send side: IDR into the static buffer (or a big one for a long
// message), one send on "KRT", and the synchronous reply that skips, and
// dispatches, the notifications queued in front of it.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "krt_internal.h"
#include "mem/pool.h"
#include "rtsock/rts_codec.h"
#include "task/io.h"

uint8_t rtsm_buffer[KRT_RTSM_BUFFER_SIZE];
uint32_t krt_big_buffer_count, krt_big_buffer_last;

namespace {

void *arena_alloc(void *ctx, size_t n) { return mem_temp_alloc(n, static_cast<mem_temp *>(ctx)); }

template <class T>
T field(const uint8_t *b, size_t off) {
  T v;
  memcpy(&v, b + off, sizeof v);
  return v;
}

bool matches(uint32_t t, uint32_t s, uint8_t o, uint32_t type, uint32_t seq, uint8_t op) {
  return t == type && (!seq || s == seq) && (op == KRT_ANY_OP || o == op);
}

}  // namespace

uint32_t krt_seq(void) { return ++krt_g.seq; }

uint8_t *krt_encode(const rts_msg_pair *message, uint32_t *length) {
  int need = rts_idr_encode(message, nullptr, 0);
  if (need <= 0) return nullptr;
  uint32_t msgsize = static_cast<uint32_t>(need);
  uint32_t rtsm_buffer_size;
  uint8_t *buf = krt_buffer_for(msgsize, &rtsm_buffer_size);
  task_assert(msgsize <= rtsm_buffer_size);
  int n = rts_idr_encode(message, buf, rtsm_buffer_size);
  if (n <= 0) {
    krt_big_free(buf);
    return nullptr;
  }
  *length = static_cast<uint32_t>(n);
  return buf;
}

uint8_t *krt_buffer_for(uint32_t length, uint32_t *size) {
  *size = KRT_RTSM_BUFFER_SIZE;
  if (length <= KRT_RTSM_BUFFER_SIZE) return rtsm_buffer;
  uint32_t rtsm_buffer_size = (length + KRT_BIG_BUFFER_ROUND - 1) / KRT_BIG_BUFFER_ROUND * KRT_BIG_BUFFER_ROUND;
  auto *big_rtsm_buffer = static_cast<uint8_t *>(malloc(rtsm_buffer_size));
  task_assert(big_rtsm_buffer);
  krt_big_buffer_count++;
  krt_big_buffer_last = rtsm_buffer_size;
  *size = rtsm_buffer_size;
  return big_rtsm_buffer;
}

void krt_big_free(uint8_t *buf) {
  if (buf && buf != rtsm_buffer) free(buf);
}

int krt_send_raw(const void *bytes, size_t len) {
  if (!krt_g.tp) return ENOTCONN;
  ssize_t n = task_send_packet(krt_g.tp, bytes, len, false, nullptr);
  return n < 0 ? errno : 0;
}

int krt_send_message(const rts_msg_pair *message) {
  uint32_t len;
  uint8_t *buf = krt_encode(message, &len);
  if (!buf) return EINVAL;
  int err = krt_send_raw(buf, len);
  krt_big_free(buf);
  return err;
}

// The header fields of a record: type, sequence number, operation.
static bool header_of(const uint8_t *buf, size_t len, const rts_msg_pair *pair, uint32_t *type, uint32_t *seq,
                      uint8_t *op) {
  if (pair) {
    auto *h = static_cast<const rts_msg_hdr *>(pair->record);
    *type = pair->type;
    *seq = h->seq;
    *op = h->operation;
    return true;
  }
  if (len < sizeof(rts_raw_hdr)) return false;
  *type = buf[5];
  *op = buf[6];
  *seq = field<uint32_t>(buf, 12);
  return true;
}

int krt_receive_reply(task *tp, uint32_t type, uint32_t seq, uint8_t op, void *arena_mem, size_t arena_size,
                      rts_msg_pair *reply, size_t *length, int *decode_res) {
  for (;;) {
    size_t n = 0;
    int r = task_receive_packet(tp, &n);
    if (r != 0) return r > 0 ? r : EIO;
    const uint8_t *buf = task_get_recv_buffer();
    if (length) *length = n;
    uint32_t w0 = n >= 4 ? field<uint32_t>(buf, 0) : 1;
    uint32_t t, s;
    uint8_t o;
    if (w0 == 0) {
      if (header_of(buf, n, nullptr, &t, &s, &o) && matches(t, s, o, type, seq, op)) {
        reply->type = t;
        reply->record = const_cast<uint8_t *>(buf);
        return 0;
      }
      krt_handle_received(tp, buf, n);
      continue;
    }
    if (w0 != RTS_MAGIC_TLV && w0 != RTS_MAGIC_IDR) return KRT_REPLY_MAGIC;
    mem_temp arena;
    mem_temp_init(&arena, arena_mem, arena_size, false);
    rts_msg_pair pair{};
    int d = w0 == RTS_MAGIC_TLV ? rts_tlv_decode(&pair, nullptr, buf, static_cast<uint32_t>(n), arena_alloc, &arena)
                                : rts_idr_decode(&pair, buf, static_cast<uint32_t>(n), arena_alloc, &arena);
    if (d <= 0 || !pair.record) {
      // Not readable as any message: it cannot be told from the reply.
      if (decode_res) *decode_res = d;
      return KRT_REPLY_UNDECODED;
    }
    header_of(buf, n, &pair, &t, &s, &o);
    if (matches(t, s, o, type, seq, op)) {
      *reply = pair;
      return 0;
    }
    krt_msg_dispatch(tp, pair.record, static_cast<uint32_t>(n));
  }
}

int krt_send_and_receive(const rts_msg_pair *message, void *arena, size_t size, rts_msg_pair *reply) {
  auto *h = static_cast<const rts_msg_hdr *>(message->record);
  int err = krt_send_message(message);
  if (err) return err;
  int r = krt_receive_reply(krt_g.tp, message->type, h->seq, h->operation, arena, size, reply, nullptr, nullptr);
  return r == KRT_REPLY_UNDECODED ? EPROTO : r;
}
