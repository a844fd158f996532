#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>

#include "HalvoShared/Coding.hpp"
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

TEST(WidgetSnapshotTest, IsWrittenAndReadAsItAlwaysWas) {
    EXPECT_EQ(JSON::encode(sampleSnapshot()).value(), readTestFile(golden));
    EXPECT_EQ(JSON::decode<S>(readTestFile(golden)), sampleSnapshot());
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

TEST(WidgetSnapshotTest, ALevelIsOneOfThree) {
    EXPECT_EQ(JSON::decode<S::Level>("\"gentle\""), S::Level::gentle);
    EXPECT_EQ(JSON::decode<S::Level>("\"firm\""), S::Level::firm);
    EXPECT_EQ(JSON::decode<S::Level>("\"ultraHard\""), S::Level::ultraHard);
    EXPECT_FALSE(JSON::decode<S::Level>("\"ultrahard\""));
    EXPECT_FALSE(JSON::decode<S::Level>("2"));
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
    const std::string id = R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","name":"A")";
    EXPECT_EQ(badMemberOf<S::ListItem>(id + "}"), "look");
    EXPECT_EQ(
        badMemberOf<S::BlockItem>(id + R"(,"isEnabled":true,"isRunning":false,"level":"firm"})"),
        "look");
}

// Calls `check` for each member of the objects in `json`, which lacks it meanwhile.
void withoutEach(nlohmann::json& json, const std::function<void(const std::string&)>& check) {
    if (json.is_object()) {
        const auto members = json.get<std::map<std::string, nlohmann::json>>();
        for (const auto& [key, value] : members) {
            json.erase(key);
            check(key);
            json[key] = value;
        }
    }
    if (json.is_structured()) {
        for (nlohmann::json& part : json) {
            withoutEach(part, check);
        }
    }
}

TEST(WidgetSnapshotTest, CannotBeReadWithoutARequiredMember) {
    const std::set<std::string> notRequired{"look",    "end",         "unlock", "block",
                                            "focus",   "focusFilter", "next",   "nothingScheduled",
                                            "noBlocks"};
    std::map<std::string, int> counts;
    auto whole = nlohmann::json::parse(readTestFile(golden));
    withoutEach(whole, [&](const std::string& key) {
        if (!notRequired.contains(key)) {
            const auto snapshot = JSON::decode<S>(whole.dump());
            ASSERT_FALSE(snapshot.has_value()) << key;
            EXPECT_EQ(snapshot.error().kind, JSON::Error::Kind::MissingMember) << key;
            EXPECT_TRUE(snapshot.error().path.ends_with(key)) << snapshot.error().path;
            ++counts[key];
        }
    });
    EXPECT_EQ(counts.size(), 26U);
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
