// IPC connections: a message connection between two daemons on a stream
// socket, over a message pipe (ipc/ipc_pipe.h). This header has the client
// (the server is ipc/ipcconn_server.h): an asynchronous Unix-domain or TCP
// connect on either event system (the event library of ipc/ev.h or the task
// kernel, exactly one given), retried every 2 seconds up to a limit, or a
// synchronous one on a blocking socket with no event system; the identification
// message the client sends first (type 0x417, subtype 0xFFFE, 12 bytes:
// app-id, pid, instance-id as 32-bit numbers in host order); sending with a
// queue behind a full socket, thresholds by priority and back-pressure
// (event 3 at the threshold, again when the depth falls 5 % below it).
//
//   ipcconn_client_params p{};
//   p.ptask = my_task;                       // or p.ev_context = ev
//   p.peer_path = "/var/run/peer.sock";
//   p.event_cb = on_event;                   // 0 connected, 1 closed, 2 failed
//   p.app_id = 7; p.pid = getpid(); p.max_retries = 10;
//   ipcconn_client *c = ipcconn_uds_client_connect(&p);
//   ...
//   ipcconn_client_close(c);
//
// Lines go to the event log at LOG_ERR (the trace level 0xFF03) and
// LOG_DEBUG (0xFF07); ipcconn_set_log_hook takes them instead.
#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstdint>

#include "ipc/ev.h"
#include "ipc/ipc_pipe.h"

struct task;
struct task_timer;
struct task_job;

