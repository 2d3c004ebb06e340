// The address families this daemon registers: INET and INET6 (with their
// multicast-source forms), UNIX and I802 (MAC), and the family-name table
// that the parser and the configuration know.
//
// Call zsock_init() first, then the register functions with the family index
// the application chose for each. The INET registration also registers the
// format letters "i", "m" and "p" through the hooks given at zsock_init().
#pragma once

#include "sockaddr/zsockaddr.h"

extern "C" {

// Family indexes, as the daemon numbers them.
enum { GF_INET = 1, GF_INET6 = 6, GF_UNIX = 50, GF_I802 = 51, GF_STRING = 52, GF_MAX_DAEMON = 57 };

// INET layout: length, family, port (network order), IPv4 address, and a
// multicast source when the length reaches SOCKADDR_INMC_LEN. The full-size
// form (SOCKADDR_INMC_MAXLEN, sockbuild_inmax) also carries a flow's ports
// and protocol, which take part in its identity like every byte from 4.
struct zsockaddr_inet_t {
  uint8_t gin_len;
  uint8_t gin_family;
  uint16_t gin_port;
  uint32_t gin_addr;
  uint32_t gin_src;
  uint16_t gin_sport;  // network order
  uint16_t gin_dport;  // network order
  uint8_t gin_proto;
  uint8_t gin_pad[3];
};
enum { SOCKADDR_IN_LEN = 8, SOCKADDR_INMC_LEN = 12, SOCKADDR_INMC_MAXLEN = 20 };

// INET6 layout: port, flow information and scope up to byte 11, the address
// from byte 12, a multicast source after it.
struct zsockaddr_inet6_t {
  uint8_t gin6_len;
  uint8_t gin6_family;
  uint16_t gin6_port;
  uint32_t gin6_flowinfo;
  uint32_t gin6_scope_id;
  uint8_t gin6_addr[16];
  uint8_t gin6_src[16];
};
enum { SOCKADDR_IN6_LEN = 28, SOCKADDR_IN6MC_LEN = 44, SOCKADDR_IN6_MAXLEN = 52 };

// I802: a 6-byte MAC address after the header.
enum { SOCKADDR_I802_LEN = 8 };

extern unsigned gf_inet;
extern unsigned gf_inet6;
extern unsigned gf_unix;
extern unsigned gf_i802;

// Names known to sockfamily_by_name(), in the daemon's order.
extern const zsock_family_name zsock_daemon_family_names[];

void zsock_register_inet(unsigned gf);
// A second index with the INET operations and masks (kind 172; index 34 maps
// to the native INET value). Register INET first. Its masks are INET's, so
// they carry INET's index.
void zsock_register_inet_alias(unsigned gf);
void zsock_register_inet6(unsigned gf);
void zsock_register_unix(unsigned gf);
void zsock_register_i802(unsigned gf);

// --- INET ---
// Ports and addresses in network byte order, as in struct sockaddr_in.
zsockaddr_t *sockbuild_in(uint16_t port, uint32_t addr);   // scratch ring
zsockaddr_t *sockcreate_in(uint16_t port, uint32_t addr);  // owned, sockfree
zsockaddr_t *sockbuild_inmax(void);
zsockaddr_t *sockcreate_inmax(void);
uint32_t inet_sockextract_in(const zsockaddr_t *a);
uint32_t inet_sockextractsrc(const zsockaddr_t *a);
uint32_t socksrc_in(const zsockaddr_t *a);
uint32_t sockextractgrp_in(const zsockaddr_t *a);
uint16_t sockport_in(const zsockaddr_t *a);
void setsocksrc_in(zsockaddr_t *a, uint32_t src);  // grows the address to SOCKADDR_INMC_LEN
// Flow fields of the full-size form (asserted); read back with sockgetter()
// and ZSOCK_GET_PROTO, _SPORT, _DPORT. Ports in network order.
void setsockproto_in(zsockaddr_t *a, uint8_t proto);
void setsocksport_in(zsockaddr_t *a, uint16_t port);
void setsockdport_in(zsockaddr_t *a, uint16_t port);
const zsockaddr_t *inet_sockmask_len(unsigned gf, unsigned bits);
int inet_vprintf(char *text, size_t size, const zsockaddr_t *a, int alt);
int inet_pfx_cmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen);
zsockaddr_t *inet_prefix_to_sockaddr(const uint8_t *prefix, unsigned plen);
// "a.b.c.d/len", or "group,source/len" with a source; returns the text start
// inside buf (digits are built from the end backwards).
const char *inet_snp_format_prefix_guts(char *buf, size_t size, uint32_t addr, const uint32_t *src,
                                        unsigned plen);
int sock2unix_inet(const zsockaddr_t *a, void *target);     // struct sockaddr_in
int zsock2fwd_sock_inet(const zsockaddr_t *a, void *target);
zsockaddr_t *fwd_sock2zsock_inet(const void *fwd);  // struct sockaddr_in; scratch ring

// --- INET6 ---
zsockaddr_t *sockbuild_in6(uint16_t port, const uint8_t addr[16]);
zsockaddr_t *sockcreate_in6(uint16_t port, const uint8_t addr[16]);
const uint8_t *inet6_sockextract_in(const zsockaddr_t *a);
const zsockaddr_t *inet6_sockmask_len(unsigned gf, unsigned bits);
zsockaddr_t *inet6_build_v4_mapped_dest(const zsockaddr_t *v4_dest);
zsockaddr_t *inet6_build_v4_compatible_dest(const zsockaddr_t *v4_dest);
zsockaddr_t *inet6_build_v4_mapped_mask(const zsockaddr_t *v4_mask);
zsockaddr_t *inet6_build_v4_compatible_mask(const zsockaddr_t *v4_mask);
zsockaddr_t *inet6_build_inet_from_v4_mapped_dest(const zsockaddr_t *v6_dest);
zsockaddr_t *inet6_build_inet_from_v4_compatible_dest(const zsockaddr_t *v6_dest);
int inet6_vprintf(char *text, size_t size, const zsockaddr_t *a, int alt);
int inet6_pfx_cmp(const zsockaddr_t *a, unsigned alen, const zsockaddr_t *b, unsigned blen);
zsockaddr_t *inet6_prefix_to_sockaddr(const uint8_t *prefix, unsigned plen);
const char *inet6_snp_format_prefix_guts(char *buf, size_t size, const uint8_t *addr, const uint8_t *src,
                                         unsigned plen);
int sock2unix_inet6(const zsockaddr_t *a, void *target);  // struct sockaddr_in6
zsockaddr_t *fwd_sock2zsock_inet6(const void *fwd);       // struct sockaddr_in6; scratch ring

// --- UNIX and I802 ---
zsockaddr_t *sockcreate_unix(const char *path);
zsockaddr_t *sockbuild_i802(const uint8_t mac[6]);

}  // extern "C"
