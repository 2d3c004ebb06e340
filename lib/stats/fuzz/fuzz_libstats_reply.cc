// libstats' reply reader on any bytes: the payload of a message from cntd,
// through libstats_process_msg (head, TLVs, conversion, the pack of an
// interface set's statistics message), which must then read back with the
// gif_* readers. Requests of ids 0 to 3 await their reply. Trace-on messages
// are left out: they open files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ipc/ipc_pipe.h"
#include "stats/ifstat.h"
#include "stats/libstats.h"

namespace {

void on_set(libstats_session *, int status, uint32_t, uint32_t, const rts_ifstats_msg *m, void *) {
  if (status == 0 && !m) abort();
  if (!m) return;
  gif_msg msg;
  gif_ifd parsed;
  if (gif_ifd_parse(&parsed, &msg, m, m->hdr.length) != 0) {
    fprintf(stderr, "a packed message the readers refuse\n");
    abort();
  }
  free(gif_ifl_local_traffic(&parsed));
  free(gif_ifl_queue(&parsed));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > LS_MSG_MAX) return 0;
  if (size >= 12 && ls_get32(data + 8) == LS_TRACE_ON) return 0;
  static libstats_session *s = [] {
    libstats_set_log_hook([](int, const char *) {});
    libstats_session *n = libstats_session_create("fuzz", nullptr);
    n->cb.iflsetstats = on_set;
    n->cb.iflstats = on_set;
    return n;
  }();
  auto *fake = reinterpret_cast<ipcconn_client *>(s);  // compared, never used
  s->ipcconn_client = fake;
  memset(s->pending, 0, sizeof s->pending);
  for (uint32_t id = 0; id < 4; id++) s->pending[id] = libstats_pending{id, id, 0, nullptr, nullptr, 1};
  s->n_pending = 4;
  std::vector<uint8_t> buf(IPC_MSG_HDR_LEN + size);
  ipc_msg h{0x417, 5, static_cast<uint16_t>(size), 1, 0};
  memcpy(buf.data(), &h, sizeof h);
  memcpy(buf.data() + IPC_MSG_HDR_LEN, data, size);
  libstats_process_msg(fake, nullptr, 0, reinterpret_cast<ipc_msg *>(buf.data()), s);
  libstats_process_mobilestats_msg(s);
  return 0;
}
