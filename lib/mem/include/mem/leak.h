// Where the memory went: the allocation history ring, the stack-trace leak
// detector, the allocator's profiler switch, the memory-high check and the
// memory reports. All are off or cheap in normal running.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

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
