// The server's two event systems: the event library and the task kernel.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "internal.h"
#include "task/io.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

bool ipcconn_session_write_active(const ipcconn_session *s) { return s->write_active; }

namespace {

// Accepts what waits, up to the budget; one at a time in interoperate mode,
// where an accept calls the application, which may shut the server down.
void accept_some(ipcconn_server *srv, int fd) {
  int budget = (srv->ipcconn_flags & IPCCONN_FLAG_INTEROPERATE_MODE) ? 1 : IPCCONN_ACCEPT_BUDGET;
  for (int i = 0; i < budget; i++) {
    sockaddr_storage peer{};
    socklen_t len = sizeof peer;
    int s = accept4(fd, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (s < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) return;
      ipcconn_server_accept(srv, -1, nullptr, 0);
      return;
    }
    ipcconn_server_accept(srv, s, reinterpret_cast<sockaddr *>(&peer), len);
  }
}

}  // namespace

// ---- The event library ---------------------------------------------------------------

namespace {

void ev_accept(__evContext, void *uap, int fd, int) { accept_some(static_cast<ipcconn_server *>(uap), fd); }
void ev_read(__evContext, void *uap, int, int) { ipcconn_server_dispatch(static_cast<ipcconn_session *>(uap)); }
void ev_write(__evContext, void *uap, int, int) { ipcconn_session_write_ready(static_cast<ipcconn_session *>(uap)); }
void ev_tick(__evContext, void *uap, timespec, timespec) {
  ipcconn_session_keepalive(static_cast<ipcconn_session *>(uap));
}
void ev_free(task_job *jp) {
  auto *s = static_cast<ipcconn_session *>(task_job_get_data(jp));
  task_job_delete(jp);
  ipcconn_session_destroy(s);
}

}  // namespace

namespace ipcconn_srv_ev {

int listen(ipcconn_server *srv, int backlog) {
  if (::listen(srv->server_socket, backlog) < 0) return -1;
  if (__evSelectFD(srv->ev_context, srv->server_socket, EV_READ, ev_accept, srv, &srv->server_event_id) < 0)
    return -1;
  srv->listen_active = 1;
  return 0;
}
void server_release(ipcconn_server *srv) {
  if (!srv->listen_active) return;
  srv->listen_active = 0;
  __evDeselectFD(srv->ev_context, srv->server_event_id);
}
int session_attach(ipcconn_session *) { return 0; }
int set_read(ipcconn_session *s) {
  if (s->read_active) return 0;
  if (__evSelectFD(s->psession_ev_context, s->psession_socket, EV_READ, ev_read, s, &s->psession_read_id) < 0)
    return -1;
  s->read_active = 1;
  return 0;
}
int clear_read(ipcconn_session *s) {
  if (!s->read_active) return 0;
  s->read_active = 0;
  return __evDeselectFD(s->psession_ev_context, s->psession_read_id);
}
int set_write(ipcconn_session *s) {
  if (s->write_active) return 0;
  if (__evSelectFD(s->psession_ev_context, s->psession_socket, EV_WRITE, ev_write, s, &s->psession_write_id) < 0)
    return -1;
  s->write_active = 1;
  return 0;
}
int clear_write(ipcconn_session *s) {
  if (!s->write_active) return 0;
  s->write_active = 0;
  return __evDeselectFD(s->psession_ev_context, s->psession_write_id);
}
int timer_start(ipcconn_session *s, uint32_t seconds) {
  timespec every = __evConsTime(seconds, 0);
  if (__evSetTimer(s->psession_ev_context, ev_tick, s, __evAddTime(__evNowTime(), every), every,
                   &s->psession_timer_id) < 0)
    return -1;
  s->timer_active = 1;
  return 0;
}
// In the next pass, on the scheduler's task: the context may be gone by then.
int delayed_free(ipcconn_session *s) {
  return task_job_create_foreground(task_scheduler_task(), "ipcconn session free", ev_free, s) ? 0 : -1;
}
void session_release(ipcconn_session *s) {
  clear_read(s);
  clear_write(s);
  if (s->timer_active) {
    s->timer_active = 0;
    __evClearTimer(s->psession_ev_context, s->psession_timer_id);
  }
}

}  // namespace ipcconn_srv_ev

