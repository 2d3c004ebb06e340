// Socket I/O of the task kernel: a task's one socket bound to the event
// queues, the socket calls, packets with their control data, socket options
// by symbolic name, and I/O hooks (a further descriptor watched on behalf of
// a task).
//
// A task's four I/O methods decide what the queues watch: read interest
// while it has a receive or accept method, write interest while it has a
// write or connect method. Read events of a "LowPrio" task and all write
// events are on the low queue, which a pass looks at only after queue 0's
// reads, so a write never pre-empts a read.
//
//   task *tp = task_alloc("rx", 10, trace);
//   int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
//   task_set_option(tp, TASKOPTION_NONBLOCKING, 1);
//   task_set_option(tp, TASKOPTION_RCVDSTADDR, 1);
//   task_addr_local(tp, sockbuild_in(htons(4789), INADDR_ANY));
//   task_set_recv(tp, rx_read);
//   task_set_socket(tp, s);
//   task_create(tp);
//   ...
//   void rx_read(task *tp) {
//     size_t n;
//     while (task_receive_packet(tp, &n) == 0) use(task_get_recv_buffer(), n, task_get_recv_info());
//   }
//
// Socket calls return 0 or an errno number (EINVAL for a null task or a
// missing address); in the "Test" state they make no system call and report
// success (task_get_socket then returns 0 and only records the family).
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "task/task.h"

