// The formatting engine: one scan for the framework's directives; formats
// without them go to the C library as they are; the others are walked
// directive by directive, each argument taken by its class and its text
// written straight into the destination (the caller's buffer, or a stack
// chunk flushed to the stream). No heap, no shared state: reentrant.
#include <cerrno>
#include <climits>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "fmt_internal.h"
#include "format/task_assert.h"

using namespace task_fmt_lang;

namespace {

// What the C library may be handed as it stands. Row: the length modifier
// (none, "h", "hh", "l", "ll", "q", "L"); bit per conversion character: the
// conversions that it reads exactly as this formatter does and that cannot
// fail on an encoding. Anything else is walked: the framework's directives,
// flags after the width, wide characters, "%n", "*", a width of six digits.
enum : uint8_t { LEN_NONE, LEN_H, LEN_HH, LEN_L, LEN_LL, LEN_Q, LEN_BIG_L, LEN_COUNT };
constexpr struct direct_table {
  uint8_t flag[256] = {};
  uint8_t ok[LEN_COUNT][256] = {};
  constexpr direct_table() {
    for (const char *c = "#-+ 0"; *c; c++) flag[static_cast<uint8_t>(*c)] = 1;
    auto allow = [&](int len, const char *convs) {
      for (const char *c = convs; *c; c++) ok[len][static_cast<uint8_t>(*c)] = 1;
    };
    allow(LEN_NONE, "diouxXeEfFgGcsp");
    allow(LEN_H, "diouxX");
    allow(LEN_HH, "diouxX");
    allow(LEN_LL, "diouxX");
    allow(LEN_Q, "diouxX");
    allow(LEN_L, "diouxXeEfFgG");
    allow(LEN_BIG_L, "eEfFgG");
  }
} direct;

constexpr bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

// Steps p (just past a "%" that is not "%%") to the conversion character of
// a directive in C's own order that the C library may take as it stands;
// false when the format must be walked. Stops at the terminator.
inline bool c_direct(const unsigned char *&p) {
  if (direct.ok[LEN_NONE][*p]) return true;  // "%d", "%s": most directives
  while (direct.flag[*p]) p++;
  int n = 0;
  while (is_digit(*p)) p++, n++;
  if (n > 5) return false;  // the walk caps widths; so must this path
  if (*p == '.') {
    p++;
    n = 0;
    while (is_digit(*p)) p++, n++;
    if (n > 5) return false;
  }
  int len = LEN_NONE;
  switch (*p) {
    case 'h':
      len = p[1] == 'h' ? LEN_HH : LEN_H;
      p += len == LEN_HH ? 2 : 1;
      break;
    case 'l':
      len = p[1] == 'l' ? LEN_LL : LEN_L;
      p += len == LEN_LL ? 2 : 1;
      break;
    case 'q': len = LEN_Q; p++; break;
    case 'L': len = LEN_BIG_L; p++; break;
    default: break;
  }
  return direct.ok[len][*p];
}

// True when fmt must be walked directive by directive: it holds a directive
// of the framework's own, or one the C library would read otherwise than
// this formatter. Every format passes here, so the "%" signs are found
// sixteen bytes at a time. The loads are aligned and never cross a page; the
// bytes past the terminator that they see are masked off, which the address
// sanitizer cannot know.
#if defined(__SSE2__)
__attribute__((no_sanitize_address)) bool needs_walk(const char *fmt) {
  const __m128i pct = _mm_set1_epi8('%'), nul = _mm_setzero_si128();
  const char *block = reinterpret_cast<const char *>(reinterpret_cast<uintptr_t>(fmt) & ~uintptr_t{15});
  unsigned skip = static_cast<unsigned>(fmt - block);
  const unsigned char *next_ok = reinterpret_cast<const unsigned char *>(fmt);
  __m128i v = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
  unsigned pm = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, pct))) >> skip << skip;
  unsigned zm = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, nul))) >> skip << skip;
  for (;;) {
    if (zm) pm &= (zm & (0u - zm)) - 1;  // only "%" before the terminator
    while (pm) {
      const unsigned char *q = reinterpret_cast<const unsigned char *>(block) + __builtin_ctz(pm);
      pm &= pm - 1;
      if (q < next_ok) continue;  // inside the previous directive or "%%"
      const unsigned char *p = q + 1;
      if (*p != '%' && !c_direct(p)) return true;
      next_ok = p + 1;
    }
    if (zm) return false;
    block += 16;
    v = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
    pm = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, pct)));
    zm = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, nul)));
  }
}
#else
bool needs_walk(const char *fmt) {
  for (const char *c = strchr(fmt, '%'); c; c = strchr(c, '%')) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(c) + 1;
    if (*p != '%' && !c_direct(p)) return true;
    c = reinterpret_cast<const char *>(p) + 1;
  }
  return false;
}
#endif

