// tunechod: the overlay-ping responder. It answers VXLAN OAM echo requests on
// UDP port 4789 from its tables of VXLAN bridge domains, which the kernel
// fills over the route socket, and serves the ping command's VNI question on a
// local socket.
//
//   where a request goes:  tunechod_rx_read -> tunechod_recv_oam_packet ->
//                          tunechod_parse_oam_packet -> tunechod_get_vni,
//                          tunechod_get_mac_from_kernel, tunechod_set_source_ip
//                          -> sendto on the raw socket             (oam_rx.cc)
//   where a bridge domain goes: route-socket type 89 -> tunechod_rtsock_decode_bd
//                          -> rtb_tbl / bd_tbl / vni_tbl            (bd_tables.cc)
//   the ping command's question: tunechod_local_accept -> tunechod_local_read
//                                                                    (local.cc)
//   start: main (main.cc) and the module hooks (init.cc)
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "containers/sparse_table.h"
#include "rtsock/rtslib.h"
#include "task/task.h"
#include "trace/platform_trace.h"

extern "C" {

enum : uint32_t {
  TUNECHOD_PORT = 4789,
  TUNECHOD_SENDER_ID = 131,
  TUNECHOD_RTS_BUFFERS = 65000,
  TUNECHOD_REQ_MIN = 90,
  TUNECHOD_REQ_MAX = 996,   // + 28 bytes of outer headers = the 1024-byte reply buffer
  TUNECHOD_PKT_SIZE = 1024,
  TUNECHOD_REPLY_V4 = 130,
  TUNECHOD_REPLY_V6 = 150,
  TUNECHOD_BD_VXLAN = 0x800,  // cfg_flags bit of a VXLAN bridge domain
  TUNECHOD_SCHEMA = 0xCF06EEE5,
};

// The application record: one static instance, attached to the rx task.
struct tunechod_app_t {
  uint16_t def_rtb_id;        // table of the first VXLAN bridge domain accepted; traced only
  int32_t raw_sock;           // the raw send socket
  task *rx_task;              // owner of the UDP receive socket
  sparse_table16 *rtb_tbl;    // rtb_entry by routing-table id
  rtslib_cookie *rts_sync_cookie;
  uint8_t def_rtb_id_set;
};

// One VXLAN bridge domain, reached from both tables of its routing table.
struct bd_data {
  uint32_t vni;
  uint16_t bd_id;
  uint16_t vlan;
};

struct rtb_entry {
  sparse_table16 *bd_tbl;   // bd_data by bd_id
  sparse_table32 *vni_tbl;  // bd_data by VNI
};

// Counters of the request path, for "show statistics"; plain increments.
struct tunechod_stats_t {
  uint64_t rx_datagrams;
  uint64_t rx_too_short;
  uint64_t rx_too_long;
  uint64_t rx_not_oam;
  uint64_t rx_not_request;
  uint64_t tx_replies;
  uint64_t tx_errors;
  uint64_t vni_known;
  uint64_t vni_unknown;
  uint64_t mac_present;
  uint64_t mac_absent;
  uint64_t fdblearnd_queries;
};

extern tunechod_app_t tunechod_app;
extern tunechod_stats_t tunechod_stats;
extern trace_ctx_t tunechod_trace;
extern sockaddr_in oam_peer, oam_local;
extern uint8_t oam_pkt[TUNECHOD_PKT_SIZE];

// ---- Start (init.cc, schema.cc) -------------------------------------------------
void tunechod_schema_register(void);
void *tunechod_app_alloc(size_t size);
void *tunechod_app_alloc2(void *context, size_t size);
void tunechod_app_free(void *block);
int tunechod_config_read(void);
void tunechod_config_read_traceoptions(void);
void tunechod_rx_module_init(void);
void tunechod_send_init(void);
void tunechod_rx_init(void);
void tunechod_task_exit(task *tp);

// ---- Bridge-domain tables (bd_tables.cc) --------------------------------------------
void tunechod_krt_init(void);
// Creates rtb_tbl (tunechod_krt_init does it once; tests call it alone).
void tunechod_tables_init(void);
// Handler of route-socket type 89: 1 handled (or nothing to do), 0 refused.
int tunechod_rtsock_decode_bd(void *message);
struct krt_scan_state;
void tunechod_bd_scan_init(krt_scan_state *state);
void tunechod_bd_scan_request(void *message, uint32_t *length, krt_scan_state *state);
int tunechod_bd_scan_reply(void *message, uint32_t length, krt_scan_state *state);
// Set once the start-up scan has walked the kernel's whole table.
extern uint8_t tunechod_scan_complete;
// The routing-table entry of rtb_id, null when none.
rtb_entry *tunechod_rtb_find(uint32_t rtb_id);

// ---- Echo processing (oam_rx.cc) ------------------------------------------------------
void tunechod_rx_read(task *tp);
// Where the kernel's own VXLAN device holds UDP 4789 (a Linux VTEP):
// requests come from a packet socket instead (packet_rx.cc).
int tunechod_port_held(void);      // 1 when a bind to *:4789 fails with EADDRINUSE
int tunechod_packet_socket(void);  // -1 with errno
void tunechod_rx_read_packet(task *tp);
// One IPv4 packet from the packet socket: 0 when it was a UDP datagram
// handed to tunechod_recv_oam_packet, 1 when it was not one.
int tunechod_rx_ip_packet(const uint8_t *pkt, size_t n, uint32_t ifindex);
void tunechod_recv_oam_packet(const uint8_t *data, uint32_t length, int raw_socket, sockaddr_in *peer,
                              sockaddr_in *local, uint32_t rtb_id, uint32_t ifl_index);
int tunechod_parse_oam_packet(const uint8_t *data, uint32_t length, int raw_socket, sockaddr_in *peer,
                              sockaddr_in *local, uint32_t rtb_id, uint32_t ifl_index);
int tunechod_inner_ip_is_ipv4(const uint8_t *packet);
int tunechod_get_vni(uint32_t vni, uint32_t rtb_id, uint32_t rvtep_addr, uint32_t *bd_id_out);
int tunechod_get_mac_from_kernel(const uint8_t *mac, uint32_t vni, uint32_t rtb_id);
int tunechod_set_source_ip(uint8_t *reply, uint32_t ifl_index);

// ---- Local client channel (local.cc) ----------------------------------------------------
void tunechod_local_rx_init(void);
void tunechod_local_accept(task *tp);
void tunechod_local_read(task *tp);
int tunechod_read_line(int fd, char *buffer, uint16_t size);
int tunechod_write_line(int fd, const char *text);

// ---- Management commands (mgmt.cc) -----------------------------------------------------
// Mounts "show vni", "show bridge-domain", "show statistics" and "clear
// statistics" beside the framework's commands and listens on path.
void tunechod_mgmt_init(const char *path);

}  // extern "C"

// Every trace line of the daemon: "C(pid-function): ..." under a class.
#define TUNECHOD_TRACE(cls, fmt, ...) \
  daemon_trace(&tunechod_trace, -1, (cls), "C(%d-%s): " fmt, getpid(), __func__ __VA_OPT__(, ) __VA_ARGS__)
#define TUNECHOD_ERROR(tag, fmt, ...) \
  daemon_trace_error(&tunechod_trace, 3, tag, tag ": " fmt __VA_OPT__(, ) __VA_ARGS__)
