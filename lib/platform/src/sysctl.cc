// The table behind sysctlbyname.
#include "platform/sysctl.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <array>
#include <set>
#include <string>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

using mac_t = std::array<uint8_t, 6>;

enum class kind { number, mac };

struct value {
  bool ok = false;
  uint64_t num = 0;
  mac_t mac{};
};

bool parse_mac(const char *s, mac_t &out) {
  unsigned b[6];
  char tail;
  if (sscanf(s, "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) != 6)
    return false;
  for (int i = 0; i < 6; i++) out[i] = static_cast<uint8_t>(b[i]);
  return true;
}

bool parse_number(const char *s, uint64_t &out) {
  if (!*s || *s == '-') return false;
  char *end;
  errno = 0;
  unsigned long long v = strtoull(s, &end, 0);
  if (errno || *end) return false;
  out = v;
  return true;
}

std::set<mac_t> interface_macs() {
  std::set<mac_t> macs;
  DIR *d = opendir("/sys/class/net");
  if (!d) return macs;
  while (struct dirent *e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string p = std::string("/sys/class/net/") + e->d_name + "/address";
    FILE *f = fopen(p.c_str(), "re");
    if (!f) continue;
    char line[64] = {};
    mac_t m;
    if (fgets(line, sizeof line, f)) {
      line[strcspn(line, "\n")] = 0;
      if (parse_mac(line, m) && m != mac_t{}) macs.insert(m);
    }
    fclose(f);
  }
  closedir(d);
  return macs;
}

value memory_512b() {
  struct sysinfo si;
  if (sysinfo(&si) != 0) return {};
  return {true, static_cast<uint64_t>(si.totalram) * si.mem_unit / 512, {}};
}

int32_t kbt_enabled = 0;

struct entry {
  const char *name;
  kind k;
  int32_t *store;  // writable keys keep their value here; null: read-only
  value (*read)();
};

const entry table[] = {
    {"kern.smp.cpus", kind::number, nullptr,
     [] { return value{true, static_cast<uint64_t>(sysconf(_SC_NPROCESSORS_ONLN)), {}}; }},
    {"hw.512bmem", kind::number, nullptr, memory_512b},
    {"hw.512binstalledmem", kind::number, nullptr, memory_512b},
    {"hw.chassis.macaddrs", kind::number, nullptr,
     [] { return value{true, interface_macs().size(), {}}; }},
    {"hw.product.system_mac_base", kind::mac, nullptr,
     [] {
       auto macs = interface_macs();
       return macs.empty() ? value{} : value{true, 0, *macs.begin()};
     }},
    {"kern.gencfg_cfg2_peermask", kind::number, nullptr, [] { return value{true, 240, {}}; }},
    {"debug.enable_kbt", kind::number, &kbt_enabled,
     [] { return value{true, static_cast<uint64_t>(static_cast<uint32_t>(kbt_enabled)), {}}; }},
    {"hw.re.tvx_rebooting", kind::number, nullptr, [] { return value{true, 0, {}}; }},
};

const entry *find(const char *name) {
  for (const entry &e : table)
    if (strcmp(e.name, name) == 0) return &e;
  return nullptr;
}

std::string env_name(const char *key) {
  std::string s = "TVX_SYSCTL_";
  for (const char *p = key; *p; p++) s += *p == '.' ? '_' : static_cast<char>(toupper(*p));
  return s;
}

// The override from the environment, else the table's own value. A malformed
// override is an error (EINVAL): a test that set one must not get the real value.
value read_value(const entry &e, int *err) {
  if (const char *ov = getenv(env_name(e.name).c_str())) {
    value v;
    v.ok = e.k == kind::mac ? parse_mac(ov, v.mac) : parse_number(ov, v.num);
    if (!v.ok) *err = EINVAL;
    return v;
  }
  value v = e.read();
  if (!v.ok) *err = ENOENT;
  return v;
}

int fail(int err) {
  errno = err;
  return -1;
}

}  // namespace

int sysctlbyname(const char *name, void *oldp, size_t *oldlenp, const void *newp, size_t newlen) {
  const entry *e = name ? find(name) : nullptr;
  if (!e) return fail(ENOENT);
  if (newp && !e->store) return fail(EPERM);

  if (oldlenp) {
    int err = 0;
    value v = read_value(*e, &err);
    if (!v.ok) return fail(err);
    size_t need;
    if (e->k == kind::mac)
      need = 6;
    else
      need = (v.num > UINT32_MAX || (oldp && *oldlenp == 8)) ? 8 : 4;
    if (!oldp) {
      *oldlenp = need;
    } else {
      if (*oldlenp < need) {
        *oldlenp = need;
        return fail(ENOMEM);
      }
      if (e->k == kind::mac) {
        memcpy(oldp, v.mac.data(), 6);
      } else if (need == 8) {
        memcpy(oldp, &v.num, 8);
      } else {
        uint32_t n = static_cast<uint32_t>(v.num);
        memcpy(oldp, &n, 4);
      }
      *oldlenp = need;
    }
  }

  if (newp) {
    if (newlen != sizeof(int32_t)) return fail(EINVAL);
    memcpy(e->store, newp, sizeof(int32_t));
  }
  return 0;
}
