// The server: the listening socket, accepting sessions, their dispatch with
// the identification message, the keep-alive tick, close and shutdown.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "platform/path.h"
#include "platform/sys.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

void redispatch(task_job *jp);

// A session's pipe may outlive the server (a close inside a callback, then a
// shutdown): it frees through the session.
void *pipe_malloc(void *ctx, size_t n) { return static_cast<ipcconn_session *>(ctx)->server->malloc_fn(n); }
void pipe_free(void *ctx, void *p) { static_cast<ipcconn_session *>(ctx)->psession_free(p); }

bool is_dead(const ipcconn_session *s) { return s->psession_flags & IPCCONN_FLAG_DEAD; }
void *vp(const void *p) { return const_cast<void *>(p); }

// Sessions are always non-blocking: a full socket must queue, not block.
int socket_setup(int s, bool nonblocking) { return ipcconn_common_socket_setup(s, nonblocking, 0); }

const char *own_unix_path(const ipcconn_server *srv) {
  if (srv->addr_kind != IPCCONN_ADDR_UNIX) return nullptr;
  return reinterpret_cast<const sockaddr_un *>(&srv->addr)->sun_path;
}

ipcconn_session *session_new(ipcconn_server *srv, int fd) {
  auto *s = static_cast<ipcconn_session *>(srv->malloc_fn(sizeof(ipcconn_session)));
  if (!s) return nullptr;
  memset(s, 0, sizeof *s);
  s->psession_ev_context = srv->ev_context;
  s->psession_socket = fd;
  s->server = srv;
  s->cookie = srv->cookie;
  s->psession_flags = srv->ipcconn_flags;
  s->own_app_id = srv->app_id;
  s->psession_free = srv->free_fn;
  return s;
}

// Pipe and event registration of a new session; -1 on failure.
int session_setup(ipcconn_session *s, bool nonblocking) {
  ipcconn_server *srv = s->server;
  if (socket_setup(s->psession_socket, nonblocking) < 0) return -1;
  ipc_pipe_cb cb{sizeof cb, s, pipe_malloc, pipe_free};
  s->psession_pipe = ipc_pipe_create_with_params(srv->bufsize, srv->overhead, &cb);
  if (!s->psession_pipe) return -1;
  ipc_pipe_attach_socket(s->psession_pipe, s->psession_socket);
  const ipcconn_func *f = ipcconn_server_func(srv);
  if (f->session_attach(s) < 0) return -1;
  return f->set_session_read_ready(s);
}

void link_session(ipcconn_server *srv, ipcconn_session *s) {
  s->next = srv->sessions;
  if (srv->sessions) srv->sessions->prev = s;
  srv->sessions = s;
  srv->session_count++;
}

void unlink_session(ipcconn_server *srv, ipcconn_session *s) {
  if (s->prev)
    s->prev->next = s->next;
  else if (srv->sessions == s)
    srv->sessions = s->next;
  else
    return;  // never linked
  if (s->next) s->next->prev = s->prev;
  s->next = s->prev = nullptr;
  srv->session_count--;
}

void api_enter(ipcconn_session *s) {
  IPCCONN_INSIST(!(s->psession_flags & IPCCONN_FLAG_PROCESSING_API));
  s->psession_flags |= IPCCONN_FLAG_PROCESSING_API;
}
// was_dead: the session's last event (1) is given to a session already dead.
void api_exit(ipcconn_session *s, bool was_dead = false) {
  IPCCONN_INSIST(s->psession_flags & IPCCONN_FLAG_PROCESSING_API);
  s->psession_flags &= ~IPCCONN_FLAG_PROCESSING_API;
  if (is_dead(s) && !was_dead)
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), is DEAD now", __func__, __LINE__,
                s->own_app_id, vp(s));
}

bool is_dgram(const ipcconn_session *s) { return s->server && s->server->dgram_session == s; }

