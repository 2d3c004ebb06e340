// Accounting: charges by kind and record with the kernel's overhead apart,
// the long-runtime warning, cumulative reports and the slip dump, on a fake
// process clock that methods "burn" by moving it on.
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "fixture.h"
#include "platform/path.h"
#include "task/accounting.h"

namespace tt {
namespace {

task_utime fake_user, fake_sys;
int rusage_reads;
void fake_rusage(task_utime *u, task_utime *s) {
  rusage_reads++;
  *u = fake_user;
  *s = fake_sys;
}
void burn(double user, double sys) {
  fake_user = task_utime_add(fake_user, sec(user));
  fake_sys = task_utime_add(fake_sys, sec(sys));
}

double used(const task_accounting &r) { return secs(r.ta_user) + secs(r.ta_system); }

class Acct : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    fake_user = sec(10);
    fake_sys = sec(2);
    rusage_reads = 0;
    task_set_rusage_hook(fake_rusage);
    cap = &evlog_capture_start();
  }
  void TearDown() override {
    if (!root.empty()) {
      EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
    }
    task_accounting_set(false);
    task_accounting_slip_dump_set(false);
    task_set_rusage_hook(nullptr);
    evlog_capture_stop();
  }
  // A task on one end of a socket pair; events for it are scripted.
  task *io_task(const char *name, task_method rd, task_method wr) {
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair);
    task *tp = task_alloc(name, 5, nullptr);
    tp->task_socket = pair[0];
    task_set_recv(tp, rd);
    task_set_write(tp, wr);
    task_create(tp);
    return tp;
  }
  static task_kevent ev(task *tp, int16_t filter) {
    return task_kevent{static_cast<uintptr_t>(tp->task_socket), filter, 0, 0, 0, &tp->task_kevent_udata};
  }
  std::vector<std::string> tags() const {
    std::vector<std::string> v;
    for (auto &r : cap->records) v.push_back(r.tag);
    return v;
  }
  evlog_capture *cap = nullptr;
  int pair[2] = {-1, -1};
  std::string root;  // a temporary root, removed at the end
};

task_accounting &sched_rec(int kind) { return task_scheduler_task()->task_acct[kind]; }

void read_quarter(task *) { burn(0.2, 0.05); }
void write_tenths(task *) { burn(0.3, 0); }

TEST_F(Acct, ReadsAndWritesGoToTheirTaskAndKindWithTheOverheadApart) {
  task *tp = io_task("rw", read_quarter, write_tenths);
  task_accounting_set(true);
  on_wait = [] { burn(0.001, 0); };  // the kernel's own time, before each method
  script.push_back({ev(tp, TASK_EVFILT_READ), ev(tp, TASK_EVFILT_WRITE)});
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  passes(2);
  const task_accounting &rd = tp->task_acct[TASK_ACCT_READ], &wr = tp->task_acct[TASK_ACCT_WRITE];
  EXPECT_EQ(rd.ta_calls, 2u);
  EXPECT_DOUBLE_EQ(secs(rd.ta_user), 0.4);
  EXPECT_DOUBLE_EQ(secs(rd.ta_system), 0.1);
  EXPECT_DOUBLE_EQ(secs(rd.ta_longest), 0.25);
  EXPECT_EQ(wr.ta_calls, 1u);
  EXPECT_DOUBLE_EQ(secs(wr.ta_user), 0.3);
  EXPECT_DOUBLE_EQ(secs(wr.ta_longest), 0.3);
  EXPECT_EQ(tp->task_acct[TASK_ACCT_TIMER].ta_calls, 0u);
  EXPECT_EQ(tp->task_acct[TASK_ACCT_OTHER].ta_calls, 0u);
  // Each method's overhead is the scheduler task's: the waits' time before
  // each read, nothing between the read and the write of one pass.
  EXPECT_EQ(sched_rec(TASK_ACCT_READ).ta_calls, 2u);
  EXPECT_DOUBLE_EQ(used(sched_rec(TASK_ACCT_READ)), 0.002);
  EXPECT_EQ(sched_rec(TASK_ACCT_WRITE).ta_calls, 1u);
  EXPECT_DOUBLE_EQ(used(sched_rec(TASK_ACCT_WRITE)), 0.0);
  EXPECT_TRUE(cap->records.empty());
  close(pair[1]);
}

