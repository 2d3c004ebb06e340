// Task records: allocation, the priority-ordered list, deletion deferred to
// the job "task_collect", verification, names and the state word.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "mem/block.h"
#include "mem/mem.h"
#include "sockaddr/zsockaddr.h"
#include "task/io.h"

namespace {

task_app_ctx_t default_app_ctx;
task_block *task_block_index;
task_mem_cookie *task_name_cookie;
char daemon_name[64] = "";

const char *const state_words[] = {"Init", "Test", "ReConfig", "Terminate", "NoReConfig", nullptr, nullptr,
                                   nullptr, "Foreground", nullptr, "NoDump", "ParseConfig", "NoDetach",
                                   "TerminateRequest", "low-memory", "HupPending"};

}  // namespace

void task_state_text(uint32_t s, char *buf, size_t size) {
  size_t n = 0;
  buf[0] = '\0';
  for (unsigned i = 0; i < 16; i++) {
    if (!(s & (1u << i)) || !state_words[i]) continue;
    n += snprintf(buf + n, n < size ? size - n : 0, "%s%s", n ? " " : "", state_words[i]);
    if (n >= size) break;
  }
}

namespace {

bool on_any_list(const task *tp) {
  if (tp->task_forw) return true;
  for (unsigned i = 0; i < TASK_NOTIFY_LISTS; i++)
    if (task_notify_list_has(tp, i)) return true;
  return false;
}

void unlink_all(task *tp) {
  for (unsigned i = 0; i < TASK_NOTIFY_LISTS; i++) task_notify_list_remove(tp, i);
  if (tp->task_forw) {
    tp->task_back->task_forw = tp->task_forw;
    tp->task_forw->task_back = tp->task_back;
    tp->task_forw = tp->task_back = nullptr;
  }
}

void give_up(task *tp) {
  if (tp->task_name_base) task_cookie_free(task_name_cookie, tp->task_name_base);
  tp->task_name_base = nullptr;
  if (tp->task_trace) trace_free(tp->task_trace);
  tp->task_trace = nullptr;
  task_mem_cookie_free(tp);
  tp->task_magic = 0;
  task_block_free(task_block_index, tp);
}

void task_collect(task_base_var *bp) {
  while (task *delete_tp = bp->taskbase_delete_queue) {
    bp->taskbase_delete_queue = delete_tp->task_delete_next;
    delete_tp->task_delete_next = nullptr;
    task_assert((((delete_tp->task_flags) & (0x0004)) != 0));
    TASK_TRACE(delete_tp, TR_TASK, "task_collect_job: freeing task %s", task_name(delete_tp));
    unlink_all(delete_tp);
    task_assert(!(delete_tp->task_timers));
    give_up(delete_tp);
  }
}

void shutdown_callback(task_timer *tip, uint32_t) {
  task_base_var *bp = task_var_base(nullptr);
  bp->taskbase_shutdown_timer = nullptr;
  task_timer_delete(tip);
  task *head = &bp->taskbase_task_head;
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw) {
    if (tp->task_flags & TASK_FLAG_DELETE || !tp->task_shutdown) continue;
    task_set_current(tp);
    tp->task_shutdown(tp);
    task_set_current(nullptr);
    task_timer_hiprio_check();
  }
}

// After a delete in the main context: the last task ends the process; under
// termination, tasks that all have a last-call method get it a second later.
void shutdown_check(task_base_var *bp) {
  if (task_var_get_context() != task_main_context) return;
  if (bp->taskbase_count == 0) {
    task_collect(bp);
    task_job_delete(bp->taskbase_collect_job);
    bp->taskbase_collect_job = nullptr;
    TASK_TRACE(nullptr, TR_TASK, "task_delete: Removed last task, exiting");
    task *st = task_scheduler_task();
    if (st->task_trace) trace_free(st->task_trace);
    st->task_trace = nullptr;
    __task_quit__(0);
  }
  if (!(task_state & TASKS_TERMINATE) || bp->taskbase_shutdown_timer) return;
  task *head = &bp->taskbase_task_head;
  for (task *tp = head->task_forw; tp != head; tp = tp->task_forw)
    if (!(tp->task_flags & TASK_FLAG_DELETE) && !tp->task_shutdown) return;
  bp->taskbase_shutdown_timer = task_timer_create(task_scheduler_task(), "task shutdown timer", TIMERF_DELETE, 0,
                                                  1, 0, shutdown_callback, nullptr);
}

