// The task kernel's timers and job slices against libev, libevent and libuv.
//
// TimerRearm: re-setting one of N running timers to its interval, round robin
//   (so every set moves a timer from the front of the order to the back).
//   Each implementation refreshes its cached clock before every set, so that
//   a set is never a no-op on an unchanged expiry.
//   /1000 and /100000 timers. Shape (a), TimerRearm: 100 tasks, one interval
//   per task, the tree's design case. Shape (b), TimerRearmMixed: each timer
//   its own random interval (1 to 100 s), spread over 100 tasks; the anchors get
//   the same intervals.
// TimerFire: N timers all due, armed and then dispatched by one loop pass;
//   CPU time per timer. TimerFireRefresh: the same with libev refreshing its
//   cached time after every callback, as ours does.
// ClockRead: one refresh of the cached time against a bare clock_gettime.
// JobSlice: one pass of a running loop that runs one slice of an idle-time job
//   with a zero wait (ours: a background job; libev: ev_idle; libuv: uv_idle).
#include <benchmark/benchmark.h>
#include <ev.h>
#include <dlfcn.h>
#include <event2/event.h>
#include <sched.h>
#include <uv.h>

#include <time.h>

#include <random>
#include <vector>

#include "task/job.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

#include "../common/libevent_dl.h"
#include "../common/pinned_main.h"

