// The ring: sending under the file's lock, reading without one, and growth
// with the wrapped part of the ring moved up into the new space.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "internal.h"
#include "mmf/crashpoint.h"

namespace {

// Largest piece moved at a time: at most the growth itself, so that a piece
// never overlaps its own source and a move cut short can be redone.
constexpr uint32_t kCopyChunk = 64 << 10;

uint32_t get_u32(const void *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

// Grows the file by a step and moves the ring into it. Under the file's lock.
bool grow(mmcq *h) {
  mmf *m = h->m;
  ptrdiff_t at = reinterpret_cast<char *>(h->q) - reinterpret_cast<char *>(m->shared_info);
  if (static_cast<int64_t>(m->shared_info->current_bytes) >= m->max_bytes || !mmf_grow(m)) {
    mmcq_print(h, "mmcq mmf extend failed\n");
    return false;
  }
  h->q = reinterpret_cast<mmcq_header_t *>(reinterpret_cast<char *>(m->shared_info) + at);
  mmcq_header_t *q = h->q;
  uint64_t cur = m->shared_info->current_bytes;
  if (cur > UINT32_MAX) cur = UINT32_MAX;
  h->cur_data_bytes = static_cast<int64_t>(cur);
  mmcq_claim(h);
  q->grow_old_max = q->max_data_offset;
  q->grow_low = q->max_data_offset;
  q->grow_old_take = mmcq_load(&q->take_offset);
  q->grow_old_put = q->put_offset;
  mmcq_store(&q->grow_new_max, static_cast<uint32_t>(cur));
  TVX_CRASHPOINT("mmcq_grow_marked");
  mmcq_run_grow(h);
  mmcq_release(h);
  return true;
}

int send_locked(mmcq *h, const void *msg, uint32_t len) {
  if (mmcq_load(&h->q->grow_new_max)) mmcq_finish_grow(h);
  for (;;) {
    mmcq_header_t *q = h->q;
    uint32_t lo = q->min_data_offset, hi = q->max_data_offset;
    uint32_t put = q->put_offset;
    if (put >= hi) put = lo;
    uint32_t take = mmcq_load(&q->take_offset);
    uint32_t need = len + 4;
    int64_t unused_bytes = take > put ? take - put : static_cast<int64_t>(q->max_data_bytes) - (put - take);
    uint32_t skip = put + static_cast<uint64_t>(need) > hi ? hi - put : 0;
    int64_t room = unused_bytes - skip;
    if (static_cast<int64_t>(need) < room) {
      MMCQ_ASSERT(q->max_data_bytes >= unused_bytes);
      MMCQ_ASSERT(put >= q->min_data_offset);
      MMCQ_ASSERT(put < q->max_data_offset);
      MMCQ_ASSERT(q->take_offset >= q->min_data_offset);
      MMCQ_ASSERT(q->take_offset < q->max_data_offset);
      if (skip) {
        if (skip >= 4) memset(mmcq_at(h, put, 4), 0, 4);
        q = h->q;
        put = lo;
      }
      char *p = static_cast<char *>(mmcq_at(h, put, need));
      memcpy(p, &need, 4);
      memcpy(p + 4, msg, len);
      q = h->q;
      TVX_CRASHPOINT("mmcq_send_written");
      uint32_t next = put + need;
      if (next >= hi) next = lo;
      mmcq_store(&q->put_offset, next);
      q->sent++;
      uint32_t fill = mmcq_fill(q);
      if (fill > q->high_fill) q->high_fill = fill;
      return MMCQ_SUCCESS;
    }
    if (static_cast<int64_t>(h->m->shared_info->current_bytes) < h->m->max_bytes) {
      if (!grow(h)) return MMCQ_MEM_FAILURE;
      continue;
    }
    q->full_count++;
    return MMCQ_Q_FULL;
  }
}

// The receiver's side of the grower word.
void enter_read(mmcq *h) { mmcq_claim(h); }

}  // namespace

void *mmcq_at(mmcq *h, uint32_t off, uint32_t len) {
  mmf *m = h->m;
  if (m->single_mapping && static_cast<int64_t>(off) + len > m->mapped_bytes) {
    // A file grown past this process's reservation is mapped anew: the
    // header moves with it, at the same distance from the file's start.
    ptrdiff_t at = reinterpret_cast<char *>(h->q) - reinterpret_cast<char *>(m->shared_info);
    MMCQ_ASSERT(mmf_refresh(m));
    h->q = reinterpret_cast<mmcq_header_t *>(reinterpret_cast<char *>(m->shared_info) + at);
  }
  return mmf_ensure_mapped(m, off, len);
}

void mmcq_wait(const mmcq *h, uint32_t *word, uint32_t pid, uint32_t first_us) {
  double limit = 30 * mmf_time_scale() * 1e6, waited = 0;
  uint32_t us = first_us ? first_us : 1;
  for (;;) {
    if (mmcq_load(word) != pid) return;
    if (!mmf_holder_alive(h->m, static_cast<pid_t>(pid))) {
      mmcq_cas(word, pid, 0);
      return;
    }
    MMCQ_ASSERT(waited < limit);
    usleep(us);
    waited += us;
    us = std::min<uint32_t>(us + 1000, 100000);
  }
}

void mmcq_claim(mmcq *h) {
  mmcq_header_t *q = h->q;
  uint32_t me = static_cast<uint32_t>(mmcq_self());
  bool waited = false;
  for (;;) {
    if (mmcq_cas(&q->grower_pid, 0, me)) break;
    // Our own pid is another thread of this process (a sender growing
    // while this thread receives, say): waited for like anyone else.
    uint32_t other = mmcq_load(&q->grower_pid);
    if (!h->sender) {
      mmcq_store(&q->reader_pid, me);
      waited = true;
    }
    if (!h->sender && !mmf_holder_alive(h->m, static_cast<pid_t>(other)) && mmcq_load(&q->grow_new_max)) {
      // A grower died inside its move; its lock is ours once the file's
      // lock word is taken over, and the move is finished before reading.
      mmf_lock(h->m);
      if (mmcq_cas(&q->grower_pid, other, me)) {
        if (mmcq_load(&q->grow_new_max)) {
          mmcq_run_grow(h);
          q->grows_finished++;
        }
        mmf_unlock(h->m);
        break;
      }
      mmf_unlock(h->m);
      continue;
    }
    mmcq_wait(h, &q->grower_pid, other, 100);
  }
  if (waited) mmcq_store(&q->reader_pid, 0u);
}

void mmcq_finish_grow(mmcq *h) {
  mmcq_claim(h);
  if (mmcq_load(&h->q->grow_new_max)) {
    mmcq_run_grow(h);
    h->q->grows_finished++;
  }
  mmcq_release(h);
}

void mmcq_release(mmcq *h) { mmcq_cas(&h->q->grower_pid, static_cast<uint32_t>(mmcq_self()), 0); }

void mmcq_run_grow(mmcq *h) {
  mmcq_header_t *q = h->q;
  uint32_t new_max = q->grow_new_max, old_max = q->grow_old_max, old_take = q->grow_old_take,
           old_put = q->grow_old_put, d = new_max - old_max;
  uint32_t take = old_take;
  if (old_put < old_take) {
    // Wrapped: [old_take, old_max) moves up by d, from the top down, through
    // a buffer (in region mode two mappings may not be live together).
    uint32_t chunk = std::min(d, kCopyChunk);
    if (h->region_map_bytes) chunk = std::min<uint32_t>(chunk, static_cast<uint32_t>(h->region_map_bytes));
    char *buf = static_cast<char *>(malloc(chunk));
    MMCQ_ASSERT(buf != nullptr);
    for (uint32_t low = q->grow_low; low > old_take;) {
      uint32_t a = low - old_take > chunk ? low - chunk : old_take, n = low - a;
      void *src = mmcq_at(h, a, n);
      if (!src) {
        mmcq_print(h, "mmcq grow copy failed. couldn't map from offset %u\n", a);
        MMCQ_ASSERT(src != nullptr);
      }
      memcpy(buf, src, n);
      void *dst = mmcq_at(h, a + d, n);
      if (!dst) {
        mmcq_print(h, "mmcq grow copy failed. couldn't map to offset %u\n", a + d);
        MMCQ_ASSERT(dst != nullptr);
      }
      memcpy(dst, buf, n);
      q = h->q;
      mmcq_store(&q->grow_low, a);
      TVX_CRASHPOINT("mmcq_grow_copied");
      low = a;
    }
    free(buf);
    take = old_take + d;
  }
  // Every store below follows from the journal alone, so a grower that dies
  // among them leaves work that is simply done again.
  mmcq_store(&q->take_offset, take);
  mmcq_store(&q->put_offset, old_put);
  TVX_CRASHPOINT("mmcq_grow_committing");
  q->max_data_bytes = new_max - q->min_data_offset;
  mmcq_store(&q->max_data_offset, new_max);
  q->grows++;
  mmcq_store(&q->grow_new_max, 0u);
}

int mmcq_send(mmcq *h, const void *msg, uint32_t len) {
  if (!h || !msg || h->magic != MMCQ_HANDLE_MAGIC) return MMCQ_BAD_PARAMETER;
  mmcq_header_t *q = h->q;
  uint8_t disabled = mmcq_load(&q->send_disabled);
  int st;
  if (disabled == 1)
    st = MMCQ_SEND_DISABLED;
  else if (disabled > 1)
    st = MMCQ_FAIL;
  else if (len == 0 || len > mmcq_load(&q->max_msg_bytes))
    st = MMCQ_BAD_PARAMETER;
  else {
    mmf_lock(h->m);
    st = send_locked(h, msg, len);
    if (st != MMCQ_SUCCESS) h->q->send_failures++;
    mmf_unlock(h->m);
    if (st == MMCQ_SUCCESS && !(h->flags & MMCQ_FLAG_NO_NOTIFY)) mmcq_ensure_receiver_notify(h);
    return st;
  }
  __atomic_add_fetch(&q->send_failures, 1, __ATOMIC_RELAXED);
  return st;
}

namespace {

// Both forms of the read; peek (non-null) copies without taking.
uint32_t get_next(mmcq *h, uint32_t len, void *buf, int *status, uint32_t *peek) {
  int dummy;
  if (!status) status = &dummy;
  if (!h || h->magic != MMCQ_HANDLE_MAGIC || (!buf && (len || peek))) {
    *status = MMCQ_BAD_PARAMETER;
    return 0;
  }
  *status = MMCQ_Q_EMPTY;
  mmcq_header_t *q = h->q;
  if (mmcq_load(&q->put_offset) == q->take_offset) return 0;
  enter_read(h);
  q = h->q;
  uint32_t result = 0;
  do {
    uint32_t lo = q->min_data_offset, hi = q->max_data_offset;
    uint32_t take = q->take_offset, put = mmcq_load(&q->put_offset);
    if (take == put) break;
    MMCQ_ASSERT(q->take_offset >= q->min_data_offset);
    MMCQ_ASSERT(q->take_offset < q->max_data_offset);
    if (hi - take < 5) take = lo;
    if (take == put) break;
    uint32_t bytes_to_map = std::min(q->max_msg_bytes + 4, hi - take);
    char *p = static_cast<char *>(mmcq_at(h, take, bytes_to_map));
    q = h->q;
    uint32_t bytes = get_u32(p);
    if (bytes == 0) {
      MMCQ_ASSERT(take > q->put_offset);
      take = lo;
      if (take == put) break;
      bytes_to_map = std::min(q->max_msg_bytes + 4, hi - take);
      p = static_cast<char *>(mmcq_at(h, take, bytes_to_map));
      q = h->q;
      bytes = get_u32(p);
    }
    MMCQ_ASSERT(bytes <= bytes_to_map);
    if (take < put && take + bytes > put) {
      q->incomplete++;
      break;
    }
    MMCQ_ASSERT(bytes > sizeof(mmcq_msg_t));
    uint32_t user_msg_bytes = bytes - 4;
    MMCQ_ASSERT(user_msg_bytes <= q->max_msg_bytes);
    if (peek) {
      *peek = std::min(*peek, user_msg_bytes);
      memcpy(buf, p + 4, *peek);
      *status = MMCQ_SUCCESS;
      result = user_msg_bytes;
      break;
    }
    if (len < user_msg_bytes) {
      *status = MMCQ_BUFFER_TOO_SMALL;
      break;
    }
    memcpy(buf, p + 4, user_msg_bytes);
    TVX_CRASHPOINT("mmcq_recv_copied");
    take += bytes;
    MMCQ_ASSERT(take <= q->max_data_offset);
    if (take >= hi) take = lo;
    mmcq_store(&q->take_offset, take);
    q->received++;
    *status = MMCQ_SUCCESS;
    result = user_msg_bytes;
  } while (false);
  mmcq_release(h);
  return result;
}

}  // namespace

uint32_t mmcq_get_next_q_msg(mmcq *h, uint32_t len, void *buf, int *status) {
  return get_next(h, len, buf, status, nullptr);
}

uint32_t mmcq_get_next(mmcq *h, uint32_t len, void *buf, int *status) {
  return get_next(h, len, buf, status, nullptr);
}

uint32_t mmcq_peek(mmcq *h, uint32_t *len, void *buf, int *status) {
  if (!len) {
    if (status) *status = MMCQ_BAD_PARAMETER;
    return 0;
  }
  uint32_t n = get_next(h, *len, buf, status, len);
  if (!n) *len = 0;
  return n;
}
