# The provider contract suite, for every test folder that checks a provider against it.
#
#   add_contract_tests(<name> SOURCES <instantiation.cpp...> DEPS <libraries...>)
#
# builds the executable <name> from the suite and the instantiations and registers its tests.
# GoogleTest registers TEST_P cases from static initialisers, so the suite must not sit in a
# static library (the linker would drop its unreferenced objects): it is an OBJECT library,
# whose objects are linked whole into every executable that names it.
include_guard(GLOBAL)
include(GoogleTest)

set(CONTRACT_SUITE_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "Folder of ProviderContract.h")
set(CONTRACT_SUITE_SOURCES
    ${CONTRACT_SUITE_DIR}/ProviderContract.cpp
    ${CONTRACT_SUITE_DIR}/ContractAttributes.cpp
    ${CONTRACT_SUITE_DIR}/ContractBacking.cpp
    ${CONTRACT_SUITE_DIR}/ContractEvents.cpp
    ${CONTRACT_SUITE_DIR}/ContractListings.cpp
    ${CONTRACT_SUITE_DIR}/ContractMutations.cpp
    ${CONTRACT_SUITE_DIR}/ContractStreams.cpp
    CACHE INTERNAL "Sources of the provider contract suite")

add_library(contract_suite OBJECT ${CONTRACT_SUITE_SOURCES})
target_include_directories(contract_suite PUBLIC ${CONTRACT_SUITE_DIR})
target_link_libraries(contract_suite PUBLIC foundation GTest::gtest)

#
# With EXCLUDE <gtest filter>, the cases it matches are not registered one by one (a binary
# whose cases share a server started once per process runs them in one CTest test instead).
function(add_contract_tests name)
  cmake_parse_arguments(ARG "" "EXCLUDE" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE contract_suite ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  if(ARG_EXCLUDE)
    register_gtests(${name} FILTER "-${ARG_EXCLUDE}")
  else()
    register_gtests(${name})
  endif()
endfunction()

# The tests of the sftp store share one sshd per process (SftpServer), so each binary that
# has them runs them as one CTest test, `filter` naming them.
# CI time (measured on the 2-core machine): SftpContract about 24 s and OverlayOverSftpContract
# about 21 s in the default build, 22 s and 23 s under AddressSanitizer and UBSan: each case is
# dominated by SSH handshakes and the server, not by instrumented code. The overlay over sftp
# runs with the write-behind executor only: the synchronous one adds nothing sftp-specific and
# would double the time. Not measured under ThreadSanitizer.
function(add_sftp_test name binary filter)
  add_test(NAME ${name} COMMAND ${binary} --gtest_filter=${filter})
  set_tests_properties(${name} PROPERTIES TIMEOUT 120)
endfunction()
