#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "HalvoHelper/Linux/UnitSuffix.hpp"

namespace halvo::testing {
namespace {

TEST(UnitSuffixTest, IsAnotherEachTime) {
    std::set<std::string> suffixes;
    for (int turn = 0; turn < 10; ++turn) {
        const std::string suffix = randomUnitSuffix();
        EXPECT_THAT(suffix, ::testing::MatchesRegex("[0-9a-f]{8}"));
        suffixes.insert(suffix);
    }
    EXPECT_EQ(suffixes.size(), 10U);
}

}  // namespace
}  // namespace halvo::testing
