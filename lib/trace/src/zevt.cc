// Event systems: creation with its checks, look-up, the "SYSTEM:EVENTS"
// syntax and the trace-events configuration.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "internal.h"
#include "trace/zevt.h"

namespace {

zevt_system *systems = nullptr;

void say(char *errbuf, size_t errlen, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void say(char *errbuf, size_t errlen, const char *fmt, ...) {
  if (!errbuf || !errlen) return;
  va_list ap;
  va_start(ap, fmt);
  ZTRACE_VSNPRINTF(errbuf, errlen, fmt, ap);
  va_end(ap);
}

struct event_range {
  zevt_system *sys;
  unsigned start, end;
  uint32_t set, clear;
};

// "1,3-5,7" against the system's events.
bool parse_ranges(zevt_system *sys, const char *names, uint32_t set, uint32_t clear, std::vector<event_range> &out,
                  char *errbuf, size_t errlen) {
  std::string s(names);
  size_t pos = 0;
  while (pos <= s.size()) {
    size_t comma = s.find(',', pos);
    if (comma == std::string::npos) comma = s.size();
    const std::string piece = s.substr(pos, comma - pos);
    pos = comma + 1;
    char *end;
    long a = strtol(piece.c_str(), &end, 10), b = a;
    bool ok = !piece.empty() && end != piece.c_str();
    if (ok && *end == '-') {
      const char *second = end + 1;
      b = strtol(second, &end, 10);
      ok = end != second;
    }
    ok = ok && *end == '\0';
    if (!ok || a < 1 || b < a || b > static_cast<long>(sys->zs_count)) {
      say(errbuf, errlen, " error: start %d, end %d max %d num %d\n", static_cast<int>(ok ? a : -1),
          static_cast<int>(ok ? b : -1), static_cast<int>(sys->zs_count), static_cast<int>(out.size() + 1));
      return false;
    }
    out.push_back({sys, static_cast<unsigned>(a), static_cast<unsigned>(b), set, clear});
    if (comma == s.size()) break;
  }
  return true;
}

bool action_bits(const char *action, uint32_t *set, uint32_t *clear) {
  if (strcmp(action, "disable") == 0) {
    *set = 0;
    *clear = ZEVT_ACT_MEMTRACE | ZEVT_ACT_BT;
  } else if (strcmp(action, "memtrace") == 0) {
    *set = ZEVT_ACT_MEMTRACE;
    *clear = ZEVT_ACT_BT;
  } else if (strcmp(action, "memtrace-bt") == 0) {
    *set = ZEVT_ACT_MEMTRACE | ZEVT_ACT_BT;
    *clear = 0;
  } else {
    return false;
  }
  return true;
}

void apply(const std::vector<event_range> &ranges) {
  for (const event_range &r : ranges)
    for (unsigned n = r.start; n <= r.end; n++) {
      uint32_t &w = r.sys->zs_events[n].ze_action;
      w = (w & ~r.clear) | r.set;
    }
}

}  // namespace

int zevt_system_create(const zevt_system_desc *d, char *errbuf, size_t errlen) {
  if (!d) return say(errbuf, errlen, "Event system null"), -1;
  if (!d->zsd_name) return say(errbuf, errlen, "Event name is null"), -1;
  if (strlen(d->zsd_name) > ZEVT_NAME_MAX) return say(errbuf, errlen, "Event system name exceeds limit "), -1;
  if (!d->zsd_title) return say(errbuf, errlen, "Event description is null"), -1;
  if (strlen(d->zsd_title) > ZEVT_NAME_MAX) return say(errbuf, errlen, "Event system title exceeds limit "), -1;
  if (zevt_system_find(d->zsd_name, nullptr, 0))
    return say(errbuf, errlen, "Event system %s already exist !", d->zsd_name), -1;
  if (!d->zsd_events) return say(errbuf, errlen, "Event system, event desc table null"), -1;
  if (d->zsd_count > ZEVT_EVENTS_MAX)
    return say(errbuf, errlen, "Event system, event numbers exceeds maximum allowed "), -1;
  std::vector<bool> seen(d->zsd_count + 1);
  unsigned entries = 0;
  for (const zevt_desc *e = d->zsd_events; e->zd_title; e++) {
    if (e->zd_number < 1 || e->zd_number > d->zsd_count || seen[e->zd_number])
      return say(errbuf, errlen, "Event system, invalid event number"), -1;
    if (strlen(e->zd_title) > ZEVT_NAME_MAX)
      return say(errbuf, errlen, "Event system evt %d title exceeds limit", static_cast<int>(e->zd_number)), -1;
    seen[e->zd_number] = true;
    entries++;
  }
  if (entries != d->zsd_count) return say(errbuf, errlen, "Event system count mismatch"), -1;

  auto *sys = static_cast<zevt_system *>(tvx::trace::alloc(TRACE_CLASS_EVENT, sizeof(zevt_system)));
  if (!sys) return say(errbuf, errlen, "Event system create failure"), -1;
  auto *events = static_cast<zevt_event *>(
      tvx::trace::alloc(TRACE_CLASS_EVENT, (d->zsd_count + 1) * sizeof(zevt_event)));
  if (!events) {
    tvx::trace::release(TRACE_CLASS_EVENT, sys);
    say(errbuf, errlen, "Event system table memory alloc failure");
    return -1;
  }
  memcpy(sys->zs_name, d->zsd_name, strlen(d->zsd_name) + 1);
  memcpy(sys->zs_title, d->zsd_title, strlen(d->zsd_title) + 1);
  sys->zs_count = d->zsd_count;
  sys->zs_events = events;
  for (const zevt_desc *e = d->zsd_events; e->zd_title; e++) {
    memcpy(events[e->zd_number].ze_title, e->zd_title, strlen(e->zd_title) + 1);
    events[e->zd_number].ze_flags = e->zd_flags;
  }
  sys->zs_next = systems;
  systems = sys;
  return 0;
}

zevt_system *zevt_system_find(const char *name, char *errbuf, size_t errlen) {
  for (zevt_system *s = systems; s && name; s = s->zs_next)
    if (strcmp(s->zs_name, name) == 0) return s;
  say(errbuf, errlen, "error: evt system %s not found !!", name ? name : "(null)");
  return nullptr;
}

void zevt_system_destroy_all(void) {
  while (zevt_system *s = systems) {
    systems = s->zs_next;
    tvx::trace::release(TRACE_CLASS_EVENT, s->zs_events);
    tvx::trace::release(TRACE_CLASS_EVENT, s);
  }
}

uint32_t zevt_action(const zevt_system *sys, unsigned number) {
  if (!sys || number < 1 || number > sys->zs_count) return 0;
  return sys->zs_events[number].ze_action;
}

int zevt_set_action(zevt_system *sys, const char *names, const char *action, char *errbuf, size_t errlen) {
  uint32_t set, clear;
  if (!sys || !names || !action_bits(action, &set, &clear)) {
    say(errbuf, errlen, "bad action %s", action ? action : "(null)");
    return -1;
  }
  std::vector<event_range> ranges;
  if (!parse_ranges(sys, names, set, clear, ranges, errbuf, errlen)) return -1;
  apply(ranges);
  return 0;
}

bool zevt_config_read(const ddl_object_t *to) {
  ddl_object_t *list = nullptr, *cur = nullptr;
  if (!dax_get_object_by_name(to, "trace-events", &list)) return true;
  std::vector<event_range> ranges;
  bool ok = true;
  while (dax_visit_container(list, &cur)) {
    char names[512], action[32] = "memtrace", err[256] = "";
    if (!dax_get_string_by_name(cur, "evtsys_name", names, sizeof names)) {
      dax_error(cur, "missing eventsys_name");
      ok = false;
      break;
    }
    dax_get_string_by_name(cur, "trace-action", action, sizeof action);
    uint32_t set = 0, clear = 0;
    char *colon = strchr(names, ':');
    if (colon) *colon = '\0';
    zevt_system *sys = zevt_system_find(names, err, sizeof err);
    if (!sys) {
      dax_error(cur, "Error: %s", err);
      ok = false;
      break;
    }
    if (!action_bits(action, &set, &clear) || !colon ||
        !parse_ranges(sys, colon + 1, set, clear, ranges, err, sizeof err)) {
      dax_error(cur, "Error: %s", err[0] ? err : "no events given");
      ok = false;
      break;
    }
  }
  if (!ok) {
    dax_error(cur ? cur : list, "Error: Evt System configuration failure");
    if (cur) dax_release_object(&cur);
  } else {
    apply(ranges);
  }
  dax_release_object(&list);
  return ok;
}
