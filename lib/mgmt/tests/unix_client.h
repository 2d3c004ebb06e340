// Test helpers for the channel's and the shell's sockets: a temporary root
// for the daemon's paths, a non-blocking client, and reading what is there.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/path.h"

namespace tt {

// TAVOX_ROOT for the test: a fresh directory with var/run, removed at the end.
struct temp_root {
  char dir[64] = "/tmp/mgmt_test_XXXXXX";
  void make() {
    ASSERT_NE(mkdtemp(dir), nullptr);
    tvx_path_set_root(dir);
    tvx_mkdirs((std::string(dir) + "/var/run").c_str(), 0755);
  }
  void remove() {
    std::string cmd = std::string("rm -rf ") + dir;
    EXPECT_EQ(system(cmd.c_str()), 0);
  }
};

// Connected to the logical path, non-blocking; -1 on failure.
inline int unix_client(const char *logical) {
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  std::string p = tvx_path(logical);
  strcpy(sun.sun_path, p.c_str());
  if (connect(s, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
    ADD_FAILURE() << "connect " << p << ": " << strerror(errno);
    close(s);
    return -1;
  }
  fcntl(s, F_SETFL, O_NONBLOCK);
  return s;
}

// Everything readable now.
inline std::string drain(int s) {
  std::string got;
  char b[65536];
  for (ssize_t n; (n = read(s, b, sizeof b)) > 0;) got.append(b, static_cast<size_t>(n));
  return got;
}

}  // namespace tt
