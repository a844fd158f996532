#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using Changes = std::vector<std::string>;

// The call log of FakeService.
const std::string stopped = "save by stop";
const std::string resumed = "save by resume";

// A machine with room for a second bundle.
struct Scene : FakeMachine {
    Outcome released(const ReleaseOptions& options = {}) { return release(machine, options); }

    [[nodiscard]] Outcome failed(const std::string& problem) const {
        return failure(ExitStatus::system, withPaths(problem));
    }

    void lock(const std::string& path) {
        world.flags.add(path);
        world.flags.setByHand(path, true);
    }

    // `text` with the marks replaced by this machine's paths.
    [[nodiscard]] std::string withPaths(std::string text) const {
        for (const auto& [mark, path] :
             {std::pair{"@app", app}, std::pair{"@second", second},
              std::pair{"@clear", clearCommand(app)}, std::pair{"@file", machine.stateFile},
              std::pair{"@lock", service.releaseLock}}) {
            for (std::size_t at = 0; (at = text.find(mark)) != std::string::npos;) {
                text.replace(at, std::string(mark).size(), path);
            }
        }
        return text;
    }

    const std::string second = applications + "/Second.app";
};

// Changes of the scene.
using Steps = std::vector<void (*)(Scene&)>;
constexpr auto hold = [](Scene& m) { m.hold(); };
constexpr auto holdBare = [](Scene& m) { m.hold().locked = false; };
constexpr auto holdOnStop = [](Scene& m) { m.service.onStop = [&m] { m.hold(); }; };
constexpr auto expire = [](Scene& m) { m.hold(Seconds{0}); };
constexpr auto damage = [](Scene& m) { m.world.store.stored = UnreadableCommitment{m.app, true}; };
constexpr auto damageAll = [](Scene& m) { m.world.store.stored = UnreadableCommitment{}; };
constexpr auto lock = [](Scene& m) { m.lock(m.app); };
constexpr auto unlockByHand = [](Scene& m) { m.world.flags.setByHand(m.app, false); };
constexpr auto lockSecond = [](Scene& m) { m.lock(m.second); };
constexpr auto removeApp = [](Scene& m) {
    fs::remove_all(m.app);
    m.world.flags.erase(m.app);
};
constexpr auto addSecond = [](Scene& m) {
    Scene::writeInfo(m.second, "com.example.app", "7QX4KD19MT");
};
constexpr auto giveAway = [](Scene& m) {
    Scene::writeInfo(m.app, "com.example.app", "ANYTEAM123");
};
constexpr auto hide = [](Scene& m) {
    fs::rename(m.applications, m.disk / "Hidden");
    fs::create_directory(m.applications);
};
constexpr auto link = [](Scene& m) {
    fs::create_directory_symlink(m.disk / "Hidden/Halvo.app", m.app);
};
constexpr auto bringBack = [](Scene& m) {
    fs::remove_all(m.applications);
    fs::rename(m.disk / "Hidden", m.applications);
};
constexpr auto refuse = [](Scene& m) { m.world.flags.failsToUnlock = true; };
constexpr auto allow = [](Scene& m) { m.world.flags.failsToUnlock = false; };
constexpr auto stick = [](Scene& m) { m.service.stopped = std::unexpected("It stays."); };
constexpr auto loosen = [](Scene& m) { m.service.stopped = {}; };

// A release after the steps, and its message.
struct Row {
    Steps steps;
    std::string message;
    ReleaseOptions options{};
    bool staysLocked = false;
};

void expectReleased(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        Scene machine;
        std::ranges::for_each(row.steps, [&](auto step) { step(machine); });
        EXPECT_EQ(machine.released(row.options),
                  (Outcome{ExitStatus::fine,
                           machine.withPaths("com.example.app: " + row.message + ".\n"), ""}));
        EXPECT_EQ(machine.world.flags.isSet(machine.app), row.staysLocked);
        EXPECT_FALSE(machine.world.flags.isSet(machine.second));
        EXPECT_TRUE(machine.world.store.isEmpty());
        EXPECT_EQ(machine.world.calls.changes().back(), resumed);
    }
}

// A release that fails after the steps, and succeeds after `repair`.
struct Failure {
    Steps steps;
    std::string problem;
    void (*repair)(Scene&);
};

class ReleaseTest : public ::testing::Test {
  protected:
    Scene fake;
    testing::LogCapture log;
};

const std::string ofAnn = "Ended the commitment of ann (uid 1000) that ";
const std::string held = ofAnn + "held until 2025-10-09 11:55:25 +02:00; ";
const std::string removedDamaged = "Removed a damaged state file; ";

TEST_F(ReleaseTest, UnlocksThenDeletesThenResumes) {
    fake.hold();
    EXPECT_EQ(fake.released().status, ExitStatus::fine);
    EXPECT_EQ(fake.world.calls.changes(),
              (Changes{stopped, "unlock Halvo.app", "remove", resumed}));
    EXPECT_TRUE(fake.waiter.said.empty());
    EXPECT_FALSE(fs::exists(fake.service.releaseLock));
    EXPECT_EQ(log.notices(), Changes{"An administrator ended the stored commitment"});
}

