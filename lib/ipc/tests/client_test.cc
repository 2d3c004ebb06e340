// The client's connect on both event systems, against a server made in the
// test: identification first and byte for byte, retries every 2 seconds of
// the kernel's clock until the server appears or the limit is reached, a
// peer that closes, messages read and filtered, closing from inside a
// callback, the refused choices at creation; sending straight or through the
// queue, in order, with thresholds, back-pressure and a terminal error.
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
#include "platform/sys.h"

using namespace tt;
using namespace ipct;

namespace {

struct Seen {
  std::vector<int> events;
  std::vector<std::string> msgs;  // "subtype:payload"
  bool close_on_connect = false;
  bool close_on_msg = false;
  bool stop_reading = false;
  bool restart_on_msg = false;
  double advance_per_msg = 0;  // seconds of the kernel's clock each message costs
};
void on_event(ipcconn_client *c, int event, void *cookie) {
  auto *s = static_cast<Seen *>(cookie);
  s->events.push_back(event);
  if (event == IPCCONN_EVENT_CONNECTED && s->close_on_connect) ipcconn_client_close(c);
}
int on_msg(ipcconn_client *c, uint8_t *, uint32_t, ipc_msg *m, void *cookie) {
  auto *s = static_cast<Seen *>(cookie);
  s->msgs.push_back(std::to_string(m->subtype) + ":" +
                    std::string(reinterpret_cast<char *>(ipc_msg_payload(m)), m->length));
  if (s->advance_per_msg) advance(s->advance_per_msg);
  if (s->close_on_msg) ipcconn_client_close(c);
  if (s->restart_on_msg) ipcconn_client_restart(c);
  if (s->stop_reading) ipcconn_client_disable_msg_callbacks(c);
  // The message stays readable until the callback returns, a close inside it too.
  return m->length > 4096 ? -1 : 0;
}


class Client : public Io, public ::testing::WithParamInterface<bool> {
 protected:
  __evContext ev{};
  task *app = nullptr;
  std::string path;
  int listener = -1;
  Seen seen;
  ipcconn_client_params params{};

  void SetUp() override {
    Io::SetUp();
    lines.clear();
    ipcconn_set_log_hook(keep_line);
    path = "/tmp/ipcconn_test_" + std::to_string(getpid());
    unlink(path.c_str());
    if (GetParam()) {
      ASSERT_EQ(__evCreate(&ev), 0);
      params.ev_context = ev;
    } else {
      app = task_alloc("app", 10, nullptr);
      task_create(app);
      params.ptask = app;
    }
    params.peer_path = path.c_str();
    params.event_cb = on_event;
    params.msg_cb = on_msg;
    params.cookie = &seen;
    params.app_id = 7;
    params.pid = 4242;
    params.instance_id = 3;
    params.max_retries = 1000;
  }
  void TearDown() override {
    if (listener >= 0) close(listener);
    unlink(path.c_str());
    if (ev.opaque) __evDestroy(ev);
    ipcconn_set_log_hook(nullptr);
    Io::TearDown();
  }
  void listen_now_again() {
    close(listener);
    unlink(path.c_str());
    listen_now();
  }
  void listen_now() {
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 8), 0);
  }
  int accept_one() {
    int s = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    EXPECT_GE(s, 0) << strerror(errno);
    return s;
  }
  static std::string take(int s) {
    std::string out;
    char b[4096];
    ssize_t n;
    while ((n = read(s, b, sizeof b)) > 0) out.append(b, static_cast<size_t>(n));
    return out;
  }
  // Connects a client with params, accepts it and sends it messages "1:a"
  // and "2:b" in one write; the client through c, the accepted socket back.
  int connect_and_send_two(ipcconn_client **c) {
    *c = ipcconn_uds_client_connect(&params);
    EXPECT_NE(*c, nullptr);
    real_passes(2);
    int s = accept_one();
    std::string two = frame(0x417, 1, "a") + frame(0x417, 2, "b");
    EXPECT_EQ(write(s, two.data(), two.size()), static_cast<ssize_t>(two.size()));
    return s;
  }
  // Two seconds of the kernel's clock, then passes for what they set off.
  void next_retry() {
    advance(IPCCONN_RETRY_INTERVAL_SEC);
    real_passes(2);
  }
};

