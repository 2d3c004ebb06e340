// The lower edge of the route socket: the few operations through which all
// route-socket traffic passes (open, close, set and get an option, write, read,
// peek), the numbers of the route-socket options, the listen-mask bits, and
// the control records that the default edge exchanges with the route-socket
// peer `rtsockd`.
//
// The default edge connects an AF_UNIX SOCK_SEQPACKET socket (the data
// socket, one record one message) to "/var/run/rtsock" under the path root,
// or to $RTSOCK_PATH. In its first record it hands the peer one end of a
// socket pair, the control socket. On the control socket the peer answers
// route-socket options and, after each message written on the data socket,
// sends the kernel's verdict and the reply, if any, as one record: so a
// write returns ENOENT, EOPNOTSUPP or EAGAIN as the kernel would, and a get
// is one send and one receive. The edge holds that reply and hands it to
// lo_peek and lo_read as the next record, behind the data records the peer
// had sent before it (the verdict says how many), so a reader sees replies
// and notifications in the order the peer sent them, as on one socket.
// Notifications come on the data socket, so the descriptor can be watched for
// reading like a kernel socket; a held reply does not make it readable, so a
// writer of a get reads its answer at once (every caller here does). Options
// at socket level (SO_SNDBUF, SO_RCVBUF) apply to the data socket itself.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>

extern "C" {

// Option level and options of the route socket.
constexpr int RTS_SOL = 17;
enum : int {
  RTS_OPT_LISTEN_MASK = 1,    // 8 bytes: two 32-bit words
  RTS_OPT_SENDER_ID = 4,      // 1 byte
  RTS_OPT_VERSION = 5,        // get: count of types, interface version, one byte per type
  RTS_OPT_LOOPBACK_MASK = 6,  // 8 bytes
  RTS_OPT_ASYNC_MODE = 7,     // 4 bytes
  RTS_OPT_SLAVE_MODE = 8,     // 4 bytes
  RTS_OPT_FILTER = 10,        // the record of a compiled filter (rts_filter.h)
  RTS_OPT_ROUTE_VETO = 15,    // 4 bytes
  RTS_OPT_SYNC_MODE = 24,     // 4 bytes: bit 0 bulk
  RTS_OPT_BULK_ERROR = 25,    // get, 12 bytes: errno, messages accepted, messages in the batch
};
constexpr uint32_t RTS_VERSION_OPT_LEN = 131;

// Listen-mask bits: the word (0 or 1) and bit that a client sets to be told of
// additions, changes and deletions of a type. False for a type without one.
//   word 0: 0x1 route, 0x2 ifdev, 0x4 iflogical, 0x10 iffamily, 0x20 ifaddr,
//           0x2000 rttable
//   word 1: 0x100 gencfg, 0x1000 bridge-domain
bool rts_listen_bit(uint32_t type, uint32_t *word, uint32_t *bit);

struct rts_lower_ops {
  // A connected, non-blocking, close-on-exec socket, or -1 and errno.
  int (*lo_open)(void *ctx);
  int (*lo_close)(void *ctx, int fd);
  int (*lo_setopt)(void *ctx, int fd, int level, int name, const void *value, socklen_t len);
  int (*lo_getopt)(void *ctx, int fd, int level, int name, void *value, socklen_t *len);
  // One message; -1 and errno with the kernel's verdict.
  ssize_t (*lo_write)(void *ctx, int fd, const void *buf, size_t len);
  ssize_t (*lo_read)(void *ctx, int fd, void *buf, size_t len);
  // Copies at most len bytes of the next record and leaves it queued; returns
  // the record's whole length, which may exceed len (as MSG_TRUNC does), so
  // that a reader allocates what arrived, never what a header claims.
  ssize_t (*lo_peek)(void *ctx, int fd, void *buf, size_t len);
  void *lo_ctx;
};

// The edge in force, process-wide; set(null) restores the default.
void rts_lower_set(const rts_lower_ops *ops);
const rts_lower_ops *rts_lower(void);
extern const rts_lower_ops rts_lower_seqpacket;

// The peer's socket path: $RTSOCK_PATH, else "/var/run/rtsock" under the root.
const char *rts_peer_path(char *buf, size_t len);

// ---- Control records ------------------------------------------------------------

constexpr uint32_t RTS_CTL_MAGIC = 0x52435431;  // "1TCR" in memory
enum : uint32_t {
  RTS_CTL_HELLO = 1,    // client: first data record, with the control socket attached
  RTS_CTL_SETOPT = 2,   // client: name, value; peer: error
  RTS_CTL_GETOPT = 3,   // client: name, room in len; peer: error, value
  RTS_CTL_VERDICT = 4,  // peer: the verdict of one data record, with its reply
};
struct rts_ctl_msg {
  uint32_t magic;
  uint32_t op;
  int32_t name;
  int32_t error;  // errno, 0 for success
  uint32_t len;   // bytes of value behind
};
constexpr uint32_t RTS_CTL_VALUE_MAX = 1024;
// The value of a VERDICT: how many records the peer had put on the data
// socket (since the hello) when it answered, then the reply, if any, of the
// record written. The edge hands that reply up as the next record to read
// once the client has read those data records, so replies and notifications
// keep the order in which the peer sent them.
struct rts_ctl_verdict {
  uint32_t data_sent;
};
// The longest reply that travels with its verdict; a longer one goes on the
// data socket ahead of it (and counts in data_sent).
constexpr uint32_t RTS_CTL_REPLY_MAX = 65536;
// How long the edge waits for the peer's answer on the control socket. An
// answer that comes later is the timed-out request's: the edge counts what it
// still owes and drops those answers when they arrive, so that a late verdict
// or option value is never taken for the next request's.
constexpr int RTS_CTL_TIMEOUT_MS = 5000;
extern int rts_ctl_timeout_ms;  // RTS_CTL_TIMEOUT_MS; tests shorten it

}  // extern "C"
