#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

#include "HalvoShared/JSON.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::hour;
using testing::nineOClock;
using testing::readTestFile;

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

// The same with one thing otherwise.
template <class Value>
KeepAliveState with(Value KeepAliveState::* member, std::type_identity_t<Value> value) {
    KeepAliveState state = killed();
    state.*member = value;
    return state;
}

const KeepAliveState released = with(&KeepAliveState::appReleased, true);

const std::string keepAliveGolden = HALVO_GOLDEN "/keepalive.json";

TEST(KeepAliveStateTest, IsWrittenAndReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(released), readTestFile(keepAliveGolden));
    EXPECT_EQ(JSON::decode<KeepAliveState>(readTestFile(keepAliveGolden)), released);
}

TEST(KeepAliveStateTest, WritesNoKeyForACommitmentThatIsAbsentAndTakesNullForOne) {
    const KeepAliveState state = with(&KeepAliveState::commitmentUntil, std::nullopt);
    std::string json =
        R"({"appPath":"/Applications/Halvo.app","appReleased":false,"bypassNoted":false,)"
        R"("clean":false,"pid":4711,"ultraHard":true,"updatedAt":"2026-11-20T09:00:00Z"})";
    EXPECT_EQ(JSON::encode(state), json);
    EXPECT_EQ(JSON::decode<KeepAliveState>(json.insert(1, "\"commitmentUntil\":null,")), state);
}

TEST(KeepAliveStateTest, IsNeitherReleasedNorNotedInAFileFromBeforeTheseWereRecorded) {
    for (const std::string start : {"{", R"({"appReleased":null,"bypassNoted":null,)"}) {
        const auto state = JSON::decode<KeepAliveState>(
            start + R"("appPath":"/Applications/Halvo.app","clean":false,"commitmentUntil":)"
                    R"("2026-11-20T10:00:00Z","pid":4711,"ultraHard":true,"updatedAt":)"
                    R"("2026-11-20T09:00:00Z"})");
        EXPECT_EQ(state, killed());
    }
}

TEST(KeepAliveStateTest, CannotBeReadWithoutARequiredMember) {
    const std::pair<std::string, bool> rows[] = {{"appPath", true},          {"appReleased", false},
                                                 {"bypassNoted", false},     {"clean", true},
                                                 {"commitmentUntil", false}, {"pid", true},
                                                 {"ultraHard", true},        {"updatedAt", true}};
    for (const auto& [member, isRequired] : rows) {
        std::string json = readTestFile(keepAliveGolden);
        json.replace(json.find('"' + member + '"'), member.size() + 2, "\"other\"");
        const auto state = JSON::decode<KeepAliveState>(json);
        EXPECT_EQ(state.has_value(), !isRequired) << member;
        EXPECT_TRUE(state || state.error().problem == "This is missing");
    }
}

TEST(KeepAliveStateTest, AsksForARelaunchUntilTheCommitmentEnds) {
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock));
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock + hour - Seconds{0.001}));
    EXPECT_FALSE(killed().shouldRelaunch(nineOClock + hour));
    EXPECT_FALSE(with(&KeepAliveState::clean, true).shouldRelaunch(nineOClock));
    EXPECT_FALSE(with(&KeepAliveState::commitmentUntil, {}).shouldRelaunch(nineOClock));
}

TEST(KeepAliveStateTest, WasBypassedAfterMoreThanTwoMinutesOfSilenceThatBeganInTheCommitment) {
    const WallDate late = nineOClock + hour / 2;

    const struct {
        KeepAliveState state;
        WallDate date;
        bool wasBypassed;
    } rows[] = {{killed(), nineOClock, false},
                {killed(), nineOClock + twoMinutes, false},
                {killed(), nineOClock + twoMinutes + Seconds{0.001}, true},
                {with(&KeepAliveState::clean, true), late, false},
                {with(&KeepAliveState::ultraHard, false), late, false},
                {with(&KeepAliveState::commitmentUntil, std::nullopt), late, false},
                {with(&KeepAliveState::commitmentUntil, nineOClock), late, false},
                {with(&KeepAliveState::commitmentUntil, nineOClock + Seconds{0.001}), late, true}};

    for (const auto& row : rows) {
        EXPECT_EQ(row.state.wasBypassed(false, row.date), row.wasBypassed) << &row - rows;
        EXPECT_FALSE(row.state.wasBypassed(true, row.date)) << "opened again by the agent";
    }
}

TEST(KeepAliveStateTest, MayOpenFromTheTrashOnlyWhileItIsHeld) {
    // The trash is known by the text alone.
    const std::pair<const char*, bool> rows[] = {{"/Users/ann/.Trash/Halvo.app", true},
                                                 {"/Users/ann/.Trash/Folder/Halvo.app", true},
                                                 {"/.Trash/", true},
                                                 {"/Applications/Halvo.app", false},
                                                 {"/Users/ann/.trash/Halvo.app", false},
                                                 {"/Users/ann/.Trashes/Halvo.app", false},
                                                 {"/Users/ann/x.Trash/Halvo.app", false},
                                                 {"", false}};
    for (const auto& [path, isInTrash] : rows) {
        KeepAliveState state;
        EXPECT_EQ(state.mayOpen(path), !isInTrash) << path;
        state.ultraHard = true;
        EXPECT_TRUE(state.mayOpen(path)) << path;
        state.appReleased = true;
        EXPECT_EQ(state.mayOpen(path), !isInTrash) << path;
        state.ultraHard = false;
        EXPECT_EQ(state.mayOpen(path), !isInTrash) << path;
    }
}

TEST(LaunchReasonTest, HasTheArgumentsThatTheAppKnows) {
    EXPECT_STREQ(LaunchReason::relaunchArgument, "-halvoRelaunchedAfterQuit");
    ASSERT_EQ(LaunchReason::afterQuitArguments.size(), 1U);
    EXPECT_STREQ(LaunchReason::afterQuitArguments.front(), "--after-quit");
}

}  // namespace
}  // namespace halvo