TEST_P(Client, ConnectsInALaterPassAndIdentifiesFirst) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  EXPECT_TRUE(seen.events.empty());
  real_passes(2);
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  int s = accept_one();
  const uint8_t golden[] = {0x17, 0x04, 0xFE, 0xFF, 0x0C, 0x00, 0x01, 0x00, 7, 0, 0, 0,
                            0x92, 0x10, 0, 0, 3, 0, 0, 0};
  EXPECT_EQ(take(s), std::string(reinterpret_cast<const char *>(golden), sizeof golden));
  EXPECT_EQ(ipcconn_client_get_callback_cookie(c), &seen);
  ipcconn_client_close(c);
  real_passes(1);
  char b;
  EXPECT_EQ(read(s, &b, 1), 0);  // the client's end is closed
  EXPECT_EQ(seen.events.size(), 1u);
  close(s);
}

TEST_P(Client, MessagesOfAnotherTypeDropTheBufferButKeepTheConnection) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  std::string batch = frame(0x417, 5, "hello") + frame(0x417, 6, "skip", IPC_MSG_OP_SEND | IPC_MSG_OP_ERROR) +
                      frame(0x417, 7, "") + frame(0x999, 8, "bad") + frame(0x417, 9, "lost");
  ASSERT_EQ(write(s, batch.data(), batch.size()), static_cast<ssize_t>(batch.size()));
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"5:hello", "7:"}));
  EXPECT_TRUE(logged("Unexpected message type 2457"));
  EXPECT_TRUE(logged("error code 0 type 1047 subtype 6 opcode 9"));
  std::string later = frame(0x417, 10, "later");
  ASSERT_EQ(write(s, later.data(), later.size()), static_cast<ssize_t>(later.size()));
  real_passes(2);
  EXPECT_EQ(seen.msgs.back(), "10:later");
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, RetriesEveryTwoSecondsUntilTheServerAppears) {
  params.max_retries = 5;  // not a limit there is: no limit
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  for (int i = 0; i < 12; i++) next_retry();
  EXPECT_TRUE(seen.events.empty());
  EXPECT_EQ(c->counters.retries, 13u);
  listen_now();
  // Not before the two seconds are up.
  advance(1.5);
  real_passes(2);
  EXPECT_TRUE(seen.events.empty());
  advance(0.5);
  real_passes(3);
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  EXPECT_EQ(c->retry_count, 0);
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, GivesUpAfterTheRetryLimit) {
  params.max_retries = 2;
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  next_retry();
  EXPECT_TRUE(seen.events.empty());
  next_retry();
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_FAILED});
  EXPECT_TRUE(logged("failed to connect after max retries (2)"));
  // The client is gone: the server appearing now changes nothing.
  listen_now();
  for (int i = 0; i < 3; i++) next_retry();
  EXPECT_EQ(seen.events.size(), 1u);
  EXPECT_LT(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK), 0);

  // With no retry at all, a connect refused at once fails the creation.
  close(listener);
  listener = -1;
  unlink(path.c_str());
  params.max_retries = 0;
  EXPECT_EQ(ipcconn_uds_client_connect(&params), nullptr);
}

