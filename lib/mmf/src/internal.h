// What the sources of the mapped-file library share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mmf/meminfo.h"
#include "mmf/mmf.h"

// A broken invariant: one line naming the check, then the process ends.
[[noreturn]] void mmf_assert_fail(const char *expr, const char *file, int line);
#define MMF_ASSERT(e) ((e) ? (void)0 : mmf_assert_fail(#e, __FILE__, __LINE__))

// The pid of this process, cached (the lock reads it on every call) and
// refreshed in a fork child.
extern pid_t mmf_cached_pid;
pid_t mmf_pid_slow(void);
inline pid_t mmf_pid(void) {
  pid_t p = __atomic_load_n(&mmf_cached_pid, __ATOMIC_RELAXED);
  return __builtin_expect(p != 0, 1) ? p : mmf_pid_slow();
}

// Node access through the mapping, as every path of the heap does it.
inline mmf_node_header_t *mmf_node_at(mmf *m, uint64_t offset) {
  return static_cast<mmf_node_header_t *>(mmf_ensure_mapped(m, static_cast<off_t>(offset), mmf_node_bytes));
}
inline mmf_node_trailer_t *mmf_trailer_at(mmf *m, uint64_t offset) {
  return static_cast<mmf_node_trailer_t *>(mmf_ensure_mapped(m, static_cast<off_t>(offset), 8));
}

// Class of a node of `bytes` (overhead included).
uint32_t mmf_get_free_idx(const mmf_shared_info_t *si, uint32_t bytes);
// Writes a free node (header and trailer) and pushes it on its class's list.
void mmf_add_free_node(mmf *m, uint64_t offset, uint32_t len);
// Cuts [start, end) into free nodes of at most MMF_MAX_NODE_LEN, top down.
void mmf_add_free_space(mmf *m, uint64_t start, uint64_t end);
// Stores the classes: the caller's sizes, a top class, node overhead added.
void mmf_set_allocation_info(mmf_shared_info_t *si, uint32_t n, const uint32_t *sizes);
// Maps the whole object anew at current_bytes (single mapping); false leaves
// the handle dead.
bool mmf_remap(mmf *m);
// The same to a given size, for a growth before current_bytes is stored.
bool mmf_remap_to(mmf *m, int64_t bytes);
// Extends the file to `bytes` with real blocks behind it: a full file
// system fails here (errno set) rather than with SIGBUS at first touch.
bool mmf_extend(int fd, uint64_t bytes);
// Region mode's tables, its mappings dropped, the tables freed.
bool mmf_regions_init(mmf *m);
void mmf_unmap_regions(mmf *m);
void mmf_regions_free(mmf *m);
// Bytes of the file this process can reach by offset now.
inline int64_t mmf_view_bytes(const mmf *m) {
  return m->single_mapping ? m->mapped_bytes : static_cast<int64_t>(m->shared_info->current_bytes);
}
// Seconds of a cross-process wait, scaled.
double mmf_scaled(double seconds);
// Sleeps through signals.
void mmf_sleep_ns(int64_t ns);
// Monotonic seconds.
double mmf_now(void);
// Whether this file's record in the memory report asks to be kept current.
bool mmf_meminfo_wanted(const mmf *m);
