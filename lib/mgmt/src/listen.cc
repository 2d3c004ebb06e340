// The listener, accepted peers, the idle timer and the close path.
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "evlog/evlog.h"
#include "format/task_fmt.h"
#include "internal.h"
#include "mem/block.h"
#include "platform/compat.h"
#include "platform/path.h"
#include "sockaddr/zsockaddr.h"
#include "task/io.h"
#include "task/sched.h"
#include "task/timer.h"

mgmt_var mgmt_block;

namespace {

mgmt_var &mv = mgmt_block;

constexpr int kListenPriority = 70;
constexpr int kBacklog = 5;
constexpr int kMinRecvBuffer = 1024;

[[noreturn]] void listen_failed(const char *what, const char *real) {
  int err = errno;
  logging_event(LOG_ERR, "ZTASK_MGMT_LISTEN", "ZTASK_MGMT_LISTEN: Unable to %s management socket %s: %m", what, real);
  __task_quit__(err ? err : EINVAL);
  __builtin_unreachable();
}

void link_peer(mgmtPeer *mp) {
  mp->mp_next = &mv.mv_peers;
  mp->mp_prev = mv.mv_peers.mp_prev;
  mv.mv_peers.mp_prev->mp_next = mp;
  mv.mv_peers.mp_prev = mp;
  mv.mv_peer_count++;
}

void unlink_peer(mgmtPeer *mp) {
  mp->mp_prev->mp_next = mp->mp_next;
  mp->mp_next->mp_prev = mp->mp_prev;
  mp->mp_next = mp->mp_prev = nullptr;
  mv.mv_peer_count--;
}

mgmtPeer *peer_of(task *tp) { return static_cast<mgmtPeer *>(task_get_data(tp)); }

void mgmtp_write_ready(task *tp) { noblock_write_ready(peer_of(tp)->mp_cookie); }
void mgmtp_terminate(task *tp) { mgmtp_close(peer_of(tp), MGMT_EVENT_TERMINATE); }

void idle_restart(mgmtPeer *mp) {
  if (mp->mp_idle_timer) task_timer_set(mp->mp_idle_timer, mv.mv_idle_timeout, 0, 0);
}

void mgmtp_timeout(task_timer *tip, uint32_t) {
  auto *mp = static_cast<mgmtPeer *>(task_timer_data(tip));
  // Output still going out is not idleness.
  if (mgmt_active_session(mp) || mgmt_outstanding(mp) || (mv.mv_hooks.mh_idle && mv.mv_hooks.mh_idle(mp) == 1)) {
    idle_restart(mp);
    return;
  }
  logging_event(LOG_WARNING, "ZTASK_MGMT_TIMEOUT",
                "ZTASK_MGMT_TIMEOUT: Connection to management peer %s timed out waiting for input", mp->mp_name);
  mgmtp_close(mp, MGMT_EVENT_TIMEOUT);
}

// "%#A" of the peer; a local peer without a name is told by its process.
void peer_name(mgmtPeer *mp, int s, const zsockaddr_t *addr) {
  mp->mp_name[0] = '\0';
  if (addr) task_fmt_snprintf(mp->mp_name, sizeof mp->mp_name, "%#A", addr);
  if (mp->mp_name[0] && strcmp(mp->mp_name, "\"\"") != 0) return;
  ucred cr{};
  socklen_t l = sizeof cr;
  if (getsockopt(s, SOL_SOCKET, SO_PEERCRED, &cr, &l) == 0 && cr.pid > 0)
    snprintf(mp->mp_name, sizeof mp->mp_name, "local pid %d", static_cast<int>(cr.pid));
  else
    snprintf(mp->mp_name, sizeof mp->mp_name, "local fd %d", s);
}

void mgmt_listen_accept(task *ltp) {
  zsockaddr_t *addr = nullptr;
  int s = task_accept(ltp, &addr);
  ltp->task_recv_count++;
  if (s < 0) return;
  task *tp = task_alloc("MGMT", kListenPriority, mv.mv_trace);
  task_set_socket(tp, s);
  auto *mp = static_cast<mgmtPeer *>(task_block_alloc(mv.mv_peer_block));
  peer_name(mp, s, addr);
  if (addr) sockfree(addr);
  MGMT_TRACE("mgmt_listen_accept: accepting connection from %s", mp->mp_name);
  int rb = 0;
  socklen_t l = sizeof rb;
  if (getsockopt(s, SOL_SOCKET, SO_RCVBUF, &rb, &l) == 0 && rb < kMinRecvBuffer)
    task_set_option(tp, TASKOPTION_RECVBUF, kMinRecvBuffer);
  task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
  task_set_option(tp, TASKOPTION_LINGER, 0, 0);
  mp->mp_task = tp;
  mp->mp_cookie = noblock_fdopen(tp, mp->mp_name, mgmtp_write_ready);
  if (!mp->mp_cookie) {
    task_block_free(mv.mv_peer_block, mp);
    task_delete(tp);
    return;
  }
  mp->mp_file = noblock_stream(mp->mp_cookie);
  mp->mp_created = mp->mp_last = task_now.ut_sec;
  task_set_data(tp, mp);
  task_set_recv(tp, mgmtp_recv);
  task_set_terminate(tp, mgmtp_terminate);
  task_create(tp);
  link_peer(mp);
  if (mv.mv_idle_timeout)
    mp->mp_idle_timer = task_timer_create(tp, "PeerIdleTimeOut", 0, mv.mv_idle_timeout, 0, 0, mgmtp_timeout, mp);
  if (mv.mv_hooks.mh_accepted && !mv.mv_hooks.mh_accepted(mp)) mgmtp_close(mp, MGMT_EVENT_REFUSED);
}

void close_peers(void) {
  while (mv.mv_peers.mp_next != &mv.mv_peers) mgmtp_close(mv.mv_peers.mp_next, MGMT_EVENT_TERMINATE);
}

void close_listener(bool remove_file) {
  if (!mv.mv_listen_task) return;
  task_delete(mv.mv_listen_task);
  mv.mv_listen_task = nullptr;
  if (remove_file && !(task_state & TASKS_TEST)) unlink(tvx_path(mv.mv_path).c_str());
}

void listen_start(void) {
  std::string real = tvx_path(mv.mv_path);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  if (real.empty() || real.size() >= sizeof sun.sun_path) {
    errno = ENAMETOOLONG;
    listen_failed("name", real.c_str());
  }
  memcpy(sun.sun_path, real.c_str(), real.size() + 1);
  task *tp = task_alloc("MGMT_Listen", kListenPriority, mv.mv_trace);
  int s = task_get_socket(tp, AF_UNIX, SOCK_STREAM, 0);
  if (s < 0) listen_failed("create", real.c_str());
  task_set_socket(tp, s);
  if (task_set_option(tp, TASKOPTION_NONBLOCKING, 1) || task_set_option(tp, TASKOPTION_REUSEADDR, 1))
    listen_failed("set options of", real.c_str());
  // A configuration check beside the running daemon must leave its socket alone.
  if (!(task_state & TASKS_TEST)) {
    if (unlink(real.c_str()) < 0 && errno != ENOENT) listen_failed("remove", real.c_str());
    mode_t old = umask(077);
    int rc = bind(s, reinterpret_cast<sockaddr *>(&sun), sizeof sun);
    umask(old);
    if (rc < 0) listen_failed("bind", real.c_str());
    if (chmod(real.c_str(), 0600) < 0) listen_failed("chmod", real.c_str());
  }
  if (int err = task_listen(tp, kBacklog)) {
    errno = err;
    listen_failed("listen on", real.c_str());
  }
  task_flag_set(tp, TASK_FLAG_MSERVER | TASK_FLAG_ACCEPT);
  task_set_accept(tp, mgmt_listen_accept);
  task_set_reinit(tp, [](task *) {
    const char *want = task_get_task_app_ctx() ? task_get_task_app_ctx()->app_mgmt_path : nullptr;
    if (want && strcmp(want, mv.mv_path) != 0) mgmt_listen_on(want);
  });
  task_set_terminate(tp, [](task *) { mgmt_shutdown(); });
  task_create(tp);
  task_read_enable(tp);
  mv.mv_listen_task = tp;
}

// A daemon that quits without running terminate methods still leaves no
// socket behind; a forked child's exit must not take its parent's.
pid_t listen_pid;
void remove_at_exit(void) {
  if (mv.mv_listen_task && getpid() == listen_pid && !(task_state & TASKS_TEST)) unlink(tvx_path(mv.mv_path).c_str());
}

}  // namespace

