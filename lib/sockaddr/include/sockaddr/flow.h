// Flow-specification address families: inetflow (14), invpnflow (15, a
// route distinguisher first), inet6flow (32) and in6vpnflow (33). The
// address is a list of qualifiers and may exceed 255 bytes: its length is
// the 16-bit field at byte 2 (socklen), up to 4063.
//
// Qualifier encoding, after the header (4 bytes, or 12 with a distinguisher):
// a type byte, then
//   dst (1), src (2): IPv4: prefix length, then its bytes; IPv6: prefix
//     length, offset, then the bits from offset to the length;
//   numeric (proto 3, port 4, dstport 5, srcport 6, icmptype 7, icmpcode 8,
//     len 10, dscp 11): the byte count of its terms (16 bits, big-endian),
//     then operator/value terms, the operator byte carrying an and bit
//     (0x40), the value's size (0x30: 1, 2, 4 or 8 bytes, big-endian) and
//     lt (4), gt (2), eq (1); 0x88 are reserved. The count, not an end bit,
//     closes the list, so that a walk over the qualifiers reads one header
//     each;
//   bitmask (tcp 9, frag 12): the same, with not (2) and match (1); 0x8c
//     reserved.
// Types stand in increasing order, each at most once. Text: "any" for none,
// else the qualifiers joined by ',' (docs/sockaddr.md), after the
// distinguisher for the VPN forms.
#pragma once

#include "sockaddr/zsockaddr.h"

extern "C" {

enum {
  FLOW_DST = 1,
  FLOW_SRC = 2,
  FLOW_PROTO = 3,
  FLOW_PORT = 4,
  FLOW_DSTPORT = 5,
  FLOW_SRCPORT = 6,
  FLOW_ICMPTYPE = 7,
  FLOW_ICMPCODE = 8,
  FLOW_TCP = 9,
  FLOW_LEN = 10,
  FLOW_DSCP = 11,
  FLOW_FRAG = 12,
  FLOW_QUAL_MAX = 12,
};
enum { FLOW_OP_AND = 0x40, FLOW_OP_LT = 4, FLOW_OP_GT = 2, FLOW_OP_EQ = 1, FLOW_OP_NOT = 2,
       FLOW_OP_MATCH = 1 };

// One operator and value; the builder chooses the size.
struct flow_term {
  uint8_t op;  // FLOW_OP_AND and the comparison bits
  uint64_t value;
};

// Bytes before the qualifiers of family gf (4, or 12 for the VPN forms).
unsigned flow_sockoverhead(unsigned gf);
// Starts an empty flow address of family gf in buf (room bytes); rd for the
// VPN forms, else nullptr.
zsockaddr_t *flow_common_init(void *buf, size_t room, unsigned gf, const uint8_t *rd);
// Appends a qualifier (type and its encoded value); asserts it fits in room.
void flow_common_add_qual(zsockaddr_t *a, size_t room, unsigned type, const uint8_t *value, size_t value_len);
// Appends a numeric or bitmask qualifier from terms (each value at its
// smallest size).
void flow_common_add_terms(zsockaddr_t *a, size_t room, unsigned type, const flow_term *terms, size_t n);
// Appends an IPv4 prefix qualifier (dst or src); addr in network order.
void inetflow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, uint32_t addr, unsigned plen);
// Appends an IPv6 prefix qualifier, bits prefix_offset to plen of addr.
void inet6flow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, const uint8_t addr[16], unsigned plen,
                          unsigned prefix_offset);
void in6vpnflow_add_prefix(zsockaddr_t *a, size_t room, unsigned type, const uint8_t addr[16], unsigned prefixlen,
                           unsigned offset);
// The qualifier after qual (the first for nullptr) and its size; nullptr at
// the end or where the bytes do not hold a whole qualifier.
const uint8_t *flow_common_sock_qual_next(const zsockaddr_t *a, const uint8_t *qual, unsigned *qual_len);
// Whole qualifiers of known types in increasing order, sizes that add up.
bool flow_common_sockaddr_valid(const zsockaddr_t *a);
// Order: distinguisher, then qualifier by qualifier (a lower type first, a
// prefix by its bits and then the longer first, terms by operator and value
// and then the shorter list first); a list that goes on sorts before its end.
int flow_common_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b);
// The values of a numeric or bitmask qualifier as text ("=6|>=80&<=90").
int flow_common_vprintf_numeric(char *text, size_t size, const uint8_t *qual, unsigned qual_len);
// The VPN form of an inetflow or inet6flow address with distinguisher rd, in
// the scratch ring.
zsockaddr_t *sockbuild_invpnflow_flow(const uint8_t rd[8], const zsockaddr_t *flow);
zsockaddr_t *sockbuild_in6vpnflow_flow(const uint8_t rd[8], const zsockaddr_t *flow);

}  // extern "C"
