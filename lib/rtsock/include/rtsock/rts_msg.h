// Route-socket messages as records in memory: the common header, the message
// types that daemons of this platform read and write, and the table of all
// 111 type names and the versions this library was built for.
//
// A decoded record begins with the common header and goes on with the type's
// own fields; blobs, names and prefixes are pointers into the same block (see
// rts_codec.h for how records become bytes). The `size` carried in a header is
// the platform's record size for the type (rts_type_table[t].size), a protocol
// constant, never the sizeof of the structs below.
//
// Blobs that a decoder fills are followed by a hidden NUL byte, so a name blob
// is always a C string. Names written by this library include their NUL in
// the length.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// ---- Envelope and constants ---------------------------------------------------

constexpr uint32_t RTS_MAGIC_TLV = 20497;  // 0x5011
constexpr uint32_t RTS_MAGIC_IDR = 20514;  // 0x5022
constexpr uint32_t RTS_ENVELOPE_SIZE = 12;
constexpr uint32_t RTS_ENVELOPE_MAX_TYPE = 108;
constexpr uint32_t RTS_TYPE_COUNT = 111;   // rows of the name table, 0 to 110
constexpr uint32_t RTS_TYPE_LAST = 109;    // highest type a channel dispatches
constexpr uint8_t RTS_IFACE_VERSION = 98;  // interface version of the handshake
constexpr uint32_t RTS_MSG_MAX = 16384;    // a raw message, and the request block

// Wire envelope in front of every encoded message, host byte order.
struct rts_envelope {
  uint32_t magic;
  uint32_t length;  // bytes behind the envelope
  uint32_t type;
};

enum rts_op : uint8_t {
  RTS_OP_ADD = 1,
  RTS_OP_CHANGE = 2,
  RTS_OP_DELETE = 3,
  RTS_OP_GET = 4,
  RTS_OP_GETNEXT = 5,
  RTS_OP_CLEAR = 6,
  RTS_OP_DELETE_ALL = 7,
  RTS_OP_ADD_GET = 8,
  RTS_OP_CHANGE_GET = 9,
};
// "add", "change", "delete", "get", "getnext", ...; "unknown" out of range.
const char *rts_op_name(unsigned op);

enum rts_type : uint8_t {
  RTS_T_NOP = 0,
  RTS_T_RTTABLE = 1,
  RTS_T_ROUTE = 2,
  RTS_T_IFDEV = 5,
  RTS_T_IFLOGICAL = 6,
  RTS_T_IFFAMILY = 7,
  RTS_T_IFADDR = 8,
  RTS_T_NEXTHOP = 10,
  RTS_T_RTMATCH = 12,
  RTS_T_IFDSTATS = 15,
  RTS_T_IFLSTATS = 16,
  RTS_T_GENCFG = 72,
  RTS_T_BRIDGE_DOMAIN = 89,
  RTS_T_RTS_ERR = 109,
  RTS_T_UNKNOWN = 110,
};

// Address families inside route-socket records (the platform's numbers).
enum : uint8_t { RTS_AF_INET = 2, RTS_AF_INET6 = 28, RTS_AF_BRIDGE = 63 };

struct rts_type_info {
  const char *name;     // "bridge-domain"
  uint8_t version;      // expected version, 0 when none is checked
  uint16_t size;        // the platform's decoded record size (0: no codec there)
};
// Indexed by type, 0 to 110.
extern const rts_type_info rts_type_table[RTS_TYPE_COUNT];

// ---- Common header ------------------------------------------------------------

// One per-operation error of a reply (type, operation, errno, index, text).
// Fixed layout, copied as it stands in both encodings.
struct rts_err_rec {
  uint32_t rer_type;
  uint32_t rer_op;
  int32_t rer_errno;
  uint32_t rer_index;
  char rer_text[356];
};
static_assert(sizeof(rts_err_rec) == 372);

struct rts_msg_hdr {
  uint32_t word0;      // 0 in a raw message
  uint8_t version;
  uint8_t type;
  uint8_t operation;
  uint8_t aux;
  uint32_t length;     // total length
  uint32_t seq;
  uint32_t sender;
  uint16_t size;       // the platform's record size
  uint8_t aux2;
  uint8_t aux3;
  rts_err_rec *errors;
  uint32_t error_count;
};

// A message record of any type: what the top-level codec hands around.
struct rts_msg_pair {
  uint32_t type;
  void *record;  // begins with rts_msg_hdr; null when there is no content
};

