// The timer dump: per task, its timers by class in firing order, indented by
// their depth in the tree, then the stopped ones.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "format/task_fmt.h"
#include "internal.h"

namespace {

const char kBars[] = "| | | | | | | | | | | | ";
const char kLetters[] = "DHTFPSL^A";  // by flag bit
constexpr int kNameWidth = 40;        // bars and name, up to the heading's "Expires"
constexpr uint32_t kClassBits = TIMERF_HIPRIO | TIMERF_LOWPRIO;

inline const task_timer *timer_of(const htimer *h) { return reinterpret_cast<const task_timer *>(h); }

// Parents between a timer and its class root (a task's timer sits at 1, under
// its "Task parent").
int depth_of(const task_timer *tip) {
  int d = 0;
  for (const htimer *h = tip->task_hier_timer.ht_parent; h && h->ht_parent && h->ht_parent->ht_parent; h = h->ht_parent)
    d++;
  return d;
}

void timer_line(FILE *fp, const task_timer *tip) {
  int bar = std::min(depth_of(tip) * 2, static_cast<int>(sizeof kBars - 1));
  char expires[32], interval[32], letters[sizeof kLetters];
  if (!task_timer_running(tip)) {
    snprintf(expires, sizeof expires, "-");
  } else if (task_timer_expired(tip)) {
    snprintf(expires, sizeof expires, "late");
  } else {
    task_utime left;
    task_timer_time_left(tip, &left);
    task_fmt::snprintf(expires, sizeof expires, "%#t", &left);
  }
  task_fmt::snprintf(interval, sizeof interval, "%#t", &tip->task_timer_uinterval);
  size_t n = 0;
  for (unsigned i = 0; i < sizeof kLetters - 1; i++)
    if (tip->task_timer_flags & (1u << i)) letters[n++] = kLetters[i];
  letters[n] = '\0';
  fprintf(fp, "\t\t%.*s%-*s %10s%8u%10s  %s\n", bar, kBars, kNameWidth - bar,
          tip->task_timer_name ? tip->task_timer_name : "NoName", expires, tip->task_timer_jitter, interval, letters);
}

void heading(FILE *fp, const char *title, bool &shown) {
  if (shown) return;
  shown = true;
  fprintf(fp, "%s", title);
  fprintf(fp, "%s        Timer Name                          Expires  Jitter  Interval  Flags\n", "\t\t");
}

// The running sub-tree under a task's class parent, in firing order.
void walk(FILE *fp, const task *tp, const htimer *parent, const char *title, bool &shown) {
  const htimer *first = parent->ht_first;
  if (!first) return;
  const htimer *c = first;
  do {
    if (timer_of(c)->task_timer_task == tp) {
      heading(fp, title, shown);
      timer_line(fp, timer_of(c));
    }
    if (!htimer_is_leaf(c)) walk(fp, tp, c, title, shown);
    c = c->ht_next;
  } while (c != first);
}

bool under(const task_timer *tip, const task_timer *parent) {
  if (!parent) return false;
  for (const htimer *h = tip->task_hier_timer.ht_parent; h; h = h->ht_parent)
    if (h == &parent->task_hier_timer) return true;
  return false;
}

// One class: the task's own sub-tree, then its timers elsewhere in the tree
// (auto parents, an application root; all of them for timers without a task).
void running_class(FILE *fp, const task *tp, int cls, uint32_t bits, const char *title) {
  bool shown = false;
  const task_timer *mine = tp->task_timer_parent[cls];
  if (mine) walk(fp, tp, &mine->task_hier_timer, title, shown);
  std::vector<const task_timer *> rest;
  for (const task_timer *t = tp->task_timers; t; t = t->task_timer_next)
    if (task_timer_running(t) && (t->task_timer_flags & kClassBits) == bits && !task_timer_is_task_parent(t) &&
        !under(t, mine))
      rest.push_back(t);
  std::stable_sort(rest.begin(), rest.end(), [](const task_timer *a, const task_timer *b) {
    return task_utime_lt(a->task_hier_timer.ht_expiry, b->task_hier_timer.ht_expiry);
  });
  for (const task_timer *t : rest) {
    heading(fp, title, shown);
    timer_line(fp, t);
  }
}

void timers_of(FILE *fp, const task *tp) {
  running_class(fp, tp, TASK_TIMER_CLASS_HIGH, TIMERF_HIPRIO, "\n\t\tHigh priority timers:\n");
  running_class(fp, tp, TASK_TIMER_CLASS_NORMAL, 0, "\n\t\tNormal priority timers:\n");
  running_class(fp, tp, TASK_TIMER_CLASS_LOW, TIMERF_LOWPRIO, "\n\t\tLow priority timers:\n");
  // Stopped ones in the order they were made (the list holds the newest first).
  std::vector<const task_timer *> stopped;
  for (const task_timer *t = tp->task_timers; t; t = t->task_timer_next)
    if (!task_timer_running(t) && !task_timer_is_task_parent(t)) stopped.push_back(t);
  bool shown = false;
  for (auto it = stopped.rbegin(); it != stopped.rend(); ++it) {
    heading(fp, "\n\t\tStopped timers:\n", shown);
    timer_line(fp, *it);
  }
}

}  // namespace

void task_timer_dump(FILE *fp) {
  for (task *tp = task_next(task_get_head()); tp && tp != task_get_head(); tp = task_next(tp)) {
    if ((tp->task_flags & TASK_FLAG_DELETE) || !tp->task_timers) continue;
    fprintf(fp, "\tTask %s:\n", task_name(tp));
    timers_of(fp, tp);
    fputc('\n', fp);
  }
  task *head = task_get_head();
  if (head && head->task_timers) {
    fprintf(fp, "\tTimers without tasks:\n\n");
    timers_of(fp, head);
  }
}
