// The event queues on epoll: real descriptors, the two levels, signals.
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "fixture.h"

namespace tt {
namespace {

std::string got;
std::vector<task *> made;  // deleted after each case, so no registration outlives it
void rd(task *tp) {
  char c;
  while (read(tp->task_socket, &c, 1) == 1) got += c;
}
void wr(task *tp) {
  got += "W";
  task_evq_set(tp, TASK_EVFILT_WRITE, false);
}

struct Pair {
  int fd[2];
  Pair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd); }
  ~Pair() { close(fd[1]); }
};

task *reader(const char *name, int fd, uint32_t flags) {
  task *tp = task_alloc(name, 1, nullptr);
  tp->task_flags |= flags;
  tp->task_socket = fd;
  task_set_recv(tp, rd);
  task_create(tp);
  made.push_back(tp);
  return tp;
}

class Queues : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    task_evq.wait = task_evq_default.wait;
    got.clear();
  }
  void TearDown() override {
    for (task *tp : made) task_delete(tp);
    made.clear();
  }
};

TEST_F(Queues, HighQueueFirstThenLowAndWritesSplit) {
  Pair lowp, highp;
  task *low = reader("low", lowp.fd[0], TASK_FLAG_LOWPRIO);
  reader("high", highp.fd[0], 0);
  task_set_write(low, wr);
  task_evq_set(low, TASK_EVFILT_WRITE, true);  // one registration on queue 1 with both
  ASSERT_EQ(write(lowp.fd[1], "l", 1), 1);
  ASSERT_EQ(write(highp.fd[1], "h", 1), 1);
  task_sched_var *sp = task_var_scheduler(nullptr);
  // One pass by hand: wait on queue 0 (queue 1 is readable inside it).
  task_io_var *io = task_var_io(nullptr);
  task_utime zero{0, 0};
  int n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  ASSERT_GT(n, 0);
  task_process_events_internal(&sp->sched_stats, io, n);
  EXPECT_EQ(got, "hlW");  // queue 0's read, then queue 1's read and its write
  EXPECT_EQ(sp->sched_stats.ss[SCHED_STAT_READS0], 1u);
  EXPECT_EQ(sp->sched_stats.ss[SCHED_STAT_READS1], 1u);
  EXPECT_EQ(sp->sched_stats.ss[SCHED_STAT_WRITES], 1u);
  // Disabling the last interest removes the registration; enabling adds it back.
  task_evq_set(low, TASK_EVFILT_READ, false);
  ASSERT_EQ(write(lowp.fd[1], "x", 1), 1);
  n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  EXPECT_EQ(n, 0);
  task_evq_set(low, TASK_EVFILT_READ, true);
  n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  EXPECT_EQ(n, 1);
}

TEST_F(Queues, ReadDisabledAndMissingMethods) {
  evlog_capture &cap = evlog_capture_start();
  Pair p;
  task *tp = reader("r", p.fd[0], TASK_FLAG_READDISABLE);
  ASSERT_EQ(write(p.fd[1], "a", 1), 1);
  task_io_var *io = task_var_io(nullptr);
  task_utime zero{0, 0};
  int n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  task_process_events_internal(&task_var_scheduler(nullptr)->sched_stats, io, n);
  EXPECT_EQ(got, "");  // dropped
  task_flag_clear(tp, TASK_FLAG_READDISABLE);
  task_set_recv(tp, nullptr);
  n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  task_process_events_internal(&task_var_scheduler(nullptr)->sched_stats, io, n);
  n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  EXPECT_EQ(n, 0);  // disabled after the one message
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].tag, "ZTASK_NO_SOCKACCEPT");
  evlog_capture_stop();
}

task_kevent level1_event;
int level1_wait(int level, task_kevent *out, int, const task_utime *) {
  if (level != 1) return 0;
  out[0] = level1_event;
  return 1;
}

