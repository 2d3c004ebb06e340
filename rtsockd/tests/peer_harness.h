// The real rtsockd process for tests: started on a temporary socket path,
// ready when it says it serves; its admin socket; route-socket handles and
// bare clients.
#pragma once

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fake_peer.h"  // LogCapture
#include "platform/compat.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"
#include "rtsockd_process.h"

namespace rtsockd_test {

// rtsockd started on a state file (the sample by default).
class Peer : public RtsockdProcess {
 public:
  explicit Peer(const char *state = SAMPLE_STATE, const Options &o = Options{}) : RtsockdProcess(state, o) {}
};

struct Handle {
  rtslib_cookie *c;
  explicit Handle(uint8_t sender = 131) : c(rtslib_open(sender)) {}
  ~Handle() { rtslib_close(c); }
  operator rtslib_cookie *() const { return c; }
  void listen(uint32_t w0, uint32_t w1) {
    uint32_t mask[2] = {w0, w1};
    ASSERT_EQ(rts_lower()->lo_setopt(nullptr, c->fd, RTS_SOL, RTS_OPT_LISTEN_MASK, mask, 8), 0);
  }
};

inline int bd_request(rtslib_cookie *c, uint8_t op, uint16_t index, rts_bd_msg **out) {
  rts_bd_msg req{};
  req.hdr.version = 98;
  req.hdr.type = RTS_T_BRIDGE_DOMAIN;
  req.hdr.operation = op;
  req.hdr.size = 200;
  req.hdr.seq = c->seq++;
  req.hdr.sender = 131;
  req.bdm_index = index;
  int err = rtslib_msg_write_idl(c, RTS_T_BRIDGE_DOMAIN, &req, nullptr);
  if (err || !out) return err;
  void *m;
  err = rtslib_msg_read_idl(c, &m);
  *out = static_cast<rts_bd_msg *>(m);
  return err;
}

// A bare SEQPACKET client: what misbehaving programs do.
inline int raw_client(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  strlcpy(sa.sun_path, path.c_str(), sizeof sa.sun_path);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
  return fd;
}

}  // namespace rtsockd_test
