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
// With --ifstate it mirrors the interfaces and the routing instances
// instead (lib/ifstate), prints the mirrors once the scans are over, then
// each change as the mirror's broadcasts tell it:
//
//   rtt default.inet&AF=2 af 2 id 0    (instances, then devices, logical
//   ifd 2 ge-0/0/0 mtu 1514             interfaces, families, addresses)
//   ifl 71 ge-0/0/0.0 instance 0
//   iff ge-0/0/0.0 inet mtu 1500
//   ifa ge-0/0/0.0 inet 192.0.2.1/32
//   scan done ifd 2 ifl 2 iff 2 ifa 3 rtt 2
//   add ifa ge-0/0/0.0 inet 192.0.2.9/32
//
// It talks to the route-socket peer at $RTSOCK_PATH, else /var/run/rtsock
// under the path root. SIGTERM ends it with status 0.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "evlog/evlog.h"
#include "ifstate/ifchange.h"
#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"
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

// ---- --ifstate -------------------------------------------------------------------------------
bool mirrored;  // the scans are over: changes are printed from now on

const char *verb(uint32_t change) {
  return change & IF_CHANGE_DELETE ? "delete " : change & IF_CHANGE_NEW ? "add " : "change ";
}
void print_ifd(const char *v, const if_device *d) { printf("%sifd %u %s mtu %u\n", v, d->ifd_index, d->ifd_name, d->ifd_mtu); }
void print_ifl(const char *v, const if_link *l) {
  printf("%sifl %u %s instance %u\n", v, l->ifl_index, l->ifl_name, l->ifl_instance);
}
void print_iff(const char *v, const if_family *f) {
  printf("%siff %s %s mtu %u\n", v, f->iff_ifl->ifl_name, if_family_name(f->iff_family), f->iff_mtu);
}
void print_ifa(const char *v, const if_address *a) {
  char text[INET6_ADDRSTRLEN];
  inet_ntop(a->ifa_family == RTS_AF_INET6 ? AF_INET6 : AF_INET, a->ifa_local, text, sizeof text);
  printf("%sifa %s %s %s/%u\n", v, a->ifa_iff->iff_ifl->ifl_name, if_family_name(a->ifa_iff->iff_family), text,
         a->ifa_local_bits);
}
void print_rtt(const char *v, const rt_instance *r) { printf("%srtt %s af %u id %u\n", v, r->rti_name, r->rti_af, r->rti_id); }

// Broadcasts; one that changed nothing prints nothing.
void on_ifd(task *, if_device *d, void *, uint32_t) {
  if (mirrored && d->ifd_change) print_ifd(verb(d->ifd_change), d);
}
void on_ifl(task *, if_link *l) {
  if (mirrored && l->ifl_change) print_ifl(verb(l->ifl_change), l);
}
void on_iff(task *, if_family *f, uint32_t, void *, int) {
  if (mirrored && f->iff_change) print_iff(verb(f->iff_change), f);
}
void on_ifa(task *, if_address *a) {
  if (mirrored && a->ifa_change) print_ifa(verb(a->ifa_change), a);
}
void on_rtt(task *, rt_instance *r) {
  if (!mirrored || !r->rti_flags) return;
  print_rtt(r->rti_flags & RTI_DELETE ? "delete " : r->rti_flags & RTI_NEW ? "add " : "change ", r);
}

void mirror_done() {
  unsigned n[5] = {};
  for (rt_instance *r = rt_instance_first(); r; r = rt_instance_next(r), n[4]++) print_rtt("", r);
  for (if_device *d = ifd_first(); d; d = ifd_next(d), n[0]++) print_ifd("", d);
  for (if_link *l = ifl_first(); l; l = ifl_next(l), n[1]++) print_ifl("", l);
  for (if_link *l = ifl_first(); l; l = ifl_next(l))
    for (if_family *f = iff_first(l); f; f = iff_next(f), n[2]++) print_iff("", f);
  for (if_link *l = ifl_first(); l; l = ifl_next(l))
    for (if_family *f = iff_first(l); f; f = iff_next(f))
      for (if_address *a = ifa_first(f); a; a = ifa_next(a), n[3]++) print_ifa("", a);
  printf("scan done ifd %u ifl %u iff %u ifa %u rtt %u\n", n[0], n[1], n[2], n[3], n[4]);
  mirrored = true;
}

krt_scan if_scans[RT_INSTANCE_SCAN_COUNT + 0u + IF_SCAN_COUNT];

void start_ifstate() {
  if_init();
  rt_instance_init();
  if_rtsock_install(handlers);
  handlers[RTS_T_RTTABLE] = rt_instance_krt_handler;
  memcpy(if_scans, rt_instance_scan_list(), sizeof(krt_scan) * RT_INSTANCE_SCAN_COUNT);
  memcpy(if_scans + RT_INSTANCE_SCAN_COUNT, if_scan_list(), sizeof(krt_scan) * IF_SCAN_COUNT);
  if_scans[sizeof if_scans / sizeof if_scans[0] - 1].done = mirror_done;
  task *tp = task_alloc("watch", 50, nullptr);
  task_create(tp);
  task_set_ifdchange(tp, on_ifd);
  task_set_iflchange(tp, on_ifl);
  task_set_iffchange(tp, on_iff);
  task_set_ifachange(tp, on_ifa);
  task_set_rttchange(tp, on_rtt);
  cfg.listen_mask[0] = 0x2 | 0x4 | 0x10 | 0x20 | 0x2000;  // ifdev, iflogical, iffamily, ifaddr, rttable
  cfg.scans = if_scans;
  cfg.scan_count = sizeof if_scans / sizeof if_scans[0];
}

}  // namespace

int main(int argc, char **argv) {
  bool ifstate = argc == 2 && strcmp(argv[1], "--ifstate") == 0;
  if (argc > 1 && !ifstate) {
    bool help = strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0;
    fprintf(help ? stdout : stderr,
            "usage: krt_bd_watch [--ifstate]\n"
            "Prints the kernel's bridge domains, then every change to them, one line each.\n"
            "With --ifstate: the interfaces and routing instances instead, mirrored by lib/ifstate.\n"
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
  if (ifstate) start_ifstate();
  krt_var_init();
  krt_start(&cfg);
  task_scheduler();
}
