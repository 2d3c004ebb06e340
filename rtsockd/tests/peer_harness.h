// The real rtsockd process for tests: started on a temporary socket path,
// ready when it says it serves; its admin socket; route-socket handles and
// bare clients.
#pragma once

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fake_peer.h"  // LogCapture
#include "platform/compat.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"

namespace rtsockd_test {


// rtsockd in a temporary directory, ready when it says it serves.
class Peer {
 public:
  // How the process starts: its umask and descriptor limit (0: inherited).
  struct Options {
    mode_t umask = 022;
    rlim_t nofile = 0;
    std::string sock;  // the socket path; empty: one in the temporary directory
  };
  explicit Peer(const char *state = SAMPLE_STATE) : Peer(state, Options{}) {}
  Peer(const char *state, Options o) {
    char tmpl[] = "/tmp/rtsockd_test.XXXXXX";
    dir_ = mkdtemp(tmpl);
    sock_ = o.sock.empty() ? dir_ + "/rtsock" : o.sock;
    int p[2];
    EXPECT_EQ(pipe2(p, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(p[1], 2);
      umask(o.umask);
      if (o.nofile) {
        rlimit rl{o.nofile, o.nofile};
        setrlimit(RLIMIT_NOFILE, &rl);
      }
      execl(RTSOCKD_BIN, "rtsockd", "-f", state, "-s", sock_.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    err_ = p[0];
    ready_ = wait_log("serving ", 60000);  // a large state file under the sanitizer loads slowly
    setenv("RTSOCK_PATH", sock_.c_str(), 1);
  }
  ~Peer() {
    kill(pid_, SIGTERM);
    int st;
    waitpid(pid_, &st, 0);
    close(err_);
    if (admin_fd_ >= 0) close(admin_fd_);
    unsetenv("RTSOCK_PATH");
    std::string cmd = "rm -rf " + dir_;
    if (system(cmd.c_str())) {
    }
  }
  bool ready() const { return ready_; }
  const std::string &sock() const { return sock_; }
  bool alive() { return waitpid(pid_, nullptr, WNOHANG) == 0; }
  pid_t pid() const { return pid_; }
  const std::string &dir() const { return dir_; }
  const std::string &log() const { return log_; }

  // Reads standard error until a line holds `text` (or no line comes for a while: a hang).
  bool wait_log(const std::string &text, int quiet_ms = 10000) {
    for (;;) {
      if (log_.find(text) != std::string::npos) return true;
      pollfd pf{err_, POLLIN, 0};
      if (poll(&pf, 1, quiet_ms) <= 0) return false;
      char buf[4096];
      ssize_t n = read(err_, buf, sizeof buf);
      if (n <= 0) return false;
      log_.append(buf, static_cast<size_t>(n));
    }
  }

  // One admin command; the reply up to its "ok" or "error:" line.
  std::string admin(const std::string &cmd) {
    if (admin_fd_ < 0) {
      admin_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      timeval tv{10, 0};  // a reply that never ends fails the test instead of hanging it
      setsockopt(admin_fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      sockaddr_un sa{};
      sa.sun_family = AF_UNIX;
      strlcpy(sa.sun_path, (sock_ + ".admin").c_str(), sizeof sa.sun_path);
      EXPECT_EQ(connect(admin_fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    }
    std::string line = cmd + "\n";
    EXPECT_EQ(send(admin_fd_, line.data(), line.size(), 0), static_cast<ssize_t>(line.size()));
    std::string out;
    while (out.find("ok\n") == std::string::npos && out.find("error:") == std::string::npos) {
      char buf[4096];
      ssize_t n = recv(admin_fd_, buf, sizeof buf, 0);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }

 private:
  std::string dir_, sock_, log_;
  pid_t pid_ = -1;
  int err_ = -1, admin_fd_ = -1;
  bool ready_ = false;
};

struct Handle {
  rtslib_cookie *c;
  explicit Handle(uint8_t sender = 131) : c(rtslib_open(sender)) {}
  ~Handle() { rtslib_close(c); }
  operator rtslib_cookie *() const { return c; }
  void listen(uint32_t w0, uint32_t w1) {
    uint32_t mask[2] = {w0, w1};
    ASSERT_EQ(rts_lower()->lo_setopt(nullptr, c->fd, RTS_SOL, RTS_OPT_LISTEN_MASK, mask, 8), 0);
  }
};

inline int bd_request(rtslib_cookie *c, uint8_t op, uint16_t index, rts_bd_msg **out) {
  rts_bd_msg req{};
  req.hdr.version = 98;
  req.hdr.type = RTS_T_BRIDGE_DOMAIN;
  req.hdr.operation = op;
  req.hdr.size = 200;
  req.hdr.seq = c->seq++;
  req.hdr.sender = 131;
  req.bdm_index = index;
  int err = rtslib_msg_write_idl(c, RTS_T_BRIDGE_DOMAIN, &req, nullptr);
  if (err || !out) return err;
  void *m;
  err = rtslib_msg_read_idl(c, &m);
  *out = static_cast<rts_bd_msg *>(m);
  return err;
}

// A bare SEQPACKET client: what misbehaving programs do.
inline int raw_client(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  strlcpy(sa.sun_path, path.c_str(), sizeof sa.sun_path);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
  return fd;
}

}  // namespace rtsockd_test