namespace {

constexpr int kTasks = 100;

task *tasks[kTasks];
void kernel() {
  static bool up;
  if (up) return;
  up = true;
  task_kernel_init();
  for (int i = 0; i < kTasks; i++) {
    tasks[i] = task_alloc("bench", i, nullptr);
    task_create(tasks[i]);
  }
}

// Intervals in microseconds: per task (shape a) or per timer (shape b).
std::vector<uint64_t> intervals(size_t n, bool mixed) {
  std::mt19937 rng(42);
  std::vector<uint64_t> per_task(kTasks), v(n);
  for (auto &x : per_task) x = 1000000 + rng() % 99000000;
  for (size_t i = 0; i < n; i++) v[i] = mixed ? 1000000 + rng() % 99000000 : per_task[i % kTasks];
  return v;
}

void nop(task_timer *, uint32_t) {}

void rearm_ours(benchmark::State &st, bool mixed) {
  kernel();
  size_t n = st.range(0);
  auto iv = intervals(n, mixed);
  std::vector<task_timer *> t(n);
  std::vector<task_utime> u(n);
  for (size_t i = 0; i < n; i++) {
    u[i] = task_utime_from_usec(iv[i]);
    t[i] = task_timer_ucreate(tasks[i % kTasks], "b", 0, &u[i], nullptr, 0, nop, nullptr);
  }
  size_t i = 0;
  for (auto _ : st) {
    task_time_update();
    task_timer_uset(t[i], &u[i], nullptr, 0);
    if (++i == n) i = 0;
  }
  for (auto *x : t) task_timer_delete(x);
}

void rearm_libev(benchmark::State &st, bool mixed) {
  size_t n = st.range(0);
  auto iv = intervals(n, mixed);
  struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
  std::vector<ev_timer> t(n);
  for (size_t i = 0; i < n; i++) {
    ev_timer_init(&t[i], [](struct ev_loop *, ev_timer *, int) {}, 0, iv[i] / 1e6);
    ev_timer_again(loop, &t[i]);
  }
  size_t i = 0;
  for (auto _ : st) {
    ev_now_update(loop);
    ev_timer_again(loop, &t[i]);
    if (++i == n) i = 0;
  }
  for (auto &x : t) ev_timer_stop(loop, &x);
  ev_loop_destroy(loop);
}

void rearm_libevent(benchmark::State &st, bool mixed) {
  size_t n = st.range(0);
  auto iv = intervals(n, mixed);
  event_base *base = le().base_new();
  std::vector<event *> t(n);
  std::vector<timeval> tv(n);
  for (size_t i = 0; i < n; i++) {
    t[i] = le().event_new(base, -1, 0, [](evutil_socket_t, short, void *) {}, nullptr);
    tv[i] = timeval{static_cast<time_t>(iv[i] / 1000000), static_cast<suseconds_t>(iv[i] % 1000000)};
    le().add(t[i], &tv[i]);
  }
  size_t i = 0;
  for (auto _ : st) {
    le().update_time(base);
    le().add(t[i], &tv[i]);
    if (++i == n) i = 0;
  }
  for (auto *x : t) le().free(x);
  le().base_free(base);
}

void rearm_libuv(benchmark::State &st, bool mixed) {
  size_t n = st.range(0);
  auto iv = intervals(n, mixed);
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> t(n);
  for (size_t i = 0; i < n; i++) {
    uv_timer_init(&loop, &t[i]);
    uv_timer_start(&t[i], [](uv_timer_t *) {}, iv[i] / 1000, 0);
  }
  size_t i = 0;
  for (auto _ : st) {
    uv_update_time(&loop);
    uv_timer_start(&t[i], [](uv_timer_t *) {}, iv[i] / 1000, 0);
    if (++i == n) i = 0;
  }
  for (auto &x : t) uv_close(reinterpret_cast<uv_handle_t *>(&x), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}

// ---- TimerFire ----
constexpr int kFire = 1000;

void fire_ours(benchmark::State &st) {
  kernel();
  std::vector<task_timer *> t(kFire);
  for (int i = 0; i < kFire; i++) t[i] = task_timer_create_idle(tasks[i % kTasks], "f", 0, nop, nullptr);
  task_timer_var *tv = task_var_timers();
  for (auto _ : st) {
    task_time_update();
    for (auto *x : t) task_timer_expire_immediately(x);
    while (task_timer_dispatch(&tv->timer_normal_root, false, -1)) {
    }
  }
  st.SetItemsProcessed(st.iterations() * kFire);
  for (auto *x : t) task_timer_delete(x);
}

void fire_libev(benchmark::State &st) {
  struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
  std::vector<ev_timer> t(kFire);
  for (auto &x : t) ev_timer_init(&x, [](struct ev_loop *, ev_timer *, int) {}, 0, 0);
  for (auto _ : st) {
    for (auto &x : t) ev_timer_start(loop, &x);
    ev_run(loop, EVRUN_NOWAIT);
  }
  st.SetItemsProcessed(st.iterations() * kFire);
  ev_loop_destroy(loop);
}

// libev under the rule ours keeps: the cached time refreshed after every
// callback (ev_now_update, its clock_gettime), so the difference between
// TimerFire/libev and this is what the rule alone costs.
void fire_libev_refresh(benchmark::State &st) {
  struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
  std::vector<ev_timer> t(kFire);
  for (auto &x : t) ev_timer_init(&x, [](struct ev_loop *l, ev_timer *, int) { ev_now_update(l); }, 0, 0);
  for (auto _ : st) {
    for (auto &x : t) ev_timer_start(loop, &x);
    ev_run(loop, EVRUN_NOWAIT);
  }
  st.SetItemsProcessed(st.iterations() * kFire);
  ev_loop_destroy(loop);
}

void fire_libevent(benchmark::State &st) {
  event_base *base = le().base_new();
  std::vector<event *> t(kFire);
  timeval zero{0, 0};
  for (auto &x : t) x = le().event_new(base, -1, 0, [](evutil_socket_t, short, void *) {}, nullptr);
  for (auto _ : st) {
    for (auto *x : t) le().add(x, &zero);
    le().loop(base, EVLOOP_NONBLOCK);
  }
  st.SetItemsProcessed(st.iterations() * kFire);
  for (auto *x : t) le().free(x);
  le().base_free(base);
}

void fire_libuv(benchmark::State &st) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> t(kFire);
  for (auto &x : t) uv_timer_init(&loop, &x);
  for (auto _ : st) {
    for (auto &x : t) uv_timer_start(&x, [](uv_timer_t *) {}, 0, 0);
    uv_run(&loop, UV_RUN_NOWAIT);
  }
  st.SetItemsProcessed(st.iterations() * kFire);
  for (auto &x : t) uv_close(reinterpret_cast<uv_handle_t *>(&x), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}

// ---- ClockRead ----
// One refresh of the cached time: ours (the TSC where it is invariant) against
// the clock_gettime it replaces.
void clock_ours(benchmark::State &st) {
  kernel();
  for (auto _ : st) {
    task_time_update();
    benchmark::DoNotOptimize(task_now);
  }
}

void clock_floor(benchmark::State &st) {
  timespec ts;
  for (auto _ : st) {
    clock_gettime(CLOCK_MONOTONIC, &ts);
    benchmark::DoNotOptimize(ts);
  }
}

// ---- JobSlice ----
// Each loop runs on its own and its idle-time callback takes the benchmark's
// next iteration, so one iteration is one pass of a running loop (its wait
// and its slice) for every implementation, with no loop entry or exit.
benchmark::State *slice_state;

void slice(task_job *) {
  if (!slice_state->KeepRunning()) task_scheduler_stop();
}

void slice_ours(benchmark::State &st) {
  kernel();
  slice_state = &st;
  task_job *jp = task_job_create_background(tasks[0], 3, "slice", slice, nullptr);
  task_scheduler_run();
  task_job_delete(jp);
}

void slice_libev(benchmark::State &st) {
  struct ev_loop *loop = ev_loop_new(EVFLAG_AUTO);
  slice_state = &st;
  ev_idle idle;
  ev_idle_init(&idle, [](struct ev_loop *l, ev_idle *, int) {
    if (!slice_state->KeepRunning()) ev_break(l, EVBREAK_ONE);
  });
  ev_idle_start(loop, &idle);
  ev_run(loop, 0);
  ev_idle_stop(loop, &idle);
  ev_loop_destroy(loop);
}

void slice_libuv(benchmark::State &st) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  slice_state = &st;
  uv_idle_t idle;
  uv_idle_init(&loop, &idle);
  uv_idle_start(&idle, [](uv_idle_t *h) {
    if (!slice_state->KeepRunning()) uv_stop(h->loop);
  });
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_close(reinterpret_cast<uv_handle_t *>(&idle), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}

}  // namespace

BENCHMARK_CAPTURE(rearm_ours, a, false)->Name("TimerRearm/ours")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libev, a, false)->Name("TimerRearm/libev")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libevent, a, false)->Name("TimerRearm/libevent")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libuv, a, false)->Name("TimerRearm/libuv")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_ours, b, true)->Name("TimerRearmMixed/ours")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libev, b, true)->Name("TimerRearmMixed/libev")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libevent, b, true)->Name("TimerRearmMixed/libevent")->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(rearm_libuv, b, true)->Name("TimerRearmMixed/libuv")->Arg(1000)->Arg(100000);
BENCHMARK(fire_ours)->Name("TimerFire/ours");
BENCHMARK(fire_libev)->Name("TimerFire/libev");
BENCHMARK(fire_libevent)->Name("TimerFire/libevent");
BENCHMARK(fire_libuv)->Name("TimerFire/libuv");
BENCHMARK(fire_ours)->Name("TimerFireRefresh/ours");
BENCHMARK(fire_libev_refresh)->Name("TimerFireRefresh/libev");
BENCHMARK(clock_ours)->Name("ClockRead/ours");
BENCHMARK(clock_floor)->Name("ClockRead/floor");
BENCHMARK(slice_ours)->Name("JobSlice/ours");
BENCHMARK(slice_libev)->Name("JobSlice/libev");
BENCHMARK(slice_libuv)->Name("JobSlice/libuv");

TVX_BENCH_PINNED_MAIN()
