// The ping command's sockets. Every failure ends the command with -2.
#include <linux/filter.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "oam/oam.h"
#include "platform/sockopt.h"

namespace {

int set_one(int fd, int level, int opt) {
  int one = 1;
  return tvx_setsockopt(fd, level, opt, &one, sizeof one);
}

int recv_common(int fd) {
  if (fd <= 0) ping_exit(-2, "Recv socket creation failed\n");
  int rcvbuf = 10240;
  if (set_one(fd, SOL_SOCKET, SO_REUSEADDR) < 0 || set_one(fd, SOL_SOCKET, SO_REUSEPORT) < 0 ||
      set_one(fd, IPPROTO_UDP, TVX_UDP_OPTION_2) < 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) < 0)
    ping_exit(-2, "SOL_SOCKET: %s\n", strerror(errno));
  return fd;
}

}  // namespace

int ping_send_socket_v4(void) {
  int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, 255);
  if (fd <= 0) ping_exit(-2, "Send socket creation failed\n");
  if (set_one(fd, IPPROTO_IP, IP_HDRINCL) < 0) ping_exit(-2, "IP_HDRINCL: %s\n", strerror(errno));
  if (set_one(fd, IPPROTO_IP, IP_OUTPUT_L3) < 0) ping_exit(-2, "IP_OUTPUT_L3: %s\n", strerror(errno));
  return fd;
}

int ping_send_socket_v6(const struct in6_addr *tunnel_source) {
  int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd <= 0) ping_exit(-2, "Send socket creation failed\n");
  sockaddr_in6 sin6{};
  sin6.sin6_family = AF_INET6;
  sin6.sin6_addr = *tunnel_source;
  if (bind(fd, reinterpret_cast<sockaddr *>(&sin6), sizeof sin6) < 0) ping_exit(-2, "Send socket bind failed\n");
  return fd;
}

int ping_recv_socket_v4(void) { return recv_common(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }

int ping_recv_socket_v6(void) {
  int fd = recv_common(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (set_one(fd, IPPROTO_IPV6, IPV6_V6ONLY) < 0) ping_exit(-2, "IPPROTO_IPV6: IPV6_V6ONLY %s\n", strerror(errno));
  return fd;
}

int ping_icmp_socket(void) {
  int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  if (fd <= 0) ping_exit(-2, "ICMP recv socket creation failed\n");
  return fd;
}

int ping_icmp6_socket(void) {
  int fd = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  if (fd <= 0) ping_exit(-2, "ICMP recv socket creation failed\n");
  icmp6_filter filter;
  ICMP6_FILTER_SETPASSALL(&filter);
  if (setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter) < 0)
    ping_exit(-2, "ICMP recv socket creation failed\n");
  return fd;
}

int ping_reply_socket_raw(void) {
  int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd <= 0) ping_exit(-2, "Recv socket creation failed\n");
  // The filter sees the IPv4 header first: X = its length, then the UDP
  // destination port behind it.
  sock_filter code[] = {
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, OAM_PORT, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  sock_fprog prog = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) < 0)
    ping_exit(-2, "SO_ATTACH_FILTER: %s\n", strerror(errno));
  return fd;
}
