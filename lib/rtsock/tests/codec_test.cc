// The codecs: the wire layout pinned by golden bytes, round trips of every
// type, and what the decoders tolerate and refuse.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include <sys/socket.h>

#include "bytes.h"
#include "golden.h"
#include "rtsock/rtslib.h"
#include "samples.h"

namespace {

using samples::Arena;

using samples::AllSamples;
using samples::Sample;

std::vector<uint8_t> encode(const Sample &s, bool tlv, const uint8_t *mask = nullptr) {
  rts_msg_pair pair{s.type, s.record};
  int n = tlv ? rts_tlv_encode(&pair, mask, nullptr, 0) : rts_idr_encode(&pair, nullptr, 0);
  std::vector<uint8_t> out(static_cast<size_t>(n));
  int m = tlv ? rts_tlv_encode(&pair, mask, out.data(), n) : rts_idr_encode(&pair, out.data(), n);
  EXPECT_EQ(m, n);
  return out;
}

int decode(const std::vector<uint8_t> &b, bool tlv, Arena &a, rts_msg_pair &out, uint8_t **mask = nullptr) {
  return tlv ? rts_tlv_decode(&out, mask, b.data(), static_cast<uint32_t>(b.size()), Arena::alloc, &a)
             : rts_idr_decode(&out, b.data(), static_cast<uint32_t>(b.size()), Arena::alloc, &a);
}

// The common header of the samples, in IDR.
Bytes idr_header(uint8_t type, uint8_t op, uint16_t size) {
  return Bytes().u32(0x11223344).u8(rts_type_table[type].version).u8(type).u8(op).u8(5)
      .u32(0x1000).u32(77).u32(131).u16(size).u8(6).u8(7).u32(0);
}

Bytes tlv_header(uint8_t type, uint8_t op, uint16_t size) {
  return Bytes().tlvn(1, uint32_t{0x11223344}).tlvn(2, rts_type_table[type].version).tlvn(3, type)
      .tlvn(4, op).tlvn(5, uint8_t{5}).tlvn(6, uint32_t{0x1000}).tlvn(7, uint32_t{77})
      .tlvn(8, uint32_t{131}).tlvn(9, size).tlvn(12, uint8_t{6}).tlvn(10, uint8_t{7})
      .tlvn(11, uint32_t{0});
}

std::vector<uint8_t> envelope(uint32_t magic, uint32_t type, const Bytes &payload) {
  return Bytes().u32(magic).u32(static_cast<uint32_t>(payload.size())).u32(type)
      .raw(payload.v.data(), payload.size()).v;
}

// ---- The layout, written out field by field ----------------------------------------------

TEST(CodecLayout, BridgeDomainIdrBytes) {
  AllSamples s;
  Bytes p = idr_header(89, 1, 200);
  p.u64(0x0102030405060708ull).u16(5).u16(7);
  p.u32(8).str("bd-five", 8);
  p.u32(3).raw("\x01\x02\x03", 3).pad(4);
  p.u16(10).u16(11).u16(100).u16(200);              // vlan group
  p.u16(3);                                          // bdm_vlan_flags
  p.pad(4).u32(1000).u32(300).u16(0x11).pad(4);      // mac group
  p.u32(70).u32(0x21).u64(0x800 | 0x100000000ull).u32(0).u32(0xabcd).u32(100);
  p.u32(0xe0000001).u32(12);
  for (int i = 0; i < 16; i++) p.u8(static_cast<uint8_t>(i));
  p.u16(4789).u8(2).u8(1).u32(1500).u32(9).u32(4096);
  p.u64(0x0001000200030004ull).u64(0x10).u64(0x20);
  for (int i = 0; i < 10; i++) p.u8(static_cast<uint8_t>(0xe0 + i));
  p.u16(44).u32(3).u32(99).u32(4).u8(1).u8(1).u16(8).u32(2);
  EXPECT_EQ(p.size(), 208u);
  EXPECT_EQ(hex(encode({"bd", 89, &s.bd}, false)), hex(envelope(RTS_MAGIC_IDR, 89, p)));
}

TEST(CodecLayout, BridgeDomainTlvBytes) {
  AllSamples s;
  Bytes p;
  p.tlv(1, tlv_header(89, 1, 200).v);
  p.tlvn(2, uint64_t{0x0102030405060708ull}).tlvn(3, uint16_t{5}).tlvn(4, uint16_t{7});
  p.tlv(5, Bytes().str("bd-five", 8).v).tlv(6, Bytes().raw("\x01\x02\x03", 3).v);
  p.tlv(7, Bytes().tlv(1, Bytes().u16(10).u16(11).v).tlv(2, Bytes().u16(100).u16(200).v).v);
  p.tlvn(8, uint16_t{3});
  p.tlv(9, Bytes().tlvn(1, uint32_t{1000}).tlvn(2, uint32_t{300}).tlvn(3, uint16_t{0x11}).v);
  p.tlvn(10, uint32_t{70}).tlvn(11, uint32_t{0x21}).tlvn(12, uint64_t{0x800 | 0x100000000ull});
  p.tlvn(13, uint32_t{0}).tlvn(14, uint32_t{0xabcd}).tlvn(15, uint32_t{100});
  p.tlvn(16, uint32_t{0xe0000001}).tlvn(17, uint32_t{12});
  Bytes src;
  for (int i = 0; i < 16; i++) src.u8(static_cast<uint8_t>(i));
  p.tlv(18, src.v).tlvn(19, uint16_t{4789}).tlvn(20, uint8_t{2}).tlvn(21, uint8_t{1});
  p.tlvn(22, uint32_t{1500}).tlvn(23, uint32_t{9}).tlvn(24, uint32_t{4096});
  p.tlvn(25, uint64_t{0x0001000200030004ull}).tlvn(26, uint64_t{0x10}).tlvn(27, uint64_t{0x20});
  Bytes esi;
  for (int i = 0; i < 10; i++) esi.u8(static_cast<uint8_t>(0xe0 + i));
  p.tlv(28, esi.v).tlvn(29, uint16_t{44}).tlvn(30, uint32_t{3}).tlvn(31, uint32_t{99});
  p.tlvn(32, uint32_t{4}).tlvn(33, uint8_t{1}).tlvn(34, uint8_t{1}).tlvn(35, uint16_t{8});
  p.tlvn(36, uint32_t{2});
  EXPECT_EQ(hex(encode({"bd", 89, &s.bd}, true)), hex(envelope(RTS_MAGIC_TLV, 89, p)));
}

TEST(CodecLayout, RouteIdrBytes) {
  // Prefix: bits, padded length, padded bytes; the attribute list as a blob.
  AllSamples s;
  Bytes p = idr_header(2, 4, 240);
  p.u16(7).u8(63).u8(2).u32(0x40).u32(1234).u8(9).pad(4);
  p.u16(80).u16(12).raw("\x00\x05\x00\x00\x00\x11\x22\x33\x44\x55\x00\x00", 12);
  p.u32(70).u32(10);
  p.u32(20).raw("\x01\x00\x0c\x00\x01\x00\x00\x00\x02\x00\x00\x00\x04\x00\x08\x00\x09\x00\x00\x00", 20);
  EXPECT_EQ(hex(encode({"rt", 2, &s.rt}, false)), hex(envelope(RTS_MAGIC_IDR, 2, p)));
}

TEST(CodecLayout, NexthopIdrBytes) {
  // The gateway as a prefix, the attribute list as a blob.
  AllSamples s;
  Bytes p = idr_header(10, 4, 732);
  p.u32(1234).u8(2).u8(1).u16(0x21).u32(70);
  p.u16(32).u16(4).raw("\xc0\xa8\x01\x02", 4);
  p.u32(3);
  p.u32(8).raw("\x04\x00\x08\x00\x07\x00\x00\x00", 8);
  EXPECT_EQ(hex(encode({"nh", 10, &s.nh}, false)), hex(envelope(RTS_MAGIC_IDR, 10, p)));
  // Decoded, its attribute list is walked as a route's is.
  Arena a;
  rts_msg_pair out{};
  ASSERT_GT(decode(encode({"nh", 10, &s.nh}, true), true, a, out), 0);
  auto *nh = static_cast<rts_nh_msg *>(out.record);
  EXPECT_EQ(nh->nhm_index, 1234u);
  EXPECT_EQ(nh->nhm_gw[3], 2);
  ASSERT_NE(nh->nhm_attr_set, nullptr);
  ASSERT_EQ(nh->nhm_attr_set->ras_count, 1u);
  EXPECT_EQ(nh->nhm_attr_set->ras_list[0]->ra_value, 7u);
}

TEST(CodecFamilies, UnknownNumbersAreLogged) {
  std::vector<std::string> lines;
  rtslib_set_default_log(
      [](rtslib_cookie *, void *ctx, int level, const char *text) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(std::to_string(level) + " " + text);
      },
      &lines);
  EXPECT_EQ(rts_decode_af(RTS_AF_INET6), AF_INET6);
  EXPECT_EQ(rts_encode_af(AF_BRIDGE), RTS_AF_BRIDGE);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(rts_decode_af(41), -1);
  EXPECT_EQ(rts_encode_af(AF_UNIX), -1);
  rtslib_set_default_log(nullptr, nullptr);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "3 rtslib: ERROR rts_decode_af: Invalid address family 41");
  EXPECT_EQ(lines[1], "3 rtslib: ERROR rts_encode_af: Invalid address family " + std::to_string(AF_UNIX));
}

