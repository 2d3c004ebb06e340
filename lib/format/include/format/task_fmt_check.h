// Compile-time checked calls of the task_fmt family, for C++ callers:
//
//   task_fmt::snprintf(buf, sizeof buf, "%s %A %d %T", name, addr, n, secs);
//
// The format must be a constant; it is parsed while compiling (by the same
// parser the formatter runs) and every directive is matched against its
// argument's type, the extension letters by their fixed class tables. A
// mismatch stops the build in task_fmt::detail::format_error, whose argument
// says what is wrong. Included by format/task_fmt.h.
#pragma once

#include <cstddef>
#include <cstdio>
#include <type_traits>

#include "format/task_fmt_lang.h"
#include "sockaddr/zsockaddr.h"

// The functions the checked wrappers call (format/task_fmt.h).
extern "C" {
int task_fmt_fprintf(FILE *stream, const char *fmt, ...);
int task_fmt_sprintf(char *buf, const char *fmt, ...);
int task_fmt_snprintf(char *buf, size_t size, const char *fmt, ...);
}

namespace task_fmt {
namespace detail {

// Not constexpr on purpose: reaching it while checking a format is the
// compile error, and the compiler prints the text.
inline void format_error(const char *) {}

// What a directive asks of its argument.
enum need : uint8_t {
  N_INT32,     // an integer of at most 32 bits
  N_LONG,      // long or unsigned long
  N_LLONG,     // long long or unsigned long long
  N_DOUBLE,    // float or double
  N_LDOUBLE,   // long double
  N_STRING,    // pointer to char
  N_WSTRING,   // pointer to wchar_t
  N_POINTER,   // any pointer
  N_SOCKADDR,  // pointer to zsockaddr_t
  N_TIMEPTR,   // pointer to task_fmt_time (or a type of the same shape)
  N_TIMEVAL,   // task_fmt_time by value
  N_COUNT_,
};

// Each message stands on the line of its call: that line is what the
// compiler shows.
constexpr void mismatch(need n) {
  switch (n) {
    case N_INT32: format_error("argument does not match its directive: want an integer of at most 32 bits; \"l\" for long and uint64_t, \"ll\" for long long"); break;
    case N_LONG: format_error("argument does not match its directive: want long or unsigned long"); break;
    case N_LLONG: format_error("argument does not match its directive: want long long or unsigned long long"); break;
    case N_DOUBLE: format_error("argument does not match its directive: want double"); break;
    case N_LDOUBLE: format_error("argument does not match its directive: want long double"); break;
    case N_STRING: format_error("argument does not match its directive: want a char string"); break;
    case N_WSTRING: format_error("argument does not match its directive: %ls and %S want a wchar_t string"); break;
    case N_POINTER: format_error("argument does not match its directive: want a pointer"); break;
    case N_SOCKADDR: format_error("argument does not match its directive: %A wants a pointer to zsockaddr_t"); break;
    case N_TIMEPTR: format_error("argument does not match its directive: %t wants a pointer to task_fmt_time"); break;
    case N_TIMEVAL: format_error("argument does not match its directive: %zT wants a task_fmt_time by value"); break;
    default: break;
  }
}

// A seconds and microseconds pair: any plain 8-byte record.
template <class T>
consteval bool time_shaped() {
  if constexpr (std::is_class_v<T>)
    return std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T> && sizeof(T) == 8;
  else
    return false;
}

template <class T>
consteval bool satisfies(need n) {
  using D = std::decay_t<T>;
  using P = std::remove_cv_t<std::remove_pointer_t<D>>;
  constexpr bool is_ptr = std::is_pointer_v<D> || std::is_null_pointer_v<D>;
  switch (n) {
    case N_INT32:
      if constexpr (std::is_enum_v<D>)
        return std::is_convertible_v<D, int> && sizeof(D) <= 4;  // unscoped only
      else
        return std::is_integral_v<D> && sizeof(D) <= 4;
    case N_LONG:
      return std::is_same_v<D, long> || std::is_same_v<D, unsigned long>;
    case N_LLONG:
      return std::is_same_v<D, long long> || std::is_same_v<D, unsigned long long>;
    case N_DOUBLE:
      return std::is_same_v<D, double> || std::is_same_v<D, float>;
    case N_LDOUBLE:
      return std::is_same_v<D, long double>;
    case N_STRING:
      return std::is_pointer_v<D> &&
             (std::is_same_v<P, char> || std::is_same_v<P, signed char> || std::is_same_v<P, unsigned char>);
    case N_WSTRING:
      return std::is_pointer_v<D> && std::is_same_v<P, wchar_t>;
    case N_POINTER:
      return is_ptr;
    case N_SOCKADDR:
      return std::is_null_pointer_v<D> || (std::is_pointer_v<D> && std::is_same_v<P, zsockaddr_t>);
    case N_TIMEPTR:
      if constexpr (std::is_pointer_v<D>)
        return time_shaped<P>();
      else
        return false;
    case N_TIMEVAL:
      return time_shaped<D>();
    default:
      return false;
  }
}

template <class T>
consteval unsigned satisfied_mask() {
  unsigned m = 0;
  for (unsigned n = 0; n < N_COUNT_; n++)
    if (satisfies<T>(static_cast<need>(n))) m |= 1u << n;
  return m;
}

constexpr need int_need(uint32_t flags) {
  using namespace task_fmt_lang;
  if (flags & TFF_LL) return N_LLONG;
  if (flags & TFF_LONG) return N_LONG;
  return N_INT32;
}

constexpr int ext_class_need(uint8_t cls) {
  using namespace task_fmt_lang;
  switch (cls) {
    case TFX_DOUBLE: return N_DOUBLE;
    case TFX_POINTER: return N_POINTER;
    case TFX_U32_SECOND: case TFX_U32: case TFX_U32_ALT: return N_INT32;
    case TFX_U64: return N_LLONG;
    case TFX_TIME: return N_TIMEVAL;
    default: return -1;
  }
}

// The checker's verdict on a format: the first fault found, if any.
enum fault : uint8_t {
  F_NONE,
  F_MISMATCH,   // argument arg does not satisfy need
  F_TOO_FEW,
  F_TOO_MANY,
  F_Z_AT_END,   // "%z" or "%Z" without its letter
  F_STAR_EXT,   // "*" in a format with the framework's directives
  F_COUNT,      // %n
  F_UNKNOWN,    // a conversion nobody reads
};
struct verdict {
  fault f = F_NONE;
  need want = N_COUNT_;
  size_t arg = 0;
};

// Walks the format as the formatter does and checks argument i against
// masks[i] (the needs its type satisfies), and that the directives read
// exactly nargs arguments. constexpr, so that tests can hold the engine's
// behaviour against the checker's verdict at run time.
constexpr verdict check_format(const char *fmt, const unsigned *masks, size_t nargs) {
  using namespace task_fmt_lang;
  const bool ext = tf_has_ext(fmt);
  verdict v;
  size_t ai = 0;
  auto want = [&](int n) {
    if (n < 0 || v.f != F_NONE) return;
    if (ai >= nargs) {
      v.f = F_TOO_FEW;
    } else if (!(masks[ai] & (1u << n))) {
      v.f = F_MISMATCH;
      v.want = static_cast<need>(n);
      v.arg = ai;
    }
    ai++;
  };
  for (const char *p = tf_next(fmt); p && v.f == F_NONE; ) {
    tf_spec s;
    tf_parse(p, s);
    p = tf_next(s.end);
    if (s.stars) {
      if (ext) {
        v.f = F_STAR_EXT;
        break;
      }
      for (int i = 0; i < s.stars; i++) want(N_INT32);
    }
    switch (s.code) {
      case TFC_SHORT: case TFC_INT: want(N_INT32); break;
      case TFC_LONG: want(N_LONG); break;
      case TFC_LLONG: want(N_LLONG); break;
      case TFC_DOUBLE: want(N_DOUBLE); break;
      case TFC_LDOUBLE: want(N_LDOUBLE); break;
      case TFC_STRING: want(N_STRING); break;
      case TFC_WSTRING: want(N_WSTRING); break;
      case TFC_POINTER: want(N_POINTER); break;
      case TFC_TIME: case TFC_BITS: case TFC_BINARY: want(int_need(s.flags)); break;
      case TFC_ASN: want(N_INT32); break;
      case TFC_TIMEVAL: want(N_TIMEPTR); break;
      case TFC_SOCKADDR: want(N_SOCKADDR); break;
      case TFC_ERRNO: case TFC_PERCENT: break;
      case TFC_EXT_LOWER: case TFC_EXT_UPPER:
        if (s.letter == 0) {
          v.f = F_Z_AT_END;
          break;
        }
        want(ext_class_need(s.class1));
        if (tf_takes_second(s.class2)) want(ext_class_need(s.class2));
        break;
      case TFC_COUNT: v.f = F_COUNT; break;
      default: v.f = F_UNKNOWN; break;
    }
  }
  if (v.f == F_NONE && ai != nargs) v.f = F_TOO_MANY;
  return v;
}

consteval void report(const verdict &v) {
  switch (v.f) {
    case F_NONE: break;
    case F_MISMATCH: mismatch(v.want); break;
    case F_TOO_FEW: format_error("too few arguments for the format"); break;
    case F_TOO_MANY: format_error("too many arguments for the format"); break;
    case F_Z_AT_END: format_error("%z or %Z at the end of the format: the extension letter is missing"); break;
    case F_STAR_EXT: format_error("\"*\" is not read in a format with the framework's directives: write the width in the format"); break;
    case F_COUNT: format_error("%n is not supported"); break;
    case F_UNKNOWN: format_error("unknown directive in the format"); break;
  }
}

template <class... Args>
consteval void check(const char *fmt) {
  if constexpr (sizeof...(Args) == 0) {
    report(check_format(fmt, nullptr, 0));
  } else {
    constexpr unsigned masks[] = {satisfied_mask<Args>()...};
    report(check_format(fmt, masks, sizeof...(Args)));
  }
}

}  // namespace detail

// A format checked against the argument types Args while compiling.
template <class... Args>
struct format_string {
  const char *str;
  template <class S>
    requires std::is_convertible_v<const S &, const char *>
  consteval format_string(const S &s) : str(s) {
    detail::check<Args...>(str);
  }
};

template <class... Args>
using format_for = format_string<std::decay_t<Args>...>;  // a non-deduced context

template <class... Args>
inline int snprintf(char *buf, size_t size, format_for<Args...> fmt, Args &&...args) {
  return task_fmt_snprintf(buf, size, fmt.str, args...);
}

template <class... Args>
inline int fprintf(FILE *stream, format_for<Args...> fmt, Args &&...args) {
  return task_fmt_fprintf(stream, fmt.str, args...);
}

template <class... Args>
inline int sprintf(char *buf, format_for<Args...> fmt, Args &&...args) {
  return task_fmt_sprintf(buf, fmt.str, args...);
}

}  // namespace task_fmt
