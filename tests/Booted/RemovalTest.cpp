// What the removal of the packages leaves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string group = "_org_example_focus";

// Commands that describe the machine's state; a purge restores their output.
const std::vector<std::string> probes{
    // Each item of the disk with its kind, owner, mode, size or target. Left out, because every run
    // of dpkg and every start writes there whatever is installed: logs, caches, dpkg's own
    // database, what systemd keeps of past runs, the accounts' back-ups, and the loader's cache. A
    // folder changes its size as files come and go.
    "find / -xdev "
    "\\( -path /var/log -o -path /var/cache -o -path /var/lib/dpkg -o "
    "-path /var/lib/systemd/timers -o -path /var/lib/systemd/catalog -o -path /var/tmp -o "
    "-path /root -o -path /home \\) -prune -o "
    "\\( -name 'group-' -o -name 'gshadow-' -o -name 'passwd-' -o -name 'shadow-' -o "
    "-name '.pwd.lock' -o -path /etc/group -o -path /etc/gshadow -o "
    "-path /etc/ld.so.cache \\) -o -type d -printf '%p %y %u:%g %m\\n' -o "
    "-printf '%p %y %u:%g %m %s %l\\n' | sort",
    // Items with the immutable flag.
    "lsattr -R / 2>/dev/null | grep -E '^[-a-zA-Z]*i[-a-zA-Z]* /' || true",
    // Contents of files.
    "find /etc /usr /lib/systemd /var/lib/systemd /opt /srv -xdev -type f "
    "! -name '*-' ! -path /etc/ld.so.cache ! -path /etc/group ! -path /etc/gshadow "
    "! -path '/var/lib/systemd/timers/*' ! -path '/var/lib/systemd/catalog/*' "
    "! -name .pwd.lock ! -name random-seed -exec sha256sum {} + | sort -k 2",
    "cat /etc/group /etc/gshadow /etc/passwd /etc/shadow",
    "systemctl list-unit-files --no-legend --no-pager; ls -R /etc/systemd "
    "/var/lib/systemd/deb-systemd-helper-enabled 2>/dev/null || true"};

struct Removal : ::testing::Test {
    // Remains of the packages outside the probed folders. systemd may list a removed unit for a
    // while, as "not-found".
    [[nodiscard]] std::string remains() const {
        return machine.sh(
            "{ ls /run /Library /Applications; systemctl list-units --all --no-legend; "
            "} 2>/dev/null | grep -iE 'org.example|halvo' | "
            "grep -v ' not-found *inactive ' || true");
    }

    void remove(const std::string& how) const {
        machine.sh("dpkg --" + how +
                   " " HALVO_BOOTED_PACKAGE "-sample-app " HALVO_BOOTED_PACKAGE "-helper");
    }

    [[nodiscard]] std::string gid() const {
        return machine.sh("getent group " + group + " | cut -d : -f 3 | tr -d '\\n'");
    }

    BootedMachine machine;
};

// The helper gives a lock up with a record that it cannot parse.
TEST_F(Removal, ClearsTheLockOfADamagedRecord) {
    machine.install();
    machine.logInAndCommit();
    machine.must({"kill", "-KILL", machine.property(Unit::service, "MainPID")});
    machine.write(Place::stateFile, "damaged");
    ASSERT_TRUE(eventually(Seconds{20}, [&] { return !machine.exists(Place::stateFile); }));
    machine.sh("pkill --exact Halvo || true");
    ASSERT_TRUE(machine.isLocked());
    remove("purge");
    EXPECT_FALSE(machine.exists(Place::app));
    EXPECT_NE(machine.run({"getent", "group", group}).status, 0);
    EXPECT_EQ(remains(), "");
    EXPECT_EQ(machine.sh("dpkg --audit"), "");
}

// The app's package ends a commitment as well; dpkg(1) removes it first, as it depends on the
// helper.
TEST_F(Removal, OfTheHelperAloneEndsACommitment) {
    machine.install();
    machine.logInAndCommit();
    const std::string said =
        machine.sh("dpkg --remove --force-depends " HALVO_BOOTED_PACKAGE "-helper 2>&1");
    EXPECT_THAT(said, HasSubstr("Ended the commitment of alice"));
    EXPECT_TRUE(machine.exists(Place::app));
    EXPECT_FALSE(machine.isLocked());
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    EXPECT_FALSE(machine.exists(Place::libexec));
    EXPECT_FALSE(machine.exists(Place::socket));
    EXPECT_THAT(machine.running(Place::helper), IsEmpty());
    EXPECT_THAT(machine.running(Place::helper + " (deleted)"), IsEmpty());
}

