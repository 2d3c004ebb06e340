// The client: creation, connect with retries, the identification message,
// reading, restart and close.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "platform/path.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

void redispatch(task_job *jp);

void *pipe_malloc(void *ctx, size_t n) {
  auto *c = static_cast<ipcconn_client *>(ctx);
  return c->malloc_fn ? c->malloc_fn(n) : malloc(n);
}
void pipe_free(void *ctx, void *p) {
  auto *c = static_cast<ipcconn_client *>(ctx);
  if (c->free_fn)
    c->free_fn(p);
  else
    free(p);
}

bool unix_addr(const char *logical, sockaddr_un *out) { return ipcconn_unix_addr(logical, out); }

int common_socket_setup(ipcconn_client *c) {
  return ipcconn_common_socket_setup(c->pclient_socket, c->pclient_flags & IPCCONN_FLAG_NONBLOCKING, c->rcv_timeout);
}

// A local name: the old file goes, the new one is open to every local user.
// A TCP client sends each message as it comes.
int kind_socket_setup(ipcconn_client *c) {
  if (c->addr_kind == IPCCONN_ADDR_TCP) {
    int on = 1;
    return setsockopt(c->pclient_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0 ? IPCCONN_ERR_SOCKET : 0;
  }
  if (!c->has_local) return 0;
  unlink(c->local_addr.sun_path);
  if (bind(c->pclient_socket, reinterpret_cast<sockaddr *>(&c->local_addr), sizeof c->local_addr) < 0 ||
      chmod(c->local_addr.sun_path, 0777) < 0)
    return IPCCONN_ERR_SOCKET;
  return 0;
}

}  // namespace

void ipcconn_client_clear_state(ipcconn_client *c) {
  ipcconn_client_func(c)->release(c);
  if (c->pclient_redispatch) task_job_delete(c->pclient_redispatch);
  c->pclient_redispatch = nullptr;
  ipcconn_client_queue_free(c);
  if (c->pclient_pipe) {
    ipc_pipe_detach_socket(c->pclient_pipe);
    // A message callback's message lives in the pipe: inside a callback
    // (a close or restart from it) the pipe stays until the callback returns.
    if (c->pclient_flags & IPCCONN_FLAG_PROCESSING_API) {
      if (c->pclient_retired_pipe) ipc_pipe_destroy(c->pclient_retired_pipe);
      c->pclient_retired_pipe = c->pclient_pipe;
    } else {
      ipc_pipe_destroy(c->pclient_pipe);
    }
    c->pclient_pipe = nullptr;
  }
  if (c->pclient_socket >= 0) close(c->pclient_socket);
  c->pclient_socket = -1;
  if (c->has_local) unlink(c->local_addr.sun_path);
  c->pclient_flags &= ~IPCCONN_FLAG_CONNECT_PENDING;
}

int ipcconn_client_socket_open(ipcconn_client *c) {
  int domain = c->addr_kind == IPCCONN_ADDR_TCP ? AF_INET : AF_UNIX;
  c->pclient_socket = ipcconn_client_func(c)->socket(c, domain, SOCK_STREAM);
  if (c->pclient_socket < 0) return -1;
  ipc_pipe_cb cb{sizeof cb, c, pipe_malloc, pipe_free};
  if (common_socket_setup(c) < 0 || kind_socket_setup(c) < 0 ||
      !(c->pclient_pipe = ipc_pipe_create_with_params(c->bufsize, 0, &cb))) {
    ipcconn_client_clear_state(c);
    return IPCCONN_ERR_SOCKET;
  }
  ipc_pipe_attach_socket(c->pclient_pipe, c->pclient_socket);
  return 0;
}

const sockaddr *ipcconn_client_peer(const ipcconn_client *c) {
  if (c->addr_kind == IPCCONN_ADDR_TCP) return reinterpret_cast<const sockaddr *>(&c->tcp_peer);
  return reinterpret_cast<const sockaddr *>(&c->peer_addr);
}
socklen_t ipcconn_client_peer_len(const ipcconn_client *c) {
  return c->addr_kind == IPCCONN_ADDR_TCP ? sizeof c->tcp_peer : sizeof c->peer_addr;
}

