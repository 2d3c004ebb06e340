// Runs the tool built beside the tests, its output and exit status.
#pragma once

#include <cstdio>
#include <string>
#include <sys/wait.h>

struct run_result {
  int rc;
  std::string out;
};

inline run_result tvxmm(const std::string &args) {
  std::string cmd = std::string(TVXMM) + " " + args + " 2>&1";
  FILE *p = popen(cmd.c_str(), "r");
  run_result r{-1, {}};
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.rc = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}
