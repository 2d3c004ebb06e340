// The allocation history ring.
#include "history.h"

#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "internal.h"
#include "mem/leak.h"
#include "platform/backtrace.h"
#include "platform/path.h"

std::atomic<const mem_leak_hooks *> mem_leak{nullptr};
task_mem_history *mem_history_ring = nullptr;
std::atomic<uint64_t> mem_history_missed{0};

namespace {

task_mem_history *&ring = mem_history_ring;
uint32_t ring_count = 0;
bool wrap_dump = false;
std::atomic<uint32_t> next_seq{0};
std::atomic<uint64_t> &misses = mem_history_missed;
std::atomic<uint32_t> dumps{0};

int dump_upto(const char *path, uint32_t end);

// Called with the sequence number about to overwrite slot 0: the ring then holds
// exactly the records before it.
void dump_on_wrap(uint32_t seq) {
  const char *lsys = getenv("ZLSYSNAME");
  char logical[512];
  snprintf(logical, sizeof logical, "/var/log/dbgtrace_%s_%s.%d.%u.gz", program_invocation_short_name,
           lsys && *lsys ? lsys : "default", static_cast<int>(getpid()), dumps.fetch_add(1));
  char real[1024];
  if (tvx_path(logical, real, sizeof real)) dump_upto(real, seq);
}

thread_local bool recording = false;

void record(const void *ptr, size_t size, char type, char cls, uint32_t id, int frames) {
  // The dump and the unwinder allocate too: what they do while a record is being
  // written is a miss, not a nested record (nor a nested dump).
  if (!ring || !mem_up.load(std::memory_order_relaxed) || recording) {
    misses.store(misses.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  recording = true;
  uint32_t seq = next_seq.fetch_add(1, std::memory_order_relaxed);
  if (wrap_dump && seq >= ring_count && seq % ring_count == 0) dump_on_wrap(seq);
  task_mem_history &r = ring[seq % ring_count];
  r.tmh_ptr = ptr;
  r.tmh_size = static_cast<uint32_t>(size);
  r.tmh_seq = seq;
  r.tmh_type = type;
  r.tmh_class = cls;
  r.tmh_thread = static_cast<int16_t>(mem_thread());
  r.tmh_id = id;
  memset(r.tmh_bt, 0, sizeof r.tmh_bt);
  tvx_backtrace(r.tmh_bt, frames);
  recording = false;
}

}  // namespace

void mem_history_write(const void *ptr, size_t size, char type, char cls, uint32_t id, int frames) {
  record(ptr, size, type, cls, id, frames);
}

void task_mem_history_add(const void *ptr, size_t size, char type, char cls, uint32_t id) {
  record(ptr, size, type, cls, id, 9);
}

void task_mem_history_init(uint32_t count, bool dump) {
  __libc_free(ring);
  ring = nullptr;
  ring_count = 0;
  next_seq = 0;
  wrap_dump = dump;
  if (count == 0) return;
  ring = static_cast<task_mem_history *>(__libc_calloc(count, sizeof(task_mem_history)));
  if (ring) ring_count = count;
}

uint64_t task_mem_history_misses(void) { return misses.load(); }
uint32_t task_mem_history_count(void) { return next_seq.load(); }

const task_mem_history *task_mem_history_get(uint32_t seq) {
  if (!ring || seq >= next_seq.load() || next_seq.load() - seq > ring_count) return nullptr;
  const task_mem_history &r = ring[seq % ring_count];
  return r.tmh_seq == seq ? &r : nullptr;
}

int task_mem_history_dump(const char *path) { return dump_upto(path, next_seq.load()); }

namespace {
int dump_upto(const char *path, uint32_t end) {
  if (!ring) return ENOENT;
  gzFile f = gzopen(path, "wb1");
  if (!f) return errno ? errno : EIO;
  uint32_t start = end > ring_count ? end - ring_count : 0;
  for (uint32_t s = start; s < end; s++) {
    const task_mem_history &slot = ring[s % ring_count];
    const task_mem_history *r = slot.tmh_seq == s ? &slot : nullptr;
    if (!r) continue;
    gzprintf(f, "%u %c%c thr %d id %u ptr %p size %u", r->tmh_seq, r->tmh_type, r->tmh_class, r->tmh_thread,
             r->tmh_id, r->tmh_ptr, r->tmh_size);
    for (void *a : r->tmh_bt)
      if (a) gzprintf(f, " ^%p", a);
    gzputs(f, "\n");
  }
  return gzclose(f) == Z_OK ? 0 : EIO;
}
}  // namespace
