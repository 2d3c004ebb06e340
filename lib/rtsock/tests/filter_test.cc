// Route-socket filters: the byte programs of known expressions, parse errors
// and their positions, the limits, what a program lets through, and the
// checker's refusal of broken programs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bytes.h"
#include "fake_peer.h"
#include "rtsock/rts_filter.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes compile(const std::string &text, int *rc = nullptr, rts_filter_error *err = nullptr) {
  uint8_t buf[RTS_FILTER_MAX];
  rts_filter_error e;
  int r = rts_filter_compile(text.data(), text.size(), buf, sizeof buf, err ? err : &e);
  if (rc) *rc = r;
  if (r != 0) return {};
  uint16_t len;
  memcpy(&len, buf + 4, 2);
  return Bytes(buf, buf + len);
}

Bytes header(uint16_t len, uint8_t depth, std::initializer_list<uint8_t> types) {
  Bytes h = {0x52, 0x54, 0x46, 0x31, static_cast<uint8_t>(len), static_cast<uint8_t>(len >> 8), depth, 0};
  h.resize(24, 0);
  for (uint8_t t : types) h[8 + t / 8] |= static_cast<uint8_t>(1u << (t % 8));
  return h;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// ---- Programs ---------------------------------------------------------------------------

TEST(FilterCompile, GoldenProgramOfIntegersBlobsAndLogic) {
  Bytes code = {
      0x01, 0x01, 72, 0x01, 2,  0x01, 5, 0, 0, 0, 0, 0, 0, 0,      // gencfg->major == 5
      0x01, 0x03, 89, 0x01, 15, 0x01, 0, 1, 0, 0, 0, 0, 0, 0,      // bridge_domain->vnid < 0x100
      0x01, 0x01, 89, 0x01, 5,  0x03, 3, 'b', 'd', '1',            // bdm_name == "bd1"
      0x03, 0x04, 0x02, 0x00,                                      // or, not, and, end
  };
  Bytes want = cat({header(static_cast<uint16_t>(24 + code.size()), 3, {72, 89}), code});
  EXPECT_EQ(compile("gencfg->major == 5 && !(bridge_domain->vnid < 0x100 or bridge_domain->bdm_name == \"bd1\")"),
            want);
  // The same with the other spellings of structures and operators.
  EXPECT_EQ(compile("gencfg_t.major==5 and not (rts_bd_msg->vnid<256||bridge_domain_t->bdm_name==\"bd1\")"), want);
}

TEST(FilterCompile, GoldenProgramOfHeaderFieldsPrefixesAndBareFields) {
  Bytes code = {
      0x01, 0x02, 8, 0x02, 1, 4, 0x01, 3, 0, 0, 0, 0, 0, 0, 0,   // ifaddr->operation != 3
      0x01, 0x01, 8, 0x01, 5, 0x02, 12, 2, 10, 0x10,              // ifaddr->ifam_local == 10.31.0.0/12
      0x02,
      0x01, 0x02, 8, 0x01, 4, 0x01, 0, 0, 0, 0, 0, 0, 0, 0,       // ifaddr->ifam_flags (!= 0)
      0x03, 0x00,
  };
  EXPECT_EQ(compile("ifaddr->hdr.operation != 3 && ifaddr->ifam_local == 10.31.0.0/12 || ifaddr->ifam_flags"),
            cat({header(static_cast<uint16_t>(24 + code.size()), 2, {8}), code}));
  // The header's fields need no "hdr.".
  EXPECT_EQ(compile("ifaddr->operation != 3 && ifaddr->ifam_local == 10.31.0.0/12 || ifaddr->ifam_flags"),
            compile("ifaddr->hdr.operation != 3 && ifaddr->ifam_local == 10.31.0.0/12 || ifaddr->ifam_flags"));
  Bytes v6 = compile("route->rtm_prefix != 2001:db8::/33");
  ASSERT_FALSE(v6.empty());
  EXPECT_EQ(Bytes(v6.begin() + 24, v6.end()),
            (Bytes{0x01, 0x02, 2, 0x01, 8, 0x02, 33, 5, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x00}));
}

// ---- Errors --------------------------------------------------------------------------------

struct Bad {
  const char *text;
  int rc;
  uint32_t line, column;
  const char *why;
};

TEST(FilterCompile, ErrorsSayWhereAndWhy) {
  const Bad cases[] = {
      {"gencfg->major == ", -1, 1, 18, "expected a number"},
      {"gencfg->nosuch == 1", -2, 1, 9, "unknown field 'nosuch' of rts_gencfg_msg"},
      {"nosuch->major == 1", -2, 1, 1, "unknown structure 'nosuch'"},
      {"(gencfg->major == 1", -1, 1, 20, "expected ')'"},
      {"gencfg->major == 1 )", -1, 1, 20, "unexpected ')'"},
      {"gencfg major", -1, 1, 8, "expected '->' after 'gencfg'"},
      {"gencfg->major = 1", -2, 1, 15, "Unknown op ="},
      {"gencfg->major =< 1", -2, 1, 15, "Unknown op =<"},
      {"ifaddr->ifam_local == 10.1.0.300/8", -2, 1, 23, "Invalid ip prefix"},
      {"ifaddr->ifam_local == 10.1.0.0/33", -2, 1, 23, "Invalid ip prefix"},
      {"ifaddr->ifam_local == fe80::g1", -2, 1, 23, "Invalid ipv6 prefix"},
      {"ifaddr->ifam_local > 10.0.0.1", -2, 1, 20, "an address takes == or != only"},
      {"gencfg->major == 10.0.0.1", -2, 1, 18, "expected a number, found an address"},
      {"gencfg->major == 99999999999999999999", -2, 1, 18, "number out of range"},
      {"gencfg->blob_key == 3", -1, 1, 21, "expected a string in double quotes"},
      {"gencfg->blob_key == \"a", -1, 1, 21, "string without its closing"},
      {"gencfg->blob_key", -2, 1, 1, "'blob_key' is not an integer"},
      {"gencfg->hdr == 1", -2, 1, 9, "'hdr' is a structure"},
      {"gencfg->major == 1 &&\n  (gencfg->minor ==\n   )", -1, 3, 4, "expected a number"},
      {"", -1, 1, 1, "expected a field"},
  };
  for (const Bad &b : cases) {
    SCOPED_TRACE(b.text);
    int rc;
    rts_filter_error err;
    EXPECT_TRUE(compile(b.text, &rc, &err).empty());
    EXPECT_EQ(rc, b.rc);
    EXPECT_EQ(err.line, b.line);
    EXPECT_EQ(err.column, b.column);
    EXPECT_NE(std::string(err.message).find(b.why), std::string::npos) << err.message;
  }
}

TEST(FilterCompile, Limits) {
  int rc;
  rts_filter_error err;
  // Nesting: 32 levels of brackets compile, 33 overflow.
  std::string ok = std::string(31, '(') + "gencfg->major" + std::string(31, ')');
  EXPECT_FALSE(compile(ok, &rc).empty());
  std::string deep = std::string(32, '(') + "gencfg->major" + std::string(32, ')');
  compile(deep, &rc, &err);
  EXPECT_EQ(rc, -2);
  EXPECT_STREQ(err.message, "yacc stack overflow");
  compile(std::string(200, '!') + "gencfg->major", &rc, &err);
  EXPECT_STREQ(err.message, "yacc stack overflow");
  // Text and program.
  compile(std::string(RTS_FILTER_TEXT_MAX + 1, ' '), &rc, &err);
  EXPECT_STREQ(err.message, "Filter too long");
  std::string many = "gencfg->major == 1";
  for (int i = 0; i < 60; i++) many += " or gencfg->major == 1";
  compile(many, &rc, &err);
  EXPECT_EQ(rc, -2);
  EXPECT_STREQ(err.message, "Filter length exceeds maximum size");
  uint8_t small[40];
  EXPECT_EQ(rts_filter_compile("gencfg->major == 1", 18, small, 24, &err), -2);
  EXPECT_STREQ(err.message, "Insufficient parse buffer size!");
  EXPECT_EQ(rts_filter_compile("gencfg->major == 1", 18, small, 38, &err), -2);
  EXPECT_STREQ(err.message, "Filter length exceeds maximum size");
}

TEST(FilterParse, FilesAndTheirMessages) {
  LogCapture log;
  uint8_t buf[RTS_FILTER_MAX];
  EXPECT_EQ(rts_filter_parse(nullptr, buf, sizeof buf), -3);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "NULL file name"));
  EXPECT_EQ(rts_filter_parse("/nonexistent/filter", buf, sizeof buf), -3);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Failed to open file, errno = 2"));
  char path[] = "/tmp/rtsock_filter_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const char text[] = "((gencfg_t->major == 7))\n";
  ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
  EXPECT_EQ(rts_filter_parse(path, buf, sizeof buf), 0);
  EXPECT_EQ(rts_filter_check(buf, sizeof buf), 24 + 15);
  ASSERT_EQ(ftruncate(fd, 0), 0);
  ASSERT_EQ(pwrite(fd, "gencfg->major ==\n== 2", 21, 0), 21);
  EXPECT_EQ(rts_filter_parse(path, buf, sizeof buf), -1);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "rtslib: ERROR syntax error"));
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, std::string(path) + ":2:1: expected a number"));
  ASSERT_EQ(pwrite(fd, "ifaddr->ifam_local == 1.2.3/8", 29, 0), 29);
  EXPECT_EQ(rts_filter_parse(path, buf, sizeof buf), -2);
  EXPECT_TRUE(log.has(RTSLIB_LOG_ERROR, "Invalid ip prefix"));
  close(fd);
  unlink(path);
}

