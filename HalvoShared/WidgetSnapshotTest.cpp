#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::nineOClock;
using testing::readTestFile;
using testing::sampleRun;
using testing::sampleSnapshot;
using testing::TemporaryFolder;
using testing::writeTestFile;
using S = WidgetSnapshot;

const std::string golden = HALVO_GOLDEN "/widgets.json";

// Runs that can be told apart, from nine and from noon.
const S::State fromNine = S::Block{sampleRun(std::nullopt)};
const S::State fromNoon = S::Focus{sampleRun(std::nullopt)};
constexpr Seconds hour{3600};
constexpr WallDate noon = nineOClock + hour * 3;

S twoPhases() {
    S snapshot;
    snapshot.phases = {{nineOClock, fromNine}, {noon, fromNoon}};
    return snapshot;
}

TEST(WidgetSnapshotTest, IsWrittenAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(sampleSnapshot()).value(), readTestFile(golden));
}

TEST(WidgetSnapshotTest, IsReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::decode<S>(readTestFile(golden)), sampleSnapshot());
}

TEST(WidgetSnapshotTest, EachOfItsStatesComesBackTheSame) {
    for (const S::Phase& phase : sampleSnapshot().phases) {
        const std::string json = JSON::encode(phase.state).value();
        EXPECT_EQ(JSON::decode<S::State>(json), phase.state) << json;
    }
}

TEST(WidgetSnapshotTest, AStateIsAnObjectWithOneKey) {
    const S::Running run{.name = "Work",
                         .names = {},
                         .look = std::nullopt,
                         .start = nineOClock,
                         .end = std::nullopt,
                         .level = S::Level::firm,
                         .listNames = {},
                         .unlock = std::nullopt};
    const std::string body = R"({"_0":{"level":"firm","listNames":[],"name":"Work","names":[],)"
                             R"("start":"2026-11-20T09:00:00Z"}}})";
    EXPECT_EQ(JSON::encode(S::State(S::Block{run})).value(), R"({"block":)" + body);
    EXPECT_EQ(JSON::encode(S::State(S::Focus{run})).value(), R"({"focus":)" + body);
    EXPECT_EQ(JSON::encode(S::State(S::FocusFilter{run})).value(), R"({"focusFilter":)" + body);
    EXPECT_EQ(JSON::encode(S::State(S::NothingScheduled{})).value(), R"({"nothingScheduled":{}})");
    EXPECT_EQ(JSON::encode(S::State(S::NoBlocks{})).value(), R"({"noBlocks":{}})");
}

TEST(WidgetSnapshotTest, AnUpcomingBlockIsAnObjectWithOneKeyToo) {
    const S::Upcoming upcoming{.name = "Night",
                               .look = S::Look{"blue", "moon"},
                               .start = nineOClock,
                               .end = noon,
                               .level = S::Level::ultraHard};
    const std::string json = R"({"next":{"_0":{"end":"2026-11-20T12:00:00Z","level":"ultraHard",)"
                             R"("look":{"color":"blue","symbol":"moon"},"name":"Night",)"
                             R"("start":"2026-11-20T09:00:00Z"}}})";
    EXPECT_EQ(JSON::encode(S::State(S::Next{upcoming})), json);
    EXPECT_EQ(JSON::decode<S::State>(json), S::State(S::Next{upcoming}));
}

TEST(WidgetSnapshotTest, AStateWithoutAKeyFails) {
    EXPECT_EQ(JSON::decode<S::State>("{}").error().problem,
              "Invalid number of keys found, expected one.");
}

TEST(WidgetSnapshotTest, AStateWithABlockAndAFocusFails) {
    const auto error = JSON::decode<S::State>(R"({"block":{"_0":{}},"focus":{"_0":{}}})").error();
    EXPECT_EQ(error.kind, JSON::DecodingError::Kind::TypeMismatch);
    EXPECT_EQ(error.problem, "Invalid number of keys found, expected one.");
}

TEST(WidgetSnapshotTest, ARunWithoutAnEndGoesOnUntilSomebodyEndsIt) {
    const auto state = JSON::decode<S::State>(
        R"({"focus":{"_0":{"level":"firm","listNames":[],"name":"Work","names":[],)"
        R"("start":"2026-11-20T09:00:00Z"}}})");
    ASSERT_TRUE(state.has_value());
    EXPECT_EQ(std::get<S::Focus>(*state).running.end, std::nullopt);
}

