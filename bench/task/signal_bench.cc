// Signals and children through the loop, against sd-event and libev; all
// three read signals from a signalfd.
//
// SignalDispatch: kill(getpid(), SIGUSR2), then one pass of the loop, which
//   reads the signal and runs its callback (ours: the signal table's handler
//   set by task_signal_enable; sd-event: sd_event_add_signal; libev: ev_signal
//   on a loop made with EVFLAG_SIGNALFD). CPU time per signal.
// ChildReap: fork a child that exits at once; the loop takes SIGCHLD, reaps
//   the child and runs its callback (ours: task_fork with an exit method, so a
//   task is made and deleted for each child; libev: ev_child). CPU time of the
//   parent per child.
#include <benchmark/benchmark.h>
#include <ev.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <csignal>

#include "task/process.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

int fired;

void kernel_up() {
  static task *keep;
  if (keep) return;
  task_kernel_init();
  keep = task_alloc("bench keeper", 10, nullptr);
  task_create(keep);
}

void dispatch_ours(benchmark::State &st) {
  kernel_up();
  task_signal_enable(SIGUSR2, [](int) {
    fired++;
    task_scheduler_stop();
  });
  fired = 0;
  for (auto _ : st) {
    kill(getpid(), SIGUSR2);
    task_scheduler_run();
  }
  if (fired != st.iterations()) st.SkipWithError("a signal was lost");
  task_signal_enable(SIGUSR2, nullptr);
}

void dispatch_sdevent(benchmark::State &st) {
  sigset_t s;
  sigemptyset(&s);
  sigaddset(&s, SIGUSR2);
  sigprocmask(SIG_BLOCK, &s, nullptr);
  sd_event *e = nullptr;
  sd_event_new(&e);
  sd_event_source *src = nullptr;
  sd_event_add_signal(e, &src, SIGUSR2, [](sd_event_source *, const signalfd_siginfo *, void *) {
    fired++;
    return 0;
  }, nullptr);
  fired = 0;
  for (auto _ : st) {
    kill(getpid(), SIGUSR2);
    sd_event_run(e, UINT64_MAX);
  }
  if (fired != st.iterations()) st.SkipWithError("a signal was lost");
  sd_event_source_unref(src);
  sd_event_unref(e);
}

struct ev_loop *signal_loop() {
  static struct ev_loop *loop = ev_default_loop(EVFLAG_SIGNALFD);
  return loop;
}

void dispatch_libev(benchmark::State &st) {
  struct ev_loop *loop = signal_loop();
  ev_signal w;
  ev_signal_init(&w, [](struct ev_loop *, ev_signal *, int) { fired++; }, SIGUSR2);
  ev_signal_start(loop, &w);
  fired = 0;
  for (auto _ : st) {
    kill(getpid(), SIGUSR2);
    ev_run(loop, EVRUN_ONCE);
  }
  if (fired != st.iterations()) st.SkipWithError("a signal was lost");
  ev_signal_stop(loop, &w);
}

void reap_ours(benchmark::State &st) {
  kernel_up();
  fired = 0;
  for (auto _ : st) {
    task *tp = task_alloc("child", 10, nullptr);
    task_fork(tp, [](task *) { _exit(0); }, [](task *t) {
      fired++;
      task_delete(t);
      task_scheduler_stop();
    });
    task_scheduler_run();
  }
  if (fired != st.iterations()) st.SkipWithError("a child was not reaped");
}

void reap_libev(benchmark::State &st) {
  struct ev_loop *loop = signal_loop();
  fired = 0;
  for (auto _ : st) {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    ev_child w;
    ev_child_init(&w, [](struct ev_loop *l, ev_child *c, int) {
      fired++;
      ev_child_stop(l, c);
    }, pid, 0);
    ev_child_start(loop, &w);
    while (ev_is_active(&w)) ev_run(loop, EVRUN_ONCE);
  }
  if (fired != st.iterations()) st.SkipWithError("a child was not reaped");
}

}  // namespace

BENCHMARK(dispatch_ours)->Name("SignalDispatch/ours");
BENCHMARK(dispatch_sdevent)->Name("SignalDispatch/sdevent");
BENCHMARK(dispatch_libev)->Name("SignalDispatch/libev");
BENCHMARK(reap_ours)->Name("ChildReap/ours");
BENCHMARK(reap_libev)->Name("ChildReap/libev");
