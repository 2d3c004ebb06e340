// The Linux backend's loop side: the dump at start, events as they come, and
// a new dump when the kernel dropped events.
#include "linux_backend.h"

#include <cerrno>
#include <cstring>

namespace rtsockd {

LinuxBackend::LinuxBackend(Server &server, const Store &store)
    : server_(server),
      state_(std::make_unique<nlstate::State>()),
      mirror_(store, [this](uint8_t op, std::unique_ptr<Object> obj) { return publish(op, std::move(obj)); }) {}

int LinuxBackend::publish(uint8_t op, std::unique_ptr<Object> obj) {
  const uint32_t type = obj->type;
  int err = server_.publish(op, std::move(obj));
  if (err)
    log("linux: cannot %s a %s: %s", rts_op_name(op), kind_name(type),
        err == ENOSPC ? Store::quota_text().c_str() : strerror(err));
  return err;
}

bool LinuxBackend::load() {
  if (int err = watch_.open()) {
    log("linux: cannot open rtnetlink: %s", strerror(err));
    return false;
  }
  if (!resync()) return false;
  log("linux: mirroring %zu links, %zu addresses, %zu forwarding entries", state_->links().size(),
      state_->addrs().size(), state_->fdbs().size());
  return true;
}

bool LinuxBackend::resync() {
  auto fresh = std::make_unique<nlstate::State>();
  if (int err = watch_.dump([&](const nlstate::Event &e) { fresh->apply(e); })) {
    log("linux: dump failed: %s", strerror(err));
    return false;
  }
  state_ = std::move(fresh);
  mirror_.full(*state_);
  return true;
}

void LinuxBackend::attach() {
  server_.watch_source(watch_.fd(), [this] { ready(); });
}

void LinuxBackend::ready() {
  int err = watch_.read([&](const nlstate::Event &e) { mirror_.changed(*state_, state_->apply(e)); });
  if (err == ENOBUFS) {
    // Events were lost: what they said is in a new dump. Those still queued
    // behind the overrun converge on it.
    log("linux: the kernel dropped events: reading its state again");
    resync();
  } else if (err) {
    log("linux: rtnetlink: %s", strerror(err));
  }
}

}  // namespace rtsockd
