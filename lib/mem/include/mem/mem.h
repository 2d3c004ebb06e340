// Memory: the process's allocator front door and its accounting.
//
// The framework defines the malloc family itself, so that every allocation of
// the process, C++ and platform libraries included, is charged to a cookie (a
// named accounting record). The front door only dispatches to the call vector
// in force: libc (before initialisation) or jemalloc (the default). Legacy, the
// old page allocator, is not built here: asking for it fails with a message.
//
// Every allocation is zeroed and carries a head (the size obtained) and a zone
// word naming the cookie. Up to 876 bytes (and for small aligned requests and
// the libc vector) the head is 16 bytes in front of the payload and the zone
// the block's last word. From 877 bytes on, where a head in front would push
// the block into the allocator's next size class (1 KiB into 1,280 bytes), the
// block is the size class of the request itself (1 KiB at least), taken from
// an arena over a reserved range of address space, and head and zone stand in
// a side table beside that range; the block's last word is a red zone as well
// when the class leaves four bytes after the request. A block freed twice, a
// large block freed at an address inside it, or a red zone overrun ends the
// process. No caller ever sees a null from an allocator: out of memory is
// fatal.
//
// Sanitizer builds compile the front door under tvx_fd_* names, so that the
// sanitizer's allocator serves the process and this logic is still tested.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "containers/lfll.h"

struct task;
struct task_block;

// ---- Cookies --------------------------------------------------------------

// What one thread did under one cookie.
struct task_mem_thread_counts {
  int64_t tmt_bytes;      // in use
  int64_t tmt_bytes_hw;   // high water
  int64_t tmt_allocs;     // in use
  int64_t tmt_allocs_hw;  // high water
  uint64_t tmt_ops;       // allocations and frees
  uint64_t tmt_freed_bytes;
  uint64_t tmt_frees;
};

struct task_mem_cookie {
  lfll_node tmc_next;       // link on the cookie list, keyed by tmc_id
  uint32_t tmc_id;          // low 16 bits stand in the red zone
  const char *tmc_name;     // not copied
  void *tmc_owner;
  // Work done off the per-thread records (threads without a slot), by atomics.
  int64_t tmc_bytes, tmc_bytes_hw, tmc_allocs, tmc_allocs_hw;
  uint64_t tmc_ops, tmc_freed_bytes, tmc_frees;
  uint32_t tmc_thread_slots;                // length of tmc_threads
  task_mem_thread_counts **tmc_threads;     // per thread index, made on first use
  task_mem_thread_counts **tmc_threads_old; // the array before the last growth
};

// The fixed cookies, made at initialisation in this order.
extern task_mem_cookie *task_mem_orphan_cookie;     // "--Orphan--"
extern task_mem_cookie *task_mem_system_cookie;     // "--System--": the bare front door
extern task_mem_cookie *task_mem_anonymous_cookie;  // "--Anonymous--": a null task
extern task_mem_cookie *task_mem_pool_cookie;       // "--Pool--": pool overhead
extern task_mem_cookie *task_mem_lfll_cookie;       // "--LFLL--": list nodes
extern task_mem_cookie task_mem_libc_cookie;        // blocks of the libc vector

task_mem_cookie *task_mem_cookie_get(const char *name);
void task_mem_cookie_put(task_mem_cookie *cookie);
// Releases the task's cookie and clears it in the task.
void task_mem_cookie_free(task *tp);
// Totals over the per-thread records and the off-slot counters.
int task_mem_cookie_get_allocated(task_mem_cookie *cookie, size_t *bytes, size_t *allocations);
int task_mem_task_get_allocated(task *tp, size_t *bytes, size_t *allocations);

// ---- The call vector --------------------------------------------------------

struct task_mem_status {
  uint64_t tms_pages;         // pages the allocator has mapped
  uint64_t tms_bytes_active;  // bytes in active pages
  uint64_t tms_bytes_allocated;
};

// One allocator behind the front door; every operation returns 0 or an errno
// value (ENOMEM, 14 when the cookie list refuses, 3 when not in its list).
// The comments give the slot numbers of the platform's vectors.
struct task_mem_vector {
  int (*tmv_memory_init)(void *arg) = nullptr;                                           // 1
  task_block *(*tmv_block_init_flags)(size_t size, const char *name, uint32_t flags) = nullptr;  // 2
  int (*tmv_block_alloc)(task_block *bp, void **out) = nullptr;                          // 5
  int (*tmv_block_free)(task_block *bp, void *ptr) = nullptr;                            // 6
  int (*tmv_block_block_free)(task_block *bp) = nullptr;                                 // 7
  int (*tmv_set_debug_options)(const char *options, const char *pattern, uint32_t flags) = nullptr;  // 12
  int (*tmv_status)(task_mem_status *st) = nullptr;                                      // 15
  int (*tmv_free)(task_mem_cookie *c, void *ptr) = nullptr;                              // 16
  int (*tmv_strdup)(task_mem_cookie *c, const char *s, char **out) = nullptr;            // 17
  int (*tmv_realloc)(task_mem_cookie *c, void *ptr, size_t size, int free_on_failure, void **out) = nullptr;  // 18
  int (*tmv_calloc)(task_mem_cookie *c, size_t count, size_t size, void **out) = nullptr;  // 19
  int (*tmv_malloc)(task_mem_cookie *c, size_t size, void **out) = nullptr;              // 20
  int (*tmv_cookie_put)(task_mem_cookie *c) = nullptr;                                   // 21
  int (*tmv_cookie_get)(const char *name, void *owner, task_mem_cookie **out) = nullptr; // 22
  int (*tmv_cookie_get_allocated)(task_mem_cookie *c, size_t *bytes, size_t *count) = nullptr;  // 23
  int (*tmv_memalign)(task_mem_cookie *c, size_t align, size_t size, void **out) = nullptr;  // aligned forms
  size_t (*tmv_usable_size)(const void *ptr) = nullptr;                                  // malloc_usable_size
};

