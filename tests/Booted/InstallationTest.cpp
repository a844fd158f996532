// The packages after installation and upgrade.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct Installation : ::testing::Test {
    Installation() { machine.install(); }

    BootedMachine machine;
};

TEST_F(Installation, StartsTheSocketAndOnTheFirstCallTheHelper) {
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_EQ(machine.activeState(Unit::service), "inactive");
    EXPECT_THAT(machine.running(Place::helper), IsEmpty());
    EXPECT_EQ(machine.property(Unit::socket, "UnitFileState"), "enabled");
    EXPECT_EQ(machine.property(Unit::resume, "UnitFileState"), "enabled");
    EXPECT_EQ(machine.property(Unit::service, "UnitFileState"), "static");
    EXPECT_EQ(machine.failedUnits(), "");
    const ChildResult answer = machine.runIn(machine.logIn("alice"), {Place::appExecutable});
    EXPECT_EQ(answer.status, 0) << answer.output;
    EXPECT_THAT(answer.output, HasSubstr("Nothing holds"));
    EXPECT_THAT(machine.running(Place::helper), SizeIs(1));
    EXPECT_EQ(machine.activeState(Unit::service), "active");
}

TEST_F(Installation, ConfinesTheRunningService) {
    machine.logInAndCommit();
    const pid_t helper = machine.waitFor(Place::helper, Seconds{5});
    EXPECT_EQ(processField(helper, "NoNewPrivs"), "1");
    EXPECT_EQ(processField(helper, "Seccomp"), "2");
    // CAP_LINUX_IMMUTABLE and CAP_SYS_PTRACE.
    EXPECT_EQ(processField(helper, "CapBnd"), "0000000000080200");
    EXPECT_EQ(processField(helper, "CapEff"), "0000000000080200");
}

TEST_F(Installation, LogsToTheJournal) {
    machine.logInAndCommit();
    ASSERT_TRUE(machine.says("Holding Ultra Hard mode for *"));
    const auto entries = machine.journal({"SUBSYSTEM=app.halvo", "CATEGORY=Helper"});
    ASSERT_THAT(entries, SizeIs(2));
    EXPECT_THAT(entries.front().at("MESSAGE"), ::testing::MatchesRegex("Halvo helper .* started"));
    Entry entry = entries.back();
    EXPECT_THAT(entry["MESSAGE"], ::testing::AnyOf("Holding Ultra Hard mode for 1500 s",
                                                   "Holding Ultra Hard mode for 1499 s"));
    EXPECT_EQ(entry["PRIORITY"], "5");
    EXPECT_EQ(entry["SYSLOG_IDENTIFIER"], "HalvoHelper");
    EXPECT_EQ(entry["_SYSTEMD_UNIT"], Unit::service);
    EXPECT_EQ(entry["_EXE"], Place::helper);
    EXPECT_EQ(entry["_UID"], "0");
}

TEST_F(Installation, RefusesOtherCallers) {
    const std::string session = machine.logIn("alice");
    const std::string peer = "--peer=unix:path=" + Place::socket;
    const std::vector<std::string> words{
        "dbus-send", "--print-reply",     "--reply-timeout=5000",
        peer,        "/app/halvo/Helper", "org.freedesktop.DBus.Introspectable.Introspect"};
    EXPECT_NE(machine.runIn(session, words).status, 0);
    const std::string refusal =
        "Refused a caller: it does not run with the private group of /usr/bin/dbus-send";
    EXPECT_TRUE(machine.says(refusal));
    // Root is refused, too.
    EXPECT_NE(machine.run(words).status, 0);
    EXPECT_TRUE(eventually(Seconds{20}, [&] { return machine.count(refusal) == 2; }));
    // And a copy of the app, which lost the set-group-id bit.
    const ChildResult copied = machine.runIn(
        session,
        {"sh", "-c",
         "cp -rp " + Place::app + " ~ && ~/" HALVO_BOOTED_APP ".app/Contents/MacOS/Halvo 25"});
    EXPECT_EQ(copied.status, 77) << copied.output;
    // The sandbox does not even let it look into the user's home.
    EXPECT_TRUE(machine.says("Refused a caller: /home/alice/" HALVO_BOOTED_APP
                             ".app/Contents/MacOS/Halvo cannot be "
                             "examined: /home/alice: Permission denied"));
    for (Entry entry : machine.journal({"SUBSYSTEM=app.halvo"})) {
        EXPECT_EQ(entry["PRIORITY"], entry["MESSAGE"].starts_with("Refused") ? "3" : "5");
    }
    EXPECT_FALSE(machine.exists(Place::stateFile));
}

