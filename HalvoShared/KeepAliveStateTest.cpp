#include <gtest/gtest.h>

#include <string>

#include "HalvoShared/JSON.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::nineOClock;
using testing::readTestFile;

constexpr Seconds hour{3600};
constexpr Seconds twoMinutes{120};

// Of an app that was killed at nine, an hour before its commitment's end.
KeepAliveState killed() {
    return {.pid = 4711,
            .appPath = "/Applications/Halvo.app",
            .clean = false,
            .commitmentUntil = nineOClock + hour,
            .ultraHard = true,
            .appReleased = false,
            .bypassNoted = false,
            .updatedAt = nineOClock};
}

KeepAliveState released() {
    KeepAliveState state = killed();
    state.appReleased = true;
    return state;
}

const std::string golden = HALVO_GOLDEN "/keepalive.json";

std::string without(const std::string& member) {
    std::string json = readTestFile(golden);
    const std::size_t place = json.find(member);
    EXPECT_NE(place, std::string::npos) << member;
    return json.erase(place, member.size());
}

TEST(KeepAliveStateTest, IsWrittenAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(released()), readTestFile(golden));
}

TEST(KeepAliveStateTest, IsReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::decode<KeepAliveState>(readTestFile(golden)), released());
}

TEST(KeepAliveStateTest, ComesBackTheSame) {
    for (int bits = 0; bits < 32; ++bits) {
        KeepAliveState state = killed();
        state.clean = (bits & 1) != 0;
        state.ultraHard = (bits & 2) != 0;
        state.appReleased = (bits & 4) != 0;
        state.bypassNoted = (bits & 8) != 0;
        if ((bits & 16) != 0) {
            state.commitmentUntil.reset();
        }
        EXPECT_EQ(JSON::decode<KeepAliveState>(JSON::encode(state).value()), state);
    }
}

TEST(KeepAliveStateTest, WritesNoKeyForACommitmentThatIsAbsentAndTakesNullForOne) {
    KeepAliveState state = killed();
    state.commitmentUntil.reset();
    std::string json =
        R"({"appPath":"/Applications/Halvo.app","appReleased":false,"bypassNoted":false,)"
        R"("clean":false,"pid":4711,"ultraHard":true,"updatedAt":"2026-11-20T09:00:00Z"})";
    EXPECT_EQ(JSON::encode(state), json);
    EXPECT_EQ(JSON::decode<KeepAliveState>(json.insert(1, "\"commitmentUntil\":null,")), state);
}

TEST(KeepAliveStateTest, IsNeitherReleasedNorNotedInAFileFromBeforeTheseWereRecorded) {
    const auto state = JSON::decode<KeepAliveState>(
        R"({"appPath":"/Applications/Halvo.app","clean":false,"commitmentUntil":)"
        R"("2026-11-20T10:00:00Z","pid":4711,"ultraHard":true,"updatedAt":"2026-11-20T09:00:00Z"})");
    EXPECT_EQ(state, killed());
    const auto nulls = JSON::decode<KeepAliveState>(
        R"({"appPath":"/Applications/Halvo.app","appReleased":null,"bypassNoted":null,)"
        R"("clean":false,"commitmentUntil":"2026-11-20T10:00:00Z","pid":4711,"ultraHard":true,)"
        R"("updatedAt":"2026-11-20T09:00:00Z"})");
    EXPECT_EQ(nulls, killed());
}

TEST(KeepAliveStateTest, CannotBeReadWithoutARequiredMember) {
    for (const char* member :
         {R"("appPath":"/Applications/Halvo.app",)", R"("clean":false,)", R"("pid":4711,)",
          R"("ultraHard":true,)", R"(,"updatedAt":"2026-11-20T09:00:00Z")"}) {
        const auto state = JSON::decode<KeepAliveState>(without(member));
        ASSERT_FALSE(state.has_value()) << member;
        EXPECT_EQ(state.error().problem, "This is missing");
    }
}

TEST(KeepAliveStateTest, CannotBeReadWithAMemberOfAnotherType) {
    struct Row {
        const char* from;
        const char* to;
    };

    for (const Row& row :
         {Row{"4711", "\"4711\""}, Row{"4711", "2147483648"}, Row{"4711", "47.11"},
          Row{"4711", "null"}, Row{"\"/Applications/Halvo.app\"", "5"},
          Row{"\"clean\":false", "\"clean\":0"}, Row{"\"clean\":false", "\"clean\":null"},
          Row{"\"appReleased\":true", "\"appReleased\":1"},
          Row{"\"bypassNoted\":false", "\"bypassNoted\":\"no\""},
          Row{"\"2026-11-20T10:00:00Z\"", "1795165200"},
          Row{"\"2026-11-20T10:00:00Z\"", "\"10:00\""},
          Row{"\"2026-11-20T09:00:00Z\"", "\"2026-11-20T09:00:00.5Z\""},
          Row{"\"2026-11-20T09:00:00Z\"", "null"}, Row{"{", "[{"}}) {
        std::string json = readTestFile(golden);
        json.replace(json.find(row.from), std::string(row.from).size(), row.to);
        EXPECT_FALSE(JSON::decode<KeepAliveState>(json)) << json;
    }
}

