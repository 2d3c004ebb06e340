// libstats without cntd: the wire at its offsets, the tables of names, the
// conversion of a reply's TLVs and the merge with the kernel's figures as
// the gif_* readers see it, and a session against a socket the test holds
// (connect, requests on the wire, replies, failures, the sequence's wrap).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "io_fixture.h"
#include "ipc/ipcconn.h"
#include "libstats_int.h"
#include "platform/path.h"
#include "rtsock/rts_ifstats.h"
#include "stats/ifstat.h"
#include "stats/libstats.h"

using namespace tt;

namespace {

std::vector<std::string> lines;
void keep(int, const char *l) { lines.push_back(l); }
bool logged(const std::string &part) {
  for (auto &l : lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

void tlv(std::vector<uint8_t> &out, uint16_t type, const void *v, uint32_t len) {
  size_t at = out.size();
  uint32_t n = rts_ifsm_tlv_encode(type, nullptr, static_cast<uint16_t>(len), nullptr, 0);
  out.resize(at + n);
  rts_ifsm_tlv_encode(type, v, static_cast<uint16_t>(len), out.data() + at, n);
}
std::vector<uint8_t> counters_tlv(uint16_t type, std::initializer_list<std::pair<unsigned, uint64_t>> set) {
  uint64_t c[RTS_IFSC_COUNT] = {};
  for (auto [slot, v] : set) c[slot] = v;
  std::vector<uint8_t> out;
  tlv(out, type, c, sizeof c);
  return out;
}
std::vector<uint8_t> queues_tlv(uint16_t type, uint32_t n, uint64_t tx) {
  std::vector<uint8_t> v(4 + n * sizeof(rts_ifst_queue), 0);
  ls_put32(v.data(), n);
  for (uint32_t q = 0; q < n; q++) ls_put64(v.data() + 4 + q * sizeof(rts_ifst_queue) + 16, tx + q);
  std::vector<uint8_t> out;
  tlv(out, type, v.data(), static_cast<uint32_t>(v.size()));
  return out;
}
std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// A kernel's statistics message of logical interface 71.
std::vector<uint8_t> kernel_msg(bool with_base) {
  rts_ifstats_msg f{};
  f.hdr.type = RTS_T_IFLSTATS;
  f.ifsm_index = 71;
  f.ifsm_flags = RTS_IFSM_UP | RTS_IFSM_LINK;
  uint64_t cur[RTS_IFSC_COUNT] = {}, base[RTS_IFSC_COUNT] = {};
  cur[RTS_IFSC_IBYTES] = 1000;
  cur[RTS_IFSC_IPACKETS] = 10;
  cur[RTS_IFSC_TIBYTES] = 50;
  base[RTS_IFSC_IBYTES] = 400;
  std::vector<uint8_t> t = queues_tlv(RTS_IFST_QUEUE, 2, 100);
  uint32_t n = rts_ifsm_encode(&f, "ge-0/0/0", cur, RTS_IFSC_COUNT, with_base ? base : nullptr,
                               with_base ? RTS_IFSC_COUNT : 0, t.data(), static_cast<uint32_t>(t.size()), nullptr, 0);
  std::vector<uint8_t> out(n);
  rts_ifsm_encode(&f, "ge-0/0/0", cur, RTS_IFSC_COUNT, with_base ? base : nullptr, with_base ? RTS_IFSC_COUNT : 0,
                  t.data(), static_cast<uint32_t>(t.size()), out.data(), n);
  return out;
}

TEST(LibstatsWire, RequestAndReplyAtTheirOffsets) {
  ls_ifl_request r{};
  r.ifl = 71;
  r.flags = LS_REQ_FULL | LS_REQ_ABSOLUTE;
  r.id = 0x01020304;
  r.subtype = 9;
  r.ifd = 2;
  r.family = 2;
  strcpy(r.name, "ge-0/0/0.0");
  r.has_filter = 1;
  memset(r.filter, 0xAB, sizeof r.filter);
  uint8_t m[LS_REQ_MSG_LEN];
  ls_hdr_write(m, LS_REQ_MSG_LEN, LS_IFLSTATS_FULL_REQUEST);
  ls_ifl_request_write(m + LS_HDR_LEN, r);
  const uint8_t head[] = {0xB9, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 71, 0, 0, 0, 0x00, 0x01, 0, 0x20,
                          4, 3, 2, 1, 9, 0, 0, 0, 2, 0, 0, 0, 2, 1};
  EXPECT_EQ(std::vector<uint8_t>(m, m + sizeof head), std::vector<uint8_t>(head, head + sizeof head));
  EXPECT_EQ(std::string(reinterpret_cast<char *>(m) + 12 + 0x18), "ge-0/0/0.0");
  EXPECT_EQ(m[12 + 0x5C], 0);
  EXPECT_EQ(m[12 + 0x5D], 0xAB);
  EXPECT_EQ(m[LS_REQ_MSG_LEN - 1], 0xAB);  // the filter ends the record
  ls_ifl_request back;
  ASSERT_TRUE(ls_ifl_request_read(m + LS_HDR_LEN, LS_REQ_LEN, &back));
  EXPECT_EQ(back.id, r.id);
  EXPECT_FALSE(ls_ifl_request_read(m + LS_HDR_LEN, LS_REQ_LEN - 1, &back));

  std::vector<uint8_t> t = counters_tlv(LS_TLV_COUNTERS, {{RTS_IFSC_IBYTES, 5}});
  std::vector<uint8_t> rep(LS_REPLY_HEAD + t.size());
  ls_reply w{LS_IFLSTATS_FULL_REPLY, 7, LS_REQ_FULL, 0, 71, 0, static_cast<uint32_t>(t.size()), nullptr};
  ls_reply_write(rep.data(), w);
  memcpy(rep.data() + LS_REPLY_HEAD, t.data(), t.size());
  EXPECT_EQ(ls_get32(rep.data() + 0x1C), 71u);  // the interface where the client looks for it
  ls_reply got;
  ASSERT_TRUE(ls_reply_read(rep.data(), static_cast<uint32_t>(rep.size()), &got));
  EXPECT_EQ(got.tlv_len, t.size());
  // Short, a TLV length past the end, another version, a total that lies.
  EXPECT_FALSE(ls_reply_read(rep.data(), LS_REPLY_HEAD - 1, &got));
  ls_put32(rep.data() + 0x24, static_cast<uint32_t>(t.size() + 1));
  ls_put32(rep.data(), static_cast<uint32_t>(rep.size()));
  EXPECT_FALSE(ls_reply_read(rep.data(), static_cast<uint32_t>(rep.size()), &got));
  ls_put32(rep.data() + 0x24, static_cast<uint32_t>(t.size()));
  ls_put32(rep.data() + 4, 2);
  EXPECT_FALSE(ls_reply_read(rep.data(), static_cast<uint32_t>(rep.size()), &got));
  ls_put32(rep.data() + 4, 1);
  EXPECT_FALSE(ls_reply_read(rep.data(), static_cast<uint32_t>(rep.size() - 4), &got));
}

TEST(LibstatsText, TablesAndTheirEnds) {
  EXPECT_STREQ(libstats_status_str(0), "no-error");
  EXPECT_STREQ(libstats_status_str(6), "socket-conection-closed");
  EXPECT_STREQ(libstats_status_str(14), "stats-request-send-timedout");
  EXPECT_STREQ(libstats_status_str(15), "INVALID-ERROR");
  EXPECT_STREQ(libstats_status_str(-1), "INVALID-ERROR");
  EXPECT_STREQ(libstats_stats_type_str(13), "IFLSET Full Stats");
  EXPECT_STREQ(libstats_stats_type_str(24), "mcast clear stats intf");
  EXPECT_STREQ(libstats_stats_type_str(25), "INVALID-STATS-TYPE");
  EXPECT_STREQ(libstats_error_type_str(6), "   PFE Error");
  EXPECT_STREQ(libstats_error_type_str(7), "   INVALID-STATS-ERROR-TYPE");
  EXPECT_STREQ(libstats_cntd_req_type_str(3), "Service Delete");
  EXPECT_STREQ(libstats_cntd_req_type_str(4), "INVALID-STATS-CNTD-REQ-TYPE");
  EXPECT_EQ(libstats_app_index("tunechod"), 1u);
  uint32_t unlisted = libstats_app_index("someone-else");
  EXPECT_EQ(libstats_app_index(nullptr), unlisted);
  EXPECT_GT(unlisted, libstats_app_index("bench_stats"));
}

TEST(LibstatsConvert, BundleMembersSumAndMalformedTlvsAreRefused) {
  auto one = counters_tlv(LS_TLV_COUNTERS, {{RTS_IFSC_IBYTES, 10}, {RTS_IFSC_OERRORS, 1}});
  auto two = counters_tlv(LS_TLV_COUNTERS, {{RTS_IFSC_IBYTES, 5}, {RTS_IFSC_TOBYTES, 7}});
  auto base = counters_tlv(LS_TLV_BASELINE, {{RTS_IFSC_IBYTES, 3}});
  auto t = cat({one, two, base, queues_tlv(RTS_IFST_VOQ, 3, 1)});
  libstats_ifl_figures f;
  ASSERT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(t.data(), static_cast<uint32_t>(t.size()), &f), 0);
  EXPECT_EQ(f.members, 2u);
  EXPECT_EQ(f.cur[RTS_IFSC_IBYTES], 15u);
  EXPECT_EQ(f.cur[RTS_IFSC_OERRORS], 1u);
  EXPECT_EQ(f.cur[RTS_IFSC_TOBYTES], 7u);
  EXPECT_TRUE(f.has_base);
  EXPECT_EQ(f.base[RTS_IFSC_IBYTES], 3u);
  EXPECT_EQ(f.n_queues[2], 3u);
  EXPECT_EQ(f.queues[2][2].tx_packets, 3u);

  auto too_many = queues_tlv(RTS_IFST_QUEUE, LS_MAX_QUEUES + 1, 0);
  EXPECT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(too_many.data(), static_cast<uint32_t>(too_many.size()),
                                                              &f), EINVAL);
  std::vector<uint8_t> odd;
  uint8_t seven[7] = {};
  tlv(odd, LS_TLV_COUNTERS, seven, sizeof seven);
  EXPECT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(odd.data(), static_cast<uint32_t>(odd.size()), &f),
            EINVAL);
  auto cut = one;
  cut.resize(cut.size() - 8);  // the value runs past the buffer
  EXPECT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(cut.data(), static_cast<uint32_t>(cut.size()), &f),
            EINVAL);
  std::vector<uint8_t> unknown;
  tlv(unknown, 0x1FF, seven, sizeof seven);
  EXPECT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(unknown.data(), static_cast<uint32_t>(unknown.size()),
                                                              &f), 0);
}

