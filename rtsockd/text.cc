// Objects as text: one line "KIND field=value ...", read through the layout
// table, so that every field of a record can be given by its name.
#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <sstream>

#include "peer.h"

namespace rtsockd {

namespace {

struct Kind {
  const char *name;
  uint32_t type;
};
constexpr Kind kKinds[] = {{"rttable", RTS_T_RTTABLE}, {"route", RTS_T_ROUTE}, {"ifd", RTS_T_IFDEV},
                           {"ifl", RTS_T_IFLOGICAL},   {"iff", RTS_T_IFFAMILY}, {"ifa", RTS_T_IFADDR},
                           {"bd", RTS_T_BRIDGE_DOMAIN}, {"nh", RTS_T_NEXTHOP}};

const char *const kPrefixes[] = {"bdm_", "rtmm_", "rtm_", "rtbm_", "ifdm_", "iflm_", "iffm_", "ifam_", "nhm_"};

// The name without the record's prefix ("index" for "bdm_index").
const char *short_name(const char *name) {
  for (const char *p : kPrefixes)
    if (strncmp(name, p, strlen(p)) == 0) return name + strlen(p);
  return name;
}

const rts_field *field(const rts_struct *s, const std::string &name) {
  for (unsigned i = 0; i < s->rs_count; i++)
    if (name == s->rs_fields[i].rf_name || name == short_name(s->rs_fields[i].rf_name))
      return &s->rs_fields[i];
  return nullptr;
}

bool number(const std::string &v, uint64_t *out) {
  if (v.empty()) return false;
  errno = 0;
  char *end;
  *out = strtoull(v.c_str(), &end, 0);
  return !errno && *end == 0 && v[0] != '-';
}

bool hex_bytes(const std::string &v, std::vector<uint8_t> *out) {
  out->clear();
  std::string digits;
  for (char ch : v)
    if (ch != ':' && ch != '-') digits += ch;
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    if (!isxdigit(static_cast<unsigned char>(digits[i])) || !isxdigit(static_cast<unsigned char>(digits[i + 1])))
      return false;
    out->push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return true;
}

// "a.b.c.d/n", "v6/n", or hex bytes "00:05:...:55/80" for other families.
bool parse_prefix(int af, const std::string &v, std::vector<uint8_t> *bytes, uint16_t *bits) {
  std::string addr = v, len;
  size_t slash = v.find('/');
  if (slash != std::string::npos) {
    addr = v.substr(0, slash);
    len = v.substr(slash + 1);
  }
  uint8_t buf[16];
  if (af == RTS_AF_INET || af == RTS_AF_INET6) {
    bool v4 = af == RTS_AF_INET;
    if (inet_pton(v4 ? AF_INET : AF_INET6, addr.c_str(), buf) != 1) return false;
    bytes->assign(buf, buf + (v4 ? 4 : 16));
  } else if (!hex_bytes(addr, bytes) || bytes->empty() || bytes->size() > 64) {
    return false;
  }
  uint64_t b = bytes->size() * 8;
  if (!len.empty() && (!number(len, &b) || b > bytes->size() * 8)) return false;
  *bits = static_cast<uint16_t>(b);
  bytes->resize(((b + 31) / 8) & ~size_t{3}, 0);
  return true;
}

struct Builder {
  std::vector<uint8_t> rec;
  std::vector<std::vector<uint8_t>> keep;  // blobs and prefixes until the clone
  struct Pending {
    uint8_t *base;
    const rts_field *f;
    std::string value;
  };
  std::vector<Pending> prefixes;
  int af = 0;

