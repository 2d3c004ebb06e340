// Where the memory went: the allocation history ring, the stack-trace leak
// detector, the allocator's profiler switch, the memory-high check and the
// memory reports. All are off or cheap in normal running.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "containers/patricia.h"

// ---- History ring -----------------------------------------------------------

struct task_mem_history {
  const void *tmh_ptr;
  uint32_t tmh_size;
  uint32_t tmh_seq;
  char tmh_type;       // 'A' allocation, 'F' free
  char tmh_class;      // 'c' cookie allocation, 'b' block object
  int16_t tmh_thread;
  uint32_t tmh_id;     // cookie or block id
  void *tmh_bt[9];     // return addresses: 6 in the cookie and block paths, 9 in the general recorder
};

// Makes the ring with `count` records (0 removes it). With wrap_dump, each wrap
// writes the whole ring to "/var/log/dbgtrace_<program>_<lsys>.<pid>.<n>.gz".
void task_mem_history_init(uint32_t count, bool wrap_dump);
// Records an event by hand (the general recorder, 9 frames).
void task_mem_history_add(const void *ptr, size_t size, char type, char cls, uint32_t id);
// Records left out while the ring was absent or the system not up.
uint64_t task_mem_history_misses(void);
// Records written so far, and the record of sequence number seq (null when it
// was overwritten or not written yet).
uint32_t task_mem_history_count(void);
const task_mem_history *task_mem_history_get(uint32_t seq);
// Writes the ring, oldest first, as gzip text; returns 0 or an errno value.
int task_mem_history_dump(const char *path);

// ---- Leak detector ------------------------------------------------------------
// Counts the cookie allocations of the process from its start; those numbered
// start to end - 1 (0 is the first after init) are remembered with their stack
// until freed. When the count reaches end, the detector stops and writes the
// stacks still holding memory to
// "/var/log/leak_detector_<program>_<lsys>.<pid>.<dump>.<allocations>", one line
// "<count>: <stack>" per stack. Inconsistencies disable it with a log message.
//
// A stack is up to 20 frames as "^%p " each; with 8-byte addresses that is up
// to 400 characters.

constexpr int TASK_LEAK_BT_FRAMES = 20;
constexpr size_t TASK_LEAK_BT_TEXT = TASK_LEAK_BT_FRAMES * 20 + 1;

// A stack and how many remembered allocations it holds (tree ld_bt).
struct task_leak_detector_bt {
  patricia_node ldb_node;
  int32_t ldb_count;
  char ldb_text[TASK_LEAK_BT_TEXT];
};

// A remembered allocation (tree ld_info, keyed by the pointer).
struct task_leak_detector_info {
  patricia_node ldi_node;
  void *ldi_ptr;
  task_leak_detector_bt *ldi_bt;
};

struct task_leak_detector {
  uint64_t ld_count;  // allocations seen since init
  uint64_t ld_start, ld_end;
  patricia_root ld_info;
  patricia_root ld_bt;
  uint32_t ld_dump_count;
  bool ld_initialized;
  bool ld_enabled;
};

// Once (until fini): makes the trees, keeps the window, and with enabled
// starts counting.
void task_leak_detector_init(uint64_t start, uint64_t end, bool enabled);
// What the allocator calls for each cookie allocation and free while the
// detector runs; a pointer it never saw is ignored.
void task_leak_detector_malloc(void *ptr);
void task_leak_detector_free(void *ptr);
// Stops, and drops everything it remembers; a node that cannot be removed is fatal.
void task_leak_detector_fini(void);
// Writes the dump now; returns 0 or an errno value (then logged).
int task_leak_detector_dump_traces(void);
// The detector's state, for reports and tests.
const task_leak_detector *task_leak_detector_state(void);

// ---- The allocator's profiler ---------------------------------------------------
// op 0 disables (a dump first), 1 enables (then a dump), 2 dumps; any other
// value is fatal, and so is a failing allocator call ("rc == 0"). Profiles go
// to "/var/log/heap_profile_<program>_<lsys>.<pid>.<n>.heap". Returns 0.
enum { TASK_MEM_PROF_DISABLE = 0, TASK_MEM_PROF_ENABLE = 1, TASK_MEM_PROF_DUMP = 2 };
int task_mem_leak_detection_jemalloc(int op);

// ---- Memory figures and the memory-high check -----------------------------------

struct task_mem_info {
  uint32_t task_pagesize;             // unit of the vector's page count
  uint32_t system_pagesize;
  uint64_t task_pages_in_use;         // as the vector said at the last check
  uint64_t task_pages_reported;       // high water of what was reported
  uint32_t task_percent_reported;
  uint32_t task_mem_high_percent;     // no report below this share of available memory (50)
  uint32_t task_mem_high_step;        // a further report needs this many percent more (5)
  uint64_t task_mem_available;        // bytes, at the last check
  uint64_t task_mem_total_bytes;      // totals of the last memory report
  uint64_t task_mem_total_max_bytes;
};
task_mem_info *task_mem_info_get(void);

// Physical memory in bytes from the sysctl "hw.512bmem"; 0, logged, if unknown.
uint64_t task_get_available_mem_internal(void);
// The periodic check (a timer of the task kernel runs it): when the pages in
// use rose past the last report and reach the threshold, logs
// "ZTASK_OS_MEMHIGH: Using %u KB of memory, %u percent of available".
void task_memory_timeout(void);

// ---- Reports ------------------------------------------------------------------
// Text only: this platform has no XML management interface, and the legacy
// page allocator (its size classes and page summary) is not built.

// The allocator report (blocks, per thread and local pool), the pool report
// (task_lite pools, and "--Pool--" per thread) and the malloc report (cookies).
// The run's totals land in task_mem_info.
void task_mgmt_show_mem_internals(FILE *fp);
// Pages the allocator holds against pages its live objects need, in total and
// per arena.
void task_mgmt_show_mem_fragmentation(FILE *fp);
