// The heap: classes, free lists, allocation, free with merging, growth and
// the common block.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "internal.h"
#include "mmf/crashpoint.h"

namespace {

uint64_t round_up(uint64_t v, uint64_t unit) { return (v + unit - 1) / unit * unit; }

void write_trailer(mmf *m, uint64_t offset, uint32_t len) {
  mmf_node_trailer_t *t = mmf_trailer_at(m, offset + len - 8);
  t->pattern = MMF_TRAILER_PATTERN;
  t->len = len;
}

// The newest views of a file that another process may have grown.
void refresh(mmf *m) {
  if (m->single_mapping && m->shared_info->magic == MMF_MAGIC_READY &&
      static_cast<int64_t>(m->shared_info->current_bytes) != m->mapped_bytes)
    MMF_ASSERT(mmf_remap(m));
}

// A free node's header, unlinked.
void write_free_header(mmf *m, uint64_t offset, uint32_t len) {
  mmf_node_header_t *n = mmf_node_at(m, offset);
  n->offset = offset;
  n->pattern = MMF_HEADER_PATTERN;
  n->flags = MMF_FLAG_FREE;
  n->len = len;
  n->user_offset = offset + mmf_node_header_bytes;
  n->prev_offset = n->next_offset = 0;
}

// A free node's header and trailer, unlinked.
void write_free_node(mmf *m, uint64_t offset, uint32_t len) {
  write_free_header(m, offset, len);
  write_trailer(m, offset, len);
}

void push_head(mmf *m, uint64_t offset) {
  mmf_shared_info_t *si = m->shared_info;
  mmf_node_header_t *n = mmf_node_at(m, offset);
  uint32_t idx = mmf_get_free_idx(si, n->len);
  n->prev_offset = 0;
  n->next_offset = si->free_heads[idx];
  if (si->free_heads[idx]) mmf_node_at(m, si->free_heads[idx])->prev_offset = offset;
  si->free_heads[idx] = offset;
}

// Takes a free node off its list. Every mapping may drop another in region
// mode, so the node is read once and mapped again for the last write.
void unlink_free(mmf *m, uint64_t offset) {
  mmf_shared_info_t *si = m->shared_info;
  mmf_node_header_t *n = mmf_node_at(m, offset);
  uint32_t idx = mmf_get_free_idx(si, n->len);
  uint64_t prev = n->prev_offset, next = n->next_offset;
  if (prev == 0) {
    // A node with no predecessor that is not the head was dropped from its
    // list by a merge at the top of the file: there is no list to mend.
    if (si->free_heads[idx] == offset) {
      si->free_heads[idx] = next;
      if (next) mmf_node_at(m, next)->prev_offset = 0;
    }
  } else {
    mmf_node_at(m, prev)->next_offset = next;
    if (next) mmf_node_at(m, next)->prev_offset = prev;
  }
  n = mmf_node_at(m, offset);
  n->prev_offset = n->next_offset = 0;
}

// Joins two adjacent free nodes into the lower one and lists it.
uint32_t merge(mmf *m, uint64_t lo, uint64_t hi) {
  mmf_shared_info_t *si = m->shared_info;
  uint32_t len = mmf_node_at(m, lo)->len;
  len += mmf_node_at(m, hi)->len;
  unlink_free(m, lo);
  unlink_free(m, hi);
  TVX_CRASHPOINT("mmf_free_merge");
  write_free_node(m, lo, len);
  // A merge high in the file starts a fresh list, dropping the rest of the
  // class from sight until the file is next rebuilt; rare, and kept so. The
  // dropped nodes lose their links too: a later merge must not mend a list
  // through nodes that have since been handed out.
  if (lo + si->first_alloc_offset < si->current_bytes) {
    push_head(m, lo);
  } else {
    uint32_t idx = mmf_get_free_idx(si, len);
    for (uint64_t off = si->free_heads[idx]; off;) {
      mmf_node_header_t *d = mmf_node_at(m, off);
      off = d->next_offset;
      d->prev_offset = d->next_offset = 0;
    }
    si->free_heads[idx] = lo;
  }
  return len;
}

// First node that holds user_bytes: the head of the first non-empty class
// whose lower bound covers the need, else first fit in the top class.
uint64_t get_free_node(mmf *m, uint32_t user_bytes, uint32_t *out_idx) {
  mmf_shared_info_t *si = m->shared_info;
  uint64_t need = uint64_t(user_bytes) + mmf_node_bytes;
  uint32_t n = si->num_alloc_sizes;
  for (uint32_t i = 0; i + 1 < n; i++) {
    if (need > si->alloc_sizes[i] || !si->free_heads[i]) continue;
    mmf_node_header_t *node = mmf_node_validate(m, static_cast<off_t>(si->free_heads[i]));
    if (!node) return 0;
    MMF_ASSERT(node->flags & MMF_FLAG_FREE);
    if (node->len < need) continue;  // class 0 may hold remnants below its bound
    *out_idx = i;
    return si->free_heads[i];
  }
  for (uint64_t off = si->free_heads[n - 1]; off;) {
    mmf_node_header_t *node = mmf_node_validate(m, static_cast<off_t>(off));
    if (!node) return 0;
    MMF_ASSERT(node->flags & MMF_FLAG_FREE);
    if (node->len >= need) {
      *out_idx = n - 1;
      return off;
    }
    off = node->next_offset;
  }
  return 0;
}

}  // namespace

