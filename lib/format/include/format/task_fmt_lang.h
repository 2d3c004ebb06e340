// The format language of task_fmt, as one constexpr directive parser. The
// runtime engine and the compile-time checker of task_fmt.h both use it, so
// that what the checker accepts is exactly what the formatter reads.
//
// A directive is "%", then flag, width, precision and length characters in
// any order ("#", "-", "+", blank, "0", digits, "*", ".", "l", "ll", "L",
// "h", "hh", "q"), then one conversion character; "%z" and "%Z" take one more
// character, the extension letter. A length character that means nothing for
// its conversion is ignored; the directive's code alone says what argument
// it takes, and the engine hands the C library a directive rebuilt in C's
// order from the code, so the two cannot disagree.
#pragma once

#include <cstdint>

namespace task_fmt_lang {

// Directive and argument codes.
enum : uint8_t {
  TFC_TIME = 0,       // %T  seconds by value
  TFC_TIMEVAL = 1,    // %t  pointer to seconds and microseconds
  TFC_SOCKADDR = 2,   // %A  pointer to a socket address
  TFC_ERRNO = 3,      // %m  no argument
  TFC_BITS = 4,       // %B  "|" and "_"
  TFC_BINARY = 5,     // %b  "1" and "0"
  TFC_EXT_LOWER = 6,  // %zX
  TFC_EXT_UPPER = 7,  // %ZX
  TFC_SHORT = 8,
  TFC_INT = 9,
  TFC_LONG = 10,
  TFC_LLONG = 11,
  TFC_DOUBLE = 12,
  TFC_LDOUBLE = 13,
  TFC_STRING = 14,
  TFC_POINTER = 15,
  TFC_LITERAL = 16,
  TFC_ASN = 17,  // %a  AS number
  // Beyond the table: directives that take no argument or that the
  // formatter refuses to act on.
  TFC_UNKNOWN = 18,  // copied as it stands, no argument
  TFC_PERCENT = 19,  // "%5%" and the like: one "%"
  TFC_COUNT = 20,    // %n: its pointer is taken and nothing is stored
  TFC_WSTRING = 21,  // %ls, %S: a wide string
};

// Flag word of a directive.
enum : uint32_t {
  TFF_LL = 1,  // "ll" or "q"
  TFF_LDBL = 2,  // "L"
  TFF_SHORT = 4,  // "h"
  TFF_LONG = 8,  // "l"
  TFF_ALT = 16,  // "#"
  TFF_ZERO = 32,  // "0"
  TFF_LEFT = 64,  // "-"
  TFF_STAR = 128,  // "*" as width or precision
  TFF_SIGN = 256,  // "+"
  TFF_BLANK = 512,  // blank
  TFF_CHAR = 1024,  // "hh"
  TFF_EXT = 0x10000,  // a directive of the framework's own
  TFF_TIME_VALUE = 0x20000,  // a time passed by value
  TFF_ZTIME = 0x40000,  // %zT
};

// Widths and precisions above this count as this.
inline constexpr int TF_MAX_WIDTH = 100000;

// Argument classes of extension letters.
enum : uint8_t {
  TFX_NONE = 0,
  TFX_DOUBLE = 1,
  TFX_POINTER = 2,
  TFX_U32_SECOND = 3,  // 32-bit, printed with the second word
  TFX_U32 = 4,
  TFX_U32_ALT = 5,
  TFX_TIME = 6,  // a seconds and microseconds pair, by value
  TFX_U64 = 7,   // a first 32-bit class under "ll" or "q": the word and its second word
  TFX_NOTHING = 8,  // only as a second class
};

// First and second argument classes of the letters "a" to "z". The letter
// "p" takes a pointer (a socket address), then its length.
inline constexpr uint8_t tf_ext_first[26] = {
    4, 1, 2, 4, 2, 2, 2, 2, 4, 0, 4, 2, 4,  // a-m
    5, 0, 2, 4, 0, 2, 4, 4, 4, 0, 4, 4, 0,  // n-z
};
inline constexpr uint8_t tf_ext_second[26] = {
    4, 8, 0, 4, 0, 0, 0, 0, 0, 0, 4, 0, 3,  // a-m
    0, 0, 4, 4, 0, 0, 4, 4, 4, 0, 3, 0, 0,  // n-z
};

// True when the second class is a real argument.
constexpr bool tf_takes_second(uint8_t c2) { return c2 != TFX_NONE && c2 != TFX_NOTHING; }

// One parsed directive.
struct tf_spec {
  const char *start = nullptr;  // the "%"
  const char *end = nullptr;    // just past the directive
  uint32_t flags = 0;
  int width = -1;  // -1: none
  int prec = -1;   // -1: none
  uint8_t code = TFC_UNKNOWN;
  char conv = 0;    // the conversion character
  char letter = 0;  // extension letter of %z and %Z, or 0
  uint8_t class1 = TFX_NONE;
  uint8_t class2 = TFX_NONE;
  int stars = 0;  // "*" seen, each an int argument in a plain format
};

// The directives of the framework's own: "%T %t %A %m %B %b %z %Z %a".
constexpr bool tf_is_ext_conv(char c) {
  switch (c) {
    case 'T': case 't': case 'A': case 'm': case 'B': case 'b': case 'z': case 'Z': case 'a':
      return true;
    default:
      return false;
  }
}

constexpr uint8_t tf_int_code(uint32_t flags) {
  if (flags & TFF_LL) return TFC_LLONG;
  if (flags & TFF_LONG) return TFC_LONG;
  if (flags & TFF_SHORT) return TFC_SHORT;
  return TFC_INT;
}

// Parses the directive at p (which points at "%"). Never reads past the
// format's terminating NUL; a "%" at the very end is an unknown directive.
constexpr void tf_parse(const char *p, tf_spec &s) {
  s = tf_spec{};
  s.start = p;
  p++;
  bool in_prec = false;
  bool digits = false;
  for (;; p++) {
    char c = *p;
    if (c == '#') {
      s.flags |= TFF_ALT;
    } else if (c == '-') {
      s.flags |= TFF_LEFT;
    } else if (c == '+') {
      s.flags |= TFF_SIGN;
    } else if (c == ' ') {
      s.flags |= TFF_BLANK;
    } else if (c == '0' && !digits) {
      s.flags |= TFF_ZERO;
    } else if (c >= '0' && c <= '9') {
      digits = true;
      int &v = in_prec ? s.prec : s.width;
      v = (v < 0 ? 0 : v) * 10 + (c - '0');
      if (v > TF_MAX_WIDTH) v = TF_MAX_WIDTH;
    } else if (c == '*') {
      s.flags |= TFF_STAR;
      s.stars++;
    } else if (c == '.') {
      in_prec = true;
      digits = true;  // a "0" after the point is a digit, not a flag
      s.prec = 0;
    } else if (c == 'l') {
      if (p[1] == 'l') {
        s.flags |= TFF_LL;
        p++;
      } else {
        s.flags |= TFF_LONG;
      }
    } else if (c == 'q') {
      s.flags |= TFF_LL;
    } else if (c == 'L') {
      s.flags |= TFF_LDBL;
    } else if (c == 'h') {
      s.flags |= TFF_SHORT;
      if (p[1] == 'h') {
        s.flags |= TFF_CHAR;
        p++;
      }
    } else {
      break;
    }
  }
  char c = *p;
  s.conv = c;
  if (c == '\0') {
    s.end = p;
    s.code = TFC_UNKNOWN;
    return;
  }
  s.end = p + 1;
  switch (c) {
    case 'T': s.code = TFC_TIME; break;
    case 't': s.code = TFC_TIMEVAL; break;
    case 'A': s.code = TFC_SOCKADDR; break;
    case 'm': s.code = TFC_ERRNO; break;
    case 'B': s.code = TFC_BITS; break;
    case 'b': s.code = TFC_BINARY; break;
    case 'a': s.code = TFC_ASN; break;
    case 'z':
    case 'Z': {
      s.code = c == 'z' ? TFC_EXT_LOWER : TFC_EXT_UPPER;
      char l = p[1];
      if (l == '\0') break;
      s.end = p + 2;
      s.letter = l;
      if (l >= 'a' && l <= 'z') {
        s.class1 = tf_ext_first[l - 'a'];
        s.class2 = tf_ext_second[l - 'a'];
        if ((s.flags & TFF_LL) && (s.class1 == TFX_U32_SECOND || s.class1 == TFX_U32 || s.class1 == TFX_U32_ALT))
          s.class1 = TFX_U64;
      } else if (l == 'T') {
        s.class1 = TFX_TIME;
        s.flags |= TFF_ZTIME | TFF_TIME_VALUE;
      }
      break;
    }
    case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
      s.code = tf_int_code(s.flags);
      break;
    case 'c': case 'C':  // "%lc" and "%C": a wint_t, int-sized
      s.code = TFC_INT;
      break;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
      s.code = (s.flags & TFF_LDBL) ? TFC_LDOUBLE : TFC_DOUBLE;
      break;
    case 's':
      s.code = (s.flags & TFF_LONG) ? TFC_WSTRING : TFC_STRING;
      break;
    case 'S':
      s.code = TFC_WSTRING;
      break;
    case 'p':
      s.code = TFC_POINTER;
      break;
    case 'n': s.code = TFC_COUNT; break;
    case '%': s.code = TFC_PERCENT; break;
    default: s.code = TFC_UNKNOWN; break;
  }
  if (tf_is_ext_conv(c)) s.flags |= TFF_EXT;
  if (s.code == TFC_TIME) s.flags |= TFF_TIME_VALUE;
}

// The C length modifier that makes the C library read the argument that the
// directive's code names ("%qf" reads a double here, so it goes as "%f").
constexpr const char *tf_c_length(const tf_spec &s) {
  switch (s.code) {
    case TFC_LLONG: return "ll";
    case TFC_LONG: return "l";
    case TFC_SHORT: return (s.flags & TFF_CHAR) ? "hh" : "h";
    case TFC_LDOUBLE: return "L";
    case TFC_INT: return (s.conv == 'c' && (s.flags & TFF_LONG)) ? "l" : "";
    case TFC_WSTRING: return s.conv == 's' ? "l" : "";
    default: return "";
  }
}

// Finds the next directive at or after p ("%%" is literal text, not a
// directive); nullptr when none is left.
constexpr const char *tf_next(const char *p) {
  for (; *p; p++) {
    if (*p != '%') continue;
    if (p[1] == '%') {
      p++;
      continue;
    }
    return p;
  }
  return nullptr;
}

// True when the format has a directive of the framework's own; then "*" is
// not read.
constexpr bool tf_has_ext(const char *fmt) {
  for (const char *p = tf_next(fmt); p;) {
    tf_spec s;
    tf_parse(p, s);
    if (s.flags & TFF_EXT) return true;
    p = tf_next(s.end);
  }
  return false;
}

}  // namespace task_fmt_lang