TEST(CodecLayout, GencfgListsIdrBytes) {
  // Lists are a 32-bit count and the members as they stand.
  AllSamples s;
  Bytes p = idr_header(72, 1, 108);
  p.u16(3).u16(4).u16(1).pad(4).u32(2);
  p.u32(5).str("key-1", 5).pad(4).u32(7).str("payload", 7).pad(4);
  p.u32(2).raw(s.gencfg.gencfg_peers, 80);
  p.u32(1).raw(s.gencfg.gencfg_deps, 24);
  p.u8(6).pad(4);
  EXPECT_EQ(hex(encode({"g", 72, &s.gencfg}, false)), hex(envelope(RTS_MAGIC_IDR, 72, p)));
}

// Every type in both encodings against the bytes recorded when the layout was
// chosen: a change to the table shows here.
TEST(CodecLayout, GoldenBytesOfEveryType) {
  AllSamples s;
  for (const Sample &x : s.list()) {
    for (bool tlv : {false, true}) {
      SCOPED_TRACE(std::string(x.name) + (tlv ? " tlv" : " idr"));
      auto it = golden::kBytes.find(std::string(x.name) + (tlv ? "/tlv" : "/idr"));
      ASSERT_NE(it, golden::kBytes.end());
      EXPECT_EQ(hex(encode(x, tlv)), it->second);
    }
  }
}

