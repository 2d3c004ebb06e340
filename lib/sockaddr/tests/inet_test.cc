// The daemon's families: INET and INET6 text, parsing, prefixes, masks and
// conversions; UNIX and I802 text.
#include <netinet/in.h>
#include <sys/un.h>

#include <cstring>
#include <random>
#include <string>

#include "sockaddr_fixture.h"

using namespace sockaddr_test;

namespace {

using Inet = Sockaddr;

zsockaddr_t *inet6(const char *s, uint16_t port = 0) {
  uint8_t a[16];
  EXPECT_EQ(inet_pton(AF_INET6, s, a), 1) << s;
  return sockbuild_in6(htons(port), a);
}

TEST_F(Inet, PrinterByLengthPortAndSource) {
  EXPECT_EQ(text(inet("10.0.0.1", 80)), "10.0.0.1");
  EXPECT_EQ(text(inet("10.0.0.1", 80), 1), "10.0.0.1+80");
  EXPECT_EQ(text(inet("10.0.0.1", 0), 1), "10.0.0.1") << "port 0 adds nothing";
  EXPECT_EQ(text(inet("255.255.255.255", 65535), 1), "255.255.255.255+65535");
  EXPECT_EQ(text(inet("0.0.0.0")), "0.0.0.0");

  zsockaddr_t *mc = inet("239.1.2.3");
  setsocksrc_in(mc, inet_addr("10.9.8.7"));
  EXPECT_EQ(socklen(mc), unsigned{SOCKADDR_INMC_LEN});
  EXPECT_EQ(text(mc), "239.1.2.3, 10.9.8.7");
  setsocksrc_in(mc, 0);
  EXPECT_EQ(text(mc), "239.1.2.3, *");
  EXPECT_EQ(text(mc, 0, 12), "239.1.2.3*") << "no separator without room for it";

  zsockaddr_t *full = sockbuild_inmax();
  full->zs_data[2] = 232;
  full->zs_data[9] = 5;  // source 0.0.0.5
  EXPECT_EQ(text(full), "232.0.0.0,0.0.0.5/128");

  EXPECT_EQ(text(nullptr), "zero-len");
  EXPECT_EQ(text(sockbuild_empty(40, 4)), "Func Null");  // an index nothing registered
  // Truncation keeps the count honest: at most size - 1 characters.
  EXPECT_EQ(text(inet("192.168.100.200"), 0, 8), "192.168");
  char one[1] = {'x'};
  EXPECT_EQ(sockprint(one, 1, inet("1.2.3.4"), 0), 0);
  EXPECT_EQ(one[0], 0);
}

TEST_F(Inet, Inet6PrinterAndV4Conversions) {
  EXPECT_EQ(text(inet6("2001:db8::1", 443)), "2001:db8::1");
  EXPECT_EQ(text(inet6("2001:db8::1", 443), 1), "2001:db8::1+443");
  zsockaddr_t *v4 = inet("1.2.3.4", 7);
  zsockaddr_t *mapped = inet6_build_v4_mapped_dest(v4);
  EXPECT_EQ(text(mapped), "::ffff:1.2.3.4");
  EXPECT_EQ(text(inet6_build_v4_compatible_dest(v4)), "::1.2.3.4");
  zsockaddr_t *back = inet6_build_inet_from_v4_mapped_dest(mapped);
  EXPECT_TRUE(sockaddreq(back, v4));
  EXPECT_EQ(sockport_in(back), htons(7));
  zsockaddr_t *m = inet6_build_v4_mapped_mask(inet("255.255.255.0"));
  EXPECT_EQ(text(m), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ff00");
  EXPECT_DEATH(inet6_build_v4_mapped_dest(mapped), "socktype\\(v4_dest\\) == GF_INET");
  EXPECT_DEATH(inet6_build_inet_from_v4_mapped_dest(v4), "socktype\\(v6_dest\\) == GF_INET6");

  zsockaddr_t *mc = sockbuild(GF_INET6, SOCKADDR_IN6MC_LEN);
  memcpy(mc->zs_data + 10, inet6("ff3e::1")->zs_data + 10, 16);
  memcpy(mc->zs_data + 26, inet6("2001:db8::5")->zs_data + 10, 16);
  EXPECT_EQ(text(mc), "ff3e::1, 2001:db8::5");
}

TEST_F(Inet, ParseMaskFormsAreEquivalentAndBadTextIsRefused) {
  int plen[4];
  zsockaddr_t *r[4];
  const char *forms[] = {"10.1.2.3/8", "10.1.2.3/0xff000000", "10.1.2.3/255.0.0.0", "10.1.2.3/255"};
  for (int i = 0; i < 3; i++) {
    r[i] = sockbuild(GF_INET, SOCKADDR_IN_LEN);
    ASSERT_TRUE(sockparse_prefix(GF_INET, forms[i], SOCKADDR_IN_LEN, r[i], &plen[i])) << forms[i];
    EXPECT_EQ(plen[i], 8) << forms[i];
    EXPECT_TRUE(sockaddreq(r[i], r[0]));
  }
  r[3] = sockbuild(GF_INET, SOCKADDR_IN_LEN);
  EXPECT_FALSE(sockparse_prefix(GF_INET, forms[3], SOCKADDR_IN_LEN, r[3], &plen[3])) << "255 is no length";
  int p = 99;
  ASSERT_TRUE(sockparse_prefix(GF_INET, "192.168.1.1", SOCKADDR_IN_LEN, r[3], &p));
  EXPECT_EQ(p, -1);
  ASSERT_TRUE(sockparse_prefix(GF_INET, "0.0.0.0/0", SOCKADDR_IN_LEN, r[3], &p));
  EXPECT_EQ(p, 0);
  ASSERT_TRUE(sockparse_prefix(GF_INET, "1.2.3.4/255.255.128", SOCKADDR_IN_LEN, r[3], &p));
  EXPECT_EQ(p, 17) << "a short dotted mask fills from the left";
  EXPECT_TRUE(sockparse(GF_INET, "10.1", SOCKADDR_IN_LEN, r[3])) << "inet_aton forms";
  EXPECT_EQ(text(r[3]), "10.0.0.1");

  for (const char *bad : {"", "/8", "1.2.3.4/", "1.2.3.4/33", "1.2.3.4/0x", "1.2.3.4/0xff00ff00",
                          "1.2.3.4/0x1ffffffff", "1.2.3.4/255.0.255.0", "1.2.3.4/256.0.0.0", "1.2.3.4/1.2.3.4.5",
                          "1.2.3.4/255..0", "1.2.3.4/-1", "300.1.1.1", "1.2.3.4x", "1.2.3.4/8/8"})
    EXPECT_FALSE(sockparse(GF_INET, bad, SOCKADDR_IN_LEN, r[3])) << bad;
  EXPECT_FALSE(sockparse(GF_INET, "1.2.3.4", 4, r[3])) << "buffer too small";
  EXPECT_EQ(sockparse_len(GF_INET, "1.2.3.4/24"), SOCKADDR_IN_LEN);
  EXPECT_EQ(sockparse_len(GF_INET, "nope"), -1);
  EXPECT_EQ(sockparse_len(GF_STRING, "x"), -1) << "a family without a parser";

  zsockaddr_t *six = sockbuild(GF_INET6, SOCKADDR_IN6_LEN);
  ASSERT_TRUE(sockparse_prefix(GF_INET6, "2001:db8::/32", SOCKADDR_IN6_LEN, six, &p));
  EXPECT_EQ(p, 32);
  EXPECT_EQ(text(six), "2001:db8::");
  EXPECT_FALSE(sockparse(GF_INET6, "2001:db8::/129", SOCKADDR_IN6_LEN, six));
  EXPECT_FALSE(sockparse(GF_INET6, "10.0.0.1", SOCKADDR_IN6_LEN, six));
}

TEST_F(Inet, InetOverridesOfTheMaskAlgebra) {
  zsockaddr_t *a = inet("10.1.2.3", 80), *b = inet("10.1.9.9", 443);
  const zsockaddr_t *m16 = inet_sockmask_len(GF_INET, 16), *m24 = inet_sockmask_len(GF_INET, 24);
  EXPECT_TRUE(sockmaskedeq(a, b, m16));
  EXPECT_FALSE(sockmaskedeq(a, b, m24));
  EXPECT_TRUE(sockprefixeq(a, b, 16));
  EXPECT_FALSE(sockprefixeq(a, b, 21));
  EXPECT_TRUE(sockoutsidemask(a, m16));
  EXPECT_FALSE(sockoutsidemask(inet("10.1.0.0", 80), m16)) << "the port is not address bits";
  sockandmask(a, m24);
  EXPECT_EQ(text(a, 1), "10.1.2.0") << "masking clears the port with the host bits";
  zsockaddr_t *c = inet("10.1.2.255");
  sockcutlen(c, 20);
  EXPECT_EQ(text(c), "10.1.0.0");
  EXPECT_EQ(sockhostmask(c), inet_sockmask_len(GF_INET, 32));
  EXPECT_EQ(sock_host_plen(c), 32);
  EXPECT_EQ(sockhostmasklen(GF_INET), 32);

  // Prefix order: bytes under the shorter prefix, then the shorter first.
  EXPECT_EQ(inet_pfx_cmp(inet("10.0.0.0"), 8, inet("10.0.0.0"), 16), -1);
  EXPECT_EQ(inet_pfx_cmp(inet("10.1.0.0"), 8, inet("10.2.0.0"), 8), 0);
  EXPECT_EQ(inet_pfx_cmp(inet("10.1.0.0"), 16, inet("10.2.0.0"), 16), -1);
  EXPECT_EQ(sockprefixcmp(inet("11.0.0.0"), 8, inet("10.0.0.0"), 8), 1);
  uint8_t pfx[] = {192, 168, 0xff};
  EXPECT_EQ(text(inet_prefix_to_sockaddr(pfx, 20)), "192.168.240.0");
  uint8_t p6[16] = {0x20, 0x01, 0x0d, 0xb8, 0xff};
  EXPECT_EQ(text(inet6_prefix_to_sockaddr(p6, 33)), "2001:db8:8000::");
  EXPECT_EQ(inet6_pfx_cmp(inet6("2001:db8::"), 32, inet6("2001:db8::"), 48), -1);
  EXPECT_DEATH(inet6_pfx_cmp(inet("1.1.1.1"), 8, inet6("::1"), 8), "socktype\\(addr1\\) == GF_INET6");
}

// INET6 keeps port, flow information and scope before its address: a cut
// counts its bits from the address, not from the header.
TEST_F(Inet, Inet6CutKeepsTheLeadingBitsOfTheAddress) {
  zsockaddr_t *a = inet6("2001:db8:abcd:ef12::1", 443);
  sockcutlen(a, 36);
  EXPECT_EQ(text(a, 1), "2001:db8:a000::+443");
  EXPECT_EQ(socklen(a), unsigned{SOCKADDR_IN6_LEN});
  sockcutlen(a, 0);
  EXPECT_EQ(text(a, 1), "::+443");

  // With a source: the cut reaches into the source and the length follows it.
  zsockaddr_t *mc = sockbuild(GF_INET6, SOCKADDR_IN6MC_LEN);
  memcpy(mc->zs_data + 10, inet6("ff05::1")->zs_data + 10, 16);
  memcpy(mc->zs_data + 26, inet6("2001:db8::5")->zs_data + 10, 16);
  sockcutlen(mc, 128 + 22);
  EXPECT_EQ(socklen(mc), unsigned{SOCKADDR_IN6_LEN + 3});
  EXPECT_EQ(text(mc), "ff05::1, 2001:c00::");
  // The cut address equals one built from the prefix.
  zsockaddr_t *b = inet6("2001:db8:abcd:ef12::1");
  sockcutlen(b, 64);
  uint8_t p6[16] = {0x20, 0x01, 0x0d, 0xb8, 0xab, 0xcd, 0xef, 0x12};
  EXPECT_TRUE(sockaddreq(b, inet6_prefix_to_sockaddr(p6, 64)));
}

TEST_F(Inet, FieldsAndTheMissingSource) {
  zsockaddr_t *a = inet("10.0.0.1", 53);
  EXPECT_EQ(socksrc_in(a), 0u);
  EXPECT_EQ(inet_sockextract_in(a), inet_addr("10.0.0.1"));
  EXPECT_EQ(sockport_in(a), htons(53));
  EXPECT_EQ(socksrc_in(nullptr), 0u);
  zsockaddr_t *odd = sockbuild(GF_INET, 10);
  odd->zs_data[6] = 1;  // a source byte in an address too short for a source
  EXPECT_DEATH(socksrc_in(odd), "gin_src");

  sockaddr_in sin;
  EXPECT_EQ(sock2unix(a, &sin), static_cast<int>(sizeof sin));
  EXPECT_EQ(sin.sin_family, AF_INET);
  EXPECT_EQ(sin.sin_port, htons(53));
  EXPECT_EQ(sin.sin_addr.s_addr, inet_addr("10.0.0.1"));
  zsockaddr_t *owned = sockcreate_in(htons(1), inet_addr("1.1.1.1"));
  EXPECT_EQ(ledger.live[owned].second, size_t{SOCKADDR_IN_LEN});
  sockfree(owned);
}

TEST_F(Inet, GroupSourceAndForwardingFormThroughTheDispatchers) {
  zsockaddr_t *g = inet("239.1.2.3", 5000);
  zsockaddr_t *mc = sockbuild_mc(g, inet("10.0.0.9"));
  EXPECT_EQ(text(mc, 1), "239.1.2.3, 10.0.0.9");
  EXPECT_EQ(sockport_in(mc), htons(5000));
  EXPECT_EQ(sockextract_in(mc, nullptr), inet_addr("239.1.2.3"));
  EXPECT_EQ(sockextractgrp(mc, nullptr), inet_addr("239.1.2.3"));
  EXPECT_EQ(sockextractsrc(mc, nullptr), inet_addr("10.0.0.9"));
  EXPECT_EQ(memcmp(sockgrp_ptr(mc), "\xef\x01\x02\x03", 4), 0);
  EXPECT_EQ(text(sockbuild_mc(g, nullptr)), "239.1.2.3, *");

  zsockaddr_t *g6 = sockbuild_mc(inet6("ff3e::1", 9), inet6("2001:db8::5"));
  EXPECT_EQ(socklen(g6), unsigned{SOCKADDR_IN6MC_LEN});
  EXPECT_EQ(text(g6), "ff3e::1, 2001:db8::5");
  EXPECT_EQ(memcmp(sockgrp_ptr(g6), inet6("ff3e::1")->zs_data + 10, 16), 0);
  EXPECT_DEATH(sockextract_in(g6, nullptr), "sockextract_in") << "no 32-bit address in INET6";

  // The forwarding form and back, port and scope kept.
  sockaddr_in sin;
  zsock2fwd_sock(inet("10.1.2.3", 53), &sin);
  zsockaddr_t *back = fwd_sock2zsock(GF_INET, &sin);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(text(back, 1), "10.1.2.3+53");
  EXPECT_TRUE(sockaddreq(back, inet("10.1.2.3")));
  sockaddr_in6 sin6;
  zsockaddr_t *ll = inet6("fe80::1", 179);
  reinterpret_cast<zsockaddr_inet6_t *>(ll)->gin6_scope_id = 3;
  zsock2fwd_sock(ll, &sin6);
  zsockaddr_t *back6 = fwd_sock2zsock(GF_INET6, &sin6);
  ASSERT_NE(back6, nullptr);
  EXPECT_EQ(memcmp(back6, ll, SOCKADDR_IN6_LEN), 0);
  EXPECT_EQ(fwd_sock2zsock(GF_INET6, &sin), nullptr) << "an IPv4 form is no INET6 address";
  EXPECT_EQ(fwd_sock2zsock(GF_INET, &sin6), nullptr);
}

TEST_F(Inet, FlowFieldsOfTheFullSizeForm) {
  zsockaddr_t *f = sockbuild_inmax();
  reinterpret_cast<zsockaddr_inet_t *>(f)->gin_addr = inet_addr("192.0.2.1");
  setsockproto_in(f, 17);
  setsocksport_in(f, htons(50000));
  setsockdport_in(f, htons(4789));
  EXPECT_EQ(sockgetter(f, ZSOCK_GET_PROTO), 17u);
  EXPECT_EQ(sockgetter(f, ZSOCK_GET_SPORT), htons(50000));
  EXPECT_EQ(sockgetter(f, ZSOCK_GET_DPORT), htons(4789));
  EXPECT_EQ(socklen(f), unsigned{SOCKADDR_INMC_MAXLEN});
  EXPECT_EQ(inet_sockextract_in(f), inet_addr("192.0.2.1"));
  EXPECT_EQ(socksrc_in(f), 0u) << "the fields do not spill into the source";
  EXPECT_EQ(sockport_in(f), 0u);
  // The fields are part of the address's identity.
  zsockaddr_t *g = sockdup(f);
  EXPECT_TRUE(sockaddreq(f, g));
  setsockdport_in(g, htons(4790));
  EXPECT_FALSE(sockaddreq(f, g));
  sockfree(g);
  // A short address has no such fields: reads give 0, writes are refused.
  zsockaddr_t *a = inet("10.0.0.1", 80);
  EXPECT_EQ(sockgetter(a, ZSOCK_GET_PROTO), 0u);
  EXPECT_EQ(sockgetter(a, ZSOCK_GET_DPORT), 0u);
  EXPECT_DEATH(setsockproto_in(a, 6), "SOCKADDR_INMC_MAXLEN");
  EXPECT_DEATH(setsocksport_in(a, 6), "SOCKADDR_INMC_MAXLEN");
}

// A second family index with the INET operations, as kind 172.
TEST_F(Inet, SecondIndexSharesTheInetOperations) {
  constexpr unsigned kInet2 = 34;
  zsock_register_inet_alias(kInet2);
  const zsock_family *r = zsock_family_row(kInet2);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->gf_kind, 172);
  EXPECT_EQ(r->gf_native, 1) << "the second index maps to the native INET value";
  EXPECT_EQ(r->gf_offset, 4);
  EXPECT_EQ(gf_inet, unsigned{GF_INET}) << "the first index stays the INET one";
  EXPECT_EQ(ledger.printf_exts.back().first, kInet2);
  EXPECT_EQ(ledger.letters, "imp") << "the letters are registered once";

  zsockaddr_t *a = sockbuild(kInet2, SOCKADDR_IN_LEN);
  int plen;
  ASSERT_TRUE(sockparse_prefix(kInet2, "10.1.2.3/24", SOCKADDR_IN_LEN, a, &plen));
  EXPECT_EQ(a->zs_gf, kInet2) << "parsed under the index asked for";
  EXPECT_EQ(text(a), "10.1.2.3");
  sockcutlen(a, 16);
  EXPECT_EQ(text(a), "10.1.0.0");
  EXPECT_EQ(sockhostmask(a), inet_sockmask_len(GF_INET, 32));
  EXPECT_EQ(sockmasklen(kInet2, inet_sockmask_len(GF_INET, 24)), 24);
  EXPECT_EQ(sockaddrcmp(inet("10.1.0.0"), a), -1) << "same bytes, the lower index first";
  EXPECT_EQ(sockbuild_mc(a, nullptr)->zs_gf, kInet2);
  sockaddr_in sin;
  zsock2fwd_sock(a, &sin);
  EXPECT_EQ(fwd_sock2zsock(kInet2, &sin)->zs_gf, kInet2);
}

TEST_F(Inet, FormatLettersRenderFromTheEndOfTheBuffer) {
  char buf[64];
  zsock_fmt_value v[2] = {};
  v[0].u32 = 0x0a000001;
  EXPECT_STREQ(ledger.render['i' - 'a'](buf, sizeof buf - 1, v, 'i'), "10.0.0.1");
  v[1].u32 = 24;
  EXPECT_STREQ(ledger.render['m' - 'a'](buf, sizeof buf - 1, v, 'm'), "10.0.0.1/24");
  v[1].u32 = 40;
  EXPECT_STREQ(ledger.render['m' - 'a'](buf, sizeof buf - 1, v, 'm'), "10.0.0.1,*/40");
  v[0].u64 = uint64_t{0x0a000009} << 32 | 0x0a000001;  // the source in the second word
  EXPECT_STREQ(ledger.render['m' - 'a'](buf, sizeof buf - 1, v, 'm'), "10.0.0.1,10.0.0.9/40");
  zsockaddr_t *mc = inet("239.0.0.1");
  setsocksrc_in(mc, inet_addr("10.0.0.9"));
  v[0].ptr = mc;
  v[1].u32 = 64;
  const char *t = ledger.render['p' - 'a'](buf, sizeof buf - 1, v, 'p');
  EXPECT_STREQ(t, "239.0.0.1,10.0.0.9/64");
  EXPECT_GE(t, buf);
  EXPECT_LT(t, buf + sizeof buf);
  v[0].ptr = nullptr;
  EXPECT_EQ(ledger.render['p' - 'a'](buf, sizeof buf - 1, v, 'p'), nullptr);
}

TEST_F(Inet, UnixAndMacAddresses) {
  zsockaddr_t *u = sockcreate_unix("/var/run/tunechod_mgmt");
  EXPECT_EQ(text(u), "/var/run/tunechod_mgmt");
  sockaddr_un sun;
  sock2unix(u, &sun);
  EXPECT_STREQ(sun.sun_path, "/var/run/tunechod_mgmt");
  EXPECT_EQ(sun.sun_family, AF_UNIX);
  sockfree(u);
  // An abstract name converts to exactly its bytes, or a reply would go to
  // a name one byte longer.
  static const char abs_name[] = "\0tvx-abstract";
  const size_t abs_len = sizeof abs_name - 1;
  zsockaddr_t *ab = sockalloc(gf_unix, abs_len + 2);
  memcpy(ab->zs_data, abs_name, abs_len);
  EXPECT_EQ(sock2unix(ab, &sun), static_cast<int>(offsetof(sockaddr_un, sun_path) + abs_len));
  EXPECT_EQ(memcmp(sun.sun_path, abs_name, abs_len), 0);
  sockfree(ab);
  // A damaged length under the header prints as an empty path, not as a
  // copy of nearly all memory.
  alignas(8) uint8_t damaged[8] = {1, static_cast<uint8_t>(gf_unix)};
  EXPECT_EQ(text(reinterpret_cast<zsockaddr_t *>(damaged)), "");

  uint8_t mac[6] = {0x00, 0x1b, 0x21, 0xaa, 0xbc, 0xff};
  zsockaddr_t *m = sockbuild_i802(mac);
  EXPECT_EQ(text(m), "00:1b:21:aa:bc:ff");
  zsockaddr_t *p = sockbuild(GF_I802, SOCKADDR_I802_LEN);
  ASSERT_TRUE(sockparse(GF_I802, "00:1B:21:aa:bc:ff", SOCKADDR_I802_LEN, p));
  EXPECT_TRUE(sockaddreq(m, p));
  for (const char *bad : {"00:1b:21:aa:bc", "00:1b:21:aa:bc:ff:00", "001b21aabcff", "0:1b:21:aa:bc:ff", "zz:1b:21:aa:bc:ff"})
    EXPECT_FALSE(sockparse(GF_I802, bad, SOCKADDR_I802_LEN, p)) << bad;
}

// Random text never crashes a parser, and whatever parses prints back to
// text that parses to the same address.
TEST_F(Inet, RandomTextParsesOrIsRefusedAndRoundTrips) {
  std::mt19937 rng(7);
  const std::string alphabet = "0123456789./xX:abcdefABCDEF-";
  int accepted = 0;
  for (int i = 0; i < 30000; i++) {
    std::string t;
    for (int n = rng() % 24; n-- > 0;) t += alphabet[rng() % alphabet.size()];
    if (i % 3 == 0) t = "10." + t;
    for (unsigned gf : {unsigned{GF_INET}, unsigned{GF_INET6}, unsigned{GF_I802}}) {
      alignas(8) uint8_t buf[64], again[64];
      auto *a = reinterpret_cast<zsockaddr_t *>(buf);
      auto *b = reinterpret_cast<zsockaddr_t *>(again);
      if (!sockparse(gf, t.c_str(), sizeof buf, a)) continue;
      accepted++;
      std::string shown = text(a);
      ASSERT_TRUE(sockparse(gf, shown.c_str(), sizeof again, b)) << t << " -> " << shown;
      ASSERT_TRUE(sockaddreq(a, b)) << t << " -> " << shown;
    }
  }
  EXPECT_GT(accepted, 100);
}

}  // namespace
