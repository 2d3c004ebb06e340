// The address core: ordering, lengths of long families, the scratch ring,
// ownership through the hooks, the generic mask algebra and the dispatchers'
// assertions.
#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>

#include "sockaddr_fixture.h"

using namespace sockaddr_test;

namespace {

// A generic family (offset 2, every slot default) and two long families.
constexpr unsigned kGeneric = 20, kLong14 = 14, kLong15 = 15;

class Core : public Sockaddr {
 protected:
  void SetUp() override {
    Sockaddr::SetUp();
    zsock_init_family(100, kGeneric, 2, 16, nullptr, 0, "generic", nullptr);
    zsock_init_family(157, kLong14, 4, 4063, nullptr, 0, "inetflow", nullptr);
    zsock_init_family(158, kLong15, 4, 4063, nullptr, 0, "invpnflow", nullptr);
  }
  // An address of family gf and length len whose bytes from 2 are given.
  static zsockaddr_t *make(unsigned gf, std::vector<uint8_t> body) {
    zsockaddr_t *a = sockbuild(gf, body.size() + 2);
    memcpy(a->zs_data, body.data(), body.size());
    if (gf == kLong14 || gf == kLong15) socklen_set(a, body.size() + 2);
    return a;
  }
};

TEST_F(Core, TotalOrderNullFamilyLengthThenUnsignedBytesFromOffset) {
  zsockaddr_t *g1 = make(kGeneric, {0x7f, 1});
  zsockaddr_t *g2 = make(kGeneric, {0x80, 0});  // unsigned: 0x80 sorts after 0x7f
  zsockaddr_t *g3 = make(kGeneric, {0x80, 0, 0});
  zsockaddr_t *i1 = inet("10.0.0.1", 9999);
  zsockaddr_t *i2 = inet("10.0.0.1", 1);  // ports are not compared
  EXPECT_EQ(common_sockaddrcmp2(nullptr, nullptr), 0);
  EXPECT_EQ(common_sockaddrcmp2(nullptr, g1), -1);
  EXPECT_EQ(common_sockaddrcmp2(g1, nullptr), 1);
  EXPECT_EQ(common_sockaddrcmp2(g1, g2), -1);
  EXPECT_EQ(common_sockaddrcmp2(g2, g1), 1);
  EXPECT_EQ(common_sockaddrcmp2(g2, g3), -1);  // shorter first
  EXPECT_EQ(common_sockaddrcmp2(i1, g1), -1);  // family 1 before 20
  EXPECT_EQ(common_sockaddrcmp2(i1, i2), 0);
  EXPECT_TRUE(sockaddreq(i1, i2));
  EXPECT_EQ(sockaddrcmp(nullptr, i1), -1);
}

TEST_F(Core, LongFamiliesOrderByTheirSixteenBitLength) {
  // 300 bytes has 44 as its low byte: byte 0 alone would order it first.
  std::vector<uint8_t> big(298, 0), small(42, 0xff);
  zsockaddr_t *a = make(kLong14, big), *b = make(kLong14, small);
  EXPECT_EQ(socklen(a), 300u);
  EXPECT_EQ(a->zs_len, 300 & 0xff);
  EXPECT_EQ(common_sockaddrcmp2(b, a), -1);
  EXPECT_EQ(common_sockaddrcmp2(a, b), 1);
  zsockaddr_t *c = make(kLong15, small);
  EXPECT_EQ(common_sockaddrcmp2(a, c), -1);  // family before length
  zsockaddr_t *d = sockdup(a);
  EXPECT_EQ(common_sockaddrcmp2(a, d), 0);
  EXPECT_EQ(ledger.live[d].second, 300u);  // allocated by its true length
  sockfree(d);
}

TEST_F(Core, OrderIsATotalOrderOnRandomAddresses) {
  std::mt19937 rng(42);
  std::vector<zsockaddr_t *> v;
  for (int i = 0; i < 300; i++) {
    unsigned gf = rng() % 2 ? kGeneric : unsigned{GF_INET};
    std::vector<uint8_t> body(2 + rng() % 4);
    for (auto &b : body) b = rng() % 3 ? rng() % 4 : 0x80 | rng();
    zsockaddr_t *a = sockalloc(gf, body.size() + 2);
    memcpy(a->zs_data, body.data(), body.size());
    v.push_back(a);
  }
  // The model key: family, length, bytes from the family's offset.
  auto key = [](const zsockaddr_t *a) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(a);
    unsigned off = a->zs_gf == GF_INET ? 4 : 2;
    return std::make_tuple(a->zs_gf, socklen(a), std::vector<uint8_t>(p + std::min(off, socklen(a)), p + socklen(a)));
  };
  for (size_t i = 0; i < v.size(); i++)
    for (size_t j = 0; j < v.size(); j += 7) {
      int want = key(v[i]) < key(v[j]) ? -1 : key(v[j]) < key(v[i]) ? 1 : 0;
      ASSERT_EQ(common_sockaddrcmp2(v[i], v[j]), want) << i << " " << j;
    }
  for (zsockaddr_t *a : v) sockfree(a);
}

