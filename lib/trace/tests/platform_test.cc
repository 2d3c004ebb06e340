// The platform's tracer calls: the daemon's classes and configuration, the
// trace family, and what a disabled daemon statement costs.
#include <unistd.h>

#include <string>

#include "trace/platform_trace.h"
#include "trace_fixture.h"

namespace {

class Platform : public TraceTest {
 protected:
  void TearDown() override {
    daemon_trace_close(&tc_);
    TraceTest::TearDown();
  }
  int read_config(const std::string &traceoptions) {
    if (!configure("protocols { overlay { traceoptions { " + traceoptions + " } } }")) return -1;
    const char *path[] = {"protocols", "overlay", nullptr};
    return daemon_trace_read_config(0, path, &tc_);
  }
  std::string file_text() { return slurp(real("/var/log/tunechod")); }
  trace_ctx_t tc_{};
};

TEST_F(Platform, TheDocumentedExampleTracesEveryClass) {
  ASSERT_EQ(read_config("file tunechod size 1m files 3 world-readable; flag all;"), 1);
  EXPECT_EQ(tc_.tc_flags, DAEMON_TRACE_FLAG_ALL);
  for (uint32_t cls : {DAEMON_TRACE_PACKETS, DAEMON_TRACE_KERNEL, DAEMON_TRACE_CONFIG})
    daemon_trace(&tc_, -1, cls, "C(%d-%s): class 0x%x", 1, "fn", cls);
  const std::string text = file_text();
  EXPECT_NE(text.find(".000042 C(1-fn): class 0x100\n"), std::string::npos) << text;
  EXPECT_NE(text.find(".000042 C(1-fn): class 0x200\n"), std::string::npos);
  EXPECT_NE(text.find(".000042 C(1-fn): class 0x300\n"), std::string::npos);
  EXPECT_NE(text.find("Tracing flags enabled: packets, kernel, config"), std::string::npos);
}

TEST_F(Platform, OneFlagOneClass) {
  ASSERT_EQ(read_config("file tunechod no-stamp; flag kernel;"), 1);
  EXPECT_EQ(tc_.tc_flags, DAEMON_TRACE_FLAG_KERNEL);
  int evaluated = 0;
  daemon_trace(&tc_, -1, DAEMON_TRACE_PACKETS, "packet %d", ++evaluated);
  daemon_trace(&tc_, -1, DAEMON_TRACE_CONFIG, "config %d", ++evaluated);
  daemon_trace(&tc_, -1, 0x400, "no such class %d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  daemon_trace(&tc_, -1, DAEMON_TRACE_KERNEL, "kernel %d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_NE(file_text().find("\nkernel 1\n"), std::string::npos);
  // A priority sends the line to syslog even with the class off.
  log_->records.clear();
  daemon_trace(&tc_, 3, DAEMON_TRACE_PACKETS, "logged %d", 7);
  ASSERT_EQ(log_->records.size(), 1u);
  EXPECT_EQ(log_->records[0].text, "logged 7");
  EXPECT_EQ(file_text().find("logged"), std::string::npos);
}

TEST_F(Platform, TaggedErrorsReachTheLogAndTheFileWhateverTheFlags) {
  ASSERT_EQ(read_config("file tunechod no-stamp; flag kernel;"), 1);
  log_->records.clear();
  daemon_trace_error(&tc_, 3, "TUNECHOD_VNI_DELETE_FAILED", "TUNECHOD_VNI_DELETE_FAILED: Delete failed for %u", 7u);
  ASSERT_EQ(log_->records.size(), 1u);
  EXPECT_EQ(log_->records[0].priority, 3);
  EXPECT_EQ(log_->records[0].tag, "TUNECHOD_VNI_DELETE_FAILED");
  EXPECT_EQ(log_->records[0].text, "TUNECHOD_VNI_DELETE_FAILED: Delete failed for 7");
  EXPECT_NE(file_text().find("\nTUNECHOD_VNI_DELETE_FAILED: Delete failed for 7\n"), std::string::npos);
  // With no trace file the log still has it.
  daemon_trace_close(&tc_);
  daemon_trace_error(&tc_, 3, "T", "T: again");
  EXPECT_EQ(log_->records.size(), 2u);
}

TEST_F(Platform, ConfigurationErrorsKeepTheContextAndNoOptionsTurnTracingOff) {
  ASSERT_EQ(read_config("file tunechod; flag packets;"), 1);
  EXPECT_EQ(read_config("file tunechod; flag bogus;"), 0);
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("bad traceflag bogus"), std::string::npos);
  EXPECT_EQ(tc_.tc_flags, DAEMON_TRACE_FLAG_PACKETS);
  EXPECT_TRUE(daemon_trace_enabled(&tc_, DAEMON_TRACE_PACKETS));
  ASSERT_TRUE(configure("protocols { }"));
  const char *path[] = {"protocols", "overlay", nullptr};
  EXPECT_EQ(daemon_trace_read_config(0, path, &tc_), 1);
  EXPECT_EQ(tc_.tc_handle, nullptr);
  EXPECT_FALSE(daemon_trace_enabled(&tc_, DAEMON_TRACE_PACKETS));
}

TEST_F(Platform, TheTraceFamily) {
  trace_ctx_t tc{};
  trace(&tc, 0x200, "before any file");  // nothing to write to
  trace_flag_set(&tc, 0x200);
  EXPECT_TRUE(trace_flag_is_set(&tc, 0x200));
  EXPECT_FALSE(trace_flag_is_set(&tc, 0x400));
  ASSERT_EQ(trace_file_open(&tc, "/var/log/cntd_libstats", 0, 0), 0);
  trace_aux_flags_set(&tc, TRC_NO_TIMESTAMP);
  trace(&tc, 0x200, "session %d", 1);
  trace(&tc, 0x400, "not set");
  trace_flag_set(&tc, 0x400);
  trace(&tc, 0x400, "now set");
  trace_flag_clear(&tc, 0x200);
  trace(&tc, 0x200, "cleared");
  const std::string text = slurp(real("/var/log/cntd_libstats"));
  EXPECT_NE(text.find("\nsession 1\nnow set\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("cleared"), std::string::npos);
  EXPECT_EQ(text.find("not set"), std::string::npos);
  daemon_trace_close(&tc);
}

TEST_F(Platform, ContextsWithEqualOptionsShareAHandleUntilOneChanges) {
  trace_ctx_t a{}, b{};
  trace_flag_set(&a, 0x1);
  trace_flag_set(&b, 0x1);
  ASSERT_EQ(trace_file_open(&a, "shared", 0, 0), 0);
  ASSERT_EQ(trace_file_open(&b, "shared", 0, 0), 0);
  EXPECT_EQ(a.tc_handle, b.tc_handle);
  trace_flag_set(&b, 0x2);
  EXPECT_NE(a.tc_handle, b.tc_handle);
  EXPECT_EQ(a.tc_handle->tr_flags, 0x1u);
  EXPECT_EQ(a.tc_handle->tr_file, b.tc_handle->tr_file);
  daemon_trace_close(&a);
  daemon_trace_close(&b);
}

}  // namespace
