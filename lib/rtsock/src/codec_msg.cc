// Messages: the envelope around a record's encoding, dispatch by type, release.
#include <sys/socket.h>

#include "codec_internal.h"
#include "rtsock/rtslib.h"

using namespace rts_codec;

namespace {

int encode(const rts_msg_pair *pair, const uint8_t *mask, bool tlv, void *buffer, uint32_t room) {
  const rts_struct *s = pair->type <= RTS_ENVELOPE_MAX_TYPE ? rts_type_struct(pair->type) : nullptr;
  uint32_t payload = 0;
  uint8_t *out = static_cast<uint8_t *>(buffer);
  uint32_t inner = room >= RTS_ENVELOPE_SIZE && buffer ? room - RTS_ENVELOPE_SIZE : 0;
  if (s && pair->record) {
    payload = static_cast<uint32_t>(
        tlv ? rts_struct_tlv_encode(s, pair->record, mask, inner ? out + 12 : nullptr, inner)
            : rts_struct_idr_encode(s, pair->record, inner ? out + 12 : nullptr, inner));
  }
  if (buffer && room >= RTS_ENVELOPE_SIZE) {
    rts_envelope e{tlv ? RTS_MAGIC_TLV : RTS_MAGIC_IDR, payload, pair->type};
    memcpy(out, &e, sizeof e);
  }
  return static_cast<int>(payload + RTS_ENVELOPE_SIZE);
}

// Checks the envelope; > 0 the message's size and *s its structure (null when
// it yields no record), else the decoder result.
int envelope(const void *buffer, uint32_t length, uint32_t magic, rts_msg_pair *result,
             const rts_struct **s) {
  result->type = 0;
  result->record = nullptr;
  *s = nullptr;
  if (length < RTS_ENVELOPE_SIZE) return RTS_DEC_SIZE;
  rts_envelope e;
  memcpy(&e, buffer, sizeof e);
  if (e.magic != magic) return RTS_DEC_MAGIC;
  if (e.length >= 0xFFFFFFF4u) return RTS_DEC_GARBLED;
  if (length - RTS_ENVELOPE_SIZE < e.length) return RTS_DEC_SIZE;
  result->type = e.type;
  if (e.type <= RTS_ENVELOPE_MAX_TYPE) *s = rts_type_struct(e.type);
  return static_cast<int>(e.length + RTS_ENVELOPE_SIZE);
}

// A record is read, formatted and released as the structure its envelope
// names: a header that names another type is refused, one that names none
// (a partial record, or a request built without it) takes the envelope's.
int checked_type(rts_msg_pair *result) {
  auto *h = static_cast<rts_msg_hdr *>(result->record);
  if (h->type == 0) h->type = static_cast<uint8_t>(result->type);
  return h->type == result->type ? 0 : RTS_DEC_GARBLED;
}

}  // namespace

int rts_idr_encode(const rts_msg_pair *pair, void *buffer, uint32_t room) {
  return encode(pair, nullptr, false, buffer, room);
}

int rts_tlv_encode(const rts_msg_pair *pair, const uint8_t *mask, void *buffer, uint32_t room) {
  return encode(pair, mask, true, buffer, room);
}

int rts_idr_decode(rts_msg_pair *result, const void *buffer, uint32_t length, rts_alloc_fn alloc,
                   void *context) {
  const rts_struct *s;
  int size = envelope(buffer, length, RTS_MAGIC_IDR, result, &s);
  if (size <= 0 || !s) return size;
  void *rec = alloc(context, s->rs_record);
  if (!rec) return RTS_DEC_NOMEM;
  result->record = rec;
  int r = rts_struct_idr_decode(s, rec, static_cast<const uint8_t *>(buffer) + RTS_ENVELOPE_SIZE,
                                static_cast<uint32_t>(size) - RTS_ENVELOPE_SIZE, alloc, context);
  if (r < 0 && r != RTS_DEC_CHOICE) return r;
  if (int bad = checked_type(result)) return bad;
  return size;
}

