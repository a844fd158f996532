#include <gtest/gtest.h>

#include <string>

#include "HalvoShared/UUID.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

constexpr const char* canonical = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

TEST(UUIDTest, IsWrittenInUpperCase) {
    const auto uuid = UUID::fromText("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->text(), canonical);
}

TEST(UUIDTest, IsTheSameInEitherCase) {
    EXPECT_EQ(UUID::fromText(canonical), UUID::fromText("e621E1f8-C36c-495a-93Fc-0c247a3e6e5f"));
}

TEST(UUIDTest, HasItsBytesInTheOrderOfTheText) {
    const auto uuid = UUID::fromText("00010203-0405-0607-0809-0A0B0C0D0E0F");
    ASSERT_TRUE(uuid);
    for (std::uint8_t i = 0; i < 16; ++i) {
        EXPECT_EQ(uuid->bytes[i], i);
    }
}

TEST(UUIDTest, IsAllZeroUnlessMadeFromAText) {
    EXPECT_EQ(UUID().text(), "00000000-0000-0000-0000-000000000000");
}

TEST(UUIDTest, IsNotMadeFromAnythingElse) {
    for (const std::string& text :
         {""s, "E621E1F8"s, "E621E1F8C36C495A93FC0C247A3E6E5F"s,
          "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}"s, "E621E1F8-C36C-495A-93FC-0C247A3E6E5G"s,
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5F "s, " E621E1F8-C36C-495A-93FC-0C247A3E6E5"s,
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5F\0"s, "E621E1F8-C36C-495A-93FC\0-0C247A3E6E5F"s,
          "E621E1F8xC36Cx495Ax93FCx0C247A3E6E5F"s}) {
        EXPECT_EQ(UUID::fromText(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace halvo
