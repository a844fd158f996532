// halvoctl on a real system.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

struct Administrator : ::testing::Test {
    Administrator() {
        machine.install();
        session = machine.logIn("alice");
    }

    [[nodiscard]] json answer(const std::string& command) const {
        const json root = json::parse(machine.run({"halvoctl", command, "--json"}).output, nullptr,
                                      /*allow_exceptions=*/false);
        EXPECT_TRUE(root.is_object());
        return root;
    }

    // The names of the checks whose verdict is "problem".
    [[nodiscard]] std::vector<std::string> problems() const {
        std::vector<std::string> names;
        const json root = answer("doctor");
        for (const json& check : root["checks"]) {
            if (check["verdict"] == "problem") {
                names.push_back(check["name"]);
                EXPECT_TRUE(check["advice"].is_string()) << check;
            }
        }
        EXPECT_EQ(root["problems"], names.size());
        return names;
    }

    BootedMachine machine;
    std::string session;
};

TEST_F(Administrator, SeesAndReleasesACommitment) {
    EXPECT_THAT(machine.must({"halvoctl", "status"}), HasSubstr("Nothing holds."));
    machine.commit(session);
    const json status = answer("status");
    EXPECT_EQ(status["commitment"]["user"], "alice");
    EXPECT_EQ(status["apps"][0]["agrees"], true);
    EXPECT_EQ(status["helper"]["pids"].size(), 1U);
    // Not for the committed user.
    EXPECT_EQ(machine.runIn(session, {"halvoctl", "status"}).status, 77);
    EXPECT_EQ(machine.runIn(session, {"halvoctl", "release"}).status, 77);
    EXPECT_TRUE(machine.isLocked());

    machine.must({"halvoctl", "release"});
    EXPECT_FALSE(machine.isLocked());
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_THAT(machine.must({"halvoctl", "status"}), HasSubstr("Nothing holds."));
    EXPECT_TRUE(answer("status")["commitment"].is_null());
    EXPECT_EQ(machine.failedUnits(), "");
    // A new commitment can begin.
    machine.sh("pkill --exact Halvo");
    machine.commit(session);
}

TEST_F(Administrator, FindsWhatChangedSinceTheInstallation) {
    struct Row {
        std::string spoil;
        std::vector<std::string> problems;
        std::string advice;
        std::string repair;
    };

    const Row rows[] = {
        {"systemctl stop " + Unit::socket,
         {"systemd", "socket"},
         "",
         "systemctl start " + Unit::socket},
        {"gpasswd --add bob _org_example_focus",
         {"app's group"},
         "has members: bob",
         "gpasswd --delete bob _org_example_focus"},
        {"chmod g-s " + Place::appExecutable,
         {"app's files"},
         "",
         "chmod g+s " + Place::appExecutable},
        {"systemctl disable --quiet " + Unit::resume,
         {"systemd"},
         "",
         "systemctl enable --quiet " + Unit::resume},
        {"systemctl mask --quiet " + Unit::service,
         {"systemd"},
         "",
         "systemctl unmask --quiet " + Unit::service},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.spoil);
        machine.sh(row.spoil);
        EXPECT_THAT(problems(), UnorderedElementsAreArray(row.problems));
        const ChildResult told = machine.run({"halvoctl", "doctor"});
        EXPECT_EQ(told.status, 1);
        EXPECT_THAT(told.output, HasSubstr(row.advice));
        machine.sh(row.repair);
        EXPECT_THAT(problems(), IsEmpty());
    }
}

TEST_F(Administrator, FindsAnAppOutsideTheReadWritePaths) {
    const std::string app = "/srv/Applications/Halvo.app";
    machine.sh("mkdir /srv/Applications && cp --archive " + Place::app + " " + app);
    const auto finds = [&] { return machine.run({"halvoctl", "doctor", "--app", app}).output; };
    EXPECT_THAT(finds(), HasSubstr("ReadWritePaths=-/srv/Applications"));
    const std::string folder = "/etc/systemd/system/" + Unit::service + ".d";
    machine.sh("mkdir --parents " + folder +
               " && printf '[Service]\\nReadWritePaths=-/srv/Applications\\n' > " + folder +
               "/override.conf && systemctl daemon-reload");
    EXPECT_THAT(finds(), HasSubstr("the helper can lock what lies in /srv/Applications"));
}

TEST_F(Administrator, IsToldTheRemedyWhenSystemdPassesNoSocket) {
    machine.commit(session);
    machine.must({"systemctl", "mask", "--quiet", Unit::socket});
    machine.must({"systemctl", "unmask", "--quiet", Unit::socket});
    EXPECT_NE(machine.run({"systemctl", "restart", Unit::service}).status, 0);
    const std::string remedy = "systemctl restart " + Unit::socket;
    EXPECT_TRUE(machine.says("systemd handed over no socket: " + remedy));
    EXPECT_EQ(machine.property(Unit::service, "ExecMainStatus"), "78");
    const auto isDown = [&] { return machine.activeState(Unit::service) == "failed"; };
    EXPECT_TRUE(always(Seconds{3}, isDown)) << "restarted despite exit status 78";
    EXPECT_THAT(problems(), Contains("socket"));
    EXPECT_THAT(machine.run({"halvoctl", "doctor"}).output, HasSubstr("-> " + remedy + "\n"));

    machine.sh(remedy);
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return machine.isLocked(); }));
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Administrator, StopsAMaskedSocketAndLeavesTheHelperStopped) {
    machine.commit(session);
    machine.must({"systemctl", "mask", "--quiet", Unit::socket});
    machine.must({"halvoctl", "release", "--and-stop"});
    EXPECT_FALSE(machine.isLocked());
    EXPECT_EQ(machine.activeState(Unit::socket), "inactive");
    machine.must({"systemctl", "unmask", "--quiet", Unit::socket});
    EXPECT_THAT(machine.must({"halvoctl", "release"}), HasSubstr("systemctl start"));
}

}  // namespace
}  // namespace halvo::testing
