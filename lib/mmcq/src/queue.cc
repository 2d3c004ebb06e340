// Opening a queue: the file and its header, the receiver's takeover, closing.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "mmf/crashpoint.h"
#include "platform/path.h"

int mmcq_last_status;

const char *const mmcq_crashpoints[] = {
    // A grower: the journal written; a chunk of the wrapped part moved (pass
    // n is the n-th chunk); the move done, take stored but not the new end.
    "mmcq_grow_marked", "mmcq_grow_copied", "mmcq_grow_committing",
    // A sender with its message written but put_offset not yet stored.
    "mmcq_send_written",
    // The receiver with a message copied out but take_offset not yet stored.
    "mmcq_recv_copied",
};
const size_t mmcq_crashpoint_count = sizeof mmcq_crashpoints / sizeof mmcq_crashpoints[0];

namespace {

const char *const kStatus[] = {"SUCCESS", "Q_EMPTY", "Q_FULL",        "SEND_DISABLED", "MEM_FAILURE",
                               "FAIL",    "ERRNO",   "Q_INIT_FAILED", "BAD_PARAMETER", "BUFFER_TOO_SMALL"};

bool name_ok(const char *name) {
  if (!name || !*name || strlen(name) >= MMCQ_NAME_MAX) return false;
  for (const char *p = name; *p; p++)
    if (!(isalnum(static_cast<unsigned char>(*p)) || *p == '_' || *p == '-' || *p == '.')) return false;
  return strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

std::string file_name(const char *name) { return std::string(MMCQ_DIR) + name; }
std::string fifo_name(const char *name) { return std::string(MMCQ_FIFO_PREFIX) + name; }

int open_fifo(const char *name) {
  std::string path = tvx_path(fifo_name(name).c_str());
  tvx_mkdirs(path.substr(0, path.rfind('/')).c_str(), 0755);
  mode_t old = umask(0);
  int rc = mkfifo(path.c_str(), 0600);
  umask(old);
  if (rc != 0 && errno != EEXIST) return -1;
  return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

void initialise(mmcq *h, uint32_t max_msg_bytes) {
  mmcq_header_t *q = h->q;
  const mmf_shared_info_t *si = h->m->shared_info;
  mmcq_store(&q->magic, MMCQ_MAGIC_INIT);
  memset(reinterpret_cast<char *>(q) + offsetof(mmcq_header_t, creator_pid), 0,
         MMCQ_HEADER_SIZE - offsetof(mmcq_header_t, creator_pid));
  q->creator_pid = static_cast<uint32_t>(mmcq_self());
  q->version = MMCQ_VERSION;
  q->size = MMCQ_HEADER_SIZE;
  q->max_msg_bytes = max_msg_bytes;
  uint64_t lo = si->common_offset + MMCQ_HEADER_SIZE;
  if (lo < si->first_alloc_offset) lo = si->first_alloc_offset;
  q->min_data_offset = static_cast<uint32_t>(lo);
  q->max_data_offset = static_cast<uint32_t>(si->current_bytes);
  q->max_data_bytes = q->max_data_offset - q->min_data_offset;
  q->put_offset = q->take_offset = q->min_data_offset;
  mmcq_store(&q->magic, MMCQ_MAGIC_READY);
}

// A growth's journal that can be finished: the ring's start and the
// journal's offsets inside the file as it is.
bool journal_ok(const mmcq *h) {
  const mmcq_header_t *q = h->q;
  uint32_t nm = q->grow_new_max, om = q->grow_old_max;
  return q->version == MMCQ_VERSION && q->size == MMCQ_HEADER_SIZE && nm > om &&
         nm <= h->m->shared_info->current_bytes && q->min_data_offset >= h->m->page_size &&
         q->min_data_offset < om && q->grow_old_take >= q->min_data_offset && q->grow_old_take < om &&
         q->grow_old_put >= q->min_data_offset && q->grow_old_put < om && q->grow_low >= q->grow_old_take &&
         q->grow_low <= om && (q->max_data_offset == om || q->max_data_offset == nm);
}

// A damaged header is rebuilt.
bool usable(const mmcq *h) {
  const mmcq_header_t *q = h->q;
  return mmcq_load(&q->magic) == MMCQ_MAGIC_READY && mmcq_header_sane(q, h->m->page_size) &&
         q->max_data_offset <= h->m->shared_info->current_bytes && q->grow_new_max == 0;
}

// Opens the file, checks or builds the header. Under no lock on return.
bool init_q(mmcq *h, uint32_t max_msg_bytes) {
  tvx_mkdirs(tvx_path(MMCQ_DIR).c_str(), 0755);
  bool single = h->region_map_bytes == 0;
  uint32_t sizes[1] = {MMCQ_HEADER_SIZE};
  uint32_t regions = 1;
  if (!single) regions = static_cast<uint32_t>(std::min<int64_t>(4, h->max_data_bytes / h->region_map_bytes));
  h->m = mmf_create(file_name(h->name).c_str(), h->max_data_bytes, h->default_data_bytes, h->default_data_bytes,
                    single, h->region_map_bytes, regions, 1, sizes, MMF_FLAG_RAW_DATA, nullptr);
  if (!h->m) {
    mmcq_print(h, "mmcq q mmf create failed\n");
    return false;
  }
  mmf_lock(h->m);
  uint32_t len = MMCQ_HEADER_SIZE;
  off_t off;
  h->q = static_cast<mmcq_header_t *>(mmf_alloc_common(h->m, &len, &off));
  if (!h->q || len != MMCQ_HEADER_SIZE) {
    mmf_unlock(h->m);
    mmcq_print(h, "mmcq q alloc failed\n");
    return false;
  }
  if (mmcq_load(&h->q->magic) == MMCQ_MAGIC_INIT) {
    // Another opener is initialising: its lock ended before ours began, or
    // it died half-way. Wait for the mark, then judge the header.
    mmf_unlock(h->m);
    double limit = 121 * mmf_time_scale(), waited = 0;
    while (mmcq_load(&h->q->magic) != MMCQ_MAGIC_READY && waited < limit &&
           mmf_holder_alive(h->m, static_cast<pid_t>(h->q->creator_pid))) {
      usleep(10000);
      waited += 0.01;
    }
    mmf_lock(h->m);
  }
  // A growth in the journal under the lock is a dead grower's (a grower
  // holds the lock throughout): finish it, then judge the header it leaves.
  if (mmcq_load(&h->q->magic) == MMCQ_MAGIC_READY && mmcq_load(&h->q->grow_new_max) && journal_ok(h))
    mmcq_finish_grow(h);
  if (!usable(h)) initialise(h, max_msg_bytes);
  if (max_msg_bytes > h->q->max_msg_bytes && max_msg_bytes <= h->q->max_data_bytes)
    h->q->max_msg_bytes = max_msg_bytes;
  mmf_unlock(h->m);
  return true;
}

void take_over(mmcq *h) {
  mmcq_header_t *q = h->q;
  uint32_t me = static_cast<uint32_t>(mmcq_self());
  mmf_lock(h->m);
  uint32_t prev = q->receiver_pid;
  bool live = prev && prev != me && mmf_holder_alive(h->m, static_cast<pid_t>(prev));
  if (prev && prev != me) q->takeovers++;
  mmcq_store(&q->receiver_pid, me);
  mmf_unlock(h->m);
  if (!live) return;
  // Two receivers at once is a configuration fault worth a trace; the shell
  // runs with the lock released, so senders do not wait for it.
  char line[512];
  std::string log = tvx_path("/var/tmp/dupe_mmcq.log");
  tvx_mkdirs(log.substr(0, log.rfind('/')).c_str(), 0755);
  snprintf(line, sizeof line, "echo \"queue %s, pidPrev %d, pidNew %d\" >> '%s'", h->name, prev, me, log.c_str());
  mmf_run_shell(line);
  snprintf(line, sizeof line, "ps -fp %d %d | tail -2 >> '%s' 2>&1", prev, me, log.c_str());
  mmf_run_shell(line);
}

void on_readable(mm_ctx *ctx) { mmcq_receiver_receive(static_cast<mmcq *>(ctx->arg)); }
void on_watch(mm_ctx *ctx, int) { mmcq_check_receiver(static_cast<mmcq *>(ctx->arg)); }

}  // namespace

const char *mmcq_status_str(int status) {
  if (status < 0 || status >= static_cast<int>(sizeof kStatus / sizeof kStatus[0])) return "UNKNOWN";
  return kStatus[status];
}

bool mmcq_header_sane(const mmcq_header_t *q, uint32_t page_size) {
  return q->version == MMCQ_VERSION && q->size == MMCQ_HEADER_SIZE && q->min_data_offset >= page_size &&
         q->min_data_offset < q->max_data_offset && q->max_data_bytes == q->max_data_offset - q->min_data_offset &&
         q->max_msg_bytes <= q->max_data_bytes && q->send_disabled <= 1 && q->put_offset >= q->min_data_offset &&
         q->put_offset < q->max_data_offset && q->take_offset >= q->min_data_offset &&
         q->take_offset < q->max_data_offset;
}

uint32_t mmcq_fill(const mmcq_header_t *q) {
  uint32_t put = mmcq_load(&q->put_offset), take = mmcq_load(&q->take_offset);
  return put >= take ? put - take : q->max_data_bytes - (take - put);
}

mmcq *mmcq_init_common(const char *name, mm_ctx *ctx, bool sender, uint32_t flags, uint32_t max_msg_bytes,
                       int64_t default_bytes, int64_t max_bytes, int64_t region_map_bytes,
                       mmcq_receive_cb receive_cb, void *cookie, mmcq_status_change_cb status_cb) {
  mmcq_last_status = MMCQ_BAD_PARAMETER;
  if (!name_ok(name) || max_msg_bytes == 0 || default_bytes <= 0 || max_bytes < default_bytes ||
      max_bytes > INT64_C(0xF0000000) || region_map_bytes < 0 ||
      (region_map_bytes && (max_bytes % region_map_bytes || default_bytes % region_map_bytes ||
                            region_map_bytes <= static_cast<int64_t>(max_msg_bytes) + 4)))
    return nullptr;
  if (sender) {
    MMCQ_ASSERT(receive_cb == 0);
  }
  mmcq *h = static_cast<mmcq *>(calloc(1, sizeof(mmcq)));
  if (!h) return nullptr;
  h->magic = MMCQ_HANDLE_MAGIC;
  h->size = MMCQ_HANDLE_SIZE;
  snprintf(h->name, sizeof h->name, "%s", name);
  h->flags = flags;
  h->print = 1;
  h->sender = sender;
  h->region_map_bytes = region_map_bytes;
  h->cur_data_bytes = h->default_data_bytes = default_bytes;
  h->max_data_bytes = max_bytes;
  h->ctx = ctx;
  h->wake_fd = -1;
  h->receive_cb = receive_cb;
  h->receiver_status_change_cb = status_cb;
  h->cookie = cookie;
  mmcq_last_status = MMCQ_Q_INIT_FAILED;
  if (!init_q(h, max_msg_bytes) || (h->wake_fd = open_fifo(name)) < 0) {
    if (h->wake_fd < 0 && h->m) mmcq_print(h, "mmcq %s: wake-up fifo: %s\n", name, strerror(errno));
    mmcq_delete(h);
    return nullptr;
  }
  mmcq_header_t *q = h->q;
  if (ctx) ctx->arg = h;
  if (!sender) {
    take_over(h);
    if (!receive_cb) {
      mmcq_store<uint8_t>(&q->receiver_stopped, 1);
      mmcq_store<uint8_t>(&q->rnw, 0);
    } else {
      mmcq_store<uint8_t>(&q->receiver_stopped, 1);
      if (ctx) {
        ctx->ops->sock_set(ctx, h->wake_fd);
        if (ctx->ops->sock_enable_read(ctx, on_readable) != 0) {
          mmcq_delete(h);
          return nullptr;
        }
        h->sock_registered = 1;
      }
      mmcq_store<uint8_t>(&q->receiver_stopped, 0);
      // What was left in the ring by a predecessor wakes the new receiver.
      mmcq_store<uint8_t>(&q->rnw, 1);
      __atomic_thread_fence(__ATOMIC_SEQ_CST);
      if (mmcq_fill(q)) mmcq_ensure_receiver_notify(h);
    }
  } else {
    mmcq_check_receiver(h);
    if (ctx && ctx->ops->conn_timer_create(ctx, MMCQ_WATCH_MSEC, on_watch, 0) == 0) h->timer0_active = 1;
  }
  mmcq_last_status = MMCQ_SUCCESS;
  return h;
}

mmcq *mmcq_sender_create(const char *name, mm_ctx *ctx, uint32_t max_msg_bytes, int64_t default_bytes,
                         int64_t max_bytes, int64_t region_map_bytes, mmcq_status_change_cb status_cb,
                         void *cookie) {
  return mmcq_init_common(name, ctx, true, 0, max_msg_bytes, default_bytes, max_bytes, region_map_bytes, nullptr,
                          cookie, status_cb);
}

mmcq *mmcq_receiver_create(const char *name, mm_ctx *ctx, uint32_t max_msg_bytes, int64_t default_bytes,
                           int64_t max_bytes, int64_t region_map_bytes, mmcq_receive_cb receive_cb, void *cookie,
                           mmcq_status_change_cb status_cb) {
  return mmcq_init_common(name, ctx, false, 0, max_msg_bytes, default_bytes, max_bytes, region_map_bytes,
                          receive_cb, cookie, status_cb);
}

void mmcq_enable_send(mmcq *h) { mmcq_store<uint8_t>(&h->q->send_disabled, 0); }
void mmcq_disable_send(mmcq *h) { mmcq_store<uint8_t>(&h->q->send_disabled, 1); }

void mmcq_clean_up(mmcq *h) {
  if (!h || !h->m || !h->q) return;
  if (h->ctx) {
    if (h->sock_registered) {
      h->ctx->ops->sock_disable_read(h->ctx);
      h->ctx->ops->sock_reset(h->ctx);
      h->sock_registered = 0;
    }
    for (int i = 0; i < MM_MAX_TIMERS; i++) {
      uint8_t *active = i == 0 ? &h->timer0_active : &h->timer1_active;
      if (*active) h->ctx->ops->conn_timer_destroy(h->ctx, i);
      *active = 0;
    }
  }
  if (!h->sender) {
    mmcq_store<uint8_t>(&h->q->receiver_stopped, 1);
    mmcq_store<uint8_t>(&h->q->rnw, 0);
    mmcq_cas(&h->q->receiver_pid, static_cast<uint32_t>(mmcq_self()), 0);
  }
}

void mmcq_delete(mmcq *h) {
  if (!h) return;
  mmcq_clean_up(h);
  if (h->wake_fd >= 0) close(h->wake_fd);
  mmf_close(h->m);
  memset(h, 0, sizeof *h);
  free(h);
}

void mmcq_unlink(const char *name) {
  if (!name_ok(name)) return;
  mmf_unlink(file_name(name).c_str());
  unlink(tvx_path(fifo_name(name).c_str()).c_str());
}

void mmcq_assert_fail(const char *expr, const char *file, int line) {
  fprintf(stderr, "mmcq: assertion failed: %s (%s:%d)\n", expr, file, line);
  fflush(stderr);
  abort();
}

namespace {
// The pid, cached: a read takes it twice per message. A forked child
// forgets it.
int cached_pid;
void forget_pid() { cached_pid = 0; }
}  // namespace

int mmcq_self(void) {
  if (__builtin_expect(cached_pid != 0, 1)) return cached_pid;
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, forget_pid); });
  cached_pid = static_cast<int>(getpid());
  return cached_pid;
}

void mmcq_print(const mmcq *h, const char *fmt, ...) {
  if (h && !h->print) return;
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
}
