// Socket options by symbolic name: one table from the task_option
// enumeration to Linux levels and names. Options with no Linux form are the
// platform's operations: accepted, traced, and nothing is done.
#include <fcntl.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "io_internal.h"
#include "sockaddr/families.h"
#include "sockaddr/zsockaddr.h"
#include "task/domain.h"
#include "task/vrf.h"

namespace {

// How the arguments after the option are read.
enum arg_kind : uint8_t {
  A_INT,      // int
  A_LINGER,   // int on, int seconds
  A_MREQ,     // group, interface address (may be null)
  A_GROUP,    // group, int ifindex
  A_MCAST_IF, // address (inet), int ifindex
  A_PTR,      // const void *, fixed size
  A_U64,      // uint64_t
  A_NONE,     // nothing read
};

constexpr int kNo = -1;  // no mapping for the family

struct option_row {
  const char *name;
  task_option_linux_kind kind;
  int level4, name4;  // AF_INET (and any family but AF_INET6)
  int level6, name6;  // AF_INET6
  arg_kind args;
  uint8_t size;       // bytes for A_PTR
};

constexpr option_row S(const char *n, int opt, arg_kind a = A_INT) {
  return {n, TOL_SOCKOPT, SOL_SOCKET, opt, SOL_SOCKET, opt, a, 0};
}
constexpr option_row IP(const char *n, int o4, int o6, arg_kind a = A_INT) {
  return {n, TOL_SOCKOPT, o4 == kNo ? kNo : IPPROTO_IP, o4, o6 == kNo ? kNo : IPPROTO_IPV6, o6, a, 0};
}
constexpr option_row TCP(const char *n, int opt) {
  return {n, TOL_SOCKOPT, IPPROTO_TCP, opt, IPPROTO_TCP, opt, A_INT, 0};
}
constexpr option_row PLATFORM(const char *n, arg_kind a = A_INT) { return {n, TOL_PLATFORM, 0, 0, 0, 0, a, 0}; }
constexpr option_row REFUSED(const char *n) { return {n, TOL_REFUSED, 0, 0, 0, 0, A_NONE, 0}; }

const option_row kOptions[TASKOPTION_COUNT] = {
    S("RecvBuffer", SO_RCVBUF),
    S("SendBuffer", SO_SNDBUF),
    S("Linger", SO_LINGER, A_LINGER),
    S("ReUseAddress", SO_REUSEADDR),
    S("Broadcast", SO_BROADCAST),
    S("DontRoute", SO_DONTROUTE),
    S("KeepAlive", SO_KEEPALIVE),
    S("Debug", SO_DEBUG),
    {"NonBlocking", TOL_IOCTL_NBIO, 0, 0, 0, 0, A_INT, 0},
    PLATFORM("UseLoopback"),
    IP("MembershipAdd", IP_ADD_MEMBERSHIP, kNo, A_MREQ),
    IP("MembershipDrop", IP_DROP_MEMBERSHIP, kNo, A_MREQ),
    IP("MulticastInterface", IP_MULTICAST_IF, IPV6_MULTICAST_IF, A_MCAST_IF),
    IP("MulticastLoop", IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP),
    IP("MulticastTTL", IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS),
    IP("TTL", IP_TTL, IPV6_UNICAST_HOPS),
    IP("TOS", IP_TOS, IPV6_TCLASS),
    // One IP_PKTINFO message carries the destination address and the interface.
    IP("RcvDstAddr", IP_PKTINFO, IPV6_RECVPKTINFO),
    IP("IncludeIpHeader", IP_HDRINCL, kNo),
    PLATFORM("PortRange"),
    IP("RcvIf", IP_PKTINFO, IPV6_RECVPKTINFO),
    {"RouterAlert", TOL_SOCKOPT, IPPROTO_IP, IP_OPTIONS, kNo, kNo, A_INT, 0},
    PLATFORM("IPRecvAll"),
    IP("GroupAdd", IP_ADD_MEMBERSHIP, IPV6_ADD_MEMBERSHIP, A_GROUP),
    IP("GroupDrop", IP_DROP_MEMBERSHIP, IPV6_DROP_MEMBERSHIP, A_GROUP),
    TCP("MaxTcpMss", TCP_MAXSEG),
    PLATFORM("PathMTUDiscovery"),
    PLATFORM("RoutingTable"),
    PLATFORM("InstanceInterface"),
    PLATFORM("RecordInterface"),
    {"ICMPFilter", TOL_SOCKOPT, kNo, kNo, IPPROTO_ICMPV6, ICMP6_FILTER, A_PTR, 32},
    IP("HopCountLimit", kNo, IPV6_RECVHOPLIMIT),
    IP("HopByHop", kNo, IPV6_RECVHOPOPTS),
    PLATFORM("SetIPSecSA", A_PTR),
    PLATFORM("LogicalRouter"),
    PLATFORM("LabelStack"),
    PLATFORM("IifRestrict"),
    PLATFORM("TcpMssOption", A_PTR),
    S("ReUsePort", SO_REUSEPORT),
    PLATFORM("RecvRtb"),
    TCP("TcpKeepIdle", TCP_KEEPIDLE),
    TCP("TcpKAMaxCnt", TCP_KEEPCNT),
    TCP("TcpKATimeInvl", TCP_KEEPINTVL),
    PLATFORM("IpPimFilter"),
    {"F_CLOEXEC", TOL_FCNTL_CLOEXEC, 0, 0, 0, 0, A_INT, 0},
    PLATFORM("TcpAppHoldTimeout"),
    REFUSED("TcpMergeDone"),
    PLATFORM("RtSockFlags", A_U64),
    PLATFORM("RtSockFlagsFilter", A_PTR),
    PLATFORM("RtSockVersions"),
    PLATFORM("RtSockLoopbackMask", A_U64),
    PLATFORM("RtSockSequence"),
    PLATFORM("RtSockSenderID"),
    PLATFORM("RtSockLogicalSysID"),
    PLATFORM("RtSockAsyncMode"),
    PLATFORM("RtSockVeto"),
    PLATFORM("RtSockMulticast", A_PTR),
    PLATFORM("SendLowWater"),  // SO_SNDLOWAT cannot be changed on Linux
    PLATFORM("LridCheck"),
    PLATFORM("TcpAggressiveTransmission"),
    PLATFORM("RtSockSyncMode"),
    REFUSED("RtSockIflIndex"),
    PLATFORM("RtSockRiIndex", A_NONE),
    TCP("EnableTcpNoDelay", TCP_NODELAY),
    PLATFORM("SiLayerIgnore", A_NONE),
    // IPv4 "don't fragment" is path-MTU discovery on Linux (the value is translated).
    IP("DontFragment", IP_MTU_DISCOVER, IPV6_DONTFRAG),
    PLATFORM("SourcePfeIpAddress", A_NONE),
    PLATFORM("VplsVpnRecvAll"),
    PLATFORM("VplsRecvL2info"),
    PLATFORM("VplsSnoopFamily"),
    PLATFORM("VplsSnoopProto"),
    PLATFORM("VplsRecvBdIndex"),
    PLATFORM("TcpMd5Authentication", A_NONE),
    PLATFORM("VplsRecvIRBIndex"),
    PLATFORM("VplsVpnRecv"),
    PLATFORM("VplsVpnNoRecv"),
    PLATFORM("VplsRecvFc"),
    IP("Ipv6RecvRtHdr", kNo, IPV6_RECVRTHDR),
    PLATFORM("TCPKchAuthentication", A_NONE),
};

// Options that only make sense for one family.
bool inet_only(int o) {
  return o == TASKOPTION_GROUP_ADD_OLD || o == TASKOPTION_GROUP_DROP_OLD || o == TASKOPTION_IPHEADER_INC ||
         o == TASKOPTION_IP_RECVALL || o == TASKOPTION_ROUTER_ALERT;
}
bool inet6_only(int o) {
  return o == TASKOPTION_ICMP6_FILTER || o == TASKOPTION_HOPCOUNT || o == TASKOPTION_HOPBYHOP ||
         o == TASKOPTION_IPV6_RECV_RTHDR;
}

// The trace line of one option, built piece by piece.
struct line {
  char t[256];
  size_t n = 0;
  void add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (n >= sizeof t) return;
    va_list ap;
    va_start(ap, fmt);
    int k = vsnprintf(t + n, sizeof t - n, fmt, ap);
    va_end(ap);
    if (k > 0) n += static_cast<size_t>(k);
  }
};

