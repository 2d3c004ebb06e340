// libstats sessions: connect to cntd over an ipcconn client, its connection
// events, sending, and the reading of replies into the handlers by type.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "evlog/evlog.h"
#include "ipc/ipcconn.h"
#include "libstats_int.h"

namespace {
libstats_log_fn log_hook = nullptr;
void default_sleep(unsigned s) { sleep(s); }
void (*sleep_hook)(unsigned) = default_sleep;

constexpr uint32_t kRetryLimit = 1000, kThresholdHigh = 30000, kThresholdBackpressure = 15000;
constexpr int kBlockingTries = 60;

void vlog(bool error, const char *fmt, va_list ap) {
  char line[512];
  vsnprintf(line, sizeof line, fmt, ap);
  if (log_hook)
    log_hook(error, line);
  else
    logging(error ? LOG_ERR : LOG_DEBUG, "%s", line);
}
}  // namespace

void ls_log(bool error, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vlog(error, fmt, ap);
  va_end(ap);
}

bool ls_insist(bool ok, const char *expr, const char *file, int line) {
  if (!ok) ls_log(true, "%s:%d: insist '%s' failed", file, line, expr);
  return ok;
}

int ls_fail(libstats_session *s, int kind, int cls, int status, const char *fmt, ...) {
  if (s && kind >= 0 && kind < LIBSTATS_KIND_COUNT && cls >= 0 && cls < LIBSTATS_ERR_CLASS_COUNT)
    s->counters.errors[kind][cls]++;
  va_list ap;
  va_start(ap, fmt);
  vlog(true, fmt, ap);
  va_end(ap);
  return status;
}

void libstats_set_log_hook(libstats_log_fn fn) { log_hook = fn; }
void libstats_set_sleep_hook(void (*fn)(unsigned)) { sleep_hook = fn ? fn : default_sleep; }
void libstats_force_link(void) {}

const char *libstats_cntd_path(void) {
  const char *env = getenv("CNTD_PATH");
  return env && *env ? env : "/var/run/libstats-cntd";
}

libstats_session *libstats_session_create(const char *app_name, task *tp) {
  auto *s = static_cast<libstats_session *>(calloc(1, sizeof(libstats_session)));
  if (!s) return nullptr;
  snprintf(s->app_name, sizeof s->app_name, "%s", app_name ? app_name : "");
  s->app_index = libstats_app_index(app_name);
  s->ptask = tp;
  return s;
}

void libstats_session_destroy(libstats_session *s) {
  if (!s) return;
  libstats_disconnect(s);
  ls_trace_off(s);
  ls_mobile_q_free(s);
  free(s->scratch);
  free(s);
}

int libstats_connect(libstats_session *s) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (s->ipcconn_client_active) {
    ls_log(false, "already extant socket for session = %p", static_cast<void *>(s));
    return LIBSTATS_SUCCESS;
  }
  ipcconn_client_params p{};
  p.ptask = s->ptask;
  p.peer_path = libstats_cntd_path();
  p.event_cb = libstats_conn_event_handler;
  p.msg_cb = libstats_process_msg;
  p.cookie = s;
  p.app_id = s->app_index;
  p.pid = static_cast<uint32_t>(getpid());
  p.threshold_high = kThresholdHigh;
  p.threshold_backpressure = kThresholdBackpressure;
  bool blocking = s->session_flags & LIBSTATS_SESSION_BLOCKING;
  p.max_retries = blocking ? 0 : kRetryLimit;
  ipcconn_client *c = nullptr;
  for (int i = 0; i < (blocking ? kBlockingTries : 1) && !c; i++) {
    if (i) sleep_hook(1);
    c = ipcconn_uds_client_connect(&p);
  }
  if (!c)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_IPC, LIBSTATS_SOCKET_CONNECT_FAILURE,
                   "Failed to initialize the ipcconn_client connection to the cntd, errno:%s", strerror(errno));
  s->ipcconn_client = c;
  s->ipcconn_client_active = 1;
  return LIBSTATS_SUCCESS;
}