// ---- Round trips ----------------------------------------------------------------------------

TEST(CodecRoundTrip, EveryTypeBothEncodings) {
  AllSamples s;
  for (const Sample &x : s.list()) {
    for (bool tlv : {false, true}) {
      SCOPED_TRACE(std::string(x.name) + (tlv ? " tlv" : " idr"));
      auto bytes = encode(x, tlv);
      Arena a;
      rts_msg_pair out{};
      ASSERT_EQ(decode(bytes, tlv, a, out), static_cast<int>(bytes.size()));
      ASSERT_EQ(out.type, x.type);
      ASSERT_NE(out.record, nullptr);
      EXPECT_EQ(hex(encode({x.name, x.type, out.record}, tlv)), hex(bytes));
      // And across: what IDR carried, TLV carries the same.
      EXPECT_EQ(hex(encode({x.name, x.type, out.record}, !tlv)), hex(encode(x, !tlv)));
    }
  }
}

TEST(CodecRoundTrip, DecodedFieldsAndHiddenTerminator) {
  AllSamples s;
  for (bool tlv : {false, true}) {
    auto bytes = encode({"bd", 89, &s.bd}, tlv);
    Arena a;
    rts_msg_pair out{};
    ASSERT_GT(decode(bytes, tlv, a, out), 0);
    auto *bd = static_cast<rts_bd_msg *>(out.record);
    EXPECT_EQ(bd->hdr.version, 98);
    EXPECT_EQ(bd->hdr.size, 200);
    EXPECT_EQ(bd->bdm_index, 5);
    EXPECT_EQ(bd->rtb_id, 7);
    EXPECT_EQ(bd->vnid, 100u);
    EXPECT_EQ(bd->cfg_flags, RTS_BD_CFG_VXLAN | 0x100000000ull);
    EXPECT_EQ(bd->vlan.vlan_hi, 200);
    EXPECT_EQ(bd->bdm_mac.mac_flags, 0x11);
    EXPECT_STREQ(bd->bdm_name, "bd-five");
    ASSERT_EQ(bd->bdm_blob_len, 3u);
    EXPECT_EQ(bd->bdm_blob[3], 0);  // terminator behind every blob
    EXPECT_GE(reinterpret_cast<uint8_t *>(bd->bdm_name), a.mem.data());
    EXPECT_LT(reinterpret_cast<uint8_t *>(bd->bdm_name), a.mem.data() + a.used);
  }
}