// ---- Message records ---------------------------------------------------------

// Bridge domain, type 89, version 98. `cfg_flags` bit 0x800 marks VXLAN.
struct rts_bd_vlan {
  uint16_t vlan;        // tag 1, with vlan_inner
  uint16_t vlan_inner;
  uint16_t vlan_lo;     // tag 2, with vlan_hi
  uint16_t vlan_hi;
};
struct rts_bd_mac_cfg {
  uint32_t mac_limit;
  uint32_t mac_age;
  uint16_t mac_flags;
};
constexpr uint64_t RTS_BD_CFG_VXLAN = 0x800;

struct rts_bd_msg {
  rts_msg_hdr hdr;
  uint64_t bdm_reserved;
  uint16_t bdm_index;
  uint16_t rtb_id;
  char *bdm_name;
  uint32_t bdm_name_len;
  uint8_t *bdm_blob;
  uint32_t bdm_blob_len;
  rts_bd_vlan vlan;
  uint16_t bdm_vlan_flags;
  rts_bd_mac_cfg bdm_mac;
  uint32_t bdm_irb_ifl;
  uint32_t bdm_flags;
  uint64_t cfg_flags;
  uint32_t bdm_reserved2;
  uint32_t bdm_vlan_token;
  uint32_t vnid;
  uint32_t bdm_mcast_group;
  uint32_t bdm_vtep_src_ifl;
  uint8_t bdm_vtep_src[16];
  uint16_t bdm_udp_port;
  uint8_t bdm_encap;
  uint8_t bdm_domain_type;
  uint32_t bdm_mtu;
  uint32_t bdm_isid;
  uint32_t bdm_mac_table_size;
  uint64_t bdm_rd;
  uint64_t bdm_rt_import;
  uint64_t bdm_rt_export;
  uint8_t bdm_esi[10];
  uint16_t bdm_decap_vlan;
  uint32_t bdm_mesh_group;
  uint32_t bdm_stats_id;
  uint32_t bdm_generation;
  uint8_t bdm_arp_suppress;
  uint8_t bdm_ingress_repl;
  uint16_t bdm_ovsdb_flags;
  uint32_t bdm_ifl_count;
};

// The attribute list that route messages carry in a blob (rts_codec.h walks
// it). One understood attribute, copied into the message's block.
enum : uint8_t { RTS_ATTR_ARRAY = 1, RTS_ATTR_VALUE = 2, RTS_ATTR_STRUCT = 3 };
struct rts_attr {
  uint16_t ra_type;
  uint8_t ra_kind;
  uint8_t ra_reserved;
  uint32_t ra_len;     // bytes of ra_data
  uint64_t ra_value;   // RTS_ATTR_VALUE: the value, widened
  uint8_t ra_data[];   // the value as it came (arrays: 32-bit words)
};
constexpr uint32_t RTS_ATTR_LIST_MAX = 128;
constexpr uint32_t RTS_ATTR_TYPE_MAX = 480;
struct rts_attr_set {
  uint32_t ras_count;
  rts_attr *ras_list[RTS_ATTR_LIST_MAX];
  uint8_t *ras_rest;      // attributes not understood, as they came
  uint32_t ras_rest_len;
};

// Route, type 2, version 104. A bridge MAC route is family 63 with an 80-bit
// key: bridge-domain index big-endian, two zero bytes, the MAC.
struct rts_rt_msg {
  rts_msg_hdr hdr;
  uint16_t rtm_table;
  uint8_t rtm_af;
  uint8_t rtm_type;       // 2: a usable route
  uint32_t rtm_flags;     // bit 0: rejected / absent
  uint32_t rtm_nh_index;
  uint8_t rtm_proto;
  uint16_t rtm_prefix_bits;
  uint16_t rtm_prefix_plen;  // padded length of rtm_prefix
  uint8_t *rtm_prefix;
  uint32_t rtm_ifl_index;
  uint32_t rtm_metric;
  uint8_t *rtm_attrs;        // attribute list as it came
  uint32_t rtm_attrs_len;
  rts_attr_set *rtm_attr_set;  // what the walker understood (decoded only)
};

