// IpcPingPong: one 64-byte message and its echo over a Unix stream socket,
// the client here and the echoing server a child process on the same CPU.
// Ours is an ipcconn client on the task kernel's loop (it sends the next
// message from inside the callback of the echo) against an ipcconn server
// with an echo callback, also on the task kernel; floor a bare epoll loop on
// both sides, writing and reading the same 72 framed bytes. Wall-clock time
// per round trip, since half of it is spent in the other process.
//
// IpcStream: the sender's CPU per 64-byte message, the receiver a child
// process that reads and drops the bytes (the same bare reader for both).
// Ours is ipcconn_client_send on a connected client: straight to the socket
// while it takes messages, queued behind it when full; at the back-pressure
// threshold (256) the sender runs the loop until back-pressure ends, as an
// application would. Floor: one blocking write() of the framed message each.
//
// ZeroMQ, for information: a PAIR socket over ipc:// for the ping-pong, a PUSH
// socket into a PULL reader for the stream. ZeroMQ hands messages to its own
// I/O thread and batches them on the wire, which ipcconn does not; its stream
// figure is the CPU of the whole process, that thread included.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <zmq.h>
#include "../common/pinned_main.h"
#include "ipc/ipcconn.h"
#include "ipc/ipcconn_server.h"
#include "task/sched.h"
#include "task/task.h"

namespace {

constexpr uint32_t kPayload = 64;
constexpr size_t kFrame = kPayload + IPC_MSG_HDR_LEN;
char root[] = "/tmp/bench_ipc_XXXXXX";
std::string sock_path;

void quiet(int, const char *) {}

void kernel() {
  static bool done = false;
  if (done) return;
  done = true;
  task_kernel_init();
  task *keeper = task_alloc("bench", 10, nullptr);
  task_create(keeper);
  ipcconn_set_log_hook(quiet);
}

int listen_unix() {
  unlink(sock_path.c_str());
  int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  strncpy(a.sun_path, sock_path.c_str(), sizeof a.sun_path - 1);
  if (bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || listen(s, 8) < 0) _exit(3);
  return s;
}
int connect_unix() {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  strncpy(a.sun_path, sock_path.c_str(), sizeof a.sun_path - 1);
  for (int i = 0; i < 1000; i++) {
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) return s;
    close(s);
    usleep(1000);  // the child is still starting
  }
  abort();
}

// ---- children ---------------------------------------------------------------------
// A ready line on a pipe, so that the parent connects to a listening child.
pid_t spawn(void (*body)(int ready_fd)) {
  int p[2];
  if (pipe(p) < 0) abort();
  pid_t pid = fork();
  if (pid == 0) {
    close(p[0]);
    body(p[1]);
    _exit(0);
  }
  close(p[1]);
  char c;
  if (read(p[0], &c, 1) != 1) abort();
  close(p[0]);
  return pid;
}
// Every child is a fresh process: a forked copy of a parent whose task
// kernel is up would share its event queues and signal mask.
void exec_child(const char *role, int ready) {
  std::string fd = std::to_string(ready);
  execl("/proc/self/exe", "bench_ipc", role, sock_path.c_str(), fd.c_str(), nullptr);
  _exit(3);
}
void exec_ours_echo(int ready) { exec_child("--ours-echo", ready); }
void exec_floor_echo(int ready) { exec_child("--floor-echo", ready); }
void exec_drop_reader(int ready) { exec_child("--drop-reader", ready); }
void exec_zmq_echo(int ready) { exec_child("--zmq-echo", ready); }
void exec_zmq_drain(int ready) { exec_child("--zmq-drain", ready); }
void reap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

void ours_echo_event(ipcconn_session *, uint32_t, uint32_t, int event, void *) {
  if (event == IPCCONN_EVENT_CLOSED) _exit(0);
}
int ours_echo_msg(ipcconn_session *s, uint8_t *, uint32_t, ipc_msg *m, void *) {
  ipcconn_server_send(s, m->subtype, ipc_msg_payload(m), m->length, IPCCONN_MSG_PRIORITY_LOW);
  return 0;
}
void ours_echo_server(int ready) {
  kernel();
  task *app = task_alloc("echo", 10, nullptr);
  task_create(app);
  ipcconn_server_params p{};
  p.ptask = app;
  p.malloc_fn = malloc;
  p.free_fn = free;
  p.path = sock_path.c_str();
  p.event_cb = ours_echo_event;
  p.msg_cb = ours_echo_msg;
  p.threshold_low = UINT32_MAX;
  if (!ipcconn_uds_server_create(&p)) _exit(3);
  if (write(ready, "r", 1) != 1) _exit(3);
  task_scheduler();
}

