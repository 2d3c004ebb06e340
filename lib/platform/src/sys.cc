// The system-call table and its scripted faults.
#include "platform/sys.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <unistd.h>
#include <vector>

const tvx_sys_ops tvx_sys_default = {
    ::socket, ::recvmsg, ::sendmsg, ::sendto, ::read, ::write,
};

tvx_sys_ops tvx_sys = tvx_sys_default;

void tvx_sys_reset(void) { tvx_sys = tvx_sys_default; }

namespace {

struct fault {
  bool is_errno;
  int err;
  size_t limit;
  unsigned times;
  int fd;
};

struct fault_state {
  std::deque<fault> pending[TVX_SYS_NOPS];
  unsigned calls[TVX_SYS_NOPS] = {};
};

fault_state faults;

// Takes the fault for this call, if any. Returns false when the call runs untouched.
bool take(tvx_sys_op op, int fd, fault &out) {
  faults.calls[op]++;
  auto &q = faults.pending[op];
  for (auto it = q.begin(); it != q.end(); ++it) {
    if (it->fd != -1 && it->fd != fd) continue;
    out = *it;
    if (--it->times == 0) q.erase(it);
    return true;
  }
  return false;
}

// Trims an iovec array to `limit` bytes in all.
std::vector<iovec> trimmed(const msghdr *m, size_t limit) {
  std::vector<iovec> v;
  for (size_t i = 0; i < m->msg_iovlen && limit; i++) {
    iovec io = m->msg_iov[i];
    io.iov_len = std::min(io.iov_len, limit);
    limit -= io.iov_len;
    v.push_back(io);
  }
  return v;
}

ssize_t failed(int err) {
  errno = err;
  return -1;
}

int f_socket(int domain, int type, int protocol) {
  fault f;
  if (take(TVX_SYS_SOCKET, domain, f) && f.is_errno) return static_cast<int>(failed(f.err));
  return tvx_sys_default.sys_socket(domain, type, protocol);
}

ssize_t f_recvmsg(int fd, msghdr *m, int flags) {
  fault f;
  if (!take(TVX_SYS_RECVMSG, fd, f)) return tvx_sys_default.sys_recvmsg(fd, m, flags);
  if (f.is_errno) return failed(f.err);
  msghdr copy = *m;
  auto iov = trimmed(m, f.limit);
  copy.msg_iov = iov.data();
  copy.msg_iovlen = iov.size();
  ssize_t r = tvx_sys_default.sys_recvmsg(fd, &copy, flags);
  m->msg_namelen = copy.msg_namelen;
  m->msg_controllen = copy.msg_controllen;
  m->msg_flags = copy.msg_flags;
  return r;
}

ssize_t f_sendmsg(int fd, const msghdr *m, int flags) {
  fault f;
  if (!take(TVX_SYS_SENDMSG, fd, f)) return tvx_sys_default.sys_sendmsg(fd, m, flags);
  if (f.is_errno) return failed(f.err);
  msghdr copy = *m;
  auto iov = trimmed(m, f.limit);
  copy.msg_iov = iov.data();
  copy.msg_iovlen = iov.size();
  return tvx_sys_default.sys_sendmsg(fd, &copy, flags);
}

ssize_t f_sendto(int fd, const void *buf, size_t len, int flags, const sockaddr *to, socklen_t tolen) {
  fault f;
  if (!take(TVX_SYS_SENDTO, fd, f)) return tvx_sys_default.sys_sendto(fd, buf, len, flags, to, tolen);
  if (f.is_errno) return failed(f.err);
  return tvx_sys_default.sys_sendto(fd, buf, std::min(len, f.limit), flags, to, tolen);
}

ssize_t f_read(int fd, void *buf, size_t len) {
  fault f;
  if (!take(TVX_SYS_READ, fd, f)) return tvx_sys_default.sys_read(fd, buf, len);
  if (f.is_errno) return failed(f.err);
  return tvx_sys_default.sys_read(fd, buf, std::min(len, f.limit));
}

ssize_t f_write(int fd, const void *buf, size_t len) {
  fault f;
  if (!take(TVX_SYS_WRITE, fd, f)) return tvx_sys_default.sys_write(fd, buf, len);
  if (f.is_errno) return failed(f.err);
  return tvx_sys_default.sys_write(fd, buf, std::min(len, f.limit));
}

const tvx_sys_ops faulting = {f_socket, f_recvmsg, f_sendmsg, f_sendto, f_read, f_write};

void script(tvx_sys_op op, fault f) {
  if (op < 0 || op >= TVX_SYS_NOPS || f.times == 0) return;
  tvx_sys = faulting;
  faults.pending[op].push_back(f);
}

}  // namespace

void tvx_fault_errno(tvx_sys_op op, int err, unsigned times, int fd) {
  script(op, {true, err, 0, times, fd});
}

void tvx_fault_short(tvx_sys_op op, size_t limit, unsigned times, int fd) {
  script(op, {false, 0, limit, times, fd});
}

void tvx_fault_clear(void) {
  faults = fault_state{};
  tvx_sys_reset();
}

unsigned tvx_fault_calls(tvx_sys_op op) {
  return op >= 0 && op < TVX_SYS_NOPS ? faults.calls[op] : 0;
}
