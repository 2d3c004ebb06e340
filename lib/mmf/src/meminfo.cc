// The memory report: its writer (a record per open mapped file) and reader.
#include "mmf/meminfo.h"

#include <cerrno>
#include <cstddef>
#include <mutex>
#include <string>

#include "internal.h"
#include "platform/path.h"

static_assert(sizeof(meminfo_header_t) == MEMINFO_HEADER_SIZE);
static_assert(offsetof(meminfo_header_t, reset_history) == 32);
static_assert(offsetof(meminfo_header_t, record_count) == 112);
static_assert(offsetof(meminfo_header_t, write_count) == 116);
static_assert(offsetof(meminfo_header_t, flags) == 124);
static_assert(offsetof(meminfo_header_t, first) == 128);
static_assert(sizeof(meminfo_record_t) == 16);
static_assert(sizeof(meminfo_mmf_payload_t) == 156);
static_assert(offsetof(meminfo_mmf_payload_t, flags) == 144);

namespace {

constexpr uint32_t kFlagsAt = 144;
constexpr uint32_t kClass[] = {64};

std::mutex open_mu;
mmf *report;              // this process's handle of the report
std::string report_root;  // the root it was opened under
meminfo_header_t *hdr;    // its common block

// The common block: every byte of the heap but a node's overhead.
uint32_t common_bytes(const mmf *m) {
  return static_cast<uint32_t>((MEMINFO_FILE_BYTES - m->shared_info->first_alloc_offset - mmf_node_bytes) & ~7ull);
}

meminfo_record_t *rec_at(meminfo_header_t *h, uint64_t off) {
  return reinterpret_cast<meminfo_record_t *>(reinterpret_cast<char *>(h) + off);
}
const char *rec_name(const meminfo_record_t *r) { return reinterpret_cast<const char *>(r + 1); }

// A record that lies wholly inside the data and is of the right shape.
bool record_sane(const meminfo_header_t *h, uint64_t off, uint32_t type) {
  if (off < MEMINFO_HEADER_SIZE || off % 4 || off + MEMINFO_MIN_RECORD > h->common_len) return false;
  const meminfo_record_t *r = rec_at(const_cast<meminfo_header_t *>(h), off);
  return r->length >= MEMINFO_MIN_RECORD && off + r->length <= h->common_len && r->type == type &&
         rec_name(r)[0] != 0;
}

// 0 when the header and every chain hold, else the line of the failed check.
int check(const meminfo_header_t *h, uint32_t common_len) {
  if (h->version != MEMINFO_VERSION) return __LINE__;
  if (h->file_size != MEMINFO_FILE_BYTES || h->header_size != MEMINFO_HEADER_SIZE) return __LINE__;
  if (h->common_len != common_len || h->data_size != common_len - MEMINFO_HEADER_SIZE) return __LINE__;
  if (h->next_free < MEMINFO_HEADER_SIZE || h->next_free > common_len) return __LINE__;
  if (h->bytes_free != common_len - h->next_free) return __LINE__;
  uint32_t seen = 0;
  for (uint32_t t = 0; t < MEMINFO_TYPES; t++) {
    uint64_t off = h->first[t], prev = 0;
    if (!off != !h->last[t]) return __LINE__;
    while (off) {
      if (!record_sane(h, off, t) || off >= h->next_free) return __LINE__;
      if (++seen > h->record_count) return __LINE__;  // a loop, or a count that lies
      prev = off;
      off = rec_at(const_cast<meminfo_header_t *>(h), off)->next;
    }
    if (prev != h->last[t]) return __LINE__;
  }
  if (seen != h->record_count) return __LINE__;
  return 0;
}

void reset(meminfo_header_t *h, uint32_t common_len, int line) {
  meminfo_reset_t hist[MEMINFO_RESET_HISTORY];
  uint32_t resets = h->resets;
  memcpy(hist, h->reset_history, sizeof hist);
  memset(h, 0, common_len);
  h->version = MEMINFO_VERSION;
  h->file_size = MEMINFO_FILE_BYTES;
  h->header_size = MEMINFO_HEADER_SIZE;
  h->common_len = common_len;
  h->data_size = common_len - MEMINFO_HEADER_SIZE;
  h->next_free = MEMINFO_HEADER_SIZE;
  h->bytes_free = h->data_size;
  // A new report (line 0) is made, not reset.
  if (!line) return;
  h->resets = resets + 1;
  h->reset_history[0] = {static_cast<uint32_t>(line), static_cast<uint32_t>(mmf_pid())};
  memcpy(h->reset_history + 1, hist, sizeof hist - sizeof hist[0]);
}

bool all_zero(const meminfo_header_t *h) {
  static const meminfo_header_t zero = {};
  return memcmp(h, &zero, sizeof zero) == 0;
}

// Under open_mu.
mmf *open_report() {
  const char *root = tvx_path_root();
  if (report && report_root == root) return report;
  if (report) mmf_close(report);
  report = nullptr;
  hdr = nullptr;
  std::string dir = tvx_path("/mfs/var/meminfo");
  tvx_mkdirs(dir.c_str(), 0755);
  mmf *m = mmf_create(MEMINFO_NAME, MEMINFO_FILE_BYTES, MEMINFO_FILE_BYTES, MEMINFO_FILE_BYTES, true, 0, 1, 1,
                      kClass, 0, nullptr);
  if (!m) return nullptr;
  m->meminfo_offset = -1;  // the report never reports itself
  uint32_t len = common_bytes(m);
  off_t off;
  mmf_lock(m);
  auto *h = static_cast<meminfo_header_t *>(mmf_alloc_common(m, &len, &off));
  if (h && len == common_bytes(m)) {
    if (all_zero(h))
      reset(h, len, 0);
    else if (int line = check(h, len))
      reset(h, len, line);
  } else {
    h = nullptr;
  }
  mmf_unlock(m);
  if (!h) {
    mmf_close(m);
    return nullptr;
  }
  report = m;
  report_root = root;
  hdr = h;
  return report;
}

// The record of (type, name), by the cached offset or by its chain; 0 if none.
uint64_t find(meminfo_header_t *h, uint32_t type, const char *name, int64_t cached) {
  if (cached > 0 && static_cast<uint64_t>(cached) < h->next_free &&
      record_sane(h, static_cast<uint64_t>(cached), type) &&
      strncmp(rec_name(rec_at(h, static_cast<uint64_t>(cached))), name, MEMINFO_NAME_BYTES) == 0)
    return static_cast<uint64_t>(cached);
  uint32_t steps = 0;
  for (uint64_t off = h->first[type]; off && steps <= h->record_count; steps++) {
    if (!record_sane(h, off, type)) return 0;
    meminfo_record_t *r = rec_at(h, off);
    if (strncmp(rec_name(r), name, MEMINFO_NAME_BYTES) == 0) return off;
    off = r->next;
  }
  return 0;
}

}  // namespace