const task_domain_option *domain_option(const task_domain_ops *d, int option) {
  for (uint32_t i = 0; d && i < d->tdo_option_count; i++)
    if (d->tdo_options[i].tdopt_option == option) return &d->tdo_options[i];
  return nullptr;
}

}  // namespace

const char *task_option_name(int option) {
  return option >= 0 && option < TASKOPTION_COUNT ? kOptions[option].name : "None";
}

task_option_linux task_option_map(int option, int family) {
  if (option < 0 || option >= TASKOPTION_COUNT) return {TOL_REFUSED, 0, 0};
  const option_row &r = kOptions[option];
  if (r.kind != TOL_SOCKOPT) return {r.kind, 0, 0};
  bool v6 = family == AF_INET6;
  if ((v6 && inet_only(option)) || (!v6 && inet6_only(option))) return {TOL_UNSUPPORTED, 0, 0};
  int level = v6 ? r.level6 : r.level4, name = v6 ? r.name6 : r.name4;
  if (level == kNo || name == kNo) return {TOL_UNSUPPORTED, 0, 0};
  return {TOL_SOCKOPT, level, name};
}

int task_set_option_internal(task *tp, int option, bool report, va_list args) {
  if (!tp || tp->task_socket < 0) {
    logging(LOG_ERR, "Failure in executing socket options - tp=%p socket=%d\n", static_cast<void *>(tp),
            tp ? tp->task_socket : -1);
    errno = EINVAL;
    return -1;
  }
  line l;
  l.add("%s: task %s socket %d option %s(%d)", "task_set_option", task_name(tp), tp->task_socket,
        task_option_name(option), option);
  if (tp->task_addrfamily == 0) {
    l.add(": domain not set on task, assuming AF_INET");
    tp->task_addrfamily = AF_INET;
  }
  if (option < 0 || option >= TASKOPTION_COUNT) {
    errno = EINVAL;
    l.add(": %s", strerror(EINVAL));
    TASK_TRACE(tp, TR_TASK, "%s", l.t);
    return -1;
  }
  const option_row &row = kOptions[option];
  int af = tp->task_addrfamily;
  task_option_linux map = task_option_map(option, af);

  // The value, in the form the kernel takes.
  int ival = 0;
  linger lg{};
  ip_mreqn mr{};
  ipv6_mreq mr6{};
  uint8_t ra[4] = {148, 4, 0, 0};
  uint64_t u64 = 0;
  const void *val = &ival;
  socklen_t vlen = sizeof ival;
  switch (row.args) {
    case A_INT:
      ival = va_arg(args, int);
      if (option == TASKOPTION_MULTICAST_TTL) l.add(" ttl %d", ival);
      else if (option == TASKOPTION_MULTICAST_LOOP) l.add(" loop %d", ival);
      else if (option == TASKOPTION_INSTANCE_IF) l.add(" value %u", static_cast<unsigned>(ival));
      else if (option == TASKOPTION_ROUTER_ALERT) l.add(" router alert");
      else l.add(" value %d", ival);
      break;
    case A_LINGER:
      lg.l_onoff = va_arg(args, int);
      lg.l_linger = va_arg(args, int);
      l.add(" value { %d, %d }", lg.l_onoff, lg.l_linger);
      val = &lg;
      vlen = sizeof lg;
      break;
    case A_MREQ:
    case A_GROUP: {
      const auto *group = va_arg(args, const zsockaddr_t *);
      char gt[96] = "zero-len";
      if (group) sockprint(gt, sizeof gt, group, 0);
      l.add(" group %s", gt);
      if (row.args == A_MREQ) {
        const auto *ifa = va_arg(args, const zsockaddr_t *);
        if (af == AF_INET && group) mr.imr_multiaddr.s_addr = inet_sockextract_in(group);
        if (af == AF_INET && ifa) mr.imr_address.s_addr = inet_sockextract_in(ifa);
      } else {
        int ifindex = va_arg(args, int);
        l.add(" interface %d", ifindex);
        if (af == AF_INET && group) mr.imr_multiaddr.s_addr = inet_sockextract_in(group);
        mr.imr_ifindex = ifindex;
        if (af == AF_INET6 && group) memcpy(&mr6.ipv6mr_multiaddr, inet6_sockextract_in(group), 16);
        mr6.ipv6mr_interface = static_cast<unsigned>(ifindex);
      }
      val = af == AF_INET6 ? static_cast<const void *>(&mr6) : &mr;
      vlen = af == AF_INET6 ? sizeof mr6 : sizeof mr;
      break;
    }
    case A_MCAST_IF: {
      const auto *a = va_arg(args, const zsockaddr_t *);
      int ifindex = va_arg(args, int);
      char at[96] = "zero-len";
      if (a) sockprint(at, sizeof at, a, 0);
      l.add(" address %s", at);
      if (af == AF_INET6) {
        ival = ifindex;
      } else {
        if (a) mr.imr_address.s_addr = inet_sockextract_in(a);
        mr.imr_ifindex = ifindex;
        val = &mr;
        vlen = sizeof mr;
      }
      break;
    }
    case A_PTR:
      val = va_arg(args, const void *);
      vlen = row.size;
      break;
    case A_U64: {
      uint64_t v = va_arg(args, uint64_t);
      u64 = v;
      l.add(" value %llx", static_cast<unsigned long long>(v));
      break;
    }
    case A_NONE: break;
  }
  if (option == TASKOPTION_RTBL_INDEX && ival < 0) {
    l.add(": rtbl index negative error");
    TASK_TRACE(tp, TR_TASK, "%s", l.t);
    errno = EINVAL;
    return -1;
  }

  int rc = 0;
  if (task_state & TASKS_TEST) {
    map.tol_kind = TOL_PLATFORM;
  }
  // A served domain takes its own options and the socket-level ones; the
  // descriptor flags stay local; the rest means nothing to it.
  const task_domain_ops *dom = map.tol_kind == TOL_PLATFORM && (task_state & TASKS_TEST) ? nullptr
                                                                                         : task_domain_get(af);
  const task_domain_option *dopt = domain_option(dom, option);
  if (dopt) {
    uint8_t b = static_cast<uint8_t>(row.args == A_U64 ? u64 : static_cast<unsigned>(ival));
    uint32_t w = static_cast<uint32_t>(row.args == A_U64 ? u64 : static_cast<unsigned>(ival));
    uint64_t q = row.args == A_U64 ? u64 : static_cast<unsigned>(ival);
    const void *dv = dopt->tdopt_width == 1 ? static_cast<const void *>(&b)
                     : dopt->tdopt_width == 4 ? static_cast<const void *>(&w)
                                              : static_cast<const void *>(&q);
    socklen_t dl = dopt->tdopt_width;
    if (row.args == A_PTR) {
      dv = val;
      dl = vlen;
    }
    rc = dom->tdo_setopt(dom->tdo_ctx, tp->task_socket, dopt->tdopt_level, dopt->tdopt_name, dv, dl);
    map.tol_kind = TOL_SOCKOPT;
  } else {
    if (dom && map.tol_kind == TOL_SOCKOPT && map.tol_level != SOL_SOCKET) map.tol_kind = TOL_PLATFORM;
    if (dom && map.tol_kind == TOL_UNSUPPORTED) map.tol_kind = TOL_PLATFORM;
  }
  switch (dopt ? -1 : static_cast<int>(map.tol_kind)) {
    case TOL_PLATFORM:
      // No kernel form: the receive path finds the table through the VRF.
      if (option == TASKOPTION_RECV_RTB && !(task_state & TASKS_TEST)) {
        errno = task_vrf_watch(tp, ival != 0);
        rc = errno ? -1 : 0;
      }
      break;
    case TOL_REFUSED:
      errno = EINVAL;
      rc = -1;
      break;
    case TOL_UNSUPPORTED:
      l.add(": not supported");
      errno = ENOPROTOOPT;
      rc = -1;
      break;
    case TOL_IOCTL_NBIO:
      do rc = ioctl(tp->task_socket, FIONBIO, &ival);
      while (rc < 0 && errno == EINTR);
      break;
    case TOL_FCNTL_CLOEXEC: {
      int fl = fcntl(tp->task_socket, F_GETFD);
      rc = fl < 0 ? -1 : fcntl(tp->task_socket, F_SETFD, ival ? (fl | FD_CLOEXEC) : (fl & ~FD_CLOEXEC));
      break;
    }
    case TOL_SOCKOPT:
      if (option == TASKOPTION_ROUTER_ALERT) {
        val = ival ? ra : nullptr;
        vlen = ival ? sizeof ra : 0;
      } else if (option == TASKOPTION_DONTFRAG && af != AF_INET6) {
        ival = ival ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT;
      }
      rc = dom ? dom->tdo_setopt(dom->tdo_ctx, tp->task_socket, map.tol_level, map.tol_name, val, vlen)
               : setsockopt(tp->task_socket, map.tol_level, map.tol_name, val, vlen);
      break;
    default: break;
  }
  if (rc < 0) {
    int err = errno;
    if (map.tol_kind != TOL_UNSUPPORTED) l.add(": %s", strerror(err));
    if (report && map.tol_kind != TOL_UNSUPPORTED)
      logging_event(LOG_ERR, "ZTASK_SYSTEM", "ZTASK_SYSTEM: %s: %m", "Setting taskoption failed with errno");
    TASK_TRACE(tp, TR_TASK, "%s", l.t);
    errno = err;
    return -1;
  }
  TASK_TRACE(tp, TR_TASK, "%s", l.t);
  return 0;
}

