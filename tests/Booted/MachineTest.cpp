// That the machine is one: what the other tests stand on.

#include <gtest/gtest.h>

#include <string>

#include "tests/Booted/BootedMachine.hpp"

namespace halvo::testing {
namespace {

TEST(BootedMachineTest, CountsItsTimeFromEachStart) {
    BootedMachine machine;
    const auto sinceBoot = [&] { return std::stod(machine.sh("cat /proc/uptime")); };
    const std::string bootID = machine.sh("cat /proc/sys/kernel/random/boot_id");
    ASSERT_TRUE(eventually(Seconds{30}, [&] { return sinceBoot() > 5; }));
    EXPECT_LT(sinceBoot(), 120) << "this is the real machine's";
    const Seconds before = timeNow();
    machine.restart();
    // The start is known to a second.
    EXPECT_LE(sinceBoot(), (timeNow() - before).count() + 1);
    EXPECT_NE(machine.sh("cat /proc/sys/kernel/random/boot_id"), bootID);
    // Process 1 counts by it too.
    const Seconds timer = timeNow();
    machine.sh(
        "systemd-run --quiet --on-boot=8s --timer-property=AccuracySec=100ms touch /root/soon");
    EXPECT_TRUE(eventually(Seconds{30}, [&] { return machine.exists("/root/soon"); }));
    EXPECT_GE(sinceBoot(), 8);
    EXPECT_LT(timeNow() - timer, Seconds{30});
}

TEST(BootedMachineTest, KeepsFilesAndJournalOverARestartAndAPowerCut) {
    BootedMachine machine;
    machine.write("/root/kept", "yes");
    machine.sh("logger --id=1 first && journalctl --sync");
    machine.restart();
    // Or the power goes before anything of this start is on the disk.
    machine.sh("journalctl --flush && journalctl --sync");
    machine.cutPower();
    machine.switchOn();
    EXPECT_EQ(machine.read("/root/kept"), "yes");
    EXPECT_NE(machine.sh("journalctl --list-boots --no-pager").find(" -2 "), std::string::npos);
    EXPECT_EQ(machine.journal({"--boot=-2", "MESSAGE=first"}).size(), 1U);
}

}  // namespace
}  // namespace halvo::testing
