// The ping command's question on a local stream socket: "VNI/VTEP" in, the
// bridge-domain index as "%u" with its NUL out, one question a connection.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oam/oam.h"
#include "platform/path.h"
#include "sockaddr/families.h"
#include "task/io.h"
#include "task/quit.h"
#include "tunechod.h"

namespace {

// Open connections at most: one that never writes holds its descriptor until
// it closes, so a crowd of them must not starve the daemon of descriptors.
constexpr int kMaxConnections = 64;
int connections;

void connection_deleted(task *) { connections--; }

}  // namespace

void tunechod_local_rx_init(void) {
  static bool done;
  if (done || (task_state & TASKS_TEST)) return;
  task *tp = task_alloc("tunechod-local-rx-task", 0, nullptr);
  task_set_terminate(tp, tunechod_task_exit);
  int s = task_get_socket(tp, AF_UNIX, SOCK_STREAM, 0);
  if (s < 0) __task_quit__(errno);
  std::string path = tvx_path(OAM_LOCAL_PATH);
  unlink(path.c_str());
  task_set_addr(tp, sockcreate_unix(path.c_str()));
  task_flag_set(tp, TASK_FLAG_ACCEPT);
  task_set_accept(tp, tunechod_local_accept);
  task_set_socket(tp, s);
  if (task_set_option(tp, TASKOPTION_REUSEADDR, 1) != 0) __task_quit__(errno);
  if (task_addr_local(tp, tp->task_addr) != 0) __task_quit__(errno);
  if (!task_create(tp)) __task_quit__(22);
  if (task_listen(tp, 5) != 0) __task_quit__(errno);
  done = true;
}

void tunechod_local_accept(task *tp) {
  zsockaddr_t *peer = nullptr;
  int s = task_accept(tp, &peer);
  if (s < 0) {
    if (peer) sockfree(peer);
    return;
  }
  if (connections >= kMaxConnections) {
    close(s);
    if (peer) sockfree(peer);
    return;
  }
  task *child = task_alloc(task_name(tp), 0, nullptr);
  task_set_addr(child, peer);
  task_set_terminate(child, nullptr);
  task_set_recv(child, tunechod_local_read);
  task_set_delete_hook(child, connection_deleted);
  task_set_socket(child, s);
  if (!task_create(child)) __task_quit__(22);
  connections++;
  task_set_option(child, TASKOPTION_LINGER, 0, 0);
}

void tunechod_local_read(task *tp) {
  char buf[1024];
  memset(buf, 0, sizeof buf);
  uint32_t result = 0;
  if (tunechod_read_line(tp->task_socket, buf, sizeof buf) == 1) {
    buf[sizeof buf - 1] = '\0';
    char *save = nullptr;
    char *vni = strtok_r(buf, "/", &save);
    uint32_t v = vni ? static_cast<uint32_t>(strtoul(vni, nullptr, 10)) : 0;
    uint32_t addr = save ? static_cast<uint32_t>(strtoul(save, nullptr, 10)) : 0;
    tunechod_get_vni(v, 0, addr, &result);
  }
  snprintf(buf, sizeof buf, "%u", result);
  tunechod_write_line(tp->task_socket, buf);
  task_close(tp);
  task_delete(tp);
}

int tunechod_read_line(int fd, char *buffer, uint16_t size) {
  if (size == 0) return 0;
  ssize_t n = recv(fd, buffer, size - 1u, MSG_DONTWAIT);
  if (n < 1) return 0;
  buffer[n] = '\0';
  return 1;
}

int tunechod_write_line(int fd, const char *text) {
  size_t left = strlen(text) + 1;
  while (left > 0) {
    ssize_t n = send(fd, text, left, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 1) break;
    text += n;
    left -= static_cast<size_t>(n);
  }
  return 1;
}