// Next hop, type 10, version 109: what routes point at by rtm_nh_index.
// nhm_type: 1 unicast (through nhm_gw on nhm_ifl_index), 2 reject, 3 discard,
// 4 local, 5 a list of next hops (in the attributes).
struct rts_nh_msg {
  rts_msg_hdr hdr;
  uint32_t nhm_index;
  uint8_t nhm_af;
  uint8_t nhm_type;
  uint16_t nhm_flags;
  uint32_t nhm_ifl_index;
  uint16_t nhm_gw_bits;
  uint16_t nhm_gw_plen;      // padded length of nhm_gw
  uint8_t *nhm_gw;           // the gateway's address
  uint32_t nhm_refcount;     // routes that use it
  uint8_t *nhm_attrs;        // attribute list as it came
  uint32_t nhm_attrs_len;
  rts_attr_set *nhm_attr_set;  // what the walker understood (decoded only)
};

// Longest-match lookup, type 12, version 99.
struct rts_rtmatch_msg {
  rts_msg_hdr hdr;
  uint16_t rtmm_table;
  uint8_t rtmm_af;
  uint8_t rtmm_type;
  uint16_t rtmm_prefix_bits;
  uint16_t rtmm_prefix_plen;
  uint8_t *rtmm_prefix;       // the address asked for
  uint16_t rtmm_match_bits;   // reply: length of the matching route
  uint32_t rtmm_nh_index;
  uint32_t rtmm_flags;
};

// Routing table, type 1, version 98. A lookup by name carries index 65535.
struct rts_rtb_msg {
  rts_msg_hdr hdr;
  uint16_t rtbm_index;
  uint8_t rtbm_af;
  uint8_t rtbm_type;
  uint32_t rtbm_flags;
  char *rtbm_name;
  uint32_t rtbm_name_len;
  uint16_t rtbm_parent;
  uint32_t rtbm_route_count;
  uint16_t rtbm_attr;     // the table's attribute word; a change of it is a change of the table
};
constexpr uint16_t RTS_RTB_INDEX_BY_NAME = 65535;

// Interface names in requests: at most 60 bytes with the terminator.
constexpr uint32_t RTS_IFNAME_MAX = 60;

// Interface records, types 5 to 8. The fields below are this platform's
// choice (the kernel's own lists are not published): what a mirror of the
// interfaces keeps and compares, each under its own tag. Nested groups are
// written "group.field" in rtsockd's text form ("mcae.rg_id=1").

// Multichassis aggregate (MC-AE) options of a device; rg_id 0: none.
struct rts_ifd_mcae {
  uint32_t rg_id;          // redundancy group
  uint32_t mcae_id;
  uint8_t mode;            // 1 active-active, 2 active-standby
  uint8_t status;          // 1 active, 2 standby
  uint16_t local_port_id;  // this chassis's port id inside the group
  uint8_t chassis_id;
};
// Ethernet-port options of a device: LACP and link options.
struct rts_ifd_ep {
  uint32_t flags;          // RTS_IFD_EP_*
  uint8_t lacp_mode;       // 0 off, 1 passive, 2 active
  uint8_t lacp_period;     // 0 slow, 1 fast
  uint16_t system_priority;
};
enum : uint32_t { RTS_IFD_EP_FLOW_CONTROL = 0x1, RTS_IFD_EP_LOOPBACK = 0x2, RTS_IFD_EP_NO_AUTONEG = 0x4 };
// Firewall filters bound to a device, by filter index (0: none bound):
// binding type 1 is input, 2 output.
struct rts_ifd_fw {
  uint32_t input;
  uint32_t output;
};
enum : uint8_t { RTS_FW_BIND_INPUT = 1, RTS_FW_BIND_OUTPUT = 2 };

