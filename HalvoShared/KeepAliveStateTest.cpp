#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

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

// The same with one thing otherwise.
template <class Value>
KeepAliveState with(Value KeepAliveState::* member, std::type_identity_t<Value> value) {
    KeepAliveState state = killed();
    state.*member = value;
    return state;
}

const KeepAliveState released = with(&KeepAliveState::appReleased, true);

const std::string golden = HALVO_GOLDEN "/keepalive.json";

std::string without(const std::string& member) {
    std::string json = readTestFile(golden);
    const std::size_t place = json.find(member);
    EXPECT_NE(place, std::string::npos) << member;
    return json.erase(place, member.size());
}

TEST(KeepAliveStateTest, IsWrittenAndReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(released), readTestFile(golden));
    EXPECT_EQ(JSON::decode<KeepAliveState>(readTestFile(golden)), released);
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
    for (const char* member :
         {R"("appPath":"/Applications/Halvo.app",)", R"("clean":false,)", R"("pid":4711,)",
          R"("ultraHard":true,)", R"(,"updatedAt":"2026-11-20T09:00:00Z")"}) {
        const auto state = JSON::decode<KeepAliveState>(without(member));
        ASSERT_FALSE(state.has_value()) << member;
        EXPECT_EQ(state.error().problem, "This is missing");
    }
}

TEST(KeepAliveStateTest, CannotBeReadWithAMemberOfAnotherType) {
    const std::pair<std::string, const char*> rows[] = {
        {"4711", "\"4711\""},
        {"4711", "2147483648"},
        {"4711", "47.11"},
        {"4711", "null"},
        {"\"/Applications/Halvo.app\"", "5"},
        {"\"clean\":false", "\"clean\":0"},
        {"\"clean\":false", "\"clean\":null"},
        {"\"appReleased\":true", "\"appReleased\":1"},
        {"\"bypassNoted\":false", "\"bypassNoted\":\"no\""},
        {"\"2026-11-20T10:00:00Z\"", "1795165200"},
        {"\"2026-11-20T10:00:00Z\"", "\"10:00\""},
        {"\"2026-11-20T09:00:00Z\"", "\"2026-11-20T09:00:00.5Z\""},
        {"\"2026-11-20T09:00:00Z\"", "null"},
        {"{", "[{"}};
    for (const auto& [from, to] : rows) {
        std::string json = readTestFile(golden);
        json.replace(json.find(from), from.size(), to);
        EXPECT_FALSE(JSON::decode<KeepAliveState>(json)) << json;
    }
}

TEST(KeepAliveStateTest, AsksForARelaunchUntilTheCommitmentEnds) {
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock));
    EXPECT_TRUE(killed().shouldRelaunch(nineOClock + hour - Seconds{0.001}));
    EXPECT_FALSE(killed().shouldRelaunch(nineOClock + hour));
    EXPECT_FALSE(killed().shouldRelaunch(nineOClock + hour * 2));
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
                {killed(), nineOClock + hour * 48, true},
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
    for (const char* path : {"/Users/ann/.Trash/Folder/Halvo.app", "/.Trash/"}) {
        EXPECT_FALSE(released.mayOpen(path)) << path;
    }
    for (const char* path :
         {"/Users/ann/.trash/Halvo.app", "/Users/ann/.TRASH/Halvo.app", "/Users/ann/.Trash",
          "/Users/ann/.Trashes/Halvo.app", "/Users/ann/x.Trash/Halvo.app", ""}) {
        EXPECT_TRUE(released.mayOpen(path)) << path;
    }
}

TEST(LaunchReasonTest, HasTheArgumentsThatTheAppKnows) {
    EXPECT_STREQ(LaunchReason::relaunchArgument, "-halvoRelaunchedAfterQuit");
    ASSERT_EQ(LaunchReason::afterQuitArguments.size(), 1U);
    EXPECT_STREQ(LaunchReason::afterQuitArguments.front(), "--after-quit");
}

}  // namespace
}  // namespace halvo