namespace {

void clear_state(ipcconn_client *c) { ipcconn_client_clear_state(c); }

int start_retry_timer(ipcconn_client *c) {
  if (c->max_retries != IPCCONN_RETRY_FOREVER && c->retry_count >= c->max_retries) {
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), failed to connect after max retries (%d)", __func__,
                __LINE__, c->app_id, static_cast<void *>(c), c->max_retries);
    return IPCCONN_ERR_SOCKET;
  }
  clear_state(c);
  c->retry_count++;
  c->counters.retries++;
  if (ipcconn_client_func(c)->timer_start(c, IPCCONN_RETRY_INTERVAL_SEC) < 0) return IPCCONN_ERR_SOCKET;
  return 0;
}

// Step 1 of a connect: 0 when connecting or waiting to retry, else -107.
int try_connect(ipcconn_client *c) {
  const ipcconn_func *f = ipcconn_client_func(c);
  int rc = ipcconn_client_socket_open(c);
  if (rc == -1) return start_retry_timer(c);  // no socket now: perhaps later
  if (rc < 0) return rc;
  if (f->connect_start(c) < 0) {
    c->counters.connect_failures++;
    return start_retry_timer(c);
  }
  c->pclient_flags |= IPCCONN_FLAG_CONNECT_PENDING;
  return 0;
}

}  // namespace

int ipcconn_map_event_to_errno(int event) {
  switch (event) {
    case IPCCONN_EVENT_BACKPRESSURE:
      return IPCCONN_ERR_BACKPRESSURE;
    case IPCCONN_EVENT_CLOSED:
      return IPCCONN_ERR_CLOSED;
    case IPCCONN_EVENT_FAILED:
      return IPCCONN_ERR_FAILED;
    default:
      IPCCONN_INSIST(false);
      return -1;
  }
}

namespace {

void api_enter(ipcconn_client *c) {
  IPCCONN_INSIST(!(c->pclient_flags & IPCCONN_FLAG_PROCESSING_API));
  c->pclient_flags |= IPCCONN_FLAG_PROCESSING_API;
}
void api_exit(ipcconn_client *c) {
  IPCCONN_INSIST(c->pclient_flags & IPCCONN_FLAG_PROCESSING_API);
  c->pclient_flags &= ~IPCCONN_FLAG_PROCESSING_API;
  if (c->pclient_retired_pipe && !(c->pclient_flags & IPCCONN_FLAG_DEAD)) {
    ipc_pipe_destroy(c->pclient_retired_pipe);
    c->pclient_retired_pipe = nullptr;
  }
  if (c->pclient_flags & IPCCONN_FLAG_DEAD)
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), is DEAD now", __func__, __LINE__,
                c->app_id, static_cast<void *>(c));
}

}  // namespace

int ipcconn_give_event(ipcconn_client *c, int event) {
  if (c->pclient_flags & IPCCONN_FLAG_PROCESSING_API) return ipcconn_map_event_to_errno(event);
  if (!c->event_cb) return 0;
  api_enter(c);
  c->event_cb(c, event, c->cookie);
  api_exit(c);
  return 0;
}

namespace {

bool is_dead(const ipcconn_client *c) { return c->pclient_flags & IPCCONN_FLAG_DEAD; }

}  // namespace

extern "C" void ipcconn_client_restart(ipcconn_client *c) {
  if (!c || is_dead(c)) return;
  ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), socket (%d) disconnected",
              __func__, __LINE__, c->pid, c->app_id, static_cast<void *>(c), c->pclient_socket);
  int s = c->pclient_socket;
  clear_state(c);
  ipcconn_give_event(c, IPCCONN_EVENT_CLOSED);
  if (is_dead(c)) return;
  if (start_retry_timer(c) < 0) {
    ipcconn_log(IPCCONN_LOG_DEBUG,
                "DEBUG: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed to start the retry timer for "
                "connect socket (%d)",
                __func__, __LINE__, c->pid, c->app_id, static_cast<void *>(c), s);
    ipcconn_give_event(c, IPCCONN_EVENT_FAILED);
    ipcconn_client_close(c);
  }
}

