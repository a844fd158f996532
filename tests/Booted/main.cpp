#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

int main(int count, char** words) {
    ::testing::InitGoogleTest(&count, words);
    if (!::testing::GTEST_FLAG(list_tests) && std::getenv("BOOTED_MACHINE_TREE") == nullptr) {
        std::fputs(
            "These tests run only beside a booted machine:\n"
            "    scripts/booted-machine --beside -- build/release/bin/BootedTests\n",
            stderr);
        return EXIT_FAILURE;
    }
    return RUN_ALL_TESTS();
}
