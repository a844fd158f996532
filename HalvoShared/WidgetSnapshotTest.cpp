#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <utility>

#include "HalvoShared/Coding.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tests/Support/Durations.hpp"
#include "tests/Support/SampleSnapshot.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::hour;
using testing::nineOClock;
using testing::readTestFile;
using testing::sampleRun;
using testing::sampleSnapshot;
using S = WidgetSnapshot;

const std::string widgetsGolden = HALVO_GOLDEN "/widgets.json";

// Runs that can be told apart, from nine and from noon.
const S::State fromNine = S::Block{sampleRun(std::nullopt)};
const S::State fromNoon = S::Focus{sampleRun(std::nullopt)};
constexpr WallDate noon = nineOClock + hour * 3;

S twoPhases() {
    S snapshot;
    snapshot.phases = {{nineOClock, fromNine}, {noon, fromNoon}};
    return snapshot;
}

TEST(WidgetSnapshotTest, IsWrittenAndReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(sampleSnapshot()).value(), readTestFile(widgetsGolden));
    EXPECT_EQ(JSON::decode<S>(readTestFile(widgetsGolden)), sampleSnapshot());
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
    const S::Upcoming upcoming{.name = "Night",
                               .look = S::Look{"blue", "moon"},
                               .start = nineOClock,
                               .end = noon,
                               .level = S::Level::ultraHard};
    const std::string body = R"({"_0":{"level":"firm","listNames":[],"name":"Work","names":[],)"
                             R"("start":"2026-11-20T09:00:00Z"}}})";

    const std::pair<S::State, std::string> rows[] = {
        {S::Block{run}, R"({"block":)" + body},
        {S::Focus{run}, R"({"focus":)" + body},
        {S::FocusFilter{run}, R"({"focusFilter":)" + body},
        {S::Next{upcoming}, R"({"next":{"_0":{"end":"2026-11-20T12:00:00Z","level":)"
                            R"("ultraHard","look":{"color":"blue","symbol":"moon"},"name":)"
                            R"("Night","start":"2026-11-20T09:00:00Z"}}})"},
        {S::NothingScheduled{}, R"({"nothingScheduled":{}})"},
        {S::NoBlocks{}, R"({"noBlocks":{}})"}};
    for (const auto& [state, json] : rows) {
        EXPECT_EQ(JSON::encode(state), json);
        EXPECT_EQ(JSON::decode<S::State>(json), state);
    }
}

TEST(WidgetSnapshotTest, CannotBeReadWithoutARequiredMemberOrWithOneOfAnotherType) {
    const std::string whole = readTestFile(widgetsGolden);
    std::map<std::string, int> missable;
    std::set<std::string> required;
    for (std::size_t end = whole.find("\":"); end != std::string::npos;
         end = whole.find("\":", end + 1)) {
        std::string json = whole;
        // A type that no member has.
        ASSERT_FALSE(JSON::decode<S>(json.insert(end + 2, "0.5,\"unknown\":"))) << json;
        const std::size_t start = whole.rfind('"', end - 1) + 1;
        const std::string key = whole.substr(start, end - start);
        json = whole;
        const auto snapshot = JSON::decode<S>(json.replace(start, key.size(), "unknown"));
        if (snapshot) {
            ++missable[key];
        } else if (snapshot.error().problem == "This is missing") {
            EXPECT_TRUE(snapshot.error().path.ends_with(key)) << snapshot.error().path;
            required.insert(key);
        }
    }
    // Of two runs; what has these names elsewhere is required.
    EXPECT_EQ(missable, (std::map<std::string, int>{{"end", 2}, {"look", 2}, {"unlock", 2}}));
    EXPECT_TRUE(required.contains("end") && required.contains("look"));
    EXPECT_EQ(required.size(), 28U);
}

TEST(WidgetSnapshotTest, HasTheStateOfTheLastPhaseThatHasStarted) {
    const std::pair<WallDate, S::State> rows[] = {{nineOClock, fromNine},
                                                  {noon, fromNoon},
                                                  {noon - Seconds{0.001}, fromNine},
                                                  {noon + hour, fromNoon},
                                                  // Before the first it is the first's.
                                                  {nineOClock - hour, fromNine},
                                                  {wallDate(-1e300), fromNine}};
    for (const auto& [date, state] : rows) {
        EXPECT_EQ(twoPhases().state(date), state);
        EXPECT_EQ(S().state(date), S::State(S::NoBlocks{}));
    }
    S snapshot = twoPhases();
    snapshot.phases[1].start = nineOClock;
    EXPECT_EQ(snapshot.state(nineOClock), fromNoon) << "the last of two that start together";
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

}  // namespace
}  // namespace halvo
