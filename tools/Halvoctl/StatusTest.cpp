#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;

class StatusTest : public ::testing::Test {
  protected:
    std::string text() {
        return statusText(fake.machine, observe(fake.machine),
                          *GregorianCalendar::named("Europe/Berlin"));
    }

    std::string jsonText() { return statusJSON(fake.machine, observe(fake.machine)); }

    Json json() { return Json::parse(jsonText()); }

    FakeMachine fake;
};

TEST_F(StatusTest, SaysThatNothingHolds) {
    EXPECT_EQ(text(),
              "com.example.app: Nothing holds.\n"
              "  app         " +
                  fake.app +
                  ", unlocked\n"
                  "  helper      does not run; it starts when the app calls\n"
                  "  state file  none (" +
                  fake.machine.stateFile +
                  ")\n"
                  "  version     " +
                  version +
                  "\n"
                  "The bundle is not locked.\n");
}

TEST_F(StatusTest, SaysWhatHolds) {
    fake.hold();
    fake.processes.processes = {12};
    EXPECT_EQ(text(),
              "com.example.app: Ultra Hard mode holds for ann (uid 1000), for another 1:02:05.\n"
              "  until       2025-10-09 11:55:25 +02:00\n"
              "  started     2025-10-09 10:53:20 +02:00\n"
              "  app         " +
                  fake.app +
                  ", locked\n"
                  "  helper      runs, pid 12\n"
                  "  state file  " +
                  fake.machine.stateFile +
                  ", whole\n"
                  "  version     " +
                  version +
                  "\n"
                  "The bundle is locked, as the record says.\n");
}

TEST_F(StatusTest, SaysWhichHelperIsStopped) {
    fake.processes.processes = {12, 13};
    fake.processes.stopped = {13};
    EXPECT_THAT(text(), HasSubstr("runs, pids 12 and 13; stopped (SIGSTOP): pid 13\n"));
    EXPECT_EQ(json()["helper"]["stopped"], Json::array({13}));
}

TEST_F(StatusTest, CountsTheTimeAsTheHelperDoes) {
    fake.hold();
    fake.world.clock.advance(Seconds{125});
    EXPECT_THAT(text(), HasSubstr("for another 1:00:00.\n  until       2025-10-09 11:55:25"));
}

TEST_F(StatusTest, SaysOfWhatRanOutThatItIsStillStored) {
    fake.hold(Seconds{100}).uid = 4711;
    fake.world.clock.advance(Seconds{200});
    EXPECT_THAT(
        text(),
        StartsWith(
            "com.example.app: Nothing holds: the time of uid 4711 has run out, but the record is "
            "still there.\n  until then  2025-10-09 10:55:00 +02:00\n"));
    EXPECT_THAT(text(), HasSubstr("The helper lets go of it when it starts next: start-helper\n"));
}

TEST_F(StatusTest, SaysWhatCannotBeRead) {
    fake.world.store.stored = UnreadableCommitment{};
    EXPECT_THAT(
        text(),
        StartsWith("com.example.app: The state file is damaged: what it held cannot be told.\n"));
    EXPECT_THAT(text(), HasSubstr("commitment.json, damaged\n"));
    fake.world.store.stored = NoCommitment{};
    std::filesystem::create_directories(fake.machine.stateFile);
    EXPECT_THAT(
        text(),
        StartsWith("com.example.app: The state file cannot be read; the helper takes that for "
                   "nothing.\n"));
    EXPECT_EQ(json()["stateFile"]["condition"], "unreadable");
}

TEST_F(StatusTest, SaysThatThereIsNoApp) {
    std::filesystem::remove_all(fake.app);
    EXPECT_THAT(text(), HasSubstr("  app         none in " + fake.applications + "\n"));
    EXPECT_EQ(json()["apps"], Json::array());
}

TEST_F(StatusTest, HoldsNothingThatATerminalObeys) {
    fake.hold().appPath = "/Applications/\x1B[2J\n.app";
    fake.machine.userName = [](std::uint32_t) { return std::string("a\x07"); };
    EXPECT_THAT(text(), HasSubstr("/Applications/\\u001b[2J\\n.app, missing"));
    EXPECT_THAT(text(), HasSubstr("a\\u0007 (uid 1000)"));
    EXPECT_EQ(json()["commitment"]["app"], "/Applications/\x1B[2J\n.app");
    EXPECT_EQ(jsonText().find('\x1B'), std::string::npos);
}

TEST_F(StatusTest, IsOneObjectWithSortedKeys) {
    fake.hold();
    fake.processes.processes = {12, 13};
    EXPECT_EQ(jsonText(), R"({
  "apps": [
    {
      "agrees": true,
      "finding": "The bundle is locked, as the record says.",
      "flag": "locked",
      "next": "",
      "path": ")" + fake.app + R"("
    }
  ],
  "commitment": {
    "app": ")" + fake.app + R"(",
    "holds": true,
    "left": 3725.0,
    "locked": true,
    "started": "2025-10-09T08:53:20Z",
    "uid": 1000,
    "until": "2025-10-09T09:55:25Z",
    "user": "ann"
  },
  "helper": {
    "executable": ")" + fake.machine.helper +
                              R"(",
    "identifier": "com.example.app.helper",
    "pids": [
      12,
      13
    ],
    "starts": null,
    "stopped": []
  },
  "now": "2025-10-09T08:53:20Z",
  "salvaged": null,
  "stateFile": {
    "condition": "whole",
    "path": ")" + fake.machine.stateFile +
                              R"("
  },
  "version": ")" + version + R"("
}
)");
}

TEST_F(StatusTest, HasNullForWhatIsNot) {
    EXPECT_EQ(json()["commitment"], nullptr);
    EXPECT_EQ(json()["helper"]["starts"], "it starts when the app calls");
    fake.hold().uid = 4711;
    EXPECT_EQ(json()["commitment"]["user"], nullptr);
    auto& endless = fake.hold();
    endless.remaining = endless.capRemaining = Seconds{std::numeric_limits<double>::infinity()};
    EXPECT_EQ(json()["commitment"]["until"], nullptr);
    EXPECT_EQ(json()["commitment"]["left"], nullptr);
    fake.world.store.stored = UnreadableCommitment{std::nullopt, true};
    EXPECT_EQ(json()["salvaged"], (Json{{"app", nullptr}, {"locked", true}}));
    fake.world.store.stored = UnreadableCommitment{fake.app, false};
    EXPECT_EQ(json()["salvaged"], (Json{{"app", fake.app}, {"locked", false}}));
    EXPECT_EQ(json()["stateFile"]["condition"], "damaged");
}

}  // namespace
}  // namespace halvo::control
