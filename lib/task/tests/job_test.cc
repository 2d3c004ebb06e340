// Jobs: weights and starvation, foreground passes, deletion from methods,
// sub-jobs and time slices.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fixture.h"
#include "platform/path.h"
#include "trace/trace.h"
#include "trace/zevt.h"

namespace tt {
namespace {

std::string runs;
task *keeper_of_nest;
void mark(task_job *jp) { runs += static_cast<const char *>(task_job_get_data(jp)); }

TEST_F(Kernel, LowerPriorityStarvesAfterExactly65RunsThenAlternates) {
  task_job_create_background(keeper, 3, "three", mark, const_cast<char *>("B"));
  task_job_create_background(keeper, 0, "zero", mark, const_cast<char *>("A"));
  for (int i = 0; i < 70; i++) task_job_bg_dispatch();
  EXPECT_EQ(runs, std::string(65, 'A') + "BABAB");
  EXPECT_EQ(task_var_jobs()->taskjobs_starving, 1u);
}

TEST_F(Kernel, WeightsOfTheDaemonReplaceTheDefault) {
  EXPECT_EQ(task_var_jobs()->task_job_weight[7], 16384u);
  task_job_weight_add(1);
  task_job_weight_add(2);
  EXPECT_EQ(task_var_jobs()->task_job_weight[0], 1u);
  EXPECT_EQ(task_var_jobs()->task_job_weight[1], 2u);
  EXPECT_EQ(task_var_jobs()->task_job_weight[7], 2u);
  // Priority 1 now starves behind priority 0 after 3 runs.
  task_job_create_background(keeper, 1, "one", mark, const_cast<char *>("B"));
  task_job_create_background(keeper, 0, "zero", mark, const_cast<char *>("A"));
  for (int i = 0; i < 6; i++) task_job_bg_dispatch();
  EXPECT_EQ(runs, "AAABAB");
}

void spawn_fg(task_job *jp) {
  runs += "F";
  task_job_create_foreground(task_job_get_task(jp), "child", mark, const_cast<char *>("C"));
}

TEST_F(Kernel, ForegroundJobsCreatedDuringDispatchWaitAPass) {
  task_job_create_foreground(keeper, "parent", spawn_fg, nullptr);
  passes(1);
  EXPECT_EQ(runs, "F");
  EXPECT_TRUE(task_job_fg_queued());
  EXPECT_DOUBLE_EQ(secs(waits.back()), 0.0);
  passes(1);
  EXPECT_EQ(runs, "FC");
  EXPECT_FALSE(task_job_fg_queued());
}

task_job *victim;
void delete_self_and_victim(task_job *jp) {
  task_job_delete(jp);
  task_job_delete(victim);
  EXPECT_EQ(jp->task_job_forw, nullptr);  // still readable
  EXPECT_STREQ(task_job_get_name(jp), "self");
  task_job_delete(jp);                     // already deleted
}

TEST_F(Kernel, DeletingJobsFromAMethod) {
  task_job_create_background(keeper, 2, "self", delete_self_and_victim, nullptr);
  victim = task_job_create_background(keeper, 2, "victim", mark, const_cast<char *>("V"));
  task_job_bg_dispatch();
  EXPECT_FALSE(task_job_bg_queued());
  EXPECT_EQ(runs, "");
  // The same for foreground jobs.
  task_job_create_foreground(keeper, "self", delete_self_and_victim, nullptr);
  victim = task_job_create_foreground(keeper, "victim", mark, const_cast<char *>("V"));
  task_job_fg_dispatch();
  EXPECT_FALSE(task_job_fg_queued());
  EXPECT_EQ(runs, "");
}

void subjob(task_job *jp) {
  runs += static_cast<const char *>(task_job_subjob_data(task_job_current_subjob(jp)));
  advance(0.010);
}

TEST_F(Kernel, SubJobsOnePerDispatchUntilTheRoundEnds) {
  task_job_create_background_subjob(keeper, 1, "walk", "a", subjob, 1000, 0, const_cast<char *>("a"));
  task_job_create_background_subjob(keeper, 1, "walk", "b", subjob, 1000, 0, const_cast<char *>("b"));
  task_job_create_background(keeper, 1, "other", mark, const_cast<char *>("O"));
  task_job_create_background_subjob(keeper, 1, "walk", "c", subjob, 1000, 0, const_cast<char *>("c"));
  EXPECT_EQ(task_var_jobs()->taskjobs_bg_queued, 2u);  // one job with three sub-jobs
  for (int i = 0; i < 5; i++) task_job_bg_dispatch();
  EXPECT_EQ(runs, "abcOa");
}

TEST_F(Kernel, LoopQuantumRunsSubJobsWithinOneDispatch) {
  for (const char *n : {"a", "b", "c", "d"})
    task_job_create_background_subjob(keeper, 1, "walk", n, subjob, 1000, 25, const_cast<char *>(n));
  task_job_bg_dispatch();
  EXPECT_EQ(runs, "abc");  // 10 ms each: the 25 ms loop quantum ends after the third
  task_job_bg_dispatch();
  EXPECT_EQ(runs, "abcd");  // the round ends with d: the job goes to the back
  task_job_bg_dispatch();
  EXPECT_EQ(runs, "abcdabc");
}

TEST_F(Kernel, MaxQuantumUsedUpRequeuesTheJob) {
  for (const char *n : {"a", "b", "c"})
    task_job_create_background_subjob(keeper, 1, "walk", n, subjob, 15, 0, const_cast<char *>(n));
  task_job_create_background(keeper, 1, "other", mark, const_cast<char *>("O"));
  for (int i = 0; i < 4; i++) task_job_bg_dispatch();
  EXPECT_EQ(runs, "abOc");
}

void delete_my_subjob(task_job *jp) {
  runs += "x";
  task_job_subjob_delete(task_job_current_subjob(jp));
}

TEST_F(Kernel, SubJobDeletingItselfAndTheTasksJobs) {
  task_job_create_background_subjob(keeper, 1, "walk", "a", delete_my_subjob, 0, 0, nullptr);
  task_job_create_background_subjob(keeper, 1, "walk", "b", delete_my_subjob, 0, 0, nullptr);
  task_job_bg_dispatch();
  task_job_bg_dispatch();
  EXPECT_EQ(runs, "xx");
  EXPECT_FALSE(task_job_bg_queued());
  task *tp = task_alloc("t", 1, nullptr);
  task_create(tp);
  task_job_create_background_subjob(tp, 1, "walk", "a", subjob, 10, 0, nullptr);
  task_job_create_background_subjob(tp, 1, "walk", "b", subjob, 10, 0, nullptr);
  task_job_create_background(tp, 5, "bg", mark, nullptr);
  task_job_create_foreground(tp, "fg", mark, nullptr);
  task_job_delete_task(tp);
  EXPECT_FALSE(task_job_bg_queued());
  EXPECT_FALSE(task_job_fg_queued());
  EXPECT_DEATH(task_job_create_background_subjob(tp, 1, "w", "s", subjob, 1, 2, nullptr), "loop_quantum <= max_quantum");
  EXPECT_EQ(task_job_create_background(tp, 8, "bad", mark, nullptr), nullptr);
  EXPECT_DEATH(task_job_create(tp, 9, "bad", mark, nullptr), "priority == 128");
}

}  // namespace
// A foreground job that deletes a task takes the task's other foreground jobs
// of the same dispatch with it, in an enclosing dispatch too (a job that runs
// a nested pass).
task *doomed;
void kill_doomed(task_job *) {
  runs += "K";
  task_delete(doomed);
}
void nest_then_kill(task_job *) {
  runs += "N";
  task_job_create_foreground(keeper_of_nest, "inner", kill_doomed, nullptr);
  passes(1);
}

TEST_F(Kernel, ForegroundJobDeletingATaskDropsItsJobsOfTheSameDispatch) {
  runs.clear();
  doomed = task_alloc("doomed", 5, nullptr);
  task_create(doomed);
  task_job_create_foreground(keeper, "killer", kill_doomed, nullptr);
  task_job_create_foreground(doomed, "one", mark, const_cast<char *>("1"));
  task_job_create_foreground(keeper, "other", mark, const_cast<char *>("O"));
  task_job_create_foreground(doomed, "two", mark, const_cast<char *>("2"));
  task_job_fg_dispatch();
  EXPECT_EQ(runs, "KO");
  EXPECT_EQ(task_var_jobs()->taskjobs_fg_queued, 0u);

  runs.clear();
  keeper_of_nest = keeper;
  doomed = task_alloc("doomed again", 5, nullptr);
  task_create(doomed);
  task_job_create_foreground(keeper, "nest", nest_then_kill, nullptr);
  task_job_create_foreground(doomed, "late", mark, const_cast<char *>("L"));
  task_job_fg_dispatch();
  EXPECT_EQ(runs, "NK");
  EXPECT_EQ(task_var_jobs()->taskjobs_fg_queued, 0u);
  EXPECT_FALSE(task_job_fg_queued());
}

int slices;
TEST_F(Kernel, SliceIsOverAfterTheQuantumOrTenMilliseconds) {
  auto loop = [](task_job *jp) {
    slices = 0;
    while (!task_job_slice_over(jp)) {
      slices++;
      advance(0.001);
    }
    task_job_delete(jp);
  };
  task_job_create_background(keeper, 3, "plain", loop, nullptr);
  task_job_bg_dispatch();
  EXPECT_EQ(slices, 10);
  task_job_create_background_subjob(keeper, 3, "sliced", "sub", loop, 25, 0, nullptr);
  task_job_bg_dispatch();
  EXPECT_EQ(slices, 25);
  task_job *fg = task_job_create_foreground(keeper, "fg", [](task_job *jp) {
    advance(1);
    EXPECT_FALSE(task_job_slice_over(jp));
    slices = -1;
    task_job_delete(jp);
  }, nullptr);
  (void)fg;
  task_job_fg_dispatch();
  EXPECT_EQ(slices, -1);
}

// ---- The event system "TASK-JOBS" -----------------------------------------------------

// Its records, read back from the memtrace ring's dump under a private root.
class JobEvents : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    runs.clear();
    char dir[] = "/tmp/task-jobevt-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root_ = dir;
    tvx_path_set_root(dir);
    ASSERT_EQ(tvx_mkdirs((root_ + "/var/log").c_str(), 0755), 0);
    sys_ = task_job_events();
    ASSERT_NE(sys_, nullptr);
  }
  void TearDown() override {
    zevt_set_action(sys_, "1-7", "disable", nullptr, 0);
    task_memtrace_enable(task_memtrace_main(), false);
    tvx_path_set_root(nullptr);
    EXPECT_EQ(system(("rm -rf " + root_).c_str()), 0);
  }
  void on(const char *events) { ASSERT_EQ(zevt_set_action(sys_, events, "memtrace", nullptr, 0), 0); }
  // "N text" of each record since the last call.
  std::vector<std::string> records() {
    task_memtrace_ctx *ctx = task_memtrace_main();
    std::vector<std::string> out;
    if (!ctx->memtrace_count) return out;
    EXPECT_EQ(task_memtrace_dump(ctx), 0);
    FILE *z = popen(("zcat '" + std::string(ctx->memtrace_file) + "'").c_str(), "r");
    char line[512];
    while (z && fgets(line, sizeof line, z)) {
      std::string l = line;
      size_t at = l.find("TASK-JOBS:");
      if (at == std::string::npos) continue;
      l = l.substr(at + 10);
      while (!l.empty() && (l.back() == '\n' || l.back() == ' ')) l.pop_back();
      out.push_back(l);
    }
    if (z) {
      EXPECT_EQ(pclose(z), 0);
    }
    task_memtrace_enable(ctx, false);  // the next call starts afresh
    return out;
  }

  std::string root_;
  zevt_system *sys_ = nullptr;
};