// ---- The task kernel -------------------------------------------------------------------
// The listener has a task, "ipcconn server", and each session one of its own,
// "ipcconn session", which owns its socket, its keep-alive timer and jobs.

namespace {

void t_accept(task *tp) {
  if (auto *srv = static_cast<ipcconn_server *>(task_get_data(tp))) accept_some(srv, srv->server_socket);
}
ipcconn_session *of(task *tp) { return static_cast<ipcconn_session *>(task_get_data(tp)); }
void t_read(task *tp) {
  if (ipcconn_session *s = of(tp)) ipcconn_server_dispatch(s);
}
void t_write(task *tp) {
  if (ipcconn_session *s = of(tp)) ipcconn_session_write_ready(s);
}
void t_tick(task_timer *tip, uint32_t) {
  ipcconn_session_keepalive(static_cast<ipcconn_session *>(task_timer_data(tip)));
}
void t_free(task_job *jp) {
  auto *s = static_cast<ipcconn_session *>(task_job_get_data(jp));
  task_job_delete(jp);
  s->psession_job = nullptr;
  ipcconn_session_destroy(s);
}

}  // namespace

namespace ipcconn_srv_task {

int listen(ipcconn_server *srv, int backlog) {
  if (::listen(srv->server_socket, backlog) < 0) return -1;
  task *tp = task_alloc("ipcconn server", 10, nullptr);
  task_set_data(tp, srv);
  task_set_accept(tp, t_accept);
  task_flag_set(tp, TASK_FLAG_ACCEPT);
  task_create(tp);
  task_set_socket(tp, srv->server_socket);
  srv->server_task = tp;
  srv->listen_active = 1;
  return 0;
}
void server_release(ipcconn_server *srv) {
  if (!srv->server_task) return;
  task_reset_socket(srv->server_task);  // the server closes the socket
  task_set_data(srv->server_task, nullptr);
  task_delete(srv->server_task);
  srv->server_task = nullptr;
  srv->listen_active = 0;
}
int session_attach(ipcconn_session *s) {
  task *tp = task_alloc("ipcconn session", 10, nullptr);
  task_set_data(tp, s);
  task_set_recv(tp, t_read);
  task_set_write(tp, t_write);
  task_flag_set(tp, TASK_FLAG_READDISABLE | TASK_FLAG_WRITEDISABLE);
  task_create(tp);
  task_set_socket(tp, s->psession_socket);
  s->psession_task = tp;
  return 0;
}
int set_read(ipcconn_session *s) {
  s->read_active = 1;
  task_read_enable(s->psession_task);
  return 0;
}
int clear_read(ipcconn_session *s) {
  s->read_active = 0;
  task_read_disable(s->psession_task);
  return 0;
}
int set_write(ipcconn_session *s) {
  s->write_active = 1;
  task_write_enable(s->psession_task);
  return 0;
}
int clear_write(ipcconn_session *s) {
  s->write_active = 0;
  task_write_disable(s->psession_task);
  return 0;
}
int timer_start(ipcconn_session *s, uint32_t seconds) {
  task_utime every{seconds, 0};
  s->psession_timer = task_timer_ucreate(s->psession_task, "ipcconn keepalive", 0, &every, &every, 0, t_tick, s);
  if (!s->psession_timer) return -1;
  s->timer_active = 1;
  return 0;
}
int delayed_free(ipcconn_session *s) {
  s->psession_job = task_job_create_foreground(s->psession_task, "ipcconn session free", t_free, s);
  return s->psession_job ? 0 : -1;
}
void session_release(ipcconn_session *s) {
  if (s->psession_timer) task_timer_delete(s->psession_timer);
  s->psession_timer = nullptr;
  s->timer_active = s->read_active = s->write_active = 0;
  if (s->psession_task) task_reset_socket(s->psession_task);
}

}  // namespace ipcconn_srv_task
