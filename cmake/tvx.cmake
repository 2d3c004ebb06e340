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
