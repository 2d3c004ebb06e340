// The server of rtsockd: clients on the route-socket path, the admin socket,
// notifications by listen mask, and the faults that the admin socket injects.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "peer.h"

namespace rtsockd {

void log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The bounds of what local users can make the peer hold.
constexpr size_t kMaxClients = 256;        // route-socket clients; more wait to be accepted
constexpr size_t kMaxAdmins = 16;          // admin connections; more wait to be accepted
constexpr size_t kMaxRecord = 1 << 20;     // bytes of one record; a bulk write may carry many messages
constexpr size_t kBacklogMessages = 4096;  // notifications kept for one client that does not read
constexpr size_t kBacklogBytes = 4 << 20;  // ... and their bytes
constexpr size_t kQueuedBytes = 16 << 20;  // ... and for all clients together
constexpr size_t kQueueEntryCost = 64;     // what a queued notification costs besides its bytes

using Bytes = std::shared_ptr<const std::vector<uint8_t>>;

struct Client {
  int id = 0;
  int data = -1;
  int ctl = -1;
  int room = -1;  // a descriptor held until the hello, so that its control socket has a slot
  bool hello = false;
  bool dead = false;
  uint8_t sender = 0;
  uint32_t listen[2] = {};
  uint32_t sync_mode = 0;
  uint32_t bulk[3] = {};  // errno, accepted, messages of the last bulk write
  uint32_t data_sent = 0;  // records put on the data socket, told with each verdict
  std::map<int, std::vector<uint8_t>> options;  // the other options, kept as set
  std::vector<uint8_t> filter;  // the compiled filter its notifications pass, if any
  std::deque<Bytes> backlog;  // notifications waiting for room, shared between clients
  size_t backlog_bytes = 0;   // their bytes, each with kQueueEntryCost
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
  // A change from another source than the clients and the admin socket (the
  // Linux backend): applied to the store and told to every listener, as the
  // admin socket's are. 0 or the store's errno. A deletion is given the
  // object as it was.
  int publish(uint8_t op, std::unique_ptr<Object> obj);
  // Another descriptor that the loop watches for reading, after start();
  // ready is called each time it is readable.
  void watch_source(int fd, std::function<void()> ready);
  // One record of a client that has said hello, as its data socket gave it:
  // the verdict, and in *replies the replies that go back with it. (The
  // record fuzzer's entry too.)
  int record(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies) {
    return handle(c, buf, n, replies);
  }

 private:
  struct AdminConn {
    int fd = -1;
    std::string in;   // what came in, commands not yet answered
    std::string out;  // the reply, as far as the socket has not taken it
    // A "show" sent as the socket drains: the type it is at, the last key
    // sent, the only type asked for (0: all).
    bool showing = false;
    bool show_started = false;
    uint32_t show_type = 0, show_only = 0;
    std::string show_key;
    bool writing = false;  // watched for room rather than for commands
  };
  // A listening socket, paused while the peer cannot take another connection.
  struct Gate {
    int fd = -1;
    uint64_t tag = 0;
    bool paused = false;
    bool at_cap = false;   // the cap was reached, logged once
    bool starved = false;  // paused out of descriptors
  };
  void accept_clients();
  void accept_admins();
  void pause(Gate &g);
  void resume_all();
  void out_of_descriptors(Gate &g, int err);
  void accepted_all(Gate &g);
  bool show_more(AdminConn &a, size_t budget);
  void serve_admin(AdminConn &a);
  void close_admin(AdminConn &a);
  bool enqueue(Client &c, const Bytes &bytes);
  void on_data(Client &c);
  void on_ctl(Client &c);
  void on_admin(AdminConn &a, uint32_t events);
  void flush(Client &c);
  void pump(Client &c);
  void drop(Client &c, const char *why);
  bool hello(Client &c, const uint8_t *buf, ssize_t n, int passed_fd);
  int handle(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies);
  void answer(Client &c, int verdict, std::vector<uint8_t> &replies);
  int handle_one(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies);
  int handle_raw(Client &c, const uint8_t *buf, size_t n, std::vector<uint8_t> *replies);
  void reply_with(uint32_t type, const Object *found, const rts_msg_hdr &request, bool tlv,
                  std::vector<uint8_t> *replies);
  int setopt(Client &c, int name, const uint8_t *value, uint32_t len);
  int getopt(Client &c, int name, std::vector<uint8_t> *value);
  int set_filter(Client &c, const uint8_t *value, uint32_t len);
  bool send_ctl(Client &c, uint32_t op, int name, int error, const void *value, uint32_t len);
  int send_data(Client &c, const Bytes &bytes, bool notification);
  void notify(uint32_t type, uint8_t op, void *record, uint32_t sender, const Client *origin);
  void watch(int fd, uint32_t events, uint64_t tag, bool modify = false);
  void reap();
  std::string admin_change(uint8_t op, const std::string &rest);
  std::string admin_fault(const std::string &rest);
  std::string admin_show(const std::string &rest);
  std::string admin_clients();
  std::string admin_flood(const std::string &rest);
  std::string admin_stats(const std::string &rest);

  Store &store_;
  std::string path_;
  int epfd_ = -1, sigfd_ = -1, devnull_ = -1;
  Gate listen_, admin_;
  bool made_data_ = false, made_admin_ = false;  // the socket files this process made
  // Out of descriptors: logged once, retried when a descriptor is closed or
  // after a back-off that doubles to its cap.
  bool starved_ = false;
  int backoff_ms_ = 0;
  int64_t retry_at_ms_ = 0;
  size_t queued_ = 0;  // backlog bytes of all clients
  int next_id_ = 1;
  uint32_t notify_seq_ = 0;
  std::map<int, Client> clients_;
  std::map<int, AdminConn> admins_;
  Faults faults_;
  std::vector<std::function<void()>> sources_;
  std::vector<uint8_t> rbuf_;
  std::vector<uint8_t> arena_;
  std::vector<uint8_t> replies_;  // of the record in hand
};

}  // namespace rtsockd
