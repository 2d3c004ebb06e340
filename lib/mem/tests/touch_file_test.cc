// The touch file: a symbolic link whose target carries the debug settings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "mem/mem.h"
#include "platform/path.h"

namespace {

class TouchFile : public ::testing::Test {
 protected:
  std::string root;
  void SetUp() override {
    char tmpl[] = "/tmp/touchXXXXXX";
    root = mkdtemp(tmpl);
    ASSERT_EQ(system(("mkdir -p " + root + "/tmp " + root + "/var/tmp").c_str()), 0);
    tvx_path_set_root(root.c_str());
  }
  void TearDown() override {
    tvx_path_set_root(nullptr);
    ASSERT_EQ(system(("rm -rf " + root).c_str()), 0);
  }
  void link(const std::string &dir, const std::string &target) {
    std::string path = root + dir + "prog.debug";
    unlink(path.c_str());
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  }
};

struct Case {
  const char *target;
  bool matched;
  uint32_t flags;
  const char *pattern;
  const char *options;
};

}  // namespace

TEST_F(TouchFile, TargetsParseIntoPatternLettersAndOptions) {
  const Case cases[] = {
      {"prog,UZ,junk:true", true, TASK_MEM_DBG_LIBC | TASK_MEM_DBG_Z, "prog", "junk:true"},
      {"prog,LCDFMXARTZJB", true, 0x1ffe, "prog", ""},
      {"*,T", true, TASK_MEM_DBG_TOGGLE, "*", ""},
      {"*anything,U", true, TASK_MEM_DBG_LIBC, "*anything", ""},
      {"other,UZ,junk:true", false, 0, "other", "junk:true"},
      {"prog,uz,opts", true, 0, "prog", "opts"},  // letters only when the field starts upper-case
      {"prog,Uq?Z", true, TASK_MEM_DBG_LIBC | TASK_MEM_DBG_Z, "prog", ""},
      {"prog,A,ld:libx.so,prof:true", true, TASK_MEM_DBG_A, "prog", "prof:true"},
      {"prog,A,ld:only", true, TASK_MEM_DBG_A, "prog", "ld:only"},  // no comma after ld: it is the options
      {"prog", true, 0, "prog", ""},
      {"prog,,x", true, 0, "prog", "x"},
  };
  for (const Case &c : cases) {
    link("/tmp/", c.target);
    task_mem_touch t;
    ASSERT_TRUE(task_memory_touch_file_read("prog", &t)) << c.target;
    EXPECT_TRUE(t.found);
    EXPECT_EQ(t.matched, c.matched) << c.target;
    EXPECT_EQ(t.flags, c.flags) << c.target;
    EXPECT_STREQ(t.pattern, c.pattern) << c.target;
    EXPECT_STREQ(t.options, c.options) << c.target;
  }
}

TEST_F(TouchFile, VarTmpIsTheFallbackAndAPlainFileIsNoLink) {
  task_mem_touch t;
  EXPECT_FALSE(task_memory_touch_file_read("prog", &t));
  EXPECT_FALSE(t.found);
  link("/var/tmp/", "prog,U");
  ASSERT_TRUE(task_memory_touch_file_read("prog", &t));
  EXPECT_EQ(t.flags, uint32_t{TASK_MEM_DBG_LIBC});
  link("/tmp/", "prog,Z");  // /tmp wins when both exist
  ASSERT_TRUE(task_memory_touch_file_read("prog", &t));
  EXPECT_EQ(t.flags, uint32_t{TASK_MEM_DBG_Z});

  // A regular file in its place is not a setting.
  std::string path = root + "/tmp/plain.debug";
  FILE *f = fopen(path.c_str(), "w");
  fputs("plain,U", f);
  fclose(f);
  EXPECT_FALSE(task_memory_touch_file_read("plain", &t));
}

TEST_F(TouchFile, LongTargetsAreCutNotOverrun) {
  std::string target = "prog,U," + std::string(3000, 'o');
  link("/tmp/", target);
  task_mem_touch t;
  ASSERT_TRUE(task_memory_touch_file_read("prog", &t));
  EXPECT_EQ(t.flags, uint32_t{TASK_MEM_DBG_LIBC});
  EXPECT_LT(strlen(t.options), sizeof t.options);
}
