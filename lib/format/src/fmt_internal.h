// Shared inside the formatter: the renderers of the framework's directives
// and the registration tables they read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "format/task_fmt.h"

namespace tf {

// A row of the extension table, one per letter "a" to "z".
struct ext_row {
  task_fmt_render_fn tfe_render;
  uint8_t tfe_code;
  uint8_t tfe_gf;
  uint16_t tfe_family;
  uint16_t tfe_argcount;  // 0 while the letter is not registered
  uint16_t tfe_value;     // the second value given at registration
};
const ext_row &ext_row_of(int letter);  // letter "a" to "z"

bool asdot();
void time_offset(int64_t *sec, int32_t *usec);

// Each renderer writes a NUL-terminated text into buf (size > 0) and returns
// its length; the text is cut to size - 1.
size_t time_text(char *buf, size_t size, int64_t sec, int64_t usec, uint32_t flags);
size_t binary_text(char *buf, size_t size, uint64_t value, bool bars);
size_t asn_text(char *buf, size_t size, uint32_t as);
// "zero-len" for null or empty, "Func Null" without printer; asserts a
// family at or past the address library's gf_max.
size_t sockaddr_text(char *buf, size_t size, const zsockaddr_t *addr, int alt);
// Runs the letter's render function; the text may lie outside buf (its
// length in *len). Failure words stand in for a missing function or text.
const char *ext_text(char *buf, size_t size, int letter, const zsock_fmt_value *values, uint32_t flags,
                     size_t *len);

// Bounded copy with a terminator; returns the length kept.
size_t put_text(char *buf, size_t size, const char *text, size_t len);

}  // namespace tf
