// The command line of ping-overlay: getopt_long, every value checked.
#include "options.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/ether.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

enum : int {
  OPT_IP = 256,
  OPT_IP_LONG,
  OPT_SMAC,
  OPT_DMAC,
  OPT_SRC_IP,
  OPT_DST_IP,
  OPT_VLAN,
  OPT_INPUT_IFD,
  OPT_PROTOCOL,
  OPT_L4_SRC,
  OPT_L4_DST,
  OPT_JSON,
};

const option kLong[] = {
    {"vni", required_argument, nullptr, 'n'},
    {"mac", required_argument, nullptr, 'm'},
    {"ip", required_argument, nullptr, OPT_IP},
    {"ip-long", required_argument, nullptr, OPT_IP_LONG},
    {"tunnel-dst", required_argument, nullptr, 'd'},
    {"tunnel-src", required_argument, nullptr, 's'},
    {"ttl", required_argument, nullptr, 't'},
    {"smac", required_argument, nullptr, OPT_SMAC},
    {"dmac", required_argument, nullptr, OPT_DMAC},
    {"src-ip", required_argument, nullptr, OPT_SRC_IP},
    {"dst-ip", required_argument, nullptr, OPT_DST_IP},
    {"inner-ipv6", no_argument, nullptr, '6'},
    {"vlan", required_argument, nullptr, OPT_VLAN},
    {"input-ifd", required_argument, nullptr, OPT_INPUT_IFD},
    {"protocol", required_argument, nullptr, OPT_PROTOCOL},
    {"l4-src-port", required_argument, nullptr, OPT_L4_SRC},
    {"l4-dst-port", required_argument, nullptr, OPT_L4_DST},
    {"count", required_argument, nullptr, 'c'},
    {"interval", required_argument, nullptr, 'i'},
    {"wait", required_argument, nullptr, 'W'},
    {"quiet", no_argument, nullptr, 'q'},
    {"verbose", no_argument, nullptr, 'v'},
    {"json", no_argument, nullptr, OPT_JSON},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct parser {
  po_options *o;
  std::string *error;
  // Which inner address families the operator used: 4, 6, or 0 for none yet.
  int inner_family = 0;

  bool fail(const std::string &what) {
    *error = what;
    return false;
  }

  bool number(const char *name, const char *text, unsigned long max, unsigned long *out) {
    errno = 0;
    char *end = nullptr;
    unsigned long v = strtoul(text, &end, 0);
    if (!*text || *end || errno || text[0] == '-' || v > max)
      return fail(std::string("bad ") + name + " '" + text + "' (0 to " + std::to_string(max) + ")");
    *out = v;
    return true;
  }

  // Seconds with a fraction, as ping takes them, to milliseconds.
  bool seconds(const char *name, const char *text, long min_ms, long *out) {
    errno = 0;
    char *end = nullptr;
    double v = strtod(text, &end);
    if (!*text || *end || errno || !std::isfinite(v) || v * 1000 < min_ms || v > 3600)
      return fail(std::string("bad ") + name + " '" + text + "' (" + std::to_string(min_ms / 1000.0).substr(0, 4) +
                  " to 3600 seconds)");
    *out = std::lround(v * 1000);
    return true;
  }

  bool mac(const char *name, const char *text, uint8_t out[6]) {
    ether_addr a;
    if (!ether_aton_r(text, &a)) return fail(std::string("bad ") + name + " '" + text + "' (a MAC as 00:11:22:33:44:55)");
    memcpy(out, a.ether_addr_octet, 6);
    return true;
  }

  bool ipv4(const char *name, const char *text, in_addr *out) {
    if (inet_pton(AF_INET, text, out) != 1) return fail(std::string("bad ") + name + " '" + text + "' (an IPv4 address)");
    return true;
  }

  // An inner address: IPv4 or IPv6, all of one family.
  bool inner(const char *name, const char *text, in_addr *v4, in6_addr *v6) {
    int family = inet_pton(AF_INET, text, v4) == 1 ? 4 : inet_pton(AF_INET6, text, v6) == 1 ? 6 : 0;
    if (!family) return fail(std::string("bad ") + name + " '" + text + "' (an IPv4 or IPv6 address)");
    if (inner_family && inner_family != family) return fail("inner addresses mix IPv4 and IPv6");
    inner_family = family;
    return true;
  }

  bool target(ping_target t, const char *text) {
    if (o->target != PING_TARGET_NONE) return fail("give one of --mac, --ip and --ip-long");
    if (t == PING_TARGET_MAC) {
      o->target = t;
      return mac("MAC", text, o->target_mac);
    }
    in_addr a4;
    if (inet_pton(AF_INET, text, &a4) == 1) {
      if (t == PING_TARGET_LONG) {  // the 16-byte form of an IPv4 address
        o->target_addr[10] = o->target_addr[11] = 0xFF;
        memcpy(o->target_addr + 12, &a4, 4);
      } else {
        memcpy(o->target_addr, &a4, 4);
      }
      o->target = t;
      return true;
    }
    if (inet_pton(AF_INET6, text, o->target_addr) != 1)
      return fail(std::string("bad target address '") + text + "' (an IPv4 or IPv6 address)");
    o->target = t == PING_TARGET_LONG ? t : PING_TARGET_IPV6;
    return true;
  }

  // The end host's numbers: each one given is a stated hash parameter.
  bool end_host_number(int c, const char *arg) {
    static const struct {
      int opt;
      const char *name;
      unsigned long max;
      uint32_t bit;
      uint32_t po_options::*field;
    } kNumbers[] = {
        {OPT_VLAN, "VLAN", 4095, HASH_VLAN, &po_options::vlan},
        {OPT_INPUT_IFD, "input interface index", UINT32_MAX, HASH_INPUT_IFD, &po_options::input_ifd},
        {OPT_PROTOCOL, "protocol", 255, HASH_PROTOCOL, &po_options::protocol},
        {OPT_L4_SRC, "L4 source port", 65535, HASH_L4_SRC_PORT, &po_options::l4_src_port},
        {OPT_L4_DST, "L4 destination port", 65535, HASH_L4_DST_PORT, &po_options::l4_dst_port},
    };
    for (const auto &n : kNumbers) {
      if (n.opt != c) continue;
      unsigned long v;
      if (!number(n.name, arg, n.max, &v)) return false;
      o->*n.field = static_cast<uint32_t>(v);
      o->hash_have |= n.bit;
      return true;
    }
    return fail("unknown option");
  }

  bool option(int c, const char *arg) {
    unsigned long v = 0;
    switch (c) {
      case 'n':
        if (!number("VNI", arg, 0xFFFFFF, &v)) return false;
        o->vni = static_cast<uint32_t>(v);
        o->vni_set = true;
        return true;
      case 'm':
        return target(PING_TARGET_MAC, arg);
      case OPT_IP:
        return target(PING_TARGET_IPV4, arg);
      case OPT_IP_LONG:
        return target(PING_TARGET_LONG, arg);
      case 'd':
        return ipv4("tunnel destination", arg, &o->tunnel_dst);
      case 's':
        o->tunnel_src_set = true;
        return ipv4("tunnel source", arg, &o->tunnel_src);
      case 't':
        if (!number("TTL", arg, 255, &v)) return false;
        if (v == 0) return fail("bad TTL '0' (1 to 255)");
        o->ttl = static_cast<uint8_t>(v);
        return true;
      case OPT_SMAC:
        o->hash_have |= HASH_SMAC;
        return mac("source MAC", arg, o->smac);
      case OPT_DMAC:
        o->hash_have |= HASH_DMAC;
        return mac("destination MAC", arg, o->dmac);
      case OPT_SRC_IP:
        o->hash_have |= HASH_SRC_IP;
        return inner("source IP", arg, &o->src4, &o->src6);
      case OPT_DST_IP:
        o->hash_have |= HASH_DST_IP;
        return inner("destination IP", arg, &o->dst4, &o->dst6);
      case '6':
        if (inner_family == 4) return fail("inner addresses mix IPv4 and IPv6");
        inner_family = 6;
        return true;
      case 'c':
        if (!number("count", arg, 1000000000, &v)) return false;
        if (v == 0) return fail("bad count '0' (1 or more)");
        o->count = static_cast<long>(v);
        return true;
      case 'i':
        return seconds("interval", arg, 10, &o->interval_ms);
      case 'W':
        return seconds("wait", arg, 10, &o->wait_ms);
      case 'q':
        o->quiet = true;
        return true;
      case 'v':
        o->verbose = true;
        return true;
      case OPT_JSON:
        o->json = true;
        return true;
    }
    return end_host_number(c, arg);
  }
};

}  // namespace

