// Event systems, the trace-events syntax, and the memtrace dump.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "trace/zevt.h"
#include "trace_fixture.h"

namespace {

const zevt_desc kEvents[] = {{1, "open", 0}, {2, "close", 0}, {3, "read", 0}, {4, "write", 0},
                             {5, "seek", 0}, {6, "sync", 0},  {7, "stat", 0}, {0, nullptr, 0}};

class Events : public TraceTest {
 protected:
  void SetUp() override {
    TraceTest::SetUp();
    const zevt_system_desc d = {"sys", "a test system", 7, kEvents};
    ASSERT_EQ(zevt_system_create(&d, err_, sizeof err_), 0) << err_;
    sys_ = zevt_system_find("sys", err_, sizeof err_);
    ASSERT_NE(sys_, nullptr);
  }
  std::string create_error(const zevt_system_desc *d) {
    err_[0] = '\0';
    EXPECT_EQ(zevt_system_create(d, err_, sizeof err_), -1);
    return err_;
  }
  std::string actions() {
    std::string s;
    for (unsigned n = 1; n <= 7; n++) s += std::to_string(zevt_action(sys_, n));
    return s;
  }

  char err_[256] = "";
  zevt_system *sys_ = nullptr;
};

TEST_F(Events, CreationChecksEachField) {
  const std::string long_name(65, 'n');
  const zevt_desc dup[] = {{1, "a", 0}, {1, "b", 0}, {0, nullptr, 0}};
  const zevt_desc two[] = {{1, "a", 0}, {2, "b", 0}, {0, nullptr, 0}};
  const zevt_desc long_title[] = {{1, long_name.c_str(), 0}, {0, nullptr, 0}};
  const zevt_desc zero[] = {{0, "a", 0}, {0, nullptr, 0}};
  zevt_system_desc d;
  EXPECT_EQ(create_error(nullptr), "Event system null");
  d = {nullptr, "t", 1, two};
  EXPECT_EQ(create_error(&d), "Event name is null");
  d = {long_name.c_str(), "t", 1, two};
  EXPECT_EQ(create_error(&d), "Event system name exceeds limit ");
  d = {"x", nullptr, 1, two};
  EXPECT_EQ(create_error(&d), "Event description is null");
  d = {"x", long_name.c_str(), 1, two};
  EXPECT_EQ(create_error(&d), "Event system title exceeds limit ");
  d = {"sys", "t", 2, two};
  EXPECT_EQ(create_error(&d), "Event system sys already exist !");
  d = {"x", "t", 2, nullptr};
  EXPECT_EQ(create_error(&d), "Event system, event desc table null");
  d = {"x", "t", 256, two};
  EXPECT_EQ(create_error(&d), "Event system, event numbers exceeds maximum allowed ");
  d = {"x", "t", 2, dup};
  EXPECT_EQ(create_error(&d), "Event system, invalid event number");
  d = {"x", "t", 1, zero};
  EXPECT_EQ(create_error(&d), "Event system, invalid event number");
  d = {"x", "t", 3, two};
  EXPECT_EQ(create_error(&d), "Event system count mismatch");
  d = {"x", "t", 1, long_title};
  EXPECT_EQ(create_error(&d), "Event system evt 1 title exceeds limit");
  // Nothing of the refused ones exists.
  EXPECT_EQ(zevt_system_find("x", err_, sizeof err_), nullptr);
  EXPECT_STREQ(err_, "error: evt system x not found !!");
  d = {"x", "t", 2, two};
  EXPECT_EQ(zevt_system_create(&d, err_, sizeof err_), 0);
  EXPECT_STREQ(zevt_system_find("x", nullptr, 0)->zs_events[2].ze_title, "b");
}

// The system's record and its event table are two allocations; either
// failing leaves nothing behind.
int allocs_before_failure;
void *(*real_alloc)(int, size_t);
void *fail_after(int cls, size_t size) { return allocs_before_failure-- > 0 ? real_alloc(cls, size) : nullptr; }

TEST_F(Events, AllocationFailuresAreReportedAndChangeNothing) {
  const zevt_desc two[] = {{1, "a", 0}, {2, "b", 0}, {0, nullptr, 0}};
  const zevt_system_desc d = {"x", "t", 2, two};
  real_alloc = trace_app_ctx->alloc;
  trace_app_ctx->alloc = fail_after;
  allocs_before_failure = 0;
  const std::string record_failed = create_error(&d);
  allocs_before_failure = 1;
  const std::string table_failed = create_error(&d);
  trace_app_ctx->alloc = real_alloc;
  EXPECT_EQ(record_failed, "Event system create failure");
  EXPECT_EQ(table_failed, "Event system table memory alloc failure");
  EXPECT_EQ(zevt_system_find("x", nullptr, 0), nullptr);
  EXPECT_EQ(zevt_system_create(&d, err_, sizeof err_), 0) << err_;
}

TEST_F(Events, RangesAndActions) {
  ASSERT_EQ(zevt_set_action(sys_, "1,3-5,7", "memtrace", err_, sizeof err_), 0);
  EXPECT_EQ(actions(), "1011101");
  ASSERT_EQ(zevt_set_action(sys_, "4-5", "memtrace-bt", err_, sizeof err_), 0);
  EXPECT_EQ(actions(), "1013301");
  ASSERT_EQ(zevt_set_action(sys_, "3-4", "disable", err_, sizeof err_), 0);
  EXPECT_EQ(actions(), "1000301");
  for (const char *bad : {"0", "8", "5-3", "1,,2", "a", "2-", "3-9"}) {
    EXPECT_EQ(zevt_set_action(sys_, bad, "memtrace", err_, sizeof err_), -1) << bad;
    EXPECT_EQ(std::string(err_).rfind(" error: start", 0), 0u) << bad;
  }
  EXPECT_EQ(zevt_set_action(sys_, "5-3", "memtrace", err_, sizeof err_), -1);
  EXPECT_STREQ(err_, " error: start 5, end 3 max 7 num 1\n");
  EXPECT_EQ(actions(), "1000301");  // a refused list changes nothing
}

TEST_F(Events, ConfigurationSwitchesEventsOnWholeOrNotAtAll) {
  ASSERT_TRUE(configure("protocols { overlay { traceoptions { trace-events \"sys:1,3-5,7\" memtrace-bt; "
                        "trace-events \"sys:2\"; } } }"));
  const char *path[] = {"protocols", "overlay", "traceoptions", nullptr};
  ddl_object_t *to = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &to));
  EXPECT_TRUE(zevt_config_read(to));
  dax_release_object(&to);
  EXPECT_EQ(actions(), "3133303");

  ASSERT_TRUE(configure("protocols { overlay { traceoptions { trace-events \"sys:1\" disable; "
                        "trace-events \"sys:9\"; } } }"));
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &to));
  EXPECT_FALSE(zevt_config_read(to));
  dax_release_object(&to);
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("Error: Evt System configuration failure"),
            std::string::npos);
  EXPECT_EQ(actions(), "3133303");

  ASSERT_TRUE(configure("protocols { overlay { traceoptions { trace-events \"nosys:1\"; } } }"));
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &to));
  EXPECT_FALSE(zevt_config_read(to));
  dax_release_object(&to);
}

