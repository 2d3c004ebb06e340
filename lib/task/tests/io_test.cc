// Socket I/O: the dispatch order of one pass, deletion during a pass, hooks,
// real loopback packets with their control data, options and readiness.
#include <net/if.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "io_fixture.h"

using namespace tt;

namespace {

std::vector<std::string> calls;

void note(task *tp) { calls.push_back(std::string(task_name(tp)) + ":r"); }
void note_w(task *tp) { calls.push_back(std::string(task_name(tp)) + ":w"); }

task_kevent rd(task *tp) {
  return task_kevent{static_cast<uintptr_t>(tp->task_socket), TASK_EVFILT_READ, 0, 0, 0, &tp->task_kevent_udata};
}
task_kevent wr(task *tp) {
  return task_kevent{static_cast<uintptr_t>(tp->task_socket), TASK_EVFILT_WRITE, 0, 0, 0, &tp->task_kevent_udata};
}

// A task on one end of a datagram socket pair (the other end is returned).
task *pair_task(const char *name, task_method r, task_method w, int *peer, uint32_t flags = 0) {
  int sv[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
  task *tp = task_alloc(name, 10, nullptr);
  tp->task_flags |= flags;
  task_set_recv(tp, r);
  task_set_write(tp, w);
  task_set_socket(tp, sv[0]);
  task_create(tp);
  *peer = sv[1];
  return tp;
}

}  // namespace

// ---- Dispatch order ------------------------------------------------------------

class Dispatch : public Kernel {
 protected:
  void SetUp() override {
    Kernel::SetUp();
    calls.clear();
  }
};

TEST_F(Dispatch, QueueZeroReadsThenTheLowQueueInTheSamePass) {
  int p[4];
  task *a = pair_task("a", note, note_w, &p[0]);
  task *b = pair_task("b", note, nullptr, &p[1]);
  task *low = pair_task("low", note, nullptr, &p[2], TASK_FLAG_LOWPRIO);
  task *w = pair_task("w", nullptr, note_w, &p[3]);
  int q1 = task_var_io(nullptr)->task_eventQ[1];
  task_kevent level1{static_cast<uintptr_t>(q1), TASK_EVFILT_READ, 0, 0, 0, nullptr};
  // Queue 1's readiness sits in the middle of queue 0's list: its events still come after.
  script.push_back({rd(a), level1, rd(b)});
  script.push_back({wr(w), rd(low), wr(a)});
  passes(1);
  EXPECT_EQ(calls, (std::vector<std::string>{"a:r", "b:r", "w:w", "low:r", "a:w"}));
  auto &ss = task_var_scheduler(nullptr)->sched_stats.ss;
  EXPECT_EQ(ss[SCHED_STAT_READS0], 2u);
  EXPECT_EQ(ss[SCHED_STAT_READS1], 1u);
  EXPECT_EQ(ss[SCHED_STAT_WRITES], 2u);
  for (int fd : p) close(fd);
}

task *victim;
void deleter(task *tp) {
  calls.push_back("deleter");
  task_delete(victim);
  task_delete(tp);
}

TEST_F(Dispatch, TaskDeletedByAnEarlierEntryIsSkipped) {
  int p1, p2;
  task *d = pair_task("d", deleter, nullptr, &p1);
  victim = pair_task("victim", note, note_w, &p2);
  script.push_back({rd(d), rd(victim), wr(victim)});
  passes(1);
  EXPECT_EQ(calls, std::vector<std::string>{"deleter"});
  EXPECT_EQ(victim->task_socket, -1);
  passes(3);  // the collect job frees both records
  close(p1);
  close(p2);
}

TEST_F(Dispatch, LowPrioReadsAndAllWritesRegisterOnQueueOne) {
  // Real queues, so the registrations themselves are what is tested.
  task_evq.wait = task_evq_default.wait;
  int p1, p2;
  task *hi = pair_task("hi", note, note_w, &p1);
  task *lo = pair_task("lo", note, nullptr, &p2, TASK_FLAG_LOWPRIO);
  ASSERT_EQ(send(p1, "x", 1, 0), 1);
  ASSERT_EQ(send(p2, "y", 1, 0), 1);
  task_io_var *io = task_var_io(nullptr);
  task_kevent out[8];
  task_utime zero{0, 0};
  int n = task_evq_default.wait(0, out, 8, &zero);
  // queue 0: hi's read and queue 1's readiness (lo's read, hi's write)
  ASSERT_EQ(n, 2);
  bool saw_q1 = false, saw_hi = false;
  for (int i = 0; i < n; i++) {
    if (!out[i].udata) saw_q1 = static_cast<int>(out[i].ident) == io->task_eventQ[1];
    if (out[i].udata == &hi->task_kevent_udata) saw_hi = out[i].filter == TASK_EVFILT_READ;
  }
  EXPECT_TRUE(saw_q1);
  EXPECT_TRUE(saw_hi);
  n = task_evq_default.wait(1, out, 8, &zero);
  ASSERT_EQ(n, 2);
  for (int i = 0; i < n; i++) {
    if (out[i].udata == &lo->task_kevent_udata) {
      EXPECT_EQ(out[i].filter, TASK_EVFILT_READ);
    } else {
      EXPECT_EQ(out[i].udata, &hi->task_kevent_udata);
      EXPECT_EQ(out[i].filter, TASK_EVFILT_WRITE);
    }
  }
  close(p1);
  close(p2);
}

// ---- Readiness ------------------------------------------------------------------------

int reads;
void count_read(task *tp) {
  reads++;
  char b[64];
  while (recv(tp->task_socket, b, sizeof b, 0) > 0) {
  }
}

TEST_F(Io, ReadDisableSkipsAndEnableRestores) {
  reads = 0;
  int peer;
  task *tp = pair_task("t", count_read, nullptr, &peer);
  task_read_disable(tp);
  EXPECT_TRUE(task_flag_test(tp, TASK_FLAG_READDISABLE));
  ASSERT_EQ(send(peer, "x", 1, 0), 1);
  real_passes(2);
  EXPECT_EQ(reads, 0);
  task_read(tp);  // refused while disabled
  EXPECT_EQ(reads, 0);
  task_read_enable(tp);
  real_passes(2);
  EXPECT_EQ(reads, 1);
  task_read(tp);  // as if the event had come
  EXPECT_EQ(reads, 2);
  // A synthetic event for a disabled task is dropped too.
  task_read_disable(tp);
  task_evq.wait = [](int, task_kevent *, int, const task_utime *) { return 0; };
  task_io_var *io = task_var_io(nullptr);
  io->task_eventlist[0] = rd(tp);
  task_process_events_internal(&task_var_scheduler(nullptr)->sched_stats, io, 1);
  EXPECT_EQ(reads, 2);
  close(peer);
}

TEST_F(Io, ReadEventWithoutMethodLogsOnceAndDoesNotSpin) {
  evlog_capture &cap = evlog_capture_start();
  int peer;
  task *tp = pair_task("mute", nullptr, nullptr, &peer);
  task_read_enable(tp);  // interest, but nobody to read
  ASSERT_EQ(send(peer, "x", 1, 0), 1);
  real_passes(5);
  int n = 0;
  for (auto &r : cap.records)
    if (r.tag == "ZTASK_NO_SOCKACCEPT") {
      n++;
      EXPECT_NE(r.text.find("no read/accept method for mute socket"), std::string::npos) << r.text;
    }
  EXPECT_EQ(n, 1);
  EXPECT_EQ(task_var_scheduler(nullptr)->sched_stats.ss[SCHED_STAT_READS0], 0u);
  evlog_capture_stop();
  close(peer);
}

TEST_F(Io, ResetSocketClearsMethodsAndRegistrations) {
  int peer;
  task *tp = pair_task("r", count_read, note_w, &peer);
  int s = tp->task_socket;
  tp->task_flags |= TASK_FLAG_ACCEPT | TASK_FLAG_CONNECT;
  task_reset_socket(tp);
  EXPECT_EQ(tp->task_socket, -1);
  EXPECT_FALSE(task_flag_test(tp, TASK_FLAG_ACCEPT | TASK_FLAG_CONNECT));
  EXPECT_EQ(tp->task_recv, nullptr);
  EXPECT_EQ(tp->task_write, nullptr);
  // A registration left behind would survive in the descriptor: none is.
  task_io_var *io = task_var_io(nullptr);
  for (int q : io->task_eventQ) {
    epoll_event ev{};
    EXPECT_EQ(epoll_ctl(q, EPOLL_CTL_DEL, s, &ev), -1);
    EXPECT_EQ(errno, ENOENT);
  }
  close(s);
  close(peer);
}

TEST_F(Io, SetSocketTwiceWithAnotherDescriptorAsserts) {
  int peer;
  task *tp = pair_task("t", count_read, nullptr, &peer);
  EXPECT_DEATH(task_set_socket(tp, peer), "tp->task_socket == s");
  close(peer);
}

// ---- Hooks -------------------------------------------------------------------------------

task_io_hook *self_removing, *other_hook;
int hook_calls;
void remove_self(task *, void *arg) {
  hook_calls++;
  char b[8];
  (void)!read(*static_cast<int *>(arg), b, sizeof b);
  task_io_hook_remove(self_removing);
  task_io_hook_remove(other_hook);
}
void never(task *, void *) { ADD_FAILURE() << "removed hook called"; }

TEST_F(Io, HookRemovedInsideItsOwnCallbackAndLaterInTheSameList) {
  hook_calls = 0;
  int p1[2], p2[2];
  ASSERT_EQ(pipe2(p1, O_NONBLOCK), 0);
  ASSERT_EQ(pipe2(p2, O_NONBLOCK), 0);
  self_removing = task_io_hook_add(p1[0], keeper, &p1[0], remove_self, "self");
  other_hook = task_io_hook_add(p2[0], keeper, &p2[0], never, "a name longer than twenty-four bytes");
  ASSERT_NE(other_hook, nullptr);
  EXPECT_STREQ(other_hook->hook_name, "a name longer than twen");  // 24 bytes with the end
  ASSERT_EQ(write(p1[1], "x", 1), 1);
  ASSERT_EQ(write(p2[1], "y", 1), 1);
  // Both in one list, the self-removing one first.
  task_io_var *io = task_var_io(nullptr);
  task_evq.wait = [](int, task_kevent *, int, const task_utime *) { return 0; };
  io->task_eventlist[0] = task_kevent{static_cast<uintptr_t>(p1[0]), TASK_EVFILT_READ, 0, 0, 0, self_removing};
  io->task_eventlist[1] = task_kevent{static_cast<uintptr_t>(p2[0]), TASK_EVFILT_READ, 0, 0, 0, other_hook};
  task_process_events_internal(&task_var_scheduler(nullptr)->sched_stats, io, 2);
  EXPECT_EQ(hook_calls, 1);
  EXPECT_EQ(keeper->task_hooks, nullptr);
  EXPECT_NE(io->task_hook_collect_job, nullptr);
  task_evq.wait = real_wait;
  real_passes(3);  // the collect job frees them; nothing is watched any more
  EXPECT_EQ(io->task_hook_collect_list, nullptr);
  EXPECT_EQ(hook_calls, 1);
  for (int fd : {p1[0], p1[1], p2[0], p2[1]}) close(fd);
}

int hook_reads;
void hook_read(task *tp, void *arg) {
  EXPECT_EQ(task_current(), tp);
  char b[8];
  hook_reads += static_cast<int>(read(*static_cast<int *>(arg), b, sizeof b));
}

TEST_F(Io, HookControlAndTaskDeleteRemovesHooks) {
  hook_reads = 0;
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  task *tp = task_alloc("hooked", 5, nullptr);
  task_create(tp);
  task_io_hook *h = task_io_hook_add(p[0], tp, &p[0], hook_read, "h");
  ASSERT_EQ(write(p[1], "ab", 2), 2);
  real_passes(1);
  EXPECT_EQ(hook_reads, 2);
  task_io_hook_control(h, TASK_IO_HOOK_DISABLE);
  ASSERT_EQ(write(p[1], "c", 1), 1);
  real_passes(2);
  EXPECT_EQ(hook_reads, 2);
  task_io_hook_control(h, TASK_IO_HOOK_ENABLE);
  real_passes(1);
  EXPECT_EQ(hook_reads, 3);
  EXPECT_DEATH(task_io_hook_control(h, 9), "invalid task_io_hook_control");
  EXPECT_EQ(task_io_hook_add(p[0], tp, nullptr, nullptr, "x"), nullptr);
  task_delete(tp);
  EXPECT_TRUE(h->hook_deleted);
  ASSERT_EQ(write(p[1], "d", 1), 1);
  real_passes(3);
  EXPECT_EQ(hook_reads, 3);
  close(p[0]);
  close(p[1]);
}

// ---- Packets on loopback ---------------------------------------------------------------------

int sender() {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_GE(s, 0);
  return s;
}
void send_to(int s, uint16_t port, const void *data, size_t n) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(sendto(s, data, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), static_cast<ssize_t>(n));
}

