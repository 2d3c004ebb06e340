// The ping command's question to the local responder, and the socket helpers
// it shares with the learning-daemon query.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oam/oam.h"
#include "oam_internal.h"
#include "platform/path.h"

void oam_unix_address(const char *logical, struct sockaddr_un *sun) {
  memset(sun, 0, sizeof *sun);
  sun->sun_family = AF_UNIX;
  char real[sizeof sun->sun_path];
  if (!tvx_path(logical, real, sizeof real)) real[0] = '\0';
  memcpy(sun->sun_path, real, strnlen(real, 104));
}

void oam_set_timeout(int fd, int timeout_ms) {
  if (timeout_ms <= 0) return;
  timeval tv = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

int oam_local_lookup(uint32_t vni, struct in_addr remote, int timeout_ms, uint32_t *bd_out) {
  sockaddr_un sun;
  oam_unix_address(OAM_LOCAL_PATH, &sun);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
    int e = errno;
    close(fd);
    return e;
  }
  oam_set_timeout(fd, timeout_ms);
  char buf[64];
  snprintf(buf, sizeof buf, "%u/%u", vni, remote.s_addr);
  ping_write_line(fd, buf);
  errno = 0;
  int got = ping_read_line(fd, buf, sizeof buf);
  int e = errno;
  close(fd);
  if (!got) return e == EAGAIN || e == EWOULDBLOCK ? ETIMEDOUT : EPROTO;
  char *end = nullptr;
  unsigned long bd = strtoul(buf, &end, 10);
  if (end == buf || *end != '\0' || bd > UINT32_MAX) return EPROTO;
  *bd_out = static_cast<uint32_t>(bd);
  return 0;
}