TEST_P(Client, PeerThatClosesIsReconnectedAndIdentifiedAgain) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  close(s);
  real_passes(2);
  EXPECT_EQ(seen.events, (std::vector<int>{IPCCONN_EVENT_CONNECTED, IPCCONN_EVENT_CLOSED}));
  EXPECT_TRUE(logged("connection terminated"));
  next_retry();
  real_passes(1);
  EXPECT_EQ(seen.events,
            (std::vector<int>{IPCCONN_EVENT_CONNECTED, IPCCONN_EVENT_CLOSED, IPCCONN_EVENT_CONNECTED}));
  s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, ClosingFromInsideACallbackFreesAfterItReturns) {
  listen_now();
  seen.close_on_connect = true;
  ASSERT_NE(ipcconn_uds_client_connect(&params), nullptr);
  real_passes(3);
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  EXPECT_TRUE(logged("is DEAD now"));
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  char b;
  EXPECT_EQ(read(s, &b, 1), 0);
  close(s);

  Seen second;
  second.close_on_msg = true;
  params.cookie = &second;
  ipcconn_client *c2;
  s = connect_and_send_two(&c2);
  real_passes(3);
  EXPECT_EQ(second.msgs, std::vector<std::string>{"1:a"});
  EXPECT_EQ(second.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  close(s);
}

TEST_P(Client, RestartingFromInsideAMessageCallback) {
  listen_now();
  seen.restart_on_msg = true;
  ipcconn_client *c;
  int s = connect_and_send_two(&c);
  real_passes(2);
  // Event 1 cannot be given from inside the callback; the rest of the read went with the connection.
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:a"});
  EXPECT_EQ(c->pclient_retired_pipe, nullptr);
  seen.restart_on_msg = false;
  next_retry();
  real_passes(1);
  EXPECT_EQ(seen.events.back(), IPCCONN_EVENT_CONNECTED);
  close(s);
  s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, PartlyWrittenIdentificationCountsAsSent) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  tvx_fault_short(TVX_SYS_SENDMSG, 5);
  real_passes(3);
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  int s = accept_one();
  real_passes(2);  // write-ready sends the rest
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  EXPECT_FALSE(ipcconn_client_func(c)->client_is_write_ready_active(c));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, InteroperateModeSendsNoIdentification) {
  listen_now();
  params.flags = IPCCONN_FLAG_INTEROPERATE_MODE;
  params.interop_type = 0x55;
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  EXPECT_EQ(seen.events, std::vector<int>{IPCCONN_EVENT_CONNECTED});
  int s = accept_one();
  EXPECT_EQ(take(s), "");
  std::string m = frame(0x55, 3, "own type") + frame(0x417, 4, "not ours");
  ASSERT_EQ(write(s, m.data(), m.size()), static_cast<ssize_t>(m.size()));
  real_passes(2);
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"3:own type"});
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, CreationRefusesAWrongChoiceOfEventSystemOrABadPath) {
  ipcconn_client_params both = params;
  __evContext other{};
  ASSERT_EQ(__evCreate(&other), 0);
  both.ev_context = other;
  both.ptask = app ? app : task_scheduler_task();
  EXPECT_EQ(ipcconn_uds_client_connect(&both), nullptr);
  ipcconn_client_params neither = params;
  neither.ev_context.opaque = nullptr;
  neither.ptask = nullptr;
  EXPECT_EQ(ipcconn_uds_client_connect(&neither), nullptr);
  EXPECT_EQ(lines.size(), 2u);
  EXPECT_TRUE(logged("app-id (7), invalid arguments ev_context.opaque (0x"));
  EXPECT_TRUE(logged("invalid arguments ev_context.opaque ((nil)), ptask ((nil))"));
  __evDestroy(other);

  std::string long_path = "/tmp/" + std::string(103, 'p');  // 108 bytes
  params.peer_path = long_path.c_str();
  EXPECT_EQ(ipcconn_uds_client_connect(&params), nullptr);
  std::string ok_path = long_path.substr(0, 107);
  params.peer_path = ok_path.c_str();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  EXPECT_NE(c, nullptr);
  ipcconn_client_close(c);
}

// ---- Sending ---------------------------------------------------------------------

