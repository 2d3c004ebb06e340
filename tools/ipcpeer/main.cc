// ipcpeer: one end of an IPC message connection (echo, sink or source;
// client or server; on the task kernel or the event library), for system
// tests and measurements. Events go to standard output a line each.
#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "evlog/evlog.h"
#include "ipc/ev.h"
#include "ipc/ipcconn.h"
#include "ipc/ipcconn_server.h"
#include "options.h"
#include "task/process.h"
#include "task/sched.h"
#include "task/task.h"
#include "task/timer.h"

namespace {

enum { SUBTYPE_DATA = 1, PUMP_BATCH = 256 };
constexpr uint32_t kWaitUs = 10000;  // between looks at a queue that must drain

ipcpeer_options opt;
__evContext ev{};
task *app = nullptr;
ipcconn_client *client = nullptr;
ipcconn_server *server = nullptr;
std::vector<ipcconn_session *> sessions;  // identified, for a server's source

void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprintf(fmt, ap);
  va_end(ap);
  putchar('\n');
  fflush(stdout);
}

[[noreturn]] void finish(int status) {
  if (client) ipcconn_client_close(client);
  if (server) ipcconn_server_shutdown(server);
  fflush(stdout);
  exit(status);
}

// ---- The sink's check ------------------------------------------------------------
// Per connection the numbers rise by one; a new connection may start anywhere
// (a restarted client drops what it had queued).
struct Tally {
  uint64_t count = 0, last = 0, bad_at = 0;
  bool bad = false;
};
Tally client_tally;
std::unordered_map<ipcconn_session *, Tally> session_tallies;

void count(Tally *t, const ipc_msg *m) {
  uint64_t seq = 0;
  if (m->length >= sizeof seq) memcpy(&seq, reinterpret_cast<const uint8_t *>(m) + IPC_MSG_HDR_LEN, sizeof seq);
  if (t->count > 0 && seq != t->last + 1 && !t->bad) {
    t->bad = true;
    t->bad_at = seq;
  }
  t->last = seq;
  t->count++;
  if (opt.verbose) say("message %u %u seq %llu", m->subtype, m->length, static_cast<unsigned long long>(seq));
}
void report(Tally *t) {
  if (opt.mode != IPCPEER_SINK) return;
  if (t->bad)
    say("received %llu out of order at %llu", static_cast<unsigned long long>(t->count),
        static_cast<unsigned long long>(t->bad_at));
  else
    say("received %llu in order", static_cast<unsigned long long>(t->count));
  *t = Tally{};
}

// ---- The source's pump -------------------------------------------------------------
uint64_t next_seq = 0;
bool paused = false, pump_due = false;

void pump();
void later(uint32_t us);

void ev_fire(__evContext, void *, timespec, timespec) {
  pump_due = false;
  pump();
}
void t_fire(task_timer *tip, uint32_t) {
  task_timer_delete(tip);
  pump_due = false;
  pump();
}
void later(uint32_t us) {
  if (pump_due) return;
  pump_due = true;
  if (opt.use_ev) {
    __evTimerID id;
    __evSetTimer(ev, ev_fire, nullptr, __evAddTime(__evNowTime(), __evConsTime(us / 1000000, (us % 1000000) * 1000L)),
                 __evConsTime(0, 0), &id);
  } else {
    task_utime off{us / 1000000, us % 1000000};
    if (us == 0) off.ut_usec = 1;  // an offset of 0 would start nothing
    task_timer_ucreate(app, "pump", 0, nullptr, &off, 0, t_fire, nullptr);
  }
}

uint32_t depth() {
  if (client) return client->counters.current_depth;
  uint32_t d = 0;
  for (ipcconn_session *s : sessions) d += s->counters.current_depth;
  return d;
}

bool connected = false;