// Closes and frees, as ipcconn_session_close does, or (inside a callback)
// leaves the free to a later pass. status is the reason, for the log.
void session_close_internal(ipcconn_session *s) {
  if (is_dead(s)) return;
  ipcconn_server *srv = s->server;
  if (!IPCCONN_INSIST(srv != 0)) return;
  const ipcconn_func *f = ipcconn_server_func(srv);
  bool identified = !(s->psession_flags & IPCCONN_FLAG_INITIALIZING);
  unlink_session(srv, s);
  ipcconn_session_queue_free(s);
  f->session_release(s);
  if (s->psession_redispatch) task_job_delete(s->psession_redispatch);
  s->psession_redispatch = nullptr;
  // A message callback's message lives in the pipe: inside one, it stays
  // until the record goes.
  bool inside = s->psession_flags & IPCCONN_FLAG_PROCESSING_API;
  if (s->psession_pipe) {
    ipc_pipe_detach_socket(s->psession_pipe);
    if (!inside) {
      ipc_pipe_destroy(s->psession_pipe);
      s->psession_pipe = nullptr;
    }
  }
  int sock = s->psession_socket;
  bool dgram = is_dgram(s);
  if (sock >= 0 && !dgram) close(sock);
  s->psession_socket = -1;
  if (dgram) srv->dgram_session = nullptr;
  s->psession_flags |= IPCCONN_FLAG_DEAD;
  ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] pid (%d-%d), app-id (%d-%d), ipcconn_session (%p),socket (%d) closed",
              __func__, __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, vp(s), sock);
  // The application never heard of a session that did not identify itself.
  // Dead already, so that a close or send from the callback does nothing.
  // The datagram session is the server's own: the application hears nothing of it.
  if (identified && !dgram) ipcconn_session_give_event(s, IPCCONN_EVENT_CLOSED);
  s->server = nullptr;  // it may go before this record does
  if (s->psession_flags & IPCCONN_FLAG_PROCESSING_API) {
    if (f->session_schedule_delayed_free(s) < 0)
      ipcconn_log(IPCCONN_LOG_ERROR, "CRITICAL: %s [%d] app-id (%d), ipcconn_session (%p), failed to schedule delayed free",
                  __func__, __LINE__, srv->app_id, vp(s));
    return;
  }
  ipcconn_session_destroy(s);
}

void identify(ipcconn_session *s, ipc_msg *m) {
  ipcconn_server *srv = s->server;
  IPCCONN_INSIST(!(s->psession_flags & IPCCONN_FLAG_INTEROPERATE_MODE));
  IPCCONN_INSIST(s->psession_flags & IPCCONN_FLAG_INITIALIZING);
  s->psession_flags &= ~IPCCONN_FLAG_INITIALIZING;
  uint32_t id[3] = {0, 0, 0};
  memcpy(id, ipc_msg_payload(m), m->length < sizeof id ? m->length : sizeof id);
  s->peer_app_id = id[0];
  s->peer_pid = id[1];
  s->peer_instance_id = id[2];
  ipcconn_log(IPCCONN_LOG_DEBUG,
              "DEBUG: %s [%d] pid (%d-%d), app-id (%d-%d), instance-id(%d) - ipcconn_session (%p), socket (%d) "
              "connected",
              __func__, __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, s->peer_instance_id, vp(s),
              s->psession_socket);
  ipcconn_session_give_event(s, IPCCONN_EVENT_CONNECTED);
}

// Ends the session after a read that failed; false when there is nothing to end.
bool read_failed(ipcconn_session *s, int err) {
  if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) return false;
  ipcconn_server *srv = s->server;
  int status = err;
  if (err == 0) {
    ipcconn_log(IPCCONN_LOG_DEBUG,
                "DEBUG: %s [%d] pid (%d-%d), app-id (%d-%d), ipcconn_session (%p), failed with null error", __func__,
                __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, vp(s));
    status = 1;
  } else if (ipcconn_terminal_read_error(err)) {
    status = 0;
  }
  ipcconn_log(IPCCONN_LOG_DEBUG,
              "DEBUG: %s [%d] pid (%d-%d), app-id (%d-%d), ipcconn_session (%p), terminating status (%d)", __func__,
              __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, vp(s), status);
  session_close_internal(s);
  return true;
}

int unix_server_addr(ipcconn_server *srv, const char *logical) {
  if (!ipcconn_unix_addr(logical, reinterpret_cast<sockaddr_un *>(&srv->addr))) return -1;
  srv->addr_len = sizeof(sockaddr_un);
  srv->addr_kind = IPCCONN_ADDR_UNIX;
  return 0;
}

}  // namespace

