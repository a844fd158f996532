#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {

void PrintTo(const Agreement& agreement, std::ostream* stream) {
    *stream << (agreement.isGiven ? "agree: " : "disagree: ") << agreement.finding << " | "
            << agreement.next;
}

namespace {

namespace fs = std::filesystem;

class ObservationTest : public ::testing::Test {
  protected:
    Observation seen() { return observe(fake.machine); }

    // What is judged of the app as things are.
    Agreement judged(bool isLocked, bool isRunning = false) {
        fake.world.flags.setByHand(fake.app, isLocked);
        fake.processes.processes = isRunning ? std::vector<pid_t>{7} : std::vector<pid_t>{};
        const Observation observation = seen();
        return judge(observation, observation.apps.at(0), "start-helper");
    }

    FakeMachine fake;
    // What unlocks a bundle that is the app's own, as root makes it.
    const std::string clear = geteuid() == 0 ? "halvoctl release" : clearCommand(fake.app);
};

TEST_F(ObservationTest, IsOfNothingStored) {
    const Observation observation = seen();
    EXPECT_EQ(observation.file, StateFile::none);
    EXPECT_EQ(observation.stored, StoredCommitment(NoCommitment{}));
    EXPECT_EQ(observation.apps, (std::vector<AppFlag>{{fake.app, LockState::unlocked}}));
    EXPECT_EQ(observation.commitment(), nullptr);
    EXPECT_TRUE(observation.helpers.empty());
    EXPECT_EQ(observation.now, fake.world.clock.now());
}

TEST_F(ObservationTest, IsOfARecord) {
    const HelperCommitment& commitment = fake.hold();
    fake.processes.processes = {12};
    const Observation observation = seen();
    EXPECT_EQ(observation.file, StateFile::whole);
    ASSERT_NE(observation.commitment(), nullptr);
    EXPECT_EQ(*observation.commitment(), commitment);
    EXPECT_EQ(observation.apps, (std::vector<AppFlag>{{fake.app, LockState::locked}}));
    EXPECT_EQ(observation.helpers, (std::vector<pid_t>{12}));
}

TEST_F(ObservationTest, IsOfTheBundleThatTheRecordNames) {
    fake.hold().appPath = "/Elsewhere/Other.app";
    fake.world.flags.setByHand(fake.app, false);
    EXPECT_EQ(seen().apps, (std::vector<AppFlag>{{"/Elsewhere/Other.app", LockState::missing}}));
    fake.world.store.stored = UnreadableCommitment{"/Elsewhere/Third.app", true};
    EXPECT_EQ(seen().apps, (std::vector<AppFlag>{{"/Elsewhere/Third.app", LockState::missing}}));
    EXPECT_EQ(seen().file, StateFile::damaged);
    fake.world.store.stored = UnreadableCommitment{};
    EXPECT_EQ(seen().apps, (std::vector<AppFlag>{{fake.app, LockState::unlocked}}));
}

TEST_F(ObservationTest, IsOfAFileThatCannotBeRead) {
    fs::create_directories(fake.machine.stateFile);
    EXPECT_EQ(seen().file, StateFile::unreadable);
}

TEST_F(ObservationTest, ChangesNothing) {
    fake.hold();
    seen();
    EXPECT_TRUE(fake.world.calls.changes().empty());
}

TEST_F(ObservationTest, FindsTheBundlesOfTheApp) {
    FakeMachine::writeInfo(fake.applications + "/Another.app", "com.example.app", "ANYTEAM123");
    FakeMachine::writeInfo(fake.applications + "/Other.app", "com.example.other", "7QX4KD19MT");
    FakeMachine::writeInfo(fake.applications + "/Halvo.old", "com.example.app", "7QX4KD19MT");
    fs::create_directories(fake.applications + "/Empty.app");
    EXPECT_EQ(installedApps(fake.machine),
              (std::vector<std::string>{fake.applications + "/Another.app", fake.app}));
    fake.service.applications = {fake.applications, "/nowhere", fake.applications};
    EXPECT_EQ(installedApps(fake.machine).size(), 2U) << "each once";
    fake.machine.applications = "/nowhere";
    EXPECT_TRUE(installedApps(fake.machine).empty()) << "in another folder, which is not root's";
}

TEST_F(ObservationTest, FindsTheLocksOfTheAppsOwnBundlesThatNoRecordOwes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, whose the bundles must be";
    }
    const std::string second = fake.applications + "/Second.app";
    const std::string info = second + "/Contents/Info.plist";
    FakeMachine::writeInfo(second, "com.example.app", "7QX4KD19MT");
    fake.world.flags.add(second);
    EXPECT_TRUE(seen().orphans.empty());
    fake.hold();
    fake.world.flags.setByHand(second, true);
    const Observation observation = seen();
    EXPECT_EQ(observation.orphans, std::vector<std::string>{second});
    EXPECT_EQ(observation.apps,
              (std::vector<AppFlag>{{fake.app, LockState::locked}, {second, LockState::locked}}));
    EXPECT_EQ(judge(observation, observation.apps.at(1), "start-helper"),
              (Agreement{false, "The bundle is locked, but no record says that the helper did it.",
                         "To unlock it: halvoctl release (which also ends what holds)"}));
    EXPECT_TRUE(judge(observation, observation.apps.at(0), "start-helper").isGiven);