extern "C" {

// ---- Readiness --------------------------------------------------------------------
// Each ignores a null task or a task without a socket.
void task_set_socket(task *tp, int s);
void task_reset_socket(task *tp);
void task_read_enable(task *tp);
void task_read_disable(task *tp);
void task_write_enable(task *tp);
void task_write_disable(task *tp);
// Runs the read method now, as if the event had come (unless "ReadDisable").
void task_read(task *tp);

// ---- Socket calls ---------------------------------------------------------------------
// A new descriptor (close-on-exec), or -1 with errno; task_addrfamily takes domain.
int task_get_socket(task *tp, int domain, int type, int protocol);
int task_addr_local(task *tp, const zsockaddr_t *addr);
// Connects to task_addr; EINPROGRESS is returned without a log line.
int task_connect(task *tp);
int task_listen(task *tp, int backlog);
// The accepted descriptor (non-blocking when the listener is), or -1; *peer
// receives a new address (sockfree) of the peer when peer is not null. For
// INET and INET6 listeners the connection's own parameters are then read
// (task_get_accept_info). Out of descriptors (EMFILE, ENFILE) the waiting
// connection is taken with a reserve descriptor and closed, so that the
// listener does not stay readable; that failure is logged once until an
// accept succeeds (docs/task.md).
int task_accept(task *tp, zsockaddr_t **peer);

// Parameters of the last connection accepted by an INET or INET6 listener:
// its local address (owned by the record, until the next accept), the
// device it is bound to (a VRF device when the listener accepted across
// VRFs, else 0) and that device's routing table (0, the default instance,
// when unbound). tai_socket is -1 when nothing was read.
struct task_accept_info {
  int32_t tai_socket;
  int32_t tai_domain;
  zsockaddr_t *tai_local;
  int32_t tai_ifindex;
  uint32_t tai_rtbl_index;
};
const task_accept_info *task_get_accept_info(void);
// Drops the registrations and closes the socket (repeating on EINTR).
int task_close(task *tp);
// New addresses (sockfree), or null.
zsockaddr_t *task_get_addr_local(task *tp);
zsockaddr_t *task_get_addr_remote(task *tp);

// ---- Shared buffers -----------------------------------------------------------------------
// One receive and one send buffer per context, app_recv_buf_size and
// app_send_buf_size (65536 by default), growing only, page-rounded.
uint8_t *task_get_recv_buffer(void);
size_t task_get_recv_buffer_size(void);
uint8_t *task_get_send_buffer(void);
size_t task_get_send_buffer_size(void);
void task_realloc_recv(size_t size, bool keep, const char *who);
void task_alloc_send(size_t size, bool keep, const char *who);

// ---- Packets ----------------------------------------------------------------------------
// One sendto (MSG_DONTROUTE if dont_route); to may be null on a connected
// socket. Returns the bytes sent or -1 with errno. ENETUNREACH and
// EHOSTUNREACH are tried once more, EINTR without limit.
ssize_t task_send_packet(task *tp, const void *data, size_t length, bool dont_route, const zsockaddr_t *to);
// sendmsg with control data: the source address and out-interface index
// (IP_PKTINFO / IPV6_PKTINFO), the router alert (an IP option, an IPv6
// hop-by-hop option). in_ifindex and extended have no Linux form and are
// ignored.
ssize_t task_send_msg_internal(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                               const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex, int in_ifindex,
                               bool router_alert_flag, int router_alert_value, const void *extended);
// The wrappers name what they add to a plain send.
ssize_t task_send_msg(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to);
ssize_t task_send_msg_from(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to,
                           const zsockaddr_t *from, int out_ifindex);
ssize_t task_send_msg_ifindex(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to,
                              int out_ifindex);
ssize_t task_send_msg_in_ifindex(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                                 const zsockaddr_t *to, int in_ifindex);
ssize_t task_send_msg_router_alert(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                                   const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex,
                                   int router_alert_value);
ssize_t task_send_msg_extended(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                               const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex, int in_ifindex,
                               const void *extended);

// What the last packet came with. Addresses live in the record until the
// next receive; absent ones are null.
//
// The routing-table index: for a task with "RecvRtb" set, the table of the
// ingress interface's VRF, 0 (the default instance) when it is in none (see
// task/vrf.h); from a control record of type TASK_CMSG_IP_RTBL_INDEX when
// one is present; TASK_RTBL_INDEX_NONE otherwise, whose low 16 bits are
// 0xFFFF, "no table information".
enum : uint32_t { TASK_RTBL_INDEX_NONE = 0xFFFFFFFFu };
// IPPROTO_IP control record carrying a routing-table index: 16 bytes, the
// index a 32-bit number in host order at the start. Linux never sends one;
// it is read so that hand-built control data can take this path.
enum { TASK_CMSG_IP_RTBL_INDEX = 109, TASK_CMSG_IP_RTBL_INDEX_LEN = 16 };
struct task_recv_info {
  zsockaddr_t *tri_src;
  zsockaddr_t *tri_dst;
  int32_t tri_ifindex;
  uint32_t tri_rtbl_index;
  int32_t tri_hoplimit;      // -1 when not reported
  uint8_t *tri_hbh;          // IPv6 hop-by-hop options (248 bytes, zero-filled), null when not reported
  uint32_t tri_hbh_len;
  uint8_t *tri_rthdr;        // IPv6 routing header (68 bytes), null when not reported
  uint32_t tri_rthdr_len;
};
const task_recv_info *task_get_recv_info(void);

// recvmsg into the shared receive buffer. Returns 0 with *size set; an errno
// (EAGAIN: drained); -1 for end of stream or a zero-length datagram; -2 for a
// truncated datagram (ZTASK_PACKET_TRUNCATED); -3 when the source address
// cannot be represented.
int task_receive_packet(task *tp, size_t *size);
int task_receive_packet_internal(task *tp, struct msghdr *msg, uint8_t *recv_buffer, size_t recv_size,
                                 bool keep_info, size_t *size);
// Walks a message's control data into the receive record (exposed so that
// hand-built control data can be fed to it).
void task_receive_packet_process_cmsg_internal(task *tp, struct msghdr *msg);

// ---- Socket options -------------------------------------------------------------------
// The enumeration's positions are this system's own numbering.
enum task_option {
  TASKOPTION_RECVBUF, TASKOPTION_SENDBUF, TASKOPTION_LINGER, TASKOPTION_REUSEADDR, TASKOPTION_BROADCAST,
  TASKOPTION_DONTROUTE, TASKOPTION_KEEPALIVE, TASKOPTION_DEBUG, TASKOPTION_NONBLOCKING, TASKOPTION_USELOOPBACK,
  TASKOPTION_GROUP_ADD_OLD, TASKOPTION_GROUP_DROP_OLD, TASKOPTION_MULTICAST_IF, TASKOPTION_MULTICAST_LOOP,
  TASKOPTION_MULTICAST_TTL, TASKOPTION_TTL, TASKOPTION_TOS, TASKOPTION_RCVDSTADDR, TASKOPTION_IPHEADER_INC,
  TASKOPTION_PORTRANGE, TASKOPTION_RCVIF, TASKOPTION_ROUTER_ALERT, TASKOPTION_IP_RECVALL, TASKOPTION_GROUP_ADD,
  TASKOPTION_GROUP_DROP, TASKOPTION_MAX_TCP_MSS, TASKOPTION_PATH_MTU, TASKOPTION_RTBL_INDEX,
  TASKOPTION_INSTANCE_IF, TASKOPTION_RECORD_IF, TASKOPTION_ICMP6_FILTER, TASKOPTION_HOPCOUNT,
  TASKOPTION_HOPBYHOP, TASKOPTION_IPSEC_SA, TASKOPTION_LOGICAL_ROUTER, TASKOPTION_LABEL_STACK,
  TASKOPTION_IIF_RESTRICT, TASKOPTION_TCP_MSS_OPTION, TASKOPTION_REUSEPORT, TASKOPTION_RECV_RTB,
  TASKOPTION_TCP_KEEPIDLE, TASKOPTION_TCP_KA_MAXCNT, TASKOPTION_TCP_KA_INTVL, TASKOPTION_PIM_FILTER,
  TASKOPTION_CLOEXEC, TASKOPTION_TCP_APP_HOLD, TASKOPTION_TCP_MERGE_DONE, TASKOPTION_RTSOCK_FLAGS,
  TASKOPTION_RTSOCK_FLAGS_FILTER, TASKOPTION_RTSOCK_VERSIONS, TASKOPTION_RTSOCK_LOOPBACK_MASK,
  TASKOPTION_RTSOCK_SEQUENCE, TASKOPTION_RTSOCK_SENDER_ID, TASKOPTION_RTSOCK_LSYS_ID,
  TASKOPTION_RTSOCK_ASYNC_MODE, TASKOPTION_RTSOCK_VETO, TASKOPTION_RTSOCK_MULTICAST, TASKOPTION_SEND_LOWAT,
  TASKOPTION_LRID_CHECK, TASKOPTION_TCP_AGGRESSIVE, TASKOPTION_RTSOCK_SYNC_MODE, TASKOPTION_RTSOCK_IFL_INDEX,
  TASKOPTION_RTSOCK_RI_INDEX, TASKOPTION_TCP_NODELAY, TASKOPTION_SI_LAYER_IGNORE, TASKOPTION_DONTFRAG,
  TASKOPTION_SOURCE_PFE_ADDR, TASKOPTION_VPLS_VPN_RECV_ALL, TASKOPTION_VPLS_RECV_L2INFO,
  TASKOPTION_VPLS_SNOOP_FAMILY, TASKOPTION_VPLS_SNOOP_PROTO, TASKOPTION_VPLS_RECV_BD_INDEX,
  TASKOPTION_TCP_MD5_AUTH, TASKOPTION_VPLS_RECV_IRB_INDEX, TASKOPTION_VPLS_VPN_RECV,
  TASKOPTION_VPLS_VPN_NO_RECV, TASKOPTION_VPLS_RECV_FC, TASKOPTION_IPV6_RECV_RTHDR, TASKOPTION_TCP_KCH_AUTH,
  TASKOPTION_COUNT
};

// The arguments after the option, by kind:
//   most options: int value
//   Linger: int on, int seconds
//   MembershipAdd/Drop: const zsockaddr_t *group, const zsockaddr_t *interface_address (or null)
//   GroupAdd/Drop: const zsockaddr_t *group, int ifindex
//   MulticastInterface: const zsockaddr_t *address (inet) , int ifindex (both)
//   ICMPFilter: const void * (32 bytes); SetIPSecSA: const void * (64 bytes)
//   RtSockFlags, RtSockLoopbackMask: uint64_t; TcpMssOption, RtSockFlagsFilter: const void *
// Options with no Linux form succeed and do nothing (see docs/task.md).
int task_set_option(task *tp, int option, ...);
int task_set_option_quiet(task *tp, int option, ...);
int task_set_option_internal(task *tp, int option, bool report, va_list args);
// Reads a mapped option back into value (*length bytes; updated). -1 with
// errno for a null task, no socket, or no mapping (ENOPROTOOPT).
int task_get_option(task *tp, int option, void *value, socklen_t *length);
// "RecvBuffer" ... "TCPKchAuthentication"; "None" past the end.
const char *task_option_name(int option);

// Where an option lands on Linux: level and name for the family, or a kind
// without a system call. For tests and diagnostics.
enum task_option_linux_kind {
  TOL_SOCKOPT,     // setsockopt(level, name)
  TOL_IOCTL_NBIO,  // ioctl FIONBIO
  TOL_FCNTL_CLOEXEC,
  TOL_PLATFORM,    // no Linux form: accepted, nothing done
  TOL_REFUSED,     // EINVAL
  TOL_UNSUPPORTED, // no mapping for this family: ": not supported"
};
struct task_option_linux {
  task_option_linux_kind tol_kind;
  int tol_level;
  int tol_name;
};
task_option_linux task_option_map(int option, int family);

// ---- Open-descriptor ring ------------------------------------------------------------
// The last TASK_FD_RING_SIZE sockets opened, accepted and closed through the
// calls above, for diagnostics: which task had descriptor N, and when.
enum { TASK_FD_RING_SIZE = 64 };
enum task_fd_op : uint8_t { TASK_FD_OPEN = 1, TASK_FD_ACCEPT = 2, TASK_FD_CLOSE = 3 };
struct task_fd_record {
  task_utime tfr_time;
  int32_t tfr_fd;
  uint8_t tfr_op;
  char tfr_task[32];
};
// Copies up to max records, oldest first; returns how many.
size_t task_fd_ring_get(task_fd_record *out, size_t max);
// One line a record: "<seconds>.<usec> fd <n> <open|accept|close> task <name>".
void task_fd_ring_dump(FILE *f);
void task_fd_ring_note(int fd, task_fd_op op, const task *tp);

// ---- I/O hooks ------------------------------------------------------------------------
typedef void (*task_io_hook_fn)(task *tp, void *arg);
struct task_io_hook {
  int32_t hook_tag;  // TASK_KEVENT_IO_HOOK; its address is the events' user data
  task *hook_task;
  void *hook_arg;
  task_io_hook_fn hook_callback;
  int hook_fd;
  char hook_name[24];
  uint8_t hook_deleted;
  uint8_t hook_enabled;
  task_io_hook *hook_next;  // the task's task_hooks list, then the collection list
};
enum { TASK_IO_HOOK_ADD = 1, TASK_IO_HOOK_DELETE = 2, TASK_IO_HOOK_ENABLE = 3, TASK_IO_HOOK_DISABLE = 4 };

// Watches fd for reading on queue 0 and calls callback(task, argument).
// Returns null (and logs) when a pointer is missing.
task_io_hook *task_io_hook_add(int fd, task *tp, void *argument, task_io_hook_fn callback, const char *name);
// Safe inside any callback, its own included: the record is freed later by
// the job "task_io_hook_collect".
void task_io_hook_remove(task_io_hook *hp);
int task_io_hook_control(task_io_hook *hp, int control);
// Removes every hook of the task (task_delete does this).
void task_io_hook_remove_all(task *tp);

}  // extern "C"
