// What the helper answers to requests that no app makes, and what it says of itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HalvoHelper/Linux/Limits.hpp"
#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const std::string invalidArguments = "rejected org.freedesktop.DBus.Error.InvalidArgs: ";

class RequestTest : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_TRUE(helper.isRunning());
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
    }

    void expectRejection(const std::vector<std::string>& words, const std::string& text) {
        const ChildResult answer = world.ask(words);
        EXPECT_EQ(answer.status, Reply::rejected) << answer.output;
        EXPECT_EQ(answer.output, text + "\n");
    }

    World world;
    RunningHelper helper;
};

// What the helper says of each is held by its own tests.
TEST_F(RequestTest, MustHaveTheArgumentsOfItsMethod) {
    const std::vector<std::vector<std::string>> rows{
        {"raw", "Begin", "udd", "1", "1", "1"},
        {"raw", "Begin", "ssd", Place::app, "1", "1"},
        {"raw", "Begin", "sdx", Place::app, "1", "1"},
        {"raw", "Heartbeat", "u", "1"},
        {"raw", "Begin"},
        {"raw", "Begin", "s", Place::app},
        {"raw", "Begin", "sd", Place::app, "1"},
        {"raw", "Heartbeat"},
        {"raw", "End", "b", "true"},
        {"raw", "Status", "s", "all"},
        {"raw", "Heartbeat", "bb", "true", "true"},
    };
    for (const auto& words : rows) {
        const ChildResult answer = world.ask(words);
        EXPECT_EQ(answer.status, Reply::rejected) << answer.output;
        EXPECT_THAT(answer.output, StartsWith(invalidArguments));
    }
}

TEST_F(RequestTest, IsRefusedByNameWhenThereIsNoSuchThing) {
    EXPECT_THAT(world.ask({"raw", "Extend"}).output,
                AllOf(StartsWith("rejected org.freedesktop.DBus.Error.UnknownMethod"),
                      HasSubstr("Extend")));
    EXPECT_THAT(world.ask({"raw", "begin", "sdd", Place::app, "1", "1"}).output,
                StartsWith("rejected org.freedesktop.DBus.Error.UnknownMethod"));
    EXPECT_THAT(world.ask({"raw", "com.example.Other.Status"}).output,
                AllOf(StartsWith("rejected org.freedesktop.DBus.Error.UnknownMethod"),
                      HasSubstr("com.example.Other")));
    EXPECT_THAT(world
                    .ask({"raw", "org.freedesktop.DBus.Properties.Get", "ss",
                          "app.halvo.HalvoHelperXPC", "Holding"})
                    .status,
                Reply::rejected);
}

TEST_F(RequestTest, MustHaveFiniteDatesAndAStartThatCanBeCounted) {
    const std::string notFinite = " is not a finite number";
    for (const char* date : {"nan", "-nan", "inf", "-inf"}) {
        SCOPED_TRACE(date);
        expectRejection({"begin-at", Place::app, date, "1e9"},
                        invalidArguments + "until" + notFinite);
        expectRejection({"begin-at", Place::app, "1e9", date},
                        invalidArguments + "started" + notFinite);
        EXPECT_EQ(world.ask({"begin-at", "/Applications/Other.app", date, date}).status, Reply::no);
    }
    for (const char* date : {"253402300800", "1e300", "1.7976931348623157e308"}) {
        expectRejection({"begin-at", Place::app, "1e9", date},
                        invalidArguments + "started is after the year 9999");
    }
    EXPECT_FALSE(isLocked());
    EXPECT_FALSE(exists(Place::stateFolder));
    EXPECT_EQ(helper.count("Holding*"), 0);
    EXPECT_EQ(helper.count("error: Refused a begin for a bundle that isn't the caller's own"), 4);
}

TEST_F(RequestTest, MayEndWhatIsHeldByAnEndInTheFarPast) {
    for (const char* date : {"-1", "-62135769600", "-1e300", "-1.7976931348623157e308"}) {
        SCOPED_TRACE(date);
        EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
        EXPECT_TRUE(isLocked());
        const std::string now = std::to_string(secondsSince1970(wallNow()));
        EXPECT_EQ(world.ask({"begin-at", Place::app, date, now}).status, Reply::no);
        EXPECT_FALSE(isLocked());
        EXPECT_FALSE(exists(Place::stateFolder));
    }
}

TEST_F(RequestTest, MayHaveTheLastStartOfTheCalendar) {
    EXPECT_EQ(world.ask({"begin-at", Place::app, "253402300799", "253402300799"}).status,
              Reply::yes);
    EXPECT_TRUE(isLocked());
    EXPECT_EQ(world.end(), Reply::yes);
    for (const char* past : {"0", "-1", "-1e300"}) {
        EXPECT_EQ(world.ask({"begin-at", Place::app, "253402300799", past}).status, Reply::no);
    }
}

