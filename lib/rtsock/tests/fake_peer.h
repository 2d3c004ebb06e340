// An in-process route-socket peer behind the lower edge: no thread, no
// socket. A write runs the test's handler at once, which answers with a
// verdict and may queue replies, as the kernel would. Its descriptor is an
// eventfd, readable exactly while the queue holds a message, so an event
// loop can watch it; a test that fills `queue` by hand calls sync().
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "rtsock/rts_codec.h"
#include "rtsock/rts_lower.h"
#include "rtsock/rtslib.h"
#include "samples.h"

struct FakePeer {
  using Msg = std::vector<uint8_t>;
  static inline FakePeer *cur = nullptr;

  int fd = -1;
  int open_errno = 0;
  bool is_open = false;
  Msg versions;
  std::deque<Msg> queue;                 // to the client
  std::vector<Msg> written;              // what the client wrote
  std::map<int, Msg> options;            // route-socket options set
  std::map<int, int> option_sets;        // how many times each was set
  std::map<int, int> option_errno;       // route-socket options that fail, with this errno
  std::map<int, int> socket_options;     // SO_SNDBUF, SO_RCVBUF
  uint32_t bulk_status[3] = {};
  // The kernel's side of a write: the verdict (errno or 0).
  std::function<int(const Msg &)> on_write = [](const Msg &) { return 0; };

  FakePeer() {
    versions.push_back(RTS_TYPE_COUNT - 1);
    versions.push_back(RTS_IFACE_VERSION);
    for (unsigned t = 1; t <= RTS_TYPE_LAST; t++) versions.push_back(rts_type_table[t].version);
    fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    cur = this;
    rts_lower_set(&kOps);
  }
  ~FakePeer() {
    rts_lower_set(nullptr);
    cur = nullptr;
    close(fd);
  }

  // Makes the descriptor readable exactly while a message waits.
  void sync() {
    uint64_t v;
    if (queue.empty() && readable) {
      if (::read(fd, &v, sizeof v) == sizeof v) readable = false;
    } else if (!queue.empty() && !readable) {
      v = 1;
      if (::write(fd, &v, sizeof v) == sizeof v) readable = true;
    }
  }
  void push(Msg m) {
    queue.push_back(std::move(m));
    sync();
  }
  // True while the descriptor is in blocking mode (the task kernel sets it).
  bool blocking() const { return !(fcntl(fd, F_GETFL) & O_NONBLOCK); }

  // Queues a reply in either encoding.
  void reply(uint32_t type, const void *record, bool tlv = false) {
    push(samples::wire(type, record, tlv));
  }

  // Decodes what the client wrote last (an envelope).
  template <class R>
  R *request(samples::Arena &a, size_t which = ~size_t{0}) {
    const Msg &m = written.at(which == ~size_t{0} ? written.size() - 1 : which);
    rts_msg_pair out{};
    uint32_t magic;
    memcpy(&magic, m.data(), 4);
    int r = magic == RTS_MAGIC_TLV
                ? rts_tlv_decode(&out, nullptr, m.data(), static_cast<uint32_t>(m.size()), samples::Arena::alloc, &a)
                : rts_idr_decode(&out, m.data(), static_cast<uint32_t>(m.size()), samples::Arena::alloc, &a);
    return r > 0 ? static_cast<R *>(out.record) : nullptr;
  }

 private:
  bool readable = false;
  static int fail(int e) {
    errno = e;
    return -1;
  }
  static int op_open(void *) {
    if (cur->open_errno) return fail(cur->open_errno);
    cur->is_open = true;
    return cur->fd;
  }
  static int op_close(void *, int) {
    cur->is_open = false;
    return 0;
  }
  static int op_setopt(void *, int, int level, int name, const void *v, socklen_t len) {
    if (level == SOL_SOCKET) {
      int x;
      memcpy(&x, v, sizeof x);
      cur->socket_options[name] = x;
      return 0;
    }
    cur->option_sets[name]++;
    if (cur->option_errno.count(name)) return fail(cur->option_errno[name]);
    auto *b = static_cast<const uint8_t *>(v);
    cur->options[name] = Msg(b, b + len);
    return 0;
  }
  static int op_getopt(void *, int, int level, int name, void *v, socklen_t *len) {
    Msg val;
    if (level == SOL_SOCKET) {
      int x = cur->socket_options.count(name) ? cur->socket_options[name] : 4096;
      val = Msg(reinterpret_cast<uint8_t *>(&x), reinterpret_cast<uint8_t *>(&x) + 4);
    } else if (name == RTS_OPT_VERSION) {
      val = cur->versions;
    } else if (name == RTS_OPT_BULK_ERROR) {
      val = Msg(reinterpret_cast<uint8_t *>(cur->bulk_status), reinterpret_cast<uint8_t *>(cur->bulk_status) + 12);
    } else if (cur->options.count(name)) {
      val = cur->options[name];
    } else {
      return fail(ENOPROTOOPT);
    }
    socklen_t n = val.size() < *len ? static_cast<socklen_t>(val.size()) : *len;
    memcpy(v, val.data(), n);
    *len = n;
    return 0;
  }
  static ssize_t op_write(void *, int, const void *buf, size_t len) {
    auto *b = static_cast<const uint8_t *>(buf);
    cur->written.emplace_back(b, b + len);
    int err = cur->on_write(cur->written.back());
    cur->sync();
    return err ? fail(err) : static_cast<ssize_t>(len);
  }
  static ssize_t op_read(void *, int, void *buf, size_t len) {
    if (cur->queue.empty()) return fail(EAGAIN);
    Msg m = std::move(cur->queue.front());
    cur->queue.pop_front();
    cur->sync();
    if (m.size() > len) return fail(EMSGSIZE);
    size_t n = m.size() < len ? m.size() : len;
    memcpy(buf, m.data(), n);
    return static_cast<ssize_t>(n);
  }
  static ssize_t op_peek(void *, int, void *buf, size_t len) {
    if (cur->queue.empty()) return fail(EAGAIN);
    const Msg &m = cur->queue.front();
    memcpy(buf, m.data(), m.size() < len ? m.size() : len);
    return static_cast<ssize_t>(m.size());  // the whole record, as the edge reports it
  }
  static constexpr rts_lower_ops kOps = {op_open, op_close, op_setopt, op_getopt,
                                        op_write, op_read, op_peek, nullptr};
};

// Keeps what the library logs.
struct LogCapture {
  std::vector<std::pair<int, std::string>> lines;
  static void sink(rtslib_cookie *, void *ctx, int level, const char *text) {
    static_cast<LogCapture *>(ctx)->lines.emplace_back(level, text);
  }
  LogCapture() { rtslib_set_default_log(sink, this); }
  ~LogCapture() { rtslib_set_default_log(nullptr, nullptr); }
  bool has(int level, const std::string &text) const {
    for (auto &l : lines)
      if (l.first == level && l.second.find(text) != std::string::npos) return true;
    return false;
  }
};

// A handle opened over a fresh in-process peer, with what it logs kept.
struct RtslibTest : ::testing::Test {
  FakePeer peer;
  LogCapture log;
  rtslib_cookie *c = nullptr;
  void SetUp() override {
    c = rtslib_open(131);
    ASSERT_NE(c, nullptr);
  }
  void TearDown() override { rtslib_close(c); }
};