int ipcconn_client_send_identification(ipcconn_client *c) {
  uint32_t id[3] = {c->app_id, c->pid, c->instance_id};
  ipc_msg h{IPCCONN_MSG_TYPE, IPCCONN_SUBTYPE_IDENT, IPCCONN_IDENT_LEN, IPC_MSG_OP_SEND, 0};
  if (ipc_msg_write(c->pclient_pipe, &h, id) < 0) return -1;
  int rc = ipc_x_pipe_write(c->pclient_pipe);
  // The rest of a partial write goes out on write-ready: it counts as sent.
  if (rc == IPC_PIPE_PARTIAL) return ipcconn_client_func(c)->set_client_write_ready(c);
  return rc;
}

ipcconn_client *ipcconn_client_new(const ipcconn_client_params *p, uint32_t flags, uint8_t addr_kind) {
  sockaddr_un peer{}, local{};
  bool addr_ok = addr_kind == IPCCONN_ADDR_TCP
                     ? p->tcp_port != 0
                     : unix_addr(p->peer_path, &peer) && (!p->local_path || unix_addr(p->local_path, &local));
  if (!addr_ok || p->bufsize > IPCCONN_BUFSIZE_DEFAULT) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), invalid arguments (%d)", __func__, __LINE__,
                p->app_id, IPCCONN_ERR_INVALID);
    return nullptr;
  }
  auto *c = static_cast<ipcconn_client *>(p->malloc_fn ? p->malloc_fn(sizeof(ipcconn_client))
                                                       : malloc(sizeof(ipcconn_client)));
  if (!c) return nullptr;
  memset(c, 0, sizeof *c);
  c->pclient_thread_id = pthread_self();
  c->pclient_flags = flags | (p->flags & IPCCONN_FLAG_INTEROPERATE_MODE);
  c->app_id = p->app_id;
  c->pid = p->pid;
  c->instance_id = p->instance_id;
  uint16_t r = p->max_retries;
  c->max_retries = (r == 0 || r == 2 || r == 10) ? r : uint16_t{IPCCONN_RETRY_FOREVER};
  c->read_budget = p->read_budget ? p->read_budget : uint32_t{IPCCONN_READ_BUDGET_DEFAULT};
  c->bufsize = p->bufsize ? p->bufsize : uint32_t{IPCCONN_BUFSIZE_DEFAULT};
  c->rcv_timeout = p->rcv_timeout;
  c->interop_type = p->interop_type;
  c->pclient_socket = -1;
  c->addr_kind = addr_kind;
  if (addr_kind == IPCCONN_ADDR_TCP) {
    c->tcp_peer.sin_family = AF_INET;
    c->tcp_peer.sin_port = htons(p->tcp_port);
    c->tcp_peer.sin_addr.s_addr = p->tcp_addr;
  } else {
    c->peer_addr = peer;
    if (p->local_path) {
      c->local_addr = local;
      c->has_local = 1;
    }
  }
  c->event_cb = p->event_cb;
  c->msg_cb = p->msg_cb;
  c->malloc_fn = p->malloc_fn;
  c->free_fn = p->free_fn;
  c->cookie = p->cookie;
  c->threshold_high = p->threshold_high;
  c->threshold_medium = p->threshold_medium;
  c->threshold_low = p->threshold_low;
  c->threshold_backpressure = p->threshold_backpressure;
  return c;
}