task *timer_owner;
void tick(task_timer *, uint32_t) { burn(0.1, 0.02); }
void tick_and_delete_task(task_timer *, uint32_t) {
  burn(0.05, 0);
  task_delete(timer_owner);  // its record must still take the charge
}
void job_slice(task_job *jp) {
  burn(0.2, 0);
  task_job_delete(jp);
}
void fg_job(task_job *) { burn(0.03, 0); }

struct Rows {
  std::vector<std::string> keys;
  std::vector<long> runs;
  std::vector<double> totals;
};
Rows rows_unused;
void collect(const task_accounting_entry *e, void *arg) {
  auto *r = static_cast<Rows *>(arg);
  r->keys.push_back(e->tae_key);
  r->runs.push_back(e->tae_runs);
  r->totals.push_back(secs(e->tae_total));
}

TEST_F(Acct, TimersAndJobsGoToTheirKindUnderTheirNames) {
  task *tp = task_alloc("owner", 5, nullptr);
  task_create(tp);
  timer_owner = task_alloc("doomed", 5, nullptr);
  task_create(timer_owner);
  task_timer_create(tp, "tick", TIMERF_DELETE, 0, 1, 0, tick, nullptr);
  task_timer_create(nullptr, "orphan", TIMERF_DELETE, 0, 1, 0, tick, nullptr);
  task_timer_create(timer_owner, "last", TIMERF_DELETE, 0, 1, 0, tick_and_delete_task, nullptr);
  task_job_create_background(tp, 3, "slice", job_slice, nullptr);
  task_job_create_foreground(tp, "fg", fg_job, nullptr);
  task_accounting_set(true);
  task_accounting_slip_dump_set(true);
  passes(3);
  const task_accounting &tm = tp->task_acct[TASK_ACCT_TIMER], &jb = tp->task_acct[TASK_ACCT_OTHER];
  EXPECT_EQ(tm.ta_calls, 1u);
  EXPECT_DOUBLE_EQ(used(tm), 0.12);
  EXPECT_EQ(jb.ta_calls, 2u);
  EXPECT_DOUBLE_EQ(secs(jb.ta_user), 0.23);
  EXPECT_DOUBLE_EQ(secs(jb.ta_longest), 0.2);
  EXPECT_EQ(timer_owner->task_acct[TASK_ACCT_TIMER].ta_calls, 1u);
  EXPECT_DOUBLE_EQ(used(timer_owner->task_acct[TASK_ACCT_TIMER]), 0.05);
  // The timer without a task charges the scheduler task, beside the overhead.
  EXPECT_EQ(sched_rec(TASK_ACCT_TIMER).ta_calls, 3u + 1u);
  EXPECT_DOUBLE_EQ(used(sched_rec(TASK_ACCT_TIMER)), 0.12);
  EXPECT_EQ(sched_rec(TASK_ACCT_OTHER).ta_calls, 2u);
  EXPECT_DOUBLE_EQ(used(sched_rec(TASK_ACCT_OTHER)), 0.0);
  Rows rows;
  task_accounting_tree_walk(collect, &rows);
  EXPECT_EQ(rows.keys, (std::vector<std::string>{"background dispatch:slice", "foreground dispatch:fg", "job:[overhead]",
                                                 "timer processing:NoName_last", "timer processing:NoName_orphan",
                                                 "timer processing:owner_tick", "timer:[overhead]"}));
  EXPECT_EQ(rows.runs, (std::vector<long>{1, 1, 2, 1, 1, 1, 3}));
  EXPECT_DOUBLE_EQ(rows.totals[0], 0.2);
  EXPECT_DOUBLE_EQ(rows.totals[5], 0.12);
}

task_accounting scratch;
void slow_read(task *) { burn(1.4, 0.6); }

