// The client's two event systems: the event library and the task kernel.
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

#include "internal.h"
#include "platform/sys.h"
#include "task/io.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

namespace {


int any_socket(ipcconn_client *, int domain, int type) {
  return tvx_sys.sys_socket(domain, type | SOCK_CLOEXEC, 0);
}

// ---- The event library ---------------------------------------------------------

void ev_connected(__evContext, void *uap, int fd, const void *, int, const void *, int) {
  auto *c = static_cast<ipcconn_client *>(uap);
  c->pclient_connect_active = 0;
  ipcconn_client_connector(c, fd >= 0);
}
void ev_read(__evContext, void *uap, int, int) { ipcconn_client_dispatch(static_cast<ipcconn_client *>(uap)); }
void ev_write(__evContext, void *uap, int, int) { ipcconn_client_write_ready(static_cast<ipcconn_client *>(uap)); }
void ev_timer(__evContext, void *uap, timespec, timespec) {
  auto *c = static_cast<ipcconn_client *>(uap);
  c->pclient_timer_active = 0;  // a one-shot's record is gone after this
  ipcconn_client_retry(c);
}
void ev_free(task_job *jp) {
  auto *c = static_cast<ipcconn_client *>(task_job_get_data(jp));
  task_job_delete(jp);
  ipcconn_client_destroy(c);
}

int ev_connect_start(ipcconn_client *c) {
  if (__evConnect(c->pclient_ev_context, c->pclient_socket, ipcconn_client_peer(c), static_cast<int>(ipcconn_client_peer_len(c)),
                  ev_connected, c, &c->pclient_connect_id) < 0)
    return -1;
  c->pclient_connect_active = 1;
  return 0;
}
int ev_select(ipcconn_client *c, int mask, __evFileFunc fn, __evFileID *id, uint8_t *active) {
  if (*active) return 0;
  if (__evSelectFD(c->pclient_ev_context, c->pclient_socket, mask, fn, c, id) < 0) return -1;
  *active = 1;
  return 0;
}
int ev_deselect(ipcconn_client *c, __evFileID id, uint8_t *active) {
  if (!*active) return 0;
  *active = 0;
  return __evDeselectFD(c->pclient_ev_context, id);
}
int ev_set_read(ipcconn_client *c) {
  return ev_select(c, EV_READ, ev_read, &c->pclient_read_id, &c->pclient_read_active);
}
int ev_clear_read(ipcconn_client *c) { return ev_deselect(c, c->pclient_read_id, &c->pclient_read_active); }
int ev_set_write(ipcconn_client *c) {
  return ev_select(c, EV_WRITE, ev_write, &c->pclient_write_id, &c->pclient_write_active);
}
int ev_clear_write(ipcconn_client *c) { return ev_deselect(c, c->pclient_write_id, &c->pclient_write_active); }
int ev_timer_start(ipcconn_client *c, uint32_t seconds) {
  timespec due = __evAddTime(__evNowTime(), __evConsTime(seconds, 0));
  if (__evSetTimer(c->pclient_ev_context, ev_timer, c, due, __evConsTime(0, 0), &c->pclient_timer_id) < 0) return -1;
  c->pclient_timer_active = 1;
  return 0;
}
void ev_timer_stop(ipcconn_client *c) {
  if (!c->pclient_timer_active) return;
  c->pclient_timer_active = 0;
  __evClearTimer(c->pclient_ev_context, c->pclient_timer_id);
}
// The next pass, whatever the clock does: the library has no call for that,
// and the kernel it runs on does.
int ev_delayed_free(ipcconn_client *c) {
  return task_job_create_foreground(task_scheduler_task(), "ipcconn free", ev_free, c) ? 0 : -1;
}
void ev_release(ipcconn_client *c) {
  ev_clear_read(c);
  ev_clear_write(c);
  ev_timer_stop(c);
  if (c->pclient_connect_active) {
    c->pclient_connect_active = 0;
    __evCancelConn(c->pclient_ev_context, c->pclient_connect_id);
  }
}

// ---- The task kernel -----------------------------------------------------------------
// The socket belongs to a task of the client's own, "ipcconn client", so that
// reads and writes can be watched apart; its timer and jobs hang on it too.

ipcconn_client *of(task *tp) { return static_cast<ipcconn_client *>(task_get_data(tp)); }

void t_read(task *tp) {
  if (ipcconn_client *c = of(tp)) ipcconn_client_dispatch(c);
}
void t_write(task *tp) {
  ipcconn_client *c = of(tp);
  if (!c) return;
  if (c->pclient_connect_active) {
    c->pclient_connect_active = 0;
    task_write_disable(tp);
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(c->pclient_socket, SOL_SOCKET, SO_ERROR, &err, &len) < 0) err = errno;
    ipcconn_client_connector(c, err == 0);
    return;
  }
  ipcconn_client_write_ready(c);
}
void t_connected_now(task_job *jp) {
  auto *c = static_cast<ipcconn_client *>(task_job_get_data(jp));
  task_job_delete(jp);
  c->pclient_job = nullptr;
  c->pclient_connect_active = 0;
  ipcconn_client_connector(c, true);
}
void t_timer(task_timer *tip, uint32_t) {
  auto *c = static_cast<ipcconn_client *>(task_timer_data(tip));
  task_timer_delete(tip);
  c->pclient_timer = nullptr;
  c->pclient_timer_active = 0;
  ipcconn_client_retry(c);
}
void t_free(task_job *jp) {
  auto *c = static_cast<ipcconn_client *>(task_job_get_data(jp));
  task_job_delete(jp);
  c->pclient_job = nullptr;
  ipcconn_client_destroy(c);
}

