// rtslib, the synchronous side of the route-socket library: the handle, open
// and close with the version handshake, writing one message and reading one,
// the decoding of a reply into one block, bulk writes, the library's log and
// memory hooks, and the get functions that daemons call.
//
// Calls never wait: the socket is non-blocking and the peer has queued its
// answer by the time a write returns, so a get that finds nothing queued
// fails with EAGAIN. A record shorter than a message header (24 bytes) reads
// as nothing queued, EAGAIN, and stays where it is. A decoded reply is one block holding the record, its
// strings, prefixes and lists; release it with rtslib_msg_idl_release.
//
// A get hands out only the answer to its request: a reply of the request's
// type, sequence number and operation. Whatever is queued in front of it (the
// late reply to a request that timed out, a notification) is dropped, and a
// get that finds no answer fails with EAGAIN. Bulk reads match the same way;
// raw statistics replies by type and number.
// Blocks are sized by the bytes that arrived, never by a length a header
// claims; a reply is decoded and handed out as the type its envelope names.
//
// All traffic passes through the lower edge in force (rts_lower.h). Results
// are errno values: 0, EINVAL for a missing handle or result, ENOMEM when no
// block can be had, or the error of the write, read or decode.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_msg.h"

extern "C" {

struct rtslib_cookie;

// ---- Log ---------------------------------------------------------------------------

enum : int {
  RTSLIB_LOG_DEBUG = 0,
  RTSLIB_LOG_INFO = 1,
  RTSLIB_LOG_WARNING = 2,
  RTSLIB_LOG_ERROR = 3,
  RTSLIB_LOG_FATAL = 4,  // the default sink exits with status 1
};
typedef void (*rtslib_log_fn)(rtslib_cookie *cookie, void *ctx, int level, const char *text);
typedef void (*rtslib_seq_err_fn)(rtslib_cookie *cookie, void *ctx, uint32_t expected, uint32_t got);

// The default sink: the event log at the level's syslog priority (7, 6, 4, 3,
// 2 then exit(1)); levels above 4 go to standard error.
void rtslib_syslog_sink(rtslib_cookie *cookie, void *ctx, int level, const char *text);
// The sink that new handles start with, and that logs without a handle use
// (open failures). Null restores rtslib_syslog_sink.
void rtslib_set_default_log(rtslib_log_fn fn, void *ctx);
// "rtslib: " and the level's word, then the text, in 256 bytes; errno is kept.
// A handle whose log_fn is null logs nothing.
void rtslib_log(rtslib_cookie *cookie, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

void rtslib_lib_error_register(rtslib_cookie *cookie, rtslib_log_fn fn, void *ctx);
void rtslib_seq_error_register(rtslib_cookie *cookie, rtslib_seq_err_fn fn, void *ctx);

// ---- Memory hooks ----------------------------------------------------------------------

enum : int {
  RTSLIB_MEM_ASYNC = 6,
  RTSLIB_MEM_READBUF = 7,
  RTSLIB_MEM_COOKIE = 8,
  RTSLIB_MEM_MSG = 76,
  RTSLIB_MEM_IDS = 80,
};
struct rtslib_mem_hooks {
  void *(*alloc)(int memid, size_t size);
  void *(*alloc_array)(int memid, size_t count, size_t size);  // zeroed
  void *(*realloc)(int memid, void *block, size_t size);
  void (*free)(int memid, void *block);
};
// Counters of the default hooks, per memid.
struct rtslib_mem_rec {
  uint64_t allocs;
  uint64_t frees;
  uint64_t failures;
};
extern rtslib_mem_rec rtslib_mem_stats[RTSLIB_MEM_IDS];
// Installs a table (copied); null restores the defaults, which use the
// process's allocator (the framework's front door where it is linked).
void rtslib_mem_hooks_set(const rtslib_mem_hooks *hooks);

// ---- The handle --------------------------------------------------------------------------

enum : uint32_t { RTS_SYNC_BULK_ENABLE = 0x1 };
// Async mode bits (rtslib_set_async_mode): on, several messages per read,
// the select through the caller's own loop.
enum : uint32_t { RTSLIB_ASYNC_ON = 0x1, RTSLIB_ASYNC_BULK = 0x400, RTSLIB_ASYNC_EXTERNAL = 0x4000 };

// Blob compression for generic configuration (rtslib_gencfg.h), given by the
// caller with zlib's compress/uncompress signature: 0 on success, *dst_len in
// is the room and out the bytes written.
typedef int (*rtslib_compress_fn)(uint8_t *dst, unsigned long *dst_len, const uint8_t *src,
                                  unsigned long src_len);

struct rtslib_pending;

struct rtslib_cookie {
  int fd;                  // -1 when not connected
  uint32_t seq;            // next request number, from 1
  uint8_t *version_info;   // the peer's version array, version_len bytes
  uint32_t version_len;
  uint8_t *read_buffer;    // 16385 bytes, for raw reads
  void *async;             // asynchronous context; null for a synchronous handle
  uint32_t sync_mode;
  rtslib_log_fn log_fn;
  void *log_ctx;
  rtslib_seq_err_fn seq_err_fn;
  void *seq_err_ctx;
  uint8_t sender_id;
  int kbt_enable;          // bracket each write with the kernel-backtrace sysctl
  uint8_t async_zero_seq_ok;
  uint8_t *wbuf, *wbuf_end;
  size_t wbuf_size;
  uint8_t *rbuf, *rbuf_pos, *rbuf_last;
  size_t rbuf_size;
  // Asynchronous events (rtslib_async.h): the mode bits, the most reads of
  // one rtslib_async_event_process, and the async side's part of rtslib_close.
  uint32_t async_mode;
  uint32_t read_limit;
  void (*async_release)(rtslib_cookie *cookie);
  // Generic configuration (rtslib_gencfg.h): the caller's compression.
  rtslib_compress_fn compress_fn;
  rtslib_compress_fn decompress_fn;
  // Pending route additions by address (rtslib_gencfg.h), and the private
  // socket that acknowledges route additions; null until first used.
  rtslib_pending *pending;
  rtslib_cookie *ack;
};

// Bytes of the last message written.
extern uint32_t rtslib_msglen;

rtslib_cookie *rtslib_open(uint8_t sender_id);
void rtslib_close(rtslib_cookie *cookie);
int rtslib_set_buffers(rtslib_cookie *cookie, int send_size, int receive_size);
// Either argument may be null.
void rtslib_msg_idl_release(rtslib_cookie *cookie, void *message);
void rtslib_msg_free(rtslib_cookie *cookie, void *block);

// Encodes (TLV with a mask, IDR without) and writes one message.
int rtslib_msg_write_idl(rtslib_cookie *cookie, uint32_t type, void *record, const uint8_t *mask);
// Reads one message, raw or enveloped, into a new block of *length bytes.
int rtslib_msg_read(rtslib_cookie *cookie, uint8_t **block, uint32_t *length);
// Decodes an envelope into one block holding the record (*message).
int rtslib_msg_decode(rtslib_cookie *cookie, const uint8_t *buffer, uint32_t length, void **message);
// Reads and decodes one reply.
int rtslib_msg_read_idl(rtslib_cookie *cookie, void **message);
// Reads one raw message through read_buffer (at most 16384 bytes) into a new block.
int rtslib_msg_read_raw(rtslib_cookie *cookie, void **message);

// ---- Get functions ---------------------------------------------------------------------
// op 4 (get) and 5 (getnext) read one reply into *result; other operations
// only write. result may be null only then.

int rtslib_rtm_get(rtslib_cookie *cookie, uint16_t table, uint8_t af, const void *prefix,
                   uint16_t prefix_bits, uint8_t route_type, uint32_t flags, uint32_t nh_index,
                   uint8_t route_proto, uint8_t op, rts_rt_msg **result, int ctx);
int rtslib_rtm_get_with_msg(rtslib_cookie *cookie, rts_rt_msg *message, uint8_t op,
                            rts_rt_msg **result, int ctx);
int rtslib_rtmatch_by_prefix(rtslib_cookie *cookie, uint16_t table, uint8_t af, uint8_t op,
                             const void *prefix, uint16_t prefix_bits, rts_rtmatch_msg **result,
                             int ctx);
int rtslib_rtbm_get_by_index(rtslib_cookie *cookie, uint8_t af, uint16_t index, uint8_t op,
                             rts_rtb_msg **result, int ctx);
int rtslib_rtbm_get_by_name(rtslib_cookie *cookie, uint8_t af, const char *name,
                            rts_rtb_msg **result, int ctx);
int rtslib_ifdm_get_by_index(rtslib_cookie *cookie, uint16_t index, uint8_t op,
                             rts_ifd_msg **result, int ctx);
int rtslib_ifdm_get_by_name(rtslib_cookie *cookie, const char *name, uint8_t op,
                            rts_ifd_msg **result, int ctx);
int rtslib_ifdm_get_by_snmp_index(rtslib_cookie *cookie, uint32_t snmp_index, uint8_t op,
                                  rts_ifd_msg **result, int ctx);
int rtslib_iflm_get_by_index(rtslib_cookie *cookie, uint32_t index, uint8_t op,
                             rts_ifl_msg **result, int ctx);
int rtslib_iflm_get_by_name(rtslib_cookie *cookie, const char *device_name, uint32_t unit,
                            uint8_t op, rts_ifl_msg **result, int ctx);
int rtslib_iflm_get_by_snmp_index(rtslib_cookie *cookie, uint32_t snmp_index, uint8_t op,
                                  rts_ifl_msg **result, int ctx);
int rtslib_iffm_get_by_index(rtslib_cookie *cookie, uint32_t ifl_index, uint8_t af, uint8_t op,
                             rts_iff_msg **result, int ctx);
int rtslib_iffm_get_by_dev_name(rtslib_cookie *cookie, const char *name, uint8_t af, uint8_t op,
                                rts_iff_msg **result, int ctx);
int rtslib_ifam_get_by_index(rtslib_cookie *cookie, uint32_t ifl_index, uint8_t af, uint8_t op,
                             rts_ifa_msg **result, int ctx);
int rtslib_ifam_get_by_local(rtslib_cookie *cookie, uint32_t ifl_index, uint8_t af,
                             const void *local, uint16_t local_bits, uint8_t op,
                             rts_ifa_msg **result, int ctx);
int rtslib_ifam_get_by_dest(rtslib_cookie *cookie, uint32_t ifl_index, uint8_t af, const void *dest,
                            uint16_t dest_bits, uint8_t op, rts_ifa_msg **result, int ctx);
int rtslib_ifam_get_by_local_dest(rtslib_cookie *cookie, uint32_t ifl_index, uint8_t af,
                                  const void *dest, uint16_t dest_bits, const void *local,
                                  uint16_t local_bits, uint8_t op, rts_ifa_msg **result, int ctx);
// The next hop of an index, or with op 5 the one after it.
int rtslib_rnhm_get_by_index(rtslib_cookie *cookie, uint32_t index, uint8_t op, rts_nh_msg **result,
                             int ctx);
// Statistics travel as raw records (rts_ifstats_msg).
int rtslib_ifdsm_get_by_index(rtslib_cookie *cookie, uint32_t index, rts_ifstats_msg **result);
int rtslib_iflsm_get_by_index(rtslib_cookie *cookie, uint32_t index, rts_ifstats_msg **result);

// ---- Bulk mode -----------------------------------------------------------------------------

// 0 or RTS_SYNC_BULK_ENABLE; anything else is refused.
int rtslib_set_sync_mode(rtslib_cookie *cookie, uint32_t mode);

// One message of a bulk write: the request in, the decoded reply out (for
// operations that answer), and the errors of its write and of its read.
struct rtslib_bulk_iov {
  void *rbi_msg;
  void *rbi_reply;
  int32_t rbi_write_error;
  int32_t rbi_read_error;
};
// Writes the messages in as few writes as wbuf allows and reads the replies of
// those that expect one. masks may be null (IDR for all). Returns 0 when every
// message went through, else the first error met. When a write fails, the
// peer's count of messages accepted places the error: on the first one not
// accepted (sending resumes behind it), or, when it accepted them all (their
// replies could not be queued), as the read error of each whose reply did not
// come. Only entries below count are ever written.
int rtslib_msg_writev_idl(rtslib_cookie *cookie, uint32_t count, rtslib_bulk_iov *iov,
                          const uint8_t *const *masks);

}  // extern "C"
