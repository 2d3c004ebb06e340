// fdblearnd -f STATE | --linux [-s SOCKET]: the learning daemon's answering
// side, in the foreground, logging to standard error. One connection carries one query and
// one answer (see state.h for both and for the state file).
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "oam/oam.h"
#include "platform/path.h"
#include "linux.h"
#include "state.h"

using namespace fdblearnd;

namespace {

constexpr size_t kMaxClients = 64;     // connections served at once; more wait in the backlog
constexpr size_t kQueryMax = 1024;     // a query longer than this is answered from its first 1024 bytes
constexpr int64_t kIdleMs = 5000;      // a client that sends no complete query in time is dropped
constexpr int64_t kPauseMs = 100;      // listening paused this long when out of descriptors

const char kUsage[] =
    "usage: fdblearnd -f STATE [-s SOCKET]\n"
    "       fdblearnd --linux [-s SOCKET]\n"
    "  -f STATE   state file: lines \"RTB VNI VTEP NAME IFL_INDEX\" (VTEP a dotted\n"
    "             address or *); SIGHUP reads it again\n"
    "  --linux    answer from this host's VXLAN devices in bridges, followed over rtnetlink\n"
    "  -s SOCKET  listen here instead of " FDBLEARND_PATH " under the root\n"
    "exit status: 0 on SIGTERM or SIGINT, 1 on a state or socket error, 2 on a usage error\n";

void log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("fdblearnd: ", stderr);
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
}

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

struct Client {
  int fd;
  int64_t since;
  std::string query;
};

int listen_on(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      log("%s: exists and is not a socket; not replacing it", path.c_str());
      return -1;
    }
    unlink(path.c_str());
  }
  // Bound and listening under a private name first, then renamed into place: whoever sees the
  // path can connect, with no window between bind and listen that refuses.
  std::string temp = path + "." + std::to_string(getpid());
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  if (temp.size() >= sizeof sun.sun_path) {
    log("%s: path too long", path.c_str());
    return -1;
  }
  memcpy(sun.sun_path, temp.c_str(), temp.size());
  unlink(temp.c_str());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // The socket is made 0600 whatever the umask: only root may ask.
  mode_t old = umask(0177);
  int rc = fd < 0 ? -1 : bind(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun);
  umask(old);
  if (rc < 0 || listen(fd, 16) < 0 || rename(temp.c_str(), path.c_str()) < 0) {
    log("%s: %s", path.c_str(), strerror(errno));
    if (rc == 0) unlink(temp.c_str());
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

// The kernel's VXLAN devices, followed for --linux.
struct Kernel {
  nlstate::Watch watch;
  nlstate::State facts;
  // A new dump into new facts; false with a log line.
  bool dump() {
    nlstate::State fresh;
    if (int err = watch.dump([&](const nlstate::Event &e) { fresh.apply(e); })) {
      log("rtnetlink dump: %s", strerror(err));
      return false;
    }
    facts = std::move(fresh);
    return true;
  }
  // The events waiting; true when the entries are to be made again.
  bool read() {
    bool changed = false;
    int err = watch.read([&](const nlstate::Event &e) { changed |= facts.apply(e).changed(); });
    if (err == ENOBUFS) {
      log("the kernel dropped events: reading its state again");
      return dump();
    }
    if (err) log("rtnetlink: %s", strerror(err));
    return changed;
  }
};

void reply_and_close(Client &c, const State &state) {
  std::string text = answer(state, c.query);
  send(c.fd, text.c_str(), text.size() + 1, MSG_NOSIGNAL | MSG_DONTWAIT);
  close(c.fd);
  c.fd = -1;
}

}  // namespace

