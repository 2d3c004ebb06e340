// The client's sending: straight to the socket when nothing waits, else the
// queue, with its thresholds, back-pressure, and the drain on write-ready.
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "htimer/utime.h"
#include "internal.h"
#include "task/sched.h"

namespace {

bool is_dead(const ipcconn_client *c) { return c->pclient_flags & IPCCONN_FLAG_DEAD; }

int send_internal(ipcconn_client *c, uint32_t subtype, const void *buf, uint32_t length, bool external) {
  uint16_t type = (c->pclient_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? c->interop_type : uint16_t{IPCCONN_MSG_TYPE};
  return ipcconn_msg_send(c->pclient_pipe, type, subtype, buf, length, external);
}

void terminal(ipcconn_client *c, int err) {
  ipcconn_log(IPCCONN_LOG_ERROR,
              "ERROR: %s [%d] pid (%d), app-id (%d), ipcconn_client (%p), failed with terminal error (%d)", __func__,
              __LINE__, c->pid, c->app_id, static_cast<void *>(c), err);
  ipcconn_client_restart(c);
}

uint32_t threshold_of(const ipcconn_client *c, int priority) {
  switch (priority) {
    case IPCCONN_MSG_PRIORITY_HIGH:
      return c->threshold_high;
    case IPCCONN_MSG_PRIORITY_MEDIUM:
      return c->threshold_medium;
    default:
      return c->threshold_low;
  }
}

// Appends the message. A partly written one is always taken: the pipe
// already holds its rest. 0, -102, -104, or -201 (stored; see the header).
int queue_store(ipcconn_client *c, uint32_t subtype, const void *buf, uint32_t length, int priority, bool external,
                bool partial) {
  uint32_t depth = c->counters.current_depth, limit = threshold_of(c, priority);
  if (!partial && limit != 0 && depth >= limit) {
    c->counters.queue_failed++;
    ipcconn_log(IPCCONN_LOG_ERROR,
                "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), failed to store message, subtype %d, priority %d, "
                "current %d, high %d, med %d, low %d",
                __func__, __LINE__, c->app_id, static_cast<void *>(c), subtype, priority, depth, c->threshold_high,
                c->threshold_medium, c->threshold_low);
    return IPCCONN_ERR_THRESHOLD;
  }
  ipcconn_pending *r = ipcconn_pending_new(c->malloc_fn, subtype, buf, length, external, partial);
  if (!r) {
    c->counters.queue_failed++;
    return IPCCONN_ERR_NOMEM;
  }
  ipcconn_pending_append(c->pending_head, c->pending_tail, r);
  c->counters.current_depth++;
  c->counters.queue_stored++;
  uint32_t bp = c->threshold_backpressure;
  if (bp && c->counters.current_depth >= bp && !c->backpressure) {
    c->backpressure = 1;
    ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_client (%p), backpressure enabled - current %d",
                __func__, __LINE__, c->app_id, static_cast<void *>(c), c->counters.current_depth);
    return ipcconn_give_event(c, IPCCONN_EVENT_BACKPRESSURE);
  }
  return 0;
}

void unlink_record(ipcconn_client *c, ipcconn_pending *r) {
  ipcconn_pending_unlink(c->pending_head, c->pending_tail, r);
  c->counters.current_depth--;
}

// A record that has gone. Back-pressure ends once the depth is 5 % below its
// threshold, so that it does not flap at the edge.
void queue_remove(ipcconn_client *c, ipcconn_pending *r) {
  unlink_record(c, r);
  c->counters.sent_from_queue++;
  uint64_t now = ipcconn_now_us();
  c->counters.total_delay_us += now > r->timestamp_us ? now - r->timestamp_us : 0;
  ipcconn_pending_release(c->free_fn, r);
  uint32_t bp = c->threshold_backpressure;
  if (c->backpressure && c->counters.current_depth + bp / 20 < bp) {
    c->backpressure = 0;
    ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_client (%p), backpressure disabled - current %d",
                __func__, __LINE__, c->app_id, static_cast<void *>(c), c->counters.current_depth);
    ipcconn_give_event(c, IPCCONN_EVENT_BACKPRESSURE);
  }
}

