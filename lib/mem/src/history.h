// The allocation history ring, written on every allocation and free of the
// cookie and block paths while it exists.
#pragma once

#include <cstddef>
#include <cstdint>

#include <atomic>

struct task_mem_history;

// Non-null while the ring exists.
extern task_mem_history *mem_history_ring;
extern std::atomic<uint64_t> mem_history_missed;

void mem_history_write(const void *ptr, size_t size, char type, char cls, uint32_t id, int frames);

inline void mem_history_record(const void *ptr, size_t size, char type, char cls, uint32_t id, int frames) {
  if (__builtin_expect(mem_history_ring != nullptr, 0)) return mem_history_write(ptr, size, type, cls, id, frames);
  // Counted without a locked add: the hot path stays free of atomics, and a
  // lost count of a miss harms nothing.
  mem_history_missed.store(mem_history_missed.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}
