// The memtrace ring: event records in memory, dumped gzip-compressed.
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "internal.h"
#include "platform/backtrace.h"
#include "platform/path.h"
#include "trace/zevt.h"

struct memtrace_record {
  struct timeval mr_time;
  uint32_t mr_seq;
  uint16_t mr_number;
  uint8_t mr_nframes;
  const zevt_system *mr_sys;
  char mr_text[160];
  void *mr_frames[8];
};

namespace {

constexpr uint32_t kRecordsPerUnit = 16;
constexpr uint32_t kDefaultSize = 20;

task_memtrace_ctx make_main() {
  task_memtrace_ctx c{};
  c.memtrace_name = "global";
  return c;
}
task_memtrace_ctx main_ctx = make_main();
memtrace_dump_runner runner = nullptr;
bool events_to_trace = false;

uint32_t capacity(const task_memtrace_ctx *c) { return c->memtrace_size * kRecordsPerUnit; }

int write_dump(task_memtrace_ctx *c) {
  const ztrace_app_ctx *a = trace_app_ctx;
  const char *lsys = getenv("ZLSYSNAME");
  char logical[512];
  a->ztrace_snprintf(logical, sizeof logical, "/var/log/memtrace_%s_%s_%s.%d.%d.%d.gz", a->progname,
                     lsys && *lsys ? lsys : "default", c->memtrace_name ? c->memtrace_name : "global",
                     static_cast<int>(getpid()), static_cast<int>(time(nullptr)), static_cast<int>(c->memtrace_dumps));
  const std::string path = tvx_path(logical);
  gzFile gz = gzopen(path.c_str(), "wb1");
  if (!gz) return errno ? errno : EIO;
  const uint32_t cap = capacity(c);
  const uint32_t n = c->memtrace_count < cap ? c->memtrace_count : cap;
  const uint32_t first = c->memtrace_count - n;
  for (uint32_t i = 0; i < n; i++) {
    const memtrace_record &r = c->memtrace_ring[(first + i) % cap];
    struct tm tm;
    localtime_r(&r.mr_time.tv_sec, &tm);
    char when[32];
    strftime(when, sizeof when, "%b %e %H:%M:%S", &tm);
    char line[512];
    int len = a->ztrace_snprintf(line, sizeof line, "%s.%06d %-3d: %s:%u %s ", when,
                                 static_cast<int>(r.mr_time.tv_usec), static_cast<int>(r.mr_seq),
                                 r.mr_sys ? r.mr_sys->zs_name : "?", r.mr_number, r.mr_text);
    for (unsigned k = 0; k < r.mr_nframes && len > 0 && static_cast<size_t>(len) < sizeof line - 24; k++)
      len += a->ztrace_snprintf(line + len, sizeof line - len, "^%p ", r.mr_frames[k]);
    if (len < 0) len = 0;
    if (static_cast<size_t>(len) > sizeof line - 2) len = sizeof line - 2;
    line[len++] = '\n';
    if (gzwrite(gz, line, static_cast<unsigned>(len)) != len) {
      gzclose(gz);
      return EIO;
    }
  }
  if (gzclose(gz) != Z_OK) return EIO;
  strncpy(c->memtrace_file, path.c_str(), sizeof c->memtrace_file - 1);
  c->memtrace_dumps++;
  return 0;
}

bool record_va(task_memtrace_ctx *c, const zevt_system *sys, unsigned number, const char *fmt, va_list ap) {
  const uint32_t action = zevt_action(sys, number);
  if (!(action & ZEVT_ACT_MEMTRACE)) return false;
  if (!(c->memtrace_flags & MEMTRACE_ENABLED) || !c->memtrace_ring) task_memtrace_enable(c, true);
  const uint32_t cap = capacity(c);
  if (c->memtrace_count && c->memtrace_count % cap == 0 && (c->memtrace_flags & MEMTRACE_DUMP_ON_WRAP))
    task_memtrace_dump(c);
  memtrace_record &r = c->memtrace_ring[c->memtrace_count % cap];
  r = memtrace_record{};
  gettimeofday(&r.mr_time, nullptr);
  r.mr_seq = c->memtrace_count;
  r.mr_sys = sys;
  r.mr_number = static_cast<uint16_t>(number);
  va_list copy;
  va_copy(copy, ap);
  ZTRACE_VSNPRINTF(r.mr_text, sizeof r.mr_text, fmt, copy);
  va_end(copy);
  if (action & ZEVT_ACT_BT) r.mr_nframes = static_cast<uint8_t>(tvx_backtrace(r.mr_frames, 8));
  c->memtrace_count++;
  if (events_to_trace)
    ZTRACE(ztrace_global, 2ull << 32, "%s:%u %s", sys->zs_name, number, r.mr_text);
  return true;
}

}  // namespace

