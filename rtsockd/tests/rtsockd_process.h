// The real rtsockd as a child process, for tests and benchmarks alike:
// started in a temporary directory on its own socket path, ready when it
// says it serves, its standard error kept, its admin socket one call away.
// No test framework here: callers check what the calls return.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "peer_io.h"
#include "platform/compat.h"

class RtsockdProcess {
 public:
  // How the process starts: its umask and descriptor limit (0: inherited).
  struct Options {
    mode_t umask = 022;
    rlim_t nofile = 0;
    std::string sock;        // the socket path; empty: one in the temporary directory
    std::string state_text;  // non-empty: written to a state file there, used instead of the path given
  };
  RtsockdProcess(const char *state, const Options &o) {
    char tmpl[] = "/tmp/rtsockd_test.XXXXXX";
    dir_ = mkdtemp(tmpl);
    sock_ = o.sock.empty() ? dir_ + "/rtsock" : o.sock;
    std::string file = state ? state : "";
    if (!o.state_text.empty()) {
      file = dir_ + "/state";
      FILE *f = fopen(file.c_str(), "w");
      fputs(o.state_text.c_str(), f);
      fclose(f);
    }
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(p[1], 2);
      umask(o.umask);
      if (o.nofile) {
        rlimit rl{o.nofile, o.nofile};
        setrlimit(RLIMIT_NOFILE, &rl);
      }
      execl(RTSOCKD_BIN, "rtsockd", "-f", file.c_str(), "-s", sock_.c_str(), nullptr);
      _exit(127);
    }
    close(p[1]);
    err_ = p[0];
    ready_ = wait_log("serving ", 60000);  // a large state file under the sanitizer loads slowly
    setenv("RTSOCK_PATH", sock_.c_str(), 1);
  }
  ~RtsockdProcess() {
    if (admin_fd_ >= 0) close(admin_fd_);
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int st;
      waitpid(pid_, &st, 0);
    }
    if (err_ >= 0) close(err_);
    unsetenv("RTSOCK_PATH");
    std::string cmd = "rm -rf " + dir_;
    if (system(cmd.c_str())) {
    }
  }
  RtsockdProcess(const RtsockdProcess &) = delete;
  RtsockdProcess &operator=(const RtsockdProcess &) = delete;

  bool ready() const { return ready_; }
  const std::string &sock() const { return sock_; }
  bool alive() { return waitpid(pid_, nullptr, WNOHANG) == 0; }
  pid_t pid() const { return pid_; }
  const std::string &dir() const { return dir_; }
  const std::string &log() const { return log_; }

  // Reads standard error until a line holds `text` (or no line comes for a while: a hang).
  bool wait_log(const std::string &text, int quiet_ms = 10000) { return peer_wait_log(err_, &log_, text, quiet_ms); }

  // One admin command; the reply up to its "ok" or "error:" line.
  std::string admin(const std::string &cmd) { return peer_admin(&admin_fd_, sock_ + ".admin", cmd); }

 private:
  std::string dir_, sock_, log_;
  pid_t pid_ = -1;
  int err_ = -1, admin_fd_ = -1;
  bool ready_ = false;
};
