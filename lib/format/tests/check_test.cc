// The checked C++ wrappers: calls that the compile-time check accepts, with
// the argument types the framework and the daemon pass (each line here is
// also a test of the checker: it must compile), and their results.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "format/task_fmt.h"

namespace {

enum small_enum { SMALL_A = 3 };

struct utime_like {  // the task kernel's time record has this shape
  int32_t sec;
  int32_t usec;
};

TEST(Checked, AcceptsMatchingTypes) {
  char buf[256];
  const char *name = "rx";
  char array_name[] = "arr";
  uint8_t u8 = 200;
  uint16_t u16 = 60000;
  uint32_t u32 = 4000000000u;
  uint64_t u64 = 1ULL << 40;
  size_t sz = 12;
  long long ll = -5;
  short sh = -3;
  float fl = 0.5f;
  task_fmt_time t{3, 0};
  utime_like ut{4, 0};
  const zsockaddr_t *none = nullptr;
  int n = task_fmt::snprintf(buf, sizeof buf, "%s %s %u %u %u %lu %lu %lld %hd %d %.1f %c %p", name, array_name, u8,
                             u16, u32, u64, sz, ll, sh, SMALL_A, fl, 'c', static_cast<void *>(nullptr));
  EXPECT_STREQ(buf, "rx arr 200 60000 4000000000 1099511627776 12 -5 -3 3 0.5 c (nil)");
  EXPECT_EQ(n, static_cast<int>(strlen(buf)));
  task_fmt::snprintf(buf, sizeof buf, "%b %lb %llb %B %a %#T %#lT %#t %#t %#zT %A %A %m", 5u, 2UL, 1ULL, 1, 7u, 64,
                     64L, &t, &ut, t, none, nullptr);
  EXPECT_EQ(std::string(buf).rfind("101 10 1 | 7 1:04 1:04 3 4 3 zero-len zero-len ", 0), 0u) << buf;
  // Plain formats keep C's "*": it takes an int.
  task_fmt::snprintf(buf, sizeof buf, "[%*d]", 4, 1);
  EXPECT_STREQ(buf, "[   1]");
  EXPECT_EQ(task_fmt::sprintf(buf, "%s=%b", "k", 2u), 4);
  EXPECT_STREQ(buf, "k=10");
}

TEST(Checked, ExtensionLettersByTheirClasses) {
  char buf[64];
  // Unregistered letters print "Func Null" but still take their arguments:
  // the next directive proves the walk.
  task_fmt::snprintf(buf, sizeof buf, "%zi|%zm|%zp|%zb|%zo|%d", 1u, 2u, 3u, static_cast<const void *>(buf), 4u, 1.0,
                     9);
  EXPECT_STREQ(buf, "Func Null|Func Null|Func Null|Func Null|Func Null|9");
}

}  // namespace