int libstats_disconnect(libstats_session *s) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (s->ipcconn_client) ipcconn_client_close(s->ipcconn_client);
  s->ipcconn_client = nullptr;
  s->ipcconn_client_active = 0;
  return LIBSTATS_SUCCESS;
}

void libstats_conn_event_handler(ipcconn_client *client, int event, void *cookie) {
  auto *s = static_cast<libstats_session *>(cookie);
  if (!LS_INSIST(s && s->ipcconn_client != 0) || !LS_INSIST(s->ipcconn_client == client)) return;
  switch (event) {
    case IPCCONN_EVENT_CONNECTED:
      ls_log(false, "established, ipcconn_client = %p, session = %p", static_cast<void *>(client), cookie);
      if (s->cb.conn) s->cb.conn(s, LIBSTATS_SOCKET_OPEN, s->app_ctx);
      break;
    case IPCCONN_EVENT_CLOSED:
      ls_log(false, "shutdown, ipcconn_client = %p, session = %p", static_cast<void *>(client), cookie);
      if (s->cb.conn) s->cb.conn(s, LIBSTATS_SOCKET_CLOSED, s->app_ctx);
      break;
    case IPCCONN_EVENT_FAILED:
      ls_log(true, "failed, ipcconn_client = %p, session = %p", static_cast<void *>(client), cookie);
      // The client closes itself after this event: the next send makes a new one.
      s->ipcconn_client = nullptr;
      s->ipcconn_client_active = 0;
      if (s->cb.conn) s->cb.conn(s, LIBSTATS_SOCKET_CLOSED, s->app_ctx);
      break;
    case IPCCONN_EVENT_BACKPRESSURE:
      s->counters.backpressure++;
      ls_trace(s, LIBSTATS_TRACE_NORMAL, "back-pressure, ipcconn_client = %p", static_cast<void *>(client));
      break;
    default:
      ls_trace(s, LIBSTATS_TRACE_NORMAL, "unknown event = %d for ipcconn_client = %p, cookie = %p", event,
               static_cast<void *>(client), cookie);
  }
}

int libstats_send_msg_to_cntd(libstats_session *s, const void *msg, uint32_t len) {
  if (!s) return LIBSTATS_NULL_SESSION;
  if (!msg || len < LS_HDR_LEN) return LIBSTATS_INVALID_ARG;
  if (!s->ipcconn_client_active) {
    if (int st = libstats_connect(s)) return st;
    LS_INSIST(s->ipcconn_client_active);
  }
  uint32_t type = ls_get32(static_cast<const uint8_t *>(msg) + 8);
  int rc = ipcconn_client_send(s->ipcconn_client, type, msg, len, IPCCONN_MSG_PRIORITY_HIGH);
  if (rc == 0 || rc == IPCCONN_ERR_BACKPRESSURE) {
    s->counters.sends++;
    if (type < LIBSTATS_TYPE_SLOTS) s->counters.requests[type]++;
    if (rc == IPCCONN_ERR_BACKPRESSURE) libstats_conn_event_handler(s->ipcconn_client, IPCCONN_EVENT_BACKPRESSURE, s);
    return LIBSTATS_SUCCESS;
  }
  s->counters.send_failures++;
  if (rc == IPCCONN_ERR_CLOSED) {
    libstats_conn_event_handler(s->ipcconn_client, IPCCONN_EVENT_CLOSED, s);
    return LIBSTATS_SOCKET_CLOSED;
  }
  if (rc == IPCCONN_ERR_FAILED) {
    libstats_conn_event_handler(s->ipcconn_client, IPCCONN_EVENT_FAILED, s);
    return LIBSTATS_SOCKET_CLOSED;
  }
  if (rc >= IPCCONN_ERR_FAILED && rc <= IPCCONN_ERR_INVALID)
    return ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_IPC, LIBSTATS_SOCKET_IPC_FAILURE,
                   "send of type %u to cntd failed: %d, client flags 0x%x, queue depth %u", type, rc,
                   s->ipcconn_client->pclient_flags, s->ipcconn_client->counters.current_depth);
  return LIBSTATS_UNKNOWN_ERROR;
}

uint32_t ls_next_id(libstats_session *s) {
  uint32_t id = s->seq++;
  if (s->seq == UINT32_MAX) s->seq = 0;
  return id;
}

