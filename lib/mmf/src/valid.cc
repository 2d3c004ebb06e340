// Mapping by offset, node and whole-file validation, and the free-list print.
#include <algorithm>

#include "internal.h"

namespace {

// The walk gives up after this long, reporting what it saw as valid.
constexpr double kValidSeconds = 2;
constexpr uint32_t kValidClockEvery = 10000;
constexpr uint64_t kValidMaxIters = 1000000000;

// A failed check: asserts while the fatal byte is set, else reports.
bool check(mmf *m, bool ok, const char *expr, int line) {
  if (ok) return true;
  if (m->fatal) mmf_assert_fail(expr, __FILE__, line);
  return false;
}
#define CHECK(e) check(m, (e), #e, __LINE__)

// Puts back current_bytes after a growth that was cut short before any
// allocation: one free node ending at default_bytes, nothing behind.
void repair_interrupted_growth(mmf *m) {
  mmf_shared_info_t *si = m->shared_info;
  if (si->allocated_bytes != 0 || si->current_bytes <= static_cast<uint64_t>(m->default_bytes)) return;
  const mmf_node_header_t *n = mmf_node_at(m, si->first_alloc_offset);
  if ((n->flags & MMF_FLAG_FREE) && n->prev_offset == 0 && n->next_offset == 0 &&
      n->len == static_cast<uint64_t>(m->default_bytes) - si->first_alloc_offset &&
      n->offset == si->first_alloc_offset) {
    si->current_bytes = static_cast<uint64_t>(m->default_bytes);
    si->invalid_count++;
  }
}

// The header's own tables, before anything is read through them.
bool tables_sane(mmf *m) {
  const mmf_shared_info_t *si = m->shared_info;
  uint32_t n = si->num_alloc_sizes;
  if (!CHECK(n >= 2 && n <= MMF_MAX_CLASSES)) return false;
  for (uint32_t i = 0; i + 1 < n; i++)
    if (!CHECK(si->alloc_sizes[i] < si->alloc_sizes[i + 1])) return false;
  if (!CHECK(si->first_alloc_offset == (MMF_HEADER_SIZE + m->page_size - 1) / m->page_size * m->page_size))
    return false;
  for (uint32_t i = 0; i < n; i++) {
    uint64_t h = si->free_heads[i];
    if (!CHECK(h == 0 || (h >= si->first_alloc_offset && h < si->current_bytes))) return false;
  }
  return true;
}

}  // namespace

mmf_node_header_t *mmf_node_validate(mmf *m, off_t offset) {
  mmf_shared_info_t *si = m->shared_info;
  uint64_t off = static_cast<uint64_t>(offset);
  if (off >= si->current_bytes || off + mmf_node_bytes > si->current_bytes ||
      static_cast<int64_t>(off + mmf_node_bytes) > mmf_view_bytes(m)) {
    if (m->single_mapping && static_cast<int64_t>(si->current_bytes) != m->mapped_bytes) mmf_remap(m);
    si = m->shared_info;
    if (!CHECK(offset >= 0 && off + mmf_node_bytes <= si->current_bytes)) return nullptr;
    if (static_cast<int64_t>(off + mmf_node_bytes) > mmf_view_bytes(m)) return nullptr;
  }
  if (!m->single_mapping && !CHECK(off >= si->first_alloc_offset)) return nullptr;
  // Nodes start on 4-byte boundaries and are whole words long (page-aligned
  // heap, lengths of 8-byte requests plus a 52-byte overhead): anything else
  // is damage, and reading a record there would be misaligned.
  if (!CHECK(off % 4 == 0)) return nullptr;
  mmf_node_header_t *n = mmf_node_at(m, off);
  if (!n) return nullptr;
  if (!CHECK(off == n->offset)) return nullptr;
  // Kept as the platform has it: a node in the heap proper never reaches it.
  if (n->offset < si->first_alloc_offset &&
      !CHECK(n->offset + static_cast<uint64_t>(n->len) <= si->current_bytes))
    return nullptr;
  if (!CHECK(n->pattern == MMF_HEADER_PATTERN)) return nullptr;
  if (!CHECK((n->flags & (~MMF_FLAG_ALL)) == 0)) return nullptr;
  if (!CHECK(n->prev_offset < si->current_bytes)) return nullptr;
  if (!CHECK(n->next_offset < si->current_bytes)) return nullptr;
  uint32_t nlen = n->len;
  if (!CHECK(nlen >= mmf_node_bytes && nlen % 4 == 0 && off + nlen <= si->current_bytes)) return nullptr;
  // A node that begins inside this process's view and ends past it: another
  // process grew the file and merged across the old end. Map the rest first.
  if (m->single_mapping && static_cast<int64_t>(off + nlen) > mmf_view_bytes(m)) {
    if (static_cast<int64_t>(si->current_bytes) != m->mapped_bytes) mmf_remap(m);
    if (static_cast<int64_t>(off + nlen) > mmf_view_bytes(m)) return nullptr;
    n = mmf_node_at(m, off);
  }
  const mmf_node_trailer_t *t = mmf_trailer_at(m, off + nlen - 8);
  if (!t) return nullptr;
  if (!CHECK(t->pattern == MMF_TRAILER_PATTERN)) return nullptr;
  if (!CHECK(t->len == nlen)) return nullptr;
  return mmf_node_at(m, off);
}

