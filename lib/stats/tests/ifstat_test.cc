// The gif_* readers against hand-built statistics messages: baselines, counters
// that were reset, missing sections and TLVs, the TLV walk's limits and the
// marker of the generic TLV list.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <memory>
#include <vector>

#include "evlog/evlog.h"
#include "stats/ifstat.h"

namespace {

struct Free {
  void operator()(void *p) const { free(p); }
};
template <class T>
using Own = std::unique_ptr<T, Free>;

struct Tlvs {
  std::vector<uint8_t> b;
  Tlvs &add(uint16_t type, const void *v, uint16_t len) {
    size_t at = b.size();
    b.resize(at + rts_ifsm_tlv_encode(type, v, len, nullptr, 0));
    rts_ifsm_tlv_encode(type, v, len, b.data() + at, static_cast<uint32_t>(b.size() - at));
    return *this;
  }
  Tlvs &queues(uint16_t type, std::vector<rts_ifst_queue> qs) {
    std::vector<uint8_t> v(4 + qs.size() * sizeof(rts_ifst_queue));
    uint32_t n = static_cast<uint32_t>(qs.size());
    memcpy(v.data(), &n, 4);
    if (n) memcpy(v.data() + 4, qs.data(), qs.size() * sizeof(rts_ifst_queue));
    return add(type, v.data(), static_cast<uint16_t>(v.size()));
  }
};

struct Msg {
  rts_ifstats_msg f{};
  std::vector<uint64_t> cur, base;
  Tlvs tlv;
  std::vector<uint8_t> bytes;
  gif_msg m;
  gif_ifd p;
  explicit Msg(uint8_t type = RTS_T_IFDSTATS) {
    f.hdr.type = type;
    f.hdr.version = rts_type_table[type].version;
    f.ifsm_index = 2;
    f.ifsm_flags = RTS_IFSM_UP | RTS_IFSM_LINK;
    f.ifsm_media = RTS_MEDIA_ETHER;
    f.ifsm_ibps = 800;
    f.ifsm_opps = 9;
    f.ifsm_clear_time = 1234;
  }
  Msg &set(unsigned slot, uint64_t c, int64_t b = -1) {
    if (cur.size() <= slot) cur.resize(slot + 1);
    cur[slot] = c;
    if (b >= 0) {
      if (base.size() <= slot) base.resize(slot + 1);
      base[slot] = static_cast<uint64_t>(b);
    }
    return *this;
  }
  const gif_ifd *parse() {
    const uint32_t cn = static_cast<uint32_t>(cur.size()), bn = static_cast<uint32_t>(base.size());
    const uint32_t tn = static_cast<uint32_t>(tlv.b.size());
    bytes.resize(rts_ifsm_encode(&f, "ge-0/0/0", cur.data(), cn, base.data(), bn, tlv.b.data(), tn, nullptr, 0));
    rts_ifsm_encode(&f, "ge-0/0/0", cur.data(), cn, base.data(), bn, tlv.b.data(), tn, bytes.data(),
                    static_cast<uint32_t>(bytes.size()));
    EXPECT_EQ(gif_ifd_parse(&p, &m, bytes.data(), static_cast<uint32_t>(bytes.size())), 0);
    return &p;
  }
};

rts_ifst_queue queue(uint64_t tx, uint64_t red2) {
  rts_ifst_queue q{};
  q.tx_packets = tx;
  q.tx_bytes = tx * 100;
  q.red_drop_packets[2] = red2;
  return q;
}

TEST(GifTraffic, SinceClearUpAndResetCounters) {
  Msg msg;
  msg.set(RTS_IFSC_IBYTES, 1000, 400)      // ordinary: the difference
      .set(RTS_IFSC_IPACKETS, 5, 9)        // reset since the clear: current alone
      .set(RTS_IFSC_OBYTES, 7, 7)          // nothing since the clear
      .set(RTS_IFSC_O6PACKETS, 30, 10);
  const gif_ifd *p = msg.parse();
  Own<gif_traffic> t(gif_ifd_traffic(p));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->in_bytes, 600u);
  EXPECT_EQ(t->in_packets, 5u);
  EXPECT_EQ(t->out_bytes, 0u);
  EXPECT_EQ(t->out6_packets, 20u);
  EXPECT_EQ(t->in_bps, 800u);  // rates are never differenced
  EXPECT_EQ(t->out_pps, 9u);
  EXPECT_EQ(t->clear_time, 1234u);
  EXPECT_EQ(t->flags, unsigned{RTS_IFSM_UP | RTS_IFSM_LINK});

