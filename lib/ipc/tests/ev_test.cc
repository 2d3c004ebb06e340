// The event library on the task kernel's real queues and its fake clock:
// selections sharing a descriptor, changes from inside callbacks, timers
// once and repeating, the time calls, connects that complete at once, later,
// or never, and a context destroyed with everything outstanding.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "io_fixture.h"
#include "ipc/ev.h"

using namespace tt;

namespace {

struct Call {
  std::string what;
  int fd;
  int mask;
};
std::vector<Call> calls;

class Ev : public Io {
 protected:
  __evContext ev{};
  int sp[2] = {-1, -1};
  void SetUp() override {
    Io::SetUp();
    calls.clear();
    ASSERT_EQ(__evCreate(&ev), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sp), 0);
  }
  void TearDown() override {
    if (ev.opaque) __evDestroy(ev);
    close(sp[0]);
    close(sp[1]);
    Io::TearDown();
  }
  void poke() { ASSERT_EQ(write(sp[1], "x", 1), 1); }
  void drain() {
    char b[64];
    while (read(sp[0], b, sizeof b) > 0) {
    }
  }
};

void on_fd(__evContext, void *uap, int fd, int mask) {
  calls.push_back({static_cast<const char *>(uap), fd, mask});
}

TEST_F(Ev, ReadSelectionFiresUntilDeselectedAndLeavesTheDescriptorOpen) {
  __evFileID id;
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, on_fd, const_cast<char *>("r"), &id), 0);
  real_passes(2);
  EXPECT_TRUE(calls.empty());
  poke();
  real_passes(1);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].what, "r");
  EXPECT_EQ(calls[0].fd, sp[0]);
  EXPECT_EQ(calls[0].mask, EV_READ);
  ASSERT_EQ(__evDeselectFD(ev, id), 0);
  real_passes(2);
  EXPECT_EQ(calls.size(), 1u);
  EXPECT_GE(fcntl(sp[0], F_GETFD), 0);
  // The descriptor can be selected anew.
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ | EV_EXCEPT, on_fd, const_cast<char *>("again"), &id), 0);
  real_passes(1);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].mask, EV_READ | EV_EXCEPT);
}

TEST_F(Ev, ReadAndWriteSelectionsShareADescriptor) {
  // A connection's read-ready and write-ready, selected and cleared apart.
  __evFileID r, w;
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, on_fd, const_cast<char *>("r"), &r), 0);
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_WRITE, on_fd, const_cast<char *>("w"), &w), 0);
  poke();
  real_passes(1);
  std::vector<std::string> seen;
  for (auto &c : calls) seen.push_back(c.what + std::to_string(c.mask));
  EXPECT_EQ(seen, (std::vector<std::string>{"r1", "w2"}));
  ASSERT_EQ(__evDeselectFD(ev, w), 0);
  calls.clear();
  real_passes(2);  // still readable: the byte is unread
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].what, "r");
  EXPECT_EQ(calls[1].what, "r");
  ASSERT_EQ(__evDeselectFD(ev, r), 0);
  calls.clear();
  real_passes(2);
  EXPECT_TRUE(calls.empty());
}

struct Selfish {
  __evContext ev;
  __evFileID mine, other;
  int calls;
  bool select_more;
};
void deselect_both(__evContext ctx, void *uap, int fd, int) {
  auto *s = static_cast<Selfish *>(uap);
  s->calls++;
  EXPECT_EQ(__evDeselectFD(ctx, s->mine), 0);
  EXPECT_EQ(__evDeselectFD(ctx, s->other), 0);
  if (s->select_more) {
    __evFileID more;
    EXPECT_EQ(__evSelectFD(ctx, fd, EV_READ, on_fd, const_cast<char *>("more"), &more), 0);
  }
}

TEST_F(Ev, CallbackMayDeselectItselfAndOthersAndSelectAnew) {
  for (bool select_more : {false, true}) {
    SCOPED_TRACE(select_more ? "selecting anew" : "deselecting only");
    calls.clear();
    Selfish a{ev, {}, {}, 0, select_more}, b{ev, {}, {}, 0, select_more};
    ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, deselect_both, &a, &a.mine), 0);
    ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, deselect_both, &b, &b.mine), 0);
    a.other = b.mine;
    b.other = a.mine;
    poke();
    real_passes(3);
    // The first deselected the second before its turn.
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 0);
    // A selection made inside waits for the next pass, then fires each pass.
    EXPECT_EQ(calls.size(), select_more ? 2u : 0u);
    drain();
    __evDestroy(ev);
    ASSERT_EQ(__evCreate(&ev), 0);
  }
}