enum { TASK_MEM_VECTOR_LIBC = 0, TASK_MEM_VECTOR_LEGACY = 1, TASK_MEM_VECTOR_JEMALLOC = 2 };

// Stores a vector in the table; an index above 2 is ignored.
void task_mem_vector_set(const task_mem_vector *v, unsigned index);
// Index of the vector in force, and the vector at an index (null if none).
unsigned task_mem_vector_index(void);
const task_mem_vector *task_mem_vector_get(unsigned index);
// Picks the vector: jemalloc unless legacy was forced. Legacy is not built:
// asking for it logs why and keeps jemalloc; returns ENOSYS then, else 0.
int task_mem_call_vector_select(void);
// From jemalloc to legacy (and legacy stays legacy); see select.
int task_mem_call_vector_toggle(void);
// Forces the legacy vector at the next selection.
void task_mem_force_legacy(bool on);

// First call: reads the touch file, picks the vector, starts it. Later calls
// read the touch file again and nothing more. Returns 0 or an errno value.
int task_memory_init(void *arg);
// True once the memory system is up.
bool task_memory_is_up(void);
// True when the jemalloc vector was told to use the system library's allocator.
bool task_memory_libc_malloc_in_use(void);

// ---- Touch file -----------------------------------------------------------
// A symbolic link "/tmp/<program>.debug" (else "/var/tmp/<program>.debug")
// whose target is "PATTERN,LETTERS[,ld:...],OPTIONS" switches debugging on.

enum {
  TASK_MEM_DBG_LIBC = 0x1,     // U: the system library's allocator behind the cookie layer
  TASK_MEM_DBG_L = 0x2,
  TASK_MEM_DBG_C = 0x4,
  TASK_MEM_DBG_D = 0x8,
  TASK_MEM_DBG_F = 0x10,
  TASK_MEM_DBG_M = 0x20,
  TASK_MEM_DBG_X = 0x40,
  TASK_MEM_DBG_A = 0x80,
  TASK_MEM_DBG_R = 0x100,
  TASK_MEM_DBG_TOGGLE = 0x200,  // T: toggle the vector at pass 1
  TASK_MEM_DBG_Z = 0x400,       // Z: junk: freed pool objects are filled with 0x5a
  TASK_MEM_DBG_J = 0x800,
  TASK_MEM_DBG_B = 0x1000,
};

struct task_mem_touch {
  bool found;           // a link was read
  bool matched;         // its pattern names this program (or starts with "*")
  uint32_t flags;       // the letters' bits, when matched
  char pattern[256];
  char options[1024];
};

// Reads and parses the touch file for `program` (a base name); pure, no effect.
bool task_memory_touch_file_read(const char *program, task_mem_touch *out);
// Applies the touch file: pass 1 at start, pass 2 at a later init.
void task_memory_touch_file_check(int pass);
// The flag word the touch file gave.
uint32_t task_memory_debug_flags(void);

// ---- Task and cookie sets ---------------------------------------------------

// How the memory library reaches a task's cookie and name; the task kernel
// installs these. Without them every task counts as a null task.
struct task_mem_task_ops {
  task_mem_cookie **(*cookie_slot)(task *tp);
  const char *(*name)(task *tp);
};
void task_mem_set_task_ops(const task_mem_task_ops *ops);

void *task_mem_malloc(task *tp, size_t size);
void *task_mem_calloc(task *tp, size_t count, size_t size);
void *task_mem_realloc(task *tp, void *ptr, size_t size);
void *task_mem_reallocf(task *tp, void *ptr, size_t size);
char *task_mem_strdup(task *tp, const char *s);
void task_mem_free(task *tp, void *ptr);

void *task_cookie_malloc(task_mem_cookie *c, size_t size);
void *task_cookie_calloc(task_mem_cookie *c, size_t count, size_t size);
void *task_cookie_realloc(task_mem_cookie *c, void *ptr, size_t size);
void *task_cookie_reallocf(task_mem_cookie *c, void *ptr, size_t size);
char *task_cookie_strdup(task_mem_cookie *c, const char *s);
void task_cookie_free(task_mem_cookie *c, void *ptr);

// ---- Threads ------------------------------------------------------------------
// Counters are kept per thread index; the main thread is 0. A thread without
// an index (-1), or one past a cookie's slots, counts on "--Orphan--" with atomics.

int task_mem_thread_index(void);
void task_mem_set_thread_index(int index);
// Makes room for `count` thread indexes in every cookie and block.
void task_mem_thread_slots_grow(unsigned count);

// ---- Failure ------------------------------------------------------------------

// Copies its arguments into local buffers (so that they stand in a core) and
// raises SIGABRT; a second entry exits with 1.
void task_mem_fatal(const char *function, const char *file, int line, const char *expression);

// The front door's own entry points, exported as malloc, free, ... in a normal
// build and under these names in a sanitizer build.
extern "C" {
void *tvx_fd_malloc(size_t size);
void *tvx_fd_calloc(size_t count, size_t size);
void *tvx_fd_realloc(void *ptr, size_t size);
void *tvx_fd_reallocf(void *ptr, size_t size);
char *tvx_fd_strdup(const char *s);
void tvx_fd_free(void *ptr);
int tvx_fd_posix_memalign(void **out, size_t align, size_t size);
void *tvx_fd_aligned_alloc(size_t align, size_t size);
void *tvx_fd_memalign(size_t align, size_t size);
void *tvx_fd_valloc(size_t size);
void *tvx_fd_pvalloc(size_t size);
size_t tvx_fd_malloc_usable_size(void *ptr);
}