int ipcconn_session_give_event(ipcconn_session *s, int event) {
  if (s->psession_flags & IPCCONN_FLAG_PROCESSING_API) return ipcconn_map_event_to_errno(event);
  ipcconn_server *srv = s->server;
  bool was_dead = is_dead(s);
  api_enter(s);
  srv->event_cb(s, s->peer_app_id, s->peer_pid, event, s->cookie);
  api_exit(s, was_dead);
  return 0;
}

namespace {

// Checks what every create needs and makes the record: null after the line.
ipcconn_server *common_server_create(const ipcconn_server_params *p, uint32_t flags) {
  if (!p->ev_context.opaque == !p->ptask) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] invalid arguments ev_context.opaque (%p), ptask (%p)", __func__,
                __LINE__, p->ev_context.opaque, vp(p->ptask));
    return nullptr;
  }
  if (!p->event_cb || !p->msg_cb || !p->malloc_fn || !p->free_fn || p->bufsize > IPCCONN_BUFSIZE_DEFAULT) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), invalid arguments (%d)", __func__, __LINE__,
                p->app_id, IPCCONN_ERR_INVALID);
    return nullptr;
  }
  auto *srv = static_cast<ipcconn_server *>(p->malloc_fn(sizeof(ipcconn_server)));
  if (!srv) return nullptr;
  memset(srv, 0, sizeof *srv);
  srv->ev_context = p->ev_context;
  srv->ptask = p->ptask;
  srv->ipcconn_flags = flags;
  srv->app_id = p->app_id;
  srv->pid = p->pid;
  srv->interop_type = p->interop_type;
  srv->malloc_fn = p->malloc_fn;
  srv->free_fn = p->free_fn;
  srv->bufsize = p->bufsize ? p->bufsize : uint32_t{IPCCONN_BUFSIZE_DEFAULT};
  srv->overhead = p->overhead;
  srv->server_socket = -1;
  srv->event_cb = p->event_cb;
  srv->msg_cb = p->msg_cb;
  srv->cookie = p->cookie;
  srv->keepalive_sec = p->keepalive_sec;
  srv->read_budget = p->read_budget ? p->read_budget : uint32_t{IPCCONN_READ_BUDGET_DEFAULT};
  srv->threshold_high = p->threshold_high;
  srv->threshold_medium = p->threshold_medium;
  srv->threshold_low = p->threshold_low;
  srv->threshold_backpressure = p->threshold_backpressure;
  srv->rtb_index = p->rtb_index;
  srv->backlog = (p->backlog == 0 || p->backlog > IPCCONN_BACKLOG_MAX) ? uint32_t{IPCCONN_BACKLOG_MAX} : p->backlog;
  return srv;
}

void server_free(ipcconn_server *srv) {
  ipcconn_server_func(srv)->server_release(srv);
  if (srv->dgram_session) {
    ipcconn_session *d = srv->dgram_session;
    srv->dgram_session = nullptr;
    ipcconn_server_func(srv)->session_release(d);
    d->psession_flags |= IPCCONN_FLAG_DEAD;
    ipcconn_session_destroy(d);
  }
  if (srv->server_socket >= 0) close(srv->server_socket);
  srv->server_socket = -1;
  srv->free_fn(srv);
}

ipcconn_server *cleanup(ipcconn_server *srv) {
  ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), cleanup ", __func__, __LINE__,
              srv->app_id, vp(srv));
  if (const char *path = own_unix_path(srv)) unlink(path);
  server_free(srv);
  return nullptr;
}

// Binds a Unix socket, the old file removed first and the new one open to
// every local user.
int uds_socket_setup(ipcconn_server *srv) {
  const char *path = own_unix_path(srv);
  unlink(path);
  if (bind(srv->server_socket, reinterpret_cast<sockaddr *>(&srv->addr), srv->addr_len) < 0) return -1;
  return chmod(path, 0777);
}

// The listening (stream) or receiving (datagram) half of every create.
ipcconn_server *server_listen(ipcconn_server *srv) {
  const ipcconn_func *f = ipcconn_server_func(srv);
  if (srv->ipcconn_flags & IPCCONN_FLAG_STREAM) {
    if (f->listen(srv, static_cast<int>(srv->backlog)) < 0) {
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to listen on server socket",
                  __func__, __LINE__, srv->app_id, vp(srv));
      return cleanup(srv);
    }
    return srv;
  }
  ipcconn_session *d = session_new(srv, srv->server_socket);
  if (!d) return cleanup(srv);
  srv->dgram_session = d;
  d->psession_flags &= ~IPCCONN_FLAG_INITIALIZING;
  if (session_setup(d, true) < 0) return cleanup(srv);
  ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_server (%p), dgram_session (%p) created for server (%p)",
              __func__, __LINE__, srv->app_id, vp(srv), vp(d), vp(srv));
  return srv;
}

