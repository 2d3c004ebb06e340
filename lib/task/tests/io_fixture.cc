#include "io_fixture.h"

#include <cstdio>
#include <cstdlib>

namespace tt {

void Io::SetUp() {
  Kernel::SetUp();
  task_evq.wait = real_wait;
  zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  zsock_register_inet6(GF_INET6);
  zsock_register_unix(GF_UNIX);
  tvx_fault_clear();
}

void Io::TearDown() { tvx_fault_clear(); }

int Io::real_wait(int level, task_kevent *out, int max, const task_utime *) {
  task_utime zero{0, 0};
  int n = task_evq_default.wait(level, out, max, &zero);
  if (level == 0 && --waits_left <= 0) task_scheduler_stop();
  return n;
}

void Io::real_passes(int n) {
  waits_left = n;
  task_scheduler_run();
}

uint16_t udp_task(task **out, task_method recv) {
  task *tp = task_alloc("udp", 10, nullptr);
  int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
  EXPECT_GE(s, 0);
  task_set_socket(tp, s);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_NONBLOCKING, 1), 0);
  EXPECT_EQ(task_addr_local(tp, sockbuild_in(0, htonl(INADDR_LOOPBACK))), 0);
  task_set_recv(tp, recv);
  task_create(tp);
  zsockaddr_t *me = task_get_addr_local(tp);
  uint16_t port = ntohs(sockport_in(me));
  sockfree(me);
  *out = tp;
  return port;
}

std::string addr_text(const zsockaddr_t *a, int alt) {
  if (!a) return "(none)";
  char t[96];
  sockprint(t, sizeof t, a, alt);
  return t;
}

}  // namespace tt
