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

// One set of queues: its current TLV and, since the last clear, its baseline.
struct Set {
  const uint8_t *cur = nullptr, *base = nullptr;
  int64_t n = -1, bn = -1;
  Set(const gif_ifd *p, uint16_t cur_type, uint16_t base_type, bool abs, const char *expr) {
    cur = p->tlv[cur_type];
    n = queue_count(cur, p->tlv_len[cur_type]);
    if (n < 0 || abs) return;
    base = p->tlv[base_type];
    bn = base ? queue_count(base, p->tlv_len[base_type]) : -1;
    if (bn >= 0) insist(bn == n, expr, __FILE__, __LINE__, "the baseline counts other queues than the current counters");
  }
  uint32_t count() const { return n < 0 ? 0 : static_cast<uint32_t>(n); }
  // Queue q since the last clear (or as it is where the baseline has none).
  void read(int64_t q, rts_ifst_queue *out) const {
    const size_t head = sizeof(rts_ifst_queues);
    uint64_t c[kWords], b[kWords] = {};
    memcpy(c, cur + head + q * sizeof(rts_ifst_queue), sizeof c);
    if (q < bn) memcpy(b, base + head + q * sizeof(rts_ifst_queue), sizeof b);
    for (size_t w = 0; w < kWords; w++) c[w] = gif_since_clear(c[w], b[w]);
    memcpy(out, c, sizeof c);
  }
};

gif_queue_stats *queues(const gif_ifd *p, uint8_t type, bool abs) {
  if (!p || (p->msg && p->msg->fixed.hdr.type != type)) return nullptr;
  Set q(p, RTS_IFST_QUEUE, RTS_IFST_QUEUE_BASE, abs, "qstats->n_queues == c_qstats->n_queues");
  Set v(p, RTS_IFST_VOQ, RTS_IFST_VOQ_BASE, abs, "voqstats->n_queues == c_voqstats->n_queues");
  if (q.n < 0 && v.n < 0) return nullptr;
  size_t total = size_t{q.count()} + v.count();
  auto *out = static_cast<gif_queue_stats *>(calloc(1, sizeof(gif_queue_stats) + total * sizeof(rts_ifst_queue)));
  if (!out) return nullptr;
  out->n_queues = q.count();
  out->n_voqs = v.count();
  for (uint32_t i = 0; i < q.count(); i++) q.read(i, &out->queue[i]);
  for (uint32_t i = 0; i < v.count(); i++) v.read(i, &out->queue[q.count() + i]);
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
