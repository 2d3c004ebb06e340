// The report: the same facts in two forms, taken from the readers' records.
#include "show.h"

#include <cinttypes>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

namespace {

struct Free {
  void operator()(void *p) const { free(p); }
};
template <class T>
using Own = std::unique_ptr<T, Free>;

std::string clear_text(uint64_t t) {
  if (!t) return "never";
  time_t s = static_cast<time_t>(t);
  tm g;
  char buf[64];
  if (!gmtime_r(&s, &g) || !strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &g)) return "?";
  return buf;
}

std::string speed_text(uint64_t bps) {
  char b[32];
  if (bps && bps % 1000000000 == 0)
    snprintf(b, sizeof b, "%" PRIu64 "Gbps", bps / 1000000000);
  else
    snprintf(b, sizeof b, "%" PRIu64 "mbps", bps / 1000000);
  return b;
}

const char *duplex_text(uint8_t d) { return d == 2 ? "full-duplex" : d == 1 ? "half-duplex" : "duplex unknown"; }
const char *autoneg_text(uint8_t a) {
  return a == 2 ? "auto-negotiation complete" : a == 1 ? "auto-negotiation on" : "auto-negotiation off";
}
const char *flow_text(uint8_t f) {
  static const char *const t[] = {"flow control off", "flow control receive", "flow control transmit",
                                  "flow control receive and transmit"};
  return t[f & 3];
}

std::string mac_text(const uint8_t *m) {
  char b[18];
  snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  return b;
}

void json_string(FILE *o, const char *s) {
  fputc('"', o);
  for (; *s; s++) {
    auto c = static_cast<unsigned char>(*s);
    if (c == '"' || c == '\\')
      fprintf(o, "\\%c", c);
    else if (c < 0x20 || c >= 0x7f)
      fprintf(o, "\\u%04x", c);
    else
      fputc(c, o);
  }
  fputc('"', o);
}

struct Facts {
  bool logical;
  const rts_ifstats_msg *f;
  const char *name;
  Own<gif_traffic> traffic, transit;
  Own<gif_errors> errors;
  Own<gif_queue_stats> queues;
  Own<gif_gether_info> ether;
};

// ---- Text ----------------------------------------------------------------------------------

void text_traffic(FILE *o, const char *title, const gif_traffic &t, bool rates, bool v6) {
  fprintf(o, "  %s:\n", title);
  if (rates) {
    fprintf(o, "    Input  bytes  : %20" PRIu64 " %16" PRIu64 " bps\n", t.in_bytes, t.in_bps);
    fprintf(o, "    Output bytes  : %20" PRIu64 " %16" PRIu64 " bps\n", t.out_bytes, t.out_bps);
    fprintf(o, "    Input  packets: %20" PRIu64 " %16" PRIu64 " pps\n", t.in_packets, t.in_pps);
    fprintf(o, "    Output packets: %20" PRIu64 " %16" PRIu64 " pps\n", t.out_packets, t.out_pps);
  } else {
    fprintf(o, "    Input  bytes  : %20" PRIu64 "\n", t.in_bytes);
    fprintf(o, "    Output bytes  : %20" PRIu64 "\n", t.out_bytes);
    fprintf(o, "    Input  packets: %20" PRIu64 "\n", t.in_packets);
    fprintf(o, "    Output packets: %20" PRIu64 "\n", t.out_packets);
  }
  fprintf(o, "    Input  unicast: %" PRIu64 ", multicast: %" PRIu64 ", broadcast: %" PRIu64 "\n", t.in_ucast,
          t.in_mcast, t.in_bcast);
  fprintf(o, "    Output unicast: %" PRIu64 ", multicast: %" PRIu64 ", broadcast: %" PRIu64 "\n", t.out_ucast,
          t.out_mcast, t.out_bcast);
  if (v6)
    fprintf(o, "    IPv6 input  bytes: %" PRIu64 ", packets: %" PRIu64 "\n    IPv6 output bytes: %" PRIu64
            ", packets: %" PRIu64 "\n",
            t.in6_bytes, t.in6_packets, t.out6_bytes, t.out6_packets);
}

