# Builds test executables and registers their tests with ctest.
include_guard(GLOBAL)
find_package(GTest REQUIRED)
include(GoogleTest)
add_custom_target(UnitTests)
add_custom_target(ThreadTests)

# halvo_add_command_test(NAME COMMAND WORD... [PROPERTIES NAME VALUE...])
#
# Adds a test that is a command of its own: a script, or a program that is no test executable. Exit status 125 means that it
# cannot run here.
function(halvo_add_command_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "COMMAND;PROPERTIES")
    add_test(NAME ${name} COMMAND ${arg_COMMAND})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${HALVO_TEST_LIMIT} SKIP_RETURN_CODE 125 ${arg_PROPERTIES})
endfunction()

# halvo_find_tests(VARIABLE FOLDER...)
#
# Sets the variable to the sources of tests in these folders. Not listed by hand: a test left out would never run.
function(halvo_find_tests variable)
    foreach(folder IN LISTS ARGN)
        file(GLOB found CONFIGURE_DEPENDS ${folder}/*Test.cpp ${folder}/*Test.mm)
        list(APPEND all ${found})
    endforeach()
    set(${variable} ${all} PARENT_SCOPE)
endfunction()

# halvo_set_test_options(NAME): the compile options of a test executable.
#
# Without optimisation: tests are compiled once and run once; the code under test has its usual options. With precompiled
# headers, those that most tests include; sources include what they use all the same. One target builds them for all test
# executables, except on the stand-ins for Apple's frameworks, where the only test executable, in two languages, builds its
# own.
function(halvo_set_test_options name)
    target_compile_options(${name} PRIVATE
        -O0
        # g++ 12 sees an overlap in "text" + std::string(...) where there is none (its bug 105651).
        $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
        # Required by ccache(1) for precompiled headers.
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
# Adds a test executable. LIBRARIES are linked in addition to HalvoTestSupport; PROGRAMS are built with it, because its tests
# start them. PRIVATE_MACHINE is passed to halvo_register_tests(). The tests' label is "unit", or "unit-threads" with THREADS,
# for multithreaded code, which the thread sanitizer checks. The targets UnitTests and ThreadTests build these executables.
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
# Lets ctest run each test of the executable by itself, except suites with "PrivateMachine" in their name, which need their
# own accounts, /Applications folder and console. PRIVATE_MACHINE lists how their names begin; ctest runs all that begin so
# as one test, in its own scripts/private-machine.
function(halvo_register_tests name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "PREFIX;FILTER" "PRIVATE_MACHINE;PROPERTIES")
    if(NOT arg_FILTER)
        set(arg_FILTER "-*PrivateMachine*")
    endif()
    gtest_discover_tests(${name}
        # When ctest starts, so that a build does not execute test programs.
        DISCOVERY_MODE PRE_TEST
        # Parameter values of some tests are not usable as names.
        NO_PRETTY_VALUES
        TEST_PREFIX "${arg_PREFIX}"
        TEST_FILTER "${arg_FILTER}"
        PROPERTIES TIMEOUT ${HALVO_TEST_LIMIT} ${arg_PROPERTIES})
    foreach(suite IN LISTS arg_PRIVATE_MACHINE)
        halvo_add_command_test(${suite}PrivateMachineTest
            COMMAND ${PROJECT_SOURCE_DIR}/scripts/private-machine --writable ${PROJECT_BINARY_DIR}
                -- $<TARGET_FILE:${name}> --gtest_filter=*${suite}*PrivateMachine*
            PROPERTIES FAIL_REGULAR_EXPRESSION "Running 0 tests" ${arg_PROPERTIES})
    endforeach()
endfunction()
