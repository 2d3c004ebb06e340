#include "responder_fixture.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "oam/oam.h"
#include "platform/path.h"

uint16_t get16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t get32(const uint8_t *p) { return static_cast<uint32_t>(get16(p)) << 16 | get16(p + 2); }

namespace {

bool lo_up() {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq ifr{};
  strcpy(ifr.ifr_name, "lo");
  bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
  ifr.ifr_flags |= IFF_UP;
  ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
  close(s);
  return ok;
}

pid_t spawn(std::vector<std::string> argv, const std::string &root) {
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a killed test leaves no peer behind
    setenv("TAVOX_ROOT", root.c_str(), 1);
    std::vector<char *> args;
    for (auto &a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// Ready once a connection to the socket is accepted (the file appears at
// bind, before listen).
bool connectable(const std::string &path, int type) {
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  sockaddr_un sun{};
  sun.sun_family = AF_UNIX;
  snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path.c_str());
  bool ok = connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) == 0;
  close(fd);
  return ok;
}

void wait_for(const std::string &path, int type) {
  for (int i = 0; i < 5000 && !connectable(path, type); i++) usleep(1000);
}

}  // namespace

void Responder::SetUp() {
  if (getuid() != 0) GTEST_SKIP() << "needs root for a private network namespace and raw sockets";
  ASSERT_EQ(unshare(CLONE_NEWNET), 0);
  ASSERT_TRUE(lo_up());
  Tunechod::SetUp();
  raw_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
  ASSERT_GT(raw_, 0);
  int one = 1;
  setsockopt(raw_, IPPROTO_IP, IP_HDRINCL, &one, sizeof one);
  tunechod_app.raw_sock = raw_;
  sniff_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP);
  ASSERT_GT(sniff_, 0);
  fdblearnd_timeout_ms = 2000;
}

void Responder::TearDown() {
  if (tunechod_app.rts_sync_cookie) rtslib_close(tunechod_app.rts_sync_cookie);
  tunechod_app.rts_sync_cookie = nullptr;
  for (pid_t p : children_) {
    kill(p, SIGTERM);
    waitpid(p, nullptr, 0);
  }
  if (raw_ >= 0) close(raw_);
  if (sniff_ >= 0) close(sniff_);
  if (!root_.empty()) Tunechod::TearDown();
}

void Responder::start_rtsockd(const std::string &state) {
  const std::string file = root_ + "/rtsockd.state", sock = root_ + "/rtsock";
  std::ofstream(file) << state;
  children_.push_back(spawn({RTSOCKD_BIN, "-f", file, "-s", sock}, root_));
  wait_for(sock, SOCK_SEQPACKET);
  setenv("RTSOCK_PATH", sock.c_str(), 1);
  tunechod_app.rts_sync_cookie = rtslib_open(TUNECHOD_SENDER_ID);
  ASSERT_NE(tunechod_app.rts_sync_cookie, nullptr);
}

void Responder::start_fdblearnd(const std::string &state) {
  const std::string file = root_ + "/fdblearnd.state";
  std::ofstream(file) << state;
  children_.push_back(spawn({FDBLEARND_BIN, "-f", file}, root_));
  wait_for(tvx_path(FDBLEARND_PATH), SOCK_STREAM);
}

std::vector<uint8_t> Responder::next_packet() {
  pollfd p = {sniff_, POLLIN, 0};
  std::vector<uint8_t> buf(2048);
  if (poll(&p, 1, 5000) != 1) return {};  // a reply comes at once; the bound is for a loaded machine
  ssize_t n = recv(sniff_, buf.data(), buf.size(), 0);
  buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return buf;
}

std::vector<uint8_t> Responder::request(uint32_t vni, bool inner_v4, const uint8_t *mac) {
  // Offsets from the packet table of the request, counted from the UDP payload.
  std::vector<uint8_t> r(inner_v4 ? 102 : 122, 0);
  auto put16 = [&](size_t at, uint32_t v) {
    r[at] = static_cast<uint8_t>(v >> 8);
    r[at + 1] = static_cast<uint8_t>(v);
  };
  auto put32 = [&](size_t at, uint32_t v) {
    put16(at, v >> 16);
    put16(at + 2, v);
  };
  r[0] = 0x09;
  put32(4, vni << 8);
  for (int i = 0; i < 6; i++) r[8 + i] = r[14 + i] = 0x5E;  // inner MACs
  put16(20, 0x0800);
  r[22] = inner_v4 ? 0x45 : 0x60;
  const size_t e = inner_v4 ? 50 : 70, t = e + 28;
  r[e] = 1;      // echo request
  r[e + 1] = 3;  // reply mode
  put32(e + 4, 0xAABBCCDD);  // handle
  put32(e + 8, 42);          // sequence
  put32(e + 12, 1000);       // sent, seconds
  put32(e + 16, 500);        // sent, milliseconds
  put16(t, 1);
  put16(t + 2, 20);
  put32(t + 4, vni << 8);
  put32(t + 8, 0xC0000209);
  put16(t + 12, 1);
  put16(t + 14, 8);
  if (mac) memcpy(&r[t + 16], mac, 6);
  return r;
}

int Responder::handle(const std::vector<uint8_t> &req, const char *dst, uint32_t rtb, uint32_t ifl,
                      bool through_recv) {
  sockaddr_in peer{}, local{};
  peer.sin_family = local.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
  peer.sin_port = htons(40000);
  inet_pton(AF_INET, dst, &local.sin_addr);
  local.sin_port = htons(TUNECHOD_PORT);
  // An exact-size copy, so that a read past the request is a real overflow.
  std::vector<uint8_t> copy(req);
  copy.shrink_to_fit();
  if (through_recv) {
    tunechod_recv_oam_packet(copy.data(), static_cast<uint32_t>(copy.size()), raw_, &peer, &local, rtb, ifl);
    return 0;
  }
  return tunechod_parse_oam_packet(copy.data(), static_cast<uint32_t>(copy.size()), raw_, &peer, &local, rtb, ifl);
}