TEST(CodecRoundTrip, RouteAttributesWalked) {
  AllSamples s;
  auto bytes = encode({"rt", 2, &s.rt}, true);
  Arena a;
  rts_msg_pair out{};
  ASSERT_GT(decode(bytes, true, a, out), 0);
  auto *rt = static_cast<rts_rt_msg *>(out.record);
  ASSERT_NE(rt->rtm_attr_set, nullptr);
  ASSERT_EQ(rt->rtm_attr_set->ras_count, 2u);
  EXPECT_EQ(rt->rtm_attr_set->ras_list[0]->ra_kind, RTS_ATTR_ARRAY);
  EXPECT_EQ(rt->rtm_attr_set->ras_list[0]->ra_len, 8u);
  EXPECT_EQ(rt->rtm_attr_set->ras_list[1]->ra_value, 9u);
  EXPECT_EQ(rt->rtm_prefix_plen, 12);
  EXPECT_EQ(rt->rtm_prefix[1], 5);
}

TEST(CodecRoundTrip, MaskWritesOnlyMarkedFieldsAndDecodeReportsThem) {
  AllSamples s;
  std::vector<uint8_t> mask(rts_bd_struct.rs_mask_size);
  rts_mask_set(&rts_bd_struct, mask.data(), 3);   // bdm_index
  rts_mask_set(&rts_bd_struct, mask.data(), 15);  // vnid
  rts_mask_set(&rts_bd_struct, mask.data(), 1);
  rts_mask_set(&rts_hdr_struct, rts_mask_inner(&rts_bd_struct, mask.data(), 1), 3);  // hdr.type
  auto bytes = encode({"bd", 89, &s.bd}, true, mask.data());
  Bytes p;
  p.tlv(1, Bytes().tlvn(3, uint8_t{89}).v).tlvn(3, uint16_t{5}).tlvn(15, uint32_t{100});
  EXPECT_EQ(hex(bytes), hex(envelope(RTS_MAGIC_TLV, 89, p)));

  Arena a;
  rts_msg_pair out{};
  uint8_t *got = nullptr;
  ASSERT_GT(decode(bytes, true, a, out, &got), 0);
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(memcmp(got, mask.data(), mask.size()), 0);
  auto *bd = static_cast<rts_bd_msg *>(out.record);
  EXPECT_EQ(bd->rtb_id, 0);
  EXPECT_EQ(bd->vnid, 100u);
}

// ---- Encoders -------------------------------------------------------------------------------

TEST(CodecEncode, RoomBelowEnvelopeWritesNothing) {
  AllSamples s;
  rts_msg_pair pair{89, &s.bd};
  int need = rts_idr_encode(&pair, nullptr, 0);
  uint8_t buf[11];
  memset(buf, 0xee, sizeof buf);
  EXPECT_EQ(rts_idr_encode(&pair, buf, 11), need);
  EXPECT_EQ(rts_tlv_encode(&pair, nullptr, buf, 11), rts_tlv_encode(&pair, nullptr, nullptr, 0));
  for (uint8_t b : buf) EXPECT_EQ(b, 0xee);
  EXPECT_EQ(need, 12 + 208);
}

TEST(CodecEncode, ShortRoomWritesOnlyWhatFitsAndCountsOn) {
  AllSamples s;
  rts_msg_pair pair{89, &s.bd};
  auto full = encode({"bd", 89, &s.bd}, true);
  std::vector<uint8_t> buf(full.size(), 0xee);
  int room = 100;
  EXPECT_EQ(rts_tlv_encode(&pair, nullptr, buf.data(), room), static_cast<int>(full.size()));
  for (size_t i = room; i < buf.size(); i++) ASSERT_EQ(buf[i], 0xee) << i;
}