TEST_F(Queues, AnUnknownEventIsDisabledOnTheQueueItCameFrom) {
  evlog_capture &cap = evlog_capture_start();
  Pair p;
  task *tp = reader("r", p.fd[0], 0);  // read interest on queue 0
  task_set_write(tp, wr);
  task_evq_set(tp, TASK_EVFILT_WRITE, true);  // write interest on queue 1; the socket is writable
  ASSERT_EQ(write(p.fd[1], "a", 1), 1);
  task_io_var *io = task_var_io(nullptr);
  task_sched_stats *stats = &task_var_scheduler(nullptr)->sched_stats;
  const task_kevent odd{static_cast<uintptr_t>(p.fd[0]), -8, 0, 0, 0, &tp->task_kevent_udata};
  io->task_eventlist[0] = odd;
  task_process_events_internal(stats, io, 1);
  task_utime zero{0, 0};
  int n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  ASSERT_EQ(n, 1) << "queue 0 no longer reports the socket";
  EXPECT_EQ(io->task_eventlist[0].udata, nullptr);  // only queue 1's readiness
  // The same event reported by queue 1.
  level1_event = odd;
  task_evq.wait = level1_wait;
  io->task_eventlist[0] = task_kevent{static_cast<uintptr_t>(io->task_eventQ[1]), TASK_EVFILT_READ, 0, 0, 0, nullptr};
  task_process_events_internal(stats, io, 1);
  task_evq.wait = task_evq_default.wait;
  EXPECT_EQ(task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero), 0);
  EXPECT_EQ(got, "");
  ASSERT_EQ(cap.records.size(), 2u);
  EXPECT_EQ(cap.records[1].text, "ZTASK_UNKNOWN_EVENT: unknown event ignored -- disabling");
  // The interest can be given back.
  task_evq_set(tp, TASK_EVFILT_READ, true);
  n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  ASSERT_EQ(n, 1);
  task_process_events_internal(stats, io, n);
  EXPECT_EQ(got, "a");
  evlog_capture_stop();
}

TEST_F(Queues, SignalsArriveAsEventsAndTermEndsCleanly) {
  // A forked child of the kernel only exits on SIGTERM: the death test runs
  // the kernel afresh in its own process.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  raise(SIGUSR2);  // blocked: it waits in the signalfd
  task_io_var *io = task_var_io(nullptr);
  task_utime zero{0, 0};
  int n = task_evq.wait(0, io->task_eventlist, io->task_eventlist_size, &zero);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(io->task_eventlist[0].filter, TASK_EVFILT_SIGNAL);
  EXPECT_EQ(io->task_eventlist[0].ident, static_cast<uintptr_t>(SIGUSR2));
  EXPECT_EXIT(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        raise(SIGTERM);
        task_scheduler();
      },
      ::testing::ExitedWithCode(0), "ZTASK_SIGNAL_TERMINATE: first termination signal received(.|\n)*ZTASK_EXIT");
}

// Completion events find their task through the application's look-up,
// acknowledgements through the event itself; each runs the task's own method
// as the current task, and neither runs for a deleted task or, for
// acknowledgements, while they are stopped.
task *aio_target;
task *aio_lookup(void *request) { return request == &aio_target ? aio_target : nullptr; }
std::string ran;
void note_aio(task *tp) { ran += std::string("A:") + tp->task_name_base + (task_current() == tp ? "*" : "") + " "; }
void note_ack(task *tp) { ran += std::string("K:") + tp->task_name_base + (task_current() == tp ? "*" : "") + " "; }

TEST_F(Queues, CompletionsAndAcknowledgementsRunTheirTasksMethods) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  auto saved_lookup = app->app_aio_lookup;
  app->app_aio_lookup = aio_lookup;
  task *a = task_alloc("aio", 1, nullptr);
  task_set_aio(a, note_aio);
  task_create(a);
  task *k = task_alloc("ack", 1, nullptr);
  task_set_ack(k, note_ack);
  task_create(k);
  aio_target = a;
  int unknown_tag = 0;
  task_io_var *io = task_var_io(nullptr);
  task_sched_stats *stats = &task_var_scheduler(nullptr)->sched_stats;
  auto pass = [&](std::initializer_list<task_kevent> evs) {
    ran.clear();
    int n = 0;
    for (const task_kevent &e : evs) io->task_eventlist[n++] = e;
    task_process_events_internal(stats, io, n);
    return ran;
  };
  const task_kevent aio_ev{0, TASK_EVFILT_AIO, 0, 0, 0, &aio_target};
  const task_kevent stray_aio{0, TASK_EVFILT_AIO, 0, 0, 0, &unknown_tag};
  const task_kevent ack_ev{0, TASK_EVFILT_ACK, 0, 0, 0, &k->task_kevent_udata};
  EXPECT_EQ(pass({aio_ev, stray_aio, ack_ev}), "A:aio* K:ack* ");
  task_set_ack_stopped(k, true);
  EXPECT_EQ(pass({ack_ev, aio_ev}), "A:aio* ");
  task_set_ack_stopped(k, false);
  task_delete(a);
  EXPECT_EQ(pass({aio_ev, ack_ev}), "K:ack* ");
  app->app_aio_lookup = nullptr;  // no look-up: completions are dropped
  aio_target = k;
  task_set_aio(k, note_aio);
  EXPECT_EQ(pass({aio_ev}), "");
  app->app_aio_lookup = saved_lookup;
}

}  // namespace
}  // namespace tt
