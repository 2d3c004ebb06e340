// The queue in one process and across forked ones: layout, order, the ring's
// edges, growth with live data, crash points in the growth, takeover,
// wake-ups.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "mmcq/mmcq.h"
#include "mmf/crashpoint.h"
#include "mmf_fixture.h"
#include "platform/path.h"

namespace {

constexpr int64_t kPage = 4096;

class MmcqTest : public MmfTest {
 protected:
  mmcq *sender(const char *name = "q", int64_t def = 2 * kPage, int64_t max = 8 * kPage, int64_t region = 0,
               uint32_t max_msg = 512) {
    return mmcq_sender_create(name, nullptr, max_msg, def, max, region, nullptr, nullptr);
  }
  mmcq *receiver(const char *name = "q", int64_t def = 2 * kPage, int64_t max = 8 * kPage, int64_t region = 0,
                 uint32_t max_msg = 512, mmcq_receive_cb cb = nullptr, void *cookie = nullptr) {
    return mmcq_receiver_create(name, nullptr, max_msg, def, max, region, cb, cookie, nullptr);
  }
};

// A message whose bytes say who sent it and its number.
std::string msg(int who, int n, size_t len) {
  std::string s = std::to_string(who) + ":" + std::to_string(n) + ":";
  while (s.size() < len) s += static_cast<char>('a' + (n + s.size()) % 26);
  s.resize(std::max(len, s.size()));
  return s;
}

std::string next(mmcq *r, int *st = nullptr) {
  char buf[8192];
  int s;
  uint32_t n = mmcq_get_next(r, sizeof buf, buf, &s);
  if (st) *st = s;
  return std::string(buf, n);
}

int wait_child(pid_t pid) {
  int st = 0;
  EXPECT_EQ(waitpid(pid, &st, 0), pid);
  return st;
}

TEST_F(MmcqTest, FreshHeaderIsLaidOutAsDesigned) {
  mmcq *r = receiver();
  ASSERT_NE(r, nullptr);
  std::vector<uint8_t> b = bytes("/mfs/var/mmcq/q");
  ASSERT_EQ(b.size(), static_cast<size_t>(2 * kPage));
  const mmf_shared_info_t *si = reinterpret_cast<const mmf_shared_info_t *>(b.data());
  ASSERT_EQ(si->common_len, MMCQ_HEADER_SIZE);
  const uint64_t common = si->common_offset;
  const uint8_t *h = b.data() + common;
  auto u32 = [&](size_t off) {
    uint32_t v;
    memcpy(&v, h + off, 4);
    return v;
  };
  EXPECT_EQ(u32(0x00), 11u);
  EXPECT_EQ(u32(0x04), 0x84u);
  EXPECT_EQ(u32(0x08), 0x55557777u);
  EXPECT_EQ(u32(0x0c), static_cast<uint32_t>(getpid()));
  EXPECT_EQ(u32(0x10), static_cast<uint32_t>(getpid()));  // the receiver
  EXPECT_EQ(h[0x18], 1);                                   // no callback: stopped
  EXPECT_EQ(h[0x19], 0);
  EXPECT_EQ(u32(0x2c), 512u);
  EXPECT_EQ(u32(0x30), 2 * kPage - kPage);
  EXPECT_EQ(u32(0x34), static_cast<uint32_t>(kPage));
  EXPECT_EQ(u32(0x38), static_cast<uint32_t>(2 * kPage));
  EXPECT_EQ(u32(0x3c), static_cast<uint32_t>(kPage));
  EXPECT_EQ(u32(0x40), static_cast<uint32_t>(kPage));
  // A message in the ring: its length word (itself included), the payload.
  mmcq *s = sender();
  ASSERT_EQ(mmcq_send(s, "hello", 5), MMCQ_SUCCESS);
  b = bytes("/mfs/var/mmcq/q");
  uint32_t w;
  memcpy(&w, b.data() + kPage, 4);
  EXPECT_EQ(w, 9u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(b.data()) + kPage + 4, 5), "hello");
  memcpy(&w, b.data() + common + 0x3c, 4);
  EXPECT_EQ(w, kPage + 9);
  mmcq_delete(s);
  mmcq_delete(r);
}

