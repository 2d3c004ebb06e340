// cntd's answers without its sockets: requests parsed and answered from the
// counters, malformed ones refused, the faults, the admin commands.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "service.h"
#include "stats/libstats.h"

namespace {

using cntd::Outcome;
using cntd::Service;

std::vector<uint8_t> ifl_request(uint32_t type, uint32_t ifl, uint32_t flags, uint32_t id = 7) {
  std::vector<uint8_t> m(LS_REQ_MSG_LEN);
  ls_hdr_write(m.data(), LS_REQ_MSG_LEN, type);
  ls_ifl_request r{};
  r.ifl = ifl;
  r.flags = flags;
  r.id = id;
  ls_ifl_request_write(m.data() + LS_HDR_LEN, r);
  return m;
}

Outcome ask(Service &s, const std::vector<uint8_t> &m, std::vector<uint8_t> *reply, uint32_t subtype = 0) {
  return s.request(subtype ? subtype : ls_get32(m.data() + 8), m.data(), static_cast<uint32_t>(m.size()), 1234, reply);
}

struct Served : ::testing::Test {
  Service s;
  std::vector<uint8_t> reply;
  ls_reply r{};
  libstats_ifl_figures f{};
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(s.counters.set("iflstats index=71 flags=3 ibytes=100 obytes=200 base.ibytes=40 queue.1.tx_packets=9",
                               false, &why)) << why;
  }
  void read() {
    ASSERT_TRUE(ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r));
    ASSERT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(r.tlv, r.tlv_len, &f), 0);
  }
};

TEST_F(Served, AnInterfaceRequestIsAnsweredWithItsCounters) {
  ASSERT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, LS_REQ_FULL), &reply), Outcome::reply);
  read();
  EXPECT_EQ(r.type, uint32_t{LS_IFLSTATS_FULL_REPLY});
  EXPECT_EQ(r.id, 7u);
  EXPECT_EQ(r.index, 71u);
  EXPECT_EQ(r.err, 0u);
  EXPECT_EQ(f.cur[RTS_IFSC_IBYTES], 100u);
  EXPECT_EQ(f.cur[RTS_IFSC_OBYTES], 200u);
  EXPECT_TRUE(f.has_base);
  EXPECT_EQ(f.base[RTS_IFSC_IBYTES], 40u);
  EXPECT_EQ(f.flags, 3);
  EXPECT_EQ(f.n_queues[0], 2u);
  EXPECT_EQ(f.queues[0][1].tx_packets, 9u);

  // Absolute: no baseline. Asynchronous: type 10. Clear: the baseline is now.
  ASSERT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, LS_REQ_FULL | LS_REQ_ABSOLUTE | LS_REQ_ASYNC), &reply),
            Outcome::reply);
  read();
  EXPECT_EQ(r.type, uint32_t{LS_IFLSTATS_FULL_ASYNC_REPLY});
  EXPECT_FALSE(f.has_base);
  ASSERT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, LS_REQ_FULL | LS_REQ_CLEAR), &reply), Outcome::reply);
  read();
  EXPECT_EQ(f.base[RTS_IFSC_OBYTES], 200u);
  EXPECT_EQ(f.clear_time, 1234u);

  // An interface it does not count, and any interface set: an empty reply.
  ASSERT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REQUEST, 72, LS_REQ_FULL), &reply), Outcome::reply);
  read();
  EXPECT_EQ(r.tlv_len, 0u);
  ASSERT_EQ(ask(s, ifl_request(LS_IFLSETSTATS_FULL_REQUEST, 71, LS_REQ_FULL), &reply), Outcome::reply);
  read();
  EXPECT_EQ(r.type, uint32_t{LS_IFLSETSTATS_FULL_REPLY});
  EXPECT_EQ(r.key, 71u);
  EXPECT_EQ(r.tlv_len, 0u);
  EXPECT_EQ(s.tally.replies, 5u);
}

