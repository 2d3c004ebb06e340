// What the tests of a peer process share (rtsockd, cntd): reading its
// standard error until a line appears, and one command on its text admin
// socket. No test framework here: callers check what the calls return.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

// Reads fd into *log until it holds text (false when no line comes for
// quiet_ms: a hang, or the peer ended).
inline bool peer_wait_log(int fd, std::string *log, const std::string &text, int quiet_ms) {
  for (;;) {
    if (log->find(text) != std::string::npos) return true;
    pollfd pf{fd, POLLIN, 0};
    if (poll(&pf, 1, quiet_ms) <= 0) return false;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    log->append(buf, static_cast<size_t>(n));
  }
}

// One admin command on path, over *fd (connected on first use); the reply up
// to its "ok" or "error:" line ("error: connect" or "error: send" when the
// socket fails).
inline std::string peer_admin(int *fd, const std::string &path, const std::string &cmd) {
  if (*fd < 0) {
    *fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{10, 0};  // a reply that never ends fails the caller instead of hanging it
    setsockopt(*fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    if (connect(*fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
      close(*fd);
      *fd = -1;
      return "error: connect";
    }
  }
  std::string line = cmd + "\n";
  if (send(*fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) return "error: send";
  std::string out;
  while (!(out.size() >= 3 && out.compare(out.size() - 3, 3, "ok\n") == 0) && out.find("error:") == std::string::npos) {
    char buf[65536];
    ssize_t n = recv(*fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}