// Where the text goes. In buffer mode buf is the caller's, cap its size - 1;
// in stream mode buf is a stack chunk written out when full.
struct sink {
  char *buf;
  size_t cap;
  size_t pos = 0;
  size_t want = 0;   // the whole text's length
  FILE *stream = nullptr;
  bool failed = false;

  void flush() {
    if (stream && pos) {
      if (fwrite(buf, 1, pos, stream) != pos) failed = true;
      pos = 0;
    }
  }
  void put(const char *s, size_t n) {
    want += n;
    if (n > cap - pos) {
      if (!stream) {
        n = cap - pos;
      } else {
        flush();
        if (n > cap) {
          if (fwrite(s, 1, n, stream) != n) failed = true;
          return;
        }
      }
    }
    memcpy(buf + pos, s, n);
    pos += n;
  }
  void pad(size_t n) {
    static const char blanks[] = "                                ";
    while (n) {
      size_t k = n < sizeof blanks - 1 ? n : sizeof blanks - 1;
      put(blanks, k);
      n -= k;
    }
  }
  // One value through the C library with the directive's own slice.
  template <class V>
  void printf1(const char *slice, V v) {
    size_t room = cap - pos;
    int n = snprintf(buf + pos, room + 1, slice, v);
    if (n < 0) return;
    size_t un = static_cast<size_t>(n);
    if (un <= room) {
      pos += un;
      want += un;
      return;
    }
    if (!stream) {
      pos = cap;
      want += un;
      return;
    }
    flush();
    want += un;
    if (un <= cap) {
      snprintf(buf, cap + 1, slice, v);
      pos = un;
    } else if (fprintf(stream, slice, v) < 0) {
      failed = true;
    }
  }
};

// The caller's argument list, by pointer to a local va_list object. Copying
// it with va_copy right after va_start costs a store-forwarding stall, which
// shows on a short format.
struct va_box {
  va_list *p;
};

// Literal text between directives: "%%" stands for one "%".
void put_literal(sink &o, const char *p, const char *end) {
  while (p < end) {
    const char *pc = static_cast<const char *>(memchr(p, '%', end - p));
    if (!pc) {
      o.put(p, end - p);
      return;
    }
    o.put(p, pc + 1 - p);
    p = pc + 2;  // the second "%" of the pair
  }
}

// A rendered text under the directive's width, precision and "-", as %s.
void put_padded(sink &o, const tf_spec &s, const char *text, size_t len) {
  if (s.prec >= 0 && len > static_cast<size_t>(s.prec)) len = s.prec;
  size_t w = s.width > 0 ? static_cast<size_t>(s.width) : 0;
  if (w > len && !(s.flags & TFF_LEFT)) o.pad(w - len);
  o.put(text, len);
  if (w > len && (s.flags & TFF_LEFT)) o.pad(w - len);
}

// Width, precision and flags of a C directive as the C library gets them:
// the parsed ones, or those that "*" arguments gave in a plain format.
struct c_shape {
  int width;
  int prec;
  uint32_t flags;
};

