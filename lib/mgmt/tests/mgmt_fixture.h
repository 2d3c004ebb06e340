// A daemon's side of the channel on real sockets and the kernel's fake
// clock, with clients that talk to it from the test.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "io_fixture.h"
#include "mgmt/mgmt.h"
#include "platform/path.h"
#include "task/lifecycle.h"

void task_module_state_alloc(task_app_ctx_t *ctx);

namespace tt {

class Mgmt : public Io {
 protected:
  virtual const mgmt_cmd *root_table() = 0;
  char dir[64] = "/tmp/mgmt_test_XXXXXX";
  task_app_ctx_t app{};
  void SetUp() override {
    Io::SetUp();
    ASSERT_NE(mkdtemp(dir), nullptr);
    tvx_path_set_root(dir);
    tvx_mkdirs((std::string(dir) + "/var/run").c_str(), 0755);
    app.modules.count = 4;
    task_set_task_app_ctx(&app);
    task_module_state_alloc(&app);
    mgmt_set_hooks(nullptr);
    mgmt_set_idle_timeout(0);
    mgmt_cmd_register(root_table());
    mgmt_listen_on("/var/run/test_mgmt");
  }
  void TearDown() override {
    mgmt_shutdown();
    std::string cmd = std::string("rm -rf ") + dir;
    EXPECT_EQ(system(cmd.c_str()), 0);
    Io::TearDown();
  }
  int client() {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    std::string p = tvx_path("/var/run/test_mgmt");
    strcpy(sun.sun_path, p.c_str());
    EXPECT_EQ(connect(s, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0) << strerror(errno);
    real_passes(1);  // accepted
    fcntl(s, F_SETFL, O_NONBLOCK);
    return s;
  }
  static void send(int s, const std::string &text) {
    ASSERT_EQ(write(s, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  static std::string drain(int s) {
    std::string got;
    char b[65536];
    for (ssize_t n; (n = read(s, b, sizeof b)) > 0;) got.append(b, static_cast<size_t>(n));
    return got;
  }
  std::string ask(int s, const std::string &line) {
    send(s, line + "\n");
    real_passes(2);
    return drain(s);
  }
};


}  // namespace tt
