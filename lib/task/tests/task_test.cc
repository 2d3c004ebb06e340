// Tasks: list order, deferred deletion, the shutdown check, names, the exit path.
#include <sys/socket.h>
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fixture.h"
#include "mem/block.h"
#include "task/io.h"
#include "sockaddr/families.h"
#include "sockaddr/zsockaddr.h"
#include "format/task_fmt.h"
#include "trace/trace.h"

namespace tt {
namespace {

std::vector<int> order() {
  std::vector<int> v;
  task *h = task_get_head();
  for (task *tp = h->task_forw; tp != h; tp = task_next(tp)) v.push_back(tp->task_priority * 10 + (tp->task_user_word));
  return v;
}

TEST_F(Kernel, ListIsByPriorityNewestFirstAmongEquals) {
  int tag = 0;
  for (int prio : {5, 1, 5, 10, 3, 200, 0}) {
    task *tp = task_alloc("t", prio, nullptr);
    task_set_user_word(tp, ++tag);
    task_create(tp);
  }
  // keeper is priority 100 with word 0
  EXPECT_EQ(order(), (std::vector<int>{7, 12, 35, 53, 51, 104, 1000, 2006}));
  EXPECT_EQ(task_count(), 8u);
}

TEST_F(Kernel, DeleteTwiceAndNeverCreated) {
  task *a = task_alloc("a", 1, nullptr);
  task_create(a);
  task_delete(a);
  EXPECT_TRUE(task_flag_test(a, TASK_FLAG_DELETE));
  EXPECT_EQ(task_var_base(nullptr)->taskbase_delete_queue, a);
  task_delete(a);  // no change
  EXPECT_EQ(task_var_base(nullptr)->taskbase_delete_queue, a);
  EXPECT_EQ(a->task_delete_next, nullptr);
  EXPECT_EQ(task_count(), 1u);
  // Allocated but never created: freed at once, not counted.
  task *b = task_alloc("b", 1, nullptr);
  task_delete(b);
  EXPECT_EQ(task_count(), 1u);
  passes(2);  // the collect job frees a
  EXPECT_EQ(task_var_base(nullptr)->taskbase_delete_queue, nullptr);
  EXPECT_EQ(task_get_head()->task_forw, keeper);
}

// Two tasks with readable sockets in one event list: the first one's method
// deletes itself and the second; the walk goes on over both records, which
// stay readable until the collect job of a later pass.
int seen_b;
void recv_delete_both(task *tp) {
  task_delete(tp);
  task_delete(static_cast<task *>(task_get_data(tp)));
  EXPECT_STREQ(tp->task_name_base, "a");  // still readable
}
void recv_b(task *) { seen_b++; }

TEST_F(Kernel, DeleteFromMethodsInOnePass) {
  int sv[2], sw[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sw), 0);
  task *a = task_alloc("a", 1, nullptr), *b = task_alloc("b", 2, nullptr);
  task_set_recv(a, recv_delete_both);
  task_set_recv(b, recv_b);
  a->task_socket = sv[0];
  b->task_socket = sw[0];
  task_set_data(a, b);
  task_create(a);
  task_create(b);
  task_timer_create(b, "b's timer", 0, 5, 0, 0, nullptr, nullptr);
  script.push_back({task_kevent{static_cast<uintptr_t>(sv[0]), TASK_EVFILT_READ, 0, 0, 0, &a->task_kevent_udata},
                    task_kevent{static_cast<uintptr_t>(sw[0]), TASK_EVFILT_READ, 0, 0, 0, &b->task_kevent_udata}});
  passes(1);
  EXPECT_EQ(seen_b, 0);
  EXPECT_EQ(task_count(), 1u);
  EXPECT_EQ(b->task_timers, nullptr);
  passes(2);
  EXPECT_EQ(task_var_base(nullptr)->taskbase_delete_queue, nullptr);
  close(sv[1]);
  close(sw[1]);
}

std::vector<std::string> shut_calls;
void shut(task *tp) { shut_calls.push_back(tp->task_name_base); }

TEST_F(Kernel, ShutdownTimerOnlyWhenEveryTaskHasTheMethod) {
  task *a = task_alloc("a", 1, nullptr), *b = task_alloc("b", 2, nullptr);
  task_set_shutdown(a, shut);
  task_create(a);
  task_create(b);
  task_newstate(TASKS_TERMINATE, 0);
  task_delete(keeper);
  EXPECT_EQ(task_var_base(nullptr)->taskbase_shutdown_timer, nullptr);  // b has none
  task_set_shutdown(b, shut);
  task *c = task_alloc("c", 3, nullptr);
  task_create(c);
  task_delete(c);
  ASSERT_NE(task_var_base(nullptr)->taskbase_shutdown_timer, nullptr);
  passes(1);
  EXPECT_TRUE(shut_calls.empty());
  advance(1);
  passes(1);
  EXPECT_EQ(shut_calls, (std::vector<std::string>{"a", "b"}));
}

TEST_F(Kernel, LastDeleteExitsWithZero) {
  EXPECT_EXIT(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        task_delete(keeper);
      },
      ::testing::ExitedWithCode(0), "ZTASK_EXIT: Exit .*\\[[0-9]+\\] version .* caller ");
}


