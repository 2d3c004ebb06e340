// Internal to the address library: the text of the fields that the routing
// families are made of (numbers, IPv4 and IPv6 addresses, MACs, route
// distinguishers, Ethernet segment identifiers, dotted hex), written into a
// bounded writer and read back by a cursor. Every printer of these families
// writes through Out, so that a short buffer cuts the text and never
// overruns; every parser reads through these, so that what prints parses.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zsock {

// Appends text to a caller's buffer of size bytes, always terminated; what
// does not fit is dropped. len() is what was kept.
struct Out {
  char *buf;
  size_t size;
  size_t n = 0;
  Out(char *b, size_t s) : buf(b), size(s) {
    if (size) buf[0] = 0;
  }
  void put(const char *s, size_t k);
  void str(const char *s);
  void ch(char c) { put(&c, 1); }
  void u(uint64_t v);
  void hex(uint64_t v);  // lower case, no leading zeros
  void hex2(uint8_t v);  // two digits
  void v4(const uint8_t b[4]);
  void v6(const uint8_t b[16]);
  void mac(const uint8_t b[6], bool short_form);  // "00:11:.." or ether_ntoa's "0:11:.."
  void rd(const uint8_t b[8]);
  void esi(const uint8_t b[10]);
  void dotted_hex(const uint8_t *b, size_t k);  // "49.0001.0203"
  int len() const { return static_cast<int>(n); }
};

// Big-endian loads and stores of n bytes (1 to 8).
uint64_t load_be(const uint8_t *p, unsigned n);
void store_be(uint8_t *p, unsigned n, uint64_t v);

// Readers: each consumes its field at p and advances p; false (p unchanged
// meaning nothing) when the text there is not the field. A field ends where
// its own syntax ends; the caller checks the separator after it.
bool read_u(const char *&p, uint64_t max, uint64_t *v);  // decimal, no sign, no leading '+'
bool read_v4(const char *&p, uint8_t out[4]);            // strict dotted quad
// An IPv6 address: the longest run of hex digits, ':' and '.' that inet_pton
// takes.
bool read_v6(const char *&p, uint8_t out[16]);
bool read_mac(const char *&p, uint8_t out[6], bool short_form);
bool read_rd(const char *&p, uint8_t out[8]);
bool read_esi(const char *&p, uint8_t out[10]);
// Dotted hex of at most max bytes; k receives the count.
bool read_dotted_hex(const char *&p, uint8_t *out, size_t max, size_t *k);
bool read_word(const char *&p, const char *word);  // a literal

}  // namespace zsock