ipcconn_server *uds_create(ipcconn_server_params *p, bool stream) {
  if (!p) return nullptr;
  // The stream bit is the caller's as well: it says what was made.
  if (stream) p->flags |= IPCCONN_FLAG_STREAM;
  ipcconn_server *srv =
      common_server_create(p, (p->flags & (IPCCONN_FLAG_INTEROPERATE_MODE | IPCCONN_FLAG_STREAM)) |
                                  IPCCONN_FLAG_NONBLOCKING);
  if (!srv) return nullptr;
  if (unix_server_addr(srv, p->path) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), invalid path", __func__, __LINE__,
                srv->app_id, vp(srv));
    srv->addr_kind = 0;
    return cleanup(srv);
  }
  srv->server_socket = tvx_sys.sys_socket(AF_UNIX, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
  if (srv->server_socket < 0 || uds_socket_setup(srv) < 0 || socket_setup(srv->server_socket, true) < 0)
    return cleanup(srv);
  int on = 1;
  if (setsockopt(srv->server_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to set REUSEADDR socket option",
                __func__, __LINE__, srv->app_id, vp(srv));
    return cleanup(srv);
  }
  return server_listen(srv);
}

// A table other than the default instance is a VRF device's: the socket is
// bound to that device.
bool bind_to_table(int sock, uint32_t table) {
  struct if_nameindex *all = if_nameindex();
  bool ok = false;
  for (struct if_nameindex *i = all; i && i->if_index != 0 && !ok; i++) {
    char path[96];
    snprintf(path, sizeof path, "/sys/class/net/%s/vrf/table", i->if_name);
    FILE *fp = fopen(path, "r");
    if (!fp) continue;
    unsigned t = 0;
    if (fscanf(fp, "%u", &t) == 1 && t == table)
      ok = setsockopt(sock, SOL_SOCKET, SO_BINDTODEVICE, i->if_name, strlen(i->if_name) + 1) == 0;
    fclose(fp);
  }
  if (all) if_freenameindex(all);
  return ok;
}

}  // namespace

extern "C" {

ipcconn_server *ipcconn_uds_server_create(ipcconn_server_params *p) { return uds_create(p, true); }

ipcconn_server *ipcconn_uds_dgram_server_create(ipcconn_server_params *p) {
  if (p) p->flags &= ~IPCCONN_FLAG_STREAM;
  return uds_create(p, false);
}

ipcconn_server *ipcconn_tcp_server_create(ipcconn_server_params *p) {
  if (!p) return nullptr;
  p->flags |= IPCCONN_FLAG_STREAM;
  ipcconn_server *srv = common_server_create(
      p, (p->flags & (IPCCONN_FLAG_INTEROPERATE_MODE | IPCCONN_FLAG_STREAM)) | IPCCONN_FLAG_NONBLOCKING);
  if (!srv) return nullptr;
  srv->addr_kind = IPCCONN_ADDR_TCP;
  auto *a = reinterpret_cast<sockaddr_in *>(&srv->addr);
  a->sin_family = AF_INET;
  a->sin_port = htons(p->tcp_port);
  a->sin_addr.s_addr = p->tcp_addr;
  srv->addr_len = sizeof(sockaddr_in);
  srv->server_socket = tvx_sys.sys_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  bool ok = srv->server_socket >= 0 && socket_setup(srv->server_socket, true) == 0 &&
            setsockopt(srv->server_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
  if (ok && p->rtb_index != 0) ok = bind_to_table(srv->server_socket, p->rtb_index);
  if (!ok) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to setup TCP socket options",
                __func__, __LINE__, srv->app_id, vp(srv));
    return cleanup(srv);
  }
  if (bind(srv->server_socket, reinterpret_cast<sockaddr *>(&srv->addr), srv->addr_len) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to bind server socket",
                __func__, __LINE__, srv->app_id, vp(srv));
    return cleanup(srv);
  }
  socklen_t len = sizeof srv->addr;
  getsockname(srv->server_socket, reinterpret_cast<sockaddr *>(&srv->addr), &len);  // the port a 0 chose
  return server_listen(srv);
}