void nop_read(task *) {}

TEST_F(Io, LoopbackReceiveWithDestinationAndInterface) {
  task *tp;
  uint16_t port = udp_task(&tp, nop_read);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RCVDSTADDR, 1), 0);
  int s = sender();
  send_to(s, port, "hello", 5);
  size_t n = 0;
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(task_get_recv_buffer()), n), "hello");
  const task_recv_info *ri = task_get_recv_info();
  ASSERT_NE(ri->tri_dst, nullptr);
  EXPECT_EQ(addr_text(ri->tri_dst, 0), "127.0.0.1");
  EXPECT_EQ(ri->tri_ifindex, static_cast<int>(if_nametoindex("lo")));
  EXPECT_EQ(ri->tri_rtbl_index, TASK_RTBL_INDEX_NONE);  // no "RecvRtb"
  sockaddr_in me{};
  socklen_t ml = sizeof me;
  getsockname(s, reinterpret_cast<sockaddr *>(&me), &ml);
  EXPECT_EQ(addr_text(ri->tri_src), "127.0.0.1+" + std::to_string(ntohs(me.sin_port)));
  EXPECT_EQ(tp->task_recv_count, 1u);
  EXPECT_EQ(task_receive_packet(tp, &n), EAGAIN);

  // Without control data the next datagram does not inherit the last one's address.
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RCVDSTADDR, 0), 0);
  send_to(s, port, "x", 1);
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(ri->tri_dst, nullptr);
  EXPECT_EQ(ri->tri_ifindex, 0);
  EXPECT_NE(ri->tri_src, nullptr);

  // A zero-length datagram reads as end of stream.
  send_to(s, port, "", 0);
  EXPECT_EQ(task_receive_packet(tp, &n), -1);
  close(s);
}

