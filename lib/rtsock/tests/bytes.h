// Builds expected wire bytes field by field, apart from the codec under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

struct Bytes {
  std::vector<uint8_t> v;
  Bytes &raw(const void *p, size_t n) {
    auto *b = static_cast<const uint8_t *>(p);
    v.insert(v.end(), b, b + n);
    return *this;
  }
  template <class T>
  Bytes &num(T x) { return raw(&x, sizeof x); }
  Bytes &u8(uint8_t x) { return num(x); }
  Bytes &u16(uint16_t x) { return num(x); }
  Bytes &u32(uint32_t x) { return num(x); }
  Bytes &u64(uint64_t x) { return num(x); }
  Bytes &pad(size_t a) {
    while (v.size() % a) v.push_back(0);
    return *this;
  }
  Bytes &str(const char *s, size_t n) { return raw(s, n); }
  // One TLV attribute, padded to 4.
  Bytes &tlv(uint32_t tag, const std::vector<uint8_t> &value) {
    u32(tag).u32(static_cast<uint32_t>(value.size())).raw(value.data(), value.size());
    return pad(4);
  }
  template <class T>
  Bytes &tlvn(uint32_t tag, T x) { return tlv(tag, Bytes().num(x).v); }
  size_t size() const { return v.size(); }
};

inline std::string hex(const std::vector<uint8_t> &v) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (uint8_t b : v) {
    s += d[b >> 4];
    s += d[b & 15];
  }
  return s;
}
