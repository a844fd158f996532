#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tools/Halvoctl/Commands.hpp"

namespace halvo::control {

void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "status " << outcome.status << ", output:\n"
            << outcome.output << "errors:\n"
            << outcome.errors;
}

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// What FakeService notes.
const std::string stopped = "save by stop";
const std::string resumed = "save by resume";

class ReleaseTest : public ::testing::Test {
  protected:
    Outcome released(const ReleaseOptions& options = {}) {
        return release(fake.machine, options, *GregorianCalendar::named("Europe/Berlin"));
    }

    static Outcome fine(const std::string& output) { return {ExitStatus::fine, output, ""}; }

    FakeMachine fake;
    testing::LogCapture log;
};

TEST_F(ReleaseTest, UnlocksThenForgetsThenLetsTheAppCallAgain) {
    fake.hold();
    EXPECT_EQ(released(), fine("com.example.app: Let go of the commitment of ann (uid 1000) that "
                               "held until 2025-10-09 11:55:25 "
                               "+02:00; " +
                               fake.app + " is unlocked.\n"));
    EXPECT_THAT(fake.world.calls.changes(),
                ElementsAre(stopped, "unlock Halvo.app", "remove", resumed));
    EXPECT_FALSE(fake.world.flags.isSet(fake.app));
    EXPECT_TRUE(fake.world.store.isEmpty());
    EXPECT_TRUE(fake.waiter.said.empty());
    EXPECT_FALSE(fs::exists(fake.machine.releaseLock));
    EXPECT_THAT(log.notices(), ElementsAre("An administrator let go of what was stored"));
}

TEST_F(ReleaseTest, IsOfWhatTheHelperStoredWhenItStopped) {
    fake.service.onStop = [this] { fake.hold(); };
    EXPECT_THAT(released().output, StartsWith("com.example.app: Let go of the commitment of ann"));
    EXPECT_FALSE(fake.world.flags.isSet(fake.app));
    EXPECT_TRUE(fake.world.store.isEmpty());
}

TEST_F(ReleaseTest, SaysWhatHasRunOut) {
    fake.hold(Seconds{100});
    fake.world.clock.advance(Seconds{200});
    EXPECT_THAT(released().output, HasSubstr("that had run out at 2025-10-09 10:55:00 +02:00; "));
}

TEST_F(ReleaseTest, SaysThatNothingWasHeld) {
    EXPECT_EQ(released(), fine("com.example.app: Nothing was held.\n"));
    EXPECT_THAT(fake.world.calls.changes(), ElementsAre(stopped, resumed));
    EXPECT_TRUE(log.isEmpty());
}

TEST_F(ReleaseTest, LeavesALockThatIsNotTheHelpers) {
    FakeMachine::writeInfo(fake.app, "com.example.app", "ANYTEAM123");
    const std::string kept =
        fake.app +
        " keeps a lock that the helper did not set (to take it off: " + clearCommand(fake.app) +
        ").\n";
    fake.world.flags.setByHand(fake.app, true);
    EXPECT_EQ(released(), fine("com.example.app: Nothing was held; " + kept));
    fake.hold().locked = false;
    EXPECT_THAT(released().output, HasSubstr("; " + kept));
    EXPECT_TRUE(fake.world.flags.isSet(fake.app));
    EXPECT_TRUE(fake.world.store.isEmpty());
    fake.hold().locked = false;
    fake.world.flags.setByHand(fake.app, false);
    EXPECT_THAT(released().output, HasSubstr("; " + fake.app + " was not locked.\n"));
}

TEST_F(ReleaseTest, TakesOffTheLocksOfTheAppsOwnBundlesThatNoRecordOwes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, whose the bundles must be";
    }
    const std::string second = fake.applications + "/Second.app";
    FakeMachine::writeInfo(second, "com.example.app", "7QX4KD19MT");
    fake.world.flags.add(second);
    const std::string off = " carried a lock that no record owed, and is unlocked";
    const auto lock = [&] {
        for (const std::string& path : {fake.app, second}) {
            fake.world.flags.setByHand(path, true);
        }
    };
    const auto expect = [&](const std::string& beginning) {
        EXPECT_THAT(released(),
                    ::testing::AllOf(::testing::Field(&Outcome::status, ExitStatus::fine),
                                     ::testing::Field(&Outcome::output,
                                                      HasSubstr(beginning + second + off + "."))));
        EXPECT_FALSE(fake.world.flags.isSet(fake.app));
        EXPECT_FALSE(fake.world.flags.isSet(second));
        EXPECT_TRUE(fake.world.store.isEmpty());
    };
    lock();
    expect("Nothing was held; " + fake.app + off + "; ");
    EXPECT_EQ(log.notices().size(), 2U);
    fake.hold();
    lock();
    expect("; " + fake.app + " is unlocked; ");
    fake.hold().locked = false;
    lock();
    expect("; " + fake.app + off + "; ");
    fake.world.store.stored = UnreadableCommitment{};
    lock();
    expect("Removed a damaged state file; " + fake.app + off + "; ");
}

