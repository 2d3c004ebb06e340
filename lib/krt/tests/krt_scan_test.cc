// Scans: get then getnext, end of table, tables the kernel does not serve,
// reply handlers that stop a table, notifications met on the way, the slice.
#include <gtest/gtest.h>

#include "krt_peer.h"

using namespace kt;

namespace {

std::vector<uint16_t> scanned;
std::vector<std::string> events;
bool reply_false_after_first;
double advance_per_reply;

int bd_reply(void *m, uint32_t, krt_scan_state *st) {
  auto *r = static_cast<rts_bd_msg *>(m);
  scanned.push_back(r->bdm_index);
  reinterpret_cast<krt_cursor_bd *>(st->priv)->index = r->bdm_index;
  if (advance_per_reply) tt::advance(advance_per_reply);
  return !(reply_false_after_first && scanned.size() == 1);
}
void bd_done() { events.push_back("bd done"); }
void ifd_done() { events.push_back("ifd done"); }
int ifd_reply(void *, uint32_t, krt_scan_state *) {
  events.push_back("ifd reply");
  return 1;
}

const krt_scan kBd = {89, 1, sizeof(krt_cursor_bd), 1, nullptr, nullptr, nullptr, krt_scan_req_bridge_domain,
                      bd_reply, bd_done};
const krt_scan kIfd = {5, 1, sizeof(krt_cursor_ifd), 0, nullptr, nullptr, nullptr, krt_scan_req_ifdev, ifd_reply,
                       ifd_done};

class Scan : public Krt {
 protected:
  krt_scan list[2];
  void SetUp() override {
    Krt::SetUp();
    scanned.clear();
    events.clear();
    reply_false_after_first = false;
    advance_per_reply = 0;
  }
  void fill(std::initializer_list<uint16_t> idx) {
    for (uint16_t i : idx) bds[i] = bd(i, 1000u + i);
  }
};

TEST_F(Scan, AFirstGetThatMissesGoesOnByGetnextToTheEnd) {
  fill({3, 5, 9});
  list[0] = kBd;
  cfg.scans = list;
  cfg.scan_count = 1;
  krt_start(&cfg);
  ASSERT_NE(krt_scan_bg_job(), nullptr);
  EXPECT_STREQ(task_job_get_name(krt_scan_bg_job()), "krt scan");
  EXPECT_EQ(krt_scan_bg_job()->task_job_priority, 4);
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  EXPECT_EQ(scanned, (std::vector<uint16_t>{3, 5, 9}));
  EXPECT_EQ(gets, 1);      // key 0: nothing there
  EXPECT_EQ(getnexts, 4);  // 3, 5, 9, then the end
  EXPECT_EQ(events, std::vector<std::string>{"bd done"});
}

TEST_F(Scan, AFirstGetThatHitsIsTheFirstRecord) {
  fill({0, 2});
  list[0] = kBd;
  cfg.current_scans = list;
  cfg.current_scan_count = 1;
  krt_start(&cfg);  // a current scan ends inside the start
  EXPECT_EQ(scanned, (std::vector<uint16_t>{0, 2}));
  EXPECT_EQ(gets, 1);
  EXPECT_EQ(events, std::vector<std::string>{"bd done"});
}

TEST_F(Scan, ATableTheKernelDoesNotServeMovesToTheNext) {
  fill({1, 2});
  list[0] = kIfd;
  list[1] = kBd;
  cfg.scans = list;
  cfg.scan_count = 2;
  other_type = [](uint8_t) { return EOPNOTSUPP; };
  krt_start(&cfg);
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  EXPECT_EQ(events, (std::vector<std::string>{"ifd done", "bd done"}));
  EXPECT_EQ(scanned, (std::vector<uint16_t>{1, 2}));
}

TEST_F(Scan, AnotherErrorEndsTheWholeScan) {
  fill({1});
  list[0] = kIfd;
  list[1] = kBd;
  cfg.scans = list;
  cfg.scan_count = 2;
  other_type = [](uint8_t) { return EIO; };
  krt_start(&cfg);
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(scanned.empty());
}

TEST_F(Scan, AFalseReplyEndsTheTableNotTheScan) {
  fill({1, 2, 3});
  list[0] = kBd;
  list[1] = kBd;
  cfg.scans = list;
  cfg.scan_count = 2;
  reply_false_after_first = true;
  krt_start(&cfg);
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  // The first table stops after one record; the second walks them all.
  EXPECT_EQ(scanned, (std::vector<uint16_t>{1, 1, 2, 3}));
  EXPECT_EQ(events, (std::vector<std::string>{"bd done", "bd done"}));
}

TEST_F(Scan, ANotificationInTheMiddleIsDispatchedNotTakenForTheReply) {
  fill({1, 2, 3});
  list[0] = kBd;
  cfg.scans = list;
  cfg.scan_count = 1;
  krt_start(&cfg);
  before_reply = {bd(2, 2222, RTS_OP_CHANGE, 1), bd(50, 5050, RTS_OP_ADD, 2)};
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  EXPECT_EQ(scanned, (std::vector<uint16_t>{1, 2, 3}));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].vnid, 2222u);
  EXPECT_EQ(seen[1].index, 50);
}