po_parse_result po_parse(int argc, char **argv, po_options *o, std::string *error) {
  parser p{o, error};
  bool dst_set = false;
  optind = 0;  // restart getopt for each call
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":n:m:d:s:t:6c:i:W:qvh", kLong, nullptr)) != -1) {
    if (c == 'h') return PO_HELP;
    if (c == '?' || c == ':') {
      // A long option is named as written; a short one by its letter, which
      // may sit inside a cluster such as -qx.
      const char *arg = argv[optind - 1];
      std::string bad = strncmp(arg, "--", 2) == 0 || optopt <= 0 || optopt >= 128
                            ? std::string(arg, strcspn(arg, "="))
                            : std::string("-") + static_cast<char>(optopt);
      *error = c == ':' ? "option '" + bad + "' needs a value" : "unknown option '" + bad + "'";
      return PO_USAGE_ERROR;
    }
    if (!p.option(c, optarg)) return PO_USAGE_ERROR;
    dst_set |= c == 'd';
  }
  if (optind < argc) {
    if (dst_set || optind + 1 < argc) {
      *error = std::string("unexpected argument '") + argv[dst_set ? optind : optind + 1] + "'";
      return PO_USAGE_ERROR;
    }
    if (!p.ipv4("tunnel destination", argv[optind], &o->tunnel_dst)) return PO_USAGE_ERROR;
    dst_set = true;
  }
  if (!dst_set) {
    *error = "no remote VTEP: give its IPv4 address";
    return PO_USAGE_ERROR;
  }
  if (!o->vni_set) {
    *error = "no VNI: give --vni";
    return PO_USAGE_ERROR;
  }
  if (o->tunnel_src_set && o->tunnel_src.s_addr == 0) {
    *error = "bad tunnel source '0.0.0.0'";
    return PO_USAGE_ERROR;
  }
  // An IPv6 end host is probed with an inner IPv6 frame unless the inner
  // addresses say otherwise.
  const bool mapped = o->target_addr[10] == 0xFF && o->target_addr[11] == 0xFF;
  if (!p.inner_family && (o->target == PING_TARGET_IPV6 || (o->target == PING_TARGET_LONG && !mapped)))
    p.inner_family = 6;
  o->inner_ipv6 = p.inner_family == 6;
  return PO_RUN;
}

