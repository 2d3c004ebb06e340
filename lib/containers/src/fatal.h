// Private to the containers: the one assertion path of every source.
#pragma once

namespace tvx::containers {

// Writes the failed expression to stderr and aborts.
[[noreturn]] void assert_fail(const char *expr, const char *func, const char *file, int line);

}  // namespace tvx::containers

// The message is the expression as written; where the message must read
// differently from the C++ spelling, CONT_ASSERT_MSG gives it.
#define CONT_ASSERT(expr) \
  ((expr) ? (void)0 : ::tvx::containers::assert_fail(#expr, __func__, __FILE__, __LINE__))
#define CONT_ASSERT_MSG(cond, text) \
  ((cond) ? (void)0 : ::tvx::containers::assert_fail(text, __func__, __FILE__, __LINE__))
