// The TLV walk of a statistics message into the readers' index.
#include <cerrno>
#include <cstring>

#include "stats/ifstat.h"

namespace {

void enter(gif_ifd *p, uint32_t type, const uint8_t *value, uint32_t len) {
  if (type == RTS_IFST_ETHER_MAC) {
    p->ether_mac = value;
    p->ether_mac_len = len;
  } else if (type < GIF_TLV_COUNT) {
    p->tlv[type] = value;
    p->tlv_len[type] = len;
  }
}

// u16 type, u16 length, the value; the next TLV at the value + the length
// rounded up to 4. Every read is checked against len first.
void walk(gif_ifd *p, const uint8_t *b, uint32_t len) {
  uint32_t at = 0;
  while (b && len - at >= 4) {
    uint16_t type, vlen;
    memcpy(&type, b + at, 2);
    memcpy(&vlen, b + at + 2, 2);
    if (vlen == 0) break;
    uint32_t value = at + 4;
    if (vlen > len - value) break;
    p->walked = static_cast<uint16_t>(p->walked + 1);
    enter(p, type, b + value, vlen);
    uint32_t room = len - value, step = (uint32_t{vlen} + 3) & ~3u;
    if (step >= room) break;
    at = value + step;
  }
}

}  // namespace

int gif_msg_init(gif_msg *msg, const void *bytes, uint32_t len) {
  memset(msg, 0, sizeof *msg);
  if (!rts_ifsm_parts_of(bytes, len, &msg->parts)) return EINVAL;
  memcpy(&msg->fixed, bytes, sizeof msg->fixed);
  if (msg->parts.tlv) msg->gen[msg->n_gen++] = {GIF_TLV_MARKER, msg->parts.tlv, msg->parts.tlv_len};
  return 0;
}

void gif_ifd_parse_tlv(gif_ifd *parsed, const gif_msg *message, uint32_t len, const void *tlvs) {
  if (!parsed) return;
  memset(parsed, 0, sizeof *parsed);
  parsed->msg = message;
  if (tlvs) {
    walk(parsed, static_cast<const uint8_t *>(tlvs), len);
    return;
  }
  if (!message) return;
  uint32_t n = message->n_gen < GIF_GEN_MAX ? message->n_gen : GIF_GEN_MAX;
  for (uint32_t i = 0; i < n; i++)
    if (message->gen[i].type == GIF_TLV_MARKER) {
      walk(parsed, static_cast<const uint8_t *>(message->gen[i].ptr), message->gen[i].len);
      break;
    }
  for (uint32_t i = 0; i < n; i++) {
    const gif_gen_tlv &g = message->gen[i];
    if (g.type != GIF_TLV_MARKER && (g.type & 0xFFFFFF) < GIF_TLV_COUNT && g.ptr)
      enter(parsed, g.type & 0xFFFFFF, static_cast<const uint8_t *>(g.ptr), g.len);
  }
}

int gif_ifd_parse(gif_ifd *parsed, gif_msg *msg, const void *bytes, uint32_t len) {
  if (int err = gif_msg_init(msg, bytes, len)) {
    gif_ifd_parse_tlv(parsed, nullptr, 0, nullptr);
    return err;
  }
  gif_ifd_parse_tlv(parsed, msg, 0, nullptr);
  return 0;
}

gif_media gif_media_class(uint8_t media, uint16_t link_type) {
  switch (media) {
    case 11: case 12: case 13: case 14: case 23: case 31: case 63: case 86: case 88:
      return link_type != RTS_LINK_TYPE_NOT_ETHER ? GIF_MEDIA_ETHER : GIF_MEDIA_OTHER;
    case 8: case 22: case 33: case 46:
      return GIF_MEDIA_P2P;
    case 70:
      return GIF_MEDIA_TUNNEL;
    default:
      return GIF_MEDIA_OTHER;
  }
}
