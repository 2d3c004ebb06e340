// Text of the fields the routing families are made of: writers and readers.
#include "zsock_fields.h"

#include <arpa/inet.h>

#include <cstring>

#include "zsock_text.h"

namespace zsock {

namespace {
constexpr char kHex[] = "0123456789abcdef";
int hexval(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

void Out::put(const char *s, size_t k) {
  if (!size) return;
  size_t room = size - 1 - n;
  if (k > room) k = room;
  memcpy(buf + n, s, k);
  n += k;
  buf[n] = 0;
}

void Out::str(const char *s) { put(s, strlen(s)); }

void Out::u(uint64_t v) {
  char d[24], *s = put_uint_back(d + sizeof d, v);
  put(s, d + sizeof d - s);
}

void Out::hex(uint64_t v) {
  char d[20], *e = d + sizeof d, *s = e;
  do *--s = kHex[v & 15];
  while (v >>= 4);
  put(s, e - s);
}

void Out::hex2(uint8_t v) {
  char d[2] = {kHex[v >> 4], kHex[v & 15]};
  put(d, 2);
}

void Out::v4(const uint8_t b[4]) {
  char d[16];
  put(d, put_quad(d, b) - d);
}

void Out::v6(const uint8_t b[16]) {
  char d[INET6_ADDRSTRLEN];
  if (inet_ntop(AF_INET6, b, d, sizeof d)) str(d);
}

void Out::mac(const uint8_t b[6], bool short_form) {
  char d[18], *p = d;
  for (int i = 0; i < 6; i++) {
    if (!short_form || b[i] >= 16) *p++ = kHex[b[i] >> 4];
    *p++ = kHex[b[i] & 15];
    *p++ = ':';
  }
  put(d, p - d - 1);
}

void Out::rd(const uint8_t b[8]) {
  unsigned type = load_be(b, 2);
  if (type == 0) {
    u(load_be(b + 2, 2));
    ch(':');
    u(load_be(b + 4, 4));
  } else if (type == 1) {
    v4(b + 2);
    ch(':');
    u(load_be(b + 6, 2));
  } else if (type == 2) {
    u(load_be(b + 2, 4));
    put("L:", 2);
    u(load_be(b + 6, 2));
  } else {
    u(type);
    put(":0x", 3);
    for (int i = 2; i < 8; i++) hex2(b[i]);
  }
}

void Out::esi(const uint8_t b[10]) {
  for (int i = 0; i < 10; i++) {
    if (i) ch(':');
    hex2(b[i]);
  }
}

void Out::dotted_hex(const uint8_t *b, size_t k) {
  if (!k) {
    ch('-');
    return;
  }
  hex2(b[0]);
  for (size_t i = 1; i < k; i++) {
    if (i % 2) ch('.');
    hex2(b[i]);
  }
}

uint64_t load_be(const uint8_t *p, unsigned n) {
  uint64_t v = 0;
  for (unsigned i = 0; i < n; i++) v = v << 8 | p[i];
  return v;
}

void store_be(uint8_t *p, unsigned n, uint64_t v) {
  for (unsigned i = n; i-- > 0; v >>= 8) p[i] = static_cast<uint8_t>(v);
}

bool read_u(const char *&p, uint64_t max, uint64_t *v) {
  const char *s = p;
  uint64_t x = 0;
  if (*s < '0' || *s > '9') return false;
  for (; *s >= '0' && *s <= '9'; s++) {
    unsigned d = *s - '0';
    if (x > max / 10 || (x == max / 10 && d > max % 10)) return false;
    x = x * 10 + d;
  }
  *v = x;
  p = s;
  return true;
}

bool read_v4(const char *&p, uint8_t out[4]) {
  const char *s = p;
  for (int i = 0; i < 4; i++) {
    if (i && *s++ != '.') return false;
    const char *start = s;
    uint64_t v;
    if (!read_u(s, 255, &v) || s - start > 3) return false;
    out[i] = static_cast<uint8_t>(v);
  }
  p = s;
  return true;
}

bool read_v6(const char *&p, uint8_t out[16]) {
  char d[INET6_ADDRSTRLEN];
  size_t k = 0;
  while (k < sizeof d - 1 && (hexval(p[k]) >= 0 || p[k] == ':' || p[k] == '.')) k++;
  if (!k || k == sizeof d - 1) return false;
  memcpy(d, p, k);
  d[k] = 0;
  if (inet_pton(AF_INET6, d, out) != 1) return false;
  p += k;
  return true;
}

bool read_mac(const char *&p, uint8_t out[6], bool short_form) {
  const char *s = p;
  for (int i = 0; i < 6; i++) {
    if (i && *s++ != ':') return false;
    // The second digit is read only after a first one: the text may end there.
    int hi = hexval(s[0]), lo = hi >= 0 ? hexval(s[1]) : -1;
    if (hi < 0) return false;
    if (lo >= 0) {
      out[i] = static_cast<uint8_t>(hi << 4 | lo);
      s += 2;
    } else {
      if (!short_form) return false;
      out[i] = static_cast<uint8_t>(hi);
      s += 1;
    }
  }
  p = s;
  return true;
}

bool read_rd(const char *&p, uint8_t out[8]) {
  const char *s = p;
  uint64_t a, n;
  uint8_t ip[4];
  memset(out, 0, 8);
  if (read_v4(s, ip) && *s == ':') {
    s++;
    if (!read_u(s, 0xffff, &n)) return false;
    store_be(out, 2, 1);
    memcpy(out + 2, ip, 4);
    store_be(out + 6, 2, n);
    p = s;
    return true;
  }
  s = p;
  if (!read_u(s, 0xffffffff, &a)) return false;
  if (*s == 'L' && s[1] == ':') {
    s += 2;
    if (!read_u(s, 0xffff, &n)) return false;
    store_be(out, 2, 2);
    store_be(out + 2, 4, a);
    store_be(out + 6, 2, n);
  } else if (*s == ':' && s[1] == '0' && s[2] == 'x') {
    // Any other type: the type, then its six value bytes in hex.
    if (a < 3 || a > 0xffff) return false;
    s += 3;
    store_be(out, 2, a);
    for (int i = 0; i < 6; i++, s += 2) {
      int hi = hexval(s[0]), lo = hi >= 0 ? hexval(s[1]) : -1;
      if (lo < 0) return false;
      out[2 + i] = static_cast<uint8_t>(hi << 4 | lo);
    }
  } else if (*s == ':') {
    s++;
    if (a > 0xffff || !read_u(s, 0xffffffff, &n)) return false;
    store_be(out + 2, 2, a);
    store_be(out + 4, 4, n);
  } else {
    return false;
  }
  p = s;
  return true;
}

bool read_esi(const char *&p, uint8_t out[10]) {
  const char *s = p;
  for (int i = 0; i < 10; i++, s += 2) {
    if (i && *s++ != ':') return false;
    int hi = hexval(s[0]), lo = hi >= 0 ? hexval(s[1]) : -1;
    if (lo < 0) return false;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  p = s;
  return true;
}

bool read_dotted_hex(const char *&p, uint8_t *out, size_t max, size_t *k) {
  const char *s = p;
  if (*s == '-') {
    *k = 0;
    p = s + 1;
    return true;
  }
  size_t n = 0;
  for (;;) {
    size_t digits = 0;
    while (hexval(s[digits]) >= 0) digits++;
    if (!digits || digits % 2 || n + digits / 2 > max) return false;
    for (size_t i = 0; i < digits; i += 2) out[n++] = static_cast<uint8_t>(hexval(s[i]) << 4 | hexval(s[i + 1]));
    s += digits;
    if (*s != '.' || hexval(s[1]) < 0) break;
    s++;
  }
  *k = n;
  p = s;
  return true;
}

bool read_word(const char *&p, const char *word) {
  size_t n = strlen(word);
  if (strncmp(p, word, n) != 0) return false;
  p += n;
  return true;
}

}  // namespace zsock
