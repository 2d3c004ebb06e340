// The routing-table index of a receive: link messages parsed, the VRF lookup
// with its cache, the receive path with "RecvRtb", hand-built table records,
// and the real kernel's link notifications in a private network namespace.
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "io_fixture.h"
#include "task/vrf.h"

namespace tt {
namespace {

// ---- Link messages ------------------------------------------------------------------------

struct link_msg {
  alignas(nlmsghdr) char buf[1024] = {};
  nlmsghdr *nlh;
  explicit link_msg(int ifindex) {
    nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = RTM_NEWLINK;
    auto *ifi = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    ifi->ifi_index = ifindex;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, "x");
  }
  link_msg &master(uint32_t m) {
    mnl_attr_put_u32(nlh, IFLA_MASTER, m);
    return *this;
  }
  // kind/data, or slave kind/slave data when port is set.
  link_msg &info(const char *kind, int table_attr, uint32_t table, bool port = false) {
    nlattr *li = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
    mnl_attr_put_strz(nlh, port ? IFLA_INFO_SLAVE_KIND : IFLA_INFO_KIND, kind);
    if (table_attr >= 0) {
      nlattr *d = mnl_attr_nest_start(nlh, port ? IFLA_INFO_SLAVE_DATA : IFLA_INFO_DATA);
      mnl_attr_put_u32(nlh, static_cast<uint16_t>(table_attr), table);
      mnl_attr_nest_end(nlh, d);
    }
    mnl_attr_nest_end(nlh, li);
    return *this;
  }
  size_t len() const { return nlh->nlmsg_len; }
};

TEST(VrfParse, DevicePortAndOthers) {
  task_vrf_link l;
  link_msg vrf(5);
  vrf.info("vrf", IFLA_VRF_TABLE, 10);
  ASSERT_EQ(task_vrf_parse_link(vrf.nlh, vrf.len(), &l), 0);
  EXPECT_EQ(l.tvl_ifindex, 5);
  EXPECT_TRUE(l.tvl_is_vrf);
  EXPECT_EQ(l.tvl_table, 10u);
  EXPECT_FALSE(l.tvl_vrf_port);

  link_msg port(6);
  port.master(5).info("vrf", IFLA_VRF_PORT_TABLE, 10, true);
  ASSERT_EQ(task_vrf_parse_link(port.nlh, port.len(), &l), 0);
  EXPECT_EQ(l.tvl_master, 5);
  EXPECT_FALSE(l.tvl_is_vrf);
  EXPECT_TRUE(l.tvl_vrf_port);
  EXPECT_EQ(l.tvl_port_table, 10u);

  // A bridge port's data is not a table, whatever its attribute numbers say.
  link_msg bport(7);
  bport.master(9).info("bridge", IFLA_VRF_PORT_TABLE, 77, true);
  ASSERT_EQ(task_vrf_parse_link(bport.nlh, bport.len(), &l), 0);
  EXPECT_EQ(l.tvl_master, 9);
  EXPECT_FALSE(l.tvl_vrf_port);
  EXPECT_EQ(l.tvl_port_table, 0u);

  // "vrfx" and "vr" are other kinds.
  link_msg other(8);
  other.info("vrfx", IFLA_VRF_TABLE, 3);
  ASSERT_EQ(task_vrf_parse_link(other.nlh, other.len(), &l), 0);
  EXPECT_FALSE(l.tvl_is_vrf);

  // Not link messages at all.
  EXPECT_EQ(task_vrf_parse_link(vrf.nlh, 8, &l), EINVAL);
  EXPECT_EQ(task_vrf_parse_link(vrf.nlh, vrf.len() - 1, &l), EINVAL);
  vrf.nlh->nlmsg_type = RTM_NEWADDR;
  EXPECT_EQ(task_vrf_parse_link(vrf.nlh, vrf.len(), &l), EINVAL);
}

// Damaged messages are refused or read within their bounds (the sanitizer
// build watches the reads); a parse never reports a table it was not given.
TEST(VrfParse, MutatedMessagesStayInBounds) {
  std::mt19937 rng(20261121);
  link_msg base(6);
  base.master(5).info("vrf", IFLA_VRF_PORT_TABLE, 10, true);
  size_t n = base.len();
  for (int round = 0; round < 4000; round++) {
    std::vector<char> m(base.buf, base.buf + n);
    int flips = 1 + static_cast<int>(rng() % 4);
    for (int f = 0; f < flips; f++) m[sizeof(nlmsghdr) + rng() % (n - sizeof(nlmsghdr))] = static_cast<char>(rng());
    size_t cut = rng() % 4 == 0 ? rng() % n : n;
    // The copy ends where the message claims to; a heap block the parse may not pass.
    std::vector<char> exact(m.begin(), m.begin() + static_cast<long>(cut));
    task_vrf_link l;
    int rc = task_vrf_parse_link(exact.data(), exact.size(), &l);
    if (rc == 0) {
      EXPECT_GE(cut, sizeof(nlmsghdr) + sizeof(ifinfomsg));
    } else {
      EXPECT_EQ(rc, EINVAL);
      EXPECT_EQ(l.tvl_ifindex, 0);
    }
  }
}

// ---- The lookup, on a scripted kernel ----------------------------------------------------

std::map<int, task_vrf_link> fake_links;
int fake_fetches;
int fake_fetch(int ifindex, task_vrf_link *out) {
  fake_fetches++;
  auto it = fake_links.find(ifindex);
  if (it == fake_links.end()) return ENODEV;
  *out = it->second;
  return 0;
}

task_vrf_link L(int ifindex, int master = 0, bool vrf = false, uint32_t table = 0, bool port = false,
                uint32_t port_table = 0) {
  task_vrf_link l{};
  l.tvl_ifindex = ifindex;
  l.tvl_master = master;
  l.tvl_is_vrf = vrf;
  l.tvl_table = table;
  l.tvl_vrf_port = port;
  l.tvl_port_table = port_table;
  return l;
}

class Vrf : public Io {
 protected:
  void SetUp() override {
    Io::SetUp();
    fake_links = {
        {1, L(1)},                              // not enslaved
        {5, L(5, 0, true, 10)},                 // a VRF device
        {6, L(6, 5, false, 0, true, 10)},       // its port, described with the table
        {7, L(7, 5)},                           // its port, described without
        {8, L(8, 9)},                           // a bridge port
        {9, L(9)},                              // the bridge
        {12, L(12, 13)},                        // a port whose master vanished
    };
    fake_fetches = 0;
    task_vrf_set_fetch(fake_fetch);
  }
  void TearDown() override {
    task_vrf_set_fetch(nullptr);
    Io::TearDown();
  }
};

TEST_F(Vrf, TablesByInterfaceAndTheCache) {
  struct {
    int ifindex;
    uint32_t table;
    int fetches;
  } cases[] = {{1, 0, 1}, {5, 10, 1}, {6, 10, 1}, {7, 10, 2}, {8, 0, 2}, {11, 0, 1}, {12, 0, 2}, {0, 0, 0}};
  for (auto &c : cases) {
    fake_fetches = 0;
    EXPECT_EQ(task_vrf_table(c.ifindex), c.table) << c.ifindex;
    EXPECT_EQ(fake_fetches, c.fetches) << c.ifindex;
  }
  // Answers are kept; failures are asked again.
  fake_fetches = 0;
  for (int i : {1, 5, 6, 7, 8}) task_vrf_table(i);
  EXPECT_EQ(fake_fetches, 0);
  task_vrf_table(11);
  EXPECT_EQ(fake_fetches, 1);
  // A flush forgets everything.
  uint64_t flushes = task_vrf_get_stats().tvs_flushes;
  fake_links[1] = L(1, 5, false, 0, true, 10);
  EXPECT_EQ(task_vrf_table(1), 0u);
  task_vrf_flush();
  EXPECT_EQ(task_vrf_get_stats().tvs_flushes, flushes + 1);
  EXPECT_EQ(task_vrf_table(1), 10u);
}

int sender() { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); }
void send_to(int s, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(sendto(s, "ping", 4, 0, reinterpret_cast<sockaddr *>(&to), sizeof to), 4);
}
void nop_read(task *) {}

