// Shared by the memory library's sources: the frame around an allocation,
// the red zones, the counters and the vectors' private state.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "jem.h"
#include "mem/block.h"
#include "mem/mem.h"

// Two layouts of a cookie allocation:
// - framed (what fits in 896 bytes framed, small aligned requests, the libc
//   vector): a 16-byte head in front of the payload, so that payloads keep
//   malloc's 16-byte alignment, and a red zone in the block's last word;
// - large (from MEM_LARGE_FROM bytes, jemalloc vector): the block is the
//   allocator's size class of the request itself (1 KiB at least), from an
//   arena whose memory lies in one reserved range; the head stands in a side
//   table beside the range, one record per KiB of it, and the block's last
//   word is a red zone as well when the class leaves four bytes after the
//   request. A head in front would move a 1 KiB object into the next class
//   (1,280 bytes).
// Which layout a pointer has is told by the range alone.
struct mem_head {
  uint64_t mh_size;    // bytes obtained, from the block's start, red zone included
  uint32_t mh_offset;  // payload - block start: 16, or more for aligned requests
  uint32_t mh_pad;
};
static_assert(sizeof(mem_head) == 16);

constexpr uint32_t MEM_RZ_COOKIE = 0x7ee80000u;
constexpr uint32_t MEM_RZ_BLOCK = 0x3ee80000u;
constexpr uint32_t MEM_RZ_FREED = 0x20000000u;  // cleared on free: 0x7ee8 -> 0x5ee8
constexpr size_t MEM_FRAME = sizeof(mem_head) + sizeof(uint32_t);

inline mem_head *mem_head_of(const void *p) {
  return reinterpret_cast<mem_head *>(const_cast<char *>(static_cast<const char *>(p)) - sizeof(mem_head));
}
inline char *mem_block_of(const void *p) { return reinterpret_cast<char *>(mem_head_of(p)) + sizeof(mem_head) - mem_head_of(p)->mh_offset; }
inline uint32_t *mem_rz_at(char *block, size_t size) { return reinterpret_cast<uint32_t *>(block + size - 4); }
inline uint32_t mem_cookie_zone(const task_mem_cookie *c) { return MEM_RZ_COOKIE | (c->tmc_id & 0xffffu); }

// The side head of a large block.
struct mem_side {
  uint64_t ms_size;    // bytes obtained: the size class
  uint32_t ms_zone;    // the cookie's zone; bit 29 cleared on free
  uint16_t ms_offset;  // the block's offset within its KiB of the range
  uint16_t ms_tail;    // 1 when the block's last word is a red zone too
};
static_assert(sizeof(mem_side) == 16);

// Size classes from MEM_LARGE_CLASS up are the large arena's alone; framed
// requests stay in the classes below (896 bytes and less), so that requests
// from MEM_LARGE_FROM bytes on, which framed would pass 896, take the large
// layout, in a class of 1 KiB at least.
constexpr size_t MEM_LARGE_CLASS = 1024;
constexpr size_t MEM_FRAMED_MAX = 896;
constexpr size_t MEM_LARGE_FROM = MEM_FRAMED_MAX - sizeof(mem_head) - sizeof(uint32_t) + 1;
constexpr unsigned MEM_SIDE_SHIFT = 10;  // every large block is at least 1 KiB

// The reserved range and its side table; span 0 when the range could not be had.
struct mem_large_range {
  uintptr_t base;
  uintptr_t span;
  mem_side *side;
  int flags;  // jemalloc's flags for the range's arena
};
extern mem_large_range mem_large;

inline bool mem_is_large(const void *p) { return reinterpret_cast<uintptr_t>(p) - mem_large.base < mem_large.span; }
inline mem_side *mem_side_of(const void *p) {
  return mem_large.side + ((reinterpret_cast<uintptr_t>(p) - mem_large.base) >> MEM_SIDE_SHIFT);
}
inline uint16_t mem_side_offset(const void *p) {
  return static_cast<uint16_t>((reinterpret_cast<uintptr_t>(p) - mem_large.base) & ((1u << MEM_SIDE_SHIFT) - 1));
}
// Reserves the range and makes its arena; leaves the span 0 on failure.
void mem_large_init(void);
// jemalloc's flags for a block of `size` bytes that is not a large cookie
// allocation (a typed block): the large classes come from the range's arena.
// Should that arena fail (its range used up), such blocks are taken and given
// back past the threads' caches, with the flags mem_release_flags gives.
inline int mem_class_flags(size_t size) { return size >= MEM_LARGE_CLASS && mem_large.span ? mem_large.flags : 0; }
// For a block of the large classes from another arena: past the caches.
inline int mem_bypass_flags(size_t size) { return size >= MEM_LARGE_CLASS && mem_large.span ? jem_tcache(-1) : 0; }
inline int mem_release_flags(const void *block, size_t size) { return mem_is_large(block) ? 0 : mem_bypass_flags(size); }

// What the caller may use of an allocation (malloc_usable_size).
inline size_t mem_payload_size(const void *p) {
  if (mem_is_large(p)) {
    const mem_side *s = mem_side_of(p);
    return s->ms_size - (s->ms_tail ? sizeof(uint32_t) : 0);
  }
  const mem_head *h = mem_head_of(p);
  return h->mh_size - h->mh_offset - sizeof(uint32_t);
}
// Bytes obtained from the allocator for an allocation.
inline size_t mem_obtained(const void *p) { return mem_is_large(p) ? mem_side_of(p)->ms_size : mem_head_of(p)->mh_size; }
// The word that carries an allocation's cookie zone: the side head's for a
// large block, else the red zone.
inline uint32_t *mem_zone_word(const void *p) {
  if (mem_is_large(p)) return &mem_side_of(p)->ms_zone;
  return mem_rz_at(mem_block_of(p), mem_head_of(p)->mh_size);
}

