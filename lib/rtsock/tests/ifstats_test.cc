// The interface statistics message: its layout written out byte by byte, and
// what the part finder refuses.
#include <gtest/gtest.h>

#include "bytes.h"
#include "rtsock/rts_ifstats.h"

namespace {

rts_ifstats_msg fixed(uint8_t type) {
  rts_ifstats_msg f{};
  f.hdr.version = rts_type_table[type].version;
  f.hdr.type = type;
  f.hdr.operation = RTS_OP_GET;
  f.hdr.seq = 7;
  f.hdr.sender = 3;
  f.hdr.size = sizeof f;
  f.ifsm_flags = RTS_IFSM_UP | RTS_IFSM_LINK;
  f.ifsm_media = RTS_MEDIA_ETHER;
  f.ifsm_index = 0x102;
  f.ifsm_link_type = 0x12;
  f.ifsm_ibps = 8000;
  f.ifsm_ipps = 10;
  f.ifsm_obps = 16000;
  f.ifsm_opps = 20;
  f.ifsm_clear_time = 0x5f000000;
  return f;
}

std::vector<uint8_t> build(const rts_ifstats_msg &f, const char *name, const std::vector<uint64_t> &cur,
                           const std::vector<uint64_t> &base, const std::vector<uint8_t> &tlv) {
  uint32_t n = rts_ifsm_encode(&f, name, cur.data(), static_cast<uint32_t>(cur.size()), base.data(),
                               static_cast<uint32_t>(base.size()), tlv.data(),
                               static_cast<uint32_t>(tlv.size()), nullptr, 0);
  std::vector<uint8_t> out(n);
  EXPECT_EQ(rts_ifsm_encode(&f, name, cur.data(), static_cast<uint32_t>(cur.size()), base.data(),
                            static_cast<uint32_t>(base.size()), tlv.data(),
                            static_cast<uint32_t>(tlv.size()), out.data(), n - 1),
            n);  // too little room: counted, nothing written
  EXPECT_EQ(out, std::vector<uint8_t>(n, 0));
  rts_ifsm_encode(&f, name, cur.data(), static_cast<uint32_t>(cur.size()), base.data(),
                  static_cast<uint32_t>(base.size()), tlv.data(), static_cast<uint32_t>(tlv.size()),
                  out.data(), n);
  return out;
}

TEST(IfstatsLayout, DeviceMessageBytes) {
  std::vector<uint8_t> tlv(12);
  uint64_t speed = 10000000000ull;
  ASSERT_EQ(rts_ifsm_tlv_encode(RTS_IFST_ETHER_LINK, &speed, 8, tlv.data(), 12), 12u);
  std::vector<uint8_t> odd(8);
  ASSERT_EQ(rts_ifsm_tlv_encode(0x1E6, "\x7f", 1, odd.data(), 8), 8u);  // one byte takes four
  tlv.insert(tlv.end(), odd.begin(), odd.end());
  auto got = build(fixed(RTS_T_IFDSTATS), "et-0/0/1", {100, 2}, {40}, tlv);

  Bytes b;
  b.u32(0).u8(99).u8(15).u8(4).u8(0).u32(140).u32(7).u32(3).u16(84).u8(0).u8(0).u32(0);  // raw header
  b.u16(84).u8(3).u8(9).u8(2).u8(1).u8(11).u8(0);     // var offset, flags, name length, counts, media
  b.u32(0x102).u16(0x12).u16(0);                      // index, link type
  b.u64(8000).u64(10).u64(16000).u64(20).u64(0x5f000000);
  ASSERT_EQ(b.size(), 84u);
  b.str("et-0/0/1", 9).pad(4);                       // name with its NUL, padded to 4
  b.u64(100).u64(2);                                 // current section
  b.u64(40);                                         // baseline section
  b.u16(0x42).u16(8).u64(10000000000ull);            // TLVs
  b.u16(0x1E6).u16(1).u8(0x7f).pad(4);
  EXPECT_EQ(hex(got), hex(b.v));

  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(got.data(), static_cast<uint32_t>(got.size()), &p));
  EXPECT_STREQ(p.name, "et-0/0/1");
  EXPECT_EQ(p.cur_count, 2u);
  EXPECT_EQ(rts_ifsm_counter(p.cur, p.cur_count, RTS_IFSC_IPACKETS), 2u);
  EXPECT_EQ(rts_ifsm_counter(p.cur, p.cur_count, RTS_IFSC_IUCAST), 0u);  // past the section
  EXPECT_EQ(rts_ifsm_counter(p.base, p.base_count, RTS_IFSC_IBYTES), 40u);
  EXPECT_EQ(p.tlv_len, 20u);
  EXPECT_EQ(p.tlv, got.data() + 84 + 12 + 24);
}

