// The libstats wire: headers, reply heads and interface requests at their
// fixed offsets.
#include "stats/libstats_wire.h"

#include <algorithm>

bool ls_hdr_read(const uint8_t *msg, uint32_t len, ls_hdr *out) {
  if (!msg || len < LS_HDR_LEN) return false;
  out->length = ls_get32(msg);
  out->version = ls_get32(msg + 4);
  out->type = ls_get32(msg + 8);
  return out->version == LS_VERSION && out->length == len;
}

void ls_hdr_write(uint8_t *msg, uint32_t length, uint32_t type) {
  ls_put32(msg, length);
  ls_put32(msg + 4, LS_VERSION);
  ls_put32(msg + 8, type);
}

bool ls_reply_read(const uint8_t *msg, uint32_t len, ls_reply *out) {
  ls_hdr h;
  if (!ls_hdr_read(msg, len, &h) || len < LS_REPLY_HEAD) return false;
  out->type = h.type;
  out->id = ls_get32(msg + 0x0C);
  out->flags = ls_get32(msg + 0x10);
  out->key = ls_get64(msg + 0x14);
  out->index = ls_get32(msg + 0x1C);
  out->err = ls_get32(msg + 0x20);
  out->tlv_len = ls_get32(msg + 0x24);
  if (out->tlv_len > len - LS_REPLY_HEAD) return false;
  out->tlv = out->tlv_len ? msg + LS_REPLY_HEAD : nullptr;
  return true;
}

void ls_reply_write(uint8_t *msg, const ls_reply &r) {
  ls_hdr_write(msg, LS_REPLY_HEAD + r.tlv_len, r.type);
  ls_put32(msg + 0x0C, r.id);
  ls_put32(msg + 0x10, r.flags);
  ls_put64(msg + 0x14, r.key);
  ls_put32(msg + 0x1C, r.index);
  ls_put32(msg + 0x20, r.err);
  ls_put32(msg + 0x24, r.tlv_len);
}

bool ls_ifl_request_read(const uint8_t *body, uint32_t len, ls_ifl_request *out) {
  if (!body || len != LS_REQ_LEN) return false;
  out->ifl = ls_get32(body + LS_REQ_OFF_IFL);
  out->flags = ls_get32(body + LS_REQ_OFF_FLAGS);
  out->id = ls_get32(body + LS_REQ_OFF_ID);
  out->subtype = ls_get32(body + LS_REQ_OFF_SUBTYPE);
  out->ifd = ls_get32(body + LS_REQ_OFF_IFD);
  out->family = body[LS_REQ_OFF_FAMILY];
  out->has_filter = body[LS_REQ_OFF_HAS_FILTER];
  memcpy(out->name, body + LS_REQ_OFF_NAME, LS_REQ_NAME_LEN);
  out->name[LS_REQ_NAME_LEN - 1] = 0;
  memcpy(out->filter, body + LS_REQ_OFF_FILTER, LS_FILTER_LEN);
  return true;
}

void ls_ifl_request_write(uint8_t *body, const ls_ifl_request &r) {
  memset(body, 0, LS_REQ_LEN);
  ls_put32(body + LS_REQ_OFF_IFL, r.ifl);
  ls_put32(body + LS_REQ_OFF_FLAGS, r.flags);
  ls_put32(body + LS_REQ_OFF_ID, r.id);
  ls_put32(body + LS_REQ_OFF_SUBTYPE, r.subtype);
  ls_put32(body + LS_REQ_OFF_IFD, r.ifd);
  body[LS_REQ_OFF_FAMILY] = r.family;
  body[LS_REQ_OFF_HAS_FILTER] = r.has_filter;
  memcpy(body + LS_REQ_OFF_NAME, r.name, strnlen(r.name, LS_REQ_NAME_LEN - 1));
  if (r.has_filter) memcpy(body + LS_REQ_OFF_FILTER, r.filter, LS_FILTER_LEN);
}
