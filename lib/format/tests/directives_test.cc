// The framework's own directives: times, binary, AS numbers, errno text,
// extension letters, their padding, mixed 64-bit argument walks, the record
// limit, the single-value renderers and the UTF-8 check.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "format/task_fmt.h"

namespace {

using namespace task_fmt_lang;

std::string fmt(const char *f, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, f);
  task_fmt_vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return buf;
}

class Fmt : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

TEST_F(Fmt, DurationText) {
  EXPECT_EQ(fmt("%#T", 0), "0");
  EXPECT_EQ(fmt("%#T", 4), "4");
  EXPECT_EQ(fmt("%#T", 14), "14");
  EXPECT_EQ(fmt("%#T", 60), "1:00");
  EXPECT_EQ(fmt("%#T", 64), "1:04");
  EXPECT_EQ(fmt("%#T", 3600), "1:00:00");
  EXPECT_EQ(fmt("%#T", 36000 + 61), "10:01:01");
  EXPECT_EQ(fmt("%#T", 93784), "1d 2:03:04");
  EXPECT_EQ(fmt("%#T", 86400), "1d 0:00:00");
  EXPECT_EQ(fmt("%#T", 9 * 86400 + 5), "1w2d 0:00:05");
  EXPECT_EQ(fmt("%#T", 70 * 7 * 86400), "70w0d 0:00:00");
  EXPECT_EQ(fmt("%#0T", 64), "00:01:04");
  EXPECT_EQ(fmt("%#0T", 0), "00:00:00");
  EXPECT_EQ(fmt("%#T", -64), "-1:04");
  EXPECT_EQ(fmt("%#lT", 100000L * 86400 * 7), "100000w0d 0:00:00");
  EXPECT_EQ(fmt("%#llT", 64LL), "1:04");
  EXPECT_EQ(fmt("[%-8T][%8T]", 64, 64), "[1:04    ][    1:04]");
}

TEST_F(Fmt, TimeWithMicroseconds) {
  task_fmt_time t{64, 500};
  EXPECT_EQ(fmt("%#t", &t), "1:04.000500");
  task_fmt_time carry{63, 1000000};  // normalised first
  EXPECT_EQ(fmt("%#t", &carry), "1:04");
  task_fmt_time neg{-2, 500000};  // -1.5 s
  EXPECT_EQ(fmt("%#t", &neg), "-1.500000");
  task_fmt_time whole{-3, 0};
  EXPECT_EQ(fmt("%#t", &whole), "-3");
  EXPECT_EQ(fmt("%#t", static_cast<task_fmt_time *>(nullptr)), "zero-len");
  // %zT takes the pair by value.
  EXPECT_EQ(fmt("%#zT|%s", task_fmt_time{93784, 1}, "after"), "1d 2:03:04.000001|after");
}

TEST_F(Fmt, TimeOfDayAddsTheOffset) {
  EXPECT_EQ(fmt("%T", 64), "1:04");
  EXPECT_EQ(fmt("%T", 93784), "2:03:04");  // the second of the day
  task_fmt_set_time_offset(1700000000, 0);  // 2023-11-14 22:13:20 UTC
  EXPECT_EQ(fmt("%T", 64), "22:14:24");
  task_fmt_time t{64, 999999};
  task_fmt_set_time_offset(0, 2);  // microseconds carry into the seconds
  EXPECT_EQ(fmt("%t", &t), "1:05.000001");
  task_fmt_set_time_offset(0, 0);
  setenv("TZ", "UTC-2", 1);  // localtime decides the hour
  tzset();
  EXPECT_EQ(fmt("%T", 64), "2:01:04");
}

TEST_F(Fmt, Binary) {
  EXPECT_EQ(fmt("%b", 5u), "101");
  EXPECT_EQ(fmt("%B", 5u), "|_|");
  EXPECT_EQ(fmt("%b %B", 0u, 0u), "0 _");
  EXPECT_EQ(fmt("%b", 0x80000000u), "1" + std::string(31, '0'));
  // 64-bit forms take two words: the next argument must still be right.
  EXPECT_EQ(fmt("%llb|%d", 1ULL << 63, 7), "1" + std::string(63, '0') + "|7");
  EXPECT_EQ(fmt("%qb|%lb|%d", 3ULL, 1UL << 40, 8), "11|1" + std::string(40, '0') + "|8");
  EXPECT_EQ(fmt("[%6b][%-6B]", 5u, 5u), "[   101][|_|   ]");
}

