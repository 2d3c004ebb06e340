// The debug shell's listeners ("DbgSh UX", "DbgSh TCP"), its sessions, and
// the -J options run at start.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dbgsh_internal.h"
#include "evlog/evlog.h"
#include "platform/path.h"
#include "task/io.h"
#include "task/lifecycle.h"
#include "task/timer.h"

namespace {

constexpr int kPriority = 40;
constexpr int kBacklog = 5;

task *ux_task, *tcp_task;
std::string ux_path;  // logical
dbg_sh_session *sessions;
bool started;

void prompt(dbg_sh_session *s) {
  fprintf(s->ds_file, "%s-DbgSh # ", task_daemon_name());
  fflush(s->ds_file);
}

void session_close(dbg_sh_session *s) {
  dbg_sh_monitor_stop(s);
  for (dbg_sh_session **p = &sessions; *p; p = &(*p)->ds_next)
    if (*p == s) {
      *p = s->ds_next;
      break;
    }
  noblock_abort(s->ds_cookie);
  task_close(s->ds_task);
  task_delete(s->ds_task);
  delete s;
}

dbg_sh_session *session_of(task *tp) { return static_cast<dbg_sh_session *>(task_get_data(tp)); }

void session_recv(task *tp) {
  dbg_sh_session *s = session_of(tp);
  char buf[DBG_SH_LINE_MAX + 2];
  for (;;) {
    if (noblock_fgets(buf, sizeof buf, s->ds_cookie) < 0) {
      session_close(s);
      return;
    }
    size_t n = strlen(buf);
    if (!n) return;
    bool whole = buf[n - 1] == '\n';
    if (s->ds_discarding) {
      s->ds_discarding = !whole;
      continue;
    }
    if (!whole && n >= sizeof buf - 1) {
      fputs("Command line too long\n", s->ds_file);
      s->ds_discarding = 1;
      prompt(s);
      continue;
    }
    if (s->ds_monitor) {  // any line ends monitor mode
      dbg_sh_monitor_stop(s);
      fputs("Monitor mode stopped.\n", s->ds_file);
      prompt(s);
      continue;
    }
    dbg_sh_current = s;
    int end = dbg_sh_run_line(s->ds_file, buf);
    dbg_sh_current = nullptr;
    if (end) {
      fflush(s->ds_file);
      session_close(s);
      return;
    }
    if (!s->ds_monitor) prompt(s);
    else fflush(s->ds_file);
  }
}

void session_write_ready(task *tp) { noblock_write_ready(session_of(tp)->ds_cookie); }

void listen_accept(task *ltp) {
  int fd = task_accept(ltp, nullptr);
  if (fd < 0) {
    int err = errno;
    char addr[128] = "";
    logging_event(LOG_ERR, "ZTASK_DEBUG_LISTEN_ACCEPT_ERROR",
                  "ZTASK_DEBUG_LISTEN_ACCEPT_ERROR: A listening socket failed to accept incoming connection returning "
                  "error %d. task name %s, socket fd %d, socket address %s, error-message %m",
                  err, task_name(ltp), ltp->task_socket, ltp == ux_task ? tvx_path(ux_path.c_str()).c_str() : addr);
    return;
  }
  task *tp = task_alloc("DbgSh Session", kPriority, nullptr);
  task_flag_set(tp, TASK_FLAG_LOWPRIO);
  task_set_socket(tp, fd);
  task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
  auto *s = new dbg_sh_session{};
  s->ds_task = tp;
  s->ds_cookie = noblock_fdopen(tp, "DbgSh", session_write_ready);
  if (!s->ds_cookie) {
    delete s;
    task_delete(tp);
    return;
  }
  s->ds_file = noblock_stream(s->ds_cookie);
  task_set_data(tp, s);
  task_set_recv(tp, session_recv);
  task_set_terminate(tp, [](task *t) { session_close(session_of(t)); });
  task_create(tp);
  s->ds_next = sessions;
  sessions = s;
  prompt(s);
}

[[noreturn]] void create_failed(const char *kind, task *tp) {
  int err = errno;
  logging_event(LOG_ERR, "ZTASK_DEBUG_SOCKET_CREATE_FAIL",
                "ZTASK_DEBUG_SOCKET_CREATE_FAIL: Failed to create a %s socket. error-message %m. task name %s ", kind,
                task_name(tp));
  __task_quit__(err ? err : EINVAL);
  __builtin_unreachable();
}

[[noreturn]] void listen_failed(task *tp, const char *where) {
  int err = errno;
  logging_event(LOG_ERR, "ZTASK_DEBUG_SOCKET_LISTEN_FAIL",
                "ZTASK_DEBUG_SOCKET_LISTEN_FAIL: Setting socket as listen socket to accept for connections failed. "
                "returning error %d. task name %s, socket fd %d, socket address %s,error-message %m",
                err, task_name(tp), tp->task_socket, where);
  __task_quit__(err ? err : EINVAL);
  __builtin_unreachable();
}

void ux_listen(task_timer *, uint32_t) {
  task *tp = ux_task;
  std::string real = tvx_path(ux_path.c_str());
  int fd = task_get_socket(tp, AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) create_failed("UNIX", tp);
  task_set_socket(tp, fd);
  task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  if (real.size() >= sizeof sun.sun_path) {
    errno = ENAMETOOLONG;
    listen_failed(tp, real.c_str());
  }
  memcpy(sun.sun_path, real.c_str(), real.size() + 1);
  unlink(real.c_str());
  mode_t old = umask(077);
  int rc = bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun);
  umask(old);
  if (rc < 0 || chmod(real.c_str(), 0600) < 0 || listen(fd, kBacklog) < 0) listen_failed(tp, real.c_str());
  task_flag_set(tp, TASK_FLAG_ACCEPT);
  task_set_accept(tp, listen_accept);
  task_read_enable(tp);
}

