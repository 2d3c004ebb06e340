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
