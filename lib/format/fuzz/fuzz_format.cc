// The print family on fuzzed formats, through the run-time path: every
// directive gets an argument of the type it takes (by the shared parser),
// its value from the input's bytes, each pointed-to object in a heap block of
// its exact size, and the arguments themselves in a heap block of their exact
// size, so that reading one argument too many or a byte past an object is
// caught. Checked: the bytes stored and the return agree, a cut text is a
// prefix of the whole one (not with %A: a family printer may leave out a
// separator when the room is short), a stream gets the same text as a
// buffer, and %n stores nothing.
//
// Input: one byte of options (bit 0: asdot; the rest: errno for %m), one
// byte of buffer size, the format up to a NUL byte (at most 256 bytes), then
// the bytes the arguments are taken from (zeros when they run out).
#include <arpa/inet.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "../tests/daemon_families.h"
#include "format/task_fmt.h"
#include "sockaddr/families.h"

#if !defined(__x86_64__)
#error "the argument list is laid out as the x86-64 System V ABI does"
#endif

namespace {

using namespace task_fmt_lang;

struct bytes {
  const uint8_t *p;
  size_t n;
  template <class T>
  T take() {
    T v{};
    size_t k = n < sizeof v ? n : sizeof v;
    memcpy(&v, p, k);
    p += k;
    n -= k;
    return v;
  }
};

// The arguments, laid out as a caller's stack area past the registers.
class arg_list {
 public:
  template <class T>
  void push(T v) {
    size_t align = alignof(T) > 8 ? alignof(T) : 8;
    size_t at = (area_.size() + align - 1) / align * align;
    area_.resize(at + (sizeof v + 7) / 8 * 8, 0);
    memcpy(area_.data() + at, &v, sizeof v);
  }
  // A va_list over a heap copy of exactly the arguments' size (16-aligned,
  // as malloc gives): the general and vector registers marked used up.
  struct sysv_va {
    unsigned gp_offset, fp_offset;
    void *overflow_arg_area, *reg_save_area;
  };
  static_assert(sizeof(va_list) == sizeof(sysv_va));
  void *block() {
    block_.reset(static_cast<uint8_t *>(malloc(area_.empty() ? 1 : area_.size())));
    if (!area_.empty()) memcpy(block_.get(), area_.data(), area_.size());
    return block_.get();
  }