int rts_tlv_decode(rts_msg_pair *result, uint8_t **mask_out, const void *buffer, uint32_t length,
                   rts_alloc_fn alloc, void *context) {
  if (mask_out) *mask_out = nullptr;
  const rts_struct *s;
  int size = envelope(buffer, length, RTS_MAGIC_TLV, result, &s);
  if (size <= 0 || !s) return size;
  void *rec = alloc(context, s->rs_record);
  if (!rec) return RTS_DEC_NOMEM;
  result->record = rec;
  memset(rec, 0, s->rs_record);
  uint8_t *mask = nullptr;
  if (mask_out) {
    mask = static_cast<uint8_t *>(alloc(context, s->rs_mask_size));
    if (!mask) return RTS_DEC_NOMEM;
    *mask_out = mask;
  }
  int r = tlv_decode_raw(s, rec, mask, static_cast<const uint8_t *>(buffer) + RTS_ENVELOPE_SIZE,
                         static_cast<uint32_t>(size) - RTS_ENVELOPE_SIZE, alloc, context);
  if (r == kWidth) return RTS_DEC_SIZE;
  if (r < 0 && r != RTS_DEC_CHOICE) return r;
  if (int bad = checked_type(result)) return bad;
  return size;
}

void rts_struct_release(const rts_struct *s, void *record, const uint8_t *mask, rts_free_fn free_fn,
                        void *context) {
  auto *rec = static_cast<uint8_t *>(record);
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    switch (f.rf_kind) {
      case RK_ATTRS:
        if (auto *set = ptr_at<rts_attr_set>(rec, f.rf_off3)) {
          for (uint32_t k = 0; k < set->ras_count && k < RTS_ATTR_LIST_MAX; k++)
            free_fn(context, set->ras_list[k]);
          if (set->ras_rest) free_fn(context, set->ras_rest);
          free_fn(context, set);
          set_ptr<rts_attr_set>(rec, f.rf_off3, nullptr);
        }
        [[fallthrough]];
      case RK_BLOB:
      case RK_PREFIX:
      case RK_ERRORS:
      case RK_ARRAY:
        if (auto *p = ptr_at<uint8_t>(rec, f.rf_off)) {
          free_fn(context, p);
          set_ptr<uint8_t>(rec, f.rf_off, nullptr);
        }
        break;
      case RK_NESTED:
        rts_struct_release(f.rf_nested, rec + f.rf_off, mask ? mask + f.rf_mask_off : nullptr,
                           free_fn, context);
        break;
      default: break;
    }
  }
}

void rts_release(const rts_msg_pair *pair, uint8_t *mask, rts_free_fn free_fn, void *context) {
  if (!pair || !pair->record) return;
  if (const rts_struct *s = rts_type_struct(pair->type))
    rts_struct_release(s, pair->record, mask, free_fn, context);
  free_fn(context, pair->record);
  if (mask) free_fn(context, mask);
}

const char *rts_decode_error_text(int result) {
  switch (result) {
    case RTS_DEC_SIZE: return "Invalid Buffer Size";
    case RTS_DEC_GARBLED: return "Garbled Message";
    case RTS_DEC_NOMEM: return "Allocation Failure";
    case RTS_DEC_MAGIC: return "Invalid Magic";
    case RTS_DEC_CHOICE: return "Invalid Choice";
    case RTS_DEC_HOMOGENEOUS: return "HOMOGENEOUS";
    default: return "Unknown";
  }
}

// ---- Family numbers --------------------------------------------------------------

namespace {
struct af_pair {
  int wire;
  int local;
};
constexpr af_pair kFamilies[] = {
    {RTS_AF_INET, AF_INET}, {RTS_AF_INET6, AF_INET6}, {RTS_AF_BRIDGE, AF_BRIDGE}, {0, AF_UNSPEC}};
}  // namespace

int rts_decode_af(int wire_af) {
  for (const af_pair &p : kFamilies)
    if (p.wire == wire_af) return p.local;
  rtslib_log(nullptr, RTSLIB_LOG_ERROR, "%s: Invalid address family %d", __func__, wire_af);
  return -1;
}

int rts_encode_af(int local_af) {
  for (const af_pair &p : kFamilies)
    if (p.local == local_af) return p.wire;
  rtslib_log(nullptr, RTSLIB_LOG_ERROR, "%s: Invalid address family %d", __func__, local_af);
  return -1;
}
