// rtslib over the in-process peer: the handshake, gets that find, miss or get
// no answer, request building, the decoding block, raw replies, bulk mode.
#include <gtest/gtest.h>

#include "fake_peer.h"

namespace {

using samples::Arena;

using Rtslib = RtslibTest;

// ---- Open and the handshake ----------------------------------------------------------------

TEST(RtslibOpen, HandshakeSenderAndBuffers) {
  FakePeer peer;
  LogCapture log;
  rtslib_cookie *c = rtslib_open(131);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->seq, 1u);
  ASSERT_EQ(c->version_len, 111u);
  EXPECT_EQ(c->version_info[1], 98);
  EXPECT_EQ(c->version_info[89 + 1], 98);
  EXPECT_EQ(peer.options[RTS_OPT_SENDER_ID], FakePeer::Msg{131});
  EXPECT_EQ(peer.socket_options[SO_SNDBUF], 0x80000);
  EXPECT_EQ(peer.socket_options[SO_RCVBUF], 0x80000);
  EXPECT_TRUE(log.lines.empty()) << log.lines[0].second;
  rtslib_close(c);
  EXPECT_FALSE(peer.is_open);
}

TEST(RtslibOpen, InterfaceVersionOtherThan98Refuses) {
  FakePeer peer;
  LogCapture log;
  peer.versions[1] = 97;
  EXPECT_EQ(rtslib_open(131), nullptr);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL,
                      "rtslib: FATAL ERROR interface version mismatch: kernel=97 library=98,a reboot or "
                      "software upgrade may be required"));
  EXPECT_FALSE(peer.is_open);
}

TEST(RtslibOpen, DefaultSinkEndsTheProcessOnAFatalLine) {
  EXPECT_EXIT(
      {
        FakePeer peer;
        peer.versions[1] = 99;
        rtslib_open(131);
      },
      ::testing::ExitedWithCode(1), "");
}

TEST(RtslibOpen, TypeCountAndVersionsWarn) {
  struct Case {
    uint8_t count;
    int level;
    const char *text;
  } cases[] = {
      {111, RTSLIB_LOG_WARNING, "kernel has new unknown messages: expected 110 got 111"},
      {109, RTSLIB_LOG_ERROR, "kernel does not support all messages: expected 110 got 109"},
  };
  for (const Case &k : cases) {
    FakePeer peer;
    LogCapture log;
    peer.versions[0] = k.count;
    peer.versions[89 + 1] = 97;
    rtslib_cookie *c = rtslib_open(131);
    ASSERT_NE(c, nullptr) << "a count other than 110 only warns";
    EXPECT_TRUE(log.has(k.level, k.text));
    EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "version mismatch for msg bridge-domain (89): expected 98 got 97"));
    EXPECT_EQ(log.lines.size(), 2u);
    rtslib_close(c);
  }
}

TEST(RtslibOpen, FailuresOfTheSocketAndOfMemory) {
  FakePeer peer;
  LogCapture log;
  peer.open_errno = ECONNREFUSED;
  EXPECT_EQ(rtslib_open(131), nullptr);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "rtslib_connect(): Failed to open a new routing socket with errno 111"));

  peer.open_errno = 0;
  static int fail_id;
  rtslib_mem_hooks hooks = {
      [](int id, size_t n) { return id == fail_id ? nullptr : malloc(n); },
      [](int id, size_t k, size_t n) { return id == fail_id ? nullptr : calloc(k, n); },
      [](int, void *p, size_t n) { return realloc(p, n); }, [](int, void *p) { free(p); }};
  rtslib_mem_hooks_set(&hooks);
  fail_id = RTSLIB_MEM_COOKIE;
  EXPECT_EQ(rtslib_open(131), nullptr);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to allocate memory for rtslib_cookie"));
  fail_id = RTSLIB_MEM_READBUF;
  EXPECT_EQ(rtslib_open(131), nullptr);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to allocate memory for rtslib cookie read_buffer"));
  fail_id = -1;
  rtslib_cookie *c = rtslib_open(131);
  ASSERT_NE(c, nullptr);
  fail_id = RTSLIB_MEM_MSG;
  rts_rt_msg *rt;
  EXPECT_EQ(rtslib_rtm_get(c, 0, 2, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), ENOMEM);
  rtslib_mem_hooks_set(nullptr);
  rtslib_close(c);
}

