// The allocator's own profiler, switched on and off at run time. Profiling is
// compiled in and started inactive (see the allocator's start options), so
// that switching it on later works.
//
// Each switch sets the sample rate, the leak report, the final dump and the
// active flag. This allocator sets the sample rate by resetting the profile,
// and takes the leak report and the final dump only as start options: those
// two steps have nothing to switch and count as done.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "internal.h"
#include "jem.h"
#include "mem/leak.h"
#include "platform/path.h"

namespace {

std::atomic<unsigned> dumps{0};

int lg_sample(size_t lg) { return jem_mallctl("prof.reset", nullptr, nullptr, &lg, sizeof lg); }
int active(bool on) { return jem_mallctl("prof.active", nullptr, nullptr, &on, sizeof on); }
int start_option(const char *, bool) { return 0; }

// Always an explicit file under the log directory: the allocator's default
// name would land in the current directory.
int dump() {
  const char *lsys = getenv("ZLSYSNAME");
  const char *prog = program_invocation_short_name;
  char logical[512], path[1024];
  snprintf(logical, sizeof logical, "/var/log/heap_profile_%s_%s.%d.%u.heap", prog && *prog ? prog : "daemon",
           lsys && *lsys ? lsys : "default", static_cast<int>(getpid()), dumps.fetch_add(1));
  if (!tvx_path(logical, path, sizeof path)) return ENAMETOOLONG;
  const char *name = path;
  return jem_mallctl("prof.dump", nullptr, nullptr, &name, sizeof name);
}

void check(int rc) {
  if (rc != 0) MEM_FATAL("task_mem_leak_detection_jemalloc", "rc == 0");
}

}  // namespace

int task_mem_leak_detection_jemalloc(int op) {
  switch (op) {
    case TASK_MEM_PROF_DISABLE:
      check(dump());
      check(lg_sample(19));
      check(start_option("prof.leak", false));
      check(start_option("prof.final", true));
      check(active(false));
      return 0;
    case TASK_MEM_PROF_ENABLE:
      check(lg_sample(0));
      check(start_option("prof.leak", true));
      check(start_option("prof.final", false));
      check(active(true));
      check(dump());
      return 0;
    case TASK_MEM_PROF_DUMP:
      check(dump());
      return 0;
    default:
      MEM_FATAL("task_mem_leak_detection_jemalloc", "!\"Unknown leak detection operation\"");
      return EINVAL;
  }
}
