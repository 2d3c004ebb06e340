// ping-overlay: the overlay ping. Sends VXLAN OAM echo requests built by the
// OAM library to a remote VTEP and reports its replies, in the manner of ping.
//
// One thread, one poll loop: replies are read from a raw UDP socket that
// sees a copy of every datagram to port 4789, so that runs side by side each
// see their own; the UDP socket bound to this VTEP's port 4789 keeps them
// from being refused and is only drained. A raw ICMP socket takes errors
// about our probes. Sending times and waits come from the monotonic clock.
#include <arpa/inet.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "options.h"
#include "report.h"
#include "tracker.h"

namespace {

constexpr int kLocalTimeoutMs = 5000;  // the responder answers from its tables at once
volatile sig_atomic_t stop_requested;

[[noreturn]] void fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void fail(const char *fmt, ...) {
  fflush(stdout);
  fputs("ping-overlay: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fputc('\n', stderr);
  exit(2);
}

int64_t now_us() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void on_signal(int) { stop_requested = 1; }

// The library's set-up exits with -2 and a bare message; the usual reason,
// missing privilege, gets the command's own clear line first.
void check_privilege() {
  int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
  if (fd < 0 && (errno == EPERM || errno == EACCES))
    fail("raw sockets need root (or CAP_NET_RAW): %s", strerror(errno));
  if (fd >= 0) close(fd);
}

// The source the kernel would pick toward dst; fails with "no route".
in_addr route_source(in_addr dst) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(OAM_PORT);
  sin.sin_addr = dst;
  char d[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &dst, d, sizeof d);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0)
    fail("no route to %s: %s", d, strerror(errno));
  socklen_t len = sizeof sin;
  getsockname(fd, reinterpret_cast<sockaddr *>(&sin), &len);
  close(fd);
  return sin.sin_addr;
}

uint32_t ask_local_responder(const po_options &o) {
  uint32_t bd = 0;
  int e = oam_local_lookup(o.vni, o.tunnel_dst, kLocalTimeoutMs, &bd);
  if (e == ENOENT || e == ECONNREFUSED)
    fail("the local responder tunechod is not running (nothing accepts on %s)", OAM_LOCAL_PATH);
  if (e == ETIMEDOUT) fail("the local responder tunechod did not answer within %d s", kLocalTimeoutMs / 1000);
  if (e) fail("cannot ask the local responder tunechod: %s", strerror(e));
  if (bd == 0 && !o.json) {
    char d[INET_ADDRSTRLEN];
    fflush(stdout);
    fprintf(stderr, "ping-overlay: warning: VNI %u has no bridge domain toward %s on this VTEP; probing anyway\n", o.vni,
            inet_ntop(AF_INET, &o.tunnel_dst, d, sizeof d));
  }
  return bd;
}

// Replies come to this VTEP's port 4789. Bound to the tunnel source, this
// socket wins over a local responder bound to the wildcard address, which
// would otherwise take them for malformed requests. Where the port is held
// without sharing (a Linux VTEP's own VXLAN device, which drops the replies
// as it drops any unknown VXLAN flag), the raw socket reads them alone: -1.
int reply_socket(in_addr src) {
  int fd = ping_recv_socket_v4();
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(OAM_PORT);
  sin.sin_addr = src;
  if (bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) < 0) {
    if (errno == EADDRINUSE) {
      close(fd);
      return -1;
    }
    char s[INET_ADDRSTRLEN];
    fail("cannot receive replies on %s port %d: %s", inet_ntop(AF_INET, &src, s, sizeof s), OAM_PORT,
         strerror(errno));
  }
  return fd;
}

struct session {
  const po_options &opt;
  po_report rep;
  ping_probe &pp;
  po_tracker tracker;
  int send_fd, reply_fd, raw_fd, icmp_fd;

