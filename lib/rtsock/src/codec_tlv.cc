// TLV: tagged attributes, so that a record can travel partly; presence masks.
#include "codec_internal.h"

using namespace rts_codec;

namespace {

inline uint64_t mask_bits(const uint8_t *mask) { return ld64(mask); }

void enc(const rts_struct *s, const uint8_t *rec, const uint8_t *mask, Out &o) {
  uint64_t bits = mask ? mask_bits(mask) : ~uint64_t{0};
  for (unsigned i = 0; i < s->rs_count; i++) {
    if (!(bits >> i & 1)) continue;
    const rts_field &f = s->rs_fields[i];
    if (is_int(f.rf_kind) && o.buf && o.pos + 16 <= o.room) {
      // The common case in one store: tag, length, the value zero-extended
      // over its padding.
      uint8_t *d = o.buf + o.pos;
      uint32_t head[2] = {f.rf_tag, f.rf_width};
      uint64_t v = get_int(rec, f);
      memcpy(d, head, 8);
      memcpy(d + 8, &v, 8);
      o.pos += 8 + pad4(f.rf_width);
      continue;
    }
    uint64_t at = o.pos;
    o.put32(f.rf_tag);
    switch (f.rf_kind) {
      case RK_U8:
      case RK_U16:
      case RK_U32:
      case RK_U64:
      case RK_FIXED:
        o.put32(f.rf_width);
        o.put(rec + f.rf_off, f.rf_width);
        break;
      case RK_BLOB:
      case RK_ATTRS: {
        uint32_t n = ld32(rec + f.rf_off2);
        o.put32(n);
        o.put(ptr_at<uint8_t>(rec, f.rf_off), n);
        break;
      }
      case RK_PREFIX: {
        uint16_t plen = ld16(rec + f.rf_off2 + 2);
        o.put32(4u + plen);
        o.put(rec + f.rf_off2, 4);
        o.put(ptr_at<uint8_t>(rec, f.rf_off), plen);
        break;
      }
      case RK_NESTED:
        o.put32(0);
        enc(f.rf_nested, rec + f.rf_off, mask ? mask + f.rf_mask_off : nullptr, o);
        o.patch32(at + 4, static_cast<uint32_t>(o.pos - at - 8));
        break;
      case RK_ERRORS:
      case RK_ARRAY: {
        uint32_t n = f.rf_kind == RK_ERRORS ? ld32(rec + f.rf_off2) : get_count(rec, f);
        uint64_t bytes = static_cast<uint64_t>(n) * f.rf_width;
        o.put32(static_cast<uint32_t>(4 + bytes));
        o.put32(n);
        o.put(ptr_at<uint8_t>(rec, f.rf_off), bytes);
        break;
      }
    }
    o.align(4);
  }
}

// 1 taken, 0 a width that cannot be taken, -1 too short (see rts_codec.h).
inline int read_int(const uint8_t *v, uint32_t n, unsigned width, uint64_t *out) {
  unsigned least = width == 1 || width == 8 ? 1 : 2;
  if (n < least) return -1;
  if (n > width) return 0;
  switch (n) {
    case 1: *out = v[0]; return 1;
    case 2: *out = ld16(v); return 1;
    case 4: *out = ld32(v); return 1;
    case 8: *out = ld64(v); return 1;
    default: return 0;
  }
}

int dec(const rts_struct *s, uint8_t *rec, uint8_t *mask, const uint8_t *p, uint32_t len,
        rts_alloc_fn alloc, void *ctx) {
  memset(rec, 0, s->rs_record);
  if (mask) memset(mask, 0, s->rs_mask_size);
  uint64_t seen = 0;
  uint32_t pos = 0;
  unsigned guess = 0;  // attributes usually come in table order
  while (len - pos >= 8) {
    uint32_t tag = ld32(p + pos), n = ld32(p + pos + 4);
    if (n > len - pos - 8) break;
    const uint8_t *v = p + pos + 8;
    unsigned idx;
    if (guess < s->rs_count && s->rs_fields[guess].rf_tag == tag) idx = guess;
    else idx = tag <= RTS_MAX_TAG && s->rs_by_tag[tag] ? s->rs_by_tag[tag] - 1u : ~0u;
    if (idx != ~0u) {
      guess = idx + 1;
      const rts_field &f = s->rs_fields[idx];
      uint64_t bit = uint64_t{1} << idx;
      bool take = true;
      if (seen & bit) {
        if (mask) take = false;  // the first occurrence wins
        else if (!is_int(f.rf_kind)) return RTS_DEC_GARBLED;
      }
      if (take) {
        switch (f.rf_kind) {
          case RK_U8:
          case RK_U16:
          case RK_U32:
          case RK_U64: {
            uint64_t x;
            int r = read_int(v, n, f.rf_width, &x);
            if (r <= 0) return r < 0 ? RTS_DEC_GARBLED : kWidth;
            set_int(rec, f, x);
            break;
          }
          case RK_FIXED:
            if (n != f.rf_width) return RTS_DEC_GARBLED;
            memcpy(rec + f.rf_off, v, n);
            break;
          case RK_BLOB:
          case RK_ATTRS:
            if (!copy_blob(rec, f.rf_off, f.rf_off2, v, n, alloc, ctx)) return RTS_DEC_NOMEM;
            if (f.rf_kind == RK_ATTRS && n) {
              auto *set = static_cast<rts_attr_set *>(alloc(ctx, sizeof(rts_attr_set)));
              if (!set) return RTS_DEC_NOMEM;
              set_ptr(rec, f.rf_off3, set);
              if (rts_attr_walk(set, v, n, alloc, ctx) < 0) return RTS_DEC_NOMEM;
            }
            break;
          case RK_PREFIX: {
            if (n < 4) return RTS_DEC_GARBLED;
            uint16_t plen = ld16(v + 2);
            if (plen != prefix_plen(ld16(v)) || 4u + plen != n) return RTS_DEC_GARBLED;
            if (!copy_blob(rec, f.rf_off, f.rf_off2, v + 4, plen, alloc, ctx)) return RTS_DEC_NOMEM;
            memcpy(rec + f.rf_off2, v, 4);
            break;
          }
          case RK_NESTED: {
            int r = dec(f.rf_nested, rec + f.rf_off, mask ? mask + f.rf_mask_off : nullptr, v, n,
                        alloc, ctx);
            if (r < 0) return r;
            if (static_cast<uint32_t>(r) != n) return RTS_DEC_GARBLED;
            break;
          }
          case RK_ERRORS:
          case RK_ARRAY: {
            if (n < 4) return RTS_DEC_GARBLED;
            uint32_t count = ld32(v);
            if (static_cast<uint64_t>(count) * f.rf_width != n - 4u) return RTS_DEC_GARBLED;
            if (f.rf_kind == RK_ARRAY && count > count_limit(f)) return RTS_DEC_GARBLED;
            if (!copy_blob(rec, f.rf_off, f.rf_off2, v + 4, n - 4, alloc, ctx)) return RTS_DEC_NOMEM;
            if (f.rf_kind == RK_ERRORS) memcpy(rec + f.rf_off2, &count, 4);
            else set_count(rec, f, count);
            break;
          }
        }
        seen |= bit;
      }
    }
    pos += 8 + n;
    uint32_t next = pad4(pos);
    if (next > len) break;  // the last attribute's padding may be missing
    pos = next;
  }
  if (mask) {
    uint64_t m = seen;
    memcpy(mask, &m, 8);
  }
  return static_cast<int>(pos);
}

}  // namespace

