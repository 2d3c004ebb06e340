// Change notification: who hears a broadcast, in what order, in what frame,
// and a task deleted by its own callback.
#include "fixture.h"
#include "msgs.h"
#include "task/accounting.h"

namespace {

using namespace ist;
using V = std::vector<std::string>;

class IfChange : public tt::Kernel {
 protected:
  void SetUp() override {
    tt::Kernel::SetUp();
    told.clear();
    calls.clear();
    if_init();
    rt_instance_init();
  }
  static inline std::vector<std::string> calls;
};

std::vector<std::string> *calls_of;
void by_name(task *tp, if_link *) { calls_of->push_back(tp->task_name_base); }

task *made(const char *name, int prio, bool create = true) {
  task *tp = task_alloc(name, prio, nullptr);
  if (create) task_create(tp);
  return tp;
}

TEST_F(IfChange, ListsAreInPriorityOrderAndSkipTasksWithoutIdentityOrCallback) {
  calls_of = &calls;
  task *c = made("c", 30), *a = made("a", 10), *b = made("b", 20), *a2 = made("a2", 10);
  task *unborn = made("unborn", 5, false);
  for (task *tp : {c, a, b, a2, unborn}) task_set_iflchange(tp, by_name);
  made("deaf", 1);  // no callback: not on the list at all
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  EXPECT_EQ(calls, (V{"a", "a2", "b", "c"}));
  // Clearing the callback takes the task off the list.
  task_set_iflchange(b, nullptr);
  EXPECT_FALSE(task_notify_list_has(b, IF_NOTIFY_LOGICAL));
  // Once created it hears like any other.
  task_create(unborn);
  calls.clear();
  ifl(70, 1, 0, RTS_OP_CHANGE);
  EXPECT_EQ(calls, (V{"unborn", "a", "a2", "c"}));
}

int refuse_all(task *, const if_link *) { return 0; }
int only_unit_1(task *, const if_link *l) { return l->ifl_unit == 1; }

TEST_F(IfChange, FiltersDecideAndARefusedTaskIsNotEvenTraced) {
  calls_of = &calls;
  task *none = made("none", 10), *one = made("one", 20);
  task_set_iflchange(none, by_name);
  task_set_iflchange(one, by_name);
  task_set_ifl_filter(none, refuse_all);
  task_set_ifl_filter(one, only_unit_1);
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  ifl(71, 1, 1);
  EXPECT_EQ(calls, (V{"one"}));
}

// A callback that deletes its own task; the walk goes on to the next task.
void delete_self(task *tp, if_address *) {
  told.push_back(std::string("deleting ") + tp->task_name_base);
  task_delete(tp);
}

TEST_F(IfChange, ATaskDeletedByItsOwnCallbackDoesNotBreakTheWalk) {
  task *first = made("first", 10), *last = listener("last", 20);
  task_set_ifachange(first, delete_self);
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  told.clear();
  ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32);
  ifa(70, RTS_AF_INET, v4(10, 0, 0, 2), 32);
  EXPECT_EQ(told, (V{"deleting first", "ifa new ge-0/0/0.0 10.0.0.1/32", "ifa new ge-0/0/0.0 10.0.0.2/32"}));
  // Collected: the record leaves the list for good.
  tt::passes(3);
  EXPECT_EQ(task_notify_list_first(IF_NOTIFY_ADDRESS), last);
  EXPECT_EQ(task_notify_list_next(last, IF_NOTIFY_ADDRESS), nullptr);
}

// What the frame gives a callback.
struct Frame {
  int in_change;
  task *current;
};
std::vector<Frame> frames;
void note_frame(task *, if_device *, void *, uint32_t) { frames.push_back({task_io_in_change(), task_current()}); }

TEST_F(IfChange, TheFrameSetsTheFlagTheCurrentTaskAndChargesTheTask) {
  task *tp = made("framed", 10);
  task_set_ifdchange(tp, note_frame);
  task_accounting_set(true);
  ifd(1, "ge-0/0/0");
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].in_change, IF_IN_CHANGE);
  EXPECT_EQ(frames[0].current, tp);
  EXPECT_EQ(task_io_in_change(), 0);
  EXPECT_NE(task_current(), tp);
  EXPECT_EQ(tp->task_acct[TASK_ACCT_OTHER].ta_calls, 1u);
  task_accounting_set(false);
}

TEST_F(IfChange, ReplaysReachOnlyTasksThatWantThem) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32);
  frames.clear();
  task *keen = listener("keen", 10);
  task *plain = listener("plain", 20);
  task_set_ifdchange(plain, note_frame);
  task_set_ifreplay_wanted(keen, true);
  if_replay();
  EXPECT_EQ(told, (V{"ifd same ge-0/0/0", "ifl same ge-0/0/0.0", "iff same ge-0/0/0.0 inet",
                     "ifa same ge-0/0/0.0 10.0.0.1/32"}));
  EXPECT_TRUE(frames.empty());
  // To one task, wanted or not, with the replay flag.
  told.clear();
  if_replay_task(plain);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].in_change, IF_IN_REPLAY);
  EXPECT_EQ(told, (V{"ifl same ge-0/0/0.0", "iff same ge-0/0/0.0 inet", "ifa same ge-0/0/0.0 10.0.0.1/32"}));
  (void)keen;
}

