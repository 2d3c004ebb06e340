// The filter compiler on any text: it returns 0, -1 or -2 with a position
// inside the text, and a program it makes passes the checker at its own
// length and runs on a record of every type.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_filter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  uint8_t buf[RTS_FILTER_MAX + 1];
  buf[RTS_FILTER_MAX] = 0xA5;  // a guard behind the room given
  rts_filter_error err;
  int r = rts_filter_compile(reinterpret_cast<const char *>(data), size, buf, RTS_FILTER_MAX, &err);
  if (buf[RTS_FILTER_MAX] != 0xA5) abort();
  if (r != 0) {
    if ((r != -1 && r != -2) || err.offset > size || err.line < 1 || err.column < 1 ||
        !memchr(err.message, 0, sizeof err.message))
      abort();
    return 0;
  }
  uint16_t len;
  memcpy(&len, buf + 4, 2);
  if (rts_filter_check(buf, RTS_FILTER_MAX) != len) {
    fprintf(stderr, "compiled program of %u bytes refused by the checker\n", len);
    abort();
  }
  // Zeroed records: null blobs and addresses must not be followed.
  std::vector<uint8_t> rec(4096, 0);
  for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++) {
    if (!rts_type_struct(t)) continue;
    int v = rts_filter_eval(buf, t, rec.data());
    if (v != 0 && v != 1) abort();
  }
  return 0;
}
