// krt_bd_watch: the route-socket channel in the smallest daemon that uses it.
// It learns the kernel's bridge domains by a scan of type 89 and follows the
// notifications that come after, one line each on standard output:
//
//   bd 5 vnid 100 rtb 7 vxlan          (the scan, in index order)
//   scan done 3
//   add bd 12 vnid 300 rtb 7 vxlan     (then each change)
//   change bd 5 vnid 101 rtb 7 vxlan
//   delete bd 12
//
// It talks to the route-socket peer at $RTSOCK_PATH, else /var/run/rtsock
// under the path root. SIGTERM ends it with status 0.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "evlog/evlog.h"
#include "krt/krt.h"
#include "krt/krt_scan.h"
#include "rtsock/rts_lower.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

task_app_ctx_t app;
uint32_t scanned;

void print_bd(const char *what, const rts_bd_msg *b) {
  if (b->hdr.operation == RTS_OP_DELETE) {
    printf("delete bd %u\n", b->bdm_index);
    return;
  }
  printf("%s%sbd %u vnid %u rtb %u%s\n", what, *what ? " " : "", b->bdm_index, b->vnid, b->rtb_id,
         (b->cfg_flags & RTS_BD_CFG_VXLAN) ? " vxlan" : "");
}

// Type 89 notifications.
void on_bd(task *, void *message, uint32_t) {
  auto *b = static_cast<rts_bd_msg *>(message);
  print_bd(b->hdr.operation == RTS_OP_ADD ? "add" : "change", b);
}

int scan_reply(void *message, uint32_t, krt_scan_state *st) {
  auto *b = static_cast<rts_bd_msg *>(message);
  print_bd("", b);
  scanned++;
  reinterpret_cast<krt_cursor_bd *>(st->priv)->index = b->bdm_index;
  return 1;
}

void scan_done() { printf("scan done %u\n", scanned); }

krt_handler_fn handlers[KRT_HANDLER_COUNT];
const krt_scan scans[] = {{RTS_T_BRIDGE_DOMAIN, 1, sizeof(krt_cursor_bd), 1, nullptr, nullptr, nullptr,
                           krt_scan_req_bridge_domain, scan_reply, scan_done}};
krt_config cfg;

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1) {
    bool help = strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0;
    fprintf(help ? stdout : stderr,
            "usage: krt_bd_watch\n"
            "Prints the kernel's bridge domains, then every change to them, one line each.\n"
            "The route-socket peer is $RTSOCK_PATH, else /var/run/rtsock under $TAVOX_ROOT.\n"
            "Exit status: 0 on SIGTERM, 1 when the peer cannot be reached, 2 on a usage error.\n");
    return help ? 0 : 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  task_set_daemon_name(argv[0]);
  logging_set_mode(LOGGING_MODE_STDERR);
  // The channel's start treats a socket it cannot have as a fault: ask first.
  const rts_lower_ops *lo = rts_lower();
  int probe = lo->lo_open(lo->lo_ctx);
  if (probe < 0) {
    char path[256];
    fprintf(stderr, "krt_bd_watch: cannot reach the route-socket peer at %s: %s\n",
            rts_peer_path(path, sizeof path) ? path : "?", strerror(errno));
    return 1;
  }
  lo->lo_close(lo->lo_ctx, probe);
  task_set_task_app_ctx(&app);
  task_kernel_init();
  handlers[RTS_T_BRIDGE_DOMAIN] = on_bd;
  cfg.sender_id = 131;
  cfg.listen_mask[1] = 0x1000;  // bridge domains
  cfg.async_mode_on = 1;
  cfg.handlers = handlers;
  cfg.scans = scans;
  cfg.scan_count = 1;
  krt_var_init();
  krt_start(&cfg);
  task_scheduler();
}