TEST(KeepAliveStateTest, AsksForARelaunchUntilTheCommitmentEnds) {
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock));
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock + hour - Seconds{0.001}));
    EXPECT_FALSE(killed().shouldRelaunch(nineOClock + hour));
    EXPECT_FALSE(killed().shouldRelaunch(nineOClock + hour * 2));
}

TEST(KeepAliveStateTest, AsksForNoRelaunchAfterACleanEnd) {
    KeepAliveState state = killed();
    state.clean = true;
    EXPECT_FALSE(state.shouldRelaunch(nineOClock));
}

TEST(KeepAliveStateTest, WithoutACommitmentAsksForNothing) {
    KeepAliveState state = killed();
    state.commitmentUntil.reset();
    EXPECT_FALSE(state.shouldRelaunch(nineOClock));
    EXPECT_FALSE(state.wasBypassed(false, nineOClock + hour));
}

TEST(KeepAliveStateTest, WasBypassedAfterMoreThanTwoMinutesOfSilence) {
    EXPECT_FALSE(killed().wasBypassed(false, nineOClock));
    EXPECT_FALSE(killed().wasBypassed(false, nineOClock + twoMinutes));
    EXPECT_TRUE(killed().wasBypassed(false, nineOClock + twoMinutes + Seconds{0.001}));
    // Whenever it is found, the silence began in the commitment.
    EXPECT_TRUE(killed().wasBypassed(false, nineOClock + hour * 48));
}

TEST(KeepAliveStateTest, WasNotBypassedWhenAnyOfThatIsOtherwise) {
    const WallDate late = nineOClock + hour / 2;
    ASSERT_TRUE(killed().wasBypassed(false, late));
    EXPECT_FALSE(killed().wasBypassed(true, late)) << "opened again by the agent";
    KeepAliveState state = killed();
    state.clean = true;
    EXPECT_FALSE(state.wasBypassed(false, late));
    state = killed();
    state.ultraHard = false;
    EXPECT_FALSE(state.wasBypassed(false, late));
    state = killed();
    state.commitmentUntil = nineOClock;
    EXPECT_FALSE(state.wasBypassed(false, late)) << "it was over when the record was written";
    state.commitmentUntil = nineOClock + Seconds{0.001};
    EXPECT_TRUE(state.wasBypassed(false, late));
}

TEST(KeepAliveStateTest, MayAlwaysOpenFromApplications) {
    for (const bool ultraHard : {false, true}) {
        for (const bool isReleased : {false, true}) {
            KeepAliveState state = killed();
            state.ultraHard = ultraHard;
            state.appReleased = isReleased;
            EXPECT_TRUE(state.mayOpen("/Applications/Halvo.app"));
            const bool isHeld = ultraHard && !isReleased;
            EXPECT_EQ(state.mayOpen("/Users/ann/.Trash/Halvo.app"), isHeld);
        }
    }
}

TEST(KeepAliveStateTest, KnowsTheTrashByItsTextAlone) {
    const KeepAliveState state = released();
    EXPECT_FALSE(state.mayOpen("/Users/ann/.Trash/Folder/Halvo.app"));
    EXPECT_FALSE(state.mayOpen("/.Trash/"));
    EXPECT_TRUE(state.mayOpen("/Users/ann/.trash/Halvo.app"));
    EXPECT_TRUE(state.mayOpen("/Users/ann/.TRASH/Halvo.app"));
    EXPECT_TRUE(state.mayOpen("/Users/ann/.Trash"));
    EXPECT_TRUE(state.mayOpen("/Users/ann/.Trashes/Halvo.app"));
    EXPECT_TRUE(state.mayOpen("/Users/ann/x.Trash/Halvo.app"));
    EXPECT_TRUE(state.mayOpen(""));
}

TEST(LaunchReasonTest, HasTheArgumentsThatTheAppKnows) {
    EXPECT_STREQ(LaunchReason::relaunchArgument, "-halvoRelaunchedAfterQuit");
    ASSERT_EQ(LaunchReason::afterQuitArguments.size(), 1U);
    EXPECT_STREQ(LaunchReason::afterQuitArguments.front(), "--after-quit");
}

}  // namespace
}  // namespace halvo
