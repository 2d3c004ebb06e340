// What the trace tests share: a temporary path root with /var/log, a fixed
// clock, allocation hooks that count by class, and the configuration schema
// of a daemon's trace options.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "config/ddl.h"
#include "evlog/evlog.h"
#include "trace/trace.h"

constexpr uint32_t kTraceSchema = 0x7ACE0001;       // protocols { overlay { traceoptions } }
constexpr uint32_t kLooseSchema = 0x7ACE0002;       // the same with a level of any value

// The time every line carries.
extern const char *const kTimeText;  // "Nov 21 11:16:58"
extern uint32_t fixed_usec;

struct alloc_counts {
  std::map<int, long> live;  // by class
  long calls = 0;
};
extern alloc_counts trace_allocs;

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The real path under the root of a logical one.
  std::string real(const std::string &logical) const { return root_ + logical; }
  // Writes the configuration text and opens it.
  bool configure(const std::string &text, uint32_t schema = kTraceSchema);

  std::string root_;
  ztrace_app_ctx actx_{};
  evlog_capture *log_ = nullptr;
};

std::string slurp(const std::string &path);
// The captured log texts joined by newlines.
std::string log_text(const evlog_capture &c);