TEST_F(Kernel, NamesWithAddressAndPid) {
  zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  EXPECT_STREQ(task_name(nullptr), "(null task)");
  task *tp = task_alloc("rx", 1, nullptr);
  EXPECT_STREQ(task_name(tp), "rx");
  zsockaddr_t *a = sockcreate_in(htons(4789), htonl(0x7f000001));
  char text[64];
  sockprint(text, sizeof text, a, 1);
  task_set_addr(tp, a);
  task_set_pid(tp, 1234567);
  EXPECT_EQ(std::string(task_name(tp)), std::string("rx.") + text + "[1234567]");
  task *lng = task_alloc(std::string(300, 'x').c_str(), 1, nullptr);
  task_set_pid(lng, 42);
  EXPECT_EQ(std::string(task_name(lng)), std::string(40, 'x') + "[42]");
  task_delete(tp);
  task_delete(lng);
}

TEST_F(Kernel, AssertWritesItsLineAndAborts) {
  EXPECT_DEATH(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        task_assert(task_count() == 99);
      },
      "ZTASK_ASSERT: Assertion failed .*: file \"task_test.cc\", line [0-9]+: \"task_count\\(\\) == 99\"");
  EXPECT_DEATH(task_verify(reinterpret_cast<task *>(&fake_now)), "ZTASK_ASSERT");
}

// The block that task records come from.
task_block *tasks_block() {
  task_block *found = nullptr;
  task_block_walk([](task_block *bp, void *arg) {
    if (strcmp(bp->tb_name, "task") == 0) *static_cast<task_block **>(arg) = bp;
  }, &found);
  return found;
}

// The quoted expression of a ZTASK_ASSERT line, whole, as a regular expression.
std::string assert_line(const std::string &text) {
  std::string re = ": \"";
  for (char c : text) {
    if (strchr(".[]{}()\\*+?^$|", c)) re += '\\';
    re += c;
  }
  return re + "\"\n";
}
#define EXPECT_ASSERTS_WITH(text, ...)     \
  do {                                     \
    auto run_ = [&] {                      \
      logging_set_mode(LOGGING_MODE_STDERR); \
      __VA_ARGS__;                         \
    };                                     \
    EXPECT_DEATH(run_(), assert_line(text)); \
  } while (0)

// A live record must be a whole object of the task block: an overrun into the
// word after it, or a stray pointer that merely carries the magic, stops at
// the next verification rather than at a free much later.
TEST_F(Kernel, VerifyChecksTheRecordAgainstItsBlock) {
  task *tp = task_alloc("overrun", 1, nullptr);
  task_create(tp);
  task_verify(tp);
  task_block *b = tasks_block();
  ASSERT_NE(b, nullptr);
  ASSERT_FALSE(b->tb_flags & TASK_BLOCK_NO_REDZONE);
  auto *after = reinterpret_cast<uint8_t *>(tp) + b->tb_real_size - 4;
  after[0] ^= 0x5a;
  EXPECT_ASSERTS_WITH("task_block_verify(task_block_index, tp)", task_verify(tp));
  after[0] ^= 0x5a;
  task_verify(tp);
  std::vector<uint8_t> stray(2 * b->tb_real_size);
  auto *fake = reinterpret_cast<task *>(stray.data());
  fake->task_magic = TASK_MAGIC;
  EXPECT_ASSERTS_WITH("task_block_verify(task_block_index, tp)", task_verify(fake));
  fake->task_magic = 0;
  EXPECT_ASSERTS_WITH(
      "(tp->task_magic == 0) && ( (tp == & task_var_base(tp)->taskbase_task_head) || "
      "(tp == & task_var_scheduler(tp)->tasksched_task_task) )",
      task_verify(fake));
  task_verify(task_get_head());
  task_verify(task_scheduler_task());
  task_delete(tp);
}

void nop_method(task *) {}

