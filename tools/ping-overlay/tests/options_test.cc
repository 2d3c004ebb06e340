// ping-overlay's command line: what it accepts, what it refuses and in which words.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "options.h"

namespace {

struct parsed {
  po_parse_result result;
  po_options opt;
  std::string error;
};

parsed parse(std::initializer_list<const char *> args) {
  std::vector<std::string> store{"ping-overlay"};
  for (const char *a : args) store.emplace_back(a);
  std::vector<char *> argv;
  for (auto &s : store) argv.push_back(s.data());
  argv.push_back(nullptr);
  parsed p;
  p.result = po_parse(static_cast<int>(store.size()), argv.data(), &p.opt, &p.error);
  return p;
}

std::string ip4(in_addr a) {
  char b[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &a, b, sizeof b);
}

TEST(Options, DefaultsAndTheRemoteVtepAnywhere) {
  parsed p = parse({"192.0.2.1", "--vni", "100", "-m", "00:11:22:33:44:55"});
  ASSERT_EQ(p.result, PO_RUN) << p.error;
  EXPECT_EQ(ip4(p.opt.tunnel_dst), "192.0.2.1");
  EXPECT_EQ(p.opt.vni, 100u);
  EXPECT_EQ(p.opt.target, PING_TARGET_MAC);
  EXPECT_EQ(p.opt.target_mac[5], 0x55);
  EXPECT_EQ(p.opt.ttl, 255);
  EXPECT_EQ(p.opt.count, 0);
  EXPECT_EQ(p.opt.interval_ms, 1000);
  EXPECT_EQ(p.opt.wait_ms, 1000);
  EXPECT_EQ(p.opt.hash_have, 0u);
  EXPECT_FALSE(p.opt.inner_ipv6);

  p = parse({"-n", "16777215", "-d", "192.0.2.9", "-s", "192.0.2.2", "-c", "3", "-i", "0.2", "-W", "2.5", "-t", "9"});
  ASSERT_EQ(p.result, PO_RUN) << p.error;
  EXPECT_EQ(p.opt.vni, 0xFFFFFFu);
  EXPECT_EQ(ip4(p.opt.tunnel_src), "192.0.2.2");
  EXPECT_EQ(p.opt.target, PING_TARGET_NONE);
  EXPECT_EQ(p.opt.count, 3);
  EXPECT_EQ(p.opt.interval_ms, 200);
  EXPECT_EQ(p.opt.wait_ms, 2500);
  EXPECT_EQ(p.opt.ttl, 9);
}

TEST(Options, TargetsOfIpModeAndTheLongForm) {
  parsed p = parse({"--vni", "1", "--ip", "198.51.100.7", "192.0.2.1"});
  ASSERT_EQ(p.result, PO_RUN);
  EXPECT_EQ(p.opt.target, PING_TARGET_IPV4);
  EXPECT_EQ(p.opt.target_addr[0], 198);
  EXPECT_FALSE(p.opt.inner_ipv6);
  p = parse({"--vni", "1", "--ip", "2001:db8::5", "192.0.2.1"});
  EXPECT_EQ(p.opt.target, PING_TARGET_IPV6);
  EXPECT_EQ(p.opt.target_addr[15], 5);
  EXPECT_TRUE(p.opt.inner_ipv6) << "an IPv6 end host gets an inner IPv6 frame";
  p = parse({"--vni", "1", "--ip", "2001:db8::5", "--dst-ip", "10.0.0.1", "192.0.2.1"});
  EXPECT_FALSE(p.opt.inner_ipv6) << "unless the inner addresses say otherwise";
  p = parse({"--vni", "1", "--ip-long", "198.51.100.7", "192.0.2.1"});
  EXPECT_EQ(p.opt.target, PING_TARGET_LONG);
  EXPECT_EQ(p.opt.target_addr[10], 0xFF) << "an IPv4 address in 16 bytes is ::ffff:a.b.c.d";
  EXPECT_EQ(p.opt.target_addr[12], 198);
  EXPECT_FALSE(p.opt.inner_ipv6);
  p = parse({"--vni", "1", "--ip-long", "2001:db8::7", "192.0.2.1"});
  EXPECT_EQ(p.opt.target, PING_TARGET_LONG);
  EXPECT_TRUE(p.opt.inner_ipv6);
  p = parse({"--vni", "1", "--mac", "00:11:22:33:44:55", "--ip", "192.0.2.5", "192.0.2.1"});
  EXPECT_EQ(p.result, PO_USAGE_ERROR);
  EXPECT_EQ(p.error, "give one of --mac, --ip and --ip-long");
}

TEST(Options, HashParametersAreThoseStated) {
  parsed p = parse({"--vni", "1", "--smac", "02:00:00:00:00:01", "--dst-ip", "10.0.0.2", "--vlan", "10",
                    "--l4-dst-port", "80", "192.0.2.1"});
  ASSERT_EQ(p.result, PO_RUN) << p.error;
  EXPECT_EQ(p.opt.hash_have, HASH_SMAC | HASH_DST_IP | HASH_VLAN | HASH_L4_DST_PORT);
  ping_probe pp{};
  p.opt.tunnel_src.s_addr = htonl(0xC0000202);
  po_fill_probe(p.opt, &pp);
  EXPECT_EQ(pp.pp_inner_smac[5], 1);
  EXPECT_EQ(pp.pp_inner_dmac[5], 0xFF) << "default kept";
  EXPECT_EQ(ip4(pp.pp_inner_dst4), "10.0.0.2");
  EXPECT_EQ(ip4(pp.pp_inner_src4), "192.0.2.2") << "default: the tunnel source";
  EXPECT_EQ(pp.pp_l4_dst_port, 80);
  EXPECT_EQ(pp.pp_vlan, 10);
  EXPECT_EQ(pp.pp_protocol, 17) << "default kept";
  EXPECT_EQ(pp.pp_l4_src_port, 4789);

  p = parse({"--vni", "1", "--src-ip", "2001:db8::1", "192.0.2.1"});
  ASSERT_EQ(p.result, PO_RUN);
  EXPECT_TRUE(p.opt.inner_ipv6) << "an IPv6 end-host address means an inner IPv6 probe";
  p = parse({"--vni", "1", "--src-ip", "2001:db8::1", "--dst-ip", "10.0.0.1", "192.0.2.1"});
  EXPECT_EQ(p.error, "inner addresses mix IPv4 and IPv6");
  p = parse({"--vni", "1", "-6", "--dst-ip", "10.0.0.1", "192.0.2.1"});
  EXPECT_EQ(p.error, "inner addresses mix IPv4 and IPv6");
}

TEST(Options, ErrorsSayWhatIsWrong) {
  struct {
    std::initializer_list<const char *> args;
    const char *error;
  } cases[] = {
      {{"192.0.2.1"}, "no VNI: give --vni"},
      {{"--vni", "1"}, "no remote VTEP: give its IPv4 address"},
      {{"--vni", "16777216", "192.0.2.1"}, "bad VNI '16777216' (0 to 16777215)"},
      {{"--vni", "-1", "192.0.2.1"}, "bad VNI '-1' (0 to 16777215)"},
      {{"--vni", "1", "2001:db8::1"}, "bad tunnel destination '2001:db8::1' (an IPv4 address)"},
      {{"--vni", "1", "192.0.2.1", "192.0.2.2"}, "unexpected argument '192.0.2.2'"},
      {{"--vni", "1", "-d", "192.0.2.1", "192.0.2.2"}, "unexpected argument '192.0.2.2'"},
      {{"--vni", "1", "--mac", "00:11:22", "192.0.2.1"}, "bad MAC '00:11:22' (a MAC as 00:11:22:33:44:55)"},
      {{"--vni", "1", "-t", "0", "192.0.2.1"}, "bad TTL '0' (1 to 255)"},
      {{"--vni", "1", "--vlan", "4096", "192.0.2.1"}, "bad VLAN '4096' (0 to 4095)"},
      {{"--vni", "1", "--protocol", "256", "192.0.2.1"}, "bad protocol '256' (0 to 255)"},
      {{"--vni", "1", "--l4-dst-port", "65536", "192.0.2.1"}, "bad L4 destination port '65536' (0 to 65535)"},
      {{"--vni", "1", "-c", "0", "192.0.2.1"}, "bad count '0' (1 or more)"},
      {{"--vni", "1", "-i", "0.001", "192.0.2.1"}, "bad interval '0.001' (0.01 to 3600 seconds)"},
      {{"--vni", "1", "-W", "x", "192.0.2.1"}, "bad wait 'x' (0.01 to 3600 seconds)"},
      {{"--vni", "1", "--bogus", "192.0.2.1"}, "unknown option '--bogus'"},
      {{"--vni", "1", "-x", "192.0.2.1"}, "unknown option '-x'"},
      {{"192.0.2.1", "--vni"}, "option '--vni' needs a value"},
      {{"192.0.2.1", "-c"}, "option '-c' needs a value"},
      {{"--vni", "1", "-s", "0.0.0.0", "192.0.2.1"}, "bad tunnel source '0.0.0.0'"},
  };
  for (auto &c : cases) {
    parsed p = parse(c.args);
    EXPECT_EQ(p.result, PO_USAGE_ERROR) << c.error;
    EXPECT_EQ(p.error, c.error);
  }
  EXPECT_EQ(parse({"--vni", "1", "-h"}).result, PO_HELP);
}

TEST(Options, HelpNamesEveryOption) {
  std::string help = po_help_text;
  for (const char *o : {"--vni", "--mac", "--ip ", "--ip-long", "--tunnel-dst", "--tunnel-src", "--ttl", "--smac",
                        "--dmac", "--src-ip", "--dst-ip", "--inner-ipv6", "--vlan", "--input-ifd", "--protocol",
                        "--l4-src-port", "--l4-dst-port", "--count", "--interval", "--wait", "--quiet", "--verbose",
                        "--json", "--help", "Exit status"})
    EXPECT_NE(help.find(o), std::string::npos) << o;
}

}  // namespace
