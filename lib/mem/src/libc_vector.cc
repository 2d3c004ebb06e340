// The libc vector: the system allocator behind the cookie frame. It serves the
// process before the memory system is up; its blocks carry the libc cookie and
// stay valid afterwards.
#include <malloc.h>

#include "frame_ops.h"
#include "history.h"

namespace {

int libc_malloc(task_mem_cookie *c, size_t n, void **out) {
  size_t size;
  char *b = mem_want(n, sizeof(mem_head), &size) ? static_cast<char *>(__libc_malloc(size)) : nullptr;
  return mem_take_block(b, size, sizeof(mem_head), c, out);
}

int libc_memalign(task_mem_cookie *c, size_t align, size_t n, void **out) {
  size_t offset = align > sizeof(mem_head) ? align : sizeof(mem_head), size;
  char *b = mem_want(n, offset, &size) ? static_cast<char *>(__libc_memalign(align, size)) : nullptr;
  return mem_take_block(b, size, static_cast<uint32_t>(offset), c, out);
}

int libc_free(task_mem_cookie *c, void *ptr) {
  if (!ptr) return 0;
  mem_head *h = mem_head_of(ptr);
  char *block = mem_block_of(ptr);
  uint32_t *rz = mem_rz_at(block, h->mh_size);
  task_mem_cookie *owner = mem_zone_owner(c, *rz);
  if (!owner) {
    MEM_FATAL("free", "!\"Cookie RedZone Validation Failed\"");
    return EFAULT;
  }
  *rz &= ~MEM_RZ_FREED;
  mem_count_free(owner, static_cast<int64_t>(h->mh_size));
  mem_history_record(ptr, h->mh_size, 'F', 'c', owner->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_free(ptr);
  __libc_free(block);
  return 0;
}

int libc_status(task_mem_status *st) {
  struct mallinfo2 mi = mallinfo2();
  st->tms_pages = (mi.arena + mi.hblkhd) / 4096;
  st->tms_bytes_active = mi.uordblks + mi.hblkhd;
  st->tms_bytes_allocated = mi.uordblks + mi.hblkhd;
  return 0;
}


}  // namespace

extern const task_mem_vector mem_libc_vector;
const task_mem_vector mem_libc_vector = {
    .tmv_status = libc_status,
    .tmv_free = libc_free,
    .tmv_strdup = mem_strdup_via<mem_libc_vector>,
    .tmv_realloc = mem_realloc_via<mem_libc_vector>,
    .tmv_calloc = mem_calloc_via<mem_libc_vector>,
    .tmv_malloc = libc_malloc,
    .tmv_memalign = libc_memalign,
    .tmv_usable_size = mem_payload_size,
};
