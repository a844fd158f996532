#include <gtest/gtest.h>

#include <string>

#include "HalvoShared/UUID.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

TEST(UUIDTest, IsReadInEitherCaseAndWrittenInUpperCase) {
    const auto uuid = UUID::fromText("e621E1F8-C36c-495a-93Fc-0c247a3e6e5f");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(UUID().text(), "00000000-0000-0000-0000-000000000000");
}

TEST(UUIDTest, HasItsBytesInTheOrderOfTheText) {
    EXPECT_EQ(UUID::fromText("00010203-0405-0607-0809-0A0B0C0D0E0F"),
              (UUID{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}}));
}

TEST(UUIDTest, IsNotMadeFromAnythingElse) {
    for (const std::string& text :
         {""s, "E621E1F8"s, "E621E1F8C36C495A93FC0C247A3E6E5F"s,
          "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}"s, "E621E1F8-C36C-495A-93FC-0C247A3E6E5G"s,
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5F "s, " E621E1F8-C36C-495A-93FC-0C247A3E6E5"s,
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5F\0"s, "E621E1F8-C36C-495A-93FC\0-0C247A3E6E5F"s,
          " 621E1F8-C36C-495A-93FC-0C247A3E6E5F"s, "-621E1F8-C36C-495A-93FC-0C247A3E6E5F"s,
          "E621E1F8xC36Cx495Ax93FCx0C247A3E6E5F"s}) {
        EXPECT_EQ(UUID::fromText(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace halvo