bool mmf_validate_user_offset(mmf *m, off_t user_offset, bool assert_on_fail) {
  mmf_shared_info_t *si = m->shared_info;
  if (user_offset < static_cast<off_t>(mmf_node_header_bytes)) {
    if (assert_on_fail) mmf_assert_fail("user_offset >= mmf_node_header_bytes", __FILE__, __LINE__);
    return false;
  }
  uint64_t off = static_cast<uint64_t>(user_offset) - mmf_node_header_bytes;
  if (m->single_mapping && static_cast<int64_t>(si->current_bytes) != m->mapped_bytes) mmf_remap(m);
  si = m->shared_info;
  uint64_t view = static_cast<uint64_t>(mmf_view_bytes(m));
  // Mapping trouble is not damage: an offset that cannot be mapped passes.
  if (off + mmf_node_bytes > view || off < si->first_alloc_offset) return true;
  if (off % 4 != 0) {  // no node starts there
    if (assert_on_fail) mmf_assert_fail("user_offset % 4 == 0", __FILE__, __LINE__);
    return false;
  }
  const mmf_node_header_t *n = mmf_node_at(m, off);
  if (!n) return true;
  uint32_t nlen = n->len;
  bool ok = n->pattern == MMF_HEADER_PATTERN && nlen >= mmf_node_bytes && nlen % 4 == 0 && off + nlen <= view;
  if (ok) {
    const mmf_node_trailer_t *t = mmf_trailer_at(m, off + nlen - 8);
    ok = !t || (t->pattern == MMF_TRAILER_PATTERN && t->len == nlen);
  }
  if (!ok && assert_on_fail) mmf_assert_fail("user offset names a node", __FILE__, __LINE__);
  return ok;
}

void *mmf_user_ptr(mmf *m, off_t user_offset, size_t len) {
  m->shared_info->pointer_calls++;
  mmf_validate_user_offset(m, user_offset, true);
  return mmf_ensure_mapped(m, user_offset, len);
}

uint32_t mmf_get_user_usable_len(mmf *m, off_t user_offset) {
  const mmf_node_header_t *n = mmf_node_at(m, static_cast<uint64_t>(user_offset) - mmf_node_header_bytes);
  return n ? n->len - mmf_node_bytes : 0;
}

