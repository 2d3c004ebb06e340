// task_utime: the framework's time value, 32-bit seconds and 32-bit
// microseconds, with the arithmetic the timers need. Subtraction clamps at
// zero: a time left is never negative.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

extern "C" {

struct task_utime {
  uint32_t ut_sec;
  uint32_t ut_usec;
};

}  // extern "C"

constexpr uint32_t TASK_USEC_PER_SEC = 1000000;

inline uint64_t task_utime_to_usec(const task_utime &t) {
  return uint64_t{t.ut_sec} * TASK_USEC_PER_SEC + t.ut_usec;
}
inline task_utime task_utime_from_usec(uint64_t us) {
  return task_utime{static_cast<uint32_t>(us / TASK_USEC_PER_SEC), static_cast<uint32_t>(us % TASK_USEC_PER_SEC)};
}
// Seconds then microseconds as one 64-bit word: one load, one rotate, one
// compare (the record is seconds first, little-endian).
static_assert(std::endian::native == std::endian::little);
inline uint64_t task_utime_order(const task_utime &t) {
  uint64_t w;
  std::memcpy(&w, &t, sizeof w);
  return std::rotl(w, 32);
}
inline int task_utime_cmp(const task_utime &a, const task_utime &b) {
  uint64_t x = task_utime_order(a), y = task_utime_order(b);
  return (x > y) - (x < y);
}
inline bool task_utime_lt(const task_utime &a, const task_utime &b) { return task_utime_order(a) < task_utime_order(b); }
inline bool task_utime_eq(const task_utime &a, const task_utime &b) { return task_utime_order(a) == task_utime_order(b); }
inline bool task_utime_zero(const task_utime *a) { return a->ut_sec == 0 && a->ut_usec == 0; }
inline task_utime task_utime_add(const task_utime &a, const task_utime &b) {
  task_utime r{a.ut_sec + b.ut_sec, a.ut_usec + b.ut_usec};
  if (r.ut_usec >= TASK_USEC_PER_SEC) {
    r.ut_usec -= TASK_USEC_PER_SEC;
    r.ut_sec++;
  }
  return r;
}
inline task_utime task_utime_sub(const task_utime &a, const task_utime &b) {
  if (!task_utime_lt(b, a)) return task_utime{0, 0};
  task_utime r{a.ut_sec - b.ut_sec, a.ut_usec - b.ut_usec};
  if (a.ut_usec < b.ut_usec) {
    r.ut_usec += TASK_USEC_PER_SEC;
    r.ut_sec--;
  }
  return r;
}
inline task_utime task_utime_div(const task_utime &a, uint32_t n) { return task_utime_from_usec(task_utime_to_usec(a) / n); }
