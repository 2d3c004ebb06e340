// The channel's start: the stored configuration, the "KRT" task, the
// socket's options, the scans of the start, blocking, switchover and the end.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "krt/krt_queue.h"
#include "krt/krt_scan.h"
#include "krt_internal.h"
#include "platform/path.h"
#include "rtsock/rts_filter.h"
#include "rtsock/rts_lower.h"
#include "task/domain.h"
#include "task/io.h"
#include "task/sched.h"

krt_state krt_g;

namespace {

int sockopt(int sock, int name, const void *v, socklen_t len) {
  const task_domain_ops *d = task_domain_get(KRT_DOMAIN);
  return d->tdo_setopt(d->tdo_ctx, sock, RTS_SOL, name, v, len);
}

uint64_t mask64(const uint32_t m[2]) { return m[0] | static_cast<uint64_t>(m[1]) << 32; }

// The generic-configuration filter: the text goes through a file named by
// the process, is compiled from it, and the program goes into the filter
// record with the current listen mask.
void apply_filter(int sock, krt_config *cfg) {
  if (!cfg->filter_build) return;
  const char *text = cfg->filter_build();
  if (!text) return;
  auto quit = [&]() {
    if (cfg->filter_release) cfg->filter_release(text);
    __task_quit__(KRT_EXIT_SETUP);
  };
  char name[64], path[4096];
  snprintf(name, sizeof name, "/tmp/libztask_krt_gencfg_filter_%d.txt", static_cast<int>(getpid()));
  if (!tvx_path(name, path, sizeof path)) quit();
  FILE *f = fopen(path, "w");
  if (!f) quit();
  bool ok = fputs(text, f) >= 0;
  ok = fclose(f) == 0 && ok;
  if (!ok) quit();
  // The file's text compiled: a filter that does not compile (its reason
  // logged by the route-socket library) stops the start as a refused one does.
  uint8_t area[RTS_FILTER_MAX] = {};
  int parsed = rts_filter_parse(path, area, sizeof area);
  unlink(path);
  if (parsed != 0) quit();
  size_t got = static_cast<size_t>(rts_filter_check(area, sizeof area));
  uint32_t mask[2] = {};
  socklen_t ml = sizeof mask;
  const task_domain_ops *d = task_domain_get(KRT_DOMAIN);
  if (d->tdo_getopt(d->tdo_ctx, sock, RTS_SOL, RTS_OPT_LISTEN_MASK, mask, &ml) < 0) quit();
  // The 756-byte record: mask (bit 0 of its second word set), a flag, the
  // program's pointer (zero on the wire) and the program inline.
  uint8_t rec[KRT_FILTER_RECORD] = {};
  mask[1] |= 1;
  memcpy(rec, mask, 8);
  uint32_t flag = 1;
  memcpy(rec + 8, &flag, 4);
  size_t room = sizeof rec - KRT_FILTER_PROGRAM_OFF;
  memcpy(rec + KRT_FILTER_PROGRAM_OFF, area, got < room ? got : room);
  if (sockopt(sock, RTS_OPT_FILTER, rec, sizeof rec) < 0) quit();
  if (cfg->filter_release) cfg->filter_release(text);
}

}  // namespace

krt_config *krt_config_get(void) { return krt_g.config; }
task *krt_task(void) { return krt_g.tp; }
krt_handler_fn *krt_handlers(void) { return krt_g.handlers; }
void krt_set_trace(trace_handle *th) { krt_g.trace = th; }
trace_handle *krt_trace_handle(void) { return krt_g.trace ? krt_g.trace : task_get_task_app_ctx()->app_trace; }

void krt_var_init(void) { krt_queue_init(); }

void krt_start(krt_config *config) {
  krt_g.handlers = config->handlers;
  krt_task_init(config, 0);
}

void krt_start_foreground(krt_config *config) {
  krt_block();
  krt_g.handlers = config->fg_handlers;
  krt_scan_set_complete_pending(true);
  krt_task_init(config, 1);
}

void krt_task_init(krt_config *config, int foreground) {
  krt_domain_init();
  if (!krt_g.config) {
    krt_g.config = config;
    for (const krt_db_desc *d = config->db_table; d && d->kdd_id; d++)
      if (d->kdd_init) d->kdd_init();
  }
  if (!krt_g.tp) {
    task *tp = task_alloc("KRT", 0, nullptr);
    config->task = tp;
    krt_g.tp = tp;
    krt_g.resync = config->ifstate_resync;
    task_set_recv(tp, config->ifstate_resync ? krt_resync_read_ready : krt_read_ready);
    task_set_write(tp, krt_write_cb);
    task_realloc_recv(KRT_RTSM_BUFFER_SIZE, false, "krt");
    task_set_terminate(tp, krt_terminate);
    if (!task_create(tp)) __task_quit__(KRT_EXIT_TASK);
  }
  if (task_state & TASKS_TEST) return;
  krt_async_setup(krt_g.tp, config, foreground);
  if (config->current_scans) krt_scan_current(krt_g.tp);
  if (config->fg_scans) krt_scan_foreground(krt_g.tp);
  if (config->scans) krt_scan_background(krt_g.tp);
  if (config->after_start) config->after_start();
}

