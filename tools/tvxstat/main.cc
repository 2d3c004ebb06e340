// tvxstat: one interface's statistics as an operator reads them, from the
// route socket (the statistics message of a device or logical interface),
// or for a logical interface with the forwarding plane's figures from cntd
// added (--cntd, through libstats).
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"
#include "show.h"
#include "stats/libstats.h"

namespace {

const char kUsage[] =
    "usage: tvxstat [--json] [--since-up] [--cntd] [-s SOCKET] INTERFACE\n"
    "       tvxstat [--json] [--since-up] [--cntd] [-s SOCKET] --index N [--logical]\n"
    "  INTERFACE     a device (ge-0/0/0) or a logical interface (ge-0/0/0.0)\n"
    "  --index N     the device of index N, or with --logical the logical interface\n"
    "  --since-up    counters since the interface came up (default: since the last clear)\n"
    "  --json        one JSON object instead of the text report\n"
    "  --cntd        a logical interface's counters with the forwarding plane's from cntd added\n"
    "                (cntd's socket: $CNTD_PATH, else /var/run/libstats-cntd under the root)\n"
    "  -s SOCKET     the route-socket peer's path (default $RTSOCK_PATH, else /var/run/rtsock\n"
    "                under the root)\n"
    "Exit status: 0 when the statistics were shown, 1 when the interface is unknown or its\n"
    "statistics cannot be had, 2 on a usage error. See docs/tvxstat.md.\n";

// rtslib's log lines would go to syslog, and its fatal level would exit: the
// command reports its own errors instead.
std::string last_log;
void keep_log(rtslib_cookie *, void *, int, const char *text) { last_log = text; }

int fail(const std::string &why) {
  fprintf(stderr, "tvxstat: %s\n", why.c_str());
  return 1;
}

// The index of a device or logical interface by name.
int resolve(rtslib_cookie *c, const std::string &name, bool *logical, uint32_t *index) {
  size_t dot = name.rfind('.');
  char *end = nullptr;
  unsigned long unit = dot == std::string::npos ? 0 : strtoul(name.c_str() + dot + 1, &end, 10);
  *logical = dot != std::string::npos && dot > 0 && dot + 1 < name.size() && end && *end == 0 && unit <= 0xFFFFFFFF;
  if (*logical) {
    rts_ifl_msg *ifl = nullptr;
    int err = rtslib_iflm_get_by_name(c, name.substr(0, dot).c_str(), static_cast<uint32_t>(unit), RTS_OP_GET, &ifl, 0);
    if (err) return err;
    *index = ifl->iflm_index;
    rtslib_msg_idl_release(c, ifl);
    return 0;
  }
  rts_ifd_msg *ifd = nullptr;
  int err = rtslib_ifdm_get_by_name(c, name.c_str(), RTS_OP_GET, &ifd, 0);
  if (err) return err;
  *index = ifd->ifdm_index;
  rtslib_msg_idl_release(c, ifd);
  return 0;
}

const char *error_text(int err) { return err == -2 ? "answer out of sequence" : strerror(err); }

}  // namespace

int main(int argc, char **argv) {
  tvxstat_view view;
  bool logical = false, by_index = false, cntd = false;
  uint32_t index = 0;
  static const option kLong[] = {{"json", no_argument, nullptr, 'j'},     {"since-up", no_argument, nullptr, 'u'},
                                 {"index", required_argument, nullptr, 'i'}, {"logical", no_argument, nullptr, 'l'},
                                 {"cntd", no_argument, nullptr, 'c'},
                                 {"help", no_argument, nullptr, 'h'},     {nullptr, 0, nullptr, 0}};
  int opt;
  while ((opt = getopt_long(argc, argv, "s:h", kLong, nullptr)) != -1) {
    switch (opt) {
      case 'j': view.json = true; break;
      case 'u': view.abs = true; break;
      case 'l': logical = true; break;
      case 'c': cntd = true; break;
      case 's': setenv("RTSOCK_PATH", optarg, 1); break;
      case 'h': fputs(kUsage, stdout); return 0;
      case 'i': {
        char *end;
        errno = 0;
        unsigned long v = strtoul(optarg, &end, 0);
        if (errno || *end || !*optarg || optarg[0] == '-' || v > 0xFFFFFFFF) {
          fprintf(stderr, "tvxstat: bad index %s\n", optarg);
          return 2;
        }
        index = static_cast<uint32_t>(v);
        by_index = true;
        break;
      }
      default: fputs(kUsage, stderr); return 2;
    }
  }
  int left = argc - optind;
  if (by_index ? left != 0 : left != 1 || logical) {
    fprintf(stderr, "tvxstat: %s\n",
            by_index ? "give an interface or --index, not both"
            : logical ? "--logical goes with --index"
            : left == 0 ? "no interface given" : "one interface at a time");
    fputs(kUsage, stderr);
    return 2;
  }
  std::string name = by_index ? "index " + std::to_string(index) : argv[optind];

  rtslib_set_default_log(keep_log, nullptr);
  const rts_lower_ops *lo = rts_lower();
  int probe = lo->lo_open(lo->lo_ctx);
  if (probe < 0) {
    char path[256];
    return fail(std::string("cannot reach the route-socket peer at ") +
                (rts_peer_path(path, sizeof path) ? path : "?") + ": " + strerror(errno));
  }
  lo->lo_close(lo->lo_ctx, probe);
  rtslib_cookie *c = rtslib_open(134);
  if (!c) return fail("cannot open the route socket" + (last_log.empty() ? "" : ": " + last_log));

  int err = by_index ? 0 : resolve(c, name, &logical, &index);
  if (err) {
    rtslib_close(c);
    return fail(err == ENOENT ? "no interface " + name : "cannot look up " + name + ": " + error_text(err));
  }
  if (cntd && !logical) {
    rtslib_close(c);
    fprintf(stderr, "tvxstat: --cntd takes a logical interface (%s is a device)\n", name.c_str());
    return 2;
  }
  rts_ifstats_msg *st = nullptr;
  int cntd_status = -1;
  libstats_set_log_hook([](int, const char *) {});  // its outcome is told below, in one line
  if (cntd)
    err = libstats_rtslib_iflsm_get_by_index_internal(c, index, LIBSTATS_MERGE_ALWAYS, &st, &cntd_status);
  else
    err = logical ? rtslib_iflsm_get_by_index(c, index, &st) : rtslib_ifdsm_get_by_index(c, index, &st);
  if (err) {
    rtslib_close(c);
    return fail(err == ENOENT ? "no interface " + name + (by_index && !logical ? " (a logical one? add --logical)" : "")
                              : "no statistics for " + name + ": " + error_text(err));
  }
  if (cntd && cntd_status == LIBSTATS_INTERIM_NOT_FOUND)
    fprintf(stderr, "tvxstat: cntd has no figures for %s: the kernel's alone\n", name.c_str());
  else if (cntd && cntd_status != 0)
    fprintf(stderr, "tvxstat: cntd at %s: %s: the kernel's figures alone\n", libstats_cntd_path(),
            libstats_status_str(cntd_status));
  gif_msg msg;
  gif_ifd parsed;
  int status = 0;
  if (gif_ifd_parse(&parsed, &msg, st, st->hdr.length) != 0)
    status = fail("the statistics of " + name + " do not read: malformed message");
  else if (!tvxstat_show(stdout, &parsed, view))
    status = fail("out of memory");
  if (cntd)
    libstats_iflsm_free(st);
  else
    rtslib_msg_idl_release(c, st);
  rtslib_close(c);
  if (fflush(stdout) != 0) return fail(std::string("cannot write: ") + strerror(errno));
  return status;
}