// Fills head and red zone of a fresh block of `size` bytes, payload at `offset`.
inline void *mem_frame(char *block, size_t size, uint32_t offset, const task_mem_cookie *c) {
  mem_head *h = reinterpret_cast<mem_head *>(block + offset - sizeof(mem_head));
  h->mh_size = size;
  h->mh_offset = offset;
  h->mh_pad = 0;
  *mem_rz_at(block, size) = mem_cookie_zone(c);
  return block + offset;
}

#define MEM_LIKELY(x) __builtin_expect(!!(x), 1)
#define MEM_UNLIKELY(x) __builtin_expect(!!(x), 0)

// The calling thread's index; -2 until first asked.
extern constinit thread_local int mem_thread_slot;
int mem_thread_slot_decide(void);
inline int mem_thread() {
  int t = mem_thread_slot;
  return MEM_LIKELY(t != -2) ? t : mem_thread_slot_decide();
}

// Counting, per thread where the thread has a slot, else on "--Orphan--". The
// common case (a slot with its record made) is inline and takes no atomic.
void mem_count_slow(task_mem_thread_counts **arr, uint32_t slots, int64_t bytes, bool alloc);
inline void mem_count(task_mem_thread_counts **arr, uint32_t slots, int64_t bytes, bool alloc) {
  int t = mem_thread();
  task_mem_thread_counts *r;
  if (MEM_UNLIKELY(t < 0 || static_cast<uint32_t>(t) >= slots || !(r = arr[t])))
    return mem_count_slow(arr, slots, bytes, alloc);
  r->tmt_ops++;
  if (alloc) {
    r->tmt_bytes += bytes;
    r->tmt_allocs++;
    if (r->tmt_bytes > r->tmt_bytes_hw) r->tmt_bytes_hw = r->tmt_bytes;
    if (r->tmt_allocs > r->tmt_allocs_hw) r->tmt_allocs_hw = r->tmt_allocs;
  } else {
    r->tmt_bytes -= bytes;
    r->tmt_allocs--;
    r->tmt_freed_bytes += bytes;
    r->tmt_frees++;
  }
}
inline void mem_count_alloc(task_mem_cookie *c, int64_t bytes) { mem_count(c->tmc_threads, c->tmc_thread_slots, bytes, true); }
inline void mem_count_free(task_mem_cookie *c, int64_t bytes) { mem_count(c->tmc_threads, c->tmc_thread_slots, bytes, false); }
// Thread slots every new array gets; a fresh zeroed array of n slots.
unsigned mem_thread_slots(void);
task_mem_thread_counts **mem_slot_array(unsigned n);
// Moves what a dying record set still holds to "--Orphan--".
void mem_orphan_take(int64_t bytes, int64_t allocs);

// Points the containers' allocation hooks at blocks and cookies.
void mem_container_hooks_install(void);

// Blocks: the bootstrap blocks and the thread-slot growth of every block.
void mem_blocks_init(void);
void mem_blocks_grow(unsigned slots);
extern task_block *mem_cookie_block;

// Local pools (fast paths in local_pool.h).
void mem_pool_drain_block(task_block *bp);
void mem_pools_grow(unsigned slots);
// Keeps a block's old pool array until no thread can be reading it.
void mem_pool_retire(task_localpool **old);
// Frees an object for good: red zone cleared, memory returned, counted.
void mem_block_release(task_block *bp, void *obj);
extern bool mem_junk;  // freed pool objects are filled with 0x5a

// The leak detector's view of cookie allocations: set while it samples, null
// otherwise, so that the hot path pays one load.
struct mem_leak_hooks {
  void (*on_alloc)(void *ptr);
  void (*on_free)(void *ptr);
};
extern std::atomic<const mem_leak_hooks *> mem_leak;

// The cookie whose zone `rz` is, among the cookie given and the fixed ones the
// front door lets a free fall back on; null if none.
task_mem_cookie *mem_zone_owner(task_mem_cookie *given, uint32_t rz);

// The libc vector's operations, also used by the jemalloc vector for the
// libc cookie's blocks and when told to use the system allocator.
extern const task_mem_vector mem_libc_vector;
extern const task_mem_vector mem_jemalloc_vector;

// Cookie records and the cookie list.
int mem_cookie_make(const char *name, void *owner, task_mem_cookie **out);
int mem_cookie_release(task_mem_cookie *c);
void mem_fixed_cookies_init(void);
void mem_cookie_walk_fn(void (*fn)(task_mem_cookie *, void *), void *arg);

// State set at start.
extern std::atomic<bool> mem_up;
extern bool mem_use_libc;        // U: the jemalloc vector allocates with libc
extern const task_mem_vector *mem_vector;  // the vector in force

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}

#define MEM_FATAL(fn, expr) task_mem_fatal(fn, __FILE__, __LINE__, expr)

// task_lite pools, for the pool report.
struct task_lite_pool;
void mem_lite_walk(void (*fn)(task_lite_pool *, void *), void *arg);