// Interface device, type 5, version 106. An aggregate member names its
// parent device by agg_parentidx, an interface-hierarchy child by
// ifh_parentidx; never both.
struct rts_ifd_msg {
  rts_msg_hdr hdr;
  uint16_t ifdm_index;
  char *ifdm_name;
  uint32_t ifdm_name_len;
  uint32_t ifdm_snmp_index;
  uint32_t ifdm_flags;      // RTS_IFF_* below
  uint32_t ifdm_devflags;
  uint16_t ifdm_porttype;   // media: the port type, fixed once the device exists
  uint32_t ifdm_mtu;
  uint64_t ifdm_speed;
  uint8_t ifdm_mac[6];
  uint16_t ifdm_agg_parentidx;
  uint16_t ifdm_ifh_parentidx;
  uint32_t ifdm_state;      // RTS_IFD_STATE_* (why a device is down)
  uint8_t ifdm_duplex;      // 0 auto, 1 half, 2 full
  uint8_t ifdm_autoneg;     // 0 off, 1 on, 2 complete
  rts_ifd_mcae ifdm_mcae;
  rts_ifd_ep ifdm_ep;
  rts_ifd_fw ifdm_fw;
};
// Flag bits of devices and logical interfaces, in the order their names are
// printed: "Broadcast", "PointToPoint", "Simplex", "Absent", "AbsentDown",
// "NoAge", "Localup", "OamDown", "Refresh". RTS_IFF_UP is the link state.
enum : uint32_t {
  RTS_IFF_BROADCAST = 0x1, RTS_IFF_POINTOPOINT = 0x2, RTS_IFF_SIMPLEX = 0x4, RTS_IFF_ABSENT = 0x8,
  RTS_IFF_ABSENTDOWN = 0x10, RTS_IFF_NOAGE = 0x20, RTS_IFF_LOCALUP = 0x40, RTS_IFF_OAMDOWN = 0x80,
  RTS_IFF_REFRESH = 0x100, RTS_IFF_UP = 0x8000,
};
// Down causes of a device: "harddown", "admindown", "linkdown".
enum : uint32_t { RTS_IFD_STATE_HARDDOWN = 0x1, RTS_IFD_STATE_ADMINDOWN = 0x2, RTS_IFD_STATE_LINKDOWN = 0x4 };

// VTEP data of a logical interface that is a VXLAN tunnel end point;
// flags 0: not one.
struct rts_ifl_vtep {
  uint32_t flags;       // bit 0: a VTEP; bit 1: the source is IPv6
  uint16_t udp_port;
  uint8_t src[16];      // the source address, 4 or 16 bytes used
};

// Logical interface, type 6, version 107. The name is the device's; the
// logical interface is "<name>.<unit>". rtb_id is the routing instance it
// belongs to; agg_index the aggregate's logical interface (0 none).
struct rts_ifl_msg {
  rts_msg_hdr hdr;
  uint16_t iflm_ifd_index;
  uint32_t iflm_index;
  uint32_t iflm_unit;
  char *iflm_name;
  uint32_t iflm_name_len;
  uint32_t iflm_snmp_index;
  uint32_t iflm_flags;
  uint16_t iflm_rtb_id;
  uint16_t iflm_encaps;
  uint16_t iflm_vlan;
  uint64_t iflm_bandwidth;
  uint32_t iflm_agg_index;
  uint8_t iflm_df_role;       // EVPN designated forwarder: 0 none, 1 DF, 2 non-DF
  uint16_t iflm_bw_weight;    // 0 on the wire means the default, 32768
  rts_ifl_vtep iflm_vtep;
};

// Address family on a logical interface, type 7, version 102. The name is the
// logical interface's ("<device>.<unit>"). mtu is the configured value,
// max_mtu what the device allows; the family's effective MTU is the smaller
// non-zero one. features is the family's 64-bit feature word.
struct rts_iff_msg {
  rts_msg_hdr hdr;
  uint32_t iffm_ifl_index;
  uint8_t iffm_af;
  uint32_t iffm_flags;
  uint32_t iffm_mtu;
  char *iffm_name;
  uint32_t iffm_name_len;
  uint32_t iffm_max_mtu;
  uint64_t iffm_features;
};

// Interface address, type 8, version 101. flags: RTS_IFA_* below.
struct rts_ifa_msg {
  rts_msg_hdr hdr;
  uint32_t ifam_ifl_index;
  uint8_t ifam_af;
  uint32_t ifam_flags;
  uint16_t ifam_local_bits;
  uint16_t ifam_local_plen;
  uint8_t *ifam_local;
  uint16_t ifam_dest_bits;
  uint16_t ifam_dest_plen;
  uint8_t *ifam_dest;
  uint16_t ifam_bcast_bits;
  uint16_t ifam_bcast_plen;
  uint8_t *ifam_bcast;
};
enum : uint32_t { RTS_IFA_PRIMARY = 0x1, RTS_IFA_PREFERRED = 0x2, RTS_IFA_DEST = 0x10 };

