// rtsockd -f STATE | --linux [-s SOCKET]: the route-socket peer, in the
// foreground, logging to standard error.
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/path.h"
#include "rtsock/rts_lower.h"
#include "linux_backend.h"
#include "server.h"

using namespace rtsockd;

namespace {

// Each line of the state file is an object as the admin socket's "add" takes
// it, or the counters of an interface as "stats set" takes them.
bool load(const char *file, Store &store) {
  std::ifstream in(file);
  if (!in) {
    log("cannot read %s", file);
    return false;
  }
  std::string line;
  for (int n = 1; std::getline(in, line); n++) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    uint32_t type;
    std::unique_ptr<Object> obj;
    std::string why;
    if (line.compare(start, 8, "ifdstats") == 0 || line.compare(start, 8, "iflstats") == 0) {
      if (!store.counters.set(line.substr(start), false, &why)) {
        log("%s:%d: %s", file, n, why.c_str());
        return false;
      }
      continue;
    }
    if (!parse_object(line.substr(start), &type, &obj, &why)) {
      log("%s:%d: %s", file, n, why.c_str());
      return false;
    }
    if (int err = store.apply(RTS_OP_ADD, std::move(obj))) {
      log("%s:%d: %s", file, n,
          err == EEXIST ? "already given" : err == ENOSPC ? Store::quota_text().c_str() : strerror(err));
      return false;
    }
  }
  return true;
}

}  // namespace

const char kUsage[] =
    "usage: rtsockd -f STATE [-s SOCKET]\n"
    "       rtsockd --linux [-s SOCKET]\n"
    "  -f STATE   the state file: one object a line, \"KIND field=value ...\"\n"
    "  --linux    mirror this host's own links, addresses, VXLAN devices in bridges (as bridge\n"
    "             domains) and bridge forwarding entries over rtnetlink, following every change\n"
    "  -s SOCKET  the route-socket path (default $RTSOCK_PATH, else /var/run/rtsock under the root);\n"
    "             the admin socket is SOCKET.admin\n"
    "Exit status: 0 when stopped by TERM or INT, 1 when it cannot start, 2 on a usage error.\n"
    "See docs/rtsockd.md.\n";

int main(int argc, char **argv) {
  for (int i = 1; i < argc; i++)
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
  const char *state = nullptr;
  bool linux_state = false;
  std::string path;
  static const option kLong[] = {{"linux", no_argument, nullptr, 'L'}, {nullptr, 0, nullptr, 0}};
  int opt;
  while ((opt = getopt_long(argc, argv, "f:s:", kLong, nullptr)) != -1) {
    if (opt == 'f') {
      state = optarg;
    } else if (opt == 'L') {
      linux_state = true;
    } else if (opt == 's') {
      path = optarg;
    } else {
      fputs(kUsage, stderr);
      return 2;
    }
  }
  if (!state == !linux_state || optind != argc) {
    if (optind == argc)
      fprintf(stderr, "rtsockd: %s\n", state ? "-f and --linux exclude each other" : "no state: give -f STATE or --linux");
    fputs(kUsage, stderr);
    return 2;
  }
  if (path.empty()) {
    char buf[108];
    if (!rts_peer_path(buf, sizeof buf)) {
      log("socket path too long");
      return 1;
    }
    path = buf;
  }
  std::string dir = path.substr(0, path.rfind('/'));
  if (!dir.empty() && dir != path) tvx_mkdirs(dir.c_str(), 0755);
  Store store;
  if (state && !load(state, store)) return 1;
  Server server(store, path);
  LinuxBackend kernel(server, store);
  if (linux_state && !kernel.load()) return 1;
  if (!server.start()) return 1;
  if (linux_state) kernel.attach();
  log("serving %zu objects on %s, admin on %s", store.size(), server.path().c_str(),
      server.admin_path().c_str());
  return server.run();
}