TEST(LibstatsMerge, CntdFiguresAddToTheKernelsAsTheReadersSeeThem) {
  auto kernel = kernel_msg(true);
  auto t = cat({counters_tlv(LS_TLV_COUNTERS, {{RTS_IFSC_IBYTES, 300}, {RTS_IFSC_IPACKETS, 3}, {RTS_IFSC_TIBYTES, 5}}),
                counters_tlv(LS_TLV_BASELINE, {{RTS_IFSC_IBYTES, 100}}), queues_tlv(RTS_IFST_QUEUE, 3, 10)});
  libstats_ifl_figures k, c;
  ASSERT_EQ(libstats_figures_from_iflsm(kernel.data(), static_cast<uint32_t>(kernel.size()), &k), 0);
  ASSERT_EQ(libstats_iflstats_full_convert_from_tlvs_to_iflsm(t.data(), static_cast<uint32_t>(t.size()), &c), 0);
  libstats_rtslib_encode_aggr_deux_stats(&k, &c);
  rts_ifstats_msg fixed;
  memcpy(&fixed, kernel.data(), sizeof fixed);
  std::vector<uint8_t> out(RTS_MSG_MAX);
  uint32_t n = libstats_rtslib_pack_iflstats_msg(&fixed, "ge-0/0/0", &k, out.data(), RTS_MSG_MAX);
  ASSERT_GT(n, 0u);
  gif_msg msg;
  gif_ifd parsed;
  ASSERT_EQ(gif_ifd_parse(&parsed, &msg, out.data(), n), 0);
  gif_traffic *abs = gif_abs_ifl_local_traffic(&parsed), *since = gif_ifl_local_traffic(&parsed);
  ASSERT_TRUE(abs && since);
  EXPECT_EQ(abs->in_bytes, 1300u);
  EXPECT_EQ(abs->in_packets, 13u);
  EXPECT_EQ(since->in_bytes, 1300u - 500u);  // both baselines count
  free(abs);
  free(since);
  gif_traffic *transit = gif_abs_ifl_remote_traffic(&parsed);
  ASSERT_TRUE(transit);
  EXPECT_EQ(transit->in_bytes, 55u);
  free(transit);
  gif_queue_stats *q = gif_abs_ifl_queue(&parsed);
  ASSERT_TRUE(q);
  ASSERT_EQ(q->n_queues, 3u);  // the longer set wins, the shorter adds where it has queues
  EXPECT_EQ(q->queue[0].tx_packets, 110u);
  EXPECT_EQ(q->queue[1].tx_packets, 112u);
  EXPECT_EQ(q->queue[2].tx_packets, 12u);
  free(q);

  lines.clear();
  libstats_set_log_hook(keep);
  EXPECT_EQ(libstats_rtslib_pack_iflstats_msg(&fixed, "ge-0/0/0", &k, out.data(), 100), 0u);
  EXPECT_TRUE(logged("libstats_rtslib_iflsmput() exceeded buffer of len: 100 with "));
  libstats_set_log_hook(nullptr);
}