TEST(WidgetSnapshotTest, AListWithoutALookFails) {
    const auto error =
        JSON::decode<S::ListItem>(R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"Mail"})");
    ASSERT_FALSE(error.has_value());
    EXPECT_EQ(error.error().path, "look");
}

TEST(WidgetSnapshotTest, AnIdentifierIsReadInEitherCaseAndWrittenInUpperCase) {
    const auto item = JSON::decode<S::ListItem>(
        R"({"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","look":{"color":"","symbol":""},"name":""})");
    ASSERT_TRUE(item.has_value());
    EXPECT_NE(JSON::encode(*item).value().find("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"),
              std::string::npos);
}

TEST(WidgetSnapshotTest, ALevelIsOneOfThree) {
    EXPECT_EQ(JSON::decode<S::Level>("\"gentle\""), S::Level::gentle);
    EXPECT_EQ(JSON::decode<S::Level>("\"firm\""), S::Level::firm);
    EXPECT_EQ(JSON::decode<S::Level>("\"ultraHard\""), S::Level::ultraHard);
    EXPECT_FALSE(JSON::decode<S::Level>("\"ultrahard\""));
    EXPECT_FALSE(JSON::decode<S::Level>("2"));
}

// Removes the member `key` with its value from each object of the golden file that has it, one at
// a time, and says how many there were.
template <class Check>
int withoutEach(const std::string& key, Check check) {
    const std::string whole = readTestFile(golden);
    const std::string start = "\"" + key + "\":";
    int count = 0;
    for (std::size_t at = whole.find(start); at != std::string::npos;
         at = whole.find(start, at + 1), ++count) {
        std::size_t end = at + start.size();
        int depth = 0;
        bool isText = false;
        for (; depth > 0 || isText || (whole[end] != ',' && whole[end] != '}'); ++end) {
            if (isText) {
                isText = whole[end] != '"' || whole[end - 1] == '\\';
            } else {
                isText = whole[end] == '"';
                depth += whole[end] == '{' || whole[end] == '[' ? 1 : 0;
                depth -= whole[end] == '}' || whole[end] == ']' ? 1 : 0;
            }
        }
        std::string json = whole;
        const bool isLast = whole[end] == '}' && whole[at - 1] == ',';
        json.erase(isLast ? at - 1 : at, end - at + (whole[end] == ',' || isLast ? 1 : 0));
        check(json);
    }
    return count;
}

TEST(WidgetSnapshotTest, CannotBeReadWithoutARequiredMember) {
    int count = 0;
    for (const char* key : {"writtenAt", "isRunning", "blockCount",   "phases",  "horizon",
                            "days",      "breathe",   "focusMinutes", "lists",   "blocks",
                            "start",     "state",     "name",         "names",   "level",
                            "listNames", "color",     "symbol",       "breaths", "minutesBreathed",
                            "stayedOff", "style",     "minutes",      "id",      "isEnabled",
                            "_0"}) {
        const int found = withoutEach(key, [key](const std::string& json) {
            const auto snapshot = JSON::decode<S>(json);
            ASSERT_FALSE(snapshot.has_value()) << key;
            EXPECT_EQ(snapshot.error().kind, JSON::DecodingError::Kind::MissingMember) << json;
            EXPECT_TRUE(snapshot.error().path.ends_with(key)) << snapshot.error().path;
        });
        EXPECT_GT(found, 0) << key;
        count += found;
    }
    EXPECT_GT(count, 50);
}

// The way to what keeps a T from being read.
template <class T>
std::string badMemberOf(const std::string& json) {
    const auto value = JSON::decode<T>(json);
    return value ? "none" : value.error().path;
}

TEST(WidgetSnapshotTest, CannotBeReadWithoutWhatIsOptionalOnlyElsewhere) {
    EXPECT_EQ(badMemberOf<S::Unlock>(R"({"name":"A"})"), "end");
    EXPECT_EQ(
        badMemberOf<S::Upcoming>(R"({"level":"firm","name":"A","start":"2026-11-20T09:00:00Z"})"),
        "end");
    EXPECT_EQ(badMemberOf<S::BlockItem>(R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
                                        R"("isEnabled":true,"isRunning":false,"level":"firm",)"
                                        R"("name":"A"})"),
              "look");
}

