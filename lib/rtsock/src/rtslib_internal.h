// What the rtslib sources share: memory through the hook table, the edge.
#pragma once

#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"

namespace rtslib {

extern rtslib_mem_hooks mem;

inline void *alloc(int id, size_t n) { return mem.alloc(id, n); }
inline void *zalloc(int id, size_t n) { return mem.alloc_array(id, 1, n); }
inline void release(int id, void *p) {
  if (p) mem.free(id, p);
}

inline const rts_lower_ops &edge() { return *rts_lower(); }

// Fixed sizes: the request block, the peek of a header, the raw read buffer.
constexpr size_t kRequestBlock = 16384;
constexpr size_t kPeek = 24;
constexpr size_t kReadBuffer = 16385;

// Encodes and writes an already filled message; 0 or an errno value.
int send_message(rtslib_cookie *c, uint32_t type, const void *record, const uint8_t *mask);

// Takes the next record off the socket into a block of the size that arrived
// (rtslib_msg_read without the sequence check); 0 or an errno value.
int take_record(rtslib_cookie *c, uint8_t **block, uint32_t *length);
// The sequence check of a raw reply: false after reporting a mismatch.
bool raw_seq_ok(rtslib_cookie *c, uint32_t seq);

// Reads until the answer to `request` (type, sequence number, operation)
// comes, dropping whatever else is queued in front of it; 0 or an errno value.
int read_answer(rtslib_cookie *c, const rts_msg_hdr &request, void **answer);

// The pending tables' part of rtslib_close.
void pending_release(rtslib_cookie *c);

// Whether a decoded reply is the answer to `request`: same type, sequence
// number and operation. Anything else (the reply to a request that timed
// out, a notification) is never handed out as its answer.
inline bool answers(const void *reply, const void *request) {
  auto *a = static_cast<const rts_msg_hdr *>(reply);
  auto *q = static_cast<const rts_msg_hdr *>(request);
  return a->type == q->type && a->seq == q->seq && a->operation == q->operation;
}

}  // namespace rtslib

// The sink a new handle starts with.
void rtslib_default_log(rtslib_log_fn *fn, void **ctx);
