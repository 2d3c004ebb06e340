// What the connection library's files share.
#pragma once

#include "ipc/ipcconn.h"
#include "ipc/ipcconn_server.h"

void ipcconn_log(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The library's assertions are soft: the line is logged and the code goes on.
bool ipcconn_insist(bool ok, const char *expr, const char *file, const char *func, int line);
#define IPCCONN_INSIST(expr) ipcconn_insist(static_cast<bool>(expr), #expr, __FILE__, __func__, __LINE__)

extern "C" {
// Frees the record; the client must be dead.
void ipcconn_client_destroy(ipcconn_client *clnt);
// The read-ready work.
void ipcconn_client_dispatch(ipcconn_client *clnt);
// Frees the record; the session must be dead and unlinked.
void ipcconn_session_destroy(ipcconn_session *session);
}

// The event to the application, or, while it is inside a call of ours, the
// event's number (-201, -105, -106) returned instead.
int ipcconn_give_event(ipcconn_client *clnt, int event);
int ipcconn_session_give_event(ipcconn_session *session, int event);
int ipcconn_map_event_to_errno(int event);
// Whether a message fits the client's buffer (with the pipe's 16 bytes);
// false after the line saying it does not.
bool ipcconn_client_length_ok(const ipcconn_client *clnt, const void *buf, uint32_t length);
// Drops every queued message (external buffers go back to the application).
void ipcconn_client_queue_free(ipcconn_client *clnt);
void ipcconn_session_queue_free(ipcconn_session *session);

// ---- Shared by both ends ---------------------------------------------------------
// SO_SNDBUF and SO_RCVBUF of 64 KB, O_NONBLOCK, SO_RCVTIMEO when non-zero:
// 0, or -107 after the line naming the option.
int ipcconn_common_socket_setup(int s, bool nonblocking, uint32_t rcv_timeout);
// A logical path as a Unix address under the root; false when missing or too long.
bool ipcconn_unix_addr(const char *logical, sockaddr_un *out);
// What a reader does with a message: 0 deliver it; 1 skip it (an error
// report, logged); -1 drop the rest of the read buffer (another type,
// logged). kind names the record in the line ("ipcconn_client").
int ipcconn_screen_message(const ipc_msg *m, bool check_type, uint16_t want_type, uint32_t app_id, const void *who,
                           const char *kind);

// ---- The client's connect, shared by its asynchronous and synchronous forms --------
// A record from the parameters (no socket yet), or null; flags are the
// client's own bits besides the caller's interoperate mode.
ipcconn_client *ipcconn_client_new(const ipcconn_client_params *p, uint32_t flags, uint8_t addr_kind);
// A socket of the client's address kind with its options and pipe: 0, or
// -107 with everything undone.
int ipcconn_client_socket_open(ipcconn_client *clnt);
// Back to "created": no socket, no pipe, no registration, no local file.
void ipcconn_client_clear_state(ipcconn_client *clnt);
// The identification into the pipe and out: 0, or -1 with errno.
int ipcconn_client_send_identification(ipcconn_client *clnt);
// The peer's address and its length, by address kind.
const sockaddr *ipcconn_client_peer(const ipcconn_client *clnt);
socklen_t ipcconn_client_peer_len(const ipcconn_client *clnt);

// ---- The pending queue both ends keep ----------------------------------------------
// A record for the message; the payload is copied unless external or partly
// written (the pipe holds its rest). Null when memory fails.
ipcconn_pending *ipcconn_pending_new(ipcconn_malloc_fn m, uint32_t subtype, const void *buf, uint32_t length,
                                     bool external, bool partial);
void ipcconn_pending_append(ipcconn_pending *&head, ipcconn_pending *&tail, ipcconn_pending *r);
void ipcconn_pending_unlink(ipcconn_pending *&head, ipcconn_pending *&tail, ipcconn_pending *r);
// Frees the record and, when it was handed over, the application's buffer.
void ipcconn_pending_release(ipcconn_free_fn f, ipcconn_pending *r);
// What to send from: the application's buffer or the copy.
const void *ipcconn_pending_data(ipcconn_pending *r);
// Frees with the application's function, or free().
void ipcconn_app_free(ipcconn_free_fn f, void *p);
// Header and payload into the pipe and out: 0, IPC_PIPE_PARTIAL, or -1 with errno.
int ipcconn_msg_send(ipc_pipe *p, uint16_t type, uint32_t subtype, const void *buf, uint32_t length, bool external);
// Failures of a send that keep the message for write-ready.
bool ipcconn_send_retryable(int err);
// Read errors that are a normal end of the connection.
bool ipcconn_terminal_read_error(int err);
// The kernel's clock in microseconds, as cached, and read afresh (the time
// hook) to bound a loop.
uint64_t ipcconn_now_us();
uint64_t ipcconn_clock_us();
// The bound of one dispatch or drain, in microseconds.
enum { IPCCONN_LOOP_BOUND_US = 10000 };

// ---- The server's glue on each event system (ipcconn_server_func.cc) ---------------
#define IPCCONN_SERVER_OPS(ns)                                            \
  namespace ns {                                                          \
  int listen(ipcconn_server *srv, int backlog);                           \
  void server_release(ipcconn_server *srv);                               \
  int session_attach(ipcconn_session *s);                                 \
  int set_read(ipcconn_session *s);                                       \
  int clear_read(ipcconn_session *s);                                     \
  int set_write(ipcconn_session *s);                                      \
  int clear_write(ipcconn_session *s);                                    \
  int timer_start(ipcconn_session *s, uint32_t seconds);                  \
  int delayed_free(ipcconn_session *s);                                   \
  void session_release(ipcconn_session *s);                               \
  }
IPCCONN_SERVER_OPS(ipcconn_srv_ev)
IPCCONN_SERVER_OPS(ipcconn_srv_task)
#undef IPCCONN_SERVER_OPS
bool ipcconn_session_write_active(const ipcconn_session *s);
