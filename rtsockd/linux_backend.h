// rtsockd --linux: the Linux backend's loop side. It dumps the kernel's state
// into the store at start, then turns every rtnetlink event into the peer's
// add, change and delete notifications as it comes.
#pragma once

#include <memory>

#include "linux_mirror.h"
#include "server.h"

namespace rtsockd {

class LinuxBackend {
 public:
  explicit LinuxBackend(Server &server, const Store &store);
  // Subscribes and dumps into the store; false with a log line.
  bool load();
  // Watches the event socket in the server's loop (after Server::start).
  void attach();

 private:
  void ready();
  bool resync();
  int publish(uint8_t op, std::unique_ptr<Object> obj);

  Server &server_;
  nlstate::Watch watch_;
  std::unique_ptr<nlstate::State> state_;
  LinuxMirror mirror_;
};

}  // namespace rtsockd
