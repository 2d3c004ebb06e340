// The synchronous client: a blocking socket, connect tried in a row, whole
// messages written and read before the calls return.
#include <unistd.h>

#include <cerrno>

#include "internal.h"
#include "platform/sys.h"

namespace {

bool is_dead(const ipcconn_client *c) { return c->pclient_flags & IPCCONN_FLAG_DEAD; }

int any_socket(ipcconn_client *, int domain, int type) { return tvx_sys.sys_socket(domain, type | SOCK_CLOEXEC, 0); }
int blocking_connect(ipcconn_client *c) {
  int rc;
  do rc = connect(c->pclient_socket, ipcconn_client_peer(c), ipcconn_client_peer_len(c));
  while (rc < 0 && errno == EINTR);
  return rc;
}
int nothing(ipcconn_client *) { return 0; }
bool never(const ipcconn_client *) { return false; }
int no_timer(ipcconn_client *, uint32_t) { return -1; }
void no_stop(ipcconn_client *) {}
// No callbacks, so never inside one: a close frees at once.
int no_delayed_free(ipcconn_client *) { return -1; }

ipcconn_client *sync_connect(const ipcconn_client_params *p, uint8_t addr_kind) {
  if (!p) return nullptr;
  ipcconn_client *c = ipcconn_client_new(p, IPCCONN_FLAG_STREAM, addr_kind);
  if (!c) return nullptr;
  c->sync = 1;
  c->event_cb = nullptr;
  c->msg_cb = nullptr;
  // The limit is the async client's: 1000 means no limit there, 1001 tries here.
  for (uint32_t tries = 0; tries <= c->max_retries; tries++) {
    if (ipcconn_client_socket_open(c) < 0) break;
    if (blocking_connect(c) == 0) {
      bool sent = (c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) || ipcconn_client_send_identification(c) == 0;
      while (sent && !ipc_pipe_write_is_empty(c->pclient_pipe))
        sent = ipc_x_pipe_write(c->pclient_pipe) != -1;
      if (sent) {
        c->counters.connects++;
        return c;
      }
      ipcconn_log(IPCCONN_LOG_ERROR,
                  "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed with terminal error (%d)", __func__,
                  __LINE__, c->pid, c->app_id, static_cast<void *>(c), errno);
      break;
    }
    c->counters.connect_failures++;
    int err = errno;
    ipcconn_client_clear_state(c);
    errno = err;
  }
  int err = errno;
  ipcconn_client_close(c);
  errno = err;
  return nullptr;
}

}  // namespace

extern "C" {

const ipcconn_func ipcconn_func_sync = {any_socket, blocking_connect, nothing,  nothing,         nothing,
                                        nothing,    never,            never,    no_timer,        no_stop,
                                        no_delayed_free, no_stop,     nullptr,  nullptr,         nullptr,
                                        nullptr,    nullptr,          nullptr,  nullptr,         nullptr,
                                        nullptr,    nullptr,          nullptr};

ipcconn_client *ipcconn_uds_client_connect_sync(const ipcconn_client_params *p) {
  return sync_connect(p, IPCCONN_ADDR_UNIX);
}

ipcconn_client *ipcconn_tcp_client_connect(const ipcconn_client_params *p) { return sync_connect(p, IPCCONN_ADDR_TCP); }

int ipcconn_client_send_sync(ipcconn_client *c, uint32_t subtype, const void *buf, uint32_t length) {
  if (!c || !c->sync || is_dead(c) || c->pclient_socket < 0) return IPCCONN_ERR_INVALID;
  if (!ipcconn_client_length_ok(c, buf, length)) return IPCCONN_ERR_INVALID;
  uint16_t type = (c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? c->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  int rc = ipcconn_msg_send(c->pclient_pipe, type, subtype, buf, length, false);
  // A blocking socket cut short (a signal) goes on where it stopped.
  while (rc == IPC_PIPE_PARTIAL) rc = ipc_x_pipe_write(c->pclient_pipe);
  if (rc < 0) {
    c->counters.not_sent++;
    return IPCCONN_ERR_PIPE;
  }
  c->counters.sent_immediately++;
  return 0;
}

int ipcconn_client_recv_sync(ipcconn_client *c, ipc_msg **out) {
  if (!c || !out || !c->sync || is_dead(c) || c->pclient_socket < 0) return IPCCONN_ERR_INVALID;
  bool check_type = !(c->pclient_flags & 0xA4000000u);
  uint16_t want_type =
      (c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? c->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  for (;;) {
    while (ipc_msg *m = ipc_msg_read(c->pclient_pipe)) {
      int verdict = ipcconn_screen_message(m, check_type, want_type, c->app_id, c, "ipcconn_client");
      if (verdict < 0) {
        ipc_pipe_read_clean(c->pclient_pipe);
        break;
      }
      if (verdict > 0) continue;
      *out = m;
      return m->length;
    }
    if (ipc_x_pipe_read(c->pclient_pipe) < 0) {
      if (errno == EINTR) continue;
      if (ipcconn_terminal_read_error(errno)) return IPCCONN_ERR_CLOSED;
      return IPCCONN_ERR_FAILED;
    }
  }
}

}  // extern "C"
