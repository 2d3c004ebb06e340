// tvxinfo: what the platform layer makes of this machine and this root.
//
//   tvxinfo path LOGICAL...   real path of each logical path under TAVOX_ROOT
//   tvxinfo sysctl [KEY...]   values of the sysctl table (all keys by default)
//   tvxinfo version           the build's version banner
//   tvxinfo addr FAMILY TEXT...  an address of any family, parsed and printed
//   tvxinfo families          the address family table
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "platform/path.h"
#include "platform/sysctl.h"
#include "platform/version.h"
#include "sockaddr/routing.h"

namespace {

const char *all_keys[] = {"kern.smp.cpus",       "hw.512bmem",          "hw.512binstalledmem",
                          "hw.chassis.macaddrs", "hw.product.system_mac_base", "kern.gencfg_cfg2_peermask",
                          "debug.enable_kbt",    "hw.re.tvx_rebooting"};

const char kUsage[] =
    "usage: tvxinfo path LOGICAL...\n"
    "       tvxinfo sysctl [KEY...]\n"
    "       tvxinfo version\n"
    "       tvxinfo addr FAMILY TEXT...\n"
    "       tvxinfo families\n";

int usage() {
  fputs(kUsage, stderr);
  return 2;
}

int help() {
  fputs(kUsage, stdout);
  fputs("\n"
        "path      the real path of each logical path under TAVOX_ROOT\n"
        "sysctl    values of the sysctl table (all keys when none is named)\n"
        "version   the build's version banner\n"
        "addr      parses each TEXT as an address of FAMILY (a name from 'tvxinfo families',\n"
        "          short or long, or an index) and prints it back, with its prefix length,\n"
        "          index, length and bytes\n"
        "families  index, kind, offset, maximum size, masks and names of every family\n"
        "\n"
        "Exit status: 0 done, 1 a key without value or a text that does not parse, 2 usage.\n",
        stdout);
  return 0;
}

void families_start() {
  static zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 8192, &h);
  zsock_register_every_family();
}

int show_addr(const char *family, char **texts, int n) {
  families_start();
  int gf = zsock_family_lookup(family);
  if (gf < 0) {
    fprintf(stderr, "tvxinfo: unknown address family: %s\n", family);
    return 2;
  }
  static uint8_t buf[ZSOCK_LONG_MAX + 1];
  static char text[16384];
  auto *a = reinterpret_cast<zsockaddr_t *>(buf);
  int rc = 0;
  for (int i = 0; i < n; i++) {
    int plen = -1;
    if (!sockparse_prefix(gf, texts[i], sizeof buf, a, &plen)) {
      fprintf(stderr, "tvxinfo: %s: not an address of family %s\n", texts[i], family);
      rc = 1;
      continue;
    }
    sockprint(text, sizeof text, a, 0);
    printf("%s", text);
    if (plen >= 0) printf("/%d", plen);
    printf("  family %s index %d, %u bytes:", zsock_family_row(gf)->gf_name, gf, socklen(a));
    for (unsigned k = 0; k < socklen(a); k++) printf(" %02x", buf[k]);
    printf("\n");
  }
  return rc;
}

int show_families() {
  families_start();
  printf("%-5s %-5s %-6s %-5s %-6s %-14s %s\n", "index", "kind", "offset", "max", "masks", "short", "name");
  const zsock_family *u = zsock_family_row(GF_UNSPEC);
  printf("%-5u %-5u %-6u %-5u %-6u %-14s %s\n", 0u, unsigned{u->gf_kind}, unsigned{u->gf_offset},
         unsigned{u->gf_max_size}, 0u, "unspec", u->gf_name);
  for (unsigned i = 0; zsock_table_rows[i].name; i++) {
    const zsock_table_row &t = zsock_table_rows[i];
    const zsock_family *r = zsock_family_row(zsock_table_daemon_gf(i));
    printf("%-5u %-5u %-6u %-5u %-6u %-14s %s\n", zsock_table_daemon_gf(i), t.kind, t.offset, t.max_size,
           r ? r->gf_masks.mt_count : 0, t.short_name, t.name);
  }
  return 0;
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
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) return help();
  if (strcmp(argv[1], "addr") == 0) {
    if (argc < 4) return usage();
    return show_addr(argv[2], argv + 3, argc - 3);
  }
  if (strcmp(argv[1], "families") == 0) return argc == 2 ? show_families() : usage();
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
