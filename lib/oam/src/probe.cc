// The echo request of the overlay ping, byte by byte as the responder reads it.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "oam/oam.h"

namespace {

constexpr uint8_t kDefaultMac[6] = {0x00, 0x00, 0x5E, 0x90, 0x00, 0xFF};

struct fnv {
  uint32_t h = 2166136261u;
  void add(const void *data, size_t len) {
    for (size_t i = 0; i < len; i++) h = (h ^ static_cast<const uint8_t *>(data)[i]) * 16777619u;
  }
  void add16(uint16_t v) {
    uint8_t b[2];
    oam_put16(b, v);
    add(b, 2);
  }
};

const char *const hash_names[] = {"end-host smac",    "end-host dmac",          "end-host src ip",
                                  "end-host dst ip",  "end-host vlan",          "end-host input-ifd-idx",
                                  "end-host protocol", "end-host l4-src-port", "end-host l4-dst-port"};

}  // namespace

uint16_t ping_ip_checksum(const uint8_t *header, size_t len) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < len; i += 2) sum += static_cast<uint32_t>(header[i]) << 8 | header[i + 1];
  if (len & 1) sum += static_cast<uint32_t>(header[len - 1]) << 8;
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

void ping_probe_defaults(struct ping_probe *pp) {
  memcpy(pp->pp_inner_dmac, kDefaultMac, 6);
  memcpy(pp->pp_inner_smac, kDefaultMac, 6);
  pp->pp_inner_src4 = pp->pp_tunnel_src;
  pp->pp_inner_dst4.s_addr = htonl(INADDR_LOOPBACK);
  memset(&pp->pp_inner_src6, 0, sizeof pp->pp_inner_src6);
  pp->pp_inner_src6.s6_addr[10] = 0xFF;
  pp->pp_inner_src6.s6_addr[11] = 0xFF;
  memcpy(&pp->pp_inner_src6.s6_addr[12], &pp->pp_tunnel_src, 4);
  pp->pp_inner_dst6 = in6addr_loopback;
  pp->pp_protocol = 17;
  pp->pp_l4_src_port = OAM_PORT;
  pp->pp_l4_dst_port = OAM_PORT;
  pp->pp_handle = static_cast<uint32_t>(getpid());
}

uint16_t ping_hash_port(const struct ping_probe *pp, bool inner_is_ipv4) {
  fnv f;
  f.add(pp->pp_inner_smac, 6);
  f.add(pp->pp_inner_dmac, 6);
  if (inner_is_ipv4) {
    f.add(&pp->pp_inner_src4, 4);
    f.add(&pp->pp_inner_dst4, 4);
  } else {
    f.add(&pp->pp_inner_src6, 16);
    f.add(&pp->pp_inner_dst6, 16);
  }
  f.add(&pp->pp_protocol, 1);
  f.add16(pp->pp_l4_src_port);
  f.add16(pp->pp_l4_dst_port);
  uint32_t h = f.h ^ (f.h >> 14) ^ (f.h >> 28);
  return static_cast<uint16_t>(0xC000 | (h & 0x3FFF));
}

void hash_params_warn(uint32_t have, uint32_t need, bool ip_mode) {
  if (ip_mode || (have & need) == need) return;
  fputs("\n\tWARNING: following hash-parameters are missing - \n\t\thash computation may not succeed\n", stderr);
  for (unsigned bit = 0; bit < 9; bit++)
    if ((need & (1u << bit)) && !(have & (1u << bit))) fprintf(stderr, "\t\t%s\n", hash_names[bit]);
  fputc('\n', stderr);
}

