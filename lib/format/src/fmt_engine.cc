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

// Characters a directive steps over (1) and the framework's conversions (2).
constexpr struct scan_table {
  uint8_t t[256] = {};
  constexpr scan_table() {
    for (const char *c = "#-+ 0123456789*.lLhq"; *c; c++) t[static_cast<uint8_t>(*c)] = 1;
    for (const char *c = "TtAmBbzZa"; *c; c++) t[static_cast<uint8_t>(*c)] = 2;
  }
} scan;

// True when fmt holds a directive of the framework's own. Every format passes
// here, so the "%" signs are found sixteen bytes at a time. The loads are
// aligned and never cross a page; the bytes past the terminator that they
// see are masked off, which the address sanitizer cannot know.
#if defined(__SSE2__)
__attribute__((no_sanitize_address)) bool has_ext(const char *fmt) {
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
      if (*p != '%') {
        while (scan.t[*p] == 1) p++;
        if (scan.t[*p] == 2) return true;
        if (*p == 0) return false;
      }
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
bool has_ext(const char *fmt) {
  for (const char *p = strchr(fmt, '%'); p; p = strchr(p, '%')) {
    p++;
    if (*p == '%') {
      p++;
      continue;
    }
    while (scan.t[static_cast<uint8_t>(*p)] == 1) p++;
    if (scan.t[static_cast<uint8_t>(*p)] == 2) return true;
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

// The directive's slice, NUL-terminated; "*" is dropped (never read here).
bool slice_of(const tf_spec &s, char *out, size_t size) {
  size_t n = 0;
  for (const char *p = s.start; p < s.end; p++) {
    if (*p == '*') continue;
    if (n + 1 >= size) return false;
    out[n++] = *p;
  }
  out[n] = '\0';
  return true;
}

bool plain_spec(const tf_spec &s) {
  return s.width < 0 && s.prec < 0 && !(s.flags & (TFF_ALT | TFF_ZERO | TFF_LEFT | TFF_STAR | TFF_SIGN));
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
void put_value(sink &o, const tf_spec &s, V v) {
  char slice[128];
  if (slice_of(s, slice, sizeof slice))
    o.printf1(slice, v);
  else
    o.put(s.start, s.end - s.start);
}

uint32_t take_u32(va_box &a) { return va_arg(*a.p, unsigned); }

void take_ext_value(va_box &a, uint8_t cls, zsock_fmt_value *v, zsock_fmt_value *v2) {
  switch (cls) {
    case TFX_DOUBLE: v->dbl = va_arg(*a.p, double); break;
    case TFX_POINTER: v->ptr = va_arg(*a.p, const void *); break;
    case TFX_U32_SECOND: case TFX_U32: case TFX_U32_ALT: v->u64 = take_u32(a); break;
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

void emit(sink &o, const tf_spec &s, va_box &a, int saved_errno, char *scratch) {
  size_t len = 0;
  switch (s.code) {
    case TFC_SHORT:
    case TFC_INT: {
      int v = va_arg(*a.p, int);
      if (s.code == TFC_SHORT) {  // "h" or "hh": the C library narrows
        put_value(o, s, v);
        return;
      }
      bool sgn = s.conv == 'd' || s.conv == 'i';
      uint64_t bits = sgn ? static_cast<uint64_t>(static_cast<int64_t>(v)) : static_cast<unsigned>(v);
      if (!fast_int(o, s, bits, sgn)) put_value(o, s, v);
      return;
    }
    case TFC_LONG: {
      long v = va_arg(*a.p, long);
      if (!fast_int(o, s, static_cast<uint64_t>(v), true)) put_value(o, s, v);
      return;
    }
    case TFC_LLONG: {
      long long v = va_arg(*a.p, long long);
      if (!fast_int(o, s, static_cast<uint64_t>(v), true)) put_value(o, s, v);
      return;
    }
    case TFC_DOUBLE: put_value(o, s, va_arg(*a.p, double)); return;
    case TFC_LDOUBLE: put_value(o, s, va_arg(*a.p, long double)); return;
    case TFC_STRING: {
      const char *v = va_arg(*a.p, const char *);
      if (v && plain_spec(s))
        o.put(v, strlen(v));
      else
        put_value(o, s, v);
      return;
    }
    case TFC_POINTER: put_value(o, s, va_arg(*a.p, void *)); return;
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
  const char *p;
  while (*(p = next_directive(lit)) != '\0') {
    put_literal(o, lit, p);
    tf_spec s;
    tf_parse(p, s);
    task_assert(nrec < TASK_FMT_MAX_RECORDS);
    nrec++;
    emit(o, s, a, saved_errno, scratch);
    lit = s.end;
  }
  put_literal(o, lit, p);
}

int clamp_stored(int n, size_t size) {
  if (n < 0) return 0;
  return static_cast<size_t>(n) < size ? n : static_cast<int>(size - 1);
}

}  // namespace

namespace {

int vformat(task_fmt_mode *mode, const char *fmt, va_list *app) {
  int saved_errno = mode->tfm_errno;
  va_box a{app};
  if (mode->tfm_mode == TASK_FMT_MODE_STREAM) {
    FILE *stream = static_cast<FILE *>(mode->tfm_dest);
    if (!has_ext(fmt)) return vfprintf(stream, fmt, *app);
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
  if (!has_ext(fmt)) return clamp_stored(vsnprintf(buf, size, fmt, *app), size);
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
