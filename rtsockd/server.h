// The server of rtsockd: clients on the route-socket path, the admin socket,
// notifications by listen mask, and the faults that the admin socket injects.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "peer.h"

namespace rtsockd {

void log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

struct Client {
  int id = 0;
  int data = -1;
  int ctl = -1;
  bool hello = false;
  bool dead = false;
  uint8_t sender = 0;
  uint32_t listen[2] = {};
  uint32_t sync_mode = 0;
  uint32_t bulk[3] = {};  // errno, accepted, messages of the last bulk write
  std::map<int, std::vector<uint8_t>> options;  // the other options, kept as set
  std::deque<std::vector<uint8_t>> backlog;    // notifications waiting for room
  size_t backlog_bytes = 0;
  uint64_t dropped = 0;
  bool stalled = false;
  // A flood (admin "flood"): copies of one notification still to send, paced
  // by the client's reading rather than its backlog.
  uint64_t flood_left = 0;
  std::vector<uint8_t> flood_bytes;
};

struct Faults {
  std::map<uint32_t, int> fail;  // type: the errno of every write of it
  std::set<uint32_t> silent;     // types whose writes get no answer
  std::vector<uint8_t> versions; // the version option as the peer gives it
  void reset();
};

class Server {
 public:
  Server(Store &store, std::string path);
  ~Server();
  // Binds both sockets; false with a log line.
  bool start();
  // Serves until SIGTERM or SIGINT; the exit status.
  int run();
  const std::string &path() const { return path_; }
  std::string admin_path() const { return path_ + ".admin"; }

  // One admin command; the reply's lines, the last "ok" or "error: ...".
  std::string command(const std::string &line);

 private:
  struct AdminConn {
    int fd;
    std::string in;
  };
  void accept_client();
  void accept_admin();
  void on_data(Client &c);
  void on_ctl(Client &c);
  void on_admin(AdminConn &a);
  void flush(Client &c);
  void pump(Client &c);
  void drop(Client &c, const char *why);
  bool hello(Client &c, const uint8_t *buf, ssize_t n, int passed_fd);
  int handle(Client &c, const uint8_t *buf, size_t n);
  int handle_one(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies);
  int handle_raw(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies);
  int setopt(Client &c, int name, const uint8_t *value, uint32_t len);
  int getopt(Client &c, int name, std::vector<uint8_t> *value);
  bool send_ctl(Client &c, uint32_t op, int name, int error, const void *value, uint32_t len);
  int send_data(Client &c, const std::vector<uint8_t> &bytes, bool notification);
  void notify(uint32_t type, uint8_t op, void *record, uint32_t sender, const Client *origin);
  void watch(int fd, uint32_t events, uint64_t tag, bool modify = false);
  void reap();
  std::string admin_change(uint8_t op, const std::string &rest);
  std::string admin_fault(const std::string &rest);
  std::string admin_show(const std::string &rest);
  std::string admin_clients();
  std::string admin_flood(const std::string &rest);

  Store &store_;
  std::string path_;
  int epfd_ = -1, listen_ = -1, admin_ = -1, sigfd_ = -1;
  int next_id_ = 1;
  uint32_t notify_seq_ = 0;
  std::map<int, Client> clients_;
  std::map<int, AdminConn> admins_;
  Faults faults_;
  std::vector<uint8_t> rbuf_;
  std::vector<uint8_t> arena_;
};

}  // namespace rtsockd