TEST(WidgetSnapshotTest, CannotBeReadWithAMemberOfAnotherType) {
    const std::string whole = readTestFile(golden);
    int count = 0;
    // In the place of every value there is, one of a type that no member has.
    for (std::size_t colon = whole.find("\":"); colon != std::string::npos;
         colon = whole.find("\":", colon + 1), ++count) {
        std::string json = whole;
        json.insert(colon + 2, "0.5,\"unknown\":");
        ASSERT_FALSE(JSON::decode<S>(json)) << json;
    }
    EXPECT_GT(count, 80);
}

TEST(WidgetSnapshotTest, AFileWithAnyFaultIsNotReadAtAll) {
    const TemporaryFolder folder;
    const SharedFile<S> file("widgets.json", folder.path());
    std::string json = readTestFile(golden);
    json.replace(json.rfind("\"firm\""), 6, "\"mild\"");
    writeTestFile(file.url(), json);
    EXPECT_EQ(file.read(), std::nullopt);
    EXPECT_EQ(file.load().error(),
              file.url() +
                  ": phases[1].state.focus._0.level: Expected one of \"gentle\", "
                  "\"firm\", \"ultraHard\", found \"mild\"");
}

TEST(WidgetSnapshotTest, HasAPhasesStateFromItsStartOn) {
    EXPECT_EQ(twoPhases().state(nineOClock), fromNine);
    EXPECT_EQ(twoPhases().state(noon), fromNoon);
    EXPECT_EQ(twoPhases().state(noon - Seconds{0.001}), fromNine);
    EXPECT_EQ(twoPhases().state(nineOClock + hour * 4), fromNoon);
}

TEST(WidgetSnapshotTest, HasTheFirstPhasesStateBeforeIt) {
    EXPECT_EQ(twoPhases().state(nineOClock - hour), fromNine);
    EXPECT_EQ(twoPhases().state(wallDate(-1e300)), fromNine);
}

TEST(WidgetSnapshotTest, HasNoBlocksWithoutAPhase) {
    for (const double date : {-1e300, 0.0, 1795165200.0, 1e300}) {
        EXPECT_EQ(S().state(wallDate(date)), S::State(S::NoBlocks{}));
    }
}

TEST(WidgetSnapshotTest, HasTheLastOfPhasesThatStartTogether) {
    S snapshot = twoPhases();
    snapshot.phases[1].start = nineOClock;
    EXPECT_EQ(snapshot.state(nineOClock), fromNoon);
}

TEST(WidgetSnapshotTest, ADayIsEmptyWhenNothingWasDone) {
    EXPECT_TRUE((S::Day{nineOClock, 0, 0, 0}.isEmpty()));
    EXPECT_FALSE((S::Day{nineOClock, 1, 0, 0}.isEmpty()));
    EXPECT_FALSE((S::Day{nineOClock, 0, 1, 0}.isEmpty()));
    EXPECT_FALSE((S::Day{nineOClock, 0, 0, 1}.isEmpty()));
}

TEST(WidgetSnapshotTest, KnowsTheKindsOfWidgetsAndControls) {
    EXPECT_STREQ(S::Kind::status, "app.halvo.widget.status");
    EXPECT_STREQ(S::Kind::breathe, "app.halvo.widget.breathe");
    EXPECT_STREQ(S::Kind::breatheControl, "app.halvo.control.breathe");
    EXPECT_STREQ(S::Kind::focusControl, "app.halvo.control.focus");
}

TEST(WidgetSnapshotTest, LiesInTheContainerUnderItsName) {
    const testing::TemporaryFolder home;
    const auto child = testing::runInChild([&home] {
        ASSERT_EQ(setenv("XDG_DATA_HOME", home.path().c_str(), 1), 0);
        EXPECT_EQ(S::file().url(), AppGroup::container() + "/widgets.json");
        EXPECT_TRUE(S::file().url().starts_with(home.path()));
        EXPECT_EQ(&S::file(), &S::file());
    });
    EXPECT_EQ(child.status, 0) << child.output;
}

TEST(WidgetSnapshotTest, StaysWhereTheContainerWasAtItsFirstUse) {
    const testing::TemporaryFolder home;
    const testing::TemporaryFolder other;
    const auto child = testing::runInChild([&] {
        ASSERT_EQ(setenv("XDG_DATA_HOME", home.path().c_str(), 1), 0);
        const std::string first = S::file().url();
        ASSERT_EQ(setenv("XDG_DATA_HOME", other.path().c_str(), 1), 0);
        ASSERT_TRUE(AppGroup::container().starts_with(other.path()));
        EXPECT_EQ(S::file().url(), first);
    });
    EXPECT_EQ(child.status, 0) << child.output;
}

}  // namespace
}  // namespace halvo
