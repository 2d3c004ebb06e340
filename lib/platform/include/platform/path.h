// Logical paths. The framework names its files by the platform's literal paths
// ("/var/run/x.pid", "/mfs/var/mmdb/..."); every such path passes through
// tvx_path, which puts the process-wide root in front. The root comes from the
// environment variable TAVOX_ROOT (empty in production) and tests may set it.
//
// Shared-memory paths ("/mfs/...") go under the root when one is set; without a
// root they stay under "/mfs" when the machine has it, else under
// "/dev/shm/tavox".
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

// The root in force: TAVOX_ROOT as read at first use, or what was set since.
const char *tvx_path_root(void);

// Replaces the root (a null or empty root means none). Trailing slashes are dropped.
void tvx_path_set_root(const char *root);

// Writes the real path of `logical` into buf. Returns buf, or nullptr when it
// does not fit (errno ENAMETOOLONG). A relative path is returned unchanged.
char *tvx_path(const char *logical, char *buf, size_t len);

// The same as a string.
std::string tvx_path(const char *logical);

// Creates the directory of a real path and its parents with the given mode.
// Returns 0 or an errno value.
int tvx_mkdirs(const char *real_dir, mode_t mode);

// SysV IPC key for a logical key: the key itself without a root, else a key
// derived from the root, so that processes under different roots never meet.
key_t tvx_path_key(key_t base);

// The platform's directory names, already under the root.
const char *path_solvane_prefix(void);     // the root itself ("" without one)
const char *path_solvane_run_dir(void);    // "/var/run"
const char *path_solvane_log_dir(void);    // "/var/log"
const char *path_solvane_live_dump(void);  // "/var/tmp", where live cores go
