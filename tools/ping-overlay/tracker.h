// Which probe a reply answers: replies are matched by the sender's handle and
// the sequence number, each probe counted once, and the round-trip times and
// return codes summed up. Times are microseconds of a monotonic clock, given
// by the caller, so that the matching is tested without a clock.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

enum po_verdict {
  PO_ANSWER,     // the first reply to a probe still waited for
  PO_DUPLICATE,  // a probe already answered
  PO_LATE,       // a probe whose wait had ended (or too old to be tracked)
  PO_FOREIGN,    // another sender's handle, or a sequence never sent
};
const char *po_verdict_name(po_verdict v);

struct po_stats {
  uint32_t sent = 0, received = 0, duplicates = 0, late = 0, foreign = 0, errors = 0;
  int64_t rtt_min = 0, rtt_max = 0;  // microseconds
  double rtt_sum = 0, rtt_sum2 = 0;
  std::map<uint8_t, uint32_t> return_codes;  // of the answers only

  double loss_percent() const;
  double rtt_avg_ms() const;
  double rtt_mdev_ms() const;  // as ping gives it: sqrt(mean of squares - square of mean)
};

class po_tracker {
 public:
  // Probes are tracked for their wait and kept for kWindow sequence numbers,
  // so that a reply far behind is still told late rather than foreign.
  static constexpr uint32_t kWindow = 4096;

  po_tracker(uint32_t handle, int64_t wait_us) : handle_(handle), wait_us_(wait_us), slots_(kWindow) {}

  // A probe leaves now: returns its sequence number (1, 2, ...).
  uint32_t sent(int64_t now);
  // A reply for (handle, seq) arrives now; an answer records rc and sets *rtt.
  po_verdict reply(uint32_t handle, uint32_t seq, uint8_t rc, int64_t now, int64_t *rtt);
  // An error (ICMP) names probe seq: counted once, and the probe is no longer
  // waited for. False when the error is not about a probe waited for.
  bool error(uint32_t seq);
  // Probes whose wait ended by now, oldest first; they are waited for no more.
  std::vector<uint32_t> expire(int64_t now);
  // When the oldest probe waited for times out; -1 when none is waited for.
  int64_t next_deadline();
  bool waiting() { return next_deadline() >= 0; }
  uint32_t handle() const { return handle_; }
  const po_stats &stats() const { return stats_; }

 private:
  enum state : uint8_t { WAITING, ANSWERED, TIMED_OUT, FAILED };
  struct slot {
    uint32_t seq = 0;
    state st = TIMED_OUT;
    int64_t sent = 0;
  };
  slot *find(uint32_t seq);

  uint32_t handle_;
  int64_t wait_us_;
  uint32_t next_seq_ = 1;
  std::vector<slot> slots_;
  std::deque<uint32_t> waiting_;  // in sending order, so deadlines ascend
  po_stats stats_;
};
