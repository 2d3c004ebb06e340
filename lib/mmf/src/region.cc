// Region mode: a bounded number of fixed-size regions of the file mapped at
// once, a node across a border mapped as one double mapping, the oldest
// mapping evicted when the budget is spent.
#include <sys/mman.h>
#include <unistd.h>

#include "internal.h"

namespace {

uint64_t region_of(const mmf *m, uint64_t offset) {
  return m->region_shift ? offset >> m->region_shift : offset / static_cast<uint64_t>(m->region_map_bytes);
}

void list_append(mmf *m, mmf_map_entry *e) {
  e->next = nullptr;
  e->prev = m->mapped_list_tail;
  if (m->mapped_list_tail)
    m->mapped_list_tail->next = e;
  else
    m->mapped_list = e;
  m->mapped_list_tail = e;
}

void list_remove(mmf *m, mmf_map_entry *e) {
  if (e->prev)
    e->prev->next = e->next;
  else
    m->mapped_list = e->next;
  if (e->next)
    e->next->prev = e->prev;
  else
    m->mapped_list_tail = e->prev;
  e->prev = nullptr;
  e->next = m->mapped_list_free;
  m->mapped_list_free = e;
}

// Drops one mapping and the slots it fills (its own and a double's tail).
void unmap_entry(mmf *m, mmf_map_entry *e) {
  mmf_shared_info_t *si = m->shared_info;
  si->munmap_calls++;
  si->last_unmapper_pid = static_cast<uint32_t>(mmf_pid());
  if (munmap(e->mapping, static_cast<size_t>(e->bytes)) != 0) {
    si->munmap_failures++;
    return;
  }
  si->munmap_ok++;
  uint64_t first = e->slot, last = region_of(m, e->start + static_cast<uint64_t>(e->bytes) - 1);
  si->unmap_outcomes[last != first ? 0 : 2]++;
  for (uint64_t i = first; i <= last; i++) m->region_table[i] = mmf_region_slot{};
  m->mapped_bytes -= e->bytes;
  e->mapping = nullptr;
  list_remove(m, e);
}

void unmap_slot(mmf *m, uint64_t idx) {
  if (m->region_table[idx].entry) unmap_entry(m, m->region_table[idx].entry);
}

}  // namespace

bool mmf_regions_init(mmf *m) {
  m->region_table = static_cast<mmf_region_slot *>(calloc(m->regions, sizeof(mmf_region_slot)));
  m->entries = static_cast<mmf_map_entry *>(calloc(m->max_mapped_regions, sizeof(mmf_map_entry)));
  if (!m->region_table || !m->entries) return false;
  for (uint32_t i = 0; i < m->max_mapped_regions; i++) {
    m->entries[i].next = m->mapped_list_free;
    m->mapped_list_free = &m->entries[i];
  }
  return true;
}

void mmf_unmap_regions(mmf *m) {
  while (m->mapped_list) unmap_entry(m, m->mapped_list);
}

void mmf_regions_free(mmf *m) {
  if (m->region_table && m->shared_info) mmf_unmap_regions(m);
  free(m->region_table);
  free(m->entries);
  m->region_table = nullptr;
  m->entries = nullptr;
}

// A mapping of `bytes` at file offset `start` (page aligned, one region or
// two, region 0 starting at the first node): an existing one or a new one.
char *mmf_data_map(mmf *m, uint64_t start, int64_t bytes) {
  mmf_shared_info_t *si = m->shared_info;
  MMF_ASSERT((start & (m->page_size - 1)) == 0);
  MMF_ASSERT((bytes & (m->page_size - 1)) == 0);
  uint64_t s = region_of(m, start), e = region_of(m, start + static_cast<uint64_t>(bytes) - 1);
  MMF_ASSERT(s < m->regions);
  MMF_ASSERT(e < m->regions);
  si->map_calls++;
  mmf_region_slot *rt = m->region_table;
  if (s == e) {
    if (rt[s].ptr) return rt[s].ptr;
  } else {
    mmf_map_entry *d = rt[s].entry;
    if (d && d->slot == s && region_of(m, d->start + static_cast<uint64_t>(d->bytes) - 1) == e) {
      MMF_ASSERT(rt[e].entry == d && rt[e].bytes == m->region_map_bytes);
      return rt[s].ptr;
    }
    unmap_slot(m, s);
    unmap_slot(m, e);
  }
  // Evict the oldest mappings until this one fits the budget.
  int64_t budget = m->region_map_bytes * static_cast<int64_t>(m->max_mapped_regions);
  while (m->mapped_list && (m->mapped_bytes + bytes > budget || !m->mapped_list_free))
    unmap_entry(m, m->mapped_list);
  MMF_ASSERT(m->mapped_list_free);
  MMF_ASSERT(static_cast<int64_t>(start) + bytes <= m->max_bytes);
  int prot = m->read_only ? PROT_READ : PROT_READ | PROT_WRITE;
  si->mmap_calls++;
  void *p = mmap(nullptr, static_cast<size_t>(bytes), prot, m->mmap_flags, m->fd, static_cast<off_t>(start));
  if (p == MAP_FAILED) {
    si->mmap_failures++;
    return nullptr;
  }
  si->last_mapper_pid = static_cast<uint32_t>(mmf_pid());
  m->mapped_bytes += bytes;
  mmf_map_entry *en = m->mapped_list_free;
  m->mapped_list_free = en->next;
  en->mapping = static_cast<char *>(p);
  en->bytes = bytes;
  en->start = start;
  en->slot = s;
  list_append(m, en);
  rt[s] = {static_cast<char *>(p), bytes, en};
  if (e != s) {
    uint64_t tail = e * static_cast<uint64_t>(m->region_map_bytes);
    rt[e] = {static_cast<char *>(p) + (tail - start), m->region_map_bytes, en};
  }
  return static_cast<char *>(p);
}

void *mmf_ensure_mapped(mmf *m, off_t offset, size_t len) {
  if (m->single_mapping) return reinterpret_cast<char *>(m->shared_info) + offset;
  uint64_t off = static_cast<uint64_t>(offset), region = static_cast<uint64_t>(m->region_map_bytes);
  MMF_ASSERT((uint64_t)len < (uint64_t)(m->region_map_bytes << 1));
  MMF_ASSERT(offset < m->max_bytes);
  MMF_ASSERT((offset + (off_t)len) <= m->max_bytes);
  MMF_ASSERT(off >= m->shared_info->first_alloc_offset);
  m->shared_info->ensure_calls++;
  uint64_t s = region_of(m, off), e = region_of(m, off + (len ? len : 1) - 1);
  uint64_t start = s * region;
  int64_t bytes = static_cast<int64_t>((e - s + 1) * region);
  if (s == 0) {
    // Region 0 begins behind the header, which has a mapping of its own.
    start = m->shared_info->first_alloc_offset;
    bytes -= static_cast<int64_t>(start);
  }
  char *p = mmf_data_map(m, start, bytes);
  return p ? p + (off - start) : nullptr;
}