// Generic configuration, type 72, version 105.
#pragma pack(push, 4)
struct gencfg_peerinfo_t {
  uint16_t peer_type;
  uint16_t mask_kind;   // 1 peer groups of 8, 16 single peers
  uint32_t peer_mask[9];
};
static_assert(sizeof(gencfg_peerinfo_t) == 40);
struct gencfg_depinfo_t {
  uint16_t dep_major;
  uint16_t dep_minor;
  uint32_t dep_flags;
  uint8_t dep_key[16];
};
static_assert(sizeof(gencfg_depinfo_t) == 24);
#pragma pack(pop)

struct rts_gencfg_msg {
  rts_msg_hdr hdr;
  uint16_t major;
  uint16_t minor;
  uint16_t peer_type;
  uint32_t gencfg_flags;
  uint8_t *blob_key;
  uint32_t blob_key_len;
  uint8_t *blob;
  uint32_t blob_len;
  gencfg_peerinfo_t *gencfg_peers;
  uint8_t gencfg_peer_count;
  gencfg_depinfo_t *gencfg_deps;
  uint8_t gencfg_dep_count;
  uint8_t proto;
};

// ---- Raw records ----------------------------------------------------------------
// Types without a codec travel as records copied as they stand, behind a
// 28-byte header whose first word is 0 and whose third word is the length.
#pragma pack(push, 4)
struct rts_raw_hdr {
  uint32_t word0;  // 0
  uint8_t version;
  uint8_t type;
  uint8_t operation;
  uint8_t aux;
  uint32_t length;
  uint32_t seq;
  uint32_t sender;
  uint16_t size;
  uint8_t aux2;
  uint8_t aux3;
  uint32_t error;  // the answer's errno, 0 in a request
};
static_assert(sizeof(rts_raw_hdr) == 28);
static_assert(offsetof(rts_raw_hdr, length) == 8);

// ---- Interface statistics, types 15 (device) and 16 (logical) ------------------
// Raw records, version 99 and 100. A request is the fixed part alone, with
// the index; the answer is the fixed part, then from ifsm_var_off:
//   the name (ifsm_name_len bytes with its NUL), padded to 4;
//   the current section: ifsm_cur_count 64-bit counters (slots below), padded to 4;
//   the baseline section: ifsm_base_count counters, their values at the last
//     clear (none when the interface was never cleared), padded to 4;
//   TLVs up to hdr.length: u16 type, u16 length of the value, the value, the
//     next TLV at the value's start + ((length + 3) & ~3); a length of 0 ends them.
// Counters and 64-bit values sit on 4-byte boundaries: read them with memcpy.
// rts_ifstats.h finds and builds these parts.
struct rts_ifstats_msg {
  rts_raw_hdr hdr;          // 0x00
  uint16_t ifsm_var_off;    // 0x1C: where the variable data starts, from the record's start
  uint8_t ifsm_flags;       // 0x1E: RTS_IFSM_*
  uint8_t ifsm_name_len;    // 0x1F
  uint8_t ifsm_cur_count;   // 0x20: counters in the current section
  uint8_t ifsm_base_count;  // 0x21: counters in the baseline section
  uint8_t ifsm_media;       // 0x22: the interface's media type (RTS_MEDIA_*)
  uint8_t ifsm_reserved;
  uint32_t ifsm_index;      // 0x24: device or logical index
  uint16_t ifsm_link_type;  // 0x28
  uint16_t ifsm_reserved2;
  uint64_t ifsm_ibps;       // 0x2C: rates, bits and packets per second
  uint64_t ifsm_ipps;
  uint64_t ifsm_obps;
  uint64_t ifsm_opps;
  uint64_t ifsm_clear_time; // 0x4C: seconds since the epoch of the last clear, 0 never
};
static_assert(sizeof(rts_ifstats_msg) == 84);
static_assert(offsetof(rts_ifstats_msg, ifsm_name_len) == 0x1F);
static_assert(offsetof(rts_ifstats_msg, ifsm_cur_count) == 0x20);
static_assert(offsetof(rts_ifstats_msg, ifsm_base_count) == 0x21);

enum : uint8_t {
  RTS_IFSM_UP = 0x1,        // administratively up
  RTS_IFSM_LINK = 0x2,      // link up
  RTS_IFSM_CLEARED = 0x4,   // the baseline section holds a clear
};

// Media types that tell Ethernet-like interfaces (with a link type other than
// RTS_LINK_TYPE_NOT_ETHER): 11 to 14, 23, 31, 63, 86, 88.
enum : uint8_t { RTS_MEDIA_ETHER = 11, RTS_MEDIA_LOOPBACK = 24, RTS_MEDIA_TUNNEL = 70 };
constexpr uint16_t RTS_LINK_TYPE_NOT_ETHER = 0xD1;

