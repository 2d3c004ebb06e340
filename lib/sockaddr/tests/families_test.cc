// The whole family table: rows and masks, every family's text (fixed
// examples and seeded random round trips), the total order across families
// against a model, and the composite, flow, EVPN and VPN helpers.
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "sockaddr/composite.h"
#include "sockaddr/flow.h"
#include "sockaddr/routing.h"
#include "sockaddr_fixture.h"

using namespace sockaddr_test;

namespace {

using Bytes = std::vector<uint8_t>;

class Families : public Sockaddr {
 protected:
  void SetUp() override {
    Sockaddr::SetUp();
    zsock_register_every_family();
  }
  static Bytes bytes_of(const zsockaddr_t *a) {
    const auto *p = reinterpret_cast<const uint8_t *>(a);
    return Bytes(p, p + socklen(a));
  }
  // Parses text of family gf; empty on failure.
  static Bytes parse(unsigned gf, const std::string &text, int *plen = nullptr) {
    alignas(8) static uint8_t buf[ZSOCK_LONG_MAX + 1];
    auto *a = reinterpret_cast<zsockaddr_t *>(buf);
    int p = -2;
    if (!sockparse_prefix(gf, text.c_str(), sizeof buf, a, &p)) return {};
    if (plen) *plen = p;
    return bytes_of(a);
  }
  static std::string print(const Bytes &b) {
    std::string s(16384, '\0');
    int n = sockprint(s.data(), s.size(), reinterpret_cast<const zsockaddr_t *>(b.data()), 0);
    s.resize(n);
    return s;
  }
  static const zsockaddr_t *za(const Bytes &b) { return reinterpret_cast<const zsockaddr_t *>(b.data()); }
  static unsigned gf(const char *name) { return zsock_registered_gf(name); }
};

const uint8_t kRd[8] = {0, 0, 0xfd, 0xe8, 0, 0, 0, 100};  // 65000:100
const uint8_t kEsi[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

TEST_F(Families, EveryRowIsRegisteredWithItsShapeAndPrints) {
  for (unsigned i = 0; zsock_table_rows[i].name; i++) {
    const zsock_table_row &t = zsock_table_rows[i];
    unsigned g = zsock_table_daemon_gf(i);
    SCOPED_TRACE(t.short_name);
    if (t.fixed_gf >= 0) {
      EXPECT_EQ(g, static_cast<unsigned>(t.fixed_gf));
    }
    const zsock_family *r = zsock_family_row(g);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->gf_kind, t.kind);
    EXPECT_EQ(r->gf_offset, t.offset);
    EXPECT_EQ(r->gf_max_size, t.max_size);
    EXPECT_NE(r->gf_ops->printer, nullptr);
    EXPECT_NE(r->gf_ops->parse, nullptr);
    // The iso row keeps its count of 175 (table bytes over 22) for 161 masks.
    EXPECT_EQ(r->gf_masks.mt_count, t.kind == 7 ? 175u : t.masks);
    EXPECT_EQ(zsock_family_lookup(t.short_name), static_cast<int>(g));
  }
  EXPECT_STREQ(zsock_family_row(GF_VPLS)->gf_name, "zscoakddr_t_vpls");
  EXPECT_EQ(zsock_family_row(GF_INET_ALIAS)->gf_native, 1);
  for (unsigned g = 0; g < zsock_gf_max(); g++)
    if (zsock_family_row(g)) {
      EXPECT_NE(zsock_printer(g), nullptr) << "family " << g;
    }
  EXPECT_EQ(print(parse(GF_UNSPEC, "0102.03")), "01.0203");
  EXPECT_FALSE(zsock_register_row("no_such_family", 2));
  EXPECT_DEATH(zsock_register_row("crh", 40), "fixed index");
}

TEST_F(Families, MasksAreSharedAndMapBackByPointer) {
  for (unsigned i = 0; zsock_table_rows[i].name; i++) {
    const zsock_table_row &t = zsock_table_rows[i];
    unsigned g = zsock_table_daemon_gf(i);
    const zsock_family *r = zsock_family_row(g);
    for (unsigned bits = 0; bits < t.masks; bits++) {
      const zsockaddr_t *m = sockmask_for_len(g, bits);
      ASSERT_NE(m, nullptr) << t.short_name << " " << bits;
      ASSERT_EQ(sockmask_index(r, m), static_cast<int>(bits));
      ASSERT_EQ(sockmasklen(g, m), static_cast<int>(bits)) << t.short_name;
      ASSERT_EQ(socktype(m), t.kind == 172 ? unsigned{GF_INET} : g) << "the second INET index shares INET's masks";
      ASSERT_LE(socklen(m), t.max_size);
      unsigned room = 8 * (t.max_size - t.offset);
      ASSERT_EQ(sockbitcount(m), std::min(bits, room)) << t.short_name;
    }
    EXPECT_EQ(sockmask_for_len(g, std::max(t.masks, 175u)), nullptr);
  }
  // Past iso's 161 masks there are none, whatever its count says.
  EXPECT_EQ(sockmask_for_len(GF_ISO, 161), nullptr);
  EXPECT_EQ(iso_sockmask_len(GF_ISO, 160), sockmask_for_len(GF_ISO, 160));
  EXPECT_DEATH(iso_sockmask_len(GF_ISO, 161), "bits < 161");
  EXPECT_DEATH(tag_sockmask_len(GF_TAG, 65), "bits < 65");
  EXPECT_DEATH(inetmdt_mask_len(GF_MDT, 145), "bits < 145");
  // An equal mask outside the table is measured by its bits, not found.
  const zsockaddr_t *m = sockmask_for_len(GF_VPN, 70);
  Bytes copy = bytes_of(m);
  EXPECT_EQ(sockmask_index(zsock_family_row(GF_VPN), za(copy)), -1);
  EXPECT_EQ(sockmasklen(GF_VPN, za(copy)), 70);
  // Cutting from the family's offset: the header stays.
  Bytes vpn = parse(GF_VPN, "65000:100,10.1.2.3");
  sockcutlen(reinterpret_cast<zsockaddr_t *>(vpn.data()), 72);
  EXPECT_EQ(socklen(za(vpn)), 4u + 9);
  EXPECT_EQ(vpn[1], GF_VPN);
}

// Text of every family: what each prints, and that it parses back.
TEST_F(Families, ExamplesPrintAsWritten) {
  const struct {
    const char *family, *text;
  } examples[] = {
      {"vpn", "65000:100,10.1.0.0"},
      {"vpn", "10.0.0.1:5,1.2.3.4"},
      {"vpn", "4200000000L:7,1.2.3.4"},
      {"vpn", "3:0x0102030405ff,0.0.0.0"},
      {"in6vpn", "1:2,2001:db8::1"},
      {"inettransport", "1:2,192.0.2.1"},
      {"in6transport", "1:2,::1"},
      {"iso", "49.0001.1921.6800.1001.00"},
      {"iso", "-"},
      {"evpn", "2:65000:1:00:00:00:00:00:00:00:00:00:00:100:48.0:11:22:33:a4:55:10.0.0.1"},
      {"evpn", "2:65000:1:00:00:00:00:00:00:00:00:00:00:100:48.0:11:22:33:a4:55"},
      {"evpn", "1:1:1:00:11:22:33:44:55:66:77:88:99:4"},
      {"evpn", "3:1:1:9:2001:db8::9"},
      {"evpn", "4:1:1:00:11:22:33:44:55:66:77:88:99"},
      {"evpn", "5:1:1:0:10.0.0.0/8"},
      {"evpn", "6:1:1:7:*,239.1.1.1"},
      {"evpn", "9:1:1:0a.0b0c"},
      {"inetflow", "any"},
      {"inetflow", "dst 10.0.0.0/8,proto=6|=17,port>=80&<=90,tcp=2&!~4,len<1000,frag~0"},
      {"inetflow", "src 0.0.0.0/0,dstport!=0x0016,dscp~3|!5"},
      {"inetflow", "icmptype=8,icmpcode=0|=300,len=77777|=5000000000"},
      {"inet6flow", "dst 1:db8::/32@8,src ::1/128,dscp!=0x0005"},
      {"invpnflow", "1:1"},
      {"invpnflow", "1:1,frag!~1"},
      {"in6vpnflow", "1.2.3.4:5,dst ::/0"},
      {"inetcolor", "10.0.0.1,7"},
      {"inet6color", "2001:db8::1,4294967295"},
      {"srte", "1,10.0.0.1,2"},
      {"srte6", "1,::1,2"},
      {"composite", "00.0102"},
      {"composite", "-"},
      {"mcsn", "1,1.1.1.1,239.0.0.1,4"},
      {"mcsn6", "1,::2,ff02::1,4"},
      {"evpnmcsn6", "ff02::1"},
      {"evpnmcsn6", "ff02::1,::1"},
      {"link", "3,00:11:22:33:44:55"},
      {"dli", "1,2,00:11:22:33:44:55"},
      {"lsdist", "1,2,0a.0b"},
      {"lsdist", "1,2,-"},
      {"str", "hello"},
      {"unix", "/tmp/x"},
      {"crh", "7"},
      {"l2id", "00:11:22:33:44:55"},
      {"l2ckt", "10.0.0.1,100,5"},
      {"l2protec", "10.0.0.1,1,10.0.0.2,2"},
      {"l2vpn", "1:1,1,2,3,800000"},
      {"vpls", "1:1,2,3"},
      {"target", "65000,65000:100"},
      {"mdt", "1:1,1.1.1.1,239.1.1.1"},
      {"bgpmcast", "3,1:1,1.1.1.1,239.1.1.1,2.2.2.2"},
      {"bgpmcast6", "3,1:1,::1,ff0e::1,::2"},
      {"mvpn", "7,1:1,1.1.1.1,239.1.1.1,2.2.2.2"},
      {"mvpn6", "7,1:1,::1,ff0e::1"},
      {"tag", "16,10.0.0.0"},
      {"tagvpn", "16,1:1,10.0.0.0"},
      {"i802", "00:11:22:33:44:55"},
  };
  for (const auto &e : examples) {
    int g = zsock_family_lookup(e.family);
    ASSERT_GE(g, 0) << e.family;
    Bytes b = parse(g, e.text);
    ASSERT_FALSE(b.empty()) << e.family << " " << e.text;
    EXPECT_EQ(print(b), e.text) << e.family;
  }
  // Prefix lengths come back apart from the address, within the masks.
  int plen;
  EXPECT_EQ(print(parse(GF_VPN, "65000:100,10.1.0.0/80", &plen)), "65000:100,10.1.0.0");
  EXPECT_EQ(plen, 80);
  EXPECT_TRUE(parse(GF_VPN, "65000:100,10.1.0.0/97").empty());
  EXPECT_EQ(print(parse(GF_INETCOLOR, "10.0.0.1,7/64", &plen)), "10.0.0.1,7");
  EXPECT_EQ(plen, 64);
  // Text that is not the family's.
  for (const char *bad : {"65000:100", "65000:100,10.1.0", "65536:1,1.1.1.1", "1:1,1.1.1.1,", "1:1,1.1.1.1/"})
    EXPECT_TRUE(parse(GF_VPN, bad).empty()) << bad;
  for (const char *bad : {"proto=6x", "port=1,proto=6", "proto=6,proto=7", "dst 10.0.0.0/33", "tcp>1", "proto"})
    EXPECT_TRUE(parse(GF_INETFLOW, bad).empty()) << bad;
  EXPECT_TRUE(parse(GF_EVPN, "5:1:1:0:10.0.0.0/33").empty());
  EXPECT_TRUE(parse(GF_EVPN, "2:1:1:00:00:00:00:00:00:00:00:00:00:1:47.0:1:2:3:4:5").empty());
  EXPECT_TRUE(parse(GF_COMPOSITE, std::string(2 * 252, 'a')).empty()) << "252 bytes do not fit";
  EXPECT_EQ(parse(GF_COMPOSITE, std::string(2 * 251, 'a')).size(), 255u);
  // A prefix length is never longer than the address: none on no bytes.
  EXPECT_TRUE(parse(GF_COMPOSITE, "-/116").empty());
  EXPECT_TRUE(parse(GF_COMPOSITE, "-/1").empty());
  EXPECT_EQ(parse(GF_CRH, "7/32").size(), 8u);
  EXPECT_TRUE(parse(GF_CRH, "7/33").empty()) << "the masks go on, the address does not";
}

// Random addresses of every family: each prints text that parses back to
// the same bytes.
class RandomAddrs {
 public:
  explicit RandomAddrs(uint32_t seed) : rng_(seed) {}
  unsigned pick(unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(rng_); }
  uint8_t byte() { return static_cast<uint8_t>(pick(256)); }
  void fill(uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; i++) p[i] = pick(4) ? byte() : 0;
  }

