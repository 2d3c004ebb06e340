// The interface statistics message (types 15 and 16): where its name, its
// current and baseline sections and its TLVs lie, and how a peer builds one.
// One definition for the route-socket peer that serves the counters and the
// readers that turn them into records (libifstat). The record layout itself
// is rts_ifstats_msg in rts_msg.h.
#pragma once

#include <cstdint>

#include "rtsock/rts_msg.h"

extern "C" {

struct rts_ifsm_parts {
  const char *name;        // NUL-terminated when name_len > 0
  uint32_t name_len;
  const uint8_t *cur;      // cur_count 64-bit counters (read with memcpy); null when none
  uint32_t cur_count;
  const uint8_t *base;     // base_count counters; null when the message has no baseline
  uint32_t base_count;
  const uint8_t *tlv;      // the TLV buffer; null when empty
  uint32_t tlv_len;
};

// The parts of a statistics message of len bytes. False when it is not one:
// shorter than its fixed part, another type, a variable-data offset inside
// the fixed part, or parts past hdr.length or len. A name must end in NUL.
bool rts_ifsm_parts_of(const void *msg, uint32_t len, rts_ifsm_parts *out);

// The counter of a section's slot, 0 when the section is shorter.
uint64_t rts_ifsm_counter(const uint8_t *section, uint32_t count, unsigned slot);

// Writes a statistics message: the fixed part as given, with ifsm_var_off,
// ifsm_name_len, the counts and hdr.length set to what follows it, then the
// parts. The name is taken with its NUL (at most 255 bytes), counts at most
// 255, the whole at most RTS_MSG_MAX (16,384) bytes, what a reader takes. Returns the bytes needed and writes
// only when room holds them all; 0 when a part is too long.
uint32_t rts_ifsm_encode(const rts_ifstats_msg *fixed, const char *name, const uint64_t *cur,
                         uint32_t cur_count, const uint64_t *base, uint32_t base_count,
                         const void *tlv, uint32_t tlv_len, void *buffer, uint32_t room);

// One TLV (type, length, value, zero padding to 4) at buffer; the bytes it
// takes, written only when room holds them.
uint32_t rts_ifsm_tlv_encode(uint16_t type, const void *value, uint16_t len, void *buffer,
                             uint32_t room);

}  // extern "C"