TEST_F(ReleaseTest, SaysThatALockThatNoRecordOwesCannotBeTakenOff) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, whose the bundles must be";
    }
    fake.world.flags.setByHand(fake.app, true);
    fake.world.flags.failsToUnlock = true;
    EXPECT_THAT(released(),
                ::testing::AllOf(
                    ::testing::Field(&Outcome::status, ExitStatus::system),
                    ::testing::Field(&Outcome::errors,
                                     StartsWith("halvoctl: The lock of " + fake.app +
                                                " cannot be taken off. The helper's log says"))));
    fake.hold().locked = false;
    EXPECT_THAT(released().errors, HasSubstr("off, so the commitment stays stored."));
    EXPECT_FALSE(fake.world.store.isEmpty());
}

TEST_F(ReleaseTest, TouchesNothingThatTheHelperMayNotLock) {
    const std::string elsewhere = fake.disk / "Elsewhere.app";
    fs::create_directories(elsewhere);
    fake.world.flags.add(elsewhere);
    for (const StoredCommitment& stored :
         {StoredCommitment(UnreadableCommitment{elsewhere, true}),
          StoredCommitment(HelperCommitment{elsewhere, 1000, {}, {}, {}, {}, true})}) {
        fake.world.flags.setByHand(elsewhere, true);
        fake.world.store.stored = stored;
        EXPECT_EQ(released().status, ExitStatus::fine);
        EXPECT_TRUE(fake.world.flags.isSet(elsewhere));
        EXPECT_TRUE(fake.world.store.isEmpty());
    }
}

TEST_F(ReleaseTest, UnlocksWhatADamagedRecordOwes) {
    fake.hold();
    fake.world.store.stored = UnreadableCommitment{fake.app, true};
    EXPECT_EQ(released(), fine("com.example.app: Removed a damaged state file; " + fake.app +
                               " is unlocked.\n"));
    EXPECT_FALSE(fake.world.flags.isSet(fake.app));
    fake.world.store.stored = UnreadableCommitment{};
    EXPECT_EQ(
        released(),
        fine("com.example.app: Removed a damaged state file; no lock is known that it owed.\n"));
}

TEST_F(ReleaseTest, KeepsTheRecordOfALockThatCannotBeTakenOff) {
    for (const bool isWhole : {true, false}) {
        fake.hold();
        if (!isWhole) {
            fake.world.store.stored = UnreadableCommitment{fake.app, true};
        }
        fake.world.flags.failsToUnlock = true;
        const Outcome outcome = released();
        EXPECT_EQ(outcome.status, ExitStatus::system);
        EXPECT_EQ(outcome.output, "");
        EXPECT_THAT(outcome.errors,
                    StartsWith("halvoctl: The lock of " + fake.app +
                               " cannot be taken off, so the commitment stays stored."));
        EXPECT_FALSE(fake.world.store.isEmpty());
        EXPECT_EQ(fake.world.calls.changes().back(), resumed);
        fake.world.flags.failsToUnlock = false;
        EXPECT_EQ(released().status, ExitStatus::fine);
        EXPECT_FALSE(fake.world.flags.isSet(fake.app));
    }
}

TEST_F(ReleaseTest, KeepsTheRecordOfALockedBundleThatIsOutOfReach) {
    const std::string problem =
        "halvoctl: The bundle that the helper locked is not at " + fake.app +
        ", so its lock cannot be taken off, and the commitment stays stored. If it lies on a disk "
        "that is not mounted, or below another mount, make it reachable and run halvoctl release "
        "again. If the bundle is gone for good: halvoctl release --bundle-gone\n";
    for (const bool isWhole : {true, false}) {
        for (const bool hasLink : {false, true}) {
            fake.hold();
            if (!isWhole) {
                fake.world.store.stored = UnreadableCommitment{fake.app, true};
            }
            fs::rename(fake.applications, fake.disk / "Hidden");
            fs::create_directory(fake.applications);
            if (hasLink) {
                fs::create_directory_symlink(fake.disk / "Hidden/Halvo.app", fake.app);
            }
            EXPECT_EQ(released(), (Outcome{ExitStatus::system, "", problem}));
            EXPECT_FALSE(fake.world.store.isEmpty());
            EXPECT_TRUE(fake.world.flags.isSet(fake.app));
            EXPECT_EQ(fake.world.calls.changes().back(), resumed);

            fs::remove_all(fake.applications);
            fs::rename(fake.disk / "Hidden", fake.applications);
            EXPECT_EQ(released().status, ExitStatus::fine);
            EXPECT_FALSE(fake.world.flags.isSet(fake.app));
            EXPECT_TRUE(fake.world.store.isEmpty());
        }
    }
}