void mmf_set_allocation_info(mmf_shared_info_t *si, uint32_t n, const uint32_t *sizes) {
  MMF_ASSERT(n);
  MMF_ASSERT(n < 255);
  MMF_ASSERT(n < MMF_MAX_CLASSES);
  uint32_t top = *std::max_element(sizes, sizes + n);
  uint32_t cls[MMF_MAX_CLASSES];
  std::copy(sizes, sizes + n, cls);
  cls[n] = top + 1;
  for (uint32_t i = 0; i <= n; i++) cls[i] += mmf_node_bytes;
  std::sort(cls, cls + n + 1);
  for (uint32_t i = 0; i < n; i++) MMF_ASSERT(cls[i] < cls[i + 1]);
  memset(si->alloc_sizes, 0, sizeof si->alloc_sizes);
  std::copy(cls, cls + n + 1, si->alloc_sizes);
  si->num_alloc_sizes = static_cast<uint8_t>(n + 1);
}

uint32_t mmf_get_free_idx(const mmf_shared_info_t *si, uint32_t bytes) {
  uint32_t n = si->num_alloc_sizes;
  for (uint32_t i = 0; i + 1 < n; i++)
    if (bytes < si->alloc_sizes[i + 1]) return i;
  return n - 1;
}

void mmf_add_free_node(mmf *m, uint64_t offset, uint32_t len) {
  write_free_node(m, offset, len);
  push_head(m, offset);
}

// Cuts [start, end) into free nodes, top down; listed only when `list`.
static void cut_free_space(mmf *m, uint64_t start, uint64_t end, bool list) {
  if (end <= start) return;
  uint64_t size = end - start;
  // The highest piece is the odd one, the rest are whole.
  uint64_t piece = size % MMF_MAX_NODE_LEN;
  if (piece == 0) piece = MMF_MAX_NODE_LEN;
  for (uint64_t top = end; top > start; piece = MMF_MAX_NODE_LEN) {
    uint64_t at = top - piece;
    MMF_ASSERT(at >= start);
    if (piece >= mmf_node_bytes) {
      write_free_node(m, at, static_cast<uint32_t>(piece));
      if (list) push_head(m, at);
    }
    top = at;
  }
}

void mmf_add_free_space(mmf *m, uint64_t start, uint64_t end) { cut_free_space(m, start, end, true); }