// The TNP family (41) has no Linux form: its socket is never asked for, and
// creation takes the failure path of a socket refused.
ipcconn_server *ipcconn_tnp_server_create(ipcconn_server_params *p) {
  if (!p) return nullptr;
  if (!IPCCONN_INSIST(p->flags & IPCCONN_FLAG_INTEROPERATE_MODE)) return nullptr;
  ipcconn_server *srv = common_server_create(p, (p->flags & IPCCONN_FLAG_INTEROPERATE_MODE) | IPCCONN_FLAG_STREAM);
  if (!srv) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), failed to create TNP server", __func__, __LINE__,
                p->app_id);
    return nullptr;
  }
  errno = EAFNOSUPPORT;
  ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to setup TNP socket options",
              __func__, __LINE__, srv->app_id, vp(srv));
  cleanup(srv);
  errno = EAFNOSUPPORT;
  return nullptr;
}

void ipcconn_server_accept(ipcconn_server *srv, int fd, const sockaddr *peer, socklen_t peer_len) {
  if (fd < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_server (%p), failed to accept socket with err (%d)",
                __func__, __LINE__, srv->app_id, vp(srv), errno);
    return;
  }
  ipcconn_session *s = session_new(srv, fd);
  if (!s) {
    close(fd);
    return;
  }
  s->psession_flags |= IPCCONN_FLAG_INITIALIZING;
  if (peer && peer_len) {
    s->peer_len = peer_len > sizeof s->peer_addr ? socklen_t{sizeof s->peer_addr} : peer_len;
    memcpy(&s->peer_addr, peer, s->peer_len);
  }
  s->local_len = sizeof s->local_addr;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&s->local_addr), &s->local_len) < 0) s->local_len = 0;
  link_session(srv, s);
  const ipcconn_func *f = ipcconn_server_func(srv);
  bool ok = session_setup(s, true) == 0;
  if (ok && srv->keepalive_sec) {
    if (srv->addr_kind == IPCCONN_ADDR_TCP) {
      int on = 1, idle = static_cast<int>(srv->keepalive_sec), cnt = IPCCONN_KEEPALIVE_STALLS;
      setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &idle, sizeof idle);
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &cnt, sizeof cnt);
    }
    ok = f->session_timer_start(s, srv->keepalive_sec) == 0;
  }
  if (!ok) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] pid (%d-%d), app-id (%d-%d) - ipcconn_session (%p), cleanup", __func__,
                __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, vp(s));
    session_close_internal(s);
    return;
  }
  if (srv->ipcconn_flags & IPCCONN_FLAG_INTEROPERATE_MODE) {
    s->psession_flags &= ~IPCCONN_FLAG_INITIALIZING;
    ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] pid (%d-NA), app-id (%d-NA) - ipcconn_session (%p), socket (%d) connected",
                __func__, __LINE__, srv->pid, srv->app_id, vp(s), fd);
    ipcconn_session_give_event(s, IPCCONN_EVENT_CONNECTED);
  }
}

}  // extern "C"

namespace {

// The whole messages the read buffer holds, to the application: false when
// the dispatch must end (closed, reading turned off).
bool deliver(ipcconn_session *s) {
  ipcconn_server *srv = s->server;
  bool check_type = !(s->psession_flags & 0xA4000000u);
  uint16_t want_type =
      (s->psession_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? srv->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  while (ipc_msg *m = ipc_msg_read(s->psession_pipe)) {
    // Unlike the client's, an error report is still the application's.
    if (ipcconn_screen_message(m, check_type, want_type, srv->app_id, s, "ipcconn_session") < 0) {
      ipc_pipe_read_clean(s->psession_pipe);
      break;
    }
    if ((m->opcode & 0x0F) == 3)
      ipcconn_log(IPCCONN_LOG_ERROR,
                  "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), both reply and cmd set in ipc message", __func__,
                  __LINE__, srv->app_id, vp(s));
    s->counters.received_msgs++;
    if (m->subtype == IPCCONN_SUBTYPE_IDENT) {
      identify(s, m);
      if (is_dead(s) || !s->read_active) return false;
      continue;
    }
    uint32_t headroom = 0;
    uint8_t *space = ipc_x_pipe_get_read_buffer(s->psession_pipe, &headroom);
    api_enter(s);
    int rc = srv->msg_cb(s, space, headroom, m, s->cookie);
    api_exit(s);
    if (is_dead(s) || !s->read_active) return false;
    if (rc != 0) {
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), error on connection %p",
                  __func__, __LINE__, srv->app_id, vp(s), vp(s));
      session_close_internal(s);
      return false;
    }
  }
  // A datagram carries whole messages: a cut one goes with it.
  if (is_dgram(s)) ipc_pipe_read_clean(s->psession_pipe);
  return true;
}