// ---- A session against a socket of the test's ---------------------------------------------
struct Heard {
  std::vector<int> conn;
  std::vector<std::string> ifl;  // "status:index:id"
  std::vector<std::vector<uint8_t>> msgs;
  std::vector<std::string> acct;
};

class LibstatsSession : public Io {
 protected:
  std::string path;
  int listener = -1, peer = -1;
  libstats_session *s = nullptr;
  Heard heard;
  std::string root;

  void SetUp() override {
    Io::SetUp();
    lines.clear();
    libstats_set_log_hook(keep);
    char tmpl[] = "/tmp/libstats_test.XXXXXX";
    root = mkdtemp(tmpl);
    path = root + "/cntd";
    setenv("CNTD_PATH", path.c_str(), 1);
    task *app = task_alloc("app", 10, nullptr);
    task_create(app);
    s = libstats_session_create("tunechod", app);
    s->app_ctx = &heard;
    s->cb.conn = [](libstats_session *, int st, void *h) { static_cast<Heard *>(h)->conn.push_back(st); };
    s->cb.iflsetstats = [](libstats_session *ss, int st, uint32_t index, uint32_t id, const rts_ifstats_msg *m,
                           void *) {
      auto *h = static_cast<Heard *>(ss->app_ctx);
      h->ifl.push_back(std::to_string(st) + ":" + std::to_string(index) + ":" + std::to_string(id));
      if (m) h->msgs.emplace_back(reinterpret_cast<const uint8_t *>(m), reinterpret_cast<const uint8_t *>(m) + m->hdr.length);
    };
    s->cb.substats = [](libstats_session *ss, int kind, uint64_t sid, uint32_t, uint32_t err, const uint8_t *,
                        uint32_t, void *) {
      static_cast<Heard *>(ss->app_ctx)->acct.push_back(std::to_string(kind) + ":" + std::to_string(sid) + ":" +
                                                        std::to_string(err));
    };
  }
  void TearDown() override {
    libstats_session_destroy(s);
    if (peer >= 0) close(peer);
    if (listener >= 0) close(listener);
    unsetenv("CNTD_PATH");
    libstats_set_log_hook(nullptr);
    libstats_set_sleep_hook(nullptr);
    std::string cmd = "rm -rf " + root;
    EXPECT_EQ(system(cmd.c_str()), 0);
    Io::TearDown();
  }
  void listen_now() {
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 8), 0);
  }
  // Connected and identified: the peer's socket with the identification read.
  void connect_now() {
    listen_now();
    ASSERT_EQ(libstats_connect(s), LIBSTATS_SUCCESS);
    real_passes(2);
    ASSERT_EQ(heard.conn, std::vector<int>{LIBSTATS_SOCKET_OPEN});
    peer = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    ASSERT_GE(peer, 0);
    std::string ident = take();
    ASSERT_EQ(ident.size(), 20u);
    uint32_t app;
    memcpy(&app, ident.data() + 8, 4);
    EXPECT_EQ(app, 1u);  // tunechod's place in the application table
  }
  std::string take() {
    std::string out;
    char b[4096];
    ssize_t n;
    while ((n = read(peer, b, sizeof b)) > 0) out.append(b, static_cast<size_t>(n));
    return out;
  }
  // Requests on the wire: (subtype, payload) of each.
  std::vector<std::pair<uint16_t, std::string>> requests() {
    std::string all = take();
    std::vector<std::pair<uint16_t, std::string>> out;
    size_t off = 0;
    while (off + 8 <= all.size()) {
      ipc_msg h;
      memcpy(&h, all.data() + off, 8);
      out.emplace_back(uint16_t{h.subtype}, all.substr(off + 8, h.length));
      off += 8 + h.length;
    }
    return out;
  }
  void reply(uint32_t type, uint32_t id, uint64_t key, uint32_t index, uint32_t err, const std::vector<uint8_t> &t) {
    std::vector<uint8_t> m(LS_REPLY_HEAD + t.size());
    ls_reply_write(m.data(), ls_reply{type, id, 0, key, index, err, static_cast<uint32_t>(t.size()), nullptr});
    if (!t.empty()) memcpy(m.data() + LS_REPLY_HEAD, t.data(), t.size());
    ipc_msg h{IPCCONN_MSG_TYPE, static_cast<uint16_t>(type), static_cast<uint16_t>(m.size()), 1, 0};
    std::string frame(reinterpret_cast<char *>(&h), 8);
    frame.append(reinterpret_cast<char *>(m.data()), m.size());
    ASSERT_EQ(write(peer, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    real_passes(2);
  }
};

TEST_F(LibstatsSession, RequestsGoAtHighPriorityWithTheirTypeAsSubtypeAndRepliesComeBack) {
  connect_now();
  ASSERT_EQ(libstats_iflset_get_by_index(s, 12, nullptr), LIBSTATS_SUCCESS);
  real_passes(1);
  auto got = requests();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].first, LS_IFLSETSTATS_FULL_REQUEST);
  ASSERT_EQ(got[0].second.size(), 0xB9u);
  auto *p = reinterpret_cast<const uint8_t *>(got[0].second.data());
  EXPECT_EQ(ls_get32(p + 8), uint32_t{LS_IFLSETSTATS_FULL_REQUEST});
  EXPECT_EQ(ls_get32(p + 12), 12u);
  EXPECT_EQ(ls_get32(p + 16) & LS_REQ_FULL, uint32_t{LS_REQ_FULL});
  uint32_t id = ls_get32(p + 20);

  reply(LS_IFLSETSTATS_FULL_REPLY, id, 12, 0, 0, counters_tlv(LS_TLV_COUNTERS, {{RTS_IFSC_OBYTES, 77}}));
  ASSERT_EQ(heard.ifl, std::vector<std::string>{"0:12:" + std::to_string(id)});
  gif_msg msg;
  gif_ifd parsed;
  ASSERT_EQ(gif_ifd_parse(&parsed, &msg, heard.msgs[0].data(), static_cast<uint32_t>(heard.msgs[0].size())), 0);
  gif_traffic *t = gif_abs_ifl_local_traffic(&parsed);
  ASSERT_TRUE(t);
  EXPECT_EQ(t->out_bytes, 77u);
  free(t);

  // An empty reply, a failed one, and one that answers nothing asked.
  ASSERT_EQ(libstats_iflset_get_by_index(s, 13, nullptr), 0);
  ASSERT_EQ(libstats_iflset_get_by_index(s, 14, nullptr), 0);
  real_passes(1);
  requests();
  reply(LS_IFLSETSTATS_FULL_REPLY, id + 1, 13, 0, 0, {});
  reply(LS_IFLSETSTATS_FULL_REPLY, id + 2, 14, 0, EIO, {});
  reply(LS_IFLSETSTATS_FULL_REPLY, 999, 15, 0, 0, {});
  EXPECT_EQ(heard.ifl.size(), 3u);
  EXPECT_EQ(heard.ifl[1], "10:13:" + std::to_string(id + 1));
  EXPECT_EQ(heard.ifl[2], "10:14:" + std::to_string(id + 2));
  EXPECT_TRUE(logged("failed for iflindex:14 id:" + std::to_string(id + 2) + " flags:0x0 err:5, patch it to kernel"));
  EXPECT_EQ(s->counters.errors[LIBSTATS_KIND_IFLSET_FULL][LIBSTATS_ERR_PFE], 1u);
  EXPECT_EQ(s->counters.dropped, 1u);

  // Plumbing: a subscriber reply reaches the application as it came.
  reply(LS_SUBSTATS_REPLY, 1, 0x1122334455ull, LIBSTATS_KIND_SUB_FINAL, 2, {});
  EXPECT_EQ(heard.acct, std::vector<std::string>{"4:73588229205:2"});
  char report[2048];
  ASSERT_GT(libstats_report(s, report, sizeof report), 0);
  EXPECT_NE(std::string(report).find("libstats_error    PFE Error:     1-IFLSET Full Stats"), std::string::npos);
}

