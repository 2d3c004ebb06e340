// libifstat: the gif_* readers. They turn one interface statistics message
// (route-socket types 15 and 16, as rtslib_ifdsm_get_by_index and
// rtslib_iflsm_get_by_index deliver it) into plain records that a reporting
// tool prints: traffic, errors, queues and Ethernet details.
//
// Each reader has two forms: gif_X gives the counters since the last clear,
// gif_abs_X those since the interface came up. A reader since the last clear
// takes, field by field, current - baseline, or current alone when current is
// below baseline (a counter that was reset); without a baseline in the
// message, current. Counters are 64 bits wide and never wrap.
//
// Readers return a malloc'ed record that the caller frees, or null on a null
// input, a message of the other kind (a device reader given a logical
// interface's message), a missing section (no queue TLV of either set for a queue reader, no
// Ethernet TLV for the Ethernet reader) or an allocation failure. A message
// without a current section gives traffic and error records of zeros, with
// the rates and flags of the fixed part. Readers never print; a queue count
// that differs between current and baseline is logged through the event log
// ("FILE:LINE: insist 'EXPR' failed: WHAT", once per set) and the queues
// both count are differenced, the others read as they are.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rtsock/rts_ifstats.h"
#include "rtsock/rts_msg.h"

extern "C" {

constexpr uint32_t GIF_TLV_COUNT = RTS_IFST_COUNT;  // 487: types 0 to 0x1E6
constexpr uint32_t GIF_TLV_MARKER = 0x70000FF;      // the generic TLV that is the message's TLV buffer
constexpr uint32_t GIF_GEN_MAX = 8;

// One entry of a message's list of generic TLVs.
struct gif_gen_tlv {
  uint32_t type;
  const void *ptr;
  uint32_t len;
};

// One statistics message as the readers see it: its fixed part, where its
// parts lie, and its generic TLVs. gif_msg_init makes the list with one
// entry, the marker for the message's TLV buffer (when it has one); a caller
// that merges other figures may add entries of its own, up to GIF_GEN_MAX
// (type below 0x1E7 in the low 24 bits), which gif_ifd_parse_tlv enters in
// the index after the walk, in place of the message's TLV of that type. The
// message's bytes must outlive it.
struct gif_msg {
  rts_ifstats_msg fixed;
  rts_ifsm_parts parts;
  gif_gen_tlv gen[GIF_GEN_MAX];
  uint32_t n_gen;
};
// 0, or EINVAL when the bytes are no statistics message (rts_ifsm_parts_of).
int gif_msg_init(gif_msg *msg, const void *bytes, uint32_t len);

// The parsed message: the TLV index, by type, of pointers to each TLV's value
// (the last of a type wins) and its length.
struct gif_ifd {
  const gif_msg *msg;  // null when parsed from a bare TLV buffer
  const uint8_t *tlv[GIF_TLV_COUNT];
  uint32_t tlv_len[GIF_TLV_COUNT];
  const uint8_t *ether_mac;  // type 0x41 (RTS_IFST_ETHER_MAC) has a field of its own
  uint32_t ether_mac_len;
  uint16_t walked;  // TLVs walked, as a 16-bit count
};

// Fills parsed. With tlvs null the buffer is the message's generic TLV of
// type GIF_TLV_MARKER (none: an empty buffer), and the message's other
// generic TLVs are entered too; else tlvs and len are the buffer. The walk
// stops at len, at a TLV whose header or value would pass it, or at a length
// of 0; types of 0x1E7 and above are skipped. message may be null with tlvs.
void gif_ifd_parse_tlv(gif_ifd *parsed, const gif_msg *message, uint32_t len, const void *tlvs);
// gif_msg_init and gif_ifd_parse_tlv in one call, for the common case; 0 or EINVAL.
int gif_ifd_parse(gif_ifd *parsed, gif_msg *msg, const void *bytes, uint32_t len);

// ---- Records ----------------------------------------------------------------------------
// The 64-bit fields come first, so that a record from malloc holds them aligned.
#pragma pack(push, 4)
struct gif_traffic {
  uint64_t in_bytes, in_packets, in_ucast, in_mcast, in_bcast;
  uint64_t out_bytes, out_packets, out_ucast, out_mcast, out_bcast;
  uint64_t in6_bytes, in6_packets, out6_bytes, out6_packets;  // 0 for transit traffic
  uint64_t in_bps, in_pps, out_bps, out_pps;                   // rates, never differenced
  uint64_t clear_time;  // of the last clear, 0 never
  uint64_t reserved[5]; // zero: the record keeps its platform size
  uint32_t flags;       // RTS_IFSM_* of the message
};
static_assert(sizeof(gif_traffic) == 0xC4);

struct gif_errors {
  uint64_t in_errors, in_drops, in_framing, in_runts, in_giants, in_discards, in_resource;
  uint64_t out_errors, out_drops, out_collisions, out_aged, out_mtu, carrier_transitions;
  uint32_t flags;
};

// Egress queues, then virtual output queues, each set from its own TLVs.
struct gif_queue_stats {
  uint32_t n_queues;
  uint32_t n_voqs;
  rts_ifst_queue queue[];  // n_queues egress queues, then n_voqs virtual output queues
};
static_assert(offsetof(gif_queue_stats, queue) == 8);

struct gif_gether_info {
  rts_ifst_ether_link link;
  rts_ifst_ether_mac mac;     // since the link came up
  uint8_t has_link, has_mac;  // which of the two TLVs the message had
};
#pragma pack(pop)

// ---- Readers ----------------------------------------------------------------------------
gif_traffic *gif_ifd_traffic(const gif_ifd *parsed);
gif_traffic *gif_abs_ifd_traffic(const gif_ifd *parsed);
gif_errors *gif_ifd_errors(const gif_ifd *parsed);
gif_errors *gif_abs_ifd_errors(const gif_ifd *parsed);
gif_traffic *gif_ifl_local_traffic(const gif_ifd *parsed);   // locally terminated
gif_traffic *gif_abs_ifl_local_traffic(const gif_ifd *parsed);
// Transit traffic; null too when the platform does not account it apart
// (platform.support_transit_acccounting, gif_platform_feature).
gif_traffic *gif_ifl_remote_traffic(const gif_ifd *parsed);
gif_traffic *gif_abs_ifl_remote_traffic(const gif_ifd *parsed);
gif_queue_stats *gif_ifd_queue(const gif_ifd *parsed);
gif_queue_stats *gif_abs_ifd_queue(const gif_ifd *parsed);
gif_queue_stats *gif_ifl_queue(const gif_ifd *parsed);
gif_queue_stats *gif_abs_ifl_queue(const gif_ifd *parsed);
// Only for an Ethernet-like device (gif_media_class), with TLV 0x41 or 0x42.
gif_gether_info *gif_abs_gether_info(const gif_ifd *parsed);

// ---- Interface types --------------------------------------------------------------------
enum gif_media : uint8_t {
  GIF_MEDIA_OTHER = 0,
  GIF_MEDIA_ETHER = 1,  // media 11 to 14, 23, 31, 63, 86, 88 with a link type other than 0xD1
  GIF_MEDIA_P2P = 2,    // media 8, 22, 33, 46
  GIF_MEDIA_TUNNEL = 3, // media 70
};
gif_media gif_media_class(uint8_t media, uint16_t link_type);

// Whether the platform attribute name (platform/pvidb.h) is on. An attribute
// that is not in the table logs "PVIDB: Attribute 'NAME' not present in Db",
// one whose value does not read "PVIDB: Error retrieving 'NAME' variable
// value", both at LOG_ERR through the event log; the feature then counts as off.
bool gif_platform_feature(const char *name);

// The difference rule of the readers since the last clear.
inline uint64_t gif_since_clear(uint64_t current, uint64_t baseline) {
  return current < baseline ? current : current - baseline;
}

}  // extern "C"