TEST_F(Io, TruncatedDatagramIsReportedAndDropped) {
  evlog_capture &cap = evlog_capture_start();
  task *tp;
  uint16_t port = udp_task(&tp, nop_read);
  int s = sender();
  send_to(s, port, "0123456789abcdef0123", 20);
  send_to(s, port, "ok", 2);
  sockaddr_storage from;
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  uint8_t small[8];
  size_t n = 99;
  EXPECT_EQ(task_receive_packet_internal(tp, &msg, small, sizeof small, true, &n), -2);
  EXPECT_EQ(n, 0u);
  ASSERT_FALSE(cap.records.empty());
  EXPECT_EQ(cap.records.back().tag, "ZTASK_PACKET_TRUNCATED");
  EXPECT_NE(cap.records.back().text.find("packet from 127.0.0.1+"), std::string::npos) << cap.records.back().text;
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(n, 2u);
  evlog_capture_stop();
  close(s);
}

// Control data that does not fit the caller's buffer is reported and left
// unparsed; the datagram itself is kept.
TEST_F(Io, TruncatedControlDataIsLoggedAndThePacketKept) {
  task *tp;
  uint16_t port = udp_task(&tp, nop_read);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RCVDSTADDR, 1), 0);
  int s = sender();
  send_to(s, port, "cut", 3);
  send_to(s, port, "whole", 5);
  evlog_capture &cap = evlog_capture_start();
  sockaddr_storage from;
  alignas(cmsghdr) uint8_t ctrl[sizeof(cmsghdr)];  // a header, no room for IP_PKTINFO's data
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_control = ctrl;
  msg.msg_controllen = sizeof ctrl;
  size_t n = 0;
  ASSERT_EQ(task_receive_packet_internal(tp, &msg, task_get_recv_buffer(), task_get_recv_buffer_size(), true, &n), 0);
  EXPECT_EQ(n, 3u);
  const task_recv_info *ri = task_get_recv_info();
  EXPECT_EQ(ri->tri_dst, nullptr);
  EXPECT_EQ(ri->tri_ifindex, 0);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].priority, LOG_ERR);
  EXPECT_EQ(cap.records[0].tag, "ZTASK_PACKET_TRUNCATED");
  EXPECT_NE(cap.records[0].text.find("task_receive_packet: udp control data from 127.0.0.1+"), std::string::npos)
      << cap.records[0].text;
  // With room enough, nothing is said and the destination is read.
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(addr_text(ri->tri_dst, 0), "127.0.0.1");
  EXPECT_EQ(cap.records.size(), 1u);
  evlog_capture_stop();
  close(s);
}

// Datagrams on a local socket name their sender in the local family: a bound
// path (which an answer can be sent to) or an abstract name; an unbound
// sender has no name.
TEST_F(Io, LocalDatagramsCarryTheirSendersAddress) {
  char dir[] = "/tmp/task-io-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string rx_path = std::string(dir) + "/rx", tx_path = std::string(dir) + "/tx";
  auto local = [](const std::string &path, size_t len = 0) {
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (!len) len = path.size() + 1;
    memcpy(sun.sun_path, path.data(), std::min(len, sizeof sun.sun_path));
    return std::make_pair(sun, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len));
  };
  task *rx = task_alloc("local", 10, nullptr);
  int rs = task_get_socket(rx, AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(rs, 0);
  task_set_socket(rx, rs);
  ASSERT_EQ(task_set_option(rx, TASKOPTION_NONBLOCKING, 1), 0);
  auto [rx_sun, rx_len] = local(rx_path);
  ASSERT_EQ(bind(rs, reinterpret_cast<sockaddr *>(&rx_sun), rx_len), 0);
  task_set_recv(rx, nop_read);
  task_create(rx);

  auto send_from = [&](int fd, const char *what) {
    ASSERT_EQ(sendto(fd, what, strlen(what), 0, reinterpret_cast<sockaddr *>(&rx_sun), rx_len),
              static_cast<ssize_t>(strlen(what)));
  };
  int bound = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  auto [tx_sun, tx_len] = local(tx_path);
  ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr *>(&tx_sun), tx_len), 0);
  send_from(bound, "ping");
  size_t n = 0;
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(task_get_recv_buffer()), n), "ping");
  const task_recv_info *ri = task_get_recv_info();
  ASSERT_NE(ri->tri_src, nullptr);
  EXPECT_EQ(socktype(ri->tri_src), static_cast<unsigned>(GF_UNIX));
  EXPECT_EQ(addr_text(ri->tri_src), tx_path);
  EXPECT_EQ(rx->task_recv_count, 1u);
  // The answer goes back to that address.
  ASSERT_EQ(task_send_packet(rx, "pong", 4, false, ri->tri_src), 4);
  char back[8] = {};
  EXPECT_EQ(recv(bound, back, sizeof back, MSG_DONTWAIT), 4);
  EXPECT_STREQ(back, "pong");

  // An abstract name keeps its leading zero byte and its exact length.
  const std::string abstract = std::string(1, '\0') + "task-io-" + std::to_string(getpid());
  int named = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  auto [ab_sun, ab_len] = local(abstract, abstract.size());
  ASSERT_EQ(bind(named, reinterpret_cast<sockaddr *>(&ab_sun), ab_len), 0);
  send_from(named, "abs");
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  ASSERT_NE(ri->tri_src, nullptr);
  EXPECT_EQ(socklen(ri->tri_src), 2 + abstract.size());
  sockaddr_un seen{};
  sock2unix(ri->tri_src, &seen);
  EXPECT_EQ(std::string(seen.sun_path, abstract.size()), abstract);

  int anonymous = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  send_from(anonymous, "anon");
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(ri->tri_src, nullptr);  // the kernel gives no name at all
  EXPECT_EQ(task_receive_packet(rx, &n), EAGAIN);
  EXPECT_EQ(rx->task_recv_count, 3u);

  for (int fd : {bound, named, anonymous}) close(fd);
  task_delete(rx);
  unlink(rx_path.c_str());
  unlink(tx_path.c_str());
  rmdir(dir);
}

