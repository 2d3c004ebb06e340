#include "platform/path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <string>

TEST(Path, RootFromEnvironmentAtFirstUse) {
  setenv("TAVOX_ROOT", "/tmp/r1//", 1);
  EXPECT_STREQ(tvx_path_root(), "/tmp/r1");
  EXPECT_EQ(tvx_path("/var/run/tunechod.pid"), "/tmp/r1/var/run/tunechod.pid");
}

TEST(Path, RootAppliedToEveryLogicalPath) {
  tvx_path_set_root("/tmp/root");
  for (const char *p : {"/var/run/x.pid", "/var/tmp/mmcq_q", "/var/log/trace", "/etc/tunechod.conf",
                        "/mfs/var/mmdb/db", "/tmp/tunechod.debug"})
    EXPECT_EQ(tvx_path(p), std::string("/tmp/root") + p) << p;
  EXPECT_STREQ(path_solvane_prefix(), "/tmp/root");
  EXPECT_STREQ(path_solvane_run_dir(), "/tmp/root/var/run");
  EXPECT_STREQ(path_solvane_log_dir(), "/tmp/root/var/log");
  EXPECT_STREQ(path_solvane_live_dump(), "/tmp/root/var/tmp");

  // Relative names are not logical paths.
  EXPECT_EQ(tvx_path("trace.log"), "trace.log");

  // The directory names follow a change of root.
  tvx_path_set_root("/");
  EXPECT_STREQ(path_solvane_run_dir(), "/var/run");
  EXPECT_EQ(tvx_path("/var/run/x"), "/var/run/x");
}

TEST(Path, NoRootKeepsLiteralPathsAndMovesSharedMemory) {
  tvx_path_set_root(nullptr);
  EXPECT_EQ(tvx_path("/var/run/x"), "/var/run/x");
  struct stat st;
  std::string want = stat("/mfs", &st) == 0 ? "/mfs/var/mmdb/a" : "/dev/shm/tavox/mfs/var/mmdb/a";
  EXPECT_EQ(tvx_path("/mfs/var/mmdb/a"), want);
  // "/mfsx" is not under "/mfs".
  EXPECT_EQ(tvx_path("/mfsx/a"), "/mfsx/a");
}

TEST(Path, BufferFormReportsTooLong) {
  tvx_path_set_root("/r");
  char buf[16];
  EXPECT_STREQ(tvx_path("/var/run/a", buf, sizeof buf), "/r/var/run/a");
  errno = 0;
  EXPECT_EQ(tvx_path("/var/run/abcde", buf, sizeof buf), nullptr);  // 17 bytes with the NUL
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_STREQ(tvx_path("/var/run/abcd", buf, sizeof buf), "/r/var/run/abcd");  // exactly 16
}

TEST(Path, KeysDependOnTheRoot) {
  tvx_path_set_root(nullptr);
  EXPECT_EQ(tvx_path_key(0xDDD5), 0xDDD5);
  tvx_path_set_root("/tmp/a");
  key_t a = tvx_path_key(0xDDD5);
  tvx_path_set_root("/tmp/b");
  key_t b = tvx_path_key(0xDDD5);
  EXPECT_NE(a, 0xDDD5);
  EXPECT_NE(a, b);
  EXPECT_EQ(tvx_path_key(0xDDD5), b);  // stable
  EXPECT_NE(tvx_path_key(0), 0);       // never IPC_PRIVATE
}

TEST(Path, MkdirsMakesParentsAndRefusesFiles) {
  char tmpl[] = "/tmp/tvxpathXXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string deep = std::string(tmpl) + "/a/b/c";
  EXPECT_EQ(tvx_mkdirs(deep.c_str(), 0755), 0);
  EXPECT_EQ(tvx_mkdirs(deep.c_str(), 0755), 0);  // again: nothing to do
  std::string file = std::string(tmpl) + "/f";
  FILE *f = fopen(file.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  EXPECT_EQ(tvx_mkdirs((file + "/x").c_str(), 0755), ENOTDIR);
  EXPECT_EQ(tvx_mkdirs(file.c_str(), 0755), ENOTDIR);
  std::string cmd = std::string("rm -rf ") + tmpl;
  ASSERT_EQ(system(cmd.c_str()), 0);
}
