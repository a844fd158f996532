#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Time.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

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
    EXPECT_EQ(nameOf(" 9f0C\n\0"s), " 9f0C\n") << "neither trimmed nor changed in case";
}

TEST_F(DarwinClockTest, ReadsTheNameByTheRulesOfEverySystem) {
    EXPECT_EQ(nameOf("9F0C\0006A5E\0"s), "9F0C");
    EXPECT_EQ(nameOf("9F\xFF\0"s), "unknown");
}

TEST_F(DarwinClockTest, DoesNotKnowTheBootWhenTheSystemDoesNotTellTheSize) {
    fake::world().bootSession = std::nullopt;
    EXPECT_EQ(readBootID(), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 1);
}

TEST_F(DarwinClockTest, DoesNotKnowTheBootWhenTheValueIsEmpty) {
    EXPECT_EQ(nameOf(""), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 1);
}

TEST_F(DarwinClockTest, DoesNotKnowTheBootWhenTheSystemDoesNotTellTheValue) {
    fake::world().bootSessionReadFails = true;
    EXPECT_EQ(readBootID(), "unknown");
    EXPECT_EQ(fake::world().sysctlCalls, 2);
}

TEST_F(DarwinClockTest, SaysNothingAboutABootThatItDoesNotKnow) {
    fake::world().bootSession = std::nullopt;
    readBootID();
    EXPECT_TRUE(fake::world().log.empty());
}

// What a process has read before counts, so each of these is started anew.
class DarwinClockDeathTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Ends the new process: with 0 when all its expectations held.
    [[noreturn]] static void finish() { std::exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS); }
};

TEST_F(DarwinClockDeathTest, CountsSinceBootInSecondsAndKeepsTheFraction) {
    const auto body = [] {
        fake::world().sinceBoot = 0;
        EXPECT_EQ(sinceBoot().count(), 0);
        fake::world().sinceBoot = 1'500'000'000;
        EXPECT_EQ(sinceBoot().count(), 1.5);
        EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 1.5);
        fake::world().sinceBoot = 51'873'204'417'375;
        EXPECT_EQ(sinceBoot().count(), 51'873'204'417'375.0 / 1'000'000'000.0);
        // The count is unsigned: half of its range is more than a signed one holds.
        fake::world().sinceBoot = 0x8000'0000'0000'0000;
        EXPECT_EQ(sinceBoot().count(), 9'223'372'036'854'775'808.0 / 1'000'000'000.0);
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

// It is the wall clock less the moment of the boot, which do not change at once when the clock is
// set.
TEST_F(DarwinClockDeathTest, NeverGoesBackWithinAProcessAlsoWhereTheSystemsClockDoes) {
    const auto body = [] {
        fake::world().sinceBoot = 5'000'000'003'000;
        EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 5'000.000'003);
        fake::world().sinceBoot -= 3'000;
        EXPECT_EQ(SystemHelperClock().reading().sinceBoot.count(), 5'000.000'003);
        EXPECT_EQ(sinceBoot().count(), 5'000.000'003);
        fake::world().sinceBoot += 4'000;
        EXPECT_EQ(sinceBoot().count(), 5'000.000'004) << "and goes on from there";
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(DarwinClockDeathTest, ReadsBothClocksAtEveryReading) {
    const auto body = [] {
        SystemHelperClock clock;
        const ClockReading before = clock.reading();
        EXPECT_EQ(before.sinceBoot.count(), 1'000);
        EXPECT_EQ(before.wall, wallDate(1'800'001'000));
        fake::world().bootedAt -= 7'200;
        fake::serve(0.5);
        const ClockReading after = clock.reading();
        EXPECT_EQ(after.sinceBoot.count(), 1'000.5);
        EXPECT_EQ(after.wall, wallDate(1'799'993'800.5)) << "somebody set the wall clock";
        EXPECT_EQ(after.bootID, before.bootID);
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(DarwinClockDeathTest, TakesTheWallClockAfterTheOther) {
    const auto body = [] {
        fake::world().readingTakes = 5'000'000'000;
        const ClockReading reading = SystemHelperClock().reading();
        EXPECT_EQ(reading.sinceBoot.count(), 1'000);
        EXPECT_EQ(reading.wall, wallDate(1'800'001'005));
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(DarwinClockDeathTest, ABootThatWasUnknownAtFirstStaysUnknownForTheProcess) {
    const auto body = [] {
        SystemHelperClock clock;
        const auto name = fake::world().bootSession;
        fake::world().bootSession = std::nullopt;
        EXPECT_EQ(clock.reading().bootID, "unknown");
        fake::world().bootSession = name;
        EXPECT_EQ(clock.reading().bootID, "unknown");
        EXPECT_EQ(SystemHelperClock().reading().bootID, "unknown");
        EXPECT_NE(readBootID(), "unknown");
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

TEST_F(DarwinClockDeathTest, AsksForTheBootOncePerProcessHoweverManyThreadsBegin) {
    const auto body = [] {
        std::vector<ClockReading> readings(8);
        std::vector<std::thread> threads;
        for (ClockReading& reading : readings) {
            threads.emplace_back([&reading] { reading = SystemHelperClock().reading(); });
        }
        std::ranges::for_each(threads, &std::thread::join);
        EXPECT_EQ(fake::world().sysctlCalls, 2);
        for (const ClockReading& reading : readings) {
            EXPECT_EQ(reading.bootID, readBootID());
        }
        finish();
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace halvo