TEST_F(Acct, LongRuntimeWarningFromOneAndAHalfSeconds) {
  task_accounting_set(true);
  burn(1.2, 0.299999);
  task_update_runtime("nearly", &scratch, "read processing");
  EXPECT_TRUE(cap->records.empty());
  burn(1.2, 0.3);
  task_update_runtime("reader", &scratch, "timer processing");
  task *tp = io_task("slowpoke", slow_read, nullptr);  // named by the dispatcher
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  passes(1);
  ASSERT_EQ(cap->records.size(), 2u);
  EXPECT_EQ(cap->records[0].tag, "ZTASK_SCHED_TASK_LONGRUNTIME");
  EXPECT_EQ(cap->records[0].priority, LOG_WARNING);
  // Precision cuts the rendered time as it cuts a string.
  EXPECT_EQ(cap->records[0].text,
            "ZTASK_SCHED_TASK_LONGRUNTIME: reader ran for 1.5 (1.2 user, 0.3 system) doing timer processing");
  EXPECT_EQ(cap->records[1].text,
            "ZTASK_SCHED_TASK_LONGRUNTIME: slowpoke ran for 2 (1.4 user, 0.6 system) doing read processing");
  EXPECT_EQ(scratch.ta_calls, 2u);
  EXPECT_DOUBLE_EQ(secs(scratch.ta_longest), 1.5);
  EXPECT_DOUBLE_EQ(secs(scratch.ta_system), 0.599999);
  close(pair[1]);
}

void turn_on_midway(task *) {
  burn(5, 0);
  task_accounting_set(true);
  burn(0.1, 0);
}

TEST_F(Acct, OffChargesNothingAndReadsNoClock) {
  task *tp = io_task("quiet", read_quarter, write_tenths);
  task_timer_create(tp, "tick", TIMERF_DELETE, 0, 1, 0, tick, nullptr);
  task_job_create_foreground(tp, "fg", fg_job, nullptr);
  task_accounting_slip_dump_set(true);
  rusage_reads = 0;
  script.push_back({ev(tp, TASK_EVFILT_READ), ev(tp, TASK_EVFILT_WRITE)});
  passes(3);
  EXPECT_EQ(rusage_reads, 0);
  for (int k = 0; k < TASK_ACCT_KINDS; k++) {
    EXPECT_EQ(tp->task_acct[k].ta_calls, 0u);
    EXPECT_EQ(sched_rec(k).ta_calls, 0u);
  }
  EXPECT_EQ(task_accounting_tree_walk(collect, &rows_unused), 0u);
  // Switched on inside a method: the charge starts at the switch.
  task_set_recv(tp, turn_on_midway);
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  passes(1);
  EXPECT_EQ(tp->task_acct[TASK_ACCT_READ].ta_calls, 1u);
  EXPECT_DOUBLE_EQ(used(tp->task_acct[TASK_ACCT_READ]), 0.1);
  EXPECT_TRUE(cap->records.empty());
  close(pair[1]);
}

TEST_F(Acct, CumulativeReportMessagesAtTheLimit) {
  task_accounting_cumulative r;
  task_accounting_report_start(&r);
  burn(1, 0);
  task_accounting_report_internal(&r, "A", "reconfigure");
  burn(1.5, 0.5);  // the total reaches 3 s exactly, no single run does
  task_accounting_report_internal(&r, "B", "reconfigure");
  ASSERT_EQ(cap->records.size(), 1u);
  std::string me = task_daemon_name();
  EXPECT_EQ(cap->records[0].tag, "ZTASK_SCHED_CUMU_LONGRUNTIME");
  EXPECT_EQ(cap->records[0].text,
            "ZTASK_SCHED_CUMU_LONGRUNTIME: " + me + ": excessive runtime (total of 3 in 2 callbacks) after reconfigure of B");
  burn(0.5, 0);
  task_accounting_report_internal(&r, "C", "reconfigure");
  EXPECT_EQ(cap->records.size(), 1u) << "the total is reported once";
  burn(2.5, 0.5);
  task_accounting_report_internal(&r, "D", "init");
  ASSERT_EQ(cap->records.size(), 2u);
  EXPECT_EQ(cap->records[1].tag, "ZTASK_SCHED_MODULE_LONGRUNTIME");
  EXPECT_EQ(cap->records[1].text, "ZTASK_SCHED_MODULE_LONGRUNTIME: " + me + ": excessive runtime 3 during init of D");
  EXPECT_EQ(r.tac_callbacks, 4u);
  EXPECT_DOUBLE_EQ(secs(r.tac_total), 6.5);
  // A fresh record: one long run gives both messages, the run's first.
  task_accounting_report_start(&r);
  burn(3.25, 0);
  task_accounting_report_internal(&r, "E", "reconfigure");
  EXPECT_EQ(tags(), (std::vector<std::string>{"ZTASK_SCHED_CUMU_LONGRUNTIME", "ZTASK_SCHED_MODULE_LONGRUNTIME",
                                              "ZTASK_SCHED_MODULE_LONGRUNTIME", "ZTASK_SCHED_CUMU_LONGRUNTIME"}));
  EXPECT_EQ(cap->records[3].text,
            "ZTASK_SCHED_CUMU_LONGRUNTIME: " + me + ": excessive runtime (total of 3.2 in 1 callbacks) after reconfigure of E");
}