  Own<gif_traffic> a(gif_abs_ifd_traffic(p));  // the baseline is there, and ignored
  ASSERT_TRUE(a);
  EXPECT_EQ(a->in_bytes, 1000u);
  EXPECT_EQ(a->in_packets, 5u);
  EXPECT_EQ(a->out_bytes, 7u);
  EXPECT_EQ(a->out6_packets, 30u);
}

TEST(GifTraffic, BaselineShorterOrAbsent) {
  Msg msg;
  msg.set(RTS_IFSC_IBYTES, 50, 20).set(RTS_IFSC_OBCAST, 8);  // baseline of one counter
  Own<gif_traffic> t(gif_ifd_traffic(msg.parse()));
  EXPECT_EQ(t->in_bytes, 30u);
  EXPECT_EQ(t->out_bcast, 8u) << "a slot past the baseline counts from 0";

  Msg none;
  none.set(RTS_IFSC_IBYTES, 50).set(RTS_IFSC_IERRORS, 4);
  const gif_ifd *p = none.parse();
  ASSERT_EQ(none.m.parts.base, nullptr);
  Own<gif_traffic> u(gif_ifd_traffic(p));
  EXPECT_EQ(u->in_bytes, 50u);
  Own<gif_errors> e(gif_ifd_errors(p));
  EXPECT_EQ(e->in_errors, 4u);
}

TEST(GifTraffic, NoCurrentSectionGivesZerosWithRates) {
  Msg msg;
  const gif_ifd *p = msg.parse();
  ASSERT_EQ(msg.m.parts.cur, nullptr);
  Own<gif_traffic> t(gif_ifd_traffic(p));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->in_bytes + t->out_packets + t->in6_bytes, 0u);
  EXPECT_EQ(t->in_bps, 800u);
  EXPECT_EQ(t->flags, unsigned{RTS_IFSM_UP | RTS_IFSM_LINK});
  Own<gif_errors> e(gif_abs_ifd_errors(p));
  ASSERT_TRUE(e);
  EXPECT_EQ(e->carrier_transitions, 0u);
}

TEST(GifTraffic, LogicalLocalAndTransit) {
  Msg msg(RTS_T_IFLSTATS);
  msg.set(RTS_IFSC_IBYTES, 100, 10).set(RTS_IFSC_I6BYTES, 6)
      .set(RTS_IFSC_TIBYTES, 900, 100).set(RTS_IFSC_TOBCAST, 3, 5);
  const gif_ifd *p = msg.parse();
  Own<gif_traffic> local(gif_ifl_local_traffic(p)), remote(gif_ifl_remote_traffic(p));
  Own<gif_traffic> remote_abs(gif_abs_ifl_remote_traffic(p)), local_abs(gif_abs_ifl_local_traffic(p));
  EXPECT_EQ(local->in_bytes, 90u);
  EXPECT_EQ(local->in6_bytes, 6u);
  EXPECT_EQ(local_abs->in_bytes, 100u);
  EXPECT_EQ(remote->in_bytes, 800u);
  EXPECT_EQ(remote->out_bcast, 3u);
  EXPECT_EQ(remote->in6_bytes, 0u) << "transit has no IPv6 split";
  EXPECT_EQ(remote_abs->in_bytes, 900u);
  // Device readers refuse a logical interface's message, and the reverse.
  EXPECT_EQ(gif_ifd_traffic(p), nullptr);
  EXPECT_EQ(gif_ifd_errors(p), nullptr);
  EXPECT_EQ(gif_ifd_queue(p), nullptr);
  Msg dev;
  EXPECT_EQ(gif_ifl_local_traffic(dev.parse()), nullptr);
  EXPECT_EQ(gif_ifd_traffic(nullptr), nullptr);
  EXPECT_EQ(gif_abs_gether_info(nullptr), nullptr);
}

