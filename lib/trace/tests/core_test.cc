// The statement path, the exact bytes of a line, and the syslog path.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "trace/trace.h"
#include "trace_fixture.h"

namespace {

constexpr uint64_t kLow = 0x10;
constexpr uint64_t kHigh = 0x4ull << 32;

class Core : public TraceTest {
 protected:
  void SetUp() override {
    TraceTest::SetUp();
    path_ = real("/var/log/core.trace");
    trace_file *f = trace_file_locate("core.trace", 0, 0, 0, 0, nullptr, false);
    ASSERT_NE(f, nullptr);
    ztrace_store(&tp_, static_cast<uint32_t>(kLow | kHigh), static_cast<uint32_t>((kLow | kHigh) >> 32), 0, f,
                 nullptr);
    ASSERT_NE(tp_, nullptr);
    trace_on(tp_->tr_file);
    ASSERT_NE(tp_->tr_file->trf_stream, nullptr);
    start_ = slurp(path_);
    log_->records.clear();
  }
  void TearDown() override {
    trace_free(tp_);
    TraceTest::TearDown();
  }
  // What the statements wrote after the file's opening line.
  std::string written() { return slurp(path_).substr(start_.size()); }

  trace_handle *tp_ = nullptr;
  std::string path_, start_;
};

TEST_F(Core, OpeningLineNamesTheFile) {
  EXPECT_EQ(start_, std::string(kTimeText) + " trace_on: Tracing to \"" + path_ + "\" started\n");
  EXPECT_EQ(tp_->tr_file->trf_size, start_.size());
}

TEST_F(Core, EnabledByEitherWordAndOnlyWithAnOpenFile) {
  EXPECT_TRUE(trace_enabled(tp_, 0x10, 0));
  EXPECT_TRUE(trace_enabled(tp_, 0, 0x4));
  EXPECT_TRUE(trace_enabled(tp_, 0x11, 0x8));
  EXPECT_FALSE(trace_enabled(tp_, 0x1, 0x8));
  EXPECT_FALSE(trace_enabled(tp_, 0, 0));
  EXPECT_FALSE(trace_enabled(nullptr, ~0u, ~0u));

  // All 64 flags pass even a statement with no flags; one word of ones does not.
  ztrace_set_tr_flags(tp_, ~0u, ~0u);
  EXPECT_TRUE(trace_enabled(tp_, 0, 0));
  ztrace_set_tr_flags(tp_, ~0u, 0);
  EXPECT_FALSE(trace_enabled(tp_, 0, 0));
  EXPECT_TRUE(trace_enabled(tp_, 1, 0));

  trace_off_st(tp_->tr_file, false);
  EXPECT_FALSE(trace_enabled(tp_, 1, 0));
}

TEST_F(Core, LevelAndLevelOnly) {
  ztrace_tr_control_set(tp_, 4);
  EXPECT_FALSE(trace_enabled_level(tp_, 0x10, 0, 3));
  EXPECT_TRUE(trace_enabled_level(tp_, 0x10, 0, 4));
  EXPECT_TRUE(trace_enabled_level(tp_, 0x10, 0, 8));
  EXPECT_FALSE(trace_enabled_level(tp_, 0x1, 0, 8));                  // flags still count
  EXPECT_FALSE(trace_enabled_level(tp_, 0x10, 0, 8 | TRC_LEVEL_ONLY));  // the handle lacks the bit
  ztrace_tr_control_set(tp_, 4 | TRC_LEVEL_ONLY);
  EXPECT_TRUE(trace_enabled_level(tp_, 0x1, 0, 5));                   // the level alone decides
  EXPECT_FALSE(trace_enabled_level(tp_, 0x10, 0, 3));
}

TEST_F(Core, DisabledStatementsEvaluateNothing) {
  int evaluated = 0;
  auto arg = [&] { return ++evaluated; };
  ZTRACE(tp_, 0x1, "never %d", arg());
  ztrace_tr_control_set(tp_, 8);
  ZTRACE_LEVEL(tp_, kLow, 4, "below the level %d", arg());
  ZTRACE(nullptr, kLow, "no handle %d", arg());
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(written(), "");
  ZTRACE_LEVEL(tp_, kLow, 9, "at level %d", arg());
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(written(), std::string(kTimeText) + ".000042 at level 1\n");
}

TEST_F(Core, TheBytesOfALine) {
  fixed_usec = 7;
  ZTRACE(tp_, kLow, "one %s", "line");
  ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "bare");
  ZTRACE_CTL(tp_, kLow, TRC_NL_BEFORE, "before");
  ZTRACE_CTL(tp_, kLow, TRC_NL_AFTER, "after");
  ZTRACE_CTL(tp_, kLow, TRC_NO_NEWLINE | TRC_NO_TIMESTAMP, "joined");
  ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "-on");
  ZTRACE_CTL(tp_, kLow, TRC_LOG_ONLY, "never in the file");
  ZTRACE(tp_, kLow, "%s", "");  // an empty message writes nothing
  fixed_usec = 42;
  const std::string p = std::string(kTimeText) + ".000007 ";
  EXPECT_EQ(written(), p + "one line\n" + "bare\n" + p + "\n" + p + "before\n" + p + "after\n" + p + "\n" +
                           "joined-on\n");
  // The handle's own "no timestamp" counts too.
  ztrace_tr_control_set(tp_, TRC_NO_TIMESTAMP);
  const std::string before = written();
  ZTRACE(tp_, kLow, "plain");
  EXPECT_EQ(written().substr(before.size()), "plain\n");
}