TEST_F(Events, TheRingDumpsToAGzipFileThatZcatReads) {
  ASSERT_EQ(zevt_set_action(sys_, "1-2", "memtrace", err_, sizeof err_), 0);
  ASSERT_EQ(zevt_set_action(sys_, "3", "memtrace-bt", err_, sizeof err_), 0);
  EXPECT_TRUE(zevt_record(sys_, 1, "opened %s", "/etc/x"));
  EXPECT_TRUE(zevt_record(sys_, 3, "read %d bytes", 12));
  EXPECT_FALSE(zevt_record(sys_, 4, "not recorded"));
  task_memtrace_ctx *ctx = task_memtrace_main();
  EXPECT_TRUE(ctx->memtrace_flags & MEMTRACE_ENABLED);
  ASSERT_EQ(task_memtrace_dump(ctx), 0);
  const std::string file = ctx->memtrace_file;
  EXPECT_EQ(file.rfind(real("/var/log/memtrace_tracetest_default_global."), 0), 0u) << file;
  EXPECT_EQ(file.substr(file.size() - 3), ".gz");
  FILE *z = popen(("zcat '" + file + "'").c_str(), "r");
  ASSERT_NE(z, nullptr);
  std::vector<std::string> lines;
  char buf[1024];
  while (fgets(buf, sizeof buf, z)) lines.push_back(buf);
  EXPECT_EQ(pclose(z), 0);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("0  : sys:1 opened /etc/x \n"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("1  : sys:3 read 12 bytes ^0x"), std::string::npos) << lines[1];
}

TEST_F(Events, AFullRingDumpsBeforeItWraps) {
  ASSERT_EQ(zevt_set_action(sys_, "1", "memtrace", err_, sizeof err_), 0);
  task_memtrace_ctx *ctx = task_memtrace_main();
  ctx->memtrace_size = 1;  // 16 records
  for (int i = 0; i < 17; i++) zevt_record(sys_, 1, "n %d", i);
  EXPECT_EQ(ctx->memtrace_dumps, 1u);
  EXPECT_EQ(ctx->memtrace_count, 17u);
}

TEST_F(Events, ForkOnDumpHandsTheDumpToATask) {
  ASSERT_EQ(zevt_set_action(sys_, "1", "memtrace", err_, sizeof err_), 0);
  zevt_record(sys_, 1, "x");
  task_memtrace_ctx *ctx = task_memtrace_main();
  ctx->memtrace_flags |= MEMTRACE_FORK_ON_DUMP;
  static std::string started;
  static int token;
  task_memtrace_set_runner([](task_memtrace_ctx *, const char *name, int priority) -> void * {
    started = std::string(name) + "/" + std::to_string(priority);
    return &token;
  });
  EXPECT_EQ(task_memtrace_dump(ctx), 0);
  EXPECT_EQ(started, "memtrace_dump.global/10");
  EXPECT_EQ(ctx->memtrace_dump_task, &token);
  EXPECT_DEATH(memtrace_perform_dump_complete(ctx, nullptr), "tp == ctx_mt->memtrace_dump_task");
  memtrace_perform_dump_complete(ctx, &token);
  EXPECT_EQ(ctx->memtrace_dump_task, nullptr);
  task_memtrace_set_runner(nullptr);
}

}  // namespace
