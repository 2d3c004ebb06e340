// The wire layout: one table of fields per structure, the tags and the order
// that both encodings follow. The route-socket peer links this same table,
// and golden-byte tests pin it.
#include <cstring>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_lower.h"

namespace {

constexpr uint8_t int_kind(size_t width) {
  return width == 1 ? RK_U8 : width == 2 ? RK_U16 : width == 4 ? RK_U32 : RK_U64;
}

#define F_INT(R, m, tag) \
  rts_field { #m, tag, int_kind(sizeof(R::m)), 0, sizeof(R::m), offsetof(R, m), 0, 0, 0, nullptr }
#define F_FIXED(R, m, tag) \
  rts_field { #m, tag, RK_FIXED, 0, sizeof(R::m), offsetof(R, m), 0, 0, 0, nullptr }
#define F_BLOB(R, m, len, tag) \
  rts_field { #m, tag, RK_BLOB, 0, 0, offsetof(R, m), offsetof(R, len), 0, 0, nullptr }
#define F_PREFIX(R, m, bits, tag) \
  rts_field { #m, tag, RK_PREFIX, 0, 0, offsetof(R, m), offsetof(R, bits), 0, 0, nullptr }
#define F_NESTED(R, m, S, tag) \
  rts_field { #m, tag, RK_NESTED, 0, 0, offsetof(R, m), 0, 0, 0, &S }
#define F_ERRORS(R, m, count, tag) \
  rts_field { #m, tag, RK_ERRORS, 0, sizeof(rts_err_rec), offsetof(R, m), offsetof(R, count), 0, 0, nullptr }
#define F_ARRAY(R, m, count, tag)                                                                 \
  rts_field {                                                                                     \
    #m, tag, RK_ARRAY, sizeof(R::count), sizeof(*R::m), offsetof(R, m), offsetof(R, count), 0, 0, \
        nullptr                                                                                   \
  }
#define F_ATTRS(R, m, len, set, tag) \
  rts_field { #m, tag, RK_ATTRS, 0, 0, offsetof(R, m), offsetof(R, len), offsetof(R, set), 0, nullptr }

// A prefix keeps its padded length right behind its length in bits.
#define PREFIX_PAIR(R, bits, plen) static_assert(offsetof(R, plen) == offsetof(R, bits) + 2)
PREFIX_PAIR(rts_rt_msg, rtm_prefix_bits, rtm_prefix_plen);
PREFIX_PAIR(rts_rtmatch_msg, rtmm_prefix_bits, rtmm_prefix_plen);
PREFIX_PAIR(rts_nh_msg, nhm_gw_bits, nhm_gw_plen);
PREFIX_PAIR(rts_ifa_msg, ifam_local_bits, ifam_local_plen);
PREFIX_PAIR(rts_ifa_msg, ifam_dest_bits, ifam_dest_plen);
PREFIX_PAIR(rts_ifa_msg, ifam_bcast_bits, ifam_bcast_plen);

template <size_t N>
constexpr std::array<rts_field, N> with_masks(std::array<rts_field, N> f) {
  uint16_t off = 8;
  for (auto &x : f)
    if (x.rf_kind == RK_NESTED) {
      x.rf_mask_off = off;
      off += x.rf_nested->rs_mask_size;
    }
  return f;
}

template <size_t N>
constexpr rts_struct make(const char *name, const std::array<rts_field, N> &f, size_t record) {
  static_assert(N <= 64, "one mask word per structure");
  rts_struct s{};
  s.rs_name = name;
  s.rs_fields = f.data();
  s.rs_count = N;
  s.rs_record = static_cast<uint16_t>(record);
  s.rs_mask_size = 8;
  for (size_t i = 0; i < N; i++) {
    if (f[i].rf_kind == RK_NESTED) s.rs_mask_size += f[i].rf_nested->rs_mask_size;
    if (f[i].rf_tag == 0 || f[i].rf_tag > RTS_MAX_TAG || s.rs_by_tag[f[i].rf_tag])
      throw "bad or repeated tag";  // not a constant expression: stops the build
    s.rs_by_tag[f[i].rf_tag] = static_cast<uint8_t>(i + 1);
  }
  return s;
}

// ---- Common header -------------------------------------------------------------
using H = rts_msg_hdr;
constexpr auto kHdr = with_masks(std::array{
    F_INT(H, word0, 1), F_INT(H, version, 2), F_INT(H, type, 3), F_INT(H, operation, 4),
    F_INT(H, aux, 5), F_INT(H, length, 6), F_INT(H, seq, 7), F_INT(H, sender, 8),
    F_INT(H, size, 9), F_INT(H, aux2, 12), F_INT(H, aux3, 10),
    F_ERRORS(H, errors, error_count, 11)});

// ---- Bridge domain --------------------------------------------------------------
using V = rts_bd_vlan;
// Tag 1 holds vlan and vlan_inner, tag 2 vlan_lo and vlan_hi: two 16-bit values each.
constexpr auto kVlan = std::array{
    rts_field{"vlan", 1, RK_FIXED, 0, 4, offsetof(V, vlan), 0, 0, 0, nullptr},
    rts_field{"vlan_range", 2, RK_FIXED, 0, 4, offsetof(V, vlan_lo), 0, 0, 0, nullptr}};
static_assert(offsetof(V, vlan_inner) == offsetof(V, vlan) + 2);
static_assert(offsetof(V, vlan_hi) == offsetof(V, vlan_lo) + 2);

using MC = rts_bd_mac_cfg;
constexpr auto kMacCfg = std::array{F_INT(MC, mac_limit, 1), F_INT(MC, mac_age, 2),
                                    F_INT(MC, mac_flags, 3)};
}  // namespace

extern "C" {
constexpr rts_struct rts_hdr_struct = make("rts_msg_hdr", kHdr, sizeof(rts_msg_hdr));
}
namespace {
constexpr rts_struct kVlanStruct = make("rts_bd_vlan", kVlan, sizeof(rts_bd_vlan));
constexpr rts_struct kMacStruct = make("rts_bd_mac_cfg", kMacCfg, sizeof(rts_bd_mac_cfg));

using B = rts_bd_msg;
constexpr auto kBd = with_masks(std::array{
    F_NESTED(B, hdr, rts_hdr_struct, 1),  F_INT(B, bdm_reserved, 2),
    F_INT(B, bdm_index, 3),               F_INT(B, rtb_id, 4),
    F_BLOB(B, bdm_name, bdm_name_len, 5), F_BLOB(B, bdm_blob, bdm_blob_len, 6),
    F_NESTED(B, vlan, kVlanStruct, 7),    F_INT(B, bdm_vlan_flags, 8),
    F_NESTED(B, bdm_mac, kMacStruct, 9),  F_INT(B, bdm_irb_ifl, 10),
    F_INT(B, bdm_flags, 11),              F_INT(B, cfg_flags, 12),
    F_INT(B, bdm_reserved2, 13),          F_INT(B, bdm_vlan_token, 14),
    F_INT(B, vnid, 15),                   F_INT(B, bdm_mcast_group, 16),
    F_INT(B, bdm_vtep_src_ifl, 17),       F_FIXED(B, bdm_vtep_src, 18),
    F_INT(B, bdm_udp_port, 19),           F_INT(B, bdm_encap, 20),
    F_INT(B, bdm_domain_type, 21),        F_INT(B, bdm_mtu, 22),
    F_INT(B, bdm_isid, 23),               F_INT(B, bdm_mac_table_size, 24),
    F_INT(B, bdm_rd, 25),                 F_INT(B, bdm_rt_import, 26),
    F_INT(B, bdm_rt_export, 27),          F_FIXED(B, bdm_esi, 28),
    F_INT(B, bdm_decap_vlan, 29),         F_INT(B, bdm_mesh_group, 30),
    F_INT(B, bdm_stats_id, 31),           F_INT(B, bdm_generation, 32),
    F_INT(B, bdm_arp_suppress, 33),       F_INT(B, bdm_ingress_repl, 34),
    F_INT(B, bdm_ovsdb_flags, 35),        F_INT(B, bdm_ifl_count, 36)});

// ---- Routes ------------------------------------------------------------------------
using R = rts_rt_msg;
constexpr auto kRt = with_masks(std::array{
    F_NESTED(R, hdr, rts_hdr_struct, 1), F_INT(R, rtm_table, 2), F_INT(R, rtm_af, 3),
    F_INT(R, rtm_type, 4), F_INT(R, rtm_flags, 5), F_INT(R, rtm_nh_index, 6),
    F_INT(R, rtm_proto, 7), F_PREFIX(R, rtm_prefix, rtm_prefix_bits, 8),
    F_INT(R, rtm_ifl_index, 9), F_INT(R, rtm_metric, 10),
    F_ATTRS(R, rtm_attrs, rtm_attrs_len, rtm_attr_set, 11)});

using N = rts_nh_msg;
constexpr auto kNh = with_masks(std::array{
    F_NESTED(N, hdr, rts_hdr_struct, 1), F_INT(N, nhm_index, 2), F_INT(N, nhm_af, 3),
    F_INT(N, nhm_type, 4), F_INT(N, nhm_flags, 5), F_INT(N, nhm_ifl_index, 6),
    F_PREFIX(N, nhm_gw, nhm_gw_bits, 7), F_INT(N, nhm_refcount, 8),
    F_ATTRS(N, nhm_attrs, nhm_attrs_len, nhm_attr_set, 9)});

using RM = rts_rtmatch_msg;
constexpr auto kRtMatch = with_masks(std::array{
    F_NESTED(RM, hdr, rts_hdr_struct, 1), F_INT(RM, rtmm_table, 2), F_INT(RM, rtmm_af, 3),
    F_INT(RM, rtmm_type, 4), F_PREFIX(RM, rtmm_prefix, rtmm_prefix_bits, 5),
    F_INT(RM, rtmm_match_bits, 6), F_INT(RM, rtmm_nh_index, 7), F_INT(RM, rtmm_flags, 8)});

using T = rts_rtb_msg;
constexpr auto kRtb = with_masks(std::array{
    F_NESTED(T, hdr, rts_hdr_struct, 1), F_INT(T, rtbm_index, 2), F_INT(T, rtbm_af, 3),
    F_INT(T, rtbm_type, 4), F_INT(T, rtbm_flags, 5), F_BLOB(T, rtbm_name, rtbm_name_len, 6),
    F_INT(T, rtbm_parent, 7), F_INT(T, rtbm_route_count, 8), F_INT(T, rtbm_attr, 9)});

// ---- Interfaces ----------------------------------------------------------------------
using MA = rts_ifd_mcae;
constexpr auto kMcae = std::array{F_INT(MA, rg_id, 1), F_INT(MA, mcae_id, 2), F_INT(MA, mode, 3),
                                  F_INT(MA, status, 4), F_INT(MA, local_port_id, 5),
                                  F_INT(MA, chassis_id, 6)};
using EP = rts_ifd_ep;
constexpr auto kEp = std::array{F_INT(EP, flags, 1), F_INT(EP, lacp_mode, 2), F_INT(EP, lacp_period, 3),
                                F_INT(EP, system_priority, 4)};
using FW = rts_ifd_fw;
constexpr auto kFw = std::array{F_INT(FW, input, 1), F_INT(FW, output, 2)};
using VT = rts_ifl_vtep;
constexpr auto kVtep = std::array{F_INT(VT, flags, 1), F_INT(VT, udp_port, 2), F_FIXED(VT, src, 3)};
constexpr rts_struct kMcaeStruct = make("rts_ifd_mcae", kMcae, sizeof(rts_ifd_mcae));
constexpr rts_struct kEpStruct = make("rts_ifd_ep", kEp, sizeof(rts_ifd_ep));
constexpr rts_struct kFwStruct = make("rts_ifd_fw", kFw, sizeof(rts_ifd_fw));
constexpr rts_struct kVtepStruct = make("rts_ifl_vtep", kVtep, sizeof(rts_ifl_vtep));

using D = rts_ifd_msg;
constexpr auto kIfd = with_masks(std::array{
    F_NESTED(D, hdr, rts_hdr_struct, 1), F_INT(D, ifdm_index, 2),
    F_BLOB(D, ifdm_name, ifdm_name_len, 3), F_INT(D, ifdm_snmp_index, 4),
    F_INT(D, ifdm_flags, 5), F_INT(D, ifdm_devflags, 6), F_INT(D, ifdm_porttype, 7),
    F_INT(D, ifdm_mtu, 8), F_INT(D, ifdm_speed, 9), F_FIXED(D, ifdm_mac, 10),
    F_INT(D, ifdm_agg_parentidx, 11), F_INT(D, ifdm_ifh_parentidx, 12), F_INT(D, ifdm_state, 13),
    F_INT(D, ifdm_duplex, 14), F_INT(D, ifdm_autoneg, 15), F_NESTED(D, ifdm_mcae, kMcaeStruct, 16),
    F_NESTED(D, ifdm_ep, kEpStruct, 17), F_NESTED(D, ifdm_fw, kFwStruct, 18)});

using L = rts_ifl_msg;
constexpr auto kIfl = with_masks(std::array{
    F_NESTED(L, hdr, rts_hdr_struct, 1), F_INT(L, iflm_ifd_index, 2), F_INT(L, iflm_index, 3),
    F_INT(L, iflm_unit, 4), F_BLOB(L, iflm_name, iflm_name_len, 5),
    F_INT(L, iflm_snmp_index, 6), F_INT(L, iflm_flags, 7), F_INT(L, iflm_rtb_id, 8),
    F_INT(L, iflm_encaps, 9), F_INT(L, iflm_vlan, 10), F_INT(L, iflm_bandwidth, 11),
    F_INT(L, iflm_agg_index, 12), F_INT(L, iflm_df_role, 13), F_INT(L, iflm_bw_weight, 14),
    F_NESTED(L, iflm_vtep, kVtepStruct, 15)});

using F = rts_iff_msg;
constexpr auto kIff = with_masks(std::array{
    F_NESTED(F, hdr, rts_hdr_struct, 1), F_INT(F, iffm_ifl_index, 2), F_INT(F, iffm_af, 3),
    F_INT(F, iffm_flags, 4), F_INT(F, iffm_mtu, 5), F_BLOB(F, iffm_name, iffm_name_len, 6),
    F_INT(F, iffm_max_mtu, 7), F_INT(F, iffm_features, 8)});

using A = rts_ifa_msg;
constexpr auto kIfa = with_masks(std::array{
    F_NESTED(A, hdr, rts_hdr_struct, 1), F_INT(A, ifam_ifl_index, 2), F_INT(A, ifam_af, 3),
    F_INT(A, ifam_flags, 4), F_PREFIX(A, ifam_local, ifam_local_bits, 5),
    F_PREFIX(A, ifam_dest, ifam_dest_bits, 6), F_PREFIX(A, ifam_bcast, ifam_bcast_bits, 7)});

// ---- Generic configuration --------------------------------------------------------------
using G = rts_gencfg_msg;
constexpr auto kGencfg = with_masks(std::array{
    F_NESTED(G, hdr, rts_hdr_struct, 1), F_INT(G, major, 2), F_INT(G, minor, 3),
    F_INT(G, peer_type, 4), F_INT(G, gencfg_flags, 5), F_BLOB(G, blob_key, blob_key_len, 6),
    F_BLOB(G, blob, blob_len, 7), F_ARRAY(G, gencfg_peers, gencfg_peer_count, 8),
    F_ARRAY(G, gencfg_deps, gencfg_dep_count, 9), F_INT(G, proto, 10)});
}  // namespace

extern "C" {
constexpr rts_struct rts_bd_struct = make("rts_bd_msg", kBd, sizeof(rts_bd_msg));
constexpr rts_struct rts_rt_struct = make("rts_rt_msg", kRt, sizeof(rts_rt_msg));
constexpr rts_struct rts_nh_struct = make("rts_nh_msg", kNh, sizeof(rts_nh_msg));
constexpr rts_struct rts_rtmatch_struct = make("rts_rtmatch_msg", kRtMatch, sizeof(rts_rtmatch_msg));
constexpr rts_struct rts_rtb_struct = make("rts_rtb_msg", kRtb, sizeof(rts_rtb_msg));
constexpr rts_struct rts_ifd_struct = make("rts_ifd_msg", kIfd, sizeof(rts_ifd_msg));
constexpr rts_struct rts_ifl_struct = make("rts_ifl_msg", kIfl, sizeof(rts_ifl_msg));
constexpr rts_struct rts_iff_struct = make("rts_iff_msg", kIff, sizeof(rts_iff_msg));
constexpr rts_struct rts_ifa_struct = make("rts_ifa_msg", kIfa, sizeof(rts_ifa_msg));
constexpr rts_struct rts_gencfg_struct = make("rts_gencfg_msg", kGencfg, sizeof(rts_gencfg_msg));

// Names by number, the version this library expects, the platform's record size.
const rts_type_info rts_type_table[RTS_TYPE_COUNT] = {
    {"nop", 0, 32}, {"rttable", 98, 200}, {"route", 104, 240}, {"redirect", 104, 0},
    {"rtstats", 101, 0}, {"ifdev", 106, 164}, {"iflogical", 107, 204}, {"iffamily", 102, 296},
    {"ifaddr", 101, 156}, {"ifstats", 0, 0}, {"nexthop", 109, 732}, {"resolve", 99, 64},
    {"rtmatch", 99, 52}, {"mgroup", 99, 60}, {"firewall", 100, 76}, {"ifdstats", 99, 84},
    {"iflstats", 100, 84}, {"ifdadd", 99, 0}, {"ifdest", 99, 80}, {"ifmismatch", 101, 64},
    {"ifdalarm", 101, 0}, {"nhopstats", 101, 224}, {"dfwstats", 101, 0}, {"firewall log", 101, 0},
    {"pfe info", 99, 0}, {"pfe stats", 100, 0}, {"rtsock stats", 99, 0}, {"ifvc", 113, 260},
    {"rt class", 99, 72}, {"rt class stats", 100, 0}, {"iftable", 98, 0}, {"cos info", 98, 0},
    {"cos fabric", 98, 0}, {"cos fqstats", 99, 48}, {"cos class", 98, 0}, {"cos policy", 99, 0},
    {"cos red", 98, 0}, {"cos rewrt", 99, 0}, {"cos policer", 98, 0}, {"cos shaper", 98, 0},
    {"sampling", 99, 372}, {"sa info", 99, 0}, {"pkcs info", 99, 0}, {"monitoring", 101, 0},
    {"mon stats", 99, 0}, {"pk-crypto-sys reply", 99, 0}, {"ifvp", 100, 256}, {"ifstate", 99, 0},
    {"sysconf", 99, 124}, {"commit", 99, 3376}, {"mac_db", 99, 0}, {"mac_stats", 101, 0},
    {"sadb_stats", 101, 0}, {"asp config", 102, 0}, {"asp ipsec", 99, 0}, {"cos_fc_q", 98, 0},
    {"l2tp config", 105, 0}, {"l2tp async", 100, 0}, {"cpic params", 101, 0},
    {"cpic file spec", 100, 0}, {"cpic iif_cp_map", 100, 0}, {"cpic iif_fspec_map", 100, 0},
    {"cpic dst_unavail", 100, 0}, {"cpic file_fail", 100, 0}, {"cpic ovload", 100, 0},
    {"cpic mem_ovload", 100, 0}, {"cpic stats", 100, 0}, {"cpic file_stats", 100, 0},
    {"pic", 100, 80}, {"ksync", 100, 112}, {"iff vpls_stats", 100, 0}, {"cos fragmap", 98, 0},
    {"gencfg", 105, 108}, {"flow_aggr_hist", 101, 0}, {"flow_aggr_inst", 101, 0},
    {"flow_aggr_flt", 101, 0}, {"flow_aggr_flt_fst", 101, 0}, {"flow_aggr_cfg", 101, 0},
    {"flow_aggr_stats", 99, 0}, {"async opaque", 98, 0}, {"zsr", 99, 0}, {"pfe dwn map", 98, 132},
    {"stp", 98, 100}, {"NH-comp", 99, 92}, {"vlan", 98, 164}, {"ifsclinfo", 98, 0},
    {"gencfg-stats", 105, 0}, {"mesh-group", 98, 72}, {"analyzer", 98, 136},
    {"bridge-domain", 98, 200}, {"ifbdmesg", 99, 152}, {"ksdb", 0, 0}, {"bulkstats", 0, 0},
    {"fabric mc group", 98, 68}, {"fc fabric", 98, 76}, {"voq stats", 98, 68},
    {"pkt inject", 98, 52}, {"ddos", 99, 152}, {"notify msg", 98, 44}, {"kuack messages", 99, 0},
    {"residx", 98, 0}, {"sysstats", 98, 272}, {"marker", 99, 60}, {"macsec", 99, 0},
    {"mac-pinning", 0, 0}, {"libcos-fcinfo", 0, 192}, {"libcos-misc-info", 0, 52},
    {"libcos-intf-info", 0, 1496}, {"rr-aspath", 0, 108}, {"rts-err", 0, 0}, {"unknown", 0, 0},
};
}  // extern "C"

const rts_struct *rts_type_struct(uint32_t type) {
  switch (type) {
    case RTS_T_NOP: return &rts_hdr_struct;
    case RTS_T_RTTABLE: return &rts_rtb_struct;
    case RTS_T_ROUTE: return &rts_rt_struct;
    case RTS_T_IFDEV: return &rts_ifd_struct;
    case RTS_T_IFLOGICAL: return &rts_ifl_struct;
    case RTS_T_IFFAMILY: return &rts_iff_struct;
    case RTS_T_IFADDR: return &rts_ifa_struct;
    case RTS_T_NEXTHOP: return &rts_nh_struct;
    case RTS_T_RTMATCH: return &rts_rtmatch_struct;
    case RTS_T_GENCFG: return &rts_gencfg_struct;
    case RTS_T_BRIDGE_DOMAIN: return &rts_bd_struct;
    default: return nullptr;
  }
}

const rts_field *rts_field_by_tag(const rts_struct *s, unsigned tag) {
  if (tag > RTS_MAX_TAG || !s->rs_by_tag[tag]) return nullptr;
  return &s->rs_fields[s->rs_by_tag[tag] - 1];
}

const rts_field *rts_field_by_name(const rts_struct *s, const char *name) {
  for (unsigned i = 0; i < s->rs_count; i++)
    if (strcmp(s->rs_fields[i].rf_name, name) == 0) return &s->rs_fields[i];
  return nullptr;
}

const char *rts_op_name(unsigned op) {
  static const char *const names[] = {"none",   "add",   "change",     "delete",  "get",
                                      "getnext", "clear", "delete-all", "add-get", "change-get"};
  return op < sizeof(names) / sizeof(names[0]) ? names[op] : "unknown";
}

// Listen-mask bits by type (rts_lower.h).
bool rts_listen_bit(uint32_t type, uint32_t *word, uint32_t *bit) {
  struct Bit {
    uint32_t type, word, bit;
  };
  static constexpr Bit kBits[] = {
      {RTS_T_ROUTE, 0, 0x1},       {RTS_T_IFDEV, 0, 0x2},   {RTS_T_IFLOGICAL, 0, 0x4},
      {RTS_T_IFFAMILY, 0, 0x10},   {RTS_T_IFADDR, 0, 0x20}, {RTS_T_RTTABLE, 0, 0x2000},
      {RTS_T_GENCFG, 1, 0x100},    {RTS_T_BRIDGE_DOMAIN, 1, 0x1000},
  };
  for (const Bit &b : kBits)
    if (b.type == type) {
      *word = b.word;
      *bit = b.bit;
      return true;
    }
  return false;
}
