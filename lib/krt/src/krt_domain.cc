// Domain 17 of the task kernel: the route-socket library's lower edge in
// force, looked up on every call so that a test's in-process peer applies.
#include "krt_internal.h"
#include "rtsock/rts_lower.h"
#include "task/domain.h"
#include "task/io.h"

namespace {

int d_socket(void *, int, int, int) { return rts_lower()->lo_open(rts_lower()->lo_ctx); }
int d_close(void *, int fd) { return rts_lower()->lo_close(rts_lower()->lo_ctx, fd); }
int d_setopt(void *, int fd, int level, int name, const void *v, socklen_t len) {
  return rts_lower()->lo_setopt(rts_lower()->lo_ctx, fd, level, name, v, len);
}
int d_getopt(void *, int fd, int level, int name, void *v, socklen_t *len) {
  return rts_lower()->lo_getopt(rts_lower()->lo_ctx, fd, level, name, v, len);
}
ssize_t d_recv(void *, int fd, void *buf, size_t len) { return rts_lower()->lo_read(rts_lower()->lo_ctx, fd, buf, len); }
ssize_t d_send(void *, int fd, const void *buf, size_t len) {
  return rts_lower()->lo_write(rts_lower()->lo_ctx, fd, buf, len);
}

// The route-socket task options and where they land.
const task_domain_option kOptions[] = {
    {TASKOPTION_RTSOCK_FLAGS, RTS_SOL, RTS_OPT_LISTEN_MASK, 8},
    {TASKOPTION_RTSOCK_LOOPBACK_MASK, RTS_SOL, RTS_OPT_LOOPBACK_MASK, 8},
    {TASKOPTION_RTSOCK_SENDER_ID, RTS_SOL, RTS_OPT_SENDER_ID, 1},
    {TASKOPTION_RTSOCK_ASYNC_MODE, RTS_SOL, RTS_OPT_ASYNC_MODE, 4},
    {TASKOPTION_RTSOCK_VETO, RTS_SOL, RTS_OPT_ROUTE_VETO, 4},
    {TASKOPTION_RTSOCK_SYNC_MODE, RTS_SOL, RTS_OPT_SYNC_MODE, 4},
    {TASKOPTION_RTSOCK_VERSIONS, RTS_SOL, RTS_OPT_VERSION, 4},
};

const task_domain_ops kRoute = {"ROUTE", d_socket, d_close, d_setopt, d_getopt, d_recv, d_send, nullptr,
                                kOptions, sizeof kOptions / sizeof kOptions[0]};

}  // namespace

void krt_domain_init(void) { task_domain_register(KRT_DOMAIN, &kRoute); }