TEST_F(ReleaseTest, ClearsWhatIsStored) {
    const std::string kept = "@app keeps a lock that the helper did not set (to clear it: @clear)";
    const std::string forgotten =
        "the lock of @app is forgotten with the bundle, which is not there";
    const ReleaseOptions gone{.isBundleGone = true};
    expectReleased(
        {{{}, "Nothing was held"},
         {{hold}, held + "@app is unlocked"},
         {{hold}, held + "@app is unlocked", gone},
         {{holdOnStop}, held + "@app is unlocked"},
         {{expire}, ofAnn + "had run out at 2025-10-09 10:53:20 +02:00; @app is unlocked"},
         {{damage, lock}, removedDamaged + "@app is unlocked"},
         {{damageAll}, removedDamaged + "no lock is known that it owed"},
         {{hold, removeApp}, held + forgotten, gone},
         {{damage, removeApp}, removedDamaged + forgotten, gone},
         {{holdBare, removeApp}, held + "@app was not locked"},
         {{holdBare, unlockByHand}, held + "@app was not locked"},
         {{giveAway, lock}, "Nothing was held; " + kept, {}, true},
         {{giveAway, holdBare}, held + kept, {}, true}});
    EXPECT_EQ(log.notices().size(), 11U) << "not without a stored record";
}

TEST_F(ReleaseTest, UnlocksOrphans) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to whom the bundles must belong";
    }
    const std::string off = " carried a lock that no record owed, and is unlocked";
    const std::string both = "@app" + off + "; @second" + off;
    expectReleased({{{addSecond, lock, lockSecond}, "Nothing was held; " + both}});
    EXPECT_EQ(log.notices(), Changes(2, "An administrator cleared a lock that no record owed"));
    expectReleased({{{addSecond, hold, lockSecond}, held + "@app is unlocked; @second" + off},
                    {{addSecond, holdBare, lockSecond}, held + both},
                    {{addSecond, damageAll, lock, lockSecond}, removedDamaged + both}});
}

TEST_F(ReleaseTest, KeepsTheRecordWhenUnlockingFails) {
    const std::string locked = "The lock of @app cannot be cleared";
    const std::string why =
        ". The helper's log says why. Is its file system mounted read-only, or does this container "
        "lack CAP_LINUX_IMMUTABLE? Fix that and try again.";
    const std::string stored = ", so the commitment stays stored";
    const std::string away =
        "The bundle that the helper locked is not at @app, so its lock cannot be cleared, and "
        "the commitment stays stored. If it lies on a disk that is not mounted, or below another "
        "mount, make it reachable and run halvoctl release again. If the bundle is gone for good: "
        "halvoctl release --bundle-gone";
    std::vector<Failure> rows{{{hold, refuse}, locked + stored + why, allow},
                              {{damage, lock, refuse}, locked + stored + why, allow},
                              {{hold, hide}, away, bringBack},
                              {{damage, lock, hide}, away, bringBack},
                              {{hold, hide, link}, away, bringBack},
                              {{damage, lock, hide, link}, away, bringBack},
                              {{hold, stick}, "It stays.", loosen}};
    if (geteuid() == 0) {
        rows.push_back({{lock, refuse}, locked + why, allow});
        rows.push_back({{holdBare, refuse}, locked + stored + why, allow});
    }
    for (const Failure& row : rows) {
        SCOPED_TRACE(row.problem);
        Scene machine;
        std::ranges::for_each(row.steps, [&](auto step) { step(machine); });
        const StoredCommitment before = machine.world.store.stored;
        EXPECT_EQ(machine.released(), machine.failed(row.problem));
        EXPECT_TRUE(machine.world.flags.isSet(machine.app));
        EXPECT_EQ(machine.world.store.stored, before);
        EXPECT_EQ(machine.world.calls.changes().back(), resumed);
        row.repair(machine);
        EXPECT_EQ(machine.released().status, ExitStatus::fine);
        EXPECT_FALSE(machine.world.flags.isSet(machine.app));
        EXPECT_TRUE(machine.world.store.isEmpty());
    }
}

TEST_F(ReleaseTest, KeepsLocksWhereTheHelperMayNotLock) {
    const std::string elsewhere = fake.disk / "Elsewhere.app";
    fs::create_directories(elsewhere);
    fake.lock(elsewhere);
    for (const StoredCommitment& stored :
         {StoredCommitment(UnreadableCommitment{elsewhere, true}),
          StoredCommitment(HelperCommitment{elsewhere, 1000, {}, {}, {}, {}, true})}) {
        fake.world.store.stored = stored;
        EXPECT_EQ(fake.released().status, ExitStatus::fine);
        EXPECT_TRUE(fake.world.flags.isSet(elsewhere));
        EXPECT_TRUE(fake.world.store.isEmpty());
    }
}

