// Calls that the compile-time check must refuse, one per CASE_ macro; the
// build runs each alone and expects the checker's own message. Without a
// CASE_ macro the file compiles: it is the control.
#include "format/task_fmt.h"

void calls(char *buf, size_t n, const char *runtime, const zsockaddr_t *addr, task_fmt_time *t) {
  task_fmt::snprintf(buf, n, "%s %A %#t %d", "ok", addr, t, 1);
  // Flags and length in any order; a length that means nothing is ignored.
  task_fmt::snprintf(buf, n, "%lls %qf %5-d %l-5d %Lc %ls %S %hhd", "s", 1.5, 2, 3L, 'c', L"w", L"w", 4);
  // "ll" widens an extension letter's first word.
  task_fmt::snprintf(buf, n, "%llzm %zm %qzi", 1ull, 40u, 2u, 8u, 3ull);
#ifdef CASE_int_for_string
  task_fmt::snprintf(buf, n, "%s", 42);
#endif
#ifdef CASE_long_for_int
  task_fmt::snprintf(buf, n, "%d", 42L);
#endif
#ifdef CASE_size_t_zu
  task_fmt::snprintf(buf, n, "%zu", sizeof(int));  // C's %zu is extension letter "u" here
#endif
#ifdef CASE_too_few
  task_fmt::snprintf(buf, n, "%d %d", 1);
#endif
#ifdef CASE_too_many
  task_fmt::snprintf(buf, n, "%d", 1, 2);
#endif
#ifdef CASE_not_sockaddr
  task_fmt::snprintf(buf, n, "%A", "10.0.0.1");
#endif
#ifdef CASE_star_in_ext
  task_fmt::snprintf(buf, n, "%*d %A", 5, 1, addr);
#endif
#ifdef CASE_time_ptr
  task_fmt::snprintf(buf, n, "%t", 5);  // C's %td
#endif
#ifdef CASE_unknown
  task_fmt::snprintf(buf, n, "%jd", 5L);  // C's %jd
#endif
#ifdef CASE_narrow_for_wide
  task_fmt::snprintf(buf, n, "%-ls", "narrow");
#endif
#ifdef CASE_L_is_for_floats
  task_fmt::snprintf(buf, n, "%Ld", 5LL);
#endif
#ifdef CASE_ll_ext_wants_64
  task_fmt::snprintf(buf, n, "%llzm", 1u, 40u);
#endif
#ifdef CASE_runtime_format
  task_fmt::snprintf(buf, n, runtime);
#endif
  (void)runtime;
}