void verify_internal(const task *tp) {
  if (tp->task_magic == TASK_MAGIC) {
    task_assert(task_block_verify(task_block_index, tp));
    return;
  }
  // The spacing is the assertion's published text.
  // clang-format off
  task_assert((tp->task_magic == 0) && ( (tp == & task_var_base(tp)->taskbase_task_head) ||
                                         (tp == & task_var_scheduler(tp)->tasksched_task_task) ));
  // clang-format on
}

task_mem_cookie **cookie_slot(task *tp) { return &tp->task_cookie; }
const char *cookie_name(task *tp) { return tp->task_name_base ? tp->task_name_base : "task"; }
constexpr task_mem_task_ops kMemOps = {cookie_slot, cookie_name};

}  // namespace

uint32_t task_state;

task_block *task_block_of_tasks(void) {
  if (!task_block_index) {
    task_block_index = task_block_init(sizeof(task), "task");
    task_name_cookie = task_mem_cookie_get("task");
    task_mem_set_task_ops(&kMemOps);
  }
  return task_block_index;
}

void task_base_init(task_base_var *bp) {
  task *h = &bp->taskbase_task_head;
  h->task_forw = h->task_back = h;
  h->task_addrfamily = -1;
  h->task_socket = -1;
  h->task_context = task_main_context;
  snprintf(h->task_name, sizeof h->task_name, "taskHead");
}

bool task_is_embedded(const task *tp) {
  return tp == &task_var_base(tp)->taskbase_task_head || tp == &task_var_scheduler(tp)->tasksched_task_task;
}

task_base_var *task_var_base(const task *tp) {
  task_var_context *c = tp && tp->task_context ? tp->task_context : task_var_get_context();
  auto *bp = static_cast<task_base_var *>(task_var_full(c)->tvcfull_tasks);
  task_assert(bp);
  return bp;
}

task_app_ctx_t *task_app_current = &default_app_ctx;

task_app_ctx_t *task_get_task_app_ctx(void) { return task_app_current; }
void task_set_task_app_ctx(task_app_ctx_t *ctx) { task_app_current = ctx ? ctx : &default_app_ctx; }

task *task_alloc(const char *name, int priority, trace_handle *trace_options) {
  task *tp = static_cast<task *>(task_block_alloc(task_block_of_tasks()));
  tp->task_name_base = task_cookie_strdup(task_name_cookie, name ? name : "");
  tp->task_magic = TASK_MAGIC;
  tp->task_terminate = task_delete;
  tp->task_context = task_var_get_context();
  tp->task_socket = -1;
  tp->task_addrfamily = 0;
  tp->task_kevent_udata = TASK_KEVENT_TASK;
  tp->task_priority = priority;
  tp->task_trace = trace_options ? trace_alloc(trace_options) : nullptr;
  // The defaults are registrations like any other: the task joins the lists
  // the broadcasts walk (it hears nothing until task_create).
  tp->task_ifdchange = task_app_current->app_ifd_change;
  tp->task_iffchange = task_app_current->app_iff_change;
  tp->task_iflchange = task_app_current->app_ifl_change;
  tp->task_ifachange = task_app_current->app_ifa_change;
  tp->task_rttchange = task_app_current->app_rtt_change;
  if (tp->task_ifdchange) task_notify_list_add(tp, TASK_NOTIFY_IFD);
  if (tp->task_iffchange) task_notify_list_add(tp, TASK_NOTIFY_IFF);
  if (tp->task_iflchange) task_notify_list_add(tp, TASK_NOTIFY_IFL);
  if (tp->task_ifachange) task_notify_list_add(tp, TASK_NOTIFY_IFA);
  TASK_TRACE(tp, TR_TASK, "task_alloc: allocated task block for %s priority %d", tp->task_name_base, priority);
  return tp;
}