TEST_F(Served, MalformedRequestsGetNoAnswer) {
  auto good = ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, LS_REQ_FULL);
  EXPECT_EQ(ask(s, good, &reply, 5), Outcome::none);  // the subtype is not the type
  auto v = good;
  ls_put32(v.data() + 4, 2);
  EXPECT_EQ(ask(s, v, &reply), Outcome::none);
  v = good;
  v.pop_back();
  EXPECT_EQ(ask(s, v, &reply), Outcome::none);  // the total length lies
  ls_put32(v.data(), static_cast<uint32_t>(v.size()));
  EXPECT_EQ(ask(s, v, &reply), Outcome::none);  // a record one byte short
  EXPECT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, 0), &reply), Outcome::none);
  EXPECT_EQ(ask(s, ifl_request(LS_IFLSTATS_FULL_REPLY, 71, LS_REQ_FULL), &reply), Outcome::none);
  std::vector<uint8_t> sub(LS_HDR_LEN + LS_CNTD_REQ_BODY);
  ls_hdr_write(sub.data(), static_cast<uint32_t>(sub.size()), LS_CNTD_REQUEST);
  ls_put32(sub.data() + LS_HDR_LEN, 4);
  EXPECT_EQ(ask(s, sub, &reply), Outcome::none);
  std::vector<uint8_t> mc(LS_HDR_LEN + LS_MCAST_REQ_BODY);
  ls_hdr_write(mc.data(), static_cast<uint32_t>(mc.size()), LS_MCAST_REQUEST);
  ls_put32(mc.data() + LS_HDR_LEN, 13);
  EXPECT_EQ(ask(s, mc, &reply), Outcome::none);
  EXPECT_EQ(s.tally.malformed, 8u);
  EXPECT_EQ(s.tally.replies, 0u);

  // The subscriber kinds answer: no sessions here.
  ls_put32(sub.data() + LS_HDR_LEN, LS_CNTD_REQ_SUB_DELETE);
  ls_put64(sub.data() + LS_HDR_LEN + 8, 99);
  ASSERT_EQ(ask(s, sub, &reply), Outcome::reply);
  ASSERT_TRUE(ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r));
  EXPECT_EQ(r.type, uint32_t{LS_SUBSTATS_REPLY});
  EXPECT_EQ(r.index, uint32_t{LIBSTATS_KIND_SUB_FINAL});
  EXPECT_EQ(r.key, 99u);
  EXPECT_EQ(r.err, uint32_t{ENOENT});
  EXPECT_TRUE(r.flags & LS_REPLY_FINAL);
}

TEST_F(Served, FaultsAndAdminCommands) {
  std::vector<std::vector<uint8_t>> push;
  auto req = ifl_request(LS_IFLSTATS_FULL_REQUEST, 71, LS_REQ_FULL);
  EXPECT_EQ(s.admin("fault error EIO", 0, &push), "ok\n");
  ASSERT_EQ(ask(s, req, &reply), Outcome::reply);
  ASSERT_TRUE(ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r));
  EXPECT_EQ(r.err, uint32_t{EIO});
  EXPECT_EQ(r.tlv_len, 0u);
  EXPECT_EQ(s.admin("fault clear", 0, &push), "ok\n");
  EXPECT_EQ(s.admin("fault empty", 0, &push), "ok\n");
  ASSERT_EQ(ask(s, req, &reply), Outcome::reply);
  ASSERT_TRUE(ls_reply_read(reply.data(), static_cast<uint32_t>(reply.size()), &r));
  EXPECT_EQ(r.err, 0u);
  EXPECT_EQ(r.tlv_len, 0u);
  EXPECT_EQ(s.admin("fault close", 0, &push), "ok\n");
  EXPECT_EQ(ask(s, req, &reply), Outcome::close);
  EXPECT_EQ(ask(s, req, &reply), Outcome::reply);  // once only
  EXPECT_EQ(s.admin("fault drop", 0, &push), "ok\n");
  EXPECT_EQ(ask(s, req, &reply), Outcome::none);
  EXPECT_EQ(s.admin("counts", 0, &push), "requests 5 replies 3 malformed 0 dropped 2\nok\n");

  EXPECT_EQ(s.admin("fault error nonsense", 0, &push), "error: expected an errno (ENOENT or a number), got nonsense\n");
  EXPECT_EQ(s.admin("fault empty now", 0, &push), "error: fault empty takes nothing more\n");
  EXPECT_EQ(s.admin("bogus", 0, &push), "error: unknown command bogus (help lists them)\n");
  EXPECT_EQ(s.admin("stats bump iflstats index=71 ibytes=5", 0, &push), "ok\n");
  EXPECT_NE(s.admin("stats show", 0, &push).find("ibytes=105"), std::string::npos);
  EXPECT_EQ(s.admin("stats set iflstats index=71 nosuch=1", 0, &push).rfind("error: unknown field", 0), 0u);
  EXPECT_TRUE(push.empty());

  EXPECT_EQ(s.admin("trace on 0x600 /var/log/t", 0, &push), "ok\n");
  EXPECT_EQ(s.admin("trace off", 0, &push), "ok\n");
  EXPECT_EQ(s.admin("trace on", 0, &push), "error: trace on FLAGS [FILE]\n");
  ASSERT_EQ(push.size(), 2u);
  ls_hdr h;
  ASSERT_TRUE(ls_hdr_read(push[0].data(), static_cast<uint32_t>(push[0].size()), &h));
  EXPECT_EQ(h.type, uint32_t{LS_TRACE_ON});
  EXPECT_EQ(ls_get32(push[0].data() + LS_HDR_LEN), 0x600u);
  EXPECT_STREQ(reinterpret_cast<const char *>(push[0].data()) + LS_HDR_LEN + 4, "/var/log/t");
  ASSERT_TRUE(ls_hdr_read(push[1].data(), static_cast<uint32_t>(push[1].size()), &h));
  EXPECT_EQ(h.type, uint32_t{LS_TRACE_OFF});
}

}  // namespace
