// The TLV walk and every reader on any bytes. The first byte picks the form:
// even, the bytes are a statistics message (parts found, then the walk of its
// marker's buffer); odd, a bare TLV buffer. Every pointer the walk enters
// must lie inside the input, with its whole value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "stats/ifstat.h"

namespace {

void inside(const uint8_t *p, uint32_t n, const uint8_t *lo, size_t size) {
  if (p && (p < lo || p + n > lo + size)) {
    fprintf(stderr, "an entry points outside the input\n");
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 1 << 20) return 0;
  const uint8_t *b = data + 1;
  uint32_t n = static_cast<uint32_t>(size - 1);
  gif_msg m;
  gif_ifd p;
  if (data[0] & 1)
    gif_ifd_parse_tlv(&p, nullptr, n, b);
  else if (gif_ifd_parse(&p, &m, b, n) != 0)
    return 0;
  for (uint32_t t = 0; t < GIF_TLV_COUNT; t++) inside(p.tlv[t], p.tlv_len[t], b, n);
  inside(p.ether_mac, p.ether_mac_len, b, n);
  free(gif_ifd_traffic(&p));
  free(gif_abs_ifd_traffic(&p));
  free(gif_ifd_errors(&p));
  free(gif_abs_ifd_errors(&p));
  free(gif_ifl_local_traffic(&p));
  free(gif_abs_ifl_local_traffic(&p));
  free(gif_ifl_remote_traffic(&p));
  free(gif_abs_ifl_remote_traffic(&p));
  free(gif_ifd_queue(&p));
  free(gif_abs_ifd_queue(&p));
  free(gif_ifl_queue(&p));
  free(gif_abs_ifl_queue(&p));
  free(gif_abs_gether_info(&p));
  return 0;
}