TEST_F(LibstatsSession, TheSequenceSkipsMinusOne) {
  connect_now();
  s->seq = 0xFFFFFFFE;
  for (int i = 0; i < 3; i++) ASSERT_EQ(libstats_iflset_get_by_index(s, 1, nullptr), 0);
  real_passes(1);
  std::vector<uint32_t> ids;
  for (auto &[sub, pl] : requests()) ids.push_back(ls_get32(reinterpret_cast<const uint8_t *>(pl.data()) + 20));
  EXPECT_EQ(ids, (std::vector<uint32_t>{0xFFFFFFFE, 0, 1}));
}

TEST_F(LibstatsSession, AFailedConnectionClearsTheClientAndTheNextSendMakesANewOne) {
  connect_now();
  close(peer);
  peer = -1;
  close(listener);
  listener = -1;
  unlink(path.c_str());
  real_passes(2);
  EXPECT_EQ(heard.conn, (std::vector<int>{LIBSTATS_SOCKET_OPEN, LIBSTATS_SOCKET_CLOSED}));
  // Retries run out only after the retry limit: give the event directly, and
  // close the client as ipcconn does after it.
  ipcconn_client *old = s->ipcconn_client;
  libstats_conn_event_handler(old, IPCCONN_EVENT_FAILED, s);
  ipcconn_client_close(old);
  EXPECT_EQ(s->ipcconn_client, nullptr);
  EXPECT_EQ(s->ipcconn_client_active, 0);
  listen_now();
  ASSERT_EQ(libstats_iflset_get_by_index(s, 5, nullptr), 0);  // connects first
  EXPECT_EQ(s->ipcconn_client_active, 1);
  real_passes(2);
  peer = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
  ASSERT_GE(peer, 0);
  auto got = requests();
  ASSERT_EQ(got.size(), 2u);  // the identification, then the request queued behind it
  EXPECT_EQ(got[1].first, LS_IFLSETSTATS_FULL_REQUEST);
}

