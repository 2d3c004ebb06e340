// A session's sending: the client's path (straight to the socket when
// nothing waits, else the queue, drained on write-ready) with the server's
// thresholds and back-pressure.
#include <cerrno>

#include "internal.h"

namespace {

bool is_dead(const ipcconn_session *s) { return s->psession_flags & IPCCONN_FLAG_DEAD; }
void *vp(const void *p) { return const_cast<void *>(p); }

int send_internal(ipcconn_session *s, uint32_t subtype, const void *buf, uint32_t length, bool external) {
  IPCCONN_INSIST(ipc_pipe_write_is_empty(s->psession_pipe));
  uint16_t type =
      (s->psession_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? s->server->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  return ipcconn_msg_send(s->psession_pipe, type, subtype, buf, length, external);
}

void terminal(ipcconn_session *s, int err) {
  ipcconn_server *srv = s->server;
  ipcconn_log(IPCCONN_LOG_ERROR,
              "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_session (%p), failed with terminal error (%d)", __func__,
              __LINE__, srv->pid, srv->app_id, vp(s), err);
  ipcconn_session_close(s);
}

// Zero means no limit for high and medium; low has no such exception.
bool refused(const ipcconn_server *srv, int priority, uint32_t depth) {
  switch (priority) {
    case IPCCONN_MSG_PRIORITY_HIGH:
      return srv->threshold_high != 0 && depth >= srv->threshold_high;
    case IPCCONN_MSG_PRIORITY_MEDIUM:
      return srv->threshold_medium != 0 && depth >= srv->threshold_medium;
    default:
      return depth >= srv->threshold_low;
  }
}

int queue_store(ipcconn_session *s, uint32_t subtype, const void *buf, uint32_t length, int priority, bool external,
                bool partial) {
  ipcconn_server *srv = s->server;
  uint32_t depth = s->counters.current_depth;
  if (!partial && refused(srv, priority, depth)) {
    s->counters.queue_failed++;
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), failed to store message - subtype %d, priority %d, "
                "current %d, high %d, med %d, low %d",
                __func__, __LINE__, srv->app_id, vp(s), subtype, priority, depth, srv->threshold_high,
                srv->threshold_medium, srv->threshold_low);
    return IPCCONN_ERR_THRESHOLD;
  }
  ipcconn_pending *r = ipcconn_pending_new(srv->malloc_fn, subtype, buf, length, external, partial);
  if (!r) {
    s->counters.queue_failed++;
    return IPCCONN_ERR_NOMEM;
  }
  ipcconn_pending_append(s->pending_head, s->pending_tail, r);
  s->counters.current_depth++;
  s->counters.queue_stored++;
  uint32_t bp = srv->threshold_backpressure;
  if (bp && s->counters.current_depth >= bp && !s->backpressure) {
    s->backpressure = 1;
    ipcconn_log(IPCCONN_LOG_DEBUG,
                "DEBUG: %s [%d] app-id (%d-%d), ipcconn_session (%p), backpressure enabled - current %d, threshold %d",
                __func__, __LINE__, srv->app_id, s->peer_app_id, vp(s), s->counters.current_depth, bp);
    return ipcconn_session_give_event(s, IPCCONN_EVENT_BACKPRESSURE);
  }
  return 0;
}

void queue_remove(ipcconn_session *s, ipcconn_pending *r) {
  ipcconn_server *srv = s->server;
  ipcconn_pending_unlink(s->pending_head, s->pending_tail, r);
  s->counters.current_depth--;
  s->counters.sent_from_queue++;
  uint64_t now = ipcconn_now_us();
  s->counters.total_delay_us += now > r->timestamp_us ? now - r->timestamp_us : 0;
  ipcconn_pending_release(srv->free_fn, r);
  uint32_t bp = srv->threshold_backpressure;
  if (s->backpressure && s->counters.current_depth + bp / 20 < bp) {
    s->backpressure = 0;
    ipcconn_log(IPCCONN_LOG_DEBUG,
                "DEBUG: %s [%d] app-id (%d-%d), ipcconn_session (%p), backpressure disabled, current %d, threshold %d",
                __func__, __LINE__, srv->app_id, s->peer_app_id, vp(s), s->counters.current_depth, bp);
    ipcconn_session_give_event(s, IPCCONN_EVENT_BACKPRESSURE);
  }
}