TEST_F(MmcqTest, StatusTextsAndArguments) {
  EXPECT_STREQ(mmcq_status_str(0), "SUCCESS");
  EXPECT_STREQ(mmcq_status_str(2), "Q_FULL");
  EXPECT_STREQ(mmcq_status_str(9), "BUFFER_TOO_SMALL");
  EXPECT_STREQ(mmcq_status_str(10), "UNKNOWN");
  EXPECT_STREQ(mmcq_status_str(-1), "UNKNOWN");
  EXPECT_EQ(sender("bad/name"), nullptr);
  EXPECT_EQ(mmcq_last_status, MMCQ_BAD_PARAMETER);
  EXPECT_EQ(sender(".."), nullptr);
  mmcq *r = receiver();
  mmcq *s = sender();
  EXPECT_EQ(mmcq_send(nullptr, "x", 1), MMCQ_BAD_PARAMETER);
  EXPECT_EQ(mmcq_send(s, nullptr, 1), MMCQ_BAD_PARAMETER);
  std::string big(513, 'x');
  EXPECT_EQ(mmcq_send(s, big.data(), 513), MMCQ_BAD_PARAMETER);
  mmcq_disable_send(s);
  EXPECT_EQ(mmcq_send(s, "x", 1), MMCQ_SEND_DISABLED);
  mmcq_enable_send(s);
  EXPECT_EQ(mmcq_send(s, "abcdef", 6), MMCQ_SUCCESS);
  // Too small a buffer leaves the message for a larger one; peek takes nothing.
  char buf[8];
  int st;
  EXPECT_EQ(mmcq_get_next(r, 3, buf, &st), 0u);
  EXPECT_EQ(st, MMCQ_BUFFER_TOO_SMALL);
  uint32_t len = 3;
  EXPECT_EQ(mmcq_peek(r, &len, buf, &st), 6u);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(std::string(buf, 3), "abc");
  EXPECT_EQ(next(r, &st), "abcdef");
  EXPECT_EQ(next(r, &st), "");
  EXPECT_EQ(st, MMCQ_Q_EMPTY);
  mmcq_delete(s);
  mmcq_delete(r);
}

// Messages of every length wrap the ring many times; order and contents
// hold, and a wrap with fewer than 4 bytes left writes no mark.
TEST_F(MmcqTest, WrapsInOrder) {
  mmcq *r = receiver("q", 2 * kPage, 2 * kPage);  // one page of ring, no growth
  mmcq *s = sender("q", 2 * kPage, 2 * kPage);
  int sent = 0, got = 0;
  uint32_t seed = 7;
  for (int round = 0; round < 3000; round++) {
    seed = seed * 1103515245u + 12345u;
    size_t len = 1 + (seed >> 16) % 300;
    std::string m = msg(0, sent, len);
    int st = mmcq_send(s, m.data(), static_cast<uint32_t>(m.size()));
    if (st == MMCQ_SUCCESS)
      sent++;
    else
      ASSERT_EQ(st, MMCQ_Q_FULL);
    if (st != MMCQ_SUCCESS || (seed >> 8) % 3 == 0) {
      std::string m2 = next(r);
      ASSERT_FALSE(m2.empty());
      ASSERT_EQ(m2.substr(0, m2.find(':', 2) + 1), "0:" + std::to_string(got) + ":");
      got++;
    }
  }
  while (!next(r).empty()) got++;
  EXPECT_EQ(got, sent);
  EXPECT_GT(r->q->high_fill, 3000u);
  mmcq_delete(s);
  mmcq_delete(r);
}

