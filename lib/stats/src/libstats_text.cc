// libstats' tables of names: status codes, statistics kinds, error classes,
// request kinds, the application table; and the session's report.
#include <cstdio>
#include <cstring>
#include <string>

#include "stats/libstats.h"

namespace {
const char *const kStatus[LIBSTATS_STATUS_COUNT] = {
    "no-error", "unknown-error", "null-session-pointer", "database-operation-failed", "socket-connect-failure",
    "socket-opened-successfully", "socket-conection-closed", "socket-ipc-failure", "invalid-arg",
    "invalid-callback", "interim-or-baseline-stats-not-found", "final-stats-not-found", "filter-not-found",
    "memory-alloc-failure", "stats-request-send-timedout"};
const char *const kKinds[LIBSTATS_KIND_COUNT] = {
    "Full Stats", "Full Stats Other", "Subscriber Baseline", "Subscriber Interim", "Subscriber Final",
    "Subscriber Immediate", "Subscriber Threshold", "Subscriber Other", "Service Interim", "Service Final",
    "Service Immediate", "Service Threshold", "Service Other", "IFLSET Full Stats", "mcast single group",
    "mcast intf group", "mcast proto cont stats", "mcast proto aggr stats", "mcast proto intf stats",
    "mcast proto global stats", "mcast clear member all", "mcast clear member intf", "mcast clear member group",
    "mcast clear stats all", "mcast clear stats intf"};
const char *const kClasses[LIBSTATS_ERR_CLASS_COUNT] = {"   General Error", "   Kernel Error", "   Memory Error",
                                                         "   IPC Error", "   Validation Error",
                                                         "   DB Lookup Error", "   PFE Error"};
const char *const kReqs[4] = {"Subscriber Interim", "Subscriber Delete", "Service Interim", "Service Delete"};

// The daemons and tools of this system that may ask cntd.
const char *const kApps[] = {"tunechod", "rtsockd", "fdblearnd", "cntd", "tvxstat", "ping-overlay", "ipcpeer",
                             "zsmd", "dupd", "tvxmm", "mmstorm", "krt_bd_watch", "task_example", "tvxinfo",
                             "bench_stats"};
}  // namespace

const char *libstats_status_str(int s) {
  return s >= 0 && s < LIBSTATS_STATUS_COUNT ? kStatus[s] : "INVALID-ERROR";
}
const char *libstats_stats_type_str(int k) {
  return k >= 0 && k < LIBSTATS_KIND_COUNT ? kKinds[k] : "INVALID-STATS-TYPE";
}
const char *libstats_error_type_str(int c) {
  return c >= 0 && c < LIBSTATS_ERR_CLASS_COUNT ? kClasses[c] : "   INVALID-STATS-ERROR-TYPE";
}
const char *libstats_cntd_req_type_str(int r) { return r >= 0 && r < 4 ? kReqs[r] : "INVALID-STATS-CNTD-REQ-TYPE"; }

uint32_t libstats_app_index(const char *name) {
  constexpr uint32_t n = sizeof kApps / sizeof kApps[0];
  for (uint32_t i = 0; name && i < n; i++)
    if (strcmp(name, kApps[i]) == 0) return i + 1;
  return n + 1;
}

int libstats_report(const libstats_session *s, char *buf, int len) {
  if (!s) return 0;
  std::string out;
  char line[160];
  const libstats_counters &c = s->counters;
  snprintf(line, sizeof line, "libstats session %s (app-id %u): %s\n", s->app_name, s->app_index,
           s->ipcconn_client_active ? "connected" : "not connected");
  out += line;
  snprintf(line, sizeof line, "  sends %llu, send failures %llu, back-pressure %llu, unknown %llu, dropped %llu\n",
           static_cast<unsigned long long>(c.sends), static_cast<unsigned long long>(c.send_failures),
           static_cast<unsigned long long>(c.backpressure), static_cast<unsigned long long>(c.unknown),
           static_cast<unsigned long long>(c.dropped));
  out += line;
  snprintf(line, sizeof line, "  empty replies %llu, failed replies %llu\n",
           static_cast<unsigned long long>(c.empty_replies), static_cast<unsigned long long>(c.failed_replies));
  out += line;
  for (int t = 0; t < LIBSTATS_TYPE_SLOTS; t++)
    if (c.requests[t] || c.replies[t]) {
      snprintf(line, sizeof line, "  type %d: requests %llu, replies %llu\n", t,
               static_cast<unsigned long long>(c.requests[t]), static_cast<unsigned long long>(c.replies[t]));
      out += line;
    }
  for (int t = 0; t < LIBSTATS_KIND_COUNT; t++)
    for (int k = 0; k < LIBSTATS_ERR_CLASS_COUNT; k++)
      if (c.errors[t][k]) {
        snprintf(line, sizeof line, "libstats_error %s: %5d-%s\n", libstats_error_type_str(k),
                 static_cast<int>(c.errors[t][k]), libstats_stats_type_str(t));
        out += line;
      }
  if (buf && len > 0) snprintf(buf, static_cast<size_t>(len), "%s", out.c_str());
  return static_cast<int>(out.size());
}
