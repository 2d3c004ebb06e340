// The source of the cached monotonic time: the TSC, calibrated against
// CLOCK_MONOTONIC, where it is invariant; clock_gettime elsewhere.
//
// Between two anchors a reading is one rdtsc, a multiply and a shift. An
// anchor is a pair of readings (ticks, CLOCK_MONOTONIC); one is taken once a
// second of ticks has passed, which moves the base to the real clock and
// measures the rate again over everything since the first anchor, so an error
// never grows past what one second of ticks can hold. The clock never runs
// backwards: an anchor that finds it ahead of the real clock keeps its base
// and runs the next span slow, so that the excess is gone by the span's end.
#pragma once

#include <x86intrin.h>

#include <cstdint>

#include "htimer/utime.h"

extern "C" {

enum : uint8_t {
  TASK_TSC_OFF = 0,          // clock_gettime on every reading
  TASK_TSC_CALIBRATING = 1,  // clock_gettime, and ticks noted until the rate is measured
  TASK_TSC_ON = 2,
};

struct task_tsc_clock {
  uint64_t tc_base_tsc;   // ticks at the last anchor
  uint64_t tc_base_ns;    // its monotonic time
  uint64_t tc_mult;       // nanoseconds per tick, 32.32 fixed point
  uint64_t tc_span;       // ticks after the base that need a new anchor
  uint64_t tc_first_tsc;  // the first anchor, over which the rate is measured
  uint64_t tc_first_ns;
  uint8_t tc_state;
};

// Ticks of calibration before the TSC is used, and between anchors, in
// nanoseconds of the monotonic clock.
constexpr uint64_t TASK_TSC_CALIBRATE_NS = 50'000'000;
constexpr uint64_t TASK_TSC_ANCHOR_NS = 1'000'000'000;

extern task_tsc_clock task_tsc;

// Whether this machine's TSC may stand in for the monotonic clock: invariant
// (CPUID, or "constant_tsc" and "nonstop_tsc" in /proc/cpuinfo) and the
// kernel's own clock source, where it says which. TVX_TSC=0 in the
// environment says no.
bool task_tsc_usable(void);
// Starts the clock: calibrating where the TSC is usable, else off.
void task_tsc_init(task_tsc_clock *c, bool usable);
// What a reading gives when the ticks read tsc and, where it is asked, the
// monotonic clock mono_ns: between anchors the ticks alone; else an anchor
// while the clock calibrates or once a span has passed. Ticks that ever run
// backwards turn the TSC off for good. (The slow path, with injected readings
// for tests.)
uint64_t task_tsc_reading(task_tsc_clock *c, uint64_t tsc, uint64_t mono_ns);
// The slow path with the real readings; false when clock_gettime fails.
bool task_tsc_read_slow(task_tsc_clock *c, uint64_t *ns);

inline uint64_t task_tsc_ns(const task_tsc_clock *c, uint64_t tsc) {
  unsigned __int128 d = static_cast<unsigned __int128>(tsc - c->tc_base_tsc) * c->tc_mult;
  return c->tc_base_ns + static_cast<uint64_t>(d >> 32);
}

// Whether a reading of tsc needs no anchor.
inline bool task_tsc_in_span(const task_tsc_clock *c, uint64_t tsc) {
  // One unsigned compare: past the span, or ticks behind the base.
  return c->tc_state == TASK_TSC_ON && tsc - c->tc_base_tsc < c->tc_span;
}

inline task_utime task_utime_from_ns(uint64_t ns) {
  uint64_t s = ns / 1'000'000'000;
  return task_utime{static_cast<uint32_t>(s), static_cast<uint32_t>((ns - s * 1'000'000'000) / 1000)};
}

// The monotonic time now, in nanoseconds; false when clock_gettime fails.
inline bool task_clock_ns(uint64_t *ns) {
  task_tsc_clock *c = &task_tsc;
  if (__builtin_expect(c->tc_state == TASK_TSC_ON, 1)) {
    uint64_t t = __rdtsc();
    if (__builtin_expect(task_tsc_in_span(c, t), 1)) {
      *ns = task_tsc_ns(c, t);
      return true;
    }
  }
  return task_tsc_read_slow(c, ns);
}

}  // extern "C"