TEST_F(MmcqTest, RingKeepsOneByteFreeAndRefusesWhenFull) {
  mmcq *r = receiver("q", 2 * kPage, 2 * kPage, 0, 4000);
  mmcq *s = sender("q", 2 * kPage, 2 * kPage, 0, 4000);
  // 4096 bytes of ring: a message of exactly 4096 bytes (4092 of payload)
  // would leave put == take; it is refused, one byte less is taken.
  std::string m(4000, 'x');
  EXPECT_EQ(mmcq_send(s, m.data(), 4000), MMCQ_SUCCESS);
  EXPECT_EQ(mmcq_send(s, m.data(), 88), MMCQ_Q_FULL);  // 92 bytes = all that is left
  EXPECT_EQ(mmcq_send(s, m.data(), 87), MMCQ_SUCCESS);
  EXPECT_EQ(mmcq_send(s, "y", 1), MMCQ_Q_FULL);
  EXPECT_EQ(mmcq_send(s, "y", 1), MMCQ_Q_FULL);
  EXPECT_EQ(s->q->full_count, 3u);
  EXPECT_EQ(next(r).size(), 4000u);
  // The tail left before the end is 1 byte: no room for a mark, and the
  // reader's 5-byte rule skips it.
  EXPECT_EQ(mmcq_send(s, "y", 1), MMCQ_SUCCESS);
  EXPECT_EQ(next(r).size(), 87u);
  EXPECT_EQ(next(r), "y");
  EXPECT_EQ(next(r), "");
  mmcq_delete(s);
  mmcq_delete(r);
}

// Growth moves the wrapped part of the ring and keeps every message, in
// one mapping and in region mode.
void grow_with_live_data(mmcq *s, mmcq *r) {
  int sent = 0, got = 0;
  // Wrap first: fill, drain half, fill again so that put < take.
  for (; sent < 20; sent++) ASSERT_EQ(mmcq_send(s, msg(1, sent, 150).data(), 150), MMCQ_SUCCESS);
  for (; got < 12; got++) ASSERT_EQ(next(r), msg(1, got, 150));
  uint32_t grows = r->q->grows;
  for (; sent < 400; sent++) ASSERT_EQ(mmcq_send(s, msg(1, sent, 150).data(), 150), MMCQ_SUCCESS) << sent;
  EXPECT_GT(r->q->grows, grows);
  for (; got < 400; got++) ASSERT_EQ(next(r), msg(1, got, 150)) << got;
  EXPECT_EQ(next(r), "");
}

TEST_F(MmcqTest, GrowsWithLiveDataSingleMapping) {
  mmcq *r = receiver("q", 2 * kPage, 32 * kPage);
  mmcq *s = sender("q", 2 * kPage, 32 * kPage);
  grow_with_live_data(s, r);
  mmcq_delete(s);
  mmcq_delete(r);
}

TEST_F(MmcqTest, GrowsWithLiveDataInRegions) {
  mmcq *r = receiver("q", 2 * kPage, 32 * kPage, 2 * kPage);
  mmcq *s = sender("q", 2 * kPage, 32 * kPage, 2 * kPage);
  ASSERT_NE(r, nullptr);
  EXPECT_FALSE(r->m->single_mapping);
  grow_with_live_data(s, r);
  mmcq_delete(s);
  mmcq_delete(r);
}

TEST_F(MmcqTest, FullAtMaximumUntilTheReceiverTakes) {
  mmcq *r = receiver("q", 2 * kPage, 4 * kPage);
  mmcq *s = sender("q", 2 * kPage, 4 * kPage);
  int sent = 0;
  while (mmcq_send(s, msg(0, sent, 200).data(), 200) == MMCQ_SUCCESS) sent++;
  EXPECT_GT(sent, 3 * 4096 / 204 - 1);
  EXPECT_EQ(mmcq_send(s, msg(0, sent, 200).data(), 200), MMCQ_Q_FULL);
  EXPECT_EQ(mmcq_send(s, msg(0, sent, 200).data(), 200), MMCQ_Q_FULL);
  // Two taken: room for one more wherever put stands (a message at the
  // start needs more than the one taken, as the ring never fills).
  EXPECT_EQ(next(r), msg(0, 0, 200));
  EXPECT_EQ(next(r), msg(0, 1, 200));
  EXPECT_EQ(mmcq_send(s, msg(0, sent, 200).data(), 200), MMCQ_SUCCESS);
  EXPECT_EQ(s->q->full_count, 3u);
  mmcq_delete(s);
  mmcq_delete(r);
}

