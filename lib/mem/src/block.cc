// Typed blocks over jemalloc: records, the block list, object alloc and free.
#include <cerrno>
#include <cstring>

#include "history.h"
#include "internal.h"
#include "jem.h"
#include "local_pool.h"

uint16_t task_block_global_flags = 0;
int task_block_fail_alloc = 0;
task_block *mem_cookie_block = nullptr;

namespace {

constexpr uint32_t NO_ARENA = 0xdeaddead;

lfll_list block_list;
bool list_ready = false;
std::atomic<uint32_t> next_block_id{1};
uint32_t process_arena = 0;  // 0: not asked yet

// The two bootstrap blocks, built by hand: the block of all blocks and the
// block of all cookies. Their per-thread arrays have one slot.
task_block names_block, cookies_block;
task_mem_thread_counts *names_threads[1], *cookies_threads[1];
task_localpool *names_lp[1], *cookies_lp[1];

uint32_t zone_of(const task_block *bp) { return MEM_RZ_BLOCK | (bp->tb_id & 0xffffu); }

// A pooled object waits in its pool linked through its first word, which is a
// pointer, 8 bytes here: an object of 4 to 7 bytes is laid out as 8, so that
// the link never reaches its red zone.
size_t span_of(size_t size, uint16_t flags) {
  return (flags & TASK_BLOCK_LOCAL_POOL) && size < sizeof(void *) ? sizeof(void *) : size;
}

uint32_t real_size(size_t size, uint16_t flags) {
  size_t n = (span_of(size, flags) + ((flags & TASK_BLOCK_NO_REDZONE) ? 0 : 4) + 3) & ~size_t{3};
  if (n < 8) n = 8;
  if (!mem_use_libc) n = jem_nallocx(n, 0);
  return static_cast<uint32_t>(n);
}

void list_insert(task_block *bp) {
  if (!list_ready) {
    lfll_list_init(&block_list);
    list_ready = true;
  }
  lfll_list_insert(&block_list, &bp->tb_link, bp->tb_id);
}

void boot(task_block *bp, const char *name, size_t size, task_mem_thread_counts **threads, task_localpool **lp) {
  *bp = task_block{};
  bp->tb_name = name;
  bp->tb_size = static_cast<uint16_t>(size);
  bp->tb_id = next_block_id.fetch_add(1);
  bp->tb_real_size = real_size(size, 0);
  bp->tb_lp_count = 1;
  bp->tb_threads = threads;
  bp->tb_lp = lp;
  list_insert(bp);
}

uint32_t arena() {
  if (process_arena == 0) {
    unsigned a = 0;
    size_t len = sizeof a;
    process_arena = jem_mallctl("arenas.create", &a, &len, nullptr, 0) == 0 ? a : NO_ARENA;
  }
  return process_arena;
}

void *raw_alloc(task_block *bp) {
  if (task_block_fail_alloc) {
    errno = ENOMEM;
    return nullptr;
  }
  size_t n = bp->tb_real_size;
  void *p;
  if (mem_use_libc) {
    p = __libc_malloc(n);
  } else if (bp->tb_flags & TASK_BLOCK_OWN_ARENA) {
    p = jem_mallocx(n, jem_arena(process_arena) | mem_bypass_flags(n));
  } else {
    // Objects of 1 KiB and more share their size classes with large cookie
    // allocations: they come from the same arena (see large.cc).
    p = jem_mallocx(n, mem_class_flags(n));
    if (!p && mem_class_flags(n)) p = jem_mallocx(n, jem_tcache(-1));
  }
  if (!p) errno = ENOMEM;
  return p;
}

struct match_args {
  size_t size;
  const char *name;
  uint32_t flags;
};

bool same_block(lfll_node *n, void *arg) {
  auto *m = static_cast<match_args *>(arg);
  task_block *bp = LFLL_ENTRY(n, task_block, tb_link);
  return bp->tb_size == m->size && bp->tb_flags == m->flags && strcmp(bp->tb_name, m->name) == 0;
}

}  // namespace