namespace {

ipcconn_client *async_connect(const ipcconn_client_params *p, uint8_t addr_kind) {
  if (!p) return nullptr;
  if (!p->ev_context.opaque == !p->ptask) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), invalid arguments ev_context.opaque (%p), ptask (%p)",
                __func__, __LINE__, p->app_id, p->ev_context.opaque, static_cast<void *>(p->ptask));
    return nullptr;
  }
  ipcconn_client *c = ipcconn_client_new(p, IPCCONN_FLAG_NONBLOCKING | IPCCONN_FLAG_STREAM, addr_kind);
  if (!c) return nullptr;
  c->pclient_ev_context = p->ev_context;
  c->pclient_task = p->ptask;
  if (p->ptask) {
    c->pclient_io_task = task_alloc("ipcconn client", 10, nullptr);
    task_set_data(c->pclient_io_task, c);
    task_create(c->pclient_io_task);
  }
  if (try_connect(c) < 0) {
    clear_state(c);
    c->pclient_flags |= IPCCONN_FLAG_DEAD;
    ipcconn_client_destroy(c);
    return nullptr;
  }
  return c;
}

}  // namespace

extern "C" {

ipcconn_client *ipcconn_uds_client_connect(const ipcconn_client_params *p) {
  return async_connect(p, IPCCONN_ADDR_UNIX);
}

ipcconn_client *ipcconn_tcp_client_create(const ipcconn_client_params *p) { return async_connect(p, IPCCONN_ADDR_TCP); }

int ipcconn_client_enable_msg_callbacks(ipcconn_client *c) {
  if (!c || is_dead(c) || c->sync || !c->pclient_pipe) return -1;
  if (ipcconn_client_func(c)->set_client_read_ready(c) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), failed to set read ready handler (%d)",
                __func__, __LINE__, c->app_id, static_cast<void *>(c), errno);
    return -1;
  }
  // Messages already read wait for no new bytes: a pass of their own. Never
  // at once, since the application may be inside one of our callbacks.
  if (ipc_pipe_read_pending(c->pclient_pipe) && !c->pclient_redispatch)
    c->pclient_redispatch = task_job_create_foreground(task_scheduler_task(), "ipcconn read", redispatch, c);
  return 0;
}

int ipcconn_client_disable_msg_callbacks(ipcconn_client *c) {
  if (!c || is_dead(c) || c->sync || !c->pclient_pipe) return -1;
  if (ipcconn_client_func(c)->clear_client_read_ready(c) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), failed to clear read ready handler (%d)", __func__,
                __LINE__, c->app_id, static_cast<void *>(c), errno);
    return -1;
  }
  return 0;
}

void ipcconn_client_connector(ipcconn_client *c, bool success) {
  if (is_dead(c)) return;
  if (!success) {
    c->counters.connect_failures++;
    if (start_retry_timer(c) < 0) {
      ipcconn_give_event(c, IPCCONN_EVENT_FAILED);
      ipcconn_client_close(c);
    }
    return;
  }
  c->retry_count = 0;
  c->counters.connects++;
  c->pclient_flags &= ~IPCCONN_FLAG_CONNECT_PENDING;
  const ipcconn_func *f = ipcconn_client_func(c);
  if (!(c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) && ipcconn_client_send_identification(c) < 0) {
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed with terminal error (%d)", __func__,
                __LINE__, c->pid, c->app_id, static_cast<void *>(c), errno);
    ipcconn_client_restart(c);
    return;
  }
  f->set_client_read_ready(c);
  if (c->pending_head) f->set_client_write_ready(c);
  ipcconn_give_event(c, IPCCONN_EVENT_CONNECTED);
}

void ipcconn_client_retry(ipcconn_client *c) {
  if (is_dead(c)) return;
  if (try_connect(c) < 0) {
    ipcconn_give_event(c, IPCCONN_EVENT_FAILED);
    ipcconn_client_close(c);
  }
}

}  // extern "C"