// Slots of the current and baseline sections. A device fills traffic and
// errors; a logical interface fills traffic (locally terminated) and transit.
enum rts_ifsm_slot : uint8_t {
  RTS_IFSC_IBYTES, RTS_IFSC_IPACKETS, RTS_IFSC_IUCAST, RTS_IFSC_IMCAST, RTS_IFSC_IBCAST,
  RTS_IFSC_OBYTES, RTS_IFSC_OPACKETS, RTS_IFSC_OUCAST, RTS_IFSC_OMCAST, RTS_IFSC_OBCAST,
  RTS_IFSC_I6BYTES, RTS_IFSC_I6PACKETS, RTS_IFSC_O6BYTES, RTS_IFSC_O6PACKETS,
  RTS_IFSC_IERRORS, RTS_IFSC_IDROPS, RTS_IFSC_IFRAMING, RTS_IFSC_IRUNTS, RTS_IFSC_IGIANTS,
  RTS_IFSC_IDISCARDS, RTS_IFSC_IRESOURCE, RTS_IFSC_OERRORS, RTS_IFSC_ODROPS,
  RTS_IFSC_OCOLLISIONS, RTS_IFSC_OAGED, RTS_IFSC_OMTU, RTS_IFSC_CARRIER,
  // transit traffic of a logical interface, the same ten as the first
  RTS_IFSC_TIBYTES, RTS_IFSC_TIPACKETS, RTS_IFSC_TIUCAST, RTS_IFSC_TIMCAST, RTS_IFSC_TIBCAST,
  RTS_IFSC_TOBYTES, RTS_IFSC_TOPACKETS, RTS_IFSC_TOUCAST, RTS_IFSC_TOMCAST, RTS_IFSC_TOBCAST,
  RTS_IFSC_COUNT
};
// The slot names ("ibytes", ... "tobcast"), as the peer's state file uses them.
extern const char *const rts_ifsm_slot_names[RTS_IFSC_COUNT];

// TLV types of the statistics message, below RTS_IFST_COUNT (487).
constexpr uint32_t RTS_IFST_COUNT = 0x1E7;
enum : uint16_t {
  RTS_IFST_QUEUE = 0x20,       // per-queue counters: rts_ifst_queues, then the queues
  RTS_IFST_QUEUE_BASE = 0x21,  // the same at the last clear
  RTS_IFST_VOQ = 0x22,         // virtual output queues, in the same form
  RTS_IFST_VOQ_BASE = 0x23,
  RTS_IFST_ETHER_MAC = 0x41,   // rts_ifst_ether_mac, counters since the link came up
  RTS_IFST_ETHER_LINK = 0x42,  // rts_ifst_ether_link
};
constexpr uint32_t RTS_IFST_COLORS = 4;  // drop colors of a queue
struct rts_ifst_queues {
  uint32_t n_queues;
};
struct rts_ifst_queue {
  uint64_t queued_packets;
  uint64_t queued_bytes;
  uint64_t tx_packets;
  uint64_t tx_bytes;
  uint64_t tail_drop_packets;
  uint64_t red_drop_packets[RTS_IFST_COLORS];
  uint64_t red_drop_bytes[RTS_IFST_COLORS];
};
static_assert(sizeof(rts_ifst_queue) == 104);
struct rts_ifst_ether_mac {
  uint64_t in_octets, in_frames, in_ucast, in_mcast, in_bcast;
  uint64_t in_crc_errors, in_align_errors, in_fragments, in_jabbers, in_oversized,
      in_undersized, in_pause;
  uint64_t out_octets, out_frames, out_ucast, out_mcast, out_bcast, out_pause;
};
static_assert(sizeof(rts_ifst_ether_mac) == 144);
struct rts_ifst_ether_link {
  uint64_t speed;         // bits per second
  uint32_t mtu;
  uint8_t duplex;         // 0 unknown, 1 half, 2 full
  uint8_t autoneg;        // 0 off, 1 on, 2 complete
  uint8_t flow_control;   // bit 0 receive, bit 1 transmit
  uint8_t loopback;
  uint8_t mac[6];
  uint16_t reserved;
};
static_assert(sizeof(rts_ifst_ether_link) == 24);
#pragma pack(pop)

}  // extern "C"
