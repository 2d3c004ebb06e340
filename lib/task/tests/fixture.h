// A kernel on a fake clock whose waits never sleep: each wait records the
// timeout it was given, moves the clock on by it, and hands out scripted
// events.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "evlog/evlog.h"
#include "task/evq.h"
#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

namespace tt {

extern task_utime fake_now;
extern std::vector<task_utime> waits;               // timeout of each wait
extern std::deque<std::vector<task_kevent>> script;  // events of the next waits
extern int waits_left;                               // stop the nested loop after this many
extern uint64_t wait_advance_min_us;                 // the clock moves at least this much per wait
extern std::function<void()> on_wait;

inline task_utime sec(double s) { return task_utime_from_usec(static_cast<uint64_t>(s * 1e6 + 0.5)); }
inline double secs(const task_utime &t) { return t.ut_sec + t.ut_usec / 1e6; }
void advance(double s);
// What a dump function prints.
std::string printed(void (*dump)(FILE *));
// Runs n passes of the nested loop.
void passes(int n);

class Kernel : public ::testing::Test {
 protected:
  void SetUp() override;
  task *keeper = nullptr;  // keeps the live count above zero
};

}  // namespace tt