  // One address of family gf, or empty when the family has none to make.
  Bytes make(unsigned gf) {
    const zsock_family *r = zsock_family_row(gf);
    unsigned off = r->gf_offset;
    if (const zsock_composite_info *ci = sock_info_composite_vec(gf)) {
      if (!ci->ci_kind) return fixed(gf, 4 + pick(252), 4, 0);
      return fixed(gf, ci->ci_max_size, 4, 0);
    }
    switch (r->gf_kind) {
      case 2: case 172: return fixed(gf, 8, 4, 8);
      case 28: return fixed(gf, 28, 12, 28);
      case 161: return fixed(gf, 8, 2, 8);
      case 1: case 168: {
        Bytes b(2 + pick(60));
        b[1] = gf;
        for (size_t i = 2; i < b.size(); i++) b[i] = static_cast<uint8_t>(' ' + pick(95));
        if (r->gf_kind == 1 && b.size() == 2) b.push_back('/');
        b[0] = b.size();
        return b;
      }
      case 147: return fixed(gf, 2 + pick(155), 2, 0);
      case 166: return evpn();
      case 157: case 158: case 170: case 171: return flow(gf, r->gf_kind == 170 || r->gf_kind == 171);
      case 173: return fixed(gf, pick(2) ? 28 : 44, off, 0);
    }
    // A field family: the length a parse of its text gives, random fields.
    if (r->gf_kind == 7) return fixed(gf, 2 + pick(21), off, 0);
    if (r->gf_kind == 167) return fixed(gf, 6 + pick(151), off, 0);
    return fixed(gf, sample_len(gf), off, 0);
  }