char *put_uint(char *p, unsigned v) {
  char tmp[12];
  char *q = tmp + sizeof tmp;
  do {
    *--q = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (q < tmp + sizeof tmp) *p++ = *q++;
  return p;
}

// The directive rebuilt in C's order with the length that makes the C
// library read the argument the code names. At most 32 bytes with the NUL.
void c_slice(const tf_spec &s, const c_shape &c, char *out) {
  char *p = out;
  *p++ = '%';
  if (c.flags & TFF_ALT) *p++ = '#';
  if (c.flags & TFF_LEFT) *p++ = '-';
  if (c.flags & TFF_SIGN) *p++ = '+';
  if (c.flags & TFF_BLANK) *p++ = ' ';
  if (c.flags & TFF_ZERO) *p++ = '0';
  if (c.width > 0) p = put_uint(p, static_cast<unsigned>(c.width));
  if (c.prec >= 0) {
    *p++ = '.';
    p = put_uint(p, static_cast<unsigned>(c.prec));
  }
  for (const char *l = tf_c_length(s); *l; l++) *p++ = *l;
  *p++ = s.conv;
  *p = '\0';
}

bool plain_spec(const tf_spec &s) {
  return s.width < 0 && s.prec < 0 &&
         !(s.flags & (TFF_ALT | TFF_ZERO | TFF_LEFT | TFF_STAR | TFF_SIGN | TFF_BLANK));
}

// %d %i %u %x %X without flags, width or precision.
bool fast_int(sink &o, const tf_spec &s, uint64_t bits, bool is_signed) {
  if (!plain_spec(s)) return false;
  char tmp[24];
  char *p = tmp + sizeof tmp;
  switch (s.conv) {
    case 'd':
    case 'i': {
      if (!is_signed) return false;
      int64_t v = static_cast<int64_t>(bits);
      uint64_t u = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
      do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
      } while (u);
      if (v < 0) *--p = '-';
      break;
    }
    case 'u':
      do {
        *--p = static_cast<char>('0' + bits % 10);
        bits /= 10;
      } while (bits);
      break;
    case 'x':
    case 'X': {
      const char *digits = s.conv == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
      do {
        *--p = digits[bits & 15];
        bits >>= 4;
      } while (bits);
      break;
    }
    default:
      return false;
  }
  o.put(p, tmp + sizeof tmp - p);
  return true;
}

template <class V>
void put_value(sink &o, const tf_spec &s, const c_shape &c, V v) {
  char slice[32];
  c_slice(s, c, slice);
  o.printf1(slice, v);
}

// The "*" arguments of a directive in a plain format, in the order they
// stand: one before the "." is the width (negative: "-" and its size), one
// after it the precision (negative: none). Capped as written widths are.
void take_stars(va_box &a, const tf_spec &s, c_shape &c) {
  bool in_prec = false;
  for (const char *p = s.start + 1; p < s.end; p++) {
    if (*p == '.') {
      in_prec = true;
    } else if (*p == '*') {
      long v = va_arg(*a.p, int);
      if (!in_prec) {
        if (v < 0) {
          c.flags |= TFF_LEFT;
          v = -v;
        }
        c.width = static_cast<int>(v > TF_MAX_WIDTH ? TF_MAX_WIDTH : v);
      } else {
        c.prec = v < 0 ? -1 : static_cast<int>(v > TF_MAX_WIDTH ? TF_MAX_WIDTH : v);
      }
    }
  }
}

uint32_t take_u32(va_box &a) { return va_arg(*a.p, unsigned); }

