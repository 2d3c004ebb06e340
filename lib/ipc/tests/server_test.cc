// The server on both event systems, on the kernel's real queues with its
// fake clock: sessions ready only once identified, the interoperate mode,
// messages both ways with the server's thresholds and back-pressure,
// closing and shutting down from inside callbacks, the keep-alive, the
// datagram session, the 10 ms bound of the read and drain loops, and a
// thousand sessions at once.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "io_fixture.h"
#include "ipc_test_util.h"
#include "ipc/ipcconn.h"
#include "ipc/ipcconn_server.h"
#include "platform/sys.h"

using namespace tt;
using namespace ipct;

namespace {


struct Seen {
  std::vector<std::string> events;  // "event:app:pid"
  std::vector<std::string> msgs;    // "subtype:payload"
  std::vector<ipcconn_session *> ready;
  std::vector<uint32_t> pressure_depths;
  ipcconn_server *srv = nullptr;
  bool close_on_msg = false, shutdown_on_msg = false, stop_reading = false;
  double advance_per_msg = 0, advance_on_pressure = 0;
};
void on_event(ipcconn_session *s, uint32_t app, uint32_t pid, int event, void *cookie) {
  auto *seen = static_cast<Seen *>(cookie);
  seen->events.push_back(std::to_string(event) + ":" + std::to_string(app) + ":" + std::to_string(pid));
  if (event == IPCCONN_EVENT_CONNECTED) seen->ready.push_back(s);
  if (event == IPCCONN_EVENT_BACKPRESSURE) {
    seen->pressure_depths.push_back(s->counters.current_depth);
    if (seen->advance_on_pressure) advance(seen->advance_on_pressure);
  }
}
int on_msg(ipcconn_session *s, uint8_t *, uint32_t, ipc_msg *m, void *cookie) {
  auto *seen = static_cast<Seen *>(cookie);
  seen->msgs.push_back(std::to_string(m->subtype) + ":" +
                       std::string(reinterpret_cast<char *>(ipc_msg_payload(m)), m->length));
  if (seen->advance_per_msg) advance(seen->advance_per_msg);
  if (seen->close_on_msg) ipcconn_session_close(s);
  if (seen->shutdown_on_msg) ipcconn_server_shutdown(seen->srv);
  if (seen->stop_reading) ipcconn_session_disable_msg_callbacks(s);
  return m->subtype == 99 ? -1 : 0;  // 99: the application refuses
}

// The messages an ipcconn client of these tests received.
struct Back {
  std::vector<std::string> msgs;
};

class Server : public Io, public ::testing::WithParamInterface<bool> {
 protected:
  __evContext ev{};
  task *app = nullptr;
  std::string path;
  Seen seen;
  ipcconn_server_params params{};
  std::vector<int> peers;