TEST_F(Io, HandBuiltControlDataAndShortRecords) {
  evlog_capture &cap = evlog_capture_start();
  task *tp = task_alloc("cm", 1, nullptr);
  alignas(cmsghdr) uint8_t buf[256] = {};
  msghdr msg{};
  msg.msg_control = buf;
  msg.msg_controllen = sizeof buf;
  cmsghdr *c = CMSG_FIRSTHDR(&msg);
  in6_pktinfo pi6{};
  inet_pton(AF_INET6, "2001:db8::1", &pi6.ipi6_addr);
  pi6.ipi6_ifindex = 7;
  c->cmsg_level = IPPROTO_IPV6;
  c->cmsg_type = IPV6_PKTINFO;
  c->cmsg_len = CMSG_LEN(sizeof pi6);
  memcpy(CMSG_DATA(c), &pi6, sizeof pi6);
  c = CMSG_NXTHDR(&msg, c);
  int hl = 63;
  c->cmsg_level = IPPROTO_IPV6;
  c->cmsg_type = IPV6_HOPLIMIT;
  c->cmsg_len = CMSG_LEN(sizeof hl);
  memcpy(CMSG_DATA(c), &hl, sizeof hl);
  c = CMSG_NXTHDR(&msg, c);
  c->cmsg_level = IPPROTO_IP;  // an IP_PKTINFO cut short
  c->cmsg_type = IP_PKTINFO;
  c->cmsg_len = CMSG_LEN(4);
  msg.msg_controllen = reinterpret_cast<uint8_t *>(c) - buf + CMSG_SPACE(4);
  task_receive_packet_process_cmsg_internal(tp, &msg);
  const task_recv_info *ri = task_get_recv_info();
  EXPECT_EQ(addr_text(ri->tri_dst, 0), "2001:db8::1");
  EXPECT_EQ(ri->tri_ifindex, 7);
  EXPECT_EQ(ri->tri_hoplimit, 63);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].tag, "ZTASK_DEST_ADDR_TRUNCATED");
  EXPECT_NE(cap.records[0].text.find("Receive packet call: cm destination address from"), std::string::npos)
      << cap.records[0].text;
  evlog_capture_stop();
  task_delete(tp);
}

TEST_F(Io, SendRetriesUnreachableOnceAndEintrWithoutLimit) {
  evlog_capture &cap = evlog_capture_start();
  task *rx;
  uint16_t port = udp_task(&rx, nop_read);
  task *tx;
  udp_task(&tx, nop_read);
  zsockaddr_t *to = sockbuild_in(htons(port), htonl(INADDR_LOOPBACK));
  tvx_fault_errno(TVX_SYS_SENDTO, ENETUNREACH, 1);
  EXPECT_EQ(task_send_packet(tx, "a", 1, false, to), 1);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_SENDTO), 2u);
  EXPECT_EQ(tx->task_send_errors, 0u);
  tvx_fault_clear();
  tvx_fault_errno(TVX_SYS_SENDTO, EHOSTUNREACH, 2);
  EXPECT_EQ(task_send_packet(tx, "b", 1, false, to), -1);
  EXPECT_EQ(errno, EHOSTUNREACH);
  EXPECT_EQ(tx->task_send_errors, 1u);
  ASSERT_FALSE(cap.records.empty());
  EXPECT_EQ(cap.records.back().tag, "ZTASK_IO_SENDTO_FAILED_RETRIES");
  EXPECT_NE(cap.records.back().text.find("(1 retries)"), std::string::npos);
  tvx_fault_clear();
  tvx_fault_errno(TVX_SYS_SENDTO, EINTR, 50);
  EXPECT_EQ(task_send_packet(tx, "c", 1, false, to), 1);
  tvx_fault_clear();
  tvx_fault_errno(TVX_SYS_SENDTO, EAGAIN, 1);
  EXPECT_EQ(task_send_packet(tx, "d", 1, false, to), -1);
  EXPECT_EQ(tx->task_send_errors, 2u);
  EXPECT_EQ(tx->task_send_count, 4u);
  tvx_fault_clear();
  // Only "a" and "c" arrived; a receive fault of the unreachable kind is looped over.
  tvx_fault_errno(TVX_SYS_RECVMSG, ENETUNREACH, 3);
  size_t n;
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(task_get_recv_buffer()[0], 'a');
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(task_get_recv_buffer()[0], 'c');
  EXPECT_EQ(task_receive_packet(rx, &n), EAGAIN);
  evlog_capture_stop();
}

TEST_F(Io, SendMsgWithSourceAndInterface) {
  task *rx;
  uint16_t port = udp_task(&rx, nop_read);
  ASSERT_EQ(task_set_option(rx, TASKOPTION_RCVDSTADDR, 1), 0);
  task *tx;
  udp_task(&tx, nop_read);
  tx->task_addrfamily = 0;  // "domain not set": assumed AF_INET
  evlog_capture &cap = evlog_capture_start();
  char payload[] = "msg";
  iovec iov{payload, 3};
  int lo = static_cast<int>(if_nametoindex("lo"));
  ASSERT_EQ(task_send_msg_from(tx, &iov, 1, false, sockbuild_in(htons(port), htonl(INADDR_LOOPBACK)),
                               sockbuild_in(0, htonl(0x7f000001)), lo),
            3);
  EXPECT_EQ(cap.records.at(0).tag, "ZTASK_DOMAIN_NOT_SET");
  EXPECT_EQ(tx->task_addrfamily, AF_INET);
  evlog_capture_stop();
  size_t n;
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(task_get_recv_info()->tri_ifindex, lo);
}