extern "C" {

enum : uint16_t { IPCCONN_MSG_TYPE = 0x417, IPCCONN_SUBTYPE_IDENT = 0xFFFE };
enum { IPCCONN_IDENT_LEN = 12 };

// pclient_flags
enum : uint32_t {
  IPCCONN_FLAG_DEAD = 0x00000001,
  IPCCONN_FLAG_CONNECT_PENDING = 0x00000004,
  IPCCONN_FLAG_INITIALIZING = 0x00000008,
  IPCCONN_FLAG_NONBLOCKING = 0x00000010,
  IPCCONN_FLAG_STREAM = 0x00000020,
  IPCCONN_FLAG_PROCESSING_API = 0x00000040,
  IPCCONN_FLAG_INTEROPERATE_MODE = 0x08000000,
  IPCCONN_FLAG_EXTENDED_READ = 0x10000000,
};

// Events given to the application's event callback.
enum { IPCCONN_EVENT_CONNECTED = 0, IPCCONN_EVENT_CLOSED = 1, IPCCONN_EVENT_FAILED = 2, IPCCONN_EVENT_BACKPRESSURE = 3 };

// Status values returned to the application.
enum {
  IPCCONN_ERR_INVALID = -101,
  IPCCONN_ERR_NOMEM = -102,
  IPCCONN_ERR_PIPE = -103,
  IPCCONN_ERR_THRESHOLD = -104,
  IPCCONN_ERR_CLOSED = -105,
  IPCCONN_ERR_FAILED = -106,
  IPCCONN_ERR_SOCKET = -107,
  IPCCONN_ERR_BACKPRESSURE = -201,
  IPCCONN_ERR_INCOMPLETE = -301,
};

enum { IPCCONN_ADDR_UNIX = 1, IPCCONN_ADDR_TCP = 2 };
// The retry limits there are; any other is taken as IPCCONN_RETRY_FOREVER.
enum { IPCCONN_RETRY_FOREVER = 1000, IPCCONN_RETRY_INTERVAL_SEC = 2 };
enum { IPCCONN_BUFSIZE_DEFAULT = 0xFFFF, IPCCONN_READ_BUDGET_DEFAULT = 1000 };

struct ipcconn_client;
struct ipcconn_server;
struct ipcconn_session;
typedef void (*ipcconn_client_event_fn)(ipcconn_client *clnt, int event, void *cookie);
typedef int (*ipcconn_client_msg_fn)(ipcconn_client *clnt, uint8_t *space, uint32_t overhead, ipc_msg *msg,
                                     void *cookie);
typedef void *(*ipcconn_malloc_fn)(size_t size);
typedef void (*ipcconn_free_fn)(void *ptr);

struct ipcconn_client_params {
  __evContext ev_context;  // exactly one of ev_context.opaque and ptask
  task *ptask;
  ipcconn_malloc_fn malloc_fn;  // null: malloc
  ipcconn_free_fn free_fn;      // null: free
  const char *local_path;       // optional: bound (0777) before connecting
  const char *peer_path;        // Unix-domain clients
  in_addr_t tcp_addr;           // TCP clients: the server's address, network order
  uint16_t tcp_port;            // TCP clients: host order
  ipcconn_client_event_fn event_cb;
  ipcconn_client_msg_fn msg_cb;
  void *cookie;
  uint32_t threshold_high, threshold_medium, threshold_low, threshold_backpressure;
  uint32_t app_id, pid, instance_id;
  uint16_t max_retries;  // 0, 2, 10 or 1000 (no limit); others mean 1000
  uint32_t read_budget;  // 0: 1000
  uint32_t bufsize;      // 0: 0xFFFF; at most 0xFFFF
  uint32_t rcv_timeout;  // whole seconds, 0: none
  uint32_t flags;        // IPCCONN_FLAG_INTEROPERATE_MODE
  uint16_t interop_type; // the message type in interoperate mode
};

enum { IPCCONN_MSG_PRIORITY_LOW = 0, IPCCONN_MSG_PRIORITY_MEDIUM = 1, IPCCONN_MSG_PRIORITY_HIGH = 2 };
// The drain loop's bound per write-ready event.
enum { IPCCONN_DRAIN_BUDGET = 1000 };

// A message waiting to be sent; the payload follows unless the message is
// external (the application's buffer) or the pipe already holds it.
struct ipcconn_pending {
  ipcconn_pending *next, *prev;
  uint32_t subtype;
  uint32_t length;
  uint64_t timestamp_us;  // when stored, on the kernel's clock
  uint8_t partially_written;
  uint8_t external;
  void *external_buf;
};

struct ipcconn_client_counters {
  uint64_t connects, connect_failures, retries;
  uint64_t sent_immediately, sent_from_queue, not_sent, queue_stored, queue_failed;
  uint32_t current_depth;
  uint64_t total_delay_us;
};

struct ipcconn_client {
  __evContext pclient_ev_context;
  task *pclient_task;          // the application's task (task kernel)
  task *pclient_io_task;       // owns the socket under the task kernel
  pthread_t pclient_thread_id;
  __evFileID pclient_read_id, pclient_write_id;
  __evTimerID pclient_timer_id;
  __evConnID pclient_connect_id;
  task_timer *pclient_timer;   // the retry timer under the task kernel
  task_job *pclient_job;       // a connect's report or the delayed free
  task_job *pclient_redispatch;  // messages already read, after reading is turned on again
  uint32_t pclient_flags;
  uint8_t pclient_read_active, pclient_write_active, pclient_timer_active, pclient_connect_active;
  uint32_t app_id, pid, instance_id;
  uint16_t retry_count, max_retries;
  uint32_t read_budget;
  uint32_t rcv_timeout;
  uint32_t bufsize;
  uint16_t interop_type;
  int32_t pclient_socket;
  ipc_pipe *pclient_pipe;
  ipc_pipe *pclient_retired_pipe;  // dropped inside a callback: freed once it returns
  sockaddr_un local_addr, peer_addr;
  sockaddr_in tcp_peer;  // the peer of a TCP client
  uint8_t has_local;
  uint8_t addr_kind;
  uint8_t sync;  // a synchronous client: blocking socket, no event system
  ipcconn_client_event_fn event_cb;
  ipcconn_client_msg_fn msg_cb;
  ipcconn_malloc_fn malloc_fn;
  ipcconn_free_fn free_fn;
  void *cookie;
  uint32_t threshold_high, threshold_medium, threshold_low, threshold_backpressure;
  ipcconn_pending *pending_head, *pending_tail;
  uint8_t backpressure;
  ipcconn_client_counters counters;
};

// The event system's operations for the client's connect. One instance per
// event system; the client picks by which of ev_context and ptask it got.
struct ipcconn_func {
  int (*socket)(ipcconn_client *clnt, int domain, int type);
  // 0 when the outcome will reach ipcconn_client_connector in a later pass;
  // -1 with errno when the connect failed at once.
  int (*connect_start)(ipcconn_client *clnt);
  int (*set_client_read_ready)(ipcconn_client *clnt);
  int (*clear_client_read_ready)(ipcconn_client *clnt);
  int (*set_client_write_ready)(ipcconn_client *clnt);
  int (*clear_client_write_ready)(ipcconn_client *clnt);
  bool (*client_is_connect_retry_active)(const ipcconn_client *clnt);
  bool (*client_is_write_ready_active)(const ipcconn_client *clnt);
  int (*timer_start)(ipcconn_client *clnt, uint32_t seconds);
  void (*timer_stop)(ipcconn_client *clnt);
  // Frees the client (with its event-system state) in a later pass.
  int (*schedule_delayed_free)(ipcconn_client *clnt);
  // Drops what the event system holds for the client (at close).
  void (*release)(ipcconn_client *clnt);

  // The server's side: listen() and watch the socket for connections
  // (accepted ones reach ipcconn_server_accept), or for a datagram server
  // its session's reads; and what the event system holds for the server.
  int (*listen)(ipcconn_server *server, int backlog);
  void (*server_release)(ipcconn_server *server);
  // A session's registration with the event system, before any of the rest.
  int (*session_attach)(ipcconn_session *session);
  int (*set_session_read_ready)(ipcconn_session *session);
  int (*clear_session_read_ready)(ipcconn_session *session);
  int (*set_session_write_ready)(ipcconn_session *session);
  int (*clear_session_write_ready)(ipcconn_session *session);
  bool (*server_is_write_ready_active)(const ipcconn_session *session);
  // The keep-alive tick, every seconds until the session goes.
  int (*session_timer_start)(ipcconn_session *session, uint32_t seconds);
  int (*session_schedule_delayed_free)(ipcconn_session *session);
  void (*session_release)(ipcconn_session *session);
};
extern const ipcconn_func ipcconn_func_ev;
extern const ipcconn_func ipcconn_func_task;
// The synchronous client's: blocking calls, no registrations, no retry timer.
extern const ipcconn_func ipcconn_func_sync;
// The table the client runs on.
const ipcconn_func *ipcconn_client_func(const ipcconn_client *clnt);
const ipcconn_func *ipcconn_server_func(const ipcconn_server *server);

// An asynchronous Unix-domain client (non-blocking stream socket). Null,
// after an error line, for a wrong choice of event system, a missing or too
// long path (over 107 bytes after the root), no memory, or a connect that
// failed at once with no retry left.
ipcconn_client *ipcconn_uds_client_connect(const ipcconn_client_params *params);
// The same over TCP to tcp_addr:tcp_port (TCP_NODELAY set: messages are
// sent as they come).
ipcconn_client *ipcconn_tcp_client_create(const ipcconn_client_params *params);

// Synchronous clients: a blocking socket and no event system (ev_context and
// ptask are not used, nor the callbacks). connect() is tried up to the retry
// limit + 1 times in a row, without waiting between rounds (1000: 1001
// tries); the identification message goes before the call returns. Null
// when no try succeeded.
ipcconn_client *ipcconn_uds_client_connect_sync(const ipcconn_client_params *params);
ipcconn_client *ipcconn_tcp_client_connect(const ipcconn_client_params *params);
// Sends the whole message before returning: 0; -101 as for
// ipcconn_client_send; -103 when the socket failed (errno says why).
int ipcconn_client_send_sync(ipcconn_client *clnt, uint32_t subtype, const void *buf, uint32_t length);
// Waits for the next message (at most rcv_timeout seconds when one was
// given): its payload length, with *msg in the client's read buffer until
// the next call; messages of another type and error reports are skipped as
// the asynchronous client skips them. -101 not a synchronous client or
// closed; -105 the peer closed; -106 a read failed (errno EAGAIN: the time-out).
int ipcconn_client_recv_sync(ipcconn_client *clnt, ipc_msg **msg);

// Read-ready on and off for an asynchronous client: 0, or -1 after an error line.
int ipcconn_client_enable_msg_callbacks(ipcconn_client *clnt);
int ipcconn_client_disable_msg_callbacks(ipcconn_client *clnt);

// Closes the client; from inside one of its callbacks the record is freed
// once the callback has returned. Events stop at once.
void ipcconn_client_close(ipcconn_client *clnt);
void *ipcconn_client_get_callback_cookie(const ipcconn_client *clnt);
// Drops the connection (queued messages too), gives event 1 and retries;
// event 2 and close when no retry is left.
void ipcconn_client_restart(ipcconn_client *clnt);

// Sends a message of this subtype, or queues it (while connecting, behind
// others, or when the socket takes none of it). 0 when sent or queued;
// -101 closed, not connected, from another thread or too long (length + 16
// over the buffer size); -102 no memory to queue; -103 the pipe still held
// a message or a terminal error (the client then restarts); -104 refused by
// the threshold of its priority (non-zero: the depth at which the queue
// refuses); -201 queued, and back-pressure began while the application was
// inside a call of ours, so event 3 could not be given.
int ipcconn_client_send(ipcconn_client *clnt, uint32_t subtype, const void *buf, uint32_t length, int priority);
// The same with buf handed over: the library frees it with the client's
// free function once it has gone (or is dropped), and never on a non-zero
// return other than -201.
int ipcconn_client_send_external(ipcconn_client *clnt, uint32_t subtype, void *buf, uint32_t length, int priority);

// The event systems' glue reports a connect's outcome here.
void ipcconn_client_connector(ipcconn_client *clnt, bool success);
// The retry timer's work, and the write-ready work (the drain of the queue).
void ipcconn_client_retry(ipcconn_client *clnt);
void ipcconn_client_write_ready(ipcconn_client *clnt);

// Where the library's lines go (null: the event log).
typedef void (*ipcconn_log_fn)(int level, const char *line);
void ipcconn_set_log_hook(ipcconn_log_fn hook);
enum { IPCCONN_LOG_ERROR = 0xFF03, IPCCONN_LOG_DEBUG = 0xFF07 };

}  // extern "C"
