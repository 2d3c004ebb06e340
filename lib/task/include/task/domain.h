// Socket domains served by the process instead of the system: a table of
// operations per domain number (socket, close, option set and get, receive,
// send). A task whose socket was made in a registered domain has its socket
// calls, its options and its receives and sends go through the table, so a
// domain that Linux lacks (the route socket, domain 17) reaches its peer
// rather than AF_PACKET. The descriptor a domain hands out must be one epoll
// can watch, readable exactly when a receive would find something.
//
// Task options of such a domain are mapped by the domain's own option list
// (task option -> level, name, value width); socket-level options (buffer
// sizes) go to its setopt at SOL_SOCKET; "NonBlocking" and "F_CLOEXEC" act
// on the descriptor itself; every other option is accepted and does nothing.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>

struct task;

extern "C" {

struct task_domain_option {
  int tdopt_option;  // a task_option
  int tdopt_level;
  int tdopt_name;
  uint8_t tdopt_width;  // bytes of the value: 1, 4 or 8
};

struct task_domain_ops {
  const char *tdo_name;  // shown in traces: "ROUTE"
  int (*tdo_socket)(void *ctx, int domain, int type, int protocol);
  int (*tdo_close)(void *ctx, int fd);
  int (*tdo_setopt)(void *ctx, int fd, int level, int name, const void *value, socklen_t len);
  int (*tdo_getopt)(void *ctx, int fd, int level, int name, void *value, socklen_t *len);
  ssize_t (*tdo_recv)(void *ctx, int fd, void *buf, size_t len);
  ssize_t (*tdo_send)(void *ctx, int fd, const void *buf, size_t len);
  void *tdo_ctx;
  const task_domain_option *tdo_options;
  uint32_t tdo_option_count;
};

enum { TASK_DOMAIN_MAX = 64 };
// Registers (or with null removes) the operations of a domain below
// TASK_DOMAIN_MAX; the table is copied by pointer and must outlive its use.
void task_domain_register(int domain, const task_domain_ops *ops);
// The operations of a domain, or null when the system serves it.
const task_domain_ops *task_domain_get(int domain);

// Options by level and name on a task's socket, through its domain's table
// when it has one, else setsockopt/getsockopt. -1 with errno on failure.
int task_socket_setopt(task *tp, int level, int name, const void *value, socklen_t len);
int task_socket_getopt(task *tp, int level, int name, void *value, socklen_t *len);

}  // extern "C"
