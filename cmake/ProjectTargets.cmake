# One helper per kind of target keeps the folder CMakeLists short.

# project_library(NAME SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...] [INCLUDE dir])
function(project_library name)
  cmake_parse_arguments(ARG "SHARED" "INCLUDE" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  if(ARG_SHARED)
    add_library(${name} SHARED ${ARG_SOURCES})
  else()
    add_library(${name} STATIC ${ARG_SOURCES})
  endif()
  if(ARG_INCLUDE)
    target_include_directories(${name} PUBLIC ${ARG_INCLUDE})
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# register_gtests(TARGET [FILTER gtest-filter]): a GoogleTest binary's cases in CTest, one
# CTest test per case. Under the sanitizers, one per binary instead: starting an instrumented
# binary once per case (about 900 of them) cost minutes of CI on two cores.
function(register_gtests target)
  cmake_parse_arguments(ARG "" "FILTER" "" ${ARGN})
  if(OVERLAY_SANITIZE)
    if(ARG_FILTER)
      add_test(NAME ${target} COMMAND ${target} --gtest_filter=${ARG_FILTER})
    else()
      add_test(NAME ${target} COMMAND ${target})
    endif()
    set_tests_properties(${target} PROPERTIES TIMEOUT 900)
  elseif(ARG_FILTER)
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 TEST_FILTER "${ARG_FILTER}"
                         PROPERTIES TIMEOUT 120)
  else()
    gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  endif()
endfunction()

# project_test(NAME SOURCES ... [DEPS ...]): a GoogleTest binary registered with CTest.
function(project_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  register_gtests(${name})
endfunction()

# project_benchmark(NAME SOURCES ... [DEPS ...])
function(project_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  if(OVERLAY_BUILD_BENCHMARKS)
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
  endif()
endfunction()

include(GoogleTest)
