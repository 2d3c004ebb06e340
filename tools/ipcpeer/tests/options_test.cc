// ipcpeer's command line: what is taken, and the one line for what is not.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace {

ipcpeer_parse_result parse(std::vector<std::string> args, ipcpeer_options *o, std::string *err) {
  args.insert(args.begin(), "ipcpeer");
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return ipcpeer_parse(static_cast<int>(args.size()), argv.data(), o, err);
}

TEST(IpcpeerOptions, TakesAWholeCommandLine) {
  ipcpeer_options o;
  std::string err;
  ASSERT_EQ(parse({"--client", "/var/run/x", "-e", "ev", "-r", "10", "-b", "4096", "--backpressure", "100",
                   "--threshold-low", "0", "-n", "500", "-l", "128", "-p", "2", "-t", "20", "source"},
                  &o, &err),
            IPCPEER_RUN)
      << err;
  EXPECT_EQ(o.role, IPCPEER_CLIENT);
  EXPECT_EQ(o.path, "/var/run/x");
  EXPECT_TRUE(o.use_ev);
  EXPECT_EQ(o.retries, 10);
  EXPECT_EQ(o.bufsize, 4096u);
  EXPECT_EQ(o.threshold_backpressure, 100u);
  EXPECT_TRUE(o.threshold_low_set);
  EXPECT_EQ(o.count, 500u);
  EXPECT_EQ(o.size, 128u);
  EXPECT_EQ(o.priority, 2);
  EXPECT_EQ(o.interval_ms, 20u);
  EXPECT_EQ(o.mode, IPCPEER_SOURCE);
  ipcpeer_options d;
  EXPECT_EQ(parse({"-s", "/p", "echo"}, &d, &err), IPCPEER_RUN);
  EXPECT_EQ(d.role, IPCPEER_SERVER);
  EXPECT_FALSE(d.use_ev);
  EXPECT_FALSE(d.threshold_low_set);
  EXPECT_EQ(parse({"--help"}, &d, &err), IPCPEER_HELP);
  ipcpeer_options t;
  ASSERT_EQ(parse({"-T", "-c", "127.0.0.1:4000", "sink"}, &t, &err), IPCPEER_RUN) << err;
  EXPECT_TRUE(t.tcp);
  EXPECT_EQ(t.tcp_port, 4000);
  EXPECT_EQ(t.tcp_addr, htonl(INADDR_LOOPBACK));
}

TEST(IpcpeerOptions, RefusesWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"-s", "/p"}, "no mode given (echo, sink or source)"},
      {{"-s", "/p", "sink", "echo"}, "one mode only"},
      {{"-s", "/p", "-c", "/q", "sink"}, "give one of --server and --client, once"},
      {{"sink"}, "give --server PATH or --client PATH"},
      {{"-s", "/p", "pipe"}, "unknown mode 'pipe' (echo, sink or source)"},
      {{"-s", "/p", "-r", "5", "sink"}, "invalid retry count '5' (0, 2, 10 or 1000)"},
      {{"-s", "/p", "-e", "poll", "sink"}, "invalid event system 'poll' (task or ev)"},
      {{"-s", "/p", "-b", "70000", "sink"}, "invalid buffer size '70000' (32 to 65535)"},
      {{"-s", "/p", "-l", "7", "sink"}, "invalid size '7' (8 to 65519)"},
      {{"-s", "/p", "-b", "100", "-l", "90", "source"}, "--size plus 16 is larger than --bufsize"},
      {{"-s", "/p", "-p", "3", "sink"}, "invalid priority '3'"},
      {{"-s", "/p", "--count", "-1", "sink"}, "invalid count '-1'"},
      {{"-s", "/p", "--bogus", "sink"}, "unknown option '--bogus'"},
      {{"-s", "/p", "sink", "-n"}, "option '-n' needs a value"},
      {{"--tcp", "-c", "127.0.0.1:0", "sink"}, "invalid TCP address '127.0.0.1:0' (ADDRESS:PORT)"},
      {{"--tcp", "-s", "localhost:80", "sink"}, "invalid TCP address 'localhost:80' (ADDRESS:PORT)"},
  };
  for (auto &c : cases) {
    ipcpeer_options o;
    std::string err;
    EXPECT_EQ(parse(c.args, &o, &err), IPCPEER_USAGE_ERROR) << c.error;
    EXPECT_EQ(err, c.error);
  }
}

}  // namespace
