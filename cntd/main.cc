// cntd -f STATE [-s SOCKET]: the statistics peer that libstats asks for the
// counters of the forwarding plane, in the foreground, logging to standard
// error. Requests come over ipcconn on SOCKET; the admin socket SOCKET.admin
// takes text commands (counters and faults).
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "evlog/evlog.h"
#include "ipc/ev.h"
#include "ipc/ipcconn.h"
#include "ipc/ipcconn_server.h"
#include "platform/path.h"
#include "service.h"
#include "stats/libstats.h"
#include "task/process.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

constexpr size_t kMaxAdmins = 16;
constexpr size_t kMaxLine = 64 * 1024;

cntd::Service service;
std::set<ipcconn_session *> sessions;
ipcconn_server *server = nullptr;
__evContext ev{};
std::string admin_path;

void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("cntd: ", stderr);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fputc('\n', stderr);
}

void ipc_line(int level, const char *line) {
  if (level == IPCCONN_LOG_ERROR) say("%s", line);
}

uint64_t now() { return static_cast<uint64_t>(time(nullptr)); }

// ---- Sessions ----------------------------------------------------------------------
void on_session(ipcconn_session *s, uint32_t app, uint32_t pid, int event, void *) {
  if (event == IPCCONN_EVENT_CONNECTED) {
    sessions.insert(s);
    say("session of app-id %u pid %u", app, pid);
  } else if (event == IPCCONN_EVENT_CLOSED) {
    sessions.erase(s);
  }
}

int on_message(ipcconn_session *s, uint8_t *, uint32_t, ipc_msg *m, void *) {
  std::vector<uint8_t> reply;
  cntd::Outcome o = service.request(m->subtype, ipc_msg_payload(m), m->length, now(), &reply);
  if (o == cntd::Outcome::close) return -1;  // ends the session
  if (o == cntd::Outcome::reply) {
    uint32_t type = ls_get32(reply.data() + 8);
    int rc = ipcconn_server_send(s, type, reply.data(), static_cast<uint32_t>(reply.size()),
                                 IPCCONN_MSG_PRIORITY_HIGH);
    if (rc != 0 && rc != IPCCONN_ERR_BACKPRESSURE) say("reply of type %u not sent: %d", type, rc);
  }
  return 0;
}

// ---- The admin socket ----------------------------------------------------------------
struct Admin {
  int fd;
  __evFileID id;
  std::string in;
};
std::map<int, Admin *> admins;
int admin_listener = -1;
__evFileID admin_listen_id;
bool listening = false;

void on_admin_accept(__evContext, void *, int, int);

void admin_close(Admin *a) {
  __evDeselectFD(ev, a->id);
  close(a->fd);
  admins.erase(a->fd);
  delete a;
  if (!listening && admin_listener >= 0 &&
      __evSelectFD(ev, admin_listener, EV_READ, on_admin_accept, nullptr, &admin_listen_id) == 0)
    listening = true;
}

bool send_all(int fd, const std::string &s) {
  size_t off = 0;
  while (off < s.size()) {
    ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    off += static_cast<size_t>(n);
  }
  return true;
}

void on_admin_read(__evContext, void *uap, int fd, int) {
  auto *a = static_cast<Admin *>(uap);
  char buf[4096];
  ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    admin_close(a);
    return;
  }
  a->in.append(buf, static_cast<size_t>(n));
  size_t nl;
  while ((nl = a->in.find('\n')) != std::string::npos) {
    std::string line = a->in.substr(0, nl);
    a->in.erase(0, nl + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    std::vector<std::vector<uint8_t>> push;
    std::string reply = service.admin(line, now(), &push);
    for (auto &m : push)
      for (ipcconn_session *s : sessions)
        ipcconn_server_send(s, ls_get32(m.data() + 8), m.data(), static_cast<uint32_t>(m.size()),
                            IPCCONN_MSG_PRIORITY_HIGH);
    if (!send_all(fd, reply)) {
      admin_close(a);
      return;
    }
  }
  if (a->in.size() > kMaxLine) {
    say("admin line over %zu bytes: connection closed", kMaxLine);
    admin_close(a);
  }
}

void on_admin_accept(__evContext, void *, int lfd, int) {
  int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  auto *a = new Admin{fd, {}, {}};
  if (__evSelectFD(ev, fd, EV_READ, on_admin_read, a, &a->id) != 0) {
    close(fd);
    delete a;
    return;
  }
  admins[fd] = a;
  if (admins.size() >= kMaxAdmins && listening) {
    __evDeselectFD(ev, admin_listen_id);
    listening = false;
  }
}

