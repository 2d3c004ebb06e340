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

int tvx_backtrace(void **addrs, int max) {
  if (max <= 0) return 0;
  void *buf[128];
  int want = max + 1 > 128 ? 128 : max + 1;
  int n = backtrace(buf, want);
  // Skip our own frame.
  int out = 0;
  for (int i = 1; i < n && out < max; i++) addrs[out++] = buf[i];
  return out;
}

void tvx_set_unwind_bt(int on) { unwind_bt = on != 0; }
int tvx_unwind_bt(void) { return unwind_bt; }
