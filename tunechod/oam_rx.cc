// Echo processing: a request on UDP 4789 becomes a reply in place, behind a
// new outer IPv4 and UDP header, and leaves from the raw socket. The inner
// frame is never parsed: four fields are read at fixed offsets, the rest is
// returned as it came.
#include <arpa/inet.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "oam/oam.h"
#include "sockaddr/families.h"
#include "task/io.h"
#include "tunechod.h"

sockaddr_in oam_peer, oam_local;
uint8_t oam_pkt[TUNECHOD_PKT_SIZE];
tunechod_stats_t tunechod_stats;

namespace {

constexpr uint32_t kOuter = 28;  // outer IPv4 and UDP headers in front of the request

// The bytes of an IPv4 address in network order, for "%u.%u.%u.%u".
#define QUAD(p) static_cast<uint32_t>((p)[0]), static_cast<uint32_t>((p)[1]), static_cast<uint32_t>((p)[2]), \
                static_cast<uint32_t>((p)[3])

// The bridge domain of vni: in table rtb_id, or, with rtb_id 0, in the first
// table after 0 that holds it (a table filed under id 0 is skipped). for_mac
// picks the MAC lookup's trace lines; caller names the function in them.
bd_data *find_vni(uint32_t vni, uint32_t rtb_id, const char *caller, bool for_mac) {
  if (rtb_id != 0) {
    rtb_entry *rtb = tunechod_rtb_find(rtb_id);
    if (!rtb) {
      daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS, "C(%d-%s): bdvni lookup failed for rtb_idx %u",
                   getpid(), caller, rtb_id);
      return nullptr;
    }
    bd_data *bd = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &vni));
    if (!bd)
      daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS, "C(%d-%s): vni lookup failed for vni %u", getpid(),
                   caller, vni);
    return bd;
  }
  uint32_t key = 0;
  if (tunechod_app.rtb_tbl) {
    while (rtb_entry *rtb = static_cast<rtb_entry *>(sparse_table16_next(tunechod_app.rtb_tbl, &key, &key))) {
      if (bd_data *bd = static_cast<bd_data *>(sparse_table32_lookup(rtb->vni_tbl, &vni))) {
        if (for_mac)
          daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS,
                       "C(%d-%s): lookup for vni %u to get mac found bd_data with bd_id:%u for rtb_idx: %u", getpid(),
                       caller, vni, static_cast<uint32_t>(bd->bd_id), key);
        return bd;
      }
    }
  }
  if (for_mac)
    daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS,
                 "C(%d-%s): vni lookup FAILED to get mac from kernel for vni %u", getpid(), caller, vni);
  else
    daemon_trace(&tunechod_trace, -1, DAEMON_TRACE_PACKETS, "C(%d-%s): vni lookup failed for vni:%u with RTB ID:%u ",
                 getpid(), caller, vni, rtb_id);
  return nullptr;
}

}  // namespace

void tunechod_rx_read(task *tp) {
  size_t n;
  while (task_receive_packet(tp, &n) == 0) {
    const task_recv_info *ri = task_get_recv_info();
    memset(&oam_peer, 0, sizeof oam_peer);
    memset(&oam_local, 0, sizeof oam_local);
    oam_peer.sin_family = oam_local.sin_family = AF_INET;
    if (ri->tri_src) {
      oam_peer.sin_addr.s_addr = inet_sockextract_in(ri->tri_src);
      oam_peer.sin_port = sockport_in(ri->tri_src);
    }
    if (ri->tri_dst) {
      oam_local.sin_addr.s_addr = inet_sockextract_in(ri->tri_dst);
      oam_local.sin_port = sockport_in(ri->tri_dst);
    }
    tunechod_recv_oam_packet(task_get_recv_buffer(), static_cast<uint32_t>(n), tunechod_app.raw_sock, &oam_peer,
                             &oam_local, ri->tri_rtbl_index & 0xFFFF, static_cast<uint32_t>(ri->tri_ifindex));
  }
}

void tunechod_recv_oam_packet(const uint8_t *data, uint32_t length, int raw_socket, sockaddr_in *peer,
                              sockaddr_in *local, uint32_t rtb_id, uint32_t ifl_index) {
  tunechod_stats.rx_datagrams++;
  if (tunechod_parse_oam_packet(data, length, raw_socket, peer, local, rtb_id, ifl_index))
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "packet parsing failed");
}

int tunechod_inner_ip_is_ipv4(const uint8_t *packet) {
  if ((packet[22] >> 4) == 4) {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Ipv4 is passed");
    return 1;
  }
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Ipv4 is not passed");
  return 0;
}

