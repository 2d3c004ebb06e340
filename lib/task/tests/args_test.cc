// The shared command line: states, arguments, and every refusal's line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "task/lifecycle.h"
#include "task/task.h"

namespace {

struct Args : ::testing::Test {
  void SetUp() override {
    task_options = {};
    task_state = 0;
    task_set_daemon_name("exampled");
  }
  // Parses words (the program name first); the errors, stderr in *err.
  int parse(std::vector<std::string> words, std::string *err = nullptr,
            int (*app)(int, char **, int) = nullptr) {
    store = std::move(words);
    store.insert(store.begin(), "exampled");
    argv.clear();
    for (auto &w : store) argv.push_back(w.data());
    argv.push_back(nullptr);
    ::testing::internal::CaptureStderr();
    int n = task_parse_args(static_cast<int>(store.size()), argv.data(), app);
    std::string e = ::testing::internal::GetCapturedStderr();
    if (err) *err = e;
    return n;
  }
  std::vector<std::string> store;
  std::vector<char *> argv;
};

TEST_F(Args, StatesAndValues) {
  EXPECT_EQ(parse({"-N", "-n", "-f", "/tmp/x.conf", "-p4242", "-tti", "-tr", "trace.out", "-Gc", "-M", "-V"}), 0);
  EXPECT_TRUE(task_state & TASKS_FOREGROUND);
  EXPECT_TRUE(task_state & TASKS_NODETACH);
  EXPECT_FALSE(task_state & TASKS_TEST);
  EXPECT_STREQ(task_options.tc_config_file, "/tmp/x.conf");
  EXPECT_EQ(task_options.tc_replace_pid, 4242);
  // Two -t both count; their flags add up.
  EXPECT_EQ(task_options.tc_trace_flags, TASK_TRACE_FLAG_TASK | TASK_TRACE_FLAG_TIMER | TASK_TRACE_FLAG_ROUTE);
  EXPECT_STREQ(task_options.tc_trace_file, "trace.out");
  EXPECT_EQ(task_options.tc_debug_wait, 'C');
  EXPECT_EQ(task_options.tc_memory, 1);
  EXPECT_EQ(task_options.tc_foreground, 1);
}

TEST_F(Args, CheckingStates) {
  EXPECT_EQ(parse({"-c"}), 0);
  EXPECT_EQ(task_state & (TASKS_TEST | TASKS_NODUMP), uint32_t{TASKS_TEST});
  EXPECT_EQ(task_options.tc_trace_flags, uint32_t{TASK_TRACE_FLAG_ALL});
  EXPECT_EQ(task_options.tc_verbose, 0);
  SetUp();
  EXPECT_EQ(parse({"trace.out", "-CC"}), 0);
  EXPECT_EQ(task_state & (TASKS_TEST | TASKS_NODUMP), uint32_t{TASKS_TEST | TASKS_NODUMP});
  EXPECT_EQ(task_options.tc_trace_file, nullptr);  // no trace file under -C
  EXPECT_EQ(task_options.tc_verbose, 1);
  SetUp();
  EXPECT_EQ(parse({"-cc"}), 0);
  EXPECT_EQ(task_options.tc_verbose, 1);
}

TEST_F(Args, DuplicateExtraneousMissingInvalid) {
  std::string err;
  EXPECT_EQ(parse({"-n", "-n"}, &err), 1);
  EXPECT_NE(err.find("ZTASK_PARSE_CMD_DUPLICATE: exampled: command-line option -n is a duplicate\n"), std::string::npos);
  // Every refusal prints the usage and the banner.
  EXPECT_NE(err.find("ZTASK_USAGE: Usage: exampled [-c] [-C] [-Gd] [-Gc] [-n] [-N] [-t[flags]]+ [-f config-file] "
                     "[trace-file]\n"),
            std::string::npos);
  EXPECT_NE(err.find(" release "), std::string::npos);

  EXPECT_EQ(parse({"one", "two"}, &err), 1);
  EXPECT_NE(err.find("ZTASK_PARSE_CMD_EXTRA: exampled: command-line option two is extraneous"), std::string::npos);
  EXPECT_EQ(parse({"-f"}, &err), 1);
  EXPECT_NE(err.find("ZTASK_PARSE_CMD_ARG: exampled: missing required argument for command-line option -f"),
            std::string::npos);
  EXPECT_EQ(parse({"-q", "-tz", "-px"}, &err), 3);
  EXPECT_NE(err.find("ZTASK_PARSE_BAD_OPTION: exampled: command-line option -q is invalid"), std::string::npos);
  EXPECT_NE(err.find("command-line option -tz is invalid"), std::string::npos);
  EXPECT_NE(err.find("command-line option -px is invalid"), std::string::npos);
}

TEST_F(Args, DebugShellOptionsAreKept) {
  std::string err;
  EXPECT_EQ(parse({"-Ja", "-Jd", "show tasks", "-Jdshow jobs", "-Jl", "lr1", "-Jt", "-Jt2000"}, &err), 0);
  EXPECT_EQ(task_options.tc_j_async, 1);
  ASSERT_EQ(task_options.tc_j_ncommands, 2);
  EXPECT_STREQ(task_options.tc_j_commands[1], "show jobs");
  EXPECT_STREQ(task_options.tc_lr_name, "lr1");
  EXPECT_EQ(task_options.tc_j_port, 2000);
  EXPECT_EQ(parse({"-Jf", "/nonexistent/cmds"}, &err), 1);
  EXPECT_NE(err.find("ZTASK_PARSE_BAD_FILE: exampled: problem processing file for command-line option -Jf, file "
                     "'/nonexistent/cmds': No such file or directory"),
            std::string::npos);
  EXPECT_EQ(parse({"-Jl", std::string(64, 'x')}, &err), 1);
  EXPECT_NE(err.find("exceeds 63 characters"), std::string::npos);
  EXPECT_EQ(parse({"-Jd", ""}, &err), 1);
  EXPECT_NE(err.find("ZTASK_PARSE_BAD_COMMAND"), std::string::npos);
}

int take_x(int argc, char **argv, int i) {
  if (std::string(argv[i]) == "-x") return i + 1 < argc ? 2 : -1;
  return 0;
}

TEST_F(Args, ApplicationSeesOptionsFirst) {
  EXPECT_EQ(parse({"-x", "value", "-n"}, nullptr, take_x), 0);
  EXPECT_TRUE(task_state & TASKS_NODETACH);
  EXPECT_EQ(task_options.tc_trace_file, nullptr);  // "value" was the application's
  EXPECT_EQ(parse({"-x"}, nullptr, take_x), 1);
}

TEST_F(Args, HelpExitsZero) {
  char prog[] = "exampled", help[] = "--help";
  char *argv[] = {prog, help, nullptr};
  EXPECT_EXIT(task_parse_args(2, argv, nullptr), ::testing::ExitedWithCode(0), "");
}

}  // namespace