TEST(GifTraffic, TransitOnlyWhereThePlatformAccountsIt) {
  Msg msg(RTS_T_IFLSTATS);
  msg.set(RTS_IFSC_TIBYTES, 900);
  const gif_ifd *p = msg.parse();
  evlog_capture &cap = evlog_capture_start();
  setenv("TVX_PVIDB_PLATFORM_SUPPORT_TRANSIT_ACCCOUNTING", "0", 1);
  EXPECT_EQ(gif_ifl_remote_traffic(p), nullptr);
  EXPECT_EQ(gif_abs_ifl_remote_traffic(p), nullptr);
  Own<gif_traffic> local(gif_ifl_local_traffic(p));
  EXPECT_TRUE(local);
  EXPECT_TRUE(cap.records.empty());
  setenv("TVX_PVIDB_PLATFORM_SUPPORT_TRANSIT_ACCCOUNTING", "perhaps", 1);
  EXPECT_EQ(gif_ifl_remote_traffic(p), nullptr);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].text.rfind("PVIDB: Error retrieving 'platform.support_transit_acccounting' variable value", 0), 0u)
      << cap.records[0].text;
  unsetenv("TVX_PVIDB_PLATFORM_SUPPORT_TRANSIT_ACCCOUNTING");
  Own<gif_traffic> t(gif_ifl_remote_traffic(p));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->in_bytes, 900u);
  EXPECT_FALSE(gif_platform_feature("platform.no_such_attribute"));
  ASSERT_EQ(cap.records.size(), 2u);
  EXPECT_EQ(cap.records[1].text.rfind("PVIDB: Attribute 'platform.no_such_attribute' not present in Db", 0), 0u);
  evlog_capture_stop();
}

TEST(GifErrors, EverySlotInItsField) {
  Msg msg;
  for (unsigned s = RTS_IFSC_IERRORS; s <= RTS_IFSC_CARRIER; s++) msg.set(s, 100 + s, s);
  const gif_ifd *p = msg.parse();
  Own<gif_errors> e(gif_ifd_errors(p)), a(gif_abs_ifd_errors(p));
  const uint64_t *got = &e->in_errors, *abs = &a->in_errors;
  for (unsigned s = RTS_IFSC_IERRORS; s <= RTS_IFSC_CARRIER; s++) {
    uint64_t ge, ga;
    memcpy(&ge, reinterpret_cast<const uint8_t *>(got) + 8 * (s - RTS_IFSC_IERRORS), 8);
    memcpy(&ga, reinterpret_cast<const uint8_t *>(abs) + 8 * (s - RTS_IFSC_IERRORS), 8);
    EXPECT_EQ(ge, 100u) << rts_ifsm_slot_names[s];
    EXPECT_EQ(ga, 100u + s) << rts_ifsm_slot_names[s];
  }
}

