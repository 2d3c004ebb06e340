// The line exchange of the local sockets: text with its NUL terminator.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oam/oam.h"

int ping_write_line(int fd, const char *text) {
  size_t left = strlen(text) + 1;
  while (left > 0) {
    ssize_t n = write(fd, text, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text += n;
    left -= static_cast<size_t>(n);
  }
  return 1;
}

int ping_read_line(int fd, char *buffer, size_t size) {
  if (size == 0) return 0;
  memset(buffer, 0, size);
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd, buffer + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
    if (buffer[got - 1] == '\0') break;
  }
  if (got == size) buffer[size - 1] = '\0';
  return got > 0;
}

void ping_exit(int status, const char *fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  fputs(buf, stdout);
  fflush(stdout);
  exit(status);
}