TEST_F(Core, LongMessagesAreCutAt1023Bytes) {
  const std::string big(3000, 'x');
  ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "%s", big.c_str());
  EXPECT_EQ(written(), std::string(ZTRACE_MSG_SIZE - 1, 'x') + "\n");
  // The buffer is reset after every statement.
  EXPECT_EQ(ztrace_msg_len(), 0u);
  ztrace_msg_append("%s", big.c_str());
  ztrace_msg_append("more");
  EXPECT_EQ(ztrace_msg_len(), ZTRACE_MSG_SIZE - 1);
  ztrace_msg_reset();
}

TEST_F(Core, ErrnoSurvivesAndPercentMSeesTheCallersValue) {
  errno = ENOENT;
  ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "failed: %m");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(written(), std::string("failed: ") + strerror(ENOENT) + "\n");
}

TEST_F(Core, AChildsLinesCarryItsPid) {
  ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "parent");
  fflush(tp_->tr_file->trf_stream);
  pid_t child = fork();
  if (child == 0) {
    ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "child");
    fflush(tp_->tr_file->trf_stream);
    _exit(0);
  }
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(written(), "parent\n[" + std::to_string(child) + "] child\n");
}

TEST_F(Core, SyslogPathByMode) {
  ZTRACE_LOG(tp_, 0x1, 4, "logged %d", 1);  // not traced: the flag is off
  ZTRACE_LOG(tp_, kLow, 3, "logged %d", 2);
  ASSERT_EQ(log_->records.size(), 2u);
  EXPECT_EQ(log_->records[0].priority, 4);
  EXPECT_EQ(log_->records[0].text, "logged 1");
  EXPECT_EQ(written(), std::string(kTimeText) + ".000042 logged 2\n");
  ztrace_set_syslog_mode(1);
  ZTRACE_LOG(tp_, 0x1, 3, "dropped");
  ztrace_set_syslog_mode(0);
  EXPECT_EQ(log_->records.size(), 2u);
}

TEST_F(Core, AFormatOnTheStackIsRenderedAsItStandsAndSkipsSyslog) {
  char fmt[32];
  strcpy(fmt, "stack %d");
  ZTRACE_STMT_DYNAMIC(ztrace_enabled_flags, tp_, kLow, TRC_NO_TIMESTAMP, 3, fmt, 5);
  EXPECT_EQ(written(), "stack 5\n");
  EXPECT_TRUE(log_->records.empty());
}

TEST_F(Core, CallSitesArePreparedOnce) {
  static int prepared = 0;
  actx_.backend.ztask_ztrace_fmtinit = [](ztrace_callsite *s, const char *fmt, const char *file, const char *func,
                                          int line) {
    prepared++;
    s->zfmt_fmtstr = fmt;
    s->zcs_file = file;
    s->zcs_func = func;
    s->zcs_line = line;
    return 0;
  };
  actx_.backend.render = [](ztrace_msg *m, const char *fmt, va_list ap) {
    trace_app_ctx->backend.append(fmt, ap);
    trace_app_ctx->backend.write_line(m->zm_trace, m->zm_control);
  };
  for (int i = 0; i < 3; i++) ZTRACE_CTL(tp_, kLow, TRC_NO_TIMESTAMP, "site %d", i);
  EXPECT_EQ(prepared, 1);
  EXPECT_EQ(written(), "site 0\nsite 1\nsite 2\n");
}

