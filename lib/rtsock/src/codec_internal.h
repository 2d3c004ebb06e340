// Byte helpers shared by the two encodings.
#pragma once

#include <cstdint>
#include <cstring>

#include "rtsock/rts_codec.h"

namespace rts_codec {

// A decoder result that the public functions report as 0 (a field of a width
// that cannot be taken), kept apart from "consumed 0 bytes".
constexpr int kWidth = -100;

// The TLV decoder of one structure, with kWidth as it is.
int tlv_decode_raw(const rts_struct *s, void *record, uint8_t *mask, const void *buffer,
                   uint32_t length, rts_alloc_fn alloc, void *context);

inline uint32_t pad4(uint32_t n) { return (n + 3) & ~3u; }

// The padded length of a prefix of `bits` bits, as the records keep it.
inline uint32_t prefix_plen(uint32_t bits) { return ((bits + 31) / 8) & ~3u; }

inline uint32_t ld32(const uint8_t *p) { uint32_t v; memcpy(&v, p, 4); return v; }
inline uint16_t ld16(const uint8_t *p) { uint16_t v; memcpy(&v, p, 2); return v; }
inline uint64_t ld64(const uint8_t *p) { uint64_t v; memcpy(&v, p, 8); return v; }

// An output that writes only what fits and counts everything.
struct Out {
  uint8_t *buf;
  uint64_t room;
  uint64_t pos;
  void put(const void *src, uint64_t n) {
    if (buf && pos + n <= room) {
      if (src) memcpy(buf + pos, src, n);
      else memset(buf + pos, 0, n);
    }
    pos += n;
  }
  void put32(uint32_t v) { put(&v, 4); }
  void put16(uint16_t v) { put(&v, 2); }
  void zero(uint64_t n) { put(nullptr, n); }
  void align(uint64_t a) { zero((a - (pos & (a - 1))) & (a - 1)); }
  void patch32(uint64_t at, uint32_t v) {
    if (buf && at + 4 <= room) memcpy(buf + at, &v, 4);
  }
};

inline uint64_t get_int(const uint8_t *rec, const rts_field &f) {
  switch (f.rf_kind) {
    case RK_U8: return rec[f.rf_off];
    case RK_U16: return ld16(rec + f.rf_off);
    case RK_U32: return ld32(rec + f.rf_off);
    default: return ld64(rec + f.rf_off);
  }
}

inline void set_int(uint8_t *rec, const rts_field &f, uint64_t v) {
  switch (f.rf_kind) {
    case RK_U8: rec[f.rf_off] = static_cast<uint8_t>(v); break;
    case RK_U16: { uint16_t x = static_cast<uint16_t>(v); memcpy(rec + f.rf_off, &x, 2); break; }
    case RK_U32: { uint32_t x = static_cast<uint32_t>(v); memcpy(rec + f.rf_off, &x, 4); break; }
    default: memcpy(rec + f.rf_off, &v, 8); break;
  }
}

inline bool is_int(uint8_t kind) { return kind <= RK_U64; }

template <class T>
inline T *ptr_at(const uint8_t *rec, uint16_t off) {
  T *p;
  memcpy(&p, rec + off, sizeof p);
  return p;
}
template <class T>
inline void set_ptr(uint8_t *rec, uint16_t off, T *p) {
  memcpy(rec + off, &p, sizeof p);
}

// Count of an RK_ARRAY field, stored at its own width.
inline uint32_t get_count(const uint8_t *rec, const rts_field &f) {
  switch (f.rf_cwidth) {
    case 1: return rec[f.rf_off2];
    case 2: return ld16(rec + f.rf_off2);
    default: return ld32(rec + f.rf_off2);
  }
}
inline void set_count(uint8_t *rec, const rts_field &f, uint32_t n) {
  switch (f.rf_cwidth) {
    case 1: rec[f.rf_off2] = static_cast<uint8_t>(n); break;
    case 2: { uint16_t x = static_cast<uint16_t>(n); memcpy(rec + f.rf_off2, &x, 2); break; }
    default: memcpy(rec + f.rf_off2, &n, 4); break;
  }
}
inline uint32_t count_limit(const rts_field &f) {
  return f.rf_cwidth == 1 ? 0xFFu : f.rf_cwidth == 2 ? 0xFFFFu : 0xFFFFFFFFu;
}

// A blob copied into the allocator's memory with a hidden NUL behind it;
// false when the allocator fails.
inline bool copy_blob(uint8_t *rec, uint16_t off, uint16_t off_len, const uint8_t *src, uint32_t n,
                      rts_alloc_fn alloc, void *ctx) {
  uint8_t *p = nullptr;
  if (n) {
    p = static_cast<uint8_t *>(alloc(ctx, static_cast<size_t>(n) + 1));
    if (!p) return false;
    memcpy(p, src, n);
    p[n] = 0;
  }
  set_ptr(rec, off, p);
  memcpy(rec + off_len, &n, 4);
  return true;
}

}  // namespace rts_codec
