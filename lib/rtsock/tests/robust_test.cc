// rtslib against a peer that misbehaves or is late: a failed batch that the
// peer calls accepted, replies that answer an earlier request, records whose
// header names another type than their envelope, lengths that lie.
#include <gtest/gtest.h>

#include "fake_peer.h"

namespace {

using samples::Arena;

using Robust = RtslibTest;

// The largest block asked of the hooks; anything over 1 MiB is refused.
size_t largest;
const rtslib_mem_hooks kCapped = {
    [](int, size_t n) {
      largest = n > largest ? n : largest;
      return n > (1u << 20) ? nullptr : malloc(n);
    },
    [](int, size_t k, size_t n) { return calloc(k, n); },
    [](int, void *p, size_t n) { return realloc(p, n); }, [](int, void *p) { free(p); }};

struct CappedMemory {
  CappedMemory() {
    largest = 0;
    rtslib_mem_hooks_set(&kCapped);
  }
  ~CappedMemory() { rtslib_mem_hooks_set(nullptr); }
};

FakePeer::Msg raw_record(const void *p, size_t n) {
  auto *b = static_cast<const uint8_t *>(p);
  return FakePeer::Msg(b, b + n);
}

// ---- Bulk writes ------------------------------------------------------------------------------

TEST_F(Robust, BatchRefusedWithEveryMessageAcceptedStaysInsideTheArray) {
  // The peer took all three but could not queue their replies: it fails the
  // write and reports three of three accepted.
  peer.socket_options[SO_SNDBUF] = 4096;
  peer.socket_options[SO_RCVBUF] = 4096;
  ASSERT_EQ(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE), 0);
  std::vector<rts_bd_msg> reqs(3);
  std::vector<rtslib_bulk_iov> iov(4);
  for (int i = 0; i < 3; i++) {
    reqs[i].hdr.type = RTS_T_BRIDGE_DOMAIN;
    reqs[i].hdr.operation = RTS_OP_GET;
    reqs[i].bdm_index = static_cast<uint16_t>(i + 1);
    iov[i].rbi_msg = &reqs[i];
  }
  iov[3].rbi_write_error = 12345;  // not the caller's to lose
  peer.on_write = [&](const FakePeer::Msg &) {
    peer.bulk_status[0] = EAGAIN;
    peer.bulk_status[1] = 3;
    peer.bulk_status[2] = 3;
    return EAGAIN;
  };
  EXPECT_EQ(rtslib_msg_writev_idl(c, 3, iov.data(), nullptr), EAGAIN);
  EXPECT_EQ(iov[3].rbi_write_error, 12345);
  EXPECT_EQ(peer.written.size(), 1u);
  for (int i = 0; i < 3; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(iov[i].rbi_write_error, 0);
    EXPECT_EQ(iov[i].rbi_read_error, EAGAIN) << "its reply was never queued";
    EXPECT_EQ(iov[i].rbi_reply, nullptr);
  }

  // A peer that claims more than the batch held is taken at the batch's size.
  peer.bulk_status[1] = 1000;
  EXPECT_EQ(rtslib_msg_writev_idl(c, 2, iov.data(), nullptr), EAGAIN);
  EXPECT_EQ(iov[2].rbi_write_error, 0);
  EXPECT_EQ(iov[3].rbi_write_error, 12345);
}

