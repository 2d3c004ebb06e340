// ipcpeer's command line and --help.
#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

const char ipcpeer_help_text[] =
    "Usage: ipcpeer [OPTIONS] (--server PATH | --client PATH) MODE\n"
    "\n"
    "One end of an IPC message connection, for tests and measurements.\n"
    "MODE is what it does with messages:\n"
    "  echo     sends every message back on the connection it came from\n"
    "  sink     takes messages and checks that their sequence numbers rise\n"
    "  source   sends numbered messages as fast as the connection takes them,\n"
    "           pausing while back-pressure is on\n"
    "\n"
    "Where:\n"
    "  -s, --server PATH        listen on the Unix socket PATH (under TAVOX_ROOT)\n"
    "  -c, --client PATH        connect to the server on PATH, retrying every 2 s\n"
    "  -T, --tcp                PATH is an IPv4 ADDRESS:PORT (a server given port 0\n"
    "                           says the port it got in its listening line)\n"
    "\n"
    "Options:\n"
    "  -e, --events SYSTEM      task (the task kernel, default) or ev (the event library)\n"
    "  -r, --retries N          connect retries: 0, 2, 10, or 1000 for no limit (default)\n"
    "  -b, --bufsize N          read and write buffer bytes, 32 to 65535 (default 65535)\n"
    "      --backpressure N     queue depth that turns back-pressure on (0: never)\n"
    "      --threshold-high N, --threshold-medium N, --threshold-low N\n"
    "                           queue depth that refuses a message of that priority\n"
    "                           (0: no limit, except that a server given\n"
    "                           --threshold-low 0 refuses every low-priority message\n"
    "                           that has to wait)\n"
    "  -k, --keepalive SECONDS  server: close a session whose queue has not moved for\n"
    "                           three such intervals (default 0: never)\n"
    "  -a, --app-id N           the app-id this end identifies itself with (default 1)\n"
    "  -i, --instance N         the instance-id (default 0)\n"
    "  -n, --count N            source: messages to send, then wait for the queue to\n"
    "                           drain and exit (default 0: without end)\n"
    "  -l, --size N             source: payload bytes, at least 8 (default 64)\n"
    "  -p, --priority N         source: 0 low (default), 1 medium, 2 high\n"
    "  -t, --interval MS        source: one message every MS milliseconds\n"
    "                           (default 0: as fast as the connection takes them)\n"
    "  -v, --verbose            a line for every message, and the library's debug\n"
    "                           lines on standard error (its errors are always there)\n"
    "  -h, --help               this text\n"
    "\n"
    "Standard output has a line for each event, flushed at once:\n"
    "  listening PATH | connected | closed | failed\n"
    "  session APP-ID PID connected | session APP-ID PID closed\n"
    "  backpressure on N | backpressure off N      (N: the queue's depth)\n"
    "  received N in order | received N out of order at SEQ   (sink, at each close)\n"
    "  sent N                                      (source, all gone)\n"
    "\n"
    "Exit status: 0 at SIGTERM or SIGINT, or when a source has sent --count;\n"
    "1 when the connection failed for good (retries exhausted) or the socket\n"
    "could not be set up; 2 on a usage error.\n";

namespace {

bool number(const char *text, uint64_t max, uint64_t *out) {
  if (!text || !*text || *text == '-') return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(text, &end, 10);
  if (errno || *end || v > max) return false;
  *out = v;
  return true;
}

}  // namespace