void mem_blocks_init(void) {
  if (mem_cookie_block) return;
  boot(&names_block, "je_task_block_names", sizeof(task_block), names_threads, names_lp);
  boot(&cookies_block, "je_task_cookie_block", sizeof(task_mem_cookie), cookies_threads, cookies_lp);
  mem_cookie_block = &cookies_block;
}

task_block *task_block_init(size_t size, const char *name) { return task_block_init_flags(size, name, 0); }

task_block *task_block_init_flags(size_t size, const char *name, uint32_t flags) {
  if (!name) {
    MEM_FATAL("task_block_init_flags", "name != ((void *)0)");
    return nullptr;
  }
  flags |= task_block_global_flags;
  // A free object holds a list link: none under 4 bytes is pooled, and 4 to 7
  // are laid out as 8 (span_of).
  if ((flags & TASK_BLOCK_LOCAL_POOL) && size < 4) flags &= ~TASK_BLOCK_LOCAL_POOL;
  match_args m = {size, name, flags};
  if (list_ready)
    if (lfll_node *n = lfll_walk(&block_list, same_block, &m)) return LFLL_ENTRY(n, task_block, tb_link);
  if (size > TASK_BLOCK_MAX_SIZE) {
    errno = EFAULT;
    return nullptr;
  }
  mem_blocks_init();
  auto *bp = static_cast<task_block *>(task_block_alloc(&names_block));
  bp->tb_name = name;
  bp->tb_size = static_cast<uint16_t>(size);
  bp->tb_flags = static_cast<uint16_t>(flags);
  bp->tb_owner = mem_thread();
  bp->tb_real_size = real_size(size, bp->tb_flags);
  bp->tb_id = next_block_id.fetch_add(1);
  bp->tb_lp_count = mem_thread_slots();
  bp->tb_threads = mem_slot_array(bp->tb_lp_count);
  bp->tb_lp = reinterpret_cast<task_localpool **>(mem_slot_array(bp->tb_lp_count));
  list_insert(bp);
  return bp;
}

void *task_block_alloc(task_block *bp) {
  if (MEM_UNLIKELY(bp->tb_flags & TASK_BLOCK_OWN_ARENA) && !(bp->tb_flags & TASK_BLOCK_NO_REDZONE) &&
      arena() == NO_ARENA)
    bp->tb_flags &= ~TASK_BLOCK_OWN_ARENA;
  int t = mem_thread();
  char *p = static_cast<char *>(mem_pool_take(bp, t));
  if (!p) {
    p = static_cast<char *>(raw_alloc(bp));
    if (!p) {
      MEM_FATAL("task_block_alloc", "ptr != ((void *)0)");
      return nullptr;
    }
    mem_count(bp->tb_threads, bp->tb_lp_count, bp->tb_real_size, true);
  }
  // The object is what the caller sees (with a short object's whole link); the
  // allocator's slack after it is not.
  memset(p, 0, span_of(bp->tb_size, bp->tb_flags));
  if (!(bp->tb_flags & TASK_BLOCK_NO_REDZONE)) *mem_rz_at(p, bp->tb_real_size) = zone_of(bp);
  mem_history_record(p, bp->tb_real_size, 'A', 'b', bp->tb_id, 6);
  return p;
}

void mem_block_release(task_block *bp, void *obj) {
  char *p = static_cast<char *>(obj);
  if (!(bp->tb_flags & TASK_BLOCK_NO_REDZONE)) *mem_rz_at(p, bp->tb_real_size) &= ~MEM_RZ_FREED;
  mem_count(bp->tb_threads, bp->tb_lp_count, bp->tb_real_size, false);
  if (mem_use_libc)
    __libc_free(p);
  else
    jem_sdallocx(p, bp->tb_real_size,
                 ((bp->tb_flags & TASK_BLOCK_OWN_ARENA) ? jem_arena(process_arena) : 0) |
                     mem_release_flags(p, bp->tb_real_size));
}

