// Generic configuration over the route socket: opaque blobs that daemons store
// in the kernel under a numeric id and a key (messages of type 72), to share
// configuration with the forwarding engines and get it back after a restart;
// the peers a blob is for and what it depends on; blob compression through
// the caller's functions. Also the tables of route additions that wait for an
// interface address, and the route-add acknowledgement socket.
//
// A request is a rts_gencfg_msg (rts_msg.h) that the caller fills:
//   major, minor         the numeric id (flag GENCFG_FLAG_ID)
//   blob_key, _len       the key, at most 250 bytes (flag GENCFG_FLAG_KEY)
//   blob, blob_len       the blob, below 0x80000 bytes as sent
//   gencfg_peers, count  peer records (rtslib_gencfg_create_peerinfo)
//   gencfg_deps, count   dependencies (flag GENCFG_FLAG_DEPEND)
// Every failure leaves the request as it was. A blob sent compressed travels
// as its length before compression (4 bytes, host order) and the compressed
// bytes, with GENCFG_FLAG_COMPRESSED set; the caller's pointer and length
// are never touched. Replies with that flag are decompressed before anyone
// sees them (here and in the async path).
#pragma once

#include <cstdint>

#include "rtsock/rtslib.h"

extern "C" {

enum : uint32_t {
  GENCFG_FLAG_ID = 0x1,
  GENCFG_FLAG_KEY = 0x2,
  GENCFG_FLAG_DEPEND = 0x4,
  GENCFG_FLAG_COMPRESSED = 0x200,   // the blob on the wire is compressed
  GENCFG_FLAG_MORE = 0x4000,        // a reply: more to come
  GENCFG_FLAG_COMPRESS = 0x20000,   // a request: compress the blob on sending
  GENCFG_FLAG_KEY_OPTIONAL = 0x400000,
};
constexpr uint32_t GENCFG_KEY_MAX = 250;
constexpr uint32_t GENCFG_BLOB_MAX = 0x7FFFF;
constexpr uint32_t GENCFG_PEER_RECORDS_MAX = 5;   // peer records of one request
constexpr uint32_t GENCFG_PEER_WORDS = 8;          // 30-bit words of a mask in use (240 bits)
constexpr uint16_t GENCFG_PEER_RESERVED = 65532;   // this index and above set no bit
enum : uint16_t { GENCFG_PEER_KIND_GROUP = 1, GENCFG_PEER_KIND_SINGLE = 16 };

// Installs the caller's compression (zlib's compress and uncompress fit);
// with either null nothing is set.
void rtslib_init_blob_compression(rtslib_cookie *cookie, rtslib_compress_fn compress,
                                  rtslib_compress_fn decompress);

// A request's own way out, for sending it by another channel: any null
// member uses the library's. alloc and free serve the compressed copy of the
// blob; send returns 0 or an errno value; recv reads the
// answer to the request header it is given into *message; seq, when given,
// is the channel's own sequence counter (taken and moved on), else the
// handle's is used.
struct rtslib_gencfg_ops {
  void *(*alloc)(void *ctx, size_t size);
  void (*free)(void *ctx, void *block);
  int (*send)(void *ctx, rtslib_cookie *cookie, const rts_gencfg_msg *msg);
  int (*recv)(void *ctx, rtslib_cookie *cookie, const rts_msg_hdr *request, void **message);
  void *ctx;
  uint32_t *seq;
};

// The worker of the calls below: op 1 add, 2 change, 3 delete, 4 get, 5
// getnext, 8 add-get, 9 change-get. Ops 4, 5, 8, 9 read the answer into
// *result (one block, released with rtslib_msg_idl_release, its blob
// decompressed) and copy its fields into *req, whose pointers then point into
// *result: a getnext with the same request goes on from there. 0, EINVAL (a
// request that breaks a rule above, no compression installed), ENOSPC (blob
// too large), ENOMEM, EIO (compression failed), or the peer's verdict.
int rtslib_gencfg_request(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t op,
                          rts_gencfg_msg **result, const rtslib_gencfg_ops *ops);
int rtslib_gencfg_add(rtslib_cookie *cookie, rts_gencfg_msg *req);
int rtslib_gencfg_delete(rtslib_cookie *cookie, rts_gencfg_msg *req);
// op 4 (the key given) or 5 (the one after it; an empty request gives the first).
int rtslib_gencfg_get(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t op, rts_gencfg_msg **result);

// Decompresses the blob of a decoded gencfg message that carries
// GENCFG_FLAG_COMPRESSED, replacing *message by a new block; 0 or an errno.
int rtslib_gencfg_decompress(rtslib_cookie *cookie, void **message);

// Peers. A peer record's mask is 30-bit words: a single peer p (kind 16) is
// bit 5p of the mask (bit 5p mod 30 of word 5p / 30); a peer g of a group of
// 8 (kind 1) is the value g mod 8 + 1 in the 5 bits from 5(g / 8). The mask
// has "kern.gencfg_cfg2_peermask" bits (240), so 48 single peers or 48
// groups. Indexes of 65532 and above set no bit but mark the record in use.
// Allocates count zeroed records for the request (count at most 5).
int rtslib_gencfg_create_peerinfo(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t count);
// Adds a peer to record `slot`: EINVAL for a slot past the count, a kind
// other than the record's, or an index past the mask.
int rtslib_gencfg_add_peerinfo(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t slot, uint16_t peer_type,
                               uint16_t kind, uint16_t peer_index);
// The first peer a record names: 0 and *index, or ENOENT.
int rtslib_gencfg_get_peer_index_from_peer_mask(const gencfg_peerinfo_t *peer, uint16_t *index);
// Frees the peer records of a request.
void rtslib_gencfg_delete_peerinfo(rtslib_cookie *cookie, rts_gencfg_msg *req);

// Dependencies: count zeroed entries (at most 255) and GENCFG_FLAG_DEPEND.
int rtslib_gencfg_create_depend(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t count);
// Fills entry `slot`: the blob depended on, by id and key (at most 16 bytes).
int rtslib_gencfg_add_depinfo(rtslib_cookie *cookie, rts_gencfg_msg *req, uint8_t slot, uint16_t major,
                              uint16_t minor, const void *key, uint32_t key_len);
// Frees the list and clears the flag.
void rtslib_gencfg_delete_depend(rtslib_cookie *cookie, rts_gencfg_msg *req);

// ---- Pending route additions --------------------------------------------------------
// Work that waits for an address on a logical interface: one table per family
// (2, 28, the others), from logical interface index to its waiting callers.
// When an address of that family on that interface is added or changed, and
// after the user's handler of the address message has run, each waiting
// caller is called once and forgotten.
typedef void (*rtslib_pending_fn)(rtslib_cookie *cookie, void *user, uint32_t ifl_index, uint8_t af);
int rtslib_pending_add(rtslib_cookie *cookie, uint8_t af, uint32_t ifl_index, rtslib_pending_fn fn, void *user);
// Forgets a waiting caller; ENOENT when there is none.
int rtslib_pending_cancel(rtslib_cookie *cookie, uint8_t af, uint32_t ifl_index, rtslib_pending_fn fn,
                          void *user);
uint32_t rtslib_pending_count(rtslib_cookie *cookie, uint8_t af, uint32_t ifl_index);

// What the async path takes of an address message before its handler owns it.
struct rtslib_pending_key {
  uint32_t ifl_index;
  uint8_t af;
  uint8_t op;
};
bool rtslib_pending_key_of(const void *ifa_message, rtslib_pending_key *key);
// Runs the callers waiting for the address a key names.
void rtslib_pending_ifaddr(rtslib_cookie *cookie, const rtslib_pending_key *key);

// ---- Route-add acknowledgement ------------------------------------------------------------
// A private second route socket of the handle (same sender id), opened on
// first use, on which route additions are written and acknowledged one by
// one without disturbing the handle's own stream. NULL, with "failed to get
// route add ack index" logged, when it cannot be opened.
rtslib_cookie *rtslib_route_ack_socket(rtslib_cookie *cookie);
// Adds a route on the acknowledgement socket and returns the peer's verdict.
// When the route names a logical interface (rtm_ifl_index) that has no
// address of its family yet, the addition waits in the pending table and is
// sent when one comes (through an async handle's address events): the result
// is then EINPROGRESS, and done(cookie, user, verdict) is called when sent.
typedef void (*rtslib_route_done_fn)(rtslib_cookie *cookie, void *user, int verdict);
int rtslib_route_add_acked(rtslib_cookie *cookie, const rts_rt_msg *route, rtslib_route_done_fn done, void *user);

}  // extern "C"