void text(FILE *o, const Facts &x, const tvxstat_view &v) {
  const rts_ifstats_msg &f = *x.f;
  const char *since = v.abs ? "since the interface came up" : "since last clear";
  fprintf(o, "%s interface: %s, index %u, %s, link %s\n", x.logical ? "Logical" : "Physical", x.name,
          f.ifsm_index, f.ifsm_flags & RTS_IFSM_UP ? "enabled" : "disabled",
          f.ifsm_flags & RTS_IFSM_LINK ? "up" : "down");
  if (x.ether && x.ether->has_link) {
    const rts_ifst_ether_link &l = x.ether->link;
    fprintf(o, "  Link: Ethernet, %s, %s, %s, %s, MTU %u, MAC %s%s\n", speed_text(l.speed).c_str(),
            duplex_text(l.duplex), autoneg_text(l.autoneg), flow_text(l.flow_control), l.mtu,
            mac_text(l.mac).c_str(), l.loopback ? ", loopback" : "");
  }
  fprintf(o, "  Statistics last cleared: %s\n", clear_text(f.ifsm_clear_time).c_str());
  std::string title = std::string(x.logical ? "Local statistics" : "Traffic statistics") + " (" + since + ")";
  text_traffic(o, title.c_str(), *x.traffic, true, true);
  if (x.transit) {
    title = std::string("Transit statistics (") + since + ")";
    text_traffic(o, title.c_str(), *x.transit, false, false);
  }
  if (x.errors) {
    const gif_errors &e = *x.errors;
    fprintf(o, "  Input errors (%s):\n    Errors: %" PRIu64 ", Drops: %" PRIu64 ", Framing errors: %" PRIu64
            ", Runts: %" PRIu64 ", Giants: %" PRIu64 ", Discards: %" PRIu64 ", Resource errors: %" PRIu64 "\n",
            since, e.in_errors, e.in_drops, e.in_framing, e.in_runts, e.in_giants, e.in_discards, e.in_resource);
    fprintf(o, "  Output errors (%s):\n    Carrier transitions: %" PRIu64 ", Errors: %" PRIu64 ", Drops: %" PRIu64
            ", Collisions: %" PRIu64 ", Aged packets: %" PRIu64 ", MTU errors: %" PRIu64 "\n",
            since, e.carrier_transitions, e.out_errors, e.out_drops, e.out_collisions, e.out_aged, e.out_mtu);
  }
  if (x.queues) {
    auto table = [&](const char *title, const rts_ifst_queue *qs, uint32_t n) {
      if (!n) return;
      fprintf(o, "  %s (%s): %u\n", title, since, n);
      fprintf(o, "    %5s %16s %16s %18s %12s %12s\n", "Queue", "Queued packets", "Sent packets", "Sent bytes",
              "Tail drops", "RED drops");
      for (uint32_t i = 0; i < n; i++) {
        const rts_ifst_queue &q = qs[i];
        uint64_t red = 0;
        for (uint64_t r : q.red_drop_packets) red += r;
        fprintf(o, "    %5u %16" PRIu64 " %16" PRIu64 " %18" PRIu64 " %12" PRIu64 " %12" PRIu64 "\n", i,
                q.queued_packets, q.tx_packets, q.tx_bytes, q.tail_drop_packets, red);
      }
    };
    table("Egress queues", x.queues->queue, x.queues->n_queues);
    table("Virtual output queues", x.queues->queue + x.queues->n_queues, x.queues->n_voqs);
  }
  if (x.ether && x.ether->has_mac) {
    const rts_ifst_ether_mac &m = x.ether->mac;
    fprintf(o, "  MAC statistics (since the link came up): %16s %16s\n", "Receive", "Transmit");
    auto row = [&](const char *what, uint64_t in, const uint64_t *out) {
      if (out)
        fprintf(o, "    %-37s %16" PRIu64 " %16" PRIu64 "\n", what, in, *out);
      else
        fprintf(o, "    %-37s %16" PRIu64 "\n", what, in);
    };
    row("Total octets", m.in_octets, &m.out_octets);
    row("Total frames", m.in_frames, &m.out_frames);
    row("Unicast frames", m.in_ucast, &m.out_ucast);
    row("Multicast frames", m.in_mcast, &m.out_mcast);
    row("Broadcast frames", m.in_bcast, &m.out_bcast);
    row("Pause frames", m.in_pause, &m.out_pause);
    row("CRC errors", m.in_crc_errors, nullptr);
    row("Alignment errors", m.in_align_errors, nullptr);
    row("Fragment frames", m.in_fragments, nullptr);
    row("Jabber frames", m.in_jabbers, nullptr);
    row("Oversized frames", m.in_oversized, nullptr);
    row("Undersized frames", m.in_undersized, nullptr);
  }
}

