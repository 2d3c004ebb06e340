// The routing-table address families: VPN prefixes, EVPN routes, multicast
// keys, MDT, route targets, layer-2 circuits, link-state keys, ISO and the
// rest of the family table, beside INET, INET6, UNIX and I802. The daemon
// needs few of them, but all are registered at start because the kernel's
// messages can carry any of them, and every one parses and prints.
//
// Each row of the table is registered by its table name with the index the
// application gives it (zsock_register_row); rows whose index is fixed
// assert that index. zsock_register_every_family() registers every row,
// INET and friends included, at the daemon's numbering below. The families'
// text forms are described in docs/sockaddr.md.
//
// Composite families are in sockaddr/composite.h, flow specifications in
// sockaddr/flow.h.
#pragma once

#include "sockaddr/families.h"

extern "C" {

// The daemon's numbering. Indexes 14, 35-38, 41-43, 51, 53, 55 and 56 are
// fixed by the table; the others are this daemon's choice. Families 14, 15,
// 32 and 33 are the long ones (16-bit length). 34 is INET's second index
// (native value 1); 39, whose native value is INET6's, is left free.
enum {
  GF_VPN = 2,
  GF_IN6VPN = 3,
  GF_L2VPN = 4,
  GF_L2CKT = 5,
  GF_ISO = 7,
  GF_MVPN = 8,
  GF_MVPN6 = 9,
  GF_L2PROTEC = 10,
  GF_MDT = 11,
  GF_TARGET = 12,
  GF_EVPN = 13,
  GF_INETFLOW = 14,
  GF_INVPNFLOW = 15,
  GF_LSDIST = 16,
  GF_L2ID = 17,
  GF_EVPNMCSN6 = 18,
  GF_TAGVPN = 19,
  GF_INETTRANSPORT = 20,
  GF_IN6TRANSPORT = 21,
  GF_BGPMCAST = 22,
  GF_BGPMCAST6 = 23,
  GF_TAG = 24,
  GF_VPLS = 25,
  GF_INET6FLOW = 32,
  GF_IN6VPNFLOW = 33,
  GF_INET_ALIAS = 34,
  GF_SRTE = 35,
  GF_SRTE6 = 36,
  GF_INETCOLOR = 37,
  GF_INET6COLOR = 38,
  GF_CRH = 41,
  GF_MCSN = 42,
  GF_MCSN6 = 43,
  GF_DLI = 53,
  GF_LINK = 55,
  GF_COMPOSITE = 56,
};

// One row of the family table as the library knows it: the row's name,
// a short name for people (tvxinfo), kind, fixed index (-1: the
// application's), offset, maximum size and prebuilt-mask count.
struct zsock_table_row {
  const char *name;
  const char *short_name;
  unsigned kind;
  int fixed_gf;
  unsigned offset;
  unsigned max_size;
  unsigned masks;
};
// Every row, ended by a null name. INET's row stands twice (kinds 2 and 172,
// the second for index 34). in6vpnflow is this library's row: see
// docs/sockaddr.md.
extern const zsock_table_row zsock_table_rows[];
// The daemon's index of row i (GF_UNSPEC past the end).
unsigned zsock_table_daemon_gf(unsigned row);

// Registers the row named name (design or short name) at index gf; false for
// an unknown name. A fixed row asserts its index.
bool zsock_register_row(const char *name, unsigned gf);
// Every row at the daemon's numbering, after zsock_init(GF_MAX_DAEMON, ...).
void zsock_register_every_family(void);
// The index of a registered family by design name, short name or number
// (decimal); -1 when none.
int zsock_family_lookup(const char *name);

// The index each family was registered at (GF_UNSPEC until then); helpers
// assert their family is registered.
unsigned zsock_registered_gf(const char *name);

// --- VPN, transport and labelled prefixes ---
// The inner address (INET or INET6, port 0) after the route distinguisher
// (and the label for tagvpn), in the scratch ring; bytes past a short
// address are zero. The plen helpers turn the family's prefix length into the
// inner one (0 when the prefix ends inside the distinguisher).
zsockaddr_t *inetvpn_sockextract_in(const zsockaddr_t *a);
unsigned inetvpn_extract_plen_in(unsigned plen);
zsockaddr_t *inet6vpn_sockextract_in(const zsockaddr_t *a);
unsigned inet6vpn_extract_plen_in(unsigned plen);
zsockaddr_t *tagvpn_sockextract_in(const zsockaddr_t *a);
unsigned tagvpn_extract_plen_in(unsigned plen);
zsockaddr_t *inettransport_sockextract_in(const zsockaddr_t *a);
unsigned inettransport_extract_plen_in(unsigned plen);
zsockaddr_t *inet6transport_sockextract_in(const zsockaddr_t *a);
unsigned inet6transport_extract_plen_in(unsigned plen);
// A VPN prefix in the ring: distinguisher (8 bytes as on the wire) and the
// inner address (network order).
zsockaddr_t *sockbuild_inetvpn(const uint8_t rd[8], uint32_t addr);
zsockaddr_t *sockbuild_inet6vpn(const uint8_t rd[8], const uint8_t addr[16]);

// Prebuilt masks, each asserting the bit count against its own table.
const zsockaddr_t *iso_sockmask_len(unsigned gf, unsigned bits);
const zsockaddr_t *tag_sockmask_len(unsigned gf, unsigned bits);
const zsockaddr_t *inetmdt_mask_len(unsigned gf, unsigned bits);

// --- MDT and multicast keys ---
// Group and source of an MDT address (network order); slots 23 and 22.
uint32_t sockextractgrp_mdt(const zsockaddr_t *a, void *arg);
uint32_t sockextractsrc_mdt(const zsockaddr_t *a, void *arg);
// Multicast keys order by group, then source, then the rest.
int inetmcsn_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b);
int inet6mcsn_sockaddrcmp2(const zsockaddr_t *a, const zsockaddr_t *b);