TEST(GifWalk, LengthsPaddingAndLimits) {
  Tlvs t;
  uint64_t v = 0x1122334455667788ull;
  t.add(7, "\x01", 1)          // one byte of value takes four
      .add(8, &v, 8)
      .add(0x1E6, &v, 4)       // the last type of the index
      .add(0x1E7, &v, 8)       // past it: walked, not entered
      .add(RTS_IFST_ETHER_MAC, &v, 8)
      .add(9, &v, 2);
  std::vector<uint8_t> b = t.b;
  gif_ifd p;
  gif_ifd_parse_tlv(&p, nullptr, static_cast<uint32_t>(b.size()), b.data());
  EXPECT_EQ(p.walked, 6);
  ASSERT_EQ(p.tlv[7], b.data() + 4);
  EXPECT_EQ(p.tlv_len[7], 1u);
  ASSERT_EQ(p.tlv[8], b.data() + 12);
  EXPECT_EQ(p.tlv[0x1E6], b.data() + 24);
  EXPECT_EQ(p.tlv[RTS_IFST_ETHER_MAC], nullptr) << "0x41 has its own field";
  EXPECT_EQ(p.ether_mac, b.data() + 44);
  EXPECT_EQ(p.ether_mac_len, 8u);
  EXPECT_EQ(p.tlv_len[9], 2u);

  // A length of 0 ends the walk; so does a value past the buffer's end.
  std::vector<uint8_t> z = b;
  z[10] = z[11] = 0;  // the second TLV's length
  gif_ifd_parse_tlv(&p, nullptr, static_cast<uint32_t>(z.size()), z.data());
  EXPECT_EQ(p.walked, 1);
  EXPECT_EQ(p.tlv[8], nullptr);
  gif_ifd_parse_tlv(&p, nullptr, 19, b.data());  // the second value cut by a byte
  EXPECT_EQ(p.walked, 1);
  EXPECT_EQ(p.tlv[8], nullptr);
  gif_ifd_parse_tlv(&p, nullptr, 20, b.data());
  EXPECT_EQ(p.walked, 2);
  gif_ifd_parse_tlv(&p, nullptr, 3, b.data());  // not even a header
  EXPECT_EQ(p.walked, 0);
  gif_ifd_parse_tlv(&p, nullptr, 100, nullptr);
  EXPECT_EQ(p.walked, 0);
}

TEST(GifWalk, CountWrapsAtSixteenBits) {
  Tlvs t;
  for (int i = 0; i < 65537; i++) t.add(static_cast<uint16_t>(i % 0x1E7), "abcd", 4);
  gif_ifd p;
  gif_ifd_parse_tlv(&p, nullptr, static_cast<uint32_t>(t.b.size()), t.b.data());
  EXPECT_EQ(p.walked, 1);
}

TEST(GifMarker, TheBufferIsFoundInTheGenericList) {
  Msg msg;
  msg.tlv.queues(RTS_IFST_QUEUE, {queue(10, 1)});
  msg.parse();
  ASSERT_EQ(msg.m.n_gen, 1u);
  EXPECT_EQ(msg.m.gen[0].type, GIF_TLV_MARKER);
  ASSERT_NE(msg.p.tlv[RTS_IFST_QUEUE], nullptr);

  // The marker behind another entry, which enters by its low 24 bits.
  gif_msg m = msg.m;
  uint64_t extra = 77;
  m.gen[1] = m.gen[0];
  m.gen[0] = {0x01000000 | 0x30, &extra, 8};
  m.gen[2] = {0x01000000 | 0x1E7, &extra, 8};  // past the index
  m.n_gen = 3;
  gif_ifd p;
  gif_ifd_parse_tlv(&p, &m, 0, nullptr);
  EXPECT_EQ(p.walked, 1);
  EXPECT_NE(p.tlv[RTS_IFST_QUEUE], nullptr);
  EXPECT_EQ(p.tlv[0x30], reinterpret_cast<const uint8_t *>(&extra));
  EXPECT_EQ(p.tlv_len[0x30], 8u);

  // No marker: an empty index, zeroed records from the sections, no queues.
  m.gen[1].type = 0x02000000;
  m.n_gen = 2;
  msg.m.gen[0].type = 0x02000000;
  gif_ifd_parse_tlv(&p, &msg.m, 0, nullptr);
  EXPECT_EQ(p.walked, 0);
  EXPECT_EQ(gif_ifd_queue(&p), nullptr);
  Own<gif_traffic> t(gif_ifd_traffic(&p));
  ASSERT_TRUE(t);
  EXPECT_EQ(t->in_bytes, 0u);

  // With a buffer given, the list is not looked at.
  Tlvs other;
  other.add(5, "wxyz", 4);
  gif_ifd_parse_tlv(&p, &m, static_cast<uint32_t>(other.b.size()), other.b.data());
  EXPECT_EQ(p.walked, 1);
  EXPECT_EQ(p.tlv[0x30], nullptr);
  EXPECT_NE(p.tlv[5], nullptr);
}