TEST_F(RequestTest, MustNotHaveAPathWithAZeroByteOrBrokenText) {
    for (const char* path : {"/Applications/Halvo.app\xFF", "\xC0\xAF/Halvo.app"}) {
        EXPECT_EQ(world.ask({"begin", path, "600", "0"}).status, Reply::rejected);
    }
    EXPECT_EQ(helper.count("Holding*"), 0);
}

TEST_F(RequestTest, MustNotHaveAPathThatIsLongerThanAnyPath) {
    const std::string longest(Limits::appPath, 'x');
    EXPECT_EQ(world.ask({"begin", longest, "600", "0"}).status, Reply::no);
    expectRejection({"begin", longest + "x", "600", "0"},
                    invalidArguments + "appPath is longer than any path");
    expectRejection({"huge", "1"}, invalidArguments + "appPath is longer than any path");
}

TEST_F(RequestTest, IsDescribedByTheHelper) {
    const ChildResult answer = world.ask({"raw", "org.freedesktop.DBus.Introspectable.Introspect"});
    EXPECT_EQ(answer.status, 0);
    EXPECT_THAT(answer.output,
                AllOf(HasSubstr(R"(<interface name="app.halvo.HalvoHelperXPC">)"),
                      HasSubstr(R"(<method name="Begin">)"),
                      HasSubstr(R"(<arg type="s" name="appPath" direction="in"/>)"),
                      HasSubstr(R"(<arg type="d" name="until" direction="in"/>)"),
                      HasSubstr(R"(<arg type="d" name="started" direction="in"/>)"),
                      HasSubstr(R"(<method name="Heartbeat">)"),
                      HasSubstr(R"(<arg type="b" name="sessionEnding" direction="in"/>)"),
                      HasSubstr(R"(<method name="End">)"), HasSubstr(R"(<method name="Status">)"),
                      HasSubstr(R"(<arg type="ad" name="until" direction="out"/>)")));
}

TEST_F(RequestTest, GetsTheStatusWithAnOptionalDate) {
    EXPECT_EQ(world.ask({"raw", "Status"}).output, "reply badb false [ ] false\n");
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_THAT(world.ask({"raw", "Status"}).output,
                AllOf(StartsWith("reply badb true [ 1"), HasSubstr(" ] true\n")));
    ASSERT_EQ(world.end(), Reply::yes);
}

TEST_F(RequestTest, IsAnsweredOnAConnectionThatHadAnErrorBefore) {
    const ChildResult answer = world.run({Place::caller, "talk", "Status", "Begin:udd", "End:b",
                                          "Missing", "Heartbeat:b", "Begin:sdd", "Status"});
    EXPECT_EQ(answer.output,
              "badb\n"
              "org.freedesktop.DBus.Error.InvalidArgs\n"
              "org.freedesktop.DBus.Error.InvalidArgs\n"
              "org.freedesktop.DBus.Error.UnknownMethod\n"
              "b\n"
              "b\n"
              "badb\n");
}

TEST_F(RequestTest, IsAnsweredWhenItComesTogetherWithTheAuthentication) {
    EXPECT_EQ(world.ask({"at-once"}).output, "answered\n");
}

TEST_F(RequestTest, IsDoneAlsoWhenNoReplyIsWanted) {
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    const ChildResult answer = world.run({Place::caller, "talk", "!Begin:udd", "!Heartbeat",
                                          "!Missing", "!End", "!Status", "Status"});
    EXPECT_EQ(answer.output, "sent\nsent\nsent\nsent\nsent\nbadb\n");
    EXPECT_EQ(helper.count("Ultra Hard mode let go: ended"), 1);
}

TEST(FarEndTest, IsGrantedUpToTheCapAndTakenUpAgainByTheNextHelper) {
    const World world;
    for (const char* date : {"64092211200", "253402300800", "1e300", "1.7976931348623157e308"}) {
        SCOPED_TRACE(date);
        const double now = secondsSince1970(wallNow());
        RunningHelper first;
        EXPECT_EQ(world.ask({"begin-at", Place::app, date, std::to_string(now)}).status,
                  Reply::yes);
        EXPECT_TRUE(isLocked());
        EXPECT_NEAR(world.status().until.value_or(0), now + 86400, 1);
        EXPECT_EQ(first.terminate(), 75);
        const RunningHelper second;
        EXPECT_NEAR(world.status().until.value_or(0), now + 86400, 1);
        EXPECT_EQ(world.end(), Reply::yes);
        EXPECT_FALSE(isLocked());
    }
}

}  // namespace
}  // namespace halvo::testing
