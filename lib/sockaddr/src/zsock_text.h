// Internal to the address library: digit writers shared by the family
// printers. They build text without printf: the printers are on the trace
// path of every packet.
#pragma once

#include <cstdint>
#include <cstring>

namespace zsock {

// Decimal text of 0..255, for dotted quads.
struct ByteText {
  uint8_t len;
  char s[3];
};
struct ByteTable {
  ByteText t[256];
};
inline constexpr ByteTable kByteText = [] {
  ByteTable bt{};
  for (int i = 0; i < 256; i++) {
    ByteText &e = bt.t[i];
    if (i >= 100) e = {3, {char('0' + i / 100), char('0' + i / 10 % 10), char('0' + i % 10)}};
    else if (i >= 10) e = {2, {char('0' + i / 10), char('0' + i % 10), 0}};
    else e = {1, {char('0' + i), 0, 0}};
  }
  return bt;
}();

// Writes the dotted quad of four bytes at p (at most 15 characters, no NUL);
// returns the end.
inline char *put_quad(char *p, const uint8_t b[4]) {
  for (int i = 0; i < 4; i++) {
    const ByteText &e = kByteText.t[b[i]];
    memcpy(p, e.s, 3);
    p += e.len;
    *p = '.';
    p += i < 3;
  }
  return p;
}

// Writes the decimal text of v before end; returns the start.
inline char *put_uint_back(char *end, uint64_t v) {
  do *--end = char('0' + v % 10);
  while (v /= 10);
  return end;
}

// Writes "+port"; returns the end.
inline char *put_plus_port(char *p, uint16_t port) {
  *p++ = '+';
  char d[8], *s = put_uint_back(d + sizeof d, port);
  size_t n = d + sizeof d - s;
  memcpy(p, s, n);
  return p + n;
}

// Order of two addresses of an INET-like family: another family by family
// index, as the generic order does; else the bytes from the offset over the
// shorter length, then the shorter first.
inline int cmp_shorter_first(const uint8_t *a, unsigned la, const uint8_t *b, unsigned lb, unsigned off) {
  if (a[1] != b[1]) return a[1] < b[1] ? -1 : 1;
  unsigned l = la < lb ? la : lb;
  if (l > off) {
    int c = memcmp(a + off, b + off, l - off);
    if (c) return c < 0 ? -1 : 1;
  }
  return la == lb ? 0 : la < lb ? -1 : 1;
}

// Copies n bytes of text into a caller's buffer of size bytes with a NUL;
// returns the length stored.
inline int put_text(char *dst, size_t size, const char *src, size_t n) {
  if (!size) return 0;
  if (n >= size) n = size - 1;
  memcpy(dst, src, n);
  dst[n] = 0;
  return static_cast<int>(n);
}

// Compares the first bits of two byte strings, unsigned; -1, 0 or 1.
inline int cmp_bits(const uint8_t *a, const uint8_t *b, unsigned bits) {
  unsigned whole = bits >> 3;
  int c = memcmp(a, b, whole);
  if (c) return c < 0 ? -1 : 1;
  if (bits & 7) {
    uint8_t m = static_cast<uint8_t>(0xff00u >> (bits & 7));
    uint8_t x = a[whole] & m, y = b[whole] & m;
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

// Fills a family's prebuilt masks: entry i has length offset + bytes(i),
// its family byte, and i leading one-bits from the offset.
inline void fill_masks(uint8_t *table, unsigned count, unsigned entry_size, unsigned gf, unsigned offset) {
  memset(table, 0, count * entry_size);
  for (unsigned bits = 0; bits < count; bits++) {
    uint8_t *m = table + bits * entry_size;
    m[0] = static_cast<uint8_t>(offset + ((bits + 7) >> 3));
    m[1] = static_cast<uint8_t>(gf);
    memset(m + offset, 0xff, bits >> 3);
    if (bits & 7) m[offset + (bits >> 3)] = static_cast<uint8_t>(0xff00u >> (bits & 7));
  }
}

// Parses a decimal prefix length 0..max; false on anything else.
inline bool parse_plen(const char *s, unsigned max, int *out) {
  if (!*s) return false;
  unsigned v = 0;
  for (; *s; s++) {
    if (*s < '0' || *s > '9') return false;
    v = v * 10 + (*s - '0');
    if (v > max) return false;
  }
  *out = static_cast<int>(v);
  return true;
}

// Length in bits of a contiguous mask (host order); -1 when not contiguous.
inline int contiguous_len(uint32_t mask) {
  int n = __builtin_popcount(mask);
  uint32_t want = n ? ~0u << (32 - n) : 0;
  return mask == want ? n : -1;
}

}  // namespace zsock
