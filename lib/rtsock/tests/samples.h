// Filled records of every type with a codec, and a bump arena to decode into.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "rtsock/rts_codec.h"

namespace samples {

// A bump allocator over one buffer, as the library decodes replies; 8-byte
// steps, since records hold pointers.
struct Arena {
  std::vector<uint8_t> mem;
  size_t used = 0;
  explicit Arena(size_t size = 1 << 16) : mem(size) {}
  static void *alloc(void *ctx, size_t n) {
    auto *a = static_cast<Arena *>(ctx);
    n = (n + 7) & ~size_t{7};
    if (a->used + n > a->mem.size()) return nullptr;
    void *p = a->mem.data() + a->used;
    a->used += n;
    return p;
  }
};

// Storage that outlives the records built here.
struct Store {
  std::vector<std::unique_ptr<uint8_t[]>> keep;
  template <class T>
  T *bytes(const void *src, size_t n) {
    keep.emplace_back(new uint8_t[n]);
    memcpy(keep.back().get(), src, n);
    return reinterpret_cast<T *>(keep.back().get());
  }
};

inline void header(rts_msg_hdr &h, uint8_t type, uint8_t op) {
  h.word0 = 0x11223344;
  h.version = rts_type_table[type].version;
  h.type = type;
  h.operation = op;
  h.aux = 5;
  h.length = 0x1000;
  h.seq = 77;
  h.sender = 131;
  h.size = rts_type_table[type].size;
  h.aux2 = 6;
  h.aux3 = 7;
}

inline rts_bd_msg bd(Store &s) {
  rts_bd_msg m{};
  header(m.hdr, RTS_T_BRIDGE_DOMAIN, RTS_OP_ADD);
  m.bdm_reserved = 0x0102030405060708ull;
  m.bdm_index = 5;
  m.rtb_id = 7;
  m.bdm_name = s.bytes<char>("bd-five", 8);
  m.bdm_name_len = 8;
  m.bdm_blob = s.bytes<uint8_t>("\x01\x02\x03", 3);
  m.bdm_blob_len = 3;
  m.vlan = {10, 11, 100, 200};
  m.bdm_vlan_flags = 0x3;
  m.bdm_mac = {1000, 300, 0x11};
  m.bdm_irb_ifl = 70;
  m.bdm_flags = 0x21;
  m.cfg_flags = RTS_BD_CFG_VXLAN | 0x100000000ull;
  m.bdm_vlan_token = 0xabcd;
  m.vnid = 100;
  m.bdm_mcast_group = 0xe0000001;
  m.bdm_vtep_src_ifl = 12;
  for (int i = 0; i < 16; i++) m.bdm_vtep_src[i] = static_cast<uint8_t>(i);
  m.bdm_udp_port = 4789;
  m.bdm_encap = 2;
  m.bdm_domain_type = 1;
  m.bdm_mtu = 1500;
  m.bdm_isid = 9;
  m.bdm_mac_table_size = 4096;
  m.bdm_rd = 0x0001000200030004ull;
  m.bdm_rt_import = 0x10;
  m.bdm_rt_export = 0x20;
  for (int i = 0; i < 10; i++) m.bdm_esi[i] = static_cast<uint8_t>(0xe0 + i);
  m.bdm_decap_vlan = 44;
  m.bdm_mesh_group = 3;
  m.bdm_stats_id = 99;
  m.bdm_generation = 4;
  m.bdm_arp_suppress = 1;
  m.bdm_ingress_repl = 1;
  m.bdm_ovsdb_flags = 0x8;
  m.bdm_ifl_count = 2;
  return m;
}

inline rts_rt_msg route(Store &s) {
  rts_rt_msg m{};
  header(m.hdr, RTS_T_ROUTE, RTS_OP_GET);
  m.rtm_table = 7;
  m.rtm_af = RTS_AF_BRIDGE;
  m.rtm_type = 2;
  m.rtm_flags = 0x40;
  m.rtm_nh_index = 1234;
  m.rtm_proto = 9;
  const uint8_t key[12] = {0, 5, 0, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0};
  m.rtm_prefix = s.bytes<uint8_t>(key, 12);
  m.rtm_prefix_bits = 80;
  m.rtm_prefix_plen = 12;
  m.rtm_ifl_index = 70;
  m.rtm_metric = 10;
  // Attribute list: array type 1 (two words), value type 4 (4 bytes).
  const uint8_t attrs[] = {1, 0, 12, 0, 1, 0, 0, 0, 2, 0, 0, 0, 4, 0, 8, 0, 9, 0, 0, 0};
  m.rtm_attrs = s.bytes<uint8_t>(attrs, sizeof attrs);
  m.rtm_attrs_len = sizeof attrs;
  return m;
}

inline rts_nh_msg nh(Store &s) {
  rts_nh_msg m{};
  header(m.hdr, RTS_T_NEXTHOP, RTS_OP_GET);
  m.nhm_index = 1234;
  m.nhm_af = RTS_AF_INET;
  m.nhm_type = 1;
  m.nhm_flags = 0x21;
  m.nhm_ifl_index = 70;
  m.nhm_gw = s.bytes<uint8_t>("\xc0\xa8\x01\x02", 4);
  m.nhm_gw_bits = 32;
  m.nhm_gw_plen = 4;
  m.nhm_refcount = 3;
  const uint8_t attrs[] = {4, 0, 8, 0, 7, 0, 0, 0};  // a value, type 4
  m.nhm_attrs = s.bytes<uint8_t>(attrs, sizeof attrs);
  m.nhm_attrs_len = sizeof attrs;
  return m;
}

inline rts_rtmatch_msg rtmatch(Store &s) {
  rts_rtmatch_msg m{};
  header(m.hdr, RTS_T_RTMATCH, RTS_OP_GET);
  m.rtmm_table = 0;
  m.rtmm_af = RTS_AF_INET;
  m.rtmm_type = 2;
  m.rtmm_prefix = s.bytes<uint8_t>("\x0a\x01\x02\x03", 4);
  m.rtmm_prefix_bits = 32;
  m.rtmm_prefix_plen = 4;
  m.rtmm_match_bits = 8;
  m.rtmm_nh_index = 55;
  m.rtmm_flags = 1;
  return m;
}

inline rts_rtb_msg rtb(Store &s) {
  rts_rtb_msg m{};
  header(m.hdr, RTS_T_RTTABLE, RTS_OP_GET);
  m.rtbm_index = 7;
  m.rtbm_af = RTS_AF_BRIDGE;
  m.rtbm_type = 3;
  m.rtbm_flags = 0x2;
  m.rtbm_name = s.bytes<char>("vs1.bridge", 11);
  m.rtbm_name_len = 11;
  m.rtbm_parent = 0;
  m.rtbm_route_count = 12;
  m.rtbm_attr = 0x21;
  return m;
}

inline rts_ifd_msg ifd(Store &s) {
  rts_ifd_msg m{};
  header(m.hdr, RTS_T_IFDEV, RTS_OP_GET);
  m.ifdm_index = 1;
  m.ifdm_name = s.bytes<char>("lo0", 4);
  m.ifdm_name_len = 4;
  m.ifdm_snmp_index = 16;
  m.ifdm_flags = 0x8001;
  m.ifdm_devflags = 0x2;
  m.ifdm_porttype = 24;
  m.ifdm_mtu = 65535;
  m.ifdm_speed = 10000000000ull;
  const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 1};
  memcpy(m.ifdm_mac, mac, 6);
  m.ifdm_agg_parentidx = 0;
  m.ifdm_ifh_parentidx = 3;
  m.ifdm_state = RTS_IFD_STATE_LINKDOWN;
  m.ifdm_duplex = 2;
  m.ifdm_autoneg = 1;
  m.ifdm_mcae = {5, 9, 1, 2, 0x0102, 1};
  m.ifdm_ep = {RTS_IFD_EP_FLOW_CONTROL, 2, 1, 127};
  m.ifdm_fw = {11, 12};
  return m;
}