void take_ext_value(va_box &a, uint8_t cls, zsock_fmt_value *v, zsock_fmt_value *v2) {
  switch (cls) {
    case TFX_DOUBLE: v->dbl = va_arg(*a.p, double); break;
    case TFX_POINTER: v->ptr = va_arg(*a.p, const void *); break;
    case TFX_U32_SECOND: case TFX_U32: case TFX_U32_ALT: v->u64 = take_u32(a); break;
    case TFX_U64: v->u64 = va_arg(*a.p, unsigned long long); break;
    case TFX_TIME: {
      task_fmt_time t = va_arg(*a.p, task_fmt_time);
      v->u64 = static_cast<uint32_t>(t.tft_sec);
      v2->u64 = static_cast<uint32_t>(t.tft_usec);
      break;
    }
    default: break;
  }
}

// The values of an extension directive, by the letter's classes.
void take_ext(va_box &a, const tf_spec &s, zsock_fmt_value values[2]) {
  values[0].u64 = 0;
  values[1].u64 = 0;
  take_ext_value(a, s.class1, &values[0], &values[1]);
  if (tf_takes_second(s.class2)) take_ext_value(a, s.class2, &values[1], &values[1]);
}

uint64_t take_unsigned(va_box &a, uint32_t flags) {
  if (flags & TFF_LL) return va_arg(*a.p, unsigned long long);
  if (flags & TFF_LONG) return va_arg(*a.p, unsigned long);
  return va_arg(*a.p, unsigned);
}

int64_t take_signed(va_box &a, uint32_t flags) {
  if (flags & TFF_LL) return va_arg(*a.p, long long);
  if (flags & TFF_LONG) return va_arg(*a.p, long);
  return va_arg(*a.p, int);
}

// stars: whether "*" takes an argument (a format without the framework's
// directives).
void emit(sink &o, const tf_spec &s, va_box &a, int saved_errno, char *scratch, bool stars) {
  size_t len = 0;
  c_shape c{s.width, s.prec, s.flags};
  if (s.stars && stars) take_stars(a, s, c);
  switch (s.code) {
    case TFC_SHORT:
    case TFC_INT: {
      int v = va_arg(*a.p, int);
      if (s.code == TFC_SHORT) {  // "h" or "hh": the C library narrows
        put_value(o, s, c, v);
        return;
      }
      bool sgn = s.conv == 'd' || s.conv == 'i';
      uint64_t bits = sgn ? static_cast<uint64_t>(static_cast<int64_t>(v)) : static_cast<unsigned>(v);
      if (!fast_int(o, s, bits, sgn)) put_value(o, s, c, v);
      return;
    }
    case TFC_LONG: {
      long v = va_arg(*a.p, long);
      if (!fast_int(o, s, static_cast<uint64_t>(v), true)) put_value(o, s, c, v);
      return;
    }
    case TFC_LLONG: {
      long long v = va_arg(*a.p, long long);
      if (!fast_int(o, s, static_cast<uint64_t>(v), true)) put_value(o, s, c, v);
      return;
    }
    case TFC_DOUBLE: put_value(o, s, c, va_arg(*a.p, double)); return;
    case TFC_LDOUBLE: put_value(o, s, c, va_arg(*a.p, long double)); return;
    case TFC_STRING: {
      const char *v = va_arg(*a.p, const char *);
      if (v && plain_spec(s))
        o.put(v, strlen(v));
      else
        put_value(o, s, c, v);
      return;
    }
    case TFC_WSTRING: put_value(o, s, c, va_arg(*a.p, const wchar_t *)); return;
    case TFC_POINTER: put_value(o, s, c, va_arg(*a.p, void *)); return;
    case TFC_COUNT: (void)va_arg(*a.p, void *); return;
    case TFC_PERCENT: o.put("%", 1); return;
    case TFC_UNKNOWN: o.put(s.start, s.end - s.start); return;
    case TFC_ERRNO: {
      const char *text = strerror_r(saved_errno, scratch, TASK_FMT_SCRATCH);
      if (!text) text = "NaN";
      o.put(text, strlen(text));
      return;
    }
    case TFC_TIME:
      len = tf::time_text(scratch, TASK_FMT_SCRATCH, take_signed(a, s.flags), 0, s.flags);
      break;
    case TFC_TIMEVAL: {
      const task_fmt_time *t = va_arg(*a.p, const task_fmt_time *);
      if (t)
        len = tf::time_text(scratch, TASK_FMT_SCRATCH, t->tft_sec, t->tft_usec, s.flags);
      else
        len = tf::put_text(scratch, TASK_FMT_SCRATCH, "zero-len", 8);
      break;
    }
    case TFC_SOCKADDR: {
      const zsockaddr_t *addr = va_arg(*a.p, const zsockaddr_t *);
      int alt = (s.flags & TFF_ALT) != 0;
      if (!o.stream && s.width < 0 && s.prec < 0) {
        // Nothing to pad: the printer writes in place, the text cut to what is left.
        len = tf::sockaddr_text(o.buf + o.pos, o.cap - o.pos + 1, addr, alt);
        o.pos += len;
        o.want += len;
        return;
      }
      len = tf::sockaddr_text(scratch, TASK_FMT_SCRATCH, addr, alt);
      break;
    }
    case TFC_BITS:
    case TFC_BINARY:
      len = tf::binary_text(scratch, TASK_FMT_SCRATCH, take_unsigned(a, s.flags), s.code == TFC_BITS);
      break;
    case TFC_ASN:
      len = tf::asn_text(scratch, TASK_FMT_SCRATCH, take_u32(a));
      break;
    case TFC_EXT_LOWER:
    case TFC_EXT_UPPER: {
      zsock_fmt_value values[2];
      take_ext(a, s, values);
      const char *text = tf::ext_text(scratch, TASK_FMT_SCRATCH, s.letter, values, s.flags, &len);
      put_padded(o, s, text, len);
      return;
    }
    default:
      return;
  }
  put_padded(o, s, scratch, len);
}

