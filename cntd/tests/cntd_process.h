// The real cntd as a child process, for tests and benchmarks: started on a
// socket path in a temporary directory, ready when it says it serves, killed
// and started again on the same path, its admin socket one call away.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "peer_io.h"

class CntdProcess {
 public:
  explicit CntdProcess(const std::string &state_text) {
    char tmpl[] = "/tmp/cntd_test.XXXXXX";
    dir_ = mkdtemp(tmpl);
    sock_ = dir_ + "/cntd";
    state_ = dir_ + "/state";
    FILE *f = fopen(state_.c_str(), "w");
    fputs(state_text.c_str(), f);
    fclose(f);
    setenv("CNTD_PATH", sock_.c_str(), 1);
    start();
  }
  ~CntdProcess() {
    stop(SIGTERM);
    unsetenv("CNTD_PATH");
    std::string cmd = "rm -rf " + dir_;
    if (system(cmd.c_str())) {
    }
  }
  CntdProcess(const CntdProcess &) = delete;
  CntdProcess &operator=(const CntdProcess &) = delete;

  bool start() {
    log_.clear();
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return false;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(p[1], 2);
      execl(CNTD_BIN, "cntd", "-f", state_.c_str(), "-s", sock_.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    err_ = p[0];
    ready_ = wait_log("serving ");
    return ready_;
  }
  // Ends the process with sig and reaps it; its exit status, or -1.
  int stop(int sig) {
    if (admin_fd_ >= 0) close(admin_fd_);
    admin_fd_ = -1;
    int st = -1;
    if (pid_ > 0) {
      kill(pid_, sig);
      waitpid(pid_, &st, 0);
    }
    pid_ = -1;
    if (err_ >= 0) close(err_);
    err_ = -1;
    return st;
  }

  bool ready() const { return ready_; }
  const std::string &sock() const { return sock_; }
  const std::string &log() const { return log_; }

  bool wait_log(const std::string &text, int quiet_ms = 10000) { return peer_wait_log(err_, &log_, text, quiet_ms); }
  // One admin command; the reply up to its "ok" or "error:" line.
  std::string admin(const std::string &cmd) { return peer_admin(&admin_fd_, sock_ + ".admin", cmd); }

 private:
  std::string dir_, sock_, state_, log_;
  pid_t pid_ = -1;
  int err_ = -1, admin_fd_ = -1;
  bool ready_ = false;
};
