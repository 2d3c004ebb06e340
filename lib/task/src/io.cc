// A task's socket: readiness, the socket calls, the shared buffers and the
// packet calls with their control data.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "io_internal.h"
#include "platform/sys.h"
#include "sockaddr/families.h"
#include "sockaddr/zsockaddr.h"
#include "task/domain.h"
#include "task/vrf.h"

namespace {

constexpr uint32_t kDefaultBuffer = 65536;
constexpr uint32_t kHbhSize = 248, kRthdrSize = 68;
constexpr size_t kRecvCtrl = 512;

// Room for any address the receive path builds: a local one is the longest
// (two header bytes and a whole sun_path).
constexpr size_t kAddrRoom = 2 + sizeof(sockaddr_un::sun_path);

// The receive record with room for its two addresses.
struct recv_results {
  task_recv_info info;
  alignas(8) uint8_t src[kAddrRoom];
  alignas(8) uint8_t dst[kAddrRoom];
};

size_t page_round(size_t n) {
  static const size_t ps = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (n + ps - 1) / ps * ps;
}

uint8_t *grow(uint8_t *buf, uint32_t *have, size_t want, bool keep, const char *what, const char *who) {
  want = page_round(want ? want : kDefaultBuffer);
  if (buf && want <= *have) return buf;
  uint8_t *nb = static_cast<uint8_t *>(malloc(want));
  if (!nb) {
    errno = ENOMEM;
    task_assert(0 == "I/O buffer allocation");
  }
  if (buf && keep) memcpy(nb, buf, *have);
  free(buf);
  if (*have)
    TASK_TRACE(nullptr, TR_TASK, "%s: %s buffer size increased to %u from %u by %s", "task_io", what,
               static_cast<unsigned>(want), static_cast<unsigned>(*have), who ? who : "");
  *have = static_cast<uint32_t>(want);
  return nb;
}

task_io_var *io_of(const task *tp) {
  task_io_var *io = task_var_io(tp);
  if (!io->task_recv_buffer)
    io->task_recv_buffer = grow(nullptr, &io->task_recv_buffer_size, task_app_current->app_recv_buf_size, false,
                                "recv", "init");
  if (!io->task_send_buffer)
    io->task_send_buffer = grow(nullptr, &io->task_send_buffer_size, task_app_current->app_send_buf_size, false,
                                "send", "init");
  return io;
}

recv_results *results_of(task_io_var *io) {
  if (!io->task_recv_results) {
    auto *r = static_cast<recv_results *>(calloc(1, sizeof(recv_results)));
    task_assert(r);
    r->info.tri_hoplimit = -1;
    r->info.tri_rtbl_index = TASK_RTBL_INDEX_NONE;
    io->task_recv_results = &r->info;
  }
  return reinterpret_cast<recv_results *>(io->task_recv_results);
}

void drop_results(recv_results *r) {
  task_recv_info &i = r->info;
  i.tri_src = i.tri_dst = nullptr;
  i.tri_ifindex = 0;
  i.tri_rtbl_index = TASK_RTBL_INDEX_NONE;
  i.tri_hoplimit = -1;
  if (i.tri_hbh) memset(i.tri_hbh, 0, kHbhSize);
  if (i.tri_rthdr) memset(i.tri_rthdr, 0, kRthdrSize);
  i.tri_hbh_len = i.tri_rthdr_len = 0;
}

// An INET address written straight into the record's room (the receive path's common case).
zsockaddr_t *put_inet(uint8_t *room, uint16_t port, uint32_t addr) {
  auto *a = reinterpret_cast<zsockaddr_inet_t *>(room);
  a->gin_len = SOCKADDR_IN_LEN;
  a->gin_family = static_cast<uint8_t>(gf_inet);
  a->gin_port = port;
  a->gin_addr = addr;
  return reinterpret_cast<zsockaddr_t *>(room);
}

// Copies a scratch address into a room of kAddrRoom bytes.
zsockaddr_t *keep_addr(uint8_t *room, const zsockaddr_t *a) {
  if (!a) return nullptr;
  unsigned n = socklen(a);
  if (n > kAddrRoom) return nullptr;
  memcpy(room, a, n);
  return reinterpret_cast<zsockaddr_t *>(room);
}

// A local address written into a room of kAddrRoom bytes; null when the
// family is not registered. A path loses the terminator the kernel may count
// in; an abstract name (leading zero byte) keeps its exact length; an unbound
// sender gives the empty path.
zsockaddr_t *put_local(uint8_t *room, const sockaddr *sa, socklen_t len) {
  if (!gf_unix) return nullptr;
  auto *sun = reinterpret_cast<const sockaddr_un *>(sa);
  size_t n = len > offsetof(sockaddr_un, sun_path) ? len - offsetof(sockaddr_un, sun_path) : 0;
  if (n > sizeof sun->sun_path) n = sizeof sun->sun_path;
  if (n && sun->sun_path[0]) n = strnlen(sun->sun_path, n);
  auto *a = reinterpret_cast<zsockaddr_t *>(room);
  socksetlen(a, gf_unix, static_cast<unsigned>(n + 2));
  memcpy(a->zs_data, sun->sun_path, n);
  return a;
}

// A typed address from a native one; null when its family is not registered.
zsockaddr_t *from_native(const sockaddr *sa, socklen_t len) {
  if (!sa || len < sizeof(sa_family_t)) return nullptr;
  switch (sa->sa_family) {
    case AF_INET:
      if (!gf_inet || len < sizeof(sockaddr_in)) return nullptr;
      {
        auto *sin = reinterpret_cast<const sockaddr_in *>(sa);
        return sockbuild_in(sin->sin_port, sin->sin_addr.s_addr);
      }
    case AF_INET6:
      if (!gf_inet6 || len < sizeof(sockaddr_in6)) return nullptr;
      {
        auto *s6 = reinterpret_cast<const sockaddr_in6 *>(sa);
        return sockbuild_in6(s6->sin6_port, s6->sin6_addr.s6_addr);
      }
    default: return nullptr;
  }
}

// The same as an owned address; local sockets give the "local" family.
zsockaddr_t *create_native(const sockaddr *sa, socklen_t len) {
  if (sa && len >= sizeof(sa_family_t) && sa->sa_family == AF_UNIX) {
    alignas(8) uint8_t room[kAddrRoom];
    zsockaddr_t *a = put_local(room, sa, len);
    return a ? sockdup(a) : nullptr;
  }
  zsockaddr_t *a = from_native(sa, len);
  return a ? sockdup(a) : nullptr;
}

// The %A text of an address (%#A with alt).
struct addr_text {
  char t[96];
  addr_text(const zsockaddr_t *a, int alt) {
    if (a)
      sockprint(t, sizeof t, a, alt);
    else
      strcpy(t, "zero-len");
  }
};

const char *af_name(int d) {
  switch (d) {
    case AF_UNSPEC: return "UNSPEC";
    case AF_UNIX: return "UNIX";
    case AF_INET: return "INET";
    case AF_INET6: return "INET6";
    case AF_PACKET: return "PACKET";
    case AF_NETLINK: return "NETLINK";
    default: return "unknown";
  }
}

const char *type_name(int t) {
  switch (t & 0xf) {
    case SOCK_STREAM: return "STREAM";
    case SOCK_DGRAM: return "DGRAM";
    case SOCK_RAW: return "RAW";
    case SOCK_SEQPACKET: return "SEQPACKET";
    case SOCK_RDM: return "RDM";
    default: return "unknown";
  }
}

bool test_state() { return task_state & TASKS_TEST; }

int native_of(const zsockaddr_t *a, sockaddr_storage *ss) {
  memset(ss, 0, sizeof *ss);
  return sock2unix(a, ss);
}

}  // namespace

