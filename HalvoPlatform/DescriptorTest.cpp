#include <fcntl.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {
namespace {

int openNull() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

bool isOpenFile(int number) { return fcntl(number, F_GETFD) != -1; }

TEST(DescriptorTest, OwnsNothingAtFirst) {
    const Descriptor none;
    EXPECT_FALSE(none.isOpen());
}

TEST(DescriptorTest, TakesAFailedCallForNothing) { EXPECT_FALSE(Descriptor(-1).isOpen()); }

TEST(DescriptorTest, TakesNumberZeroForADescriptor) {
    Descriptor zero(0);
    EXPECT_TRUE(zero.isOpen());
    EXPECT_EQ(zero.release(), 0);
}

TEST(DescriptorTest, ClosesAtTheEnd) {
    const int number = openNull();
    {
        const Descriptor owner(number);
        EXPECT_TRUE(owner.isOpen());
        EXPECT_EQ(owner.get(), number);
    }
    EXPECT_FALSE(isOpenFile(number));
}

TEST(DescriptorTest, NoLongerClosesWhatItGaveAway) {
    const int number = openNull();
    {
        Descriptor owner(number);
        EXPECT_EQ(owner.release(), number);
        EXPECT_FALSE(owner.isOpen());
    }
    EXPECT_TRUE(isOpenFile(number));
    close(number);
}

TEST(DescriptorTest, MovesWithoutClosing) {
    const int number = openNull();
    Descriptor first(number);
    const Descriptor second(std::move(first));
    EXPECT_EQ(second.get(), number);
    EXPECT_TRUE(isOpenFile(number));
}

TEST(DescriptorTest, ClosesWhatItHeldWhenGivenAnother) {
    const int before = openNull();
    const int after = openNull();
    Descriptor owner(before);
    owner = Descriptor(after);
    EXPECT_FALSE(isOpenFile(before));
    EXPECT_TRUE(isOpenFile(after));
}

TEST(DescriptorTest, SurvivesBeingGivenItself) {
    const int number = openNull();
    Descriptor owner(number);
    Descriptor& same = owner;
    owner = std::move(same);
    EXPECT_EQ(owner.get(), number);
    EXPECT_TRUE(isOpenFile(number));
}

TEST(DescriptorTest, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<Descriptor>);
    static_assert(!std::is_copy_assignable_v<Descriptor>);
}

}  // namespace
}  // namespace halvo
