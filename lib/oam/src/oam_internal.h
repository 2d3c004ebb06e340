// What the library's local-socket clients share.
#pragma once

#include <sys/un.h>

// The address of a UNIX stream socket at a logical path, under the path root,
// the path cut at 104 bytes.
void oam_unix_address(const char *logical, struct sockaddr_un *sun);
// Bounds reads and writes on fd to timeout_ms (0: no bound).
void oam_set_timeout(int fd, int timeout_ms);
