// The large layout's memory: one reserved range of address space that feeds a
// jemalloc arena of its own through extent hooks, and the side table of heads
// beside it. A pointer is large exactly when it lies in the range.
//
// The arena shares each thread's cache with the other arenas. The cache keeps
// blocks by size class, and every class from 1 KiB up is asked of this arena
// alone (framed requests stay at or under 896 bytes, typed blocks of 1 KiB
// and more come from here too), so that a block taken from the cache for a
// large request lies in the range. What could still slip in (a block of
// another arena freed by code that calls jemalloc itself) is caught at the
// allocation and sent back past the cache.
//
// The range and the side table are reserved without access and opened as the
// arena takes extents, so that only what is used counts against the machine's
// commit limit. Extents never go back to the system: jemalloc keeps them and
// gives their pages back by purging.
#include <sys/mman.h>

#include <mutex>

#include "internal.h"
#include "jem.h"

mem_large_range mem_large = {0, 0, nullptr, 0};

namespace {

constexpr size_t PAGE = 4096;

std::mutex grow_lock;
uintptr_t next_free = 0;  // bump pointer in the range
uintptr_t range_end = 0;  // set before the arena exists: its making takes extents

// Side table bytes over the first `range_bytes` of the range.
size_t side_bytes(size_t range_bytes) { return (range_bytes >> MEM_SIDE_SHIFT) * sizeof(mem_side); }

uintptr_t round_up(uintptr_t v, uintptr_t a) { return (v + a - 1) & ~(a - 1); }

// Opens [addr, addr + size) of the range and the side records over it.
bool open_up(uintptr_t addr, size_t size) {
  if (mprotect(reinterpret_cast<void *>(addr), size, PROT_READ | PROT_WRITE)) return false;
  uintptr_t side = reinterpret_cast<uintptr_t>(mem_large.side);
  uintptr_t from = side + side_bytes(addr - mem_large.base) / PAGE * PAGE;
  uintptr_t to = round_up(side + side_bytes(addr + size - mem_large.base), PAGE);
  return mprotect(reinterpret_cast<void *>(from), to - from, PROT_READ | PROT_WRITE) == 0;
}

void *hook_alloc(jem_extent_hooks *, void *new_addr, size_t size, size_t alignment, bool *zero, bool *commit,
                 unsigned) {
  if (new_addr) return nullptr;  // no growth in place: the arena takes another extent
  std::lock_guard<std::mutex> g(grow_lock);
  uintptr_t at = round_up(next_free, alignment < PAGE ? PAGE : alignment);
  if (at + size < at || at + size > range_end) return nullptr;
  if (!open_up(at, size)) return nullptr;
  next_free = at + size;
  *zero = true;  // never handed out before
  *commit = true;
  return reinterpret_cast<void *>(at);
}

bool hook_keep(jem_extent_hooks *, void *, size_t, bool, unsigned) { return true; }  // refused: jemalloc retains it
void hook_destroy(jem_extent_hooks *, void *, size_t, bool, unsigned) {}
bool hook_commit(jem_extent_hooks *, void *, size_t, size_t, size_t, unsigned) { return false; }  // always committed
bool hook_decommit(jem_extent_hooks *, void *, size_t, size_t, size_t, unsigned) { return true; }

bool hook_purge_lazy(jem_extent_hooks *, void *addr, size_t, size_t offset, size_t length, unsigned) {
  return madvise(static_cast<char *>(addr) + offset, length, MADV_FREE) != 0;
}
bool hook_purge_forced(jem_extent_hooks *, void *addr, size_t, size_t offset, size_t length, unsigned) {
  return madvise(static_cast<char *>(addr) + offset, length, MADV_DONTNEED) != 0;
}
bool hook_split(jem_extent_hooks *, void *, size_t, size_t, size_t, bool, unsigned) { return false; }
bool hook_merge(jem_extent_hooks *, void *, size_t, void *, size_t, bool, unsigned) { return false; }

jem_extent_hooks hooks = {hook_alloc,      hook_keep,         hook_destroy, hook_commit, hook_decommit,
                          hook_purge_lazy, hook_purge_forced, hook_split,   hook_merge};

}  // namespace

void mem_large_init(void) {
  if (mem_large.span) return;
  // As much address space as the process may reserve, from 64 GiB down to 1 GiB.
  for (size_t span = size_t{64} << 30; span >= size_t{1} << 30; span >>= 1) {
    void *range = mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range == MAP_FAILED) continue;
    void *side = mmap(nullptr, side_bytes(span), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (side == MAP_FAILED) {
      munmap(range, span);
      continue;
    }
    mem_large.base = reinterpret_cast<uintptr_t>(range);
    mem_large.side = static_cast<mem_side *>(side);
    next_free = mem_large.base;
    range_end = mem_large.base + span;
    jem_extent_hooks *h = &hooks;
    unsigned index;
    size_t len = sizeof index;
    if (jem_mallctl("arenas.create", &index, &len, &h, sizeof h) != 0) {
      // What the half-made arena took stays reserved: jemalloc may still hold it.
      std::lock_guard<std::mutex> g(grow_lock);
      range_end = 0;
      return;
    }
    mem_large.flags = jem_arena(index);
    mem_large.span = span;  // last: from here on pointers in the range are large
    return;
  }
}
