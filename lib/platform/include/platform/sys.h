// Seams for the system calls whose failures the framework must survive.
// Every socket(), recvmsg(), sendmsg(), sendto(), read() and write() of the
// framework goes through tvx_sys, so that tests can make them fail (EINTR,
// EAGAIN, ENOBUFS, ...) or transfer less than asked, without a real fault.
#pragma once

#include <cstddef>
#include <sys/socket.h>
#include <sys/types.h>

struct tvx_sys_ops {
  int (*sys_socket)(int domain, int type, int protocol);
  ssize_t (*sys_recvmsg)(int fd, struct msghdr *msg, int flags);
  ssize_t (*sys_sendmsg)(int fd, const struct msghdr *msg, int flags);
  ssize_t (*sys_sendto)(int fd, const void *buf, size_t len, int flags, const struct sockaddr *to,
                        socklen_t tolen);
  ssize_t (*sys_read)(int fd, void *buf, size_t len);
  ssize_t (*sys_write)(int fd, const void *buf, size_t len);
};

// The table in force. Slots may be replaced one by one.
extern tvx_sys_ops tvx_sys;

// The operating system's own calls.
extern const tvx_sys_ops tvx_sys_default;

// Puts the operating system's calls back in every slot.
void tvx_sys_reset(void);

// Scripted faults, for tests. Each call of an operation takes the first
// pending fault for it (for any descriptor, or for the one named); a fault
// holds for `times` calls. The real call runs only for a short transfer.
enum tvx_sys_op {
  TVX_SYS_SOCKET,
  TVX_SYS_RECVMSG,
  TVX_SYS_SENDMSG,
  TVX_SYS_SENDTO,
  TVX_SYS_READ,
  TVX_SYS_WRITE,
  TVX_SYS_NOPS
};

// The next `times` calls fail with err and do nothing. For TVX_SYS_SOCKET the
// descriptor filter is the address family.
void tvx_fault_errno(tvx_sys_op op, int err, unsigned times = 1, int fd = -1);
// The next `times` calls transfer at most `limit` bytes.
void tvx_fault_short(tvx_sys_op op, size_t limit, unsigned times = 1, int fd = -1);
// Drops pending faults, zeroes the counters and resets the table.
void tvx_fault_clear(void);
// Calls of op seen since the first fault was scripted (faulted or not).
unsigned tvx_fault_calls(tvx_sys_op op);
