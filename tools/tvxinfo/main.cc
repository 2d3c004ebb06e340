// tvxinfo: what the platform layer makes of this machine and this root.
//
//   tvxinfo path LOGICAL...   real path of each logical path under TAVOX_ROOT
//   tvxinfo sysctl [KEY...]   values of the sysctl table (all keys by default)
//   tvxinfo version           the build's version banner
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "platform/path.h"
#include "platform/sysctl.h"
#include "platform/version.h"

namespace {

const char *all_keys[] = {"kern.smp.cpus",       "hw.512bmem",          "hw.512binstalledmem",
                          "hw.chassis.macaddrs", "hw.product.system_mac_base", "kern.gencfg_cfg2_peermask",
                          "debug.enable_kbt",    "hw.re.tvx_rebooting"};

int usage() {
  fprintf(stderr,
          "usage: tvxinfo path LOGICAL...\n"
          "       tvxinfo sysctl [KEY...]\n"
          "       tvxinfo version\n");
  return 2;
}

int show_key(const char *key) {
  unsigned char buf[8];
  size_t len = sizeof buf;
  if (sysctlbyname(key, buf, &len, nullptr, 0) != 0) {
    fprintf(stderr, "tvxinfo: %s: %s\n", key, strerror(errno));
    return 1;
  }
  if (len == 6) {
    printf("%s: %02x:%02x:%02x:%02x:%02x:%02x\n", key, buf[0], buf[1], buf[2], buf[3], buf[4], buf[5]);
  } else {
    uint64_t v = 0;
    memcpy(&v, buf, len);
    printf("%s: %" PRIu64 "\n", key, v);
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  if (strcmp(argv[1], "path") == 0) {
    if (argc < 3) return usage();
    for (int i = 2; i < argc; i++) printf("%s\n", tvx_path(argv[i]).c_str());
    return 0;
  }
  if (strcmp(argv[1], "sysctl") == 0) {
    int rc = 0;
    if (argc == 2)
      for (const char *k : all_keys) rc |= show_key(k);
    for (int i = 2; i < argc; i++) rc |= show_key(argv[i]);
    return rc;
  }
  if (strcmp(argv[1], "version") == 0) {
    show_daemon_version(stdout, 2, 0);
    return 0;
  }
  return usage();
}
