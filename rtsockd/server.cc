// The event loop: clients' data and control sockets, admin connections,
// replies and verdicts, notifications with a bounded backlog per client.
#include "server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/compat.h"
#include "rtsock/rts_filter.h"
#include "rtsock/rts_lower.h"

namespace rtsockd {

namespace {

enum : uint64_t { kListen = 1, kAdminListen, kSignal, kData, kCtl, kAdmin, kSource };
constexpr uint64_t tag(uint64_t kind, int id) { return kind << 32 | static_cast<uint32_t>(id); }

constexpr int kBackoffFirstMs = 250, kBackoffMaxMs = 8000;
// Records taken from one client per wakeup: one, so that a busy client cannot
// starve the others (epoll reports it again) and a synchronous client's
// request costs no extra read.
constexpr int kRecordsPerWakeup = 1;

uint32_t word(const uint8_t *p, int i) {
  uint32_t v;
  memcpy(&v, p + 4 * i, 4);
  return v;
}

// Appends the encoded message to out.
void encode_into(uint32_t type, void *record, bool tlv, std::vector<uint8_t> *out) {
  rts_msg_pair pair{type, record};
  int n = tlv ? rts_tlv_encode(&pair, nullptr, nullptr, 0) : rts_idr_encode(&pair, nullptr, 0);
  size_t at = out->size();
  out->resize(at + static_cast<size_t>(n));
  if (tlv) rts_tlv_encode(&pair, nullptr, out->data() + at, static_cast<uint32_t>(n));
  else rts_idr_encode(&pair, out->data() + at, static_cast<uint32_t>(n));
}

std::vector<uint8_t> encode(uint32_t type, void *record, bool tlv) {
  std::vector<uint8_t> out;
  encode_into(type, record, tlv, &out);
  return out;
}

void nonblock(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

sockaddr_un address(const std::string &path) {
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  strlcpy(sa.sun_path, path.c_str(), sizeof sa.sun_path);
  return sa;
}

// Whether a socket may be made at path: nothing there, or a socket that
// nobody listens on (what a killed peer leaves), which is removed. Anything
// else stays where it is; false with a log line.
bool path_free(const std::string &path, int type) {
  if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    log("cannot listen on %s: %s", path.c_str(), strerror(ENAMETOOLONG));
    return false;
  }
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return true;
    log("cannot use %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  if (!S_ISSOCK(st.st_mode)) {
    log("%s exists and is not a socket: not removed", path.c_str());
    return false;
  }
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    log("cannot use %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  sockaddr_un sa = address(path);
  int rc = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
  int err = rc == 0 ? 0 : errno;
  close(fd);
  // Connected, or a full queue: somebody listens there.
  if (err == 0 || err == EAGAIN || err == EPROTOTYPE) {
    log("%s is in use by a running peer", path.c_str());
    return false;
  }
  if (err != ECONNREFUSED) {
    log("cannot use %s: %s", path.c_str(), strerror(err));
    return false;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    log("cannot remove the stale socket %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  return true;
}

// The socket file is made owner-only whatever the umask: the admin socket
// changes the state and injects faults, the data socket adds and deletes.
int listen_on(const std::string &path, int type) {
  sockaddr_un sa = address(path);
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  mode_t saved = umask(0177);
  int rc = bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
  umask(saved);
  if (rc < 0 || listen(fd, 64) < 0) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  return fd;
}

}  // namespace

void log(const char *fmt, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  fprintf(stderr, "rtsockd: %s\n", text);
}

void Faults::reset() {
  fail.clear();
  silent.clear();
  versions.assign(1, RTS_TYPE_COUNT - 1);
  versions.push_back(RTS_IFACE_VERSION);
  for (unsigned t = 1; t <= RTS_TYPE_LAST; t++) versions.push_back(rts_type_table[t].version);
}

Server::Server(Store &store, std::string path) : store_(store), path_(std::move(path)) {
  faults_.reset();
  listen_.tag = tag(kListen, 0);
  admin_.tag = tag(kAdminListen, 0);
}

Server::~Server() {
  for (auto &[id, c] : clients_) {
    close(c.data);
    if (c.ctl >= 0) close(c.ctl);
    if (c.room >= 0) close(c.room);
  }
  for (auto &[fd, a] : admins_) close(fd);
  for (int fd : {listen_.fd, admin_.fd, sigfd_, epfd_, devnull_})
    if (fd >= 0) close(fd);
  if (made_data_) unlink(path_.c_str());
  if (made_admin_) unlink(admin_path().c_str());
}

void Server::watch(int fd, uint32_t events, uint64_t t, bool modify) {
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = t;
  epoll_ctl(epfd_, modify ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &ev);
}

bool Server::start() {
  rbuf_.resize(kMaxRecord + 1);
  signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  sigfd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  epfd_ = epoll_create1(EPOLL_CLOEXEC);
  devnull_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (sigfd_ < 0 || epfd_ < 0 || devnull_ < 0) {
    log("cannot start: %s", strerror(errno));
    return false;
  }
  // Both paths are checked before either socket is made.
  if (!path_free(path_, SOCK_SEQPACKET) || !path_free(admin_path(), SOCK_STREAM)) return false;
  listen_.fd = listen_on(path_, SOCK_SEQPACKET);
  if (listen_.fd < 0) {
    log("cannot listen on %s: %s", path_.c_str(), strerror(errno));
    return false;
  }
  made_data_ = true;
  admin_.fd = listen_on(admin_path(), SOCK_STREAM);
  if (admin_.fd < 0) {
    log("cannot listen on %s: %s", admin_path().c_str(), strerror(errno));
    return false;
  }
  made_admin_ = true;
  watch(listen_.fd, EPOLLIN, listen_.tag);
  watch(admin_.fd, EPOLLIN, admin_.tag);
  watch(sigfd_, EPOLLIN, tag(kSignal, 0));
  return true;
}

int Server::run() {
  epoll_event evs[64];
  for (;;) {
    int timeout = -1;
    if (starved_) timeout = static_cast<int>(std::max<int64_t>(0, retry_at_ms_ - now_ms()));
    int n = epoll_wait(epfd_, evs, 64, timeout);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      log("epoll_wait: %s", strerror(errno));
      return 1;
    }
    for (int i = 0; i < n; i++) {
      uint64_t kind = evs[i].data.u64 >> 32;
      int id = static_cast<int>(evs[i].data.u64 & 0xffffffffu);
      uint32_t e = evs[i].events;
      switch (kind) {
        case kListen: accept_clients(); break;
        case kAdminListen: accept_admins(); break;
        case kSignal: {
          signalfd_siginfo si;
          if (read(sigfd_, &si, sizeof si) == sizeof si) {
            log("stopping on %s", sigabbrev_np(static_cast<int>(si.ssi_signo)));
            return 0;
          }
          break;
        }
        case kData:
        case kCtl: {
          auto it = clients_.find(id);
          if (it == clients_.end() || it->second.dead) break;
          Client &c = it->second;
          if (kind == kData && (e & EPOLLOUT)) flush(c);
          if (kind == kData && (e & (EPOLLIN | EPOLLHUP | EPOLLERR))) on_data(c);
          if (kind == kCtl && (e & (EPOLLIN | EPOLLHUP | EPOLLERR))) on_ctl(c);
          break;
        }
        case kAdmin: {
          auto it = admins_.find(id);
          if (it != admins_.end()) on_admin(it->second, e);
          break;
        }
        case kSource: sources_[static_cast<size_t>(id)](); break;
      }
    }
    reap();
    if (starved_ && now_ms() >= retry_at_ms_) resume_all();
  }
}

// ---- Accepting --------------------------------------------------------------------------
// A listening socket that cannot take a connection (the cap, or no descriptor
// left) is paused rather than left readable, which would spin; connections
// wait in its queue until a client or an admin connection leaves, or, out of
// descriptors, until the back-off retries.

void Server::pause(Gate &g) {
  if (g.paused) return;
  g.paused = true;
  watch(g.fd, 0, g.tag, true);
}

void Server::resume_all() {
  for (Gate *g : {&listen_, &admin_}) {
    if (!g->paused) continue;
    g->paused = false;
    watch(g->fd, EPOLLIN, g->tag, true);
  }
  // Straight away: what waits is taken now, or the gate pauses again.
  accept_clients();
  accept_admins();
}

void Server::out_of_descriptors(Gate &g, int err) {
  pause(g);
  g.starved = true;
  if (!starved_) {
    log("out of descriptors (%s): not accepting until a connection closes", strerror(err));
    starved_ = true;
    backoff_ms_ = kBackoffFirstMs;
  } else {
    backoff_ms_ = std::min(backoff_ms_ * 2, kBackoffMaxMs);
  }
  retry_at_ms_ = now_ms() + backoff_ms_;
}

// The queue is empty: the shortage is over once neither gate waits for descriptors.
void Server::accepted_all(Gate &g) {
  g.at_cap = false;
  g.starved = false;
  if (starved_ && !listen_.starved && !admin_.starved) {
    starved_ = false;
    log("accepting again");
  }
}

void Server::accept_clients() {
  while (!listen_.paused) {
    if (clients_.size() >= kMaxClients) {
      pause(listen_);
      if (!listen_.at_cap)
        log("client limit of %zu reached: new clients wait until one leaves", kMaxClients);
      listen_.at_cap = true;
      return;
    }
    // The slot its control socket will take, held from the start.
    int room = fcntl(devnull_, F_DUPFD_CLOEXEC, 0);
    int fd = room < 0 ? -1 : accept4(listen_.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      int err = errno;
      if (room >= 0) close(room);
      if (err == EAGAIN) return accepted_all(listen_);
      if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) return out_of_descriptors(listen_, err);
      if (err == ECONNABORTED || err == EINTR || err == EPROTO) continue;
      log("accept on %s: %s", path_.c_str(), strerror(err));
      return out_of_descriptors(listen_, err);
    }
    Client c;
    c.id = next_id_++;
    c.data = fd;
    c.room = room;
    watch(fd, EPOLLIN, tag(kData, c.id));
    clients_[c.id] = std::move(c);
  }
}

void Server::drop(Client &c, const char *why) {
  if (c.dead) return;
  log("client %d (sender %u) %s", c.id, c.sender, why);
  c.dead = true;
}

void Server::reap() {
  bool freed = false;
  for (auto it = clients_.begin(); it != clients_.end();) {
    if (!it->second.dead) {
      ++it;
      continue;
    }
    Client &c = it->second;
    epoll_ctl(epfd_, EPOLL_CTL_DEL, c.data, nullptr);
    close(c.data);
    if (c.ctl >= 0) {
      epoll_ctl(epfd_, EPOLL_CTL_DEL, c.ctl, nullptr);
      close(c.ctl);
    }
    if (c.room >= 0) close(c.room);
    queued_ -= c.backlog_bytes;
    it = clients_.erase(it);
    freed = true;
  }
  if (freed && (listen_.paused || admin_.paused)) resume_all();
}

bool Server::hello(Client &c, const uint8_t *buf, ssize_t n, int passed_fd) {
  rts_ctl_msg m;
  if (n < static_cast<ssize_t>(sizeof m) || passed_fd < 0) return false;
  memcpy(&m, buf, sizeof m);
  if (m.magic != RTS_CTL_MAGIC || m.op != RTS_CTL_HELLO) return false;
  nonblock(passed_fd);
  c.ctl = passed_fd;
  c.hello = true;
  watch(c.ctl, EPOLLIN, tag(kCtl, c.id));
  return send_ctl(c, RTS_CTL_HELLO, 0, 0, nullptr, 0);
}

void Server::on_data(Client &c) {
  for (int k = 0; k < kRecordsPerWakeup && !c.dead; k++) {
    iovec iov{rbuf_.data(), rbuf_.size()};
    alignas(cmsghdr) char cbuf[CMSG_SPACE(4 * sizeof(int))];
    msghdr mh{};
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    // Only the hello brings a descriptor: its slot is the one held since the
    // accept. Descriptors sent later are never installed.
    if (!c.hello) {
      mh.msg_control = cbuf;
      mh.msg_controllen = sizeof cbuf;
      if (c.room >= 0) close(c.room);
      c.room = -1;
    }
    ssize_t n = recvmsg(c.data, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      if (!c.hello) c.room = fcntl(devnull_, F_DUPFD_CLOEXEC, 0);
      return;
    }
    if (n < 0 && errno == ECONNRESET) return drop(c, "vanished with replies unread");
    if (n < 0) return drop(c, (std::string("failed: ") + strerror(errno)).c_str());
    // No bytes: the end of the connection, or an empty record while it stays.
    if (n == 0) {
      pollfd pf{c.data, POLLRDHUP, 0};
      if (!c.hello || poll(&pf, 1, 0) != 0) return drop(c, "closed its socket");
    }
    int passed = -1;
    for (cmsghdr *cm = CMSG_FIRSTHDR(&mh); cm; cm = CMSG_NXTHDR(&mh, cm)) {
      if (cm->cmsg_level != SOL_SOCKET || cm->cmsg_type != SCM_RIGHTS) continue;
      size_t count = (cm->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; i++) {
        int fd;
        memcpy(&fd, CMSG_DATA(cm) + i * sizeof(int), sizeof fd);
        if (passed < 0) passed = fd;
        else close(fd);  // descriptors nobody asked for
      }
    }
    if (!c.hello) {
      if (!hello(c, rbuf_.data(), n, passed)) {
        if (passed >= 0 && !c.hello) close(passed);
        return drop(c, "did not start with a hello and its control socket: dropped");
      }
      continue;
    }
    int verdict;
    replies_.clear();
    if ((mh.msg_flags & MSG_TRUNC) || static_cast<size_t>(n) > kMaxRecord) {
      log("client %d (sender %u): record longer than %zu bytes refused", c.id, c.sender, kMaxRecord);
      verdict = EMSGSIZE;
    } else {
      verdict = handle(c, rbuf_.data(), static_cast<size_t>(n), &replies_);
    }
    if (!c.dead) answer(c, verdict, replies_);
  }
}

// The verdict and the replies go back as one record on the control socket,
// with the count of data records sent before them, so that the client reads
// the notifications queued ahead of the replies first. Replies never wait
// behind notifications the peer still holds: with a backlog the client's
// socket is full, and the write fails as the kernel's would.
void Server::answer(Client &c, int verdict, std::vector<uint8_t> &replies) {
  if (!replies.empty() && !c.backlog.empty()) {
    if (!verdict) verdict = EAGAIN;
    replies.clear();
  }
  if (replies.size() > RTS_CTL_REPLY_MAX) {
    int err = send_data(c, std::make_shared<const std::vector<uint8_t>>(std::move(replies)), false);
    if (c.dead) return;
    if (err && !verdict) verdict = err;
    replies.clear();
  }
  rts_ctl_verdict v{c.data_sent};
  rts_ctl_msg m{RTS_CTL_MAGIC, RTS_CTL_VERDICT, 0, verdict,
                static_cast<uint32_t>(sizeof v + replies.size())};
  iovec iov[3] = {{&m, sizeof m}, {&v, sizeof v}, {replies.data(), replies.size()}};
  msghdr mh{};
  mh.msg_iov = iov;
  mh.msg_iovlen = 3;
  if (sendmsg(c.ctl, &mh, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
    drop(c, errno == EAGAIN ? "does not read its control socket: dropped" : "lost its control socket");
}

bool Server::send_ctl(Client &c, uint32_t op, int name, int error, const void *value, uint32_t len) {
  std::vector<uint8_t> out(sizeof(rts_ctl_msg) + len);
  rts_ctl_msg m{RTS_CTL_MAGIC, op, name, error, len};
  memcpy(out.data(), &m, sizeof m);
  if (len) memcpy(out.data() + sizeof m, value, len);
  if (send(c.ctl, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    drop(c, errno == EAGAIN ? "does not read its control socket: dropped"
                            : "lost its control socket");
    return false;
  }
  return true;
}

void Server::on_ctl(Client &c) {
  for (int k = 0; k < kRecordsPerWakeup && !c.dead; k++) {
    uint8_t buf[sizeof(rts_ctl_msg) + RTS_CTL_VALUE_MAX];
    ssize_t n = recv(c.ctl, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) return drop(c, "closed its control socket");
    rts_ctl_msg m;
    if (static_cast<size_t>(n) < sizeof m) return drop(c, "sent a short control record: dropped");
    memcpy(&m, buf, sizeof m);
    if (m.magic != RTS_CTL_MAGIC || (m.op == RTS_CTL_SETOPT && m.len > n - sizeof m))
      return drop(c, "sent a malformed control record: dropped");
    if (m.op == RTS_CTL_SETOPT) {
      int err = setopt(c, m.name, buf + sizeof m, m.len);
      send_ctl(c, RTS_CTL_SETOPT, m.name, err, nullptr, 0);
    } else if (m.op == RTS_CTL_GETOPT) {
      std::vector<uint8_t> v;
      int err = getopt(c, m.name, &v);
      uint32_t len = static_cast<uint32_t>(v.size() < m.len ? v.size() : m.len);
      send_ctl(c, RTS_CTL_GETOPT, m.name, err, v.data(), err ? 0 : len);
    } else {
      return drop(c, "sent an unknown control record: dropped");
    }
  }
}

int Server::setopt(Client &c, int name, const uint8_t *v, uint32_t len) {
  switch (name) {
    case RTS_OPT_LISTEN_MASK:
      if (len != 8) return EINVAL;
      memcpy(c.listen, v, 8);
      return 0;
    case RTS_OPT_SENDER_ID:
      if (len != 1) return EINVAL;
      c.sender = v[0];
      return 0;
    case RTS_OPT_SYNC_MODE: {
      uint32_t mode;
      if (len != 4) return EINVAL;
      memcpy(&mode, v, 4);
      if (mode > 1) return EINVAL;
      c.sync_mode = mode;
      return 0;
    }
    case RTS_OPT_ASYNC_MODE:
    case RTS_OPT_SLAVE_MODE:
    case RTS_OPT_ROUTE_VETO:
      if (len != 4) return EINVAL;
      c.options[name].assign(v, v + len);
      return 0;
    case RTS_OPT_LOOPBACK_MASK:
      if (len != 8) return EINVAL;
      c.options[name].assign(v, v + len);
      return 0;
    case RTS_OPT_FILTER:
      return set_filter(c, v, len);
    default:
      return ENOPROTOOPT;
  }
}

// The filter record: the listen mask, a flag, a pointer (zero), the program.
// A record with a compiled program installs it, and its mask; one whose
// program area is all zeros removes the filter; anything else there (the
// filter's text, as older clients send it) is kept but not applied.
int Server::set_filter(Client &c, const uint8_t *v, uint32_t len) {
  if (len < RTS_FILTER_PROGRAM_OFF + RTS_FILTER_HEADER) return EINVAL;
  const uint8_t *prog = v + RTS_FILTER_PROGRAM_OFF;
  size_t room = len - RTS_FILTER_PROGRAM_OFF;
  uint32_t magic;
  memcpy(&magic, prog, 4);
  if (magic == RTS_FILTER_MAGIC) {
    int n = rts_filter_check(prog, room);
    if (n < 0) {
      log("client %d (sender %u): malformed filter program: refused", c.id, c.sender);
      return EINVAL;
    }
    c.filter.assign(prog, prog + n);
    memcpy(c.listen, v, 8);
  } else if (std::all_of(prog, prog + room, [](uint8_t b) { return b == 0; })) {
    c.filter.clear();
  } else {
    log("client %d (sender %u): filter record without a compiled program: kept, not applied", c.id, c.sender);
  }
  c.options[RTS_OPT_FILTER].assign(v, v + len);
  return 0;
}

int Server::getopt(Client &c, int name, std::vector<uint8_t> *v) {
  auto bytes = [v](const void *p, size_t n) {
    auto *b = static_cast<const uint8_t *>(p);
    v->assign(b, b + n);
  };
  switch (name) {
    case RTS_OPT_VERSION: *v = faults_.versions; return 0;
    case RTS_OPT_LISTEN_MASK: bytes(c.listen, 8); return 0;
    case RTS_OPT_SENDER_ID: bytes(&c.sender, 1); return 0;
    case RTS_OPT_SYNC_MODE: bytes(&c.sync_mode, 4); return 0;
    case RTS_OPT_BULK_ERROR: bytes(c.bulk, 12); return 0;
    default: {
      auto it = c.options.find(name);
      if (it == c.options.end()) return ENOPROTOOPT;
      *v = it->second;
      return 0;
    }
  }
}

int Server::send_data(Client &c, const Bytes &bytes, bool notification) {
  if (c.backlog.empty()) {
    if (send(c.data, bytes->data(), bytes->size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
      c.data_sent++;
      return 0;
    }
    if (errno != EAGAIN && errno != ENOBUFS) {
      int err = errno;
      drop(c, (std::string("cannot be written to: ") + strerror(err)).c_str());
      return err;
    }
  }
  // The socket is full: a reply fails as the kernel's would; a notification
  // waits, within the bounds, and is dropped past them.
  if (!notification) return EAGAIN;
  return enqueue(c, bytes) ? 0 : ENOBUFS;
}

// Past the client's own bounds its notification is dropped. Past the bound of
// all clients together, the client that holds the most gives up its newest,
// so that readers that never read cannot crowd out one that only lags.
bool Server::enqueue(Client &c, const Bytes &bytes) {
  size_t cost = bytes->size() + kQueueEntryCost;
  auto stalled = [this](Client &who) {
    who.dropped++;
    if (!who.stalled) {
      log("client %d (sender %u) is not reading: dropping notifications", who.id, who.sender);
      who.stalled = true;
    }
  };
  if (c.backlog.size() >= kBacklogMessages || c.backlog_bytes + cost > kBacklogBytes) {
    stalled(c);
    return false;
  }
  while (queued_ + cost > kQueuedBytes) {
    Client *most = nullptr;
    for (auto &[id, o] : clients_)
      if (!o.backlog.empty() && (!most || o.backlog_bytes > most->backlog_bytes)) most = &o;
    if (!most || most == &c || most->backlog_bytes <= c.backlog_bytes + cost) {
      stalled(c);
      return false;
    }
    size_t n = most->backlog.back()->size() + kQueueEntryCost;
    most->backlog.pop_back();
    most->backlog_bytes -= n;
    queued_ -= n;
    stalled(*most);
  }
  if (c.backlog.empty()) watch(c.data, EPOLLIN | EPOLLOUT, tag(kData, c.id), true);
  c.backlog.push_back(bytes);
  c.backlog_bytes += cost;
  queued_ += cost;
  return true;
}

void Server::pump(Client &c) {
  while (c.flood_left && c.backlog.empty() && !c.dead) {
    if (send(c.data, c.flood_bytes.data(), c.flood_bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      if (errno != EAGAIN && errno != ENOBUFS) return drop(c, "cannot be written to");
      watch(c.data, EPOLLIN | EPOLLOUT, tag(kData, c.id), true);
      return;
    }
    c.data_sent++;
    c.flood_left--;
  }
  if (!c.flood_left && c.backlog.empty()) {
    c.flood_bytes.clear();
    watch(c.data, EPOLLIN, tag(kData, c.id), true);
  }
}

void Server::flush(Client &c) {
  while (!c.backlog.empty()) {
    const Bytes &m = c.backlog.front();
    if (send(c.data, m->data(), m->size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      if (errno != EAGAIN && errno != ENOBUFS) drop(c, "cannot be written to");
      return;
    }
    c.data_sent++;
    size_t n = m->size() + kQueueEntryCost;
    c.backlog_bytes -= n;
    queued_ -= n;
    c.backlog.pop_front();
  }
  watch(c.data, EPOLLIN, tag(kData, c.id), true);
  if (c.flood_left) pump(c);
  if (c.stalled) {
    log("client %d (sender %u) reads again; %llu notifications were dropped", c.id, c.sender,
        static_cast<unsigned long long>(c.dropped));
    c.stalled = false;
  }
}

int Server::publish(uint8_t op, std::unique_ptr<Object> obj) {
  const uint32_t type = obj->type;
  if (op == RTS_OP_DELETE) {
    if (int err = store_.apply(op, type, obj->rec())) return err;
    notify(type, op, obj->rec(), 0, nullptr);
    return 0;
  }
  // Kept as it is, and told from the store's copy: no second clone.
  const std::string key = Store::key_of(type, obj->rec());
  if (int err = store_.apply(op, std::move(obj))) return err;
  notify(type, op, const_cast<Object *>(store_.find_exact(type, key))->rec(), 0, nullptr);
  return 0;
}

void Server::watch_source(int fd, std::function<void()> ready) {
  watch(fd, EPOLLIN, tag(kSource, static_cast<int>(sources_.size())));
  sources_.push_back(std::move(ready));
}

void Server::notify(uint32_t type, uint8_t op, void *record, uint32_t sender, const Client *origin) {
  uint32_t w, bit;
  if (!rts_listen_bit(type, &w, &bit)) return;
  auto *h = static_cast<rts_msg_hdr *>(record);
  rts_msg_hdr saved = *h;
  h->operation = op;
  h->seq = ++notify_seq_;
  h->sender = sender;
  Bytes bytes;
  for (auto &[id, c] : clients_) {
    if (c.dead || !c.hello || &c == origin || !(c.listen[w] & bit)) continue;
    if (!c.filter.empty() && rts_filter_eval(c.filter.data(), type, record) == 0) continue;
    if (!bytes) bytes = std::make_shared<const std::vector<uint8_t>>(encode(type, record, true));
    send_data(c, bytes, true);
  }
  *h = saved;
}

// ---- Messages ----------------------------------------------------------------------------------

int Server::handle(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies) {
  if (n < 4) {
    log("client %d (sender %u): record of %zu bytes is too short", c.id, c.sender, n);
    return EINVAL;
  }
  uint32_t magic = word(buf, 0);
  if (magic == 0) {
    int err = handle_raw(c, buf, n, replies);
    if (err) replies->clear();
    return err;
  }
  if (magic != RTS_MAGIC_TLV && magic != RTS_MAGIC_IDR) {
    log("client %d (sender %u): garbage record of %zu bytes (first word 0x%x)", c.id, c.sender, n, magic);
    return EINVAL;
  }
  if (!(c.sync_mode & 1)) {
    uint64_t len = n >= RTS_ENVELOPE_SIZE ? uint64_t{word(buf, 1)} + RTS_ENVELOPE_SIZE : 0;
    if (len != n) {
      log("client %d (sender %u): envelope of %llu bytes in a record of %zu", c.id, c.sender,
          static_cast<unsigned long long>(len), n);
      return EINVAL;
    }
    int err = handle_one(c, buf, n, replies);
    if (err) replies->clear();
    return err;
  }
  // Bulk: envelopes back to back; the first failure stops the batch, and the
  // replies of those before it go back in one record.
  uint32_t accepted = 0, total = 0;
  int err = 0;
  for (size_t pos = 0; pos < n; total++) {
    uint64_t len = n - pos >= RTS_ENVELOPE_SIZE ? uint64_t{word(buf + pos, 1)} + RTS_ENVELOPE_SIZE : 0;
    if (!len || len > n - pos) {
      if (!err) {
        log("client %d (sender %u): bulk record cut inside its message %u", c.id, c.sender, total);
        err = EINVAL;
      }
      total++;
      break;
    }
    if (!err) {
      err = handle_one(c, buf + pos, len, replies);
      if (!err) accepted++;
    }
    pos += len;
  }
  c.bulk[0] = static_cast<uint32_t>(err);
  c.bulk[1] = accepted;
  c.bulk[2] = total;
  return err;
}

// A stored object as the answer to a request: its operation, sequence number
// and sender, in the request's encoding.
void Server::reply_with(uint32_t type, const Object *found, const rts_msg_hdr &request, bool tlv,
                        std::vector<uint8_t> *replies) {
  auto *obj = const_cast<Object *>(found);
  rts_msg_hdr saved = obj->hdr();
  obj->hdr().operation = request.operation;
  obj->hdr().seq = request.seq;
  obj->hdr().sender = request.sender;
  encode_into(type, obj->rec(), tlv, replies);
  obj->hdr() = saved;
}

int Server::handle_one(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies) {
  bool tlv = word(buf, 0) == RTS_MAGIC_TLV;
  size_t room = 4 * n + 65536;
  if (arena_.size() < room) arena_.resize(room);
  Bump bump{arena_.data(), arena_.size(), 0};
  rts_msg_pair pair{};
  int r = tlv ? rts_tlv_decode(&pair, nullptr, buf, static_cast<uint32_t>(n), Bump::alloc, &bump)
              : rts_idr_decode(&pair, buf, static_cast<uint32_t>(n), Bump::alloc, &bump);
  if (r <= 0) {
    log("client %d (sender %u): undecodable %s message of %zu bytes: %s", c.id, c.sender,
        tlv ? "TLV" : "IDR", n, rts_decode_error_text(r));
    return EINVAL;
  }
  uint32_t type = pair.type;
  auto fail = faults_.fail.find(type);
  if (fail != faults_.fail.end()) return fail->second;
  if (faults_.silent.count(type)) return 0;
  if (!pair.record || !Store::serves(type)) return EOPNOTSUPP;
  auto *h = static_cast<rts_msg_hdr *>(pair.record);
  uint8_t op = h->operation;
  switch (op) {
    case RTS_OP_GET:
    case RTS_OP_GETNEXT: {
      const Object *found = store_.lookup(op, type, pair.record);
      if (!found) return ENOENT;
      if (type == RTS_T_RTMATCH) {
        auto *q = static_cast<rts_rtmatch_msg *>(pair.record);
        auto *rt = static_cast<const rts_rt_msg *>(found->rec());
        q->rtmm_match_bits = rt->rtm_prefix_bits;
        q->rtmm_nh_index = rt->rtm_nh_index;
        q->rtmm_type = rt->rtm_type;
        q->rtmm_flags = rt->rtm_flags;
        encode_into(type, q, tlv, replies);
      } else {
        reply_with(type, found, *h, tlv, replies);
      }
      return 0;
    }
    case RTS_OP_ADD:
    case RTS_OP_CHANGE: {
      int err = store_.apply(op, type, pair.record);
      if (!err) notify(type, op, pair.record, c.sender, &c);
      return err;
    }
    case RTS_OP_ADD_GET:
    case RTS_OP_CHANGE_GET: {
      // The change, told as an add or a change, then the object as stored.
      uint8_t change = op == RTS_OP_ADD_GET ? RTS_OP_ADD : RTS_OP_CHANGE;
      if (type == RTS_T_RTMATCH) return EOPNOTSUPP;
      int err = store_.apply(change, type, pair.record);
      if (err) return err;
      notify(type, change, pair.record, c.sender, &c);
      const Object *obj = store_.find_exact(type, Store::key_of(type, pair.record));
      if (!obj) return ENOENT;
      reply_with(type, obj, *h, tlv, replies);
      return 0;
    }
    case RTS_OP_DELETE: {
      const Object *old = store_.find_exact(type, Store::key_of(type, pair.record));
      if (!old) return ENOENT;
      std::unique_ptr<Object> keep = clone(type, old->rec());
      int err = store_.apply(op, type, pair.record);
      if (!err && keep) notify(type, op, keep->rec(), c.sender, &c);
      return err;
    }
    default:
      return EOPNOTSUPP;
  }
}

int Server::handle_raw(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies) {
  if (n < sizeof(rts_raw_hdr)) {
    log("client %d (sender %u): raw record of %zu bytes is too short", c.id, c.sender, n);
    return EINVAL;
  }
  rts_raw_hdr h;
  memcpy(&h, buf, sizeof h);
  auto fail = faults_.fail.find(h.type);
  if (fail != faults_.fail.end()) return fail->second;
  if (faults_.silent.count(h.type)) return 0;
  if ((h.type != RTS_T_IFDSTATS && h.type != RTS_T_IFLSTATS) || n < sizeof(rts_ifstats_msg))
    return EOPNOTSUPP;
  rts_ifstats_msg m;
  memcpy(&m, buf, sizeof m);
  // Counters given for the index are served whether or not the interface is
  // in the stores; a known interface without them has counted nothing.
  const StatsEntry *e = store_.counters.find(h.type, m.ifsm_index);
  std::string key, name;
  uint32_t type = h.type == RTS_T_IFDSTATS ? RTS_T_IFDEV : RTS_T_IFLOGICAL;
  for (int i = type == RTS_T_IFDEV ? 1 : 3; i >= 0; i--) key += static_cast<char>(m.ifsm_index >> (8 * i));
  const Object *obj = type == RTS_T_IFDEV && m.ifsm_index > 0xFFFF ? nullptr : store_.find_exact(type, key);
  if (!obj && !e) return ENOENT;
  if (h.operation == RTS_OP_CLEAR) {
    if (e) store_.counters.clear(h.type, m.ifsm_index, static_cast<uint64_t>(time(nullptr)));
    return 0;
  }
  if (h.operation != RTS_OP_GET) return EOPNOTSUPP;
  if (obj && type == RTS_T_IFDEV) {
    auto *d = static_cast<const rts_ifd_msg *>(obj->rec());
    if (d->ifdm_name) name = d->ifdm_name;
  } else if (obj) {
    auto *l = static_cast<const rts_ifl_msg *>(obj->rec());
    if (l->iflm_name) name = std::string(l->iflm_name) + "." + std::to_string(l->iflm_unit);
  }
  std::vector<uint8_t> reply = stats_message(h, m.ifsm_index, e, name);
  if (reply.empty()) return EMSGSIZE;  // past what a reader takes: never with the bounds of Counters
  replies->insert(replies->end(), reply.begin(), reply.end());
  return 0;
}

}  // namespace rtsockd