// ---- Readiness ----------------------------------------------------------------------

void task_set_socket(task *tp, int s) {
  if (!tp || s < 0) return;
  if (tp->task_socket >= 0) task_assert(tp->task_socket == s);
  tp->task_socket = s;
  tp->task_kevent_udata = TASK_KEVENT_TASK;
  TASK_TRACE(tp, TR_TASK, "task_set_socket: task %s socket %d", task_name(tp), s);
  if (test_state()) return;
  // Without a method the registration is disabled, which on epoll is no registration.
  task_evq_set(tp, TASK_EVFILT_READ, (tp->task_recv || tp->task_accept) && !(tp->task_flags & TASK_FLAG_READDISABLE));
  task_evq_set(tp, TASK_EVFILT_WRITE,
               (tp->task_write || tp->task_connect) && !(tp->task_flags & TASK_FLAG_WRITEDISABLE));
}

void task_reset_socket(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  TASK_TRACE(tp, TR_TASK, "task_reset_socket: task %s socket %d", task_name(tp), tp->task_socket);
  task_evq_forget(tp);
  task_vrf_watch(tp, false);
  tp->task_socket = -1;
  tp->task_flags &= ~(TASK_FLAG_ACCEPT | TASK_FLAG_CONNECT);
  tp->task_recv = tp->task_accept = tp->task_write = tp->task_connect = nullptr;
}

void task_read_enable(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  tp->task_flags &= ~TASK_FLAG_READDISABLE;
  task_evq_set(tp, TASK_EVFILT_READ, true);
}

void task_read_disable(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  tp->task_flags |= TASK_FLAG_READDISABLE;
  task_evq_set(tp, TASK_EVFILT_READ, false);
}

void task_write_enable(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  tp->task_flags &= ~TASK_FLAG_WRITEDISABLE;
  task_evq_set(tp, TASK_EVFILT_WRITE, true);
}

void task_write_disable(task *tp) {
  if (!tp || tp->task_socket < 0) return;
  tp->task_flags |= TASK_FLAG_WRITEDISABLE;
  task_evq_set(tp, TASK_EVFILT_WRITE, false);
}

void task_read(task *tp) {
  if (!tp || tp->task_socket < 0 || (tp->task_flags & TASK_FLAG_READDISABLE)) return;
  task_method m = (tp->task_flags & TASK_FLAG_ACCEPT) ? tp->task_accept : tp->task_recv;
  if (!m) return;
  TASK_TRACE(tp, TR_TASK, "%s: %s ready for %s", "task_read", task_name(tp), "read");
  task *saved = task_current();
  task_set_current(tp);
  m(tp);
  task_set_current(saved);
  task_timer_hiprio_check();
}

// ---- Socket calls ---------------------------------------------------------------------