mmf *meminfo_handle(bool open) {
  if (!open) return __atomic_load_n(&report, __ATOMIC_ACQUIRE);
  std::lock_guard<std::mutex> g(open_mu);
  return open_report();
}

void meminfo_close(void) {
  std::lock_guard<std::mutex> g(open_mu);
  if (report) mmf_close(report);
  report = nullptr;
  hdr = nullptr;
  report_root.clear();
}

bool meminfo_update(uint32_t type, const char *name, const void *payload, uint32_t payload_len,
                    int64_t *cached) {
  mmf *m = meminfo_handle(false);
  if (!m || type >= MEMINFO_TYPES || payload_len + 16 < MEMINFO_MIN_RECORD || !name[0]) return false;
  mmf_lock(m);
  meminfo_header_t *h = hdr;
  uint64_t off = find(h, type, name, cached ? *cached : 0);
  bool ok = true;
  if (off) {
    meminfo_record_t *r = rec_at(h, off);
    uint32_t room = r->length - 16;
    uint8_t flags = payload_len > kFlagsAt && room > kFlagsAt ? reinterpret_cast<uint8_t *>(r + 1)[kFlagsAt] : 0;
    memcpy(r + 1, payload, payload_len < room ? payload_len : room);
    if (room > kFlagsAt) reinterpret_cast<uint8_t *>(r + 1)[kFlagsAt] = flags;
  } else {
    uint32_t len = (payload_len + 16 + 3) & ~3u;
    if (h->next_free + len > h->common_len) {
      ok = false;  // full: the update is dropped
    } else {
      off = h->next_free;
      meminfo_record_t *r = rec_at(h, off);
      memset(r, 0, len);
      r->length = len;
      r->type = type;
      r->next = 0;
      memcpy(r + 1, payload, payload_len);
      if (payload_len > kFlagsAt) reinterpret_cast<uint8_t *>(r + 1)[kFlagsAt] = 0;
      // Name it exactly as asked, whatever the payload's first bytes were.
      strncpy(reinterpret_cast<char *>(r + 1), name, MEMINFO_NAME_BYTES - 1);
      // The record is whole before the chain reaches it.
      if (h->last[type])
        rec_at(h, h->last[type])->next = off;
      else
        h->first[type] = off;
      h->last[type] = off;
      h->next_free += len;
      h->bytes_free = h->common_len - h->next_free;
      h->record_count++;
    }
  }
  if (ok) {
    h->write_count++;
    if (payload_len > kFlagsAt && (reinterpret_cast<uint8_t *>(rec_at(h, off) + 1)[kFlagsAt] & MEMINFO_REC_HEADER_FLAG))
      h->flags |= MEMINFO_FLAG_CONTINUOUS;
    if (cached) *cached = static_cast<int64_t>(off);
  }
  mmf_unlock(m);
  return ok;
}