 private:
  std::mt19937 rng_;

  static unsigned sample_len(unsigned gf) {
    static const char *kSamples[] = {
        "1,00:11:22:33:44:55", "1,2,00:11:22:33:44:55", "1", "1,1.1.1.1,1.1.1.1,1", "1,::,::,1",
        "1:1,1.1.1.1,1.1.1.1", "1,1:1", "1,1:1,1.1.1.1,1.1.1.1,1.1.1.1", "1,1:1,::,::,::", "1.1.1.1,1,1",
        "00:11:22:33:44:55", "1.1.1.1,1,1.1.1.1,1", "1:1,1,1,1,1", "1,1:1,::,::", "1,1.1.1.1", "1,1:1,1.1.1.1",
        "1:1,1.1.1.1", "1:1,::", "1:1,1,1"};
    for (const char *s : kSamples) {
      int n = sockparse_len(gf, s);
      if (n > 0) return n;
    }
    ADD_FAILURE() << "no sample text for family " << gf;
    return 2;
  }

  // len bytes, random from `from` to `to` (0: the end), zero elsewhere.
  Bytes fixed(unsigned gf, unsigned len, unsigned from, unsigned to) {
    Bytes b(len);
    b[0] = len;
    b[1] = gf;
    fill(b.data() + from, (to ? to : len) - from);
    return b;
  }

  Bytes ip() {
    Bytes b(pick(3) ? (pick(2) ? 4 : 16) : 0);
    fill(b.data(), b.size());
    return b;
  }

