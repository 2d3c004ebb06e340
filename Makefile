# The commands a user and CI rely on. Everything is built with CMake and Ninja;
# this file only chains the steps.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all setup configure build check run run-linux asan bench fuzz clean

all: build

setup:
	@bash scripts/setup

$(BUILD)/build.ninja: | setup
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_ARGS)

configure: $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Every test, unit and system, in its own process.
check: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Two VTEPs in network namespaces, the local one probing the remote one with
# ping-overlay every second until Ctrl-C (root; see scripts/lab.py).
run: build
	/usr/bin/python3 scripts/lab.py --build $(BUILD)

# The same on two Linux VTEPs built with iproute2 (kernel VXLAN devices and
# bridges), the stack on its Linux backends (root; see docs/linux.md).
run-linux: build
	/usr/bin/python3 scripts/lab-linux.py --build $(BUILD)

# Unit tests under AddressSanitizer and UndefinedBehaviorSanitizer; system tests
# run the real programs and stay in the plain build.
asan: setup
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DTVX_SANITIZE=ON -DTVX_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) -LE system

# Every benchmark binary, one after the other; `make bench-AREA` runs one area.
bench: build
	@set -e; found=0; for b in $(BUILD)/bench/bench_*; do \
	  [ -x "$$b" ] || continue; found=1; echo "== $$b"; "$$b" --benchmark_counters_tabular=true; done; \
	  [ $$found = 1 ] || echo "no benchmarks built yet"

bench-%: build
	$(BUILD)/bench/bench_$*  --benchmark_counters_tabular=true

# Every libFuzzer target for FUZZ_SECONDS each (default 60) under ASan and UBSan,
# with clang, in build-fuzz/. `make check` only replays the corpora.
fuzz:
	@bash scripts/fuzz

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-fuzz
