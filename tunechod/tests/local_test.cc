// The ping command's local channel on the real task kernel and socket: one
// question a connection, and clients that misbehave.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>
#include <string>

#include "oam/oam.h"
#include "platform/path.h"
#include "responder_fixture.h"
#include "task/evq.h"
#include "task/sched.h"

namespace {

class Local : public Responder {
 protected:
  void SetUp() override {
    Responder::SetUp();
    if (IsSkipped()) return;
    start_fdblearnd("7 100 * bd5 80\n7 200 192.0.2.9 bd6 81\n");
    rts_bd_msg m = bd(RTS_OP_ADD, 7, 5, 100);
    ASSERT_EQ(tunechod_rtsock_decode_bd(&m), 1);
    m = bd(RTS_OP_ADD, 7, 6, 200);
    ASSERT_EQ(tunechod_rtsock_decode_bd(&m), 1);
    task_kernel_init();
    // A pass never blocks: the test decides when events are due.
    task_evq.wait = [](int level, task_kevent *out, int max, const task_utime *) {
      task_utime zero{0, 0};
      int n = task_evq_default.wait(level, out, max, &zero);
      if (level == 0) task_scheduler_stop();  // one pass a task_scheduler_once
      return n;
    };
    // A stale file of an earlier run must not stop the bind.
    std::ofstream(tvx_path(OAM_LOCAL_PATH)) << "stale";
    tunechod_local_rx_init();
  }
  void TearDown() override {
    // The listener lives as long as the daemon; here the test ends first.
    if (!IsSkipped()) {
      std::vector<task *> listeners;
      task *head = task_get_head();
      for (task *tp = head; tp; tp = task_next(tp)) {
        if (!strncmp(tp->task_name, "tunechod-local-rx-task", 22) && (tp->task_flags & TASK_FLAG_ACCEPT))
          listeners.push_back(tp);
        if (task_next(tp) == head) break;
      }
      for (task *tp : listeners) task_delete(tp);
      task_scheduler_run();
    }
    Responder::TearDown();
  }
  int client() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", tvx_path(OAM_LOCAL_PATH).c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0);
    return fd;
  }
  // Runs passes until fd has something to read (an answer or the end).
  std::string answer(int fd) {
    for (int i = 0; i < 20; i++) {
      pollfd p = {fd, POLLIN, 0};
      if (poll(&p, 1, 0) == 1) break;
      task_scheduler_run();
    }
    char buf[64] = {};
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string("<closed>");
  }
  std::string ask(const std::string &q) {
    int fd = client();
    send(fd, q.data(), q.size(), 0);
    std::string a = answer(fd);
    close(fd);
    return a;
  }
};

TEST_F(Local, QuestionsAndAnswers) {
  struct stat st;
  ASSERT_EQ(stat(tvx_path(OAM_LOCAL_PATH).c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(ask(std::string("100/0", 6)), std::string("5\0", 2));
  EXPECT_EQ(ask("200/151126208"), std::string("6\0", 2)) << "VTEP 192.0.2.9 as the number of its bytes";
  EXPECT_EQ(ask("100"), std::string("5\0", 2)) << "no '/': the address is 0";
  EXPECT_EQ(ask("300/0"), std::string("0\0", 2)) << "unknown VNI";
  EXPECT_EQ(ask("x/y"), std::string("0\0", 2));
  EXPECT_TRUE(traced("lookup Fdblearnd for VNI:200 rvtep-dest:192.0.2.9 found bd_id:6 bdname:bd6 rvtep_ifl_idx:81"));
}

TEST_F(Local, ClientsThatMisbehave) {
  // Closes at once: answered "0" into the void, the task still closed.
  close(client());
  for (int i = 0; i < 3; i++) task_scheduler_run();
  // A question in two pieces is answered from the first.
  int fd = client();
  send(fd, "10", 2, 0);
  std::string a = answer(fd);
  EXPECT_EQ(a, std::string("0\0", 2));
  close(fd);
  // A megabyte: read once, answered, closed.
  fd = client();
  std::string mb(1 << 20, '1');
  send(fd, mb.data(), mb.size(), MSG_DONTWAIT);
  EXPECT_EQ(answer(fd), std::string("0\0", 2));
  close(fd);
  // Connections that never write hold a slot each; past the cap new ones
  // are closed at once, and the channel answers again once they go.
  std::vector<int> idle;
  for (int i = 0; i < 64; i++) {
    idle.push_back(client());
    task_scheduler_run();
  }
  int over = client();
  EXPECT_EQ(answer(over), "<closed>");
  close(over);
  for (int s : idle) close(s);
  for (int i = 0; i < 8; i++) task_scheduler_run();
  EXPECT_EQ(ask("100/0"), std::string("5\0", 2));
}

}  // namespace