bool meminfo_mmf_update(mmf *m) {
  if (!m || m->meminfo_offset < 0 || !m->shared_info || !m->name) return false;
  mmf_lock(m);
  const mmf_shared_info_t *si = m->shared_info;
  meminfo_mmf_payload_t p = {};
  strncpy(p.name, m->name, sizeof p.name - 1);
  p.current_bytes = si->current_bytes;
  p.max_bytes = static_cast<uint64_t>(m->max_bytes);
  p.mapped_bytes = static_cast<uint64_t>(m->mapped_bytes);
  p.lock_count = si->lock_count;
  p.contended_count = si->contended_count;
  p.wait_us = si->wait_ns / 1000;
  p.mmap_calls = si->mmap_calls;
  p.pid = static_cast<uint32_t>(mmf_pid());
  mmf_unlock(m);
  int64_t off = m->meminfo_offset;
  bool ok = meminfo_update(MEMINFO_TYPE_MMF, p.name, &p, sizeof p, &off);
  if (ok) m->meminfo_offset = off;
  return ok;
}

// Every 1000 locks: whether this file's record asks to be kept current.
bool mmf_meminfo_wanted(const mmf *m) {
  mmf *r = meminfo_handle(false);
  meminfo_header_t *h = hdr;
  if (!r || !h || m->meminfo_offset <= 0) return false;
  uint64_t off = static_cast<uint64_t>(m->meminfo_offset);
  if (off + sizeof(meminfo_record_t) + kFlagsAt >= h->common_len) return false;
  return reinterpret_cast<const uint8_t *>(rec_at(h, off) + 1)[kFlagsAt] & MEMINFO_REC_REPORT;
}

bool meminfo_set_report(uint32_t type, const char *name, bool on) {
  mmf *m = meminfo_handle(true);
  if (!m || type >= MEMINFO_TYPES) return false;
  mmf_lock(m);
  uint64_t off = find(hdr, type, name, 0);
  if (off && rec_at(hdr, off)->length - 16 > kFlagsAt) {
    uint8_t &f = reinterpret_cast<uint8_t *>(rec_at(hdr, off) + 1)[kFlagsAt];
    f = on ? (f | MEMINFO_REC_REPORT) : (f & ~MEMINFO_REC_REPORT);
  }
  mmf_unlock(m);
  return off != 0;
}

meminfo_reader *meminfo_reader_create(void) {
  mmf *m = mmf_open_existing(MEMINFO_NAME);
  if (!m) return nullptr;
  const mmf_shared_info_t *si = m->shared_info;
  uint64_t off = si->common_offset;
  uint32_t len = si->common_len;
  if (off < si->first_alloc_offset || off + len > static_cast<uint64_t>(m->mapped_bytes) ||
      len < MEMINFO_HEADER_SIZE) {
    mmf_close(m);
    errno = EINVAL;
    return nullptr;
  }
  auto *h = reinterpret_cast<meminfo_header_t *>(reinterpret_cast<char *>(m->shared_info) + off);
  if (h->version != MEMINFO_VERSION || h->header_size != MEMINFO_HEADER_SIZE || h->common_len != len) {
    mmf_close(m);
    errno = EINVAL;
    return nullptr;
  }
  auto *r = static_cast<meminfo_reader *>(calloc(1, sizeof(meminfo_reader)));
  r->self = r;
  r->file = m;
  r->header = h;
  return r;
}

void meminfo_reader_delete(meminfo_reader *r) {
  if (!r) return;
  MMF_ASSERT(r == r->self);
  mmf_close(r->file);
  r->self = nullptr;
  free(r);
}

const meminfo_record_t *meminfo_reader_next(meminfo_reader *r, uint32_t type) {
  MMF_ASSERT(r == r->self);
  if (type >= MEMINFO_TYPES) return nullptr;
  uint64_t off;
  if (!r->started[type]) {
    r->started[type] = true;
    off = r->header->first[type];
  } else {
    off = r->pos[type] ? rec_at(r->header, r->pos[type])->next : 0;
  }
  if (!off || !record_sane(r->header, off, type)) {
    r->pos[type] = 0;
    return nullptr;
  }
  r->pos[type] = off;
  return rec_at(r->header, off);
}