    const auto expectNotOwn = [&](const char* why) { EXPECT_TRUE(seen().orphans.empty()) << why; };
    fs::permissions(info, fs::perms{0664});
    expectNotOwn("others can write its Info.plist");
    fs::permissions(info, fs::perms{0644});
    ASSERT_EQ(chown(second.c_str(), FakeMachine::ann, 0), 0);
    expectNotOwn("it belongs to somebody else");
    ASSERT_EQ(chown(second.c_str(), 0, 0), 0);
    FakeMachine::writeInfo(second, "com.example.app", "ANYTEAM123");
    expectNotOwn("it is another team's");
    fs::remove_all(second);
    FakeMachine::writeInfo(fake.disk / "Real", "com.example.app", "7QX4KD19MT");
    fs::create_directory_symlink(fake.disk / "Real", second);
    expectNotOwn("a link is no bundle");
}

TEST_F(ObservationTest, JudgesABundleOfNothingStored) {
    EXPECT_EQ(judged(false), (Agreement{true, "The bundle is not locked.", ""}));
    const std::string finding = "The bundle is locked, but no record says that the helper did it.";
    EXPECT_EQ(judged(true), (Agreement{false, finding, "To unlock it: " + clear}));
    EXPECT_EQ(judged(true, true),
              (Agreement{false, finding,
                         "If the helper that runs holds something all the same, it writes the "
                         "record anew within a minute. Else to unlock the bundle: " +
                             clear}));
}

TEST_F(ObservationTest, JudgesABundleThatIsHeld) {
    fake.hold();
    EXPECT_EQ(judged(true, true),
              (Agreement{true, "The bundle is locked, as the record says.", ""}));
    EXPECT_EQ(judged(true), (Agreement{true, "The bundle is locked, as the record says.",
                                       "No helper runs that would keep it so: start-helper"}));
    EXPECT_EQ(judged(false, true), (Agreement{false, "The bundle is not locked, but should be.",
                                              "The helper sets it back within 2 seconds."}));
    EXPECT_EQ(judged(false), (Agreement{false, "The bundle is not locked, but should be.",
                                        "The helper locks it when it starts: start-helper"}));
}

TEST_F(ObservationTest, JudgesABundleThatIsHeldWithoutALock) {
    fake.hold().locked = false;
    EXPECT_EQ(
        judged(false),
        (Agreement{false, "The commitment holds without a lock, though the bundle may be locked.",
                   "The helper's log says why it could not. It tries again when the app "
                   "begins or extends a commitment."}));
    EXPECT_EQ(judged(true),
              (Agreement{geteuid() != 0, "The bundle carries a lock that the helper did not set.",
                         "It stays when the commitment ends. To unlock the bundle: " + clear +
                             (geteuid() == 0 ? " (which also ends what holds)" : "")}));
}

TEST_F(ObservationTest, JudgesABundleThatTheHelperDoesNotLock) {
    const std::string elsewhere = fake.disk / "Elsewhere.app";
    fs::create_directories(elsewhere);
    fake.world.flags.add(elsewhere);
    HelperCommitment& commitment = fake.hold();
    commitment.appPath = elsewhere;
    commitment.locked = false;
    const Observation observation = seen();
    EXPECT_EQ(judge(observation, observation.apps.at(0), "start-helper"),
              (Agreement{true,
                         "The commitment holds without a lock: the helper does not lock a bundle "
                         "there.",
                         ""}));
}

TEST_F(ObservationTest, JudgesABundleThatIsGone) {
    fake.hold();
    fake.world.flags.erase(fake.app);
    Observation observation = seen();
    EXPECT_EQ(judge(observation, observation.apps.at(0), "start-helper"),
              (Agreement{false, "There is nothing at " + fake.app + ".",
                         "The helper locks no other in its place."}));
}

TEST_F(ObservationTest, JudgesWhatIsStillStoredAndHoldsNoMore) {
    fake.hold(Seconds{0});
    const std::string next = "The helper lets go of it when it starts next: start-helper";
    EXPECT_EQ(judged(true), (Agreement{true, "The bundle is still locked.", next}));
    EXPECT_EQ(judged(false), (Agreement{true, "The bundle is not locked.", next}));
    EXPECT_EQ(judged(false, true),
              (Agreement{true, "The bundle is not locked.",
                         "The helper lets go of it within 2 seconds, unless it has forgotten the "
                         "record."}));
    fake.hold(Seconds{0}).locked = false;
    EXPECT_EQ(
        judged(true),
        (Agreement{false,
                   "The bundle is locked, but the record does not say that the helper did it.",
                   "It stays locked. To unlock it: " + clear}));
    fake.world.store.stored = UnreadableCommitment{fake.app, true};
    EXPECT_EQ(judged(true), (Agreement{true, "The bundle is still locked.", next}));
    fake.world.store.stored = UnreadableCommitment{fake.app, false};
    EXPECT_FALSE(judged(true).isGiven);
}

}  // namespace
}  // namespace halvo::control
