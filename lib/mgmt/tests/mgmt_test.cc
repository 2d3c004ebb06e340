// The management channel on real sockets and the kernel's fake clock: lines
// across reads and peers, the table walk, help, module state, the catch-all,
// nesting, abort of a running generator, idle peers, a line too large, a
// 10 MB answer to a slow reader, 1,000 idle peers, the socket's mode.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "mgmt_fixture.h"

using namespace tt;

namespace {

std::string last_args;
int m_thing(mgmt_cmd_ctx *ctx, char *) {
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "thing");
  return MGMT_CMD_DONE;
}
int m_alpha(mgmt_cmd_ctx *ctx, char *) {
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "alpha");
  return MGMT_CMD_DONE;
}
int m_catch(mgmt_cmd_ctx *ctx, char *args) {
  last_args = args ? args : "(null)";
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "caught %s", last_args.c_str());
  return MGMT_CMD_DONE;
}

// An endless answer until aborted.
int gen_closes, gen_aborted, outputs_done;
int endless(mgmtPeer *mp, void *) {
  for (int i = 0; i < 100; i++) mgmt_reply(mp, MGMT_CODE_OUTPUT, 1, "line %d of an endless answer", i);
  return 1;
}
void endless_close(mgmtPeer *, void *, int aborted) {
  gen_closes++;
  gen_aborted = aborted;
}
int m_endless(mgmt_cmd_ctx *ctx, char *) {
  mgmt_generator(ctx->mc_peer, endless, endless_close, nullptr);
  return MGMT_CMD_SESSION;
}

std::string *bulk_text;
int m_bulk(mgmt_cmd_ctx *ctx, char *) {
  return mgmt_reply_text(ctx->mc_peer, MGMT_CODE_OUTPUT, bulk_text->data(), bulk_text->size());
}

// "vni N [detail ...]": the number is a value taken by a catch-all sub-table.
int m_values(mgmt_cmd_ctx *ctx, char *args) {
  std::string v;
  for (uint32_t i = 0; i < ctx->mc_nvalues; i++) v += std::string(" ") + ctx->mc_values[i];
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "values%s args %s", v.c_str(), args ? args : "(null)");
  return MGMT_CMD_DONE;
}
const mgmt_cmd vni_value_rows[] = {{"detail", MGMT_MODULE_NONE, nullptr, m_values}, {}};
const mgmt_cmd vni_rows[] = {{nullptr, MGMT_MODULE_NONE, vni_value_rows, m_values}};

constexpr uint32_t kModule = 2;
const mgmt_cmd show_rows[] = {
    {"thing", MGMT_MODULE_NONE, nullptr, m_thing},
    {"alpha", MGMT_MODULE_NONE, nullptr, m_alpha},
    {"mod", kModule, nullptr, m_thing},
    {},
};
const mgmt_cmd root[] = {
    {"show", MGMT_MODULE_NONE, show_rows, nullptr},
    {"endless", MGMT_MODULE_NONE, nullptr, m_endless},
    {"bulk", MGMT_MODULE_NONE, nullptr, m_bulk},
    {"vni", MGMT_MODULE_NONE, vni_rows, m_values},
    {nullptr, MGMT_MODULE_NONE, nullptr, m_catch},
};

// A second root mounted beside the first: its "show" rows merge.
const mgmt_cmd more_show[] = {{"beta", MGMT_MODULE_NONE, nullptr, m_alpha}, {}};
const mgmt_cmd more_root[] = {{"show", MGMT_MODULE_NONE, more_show, nullptr}, {}};

class Channel : public Mgmt {
 protected:
  const mgmt_cmd *root_table() override { return root; }
};