// ---- JSON ----------------------------------------------------------------------------------

void json_traffic(FILE *o, const char *key, const gif_traffic &t, bool rates, bool v6) {
  fprintf(o, ",\"%s\":{\"in_bytes\":%" PRIu64 ",\"out_bytes\":%" PRIu64 ",\"in_packets\":%" PRIu64
          ",\"out_packets\":%" PRIu64 ",\"in_unicast\":%" PRIu64 ",\"in_multicast\":%" PRIu64
          ",\"in_broadcast\":%" PRIu64 ",\"out_unicast\":%" PRIu64 ",\"out_multicast\":%" PRIu64
          ",\"out_broadcast\":%" PRIu64,
          key, t.in_bytes, t.out_bytes, t.in_packets, t.out_packets, t.in_ucast, t.in_mcast, t.in_bcast,
          t.out_ucast, t.out_mcast, t.out_bcast);
  if (v6)
    fprintf(o, ",\"in6_bytes\":%" PRIu64 ",\"in6_packets\":%" PRIu64 ",\"out6_bytes\":%" PRIu64
            ",\"out6_packets\":%" PRIu64,
            t.in6_bytes, t.in6_packets, t.out6_bytes, t.out6_packets);
  if (rates)
    fprintf(o, ",\"in_bps\":%" PRIu64 ",\"in_pps\":%" PRIu64 ",\"out_bps\":%" PRIu64 ",\"out_pps\":%" PRIu64,
            t.in_bps, t.in_pps, t.out_bps, t.out_pps);
  fputc('}', o);
}

