#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::benchmark {
namespace {

namespace fs = std::filesystem;

const HelperCommitment& typicalCommitment() {
    static const HelperCommitment commitment{
        "/Applications/Halvo.app",
        61000,
        wallDate(1767260000.25),
        Seconds{3481.73245},
        Seconds{86281.73245},
        {"1b4e28ba-2fa1-11d2-883f-0016d3cca427", Seconds{10291.618273645}, wallDate(1767260118.5)},
        true};
    return commitment;
}

// An empty folder, also where a run that was killed has left a locked bundle.
std::string newFolder(const std::string& path, const std::string& bundle = "") {
    ChflagsFileFlags(ItemFlag::systemImmutable).setLocked(false, path + bundle);
    fs::remove_all(path);
    fs::create_directories(path + bundle);
    return path;
}

// What the store writes for a commitment.
std::string recordBytes(const std::string& folder) {
    FileCommitmentStore(folder + "/record").save(typicalCommitment());
    std::ifstream file(folder + "/record/commitment.json", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    return !bytes.empty() ? bytes : throw CannotMeasure("nothing can be saved in " + folder);
}

void bareSync(const std::string& folder) {
    const int place = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(fsync(place) == 0 && close(place) == 0, folder);
}

// The least that puts a file in the place of another so that neither a reader nor a power failure
// meets half of it.
void bareWrite(const std::string& folder, const std::string& file, const std::string& temporary,
               const std::string& bytes) {
    const int written =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    require(write(written, bytes.data(), bytes.size()) == std::ssize(bytes), temporary);
    require(fsync(written) == 0 && close(written) == 0, temporary);
    require(rename(temporary.c_str(), file.c_str()) == 0, temporary);
    bareSync(folder);
}

// The least that locks or unlocks a folder for good.
void bareLock(const std::string& folder, bool locked) {
    const int item = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int flags = 0;
    require(ioctl(item, FS_IOC_GETFLAGS, &flags) == 0, folder);
    flags = locked ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    require(ioctl(item, FS_IOC_SETFLAGS, &flags) == 0, folder);
    require(fsync(item) == 0 && close(item) == 0, folder);
}

Rounds compareSaves(const std::string& folder, std::size_t rounds) {
    const std::string theirsIn = newFolder(folder + "/theirs");
    const std::string file = theirsIn + "/file";
    const std::string temporary = theirsIn + "/.file.new";
    const std::string bytes = recordBytes(folder);
    FileCommitmentStore store(folder + "/ours");
    store.save(typicalCommitment());
    const Rounds measured = takeTurns(
        rounds, [&] { return microsecondsOf(1, [&] { store.save(typicalCommitment()); }); },
        [&] { return microsecondsOf(1, [&] { bareWrite(theirsIn, file, temporary, bytes); }); });
    fs::remove_all(folder);
    return measured;
}

// A commitment begun and ended by the engine on the real disk, and by the same calls without it.
class Beginnings {
  public:
    explicit Beginnings(const std::string& folder) : folder_(folder) {
        world_.calls.stopRecording();
    }

    Beginnings(const Beginnings&) = delete;
    Beginnings& operator=(const Beginnings&) = delete;

    ~Beginnings() {
        std::error_code failed;
        fs::remove_all(folder_, failed);
    }

    [[nodiscard]] Rounds compare(std::size_t rounds, bool ofBegin) {
        // The half that is not asked for is made, but not timed.
        const auto timed = [ofBegin](const auto& begin, const auto& end) {
            const double first = microsecondsOf(1, begin);
            const double second = microsecondsOf(1, end);
            return ofBegin ? first : second;
        };
        return takeTurns(
            rounds, [&] { return timed([this] { begin(); }, [this] { end(); }); },
            [&] { return timed([this] { bareBegin(); }, [this] { bareEnd(); }); });
    }

  private:
    static constexpr const char* bundle = "/Applications/Halvo.app";

    void begin() {
        const WallDate now = wallNow();
        const std::string app = oursIn_ + bundle;
        require(
            engine_.begin(app, now + Seconds{3600}, now, {0, app}) && engine_.commitment()->locked,
            "a lock on " + app);
    }

    void end() { require(engine_.end({0, {}}), "an end"); }

    void bareBegin() const {
        require(mkdir(state_.c_str(), S_IRWXU) == 0, state_);
        bareSync(theirsIn_);
        bareWrite(state_, state_ + "/file", state_ + "/.file.new", bytes_);
        bareLock(theirsIn_ + bundle, true);
        bareWrite(state_, state_ + "/file", state_ + "/.file.new", bytes_);
    }

    void bareEnd() const {
        bareLock(theirsIn_ + bundle, false);
        require(unlink((state_ + "/file").c_str()) == 0, state_);
        bareSync(state_);
        require(rmdir(state_.c_str()) == 0, state_);
        bareSync(theirsIn_);
    }

    std::string folder_;
    std::string oursIn_ = newFolder(folder_ + "/ours", bundle);
    std::string theirsIn_ = newFolder(folder_ + "/theirs", bundle);
    std::string bytes_ = recordBytes(folder_);
    std::string state_ = theirsIn_ + "/state";
    SystemHelperClock clock_;
    ChflagsFileFlags flags_{ItemFlag::systemImmutable};
    FileCommitmentStore store_{oursIn_ + "/state"};
    RecordedLocks locks_{store_, flags_};
    // Whose session is empty and whose opener opens nothing.
    testing::SimulatedWorld world_;
    HelperEngine engine_{clock_, locks_, locks_, world_.session, world_.opener};
};

bool isOnDisk(const std::string& folder) {
    struct statfs status{};
    require(statfs(folder.c_str(), &status) == 0, folder);
    return status.f_type != TMPFS_MAGIC && status.f_type != RAMFS_MAGIC;
}

}  // namespace

void measureSave(Table& table, const Machine& machine) {
    if (!isOnDisk(machine.build)) {
        throw CannotMeasure(machine.build + " is in memory; --build names a folder on a disk");
    }
    progress("saving");
    const std::string peer = "bare write, fsync, rename, fsync";
    constexpr double limit = 1.1;
    const std::size_t saves = machine.rounds(8000);
    table.compare("save on a disk", peer, compareSaves(machine.program("saves"), saves), limit);
    table.compare("save in memory (tmpfs)", peer, compareSaves("/tmp/saves", saves));
    progress("beginning and ending");
    // Besides the calls: the clock, the flags and the folder looked at, and a line in the log.
    constexpr double engineLimit = 1.25;
    Beginnings beginnings(machine.program("beginnings"));
    const std::size_t rounds = machine.rounds(4000);
    table.compare("begin on a disk", "the same writes, renames, flags and fsyncs",
                  beginnings.compare(rounds, true), engineLimit);
    table.compare("end on a disk", "the same removals, flags and fsyncs",
                  beginnings.compare(rounds, false), engineLimit);
}

}  // namespace halvo::benchmark