TEST_F(Ev, RefusedSelectionsFailTheCallNotTheProcess) {
  __evFileID id;
  int closed = dup(sp[0]);
  close(closed);
  EXPECT_EQ(__evSelectFD(ev, closed, EV_READ, on_fd, nullptr, &id), -1);
  EXPECT_EQ(errno, EBADF);
  // epoll refuses regular files.
  char path[] = "/tmp/ev_test_XXXXXX";
  int f = mkstemp(path);
  ASSERT_GE(f, 0);
  unlink(path);
  EXPECT_EQ(__evSelectFD(ev, f, EV_READ, on_fd, nullptr, &id), -1);
  EXPECT_EQ(errno, EPERM);
  close(f);
  EXPECT_EQ(__evSelectFD(ev, sp[0], 8, on_fd, nullptr, &id), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(__evSelectFD(__evContext{nullptr}, sp[0], EV_READ, on_fd, nullptr, &id), -1);
  EXPECT_EQ(errno, EINVAL);
  // The descriptor that works still does.
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, on_fd, const_cast<char *>("ok"), &id), 0);
  poke();
  real_passes(1);
  EXPECT_EQ(calls.size(), 1u);
}

struct Ticks {
  std::vector<timespec> dues;
  std::vector<timespec> nows;
  int clear_after;
  __evTimerID id;
};
void on_timer(__evContext ctx, void *uap, timespec due, timespec) {
  auto *t = static_cast<Ticks *>(uap);
  t->dues.push_back(due);
  t->nows.push_back(__evNowTime());
  if (static_cast<int>(t->dues.size()) == t->clear_after) {
    EXPECT_EQ(__evClearTimer(ctx, t->id), 0);
  }
}

TEST_F(Ev, TimeCallsFollowTheKernelsClock) {
  timespec now = __evNowTime();
  EXPECT_EQ(now.tv_sec, 1000);
  EXPECT_EQ(now.tv_nsec, 0);
  advance(1.25);
  now = __evNowTime();
  EXPECT_EQ(now.tv_sec, 1001);
  EXPECT_EQ(now.tv_nsec, 250000000L);
  timespec sum = __evAddTime(__evConsTime(3, 900000000L), __evConsTime(1, 200000000L));
  EXPECT_EQ(sum.tv_sec, 5);
  EXPECT_EQ(sum.tv_nsec, 100000000L);
}

TEST_F(Ev, OneShotTimerFiresOnceAtItsTime) {
  Ticks t{};
  timespec due = __evAddTime(__evNowTime(), __evConsTime(2, 0));
  ASSERT_EQ(__evSetTimer(ev, on_timer, &t, due, __evConsTime(0, 0), &t.id), 0);
  advance(1.9);
  real_passes(2);
  EXPECT_TRUE(t.dues.empty());
  advance(0.1);
  real_passes(2);
  ASSERT_EQ(t.dues.size(), 1u);
  EXPECT_EQ(t.dues[0].tv_sec, due.tv_sec);
  EXPECT_EQ(t.nows[0].tv_sec, 1002);
  advance(10);
  real_passes(2);
  EXPECT_EQ(t.dues.size(), 1u);
}

TEST_F(Ev, TimerDueInThePastRunsInTheNextPass) {
  Ticks t{};
  ASSERT_EQ(__evSetTimer(ev, on_timer, &t, __evConsTime(5, 0), __evConsTime(0, 0), &t.id), 0);
  EXPECT_TRUE(t.dues.empty());
  advance(0.001);
  real_passes(1);
  EXPECT_EQ(t.dues.size(), 1u);
}

TEST_F(Ev, RepeatingTimerRunsEachIntervalUntilClearedFromItsOwnCallback) {
  Ticks t{};
  t.clear_after = 3;
  timespec start = __evNowTime();
  ASSERT_EQ(__evSetTimer(ev, on_timer, &t, __evAddTime(start, __evConsTime(1, 0)), __evConsTime(1, 0), &t.id),
            0);
  for (int i = 0; i < 6; i++) {
    advance(1);
    real_passes(1);
  }
  ASSERT_EQ(t.dues.size(), 3u);
  for (int i = 0; i < 3; i++) EXPECT_EQ(t.dues[i].tv_sec, start.tv_sec + 1 + i);
}

TEST_F(Ev, ClearedTimerNeverRuns) {
  Ticks t{};
  ASSERT_EQ(__evSetTimer(ev, on_timer, &t, __evAddTime(__evNowTime(), __evConsTime(1, 0)), __evConsTime(1, 0),
                         &t.id),
            0);
  ASSERT_EQ(__evClearTimer(ev, t.id), 0);
  advance(5);
  real_passes(2);
  EXPECT_TRUE(t.dues.empty());
  EXPECT_EQ(__evSetTimer(ev, nullptr, &t, __evNowTime(), __evConsTime(0, 0), &t.id), -1);
  EXPECT_EQ(__evSetTimer(ev, on_timer, &t, __evNowTime(), __evConsTime(0, -1), &t.id), -1);
}

// ---- Connects ------------------------------------------------------------------

struct Outcome {
  int calls = 0;
  int fd = -2;
  int err = 0;
  std::string peer;
};
void on_conn(__evContext, void *uap, int fd, const void *, int, const void *ra, int ralen) {
  auto *o = static_cast<Outcome *>(uap);
  o->calls++;
  o->fd = fd;
  o->err = fd < 0 ? errno : 0;
  if (ra && static_cast<const sockaddr *>(ra)->sa_family == AF_UNIX)
    o->peer = reinterpret_cast<const sockaddr_un *>(ra)->sun_path;
  else if (ra)
    o->peer = std::to_string(ralen);
}