void mgmt_init(void) {
  if (mv.mv_init) return;
  mv.mv_init = true;
  mv.mv_peers.mp_next = mv.mv_peers.mp_prev = &mv.mv_peers;
  mv.mv_peer_block = task_block_init(sizeof(mgmtPeer), "mgmtPeer");
}

void mgmt_listen_on(const char *path) {
  mgmt_init();
  if (!listen_pid) atexit(remove_at_exit);
  listen_pid = getpid();
  if (mv.mv_listen_task) {
    close_peers();
    close_listener(strcmp(path, mv.mv_path) != 0);
  }
  strlcpy(mv.mv_path, path, sizeof mv.mv_path);
  mv.mv_listen_wanted = 1;
  listen_start();
}

void mgmt_shutdown(void) {
  if (!mv.mv_init) return;
  close_peers();
  close_listener(true);
  mv.mv_listen_wanted = 0;
}

void mgmt_set_idle_timeout(uint32_t seconds) { mv.mv_idle_timeout = seconds; }
void mgmt_set_trace(trace_handle *trace) { mv.mv_trace = trace; }
void mgmt_set_hooks(const mgmt_hooks *hooks) { mv.mv_hooks = hooks ? *hooks : mgmt_hooks{}; }
uint32_t mgmt_peer_count(void) { return mv.mv_peer_count; }
mgmtPeer *mgmt_peer_first(void) {
  return mv.mv_init && mv.mv_peers.mp_next != &mv.mv_peers ? mv.mv_peers.mp_next : nullptr;
}
mgmtPeer *mgmt_peer_next(const mgmtPeer *mp) { return mp->mp_next != &mv.mv_peers ? mp->mp_next : nullptr; }

void mgmt_peer_touched(mgmtPeer *mp) { idle_restart(mp); }

void mgmtp_close(mgmtPeer *mp, int event) {
  task_assert(mp && mp->mp_next);
  task *tp = mp->mp_task;
  MGMT_TRACE("mgmtp_close: closing peer %s, event %d task %p", mp->mp_name, event, static_cast<void *>(tp));
  if (mv.mv_hooks.mh_closing) mv.mv_hooks.mh_closing(mp, event);
  task_app_ctx_t *app = task_get_task_app_ctx();
  if (app && app->app_peer_closed) app->app_peer_closed(mp);
  task_timer_delete(mp->mp_idle_timer);
  mp->mp_idle_timer = nullptr;
  mgmt_generator_end(mp, 1);
  MGMT_TRACE("mgmtp_close_socket: peer %s", mp->mp_name);
  noblock_abort(mp->mp_cookie);
  task_close(tp);
  task_delete(tp);
  unlink_peer(mp);
  task_block_free(mv.mv_peer_block, mp);
}