int replays;
void on_replay(task *, void *object, void *, int flag, int) {
  EXPECT_EQ(flag, IF_IN_REPLAY);
  EXPECT_NE(object, nullptr);
  replays++;
}

TEST_F(IfChange, IffreplayIsToldPerFamilyInATaskReplay) {
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  iff(70, RTS_AF_INET6);
  task *tp = made("replayer", 10);
  task_set_iffreplay(tp, on_replay);
  EXPECT_TRUE(task_notify_list_has(tp, IF_NOTIFY_FAMILY));
  if_replay_task(tp);
  EXPECT_EQ(replays, 2);
}

uint32_t flag_old, flag_new;
void on_flags(task *, if_family *, uint32_t o, uint32_t n, void *) {
  flag_old = o;
  flag_new = n;
}

TEST_F(IfChange, AFamilyFlagChangeIsToldOnItsOwnList) {
  task *tp = made("flags", 10);
  task_set_iff_flag_change(tp, on_flags);
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET, RTS_OP_ADD, 1500, 0x1);
  EXPECT_EQ(flag_new, 0u);  // a new family is no flag change
  iff(70, RTS_AF_INET, RTS_OP_CHANGE, 1500, 0x5);
  EXPECT_EQ(flag_old, 0x1u);
  EXPECT_EQ(flag_new, 0x5u);
}

TEST_F(IfChange, RttchangeVisitsEveryTaskWithTheCallbackWithoutAList) {
  task *tp = made("tables", 10);
  tp->task_rttchange = on_rtt;  // set by hand: no list involved
  made("other", 20);
  rtt(RTS_AF_INET, 9, "blue");
  EXPECT_EQ(told, (V{"rtt blue&AF=2 flags=4"}));
}

}  // namespace

namespace {

// Sets (or clears) all five defaults of the application record.
void set_defaults(bool on) {
  task_app_ctx_t *app = task_get_task_app_ctx();
  app->app_ifd_change = on ? on_ifd : nullptr;
  app->app_iff_change = on ? on_iff : nullptr;
  app->app_ifl_change = on ? on_ifl : nullptr;
  app->app_ifa_change = on ? on_ifa : nullptr;
  app->app_rtt_change = on ? on_rtt : nullptr;
}

class IfChangeDefaults : public IfChange {
 protected:
  void TearDown() override {
    set_defaults(false);
    IfChange::TearDown();
  }
};

TEST_F(IfChangeDefaults, TheApplicationsDefaultCallbacksReachEveryNewTask) {
  set_defaults(true);
  task *tp = made("defaults", 10);
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET);
  ifa(70, RTS_AF_INET, v4(10, 0, 0, 1), 32);
  rtt(RTS_AF_INET, 9, "blue");
  EXPECT_EQ(told, (V{"ifd new ge-0/0/0", "ifl new ge-0/0/0.0", "iff new ge-0/0/0.0 inet",
                     "ifa new ge-0/0/0.0 10.0.0.1/32", "rtt blue&AF=2 flags=4"}));
  // A default is an ordinary registration: clearing it silences the task.
  told.clear();
  task_set_iflchange(tp, nullptr);
  ifl(70, 1, 0, RTS_OP_CHANGE);
  EXPECT_TRUE(told.empty());
  // Changing the defaults later leaves existing tasks as they were.
  task_get_task_app_ctx()->app_ifd_change = nullptr;
  ifd(1, "ge-0/0/0", RTS_OP_CHANGE, 0x4);
  EXPECT_EQ(told, (V{"ifd changed ge-0/0/0"}));
}

std::vector<uint32_t> iff_args;
void note_iff_arg(task *, if_family *, uint32_t previous, void *, int) { iff_args.push_back(previous); }

TEST_F(IfChange, AFamilysChangeArgumentIsItsChangeWordWithAPlainChangeAsZero) {
  iff_args.clear();
  task *tp = made("families", 10);
  task_set_iffchange(tp, note_iff_arg);
  ifd(1, "ge-0/0/0");
  ifl(70, 1, 0);
  iff(70, RTS_AF_INET, RTS_OP_ADD, 1500, 0x1);
  iff(70, RTS_AF_INET, RTS_OP_CHANGE, 9000, 0x1);  // changed
  iff(70, RTS_AF_INET, RTS_OP_CHANGE, 9000, 0x1);  // nothing differed
  iff(70, RTS_AF_INET, RTS_OP_DELETE);
  iff(70, RTS_AF_INET6, RTS_OP_ADD, 1500, 0x3);
  ifd(1, "ge-0/0/0", RTS_OP_DELETE);  // the family goes with its device
  EXPECT_EQ(iff_args, (std::vector<uint32_t>{IF_CHANGE_NEW, 0, 0, IF_CHANGE_DELETE, IF_CHANGE_NEW, IF_CHANGE_DELETE}));
}

}  // namespace