// Reads whole frames and writes each back, one epoll wait per readiness.
void floor_echo_server(int ready) {
  int l = listen_unix();
  if (write(ready, "r", 1) != 1) _exit(3);
  int s = accept4(l, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event e{};
  e.events = EPOLLIN;
  epoll_ctl(ep, EPOLL_CTL_ADD, s, &e);
  char buf[65536];
  size_t have = 0;
  for (;;) {
    epoll_event got;
    if (epoll_wait(ep, &got, 1, -1) < 1) continue;
    ssize_t n = read(s, buf + have, sizeof buf - have);
    if (n <= 0) _exit(0);
    have += static_cast<size_t>(n);
    size_t whole = have - have % kFrame;
    if (whole && write(s, buf, whole) != static_cast<ssize_t>(whole)) _exit(3);
    memmove(buf, buf + whole, have - whole);
    have -= whole;
  }
}

void drop_reader(int ready) {
  int l = listen_unix();
  if (write(ready, "r", 1) != 1) _exit(3);
  int s = accept4(l, nullptr, nullptr, SOCK_CLOEXEC);
  char buf[65536];
  while (read(s, buf, sizeof buf) > 0) {
  }
  _exit(0);
}

std::string zmq_endpoint() { return "ipc://" + sock_path + ".zmq"; }

// A PAIR socket that sends back every message, or a PULL socket that drops them.
void zmq_peer(int ready, int type) {
  void *ctx = zmq_ctx_new();
  void *s = zmq_socket(ctx, type);
  if (zmq_bind(s, zmq_endpoint().c_str()) != 0) _exit(3);
  if (write(ready, "r", 1) != 1) _exit(3);
  char buf[kFrame];
  for (;;) {
    int n = zmq_recv(s, buf, sizeof buf, 0);
    if (n < 0) _exit(0);
    if (type == ZMQ_PAIR && zmq_send(s, buf, static_cast<size_t>(n), 0) < 0) _exit(0);
  }
}

// ---- IpcPingPong -------------------------------------------------------------------------
benchmark::State *state;
bool done;
uint8_t payload[kPayload];

bool keep_running() { return !done && !(done = !state->KeepRunning()); }

int ours_pong(ipcconn_client *c, uint8_t *, uint32_t, ipc_msg *, void *) {
  if (keep_running())
    ipcconn_client_send(c, 1, payload, kPayload, IPCCONN_MSG_PRIORITY_LOW);
  else
    task_scheduler_stop();
  return 0;
}
void ours_connected(ipcconn_client *c, int event, void *) {
  if (event == IPCCONN_EVENT_CONNECTED && keep_running()) ipcconn_client_send(c, 1, payload, kPayload, 0);
}

ipcconn_client *ours_client(ipcconn_client_event_fn ev, ipcconn_client_msg_fn msg, uint32_t backpressure) {
  static task *app = [] {
    task *t = task_alloc("client", 10, nullptr);
    task_create(t);
    return t;
  }();
  ipcconn_client_params p{};
  p.ptask = app;
  p.peer_path = sock_path.c_str();
  p.event_cb = ev;
  p.msg_cb = msg;
  p.app_id = 1;
  p.pid = static_cast<uint32_t>(getpid());
  p.max_retries = 1000;
  p.threshold_backpressure = backpressure;
  return ipcconn_uds_client_connect(&p);
}

void IpcPingPong_ours(benchmark::State &st) {
  kernel();
  pid_t child = spawn(exec_ours_echo);
  state = &st;
  done = false;
  ipcconn_client *c = ours_client(ours_connected, ours_pong, 0);
  task_scheduler_run();
  ipcconn_client_close(c);
  reap(child);
}

void IpcPingPong_floor(benchmark::State &st) {
  pid_t child = spawn(exec_floor_echo);
  int s = connect_unix();
  int ep = epoll_create1(EPOLL_CLOEXEC);
  epoll_event e{};
  e.events = EPOLLIN;
  epoll_ctl(ep, EPOLL_CTL_ADD, s, &e);
  char frame[kFrame] = {0x17, 0x04, 1, 0, kPayload, 0, 1, 0};
  char in[kFrame];
  for (auto _ : st) {
    if (write(s, frame, kFrame) != static_cast<ssize_t>(kFrame)) abort();
    size_t got = 0;
    while (got < kFrame) {
      epoll_event ev;
      if (epoll_wait(ep, &ev, 1, -1) < 1) continue;
      ssize_t n = read(s, in + got, kFrame - got);
      if (n <= 0) abort();
      got += static_cast<size_t>(n);
    }
  }
  close(ep);
  close(s);
  reap(child);
}

void IpcPingPong_zeromq(benchmark::State &st) {
  pid_t child = spawn(exec_zmq_echo);
  void *ctx = zmq_ctx_new();
  void *s = zmq_socket(ctx, ZMQ_PAIR);
  if (zmq_connect(s, zmq_endpoint().c_str()) != 0) abort();
  char in[kPayload];
  for (auto _ : st) {
    if (zmq_send(s, payload, kPayload, 0) != static_cast<int>(kPayload)) abort();
    if (zmq_recv(s, in, sizeof in, 0) != static_cast<int>(kPayload)) abort();
  }
  int zero = 0;
  zmq_setsockopt(s, ZMQ_LINGER, &zero, sizeof zero);
  zmq_close(s);
  zmq_ctx_term(ctx);
  reap(child);
}

// ---- IpcStream -------------------------------------------------------------------------
bool pressure;
void stream_event(ipcconn_client *c, int event, void *) {
  if (event == IPCCONN_EVENT_BACKPRESSURE) {
    pressure = c->backpressure;
    if (!pressure) task_scheduler_stop();
  }
  if (event == IPCCONN_EVENT_CONNECTED) task_scheduler_stop();
}

void IpcStream_ours(benchmark::State &st) {
  kernel();
  pid_t child = spawn(exec_drop_reader);
  pressure = false;
  ipcconn_client *c = ours_client(stream_event, nullptr, 256);
  task_scheduler_run();  // to the connect
  for (auto _ : st) {
    if (ipcconn_client_send(c, 1, payload, kPayload, IPCCONN_MSG_PRIORITY_LOW) != 0) abort();
    if (pressure) task_scheduler_run();  // until back-pressure ends
  }
  ipcconn_client_close(c);
  reap(child);
}

void IpcStream_floor(benchmark::State &st) {
  pid_t child = spawn(exec_drop_reader);
  int s = connect_unix();
  int size = 65536;  // the buffers ipcconn asks for
  setsockopt(s, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  char frame[kFrame] = {0x17, 0x04, 1, 0, kPayload, 0, 1, 0};
  for (auto _ : st)
    if (send(s, frame, kFrame, MSG_NOSIGNAL) != static_cast<ssize_t>(kFrame)) abort();
  close(s);
  reap(child);
}

void IpcStream_zeromq(benchmark::State &st) {
  pid_t child = spawn(exec_zmq_drain);
  void *ctx = zmq_ctx_new();
  void *s = zmq_socket(ctx, ZMQ_PUSH);
  if (zmq_connect(s, zmq_endpoint().c_str()) != 0) abort();
  for (auto _ : st)
    if (zmq_send(s, payload, kPayload, 0) != static_cast<int>(kPayload)) abort();
  zmq_close(s);  // lingers until the reader has every message
  zmq_ctx_term(ctx);
  reap(child);
}

}  // namespace

BENCHMARK(IpcPingPong_ours)->Name("IpcPingPong/ours")->UseRealTime();
BENCHMARK(IpcPingPong_floor)->Name("IpcPingPong/floor")->UseRealTime();
BENCHMARK(IpcStream_ours)->Name("IpcStream/ours");
BENCHMARK(IpcStream_floor)->Name("IpcStream/floor");
BENCHMARK(IpcPingPong_zeromq)->Name("IpcPingPong/zeromq")->UseRealTime();
BENCHMARK(IpcStream_zeromq)->Name("IpcStream/zeromq")->MeasureProcessCPUTime();

int main(int argc, char **argv) {
  if (argc == 4) {
    sock_path = argv[2];
    int ready = atoi(argv[3]);
    if (strcmp(argv[1], "--ours-echo") == 0) ours_echo_server(ready);
    if (strcmp(argv[1], "--floor-echo") == 0) floor_echo_server(ready);
    if (strcmp(argv[1], "--drop-reader") == 0) drop_reader(ready);
    if (strcmp(argv[1], "--zmq-echo") == 0) zmq_peer(ready, ZMQ_PAIR);
    if (strcmp(argv[1], "--zmq-drain") == 0) zmq_peer(ready, ZMQ_PULL);
    return 3;
  }
  if (!mkdtemp(root)) return 1;
  sock_path = std::string(root) + "/peer.sock";
  signal(SIGPIPE, SIG_IGN);
  tvx_bench_pin_first_cpu();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  unlink(sock_path.c_str());
  rmdir(root);
}