void redispatch(task_job *jp) {
  auto *s = static_cast<ipcconn_session *>(task_job_get_data(jp));
  task_job_delete(jp);
  s->psession_redispatch = nullptr;
  ipcconn_server_dispatch(s);
}

}  // namespace

extern "C" {

void ipcconn_server_dispatch(ipcconn_session *s) {
  if (is_dead(s) || !s->psession_pipe || !s->read_active) return;
  ipcconn_server *srv = s->server;
  bool dgram = is_dgram(s);
  s->counters.read_events++;
  // Messages read before reading was turned off come first.
  if (!deliver(s)) return;
  uint64_t start = ipcconn_clock_us();
  for (uint32_t round = 0; round < srv->read_budget; round++) {
    if (round > 0 && ipcconn_clock_us() - start >= IPCCONN_LOOP_BOUND_US) return;
    if (ipc_x_pipe_read(s->psession_pipe) < 0) {
      int err = errno;
      // A datagram server's socket is the server's: an empty datagram is no end.
      if (dgram && err == ECONNRESET) continue;
      if (dgram && err == EMSGSIZE) {
        ipc_pipe_read_clean(s->psession_pipe);
        continue;
      }
      read_failed(s, err);
      return;
    }
    if (!deliver(s)) return;
  }
}

void ipcconn_session_keepalive(ipcconn_session *s) {
  if (is_dead(s)) return;
  if (!s->pending_head || s->counters.sent_from_queue != s->stall_mark) {
    s->stalls = 0;
    s->stall_mark = s->counters.sent_from_queue;
    return;
  }
  if (++s->stalls < IPCCONN_KEEPALIVE_STALLS) return;
  ipcconn_server *srv = s->server;
  ipcconn_log(IPCCONN_LOG_DEBUG,
              "DEBUG: %s [%d] pid (%d-%d), app-id (%d-%d), ipcconn_session (%p), peer took nothing for %d keep-alive "
              "intervals, depth %d",
              __func__, __LINE__, srv->pid, s->peer_pid, srv->app_id, s->peer_app_id, vp(s), s->stalls,
              s->counters.current_depth);
  session_close_internal(s);
}

void ipcconn_session_close(ipcconn_session *s) {
  if (!s || is_dead(s)) return;
  session_close_internal(s);
}

void ipcconn_session_destroy(ipcconn_session *s) {
  if (!IPCCONN_INSIST(s != 0) || !IPCCONN_INSIST(s->psession_flags & IPCCONN_FLAG_DEAD)) return;
  if (s->psession_pipe) ipc_pipe_destroy(s->psession_pipe);
  if (s->psession_task) {
    task_set_data(s->psession_task, nullptr);
    task_delete(s->psession_task);
  }
  s->psession_free(s);
}

void ipcconn_server_shutdown(ipcconn_server *srv) {
  if (!srv) return;
  ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_server (%p), ", __func__, __LINE__, srv->app_id,
              vp(srv));
  while (ipcconn_session *s = srv->sessions) session_close_internal(s);
  if (ipcconn_session *d = srv->dgram_session) session_close_internal(d);
  if (const char *path = own_unix_path(srv)) unlink(path);
  server_free(srv);
}

int ipcconn_session_enable_msg_callbacks(ipcconn_session *s) {
  if (!s || is_dead(s)) return -1;
  int rc = ipcconn_server_func(s->server)->set_session_read_ready(s);
  if (rc < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), failed to set read ready handler (%d)",
                __func__, __LINE__, s->server->app_id, vp(s), errno);
    return -1;
  }
  // Messages already read wait for no new bytes: a pass of their own. Never
  // at once, since the application may be inside one of our callbacks.
  if (ipc_pipe_read_pending(s->psession_pipe) && !s->psession_redispatch)
    s->psession_redispatch = task_job_create_foreground(task_scheduler_task(), "ipcconn read", redispatch, s);
  return 0;
}

