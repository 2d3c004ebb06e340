// Two files as one: a control node in the first names the data in the second.
#include "internal.h"

void *mmf_alloc2(mmf *control, mmf *data, uint32_t bytes, off_t *out_offset) {
  if (out_offset) *out_offset = 0;
  mmf_lock(control);  // the control file's word first, always
  off_t coff = 0, doff = 0;
  if (!mmf_alloc(control, 0, &coff)) {
    mmf_unlock(control);
    return nullptr;
  }
  if (!mmf_alloc(data, bytes, &doff)) {
    mmf_free_offset(control, coff);
    mmf_unlock(control);
    return nullptr;
  }
  mmf_node_header_t *n = mmf_node_at(control, static_cast<uint64_t>(coff) - mmf_node_header_bytes);
  n->user_offset = static_cast<uint64_t>(doff);
  n->flags |= MMF_FLAG_DATA_OTHER_MMF;
  if (out_offset) *out_offset = coff;
  void *p = mmf_ensure_mapped(data, doff, bytes);
  mmf_unlock(control);
  return p;
}

// The data file's user offset a control node names.
static off_t data_offset(mmf *control, off_t user_offset) {
  mmf_node_header_t *n = mmf_node_validate(control, user_offset - static_cast<off_t>(mmf_node_header_bytes));
  MMF_ASSERT(n);
  MMF_ASSERT(n->flags & MMF_FLAG_DATA_OTHER_MMF);
  return static_cast<off_t>(n->user_offset);
}

void mmf_free_offset2(mmf *control, mmf *data, off_t user_offset) {
  mmf_lock(control);
  mmf_lock(data);
  off_t doff = data_offset(control, user_offset);
  mmf_free_offset(control, user_offset);
  mmf_free_offset(data, doff);
  mmf_unlock(data);
  mmf_unlock(control);
}

void *mmf_ensure_mapped2(mmf *control, mmf *data, off_t user_offset, size_t len) {
  return mmf_ensure_mapped(data, data_offset(control, user_offset), len);
}
