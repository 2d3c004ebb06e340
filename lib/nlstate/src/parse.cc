// rtnetlink messages as events: libmnl walks the attributes, this file reads
// the ones the backends use.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "nlstate/nlstate.h"

namespace nlstate {

namespace {

// The attributes of one nest or message, by type; null where absent or of a
// type above max. Lengths are checked by the readers below.
template <int N>
struct Attrs {
  const nlattr *a[N + 1] = {};
  const nlattr *operator[](int t) const { return t <= N ? a[t] : nullptr; }
};

template <int N>
int collect(const nlattr *attr, void *data) {
  auto *t = static_cast<Attrs<N> *>(data);
  int type = mnl_attr_get_type(attr);
  if (type >= 0 && type <= N) t->a[type] = attr;
  return MNL_CB_OK;
}

template <int N>
bool walk_msg(const nlmsghdr *nlh, size_t hdr, Attrs<N> *out) {
  return mnl_attr_parse(nlh, static_cast<unsigned>(hdr), collect<N>, out) >= 0;
}

template <int N>
bool walk_nest(const nlattr *nest, Attrs<N> *out) {
  return mnl_attr_parse_nested(nest, collect<N>, out) >= 0;
}

bool u32(const nlattr *a, uint32_t *v) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U32) < 0) return false;
  *v = mnl_attr_get_u32(a);
  return true;
}

bool u16(const nlattr *a, uint16_t *v) {
  if (!a || mnl_attr_validate(a, MNL_TYPE_U16) < 0) return false;
  *v = mnl_attr_get_u16(a);
  return true;
}

// A binary attribute of exactly n bytes.
bool bytes(const nlattr *a, void *out, size_t n) {
  if (!a || mnl_attr_get_payload_len(a) != n) return false;
  memcpy(out, mnl_attr_get_payload(a), n);
  return true;
}

// An address of 4 or 16 bytes; its length, 0 when absent or of another size.
uint8_t ip(const nlattr *a, uint8_t out[16]) {
  if (!a) return 0;
  size_t n = mnl_attr_get_payload_len(a);
  if (n != 4 && n != 16) return 0;
  memcpy(out, mnl_attr_get_payload(a), n);
  return static_cast<uint8_t>(n);
}

void vxlan_info(const nlattr *data, Link *l) {
  Attrs<IFLA_VXLAN_MAX> v;
  if (!walk_nest(data, &v)) return;
  uint8_t external = 0;
  if (v[IFLA_VXLAN_COLLECT_METADATA] && mnl_attr_get_payload_len(v[IFLA_VXLAN_COLLECT_METADATA]) >= 1)
    external = mnl_attr_get_u8(v[IFLA_VXLAN_COLLECT_METADATA]);
  l->has_vni = u32(v[IFLA_VXLAN_ID], &l->vni) && !external;
  uint16_t port;
  if (bytes(v[IFLA_VXLAN_PORT], &port, 2)) l->port = ntohs(port);
  if (!(l->local_len = ip(v[IFLA_VXLAN_LOCAL], l->local))) l->local_len = ip(v[IFLA_VXLAN_LOCAL6], l->local);
  if (!(l->remote_len = ip(v[IFLA_VXLAN_GROUP], l->remote))) l->remote_len = ip(v[IFLA_VXLAN_GROUP6], l->remote);
  uint32_t lower;
  if (u32(v[IFLA_VXLAN_LINK], &lower)) l->lower = static_cast<int>(lower);
}

void link_info(const nlattr *info, Link *l) {
  Attrs<IFLA_INFO_MAX> i;
  if (!walk_nest(info, &i)) return;
  if (i[IFLA_INFO_KIND] && mnl_attr_validate(i[IFLA_INFO_KIND], MNL_TYPE_NUL_STRING) >= 0)
    l->kind = mnl_attr_get_str(i[IFLA_INFO_KIND]);
  const nlattr *data = i[IFLA_INFO_DATA];
  if (!data) return;
  if (l->kind == "vxlan") {
    vxlan_info(data, l);
  } else if (l->kind == "bridge") {
    Attrs<IFLA_BR_MAX> b;
    uint32_t ageing;
    if (walk_nest(data, &b) && u32(b[IFLA_BR_AGEING_TIME], &ageing)) l->ageing = ageing / 100;  // centiseconds
  } else if (l->kind == "vrf") {
    Attrs<IFLA_VRF_MAX> v;
    if (walk_nest(data, &v)) u32(v[IFLA_VRF_TABLE], &l->vrf_table);
  }
}