// The router alert travels as an IP option, and as an IPv6 hop-by-hop option
// that the receive path keeps; the wrappers without a Linux form still send.
TEST_F(Io, RouterAlertReachesTheReceiver) {
  task *rx, *tx;
  uint16_t port = udp_task(&rx, nop_read);
  udp_task(&tx, nop_read);
  int on = 1;
  ASSERT_EQ(setsockopt(rx->task_socket, IPPROTO_IP, IP_RECVOPTS, &on, sizeof on), 0);
  char payload[] = "ra";
  iovec iov{payload, 2};
  const zsockaddr_t *to = sockbuild_in(htons(port), htonl(INADDR_LOOPBACK));
  ASSERT_EQ(task_send_msg_router_alert(tx, &iov, 1, false, to, nullptr, 0, 0), 2);
  uint8_t buf[16];
  alignas(cmsghdr) uint8_t ctrl[128];
  iovec riov{buf, sizeof buf};
  msghdr m{};
  m.msg_iov = &riov;
  m.msg_iovlen = 1;
  m.msg_control = ctrl;
  m.msg_controllen = sizeof ctrl;
  ASSERT_EQ(recvmsg(rx->task_socket, &m, 0), 2);
  std::vector<uint8_t> opts;
  for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_RECVOPTS)  // Linux names the record so
      opts.assign(CMSG_DATA(c), CMSG_DATA(c) + (c->cmsg_len - CMSG_LEN(0)));
  ASSERT_GE(opts.size(), 4u);
  EXPECT_EQ(std::vector<uint8_t>(opts.begin(), opts.begin() + 4), (std::vector<uint8_t>{148, 4, 0, 0}));

  size_t n;
  ASSERT_EQ(task_send_msg_in_ifindex(tx, &iov, 1, false, to, 3), 2);
  ASSERT_EQ(task_send_msg_extended(tx, &iov, 1, false, to, nullptr, 0, 3, payload), 2);
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  ASSERT_EQ(task_receive_packet(rx, &n), 0);
  EXPECT_EQ(tx->task_send_count, 3u);

  task *rx6 = task_alloc("rx6", 10, nullptr);
  task_set_socket(rx6, task_get_socket(rx6, AF_INET6, SOCK_DGRAM, 0));
  task_set_option(rx6, TASKOPTION_NONBLOCKING, 1);
  if (task_addr_local(rx6, sockbuild_in6(0, in6addr_loopback.s6_addr)) != 0) GTEST_SKIP() << "no IPv6 loopback";
  ASSERT_EQ(task_set_option(rx6, TASKOPTION_HOPBYHOP, 1), 0);
  zsockaddr_t *where = task_get_addr_local(rx6);
  task *tx6 = task_alloc("tx6", 10, nullptr);
  task_set_socket(tx6, task_get_socket(tx6, AF_INET6, SOCK_DGRAM, 0));
  ASSERT_EQ(task_send_msg_router_alert(tx6, &iov, 1, false, where, nullptr, 0, 0), 2);
  ASSERT_EQ(task_receive_packet(rx6, &n), 0);
  const task_recv_info *ri = task_get_recv_info();
  ASSERT_NE(ri->tri_hbh, nullptr);
  ASSERT_EQ(ri->tri_hbh_len, 8u);
  // Next header, length 0, the router alert (5, 2, value 0), two bytes of padding.
  EXPECT_EQ(ri->tri_hbh[2], 5);
  EXPECT_EQ(ri->tri_hbh[3], 2);
  EXPECT_EQ(ri->tri_hbh[4] | ri->tri_hbh[5], 0);
  sockfree(where);
  task_delete(tx6);
  task_delete(rx6);
}

// ---- Stream sockets --------------------------------------------------------------------------

int accepted = -1;
zsockaddr_t *accepted_peer;
void on_accept(task *tp) { accepted = task_accept(tp, &accepted_peer); }
bool connected;
void on_connect(task *tp) {
  connected = true;
  tp->task_flags &= ~TASK_FLAG_CONNECT;
  task_set_connect(tp, nullptr);
  task_write_disable(tp);
}

// A non-blocking TCP listener on 127.0.0.1 with its accept method.
task *listener(task_method accept, int *s) {
  task *ls = task_alloc("listener", 5, nullptr);
  *s = task_get_socket(ls, AF_INET, SOCK_STREAM, 0);
  task_set_socket(ls, *s);
  task_set_option(ls, TASKOPTION_NONBLOCKING, 1);
  task_set_option(ls, TASKOPTION_REUSEADDR, 1);
  EXPECT_EQ(task_addr_local(ls, sockbuild_in(0, htonl(INADDR_LOOPBACK))), 0);
  ls->task_flags |= TASK_FLAG_ACCEPT;
  task_set_accept(ls, accept);
  task_create(ls);
  EXPECT_EQ(task_listen(ls, 4), 0);
  return ls;
}