int send_common(ipcconn_client *c, uint32_t subtype, const void *buf, uint32_t length, int priority, bool external) {
  if (!c) return IPCCONN_ERR_INVALID;
  if (!IPCCONN_INSIST(pthread_equal(pthread_self(), c->pclient_thread_id))) return IPCCONN_ERR_INVALID;
  if (is_dead(c) || c->pclient_socket == -1) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), socket inactive for client (%p)",
                __func__, __LINE__, c->app_id, static_cast<void *>(c), static_cast<void *>(c));
    return IPCCONN_ERR_INVALID;
  }
  if (!ipcconn_client_length_ok(c, buf, length)) return IPCCONN_ERR_INVALID;
  const ipcconn_func *f = ipcconn_client_func(c);
  if (c->pclient_flags & IPCCONN_FLAG_CONNECT_PENDING)
    return queue_store(c, subtype, buf, length, priority, external, false);
  if (c->pending_head) {
    IPCCONN_INSIST(f->client_is_write_ready_active(c));
    return queue_store(c, subtype, buf, length, priority, external, false);
  }
  if (!ipc_pipe_write_is_empty(c->pclient_pipe)) {
    c->counters.not_sent++;
    return IPCCONN_ERR_PIPE;
  }
  int rc = send_internal(c, subtype, buf, length, external);
  if (rc == 0) {
    c->counters.sent_immediately++;
    if (external) ipcconn_app_free(c->free_fn, const_cast<void *>(buf));
    return 0;
  }
  int err = errno;
  if (rc == IPC_PIPE_PARTIAL || ipcconn_send_retryable(err)) {
    int stored = queue_store(c, subtype, buf, length, priority, external, rc == IPC_PIPE_PARTIAL);
    if ((stored != 0 && stored != IPCCONN_ERR_BACKPRESSURE) || is_dead(c)) return stored;
    if (f->set_client_write_ready(c) < 0) return IPCCONN_ERR_SOCKET;
    return stored;
  }
  c->counters.not_sent++;
  terminal(c, err);
  return IPCCONN_ERR_PIPE;
}

}  // namespace

bool ipcconn_client_length_ok(const ipcconn_client *c, const void *buf, uint32_t length) {
  if (length + IPC_PIPE_OVERHEAD <= c->bufsize && (buf || !length)) return true;
  ipcconn_log(IPCCONN_LOG_ERROR,
              "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), message length (%d) plus overhead (%d) is greater "
              "than the configured buffer size (%d)",
              __func__, __LINE__, c->app_id, const_cast<void *>(static_cast<const void *>(c)), length,
              IPC_PIPE_OVERHEAD, c->bufsize);
  return false;
}

void ipcconn_client_queue_free(ipcconn_client *c) {
  while (ipcconn_pending *r = c->pending_head) {
    unlink_record(c, r);
    ipcconn_pending_release(c->free_fn, r);
  }
  c->backpressure = 0;
}

extern "C" {

int ipcconn_client_send(ipcconn_client *c, uint32_t subtype, const void *buf, uint32_t length, int priority) {
  return send_common(c, subtype, buf, length, priority, false);
}

int ipcconn_client_send_external(ipcconn_client *c, uint32_t subtype, void *buf, uint32_t length, int priority) {
  return send_common(c, subtype, buf, length, priority, true);
}

void ipcconn_client_write_ready(ipcconn_client *c) {
  if (is_dead(c) || !c->pclient_pipe) return;
  if (c->pclient_flags & IPCCONN_FLAG_CONNECT_PENDING) {
    ipcconn_log(IPCCONN_LOG_ERROR, "ERROR: %s [%d] app-id (%d), ipcconn_client (%p), write ready while connecting",
                __func__, __LINE__, c->app_id, static_cast<void *>(c));
    return;
  }
  // The rest of a message that is no record (the identification) goes first.
  if (!ipc_pipe_write_is_empty(c->pclient_pipe) && !(c->pending_head && c->pending_head->partially_written)) {
    int rc = ipc_x_pipe_write(c->pclient_pipe);
    if (rc == IPC_PIPE_PARTIAL) return;
    if (rc < 0) return terminal(c, errno);
  }
  uint64_t start = ipcconn_clock_us();
  for (int n = 0; n < IPCCONN_DRAIN_BUDGET; n++) {
    // The rest waits for the next write-ready, which stays on.
    if (n > 0 && ipcconn_clock_us() - start >= IPCCONN_LOOP_BOUND_US) return;
    ipcconn_pending *r = c->pending_head;
    if (!r) {
      ipcconn_client_func(c)->clear_client_write_ready(c);
      ipcconn_log(IPCCONN_LOG_DEBUG, "DEBUG: %s [%d] app-id (%d), ipcconn_client (%p), unregisted from write ready",
                  __func__, __LINE__, c->app_id, static_cast<void *>(c));
      return;
    }
    int rc = r->partially_written
                 ? ipc_x_pipe_write(c->pclient_pipe)
                 : send_internal(c, r->subtype, ipcconn_pending_data(r), r->length, r->external);
    if (rc == 0) {
      queue_remove(c, r);
      if (is_dead(c)) return;  // closed by the back-pressure event's callback
      continue;
    }
    int err = errno;
    if (rc == IPC_PIPE_PARTIAL || ipcconn_send_retryable(err)) {
      if (rc == IPC_PIPE_PARTIAL) r->partially_written = 1;
      return;
    }
    return terminal(c, err);
  }
}

}  // extern "C"