int main(int argc, char **argv) {
  const char *file = nullptr;
  bool from_linux = false;
  std::string path;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      return 0;
    }
    if (a == "--linux") {
      from_linux = true;
    } else if ((a == "-f" || a == "-s") && i + 1 < argc) {
      (a == "-f" ? (void)(file = argv[++i]) : (void)(path = argv[++i]));
    } else {
      fprintf(stderr, "fdblearnd: unexpected argument '%s'\n%s", argv[i], kUsage);
      return 2;
    }
  }
  if (!file == !from_linux) {
    fprintf(stderr, "fdblearnd: %s\n%s", file ? "-f and --linux exclude each other" : "no state file given (-f)",
            kUsage);
    return 2;
  }
  if (path.empty()) path = tvx_path(FDBLEARND_PATH);

  State state;
  std::string why;
  Kernel kernel;
  if (from_linux) {
    if (int err = kernel.watch.open()) {
      log("rtnetlink: %s", strerror(err));
      return 1;
    }
    if (!kernel.dump()) return 1;
    state = from_kernel(kernel.facts);
  } else if (!load(file, &state, &why)) {
    log("%s", why.c_str());
    return 1;
  }

  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGHUP);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  int sfd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  int lfd = listen_on(path);
  if (sfd < 0 || lfd < 0) return 1;
  log("listening on %s with %zu entries from %s", path.c_str(), state.entries.size(),
      from_linux ? "the kernel" : file);

  std::vector<Client> clients;
  bool stale = false;  // --linux: the kernel changed since the entries were made
  int64_t paused_until = 0;
  bool said_out_of_fds = false;
  for (;;) {
    int64_t now = now_ms();
    std::vector<pollfd> fds;
    fds.push_back({sfd, POLLIN, 0});
    bool listening = clients.size() < kMaxClients && now >= paused_until;
    fds.push_back({listening ? lfd : -1, POLLIN, 0});
    fds.push_back({from_linux ? kernel.watch.fd() : -1, POLLIN, 0});
    int64_t wait = -1;
    for (const Client &c : clients) {
      fds.push_back({c.fd, POLLIN, 0});
      int64_t left = c.since + kIdleMs - now;
      if (wait < 0 || left < wait) wait = left < 0 ? 0 : left;
    }
    if (!listening && paused_until > now && (wait < 0 || paused_until - now < wait)) wait = paused_until - now;
    if (poll(fds.data(), fds.size(), static_cast<int>(wait)) < 0 && errno != EINTR) {
      log("poll: %s", strerror(errno));
      return 1;
    }
    now = now_ms();

    if (fds[0].revents & POLLIN) {
      signalfd_siginfo si;
      while (read(sfd, &si, sizeof si) == sizeof si) {
        if (si.ssi_signo == SIGHUP && from_linux) {
          if (kernel.dump()) state = from_kernel(kernel.facts);
        } else if (si.ssi_signo == SIGHUP) {
          if (load(file, &state, &why)) log("reread %s: %zu entries", file, state.entries.size());
          else log("%s; keeping the state in force", why.c_str());
        } else {
          log("ending on signal %u", si.ssi_signo);
          unlink(path.c_str());
          return 0;
        }
      }
    }

    // The entries are made again when a question comes, not per event: a
    // burst of forwarding entries costs one rebuild.
    if ((fds[2].revents & POLLIN) && kernel.read()) stale = true;

    for (size_t i = 0; i < clients.size(); i++) {
      Client &c = clients[i];
      short ev = fds[3 + i].revents;
      if (ev & (POLLIN | POLLHUP | POLLERR)) {
        char buf[kQueryMax];
        ssize_t n = recv(c.fd, buf, kQueryMax - c.query.size(), MSG_DONTWAIT);
        if (n > 0) {
          c.query.append(buf, static_cast<size_t>(n));
          size_t nul = c.query.find('\0');
          if (nul != std::string::npos || c.query.size() >= kQueryMax) {
            if (nul != std::string::npos) c.query.resize(nul);
            if (stale) {
              state = from_kernel(kernel.facts);
              stale = false;
            }
            reply_and_close(c, state);
          }
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          close(c.fd);  // gone before asking
          c.fd = -1;
        }
      } else if (now - c.since >= kIdleMs) {
        close(c.fd);
        c.fd = -1;
      }
    }
    std::erase_if(clients, [](const Client &c) { return c.fd < 0; });

    if (listening && (fds[1].revents & POLLIN)) {
      while (clients.size() < kMaxClients) {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
          clients.push_back({fd, now, {}});
          said_out_of_fds = false;
          continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
          if (!said_out_of_fds) log("accept: %s; pausing new connections", strerror(errno));
          said_out_of_fds = true;
          paused_until = now + kPauseMs;
        }
        break;
      }
    }
  }
}
