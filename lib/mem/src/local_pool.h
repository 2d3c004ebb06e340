// The local pools' fast paths, inline in the block allocator: a pop or a push
// on the calling thread's own list, nothing else.
#pragma once

#include "internal.h"
#include "mem/pool.h"

extern bool mem_pools_on;
// True when a put must tell the scheduler to start the pool cleaner.
extern bool mem_pool_job_wanted;

bool mem_pool_put_slow(task_block *bp, int t, void *obj);
void mem_pool_thread_fault(void);

inline void *mem_pool_take(task_block *bp, int t) {
  if (!(bp->tb_flags & TASK_BLOCK_LOCAL_POOL) || !mem_pools_on || t < 0) return nullptr;
  if (MEM_UNLIKELY(static_cast<uint32_t>(t) >= bp->tb_lp_count)) {
    mem_pool_thread_fault();
    return nullptr;
  }
  task_localpool *lp = bp->tb_lp[t];
  if (!lp || !lp->lp_head) return nullptr;
  void *obj = lp->lp_head;
  lp->lp_head = *static_cast<void **>(obj);
  lp->lp_count--;
  if (lp->lp_trim > lp->lp_count) lp->lp_trim = lp->lp_count;
  return obj;
}

inline bool mem_pool_put(task_block *bp, int t, void *obj) {
  if (!(bp->tb_flags & TASK_BLOCK_LOCAL_POOL) || !mem_pools_on || t < 0) return false;
  task_localpool *lp = static_cast<uint32_t>(t) < bp->tb_lp_count ? bp->tb_lp[t] : nullptr;
  if (MEM_UNLIKELY(!lp || mem_junk || mem_pool_job_wanted)) return mem_pool_put_slow(bp, t, obj);
  *static_cast<void **>(obj) = lp->lp_head;
  lp->lp_head = obj;
  lp->lp_count++;
  lp->lp_done = 0;
  return true;
}