  bool set(const rts_struct *s, uint8_t *base, const std::string &path, const std::string &value,
           std::string *error) {
    size_t dot = path.find('.');
    const rts_field *f = field(s, path.substr(0, dot));
    if (!f) {
      *error = "unknown field " + path;
      return false;
    }
    if (dot != std::string::npos) {
      if (f->rf_kind != RK_NESTED) {
        *error = path.substr(0, dot) + " has no fields";
        return false;
      }
      return set(f->rf_nested, base + f->rf_off, path.substr(dot + 1), value, error);
    }
    uint64_t x;
    std::vector<uint8_t> bytes;
    switch (f->rf_kind) {
      case RK_U8:
      case RK_U16:
      case RK_U32:
      case RK_U64:
        if (!number(value, &x) || (f->rf_width < 8 && x >> (8 * f->rf_width))) {
          *error = "bad number for " + path + ": " + value;
          return false;
        }
        memcpy(base + f->rf_off, &x, f->rf_width);  // little-endian host
        if (strcmp(short_name(f->rf_name), "af") == 0) af = static_cast<int>(x);
        return true;
      case RK_FIXED:
        if (value.find_first_of(":-") != std::string::npos) {
          if (!hex_bytes(value, &bytes) || bytes.size() != f->rf_width) {
            *error = "bad bytes for " + path + ": " + value;
            return false;
          }
          memcpy(base + f->rf_off, bytes.data(), f->rf_width);
          return true;
        }
        if (!number(value, &x) || (f->rf_width < 8 && x >> (8 * f->rf_width))) {
          *error = "bad value for " + path + ": " + value;
          return false;
        }
        memcpy(base + f->rf_off, &x, f->rf_width < 8 ? f->rf_width : 8);
        return true;
      case RK_BLOB: {
        keep.emplace_back(value.begin(), value.end());
        keep.back().push_back(0);
        uint8_t *p = keep.back().data();
        uint32_t n = static_cast<uint32_t>(keep.back().size());
        memcpy(base + f->rf_off, &p, sizeof p);
        memcpy(base + f->rf_off2, &n, 4);
        return true;
      }
      case RK_PREFIX:
        prefixes.push_back({base, f, value});
        return true;
      default:
        *error = "field " + path + " cannot be given as text";
        return false;
    }
  }

  bool finish(std::string *error) {
    for (const Pending &p : prefixes) {
      std::vector<uint8_t> bytes;
      uint16_t bits;
      if (!parse_prefix(af, p.value, &bytes, &bits)) {
        *error = "bad prefix for " + std::string(p.f->rf_name) + ": " + p.value;
        return false;
      }
      keep.push_back(bytes);
      uint8_t *ptr = keep.back().data();
      uint16_t plen = static_cast<uint16_t>(bytes.size());
      memcpy(p.base + p.f->rf_off, &ptr, sizeof ptr);
      memcpy(p.base + p.f->rf_off2, &bits, 2);
      memcpy(p.base + p.f->rf_off2 + 2, &plen, 2);
    }
    return true;
  }
};

std::string hexs(const uint8_t *p, size_t n) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < n; i++) {
    snprintf(b, sizeof b, i ? ":%02x" : "%02x", p[i]);
    s += b;
  }
  return s;
}

void print_fields(std::ostringstream &o, const rts_struct *s, const uint8_t *rec, const std::string &path,
                  int af) {
  for (unsigned i = 0; i < s->rs_count; i++) {
    const rts_field &f = s->rs_fields[i];
    std::string name = path + short_name(f.rf_name);
    switch (f.rf_kind) {
      case RK_U8:
      case RK_U16:
      case RK_U32:
      case RK_U64: {
        uint64_t x = 0;
        memcpy(&x, rec + f.rf_off, f.rf_width);
        if (x) o << ' ' << name << '=' << x;
        break;
      }
      case RK_FIXED: {
        bool zero = true;
        for (unsigned k = 0; k < f.rf_width; k++) zero = zero && !rec[f.rf_off + k];
        if (!zero) o << ' ' << name << '=' << hexs(rec + f.rf_off, f.rf_width);
        break;
      }
      case RK_BLOB: {
        const char *p;
        uint32_t n;
        memcpy(&p, rec + f.rf_off, sizeof p);
        memcpy(&n, rec + f.rf_off2, 4);
        if (p && n && p[0]) o << ' ' << name << '=' << p;
        break;
      }
      case RK_PREFIX: {
        const uint8_t *p;
        uint16_t bits, plen;
        memcpy(&p, rec + f.rf_off, sizeof p);
        memcpy(&bits, rec + f.rf_off2, 2);
        memcpy(&plen, rec + f.rf_off2 + 2, 2);
        if (!p) break;
        char text[INET6_ADDRSTRLEN];
        uint8_t a[16] = {};
        memcpy(a, p, plen < 16 ? plen : 16);
        o << ' ' << name << '=';
        if (af == RTS_AF_INET) o << inet_ntop(AF_INET, a, text, sizeof text);
        else if (af == RTS_AF_INET6) o << inet_ntop(AF_INET6, a, text, sizeof text);
        else o << hexs(p, (bits + 7u) / 8);
        o << '/' << bits;
        break;
      }
      case RK_NESTED:
        if (f.rf_nested != &rts_hdr_struct) print_fields(o, f.rf_nested, rec + f.rf_off, name + ".", af);
        break;
      default:
        break;
    }
  }
}

}  // namespace