TEST_F(JobEvents, TheSystemCarriesSevenEventsInItsOrder) {
  EXPECT_STREQ(sys_->zs_name, "TASK-JOBS");
  EXPECT_STREQ(sys_->zs_title, "TASK JOBS Event System");
  ASSERT_EQ(sys_->zs_count, 7u);
  std::vector<std::string> titles;
  for (unsigned n = 1; n <= sys_->zs_count; n++) titles.push_back(sys_->zs_events[n].ze_title);
  EXPECT_EQ(titles, (std::vector<std::string>{"job start", "job end", "job starving", "starved job selected",
                                              "jobs queue", "jobs queue foreground", "jobs queue background"}));
  // Nothing is recorded while the events are off.
  task_job_create_background(keeper, 0, "quiet", mark, const_cast<char *>("q"));
  task_job_bg_dispatch();
  EXPECT_EQ(runs, "q");
  EXPECT_EQ(task_memtrace_main()->memtrace_count, 0u);
}

void finish(task_job *jp) { task_job_delete(jp); }

TEST_F(JobEvents, StartAndEndOfEachRunAndTheQueueAfterIt) {
  on("1-2");
  task_job *zero = task_job_create_background(keeper, 0, "zero", mark, const_cast<char *>("0"));
  task_job_bg_dispatch();
  task_job_create_foreground(keeper, "once", finish, nullptr);
  task_job_fg_dispatch();
  EXPECT_EQ(records(), (std::vector<std::string>{
                           "1 zero for task keeper by background dispatch",
                           "2 zero for task keeper by background dispatch is returned",
                           "1 once for task keeper by foreground dispatch",
                           "2 once for task keeper by foreground dispatch is completed",
                       }));

  zevt_set_action(sys_, "1-2", "disable", nullptr, 0);
  on("5-7");
  task_job_create_background(keeper, 3, "three", mark, const_cast<char *>("3"));
  task_job_create_foreground(keeper, "waiting", mark, const_cast<char *>("w"));
  task_job_bg_dispatch();  // zero again
  EXPECT_EQ(records(), (std::vector<std::string>{
                           "5 jobs queue: 1 foreground, 2 background, 0 starving",
                           "6 Job Name : waiting, Priority : 128, Flags : None",
                           "7 Job Name: zero, Priority : 0, Runs : 2, Misses : 0, Flags : <IsActive>",
                           "7 Job Name: three, Priority : 3, Runs : 0, Misses : 1, Flags : <>",
                       }));
  // Without "jobs queue" its lines are not written, even when switched on.
  zevt_set_action(sys_, "5", "disable", nullptr, 0);
  task_job_bg_dispatch();
  EXPECT_TRUE(records().empty());
  task_job_delete(zero);
  task_job_delete_task(keeper);
}

