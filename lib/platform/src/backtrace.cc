// tvx_backtrace over glibc's backtrace().
#include "platform/backtrace.h"

#include <execinfo.h>

namespace {
int unwind_bt = 0;

// glibc loads the unwinder on the first call, allocating; do that now.
__attribute__((constructor(101))) void prime_unwinder() {
  void *a[2];
  backtrace(a, 2);
}
}  // namespace

__attribute__((noinline)) int tvx_backtrace(void **addrs, int max) {
  if (max <= 0) return 0;
  void *buf[128];
  int n = backtrace(buf, 128);
  // Start at our caller's frame. Interceptors (the sanitizers wrap backtrace)
  // may add frames above ours, so find it by its return address.
  void *caller = __builtin_extract_return_addr(__builtin_return_address(0));
  int first = 1;
  for (int i = 0; i < n; i++)
    if (buf[i] == caller) {
      first = i;
      break;
    }
  int out = 0;
  for (int i = first; i < n && out < max; i++) addrs[out++] = buf[i];
  return out;
}

void tvx_set_unwind_bt(int on) { unwind_bt = on != 0; }
int tvx_unwind_bt(void) { return unwind_bt; }
