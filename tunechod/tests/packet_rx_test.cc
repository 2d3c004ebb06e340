// The receive path of a Linux VTEP: the port held by the kernel's VXLAN
// device, the packet socket's filter on real traffic, and the IPv4 and UDP
// headers read in front of the request.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "responder_fixture.h"

namespace {

const char kState[] =
    "ifd index=1 name=lo0 snmp_index=16 mtu=65535\n"
    "ifl index=1 ifd_index=1 unit=0 name=lo0 snmp_index=17\n"
    "ifa ifl_index=1 af=2 local=127.0.0.1/32 dest=127.0.0.0/8\n"
    "bd index=5 rtb_id=7 name=bd5 vnid=100 cfg_flags=0x800\n";

class PacketRx : public Responder {
 protected:
  // A UDP datagram to 127.0.0.1:port from 127.0.0.1:40000, its first byte the VXLAN flags.
  void send_udp(uint16_t port, uint8_t flags, uint8_t mark) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    from.sin_addr.s_addr = to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    from.sin_port = htons(40000);
    to.sin_port = htons(port);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
    std::vector<uint8_t> d = request(100);
    d[0] = flags;
    d[1] = mark;
    ASSERT_EQ(sendto(s, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(d.size()));
    close(s);
  }
  // The same as an IPv4 packet with more fragments to come, from a raw socket.
  void send_fragment(uint8_t mark) {
    std::vector<uint8_t> d = request(100);
    d[1] = mark;
    std::vector<uint8_t> p = ip_packet(d, 5);
    p[6] = 0x20;  // more fragments
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(raw_, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(p.size()));
  }
  // An IPv4 packet around a request: ihl words of header, UDP 40000 -> 4789.
  static std::vector<uint8_t> ip_packet(const std::vector<uint8_t> &req, int ihl) {
    const size_t h = static_cast<size_t>(ihl) * 4, total = h + 8 + req.size();
    std::vector<uint8_t> p(total, 0);
    p[0] = static_cast<uint8_t>(0x40 | ihl);
    p[2] = static_cast<uint8_t>(total >> 8);
    p[3] = static_cast<uint8_t>(total);
    p[8] = 64;
    p[9] = IPPROTO_UDP;
    const uint8_t lo[4] = {127, 0, 0, 1};
    memcpy(&p[12], lo, 4);
    memcpy(&p[16], lo, 4);
    uint8_t *u = &p[h];
    u[0] = 40000 >> 8;
    u[1] = 40000 & 0xFF;
    u[2] = TUNECHOD_PORT >> 8;
    u[3] = TUNECHOD_PORT & 0xFF;
    u[4] = static_cast<uint8_t>((8 + req.size()) >> 8);
    u[5] = static_cast<uint8_t>(8 + req.size());
    memcpy(u + 8, req.data(), req.size());
    return p;
  }
};

}  // namespace

