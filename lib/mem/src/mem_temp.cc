// mem_temp: a bump allocator in a caller's buffer. In debug mode every block
// carries a header, so that overruns, double frees and blocks never freed are
// caught at the next allocation, the free, or the sanity walk.
#include <cstring>

#include "internal.h"
#include "mem/pool.h"

namespace {

struct mem_temp_head {
  uint32_t mth_magic;
  uint32_t mth_size;  // bytes of the block, header included
  const void *mth_caller;
};
static_assert(sizeof(mem_temp_head) == MEM_TEMP_HEAD);

// Headers are read and written by copy: the caller's buffer need not be aligned.
mem_temp_head head_at(const char *p) {
  mem_temp_head h;
  memcpy(&h, p, sizeof h);
  return h;
}
void put_head(char *p, const mem_temp_head &h) { memcpy(p, &h, sizeof h); }

bool debug(const mem_temp *r) { return r->flags & MEM_TEMP_DEBUG; }

}  // namespace

void mem_temp_init(mem_temp *region, void *buffer, size_t size, bool dbg) {
  region->base = static_cast<char *>(buffer);
  region->size = size;
  region->used = 0;
  region->flags = dbg ? uint32_t{MEM_TEMP_DEBUG} : 0u;
  if (!dbg) return;
  const uint32_t fill = MEM_TEMP_FILL;
  size_t i = 0;
  for (; i + sizeof fill <= size; i += sizeof fill) memcpy(region->base + i, &fill, sizeof fill);
  memcpy(region->base + i, &fill, size - i);
}

__attribute__((noinline)) void *mem_temp_alloc(size_t size, mem_temp *region) {
  size_t room = region->size - region->used;
  if (size > room) return nullptr;
  size_t need = (size + MEM_TEMP_ALIGN - 1) & ~(MEM_TEMP_ALIGN - 1);
  if (debug(region)) need += MEM_TEMP_HEAD;
  if (need > room) return nullptr;
  char *at = region->base + region->used;
  if (!debug(region)) {
    region->used += need;
    return at;
  }
  if (head_at(at).mth_magic != MEM_TEMP_FILL) {
    MEM_FATAL("mem_temp_alloc", "mth->mth_magic == 0xf5eef5ee");
    return nullptr;
  }
  put_head(at, {MEM_TEMP_MAGIC, static_cast<uint32_t>(need), __builtin_return_address(0)});
  region->used += need;
  // A free header behind the block, so that an overrun shows at the next allocation.
  if (region->size - region->used >= MEM_TEMP_HEAD) {
    const mem_temp_head free_head = {MEM_TEMP_FILL, MEM_TEMP_FILL, nullptr};
    put_head(region->base + region->used, free_head);
  }
  return at + MEM_TEMP_HEAD;
}

void mem_temp_free(void *ptr, mem_temp *region) {
  if (!ptr || !debug(region)) return;
  char *at = static_cast<char *>(ptr) - MEM_TEMP_HEAD;
  mem_temp_head h = head_at(at);
  if (at < region->base || at >= region->base + region->used || h.mth_magic != MEM_TEMP_MAGIC) {
    MEM_FATAL("mem_temp_free", "mth->mth_magic == 0xa110ca55");
    return;
  }
  h.mth_magic = MEM_TEMP_FILL;
  put_head(at, h);
}

void mem_temp_sanity(mem_temp *region) {
  if (!debug(region)) return;
  size_t off = 0;
  while (off < region->used) {
    mem_temp_head h = head_at(region->base + off);
    if (h.mth_magic != MEM_TEMP_FILL) {
      MEM_FATAL("mem_temp_sanity", "mth->mth_magic == 0xf5eef5ee");
      return;
    }
    if (h.mth_size == 0 || h.mth_size > region->used - off) {
      MEM_FATAL("mem_temp_sanity", "mth->mth_size != 0 && off + mth->mth_size <= region->used");
      return;
    }
    off += h.mth_size;
  }
}
