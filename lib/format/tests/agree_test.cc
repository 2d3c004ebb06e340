// The checker and the engine agree on every directive: each conversion with
// every length modifier, flags, width and precision, in C's order and
// scrambled. The meaning expected is written here from the language's rules,
// not taken from the parser: for the C conversions the engine must print what
// the C library prints for the directive in C's order with the length that
// applies; the checker must take exactly the argument type that is printed,
// and the directive must take exactly one argument (the "|%s" after it shows
// the walk stays in step). Both paths are run: the format alone (the C
// library's path where it may) and followed by "%b" (always walked).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "format/task_fmt.h"

namespace {

using task_fmt::detail::check_format;
using task_fmt::detail::F_NONE;
using task_fmt::detail::satisfied_mask;

// The argument a directive takes, as the rules of the language say.
enum kind { K_NONE, K_INT, K_LONG, K_LLONG, K_DOUBLE, K_LDOUBLE, K_STR, K_WSTR, K_PTR, K_ADDR, K_TIMEPTR, K_UNKNOWN };

constexpr unsigned mask_of(kind k) {
  switch (k) {
    case K_INT: return satisfied_mask<int>();
    case K_LONG: return satisfied_mask<long>();
    case K_LLONG: return satisfied_mask<long long>();
    case K_DOUBLE: return satisfied_mask<double>();
    case K_LDOUBLE: return satisfied_mask<long double>();
    case K_STR: return satisfied_mask<const char *>();
    case K_WSTR: return satisfied_mask<const wchar_t *>();
    case K_PTR: return satisfied_mask<void *>();
    case K_ADDR: return satisfied_mask<const zsockaddr_t *>();
    case K_TIMEPTR: return satisfied_mask<const task_fmt_time *>();
    default: return 0;
  }
}

// A type the directive must refuse.
kind wrong_for(kind k) {
  switch (k) {
    case K_INT: return K_LLONG;
    case K_LONG: case K_LLONG: return K_INT;
    case K_DOUBLE: return K_LDOUBLE;
    case K_LDOUBLE: return K_DOUBLE;
    case K_STR: return K_WSTR;
    case K_WSTR: return K_STR;
    case K_PTR: return K_INT;
    case K_ADDR: return K_STR;
    case K_TIMEPTR: return K_INT;
    default: return K_INT;
  }
}

std::string len_name(const std::string &len) { return len == "q" ? "ll" : len; }

// C conversions: the argument, and the length C gets, by the language's
// rules: "L" only for floats, "l" and "ll"/"q" and "h"/"hh" for integers,
// "l" for a wide "%lc"/"%ls"; every other length is ignored.
kind c_kind(char conv, const std::string &len, std::string *c_len) {
  std::string l = len_name(len);
  *c_len = "";
  switch (conv) {
    case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
      if (l == "ll") *c_len = "ll";
      else if (l == "l") *c_len = "l";
      else if (l == "h" || l == "hh") *c_len = l;
      return l == "ll" ? K_LLONG : l == "l" ? K_LONG : K_INT;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
      if (l == "L") *c_len = "L";
      return l == "L" ? K_LDOUBLE : K_DOUBLE;
    case 'c':
      if (l == "l") *c_len = "l";
      return K_INT;
    case 'C': return K_INT;
    case 's':
      if (l == "l") *c_len = "l";
      return l == "l" ? K_WSTR : K_STR;
    case 'S': return K_WSTR;
    case 'p': return K_PTR;
    default: return K_UNKNOWN;
  }
}

// The framework's directives that take one argument.
kind ext_kind(char conv, const std::string &len) {
  std::string l = len_name(len);
  switch (conv) {
    case 'T': case 'B': case 'b': return l == "ll" ? K_LLONG : l == "l" ? K_LONG : K_INT;
    case 'a': return K_INT;
    case 't': return K_TIMEPTR;
    case 'A': return K_ADDR;
    case 'm': return K_NONE;
    default: return K_UNKNOWN;
  }
}

const task_fmt_time kTime{93784, 250};

// Formats fmt with one argument of kind k (its test value) and the tail
// arguments: "x" for "|%s", then 5u when walked is set.
std::string run(const std::string &fmt, kind k, bool walked, int *ret = nullptr) {
  char buf[512];
  const char *f = fmt.c_str();
  const char *x = "x";
  int n = 0;
  auto go = [&](auto... a) {
    if (walked)
      n = task_fmt_snprintf(buf, sizeof buf, f, a..., x, 5u);
    else
      n = task_fmt_snprintf(buf, sizeof buf, f, a..., x);
  };
  switch (k) {
    case K_NONE: go(); break;
    case K_INT: go(-1234567); break;
    case K_LONG: go(-123456789012L); break;
    case K_LLONG: go(-123456789012345LL); break;
    case K_DOUBLE: go(-1.5); break;
    case K_LDOUBLE: go(-2.25L); break;
    case K_STR: go("text"); break;
    case K_WSTR: go(L"wide"); break;
    case K_PTR: go(reinterpret_cast<void *>(0x1234)); break;
    case K_ADDR: go(static_cast<const zsockaddr_t *>(nullptr)); break;
    case K_TIMEPTR: go(&kTime); break;
    default: ADD_FAILURE() << "no argument kind for " << fmt; break;
  }
  if (ret) *ret = n;
  return std::string(buf, static_cast<size_t>(n));
}

// The C library's text for a C directive with the test value.
std::string libc(const std::string &dir, kind k, char conv) {
  char buf[512];
  const char *f = dir.c_str();
  int n = 0;
  switch (k) {
    case K_INT: n = conv == 'c' || conv == 'C' ? snprintf(buf, sizeof buf, f, 'A') : snprintf(buf, sizeof buf, f, -1234567); break;
    case K_LONG: n = snprintf(buf, sizeof buf, f, -123456789012L); break;
    case K_LLONG: n = snprintf(buf, sizeof buf, f, -123456789012345LL); break;
    case K_DOUBLE: n = snprintf(buf, sizeof buf, f, -1.5); break;
    case K_LDOUBLE: n = snprintf(buf, sizeof buf, f, -2.25L); break;
    case K_STR: n = snprintf(buf, sizeof buf, f, "text"); break;
    case K_WSTR: n = snprintf(buf, sizeof buf, f, L"wide"); break;
    case K_PTR: n = snprintf(buf, sizeof buf, f, reinterpret_cast<void *>(0x1234)); break;
    default: break;
  }
  return n < 0 ? "(error)" : std::string(buf, static_cast<size_t>(n));
}

// The same with 'A' for %c: the test value of an int is not a character.
std::string run_c(const std::string &fmt, kind k, char conv, bool walked) {
  if (conv != 'c' && conv != 'C') return run(fmt, k, walked);
  char buf[512];
  int n = walked ? task_fmt_snprintf(buf, sizeof buf, fmt.c_str(), 'A', "x", 5u)
                 : task_fmt_snprintf(buf, sizeof buf, fmt.c_str(), 'A', "x");
  return std::string(buf, static_cast<size_t>(n));
}

bool accepts(const std::string &fmt, std::vector<unsigned> masks) {
  return check_format(fmt.c_str(), masks.data(), masks.size()).f == F_NONE;
}

// One directive's parts. Flags other than "0" may stand anywhere; "0" only
// before the digits (after them it is a digit). The length characters stay
// together ("h" "h" apart are two "h").
struct parts {
  std::string flags, width, prec, len;
  char conv;
};

// The directive in C's order and in scrambled orders.
std::vector<std::string> arrangements(const parts &p) {
  std::string zero = p.flags.find('0') != std::string::npos ? "0" : "";
  std::string other;
  for (char c : p.flags)
    if (c != '0') other += c;
  std::string rev(other.rbegin(), other.rend());
  std::string c(1, p.conv);
  return {
      "%" + p.flags + p.width + p.prec + p.len + c,           // C's order
      "%" + p.len + zero + rev + p.width + p.prec + c,        // length first, flags reversed
      "%" + zero + p.width + other + p.prec + p.len + c,      // flags after the width
      "%" + zero + p.width + p.prec + p.len + other + c,      // flags last
      "%" + zero + p.width + p.len + p.prec + rev + c,        // length before the precision
  };
}

const char *const kFlags[] = {"", "-", "0", "+", " ", "#", "-+", "0 #", "#-0+ "};
const char *const kWidths[] = {"", "9", "17"};
const char *const kPrecs[] = {"", ".3", ".0", "."};
const char *const kLens[] = {"", "h", "hh", "l", "ll", "q", "L"};

TEST(Agree, CConversionsEveryLengthFlagAndOrder) {
  for (char conv : std::string("diouxXeEfFgGcCsSp")) {
    for (const char *len : kLens) {
      std::string c_len;
      kind k = c_kind(conv, len, &c_len);
      for (const char *fl : kFlags) {
        for (const char *w : kWidths) {
          for (const char *pr : kPrecs) {
            parts p{fl, w, pr, len, conv};
            std::string canon = "%" + std::string(fl) + w + pr + c_len + conv;
            std::string want = libc(canon, k, conv);
            for (const std::string &d : arrangements(p)) {
              SCOPED_TRACE(d);
              // The checker takes the argument printed, refuses another.
              ASSERT_TRUE(accepts(d + "|%s", {mask_of(k), mask_of(K_STR)}));
              ASSERT_FALSE(accepts(d + "|%s", {mask_of(wrong_for(k)), mask_of(K_STR)}));
              ASSERT_TRUE(accepts(d + "|%s|%b", {mask_of(k), mask_of(K_STR), satisfied_mask<unsigned>()}));
              // The engine prints it, on both paths, in step with the rest.
              ASSERT_EQ(run_c(d + "|%s", k, conv, false), want + "|x");
              ASSERT_EQ(run_c(d + "|%s|%b", k, conv, true), want + "|x|101");
            }
          }
        }
      }
    }
  }
}

// The framework's directives: flags and length in any order; width,
// precision and "-" pad the text as for %s; "#" and "0" belong to the text.
TEST(Agree, FrameworkDirectivesEveryLengthFlagAndOrder) {
  for (char conv : std::string("TBbatAm")) {
    for (const char *len : kLens) {
      kind k = ext_kind(conv, len);
      for (const char *fl : kFlags) {
        std::string f(fl);
        std::string own = "%";
        if (f.find('#') != std::string::npos) own += '#';
        if (f.find('0') != std::string::npos) own += '0';
        own += std::string(len) + conv;
        std::string text = run(own + "|%s", k, false);
        text = text.substr(0, text.size() - 2);
        for (const char *w : kWidths) {
          for (const char *pr : kPrecs) {
            std::string want = text;
            if (conv != 'm') {  // %m takes no width nor precision
              char pad[512];
              std::string padf = std::string("%") + (f.find('-') != std::string::npos ? "-" : "") + w + pr + "s";
              snprintf(pad, sizeof pad, padf.c_str(), text.c_str());
              want = pad;
            }
            for (const std::string &d : arrangements(parts{fl, w, pr, len, conv})) {
              SCOPED_TRACE(d);
              std::vector<unsigned> masks;
              if (k != K_NONE) masks.push_back(mask_of(k));
              masks.push_back(mask_of(K_STR));
              ASSERT_TRUE(accepts(d + "|%s", masks));
              if (k != K_NONE) {
                masks[0] = mask_of(wrong_for(k));
                ASSERT_FALSE(accepts(d + "|%s", masks));
              }
              ASSERT_EQ(run(d + "|%s", k, false), want + "|x");
            }
          }
        }
      }
    }
  }
}

// What the checker refuses still runs safely and in step: an unknown
// conversion is copied and takes nothing; %n takes its pointer and stores
// nothing; "%5%" is one "%".
TEST(Agree, RefusedDirectivesTakeWhatTheWalkSays) {
  char buf[128];
  for (const char *d : {"%y", "%-5k", "%'d", "%ld'", "%jd", "%w32d", "%I"}) {
    std::string fmt = std::string(d) + "|%s";
    EXPECT_FALSE(accepts(fmt, {mask_of(K_STR)})) << d;
  }
  EXPECT_EQ(run("%-5y|%s", K_NONE, false), "%-5y|x");
  EXPECT_EQ(run("%'|%s", K_NONE, false), "%'|x");
  EXPECT_EQ(run("%5%|%s", K_NONE, false), "%|x");
  EXPECT_TRUE(accepts("%5%|%s", {mask_of(K_STR)}));
  int count = -1;
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, "ab%n|%s", &count, "x"), 4);
  EXPECT_STREQ(buf, "ab|x");
  EXPECT_EQ(count, -1);
  EXPECT_FALSE(accepts("ab%n|%s", {mask_of(K_PTR), mask_of(K_STR)}));
  // A "%" at the very end stands as it is.
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, "%s%", "x"), 2);
  EXPECT_STREQ(buf, "x%");
}

