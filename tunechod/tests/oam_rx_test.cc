// Echo processing end to end inside one process: a request handed to the
// receive path, the reply caught on the loopback and read byte by byte
// against the reply layout.
#include <arpa/inet.h>

#include <cstring>

#include "responder_fixture.h"

namespace {

const char kState[] =
    "ifd index=1 name=lo0 snmp_index=16 mtu=65535\n"
    "ifd index=2 name=ge-0/0/0 snmp_index=501 mtu=1514\n"
    "ifl index=70 ifd_index=1 unit=0 name=lo0 snmp_index=17\n"
    "ifl index=71 ifd_index=2 unit=0 name=ge-0/0/0 snmp_index=502\n"
    "ifa ifl_index=70 af=2 local=10.255.0.1/32\n"
    "ifa ifl_index=71 af=2 local=192.0.2.1/32 dest=127.0.0.0/8\n"
    "bd index=5 rtb_id=7 name=bd5 vnid=100 cfg_flags=0x800\n"
    "mac rtb=7 bd=5 addr=00:11:22:33:44:55 nh_index=1001\n";
const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kOtherMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x56};

class OamRx : public Responder {
 protected:
  void SetUp() override {
    Responder::SetUp();
    if (IsSkipped()) return;
    start_rtsockd(kState);
    start_fdblearnd("7 100 * bd5 80\n");
    rts_bd_msg m = bd(RTS_OP_ADD, 7, 5, 100);
    ASSERT_EQ(tunechod_rtsock_decode_bd(&m), 1);
  }
};

TEST_F(OamRx, KnownVniWithItsMacIsAnsweredByteByByte) {
  std::vector<uint8_t> req = request(100, true, kMac);
  ASSERT_EQ(handle(req, "10.255.0.1", 7, 71), 0);
  std::vector<uint8_t> p = next_packet();
  ASSERT_EQ(p.size(), 130u);
  EXPECT_EQ(p[0], 0x45);
  EXPECT_EQ(get16(&p[2]), 130);
  EXPECT_EQ(p[8], 255);
  EXPECT_EQ(p[9], 17);
  EXPECT_EQ(get32(&p[12]), 0x0AFF0001u) << "addressed to lo0: the source stays";
  EXPECT_EQ(get32(&p[16]), 0x7F000001u);
  EXPECT_EQ(get16(&p[20]), 4789);
  EXPECT_EQ(get16(&p[22]), 4789);
  EXPECT_EQ(get16(&p[24]), 110);
  EXPECT_EQ(get16(&p[26]), 0);
  // VXLAN, inner Ethernet, IP and UDP headers come back unchanged.
  EXPECT_EQ(0, memcmp(&p[28], req.data(), 50));
  const uint8_t *e = &p[78];
  EXPECT_EQ(e[0], 2);
  EXPECT_EQ(e[1], 3);
  EXPECT_EQ(e[2], 4) << "VNI known";
  EXPECT_EQ(get32(e + 4), 0xAABBCCDDu);
  EXPECT_EQ(get32(e + 8), 42u);
  EXPECT_EQ(get32(e + 12), 1000u);
  EXPECT_EQ(get32(e + 16), 500u);
  EXPECT_GT(get32(e + 20), 1000000000u) << "received, seconds";
  EXPECT_LT(get32(e + 24), 1000u) << "received, milliseconds";
  EXPECT_EQ(get16(e + 28 + 22), 1) << "MAC present";
  EXPECT_TRUE(traced("final dest - source address set to 10.255.0.1"));
  EXPECT_EQ(tunechod_stats.tx_replies, 1u);
  EXPECT_EQ(tunechod_stats.mac_present, 1u);
}

TEST_F(OamRx, MacAbsentUnknownVniAndShortTlv) {
  ASSERT_EQ(handle(request(100, true, kOtherMac), "10.255.0.1", 7), 0);
  std::vector<uint8_t> p = next_packet();
  ASSERT_EQ(p.size(), 130u);
  EXPECT_EQ(p[80], 4);
  EXPECT_EQ(get16(&p[106 + 22]), 2) << "MAC absent";

  ASSERT_EQ(handle(request(999, true, kMac), "10.255.0.1", 7), 0);
  p = next_packet();
  EXPECT_EQ(p[80], 2) << "VNI unknown";
  EXPECT_EQ(get16(&p[106 + 22]), 0) << "no MAC step";
  EXPECT_TRUE(traced("vni lookup failed for vni 999"));

  std::vector<uint8_t> req = request(100, true, kMac);
  req[78 + 2] = 0;
  req[78 + 3] = 7;  // TLV length 7: no MAC step
  req[78 + 22] = 0xBE;
  req[78 + 23] = 0xEF;
  ASSERT_EQ(handle(req, "10.255.0.1", 7), 0);
  p = next_packet();
  EXPECT_EQ(p[80], 4);
  EXPECT_EQ(get16(&p[106 + 22]), 0xBEEF) << "the MAC status as it came";
}

