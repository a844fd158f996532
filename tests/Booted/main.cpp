#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

// What ctest takes for a test that cannot run here.
constexpr int skipped = 125;

}  // namespace

int main(int count, char** words) {
    ::testing::InitGoogleTest(&count, words);
    if (!::testing::GTEST_FLAG(list_tests) && std::getenv("BOOTED_MACHINE_TREE") == nullptr) {
        std::fputs(
            "These tests run only beside a booted machine:\n"
            "    scripts/booted-machine --beside -- build/release/bin/BootedTests\n",
            stderr);
        return EXIT_FAILURE;
    }
    if (!::testing::GTEST_FLAG(list_tests) && access(HALVO_BOOTED_HELPER, R_OK) != 0) {
        std::fputs("BootedTests: needs the packages, which could not be built here\n", stderr);
        return skipped;
    }
    return RUN_ALL_TESTS();
}
