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

struct task_lite_pool;  // one pool, made by task_lite_mpool

// The largest object one allocation may ask for.
size_t task_memory_max_alloc_size_int(void);

task_lite_pool *task_lite_mpool(const char *name);
void *task_lite_malloc(task_lite_pool *pool, size_t size);
// Keeps up to four single pages, cleared, and returns the rest.
void task_lite_mreset(task_lite_pool *pool);
void task_lite_mdestroy(task_lite_pool *pool);
// Pages held now, and the most ever.
void task_lite_pages(const task_lite_pool *pool, uint32_t *pages, uint32_t *high);

// ---- mem_temp ---------------------------------------------------------------------

struct mem_temp {
  char *base;
  size_t size;
  size_t used;
  uint32_t flags;  // bit 0: debug (headers checked; the buffer must be pre-filled)
};

enum : uint32_t { MEM_TEMP_DEBUG = 0x1 };
constexpr uint32_t MEM_TEMP_FILL = 0xf5eef5ee;   // fill of a debug region
constexpr uint32_t MEM_TEMP_MAGIC = 0xa110ca55;  // head of a debug allocation

// In debug mode the buffer is filled with MEM_TEMP_FILL here.
void mem_temp_init(mem_temp *region, void *buffer, size_t size, bool debug);
// Null when the region cannot hold size more bytes.
void *mem_temp_alloc(size_t size, mem_temp *region);
void mem_temp_free(void *ptr, mem_temp *region);
void mem_temp_sanity(mem_temp *region);
