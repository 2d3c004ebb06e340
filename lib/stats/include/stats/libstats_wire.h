// The messages between libstats and cntd, one definition for both ends. Each
// is an ipcconn message whose subtype is its type, sent at high priority;
// its payload starts with a 12-byte header (u32 total length, u32 version 1,
// u32 type, host order) and the body follows at offset 12. Every layout here
// is byte-serialised at fixed offsets.
//
// Request of an interface (type 1, or 28 for an interface set): the 0xAD-byte
// record below, 0xB9 bytes in all. Replies 5 (full), 10 (asynchronous full)
// and 29 (interface set), and the accounting replies 2, 7, 14 and 41, share a
// 0x28-byte head, then TLVs in the statistics message's form (u16 type, u16
// length, value padded to 4):
//   0x0C u32 id       the request's
//   0x10 u32 flags    the request's, with LS_REPLY_FINAL on a final figure
//   0x14 u64 key      subscriber or service session id; an interface set's index (u32)
//   0x1C u32 index    the interface (5, 10); the statistics kind (2, 7, 14, 41)
//   0x20 u32 err      0, or why cntd has no figures (an errno value)
//   0x24 u32 tlv_len
// TLV types: those of the statistics message for queues and Ethernet details
// (0x20 to 0x23, 0x41, 0x42) and cntd's own (LS_TLV_*). A reply without TLVs
// is an empty reply: cntd holds nothing for the interface.
#pragma once

#include <cstdint>
#include <cstring>

extern "C" {

constexpr uint32_t LS_HDR_LEN = 12;
constexpr uint32_t LS_VERSION = 1;
constexpr uint32_t LS_REQ_LEN = 0xAD;
constexpr uint32_t LS_REQ_MSG_LEN = LS_HDR_LEN + LS_REQ_LEN;  // 0xB9
constexpr uint32_t LS_REPLY_HEAD = 0x28;
constexpr uint32_t LS_FILTER_LEN = 0x50;
constexpr uint32_t LS_MAX_QUEUES = 32;
// The largest message: what one ipcconn message carries (0xFFFF less the margin).
constexpr uint32_t LS_MSG_MAX = 0xFFFF - 16;

enum : uint32_t {
  LS_IFLSTATS_FULL_REQUEST = 1,
  LS_SUBSTATS_REPLY = 2,
  LS_CNTD_REQUEST = 3,  // subscriber and service requests (LS_CNTD_REQ_*)
  LS_IFLSTATS_FULL_REPLY = 5,
  LS_SUBSTATS_OTHER_REPLY = 7,
  LS_IFLSTATS_FULL_ASYNC_REPLY = 10,
  LS_TRACE_ON = 11,
  LS_TRACE_OFF = 12,
  LS_SERVSTATS_REPLY = 14,
  LS_SUSPEND_ACC_STATUS_REPLY = 19,
  LS_SUSPEND_ACC_RESUME_REPLY = 21,
  LS_SUSPEND_ACC_BASELINE_REPLY = 24,
  LS_SUSPEND_ACC_REPLY = 26,
  LS_IFLSETSTATS_FULL_REQUEST = 28,
  LS_IFLSETSTATS_FULL_REPLY = 29,
  LS_MOBILESTATS_REPLY = 35,
  LS_MOBILESTATS_OTHER_REPLY = 37,
  LS_MCAST_REQUEST = 40,
  LS_MCAST_REPLY = 41,
};

enum : uint32_t { LS_CNTD_REQ_SUB_INTERIM = 0, LS_CNTD_REQ_SUB_DELETE = 1, LS_CNTD_REQ_SERV_INTERIM = 2,
                  LS_CNTD_REQ_SERV_DELETE = 3 };

// Request flags.
enum : uint32_t {
  LS_REQ_ASYNC = 0x1,          // answer with type 10
  LS_REQ_CLEAR = 0x2,          // clear the counters, then answer
  LS_REQ_FULL = 0x100,         // always set on an interface request
  LS_REQ_ABSOLUTE = 0x20000000,
  LS_REPLY_FINAL = 0x80000000,
};
// Flags of a logical interface (iflm_flags) that keep it from cntd.
enum : uint32_t { LS_IFL_PRIVATE = 0x00010000, LS_IFL_CHASSIS_LOCAL = 0x00020000 };

// The request record (offsets in the body).
enum : uint32_t {
  LS_REQ_OFF_IFL = 0x00,      // u32 interface (or interface set) index
  LS_REQ_OFF_FLAGS = 0x04,    // u32 LS_REQ_*
  LS_REQ_OFF_ID = 0x08,       // u32 id, echoed in the reply
  LS_REQ_OFF_SUBTYPE = 0x0C,  // u32 the caller's subtype, echoed
  LS_REQ_OFF_IFD = 0x10,      // u32 the parent device
  LS_REQ_OFF_FAMILY = 0x14,   // u8 address family of the interface, 0 all
  LS_REQ_OFF_HAS_FILTER = 0x15,
  LS_REQ_OFF_NAME = 0x18,     // 64 bytes, NUL-terminated: the interface's name
  LS_REQ_NAME_LEN = 64,
  LS_REQ_OFF_FILTER = 0x5D,   // 0x50 bytes
};
// Subscriber and service requests (type 3) and multicast requests (type 40): body.
enum : uint32_t { LS_CNTD_REQ_BODY = 16, LS_MCAST_REQ_BODY = 28 };  // kind, id, sid | kind, id, ifl, group[16]

// cntd's TLVs.
enum : uint16_t {
  LS_TLV_FIXED = 0x1F0,     // u8 flags, u8 media, u16 link_type, 4 u64 rates, u64 clear_time (44 bytes)
  LS_TLV_COUNTERS = 0x1F1,  // u64 counters by slot (RTS_IFSC_*); several: a bundle's members, summed
  LS_TLV_BASELINE = 0x1F2,  // the same at the last clear
};
constexpr uint32_t LS_TLV_FIXED_LEN = 44;

inline uint32_t ls_get32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}
inline uint64_t ls_get64(const uint8_t *p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}
inline void ls_put32(uint8_t *p, uint32_t v) { memcpy(p, &v, 4); }
inline void ls_put64(uint8_t *p, uint64_t v) { memcpy(p, &v, 8); }

// The header at msg; false when len is shorter than it, the version is not
// 1 or the total length is not len.
struct ls_hdr {
  uint32_t length, version, type;
};
bool ls_hdr_read(const uint8_t *msg, uint32_t len, ls_hdr *out);
void ls_hdr_write(uint8_t *msg, uint32_t length, uint32_t type);

// A reply's head and TLVs; false when len is short of the head or tlv_len
// passes the message's end.
struct ls_reply {
  uint32_t type, id, flags;
  uint64_t key;
  uint32_t index, err, tlv_len;
  const uint8_t *tlv;
};
bool ls_reply_read(const uint8_t *msg, uint32_t len, ls_reply *out);
// Writes a reply's head (tlv_len bytes of TLVs are to follow at +0x28).
void ls_reply_write(uint8_t *msg, const ls_reply &r);

// An interface request's fields; false when the body is not LS_REQ_LEN long.
struct ls_ifl_request {
  uint32_t ifl, flags, id, subtype, ifd;
  uint8_t family, has_filter;
  char name[LS_REQ_NAME_LEN];  // always NUL-terminated once read
  uint8_t filter[LS_FILTER_LEN];
};
bool ls_ifl_request_read(const uint8_t *body, uint32_t len, ls_ifl_request *out);
void ls_ifl_request_write(uint8_t *body, const ls_ifl_request &r);

}  // extern "C"
