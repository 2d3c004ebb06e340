// task_idle: the smallest daemon on the task kernel. One task and nothing to
// do: the loop wakes only for its 4-second bound, and SIGTERM ends it through
// the ordinary exit path. Each wake is written to standard error as
// "wake <seconds since start>", so that a test can see how often it wakes.
#include <time.h>

#include <cstdio>

#include "evlog/evlog.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

timespec start;
task_app_ctx_t app;

void woke(void) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  double s = static_cast<double>(ts.tv_sec - start.tv_sec) + (ts.tv_nsec - start.tv_nsec) / 1e9;
  fprintf(stderr, "wake %.3f\n", s);
}

}  // namespace

int main(int, char **argv) {
  clock_gettime(CLOCK_MONOTONIC, &start);
  task_set_daemon_name(argv[0]);
  logging_set_mode(LOGGING_MODE_STDERR);
  app.app_post_wait = woke;
  task_set_task_app_ctx(&app);
  task_kernel_init();
  task *tp = task_alloc("idle", 10, nullptr);
  task_create(tp);
  fprintf(stderr, "ready\n");
  task_scheduler();
}