// ---- What passes ------------------------------------------------------------------------------

int eval(const std::string &text, uint32_t type, const void *record) {
  Bytes p = compile(text);
  EXPECT_FALSE(p.empty()) << text;
  return p.empty() ? -1 : rts_filter_eval(p.data(), type, record);
}

TEST(FilterEval, ComparisonsOnRecords) {
  samples::Store st;
  rts_bd_msg bd = samples::bd(st);  // vnid 100, name "bd-five" (with its NUL), add
  rts_ifa_msg ifa = samples::ifa(st);  // 192.168.1.1/32 on 70
  rts_gencfg_msg g = samples::gencfg(st);
  struct Case {
    const char *text;
    uint32_t type;
    const void *rec;
    int want;
  } cases[] = {
      {"bd->vnid == 100", 89, &bd, 1},       {"bridge_domain->vnid != 100", 89, &bd, 0},
      {"bridge_domain->vnid < 101", 89, &bd, 1}, {"bridge_domain->vnid <= 99", 89, &bd, 0},
      {"bridge_domain->vnid > 99", 89, &bd, 1},  {"bridge_domain->vnid >= 101", 89, &bd, 0},
      {"bridge_domain->cfg_flags & 0x800", 89, &bd, 1}, {"bridge_domain->cfg_flags & 0x400", 89, &bd, 0},
      {"bridge_domain->cfg_flags >= 0x100000000", 89, &bd, 1},
      {"bridge_domain->bdm_name == \"bd-five\"", 89, &bd, 1}, {"bridge_domain->bdm_name == \"bd-fiv\"", 89, &bd, 0},
      {"bridge_domain->bdm_name != \"bd\"", 89, &bd, 1},
      {"bridge_domain->bdm_mac.mac_limit == 1000", 89, &bd, 1},
      {"bridge_domain->operation == 1", 89, &bd, 1}, {"bridge_domain->operation == 3", 89, &bd, 0},
      {"not !bd->vnid == 100", 89, &bd, 1},    {"!!!bd->vnid == 100", 89, &bd, 0},
      {"ifaddr->ifam_local == 192.168.0.0/16", 8, &ifa, 1}, {"ifaddr->ifam_local == 192.168.1.1", 8, &ifa, 1},
      {"ifaddr->ifam_local == 192.168.1.0/25", 8, &ifa, 1}, {"ifaddr->ifam_local == 192.168.1.128/25", 8, &ifa, 0},
      {"ifaddr->ifam_local == 192.168.1.0/23", 8, &ifa, 1}, {"ifaddr->ifam_local != 10.0.0.0/8", 8, &ifa, 1},
      // The destination is a /24: a /25 inside it is not matched.
      {"ifaddr->ifam_dest == 192.168.1.0/25", 8, &ifa, 0}, {"ifaddr->ifam_bcast == 0.0.0.0/0", 8, &ifa, 0},
      {"gencfg->major == 3 && gencfg->blob_key == \"key-1\"", 72, &g, 1},
      // A field of another type is false; a type not named passes.
      {"bridge_domain->vnid == 100 || gencfg->major == 3", 89, &bd, 1},
      {"bridge_domain->vnid == 100 && gencfg->major == 3", 89, &bd, 0},
      {"!gencfg->major", 89, &bd, 1},
      {"gencfg->major == 99", 89, &bd, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(eval(c.text, c.type, c.rec), c.want);
  }
}

// Random expressions over bridge-domain fields, written with the fewest
// brackets that precedence allows and with either spelling of each operator,
// must evaluate on random records as the expression tree does. Seeded.
struct Node {
  int kind;  // 0 compare, 1 and, 2 or, 3 not
  int field, op;
  uint64_t value;
  std::unique_ptr<Node> a, b;
};

const char *const kFields[] = {"vnid", "bdm_index", "rtb_id", "cfg_flags", "operation"};
const char *const kOps[] = {"==", "!=", "<", "<=", ">", ">=", "&"};

uint64_t field_of(const rts_bd_msg &m, int f) {
  switch (f) {
    case 0: return m.vnid;
    case 1: return m.bdm_index;
    case 2: return m.rtb_id;
    case 3: return m.cfg_flags;
    default: return m.hdr.operation;
  }
}

bool truth(const Node &n, const rts_bd_msg &m) {
  switch (n.kind) {
    case 0: {
      uint64_t v = field_of(m, n.field);
      switch (n.op) {
        case 0: return v == n.value;
        case 1: return v != n.value;
        case 2: return v < n.value;
        case 3: return v <= n.value;
        case 4: return v > n.value;
        case 5: return v >= n.value;
        default: return (v & n.value) != 0;
      }
    }
    case 1: return truth(*n.a, m) && truth(*n.b, m);
    case 2: return truth(*n.a, m) || truth(*n.b, m);
    default: return !truth(*n.a, m);
  }
}

std::unique_ptr<Node> grow(std::mt19937 &rng, int depth) {
  auto n = std::make_unique<Node>();
  n->kind = depth == 0 ? 0 : static_cast<int>(rng() % 4);
  if (n->kind == 0) {
    n->field = static_cast<int>(rng() % 5);
    n->op = static_cast<int>(rng() % 7);
    n->value = rng() % 8;
  } else {
    n->a = grow(rng, depth - 1);
    if (n->kind != 3) n->b = grow(rng, depth - 1);
  }
  return n;
}

// Binding: not 3, and 2, or 1, a comparison 4.
int binding(const Node &n) { return n.kind == 0 ? 4 : n.kind == 1 ? 2 : n.kind == 2 ? 1 : 3; }

std::string text_of(const Node &n, std::mt19937 &rng) {
  auto part = [&](const Node &child, int need) {
    std::string t = text_of(child, rng);
    return binding(child) < need ? "(" + t + ")" : t;
  };
  switch (n.kind) {
    case 0:
      return std::string(rng() % 2 ? "bd->" : "bridge_domain.") + kFields[n.field] + " " + kOps[n.op] + " " +
             std::to_string(n.value);
    case 1: return part(*n.a, 2) + (rng() % 2 ? " and " : " && ") + part(*n.b, 2);
    case 2: return part(*n.a, 1) + (rng() % 2 ? " or " : " || ") + part(*n.b, 1);
    default: return (rng() % 2 ? "not " : "!") + part(*n.a, 3);
  }
}

TEST(FilterEval, RandomExpressionsAgreeWithTheirTree) {
  std::mt19937 rng(20261123);
  samples::Store st;
  for (int e = 0; e < 400; e++) {
    std::unique_ptr<Node> tree = grow(rng, 1 + e % 5);
    std::string text = text_of(*tree, rng);
    int rc;
    Bytes p = compile(text, &rc);
    if (rc == -2) continue;  // longer than a program may be
    ASSERT_EQ(rc, 0) << text;
    for (int r = 0; r < 16; r++) {
      rts_bd_msg m = samples::bd(st);
      m.vnid = rng() % 8;
      m.bdm_index = static_cast<uint16_t>(rng() % 8);
      m.rtb_id = static_cast<uint16_t>(rng() % 8);
      m.cfg_flags = rng() % 8;
      m.hdr.operation = static_cast<uint8_t>(rng() % 8);
      ASSERT_EQ(rts_filter_eval(p.data(), RTS_T_BRIDGE_DOMAIN, &m), truth(*tree, m) ? 1 : 0) << text;
    }
  }
}

// ---- Broken programs -----------------------------------------------------------------------------

TEST(FilterCheck, RefusesEveryBrokenProgram) {
  Bytes good = compile("ifaddr->operation != 3 and ifaddr->ifam_local == 10.0.0.0/8 or bd->bdm_name == \"x\"");
  ASSERT_EQ(rts_filter_check(good.data(), good.size()), static_cast<int>(good.size()));
  // Every shorter length, claimed or given, is refused.
  for (size_t n = 0; n < good.size(); n++) {
    Bytes cut(good.begin(), good.begin() + static_cast<long>(n));
    cut.resize(good.size(), 0);
    if (n >= 6) {
      auto l = static_cast<uint16_t>(n);
      memcpy(cut.data() + 4, &l, 2);
    }
    EXPECT_EQ(rts_filter_check(cut.data(), cut.size()), -1) << n;
    EXPECT_EQ(rts_filter_check(good.data(), n), -1) << n;
  }
  auto patched = [&](size_t at, uint8_t v) {
    Bytes b = good;
    b.at(at) = v;
    return rts_filter_check(b.data(), b.size());
  };
  EXPECT_EQ(patched(0, 0), -1);            // magic
  EXPECT_EQ(patched(8 + 1, 0), -1);        // type 8 not in the table of types
  EXPECT_EQ(patched(24, RTS_FI_AND), -1);  // nothing on the stack
  EXPECT_EQ(patched(25, 9), -1);           // operator
  EXPECT_EQ(patched(28, 99), -1);          // tag
  EXPECT_EQ(patched(30, RTS_FV_STRING), -1);  // a string for an integer
  EXPECT_EQ(patched(good.size() - 1, RTS_FI_NOT), -1);  // no end
  EXPECT_EQ(patched(good.size() - 2, RTS_FI_END), -1);  // two truths left
  Bytes b = good;
  b[good.size() - 4] = 200;  // a string claiming more than there is
  EXPECT_EQ(rts_filter_check(b.data(), b.size()), -1);
  EXPECT_EQ(rts_filter_eval(b.data(), 8, nullptr), -1);
}

TEST(FilterRecord, CarriesTheMaskWithItsBitAndTheProgram) {
  Bytes p = compile("gencfg->major == 2");
  uint32_t mask[2] = {0x20, 0x100};
  uint8_t rec[RTS_FILTER_RECORD];
  ASSERT_TRUE(rts_filter_record(p.data(), mask, rec));
  EXPECT_EQ(mask[1], 0x101u);
  uint32_t w[3];
  memcpy(w, rec, 12);
  EXPECT_EQ(w[0], 0x20u);
  EXPECT_EQ(w[1], 0x101u);
  EXPECT_EQ(w[2], 1u);
  EXPECT_EQ(Bytes(rec + 12, rec + 20), Bytes(8, 0));
  EXPECT_EQ(Bytes(rec + 20, rec + 20 + p.size()), p);
  p[0] = 0;
  EXPECT_FALSE(rts_filter_record(p.data(), mask, rec));
}

}  // namespace