TEST_F(Io, ListenAcceptConnectOnLoopback) {
  int s;
  task *ls = listener(on_accept, &s);
  zsockaddr_t *where = task_get_addr_local(ls);

  task *cl = task_alloc("client", 5, nullptr);
  int c = task_get_socket(cl, AF_INET, SOCK_STREAM, 0);
  task_set_socket(cl, c);
  task_set_option(cl, TASKOPTION_NONBLOCKING, 1);
  task_set_addr(cl, where);
  cl->task_flags |= TASK_FLAG_CONNECT;
  task_set_connect(cl, on_connect);
  evlog_capture &cap = evlog_capture_start();
  int rc = task_connect(cl);
  EXPECT_TRUE(rc == 0 || rc == EINPROGRESS) << rc;
  EXPECT_TRUE(cap.records.empty());  // EINPROGRESS is not logged
  evlog_capture_stop();
  task_write_enable(cl);
  task_create(cl);
  accepted = -1;
  connected = false;
  real_passes(3);
  EXPECT_TRUE(connected);
  ASSERT_GE(accepted, 0);
  EXPECT_EQ(fcntl(accepted, F_GETFL) & O_NONBLOCK, O_NONBLOCK);  // as the listener
  EXPECT_EQ(fcntl(accepted, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  zsockaddr_t *mine = task_get_addr_local(cl);
  EXPECT_EQ(addr_text(accepted_peer), addr_text(mine));
  // The connection's own parameters: its end, no device, the default table.
  const task_accept_info *ai = task_get_accept_info();
  EXPECT_EQ(ai->tai_socket, accepted);
  EXPECT_EQ(ai->tai_domain, AF_INET);
  EXPECT_EQ(addr_text(ai->tai_local), addr_text(where));
  EXPECT_EQ(ai->tai_ifindex, 0);
  EXPECT_EQ(ai->tai_rtbl_index, 0u);
  zsockaddr_t *theirs = task_get_addr_remote(cl);
  EXPECT_EQ(addr_text(theirs), addr_text(where));
  sockfree(mine);
  sockfree(theirs);
  sockfree(accepted_peer);
  close(accepted);
  EXPECT_EQ(task_close(cl), 0);
  EXPECT_EQ(cl->task_socket, -1);
  std::string cname = task_name(cl);  // the name now carries the peer
  task_delete(cl);
  task_delete(ls);

  // The descriptor ring tells who had which socket, in order.
  task_fd_record recs[TASK_FD_RING_SIZE];
  size_t nr = task_fd_ring_get(recs, TASK_FD_RING_SIZE);
  std::vector<std::string> seen;
  for (size_t i = 0; i < nr; i++)
    seen.push_back(std::to_string(recs[i].tfr_fd) + " " + std::to_string(recs[i].tfr_op) + " " + recs[i].tfr_task);
  auto str = [](int fd, int op, const char *who) { return std::to_string(fd) + " " + std::to_string(op) + " " + who; };
  EXPECT_EQ(seen, (std::vector<std::string>{str(s, TASK_FD_OPEN, "listener"), str(c, TASK_FD_OPEN, "client"),
                                            str(accepted, TASK_FD_ACCEPT, "listener"), str(c, TASK_FD_CLOSE, cname.c_str()),
                                            str(s, TASK_FD_CLOSE, "listener")}));
}

int accept_calls;
void accept_and_close(task *tp) {
  accept_calls++;
  int s = task_accept(tp, nullptr);
  if (s >= 0) close(s);
}

// At the descriptor limit a waiting connection is taken with the reserve
// descriptor and closed: the listener stops being readable (it would run its
// method on every pass), the peer learns at once, and the log says it once.
TEST_F(Io, AcceptAtTheDescriptorLimitRefusesLogsOnceAndDoesNotSpin) {
  int s;
  task *ls = listener(accept_and_close, &s);
  zsockaddr_t *where = task_get_addr_local(ls);
  sockaddr_storage ss;
  socklen_t len = static_cast<socklen_t>(sock2unix(where, &ss));
  std::vector<int> clients;
  for (int i = 0; i < 3; i++) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(c, reinterpret_cast<sockaddr *>(&ss), len), 0);
    clients.push_back(c);
  }
  // No slot left below the limit.
  int lowest = dup(0);
  close(lowest);
  rlimit saved;
  getrlimit(RLIMIT_NOFILE, &saved);
  rlimit low{static_cast<rlim_t>(lowest), saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  evlog_capture &cap = evlog_capture_start();
  accept_calls = 0;
  real_passes(10);
  setrlimit(RLIMIT_NOFILE, &saved);
  evlog_capture_stop();
  EXPECT_EQ(accept_calls, 3) << "once for each waiting connection, not once a pass";
  size_t lines = 0;
  for (auto &r : cap.records) lines += r.text.find(": accept: Too many open files") != std::string::npos;
  EXPECT_EQ(lines, 1u);
  for (int c : clients) {
    char b;
    EXPECT_LE(recv(c, &b, 1, MSG_DONTWAIT), 0);
    EXPECT_NE(errno, EAGAIN) << "closed, not left waiting";
    close(c);
  }
  // With room again, connections are accepted.
  int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(c, reinterpret_cast<sockaddr *>(&ss), len), 0);
  accept_calls = 0;
  real_passes(2);
  EXPECT_EQ(accept_calls, 1);
  close(c);
  sockfree(where);
  task_delete(ls);
}

// The ring keeps the newest records, oldest first, and prints one line each.
TEST(FdRing, WrapsAndDumps) {
  for (int i = 0; i < TASK_FD_RING_SIZE + 5; i++) task_fd_ring_note(100 + i, TASK_FD_OPEN, nullptr);
  task_fd_record recs[TASK_FD_RING_SIZE + 8];
  ASSERT_EQ(task_fd_ring_get(recs, TASK_FD_RING_SIZE + 8), static_cast<size_t>(TASK_FD_RING_SIZE));
  EXPECT_EQ(recs[0].tfr_fd, 105);
  EXPECT_EQ(recs[TASK_FD_RING_SIZE - 1].tfr_fd, 100 + TASK_FD_RING_SIZE + 4);
  EXPECT_EQ(task_fd_ring_get(recs, 2), 2u);
  char *text = nullptr;
  size_t len = 0;
  FILE *f = open_memstream(&text, &len);
  task_fd_ring_dump(f);
  fclose(f);
  std::string out(text, len);
  free(text);
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), TASK_FD_RING_SIZE);
  EXPECT_NE(out.find(" fd 105 open task \n"), std::string::npos) << out.substr(0, 200);
}

TEST_F(Io, FailuresReturnErrnoAndLog) {
  evlog_capture &cap = evlog_capture_start();
  EXPECT_EQ(task_addr_local(nullptr, sockbuild_in(0, 0)), EINVAL);
  task *tp;
  uint16_t port = udp_task(&tp, nop_read);
  task *other;
  udp_task(&other, nop_read);
  EXPECT_EQ(task_addr_local(nullptr, nullptr), EINVAL);
  EXPECT_EQ(task_connect(other), EINVAL);  // no address
  // The port is taken: bind fails with EADDRINUSE... on the already bound socket EINVAL.
  EXPECT_NE(task_addr_local(other, sockbuild_in(htons(port), htonl(INADDR_LOOPBACK))), 0);
  EXPECT_EQ(cap.records.back().tag, "ZTASK_IO_BIND_FAILED");
  EXPECT_NE(cap.records.back().text.find("Binding to 127.0.0.1 failed"), std::string::npos);
  // listen on a datagram socket fails and leaves the registrations as they were
  EXPECT_EQ(task_listen(tp, 5), EOPNOTSUPP);
  EXPECT_EQ(cap.records.back().tag, "ZTASK_IO_LISTEN_FAILED");
  // socket(): EINTR does not use up a try; another error stops at once
  tvx_fault_errno(TVX_SYS_SOCKET, EINTR, 4);
  int s = task_get_socket(tp, AF_INET, SOCK_DGRAM, 0);
  EXPECT_GE(s, 0);
  close(s);
  tvx_fault_clear();
  tvx_fault_errno(TVX_SYS_SOCKET, EMFILE, 5);
  EXPECT_EQ(task_get_socket(tp, AF_INET, SOCK_DGRAM, 0), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_SOCKET), 1u);
  tvx_fault_clear();
  evlog_capture_stop();
}

