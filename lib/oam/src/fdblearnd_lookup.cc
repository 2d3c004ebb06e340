// The query of the layer-2 learning daemon: one connection per question.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oam/oam.h"
#include "oam_internal.h"

int fdblearnd_timeout_ms = 5000;

int fdblearnd_lookup(uint32_t vni, uint32_t rtb_id, uint32_t zero, uint32_t address, char *name_out,
                     uint32_t *index_out) {
  sockaddr_un sun;
  oam_unix_address(FDBLEARND_PATH, &sun);

  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd == -1) ping_exit(-2, "Local recv socket creation failed\n");
  if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) == -1) {
    close(fd);
    ping_exit(-2, "Unable to connect to fdblearnd\n");
  }
  // A learning daemon that accepts and then hangs would freeze the responder
  // with it, so the wait has a bound.
  oam_set_timeout(fd, fdblearnd_timeout_ms);

  char buf[1024];
  snprintf(buf, sizeof buf, "%u/%u/%u/%u", rtb_id, vni, zero, address);
  ping_write_line(fd, buf);
  if (ping_read_line(fd, buf, sizeof buf)) {
    char *save = nullptr;
    char *name = strtok_r(buf, "/", &save);
    if (name) {
      snprintf(name_out, FDBLEARND_NAME_LEN, "%s", name);
      *index_out = static_cast<uint32_t>(atoi(save ? save : ""));
    } else {
      snprintf(name_out, FDBLEARND_NAME_LEN, "default");
    }
  }
  close(fd);
  return 1;
}
