// The assertion path: one line on stderr, then abort, so a failed invariant
// ends the process with a core.
#include "fatal.h"

#include <cstdio>
#include <cstdlib>

namespace tvx::containers {

void assert_fail(const char *expr, const char *func, const char *file, int line) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expr, func, file,
               line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace tvx::containers
