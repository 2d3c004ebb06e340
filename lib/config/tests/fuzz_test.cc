// Seeded, bounded random mutation of good files. Whatever the bytes, the reader
// either takes the whole file or refuses it with one located error, and a
// refused file leaves the configuration in force untouched.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "test_schema.h"

namespace {

const char *seeds[] = {
    "protocols { overlay { traceoptions { file tunechod size 1m files 3 world-readable; flag all; "
    "flag packets { detail; send; } level 4; trace-events \"sys:1,3-5\" memtrace; } } }",
    "/* c */ tunnel 0x10 send; tunnel 17 { receive; } # end\n",
    "group a { group b { port 80; group \"c d\" { } } }",
    "protocols { overlay { description \"q\\\"x\"; } }\n",
};

const char *splices[] = {"{", "}", ";", "\"", "/*", "*/", "#", "\n", "\\", "0x", "1g", "group g {",
                         "flag", "level", "\x01", "\xff", "", " ", "tunnel 4294967296;"};

std::string mutate(std::mt19937 &rng, std::string s) {
  int edits = 1 + rng() % 4;
  for (int e = 0; e < edits; e++) {
    size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
    switch (rng() % 5) {
      case 0:  // flip a byte
        if (!s.empty() && at < s.size()) s[at] = static_cast<char>(rng());
        break;
      case 1:  // delete a run
        if (at < s.size()) s.erase(at, 1 + rng() % 8);
        break;
      case 2:  // insert a token
        s.insert(at, splices[rng() % (sizeof splices / sizeof *splices)]);
        break;
      case 3:  // cut the end
        s.resize(at);
        break;
      case 4:  // duplicate a run
        if (at < s.size()) s.insert(at, s.substr(at, 1 + rng() % 16));
        break;
    }
  }
  return s;
}

// Reads every value under o; returns how many leaves it saw.
int walk(const ddl_object_t *o) {
  int leaves = 0;
  ddl_object_t *cur = nullptr;
  while (dax_visit_container(o, &cur)) {
    char buf[2048];
    uint32_t v;
    bool t;
    if (dax_get_string_by_name(cur, nullptr, buf, sizeof buf)) leaves++;
    dax_get_uint_by_name(cur, nullptr, &v);
    dax_get_toggle_by_name(cur, dax_object_name(cur), &t);
    leaves += walk(cur);
  }
  return leaves;
}

}  // namespace

TEST(ConfigFuzz, MutatedFilesAreTakenWholeOrRefusedCleanly) {
  register_test_schema();
  TempDir dir;
  std::mt19937 rng(20261121);
  const std::string base = "tunnel 1;";
  int accepted = 0, refused = 0;
  for (int i = 0; i < 6000; i++) {
    ddl_db_t *db = open_text(dir, base);
    ASSERT_TRUE(db);
    ddl_object_t *before = nullptr;
    ASSERT_TRUE(dax_get_root_object(db, &before));
    uint32_t seq = 0;
    ddl_access_check_sequence(db, &seq);
    unsigned errors = ddl_access_config_error_count();

    std::string text = mutate(rng, seeds[rng() % (sizeof seeds / sizeof *seeds)]);
    if (open_text(dir, text)) {
      accepted++;
      ddl_object_t *top = nullptr;
      ASSERT_TRUE(dax_get_root_object(nullptr, &top));
      walk(top);
      dax_release_object(&top);
    } else {
      refused++;
      ASSERT_EQ(ddl_access_config_error_count(), errors + 1) << text;
      ddl_object_t *after = nullptr;
      ASSERT_TRUE(dax_get_root_object(nullptr, &after));
      ASSERT_EQ(after, before) << text;  // the same tree is still in force
      dax_release_object(&after);
      ASSERT_EQ(ddl_access_check_sequence(db, &seq), 0);
    }
    dax_release_object(&before);
    ASSERT_EQ(dax_open_handles(), 0u);
  }
  ddl_access_close_db(0, 0);
  // Both outcomes were exercised in earnest.
  EXPECT_GT(accepted, 300);
  EXPECT_GT(refused, 3000);
}

TEST(ConfigFuzz, RandomBytesNeverCrash) {
  register_test_schema();
  TempDir dir;
  std::mt19937 rng(4789);
  for (int i = 0; i < 3000; i++) {
    std::string text(rng() % 200, '\0');
    for (char &c : text) c = static_cast<char>(rng() % 4 ? "ab {};\"#/*\n 0x9"[rng() % 16] : rng());
    open_text(dir, text);
    ASSERT_EQ(dax_open_handles(), 0u);
  }
  ddl_access_close_db(0, 0);
}