// The next directive at or after p, or the terminator ("%%" is literal).
const char *next_directive(const char *p) {
  for (;; p++) {
    char c = *p;
    if (c == '%') {
      if (p[1] != '%') return p;
      p++;
    } else if (c == '\0') {
      return p;
    }
  }
}

// The walk of a format that has the framework's directives.
void assemble(sink &o, const char *fmt, va_box &a, int saved_errno) {
  char scratch[TASK_FMT_SCRATCH];
  const char *lit = fmt;
  int nrec = 0;
  int ext = -1;  // whether the format has the framework's directives: found out when it matters
  const char *p;
  while (*(p = next_directive(lit)) != '\0') {
    put_literal(o, lit, p);
    tf_spec s;
    tf_parse(p, s);
    if (nrec >= TASK_FMT_MAX_RECORDS || s.stars) {
      if (ext < 0) ext = tf_has_ext(fmt);
      if (ext) task_assert(nrec < TASK_FMT_MAX_RECORDS);
    }
    nrec++;
    emit(o, s, a, saved_errno, scratch, ext == 0);
    lit = s.end;
  }
  put_literal(o, lit, p);
}

// What vsnprintf stored. It fails only on a text longer than INT_MAX (the
// walk takes every directive that could fail on an encoding); what it left
// in the buffer then is not to be trusted.
int clamp_stored(int n, char *buf, size_t size) {
  if (n < 0) {
    buf[0] = '\0';
    return 0;
  }
  return static_cast<size_t>(n) < size ? n : static_cast<int>(size - 1);
}

}  // namespace