// A family that keeps its own sameness and order: sameness by bytes, the
// generic order reversed. Every call of its comparison is counted.
constexpr unsigned kOwn = 40;
int own_cmp_calls;
int own_reversed_cmp(const zsockaddr_t *a, const zsockaddr_t *b) {
  own_cmp_calls++;
  return -common_sockaddrcmp2(a, b);
}
bool own_same_bytes(const zsockaddr_t *a, const zsockaddr_t *b) {
  return socklen(a) == socklen(b) && memcmp(a, b, socklen(a)) == 0;
}
void own_slots(zsock_ops *ops) {
  ops->sockaddrcmp2 = own_reversed_cmp;
  ops->sockissame = own_same_bytes;
}

TEST_F(Core, FamilySlotsDecideSamenessAndOrderEvenAgainstOtherFamilies) {
  zsock_init_family(100, kOwn, 2, 16, nullptr, 0, "own", own_slots);
  own_cmp_calls = 0;
  zsockaddr_t *x = make(kOwn, {1, 2}), *y = make(kOwn, {1, 2});
  EXPECT_TRUE(sockissame(x, y)) << "the family's own slot, not pointer equality";
  zsockaddr_t *i1 = inet("10.0.0.1"), *i2 = inet("10.0.0.1");
  EXPECT_FALSE(sockissame(i1, i2)) << "without a slot: the same pointer only";
  EXPECT_TRUE(sockissame(i1, i1));

  // A pair of different families still goes to the first one's slot.
  EXPECT_EQ(sockaddrcmp(x, i1), -1);
  EXPECT_EQ(own_cmp_calls, 1);
  // Only a null address takes the generic order.
  EXPECT_EQ(sockaddrcmp(x, nullptr), 1);
  EXPECT_EQ(sockaddrcmp(nullptr, x), -1);
  EXPECT_EQ(own_cmp_calls, 1);
}

// The families' own comparisons now also see pairs of different families:
// they must keep one total order with each other and with the generic one.
TEST_F(Core, OrderAcrossFamiliesStaysAntisymmetricThroughTheirSlots) {
  std::mt19937 rng(11);
  std::vector<zsockaddr_t *> v;
  const unsigned gfs[] = {kGeneric, GF_INET, GF_INET6};
  for (int i = 0; i < 240; i++) {
    unsigned gf = gfs[rng() % 3];
    unsigned len = gf == GF_INET6 ? unsigned{SOCKADDR_IN6_LEN} : gf == GF_INET ? unsigned{SOCKADDR_IN_LEN} : 2 + rng() % 6;
    zsockaddr_t *a = sockalloc(gf, len);
    for (unsigned k = 2; k < len; k++) reinterpret_cast<uint8_t *>(a)[k] = rng() % 3 ? 0 : rng();
    v.push_back(a);
  }
  for (zsockaddr_t *a : v)
    for (zsockaddr_t *b : v) {
      int ab = sockaddrcmp(a, b), ba = sockaddrcmp(b, a);
      ASSERT_EQ(ab, -ba);
      if (a->zs_gf != b->zs_gf) {
        ASSERT_EQ(ab, a->zs_gf < b->zs_gf ? -1 : 1);
      }
    }
  std::vector<zsockaddr_t *> sorted = v;
  std::sort(sorted.begin(), sorted.end(), [](auto *a, auto *b) { return sockaddrcmp(a, b) < 0; });
  for (size_t i = 1; i < sorted.size(); i++) ASSERT_LE(sockaddrcmp(sorted[i - 1], sorted[i]), 0) << i;
  for (zsockaddr_t *a : v) sockfree(a);
}

