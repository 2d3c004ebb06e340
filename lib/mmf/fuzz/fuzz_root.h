// A private root for a mapped-file fuzz target: made at the first input,
// removed at exit with the creation semaphore. Cross-process waits run at a
// hundredth of their time, so that damaged lock words do not stall a run.
#pragma once

#include <cstdlib>
#include <string>

#include "mmf/mmf.h"
#include "platform/path.h"

// at_exit, if given, runs first at exit (to close handles under the root).
inline void mmf_fuzz_root(const char *tmpl_prefix, void (*at_exit)(void) = nullptr) {
  static std::string root;
  static void (*before)(void);
  if (!root.empty()) return;
  std::string tmpl = std::string("/tmp/") + tmpl_prefix + ".XXXXXX";
  if (!mkdtemp(tmpl.data())) abort();
  root = tmpl;
  before = at_exit;
  tvx_path_set_root(root.c_str());
  setenv("TAVOX_ROOT", root.c_str(), 1);
  mmf_set_time_scale(0.01);
  atexit([] {
    if (before) before();
    mmf_sem_remove();
    std::string cmd = "rm -rf '" + root + "'";
    if (system(cmd.c_str()) != 0) return;
  });
}