TEST_F(Robust, BulkRepliesOfAnEarlierRequestAreNotTaken) {
  peer.socket_options[SO_SNDBUF] = 4096;
  peer.socket_options[SO_RCVBUF] = 65536;
  ASSERT_EQ(rtslib_set_sync_mode(c, RTS_SYNC_BULK_ENABLE), 0);
  samples::Store st;
  rts_bd_msg req{};
  req.hdr.type = RTS_T_BRIDGE_DOMAIN;
  req.hdr.operation = RTS_OP_GET;
  req.bdm_index = 9;
  rtslib_bulk_iov iov{&req, nullptr, 0, 0};
  peer.on_write = [&](const FakePeer::Msg &) {
    // A late answer to an earlier get, then this one's, in one record.
    rts_bd_msg ans = samples::bd(st);
    ans.hdr.operation = RTS_OP_GET;
    FakePeer::Msg both;
    ans.hdr.seq = req.hdr.seq - 1;
    ans.vnid = 1;
    peer.reply(RTS_T_BRIDGE_DOMAIN, &ans, true);
    both = peer.queue.back();
    peer.queue.pop_back();
    ans.hdr.seq = req.hdr.seq;
    ans.vnid = 2;
    peer.reply(RTS_T_BRIDGE_DOMAIN, &ans, true);
    both.insert(both.end(), peer.queue.back().begin(), peer.queue.back().end());
    peer.queue.back() = both;
    return 0;
  };
  c->seq = 5;
  EXPECT_EQ(rtslib_msg_writev_idl(c, 1, &iov, nullptr), 0);
  ASSERT_NE(iov.rbi_reply, nullptr);
  EXPECT_EQ(static_cast<rts_bd_msg *>(iov.rbi_reply)->vnid, 2u);
  rtslib_msg_idl_release(c, iov.rbi_reply);
}

// ---- Replies that answer something else -------------------------------------------------------

TEST_F(Robust, GetNeverReturnsTheReplyOfAnEarlierRequest) {
  samples::Store st;
  rts_rt_msg answer = samples::route(st);
  const uint8_t key[4] = {10, 0, 0, 1};
  std::function<void(uint32_t)> replies;
  int verdict = 0;
  peer.on_write = [&](const FakePeer::Msg &) {
    uint32_t seq = c->seq - 1;
    if (replies) replies(seq);
    return verdict;
  };
  auto route_reply = [&](uint32_t seq, uint32_t nh) {
    answer.hdr.seq = seq;
    answer.rtm_nh_index = nh;
    peer.reply(RTS_T_ROUTE, &answer, true);
  };

  // The peer's verdict is late: the get gives up, and its reply arrives
  // with the next request's.
  verdict = ETIMEDOUT;
  rts_rt_msg *rt = nullptr;
  EXPECT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, key, 32, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), ETIMEDOUT);
  EXPECT_EQ(rt, nullptr);
  verdict = 0;
  replies = [&](uint32_t seq) {
    route_reply(seq - 1, 111);  // the late one
    rts_bd_msg note = samples::bd(st);
    note.hdr.seq = seq;  // a notification that happens to share the number
    peer.reply(RTS_T_BRIDGE_DOMAIN, &note, true);
    route_reply(seq, 222);
  };
  ASSERT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, key, 32, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), 0);
  ASSERT_NE(rt, nullptr);
  EXPECT_EQ(rt->rtm_nh_index, 222u);
  EXPECT_EQ(rt->hdr.seq, c->seq - 1);
  rtslib_msg_idl_release(c, rt);
  EXPECT_TRUE(peer.queue.empty());

  // Only stale replies queued: no answer, and none left behind.
  replies = [&](uint32_t seq) {
    route_reply(seq - 3, 1);
    route_reply(seq - 2, 2);
  };
  EXPECT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, key, 32, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), EAGAIN);
  EXPECT_EQ(rt, nullptr);
  EXPECT_TRUE(peer.queue.empty());
}