TEST_F(Channel, SocketIsPrivateAndGoesAtShutdown) {
  struct stat st{};
  std::string p = tvx_path("/var/run/test_mgmt");
  ASSERT_EQ(stat(p.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  int s = client();
  EXPECT_EQ(mgmt_peer_count(), 1u);
  EXPECT_EQ(std::string(mgmt_peer_first()->mp_name), "local pid " + std::to_string(getpid()));
  mgmt_shutdown();
  EXPECT_EQ(mgmt_peer_count(), 0u);
  EXPECT_NE(stat(p.c_str(), &st), 0);
  char c;
  real_passes(1);
  EXPECT_EQ(read(s, &c, 1), 0);  // the daemon's end is closed
  close(s);
}

TEST_F(Channel, ReconfigurationMovesTheListenerWhenThePathChanged) {
  int s = client();
  app.app_mgmt_path = "/var/run/test_mgmt";
  task_reinit();  // the same path: nothing moves
  EXPECT_EQ(mgmt_peer_count(), 1u);
  EXPECT_EQ(ask(s, "show thing"), "100 thing\r\n");
  app.app_mgmt_path = "/var/run/other_mgmt";
  task_reinit();
  EXPECT_EQ(mgmt_peer_count(), 0u);  // the old listener's peers went with it
  struct stat st{};
  EXPECT_NE(stat(tvx_path("/var/run/test_mgmt").c_str(), &st), 0);
  ASSERT_EQ(stat(tvx_path("/var/run/other_mgmt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  close(s);
  s = unix_client("/var/run/other_mgmt");
  real_passes(1);
  EXPECT_EQ(ask(s, "show thing"), "100 thing\r\n");
  close(s);
}

TEST_F(Channel, AConfigurationCheckLeavesTheRunningDaemonsSocketAlone) {
  mgmt_shutdown();
  std::string real = tvx_path("/var/run/running_mgmt");
  FILE *f = fopen(real.c_str(), "w");  // stands for the running daemon's socket
  ASSERT_NE(f, nullptr);
  fclose(f);
  task_newstate(TASKS_TEST, 0);
  mgmt_listen_on("/var/run/running_mgmt");
  mgmt_shutdown();
  task_newstate(0, TASKS_TEST);
  struct stat st{};
  EXPECT_EQ(stat(real.c_str(), &st), 0);
}

// The log on standard error, where a death test looks.
const evlog_sink stderr_sink = {nullptr, nullptr, nullptr,
                                [](int, const char *, const char *text) { fprintf(stderr, "%s\n", text); }};

TEST_F(Channel, ListenerThatCannotBeMadeEndsTheProcess) {
  evlog_set_sink(&stderr_sink);
  std::string too_long = "/var/run/" + std::string(200, 'x');
  EXPECT_DEATH(mgmt_listen_on(too_long.c_str()), "ZTASK_MGMT_LISTEN: Unable to name management socket");
  std::string no_dir = "/var/run/missing/dir/test_mgmt";
  EXPECT_DEATH(mgmt_listen_on(no_dir.c_str()), "ZTASK_MGMT_LISTEN: Unable to bind management socket");
  evlog_set_sink(nullptr);
}

TEST_F(Channel, LinesSplitAcrossReadsJoinAndPeersKeepTheirOwnHalves) {
  int a = client(), b = client();
  send(a, "show th");
  send(b, "SHOW al");
  real_passes(2);
  EXPECT_EQ(drain(a), "");
  send(b, "pha\n");
  send(a, "ing\nshow alpha\n");  // the end of one line and a whole one in the same read
  real_passes(2);
  EXPECT_EQ(drain(a), "100 thing\r\n100 alpha\r\n");
  EXPECT_EQ(drain(b), "100 alpha\r\n");
  close(a);
  close(b);
  real_passes(2);
  EXPECT_EQ(mgmt_peer_count(), 0u);
}

TEST_F(Channel, HelpListsTheNextWordsAndConfirmsAWholeCommand) {
  mgmt_cmd_mount(more_root);
  int s = client();
  EXPECT_EQ(ask(s, "help show"), "200-thing\r\n200-alpha\r\n200-mod\r\n200 beta\r\n");
  EXPECT_EQ(ask(s, "Help  SHOW Thing"), "201 Command syntax correct\r\n");
  EXPECT_EQ(ask(s, "help"), "100 caught help\r\n");  // "help" alone is a command, here the catch-all's
  EXPECT_EQ(ask(s, "show beta"), "100 alpha\r\n");  // from the second root
  EXPECT_EQ(ask(s, "show"), "500 Unrecognized command\r\n");
  EXPECT_EQ(ask(s, "show nothing"), "500 Unrecognized command\r\n");
  close(s);
}

TEST_F(Channel, RowOfAModuleNotRunningFails) {
  int s = client();
  EXPECT_EQ(ask(s, "show mod"), "500 Module not running\r\n");
  task_set_module_state(kModule, TASK_MODULE_CONFIGURED);
  EXPECT_EQ(ask(s, "show mod"), "100 thing\r\n");
  close(s);
}

TEST_F(Channel, CatchAllGetsTheWordAndTheRestWithTheCutSpaceRestored) {
  int s = client();
  EXPECT_EQ(ask(s, "  frob the  thing\tnow "), "100 caught frob the  thing\tnow\r\n");
  EXPECT_EQ(ask(s, "frob"), "100 caught frob\r\n");
  close(s);
}

TEST_F(Channel, CatchAllSubTableTakesAValueAndTheWalkGoesOn) {
  int s = client();
  EXPECT_EQ(ask(s, "vni 5000 detail   extra  words"), "100 values 5000 args extra  words\r\n");
  EXPECT_EQ(ask(s, "vni 5000 detail"), "100 values 5000 args (null)\r\n");
  EXPECT_EQ(ask(s, "vni 5000"), "100 values 5000 args (null)\r\n");  // the catch-all row's own method
  EXPECT_EQ(ask(s, "vni"), "100 values args (null)\r\n");            // the "vni" row's
  EXPECT_EQ(ask(s, "help vni 5000"), "200 detail\r\n");
  EXPECT_EQ(ask(s, "help vni 5000 detail"), "201 Command syntax correct\r\n");
  EXPECT_EQ(ask(s, "vni 5000 other"), "500 Unrecognized command\r\n");
  close(s);
}

// 35 tables deep: the walk runs to the bottom; ids are saved for the first 30.
mgmt_cmd deep[36][2];
mgmt_cmd_ctx deep_seen;
int m_deep(mgmt_cmd_ctx *ctx, char *) {
  deep_seen = *ctx;
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "bottom");
  return MGMT_CMD_DONE;
}

TEST_F(Channel, DepthPastTwentyNineStillRunsWithoutSavingIds) {
  for (int i = 0; i < 35; i++)
    deep[i][0] = {"d", MGMT_MODULE_NONE, i < 34 ? deep[i + 1] : nullptr, i < 34 ? nullptr : m_deep};
  deep[28][0].cmd_module_id = 1;  // entered at depth 29, the last saved
  deep[29][0].cmd_module_id = 3;  // depth 30: checked, not saved
  task_set_module_state(1, TASK_MODULE_CONFIGURED);
  task_set_module_state(3, TASK_MODULE_CONFIGURED);
  const mgmt_cmd top[] = {{"deep", MGMT_MODULE_NONE, deep[0], nullptr}, {}};
  mgmt_cmd_register(top);
  int s = client();
  std::string line = "deep";
  for (int i = 0; i < 35; i++) line += " d";
  EXPECT_EQ(ask(s, line), "100 bottom\r\n");
  EXPECT_EQ(deep_seen.mc_depth, 36u);
  EXPECT_EQ(deep_seen.mc_module_ids[29], 1u);
  EXPECT_EQ(deep_seen.mc_module_ids[28], MGMT_MODULE_NONE);
  EXPECT_EQ(deep_seen.mc_module_id, MGMT_MODULE_NONE);
  task_set_module_state(3, TASK_MODULE_NOT_RUNNING);
  EXPECT_EQ(ask(s, line), "500 Module not running\r\n");
  close(s);
}

void count_done(mgmtPeer *) { outputs_done++; }

TEST_F(Channel, AbortDuringAGeneratorResynchronises) {
  gen_closes = gen_aborted = outputs_done = 0;
  mgmt_hooks h{};
  h.mh_output_done = count_done;
  mgmt_set_hooks(&h);
  int s = client();
  send(s, "endless\n");
  real_passes(20);  // fills the socket; the generator waits for the reader
  EXPECT_TRUE(mgmt_active_session(mgmt_peer_first()));
  std::string got = ask(s, "show thing");
  EXPECT_EQ(got.find("100 thing"), std::string::npos);  // only session commands now
  send(s, "abort\n");
  for (int i = 0; i < 200 && got.find("Current output aborted") == std::string::npos; i++) {
    real_passes(1);
    got += drain(s);
  }
  EXPECT_NE(got.find("100-line 0 of an endless answer\r\n"), std::string::npos);
  size_t r = got.rfind("101---RESYNC--\r\n101 Current output aborted\r\n");
  ASSERT_NE(r, std::string::npos);
  EXPECT_EQ(r + strlen("101---RESYNC--\r\n101 Current output aborted\r\n"), got.size());
  EXPECT_EQ(gen_closes, 1);
  EXPECT_EQ(gen_aborted, 1);
  EXPECT_EQ(outputs_done, 1);
  EXPECT_FALSE(mgmt_active_session(mgmt_peer_first()));
  EXPECT_EQ(ask(s, "show thing"), "100 thing\r\n");
  EXPECT_EQ(ask(s, "abort"), "101 Current output aborted\r\n");  // nothing to abort
  close(s);
}

TEST_F(Channel, QuitAnswersThenCloses) {
  int s = client();
  EXPECT_EQ(ask(s, "quit"), "101 Current output aborted\r\n");
  EXPECT_EQ(mgmt_peer_count(), 0u);
  char c;
  EXPECT_EQ(read(s, &c, 1), 0);
  close(s);
}

int idle_answer;
int idle_hook(mgmtPeer *) { return idle_answer; }

TEST_F(Channel, IdlePeerIsClosedUnlessTheHookKeepsIt) {
  evlog_capture &cap = evlog_capture_start();
  mgmt_set_idle_timeout(30);
  mgmt_hooks h{};
  h.mh_idle = idle_hook;
  mgmt_set_hooks(&h);
  idle_answer = 1;
  int s = client();
  advance(31);
  real_passes(2);
  EXPECT_EQ(mgmt_peer_count(), 1u);  // kept
  advance(20);
  EXPECT_EQ(ask(s, "show thing"), "100 thing\r\n");  // activity restarts the period
  idle_answer = 0;
  advance(20);
  real_passes(2);
  EXPECT_EQ(mgmt_peer_count(), 1u);
  advance(11);
  real_passes(2);
  EXPECT_EQ(mgmt_peer_count(), 0u);
  std::string log;
  for (auto &r : cap.records) log += r.text + "\n";
  EXPECT_NE(log.find("ZTASK_MGMT_TIMEOUT: Connection to management peer local pid " + std::to_string(getpid()) +
                     " timed out waiting for input"),
            std::string::npos)
      << log;
  evlog_capture_stop();
  close(s);
}

TEST_F(Channel, LineTooLargeGets510AndThePeerStays) {
  int s = client();
  send(s, std::string(20000, 'x'));
  real_passes(3);
  EXPECT_EQ(drain(s), "510 Unable to allocate buffer, command too large\r\n");
  send(s, "yyyy\nshow thing\n");  // the rest of the long line is dropped
  real_passes(2);
  EXPECT_EQ(drain(s), "100 thing\r\n");
  close(s);
}

int refuse(mgmtPeer *) { return 0; }
int closed_event;
void closing(mgmtPeer *, int event) { closed_event = event; }

TEST_F(Channel, AcceptHookMayRefuse) {
  mgmt_hooks h{};
  h.mh_accepted = refuse;
  h.mh_closing = closing;
  mgmt_set_hooks(&h);
  int s = client();
  EXPECT_EQ(mgmt_peer_count(), 0u);
  EXPECT_EQ(closed_event, MGMT_EVENT_REFUSED);
  char c;
  EXPECT_EQ(read(s, &c, 1), 0);
  close(s);
}

// ---- Long answers and many peers, on the real clock -------------------------------------------

std::atomic<bool> reader_done;
int ticks;
void tick(task_timer *, uint32_t) {
  ticks++;
  if (reader_done) task_scheduler_stop();
}

TEST_F(Channel, TenMegabyteAnswerToASlowReaderWhileTimersFire) {
  std::string text;
  for (int i = 0; text.size() < (10u << 20); i++) text += "row " + std::to_string(i) + " of the bulk answer\n";
  bulk_text = &text;
  int s = client();
  int small = 8192;
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  send(s, "bulk\n");
  fcntl(s, F_SETFL, 0);
  std::string got;
  reader_done = false;
  std::thread reader([&] {
    char b[3000];
    for (;;) {
      ssize_t n = read(s, b, sizeof b);
      if (n <= 0) break;
      got.append(b, static_cast<size_t>(n));
      // Done at a whole line that is marked last.
      if (got.size() >= 22 && got.compare(got.size() - 2, 2, "\r\n") == 0) {
        size_t start = got.rfind('\n', got.size() - 3) + 1;  // npos + 1: the first line
        if (got.compare(start, 4, "100 ") == 0) break;
      }
      std::this_thread::yield();
    }
    reader_done = true;
  });
  task_set_time_hook(nullptr);
  task_evq.wait = task_evq_default.wait;
  ticks = 0;
  size_t most_queued = 0;
  task_utime every{0, 1000};
  task_timer *t = task_timer_ucreate(keeper, "tick", 0, &every, nullptr, 0, tick, nullptr);
  task_timer *m = task_timer_ucreate(
      keeper, "measure", 0, &every, nullptr, 0,
      [](task_timer *tip, uint32_t) {
        auto *most = static_cast<size_t *>(task_timer_data(tip));
        if (mgmtPeer *mp = mgmt_peer_first()) *most = std::max(*most, mgmt_outstanding(mp));
      },
      &most_queued);
  task_scheduler_run();
  reader.join();
  task_timer_delete(t);
  task_timer_delete(m);
  EXPECT_GT(ticks, 10);
  EXPECT_LE(most_queued, 256u * 1024 + 65536);  // about one step of the generator, never the whole answer
  // Every row came back in order, each numbered, the last one marked last.
  std::string want;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    want += (nl + 1 < text.size() ? "100-" : "100 ") + text.substr(pos, nl - pos) + "\r\n";
    pos = nl + 1;
  }
  ASSERT_EQ(got.size(), want.size());
  EXPECT_TRUE(got == want);
  EXPECT_FALSE(mgmt_active_session(mgmt_peer_first()));
  close(s);
}

TEST_F(Channel, AThousandIdlePeers) {
  std::vector<int> peers;
  for (int i = 0; i < 1000; i++) {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    strcpy(sun.sun_path, tvx_path("/var/run/test_mgmt").c_str());
    ASSERT_EQ(connect(s, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0) << i << " " << strerror(errno);
    fcntl(s, F_SETFL, O_NONBLOCK);
    peers.push_back(s);
    if (i % 4 == 3) real_passes(4);  // the backlog is 5
  }
  real_passes(8);
  ASSERT_EQ(mgmt_peer_count(), 1000u);
  EXPECT_EQ(ask(peers[500], "show thing"), "100 thing\r\n");
  EXPECT_EQ(ask(peers[999], "show alpha"), "100 alpha\r\n");
  for (int i = 0; i < 1000; i += 2) close(peers[i]);
  for (int i = 0; i < 100 && mgmt_peer_count() > 500; i++) real_passes(1);
  EXPECT_EQ(mgmt_peer_count(), 500u);
  for (int i = 1; i < 1000; i += 2) close(peers[i]);
  for (int i = 0; i < 100 && mgmt_peer_count() > 0; i++) real_passes(1);
  EXPECT_EQ(mgmt_peer_count(), 0u);
}

}  // namespace