void krt_async_setup(task *tp, krt_config *cfg, int foreground) {
  int sock = task_get_socket(tp, KRT_DOMAIN, SOCK_SEQPACKET, static_cast<int>(cfg->protocol));
  task_assert(sock >= 0);
  if (sockopt(sock, RTS_OPT_SENDER_ID, &cfg->sender_id, 1) < 0) KRT_TRACE("PF_ROUTE set SENDER_ID: %m");
  if (cfg->async_mode_on) {
    uint32_t mode = cfg->ifstate_resync ? KRT_ASYNC_MODE_RESYNC : KRT_ASYNC_MODE;
    if (sockopt(sock, RTS_OPT_ASYNC_MODE, &mode, 4) < 0) KRT_TRACE("PF_ROUTE set async mode %x: %m", mode);
  }
  if (uint64_t lb = mask64(cfg->loopback_mask)) {
    if (sockopt(sock, RTS_OPT_LOOPBACK_MASK, cfg->loopback_mask, 8) < 0)
      KRT_TRACE("PF_ROUTE set loopback mask %x: %m", static_cast<unsigned>(lb));
  }
  if (cfg->slave_mode && sockopt(sock, RTS_OPT_SLAVE_MODE, &cfg->slave_mode, 4) < 0)
    KRT_TRACE("PF_ROUTE set slave mode %x: %m", cfg->slave_mode);
  if (cfg->route_veto && sockopt(sock, RTS_OPT_ROUTE_VETO, &cfg->route_veto, 4) < 0)
    KRT_TRACE("PF_ROUTE set route veto support %x: %m", cfg->route_veto);
  const uint32_t *lm = foreground ? cfg->fg_listen_mask : cfg->listen_mask;
  if (sockopt(sock, RTS_OPT_LISTEN_MASK, lm, 8) < 0)
    KRT_TRACE("PF_ROUTE set listen mask %x: %m", static_cast<unsigned>(mask64(lm)));
  if (!foreground && cfg->ifstate_resync) {
    uint32_t mode = KRT_ASYNC_MODE_RESYNC_LISTEN;
    if (sockopt(sock, RTS_OPT_ASYNC_MODE, &mode, 4) < 0) KRT_TRACE("PF_ROUTE set async mode %x: %m", mode);
  }
  // Write selection only when the queue finds the socket full.
  task_flag_set(tp, TASK_FLAG_WRITEDISABLE);
  task_set_socket(tp, sock);
  apply_filter(sock, cfg);
  if (task_set_option(tp, TASKOPTION_NONBLOCKING, cfg->ifstate_resync ? 0 : 1) < 0) __task_quit__(KRT_EXIT_SETUP);
}

void krt_terminate(task *tp) {
  krt_scan_stop(tp);
  krt_read_stop();
  if (krt_queue_empty()) {
    krt_g.tp = nullptr;
    if (krt_g.config) krt_g.config->task = nullptr;
    task_delete(tp);
  }
}

void krt_lib_re_switchover(task *tp, int state) {
  krt_config *cfg = krt_g.config;
  task_assert(task_socket_setopt(tp, RTS_SOL, RTS_OPT_LISTEN_MASK, cfg->listen_mask, 8) == 0);
  krt_unblock();
  krt_complete_scan_done();
  krt_queue_switchover(state);
}

// ---- Blocking ----------------------------------------------------------------------

void krt_block(void) {
  if (krt_g.block_count++ == 0) krt_defer();
}

void krt_unblock(void) {
  int krt_block_ref_cnt = krt_g.block_count;
  task_assert(krt_block_ref_cnt);
  if (--krt_g.block_count == 0) krt_undefer();
}

void krt_defer(void) {
  bool krt_deferred = krt_g.deferred;
  task_assert(!krt_deferred);
  krt_g.deferred = true;
  krt_queue_stop_job();
}

void krt_undefer(void) {
  krt_g.deferred = false;
  if (!krt_queue_empty()) krt_queue_start_job();
}

bool krt_is_deferred(void) { return krt_g.deferred; }

// ---- Slice -------------------------------------------------------------------------

void krt_slice_start(void) {
  task_time_update();
  krt_g.slice_start = task_now;
}

bool krt_slice_over(const task_job *jp) {
  if (jp && jp->task_job_priority == TASK_JOB_FOREGROUND) return false;
  task_time_update();
  return task_utime_to_usec(task_now) - task_utime_to_usec(krt_g.slice_start) >= KRT_SLICE_MS * 1000ull;
}

void krt_reset(void) {
  krt_scan_reset();
  krt_queue_reset();
  krt_g = krt_state{};
}
