// The probe as the responder reads it: offsets, lengths and checksums checked
// against the packet layout, not against the builder's own arithmetic.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "oam/oam.h"

namespace {

uint16_t get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t get32(const uint8_t *p) { return static_cast<uint32_t>(get16(p)) << 16 | get16(p + 2); }

ping_probe make(ping_target target) {
  ping_probe pp{};
  inet_pton(AF_INET, "192.0.2.1", &pp.pp_tunnel_src);
  inet_pton(AF_INET, "192.0.2.9", &pp.pp_tunnel_dst);
  ping_probe_defaults(&pp);
  pp.pp_vni = 0xABCDEF;
  pp.pp_seq = 7;
  pp.pp_target = target;
  const uint8_t mac[6] = {2, 0, 0, 0, 0, 0x42};
  memcpy(pp.pp_target_mac, mac, 6);
  inet_pton(AF_INET6, "2001:db8::5", pp.pp_target_addr);
  return pp;
}

TEST(Probe, InnerIpv4MacModeMatchesTheRequestLayout) {
  ping_probe pp = make(PING_TARGET_MAC);
  probe_build(&pp, in_addr{}, 64, true);
  const uint8_t *b = pp.pp_buf;
  ASSERT_EQ(pp.pp_len, 148);
  EXPECT_EQ(b[0], 0x45);
  EXPECT_EQ(get16(b + 2), 148);
  EXPECT_EQ(b[8], 64);
  EXPECT_EQ(b[9], 17);
  EXPECT_EQ(ping_ip_checksum(b, 20), 0) << "outer header checksum";
  EXPECT_EQ(get32(b + 16), 0xC0000209u) << "default tunnel destination";
  EXPECT_EQ(get16(b + 20) & 0xC000, 0xC000);
  EXPECT_EQ(get16(b + 22), 4789);
  EXPECT_EQ(get16(b + 24), 128);

  const uint8_t *vx = b + 28;  // the request as the responder's socket gives it
  EXPECT_EQ(vx[0], 0x09);
  EXPECT_EQ(get32(vx + 4) >> 8, 0xABCDEFu);
  EXPECT_EQ(get16(vx + 20), 0x0800);
  EXPECT_EQ(vx[22] >> 4, 4);
  EXPECT_EQ(ping_ip_checksum(vx + 22, 20), 0) << "inner header checksum";
  EXPECT_EQ(get32(vx + 22 + 16), 0x7F000001u);
  const uint8_t *e = vx + 50;
  EXPECT_EQ(e[0], 1);
  EXPECT_EQ(e[1], 3);
  EXPECT_EQ(get32(e + 8), 7u);
  EXPECT_NE(get32(e + 12), 0u) << "sent time";
  const uint8_t *t = e + 28;
  EXPECT_EQ(get16(t), 1);
  EXPECT_EQ(get16(t + 2), 20);
  EXPECT_EQ(get32(t + 4) >> 8, 0xABCDEFu);
  EXPECT_EQ(get32(t + 8), 0xC0000201u);
  EXPECT_EQ(get16(t + 12), 1);
  EXPECT_EQ(get16(t + 14), 8);
  EXPECT_EQ(t[21], 0x42);
  EXPECT_EQ(get16(t + 22), 0) << "MAC status left for the responder";
}

TEST(Probe, InnerIpv6KeepsEthernetTypeIpv4AndTheLongerLayout) {
  ping_probe pp = make(PING_TARGET_IPV6);
  in_addr dst;
  inet_pton(AF_INET, "198.51.100.3", &dst);
  probe_build(&pp, dst, 255, false);
  const uint8_t *b = pp.pp_buf;
  ASSERT_EQ(pp.pp_len, 168);
  EXPECT_EQ(get32(b + 16), 0xC6336403u) << "the destination given wins";
  const uint8_t *vx = b + 28;
  EXPECT_EQ(get16(vx + 20), 0x0800);
  EXPECT_EQ(vx[22], 0x60);
  EXPECT_EQ(get16(vx + 22 + 4), 78);
  EXPECT_EQ(vx[22 + 7], 255);
  EXPECT_EQ(vx[22 + 8 + 10], 0xFF) << "::ffff:tunnel-source";
  EXPECT_EQ(get32(vx + 22 + 8 + 12), 0xC0000201u);
  const uint8_t *t = vx + 70 + 28;
  EXPECT_EQ(get16(t + 2), 32);
  EXPECT_EQ(get16(t + 12), 3);
  EXPECT_EQ(get16(t + 14), 18);
  EXPECT_EQ(t[16], 0x20);
  // The long form fills the probe exactly.
  pp.pp_target = PING_TARGET_LONG;
  probe_build(&pp, dst, 255, false);
  EXPECT_EQ(get16(t + 2), 38);
  EXPECT_EQ(t + 4 + 38, pp.pp_buf + 168);
}

TEST(Probe, VniOnlyProbeGivesTheResponderNoMacToCheck) {
  ping_probe pp = make(PING_TARGET_NONE);
  probe_build(&pp, in_addr{}, 255, true);
  const uint8_t *t = pp.pp_buf + 28 + 50 + 28;
  EXPECT_EQ(pp.pp_len, 148);
  EXPECT_EQ(get16(t + 2), 8) << "the VNI and the VTEP only";
  EXPECT_EQ(get32(t + 4) >> 8, 0xABCDEFu);
  for (const uint8_t *p = t + 12; p < pp.pp_buf + 148; p++) EXPECT_EQ(*p, 0) << "no sub-TLV";
}

TEST(Probe, HashPortFollowsTheFlowAndStaysInTheRange) {
  ping_probe a = make(PING_TARGET_MAC), b = make(PING_TARGET_MAC);
  EXPECT_EQ(ping_hash_port(&a, true), ping_hash_port(&b, true));
  int differ = 0;
  for (uint16_t port = 1; port <= 64; port++) {
    b.pp_l4_src_port = port;
    uint16_t h = ping_hash_port(&b, true);
    EXPECT_EQ(h & 0xC000, 0xC000);
    differ += h != ping_hash_port(&a, true);
  }
  EXPECT_GT(differ, 60);
}

std::string warn_text(uint32_t have, uint32_t need, bool ip_mode) {
  testing::internal::CaptureStderr();
  hash_params_warn(have, need, ip_mode);
  return testing::internal::GetCapturedStderr();
}

TEST(Probe, HashWarningNamesWhatIsMissing) {
  EXPECT_EQ(warn_text(HASH_NEEDED, HASH_NEEDED, false), "");
  EXPECT_EQ(warn_text(0x1FF & ~HASH_VLAN, HASH_NEEDED, false), "") << "VLAN is not needed";
  EXPECT_EQ(warn_text(0, HASH_NEEDED, true), "") << "silent in IP mode";
  std::string w = warn_text(HASH_NEEDED & ~(HASH_DMAC | HASH_L4_DST_PORT), HASH_NEEDED, false);
  EXPECT_EQ(w,
            "\n\tWARNING: following hash-parameters are missing - \n\t\thash computation may not succeed\n"
            "\t\tend-host dmac\n\t\tend-host l4-dst-port\n\n");
}

TEST(Probe, TimeTextHasMillisecondsAndZone) {
  setenv("TZ", "UTC", 1);
  tzset();
  timeval tv = {1795392000, 7000};  // 2026-11-23 00:00:00.007 UTC
  char buf[64];
  ping_time_text(&tv, buf, sizeof buf);
  EXPECT_STREQ(buf, "Nov 23 2026 00:00:00.007 UTC");
}

}  // namespace
