// The counters rtsockd serves in statistics messages: the state-file and
// admin lines, the messages built from them, and clears.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "peer_harness.h"
#include "rtsock/rts_ifstats.h"
#include "server.h"

namespace {

using namespace rtsockd;

// A server in this process, fed records as a client's data socket would.
struct Local {
  Store store;
  Server server{store, "/nonexistent/rtsock"};
  Client c;
  Local() {
    c.id = 1;
    c.hello = true;
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    for (const char *line : {"ifd index=2 name=ge-0/0/0", "ifl index=71 ifd_index=2 unit=3 name=ge-0/0/0"}) {
      EXPECT_TRUE(parse_object(line, &type, &obj, &why)) << why;
      EXPECT_EQ(store.apply(RTS_OP_ADD, std::move(obj)), 0);
    }
  }
  int ask(uint8_t type, uint8_t op, uint32_t index, std::vector<uint8_t> *reply) {
    rts_ifstats_msg req{};
    req.hdr.type = type;
    req.hdr.operation = op;
    req.hdr.seq = 42;
    req.hdr.length = sizeof req;
    req.ifsm_index = index;
    reply->clear();
    return server.record(c, reinterpret_cast<uint8_t *>(&req), sizeof req, reply);
  }
};

uint64_t at(const rts_ifsm_parts &p, bool base, unsigned slot) {
  return base ? rts_ifsm_counter(p.base, p.base_count, slot) : rts_ifsm_counter(p.cur, p.cur_count, slot);
}

TEST(RtsockdStats, CountersSetBumpedAndServed) {
  Local l;
  std::string why;
  ASSERT_TRUE(l.store.counters.set("ifdstats index=2 ibytes=100 ipackets=5 ibps=800 media=11", false, &why));
  ASSERT_TRUE(l.store.counters.set("ifdstats index=2 ibytes=50 queue.1.tx_packets=9", true, &why)) << why;
  std::vector<uint8_t> m;
  ASSERT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GET, 2, &m), 0);
  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  rts_ifstats_msg f;
  memcpy(&f, m.data(), sizeof f);
  EXPECT_EQ(f.hdr.seq, 42u);
  EXPECT_EQ(f.hdr.length, m.size());
  EXPECT_EQ(f.ifsm_index, 2u);
  EXPECT_EQ(uint64_t{f.ifsm_ibps}, 800u);
  EXPECT_EQ(f.ifsm_media, RTS_MEDIA_ETHER);
  EXPECT_STREQ(p.name, "ge-0/0/0");  // from the interface store
  EXPECT_EQ(p.cur_count, unsigned{RTS_IFSC_COUNT});
  EXPECT_EQ(at(p, false, RTS_IFSC_IBYTES), 150u);
  EXPECT_EQ(at(p, false, RTS_IFSC_IPACKETS), 5u);
  EXPECT_EQ(p.base, nullptr) << "never cleared";
  // Queue 1 given: queues 0 and 1 travel, in one TLV.
  ASSERT_GE(p.tlv_len, 8u);
  uint16_t type, len;
  memcpy(&type, p.tlv, 2);
  memcpy(&len, p.tlv + 2, 2);
  EXPECT_EQ(type, RTS_IFST_QUEUE);
  EXPECT_EQ(len, 4 + 2 * sizeof(rts_ifst_queue));

  // A clear from a client: the baseline is the counters of that moment.
  ASSERT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_CLEAR, 2, &m), 0);
  EXPECT_TRUE(m.empty());
  ASSERT_TRUE(l.store.counters.set("ifdstats index=2 ibytes=10", true, &why));
  ASSERT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GET, 2, &m), 0);
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  EXPECT_EQ(at(p, false, RTS_IFSC_IBYTES), 160u);
  EXPECT_EQ(at(p, true, RTS_IFSC_IBYTES), 150u);
  memcpy(&f, m.data(), sizeof f);
  EXPECT_TRUE(f.ifsm_flags & RTS_IFSM_CLEARED);
  EXPECT_NE(uint64_t{f.ifsm_clear_time}, 0u);
}

TEST(RtsockdStats, KnownInterfaceWithoutCountersAndUnknownOnes) {
  Local l;
  std::vector<uint8_t> m;
  ASSERT_EQ(l.ask(RTS_T_IFLSTATS, RTS_OP_GET, 71, &m), 0);
  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  EXPECT_STREQ(p.name, "ge-0/0/0.3");
  EXPECT_EQ(p.cur, nullptr);
  EXPECT_EQ(p.tlv, nullptr);
  EXPECT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GET, 9, &m), ENOENT);
  EXPECT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GET, 0x10002, &m), ENOENT) << "device indexes are 16 bits: not device 2";
  EXPECT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GETNEXT, 2, &m), EOPNOTSUPP);
  // Counters given for an interface the stores do not hold are served.
  std::string why;
  ASSERT_TRUE(l.store.counters.set("iflstats index=900 name=xe-1/0/0.5 tibytes=7", false, &why));
  ASSERT_EQ(l.ask(RTS_T_IFLSTATS, RTS_OP_GET, 900, &m), 0);
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  EXPECT_STREQ(p.name, "xe-1/0/0.5");
  EXPECT_EQ(at(p, false, RTS_IFSC_TIBYTES), 7u);
}