TEST_F(JobEvents, StarvingAndTheStarvedJobSelected) {
  on("3-4");
  task_job_create_background(keeper, 3, "three", mark, const_cast<char *>("B"));
  task_job_create_background(keeper, 0, "zero", mark, const_cast<char *>("A"));
  for (int i = 0; i < 64; i++) task_job_bg_dispatch();
  EXPECT_TRUE(records().empty());
  task_job_bg_dispatch();  // the 65th run of zero: three's credit passes its weight
  task_job_bg_dispatch();
  task_job_bg_dispatch();
  EXPECT_EQ(runs, std::string(65, 'A') + "BA");
  EXPECT_EQ(records(), (std::vector<std::string>{
                           "3 three is getting starved by zero (or other)",
                           "4 three for task keeper selected while starving",
                       }));
  task_job_delete_task(keeper);
}

// Without the event system the jobs run as ever; a later registration finds
// what failed before.
TEST_F(Kernel, JobEventRegistrationFailureIsLoggedAndJobsRunWithout) {
  runs.clear();
  zevt_system_destroy_all();
  void *(*saved)(int, size_t) = trace_app_ctx->alloc;
  trace_app_ctx->alloc = [](int, size_t) -> void * { return nullptr; };
  evlog_capture &cap = evlog_capture_start();
  EXPECT_EQ(task_job_events_register(), -1);
  trace_app_ctx->alloc = saved;
  evlog_capture_stop();
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].tag, "ZTASK_JOBS_EVT_REGISTER_FAILED");
  EXPECT_EQ(cap.records[0].text,
            "ZTASK_JOBS_EVT_REGISTER_FAILED: Tavox task-jobs event registration failed Event system create failure");
  EXPECT_EQ(task_job_events(), nullptr);
  task_job_create_background(keeper, 1, "still runs", mark, const_cast<char *>("s"));
  task_job_bg_dispatch();
  task_job_create_foreground(keeper, "and this", mark, const_cast<char *>("f"));
  task_job_fg_dispatch();
  EXPECT_EQ(runs, "sf");
  EXPECT_EQ(task_job_events_register(), 0);
  ASSERT_NE(task_job_events(), nullptr);
  EXPECT_EQ(task_job_events(), zevt_system_find("TASK-JOBS", nullptr, 0));
  EXPECT_EQ(task_job_events_register(), 0);  // found, not made twice
  task_job_delete_task(keeper);
}

}  // namespace tt