// "*" takes an int in a plain format wherever it stands (a negative width
// left-justifies, a negative precision is none); in a format with the
// framework's directives the checker refuses it and the engine reads none.
TEST(Agree, StarsInEveryPosition) {
  const unsigned i = satisfied_mask<int>(), s = mask_of(K_STR), d = mask_of(K_DOUBLE);
  struct {
    const char *fmt;
    int width, prec;
    const char *want;
  } cases[] = {
      {"[%*d]", 5, 0, "[    7]"},        {"[%-*d]", 5, 0, "[7    ]"},   {"[%*d]", -5, 0, "[7    ]"},
      {"[%h*d]", 4, 0, "[   7]"},        {"[%*-d]", 4, 0, "[7   ]"},    {"[%.*f]", 2, 0, "[1.50]"},
      {"[%*.*f]", 7, 1, "[    1.5]"},    {"[%*.*f]", 7, -1, "[1.500000]"}, {"[%*.*-f]", 7, 1, "[1.5    ]"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fmt);
    std::string f = c.fmt;
    bool two = f.find(".*") != std::string::npos && f.find('*') != f.rfind('*');
    bool is_float = f.find('f') != std::string::npos;
    std::vector<unsigned> masks{i};
    if (two) masks.push_back(i);
    masks.push_back(is_float ? d : i);
    masks.push_back(s);
    EXPECT_TRUE(accepts(f + "|%s", masks));
    char buf[64];
    if (two)
      task_fmt_snprintf(buf, sizeof buf, (f + "|%s").c_str(), c.width, c.prec, 1.5, "x");
    else if (is_float)
      task_fmt_snprintf(buf, sizeof buf, (f + "|%s").c_str(), c.width, 1.5, "x");
    else
      task_fmt_snprintf(buf, sizeof buf, (f + "|%s").c_str(), c.width, 7, "x");
    EXPECT_EQ(std::string(buf), std::string(c.want) + "|x");
  }
  EXPECT_FALSE(accepts("%*d|%b", {i, i, satisfied_mask<unsigned>()}));
  char buf[64];
  task_fmt_snprintf(buf, sizeof buf, "[%*d]|%b", 7, 2u);  // no argument for "*"
  EXPECT_STREQ(buf, "[7]|10");
  // Widths and precisions above 100000 count as 100000, on both paths.
  static char big[200016];
  EXPECT_EQ(task_fmt_snprintf(big, sizeof big, "%1000000d", 1), 100000);
  EXPECT_EQ(task_fmt_snprintf(big, sizeof big, "%*d", 1000000, 1), 100000);
  EXPECT_EQ(task_fmt_snprintf(big, sizeof big, "%.1000000d|%b", 1, 1u), 100002);
}

