// Notification lists of tasks: priority-ordered, linked through the records.
#include "task/task.h"

namespace {

thread_local task *heads[TASK_NOTIFY_LISTS];

// links[0] is the next task, links[1] the previous one.
task *&next_of(task *tp, unsigned l) { return tp->task_notify_links[l][0]; }
task *&prev_of(task *tp, unsigned l) { return tp->task_notify_links[l][1]; }

}  // namespace

bool task_notify_list_has(const task *tp, unsigned list) {
  if (list >= TASK_NOTIFY_LISTS) return false;
  return heads[list] == tp || tp->task_notify_links[list][0] || tp->task_notify_links[list][1];
}

void task_notify_list_add(task *tp, unsigned list) {
  if (list >= TASK_NOTIFY_LISTS || task_notify_list_has(tp, list)) return;
  task *prev = nullptr;
  for (task *t = heads[list]; t && t->task_priority <= tp->task_priority; t = next_of(t, list)) prev = t;
  task *next = prev ? next_of(prev, list) : heads[list];
  next_of(tp, list) = next;
  prev_of(tp, list) = prev;
  if (next) prev_of(next, list) = tp;
  if (prev) next_of(prev, list) = tp;
  else heads[list] = tp;
}

void task_notify_list_remove(task *tp, unsigned list) {
  if (!task_notify_list_has(tp, list)) return;
  task *next = next_of(tp, list), *prev = prev_of(tp, list);
  if (next) prev_of(next, list) = prev;
  if (prev) next_of(prev, list) = next;
  else heads[list] = next;
  next_of(tp, list) = prev_of(tp, list) = nullptr;
}

task *task_notify_list_first(unsigned list) { return list < TASK_NOTIFY_LISTS ? heads[list] : nullptr; }

task *task_notify_list_next(const task *tp, unsigned list) {
  return list < TASK_NOTIFY_LISTS ? tp->task_notify_links[list][0] : nullptr;
}
