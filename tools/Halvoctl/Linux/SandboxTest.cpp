#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Linux/Sandbox.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string show =
    "/usr/bin/systemctl show --no-pager --property=ProtectSystem,ReadWritePaths -- "
    "com.example.app.helper.service";

TEST(SandboxTest, IsWhatSystemctlShows) {
    FakePrograms programs;
    programs.answer(show, 0,
                    "ReadWritePaths=/Applications \"/Library/Application Support\" -/srv/A "
                    "\"-/srv/B C\" -+/srv/D\nProtectSystem=strict\n");
    EXPECT_EQ(readSandbox(identity, programs),
              (Sandbox{true,
                       {"/Applications", "/Library/Application Support", "/srv/A", "/srv/B C",
                        "/srv/D"}}));
    programs.answers.clear();
    programs.answer(show, 0, "ProtectSystem=no\nno property\n");
    EXPECT_EQ(readSandbox(identity, programs), Sandbox{});
}

TEST(SandboxTest, IsUnknownWhenSystemctlFails) {
    FakePrograms programs;
    EXPECT_EQ(readSandbox(identity, programs).error(),
              "/usr/bin/systemctl cannot be started: No such file or directory");
    programs.answer(show, 1);
    EXPECT_EQ(readSandbox(identity, programs).error(),
              "/usr/bin/systemctl does not tell of the helper's sandbox");
    EXPECT_EQ(checkSandbox(identity, "/Applications/Halvo.app", std::unexpected("It is stuck")),
              isProblem("sandbox", "It is stuck", "Look whether systemctl works at all."));
}

TEST(SandboxTest, ListsMayQuoteTheirWords) {
    EXPECT_THAT(parseList(""), IsEmpty());
    EXPECT_THAT(parseList("  "), IsEmpty());
    EXPECT_THAT(parseList(" /a  /b "), ElementsAre("/a", "/b"));
    EXPECT_THAT(parseList(R"("/a b" /c "/d\"\\\$")"), ElementsAre("/a b", "/c", R"(/d"\$)"));
    EXPECT_THAT(parseList(R"(/a\ "/b)"), ElementsAre(R"(/a\)", "/b"));
    EXPECT_THAT(parseList(R"("/a\)"), ElementsAre(R"(/a\)"));
}

TEST(SandboxTest, LetsTheHelperLockWhereItMayWrite) {
    const Sandbox sandbox{true, {"/Applications", "/srv/"}};
    for (const char* folder :
         {"/Applications", "/Applications/Sub/Applications", "/srv", "/srv/Applications"}) {
        EXPECT_EQ(checkSandbox(identity, std::string(folder) + "/Halvo.app", sandbox),
                  isOk("sandbox", std::string("the helper can lock what lies in ") + folder));
    }
    EXPECT_EQ(checkSandbox(identity, "/Other/Halvo.app", Sandbox{false, {}}).verdict, Verdict::ok);
}

TEST(SandboxTest, KeepsTheHelperFromLockingElsewhere) {
    const Sandbox sandbox{true, {"/Applications", "/srv/Applications2"}};
    EXPECT_EQ(checkSandbox(identity, "/srv/Applications/Halvo.app", sandbox),
              isProblem("sandbox",
                        "com.example.app.helper.service may not write to /srv/Applications, so the "
                        "helper cannot lock there",
                        "systemctl edit com.example.app.helper.service, with the lines [Service], "
                        "ReadWritePaths=-/srv/Applications, [Unit], "
                        "RequiresMountsFor=/srv/Applications; then systemctl restart "
                        "com.example.app.helper.service"));
    EXPECT_EQ(checkSandbox(identity, "/srv/100% mine/Applications/Halvo.app", sandbox).advice,
              "systemctl edit com.example.app.helper.service, with the lines [Service], "
              "ReadWritePaths=\"-/srv/100%% mine/Applications\", [Unit], "
              "RequiresMountsFor=\"/srv/100%% mine/Applications\"; then systemctl restart "
              "com.example.app.helper.service");
}

TEST(SandboxTest, HidesSomeFolders) {
    const Sandbox sandbox{true, {"/Applications"}};
    for (const std::string folder : {"/home", "/root", "/run/user", "/tmp", "/var/tmp"}) {
        EXPECT_EQ(checkSandbox(identity, folder + "/anna/Applications/Halvo.app", sandbox).advice,
                  "What lies below " + folder +
                      " it cannot see at all. Install the app into /Applications.");
    }
}

TEST(SandboxTest, LetsTheHelperLockInFoldersForApplications) {
    EXPECT_EQ(
        lockableFolders({true,
                         {"/Applications", "/Library/Application Support", "/srv/Applications",
                          "/srv/MyApplications"}}),
        (std::vector<std::string>{"/Applications", "/Library/Application Support/Applications",
                                  "/srv/Applications", "/srv/MyApplications/Applications"}));
    EXPECT_EQ(lockableFolders({false, {"/Applications"}}), homeApplications());
    const auto homes = homeApplications();
    EXPECT_NE(std::ranges::find(homes, "/root/Applications"), homes.end());
}

}  // namespace
}  // namespace halvo::control