// An encoding error drops the directive that has it, not the text around
// it, and the return is what is stored.
TEST(Agree, EncodingErrorsDropTheirDirectiveOnly) {
  char buf[64];
  memset(buf, 'z', sizeof buf);
  int n = task_fmt_snprintf(buf, sizeof buf, "[%lc]%s", 0x12345, "after");
  EXPECT_EQ(n, static_cast<int>(strlen(buf)));
  EXPECT_STREQ(buf, "[]after");
  const wchar_t bad[] = {L'o', L'k', 0x12345, 0};
  n = task_fmt_snprintf(buf, sizeof buf, "[%ls|%S]%d", bad, L"w", 3);
  EXPECT_EQ(n, static_cast<int>(strlen(buf)));
  EXPECT_STREQ(buf, "[|w]3");
  char *text = nullptr;
  size_t size = 0;
  FILE *f = open_memstream(&text, &size);
  EXPECT_EQ(task_fmt_fprintf(f, "[%lc]%s", 0x12345, "after"), 7);
  fclose(f);
  EXPECT_STREQ(text, "[]after");
  free(text);
}

// The cap of 64 directives holds for formats with the framework's
// directives; a plain format that is walked (here for "%5-d") has none.
TEST(Agree, PlainFormatsWalkedHaveNoDirectiveCap) {
  std::string f;
  for (int i = 0; i < 100; i++) f += "%5-d";
  char buf[1024];
  EXPECT_EQ(task_fmt_snprintf(buf, sizeof buf, f.c_str(), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17,
                              18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39,
                              40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61,
                              62, 63, 64, 65, 66, 67, 68, 69, 70, 71, 72, 73, 74, 75, 76, 77, 78, 79, 80, 81, 82, 83,
                              84, 85, 86, 87, 88, 89, 90, 91, 92, 93, 94, 95, 96, 97, 98, 99, 100),
            500);
  EXPECT_EQ(std::string(buf, 10), "1    2    ");
  EXPECT_EQ(std::string(buf + 495), "100  ");
}

}  // namespace
