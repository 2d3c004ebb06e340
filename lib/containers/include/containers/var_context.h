// Task variable contexts: the record that holds what would otherwise be the
// framework's globals (task list, scheduler, timers, I/O, memory, leak
// detector, jobs), so that each framework thread has its own. Code asks for
// the current context; the main thread's is the static
// task_var_main_context, and until a second context exists that is all
// there is.
//
// Every subsystem fills its own slot of the full record (tvcfull_*); this
// library only creates, numbers, names, verifies and releases contexts.
// Contexts other than the main one are objects of the block
// "task_var_context_block" (containers/mem_hooks.h). Creation and deletion
// run on the main thread only.
//
// Thread slots: per-thread arrays elsewhere (block local pools, cookie
// counters) are sized by task_var_thread_slots(). When the number of live
// contexts passes it, it grows to 16, then by 16, and every registered
// "slots grew" callback runs, so the memory library can grow its arrays.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

enum {
  TASK_VAR_CONTEXT_MAX = 256,  // live contexts, main included; numbers 0 to 255
  TASK_VAR_NAME_SIZE = 32,
};

// The head: what a context pointer points at.
struct task_var_context {
  int32_t tvc_number;  // thread index; 0 for main
  uint32_t tvc_flags;  // as given to create; the caller's
};

// The full record. The subsystem slots are opaque here.
struct tvcfull {
  bool tvcfull_initialized;      // the subsystems have set their slots up
  bool tvcfull_default_context;  // some thread runs on it
  task_var_context tvcfull_head;
  void *tvcfull_tasks;           // task list, deletion queue, termination and low-memory state
  void *tvcfull_scheduler;
  void *tvcfull_timers;
  void *tvcfull_io;
  void *tvcfull_mem;             // local pool list, retired arrays, pool job
  void *tvcfull_leak_detector;
  void *tvcfull_jobs;
  void *tvcfull_app;             // the application's
};

extern tvcfull task_var_main_context;
#define task_main_context (&task_var_main_context.tvcfull_head)

// Null while only the main context exists; then the per-thread lookup.
extern task_var_context *(*__task_var_get_context)(void);
// The block of contexts, made by the first creation.
extern void *task_var_context_block;
// What a thread without a context of its own runs on: the main context.
extern task_var_context *task_default_context;

// The current context.
task_var_context *task_var_get_context(void);
// The full record of a context.
// The full record around a context handle (inline: every per-context lookup
// of the hot paths goes through it).
inline tvcfull *task_var_full(task_var_context *context) {
  return reinterpret_cast<tvcfull *>(reinterpret_cast<char *>(context) - offsetof(tvcfull, tvcfull_head));
}

// Switches the process to several contexts: makes the block and the
// per-thread lookup. Once only; task_var_context_create calls it.
void task_var_context_full(void);

// Creates a context named name (null: unnamed), stores it in *slot and
// returns it; null when TASK_VAR_CONTEXT_MAX contexts are live. Main thread.
task_var_context *task_var_context_create(const char *name, task_var_context **slot,
                                          uint32_t flags);
// Releases *slot's context: the release hooks run (pools, pool job, timers),
// its number is freed for reuse and *slot is set to 0xdeaddead. The current
// context, the main one and one that a thread has as default are refused.
void task_var_context_delete(task_var_context **slot);

// Makes context the calling thread's current context, before its subsystems
// are initialised (tvcfull_initialized still false).
void task_var_context_set_default(task_var_context *context);
// The calling thread gives its default context up (at thread exit), so that
// the main thread may delete it.
void task_var_context_clear_default(task_var_context *context);

int task_var_context_number(const task_var_context *context);
// Writes the name of context number into buffer and returns buffer: "main"
// for 0, "outofrange" past 255 (or negative), "noname" when unnamed.
const char *task_var_context_name(int number, char *buffer, size_t size);
// The main context or a live one; anything else ends the process.
void task_var_context_verify(const task_var_context *context);

// True on the process's first thread.
bool task_pthread_is_main(void);

unsigned task_var_thread_slots(void);
typedef void (*task_var_slots_grew_fn)(unsigned slots, void *arg);
// At most 16 callbacks; false when full.
bool task_var_thread_slots_register(task_var_slots_grew_fn fn, void *arg);

// What deleting a context releases, in this order, before its record.
enum task_var_release_phase {
  TASK_VAR_RELEASE_POOLS,
  TASK_VAR_RELEASE_POOL_JOB,
  TASK_VAR_RELEASE_TIMERS,
  TASK_VAR_RELEASE_PHASES,
};
typedef void (*task_var_release_fn)(tvcfull *context);
void task_var_context_release_hook_set(enum task_var_release_phase phase, task_var_release_fn fn);

}  // extern "C"
