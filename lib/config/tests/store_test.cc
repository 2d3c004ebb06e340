// The configuration in force: sequence numbers, change records, refusal of a
// bad file without harm, handles, and where errors go.
#include <gtest/gtest.h>
#include <syslog.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "evlog/evlog.h"
#include "platform/path.h"
#include "test_schema.h"

class Store : public ::testing::Test {
 protected:
  TempDir dir;
  void SetUp() override { register_test_schema(); }
  void TearDown() override {
    ddl_access_close_db(0, 0);
    ddax_close_db();
    EXPECT_EQ(dax_open_handles(), 0u);
  }
  uint32_t level_now() {
    const char *p[] = {"protocols", "overlay", "traceoptions", nullptr};
    ddl_object_t *to = nullptr;
    uint32_t v = 99;
    if (dax_get_object_by_path(nullptr, p, &to)) dax_get_uint_by_name(to, "level", &v);
    dax_release_object(&to);
    return v;
  }
};

TEST_F(Store, SequenceMovesOnlyWithContent) {
  uint32_t seq = 0;
  ddl_db_t *db = open_text(dir, "protocols { overlay { traceoptions { level 1; } } }");
  ASSERT_TRUE(db);
  EXPECT_EQ(ddl_access_check_sequence(db, &seq), 1);
  EXPECT_EQ(seq, 1u);

  // Comments and layout are not content.
  db = open_text(dir, "# note\nprotocols {\n  overlay { traceoptions { level 1; } }\n}\n");
  ASSERT_TRUE(db);
  EXPECT_EQ(ddl_access_check_sequence(db, &seq), 0);
  EXPECT_EQ(seq, 1u);

  // A new value is.
  db = open_text(dir, "protocols { overlay { traceoptions { level 2; } } }");
  EXPECT_EQ(ddl_access_check_sequence(db, &seq), 1);
  EXPECT_EQ(seq, 2u);

  // A bad file leaves number and content as they were.
  EXPECT_EQ(open_text(dir, "protocols { overlay { traceoptions { level 3; } }"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(level_now(), 2u);
  EXPECT_EQ(ddl_access_check_sequence(db, &seq), 0);

  // Closing and opening again the same content keeps the number.
  ddl_access_close_db(0, 0);
  EXPECT_EQ(level_now(), 99u);
  db = open_text(dir, "protocols { overlay { traceoptions { level 2; } } }");
  EXPECT_EQ(ddl_access_check_sequence(db, &seq), 0);
  EXPECT_EQ(seq, 2u);
}

TEST_F(Store, ChangedObjectsAgainstThePreviousRead) {
  open_text(dir, "protocols { overlay { description a; traceoptions { flag kernel; flag config; } } }");
  const char *to_path[] = {"protocols", "overlay", "traceoptions", nullptr};
  ddl_object_t *to = nullptr, *desc = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, to_path, &to));
  EXPECT_TRUE(ddl_access_object_changed(to));  // first read: everything is new
  dax_release_object(&to);

  open_text(dir, "protocols { overlay { description b; traceoptions { flag kernel; flag config; } } }");
  ASSERT_TRUE(dax_get_object_by_path(nullptr, to_path, &to));
  EXPECT_FALSE(ddl_access_object_changed(to));
  const char *d_path[] = {"protocols", "overlay", "description", nullptr};
  ASSERT_TRUE(dax_get_object_by_path(nullptr, d_path, &desc));
  EXPECT_TRUE(ddl_access_object_changed(desc));
  dax_release_object(&desc);
  dax_release_object(&to);

  // One entry of a list changes; its sibling does not.
  open_text(dir, "protocols { overlay { description b; traceoptions { flag kernel detail; flag config; } } }");
  const char *f_path[] = {"protocols", "overlay", "traceoptions", "flag", nullptr};
  ddl_object_t *flags = nullptr, *cur = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, f_path, &flags));
  std::vector<bool> changed;
  while (dax_visit_container(flags, &cur)) changed.push_back(ddl_access_object_changed(cur));
  EXPECT_EQ(changed, (std::vector<bool>{true, false}));
  dax_release_object(&flags);
}

TEST_F(Store, HandlesOutliveTheirConfiguration) {
  open_text(dir, "protocols { overlay { description old; } }");
  const char *p[] = {"protocols", "overlay", nullptr};
  ddl_object_t *ov = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, p, &ov));
  EXPECT_EQ(dax_open_handles(), 1u);
  open_text(dir, "protocols { overlay { description new; } }");
  ddl_access_close_db(0, 0);
  char buf[8];
  EXPECT_TRUE(dax_get_string_by_name(ov, "description", buf, sizeof buf));
  EXPECT_STREQ(buf, "old");
  EXPECT_TRUE(ddl_access_object_changed(ov));  // not of the configuration in force
  dax_release_object(&ov);
  EXPECT_EQ(ov, nullptr);
  dax_release_object(&ov);  // a second release of a null handle does nothing
}

TEST_F(Store, VisitingStoppedEarlyAndForeignCursors) {
  open_text(dir, "tunnel 1; tunnel 2; tunnel 3;");
  ddl_object_t *t = nullptr, *cur = nullptr;
  ASSERT_TRUE(dax_get_object_by_name(nullptr, "tunnel", &t));
  ASSERT_TRUE(dax_visit_container(t, &cur));
  dax_release_object(&cur);  // stopping early
  // A cursor that is not a child of the container ends the visit cleanly.
  ddl_object_t *top = nullptr;
  ASSERT_TRUE(dax_get_root_object(nullptr, &top));
  ddl_object_t *foreign = nullptr;
  ASSERT_TRUE(dax_visit_container(top, &foreign));
  EXPECT_FALSE(dax_visit_container(t, &foreign));
  EXPECT_EQ(foreign, nullptr);
  dax_release_object(&top);
  dax_release_object(&t);
}

