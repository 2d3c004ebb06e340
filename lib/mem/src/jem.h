// jemalloc's interface under the names our rebuilt archive gives it (jem_*).
#pragma once

#include <cstddef>

extern "C" {
void *jem_mallocx(size_t size, int flags);
void jem_dallocx(void *ptr, int flags);
void jem_sdallocx(void *ptr, size_t size, int flags);
size_t jem_nallocx(size_t size, int flags);
size_t jem_sallocx(const void *ptr, int flags);
int jem_mallctl(const char *name, void *oldp, size_t *oldlenp, void *newp, size_t newlen);
}

constexpr int jem_align(size_t a) { return __builtin_ctzl(a); }  // MALLOCX_ALIGN for powers of two
constexpr int jem_arena(unsigned a) { return static_cast<int>((a + 1) << 20); }  // MALLOCX_ARENA

// The allocator's extent hooks (its extent_hooks_t), for an arena whose memory
// comes from a range of our own. Booleans: false is success.
struct jem_extent_hooks {
  void *(*alloc)(jem_extent_hooks *, void *new_addr, size_t size, size_t alignment, bool *zero, bool *commit,
                 unsigned arena);
  bool (*dalloc)(jem_extent_hooks *, void *addr, size_t size, bool committed, unsigned arena);
  void (*destroy)(jem_extent_hooks *, void *addr, size_t size, bool committed, unsigned arena);
  bool (*commit)(jem_extent_hooks *, void *addr, size_t size, size_t offset, size_t length, unsigned arena);
  bool (*decommit)(jem_extent_hooks *, void *addr, size_t size, size_t offset, size_t length, unsigned arena);
  bool (*purge_lazy)(jem_extent_hooks *, void *addr, size_t size, size_t offset, size_t length, unsigned arena);
  bool (*purge_forced)(jem_extent_hooks *, void *addr, size_t size, size_t offset, size_t length, unsigned arena);
  bool (*split)(jem_extent_hooks *, void *addr, size_t size, size_t size_a, size_t size_b, bool committed,
                unsigned arena);
  bool (*merge)(jem_extent_hooks *, void *addr_a, size_t size_a, void *addr_b, size_t size_b, bool committed,
                unsigned arena);
};

constexpr int jem_tcache(int tc) { return (tc + 2) << 8; }  // MALLOCX_TCACHE; -1 is MALLOCX_TCACHE_NONE