TEST_F(Rtslib, SetBuffersRefusesSizes) {
  EXPECT_EQ(rtslib_set_buffers(c, 0, 10), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Attempted to set an invalid send buffer size 0"));
  EXPECT_EQ(rtslib_set_buffers(c, 10, -1), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Attempted  to set an invalid receive buffer size -1"));
  EXPECT_EQ(rtslib_set_buffers(nullptr, 10, 10), EINVAL);
  EXPECT_EQ(rtslib_set_buffers(c, 65000, 65000), 0);
  EXPECT_EQ(peer.socket_options[SO_RCVBUF], 65000);
}

// ---- Gets ---------------------------------------------------------------------------------------

TEST_F(Rtslib, RouteGetFindsMissesOrGetsNoAnswer) {
  samples::Store st;
  rts_rt_msg answer = samples::route(st);
  const uint8_t key[10] = {0, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  int verdict = 0;
  bool answers = true;
  peer.on_write = [&](const FakePeer::Msg &) {
    answer.hdr.seq = c->seq - 1;  // the answer carries the request's number
    if (answers && !verdict) peer.reply(RTS_T_ROUTE, &answer, true);
    return verdict;
  };
  rts_rt_msg *rt = nullptr;
  ASSERT_EQ(rtslib_rtm_get(c, 7, RTS_AF_BRIDGE, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), 0);
  ASSERT_NE(rt, nullptr);
  EXPECT_EQ(rt->rtm_type, 2);
  EXPECT_EQ(rt->rtm_nh_index, 1234u);
  EXPECT_EQ(rt->rtm_attr_set->ras_count, 2u);
  rtslib_msg_idl_release(c, rt);

  // The request: table, family, and the 80-bit key as 10 bytes and 2 of padding.
  Arena a;
  auto *req = peer.request<rts_rt_msg>(a);
  ASSERT_NE(req, nullptr);
  EXPECT_EQ(req->hdr.version, 104);
  EXPECT_EQ(req->hdr.operation, RTS_OP_GET);
  EXPECT_EQ(req->hdr.seq, 1u);
  EXPECT_EQ(req->hdr.sender, 131u);
  EXPECT_EQ(req->hdr.size, 240);
  EXPECT_EQ(req->rtm_table, 7);
  EXPECT_EQ(req->rtm_prefix_bits, 80);
  EXPECT_EQ(req->rtm_prefix_plen, 12);
  EXPECT_EQ(memcmp(req->rtm_prefix, key, 10), 0);
  EXPECT_EQ(req->rtm_prefix[10] | req->rtm_prefix[11], 0);
  EXPECT_EQ(rtslib_msglen, peer.written.back().size());

  verdict = ENOENT;
  rt = reinterpret_cast<rts_rt_msg *>(1);
  EXPECT_EQ(rtslib_rtm_get(c, 7, RTS_AF_BRIDGE, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), ENOENT);
  EXPECT_EQ(rt, nullptr);

  verdict = 0;
  answers = false;
  rt = reinterpret_cast<rts_rt_msg *>(1);
  EXPECT_EQ(rtslib_rtm_get(c, 7, RTS_AF_BRIDGE, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), EAGAIN);
  EXPECT_EQ(rt, nullptr);
  EXPECT_EQ(c->seq, 4u);
}

TEST_F(Rtslib, NullResultAndWriteOnlyOperations) {
  EXPECT_EQ(rtslib_rtm_get(c, 0, 2, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, nullptr, 0), EINVAL);
  EXPECT_EQ(rtslib_rtm_get(c, 0, 2, nullptr, 0, 0, 0, 0, 0, RTS_OP_GETNEXT, nullptr, 0), EINVAL);
  EXPECT_TRUE(peer.written.empty());
  peer.queue.push_back(FakePeer::Msg(40, 0));  // not to be read by a write-only call
  EXPECT_EQ(rtslib_rtm_get(c, 0, 2, "\x0a", 8, 0, 0, 0, 0, RTS_OP_ADD, nullptr, 0), 0);
  EXPECT_EQ(peer.written.size(), 1u);
  EXPECT_EQ(peer.queue.size(), 1u);
  rts_rt_msg *rt;
  EXPECT_EQ(rtslib_rtm_get(nullptr, 0, 2, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), EINVAL);
  rts_ifd_msg *ifd;
  EXPECT_EQ(rtslib_ifdm_get_by_snmp_index(c, 16, RTS_OP_GETNEXT, &ifd, 0), EINVAL);
  rtslib_msg_idl_release(nullptr, nullptr);
  rtslib_msg_idl_release(c, nullptr);
}

TEST_F(Rtslib, InterfaceNamesAreCutTo59AndANul) {
  std::string name(70, 'x');
  for (size_t i = 0; i < name.size(); i++) name[i] = static_cast<char>('a' + i % 26);
  peer.on_write = [](const FakePeer::Msg &) { return ENOENT; };
  rts_ifl_msg *ifl;
  EXPECT_EQ(rtslib_iflm_get_by_name(c, name.c_str(), 3, RTS_OP_GET, &ifl, 0), ENOENT);
  Arena a;
  auto *req = peer.request<rts_ifl_msg>(a);
  ASSERT_NE(req, nullptr);
  EXPECT_EQ(req->iflm_name_len, 60u);
  EXPECT_EQ(std::string(req->iflm_name), name.substr(0, 59));
  EXPECT_EQ(req->iflm_unit, 3u);
  // An empty name is one NUL byte.
  EXPECT_EQ(rtslib_ifdm_get_by_name(c, "", RTS_OP_GET, reinterpret_cast<rts_ifd_msg **>(&ifl), 0), ENOENT);
  auto *ifd = peer.request<rts_ifd_msg>(a);
  EXPECT_EQ(ifd->ifdm_name_len, 1u);
  EXPECT_EQ(ifd->ifdm_name[0], 0);
}

rts_nh_msg nh_dummy;

TEST_F(Rtslib, EveryGetBuildsItsKey) {
  peer.on_write = [](const FakePeer::Msg &) { return ENOENT; };
  Arena a;
  rts_ifa_msg *ifa;
  const uint8_t local[4] = {192, 168, 1, 1}, dest[4] = {10, 0, 0, 2};
  rtslib_ifam_get_by_local_dest(c, 70, 2, dest, 32, local, 32, RTS_OP_GET, &ifa, 0);
  auto *r = peer.request<rts_ifa_msg>(a);
  EXPECT_EQ(r->ifam_ifl_index, 70u);
  EXPECT_EQ(memcmp(r->ifam_local, local, 4), 0);
  EXPECT_EQ(memcmp(r->ifam_dest, dest, 4), 0);
  rtslib_ifam_get_by_dest(c, 70, 2, dest, 24, RTS_OP_GET, &ifa, 0);
  r = peer.request<rts_ifa_msg>(a);
  EXPECT_EQ(r->ifam_local_bits, 0);
  EXPECT_EQ(r->ifam_dest_bits, 24);
  EXPECT_EQ(r->ifam_dest[3], 0) << "only (bits + 7) / 8 bytes are copied";
  rts_rtb_msg *rtb;
  rtslib_rtbm_get_by_name(c, 2, "vs1.inet", &rtb, 0);
  auto *t = peer.request<rts_rtb_msg>(a);
  EXPECT_EQ(t->rtbm_index, RTS_RTB_INDEX_BY_NAME);
  EXPECT_EQ(t->hdr.operation, RTS_OP_GET);
  EXPECT_STREQ(t->rtbm_name, "vs1.inet");
  rts_iff_msg *iff;
  rtslib_iffm_get_by_index(c, 70, 28, RTS_OP_GETNEXT, &iff, 0);
  auto *f = peer.request<rts_iff_msg>(a);
  EXPECT_EQ(f->iffm_af, 28);
  EXPECT_EQ(f->hdr.operation, RTS_OP_GETNEXT);
  EXPECT_EQ(f->hdr.version, 102);
  rts_rtmatch_msg *m;
  rtslib_rtmatch_by_prefix(c, 0, 2, RTS_OP_GET, dest, 32, &m, 0);
  EXPECT_EQ(peer.request<rts_rtmatch_msg>(a)->rtmm_prefix[3], 2);
  rts_nh_msg *nh = &nh_dummy;
  EXPECT_EQ(rtslib_rnhm_get_by_index(c, 1234, RTS_OP_GETNEXT, &nh, 0), ENOENT);
  EXPECT_EQ(nh, nullptr);
  auto *n = peer.request<rts_nh_msg>(a);
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->nhm_index, 1234u);
  EXPECT_EQ(n->hdr.type, RTS_T_NEXTHOP);
  EXPECT_EQ(n->hdr.version, 109);
  EXPECT_EQ(n->hdr.operation, RTS_OP_GETNEXT);
  EXPECT_EQ(n->hdr.size, 732);
}

TEST_F(Rtslib, NexthopGetReadsItsAnswer) {
  samples::Store st;
  rts_nh_msg answer = samples::nh(st);
  peer.on_write = [&](const FakePeer::Msg &) {
    answer.hdr.seq = c->seq - 1;
    peer.reply(RTS_T_NEXTHOP, &answer, true);
    return 0;
  };
  rts_nh_msg *nh = nullptr;
  ASSERT_EQ(rtslib_rnhm_get_by_index(c, 1234, RTS_OP_GET, &nh, 0), 0);
  EXPECT_EQ(nh->nhm_ifl_index, 70u);
  EXPECT_EQ(nh->nhm_gw_bits, 32);
  EXPECT_EQ(nh->nhm_gw[0], 0xc0);
  rtslib_msg_idl_release(c, nh);
  EXPECT_EQ(rtslib_rnhm_get_by_index(c, 1234, RTS_OP_GET, nullptr, 0), EINVAL);
}

// A route whose attribute list holds 128 understood values and `rest` bytes
// of attributes not understood: its decoded form is larger than its encoding.
std::vector<uint8_t> attr_list(size_t rest) {
  std::vector<uint8_t> v;
  for (int i = 0; i < 128; i++) v.insert(v.end(), {4, 0, 8, 0, 1, 0, 0, 0});
  while (rest >= 8) {
    v.insert(v.end(), {5, 0, 8, 0, 2, 0, 0, 0});
    rest -= 8;
  }
  return v;
}

TEST_F(Rtslib, DecodingBlockGrows) {
  static std::vector<size_t> sizes;
  rtslib_mem_hooks hooks = {
      [](int id, size_t n) {
        if (id == RTSLIB_MEM_MSG) sizes.push_back(n);
        return malloc(n);
      },
      [](int, size_t k, size_t n) { return calloc(k, n); },
      [](int, void *p, size_t n) { return realloc(p, n); }, [](int, void *p) { free(p); }};
  samples::Store st;
  rts_rt_msg rt = samples::route(st);
  // An envelope of 16384 bytes or less decodes in a 16384-byte block, growing
  // by 1024 as long as the decode runs out of room.
  auto attrs = attr_list(7000);
  rt.rtm_attrs = attrs.data();
  rt.rtm_attrs_len = static_cast<uint32_t>(attrs.size());
  peer.reply(RTS_T_ROUTE, &rt, true);
  ASSERT_LE(peer.queue.back().size(), 16384u);
  sizes.clear();
  rtslib_mem_hooks_set(&hooks);
  void *msg;
  ASSERT_EQ(rtslib_msg_read_idl(c, &msg), 0);
  rtslib_mem_hooks_set(nullptr);
  auto *got = static_cast<rts_rt_msg *>(msg);
  EXPECT_EQ(got->rtm_attr_set->ras_count, 128u);
  EXPECT_EQ(got->rtm_attr_set->ras_rest_len, 7000u);
  EXPECT_TRUE(log.has(RTSLIB_LOG_DEBUG, "Insufficient buffer. Growing the buffer and retrying"));
  // The read, then blocks of 16384, 17408, ... until one is large enough.
  ASSERT_GE(sizes.size(), 4u);
  for (size_t i = 1; i < sizes.size(); i++) EXPECT_EQ(sizes[i], 16384u + 1024 * (i - 1));
  rtslib_msg_idl_release(c, msg);

  // One longer than 16384 starts at its length plus 1024.
  attrs = attr_list(17000);
  rt.rtm_attrs = attrs.data();
  rt.rtm_attrs_len = static_cast<uint32_t>(attrs.size());
  peer.reply(RTS_T_ROUTE, &rt, false);
  uint32_t env;
  memcpy(&env, peer.queue.back().data() + 4, 4);
  sizes.clear();
  rtslib_mem_hooks_set(&hooks);
  ASSERT_EQ(rtslib_msg_read_idl(c, &msg), 0);
  rtslib_mem_hooks_set(nullptr);
  ASSERT_GE(sizes.size(), 2u);
  EXPECT_EQ(sizes[1], env + 1024u);
  EXPECT_GE(sizes[1], 17409u);
  EXPECT_EQ(static_cast<rts_rt_msg *>(msg)->rtm_attr_set->ras_rest_len, 17000u);
  rtslib_msg_idl_release(c, msg);
}

TEST_F(Rtslib, RecordShorterThanAHeaderReadsAsNothingQueued) {
  // Fewer bytes than the 24 of the header's peek: the would-block result, as
  // on an empty socket, and the record stays where it is.
  peer.queue.push_back({1, 2, 3, 4, 5});
  void *msg = &msg;
  uint8_t *buf;
  uint32_t len;
  errno = 0;
  EXPECT_EQ(rtslib_msg_read(c, &buf, &len), EAGAIN);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(rtslib_msg_read_idl(c, &msg), EAGAIN);
  EXPECT_EQ(msg, nullptr);
  EXPECT_EQ(peer.queue.size(), 1u);
  EXPECT_TRUE(log.lines.empty()) << log.lines[0].second;
  // A get behind it finds no answer either.
  rts_rt_msg *rt;
  EXPECT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), EAGAIN);
  EXPECT_EQ(peer.queue.size(), 1u);
}