const char *kind_name(uint32_t type) {
  for (const Kind &k : kKinds)
    if (k.type == type) return k.name;
  return nullptr;
}

bool parse_object(const std::string &line, uint32_t *type, std::unique_ptr<Object> *out,
                  std::string *error) {
  std::istringstream in(line);
  std::string kind, word;
  in >> kind;
  bool mac = kind == "mac";
  *type = mac ? RTS_T_ROUTE : 0;
  for (const Kind &k : kKinds)
    if (kind == k.name) *type = k.type;
  if (!*type) {
    *error = "unknown kind " + kind;
    return false;
  }
  const rts_struct *s = rts_type_struct(*type);
  Builder b;
  b.rec.assign(s->rs_record, 0);
  uint64_t bd = 0;
  std::vector<uint8_t> addr;
  while (in >> word) {
    size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = "expected field=value, got " + word;
      return false;
    }
    std::string k = word.substr(0, eq), v = word.substr(eq + 1);
    // A bridge MAC route: "mac rtb=T bd=B addr=MAC" and any route field.
    if (mac && k == "rtb") k = "table";
    if (mac && k == "bd") {
      if (!number(v, &bd) || bd > 0xFFFF) {
        *error = "bad bridge domain " + v;
        return false;
      }
      continue;
    }
    if (mac && k == "addr") {
      if (!hex_bytes(v, &addr) || addr.size() != 6) {
        *error = "bad MAC address " + v;
        return false;
      }
      continue;
    }
    if (!b.set(s, b.rec.data(), k, v, error)) return false;
  }
  if (mac) {
    if (addr.empty()) {
      *error = "mac needs addr=";
      return false;
    }
    auto *rt = reinterpret_cast<rts_rt_msg *>(b.rec.data());
    rt->rtm_af = RTS_AF_BRIDGE;
    if (!rt->rtm_type) rt->rtm_type = 2;
    char key[64];
    snprintf(key, sizeof key, "%02x:%02x:00:00:%s/80", static_cast<unsigned>(bd >> 8),
             static_cast<unsigned>(bd & 0xff), hexs(addr.data(), 6).c_str());
    b.af = RTS_AF_BRIDGE;
    b.prefixes.push_back({b.rec.data(), rts_field_by_tag(s, 8), key});
  }
  if (!b.finish(error)) return false;
  auto *h = reinterpret_cast<rts_msg_hdr *>(b.rec.data());
  h->version = rts_type_table[*type].version;
  h->type = static_cast<uint8_t>(*type);
  h->size = rts_type_table[*type].size;
  h->length = rts_type_table[*type].size;
  *out = clone(*type, b.rec.data());
  if (!*out) {
    *error = "record does not encode";
    return false;
  }
  return true;
}

std::string print_object(uint32_t type, const void *record) {
  const rts_struct *s = rts_type_struct(type);
  const char *k = kind_name(type);
  if (!s || !k) return "";
  std::ostringstream o;
  o << k;
  int af = 0;
  for (unsigned i = 0; i < s->rs_count; i++)
    if (strcmp(short_name(s->rs_fields[i].rf_name), "af") == 0)
      af = static_cast<const uint8_t *>(record)[s->rs_fields[i].rf_off];
  print_fields(o, s, static_cast<const uint8_t *>(record), "", af);
  return o.str();
}

}  // namespace rtsockd
