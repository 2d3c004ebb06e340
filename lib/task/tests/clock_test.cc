// The TSC clock on made-up readings: calibration, the conversion between
// anchors, re-anchoring that never runs backwards and works off an excess, a
// rate error that shrinks as the baseline grows, and the fallbacks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "../src/clock.h"

namespace {

// A machine: ticks at hz from an arbitrary start; the monotonic clock reads
// the true time plus a seeded noise of up to noise_ns either way.
struct machine {
  double hz;
  uint64_t tsc0 = 123'456'789'000;
  uint64_t ns0 = 5'000'000'000;
  std::mt19937_64 rng{7};
  int64_t noise_ns = 0;
  uint64_t tsc(uint64_t true_ns) const { return tsc0 + static_cast<uint64_t>(true_ns * hz / 1e9); }
  uint64_t mono(uint64_t true_ns) {
    int64_t n = noise_ns ? static_cast<int64_t>(rng() % (2 * noise_ns + 1)) - noise_ns : 0;
    return ns0 + true_ns + n;
  }
  uint64_t read(task_tsc_clock *c, uint64_t true_ns) { return task_tsc_reading(c, tsc(true_ns), mono(true_ns)); }
};

TEST(TscClock, CalibratesThenRunsOnTicksAlone) {
  task_tsc_clock c;
  task_tsc_init(&c, true);
  machine m{2.9e9};
  EXPECT_EQ(m.read(&c, 0), m.ns0);
  EXPECT_EQ(m.read(&c, 10'000'000), m.ns0 + 10'000'000);  // 10 ms: still the monotonic clock
  EXPECT_EQ(c.tc_state, TASK_TSC_CALIBRATING);
  EXPECT_EQ(m.read(&c, 50'000'000), m.ns0 + 50'000'000);
  ASSERT_EQ(c.tc_state, TASK_TSC_ON);
  // From here only the ticks are read: a monotonic clock that lies is not asked.
  for (uint64_t t : {50'000'001ull, 300'000'000ull, 1'049'000'000ull}) {
    uint64_t got = task_tsc_reading(&c, m.tsc(t), 0);
    EXPECT_NEAR(static_cast<double>(got), static_cast<double>(m.ns0 + t), 2.0) << t;
  }
  EXPECT_TRUE(task_tsc_in_span(&c, m.tsc(1'049'000'000)));
  EXPECT_FALSE(task_tsc_in_span(&c, m.tsc(1'051'000'000)));  // a second of ticks: anchor again
  EXPECT_FALSE(task_tsc_in_span(&c, m.tsc(49'000'000)));     // behind the base
  task_utime u = task_utime_from_ns(m.ns0 + 1'234'567'891);
  EXPECT_EQ(u.ut_sec, 6u);
  EXPECT_EQ(u.ut_usec, 234'567u);
}

TEST(TscClock, NoisyCalibrationConvergesAndNeverRunsBackwards) {
  for (double hz : {1.0e9, 2.445e9, 3.7e9}) {
    task_tsc_clock c;
    task_tsc_init(&c, true);
    machine m{hz};
    m.noise_ns = 2'000;  // a slow clock_gettime: 2 us either way at every anchor
    uint64_t last = 0, worst = 0, worst_late = 0;
    for (uint64_t t = 0; t <= 30'000'000'000; t += 997'000) {  // 30 s, a reading a millisecond
      uint64_t got = m.read(&c, t);
      ASSERT_GE(got, last) << "at " << t << " ns, " << hz << " Hz";
      last = got;
      uint64_t err = static_cast<uint64_t>(std::llabs(static_cast<long long>(got - (m.ns0 + t))));
      worst = std::max(worst, err);
      if (t > 20'000'000'000) worst_late = std::max(worst_late, err);
    }
    EXPECT_EQ(c.tc_state, TASK_TSC_ON);
    // A 50 ms baseline with 4 us of noise is 80 ppm: at most 80 us over the
    // first span; over 20 s it is 0.2 ppm plus the noise of one anchor.
    EXPECT_LT(worst, 100'000u) << hz;
    EXPECT_LT(worst_late, 5'000u) << hz;
  }
}

TEST(TscClock, ACachedTimeAheadOfTheRealClockNeverStepsBackAndIsWorkedOff) {
  task_tsc_clock c;
  task_tsc_init(&c, true);
  machine m{3e9};
  m.read(&c, 0);
  m.read(&c, 60'000'000);
  ASSERT_EQ(c.tc_state, TASK_TSC_ON);
  // At the next anchor the monotonic clock reads 1 ms ahead of the ticks (the
  // process lost the processor between the two readings).
  uint64_t before = m.read(&c, 1'059'000'000);
  uint64_t at_anchor = task_tsc_reading(&c, m.tsc(1'070'000'000), m.mono(1'070'000'000) + 1'000'000);
  EXPECT_GE(at_anchor, before);
  // The next anchor finds the cached time ahead of the real clock: it is
  // never stepped back, but the excess is worked off within a span.
  uint64_t last = at_anchor;
  for (uint64_t t = 1'071'000'000; t < 4'000'000'000; t += 1'000'000) {
    uint64_t got = m.read(&c, t);
    ASSERT_GE(got, last) << t;
    last = got;
    if (t > 3'200'000'000) {
      ASSERT_LT(std::llabs(static_cast<long long>(got - (m.ns0 + t))), 5'000) << t;
    }
  }
}

TEST(TscClock, FallsBackWhereTheTicksCannotBeTrusted) {
  task_tsc_clock c;
  task_tsc_init(&c, false);
  machine m{3e9};
  EXPECT_EQ(m.read(&c, 0), m.ns0);
  EXPECT_EQ(m.read(&c, 100'000'000), m.ns0 + 100'000'000);
  EXPECT_EQ(c.tc_state, TASK_TSC_OFF);

  task_tsc_init(&c, true);  // ticks that run backwards
  m.read(&c, 0);
  m.read(&c, 60'000'000);
  ASSERT_EQ(c.tc_state, TASK_TSC_ON);
  EXPECT_EQ(task_tsc_reading(&c, m.tsc(10'000'000), m.mono(70'000'000)), m.ns0 + 70'000'000);
  EXPECT_EQ(c.tc_state, TASK_TSC_OFF);

  task_tsc_init(&c, true);  // ticks at 100 kHz are not a TSC
  machine slow{1e5};
  slow.read(&c, 0);
  slow.read(&c, 100'000'000);
  EXPECT_EQ(c.tc_state, TASK_TSC_OFF);

  setenv("TVX_TSC", "0", 1);
  EXPECT_FALSE(task_tsc_usable());
  unsetenv("TVX_TSC");
}

}  // namespace
