// The kernel's facts as the peer's objects: what each fact becomes, and the
// add, change or delete that brings the store to it.
#include "linux_mirror.h"

#include <linux/if.h>
#include <sys/socket.h>

#include <cstring>
#include <map>
#include <vector>

namespace rtsockd {

namespace {

using nlstate::Link;
using nlstate::State;

constexpr uint32_t kMaxIfd = 0xFFFF;  // ifd and bd indexes are 16 bits

template <class T>
T blank(uint32_t type) {
  T r{};
  r.hdr.version = rts_type_table[type].version;
  r.hdr.type = static_cast<uint8_t>(type);
  r.hdr.size = r.hdr.length = rts_type_table[type].size;
  return r;
}

// A prefix as the records carry it: its bytes padded to whole words.
struct Prefix {
  uint8_t bytes[16] = {};
  uint16_t bits = 0;
  uint16_t plen() const { return static_cast<uint16_t>(((bits + 31) / 8) & ~3u); }
};

Prefix prefix(const uint8_t *addr, uint8_t family, unsigned bits) {
  Prefix p;
  const unsigned n = family == AF_INET ? 4 : 16;
  memcpy(p.bytes, addr, n);
  p.bits = static_cast<uint16_t>(bits);
  for (unsigned i = 0; i < n; i++) {  // the host bits cleared
    unsigned keep = bits > 8 * i ? bits - 8 * i : 0;
    if (keep < 8) p.bytes[i] &= static_cast<uint8_t>(0xFF00 >> keep);
  }
  return p;
}

uint8_t rts_af(uint8_t family) { return family == AF_INET ? RTS_AF_INET : RTS_AF_INET6; }

std::string name_of(const Link &l) { return l.loopback ? "lo0" : l.name; }

uint32_t name_len(const std::string &s) { return static_cast<uint32_t>(s.size() + 1); }

// The table of a VRF device, 0 when it has none that fits.
uint16_t vrf_table(const Link *vrf) {
  if (!vrf || vrf->kind != "vrf" || vrf->vrf_table == 0 || vrf->vrf_table > 0xFFFF) return 0;
  return static_cast<uint16_t>(vrf->vrf_table);
}

// The store's key of an address: interface, family and local address (the
// prefix length is no part of it).
std::string ifa_key(const nlstate::AddrKey &key) {
  const uint8_t family = std::get<1>(key);
  auto r = blank<rts_ifa_msg>(RTS_T_IFADDR);
  Prefix local = prefix(reinterpret_cast<const uint8_t *>(std::get<2>(key).data()), family,
                        family == AF_INET ? 32 : 128);
  r.ifam_ifl_index = static_cast<uint32_t>(std::get<0>(key));
  r.ifam_af = rts_af(family);
  r.ifam_local = local.bytes;
  r.ifam_local_bits = local.bits;
  r.ifam_local_plen = local.plen();
  return Store::key_of(RTS_T_IFADDR, &r);
}

// A bridge domain as the records can hold it: a 16-bit index.
const Link *domain_vxlan(const State &st, int bridge) {
  return bridge > static_cast<int>(kMaxIfd) ? nullptr : nlstate::vxlan_of(st, bridge);
}

std::unique_ptr<Object> ifd(const Link &l) {
  if (l.ifindex > static_cast<int>(kMaxIfd)) return nullptr;
  auto r = blank<rts_ifd_msg>(RTS_T_IFDEV);
  std::string name = name_of(l);
  r.ifdm_index = static_cast<uint16_t>(l.ifindex);
  r.ifdm_name = name.data();
  r.ifdm_name_len = name_len(name);
  r.ifdm_snmp_index = static_cast<uint32_t>(l.ifindex);
  r.ifdm_flags = l.flags;
  r.ifdm_mtu = l.mtu;
  if (l.has_mac) memcpy(r.ifdm_mac, l.mac, 6);
  return clone(RTS_T_IFDEV, &r);
}

std::unique_ptr<Object> ifl(const State &st, const Link &l) {
  if (l.ifindex > static_cast<int>(kMaxIfd)) return nullptr;
  auto r = blank<rts_ifl_msg>(RTS_T_IFLOGICAL);
  std::string name = name_of(l);
  r.iflm_ifd_index = static_cast<uint16_t>(l.ifindex);
  r.iflm_index = static_cast<uint32_t>(l.ifindex);
  r.iflm_name = name.data();
  r.iflm_name_len = name_len(name);
  r.iflm_snmp_index = static_cast<uint32_t>(l.ifindex);
  r.iflm_flags = l.flags;
  r.iflm_rtb_id = l.master ? vrf_table(st.link(l.master)) : 0;
  return clone(RTS_T_IFLOGICAL, &r);
}

std::unique_ptr<Object> iff(const Link &l, uint8_t af) {
  if (l.ifindex > static_cast<int>(kMaxIfd)) return nullptr;
  auto r = blank<rts_iff_msg>(RTS_T_IFFAMILY);
  std::string name = name_of(l) + ".0";
  r.iffm_ifl_index = static_cast<uint32_t>(l.ifindex);
  r.iffm_af = af;
  r.iffm_mtu = l.mtu;
  r.iffm_name = name.data();
  r.iffm_name_len = name_len(name);
  return clone(RTS_T_IFFAMILY, &r);
}

std::unique_ptr<Object> ifa(const State &st, const nlstate::Addr &a) {
  const Link *l = st.link(a.ifindex);
  if (!l || a.ifindex > static_cast<int>(kMaxIfd)) return nullptr;
  const unsigned full = a.family == AF_INET ? 32 : 128;
  auto r = blank<rts_ifa_msg>(RTS_T_IFADDR);
  r.ifam_ifl_index = static_cast<uint32_t>(a.ifindex);
  r.ifam_af = rts_af(a.family);
  Prefix local = prefix(a.local, a.family, full), dest, bcast;
  r.ifam_local = local.bytes;
  r.ifam_local_bits = local.bits;
  r.ifam_local_plen = local.plen();
  // The subnet a destination is looked up in: the peer's for a
  // point-to-point address, else the address's own; none for a host address.
  if (a.has_peer) dest = prefix(a.peer, a.family, a.prefixlen);
  else if (a.prefixlen < full) dest = prefix(a.local, a.family, a.prefixlen);
  if (dest.bits || a.has_peer) {
    r.ifam_dest = dest.bytes;
    r.ifam_dest_bits = dest.bits;
    r.ifam_dest_plen = dest.plen();
  }
  if (a.has_bcast) {
    bcast = prefix(a.bcast, AF_INET, 32);
    r.ifam_bcast = bcast.bytes;
    r.ifam_bcast_bits = 32;
    r.ifam_bcast_plen = bcast.plen();
  }
  return clone(RTS_T_IFADDR, &r);
}

std::unique_ptr<Object> bd(const State &st, int bridge) {
  const Link *vx = domain_vxlan(st, bridge);
  if (!vx) return nullptr;
  const Link &b = *st.link(bridge);
  auto r = blank<rts_bd_msg>(RTS_T_BRIDGE_DOMAIN);
  std::string name = b.name;
  r.bdm_index = static_cast<uint16_t>(bridge);
  r.rtb_id = nlstate::table_of(st, b);
  r.bdm_name = name.data();
  r.bdm_name_len = name_len(name);
  r.cfg_flags = RTS_BD_CFG_VXLAN;
  r.vnid = vx->vni;
  r.bdm_udp_port = vx->port;
  memcpy(r.bdm_vtep_src, vx->local, vx->local_len);
  r.bdm_vtep_src_ifl = static_cast<uint32_t>(vx->ifindex);
  r.bdm_irb_ifl = static_cast<uint32_t>(bridge);
  r.bdm_mtu = vx->mtu;
  r.bdm_mac.mac_age = b.ageing;
  r.bdm_ifl_count = static_cast<uint32_t>(st.members(bridge).size());
  return clone(RTS_T_BRIDGE_DOMAIN, &r);
}

// The 80-bit key of a bridge MAC route: bd (big-endian), two zero bytes, MAC.
Prefix mac_key(int bridge, const uint8_t mac[6]) {
  Prefix p;
  p.bytes[0] = static_cast<uint8_t>(bridge >> 8);
  p.bytes[1] = static_cast<uint8_t>(bridge);
  memcpy(p.bytes + 4, mac, 6);
  p.bits = 80;
  return p;
}

std::unique_ptr<Object> mac_route(uint16_t table, int bridge, const uint8_t mac[6], int port) {
  auto r = blank<rts_rt_msg>(RTS_T_ROUTE);
  Prefix key = mac_key(bridge, mac);
  r.rtm_table = table;
  r.rtm_af = RTS_AF_BRIDGE;
  r.rtm_type = 2;
  r.rtm_prefix = key.bytes;
  r.rtm_prefix_bits = key.bits;
  r.rtm_prefix_plen = key.plen();
  r.rtm_ifl_index = static_cast<uint32_t>(port);
  return clone(RTS_T_ROUTE, &r);
}

std::unique_ptr<Object> rttable(uint8_t af, uint16_t index, const std::string &name) {
  auto r = blank<rts_rtb_msg>(RTS_T_RTTABLE);
  r.rtbm_af = af;
  r.rtbm_index = index;
  r.rtbm_name = const_cast<char *>(name.c_str());
  r.rtbm_name_len = name_len(name);
  return clone(RTS_T_RTTABLE, &r);
}

// The wanted routing tables, by key.
std::map<std::string, std::unique_ptr<Object>> tables(const State &st) {
  std::map<std::string, std::unique_ptr<Object>> out;
  auto add = [&](uint8_t af, uint16_t index, const std::string &name) {
    auto o = rttable(af, index, name);
    if (o) out[Store::key_of(RTS_T_RTTABLE, o->rec())] = std::move(o);
  };
  add(RTS_AF_INET, 0, "default.inet");
  add(RTS_AF_INET6, 0, "default.inet6");
  add(RTS_AF_BRIDGE, nlstate::kDefaultTable, "default.bridge");
  for (auto &[ix, l] : st.links())
    if (uint16_t t = vrf_table(&l)) {
      add(RTS_AF_INET, t, l.name + ".inet");
      add(RTS_AF_INET6, t, l.name + ".inet6");
      add(RTS_AF_BRIDGE, t, l.name + ".bridge");
    }
  return out;
}

// The routes that a bridge domain's forwarding entries make: MAC to the
// lowest port that holds it. The all-zero MAC (a VXLAN device's default
// destinations) is no host.
std::map<std::string, int> wanted_macs(const State &st, int bridge) {
  std::map<std::string, int> out;
  std::vector<int> ports{bridge};
  ports.insert(ports.end(), st.members(bridge).begin(), st.members(bridge).end());
  static const uint8_t zero[6] = {};
  for (int p : ports)
    for (const nlstate::Fdb *f : st.fdbs_of(p))
      if (memcmp(f->mac, zero, 6) != 0) out.emplace(nlstate::mac_bytes(f->mac), p);
  return out;
}

std::vector<uint8_t> idr(const Object &o) {
  rts_msg_pair pair{o.type, const_cast<void *>(o.rec())};
  int n = rts_idr_encode(&pair, nullptr, 0);
  std::vector<uint8_t> out(n > 0 ? static_cast<size_t>(n) : 0);
  if (n > 0) rts_idr_encode(&pair, out.data(), static_cast<uint32_t>(n));
  return out;
}

// The stored routes of one bridge domain in one table: a run of keys.
std::vector<std::string> stored_routes(const Store &store, uint16_t table, int bridge) {
  auto r = blank<rts_rt_msg>(RTS_T_ROUTE);
  r.rtm_table = table;
  r.rtm_af = RTS_AF_BRIDGE;
  std::string head = Store::key_of(RTS_T_ROUTE, &r).substr(0, 3);
  head += static_cast<char>(bridge >> 8);
  head += static_cast<char>(bridge);
  std::vector<std::string> out;
  auto &t = store.table(RTS_T_ROUTE);
  for (auto it = t.lower_bound(head); it != t.end() && it->first.compare(0, head.size(), head) == 0; ++it)
    out.push_back(it->first);
  return out;
}

}  // namespace

int LinuxMirror::bd_of_port(const State &st, int ifindex) {
  if (domain_vxlan(st, ifindex)) return ifindex;
  const Link *l = st.link(ifindex);
  if (l && l->master && domain_vxlan(st, l->master)) return l->master;
  return 0;
}

void LinuxMirror::sync(uint32_t type, const std::string &key, std::unique_ptr<Object> want) {
  const Object *have = store_.find_exact(type, key);
  if (!want) {
    if (have) publish_(RTS_OP_DELETE, clone(type, have->rec()));
    return;
  }
  if (!have) publish_(RTS_OP_ADD, std::move(want));
  else if (idr(*have) != idr(*want)) publish_(RTS_OP_CHANGE, std::move(want));
}

void LinuxMirror::sync_link(const State &st, int ix) {
  const Link *l = st.link(ix);
  if (ix > static_cast<int>(kMaxIfd)) return;
  auto ifd_key = [&] {
    auto r = blank<rts_ifd_msg>(RTS_T_IFDEV);
    r.ifdm_index = static_cast<uint16_t>(ix);
    return Store::key_of(RTS_T_IFDEV, &r);
  };
  auto ifl_key = [&] {
    auto r = blank<rts_ifl_msg>(RTS_T_IFLOGICAL);
    r.iflm_index = static_cast<uint32_t>(ix);
    return Store::key_of(RTS_T_IFLOGICAL, &r);
  };
  auto iff_key = [&](uint8_t af) {
    auto r = blank<rts_iff_msg>(RTS_T_IFFAMILY);
    r.iffm_ifl_index = static_cast<uint32_t>(ix);
    r.iffm_af = af;
    return Store::key_of(RTS_T_IFFAMILY, &r);
  };
  if (l) {  // outer objects first when they come, last when they go
    sync(RTS_T_IFDEV, ifd_key(), ifd(*l));
    sync(RTS_T_IFLOGICAL, ifl_key(), ifl(st, *l));
    sync(RTS_T_IFFAMILY, iff_key(RTS_AF_INET), iff(*l, RTS_AF_INET));
    sync(RTS_T_IFFAMILY, iff_key(RTS_AF_INET6), iff(*l, RTS_AF_INET6));
  } else {
    sync(RTS_T_IFFAMILY, iff_key(RTS_AF_INET6), nullptr);
    sync(RTS_T_IFFAMILY, iff_key(RTS_AF_INET), nullptr);
    sync(RTS_T_IFLOGICAL, ifl_key(), nullptr);
    sync(RTS_T_IFDEV, ifd_key(), nullptr);
  }
}

void LinuxMirror::sync_addr(const State &st, const nlstate::AddrKey &key) {
  if (std::get<0>(key) > static_cast<int>(kMaxIfd)) return;
  auto it = st.addrs().find(key);
  sync(RTS_T_IFADDR, ifa_key(key), it == st.addrs().end() ? nullptr : ifa(st, it->second));
}

void LinuxMirror::sync_bd(const State &st, int bridge) {
  if (bridge <= 0 || bridge > static_cast<int>(kMaxIfd)) return;
  auto k = blank<rts_bd_msg>(RTS_T_BRIDGE_DOMAIN);
  k.bdm_index = static_cast<uint16_t>(bridge);
  const std::string key = Store::key_of(RTS_T_BRIDGE_DOMAIN, &k);
  const Object *have = store_.find_exact(RTS_T_BRIDGE_DOMAIN, key);
  std::vector<std::string> stale;
  if (have) stale = stored_routes(store_, static_cast<const rts_bd_msg *>(have->rec())->rtb_id, bridge);
  auto want = bd(st, bridge);
  std::map<std::string, std::unique_ptr<Object>> routes;
  if (want) {
    const uint16_t table = static_cast<const rts_bd_msg *>(want->rec())->rtb_id;
    for (auto &[mac, port] : wanted_macs(st, bridge)) {
      auto o = mac_route(table, bridge, reinterpret_cast<const uint8_t *>(mac.data()), port);
      routes[Store::key_of(RTS_T_ROUTE, o->rec())] = std::move(o);
    }
  }
  // Routes go before their bridge domain and come after it.
  for (const std::string &r : stale)
    if (!routes.count(r)) sync(RTS_T_ROUTE, r, nullptr);
  sync(RTS_T_BRIDGE_DOMAIN, key, std::move(want));
  for (auto &[r, o] : routes) sync(RTS_T_ROUTE, r, std::move(o));
}

void LinuxMirror::sync_route(const State &st, int bridge, const uint8_t mac[6]) {
  const Link *b = st.link(bridge);
  if (!b) return;
  static const uint8_t zero[6] = {};
  if (memcmp(mac, zero, 6) == 0) return;
  int port = 0;
  std::vector<int> ports{bridge};
  ports.insert(ports.end(), st.members(bridge).begin(), st.members(bridge).end());
  for (int p : ports)
    if (!st.fdbs_of(p, mac).empty() && (!port || p < port)) port = p;
  const uint16_t table = nlstate::table_of(st, *b);
  auto want = port ? mac_route(table, bridge, mac, port) : nullptr;
  auto k = blank<rts_rt_msg>(RTS_T_ROUTE);
  Prefix key = mac_key(bridge, mac);
  k.rtm_table = table;
  k.rtm_af = RTS_AF_BRIDGE;
  k.rtm_prefix = key.bytes;
  k.rtm_prefix_bits = key.bits;
  k.rtm_prefix_plen = key.plen();
  sync(RTS_T_ROUTE, Store::key_of(RTS_T_ROUTE, &k), std::move(want));
}

void LinuxMirror::sync_tables(const State &st) {
  auto want = tables(st);
  std::vector<std::string> gone;
  for (auto &[key, obj] : store_.table(RTS_T_RTTABLE))
    if (!want.count(key)) gone.push_back(key);
  for (auto &key : gone) sync(RTS_T_RTTABLE, key, nullptr);
  for (auto &[key, obj] : want) sync(RTS_T_RTTABLE, key, std::move(obj));
}

void LinuxMirror::full(const State &st) {
  sync_tables(st);
  for (auto &[ix, l] : st.links()) sync_link(st, ix);
  for (auto &[key, a] : st.addrs()) sync_addr(st, key);
  for (auto &[ix, l] : st.links())
    if (l.kind == "bridge") sync_bd(st, ix);
  // What the store holds of objects whose fact is gone, innermost first.
  std::set<int> bridges;
  for (auto &[key, obj] : store_.table(RTS_T_BRIDGE_DOMAIN))
    bridges.insert(static_cast<const rts_bd_msg *>(obj->rec())->bdm_index);
  for (int b : bridges) sync_bd(st, b);
  std::vector<std::string> routes;
  for (auto &[key, obj] : store_.table(RTS_T_ROUTE)) {
    auto *r = static_cast<const rts_rt_msg *>(obj->rec());
    if (r->rtm_af != RTS_AF_BRIDGE) continue;
    const int b = r->rtm_prefix ? r->rtm_prefix[0] << 8 | r->rtm_prefix[1] : 0;
    if (!bd_of_port(st, b)) routes.push_back(key);
  }
  for (auto &key : routes) sync(RTS_T_ROUTE, key, nullptr);
  std::set<std::string> addrs;
  for (auto &[key, a] : st.addrs()) addrs.insert(ifa_key(key));
  for (uint32_t type : {RTS_T_IFADDR, RTS_T_IFFAMILY, RTS_T_IFLOGICAL, RTS_T_IFDEV}) {
    std::vector<std::string> gone;
    for (auto &[key, obj] : store_.table(type)) {
      const void *r = obj->rec();
      const int ix = type == RTS_T_IFADDR     ? static_cast<int>(static_cast<const rts_ifa_msg *>(r)->ifam_ifl_index)
                     : type == RTS_T_IFFAMILY ? static_cast<int>(static_cast<const rts_iff_msg *>(r)->iffm_ifl_index)
                     : type == RTS_T_IFLOGICAL ? static_cast<int>(static_cast<const rts_ifl_msg *>(r)->iflm_index)
                                               : static_cast<const rts_ifd_msg *>(r)->ifdm_index;
      if (type == RTS_T_IFADDR ? !addrs.count(key) : !st.link(ix)) gone.push_back(key);
    }
    for (auto &key : gone) sync(type, key, nullptr);
  }
}

void LinuxMirror::link_changed(const State &st, const nlstate::Change &c) {
  const Link &l = c.link_after ? *c.link_after : *c.link_before;
  // A VRF moves tables, interfaces and bridge domains at once: rare, so all
  // is done again.
  if ((c.link_before && c.link_before->kind == "vrf") || (c.link_after && c.link_after->kind == "vrf")) {
    full(st);
    return;
  }
  std::set<int> bridges{l.ifindex};
  if (c.link_before && c.link_before->master) bridges.insert(c.link_before->master);
  if (c.link_after && c.link_after->master) bridges.insert(c.link_after->master);
  if (c.link_after) {
    sync_link(st, l.ifindex);
    for (int b : bridges) sync_bd(st, b);
    return;
  }
  for (int b : bridges) sync_bd(st, b);
  for (const nlstate::Addr &a : c.gone_addrs) sync_addr(st, nlstate::key_of(a));
  sync_link(st, l.ifindex);
}

void LinuxMirror::changed(const State &st, const nlstate::Change &c) {
  switch (c.kind) {
    case nlstate::Kind::kLink:
      if (c.link_before || c.link_after) link_changed(st, c);
      break;
    case nlstate::Kind::kAddr:
      if (c.addr_before || c.addr_after) sync_addr(st, nlstate::key_of(c.addr_after ? *c.addr_after : *c.addr_before));
      break;
    case nlstate::Kind::kFdb: {
      if (!c.fdb_before && !c.fdb_after) break;
      const nlstate::Fdb &f = c.fdb_after ? *c.fdb_after : *c.fdb_before;
      if (int b = bd_of_port(st, f.ifindex)) sync_route(st, b, f.mac);
      break;
    }
  }
}

}  // namespace rtsockd
