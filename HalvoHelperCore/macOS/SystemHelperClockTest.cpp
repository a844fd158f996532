#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::string_literals;

class DarwinClockTest : public ::testing::Test {
  protected:
    DarwinClockTest() { fake::reset(); }

    // The boot's name when the system's value is `bytes`.
    static std::string nameOf(const std::string& bytes) {
        fake::world().bootSession = bytes;
        return readBootID().text();
    }
};

TEST_F(DarwinClockTest, NamesTheBootAsTheSystemDoes) {
    EXPECT_EQ(nameOf("9F0C6A5E-51B7-4B6E-9D0A-2C1E7F3B8A44\0"s),
              "9F0C6A5E-51B7-4B6E-9D0A-2C1E7F3B8A44");
    EXPECT_EQ(fake::world().sysctlCalls, 2) << "one for the size, one for the value";
    EXPECT_EQ(nameOf("9F\xFF\0"s), "unknown") << "by the rules of every system";
}

TEST_F(DarwinClockTest, DoesNotKnowTheBootWhenTheSystemDoesNotTell) {
    fake::world().bootSession = std::nullopt;
    EXPECT_EQ(readBootID(), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 1) << "nor the size";
    EXPECT_EQ(nameOf(""), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 2);
    fake::reset();
    fake::world().bootSessionReadFails = true;
    EXPECT_EQ(readBootID(), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 2);
    EXPECT_TRUE(fake::world().log.empty());
}

TEST(DarwinClockDeathTest, CountsSinceBootInSecondsAndKeepsTheFraction) {
    testing::expectInNewProcess([] {
        // The count is unsigned: half of its range is more than a signed one holds.
        for (const std::uint64_t nanoseconds :
             {0UL, 1'500'000'000UL, 51'873'204'417'375UL, 0x8000'0000'0000'0000UL}) {
            fake::world().sinceBoot = nanoseconds;
            EXPECT_EQ(sinceBoot().count(), static_cast<double>(nanoseconds) / 1'000'000'000.0);
        }
    });
}

// It is the wall clock less the moment of the boot, which do not change at once when the clock is
// set.
TEST(DarwinClockDeathTest, NeverGoesBackWithinAProcessAlsoWhereTheSystemsClockDoes) {
    testing::expectInNewProcess([] {
        fake::world().sinceBoot = 5'000'000'003'000;
        EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 5'000.000'003);
        fake::world().sinceBoot -= 3'000;
        EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 5'000.000'003);
        EXPECT_EQ(sinceBoot().count(), 5'000.000'003);
        fake::world().sinceBoot += 4'000;
        EXPECT_EQ(sinceBoot().count(), 5'000.000'004) << "and goes on from there";
    });
}

}  // namespace
}  // namespace halvo