task_memtrace_ctx *task_memtrace_main(void) { return &main_ctx; }

void task_memtrace_enable(task_memtrace_ctx *c, bool on) {
  if (on) {
    if (!c->memtrace_size) c->memtrace_size = kDefaultSize;
    if (!c->memtrace_ring)
      c->memtrace_ring = static_cast<memtrace_record *>(
          tvx::trace::alloc(TRACE_CLASS_EVENT, capacity(c) * sizeof(memtrace_record)));
    c->memtrace_flags |= MEMTRACE_ENABLED | MEMTRACE_DUMP_ON_WRAP;
    tvx_set_unwind_bt(1);
  } else {
    c->memtrace_flags &= ~MEMTRACE_ENABLED;
    tvx::trace::release(TRACE_CLASS_EVENT, c->memtrace_ring);
    c->memtrace_ring = nullptr;
    c->memtrace_count = 0;
    tvx_set_unwind_bt(0);
  }
}

bool zevt_record(const zevt_system *sys, unsigned number, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const bool r = record_va(&main_ctx, sys, number, fmt, ap);
  va_end(ap);
  return r;
}

bool zevt_record_ctx(task_memtrace_ctx *c, const zevt_system *sys, unsigned number, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  const bool r = record_va(c, sys, number, fmt, ap);
  va_end(ap);
  return r;
}

int task_memtrace_dump(task_memtrace_ctx *c) {
  if (!c->memtrace_ring) return ENOENT;
  if ((c->memtrace_flags & MEMTRACE_FORK_ON_DUMP) && runner && !c->memtrace_dump_task) {
    const std::string name = std::string("memtrace_dump.") + (c->memtrace_name ? c->memtrace_name : "global");
    c->memtrace_dump_task = runner(c, name.c_str(), 10);
    if (c->memtrace_dump_task) return 0;
  }
  return write_dump(c);
}

void task_memtrace_set_runner(memtrace_dump_runner r) { runner = r; }

void memtrace_perform_dump_complete(task_memtrace_ctx *c, void *tp) {
  ZTRACE_ASSERT_MSG(tp == c->memtrace_dump_task, "tp == ctx_mt->memtrace_dump_task");
  c->memtrace_dump_task = nullptr;
}

bool zevt_memtrace_config(const ddl_object_t *parent) {
  ddl_object_t *mt = nullptr;
  if (!dax_get_object_by_name(parent, "memtrace", &mt)) return true;
  ZTRACE(ztrace_global, 2ull << 32, "ddc_memtrace_obj %p\n", static_cast<void *>(mt));
  uint32_t size = 0;
  if (dax_get_uint_by_name(mt, "size", &size)) {
    ZTRACE(ztrace_global, 2ull << 32, "ddc_size_attr %u\n", size);
    if (size && size != main_ctx.memtrace_size) {
      tvx::trace::release(TRACE_CLASS_EVENT, main_ctx.memtrace_ring);
      main_ctx.memtrace_ring = nullptr;
      main_ctx.memtrace_count = 0;
      main_ctx.memtrace_size = size;
    }
  }
  char v[16];
  auto on = [&](const char *key) { return dax_get_string_by_name(mt, key, v, sizeof v) && strcmp(v, "on") == 0; };
  const bool dow = on("dump-on-wrap"), fod = on("fork-on-dump");
  main_ctx.memtrace_flags = (main_ctx.memtrace_flags & MEMTRACE_ENABLED) | (dow ? uint32_t{MEMTRACE_DUMP_ON_WRAP} : 0u) |
                            (fod ? uint32_t{MEMTRACE_FORK_ON_DUMP} : 0u);
  dax_release_object(&mt);
  return true;
}

bool zevt_global_config(const ddl_object_t *parent) {
  ddl_object_t *lg = nullptr;
  events_to_trace = dax_get_object_by_name(parent, "logging", &lg);
  if (lg) {
    ZTRACE(ztrace_global, 2ull << 32, "  ddc_events_logging_on_obj %p\n", static_cast<void *>(lg));
    dax_release_object(&lg);
  }
  return true;
}
