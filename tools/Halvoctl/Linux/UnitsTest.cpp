#include <gtest/gtest.h>

#include <string>

#include "tools/Halvoctl/FakeMachine.hpp"
#include "tools/Halvoctl/Linux/Units.hpp"

namespace halvo::control {
namespace {

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};
const std::string show =
    "/usr/bin/systemctl show --no-pager "
    "--property=Id,LoadState,ActiveState,SubState,UnitFileState,Result "
    "-- "
    "com.example.app.helper.socket com.example.app.helper.service "
    "com.example.app.helper-resume.service";
// In the order in which systemctl has them, which is its own.
const std::string shown = R"(Result=success
Id=com.example.app.helper.socket
LoadState=loaded
ActiveState=active
SubState=listening
UnitFileState=enabled

Result=exit-code
Id=com.example.app.helper.service
LoadState=loaded
ActiveState=activating
SubState=auto-restart
UnitFileState=static

Id=com.example.app.helper-resume.service
LoadState=not-found
ActiveState=inactive
UnitFileState=
)";

TEST(UnitsTest, AreWhatSystemctlShows) {
    FakePrograms programs;
    programs.answer(show, 0, shown);
    const auto units = readUnits(identity, programs);
    ASSERT_TRUE(units) << units.error();
    EXPECT_EQ(units->socket, (Unit{"loaded", "active", "enabled", "success", "listening"}));
    EXPECT_EQ(units->service,
              (Unit{"loaded", "activating", "static", "exit-code", "auto-restart"}));
    EXPECT_EQ(units->resume, (Unit{"not-found", "inactive", "", "", ""}));
    EXPECT_TRUE(units->socket.isLoaded());
    EXPECT_TRUE(units->socket.isActive());
    EXPECT_FALSE(units->socket.isRestarting());
    EXPECT_TRUE(units->service.isRestarting());
    EXPECT_FALSE(units->resume.isLoaded());
    EXPECT_TRUE((Unit{"loaded", "activating", "", "", ""}).isActive());
    EXPECT_FALSE((Unit{"loaded", "failed", "", "", ""}).isActive());
    EXPECT_TRUE((Unit{"masked", "deactivating", "", "", ""}).isUp());
    for (const char* active : {"", "inactive", "failed"}) {
        EXPECT_FALSE((Unit{"loaded", active, "", "", ""}).isUp());
    }
}

TEST(UnitsTest, AreUnknownWhenSystemctlFails) {
    FakePrograms programs;
    EXPECT_EQ(readUnits(identity, programs).error(),
              "/usr/bin/systemctl cannot be started: No such file or directory");
    programs.answer(show, 1, "Failed to connect to bus\nmore\n");
    programs.answer(show, 0, "");
    programs.answer(show, 0, "Id=com.example.app.helper.socket\n\nId=other.service\n");
    const std::string problem = "/usr/bin/systemctl does not tell of the helper's units";
    EXPECT_EQ(readUnits(identity, programs).error(), problem + ": Failed to connect to bus");
    EXPECT_EQ(readUnits(identity, programs).error(), problem);
    EXPECT_EQ(readUnits(identity, programs).error(),
              problem + ": Id=com.example.app.helper.socket");
    programs.answers.clear();
    programs.answer(show, 1, shown);
    EXPECT_FALSE(readUnits(identity, programs));
}

TEST(UnitsTest, AreReadFromAnything) {
    EXPECT_TRUE(parseUnits("").empty());
    EXPECT_TRUE(parseUnits("\n\n=\nno unit\nLoadState=loaded\n\n").empty());
    EXPECT_EQ(parseUnits("Id=a\nResult=x=y").at("a").result, "x=y");
}

}  // namespace
}  // namespace halvo::control
