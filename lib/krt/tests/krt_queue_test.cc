// The write queue with a test database: priorities, the errno rules of a
// send, retry times, deferral, drained hooks.
#include <gtest/gtest.h>

#include "krt_peer.h"
#include "task/timer.h"

using namespace kt;

namespace {

struct Obj {
  krt_db_ent ent;  // first
  uint32_t id;
  bool in_kernel;
  bool freed;
};

// Raw records of a type the peer does not know: the test scripts the verdicts.
constexpr uint8_t kMsgType = 40;
std::map<std::pair<uint32_t, uint8_t>, std::vector<int>> verdicts;  // (id, op): next verdicts
std::vector<std::pair<uint32_t, uint8_t>> sent;
int drained;
std::vector<uint32_t> freed;

uint32_t encode(krt_queue_entry *kq, uint8_t op, void *buf, uint32_t room) {
  auto *o = reinterpret_cast<Obj *>(kq->kq_owner);
  FakePeer::Msg m = raw(kMsgType, {o->id, op});
  if (m.size() <= room) memcpy(buf, m.data(), m.size());
  return static_cast<uint32_t>(m.size());
}
int build(krt_queue_entry *kq, krt_db_ent *e) {
  kq->kq_op = reinterpret_cast<Obj *>(e)->in_kernel ? KQ_CHANGE : KQ_ADD;
  return reinterpret_cast<Obj *>(e)->id == 999 ? 2 : 1;
}
bool in_kernel(krt_db_ent *e) { return reinterpret_cast<Obj *>(e)->in_kernel; }
void free_obj(krt_db_entry *, krt_db_ent *e) {
  reinterpret_cast<Obj *>(e)->freed = true;
  freed.push_back(reinterpret_cast<Obj *>(e)->id);
}
void drained_hook(krt_db_entry *) { drained++; }

const krt_queue_type kTypeA = {5, 1, 8, nullptr, in_kernel, build, nullptr, nullptr, encode, 1, 0, free_obj,
                               drained_hook};
const krt_queue_type kTypeB = {7, 0, 8, nullptr, in_kernel, build, nullptr, nullptr, encode, 0, 0, free_obj,
                               nullptr};

class Queue : public Krt {
 protected:
  krt_db_entry dba{}, dbb{};
  void SetUp() override {
    Krt::SetUp();
    verdicts.clear();
    sent.clear();
    freed.clear();
    drained = 0;
    raw_verdict = [](const FakePeer::Msg &m) {
      uint32_t id, op;
      memcpy(&id, m.data() + sizeof(rts_raw_hdr), 4);
      memcpy(&op, m.data() + sizeof(rts_raw_hdr) + 4, 4);
      auto key = std::make_pair(id, static_cast<uint8_t>(op));
      sent.push_back(key);
      auto &v = verdicts[key];
      if (v.empty()) return 0;
      int e = v.front();
      v.erase(v.begin());
      return e;
    };
    krt_start(&cfg);
    dba.k_db_handle = 1;
    dba.kde_type = &kTypeA;
    dbb.k_db_handle = 2;
    dbb.kde_type = &kTypeB;
    krt_db_register(&dba);
    krt_db_register(&dbb);
  }
  static bool idle() { return krt_queue_job() == nullptr; }
  static uint32_t now() { return task_now.ut_sec; }
};

TEST_F(Queue, EntriesGoOutByPriorityAndTheDrainedHookRuns) {
  Obj a1{{}, 1, false, false}, a2{{}, 2, true, false}, b1{{}, 3, false, false};
  krt_db_notify(1, &a1.ent);
  krt_db_notify(1, &a2.ent);
  krt_db_notify(2, &b1.ent);
  krt_db_notify(1, &a1.ent);  // twice: still one entry
  EXPECT_EQ(krt_queue_count(), 3u);
  EXPECT_EQ(krt_queue_length(0), 1u);
  EXPECT_EQ(krt_queue_length(1), 2u);
  ASSERT_NE(krt_queue_job(), nullptr);
  EXPECT_STREQ(task_job_get_name(krt_queue_job()), "krt queue");
  ASSERT_TRUE(until(idle));
  using P = std::pair<uint32_t, uint8_t>;
  EXPECT_EQ(sent, (std::vector<P>{{3, KQ_ADD}, {1, KQ_ADD}, {2, KQ_CHANGE}}));
  EXPECT_EQ(krt_queue_count(), 0u);
  EXPECT_EQ(a1.ent.kde_q_ent, nullptr);
  EXPECT_EQ(drained, 1);
  EXPECT_EQ(krt_queue_stats[5][KQ_ADD].sent, 1u);
  EXPECT_EQ(krt_queue_stats[5][KQ_CHANGE].sent, 1u);
}

TEST_F(Queue, NothingToDoAndDeletesNeverSentAreDroppedAtOnce) {
  Obj x{{}, 999, false, false}, gone{{}, 4, false, false};
  krt_db_notify(1, &x.ent);
  EXPECT_EQ(krt_queue_count(), 0u);
  gone.ent.kde_deleted = 1;
  krt_db_notify(1, &gone.ent);
  EXPECT_TRUE(gone.freed);
  EXPECT_EQ(krt_queue_count(), 0u);
  EXPECT_EQ(krt_queue_job(), nullptr);
}

TEST_F(Queue, RefusedMessagesAreRetriedAfterFiveSecondsThroughTheDeferTimer) {
  Obj a{{}, 1, false, false}, b{{}, 2, true, false}, c{{}, 3, false, false};
  verdicts[{1, KQ_ADD}] = {ENOENT};  // the type allows it: done
  verdicts[{2, KQ_DELETE}] = {ENOENT, 0};  // not for a delete: retried
  verdicts[{3, KQ_ADD}] = {EIO, 0};
  b.ent.kde_deleted = 1;
  krt_db_notify(1, &a.ent);
  krt_db_notify(1, &b.ent);
  krt_db_notify(1, &c.ent);
  uint32_t t0 = now();
  ASSERT_TRUE(until(idle));
  EXPECT_EQ(krt_queue_count(), 2u);
  EXPECT_EQ(krt_queue_length(KRT_PRIO_COUNT), 2u);
  EXPECT_EQ(b.ent.kde_q_ent->kq_retry, t0 + KRT_RETRY_SECONDS);
  EXPECT_EQ(c.ent.kde_q_ent->kq_errno, EIO);
  EXPECT_EQ(krt_queue_stats[5][KQ_ADD].failed, 2u);
  EXPECT_EQ(krt_queue_stats[5][KQ_ADD].last_errno, EIO);
  ASSERT_NE(krt_queue_defer_timer(), nullptr);
  EXPECT_EQ(drained, 0);
  size_t before = sent.size();
  tt::advance(4);
  passes(4);
  EXPECT_EQ(sent.size(), before);  // not yet
  tt::advance(1.5);
  ASSERT_TRUE(until([] { return krt_queue_count() == 0; }));
  EXPECT_EQ(sent.size(), before + 2);
  EXPECT_TRUE(b.freed);  // a delete done gives the entry back
  EXPECT_EQ(drained, 1);
}

TEST_F(Queue, WhileTerminatingRetryIsOneSecondAndEpermOnADeleteIsDone) {
  Obj a{{}, 1, true, false}, c{{}, 3, false, false};
  verdicts[{1, KQ_DELETE}] = {EPERM};
  verdicts[{3, KQ_ADD}] = {EIO};
  a.ent.kde_deleted = 1;
  krt_db_notify(1, &a.ent);
  krt_db_notify(1, &c.ent);
  task_state |= TASKS_TERMINATE;
  uint32_t t0 = now();
  ASSERT_TRUE(until(idle));
  task_state &= ~TASKS_TERMINATE;
  EXPECT_TRUE(a.freed);
  ASSERT_NE(c.ent.kde_q_ent, nullptr);
  EXPECT_EQ(c.ent.kde_q_ent->kq_retry, t0 + KRT_RETRY_TERMINATING);
}

TEST_F(Queue, TerminationDeletesTheTaskWhenTheLastEntryIsDone) {
  Obj a{{}, 1, true, false};
  verdicts[{1, KQ_DELETE}] = {EIO};
  a.ent.kde_deleted = 1;
  krt_block();
  krt_db_notify(1, &a.ent);
  task *tp = krt_task();
  task_state |= TASKS_TERMINATE;
  krt_terminate(tp);
  EXPECT_EQ(krt_task(), tp);  // one entry left: the task stays
  EXPECT_FALSE(task_flag_test(tp, TASK_FLAG_DELETE));
  krt_unblock();
  ASSERT_TRUE(until(idle));
  EXPECT_EQ(krt_task(), tp);  // refused: retried after a second
  EXPECT_EQ(a.ent.kde_q_ent->kq_retry, now() + KRT_RETRY_TERMINATING);
  tt::advance(1.5);
  ASSERT_TRUE(until([] { return krt_queue_count() == 0; }));
  task_state &= ~TASKS_TERMINATE;
  EXPECT_EQ(krt_task(), nullptr);
  EXPECT_TRUE(task_flag_test(tp, TASK_FLAG_DELETE));
  EXPECT_TRUE(a.freed);
}

TEST_F(Queue, AFullSocketStopsTheWalkAndWaitsForTheReader) {
  Obj a{{}, 1, false, false}, b{{}, 2, false, false};
  verdicts[{1, KQ_ADD}] = {EAGAIN};
  krt_db_notify(1, &a.ent);
  krt_db_notify(1, &b.ent);
  task_job_force(krt_queue_job());  // one run
  EXPECT_EQ(sent.size(), 1u);  // b was not tried
  EXPECT_EQ(krt_queue_count(), 2u);
  EXPECT_EQ(krt_queue_length(1), 2u);  // nothing moved to the retry list
  // The socket has room: the peer's verdict, our backlog is full. The reader
  // runs and the defer timer brings the job back, not write selection.
  EXPECT_EQ(krt_queue_job(), nullptr);
  EXPECT_NE(krt_read_job(), nullptr);
  EXPECT_TRUE(task_flag_test(krt_task(), TASK_FLAG_WRITEDISABLE));
  ASSERT_NE(krt_queue_defer_timer(), nullptr);
  passes(4);
  EXPECT_EQ(sent.size(), 1u);
  tt::advance(static_cast<double>(KRT_RETRY_BACKLOG) + 0.5);
  ASSERT_TRUE(until([] { return krt_queue_count() == 0; }));
  EXPECT_EQ(sent.size(), 3u);
}

TEST_F(Queue, ADeferredChannelSendsNothingUntilUnblocked) {
  Obj a{{}, 1, false, false};
  krt_block();
  krt_db_notify(1, &a.ent);
  EXPECT_EQ(krt_queue_job(), nullptr);
  passes(4);
  EXPECT_TRUE(sent.empty());
  krt_unblock();
  ASSERT_NE(krt_queue_job(), nullptr);
  ASSERT_TRUE(until(idle));
  EXPECT_EQ(sent.size(), 1u);
}

TEST_F(Queue, PurgeAndDatabaseDeleteDropQueuedEntries) {
  Obj a{{}, 1, false, false}, b{{}, 2, false, false};
  krt_block();
  krt_db_notify(1, &a.ent);
  krt_db_notify(2, &b.ent);
  krt_db_purge(1, &a.ent);
  EXPECT_EQ(a.ent.kde_q_ent, nullptr);
  EXPECT_EQ(krt_queue_count(), 1u);
  krt_db_delete(2);
  EXPECT_EQ(krt_queue_count(), 0u);
  krt_db_notify(2, &b.ent);  // no longer registered
  EXPECT_EQ(krt_queue_count(), 0u);
  krt_unblock();
  EXPECT_EQ(krt_queue_job(), nullptr);
}

TEST_F(Queue, TheMultiThreadQueueIsAForegroundJob) {
  cfg.multi_thread_queue = 1;
  Obj a{{}, 1, false, false};
  krt_db_notify(1, &a.ent);
  ASSERT_NE(krt_queue_job(), nullptr);
  EXPECT_STREQ(task_job_get_name(krt_queue_job()), "krt foreground queue");
  EXPECT_EQ(krt_queue_job()->task_job_priority, TASK_JOB_FOREGROUND);
  ASSERT_TRUE(until(idle));
  EXPECT_EQ(sent.size(), 1u);
}

TEST_F(Queue, TableNames) {
  EXPECT_STREQ(krt_db_table_names[0], "INVALID");
  EXPECT_STREQ(krt_db_table_names[8], "Composite NH");
  EXPECT_STREQ(krt_db_table_names[19], "");
  EXPECT_STREQ(krt_db_table_names[27], "fc nexthop");
  EXPECT_STREQ(krt_db_table_names[40], "DHCPV6SNOOP");
  EXPECT_STREQ(krt_db_table_names[44], "Satellite route");
}

}  // namespace