 private:
  struct freer {
    void operator()(uint8_t *p) const { free(p); }
  };
  std::vector<uint8_t> area_;
  std::unique_ptr<uint8_t, freer> block_;
};

// Objects that arguments point to, each in its own block of exact size.
struct objects {
  std::vector<void *> all;
  ~objects() {
    for (void *p : all) free(p);
  }
  void *make(const void *src, size_t n) {
    void *p = malloc(n ? n : 1);
    if (n) memcpy(p, src, n);
    all.push_back(p);
    return p;
  }
};

const unsigned kFamilies[] = {GF_INET, GF_INET6, GF_UNIX, GF_I802, kNoPrinterFamily, 0};

zsockaddr_t *make_addr(bytes &in, objects &obj, bool inet_only) {
  uint8_t sel = in.take<uint8_t>();
  unsigned gf = inet_only ? unsigned{GF_INET} : kFamilies[sel % (sizeof kFamilies / sizeof kFamilies[0])];
  unsigned len;
  switch (gf) {
    case GF_INET: len = (sel & 0x40) ? SOCKADDR_INMC_LEN : SOCKADDR_IN_LEN; break;
    case GF_INET6: len = (sel & 0x40) ? SOCKADDR_IN6MC_LEN : SOCKADDR_IN6_LEN; break;
    case GF_I802: len = SOCKADDR_I802_LEN; break;
    default: len = 2 + in.take<uint8_t>() % 100; break;
  }
  if (sel & 0x80 && !inet_only) len = 2 + in.take<uint8_t>() % 60;  // any length the family may meet
  uint8_t raw[128] = {};
  for (unsigned i = 2; i < len; i++) raw[i] = in.take<uint8_t>();
  if (gf == GF_UNIX) raw[len - 1] = 0;
  auto *a = static_cast<zsockaddr_t *>(obj.make(raw, len));
  a->zs_len = static_cast<uint8_t>(len);
  a->zs_gf = static_cast<uint8_t>(gf);
  return a;
}

const char *make_string(bytes &in, objects &obj) {
  size_t n = in.take<uint8_t>() % 40;
  char tmp[41];
  for (size_t i = 0; i < n; i++) {
    tmp[i] = in.take<char>();
    if (!tmp[i]) tmp[i] = 'x';
  }
  tmp[n] = 0;
  return static_cast<const char *>(obj.make(tmp, n + 1));
}

const wchar_t *make_wstring(bytes &in, objects &obj) {
  size_t n = in.take<uint8_t>() % 12;
  wchar_t tmp[13];
  for (size_t i = 0; i < n; i++) {
    uint8_t b = in.take<uint8_t>();
    tmp[i] = b < 0xf0 ? static_cast<wchar_t>(b ? b : 'w') : in.take<wchar_t>();  // mostly ASCII
    if (!tmp[i]) tmp[i] = 'w';
  }
  tmp[n] = 0;
  return static_cast<const wchar_t *>(obj.make(tmp, (n + 1) * sizeof(wchar_t)));
}

void push_ext_class(uint8_t cls, char letter, bool first, bytes &in, objects &obj, arg_list &args) {
  switch (cls) {
    case TFX_DOUBLE: args.push(in.take<double>()); break;
    case TFX_POINTER:
      if (letter == 'p' && first)
        args.push(static_cast<const void *>(make_addr(in, obj, true)));
      else
        args.push(static_cast<const void *>(make_string(in, obj)));
      break;
    case TFX_U32_SECOND: case TFX_U32: case TFX_U32_ALT:
      args.push(letter == 'm' && !first ? in.take<uint8_t>() % 40u : in.take<unsigned>());
      break;
    case TFX_U64: args.push(in.take<unsigned long long>()); break;
    case TFX_TIME: args.push(in.take<task_fmt_time>()); break;
    default: break;
  }
}

// The arguments of fmt, by the parser that the formatter and the checker
// share; false for a format the formatter asserts on (documented).
bool build(const char *fmt, bytes &in, objects &obj, arg_list &args, int **count, bool *addr) {
  bool ext = false;
  int n = 0;
  for (const char *p = tf_next(fmt); p; n++) {
    tf_spec s;
    tf_parse(p, s);
    if (s.flags & TFF_EXT) ext = true;
    p = tf_next(s.end);
  }
  if (ext && n > TASK_FMT_MAX_RECORDS) return false;
  for (const char *p = tf_next(fmt); p;) {
    tf_spec s;
    tf_parse(p, s);
    p = tf_next(s.end);
    if (!ext)
      for (int i = 0; i < s.stars; i++) args.push(in.take<int>());
    switch (s.code) {
      case TFC_SHORT: case TFC_INT: args.push(in.take<int>()); break;
      case TFC_LONG: args.push(in.take<long>()); break;
      case TFC_LLONG: args.push(in.take<long long>()); break;
      case TFC_DOUBLE: args.push(in.take<double>()); break;
      case TFC_LDOUBLE: {
        // Any double widened: a long double's padding bytes carry nothing.
        args.push(static_cast<long double>(in.take<double>()));
        break;
      }
      case TFC_STRING: args.push(make_string(in, obj)); break;
      case TFC_WSTRING: args.push(make_wstring(in, obj)); break;
      case TFC_POINTER: args.push(in.take<void *>()); break;
      case TFC_TIME: case TFC_BITS: case TFC_BINARY:
        if (s.flags & TFF_LL)
          args.push(in.take<long long>());
        else if (s.flags & TFF_LONG)
          args.push(in.take<long>());
        else
          args.push(in.take<int>());
        break;
      case TFC_ASN: args.push(in.take<unsigned>()); break;
      case TFC_TIMEVAL: {
        task_fmt_time t = in.take<task_fmt_time>();
        args.push(in.take<uint8_t>() == 0 ? nullptr : obj.make(&t, sizeof t));
        break;
      }
      case TFC_SOCKADDR:
        *addr = true;
        args.push(in.take<uint8_t>() == 0 ? nullptr : make_addr(in, obj, false)); break;
      case TFC_EXT_LOWER: case TFC_EXT_UPPER:
        push_ext_class(s.class1, s.letter, true, in, obj, args);
        if (tf_takes_second(s.class2)) push_ext_class(s.class2, s.letter, false, in, obj, args);
        break;
      case TFC_COUNT: {
        int *c = static_cast<int *>(obj.make("\x55\x55\x55\x55", 4));
        *count = c;
        args.push(c);
        break;
      }
      default: break;
    }
  }
  return true;
}

int vformat_buffer(char *buf, size_t size, const char *fmt, void *area, int err) {
  arg_list::sysv_va v{48, 176, area, nullptr};
  va_list ap;
  memcpy(&ap, &v, sizeof v);
  errno = err;
  return task_fmt_vsnprintf(buf, size, fmt, ap);
}

int vformat_stream(FILE *f, const char *fmt, void *area, int err) {
  arg_list::sysv_va v{48, 176, area, nullptr};
  va_list ap;
  memcpy(&ap, &v, sizeof v);
  errno = err;
  return task_fmt_vfprintf(f, fmt, ap);
}

char whole[1 << 20];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  wire_daemon_families();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  uint8_t opt = data[0];
  size_t small = data[1];
  const uint8_t *end = static_cast<const uint8_t *>(memchr(data + 2, 0, size - 2));
  size_t flen = (end ? end : data + size) - (data + 2);
  if (flen > 256) return 0;
  std::string fmt(reinterpret_cast<const char *>(data + 2), flen);
  bytes in{data + 2 + flen + (end ? 1 : 0), size - 2 - flen - (end ? 1 : 0)};
  task_fmt_set_asdot(opt & 1);
  int err = opt >> 1;

