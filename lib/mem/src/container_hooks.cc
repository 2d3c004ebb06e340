// The containers allocate through blocks and cookies once the memory system is
// up; a context that raises the thread count grows every cookie and block.
#include "containers/mem_hooks.h"
#include "containers/var_context.h"
#include "internal.h"

namespace {

const containers_mem_hooks hooks = {
    [](const char *name, size_t size) -> void * { return task_block_init(size, name); },
    [](void *block) { return task_block_alloc(static_cast<task_block *>(block)); },
    [](void *block, void *object) { task_block_free(static_cast<task_block *>(block), object); },
    [](const char *name) -> void * { return task_mem_cookie_get(name); },
    [](void *cookie, size_t size) { return task_cookie_malloc(static_cast<task_mem_cookie *>(cookie), size); },
    [](void *cookie, void *ptr, size_t size) {
      return task_cookie_realloc(static_cast<task_mem_cookie *>(cookie), ptr, size);
    },
    [](void *cookie, void *ptr) { task_cookie_free(static_cast<task_mem_cookie *>(cookie), ptr); },
};

}  // namespace

void mem_container_hooks_install(void) {
  containers_mem_hooks_set(&hooks);
  task_var_thread_slots_register([](unsigned slots, void *) { task_mem_thread_slots_grow(slots); }, nullptr);
}
