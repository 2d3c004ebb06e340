// The real rtsockd, started on a temporary socket path with a given state
// file, and its admin socket.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/compat.h"

class Rtsockd {
 public:
  // state: the file's text, written beside the socket.
  explicit Rtsockd(const std::string &state) {
    char tmpl[] = "/tmp/krt_rtsockd.XXXXXX";
    dir_ = mkdtemp(tmpl);
    sock_ = dir_ + "/rtsock";
    std::string file = dir_ + "/state";
    FILE *f = fopen(file.c_str(), "w");
    fputs(state.c_str(), f);
    fclose(f);
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(p[1], 2);
      execl(RTSOCKD_BIN, "rtsockd", "-f", file.c_str(), "-s", sock_.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    err_ = p[0];
    ready_ = wait_log("serving ");
    setenv("RTSOCK_PATH", sock_.c_str(), 1);
  }
  ~Rtsockd() {
    if (admin_fd_ >= 0) close(admin_fd_);
    kill(pid_, SIGTERM);
    int st;
    waitpid(pid_, &st, 0);
    close(err_);
    unsetenv("RTSOCK_PATH");
    std::string cmd = "rm -rf " + dir_;
    if (system(cmd.c_str())) {
    }
  }
  bool ready() const { return ready_; }

  bool wait_log(const std::string &text) {
    for (;;) {
      if (log_.find(text) != std::string::npos) return true;
      pollfd pf{err_, POLLIN, 0};
      if (poll(&pf, 1, 20000) <= 0) return false;
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
      sockaddr_un sa{};
      sa.sun_family = AF_UNIX;
      strlcpy(sa.sun_path, (sock_ + ".admin").c_str(), sizeof sa.sun_path);
      if (connect(admin_fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return "error: connect";
    }
    std::string line = cmd + "\n";
    if (send(admin_fd_, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) return "error: send";
    std::string out;
    while (!(out.size() >= 3 && out.compare(out.size() - 3, 3, "ok\n") == 0) &&
           out.find("error:") == std::string::npos) {
      char buf[65536];
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