TEST_F(Removal, OfTheAppAloneLeavesTheHelper) {
    machine.install();
    machine.logInAndCommit();
    machine.sh("dpkg --remove " HALVO_BOOTED_PACKAGE "-sample-app");
    EXPECT_FALSE(machine.exists(Place::app));
    EXPECT_FALSE(machine.exists(Place::stateFolder));
    EXPECT_EQ(machine.activeState(Unit::socket), "active");
    EXPECT_NE(machine.activeState(Unit::service), "failed");
}

TEST_F(Removal, EndsACommitmentAndAPurgeRestoresTheMachine) {
    // The first login creates the user's folders.
    const std::string session = machine.logIn("alice");
    std::vector<std::string> before;
    for (const std::string& probe : probes) {
        before.push_back(machine.sh(probe));
    }
    machine.install();
    machine.commit(session);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        EXPECT_NE(machine.sh(probes[i]), before[i]) << "not a useful probe: " << probes[i];
    }
    remove("remove");
    EXPECT_THAT(machine.running(Place::helper), IsEmpty());
    EXPECT_THAT(machine.running(Place::helper + " (deleted)"), IsEmpty());
    EXPECT_EQ(remains(), "");
    EXPECT_EQ(machine.failedUnits(), "");
    EXPECT_EQ(machine.sh("dpkg --audit"), "");
    // The group stays as long as a process has it.
    machine.sh("pkill --exact Halvo");
    remove("purge");
    EXPECT_EQ(remains(), "");
    for (std::size_t i = 0; i < probes.size(); ++i) {
        machine.write("/root/before", before[i]);
        machine.write("/root/after", machine.sh(probes[i]));
        EXPECT_EQ(machine.run({"diff", "/root/before", "/root/after"}).output, "");
    }
    EXPECT_EQ(machine.sh("dpkg --list | grep -i org.example || true"), "");
}

TEST_F(Removal, KeepsTheGroupWhileAFileHasIt) {
    machine.install();
    machine.sh("touch /srv/kept && chgrp " + group + " /srv/kept");
    machine.sh("dpkg --purge " HALVO_BOOTED_PACKAGE "-sample-app");
    const std::string said = machine.sh("dpkg --purge " HALVO_BOOTED_PACKAGE "-helper 2>&1");
    EXPECT_THAT(said, HasSubstr("/srv/kept"));
    EXPECT_EQ(machine.run({"getent", "group", group}).status, 0);
}

// Otherwise the process would be in the next group that gets the number. Real, effective and saved
// groups of a process count, and supplementary ones.
TEST_F(Removal, KeepsTheGroupWhileAProcessHasIt) {
    machine.install();
    machine.logInAndCommit();
    const std::vector<pid_t> apps = machine.running(Place::appExecutable);
    ASSERT_EQ(apps.size(), 1U);
    EXPECT_THAT(processField(apps.front(), "Gid"), HasSubstr(gid()));
    machine.sh("systemd-run --quiet --unit=other setpriv --groups=" + gid() + " sleep 600");
    const auto purge = [&] {
        return machine.sh("dpkg --purge " HALVO_BOOTED_PACKAGE "-helper 2>&1");
    };
    const auto isThere = [&] { return machine.run({"getent", "group", group}).status == 0; };
    machine.sh("dpkg --purge " HALVO_BOOTED_PACKAGE "-sample-app");
    EXPECT_THAT(purge(),
                AllOf(HasSubstr("keeping the group " + group + ", since processes have it"),
                      HasSubstr("groupdel " + group)));
    EXPECT_TRUE(isThere());
    for (const char* end : {"pkill --exact Halvo", "systemctl stop other"}) {
        machine.install();
        machine.sh("dpkg --purge " HALVO_BOOTED_PACKAGE "-sample-app");
        machine.sh(end);
        purge();
        EXPECT_EQ(isThere(), end[0] == 'p') << end;
    }
}

}  // namespace
}  // namespace halvo::testing
