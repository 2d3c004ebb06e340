// The stack-trace leak detector. It hangs on the cookie allocation path
// through mem_leak while it counts, and is otherwise out of the way.
//
// Its nodes come from the system allocator and a thread-local guard stops
// re-entry, so that its own work (nodes, log lines, the dump's stdio) never
// samples itself. One lock keeps the trees whole when threads allocate.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "evlog/evlog.h"
#include "internal.h"
#include "mem/leak.h"
#include "platform/backtrace.h"
#include "platform/path.h"

namespace {

task_leak_detector ld;
std::mutex ld_lock;
thread_local bool inside = false;

// Marks the thread as inside the detector for a scope.
struct guard {
  guard() { inside = true; }
  ~guard() { inside = false; }
};

void on_alloc(void *ptr) { task_leak_detector_malloc(ptr); }
void on_free(void *ptr) { task_leak_detector_free(ptr); }
const mem_leak_hooks hooks = {on_alloc, on_free};

task_leak_detector_info *info_of(patricia_node *n) { return PATRICIA_ENTRY(n, task_leak_detector_info, ldi_node); }
task_leak_detector_bt *bt_of(patricia_node *n) { return PATRICIA_ENTRY(n, task_leak_detector_bt, ldb_node); }

void stop() {
  ld.ld_enabled = false;
  mem_leak.store(nullptr, std::memory_order_relaxed);
}

void give_up(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void give_up(const char *fmt, ...) {
  stop();
  char msg[TASK_LEAK_BT_TEXT + 128];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  logging(LOG_ERR, "%s", msg);
}

int dump_locked() {
  const char *lsys = getenv("ZLSYSNAME");
  const char *prog = program_invocation_short_name;
  char logical[512], path[1024];
  snprintf(logical, sizeof logical, "/var/log/leak_detector_%s_%s.%d.%d.%d", prog && *prog ? prog : "daemon",
           lsys && *lsys ? lsys : "default", static_cast<int>(getpid()), static_cast<int>(ld.ld_dump_count++),
           static_cast<int>(ld.ld_count));
  if (!tvx_path(logical, path, sizeof path)) {
    int err = errno;
    logging(LOG_ERR, "Failed to open leak detector tracefile %s: %m.", logical);
    return err;
  }
  FILE *f = fopen(path, "w");
  if (!f) {
    int err = errno;
    logging(LOG_ERR, "Failed to open leak detector tracefile %s: %m.", path);
    return err;
  }
  if (ld.ld_initialized)
    for (patricia_node *n = patricia_find_next(&ld.ld_bt, nullptr); n; n = patricia_find_next(&ld.ld_bt, n)) {
      const task_leak_detector_bt *b = bt_of(n);
      fprintf(f, "%d: %s\n", b->ldb_count, b->ldb_text);
    }
  return fclose(f) == 0 ? 0 : errno;
}

// "^%p " for the frames after the first (the detector's own), as many as fit.
void stack_text(void *const *frames, int n, char *text) {
  size_t len = 0;
  text[0] = '\0';
  for (int i = 1; i < n; i++) {
    char one[32];
    int w = snprintf(one, sizeof one, "^%p ", frames[i]);
    if (w < 0 || len + static_cast<size_t>(w) >= TASK_LEAK_BT_TEXT) break;
    memcpy(text + len, one, static_cast<size_t>(w) + 1);
    len += static_cast<size_t>(w);
  }
}

// Drops one reference of a stack; false when the detector gave up.
bool unref(task_leak_detector_bt *b) {
  if (--b->ldb_count > 0) return true;
  if (b->ldb_count < 0) {
    give_up("ldbt refcount underflow: %d. Leak detector disabled.", b->ldb_count);
    return false;
  }
  if (!patricia_delete(&ld.ld_bt, &b->ldb_node)) {
    give_up("Failed to delete node with bt %s from ld_bt tree. Leak detector disabled.", b->ldb_text);
    return false;
  }
  __libc_free(b);
  return true;
}

void remember(void *ptr, const char *text) {
  uint16_t len = static_cast<uint16_t>(strlen(text) + 1);
  task_leak_detector_bt *b = nullptr;
  if (patricia_node *n = patricia_get(&ld.ld_bt, len, text)) {
    b = bt_of(n);
  } else {
    b = static_cast<task_leak_detector_bt *>(__libc_calloc(1, sizeof *b));
    if (!b) return give_up("Leak detector out of memory. Leak detector disabled.");
    memcpy(b->ldb_text, text, len);
    patricia_node_init_length(&b->ldb_node, len);
    patricia_add(&ld.ld_bt, &b->ldb_node);
  }
  b->ldb_count++;
  if (patricia_node *n = patricia_get(&ld.ld_info, 0, &ptr)) {
    // The address came back without its free passing here: the old entry is stale.
    task_leak_detector_info *i = info_of(n);
    task_leak_detector_bt *old = i->ldi_bt;
    i->ldi_bt = b;
    unref(old);
    return;
  }
  auto *i = static_cast<task_leak_detector_info *>(__libc_calloc(1, sizeof(task_leak_detector_info)));
  if (!i) {
    unref(b);
    return give_up("Leak detector out of memory. Leak detector disabled.");
  }
  i->ldi_ptr = ptr;
  i->ldi_bt = b;
  patricia_add(&ld.ld_info, &i->ldi_node);
}

}  // namespace

void task_leak_detector_init(uint64_t start, uint64_t end, bool enabled) {
  std::lock_guard<std::mutex> l(ld_lock);
  if (ld.ld_initialized) return;
  patricia_root_init(&ld.ld_info, false, sizeof(void *), PATRICIA_KEY_OFFSET(task_leak_detector_info, ldi_node, ldi_ptr));
  patricia_root_init(&ld.ld_bt, false, 0, PATRICIA_KEY_OFFSET(task_leak_detector_bt, ldb_node, ldb_text));
  ld.ld_count = 0;
  ld.ld_start = start;
  ld.ld_end = end;
  ld.ld_initialized = true;
  ld.ld_enabled = enabled;
  if (enabled) mem_leak.store(&hooks, std::memory_order_relaxed);
}

__attribute__((noinline)) void task_leak_detector_malloc(void *ptr) {
  if (inside || !ld.ld_enabled) return;
  guard g;
  std::lock_guard<std::mutex> l(ld_lock);
  if (!ld.ld_enabled) return;
  uint64_t n = ld.ld_count++;
  if (n < ld.ld_start) return;
  if (n >= ld.ld_end) {
    // The window is over: one file by itself.
    stop();
    dump_locked();
    return;
  }
  void *frames[TASK_LEAK_BT_FRAMES + 1];
  char text[TASK_LEAK_BT_TEXT];
  stack_text(frames, tvx_backtrace(frames, TASK_LEAK_BT_FRAMES + 1), text);
  remember(ptr, text);
}

void task_leak_detector_free(void *ptr) {
  if (inside || !ld.ld_enabled) return;
  guard g;
  std::lock_guard<std::mutex> l(ld_lock);
  if (!ld.ld_enabled) return;
  patricia_node *n = patricia_get(&ld.ld_info, 0, &ptr);
  if (!n) return;
  task_leak_detector_info *i = info_of(n);
  if (!patricia_delete(&ld.ld_info, n)) {
    give_up("Failed to delete pnode %p for pointer %p from ld_info tree. Leak detector disabled.",
            static_cast<void *>(i), ptr);
    return;
  }
  task_leak_detector_bt *b = i->ldi_bt;
  __libc_free(i);
  unref(b);
}

void task_leak_detector_fini(void) {
  guard g;
  std::lock_guard<std::mutex> l(ld_lock);
  stop();
  if (!ld.ld_initialized) return;
  while (patricia_node *n = patricia_find_next(&ld.ld_info, nullptr)) {
    if (!patricia_delete(&ld.ld_info, n)) {
      MEM_FATAL("task_leak_detector_fini", "!\"Missing info node on leak detector shutdown\"");
      return;
    }
    __libc_free(info_of(n));
  }
  while (patricia_node *n = patricia_find_next(&ld.ld_bt, nullptr)) {
    if (!patricia_delete(&ld.ld_bt, n)) {
      MEM_FATAL("task_leak_detector_fini", "!\"Missing node on leak detector shutdown\"");
      return;
    }
    __libc_free(bt_of(n));
  }
  patricia_root_delete(&ld.ld_info);
  patricia_root_delete(&ld.ld_bt);
  ld.ld_initialized = false;
}

int task_leak_detector_dump_traces(void) {
  guard g;
  std::lock_guard<std::mutex> l(ld_lock);
  return dump_locked();
}

const task_leak_detector *task_leak_detector_state(void) { return &ld; }
