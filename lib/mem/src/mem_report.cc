// The memory reports of the management channel: blocks, pools and cookies,
// and the allocator's fragmentation. Counters of other threads are read
// without a lock: a figure may be a moment old, which a report can bear.
#include <cstdio>

#include "internal.h"
#include "jem.h"
#include "mem/leak.h"
#include "mem/pool.h"

namespace {

const char *const rule = "-------------------------------------------------------------------------\n";

struct sums {
  int64_t allocs = 0, bytes = 0, allocs_hw = 0, bytes_hw = 0;
  uint64_t ops = 0, frees = 0, freed = 0;
  void add(const task_mem_thread_counts &r) {
    allocs += r.tmt_allocs;
    bytes += r.tmt_bytes;
    allocs_hw += r.tmt_allocs_hw;
    bytes_hw += r.tmt_bytes_hw;
    ops += r.tmt_ops;
    frees += r.tmt_frees;
    freed += r.tmt_freed_bytes;
  }
};

unsigned long ul(int64_t v) { return v > 0 ? static_cast<unsigned long>(v) : 0; }

// The block's flags as the report's DTXP column: Debug, own arena (T),
// no red zone (X), local Pool.
void flag_text(uint16_t f, char *out) {
  int n = 0;
  if (f & TASK_BLOCK_DEBUG) out[n++] = 'D';
  if (f & TASK_BLOCK_OWN_ARENA) out[n++] = 'T';
  if (f & TASK_BLOCK_NO_REDZONE) out[n++] = 'X';
  if (f & TASK_BLOCK_LOCAL_POOL) out[n++] = 'P';
  out[n] = '\0';
}

struct report {
  FILE *fp;
  uint64_t bytes = 0, bytes_hw = 0;
};

void block_rows(task_block *bp, void *arg) {
  auto *r = static_cast<report *>(arg);
  uint32_t slots = __atomic_load_n(&bp->tb_lp_count, __ATOMIC_ACQUIRE);
  sums s;
  for (uint32_t t = 0; t < slots; t++)
    if (const task_mem_thread_counts *c = bp->tb_threads[t]) s.add(*c);
  // The row's format carries a '0' flag on a string, which printf ignores;
  // the established format stays as it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  fprintf(r->fp, "%-022.22s %-5u %-7lu %-6c %-9lu %-9lu %-9lu %-9lu {%lu}\n", bp->tb_name, unsigned{bp->tb_size}, static_cast<unsigned long>(bp->tb_real_size),
          (bp->tb_flags & TASK_BLOCK_OWN_ARENA) ? 'T' : ' ', ul(s.allocs), ul(s.bytes), ul(s.allocs_hw),
          ul(s.bytes_hw), static_cast<unsigned long>(s.ops));
#pragma GCC diagnostic pop
  char flags[8];
  flag_text(bp->tb_flags, flags);
  for (uint32_t t = 0; t < slots; t++) {
    if (const task_mem_thread_counts *c = bp->tb_threads[t])
      fprintf(r->fp, " [%03d %-15.15s [%-5u %-6u] %-6s %-9ld %-9ld %-9ld %-9ld [%-9ld]]\n", static_cast<int>(t),
              bp->tb_name, unsigned{bp->tb_size}, bp->tb_real_size, flags, static_cast<long>(c->tmt_allocs),
              static_cast<long>(c->tmt_bytes), static_cast<long>(c->tmt_allocs_hw),
              static_cast<long>(c->tmt_bytes_hw), static_cast<long>(c->tmt_ops));
    if (const task_localpool *lp = bp->tb_lp ? bp->tb_lp[t] : nullptr)
      fprintf(r->fp, " {%03d %-15.15s [%-5u %-6u] %-6s %-9ld %-9ld %-9ld %-9ld }\n", static_cast<int>(t),
              bp->tb_name, unsigned{bp->tb_size}, bp->tb_real_size, flags, static_cast<long>(lp->lp_count),
              static_cast<long>(lp->lp_count) * static_cast<long>(bp->tb_real_size), static_cast<long>(lp->lp_trim),
              static_cast<long>(lp->lp_done));
  }
  r->bytes += ul(s.bytes);
  r->bytes_hw += ul(s.bytes_hw);
}

struct pool_totals {
  FILE *fp;
  uint64_t pages = 0, bytes = 0;
};

