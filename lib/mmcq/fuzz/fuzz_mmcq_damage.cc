// A queue whose header the input damages between two runs: a fresh queue
// holding wrapped messages is written, then the input's patches land on its
// header behind every mapping's back. Opening it again (receiver, then
// sender) must never end the process: the header comes out sane, a growth's
// journal finished or dropped, and sends into it succeed or find it full.
//
// Input: records of 6 bytes: a 32-bit slot of the 0x84-byte header (the
// first byte, modulo 33), how to change it (the second: 0 set, 1 add, 2 xor,
// modulo 3) and a 32-bit value, little-endian.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mmcq/mmcq.h"
#include "platform/path.h"
#include "../../mmf/fuzz/fuzz_root.h"

namespace {

mmcq *receiver(void) { return mmcq_receiver_create("fz", nullptr, 300, 8192, 65536, 0, nullptr, nullptr, nullptr); }
mmcq *sender(void) { return mmcq_sender_create("fz", nullptr, 300, 8192, 65536, 0, nullptr, nullptr); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mmf_fuzz_root("mmcq_fuzz");
  mmcq_unlink("fz");
  mmcq *r = receiver(), *s = sender();
  if (!r || !s) abort();
  char msg[300], buf[300];
  int st;
  // Wrapped: put below take, with a mark at the end.
  for (int i = 0; i < 14; i++) {
    memset(msg, 'a' + i, sizeof msg);
    if (mmcq_send(s, msg, 250) != MMCQ_SUCCESS) abort();
    if (i < 10 && mmcq_get_next(r, sizeof buf, buf, &st) != 250) abort();
  }
  uint32_t hdr[MMCQ_HEADER_SIZE / 4];
  memcpy(hdr, r->q, sizeof hdr);
  mmcq_delete(s);
  mmcq_delete(r);

  for (size_t i = 0; i + 6 <= size; i += 6) {
    uint32_t slot = data[i] % (MMCQ_HEADER_SIZE / 4), v;
    memcpy(&v, data + i + 2, 4);
    switch (data[i + 1] % 3) {
      case 0: hdr[slot] = v; break;
      case 1: hdr[slot] += v; break;
      default: hdr[slot] ^= v; break;
    }
  }
  std::string path = tvx_path("/mfs/var/mmcq/fz");
  FILE *f = fopen(path.c_str(), "r+");
  if (!f || fseek(f, MMF_HEADER_SIZE, SEEK_SET) != 0 || fwrite(hdr, sizeof hdr, 1, f) != 1) abort();
  fclose(f);

  r = receiver();
  if (!r) abort();
  if (!mmcq_header_sane(r->q, static_cast<uint32_t>(getpagesize())) || r->q->grow_new_max != 0) abort();
  if (r->q->receiver_pid != static_cast<uint32_t>(getpid())) abort();
  s = sender();
  if (!s) abort();
  memset(msg, 'z', sizeof msg);
  for (int i = 0; i < 300; i++) {
    uint32_t len = 1 + (i * 37) % r->q->max_msg_bytes;
    if (len > sizeof msg) len = sizeof msg;
    st = mmcq_send(s, msg, len);
    if (st == MMCQ_Q_FULL) break;
    if (st != MMCQ_SUCCESS && st != MMCQ_SEND_DISABLED) abort();
  }
  mmcq_delete(s);
  mmcq_delete(r);
  return 0;
}
