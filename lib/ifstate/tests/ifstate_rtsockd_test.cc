// The mirrors against the real rtsockd: a 10,000-interface state scanned
// and mirrored exactly, then changed at random through the admin socket and
// followed against a model of what the peer holds.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>

#include <map>
#include <random>
#include <set>

#include "io_fixture.h"
#include "ifstate/ifobj.h"
#include "ifstate/rt_instance.h"
#include "krt/krt.h"
#include "krt/krt_scan.h"
#include "rtsockd_proc.h"

namespace {

constexpr uint32_t kDevices = 2000, kUnits = 5;  // 10,000 logical interfaces

uint32_t ifl_index(uint32_t dev, uint32_t unit) { return 100000 + dev * 10 + unit; }
std::string dev_name(uint32_t dev) { return "ge-" + std::to_string(dev / 100) + "/0/" + std::to_string(dev % 100); }
std::string v4(uint32_t n) {
  return "10." + std::to_string((n >> 16) & 255) + "." + std::to_string((n >> 8) & 255) + "." + std::to_string(n & 255);
}

// What the peer holds, in the mirror's terms: "ifl name" -> families -> addresses.
struct Model {
  std::map<uint32_t, std::string> ifl;                             // index -> name
  std::map<std::pair<uint32_t, int>, uint32_t> iff;                // (ifl, af) -> mtu
  std::set<std::tuple<uint32_t, int, std::string>> ifa;            // (ifl, af, "a.b.c.d/32")
};

// The mirror in the same terms.
Model mirror() {
  Model m;
  for (if_link *l = ifl_first(); l; l = ifl_next(l)) {
    m.ifl[l->ifl_index] = l->ifl_name;
    for (if_family *f = iff_first(l); f; f = iff_next(f)) {
      int af = if_family_rts_af(f->iff_family);
      m.iff[{l->ifl_index, af}] = f->iff_mtu;
      for (if_address *a = ifa_first(f); a; a = ifa_next(a)) {
        char text[INET6_ADDRSTRLEN];
        inet_ntop(af == 2 ? AF_INET : AF_INET6, a->ifa_local, text, sizeof text);
        m.ifa.insert({l->ifl_index, af, std::string(text) + "/" + std::to_string(a->ifa_local_bits)});
      }
    }
  }
  return m;
}

bool scan_done;
void on_scan_done() { scan_done = true; }

class IfstateRtsockd : public tt::Io {
 protected:
  void start() {
    static krt_handler_fn handlers[KRT_HANDLER_COUNT] = {};
    if_rtsock_install(handlers);
    handlers[RTS_T_RTTABLE] = rt_instance_krt_handler;
    constexpr uint32_t kScans = uint32_t{RT_INSTANCE_SCAN_COUNT} + IF_SCAN_COUNT;
    static krt_scan scans[kScans];
    memcpy(scans, rt_instance_scan_list(), sizeof(krt_scan) * RT_INSTANCE_SCAN_COUNT);
    memcpy(scans + RT_INSTANCE_SCAN_COUNT, if_scan_list(), sizeof(krt_scan) * IF_SCAN_COUNT);
    scans[kScans - 1].done = on_scan_done;
    static krt_config cfg{};
    cfg.sender_id = 131;
    cfg.listen_mask[0] = 0x2 | 0x4 | 0x10 | 0x20 | 0x2000;
    cfg.async_mode_on = 1;
    cfg.handlers = handlers;
    cfg.scans = scans;
    cfg.scan_count = kScans;
    if_init();
    rt_instance_init();
    krt_var_init();
    krt_start(&cfg);
    for (int i = 0; i < 2000 && !scan_done; i++) real_passes(2);
  }
  // Runs the loop until pred holds (the peer is another process).
  template <class P>
  bool until(P pred) {
    for (int idle = 0; idle < 50 && !pred();) {
      real_passes(2);
      if (pred()) break;
      if (!krt_read_job()) {
        pollfd pf{krt_task()->task_socket, POLLIN, 0};
        idle = poll(&pf, 1, 100) > 0 ? 0 : idle + 1;
      }
    }
    return pred();
  }
};

TEST_F(IfstateRtsockd, TenThousandInterfacesMirroredExactlyThenFollowedThroughRandomChanges) {
  std::string state = "rttable af=2 index=0 name=default\nrttable af=28 index=0 name=default\n"
                      "rttable af=2 index=9 name=blue attr=3\n";
  Model model;
  uint32_t n = 0;
  for (uint32_t d = 1; d <= kDevices; d++) {
    state += "ifd index=" + std::to_string(d) + " name=" + dev_name(d) + " mtu=1514\n";
    for (uint32_t u = 0; u < kUnits; u++, n++) {
      uint32_t x = ifl_index(d, u);
      std::string name = dev_name(d) + "." + std::to_string(u);
      state += "ifl index=" + std::to_string(x) + " ifd_index=" + std::to_string(d) + " unit=" + std::to_string(u) +
               " name=" + dev_name(d) + "\n";
      state += "iff ifl_index=" + std::to_string(x) + " af=2 mtu=1500 name=" + name + "\n";
      state += "ifa ifl_index=" + std::to_string(x) + " af=2 local=" + v4(n) + "/32\n";
      model.ifl[x] = name;
      model.iff[{x, 2}] = 1500;
      model.ifa.insert({x, 2, v4(n) + "/32"});
      if (n % 10 == 0) {  // some with inet6 too, no addresses there
        state += "iff ifl_index=" + std::to_string(x) + " af=28 mtu=1500 name=" + name + "\n";
        model.iff[{x, 28}] = 1500;
      }
    }
  }
  Rtsockd p(state);
  ASSERT_TRUE(p.ready()) << p.log();
  start();
  ASSERT_TRUE(scan_done);
  EXPECT_EQ(ifd_count(), kDevices);
  EXPECT_EQ(ifl_count(), kDevices * kUnits);
  Model got = mirror();
  EXPECT_TRUE(got.ifl == model.ifl);
  EXPECT_TRUE(got.iff == model.iff);
  EXPECT_TRUE(got.ifa == model.ifa);
  EXPECT_EQ(rt_instance_count(), 3u);
  ASSERT_NE(rt_instance_find_by_name("blue&AF=2"), nullptr);
  EXPECT_EQ(rt_instance_find_by_name("blue&AF=2")->rti_attr, 3);
  EXPECT_EQ(rt_instance_find(RTS_AF_INET6, 0), rt_instance_find_by_name("default&AF=28"));

  // Random changes: addresses added and deleted on both families, family
  // MTUs changed, logical interfaces added (with a family) and deleted.
  std::mt19937 rng(21);
  uint32_t next_addr = 1u << 20, added = 0;
  int applied = 0;
  for (int i = 0; i < 400; i++) {
    uint32_t d = 1 + rng() % kDevices, u = rng() % kUnits, x = ifl_index(d, u);
    std::string cmd;
    switch (rng() % 5) {
      case 0: {  // an address
        if (!model.ifl.count(x)) continue;
        int af = model.iff.count({x, 28}) && rng() % 2 ? 28 : 2;
        if (!model.iff.count({x, af})) continue;
        std::string a = af == 2 ? v4(next_addr++) : "2001:db8::" + std::to_string(next_addr++ % 9000 + 1);
        cmd = "add ifa ifl_index=" + std::to_string(x) + " af=" + std::to_string(af) + " local=" + a +
              (af == 2 ? "/32" : "/128");
        model.ifa.insert({x, af, a + (af == 2 ? "/32" : "/128")});
        break;
      }
      case 1: {  // delete an inet address of this interface
        auto it = model.ifa.lower_bound({x, 2, ""});
        if (it == model.ifa.end() || std::get<0>(*it) != x || std::get<1>(*it) != 2) continue;
        cmd = "delete ifa ifl_index=" + std::to_string(x) + " af=2 local=" + std::get<2>(*it);
        model.ifa.erase(it);
        break;
      }
      case 2: {  // an MTU
        if (!model.iff.count({x, 2})) continue;
        uint32_t mtu = 1280 + rng() % 8000;
        cmd = "change iff ifl_index=" + std::to_string(x) + " af=2 mtu=" + std::to_string(mtu) +
              " name=" + model.ifl[x];
        model.iff[{x, 2}] = mtu;
        break;
      }
      case 3: {  // a new unit with a family
        uint32_t unit = 5 + added++, y = ifl_index(d, 0) + 100000 + unit;
        std::string name = dev_name(d) + "." + std::to_string(unit);
        EXPECT_NE(p.admin("add ifl index=" + std::to_string(y) + " ifd_index=" + std::to_string(d) +
                          " unit=" + std::to_string(unit) + " name=" + dev_name(d)).find("ok"), std::string::npos);
        cmd = "add iff ifl_index=" + std::to_string(y) + " af=2 mtu=9000 name=" + name;
        model.ifl[y] = name;
        model.iff[{y, 2}] = 9000;
        break;
      }
      default: {  // delete a logical interface that has nothing below it any more
        bool bare = !model.iff.count({x, 2}) && !model.iff.count({x, 28});
        if (!model.ifl.count(x)) continue;
        if (!bare) {
          // Empty it first, as a kernel would.
          for (auto it = model.ifa.lower_bound({x, 0, ""}); it != model.ifa.end() && std::get<0>(*it) == x;) {
            if (std::get<1>(*it) == 28) { ++it; continue; }
            EXPECT_NE(p.admin("delete ifa ifl_index=" + std::to_string(x) + " af=2 local=" + std::get<2>(*it))
                          .find("ok"), std::string::npos);
            it = model.ifa.erase(it);
          }
          if (model.ifa.lower_bound({x, 0, ""}) != model.ifa.end() &&
              std::get<0>(*model.ifa.lower_bound({x, 0, ""})) == x)
            continue;  // inet6 addresses stay: leave it
          for (int af : {2, 28}) {
            if (!model.iff.erase({x, af})) continue;
            EXPECT_NE(p.admin("delete iff ifl_index=" + std::to_string(x) + " af=" + std::to_string(af)).find("ok"),
                      std::string::npos);
          }
        }
        cmd = "delete ifl index=" + std::to_string(x);
        model.ifl.erase(x);
        break;
      }
    }
    std::string r = p.admin(cmd);
    EXPECT_NE(r.find("ok"), std::string::npos) << cmd << ": " << r;
    applied++;
  }
  EXPECT_GT(applied, 250);
  // Notifications come in order: once the marker is there, all are.
  ASSERT_NE(p.admin("add ifd index=65000 name=marker").find("ok"), std::string::npos);
  ASSERT_TRUE(until([] { return ifd_find_by_index(65000) != nullptr; }));
  got = mirror();
  EXPECT_EQ(got.ifl.size(), model.ifl.size());
  EXPECT_TRUE(got.ifl == model.ifl);
  EXPECT_TRUE(got.iff == model.iff);
  EXPECT_EQ(got.ifa.size(), model.ifa.size());
  EXPECT_TRUE(got.ifa == model.ifa);
}

// A device's port type is fixed once it exists, yet any peer can send a
// message that changes it (here through the admin socket): the mirror must
// refuse that message and carry on, not stop the daemon.
TEST_F(IfstateRtsockd, APeerChangingADevicesPortTypeIsRefusedAndTheMirrorCarriesOn) {
  Rtsockd p("ifd index=1 name=ge-0/0/0 porttype=24 mtu=1514\n");
  ASSERT_TRUE(p.ready()) << p.log();
  start();
  ASSERT_TRUE(scan_done);
  ASSERT_NE(ifd_find_by_index(1), nullptr);
  EXPECT_EQ(ifd_find_by_index(1)->ifd_porttype, 24);
  ASSERT_NE(p.admin("change ifd index=1 name=ge-0/0/0 porttype=25 mtu=9000").find("ok"), std::string::npos);
  ASSERT_NE(p.admin("add ifd index=2 name=marker").find("ok"), std::string::npos);
  ASSERT_TRUE(until([] { return ifd_find_by_index(2) != nullptr; }));
  EXPECT_EQ(ifd_find_by_index(1)->ifd_porttype, 24);
  EXPECT_EQ(ifd_find_by_index(1)->ifd_mtu, 1514u);  // the whole message was refused
  ASSERT_NE(p.admin("change ifd index=1 name=ge-0/0/0 porttype=24 mtu=9000").find("ok"), std::string::npos);
  ASSERT_TRUE(until([] { return ifd_find_by_index(1)->ifd_mtu == 9000; }));
}

}  // namespace