TEST_F(Core, ScratchRingRoundsWrapsAndClearsTheHeader) {
  zsockaddr_t *a = sockbuild(kGeneric, 5);
  zsockaddr_t *b = sockbuild(kGeneric, 5);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(b) - reinterpret_cast<uint8_t *>(a), 8);
  EXPECT_EQ(socklen(b), 5u);
  EXPECT_EQ(b->zs_gf, kGeneric);
  memset(a, 0xee, 8);
  // Fill up to just before the end; a block exactly reaching the end does not fit.
  size_t used = 16;
  while (used + 256 < kRing) {
    sockbuild(kGeneric, 255);
    used += 256;
  }
  zsockaddr_t *c = sockbuild(kGeneric, kRing - used);
  EXPECT_EQ(c, a) << "a block reaching the end must wrap";
  EXPECT_EQ(c->zs_data[0], 0) << "a reused block comes back cleared";
  EXPECT_DEATH(sockbuild(GF_UNSPEC, 8), "gf != GF_UNSPEC");
  EXPECT_DEATH(sockbuild(GF_MAX_DAEMON, 8), "gf < g.gf_max");

  // A ring of 256 bytes: a 255-byte request rounds to the whole ring.
  zsock_hooks h = *zsock_get_hooks();
  zsock_shutdown();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 256, &h);
  zsockaddr_t *first = sockbuild_empty(GF_UNSPEC, 4);
  sockbuild_empty(GF_UNSPEC, 4);
  zsockaddr_t *whole = sockbuild_empty(GF_UNSPEC, 255);
  EXPECT_EQ(whole, first) << "the whole ring overwrites its start";
  EXPECT_EQ(socklen(whole), 255u);
  EXPECT_EQ(whole->zs_gf, GF_UNSPEC);
}

TEST_F(Core, OwnershipGoesThroughTheHooksByFamilyAndLength) {
  zsockaddr_t *a = sockalloc(kGeneric, 7);
  EXPECT_EQ(ledger.live[a], std::make_pair(kGeneric, size_t{7}));
  zsockaddr_t *slot = nullptr;
  sockreplace(&slot, a);
  EXPECT_NE(slot, a);
  EXPECT_TRUE(sockaddreq(slot, a));
  sockreplace(&slot, inet("1.2.3.4"));
  EXPECT_EQ(ledger.live[slot], std::make_pair(unsigned{GF_INET}, size_t{SOCKADDR_IN_LEN}));
  sockfree(slot);
  sockfree(a);
  sockfree(nullptr);
  EXPECT_EQ(sockdup(nullptr), nullptr);
}

// One table for the generic mask algebra on a family of offset 2.
TEST_F(Core, GenericMaskAlgebra) {
  zsockaddr_t *a = make(kGeneric, {0xab, 0xcd, 0xef});
  zsockaddr_t *b = make(kGeneric, {0xab, 0xd0, 0x00});  // differs from a at bit 11
  zsockaddr_t *m12 = make(kGeneric, {0xff, 0xf0});
  zsockaddr_t *m10 = make(kGeneric, {0xff, 0xc0});
  struct {
    const char *what;
    bool got, want;
  } rows[] = {
      {"prefixeq 10", sockprefixeq(a, b, 10), true},
      {"prefixeq 12", sockprefixeq(a, b, 12), false},
      {"prefixeq 0", sockprefixeq(a, b, 0), true},
      {"prefixeq past both", sockprefixeq(a, a, 25), false},
      {"prefixeq other family", sockprefixeq(a, inet("1.1.1.1"), 1), false},
      {"maskedeq 10", sockmaskedeq(a, b, m10), true},
      {"maskedeq 12", sockmaskedeq(a, b, m12), false},
      {"maskedeq shorter than mask", sockmaskedeq(make(kGeneric, {0xab}), b, m10), false},
      {"outside 12 (bits set past)", sockoutsidemask(a, m12), true},
      {"outside 12 of b", sockoutsidemask(b, m12), false},
      {"outside 10 of b", sockoutsidemask(b, m10), true},
      {"outside: byte past the mask", sockoutsidemask(make(kGeneric, {0xab, 0xc0, 0x01}), m10), true},
      {"outside: inside the mask", sockoutsidemask(make(kGeneric, {0xab, 0xc0}), m10), false},
      {"beyondlen 24", sockbeyondlen(a, 24), false},
      {"beyondlen 23", sockbeyondlen(a, 23), true},
      {"beyondlen 12 of b", sockbeyondlen(b, 12), false},
      {"beyondlen 11 of b", sockbeyondlen(b, 11), true},
  };
  for (auto &r : rows) EXPECT_EQ(r.got, r.want) << r.what;

  zsockaddr_t *c = make(kGeneric, {0xab, 0xcd, 0xef});
  sockcutlen(c, 12);
  EXPECT_EQ(socklen(c), 4u);
  EXPECT_EQ(c->zs_data[1], 0xc0);
  EXPECT_EQ(c->zs_data[2], 0) << "bytes past the cut are cleared";
  sockcutlen(c, 0);
  EXPECT_EQ(socklen(c), 2u);
  EXPECT_EQ(c->zs_data[0] | c->zs_data[1], 0);

  zsockaddr_t *d = make(kGeneric, {0xab, 0xcd, 0xef});
  sockandmask(d, m10);
  EXPECT_EQ(socklen(d), 4u);
  EXPECT_EQ(d->zs_data[0], 0xab);
  EXPECT_EQ(d->zs_data[1], 0xc0);
  EXPECT_EQ(sockbitcount(m10), 10u);
  EXPECT_EQ(sockprefixcmp(a, 8, a, 16), -8);
}