void pool_row(task_lite_pool *p, void *arg) {
  auto *r = static_cast<pool_totals *>(arg);
  fprintf(r->fp, "%-26.26s  %-8ld %-8ld %-8ld %-8ld \n", p->tlp_name ? p->tlp_name : "", static_cast<long>(p->tlp_pages),
          static_cast<long>(p->tlp_bytes), static_cast<long>(p->tlp_pages_hw), static_cast<long>(p->tlp_bytes_hw));
  r->pages += p->tlp_pages;
  r->bytes += p->tlp_bytes;
}

void cookie_rows(task_mem_cookie *c, void *arg) {
  auto *r = static_cast<report *>(arg);
  uint32_t slots = __atomic_load_n(&c->tmc_thread_slots, __ATOMIC_ACQUIRE);
  task_mem_thread_counts **threads = __atomic_load_n(&c->tmc_threads, __ATOMIC_ACQUIRE);
  sums s;
  for (uint32_t t = 0; t < slots; t++)
    if (const task_mem_thread_counts *rec = threads[t]) s.add(*rec);
  size_t bytes = 0, allocs = 0;
  task_mem_cookie_get_allocated(c, &bytes, &allocs);
  int64_t allocs_hw = s.allocs_hw + __atomic_load_n(&c->tmc_allocs_hw, __ATOMIC_RELAXED);
  int64_t bytes_hw = s.bytes_hw + __atomic_load_n(&c->tmc_bytes_hw, __ATOMIC_RELAXED);
  uint64_t ops = s.ops + __atomic_load_n(&c->tmc_ops, __ATOMIC_RELAXED);
  fprintf(r->fp, "%-26.26s %-8lu %-8lu %-8lu %-8lu %-8lu {%lu}\n", c->tmc_name ? c->tmc_name : "",
          static_cast<unsigned long>(allocs), static_cast<unsigned long>(bytes), ul(allocs_hw), ul(bytes_hw),
          static_cast<unsigned long>(ops), static_cast<unsigned long>(c->tmc_id));
  for (uint32_t t = 0; t < slots; t++)
    if (const task_mem_thread_counts *rec = threads[t])
      fprintf(r->fp, " [%03d %-20.20s %-8ld %-8ld %-8ld %-8ld %-8ld [%-8ld %-8ld] ]\n", static_cast<int>(t),
              c->tmc_name ? c->tmc_name : "", static_cast<long>(rec->tmt_allocs), static_cast<long>(rec->tmt_bytes),
              static_cast<long>(rec->tmt_allocs_hw), static_cast<long>(rec->tmt_bytes_hw),
              static_cast<long>(rec->tmt_ops), static_cast<long>(rec->tmt_frees),
              static_cast<long>(rec->tmt_freed_bytes));
  r->bytes += bytes;
  r->bytes_hw += ul(bytes_hw);
}

// Pool memory per thread, as "--Pool--" counted it.
void pool_cookie_rows(FILE *fp) {
  task_mem_cookie *c = task_mem_pool_cookie;
  if (!c) return;
  uint32_t slots = __atomic_load_n(&c->tmc_thread_slots, __ATOMIC_ACQUIRE);
  task_mem_thread_counts **threads = __atomic_load_n(&c->tmc_threads, __ATOMIC_ACQUIRE);
  for (uint32_t t = 0; t < slots; t++)
    if (const task_mem_thread_counts *rec = threads[t])
      fprintf(fp, " [%03d %-20.20s  %-8ld %-8ld %-8ld %-8ld [%-8ld %-8ld] ]\n", static_cast<int>(t), c->tmc_name,
              static_cast<long>(rec->tmt_bytes / static_cast<int64_t>(TASK_LITE_PAGE)),
              static_cast<long>(rec->tmt_bytes),
              static_cast<long>(rec->tmt_bytes_hw / static_cast<int64_t>(TASK_LITE_PAGE)),
              static_cast<long>(rec->tmt_bytes_hw), static_cast<long>(rec->tmt_allocs),
              static_cast<long>(rec->tmt_frees));
}

template <typename T>
bool ctl(const char *name, T *out) {
  size_t len = sizeof *out;
  return jem_mallctl(name, out, &len, nullptr, 0) == 0 && len == sizeof *out;
}

