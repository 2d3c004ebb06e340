// Logical path to real path, with the process-wide root.
#include "platform/path.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct path_state {
  bool loaded = false;
  std::string root;
  // Cached directory names; rebuilt when the root changes.
  std::string run_dir, log_dir, live_dump;
};

path_state &state() {
  static path_state s;
  return s;
}

void set_root(path_state &s, const char *root) {
  s.root = root ? root : "";
  while (s.root.size() > 1 && s.root.back() == '/') s.root.pop_back();
  if (s.root == "/") s.root.clear();
  s.loaded = true;
  s.run_dir = s.root + "/var/run";
  s.log_dir = s.root + "/var/log";
  s.live_dump = s.root + "/var/tmp";
}

path_state &loaded() {
  path_state &s = state();
  if (!s.loaded) set_root(s, getenv("TAVOX_ROOT"));
  return s;
}

bool is_mfs(const char *p) { return strncmp(p, "/mfs/", 5) == 0 || strcmp(p, "/mfs") == 0; }

bool mfs_exists() {
  static int cached = -1;
  if (cached < 0) {
    struct stat st;
    cached = stat("/mfs", &st) == 0 && S_ISDIR(st.st_mode);
  }
  return cached;
}

const char *prefix_for(const char *logical) {
  path_state &s = loaded();
  if (logical[0] != '/') return "";
  if (!s.root.empty()) return s.root.c_str();
  if (is_mfs(logical) && !mfs_exists()) return "/dev/shm/tavox";
  return "";
}

}  // namespace

const char *tvx_path_root(void) { return loaded().root.c_str(); }

void tvx_path_set_root(const char *root) { set_root(state(), root); }

char *tvx_path(const char *logical, char *buf, size_t len) {
  const char *pre = prefix_for(logical);
  size_t a = strlen(pre), b = strlen(logical);
  if (a + b + 1 > len) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  memcpy(buf, pre, a);
  memcpy(buf + a, logical, b + 1);
  return buf;
}

std::string tvx_path(const char *logical) { return std::string(prefix_for(logical)) + logical; }

int tvx_mkdirs(const char *real_dir, mode_t mode) {
  std::string p(real_dir);
  if (p.empty()) return 0;
  for (size_t i = 1; i <= p.size(); i++) {
    if (i < p.size() && p[i] != '/') continue;
    std::string part = p.substr(0, i);
    if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return errno;
  }
  struct stat st;
  if (stat(p.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

key_t tvx_path_key(key_t base) {
  const std::string &root = loaded().root;
  if (root.empty()) return base;
  // FNV-1a over the root, folded into the key; never IPC_PRIVATE (0).
  uint32_t h = 2166136261u;
  for (unsigned char c : root) h = (h ^ c) * 16777619u;
  key_t k = static_cast<key_t>(static_cast<uint32_t>(base) ^ (h & 0x7fff0000u));
  return k == IPC_PRIVATE ? 1 : k;
}

const char *path_solvane_prefix(void) { return loaded().root.c_str(); }
const char *path_solvane_run_dir(void) { return loaded().run_dir.c_str(); }
const char *path_solvane_log_dir(void) { return loaded().log_dir.c_str(); }
const char *path_solvane_live_dump(void) { return loaded().live_dump.c_str(); }
