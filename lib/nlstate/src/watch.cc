// The rtnetlink sockets: events as they come, and the dumps at start and
// after an overrun.
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "nlstate/nlstate.h"

namespace nlstate {

namespace {

constexpr unsigned kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_NEIGH;

using Fn = std::function<void(const Event &)>;

int on_message(const nlmsghdr *nlh, void *data) {
  Event ev{};
  if (parse(nlh, &ev) == 1) (*static_cast<const Fn *>(data))(ev);
  return MNL_CB_OK;
}

}  // namespace

Watch::~Watch() {
  if (events_) mnl_socket_close(events_);
  if (dumps_) mnl_socket_close(dumps_);
}

int Watch::open(int event_buffer) {
  events_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
  dumps_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
  if (!events_ || !dumps_) return errno;
  int size = event_buffer;
  int fd = mnl_socket_get_fd(events_);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  if (mnl_socket_bind(events_, kGroups, MNL_SOCKET_AUTOPID) < 0) return errno;
  if (mnl_socket_bind(dumps_, 0, MNL_SOCKET_AUTOPID) < 0) return errno;
  seq_ = static_cast<unsigned>(time(nullptr));
  return 0;
}

int Watch::fd() const { return events_ ? mnl_socket_get_fd(events_) : -1; }

int Watch::dump(const Fn &fn) {
  struct Ask {
    uint16_t type;
    uint8_t family;
  };
  // A forwarding-entry dump asks family AF_BRIDGE: the other families are
  // ARP and NDP, which nobody here reads.
  for (Ask ask : {Ask{RTM_GETLINK, AF_UNSPEC}, Ask{RTM_GETADDR, AF_UNSPEC}, Ask{RTM_GETNEIGH, AF_BRIDGE}}) {
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr *nlh = mnl_nlmsg_put_header(buf.data());
    nlh->nlmsg_type = ask.type;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    nlh->nlmsg_seq = ++seq_;
    // ifinfomsg, ifaddrmsg and ndmsg all begin with their family byte.
    auto *family = static_cast<uint8_t *>(
        mnl_nlmsg_put_extra_header(nlh, ask.type == RTM_GETNEIGH ? sizeof(ndmsg) : sizeof(ifinfomsg)));
    *family = ask.family;
    if (mnl_socket_sendto(dumps_, nlh, nlh->nlmsg_len) < 0) return errno;
    const unsigned port = mnl_socket_get_portid(dumps_);
    for (;;) {
      ssize_t n = mnl_socket_recvfrom(dumps_, buf.data(), buf.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return errno;
      int r = mnl_cb_run(buf.data(), static_cast<size_t>(n), seq_, port, on_message, const_cast<Fn *>(&fn));
      if (r == MNL_CB_STOP) break;
      if (r < 0) return errno;
    }
  }
  return 0;
}

int Watch::read(const Fn &fn) {
  // One datagram a call: the socket is watched level-triggered, so what is
  // left wakes the caller again, and a lone event costs no second read.
  static thread_local std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
  ssize_t n;
  do n = mnl_socket_recvfrom(events_, buf.data(), buf.size());
  while (n < 0 && errno == EINTR);
  if (n < 0) return errno == EAGAIN ? 0 : errno;
  // Events carry sequence 0 and the kernel's port 0: either check passes.
  if (mnl_cb_run(buf.data(), static_cast<size_t>(n), 0, 0, on_message, const_cast<Fn *>(&fn)) < 0 &&
      errno != ENOENT)
    return errno;
  return 0;
}

}  // namespace nlstate
