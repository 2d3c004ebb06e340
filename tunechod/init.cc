// Start of the responder: the allocation hooks, the trace options, the raw
// send socket, the route-socket handle and the UDP receive task.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/sockopt.h"
#include "sockaddr/families.h"
#include "task/io.h"
#include "task/quit.h"
#include "tunechod.h"

tunechod_app_t tunechod_app;
trace_ctx_t tunechod_trace;

namespace {

void *zeroed(size_t size) {
  void *p = malloc(size);
  if (!p) {
    TUNECHOD_ERROR("TUNECHOD_MEM_ALLOC_FAILED", "Mem alloc failed");
    return nullptr;
  }
  memset(p, 0, size);
  return p;
}

}  // namespace

void *tunechod_app_alloc(size_t size) { return zeroed(size); }
void *tunechod_app_alloc2(void *, size_t size) { return zeroed(size); }
void tunechod_app_free(void *block) { free(block); }

// The status of the last read, which tunechod_config_read reports.
static int traceoptions_status;

void tunechod_config_read_traceoptions(void) {
  static const char *const path[] = {"protocols", "overlay", nullptr};
  traceoptions_status = daemon_trace_read_config(0, path, &tunechod_trace);
  TUNECHOD_TRACE(DAEMON_TRACE_CONFIG, "Trace config flags %d read status %d ",
                 static_cast<int>(tunechod_trace.tc_flags), traceoptions_status);
}

int tunechod_config_read(void) {
  tunechod_config_read_traceoptions();
  if (traceoptions_status) return 1;
  TUNECHOD_TRACE(DAEMON_TRACE_CONFIG, "%s: traceflag configuration failed", "tunechod");
  return 0;
}

void tunechod_task_exit(task *) { exit(0); }

void tunechod_send_init(void) {
  int s = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
  if (s < 1) __task_quit__(errno);  // descriptor 0 counts as a failure too
  int one = 1;
  if (tvx_setsockopt(s, IPPROTO_IP, IP_HDRINCL, &one, 4) < 0) __task_quit__(errno);
  if (tvx_setsockopt(s, IPPROTO_IP, IP_OUTPUT_L3, &one, 4) < 0) __task_quit__(errno);
  tunechod_app.raw_sock = s;
  rtslib_cookie *cookie = rtslib_open(TUNECHOD_SENDER_ID);
  if (!cookie) __task_quit__(errno ? errno : 22);
  if (int rc = rtslib_set_buffers(cookie, TUNECHOD_RTS_BUFFERS, TUNECHOD_RTS_BUFFERS)) __task_quit__(rc);
  tunechod_app.rts_sync_cookie = cookie;
}

void tunechod_rx_init(void) {
  task *tp = task_alloc("tunechod-rx-task", 0, nullptr);
  task_set_data(tp, &tunechod_app);
  task_set_terminate(tp, tunechod_task_exit);
  if (tunechod_port_held()) {
    int s = tunechod_packet_socket();
    if (s < 0) __task_quit__(errno);
    task_set_socket(tp, s);
    task_set_recv(tp, tunechod_rx_read_packet);
    if (!task_create(tp)) __task_quit__(22);
    tunechod_app.rx_task = tp;
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "UDP port %d is held by the kernel's VXLAN device: requests from packet socket %d",
                   TUNECHOD_PORT, s);
    return;
  }
  task_set_addr(tp, sockcreate_in(htons(TUNECHOD_PORT), INADDR_ANY));
  int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
  if (s < 0) __task_quit__(errno);
  task_set_socket(tp, s);
  task_set_recv(tp, tunechod_rx_read);
  int one = 1;
  if (task_set_option(tp, TASKOPTION_REUSEADDR, 1) != 0 || task_set_option(tp, TASKOPTION_REUSEPORT, 1) != 0 ||
      tvx_setsockopt(s, IPPROTO_UDP, TVX_UDP_OPTION_2, &one, 4) != 0 ||
      task_set_option(tp, TASKOPTION_RCVDSTADDR, 1) != 0 || task_set_option(tp, TASKOPTION_RECV_RTB, 1) != 0 ||
      task_set_option(tp, TASKOPTION_RCVIF, 1) != 0 || task_addr_local(tp, tp->task_addr) != 0 ||
      task_set_option(tp, TASKOPTION_NONBLOCKING, 1) != 0)
    __task_quit__(errno);
  if (!task_create(tp)) __task_quit__(22);
  tunechod_app.rx_task = tp;
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Receive socket %d initialized", s);
}

void tunechod_rx_module_init(void) {
  static bool done;
  if (done || (task_state & TASKS_TEST)) return;
  memset(&tunechod_app, 0, sizeof tunechod_app);
  tunechod_send_init();
  tunechod_rx_init();
  done = true;
}
