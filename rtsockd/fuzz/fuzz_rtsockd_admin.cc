// rtsockd's admin commands on any bytes, one command a line, against a store
// that starts empty: every reply ends with its "ok" line or is one
// "error: ..." line, and the server survives whatever the lines ask.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "server.h"

using namespace rtsockd;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  Store store;
  Server server(store, "/nonexistent/rtsock");
  size_t start = 0;
  for (int lines = 0; start <= text.size() && lines < 64; lines++) {
    size_t nl = text.find('\n', start);
    std::string line = text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    start = nl == std::string::npos ? text.size() + 1 : nl + 1;
    std::string reply = server.command(line);
    bool ok = reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "ok\n") == 0 &&
              (reply.size() == 3 || reply[reply.size() - 4] == '\n');
    bool error = reply.rfind("error: ", 0) == 0 && reply.find('\n') == reply.size() - 1;
    if (!ok && !error) {
      std::fprintf(stderr, "reply to \"%s\" neither ends with ok nor is one error line:\n%s\n", line.c_str(),
                   reply.c_str());
      abort();
    }
  }
  return 0;
}