  Bytes evpn() {
    Bytes b = {0, GF_EVPN, 0, 0, static_cast<uint8_t>(1 + pick(6))};
    Bytes rd(8), esi(10), tag(4), mac(6);
    fill(rd.data(), 8);
    fill(esi.data(), 10);
    fill(tag.data(), 4);
    fill(mac.data(), 6);
    auto add = [&](const Bytes &x) { b.insert(b.end(), x.begin(), x.end()); };
    auto add_ip = [&](bool must) {
      Bytes x = ip();
      while (must && x.empty()) x = ip();
      b.push_back(8 * x.size());
      add(x);
      return x.size();
    };
    add(rd);
    switch (b[4]) {
      case 1: add(esi); add(tag); break;
      case 2: add(esi); add(tag); b.push_back(48); add(mac); add_ip(false); break;
      case 3: add(tag); add_ip(false); break;
      case 4: add(esi); add_ip(false); break;
      case 5: {
        add(tag);
        size_t at = b.size();
        b.push_back(0);
        b[at] = pick(8 * add_ip(true) + 1);
        break;
      }
      case 6: add(tag); add_ip(false); add_ip(false); break;
    }
    b[0] = b.size();
    return b;
  }

  // A flow of increasing qualifier types, values of random width and
  // operator, often longer than 255 bytes.
  Bytes flow(unsigned gf, bool v6) {
    Bytes b(4);
    b[1] = gf;
    if (flow_sockoverhead(gf) == 12) {
      Bytes rd(8);
      fill(rd.data(), 8);
      b.insert(b.end(), rd.begin(), rd.end());
    }
    for (unsigned type = 1; type <= FLOW_QUAL_MAX; type++) {
      if (pick(3)) continue;
      b.push_back(type);
      if (type <= FLOW_SRC) {
        unsigned plen = pick(v6 ? 129 : 33), off = v6 ? pick(plen + 1) : 0;
        b.push_back(plen);
        if (v6) b.push_back(off);
        Bytes pat(sockbytes(plen - off));
        fill(pat.data(), pat.size());
        if ((plen - off) & 7) pat.back() &= 0xff00 >> ((plen - off) & 7);
        b.insert(b.end(), pat.begin(), pat.end());
        continue;
      }
      unsigned terms = 1 + pick(pick(4) ? 3 : 60);
      size_t count_at = b.size();
      b.resize(b.size() + 2);
      for (unsigned i = 0; i < terms; i++) {
        uint8_t op = byte();
        if (i == 0) op &= ~FLOW_OP_AND;
        b.push_back(op);
        Bytes v(1u << ((op >> 4) & 3));
        fill(v.data(), v.size());
        b.insert(b.end(), v.begin(), v.end());
      }
      size_t count = b.size() - count_at - 2;
      b[count_at] = count >> 8;
      b[count_at + 1] = count & 0xff;
    }
    uint16_t len = b.size();
    memcpy(&b[2], &len, 2);
    b[0] = len & 0xff;
    return b;
  }
};

TEST_F(Families, EveryFamilyParsesWhatItPrintsSeeded) {
  RandomAddrs gen(20261123);
  int long_flows = 0;
  for (unsigned g = 0; g < zsock_gf_max(); g++) {
    if (!zsock_family_row(g)) continue;
    for (int i = 0; i < 300; i++) {
      Bytes a = gen.make(g);
      std::string text = print(a);
      Bytes back = parse(g, text);
      ASSERT_EQ(back, a) << "family " << g << " printed \"" << text << "\"";
      long_flows += socklen(za(a)) > 255;
    }
  }
  EXPECT_GT(long_flows, 20) << "the random flows reach the 16-bit length";
}

// The order across families against a model: family index first; INET and
// INET6 by their bytes from the offset, the shorter first on a tie;
// multicast keys by group, then source; flows by the rules told in flow.h;
// every other family by length, then its bytes from the offset.
int sign(int x) { return (x > 0) - (x < 0); }

struct FlowQual {
  unsigned type, plen = 0, off = 0;
  Bytes value;  // the pattern of a prefix, else the operator/value bytes
};

std::vector<FlowQual> decode_flow(const Bytes &b, bool v6) {
  std::vector<FlowQual> out;
  size_t at = b[1] == GF_INVPNFLOW || b[1] == GF_IN6VPNFLOW ? 12 : 4;
  while (at < b.size()) {
    FlowQual q{b[at], 0, 0, {}};
    if (q.type <= FLOW_SRC) {
      q.plen = b[at + 1];
      q.off = v6 ? b[at + 2] : 0;
      size_t head = v6 ? 3 : 2, n = sockbytes(q.plen - q.off);
      q.value.assign(b.begin() + at + head, b.begin() + at + head + n);
      at += head + n;
    } else {
      size_t n = b[at + 1] << 8 | b[at + 2];
      q.value.assign(b.begin() + at + 3, b.begin() + at + 3 + n);
      at += 3 + n;
    }
    out.push_back(q);
  }
  return out;
}

int model_bits(const Bytes &x, const Bytes &y, unsigned bits) {
  for (unsigned i = 0; i < bits; i++) {
    int bx = x[i / 8] >> (7 - i % 8) & 1, by = y[i / 8] >> (7 - i % 8) & 1;
    if (bx != by) return bx < by ? -1 : 1;
  }
  return 0;
}

int model_generic(const Bytes &a, const Bytes &b, unsigned off) {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return sign(memcmp(a.data() + off, b.data() + off, a.size() - off));
}

