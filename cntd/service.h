// What cntd answers, apart from its sockets: the counters it holds (the
// same lines as rtsockd's "iflstats" and "ifdstats" counters), the faults an
// admin injects, the parser of libstats requests and the replies it builds,
// and the admin commands. Everything here is a function of bytes in and
// bytes out, so that tests and the fuzzer drive it without sockets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stats.h"

namespace cntd {

struct Faults {
  uint32_t error = 0;   // every interface reply fails with this errno
  bool empty = false;   // every interface reply comes without figures
  bool drop = false;    // requests get no answer
  bool close = false;   // the session of the next request is closed
};

struct Tally {
  uint64_t requests = 0, replies = 0, malformed = 0, dropped = 0;
};

// What one request came to.
enum class Outcome { reply, none, close };

class Service {
 public:
  rtsockd::Counters counters;
  Faults faults;
  Tally tally;

  // One request: payload (a libstats message) of an ipcconn message of this
  // subtype. Fills reply (a whole libstats message) for Outcome::reply.
  // Anything malformed is counted and gets no answer.
  Outcome request(uint32_t subtype, const uint8_t *payload, uint32_t len, uint64_t now, std::vector<uint8_t> *reply);

  // One admin command line; the reply's text, its last line "ok" or
  // "error: why". *push gets the libstats messages an admin sends to every
  // session (trace on, trace off).
  std::string admin(const std::string &line, uint64_t now, std::vector<std::vector<uint8_t>> *push);

  // An interface's reply TLVs from its counters (absolute: no baseline).
  static std::vector<uint8_t> figures(const rtsockd::StatsEntry &e, bool absolute);
};

}  // namespace cntd
