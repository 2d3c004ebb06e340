// Reply matching and the statistics of a run.
#include "tracker.h"

#include <cmath>

const char *po_verdict_name(po_verdict v) {
  switch (v) {
    case PO_ANSWER:
      return "reply";
    case PO_DUPLICATE:
      return "duplicate";
    case PO_LATE:
      return "late";
    case PO_FOREIGN:
      return "foreign";
  }
  return "?";
}

double po_stats::loss_percent() const { return sent ? 100.0 * (sent - received) / sent : 0.0; }

double po_stats::rtt_avg_ms() const { return received ? rtt_sum / received / 1000.0 : 0.0; }

double po_stats::rtt_mdev_ms() const {
  if (!received) return 0.0;
  double mean = rtt_sum / received, var = rtt_sum2 / received - mean * mean;
  return var > 0 ? std::sqrt(var) / 1000.0 : 0.0;
}

po_tracker::slot *po_tracker::find(uint32_t seq) {
  if (seq == 0 || seq >= next_seq_) return nullptr;
  slot &s = slots_[seq % kWindow];
  return s.seq == seq ? &s : nullptr;
}

uint32_t po_tracker::sent(int64_t now) {
  uint32_t seq = next_seq_++;
  slots_[seq % kWindow] = slot{seq, WAITING, now};
  waiting_.push_back(seq);
  stats_.sent++;
  return seq;
}

po_verdict po_tracker::reply(uint32_t handle, uint32_t seq, uint8_t rc, int64_t now, int64_t *rtt) {
  if (handle != handle_ || seq == 0 || seq >= next_seq_) {
    stats_.foreign++;
    return PO_FOREIGN;
  }
  slot *s = find(seq);
  if (!s || s->st == TIMED_OUT || s->st == FAILED) {
    stats_.late++;
    return PO_LATE;
  }
  if (s->st == ANSWERED) {
    stats_.duplicates++;
    return PO_DUPLICATE;
  }
  s->st = ANSWERED;
  int64_t t = now > s->sent ? now - s->sent : 0;
  *rtt = t;
  if (!stats_.received || t < stats_.rtt_min) stats_.rtt_min = t;
  if (t > stats_.rtt_max) stats_.rtt_max = t;
  stats_.received++;
  stats_.rtt_sum += static_cast<double>(t);
  stats_.rtt_sum2 += static_cast<double>(t) * static_cast<double>(t);
  stats_.return_codes[rc]++;
  return PO_ANSWER;
}

bool po_tracker::error(uint32_t seq) {
  slot *s = find(seq);
  if (!s || s->st != WAITING) return false;
  s->st = FAILED;
  stats_.errors++;
  return true;
}

int64_t po_tracker::next_deadline() {
  while (!waiting_.empty()) {
    slot *s = find(waiting_.front());
    if (s && s->st == WAITING) return s->sent + wait_us_;
    waiting_.pop_front();
  }
  return -1;
}

std::vector<uint32_t> po_tracker::expire(int64_t now) {
  std::vector<uint32_t> out;
  for (int64_t d = next_deadline(); d >= 0 && d <= now; d = next_deadline()) {
    slot *s = find(waiting_.front());
    s->st = TIMED_OUT;
    out.push_back(s->seq);
    waiting_.pop_front();
  }
  return out;
}
