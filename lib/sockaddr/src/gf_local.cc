// The UNIX family (a socket path), the I802 family (a MAC address), and the
// family names the daemon knows.
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "sockaddr/families.h"
#include "zsock_internal.h"
#include "zsock_rows.h"
#include "zsock_text.h"

using namespace zsock;

unsigned gf_unix = GF_UNSPEC;
static unsigned gf_str = GF_UNSPEC;
unsigned gf_i802 = GF_UNSPEC;

extern "C" const zsock_family_name zsock_daemon_family_names[] = {
    {GF_INET, "INET"}, {GF_INET6, "INET6"}, {GF_UNIX, "UNIX"}, {GF_STRING, "STRING"}, {GF_I802, "I802"}, {0, nullptr},
};

namespace {

inline const char *path_of(const zsockaddr_t *a) { return reinterpret_cast<const char *>(a->zs_data); }

// A UNIX address holds the path without a terminator: its length says where
// the path ends.
int unix_print(char *text, size_t size, const zsockaddr_t *a, int) {
  // A length under the header's two bytes is a damaged address: an empty path.
  const size_t len = socklen(a);
  return put_text(text, size, path_of(a), len > 2 ? len - 2 : 0);
}

bool unix_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  size_t n = strlen(text);
  if (n == 0 || n + 2 > 255 || n + 2 > size || n >= sizeof(sockaddr_un::sun_path)) return false;
  socksetlen(buf, gf_unix, n + 2);
  memcpy(buf->zs_data, text, n);
  *result_len = -1;
  return true;
}

int unix_to_native(const zsockaddr_t *a, void *target) {
  auto *sun = static_cast<struct sockaddr_un *>(target);
  memset(sun, 0, sizeof *sun);
  sun->sun_family = AF_UNIX;
  size_t n = std::min<size_t>(socklen(a) - 2, sizeof sun->sun_path - 1);
  memcpy(sun->sun_path, path_of(a), n);
  // An abstract name (leading zero byte) is exactly its bytes: a terminator
  // would name a different socket.
  bool abstract = n > 0 && sun->sun_path[0] == '\0';
  return static_cast<int>(offsetof(struct sockaddr_un, sun_path) + n + (abstract ? 0 : 1));
}

void unix_init(zsock_ops *ops) {
  ops->printer = unix_print;
  ops->parse = unix_parse;
  ops->sock2unix = unix_to_native;
}

// A string address: text without a terminator, as a UNIX path is held.
bool str_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  size_t n = strlen(text);
  if (n + 2 > 255 || n + 2 > size) return false;
  socksetlen(buf, gf_str, n + 2);
  memcpy(buf->zs_data, text, n);
  *result_len = -1;
  return true;
}

void str_init(zsock_ops *ops) {
  ops->printer = unix_print;
  ops->parse = str_parse;
}

int i802_print(char *text, size_t size, const zsockaddr_t *a, int) {
  static constexpr char hex[] = "0123456789abcdef";
  char buf[18];
  uint8_t mac[6] = {};
  memcpy(mac, a->zs_data, std::min(socklen(a) - 2, 6u));
  for (int i = 0; i < 6; i++) {
    buf[3 * i] = hex[mac[i] >> 4];
    buf[3 * i + 1] = hex[mac[i] & 15];
    buf[3 * i + 2] = ':';
  }
  return put_text(text, size, buf, 17);
}

bool i802_parse(const char *text, zsockaddr_t *buf, size_t size, int *result_len) {
  unsigned m[6];
  int end = 0;
  if (size < SOCKADDR_I802_LEN ||
      sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%n", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5], &end) != 6 ||
      text[end] != 0 || end != 17)
    return false;
  socksetlen(buf, gf_i802, SOCKADDR_I802_LEN);
  for (int i = 0; i < 6; i++) buf->zs_data[i] = static_cast<uint8_t>(m[i]);
  *result_len = -1;
  return true;
}

int i802_hostmasklen(unsigned) { return 48; }

void i802_init(zsock_ops *ops) {
  ops->printer = i802_print;
  ops->parse = i802_parse;
  ops->sockhostmasklen = i802_hostmasklen;
}

}  // namespace

namespace zsock {

void register_str(unsigned gf, unsigned kind, const char *name) {
  gf_str = gf;
  zsock_init_family(kind, gf, 2, 0, nullptr, 0, name, str_init);
}

}  // namespace zsock

extern "C" {

void zsock_register_unix(unsigned gf) {
  gf_unix = gf;
  zsock_init_family(1, gf, 2, 0, nullptr, 0, "UNIX", unix_init);
}

void zsock_register_i802(unsigned gf) {
  gf_i802 = gf;
  zsock_init_family(161, gf, 2, SOCKADDR_I802_LEN, nullptr, 0, "I802", i802_init);
}

zsockaddr_t *sockcreate_unix(const char *path) {
  ZSOCK_ASSERT(gf_unix != GF_UNSPEC);
  size_t n = strlen(path);
  ZSOCK_ASSERT(n + 2 <= 255);
  zsockaddr_t *a = sockalloc(gf_unix, n + 2);
  memcpy(a->zs_data, path, n);
  return a;
}

zsockaddr_t *sockbuild_i802(const uint8_t mac[6]) {
  ZSOCK_ASSERT(gf_i802 != GF_UNSPEC);
  zsockaddr_t *a = sockbuild(gf_i802, SOCKADDR_I802_LEN);
  memcpy(a->zs_data, mac, 6);
  return a;
}

}  // extern "C"