// External buffers handed over and given back.
int freed_external;
void *counted_malloc(size_t n) { return malloc(n); }
void counted_free(void *p) {
  if (p && static_cast<char *>(p)[0] == 'X') freed_external++;
  free(p);
}
char *external(const std::string &text) {
  char *b = static_cast<char *>(malloc(text.size()));
  memcpy(b, text.data(), text.size());
  return b;
}

TEST_P(Client, SendsWhileConnectingGoAfterTheIdentification) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(ipcconn_client_send(c, 1, "first", 5, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(ipcconn_client_send(c, 2, "second", 6, IPCCONN_MSG_PRIORITY_HIGH), 0);
  EXPECT_EQ(c->counters.current_depth, 2u);
  real_passes(3);
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3) + frame(0x417, 1, "first") + frame(0x417, 2, "second"));
  EXPECT_EQ(c->counters.current_depth, 0u);
  EXPECT_FALSE(ipcconn_client_func(c)->client_is_write_ready_active(c));
  // Now straight to the socket.
  EXPECT_EQ(ipcconn_client_send(c, 3, "third", 5, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(c->counters.sent_immediately, 1u);
  EXPECT_EQ(take(s), frame(0x417, 3, "third"));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, AFullSocketQueuesAndLaterSendsKeepTheirOrder) {
  listen_now();
  params.malloc_fn = counted_malloc;
  params.free_fn = counted_free;
  freed_external = 0;
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  take(s);
  // A is refused whole and queued; B (handed over) and C queue behind it.
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN);
  EXPECT_EQ(ipcconn_client_send(c, 1, "A", 1, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(ipcconn_client_send_external(c, 2, external("XBB"), 3, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(ipcconn_client_send(c, 3, "C", 1, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(c->counters.current_depth, 3u);
  EXPECT_EQ(freed_external, 0);
  tvx_fault_short(TVX_SYS_SENDMSG, 5);  // A goes in two pieces
  real_passes(3);
  EXPECT_EQ(take(s), frame(0x417, 1, "A") + frame(0x417, 2, "XBB") + frame(0x417, 3, "C"));
  EXPECT_EQ(freed_external, 1);
  EXPECT_EQ(c->counters.sent_from_queue, 3u);
  EXPECT_FALSE(ipcconn_client_func(c)->client_is_write_ready_active(c));
  EXPECT_TRUE(logged("unregisted from write ready"));

  // A partial write of a handed-over buffer: the rest goes from that buffer, freed once, after.
  tvx_fault_short(TVX_SYS_SENDMSG, 5);
  EXPECT_EQ(ipcconn_client_send_external(c, 4, external("XDDDDDDDD"), 9, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(freed_external, 1);
  real_passes(2);
  EXPECT_EQ(take(s), frame(0x417, 4, "XDDDDDDDD"));
  EXPECT_EQ(freed_external, 2);
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, SizeLimitAndInactiveSocket) {
  listen_now();
  params.bufsize = 100;
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  take(s);
  std::string most(84, 'm');
  EXPECT_EQ(ipcconn_client_send(c, 1, most.data(), 84, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(ipcconn_client_send(c, 1, most.data(), 85, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_INVALID);
  EXPECT_TRUE(logged("message length (85) plus overhead (16) is greater than the configured buffer size (100)"));
  EXPECT_EQ(take(s), frame(0x417, 1, most));
  // Waiting to retry there is no socket.
  close(s);
  real_passes(2);
  EXPECT_EQ(ipcconn_client_send(c, 1, "x", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_INVALID);
  EXPECT_TRUE(logged("socket inactive for client"));
  ipcconn_client_close(c);
}

struct Pressure {
  std::vector<uint32_t> depths;  // the depth at each back-pressure event
};
void on_pressure(ipcconn_client *c, int event, void *cookie) {
  if (event == IPCCONN_EVENT_BACKPRESSURE) static_cast<Pressure *>(cookie)->depths.push_back(c->counters.current_depth);
}

TEST_P(Client, BackPressureBeginsAtTheThresholdAndEndsFivePercentBelow) {
  listen_now();
  Pressure pr{};
  params.event_cb = on_pressure;
  params.cookie = &pr;
  params.threshold_backpressure = 100;
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  take(s);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN, 1);
  for (int i = 0; i < 120; i++) ASSERT_EQ(ipcconn_client_send(c, 1, "p", 1, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(pr.depths, std::vector<uint32_t>{100});
  EXPECT_EQ(c->counters.current_depth, 120u);
  real_passes(2);
  EXPECT_EQ(pr.depths, (std::vector<uint32_t>{100, 94}));
  EXPECT_EQ(c->counters.current_depth, 0u);
  EXPECT_EQ(take(s).size(), 120u * 9);
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, ThresholdsRefuseByPriority) {
  listen_now();
  params.threshold_low = 3;
  params.threshold_medium = 0;  // no limit
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  // Connecting: everything queues.
  for (int i = 0; i < 3; i++) EXPECT_EQ(ipcconn_client_send(c, 1, "l", 1, IPCCONN_MSG_PRIORITY_LOW), 0);
  EXPECT_EQ(ipcconn_client_send(c, 1, "l", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_THRESHOLD);
  EXPECT_TRUE(logged("failed to store message, subtype 1, priority 0, current 3, high 0, med 0, low 3"));
  EXPECT_EQ(ipcconn_client_send(c, 2, "m", 1, IPCCONN_MSG_PRIORITY_MEDIUM), 0);
  EXPECT_EQ(c->counters.queue_failed, 1u);
  real_passes(3);
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3) + frame(0x417, 1, "l") + frame(0x417, 1, "l") +
                         frame(0x417, 1, "l") + frame(0x417, 2, "m"));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, ATerminalSendErrorRestartsAndDropsTheQueue) {
  listen_now();
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  take(s);
  tvx_fault_errno(TVX_SYS_SENDMSG, EPIPE);
  EXPECT_EQ(ipcconn_client_send(c, 1, "x", 1, IPCCONN_MSG_PRIORITY_LOW), IPCCONN_ERR_PIPE);
  EXPECT_TRUE(logged("failed with terminal error (32)"));
  EXPECT_EQ(seen.events, (std::vector<int>{IPCCONN_EVENT_CONNECTED, IPCCONN_EVENT_CLOSED}));
  next_retry();
  real_passes(1);
  EXPECT_EQ(seen.events.back(), IPCCONN_EVENT_CONNECTED);
  close(s);
  s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, ReadingStopsAndResumes) {
  listen_now();
  seen.stop_reading = true;
  ipcconn_client *c;
  int s = connect_and_send_two(&c);
  real_passes(3);
  EXPECT_EQ(seen.msgs, std::vector<std::string>{"1:a"});
  seen.stop_reading = false;
  ASSERT_EQ(ipcconn_client_enable_msg_callbacks(c), 0);
  real_passes(2);
  EXPECT_EQ(seen.msgs, (std::vector<std::string>{"1:a", "2:b"}));
  ipcconn_client_close(c);
  EXPECT_EQ(ipcconn_client_enable_msg_callbacks(nullptr), -1);
  close(s);
}

void on_pressure_advance(ipcconn_client *c, int event, void *cookie) {
  on_pressure(c, event, cookie);
  if (event == IPCCONN_EVENT_BACKPRESSURE) advance(0.011);
}

TEST_P(Client, ReadAndDrainLoopsEndAfterTenMilliseconds) {
  listen_now();
  params.bufsize = 64;  // a read takes seven of these 9-byte messages
  ipcconn_client *c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  int s = accept_one();
  take(s);
  std::string all;
  for (int i = 0; i < 40; i++) all += frame(0x417, 1, "m");
  seen.advance_per_msg = 0.001;
  ASSERT_EQ(write(s, all.data(), all.size()), static_cast<ssize_t>(all.size()));
  real_passes(1);
  // The read in which the bound passed finishes its messages, then the dispatch ends.
  size_t first = seen.msgs.size();
  EXPECT_GE(first, 10u);
  EXPECT_LE(first, 14u);
  real_passes(1);
  EXPECT_GT(seen.msgs.size(), first);
  real_passes(6);
  EXPECT_EQ(seen.msgs.size(), 40u);
  ipcconn_client_close(c);
  close(s);

  // The drain: the back-pressure event that ends it moves the clock past the bound.
  listen_now_again();
  Pressure pr{};
  params.bufsize = 0;
  params.event_cb = on_pressure_advance;
  params.cookie = &pr;
  params.threshold_backpressure = 100;
  c = ipcconn_uds_client_connect(&params);
  ASSERT_NE(c, nullptr);
  real_passes(2);
  s = accept_one();
  take(s);
  tvx_fault_errno(TVX_SYS_SENDMSG, EAGAIN, 1);
  for (int i = 0; i < 120; i++) ASSERT_EQ(ipcconn_client_send(c, 1, "p", 1, IPCCONN_MSG_PRIORITY_LOW), 0);
  real_passes(1);
  EXPECT_EQ(pr.depths, (std::vector<uint32_t>{100, 94}));
  EXPECT_EQ(c->counters.current_depth, 94u);
  real_passes(2);
  EXPECT_EQ(c->counters.current_depth, 0u);
  EXPECT_EQ(take(s).size(), 120u * 9);
  ipcconn_client_close(c);
  close(s);
}

TEST_P(Client, SynchronousCallsNeedNoEventSystem) {
  listen_now();
  ipcconn_client_params sp = params;
  sp.ev_context.opaque = nullptr;
  sp.ptask = nullptr;
  ipcconn_client *c = ipcconn_uds_client_connect_sync(&sp);
  ASSERT_NE(c, nullptr);
  int s = accept_one();
  EXPECT_EQ(take(s), ident_bytes(7, 4242, 3));  // before the call returned
  EXPECT_EQ(ipcconn_client_send_sync(c, 4, "sync", 4), 0);
  EXPECT_EQ(take(s), frame(0x417, 4, "sync"));
  EXPECT_EQ(ipcconn_client_send(c, 4, "x", 1, IPCCONN_MSG_PRIORITY_LOW), 0);  // the queued form works too
  EXPECT_EQ(take(s), frame(0x417, 4, "x"));
  std::string in = frame(0x417, 1, "report", IPC_MSG_OP_SEND | IPC_MSG_OP_ERROR) + frame(0x417, 5, "mine");
  ASSERT_EQ(write(s, in.data(), in.size()), static_cast<ssize_t>(in.size()));
  ipc_msg *m = nullptr;
  int n = ipcconn_client_recv_sync(c, &m);
  ASSERT_EQ(n, 4);
  EXPECT_EQ(m->subtype, 5);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(ipc_msg_payload(m)), 4), "mine");
  EXPECT_TRUE(logged("error code 0 type 1047 subtype 1 opcode 9"));
  close(s);
  while ((n = ipcconn_client_recv_sync(c, &m)) >= 0) {
  }
  EXPECT_EQ(n, IPCCONN_ERR_CLOSED);
  EXPECT_EQ(ipcconn_client_recv_sync(nullptr, &m), IPCCONN_ERR_INVALID);
  ipcconn_client_close(c);

  // Tried limit + 1 times in a row, then nothing.
  close(listener);
  listener = -1;
  unlink(path.c_str());
  sp.max_retries = 2;
  tvx_fault_clear();
  tvx_fault_errno(TVX_SYS_SOCKET, EMFILE, 1, AF_INET6);  // never taken: it starts the count
  EXPECT_EQ(ipcconn_uds_client_connect_sync(&sp), nullptr);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_SOCKET), 3u);
  tvx_fault_clear();
}

INSTANTIATE_TEST_SUITE_P(EventSystems, Client, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "EventLibrary" : "TaskKernel"; });

}  // namespace