TEST_F(Io, TestStateMakesNoSystemCalls) {
  task_newstate(TASKS_TEST, 0);
  task *tp = task_alloc("t", 1, nullptr);
  tvx_fault_errno(TVX_SYS_SOCKET, EMFILE, 5);
  EXPECT_EQ(task_get_socket(tp, AF_INET6, SOCK_DGRAM, 0), 0);
  EXPECT_EQ(tp->task_addrfamily, AF_INET6);
  EXPECT_EQ(tvx_fault_calls(TVX_SYS_SOCKET), 0u);
  task_newstate(0, TASKS_TEST);
  task_delete(tp);
}

// ---- Options ----------------------------------------------------------------------------------

struct opt_case {
  int option;
  int family, type;
  int value;
  int level, name;  // where the value must be read back
  int expect;
};

TEST_F(Io, EveryMappedOptionReadsBackWithGetsockopt) {
  const opt_case cases[] = {
      {TASKOPTION_RECVBUF, AF_INET, SOCK_DGRAM, 65536, SOL_SOCKET, SO_RCVBUF, 131072},
      {TASKOPTION_SENDBUF, AF_INET, SOCK_DGRAM, 65536, SOL_SOCKET, SO_SNDBUF, 131072},
      {TASKOPTION_REUSEADDR, AF_INET, SOCK_DGRAM, 1, SOL_SOCKET, SO_REUSEADDR, 1},
      {TASKOPTION_BROADCAST, AF_INET, SOCK_DGRAM, 1, SOL_SOCKET, SO_BROADCAST, 1},
      {TASKOPTION_DONTROUTE, AF_INET, SOCK_DGRAM, 1, SOL_SOCKET, SO_DONTROUTE, 1},
      {TASKOPTION_KEEPALIVE, AF_INET, SOCK_STREAM, 1, SOL_SOCKET, SO_KEEPALIVE, 1},
      {TASKOPTION_DEBUG, AF_INET, SOCK_DGRAM, 1, SOL_SOCKET, SO_DEBUG, 1},
      {TASKOPTION_MULTICAST_LOOP, AF_INET, SOCK_DGRAM, 0, IPPROTO_IP, IP_MULTICAST_LOOP, 0},
      {TASKOPTION_MULTICAST_LOOP, AF_INET6, SOCK_DGRAM, 0, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0},
      {TASKOPTION_MULTICAST_TTL, AF_INET, SOCK_DGRAM, 9, IPPROTO_IP, IP_MULTICAST_TTL, 9},
      {TASKOPTION_MULTICAST_TTL, AF_INET6, SOCK_DGRAM, 9, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 9},
      {TASKOPTION_TTL, AF_INET, SOCK_DGRAM, 33, IPPROTO_IP, IP_TTL, 33},
      {TASKOPTION_TTL, AF_INET6, SOCK_DGRAM, 33, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 33},
      {TASKOPTION_TOS, AF_INET, SOCK_DGRAM, 0x10, IPPROTO_IP, IP_TOS, 0x10},
      {TASKOPTION_TOS, AF_INET6, SOCK_DGRAM, 0x10, IPPROTO_IPV6, IPV6_TCLASS, 0x10},
      {TASKOPTION_RCVDSTADDR, AF_INET, SOCK_DGRAM, 1, IPPROTO_IP, IP_PKTINFO, 1},
      {TASKOPTION_RCVDSTADDR, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
      {TASKOPTION_IPHEADER_INC, AF_INET, SOCK_RAW, 1, IPPROTO_IP, IP_HDRINCL, 1},
      {TASKOPTION_RCVIF, AF_INET, SOCK_DGRAM, 1, IPPROTO_IP, IP_PKTINFO, 1},
      {TASKOPTION_RCVIF, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1},
      {TASKOPTION_MAX_TCP_MSS, AF_INET, SOCK_STREAM, 1200, IPPROTO_TCP, TCP_MAXSEG, 1200},
      {TASKOPTION_HOPCOUNT, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1},
      {TASKOPTION_HOPBYHOP, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_RECVHOPOPTS, 1},
      {TASKOPTION_REUSEPORT, AF_INET, SOCK_DGRAM, 1, SOL_SOCKET, SO_REUSEPORT, 1},
      {TASKOPTION_TCP_KEEPIDLE, AF_INET, SOCK_STREAM, 77, IPPROTO_TCP, TCP_KEEPIDLE, 77},
      {TASKOPTION_TCP_KA_MAXCNT, AF_INET, SOCK_STREAM, 5, IPPROTO_TCP, TCP_KEEPCNT, 5},
      {TASKOPTION_TCP_KA_INTVL, AF_INET, SOCK_STREAM, 12, IPPROTO_TCP, TCP_KEEPINTVL, 12},
      {TASKOPTION_TCP_NODELAY, AF_INET, SOCK_STREAM, 1, IPPROTO_TCP, TCP_NODELAY, 1},
      {TASKOPTION_DONTFRAG, AF_INET, SOCK_DGRAM, 1, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO},
      {TASKOPTION_DONTFRAG, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_DONTFRAG, 1},
      {TASKOPTION_IPV6_RECV_RTHDR, AF_INET6, SOCK_DGRAM, 1, IPPROTO_IPV6, IPV6_RECVRTHDR, 1},
  };
  for (const opt_case &c : cases) {
    SCOPED_TRACE(task_option_name(c.option) + std::string(c.family == AF_INET6 ? " inet6" : " inet"));
    task *tp = task_alloc("opt", 1, nullptr);
    int s = task_get_socket(tp, c.family, c.type, c.type == SOCK_RAW ? IPPROTO_RAW : 0);
    ASSERT_GE(s, 0) << strerror(errno);
    task_set_socket(tp, s);
    int before = -1;
    socklen_t bl = sizeof before;
    getsockopt(s, c.level, c.name, &before, &bl);
    ASSERT_EQ(task_set_option(tp, c.option, c.value), 0) << strerror(errno);
    int v = -1;
    socklen_t l = sizeof v;
    ASSERT_EQ(getsockopt(s, c.level, c.name, &v, &l), 0);
    EXPECT_EQ(v, c.expect);
    int g = -1;
    l = sizeof g;
    ASSERT_EQ(task_get_option(tp, c.option, &g, &l), 0);
    EXPECT_EQ(g, c.expect);
    task_delete(tp);
  }
}

TEST_F(Io, IncludeIpHeaderIsNotTheTtl) {
  task *tp = task_alloc("raw", 1, nullptr);
  int s = task_get_socket(tp, AF_INET, SOCK_RAW, IPPROTO_UDP);
  ASSERT_GE(s, 0);
  task_set_socket(tp, s);
  int ttl0 = 0;
  socklen_t l = sizeof ttl0;
  getsockopt(s, IPPROTO_IP, IP_TTL, &ttl0, &l);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_IPHEADER_INC, 1), 0);
  int hdr = 0, ttl = 0;
  l = sizeof hdr;
  getsockopt(s, IPPROTO_IP, IP_HDRINCL, &hdr, &l);
  l = sizeof ttl;
  getsockopt(s, IPPROTO_IP, IP_TTL, &ttl, &l);
  EXPECT_EQ(hdr, 1);
  EXPECT_EQ(ttl, ttl0);
  task_delete(tp);
}