void *mmf_alloc(mmf *m, uint32_t bytes, off_t *out_offset) {
  if (out_offset) *out_offset = 0;
  MMF_ASSERT(m->allocs_allowed);
  if (bytes > MMF_MAX_NODE_LEN - mmf_node_bytes) return nullptr;
  bytes = (bytes + 7) & ~7u;
  mmf_lock(m);
  mmf_shared_info_t *si = m->shared_info;
  refresh(m);
  if ((mmf_debug() & MMF_DEBUG_VALIDATE_ALLOC) && !mmf_valid(m, false)) {
    mmf_unlock(m);
    return nullptr;
  }
  uint32_t size = std::max(bytes, si->alloc_sizes[0] - mmf_node_bytes);
  uint32_t idx = 0;
  uint64_t off = get_free_node(m, size, &idx);
  if (!off && mmf_grow(m)) {
    si = m->shared_info;
    off = get_free_node(m, size, &idx);
  }
  if (!off) {
    mmf_unlock(m);
    return nullptr;
  }
  m->local_allocs++;
  si->alloc_count++;
  si->allocs_by_class[idx]++;
  // A writer that dies at any step below leaves a walkable file: the node
  // keeps its free flag until it is whole, and a node that is free but on no
  // list is only lost to allocation (a merge still takes it).
  unlink_free(m, off);
  TVX_CRASHPOINT("mmf_alloc_unlinked");
  mmf_node_header_t *n = mmf_node_at(m, off);
  MMF_ASSERT(n->prev_offset == 0);
  uint32_t len = n->len;
  if (len > si->alloc_sizes[0] + 2 * mmf_node_bytes + size) {
    // The remainder's header and the node's new trailer lie inside the node
    // until its len changes; the old trailer's len follows at once.
    uint32_t rest = len - size - mmf_node_bytes;
    uint64_t roff = off + size + mmf_node_bytes;
    write_free_header(m, roff, rest);
    len = size + mmf_node_bytes;
    write_trailer(m, off, len);
    mmf_node_at(m, off)->len = len;
    write_trailer(m, roff, rest);
    TVX_CRASHPOINT("mmf_alloc_split");
    push_head(m, roff);
  }
  mmf_node_at(m, off)->flags &= ~MMF_FLAG_FREE;
  si->allocated_bytes += len;
  uint64_t user = off + mmf_node_header_bytes;
  if (out_offset) *out_offset = static_cast<off_t>(user);
  void *p = mmf_ensure_mapped(m, static_cast<off_t>(user), size);
  TVX_CRASHPOINT("mmf_alloc_done");
  mmf_unlock(m);
  return p;
}

void mmf_free_offset(mmf *m, off_t user_offset) {
  mmf_lock(m);
  refresh(m);
  mmf_shared_info_t *si = m->shared_info;
  if ((mmf_debug() & MMF_DEBUG_VALIDATE_FREE) && !mmf_valid(m, false)) {
    mmf_unlock(m);
    return;
  }
  uint64_t noff = static_cast<uint64_t>(user_offset) - mmf_node_header_bytes;
  mmf_node_header_t *n = mmf_node_validate(m, static_cast<off_t>(noff));
  MMF_ASSERT(n);
  MMF_ASSERT((n->flags & MMF_FLAG_FREE) == 0);
  uint32_t nlen = n->len;
  m->local_frees++;
  si->free_count++;
  si->frees_by_class[mmf_get_free_idx(si, nlen)]++;
  si->allocated_bytes -= nlen;
  n->flags = MMF_FLAG_FREE;
  n->user_offset = noff + mmf_node_header_bytes;  // a control node named the other file's
  push_head(m, noff);
  n = nullptr;  // push_head maps other nodes
  TVX_CRASHPOINT("mmf_free_pushed");

  if (noff > si->first_alloc_offset) {
    mmf_node_trailer_t *t = mmf_trailer_at(m, noff - 8);
    MMF_ASSERT(t->len >= mmf_node_bytes);
    uint64_t poff = noff - t->len;
    MMF_ASSERT(poff >= si->first_alloc_offset);
    mmf_node_header_t *pn = mmf_node_validate(m, static_cast<off_t>(poff));
    MMF_ASSERT(pn);
    uint32_t plen = pn->len, pflags = pn->flags;
    MMF_ASSERT((pn->offset + static_cast<uint64_t>(plen)) == noff);
    if ((pflags & MMF_FLAG_FREE) && uint64_t(plen) + nlen <= MMF_MAX_NODE_LEN) {
      nlen = merge(m, poff, noff);
      noff = poff;
    }
  }
  if (noff + nlen < si->current_bytes) {
    mmf_node_header_t *nn = mmf_node_validate(m, static_cast<off_t>(noff + nlen));
    MMF_ASSERT(nn);
    MMF_ASSERT((noff + nlen) == nn->offset);
    uint32_t nnlen = nn->len, nnflags = nn->flags;
    if ((nnflags & MMF_FLAG_FREE) && uint64_t(nnlen) + nlen <= MMF_MAX_NODE_LEN)
      merge(m, noff, noff + nlen);
  }
  if (mmf_debug() & MMF_DEBUG_VALIDATE_FREE) mmf_valid(m, true);
  mmf_unlock(m);
}

