// Typed blocks: the framework's allocator for objects of one size. A module
// makes a block once (size and name) and takes objects from it; each block is
// accounted by name, and objects freed on a thread wait in that thread's local
// pool for quick reuse. Objects come zeroed, with a red zone after them that
// task_block_free checks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "containers/lfll.h"
#include "mem/mem.h"

struct task_localpool;

enum : uint16_t {
  TASK_BLOCK_OWN_ARENA = 0x1,   // objects from the process's private arena ("T" in the report)
  TASK_BLOCK_INTERNAL = 0x2,    // whole pages (legacy)
  TASK_BLOCK_NO_REDZONE = 0x4,
  TASK_BLOCK_DEBUG = 0x8,       // protect free pages (legacy)
  TASK_BLOCK_CLASS = 0x10,      // carried into the size class
  TASK_BLOCK_LOCAL_POOL = 0x20, // freed objects wait in the thread's local pool (dropped under 4 bytes)
};

constexpr size_t TASK_BLOCK_MAX_SIZE = 61440;  // 0xf000

struct task_block {
  lfll_node tb_link;          // on the block list, keyed by tb_id
  const char *tb_name;        // not copied
  uint16_t tb_size;           // object size as asked
  uint16_t tb_flags;
  uint32_t tb_id;             // low 16 bits stand in the red zone
  uint32_t tb_real_size;      // with red zone, as the allocator gives it
  int32_t tb_owner;           // thread index that made the block
  uint32_t tb_lp_count;       // per-thread slots of the arrays below
  task_mem_thread_counts **tb_threads;      // per thread index, made on first use
  task_mem_thread_counts **tb_threads_old;  // the array before the last growth
  task_localpool **tb_lp;     // local pool per thread index (TASK_BLOCK_LOCAL_POOL)
};

// Bits ORed into every new block's flags (the touch file may set them).
extern uint16_t task_block_global_flags;

// The block for (size, name, flags), made on first call; null with errno
// EFAULT (14) for a size over TASK_BLOCK_MAX_SIZE. The name must not be null.
task_block *task_block_init(size_t size, const char *name);
task_block *task_block_init_flags(size_t size, const char *name, uint32_t flags);
// A zeroed object; out of memory is fatal.
void *task_block_alloc(task_block *bp);
// Checks the red zone (fatal when broken) and frees or pools the object.
void task_block_free(task_block *bp, void *ptr);
void task_block_free_clear(task_block *bp, void **slot);
// Whether obj looks like a live object of the block: its red zone is intact
// (true for a block without red zones). Catches an overrun, an object of
// another block and a stray pointer; never faults on a live object.
bool task_block_verify(const task_block *bp, const void *obj);
// Removes the block itself; what its objects still hold moves to "--Orphan--".
int task_block_block_free(task_block *bp);

// Totals over threads: objects and bytes in use (pooled objects included).
void task_block_get_allocated(const task_block *bp, size_t *bytes, size_t *objects);
// Calls fn for each block, in creation order.
void task_block_walk(void (*fn)(task_block *bp, void *arg), void *arg);

// A process-wide test switch: while set, task_block_alloc fails (ENOMEM).
extern int task_block_fail_alloc;