TEST(CodecEncode, TypeWithoutCodecIsAnEmptyEnvelope) {
  rts_msg_hdr h{};
  rts_msg_pair pair{3, &h};
  uint8_t buf[16];
  EXPECT_EQ(rts_idr_encode(&pair, buf, sizeof buf), 12);
  EXPECT_EQ(hex(std::vector<uint8_t>(buf, buf + 12)), hex(Bytes().u32(RTS_MAGIC_IDR).u32(0).u32(3).v));
}

// ---- Envelope refusals --------------------------------------------------------------------------

TEST(CodecDecode, EnvelopeChecks) {
  Arena a;
  rts_msg_pair out{};
  auto idr = [&](std::vector<uint8_t> b, uint32_t len) {
    return rts_idr_decode(&out, b.data(), len, Arena::alloc, &a);
  };
  auto env = [](uint32_t magic, uint32_t len, uint32_t type) {
    Bytes b = Bytes().u32(magic).u32(len).u32(type);
    b.v.resize(64);
    return b.v;
  };
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 0, 0), 11), RTS_DEC_SIZE);
  EXPECT_EQ(idr(env(RTS_MAGIC_TLV, 0, 0), 40), RTS_DEC_MAGIC);
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 0xFFFFFFF4u, 0), 64), RTS_DEC_GARBLED);
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 0xFFFFFFF3u, 0), 64), RTS_DEC_SIZE);
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 53, 0), 64), RTS_DEC_SIZE);
  // Type 109: the caller sees the type and no record.
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 52, 109), 64), 64);
  EXPECT_EQ(out.type, 109u);
  EXPECT_EQ(out.record, nullptr);
  // A type without a codec likewise.
  EXPECT_EQ(idr(env(RTS_MAGIC_IDR, 4, 3), 64), 16);
  EXPECT_EQ(out.record, nullptr);
  EXPECT_EQ(rts_tlv_decode(&out, nullptr, env(RTS_MAGIC_IDR, 0, 89).data(), 12, Arena::alloc, &a),
            RTS_DEC_MAGIC);
}

TEST(CodecDecode, IdrTruncatedIsGarbled) {
  AllSamples s;
  auto b = encode({"bd", 89, &s.bd}, false);
  for (size_t cut : {size_t{13}, size_t{40}, size_t{100}, size_t{205}}) {
    Bytes t = Bytes().u32(RTS_MAGIC_IDR).u32(static_cast<uint32_t>(cut - 12)).u32(89);
    t.raw(b.data() + 12, cut - 12);
    Arena a;
    rts_msg_pair out{};
    EXPECT_EQ(decode(t.v, false, a, out), RTS_DEC_GARBLED) << cut;
  }
}

TEST(CodecDecode, AllocatorFailureIsReported) {
  AllSamples s;
  auto b = encode({"bd", 89, &s.bd}, true);
  for (size_t room : {size_t{0}, size_t{100}, sizeof(rts_bd_msg) + 4}) {
    Arena a(room);
    rts_msg_pair out{};
    EXPECT_EQ(decode(b, true, a, out), RTS_DEC_NOMEM) << room;
  }
}

// ---- TLV tolerances ---------------------------------------------------------------------------------

std::vector<uint8_t> bd_tlv(const Bytes &attrs) {
  return envelope(RTS_MAGIC_TLV, 89, attrs);
}

rts_bd_msg *decode_bd(const std::vector<uint8_t> &b, Arena &a, int *r, uint8_t **mask = nullptr) {
  rts_msg_pair out{};
  *r = decode(b, true, a, out, mask);
  return static_cast<rts_bd_msg *>(out.record);
}

TEST(CodecTolerance, CutLastAttributeDecodesWhatCameBefore) {
  Bytes p = Bytes().tlvn(3, uint16_t{5}).tlvn(4, uint16_t{7});
  p.u32(15).u32(4).u16(100);  // vnid cut after two of its four bytes
  Arena a;
  int r;
  rts_bd_msg *bd = decode_bd(bd_tlv(p), a, &r);
  EXPECT_EQ(r, static_cast<int>(12 + p.size()));
  ASSERT_NE(bd, nullptr);
  EXPECT_EQ(bd->bdm_index, 5);
  EXPECT_EQ(bd->rtb_id, 7);
  EXPECT_EQ(bd->vnid, 0u);
}

