// The reply reader against replies laid out by hand from the packet tables.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "oam/oam.h"

namespace {

void put32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// A reply's UDP payload: 102 bytes for inner IPv4, 122 for inner IPv6.
std::vector<uint8_t> reply(bool v4) {
  std::vector<uint8_t> p(v4 ? 102 : 122, 0);
  p[0] = 0x09;
  p[22] = v4 ? 0x45 : 0x60;
  uint8_t *e = p.data() + (v4 ? 50 : 70), *t = e + 28;
  e[0] = 2;
  e[2] = 4;
  put32(e + 4, 0xCAFE);
  put32(e + 8, 12);
  put32(e + 12, 1000);
  put32(e + 16, 250);
  put32(e + 20, 2000);
  put32(e + 24, 999);
  put32(t + 4, 0xABCDEF << 8);
  t[23] = 1;
  return p;
}

TEST(Reply, FieldsAtTheOffsetsOfEitherInnerFamily) {
  for (bool v4 : {true, false}) {
    std::vector<uint8_t> p = reply(v4);
    ping_reply r{};
    ASSERT_TRUE(ping_reply_parse(p.data(), p.size(), &r));
    EXPECT_EQ(r.pr_inner_ipv4, v4);
    EXPECT_EQ(r.pr_type, 2);
    EXPECT_EQ(r.pr_return_code, PING_RC_VNI_KNOWN);
    EXPECT_EQ(r.pr_handle, 0xCAFEu);
    EXPECT_EQ(r.pr_seq, 12u);
    EXPECT_EQ(r.pr_sent.tv_sec, 1000);
    EXPECT_EQ(r.pr_sent.tv_usec, 250000);
    EXPECT_EQ(r.pr_received.tv_usec, 999000) << "milliseconds on the wire";
    EXPECT_EQ(r.pr_vni, 0xABCDEFu);
    EXPECT_EQ(r.pr_mac_status, PING_MAC_PRESENT);
    // One byte short of the MAC status, or no OAM bit: not an echo message.
    EXPECT_FALSE(ping_reply_parse(p.data(), p.size() - 1, &r));
    p[0] = 0x08;
    EXPECT_FALSE(ping_reply_parse(p.data(), p.size(), &r));
  }
  EXPECT_FALSE(ping_reply_parse(nullptr, 0, nullptr));
}

// What a raw ICMP socket hands over: an IPv4 header, the ICMP header, then
// the quoted probe (outer header first), cut to quote bytes.
std::vector<uint8_t> icmp_error(const ping_probe &pp, uint8_t type, uint8_t code, size_t quote) {
  quote = std::min<size_t>(quote, pp.pp_len);
  std::vector<uint8_t> p(28 + quote, 0);
  p[0] = 0x45;
  p[9] = 1;
  p[20] = type;
  p[21] = code;
  memcpy(p.data() + 28, pp.pp_buf, quote);
  return p;
}

TEST(Reply, IcmpErrorsQuotingAProbe) {
  ping_probe pp{};
  pp.pp_tunnel_src.s_addr = htonl(0xC0000202);
  pp.pp_tunnel_dst.s_addr = htonl(0xC0000201);
  ping_probe_defaults(&pp);
  pp.pp_seq = 9;
  probe_build(&pp, in_addr{}, 64, true);
  uint8_t type = 0, code = 0;
  ping_reply r{};
  std::vector<uint8_t> p = icmp_error(pp, 3, 3, 148);
  ASSERT_TRUE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r));
  EXPECT_EQ(type, 3);
  EXPECT_EQ(code, 3);
  EXPECT_EQ(r.pr_type, 1) << "the request itself";
  EXPECT_EQ(r.pr_seq, 9u);
  EXPECT_EQ(r.pr_handle, pp.pp_handle);
  p = icmp_error(pp, 11, 0, 20 + 8 + 50 + 28 + 24);  // just up to the MAC status
  EXPECT_TRUE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r));
  EXPECT_EQ(type, 11);

  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size() - 1, pp.pp_tunnel_src, &type, &code, &r)) << "quote too short";
  in_addr other;
  other.s_addr = htonl(0xC0000203);
  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size(), other, &type, &code, &r)) << "another sender's probe";
  p = icmp_error(pp, 0, 0, 148);
  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r)) << "an echo reply";
  p = icmp_error(pp, 3, 3, 148);
  p[28 + 22] = 0x13;  // quoted UDP destination port 4789 (0x12B5) -> 5045
  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r));
  p = icmp_error(pp, 3, 3, 148);
  p[28 + 9] = 6;
  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r)) << "not UDP";
  p = icmp_error(pp, 3, 3, 148);
  p[0] = 0x44;
  EXPECT_FALSE(ping_icmp_parse(p.data(), p.size(), pp.pp_tunnel_src, &type, &code, &r)) << "header below 20 bytes";
}

TEST(Reply, UdpPayloadOfTheRawReplySocket) {
  ping_probe pp{};
  pp.pp_tunnel_src.s_addr = htonl(0xC0000201);  // the probe stands in for a datagram to 192.0.2.9
  pp.pp_tunnel_dst.s_addr = htonl(0xC0000209);
  ping_probe_defaults(&pp);
  probe_build(&pp, in_addr{}, 64, true);
  in_addr from{}, to = pp.pp_tunnel_dst;
  const uint8_t *payload = nullptr;
  size_t len = 0;
  ASSERT_TRUE(ping_udp_payload(pp.pp_buf, pp.pp_len, to, &from, &payload, &len));
  EXPECT_EQ(from.s_addr, pp.pp_tunnel_src.s_addr);
  EXPECT_EQ(payload, pp.pp_buf + 28);
  EXPECT_EQ(len, 120u);
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, pp.pp_len, pp.pp_tunnel_src, &from, &payload, &len)) << "not to us";
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, 27, to, &from, &payload, &len)) << "UDP header cut";
  pp.pp_buf[23] = 0xB6;  // port 4790
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, pp.pp_len, to, &from, &payload, &len));
  pp.pp_buf[23] = 0xB5;
  pp.pp_buf[9] = 6;
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, pp.pp_len, to, &from, &payload, &len)) << "not UDP";
  pp.pp_buf[9] = 17;
  pp.pp_buf[0] = 0x46;  // options: the UDP header moves 4 bytes on
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, pp.pp_len, to, &from, &payload, &len)) << "port read behind the options";
  pp.pp_buf[0] = 0x44;
  EXPECT_FALSE(ping_udp_payload(pp.pp_buf, pp.pp_len, to, &from, &payload, &len)) << "header below 20 bytes";
}

TEST(Reply, CodesInWords) {
  char b[32];
  EXPECT_STREQ(ping_return_code_text(4, b, sizeof b), "VNI known");
  EXPECT_STREQ(ping_return_code_text(2, b, sizeof b), "VNI unknown");
  EXPECT_STREQ(ping_return_code_text(7, b, sizeof b), "return code 7");
  EXPECT_STREQ(ping_mac_status_text(0, b, sizeof b), "MAC not checked");
  EXPECT_STREQ(ping_mac_status_text(1, b, sizeof b), "MAC present");
  EXPECT_STREQ(ping_mac_status_text(2, b, sizeof b), "MAC absent");
  EXPECT_STREQ(ping_mac_status_text(300, b, sizeof b), "MAC status 300");
}

}  // namespace