void po_fill_probe(const po_options &o, struct ping_probe *pp) {
  pp->pp_tunnel_src = o.tunnel_src;
  pp->pp_tunnel_dst = o.tunnel_dst;
  ping_probe_defaults(pp);
  pp->pp_vni = o.vni;
  if (o.hash_have & HASH_SMAC) memcpy(pp->pp_inner_smac, o.smac, 6);
  if (o.hash_have & HASH_DMAC) memcpy(pp->pp_inner_dmac, o.dmac, 6);
  if (o.hash_have & HASH_SRC_IP) {
    pp->pp_inner_src4 = o.src4;
    pp->pp_inner_src6 = o.src6;
  }
  if (o.hash_have & HASH_DST_IP) {
    pp->pp_inner_dst4 = o.dst4;
    pp->pp_inner_dst6 = o.dst6;
  }
  if (o.hash_have & HASH_PROTOCOL) pp->pp_protocol = static_cast<uint8_t>(o.protocol);
  if (o.hash_have & HASH_L4_SRC_PORT) pp->pp_l4_src_port = static_cast<uint16_t>(o.l4_src_port);
  if (o.hash_have & HASH_L4_DST_PORT) pp->pp_l4_dst_port = static_cast<uint16_t>(o.l4_dst_port);
  pp->pp_vlan = static_cast<uint16_t>(o.vlan);
  pp->pp_hash_have = o.hash_have;
  pp->pp_target = o.target;
  memcpy(pp->pp_target_mac, o.target_mac, 6);
  memcpy(pp->pp_target_addr, o.target_addr, 16);
}