// One message: 0 sent or queued, 1 refused for now, -1 not possible now.
int send_one(const std::vector<uint8_t> &buf) {
  uint32_t n = static_cast<uint32_t>(buf.size());
  int rc;
  if (client) {
    rc = ipcconn_client_send(client, SUBTYPE_DATA, buf.data(), n, opt.priority);
  } else {
    if (sessions.empty()) return -1;
    rc = ipcconn_server_send(sessions[next_seq % sessions.size()], SUBTYPE_DATA, buf.data(), n, opt.priority);
  }
  if (rc == 0) return 0;
  if (rc == IPCCONN_ERR_BACKPRESSURE) {
    paused = true;
    say("backpressure on %u", depth());
    return 0;
  }
  if (rc == IPCCONN_ERR_THRESHOLD) return 1;
  return -1;
}

void pump() {
  if (opt.mode != IPCPEER_SOURCE || !connected || paused) return;
  std::vector<uint8_t> buf(opt.size, 0x5A);
  for (int i = 0; i < PUMP_BATCH; i++) {
    if (opt.count && next_seq >= opt.count) {
      if (depth() == 0) {
        say("sent %llu", static_cast<unsigned long long>(next_seq));
        finish(0);
      }
      return later(kWaitUs);
    }
    memcpy(buf.data(), &next_seq, sizeof next_seq);
    int rc = send_one(buf);
    if (rc < 0) return;
    if (rc > 0) return later(kWaitUs);
    next_seq++;
    if (paused) return;
    if (opt.interval_ms) return later(opt.interval_ms * 1000);
  }
  later(0);
}

void pressure(uint32_t d, bool on) {
  say("backpressure %s %u", on ? "on" : "off", d);
  paused = on;
  if (!on) later(0);
}

// ---- The client ---------------------------------------------------------------------
void on_client_event(ipcconn_client *c, int event, void *) {
  switch (event) {
    case IPCCONN_EVENT_CONNECTED:
      say("connected");
      connected = true;
      paused = false;
      later(0);
      break;
    case IPCCONN_EVENT_CLOSED:
      say("closed");
      report(&client_tally);
      connected = false;
      paused = false;
      break;
    case IPCCONN_EVENT_FAILED:
      say("failed");
      client = nullptr;  // the library closes it
      fflush(stdout);
      exit(1);
    case IPCCONN_EVENT_BACKPRESSURE:
      pressure(c->counters.current_depth, c->backpressure);
      break;
  }
}
int on_client_msg(ipcconn_client *c, uint8_t *, uint32_t, ipc_msg *m, void *) {
  count(&client_tally, m);
  if (opt.mode == IPCPEER_ECHO) ipcconn_client_send(c, m->subtype, ipc_msg_payload(m), m->length, opt.priority);
  return 0;
}

// ---- The server ------------------------------------------------------------------------
void on_session_event(ipcconn_session *s, uint32_t app_id, uint32_t pid, int event, void *) {
  switch (event) {
    case IPCCONN_EVENT_CONNECTED:
      say("session %u %u connected", app_id, pid);
      sessions.push_back(s);
      connected = true;
      later(0);
      break;
    case IPCCONN_EVENT_CLOSED:
      say("session %u %u closed", app_id, pid);
      report(&session_tallies[s]);
      session_tallies.erase(s);
      for (size_t i = 0; i < sessions.size(); i++)
        if (sessions[i] == s) sessions.erase(sessions.begin() + static_cast<long>(i));
      connected = !sessions.empty();
      break;
    case IPCCONN_EVENT_BACKPRESSURE:
      pressure(s->counters.current_depth, s->backpressure);
      break;
  }
}
int on_session_msg(ipcconn_session *s, uint8_t *, uint32_t, ipc_msg *m, void *) {
  count(&session_tallies[s], m);
  if (opt.mode == IPCPEER_ECHO) ipcconn_server_send(s, m->subtype, ipc_msg_payload(m), m->length, opt.priority);
  return 0;
}

// The library's error lines once running (a failed start says it in one
// line of its own), its debug lines with --verbose.
bool running = false;
void log_line(int level, const char *line) {
  if ((level == IPCCONN_LOG_ERROR && running) || opt.verbose) fprintf(stderr, "ipcpeer: %s\n", line);
}

