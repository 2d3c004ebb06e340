// krt: a daemon's channel to the kernel's routing state over the route
// socket, on the task kernel. One task, "KRT", owns one asynchronous socket
// (domain 17, served by the route-socket library's lower edge through the
// task kernel's domain table). Notifications are read by the job "krt read",
// at most KRT_READ_BUDGET messages a run, decoded on the job's stack and
// handed to the handler of their type; scans (krt/krt_scan.h) learn what the
// kernel already holds; a write queue (krt/krt_queue.h) pushes a daemon's
// registered databases into the kernel.
//
//   static krt_handler_fn handlers[KRT_HANDLER_COUNT] = {};
//   handlers[RTS_T_BRIDGE_DOMAIN] = bd_change;
//   static krt_config cfg = {.sender_id = 131, .listen_mask = {0, 0x1000},
//                            .async_mode_on = 1, .handlers = handlers, ...};
//   krt_start(&cfg);           // at module init, once per process
//
// A handler gets the decoded record (it begins with rts_msg_hdr) or, for a
// raw message (first word 0), the bytes as they came; the message lives until
// the handler returns. Nothing is dispatched while the process terminates.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtsock/rts_msg.h"
#include "task/task.h"

struct task_job;
struct trace_handle;

extern "C" {

struct krt_scan;

enum : uint32_t {
  KRT_HANDLER_COUNT = 110,        // types 0 to 109
  KRT_READ_BUDGET = 10,           // messages a run of "krt read"
  KRT_RTSM_BUFFER_SIZE = 16384,   // the encoded send buffer
  KRT_DECODE_ARENA = 20480,       // the stack arena of one decode
  KRT_BIG_BUFFER_ROUND = 1024,
  KRT_TRACE_LINE = 2048,
  KRT_RESYNC_END_TYPE = 85,
  KRT_FILTER_RECORD = 756,        // option 10: mask, flag, program pointer, program
  KRT_FILTER_PROGRAM_OFF = 20,
};

// Exit statuses of the channel's fatal start failures.
enum { KRT_EXIT_TASK = 12, KRT_EXIT_SETUP = 22 };

// Async-mode values of the socket option.
enum : uint32_t { KRT_ASYNC_MODE = 1027, KRT_ASYNC_MODE_RESYNC = 1155, KRT_ASYNC_MODE_RESYNC_LISTEN = 1049 };

// Per-type handler: the message (decoded record or raw bytes) and its length
// on the wire.
typedef void (*krt_handler_fn)(task *tp, void *message, uint32_t length);

// One registered database of the write queue: ended by a zero kdd_id.
struct krt_db_desc {
  uint32_t kdd_id;
  void (*kdd_init)(void);
};

struct krt_config {
  uint32_t protocol;
  uint8_t sender_id;
  uint32_t listen_mask[2];
  uint32_t fg_listen_mask[2];
  uint32_t loopback_mask[2];
  uint8_t async_mode_on;
  uint32_t slave_mode;
  task *task;
  const krt_db_desc *db_table;
  krt_handler_fn *handlers;
  krt_handler_fn *fg_handlers;
  const krt_scan *scans;
  uint32_t scan_count;
  const krt_scan *fg_scans;
  uint32_t fg_scan_count;
  const krt_scan *current_scans;
  uint8_t ifstate_resync;
  uint32_t current_scan_count;
  uint8_t multi_thread_queue;
  void (*after_start)(void);
  uint32_t route_veto;
  // A generic-configuration filter text (null for none), and its release.
  const char *(*filter_build)(void);
  void (*filter_release)(const char *text);
};

// ---- Start --------------------------------------------------------------------------
void krt_start(krt_config *config);
void krt_start_foreground(krt_config *config);
void krt_var_init(void);
void krt_task_init(krt_config *config, int foreground);
void krt_async_setup(task *tp, krt_config *config, int foreground);
// The stored configuration, the "KRT" task, the handler table in force.
krt_config *krt_config_get(void);
task *krt_task(void);
krt_handler_fn *krt_handlers(void);
// The terminate method of "KRT": stops scans, deletes the task once no
// queued entry is left.
void krt_terminate(task *tp);
// The change of master engine: listen mask again, unblock, completion hooks.
void krt_lib_re_switchover(task *tp, int state);
// Back to the state before krt_start (tests: each test is its own process,
// but a test may restart the channel).
void krt_reset(void);
// Registers the route-socket lower edge as domain 17 of the task kernel.
void krt_domain_init(void);

// ---- Read path ------------------------------------------------------------------------
void krt_read_ready(task *tp);
void krt_resync_read_ready(task *tp);
void krt_async_read(task_job *jp);
// The job "krt read" while one exists.
task_job *krt_read_job(void);
// 20497 TLV, 20514 IDR, -1 otherwise; decodes into the arena's allocator.
int krt_decode(const void *buffer, uint32_t length, rts_msg_pair *out, void *arena);
void krt_msg_dispatch(task *tp, void *message, uint32_t length);
// True while in the blocking resynchronisation mode.
bool krt_in_resync(void);

// ---- Send path -------------------------------------------------------------------------
extern uint8_t rtsm_buffer[KRT_RTSM_BUFFER_SIZE];
// IDR into rtsm_buffer (or a big buffer), one send on "KRT": 0 or errno.
int krt_send_message(const rts_msg_pair *message);
// The same, then the reply: records that are not the reply (another type,
// sequence number or operation) are dispatched and reading goes on. The
// reply is decoded into arena (size bytes); 0 with *reply set, an errno, or
// -1 when the reply's first word is no known magic.
int krt_send_and_receive(const rts_msg_pair *message, void *arena, size_t size, rts_msg_pair *reply);
// Sends bytes already encoded (len may exceed the static buffer).
int krt_send_raw(const void *bytes, size_t len);
uint32_t krt_seq(void);
// Big-buffer use (tests): allocations made, size of the last.
extern uint32_t krt_big_buffer_count, krt_big_buffer_last;

// ---- Blocking the write side --------------------------------------------------------------
void krt_block(void);
void krt_unblock(void);
void krt_defer(void);
void krt_undefer(void);
bool krt_is_deferred(void);

// ---- Time slice ------------------------------------------------------------------------------
// Jobs of the channel give the thread back after this long (ms of the
// task kernel's clock).
enum : uint32_t { KRT_SLICE_MS = 2 };
void krt_slice_start(void);
bool krt_slice_over(const task_job *jp);

// ---- Trace -----------------------------------------------------------------------------------
// Lines of the channel go to this handle (the application's when null) under
// KRT_TRACE_FLAG.
constexpr uint32_t KRT_TRACE_FLAG = 0x10000000;
void krt_set_trace(trace_handle *th);
trace_handle *krt_trace_handle(void);

}  // extern "C"
