// Allocation hooks for the container tests: malloc-backed like the defaults,
// counting live objects per block name and live task-memory arrays, so that
// tests can see buckets and directories come and go.
#pragma once

#include <cstdlib>
#include <map>
#include <string>

#include "containers/alloc_hooks.h"

namespace counting {

struct block {
  std::string name;
  size_t size;
  long live = 0;
};

inline std::map<std::string, block> &blocks() {
  static std::map<std::string, block> b;
  return b;
}
inline long mem_live = 0;

inline long live(const std::string &name) {
  auto it = blocks().find(name);
  return it == blocks().end() ? 0 : it->second.live;
}

inline void install() {
  static const ctr_alloc_hooks hooks = {
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
      [](size_t n, size_t size) -> void * {
        mem_live++;
        return std::calloc(n, size);
      },
      [](void *p) {
        mem_live--;
        std::free(p);
      },
  };
  ctr_alloc_hooks_set(&hooks);
}

// Installed before any test runs: block handles are taken once.
inline const bool installed = (install(), true);

}  // namespace counting
