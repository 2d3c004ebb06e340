// Task variable contexts: numbering, names, the free-number stack, thread
// slots and the per-thread current context.
#include "containers/var_context.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "containers/mem_hooks.h"
#include "fatal.h"

extern "C" {

tvcfull task_var_main_context;
task_var_context *(*__task_var_get_context)(void);
void *task_var_context_block;
task_var_context *task_default_context = &task_var_main_context.tvcfull_head;

}  // extern "C"

namespace {

thread_local task_var_context *thread_context;

char names[TASK_VAR_CONTEXT_MAX][TASK_VAR_NAME_SIZE];
tvcfull *live[TASK_VAR_CONTEXT_MAX];
unsigned live_count = 1;  // the main context
unsigned thread_slots = 1;
int next_number = 1;

// Released numbers, reused last-in first-out. Starts in static storage and
// doubles with malloc.
int static_free_numbers[16];
int *free_numbers = static_free_numbers;
size_t free_cap = 16, free_top;

struct slots_callback {
  task_var_slots_grew_fn fn;
  void *arg;
};
slots_callback slots_callbacks[16];
size_t slots_callback_count;

task_var_release_fn release_hooks[TASK_VAR_RELEASE_PHASES];

task_var_context *per_thread_context() {
  return thread_context ? thread_context : task_default_context;
}

void push_free(int number) {
  if (free_top == free_cap) {
    auto *grown = static_cast<int *>(std::malloc(2 * free_cap * sizeof(int)));
    CONT_ASSERT(grown);
    std::memcpy(grown, free_numbers, free_cap * sizeof(int));
    if (free_numbers != static_free_numbers) std::free(free_numbers);
    free_numbers = grown;
    free_cap *= 2;
  }
  free_numbers[free_top++] = number;
}

}  // namespace

extern "C" {

task_var_context *task_var_get_context(void) {
  return __task_var_get_context ? __task_var_get_context() : task_default_context;
}

bool task_pthread_is_main(void) { return gettid() == getpid(); }

void task_var_context_full(void) {
  CONT_ASSERT_MSG(nullptr == __task_var_get_context && nullptr == task_var_context_block &&
                      nullptr != task_default_context,
                  "((void *)0) == __task_var_get_context && ((void *)0) == task_var_context_block "
                  "&& ((void *)0) != task_default_context");
  task_var_context_block = containers_mem.cmh_block_init("task_var_context_block", sizeof(tvcfull));
  __task_var_get_context = per_thread_context;
}

task_var_context *task_var_context_create(const char *name, task_var_context **slot,
                                          uint32_t flags) {
  CONT_ASSERT(task_pthread_is_main());
  CONT_ASSERT(slot);
  if (!task_var_context_block) task_var_context_full();
  *slot = nullptr;
  if (live_count == TASK_VAR_CONTEXT_MAX) return nullptr;

  int number = free_top ? free_numbers[--free_top] : next_number++;
  auto *full = static_cast<tvcfull *>(containers_mem.cmh_block_alloc(task_var_context_block));
  full->tvcfull_head.tvc_number = number;
  full->tvcfull_head.tvc_flags = flags;
  std::snprintf(names[number], TASK_VAR_NAME_SIZE, "%s", name ? name : "");
  live[number] = full;
  live_count++;

  if (live_count > thread_slots) {
    thread_slots = live_count < 16 ? 16 : thread_slots + 16;
    for (size_t i = 0; i < slots_callback_count; i++)
      slots_callbacks[i].fn(thread_slots, slots_callbacks[i].arg);
  }
  *slot = &full->tvcfull_head;
  return *slot;
}

void task_var_context_delete(task_var_context **slot) {
  CONT_ASSERT(task_pthread_is_main());
  CONT_ASSERT(slot);
  task_var_context *context = *slot;
  task_var_context *current_context = task_var_get_context();
  CONT_ASSERT(current_context != context);
  CONT_ASSERT(context != &task_var_main_context.tvcfull_head);
  task_var_context_verify(context);
  tvcfull *full_context = task_var_full(context);
  CONT_ASSERT(!full_context->tvcfull_default_context);
  int context_num = context->tvc_number;
  CONT_ASSERT(context_num >= 0);

  for (task_var_release_fn fn : release_hooks)
    if (fn) fn(full_context);

  live[context_num] = nullptr;
  names[context_num][0] = 0;
  live_count--;
  push_free(context_num);
  containers_mem.cmh_block_free(task_var_context_block, full_context);
  *slot = reinterpret_cast<task_var_context *>(uintptr_t{0xdeaddead});
}

void task_var_context_set_default(task_var_context *context) {
  task_var_context_verify(context);
  tvcfull *whole = task_var_full(context);
  CONT_ASSERT(! whole->tvcfull_default_context);
  CONT_ASSERT(! whole->tvcfull_initialized);
  whole->tvcfull_default_context = true;
  thread_context = context;
}

void task_var_context_clear_default(task_var_context *context) {
  CONT_ASSERT(context && thread_context == context);
  task_var_full(context)->tvcfull_default_context = false;
  thread_context = nullptr;
}

int task_var_context_number(const task_var_context *context) {
  CONT_ASSERT(context);
  return context->tvc_number;
}

const char *task_var_context_name(int number, char *buffer, size_t size) {
  const char *name;
  if (number < 0 || number >= TASK_VAR_CONTEXT_MAX) name = "outofrange";
  else if (number == 0) name = "main";
  else if (!names[number][0]) name = "noname";
  else name = names[number];
  std::snprintf(buffer, size, "%s", name);
  return buffer;
}

void task_var_context_verify(const task_var_context *context) {
  if (context == &task_var_main_context.tvcfull_head) return;
  bool found = false;
  for (tvcfull *full : live)
    if (full && &full->tvcfull_head == context) found = true;
  CONT_ASSERT_MSG(found, "task_var_context_verify(context)");
}

unsigned task_var_thread_slots(void) { return thread_slots; }

bool task_var_thread_slots_register(task_var_slots_grew_fn fn, void *arg) {
  CONT_ASSERT(fn);
  if (slots_callback_count == sizeof slots_callbacks / sizeof slots_callbacks[0]) return false;
  slots_callbacks[slots_callback_count++] = {fn, arg};
  return true;
}

void task_var_context_release_hook_set(enum task_var_release_phase phase, task_var_release_fn fn) {
  CONT_ASSERT(phase >= 0 && phase < TASK_VAR_RELEASE_PHASES);
  release_hooks[phase] = fn;
}

}  // extern "C"