TEST(RtsockdStats, TheLargestEntryIsServed) {
  Local l;
  std::string why;
  std::string line = "ifdstats index=2 name=" + std::string(254, 'n') + " queue.31.tx_packets=1 "
                     "base.queue.31.tx_packets=1 voq.31.tx_bytes=1 base.voq.31.tx_bytes=1 mac.in_frames=1 link.speed=1 base.tobcast=1";
  ASSERT_TRUE(l.store.counters.set(line, false, &why)) << why;
  std::vector<uint8_t> m;
  ASSERT_EQ(l.ask(RTS_T_IFDSTATS, RTS_OP_GET, 2, &m), 0);
  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(m.data(), static_cast<uint32_t>(m.size()), &p));
  EXPECT_EQ(p.name_len, 255u);
  EXPECT_LE(m.size(), RTS_MSG_MAX);
  EXPECT_FALSE(l.store.counters.set("ifdstats index=2 name=" + std::string(255, 'n'), false, &why));
}

TEST(RtsockdStats, BadLinesChangeNothing) {
  Counters c;
  std::string why;
  ASSERT_TRUE(c.set("ifdstats index=1 ibytes=5", false, &why));
  const std::string before = c.show();
  struct Bad {
    const char *line;
    bool bump;
    const char *says;
  };
  for (const Bad &b : {Bad{"ifd index=1", false, "unknown kind ifd"},
                       Bad{"ifdstats ibytes=1", false, "expected index=N first"},
                       Bad{"ifdstats index=1 ibytes=7 nosuch=1", false, "unknown field nosuch=1"},
                       Bad{"ifdstats index=1 ibytes=-1", false, "bad number"},
                       Bad{"ifdstats index=1 queue.32.tx_packets=1", false, "queue number too large"},
                       Bad{"ifdstats index=1 base.voq.32.tx_packets=1", false, "queue number too large"},
                       Bad{"ifdstats index=1 queue.0.nosuch=1", false, "unknown field"},
                       Bad{"ifdstats index=1 link.duplex=3", false, "too large"},
                       Bad{"ifdstats index=1 name=x", true, "not a counter"},
                       Bad{"ifdstats index=1 ibps=1", true, "not a counter"},
                       Bad{"ifdstats index=1 link.mac=01:02", false, "bad MAC address"}}) {
    EXPECT_FALSE(c.set(b.line, b.bump, &why)) << b.line;
    EXPECT_NE(why.find(b.says), std::string::npos) << b.line << ": " << why;
  }
  EXPECT_EQ(c.show(), before);
  EXPECT_FALSE(c.clear("ifdstats index=2", 1, &why));
  EXPECT_FALSE(c.erase("iflstats index=1", &why));
}

TEST(RtsockdStats, ShowReadsBack) {
  Counters c;
  std::string why;
  ASSERT_TRUE(c.set("ifdstats index=2 name=ge-0/0/0 flags=3 media=11 link_type=4 ibps=1 opps=2 ibytes=10 "
                    "carrier=2 base.ibytes=4 queue.2.red_drop_bytes.3=9 base.queue.0.tx_packets=1 voq.1.tx_bytes=3 "
                    "base.voq.0.queued_bytes=2 "
                    "mac.in_pause=6 link.speed=1000 link.duplex=2 link.mac=02:00:00:00:00:0a",
                    false, &why))
      << why;
  ASSERT_TRUE(c.set("iflstats index=7 tobcast=1", false, &why));
  std::string shown = c.show();
  Counters again;
  std::istringstream in(shown);
  std::string line;
  while (std::getline(in, line)) ASSERT_TRUE(again.set(line, false, &why)) << line << ": " << why;
  EXPECT_EQ(again.show(), shown);
  EXPECT_NE(shown.find("queue.2.red_drop_bytes.3=9"), std::string::npos) << shown;
  EXPECT_NE(shown.find("link.mac=02:00:00:00:00:0a"), std::string::npos) << shown;
}

TEST(RtsockdStats, SampleCountersThroughTheAdminSocket) {
  rtsockd_test::Peer peer;
  ASSERT_TRUE(peer.ready());
  rtsockd_test::Handle h;
  rts_ifstats_msg *st = nullptr;
  ASSERT_EQ(rtslib_ifdsm_get_by_index(h, 2, &st), 0);
  rts_ifsm_parts p;
  ASSERT_TRUE(rts_ifsm_parts_of(st, st->hdr.length, &p));
  EXPECT_EQ(at(p, false, RTS_IFSC_IBYTES), 1500000u);
  EXPECT_EQ(at(p, true, RTS_IFSC_IBYTES), 500000u);
  rtslib_msg_idl_release(h, st);
  EXPECT_EQ(peer.admin("stats bump ifdstats index=2 ibytes=5"), "ok\n");
  EXPECT_EQ(peer.admin("stats bump ifdstats index=2 nosuch=5"), "error: unknown field nosuch=5\n");
  ASSERT_EQ(rtslib_ifdsm_get_by_index(h, 2, &st), 0);
  ASSERT_TRUE(rts_ifsm_parts_of(st, st->hdr.length, &p));
  EXPECT_EQ(at(p, false, RTS_IFSC_IBYTES), 1500005u);
  rtslib_msg_idl_release(h, st);
  EXPECT_EQ(peer.admin("stats delete ifdstats index=2"), "ok\n");
  EXPECT_EQ(peer.admin("stats show").find("ifdstats"), std::string::npos);
  EXPECT_EQ(peer.admin("stats clear ifdstats index=2"), "error: No such file or directory\n");
}

}  // namespace