ipcpeer_parse_result ipcpeer_parse(int argc, char **argv, ipcpeer_options *o, std::string *error) {
  enum { OPT_BP = 256, OPT_HIGH, OPT_MED, OPT_LOW };
  static const option longs[] = {
      {"server", required_argument, nullptr, 's'},   {"client", required_argument, nullptr, 'c'},
      {"events", required_argument, nullptr, 'e'},   {"retries", required_argument, nullptr, 'r'},
      {"bufsize", required_argument, nullptr, 'b'},  {"backpressure", required_argument, nullptr, OPT_BP},
      {"threshold-high", required_argument, nullptr, OPT_HIGH},
      {"threshold-medium", required_argument, nullptr, OPT_MED},
      {"threshold-low", required_argument, nullptr, OPT_LOW},
      {"keepalive", required_argument, nullptr, 'k'}, {"app-id", required_argument, nullptr, 'a'},
      {"instance", required_argument, nullptr, 'i'}, {"count", required_argument, nullptr, 'n'},
      {"size", required_argument, nullptr, 'l'},     {"priority", required_argument, nullptr, 'p'},
      {"interval", required_argument, nullptr, 't'},
      {"tcp", no_argument, nullptr, 'T'},
      {"verbose", no_argument, nullptr, 'v'},        {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};
  bool where = false;
  optind = 1;
  opterr = 0;
  int ch;
  while ((ch = getopt_long(argc, argv, ":s:c:e:r:b:k:a:i:n:l:p:t:Tvh", longs, nullptr)) != -1) {
    uint64_t v = 0;
    auto num = [&](uint64_t max, const char *what) {
      if (number(optarg, max, &v)) return true;
      *error = std::string("invalid ") + what + " '" + optarg + "'";
      return false;
    };
    switch (ch) {
      case 's':
      case 'c':
        if (where) {
          *error = "give one of --server and --client, once";
          return IPCPEER_USAGE_ERROR;
        }
        where = true;
        o->role = ch == 's' ? IPCPEER_SERVER : IPCPEER_CLIENT;
        o->path = optarg;
        break;
      case 'e':
        if (strcmp(optarg, "ev") == 0)
          o->use_ev = true;
        else if (strcmp(optarg, "task") == 0)
          o->use_ev = false;
        else {
          *error = std::string("invalid event system '") + optarg + "' (task or ev)";
          return IPCPEER_USAGE_ERROR;
        }
        break;
      case 'r':
        if (!num(1000, "retry count") || (v != 0 && v != 2 && v != 10 && v != 1000)) {
          *error = std::string("invalid retry count '") + optarg + "' (0, 2, 10 or 1000)";
          return IPCPEER_USAGE_ERROR;
        }
        o->retries = static_cast<uint16_t>(v);
        break;
      case 'b':
        if (!num(65535, "buffer size") || v < 32) {
          *error = std::string("invalid buffer size '") + optarg + "' (32 to 65535)";
          return IPCPEER_USAGE_ERROR;
        }
        o->bufsize = static_cast<uint32_t>(v);
        break;
      case OPT_BP:
        if (!num(UINT32_MAX, "back-pressure threshold")) return IPCPEER_USAGE_ERROR;
        o->threshold_backpressure = static_cast<uint32_t>(v);
        break;
      case OPT_HIGH:
        if (!num(UINT32_MAX, "threshold")) return IPCPEER_USAGE_ERROR;
        o->threshold_high = static_cast<uint32_t>(v);
        break;
      case OPT_MED:
        if (!num(UINT32_MAX, "threshold")) return IPCPEER_USAGE_ERROR;
        o->threshold_medium = static_cast<uint32_t>(v);
        break;
      case OPT_LOW:
        if (!num(UINT32_MAX, "threshold")) return IPCPEER_USAGE_ERROR;
        o->threshold_low = static_cast<uint32_t>(v);
        o->threshold_low_set = true;
        break;
      case 'k':
        if (!num(86400, "keep-alive interval")) return IPCPEER_USAGE_ERROR;
        o->keepalive = static_cast<uint32_t>(v);
        break;
      case 'a':
        if (!num(UINT32_MAX, "app-id")) return IPCPEER_USAGE_ERROR;
        o->app_id = static_cast<uint32_t>(v);
        break;
      case 'i':
        if (!num(UINT32_MAX, "instance-id")) return IPCPEER_USAGE_ERROR;
        o->instance_id = static_cast<uint32_t>(v);
        break;
      case 'n':
        if (!num(UINT64_MAX, "count")) return IPCPEER_USAGE_ERROR;
        o->count = v;
        break;
      case 'l':
        if (!num(65535 - 16, "size") || v < 8) {
          *error = std::string("invalid size '") + optarg + "' (8 to 65519)";
          return IPCPEER_USAGE_ERROR;
        }
        o->size = static_cast<uint32_t>(v);
        break;
      case 'p':
        if (!num(2, "priority")) return IPCPEER_USAGE_ERROR;
        o->priority = static_cast<int>(v);
        break;
      case 't':
        if (!num(3600000, "interval")) return IPCPEER_USAGE_ERROR;
        o->interval_ms = static_cast<uint32_t>(v);
        break;
      case 'T':
        o->tcp = true;
        break;
      case 'v':
        o->verbose = true;
        break;
      case 'h':
        return IPCPEER_HELP;
      case ':':
        *error = std::string("option '") + argv[optind - 1] + "' needs a value";
        return IPCPEER_USAGE_ERROR;
      default:
        *error = std::string("unknown option '") + argv[optind - 1] + "'";
        return IPCPEER_USAGE_ERROR;
    }
  }
  if (optind != argc - 1) {
    *error = optind >= argc ? "no mode given (echo, sink or source)" : "one mode only";
    return IPCPEER_USAGE_ERROR;
  }
  const char *m = argv[optind];
  if (strcmp(m, "echo") == 0)
    o->mode = IPCPEER_ECHO;
  else if (strcmp(m, "sink") == 0)
    o->mode = IPCPEER_SINK;
  else if (strcmp(m, "source") == 0)
    o->mode = IPCPEER_SOURCE;
  else {
    *error = std::string("unknown mode '") + m + "' (echo, sink or source)";
    return IPCPEER_USAGE_ERROR;
  }
  if (!where) {
    *error = "give --server PATH or --client PATH";
    return IPCPEER_USAGE_ERROR;
  }
  if (o->tcp) {
    size_t colon = o->path.rfind(':');
    uint64_t port = 0;
    in_addr a{};
    if (colon == std::string::npos || inet_pton(AF_INET, o->path.substr(0, colon).c_str(), &a) != 1 ||
        !number(o->path.c_str() + colon + 1, 65535, &port) || (port == 0 && o->role == IPCPEER_CLIENT)) {
      *error = "invalid TCP address '" + o->path + "' (ADDRESS:PORT)";
      return IPCPEER_USAGE_ERROR;
    }
    o->tcp_addr = a.s_addr;
    o->tcp_port = static_cast<uint16_t>(port);
  }
  if (o->bufsize && o->size + 16 > o->bufsize) {
    *error = "--size plus 16 is larger than --bufsize";
    return IPCPEER_USAGE_ERROR;
  }
  return IPCPEER_RUN;
}