TEST(CodecTolerance, MissingPaddingAfterLastAttribute) {
  Bytes p = Bytes().tlvn(3, uint16_t{5});
  p.v.resize(p.size() - 2);  // the value, without its two bytes of padding
  Arena a;
  int r;
  rts_bd_msg *bd = decode_bd(bd_tlv(p), a, &r);
  EXPECT_GT(r, 0);
  EXPECT_EQ(bd->bdm_index, 5);
}

TEST(CodecTolerance, IntegerWidths) {
  struct Case {
    uint32_t tag;      // field: 2 (u64), 15 (u32), 3 (u16), 20 (u8)
    size_t width;      // bytes sent
    int expect;        // > 0 taken, else the decoder's result
  } cases[] = {
      {2, 1, 1}, {2, 2, 1}, {2, 4, 1}, {2, 8, 1}, {2, 3, RTS_DEC_SIZE}, {2, 0, RTS_DEC_GARBLED},
      {2, 16, RTS_DEC_SIZE},
      {15, 2, 1}, {15, 4, 1}, {15, 1, RTS_DEC_GARBLED}, {15, 3, RTS_DEC_SIZE}, {15, 8, RTS_DEC_SIZE},
      {3, 2, 1}, {3, 0, RTS_DEC_GARBLED}, {3, 1, RTS_DEC_GARBLED}, {3, 4, RTS_DEC_SIZE},
      {20, 1, 1}, {20, 0, RTS_DEC_GARBLED}, {20, 2, RTS_DEC_SIZE},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE("tag " + std::to_string(c.tag) + " width " + std::to_string(c.width));
    std::vector<uint8_t> value(c.width);
    for (size_t i = 0; i < c.width; i++) value[i] = static_cast<uint8_t>(0x81 + i);
    Arena a;
    int r;
    rts_bd_msg *bd = decode_bd(bd_tlv(Bytes().tlv(c.tag, value)), a, &r);
    if (c.expect > 0) {
      ASSERT_GT(r, 0);
      uint64_t want = 0;
      memcpy(&want, value.data(), c.width);
      const rts_field *f = rts_field_by_tag(&rts_bd_struct, c.tag);
      uint64_t got = 0;
      memcpy(&got, reinterpret_cast<uint8_t *>(bd) + f->rf_off, f->rf_width);
      EXPECT_EQ(got, want);  // zero-extended, read in full
    } else {
      EXPECT_EQ(r, c.expect);
    }
  }
}

TEST(CodecTolerance, DuplicateTags) {
  Bytes ints = Bytes().tlvn(15, uint32_t{100}).tlvn(15, uint32_t{200});
  Bytes blobs = Bytes().tlv(5, Bytes().str("one", 4).v).tlv(5, Bytes().str("two", 4).v);
  Arena a;
  int r;
  uint8_t *mask = nullptr;
  // With a mask: the first occurrence wins, for integers and blobs alike.
  EXPECT_EQ(decode_bd(bd_tlv(ints), a, &r, &mask)->vnid, 100u);
  EXPECT_TRUE(rts_mask_test(&rts_bd_struct, mask, 15));
  EXPECT_FALSE(rts_mask_test(&rts_bd_struct, mask, 14));
  EXPECT_STREQ(decode_bd(bd_tlv(blobs), a, &r, &mask)->bdm_name, "one");
  // Without: an integer is overwritten, a blob twice is garbled.
  EXPECT_EQ(decode_bd(bd_tlv(ints), a, &r)->vnid, 200u);
  decode_bd(bd_tlv(blobs), a, &r);
  EXPECT_EQ(r, RTS_DEC_GARBLED);
}