bool mmf_valid(mmf *m, bool assert_on_fail) {
  if (!m || !m->shared_info) return false;
  mmf_shared_info_t *si = m->shared_info;
  if (si->version != MMF_VERSION || si->header_size != MMF_HEADER_SIZE) {
    si->magic = 0;
    si->invalid_count++;
    return false;
  }
  if (!m->allocs_allowed) return true;
  mmf_lock(m);
  repair_interrupted_growth(m);
  uint8_t fatal = m->fatal;
  m->fatal = assert_on_fail;
  double start = mmf_now();
  bool ok = true;
  uint64_t iters = 0, off = si->first_alloc_offset, prev_end = off;
  if (!tables_sane(m) || !CHECK(off >= MMF_HEADER_SIZE && off < si->current_bytes)) ok = false;
  while (ok && off < si->current_bytes) {
    if (!CHECK(iters < kValidMaxIters)) {
      ok = false;
      break;
    }
    if (++iters % kValidClockEvery == 0 && mmf_now() - start > kValidSeconds) {
      si->valid_timeouts++;
      si->timeout_iters = static_cast<uint32_t>(iters);
      si->timeout_seconds = static_cast<uint32_t>(mmf_now() - start);
      break;
    }
    const mmf_node_header_t *n = mmf_node_validate(m, static_cast<off_t>(off));
    if (!n || !CHECK(n->offset == prev_end) ||
        !CHECK(n->user_offset == off + mmf_node_header_bytes || (n->flags & MMF_FLAG_DATA_OTHER_MMF))) {
      ok = false;
      break;
    }
    prev_end = off + n->len;
    off = prev_end;
  }
  if (ok && !CHECK(off == si->current_bytes)) ok = false;
  // Every free list leads through free nodes only, each linked back to the
  // one before it, and ends: the allocator follows these links.
  for (uint32_t i = 0; ok && off == si->current_bytes && i < si->num_alloc_sizes; i++) {
    uint64_t prev = 0, count = 0;
    for (uint64_t f = si->free_heads[i]; f;) {
      const mmf_node_header_t *n = mmf_node_validate(m, static_cast<off_t>(f));
      if (!n || !CHECK(n->flags & MMF_FLAG_FREE) || !CHECK(n->prev_offset == prev) || !CHECK(++count <= iters)) {
        ok = false;
        break;
      }
      prev = f;
      f = n->next_offset;
    }
  }
  m->last_valid_iters = static_cast<uint32_t>(iters);
  m->last_valid_seconds = static_cast<uint32_t>(mmf_now() - start);
  si->last_valid_iters = m->last_valid_iters;
  si->last_valid_seconds = m->last_valid_seconds;
  m->fatal = fatal;
  mmf_unlock(m);
  return ok;
}

void mmf_show(const char *title, mmf *m) { mmf_show_to(stdout, title, m); }

void mmf_show_to(FILE *f, const char *title, mmf *m) {
  mmf_lock(m);
  mmf_shared_info_t *si = m->shared_info;
  uint64_t total_count = 0, total_bytes = 0;
  for (uint32_t i = 0; i < si->num_alloc_sizes; i++) {
    uint32_t count = 0;
    uint64_t bytes = 0;
    for (uint64_t off = si->free_heads[i]; off && count <= mmf_view_bytes(m) / mmf_node_bytes;) {
      const mmf_node_header_t *n = mmf_node_validate(m, static_cast<off_t>(off));
      if (!n) break;
      mmf_node_header_t h;
      memcpy(&h, n, sizeof h);  // the next mapping may drop n's
      uint64_t behind = h.offset + h.len;
      unsigned long long nno = 0;
      bool coalesce = false;
      // The neighbour is read only where its whole header lies in the file
      // and in this view: a damaged length or current_bytes points anywhere.
      const uint64_t cur = si->current_bytes;  // packed: read by value, never bound to a reference
      const uint64_t end = std::min(cur, static_cast<uint64_t>(mmf_view_bytes(m)));
      if (behind >= h.offset && behind < end && end - behind >= mmf_node_bytes) {
        const mmf_node_header_t *b = mmf_node_at(m, behind);
        nno = b->next_offset;
        coalesce = (b->flags & MMF_FLAG_FREE) && b->pattern == MMF_HEADER_PATTERN;
      }
      fprintf(f, "   f%2u p%8x o%10llu l%10d po%10llu no%10llu nno%10llu%s\n", h.flags, h.pattern,
              static_cast<unsigned long long>(h.offset), static_cast<int>(h.len),
              static_cast<unsigned long long>(h.prev_offset), static_cast<unsigned long long>(h.next_offset),
              nno, coalesce ? " should coalesce" : "");
      count++;
      bytes += h.len;
      off = h.next_offset;
    }
    fprintf(f, " free i%2d (%5d): c%10d b%10d\n", static_cast<int>(i), static_cast<int>(si->alloc_sizes[i]),
            static_cast<int>(count), static_cast<int>(bytes));
    total_count += count;
    total_bytes += bytes;
  }
  fprintf(f, "tfree %12s c%10d b%10d\n", title ? title : "", static_cast<int>(total_count),
          static_cast<int>(total_bytes));
  mmf_unlock(m);
}