int send_common(ipcconn_session *s, uint32_t subtype, const void *buf, uint32_t length, int priority, bool external) {
  if (!s) return IPCCONN_ERR_INVALID;
  ipcconn_server *srv = s->server;
  if (is_dead(s) || s->psession_socket == -1 || s == srv->dgram_session) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), socket inactive for session (%p)",
                __func__, __LINE__, srv->app_id, vp(s), vp(s));
    return IPCCONN_ERR_INVALID;
  }
  if (length + IPC_PIPE_OVERHEAD > srv->bufsize || (!buf && length)) {
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_session (%p), message length (%d) plus overhead (%d) is greater "
                "than the configured buffer size (%d)",
                __func__, __LINE__, srv->app_id, vp(s), length, IPC_PIPE_OVERHEAD, srv->bufsize);
    return IPCCONN_ERR_INVALID;
  }
  const ipcconn_func *f = ipcconn_server_func(srv);
  if (s->pending_head) {
    IPCCONN_INSIST(f->server_is_write_ready_active(s));
    return queue_store(s, subtype, buf, length, priority, external, false);
  }
  int rc = send_internal(s, subtype, buf, length, external);
  if (rc == 0) {
    s->counters.sent_immediately++;
    if (external) ipcconn_app_free(srv->free_fn, const_cast<void *>(buf));
    return 0;
  }
  int err = errno;
  if (rc == IPC_PIPE_PARTIAL || ipcconn_send_retryable(err)) {
    int stored = queue_store(s, subtype, buf, length, priority, external, rc == IPC_PIPE_PARTIAL);
    if ((stored != 0 && stored != IPCCONN_ERR_BACKPRESSURE) || is_dead(s)) return stored;
    if (f->set_session_write_ready(s) < 0) return IPCCONN_ERR_SOCKET;
    return stored;
  }
  s->counters.not_sent++;
  terminal(s, err);
  return IPCCONN_ERR_PIPE;
}

}  // namespace

void ipcconn_session_queue_free(ipcconn_session *s) {
  while (ipcconn_pending *r = s->pending_head) {
    ipcconn_pending_unlink(s->pending_head, s->pending_tail, r);
    s->counters.current_depth--;
    ipcconn_pending_release(s->server->free_fn, r);
  }
  s->backpressure = 0;
}

extern "C" {

int ipcconn_server_send(ipcconn_session *s, uint32_t subtype, const void *buf, uint32_t length, int priority) {
  return send_common(s, subtype, buf, length, priority, false);
}

int ipcconn_server_send_external(ipcconn_session *s, uint32_t subtype, void *buf, uint32_t length, int priority) {
  return send_common(s, subtype, buf, length, priority, true);
}

void ipcconn_session_write_ready(ipcconn_session *s) {
  if (is_dead(s) || !s->psession_pipe) return;
  uint64_t start = ipcconn_clock_us();
  for (int n = 0; n < IPCCONN_DRAIN_BUDGET; n++) {
    if (n > 0 && ipcconn_clock_us() - start >= IPCCONN_LOOP_BOUND_US) return;
    ipcconn_pending *r = s->pending_head;
    if (!r) {
      ipcconn_server_func(s->server)->clear_session_write_ready(s);
      ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_session (%p), unregisted from write ready",
                  __func__, __LINE__, s->server->app_id, vp(s));
      return;
    }
    int rc = r->partially_written ? ipc_x_pipe_write(s->psession_pipe)
                                  : send_internal(s, r->subtype, ipcconn_pending_data(r), r->length, r->external);
    if (rc == 0) {
      queue_remove(s, r);
      if (is_dead(s)) return;
      continue;
    }
    int err = errno;
    if (rc == IPC_PIPE_PARTIAL || ipcconn_send_retryable(err)) {
      if (rc == IPC_PIPE_PARTIAL) r->partially_written = 1;
      return;
    }
    return terminal(s, err);
  }
}

}  // extern "C"