TEST(GifQueue, PerQueueAndColorSinceClear) {
  Msg msg;
  msg.tlv.queues(RTS_IFST_QUEUE, {queue(100, 7), queue(50, 1), queue(9, 0)})
      .queues(RTS_IFST_QUEUE_BASE, {queue(40, 2), queue(80, 0), queue(9, 0)});
  const gif_ifd *p = msg.parse();
  Own<gif_queue_stats> q(gif_ifd_queue(p));
  ASSERT_TRUE(q);
  ASSERT_EQ(q->n_queues, 3u);
  EXPECT_EQ(q->queue[0].tx_packets, 60u);
  EXPECT_EQ(q->queue[0].tx_bytes, 6000u);
  EXPECT_EQ(q->queue[0].red_drop_packets[2], 5u);
  EXPECT_EQ(q->queue[1].tx_packets, 50u) << "reset since the clear";
  EXPECT_EQ(q->queue[2].tx_packets, 0u);
  Own<gif_queue_stats> a(gif_abs_ifd_queue(p));
  EXPECT_EQ(a->queue[0].tx_packets, 100u);
  EXPECT_EQ(a->queue[0].red_drop_packets[2], 7u);
}

TEST(GifQueue, CountMismatchIsLoggedAndTheCommonQueuesRead) {
  evlog_capture &cap = evlog_capture_start();
  Msg msg(RTS_T_IFLSTATS);
  msg.tlv.queues(RTS_IFST_QUEUE, {queue(100, 0), queue(50, 0)}).queues(RTS_IFST_QUEUE_BASE, {queue(40, 0)});
  const gif_ifd *p = msg.parse();
  Own<gif_queue_stats> q(gif_ifl_queue(p));
  ASSERT_TRUE(q);
  ASSERT_EQ(q->n_queues, 2u);
  EXPECT_EQ(q->queue[0].tx_packets, 60u);
  EXPECT_EQ(q->queue[1].tx_packets, 50u);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].priority, LOG_ERR);
  EXPECT_NE(cap.records[0].text.find("insist 'qstats->n_queues == c_qstats->n_queues' failed"), std::string::npos)
      << cap.records[0].text;
  Own<gif_queue_stats> a(gif_abs_ifl_queue(p));  // no baseline read, nothing to insist on
  EXPECT_EQ(cap.records.size(), 1u);
  evlog_capture_stop();
}

TEST(GifQueue, VirtualOutputQueuesFollowTheEgressQueues) {
  evlog_capture &cap = evlog_capture_start();
  Msg msg;
  msg.tlv.queues(RTS_IFST_QUEUE, {queue(10, 0)})
      .queues(RTS_IFST_VOQ, {queue(70, 3), queue(5, 0)})
      .queues(RTS_IFST_VOQ_BASE, {queue(20, 1), queue(9, 0), queue(1, 0)});  // one VOQ too many
  const gif_ifd *p = msg.parse();
  Own<gif_queue_stats> q(gif_ifd_queue(p));
  ASSERT_TRUE(q);
  ASSERT_EQ(q->n_queues, 1u);
  ASSERT_EQ(q->n_voqs, 2u);
  EXPECT_EQ(q->queue[0].tx_packets, 10u) << "no egress baseline";
  EXPECT_EQ(q->queue[1].tx_packets, 50u);
  EXPECT_EQ(q->queue[1].red_drop_packets[2], 2u);
  EXPECT_EQ(q->queue[2].tx_packets, 5u) << "reset since the clear";
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_NE(cap.records[0].text.find("insist 'voqstats->n_queues == c_voqstats->n_queues' failed"), std::string::npos);
  evlog_capture_stop();

  Msg only;  // virtual output queues alone
  only.tlv.queues(RTS_IFST_VOQ, {queue(4, 0)});
  Own<gif_queue_stats> o(gif_abs_ifd_queue(only.parse()));
  ASSERT_TRUE(o);
  EXPECT_EQ(o->n_queues, 0u);
  ASSERT_EQ(o->n_voqs, 1u);
  EXPECT_EQ(o->queue[0].tx_packets, 4u);
}