TEST_F(Core, DefaultPreparationCountsSegmentsAndAsksForExtensions) {
  ztrace_callsite site{};
  EXPECT_EQ(actx_.backend.ztask_ztrace_fmtinit(&site, "a %d b %% c %-5s %zp %m", "f.cc", "fn", 7), 0);
  EXPECT_EQ(site.zcs_line, 7);
  EXPECT_EQ(site.zcs_nseg, 4);
  EXPECT_EQ(site.zcs_seg[2].zs_letter, 'p');
  EXPECT_EQ(site.zcs_seg[2].zs_ext, 1);
  EXPECT_EQ(site.zcs_seg[3].zs_argcount, 0);  // %m takes nothing
  // With the framework's look-up in place, a letter it does not know fails.
  actx_.backend.ztask_ztrace_zext = [](int letter, int count, int *code, int *v2, int *fam) {
    *code = 24;
    *v2 = 0;
    *fam = 0;
    return letter == 'i' && count == 2 ? 0 : -1;
  };
  ztrace_callsite two{};
  EXPECT_EQ(actx_.backend.ztask_ztrace_fmtinit(&two, "%zi", "f.cc", "fn", 8), 0);
  EXPECT_EQ(two.zcs_seg[0].zs_argcount, 2);
  EXPECT_EQ(two.zcs_next, 2);
  ztrace_callsite bad{};
  EXPECT_NE(actx_.backend.ztask_ztrace_fmtinit(&bad, "%zq", "f.cc", "fn", 9), 0);
}

TEST_F(Core, PrintHooksAreTheOnlyFormatter) {
  static int calls = 0;
  actx_.ztrace_vsnprintf = [](char *buf, size_t len, const char *fmt, va_list ap) {
    calls++;
    return vsnprintf(buf, len, fmt, ap);
  };
  ZTRACE(tp_, kLow, "hooked %d", 1);
  EXPECT_GE(calls, 1);
  EXPECT_EQ(written(), std::string(kTimeText) + ".000042 hooked 1\n");
}

TEST_F(Core, AllocationGoesThroughTheHooksByClass) {
  EXPECT_EQ(trace_allocs.live[TRACE_CLASS_HANDLE], 2);    // global and ours
  EXPECT_EQ(trace_allocs.live[TRACE_CLASS_FILE], 2);      // stderr and ours
  EXPECT_EQ(trace_allocs.live[TRACE_CLASS_FILENAME], 1);  // our file's name
}

using CoreDeath = Core;

TEST_F(CoreDeath, InitChecksMagicAndPrintFamily) {
  ztrace_app_ctx bad;
  ztrace_app_ctx_defaults(&bad);
  bad.magic = 1;
  EXPECT_DEATH(trace_init(&bad), "trace_app_ctx->init.magic == ZTRACE_MAGIC");
  ztrace_app_ctx_defaults(&bad);
  bad.ztrace_vsnprintf = nullptr;
  EXPECT_DEATH(trace_init(&bad), "ZTRACE_VSNPRINTF");
  ztrace_app_ctx_defaults(&bad);
  bad.ztrace_sprintf = nullptr;  // the one that may be missing
  bad.alloc = actx_.alloc;
  bad.free = actx_.free;
  bad.strdup = actx_.strdup;
  EXPECT_EXIT((trace_init(&bad), exit(0)), ::testing::ExitedWithCode(0), "");
}

TEST_F(CoreDeath, AnUnpreparableCallSiteAsserts) {
  actx_.backend.ztask_ztrace_zext = [](int, int, int *, int *, int *) { return -1; };
  // One argument where the letter takes two: only a format the compiler
  // cannot see gets this far.
  EXPECT_DEATH(ZTRACE_STMT_DYNAMIC(ztrace_enabled_flags, tp_, kLow, 0, 0, "%zq", 1), "!rc");
}

}  // namespace