std::string slurp(const std::string &path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

TEST_F(Acct, ASlipWritesTheTreeToTheLogDirectoryAndClearsIt) {
  char dir[] = "/tmp/acct_test_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  root = dir;
  tvx_path_set_root(dir);
  task *tp = io_task("reader", read_quarter, nullptr);
  task_timer_create(tp, "tick", TIMERF_DELETE, 0, 1, 0, tick, nullptr);
  task_accounting_set(true);
  task_accounting_slip_dump_set(true);
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  passes(3);
  // A pass that took 5 seconds, 0.8 s of it user and 0.1 s system time.
  task_sched_var *sp = task_var_scheduler(nullptr);
  sp->sched_slip_timer = task_timer_create_idle(task_scheduler_task(), "Scheduler slip timer", 0, nullptr, nullptr);
  sp->sched_last = task_now;
  sp->sched_last_user = fake_user;
  sp->sched_last_sys = fake_sys;
  burn(0.8, 0.1);
  advance(5);
  task_utime blocked{0, 0};
  task_monitor_slip(&blocked);
  std::string path = task_accounting_slip_dump_path();
  EXPECT_EQ(path, root + "/var/log/sched_slip_dump_" + std::to_string(getpid()) + "_1.txt");
  char thread[32] = "";
  pthread_getname_np(pthread_self(), thread, sizeof thread);
  char head[128];
  snprintf(head, sizeof head, "%-35s %8s Thr:%s\n", "Task Job Name", "Runtime", thread);
  auto row = [](const char *key, int tot_us, int max_us, long runs) {
    char b[160];
    snprintf(b, sizeof b, "%-35s TOT:%08d.%08d MAX:%08d.%08d RUNS:%8ld\n", key, 0, tot_us, 0, max_us, runs);
    return std::string(b);
  };
  EXPECT_EQ(slurp(path), "5 sec scheduler slip, user: 0 sec 800000 usec, system: 0 sec, 100000 usec\n" +
                             std::string(head) + row("read processing:reader", 500000, 250000, 2) +
                             row("read:[overhead]", 0, 0, 2) + row("timer processing:reader_tick", 120000, 120000, 1) +
                             row("timer:[overhead]", 0, 0, 1));
  EXPECT_EQ(task_accounting_tree_walk(collect, &rows_unused), 0u) << "the tree starts again";
  // The next slip has nothing to list; with accounting off there is no file.
  advance(5);
  task_monitor_slip(&blocked);
  EXPECT_EQ(slurp(task_accounting_slip_dump_path()),
            "5 sec scheduler slip, user: 0 sec 0 usec, system: 0 sec, 0 usec\n" + std::string(head));
  task_accounting_set(false);
  advance(5);
  task_monitor_slip(&blocked);
  EXPECT_NE(std::string(task_accounting_slip_dump_path()).find("_2.txt"), std::string::npos);
  close(pair[1]);
}

// The real source of process times: a method that spins until getrusage
// itself has seen 20 ms more is charged at least that much.
void spin(task *) {
  task_utime u0, s0, u, s;
  task_process_times(&u0, &s0);
  do task_process_times(&u, &s);
  while (task_utime_to_usec(u) + task_utime_to_usec(s) < task_utime_to_usec(u0) + task_utime_to_usec(s0) + 20000);
}

TEST_F(Acct, GetrusageChargesASpinningMethod) {
  task_set_rusage_hook(nullptr);
  task *tp = io_task("spinner", spin, nullptr);
  task_accounting_set(true);
  script.push_back({ev(tp, TASK_EVFILT_READ)});
  passes(1);
  const task_accounting &rd = tp->task_acct[TASK_ACCT_READ];
  EXPECT_EQ(rd.ta_calls, 1u);
  EXPECT_GE(used(rd), 0.02);
  EXPECT_GE(secs(rd.ta_longest), 0.02);
  EXPECT_LT(used(sched_rec(TASK_ACCT_READ)), 0.02) << "the spin is not the kernel's";
  close(pair[1]);
}

}  // namespace
}  // namespace tt