sockaddr_un unix_addr(const std::string &path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  return a;
}

class EvConnect : public Ev {
 protected:
  std::string path;
  int listener = -1;
  void SetUp() override {
    Ev::SetUp();
    path = "/tmp/ev_test_" + std::to_string(getpid());
    unlink(path.c_str());
  }
  void TearDown() override {
    if (listener >= 0) close(listener);
    unlink(path.c_str());
    Ev::TearDown();
  }
  void listen_unix() {
    listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a = unix_addr(path);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 8), 0);
  }
  // A new Unix socket connecting to path: __evConnect's result.
  int connect_unix(int *s, Outcome *o, __evConnID *id) {
    *s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a = unix_addr(path);
    return __evConnect(ev, *s, &a, sizeof a, on_conn, o, id);
  }
};

TEST_F(EvConnect, UnixConnectIsReportedInTheNextPassNotInsideTheCall) {
  listen_unix();
  int s;
  Outcome o;
  __evConnID id;
  ASSERT_EQ(connect_unix(&s, &o, &id), 0);
  EXPECT_EQ(o.calls, 0);
  EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK);
  real_passes(2);
  EXPECT_EQ(o.calls, 1);
  EXPECT_EQ(o.fd, s);
  EXPECT_EQ(o.peer, path);
  int peer = accept(listener, nullptr, nullptr);
  EXPECT_GE(peer, 0);
  close(peer);
  close(s);
}

TEST_F(EvConnect, RefusedAtOnceCallsNothing) {
  int s;
  Outcome o;
  __evConnID id;
  EXPECT_EQ(connect_unix(&s, &o, &id), -1);  // nobody listens
  EXPECT_EQ(errno, ENOENT);
  real_passes(2);
  EXPECT_EQ(o.calls, 0);
  close(s);
}

TEST_F(EvConnect, CancelledConnectIsNeverReported) {
  listen_unix();
  int s;
  Outcome o;
  __evConnID id;
  ASSERT_EQ(connect_unix(&s, &o, &id), 0);
  ASSERT_EQ(__evCancelConn(ev, id), 0);
  real_passes(3);
  EXPECT_EQ(o.calls, 0);
  EXPECT_GE(fcntl(s, F_GETFD), 0);
  close(s);
}

TEST_F(EvConnect, TcpConnectReportsSuccessOrTheRefusalThroughTheCallback) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  socklen_t len = sizeof a;
  ASSERT_EQ(getsockname(l, reinterpret_cast<sockaddr *>(&a), &len), 0);
  ASSERT_EQ(listen(l, 8), 0);

  int s = socket(AF_INET, SOCK_STREAM, 0);
  Outcome ok;
  __evConnID id;
  ASSERT_EQ(__evConnect(ev, s, &a, sizeof a, on_conn, &ok, &id), 0);
  for (int i = 0; i < 50 && !ok.calls; i++) real_passes(1);
  EXPECT_EQ(ok.calls, 1);
  EXPECT_EQ(ok.fd, s);
  EXPECT_EQ(ok.peer, std::to_string(sizeof a));
  close(s);

  // The port closed: refused, at once or through the callback with fd -1.
  close(l);
  s = socket(AF_INET, SOCK_STREAM, 0);
  Outcome refused;
  int rc = __evConnect(ev, s, &a, sizeof a, on_conn, &refused, &id);
  if (rc == 0) {
    for (int i = 0; i < 50 && !refused.calls; i++) real_passes(1);
    EXPECT_EQ(refused.calls, 1);
    EXPECT_EQ(refused.fd, -1);
    EXPECT_EQ(refused.err, ECONNREFUSED);
  } else {
    EXPECT_EQ(errno, ECONNREFUSED);
  }
  // Nothing of the failed connect stays selected: the descriptor can be selected anew.
  __evFileID fid;
  EXPECT_EQ(__evSelectFD(ev, s, EV_READ, on_fd, const_cast<char *>("after"), &fid), 0);
  close(s);
  __evDestroy(ev);
  ev.opaque = nullptr;
}

TEST_F(EvConnect, DestroyWithEverythingOutstandingCallsNothingLater) {
  listen_unix();
  int s;
  Outcome o;
  __evConnID cid;
  ASSERT_EQ(connect_unix(&s, &o, &cid), 0);
  Ticks t{};
  ASSERT_EQ(__evSetTimer(ev, on_timer, &t, __evNowTime(), __evConsTime(1, 0), &t.id), 0);
  __evFileID fid;
  ASSERT_EQ(__evSelectFD(ev, sp[0], EV_READ, on_fd, const_cast<char *>("r"), &fid), 0);
  ASSERT_EQ(__evDestroy(ev), 0);
  ev.opaque = nullptr;
  poke();
  advance(3);
  real_passes(3);
  EXPECT_EQ(o.calls, 0);
  EXPECT_TRUE(t.dues.empty());
  EXPECT_TRUE(calls.empty());
  EXPECT_GE(fcntl(sp[0], F_GETFD), 0);
  EXPECT_GE(fcntl(s, F_GETFD), 0);
  close(s);
}

}  // namespace