TEST_F(Rtslib, RawReplyLongerThanItsLengthWordIsCutWithAWarning) {
  rts_ifstats_msg raw{};
  raw.hdr.type = RTS_T_IFDSTATS;
  raw.hdr.length = sizeof raw;
  raw.hdr.seq = c->seq - 1;
  raw.ifsm_index = 9;
  FakePeer::Msg m(reinterpret_cast<uint8_t *>(&raw), reinterpret_cast<uint8_t *>(&raw) + sizeof raw);
  m.resize(sizeof raw + 16, 0xee);
  peer.queue.push_back(m);
  uint8_t *buf = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(rtslib_msg_read(c, &buf, &len), 0);
  EXPECT_EQ(len, sizeof raw);
  EXPECT_EQ(reinterpret_cast<rts_ifstats_msg *>(buf)->ifsm_index, 9u);
  rtslib_msg_free(c, buf);
  EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "rtslib: WARNING msg read too long got (100), expected 84"));
  // And a statistics get takes such a reply as its answer.
  peer.on_write = [&](const FakePeer::Msg &w) {
    rts_ifstats_msg req;
    memcpy(&req, w.data(), sizeof req);
    raw.hdr.seq = req.hdr.seq;
    FakePeer::Msg r(reinterpret_cast<uint8_t *>(&raw), reinterpret_cast<uint8_t *>(&raw) + sizeof raw);
    r.resize(sizeof raw + 8);
    peer.queue.push_back(r);
    return 0;
  };
  rts_ifstats_msg *st = nullptr;
  ASSERT_EQ(rtslib_ifdsm_get_by_index(c, 9, &st), 0);
  EXPECT_EQ(st->ifsm_index, 9u);
  rtslib_msg_idl_release(c, st);
  EXPECT_TRUE(log.has(RTSLIB_LOG_WARNING, "msg read too long got (92), expected 84"));
}