TEST_F(Vrf, ReceivePathReportsTheIngressTableOnlyWithRecvRtb) {
  int lo = static_cast<int>(if_nametoindex("lo"));
  fake_links[lo] = L(lo, 5, false, 0, true, 10);  // as if lo were in VRF table 10
  task *tp;
  uint16_t port = udp_task(&tp, nop_read);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RCVIF, 1), 0);
  int s = sender();
  size_t n;
  const task_recv_info *ri = task_get_recv_info();

  send_to(s, port);
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(ri->tri_ifindex, lo);
  EXPECT_EQ(ri->tri_rtbl_index, TASK_RTBL_INDEX_NONE);

  ASSERT_EQ(task_set_option(tp, TASKOPTION_RECV_RTB, 1), 0);
  int v = 0;
  socklen_t vl = sizeof v;
  ASSERT_EQ(task_get_option(tp, TASKOPTION_RECV_RTB, &v, &vl), 0);
  EXPECT_EQ(v, 1);
  send_to(s, port);
  send_to(s, port);
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(ri->tri_rtbl_index, 10u);
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(ri->tri_rtbl_index, 10u);
  EXPECT_EQ(fake_fetches, 1);  // the second datagram came from the cache

  // The watch goes with the option and with the socket.
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RECV_RTB, 0), 0);
  EXPECT_FALSE(task_vrf_watching(tp));
  send_to(s, port);
  ASSERT_EQ(task_receive_packet(tp, &n), 0);
  EXPECT_EQ(ri->tri_rtbl_index, TASK_RTBL_INDEX_NONE);
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RECV_RTB, 1), 0);
  EXPECT_TRUE(task_vrf_watching(tp));
  task_delete(tp);
  EXPECT_FALSE(task_vrf_watching(tp));
  close(s);
}