TEST_F(ReleaseTest, KeepsTheRecordOfABundleThatCannotBeAccessed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    constexpr uid_t nobody = 65534;
    const testing::TemporaryFolder shared;
    fs::permissions(shared.path(), fs::perms::all);
    fake.service.releaseLock = shared / "lock";
    for (const bool isWhole : {true, false}) {
        isWhole ? hold(fake) : damage(fake);
        ASSERT_EQ(seteuid(nobody), 0);
        const Outcome outcome = fake.released();
        ASSERT_EQ(seteuid(0), 0);
        EXPECT_EQ(outcome,
                  fake.failed("@app cannot be looked at, so the commitment stays stored. Repair "
                              "its disk and try again. If the bundle is gone for good: halvoctl "
                              "release --bundle-gone"));
        EXPECT_FALSE(fake.world.store.isEmpty());
    }
}

TEST_F(ReleaseTest, ReportsAStateFileThatCannotBeRemoved) {
    const std::string stays =
        ", but the state file cannot be removed, and the helper would take the commitment up "
        "again. Remove it: @file";
    fake.hold();
    fs::create_directories(fake.disk / "state");
    testing::writeTestFile(fake.machine.stateFile, "");
    EXPECT_EQ(fake.released(), fake.failed("@app is unlocked" + stays));
    EXPECT_EQ(fake.released(), fake.failed("no lock is known that it owed" + stays))
        << "the file cannot be read";
    EXPECT_EQ(fake.world.calls.changes(), (Changes{stopped, "unlock Halvo.app", "remove", resumed,
                                                   stopped, "remove", resumed}));
}

TEST_F(ReleaseTest, ReportsTheResultOfResume) {
    fake.hold();
    fake.service.resumed = "It is back later.";
    EXPECT_TRUE(fake.released().output.ends_with(" is unlocked.\nIt is back later.\n"));
    fake.hold();
    fake.service.resumed = std::unexpected("Start it.");
    const Outcome outcome = fake.released();
    EXPECT_EQ(outcome.status, ExitStatus::system);
    EXPECT_TRUE(outcome.output.ends_with(" is unlocked.\n"));
    EXPECT_EQ(outcome.errors, "halvoctl: Start it.\n");
}

TEST_F(ReleaseTest, LeavesTheHelperStoppedOnRequest) {
    fake.service.resumed = "It is back later.";
    fake.hold();
    const Outcome outcome = fake.released({.staysStopped = true});
    EXPECT_EQ(outcome.status, ExitStatus::fine);
    EXPECT_TRUE(outcome.output.ends_with(" is unlocked.\n"));
    EXPECT_EQ(fake.world.calls.changes(), (Changes{stopped, "unlock Halvo.app", "remove"}));

    fake.hold();
    fake.world.flags.failsToUnlock = true;
    EXPECT_EQ(fake.released({.staysStopped = true}).status, ExitStatus::system);
    EXPECT_EQ(fake.world.calls.changes().back(), resumed) << "after a failure the service goes on";
}

TEST_F(ReleaseTest, WaitsForAnotherRelease) {
    Descriptor other = *takeLockFile(fake.service.releaseLock);
    fake.waiter.onPause = [&] {
        if (fake.waiter.time >= Seconds{1030}) {
            other = Descriptor();
        }
    };
    fake.service.onStop = [&] { EXPECT_FALSE(other.isOpen()); };
    EXPECT_EQ(fake.released().status, ExitStatus::fine);
    EXPECT_EQ(fake.waiter.said, Changes{"Waiting for another halvoctl release, at most a minute."});
    EXPECT_NEAR(fake.waiter.time.count(), 1030, 0.1);
}

TEST_F(ReleaseTest, ChangesNothingWithoutTheLock) {
    fake.hold();
    const auto expectFailure = [this](const std::string& problem) {
        EXPECT_EQ(fake.released(), fake.failed(problem));
        EXPECT_TRUE(fake.world.calls.changes().empty());
        EXPECT_TRUE(fs::exists(fake.service.releaseLock));
    };
    {
        const auto other = takeLockFile(fake.service.releaseLock);
        expectFailure(
            "Another halvoctl release runs and does not end. Wait for it, or kill it, and try "
            "again.");
        EXPECT_NEAR(fake.waiter.time.count(), 1060, 0.1);
    }
    fs::remove(fake.service.releaseLock);
    fs::create_directory(fake.service.releaseLock);
    expectFailure("@lock cannot be locked: Is a directory. Fix that and try again.");
}

TEST_F(ReleaseTest, HoldsTheLockToTheEnd) {
    testing::writeTestFile(fake.service.releaseLock, "");  // left by a killed release
    const auto expectLocked = [this] { EXPECT_FALSE(takeLockFile(fake.service.releaseLock)); };
    fake.service.onStop = expectLocked;
    fake.service.onResume = expectLocked;
    EXPECT_EQ(fake.released().status, ExitStatus::fine);
    EXPECT_EQ(fake.world.calls.changes(), (Changes{stopped, resumed}));
    EXPECT_FALSE(fs::exists(fake.service.releaseLock));
}

}  // namespace
}  // namespace halvo::control
