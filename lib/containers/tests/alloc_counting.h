// Memory hooks for the container tests: malloc-backed like the defaults,
// counting live objects per block name and live allocations per cookie name,
// so that tests can see buckets and directories come and go, and in which
// allocator they land.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "containers/mem_hooks.h"

namespace counting {

struct block {
  std::string name;
  size_t size;
  long live = 0;
};

struct cookie {
  std::string name;
  long live = 0;
};

inline std::map<std::string, block> &blocks() {
  static std::map<std::string, block> b;
  return b;
}
inline std::map<std::string, cookie> &cookies() {
  static std::map<std::string, cookie> c;
  return c;
}

inline long live(const std::string &name) {
  auto it = blocks().find(name);
  return it == blocks().end() ? 0 : it->second.live;
}
inline long cookie_live(const std::string &name) {
  auto it = cookies().find(name);
  return it == cookies().end() ? 0 : it->second.live;
}

inline void install() {
  static const containers_mem_hooks hooks = {
      [](const char *name, size_t size) -> void * {
        auto &b = blocks()[name];
        b.name = name;
        b.size = size;
        return &b;
      },
      [](void *blk) -> void * {
        auto *b = static_cast<block *>(blk);
        b->live++;
        return std::calloc(1, b->size);
      },
      [](void *blk, void *p) {
        static_cast<block *>(blk)->live--;
        std::free(p);
      },
      [](const char *name) -> void * {
        auto &c = cookies()[name];
        c.name = name;
        return &c;
      },
      // Filled with garbage: cookie memory is not zeroed, and a container
      // that relied on it would read stale slots.
      [](void *c, size_t size) -> void * {
        static_cast<cookie *>(c)->live++;
        return std::memset(std::malloc(size), 0xa5, size);
      },
      [](void *c, void *p, size_t size) -> void * {
        if (!p) static_cast<cookie *>(c)->live++;
        return std::realloc(p, size);
      },
      [](void *c, void *p) {
        static_cast<cookie *>(c)->live--;
        std::free(p);
      },
  };
  containers_mem_hooks_set(&hooks);
}

// Installed before any test runs: block and cookie handles are taken once.
inline const bool installed = (install(), true);

}  // namespace counting