  void send_probe() {
    pp.pp_seq = tracker.sent(now_us());
    probe_build(&pp, pp.pp_tunnel_dst, opt.ttl, !opt.inner_ipv6);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = pp.pp_tunnel_dst;
    ssize_t n = sendto(send_fd, pp.pp_buf, pp.pp_len, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (n != pp.pp_len) {
      char what[160];
      snprintf(what, sizeof what, "send failed: %s", n < 0 ? strerror(errno) : "short write");
      tracker.error(pp.pp_seq);
      po_print_error(rep, pp.pp_seq, pp.pp_tunnel_src, what);
      return;
    }
    po_print_sent(rep, pp);
  }

  void read_reply() {
    uint8_t buf[2048];
    ssize_t n = recv(raw_fd, buf, sizeof buf, MSG_DONTWAIT);
    in_addr from;
    const uint8_t *payload;
    size_t len;
    ping_reply r;
    // Requests to this VTEP and other traffic on the port are not ours.
    if (n <= 0 || !ping_udp_payload(buf, static_cast<size_t>(n), pp.pp_tunnel_src, &from, &payload, &len) ||
        !ping_reply_parse(payload, len, &r) || r.pr_type != 2)
      return;
    int64_t rtt = -1;
    po_verdict v = tracker.reply(r.pr_handle, r.pr_seq, r.pr_return_code, now_us(), &rtt);
    po_print_reply(rep, v, r, from, static_cast<size_t>(n), rtt);
  }

  void drain() {
    uint8_t buf[2048];
    if (reply_fd >= 0) (void)recv(reply_fd, buf, sizeof buf, MSG_DONTWAIT);
  }

  // An ICMP error quotes our probe (Linux quotes up to 576 bytes, enough
  // for its handle and sequence).
  void read_icmp() {
    uint8_t buf[1500], type, code;
    sockaddr_in from{};
    socklen_t flen = sizeof from;
    ssize_t n = recvfrom(icmp_fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &flen);
    ping_reply r;
    if (n <= 0 || !ping_icmp_parse(buf, static_cast<size_t>(n), pp.pp_tunnel_src, &type, &code, &r) ||
        r.pr_type != 1 || r.pr_handle != tracker.handle() || !tracker.error(r.pr_seq))
      return;
    const char *what = type == ICMP_TIME_EXCEEDED ? "Time to live exceeded"
                       : code == ICMP_PORT_UNREACH ? "Destination Port Unreachable (no responder)"
                       : code == ICMP_HOST_UNREACH ? "Destination Host Unreachable"
                       : code == ICMP_NET_UNREACH  ? "Destination Net Unreachable"
                                                   : "Destination Unreachable";
    po_print_error(rep, r.pr_seq, from.sin_addr, what);
  }

  void run() {
    const int64_t start = now_us(), interval = opt.interval_ms * 1000;
    int64_t next_send = start;
    long sent = 0;
    while (!stop_requested) {
      int64_t now = now_us();
      bool more = opt.count == 0 || sent < opt.count;
      if (more && now >= next_send) {
        send_probe();
        sent++;
        next_send += interval;
        continue;
      }
      for (uint32_t seq : tracker.expire(now)) po_print_timeout(rep, seq);
      int64_t deadline = tracker.next_deadline();
      if (!more && deadline < 0) break;
      int64_t until = more ? next_send : deadline;
      if (deadline >= 0 && deadline < until) until = deadline;
      int timeout = until > now ? static_cast<int>((until - now + 999) / 1000) : 0;
      pollfd fds[3] = {{raw_fd, POLLIN, 0}, {icmp_fd, POLLIN, 0}, {reply_fd, POLLIN, 0}};
      if (poll(fds, 3, timeout) > 0) {
        if (fds[0].revents & POLLIN) read_reply();
        if (fds[1].revents & POLLIN) read_icmp();
        if (fds[2].revents & POLLIN) drain();
      }
    }
    po_print_summary(rep, tracker.stats(), now_us() - start);
  }
};

}  // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);  // one line at a time, also into a pipe
  po_options opt;
  std::string error;
  switch (po_parse(argc, argv, &opt, &error)) {
    case PO_HELP:
      fputs(po_help_text, stdout);
      return 0;
    case PO_USAGE_ERROR:
      fprintf(stderr, "ping-overlay: %s\nTry 'ping-overlay --help'.\n", error.c_str());
      return 2;
    case PO_RUN:
      break;
  }
  signal(SIGPIPE, SIG_IGN);  // a responder that hangs up early is an error, not death
  check_privilege();
  in_addr route_src = route_source(opt.tunnel_dst);
  if (!opt.tunnel_src_set) opt.tunnel_src = route_src;
  uint32_t bd = ask_local_responder(opt);

  ping_probe pp{};
  po_fill_probe(opt, &pp);
  int send_fd = ping_send_socket_v4();
  int raw_fd = ping_reply_socket_raw();
  int reply_fd = reply_socket(opt.tunnel_src);
  int icmp_fd = ping_icmp_socket();

  struct sigaction sa{};
  sa.sa_handler = on_signal;  // no SA_RESTART: the wait ends at once
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  po_report rep{stdout, &opt};
  if (!opt.json) hash_params_warn(opt.hash_have, HASH_NEEDED, opt.target != PING_TARGET_MAC);
  pp.pp_len = opt.inner_ipv6 ? 168 : 148;
  po_print_header(rep, pp, bd);
  session s{opt, rep, pp, po_tracker(pp.pp_handle, opt.wait_ms * 1000), send_fd, reply_fd, raw_fd, icmp_fd};
  s.run();
  return s.tracker.stats().received ? 0 : 1;
}