// --- EVPN ---
// Route types 1 to 6; the address holds the type at byte 4, the
// distinguisher after it, then the route's fields (docs/sockaddr.md). IP
// arguments are INET or INET6 addresses, or nullptr for none. Results live in
// the scratch ring.
enum { EVPN_AD = 1, EVPN_MAC = 2, EVPN_INCL_MULT = 3, EVPN_ETH_SEGMENT = 4, EVPN_IP_PREFIX = 5, EVPN_SMET = 6 };
zsockaddr_t *evpn_addr_build_mac(const uint8_t rd[8], const uint8_t esi[10], uint32_t tag, const uint8_t mac[6],
                                 const zsockaddr_t *ip);
zsockaddr_t *evpn_addr_build_eth_segment(const uint8_t rd[8], const uint8_t esi[10], const zsockaddr_t *ip);
zsockaddr_t *evpn_addr_build_incl_mult(const uint8_t rd[8], uint32_t tag, const zsockaddr_t *ip);
zsockaddr_t *evpn_addr_build_ip_prefix(const uint8_t rd[8], uint32_t tag, const zsockaddr_t *ip, unsigned plen);
zsockaddr_t *evpn_addr_build_ad(const uint8_t rd[8], const uint8_t esi[10], uint32_t tag);
// a with its IP replaced by ip (types 2 to 5), or its source and group (type
// 6, either may be nullptr), as a new ring address.
zsockaddr_t *evpn_addr_put_sock(const zsockaddr_t *a, const zsockaddr_t *ip);
zsockaddr_t *evpn_addr_put_igmp_sock(const zsockaddr_t *a, const zsockaddr_t *src, const zsockaddr_t *grp);
int vprintf_evpn_format_addr(char *text, size_t size, const zsockaddr_t *a, int alt);
int vprintf_lsdist_format_addr(char *text, size_t size, const zsockaddr_t *a, int alt);

}  // extern "C"