int task_get_socket(task *tp, int domain, int type, int protocol) {
  if (!tp) {
    errno = EINVAL;
    return -1;
  }
  TASK_TRACE(tp, TR_TASK, "task_get_socket: domain AF_%s  type SOCK_%s  protocol %d", af_name(domain),
             type_name(type), protocol);
  tp->task_addrfamily = domain;
  if (test_state()) return 0;
  if (const task_domain_ops *d = task_domain_get(domain)) {
    int s = d->tdo_socket(d->tdo_ctx, domain, type, protocol);
    if (s < 0) {
      int err = errno;
      logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "socket");
      errno = err;
      return -1;
    }
    task_fd_ring_note(s, TASK_FD_OPEN, tp);
    TASK_TRACE(tp, TR_TASK, "  socket %d (%s)", s, d->tdo_name);
    return s;
  }
  bool nonblock = false;
  if (task_app_current->app_sim_mode && (type == SOCK_RAW || domain == AF_PACKET || domain == 7)) {
    domain = AF_INET;
    type = SOCK_DGRAM;
    protocol = 0;
    nonblock = true;
  }
  int s = -1;
  for (int tries = 0; tries < 3;) {
    s = tvx_sys.sys_socket(domain, type | SOCK_CLOEXEC | (nonblock ? SOCK_NONBLOCK : 0), protocol);
    if (s >= 0) break;
    int err = errno;
    logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "socket");
    errno = err;
    if (err == EINTR) continue;
    if (err != ENOBUFS) return -1;
    if (++tries < 3) sleep(5);
  }
  if (s < 0) return -1;
  // Binding to the logical router is a platform facility (see task_option_map).
  task_fd_ring_note(s, TASK_FD_OPEN, tp);
  TASK_TRACE(tp, TR_TASK, "  socket %d", s);
  return s;
}

int task_addr_local(task *tp, const zsockaddr_t *addr) {
  if (!tp || !addr) return EINVAL;
  if (test_state()) return 0;
  sockaddr_storage ss;
  int len = native_of(addr, &ss);
  if (bind(tp->task_socket, reinterpret_cast<sockaddr *>(&ss), static_cast<socklen_t>(len)) == 0) return 0;
  int err = errno;
  addr_text t(addr, 0);
  logging_event(LOG_ERR, "ZTASK_IO_BIND_FAILED", "ZTASK_IO_BIND_FAILED: %s: Binding to %s failed: %m", task_name(tp),
                t.t);
  return err;
}

int task_connect(task *tp) {
  if (!tp || !tp->task_addr) return EINVAL;
  if (test_state()) return 0;
  sockaddr_storage ss;
  int len = native_of(tp->task_addr, &ss);
  int rc;
  do rc = connect(tp->task_socket, reinterpret_cast<sockaddr *>(&ss), static_cast<socklen_t>(len));
  while (rc < 0 && errno == EINTR);
  if (rc == 0) return 0;
  int err = errno;
  if (err == EINPROGRESS) return err;
  addr_text t(tp->task_addr, 1);
  logging_event(LOG_WARNING, "ZTASK_IO_CONNECT_FAILED", "ZTASK_IO_CONNECT_FAILED: %s: Connecting to %s failed: %m",
                task_name(tp), t.t);
  return err;
}

namespace {

// One descriptor kept back for accepting at the descriptor limit: a listener
// that cannot accept stays readable, and its method would run on every pass.
int accept_reserve = -1;
bool accept_starved;  // out of descriptors, said once until an accept succeeds

void reserve_take() {
  if (accept_reserve < 0) accept_reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// Frees the reserve's slot, takes the waiting connection into it and closes
// it, so that its peer learns at once; then keeps the slot back again.
void refuse_one(int listener) {
  if (accept_reserve < 0) return;
  close(accept_reserve);
  accept_reserve = -1;
  int s = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (s >= 0) close(s);
  reserve_take();
}

}  // namespace

int task_listen(task *tp, int backlog) {
  if (!tp) return EINVAL;
  if (test_state()) return 0;
  reserve_take();
  if (listen(tp->task_socket, backlog) < 0) {
    int err = errno;
    addr_text t(tp->task_addr, 0);
    logging_event(LOG_WARNING, "ZTASK_IO_LISTEN_FAILED",
                  "ZTASK_IO_LISTEN_FAILED: %s: Listen to %s failed: backlog:%d %m", task_name(tp), t.t, backlog);
    return err;
  }
  tp->task_flags &= ~(TASK_FLAG_READDISABLE | TASK_FLAG_WRITEDISABLE);
  task_evq_set(tp, TASK_EVFILT_READ, tp->task_recv || tp->task_accept);
  task_evq_set(tp, TASK_EVFILT_WRITE, tp->task_write || tp->task_connect);
  return 0;
}

namespace {

struct accept_results {
  task_accept_info info{-1, 0, nullptr, 0, 0};
  alignas(8) uint8_t local[64];
};
accept_results accepted;

// The connection's own end: its local address and the device (a VRF, when
// the listener accepted across VRFs) that it is bound to.
void read_conn_params(int s) {
  task_accept_info &ai = accepted.info;
  ai = task_accept_info{-1, 0, nullptr, 0, 0};
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getsockname(s, reinterpret_cast<sockaddr *>(&ss), &len) != 0) return;
  if (ss.ss_family != AF_INET && ss.ss_family != AF_INET6) {
    logging_event(LOG_ERR, "ZTASK_IO_PARAMS_UNEXPECTED_SOCKET_DOMAIN",
                  "ZTASK_IO_PARAMS_UNEXPECTED_SOCKET_DOMAIN: Unexpected socket domain %u",
                  static_cast<unsigned>(ss.ss_family));
    return;
  }
  ai.tai_socket = s;
  ai.tai_domain = ss.ss_family;
  ai.tai_local = keep_addr(accepted.local, from_native(reinterpret_cast<sockaddr *>(&ss), len));
  int ifindex = 0;
  socklen_t il = sizeof ifindex;
  if (getsockopt(s, SOL_SOCKET, SO_BINDTOIFINDEX, &ifindex, &il) == 0 && ifindex > 0) {
    ai.tai_ifindex = ifindex;
    ai.tai_rtbl_index = task_vrf_table(ifindex);
  }
}

}  // namespace

