// The tests lock folders, kill processes and mount file systems; they refuse to do so on a machine
// that anybody uses.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/Support/TemporaryFolder.hpp"

namespace {

// scripts/private-machine sets the variable, and starts the command in a pid namespace of its own,
// whose process 1 is the script itself.
bool isPrivateMachine() {
    using halvo::testing::readTestFile;
    struct stat status{};
    return std::getenv("HALVO_APP_GID") != nullptr && stat("/.machine", &status) == 0 &&
           readTestFile("/proc/1/cmdline").find("private-machine") != std::string::npos;
}

}  // namespace

int main(int count, char** words) {
    ::testing::InitGoogleTest(&count, words);
    if (!::testing::GTEST_FLAG(list_tests) && !isPrivateMachine()) {
        std::fputs(
            "These tests run only inside a private machine:\n"
            "    scripts/private-machine -- build/release/bin/EndToEndTests\n",
            stderr);
        return EXIT_FAILURE;
    }
    return RUN_ALL_TESTS();
}
