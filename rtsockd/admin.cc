// The admin socket: one text command per line, the reply's last line "ok" or
// "error: ...". Changes to the stores notify the listening clients.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <cstdint>
#include <sstream>

#include "rtsock/rts_lower.h"
#include "server.h"

namespace rtsockd {

namespace {

// "ENOENT" or a number.
bool parse_errno(const std::string &s, int *out) {
  char *end;
  long v = strtol(s.c_str(), &end, 0);
  if (!s.empty() && *end == 0 && v > 0 && v < 4096) {
    *out = static_cast<int>(v);
    return true;
  }
  for (int e = 1; e < 134; e++) {
    const char *name = strerrorname_np(e);
    if (name && s == name) {
      *out = e;
      return true;
    }
  }
  return false;
}

// A kind ("bd") or a type number.
bool parse_type(const std::string &s, uint32_t *out) {
  for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++)
    if (const char *k = kind_name(t); k && s == k) {
      *out = t;
      return true;
    }
  char *end;
  unsigned long v = strtoul(s.c_str(), &end, 0);
  if (s.empty() || *end || v >= RTS_TYPE_COUNT) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

std::string error(const std::string &what) { return "error: " + what + "\n"; }

}  // namespace

void Server::accept_admins() {
  while (!admin_.paused) {
    if (admins_.size() >= kMaxAdmins) {
      pause(admin_);
      if (!admin_.at_cap) log("admin connection limit of %zu reached: new ones wait until one closes", kMaxAdmins);
      admin_.at_cap = true;
      return;
    }
    int fd = accept4(admin_.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      int err = errno;
      if (err == EAGAIN) return accepted_all(admin_);
      if (err == ECONNABORTED || err == EINTR || err == EPROTO) continue;
      return out_of_descriptors(admin_, err);
    }
    admins_[fd].fd = fd;
    watch(fd, EPOLLIN, uint64_t{6} << 32 | static_cast<uint32_t>(fd));
  }
}

void Server::close_admin(AdminConn &a) {
  close(a.fd);
  admins_.erase(a.fd);
  if (listen_.paused || admin_.paused) resume_all();
}

// Commands are read while there is no reply to send: a connection that does
// not read its replies stops being read, and holds one reply's worth at most.
void Server::on_admin(AdminConn &a, uint32_t events) {
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    char buf[4096];
    ssize_t n = recv(a.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // A line longer than any command is not a command.
    if (n <= 0 || a.in.size() > 65536) return close_admin(a);
    a.in.append(buf, static_cast<size_t>(n));
  }
  serve_admin(a);
}

void Server::serve_admin(AdminConn &a) {
  constexpr size_t kChunk = 64 << 10;
  for (;;) {
    if (a.showing && a.out.size() < kChunk) show_more(a, kChunk);
    while (!a.out.empty()) {
      ssize_t n = send(a.fd, a.out.data(), a.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        if (!a.writing) watch(a.fd, EPOLLOUT, uint64_t{6} << 32 | static_cast<uint32_t>(a.fd), true);
        a.writing = true;
        return;
      }
      if (n < 0) return close_admin(a);
      a.out.erase(0, static_cast<size_t>(n));
      if (a.showing && a.out.size() < kChunk) show_more(a, kChunk);
    }
    if (a.showing) continue;
    size_t nl = a.in.find('\n');
    if (nl == std::string::npos) break;
    std::string line = a.in.substr(0, nl);
    a.in.erase(0, nl + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::istringstream in(line);
    std::string verb, kind;
    in >> verb >> kind;
    if (verb != "show") {
      a.out = command(line);
      continue;
    }
    uint32_t only = 0;
    if (!kind.empty() && (!parse_type(kind, &only) || !kind_name(only))) {
      a.out = error("unknown kind " + kind);
      continue;
    }
    a.showing = true;
    a.show_started = false;
    a.show_only = only;
    a.show_type = only;
  }
  if (a.writing) watch(a.fd, EPOLLIN, uint64_t{6} << 32 | static_cast<uint32_t>(a.fd), true);
  a.writing = false;
}

// More lines of a show, in key order from where it stands, up to about
// budget bytes of a.out; the "ok" line once the stores are walked. Changes
// made meanwhile show where the walk has not passed yet.
bool Server::show_more(AdminConn &a, size_t budget) {
  for (; a.show_type < RTS_TYPE_COUNT; a.show_type++, a.show_started = false) {
    if (a.show_only && a.show_type != a.show_only) break;
    const auto &t = store_.table(a.show_type);
    auto it = a.show_started ? t.upper_bound(a.show_key) : t.begin();
    for (; it != t.end(); ++it) {
      if (a.out.size() >= budget) {
        a.show_started = true;
        return false;
      }
      // Generic configuration (opaque, maybe compressed blobs) has no text form.
      std::string line = print_object(a.show_type, it->second->rec());
      if (!line.empty()) a.out += line + "\n";
      a.show_key = it->first;
      a.show_started = true;
    }
    if (a.show_only) break;
  }
  a.out += "ok\n";
  a.showing = false;
  return true;
}

std::string Server::command(const std::string &line) {
  std::istringstream in(line);
  std::string verb;
  in >> verb;
  std::string rest;
  std::getline(in, rest);
  if (verb.empty() || verb[0] == '#') return "ok\n";
  if (verb == "add") return admin_change(RTS_OP_ADD, rest);
  if (verb == "change") return admin_change(RTS_OP_CHANGE, rest);
  if (verb == "delete") return admin_change(RTS_OP_DELETE, rest);
  if (verb == "show") return admin_show(rest);  // the socket's own show is sent as it drains
  if (verb == "clients") return admin_clients();
  if (verb == "fault") return admin_fault(rest);
  if (verb == "flood") return admin_flood(rest);
  if (verb == "stats") return admin_stats(rest);
  if (verb == "help")
    return "add|change|delete KIND field=value ...\nshow [KIND]\nclients\nflood COUNT KIND key=value ...\n"
           "fault fail KIND|TYPE ERRNO | fault silent KIND|TYPE | fault raw all|CLIENT HEX\n"
           "fault version iface N | fault version count N | fault version type TYPE N | fault clear\n"
           "stats set|bump ifdstats|iflstats index=N field=value ... | stats clear|delete KIND index=N | "
           "stats show\nok\n";
  return error("unknown command " + verb);
}

std::string Server::admin_stats(const std::string &rest) {
  std::istringstream in(rest);
  std::string verb, tail, why;
  in >> verb;
  std::getline(in, tail);
  Counters &c = store_.counters;
  bool ok;
  if (verb == "set" || verb == "bump")
    ok = c.set(tail, verb == "bump", &why);
  else if (verb == "clear")
    ok = c.clear(tail, static_cast<uint64_t>(time(nullptr)), &why);
  else if (verb == "delete")
    ok = c.erase(tail, &why);
  else if (verb == "show")
    return c.show() + "ok\n";
  else
    return error("stats set|bump|clear|delete|show");
  return ok ? "ok\n" : error(why);
}

std::string Server::admin_change(uint8_t op, const std::string &rest) {
  uint32_t type;
  std::unique_ptr<Object> obj;
  std::string why;
  if (!parse_object(rest, &type, &obj, &why)) return error(why);
  if (op == RTS_OP_DELETE) {
    const Object *old = store_.find_exact(type, Store::key_of(type, obj->rec()));
    if (!old) return error(strerror(ENOENT));
    obj = clone(type, old->rec());
  }
  int err = store_.apply(op, type, obj->rec());
  if (err) return error(err == ENOSPC ? Store::quota_text() : strerror(err));
  notify(type, op, obj->rec(), 0, nullptr);
  return "ok\n";
}

std::string Server::admin_show(const std::string &rest) {
  std::istringstream in(rest);
  std::string kind;
  in >> kind;
  uint32_t only = 0;
  if (!kind.empty() && (!parse_type(kind, &only) || !kind_name(only))) return error("unknown kind " + kind);
  AdminConn a;
  a.showing = true;
  a.show_only = a.show_type = only;
  show_more(a, SIZE_MAX);
  return a.out;
}

std::string Server::admin_clients() {
  std::string out;
  char line[256];
  for (auto &[id, c] : clients_) {
    if (c.dead) continue;
    snprintf(line, sizeof line, "client %d sender %u listen 0x%x 0x%x backlog %zu dropped %llu bytes %zu\n", id,
             c.sender, c.listen[0], c.listen[1], c.backlog.size(), static_cast<unsigned long long>(c.dropped),
             c.backlog_bytes);
    out += line;
  }
  snprintf(line, sizeof line, "queued in all %zu bytes of %zu\n", queued_, kQueuedBytes);
  return out + line + "ok\n";
}

// COUNT change notifications of one stored object (the same bytes each time)
// to every client that listens for its type, sent as fast as each client
// reads them: a flood is not bound by the backlog of a slow reader.
std::string Server::admin_flood(const std::string &rest) {
  std::istringstream in(rest);
  std::string count_text;
  in >> count_text;
  std::string obj_text;
  std::getline(in, obj_text);
  char *end;
  unsigned long long count = strtoull(count_text.c_str(), &end, 0);
  if (count_text.empty() || *end || count == 0) return error("bad count " + count_text);
  uint32_t type;
  std::unique_ptr<Object> obj;
  std::string why;
  if (!parse_object(obj_text, &type, &obj, &why)) return error(why);
  const Object *found = store_.find_exact(type, Store::key_of(type, obj->rec()));
  if (!found) return error(strerror(ENOENT));
  uint32_t w, bit;
  if (!rts_listen_bit(type, &w, &bit)) return error("no listen bit for this kind");
  std::unique_ptr<Object> copy = clone(type, found->rec());
  copy->hdr().operation = RTS_OP_CHANGE;
  copy->hdr().sender = 0;
  copy->hdr().seq = ++notify_seq_;
  rts_msg_pair pair{type, copy->rec()};
  int n = rts_tlv_encode(&pair, nullptr, nullptr, 0);
  std::vector<uint8_t> bytes(static_cast<size_t>(n));
  rts_tlv_encode(&pair, nullptr, bytes.data(), static_cast<uint32_t>(n));
  int clients = 0;
  for (auto &[id, c] : clients_) {
    if (c.dead || !c.hello || !(c.listen[w] & bit)) continue;
    c.flood_bytes = bytes;
    c.flood_left += count;
    clients++;
    pump(c);
  }
  return "flooding " + std::to_string(count) + " to " + std::to_string(clients) + "\nok\n";
}

std::string Server::admin_fault(const std::string &rest) {
  std::istringstream in(rest);
  std::string what, a, b, c;
  in >> what >> a >> b >> c;
  uint32_t type;
  int err;
  if (what == "clear") {
    faults_.reset();
    return "ok\n";
  }
  if (what == "fail") {
    if (!parse_type(a, &type)) return error("bad type " + a);
    if (!parse_errno(b, &err)) return error("bad errno " + b);
    faults_.fail[type] = err;
    return "ok\n";
  }
  if (what == "silent") {
    if (!parse_type(a, &type)) return error("bad type " + a);
    faults_.silent.insert(type);
    return "ok\n";
  }
  if (what == "raw") {
    std::vector<uint8_t> bytes;
    if (b.size() % 2) return error("odd number of hex digits");
    for (size_t i = 0; i < b.size(); i += 2) {
      char *end;
      std::string two = b.substr(i, 2);
      unsigned long v = strtoul(two.c_str(), &end, 16);
      if (*end) return error("bad hex " + two);
      bytes.push_back(static_cast<uint8_t>(v));
    }
    if (bytes.empty()) return error("no bytes");
    auto shared = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    int sent = 0;
    for (auto &[id, cl] : clients_)
      if (!cl.dead && cl.hello && (a == "all" || a == std::to_string(id)) && send_data(cl, shared, true) == 0) sent++;
    return "sent to " + std::to_string(sent) + "\nok\n";
  }
  if (what == "version") {
    char *end;
    unsigned long v = strtoul((a == "type" ? c : b).c_str(), &end, 0);
    if (*end || v > 255) return error("bad value");
    auto &ver = faults_.versions;
    if (a == "iface") {
      ver[1] = static_cast<uint8_t>(v);
    } else if (a == "count") {
      ver[0] = static_cast<uint8_t>(v);
      ver.resize(std::min<size_t>(v + 1, RTS_VERSION_OPT_LEN), 0);
      if (ver.size() < 2) ver.resize(2, RTS_IFACE_VERSION);
    } else if (a == "type") {
      if (!parse_type(b, &type) || type == 0 || type + 1 >= ver.size()) return error("bad type " + b);
      ver[type + 1] = static_cast<uint8_t>(v);
    } else {
      return error("fault version iface|count|type");
    }
    return "ok\n";
  }
  return error("unknown fault " + what);
}

}  // namespace rtsockd