int model(const Bytes &a, const Bytes &b) {
  if (a[1] != b[1]) return a[1] < b[1] ? -1 : 1;
  const zsock_family *r = zsock_family_row(a[1]);
  unsigned kind = r->gf_kind, off = r->gf_offset;
  if (kind == 2 || kind == 172 || kind == 28) {
    size_t n = std::min(a.size(), b.size());
    int c = n > off ? sign(memcmp(a.data() + off, b.data() + off, n - off)) : 0;
    return c ? c : a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
  }
  if (kind == 175 || kind == 176) {
    size_t n = kind == 175 ? 4 : 16;
    for (size_t at : {5 + n, size_t{5}})
      if (int c = sign(memcmp(a.data() + at, b.data() + at, n))) return c;
    return model_generic(a, b, off);
  }
  if (kind == 157 || kind == 158 || kind == 170 || kind == 171) {
    bool v6 = kind == 170 || kind == 171;
    if (kind == 158 || kind == 171)
      if (int c = sign(memcmp(a.data() + 4, b.data() + 4, 8))) return c;
    auto qa = decode_flow(a, v6), qb = decode_flow(b, v6);
    for (size_t i = 0; i < qa.size() && i < qb.size(); i++) {
      const FlowQual &x = qa[i], &y = qb[i];
      if (x.type != y.type) return x.type < y.type ? -1 : 1;
      if (x.type <= FLOW_SRC) {
        if (x.off != y.off) return x.off < y.off ? -1 : 1;
        if (int c = model_bits(x.value, y.value, std::min(x.plen - x.off, y.plen - y.off))) return c;
        if (x.plen != y.plen) return x.plen > y.plen ? -1 : 1;
      } else {
        // Term by term: operator, then the value's big-endian bytes.
        size_t i = 0;
        for (; i < x.value.size() && i < y.value.size();) {
          uint8_t ox = x.value[i], oy = y.value[i];
          if (ox != oy) return ox < oy ? -1 : 1;
          size_t w = 1u << ((ox >> 4) & 3);
          uint64_t vx = 0, vy = 0;
          for (size_t k = 0; k < w; k++) {
            vx = vx << 8 | x.value[i + 1 + k];
            vy = vy << 8 | y.value[i + 1 + k];
          }
          if (vx != vy) return vx < vy ? -1 : 1;
          i += 1 + w;
        }
        if (x.value.size() != y.value.size()) return x.value.size() < y.value.size() ? -1 : 1;
      }
    }
    if (qa.size() != qb.size()) return qa.size() > qb.size() ? -1 : 1;
    return model_generic(a, b, off);
  }
  return model_generic(a, b, off);
}

TEST_F(Families, TotalOrderAcrossFamiliesMatchesTheModel) {
  RandomAddrs gen(7);
  std::vector<Bytes> all;
  for (unsigned g = 0; g < zsock_gf_max(); g++)
    if (zsock_family_row(g))
      for (int i = 0; i < 25; i++) all.push_back(gen.make(g));
  // Near neighbours too: the same address with one byte changed, or cut.
  for (size_t i = 0, n = all.size(); i < n; i += 3) {
    Bytes b = all[i];
    if (b.size() > 4 && b[1] != GF_INETFLOW && b[1] != GF_INET6FLOW && b[1] != GF_INVPNFLOW &&
        b[1] != GF_IN6VPNFLOW) {
      b[b.size() - 1] ^= 1;
      all.push_back(b);
    }
    all.push_back(all[i]);
  }
  for (const Bytes &a : all)
    for (const Bytes &b : all) {
      int got = sign(sockaddrcmp(za(a), za(b)));
      ASSERT_EQ(got, model(a, b)) << print(a) << " vs " << print(b) << " family " << int(a[1]) << "/" << int(b[1]);
      ASSERT_EQ(got, -sign(sockaddrcmp(za(b), za(a))));
    }
  EXPECT_EQ(sockaddrcmp(nullptr, za(all[0])), -1);
  EXPECT_EQ(sockaddrcmp(za(all[0]), nullptr), 1);
}

