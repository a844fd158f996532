// The possible contents of the disk after a power loss at any moment.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/InodeFlags.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

std::string folderOf(const std::string& path) { return path.substr(0, path.find_last_of('/')); }

// A call that changed the disk, or an fsync(2).
struct Step {
    std::string verb;
    std::string path;
    std::string bytes;

    // The item whose fsync(2) makes the change durable.
    [[nodiscard]] std::string syncedBy() const {
        const bool isOfFolder = verb == "mkdir" || verb == "rename" || verb == "remove";
        return isOfFolder ? folderOf(path) : path;
    }
};

// The disk after a power loss.
struct DiskState {
    std::map<std::string, std::string> items;
    std::set<std::string> locked;
};

// The weakest durability that POSIX allows: each change that was not synced is present or lost,
// independently of the others. The possible states of file systems that keep an order are among
// these.
class CrashStates {
  public:
    explicit CrashStates(const CallTrace& trace) {
        std::size_t writes = 0;
        for (const std::string& call : trace.calls()) {
            const std::size_t blank = call.find(' ');
            Step& step = steps_.emplace_back(call.substr(0, blank), call.substr(blank + 1));
            step.bytes = step.verb == "write" ? trace.written()[writes++] : "";
        }
    }

    // Calls `check` with each possible state after the first `count` steps.
    void visit(std::size_t count, const std::function<void(const DiskState&)>& check) const {
        std::vector<std::size_t> unsynced;
        for (std::size_t i = 0; i < count; ++i) {
            if (steps_[i].verb != "fsync" && !isSynced(i, count)) {
                unsynced.push_back(i);
            }
        }
        ASSERT_LE(unsynced.size(), 10);
        for (std::size_t choice = 0; choice < std::size_t{1} << unsynced.size(); ++choice) {
            std::set<std::size_t> lost;
            for (std::size_t bit = 0; bit < unsynced.size(); ++bit) {
                if ((choice >> bit & 1U) != 0) {
                    lost.insert(unsynced[bit]);
                }
            }
            check(after(count, lost));
        }
    }

    [[nodiscard]] std::size_t count() const { return steps_.size(); }

  private:
    [[nodiscard]] bool isSynced(std::size_t step, std::size_t count) const {
        for (std::size_t i = step + 1; i < count; ++i) {
            if (steps_[i].verb == "fsync" && steps_[i].path == steps_[step].syncedBy()) {
                return true;
            }
        }
        return false;
    }

    [[nodiscard]] DiskState after(std::size_t count, const std::set<std::size_t>& lost) const {
        DiskState left;
        std::string bytes;
        for (std::size_t i = 0; i < count; ++i) {
            const auto& [verb, path, written] = steps_[i];
            if (verb == "write") {
                bytes = lost.contains(i) ? "" : written;
            } else if (lost.contains(i)) {
                continue;
            } else if (verb == "mkdir" || verb == "rename") {
                left.items[path] = verb == "rename" ? bytes : "";
            } else if (verb == "remove") {
                left.items.erase(path);
            } else if (verb == "lock") {
                left.locked.insert(path);
            } else if (verb == "unlock") {
                left.locked.erase(path);
            }
        }
        return left;
    }

    std::vector<Step> steps_;
};

class CrashStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!testing::isLockable(app)) {
            GTEST_SKIP() << "needs root and a file system with file flags for temporary files";
        }
        trace.emplace();
    }

    void begin(const std::string& path) {
        const WallDate now = world.clock.now().wall;
        EXPECT_TRUE(engine.begin(path, now + Seconds{600}, now, {501, path}));
    }

    void end() {
        EXPECT_TRUE(engine.end({501, std::nullopt}));
        ended.insert(trace->calls().size());
    }

    // In each state: no lock without a record that owes the unlock, no torn record, and no
    // commitment whose end was acknowledged.
    void check() const {
        const CrashStates states(*trace);
        for (std::size_t count = 0; count <= states.count(); ++count) {
            states.visit(count, [&](const DiskState& left) {
                const auto found = left.items.find(store.path());
                const bool isThere =
                    left.items.contains(folderOf(store.path())) && found != left.items.end();
                const std::string record = isThere ? found->second : "";
                const std::string where = "after step " + std::to_string(count) + ": " +
                                          (count == 0 ? "" : trace->calls()[count - 1]);
                EXPECT_EQ(isThere, record.ends_with("\n}\n")) << "a torn record, " << where;
                EXPECT_FALSE(isThere && ended.contains(count))
                    << "an ended commitment is back, " << where;
                for (const std::string& path : left.locked) {
                    const bool isOwed =
                        record.contains("\"" + path + "\"") && record.contains("\"locked\": true");
                    EXPECT_TRUE(isOwed) << path << " is locked without a record, " << where;
                }
            });
        }
    }

    LogCapture log;
    SimulatedWorld world;
    std::string app = world.addBundle("Applications/Halvo.app");
    std::string otherApp = world.addBundle("Applications/Other.app");
    TemporaryFolder disk;
    FileCommitmentStore store{disk / "Library/com.example.app.helper"};
    ChflagsFileFlags flags{ItemFlag::systemImmutable};
    RecordedLocks locks{store, flags};
    HelperEngine engine{world.clock, locks, locks, world.session, world.opener};
    std::optional<CallTrace> trace;
    std::set<std::size_t> ended;
};

TEST_F(CrashStateTest, PowerLossLeavesNoStaleLockAndNoEndedCommitment) {
    begin(app);
    end();
    begin(app);
    begin(otherApp);
    end();
    check();
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(CrashStateTest, PowerLossAfterAFailedSaveLeavesNoStaleLock) {
    // The fsync of the two folders that the first save makes, of the file, of its folder.
    for (const int skip : {0, 1, 2, 3}) {
        const Fault fault = Fault::failing(SystemCall::fsync, EIO, skip);
        begin(app);
        end();
    }
    for (const SystemCall call : {SystemCall::write, SystemCall::renameat}) {
        begin(app);
        const Fault fault = Fault::failing(call, ENOSPC);
        begin(otherApp);
        end();
    }
    check();
}

}  // namespace
}  // namespace halvo::testing
