// Reading files: what a good file gives, and the exact place of each error.
#include <gtest/gtest.h>

#include <string>

#include "test_schema.h"

class Parse : public ::testing::Test {
 protected:
  TempDir dir;
  void SetUp() override { register_test_schema(); }
  void TearDown() override {
    ddl_access_close_db(0, 0);
    EXPECT_EQ(dax_open_handles(), 0u);
  }

  // The error a bad text gives, without the file name.
  std::string error_of(const std::string &text) {
    if (open_text(dir, text)) return "(accepted)";
    std::string e = ddl_access_config_last_error();
    std::string prefix = dir.path() + "/test.conf:";
    return e.rfind(prefix, 0) == 0 ? e.substr(prefix.size()) : e;
  }
};

TEST_F(Parse, TheDocumentedExampleReadsBack) {
  ASSERT_TRUE(open_text(dir, R"(
/* the daemon's trace options */
protocols {
    overlay {
        traceoptions {
            file tunechod size 1m files 3 world-readable;   # inline attributes
            flag all;
            flag packets { detail; send; }
            level 4;
            trace-events "sys:1,3-5,7" memtrace-bt;
        }
    }
}
)"));
  const char *path[] = {"protocols", "overlay", "traceoptions", nullptr};
  ddl_object_t *to = nullptr, *file = nullptr, *flags = nullptr, *ev = nullptr, *cur = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &to));

  ASSERT_TRUE(dax_get_object_by_name(to, "file", &file));
  char name[64];
  uint32_t size = 0, files = 0, level = 0;
  bool wr = false, rep = true;
  EXPECT_TRUE(dax_get_string_by_name(file, "filename", name, sizeof name));
  EXPECT_STREQ(name, "tunechod");
  EXPECT_TRUE(dax_get_uint_by_name(file, "size", &size));
  EXPECT_EQ(size, 1u << 20);
  EXPECT_TRUE(dax_get_uint_by_name(file, "files", &files));
  EXPECT_EQ(files, 3u);
  EXPECT_TRUE(dax_get_toggle_by_name(file, "world-readable", &wr));
  EXPECT_TRUE(wr);
  EXPECT_FALSE(dax_get_toggle_by_name(file, "replace", &rep));
  EXPECT_FALSE(rep);

  ASSERT_TRUE(dax_get_object_by_name(to, "flag", &flags));
  std::string seen;
  while (dax_visit_container(flags, &cur)) {
    ASSERT_TRUE(dax_get_string_by_name(cur, "flag_name", name, sizeof name));
    bool detail;
    seen += std::string(name) + (dax_get_toggle_by_name(cur, "detail", &detail) ? "+detail" : "") + " ";
  }
  EXPECT_EQ(cur, nullptr);
  EXPECT_EQ(seen, "all packets+detail ");

  EXPECT_TRUE(dax_get_uint_by_name(to, "level", &level));
  EXPECT_EQ(level, 4u);

  ASSERT_TRUE(dax_get_object_by_name(to, "trace-events", &ev));
  ASSERT_TRUE(dax_visit_container(ev, &cur));
  EXPECT_TRUE(dax_get_string_by_name(cur, "evtsys_name", name, sizeof name));
  EXPECT_STREQ(name, "sys:1,3-5,7");
  EXPECT_TRUE(dax_get_string_by_name(cur, "trace-action", name, sizeof name));
  EXPECT_STREQ(name, "memtrace-bt");
  const char *f;
  unsigned line, col;
  dax_object_location(cur, &f, &line, &col);
  EXPECT_EQ(line, 10u);
  EXPECT_EQ(col, 13u);
  dax_release_object(&cur);

  for (auto **o : {&to, &file, &flags, &ev}) dax_release_object(o);
}

