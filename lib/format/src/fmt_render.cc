// Texts of the framework's directives: times, binary, AS numbers, socket
// addresses and extension letters, inside a format or one value at a time.
#include <cstring>
#include <ctime>

#include "fmt_internal.h"
#include "format/task_assert.h"

using namespace task_fmt_lang;

namespace tf {

size_t put_text(char *buf, size_t size, const char *text, size_t len) {
  if (len > size - 1) len = size - 1;
  memmove(buf, text, len);
  buf[len] = '\0';
  return len;
}

size_t time_text(char *buf, size_t size, int64_t sec, int64_t usec, uint32_t flags) {
  if (usec < 0 || usec > 999999) {
    sec += usec / 1000000;
    usec %= 1000000;
    if (usec < 0) {
      usec += 1000000;
      sec--;
    }
  }
  if (!(flags & TFF_ALT)) {
    // An internal time: the second of the day in wall-clock time.
    int64_t osec;
    int32_t ousec;
    time_offset(&osec, &ousec);
    sec += osec;
    usec += ousec;
    if (usec > 999999) {
      usec -= 1000000;
      sec++;
    }
    time_t t = static_cast<time_t>(sec);
    struct tm tm;
    if (!localtime_r(&t, &tm)) return put_text(buf, size, "NaN", 3);
    sec = tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec;
  }
  bool neg = sec < 0;
  if (neg) {
    sec = ~sec;
    usec = 1000000 - usec;
    if (usec > 999999) {
      usec -= 1000000;
      sec++;
    }
  }
  bool zero = flags & TFF_ZERO;
  char tmp[64];
  char *p = tmp + sizeof tmp;
  if (usec) {
    for (int i = 0; i < 6; i++) {
      *--p = static_cast<char>('0' + usec % 10);
      usec /= 10;
    }
    *--p = '.';
  }
  uint64_t v = static_cast<uint64_t>(sec);
  unsigned part = v % 60;
  v /= 60;
  *--p = static_cast<char>('0' + part % 10);
  if (part >= 10 || v || zero) *--p = static_cast<char>('0' + part / 10);
  if (v || zero) {
    *--p = ':';
    part = v % 60;
    v /= 60;
    *--p = static_cast<char>('0' + part % 10);
    if (part >= 10 || v || zero) *--p = static_cast<char>('0' + part / 10);
    if (v || zero) {
      *--p = ':';
      part = v % 24;
      v /= 24;
      *--p = static_cast<char>('0' + part % 10);
      if (part >= 10 || zero) *--p = static_cast<char>('0' + part / 10);
      if (v) {
        *--p = ' ';
        *--p = 'd';
        *--p = static_cast<char>('0' + v % 7);
        v /= 7;
        if (v) {
          *--p = 'w';
          do {
            *--p = static_cast<char>('0' + v % 10);
            v /= 10;
          } while (v);
        }
      }
    }
  }
  if (neg) *--p = '-';
  return put_text(buf, size, p, tmp + sizeof tmp - p);
}

size_t binary_text(char *buf, size_t size, uint64_t value, bool bars) {
  const char one = bars ? '|' : '1';
  const char zero = bars ? '_' : '0';
  char tmp[64];
  char *p = tmp + sizeof tmp;
  do {
    *--p = (value & 1) ? one : zero;
    value >>= 1;
  } while (value);
  return put_text(buf, size, p, tmp + sizeof tmp - p);
}

static char *utoa_back(char *end, uint32_t v) {
  do {
    *--end = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  return end;
}

size_t asn_text(char *buf, size_t size, uint32_t as) {
  char tmp[24];
  char *p = tmp + sizeof tmp;
  if (asdot() && as > 65535) {
    p = utoa_back(p, as & 0xffff);
    *--p = '.';
    p = utoa_back(p, as >> 16);
  } else {
    p = utoa_back(p, as);
  }
  return put_text(buf, size, p, tmp + sizeof tmp - p);
}

size_t sockaddr_text(char *buf, size_t size, const zsockaddr_t *addr, int alt) {
  if (!addr) return put_text(buf, size, "zero-len", 8);
  unsigned gf_max_safe = zsock_gf_max();
  task_assert(socktype(addr) < gf_max_safe);
  if (socklen(addr) == 0) return put_text(buf, size, "zero-len", 8);
  zsock_printer_fn printer = zsock_printer(socktype(addr));
  if (!printer) return put_text(buf, size, "Func Null", 9);
  int n = printer(buf, size, addr, alt);
  if (n < 0) return put_text(buf, size, "NaN", 3);
  size_t len = static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
  buf[len] = '\0';
  return len;
}

const char *ext_text(char *buf, size_t size, int letter, const zsock_fmt_value *values, uint32_t flags,
                     size_t *len) {
  if (letter == 'T') {
    *len = time_text(buf, size, static_cast<int32_t>(values[0].u32), static_cast<int32_t>(values[1].u32),
                     flags | TFF_ZTIME);
    return buf;
  }
  const char *text = nullptr;
  if (letter >= 'a' && letter <= 'z') {
    const ext_row &r = ext_row_of(letter);
    if (!r.tfe_render) {
      text = "Func Null";
    } else {
      buf[0] = '\0';
      text = r.tfe_render(buf, size - 1, values, letter);
      if (!text) text = "NaN";
    }
  } else {
    text = "Func Null";
  }
  *len = strlen(text);
  return text;
}

}  // namespace tf

extern "C" {

char *task_fmt_one(char *buf, size_t size, int directive, unsigned flag, uint64_t value, uint64_t value2) {
  if (size == 0) return buf;
  switch (directive) {
    case 'a': tf::asn_text(buf, size, static_cast<uint32_t>(value)); break;
    case 't': tf::time_text(buf, size, static_cast<int64_t>(value), static_cast<int64_t>(value2), flag); break;
    case 'T': tf::time_text(buf, size, static_cast<int64_t>(value), 0, flag); break;
    case 'B': tf::binary_text(buf, size, value, true); break;
    case 'b': tf::binary_text(buf, size, value, false); break;
    default: buf[0] = '\0'; break;
  }
  return buf;
}

char *task_sockaddr_text(char *buf, size_t size, int alt, const zsockaddr_t *addr) {
  if (size == 0) return buf;
  buf[0] = '\0';
  if (!addr || socktype(addr) >= zsock_gf_max()) return buf;
  zsock_printer_fn printer = zsock_printer(socktype(addr));
  if (!printer) return buf;
  int n = printer(buf, size, addr, alt);
  size_t len = n < 0 ? 0 : static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
  buf[len] = '\0';
  return buf;
}

}  // extern "C"
