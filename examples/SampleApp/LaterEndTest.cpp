#include <gtest/gtest.h>

#include "examples/SampleApp/LaterEnd.hpp"

namespace halvo::testing {
namespace {

constexpr WallDate five = wallDate(500);
constexpr WallDate six = wallDate(600);

TEST(LaterEndTest, IsTheWantedOneWhenNothingHolds) {
    EXPECT_EQ(laterEnd(HelperStatus::idle, five), five);
}

TEST(LaterEndTest, ExtendsWhatHolds) { EXPECT_EQ(laterEnd({true, five, true}, six), six); }

TEST(LaterEndTest, NeverShortensWhatHolds) {
    EXPECT_EQ(laterEnd({true, six, true}, five), std::nullopt);
    EXPECT_EQ(laterEnd({true, five, false}, five), std::nullopt);
}

}  // namespace
}  // namespace halvo::testing
