// The default lower edge: a data socket and a control socket to rtsockd.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "platform/compat.h"
#include "platform/path.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rts_msg.h"

namespace {

struct CtlBuf {
  rts_ctl_msg m;
  uint8_t value[RTS_CTL_VALUE_MAX];
};

// A reply that came with its verdict: handed up as the next record once the
// client has read `until` records off the data socket.
struct Held {
  uint32_t until;
  std::vector<uint8_t> bytes;
};

// The control socket of each data socket, by descriptor; the answers still
// owed on it for requests that timed out, by control operation; the records
// read off the data socket; and the replies held for reading.
struct CtlState {
  int fd = -1;
  int timeout_ms = -1;  // the receive timeout set on fd
  uint32_t owed[RTS_CTL_VERDICT + 1] = {};
  uint32_t data_read = 0;
  // The last verdict record as it came: its reply is read in place; replies
  // of earlier writes not yet read wait in `older`.
  std::vector<uint8_t> rx;
  bool held = false;
  uint32_t held_until = 0;
  size_t held_off = 0, held_len = 0;
  std::deque<Held> older;
};
std::vector<CtlState> ctl_of;

CtlState *ctl(int fd) {
  return fd >= 0 && static_cast<size_t>(fd) < ctl_of.size() && ctl_of[fd].fd >= 0 ? &ctl_of[fd]
                                                                                  : nullptr;
}

// The reply to hand up now, if one is due: the client has read every data
// record the peer sent before it.
bool due(const CtlState &cs, const uint8_t **p, size_t *n) {
  uint32_t until;
  if (!cs.older.empty()) {
    until = cs.older.front().until;
    *p = cs.older.front().bytes.data();
    *n = cs.older.front().bytes.size();
  } else if (cs.held) {
    until = cs.held_until;
    *p = cs.rx.data() + cs.held_off;
    *n = cs.held_len;
  } else {
    return false;
  }
  return static_cast<int32_t>(cs.data_read - until) >= 0;
}

void consume_due(CtlState &cs) {
  if (!cs.older.empty()) cs.older.pop_front();
  else cs.held = false;
}

// Waits for the peer's answer of operation `op` into buf (size bytes); 0 or
// an errno value. One blocking receive with the timeout set on the socket.
// Answers owed to requests that timed out are dropped on the way (cut short
// if they do not fit: nobody reads them); a wait that times out leaves one
// more owed.
int ctl_wait(CtlState &cs, uint32_t op, void *buf, size_t size) {
  if (cs.timeout_ms != rts_ctl_timeout_ms) {
    timeval tv{rts_ctl_timeout_ms / 1000, (rts_ctl_timeout_ms % 1000) * 1000};
    if (setsockopt(cs.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) < 0) return errno;
    cs.timeout_ms = rts_ctl_timeout_ms;
  }
  for (;;) {
    ssize_t n = recv(cs.fd, buf, size, MSG_TRUNC);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (op <= RTS_CTL_VERDICT) cs.owed[op]++;
      return ETIMEDOUT;
    }
    if (n < 0) return errno;
    if (n == 0) return ECONNRESET;
    rts_ctl_msg m;
    if (static_cast<size_t>(n) < sizeof m) return EPROTO;
    memcpy(&m, buf, sizeof m);
    if (m.magic != RTS_CTL_MAGIC) return EPROTO;
    if (m.op <= RTS_CTL_VERDICT && cs.owed[m.op]) {
      cs.owed[m.op]--;
      continue;
    }
    if (m.op != op || static_cast<size_t>(n) > size || m.len > static_cast<size_t>(n) - sizeof m)
      return EPROTO;
    return 0;
  }
}

