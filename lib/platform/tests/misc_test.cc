#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/backtrace.h"
#include "platform/compat.h"
#include "platform/pvidb.h"
#include "platform/version.h"

TEST(Compat, StrlcpyAndStrlcatTruncateAndReport) {
  char b[6];
  EXPECT_EQ(strlcpy(b, "hello world", sizeof b), 11u);
  EXPECT_STREQ(b, "hello");
  EXPECT_EQ(strlcpy(b, "hi", sizeof b), 2u);
  EXPECT_STREQ(b, "hi");
  EXPECT_EQ(strlcpy(b, "xyz", 0), 3u);  // no write at all
  EXPECT_STREQ(b, "hi");
  EXPECT_EQ(strlcat(b, "there", sizeof b), 7u);
  EXPECT_STREQ(b, "hithe");
  char full[3] = {'a', 'b', 'c'};  // not terminated within size
  EXPECT_EQ(strlcat(full, "de", sizeof full), 5u);
}

TEST(Compat, ReallocfKeepsContentsAndFreesOnFailure) {
  char *p = static_cast<char *>(malloc(4));
  memcpy(p, "abc", 4);
  p = static_cast<char *>(reallocf(p, 4096));
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(p, "abc");
#ifndef TVX_SANITIZE  // the sanitizer's allocator aborts on impossible sizes
  EXPECT_EQ(reallocf(p, SIZE_MAX / 2), nullptr);  // and p is gone; a leak checker would tell
#else
  free(p);
#endif
}

static int __attribute__((noinline)) depth3(void **a, int n) {
  int r = tvx_backtrace(a, n);
  asm volatile("");
  return r;
}
static int __attribute__((noinline)) depth2(void **a, int n) {
  int r = depth3(a, n);
  asm volatile("");
  return r;
}

TEST(Backtrace, CountsAndLimits) {
  void *a[32];
  int n = depth2(a, 32);
  EXPECT_GE(n, 3);
  for (int i = 0; i < n; i++) EXPECT_NE(a[i], nullptr);
  // The first address lies in depth3, the caller of tvx_backtrace.
  EXPECT_GT(reinterpret_cast<uintptr_t>(a[0]), reinterpret_cast<uintptr_t>(&depth3));
  EXPECT_LT(reinterpret_cast<uintptr_t>(a[0]), reinterpret_cast<uintptr_t>(&depth3) + 256);
  EXPECT_EQ(depth2(a, 2), 2);
  EXPECT_EQ(depth2(a, 0), 0);
}

TEST(Version, BannerAndXml) {
  tvx_set_product("TUNECHOD");
  char *text = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&text, &len);
  show_daemon_version(f, 1, 0);
  fclose(f);
  std::string s(text);
  free(text);
  EXPECT_EQ(s.rfind("TUNECHOD release ", 0), 0u) << s;
  EXPECT_NE(s.find(" built by "), std::string::npos);
  EXPECT_EQ(s.find("compiler"), std::string::npos);

  f = open_memstream(&text, &len);
  show_daemon_version(f, 2, 1);
  fclose(f);
  s = text;
  free(text);
  EXPECT_NE(s.find("<product>TUNECHOD</product>"), std::string::npos);
  EXPECT_NE(s.find("<compiler>"), std::string::npos);
  EXPECT_FALSE(xml_on_board());
}

// ---- Platform attributes ----------------------------------------------------------------

TEST(Pvidb, DefaultsOverridesAndUnknownNames) {
  uint64_t v = 9;
  ASSERT_EQ(pvidb_get("platform.support_transit_acccounting", &v), 0);
  EXPECT_EQ(v, 1u);
  ASSERT_EQ(pvidb_get("global.retrieve_ifl_stats_from_cntd", &v), 0);
  EXPECT_EQ(v, 0u);
  setenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD", "yes", 1);
  ASSERT_EQ(pvidb_get("global.retrieve_ifl_stats_from_cntd", &v), 0);
  EXPECT_EQ(v, 1u);
  setenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD", "0x10", 1);
  ASSERT_EQ(pvidb_get("global.retrieve_ifl_stats_from_cntd", &v), 0);
  EXPECT_EQ(v, 16u);
  for (const char *bad : {"", "maybe", "-1", "12x"}) {
    setenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD", bad, 1);
    EXPECT_EQ(pvidb_get("global.retrieve_ifl_stats_from_cntd", &v), EINVAL) << bad;
  }
  unsetenv("TVX_PVIDB_GLOBAL_RETRIEVE_IFL_STATS_FROM_CNTD");
  EXPECT_EQ(pvidb_get("platform.no_such_thing", &v), ENOENT);
  EXPECT_EQ(pvidb_get(nullptr, &v), ENOENT);
}
