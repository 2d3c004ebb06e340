// IPC connections, the server side: a listening socket (ipcconn_server) and
// one session (ipcconn_session) per accepted peer. The server holds every
// limit and callback once for all its sessions: buffer size, read budget,
// the thresholds by priority and of back-pressure, the keep-alive interval.
// The wire, the send path with its queue and the guard against closing from
// inside a callback are the client's (ipc/ipcconn.h).
//
// A session is "initializing" until the peer's identification message
// (subtype 0xFFFE) arrives; only then does the application hear of it
// (event 0, with the peer's app-id and pid), and event 1 when it goes. An
// initializing session gives no events at all. In interoperate mode no
// identification comes: event 0 is given at accept.
//
//   ipcconn_server_params p{};
//   p.ptask = my_task;                 // or p.ev_context = ev
//   p.path = "/var/run/my.sock";
//   p.event_cb = on_session; p.msg_cb = on_message;
//   p.malloc_fn = malloc; p.free_fn = free;
//   ipcconn_server *srv = ipcconn_uds_server_create(&p);
//   ...
//   ipcconn_server_send(session, subtype, data, n, IPCCONN_MSG_PRIORITY_LOW);
//   ...
//   ipcconn_server_shutdown(srv);
//
// Choices of this implementation: accepted sockets are made non-blocking
// (Linux does not inherit the flag); the keep-alive interval, when given,
// turns on the kernel's TCP keep-alive probes at that interval for TCP
// sessions and, for every session, closes one whose peer has taken nothing
// of a waiting queue for three intervals; the datagram session only
// receives (a send on it is -101), and a datagram's bytes that do not make
// whole messages are dropped with it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "ipc/ev.h"
#include "ipc/ipc_pipe.h"
#include "ipc/ipcconn.h"

struct task;
struct task_timer;
struct task_job;

