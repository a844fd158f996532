#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/Support/LogCapture.hpp"
#include "tools/Halvoctl/Arguments.hpp"
#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Tool.hpp"

namespace halvo::control {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Words = std::vector<std::string>;

class ToolTest : public ::testing::Test {
  protected:
    Outcome runWith(const Words& words) {
        return run(
            words,
            [this]() -> MachineOr {
                return hasIdentity ? MachineOr(fake.machine) : std::unexpected("It is missing");
            },
            *GregorianCalendar::named("UTC"), [](const std::string&) {});
    }

    FakeMachine fake;
    testing::LogCapture log;
    bool hasIdentity = true;
};

TEST_F(ToolTest, Helps) {
    hasIdentity = false;
    EXPECT_EQ(runWith({"--help"}).output, helpText);
    EXPECT_EQ(runWith({"release", "--help"}).output, releaseHelpText);
}

TEST_F(ToolTest, RefusesWrongWords) {
    const Outcome outcome = runWith({"bogus"});
    EXPECT_EQ(outcome.status, ExitStatus::wrongWords);
    EXPECT_EQ(outcome.errors,
              "halvoctl: There is no command 'bogus'; there are status, doctor and release. See "
              "halvoctl --help.\n");
}

TEST_F(ToolTest, RunsTheCommands) {
    EXPECT_THAT(runWith({"status"}).output, StartsWith("com.example.app: Nothing holds.\n"));
    EXPECT_THAT(runWith({"status", "--json"}).output, StartsWith("{\n  \"apps\": ["));
    EXPECT_THAT(runWith({"doctor"}).output, HasSubstr("app's identity"));
    EXPECT_THAT(runWith({"doctor", "--json"}).output, StartsWith("{\n  \"checks\": ["));
    EXPECT_EQ(runWith({"doctor"}).status, ExitStatus::problem) << "the helper is nowhere";
    EXPECT_EQ(runWith({"release"}).output, "com.example.app: Nothing was held.\n");
}

TEST_F(ToolTest, NeedsRoot) {
    fake.machine.isRoot = false;
    fake.hold();
    for (const char* command : {"status", "release"}) {
        const Outcome outcome = runWith({command});
        EXPECT_EQ(outcome.status, ExitStatus::noPermission);
        EXPECT_THAT(outcome.errors, HasSubstr(std::string("Type: sudo halvoctl ") + command));
        EXPECT_EQ(outcome.output, "");
    }
    EXPECT_TRUE(fake.world.calls.calls().empty());
}

TEST_F(ToolTest, NeedsTheIdentityOfTheApp) {
    hasIdentity = false;
    for (const char* command : {"status", "release"}) {
        EXPECT_EQ(runWith({command}),
                  (Outcome{ExitStatus::config, "",
                           "halvoctl: It is missing. Install the helper again.\n"}));
    }
    const Outcome outcome = runWith({"doctor"});
    EXPECT_EQ(outcome.status, ExitStatus::problem);
    EXPECT_THAT(outcome.output, HasSubstr("It is missing\n"));
}

}  // namespace
}  // namespace halvo::control
