// The filter checker and evaluator on any bytes, as the route-socket peer
// gets them from a client: never a read outside the program or the record,
// and the evaluator refuses what the checker refuses.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_filter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The program in a block of its own size, so that a read past it is caught.
  std::vector<uint8_t> prog(data, data + size);
  int n = rts_filter_check(prog.data(), prog.size());
  if (n > static_cast<int>(size)) abort();
  // The evaluator reads as far as the program's own length: a peer hands it
  // only programs the checker passed, kept at that length; a block of
  // RTS_FILTER_MAX bytes may hold anything.
  if (n < 0 && size < RTS_FILTER_MAX) return 0;
  if (n >= 0) prog.resize(static_cast<size_t>(n));
  std::vector<uint8_t> rec(4096, 0);
  for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++) {
    if (!rts_type_struct(t)) continue;
    int v = rts_filter_eval(prog.data(), t, rec.data());
    if ((n < 0) != (v < 0)) abort();
  }
  return 0;
}