extern "C" {

struct ipcconn_server;
struct ipcconn_session;

// event: 0 ready (identified), 1 gone, 3 back-pressure on or off.
typedef void (*ipcconn_session_event_fn)(ipcconn_session *session, uint32_t peer_app_id, uint32_t peer_pid,
                                         int event, void *cookie);
// A non-zero result ends the session.
typedef int (*ipcconn_session_msg_fn)(ipcconn_session *session, uint8_t *space, uint32_t overhead, ipc_msg *msg,
                                      void *cookie);

enum { IPCCONN_BACKLOG_MAX = 128 };
// Sessions accepted in one pass of the listener, so that a flood of
// connects does not hold the loop.
enum { IPCCONN_ACCEPT_BUDGET = 64 };
// Keep-alive intervals a stuck queue may last before its session is closed.
enum { IPCCONN_KEEPALIVE_STALLS = 3 };

struct ipcconn_server_params {
  __evContext ev_context;  // exactly one of ev_context.opaque and ptask
  task *ptask;
  ipcconn_malloc_fn malloc_fn;  // both required
  ipcconn_free_fn free_fn;
  const char *path;         // Unix-domain servers: the socket's path (logical, under the root)
  in_addr_t tcp_addr;       // TCP servers: the address, network order (INADDR_ANY for all)
  uint16_t tcp_port;        // TCP and TNP servers: host order
  uint32_t rtb_index;       // TCP servers: the routing table (0: the default instance)
  ipcconn_session_event_fn event_cb;  // both required
  ipcconn_session_msg_fn msg_cb;
  void *cookie;
  uint32_t flags;           // IPCCONN_FLAG_INTEROPERATE_MODE
  uint16_t interop_type;    // the message type in interoperate mode
  uint32_t app_id, pid;
  uint32_t bufsize;         // 0: 0xFFFF; at most 0xFFFF
  uint32_t overhead;        // bytes kept free ahead of each read for the application
  uint32_t backlog;         // 0 or over 128: 128
  uint32_t keepalive_sec;   // 0: none
  uint32_t read_budget;     // 0: 1000
  uint32_t threshold_high, threshold_medium, threshold_low, threshold_backpressure;
};

struct ipcconn_session_counters {
  uint64_t sent_immediately, sent_from_queue, not_sent, queue_stored, queue_failed;
  uint32_t current_depth;
  uint64_t total_delay_us;
  uint64_t received_msgs, read_events;
};

struct ipcconn_session {
  ipcconn_session *next, *prev;
  __evContext psession_ev_context;
  task *psession_task;  // owns the socket under the task kernel
  __evFileID psession_write_id, psession_read_id;
  __evTimerID psession_timer_id;
  task_timer *psession_timer;
  int32_t psession_socket;
  sockaddr_storage local_addr;  // 128 bytes
  sockaddr_storage peer_addr;
  socklen_t local_len, peer_len;
  uint32_t psession_flags;
  ipc_pipe *psession_pipe;
  ipcconn_server *server;
  uint32_t peer_app_id, peer_pid, peer_instance_id;
  ipcconn_pending *pending_head, *pending_tail;
  uint8_t backpressure;
  ipcconn_session_counters counters;
  void *cookie;  // the application's, the server's cookie until set
  uint8_t read_active, write_active, timer_active;
  uint8_t stalls;  // keep-alive ticks with a queue that did not move
  uint64_t stall_mark;  // sent_from_queue at the last tick
  task_job *psession_job;  // the delayed free
  task_job *psession_redispatch;  // messages already read, after reading is turned on again
  // What the record needs after its server may be gone (a delayed free).
  uint32_t own_app_id;
  ipcconn_free_fn psession_free;
};

struct ipcconn_server {
  ipcconn_session *sessions;
  __evContext ev_context;
  task *ptask;
  __evFileID server_event_id;
  __evConnID listen_conn_id;
  uint32_t ipcconn_flags;
  uint32_t app_id, pid;
  uint16_t interop_type;
  ipcconn_malloc_fn malloc_fn;
  ipcconn_free_fn free_fn;
  uint32_t bufsize;
  uint32_t overhead;
  int32_t server_socket;
  ipcconn_session_event_fn event_cb;
  ipcconn_session_msg_fn msg_cb;
  void *cookie;
  uint32_t keepalive_sec;
  uint32_t read_budget;
  uint32_t threshold_high, threshold_medium, threshold_low, threshold_backpressure;
  ipcconn_session *dgram_session;
  task *server_task;  // the listener's task under the task kernel
  uint8_t listen_active;
  uint8_t addr_kind;  // IPCCONN_ADDR_UNIX or IPCCONN_ADDR_TCP
  uint32_t rtb_index;
  uint32_t backlog;
  sockaddr_storage addr;
  socklen_t addr_len;
  uint32_t session_count;
};

// Each returns the listening server, or null after an error line: a wrong
// choice of event system, a missing callback or allocator, a bad path (over
// 107 bytes after the root), or a socket that could not be set up.
ipcconn_server *ipcconn_uds_server_create(ipcconn_server_params *params);
// A datagram server: one session, the "dgram session", on the bound socket;
// every datagram carries whole messages for it.
ipcconn_server *ipcconn_uds_dgram_server_create(ipcconn_server_params *params);
// Listens on tcp_addr:tcp_port; a non-zero rtb_index binds the socket to
// that table's VRF device.
ipcconn_server *ipcconn_tcp_server_create(ipcconn_server_params *params);
// Needs IPCCONN_FLAG_INTEROPERATE_MODE. The TNP family does not exist on
// Linux: always null, after the failure line.
ipcconn_server *ipcconn_tnp_server_create(ipcconn_server_params *params);
// Closes every session (each gives event 1), then the socket; the socket's
// file is removed.
void ipcconn_server_shutdown(ipcconn_server *server);

// Ends the session (event 1 when it was identified); from inside one of its
// callbacks the record is freed once the callback has returned.
void ipcconn_session_close(ipcconn_session *session);
// The client's send and its return values (ipcconn_client_send), with the
// server's thresholds. A low-priority threshold of 0 refuses every
// low-priority message that has to wait; high and medium 0 mean no limit.
int ipcconn_server_send(ipcconn_session *session, uint32_t subtype, const void *buf, uint32_t length, int priority);
int ipcconn_server_send_external(ipcconn_session *session, uint32_t subtype, void *buf, uint32_t length,
                                 int priority);
// Read-ready on and off: 0, or -1 after an error line.
int ipcconn_session_enable_msg_callbacks(ipcconn_session *session);
int ipcconn_session_disable_msg_callbacks(ipcconn_session *session);
void *ipcconn_session_get_callback_cookie(const ipcconn_session *session);
void ipcconn_session_set_callback_cookie(ipcconn_session *session, void *cookie);
// The path the peer's socket is bound to, into buffer (len bytes at least 2):
// 0, or -1 after an error line (no path, a peer without a name, not Unix).
int ipcconn_uds_session_get_peer_file_path(ipcconn_session *session, char *buffer, int len);

// What a TCP session's peer is, from its address and the server's table.
enum { IPCCONN_PEER_UNKNOWN = -1, IPCCONN_PEER_LOCAL_ENGINE = 0, IPCCONN_PEER_MASTER_ENGINE = 1,
       IPCCONN_PEER_OTHER_ENGINE = 2 };
struct ipcconn_peer_info {
  int32_t kind;
  int32_t engine_id;  // -1 when unknown
  int32_t slot_id;    // -1 when unknown
};
// 0, or -1 after an error line (not TCP, an unknown table, no peer address).
int ipcconn_session_get_peer_info(ipcconn_session *session, ipcconn_peer_info *info);

// The event systems' glue reports here.
void ipcconn_server_accept(ipcconn_server *server, int fd, const sockaddr *peer, socklen_t peer_len);
void ipcconn_server_dispatch(ipcconn_session *session);
void ipcconn_session_write_ready(ipcconn_session *session);
void ipcconn_session_keepalive(ipcconn_session *session);

}  // extern "C"
