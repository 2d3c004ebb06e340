// task_lite pools: region allocators destroyed at once. Pages and big objects
// come from the cookie layer under "--Pool--", so the pool's overhead is
// accounted like any other allocation, and every page starts zeroed.
#include <cstring>

#include "internal.h"
#include "mem/pool.h"

// A pool's allocation: a page, carved into objects, or one big object.
struct task_lite_chunk {
  task_lite_chunk *tlc_next;
  uint32_t tlc_pages;   // pages it counts for
  uint8_t tlc_single;   // a page to carve, reusable after a reset
  uint8_t tlc_pad[3];
};
static_assert(sizeof(task_lite_chunk) == 16, "objects after the chunk head stay 16-byte aligned");

namespace {

constexpr size_t MAX_ALLOC = size_t{1} << 24;
constexpr size_t OBJ_ALIGN = 16;
// A page request that the front door serves from exactly TASK_LITE_PAGE bytes
// (framed, or the size class of a large block).
constexpr size_t PAGE_REQUEST = TASK_LITE_PAGE - MEM_FRAME;
constexpr size_t PAGE_ROOM = (PAGE_REQUEST - sizeof(task_lite_chunk)) & ~(OBJ_ALIGN - 1);
constexpr int KEEP_ON_RESET = 4;

task_block *pool_block = nullptr;  // "je_task_lite_mpool_block"
task_lite_pool *pool_list = nullptr;

task_mem_cookie *cookie() { return task_mem_pool_cookie ? task_mem_pool_cookie : &task_mem_libc_cookie; }

char *payload(task_lite_chunk *c) { return reinterpret_cast<char *>(c + 1); }

uint64_t obtained(const task_lite_chunk *c) { return mem_obtained(c); }

void count_in(task_lite_pool *p, const task_lite_chunk *c) {
  p->tlp_pages += c->tlc_pages;
  p->tlp_bytes += obtained(c);
  if (p->tlp_pages > p->tlp_pages_hw) p->tlp_pages_hw = p->tlp_pages;
  if (p->tlp_bytes > p->tlp_bytes_hw) p->tlp_bytes_hw = p->tlp_bytes;
}

void give_back(task_lite_pool *p, task_lite_chunk *c) {
  p->tlp_pages -= c->tlc_pages;
  p->tlp_bytes -= obtained(c);
  task_cookie_free(cookie(), c);
}

task_lite_chunk *new_chunk(task_lite_pool *p, size_t request, bool single) {
  auto *c = static_cast<task_lite_chunk *>(task_cookie_malloc(cookie(), request));
  c->tlc_single = single;
  c->tlc_pages = static_cast<uint32_t>((obtained(c) + TASK_LITE_PAGE - 1) / TASK_LITE_PAGE);
  count_in(p, c);
  return c;
}

void push(task_lite_chunk **list, task_lite_chunk *c) {
  c->tlc_next = *list;
  *list = c;
}

// Makes a fresh current page: a spare one if the pool kept any.
void next_page(task_lite_pool *p) {
  task_lite_chunk *c = p->tlp_spare;
  if (c)
    p->tlp_spare = c->tlc_next;
  else
    c = new_chunk(p, PAGE_REQUEST, true);
  push(&p->tlp_chunks, c);
  p->tlp_free = payload(c);
  p->tlp_left = PAGE_ROOM;
}

void task_lite_mdestroy_internal(task_lite_pool *pool) {
  task_lite_pool **pp = &pool_list;
  while (*pp && *pp != pool) pp = &(*pp)->tlp_next;
  if (!*pp) {
    MEM_FATAL("task_lite_mdestroy_internal", "!\"Pool not on the pool list\"");
    return;
  }
  *pp = pool->tlp_next;
  for (task_lite_chunk **list : {&pool->tlp_chunks, &pool->tlp_spare})
    while (task_lite_chunk *c = *list) {
      *list = c->tlc_next;
      give_back(pool, c);
    }
  task_block_free(pool_block, pool);
}

}  // namespace

size_t task_memory_max_alloc_size_int(void) { return MAX_ALLOC; }

task_lite_pool *task_lite_mpool(const char *name) {
  if (!pool_block) pool_block = task_block_init(sizeof(task_lite_pool), "je_task_lite_mpool_block");
  auto *p = static_cast<task_lite_pool *>(task_block_alloc(pool_block));
  p->tlp_name = name;
  p->tlp_next = pool_list;
  pool_list = p;
  return p;
}

void *task_lite_malloc(task_lite_pool *pool, size_t size) {
  if (!(size <= task_memory_max_alloc_size_int())) {
    MEM_FATAL("task_lite_malloc", "size <= task_memory_max_alloc_size_int()");
    return nullptr;
  }
  size_t n = size ? (size + OBJ_ALIGN - 1) & ~(OBJ_ALIGN - 1) : OBJ_ALIGN;
  if (n > PAGE_ROOM) {
    // Its own allocation, behind the current page so that the page stays current.
    task_lite_chunk *c = new_chunk(pool, sizeof(task_lite_chunk) + n, false);
    task_lite_chunk **at = pool->tlp_chunks ? &pool->tlp_chunks->tlc_next : &pool->tlp_chunks;
    push(at, c);
    return payload(c);
  }
  if (n > pool->tlp_left) next_page(pool);
  void *obj = pool->tlp_free;
  pool->tlp_free += n;
  pool->tlp_left -= n;
  return obj;
}

void task_lite_mreset(task_lite_pool *pool) {
  int kept = 0;
  for (task_lite_chunk *c = pool->tlp_spare; c; c = c->tlc_next) kept++;
  while (task_lite_chunk *c = pool->tlp_chunks) {
    pool->tlp_chunks = c->tlc_next;
    if (c->tlc_single && kept < KEEP_ON_RESET) {
      memset(payload(c), 0, PAGE_ROOM);
      push(&pool->tlp_spare, c);
      kept++;
    } else {
      give_back(pool, c);
    }
  }
  pool->tlp_free = nullptr;
  pool->tlp_left = 0;
}

void task_lite_mdestroy(task_lite_pool *pool) { task_lite_mdestroy_internal(pool); }

void task_lite_pages(const task_lite_pool *pool, uint32_t *pages, uint32_t *high) {
  *pages = pool->tlp_pages;
  *high = pool->tlp_pages_hw;
}

void mem_lite_walk(void (*fn)(task_lite_pool *, void *), void *arg) {
  for (task_lite_pool *p = pool_list, *next; p; p = next) {
    next = p->tlp_next;
    fn(p, arg);
  }
}