TEST_F(Rtslib, BadRepliesAreRefused) {
  void *msg;
  // An envelope that does not decode.
  FakePeer::Msg garbled = {0x22, 0x50, 0, 0, 16, 0, 0, 0, 89, 0, 0, 0};
  for (int i = 0; i < 16; i++) garbled.push_back(0xff);
  peer.queue.push_back(garbled);
  EXPECT_EQ(rtslib_msg_read_idl(c, &msg), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_DEBUG, "IDL IDR Decode Error -1(Garbled Message)"));
  // A raw message is not an envelope.
  EXPECT_EQ(rtslib_msg_decode(c, garbled.data(), 3, &msg), EOPNOTSUPP);
  FakePeer::Msg raw(28, 0);
  EXPECT_EQ(rtslib_msg_decode(c, raw.data(), 28, &msg), EOPNOTSUPP);
  EXPECT_EQ(msg, nullptr);
}

TEST_F(Rtslib, RawStatisticsAndTheSequenceCheck) {
  rts_ifstats_msg answer{};
  answer.hdr.type = RTS_T_IFLSTATS;
  answer.hdr.length = sizeof answer;
  answer.ifsm_index = 70;
  answer.ifsm_ibps = 12345;
  uint32_t seq_delta = 0;
  peer.on_write = [&](const FakePeer::Msg &m) {
    rts_ifstats_msg req;
    memcpy(&req, m.data(), sizeof req);
    answer.hdr.seq = req.hdr.seq + seq_delta;
    peer.queue.emplace_back(reinterpret_cast<uint8_t *>(&answer), reinterpret_cast<uint8_t *>(&answer) + sizeof answer);
    return 0;
  };
  rts_ifstats_msg *st;
  ASSERT_EQ(rtslib_iflsm_get_by_index(c, 70, &st), 0);
  EXPECT_EQ(uint64_t{st->ifsm_ibps}, 12345u);
  rtslib_msg_idl_release(c, st);
  EXPECT_EQ(peer.written.back().size(), sizeof(rts_ifstats_msg));
  EXPECT_EQ(peer.written.back()[0] | peer.written.back()[1], 0) << "a raw record starts with a zero word";

  static uint32_t got_expected, got_seq;
  rtslib_seq_error_register(c, [](rtslib_cookie *, void *, uint32_t e, uint32_t g) { got_expected = e, got_seq = g; },
                            nullptr);
  seq_delta = 5;
  EXPECT_EQ(rtslib_iflsm_get_by_index(c, 70, &st), -2);
  EXPECT_EQ(got_seq, got_expected + 5);
  EXPECT_EQ(st, nullptr);
}

