// libstats with the real programs: rtsockd holds the kernel's figures, cntd
// the forwarding plane's. The synchronous path merges them, falls back to the
// kernel's on an empty or failed reply and on a cntd that is gone; a session
// hears cntd killed (6) and, once it is back, reconnects (5) and is answered.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdlib>
#include <functional>

#include "cntd_process.h"
#include "io_fixture.h"
#include "ipc/ipcconn.h"
#include "rtsock/rtslib.h"
#include "rtsockd_process.h"
#include "stats/ifstat.h"
#include "stats/libstats.h"

using namespace tt;

namespace {

const char kKernel[] =
    "ifd index=2 name=ge-0/0/0\n"
    "ifl index=71 ifd_index=2 unit=0 name=ge-0/0/0\n"
    "ifl index=72 ifd_index=2 unit=1 name=ge-0/0/0\n"
    "iflstats index=71 flags=3 ibytes=1000 ipackets=10 obytes=2000 base.ibytes=100\n"
    "iflstats index=72 flags=3 ibytes=5\n";
const char kPlane[] = "iflstats index=71 ibytes=300 ipackets=3 obytes=50 base.ibytes=30 queue.0.tx_packets=4\n";

std::vector<std::string> lines;
void keep(int, const char *l) { lines.push_back(l); }
bool logged(const std::string &part) {
  for (auto &l : lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

// In bytes of one logical interface's statistics: (since up, since the last clear).
std::pair<uint64_t, uint64_t> in_bytes(const rts_ifstats_msg *m) {
  gif_msg msg;
  gif_ifd parsed;
  if (gif_ifd_parse(&parsed, &msg, m, m->hdr.length) != 0) return {~0ull, ~0ull};
  gif_traffic *a = gif_abs_ifl_local_traffic(&parsed), *c = gif_ifl_local_traffic(&parsed);
  std::pair<uint64_t, uint64_t> out{a ? a->in_bytes : ~0ull, c ? c->in_bytes : ~0ull};
  free(a);
  free(c);
  return out;
}

class Cntd : public Io {
 protected:
  RtsockdProcess *kernel = nullptr;
  CntdProcess *plane = nullptr;
  rtslib_cookie *rl = nullptr;
  void SetUp() override {
    Io::SetUp();
    lines.clear();
    libstats_set_log_hook(keep);
    kernel = new RtsockdProcess(nullptr, RtsockdProcess::Options{022, 0, "", kKernel});
    ASSERT_TRUE(kernel->ready()) << kernel->log();
    plane = new CntdProcess(kPlane);
    ASSERT_TRUE(plane->ready()) << plane->log();
    rl = rtslib_open(134);
    ASSERT_NE(rl, nullptr);
  }
  void TearDown() override {
    if (rl) rtslib_close(rl);
    delete plane;
    delete kernel;
    libstats_set_log_hook(nullptr);
    unsetenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD");
    Io::TearDown();
  }
  // (status, since up, since clear) of ifl through the synchronous path.
  std::tuple<int, uint64_t, uint64_t> get(uint32_t ifl, int how) {
    rts_ifstats_msg *m = nullptr;
    int st = -2;
    int err = libstats_rtslib_iflsm_get_by_index_internal(rl, ifl, how, &m, &st);
    EXPECT_EQ(err, 0);
    if (err) return {err, 0, 0};
    auto [up, clr] = in_bytes(m);
    libstats_iflsm_free(m);
    return {st, up, clr};
  }
  // Runs passes until cond holds, waiting for the other processes between them.
  bool pump(const std::function<bool()> &cond) {
    for (int i = 0; i < 2000; i++) {
      if (cond()) return true;
      real_passes(1);
      poll(nullptr, 0, 2);
    }
    return cond();
  }
};

TEST_F(Cntd, TheSynchronousPathMergesOrFallsBackToTheKernel) {
  using T = std::tuple<int, uint64_t, uint64_t>;
  EXPECT_EQ(get(71, LIBSTATS_MERGE_ALWAYS), (T{0, 1300, 1300 - 130}));
  EXPECT_EQ(get(71, LIBSTATS_MERGE_BY_PLATFORM), (T{-1, 1000, 900}));  // the flag is off by default
  setenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD", "1", 1);
  EXPECT_EQ(get(71, LIBSTATS_MERGE_BY_PLATFORM), (T{0, 1300, 1170}));
  EXPECT_EQ(get(71, LIBSTATS_MERGE_NEVER), (T{-1, 1000, 900}));

  // cntd holds nothing for 72: an empty reply, the kernel's figures.
  EXPECT_EQ(get(72, LIBSTATS_MERGE_ALWAYS), (T{LIBSTATS_INTERIM_NOT_FOUND, 5, 5}));
  EXPECT_TRUE(logged("ifl-index:72, empty response received from CNTD"));
  ASSERT_EQ(plane->admin("fault error EIO"), "ok\n");
  EXPECT_EQ(get(71, LIBSTATS_MERGE_ALWAYS), (T{LIBSTATS_INTERIM_NOT_FOUND, 1000, 900}));
  EXPECT_TRUE(logged("failed for iflindex:71 id:1 flags:0x100 err:5, patch it to kernel"));
  ASSERT_EQ(plane->admin("fault clear"), "ok\n");
  ASSERT_EQ(plane->admin("stats bump iflstats index=71 ibytes=700"), "ok\n");
  EXPECT_EQ(get(71, LIBSTATS_MERGE_ALWAYS), (T{0, 2000, 1870}));

  // Killed: unreachable, the kernel's figures; started again: merged again.
  plane->stop(SIGKILL);
  EXPECT_EQ(get(71, LIBSTATS_MERGE_ALWAYS), (T{LIBSTATS_SOCKET_CONNECT_FAILURE, 1000, 900}));
  ASSERT_TRUE(plane->start()) << plane->log();
  EXPECT_EQ(get(71, LIBSTATS_MERGE_ALWAYS), (T{0, 1300, 1170}));
  // An interface the kernel does not know is the kernel's error.
  rts_ifstats_msg *m = nullptr;
  EXPECT_EQ(libstats_rtslib_iflsm_get_by_index_internal(rl, 99, LIBSTATS_MERGE_ALWAYS, &m, nullptr), ENOENT);
  EXPECT_EQ(m, nullptr);
}

struct Heard {
  std::vector<int> conn;
  std::vector<std::string> ifl;  // "status:index:in_bytes"
};

TEST_F(Cntd, ASessionHearsCntdGoAndReconnectsWhenItIsBack) {
  task *app = task_alloc("app", 10, nullptr);
  task_create(app);
  libstats_session *s = libstats_session_create("tunechod", app);
  Heard heard;
  s->app_ctx = &heard;
  s->cb.conn = [](libstats_session *, int st, void *h) { static_cast<Heard *>(h)->conn.push_back(st); };
  s->cb.iflstats = [](libstats_session *ss, int st, uint32_t index, uint32_t, const rts_ifstats_msg *m, void *) {
    static_cast<Heard *>(ss->app_ctx)
        ->ifl.push_back(std::to_string(st) + ":" + std::to_string(index) + ":" +
                        (m ? std::to_string(in_bytes(m).first) : "-"));
  };
  ASSERT_EQ(libstats_connect(s), 0);
  ASSERT_TRUE(pump([&] { return !heard.conn.empty(); }));
  EXPECT_EQ(heard.conn, std::vector<int>{LIBSTATS_SOCKET_OPEN});

  ASSERT_EQ(libstats_rtslib_async_iflsm_get_by_index(s, rl, 71, nullptr), 0);
  ASSERT_EQ(libstats_rtslib_async_iflsm_get_by_index(s, rl, 72, nullptr), 0);
  ASSERT_TRUE(pump([&] { return heard.ifl.size() == 2; }));
  EXPECT_EQ(heard.ifl, (std::vector<std::string>{"0:71:1300", "0:72:5"}));  // 72: the kernel's alone
  EXPECT_EQ(s->counters.empty_replies, 1u);
  // A bare record has no route socket behind it: cntd's figures alone.
  uint8_t record[LS_REQ_LEN];
  ls_ifl_request bare{};
  bare.ifl = 71;
  bare.flags = LS_REQ_FULL | LS_REQ_ASYNC;
  bare.id = 500;
  ls_ifl_request_write(record, bare);
  ASSERT_EQ(libstats_send_iflstats_full_request(s, record, LS_IFLSTATS_FULL_REQUEST), 0);
  ASSERT_TRUE(pump([&] { return heard.ifl.size() == 3; }));
  EXPECT_EQ(heard.ifl[2], "0:71:300");
  heard.ifl.pop_back();

  // Refused before anything is sent: no session, no cookie, a private interface.
  EXPECT_EQ(libstats_rtslib_async_iflsm_get_by_index(nullptr, rl, 71, nullptr), LIBSTATS_NULL_SESSION);
  EXPECT_TRUE(logged("libstats_rtslib_async_iflsm_get_by_index failed, session is NULL"));
  EXPECT_EQ(libstats_rtslib_async_iflsm_get_by_index(s, nullptr, 71, nullptr), LIBSTATS_INVALID_ARG);
  EXPECT_TRUE(logged("libstats_rtslib_async_iflsm_get_by_index failed, cookie is NULL"));
  EXPECT_EQ(libstats_rtslib_async_iflsm_get_by_name(s, rl, "ge-9/9/9", 0, nullptr), LIBSTATS_INVALID_ARG);
  EXPECT_TRUE(logged("failed, get iflidx by name ge-9/9/9 failed"));
  EXPECT_EQ(libstats_rtslib_async_iflsm_get_by_index(s, rl, 99, nullptr), LIBSTATS_INVALID_ARG);
  EXPECT_TRUE(logged("failed to get iflm for ifl:99, err:2"));

  plane->stop(SIGKILL);
  ASSERT_TRUE(pump([&] { return heard.conn.size() == 2; }));
  EXPECT_EQ(heard.conn[1], LIBSTATS_SOCKET_CLOSED);
  // Asked while cntd is down: an IPC failure, which the application retries if it will.
  EXPECT_EQ(libstats_rtslib_async_iflsm_get_by_name(s, rl, "ge-0/0/0", 0, nullptr), LIBSTATS_SOCKET_IPC_FAILURE);
  EXPECT_EQ(s->counters.errors[LIBSTATS_KIND_FULL][LIBSTATS_ERR_IPC], 1u);
  ASSERT_TRUE(plane->start()) << plane->log();
  advance(IPCCONN_RETRY_INTERVAL_SEC);
  ASSERT_TRUE(pump([&] { return heard.conn.size() == 3; }));
  EXPECT_EQ(heard.conn, (std::vector<int>{LIBSTATS_SOCKET_OPEN, LIBSTATS_SOCKET_CLOSED, LIBSTATS_SOCKET_OPEN}));
  ASSERT_EQ(libstats_rtslib_async_iflsm_get_by_name(s, rl, "ge-0/0/0", 0, nullptr), 0);
  ASSERT_TRUE(pump([&] { return heard.ifl.size() == 3; }));
  EXPECT_EQ(heard.ifl[2], "0:71:1300");

  // Closed by cntd on a request: 6, a reconnect, and the next request answered.
  ASSERT_EQ(plane->admin("fault close"), "ok\n");
  ASSERT_EQ(libstats_rtslib_async_iflsm_clear_by_index(s, rl, 71, nullptr), 0);
  ASSERT_TRUE(pump([&] { return heard.conn.size() == 4; }));
  EXPECT_EQ(heard.conn[3], LIBSTATS_SOCKET_CLOSED);
  advance(IPCCONN_RETRY_INTERVAL_SEC);
  ASSERT_TRUE(pump([&] { return heard.conn.size() == 5; }));
  ASSERT_EQ(libstats_rtslib_async_iflsm_clear_by_index(s, rl, 71, nullptr), 0);
  ASSERT_TRUE(pump([&] { return heard.ifl.size() == 4; }));
  EXPECT_EQ(heard.ifl[3], "0:71:1300");
  libstats_session_destroy(s);
}

}  // namespace