int task_set_option(task *tp, int option, ...) {
  va_list ap;
  va_start(ap, option);
  int rc = task_set_option_internal(tp, option, true, ap);
  va_end(ap);
  return rc;
}

int task_set_option_quiet(task *tp, int option, ...) {
  va_list ap;
  va_start(ap, option);
  int rc = task_set_option_internal(tp, option, false, ap);
  va_end(ap);
  return rc;
}

namespace {
// A flag read back the way getsockopt hands an int.
int put_flag(bool on, void *value, socklen_t *length) {
  int v = on;
  memcpy(value, &v, *length < sizeof v ? *length : sizeof v);
  *length = sizeof v;
  return 0;
}
}  // namespace

int task_get_option(task *tp, int option, void *value, socklen_t *length) {
  if (!tp || tp->task_socket < 0) {
    logging(LOG_ERR, "Failure in obtaining socket options - tp=%p socket=%d\n", static_cast<void *>(tp),
            tp ? tp->task_socket : -1);
    errno = EINVAL;
    return -1;
  }
  if (tp->task_addrfamily == 0) tp->task_addrfamily = AF_INET;
  if (task_state & TASKS_TEST) return 0;
  task_option_linux map = task_option_map(option, tp->task_addrfamily);
  const task_domain_ops *dom = task_domain_get(tp->task_addrfamily);
  if (const task_domain_option *o = domain_option(dom, option))
    return dom->tdo_getopt(dom->tdo_ctx, tp->task_socket, o->tdopt_level, o->tdopt_name, value, length);
  int fl;
  switch (map.tol_kind) {
    case TOL_SOCKOPT:
      if (dom && map.tol_level == SOL_SOCKET)
        return dom->tdo_getopt(dom->tdo_ctx, tp->task_socket, map.tol_level, map.tol_name, value, length);
      if (dom) break;
      return getsockopt(tp->task_socket, map.tol_level, map.tol_name, value, length);
    case TOL_IOCTL_NBIO:
      if ((fl = fcntl(tp->task_socket, F_GETFL)) < 0) return -1;
      return put_flag(fl & O_NONBLOCK, value, length);
    case TOL_FCNTL_CLOEXEC:
      if ((fl = fcntl(tp->task_socket, F_GETFD)) < 0) return -1;
      return put_flag(fl & FD_CLOEXEC, value, length);
    case TOL_PLATFORM:
      if (option == TASKOPTION_RECV_RTB) return put_flag(task_vrf_watching(tp), value, length);
      errno = ENOPROTOOPT;
      return -1;
    default: break;
  }
  errno = ENOPROTOOPT;
  return -1;
}