TEST_F(Io, StructuredOptionsAndTheRest) {
  task *tp;
  udp_task(&tp, nop_read);
  int s = tp->task_socket;
  ASSERT_EQ(task_set_option(tp, TASKOPTION_LINGER, 1, 7), 0);
  linger lg{};
  socklen_t l = sizeof lg;
  getsockopt(s, SOL_SOCKET, SO_LINGER, &lg, &l);
  EXPECT_EQ(lg.l_onoff, 1);
  EXPECT_EQ(lg.l_linger, 7);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_NONBLOCKING, 0), 0);
  EXPECT_EQ(fcntl(s, F_GETFL) & O_NONBLOCK, 0);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_CLOEXEC, 0), 0);
  EXPECT_EQ(fcntl(s, F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_ROUTER_ALERT, 1), 0);
  uint8_t opts[8] = {};
  l = sizeof opts;
  getsockopt(s, IPPROTO_IP, IP_OPTIONS, opts, &l);
  ASSERT_EQ(l, 4u);
  EXPECT_EQ(opts[0], 148);
  EXPECT_EQ(opts[1], 4);
  int lo = static_cast<int>(if_nametoindex("lo"));
  zsockaddr_t *grp = sockbuild_in(0, inet_addr("239.1.2.3"));
  EXPECT_EQ(task_set_option(tp, TASKOPTION_GROUP_ADD, grp, lo), 0);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_GROUP_ADD, grp, lo), -1);  // already a member
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_GROUP_DROP, grp, lo), 0);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_MULTICAST_IF, sockbuild_in(0, htonl(INADDR_LOOPBACK)), 0), 0);
  in_addr mif{};
  l = sizeof mif;
  getsockopt(s, IPPROTO_IP, IP_MULTICAST_IF, &mif, &l);
  EXPECT_EQ(mif.s_addr, htonl(INADDR_LOOPBACK));
  // Refused, accepted without effect, unsupported for the family, out of range.
  EXPECT_EQ(task_set_option(tp, TASKOPTION_RTSOCK_IFL_INDEX, 1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_TCP_MERGE_DONE), -1);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_RTSOCK_RI_INDEX), 0);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_RTSOCK_FLAGS, uint64_t{1} << 40), 0);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_RTBL_INDEX, -1), -1);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_SEND_LOWAT, 100), 0);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_HOPCOUNT, 1), -1);  // IPv6 only
  EXPECT_EQ(errno, ENOPROTOOPT);
  EXPECT_EQ(task_set_option(tp, TASKOPTION_COUNT, 1), -1);
  EXPECT_STREQ(task_option_name(TASKOPTION_COUNT), "None");
  EXPECT_EQ(task_set_option(nullptr, TASKOPTION_TTL, 1), -1);
}

TEST_F(Io, OptionTableCoversEveryPositionWithItsName) {
  const char *names[] = {"RecvBuffer", "SendBuffer", "Linger", "ReUseAddress", "Broadcast", "DontRoute",
                         "KeepAlive", "Debug", "NonBlocking", "UseLoopback", "MembershipAdd", "MembershipDrop",
                         "MulticastInterface", "MulticastLoop", "MulticastTTL", "TTL", "TOS", "RcvDstAddr",
                         "IncludeIpHeader", "PortRange", "RcvIf", "RouterAlert", "IPRecvAll", "GroupAdd", "GroupDrop",
                         "MaxTcpMss", "PathMTUDiscovery", "RoutingTable", "InstanceInterface", "RecordInterface",
                         "ICMPFilter", "HopCountLimit", "HopByHop", "SetIPSecSA", "LogicalRouter", "LabelStack",
                         "IifRestrict", "TcpMssOption", "ReUsePort", "RecvRtb", "TcpKeepIdle", "TcpKAMaxCnt",
                         "TcpKATimeInvl", "IpPimFilter", "F_CLOEXEC", "TcpAppHoldTimeout", "TcpMergeDone",
                         "RtSockFlags", "RtSockFlagsFilter", "RtSockVersions", "RtSockLoopbackMask",
                         "RtSockSequence", "RtSockSenderID", "RtSockLogicalSysID", "RtSockAsyncMode", "RtSockVeto",
                         "RtSockMulticast", "SendLowWater", "LridCheck", "TcpAggressiveTransmission",
                         "RtSockSyncMode", "RtSockIflIndex", "RtSockRiIndex", "EnableTcpNoDelay", "SiLayerIgnore",
                         "DontFragment", "SourcePfeIpAddress", "VplsVpnRecvAll", "VplsRecvL2info",
                         "VplsSnoopFamily", "VplsSnoopProto", "VplsRecvBdIndex", "TcpMd5Authentication",
                         "VplsRecvIRBIndex", "VplsVpnRecv", "VplsVpnNoRecv", "VplsRecvFc", "Ipv6RecvRtHdr",
                         "TCPKchAuthentication"};
  static_assert(std::size(names) == TASKOPTION_COUNT && TASKOPTION_COUNT == 79);
  for (int i = 0; i < TASKOPTION_COUNT; i++) EXPECT_STREQ(task_option_name(i), names[i]) << i;
  // "IncludeIpHeader" is IP_HDRINCL (3 here), never 2, which is IP_TTL on Linux.
  task_option_linux m = task_option_map(TASKOPTION_IPHEADER_INC, AF_INET);
  EXPECT_EQ(m.tol_level, IPPROTO_IP);
  EXPECT_EQ(m.tol_name, IP_HDRINCL);
  EXPECT_EQ(task_option_map(TASKOPTION_IPHEADER_INC, AF_INET6).tol_kind, TOL_UNSUPPORTED);
  EXPECT_EQ(task_option_map(TASKOPTION_RECV_RTB, AF_INET).tol_kind, TOL_PLATFORM);
  EXPECT_EQ(task_option_map(TASKOPTION_RTSOCK_IFL_INDEX, AF_INET).tol_kind, TOL_REFUSED);
}