void task_block_free(task_block *bp, void *ptr) {
  if (!ptr) return;
  char *p = static_cast<char *>(ptr);
  if (!(bp->tb_flags & TASK_BLOCK_NO_REDZONE) && *mem_rz_at(p, bp->tb_real_size) != zone_of(bp)) {
    MEM_FATAL("task_block_free_jemalloc", "!\"Block RedZone Validation Failed\"");
    return;
  }
  mem_history_record(p, bp->tb_real_size, 'F', 'b', bp->tb_id, 6);
  if (mem_pool_put(bp, mem_thread(), p)) return;
  mem_block_release(bp, p);
}

bool task_block_verify(const task_block *bp, const void *obj) {
  if (!bp || !obj) return false;
  if (bp->tb_flags & TASK_BLOCK_NO_REDZONE) return true;
  uint32_t zone;
  memcpy(&zone, mem_rz_at(static_cast<char *>(const_cast<void *>(obj)), bp->tb_real_size), sizeof zone);
  return zone == zone_of(bp);
}

void task_block_free_clear(task_block *bp, void **slot) {
  task_block_free(bp, *slot);
  *slot = nullptr;
}

int task_block_block_free(task_block *bp) {
  if (!list_ready) return 3;
  lfll_node *n = lfll_list_lookup(&block_list, bp->tb_id);
  if (!n) return 3;
  if (LFLL_ENTRY(n, task_block, tb_link) != bp) {
    MEM_FATAL("task_block_block_free", "outp == bp");
    return 3;
  }
  lfll_list_delete(&block_list, n);
  mem_pool_drain_block(bp);
  size_t bytes, objects;
  task_block_get_allocated(bp, &bytes, &objects);
  mem_orphan_take(static_cast<int64_t>(bytes), static_cast<int64_t>(objects));
  for (uint32_t i = 0; i < bp->tb_lp_count; i++) __libc_free(bp->tb_threads[i]);
  __libc_free(bp->tb_threads);
  __libc_free(bp->tb_threads_old);
  __libc_free(bp->tb_lp);
  task_block_free(&names_block, bp);
  return 0;
}

void task_block_get_allocated(const task_block *bp, size_t *bytes, size_t *objects) {
  int64_t b = 0, o = 0;
  for (uint32_t i = 0; i < bp->tb_lp_count; i++)
    if (const task_mem_thread_counts *r = bp->tb_threads[i]) {
      b += r->tmt_bytes;
      o += r->tmt_allocs;
    }
  *bytes = b > 0 ? static_cast<size_t>(b) : 0;
  *objects = o > 0 ? static_cast<size_t>(o) : 0;
}

void task_block_walk(void (*fn)(task_block *, void *), void *arg) {
  if (list_ready) lfll_each(&block_list, [&](lfll_node *n) { fn(LFLL_ENTRY(n, task_block, tb_link), arg); });
}

void mem_blocks_grow(unsigned slots) {
  task_block_walk(
      [](task_block *bp, void *arg) {
        unsigned n = *static_cast<unsigned *>(arg);
        if (bp == &names_block || bp == &cookies_block || n <= bp->tb_lp_count) return;
        task_mem_thread_counts **a = mem_slot_array(n);
        memcpy(a, bp->tb_threads, bp->tb_lp_count * sizeof(void *));
        __libc_free(bp->tb_threads_old);
        bp->tb_threads_old = bp->tb_threads;
        bp->tb_threads = a;
        auto **lp = reinterpret_cast<task_localpool **>(mem_slot_array(n));
        memcpy(lp, bp->tb_lp, bp->tb_lp_count * sizeof(void *));
        // Another thread may still read the old pool array: it retires, not frees.
        mem_pool_retire(bp->tb_lp);
        bp->tb_lp = lp;
        __atomic_store_n(&bp->tb_lp_count, n, __ATOMIC_RELEASE);
      },
      &slots);
}