int tunechod_parse_oam_packet(const uint8_t *data, uint32_t length, int raw_socket, sockaddr_in *peer,
                              sockaddr_in *local, uint32_t rtb_id, uint32_t ifl_index) {
  if (length < TUNECHOD_REQ_MIN) {
    tunechod_stats.rx_too_short++;
    return 1;
  }
  if (length > TUNECHOD_REQ_MAX) {
    tunechod_stats.rx_too_long++;
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Received unexepected number of bytes %u", length);
    return 1;
  }
  if (!(data[0] & 0x01)) {
    tunechod_stats.rx_not_oam++;
    return 1;
  }
  const uint8_t *src = reinterpret_cast<const uint8_t *>(&peer->sin_addr);
  const uint8_t *dst = reinterpret_cast<const uint8_t *>(&local->sin_addr);
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Received UDP packet from %u.%u.%u.%u port %u to %u.%u.%u.%u port %u", QUAD(src),
                 static_cast<uint32_t>(ntohs(peer->sin_port)), QUAD(dst), static_cast<uint32_t>(TUNECHOD_PORT));

  // The inner IP version is read from the request itself (byte 22 lies inside
  // any accepted length), so the request is copied once, behind the headers.
  const int v4 = tunechod_inner_ip_is_ipv4(data);
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Underlay type is  %d", v4);

  const uint32_t total = v4 ? TUNECHOD_REPLY_V4 : TUNECHOD_REPLY_V6;
  memset(oam_pkt, 0, total);
  oam_pkt[0] = 0x45;
  oam_put16(oam_pkt + 2, total);
  oam_pkt[8] = 255;
  oam_pkt[9] = 17;
  memcpy(oam_pkt + 12, &local->sin_addr, 4);
  memcpy(oam_pkt + 16, &peer->sin_addr, 4);
  oam_put16(oam_pkt + 20, TUNECHOD_PORT);
  oam_put16(oam_pkt + 22, TUNECHOD_PORT);
  oam_put16(oam_pkt + 24, total - 20);
  // The whole request behind the headers; a long one reaches the buffer's end.
  memcpy(oam_pkt + kOuter, data, length);

  uint8_t *e = oam_pkt + (v4 ? 78 : 98);
  uint8_t *t = e + 28;
  timeval now;
  gettimeofday(&now, nullptr);
  if (e[0] != 1) {
    tunechod_stats.rx_not_request++;
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS,
                   "Did not recieve a echo request message type. Message type received is %d", static_cast<int>(e[0]));
    return 0;
  }
  e[0] = 2;
  oam_put32(e + 20, static_cast<uint32_t>(now.tv_sec));
  oam_put32(e + 24, static_cast<uint32_t>(now.tv_usec / 1000));

  const uint32_t vni = oam_get32(t + 4) >> 8;
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Received Oam Packet to parse vni, lookup vni %u with rtb_id %u", vni, rtb_id);
  if (tunechod_get_vni(vni, rtb_id, 0, nullptr) != 0) {
    tunechod_stats.vni_unknown++;
    e[2] = 2;
  } else {
    tunechod_stats.vni_known++;
    e[2] = 4;
    if (oam_get16(t + 2) > 7 && oam_get16(t + 14) > 5) {
      const int absent = tunechod_get_mac_from_kernel(t + 16, vni, rtb_id);
      absent ? tunechod_stats.mac_absent++ : tunechod_stats.mac_present++;
      oam_put16(t + 22, absent ? 2 : 1);
    }
  }

  peer->sin_port = TUNECHOD_PORT;  // host order: the raw socket ignores the port
  if (tunechod_set_source_ip(oam_pkt, ifl_index) != 0)
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "Unable to determine source address");
  ssize_t sent = sendto(raw_socket, oam_pkt, total, 0, reinterpret_cast<sockaddr *>(peer), sizeof *peer);
  if (sent < 0 || static_cast<uint32_t>(sent) != total) {
    tunechod_stats.tx_errors++;
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "sendto error %s", strerror(errno));
  } else {
    tunechod_stats.tx_replies++;
  }
  return 0;
}

