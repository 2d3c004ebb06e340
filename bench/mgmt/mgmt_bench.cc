// MgmtRoundTrip: one command and its one-line answer over the Unix socket,
// the client here and the server a child process: ours is the management
// channel on the task kernel's loop; libevent a bufferevent line server
// giving the same answer; floor a bare blocking read/write loop. Wall-clock
// time per round trip, since most of it is spent in the other process.
//
// MgmtBulk: "bulk" answered with 10 MB of numbered lines, read by the client
// as fast as it can: ours a generator that hands the channel 256 KB of the
// answer (one write-ready step's worth) each time the peer has taken the last
// (the channel sends what the socket takes straight from the generator's
// bytes and queues the rest in its page buffers, sent when the socket is
// writable, between passes of the loop); floor the same bytes written with
// blocking write(). Both are formatted before the fork. Bytes per second.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../common/pinned_main.h"
#include "mgmt/mgmt.h"
#include "platform/path.h"
#include "task/sched.h"

namespace {

const char kReply[] = "100 thing\r\n";
char root[] = "/tmp/bench_mgmt_XXXXXX";
std::string sock_path;

// The body of the bulk answer, and the bytes a reader receives for it.
const std::string &bulk_text() {
  static std::string t = [] {
    std::string s;
    for (int i = 0; s.size() < (10u << 20); i++) s += "row " + std::to_string(i) + " of the bulk answer\n";
    return s;
  }();
  return t;
}
const std::string &bulk_wire() {
  static std::string w = [] {
    const std::string &t = bulk_text();
    std::string out;
    out.reserve(t.size() * 11 / 10);
    for (size_t pos = 0; pos < t.size();) {
      size_t nl = t.find('\n', pos);
      out += nl + 1 < t.size() ? "100-" : "100 ";
      out.append(t, pos, nl - pos);
      out += "\r\n";
      pos = nl + 1;
    }
    return out;
  }();
  return w;
}

// ---- servers (child processes) -------------------------------------------------------

int show_thing(mgmt_cmd_ctx *ctx, char *) {
  mgmt_reply(ctx->mc_peer, MGMT_CODE_OUTPUT, 0, "thing");
  return MGMT_CMD_DONE;
}
// The answer's numbered lines, handed to the peer's stream a block at a time
// whenever the peer has taken the previous one.
constexpr size_t kBlock = 262144;
int bulk_step(mgmtPeer *mp, void *data) {
  auto *off = static_cast<size_t *>(data);
  const std::string &w = bulk_wire();
  size_t n = std::min(kBlock, w.size() - *off);
  fwrite(w.data() + *off, 1, n, mgmt_file(mp));
  *off += n;
  return *off < w.size();
}
int bulk(mgmt_cmd_ctx *ctx, char *) {
  static size_t off;
  off = 0;
  mgmt_generator(ctx->mc_peer, bulk_step, nullptr, &off);
  return MGMT_CMD_SESSION;
}
const mgmt_cmd show_rows[] = {{"thing", MGMT_MODULE_NONE, nullptr, show_thing}, {}};
const mgmt_cmd table[] = {
    {"show", MGMT_MODULE_NONE, show_rows, nullptr}, {"bulk", MGMT_MODULE_NONE, nullptr, bulk}, {}};

void ours_server(int ready) {
  tvx_path_set_root(root);
  task_kernel_init();
  mgmt_init();
  mgmt_cmd_register(table);
  mgmt_listen_on("/var/run/bench_mgmt");
  (void)!write(ready, "r", 1);
  task_scheduler();
}

int listen_plain(void) {
  int l = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  strcpy(sun.sun_path, sock_path.c_str());
  unlink(sun.sun_path);
  if (bind(l, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0 || listen(l, 5) < 0) _exit(1);
  return l;
}

void floor_server(int ready) {
  int l = listen_plain();
  (void)!write(ready, "r", 1);
  int s = accept(l, nullptr, nullptr);
  char b[4096];
  for (ssize_t n; (n = read(s, b, sizeof b)) > 0;)
    for (ssize_t i = 0; i < n; i++) {
      if (b[i] != '\n') continue;
      // The bulk case's only line is "bulk"; everything else gets the one-line answer.
      const std::string &w = bulk_wire();
      if (i >= 4 && memcmp(b + i - 4, "bulk", 4) == 0) {
        for (size_t off = 0; off < w.size();) off += static_cast<size_t>(write(s, w.data() + off, w.size() - off));
      } else {
        (void)!write(s, kReply, sizeof kReply - 1);
      }
    }
  _exit(0);
}

void le_read(bufferevent *bev, void *) {
  evbuffer *in = bufferevent_get_input(bev);
  size_t n;
  while (char *line = evbuffer_readln(in, &n, EVBUFFER_EOL_ANY)) {
    if (strcmp(line, "show thing") == 0) bufferevent_write(bev, kReply, sizeof kReply - 1);
    free(line);
  }
}
void le_accept(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *base) {
  bufferevent *bev = bufferevent_socket_new(static_cast<event_base *>(base), fd, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(bev, le_read, nullptr, nullptr, nullptr);
  bufferevent_enable(bev, EV_READ | EV_WRITE);
}
void libevent_server(int ready) {
  int l = listen_plain();
  evutil_make_socket_nonblocking(l);
  event_base *base = event_base_new();
  evconnlistener_new(base, le_accept, base, LEV_OPT_CLOSE_ON_FREE, -1, l);
  (void)!write(ready, "r", 1);
  event_base_dispatch(base);
  _exit(0);
}

// ---- the client -----------------------------------------------------------------------

struct server {
  pid_t pid = -1;
  int s = -1;
  explicit server(void (*body)(int)) {
    if (!mkdtemp(root)) abort();
    sock_path = std::string(root) + "/var/run/bench_mgmt";
    std::string d = std::string(root) + "/var/run";
    tvx_mkdirs(d.c_str(), 0755);
    bulk_wire();  // formatted before the fork, outside any timing
    int p[2];
    if (pipe(p) < 0) abort();
    pid = fork();
    if (pid == 0) {
      close(p[0]);
      body(p[1]);
      _exit(0);
    }
    close(p[1]);
    char c;
    if (read(p[0], &c, 1) != 1) abort();
    close(p[0]);
    s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    strcpy(sun.sun_path, sock_path.c_str());
    if (connect(s, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) abort();
  }
  ~server() {
    close(s);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    std::string cmd = std::string("rm -rf ") + root;
    (void)!system(cmd.c_str());
    strcpy(root, "/tmp/bench_mgmt_XXXXXX");
  }
  // Sends the line and reads until `want` bytes came back.
  size_t ask(const char *line, size_t want, char *buf, size_t size) {
    (void)!write(s, line, strlen(line));
    size_t got = 0;
    while (got < want) {
      ssize_t n = read(s, buf + (got % (size / 2)), size / 2);
      if (n <= 0) abort();
      got += static_cast<size_t>(n);
    }
    return got;
  }
};

void MgmtRoundTrip(benchmark::State &st, void (*body)(int)) {
  server srv(body);
  char buf[256];
  for (auto _ : st) {
    size_t n = srv.ask("show thing\n", sizeof kReply - 1, buf, sizeof buf);
    if (n != sizeof kReply - 1 || memcmp(buf, kReply, n) != 0) st.SkipWithError("wrong answer");
  }
}

void MgmtBulk(benchmark::State &st, void (*body)(int)) {
  server srv(body);
  size_t want = bulk_wire().size();
  static char buf[1 << 17];
  // One checked answer before timing: the same bytes from both servers.
  {
    std::string all;
    (void)!write(srv.s, "bulk\n", 5);
    while (all.size() < want) {
      ssize_t n = read(srv.s, buf, sizeof buf);
      if (n <= 0) abort();
      all.append(buf, static_cast<size_t>(n));
    }
    if (all != bulk_wire()) st.SkipWithError("wrong answer");
  }
  for (auto _ : st) srv.ask("bulk\n", want, buf, sizeof buf);
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * want));
}

BENCHMARK_CAPTURE(MgmtRoundTrip, ours, ours_server)->UseRealTime();
BENCHMARK_CAPTURE(MgmtRoundTrip, libevent, libevent_server)->UseRealTime();
BENCHMARK_CAPTURE(MgmtRoundTrip, floor, floor_server)->UseRealTime();
BENCHMARK_CAPTURE(MgmtBulk, ours, ours_server)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(MgmtBulk, floor, floor_server)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

TVX_BENCH_PINNED_MAIN()