  void SetUp() override {
    Io::SetUp();
    lines.clear();
    ipcconn_set_log_hook(keep_line);
    path = "/tmp/ipcconn_server_test_" + std::to_string(getpid());
    if (GetParam()) {
      ASSERT_EQ(__evCreate(&ev), 0);
      params.ev_context = ev;
    } else {
      app = task_alloc("app", 10, nullptr);
      task_create(app);
      params.ptask = app;
    }
    params.path = path.c_str();
    params.event_cb = on_event;
    params.msg_cb = on_msg;
    params.malloc_fn = malloc;
    params.free_fn = free;
    params.cookie = &seen;
    params.app_id = 9;
    params.pid = 100;
  }
  void TearDown() override {
    for (int p : peers) close(p);
    unlink(path.c_str());
    if (ev.opaque) __evDestroy(ev);
    ipcconn_set_log_hook(nullptr);
    Io::TearDown();
  }
  ipcconn_server *create() {
    seen.srv = ipcconn_uds_server_create(&params);
    return seen.srv;
  }
  // An ipcconn client on the same event system, its messages kept in back.
  ipcconn_client_params client_params(Back *back, uint32_t app_id, uint32_t pid) {
    ipcconn_client_params cp{};
    cp.ev_context = params.ev_context;
    cp.ptask = params.ptask;
    cp.msg_cb = [](ipcconn_client *, uint8_t *, uint32_t, ipc_msg *m, void *cookie) {
      static_cast<Back *>(cookie)->msgs.push_back(std::string(reinterpret_cast<char *>(ipc_msg_payload(m)), m->length));
      return 0;
    };
    cp.cookie = back;
    cp.app_id = app_id;
    cp.pid = pid;
    return cp;
  }
  // A peer's connected socket, bound to a name when one is given.
  int peer(const std::string &name = "") {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (!name.empty()) {
      sockaddr_un b{};
      b.sun_family = AF_UNIX;
      strncpy(b.sun_path, name.c_str(), sizeof b.sun_path - 1);
      unlink(name.c_str());
      EXPECT_EQ(bind(s, reinterpret_cast<sockaddr *>(&b), sizeof b), 0);
    }
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    EXPECT_EQ(connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << strerror(errno);
    peers.push_back(s);
    return s;
  }
  static void put(int s, const std::string &bytes) {
    ASSERT_EQ(write(s, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  static std::string take(int s) {
    std::string out;
    char b[65536];
    ssize_t n;
    while ((n = read(s, b, sizeof b)) > 0) out.append(b, static_cast<size_t>(n));
    return out;
  }
  void drop(int s) {
    close(s);
    for (auto &p : peers)
      if (p == s) p = -1;
  }
};

TEST_P(Server, ASessionIsReadyOnlyOnceIdentified) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  EXPECT_TRUE(params.flags & IPCCONN_FLAG_STREAM);  // set in the caller's flags too
  std::string name = path + ".peer";
  int p = peer(name);
  real_passes(2);
  ASSERT_NE(srv->sessions, nullptr);
  EXPECT_TRUE(seen.events.empty());
  // Nothing holds back a message before the identification.
  put(p, frame(0x417, 5, "early") + ident_bytes(7, 4242, 3) + frame(0x417, 6, "after"));
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"5:early", "6:after"}));
  EXPECT_EQ(seen.events, std::vector<std::string>{"0:7:4242"});
  ipcconn_session *s = seen.ready.at(0);
  EXPECT_EQ(s->peer_instance_id, 3u);
  EXPECT_TRUE(logged("pid (100-4242), app-id (9-7), instance-id(3)"));
  char buf[128];
  ASSERT_EQ(ipcconn_uds_session_get_peer_file_path(s, buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), name);
  EXPECT_EQ(ipcconn_uds_session_get_peer_file_path(s, buf, 4), -1);
  EXPECT_TRUE(logged("invalid peer socket sun path len"));
  EXPECT_EQ(ipcconn_session_get_callback_cookie(s), &seen);

