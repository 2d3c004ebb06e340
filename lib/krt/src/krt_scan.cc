// The scan job: request, send, the kernel's verdict, the reply, and the move
// from table to table; the three kinds of scan and the completion hooks.
#include "krt/krt_scan.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "krt_internal.h"
#include "task/io.h"

namespace {

task_job *bg_job, *fg_job, *krt_current_scan_jp;
bool complete_pending;

krt_scan_state *new_state(const krt_scan *list, uint32_t index, uint32_t count) {
  const krt_scan *d = &list[index];
  auto *st = static_cast<krt_scan_state *>(calloc(1, sizeof(krt_scan_state) + d->state_size));
  task_assert(st);
  st->index = index;
  st->descriptor = d;
  st->count = count;
  st->first_request = d->first_get != 0;
  if (d->init) d->init(st);
  return st;
}

void end_job(task_job *jp) {
  if (jp == bg_job) bg_job = nullptr;
  if (jp == fg_job) fg_job = nullptr;
  if (jp == krt_current_scan_jp) krt_current_scan_jp = nullptr;
  task_job_set_data(jp, nullptr);
  task_job_delete(jp);
}

bool table_absent(int err) { return err == EOPNOTSUPP || err == ENOPROTOOPT || err == EAFNOSUPPORT; }

alignas(16) uint8_t request_block[KRT_SCAN_REQUEST_MAX];

// Starts a list on a job: a new job, or the old one with its state replaced.
void start(task *tp, task_job **slot, const krt_scan *list, uint32_t count, bool foreground) {
  if (!list || !count) return;
  krt_scan_state *st = new_state(list, 0, count);
  if (*slot) {
    free(task_job_get_data(*slot));
    task_job_set_data(*slot, st);
    return;
  }
  *slot = foreground ? task_job_create_foreground(tp, "krt foreground scan", krt_scan_job, st)
                     : task_job_create_background(tp, 4, "krt scan", krt_scan_job, st);
}

}  // namespace

task_job *krt_scan_bg_job(void) { return bg_job; }
task_job *krt_scan_fg_job(void) { return fg_job; }
void krt_scan_set_complete_pending(bool on) { complete_pending = on; }

void krt_scan_background(task *tp) {
  krt_config *c = krt_config_get();
  start(tp, &bg_job, c->scans, c->scan_count, false);
}

void krt_scan_foreground(task *tp) {
  krt_config *c = krt_config_get();
  start(tp, &fg_job, c->fg_scans, c->fg_scan_count, true);
}

void krt_scan_current(task *tp) {
  krt_config *c = krt_config_get();
  if (!c->current_scans || !c->current_scan_count) return;
  task_assert(!krt_current_scan_jp);
  krt_scan_state *st = new_state(c->current_scans, 0, c->current_scan_count);
  krt_current_scan_jp = task_job_create_foreground(tp, "krt current scan", krt_scan_job, st);
  task_job_force(krt_current_scan_jp);
}

void krt_scan_stop(task *) {
  for (task_job **slot : {&bg_job, &fg_job}) {
    if (!*slot) continue;
    free(task_job_get_data(*slot));
    end_job(*slot);
  }
}

bool krt_scan_advance(task_job *jp, krt_scan_state **state) {
  krt_scan_state *st = *state;
  const krt_scan *d = st->descriptor;
  if (!complete_pending && d->done) d->done();
  const krt_scan *list = d - st->index;
  uint32_t next = st->index + 1, count = st->count;
  free(st);
  *state = nullptr;
  task_job_set_data(jp, nullptr);
  if (next >= count) return false;
  KRT_TRACE("%s: move on to %u", task_job_get_name(jp), next);
  *state = new_state(list, next, count);
  task_job_set_data(jp, *state);
  return true;
}

void krt_scan_job(task_job *jp) {
  auto *st = static_cast<krt_scan_state *>(task_job_get_data(jp));
  const char *name = task_job_get_name(jp);
  task *tp = task_job_get_task(jp);
  KRT_TRACE("%s: scan table %d", name, st && st->descriptor ? static_cast<int>(st->descriptor->table) : -1);
  krt_slice_start();
  alignas(16) uint8_t arena[KRT_DECODE_ARENA];
  for (;;) {
    if (!st || !st->descriptor) return end_job(jp);
    const krt_scan *d = st->descriptor;
    bool next_table = false;
    if (d->skip && d->skip(d)) {
      next_table = true;
    } else {
      // The request.
      uint32_t len = 0, type, seq;
      uint8_t op;
      uint8_t *bytes;
      if (d->idl) {
        memset(request_block, 0, sizeof request_block);
        d->request(request_block, &len, st);
        auto *h = reinterpret_cast<rts_msg_hdr *>(request_block);
        rts_msg_pair pair{h->type, request_block};
        type = h->type;
        seq = h->seq;
        op = h->operation;
        bytes = krt_encode(&pair, &len);
        task_assert(bytes);
      } else {
        d->request(rtsm_buffer, &len, st);
        bytes = rtsm_buffer;
        type = rtsm_buffer[5];
        op = rtsm_buffer[6];
        memcpy(&seq, rtsm_buffer + 12, 4);
      }
      int err = krt_send_raw(bytes, len);
      krt_big_free(bytes);
      if (err == ENOENT && st->first_request) {
        // The get of the first key may miss where a getnext finds.
        st->first_request = 0;
        continue;
      }
      if (err == ENOENT || table_absent(err)) {
        if (d->on_end && d->on_end(st)) continue;
        next_table = true;
      } else if (err) {
        errno = err;
        KRT_TRACE("%s: %m", name);
        if (st) free(st);
        return end_job(jp);
      } else {
        rts_msg_pair reply{};
        size_t rlen = 0;
        int res = 0;
        int r = krt_receive_reply(tp, type, seq, op, arena, sizeof arena, &reply, &rlen, &res);
        if (r == KRT_REPLY_UNDECODED || r == KRT_REPLY_MAGIC) {
          KRT_TRACE("%s: IDL decoding fail errno %d res %d ", name, errno, res);
          next_table = true;
        } else if (r != 0) {
          free(st);
          return end_job(jp);
        } else {
          st->first_request = 0;
          if (!d->reply(reply.record, static_cast<uint32_t>(rlen), st)) next_table = true;
        }
      }
    }
    if (next_table && !krt_scan_advance(jp, &st)) return end_job(jp);
    if (krt_slice_over(jp)) return;
  }
}

void krt_complete_scan_done(void) {
  if (!complete_pending) return;
  complete_pending = false;
  krt_config *c = krt_config_get();
  if (!c) return;
  for (uint32_t i = 0; c->fg_scans && i < c->fg_scan_count; i++)
    if (c->fg_scans[i].done) c->fg_scans[i].done();
  uint32_t upto = c->scan_count;
  if (bg_job) {
    auto *st = static_cast<krt_scan_state *>(task_job_get_data(bg_job));
    if (st) upto = st->index;
  }
  for (uint32_t i = 0; c->scans && i < upto; i++)
    if (c->scans[i].done) c->scans[i].done();
}

void krt_scan_reset(void) {
  bg_job = fg_job = krt_current_scan_jp = nullptr;
  complete_pending = false;
}
