// The echo reply as the ping command reads it, and its codes in words.
#include <cstdio>
#include <cstring>

#include "oam/oam.h"

bool ping_reply_parse(const uint8_t *payload, size_t len, struct ping_reply *out) {
  if (len < 23 || !(payload[0] & 0x01)) return false;
  const bool v4 = payload[22] >> 4 == 4;
  const size_t e = v4 ? 50 : 70, t = e + 28;
  if (len < t + 24) return false;  // up to the MAC status
  const uint8_t *h = payload + e;
  out->pr_flags = payload[0];
  out->pr_inner_ipv4 = v4;
  out->pr_type = h[0];
  out->pr_return_code = h[2];
  out->pr_handle = oam_get32(h + 4);
  out->pr_seq = oam_get32(h + 8);
  out->pr_sent = {static_cast<time_t>(oam_get32(h + 12)), static_cast<suseconds_t>(oam_get32(h + 16) % 1000 * 1000)};
  out->pr_received = {static_cast<time_t>(oam_get32(h + 20)), static_cast<suseconds_t>(oam_get32(h + 24) % 1000 * 1000)};
  out->pr_vni = oam_get32(payload + t + 4) >> 8;
  out->pr_mac_status = static_cast<uint16_t>(payload[t + 22] << 8 | payload[t + 23]);
  return true;
}

bool ping_udp_payload(const uint8_t *packet, size_t len, struct in_addr to, struct in_addr *from,
                      const uint8_t **payload, size_t *payload_len) {
  if (len < 20) return false;
  const size_t ihl = (packet[0] & 0x0Fu) * 4;
  if (packet[0] >> 4 != 4 || ihl < 20 || len < ihl + 8 || packet[9] != IPPROTO_UDP ||
      memcmp(packet + 16, &to, 4) != 0)
    return false;
  const uint8_t *udp = packet + ihl;
  if ((udp[2] << 8 | udp[3]) != OAM_PORT) return false;
  memcpy(from, packet + 12, 4);
  *payload = udp + 8;
  *payload_len = len - ihl - 8;
  return true;
}

bool ping_icmp_parse(const uint8_t *packet, size_t len, struct in_addr tunnel_src, uint8_t *type, uint8_t *code,
                     struct ping_reply *probe) {
  if (len < 20) return false;
  const size_t ihl = (packet[0] & 0x0Fu) * 4;
  if (ihl < 20 || len < ihl + 8 + 20) return false;
  const uint8_t *icmp = packet + ihl, *quoted = icmp + 8;
  if (icmp[0] != 3 && icmp[0] != 11) return false;
  const size_t qihl = (quoted[0] & 0x0Fu) * 4, quoted_len = len - ihl - 8;
  if (qihl < 20 || quoted_len < qihl + 8 || quoted[9] != IPPROTO_UDP || memcmp(quoted + 12, &tunnel_src, 4) != 0)
    return false;
  const uint8_t *udp = quoted + qihl;
  if ((udp[2] << 8 | udp[3]) != OAM_PORT || !ping_reply_parse(udp + 8, quoted_len - qihl - 8, probe)) return false;
  *type = icmp[0];
  *code = icmp[1];
  return true;
}

const char *ping_return_code_text(uint8_t rc, char *buf, size_t len) {
  if (rc == PING_RC_VNI_KNOWN) return "VNI known";
  if (rc == PING_RC_VNI_UNKNOWN) return "VNI unknown";
  snprintf(buf, len, "return code %u", rc);
  return buf;
}

const char *ping_mac_status_text(uint16_t status, char *buf, size_t len) {
  switch (status) {
    case PING_MAC_NOT_CHECKED:
      return "MAC not checked";
    case PING_MAC_PRESENT:
      return "MAC present";
    case PING_MAC_ABSENT:
      return "MAC absent";
  }
  snprintf(buf, len, "MAC status %u", status);
  return buf;
}