TEST_F(Fmt, AsNumbers) {
  EXPECT_EQ(fmt("%a %a", 65535u, 65536u), "65535 65536");
  task_fmt_set_asdot(true);
  EXPECT_EQ(fmt("%a %a %a", 65535u, 65536u, 4294967295u), "65535 1.0 65535.65535");
  EXPECT_EQ(fmt("[%8a]", 65537u), "[     1.1]");
  task_fmt_set_asdot(false);
  EXPECT_EQ(fmt("%a", 65536u), "65536");
}

TEST_F(Fmt, ErrnoTextHasNoPadding) {
  errno = ENOENT;
  EXPECT_EQ(fmt("open: %m"), "open: No such file or directory");
  errno = EACCES;
  EXPECT_EQ(fmt("[%5m][%-40m]"), "[Permission denied][Permission denied]");
  EXPECT_EQ(errno, EACCES);
}

// Test render functions: they show what values arrive and how.
const char *render_pair(char *buf, size_t size, const zsock_fmt_value *v, int letter) {
  snprintf(buf, size + 1, "%c:%u/%u", letter, v[0].u32, v[1].u32);
  return buf;
}
const char *render_ptr(char *buf, size_t size, const zsock_fmt_value *v, int) {
  snprintf(buf, size + 1, "<%s:%u>", static_cast<const char *>(v[0].ptr), v[1].u32);
  return buf;
}
const char *render_double(char *, size_t, const zsock_fmt_value *v, int) {
  return v[0].dbl > 0 ? "positive" : "not positive";  // text outside the buffer
}
const char *render_fail(char *, size_t, const zsock_fmt_value *, int) { return nullptr; }
const char *render_none(char *, size_t, const zsock_fmt_value *, int letter) {
  return letter == 'o' ? "nothing taken" : "?";
}

TEST_F(Fmt, ExtensionLetters) {
  task_fmt_register_ext('x', render_pair, 30, 2, 1, 0);
  task_fmt_register_ext('p', render_ptr, 31, 2, 1, 0);
  task_fmt_register_ext('b', render_double, 32, 0, 0, 0);
  task_fmt_register_ext('i', render_fail, 33, 2, 1, 0);
  task_fmt_register_ext('o', render_none, 34, 0, 0, 0);
  EXPECT_EQ(fmt("%zx|%Zx", 1u, 2u, 3u, 4u), "x:1/2|x:3/4");
  EXPECT_EQ(fmt("%zp %d", "10.0.0.0", 8u, 5), "<10.0.0.0:8> 5");
  EXPECT_EQ(fmt("%zb %zb", 1.5, -1.0), "positive not positive");
  EXPECT_EQ(fmt("%zi|%d", 7u, 9), "NaN|9");
  EXPECT_EQ(fmt("%zo|%d", 9), "nothing taken|9");
  // A letter nobody registered, and characters outside the letters.
  EXPECT_EQ(fmt("%zc|%d", static_cast<void *>(nullptr), 3), "Func Null|3");
  EXPECT_EQ(fmt("%z!|%d", 3), "Func Null|3");
  // Width, precision and "-" apply to the text; the letter is skipped.
  EXPECT_EQ(fmt("[%12zx][%-12zx][%.3zx]", 1u, 2u, 1u, 2u, 1u, 2u), "[       x:1/2][x:1/2       ][x:1]");
}

TEST_F(Fmt, MixedArgumentClasses) {
  task_fmt_register_ext('m', render_pair, 30, 2, 1, 0);
  task_fmt_time t{3661, 5};
  std::string got = fmt("%ld|%zm|%llu|%lb|%Lf|%s|%#t|%hd|%a|%p|%f|%B|%#lT|%c", LONG_MIN, 10u, 20u, ULLONG_MAX,
                        0x5UL, 2.5L, "str", &t, 70000, 65536u, reinterpret_cast<void *>(0x1234), -0.5, 6u,
                        -86400L * 8, 'z');
  std::string want = std::to_string(LONG_MIN) + "|m:10/20|" + std::to_string(ULLONG_MAX) +
                     "|101|2.500000|str|1:01:01.000005|4464|65536|0x1234|-0.500000|||_|-1w1d 0:00:00|z";
  EXPECT_EQ(got, want);
}