int parse_link(const nlmsghdr *nlh, Event *ev) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) return -1;
  auto *ifi = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(nlh));
  // A bridge port's own messages (family AF_BRIDGE) repeat the link and, on
  // leaving the bridge, say "deleted" of a device that lives on.
  if (ifi->ifi_family != AF_UNSPEC) return 0;
  Attrs<IFLA_MAX> a;
  if (!walk_msg(nlh, sizeof *ifi, &a)) return -1;
  Link &l = ev->link;
  l = Link{};
  l.ifindex = ifi->ifi_index;
  l.flags = ifi->ifi_flags;
  l.loopback = ifi->ifi_type == ARPHRD_LOOPBACK;
  if (a[IFLA_IFNAME] && mnl_attr_validate(a[IFLA_IFNAME], MNL_TYPE_NUL_STRING) >= 0)
    l.name = mnl_attr_get_str(a[IFLA_IFNAME]);
  u32(a[IFLA_MTU], &l.mtu);
  uint32_t master;
  if (u32(a[IFLA_MASTER], &master)) l.master = static_cast<int>(master);
  l.has_mac = bytes(a[IFLA_ADDRESS], l.mac, 6);
  if (a[IFLA_LINKINFO]) link_info(a[IFLA_LINKINFO], &l);
  ev->kind = Kind::kLink;
  ev->removed = nlh->nlmsg_type == RTM_DELLINK;
  return l.ifindex > 0 ? 1 : -1;
}

int parse_addr(const nlmsghdr *nlh, Event *ev) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifaddrmsg)) return -1;
  auto *ifa = static_cast<const ifaddrmsg *>(mnl_nlmsg_get_payload(nlh));
  if (ifa->ifa_family != AF_INET && ifa->ifa_family != AF_INET6) return 0;
  Attrs<IFA_MAX> a;
  if (!walk_msg(nlh, sizeof *ifa, &a)) return -1;
  Addr &d = ev->addr;
  d = Addr{};
  d.ifindex = static_cast<int>(ifa->ifa_index);
  d.family = ifa->ifa_family;
  d.prefixlen = ifa->ifa_prefixlen;
  const size_t n = d.family == AF_INET ? 4 : 16;
  // IFA_LOCAL is the address where both are given; IFA_ADDRESS is then the peer.
  uint8_t address[16];
  bool has_address = bytes(a[IFA_ADDRESS], address, n);
  if (bytes(a[IFA_LOCAL], d.local, n)) {
    d.has_peer = has_address && memcmp(address, d.local, n) != 0;
    if (d.has_peer) memcpy(d.peer, address, n);
  } else if (has_address) {
    memcpy(d.local, address, n);
  } else {
    return -1;
  }
  d.has_bcast = d.family == AF_INET && bytes(a[IFA_BROADCAST], d.bcast, 4);
  ev->kind = Kind::kAddr;
  ev->removed = nlh->nlmsg_type == RTM_DELADDR;
  return 1;
}

int parse_fdb(const nlmsghdr *nlh, Event *ev) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ndmsg)) return -1;
  auto *nd = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(nlh));
  if (nd->ndm_family != AF_BRIDGE) return 0;
  Attrs<NDA_MAX> a;
  if (!walk_msg(nlh, sizeof *nd, &a)) return -1;
  Fdb &f = ev->fdb;
  f = Fdb{};
  f.ifindex = nd->ndm_ifindex;
  f.flags = nd->ndm_flags;
  f.state = nd->ndm_state;
  if (!bytes(a[NDA_LLADDR], f.mac, 6)) return -1;
  u16(a[NDA_VLAN], &f.vlan);
  uint32_t v;
  if (u32(a[NDA_MASTER], &v)) f.master = static_cast<int>(v);
  u32(a[NDA_VNI], &f.vni);
  f.dst_len = ip(a[NDA_DST], f.dst);
  ev->kind = Kind::kFdb;
  ev->removed = nlh->nlmsg_type == RTM_DELNEIGH;
  return f.ifindex > 0 ? 1 : -1;
}

}  // namespace

int parse(const nlmsghdr *nlh, Event *ev) {
  switch (nlh->nlmsg_type) {
    case RTM_NEWLINK: case RTM_DELLINK: return parse_link(nlh, ev);
    case RTM_NEWADDR: case RTM_DELADDR: return parse_addr(nlh, ev);
    case RTM_NEWNEIGH: case RTM_DELNEIGH: return parse_fdb(nlh, ev);
    default: return 0;
  }
}

}  // namespace nlstate
