// The text dump on every record that the decoders can make of any bytes: the
// line is a NUL-terminated string of the length returned, in a buffer of any
// size, or the error line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rtslib.h"

namespace {

void noop_log(rtslib_cookie *, void *, int, const char *) {}

void check_line(const void *record, size_t room) {
  std::vector<char> buf(room + 1, '\x7f');  // one guard byte behind
  int n = rtslib_format_output(buf.data(), room, record);
  size_t len = strnlen(buf.data(), room);
  if (len == room) {
    fprintf(stderr, "line not terminated in %zu bytes\n", room);
    abort();
  }
  if (buf[room] != '\x7f') {
    fprintf(stderr, "line written past %zu bytes\n", room);
    abort();
  }
  if (n >= 0 && static_cast<size_t>(n) != len) {
    fprintf(stderr, "returned %d for a line of %zu\n", n, len);
    abort();
  }
  if (n < 0 && strncmp(buf.data(), "rtslib_format_output error: ", len < 28 ? len : 28) != 0) {
    fprintf(stderr, "overflow without the error line: %s\n", buf.data());
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  rtslib_set_default_log(noop_log, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1u << 20)) return 0;
  void *msg = nullptr;
  if (rtslib_msg_decode(nullptr, data, static_cast<uint32_t>(size), &msg) != 0) return 0;
  check_line(msg, 4096);
  check_line(msg, 1 + size % 97);  // short lines end in the error line
  check_line(msg, 1);
  rtslib_msg_idl_release(nullptr, msg);
  return 0;
}
