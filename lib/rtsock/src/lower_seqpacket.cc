// The default lower edge: a data socket and a control socket to rtsockd.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/compat.h"
#include "platform/path.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rts_msg.h"

namespace {

// The control socket of each data socket, by descriptor, and the answers
// still owed on it for requests that timed out, by control operation.
struct CtlState {
  int fd = -1;
  uint32_t owed[RTS_CTL_VERDICT + 1] = {};
};
std::vector<CtlState> ctl_of;

CtlState *ctl(int fd) {
  return fd >= 0 && static_cast<size_t>(fd) < ctl_of.size() && ctl_of[fd].fd >= 0 ? &ctl_of[fd]
                                                                                  : nullptr;
}

struct CtlBuf {
  rts_ctl_msg m;
  uint8_t value[RTS_CTL_VALUE_MAX];
};

// Waits for the peer's answer of operation `op`; 0 or an errno value. Answers
// owed to requests that timed out are dropped on the way; a wait that times
// out leaves one more owed.
int ctl_wait(CtlState &cs, uint32_t op, CtlBuf *in) {
  for (;;) {
    pollfd p{cs.fd, POLLIN, 0};
    int r = poll(&p, 1, rts_ctl_timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return errno;
    if (r == 0) {
      if (op <= RTS_CTL_VERDICT) cs.owed[op]++;
      return ETIMEDOUT;
    }
    ssize_t n = recv(cs.fd, in, sizeof *in, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return errno;
    if (n == 0) return ECONNRESET;
    if (static_cast<size_t>(n) < sizeof in->m || in->m.magic != RTS_CTL_MAGIC ||
        in->m.len > static_cast<size_t>(n) - sizeof in->m)
      return EPROTO;
    uint32_t got = in->m.op;
    if (got <= RTS_CTL_VERDICT && cs.owed[got]) {
      cs.owed[got]--;
      continue;
    }
    return got == op ? 0 : EPROTO;
  }
}

int ctl_call(CtlState &cs, const rts_ctl_msg &req, const void *value, CtlBuf *reply) {
  CtlBuf out;
  out.m = req;
  if (req.len > RTS_CTL_VALUE_MAX) return EINVAL;
  if (req.len && value) memcpy(out.value, value, req.len);
  if (send(cs.fd, &out, sizeof out.m + (value ? req.len : 0), MSG_NOSIGNAL) < 0) return errno;
  return ctl_wait(cs, req.op, reply);
}

int fail(int err) {
  errno = err;
  return -1;
}

int lo_open(void *) {
  char path[sizeof(sockaddr_un::sun_path)];
  if (!rts_peer_path(path, sizeof path)) return -1;
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  strlcpy(sa.sun_path, path, sizeof sa.sun_path);
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int sv[2] = {-1, -1};
  int err = 0;
  if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0 ||
      socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) {
    err = errno;
  } else {
    rts_ctl_msg hello{RTS_CTL_MAGIC, RTS_CTL_HELLO, 0, 0, 0};
    iovec iov{&hello, sizeof hello};
    alignas(cmsghdr) char cbuf[CMSG_SPACE(sizeof(int))] = {};
    msghdr mh{};
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = cbuf;
    mh.msg_controllen = sizeof cbuf;
    cmsghdr *c = CMSG_FIRSTHDR(&mh);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(c), &sv[1], sizeof(int));
    CtlBuf reply;
    CtlState cs;
    cs.fd = sv[0];
    if (sendmsg(fd, &mh, MSG_NOSIGNAL) < 0) err = errno;
    else if ((err = ctl_wait(cs, RTS_CTL_HELLO, &reply)) == 0 && reply.m.error) err = reply.m.error;
    close(sv[1]);
    if (!err && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0) err = errno;
  }
  if (err) {
    close(fd);
    if (sv[0] >= 0) close(sv[0]);
    return fail(err);
  }
  if (ctl_of.size() <= static_cast<size_t>(fd)) ctl_of.resize(fd + 1);
  ctl_of[fd] = CtlState{};
  ctl_of[fd].fd = sv[0];
  return fd;
}

int lo_close(void *, int fd) {
  if (CtlState *c = ctl(fd)) {
    close(c->fd);
    *c = CtlState{};
  }
  return close(fd);
}

int lo_setopt(void *, int fd, int level, int name, const void *value, socklen_t len) {
  if (level != RTS_SOL) return setsockopt(fd, level, name, value, len);
  CtlState *c = ctl(fd);
  if (!c) return fail(EBADF);
  CtlBuf reply;
  rts_ctl_msg req{RTS_CTL_MAGIC, RTS_CTL_SETOPT, name, 0, len};
  int err = ctl_call(*c, req, value, &reply);
  if (!err) err = reply.m.error;
  return err ? fail(err) : 0;
}

int lo_getopt(void *, int fd, int level, int name, void *value, socklen_t *len) {
  if (level != RTS_SOL) return getsockopt(fd, level, name, value, len);
  CtlState *c = ctl(fd);
  if (!c) return fail(EBADF);
  CtlBuf reply;
  rts_ctl_msg req{RTS_CTL_MAGIC, RTS_CTL_GETOPT, name, 0, *len};
  int err = ctl_call(*c, req, nullptr, &reply);
  if (!err) err = reply.m.error;
  if (err) return fail(err);
  socklen_t n = reply.m.len < *len ? reply.m.len : *len;
  memcpy(value, reply.value, n);
  *len = n;
  return 0;
}

ssize_t lo_write(void *, int fd, const void *buf, size_t len) {
  CtlState *c = ctl(fd);
  if (!c) return fail(EBADF);
  if (send(fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return -1;
  CtlBuf v;
  int err = ctl_wait(*c, RTS_CTL_VERDICT, &v);
  if (!err) err = v.m.error;
  return err ? fail(err) : static_cast<ssize_t>(len);
}

// The data socket's own blocking mode decides whether a read waits (the
// channel's resynchronisation reads block); a record longer than the buffer
// is an error, never a message cut short.
ssize_t lo_read(void *, int fd, void *buf, size_t len) {
  iovec iov{buf, len};
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  ssize_t n = recvmsg(fd, &mh, 0);
  if (n >= 0 && (mh.msg_flags & MSG_TRUNC)) return fail(EMSGSIZE);
  return n;
}

ssize_t lo_peek(void *, int fd, void *buf, size_t len) {
  return recv(fd, buf, len, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC);
}

const rts_lower_ops *current = &rts_lower_seqpacket;

}  // namespace

int rts_ctl_timeout_ms = RTS_CTL_TIMEOUT_MS;

const rts_lower_ops rts_lower_seqpacket = {lo_open, lo_close, lo_setopt, lo_getopt,
                                           lo_write, lo_read,  lo_peek,   nullptr};

void rts_lower_set(const rts_lower_ops *ops) { current = ops ? ops : &rts_lower_seqpacket; }

const rts_lower_ops *rts_lower(void) { return current; }

const char *rts_peer_path(char *buf, size_t len) {
  const char *env = getenv("RTSOCK_PATH");
  if (env && *env) {
    if (strlcpy(buf, env, len) >= len) {
      errno = ENAMETOOLONG;
      return nullptr;
    }
    return buf;
  }
  return tvx_path("/var/run/rtsock", buf, len);
}