TEST_F(Fmt, PercentAndLiteralTails) {
  EXPECT_EQ(fmt("%%%b%%x%%", 1u), "%1%x%");
  EXPECT_EQ(fmt("%b trailing %", 0u), "0 trailing %");
}

TEST_F(Fmt, SixtyFourDirectivesPass) {
  std::string f;
  for (int i = 0; i < 63; i++) f += "%d";
  f += "%b";
  char buf[256];
  task_fmt_snprintf(buf, sizeof buf, f.c_str(), 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2,
                    3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3, 4,
                    5, 6, 7, 8, 9, 0, 1, 2, 5u);
  EXPECT_EQ(std::string(buf), "012345678901234567890123456789012345678901234567890123456789012101");
}

TEST(FmtDeath, SixtyFifthDirectiveAsserts) {
  std::string f;
  for (int i = 0; i < 64; i++) f += "%m";
  f += "%b";
  char buf[4096];
  EXPECT_EXIT(task_fmt_snprintf(buf, sizeof buf, f.c_str(), 1u), ::testing::ExitedWithCode(22),
              "ZTASK_ASSERT: Assertion failed [^ ]+\\[[0-9]+\\]: file \"fmt_engine.cc\", line [0-9]+: "
              "\"nrec < TASK_FMT_MAX_RECORDS\"");
}

TEST_F(Fmt, OneValue) {
  char buf[72];
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'T', TFF_ALT, 93784, 0), "1d 2:03:04");
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'T', TFF_ALT | TFF_ZERO, 64, 0), "00:01:04");
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 't', TFF_ALT, 1, 250000), "1.250000");
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'b', 0, 1ULL << 40, 0), ("1" + std::string(40, '0')).c_str());
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'B', 0, 6, 0), "||_");
  task_fmt_set_asdot(true);
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'a', 0, 131073, 0), "2.1");
  EXPECT_STREQ(task_fmt_one(buf, sizeof buf, 'q', 0, 1, 0), "");
  // Cut to the caller's size.
  EXPECT_STREQ(task_fmt_one(buf, 5, 'T', TFF_ALT, 93784, 0), "1d 2");
  buf[0] = 'x';
  task_fmt_one(buf, 0, 'b', 0, 1, 0);
  EXPECT_EQ(buf[0], 'x');
}

TEST_F(Fmt, OneExtensionValue) {
  task_fmt_register_ext('a', render_pair, 30, 2, 1, 0);
  char buf[32];
  EXPECT_STREQ(task_fmt_ext_one(buf, sizeof buf, 'a', 4u, 5u), "a:4/5");
  EXPECT_STREQ(task_fmt_ext_one(buf, 4, 'a', 4u, 5u), "a:4");
  EXPECT_STREQ(task_fmt_ext_one(buf, sizeof buf, 'T', task_fmt_time{64, 0}), "1:04");  // %T rules: no "#", time of day
  EXPECT_STREQ(task_fmt_ext_one(buf, sizeof buf, 'e', static_cast<void *>(nullptr)), "Func Null");
}

TEST(Printable, Utf8Rules) {
  setlocale(LC_CTYPE, "C");
  auto ok = [](const char *s) { return task_fmt_is_printable(s, static_cast<uint16_t>(strlen(s))); };
  EXPECT_TRUE(ok(""));
  EXPECT_TRUE(ok("plain text\twith a tab"));
  EXPECT_FALSE(ok("bell\a"));
  EXPECT_FALSE(ok("line\n"));
  EXPECT_TRUE(ok("caf\xc3\xa9"));            // two bytes
  EXPECT_TRUE(ok("\xe2\x82\xac 5"));         // three bytes
  EXPECT_TRUE(ok("x\xf0\x9f\x98\x80"));      // four bytes
  EXPECT_FALSE(ok("\xc1\xbf"));              // lead 0xC1 is overlong
  EXPECT_FALSE(ok("\x80"));                  // a lone continuation
  EXPECT_FALSE(ok("caf\xc3"));               // cut short
  EXPECT_FALSE(ok("\xe2\x82x"));             // bad continuation
  EXPECT_FALSE(ok("\xf5\x80\x80\x80"));      // first byte 0xF5
  // The four-byte test looks at the string's first byte: a later 0xF7 lead
  // passes when the string starts below 0xF5.
  EXPECT_TRUE(ok("a\xf7\x80\x80\x80"));
  // The length bounds the check, not the terminator.
  EXPECT_TRUE(task_fmt_is_printable("ab\n", 2));
}

}  // namespace