// ---- Bulk mode ----------------------------------------------------------------------------------

TEST_F(Rtslib, BulkModeBatchesAndResumesBehindAFailure) {
  EXPECT_EQ(rtslib_set_sync_mode(c, 2), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "rtslib_set_sync_mode: Unsupported setting for sync mode 2"));
  peer.socket_options[SO_SNDBUF] = 700;
  peer.socket_options[SO_RCVBUF] = 100000;
  ASSERT_EQ(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE), 0);
  EXPECT_EQ(peer.options[RTS_OPT_SYNC_MODE], (FakePeer::Msg{1, 0, 0, 0}));
  EXPECT_EQ(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE), EINVAL);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "RTS_SYNC_BULK_ENABLE has already been set!"));

  // Eight gets of bridge domains 1..8; the peer knows all but 3. A batch is
  // what fits in 700 bytes (three); the peer answers each batch in one record.
  samples::Store st;
  std::vector<rts_bd_msg> reqs(8);
  std::vector<rtslib_bulk_iov> iov(8);
  for (int i = 0; i < 8; i++) {
    reqs[i].hdr.type = RTS_T_BRIDGE_DOMAIN;
    reqs[i].hdr.version = 98;
    reqs[i].hdr.operation = RTS_OP_GET;
    reqs[i].bdm_index = static_cast<uint16_t>(i + 1);
    iov[i].rbi_msg = &reqs[i];
  }
  int writes = 0;
  peer.on_write = [&](const FakePeer::Msg &m) {
    writes++;
    FakePeer::Msg answers;
    uint32_t accepted = 0, total = 0;
    int err = 0;
    for (size_t pos = 0; pos + 12 <= m.size();) {
      uint32_t len;
      memcpy(&len, m.data() + pos + 4, 4);
      Arena a;
      rts_msg_pair out{};
      rts_idr_decode(&out, m.data() + pos, len + 12, Arena::alloc, &a);
      auto *bd = static_cast<rts_bd_msg *>(out.record);
      pos += len + 12;
      total++;
      if (err) continue;
      if (bd->bdm_index == 3) {
        err = ENOENT;
        continue;
      }
      rts_bd_msg ans = samples::bd(st);
      ans.bdm_index = bd->bdm_index;
      ans.vnid = 1000u + bd->bdm_index;
      ans.hdr.seq = bd->hdr.seq;
      ans.hdr.operation = bd->hdr.operation;
      peer.reply(RTS_T_BRIDGE_DOMAIN, &ans, true);
      answers.insert(answers.end(), peer.queue.back().begin(), peer.queue.back().end());
      peer.queue.pop_back();
      accepted++;
    }
    peer.queue.push_back(answers);
    peer.bulk_status[0] = static_cast<uint32_t>(err);
    peer.bulk_status[1] = accepted;
    peer.bulk_status[2] = total;
    return err;
  };
  EXPECT_EQ(rtslib_msg_writev_idl(c, 8, iov.data(), nullptr), ENOENT);
  EXPECT_EQ(writes, 3) << "1-3 (3 fails), 4-6, 7-8";
  for (int i = 0; i < 8; i++) {
    SCOPED_TRACE(i);
    if (i == 2) {
      EXPECT_EQ(iov[i].rbi_write_error, ENOENT);
      EXPECT_EQ(iov[i].rbi_reply, nullptr);
      continue;
    }
    EXPECT_EQ(iov[i].rbi_write_error, 0);
    EXPECT_EQ(iov[i].rbi_read_error, 0);
    ASSERT_NE(iov[i].rbi_reply, nullptr);
    EXPECT_EQ(static_cast<rts_bd_msg *>(iov[i].rbi_reply)->vnid, 1001u + i);
    rtslib_msg_idl_release(c, iov[i].rbi_reply);
  }
}