namespace {

int vformat(task_fmt_mode *mode, const char *fmt, va_list *app) {
  int saved_errno = mode->tfm_errno;
  va_box a{app};
  if (mode->tfm_mode == TASK_FMT_MODE_STREAM) {
    FILE *stream = static_cast<FILE *>(mode->tfm_dest);
    if (!needs_walk(fmt)) return vfprintf(stream, fmt, *app);
    char chunk[1025];
    sink o{chunk, sizeof chunk - 1};
    o.stream = stream;
    assemble(o, fmt, a, saved_errno);
    o.flush();
    if (o.failed) return -1;
    return o.want > INT_MAX ? INT_MAX : static_cast<int>(o.want);
  }
  size_t size = mode->tfm_size;
  char *buf = static_cast<char *>(mode->tfm_dest);
  if (size == 0 || size > static_cast<size_t>(PTRDIFF_MAX)) return 0;
  if (size == 1) {
    buf[0] = '\0';
    return 0;
  }
  if (!needs_walk(fmt)) return clamp_stored(vsnprintf(buf, size, fmt, *app), buf, size);
  sink o{buf, size - 1};
  assemble(o, fmt, a, saved_errno);
  buf[o.pos] = '\0';
  return static_cast<int>(o.pos);
}

int vformat_copy(task_fmt_mode *mode, const char *fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int n = vformat(mode, fmt, &copy);
  va_end(copy);
  return n;
}

}  // namespace

extern "C" {

int task_fmt_vformat(task_fmt_mode *mode, const char *fmt, va_list ap) { return vformat_copy(mode, fmt, ap); }

int task_fmt_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap) {
  task_fmt_mode m{TASK_FMT_MODE_BUFFER, errno, size, buf};
  return vformat_copy(&m, fmt, ap);
}

int task_fmt_snprintf(char *buf, size_t size, const char *fmt, ...) {
  // The list goes on by pointer, not copied.
  task_fmt_mode m{TASK_FMT_MODE_BUFFER, errno, size, buf};
  va_list ap;
  va_start(ap, fmt);
  int n = vformat(&m, fmt, &ap);
  va_end(ap);
  return n;
}

int task_fmt_vsprintf(char *buf, const char *fmt, va_list ap) {
  task_fmt_mode m{TASK_FMT_MODE_BUFFER, errno, TASK_FMT_SPRINTF_LIMIT, buf};
  return vformat_copy(&m, fmt, ap);
}

int task_fmt_sprintf(char *buf, const char *fmt, ...) {
  // The list goes on by pointer, not copied.
  task_fmt_mode m{TASK_FMT_MODE_BUFFER, errno, TASK_FMT_SPRINTF_LIMIT, buf};
  va_list ap;
  va_start(ap, fmt);
  int n = vformat(&m, fmt, &ap);
  va_end(ap);
  return n;
}

int task_fmt_vfprintf(FILE *stream, const char *fmt, va_list ap) {
  task_fmt_mode m{TASK_FMT_MODE_STREAM, errno, 0, stream};
  return vformat_copy(&m, fmt, ap);
}

int task_fmt_fprintf(FILE *stream, const char *fmt, ...) {
  // The list goes on by pointer, not copied.
  task_fmt_mode m{TASK_FMT_MODE_STREAM, errno, 0, stream};
  va_list ap;
  va_start(ap, fmt);
  int n = vformat(&m, fmt, &ap);
  va_end(ap);
  return n;
}

char *task_fmt_ext_one(char *buf, size_t size, int letter, ...) {
  if (size == 0) return buf;
  tf_spec s;
  s.letter = static_cast<char>(letter);
  if (letter >= 'a' && letter <= 'z') {
    s.class1 = tf_ext_first[letter - 'a'];
    s.class2 = tf_ext_second[letter - 'a'];
  } else if (letter == 'T') {
    s.class1 = TFX_TIME;
  }
  zsock_fmt_value values[2];
  va_list ap;
  va_start(ap, letter);
  va_box a{&ap};
  take_ext(a, s, values);
  va_end(ap);
  char scratch[TASK_FMT_SCRATCH];
  size_t len;
  const char *text = tf::ext_text(scratch, sizeof scratch, letter, values, 0, &len);
  tf::put_text(buf, size, text, len);
  return buf;
}

}  // extern "C"
