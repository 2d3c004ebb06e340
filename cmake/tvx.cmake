# Helpers shared by every library, test and benchmark of the tree.

# tvx_library(NAME [DEPS lib...])
# A static library from src/*.cc with include/ as its public header folder.
function(tvx_library name)
  cmake_parse_arguments(L "" "" "DEPS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cc)
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ${L_DEPS})
endfunction()

# tvx_test(NAME LABEL area SOURCES file... [LIBS lib...])
# A GoogleTest binary; every test case becomes its own ctest test, so that the
# process-wide state of the framework starts clean in each.
function(tvx_test name)
  cmake_parse_arguments(T "" "LABEL" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name}
    PROPERTIES LABELS ${T_LABEL} TIMEOUT 60
    DISCOVERY_TIMEOUT 60)
endfunction()

# tvx_bench(AREA SOURCES file... [LIBS lib...])
# One Google Benchmark binary per area, bench/bench_AREA, and a target to run it.
function(tvx_bench area)
  cmake_parse_arguments(B "" "" "SOURCES;LIBS" ${ARGN})
  find_package(benchmark REQUIRED)
  add_executable(bench_${area} ${B_SOURCES})
  set_target_properties(bench_${area} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
  target_link_libraries(bench_${area} PRIVATE ${B_LIBS} benchmark::benchmark)
  set_property(GLOBAL APPEND PROPERTY TVX_BENCHES bench_${area})
endfunction()

# tvx_fuzzer(NAME LABEL area SOURCES file... [LIBS lib...])
# A libFuzzer target whose source defines LLVMFuzzerTestOneInput (and, if it
# wants one, LLVMFuzzerInitialize). Its corpus lives in the repository at
# fuzz/corpus/NAME beside the calling CMakeLists: seeds, and every input that
# ever crashed, named crash-*. Every build makes fuzz_NAME_replay with the
# normal compiler and a ctest test fuzz.NAME that replays the whole corpus, so
# that what was fixed stays fixed; with TVX_FUZZ=ON (clang, `make fuzz`) it
# also builds the real fuzzer, build-fuzz/fuzz/fuzz_NAME.
function(tvx_fuzzer name)
  cmake_parse_arguments(F "" "LABEL" "SOURCES;LIBS" ${ARGN})
  set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus/${name})
  add_executable(fuzz_${name}_replay ${F_SOURCES} ${CMAKE_SOURCE_DIR}/tests/fuzz/replay_main.cc)
  target_link_libraries(fuzz_${name}_replay PRIVATE ${F_LIBS})
  set_target_properties(fuzz_${name}_replay PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  add_test(NAME fuzz.${name} COMMAND fuzz_${name}_replay ${corpus})
  set_tests_properties(fuzz.${name} PROPERTIES LABELS ${F_LABEL} TIMEOUT 120)
  if(TVX_FUZZ)
    add_executable(fuzz_${name} ${F_SOURCES})
    target_link_libraries(fuzz_${name} PRIVATE ${F_LIBS})
    target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    set_target_properties(fuzz_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
    add_dependencies(fuzzers fuzz_${name})
    file(WRITE ${CMAKE_BINARY_DIR}/fuzz/${name}.corpus "${corpus}\n")
  endif()
endfunction()