  EXPECT_EQ(ipcconn_server_send(s, 8, "reply", 5, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(take(p), frame(0x417, 8, "reply"));
  drop(p);
  real_passes(2);
  EXPECT_EQ(seen.events, (std::vector<std::string>{"0:7:4242", "1:7:4242"}));
  EXPECT_TRUE(logged("terminating status (0)"));
  EXPECT_FALSE(logged("is DEAD now"));  // an ordinary end, not a close from inside a callback
  EXPECT_EQ(srv->sessions, nullptr);
  unlink(name.c_str());
  ipcconn_server_shutdown(srv);
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // the socket's file is gone
}

TEST_P(Server, APeerThatGoesUnidentifiedIsNeverHeardOf) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  real_passes(2);
  EXPECT_EQ(srv->session_count, 1u);
  drop(p);
  real_passes(2);
  EXPECT_EQ(srv->session_count, 0u);
  EXPECT_TRUE(seen.events.empty());
  // A second identification is a fault, reported and survived.
  p = peer();
  put(p, ident_bytes(1, 2, 3) + ident_bytes(1, 2, 3));
  real_passes(2);
  EXPECT_TRUE(logged("IPCCONN_FLAG_INITIALIZING' failed"));
  EXPECT_EQ(seen.events.size(), 2u);  // the second gives event 0 again
  ipcconn_server_shutdown(srv);
  EXPECT_EQ(seen.events.back(), "1:1:2");
}

TEST_P(Server, InteroperateModeIsReadyAtAccept) {
  params.flags = IPCCONN_FLAG_INTEROPERATE_MODE;
  params.interop_type = 0x55;
  params.backlog = 300;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  EXPECT_EQ(srv->backlog, 128u);
  int p = peer();
  real_passes(2);
  EXPECT_EQ(seen.events, std::vector<std::string>{"0:0:0"});
  EXPECT_TRUE(logged("pid (100-NA), app-id (9-NA)"));
  put(p, frame(0x55, 0xFFFE, std::string(12, '\0')) + frame(0x55, 4, "own") + frame(0x417, 5, "other"));
  real_passes(2);
  EXPECT_TRUE(logged("IPCCONN_FLAG_INTEROPERATE_MODE)' failed"));
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"4:own"});
  EXPECT_TRUE(logged("Unexpected message type 1047"));
  ipcconn_session *s = seen.ready.at(0);
  EXPECT_EQ(ipcconn_server_send(s, 1, "x", 1, IPCCONN_MSG_PRIORITY_HIGH), 0);
  EXPECT_EQ(take(p), frame(0x55, 1, "x"));
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, ErrorReportsAndFaultyOpcodesAreStillProcessed) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0) + frame(0x417, 2, "err", IPC_MSG_OP_SEND | IPC_MSG_OP_ERROR) + frame(0x417, 3, "both", 3) +
             frame(0x417, 99, "refused") + frame(0x417, 4, "lost"));
  real_passes(3);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"2:err", "3:both", "99:refused"}));
  EXPECT_TRUE(logged("error code 0 type 1047 subtype 2 opcode 9"));
  EXPECT_TRUE(logged("both reply and cmd set in ipc message"));
  EXPECT_TRUE(logged("error on connection"));
  EXPECT_EQ(seen.events, (std::vector<std::string>{"0:7:1", "1:7:1"}));
  EXPECT_EQ(srv->sessions, nullptr);
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, ClosingOrShuttingDownFromInsideACallback) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  seen.close_on_msg = true;
  int p = peer();
  put(p, ident_bytes(7, 1, 0) + frame(0x417, 1, "a") + frame(0x417, 2, "b"));
  real_passes(3);
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:a"});
  // Event 1 cannot be given while the application is inside our callback.
  EXPECT_EQ(seen.events, std::vector<std::string>{"0:7:1"});
  EXPECT_TRUE(logged("is DEAD now"));
  char b;
  EXPECT_EQ(read(p, &b, 1), 0);

  // The server goes with every session, the one inside the callback too.
  seen = Seen{};
  seen.srv = srv;
  seen.shutdown_on_msg = true;
  int q = peer(), r = peer();
  put(r, ident_bytes(8, 2, 0));
  put(q, ident_bytes(7, 1, 0));
  real_passes(3);
  ASSERT_EQ(seen.events.size(), 2u);
  put(q, frame(0x417, 1, "bye"));
  real_passes(3);
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:bye"});
  EXPECT_EQ(seen.events.size(), 3u);  // r's event 1; q's could not be given
  EXPECT_EQ(seen.events.back(), "1:8:2");
  EXPECT_EQ(read(q, &b, 1), 0);
  EXPECT_EQ(read(r, &b, 1), 0);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_P(Server, ReadingStopsAndResumes) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  seen.stop_reading = true;
  int p = peer();
  put(p, ident_bytes(7, 1, 0) + frame(0x417, 1, "a") + frame(0x417, 2, "b"));
  real_passes(3);
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:a"});
  seen.stop_reading = false;
  ASSERT_EQ(ipcconn_session_enable_msg_callbacks(seen.ready.at(0)), 0);
  // What was read with the first waits in the pipe: it comes without new bytes.
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"1:a", "2:b"}));
  put(p, frame(0x417, 3, "c"));
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"1:a", "2:b", "3:c"}));
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, ThresholdsAndBackPressureAreTheServers) {
  params.threshold_low = 0;  // every low-priority message that has to wait is refused
  params.threshold_backpressure = 100;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  ipcconn_session *s = seen.ready.at(0);
  EXPECT_EQ(ipcconn_server_send(s, 1, "l", 1, IPCCONN_MSG_PRIORITY_LOW), 0);  // went straight
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
  EXPECT_EQ(ipcconn_server_send(s, 1, "l", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_THRESHOLD);
  EXPECT_TRUE(logged("failed to store message - subtype 1, priority 0, current 0, high 0, med 0, low 0"));
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN, 1);
  for (int i = 0; i < 120; i++) ASSERT_EQ(ipcconn_server_send(s, 2, "h", 1, IPCCONN_MSG_PRIORITY_HIGH), 0);
  EXPECT_EQ(seen.pressure_depths, std::vector<uint32_t>{100});
  EXPECT_TRUE(logged("backpressure enabled - current 100, threshold 100"));
  real_passes(2);
  EXPECT_EQ(seen.pressure_depths, (std::vector<uint32_t>{100, 94}));
  EXPECT_EQ(s->counters.current_depth, 0u);
  EXPECT_EQ(take(p), frame(0x417, 1, "l") + [] {
    std::string all;
    for (int i = 0; i < 120; i++) all += frame(0x417, 2, "h");
    return all;
  }());
  EXPECT_FALSE(ipcconn_server_func(srv)->server_is_write_ready_active(s));
  ipcconn_server_shutdown(srv);
}