TEST_F(Robust, UndecodableRecordInFrontOfTheAnswerDoesNotHideIt) {
  samples::Store st;
  rts_rt_msg answer = samples::route(st);
  FakePeer::Msg garbled = {0x22, 0x50, 0, 0, 16, 0, 0, 0, 2, 0, 0, 0};
  garbled.resize(28, 0xff);
  bool with_answer = true;
  peer.on_write = [&](const FakePeer::Msg &) {
    peer.queue.push_back(garbled);
    answer.hdr.seq = c->seq - 1;
    if (with_answer) peer.reply(RTS_T_ROUTE, &answer, false);
    return 0;
  };
  rts_rt_msg *rt = nullptr;
  ASSERT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), 0);
  EXPECT_EQ(rt->rtm_nh_index, 1234u);
  rtslib_msg_idl_release(c, rt);
  // With no answer behind them, the first error is the get's.
  with_answer = false;
  EXPECT_EQ(rtslib_rtm_get(c, 0, RTS_AF_INET, nullptr, 0, 0, 0, 0, 0, RTS_OP_GET, &rt, 0), EINVAL);
  EXPECT_TRUE(peer.queue.empty());
}

TEST_F(Robust, RawStatisticsSkipStaleReplies) {
  rts_ifstats_msg answer{};
  answer.hdr.type = RTS_T_IFDSTATS;
  answer.hdr.length = sizeof answer;
  answer.ifsm_index = 3;
  static int mismatches;
  mismatches = 0;
  rtslib_seq_error_register(c, [](rtslib_cookie *, void *, uint32_t, uint32_t) { mismatches++; }, nullptr);
  peer.on_write = [&](const FakePeer::Msg &m) {
    rts_ifstats_msg req;
    memcpy(&req, m.data(), sizeof req);
    answer.hdr.seq = req.hdr.seq - 1;
    answer.ifsm_ibps = 1;
    peer.queue.push_back(raw_record(&answer, sizeof answer));
    answer.hdr.type = RTS_T_IFLSTATS;  // right number, wrong type
    answer.hdr.seq = req.hdr.seq;
    peer.queue.push_back(raw_record(&answer, sizeof answer));
    answer.hdr.type = RTS_T_IFDSTATS;
    answer.ifsm_ibps = 2;
    peer.queue.push_back(raw_record(&answer, sizeof answer));
    return 0;
  };
  rts_ifstats_msg *st = nullptr;
  ASSERT_EQ(rtslib_ifdsm_get_by_index(c, 3, &st), 0);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(uint64_t{st->ifsm_ibps}, 2u);
  EXPECT_EQ(mismatches, 0);
  EXPECT_TRUE(peer.queue.empty());
  rtslib_msg_idl_release(c, st);
}

// ---- One checked type ---------------------------------------------------------------------------

TEST_F(Robust, HeaderTypeOtherThanTheEnvelopesIsRefused) {
  samples::Store st;
  rts_rt_msg rt = samples::route(st);
  rt.hdr.type = RTS_T_BRIDGE_DOMAIN;  // a route that calls itself a bridge domain
  for (bool tlv : {false, true}) {
    SCOPED_TRACE(tlv ? "TLV" : "IDR");
    peer.reply(RTS_T_ROUTE, &rt, tlv);
    void *msg = reinterpret_cast<void *>(1);
    EXPECT_EQ(rtslib_msg_read_idl(c, &msg), EINVAL);
    EXPECT_EQ(msg, nullptr);
    if (msg && msg != reinterpret_cast<void *>(1)) {
      EXPECT_EQ(static_cast<rts_msg_hdr *>(msg)->type, RTS_T_ROUTE);
      rtslib_msg_idl_release(c, msg);
    }
  }
  // The codecs themselves say garbled.
  rts_msg_pair pair{RTS_T_ROUTE, &rt};
  std::vector<uint8_t> wire(static_cast<size_t>(rts_idr_encode(&pair, nullptr, 0)));
  rts_idr_encode(&pair, wire.data(), static_cast<uint32_t>(wire.size()));
  Arena a;
  rts_msg_pair out{};
  EXPECT_EQ(rts_idr_decode(&out, wire.data(), static_cast<uint32_t>(wire.size()), Arena::alloc, &a),
            RTS_DEC_GARBLED);
}