bool mmf_grow(mmf *m) {
  mmf_lock(m);
  mmf_shared_info_t *si = m->shared_info;
  uint64_t cur = si->current_bytes, target;
  uint64_t def = static_cast<uint64_t>(m->default_bytes), max = static_cast<uint64_t>(m->max_bytes);
  if (cur < def)
    target = def;
  else if (cur + static_cast<uint64_t>(m->grow_by_bytes) <= max)
    target = cur + static_cast<uint64_t>(m->grow_by_bytes);
  else if (cur < max)
    target = max;
  else
    target = cur;
  target = round_up(target, m->single_mapping ? m->page_size : static_cast<uint64_t>(m->region_map_bytes));
  if (target <= cur || !mmf_extend(m->fd, target)) {
    mmf_unlock(m);
    return false;
  }
  TVX_CRASHPOINT("mmf_grow_extended");
  if (!mmf_remap_to(m, static_cast<int64_t>(target))) {
    mmf_unlock(m);
    return false;
  }
  si = m->shared_info;
  if (m->flags & MMF_FLAG_RAW_DATA) {
    // The caller's bytes: no nodes to write or list.
    TVX_CRASHPOINT("mmf_grow_written");
    si->current_bytes = target;
    TVX_CRASHPOINT("mmf_grow_stored");
    si->grow_count++;
    si->grown_bytes += target - cur;
    mmf_unlock(m);
    meminfo_mmf_update(m);
    return true;
  }
  // The new nodes are written before current_bytes lets anyone reach them,
  // and listed after: a writer dying between leaves a walkable file.
  cut_free_space(m, cur, target, false);
  TVX_CRASHPOINT("mmf_grow_written");
  si->current_bytes = target;
  TVX_CRASHPOINT("mmf_grow_stored");
  // Listed in the order they were cut, top down, as an unbroken growth lists them.
  std::vector<uint64_t> pieces;
  for (uint64_t off = cur; off < target;) {
    uint32_t len = mmf_node_at(m, off)->len;
    if (len < mmf_node_bytes || off + len > target) break;  // a dropped piece at the top
    pieces.push_back(off);
    off += len;
  }
  for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) push_head(m, *it);
  si->grow_count++;
  si->grown_bytes += target - cur;
  mmf_unlock(m);
  meminfo_mmf_update(m);
  return true;
}

bool mmf_try_grow(mmf *m) {
  if (static_cast<int64_t>(m->shared_info->current_bytes) + m->grow_by_bytes > m->max_bytes) return false;
  return mmf_grow(m);
}

off_t mmf_first_alloc_offset(const mmf *m) {
  if (!m) return getpagesize();
  return static_cast<off_t>(m->shared_info->first_alloc_offset);
}