void json(FILE *o, const Facts &x, const tvxstat_view &v) {
  const rts_ifstats_msg &f = *x.f;
  fprintf(o, "{\"name\":");
  json_string(o, x.name);
  fprintf(o, ",\"index\":%u,\"kind\":\"%s\",\"since\":\"%s\",\"enabled\":%s,\"link_up\":%s,\"last_cleared\":",
          f.ifsm_index, x.logical ? "logical" : "physical", v.abs ? "up" : "clear",
          f.ifsm_flags & RTS_IFSM_UP ? "true" : "false", f.ifsm_flags & RTS_IFSM_LINK ? "true" : "false");
  if (f.ifsm_clear_time)
    fprintf(o, "%" PRIu64, f.ifsm_clear_time);
  else
    fputs("null", o);
  json_traffic(o, x.logical ? "local" : "traffic", *x.traffic, true, true);
  if (x.transit) json_traffic(o, "transit", *x.transit, false, false);
  if (x.errors) {
    const gif_errors &e = *x.errors;
    fprintf(o, ",\"errors\":{\"in_errors\":%" PRIu64 ",\"in_drops\":%" PRIu64 ",\"in_framing\":%" PRIu64
            ",\"in_runts\":%" PRIu64 ",\"in_giants\":%" PRIu64 ",\"in_discards\":%" PRIu64
            ",\"in_resource\":%" PRIu64 ",\"out_errors\":%" PRIu64 ",\"out_drops\":%" PRIu64
            ",\"out_collisions\":%" PRIu64 ",\"out_aged\":%" PRIu64 ",\"out_mtu\":%" PRIu64
            ",\"carrier_transitions\":%" PRIu64 "}",
            e.in_errors, e.in_drops, e.in_framing, e.in_runts, e.in_giants, e.in_discards, e.in_resource,
            e.out_errors, e.out_drops, e.out_collisions, e.out_aged, e.out_mtu, e.carrier_transitions);
  }
  if (x.queues) {
    auto list = [&](const char *key, const rts_ifst_queue *qs, uint32_t n) {
      fprintf(o, ",\"%s\":[", key);
      for (uint32_t i = 0; i < n; i++) {
        const rts_ifst_queue &q = qs[i];
        fprintf(o, "%s{\"queue\":%u,\"queued_packets\":%" PRIu64 ",\"queued_bytes\":%" PRIu64
                ",\"tx_packets\":%" PRIu64 ",\"tx_bytes\":%" PRIu64 ",\"tail_drop_packets\":%" PRIu64
                ",\"red_drop_packets\":[%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 "]"
                ",\"red_drop_bytes\":[%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 "]}",
                i ? "," : "", i, q.queued_packets, q.queued_bytes, q.tx_packets, q.tx_bytes, q.tail_drop_packets,
                q.red_drop_packets[0], q.red_drop_packets[1], q.red_drop_packets[2], q.red_drop_packets[3],
                q.red_drop_bytes[0], q.red_drop_bytes[1], q.red_drop_bytes[2], q.red_drop_bytes[3]);
      }
      fputc(']', o);
    };
    list("queues", x.queues->queue, x.queues->n_queues);
    list("voqs", x.queues->queue + x.queues->n_queues, x.queues->n_voqs);
  }
  if (x.ether) {
    fputs(",\"ethernet\":{", o);
    const char *sep = "";
    if (x.ether->has_link) {
      const rts_ifst_ether_link &l = x.ether->link;
      fprintf(o, "\"speed\":%" PRIu64 ",\"mtu\":%u,\"duplex\":\"%s\",\"autoneg\":\"%s\",\"flow_control\":%u,"
              "\"loopback\":%s,\"mac\":\"%s\"",
              l.speed, l.mtu, l.duplex == 2 ? "full" : l.duplex == 1 ? "half" : "unknown",
              l.autoneg == 2 ? "complete" : l.autoneg == 1 ? "on" : "off", l.flow_control,
              l.loopback ? "true" : "false", mac_text(l.mac).c_str());
      sep = ",";
    }
    if (x.ether->has_mac) {
      const rts_ifst_ether_mac &m = x.ether->mac;
      fprintf(o, "%s\"mac_statistics\":{\"in_octets\":%" PRIu64 ",\"in_frames\":%" PRIu64 ",\"in_unicast\":%" PRIu64
              ",\"in_multicast\":%" PRIu64 ",\"in_broadcast\":%" PRIu64 ",\"in_crc_errors\":%" PRIu64
              ",\"in_align_errors\":%" PRIu64 ",\"in_fragments\":%" PRIu64 ",\"in_jabbers\":%" PRIu64
              ",\"in_oversized\":%" PRIu64 ",\"in_undersized\":%" PRIu64 ",\"in_pause\":%" PRIu64
              ",\"out_octets\":%" PRIu64 ",\"out_frames\":%" PRIu64 ",\"out_unicast\":%" PRIu64
              ",\"out_multicast\":%" PRIu64 ",\"out_broadcast\":%" PRIu64 ",\"out_pause\":%" PRIu64 "}",
              sep, m.in_octets, m.in_frames, m.in_ucast, m.in_mcast, m.in_bcast, m.in_crc_errors,
              m.in_align_errors, m.in_fragments, m.in_jabbers, m.in_oversized, m.in_undersized, m.in_pause,
              m.out_octets, m.out_frames, m.out_ucast, m.out_mcast, m.out_bcast, m.out_pause);
    }
    fputc('}', o);
  }
  fputs("}\n", o);
}

}  // namespace

bool tvxstat_show(FILE *out, const gif_ifd *p, const tvxstat_view &v) {
  Facts x;
  x.f = &p->msg->fixed;
  x.logical = x.f->hdr.type == RTS_T_IFLSTATS;
  x.name = p->msg->parts.name ? p->msg->parts.name : "?";
  if (x.logical) {
    x.traffic.reset(v.abs ? gif_abs_ifl_local_traffic(p) : gif_ifl_local_traffic(p));
    x.transit.reset(v.abs ? gif_abs_ifl_remote_traffic(p) : gif_ifl_remote_traffic(p));
    x.queues.reset(v.abs ? gif_abs_ifl_queue(p) : gif_ifl_queue(p));
  } else {
    x.traffic.reset(v.abs ? gif_abs_ifd_traffic(p) : gif_ifd_traffic(p));
    x.errors.reset(v.abs ? gif_abs_ifd_errors(p) : gif_ifd_errors(p));
    x.queues.reset(v.abs ? gif_abs_ifd_queue(p) : gif_ifd_queue(p));
    x.ether.reset(gif_abs_gether_info(p));
    if (!x.errors) return false;
  }
  if (!x.traffic) return false;
  if (v.json)
    json(out, x, v);
  else
    text(out, x, v);
  return true;
}
