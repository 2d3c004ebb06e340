// The responder's two inputs on any bytes. First byte even: the rest is a
// datagram for the request parser (its reads must stay inside the request
// and the reply buffer). Odd: the rest is a stream of 12-byte bridge-domain
// messages (operation, flags, routing table, index, VNI), after which every
// table entry must still lead back to itself through both tables.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "oam/oam.h"
#include "platform/path.h"
#include "tunechod.h"

namespace {

// A learning daemon that answers every question, so known VNIs go the whole way.
void serve(int listener) {
  for (;;) {
    int c = accept(listener, nullptr, nullptr);
    if (c < 0) continue;
    char buf[1024];
    if (read(c, buf, sizeof buf) > 0) send(c, "bd/7", 5, MSG_NOSIGNAL);
    close(c);
  }
}

void check_tables() {
  uint32_t rtb_key = 0;
  bool first = true;
  while (rtb_entry *rtb = static_cast<rtb_entry *>(
             sparse_table16_next(tunechod_app.rtb_tbl, first ? nullptr : &rtb_key, &rtb_key))) {
    first = false;
    uint32_t bd_key = 0;
    bool bfirst = true;
    while (bd_data *bd = static_cast<bd_data *>(sparse_table16_next(rtb->bd_tbl, bfirst ? nullptr : &bd_key, &bd_key))) {
      bfirst = false;
      uint32_t vni = bd->vni;
      if (bd->bd_id != bd_key || sparse_table32_lookup(rtb->vni_tbl, &vni) != bd) abort();
    }
  }
}

uint32_t get(const uint8_t *p, int n) {
  uint32_t v = 0;
  for (int i = 0; i < n; i++) v = v << 8 | p[i];
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  char tmpl[] = "/tmp/fuzzoamXXXXXX";
  std::string root = mkdtemp(tmpl);
  tvx_path_set_root(root.c_str());
  tvx_mkdirs((root + "/var/run").c_str(), 0755);
  int ls = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tvx_path(FDBLEARND_PATH).c_str());
  if (bind(ls, reinterpret_cast<sockaddr *>(&sun), sizeof sun) != 0 || listen(ls, 64) != 0) abort();
  std::thread(serve, ls).detach();
  tunechod_tables_init();
  tunechod_app.raw_sock = -1;  // replies are built, and their send fails
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  if (!(data[0] & 1)) {
    sockaddr_in peer{}, local{};
    peer.sin_family = local.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(0x7F000001);
    local.sin_addr.s_addr = htonl(0x7F000002);
    // Table 0 walks, 0xFFFF has no information, others are looked up.
    const uint32_t rtb = data[0] >> 1 & 1 ? 0 : (data[0] >> 2) * 3;
    tunechod_parse_oam_packet(data + 1, static_cast<uint32_t>(size - 1), -1, &peer, &local, rtb, 0);
    return 0;
  }
  for (size_t at = 1; at + 12 <= size; at += 12) {
    const uint8_t *p = data + at;
    rts_bd_msg m{};
    m.hdr.operation = p[0] % 8;
    m.cfg_flags = p[1] & 1 ? uint64_t{TUNECHOD_BD_VXLAN} : 0;
    m.rtb_id = static_cast<uint16_t>(get(p + 2, 2) % 8);
    m.bdm_index = static_cast<uint16_t>(get(p + 4, 2));
    m.vnid = get(p + 6, 3);
    m.vlan.vlan = static_cast<uint16_t>(get(p + 9, 2));
    tunechod_rtsock_decode_bd(&m);
  }
  check_tables();
  return 0;
}