void on_term(int) {
  if (client && connected) report(&client_tally);
  finish(0);
}

}  // namespace

int main(int argc, char **argv) {
  std::string error;
  switch (ipcpeer_parse(argc, argv, &opt, &error)) {
    case IPCPEER_HELP:
      fputs(ipcpeer_help_text, stdout);
      return 0;
    case IPCPEER_USAGE_ERROR:
      fprintf(stderr, "ipcpeer: %s (--help for usage)\n", error.c_str());
      return 2;
    case IPCPEER_RUN:
      break;
  }
  task_set_daemon_name(argv[0]);
  logging_set_mode(LOGGING_MODE_STDERR);
  ipcconn_set_log_hook(log_line);
  task_kernel_init();
  app = task_alloc("ipcpeer", 10, nullptr);
  task_create(app);
  task_signal_enable(SIGTERM, on_term);
  task_signal_enable(SIGINT, on_term);
  if (opt.use_ev && __evCreate(&ev) < 0) {
    fprintf(stderr, "ipcpeer: cannot create the event context: %s\n", strerror(errno));
    return 1;
  }
  if (opt.role == IPCPEER_CLIENT) {
    ipcconn_client_params p{};
    if (opt.use_ev)
      p.ev_context = ev;
    else
      p.ptask = app;
    p.peer_path = opt.path.c_str();
    p.event_cb = on_client_event;
    p.msg_cb = on_client_msg;
    p.app_id = opt.app_id;
    p.pid = static_cast<uint32_t>(getpid());
    p.instance_id = opt.instance_id;
    p.max_retries = opt.retries;
    p.bufsize = opt.bufsize;
    p.threshold_high = opt.threshold_high;
    p.threshold_medium = opt.threshold_medium;
    p.threshold_low = opt.threshold_low;
    p.threshold_backpressure = opt.threshold_backpressure;
    p.tcp_addr = opt.tcp_addr;
    p.tcp_port = opt.tcp_port;
    client = opt.tcp ? ipcconn_tcp_client_create(&p) : ipcconn_uds_client_connect(&p);
    if (!client) {
      fprintf(stderr, "ipcpeer: cannot connect to %s\n", opt.path.c_str());
      return 1;
    }
  } else {
    ipcconn_server_params p{};
    if (opt.use_ev)
      p.ev_context = ev;
    else
      p.ptask = app;
    p.malloc_fn = malloc;
    p.free_fn = free;
    p.path = opt.path.c_str();
    p.event_cb = on_session_event;
    p.msg_cb = on_session_msg;
    p.app_id = opt.app_id;
    p.pid = static_cast<uint32_t>(getpid());
    p.bufsize = opt.bufsize;
    p.keepalive_sec = opt.keepalive;
    p.threshold_high = opt.threshold_high;
    p.threshold_medium = opt.threshold_medium;
    // The library's server refuses every waiting low-priority message at 0:
    // here that takes an explicit --threshold-low 0.
    p.threshold_low = opt.threshold_low_set ? opt.threshold_low : UINT32_MAX;
    p.threshold_backpressure = opt.threshold_backpressure;
    p.tcp_addr = opt.tcp_addr;
    p.tcp_port = opt.tcp_port;
    server = opt.tcp ? ipcconn_tcp_server_create(&p) : ipcconn_uds_server_create(&p);
    if (!server) {
      fprintf(stderr, "ipcpeer: cannot listen on %s: %s\n", opt.path.c_str(), strerror(errno));
      return 1;
    }
    if (opt.tcp) {
      char text[INET_ADDRSTRLEN];
      auto *a = reinterpret_cast<const sockaddr_in *>(&server->addr);
      inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
      say("listening %s:%u", text, ntohs(a->sin_port));
    } else {
      say("listening %s", opt.path.c_str());
    }
  }
  running = true;
  task_scheduler();
}
