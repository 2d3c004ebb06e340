// What timers say: their trace lines (times through the formatter's %t and
// %#t) and the timer dump, on the fake clock.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "fixture.h"
#include "format/task_fmt.h"
#include "platform/path.h"
#include "trace/trace.h"

namespace tt {
namespace {

std::string slurp(const std::string &path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// The scheduler task traces its timers' lines to a file under a private root.
class TimerText : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    char dir[] = "/tmp/timer_text_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root_ = dir;
    tvx_path_set_root(dir);
    ASSERT_EQ(tvx_mkdirs((root_ + "/var/log").c_str(), 0755), 0);
    setenv("TZ", "UTC", 1);
    tzset();
    task_fmt_set_time_offset(0, 0);  // internal time prints as time of day from 0
    if (!ztrace_global) trace_init(nullptr);
    trace_file *f = trace_file_locate("timers.trace", 0, 0, 0, 0, nullptr, false);
    ASSERT_NE(f, nullptr);
    ztrace_store(&keeper->task_trace, 0x4000000, 0, 0, f, nullptr);  // timer lines
    trace_on(f);
    path_ = root_ + "/var/log/timers.trace";
    skip_ = slurp(path_).size();
  }
  void TearDown() override { std::system(("rm -rf " + root_).c_str()); }
  // The lines written since the last call, without their time stamps.
  std::string lines() {
    std::string all = slurp(path_), out;
    std::istringstream in(all.substr(skip_));
    skip_ = all.size();
    for (std::string l; std::getline(in, l);) {
      size_t at = l.find("task_timer");
      out += (at == std::string::npos ? l : l.substr(at)) + "\n";
    }
    return out;
  }
  std::string root_, path_;
  size_t skip_ = 0;
};

TEST_F(TimerText, SettingTracesTimesThroughTheFormatter) {
  task_timer *t = task_timer_create_idle(keeper, "tick", 0, nullptr, nullptr);
  lines();
  task_utime iv{90, 500000}, off{2, 0};
  task_timer_uset(t, &iv, &off, 0);  // due at 1002
  task_timer_uset(t, &iv, nullptr, 0);  // due at 1090.5
  task_timer_uset(t, nullptr, &off, 0);
  EXPECT_EQ(lines(),
            "task_timer_uset: timer keeper_tick <tick> set to interval 1:30.500000 offset 2 with jitter 0 at 16:42\n"
            "task_timer_uset: timer keeper_tick <tick> set to interval 1:30.500000 with jitter 0 at 18:10.500000\n"
            "task_timer_uset: timer keeper_tick <tick> set to interval 0 offset 2 with jitter 0 at 16:42\n");
  task_utime three{3, 250000};
  task_timer_set_uinterval(t, &three);
  task_timer_uset_oneshot_latest(t, &three, 0, false);
  task_timer_uset_interval_latest(t, &iv, 0, false);
  EXPECT_EQ(lines(),
            "task_timer_uinterval: timer keeper_tick interval set to 3.250000\n"
            "task_timer_set_oneshot_latest: timer keeper_tick interval set to 3.250000\n"
            "task_timer_uset_interval_latest: timer keeper_tick interval set to 1:30.500000\n");
}

std::string dump() { return printed(task_timer_dump); }

void nothing(task_timer *, uint32_t) {}

TEST_F(TimerText, DumpListsEachTasksTimersByClassInFiringOrder) {
  task_timer_create(keeper, "tick", 0, 10, 0, 0, nothing, nullptr);           // 1010, every 10
  task_timer_create(keeper, "soon", TIMERF_HIPRIO, 0, 5, 0, nothing, nullptr);  // 1005
  task_timer_create(keeper, "slow", TIMERF_LOWPRIO, 20, 0, 30, nothing, nullptr);
  task_timer_create_idle(keeper, "idle", 0, nothing, nullptr);
  task_timer *group = task_timer_create_parent(keeper, "group", 0, nullptr);
  task_utime three{3, 0}, half{0, 500000};
  task_timer_create_internal(keeper, "member", 0, group, true, nullptr, &three, 0, nothing, nullptr);  // 1003
  task_timer_create_internal(keeper, "late", 0, nullptr, true, nullptr, &half, 0, nothing, nullptr);   // 1000.5
  task_timer_create(nullptr, "orphan", 0, 7, 0, 0, nothing, nullptr);                                  // 1007
  advance(1.25);  // "late" is due, nothing dispatched
  // "slow" fires up to 6 s early, at random: its time left is masked.
  std::string text = std::regex_replace(dump(), std::regex("\\| slow +[0-9:.]+ "), "| slow <jittered> ");
  EXPECT_EQ(text,
            "\tTask " + std::string(task_name(keeper)) + ":\n"
            "\n\t\tHigh priority timers:\n"
            "\t\t        Timer Name                          Expires  Jitter  Interval  Flags\n"
            "\t\t| soon                                     3.750000       0         0  HT\n"
            "\n\t\tNormal priority timers:\n"
            "\t\t        Timer Name                          Expires  Jitter  Interval  Flags\n"
            "\t\t| late                                         late       0         0  T\n"
            "\t\t| group                                    1.750000       0         0  \n"
            "\t\t| | member                                 1.750000       0         0  T\n"
            "\t\t| tick                                     8.750000       0        10  T\n"
            "\n\t\tLow priority timers:\n"
            "\t\t        Timer Name                          Expires  Jitter  Interval  Flags\n"
            "\t\t| slow <jittered>      30        20  TL\n"
            "\n\t\tStopped timers:\n"
            "\t\t        Timer Name                          Expires  Jitter  Interval  Flags\n"
            "\t\t| idle                                            -       0         0  \n"
            "\n"
            "\tTimers without tasks:\n\n"
            "\n\t\tNormal priority timers:\n"
            "\t\t        Timer Name                          Expires  Jitter  Interval  Flags\n"
            "\t\torphan                                     5.750000       0         7  T\n");
}

}  // namespace
}  // namespace tt
