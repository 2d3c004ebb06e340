// strlcpy, strlcat and reallocf for glibc.
#include "platform/compat.h"

#include <cstdlib>
#include <cstring>

extern "C" {

size_t strlcpy(char *dst, const char *src, size_t size) {
  size_t n = strlen(src);
  if (size) {
    size_t c = n < size - 1 ? n : size - 1;
    memcpy(dst, src, c);
    dst[c] = '\0';
  }
  return n;
}

size_t strlcat(char *dst, const char *src, size_t size) {
  size_t d = strnlen(dst, size);
  if (d == size) return size + strlen(src);
  return d + strlcpy(dst + d, src, size - d);
}

__attribute__((weak)) void *reallocf(void *ptr, size_t size) {
  void *p = realloc(ptr, size);
  if (!p && size) free(ptr);
  return p;
}
}