int freed_external;
void counting_free(void *p) {
  if (p && static_cast<char *>(p)[0] == 'X') freed_external++;
  free(p);
}

TEST_P(Server, PartialWritesFinishOnWriteReadyInOrder) {
  params.free_fn = counting_free;
  params.threshold_low = 10;
  freed_external = 0;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  ipcconn_session *s = seen.ready.at(0);
  char *ext = static_cast<char *>(malloc(9));
  memcpy(ext, "XDDDDDDDD", 9);
  tvx_fault_short(TVX_SYS_SENDMSG, 5);  // 5 bytes of the first go, the rest is kept
  EXPECT_EQ(ipcconn_server_send_external(s, 1, ext, 9, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(s->counters.current_depth, 1u);
  EXPECT_TRUE(s->pending_head->partially_written);
  EXPECT_EQ(ipcconn_server_send(s, 2, "next", 4, IPCCONN_MSG_PRIORITY_LOW), 0);  // behind it
  EXPECT_EQ(freed_external, 0);
  real_passes(2);
  EXPECT_EQ(take(p), frame(0x417, 1, "XDDDDDDDD") + frame(0x417, 2, "next"));
  EXPECT_EQ(freed_external, 1);
  EXPECT_EQ(s->counters.sent_from_queue, 2u);
  EXPECT_FALSE(ipcconn_server_func(srv)->server_is_write_ready_active(s));
  // A terminal error ends the session.
  tvx_fault_errno(TVX_SYS_SENDMSG, EPIPE);
  EXPECT_EQ(ipcconn_server_send(s, 3, "x", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_PIPE);
  EXPECT_TRUE(logged("failed with terminal error (32)"));
  EXPECT_EQ(seen.events, (std::vector<std::string>{"0:7:1", "1:7:1"}));
  ipcconn_server_shutdown(srv);
}

bool refuse_alloc;
void *maybe_malloc(size_t n) { return refuse_alloc ? nullptr : malloc(n); }

TEST_P(Server, NoMemoryToQueueIsMinus102AndTheSessionGoesOn) {
  params.malloc_fn = maybe_malloc;
  params.threshold_low = 10;
  refuse_alloc = false;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  ipcconn_session *s = seen.ready.at(0);
  refuse_alloc = true;
  EXPECT_EQ(ipcconn_server_send(s, 1, "straight", 8, IPCCONN_MSG_PRIORITY_LOW), 0);  // needs no memory
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
  EXPECT_EQ(ipcconn_server_send(s, 2, "queued", 6, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_NOMEM);
  EXPECT_EQ(s->counters.queue_failed, 1u);
  refuse_alloc = false;
  EXPECT_EQ(ipcconn_server_send(s, 3, "later", 5, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(take(p), frame(0x417, 1, "straight") + frame(0x417, 3, "later"));
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, ReadAndDrainLoopsEndAfterTenMilliseconds) {
  params.bufsize = 64;  // a read takes seven of these 9-byte messages
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  std::string all;
  for (int i = 0; i < 40; i++) all += frame(0x417, 1, "m");
  seen.advance_per_msg = 0.001;
  put(p, all);
  real_passes(1);
  // Ten messages of 1 ms each: the read in which the bound passed finishes its messages, no more.
  size_t first = seen.msgs.size();
  EXPECT_GE(first, 10u);
  EXPECT_LE(first, 14u);
  real_passes(1);
  EXPECT_GT(seen.msgs.size(), first);
  real_passes(6);
  EXPECT_EQ(seen.msgs.size(), 40u);

  // The drain: the back-pressure event that ends it moves the clock past the bound.
  srv->threshold_backpressure = 100;
  seen.advance_on_pressure = 0.011;
  ipcconn_session *s = seen.ready.at(0);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN, 1);
  for (int i = 0; i < 120; i++) ASSERT_EQ(ipcconn_server_send(s, 2, "h", 1, IPCCONN_MSG_PRIORITY_HIGH), 0);
  real_passes(1);
  EXPECT_EQ(seen.pressure_depths, (std::vector<uint32_t>{100, 94}));
  EXPECT_EQ(s->counters.current_depth, 94u);
  real_passes(2);
  EXPECT_EQ(s->counters.current_depth, 0u);
  EXPECT_EQ(take(p).size(), 120u * 9);
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, TheReadBudgetBoundsTheReadsOfAPass) {
  params.bufsize = 64;  // a read takes seven of these 9-byte messages
  params.read_budget = 2;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  std::string all;
  for (int i = 0; i < 40; i++) all += frame(0x417, 1, "m");
  put(p, all);
  real_passes(1);
  EXPECT_EQ(seen.msgs.size(), 14u);  // two reads of 64 bytes, seven whole messages each
  real_passes(10);
  EXPECT_EQ(seen.msgs.size(), 40u);
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, AStuckPeerIsClosedAfterThreeKeepAliveIntervals) {
  params.keepalive_sec = 5;
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  int p = peer();
  put(p, ident_bytes(7, 1, 0));
  real_passes(2);
  ipcconn_session *s = seen.ready.at(0);
  // Idle is no fault.
  for (int i = 0; i < 4; i++) {
    advance(5);
    real_passes(2);
  }
  EXPECT_EQ(seen.events.size(), 1u);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
  ASSERT_EQ(ipcconn_server_send(s, 1, "x", 1, IPCCONN_MSG_PRIORITY_HIGH), 0);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN, 100000);  // the peer takes nothing
  for (int i = 0; i < 2; i++) {
    advance(5);
    real_passes(2);
  }
  EXPECT_EQ(seen.events.size(), 1u);
  advance(5);
  real_passes(2);
  tvx_fault_clear();
  EXPECT_EQ(seen.events, (std::vector<std::string>{"0:7:1", "1:7:1"}));
  EXPECT_TRUE(logged("peer took nothing for 3 keep-alive intervals, depth 1"));
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, TheDatagramSessionTakesWholeMessagesAndLeavesTheSocket) {
  ipcconn_server *srv = ipcconn_uds_dgram_server_create(&params);
  ASSERT_NE(srv, nullptr);
  ASSERT_NE(srv->dgram_session, nullptr);
  EXPECT_TRUE(logged("dgram_session"));
  int d = socket(AF_UNIX, SOCK_DGRAM, 0);
  peers.push_back(d);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  auto send_dgram = [&](const std::string &bytes) {
    ASSERT_EQ(sendto(d, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a),
              static_cast<ssize_t>(bytes.size()));
  };
  send_dgram(frame(0x417, 1, "one") + frame(0x417, 2, "two"));
  send_dgram(frame(0x417, 3, "cut").substr(0, 9));
  send_dgram("");
  send_dgram(frame(0x417, 4, "four"));
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"1:one", "2:two", "4:four"}));
  EXPECT_EQ(ipcconn_server_send(srv->dgram_session, 1, "x", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_INVALID);
  int sock = srv->server_socket;
  ipcconn_session_close(srv->dgram_session);
  EXPECT_EQ(srv->dgram_session, nullptr);
  EXPECT_GE(fcntl(sock, F_GETFD), 0);  // still the server's
  EXPECT_TRUE(seen.events.empty());
  ipcconn_server_shutdown(srv);
  EXPECT_LT(fcntl(sock, F_GETFD), 0);
}

TEST_P(Server, CreationRefusesWhatItCannotUse) {
  ipcconn_server_params both = params;
  both.ptask = app ? app : task_scheduler_task();
  __evContext other{};
  ASSERT_EQ(__evCreate(&other), 0);
  both.ev_context = other;
  EXPECT_EQ(ipcconn_uds_server_create(&both), nullptr);
  EXPECT_TRUE(logged("invalid arguments ev_context.opaque (0x"));
  __evDestroy(other);
  ipcconn_server_params no_cb = params;
  no_cb.msg_cb = nullptr;
  EXPECT_EQ(ipcconn_uds_server_create(&no_cb), nullptr);
  ipcconn_server_params no_path = params;
  no_path.path = nullptr;
  EXPECT_EQ(ipcconn_uds_server_create(&no_path), nullptr);
  EXPECT_TRUE(logged("cleanup"));
  ipcconn_server_params busy = params;
  busy.path = "/proc/no/such/dir/sock";
  EXPECT_EQ(ipcconn_uds_server_create(&busy), nullptr);
  // TNP: only in interoperate mode, and never on Linux.
  ipcconn_server_params tnp = params;
  EXPECT_EQ(ipcconn_tnp_server_create(&tnp), nullptr);
  EXPECT_TRUE(logged("IPCCONN_FLAG_INTEROPERATE_MODE' failed"));
  tnp.flags = IPCCONN_FLAG_INTEROPERATE_MODE;
  EXPECT_EQ(ipcconn_tnp_server_create(&tnp), nullptr);
  EXPECT_EQ(errno, EAFNOSUPPORT);
  EXPECT_TRUE(logged("failed to setup TNP socket options"));
}

TEST_P(Server, AnIpcconnClientIdentifiesAndTalks) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  Back back;
  ipcconn_client_params cp = client_params(&back, 21, 2121);
  cp.peer_path = path.c_str();
  ipcconn_client *c = ipcconn_uds_client_connect(&cp);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(ipcconn_client_send(c, 1, "ping", 4, IPCCONN_MSG_PRIORITY_LOW), 0);  // queued while connecting
  real_passes(4);
  EXPECT_EQ(seen.events, std::vector<std::string>{"0:21:2121"});
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:ping"});
  EXPECT_EQ(ipcconn_server_send(seen.ready.at(0), 2, "pong", 4, IPCCONN_MSG_PRIORITY_LOW), 0);
  real_passes(2);
  EXPECT_EQ(back.msgs, std::vector<std::string>{"pong"});
  ipcconn_client_close(c);
  real_passes(2);
  EXPECT_EQ(seen.events, (std::vector<std::string>{"0:21:2121", "1:21:2121"}));
  ipcconn_server_shutdown(srv);
}

TEST_P(Server, OverTcp) {
  params.tcp_addr = htonl(INADDR_LOOPBACK);
  params.tcp_port = 0;  // any free port, read back from the server
  ipcconn_server *srv = ipcconn_tcp_server_create(&params);
  ASSERT_NE(srv, nullptr);
  uint16_t port = ntohs(reinterpret_cast<sockaddr_in *>(&srv->addr)->sin_port);
  ASSERT_NE(port, 0);
  Back back;
  ipcconn_client_params cp = client_params(&back, 31, 3131);
  cp.tcp_addr = htonl(INADDR_LOOPBACK);
  cp.tcp_port = port;
  ipcconn_client *c = ipcconn_tcp_client_create(&cp);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(ipcconn_client_send(c, 1, "over tcp", 8, IPCCONN_MSG_PRIORITY_LOW), 0);
  real_passes(6);
  ASSERT_EQ(seen.events, std::vector<std::string>{"0:31:3131"});
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:over tcp"});
  ipcconn_session *s = seen.ready.at(0);
  ipcconn_peer_info info{};
  ASSERT_EQ(ipcconn_session_get_peer_info(s, &info), 0);
  EXPECT_EQ(info.kind, IPCCONN_PEER_LOCAL_ENGINE);
  char buf[64];
  EXPECT_EQ(ipcconn_uds_session_get_peer_file_path(s, buf, sizeof buf), -1);
  EXPECT_TRUE(logged("invalid peer socket address family (2)"));
  EXPECT_EQ(ipcconn_server_send(s, 2, "back", 4, IPCCONN_MSG_PRIORITY_LOW), 0);
  real_passes(3);
  EXPECT_EQ(back.msgs, std::vector<std::string>{"back"});

  // The synchronous form.
  ipcconn_client_params sp = cp;
  sp.ev_context.opaque = nullptr;
  sp.ptask = nullptr;
  sp.app_id = 32;
  ipcconn_client *sc = ipcconn_tcp_client_connect(&sp);
  ASSERT_NE(sc, nullptr);
  EXPECT_EQ(ipcconn_client_send_sync(sc, 3, "sync", 4), 0);
  real_passes(4);
  EXPECT_EQ(seen.events.back(), "0:32:3131");
  EXPECT_EQ(seen.msgs.back(), "3:sync");
  EXPECT_EQ(ipcconn_server_send(seen.ready.back(), 4, "to sync", 7, IPCCONN_MSG_PRIORITY_LOW), 0);
  ipc_msg *m = nullptr;
  ASSERT_EQ(ipcconn_client_recv_sync(sc, &m), 7);
  EXPECT_EQ(m->subtype, 4);
  ipcconn_client_close(sc);
  ipcconn_client_close(c);
  ipcconn_server_shutdown(srv);

  // A refused TCP connect reports in a later pass, as a connect that failed.
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in pa{};
  pa.sin_family = AF_INET;
  pa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t plen = sizeof pa;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr *>(&pa), sizeof pa), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr *>(&pa), &plen), 0);
  close(probe);  // nobody listens there now
  struct Events {
    std::vector<int> got;
  } refused;
  ipcconn_client_params rp = cp;
  rp.tcp_port = ntohs(pa.sin_port);
  rp.max_retries = 0;
  rp.cookie = &refused;
  rp.event_cb = [](ipcconn_client *, int event, void *cookie) { static_cast<Events *>(cookie)->got.push_back(event); };
  ipcconn_client *rc = ipcconn_tcp_client_create(&rp);
  if (rc) {  // refused at once (no client) or in a later pass
    real_passes(4);
    EXPECT_EQ(refused.got, std::vector<int>{IPCCONN_EVENT_FAILED});
  }
  EXPECT_TRUE(logged("failed to connect after max retries (0)"));

  // A table with no VRF device here cannot be listened in.
  params.rtb_index = 77;
  EXPECT_EQ(ipcconn_tcp_server_create(&params), nullptr);
  EXPECT_TRUE(logged("failed to setup TCP socket options"));
}

