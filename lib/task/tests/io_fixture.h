// The kernel on real event queues: waits never block (a zero timeout), the
// clock is the fixture's fake one unless a test restores the real one, and
// the address families are registered so that packets can name their ends.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "fixture.h"
#include "platform/sys.h"
#include "sockaddr/families.h"
#include "sockaddr/zsockaddr.h"
#include "task/io.h"

namespace tt {

class Io : public Kernel {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Runs n passes on the real queues.
  static void real_passes(int n);
  static int real_wait(int level, task_kevent *out, int max, const task_utime *timeout);
};

// A bound UDP socket on 127.0.0.1 owned by a new task; returns the port.
uint16_t udp_task(task **out, task_method recv);
std::string addr_text(const zsockaddr_t *a, int alt = 1);

}  // namespace tt
