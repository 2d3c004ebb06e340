// Local pools: freed block objects kept per thread for quick reuse, given back
// gradually by the pool cleaner.
#include <cstring>
#include <vector>

#include "local_pool.h"

bool mem_junk = false;
bool mem_pools_on = true;
bool mem_pool_job_wanted = false;

namespace {

// What a thread keeps: its pools, and whether a trim round is under way.
struct thread_pools {
  task_localpool *pools = nullptr;
  bool round = false;
};

const task_mem_pool_job_ops *job_ops = nullptr;
bool job_running = false;
std::vector<thread_pools> threads(1);  // index 0: the main thread; grown on thread 0
std::vector<task_localpool **> retired;
task_block *pool_block = nullptr;      // "localpool"

thread_pools *mine() {
  int t = mem_thread();
  return t >= 0 && static_cast<size_t>(t) < threads.size() ? &threads[t] : nullptr;
}

task_localpool *pool_of(task_block *bp, int t, bool make) {
  if (static_cast<uint32_t>(t) >= bp->tb_lp_count) {
    MEM_FATAL("task_localpool", "thr < this->tb_lp_count");
    return nullptr;
  }
  task_localpool *lp = bp->tb_lp[t];
  if (!lp && make) {
    if (!pool_block) pool_block = task_block_init(sizeof(task_localpool), "localpool");
    lp = static_cast<task_localpool *>(task_block_alloc(pool_block));
    lp->lp_block = bp;
    lp->lp_next = threads[t].pools;
    threads[t].pools = lp;
    bp->tb_lp[t] = lp;
  }
  return lp;
}

void *pop(task_localpool *lp) {
  void *obj = lp->lp_head;
  lp->lp_head = *static_cast<void **>(obj);
  lp->lp_count--;
  return obj;
}

// Gives back up to n objects of lp; returns how many went.
uint32_t give_back(task_localpool *lp, uint32_t n) {
  uint32_t done = 0;
  while (done < n && lp->lp_head) {
    mem_block_release(lp->lp_block, pop(lp));
    done++;
  }
  return done;
}

}  // namespace

void mem_pool_thread_fault(void) { MEM_FATAL("task_localpool", "thr < this->tb_lp_count"); }

bool mem_pool_put_slow(task_block *bp, int t, void *obj) {
  task_localpool *lp = pool_of(bp, t, true);
  if (!lp) return false;
  if (mem_junk) memset(obj, 0x5a, bp->tb_size);
  *static_cast<void **>(obj) = lp->lp_head;
  lp->lp_head = obj;
  lp->lp_count++;
  lp->lp_done = 0;
  if (mem_pool_job_wanted) {
    job_running = true;
    mem_pool_job_wanted = false;
    job_ops->start();
  }
  return true;
}

void mem_pool_drain_block(task_block *bp) {
  for (uint32_t t = 0; t < bp->tb_lp_count; t++)
    if (task_localpool *lp = bp->tb_lp[t]) {
      give_back(lp, UINT32_MAX);
      lp->lp_trim = 0;
    }
}

void mem_pool_retire(task_localpool **old) { retired.push_back(old); }

void mem_pools_grow(unsigned slots) {
  if (task_mem_thread_index() != 0) {
    MEM_FATAL("localpool_rebuild", "thr == 0");
    return;
  }
  if (slots > threads.size()) threads.resize(slots);
}

void task_mem_block_pool_enable(void) { mem_pools_on = true; }

void task_mem_block_pool_disable(void) {
  mem_pools_on = false;
  task_mem_block_pool_empty();
}

bool task_mem_block_pool_enabled(void) { return mem_pools_on; }

void task_mem_block_pool_empty(void) {
  thread_pools *tp = mine();
  if (!tp) return;
  for (task_localpool *lp = tp->pools; lp; lp = lp->lp_next) {
    give_back(lp, UINT32_MAX);
    lp->lp_trim = 0;
    lp->lp_done = 1;
  }
  tp->round = false;
}

bool task_mem_block_pool_age(void) {
  thread_pools *tp = mine();
  if (!tp) return true;
  if (!tp->round) {
    // A round gives back what each pool holds now; what is used meanwhile stays.
    for (task_localpool *lp = tp->pools; lp; lp = lp->lp_next) {
      lp->lp_trim = lp->lp_count;
      lp->lp_done = lp->lp_count == 0;
    }
    tp->round = true;
  }
  uint32_t budget = 5000;
  for (task_localpool *lp = tp->pools; lp && budget; lp = lp->lp_next) {
    if (lp->lp_done) continue;
    uint32_t want = lp->lp_trim < budget ? lp->lp_trim : budget;
    uint32_t gone = give_back(lp, want);
    budget -= gone;
    lp->lp_trim -= gone < lp->lp_trim ? gone : lp->lp_trim;
    if (lp->lp_trim == 0) {
      lp->lp_done = 1;
      lp->lp_trim = lp->lp_count;
    }
  }
  for (task_localpool *lp = tp->pools; lp; lp = lp->lp_next)
    if (!lp->lp_done) return false;
  tp->round = false;
  // The round is over: the cleaner ends, and the next put starts it again.
  job_running = false;
  mem_pool_job_wanted = job_ops && job_ops->start;
  return true;
}

void task_mem_set_pool_job_ops(const task_mem_pool_job_ops *ops) {
  job_ops = ops;
  mem_pool_job_wanted = ops && ops->start && !job_running;
}

task_localpool *task_mem_thread_pools(void) {
  thread_pools *tp = mine();
  return tp ? tp->pools : nullptr;
}