int tunechod_get_vni(uint32_t vni, uint32_t rtb_id, uint32_t rvtep_addr, uint32_t *bd_id_out) {
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "looking up vni %u rtb_idx %u def_rtb_id %u", vni, rtb_id,
                 static_cast<uint32_t>(tunechod_app.def_rtb_id));
  bd_data *bd = find_vni(vni, rtb_id, __func__, false);
  if (!bd) return 1;

  char name[FDBLEARND_NAME_LEN] = "";
  uint32_t rvtep_ifl_idx = 0;
  tunechod_stats.fdblearnd_queries++;
  fdblearnd_lookup(vni, rtb_id, 0, rvtep_addr, name, &rvtep_ifl_idx);
  in_addr a;
  a.s_addr = rvtep_addr;
  const char *rvtep = inet_ntoa(a);
  if (rtb_id != 0)
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS,
                   "lookup Fdblearnd for VNI:%u rvtep-dest:%s rtb_idx:%u found bd_id:%u bdname:%s rvtep_ifl_idx:%u ",
                   vni, rvtep, rtb_id, static_cast<uint32_t>(bd->bd_id), name, rvtep_ifl_idx);
  else
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS,
                   "lookup Fdblearnd for VNI:%u rvtep-dest:%s found bd_id:%u bdname:%s rvtep_ifl_idx:%u ", vni, rvtep,
                   static_cast<uint32_t>(bd->bd_id), name, rvtep_ifl_idx);
  if (bd_id_out && rvtep_ifl_idx) *bd_id_out = bd->bd_id;
  return 0;
}

int tunechod_get_mac_from_kernel(const uint8_t *mac, uint32_t vni, uint32_t rtb_id) {
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "looking up vni:%u to get mac from kernel for rtb_idx:%u def_rtb_id %u", vni,
                 rtb_id, static_cast<uint32_t>(tunechod_app.def_rtb_id));
  bd_data *bd = find_vni(vni, rtb_id, __func__, true);
  if (!bd) return 1;

  uint8_t key[10] = {};
  oam_put16(key, bd->bd_id);
  memcpy(key + 4, mac, 6);
  rtslib_cookie *cookie = tunechod_app.rts_sync_cookie;
  if (!cookie) {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "rts_sync_cookie is NULL");
    return 1;
  }
  rts_rt_msg *rtm = nullptr;
  if (rtslib_rtm_get(cookie, static_cast<uint16_t>(rtb_id), 63, key, 80, 0, 0, 0, 0, RTS_OP_GET, &rtm, 0) != 0) {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "rtslib_rtm_get failed: MAC is not present, lookup failed");
    if (rtm) rtslib_msg_idl_release(cookie, rtm);
    return 1;
  }
  if (!rtm) {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "rtslib_rtm_get succeeded, but rtm NULL");
    return 1;
  }
  const int absent = (rtm->rtm_flags & 1) || rtm->rtm_type != 2;
  rtslib_msg_idl_release(cookie, rtm);
  return absent;
}

int tunechod_set_source_ip(uint8_t *reply, uint32_t ifl_index) {
  rtslib_cookie *cookie = tunechod_app.rts_sync_cookie;
  if (!cookie) {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "rts_sync_cookie is NULL");
    return 1;
  }
  rts_ifl_msg *ifl = nullptr;
  rtslib_iflm_get_by_name(cookie, "lo0", 0, RTS_OP_GET, &ifl, 0);
  if (ifl) {
    rts_ifa_msg *ifa = nullptr;
    rtslib_ifam_get_by_local(cookie, ifl->iflm_index, AF_INET, &reply[12], 32, RTS_OP_GET, &ifa, 0);
    rtslib_msg_idl_release(cookie, ifl);
    if (ifa) {
      TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "final dest - source address set to %u.%u.%u.%u", QUAD(reply + 12));
      rtslib_msg_idl_release(cookie, ifa);
      return 0;
    }
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "dest address of OAM req %u.%u.%u.%u not configured on lo0.0",
                   QUAD(reply + 12));
  } else {
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "couldn't get lo0.0 ifl");
  }

  rts_ifa_msg *ifa = nullptr;
  rtslib_ifam_get_by_dest(cookie, ifl_index, AF_INET, &reply[16], 32, RTS_OP_GET, &ifa, 0);
  if (ifa && ifa->ifam_local && ifa->ifam_local_plen >= 4) {
    memcpy(reply + 12, ifa->ifam_local, 4);
    TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "transit - source address set to %u.%u.%u.%u", QUAD(reply + 12));
    rtslib_msg_idl_release(cookie, ifa);
    return 0;
  }
  if (ifa) rtslib_msg_idl_release(cookie, ifa);
  TUNECHOD_TRACE(DAEMON_TRACE_PACKETS, "couldn't get ingress interface address");
  return 1;
}
