// Trace statements against spdlog.
//
// TraceDisabled: a statement below the handle's level (spdlog: a debug call on
// a logger at info); both test and skip without formatting. TraceLine: an
// enabled statement that formats a number and a string with a microsecond
// time stamp and writes the line to a file; ours is line-buffered (one write
// per line), spdlog is its single-threaded basic file sink flushed on every
// line. Both files are on the same file system and removed afterwards.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/path.h"
#include "trace/trace.h"

namespace {

constexpr uint64_t kFlag = 0x1;

std::string bench_dir() {
  static std::string dir = [] {
    char tmpl[] = "/tmp/benchtraceXXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  return dir;
}

struct ours_setup {
  trace_handle *tp = nullptr;
  std::string path;
  explicit ours_setup(uint32_t control) {
    trace_init(nullptr);
    path = bench_dir() + "/ours.trace";
    trace_file *f = trace_file_locate(path.c_str(), 0, 0, 0, TRF_REPLACE, nullptr, false);
    ztrace_store(&tp, static_cast<uint32_t>(kFlag), 0, control, f, nullptr);
    trace_on(tp->tr_file);
  }
  ~ours_setup() {
    trace_free(tp);
    unlink(path.c_str());
  }
};

std::shared_ptr<spdlog::logger> spd_logger(const std::string &name, spdlog::level::level_enum level) {
  auto logger = spdlog::basic_logger_st(name, bench_dir() + "/" + name + ".log", true);
  logger->set_pattern("%b %d %H:%M:%S.%f %v");
  logger->set_level(level);
  logger->flush_on(spdlog::level::trace);
  return logger;
}

void TraceDisabled_ours(benchmark::State &state) {
  ours_setup s(4);  // threshold 4; the statement is at level 2
  int i = 0;
  for (auto _ : state) {
    ZTRACE_LEVEL(s.tp, kFlag, 2, "value %d %s", i, "text");
    benchmark::ClobberMemory();
    i++;
  }
}

void TraceDisabled_spdlog(benchmark::State &state) {
  auto logger = spd_logger("disabled", spdlog::level::info);
  int i = 0;
  for (auto _ : state) {
    logger->debug("value {} {}", i, "text");
    benchmark::ClobberMemory();
    i++;
  }
  spdlog::drop("disabled");
  unlink((bench_dir() + "/disabled.log").c_str());
}

void TraceLine_ours(benchmark::State &state) {
  ours_setup s(0);
  int i = 0;
  for (auto _ : state) {
    ZTRACE(s.tp, kFlag, "value %d %s", i, "text");
    i++;
  }
}

void TraceLine_spdlog(benchmark::State &state) {
  auto logger = spd_logger("line", spdlog::level::trace);
  int i = 0;
  for (auto _ : state) {
    logger->info("value {} {}", i, "text");
    i++;
  }
  spdlog::drop("line");
  unlink((bench_dir() + "/line.log").c_str());
}

}  // namespace

BENCHMARK(TraceDisabled_ours)->Name("TraceDisabled/ours");
BENCHMARK(TraceDisabled_spdlog)->Name("TraceDisabled/spdlog");
BENCHMARK(TraceLine_ours)->Name("TraceLine/ours");
BENCHMARK(TraceLine_spdlog)->Name("TraceLine/spdlog");

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  trace_shutdown();
  rmdir(bench_dir().c_str());
  return 0;
}