void tcp_listen(task_timer *, uint32_t) {
  task *tp = tcp_task;
  int fd = task_get_socket(tp, AF_INET, SOCK_STREAM, 0);
  if (fd < 0) create_failed("TCP", tp);
  task_set_socket(tp, fd);
  task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
  task_set_option(tp, TASKOPTION_REUSEADDR, 1);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(task_options.tc_j_port);
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char where[32];
  snprintf(where, sizeof where, "127.0.0.1.%u", task_options.tc_j_port);
  if (task_options.tc_lr_name[0])
    logging(LOG_INFO, "%s: LS '%s' dbg_sh TCP listening port is %u", task_daemon_name(), task_options.tc_lr_name,
            task_options.tc_j_port);
  if (bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0 || listen(fd, kBacklog) < 0)
    listen_failed(tp, where);
  task_flag_set(tp, TASK_FLAG_ACCEPT);
  task_set_accept(tp, listen_accept);
  task_read_enable(tp);
}

// -Jd commands, then -Jf files, a line at a time, their output on standard error.
void run_startup_commands(void) {
  for (int i = 0; i < task_options.tc_j_ncommands; i++) {
    std::string line = task_options.tc_j_commands[i];
    dbg_sh_run_line(stderr, line.data());
  }
  for (int i = 0; i < task_options.tc_j_nfiles; i++) {
    FILE *f = fopen(task_options.tc_j_files[i], "r");
    if (!f) {
      fprintf(stderr, "%s: %s\n", task_options.tc_j_files[i], strerror(errno));
      continue;
    }
    char line[DBG_SH_LINE_MAX + 2];
    while (fgets(line, sizeof line, f)) {
      if (!strchr(line, '\n') && !feof(f)) {
        fputs("Command line too long\n", stderr);
        int c;
        while ((c = fgetc(f)) != EOF && c != '\n') {
        }
        continue;
      }
      if (line[0] != '#') dbg_sh_run_line(stderr, line);
    }
    fclose(f);
  }
  fflush(stderr);
}

task *listener(const char *name, task_timer_method start) {
  task *tp = task_alloc(name, kPriority, nullptr);
  task_flag_set(tp, TASK_FLAG_LOWPRIO);
  task_set_terminate(tp, [](task *) { dbg_sh_shutdown(); });
  task_create(tp);
  task_timer_create(tp, "Listen_Init", TIMERF_DELETE, 0, 1, 0, start, nullptr);
  return tp;
}

// The socket goes with the process that made it, also when it quits
// without running terminate methods.
pid_t init_pid;
void remove_at_exit(void) {
  if (ux_task && ux_task->task_socket >= 0 && getpid() == init_pid) unlink(tvx_path(ux_path.c_str()).c_str());
}

}  // namespace

void dbg_sh_init(void) {
  if (started) return;
  started = true;
  if (!init_pid) atexit(remove_at_exit);
  init_pid = getpid();
  char path[256];
  if (task_options.tc_lr_name[0])
    snprintf(path, sizeof path, "/var/run/%s_%s_dbgsh", task_daemon_name(), task_options.tc_lr_name);
  else
    snprintf(path, sizeof path, "/var/run/%s_dbgsh", task_daemon_name());
  ux_path = path;
  if (task_options.tc_j_async) dbg_sh_async_set(true);
  ux_task = listener("DbgSh UX", [](task_timer *t, uint32_t i) {
    ux_listen(t, i);
    run_startup_commands();
  });
  if (task_options.tc_j_port) tcp_task = listener("DbgSh TCP", tcp_listen);
}

void dbg_sh_shutdown(void) {
  while (sessions) session_close(sessions);
  if (ux_task) {
    bool bound = ux_task->task_socket >= 0;
    task_delete(ux_task);
    if (bound) unlink(tvx_path(ux_path.c_str()).c_str());
  }
  if (tcp_task) task_delete(tcp_task);
  ux_task = tcp_task = nullptr;
  dbg_sh_async_test_set(false);
  started = false;
}
