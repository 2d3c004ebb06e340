// %A and the INET letters over the real address library, wired as the
// application wires it: the library's print hooks are the formatter's.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "format/task_fmt.h"
#include "daemon_families.h"
#include "sockaddr/families.h"
#include "sockaddr/flow.h"
#include "sockaddr/routing.h"

namespace {

class Addr : public ::testing::Test {
 protected:
  static constexpr unsigned kNoPrinter = kNoPrinterFamily;
  void SetUp() override { wire_daemon_families(); }
  void TearDown() override { zsock_shutdown(); }
  unsigned family_ = 0;

  static zsockaddr_t *in(const char *dotted, uint16_t port = 0) {
    return sockbuild_in(htons(port), inet_addr(dotted));
  }
  template <class... A>
  static std::string fmt(task_fmt::format_for<A...> f, A &&...a) {
    char buf[256];
    task_fmt::snprintf(buf, sizeof buf, f, a...);
    return buf;
  }
};

TEST_F(Addr, InetWithPortsAndWidth) {
  const zsockaddr_t *a = in("10.0.0.1", 4789);
  EXPECT_EQ(fmt("%A", a), "10.0.0.1");
  EXPECT_EQ(fmt("%#A", a), "10.0.0.1+4789");
  EXPECT_EQ(fmt("%#A", in("10.0.0.1", 0)), "10.0.0.1");
  EXPECT_EQ(fmt("[%-12A][%12A][%.4A]", a, a, a), "[10.0.0.1    ][    10.0.0.1][10.0]");
  EXPECT_EQ(fmt("from %A to %#A: %d bytes", in("192.168.1.10", 1000), in("255.255.255.255", 65535), 130),
            "from 192.168.1.10 to 255.255.255.255+65535: 130 bytes");
}

TEST_F(Addr, InetSourcesAndMasks) {
  zsockaddr_t *g = in("232.1.1.1");
  setsocksrc_in(g, inet_addr("10.1.1.1"));
  EXPECT_EQ(fmt("%A", g), "232.1.1.1, 10.1.1.1");
  zsockaddr_t *nosrc = in("232.1.1.2");
  socklen_set(nosrc, SOCKADDR_INMC_LEN);
  EXPECT_EQ(fmt("%A", nosrc), "232.1.1.2, *");
  // The INET letters: a host-order word, a word and a length, an address and a length.
  EXPECT_EQ(fmt("%zi", 0x0a000001u), "10.0.0.1");
  EXPECT_EQ(fmt("%zm", 0xc0a80000u, 16u), "192.168.0.0/16");
  EXPECT_EQ(fmt("%zp|%d", static_cast<const void *>(in("10.0.0.0")), 8u, 1), "10.0.0.0/8|1");
  EXPECT_EQ(fmt("[%-14zm]", 0x0a000000u, 8u), "[10.0.0.0/8    ]");
  // A group-and-source prefix: with "ll" the word's second half is the source.
  EXPECT_EQ(fmt("%llzm", 0x0a000009'e8010101ull, 64u), "232.1.1.1,10.0.0.9/64");
  EXPECT_EQ(fmt("%qzm|%d", 0x0a000009'e8010101ull, 40u, 7), "232.1.1.1,10.0.0.9/40|7");
  EXPECT_EQ(fmt("%llzm", 0x0a000009'e8010100ull, 24u), "232.1.1.0/24") << "no source within 32 bits";
  EXPECT_EQ(fmt("%llzm", 0xe8010101ull, 64u), "232.1.1.1,*/64") << "a zero source";
  EXPECT_EQ(fmt("%zm", 0xe8010101u, 64u), "232.1.1.1,*/64") << "one word: no source to show";
  const zsockaddr_t *mask = inet_sockmask_len(GF_INET, 24);
  EXPECT_EQ(fmt("%A", mask), "255.255.255.0");
}

TEST_F(Addr, Inet6) {
  uint8_t a6[16];
  inet_pton(AF_INET6, "2001:db8::1", a6);
  zsockaddr_t *a = sockbuild_in6(htons(179), a6);
  EXPECT_EQ(fmt("%A", a), "2001:db8::1");
  EXPECT_EQ(fmt("%#A", a), "2001:db8::1+179");
  EXPECT_EQ(fmt("%A / %A", inet6_build_v4_mapped_dest(in("1.2.3.4")), in("1.2.3.4")), "::ffff:1.2.3.4 / 1.2.3.4");
}

// The other rows of the family table print through %A as their printers do,
// a flow past 255 bytes too.
TEST_F(Addr, EveryRowOfTheTableReachesPercentA) {
  for (unsigned i = 0; zsock_table_rows[i].name; i++)
    if (unsigned gf = zsock_table_daemon_gf(i); !zsock_family_row(gf))
      zsock_register_row(zsock_table_rows[i].short_name, gf);
  for (unsigned gf = 0; gf < zsock_gf_max(); gf++) {
    if (!zsock_family_row(gf) || gf == kNoPrinter) continue;
    zsockaddr_t *a = sockbuild_empty(gf, 4);  // 4 bytes: the long families' least
    EXPECT_NE(fmt("%A", a), "Func Null") << "family " << gf;
  }
  const uint8_t rd[8] = {0, 0, 0xfd, 0xe8, 0, 0, 0, 1}, esi[10] = {}, mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  zsockaddr_t *route = evpn_addr_build_mac(rd, esi, 100, mac, in("10.0.0.1"));
  EXPECT_EQ(fmt("<%A>", route), "<2:65000:1:00:00:00:00:00:00:00:00:00:00:100:48.0:11:22:33:44:55:10.0.0.1>");
  static uint8_t room[1024];
  zsockaddr_t *f = flow_common_init(room, sizeof room, GF_INETFLOW, nullptr);
  flow_term ports[120];
  for (unsigned p = 0; p < 120; p++) ports[p] = {FLOW_OP_EQ, 1000 + p};
  flow_common_add_terms(f, sizeof room, FLOW_PORT, ports, 120);
  ASSERT_GT(socklen(f), 255u);
  std::string text = fmt("%A|%d", f, 7);
  EXPECT_EQ(text.substr(0, 21), "port=1000|=1001|=1002");
  EXPECT_EQ(text.size(), 255u) << "cut at the buffer, whatever the address's length";
}

TEST_F(Addr, FailureWords) {
  EXPECT_EQ(fmt("[%10A]", static_cast<const zsockaddr_t *>(nullptr)), "[  zero-len]");
  EXPECT_EQ(fmt("%A", nullptr), "zero-len");
  zsockaddr_t *empty = sockbuild(GF_INET, SOCKADDR_IN_LEN);
  socklen_set(empty, 0);
  EXPECT_EQ(fmt("%A", empty), "zero-len");
  zsockaddr_t *np = sockbuild(kNoPrinter, 6);
  EXPECT_EQ(fmt("%A|%d", np, 5), "Func Null|5");
}

TEST_F(Addr, Truncated) {
  char buf[6];
  EXPECT_EQ(task_fmt::snprintf(buf, sizeof buf, "%A", in("10.20.30.40")), 5);
  EXPECT_STREQ(buf, "10.20");
  EXPECT_EQ(task_fmt::snprintf(buf, sizeof buf, "x%#A", in("1.1.1.1", 80)), 5);
  EXPECT_STREQ(buf, "x1.1.");
}

TEST_F(Addr, SockaddrText) {
  char buf[32];
  EXPECT_STREQ(task_sockaddr_text(buf, sizeof buf, 1, in("10.0.0.1", 22)), "10.0.0.1+22");
  EXPECT_STREQ(task_sockaddr_text(buf, sizeof buf, 0, nullptr), "");
  EXPECT_STREQ(task_sockaddr_text(buf, sizeof buf, 0, sockbuild(kNoPrinter, 6)), "");
  uint8_t bytes[8] = {8, 60};  // family past gf_max: empty here, an assertion in %A
  EXPECT_STREQ(task_sockaddr_text(buf, sizeof buf, 0, reinterpret_cast<zsockaddr_t *>(bytes)), "");
  EXPECT_STREQ(task_sockaddr_text(buf, 4, 0, in("10.0.0.1")), "10.");
}

TEST_F(Addr, FamilyRegistrationReachedTheFormatter) {
  unsigned code = 0, value = 0;
  EXPECT_EQ(task_fmt_zgf(GF_INET, &code, &value), 0);
  EXPECT_EQ(code, static_cast<unsigned>(ZTASK_FMT_ZSOCKA));
  EXPECT_EQ(task_fmt_zgf(GF_INET6, &code, &value), 0);
  EXPECT_EQ(task_fmt_zgf(kNoPrinter, &code, &value), -1);
  // The INET letters count what they read: "i" one argument, "m" and "p" two.
  EXPECT_EQ(task_fmt_zext('i', 1, &code, &value, &family_), 0);
  EXPECT_EQ(task_fmt_zext('m', 2, &code, &value, &family_), 0);
  EXPECT_EQ(family_, 2u);
  EXPECT_EQ(task_fmt_zext('p', 2, &code, &value, &family_), 0);
}

TEST_F(Addr, FamilyPastTheTableAsserts) {
  uint8_t bytes[8] = {8, 60};
  char buf[32];
  EXPECT_EXIT(task_fmt_snprintf(buf, sizeof buf, "%A", bytes), ::testing::ExitedWithCode(22),
              "ZTASK_ASSERT: Assertion failed [^ ]+\\[[0-9]+\\]: file \"fmt_render.cc\", line [0-9]+: "
              "\"socktype\\(addr\\) < gf_max_safe\"");
}

}  // namespace
