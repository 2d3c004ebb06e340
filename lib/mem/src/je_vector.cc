// The jemalloc vector: the default allocator behind the cookie frame.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "frame_ops.h"
#include "jem.h"

extern "C" {
// jemalloc reads its options at its own start, before main: they are fixed
// here, with the junk choice made by a constructor that runs first.
const char *jem_malloc_conf = "prof:true,prof_active:false,junk:false";
}

namespace {

__attribute__((constructor(101))) void choose_options() {
  task_mem_touch t;
  if (task_memory_touch_file_read(program_invocation_short_name, &t) && t.matched &&
      (t.flags & TASK_MEM_DBG_Z))
    jem_malloc_conf = "prof:true,prof_active:false,junk:true";
}

// jemalloc's size classes for small requests, read once from nallocx: a table
// look-up on the hot path instead of a call.
constexpr size_t CLASS_STEP = 16, CLASS_LIMIT = 8192;
uint32_t size_class[CLASS_LIMIT / CLASS_STEP + 1];

void read_size_classes() {
  for (size_t i = 0; i <= CLASS_LIMIT / CLASS_STEP; i++)
    size_class[i] = static_cast<uint32_t>(jem_nallocx(i ? i * CLASS_STEP : 1, 0));
}

inline size_t real_size(size_t want) {
  if (want <= CLASS_LIMIT && size_class[CLASS_LIMIT / CLASS_STEP]) return size_class[(want + CLASS_STEP - 1) / CLASS_STEP];
  return jem_nallocx(want, 0);
}

// A block of the range's arena. A block of another arena found in the
// thread's cache goes back to its arena, and ours is taken past the cache.
char *large_block(size_t size, int flags) {
  char *b = static_cast<char *>(jem_mallocx(size, flags));
  if (MEM_UNLIKELY(b && !mem_is_large(b))) {
    jem_dallocx(b, jem_tcache(-1));
    b = static_cast<char *>(jem_mallocx(size, flags | jem_tcache(-1)));
    if (b && !mem_is_large(b)) {
      MEM_FATAL("malloc", "mem_is_large(b)");
      jem_dallocx(b, jem_tcache(-1));
      return nullptr;
    }
  }
  return b;
}

int je_malloc(task_mem_cookie *c, size_t n, void **out) {
  if (mem_use_libc) return mem_libc_vector.tmv_malloc(c, n, out);
  if (n >= MEM_LARGE_FROM && n <= SIZE_MAX / 2 && mem_large.span) {
    size_t size = real_size(n);
    if (size < MEM_LARGE_CLASS) size = MEM_LARGE_CLASS;
    if (char *b = large_block(size, mem_large.flags)) return mem_take_large(b, size, n, c, out);
  }
  size_t want;
  char *b = nullptr;
  size_t size = 0;
  if (mem_want(n, sizeof(mem_head), &want)) {
    size = real_size(want);
    b = static_cast<char *>(jem_mallocx(size, mem_bypass_flags(size)));
  }
  return mem_take_block(b, size, sizeof(mem_head), c, out);
}

int je_memalign(task_mem_cookie *c, size_t align, size_t n, void **out) {
  if (mem_use_libc) return mem_libc_vector.tmv_memalign(c, align, n, out);
  if (align <= sizeof(mem_head)) return je_malloc(c, n, out);
  size_t want;
  char *b = nullptr;
  size_t size = 0;
  if (mem_want(n, align, &want)) {
    if (want > MEM_FRAMED_MAX && mem_large.span) {
      // Large: the block itself is aligned, and its head is beside the range.
      size = jem_nallocx(n < MEM_LARGE_CLASS ? MEM_LARGE_CLASS : n, jem_align(align));
      if (char *l = large_block(size, mem_large.flags | jem_align(align))) return mem_take_large(l, size, n, c, out);
    }
    size = jem_nallocx(want, jem_align(align));
    b = static_cast<char *>(jem_mallocx(size, jem_align(align) | mem_bypass_flags(size)));
  }
  return mem_take_block(b, size, static_cast<uint32_t>(align), c, out);
}

// Both frees are written so that as little as possible waits for the block's
// head to come in from memory, where a freed block usually is by now: the
// block's start is known by a branch the processor predicts, and the zone's
// check is such a branch too.

// A large block: its head is read from the side table, and its own memory is
// touched only for the red zone at its end, when it has one.
int je_free_large(task_mem_cookie *c, void *ptr) {
  mem_side *s = mem_side_of(ptr);
  size_t size = s->ms_size;
  uint32_t zone = s->ms_zone;
  task_mem_cookie *owner = MEM_LIKELY(zone == mem_cookie_zone(c)) ? c : mem_zone_owner(c, zone);
  if (MEM_UNLIKELY(!owner || s->ms_offset != mem_side_offset(ptr))) {
    MEM_FATAL("free", "!\"Cookie RedZone Validation Failed\"");
    return EFAULT;
  }
  if (s->ms_tail) {
    uint32_t *rz = mem_rz_at(static_cast<char *>(ptr), size);
    if (MEM_UNLIKELY(*rz != zone)) {
      MEM_FATAL("free", "!\"Cookie RedZone Validation Failed\"");
      return EFAULT;
    }
    *rz = zone & ~MEM_RZ_FREED;
  }
  s->ms_zone = zone & ~MEM_RZ_FREED;
  mem_count_free(owner, static_cast<int64_t>(size));
  mem_history_record(ptr, size, 'F', 'c', owner->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_free(ptr);
  jem_sdallocx(ptr, size, 0);
  return 0;
}

// A framed block in general: aligned ones, those of another cookie or of the
// libc vector, and broken ones.
[[gnu::noinline]] int je_free_slow(task_mem_cookie *c, void *ptr, task_mem_cookie *owner) {
  mem_head *h = mem_head_of(ptr);
  size_t size = h->mh_size;
  uint32_t offset = h->mh_offset;
  char *block = mem_block_of(ptr);
  uint32_t *rz = mem_rz_at(block, size);
  if (!owner) owner = mem_zone_owner(c, *rz);
  if (!owner) {
    MEM_FATAL("free", "!\"Cookie RedZone Validation Failed\"");
    return EFAULT;
  }
  if (owner == &task_mem_libc_cookie || mem_use_libc) return mem_libc_vector.tmv_free(owner, ptr);
  *rz &= ~MEM_RZ_FREED;
  mem_count_free(owner, static_cast<int64_t>(size));
  mem_history_record(ptr, size, 'F', 'c', owner->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_free(ptr);
  jem_sdallocx(block, size, (offset == sizeof(mem_head) ? 0 : jem_align(offset)) | mem_release_flags(block, size));
  return 0;
}

int je_free(task_mem_cookie *c, void *ptr) {
  if (!ptr) return 0;
  if (mem_is_large(ptr)) return je_free_large(c, ptr);
  mem_head *h = mem_head_of(ptr);
  // The block's start is known by a predicted branch, not from the head's value.
  if (MEM_UNLIKELY(h->mh_offset != sizeof(mem_head))) return je_free_slow(c, ptr, nullptr);
  char *block = static_cast<char *>(ptr) - sizeof(mem_head);
  size_t size = h->mh_size;
  uint32_t *rz = mem_rz_at(block, size);
  if (MEM_UNLIKELY(*rz != mem_cookie_zone(c))) {
    // Another cookie's, the libc vector's, or broken: the slow path sorts it out.
    task_mem_cookie *owner = mem_zone_owner(c, *rz);
    if (!owner || owner == &task_mem_libc_cookie || mem_use_libc) return je_free_slow(c, ptr, owner);
    c = owner;
  }
  if (MEM_UNLIKELY(mem_use_libc)) return mem_libc_vector.tmv_free(c, ptr);
  *rz &= ~MEM_RZ_FREED;
  mem_count_free(c, static_cast<int64_t>(size));
  mem_history_record(ptr, size, 'F', 'c', c->tmc_id, 6);
  if (const mem_leak_hooks *l = mem_leak.load(std::memory_order_relaxed)) l->on_free(ptr);
  jem_sdallocx(block, size, mem_release_flags(block, size));
  return 0;
}

int je_status(task_mem_status *st) {
  uint64_t epoch = 1;
  size_t len = sizeof epoch;
  jem_mallctl("epoch", &epoch, &len, &epoch, len);
  size_t active = 0, allocated = 0, mapped = 0;
  len = sizeof(size_t);
  jem_mallctl("stats.active", &active, &len, nullptr, 0);
  jem_mallctl("stats.allocated", &allocated, &len, nullptr, 0);
  jem_mallctl("stats.mapped", &mapped, &len, nullptr, 0);
  st->tms_pages = mapped / 4096;
  st->tms_bytes_active = active;
  st->tms_bytes_allocated = allocated;
  return 0;
}

int je_cookie_get(const char *name, void *owner, task_mem_cookie **out) { return mem_cookie_make(name, owner, out); }
int je_cookie_put(task_mem_cookie *c) { return mem_cookie_release(c); }

int je_set_debug_options(const char *options, const char *, uint32_t) {
  // The allocator's options are fixed at its start (see choose_options); what
  // can change later is profiling, switched by the leak-detection call.
  (void)options;
  return 0;
}

int je_memory_init(void *) {
  read_size_classes();
  if (!mem_use_libc) mem_large_init();
  mem_blocks_init();
  mem_fixed_cookies_init();
  mem_container_hooks_install();
  return 0;
}


}  // namespace

extern const task_mem_vector mem_jemalloc_vector;
const task_mem_vector mem_jemalloc_vector = {
    .tmv_memory_init = je_memory_init,
    .tmv_set_debug_options = je_set_debug_options,
    .tmv_status = je_status,
    .tmv_free = je_free,
    .tmv_strdup = mem_strdup_via<mem_jemalloc_vector>,
    .tmv_realloc = mem_realloc_via<mem_jemalloc_vector>,
    .tmv_calloc = mem_calloc_via<mem_jemalloc_vector>,
    .tmv_malloc = je_malloc,
    .tmv_cookie_put = je_cookie_put,
    .tmv_cookie_get = je_cookie_get,
    .tmv_cookie_get_allocated = task_mem_cookie_get_allocated,
    .tmv_memalign = je_memalign,
    .tmv_usable_size = mem_payload_size,
};
