// Return addresses of the running thread, for logs and leak reports.
#pragma once

// Fills at most max return addresses, the caller's own first. Returns the count.
// The unwinder is primed before main, so that its first-use allocations do not
// happen inside the allocator or a signal path.
int tvx_backtrace(void **addrs, int max);

// Whether event records should carry a stack (the event system's memtrace-bt).
void tvx_set_unwind_bt(int on);
int tvx_unwind_bt(void);