int task_create(task *tp) {
  task_base_var *bp = task_var_base(tp);
  task *task_head = &bp->taskbase_task_head;
  task_assert(task_head && task_head->task_forw && task_head->task_back);
  task_verify(tp);
  task_verify(task_head);
  task_verify(task_head->task_forw);
  task_verify(task_head->task_back);
  task *before;
  if (task_head->task_forw == task_head || tp->task_priority < task_head->task_forw->task_priority) {
    before = task_head->task_forw;
  } else if (tp->task_priority > task_head->task_back->task_priority) {
    before = task_head;
  } else {
    before = task_head->task_forw;
    while (before != task_head && before->task_priority < tp->task_priority) before = before->task_forw;
  }
  tp->task_forw = before;
  tp->task_back = before->task_back;
  before->task_back->task_forw = tp;
  before->task_back = tp;
  bp->taskbase_count++;
  TASK_TRACE(tp, TR_TASK, "task_create: %s", task_name(tp));
  TASK_TRACE(tp, TR_TASK, "  proto %d", tp->task_proto);
  TASK_TRACE(tp, TR_TASK, "  socket %d", tp->task_socket);
  if (tp->task_socket >= 0) {
    task_evq_set(tp, TASK_EVFILT_READ, tp->task_recv || tp->task_accept);
    task_evq_set(tp, TASK_EVFILT_WRITE, tp->task_write || tp->task_connect);
  }
  return 1;
}

void task_delete(task *tp) {
  task_verify(tp);
  task_base_var *bp = task_var_base(tp);
  if (tp->task_flags & TASK_FLAG_DELETE) {
    TASK_TRACE(tp, TR_TASK, "task_delete: task %s already scheduled for deletion", task_name(tp));
    return;
  }
  task_close(tp);  // registrations go before the descriptor
  tp->task_recv = tp->task_accept = tp->task_write = tp->task_connect = nullptr;
  if (task_app_current->app_task_deleted) task_app_current->app_task_deleted(tp);
  for (task_timer *&parent : tp->task_timer_parent) {
    task_timer *t = parent;
    parent = nullptr;
    task_timer_delete(t);
  }
  while (tp->task_timers) task_timer_delete(tp->task_timers);
  task_job_delete_task(tp);
  if (tp->task_addr) sockfree(tp->task_addr);
  tp->task_addr = nullptr;
  if (tp->task_delete_hook) tp->task_delete_hook(tp);
  task_io_hook_remove_all(tp);
  task_lowmem_forget(tp);
  bool was_linked = tp->task_forw != nullptr;
  if (!on_any_list(tp)) {
    give_up(tp);
  } else {
    tp->task_flags |= TASK_FLAG_DELETE;
    tp->task_delete_next = bp->taskbase_delete_queue;
    bp->taskbase_delete_queue = tp;
    if (!bp->taskbase_collect_job)
      bp->taskbase_collect_job =
          task_job_create_background(task_scheduler_task(), 0, "task_collect", task_collect_job, nullptr);
  }
  if (!was_linked) return;  // never created: it was not counted
  bp->taskbase_count--;
  shutdown_check(bp);
}

void task_collect_job(task_job *jp) {
  task_base_var *bp = task_var_base(nullptr);
  task_collect(bp);
  bp->taskbase_collect_job = nullptr;
  task_job_delete(jp);
}

void task_verify(const task *tp) {
  task_assert(tp);
  if (task_var_get_context() != task_main_context) {
    task_var_context *context = task_var_get_context();
    task_assert(context == tp->task_context);
  }
  verify_internal(tp);
}

void task_verify_parent(const task *tp) {
  task_assert(tp);
  verify_internal(tp);
}

task *task_get_head(void) { return &task_var_base(nullptr)->taskbase_task_head; }
task *task_next(const task *tp) { return tp->task_forw; }
uint32_t task_count(void) { return task_var_base(nullptr)->taskbase_count; }

void task_name_format(task *tp) {
  char *b = tp->task_name;
  int n = snprintf(b, TASK_NAME_SIZE, "%.40s", tp->task_name_base ? tp->task_name_base : "");
  if (tp->task_addr && n < TASK_NAME_SIZE - 1) {
    b[n++] = '.';
    b[n] = '\0';
    sockprint(b + n, TASK_NAME_SIZE - n, tp->task_addr, 1);
    n = static_cast<int>(strlen(b));
  }
  if (tp->task_pid > 0 && n < TASK_NAME_SIZE - 1) snprintf(b + n, TASK_NAME_SIZE - n, "[%d]", tp->task_pid);
}

const char *task_name(task *tp) {
  if (!tp) return "(null task)";
  if (!tp->task_name[0] || (tp->task_flags & TASK_FLAG_DELETE)) {
    if (tp->task_magic == TASK_MAGIC) task_name_format(tp);
  }
  return tp->task_name;
}

