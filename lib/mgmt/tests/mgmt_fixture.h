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
#include "unix_client.h"
#include "mgmt/mgmt.h"
#include "platform/path.h"
#include "task/lifecycle.h"

void task_module_state_alloc(task_app_ctx_t *ctx);

namespace tt {

class Mgmt : public Io {
 protected:
  virtual const mgmt_cmd *root_table() = 0;
  temp_root tmp;
  const char *dir = tmp.dir;
  task_app_ctx_t app{};
  void SetUp() override {
    Io::SetUp();
    tmp.make();
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
    tmp.remove();
    Io::TearDown();
  }
  int client() {
    int s = unix_client("/var/run/test_mgmt");
    real_passes(1);  // accepted
    return s;
  }
  static void send(int s, const std::string &text) {
    ASSERT_EQ(write(s, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string ask(int s, const std::string &line) {
    send(s, line + "\n");
    real_passes(2);
    return drain(s);
  }
};

}  // namespace tt