bool admin_start(const std::string &path) {
  admin_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  if (admin_listener < 0 || path.size() >= sizeof sa.sun_path) return false;
  memcpy(sa.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  // The admin socket injects faults: its owner's alone.
  if (bind(admin_listener, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || chmod(path.c_str(), 0600) != 0 ||
      listen(admin_listener, 16) != 0)
    return false;
  if (__evSelectFD(ev, admin_listener, EV_READ, on_admin_accept, nullptr, &admin_listen_id) != 0) return false;
  listening = true;
  return true;
}

// A path free to take: nothing there, or a socket nobody listens on (what a
// killed cntd leaves). False with the line that says why not.
bool path_free(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return true;
  if (!S_ISSOCK(st.st_mode)) {
    say("%s exists and is not a socket: not removed", path.c_str());
    return false;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
  bool live = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
  if (fd >= 0) close(fd);
  if (live) say("%s is in use by a running cntd", path.c_str());
  return !live;
}

[[noreturn]] void finish(int status) {
  if (server) ipcconn_server_shutdown(server);
  if (admin_listener >= 0) unlink(admin_path.c_str());
  exit(status);
}
void on_term(int sig) {
  say("stopping on %s", sig == SIGTERM ? "TERM" : "INT");
  finish(0);
}

// Each line of the state file is as the admin's "stats set" takes it.
bool load(const char *file) {
  std::ifstream in(file);
  if (!in) {
    say("cannot read %s: %s", file, strerror(errno));
    return false;
  }
  std::string line;
  for (int n = 1; std::getline(in, line); n++) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    std::string why;
    if (!service.counters.set(line.substr(start), false, &why)) {
      say("%s:%d: %s", file, n, why.c_str());
      return false;
    }
  }
  return true;
}

const char kUsage[] =
    "usage: cntd -f STATE [-s SOCKET]\n"
    "  -f STATE   the counters: one interface a line, \"iflstats index=N field=value ...\"\n"
    "  -s SOCKET  the socket libstats connects to (default $CNTD_PATH, else /var/run/libstats-cntd\n"
    "             under the root); the admin socket is SOCKET.admin\n"
    "Exit status: 0 when stopped by TERM or INT, 1 when it cannot start, 2 on a usage error.\n"
    "See docs/cntd.md.\n";

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; i++)
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
  const char *state = nullptr;
  std::string path;
  int opt;
  while ((opt = getopt(argc, argv, "f:s:")) != -1) {
    if (opt == 'f') {
      state = optarg;
    } else if (opt == 's') {
      path = optarg;
    } else {
      fputs(kUsage, stderr);
      return 2;
    }
  }
  if (!state || optind != argc) {
    fprintf(stderr, "cntd: %s\n", !state ? "no state: give -f STATE" : "unexpected argument");
    fputs(kUsage, stderr);
    return 2;
  }
  if (path.empty()) path = libstats_cntd_path();
  char real[108];
  if (!tvx_path(path.c_str(), real, sizeof real) || strlen(real) + 6 >= sizeof real) {
    say("socket path too long: %s", path.c_str());
    return 1;
  }
  std::string dir = std::string(real).substr(0, std::string(real).rfind('/'));
  if (!dir.empty() && dir != real) tvx_mkdirs(dir.c_str(), 0755);
  if (!load(state)) return 1;
  admin_path = std::string(real) + ".admin";
  if (!path_free(real) || !path_free(admin_path)) return 1;

  task_set_daemon_name("cntd");
  logging_set_mode(LOGGING_MODE_STDERR);
  ipcconn_set_log_hook(ipc_line);
  signal(SIGPIPE, SIG_IGN);
  task_kernel_init();
  task *app = task_alloc("cntd", 10, nullptr);
  task_create(app);
  task_signal_enable(SIGTERM, on_term);
  task_signal_enable(SIGINT, on_term);
  if (__evCreate(&ev) < 0) {
    say("cannot create the event context: %s", strerror(errno));
    return 1;
  }
  ipcconn_server_params p{};
  p.ptask = app;
  p.malloc_fn = malloc;
  p.free_fn = free;
  p.path = path.c_str();
  p.event_cb = on_session;
  p.msg_cb = on_message;
  p.app_id = libstats_app_index("cntd");
  p.pid = static_cast<uint32_t>(getpid());
  p.threshold_low = UINT32_MAX;
  server = ipcconn_uds_server_create(&p);
  if (!server) {
    say("cannot listen on %s: %s", real, strerror(errno));
    return 1;
  }
  if (!admin_start(admin_path)) {
    say("cannot listen on %s: %s", admin_path.c_str(), strerror(errno));
    finish(1);
  }
  say("serving %zu interfaces on %s, admin on %s", service.counters.size(), real, admin_path.c_str());
  task_scheduler();
}
