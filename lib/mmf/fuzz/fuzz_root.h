// A private root for a mapped-file fuzzer's run: made at the first input,
// removed with the creation semaphore at exit; waits between processes scaled
// down, as nobody else uses the files.
#pragma once

#include <cstdlib>
#include <string>

#include "mmf/mmf.h"
#include "platform/path.h"

inline void mmf_fuzz_setup_root(void) {
  static std::string root;
  if (!root.empty()) return;
  char tmpl[] = "/tmp/mmf_fuzz.XXXXXX";
  if (!mkdtemp(tmpl)) abort();
  root = tmpl;
  tvx_path_set_root(root.c_str());
  setenv("TAVOX_ROOT", root.c_str(), 1);
  mmf_set_time_scale(0.01);
  atexit([] {
    mmf_sem_remove();
    std::string cmd = "rm -rf '" + root + "'";
    if (system(cmd.c_str()) != 0) return;
  });
}
