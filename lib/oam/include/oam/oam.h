// The OAM helper library: what the overlay responder and the overlay ping
// command share. The responder uses one call, the query of the layer-2
// learning daemon (fdblearnd_lookup); the rest is the ping side: socket
// set-up, the probe builder, the hash-parameter check and the time-stamp text.
//
// Failures of set-up end the process through ping_exit with status -2: this
// library's natural caller is a one-shot command, and the responder inherits
// the rule on purpose (a known VNI asked about while the learning daemon is
// down stops the responder, and its service manager restarts it).
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

// Big-endian fields of the request and the reply, at any alignment.
inline uint16_t oam_get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t oam_get32(const uint8_t *p) { return static_cast<uint32_t>(oam_get16(p)) << 16 | oam_get16(p + 2); }
inline void oam_put16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void oam_put32(uint8_t *p, uint32_t v) {
  oam_put16(p, v >> 16);
  oam_put16(p + 2, v);
}

extern "C" {

// The learning daemon's rendezvous, a UNIX stream socket under the path root.
#define FDBLEARND_PATH "/var/run/ping_ceip_fdblearnd_communication"
// The responder's rendezvous for the ping command's VNI question.
#define OAM_LOCAL_PATH "/var/run/ping_overlay_tunechod_communication"
#define OAM_PORT 4789
#define FDBLEARND_NAME_LEN 384

// Asks the learning daemon for the bridge domain of (rtb_id, vni, address):
// the query is "%u/%u/%u/%u" (table, VNI, zero, remote VTEP as a 32-bit
// number) with its NUL; the answer "name/index" with its NUL. name_out (at
// least FDBLEARND_NAME_LEN bytes) and index_out are left as they were when
// the daemon answers nothing; an answer without a name gives "default".
// Returns 1. Exits the process with -2 when the socket cannot be made or
// connected. An answer is awaited for at most fdblearnd_timeout_ms (5000 by
// default; 0 waits for ever), after which it counts as no answer.
int fdblearnd_lookup(uint32_t vni, uint32_t rtb_id, uint32_t zero, uint32_t address, char *name_out,
                     uint32_t *index_out);
extern int fdblearnd_timeout_ms;

// Writes text and its NUL, looping while write makes progress. Returns 1.
int ping_write_line(int fd, const char *text);
// Reads into a zeroed buffer until the last byte read is a NUL or the buffer
// is full (its last byte then forced to NUL). 0 when the first read gives
// nothing (end of file, error or time-out), else 1.
int ping_read_line(int fd, char *buffer, size_t size);
// Prints the message (printf format) to standard output and exits with status.
[[noreturn]] void ping_exit(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Hash parameters the user stated, one bit each.
enum : uint32_t {
  HASH_SMAC = 0x001,
  HASH_DMAC = 0x002,
  HASH_SRC_IP = 0x004,
  HASH_DST_IP = 0x008,
  HASH_VLAN = 0x010,
  HASH_INPUT_IFD = 0x020,
  HASH_PROTOCOL = 0x040,
  HASH_L4_SRC_PORT = 0x080,
  HASH_L4_DST_PORT = 0x100,
  HASH_NEEDED = 0x1CF,  // all but the VLAN and the input device
};
// Writes the missing-parameters warning to standard error when have lacks a
// bit of need; silent in IP mode (ip_mode true).
void hash_params_warn(uint32_t have, uint32_t need, bool ip_mode);

// Socket set-up; each exits through ping_exit(-2, ...) on failure, and a
// descriptor of 0 counts as a failure.
int ping_send_socket_v4(void);
int ping_send_socket_v6(const struct in6_addr *tunnel_source);
int ping_recv_socket_v4(void);
int ping_recv_socket_v6(void);
int ping_icmp_socket(void);
// A raw UDP socket that takes a copy of every datagram to UDP port 4789 (a
// socket filter drops the rest), so that every ping run on this VTEP sees
// every reply, whichever socket the kernel delivers the datagram to.
int ping_reply_socket_raw(void);
int ping_icmp6_socket(void);

// What a probe carries; ping_probe_defaults fills the defaults.
enum ping_target : uint8_t {
  PING_TARGET_MAC = 0,   // sub-TLV 1: the end-host MAC
  PING_TARGET_IPV4 = 1,  // sub-TLV 2
  PING_TARGET_IPV6 = 2,  // sub-TLV 3
  PING_TARGET_LONG = 3,  // sub-TLV 5: a 16-byte address
  PING_TARGET_NONE = 4,  // no sub-TLV (TLV length 8): the VNI alone is asked about
};

struct ping_probe {
  uint32_t pp_vni;
  struct in_addr pp_tunnel_src;
  struct in_addr pp_tunnel_dst;  // the default destination
  uint8_t pp_inner_dmac[6];
  uint8_t pp_inner_smac[6];
  struct in_addr pp_inner_src4;
  struct in_addr pp_inner_dst4;
  struct in6_addr pp_inner_src6;
  struct in6_addr pp_inner_dst6;
  uint8_t pp_protocol;  // inner IP protocol, 17 unless stated
  uint16_t pp_l4_src_port;
  uint16_t pp_l4_dst_port;
  uint16_t pp_vlan;
  uint32_t pp_hash_have;  // HASH_* bits the user stated
  ping_target pp_target;
  uint8_t pp_target_mac[6];
  uint8_t pp_target_addr[16];  // IPv4 in the first 4 bytes
  uint32_t pp_handle;          // sender's handle
  uint32_t pp_seq;
  uint8_t pp_buf[168];  // the probe, outer IPv4 header first
  uint16_t pp_len;      // 148 (inner IPv4) or 168 (inner IPv6)
};

// Defaults: inner IPv4 destination 127.0.0.1, both inner MACs
// 00:00:5E:90:00:FF, inner IPv6 source ::FFFF:tunnel-source, destination ::1,
// protocol 17, handle the process id. Call after setting pp_tunnel_src.
void ping_probe_defaults(struct ping_probe *pp);

// The outer UDP source port of a probe: 0xC000 | FNV-1a (32 bit) over the inner
// flow's fields in wire order (smac, dmac, source IP, destination IP, protocol,
// L4 source port, L4 destination port, each as big-endian bytes), folded to
// 14 bits, as a VXLAN device spreads flows over the ephemeral range.
uint16_t ping_hash_port(const struct ping_probe *pp, bool inner_is_ipv4);

// Fills pp_buf and pp_len: the outer IPv4 header (with its checksum) to
// destination (0: pp_tunnel_dst) with the given TTL, UDP, VXLAN with flags
// 0x09, the inner Ethernet (type 0x0800, also for IPv6), inner IP and UDP,
// the echo request (sent time now) and the TLV with its sub-TLV.
void probe_build(struct ping_probe *pp, struct in_addr destination, uint8_t ttl, bool inner_is_ipv4);

// One's-complement checksum of an IPv4 header, read byte by byte.
uint16_t ping_ip_checksum(const uint8_t *header, size_t len);

// The echo reply as the ping command reads it from its UDP socket (the
// payload: VXLAN header first). Offsets are those of the request.
struct ping_reply {
  uint8_t pr_flags;        // VXLAN flags, 0x01 the OAM bit
  bool pr_inner_ipv4;
  uint8_t pr_type;         // 2, an echo reply
  uint8_t pr_return_code;  // 2 VNI unknown, 4 VNI known
  uint32_t pr_handle;
  uint32_t pr_seq;
  struct timeval pr_sent;      // as the request carried it (milliseconds)
  struct timeval pr_received;  // stamped by the responder (milliseconds)
  uint32_t pr_vni;             // from the TLV
  uint16_t pr_mac_status;      // 0 not checked, 1 present, 2 absent
};
enum : uint16_t { PING_MAC_NOT_CHECKED = 0, PING_MAC_PRESENT = 1, PING_MAC_ABSENT = 2 };
enum : uint8_t { PING_RC_VNI_UNKNOWN = 2, PING_RC_VNI_KNOWN = 4 };
// Reads an echo message (request or reply) from a UDP payload: false when
// it is too short to hold the echo header and the first TLV up to the MAC
// status, or lacks the OAM bit. The caller checks pr_type.
bool ping_reply_parse(const uint8_t *payload, size_t len, struct ping_reply *out);
// A datagram as the raw reply socket gives it (IPv4 header first), if it is
// UDP to address to, port 4789: its source, and its UDP payload in place.
bool ping_udp_payload(const uint8_t *packet, size_t len, struct in_addr to, struct in_addr *from,
                      const uint8_t **payload, size_t *payload_len);
// An ICMP error as a raw ICMP socket gives it (IPv4 header first) that quotes
// a probe sent from tunnel_src to UDP port 4789, far enough for its echo
// header: destination unreachable (3) or time exceeded (11). Sets the ICMP
// type and code and the quoted probe's fields; false for anything else.
bool ping_icmp_parse(const uint8_t *packet, size_t len, struct in_addr tunnel_src, uint8_t *type, uint8_t *code,
                     struct ping_reply *probe);
// "VNI known", "VNI unknown", else "return code N"; "MAC present", "MAC
// absent", "MAC not checked", else "MAC status N". buf holds 32 bytes.
const char *ping_return_code_text(uint8_t rc, char *buf, size_t len);
const char *ping_mac_status_text(uint16_t status, char *buf, size_t len);

// Asks the local responder, over OAM_LOCAL_PATH, for the bridge domain that
// serves vni toward the remote VTEP: the question "VNI/ADDRESS" (the address
// as the 32-bit number of its bytes in memory) with its NUL, the answer the
// index in decimal, 0 for unknown. Returns 0 and sets *bd_out, or an errno
// value: ENOENT or ECONNREFUSED when the responder is not running, ETIMEDOUT
// when it does not answer within timeout_ms, EPROTO for an answer that is
// not a number.
int oam_local_lookup(uint32_t vni, struct in_addr remote, int timeout_ms, uint32_t *bd_out);

// "Nov 23 2026 12:00:00.123 UTC": the time-stamp text of a reply.
void ping_time_text(const struct timeval *tv, char *buf, size_t len);

}  // extern "C"