TEST_F(Scan, ABackgroundScanYieldsAtTheSlice) {
  for (uint16_t i = 1; i <= 20; i++) bds[i] = bd(i, i);
  list[0] = kBd;
  cfg.scans = list;
  cfg.scan_count = 1;
  advance_per_reply = 0.001;  // each record takes a millisecond
  krt_start(&cfg);
  // A pass runs at most a slice: two or three records.
  ASSERT_TRUE(until([] { return !scanned.empty(); }));
  EXPECT_LE(scanned.size(), 3u);
  ASSERT_TRUE(until([] { return krt_scan_bg_job() == nullptr; }));
  EXPECT_EQ(scanned.size(), 20u);
  for (uint16_t i = 0; i < 20; i++) EXPECT_EQ(scanned[i], i + 1);
}

TEST_F(Scan, ForegroundScanAndCompletionHooks) {
  fill({4});
  list[0] = kBd;
  list[1] = kIfd;
  cfg.fg_scans = list;
  cfg.fg_scan_count = 1;
  cfg.scans = list + 1;
  cfg.scan_count = 1;
  cfg.fg_handlers = handlers;
  other_type = [](uint8_t) { return ENOENT; };
  krt_start_foreground(&cfg);
  ASSERT_NE(krt_scan_fg_job(), nullptr);
  EXPECT_STREQ(task_job_get_name(krt_scan_fg_job()), "krt foreground scan");
  ASSERT_TRUE(until([] { return !krt_scan_fg_job() && !krt_scan_bg_job(); }));
  EXPECT_EQ(scanned, (std::vector<uint16_t>{4}));
  // Done hooks wait for the switchover.
  EXPECT_TRUE(events.empty());
  krt_lib_re_switchover(krt_task(), 1);
  EXPECT_EQ(events, (std::vector<std::string>{"bd done", "ifd done"}));
  EXPECT_FALSE(krt_is_deferred());
  FakePeer::Msg mask(8, 0);
  mask[5] = 0x10;
  EXPECT_EQ(peer.options[RTS_OPT_LISTEN_MASK], mask);
  krt_complete_scan_done();  // once only
  EXPECT_EQ(events.size(), 2u);
}

