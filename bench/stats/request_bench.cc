// StatsRequest: one interface's statistics through cntd, wall-clock time per
// request, since half of it is spent in the other process. Ours is a libstats
// session on the task kernel's loop sending the request record of logical
// interface 71 (libstats_send_iflstats_full_request) to the real cntd, a child
// process, and sending the next from the callback that gets the reply read,
// its TLVs converted and packed into a statistics message. The floor is a bare
// epoll loop on both sides writing and reading the same bytes: the 193-byte
// framed request and cntd's framed reply, answered by a child that writes the
// reply as soon as a whole request is in. The kernel's figures (a second round
// trip, to rtsockd) are left out of both.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ipc/ipcconn.h"
#include "service.h"
#include "stats/libstats.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

// A logical interface as a port carries it: traffic, transit, two queues.
const char kState[] =
    "iflstats index=71 flags=3 ibytes=4000000 ipackets=30000 iucast=29000 imcast=800 ibcast=200 obytes=5000000 "
    "opackets=36000 tibytes=700000 tipackets=6000 tobytes=900000 topackets=7000 base.ibytes=1000000 "
    "base.ipackets=8000 queue.0.tx_packets=30000 queue.0.tx_bytes=4500000 queue.1.tx_packets=6000\n";

std::string dir, sock;
benchmark::State *state;
bool done, failed;
uint8_t record[LS_REQ_LEN];

void setup_dir() {
  if (!dir.empty()) return;
  char tmpl[] = "/tmp/bench_stats_XXXXXX";
  dir = mkdtemp(tmpl);
  sock = dir + "/cntd";
  FILE *f = fopen((dir + "/state").c_str(), "w");
  fputs(kState, f);
  fclose(f);
  setenv("CNTD_PATH", sock.c_str(), 1);
  ls_ifl_request r{};
  r.ifl = 71;
  r.flags = LS_REQ_FULL | LS_REQ_ASYNC;
  r.id = 1;
  ls_ifl_request_write(record, r);
}

pid_t start_cntd() {
  int p[2];
  if (pipe(p) < 0) abort();
  pid_t pid = fork();
  if (pid == 0) {
    dup2(p[1], 2);
    execl(CNTD_BIN, "cntd", "-f", (dir + "/state").c_str(), "-s", sock.c_str(), nullptr);
    _exit(127);
  }
  close(p[1]);
  std::string log;
  char buf[512];
  ssize_t n;
  while (log.find("serving ") == std::string::npos && (n = read(p[0], buf, sizeof buf)) > 0) log.append(buf, n);
  close(p[0]);  // cntd's later lines go nowhere: it writes none while serving
  if (log.find("serving ") == std::string::npos) abort();
  return pid;
}

void reap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

bool keep_running() { return !done && !(done = !state->KeepRunning()); }

void next(libstats_session *s) {
  if (keep_running()) {
    if (libstats_send_iflstats_full_request(s, record, LS_IFLSTATS_FULL_REQUEST) != 0) {
      failed = true;
      task_scheduler_stop();
    }
  } else {
    task_scheduler_stop();
  }
}
void on_conn(libstats_session *s, int status, void *) {
  if (status == LIBSTATS_SOCKET_OPEN) next(s);
}
void on_ifl(libstats_session *s, int status, uint32_t, uint32_t, const rts_ifstats_msg *m, void *) {
  if (status != 0 || !m) {
    failed = true;
    task_scheduler_stop();
    return;
  }
  next(s);
}

void StatsRequest_ours(benchmark::State &st) {
  static task *app = [] {
    task_kernel_init();
    ipcconn_set_log_hook([](int, const char *) {});
    libstats_set_log_hook([](int, const char *) {});
    task *t = task_alloc("bench", 10, nullptr);
    task_create(t);
    return t;
  }();
  setup_dir();
  pid_t child = start_cntd();
  state = &st;
  done = failed = false;
  libstats_session *s = libstats_session_create("bench_stats", app);
  s->cb.conn = on_conn;
  s->cb.iflstats = on_ifl;
  if (libstats_connect(s) != 0) st.SkipWithError("no connection to cntd");
  else task_scheduler_run();
  if (failed) st.SkipWithError("a request failed");
  libstats_session_destroy(s);
  reap(child);
}

// ---- The floor --------------------------------------------------------------------------
std::vector<uint8_t> frame(const std::vector<uint8_t> &payload, uint32_t type) {
  ipc_msg h{IPCCONN_MSG_TYPE, static_cast<uint16_t>(type), static_cast<uint16_t>(payload.size()), 1, 0};
  std::vector<uint8_t> f(IPC_MSG_HDR_LEN + payload.size());
  memcpy(f.data(), &h, IPC_MSG_HDR_LEN);
  memcpy(f.data() + IPC_MSG_HDR_LEN, payload.data(), payload.size());
  return f;
}

void StatsRequest_floor(benchmark::State &st) {
  setup_dir();
  std::vector<uint8_t> req(LS_REQ_MSG_LEN);
  ls_hdr_write(req.data(), LS_REQ_MSG_LEN, LS_IFLSTATS_FULL_REQUEST);
  memcpy(req.data() + LS_HDR_LEN, record, LS_REQ_LEN);
  cntd::Service svc;  // cntd's reply to it, byte for byte
  std::string why;
  svc.counters.set(kState, false, &why);
  std::vector<uint8_t> rep;
  svc.request(LS_IFLSTATS_FULL_REQUEST, req.data(), LS_REQ_MSG_LEN, 0, &rep);
  std::vector<uint8_t> qf = frame(req, LS_IFLSTATS_FULL_REQUEST), rf = frame(rep, LS_IFLSTATS_FULL_ASYNC_REPLY);
  std::string path = dir + "/floor";
  unlink(path.c_str());
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  int l = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || listen(l, 8) < 0) abort();
  pid_t child = fork();
  if (child == 0) {
    int s = accept4(l, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event e{};
    e.events = EPOLLIN;
    epoll_ctl(ep, EPOLL_CTL_ADD, s, &e);
    std::vector<uint8_t> buf(65536);
    size_t have = 0;
    for (;;) {
      epoll_event got;
      if (epoll_wait(ep, &got, 1, -1) < 1) continue;
      ssize_t n = read(s, buf.data() + have, buf.size() - have);
      if (n <= 0) _exit(0);
      have += static_cast<size_t>(n);
      while (have >= qf.size()) {
        if (write(s, rf.data(), rf.size()) != static_cast<ssize_t>(rf.size())) _exit(3);
        memmove(buf.data(), buf.data() + qf.size(), have - qf.size());
        have -= qf.size();
      }
    }
  }
  close(l);
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) abort();
  int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event e{};
  e.events = EPOLLIN;
  epoll_ctl(ep, EPOLL_CTL_ADD, s, &e);
  std::vector<uint8_t> in(rf.size());
  for (auto _ : st) {
    if (write(s, qf.data(), qf.size()) != static_cast<ssize_t>(qf.size())) abort();
    size_t got = 0;
    while (got < in.size()) {
      epoll_event ev;
      if (epoll_wait(ep, &ev, 1, -1) < 1) continue;
      ssize_t n = read(s, in.data() + got, in.size() - got);
      if (n <= 0) abort();
      got += static_cast<size_t>(n);
    }
  }
  if (in != rf) st.SkipWithError("another reply");
  close(ep);
  close(s);
  reap(child);
}

}  // namespace

BENCHMARK(StatsRequest_ours)->Name("StatsRequest/ours")->UseRealTime();
BENCHMARK(StatsRequest_floor)->Name("StatsRequest/floor")->UseRealTime();