// A sender killed at each crash point of its growth: the receiver (here)
// still reads every message the sender was told was queued, in order, and
// never a damaged one; the next sender grows on. A growth cut short is
// finished by whoever comes first: the receiver, a sender that was already
// open, or a process that opens the queue.
enum class First { receiver, open_sender, new_opener };

void kill_grower(const char *point, int64_t region, First first, int round) {
  SCOPED_TRACE(std::string(point) + (region ? " in regions" : "") + " finished by " +
               (first == First::receiver ? "the receiver" : first == First::open_sender ? "a sender" : "an opener"));
  std::string name = "g" + std::to_string(round);
  const int64_t def = 2 * kPage, max = 64 * kPage;
  auto open_sender = [&] { return mmcq_sender_create(name.c_str(), nullptr, 1000, def, max, region, nullptr, nullptr); };
  mmcq *r = mmcq_receiver_create(name.c_str(), nullptr, 1000, def, max, region, nullptr, nullptr, nullptr);
  ASSERT_NE(r, nullptr);
  mmcq *early = open_sender();
  for (int n = 0; n < 3; n++) ASSERT_EQ(mmcq_send(early, msg(2, n, 1000).data(), 1000), MMCQ_SUCCESS);
  // Take two of three, so that the next sends wrap and a growth must move data.
  EXPECT_EQ(next(r), msg(2, 0, 1000));
  EXPECT_EQ(next(r), msg(2, 1, 1000));
  // The pipe tells which sends the child was told succeeded.
  int p2[2];
  ASSERT_EQ(pipe(p2), 0);
  pid_t pid = fork();
  if (pid == 0) {
    close(p2[0]);
    tvx_crashpoint_set(point);
    mmcq *s = open_sender();
    for (int i = 3; i < 40; i++) {
      if (mmcq_send(s, msg(2, i, 1000).data(), 1000) != MMCQ_SUCCESS) _exit(4);
      if (write(p2[1], &i, sizeof i) != sizeof i) _exit(5);
    }
    _exit(0);
  }
  close(p2[1]);
  int last = 2, i;
  while (read(p2[0], &i, sizeof i) == static_cast<ssize_t>(sizeof i)) last = i;
  close(p2[0]);
  int st = wait_child(pid);
  ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << st;
  bool cut = strncmp(point, "mmcq_grow", 9) == 0;
  EXPECT_EQ(r->q->grow_new_max != 0, cut);
  int k = 0;
  mmcq *later = nullptr;
  if (first == First::open_sender) {
    ASSERT_EQ(mmcq_send(early, msg(3, k, 1000).data(), 1000), MMCQ_SUCCESS);
    k++;
  } else if (first == First::new_opener) {
    later = open_sender();
  }
  if (first != First::receiver) {
    EXPECT_EQ(r->q->grow_new_max, 0u);
    EXPECT_EQ(r->q->grows_finished, cut ? 1u : 0u);
  }
  // Senders go on (growing again); then every acknowledged message of the
  // dead one comes, in order (one more may be there: stored before the kill
  // but not acknowledged), and then all of theirs.
  mmcq *s = later ? later : open_sender();
  for (int j = k; j < 30; j++) ASSERT_EQ(mmcq_send(s, msg(3, j, 1000).data(), 1000), MMCQ_SUCCESS);
  int expect = 2;
  std::string m = next(r);
  for (; !m.empty() && m[0] == '2'; m = next(r), expect++) ASSERT_EQ(m, msg(2, expect, 1000));
  EXPECT_GE(expect, last + 1);
  EXPECT_LE(expect, last + 2);
  EXPECT_EQ(r->q->grow_new_max, 0u);
  EXPECT_EQ(r->q->grows_finished, cut ? 1u : 0u);
  for (int j = 0; j < 30; j++, m = next(r)) ASSERT_EQ(m, msg(3, j, 1000));
  EXPECT_EQ(m, "");
  mmcq_delete(s);
  mmcq_delete(early);
  mmcq_delete(r);
}

