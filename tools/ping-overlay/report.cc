// ping-overlay's output, text or JSON lines.
#include "report.h"

#include <arpa/inet.h>

#include <cinttypes>

namespace {

const char *ip(in_addr a, char *buf) { return inet_ntop(AF_INET, &a, buf, INET_ADDRSTRLEN); }

const char *target_text(const ping_probe &pp, char *buf, size_t len) {
  char a[INET6_ADDRSTRLEN];
  switch (pp.pp_target) {
    case PING_TARGET_MAC:
      snprintf(buf, len, "MAC %02x:%02x:%02x:%02x:%02x:%02x", pp.pp_target_mac[0], pp.pp_target_mac[1],
               pp.pp_target_mac[2], pp.pp_target_mac[3], pp.pp_target_mac[4], pp.pp_target_mac[5]);
      break;
    case PING_TARGET_IPV4:
      snprintf(buf, len, "IP %s", inet_ntop(AF_INET, pp.pp_target_addr, a, sizeof a));
      break;
    case PING_TARGET_IPV6:
      snprintf(buf, len, "IP %s", inet_ntop(AF_INET6, pp.pp_target_addr, a, sizeof a));
      break;
    case PING_TARGET_LONG:
      snprintf(buf, len, "IP %s (long form)", inet_ntop(AF_INET6, pp.pp_target_addr, a, sizeof a));
      break;
    case PING_TARGET_NONE:
      snprintf(buf, len, "the VNI only");
      break;
  }
  return buf;
}

void json_time(FILE *out, const char *key, const timeval &tv) {
  char t[64];
  ping_time_text(&tv, t, sizeof t);
  fprintf(out, ",\"%s\":", key);
  po_json_string(out, t);
}

}  // namespace

void po_json_string(FILE *out, const char *text) {
  fputc('"', out);
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; p++) {
    if (*p == '"' || *p == '\\')
      fprintf(out, "\\%c", *p);
    else if (*p < 0x20)
      fprintf(out, "\\u%04x", *p);
    else
      fputc(*p, out);
  }
  fputc('"', out);
}

void po_print_header(const po_report &r, const ping_probe &pp, uint32_t bd) {
  char s[INET_ADDRSTRLEN], d[INET_ADDRSTRLEN], t[80];
  if (r.opt->json) {
    fprintf(r.out, "{\"type\":\"start\",\"vni\":%u,\"source\":\"%s\",\"destination\":\"%s\",\"bridge_domain\":%u,"
                   "\"handle\":%u,\"bytes\":%u,\"target\":",
            pp.pp_vni, ip(pp.pp_tunnel_src, s), ip(pp.pp_tunnel_dst, d), bd, pp.pp_handle, pp.pp_len);
    po_json_string(r.out, target_text(pp, t, sizeof t));
    fputs("}\n", r.out);
    return;
  }
  fprintf(r.out, "PING-OVERLAY VNI %u %s -> %s, bridge domain %u, %s: %u bytes", pp.pp_vni, ip(pp.pp_tunnel_src, s),
          ip(pp.pp_tunnel_dst, d), bd, target_text(pp, t, sizeof t), pp.pp_len);
  if (r.opt->verbose) fprintf(r.out, ", handle %u, inner IPv%d", pp.pp_handle, r.opt->inner_ipv6 ? 6 : 4);
  fputc('\n', r.out);
}

void po_print_sent(const po_report &r, const ping_probe &pp) {
  if (!r.opt->verbose || r.opt->quiet || r.opt->json) return;
  char d[INET_ADDRSTRLEN];
  fprintf(r.out, "sent seq=%u to %s, UDP source port %u\n", pp.pp_seq, ip(pp.pp_tunnel_dst, d),
          pp.pp_buf[20] << 8 | pp.pp_buf[21]);
}