const task_accept_info *task_get_accept_info(void) { return &accepted.info; }

int task_accept(task *tp, zsockaddr_t **peer) {
  if (peer) *peer = nullptr;
  if (!tp) {
    errno = EINVAL;
    return -1;
  }
  if (test_state()) return 0;
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  int fl = fcntl(tp->task_socket, F_GETFL);
  int flags = SOCK_CLOEXEC | (fl >= 0 && (fl & O_NONBLOCK) ? SOCK_NONBLOCK : 0);
  int s;
  do s = accept4(tp->task_socket, reinterpret_cast<sockaddr *>(&ss), &len, flags);
  while (s < 0 && errno == EINTR);
  if (s < 0) {
    int err = errno;
    bool starved = err == EMFILE || err == ENFILE;
    if (!starved || !accept_starved)
      logging_event(LOG_ERR, "ZTASK_TASK_SYSTEM", "ZTASK_TASK_SYSTEM: %s: %s: %m", task_name(tp), "accept");
    if (starved) {
      accept_starved = true;
      refuse_one(tp->task_socket);
    }
    errno = err;
    return -1;
  }
  accept_starved = false;
  reserve_take();
  task_fd_ring_note(s, TASK_FD_ACCEPT, tp);
  zsockaddr_t *a = create_native(reinterpret_cast<sockaddr *>(&ss), len);
  if (tp->task_addrfamily == AF_INET || tp->task_addrfamily == AF_INET6) read_conn_params(s);
  addr_text t(a, 1);
  TASK_TRACE(tp, TR_TASK, "%s: task %s socket %d addr %s ", "task_accept", task_name(tp), s, t.t);
  if (peer)
    *peer = a;
  else if (a)
    sockfree(a);
  return s;
}

int task_close(task *tp) {
  if (!tp || tp->task_socket < 0) return 0;
  int s = tp->task_socket;
  task_io_var *io = task_var_io(tp);
  for (int i = 0; i < TASK_EVQ_N_PRIO; i++)
    task_assert_text(s != io->task_eventQ[i], "s != close_tp->task_context->tvctx_io->task_eventQ[i]");
  task_reset_socket(tp);
  if (test_state()) return 0;
  task_fd_ring_note(s, TASK_FD_CLOSE, tp);
  const task_domain_ops *d = task_domain_get(tp->task_addrfamily);
  int rc;
  do rc = d ? d->tdo_close(d->tdo_ctx, s) : close(s);
  while (rc < 0 && errno == EINTR);
  if (rc == 0) return 0;
  int err = errno;
  logging_event(LOG_ERR, "ZTASK_SOCKET_CLOSE", "ZTASK_SOCKET_CLOSE: close %s.%d: %m", task_name(tp), s);
  return err;
}

namespace {
zsockaddr_t *name_of(task *tp, bool remote) {
  if (!tp || tp->task_socket < 0) return nullptr;
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  int rc = remote ? getpeername(tp->task_socket, reinterpret_cast<sockaddr *>(&ss), &len)
                  : getsockname(tp->task_socket, reinterpret_cast<sockaddr *>(&ss), &len);
  const char *what = remote ? "getpeername" : "getsockname";
  if (rc < 0) {
    logging_event(LOG_ERR, "ZTASK_TASK_SYSTEM", "ZTASK_TASK_SYSTEM: %s: %s: %m", task_name(tp), what);
    return nullptr;
  }
  if (len > sizeof ss) {
    errno = ENAMETOOLONG;
    logging_event(LOG_ERR, "ZTASK_NAME_TRUNCATED", "ZTASK_NAME_TRUNCATED: %s: %s: family:%d %m", task_name(tp),
                  what, ss.ss_family);
    return nullptr;
  }
  return create_native(reinterpret_cast<sockaddr *>(&ss), len);
}
}  // namespace

zsockaddr_t *task_get_addr_local(task *tp) { return name_of(tp, false); }
zsockaddr_t *task_get_addr_remote(task *tp) { return name_of(tp, true); }

// ---- Buffers ---------------------------------------------------------------------------

uint8_t *task_get_recv_buffer(void) { return io_of(nullptr)->task_recv_buffer; }
size_t task_get_recv_buffer_size(void) { return io_of(nullptr)->task_recv_buffer_size; }
uint8_t *task_get_send_buffer(void) { return io_of(nullptr)->task_send_buffer; }
size_t task_get_send_buffer_size(void) { return io_of(nullptr)->task_send_buffer_size; }