int libstats_process_msg(ipcconn_client *client, uint8_t *, uint32_t, ipc_msg *msg, void *cookie) {
  auto *s = static_cast<libstats_session *>(cookie);
  if (!LS_INSIST(s && s->ipcconn_client == client) || !LS_INSIST(msg->length != 0)) {
    if (s) s->counters.dropped++;
    return 0;
  }
  uint32_t len = msg->length;
  auto *buf = static_cast<uint8_t *>(malloc(len));
  if (!buf) {
    if (!s->alloc_failure_reported)
      ls_fail(s, LIBSTATS_KIND_FULL, LIBSTATS_ERR_MEMORY, LIBSTATS_MEMORY_ALLOC_FAILURE,
              "no memory for a reply of %u bytes from cntd", len);
    s->alloc_failure_reported = 1;
    s->counters.dropped++;
    return 0;
  }
  memcpy(buf, ipc_msg_payload(msg), len);
  ls_hdr h;
  if (!ls_hdr_read(buf, len, &h)) {
    ls_trace(s, LIBSTATS_TRACE_NORMAL, "malformed message of subtype %u, %u bytes", msg->subtype, len);
    s->counters.dropped++;
    free(buf);
    return 0;
  }
  if (h.type < LIBSTATS_TYPE_SLOTS) s->counters.replies[h.type]++;
  bool kept = false;
  ls_reply r{};
  switch (h.type) {
    case LS_IFLSTATS_FULL_REPLY:
    case LS_IFLSTATS_FULL_ASYNC_REPLY:
    case LS_IFLSETSTATS_FULL_REPLY:
      if (ls_reply_read(buf, len, &r))
        kept = ls_handle_ifl_reply(s, r, buf);
      else
        s->counters.dropped++;
      break;
    case LS_SUBSTATS_REPLY:
    case LS_SUBSTATS_OTHER_REPLY:
    case LS_SERVSTATS_REPLY:
    case LS_MCAST_REPLY:
      if (ls_reply_read(buf, len, &r))
        kept = ls_handle_acct_reply(s, r, buf);
      else
        s->counters.dropped++;
      break;
    case LS_MOBILESTATS_REPLY:
    case LS_MOBILESTATS_OTHER_REPLY:
      kept = ls_handle_mobile_reply(s, buf, len);
      break;
    case LS_TRACE_ON:
      ls_trace_on(s, buf + LS_HDR_LEN, len - LS_HDR_LEN);
      break;
    case LS_TRACE_OFF:
      ls_trace_off(s);
      break;
    case LS_SUSPEND_ACC_STATUS_REPLY:
    case LS_SUSPEND_ACC_RESUME_REPLY:
    case LS_SUSPEND_ACC_BASELINE_REPLY:
    case LS_SUSPEND_ACC_REPLY: {
      uint32_t st = len >= LS_HDR_LEN + 4 ? ls_get32(buf + LS_HDR_LEN) : 0;
      const char *what = h.type == LS_SUSPEND_ACC_STATUS_REPLY ? "status "
                         : h.type == LS_SUSPEND_ACC_RESUME_REPLY ? "resume "
                         : h.type == LS_SUSPEND_ACC_BASELINE_REPLY ? "baseline "
                                                                   : "";
      ls_log(false, "suspend_acc %sreply status:0x%x", what, st);
      break;
    }
    default:
      s->counters.unknown++;
      ls_trace(s, LIBSTATS_TRACE_NORMAL, "unknown message type %u, %u bytes", h.type, len);
  }
  if (!kept) free(buf);
  return 0;
}

// ---- Trace --------------------------------------------------------------------------
void ls_trace(libstats_session *s, uint32_t flag, const char *fmt, ...) {
  if (!s || !s->trace_file || !(s->trace_flags & flag)) return;
  va_list ap;
  va_start(ap, fmt);
  vfprintf(static_cast<FILE *>(s->trace_file), fmt, ap);
  va_end(ap);
  fputc('\n', static_cast<FILE *>(s->trace_file));
  fflush(static_cast<FILE *>(s->trace_file));
}
