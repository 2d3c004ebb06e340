// rtsock_watch: rtslib's asynchronous events in a program with its own loop
// (poll), through the external-loop mode. It listens for the message types
// asked for, optionally hands the peer a filter, and prints each
// notification as one line: the operation, then the library's text dump.
//
//   rtsock_watch -t bd -f 'bd->vnid >= 200'
//   add Bridge Domain bd-300, index 12, flags 0, ...
//
// It talks to the route-socket peer at $RTSOCK_PATH, else /var/run/rtsock
// under the path root.
#include <getopt.h>
#include <poll.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rtsock/rts_filter.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib_async.h"

namespace {

const char kUsage[] =
    "usage: rtsock_watch [-t TYPES] [-f FILTER] [-n COUNT]\n"
    "Prints each route-socket notification of the types asked for, one line each:\n"
    "the operation, then the message as the library dumps it.\n"
    "  -t TYPES   comma-separated: bd, ifd, ifl, iff, ifa, route, rttable, gencfg (default bd)\n"
    "  -f FILTER  a filter expression (docs/rtsock.md); the peer then sends only what matches\n"
    "  -n COUNT   exit after COUNT notifications\n"
    "The route-socket peer is $RTSOCK_PATH, else /var/run/rtsock under $TAVOX_ROOT.\n"
    "Exit status: 0 on SIGTERM, SIGINT or after COUNT lines; 1 when the peer cannot be\n"
    "reached or refuses; 2 on a usage error or a filter that does not compile.\n";

volatile sig_atomic_t stop;
long left = -1;  // notifications still to print, -1 for no limit

// The one selection this program's loop keeps.
struct Loop {
  int fd = -1;
  void (*reader)(void *) = nullptr;
  void *arg = nullptr;
} loop;

int ext_select(void *, int fd, int, void (*reader)(void *), void *arg, void **id) {
  loop = Loop{fd, reader, arg};
  *id = &loop;
  return 0;
}
int ext_deselect(void *, void *) {
  loop = Loop{};
  return 0;
}
const rtslib_async_dispatch kDispatch = {ext_select, ext_deselect, nullptr};

void print(rtslib_cookie *c, void *, void *msg) {
  char line[512];
  rtslib_format_output(line, sizeof line, msg);
  printf("%s %s\n", rts_op_name(static_cast<rts_msg_hdr *>(msg)->operation), line);
  rtslib_msg_idl_release(c, msg);
  if (left > 0 && --left == 0) stop = 1;
}

// Until the handle is open this program says what failed itself, in one line.
bool opened;
void quiet_log(rtslib_cookie *, void *, int level, const char *text) {
  if (opened && level >= RTSLIB_LOG_ERROR) fprintf(stderr, "rtsock_watch: %s\n", text);
}

void on_signal(int) { stop = 1; }

struct Kind {
  const char *name;
  int (*reg)(rtslib_cookie *, void *, rtslib_async_fn);
};
const Kind kTypes[] = {{"bd", rtslib_bd_async_register},       {"ifd", rtslib_ifdm_async_register},
                      {"ifl", rtslib_iflm_async_register},    {"iff", rtslib_iffm_async_register},
                      {"route", rtslib_rtm_async_register},   {"rttable", rtslib_rtbm_async_register},
                      {"gencfg", rtslib_gencfg_async_register}};

bool known(const std::string &t) {
  for (auto &k : kTypes)
    if (t == k.name) return true;
  return t == "ifa";
}

int add_type(rtslib_cookie *c, const std::string &t) {
  if (t == "ifa") return rtslib_ifam_async_register(c, 1, nullptr, print);
  for (auto &k : kTypes)
    if (t == k.name) return k.reg(c, nullptr, print);
  return EINVAL;
}

}  // namespace

int main(int argc, char **argv) {
  std::string types = "bd";
  const char *filter = nullptr;
  static const option kLong[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
  int o;
  while ((o = getopt_long(argc, argv, "t:f:n:h", kLong, nullptr)) != -1) {
    switch (o) {
      case 't': types = optarg; break;
      case 'f': filter = optarg; break;
      case 'n': {
        char *end;
        left = strtol(optarg, &end, 10);
        if (*end || left <= 0) {
          fprintf(stderr, "rtsock_watch: -n wants a positive count, not '%s'\n%s", optarg, kUsage);
          return 2;
        }
        break;
      }
      case 'h': fputs(kUsage, stdout); return 0;
      default: fputs(kUsage, stderr); return 2;
    }
  }
  if (optind < argc) {
    fprintf(stderr, "rtsock_watch: unexpected argument '%s'\n%s", argv[optind], kUsage);
    return 2;
  }
  std::vector<std::string> names;
  for (size_t at = 0;;) {
    size_t comma = types.find(',', at);
    names.push_back(types.substr(at, comma == std::string::npos ? std::string::npos : comma - at));
    if (!known(names.back())) {
      fprintf(stderr, "rtsock_watch: unknown type '%s'\n%s", names.back().c_str(), kUsage);
      return 2;
    }
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  uint8_t program[RTS_FILTER_MAX];
  if (filter) {
    rts_filter_error err;
    if (rts_filter_compile(filter, strlen(filter), program, sizeof program, &err) != 0) {
      fprintf(stderr, "rtsock_watch: filter, column %u: %s\n", err.column, err.message);
      return 2;
    }
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  rtslib_set_default_log(quiet_log, nullptr);
  rtslib_cookie *c = rtslib_open(132);
  if (!c) {
    char path[256];
    fprintf(stderr, "rtsock_watch: cannot reach the route-socket peer at %s\n",
            rts_peer_path(path, sizeof path) ? path : "?");
    return 1;
  }
  opened = true;
  int rc = 1;
  if (rtslib_set_async_context(c, __evContext{nullptr}) != 0 || rtslib_set_async_dispatch(c, &kDispatch) != 0 ||
      rtslib_set_async_mode(c, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_EXTERNAL) != 0) {
    fprintf(stderr, "rtsock_watch: the peer refused the asynchronous mode\n");
    rtslib_close(c);
    return 1;
  }
  for (const std::string &t : names) {
    if (int r = add_type(c, t)) {
      fprintf(stderr, "rtsock_watch: cannot listen for %s: %s\n", t.c_str(), strerror(r > 0 ? r : errno));
      rtslib_close(c);
      return 1;
    }
  }
  if (filter && (rc = rtslib_async_register_filters(c, program)) != 0) {
    fprintf(stderr, "rtsock_watch: the peer refused the filter: %s\n", strerror(rc));
    rtslib_close(c);
    return 1;
  }
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  // Ready: what a script waits for before it makes changes.
  fprintf(stderr, "rtsock_watch: listening\n");
  rc = 0;
  while (!stop) {
    pollfd p{loop.fd, POLLIN, 0};
    int n = poll(&p, 1, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n > 0 && (p.revents & POLLIN)) loop.reader(loop.arg);
    if (n < 0 || (p.revents & (POLLHUP | POLLERR))) {
      fprintf(stderr, "rtsock_watch: the peer has gone\n");
      rc = 1;
      break;
    }
  }
  rtslib_close(c);
  return rc;
}
