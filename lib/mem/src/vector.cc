// The table of call vectors, the choice among them, and the memory system's start.
#include <cerrno>
#include <cstdio>

#include "evlog/evlog.h"
#include "internal.h"

std::atomic<bool> mem_up{false};
bool mem_use_libc = false;
const task_mem_vector *mem_vector = &mem_libc_vector;

namespace {

const task_mem_vector *table[3] = {&mem_libc_vector, nullptr, &mem_jemalloc_vector};
unsigned current = 0;
bool force_legacy = false;
bool started = false;

// The legacy page allocator is not built: say so wherever it is asked for.
int no_legacy(const char *who) {
  fprintf(stderr, "%s: the legacy page allocator is not built; staying with jemalloc\n", who);
  logging(3, "%s: the legacy page allocator is not built; staying with jemalloc", who);
  return ENOSYS;
}

int install(unsigned index, const char *who) {
  if (!table[index]) {
    current = TASK_MEM_VECTOR_JEMALLOC;
    mem_vector = table[current];
    return no_legacy(who);
  }
  current = index;
  mem_vector = table[index];
  return 0;
}

}  // namespace

void task_mem_vector_set(const task_mem_vector *v, unsigned index) {
  if (index > 2) return;
  table[index] = v;
}

unsigned task_mem_vector_index(void) { return current; }

const task_mem_vector *task_mem_vector_get(unsigned index) { return index > 2 ? nullptr : table[index]; }

void task_mem_force_legacy(bool on) { force_legacy = on; }

int task_mem_call_vector_select(void) {
  unsigned index = current ? current : unsigned{TASK_MEM_VECTOR_JEMALLOC};
  if (force_legacy) index = TASK_MEM_VECTOR_LEGACY;
  return install(index, "task_mem_call_vector_select");
}

int task_mem_call_vector_toggle(void) {
  switch (current) {
    case TASK_MEM_VECTOR_JEMALLOC:
      current = TASK_MEM_VECTOR_LEGACY;
      break;
    case TASK_MEM_VECTOR_LEGACY:
      // Stores 2 and falls on into the store of 1: legacy stays legacy.
      current = TASK_MEM_VECTOR_JEMALLOC;
      current = TASK_MEM_VECTOR_LEGACY;
      break;
    default:
      MEM_FATAL("task_mem_call_vector_toggle", "!\"Vague Toggle\"");
      return EINVAL;
  }
  return install(current, "task_mem_call_vector_toggle");
}

int task_memory_init(void *arg) {
  if (started) {
    task_memory_touch_file_check(2);
    return 0;
  }
  started = true;
  int rc = task_mem_call_vector_select();
  task_memory_touch_file_check(1);
  if (rc && rc != ENOSYS) return rc;
  if (mem_vector->tmv_memory_init) rc = mem_vector->tmv_memory_init(arg);
  if (rc == 0) mem_up.store(true, std::memory_order_release);
  return rc;
}

bool task_memory_is_up(void) { return mem_up.load(std::memory_order_acquire); }
bool task_memory_libc_malloc_in_use(void) { return mem_use_libc; }