void task_realloc_recv(size_t size, bool keep, const char *who) {
  task_io_var *io = io_of(nullptr);
  io->task_recv_buffer = grow(io->task_recv_buffer, &io->task_recv_buffer_size, size, keep, "recv", who);
}

void task_alloc_send(size_t size, bool keep, const char *who) {
  task_io_var *io = io_of(nullptr);
  io->task_send_buffer = grow(io->task_send_buffer, &io->task_send_buffer_size, size, keep, "send", who);
}

// ---- Sending ---------------------------------------------------------------------------

namespace {

// Data that starts in a shared buffer must end inside it.
void check_bounds(task_io_var *io, const void *data, size_t length) {
  auto *p = static_cast<const uint8_t *>(data);
  if (p == io->task_send_buffer) task_assert(length <= io->task_send_buffer_size);
  if (p == io->task_recv_buffer) task_assert(length <= io->task_recv_buffer_size);
}

bool unreachable(int err) { return err == ENETUNREACH || err == EHOSTUNREACH; }

}  // namespace

ssize_t task_send_packet(task *tp, const void *data, size_t length, bool dont_route, const zsockaddr_t *to) {
  if (!tp) {
    errno = EINVAL;
    return -1;
  }
  check_bounds(io_of(tp), data, length);
  int flags = dont_route ? MSG_DONTROUTE : 0;
  if (trace_enabled(task_trace_of(tp), static_cast<uint32_t>(TR_TASK), 0)) {
    addr_text t(to, 1);
    TASK_TRACE(tp, TR_TASK, "task_send_packet: task %s socket %d length %u flags %s(%X) to %s", task_name(tp),
               tp->task_socket, static_cast<unsigned>(length), dont_route ? "MSG_DONTROUTE" : "", flags,
               to ? t.t : "(connected)");
  }
  tp->task_send_count++;
  if (test_state()) return static_cast<ssize_t>(length);
  // A served domain answers with its own verdict (the route socket's ENOENT
  // ends a table): the caller reads errno, nothing is logged here.
  if (const task_domain_ops *d = task_domain_get(tp->task_addrfamily)) {
    ssize_t n;
    do n = d->tdo_send(d->tdo_ctx, tp->task_socket, data, length);
    while (n < 0 && errno == EINTR);
    if (n < 0) tp->task_send_errors++;
    return n;
  }
  sockaddr_storage ss;
  socklen_t sl = 0;
  if (to) sl = static_cast<socklen_t>(native_of(to, &ss));
  int retries = 0;
  for (;;) {
    ssize_t n = tvx_sys.sys_sendto(tp->task_socket, data, length, flags | MSG_NOSIGNAL,
                                   to ? reinterpret_cast<sockaddr *>(&ss) : nullptr, sl);
    if (n >= 0) {
      if (static_cast<size_t>(n) != length)
        logging_event(LOG_ERR, "ZTASK_IO_SENDTO_FAILED_BYTES_NOT_ACCEPTED",
                      "ZTASK_IO_SENDTO_FAILED_BYTES_NOT_ACCEPTED: : %d bytes not accepted",
                      static_cast<int>(length - n));
      return n;
    }
    int err = errno;
    if (err == EINTR) continue;
    if (unreachable(err)) {
      if (retries++ == 0) continue;
      logging_event(LOG_ERR, "ZTASK_IO_SENDTO_FAILED_RETRIES",
                    "ZTASK_IO_SENDTO_FAILED_RETRIES: sendto failed :(%d retries) %m", 1);
    }
    tp->task_send_errors++;
    errno = err;
    return -1;
  }
}

