// Formats without the framework's directives behave as the C library's, both
// on the direct path and inside a format that does have them; the stored
// bytes and return values of every member of the family.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "format/task_fmt.h"

namespace {

// fmt through task_fmt on both paths against snprintf. The second path adds
// "|%a" (an AS number, which prints like %u) so that every plain directive is
// also assembled by the engine rather than handed to vsnprintf.
template <class... A>
void same_as_libc(const char *fmt, A... a) {
  char ours[300], want[300];
  int n = task_fmt_snprintf(ours, sizeof ours, fmt, a...);
  int w = snprintf(want, sizeof want, fmt, a...);
  EXPECT_STREQ(ours, want) << "format \"" << fmt << "\"";
  EXPECT_EQ(n, std::min(w, 299)) << fmt;

  std::string ext = std::string(fmt) + "|%a";
  std::string ref = std::string(fmt) + "|%u";
  n = task_fmt_snprintf(ours, sizeof ours, ext.c_str(), a..., 4200000000u);
  w = snprintf(want, sizeof want, ref.c_str(), a..., 4200000000u);
  EXPECT_STREQ(ours, want) << "assembled \"" << fmt << "\"";
  EXPECT_EQ(n, std::min(w, 299)) << fmt;
}

TEST(Plain, CorpusMatchesLibc) {
  same_as_libc("no directive at all");
  same_as_libc("100%% sure, %%d stays");
  same_as_libc("%d %i %u %x %X %o", -42, INT_MIN, 4000000000u, 0xbeefu, 0xBEEFu, 0755u);
  same_as_libc("[%5d] [%-5d] [%05d] [%+d] [% d] [%.3d] [%8.3d]", 42, 42, 42, 42, 42, 7, -7);
  same_as_libc("%#x %#o %#X %x", 255u, 8u, 0u, 0u);
  same_as_libc("%hd %hu %hhd %hhu", 70000, 70000, 300, 300);
  same_as_libc("%ld %lu %lx %lld %llu %llx", LONG_MIN, ULONG_MAX, 0x123456789abcdefUL, LLONG_MIN, ULLONG_MAX,
               0xfedcba9876543210ULL);
  same_as_libc("%qd %qu", -5LL, 5ULL);
  same_as_libc("%c%c%c", 'a', 'b', 'c');
  same_as_libc("%s|%10s|%-10s|%.2s|%10.3s|", "text", "right", "left", "cut", "width");
  same_as_libc("%f %e %g %.3f %10.2f %-10.1e| %G %E", 3.14159, 1e-10, 0.0001, 2.5, -7.125, 6.02e23, 1e300,
               DBL_MIN);
  same_as_libc("%Lf %.2Le %Lg", 1.5L, -2.25L, 1e-5L);
  same_as_libc("%p %p", static_cast<void *>(nullptr), reinterpret_cast<void *>(0x7fff12345678));
  same_as_libc("%y unknown stays");  // an unknown conversion is copied
}

TEST(Plain, NullStringAsTheCLibrary) {
  char buf[64];
  const char *none = nullptr;
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, "%s|%b", none, 1u), 8);
  EXPECT_STREQ(buf, "(null)|1");
}

TEST(Plain, StarWidthInAPlainFormat) {
  char buf[64];
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, "[%*d] [%.*s]", 5, 42, 2, "abc"), 12);
  EXPECT_STREQ(buf, "[   42] [ab]");
}

// Random formats over four argument slots (int, long, double, string), each
// with random flags, width, precision and conversion, and random literals.
TEST(Plain, RandomFormatsMatchLibc) {
  std::mt19937 rng(20240611);
  auto pick = [&](const char *set) { return set[rng() % strlen(set)]; };
  auto conversion = [&](bool precision) {
    std::string s = "%";
    for (int i = rng() % 3; i > 0; i--) s += pick("-+ #0");
    if (rng() % 2) s += std::to_string(rng() % 25);
    if (precision && rng() % 2) s += "." + std::to_string(rng() % 12);
    return s;
  };
  auto literal = [&]() {
    std::string s;
    for (int i = rng() % 6; i > 0; i--) s += pick("abc XYZ:,%");
    // keep "%" paired so that literals stay literal
    std::string out;
    for (char c : s) out += c == '%' ? std::string("%%") : std::string(1, c);
    return out;
  };
  for (int iter = 0; iter < 3000; iter++) {
    std::string f = literal() + conversion(true) + pick("dixXo") + literal() + conversion(true) + "l" + pick("duxX") +
                    literal() + conversion(true) + pick("fegEG") + literal() + conversion(true) + "s" + literal();
    int i = static_cast<int>(rng());
    long l = static_cast<long>((static_cast<uint64_t>(rng()) << 32) | rng());
    double d = std::ldexp(static_cast<double>(rng()) - 2e9, static_cast<int>(rng() % 80) - 40);
    const char *s = (rng() % 2) ? "string" : "";
    same_as_libc(f.c_str(), i, l, d, s);
    if (HasFailure()) break;
  }
}

