// Trace statements whose format does not match their arguments must not
// compile; the build compiles each CASE_ alone and expects the checker's
// message. Without a CASE_ macro the file compiles: it is the control.
#include "trace/platform_trace.h"

void calls(trace_handle *tp, trace_ctx_t *tc, const zsockaddr_t *addr) {
  ZTRACE(tp, 0x1, "%s %A %u", "ok", addr, 1u);
  daemon_trace(tc, -1, 0x100, "C(%d-%s): %A", 1, "f", addr);
#ifdef CASE_ztrace_mismatch
  ZTRACE(tp, 0x1, "packet from %A", "10.0.0.1");
#endif
#ifdef CASE_ztrace_level_too_few
  ZTRACE_LEVEL(tp, 0x1, 3, "%d of %d", 1);
#endif
#ifdef CASE_daemon_trace_mismatch
  daemon_trace(tc, -1, 0x100, "C(%d-%s): socket %d", 1, "f", 2L);
#endif
}