int t_connect_start(ipcconn_client *c) {
  task *tp = c->pclient_io_task;
  task_set_recv(tp, t_read);
  task_set_write(tp, t_write);
  task_flag_set(tp, TASK_FLAG_READDISABLE | TASK_FLAG_WRITEDISABLE);
  task_set_socket(tp, c->pclient_socket);
  int rc;
  do rc = connect(c->pclient_socket, ipcconn_client_peer(c), ipcconn_client_peer_len(c));
  while (rc < 0 && errno == EINTR);
  if (rc < 0 && errno != EINPROGRESS) {
    int err = errno;
    task_reset_socket(tp);
    errno = err;
    return -1;
  }
  c->pclient_connect_active = 1;
  if (rc == 0) {
    // Completed at once (always, for a Unix socket): reported in the next pass all the same.
    c->pclient_job = task_job_create_foreground(tp, "ipcconn connect", t_connected_now, c);
  } else {
    task_write_enable(tp);
  }
  return 0;
}
int t_set_read(ipcconn_client *c) {
  c->pclient_read_active = 1;
  task_read_enable(c->pclient_io_task);
  return 0;
}
int t_clear_read(ipcconn_client *c) {
  c->pclient_read_active = 0;
  task_read_disable(c->pclient_io_task);
  return 0;
}
int t_set_write(ipcconn_client *c) {
  c->pclient_write_active = 1;
  task_write_enable(c->pclient_io_task);
  return 0;
}
int t_clear_write(ipcconn_client *c) {
  c->pclient_write_active = 0;
  task_write_disable(c->pclient_io_task);
  return 0;
}
int t_timer_start(ipcconn_client *c, uint32_t seconds) {
  task_utime offset{seconds, 0};
  if (c->pclient_timer) task_timer_delete(c->pclient_timer);
  c->pclient_timer = task_timer_ucreate(c->pclient_io_task, "ipcconn retry", 0, nullptr, &offset, 0, t_timer, c);
  if (!c->pclient_timer) return -1;
  c->pclient_timer_active = 1;
  return 0;
}
void t_timer_stop(ipcconn_client *c) {
  if (c->pclient_timer) task_timer_delete(c->pclient_timer);
  c->pclient_timer = nullptr;
  c->pclient_timer_active = 0;
}
int t_delayed_free(ipcconn_client *c) {
  c->pclient_job = task_job_create_foreground(c->pclient_io_task, "ipcconn free", t_free, c);
  return c->pclient_job ? 0 : -1;
}
void t_release(ipcconn_client *c) {
  t_timer_stop(c);
  if (c->pclient_job) task_job_delete(c->pclient_job);
  c->pclient_job = nullptr;
  c->pclient_connect_active = c->pclient_read_active = c->pclient_write_active = 0;
  task_reset_socket(c->pclient_io_task);  // forgets the registrations; the client closes the socket
}

bool retry_active(const ipcconn_client *c) { return c->pclient_timer_active; }
bool write_active(const ipcconn_client *c) { return c->pclient_write_active; }

}  // namespace

extern "C" {

const ipcconn_func ipcconn_func_ev = {
    any_socket,    ev_connect_start, ev_set_read,     ev_clear_read,   ev_set_write, ev_clear_write,
    retry_active,  write_active,     ev_timer_start,  ev_timer_stop,   ev_delayed_free, ev_release,
    ipcconn_srv_ev::listen, ipcconn_srv_ev::server_release, ipcconn_srv_ev::session_attach,
    ipcconn_srv_ev::set_read, ipcconn_srv_ev::clear_read, ipcconn_srv_ev::set_write, ipcconn_srv_ev::clear_write,
    ipcconn_session_write_active, ipcconn_srv_ev::timer_start, ipcconn_srv_ev::delayed_free,
    ipcconn_srv_ev::session_release};
const ipcconn_func ipcconn_func_task = {
    any_socket,    t_connect_start, t_set_read,     t_clear_read,  t_set_write,    t_clear_write,
    retry_active,  write_active,    t_timer_start,  t_timer_stop,  t_delayed_free, t_release,
    ipcconn_srv_task::listen, ipcconn_srv_task::server_release, ipcconn_srv_task::session_attach,
    ipcconn_srv_task::set_read, ipcconn_srv_task::clear_read, ipcconn_srv_task::set_write,
    ipcconn_srv_task::clear_write, ipcconn_session_write_active, ipcconn_srv_task::timer_start,
    ipcconn_srv_task::delayed_free, ipcconn_srv_task::session_release};

const ipcconn_func *ipcconn_client_func(const ipcconn_client *clnt) {
  if (clnt->sync) return &ipcconn_func_sync;
  return clnt->pclient_ev_context.opaque ? &ipcconn_func_ev : &ipcconn_func_task;
}

const ipcconn_func *ipcconn_server_func(const ipcconn_server *server) {
  return server->ev_context.opaque ? &ipcconn_func_ev : &ipcconn_func_task;
}

}  // extern "C"