TEST_F(ReleaseTest, ForgetsTheLockOfABundleThatIsSaidToBeGone) {
    for (const bool isWhole : {true, false}) {
        fake.hold();
        if (!isWhole) {
            fake.world.store.stored = UnreadableCommitment{fake.app, true};
        }
        fs::remove_all(fake.app);
        fake.world.flags.erase(fake.app);
        const Outcome outcome = released({.isBundleGone = true});
        EXPECT_EQ(outcome.status, ExitStatus::fine);
        EXPECT_THAT(outcome.output,
                    HasSubstr("; the lock of " + fake.app +
                              " is forgotten with the bundle, which is not there.\n"));
        EXPECT_TRUE(fake.world.store.isEmpty());
        FakeMachine::writeInfo(fake.app, "com.example.app", "7QX4KD19MT");
        fake.world.flags.add(fake.app);
    }
}

TEST_F(ReleaseTest, UnlocksABundleThatIsThereWhateverIsSaid) {
    fake.hold();
    EXPECT_THAT(released({.isBundleGone = true}).output,
                HasSubstr("; " + fake.app + " is unlocked.\n"));
    EXPECT_FALSE(fake.world.flags.isSet(fake.app));
}

TEST_F(ReleaseTest, ForgetsABundleThatIsGoneAndOwesNoLock) {
    fake.hold().locked = false;
    fs::remove_all(fake.app);
    fake.world.flags.erase(fake.app);
    EXPECT_EQ(released().status, ExitStatus::fine);
    EXPECT_TRUE(fake.world.store.isEmpty());
}

TEST_F(ReleaseTest, KeepsTheRecordOfABundleThatCannotBeLookedAt) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be somebody else";
    }
    constexpr uid_t nobody = 65534;
    const testing::TemporaryFolder everybodys;
    fs::permissions(everybodys.path(), fs::perms::all);
    fake.machine.releaseLock = everybodys / "lock";
    for (const bool isWhole : {true, false}) {
        fake.hold();
        if (!isWhole) {
            fake.world.store.stored = UnreadableCommitment{fake.app, true};
        }
        // Whose way to the bundle ends at a closed folder.
        ASSERT_EQ(seteuid(nobody), 0);
        const Outcome outcome = released();
        ASSERT_EQ(seteuid(0), 0);
        EXPECT_EQ(outcome, (Outcome{ExitStatus::system, "",
                                    "halvoctl: " + fake.app +
                                        " cannot be looked at, so the commitment stays stored. "
                                        "Mend its disk and try again. If the bundle is gone for "
                                        "good: halvoctl release --bundle-gone\n"}));
        EXPECT_FALSE(fake.world.store.isEmpty());
    }
}

TEST_F(ReleaseTest, SaysThatTheRecordCannotBeRemoved) {
    fake.hold();
    fs::create_directories(fake.disk / "state");
    testing::writeTestFile(fake.machine.stateFile, "");
    const Outcome outcome = released();
    EXPECT_EQ(outcome.status, ExitStatus::system);
    EXPECT_EQ(outcome.errors,
              "halvoctl: " + fake.app +
                  " is unlocked, but the state file cannot be removed, and the helper would take "
                  "the commitment up again. Remove it: " +
                  fake.machine.stateFile + "\n");
    EXPECT_EQ(fake.world.calls.changes().back(), resumed);
}

TEST_F(ReleaseTest, SaysThatAFileThatCannotBeReadCannotBeRemoved) {
    fs::create_directories(fake.machine.stateFile);
    const Outcome outcome = released();
    EXPECT_EQ(outcome.status, ExitStatus::system);
    EXPECT_THAT(outcome.errors, HasSubstr("Remove it: " + fake.machine.stateFile));
    EXPECT_THAT(fake.world.calls.changes(), ElementsAre(stopped, "remove", resumed));
}

TEST_F(ReleaseTest, TouchesNothingWhenTheHelperDoesNotStop) {
    fake.hold();
    fake.service.stopped = std::unexpected("It does not end.");
    EXPECT_EQ(released(), (Outcome{ExitStatus::system, "", "halvoctl: It does not end.\n"}));
    EXPECT_THAT(fake.world.calls.changes(), ElementsAre(stopped, resumed));
    EXPECT_TRUE(fake.world.flags.isSet(fake.app));
}

