#include "evlog/evlog.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

class EventLog : public ::testing::Test {
 protected:
  evlog_capture *cap = nullptr;
  void SetUp() override {
    cap = &evlog_capture_start();
    logging_set_mode(LOGGING_MODE_SYSLOG);
    logging_register_logfunc(nullptr);
  }
  void TearDown() override { evlog_capture_stop(); }
};

// The daemon's own start-up sequence reaches syslog as syslog's own values.
TEST_F(EventLog, DaemonOpenSequenceMapsToSyslog) {
  event_open("tunechod", 9, 24);
  EXPECT_EQ(event_setmask(127), 0xff);
  logging_set_mode(2);
  logging_register_logfunc(event_send_vsyslog);

  EXPECT_TRUE(cap->open);
  EXPECT_EQ(cap->ident, "tunechod");
  EXPECT_EQ(cap->option, LOG_PID | LOG_NDELAY);
  EXPECT_EQ(cap->facility, LOG_DAEMON);
  EXPECT_EQ(cap->mask, LOG_UPTO(LOG_INFO));

  logging(LOG_INFO, "ZTASK_START: Start %s[%d] version %s built %s", "tunechod", 77, "1.0", "today");
  logging(LOG_DEBUG, "too fine to pass the mask");
  ASSERT_EQ(cap->records.size(), 1u);
  EXPECT_EQ(cap->records[0].priority, LOG_INFO);
  EXPECT_EQ(cap->records[0].tag, "ZTASK_START");
  EXPECT_EQ(cap->records[0].text, "ZTASK_START: Start tunechod[77] version 1.0 built today");

  event_close();
  EXPECT_FALSE(cap->open);
}

TEST_F(EventLog, StructuredEventsKeepTheirTagAndFacilityBitsAreDropped) {
  logging_event(LOG_ERR, "TUNECHOD_VNI_DELETE_FAILED", "TUNECHOD_VNI_DELETE_FAILED: vni %u", 5001u);
  event_send_syslog(LOG_DAEMON | LOG_WARNING, "ZTRACE_FAILED", "Unable to write to trace file %s", "x");
  event_send_syslog(LOG_NOTICE, nullptr, "no tag here: %d", 1);
  ASSERT_EQ(cap->records.size(), 3u);
  EXPECT_EQ(cap->records[0].tag, "TUNECHOD_VNI_DELETE_FAILED");
  EXPECT_EQ(cap->records[0].priority, LOG_ERR);
  EXPECT_EQ(cap->records[1].tag, "ZTRACE_FAILED");
  EXPECT_EQ(cap->records[1].priority, LOG_WARNING);
  EXPECT_EQ(cap->records[2].tag, "");
}

static std::string seen_by_logfunc;
static void my_logfunc(int, const char *fmt, va_list ap) {
  char b[128];
  vsnprintf(b, sizeof b, fmt, ap);
  seen_by_logfunc = b;
}

TEST_F(EventLog, ModesChooseTheOutlets) {
  logging_register_logfunc(my_logfunc);
  logging(LOG_ERR, "via %s", "logfunc");
  EXPECT_EQ(seen_by_logfunc, "via logfunc");
  EXPECT_TRUE(cap->records.empty());

  logging_register_logfunc(nullptr);
  logging_set_mode(0);
  logging(LOG_ERR, "dropped");
  logging_event(LOG_ERR, "T", "dropped");
  EXPECT_TRUE(cap->records.empty());

  // Standard error alone: nothing reaches the sink, the line reaches stderr.
  logging_set_mode(LOGGING_MODE_STDERR);
  event_open("evtest", LOG_PID, LOG_DAEMON);
  testing::internal::CaptureStderr();
  logging(LOG_ERR, "ZTASK_X: to stderr %d", 3);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(cap->records.empty());
  EXPECT_EQ(err, "evtest[" + std::to_string(getpid()) + "]: ZTASK_X: to stderr 3\n");

  // Both.
  logging_set_mode(LOGGING_MODE_STDERR | LOGGING_MODE_SYSLOG);
  testing::internal::CaptureStderr();
  logging_event(LOG_WARNING, "W", "W: both");
  err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(cap->records.size(), 1u);
  EXPECT_NE(err.find("W: both"), std::string::npos);
}

TEST_F(EventLog, LongMessagesAndErrnoDirective) {
  std::string big(3000, 'x');
  logging(LOG_ERR, "%s", big.c_str());
  errno = ENOENT;
  logging(LOG_ERR, "open: %m");
  ASSERT_EQ(cap->records.size(), 2u);
  EXPECT_EQ(cap->records[0].text, big);
  EXPECT_EQ(cap->records[1].text, "open: No such file or directory");
}

static int upper_vsnprintf(char *buf, size_t len, const char *fmt, va_list ap) {
  int n = vsnprintf(buf, len, fmt, ap);
  for (char *p = buf; *p; p++) *p = static_cast<char>(toupper(*p));
  return n;
}

TEST_F(EventLog, FormatterCanBeReplaced) {
  logging_set_vsnprintf(upper_vsnprintf);
  logging(LOG_ERR, "abc %d", 1);
  logging_set_vsnprintf(nullptr);
  logging(LOG_ERR, "abc %d", 2);
  ASSERT_EQ(cap->records.size(), 2u);
  EXPECT_EQ(cap->records[0].text, "ABC 1");
  EXPECT_EQ(cap->records[1].text, "abc 2");
}
