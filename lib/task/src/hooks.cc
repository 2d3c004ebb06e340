// I/O hooks: a further descriptor watched for reading on behalf of a task.
// A removed hook is only flagged and queued; the job "task_io_hook_collect"
// frees it, so a hook is never freed inside a loop over events, not even when
// its own callback removes it.
#include <cstring>

#include "internal.h"
#include "io_internal.h"
#include "mem/block.h"
#include "platform/compat.h"

namespace {

task_block *hook_block;

void collect(task_job *jp) {
  task_io_var *io = task_var_io(nullptr);
  while (task_io_hook *hp = io->task_hook_collect_list) {
    io->task_hook_collect_list = hp->hook_next;
    task_block_free(hook_block, hp);
  }
  io->task_hook_collect_job = nullptr;
  task_job_delete(jp);
}

void unlink_from_task(task_io_hook *hp) {
  task *tp = hp->hook_task;
  for (task_io_hook **pp = &tp->task_hooks; *pp; pp = &(*pp)->hook_next)
    if (*pp == hp) {
      *pp = hp->hook_next;
      break;
    }
  hp->hook_next = nullptr;
}

}  // namespace

task_io_hook *task_io_hook_add(int fd, task *tp, void *argument, task_io_hook_fn callback, const char *name) {
  if (!task_assert_soft(tp && callback && name)) return nullptr;
  task_verify(tp);
  if (!hook_block) hook_block = task_block_init(sizeof(task_io_hook), "task_io_hook");
  auto *hp = static_cast<task_io_hook *>(task_block_alloc(hook_block));
  hp->hook_tag = TASK_KEVENT_IO_HOOK;
  hp->hook_task = tp;
  hp->hook_arg = argument;
  hp->hook_callback = callback;
  hp->hook_fd = fd;
  strlcpy(hp->hook_name, name, sizeof hp->hook_name);
  hp->hook_next = tp->task_hooks;
  tp->task_hooks = hp;
  task_io_hook_control(hp, TASK_IO_HOOK_ADD);
  return hp;
}

int task_io_hook_control(task_io_hook *hp, int control) {
  if (!hp || hp->hook_deleted) return 0;
  switch (control) {
    case TASK_IO_HOOK_ADD:
    case TASK_IO_HOOK_ENABLE:
      hp->hook_enabled = 1;
      return task_evq_hook_set(hp, true);
    case TASK_IO_HOOK_DELETE:
    case TASK_IO_HOOK_DISABLE:
      hp->hook_enabled = 0;
      return task_evq_hook_set(hp, false);
    default:
      task_assert(0 == "invalid task_io_hook_control");
      return EINVAL;
  }
}

void task_io_hook_remove(task_io_hook *hp) {
  if (!hp || hp->hook_deleted) return;
  task_io_hook_control(hp, TASK_IO_HOOK_DELETE);
  hp->hook_deleted = 1;
  unlink_from_task(hp);
  task_io_var *io = task_var_io(hp->hook_task);
  hp->hook_next = io->task_hook_collect_list;
  io->task_hook_collect_list = hp;
  if (!io->task_hook_collect_job)
    io->task_hook_collect_job =
        task_job_create_background(task_scheduler_task(), 7, "task_io_hook_collect", collect, nullptr);
}

void task_io_hook_remove_all(task *tp) {
  if (!tp) return;
  while (tp->task_hooks) task_io_hook_remove(tp->task_hooks);
}

void task_io_hook_dispatch(task_io_hook *hp) {
  if (hp->hook_deleted) return;
  task_assert(hp->hook_tag == TASK_KEVENT_IO_HOOK);
  task_verify(hp->hook_task);
  TASK_TRACE(hp->hook_task, TR_TASK, "%s: %s ready for %s", "task_io_hook", hp->hook_name, "read");
  task *saved = task_current();
  task_set_current(hp->hook_task);
  hp->hook_callback(hp->hook_task, hp->hook_arg);
  task_set_current(saved);
  task_timer_hiprio_check();
}
