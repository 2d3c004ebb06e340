// rtslib's memory: four replaceable hooks, counted by memid by default.
#include <cstdlib>
#include <cstring>

#include "rtslib_internal.h"

rtslib_mem_rec rtslib_mem_stats[RTSLIB_MEM_IDS];

namespace {

rtslib_mem_rec &rec(int id) { return rtslib_mem_stats[id >= 0 && id < RTSLIB_MEM_IDS ? id : 0]; }

void *count(int id, void *p) {
  if (p) rec(id).allocs++;
  else rec(id).failures++;
  return p;
}

void *d_alloc(int id, size_t n) { return count(id, malloc(n)); }
void *d_alloc_array(int id, size_t count_, size_t n) { return count(id, calloc(count_, n)); }
void *d_realloc(int id, void *p, size_t n) {
  void *q = realloc(p, n);
  if (!q) rec(id).failures++;
  else if (!p) rec(id).allocs++;
  return q;
}
void d_free(int id, void *p) {
  rec(id).frees++;
  free(p);
}

constexpr rtslib_mem_hooks kDefault = {d_alloc, d_alloc_array, d_realloc, d_free};

}  // namespace

rtslib_mem_hooks rtslib::mem = kDefault;

void rtslib_mem_hooks_set(const rtslib_mem_hooks *hooks) { rtslib::mem = hooks ? *hooks : kDefault; }