void mmf_free_all(mmf *m) {
  mmf_lock(m);
  refresh(m);
  mmf_shared_info_t *si = m->shared_info;
  si->allocated_bytes = 0;
  si->alloc_count = si->free_count = 0;
  memset(si->allocs_by_class, 0, sizeof si->allocs_by_class);
  memset(si->frees_by_class, 0, sizeof si->frees_by_class);
  memset(si->free_heads, 0, sizeof si->free_heads);
  // A common block in the heap goes with everything else.
  if (si->common_offset >= si->first_alloc_offset) si->common_offset = si->common_len = 0;
  mmf_add_free_space(m, si->first_alloc_offset, si->current_bytes);
  mmf_unlock(m);
}

void mmf_get_allocation_info(mmf *m, uint32_t *count, uint32_t *sizes) {
  const mmf_shared_info_t *si = m->shared_info;
  uint32_t n = si->num_alloc_sizes ? si->num_alloc_sizes - 1u : 0;
  for (uint32_t i = 0; i < n; i++) sizes[i] = si->alloc_sizes[i] - mmf_node_bytes;
  *count = n;
}

void *mmf_alloc_common(mmf *m, uint32_t *len, off_t *out_offset) {
  if (out_offset) *out_offset = 0;
  mmf_lock(m);
  refresh(m);
  mmf_shared_info_t *si = m->shared_info;
  const uint64_t after_header = MMF_HEADER_SIZE;
  if (si->common_offset && *len == 0) *len = si->common_len;
  if (si->common_offset && *len != si->common_len) {
    uint64_t off = si->common_offset;
    bool slack = off == MMF_HEADER_SIZE && off + si->common_len <= si->first_alloc_offset;
    if (!slack && (off < si->first_alloc_offset || off > si->current_bytes)) {
      si->common_offset = si->common_len = 0;
    } else if (si->alloc_count <= 1 && off + *len <= si->current_bytes &&
               off + si->common_len <= si->current_bytes) {
      *len = si->common_len;
    } else if (m->single_mapping && (m->flags & MMF_FLAG_COMMON_RESIZE)) {
      if (*len < si->common_len || off + *len <= si->current_bytes) {
        if (*len < si->common_len)
          *len = si->common_len;
        else
          si->common_len = *len;
      } else {
        m->max_bytes = std::max<int64_t>(m->max_bytes, static_cast<int64_t>(round_up(off + *len, m->page_size)));
        if (!mmf_grow(m)) *len = si->common_len = static_cast<uint32_t>(m->shared_info->current_bytes - off);
        si = m->shared_info;
        si->common_len = *len;
      }
    } else {
      MMF_ASSERT(*len == si->common_len);
    }
  }
  if (!si->common_offset) {
    if (*len == 0) {
      mmf_unlock(m);
      return nullptr;
    }
    MMF_ASSERT(after_header < si->first_alloc_offset);
    off_t off = 0;
    if (after_header + *len <= si->first_alloc_offset) {
      off = static_cast<off_t>(after_header);
    } else if (m->allocs_allowed) {
      if (!mmf_alloc(m, *len, &off)) {
        mmf_unlock(m);
        return nullptr;
      }
      si = m->shared_info;
    } else if (after_header + *len <= static_cast<uint64_t>(m->mapped_bytes)) {
      off = static_cast<off_t>(after_header);
    } else {
      mmf_unlock(m);
      return nullptr;
    }
    si->common_offset = static_cast<uint64_t>(off);
    si->common_len = *len;
  }
  uint64_t off = si->common_offset;
  *len = si->common_len;
  if (out_offset) *out_offset = static_cast<off_t>(off);
  void *p = off < si->first_alloc_offset ? reinterpret_cast<char *>(si) + off
                                         : mmf_ensure_mapped(m, static_cast<off_t>(off), *len);
  mmf_unlock(m);
  return p;
}