// Operators search the logs for these texts, whatever the code's own names.
TEST_F(Kernel, AssertionTextsReadAsPublished) {
  task_jobs_var *jobs = task_var_jobs();
  ASSERT_EQ(jobs->taskjobs_bg_head.task_job_forw, &jobs->taskjobs_bg_head);
  EXPECT_ASSERTS_WITH("jobs_var->taskjobs_bg_queued == 0", {
    jobs->taskjobs_bg_queued = 1;  // counted but not queued
    task_job_bg_dispatch();
  });

  task *unflagged = task_alloc("unflagged", 1, nullptr);
  task_create(unflagged);
  EXPECT_ASSERTS_WITH("(((delete_tp->task_flags) & (0x0004)) != 0)", {
    task_var_base(nullptr)->taskbase_delete_queue = unflagged;  // queued without "Delete"
    task *t = task_alloc("t", 1, nullptr);
    task_create(t);
    task_delete(t);
    passes(2);
  });

  task_io_var *io = task_var_io(nullptr);
  EXPECT_ASSERTS_WITH("s != close_tp->task_context->tvctx_io->task_eventQ[i]", {
    unflagged->task_socket = io->task_eventQ[1];
    task_close(unflagged);
  });

  // A queue-readiness entry (no user data) that names another descriptor.
  EXPECT_ASSERTS_WITH("level < (TASK_EVQ_N_PRIO - 1) && next_level == io_var->task_eventQ[level + 1]", {
    io->task_eventlist[0] = task_kevent{9999, TASK_EVFILT_READ, 0, 0, 0, nullptr};
    task_process_events_internal(&task_var_scheduler(nullptr)->sched_stats, io, 1);
  });
  task_delete(unflagged);
}

// A failed registration goes to the task's kevent-error hook, whose zero
// answer keeps the process; the errno stays in the record. Without a hook,
// any errno but ENOENT ends the process.
int seen_code = -1, seen_errno;
int tolerate(task *, int code, int err) {
  seen_code = code;
  seen_errno = err;
  return 0;
}

TEST_F(Kernel, KeventErrorHookDecidesOnAFailedRegistration) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv), 0);
  close(sv[0]);  // registering it fails with EBADF
  task *tp = task_alloc("closed under it", 1, nullptr);
  task_set_recv(tp, nop_method);
  task_set_kevent_error(tp, tolerate);
  task_set_socket(tp, sv[0]);
  EXPECT_EQ(seen_code, 0);  // an add
  EXPECT_EQ(seen_errno, EBADF);
  EXPECT_EQ(tp->task_kevent_errno, EBADF);
  task_set_kevent_error(tp, nullptr);
  EXPECT_DEATH(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        task_read_enable(tp);
      },
      "ZTASK_SYSTEM: kevent: Bad file descriptor");
  tp->task_socket = -1;
  task_delete(tp);
  close(sv[1]);
  task_set_kevent_error(nullptr, tolerate);  // a null task is ignored
  task_set_send_lowat(nullptr, 1);
}

TEST_F(Kernel, QuitLinesByStatus) {
  EXPECT_EXIT(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        __task_quit__(129);
      },
      ::testing::ExitedWithCode(129), "ZTASK_EXIT");
  EXPECT_EXIT(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        __task_quit__(28);
      },
      ::testing::ExitedWithCode(28), "ZTASK_TERMINATE_DISK_SPACE: disk full.*\nBACKTRACE: 0x");
  EXPECT_DEATH(
      {
        logging_set_mode(LOGGING_MODE_STDERR);
        errno = EBADF;
        __task_quit__(EBADF);
      },
      "ZTASK_ABORT: abort .* Bad file descriptor");
}

void quit_again(int) { __task_quit__(0); }
TEST_F(Kernel, QuitWithinQuitAborts) {
  static task_app_ctx_t ctx;
  ctx.app_quit_hook = quit_again;
  task_set_task_app_ctx(&ctx);
  EXPECT_DEATH(__task_quit__(0), "!recursed");
}

}  // namespace
}  // namespace tt

namespace tt {
namespace {

// A trace call site with a %z extension counts its arguments from the
// formatter's registry, so two-value extensions render in trace lines too.
TEST_F(Kernel, TraceCallSitesCountExtensionArgumentsFromTheFormatter) {
  auto render = [](char *buf, size_t, const zsock_fmt_value *, int) -> const char * { return buf; };
  task_fmt_register_ext('w', render, 31, 0, 0, 7);  // a second value: two arguments
  task_fmt_register_ext('x', render, 32, 0, 0, 0);
  const ztrace_backend &b = trace_app_ctx->backend;
  ztrace_callsite two{}, one{}, unknown{};
  ASSERT_EQ(b.ztask_ztrace_fmtinit(&two, "a %zw b %d", "f.cc", "fn", 1), 0);
  EXPECT_EQ(two.zcs_seg[0].zs_argcount, 2);
  EXPECT_EQ(two.zcs_next, 2);
  ASSERT_EQ(b.ztask_ztrace_fmtinit(&one, "%zx", "f.cc", "fn", 2), 0);
  EXPECT_EQ(one.zcs_seg[0].zs_argcount, 1);
  EXPECT_NE(b.ztask_ztrace_fmtinit(&unknown, "%zy", "f.cc", "fn", 3), 0) << "a letter nobody registered";
}

}  // namespace
}  // namespace tt