namespace {

// The whole messages the read buffer holds, to the application: false when
// the dispatch must end (closed, restarted, reading turned off).
bool deliver(ipcconn_client *c) {
  bool check_type = !(c->pclient_flags & 0xA4000000u);
  uint16_t want_type = (c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? c->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  while (ipc_msg *m = ipc_msg_read(c->pclient_pipe)) {
    int verdict = ipcconn_screen_message(m, check_type, want_type, c->app_id, c, "ipcconn_client");
    if (verdict < 0) {
      ipc_pipe_read_clean(c->pclient_pipe);
      break;
    }
    if (verdict > 0 || !c->msg_cb) continue;
    uint32_t headroom = 0;
    uint8_t *space = ipc_x_pipe_get_read_buffer(c->pclient_pipe, &headroom);
    api_enter(c);
    int rc = c->msg_cb(c, space, headroom, m, c->cookie);
    api_exit(c);
    if (is_dead(c) || !c->pclient_read_active) return false;
    if (rc != 0) {
      ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), error on connection", __func__,
                  __LINE__, c->app_id, static_cast<void *>(c));
      ipcconn_client_restart(c);
      return false;
    }
  }
  return true;
}

void redispatch(task_job *jp) {
  auto *c = static_cast<ipcconn_client *>(task_job_get_data(jp));
  task_job_delete(jp);
  c->pclient_redispatch = nullptr;
  ipcconn_client_dispatch(c);
}

}  // namespace

extern "C" {

void ipcconn_client_dispatch(ipcconn_client *c) {
  if (is_dead(c) || !c->pclient_pipe || !c->pclient_read_active) return;
  // Messages read before reading was turned off come first.
  if (!deliver(c)) return;
  uint64_t start = ipcconn_clock_us();
  for (uint32_t round = 0; round < c->read_budget; round++) {
    // What is left stays readable: the next pass comes back for it.
    if (round > 0 && ipcconn_clock_us() - start >= IPCCONN_LOOP_BOUND_US) return;
    if (ipc_x_pipe_read(c->pclient_pipe) < 0) {
      int err = errno;
      if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) return;
      int status = err;
      if (err == 0) {
        ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed with null errorcode",
                    __func__, __LINE__, c->pid, c->app_id, static_cast<void *>(c));
        status = 1;
      } else if (ipcconn_terminal_read_error(err)) {
        ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] pid (%d), app-id (%d-%d), error (%d), connection terminated",
                    __func__, __LINE__, c->pid, c->app_id, c->instance_id, err);
        status = 0;
      } else {
        ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed with error (%d)",
                    __func__, __LINE__, c->pid, c->app_id, static_cast<void *>(c), err);
      }
      ipcconn_log(IPCCONN_LOG_ERROR,
                  "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), terminated due to error (%d)", __func__,
                  __LINE__, c->pid, c->app_id, static_cast<void *>(c), status);
      ipcconn_client_restart(c);
      return;
    }
    if (!deliver(c)) return;
  }
}

void ipcconn_client_close(ipcconn_client *c) {
  if (!c || is_dead(c)) return;
  c->pclient_flags |= IPCCONN_FLAG_DEAD;
  clear_state(c);
  if (c->pclient_flags & IPCCONN_FLAG_PROCESSING_API) {
    // Inside one of our callbacks: the record must outlive it.
    if (ipcconn_client_func(c)->schedule_delayed_free(c) < 0)
      ipcconn_log(IPCCONN_LOG_ERROR, "CRITICAL: %s [%d] app-id (%d), ipcconn_client (%p), failed to schedule delayed free",
                  __func__, __LINE__, c->app_id, static_cast<void *>(c));
    return;
  }
  ipcconn_client_destroy(c);
}

void ipcconn_client_destroy(ipcconn_client *c) {
  if (!IPCCONN_INSIST(c != 0) || !IPCCONN_INSIST(c->pclient_flags & IPCCONN_FLAG_DEAD)) return;
  if (c->pclient_retired_pipe) ipc_pipe_destroy(c->pclient_retired_pipe);
  if (c->pclient_io_task) {
    task_set_data(c->pclient_io_task, nullptr);
    task_delete(c->pclient_io_task);
  }
  ipcconn_free_fn f = c->free_fn;
  if (f)
    f(c);
  else
    free(c);
}

void *ipcconn_client_get_callback_cookie(const ipcconn_client *c) { return c ? c->cookie : nullptr; }

}  // extern "C"
