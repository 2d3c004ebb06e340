// libevent for the event-loop benchmarks, reached through its own handle:
// libev also exports libevent's names (event_add ...), so linking both would
// let libev's stand-ins shadow the real ones. Fields are null when the
// library cannot be opened.
#pragma once

#include <dlfcn.h>
#include <event2/event.h>

struct libevent_calls {
  event_base *(*base_new)(void);
  event *(*event_new)(event_base *, evutil_socket_t, short, event_callback_fn, void *);
  int (*add)(event *, const timeval *);
  void (*free)(event *);
  void (*base_free)(event_base *);
  int (*loop)(event_base *, int);
  int (*loopbreak)(event_base *);
  int (*update_time)(event_base *);
};

inline const libevent_calls &le() {
  static libevent_calls c = [] {
    void *h = dlopen("libevent-2.1.so.7", RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    libevent_calls r{};
    if (!h) return r;
    r.base_new = reinterpret_cast<decltype(r.base_new)>(dlsym(h, "event_base_new"));
    r.event_new = reinterpret_cast<decltype(r.event_new)>(dlsym(h, "event_new"));
    r.add = reinterpret_cast<decltype(r.add)>(dlsym(h, "event_add"));
    r.free = reinterpret_cast<decltype(r.free)>(dlsym(h, "event_free"));
    r.base_free = reinterpret_cast<decltype(r.base_free)>(dlsym(h, "event_base_free"));
    r.loop = reinterpret_cast<decltype(r.loop)>(dlsym(h, "event_base_loop"));
    r.loopbreak = reinterpret_cast<decltype(r.loopbreak)>(dlsym(h, "event_base_loopbreak"));
    r.update_time = reinterpret_cast<decltype(r.update_time)>(dlsym(h, "event_base_update_cache_time"));
    return r;
  }();
  return c;
}