TEST_F(Rtslib, BulkNeedsTheModeAndRoomForOneMessage) {
  rts_bd_msg bd{};
  bd.hdr.type = RTS_T_BRIDGE_DOMAIN;
  rtslib_bulk_iov iov{&bd, nullptr, 0, 0};
  EXPECT_EQ(rtslib_msg_writev_idl(c, 1, &iov, nullptr), EINVAL);
  peer.socket_options[SO_SNDBUF] = 64;
  ASSERT_EQ(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE), 0);
  EXPECT_EQ(rtslib_msg_writev_idl(c, 1, &iov, nullptr), EMSGSIZE);
  EXPECT_TRUE(log.has(RTSLIB_LOG_FATAL, "Cookie buffer(64) not big enough for even one message("));
}

// ---- Log ----------------------------------------------------------------------------------------

TEST_F(Rtslib, LogLinesArePrefixedCutAndKeepErrno) {
  rtslib_log(c, RTSLIB_LOG_INFO, "hello %d", 5);
  EXPECT_EQ(log.lines.back().second, "rtslib: INFO hello 5");
  std::string longer(400, 'z');
  errno = EPIPE;
  rtslib_log(c, RTSLIB_LOG_DEBUG, "%s", longer.c_str());
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(log.lines.back().second.size(), 255u);
  size_t before = log.lines.size();
  rtslib_lib_error_register(c, nullptr, nullptr);
  rtslib_log(c, RTSLIB_LOG_ERROR, "silent");
  EXPECT_EQ(log.lines.size(), before);
}

}  // namespace