namespace {

// A socket that fills up itself: the lower edge writes into one end of a
// socket pair that nobody reads until the test does.
int pair_fd[2];
int sp_open(void *) { return pair_fd[0]; }
int sp_close(void *, int) { return 0; }
int sp_setopt(void *, int, int, int, const void *, socklen_t) { return 0; }
int sp_getopt(void *, int, int, int, void *, socklen_t *len) {
  *len = 0;
  return 0;
}
ssize_t sp_write(void *, int fd, const void *b, size_t n) { return send(fd, b, n, MSG_DONTWAIT); }
ssize_t sp_read(void *, int fd, void *b, size_t n) { return recv(fd, b, n, MSG_DONTWAIT); }
const rts_lower_ops kPairEdge = {sp_open, sp_close, sp_setopt, sp_getopt, sp_write, sp_read, sp_read, nullptr};

class FullSocket : public tt::Io {};

TEST_F(FullSocket, ALocalEagainWaitsForWriteSelection) {
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair_fd), 0);
  rts_lower_set(&kPairEdge);
  sent.clear();
  krt_reset();
  krt_var_init();
  static krt_handler_fn handlers[KRT_HANDLER_COUNT];
  static krt_config cfg{};
  cfg.handlers = handlers;
  krt_start(&cfg);
  static krt_db_entry db{};
  db.k_db_handle = 1;
  db.kde_type = &kTypeA;
  krt_db_register(&db);
  static std::vector<Obj> objs;
  objs.resize(2000);
  for (uint32_t i = 0; i < objs.size(); i++) {
    objs[i] = Obj{{}, 1000 + i, false, false};  // 999 would be "nothing to do"
    krt_db_notify(1, &objs[i].ent);
  }
  task_job_force(krt_queue_job());
  uint32_t left = krt_queue_count();
  ASSERT_GT(left, 0u);  // the socket filled before the queue emptied
  EXPECT_EQ(krt_queue_defer_timer(), nullptr);
  EXPECT_FALSE(task_flag_test(krt_task(), TASK_FLAG_WRITEDISABLE));
  // Reading the other end makes room; write selection brings the job back.
  size_t got = 0;
  uint8_t buf[256];
  for (int i = 0; i < 200 && krt_queue_count(); i++) {
    while (recv(pair_fd[1], buf, sizeof buf, MSG_DONTWAIT) > 0) got++;
    real_passes(2);
  }
  while (recv(pair_fd[1], buf, sizeof buf, MSG_DONTWAIT) > 0) got++;
  EXPECT_EQ(krt_queue_count(), 0u);
  EXPECT_EQ(got, objs.size());
  EXPECT_GT(krt_queue_stats[5][KQ_ADD].failed, 0u);
  EXPECT_EQ(krt_queue_stats[5][KQ_ADD].sent, objs.size() + krt_queue_stats[5][KQ_ADD].failed);
  krt_reset();
  rts_lower_set(nullptr);
}

}  // namespace
