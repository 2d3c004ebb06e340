// The channel: start and options, the read job, decode and dispatch, the
// resynchronisation mode, the send side.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>

#include "evlog/evlog.h"
#include "mem/pool.h"
#include "krt_peer.h"
#include "rtsock/rts_filter.h"
#include "task/domain.h"

using namespace kt;

namespace {

uint32_t u32(const FakePeer::Msg &m) {
  uint32_t v = 0;
  memcpy(&v, m.data(), m.size() < 4 ? m.size() : 4);
  return v;
}

TEST_F(Krt, StartSetsTheSocketOptionsThroughDomain17) {
  krt_start(&cfg);
  ASSERT_NE(krt_task(), nullptr);
  EXPECT_EQ(cfg.task, krt_task());
  EXPECT_STREQ(task_name(krt_task()), "KRT");
  EXPECT_EQ(krt_task()->task_socket, peer.fd);  // not an AF_PACKET socket
  EXPECT_EQ(peer.options[RTS_OPT_SENDER_ID], FakePeer::Msg({131}));
  EXPECT_EQ(u32(peer.options[RTS_OPT_ASYNC_MODE]), KRT_ASYNC_MODE);
  FakePeer::Msg mask(8, 0);
  mask[5] = 0x10;  // word 1, 0x1000
  EXPECT_EQ(peer.options[RTS_OPT_LISTEN_MASK], mask);
  EXPECT_FALSE(peer.options.count(RTS_OPT_LOOPBACK_MASK));
  EXPECT_FALSE(peer.options.count(RTS_OPT_SLAVE_MODE));
  EXPECT_FALSE(peer.options.count(RTS_OPT_ROUTE_VETO));
  EXPECT_FALSE(peer.blocking());
  // The route-socket task options reach the peer too.
  EXPECT_EQ(task_set_option(krt_task(), TASKOPTION_RTSOCK_SENDER_ID, 9), 0);
  EXPECT_EQ(peer.options[RTS_OPT_SENDER_ID], FakePeer::Msg({9}));
  EXPECT_EQ(task_set_option(krt_task(), TASKOPTION_RTSOCK_FLAGS, uint64_t{0x100000002}), 0);
  EXPECT_EQ(peer.options[RTS_OPT_LISTEN_MASK], FakePeer::Msg({2, 0, 0, 0, 1, 0, 0, 0}));
  uint8_t got[8] = {};
  socklen_t gl = sizeof got;
  EXPECT_EQ(task_get_option(krt_task(), TASKOPTION_RTSOCK_FLAGS, got, &gl), 0);
  EXPECT_EQ(got[4], 1);
}

TEST_F(Krt, OptionalOptionsAndTheForegroundMask) {
  cfg.loopback_mask[0] = 4;
  cfg.slave_mode = 2;
  cfg.route_veto = 1;
  cfg.fg_listen_mask[0] = 0x20;
  cfg.fg_handlers = handlers;
  krt_start_foreground(&cfg);
  EXPECT_EQ(peer.options[RTS_OPT_LOOPBACK_MASK], FakePeer::Msg({4, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(u32(peer.options[RTS_OPT_SLAVE_MODE]), 2u);
  EXPECT_EQ(u32(peer.options[RTS_OPT_ROUTE_VETO]), 1u);
  EXPECT_EQ(peer.options[RTS_OPT_LISTEN_MASK], FakePeer::Msg({0x20, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(krt_is_deferred());
}

TEST_F(Krt, TheFilterTravelsCompiledInTheFilterRecord) {
  static std::string released;
  static const char kText[] = "((gencfg_t->major == 7))";
  cfg.filter_build = [] { return kText; };
  cfg.filter_release = [](const char *t) { released = t; };
  krt_start(&cfg);
  EXPECT_EQ(released, kText);
  const FakePeer::Msg &rec = peer.options[RTS_OPT_FILTER];
  ASSERT_EQ(rec.size(), KRT_FILTER_RECORD);
  uint32_t mask[2], flag;
  memcpy(mask, rec.data(), 8);
  memcpy(&flag, rec.data() + 8, 4);
  EXPECT_EQ(mask[0], 0u);
  EXPECT_EQ(mask[1], 0x1001u);  // the listen mask with bit 0 of its second word
  EXPECT_EQ(flag, 1u);
  uint8_t prog[RTS_FILTER_MAX];
  ASSERT_EQ(rts_filter_compile(kText, sizeof kText - 1, prog, sizeof prog, nullptr), 0);
  int len = rts_filter_check(prog, sizeof prog);
  ASSERT_GT(len, 0);
  EXPECT_EQ(FakePeer::Msg(rec.begin() + KRT_FILTER_PROGRAM_OFF, rec.begin() + KRT_FILTER_PROGRAM_OFF + len),
            FakePeer::Msg(prog, prog + len));
  EXPECT_EQ(rec[KRT_FILTER_PROGRAM_OFF + len], 0);
  // The file is gone.
  char path[64];
  snprintf(path, sizeof path, "/tmp/libztask_krt_gencfg_filter_%d.txt", static_cast<int>(getpid()));
  EXPECT_NE(access(path, F_OK), 0);
}

TEST_F(Krt, AFilterThatCannotBeSetIsFatal) {
  cfg.filter_build = [] { return static_cast<const char *>("gencfg->major == 1"); };
  peer.option_errno[RTS_OPT_FILTER] = EINVAL;
  EXPECT_EXIT(krt_start(&cfg), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Krt, AFilterThatDoesNotCompileIsFatal) {
  cfg.filter_build = [] { return static_cast<const char *>("match type 89"); };
  EXPECT_EXIT(krt_start(&cfg), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Krt, AFailingOptionDoesNotStopTheStart) {
  peer.option_errno[RTS_OPT_SENDER_ID] = EINVAL;
  peer.option_errno[RTS_OPT_ASYNC_MODE] = ENOPROTOOPT;
  krt_start(&cfg);
  EXPECT_FALSE(peer.options.count(RTS_OPT_SENDER_ID));
  EXPECT_EQ(peer.options[RTS_OPT_LISTEN_MASK].size(), 8u);
  EXPECT_EQ(krt_task()->task_socket, peer.fd);
  notify(bd(1, 1));
  ASSERT_TRUE(until([] { return !seen.empty(); }));
}

TEST_F(Krt, TerminateWaitsForTheQueueBeforeDeletingTheTask) {
  krt_start(&cfg);
  task *tp = krt_task();
  krt_terminate(tp);
  EXPECT_EQ(krt_task(), nullptr);  // nothing queued: gone at once
  EXPECT_TRUE(task_flag_test(tp, TASK_FLAG_DELETE));
}

TEST_F(Krt, ElevenQueuedMessagesTakeTwoRunsWithReadSelectionOffBetween) {
  krt_start(&cfg);
  for (uint16_t i = 1; i <= 11; i++) notify(bd(i, 100 + i));
  ASSERT_TRUE(until([] { return !seen.empty(); }));
  EXPECT_EQ(seen.size(), 10u);
  EXPECT_NE(krt_read_job(), nullptr);
  EXPECT_TRUE(task_flag_test(krt_task(), TASK_FLAG_READDISABLE));
  ASSERT_TRUE(until([] { return seen.size() == 11; }));
  // The next run finds the socket drained: the job goes, selection comes back.
  ASSERT_TRUE(until([] { return krt_read_job() == nullptr; }));
  EXPECT_FALSE(task_flag_test(krt_task(), TASK_FLAG_READDISABLE));
  for (uint16_t i = 0; i < 11; i++) {
    EXPECT_EQ(seen[i].index, i + 1);
    EXPECT_EQ(seen[i].vnid, 101u + i);
    EXPECT_EQ(seen[i].op, RTS_OP_ADD);
  }
  // Later messages wake the channel again.
  notify(bd(20, 7, RTS_OP_DELETE));
  ASSERT_TRUE(until([] { return seen.size() == 12; }));
  EXPECT_EQ(seen.back().op, RTS_OP_DELETE);
}

TEST_F(Krt, ReadCallbackOnlySchedulesTheJob) {
  krt_start(&cfg);
  notify(bd(1, 1));
  krt_read_ready(krt_task());
  EXPECT_TRUE(seen.empty());
  ASSERT_NE(krt_read_job(), nullptr);
  EXPECT_STREQ(task_job_get_name(krt_read_job()), "krt read");
  EXPECT_EQ(krt_read_job()->task_job_priority, 2);
  task_job *first = krt_read_job();
  krt_read_ready(krt_task());
  EXPECT_EQ(krt_read_job(), first);
}

TEST_F(Krt, RawMessagesReachTheirHandlerUndecodedAndHighTypesAreDropped) {
  static std::vector<FakePeer::Msg> got;
  got.clear();
  handlers[15] = [](task *, void *m, uint32_t len) {
    got.emplace_back(static_cast<uint8_t *>(m), static_cast<uint8_t *>(m) + len);
  };
  handlers[109] = handlers[15];
  krt_start(&cfg);
  FakePeer::Msg a = raw(15, {1, 2, 3}), b = raw(110, {4}), c = raw(200), d = raw(109, {5});
  for (auto *m : {&a, &b, &c, &d}) peer.push(*m);
  ASSERT_TRUE(until([] { return got.size() == 2; }));
  EXPECT_EQ(got[0], a);
  EXPECT_EQ(got[1], d);
  passes(3);
  EXPECT_EQ(got.size(), 2u);
}

TEST_F(Krt, NothingIsHandledWhileTerminating) {
  krt_start(&cfg);
  rts_bd_msg m = bd(3, 3);
  task_state |= TASKS_TERMINATE;
  krt_msg_dispatch(krt_task(), &m, 100);
  task_state &= ~TASKS_TERMINATE;
  EXPECT_TRUE(seen.empty());
  krt_msg_dispatch(krt_task(), &m, 100);
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(Krt, EnvelopesThatDoNotDecodeAreDroppedWithoutALine) {
  krt_start(&cfg);
  evlog_capture &cap = evlog_capture_start();
  // A TLV envelope with its header twice, an IDR envelope cut short, a
  // record of 3 bytes, and a first word of no known magic.
  FakePeer::Msg tlv = {0x11, 0x50, 0, 0, 16, 0, 0, 0, 89, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  FakePeer::Msg idr = {0x22, 0x50, 0, 0, 40, 0, 0, 0, 89, 0, 0, 0, 1, 2};
  alignas(16) uint8_t mem[4096];
  for (auto *m : {&tlv, &idr}) {
    mem_temp arena;
    mem_temp_init(&arena, mem, sizeof mem, false);
    rts_msg_pair out{};
    ASSERT_LE(krt_decode(m->data(), static_cast<uint32_t>(m->size()), &out, &arena), 0);
  }
  for (auto &m : {tlv, idr, FakePeer::Msg{1, 2, 3}, FakePeer::Msg{9, 9, 9, 9, 9, 9}}) peer.push(m);
  notify(bd(4, 44));
  ASSERT_TRUE(until([] { return !seen.empty(); }));
  EXPECT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].index, 4);
  EXPECT_TRUE(cap.records.empty());
  evlog_capture_stop();
}

TEST_F(Krt, ResyncModeEndsOnlyOnAZeroType85Field) {
  cfg.ifstate_resync = 1;
  handlers[KRT_RESYNC_END_TYPE] = record;
  krt_start(&cfg);
  EXPECT_TRUE(krt_in_resync());
  EXPECT_EQ(u32(peer.options[RTS_OPT_ASYNC_MODE]), KRT_ASYNC_MODE_RESYNC_LISTEN);
  EXPECT_TRUE(peer.blocking());
  EXPECT_EQ(krt_task()->task_recv, krt_resync_read_ready);
  notify(bd(1, 1));
  peer.push(raw(KRT_RESYNC_END_TYPE, {5}));
  notify(bd(2, 2));
  ASSERT_TRUE(until([] { return seen.size() == 3; }));
  // Read in the callback itself, no job, no limit.
  EXPECT_EQ(krt_read_job(), nullptr);
  EXPECT_TRUE(krt_in_resync());
  EXPECT_TRUE(peer.blocking());
  peer.push(raw(KRT_RESYNC_END_TYPE, {0}));
  notify(bd(3, 3));
  ASSERT_TRUE(until([] { return seen.size() == 5; }));
  EXPECT_FALSE(krt_in_resync());
  EXPECT_FALSE(peer.blocking());
  EXPECT_EQ(krt_task()->task_recv, krt_read_ready);
  EXPECT_EQ(seen[4].index, 3);
}

TEST_F(Krt, SendAndReceiveDispatchesWhatIsNotItsReply) {
  krt_start(&cfg);
  bds[5] = bd(5, 500);
  before_reply = {bd(9, 900, RTS_OP_ADD, 77), bd(5, 501, RTS_OP_CHANGE, 78)};
  rts_bd_msg q = bd(5, 0, RTS_OP_GET, krt_seq());
  rts_msg_pair req{RTS_T_BRIDGE_DOMAIN, &q}, reply{};
  alignas(16) uint8_t arena[8192];
  ASSERT_EQ(krt_send_and_receive(&req, arena, sizeof arena, &reply), 0);
  ASSERT_NE(reply.record, nullptr);
  EXPECT_EQ(static_cast<rts_bd_msg *>(reply.record)->vnid, 500u);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].index, 9);
  EXPECT_EQ(seen[1].vnid, 501u);
  // The kernel's verdict comes back as the errno.
  q = bd(6, 0, RTS_OP_GET, krt_seq());
  EXPECT_EQ(krt_send_and_receive(&req, arena, sizeof arena, &reply), ENOENT);
  // A reply of no known magic.
  other_type = [this](uint8_t) {
    peer.push({7, 7, 7, 7, 7, 7, 7, 7});
    return 0;
  };
  rts_rtb_msg t{};
  t.hdr.type = RTS_T_RTTABLE;
  t.hdr.operation = RTS_OP_GET;
  t.hdr.seq = krt_seq();
  rts_msg_pair treq{RTS_T_RTTABLE, &t};
  EXPECT_EQ(krt_send_and_receive(&treq, arena, sizeof arena, &reply), -1);
}

TEST_F(Krt, LongMessagesUseABigBufferRoundedTo1024) {
  krt_start(&cfg);
  std::vector<uint8_t> blob(20000, 0xab);
  rts_bd_msg m = bd(1, 1, RTS_OP_ADD);
  rts_msg_pair pair{RTS_T_BRIDGE_DOMAIN, &m};
  m.bdm_blob = blob.data();
  m.bdm_blob_len = 0;
  uint32_t base = static_cast<uint32_t>(rts_idr_encode(&pair, nullptr, 0));
  // Exactly the static buffer, then 4 bytes over it.
  m.bdm_blob_len = KRT_RTSM_BUFFER_SIZE - base;
  ASSERT_EQ(rts_idr_encode(&pair, nullptr, 0), static_cast<int>(KRT_RTSM_BUFFER_SIZE));
  EXPECT_EQ(krt_send_message(&pair), EOPNOTSUPP);  // the test store takes no add
  EXPECT_EQ(krt_big_buffer_count, 0u);
  m.bdm_blob_len += 4;
  krt_send_message(&pair);
  EXPECT_EQ(krt_big_buffer_count, 1u);
  EXPECT_EQ(krt_big_buffer_last, 17408u);
  EXPECT_EQ(peer.written.back().size(), KRT_RTSM_BUFFER_SIZE + 4);
}

TEST_F(Krt, BlockCountsDeferAndUnblockBelowZeroIsFatal) {
  krt_start(&cfg);
  krt_block();
  krt_block();
  EXPECT_TRUE(krt_is_deferred());
  krt_unblock();
  EXPECT_TRUE(krt_is_deferred());
  krt_unblock();
  EXPECT_FALSE(krt_is_deferred());
  EXPECT_DEATH(krt_unblock(), "krt_block_ref_cnt");
  krt_defer();
  EXPECT_DEATH(krt_defer(), "!krt_deferred");
}

TEST_F(Krt, TestStateStopsBeforeTheSocket) {
  task_state |= TASKS_TEST;
  krt_start(&cfg);
  task_state &= ~TASKS_TEST;
  ASSERT_NE(krt_task(), nullptr);
  EXPECT_FALSE(peer.is_open);
}

}  // namespace