ssize_t task_send_msg_internal(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                               const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex, int /*in_ifindex*/,
                               bool router_alert_flag, int router_alert_value, const void * /*extended*/) {
  if (!tp) {
    errno = EINVAL;
    return -1;
  }
  task_io_var *io = io_of(tp);
  size_t length = 0;
  for (int i = 0; i < iovcnt; i++) length += iov[i].iov_len;
  if (tp->task_addrfamily == 0) {
    logging_event(LOG_ERR, "ZTASK_DOMAIN_NOT_SET",
                  "ZTASK_DOMAIN_NOT_SET: task_send_msg: task %s socket %d length %u: domain not set on task, "
                  "assuming AF_INET",
                  task_name(tp), tp->task_socket, static_cast<unsigned>(length));
    tp->task_addrfamily = AF_INET;
  }
  bool want_ctrl = from || out_ifindex > 0 || router_alert_flag;
  int af = tp->task_addrfamily;
  if (want_ctrl && af != AF_INET && af != AF_INET6) {
    logging_event(LOG_ERR, "ZTASK_DOMAIN_UNSUPPORTED", "ZTASK_DOMAIN_UNSUPPORTED: : domain %d not supported", af);
    tp->task_send_errors++;
    errno = EAFNOSUPPORT;
    return -1;
  }
  if (!io->taskio_send_msg_ctrl_buf) {
    io->taskio_send_msg_ctrl_len = 256;
    io->taskio_send_msg_ctrl_buf = static_cast<uint8_t *>(calloc(1, io->taskio_send_msg_ctrl_len));
    task_assert(io->taskio_send_msg_ctrl_buf);
  }
  msghdr msg{};
  sockaddr_storage ss;
  if (to) {
    msg.msg_name = &ss;
    msg.msg_namelen = static_cast<socklen_t>(native_of(to, &ss));
  }
  msg.msg_iov = const_cast<iovec *>(iov);
  msg.msg_iovlen = static_cast<size_t>(iovcnt);
  size_t used = 0;
  uint8_t *cb = io->taskio_send_msg_ctrl_buf;
  memset(cb, 0, io->taskio_send_msg_ctrl_len);
  auto put = [&](int level, int type, const void *data, size_t n) {
    auto *c = reinterpret_cast<cmsghdr *>(cb + used);
    c->cmsg_level = level;
    c->cmsg_type = type;
    c->cmsg_len = CMSG_LEN(n);
    memcpy(CMSG_DATA(c), data, n);
    used += CMSG_SPACE(n);
  };
  if (af == AF_INET) {
    if (from || out_ifindex > 0) {
      in_pktinfo pi{};
      pi.ipi_ifindex = out_ifindex > 0 ? out_ifindex : 0;
      if (from) pi.ipi_spec_dst.s_addr = inet_sockextract_in(from);
      put(IPPROTO_IP, IP_PKTINFO, &pi, sizeof pi);
    }
    if (router_alert_flag) {
      uint8_t ra[4] = {148, 4, static_cast<uint8_t>(router_alert_value >> 8), static_cast<uint8_t>(router_alert_value)};
      put(IPPROTO_IP, IP_RETOPTS, ra, sizeof ra);
    }
  } else if (af == AF_INET6) {
    if (from || out_ifindex > 0) {
      in6_pktinfo pi{};
      pi.ipi6_ifindex = out_ifindex > 0 ? out_ifindex : 0;
      if (from) memcpy(&pi.ipi6_addr, inet6_sockextract_in(from), 16);
      put(IPPROTO_IPV6, IPV6_PKTINFO, &pi, sizeof pi);
    }
    if (router_alert_flag) {
      // The header's length field is set from the buffer length given to
      // inet6_opt_init: measure first, then build in exactly that much.
      uint8_t hbh[16];
      int need = inet6_opt_init(nullptr, 0);
      need = inet6_opt_append(nullptr, 0, need, 5 /* router alert */, 2, 2, nullptr);
      need = inet6_opt_finish(nullptr, 0, need);
      int off = need > 0 && need <= static_cast<int>(sizeof hbh) ? inet6_opt_init(hbh, static_cast<socklen_t>(need))
                                                                 : -1;
      const char *fail = off < 0 ? ": inet6_opt_init failed" : nullptr;
      uint16_t v = htons(static_cast<uint16_t>(router_alert_value));
      void *db = nullptr;
      if (!fail) {
        off = inet6_opt_append(hbh, static_cast<socklen_t>(need), off, 5 /* router alert */, 2, 2, &db);
        if (off < 0) fail = ": inet6_opt_append failed";
      }
      if (!fail) {
        inet6_opt_set_val(db, 0, &v, sizeof v);
        off = inet6_opt_finish(hbh, static_cast<socklen_t>(need), off);
        if (off < 0) fail = ": inet6_opt_finish failed";
      }
      if (fail) {
        logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: task_send_msg%s", fail);
        tp->task_send_errors++;
        errno = EINVAL;
        return -1;
      }
      put(IPPROTO_IPV6, IPV6_HOPOPTS, hbh, static_cast<size_t>(off));
    }
  }
  if (used) {
    msg.msg_control = cb;
    msg.msg_controllen = used;
  }
  tp->task_send_count++;
  if (trace_enabled(task_trace_of(tp), static_cast<uint32_t>(TR_TASK), 0)) {
    addr_text t(to, 1);
    TASK_TRACE(tp, TR_TASK, "task_send_msg: task %s socket %d length %u to %s", task_name(tp), tp->task_socket,
               static_cast<unsigned>(length), to ? t.t : "(connected)");
  }
  if (test_state()) return static_cast<ssize_t>(length);
  int flags = (dont_route ? MSG_DONTROUTE : 0) | MSG_NOSIGNAL;
  int retries = 0;
  for (;;) {
    ssize_t n = tvx_sys.sys_sendmsg(tp->task_socket, &msg, flags);
    if (n >= 0) return n;
    int err = errno;
    if (err == EINTR) continue;
    if (unreachable(err) && retries++ == 0) continue;
    if (err != EAGAIN) {
      if (unreachable(err))
        logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: task_send_msg: Send msg call failed: (%d retries) %m",
                      retries - 1);
      else if (err == EPERM)
        logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: task_send_msg: Send msg call failed: (Firewall filtered) %m");
      else
        logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: task_send_msg: Send msg call failed: %m");
    }
    tp->task_send_errors++;
    errno = err;
    return -1;
  }
}

ssize_t task_send_msg(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, nullptr, 0, 0, false, 0, nullptr);
}

ssize_t task_send_msg_from(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to,
                           const zsockaddr_t *from, int out_ifindex) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, from, out_ifindex, 0, false, 0, nullptr);
}

ssize_t task_send_msg_ifindex(task *tp, const struct iovec *iov, int iovcnt, bool dont_route, const zsockaddr_t *to,
                              int out_ifindex) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, nullptr, out_ifindex, 0, false, 0, nullptr);
}

ssize_t task_send_msg_in_ifindex(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                                 const zsockaddr_t *to, int in_ifindex) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, nullptr, 0, in_ifindex, false, 0, nullptr);
}