TEST_F(ReleaseTest, WaitsForAnother) {
    fake.hold();
    Descriptor other = *takeLockFile(fake.machine.releaseLock);
    fake.waiter.onPause = [&] {
        if (fake.waiter.time >= Seconds{1030}) {
            other = Descriptor();
        }
    };
    fake.service.onStop = [&] { EXPECT_FALSE(other.isOpen()); };
    EXPECT_EQ(released().status, ExitStatus::fine);
    EXPECT_THAT(fake.waiter.said,
                ElementsAre("Waiting for another halvoctl release, at most a minute."));
    EXPECT_NEAR(fake.waiter.time.count(), 1030, 0.1);
}

TEST_F(ReleaseTest, TouchesNothingWhileAnotherDoesNotEnd) {
    fake.hold();
    const auto other = takeLockFile(fake.machine.releaseLock);
    EXPECT_EQ(released(), (Outcome{ExitStatus::system, "",
                                   "halvoctl: Another halvoctl release runs and does not end. "
                                   "Wait for it, or kill it, and try again.\n"}));
    EXPECT_NEAR(fake.waiter.time.count(), 1060, 0.1);
    EXPECT_TRUE(fake.world.calls.changes().empty());
    EXPECT_TRUE(fs::exists(fake.machine.releaseLock)) << "it is the other's";
}

TEST_F(ReleaseTest, HoldsTheLockToTheEnd) {
    testing::writeTestFile(fake.machine.releaseLock, "");  // of one that was killed
    const auto expectLocked = [this] { EXPECT_FALSE(takeLockFile(fake.machine.releaseLock)); };
    fake.service.onStop = expectLocked;
    fake.service.onResume = expectLocked;
    EXPECT_EQ(released().status, ExitStatus::fine);
    EXPECT_THAT(fake.world.calls.changes(), ElementsAre(stopped, resumed));
    EXPECT_FALSE(fs::exists(fake.machine.releaseLock));
}

TEST_F(ReleaseTest, TouchesNothingWithoutTheLock) {
    fake.hold();
    fs::create_directory(fake.machine.releaseLock);
    EXPECT_EQ(released(), (Outcome{ExitStatus::system, "",
                                   "halvoctl: " + fake.machine.releaseLock +
                                       " cannot be locked: Is a directory. Mend that and try "
                                       "again.\n"}));
    EXPECT_TRUE(fake.world.calls.changes().empty());
    EXPECT_TRUE(fake.world.flags.isSet(fake.app));
}

TEST_F(ReleaseTest, SaysHowTheAppCanCallAgain) {
    fake.hold();
    fake.service.resumed = "It is back later.";
    EXPECT_THAT(released().output, HasSubstr(" is unlocked.\nIt is back later.\n"));
    fake.hold();
    fake.service.resumed = std::unexpected("Start it.");
    const Outcome outcome = released();
    EXPECT_EQ(outcome.status, ExitStatus::system);
    EXPECT_THAT(outcome.output, HasSubstr(" is unlocked.\n"));
    EXPECT_EQ(outcome.errors, "halvoctl: Start it.\n");
}

TEST_F(ReleaseTest, LeavesTheHelperStoppedWhenToldSo) {
    fake.service.resumed = "It is back later.";
    fake.hold();
    const Outcome outcome = released({.staysStopped = true});
    EXPECT_EQ(outcome.status, ExitStatus::fine);
    EXPECT_THAT(outcome.output, EndsWith(" is unlocked.\n"));
    EXPECT_THAT(fake.world.calls.changes(), ElementsAre(stopped, "unlock Halvo.app", "remove"));

    fake.hold();
    fake.world.flags.failsToUnlock = true;
    EXPECT_EQ(released({.staysStopped = true}).status, ExitStatus::system);
    EXPECT_EQ(fake.world.calls.changes().back(), resumed) << "what is not removed goes on";
}

TEST_F(ReleaseTest, MayBeInterruptedAnywhereAndRunAgain) {
    for (std::size_t call = 1;; ++call) {
        SCOPED_TRACE(call);
        fake.hold();
        fake.world.calls.crashAt(call);
        try {
            released();
        } catch (const testing::Crash&) {
        }
        const bool isOver = fake.world.calls.cancelCrash();
        EXPECT_TRUE(!fake.world.flags.isSet(fake.app) || !fake.world.store.isEmpty());
        EXPECT_EQ(released().status, ExitStatus::fine);
        EXPECT_FALSE(fake.world.flags.isSet(fake.app));
        EXPECT_TRUE(fake.world.store.isEmpty());
        if (isOver) {
            EXPECT_GT(call, 4U);
            return;
        }
    }
}

}  // namespace
}  // namespace halvo::control
