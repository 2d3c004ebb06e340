// The acknowledgement ledger.
#include "mmcq/aack.h"

#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

void free_id(aack_id *id) {
  for (aack_item *it = id->first; it;) {
    aack_item *n = it->next;
    free(it);
    it = n;
  }
  free(id);
}

}  // namespace

aack_id *aack_id_create(aack *a) {
  auto *id = static_cast<aack_id *>(calloc(1, sizeof(aack_id)));
  if (!id) return nullptr;
  if (a->last)
    a->last->next = id;
  else
    a->first = id;
  a->last = id;
  return id;
}

int aack_id_add(aack_id *id, uint32_t len, const void *data) {
  auto *it = static_cast<aack_item *>(malloc(sizeof(aack_item) + len));
  if (!it) return AACK_NO_MEMORY;
  it->next = nullptr;
  it->len = len;
  if (len) memcpy(it->data, data, len);
  if (id->last)
    id->last->next = it;
  else
    id->first = id->cursor = it;
  if (!id->cursor) id->cursor = it;
  id->last = it;
  return AACK_SUCCESS;
}

int aack_id_ack(aack *a, aack_id *aackid) {
  if (!aackid || a->first != aackid) return 0;
  MMCQ_ASSERT((aackid->flag & AACK_FLAG_ACKED) == 0);
  aackid->flag |= AACK_FLAG_ACKED;
  return 1;
}

int aack_id_get_next(aack *a, uint32_t *len, const void **data) {
  aack_id *id = a->first;
  if (!id || !(id->flag & AACK_FLAG_ACKED)) return AACK_NO_MORE;
  if (aack_item *it = id->cursor) {
    id->cursor = it->next;
    *len = it->len;
    *data = it->data;
    return AACK_SUCCESS;
  }
  a->first = id->next;
  if (!a->first) a->last = nullptr;
  free_id(id);
  return AACK_NO_MORE;
}

void aack_flush(aack *a) {
  for (aack_id *id = a->first; id;) {
    aack_id *n = id->next;
    free_id(id);
    id = n;
  }
  a->first = a->last = nullptr;
}

const char *aack_status_str(int status) {
  switch (status) {
    case AACK_SUCCESS:
      return "aack success";
    case AACK_NO_MORE:
      return "aack no more";
    default:
      return "aack status unknown";
  }
}