TEST_F(Families, CompositeFieldsGetSetAndEdges) {
  uint32_t color = 7;
  const uint8_t v4[4] = {10, 0, 0, 1};
  const void *vals[] = {v4, &color};
  zsockaddr_t *a = sockcreate_composite(GF_INETCOLOR, 2, vals);
  EXPECT_EQ(socklen(a), 12u);
  EXPECT_EQ(text(a), "10.0.0.1,7");
  unsigned size;
  EXPECT_EQ(memcmp(getsock_field_composite(a, 0, &size), v4, 4), 0);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(getsock_word_composite(a, 1), 7u);
  uint32_t other = 0xdeadbeef;
  setsock_field_composite(a, 1, &other);
  EXPECT_EQ(getsock_word_composite(a, 1), 0xdeadbeefu);
  EXPECT_EQ(text(a), "10.0.0.1,3735928559");
  zsockaddr_t *under = sock_composite_underlying(a);
  EXPECT_EQ(socktype(under), GF_INET);
  EXPECT_EQ(text(under), "10.0.0.1");
  sockfree(a);

  // A null second value stores 0 there, also in the ring over old bytes.
  memset(sockbuild(GF_INETCOLOR, 12), 0xff, 12);
  for (int i = 0; i < 200; i++) memset(sockbuild(GF_VPN, 16)->zs_data, 0xee, 14);
  const void *half[] = {v4, nullptr};
  zsockaddr_t *b = sockbuild_composite(GF_INETCOLOR, 2, half);
  EXPECT_EQ(getsock_word_composite(b, 1), 0u);
  EXPECT_EQ(text(b), "10.0.0.1,0");

  uint32_t w1 = 1, w2 = 2;
  uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8};
  const void *srte6[] = {&w1, v6, &w2};
  zsockaddr_t *s = sockbuild_composite(GF_SRTE6, 3, srte6);
  EXPECT_EQ(text(s), "1,2001:db8::,2");
  EXPECT_EQ(text(sock_composite_underlying(s)), "2001:db8::");
  EXPECT_EQ(sockbuild_composite(GF_SRTE, 1, srte6)->zs_data[2 + 3], 1) << "first field big-endian";

  EXPECT_DEATH(getsock_field_composite(b, 2, &size), "field < ci.ci_nfields");
  EXPECT_DEATH(setsock_field_composite(b, 2, &w1), "field < ci.ci_nfields");
  EXPECT_DEATH(sockbuild_composite(GF_INETCOLOR, 3, srte6), "count <= ci->ci_nfields");
  EXPECT_DEATH(getsock_field_composite(inet("1.1.1.1"), 0, &size), "a composite family");

  // The opaque composite stops at the one-byte length.
  const zsock_composite_info *ci = sock_info_composite_vec(GF_COMPOSITE);
  ASSERT_NE(ci, nullptr);
  EXPECT_EQ(ci->ci_size, 253u);
  uint8_t big[253];
  memset(big, 0xab, sizeof big);
  const void *one[] = {big};
  zsockaddr_t *c = sockbuild_composite(GF_COMPOSITE, 1, one);
  EXPECT_EQ(socklen(c), 255u);
  getsock_field_composite(c, 0, &size);
  EXPECT_EQ(size, 251u);
  EXPECT_EQ(sock_composite_underlying(c), nullptr);

  // The mask list is the prebuilt masks, by pointer.
  const zsockaddr_t *const *masks = composite_init_mask_list(GF_SRTE);
  for (unsigned i = 0; i < sock_info_composite_vec(GF_SRTE)->ci_mask_count; i++)
    ASSERT_EQ(masks[i], sockmask_for_len(GF_SRTE, i));
  EXPECT_EQ(composite_init_mask_list(GF_COMPOSITE), nullptr);
  int plen;
  alignas(4) uint8_t buf[32];
  auto *p = reinterpret_cast<zsockaddr_t *>(buf);
  EXPECT_TRUE(composite_parse_prefix(GF_SRTE, "5,10.0.0.0,0/40", p, sizeof buf, &plen));
  EXPECT_EQ(plen, 40);
  EXPECT_FALSE(composite_parse_prefix(GF_SRTE, "5,10.0.0.0,0/97", p, sizeof buf, &plen));
  EXPECT_FALSE(composite_parse_prefix(GF_SRTE, "5,10.0.0.0,0", p, 15, &plen)) << "16 bytes need room";
}

TEST_F(Families, FlowOverOneByteLengthUsesTheLongLength) {
  std::vector<uint8_t> room(ZSOCK_LONG_MAX);
  zsockaddr_t *f = flow_common_init(room.data(), room.size(), GF_INETFLOW, nullptr);
  inetflow_add_prefix(f, room.size(), FLOW_DST, htonl(0x0a000000), 8);
  std::vector<flow_term> ports;
  for (unsigned p = 0; p < 100; p++) ports.push_back({FLOW_OP_EQ, 1000 + p});
  flow_common_add_terms(f, room.size(), FLOW_PORT, ports.data(), ports.size());
  unsigned len = socklen(f);
  EXPECT_EQ(len, 4u + 3 + 3 + 300);
  EXPECT_EQ(f->zs_len, len & 0xff);
  EXPECT_TRUE(flow_common_sockaddr_valid(f));
  zsockaddr_t *d = sockdup(f);
  EXPECT_EQ(socklen(d), len);
  EXPECT_EQ(memcmp(d, f, len), 0);
  std::string t = text(d, 0, 4096);
  EXPECT_EQ(t.substr(0, 40), "dst 10.0.0.0/8,port=1000|=1001|=1002|=10");
  EXPECT_EQ(parse(GF_INETFLOW, t), bytes_of(f));
  // Two long flows differing only past byte 255 differ.
  d->zs_data[len - 3] ^= 1;
  EXPECT_NE(sockaddrcmp(d, f), 0);
  sockfree(d);

  // The VPN form carries the distinguisher before the same qualifiers.
  zsockaddr_t *v = sockbuild_invpnflow_flow(kRd, f);
  EXPECT_EQ(socklen(v), len + 8);
  EXPECT_EQ(text(v, 0, 30).substr(0, 24), "65000:100,dst 10.0.0.0/8");

  // Walking the qualifiers.
  unsigned qlen;
  const uint8_t *q = flow_common_sock_qual_next(f, nullptr, &qlen);
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(q[0], FLOW_DST);
  EXPECT_EQ(qlen, 3u);
  q = flow_common_sock_qual_next(f, q, &qlen);
  EXPECT_EQ(q[0], FLOW_PORT);
  EXPECT_EQ(qlen, 303u);
  char vals[32];
  flow_common_vprintf_numeric(vals, sizeof vals, q, qlen);
  EXPECT_STREQ(vals, "=1000|=1001|=1002|=1003|=1004|=") << "cut at the buffer";
  EXPECT_EQ(flow_common_sock_qual_next(f, q, &qlen), nullptr);
  EXPECT_DEATH(flow_common_add_qual(f, len + 2, FLOW_LEN, reinterpret_cast<const uint8_t *>("\x81\x05"), 2), "");
}