// A table record in the control data wins over the VRF; a short one is
// reported, and the datagram is read as one without table information.
TEST_F(Vrf, HandBuiltTableRecords) {
  evlog_capture &cap = evlog_capture_start();
  task *tp = task_alloc("cm", 1, nullptr);
  auto feed = [&](size_t len, uint32_t table) {
    alignas(cmsghdr) uint8_t buf[128] = {};
    msghdr msg{};
    msg.msg_control = buf;
    msg.msg_controllen = CMSG_SPACE(len);
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = TASK_CMSG_IP_RTBL_INDEX;
    c->cmsg_len = CMSG_LEN(len);
    memcpy(CMSG_DATA(c), &table, sizeof table);
    task_receive_packet_process_cmsg_internal(tp, &msg);
    return task_get_recv_info()->tri_rtbl_index;
  };
  EXPECT_EQ(feed(4, 0x1234) & 0xFFFF, 0xFFFFu);
  ASSERT_EQ(cap.records.size(), 1u);
  EXPECT_EQ(cap.records[0].tag, "ZTASK_ROUTE_INDEX_TRUNCATED");
  EXPECT_NE(cap.records[0].text.find("Receive packet call: cm route table index from zero-lentruncated"),
            std::string::npos)
      << cap.records[0].text;
  EXPECT_EQ(feed(TASK_CMSG_IP_RTBL_INDEX_LEN, 0x1234), 0x1234u);
  EXPECT_EQ(cap.records.size(), 1u);
  evlog_capture_stop();
  task_delete(tp);
}

// ---- The real kernel, in a network namespace of the test's own ------------------------------

// Enters a private network namespace (through a user namespace when not
// privileged); false when the machine allows neither.
bool private_netns() {
  if (unshare(CLONE_NEWNET) == 0) return true;
  uid_t uid = getuid();
  gid_t gid = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  auto put = [](const char *path, const std::string &text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
  };
  put("/proc/self/setgroups", "deny");
  return put("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
         put("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

bool ip(const std::string &args) { return system(("ip " + args + " >/dev/null 2>&1").c_str()) == 0; }

TEST_F(Io, RealKernelLinksAndNotifications) {
  if (!private_netns()) GTEST_SKIP() << "no private network namespace here";
  if (!ip("link set lo up") || !ip("link add br0 type bridge") || !ip("link add v0 type veth peer name v1"))
    GTEST_SKIP() << "no bridge or veth links here";
  ASSERT_TRUE(ip("link set v0 master br0"));
  int v0 = static_cast<int>(if_nametoindex("v0")), v1 = static_cast<int>(if_nametoindex("v1"));
  int br = static_cast<int>(if_nametoindex("br0"));
  ASSERT_GT(v0 * v1 * br, 0);

  // Nothing here is a VRF: every table is the default instance. A bridge port
  // costs one more question, the master's.
  task_vrf_stats st = task_vrf_get_stats();
  EXPECT_EQ(task_vrf_table(v0), 0u);
  EXPECT_EQ(task_vrf_table(v1), 0u);
  EXPECT_EQ(task_vrf_table(br), 0u);
  EXPECT_GE(task_vrf_get_stats().tvs_fetches - st.tvs_fetches, 4u);
  EXPECT_EQ(task_vrf_table(424242), 0u);  // no such interface

  task *tp;
  udp_task(&tp, [](task *) {});
  ASSERT_EQ(task_set_option(tp, TASKOPTION_RECV_RTB, 1), 0);
  task_vrf_table(v1);
  st = task_vrf_get_stats();
  task_vrf_table(v1);
  EXPECT_EQ(task_vrf_get_stats().tvs_fetches, st.tvs_fetches);  // cached

  // A link change reaches the hook on the next pass and empties the cache.
  ASSERT_TRUE(ip("link set v1 master br0"));
  for (int i = 0; i < 50 && task_vrf_get_stats().tvs_flushes == st.tvs_flushes; i++) real_passes(1);
  EXPECT_EQ(task_vrf_get_stats().tvs_flushes, st.tvs_flushes + 1);
  EXPECT_EQ(task_vrf_table(v1), 0u);
  EXPECT_EQ(task_vrf_get_stats().tvs_fetches, st.tvs_fetches + 2);  // v1, then its master
  task_delete(tp);
}

}  // namespace
}  // namespace tt
