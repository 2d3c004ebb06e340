// Named crash points: places in the update paths of the mapped files where a
// test can kill the process with SIGKILL, so that recovery is proved on real
// processes dying at exact places, not at random ones.
//
//   TVX_CRASHPOINT=mmf_alloc_split:3 ./writer    dies on the 3rd pass there
//
// The variable names one point and, after a colon, the pass that kills (1 when
// left out; passes are counted across the process's threads). Test builds
// compile the points in (CMake option TVX_CRASHPOINTS, on unless the build
// type is Release); release builds compile them out, and then the variable
// does nothing. An unset variable costs one load and a branch per point.
#pragma once

#include <cstddef>

#if TVX_CRASHPOINTS
// -1 before the variable was read, 0 unarmed, 1 armed.
extern int tvx_crashpoint_state;
void tvx_crashpoint_pass(const char *name);
#define TVX_CRASHPOINT(name)                                                          \
  do {                                                                                \
    if (__builtin_expect(__atomic_load_n(&tvx_crashpoint_state, __ATOMIC_RELAXED) != 0, 0)) \
      tvx_crashpoint_pass(name);                                                      \
  } while (0)
#else
#define TVX_CRASHPOINT(name) ((void)0)
#endif

// Every crash point of the mapped-file library, for tests that visit them all.
extern const char *const mmf_crashpoints[];
extern const size_t mmf_crashpoint_count;
// Whether this build has the points compiled in.
bool tvx_crashpoints_built(void);
// Arms a point as TVX_CRASHPOINT gives it ("name" or "name:pass") (null or "" disarms)
// and restarts the count of passes: for a test's forked child.
void tvx_crashpoint_set(const char *arming);
// With a hook set, the armed pass calls it instead of raising SIGKILL: a test
// runs what a signal handler would at that exact place. Null restores SIGKILL.
void tvx_crashpoint_set_hook(void (*hook)(const char *name));