TEST_F(Families, FlowPrefixAssertionsAndOddValues) {
  alignas(4) uint8_t room[256];
  const uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0xff};
  zsockaddr_t *v = flow_common_init(room, sizeof room, GF_IN6VPNFLOW, kRd);
  EXPECT_DEATH(in6vpnflow_add_prefix(v, sizeof room, FLOW_DST, addr, 256, 0), "prefixlen <= 255");
  EXPECT_DEATH(in6vpnflow_add_prefix(v, sizeof room, FLOW_DST, addr, 8, 16), "prefixlen >= offset");
  in6vpnflow_add_prefix(v, sizeof room, FLOW_DST, addr, 40, 16);
  EXPECT_EQ(text(v), "65000:100,dst 0:db8:ff00::/40@16");
  alignas(4) uint8_t room6[256];
  zsockaddr_t *f = flow_common_init(room6, sizeof room6, GF_INET6FLOW, nullptr);
  EXPECT_DEATH(inet6flow_add_prefix(f, sizeof room, FLOW_DST, addr, 256, 0), "plen <= 255");
  EXPECT_DEATH(inet6flow_add_prefix(f, sizeof room, FLOW_DST, addr, 8, 9), "prefix_offset <= plen");
  EXPECT_DEATH(in6vpnflow_add_prefix(f, sizeof room, FLOW_DST, addr, 8, 0), "socktype\\(addr\\) == GF_IN6VPNFLOW");
  EXPECT_DEATH(inet6flow_add_prefix(v, sizeof room, FLOW_DST, addr, 8, 0), "socktype\\(addr\\) == GF_INET6FLOW");
  inet6flow_add_prefix(f, sizeof room, FLOW_SRC, addr, 130, 0);
  EXPECT_EQ(text(f), "src (BadV6PrefixLen=130)");
  EXPECT_FALSE(flow_common_sockaddr_valid(f));

  // A v4 prefix past 32 bits and an unknown operator print what they are.
  zsockaddr_t *g = flow_common_init(room, sizeof room, GF_INETFLOW, nullptr);
  inetflow_add_prefix(g, sizeof room, FLOW_DST, 0x0100000a, 40);
  const uint8_t unknown[] = {0, 2, 0x08, 6};
  flow_common_add_qual(g, sizeof room, FLOW_PROTO, unknown, 4);
  EXPECT_EQ(text(g), "dst (BadV4PrefixLen=40),proto8-UNKNOWN:6");
  EXPECT_FALSE(flow_common_sockaddr_valid(g));
  EXPECT_EQ(print(parse(GF_INETFLOW, "proto8-UNKNOWN:6")), "proto8-UNKNOWN:6");
  EXPECT_EQ(print(parse(GF_INETFLOW, "proto136-UNKNOWN:6")), "proto136-UNKNOWN:6");
  EXPECT_TRUE(parse(GF_INETFLOW, "proto72-UNKNOWN:6").empty()) << "the and bit is written as '&'";
  // A count that the terms do not fill is no qualifier.
  g = flow_common_init(room, sizeof room, GF_INETFLOW, nullptr);
  const uint8_t short_count[] = {0, 3, 0x01, 6};
  flow_common_add_qual(g, sizeof room, FLOW_PROTO, short_count, 4);
  EXPECT_EQ(text(g), "(bad 03.0003.0106)");
  EXPECT_FALSE(flow_common_sockaddr_valid(g));
  // Bytes that hold no qualifier show as hex, not as a crash.
  g = flow_common_init(room, sizeof room, GF_INETFLOW, nullptr);
  const uint8_t cut[] = {0x01, 0x05};
  flow_common_add_qual(g, sizeof room, FLOW_PORT, cut, 2);
  EXPECT_EQ(text(g), "(bad 04.0105)");
}

TEST_F(Families, FlowOrderPutsLowerTypesAndLongerPrefixesFirst) {
  auto p = [&](const char *t) { return parse(GF_INETFLOW, t); };
  auto lt = [&](const char *x, const char *y) {
    Bytes a = p(x), b = p(y);
    EXPECT_LT(sockaddrcmp(za(a), za(b)), 0) << x << " < " << y;
    EXPECT_GT(sockaddrcmp(za(b), za(a)), 0) << y << " > " << x;
  };
  lt("dst 10.0.0.0/16", "dst 10.0.0.0/8");
  lt("dst 10.0.0.0/8", "dst 11.0.0.0/16");
  lt("dst 10.0.0.0/8", "src 1.0.0.0/8");
  lt("dst 10.0.0.0/8,proto=6", "dst 10.0.0.0/8");
  lt("proto=6", "proto=17");
  lt("proto=6", "proto=6|=17");
  EXPECT_EQ(sockaddrcmp(za(p("dst 10.0.0.0/8")), za(p("dst 10.0.0.0/8"))), 0);
}