TEST_F(Core, MaskTablesAreSharedAndComparableByPointer) {
  const zsockaddr_t *m24 = inet_sockmask_len(GF_INET, 24);
  EXPECT_EQ(sockmask_for_len(GF_INET, 24), m24);
  EXPECT_EQ(sockmask_index(zsock_family_row(GF_INET), m24), 24);
  EXPECT_EQ(sockmasklen(GF_INET, m24), 24);
  EXPECT_EQ(sockbitcount(m24), 24u);
  EXPECT_EQ(sockmask_for_len(GF_INET, 129), nullptr);
  EXPECT_EQ(sockmask_index(zsock_family_row(GF_INET), inet("255.255.255.0")), -1);
  EXPECT_EQ(sockmasklen(GF_INET, inet("255.255.255.0")), 24) << "a hand-built mask is counted";
  EXPECT_EQ(zsock_family_row(GF_INET6)->gf_masks.mt_count, 321u);
  EXPECT_EQ(sockbitcount(inet6_sockmask_len(GF_INET6, 300)), 300u);
  EXPECT_DEATH(inet_sockmask_len(GF_INET, 129), "bits <= 128");
  EXPECT_DEATH(inet6_sockmask_len(GF_INET6, 321), "bits <= 320");
}

TEST_F(Core, EmptySlotsAssertWithTheOperationsName) {
  zsockaddr_t *g = make(kGeneric, {1, 2});
  EXPECT_DEATH(sockhostmask(g), "sockhostmask");
  EXPECT_DEATH(setsockport(g, 1), "setsockport");
  EXPECT_DEATH(sock2unix(g, nullptr), "sock2unix");
  EXPECT_DEATH(sockhostmasklen(kGeneric), "sockhostmasklen");
  EXPECT_DEATH(sockextract_in(g, nullptr), "sockextract_in");
  EXPECT_DEATH(sockextractsrc(g, nullptr), "sockextractsrc");
  EXPECT_DEATH(sockextractgrp(g, nullptr), "sockextractgrp");
  EXPECT_DEATH(sockgrp_ptr(g), "sockgrp_ptr");
  EXPECT_DEATH(sockbuild_mc(g, nullptr), "sockbuild_mc");
  EXPECT_DEATH(sockclean(nullptr), "sockclean") << "a null address names the operation too";
  EXPECT_EQ(fwd_sock2zsock(kGeneric, "x"), nullptr) << "no conversion from the forwarding form";
  EXPECT_EQ(fwd_sock2zsock(GF_MAX_DAEMON, "x"), nullptr);
  EXPECT_FALSE(sockishost(g, nullptr));  // default: not a host
  EXPECT_EQ(sockgetter(g, 0), 0u);
  EXPECT_EQ(sockgetter(nullptr, 0), 0u);
  zsockaddr_t *unknown = sockbuild(40, 4);  // inside gf_max, never registered
  EXPECT_DEATH(common_sockaddrcmp2(unknown, sockbuild(40, 4)), "ko >= 0");
  EXPECT_DEATH(sockdup(unknown), "copy");
  EXPECT_EQ(zsock_family_row(GF_MAX_DAEMON), nullptr);
  EXPECT_EQ(sockaddrptr(unknown), reinterpret_cast<const uint8_t *>(unknown));
}

TEST_F(Core, NamesAndRegistrationsReachTheHooks) {
  EXPECT_EQ(sockfamily_by_name("inet6"), unsigned{GF_INET6});
  EXPECT_EQ(sockfamily_by_name("String"), unsigned{GF_STRING});
  EXPECT_EQ(sockfamily_by_name("I802"), unsigned{GF_I802});
  EXPECT_EQ(sockfamily_by_name("ISO"), 0u);
  EXPECT_EQ(sockfamily_by_name(nullptr), 0u);
  // Every family with a printer was offered to the formatter with code 24.
  std::vector<unsigned> gfs;
  for (auto [gf, code] : ledger.printf_exts) {
    EXPECT_EQ(code, unsigned{ZTASK_FMT_ZSOCKA});
    gfs.push_back(gf);
  }
  EXPECT_EQ(gfs, (std::vector<unsigned>{GF_UNSPEC, GF_INET, GF_INET6, GF_UNIX, GF_I802}));
  EXPECT_EQ(ledger.letters, "imp");
  EXPECT_EQ(zsock_family_row(GF_UNSPEC)->gf_kind, 147);
  EXPECT_EQ(zsock_family_row(GF_UNSPEC)->gf_max_size, 156);
  EXPECT_EQ(zsock_family_row(GF_INET)->gf_offset, 4);
  EXPECT_EQ(zsock_family_row(GF_INET6)->gf_offset, 12);
}

}  // namespace
