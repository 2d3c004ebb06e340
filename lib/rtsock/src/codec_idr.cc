// IDR: the fields of a structure one after the other, in table order.
#include "codec_internal.h"

using namespace rts_codec;

namespace {

void enc(const rts_struct *s, const uint8_t *rec, Out &o) {
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    switch (f.rf_kind) {
      case RK_U8: o.put(rec + f.rf_off, 1); break;
      case RK_U16: o.align(2); o.put(rec + f.rf_off, 2); break;
      case RK_U32:
      case RK_U64: o.align(4); o.put(rec + f.rf_off, f.rf_width); break;
      case RK_FIXED: o.put(rec + f.rf_off, f.rf_width); break;
      case RK_BLOB:
      case RK_ATTRS: {
        uint32_t n = ld32(rec + f.rf_off2);
        o.align(4);
        o.put32(n);
        o.put(ptr_at<uint8_t>(rec, f.rf_off), n);
        o.align(4);
        break;
      }
      case RK_PREFIX: {
        uint16_t plen = ld16(rec + f.rf_off2 + 2);
        o.align(4);
        o.put(rec + f.rf_off2, 4);  // bits, padded length
        o.put(ptr_at<uint8_t>(rec, f.rf_off), plen);
        o.align(4);
        break;
      }
      case RK_NESTED: o.align(4); enc(f.rf_nested, rec + f.rf_off, o); break;
      case RK_ERRORS:
      case RK_ARRAY: {
        uint32_t n = f.rf_kind == RK_ERRORS ? ld32(rec + f.rf_off2) : get_count(rec, f);
        o.align(4);
        o.put32(n);
        o.put(ptr_at<uint8_t>(rec, f.rf_off), static_cast<uint64_t>(n) * f.rf_width);
        o.align(4);
        break;
      }
    }
  }
  o.align(4);
}

struct In {
  const uint8_t *p;
  uint32_t len;
  uint32_t pos;
  bool skip_to(uint32_t a) {  // align; false past the end
    uint32_t to = (pos + a - 1) & ~(a - 1);
    if (to > len) return false;
    pos = to;
    return true;
  }
  bool has(uint64_t n) const { return pos + n <= len; }
  // Past the padding behind a blob or list, which the last field may lack.
  void pad() { pos = pos + 3 > len ? len : (pos + 3) & ~3u; }
};

int dec(const rts_struct *s, uint8_t *rec, In &in, rts_alloc_fn alloc, void *ctx) {
  memset(rec, 0, s->rs_record);
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    unsigned a = f.rf_kind == RK_U8 || f.rf_kind == RK_FIXED ? 1 : f.rf_kind == RK_U16 ? 2 : 4;
    if (!in.skip_to(a)) return RTS_DEC_GARBLED;
    const uint8_t *v = in.p + in.pos;
    switch (f.rf_kind) {
      case RK_U8:
      case RK_U16:
      case RK_U32:
      case RK_U64:
      case RK_FIXED:
        if (!in.has(f.rf_width)) return RTS_DEC_GARBLED;
        memcpy(rec + f.rf_off, v, f.rf_width);
        in.pos += f.rf_width;
        break;
      case RK_BLOB:
      case RK_ATTRS: {
        if (!in.has(4)) return RTS_DEC_GARBLED;
        uint32_t n = ld32(v);
        in.pos += 4;
        if (!in.has(n)) return RTS_DEC_GARBLED;
        if (!copy_blob(rec, f.rf_off, f.rf_off2, v + 4, n, alloc, ctx)) return RTS_DEC_NOMEM;
        in.pos += n;
        in.pad();
        if (f.rf_kind == RK_ATTRS && n) {
          auto *set = static_cast<rts_attr_set *>(alloc(ctx, sizeof(rts_attr_set)));
          if (!set) return RTS_DEC_NOMEM;
          set_ptr(rec, f.rf_off3, set);
          if (rts_attr_walk(set, v + 4, n, alloc, ctx) < 0) return RTS_DEC_NOMEM;
        }
        break;
      }
      case RK_PREFIX: {
        if (!in.has(4)) return RTS_DEC_GARBLED;
        uint16_t bits = ld16(v), plen = ld16(v + 2);
        in.pos += 4;
        if (plen != prefix_plen(bits) || !in.has(plen)) return RTS_DEC_GARBLED;
        if (!copy_blob(rec, f.rf_off, f.rf_off2, v + 4, plen, alloc, ctx)) return RTS_DEC_NOMEM;
        memcpy(rec + f.rf_off2, v, 4);  // over the length copy_blob left there
        in.pos += plen;
        in.pad();
        break;
      }
      case RK_NESTED: {
        int r = dec(f.rf_nested, rec + f.rf_off, in, alloc, ctx);
        if (r < 0) return r;
        break;
      }
      case RK_ERRORS:
      case RK_ARRAY: {
        if (!in.has(4)) return RTS_DEC_GARBLED;
        uint32_t n = ld32(v);
        in.pos += 4;
        uint64_t bytes = static_cast<uint64_t>(n) * f.rf_width;
        if (!in.has(bytes)) return RTS_DEC_GARBLED;
        if (f.rf_kind == RK_ARRAY && n > count_limit(f)) return RTS_DEC_GARBLED;
        if (!copy_blob(rec, f.rf_off, f.rf_off2, v + 4, static_cast<uint32_t>(bytes), alloc, ctx))
          return RTS_DEC_NOMEM;
        if (f.rf_kind == RK_ERRORS) memcpy(rec + f.rf_off2, &n, 4);
        else set_count(rec, f, n);
        in.pos += static_cast<uint32_t>(bytes);
        in.pad();
        break;
      }
    }
  }
  in.pad();
  return 0;
}

}  // namespace

int rts_struct_idr_encode(const rts_struct *s, const void *record, void *buffer, uint32_t room) {
  Out o{static_cast<uint8_t *>(buffer), room, 0};
  enc(s, static_cast<const uint8_t *>(record), o);
  return static_cast<int>(o.pos);
}

int rts_struct_idr_decode(const rts_struct *s, void *record, const void *buffer, uint32_t length,
                          rts_alloc_fn alloc, void *context) {
  In in{static_cast<const uint8_t *>(buffer), length, 0};
  int r = dec(s, static_cast<uint8_t *>(record), in, alloc, context);
  return r < 0 ? r : static_cast<int>(in.pos);
}