ssize_t task_send_msg_router_alert(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                                   const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex,
                                   int router_alert_value) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, from, out_ifindex, 0, true, router_alert_value,
                                nullptr);
}

ssize_t task_send_msg_extended(task *tp, const struct iovec *iov, int iovcnt, bool dont_route,
                               const zsockaddr_t *to, const zsockaddr_t *from, int out_ifindex, int in_ifindex,
                               const void *extended) {
  return task_send_msg_internal(tp, iov, iovcnt, dont_route, to, from, out_ifindex, in_ifindex, false, 0, extended);
}

// ---- Receiving ---------------------------------------------------------------------------

const task_recv_info *task_get_recv_info(void) { return &results_of(io_of(nullptr))->info; }

namespace {

// The receive path looks its context up once and hands the record down.
void process_cmsg(task *tp, recv_results *r, msghdr *msg) {
  task_recv_info &ri = r->info;
  const char *pfx = "Receive packet call";
  for (cmsghdr *c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
    size_t have = c->cmsg_len >= CMSG_LEN(0) ? c->cmsg_len - CMSG_LEN(0) : 0;
    auto truncated = [&](const char *tag, const char *text) {
      addr_text t(ri.tri_src, 1);
      logging_event(LOG_ERR, tag, text, tag, pfx, task_name(tp), t.t);
    };
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
      if (have < sizeof(in_pktinfo)) {
        truncated("ZTASK_DEST_ADDR_TRUNCATED", "%s: %s: %s destination address from %s truncated");
        continue;
      }
      in_pktinfo pi;
      memcpy(&pi, CMSG_DATA(c), sizeof pi);
      if (gf_inet) ri.tri_dst = put_inet(r->dst, 0, pi.ipi_addr.s_addr);
      ri.tri_ifindex = pi.ipi_ifindex;
    } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == TASK_CMSG_IP_RTBL_INDEX) {
      if (have < TASK_CMSG_IP_RTBL_INDEX_LEN) {
        truncated("ZTASK_ROUTE_INDEX_TRUNCATED", "%s: %s: %s route table index from %struncated");
        continue;
      }
      memcpy(&ri.tri_rtbl_index, CMSG_DATA(c), sizeof ri.tri_rtbl_index);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
      if (have < sizeof(in6_pktinfo)) {
        truncated("ZTASK_DEST_ADDR_TRUNCATED", "%s: %s: %s destination address from %s truncated");
        continue;
      }
      in6_pktinfo pi;
      memcpy(&pi, CMSG_DATA(c), sizeof pi);
      if (gf_inet6) ri.tri_dst = keep_addr(r->dst, sockbuild_in6(0, pi.ipi6_addr.s6_addr));
      ri.tri_ifindex = static_cast<int32_t>(pi.ipi6_ifindex);
    } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT) {
      if (have < sizeof(int)) {
        truncated("ZTASK_HOP_LIMIT_TRUNCATED", "%s: %s: %s hop-limit from %s truncated");
        continue;
      }
      int h;
      memcpy(&h, CMSG_DATA(c), sizeof h);
      ri.tri_hoplimit = h;
    } else if (c->cmsg_level == IPPROTO_IPV6 && (c->cmsg_type == IPV6_HOPOPTS || c->cmsg_type == IPV6_RTHDR)) {
      bool hbh = c->cmsg_type == IPV6_HOPOPTS;
      // Both are extension headers: the length byte counts 8-byte units after the first 8.
      size_t need = have >= 2 ? (static_cast<size_t>(CMSG_DATA(c)[1]) + 1) * 8 : 8;
      if (have < need) {
        if (hbh)
          truncated("ZTASK_HOP_OPTIONS_TRUNCATED", "%s: %s: %s hop by hop options from %s truncated");
        else
          truncated("ZTASK_IPV6_RTHDR_TRUNCATED", "%s: %s: %s recv rt-hdr %s truncated");
        continue;
      }
      uint32_t cap = hbh ? kHbhSize : kRthdrSize;
      uint8_t *&dst = hbh ? ri.tri_hbh : ri.tri_rthdr;
      if (!dst) {
        dst = static_cast<uint8_t *>(calloc(1, cap));
        task_assert(dst);
      }
      uint32_t n = static_cast<uint32_t>(need < cap ? need : cap);
      memcpy(dst, CMSG_DATA(c), n);
      (hbh ? ri.tri_hbh_len : ri.tri_rthdr_len) = n;
    }
  }
}

