// Per-queue counters and the Ethernet details, from the TLV index.
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "evlog/evlog.h"
#include "stats/ifstat.h"

namespace {

constexpr size_t kWords = sizeof(rts_ifst_queue) / 8;
static_assert(sizeof(rts_ifst_queue) % 8 == 0);

// The queue count of a queue TLV, or -1 when the TLV does not hold it.
int64_t queue_count(const uint8_t *v, uint32_t len) {
  if (!v || len < sizeof(rts_ifst_queues)) return -1;
  rts_ifst_queues h;
  memcpy(&h, v, sizeof h);
  if (h.n_queues > (len - sizeof h) / sizeof(rts_ifst_queue)) return -1;
  return h.n_queues;
}

bool insist(bool ok, const char *expr, const char *file, int line, const char *what) {
  if (!ok) logging(LOG_ERR, "%s:%d: insist '%s' failed: %s", file, line, expr, what);
  return ok;
}

gif_queue_stats *queues(const gif_ifd *p, uint8_t type, bool abs) {
  if (!p || (p->msg && p->msg->fixed.hdr.type != type)) return nullptr;
  const uint8_t *cur = p->tlv[RTS_IFST_QUEUE];
  int64_t n = queue_count(cur, p->tlv_len[RTS_IFST_QUEUE]);
  if (n < 0) return nullptr;
  const uint8_t *base = abs ? nullptr : p->tlv[RTS_IFST_QUEUE_BASE];
  int64_t bn = base ? queue_count(base, p->tlv_len[RTS_IFST_QUEUE_BASE]) : -1;
  if (bn >= 0)
    insist(bn == n, "qstats->n_queues == c_qstats->n_queues", __FILE__, __LINE__,
           "the baseline counts other queues than the current counters");
  int64_t common = bn < 0 ? 0 : bn < n ? bn : n;
  auto *out = static_cast<gif_queue_stats *>(
      calloc(1, sizeof(gif_queue_stats) + static_cast<size_t>(n) * sizeof(rts_ifst_queue)));
  if (!out) return nullptr;
  out->n_queues = static_cast<uint32_t>(n);
  const size_t head = sizeof(rts_ifst_queues);
  for (int64_t q = 0; q < n; q++) {
    uint64_t c[kWords], b[kWords] = {};
    memcpy(c, cur + head + q * sizeof(rts_ifst_queue), sizeof c);
    if (q < common) memcpy(b, base + head + q * sizeof(rts_ifst_queue), sizeof b);
    for (size_t w = 0; w < kWords; w++) c[w] = gif_since_clear(c[w], b[w]);
    memcpy(&out->queue[q], c, sizeof c);
  }
  return out;
}

}  // namespace

gif_queue_stats *gif_ifd_queue(const gif_ifd *p) { return queues(p, RTS_T_IFDSTATS, false); }
gif_queue_stats *gif_abs_ifd_queue(const gif_ifd *p) { return queues(p, RTS_T_IFDSTATS, true); }
gif_queue_stats *gif_ifl_queue(const gif_ifd *p) { return queues(p, RTS_T_IFLSTATS, false); }
gif_queue_stats *gif_abs_ifl_queue(const gif_ifd *p) { return queues(p, RTS_T_IFLSTATS, true); }

gif_gether_info *gif_abs_gether_info(const gif_ifd *p) {
  if (!p) return nullptr;
  if (p->msg && (p->msg->fixed.hdr.type != RTS_T_IFDSTATS ||
                 gif_media_class(p->msg->fixed.ifsm_media, p->msg->fixed.ifsm_link_type) != GIF_MEDIA_ETHER))
    return nullptr;
  const uint8_t *link = p->tlv[RTS_IFST_ETHER_LINK];
  if (!link && !p->ether_mac) return nullptr;
  auto *g = static_cast<gif_gether_info *>(calloc(1, sizeof(gif_gether_info)));
  if (!g) return nullptr;
  // A shorter value is an older sender's: what it has, the rest zero.
  if (link) {
    g->has_link = 1;
    uint32_t n = p->tlv_len[RTS_IFST_ETHER_LINK];
    memcpy(&g->link, link, n < sizeof g->link ? n : sizeof g->link);
  }
  if (p->ether_mac) {
    g->has_mac = 1;
    memcpy(&g->mac, p->ether_mac, p->ether_mac_len < sizeof g->mac ? p->ether_mac_len : sizeof g->mac);
  }
  return g;
}