TEST_F(Families, EvpnBuildersAndPut) {
  const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  zsockaddr_t *m = evpn_addr_build_mac(kRd, kEsi, 100, mac, inet("10.0.0.1"));
  EXPECT_EQ(text(m), "2:65000:100:00:01:02:03:04:05:06:07:08:09:100:48.0:11:22:33:44:55:10.0.0.1");
  zsockaddr_t *no_ip = evpn_addr_build_mac(kRd, nullptr, 5, mac, nullptr);
  EXPECT_EQ(text(no_ip), "2:65000:100:00:00:00:00:00:00:00:00:00:00:5:48.0:11:22:33:44:55");
  uint8_t v6[16] = {0x20, 1, 0xd, 0xb8};
  zsockaddr_t *six = evpn_addr_put_sock(no_ip, sockbuild_in6(0, v6));
  EXPECT_EQ(text(six), "2:65000:100:00:00:00:00:00:00:00:00:00:00:5:48.0:11:22:33:44:55:2001:db8::");
  EXPECT_EQ(socklen(six), socklen(no_ip) + 16);
  EXPECT_EQ(text(evpn_addr_build_incl_mult(kRd, 9, inet("192.0.2.1"))), "3:65000:100:9:192.0.2.1");
  EXPECT_EQ(text(evpn_addr_build_eth_segment(kRd, kEsi, nullptr)), "4:65000:100:00:01:02:03:04:05:06:07:08:09");
  EXPECT_EQ(text(evpn_addr_build_ip_prefix(kRd, 0, inet("10.1.0.0"), 16)), "5:65000:100:0:10.1.0.0/16");
  EXPECT_EQ(text(evpn_addr_build_ad(kRd, kEsi, 4)), "1:65000:100:00:01:02:03:04:05:06:07:08:09:4");
  zsockaddr_t *im = evpn_addr_build_incl_mult(kRd, 9, nullptr);
  EXPECT_EQ(text(evpn_addr_put_igmp_sock(im, nullptr, inet("239.1.1.1"))), "6:65000:100:9:*,239.1.1.1");
  EXPECT_DEATH(evpn_addr_build_ip_prefix(kRd, 0, inet("10.1.0.0"), 33), "plen <= 8 \\* n");
  EXPECT_DEATH(evpn_addr_put_sock(evpn_addr_build_ad(kRd, kEsi, 4), nullptr), "a route type with an IP");
  EXPECT_DEATH(evpn_addr_put_sock(inet("1.1.1.1"), nullptr), "socktype\\(a\\) == need_gf\\(\\)");
  // Fields that do not add up print as hex after the type and distinguisher.
  zsockaddr_t *odd = sockbuild(GF_EVPN, 15);
  odd->zs_data[2] = 2;
  EXPECT_EQ(text(odd), "2:0:0:00.00");
  EXPECT_EQ(zsock_printer(GF_EVPN), vprintf_evpn_format_addr);
}

TEST_F(Families, VpnMdtAndMulticastHelpers) {
  zsockaddr_t *v = sockbuild_inetvpn(kRd, htonl(0x0a010203));
  EXPECT_EQ(text(v), "65000:100,10.1.2.3");
  EXPECT_EQ(text(inetvpn_sockextract_in(v)), "10.1.2.3");
  EXPECT_EQ(sockextract_in(v, nullptr), htonl(0x0a010203));
  EXPECT_EQ(inetvpn_extract_plen_in(88), 24u);
  EXPECT_EQ(inetvpn_extract_plen_in(40), 0u);
  EXPECT_EQ(tagvpn_extract_plen_in(120), 24u);
  uint8_t a6[16] = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  zsockaddr_t *v6 = sockbuild_inet6vpn(kRd, a6);
  EXPECT_EQ(text(inet6vpn_sockextract_in(v6)), "2001:db8::1");
  EXPECT_EQ(inet6vpn_extract_plen_in(128), 64u);
  // A prefix cut inside the address extracts zeros past it.
  sockcutlen(v, 80);
  EXPECT_EQ(text(inetvpn_sockextract_in(v)), "10.1.0.0");
  Bytes tv = parse(GF_TAGVPN, "16,1:1,10.9.8.7");
  EXPECT_EQ(text(tagvpn_sockextract_in(za(tv))), "10.9.8.7");
  Bytes tr = parse(GF_INETTRANSPORT, "1:1,10.9.8.7");
  EXPECT_EQ(text(inettransport_sockextract_in(za(tr))), "10.9.8.7");
  Bytes tr6 = parse(GF_IN6TRANSPORT, "1:1,::5");
  EXPECT_EQ(text(inet6transport_sockextract_in(za(tr6))), "::5");
  EXPECT_EQ(inettransport_extract_plen_in(96), 32u);
  EXPECT_EQ(inet6transport_extract_plen_in(192), 128u);
  EXPECT_DEATH(inetvpn_sockextract_in(za(tr)), "need_gf");

  Bytes mdt = parse(GF_MDT, "1:1,192.0.2.1,239.1.2.3");
  EXPECT_EQ(sockextractsrc(za(mdt), nullptr), htonl(0xc0000201));
  EXPECT_EQ(sockextractgrp(za(mdt), nullptr), htonl(0xef010203));
  EXPECT_EQ(sockextractgrp_mdt(nullptr, nullptr), 0u);

  // Multicast keys: by group first, whatever the source.
  Bytes g1 = parse(GF_MCSN, "9,9.9.9.9,239.0.0.1,9"), g2 = parse(GF_MCSN, "0,1.1.1.1,239.0.0.2,0");
  EXPECT_LT(sockaddrcmp(za(g1), za(g2)), 0);
  EXPECT_LT(inetmcsn_sockaddrcmp2(za(g1), za(g2)), 0);
  Bytes h1 = parse(GF_MCSN6, "9,::9,ff02::1,9"), h2 = parse(GF_MCSN6, "0,::1,ff02::2,0");
  EXPECT_LT(inet6mcsn_sockaddrcmp2(za(h1), za(h2)), 0);
  Bytes s1 = parse(GF_MCSN, "9,1.1.1.1,239.0.0.1,9"), s2 = parse(GF_MCSN, "0,2.2.2.2,239.0.0.1,0");
  EXPECT_LT(sockaddrcmp(za(s1), za(s2)), 0) << "then by source";
  EXPECT_EQ(sockhostmasklen(GF_VPN), 96);
}

}  // namespace