TEST_F(LibstatsSession, ABlockingConnectTriesSixtyTimesThenFails) {
  s->session_flags |= LIBSTATS_SESSION_BLOCKING;
  static int pauses;
  pauses = 0;
  libstats_set_sleep_hook([](unsigned) { pauses++; });
  EXPECT_EQ(libstats_connect(s), LIBSTATS_SOCKET_CONNECT_FAILURE);
  EXPECT_EQ(pauses, 59);
  EXPECT_TRUE(logged("Failed to initialize the ipcconn_client connection to the cntd, errno:"));
  EXPECT_EQ(libstats_connect(nullptr), LIBSTATS_NULL_SESSION);
  EXPECT_EQ(libstats_send_msg_to_cntd(nullptr, "x", 1), LIBSTATS_NULL_SESSION);
}

TEST_F(LibstatsSession, OddMessagesAreDroppedCountedOrLogged) {
  connect_now();
  // Length 0: the soft assert, and nothing else.
  ipc_msg empty{IPCCONN_MSG_TYPE, 5, 0, 1, 0};
  EXPECT_EQ(libstats_process_msg(s->ipcconn_client, nullptr, 0, &empty, s), 0);
  EXPECT_TRUE(logged("insist 'msg->length != 0' failed"));
  EXPECT_EQ(s->counters.dropped, 1u);
  // A suspend-accounting reply is logged with its status; an unknown type counted.
  std::vector<uint8_t> m(LS_HDR_LEN + 4);
  ls_hdr_write(m.data(), static_cast<uint32_t>(m.size()), LS_SUSPEND_ACC_RESUME_REPLY);
  ls_put32(m.data() + LS_HDR_LEN, 0x2A);
  ipc_msg h{IPCCONN_MSG_TYPE, LS_SUSPEND_ACC_RESUME_REPLY, static_cast<uint16_t>(m.size()), 1, 0};
  std::string frame(reinterpret_cast<char *>(&h), 8);
  frame.append(reinterpret_cast<char *>(m.data()), m.size());
  ASSERT_EQ(write(peer, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
  real_passes(2);
  EXPECT_TRUE(logged("suspend_acc resume reply status:0x2a"));

  // Trace on (type 11) into a file under the root, then an unknown type traced there.
  tvx_path_set_root(root.c_str());
  std::vector<uint8_t> on(LS_HDR_LEN + 4 + 8, 0);
  ls_hdr_write(on.data(), static_cast<uint32_t>(on.size()), LS_TRACE_ON);
  ls_put32(on.data() + LS_HDR_LEN, LIBSTATS_TRACE_NORMAL);
  memcpy(on.data() + LS_HDR_LEN + 4, "/trace", 6);
  std::vector<uint8_t> odd(LS_HDR_LEN);
  ls_hdr_write(odd.data(), LS_HDR_LEN, 63);
  for (auto *v : {&on, &odd}) {
    alignas(8) uint8_t buf[64];
    ipc_msg hh{IPCCONN_MSG_TYPE, 1, static_cast<uint16_t>(v->size()), 1, 0};
    memcpy(buf, &hh, 8);
    memcpy(buf + 8, v->data(), v->size());
    libstats_process_msg(s->ipcconn_client, nullptr, 0, reinterpret_cast<ipc_msg *>(buf), s);
  }
  tvx_path_set_root(nullptr);
  EXPECT_EQ(s->counters.unknown, 1u);
  std::ifstream f(root + "/trace");
  std::string line;
  ASSERT_TRUE(std::getline(f, line));
  EXPECT_EQ(line, "unknown message type 63, 12 bytes");
}

TEST_F(LibstatsSession, MobileRepliesWaitForTheirRate) {
  connect_now();
  static int delivered;
  delivered = 0;
  s->cb.mobilestats = [](libstats_session *, int, uint64_t, uint32_t, uint32_t, const uint8_t *, uint32_t, void *) {
    delivered++;
  };
  for (int i = 0; i < 5; i++) reply(LS_MOBILESTATS_REPLY, static_cast<uint32_t>(i), 0, 0, 0, {});
  EXPECT_EQ(libstats_q_ingress_depth(s), 5u);
  EXPECT_EQ(libstats_update_dyn_param(s, 0x4, 2), LIBSTATS_INVALID_ARG);
  EXPECT_TRUE(logged("param_set_flag 4 ingress_q_process_rate_max=2 update failed"));
  ASSERT_EQ(libstats_update_dyn_param(s, LIBSTATS_PARAM_INGRESS_Q_RATE, 2), 0);
  EXPECT_TRUE(logged("param_set_flag 1 ingress_q_process_rate_max=2 updated successfully"));
  EXPECT_EQ(libstats_process_mobilestats_msg(s), 2u);
  EXPECT_EQ(libstats_process_mobilestats_msg(s), 2u);
  EXPECT_EQ(libstats_process_mobilestats_msg(s), 1u);
  EXPECT_EQ(delivered, 5);
}

}  // namespace