void probe_build(struct ping_probe *pp, struct in_addr destination, uint8_t ttl, bool inner_is_ipv4) {
  uint8_t *b = pp->pp_buf;
  const uint16_t total = inner_is_ipv4 ? 148 : 168;
  memset(b, 0, sizeof pp->pp_buf);
  pp->pp_len = total;

  // Outer IPv4.
  b[0] = 0x45;
  oam_put16(b + 2, total);
  b[8] = ttl;
  b[9] = 17;
  memcpy(b + 12, &pp->pp_tunnel_src, 4);
  memcpy(b + 16, destination.s_addr ? &destination : &pp->pp_tunnel_dst, 4);
  oam_put16(b + 10, ping_ip_checksum(b, 20));

  // Outer UDP and VXLAN.
  oam_put16(b + 20, ping_hash_port(pp, inner_is_ipv4));
  oam_put16(b + 22, OAM_PORT);
  oam_put16(b + 24, total - 20u);
  b[28] = 0x09;
  oam_put32(b + 32, pp->pp_vni << 8);

  // Inner Ethernet: type 0x0800 whatever the inner IP version.
  uint8_t *eth = b + 36;
  memcpy(eth, pp->pp_inner_dmac, 6);
  memcpy(eth + 6, pp->pp_inner_smac, 6);
  oam_put16(eth + 12, 0x0800);

  uint8_t *ip = eth + 14;
  uint8_t *udp;
  if (inner_is_ipv4) {
    ip[0] = 0x45;
    oam_put16(ip + 2, total - 50u);
    ip[8] = 255;
    ip[9] = pp->pp_protocol;
    memcpy(ip + 12, &pp->pp_inner_src4, 4);
    memcpy(ip + 16, &pp->pp_inner_dst4, 4);
    oam_put16(ip + 10, ping_ip_checksum(ip, 20));
    udp = ip + 20;
  } else {
    ip[0] = 0x60;
    oam_put16(ip + 4, total - 90u);
    ip[6] = pp->pp_protocol;
    ip[7] = 255;
    memcpy(ip + 8, &pp->pp_inner_src6, 16);
    memcpy(ip + 24, &pp->pp_inner_dst6, 16);
    udp = ip + 40;
  }
  oam_put16(udp, OAM_PORT);
  oam_put16(udp + 2, OAM_PORT);
  oam_put16(udp + 4, static_cast<uint32_t>(b + total - udp));

  // Echo request.
  uint8_t *e = udp + 8;
  e[0] = 1;
  e[1] = 3;
  oam_put32(e + 4, pp->pp_handle);
  oam_put32(e + 8, pp->pp_seq);
  timeval now;
  gettimeofday(&now, nullptr);
  oam_put32(e + 12, static_cast<uint32_t>(now.tv_sec));
  oam_put32(e + 16, static_cast<uint32_t>(now.tv_usec / 1000));

  // TLV and sub-TLV.
  uint8_t *t = e + 28;
  oam_put16(t, 1);
  oam_put32(t + 4, pp->pp_vni << 8);
  memcpy(t + 8, &pp->pp_tunnel_src, 4);
  switch (pp->pp_target) {
    case PING_TARGET_MAC:
      oam_put16(t + 2, 20);
      oam_put16(t + 12, 1);
      oam_put16(t + 14, 8);
      memcpy(t + 16, pp->pp_target_mac, 6);
      break;
    case PING_TARGET_IPV4:
      oam_put16(t + 2, 20);
      oam_put16(t + 12, 2);
      oam_put16(t + 14, 6);
      memcpy(t + 16, pp->pp_target_addr, 4);
      break;
    case PING_TARGET_IPV6:
      oam_put16(t + 2, 32);
      oam_put16(t + 12, 3);
      oam_put16(t + 14, 18);
      memcpy(t + 16, pp->pp_target_addr, 16);
      break;
    case PING_TARGET_LONG:
      oam_put16(t + 2, 38);
      oam_put16(t + 12, 5);
      oam_put16(t + 14, 18);
      memcpy(t + 16, pp->pp_target_addr, 16);
      break;
    case PING_TARGET_NONE:
      // Only the VNI and the VTEP: the responder's MAC step needs more.
      oam_put16(t + 2, 8);
      break;
  }
}

void ping_time_text(const struct timeval *tv, char *buf, size_t len) {
  time_t secs = tv->tv_sec;
  tm local;
  localtime_r(&secs, &local);
  char date[64], zone[16];
  strftime(date, sizeof date, "%b %d %Y %H:%M:%S", &local);
  strftime(zone, sizeof zone, "%Z", &local);
  snprintf(buf, len, "%s.%03d %s", date, static_cast<int>(tv->tv_usec / 1000), zone);
}
