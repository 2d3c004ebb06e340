// Address text on any bytes, for every family of the table (routing,
// composite and flow families included): the parse
// writes no byte past the room it is given, and fits exactly in the bytes
// sockparse_len says it needs; what parses prints, and the printed text
// (with the prefix length put back) parses to the same address and length;
// cut to its prefix length, it keeps that prefix and no bit past it.
// The family-name table is looked up with the same text.
//
// Input: one byte of room for the parse (0 to 255), then the text (up to a
// NUL byte).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vector>

#include "sockaddr/routing.h"

namespace {

std::vector<unsigned> families;

bool same(const zsockaddr_t *a, const zsockaddr_t *b) {
  return socklen(a) == socklen(b) && memcmp(a, b, socklen(a)) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  static zsock_hooks h = zsock_hooks_libc();
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 8192, &h);
  zsock_register_every_family();
  for (unsigned gf = 0; gf < zsock_gf_max(); gf++)
    if (zsock_family_row(gf)) families.push_back(gf);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  size_t room = data[0];
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  text.resize(strlen(text.c_str()));
  const char *t = text.c_str();
  sockfamily_by_name(t);

  for (unsigned gf : families) {
    // Exactly the room given, so that a byte written past it is caught.
    auto *a = static_cast<zsockaddr_t *>(malloc(room ? room : 1));
    int plen = -2;
    bool ok = sockparse_prefix(gf, t, room, a, &plen);
    int need = sockparse_len(gf, t);
    if (ok) {
      if (need < 0 || socklen(a) > room || socklen(a) != static_cast<unsigned>(need) || socktype(a) != gf ||
          plen < -1)
        abort();
    }
    free(a);
    if (need < 0) continue;
    if (need > 255 && gf != 14 && gf != 15 && gf != 32 && gf != 33) abort();

    // The bytes it says it needs suffice, and one fewer does not.
    a = static_cast<zsockaddr_t *>(malloc(need));
    if (!sockparse_prefix(gf, t, need, a, &plen)) abort();
    if (need > 0) {
      auto *b = static_cast<zsockaddr_t *>(malloc(need));
      int p2;
      if (sockparse_prefix(gf, t, need - 1, b, &p2)) abort();
      free(b);
    }

    // Printed, with the prefix length put back, it parses to the same.
    static char printed[16384];
    int n = sockprint(printed, sizeof printed, a, 0);
    if (n < 0 || static_cast<size_t>(n) >= sizeof printed || printed[n] != '\0') abort();
    std::string again = printed;
    if (plen >= 0) again += "/" + std::to_string(plen);
    alignas(8) static uint8_t back_buf[ZSOCK_LONG_MAX + 1];
    auto *back = reinterpret_cast<zsockaddr_t *>(back_buf);
    int back_plen = -2;
    if (!sockparse_prefix(gf, again.c_str(), sizeof back_buf, back, &back_plen) || !same(a, back) ||
        back_plen != plen) {
      fprintf(stderr, "family %u: \"%s\" printed as \"%s\", which does not parse back the same\n", gf, t,
              again.c_str());
      abort();
    }
    // Cut to its prefix length, it keeps that prefix and nothing past it.
    if (plen >= 0) {
      alignas(8) uint8_t cut_buf[ZSOCK_LONG_MAX + 1];
      memcpy(cut_buf, a, socklen(a));
      auto *c = reinterpret_cast<zsockaddr_t *>(cut_buf);
      sockcutlen(c, plen);
      if (!sockprefixeq(a, c, plen) || sockbeyondlen(c, plen) || sockaddrcmp(c, a) > 0) abort();
    }
    // The alternative form prints too, into any room.
    for (size_t small : {size_t{1}, size_t{5}, size_t{17}}) {
      char cut[32];
      int k = sockprint(cut, small, a, 1);
      if (k < 0 || static_cast<size_t>(k) >= small || cut[k] != '\0') abort();
    }
    free(a);
  }
  return 0;
}