inline rts_ifl_msg ifl(Store &s) {
  rts_ifl_msg m{};
  header(m.hdr, RTS_T_IFLOGICAL, RTS_OP_GET);
  m.iflm_ifd_index = 1;
  m.iflm_index = 70;
  m.iflm_unit = 0;
  m.iflm_name = s.bytes<char>("lo0", 4);
  m.iflm_name_len = 4;
  m.iflm_snmp_index = 17;
  m.iflm_flags = 0xc000;
  m.iflm_rtb_id = 0;
  m.iflm_encaps = 1;
  m.iflm_vlan = 0;
  m.iflm_bandwidth = 1000000000ull;
  m.iflm_agg_index = 80;
  m.iflm_df_role = 1;
  m.iflm_bw_weight = 200;
  m.iflm_vtep.flags = 1;
  m.iflm_vtep.udp_port = 4789;
  const uint8_t src[4] = {192, 0, 2, 1};
  memcpy(m.iflm_vtep.src, src, 4);
  return m;
}

inline rts_iff_msg iff(Store &s) {
  rts_iff_msg m{};
  header(m.hdr, RTS_T_IFFAMILY, RTS_OP_GET);
  m.iffm_ifl_index = 70;
  m.iffm_af = RTS_AF_INET;
  m.iffm_flags = 0x4;
  m.iffm_mtu = 1500;
  m.iffm_name = s.bytes<char>("lo0.0", 6);
  m.iffm_name_len = 6;
  m.iffm_max_mtu = 9192;
  m.iffm_features = 0x100000002ull;
  return m;
}