TEST(CodecTolerance, UnknownTagsSkippedNestedMustFit) {
  Arena a;
  int r;
  Bytes unknown = Bytes().tlvn(60, uint32_t{1}).tlvn(900, uint64_t{2}).tlvn(15, uint32_t{7});
  EXPECT_EQ(decode_bd(bd_tlv(unknown), a, &r)->vnid, 7u);
  // A nested structure whose value holds trailing bytes is refused.
  Bytes inner = Bytes().tlvn(1, uint32_t{1000}).u32(0xdead);
  decode_bd(bd_tlv(Bytes().tlv(9, inner.v)), a, &r);
  EXPECT_EQ(r, RTS_DEC_GARBLED);
  // A prefix whose padded length does not match its bits is refused.
  Bytes pre = Bytes().tlv(8, Bytes().u16(80).u16(8).raw("12345678", 8).v);
  rts_msg_pair out{};
  auto b = envelope(RTS_MAGIC_TLV, 2, pre);
  EXPECT_EQ(decode(b, true, a, out), RTS_DEC_GARBLED);
  // A list whose count does not match its bytes is refused.
  Bytes list = Bytes().tlv(8, Bytes().u32(2).raw(std::vector<uint8_t>(40).data(), 40).v);
  EXPECT_EQ(decode(envelope(RTS_MAGIC_TLV, 72, list), true, a, out), RTS_DEC_GARBLED);
}

// ---- Attribute lists ----------------------------------------------------------------------------------

Bytes attr(uint16_t type, const std::vector<uint8_t> &value) {
  Bytes b;
  b.u16(type).u16(static_cast<uint16_t>(4 + value.size())).raw(value.data(), value.size());
  return b.pad(4);
}

TEST(CodecAttrs, KindsRemainderAndEnd) {
  Bytes list;
  list.raw(attr(1, std::vector<uint8_t>(12, 1)).v.data(), 16);      // array of 3 words
  list.raw(attr(9, {7, 0}).v.data(), 8);                              // value of 2 bytes
  list.raw(attr(438, std::vector<uint8_t>(588, 2)).v.data(), 592);   // fixed structure
  Bytes odd = attr(438, std::vector<uint8_t>(20, 3));                // wrong size: kept
  list.raw(odd.v.data(), odd.size());
  Bytes unknown = attr(5, {1, 2, 3, 4});                             // not a known type: kept
  list.raw(unknown.v.data(), unknown.size());
  Bytes big = attr(481, {9, 9, 9, 9});                               // above 480: kept
  list.raw(big.v.data(), big.size());
  list.u16(0).u16(0);                                                // end
  list.raw(attr(9, {1}).v.data(), 8);                                // never reached
  Arena a;
  rts_attr_set set;
  ASSERT_EQ(rts_attr_walk(&set, list.v.data(), static_cast<uint32_t>(list.size()), Arena::alloc, &a), 3);
  EXPECT_EQ(set.ras_list[0]->ra_kind, RTS_ATTR_ARRAY);
  EXPECT_EQ(set.ras_list[1]->ra_value, 7u);
  EXPECT_EQ(set.ras_list[2]->ra_len, 588u);
  Bytes rest;
  rest.raw(odd.v.data(), odd.size()).raw(unknown.v.data(), unknown.size()).raw(big.v.data(), big.size());
  EXPECT_EQ(hex(std::vector<uint8_t>(set.ras_rest, set.ras_rest + set.ras_rest_len)), hex(rest.v));
}

TEST(CodecAttrs, ListOf128AndBrokenLengths) {
  Bytes list;
  for (int i = 0; i < 130; i++) list.raw(attr(4, {1, 0, 0, 0}).v.data(), 8);
  list.u16(4).u16(3);  // a length below 4 stops the walk
  Arena a;
  rts_attr_set set;
  ASSERT_EQ(rts_attr_walk(&set, list.v.data(), static_cast<uint32_t>(list.size()), Arena::alloc, &a), 128);
  EXPECT_EQ(set.ras_rest_len, 2 * 8u + 4u);
  // A length past the end is kept, not read.
  Bytes past = Bytes().u16(4).u16(200).u32(1);
  ASSERT_EQ(rts_attr_walk(&set, past.v.data(), 8, Arena::alloc, &a), 0);
  EXPECT_EQ(set.ras_rest_len, 8u);
}

// ---- Text dump ------------------------------------------------------------------------------------------

