// What glibc 2.36 lacks and the framework uses: bounded copies and reallocf.
#pragma once

#include <cstddef>

extern "C" {
// Copies at most size-1 bytes and always terminates (when size > 0).
// Returns strlen(src), so that a result >= size means truncation.
size_t strlcpy(char *dst, const char *src, size_t size);
// Appends within size bytes in all; returns the length it tried to make.
size_t strlcat(char *dst, const char *src, size_t size);
// realloc that frees the old block when it fails. The memory front door
// defines its own; this one is weak and steps aside for it.
void *reallocf(void *ptr, size_t size);
}
