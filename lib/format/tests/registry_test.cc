// Registration of extension letters and family printers, and the look-ups
// that the trace library's call-site preparation uses.
#include <gtest/gtest.h>

#include "evlog/evlog.h"
#include "format/task_fmt.h"

namespace {

const char *render(char *buf, size_t, const zsock_fmt_value *, int) { return buf; }
int printer(char *text, size_t, const zsockaddr_t *, int) {
  text[0] = '\0';
  return 0;
}

TEST(Registry, LetterLookups) {
  task_fmt_register_ext('i', render, 40, 2, 1, 0);
  task_fmt_register_ext('m', render, 41, 2, 1, 9);
  unsigned code = 0, value = 0, family = 0;
  EXPECT_EQ(task_fmt_zext('i', 1, &code, &value, &family), 0);
  EXPECT_EQ(code, 40u);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(family, 2u);
  EXPECT_EQ(task_fmt_zext('m', 2, &code, &value, &family), 0);
  EXPECT_EQ(code, 41u);
  EXPECT_EQ(value, 9u);
  // A count other than the registered one, an unregistered letter, and a
  // letter out of range fail in the non-asserting form.
  EXPECT_EQ(task_fmt_zext_try('m', 1, &code, &value, &family), -1);
  EXPECT_EQ(task_fmt_zext_try('i', 2, &code, &value, &family), -1);
  // The count is the registration's, not the class table's: "x" reads two
  // arguments in a format, but registered without a second value it counts
  // one, and with one it counts two.
  task_fmt_register_ext('x', render, 42, 2, 1, 0);
  EXPECT_EQ(task_fmt_zext_try('x', 1, &code, &value, &family), 0);
  EXPECT_EQ(code, 42u);
  EXPECT_EQ(task_fmt_zext_try('x', 2, &code, &value, &family), -1);
  task_fmt_register_ext('x', render, 43, 2, 1, 7);
  EXPECT_EQ(task_fmt_zext('x', 2, &code, &value, &family), 0);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(task_fmt_zext_try('x', 1, &code, &value, &family), -1);
  EXPECT_EQ(task_fmt_zext_try('q', 1, &code, &value, &family), -1);
  EXPECT_EQ(task_fmt_zext_try('A', 1, &code, &value, &family), -1);
  EXPECT_EQ(task_fmt_zext_try('{', 1, nullptr, nullptr, nullptr), -1);
}

TEST(Registry, FamilyLookups) {
  task_fmt_init(57);
  unsigned code = 0, value = 0;
  EXPECT_EQ(task_fmt_zgf(1, &code, &value), -1);
  task_fmt_set_sockaddr_ext(1, printer, ZTASK_FMT_ZSOCKA, 20);
  EXPECT_EQ(task_fmt_zgf(1, &code, &value), 0);
  EXPECT_EQ(code, static_cast<unsigned>(ZTASK_FMT_ZSOCKA));
  EXPECT_EQ(value, 20u);
  EXPECT_EQ(task_fmt_zgf(57, &code, &value), -1);
  EXPECT_EQ(task_fmt_zgf(200, &code, &value), -1);
}

const char *assert_line(const char *text) {
  static std::string re;
  re = std::string("ZTASK_ASSERT: Assertion failed [^ ]+\\[[0-9]+\\]: file \"fmt_registry.cc\", line [0-9]+: \"") +
       text + "\"";
  return re.c_str();
}

using ::testing::ExitedWithCode;

TEST(RegistryDeath, LetterOutOfRange) {
  EXPECT_EXIT(task_fmt_register_ext('A', render, 1, 0, 0, 0), ExitedWithCode(22),
              assert_line("\\(fmt >= 'a'\\) && \\(fmt <= 'z'\\)"));
  EXPECT_EXIT(task_fmt_zext('{', 1, nullptr, nullptr, nullptr), ExitedWithCode(22),
              assert_line("\\(fmt >= 'a'\\) && \\(fmt <= 'z'\\)"));
}

TEST(RegistryDeath, OneArgumentForATwoValueLetter) {
  // "m" has a second class: a call site with one argument is a mistake.
  EXPECT_EXIT(task_fmt_zext('m', 1, nullptr, nullptr, nullptr), ExitedWithCode(22),
              assert_line("\\(t == 0\\) \\|\\| \\(t == 8\\)"));
}

TEST(RegistryDeath, FamilyRegistrationChecks) {
  EXPECT_EXIT(task_fmt_set_sockaddr_ext(1, printer, ZTASK_FMT_ZSOCKA, 0), ExitedWithCode(22),
              assert_line("sockaddr_printf_extensions"));
  task_fmt_init(57);
  EXPECT_EXIT(task_fmt_set_sockaddr_ext(57, printer, ZTASK_FMT_ZSOCKA, 0), ExitedWithCode(22),
              assert_line("gf < gf_max_safe"));
  EXPECT_EXIT(task_fmt_set_sockaddr_ext(1, printer, 25, 0), ExitedWithCode(22),
              assert_line("code == ZTASK_FMT_ZSOCKA"));
}

// A log sink that shows on standard error what the log was given.
void note_open(const char *, int, int) {}
void note_close() {}
void note_mask(int) {}
void note_write(int, const char *tag, const char *text) { fprintf(stderr, "LOG[%s] %s\n", tag, text); }
const evlog_sink note_sink = {note_open, note_close, note_mask, note_write};

TEST(RegistryDeath, AssertionReachesTheEventLog) {
  EXPECT_EXIT(
      {
        evlog_set_sink(&note_sink);
        task_fmt_register_ext('A', render, 1, 0, 0, 0);
      },
      ExitedWithCode(22), "LOG\\[ZTASK_ASSERT\\] ZTASK_ASSERT: Assertion failed [^ ]+\\[[0-9]+\\]: file");
}

}  // namespace
