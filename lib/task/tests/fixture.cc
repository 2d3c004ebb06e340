#include "fixture.h"

#include <cstdlib>

namespace tt {

task_utime fake_now;
std::vector<task_utime> waits;
std::deque<std::vector<task_kevent>> script;
int waits_left;
uint64_t wait_advance_min_us;
std::function<void()> on_wait;

namespace {
void clock_hook(task_utime *out) { *out = fake_now; }
int fake_wait(int level, task_kevent *out, int max, const task_utime *timeout) {
  if (level != 0) {
    if (script.empty()) return 0;
  } else {
    waits.push_back(timeout ? *timeout : task_utime{~0u, 0});
    uint64_t us = timeout ? task_utime_to_usec(*timeout) : 0;
    if (us < wait_advance_min_us) us = wait_advance_min_us;
    fake_now = task_utime_from_usec(task_utime_to_usec(fake_now) + us);
    if (on_wait) on_wait();
    if (--waits_left <= 0) task_scheduler_stop();
  }
  if (script.empty()) return 0;
  auto evs = script.front();
  script.pop_front();
  int n = 0;
  for (auto &e : evs) {
    if (n == max) break;
    out[n++] = e;
  }
  return n;
}
}  // namespace

void advance(double s) {
  fake_now = task_utime_add(fake_now, sec(s));
  task_time_update();
}

std::string printed(void (*dump)(FILE *)) {
  char *text = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&text, &len);
  dump(f);
  fclose(f);
  std::string out(text, len);
  free(text);
  return out;
}

void passes(int n) {
  waits_left = n;
  task_scheduler_run();
}

void Kernel::SetUp() {
  fake_now = sec(1000);
  waits.clear();
  script.clear();
  wait_advance_min_us = 0;
  on_wait = nullptr;
  task_kernel_init();
  task_assert_soft_cores_disable(true);  // no test leaves a core behind
  task_set_time_hook(clock_hook);
  task_evq.wait = fake_wait;
  keeper = task_alloc("keeper", 100, nullptr);
  task_create(keeper);
}

}  // namespace tt
