#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HalvoPlatform/Version.hpp"

namespace halvo {
namespace {

TEST(VersionTest, IsThreeNumbers) {
    EXPECT_THAT(version, ::testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
}

}  // namespace
}  // namespace halvo
