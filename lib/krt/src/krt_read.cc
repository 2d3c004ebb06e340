// The read side: the callback that only schedules "krt read", the job's
// bounded batches, decoding on the stack, the trace line and the dispatch
// through the handler table; the blocking resynchronisation.
#include <cstring>

#include "krt_internal.h"
#include "mem/pool.h"
#include "rtsock/rts_codec.h"
#include "task/io.h"

namespace {

void *arena_alloc(void *ctx, size_t n) { return mem_temp_alloc(n, static_cast<mem_temp *>(ctx)); }

uint32_t word0(const uint8_t *b) {
  uint32_t w;
  memcpy(&w, b, 4);
  return w;
}

void trace_message(uint32_t type, const void *record, bool raw, uint32_t length) {
  if (!trace_enabled(krt_trace_handle(), KRT_TRACE_FLAG, 0)) return;
  char text[KRT_TRACE_LINE];
  if (raw)
    snprintf(text, sizeof text, "raw length %u", length);
  else if (rtslib_format_output(text, sizeof text, record) < 0)
    text[sizeof text - 1] = 0;
  KRT_TRACE(" RTSOCK: %s %s", type < RTS_TYPE_COUNT ? rts_type_table[type].name : "unknown", text);
}

}  // namespace

int krt_decode(const void *buffer, uint32_t length, rts_msg_pair *out, void *arena) {
  if (length < 4) return -1;
  uint32_t magic = word0(static_cast<const uint8_t *>(buffer));
  if (magic == RTS_MAGIC_TLV) return rts_tlv_decode(out, nullptr, buffer, length, arena_alloc, arena);
  if (magic == RTS_MAGIC_IDR) return rts_idr_decode(out, buffer, length, arena_alloc, arena);
  return -1;
}

void krt_handle_received(task *tp, const uint8_t *buf, size_t len) {
  if (len < 4 || word0(buf) != 0) {
    // An envelope: decoded into an arena on this stack, dropped silently
    // when it does not decode.
    alignas(16) uint8_t mem[KRT_DECODE_ARENA];
    mem_temp arena;
    mem_temp_init(&arena, mem, sizeof mem, false);
    rts_msg_pair pair{};
    int r = krt_decode(buf, static_cast<uint32_t>(len), &pair, &arena);
    if (r <= 0 || !pair.record) return;
    trace_message(pair.type, pair.record, false, static_cast<uint32_t>(len));
    krt_msg_dispatch(tp, pair.record, static_cast<uint32_t>(len));
    return;
  }
  trace_message(buf[5], buf, true, static_cast<uint32_t>(len));
  krt_msg_dispatch(tp, const_cast<uint8_t *>(buf), static_cast<uint32_t>(len));
}

void krt_msg_dispatch(task *tp, void *message, uint32_t length) {
  if (task_state & TASKS_TERMINATE) return;
  auto *b = static_cast<const uint8_t *>(message);
  uint8_t type = b[5];  // the header's type byte, decoded record or raw
  if (type >= KRT_HANDLER_COUNT) return;
  krt_handler_fn *h = krt_g.handlers;
  if (h && h[type]) h[type](tp, message, length);
  // The end of the resynchronisation: a raw type 85 whose first field is 0.
  if (krt_g.resync && type == KRT_RESYNC_END_TYPE && word0(b) == 0 && length >= sizeof(rts_raw_hdr) + 4) {
    uint32_t field;
    memcpy(&field, b + sizeof(rts_raw_hdr), 4);
    if (field == 0) {
      krt_g.resync = false;
      task_set_recv(tp, krt_read_ready);
      if (task_set_option(tp, TASKOPTION_NONBLOCKING, 1) < 0) __task_quit__(KRT_EXIT_SETUP);
    }
  }
}

bool krt_in_resync(void) { return krt_g.resync; }
task_job *krt_read_job(void) { return krt_g.read_job; }

void krt_read_ready(task *tp) {
  task_read_disable(tp);
  if (!krt_g.read_job) krt_g.read_job = task_job_create_background(tp, 2, "krt read", krt_async_read, nullptr);
}

void krt_async_read(task_job *jp) {
  task *tp = task_job_get_task(jp);
  for (uint32_t i = 0; i < KRT_READ_BUDGET; i++) {
    size_t n = 0;
    if (task_receive_packet(tp, &n) != 0) {
      task_job_delete(jp);
      krt_g.read_job = nullptr;
      task_read_enable(tp);
      return;
    }
    krt_handle_received(tp, task_get_recv_buffer(), n);
    if (!krt_g.read_job) return;  // a handler stopped the channel
  }
}

void krt_read_all(task *tp) {
  size_t n = 0;
  while (task_receive_packet(tp, &n) == 0) krt_handle_received(tp, task_get_recv_buffer(), n);
}

void krt_resync_read_ready(task *tp) {
  task_read_disable(tp);
  krt_read_all(tp);
  task_read_enable(tp);
}

void krt_read_stop(void) {
  if (krt_g.read_job) task_job_delete(krt_g.read_job);
  krt_g.read_job = nullptr;
}
