#include <gtest/gtest.h>

#include <utility>

#include "HalvoHelperCore/BootID.hpp"

namespace halvo {
namespace {

TEST(BootIDTest, IsEmptyAtFirst) {
    EXPECT_EQ(BootID().text(), "");
    EXPECT_EQ(BootID(), BootID(""));
}

TEST(BootIDTest, IsEqualByItsText) {
    EXPECT_EQ(BootID("one"), BootID(std::string("one")));
    EXPECT_NE(BootID("one"), BootID("two"));
    EXPECT_NE(BootID("one"), BootID("One"));
    EXPECT_NE(BootID("one"), BootID());
}

TEST(BootIDTest, SharesItsTextWithItsCopies) {
    const BootID first("9C3A6E2F-51B7-4D08-A6E1-3F0B72C4D915");
    const BootID second = first;
    EXPECT_EQ(&first.text(), &second.text());
}

TEST(BootIDTest, IsEmptyOnceMovedFrom) {
    BootID first("one");
    const BootID second = std::move(first);
    EXPECT_EQ(second.text(), "one");
    // NOLINTNEXTLINE(bugprone-use-after-move): what is left is part of the promise.
    EXPECT_EQ(first, BootID());
}

TEST(BootIDTest, HashesItsText) {
    const std::hash<BootID> hash;
    EXPECT_EQ(hash(BootID("one")), hash(BootID(std::string("one"))));
    EXPECT_EQ(hash(BootID()), hash(BootID("")));
    EXPECT_NE(hash(BootID("one")), hash(BootID("two")));
}

}  // namespace
}  // namespace halvo
