// The admin socket: one text command per line, the reply's last line "ok" or
// "error: ...". Changes to the stores notify the listening clients.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
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

void Server::accept_admin() {
  for (;;) {
    int fd = accept4(admin_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    admins_[fd] = AdminConn{fd, {}};
    watch(fd, EPOLLIN, uint64_t{6} << 32 | static_cast<uint32_t>(fd));
  }
}

void Server::on_admin(AdminConn &a) {
  char buf[4096];
  ssize_t n = recv(a.fd, buf, sizeof buf, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0 || a.in.size() > 65536) {
    close(a.fd);
    admins_.erase(a.fd);
    return;
  }
  a.in.append(buf, static_cast<size_t>(n));
  size_t nl;
  while ((nl = a.in.find('\n')) != std::string::npos) {
    std::string line = a.in.substr(0, nl);
    a.in.erase(0, nl + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::string reply = command(line);
    // Admin replies are small; a connection that does not read them loses them.
    if (send(a.fd, reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 && errno != EAGAIN) {
      close(a.fd);
      admins_.erase(a.fd);
      return;
    }
  }
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
  if (verb == "show") return admin_show(rest);
  if (verb == "clients") return admin_clients();
  if (verb == "fault") return admin_fault(rest);
  if (verb == "help")
    return "add|change|delete KIND field=value ...\nshow [KIND]\nclients\n"
           "fault fail KIND|TYPE ERRNO | fault silent KIND|TYPE | fault raw all|CLIENT HEX\n"
           "fault version iface N | fault version count N | fault version type TYPE N | fault clear\nok\n";
  return error("unknown command " + verb);
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
  std::string out;
  for (uint32_t t = 0; t < RTS_TYPE_COUNT; t++) {
    if (only && t != only) continue;
    for (auto &[key, obj] : store_.table(t)) out += print_object(t, obj->rec()) + "\n";
  }
  return out + "ok\n";
}

std::string Server::admin_clients() {
  std::string out;
  char line[256];
  for (auto &[id, c] : clients_) {
    if (c.dead) continue;
    snprintf(line, sizeof line, "client %d sender %u listen 0x%x 0x%x backlog %zu dropped %llu\n", id,
             c.sender, c.listen[0], c.listen[1], c.backlog.size(), static_cast<unsigned long long>(c.dropped));
    out += line;
  }
  return out + "ok\n";
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
    int sent = 0;
    for (auto &[id, cl] : clients_)
      if (!cl.dead && cl.hello && (a == "all" || a == std::to_string(id)) && send_data(cl, bytes, true) == 0) sent++;
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