TEST(CodecFormat, BridgeDomainLineAndOverflow) {
  AllSamples s;
  char line[256];
  int n = rtslib_format_output(line, sizeof line, &s.bd);
  EXPECT_STREQ(line, "Bridge Domain bd-five, index 5, flags 33, cfg flags 100000800, rtb 7, vlan 10 IRB IFL 70, "
                     "vlan token 0xabcd vnid:100");
  EXPECT_EQ(n, static_cast<int>(strlen(line)));
  char small[40];
  EXPECT_EQ(rtslib_format_output(small, sizeof small, &s.bd), -1);
  EXPECT_EQ(std::string(small).rfind("rtslib_format_output error: ", 0), 0u);
}

TEST(CodecFormat, OtherTypesByTheirFields) {
  AllSamples s;
  char line[512];
  rtslib_format_output(line, sizeof line, &s.ifa);
  EXPECT_STREQ(line, "ifaddr get seq 77 ifam_ifl_index=70 ifam_af=2 ifam_flags=16 "
                     "ifam_local=192.168.1.1/32 ifam_dest=192.168.1.0/24");
  rtslib_format_output(line, sizeof line, &s.rt);
  EXPECT_NE(strstr(line, "rtm_prefix=00:05:00:00:00:11:22:33:44:55/80"), nullptr) << line;
}

// ---- Random mutation ---------------------------------------------------------------------------------------
// Every valid message, cut, flipped and stretched by a fixed random script.
// The model: the decoder reads only the bytes given (ASan holds it to an
// exact-size copy), and whatever it accepts encodes to bytes that decode again
// to the same encoding.
TEST(CodecFuzz, MutatedMessagesNeverReadPastTheEnd) {
  AllSamples s;
  std::mt19937 rng(20240611);
  int accepted = 0, refused = 0;
  Arena a(1 << 18), a2(1 << 18);  // reused: zeroing 256 KiB a round was most of the test's time
  for (const Sample &x : s.list()) {
    for (bool tlv : {false, true}) {
      const auto base = encode(x, tlv);
      for (int round = 0; round < 1500; round++) {
        std::vector<uint8_t> b = base;
        int edits = 1 + static_cast<int>(rng() % 4);
        for (int e = 0; e < edits; e++) {
          switch (rng() % 5) {
            case 0: b[rng() % b.size()] ^= static_cast<uint8_t>(1u << (rng() % 8)); break;
            case 1: b[rng() % b.size()] = static_cast<uint8_t>(rng()); break;
            case 2: b.resize(rng() % b.size() + 1); break;
            case 3: {  // a length or count word
              if (b.size() < 4) break;
              size_t at = (rng() % (b.size() / 4)) * 4;
              uint32_t v = rng() % 3 == 0 ? 0xFFFFFFFFu : rng() % 600;
              if (at + 4 <= b.size()) memcpy(b.data() + at, &v, 4);
              break;
            }
            case 4: b.insert(b.begin() + static_cast<long>(rng() % b.size()), static_cast<uint8_t>(rng())); break;
          }
        }
        // The envelope's length follows the edits half of the time.
        if (rng() % 2 && b.size() >= 12) {
          uint32_t len = static_cast<uint32_t>(b.size() - 12);
          memcpy(b.data() + 4, &len, 4);
        }
        std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
        memcpy(exact.get(), b.data(), b.size());
        a.used = 0;
        rts_msg_pair out{};
        int r = tlv ? rts_tlv_decode(&out, nullptr, exact.get(), static_cast<uint32_t>(b.size()), Arena::alloc, &a)
                    : rts_idr_decode(&out, exact.get(), static_cast<uint32_t>(b.size()), Arena::alloc, &a);
        if (r <= 0 || !out.record) {
          refused++;
          continue;
        }
        accepted++;
        ASSERT_LE(r, static_cast<int>(b.size()));
        auto again = encode({x.name, out.type, out.record}, tlv);
        a2.used = 0;
        rts_msg_pair out2{};
        ASSERT_GT(decode(again, tlv, a2, out2), 0);
        ASSERT_EQ(hex(encode({x.name, out2.type, out2.record}, tlv)), hex(again));
      }
    }
  }
  EXPECT_GT(accepted, 1000);
  EXPECT_GT(refused, 1000);
}

}  // namespace
