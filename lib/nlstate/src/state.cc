// The facts as the kernel last told them, and what each event changed.
#include <linux/neighbour.h>

#include <cstring>

#include "nlstate/nlstate.h"

namespace nlstate {

namespace {

const std::set<int> kNone;

// An address or entry added, replaced or removed: what it was and is.
template <class K, class V>
void upsert(std::map<K, V> &m, const K &k, const V &v, bool removed, std::optional<V> *before,
            std::optional<V> *after) {
  auto it = m.find(k);
  if (it != m.end()) *before = it->second;
  if (removed) {
    if (it != m.end()) m.erase(it);
  } else if (!(*before && **before == v)) {
    m[k] = v;
    *after = v;
  } else {
    before->reset();  // told again as it is: no change
  }
}

std::string raw(const uint8_t *p, size_t n) { return std::string(reinterpret_cast<const char *>(p), n); }

}  // namespace

std::string mac_bytes(const uint8_t mac[6]) { return raw(mac, 6); }

AddrKey key_of(const Addr &a) {
  return {a.ifindex, a.family, raw(a.local, a.family == 2 ? 4 : 16), a.prefixlen};
}

// Self entries (the device's own table) and master entries (the bridge's) of
// one MAC are two entries in the kernel, and so here.
FdbKey key_of(const Fdb &f) {
  return {f.ifindex, mac_bytes(f.mac), f.vlan, static_cast<uint8_t>(f.flags & (NTF_SELF | NTF_MASTER)),
          raw(f.dst, f.dst_len)};
}

const Link *State::link(int ifindex) const {
  auto it = links_.find(ifindex);
  return it == links_.end() ? nullptr : &it->second;
}

const std::set<int> &State::members(int master) const {
  auto it = members_.find(master);
  return it == members_.end() ? kNone : it->second;
}

std::vector<const Fdb *> State::fdbs_of(int ifindex, const uint8_t mac[6]) const {
  std::vector<const Fdb *> out;
  std::string m = mac_bytes(mac);
  for (auto it = fdbs_.lower_bound(FdbKey{ifindex, m, 0, 0, ""});
       it != fdbs_.end() && std::get<0>(it->first) == ifindex && std::get<1>(it->first) == m; ++it)
    out.push_back(&it->second);
  return out;
}

std::vector<const Fdb *> State::fdbs_of(int ifindex) const {
  std::vector<const Fdb *> out;
  for (auto it = fdbs_.lower_bound(FdbKey{ifindex, "", 0, 0, ""});
       it != fdbs_.end() && std::get<0>(it->first) == ifindex; ++it)
    out.push_back(&it->second);
  return out;
}

const Link *vxlan_of(const State &st, int bridge) {
  const Link *b = st.link(bridge);
  if (!b || b->kind != "bridge") return nullptr;
  for (int m : st.members(bridge)) {
    const Link *l = st.link(m);
    if (l && l->kind == "vxlan" && l->has_vni) return l;
  }
  return nullptr;
}

uint16_t table_of(const State &st, const Link &bridge) {
  const Link *vrf = bridge.master ? st.link(bridge.master) : nullptr;
  if (vrf && vrf->kind == "vrf" && vrf->vrf_table > 0 && vrf->vrf_table <= 0xFFFF)
    return static_cast<uint16_t>(vrf->vrf_table);
  return kDefaultTable;
}

Change State::apply(const Event &e) {
  Change c;
  c.kind = e.kind;
  switch (e.kind) {
    case Kind::kLink: {
      const int ix = e.link.ifindex;
      auto it = links_.find(ix);
      if (it != links_.end()) c.link_before = it->second;
      if (it != links_.end() && it->second.master) members_[it->second.master].erase(ix);
      if (e.removed) {
        if (it == links_.end()) return c;
        links_.erase(it);
        for (auto a = addrs_.lower_bound(AddrKey{ix, 0, "", 0}); a != addrs_.end() && std::get<0>(a->first) == ix;) {
          c.gone_addrs.push_back(a->second);
          a = addrs_.erase(a);
        }
        for (auto f = fdbs_.lower_bound(FdbKey{ix, "", 0, 0, ""}); f != fdbs_.end() && std::get<0>(f->first) == ix;) {
          c.gone_fdbs.push_back(f->second);
          f = fdbs_.erase(f);
        }
        return c;
      }
      if (c.link_before && *c.link_before == e.link) {
        c.link_before.reset();
        if (e.link.master) members_[e.link.master].insert(ix);
        return c;
      }
      links_[ix] = e.link;
      if (e.link.master) members_[e.link.master].insert(ix);
      c.link_after = e.link;
      return c;
    }
    // The kernel tells of a device before its addresses and entries, and
    // their removal goes with it: any of a device unknown here is stale.
    case Kind::kAddr:
      if (links_.count(e.addr.ifindex)) upsert(addrs_, key_of(e.addr), e.addr, e.removed, &c.addr_before, &c.addr_after);
      return c;
    case Kind::kFdb:
      if (links_.count(e.fdb.ifindex)) upsert(fdbs_, key_of(e.fdb), e.fdb, e.removed, &c.fdb_before, &c.fdb_after);
      return c;
  }
  return c;
}

}  // namespace nlstate