TEST(Plain, SafeSnprintfReturns) {
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(task_fmt_snprintf(buf, 0, "abc"), 0);
  EXPECT_EQ(buf[0], 'x');  // size 0 stores nothing
  EXPECT_EQ(task_fmt_snprintf(buf, static_cast<size_t>(-1), "abc"), 0);  // a negative size
  EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(task_fmt_snprintf(buf, 1, "abc"), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(task_fmt_snprintf(buf, 1, "%b", 5u), 0);
  EXPECT_STREQ(buf, "");
  // Cut results report what was stored, on both paths.
  EXPECT_EQ(task_fmt_snprintf(buf, 4, "abcdef"), 3);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(task_fmt_snprintf(buf, 4, "%d", 123456), 3);
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(task_fmt_snprintf(buf, 6, "ab%bcdef", 5u), 5);
  EXPECT_STREQ(buf, "ab101");
  EXPECT_EQ(task_fmt_snprintf(buf, 6, "%10s%b", "x", 1u), 5);
  EXPECT_STREQ(buf, "     ");
  EXPECT_EQ(task_fmt_snprintf(buf, 7, "%b%%%%%%%%", 1u), 5);
  EXPECT_STREQ(buf, "1%%%%");
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, "%b", 2u), 2);
  EXPECT_EQ(task_fmt_sprintf(buf, "%s-%b", "ab", 3u), 5);
  EXPECT_STREQ(buf, "ab-11");
}

int call_v(char *buf, size_t size, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = task_fmt_vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

TEST(Plain, VsnprintfIsTheSafeForm) {
  char buf[8];
  EXPECT_EQ(call_v(buf, sizeof buf, "%s %B", "longer than eight", 5u), 7);
  EXPECT_STREQ(buf, "longer ");
  EXPECT_EQ(call_v(buf, sizeof buf, "%d", 42), 2);
}

TEST(Plain, FprintfWritesEverythingAndCounts) {
  char *text = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&text, &len);
  ASSERT_TRUE(f);
  // Plain path, then a text far beyond the stack chunk on the assembled path:
  // long literals, a wide padded extension text and wide plain values.
  std::string big(3000, 'q');
  EXPECT_EQ(task_fmt_fprintf(f, "plain %d\n", 7), 8);
  int n = task_fmt_fprintf(f, "%s|%-2000b|%1500d|%B\n", big.c_str(), 5u, 9, 2u);
  EXPECT_EQ(n, 3000 + 1 + 2000 + 1 + 1500 + 1 + 2 + 1);
  fclose(f);
  std::string want = "plain 7\n" + big + "|101" + std::string(1997, ' ') + "|" + std::string(1499, ' ') + "9|" +
                     "|_\n";
  EXPECT_EQ(std::string(text, len), want);
  free(text);
}

}  // namespace

namespace {

// The scan that sends a format to the C library or to the engine, at every
// alignment and around block boundaries: an extension directive anywhere is
// found, one inside "%%" or behind a directive's flags is not mistaken.
TEST(Plain, ScanFindsDirectivesAtEveryPosition) {
  alignas(64) char area[160];
  char buf[160];
  for (size_t off = 0; off < 32; off++) {
    for (size_t pad = 0; pad < 40; pad += 3) {
      std::string lead(pad, 'x');
      // "%a" is an AS number here; the C library would read a double.
      std::string f = lead + "%-3d%a";
      memcpy(area + off, f.c_str(), f.size() + 1);
      ASSERT_EQ(task_fmt_snprintf(buf, sizeof buf, area + off, 7, 65537u), static_cast<int>(pad + 8)) << off;
      EXPECT_EQ(std::string(buf), lead + "7  65537");
      // "%%a" is a percent sign and a letter: the C library's path.
      f = lead + "%%a%5s";
      memcpy(area + off, f.c_str(), f.size() + 1);
      task_fmt_snprintf(buf, sizeof buf, area + off, "s");
      EXPECT_EQ(std::string(buf), lead + "%a    s");
    }
  }
}

}  // namespace