TEST_F(OamRx, LengthLimitsAndWhatIsNotARequest) {
  std::vector<uint8_t> req = request(100, true, kMac);
  std::vector<uint8_t> r89(req.begin(), req.begin() + 89);
  EXPECT_EQ(handle(r89), 1);
  handle(r89, "127.0.0.1", 7, 0, true);
  EXPECT_TRUE(traced("packet parsing failed"));
  EXPECT_FALSE(traced("unexepected"));
  std::vector<uint8_t> r90(req.begin(), req.begin() + 90);
  EXPECT_EQ(handle(r90, "127.0.0.1", 7), 0);
  EXPECT_EQ(next_packet().size(), 130u) << "90 bytes answered with the fixed length";
  std::vector<uint8_t> r996(req);
  r996.resize(996, 0xA5);
  EXPECT_EQ(handle(r996, "127.0.0.1", 7), 0);
  std::vector<uint8_t> p = next_packet();
  ASSERT_EQ(p.size(), 130u) << "a long request is cut";
  EXPECT_EQ(p[80], 4);
  std::vector<uint8_t> r997(req);
  r997.resize(997);
  EXPECT_EQ(handle(r997), 1);
  EXPECT_TRUE(traced("Received unexepected number of bytes 997"));

  req[0] = 0x08;  // OAM bit clear
  EXPECT_EQ(handle(req), 1);
  req[0] = 0x09;
  req[50] = 2;  // a reply, not a request
  EXPECT_EQ(handle(req), 0);
  EXPECT_TRUE(traced("Did not recieve a echo request message type. Message type received is 2"));
  // A good request as a sentinel: the next packet seen is its reply, so
  // nothing was sent for any of the above.
  req[50] = 1;
  req[61] = 0x77;  // sequence number's low byte
  ASSERT_EQ(handle(req, "127.0.0.1", 7), 0);
  p = next_packet();
  ASSERT_EQ(p.size(), 130u);
  EXPECT_EQ(p[78 + 11], 0x77);
  EXPECT_EQ(tunechod_stats.rx_too_short, 2u);
  EXPECT_EQ(tunechod_stats.rx_too_long, 1u);
  EXPECT_EQ(tunechod_stats.rx_not_oam, 1u);
  EXPECT_EQ(tunechod_stats.rx_not_request, 1u);
  EXPECT_EQ(tunechod_stats.tx_replies, 3u);
}

TEST_F(OamRx, InnerIpv6AndTheShortIpv6Request) {
  ASSERT_EQ(handle(request(100, false, kMac), "10.255.0.1", 7), 0);
  std::vector<uint8_t> p = next_packet();
  ASSERT_EQ(p.size(), 150u);
  EXPECT_EQ(get16(&p[2]), 150);
  EXPECT_EQ(p[98], 2);
  EXPECT_EQ(p[100], 4);
  EXPECT_EQ(get16(&p[126 + 22]), 1);
  // 90 bytes of an inner-IPv6 request: the TLV lies behind the end, so the
  // zeros of the buffer are read and VNI 0 is unknown.
  std::vector<uint8_t> r90 = request(100, false, kMac);
  r90.resize(90);
  ASSERT_EQ(handle(r90, "10.255.0.1", 7), 0);
  p = next_packet();
  ASSERT_EQ(p.size(), 150u);
  EXPECT_EQ(p[100], 2);
}

TEST_F(OamRx, TablesByIdByWalkAndNoInformation) {
  // Table 0 walks every table after 0, and the MAC is asked for in table 0,
  // which the peer resolves through the bridge domain in the key.
  ASSERT_EQ(handle(request(100, true, kMac), "10.255.0.1", 0), 0);
  std::vector<uint8_t> p = next_packet();
  EXPECT_EQ(p[80], 4);
  EXPECT_EQ(get16(&p[106 + 22]), 1);
  EXPECT_TRUE(traced("lookup for vni 100 to get mac found bd_data with bd_id:5 for rtb_idx: 7"));
  ASSERT_EQ(handle(request(100, true, kOtherMac), "10.255.0.1", 0), 0);
  EXPECT_EQ(get16(&next_packet()[106 + 22]), 2);
  // A VNI filed only under table 0 is unknown to the walk.
  rts_bd_msg m = bd(RTS_OP_ADD, 0, 9, 400);
  ASSERT_EQ(tunechod_rtsock_decode_bd(&m), 1);
  ASSERT_EQ(handle(request(400, true), "10.255.0.1", 0), 0);
  EXPECT_EQ(next_packet()[80], 2);
  // No table information: index 0xFFFF is looked up directly and fails.
  ASSERT_EQ(handle(request(100, true), "10.255.0.1", 0xFFFF), 0);
  EXPECT_EQ(next_packet()[80], 2);
  EXPECT_TRUE(traced("bdvni lookup failed for rtb_idx 65535"));
}

TEST_F(OamRx, SourceAddressChoices) {
  // Not on lo0: the ingress interface's address toward the requester.
  ASSERT_EQ(handle(request(100, true), "198.51.100.9", 7, 71), 0);
  std::vector<uint8_t> p = next_packet();
  EXPECT_EQ(get32(&p[12]), 0xC0000201u);
  EXPECT_TRUE(traced("dest address of OAM req 198.51.100.9 not configured on lo0.0"));
  EXPECT_TRUE(traced("transit - source address set to 192.0.2.1"));
  // Neither: the request's destination stays the source.
  ASSERT_EQ(handle(request(100, true), "198.51.100.9", 7, 99), 0);
  p = next_packet();
  EXPECT_EQ(get32(&p[12]), 0xC6336409u);
  EXPECT_TRUE(traced("couldn't get ingress interface address"));
  EXPECT_TRUE(traced("Unable to determine source address"));
}

TEST_F(OamRx, NoRouteSocketHandle) {
  rtslib_close(tunechod_app.rts_sync_cookie);
  tunechod_app.rts_sync_cookie = nullptr;
  ASSERT_EQ(handle(request(100, true, kMac), "198.51.100.9", 7), 0);
  std::vector<uint8_t> p = next_packet();
  EXPECT_EQ(get16(&p[106 + 22]), 2) << "no handle: the MAC counts as absent";
  EXPECT_EQ(get32(&p[12]), 0xC6336409u);
  EXPECT_TRUE(traced("rts_sync_cookie is NULL"));
}

}  // namespace