TEST(IfstatsLayout, FixedPartAloneAndNoBaseline) {
  rts_ifstats_msg f = fixed(RTS_T_IFLSTATS);
  f.hdr.length = sizeof f;
  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(&f, sizeof f, &p));
  EXPECT_EQ(p.cur, nullptr);
  EXPECT_EQ(p.base, nullptr);
  EXPECT_EQ(p.tlv, nullptr);

  auto m = build(f, nullptr, {1, 2, 3}, {}, {});
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  EXPECT_EQ(p.name, nullptr);
  EXPECT_EQ(p.cur, m.data() + 84);
  EXPECT_EQ(p.base, nullptr);
  EXPECT_EQ(p.tlv, nullptr);
}

TEST(IfstatsLayout, MalformedMessagesAreRefused) {
  auto good = build(fixed(RTS_T_IFDSTATS), "ge-1", {1, 2, 3, 4}, {1}, {});
  rts_ifsm_parts p;
  auto refuse = [&](std::vector<uint8_t> m, uint32_t len) {
    return !rts_ifsm_parts_of(m.data(), len, &p);
  };
  EXPECT_TRUE(refuse(good, 83));                            // shorter than the fixed part
  EXPECT_TRUE(refuse(good, static_cast<uint32_t>(good.size() - 1)));  // baseline cut
  auto m = good;
  m[5] = RTS_T_IFDEV;  // another type
  EXPECT_TRUE(refuse(m, static_cast<uint32_t>(m.size())));
  m = good;
  m[0x1C] = 80;  // variable data inside the fixed part
  EXPECT_TRUE(refuse(m, static_cast<uint32_t>(m.size())));
  m = good;
  m[84 + 4] = 'x';  // name without its NUL
  EXPECT_TRUE(refuse(m, static_cast<uint32_t>(m.size())));
  m = good;
  m[0x20] = 200;  // more counters than the message holds
  EXPECT_TRUE(refuse(m, static_cast<uint32_t>(m.size())));
  m = good;
  m[8] = 90;  // hdr.length short of the parts
  EXPECT_TRUE(refuse(m, static_cast<uint32_t>(m.size())));
  EXPECT_FALSE(refuse(good, static_cast<uint32_t>(good.size())));
}

TEST(IfstatsLayout, EncoderRefusesWhatDoesNotFit) {
  rts_ifstats_msg f = fixed(RTS_T_IFDSTATS);
  std::string long_name(255, 'n');
  EXPECT_EQ(rts_ifsm_encode(&f, long_name.c_str(), nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0), 0u);
  std::vector<uint64_t> many(256);
  EXPECT_EQ(rts_ifsm_encode(&f, "x", many.data(), 256, nullptr, 0, nullptr, 0, nullptr, 0), 0u);
  std::vector<uint8_t> big(RTS_MSG_MAX);
  const uint32_t fits = RTS_MSG_MAX - 84 - 4;  // with the name "x" padded to 4
  EXPECT_EQ(rts_ifsm_encode(&f, "x", nullptr, 0, nullptr, 0, big.data(), fits, nullptr, 0), RTS_MSG_MAX);
  EXPECT_EQ(rts_ifsm_encode(&f, "x", nullptr, 0, nullptr, 0, big.data(), fits + 1, nullptr, 0), 0u);
}

}  // namespace