TEST_F(Parse, RepeatedContainersMergeAndListEntriesAreKeyed) {
  ASSERT_TRUE(open_text(dir, R"(
protocols { overlay { traceoptions { flag kernel; } } }
protocols { overlay { traceoptions { flag kernel detail; flag config; } } }
tunnel 0x10 send;
tunnel 16 receive;
tunnel 17;
)"));
  ddl_object_t *flags = nullptr, *cur = nullptr, *tunnels = nullptr;
  const char *path[] = {"protocols", "overlay", "traceoptions", "flag", nullptr};
  ASSERT_TRUE(dax_get_object_by_path(nullptr, path, &flags));
  int n = 0;
  while (dax_visit_container(flags, &cur)) n++;
  EXPECT_EQ(n, 2);  // kernel (merged, with detail) and config
  dax_release_object(&flags);

  // Number keys compare as numbers: 0x10 and 16 are one entry.
  ASSERT_TRUE(dax_get_object_by_name(nullptr, "tunnel", &tunnels));
  uint32_t vni;
  bool on;
  ASSERT_TRUE(dax_visit_container(tunnels, &cur));
  EXPECT_TRUE(dax_get_uint_by_name(cur, "vni", &vni));
  EXPECT_EQ(vni, 16u);
  EXPECT_TRUE(dax_get_toggle_by_name(cur, "send", &on));
  EXPECT_TRUE(dax_get_toggle_by_name(cur, "receive", &on));
  ASSERT_TRUE(dax_visit_container(tunnels, &cur));
  EXPECT_TRUE(dax_get_uint_by_name(cur, "vni", &vni));
  EXPECT_EQ(vni, 17u);
  EXPECT_FALSE(dax_visit_container(tunnels, &cur));
  dax_release_object(&tunnels);
}

TEST_F(Parse, ValuesAndTheirLimits) {
  ASSERT_TRUE(open_text(dir, "protocols { overlay { description \"a \\\"b\\\"\\tc\"; traceoptions { "
                             "file \"/var/log/x y\" size 0xffffffff files 1000; level 0; } } }\n"));
  const char *p1[] = {"protocols", "overlay", nullptr};
  ddl_object_t *ov = nullptr, *file = nullptr;
  ASSERT_TRUE(dax_get_object_by_path(nullptr, p1, &ov));
  char buf[32];
  EXPECT_TRUE(dax_get_string_by_name(ov, "description", buf, sizeof buf));
  EXPECT_STREQ(buf, "a \"b\"\tc");
  // A buffer one byte short refuses, with an error naming the object.
  EXPECT_FALSE(dax_get_string_by_name(ov, "description", buf, 7));
  EXPECT_NE(std::string(ddl_access_config_last_error()).find("description' is longer than 6"), std::string::npos);
  const char *p2[] = {"traceoptions", "file", nullptr};
  ASSERT_TRUE(dax_get_object_by_path(ov, p2, &file));
  uint32_t v;
  EXPECT_TRUE(dax_get_uint_by_name(file, "size", &v));
  EXPECT_EQ(v, 0xffffffffu);
  EXPECT_TRUE(dax_get_string_by_name(file, "filename", buf, sizeof buf));
  EXPECT_STREQ(buf, "/var/log/x y");
  EXPECT_FALSE(dax_get_uint_by_name(file, "filename", &v));  // not a number
  EXPECT_FALSE(dax_get_uint_by_name(file, "missing", &v));
  dax_release_object(&file);
  dax_release_object(&ov);
}

struct BadCase {
  const char *text;
  const char *error;  // line:col: message
};

// Each bad text is refused with the exact place and words of its first error.
TEST_F(Parse, BadFilesNameTheirFirstError) {
  const BadCase cases[] = {
      {"protocols {\n  overlay {\n", "2:11: unterminated '{' (no '}' before the end of the file)"},
      {"protocols { overlay { } } }", "1:27: unexpected '}'"},
      {"protocols { overlay { traceoptions { level 4 } } }", "1:46: unexpected '}' after 'level' (missing ';'?)"},
      {"protocols { overlay { traceoptions { level 4", "1:45: missing ';' after 'level'"},
      {"protocols;;", "1:11: unexpected ';'"},
      {"{ }", "1:1: unexpected '{'"},
      {"\"protocols\" { }", "1:1: a statement starts with a keyword, not a string"},
      {"protocol { }", "1:1: unknown statement 'protocol'"},
      {"protocols { overlay { trace { } } }", "1:23: unknown statement 'trace' in 'overlay'"},
      {"protocols { overlay { traceoptions { level 9; } } }", "1:44: 9 is out of range for 'level' (0..5)"},
      {"protocols { overlay { traceoptions { level -1; } } }", "1:44: '-1' is not a number for 'level'"},
      {"protocols { overlay { traceoptions { file x size 99999999999999999999999; } } }",
       "1:50: '99999999999999999999999' is not a number for 'size'"},
      {"protocols { overlay { traceoptions { file x size 5g; } } }", "1:50: 5g is out of range for 'size' (0..4294967295)"},
      {"protocols { overlay { traceoptions { file x files 1; } } }", "1:51: 1 is out of range for 'files' (2..1000)"},
      {"protocols { overlay { traceoptions { level; } } }", "1:43: 'level' needs a value"},
      {"protocols { overlay { traceoptions { level 1; level 2; } } }",
       "1:47: 'level' is given twice (first at 1:38)"},
      {"protocols { overlay { traceoptions { file a; file b; } } }",
       "1:51: 'file' is already named 'a' (at 1:43)"},
      {"protocols { overlay { traceoptions { flag; } } }", "1:38: 'flag' needs a name"},
      {"protocols { overlay { traceoptions { file x world-readable yes; } } }",
       "1:60: unexpected 'yes' in 'file' (missing ';'?)"},
      {"protocols { overlay x { } }", "1:21: unexpected 'x' after 'overlay'"},
      {"protocols { overlay { traceoptions { file x size 1 level 3; } } }",
       "1:52: unexpected 'level' in 'file' (missing ';'?)"},
      {"protocols { overlay { description \"abcdefghijklmnopq\"; } }",
       "1:35: value of 'description' is longer than 16 bytes"},
      {"protocols { overlay { description \"abc; } }", "1:35: unterminated string"},
      {"protocols { overlay { description \"abc\ndef\"; } }", "1:35: unterminated string"},
      {"protocols /* never closed\n { }", "1:11: unterminated comment"},
      {"tunnel 0;", "1:8: 0 is out of range for 'vni' (1..16777215)"},
      {"tunnel abc;", "1:8: 'abc' is not a number for 'vni'"},
      {"protocols { overlay { traceoptions { trace-events a memtrace disable; } } }",
       "1:62: 'trace-action' is given twice (first at 1:53)"},
      {"", "(accepted)"},
      {"  # only a comment\n/* and another */\n", "(accepted)"},
  };
  for (const BadCase &c : cases) EXPECT_EQ(error_of(c.text), c.error) << c.text;
}

TEST_F(Parse, JunkOverlongWordsAndDeepNesting) {
  EXPECT_EQ(error_of(std::string("protocols {\n \x01 }")), "2:2: invalid character 0x01");
  EXPECT_EQ(error_of(std::string("protocols\0{", 11)), "1:10: invalid character 0x00");
  EXPECT_EQ(error_of("protocols { overlay { description caf\xc3\xa9; } }"), "1:38: invalid character 0xc3");
  EXPECT_EQ(error_of("# junk \x7f in a comment"), "1:8: invalid character 0x7f");
  // UTF-8 is fine in quoted strings and comments.
  EXPECT_EQ(error_of("# caf\xc3\xa9\nprotocols { overlay { description \"caf\xc3\xa9\"; } }"), "(accepted)");

  std::string word(1023, 'a');
  EXPECT_EQ(error_of("group " + word + ";"), "(accepted)");
  EXPECT_EQ(error_of("group " + word + "b;"), "1:7: word longer than 1023 bytes");
  EXPECT_EQ(error_of("group \"" + word + "b\";"), "1:7: string longer than 1023 bytes");

  std::string deep;
  for (int i = 0; i < 63; i++) deep += "group g {\n";
  std::string closing(63, '}');
  EXPECT_EQ(error_of(deep + closing), "(accepted)");
  EXPECT_EQ(error_of(deep + "group g {" + closing + "}"), "64:9: nesting deeper than 64 levels");

  // Thousands of braces: refused, not a stack overflow.
  std::string flood;
  for (int i = 0; i < 100000; i++) flood += "group g {";
  EXPECT_EQ(error_of(flood), "1:576: nesting deeper than 64 levels");
}