void task_name_reset(task *tp) {
  if (tp) tp->task_name[0] = '\0';
}

const char *task_daemon_name(void) {
  if (!daemon_name[0]) task_set_daemon_name(program_invocation_name);
  return daemon_name;
}

void task_set_daemon_name(const char *argv0) {
  const char *s = argv0 ? strrchr(argv0, '/') : nullptr;
  snprintf(daemon_name, sizeof daemon_name, "%s", s ? s + 1 : argv0 ? argv0 : "");
}

void task_newstate(uint32_t set_bits, uint32_t clear_bits) {
  uint32_t old = task_state;
  task_state = (task_state & ~clear_bits) | set_bits;
  if (trace_enabled(task_trace_of(nullptr), static_cast<uint32_t>(TR_TASK), 0)) {
    char a[160], b[160];
    task_state_text(old, a, sizeof a);
    task_state_text(task_state, b, sizeof b);
    TASK_TRACE(nullptr, TR_TASK, "task_newstate: Task State: %s -> %s", a, b);
  }
}

#define TASK_SETTER(field)                        \
  void task_set_##field(task *tp, task_method m) { \
    if (tp) tp->task_##field = m;                  \
  }
TASK_SETTER(recv)
TASK_SETTER(accept)
TASK_SETTER(write)
TASK_SETTER(connect)
TASK_SETTER(pre_terminate)
TASK_SETTER(terminate)
TASK_SETTER(shutdown)
TASK_SETTER(cleanup)
TASK_SETTER(reinit)
TASK_SETTER(mastership)
TASK_SETTER(delete_hook)
TASK_SETTER(process)
TASK_SETTER(child)
TASK_SETTER(aio)
TASK_SETTER(ack)
#undef TASK_SETTER

void task_set_ack_stopped(task *tp, bool stopped) {
  if (tp) tp->task_ack_stopped = stopped;
}

void task_set_kevent_error(task *tp, int (*hook)(task *tp, int code, int err)) {
  if (tp) tp->task_kevent_error = hook;
}
void task_set_send_lowat(task *tp, int32_t bytes) {
  if (tp) tp->task_send_lowat = bytes;
}
void task_set_proto(task *tp, int proto) {
  if (tp) tp->task_proto = proto;
}
void task_set_addr(task *tp, zsockaddr_t *addr) {
  if (!tp) return;
  if (tp->task_addr && tp->task_addr != addr) sockfree(tp->task_addr);
  tp->task_addr = addr;
  task_name_reset(tp);
}
void task_set_pid(task *tp, pid_t pid) {
  if (!tp) return;
  tp->task_pid = pid;
  task_name_reset(tp);
}

bool task_flag_test(const task *tp, uint32_t mask) { return tp && (tp->task_flags & mask); }
void task_flag_set(task *tp, uint32_t mask) {
  if (tp) tp->task_flags |= mask;
}
void task_flag_clear(task *tp, uint32_t mask) {
  if (tp) tp->task_flags &= ~mask;
}
void *task_get_data(const task *tp) { return tp ? tp->task_data : nullptr; }
void task_set_data(task *tp, void *data) {
  if (tp) tp->task_data = data;
}
void *task_get_info(const task *tp) { return tp ? tp->task_info : nullptr; }
void task_set_info(task *tp, void *info) {
  if (tp) tp->task_info = info;
}
task_timer *task_get_timer_root(const task *tp) { return tp ? tp->task_timer_root : nullptr; }
void task_set_timer_root(task *tp, task_timer *root) {
  if (tp) tp->task_timer_root = root;
}
int task_get_addrfamily(const task *tp) { return tp ? tp->task_addrfamily : 0; }
void task_set_addrfamily(task *tp, int af) {
  if (tp) tp->task_addrfamily = af;
}
uint32_t task_get_user_word(const task *tp) { return tp ? tp->task_user_word : 0; }
void task_set_user_word(task *tp, uint32_t w) {
  if (tp) tp->task_user_word = w;
}
uint8_t task_get_app_byte(const task *tp) { return tp ? tp->task_app_byte : 0; }
void task_set_app_byte(task *tp, uint8_t b) {
  if (tp) tp->task_app_byte = b;
}