TEST_P(Server, AThousandSessions) {
  ipcconn_server *srv = create();
  ASSERT_NE(srv, nullptr);
  constexpr int kN = 1000;
  std::vector<int> ps;
  for (int i = 0; i < kN; i++) {
    // The backlog is 128: let the server take them in batches.
    if (i % 100 == 99) real_passes(3);
    int p = peer();
    put(p, ident_bytes(static_cast<uint32_t>(i), 5000 + static_cast<uint32_t>(i), 0) + frame(0x417, 1, std::to_string(i)));
    ps.push_back(p);
  }
  real_passes(40);
  ASSERT_EQ(seen.ready.size(), static_cast<size_t>(kN));
  EXPECT_EQ(srv->session_count, static_cast<uint32_t>(kN));
  EXPECT_EQ(seen.msgs.size(), static_cast<size_t>(kN));
  for (ipcconn_session *s : seen.ready) {
    std::string n = std::to_string(s->peer_app_id);
    ASSERT_EQ(ipcconn_server_send(s, 2, n.data(), static_cast<uint32_t>(n.size()), IPCCONN_MSG_PRIORITY_LOW), 0);
  }
  for (int i = 0; i < kN; i++) ASSERT_EQ(take(ps[i]), frame(0x417, 2, std::to_string(i)));
  for (int i = 0; i < kN; i += 2) drop(ps[i]);
  real_passes(30);
  EXPECT_EQ(srv->session_count, static_cast<uint32_t>(kN / 2));
  EXPECT_EQ(seen.events.size(), static_cast<size_t>(kN + kN / 2));
  ipcconn_server_shutdown(srv);
  EXPECT_EQ(seen.events.size(), static_cast<size_t>(2 * kN));
}

INSTANTIATE_TEST_SUITE_P(EventSystems, Server, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "EventLibrary" : "TaskKernel"; });

}  // namespace
