// Three small allocators beside the blocks:
//   local pools   freed block objects kept per thread for quick reuse, and given
//                 back gradually by an aging step (the "memory pool cleaner");
//   task_lite     region pools whose objects are never freed one by one;
//   mem_temp      a checked bump allocator in a caller's buffer, for the
//                 scratch data of one message or scan.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/block.h"

// ---- Local pools -----------------------------------------------------------

struct task_localpool {
  void *lp_head;                // free objects, linked through their first word
  task_localpool *lp_next;      // on the thread's list of pools
  task_block *lp_block;
  uint32_t lp_count;            // objects on the list
  uint32_t lp_trim;             // still to give back in this round
  uint8_t lp_done;              // the last round gave back its share
};

void task_mem_block_pool_enable(void);
void task_mem_block_pool_disable(void);
bool task_mem_block_pool_enabled(void);
// Gives back every object of the current thread's pools.
void task_mem_block_pool_empty(void);
// One trim step with a budget of 5000 objects; true when the round completed.
// Each pool gives back what it held when the round began, so objects used since
// stay; a step cut short by the budget goes on at the next call.
bool task_mem_block_pool_age(void);

// How the pool cleaner is scheduled: the task kernel installs a job starter;
// without one the owner calls task_mem_block_pool_age itself.
struct task_mem_pool_job_ops {
  void (*start)(void);  // start the job "memory pool cleaner" if it is not running
};
void task_mem_set_pool_job_ops(const task_mem_pool_job_ops *ops);

// The current thread's pools, head first (for reports and tests).
task_localpool *task_mem_thread_pools(void);

// ---- task_lite pools ----------------------------------------------------------
// A pool carves zeroed objects out of pages of TASK_LITE_PAGE bytes, charged to
// "--Pool--"; a request too big for a page gets an allocation of its own. The
// pool record comes from the block "je_task_lite_mpool_block". Objects are
// 16-byte aligned and never freed singly: the pool is reset or destroyed whole.

constexpr size_t TASK_LITE_PAGE = 4096;

struct task_lite_chunk;  // one allocation of a pool: a page, or one big object

struct task_lite_pool {
  task_lite_pool *tlp_next;      // on the pool list
  const char *tlp_name;          // not copied
  task_lite_chunk *tlp_chunks;   // allocations in use, newest first
  task_lite_chunk *tlp_spare;    // single pages kept by a reset, cleared
  char *tlp_free;                // next free byte of the current page
  size_t tlp_left;               // bytes left there
  uint32_t tlp_pages;            // pages held (in use and spare)
  uint32_t tlp_pages_hw;
  uint64_t tlp_bytes;            // bytes obtained from the allocator
  uint64_t tlp_bytes_hw;
};

// The largest object one allocation may ask for: 16 MiB. It bounds a pool
// object; anything bigger is a caller's mistake, fatal, not an allocation.
size_t task_memory_max_alloc_size_int(void);

task_lite_pool *task_lite_mpool(const char *name);
// Zeroed memory; a size over task_memory_max_alloc_size_int() is fatal.
void *task_lite_malloc(task_lite_pool *pool, size_t size);
// Keeps up to four single pages, cleared, and returns the rest.
void task_lite_mreset(task_lite_pool *pool);
// Returns everything; a pool not on the pool list (destroyed twice) is fatal.
void task_lite_mdestroy(task_lite_pool *pool);
// Pages held now, and the most ever.
void task_lite_pages(const task_lite_pool *pool, uint32_t *pages, uint32_t *high);

// ---- mem_temp ---------------------------------------------------------------------
// Sizes are rounded up to 8 bytes, the word of this platform, so that blocks
// stay 8-byte aligned in an aligned buffer. In debug mode each block follows a
// 16-byte header: the magic word, the block's length (header included) and the
// caller's return address (8 bytes here, which is why the header is 16 bytes
// and not 12). A free header holds MEM_TEMP_FILL; when a header still fits
// behind a block, a free one is planted there.

struct mem_temp {
  char *base;
  size_t size;
  size_t used;
  uint32_t flags;  // bit 0: debug (headers checked; the buffer must be pre-filled)
};

enum : uint32_t { MEM_TEMP_DEBUG = 0x1 };
constexpr uint32_t MEM_TEMP_FILL = 0xf5eef5ee;   // fill of a debug region, and a free header
constexpr uint32_t MEM_TEMP_MAGIC = 0xa110ca55;  // head of a debug allocation
constexpr size_t MEM_TEMP_HEAD = 16;             // debug header
constexpr size_t MEM_TEMP_ALIGN = 8;

// In debug mode the buffer is filled with MEM_TEMP_FILL here.
void mem_temp_init(mem_temp *region, void *buffer, size_t size, bool debug);
// Null when the region cannot hold size more bytes. In debug mode a header
// that is not free where the block would start is fatal (an overrun).
void *mem_temp_alloc(size_t size, mem_temp *region);
// Marks a debug block free (fatal if its header is not in use); the memory is
// not reclaimed until the region is initialised again.
void mem_temp_free(void *ptr, mem_temp *region);
// In debug mode: every block from the start up to `used` must have been freed
// and have a non-zero length, else fatal.
void mem_temp_sanity(mem_temp *region);