int ctl_call(CtlState &cs, const rts_ctl_msg &req, const void *value, CtlBuf *reply) {
  CtlBuf out;
  out.m = req;
  if (req.len > RTS_CTL_VALUE_MAX) return EINVAL;
  if (req.len && value) memcpy(out.value, value, req.len);
  if (send(cs.fd, &out, sizeof out.m + (value ? req.len : 0), MSG_NOSIGNAL) < 0) return errno;
  return ctl_wait(cs, req.op, reply, sizeof *reply);
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
  CtlState cs;
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
    cs.fd = sv[0];
    if (sendmsg(fd, &mh, MSG_NOSIGNAL) < 0) err = errno;
    else if ((err = ctl_wait(cs, RTS_CTL_HELLO, &reply, sizeof reply)) == 0 && reply.m.error)
      err = reply.m.error;
    close(sv[1]);
    if (!err && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0) err = errno;
  }
  if (err) {
    close(fd);
    if (sv[0] >= 0) close(sv[0]);
    return fail(err);
  }
  if (ctl_of.size() <= static_cast<size_t>(fd)) ctl_of.resize(fd + 1);
  ctl_of[fd] = std::move(cs);
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

// One send on the data socket, one receive of the verdict on the control
// socket; the reply that came with it is held for lo_peek and lo_read.
ssize_t lo_write(void *, int fd, const void *buf, size_t len) {
  CtlState *c = ctl(fd);
  if (!c) return fail(EBADF);
  if (c->held) {  // an earlier write's reply, not read yet: keep it, in order
    const uint8_t *p = c->rx.data() + c->held_off;
    c->older.push_back(Held{c->held_until, std::vector<uint8_t>(p, p + c->held_len)});
    c->held = false;
  }
  if (send(fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return -1;
  constexpr size_t kHead = sizeof(rts_ctl_msg) + sizeof(rts_ctl_verdict);
  if (c->rx.size() < kHead + RTS_CTL_REPLY_MAX) c->rx.resize(kHead + RTS_CTL_REPLY_MAX);
  int err = ctl_wait(*c, RTS_CTL_VERDICT, c->rx.data(), c->rx.size());
  if (err) return fail(err);
  rts_ctl_msg m;
  memcpy(&m, c->rx.data(), sizeof m);
  if (m.len < sizeof(rts_ctl_verdict)) return fail(EPROTO);
  rts_ctl_verdict v;
  memcpy(&v, c->rx.data() + sizeof m, sizeof v);
  // A failed batch may still bring the replies of the messages it took.
  if (m.len > sizeof v) {
    c->held = true;
    c->held_until = v.data_sent;
    c->held_off = kHead;
    c->held_len = m.len - sizeof v;
  }
  return m.error ? fail(m.error) : static_cast<ssize_t>(len);
}

// A held reply that is due is read before the socket. Otherwise the data
// socket's own blocking mode decides whether a read waits (the channel's
// resynchronisation reads block); a record longer than the buffer is an
// error, never a message cut short.
ssize_t lo_read(void *, int fd, void *buf, size_t len) {
  CtlState *c = ctl(fd);
  const uint8_t *p;
  size_t n;
  if (c && due(*c, &p, &n)) {
    bool fits = n <= len;
    if (fits) memcpy(buf, p, n);
    consume_due(*c);
    return fits ? static_cast<ssize_t>(n) : fail(EMSGSIZE);
  }
  iovec iov{buf, len};
  msghdr mh{};
  mh.msg_iov = &iov;
  mh.msg_iovlen = 1;
  ssize_t got = recvmsg(fd, &mh, 0);
  if (got > 0 && c) c->data_read++;
  if (got >= 0 && (mh.msg_flags & MSG_TRUNC)) return fail(EMSGSIZE);
  return got;
}

ssize_t lo_peek(void *, int fd, void *buf, size_t len) {
  CtlState *c = ctl(fd);
  const uint8_t *p;
  size_t n;
  if (c && due(*c, &p, &n)) {
    memcpy(buf, p, n < len ? n : len);
    return static_cast<ssize_t>(n);
  }
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
