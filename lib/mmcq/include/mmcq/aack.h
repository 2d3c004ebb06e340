// aack: a process-local ledger of groups of messages waiting for an
// acknowledgement. Ids form a strict FIFO: an acknowledgement counts only
// for the oldest id, and the items of an acknowledged head come out in the
// order they were added; so messages acknowledged by a peer are handed on in
// the order they were sent, without any look-up.
//
//   aack a = {};
//   aack_id *id = aack_id_create(&a);
//   aack_id_add(id, 5, "hello");
//   ...the peer acknowledges...
//   aack_id_ack(&a, id);                       // 1: it was the head
//   uint32_t len; const void *data;
//   while (aack_id_get_next(&a, &len, &data) == AACK_SUCCESS) use(data, len);
//   aack_flush(&a);                            // frees whatever is left
#pragma once

#include <cstdint>

#define AACK_FLAG_ACKED 1u

enum aack_status { AACK_SUCCESS = 0, AACK_NO_MORE = 1, AACK_NO_MEMORY = 2 };

struct aack_item {
  aack_item *next;
  uint32_t len;
  uint8_t data[];
};

struct aack_id {
  uint32_t flag;  // AACK_FLAG_ACKED
  aack_id *next;
  aack_item *first, *last;
  aack_item *cursor;  // the next item to hand out
};

struct aack {
  aack_id *first, *last;
};

// A new id at the tail; null when out of memory.
aack_id *aack_id_create(aack *a);
// Copies len bytes as the id's next item. AACK_SUCCESS or AACK_NO_MEMORY.
int aack_id_add(aack_id *id, uint32_t len, const void *data);
// Marks id acknowledged when it is the head: 1. Any other id: 0, nothing
// changes. Acknowledging the head twice is a caller's fault (the process ends).
int aack_id_ack(aack *a, aack_id *id);
// The next item of the acknowledged head (valid until the next call):
// AACK_SUCCESS. When the head is not acknowledged or there is none:
// AACK_NO_MORE. After the head's last item, the call frees the head, moves
// on to the next id and returns AACK_NO_MORE once.
int aack_id_get_next(aack *a, uint32_t *len, const void **data);
// Frees every id and item.
void aack_flush(aack *a);
// "aack success", "aack no more", "aack status unknown".
const char *aack_status_str(int status);