int ipcconn_session_disable_msg_callbacks(ipcconn_session *s) {
  if (!s || is_dead(s)) return -1;
  int rc = ipcconn_server_func(s->server)->clear_session_read_ready(s);
  if (rc < 0)
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), failed to clear read ready handler (%d)", __func__,
                __LINE__, s->server->app_id, vp(s), errno);
  return rc < 0 ? -1 : 0;
}

void *ipcconn_session_get_callback_cookie(const ipcconn_session *s) { return s ? s->cookie : nullptr; }
void ipcconn_session_set_callback_cookie(ipcconn_session *s, void *cookie) {
  if (s) s->cookie = cookie;
}

int ipcconn_uds_session_get_peer_file_path(ipcconn_session *s, char *buffer, int len) {
  uint32_t app = s && s->server ? s->server->app_id : 0;
  if (!buffer) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), peer_sock_file_path is null",
                __func__, __LINE__, app, vp(s));
    return -1;
  }
  if (len < 2) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), length of argument is invalid (%d)",
                __func__, __LINE__, app, vp(s), len);
    return -1;
  }
  if (!s || is_dead(s) || s->psession_socket < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), psession or socket (%d)invalid",
                __func__, __LINE__, app, vp(s), s ? s->psession_socket : -1);
    return -1;
  }
  sockaddr_un a{};
  socklen_t alen = sizeof a;
  if (getpeername(s->psession_socket, reinterpret_cast<sockaddr *>(&a), &alen) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), failed to get peer socket address for "
                "ipcconn_session (%p)",
                __func__, __LINE__, app, vp(s), vp(s));
    return -1;
  }
  if (a.sun_family != AF_UNIX) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), invalid peer socket address family (%d)",
                __func__, __LINE__, app, vp(s), a.sun_family);
    return -1;
  }
  int plen = static_cast<int>(alen) - static_cast<int>(offsetof(sockaddr_un, sun_path));
  if (plen > 0 && a.sun_path[plen - 1] == '\0') plen--;
  if (plen <= 0 || a.sun_path[0] == '\0' || plen >= len) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), invalid peer socket sun path len (%d)",
                __func__, __LINE__, app, vp(s), plen);
    return -1;
  }
  memcpy(buffer, a.sun_path, static_cast<size_t>(plen));
  buffer[plen] = '\0';
  return 0;
}

int ipcconn_session_get_peer_info(ipcconn_session *s, ipcconn_peer_info *info) {
  if (!s || !info || is_dead(s) || s->server->addr_kind != IPCCONN_ADDR_TCP) return -1;
  ipcconn_server *srv = s->server;
  info->kind = IPCCONN_PEER_UNKNOWN;
  info->engine_id = info->slot_id = -1;
  sockaddr_in a{};
  socklen_t alen = sizeof a;
  if (getpeername(s->psession_socket, reinterpret_cast<sockaddr *>(&a), &alen) < 0 || a.sin_family != AF_INET) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), failed to get tcp peer address with error %d",
                __func__, __LINE__, srv->app_id, vp(s), errno);
    return -1;
  }
  uint32_t addr = ntohl(a.sin_addr.s_addr);
  switch (srv->rtb_index) {
    case 0:
      // One engine: the loopback in the default instance is this one.
      if (addr == INADDR_LOOPBACK) {
        info->kind = IPCCONN_PEER_LOCAL_ENGINE;
        info->engine_id = info->slot_id = 0;
      }
      return 0;
    case 1:
    case 2:
    case 0x8F7F:
    case 0x8F80:
    case 0x8F81:
      if (addr == 0x80000001u || addr == 0x14000001u) {  // 128.0.0.1, 20.0.0.1
        info->kind = IPCCONN_PEER_MASTER_ENGINE;
        info->engine_id = info->slot_id = 0;
      } else {
        info->kind = IPCCONN_PEER_OTHER_ENGINE;
      }
      return 0;
    default:
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), incorrect rtb_index %d", __func__,
                  __LINE__, srv->app_id, vp(s), srv->rtb_index);
      return -1;
  }
}

}  // extern "C"