// A raw table: statistics records of devices 2 and 4, by index.
void stats_request(void *m, uint32_t *len, krt_scan_state *st) {
  rts_ifstats_msg r{};
  r.hdr.type = RTS_T_IFDSTATS;
  r.hdr.operation = st->first_request ? RTS_OP_GET : RTS_OP_GETNEXT;
  r.hdr.seq = krt_seq();
  r.hdr.length = sizeof r;
  memcpy(&r.ifsm_index, st->priv, 4);
  memcpy(m, &r, sizeof r);
  *len = sizeof r;
}
int stats_reply(void *m, uint32_t len, krt_scan_state *st) {
  rts_ifstats_msg r;
  EXPECT_EQ(len, sizeof r);
  memcpy(&r, m, sizeof r);
  scanned.push_back(static_cast<uint16_t>(r.ifsm_index));
  memcpy(st->priv, &r.ifsm_index, 4);
  return 1;
}

TEST_F(Scan, RawRecordsAreScannedAsTheyCome) {
  static const krt_scan raw_scan = {15, 0, 4, 1, nullptr, nullptr, nullptr, stats_request, stats_reply, nullptr};
  raw_verdict = [this](const FakePeer::Msg &m) {
    rts_ifstats_msg q;
    memcpy(&q, m.data(), sizeof q);
    uint32_t next = q.hdr.operation == RTS_OP_GET ? (q.ifsm_index == 2 || q.ifsm_index == 4 ? q.ifsm_index : 0)
                                                  : (q.ifsm_index < 2 ? 2 : q.ifsm_index < 4 ? 4 : 0);
    if (!next) return ENOENT;
    // A notification first, raw too: dispatched, not the reply.
    peer.push(raw(RTS_T_IFDSTATS, {}, q.hdr.seq + 1000, RTS_OP_CHANGE));
    rts_ifstats_msg r = q;
    r.ifsm_index = next;
    r.ifsm_ibps = next * 10;
    peer.push(FakePeer::Msg(reinterpret_cast<uint8_t *>(&r), reinterpret_cast<uint8_t *>(&r) + sizeof r));
    return 0;
  };
  handlers[RTS_T_IFDSTATS] = record;
  cfg.current_scans = &raw_scan;
  cfg.current_scan_count = 1;
  krt_start(&cfg);
  EXPECT_EQ(scanned, (std::vector<uint16_t>{2, 4}));
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(Scan, RequestBuildersFillHeaderAndCursor) {
  alignas(8) uint8_t st_mem[sizeof(krt_scan_state) + 32] = {};
  auto *st = reinterpret_cast<krt_scan_state *>(st_mem);
  alignas(8) uint8_t msg[KRT_SCAN_REQUEST_MAX];
  uint32_t len;
  st->first_request = 1;
  reinterpret_cast<krt_cursor_ifl *>(st->priv)->index = 77;
  krt_scan_req_iflogical(msg, &len, st);
  auto *ifl = reinterpret_cast<rts_ifl_msg *>(msg);
  EXPECT_EQ(ifl->hdr.type, RTS_T_IFLOGICAL);
  EXPECT_EQ(ifl->hdr.version, 107);
  EXPECT_EQ(ifl->hdr.size, 204);
  EXPECT_EQ(ifl->hdr.operation, RTS_OP_GET);
  EXPECT_EQ(ifl->iflm_index, 77u);
  uint32_t seq = ifl->hdr.seq;
  st->first_request = 0;
  reinterpret_cast<krt_cursor_rtb *>(st->priv)->index = 3;
  krt_scan_req_rttable_inet6(msg, &len, st);
  auto *rtb = reinterpret_cast<rts_rtb_msg *>(msg);
  EXPECT_EQ(rtb->hdr.operation, RTS_OP_GETNEXT);
  EXPECT_EQ(rtb->hdr.size, 200);
  EXPECT_EQ(rtb->rtbm_af, RTS_AF_INET6);
  EXPECT_EQ(rtb->rtbm_index, 3);
  EXPECT_EQ(rtb->hdr.seq, seq + 1);
  EXPECT_TRUE(krt_scan_version_ok(rtb));
  rtb->hdr.version = 97;
  EXPECT_FALSE(krt_scan_version_ok(rtb));
}

}  // namespace