void po_print_reply(const po_report &r, po_verdict v, const ping_reply &rep, in_addr from, size_t bytes,
                    int64_t rtt_us) {
  if (r.opt->quiet) return;
  char f[INET_ADDRSTRLEN], rcb[32], macb[32], sent[64], recv[64];
  const char *rc = ping_return_code_text(rep.pr_return_code, rcb, sizeof rcb);
  const char *mac = ping_mac_status_text(rep.pr_mac_status, macb, sizeof macb);
  if (r.opt->json) {
    fprintf(r.out, "{\"type\":\"%s\",\"seq\":%u,\"handle\":%u,\"from\":\"%s\",\"bytes\":%zu", po_verdict_name(v),
            rep.pr_seq, rep.pr_handle, ip(from, f), bytes);
    if (v == PO_ANSWER) fprintf(r.out, ",\"rtt_ms\":%.3f", rtt_us / 1000.0);
    fprintf(r.out, ",\"vni\":%u,\"return_code\":%u,\"return_code_text\":", rep.pr_vni, rep.pr_return_code);
    po_json_string(r.out, rc);
    fprintf(r.out, ",\"mac_status\":%u,\"mac_status_text\":", rep.pr_mac_status);
    po_json_string(r.out, mac);
    json_time(r.out, "sent", rep.pr_sent);
    json_time(r.out, "received", rep.pr_received);
    fputs("}\n", r.out);
    return;
  }
  ping_time_text(&rep.pr_sent, sent, sizeof sent);
  ping_time_text(&rep.pr_received, recv, sizeof recv);
  switch (v) {
    case PO_ANSWER:
      fprintf(r.out, "%zu bytes from %s: seq=%u time=%.3f ms: %s, %s; sent %s, received %s\n", bytes, ip(from, f),
              rep.pr_seq, rtt_us / 1000.0, rc, mac, sent, recv);
      break;
    case PO_DUPLICATE:
      fprintf(r.out, "%zu bytes from %s: seq=%u: %s, %s (DUP! already answered, not counted)\n", bytes, ip(from, f),
              rep.pr_seq, rc, mac);
      break;
    case PO_LATE:
      fprintf(r.out, "%zu bytes from %s: seq=%u: %s, %s (late: after its wait, not counted)\n", bytes, ip(from, f),
              rep.pr_seq, rc, mac);
      break;
    case PO_FOREIGN:
      fprintf(r.out, "%zu bytes from %s: seq=%u handle %u: not a reply to this ping, ignored\n", bytes, ip(from, f),
              rep.pr_seq, rep.pr_handle);
      break;
  }
}

void po_print_timeout(const po_report &r, uint32_t seq) {
  if (r.opt->quiet) return;
  if (r.opt->json)
    fprintf(r.out, "{\"type\":\"timeout\",\"seq\":%u}\n", seq);
  else
    fprintf(r.out, "no reply for seq=%u within %.3g s\n", seq, r.opt->wait_ms / 1000.0);
}

void po_print_error(const po_report &r, uint32_t seq, in_addr from, const char *what) {
  if (r.opt->quiet) return;
  char f[INET_ADDRSTRLEN];
  if (r.opt->json) {
    fprintf(r.out, "{\"type\":\"error\",\"seq\":%u,\"from\":\"%s\",\"error\":", seq, ip(from, f));
    po_json_string(r.out, what);
    fputs("}\n", r.out);
  } else {
    fprintf(r.out, "From %s seq=%u %s\n", ip(from, f), seq, what);
  }
}

void po_print_summary(const po_report &r, const po_stats &s, int64_t elapsed_us) {
  char d[INET_ADDRSTRLEN], b[32];
  if (r.opt->json) {
    fprintf(r.out,
            "{\"type\":\"summary\",\"destination\":\"%s\",\"vni\":%u,\"sent\":%u,\"received\":%u,"
            "\"loss_percent\":%.1f,\"duplicates\":%u,\"late\":%u,\"foreign\":%u,\"errors\":%u,\"time_ms\":%" PRId64,
            ip(r.opt->tunnel_dst, d), r.opt->vni, s.sent, s.received, s.loss_percent(), s.duplicates, s.late,
            s.foreign, s.errors, elapsed_us / 1000);
    if (s.received)
      fprintf(r.out, ",\"rtt_min_ms\":%.3f,\"rtt_avg_ms\":%.3f,\"rtt_max_ms\":%.3f,\"rtt_mdev_ms\":%.3f",
              s.rtt_min / 1000.0, s.rtt_avg_ms(), s.rtt_max / 1000.0, s.rtt_mdev_ms());
    fputs(",\"return_codes\":{", r.out);
    const char *sep = "";
    for (auto [rc, n] : s.return_codes) {
      fprintf(r.out, "%s\"%u\":%u", sep, rc, n);
      sep = ",";
    }
    fputs("}}\n", r.out);
    return;
  }
  fprintf(r.out, "\n--- %s overlay ping statistics, VNI %u ---\n", ip(r.opt->tunnel_dst, d), r.opt->vni);
  fprintf(r.out, "%u probes transmitted, %u received", s.sent, s.received);
  if (s.duplicates) fprintf(r.out, ", +%u duplicates", s.duplicates);
  if (s.late) fprintf(r.out, ", +%u late", s.late);
  if (s.foreign) fprintf(r.out, ", +%u foreign", s.foreign);
  if (s.errors) fprintf(r.out, ", +%u errors", s.errors);
  fprintf(r.out, ", %g%% packet loss, time %" PRId64 "ms\n", s.loss_percent(), elapsed_us / 1000);
  if (s.received)
    fprintf(r.out, "rtt min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", s.rtt_min / 1000.0, s.rtt_avg_ms(),
            s.rtt_max / 1000.0, s.rtt_mdev_ms());
  if (!s.return_codes.empty()) {
    fputs("return codes:", r.out);
    const char *sep = " ";
    for (auto [rc, n] : s.return_codes) {
      fprintf(r.out, "%s%s %u", sep, ping_return_code_text(rc, b, sizeof b), n);
      sep = ", ";
    }
    fputc('\n', r.out);
  }
}