// A copy of the app, owned by root, as on a medium that a user wrote and had mounted. The helper
// must not go by the mounts of its sandbox, which all are nosuid.
TEST_F(Installation, RefusesTheAppOnAUsersFileSystem) {
    const std::string session = machine.logIn("alice");
    const std::string copy = "/mnt/" HALVO_BOOTED_APP ".app/Contents/MacOS/Halvo";
    const auto mountCopy = [&](const std::string& option, const std::string& group) {
        machine.sh("mount -t tmpfs -o mode=755," + option + " medium /mnt && cp -rp " + Place::app +
                   " /mnt && chgrp " + group + " " + copy + " && chmod 2755 " + copy);
    };
    const auto ask = [&] {
        const int status = machine.runIn(session, {copy, "25"}).status;
        machine.sh("umount /mnt");
        return status;
    };
    mountCopy("nosuid", "alice");
    EXPECT_EQ(ask(), 77);
    EXPECT_TRUE(
        machine.says("Refused a caller: its executable lies on a file system mounted with nosuid, "
                     "where the kernel ignores the set-group-id bit"));
    mountCopy("suid", "alice");
    EXPECT_EQ(ask(), 77);
    EXPECT_TRUE(machine.says("Refused a caller: the group alice is the primary group of alice"));
    EXPECT_FALSE(machine.exists(Place::stateFile));
    // With suid and the private group the copy is admitted.
    mountCopy("suid", "_org_example_focus");
    EXPECT_NE(machine.runIn(session, {copy}).status, 77);
    machine.sh("umount /mnt");
}

TEST_F(Installation, UpgradesDuringACommitment) {
    machine.logInAndCommit();
    const pid_t app = machine.waitFor(Place::appExecutable, Seconds{5});
    const pid_t helper = machine.waitFor(Place::helper, Seconds{5});
    const double left = machine.state()->remaining;
    machine.install({HALVO_BOOTED_LATER_HELPER, HALVO_BOOTED_LATER_SAMPLE_APP});
    EXPECT_THAT(
        machine.sh("dpkg-query --show --showformat='${Version} ' '" HALVO_BOOTED_PACKAGE "-*'"),
        HALVO_BOOTED_LATER_VERSION " " HALVO_BOOTED_LATER_VERSION " ");
    EXPECT_EQ(machine.sh("dpkg --audit"), "");
    const pid_t later = machine.waitFor(Place::helper, Seconds{30}, {helper});
    EXPECT_FALSE(isAlive(helper));
    EXPECT_TRUE(machine.says("Holding Ultra Hard mode for another *"));
    EXPECT_TRUE(eventually(Seconds{30}, [&] { return machine.isLocked(); }));
    EXPECT_LE(machine.state()->remaining, left);
    EXPECT_GT(machine.state()->remaining, left - 60);
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_EQ(machine.property(Unit::service, "MainPID"), std::to_string(idInside(later)));
    // The upgraded app is set-group-id again.
    struct stat status{};
    ASSERT_EQ(stat(machine.path(Place::appExecutable).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 02755U);
    kill(app, SIGKILL);
    EXPECT_TRUE(machine.serves(machine.waitFor(Place::appExecutable, Seconds{60}, {app})));
}

}  // namespace
}  // namespace halvo::testing
