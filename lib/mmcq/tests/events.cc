// The queue on both event systems, on the kernel's real queues and fake
// clock: a sender's message wakes the receiver's callback through the FIFO,
// nothing else does, and a sender's watch reports a receiver that died.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "io_fixture.h"
#include "ipc/ev.h"
#include "mmcq/mm_ev.h"
#include "mmcq/mm_task.h"
#include "mmcq/mmcq.h"
#include "mmf/meminfo.h"
#include "platform/path.h"

using namespace tt;

namespace {

struct Seen {
  std::vector<std::string> msgs;
  int calls = 0;
  std::vector<bool> status;
};

void on_msgs(mmcq *q, void *cookie) {
  auto *s = static_cast<Seen *>(cookie);
  s->calls++;
  char buf[256];
  int st;
  while (uint32_t n = mmcq_get_next(q, sizeof buf, buf, &st)) s->msgs.emplace_back(buf, n);
}

void on_status(mmcq *, void *cookie, bool up) { static_cast<Seen *>(cookie)->status.push_back(up); }

class Events : public Io, public ::testing::WithParamInterface<bool> {
 protected:
  std::string root_;
  __evContext ev{};
  void SetUp() override {
    Io::SetUp();
    char tmpl[] = "/tmp/mmcq_ev.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    tvx_path_set_root(root_.c_str());
    rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    mmf_set_time_scale(0.01);
    if (!GetParam()) {
      ASSERT_EQ(__evCreate(&ev), 0);
    }
  }
  void TearDown() override {
    if (ev.opaque) __evDestroy(ev);
    meminfo_close();
    mmf_sem_remove();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    Io::TearDown();
  }
  // The task kernel's context (one a process) or an event-library one.
  mm_ctx *make() { return GetParam() ? mm_task_create() : mm_ev_create(ev); }
  void destroy(mm_ctx *c) { GetParam() ? mm_task_destroy(c) : mm_ev_destroy(c); }
};

TEST_P(Events, SendWakesTheReceiverAndNothingElseDoes) {
  Seen seen;
  mm_ctx *rc = make();
  mmcq *r = mmcq_receiver_create("e", rc, 256, 8192, 65536, 0, on_msgs, &seen, nullptr);
  ASSERT_NE(r, nullptr);
  mmcq *s = mmcq_sender_create("e", nullptr, 256, 8192, 65536, 0, nullptr, nullptr);
  real_passes(3);
  EXPECT_EQ(seen.calls, 0);
  ASSERT_EQ(mmcq_send(s, "one", 3), MMCQ_SUCCESS);
  ASSERT_EQ(mmcq_send(s, "two", 3), MMCQ_SUCCESS);
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(seen.calls, 1);
  real_passes(3);
  EXPECT_EQ(seen.calls, 1);  // the FIFO was drained: no further wake-up
  ASSERT_EQ(mmcq_send(s, "three", 5), MMCQ_SUCCESS);
  real_passes(2);
  EXPECT_EQ(seen.msgs.back(), "three");
  mmcq_delete(s);
  mmcq_delete(r);
  destroy(rc);
}

TEST_P(Events, SenderWatchReportsTheReceiverDown) {
  Seen seen;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  if (pid == 0) {
    mmcq *r = mmcq_receiver_create("w", nullptr, 256, 8192, 65536, 0, nullptr, nullptr, nullptr);
    if (!r || write(ready[1], "r", 1) != 1) _exit(1);
    pause();
    _exit(0);
  }
  // The sender comes once the child's receiver is there, so its first report is "up".
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  close(ready[0]);
  close(ready[1]);
  mm_ctx *sc = make();
  mmcq *s = mmcq_sender_create("w", sc, 256, 8192, 65536, 0, on_status, &seen);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->q->receiver_pid, static_cast<uint32_t>(pid));
  EXPECT_EQ(seen.status, std::vector<bool>{true});
  kill(pid, SIGKILL);
  int st;
  waitpid(pid, &st, 0);
  advance(299);
  real_passes(2);
  EXPECT_EQ(seen.status.size(), 1u);
  advance(1.01);
  real_passes(2);
  EXPECT_EQ(seen.status, (std::vector<bool>{true, false}));
  EXPECT_EQ(s->q->receiver_pid, 0u);
  mmcq_delete(s);
  destroy(sc);
}

INSTANTIATE_TEST_SUITE_P(Both, Events, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &i) { return i.param ? "task" : "ev"; });

using EventsDeathTest = Events;

TEST_P(EventsDeathTest, ContextMisuseIsAFault) {
  mm_ctx *c = make();
  if (GetParam()) {
    EXPECT_DEATH(mm_task_create(), "mm_task_ctx == 0");
  }
  EXPECT_DEATH(c->ops->conn_timer_create(c, 10, nullptr, MM_MAX_TIMERS), "timeridx < MM_MAX_TIMERS");
  destroy(c);
}

INSTANTIATE_TEST_SUITE_P(Both, EventsDeathTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool> &i) { return i.param ? "task" : "ev"; });

}  // namespace
