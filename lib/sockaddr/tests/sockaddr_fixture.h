// Test fixture: the address library over hooks that check every free against
// the class and size its allocation was made with.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sockaddr/families.h"

namespace sockaddr_test {

struct Ledger {
  std::map<void *, std::pair<unsigned, size_t>> live;
  int bad_frees = 0;
  std::vector<std::pair<unsigned, unsigned>> printf_exts;  // gf, code
  std::string letters;
  zsock_render_fn render[26] = {};
};
inline Ledger ledger;

inline void *t_alloc(unsigned cls, size_t size) {
  void *p = malloc(size);
  ledger.live[p] = {cls, size};
  return p;
}
inline void t_free_sized(void *p, unsigned cls, size_t size) {
  auto it = ledger.live.find(p);
  if (it == ledger.live.end() || it->second != std::make_pair(cls, size))
    ledger.bad_frees++;
  else
    ledger.live.erase(it);
  free(p);
}
inline void t_printf_ext(unsigned gf, zsock_printer_fn, unsigned code, unsigned) {
  ledger.printf_exts.push_back({gf, code});
}
inline void t_register_ext(int letter, zsock_render_fn render, unsigned, unsigned, unsigned, unsigned) {
  ledger.letters += static_cast<char>(letter);
  ledger.render[letter - 'a'] = render;
}

class Sockaddr : public ::testing::Test {
 protected:
  static constexpr size_t kRing = 4096;
  void SetUp() override {
    ledger = Ledger{};
    zsock_hooks h{};
    h.alloc = t_alloc;
    h.free_sized = t_free_sized;
    h.printf_ext = t_printf_ext;
    h.register_ext = t_register_ext;
    zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, kRing, &h);
    zsock_register_inet(GF_INET);
    zsock_register_inet6(GF_INET6);
    zsock_register_unix(GF_UNIX);
    zsock_register_i802(GF_I802);
  }
  void TearDown() override {
    zsock_shutdown();
    EXPECT_EQ(ledger.bad_frees, 0);
    EXPECT_TRUE(ledger.live.empty()) << ledger.live.size() << " blocks not freed";
  }

  static std::string text(const zsockaddr_t *a, int alt = 0, size_t size = 128) {
    std::vector<char> buf(size + 1, '#');
    int n = sockprint(buf.data(), size, a, alt);
    EXPECT_EQ(static_cast<size_t>(n), strlen(buf.data()));
    return buf.data();
  }
  static zsockaddr_t *inet(const char *s, uint16_t port = 0) {
    zsockaddr_t *a = sockbuild(GF_INET, SOCKADDR_IN_LEN);
    EXPECT_TRUE(sockparse(GF_INET, s, SOCKADDR_IN_LEN, a)) << s;
    setsockport(a, htons(port));
    return a;
  }
};

}  // namespace sockaddr_test
