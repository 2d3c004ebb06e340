// The real rtsockd started on a state file's text (see RtsockdProcess).
#pragma once

#include <string>

#include "rtsockd_process.h"

class Rtsockd : public RtsockdProcess {
 public:
  explicit Rtsockd(const std::string &state) : RtsockdProcess(nullptr, text(state)) {}

 private:
  static Options text(const std::string &state) {
    Options o;
    o.state_text = state;
    return o;
  }
};
