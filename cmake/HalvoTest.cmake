# How executables of tests are built, and their tests registered: one way for all.
include_guard(GLOBAL)
find_package(GTest REQUIRED)
include(GoogleTest)
add_custom_target(UnitTests)
add_custom_target(ThreadTests)

# halvo_set_test_options(NAME): how the sources of an executable of tests are compiled.
#
# Without optimisation: they are compiled once and run once, and what they test is compiled as ever. With precompiled
# headers, those that most tests include; a source includes what it uses all the same. One target makes them for all that
# are compiled with the same options. On the stand-ins for Apple's frameworks there is one executable of tests, in two
# languages, which makes its own.
function(halvo_set_test_options name)
    target_compile_options(${name} PRIVATE
        -O0
        # g++ 12 sees an overlap in "text" + std::string(...) where there is none (its bug 105651).
        $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
        # What ccache(1) needs of each compiler for precompiled headers.
        $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>
        "$<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>")
    if(HALVO_FAKE_DARWIN OR name STREQUAL HalvoTestHeaders)
        target_precompile_headers(${name} PRIVATE
            <algorithm> <chrono> <csignal> <filesystem> <fstream> <functional> <map> <memory> <optional> <string>
            <thread> <vector> <gmock/gmock.h> <gtest/gtest.h>)
    else()
        target_precompile_headers(${name} REUSE_FROM HalvoTestHeaders)
    endif()
endfunction()

if(NOT HALVO_FAKE_DARWIN)
    file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/TestHeaders.cpp CONTENT "int main() {}\n")
    add_executable(HalvoTestHeaders EXCLUDE_FROM_ALL ${CMAKE_CURRENT_BINARY_DIR}/TestHeaders.cpp)
    target_link_libraries(HalvoTestHeaders PRIVATE HalvoOptions GTest::gmock GTest::gtest)
    halvo_set_test_options(HalvoTestHeaders)
endif()

# halvo_add_tests(NAME SOURCES FILE... [LIBRARIES TARGET...] [DEFINITIONS NAME="VALUE"...] [PROGRAMS TARGET...]
#     [PRIVATE_MACHINE SUITE...] [THREADS])
#
# One executable of tests. LIBRARIES are what it links besides HalvoTestSupport; PROGRAMS are built with it, because its
# tests start them. PRIVATE_MACHINE is handed on to halvo_register_tests(). Their label is "unit", and "unit-threads" with
# THREADS, where the thread sanitizer has something to see. The targets UnitTests and ThreadTests build what has these.
function(halvo_add_tests name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "THREADS" "" "SOURCES;LIBRARIES;DEFINITIONS;PROGRAMS;PRIVATE_MACHINE")
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name}
        PRIVATE ${arg_LIBRARIES} HalvoTestSupport GTest::gmock GTest::gtest GTest::gtest_main)
    halvo_set_test_options(${name})
    target_compile_definitions(${name} PRIVATE ${arg_DEFINITIONS})
    if(arg_PROGRAMS)
        add_dependencies(${name} ${arg_PROGRAMS})
    endif()
    add_dependencies(UnitTests ${name})
    set(label unit)
    if(arg_THREADS)
        add_dependencies(ThreadTests ${name})
        set(label unit-threads)
    endif()
    halvo_register_tests(${name} PRIVATE_MACHINE ${arg_PRIVATE_MACHINE} PROPERTIES LABELS ${label})
endfunction()

# halvo_register_tests(NAME [PREFIX TEXT] [FILTER FILTER] [PRIVATE_MACHINE SUITE...] [PROPERTIES NAME VALUE...])
#
# Lets ctest run each test of the executable by itself, but for what needs people, an /Applications folder and a console
# of its own: suites that have "PrivateMachine" in their name. PRIVATE_MACHINE names those, up to that word; ctest runs
# each in a scripts/private-machine of its own. 125 is the status of what cannot run here.
function(halvo_register_tests name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "PREFIX;FILTER" "PRIVATE_MACHINE;PROPERTIES")
    if(NOT arg_FILTER)
        set(arg_FILTER "-*PrivateMachine*")
    endif()
    gtest_discover_tests(${name}
        # Found when ctest starts, so that a build never runs what it has built.
        DISCOVERY_MODE PRE_TEST
        # The rows of some tables are no names for tests.
        NO_PRETTY_VALUES
        TEST_PREFIX "${arg_PREFIX}"
        TEST_FILTER "${arg_FILTER}"
        PROPERTIES TIMEOUT ${HALVO_TEST_LIMIT} ${arg_PROPERTIES})
    foreach(suite IN LISTS arg_PRIVATE_MACHINE)
        add_test(NAME ${suite}PrivateMachineTest
            COMMAND ${PROJECT_SOURCE_DIR}/scripts/private-machine --writable ${PROJECT_BINARY_DIR}
                -- $<TARGET_FILE:${name}> --gtest_filter=*${suite}*PrivateMachine*)
        set_tests_properties(${suite}PrivateMachineTest PROPERTIES
            TIMEOUT ${HALVO_TEST_LIMIT} SKIP_RETURN_CODE 125 FAIL_REGULAR_EXPRESSION "Running 0 tests"
            ${arg_PROPERTIES})
    endforeach()
endfunction()