TEST_F(MmcqTest, GrowerKilledAtEachPointLeavesAReadableRing) {
  ASSERT_TRUE(tvx_crashpoints_built());
  const char *points[] = {"mmcq_grow_marked", "mmcq_grow_copied", "mmcq_grow_copied:2", "mmcq_grow_committing",
                          "mmcq_send_written", "mmf_grow_extended", "mmf_grow_stored"};
  int round = 0;
  for (int64_t region : {int64_t(0), 2 * kPage})
    for (const char *point : points) kill_grower(point, region, First::receiver, round++);
  for (First first : {First::open_sender, First::new_opener})
    for (const char *point : {"mmcq_grow_marked", "mmcq_grow_copied:2", "mmcq_grow_committing"})
      kill_grower(point, 0, first, round++);
}

// A receiver that died leaves its messages; the next one is handed them.
// A live receiver replaced is logged.
TEST_F(MmcqTest, ReceiverTakeover) {
  mmcq *s = sender();
  pid_t pid = fork();
  if (pid == 0) {
    mmcq *r = receiver();
    _exit(r ? 0 : 1);  // dies without cleaning up
  }
  ASSERT_EQ(WEXITSTATUS(wait_child(pid)), 0);
  EXPECT_NE(s->q->receiver_pid, 0u);
  EXPECT_FALSE(mmcq_check_receiver(s));
  EXPECT_EQ(s->q->receiver_pid, 0u);
  for (int i = 0; i < 5; i++) ASSERT_EQ(mmcq_send(s, msg(0, i, 20).data(), 20), MMCQ_SUCCESS);
  mmcq *r = receiver();
  EXPECT_TRUE(mmcq_check_receiver(s));
  for (int i = 0; i < 5; i++) EXPECT_EQ(next(r), msg(0, i, 20));

  // A live receiver in a child, replaced by this one: logged.
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  pid = fork();
  if (pid == 0) {
    close(p[0]);
    mmcq *r2 = receiver();
    char c = r2 ? 1 : 0;
    if (write(p[1], &c, 1) != 1) _exit(2);
    pause();
    _exit(0);
  }
  close(p[1]);
  char c = 0;
  ASSERT_EQ(read(p[0], &c, 1), 1);
  ASSERT_EQ(c, 1);
  mmcq *r3 = receiver();
  EXPECT_EQ(r3->q->receiver_pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(r3->q->takeovers, 2u);  // the first dead one was cleared by the sender's watch
  kill(pid, SIGKILL);
  wait_child(pid);
  close(p[0]);
  FILE *f = fopen(tvx_path("/var/tmp/dupe_mmcq.log").c_str(), "r");
  ASSERT_NE(f, nullptr);
  std::string all;
  char line[256];
  while (fgets(line, sizeof line, f)) all += line;
  fclose(f);
  // The child replaced this process's live receiver, then this one the child.
  std::string me = std::to_string(getpid()), kid = std::to_string(pid);
  EXPECT_NE(all.find("queue q, pidPrev " + me + ", pidNew " + kid + "\n"), std::string::npos) << all;
  EXPECT_NE(all.find("queue q, pidPrev " + kid + ", pidNew " + me + "\n"), std::string::npos) << all;
  mmcq_delete(r3);
  mmcq_delete(r);
  mmcq_delete(s);
}

// Three senders in three processes, the receiver here: everything arrives,
// each sender's messages in its order, through several growths.
TEST_F(MmcqTest, ManySendersKeepTheirOrder) {
  mmcq *r = receiver("q", 2 * kPage, 64 * kPage, 0, 512);
  const int kSenders = 3, kEach = 3000;
  std::vector<pid_t> kids;
  for (int w = 0; w < kSenders; w++) {
    pid_t pid = fork();
    if (pid == 0) {
      mmcq *s = sender("q", 2 * kPage, 64 * kPage, 0, 512);
      for (int i = 0; i < kEach;) {
        std::string m = msg(w, i, 10 + (i * 7 + w) % 400);
        int st = mmcq_send(s, m.data(), static_cast<uint32_t>(m.size()));
        if (st == MMCQ_SUCCESS)
          i++;
        else if (st == MMCQ_Q_FULL)
          usleep(100);
        else
          _exit(10 + st);
      }
      _exit(0);
    }
    kids.push_back(pid);
  }
  std::vector<int> seen(kSenders, 0);
  int total = 0;
  while (total < kSenders * kEach) {
    std::string m = next(r);
    if (m.empty()) {
      usleep(50);
      continue;
    }
    int w = m[0] - '0';
    ASSERT_GE(w, 0);
    ASSERT_LT(w, kSenders);
    ASSERT_EQ(m, msg(w, seen[w], 10 + (seen[w] * 7 + w) % 400));
    seen[w]++;
    total++;
  }
  for (pid_t k : kids) EXPECT_EQ(wait_child(k), 0);
  EXPECT_EQ(next(r), "");
  mmcq_delete(r);
}

// Threads of one process share a sender handle (the file's lock tells
// them apart) while the receiver takes in another thread; the ring grows
// under them, in one mapping and in regions.
TEST_F(MmcqTest, ThreadsShareASenderHandle) {
  for (int64_t region : {int64_t(0), 2 * kPage}) {
    SCOPED_TRACE(region);
    std::string name = "t" + std::to_string(region);
    mmcq *r = receiver(name.c_str(), 2 * kPage, 64 * kPage, region, 512);
    mmcq *s = sender(name.c_str(), 2 * kPage, 64 * kPage, region, 512);
    ASSERT_NE(s, nullptr);
    const int kThreads = 3, kEach = 2000;
    std::vector<std::thread> ts;
    std::atomic<int> failures{0};
    for (int w = 0; w < kThreads; w++)
      ts.emplace_back([&, w] {
        for (int i = 0; i < kEach;) {
          std::string m = msg(w, i, 10 + (i * 13 + w) % 480);
          int st = mmcq_send(s, m.data(), static_cast<uint32_t>(m.size()));
          if (st == MMCQ_SUCCESS)
            i++;
          else if (st == MMCQ_Q_FULL)
            std::this_thread::yield();
          else
            failures++, i++;
        }
      });
    std::vector<int> seen(kThreads, 0);
    for (int total = 0; total < kThreads * kEach && failures == 0;) {
      std::string m = next(r);
      if (m.empty()) {
        std::this_thread::yield();
        continue;
      }
      int w = m[0] - '0';
      ASSERT_TRUE(w >= 0 && w < kThreads) << m.substr(0, 20);
      ASSERT_EQ(m, msg(w, seen[w], 10 + (seen[w] * 13 + w) % 480));
      seen[w]++;
      total++;
    }
    for (auto &t : ts) t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_GT(r->q->grows, 0u);
    EXPECT_EQ(next(r), "");
    mmcq_delete(s);
    mmcq_delete(r);
  }
}

struct Counter {
  mmcq *r;
  int calls = 0;
  std::vector<std::string> got;
  bool send_inside = false;
  mmcq *s = nullptr;
};

void on_msgs(mmcq *q, void *cookie) {
  Counter *c = static_cast<Counter *>(cookie);
  c->calls++;
  for (std::string m = next(q); !m.empty(); m = next(q)) c->got.push_back(m);
  // A message that arrives after the last look, before rnw is armed again.
  if (c->send_inside) {
    c->send_inside = false;
    mmcq_send(c->s, "late", 4);
  }
}

bool readable(int fd) {
  pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

TEST_F(MmcqTest, WakeUpsAreNeitherLostNorRepeated) {
  Counter c;
  mmcq *r = receiver("q", 2 * kPage, 8 * kPage, 0, 512, on_msgs, &c);
  mmcq *s = sender();
  c.s = s;
  EXPECT_EQ(r->q->receiver_stopped, 0);
  EXPECT_EQ(r->q->rnw, 1);
  EXPECT_FALSE(readable(mmcq_wake_fd(r)));
  ASSERT_EQ(mmcq_send(s, "a", 1), MMCQ_SUCCESS);
  ASSERT_EQ(mmcq_send(s, "b", 1), MMCQ_SUCCESS);
  EXPECT_EQ(s->q->wakeup_bytes_sent, 1u);  // the first sender cleared rnw
  ASSERT_TRUE(readable(mmcq_wake_fd(r)));
  c.send_inside = true;
  mmcq_receiver_receive(r);
  EXPECT_EQ(c.got, (std::vector<std::string>{"a", "b"}));
  // "late" came while rnw was clear: the receiver woke itself.
  ASSERT_TRUE(readable(mmcq_wake_fd(r)));
  mmcq_receiver_receive(r);
  EXPECT_EQ(c.got.back(), "late");
  EXPECT_FALSE(readable(mmcq_wake_fd(r)));
  EXPECT_EQ(r->q->wakeup_bytes_read, r->q->wakeup_bytes_sent);
  // A receiver that is not taking (no callback) is never woken.
  mmcq_delete(r);
  mmcq *r2 = receiver();
  ASSERT_EQ(mmcq_send(s, "c", 1), MMCQ_SUCCESS);
  EXPECT_FALSE(readable(mmcq_wake_fd(r2)));
  mmcq_delete(r2);
  mmcq_delete(s);
}

// A restarted receiver with a callback is woken for what was left.
TEST_F(MmcqTest, NewReceiverIsWokenForLeftMessages) {
  mmcq *s = sender();
  ASSERT_EQ(mmcq_send(s, "left", 4), MMCQ_SUCCESS);
  Counter c;
  mmcq *r = receiver("q", 2 * kPage, 8 * kPage, 0, 512, on_msgs, &c);
  ASSERT_TRUE(readable(mmcq_wake_fd(r)));
  mmcq_receiver_receive(r);
  EXPECT_EQ(c.got, std::vector<std::string>{"left"});
  mmcq_delete(r);
  mmcq_delete(s);
}

// A damaged header is rebuilt at open, not asserted on; the file's own
// heap walk is not run over the ring.
TEST_F(MmcqTest, DamagedHeaderIsRebuiltAtOpen) {
  mmcq *s = sender();
  ASSERT_EQ(mmcq_send(s, "x", 1), MMCQ_SUCCESS);
  off_t common = static_cast<off_t>(s->m->shared_info->common_offset);
  mmcq_delete(s);
  // Ring bytes that are no heap nodes keep the file and its messages.
  mmcq *r = receiver();
  EXPECT_EQ(next(r), "x");
  mmcq_delete(r);
  uint8_t bad = 7;
  poke(static_cast<uint64_t>(common) + 0x1a, &bad, 1, "/mfs/var/mmcq/q");
  r = receiver();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->q->send_disabled, 0);
  EXPECT_EQ(r->q->put_offset, r->q->take_offset);
  mmcq_delete(r);
}

// A pid in the grower word or the receiver's of a process that does not
// have the file mapped (pid 1 here) is damage or a dead process's pid
// reused: taken over, never waited on until the wait limit kills us.
TEST_F(MmcqTest, UnrelatedLivePidsAreNotWaitedOn) {
  mmcq *r = receiver();
  mmcq *s = sender();
  ASSERT_EQ(mmcq_send(s, "x", 1), MMCQ_SUCCESS);
  uint32_t one = 1;
  const uint64_t grower = s->m->shared_info->common_offset + offsetof(mmcq_header_t, grower_pid);
  poke(grower, &one, 4, "/mfs/var/mmcq/q");
  EXPECT_EQ(next(r), "x");
  poke(grower, &one, 4, "/mfs/var/mmcq/q");
  std::string big(400, 'b');
  for (int i = 0; i < 40; i++) ASSERT_EQ(mmcq_send(s, big.data(), 400), MMCQ_SUCCESS);  // grows
  EXPECT_GT(s->q->grows, 0u);
  poke(s->m->shared_info->common_offset + offsetof(mmcq_header_t, receiver_pid), &one, 4, "/mfs/var/mmcq/q");
  EXPECT_FALSE(mmcq_check_receiver(s));
  EXPECT_EQ(s->q->receiver_pid, 0u);
  mmcq_delete(s);
  mmcq_delete(r);
}

}  // namespace