int receive(task *tp, task_io_var *io, msghdr *msg, uint8_t *recv_buffer, size_t recv_size, bool keep_info,
            size_t *size) {
  if (size) *size = 0;
  iovec iov{recv_buffer, recv_size};
  msg->msg_iov = &iov;
  msg->msg_iovlen = 1;
  socklen_t namelen = msg->msg_namelen;
  size_t ctrllen = msg->msg_controllen;
  ssize_t n;
  for (;;) {
    msg->msg_namelen = namelen;
    msg->msg_controllen = ctrllen;
    msg->msg_flags = 0;
    n = tvx_sys.sys_recvmsg(tp->task_socket, msg, 0);
    if (n >= 0) break;
    int err = errno;
    if (err == EAGAIN || err == EWOULDBLOCK) return err;
    if (err == EINTR) continue;
    if (unreachable(err)) {
      if (keep_info) TASK_TRACE(tp, TR_TASK, "%s: %s recvfrom/recvmsg: %m", "task_receive_packet", task_name(tp));
      continue;
    }
    logging_event(LOG_ERR, "ZTASK_SEND_RECV_ERROR", "ZTASK_SEND_RECV_ERROR: %s for task %s with error : %m",
                  "recvfrom/recvmsg failed", task_name(tp));
    errno = err;
    return err;
  }
  recv_results *r = results_of(io);
  drop_results(r);
  if (n == 0) return -1;
  tp->task_recv_count++;
  task_recv_info &ri = r->info;
  if (msg->msg_namelen) {
    auto *sa = static_cast<sockaddr *>(msg->msg_name);
    if (sa->sa_family == AF_INET && gf_inet && msg->msg_namelen >= sizeof(sockaddr_in)) {
      auto *sin = reinterpret_cast<sockaddr_in *>(sa);
      ri.tri_src = put_inet(r->src, sin->sin_port, sin->sin_addr.s_addr);
    } else if (sa->sa_family == AF_UNIX) {
      ri.tri_src = put_local(r->src, sa, msg->msg_namelen);
    } else {
      ri.tri_src = keep_addr(r->src, from_native(sa, msg->msg_namelen));
    }
    if (!ri.tri_src) return -3;
  }
  if (msg->msg_flags & MSG_CTRUNC) {
    // The caller's control buffer was too small: what came is partial, and
    // none of it is taken. Without a buffer nothing was asked for.
    if (ctrllen) {
      addr_text t(ri.tri_src, 1);
      logging_event(LOG_ERR, "ZTASK_PACKET_TRUNCATED",
                    "ZTASK_PACKET_TRUNCATED: %s: %s control data from %s socket %d truncated", "task_receive_packet",
                    task_name(tp), t.t, tp->task_socket);
    }
  } else if (keep_info && msg->msg_controllen) {
    process_cmsg(tp, r, msg);
  }
  // Linux sends no table index: the ingress interface's VRF stands for it.
  if (ri.tri_rtbl_index == TASK_RTBL_INDEX_NONE && ri.tri_ifindex > 0 && task_vrf_n_watching &&
      task_vrf_watching(tp))
    ri.tri_rtbl_index = task_vrf_table(ri.tri_ifindex);
  if (msg->msg_flags & MSG_TRUNC) {
    addr_text t(ri.tri_src, 1);
    logging_event(LOG_ERR, "ZTASK_PACKET_TRUNCATED", "ZTASK_PACKET_TRUNCATED: %s: %s packet from %s socket %d truncated",
                  "task_receive_packet", task_name(tp), t.t, tp->task_socket);
    return -2;
  }
  if (size) *size = static_cast<size_t>(n);
  if (trace_enabled(task_trace_of(tp), static_cast<uint32_t>(TR_TASK), 0)) {
    addr_text f(ri.tri_src, 1), d(ri.tri_dst, 0);
    TASK_TRACE(tp, TR_TASK, "task_receive_packet: task %s from %s to %s if index %d socket %d length %d",
               task_name(tp), f.t, d.t, ri.tri_ifindex, tp->task_socket, static_cast<int>(n));
  }
  return 0;
}

// One record from a served domain: no addresses, no control data.
int domain_receive(task *tp, const task_domain_ops *d, uint8_t *buf, size_t len, size_t *size) {
  ssize_t n;
  do n = d->tdo_recv(d->tdo_ctx, tp->task_socket, buf, len);
  while (n < 0 && errno == EINTR);
  if (n < 0) {
    int err = errno;
    if (err != EAGAIN && err != EWOULDBLOCK)
      TASK_TRACE(tp, TR_TASK, "%s: %s receive: %m", "task_receive_packet", task_name(tp));
    errno = err;
    return err;
  }
  if (n == 0) return -1;
  tp->task_recv_count++;
  *size = static_cast<size_t>(n);
  return 0;
}

}  // namespace

void task_receive_packet_process_cmsg_internal(task *tp, struct msghdr *msg) {
  process_cmsg(tp, results_of(io_of(tp)), msg);
}

int task_receive_packet_internal(task *tp, struct msghdr *msg, uint8_t *recv_buffer, size_t recv_size,
                                 bool keep_info, size_t *size) {
  if (size) *size = 0;
  if (!tp) return EINVAL;
  if (const task_domain_ops *d = task_domain_get(tp->task_addrfamily)) {
    size_t dummy;
    return domain_receive(tp, d, recv_buffer, recv_size, size ? size : &dummy);
  }
  return receive(tp, io_of(tp), msg, recv_buffer, recv_size, keep_info, size);
}

int task_receive_packet(task *tp, size_t *size) {
  if (!tp) return EINVAL;
  task_io_var *io = io_of(tp);
  if (const task_domain_ops *d = task_domain_get(tp->task_addrfamily)) {
    size_t dummy;
    if (size) *size = 0;
    return domain_receive(tp, d, io->task_recv_buffer, io->task_recv_buffer_size, size ? size : &dummy);
  }
  sockaddr_storage from;
  alignas(cmsghdr) uint8_t ctrl[kRecvCtrl];
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_control = ctrl;
  msg.msg_controllen = sizeof ctrl;
  return receive(tp, io, &msg, io->task_recv_buffer, io->task_recv_buffer_size, true, size);
}
