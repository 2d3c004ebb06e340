// What the channel's source files share.
#pragma once

#include "htimer/utime.h"
#include "krt/krt.h"
#include "task/job.h"
#include "trace/trace.h"

struct task_timer;

// The route socket's domain number, served through the task kernel's table.
constexpr int KRT_DOMAIN = 17;

struct krt_state {
  krt_config *config;
  krt_handler_fn *handlers;
  task *tp;
  task_job *read_job;
  bool resync;
  uint32_t seq;
  int block_count;
  bool deferred;
  task_utime slice_start;
  trace_handle *trace;
};
extern krt_state krt_g;

#define KRT_TRACE(fmt, ...) ZTRACE(krt_trace_handle(), KRT_TRACE_FLAG, fmt __VA_OPT__(, ) __VA_ARGS__)

// krt_read.cc: one received message through decode, trace and dispatch.
void krt_handle_received(task *tp, const uint8_t *buf, size_t len);
// Reads on until the socket is drained (the blocking resynchronisation).
void krt_read_all(task *tp);
void krt_read_stop(void);

// krt_send.cc: the bytes of a message, in rtsm_buffer or a big buffer the
// caller frees with krt_big_free. Null when the encoder fails.
uint8_t *krt_encode(const rts_msg_pair *message, uint32_t *length);
void krt_big_free(uint8_t *buf);
// rtsm_buffer, or a big buffer of length rounded up to 1024 ("big_rtsm_buffer"
// is the fault when it cannot be had); *size is its size.
uint8_t *krt_buffer_for(uint32_t length, uint32_t *size);
// Receives until the reply to (type, seq, op) comes; others are dispatched.
// 0 with *reply (decoded into the arena, or the raw bytes in the receive
// buffer) and *length, the receive's errno, KRT_REPLY_MAGIC for a record of
// no known magic, KRT_REPLY_UNDECODED (with *decode_res) for one that does
// not decode.
// A seq of 0 and an op of KRT_ANY_OP match any.
enum { KRT_REPLY_MAGIC = -1, KRT_REPLY_UNDECODED = -2 };
constexpr uint8_t KRT_ANY_OP = 0xff;
int krt_receive_reply(task *tp, uint32_t type, uint32_t seq, uint8_t op, void *arena_mem, size_t arena_size,
                      rts_msg_pair *reply, size_t *length, int *decode_res);

// krt_scan.cc
void krt_scan_stop(task *tp);
void krt_complete_scan_done(void);
void krt_scan_reset(void);

// krt_queue.cc
void krt_queue_start_job(void);
void krt_queue_stop_job(void);
bool krt_queue_empty(void);
void krt_write_cb(task *tp);
void krt_queue_reset(void);
