// Cookies: named accounting records, their list, and the per-thread counters.
//
// Bookkeeping (cookie records, counter records, slot arrays) comes from the
// system allocator, so that counting never re-enters the front door.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "internal.h"

namespace {

std::atomic<uint32_t> next_cookie_id{1};
std::atomic<unsigned> thread_slots{1};  // main thread only until contexts grow it

// The cookie list, keyed by id. The hot path never touches it.
lfll_list cookie_list;
bool list_ready = false;

lfll_node *node_of(task_mem_cookie *c) { return &c->tmc_next; }
task_mem_cookie *cookie_of(lfll_node *n) { return LFLL_ENTRY(n, task_mem_cookie, tmc_next); }


task_mem_thread_counts *record(task_mem_thread_counts **arr, int t) {
  task_mem_thread_counts *r = arr[t];
  if (!r) {
    r = static_cast<task_mem_thread_counts *>(__libc_calloc(1, sizeof *r));
    if (!r) MEM_FATAL("task_mem_thread_counts", "(rc ==0)");
    arr[t] = r;
  }
  return r;
}

void atomic_max(int64_t *hw, int64_t v) {
  int64_t cur = __atomic_load_n(hw, __ATOMIC_RELAXED);
  while (v > cur && !__atomic_compare_exchange_n(hw, &cur, v, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
}

void off_slot(int64_t bytes, int64_t allocs) {
  task_mem_cookie *o = task_mem_orphan_cookie;
  if (!o) return;
  int64_t b = __atomic_add_fetch(&o->tmc_bytes, bytes, __ATOMIC_RELAXED);
  int64_t a = __atomic_add_fetch(&o->tmc_allocs, allocs, __ATOMIC_RELAXED);
  __atomic_add_fetch(&o->tmc_ops, 1, __ATOMIC_RELAXED);
  if (allocs < 0) {
    __atomic_add_fetch(&o->tmc_freed_bytes, -bytes, __ATOMIC_RELAXED);
    __atomic_add_fetch(&o->tmc_frees, 1, __ATOMIC_RELAXED);
  }
  atomic_max(&o->tmc_bytes_hw, b);
  atomic_max(&o->tmc_allocs_hw, a);
}


task_mem_cookie fixed[5];
const char *const fixed_names[5] = {"--Orphan--", "--System--", "--Anonymous--", "--Pool--", "--LFLL--"};

void init_cookie(task_mem_cookie *c, const char *name, void *owner) {
  *c = task_mem_cookie{};
  c->tmc_id = next_cookie_id.fetch_add(1, std::memory_order_relaxed);
  c->tmc_name = name;
  c->tmc_owner = owner;
  c->tmc_thread_slots = thread_slots.load();
  c->tmc_threads = mem_slot_array(c->tmc_thread_slots);
}

bool link(task_mem_cookie *c) {
  if (!list_ready) {
    lfll_list_init(&cookie_list);
    list_ready = true;
  }
  return lfll_list_insert(&cookie_list, node_of(c), c->tmc_id);
}

}  // namespace

task_mem_cookie *task_mem_orphan_cookie, *task_mem_system_cookie, *task_mem_anonymous_cookie,
    *task_mem_pool_cookie, *task_mem_lfll_cookie;
task_mem_cookie task_mem_libc_cookie = {{}, 0xfffe, "--libc--", nullptr, 0, 0, 0, 0, 0, 0, 0, 0, nullptr, nullptr};

constinit thread_local int mem_thread_slot = -2;

int mem_thread_slot_decide(void) {
  mem_thread_slot = syscall(SYS_gettid) == getpid() ? 0 : -1;
  return mem_thread_slot;
}

int task_mem_thread_index(void) { return mem_thread(); }

void task_mem_set_thread_index(int index) { mem_thread_slot = index; }

task_mem_thread_counts **mem_slot_array(unsigned n) {
  auto **a = static_cast<task_mem_thread_counts **>(__libc_calloc(n, sizeof(void *)));
  if (!a) MEM_FATAL("mem_slot_array", "(rc ==0)");
  return a;
}

unsigned mem_thread_slots(void) { return thread_slots.load(std::memory_order_relaxed); }

void mem_count_slow(task_mem_thread_counts **arr, uint32_t slots, int64_t bytes, bool alloc) {
  int t = mem_thread();
  if (t < 0 || static_cast<unsigned>(t) >= slots) return alloc ? off_slot(bytes, 1) : off_slot(-bytes, -1);
  record(arr, t);  // the thread's first count: make its record, then count as usual
  mem_count(arr, slots, bytes, alloc);
}

void mem_orphan_take(int64_t bytes, int64_t allocs) {
  task_mem_cookie *o = task_mem_orphan_cookie;
  if (!o || (bytes <= 0 && allocs <= 0)) return;
  int64_t b = __atomic_add_fetch(&o->tmc_bytes, bytes > 0 ? bytes : 0, __ATOMIC_RELAXED);
  int64_t a = __atomic_add_fetch(&o->tmc_allocs, allocs > 0 ? allocs : 0, __ATOMIC_RELAXED);
  atomic_max(&o->tmc_bytes_hw, b);
  atomic_max(&o->tmc_allocs_hw, a);
}

void mem_fixed_cookies_init(void) {
  task_mem_cookie **slots[5] = {&task_mem_orphan_cookie, &task_mem_system_cookie, &task_mem_anonymous_cookie,
                                &task_mem_pool_cookie, &task_mem_lfll_cookie};
  for (int i = 0; i < 5; i++) {
    init_cookie(&fixed[i], fixed_names[i], nullptr);
    link(&fixed[i]);
    *slots[i] = &fixed[i];
  }
  if (!task_mem_libc_cookie.tmc_threads) {
    task_mem_libc_cookie.tmc_thread_slots = thread_slots.load();
    task_mem_libc_cookie.tmc_threads = mem_slot_array(task_mem_libc_cookie.tmc_thread_slots);
  }
}

int mem_cookie_make(const char *name, void *owner, task_mem_cookie **out) {
  auto *c = static_cast<task_mem_cookie *>(task_block_alloc(mem_cookie_block));
  init_cookie(c, name, owner);
  if (!link(c)) {
    __libc_free(c->tmc_threads);
    task_block_free(mem_cookie_block, c);
    return 14;
  }
  *out = c;
  return 0;
}

int mem_cookie_release(task_mem_cookie *c) {
  if (!list_ready) return 3;
  lfll_node *found = lfll_list_lookup(&cookie_list, c->tmc_id);
  if (!found) return 3;
  if (cookie_of(found) != c) {
    MEM_FATAL("task_mem_cookie_put", "tmc == tmc_ptr");
    return 3;
  }
  lfll_list_delete(&cookie_list, found);
  // What was never freed moves to the orphan cookie.
  size_t bytes = 0, allocs = 0;
  task_mem_cookie_get_allocated(c, &bytes, &allocs);
  if (c != task_mem_orphan_cookie) mem_orphan_take(static_cast<int64_t>(bytes), static_cast<int64_t>(allocs));
  for (unsigned i = 0; i < c->tmc_thread_slots; i++) __libc_free(c->tmc_threads[i]);
  __libc_free(c->tmc_threads);
  __libc_free(c->tmc_threads_old);
  bool is_fixed = c >= fixed && c < fixed + 5;
  if (!is_fixed) task_block_free(mem_cookie_block, c);
  return 0;
}

void mem_cookie_walk_fn(void (*fn)(task_mem_cookie *, void *), void *arg) {
  if (list_ready) lfll_each(&cookie_list, [&](lfll_node *n) { fn(cookie_of(n), arg); });
}

int task_mem_cookie_get_allocated(task_mem_cookie *c, size_t *bytes, size_t *allocations) {
  if (!c) {
    *bytes = *allocations = 0;
    return 0;
  }
  int64_t b = __atomic_load_n(&c->tmc_bytes, __ATOMIC_RELAXED);
  int64_t a = __atomic_load_n(&c->tmc_allocs, __ATOMIC_RELAXED);
  for (unsigned i = 0; i < c->tmc_thread_slots; i++)
    if (task_mem_thread_counts *r = c->tmc_threads[i]) {
      b += r->tmt_bytes;
      a += r->tmt_allocs;
    }
  *bytes = b > 0 ? static_cast<size_t>(b) : 0;
  *allocations = a > 0 ? static_cast<size_t>(a) : 0;
  return 0;
}

task_mem_cookie *mem_zone_owner(task_mem_cookie *given, uint32_t rz) {
  task_mem_cookie *order[4] = {given, task_mem_anonymous_cookie, task_mem_system_cookie, &task_mem_libc_cookie};
  for (task_mem_cookie *c : order)
    if (c && rz == mem_cookie_zone(c)) return c;
  return nullptr;
}

void task_mem_thread_slots_grow(unsigned count) {
  if (count <= thread_slots.load()) return;
  thread_slots.store(count);
  auto grow = [](task_mem_cookie *c, void *arg) {
    unsigned n = *static_cast<unsigned *>(arg);
    if (n <= c->tmc_thread_slots) return;
    task_mem_thread_counts **a = mem_slot_array(n);
    memcpy(a, c->tmc_threads, c->tmc_thread_slots * sizeof(void *));
    // Another thread may still be reading the old array: keep it one round.
    __libc_free(c->tmc_threads_old);
    c->tmc_threads_old = c->tmc_threads;
    __atomic_store_n(&c->tmc_threads, a, __ATOMIC_RELEASE);
    __atomic_store_n(&c->tmc_thread_slots, n, __ATOMIC_RELEASE);
  };
  mem_cookie_walk_fn(grow, &count);
  grow(&task_mem_libc_cookie, &count);
  mem_blocks_grow(count);
  mem_pools_grow(count);
}