  objects obj;
  arg_list args;
  int *count = nullptr;
  bool addr = false;
  if (!build(fmt.c_str(), in, obj, args, &count, &addr)) return 0;
  void *area = args.block();

  int n = vformat_buffer(whole, sizeof whole, fmt.c_str(), area, err);
  if (n < 0 || static_cast<size_t>(n) >= sizeof whole || whole[n] != '\0') abort();

  // A smaller buffer holds a prefix of the same text, and says how much.
  char cut[256];
  memset(cut, 0x7e, sizeof cut);
  int m = vformat_buffer(cut, small, fmt.c_str(), area, err);
  if (small == 0) {
    if (m != 0 || cut[0] != 0x7e) abort();
  } else {
    size_t want = static_cast<size_t>(n) < small - 1 ? static_cast<size_t>(n) : small - 1;
    if (static_cast<size_t>(m) > want || cut[m] != '\0') abort();
    if (!addr && (static_cast<size_t>(m) != want || memcmp(cut, whole, want) != 0)) abort();
  }

  // A stream gets the same text.
  if (static_cast<size_t>(n) < sizeof whole - 1) {
    char *text = nullptr;
    size_t tlen = 0;
    FILE *f = open_memstream(&text, &tlen);
    int k = vformat_stream(f, fmt.c_str(), area, err);
    fclose(f);
    if (k != n || tlen != static_cast<size_t>(n) || memcmp(text, whole, tlen) != 0) abort();
    free(text);
  }
  if (count && memcmp(count, "\x55\x55\x55\x55", 4) != 0) abort();  // %n stores nothing
  return 0;
}