TEST(GifQueue, MissingOrShortQueueTlv) {
  Msg none;
  EXPECT_EQ(gif_ifd_queue(none.parse()), nullptr);
  Msg lying;
  std::vector<uint8_t> v(4 + sizeof(rts_ifst_queue));
  uint32_t n = 2;  // claims two, holds one
  memcpy(v.data(), &n, 4);
  lying.tlv.add(RTS_IFST_QUEUE, v.data(), static_cast<uint16_t>(v.size()));
  EXPECT_EQ(gif_ifd_queue(lying.parse()), nullptr);
  Msg empty;
  empty.tlv.queues(RTS_IFST_QUEUE, {});
  Own<gif_queue_stats> q(gif_ifd_queue(empty.parse()));
  ASSERT_TRUE(q);
  EXPECT_EQ(q->n_queues, 0u);
}

TEST(GifEther, EthernetDevicesOnly) {
  rts_ifst_ether_link link{};
  link.speed = 10000000000ull;
  link.duplex = 2;
  link.mac[5] = 9;
  rts_ifst_ether_mac mac{};
  mac.in_crc_errors = 4;
  mac.out_pause = 2;
  Msg msg;
  msg.tlv.add(RTS_IFST_ETHER_LINK, &link, sizeof link).add(RTS_IFST_ETHER_MAC, &mac, sizeof mac);
  Own<gif_gether_info> g(gif_abs_gether_info(msg.parse()));
  ASSERT_TRUE(g);
  EXPECT_TRUE(g->has_link && g->has_mac);
  EXPECT_EQ(g->link.speed, 10000000000ull);
  EXPECT_EQ(g->link.duplex, 2);
  EXPECT_EQ(g->link.mac[5], 9);
  EXPECT_EQ(g->mac.in_crc_errors, 4u);
  EXPECT_EQ(g->mac.out_pause, 2u);

  Msg shortv;  // an older sender's shorter record: the rest is zero
  shortv.tlv.add(RTS_IFST_ETHER_MAC, &mac, 48);
  g.reset(gif_abs_gether_info(shortv.parse()));
  ASSERT_TRUE(g);
  EXPECT_FALSE(g->has_link);
  EXPECT_EQ(g->mac.in_crc_errors, 4u);
  EXPECT_EQ(g->mac.out_pause, 0u);

  Msg tunnel;
  tunnel.f.ifsm_media = RTS_MEDIA_TUNNEL;
  tunnel.tlv.add(RTS_IFST_ETHER_LINK, &link, sizeof link);
  EXPECT_EQ(gif_abs_gether_info(tunnel.parse()), nullptr);
  Msg notether;
  notether.f.ifsm_link_type = RTS_LINK_TYPE_NOT_ETHER;
  notether.tlv.add(RTS_IFST_ETHER_LINK, &link, sizeof link);
  EXPECT_EQ(gif_abs_gether_info(notether.parse()), nullptr);
  Msg bare;  // Ethernet, but neither TLV
  EXPECT_EQ(gif_abs_gether_info(bare.parse()), nullptr);
}

TEST(GifMedia, Families) {
  for (uint8_t m : {11, 12, 13, 14, 23, 31, 63, 86, 88}) {
    EXPECT_EQ(gif_media_class(m, 0), GIF_MEDIA_ETHER) << int{m};
    EXPECT_EQ(gif_media_class(m, 0xD1), GIF_MEDIA_OTHER) << int{m};
  }
  for (uint8_t m : {8, 22, 33, 46}) EXPECT_EQ(gif_media_class(m, 0), GIF_MEDIA_P2P) << int{m};
  EXPECT_EQ(gif_media_class(70, 0), GIF_MEDIA_TUNNEL);
  for (uint8_t m : {0, 10, 15, 24, 87, 255}) EXPECT_EQ(gif_media_class(m, 0), GIF_MEDIA_OTHER) << int{m};
}

TEST(GifParse, NotAStatisticsMessage) {
  gif_msg m;
  gif_ifd p;
  rts_ifstats_msg f{};
  f.hdr.type = RTS_T_IFDEV;
  f.hdr.length = sizeof f;
  EXPECT_EQ(gif_ifd_parse(&p, &m, &f, sizeof f), EINVAL);
  EXPECT_EQ(p.msg, nullptr);
  EXPECT_EQ(gif_ifd_parse(&p, &m, &f, 10), EINVAL);
}

}  // namespace
