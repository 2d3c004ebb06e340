// The cached time's source: the TSC calibrated against CLOCK_MONOTONIC.
#include "clock.h"

#include <cpuid.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

bool mono_ns(uint64_t *ns) {
  timespec ts;
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return false;
  *ns = static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(ts.tv_nsec);
  return true;
}

// CPUID 0x80000007, EDX bit 8: the TSC runs at one rate in every P-, C- and T-state.
bool cpuid_invariant(void) {
  unsigned a, b, c, d;
  if (__get_cpuid_max(0x80000000, nullptr) < 0x80000007) return false;
  __cpuid(0x80000007, a, b, c, d);
  return d & (1u << 8);
}

bool cpuinfo_invariant(void) {
  std::ifstream f("/proc/cpuinfo");
  std::string line;
  while (std::getline(f, line)) {
    if (line.compare(0, 5, "flags") != 0) continue;
    std::istringstream words(line.substr(line.find(':') + 1));
    bool constant = false, nonstop = false;
    for (std::string w; words >> w;) {
      constant |= w == "constant_tsc";
      nonstop |= w == "nonstop_tsc";
    }
    return constant && nonstop;
  }
  return false;
}

// A kernel that has given up on the TSC (it found it unstable) says so in
// its clock source; a machine that does not say is taken at its CPU's word.
bool kernel_keeps_tsc(void) {
  std::ifstream f("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string source;
  return !(f >> source) || source == "tsc";
}

uint64_t span_for(uint64_t mult, uint64_t ns) {
  return static_cast<uint64_t>((static_cast<unsigned __int128>(ns) << 32) / mult);
}

}  // namespace

task_tsc_clock task_tsc;

bool task_tsc_usable(void) {
  const char *env = getenv("TVX_TSC");
  if (env && strcmp(env, "0") == 0) return false;
  return (cpuid_invariant() || cpuinfo_invariant()) && kernel_keeps_tsc();
}

void task_tsc_init(task_tsc_clock *c, bool usable) {
  *c = task_tsc_clock{};
  c->tc_state = usable ? TASK_TSC_CALIBRATING : TASK_TSC_OFF;
}

namespace {

// An anchor: the rate over everything since the first anchor and the base
// moved to the real clock. A cached time found ahead of the real clock is
// never stepped back: the base stays, and the next span runs slow enough to
// work the excess off by its end.
void anchor(task_tsc_clock *c, uint64_t tsc, uint64_t mono) {
  if (c->tc_first_tsc == 0) {
    c->tc_first_tsc = tsc;
    c->tc_first_ns = mono;
    return;
  }
  if (tsc <= c->tc_first_tsc || (c->tc_state == TASK_TSC_ON && tsc < c->tc_base_tsc)) {
    c->tc_state = TASK_TSC_OFF;  // ticks ran backwards: not a clock to keep
    return;
  }
  if (mono < c->tc_first_ns + TASK_TSC_CALIBRATE_NS) return;  // too short a baseline yet
  uint64_t est = c->tc_state == TASK_TSC_ON ? task_tsc_ns(c, tsc) : mono;
  uint64_t mult = static_cast<uint64_t>((static_cast<unsigned __int128>(mono - c->tc_first_ns) << 32) /
                                        (tsc - c->tc_first_tsc));
  // A tick of more than a microsecond (under 1 MHz), or of none at all, is not a TSC.
  if (mult == 0 || mult > (uint64_t{1000} << 32)) {
    c->tc_state = TASK_TSC_OFF;
    return;
  }
  uint64_t span = span_for(mult, TASK_TSC_ANCHOR_NS);
  c->tc_base_tsc = tsc;
  c->tc_span = span;
  c->tc_state = TASK_TSC_ON;
  if (est <= mono) {
    c->tc_mult = mult;
    c->tc_base_ns = mono;
    return;
  }
  uint64_t excess = std::min(est - mono, TASK_TSC_ANCHOR_NS / 2);
  c->tc_mult = static_cast<uint64_t>((static_cast<unsigned __int128>(TASK_TSC_ANCHOR_NS - excess) << 32) / span);
  c->tc_base_ns = est;
}

}  // namespace

uint64_t task_tsc_reading(task_tsc_clock *c, uint64_t tsc, uint64_t mono) {
  if (task_tsc_in_span(c, tsc)) return task_tsc_ns(c, tsc);
  if (c->tc_state == TASK_TSC_OFF) return mono;
  anchor(c, tsc, mono);
  return c->tc_state == TASK_TSC_ON ? c->tc_base_ns : mono;
}

bool task_tsc_read_slow(task_tsc_clock *c, uint64_t *ns) {
  uint64_t m;
  if (c->tc_state == TASK_TSC_OFF) return mono_ns(ns);
  // The ticks on both sides of the clock's reading, and their midpoint.
  uint64_t t1 = __rdtsc();
  if (!mono_ns(&m)) return false;
  uint64_t t2 = __rdtsc();
  *ns = task_tsc_reading(c, t1 + (t2 - t1) / 2, m);
  return true;
}
