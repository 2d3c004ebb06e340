// The responder's test bench: a temporary root, the trace options of the
// daemon read from a real configuration file (all flags, a file under
// /var/log), the log captured, and the tables empty.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "evlog/evlog.h"
#include "rtsock/rts_msg.h"
#include "tunechod.h"

class Tunechod : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The trace file's text so far.
  std::string trace_text() const;
  bool traced(const std::string &line) const { return trace_text().find(line) != std::string::npos; }
  // A type-89 message.
  static rts_bd_msg bd(uint8_t op, uint16_t rtb, uint16_t index, uint32_t vni, bool vxlan = true);

  std::string root_;
  evlog_capture *log_ = nullptr;
};