TEST_F(PacketRx, PortHeldOnlyByASocketThatDoesNotShareIt) {
  EXPECT_EQ(tunechod_port_held(), 0);
  // Another responder (ports shared) leaves it free for this one.
  int shared = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(shared, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  setsockopt(shared, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(TUNECHOD_PORT);
  ASSERT_EQ(bind(shared, reinterpret_cast<sockaddr *>(&sin), sizeof sin), 0);
  EXPECT_EQ(tunechod_port_held(), 0);
  close(shared);
  // The kernel's own VXLAN device holds it.
  if (system("ip link add vxt type vxlan id 100 dstport 4789 2>/dev/null && ip link set vxt up") != 0)
    GTEST_SKIP() << "no VXLAN devices here";
  EXPECT_EQ(tunechod_port_held(), 1);
  EXPECT_EQ(system("ip link del vxt"), 0);
  EXPECT_EQ(tunechod_port_held(), 0);
}

TEST_F(PacketRx, TheFilterPassesOamRequestsToThisHostOnce) {
  int s = tunechod_packet_socket();
  ASSERT_GE(s, 0) << strerror(errno);
  send_udp(TUNECHOD_PORT, 0x08, 1);  // VXLAN data, no OAM bit
  send_udp(4790, 0x09, 2);           // another port
  send_fragment(3);                  // a fragment
  send_udp(TUNECHOD_PORT, 0x09, 4);
  send_udp(TUNECHOD_PORT, 0x09, 5);
  // Marks 4 and 5 in that order, each once, and nothing before them.
  std::vector<int> marks;
  uint8_t buf[2048];
  while (marks.size() < 2) {
    pollfd p = {s, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1) << "marks so far: " << marks.size();
    sockaddr_ll from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(s, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    ASSERT_GT(n, 29);
    EXPECT_EQ(from.sll_pkttype, PACKET_HOST);
    marks.push_back(buf[29]);
  }
  EXPECT_EQ(marks, (std::vector<int>{4, 5}));
  close(s);
}

TEST_F(PacketRx, HeadersAreReadAndBadOnesRefused) {
  start_rtsockd(kState);
  start_fdblearnd("7 100 * bd5 80\n");
  rts_bd_msg m = bd(RTS_OP_ADD, 7, 5, 100);
  ASSERT_EQ(tunechod_rtsock_decode_bd(&m), 1);
  // IP options in front of the UDP header: the request is found behind them.
  std::vector<uint8_t> p = ip_packet(request(100), 6);
  ASSERT_EQ(tunechod_rx_ip_packet(p.data(), p.size(), 1), 0);
  EXPECT_EQ(tunechod_stats.rx_datagrams, 1u);
  std::vector<uint8_t> reply = next_packet();
  ASSERT_EQ(reply.size(), 130u);
  EXPECT_EQ(reply[78], 2);
  EXPECT_EQ(reply[80], 4) << "VNI known";
  // Padding behind the IP datagram (a short frame) is not part of the request.
  std::vector<uint8_t> padded = ip_packet(request(100), 5);
  padded.resize(padded.size() + 20, 0xEE);
  ASSERT_EQ(tunechod_rx_ip_packet(padded.data(), padded.size(), 1), 0);
  EXPECT_EQ(tunechod_stats.rx_too_long, 0u);
  EXPECT_EQ(next_packet().size(), 130u);

  const uint64_t seen = tunechod_stats.rx_datagrams;
  std::vector<uint8_t> bad = ip_packet(request(100), 5);
  bad.resize(bad.size() - 1);  // the IP header claims more than came
  EXPECT_EQ(tunechod_rx_ip_packet(bad.data(), bad.size(), 1), 1);
  bad = ip_packet(request(100), 5);
  bad[25] = static_cast<uint8_t>(bad[25] + 1);  // UDP length past the datagram
  EXPECT_EQ(tunechod_rx_ip_packet(bad.data(), bad.size(), 1), 1);
  bad = ip_packet(request(100), 5);
  bad[9] = IPPROTO_TCP;
  EXPECT_EQ(tunechod_rx_ip_packet(bad.data(), bad.size(), 1), 1);
  bad = ip_packet(request(100), 5);
  bad[0] = 0x44;  // a header shorter than 20 bytes
  EXPECT_EQ(tunechod_rx_ip_packet(bad.data(), bad.size(), 1), 1);
  EXPECT_EQ(tunechod_rx_ip_packet(bad.data(), 12, 1), 1);
  EXPECT_EQ(tunechod_stats.rx_datagrams, seen);
}

// Frames on a veth pair from its other end: to this end's link address
// passes, a broadcast or a frame to another host (seen here all the same)
// does not.
TEST_F(PacketRx, OnlyFramesToThisHostsLinkAddress) {
  ASSERT_EQ(system("ip link add pr0 type veth peer name pr1 && ip link set pr0 up && ip link set pr1 up"), 0);
  const int pr0 = static_cast<int>(if_nametoindex("pr0")), pr1 = static_cast<int>(if_nametoindex("pr1"));
  uint8_t mac0[6] = {};
  {
    int q = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strcpy(ifr.ifr_name, "pr0");
    ASSERT_EQ(ioctl(q, SIOCGIFHWADDR, &ifr), 0);
    memcpy(mac0, ifr.ifr_hwaddr.sa_data, 6);
    close(q);
  }
  int s = tunechod_packet_socket();
  ASSERT_GE(s, 0);
  int tx = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP));
  ASSERT_GE(tx, 0);
  auto send_to = [&](const uint8_t dst[6], uint8_t mark) {
    std::vector<uint8_t> req = request(100);
    req[1] = mark;
    std::vector<uint8_t> p = ip_packet(req, 5);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = pr1;
    to.sll_halen = 6;
    memcpy(to.sll_addr, dst, 6);
    ASSERT_EQ(sendto(tx, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(p.size()));
  };
  const uint8_t broadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, other[6] = {0x02, 0, 0, 0, 0, 0x99};
  send_to(broadcast, 1);
  send_to(other, 2);
  send_to(mac0, 3);
  send_to(mac0, 4);
  std::vector<int> marks;
  uint8_t buf[2048];
  while (marks.size() < 2) {
    pollfd p = {s, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    sockaddr_ll from{};
    socklen_t len = sizeof from;
    ssize_t n = recvfrom(s, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
    ASSERT_GT(n, 29);
    EXPECT_EQ(from.sll_ifindex, pr0);
    marks.push_back(buf[29]);
  }
  EXPECT_EQ(marks, (std::vector<int>{3, 4}));
  close(tx);
  close(s);
}