inline rts_ifa_msg ifa(Store &s) {
  rts_ifa_msg m{};
  header(m.hdr, RTS_T_IFADDR, RTS_OP_GET);
  m.ifam_ifl_index = 70;
  m.ifam_af = RTS_AF_INET;
  m.ifam_flags = 0x10;
  m.ifam_local = s.bytes<uint8_t>("\xc0\xa8\x01\x01", 4);
  m.ifam_local_bits = 32;
  m.ifam_local_plen = 4;
  m.ifam_dest = s.bytes<uint8_t>("\xc0\xa8\x01\x00", 4);
  m.ifam_dest_bits = 24;
  m.ifam_dest_plen = 4;
  return m;
}

inline rts_gencfg_msg gencfg(Store &s) {
  rts_gencfg_msg m{};
  header(m.hdr, RTS_T_GENCFG, RTS_OP_ADD);
  m.major = 3;
  m.minor = 4;
  m.peer_type = 1;
  m.gencfg_flags = 0x2;
  m.blob_key = s.bytes<uint8_t>("key-1", 5);
  m.blob_key_len = 5;
  m.blob = s.bytes<uint8_t>("payload", 7);
  m.blob_len = 7;
  gencfg_peerinfo_t peers[2] = {};
  peers[0].peer_type = 1;
  peers[0].mask_kind = 16;
  peers[0].peer_mask[0] = 0x20;
  peers[1].peer_type = 2;
  peers[1].mask_kind = 1;
  peers[1].peer_mask[8] = 0x3;
  m.gencfg_peers = s.bytes<gencfg_peerinfo_t>(peers, sizeof peers);
  m.gencfg_peer_count = 2;
  gencfg_depinfo_t dep{};
  dep.dep_major = 9;
  dep.dep_minor = 1;
  memcpy(dep.dep_key, "dep", 3);
  m.gencfg_deps = s.bytes<gencfg_depinfo_t>(&dep, sizeof dep);
  m.gencfg_dep_count = 1;
  m.proto = 6;
  return m;
}

struct Sample {
  const char *name;
  uint32_t type;
  void *record;
};

// One filled record of every type with a codec; the storage lives in `st`.
struct AllSamples {
  samples::Store st;
  rts_msg_hdr nop{};
  rts_bd_msg bd = samples::bd(st);
  rts_rt_msg rt = samples::route(st);
  rts_rtmatch_msg rtmatch = samples::rtmatch(st);
  rts_rtb_msg rtb = samples::rtb(st);
  rts_ifd_msg ifd = samples::ifd(st);
  rts_ifl_msg ifl = samples::ifl(st);
  rts_iff_msg iff = samples::iff(st);
  rts_ifa_msg ifa = samples::ifa(st);
  rts_gencfg_msg gencfg = samples::gencfg(st);
  rts_nh_msg nh = samples::nh(st);
  std::vector<Sample> list() {
    samples::header(nop, RTS_T_NOP, RTS_OP_GET);
    return {{"nop", RTS_T_NOP, &nop},          {"bridge-domain", RTS_T_BRIDGE_DOMAIN, &bd},
            {"route", RTS_T_ROUTE, &rt},       {"rtmatch", RTS_T_RTMATCH, &rtmatch},
            {"rttable", RTS_T_RTTABLE, &rtb},  {"ifdev", RTS_T_IFDEV, &ifd},
            {"iflogical", RTS_T_IFLOGICAL, &ifl}, {"iffamily", RTS_T_IFFAMILY, &iff},
            {"ifaddr", RTS_T_IFADDR, &ifa},    {"gencfg", RTS_T_GENCFG, &gencfg},
            {"nexthop", RTS_T_NEXTHOP, &nh}};
  }
};

// A message's bytes in one encoding (TLV with mask, when given).
inline std::vector<uint8_t> wire(uint32_t type, const void *record, bool tlv, const uint8_t *mask = nullptr) {
  rts_msg_pair pair{type, const_cast<void *>(record)};
  int n = tlv ? rts_tlv_encode(&pair, mask, nullptr, 0) : rts_idr_encode(&pair, nullptr, 0);
  std::vector<uint8_t> out(static_cast<size_t>(n));
  if (tlv) rts_tlv_encode(&pair, mask, out.data(), static_cast<uint32_t>(n));
  else rts_idr_encode(&pair, out.data(), static_cast<uint32_t>(n));
  return out;
}

}  // namespace samples
