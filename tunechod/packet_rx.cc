// Requests from a packet socket, for a host whose own VXLAN device holds UDP
// port 4789 (a Linux VTEP): the responder cannot bind the port there, and the
// device drops OAM requests as it drops any unknown VXLAN flag, so a copy is
// taken before it, filtered in the kernel to what the bound socket would get.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tunechod.h"

namespace {

// Any IPv4 datagram fits: a longer request is counted as too long, never cut.
uint8_t packet_buf[65536];

}  // namespace

int tunechod_port_held(void) {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return 0;
  int one = 1;
  // The receive socket's own options: another responder's socket does not
  // count as held, a VXLAN device's (no port sharing) does.
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  setsockopt(s, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(TUNECHOD_PORT);
  const bool held = bind(s, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0 && errno == EADDRINUSE;
  close(s);
  return held;
}

int tunechod_packet_socket(void) {
  int s = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_IP));
  if (s < 0) return -1;
  // On the IPv4 header (a cooked socket has no link header): addressed to
  // this host's link address (no broadcast, multicast or promiscuous copy), UDP, not a fragment, destination
  // port 4789, the OAM bit in the VXLAN flags.
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_HOST, 0, 10),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 0),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 0xF0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x40, 0, 7),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 5),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x3FFF, 3, 0),  // more fragments, or an offset
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, TUNECHOD_PORT, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, 8),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x01, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  sock_fprog prog = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  if (setsockopt(s, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) < 0) {
    int err = errno;
    close(s);
    errno = err;
    return -1;
  }
  return s;
}

int tunechod_rx_ip_packet(const uint8_t *pkt, size_t n, uint32_t ifindex) {
  if (n < 20 || (pkt[0] >> 4) != 4) return 1;
  const size_t ihl = (pkt[0] & 0x0F) * 4u;
  const size_t total = static_cast<size_t>(pkt[2] << 8 | pkt[3]);
  if (ihl < 20 || total < ihl + 8 || total > n || pkt[9] != IPPROTO_UDP) return 1;
  const uint8_t *udp = pkt + ihl;
  const size_t udp_len = static_cast<size_t>(udp[4] << 8 | udp[5]);
  if (udp_len < 8 || udp_len > total - ihl) return 1;
  sockaddr_in peer{}, local{};
  peer.sin_family = local.sin_family = AF_INET;
  memcpy(&peer.sin_addr, pkt + 12, 4);
  memcpy(&local.sin_addr, pkt + 16, 4);
  memcpy(&peer.sin_port, udp, 2);
  memcpy(&local.sin_port, udp + 2, 2);
  oam_peer = peer;
  oam_local = local;
  // Linux gives no routing table with a packet either: 0, as on the bound socket.
  tunechod_recv_oam_packet(udp + 8, static_cast<uint32_t>(udp_len - 8), tunechod_app.raw_sock, &oam_peer,
                           &oam_local, 0, ifindex);
  return 0;
}

void tunechod_rx_read_packet(task *tp) {
  for (;;) {
    sockaddr_ll from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(tp->task_socket, packet_buf, sizeof packet_buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "packet socket: %s", strerror(errno));
      return;
    }
    if (tunechod_rx_ip_packet(packet_buf, static_cast<size_t>(n), static_cast<uint32_t>(from.sll_ifindex)) != 0)
      TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "packet of %u bytes is no UDP datagram", static_cast<uint32_t>(n));
  }
}
