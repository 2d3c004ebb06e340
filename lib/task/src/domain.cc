// The table of socket domains that the process serves itself.
#include "task/domain.h"

#include <cerrno>

#include "task/task.h"

namespace {
const task_domain_ops *domains[TASK_DOMAIN_MAX];
}

void task_domain_register(int domain, const task_domain_ops *ops) {
  if (domain >= 0 && domain < TASK_DOMAIN_MAX) domains[domain] = ops;
}

const task_domain_ops *task_domain_get(int domain) {
  return domain >= 0 && domain < TASK_DOMAIN_MAX ? domains[domain] : nullptr;
}

int task_socket_setopt(task *tp, int level, int name, const void *value, socklen_t len) {
  if (!tp || tp->task_socket < 0) {
    errno = EBADF;
    return -1;
  }
  if (task_state & TASKS_TEST) return 0;
  if (const task_domain_ops *d = task_domain_get(tp->task_addrfamily))
    return d->tdo_setopt(d->tdo_ctx, tp->task_socket, level, name, value, len);
  return setsockopt(tp->task_socket, level, name, value, len);
}

int task_socket_getopt(task *tp, int level, int name, void *value, socklen_t *len) {
  if (!tp || tp->task_socket < 0) {
    errno = EBADF;
    return -1;
  }
  if (const task_domain_ops *d = task_domain_get(tp->task_addrfamily))
    return d->tdo_getopt(d->tdo_ctx, tp->task_socket, level, name, value, len);
  return getsockopt(tp->task_socket, level, name, value, len);
}