TEST_F(Robust, RecordWithoutItsHeaderTakesTheEnvelopesType) {
  // A partial TLV record that leaves the header out is still the envelope's
  // type once decoded, and formats as one.
  samples::Store st;
  rts_rt_msg rt = samples::route(st);
  std::vector<uint8_t> mask(rts_rt_struct.rs_mask_size, 0);
  rts_mask_set(&rts_rt_struct, mask.data(), rts_field_by_name(&rts_rt_struct, "rtm_nh_index")->rf_tag);
  rts_msg_pair pair{RTS_T_ROUTE, &rt};
  FakePeer::Msg wire(static_cast<size_t>(rts_tlv_encode(&pair, mask.data(), nullptr, 0)));
  rts_tlv_encode(&pair, mask.data(), wire.data(), static_cast<uint32_t>(wire.size()));
  void *msg;
  ASSERT_EQ(rtslib_msg_decode(c, wire.data(), static_cast<uint32_t>(wire.size()), &msg), 0);
  EXPECT_EQ(static_cast<rts_msg_hdr *>(msg)->type, RTS_T_ROUTE);
  EXPECT_EQ(static_cast<rts_rt_msg *>(msg)->rtm_nh_index, 1234u);
  char line[512];
  ASSERT_GT(rtslib_format_output(line, sizeof line, msg), 0);
  EXPECT_EQ(std::string(line).rfind("route ", 0), 0u) << line;
  rtslib_msg_idl_release(c, msg);
}

// ---- Lengths bounded by the bytes received --------------------------------------------------------

TEST_F(Robust, EnvelopeLengthIsBoundedByTheBytesReceived) {
  // 20 bytes whose envelope claims nearly 4 GiB.
  FakePeer::Msg m = {0x22, 0x50, 0, 0, 0xf0, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  CappedMemory cap;
  void *msg;
  for (uint32_t magic : {RTS_MAGIC_IDR, RTS_MAGIC_TLV}) {
    memcpy(m.data(), &magic, 4);
    EXPECT_EQ(rtslib_msg_decode(c, m.data(), static_cast<uint32_t>(m.size()), &msg), EINVAL);
    EXPECT_EQ(msg, nullptr);
  }
  EXPECT_LE(largest, 16384u);
  EXPECT_TRUE(log.has(RTSLIB_LOG_DEBUG, "Decode Error 0(Invalid Buffer Size)"));
}

TEST_F(Robust, ReadAllocatesWhatTheRecordHoldsNotWhatItClaims) {
  CappedMemory cap;
  void *msg;
  // 28 bytes whose envelope claims 2 GiB: refused, and taken off the socket
  // so that the replies behind it are not stuck.
  FakePeer::Msg env = {0x22, 0x50, 0, 0, 0xf0, 0xff, 0xff, 0x7f, 2, 0, 0, 0};
  env.resize(28);
  peer.queue.push_back(env);
  EXPECT_EQ(rtslib_msg_read_idl(c, &msg), EINVAL);
  EXPECT_TRUE(peer.queue.empty());
  // A raw record that claims 2 GiB in its length word.
  rts_ifstats_msg raw{};
  raw.hdr.length = 0x7ffffff0;
  raw.hdr.seq = c->seq - 1;
  peer.queue.push_back(raw_record(&raw, sizeof raw));
  uint8_t *buf;
  uint32_t len;
  EXPECT_EQ(rtslib_msg_read(c, &buf, &len), EIO);
  EXPECT_TRUE(peer.queue.empty());
  EXPECT_LE(largest, 16384u);

  // An honest reply behind a lying one still comes through.
  samples::Store st;
  rts_bd_msg bd = samples::bd(st);
  peer.queue.push_back(env);
  peer.reply(RTS_T_BRIDGE_DOMAIN, &bd, false);
  EXPECT_EQ(rtslib_msg_read_idl(c, &msg), EINVAL);
  ASSERT_EQ(rtslib_msg_read_idl(c, &msg), 0);
  EXPECT_EQ(static_cast<rts_bd_msg *>(msg)->vnid, 100u);
  rtslib_msg_idl_release(c, msg);
}

}  // namespace