int rts_struct_tlv_encode(const rts_struct *s, const void *record, const uint8_t *mask, void *buffer,
                          uint32_t room) {
  Out o{static_cast<uint8_t *>(buffer), room, 0};
  enc(s, static_cast<const uint8_t *>(record), mask, o);
  return static_cast<int>(o.pos);
}

int rts_codec::tlv_decode_raw(const rts_struct *s, void *record, uint8_t *mask, const void *buffer,
                              uint32_t length, rts_alloc_fn alloc, void *context) {
  return dec(s, static_cast<uint8_t *>(record), mask, static_cast<const uint8_t *>(buffer), length,
             alloc, context);
}

int rts_struct_tlv_decode(const rts_struct *s, void *record, uint8_t *mask, const void *buffer,
                          uint32_t length, rts_alloc_fn alloc, void *context) {
  int r = dec(s, static_cast<uint8_t *>(record), mask, static_cast<const uint8_t *>(buffer), length,
              alloc, context);
  return r == kWidth ? RTS_DEC_SIZE : r;
}

// ---- Masks -----------------------------------------------------------------------

void rts_mask_set(const rts_struct *s, uint8_t *mask, unsigned tag) {
  if (tag > RTS_MAX_TAG || !s->rs_by_tag[tag]) return;
  uint64_t m = ld64(mask) | uint64_t{1} << (s->rs_by_tag[tag] - 1);
  memcpy(mask, &m, 8);
}

bool rts_mask_test(const rts_struct *s, const uint8_t *mask, unsigned tag) {
  if (tag > RTS_MAX_TAG || !s->rs_by_tag[tag]) return false;
  return ld64(mask) >> (s->rs_by_tag[tag] - 1) & 1;
}

void rts_mask_set_all(const rts_struct *s, uint8_t *mask) {
  uint64_t m = s->rs_count == 64 ? ~uint64_t{0} : (uint64_t{1} << s->rs_count) - 1;
  memcpy(mask, &m, 8);
  for (unsigned i = 0; i < s->rs_count; i++)
    if (s->rs_fields[i].rf_kind == RK_NESTED)
      rts_mask_set_all(s->rs_fields[i].rf_nested, mask + s->rs_fields[i].rf_mask_off);
}

uint8_t *rts_mask_inner(const rts_struct *s, uint8_t *mask, unsigned tag) {
  const rts_field *f = rts_field_by_tag(s, tag);
  return f && f->rf_kind == RK_NESTED ? mask + f->rf_mask_off : nullptr;
}