TEST_F(Store, DefaultFileUnderTheRootAndMissingFiles) {
  tvx_path_set_root(dir.path().c_str());
  // No default file: an empty configuration.
  ddl_db_t *db = ddl_access_open_db(0, nullptr, kTestSchema, 0, 1);
  ASSERT_TRUE(db);
  ddl_object_t *top = nullptr, *x = nullptr;
  ASSERT_TRUE(dax_get_root_object(db, &top));
  EXPECT_FALSE(dax_get_object_by_name(top, "protocols", &x));
  dax_release_object(&top);

  ASSERT_EQ(mkdir((dir.path() + "/etc").c_str(), 0755), 0);
  dir.write(std::string("etc/") + program_invocation_short_name + ".conf", "protocols { overlay { traceoptions { level 5; } } }");
  ASSERT_TRUE(ddl_access_open_db(0, nullptr, kTestSchema, 0, 1));
  EXPECT_EQ(level_now(), 5u);

  // A file named by the user must exist.
  errno = 0;
  EXPECT_EQ(ddl_access_open_db(0, (dir.path() + "/nope.conf").c_str(), kTestSchema, 0, 1), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("nope.conf: cannot open: No such file"), std::string::npos);
  EXPECT_EQ(level_now(), 5u);
  EXPECT_EQ(ddl_access_open_db(0, dir.path().c_str(), kTestSchema, 0, 1), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(ddl_access_open_db(0, nullptr, 0x1234, 0, 1), nullptr);
  EXPECT_STREQ(ddl_access_config_last_error(), "unknown configuration schema 0x00001234");
  EXPECT_EQ(ddl_access_open_db(1, nullptr, kTestSchema, 0, 1), nullptr);
  tvx_path_set_root(nullptr);
}

TEST_F(Store, TooLargeFileIsRefused) {
  std::string big(DDL_MAX_FILE + 1, ' ');
  errno = 0;
  EXPECT_EQ(open_text(dir, big), nullptr);
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(Store, DynamicConfigurationIsSeparate) {
  ddl_db_t *s = open_text(dir, "protocols { overlay { traceoptions { level 1; } } }");
  ddl_db_t *d = ddax_open_db(dir.write("dyn.conf", "tunnel 7;").c_str(), kTestSchema);
  ASSERT_TRUE(s && d && s != d);
  ddl_object_t *t = nullptr, *top = nullptr;
  EXPECT_FALSE(dax_get_object_by_name(nullptr, "tunnel", &t));
  ASSERT_TRUE(dax_get_root_object(d, &top));
  EXPECT_TRUE(dax_get_object_by_name(top, "tunnel", &t));
  dax_release_object(&t);
  dax_release_object(&top);
  ddax_close_db();
  EXPECT_FALSE(dax_get_root_object(d, &top));
  EXPECT_EQ(level_now(), 1u);
}

static std::vector<std::string> traced;
static void trace_fn(const char *text) { traced.push_back(text); }

TEST_F(Store, ErrorsReachTheirOutlets) {
  evlog_capture &cap = evlog_capture_start();
  traced.clear();
  ddl_access_config_error_set_trace_func(trace_fn);
  ddl_access_config_error_set_flags(DDL_ERR_LOG);
  ddl_access_config_error_set_level(LOG_ERR);
  unsigned before = ddl_access_config_error_count();

  EXPECT_EQ(open_text(dir, "protocols { bogus; }"), nullptr);
  ddl_access_config_error("Static configuration DB open failure: %s\n", "bad file");
  ddl_access_config_warning("No file specified.");

  std::string where = dir.path() + "/test.conf:1:13: unknown statement 'bogus' in 'protocols'";
  EXPECT_EQ(traced, (std::vector<std::string>{where, "Static configuration DB open failure: bad file",
                                              "warning: No file specified."}));
  ASSERT_EQ(cap.records.size(), 3u);
  EXPECT_EQ(cap.records[0].priority, LOG_ERR);
  EXPECT_EQ(cap.records[2].priority, LOG_WARNING);
  EXPECT_EQ(ddl_access_config_error_count(), before + 2);  // warnings are not errors

  // Standard error when asked.
  ddl_access_config_error_set_flags(DDL_ERR_STDERR);
  testing::internal::CaptureStderr();
  open_text(dir, "protocols { overlay { traceoptions { level 7; } } }");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, dir.path() + "/test.conf:1:44: 7 is out of range for 'level' (0..5)\n");

  // An object's own error names where it was written.
  open_text(dir, "\n\n  tunnel 5;");
  ddl_access_config_error_clear_flags(DDL_ERR_STDERR);
  ddl_object_t *t = nullptr, *cur = nullptr;
  ASSERT_TRUE(dax_get_object_by_name(nullptr, "tunnel", &t));
  ASSERT_TRUE(dax_visit_container(t, &cur));
  dax_error(cur, "bad traceflag %s", "x");
  EXPECT_EQ(traced.back(), dir.path() + "/test.conf:3:3: bad traceflag x");
  dax_release_object(&cur);
  dax_release_object(&t);
  ddl_access_config_error_set_trace_func(nullptr);
  evlog_capture_stop();
}