void frag_line(FILE *fp, const char *name, size_t active, size_t allocated, size_t page) {
  double needed = static_cast<double>(allocated) / static_cast<double>(page);
  size_t in_use = active / page;
  double frag = in_use ? 100.0 * (1.0 - needed / static_cast<double>(in_use)) : 0.0;
  fprintf(fp, "%s: pages in use %4zu pages needed %2.2f", name, in_use, needed);
  fprintf(fp, "\tfragmentation %2.2f%%\n", frag);
}

}  // namespace

void task_mgmt_show_mem_internals(FILE *fp) {
  task_mem_info *info = task_mem_info_get();
  bool libc = mem_use_libc || mem_vector != &mem_jemalloc_vector;
  fprintf(fp, "Memory allocator: %s\n", libc ? "libc" : "jemalloc");
  fprintf(fp, "------------------------ Allocator Memory Report ------------------------\n");
  fprintf(fp, "Name                 Size Alloc DTXP    Alloc     Alloc MaxAlloc  MaxAlloc \n");
  fprintf(fp, "                           Size       Blocks     Bytes   Blocks     Bytes \n");
  report blocks{fp};
  task_block_walk(block_rows, &blocks);
  fputs(rule, fp);
  fprintf(fp, "                                                %lu           %lu\n",
          static_cast<unsigned long>(blocks.bytes), static_cast<unsigned long>(blocks.bytes_hw));

  fprintf(fp, "-------------------------- Pool Usage Report ----------------\n");
  fprintf(fp, "Name                      Pages     Bytes MaxPages  MaxBytes \n");
  pool_totals pools{fp};
  mem_lite_walk(pool_row, &pools);
  pool_cookie_rows(fp);
  fprintf(fp, "                                   %lu             %lu\n", static_cast<unsigned long>(pools.pages),
          static_cast<unsigned long>(pools.bytes));

  fprintf(fp, "-------------------------- Malloc Usage Report --------------------------\n");
  fprintf(fp, "Name                      Allocs     Bytes MaxAllocs  MaxBytes  FuncCalls \n");
  report cookies{fp};
  mem_cookie_walk_fn(cookie_rows, &cookies);
  cookie_rows(&task_mem_libc_cookie, &cookies);
  fprintf(fp, "                                     %lu               %lu\n", static_cast<unsigned long>(cookies.bytes),
          static_cast<unsigned long>(cookies.bytes_hw));

  // Pool pages are cookie allocations ("--Pool--"): counted once, there.
  info->task_mem_total_bytes = blocks.bytes + cookies.bytes;
  info->task_mem_total_max_bytes = blocks.bytes_hw + cookies.bytes_hw;
}

void task_mgmt_show_mem_fragmentation(FILE *fp) {
  uint64_t epoch = 1;
  size_t len = sizeof epoch;
  jem_mallctl("epoch", &epoch, &len, &epoch, len);
  fprintf(fp, "\nAllocator fragmentation summary:\n");
  size_t page = 0, active = 0, allocated = 0;
  if (ctl("arenas.page", &page) && page && ctl("stats.active", &active) && ctl("stats.allocated", &allocated))
    frag_line(fp, "jemalloc", active, allocated, page);
  unsigned narenas = 0;
  if (page) ctl("arenas.narenas", &narenas);
  for (unsigned i = 0; i < narenas; i++) {
    char key[64], name[32];
    size_t pactive = 0, small = 0, large = 0;
    snprintf(key, sizeof key, "stats.arenas.%u.pactive", i);
    if (!ctl(key, &pactive) || pactive == 0) continue;
    snprintf(key, sizeof key, "stats.arenas.%u.small.allocated", i);
    if (!ctl(key, &small)) continue;
    snprintf(key, sizeof key, "stats.arenas.%u.large.allocated", i);
    if (!ctl(key, &large)) continue;
    snprintf(name, sizeof name, "jemalloc arena %u", i);
    frag_line(fp, name, pactive * page, small + large, page);
  }
  if (mem_use_libc || mem_vector != &mem_jemalloc_vector) {
    task_mem_status st{};
    if (mem_vector->tmv_status && mem_vector->tmv_status(&st) == 0)
      frag_line(fp, "libc", st.tms_bytes_active, st.tms_bytes_allocated, TASK_LITE_PAGE);
  }
}
