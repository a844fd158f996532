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
#include <system_error>

#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/RecordedLocks.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"

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

std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
    require(write(written, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
            temporary);
    require(fsync(written) == 0 && close(written) == 0, temporary);
    require(rename(temporary.c_str(), file.c_str()) == 0, temporary);
    bareSync(folder);
}

Comparison compareIn(const std::string& folder, std::size_t rounds) {
    const std::string oursIn = folder + "/ours";
    const std::string theirsIn = folder + "/theirs";
    fs::remove_all(oursIn);
    fs::remove_all(theirsIn);
    fs::create_directories(theirsIn);
    FileCommitmentStore store(oursIn);
    store.save(typicalCommitment());
    const std::string bytes = content(oursIn + "/commitment.json");
    if (bytes.empty()) {
        throw CannotMeasure("nothing can be saved in " + oursIn);
    }
    const std::string file = theirsIn + "/file";
    const std::string temporary = theirsIn + "/.file.new";
    bareWrite(theirsIn, file, temporary, bytes);
    const Comparison measured = takeTurns(
        rounds, [&] { return microsecondsOf(1, [&] { store.save(typicalCommitment()); }); },
        [&] { return microsecondsOf(1, [&] { bareWrite(theirsIn, file, temporary, bytes); }); });
    fs::remove_all(oursIn);
    fs::remove_all(theirsIn);
    return measured;
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

// A commitment begun and ended by the engine on the real disk, and by the same calls without it.
class Beginnings {
  public:
    explicit Beginnings(const std::string& folder) : folder_(folder) {
        for (const std::string& place : {oursIn_, theirsIn_}) {
            // As a run that was killed may have left it.
            flags_.setLocked(false, place + bundle);
            fs::remove_all(place);
            fs::create_directories(place + bundle);
        }
        FileCommitmentStore(folder + "/record").save(typicalCommitment());
        bytes_ = content(folder + "/record/commitment.json");
    }

    Beginnings(const Beginnings&) = delete;
    Beginnings& operator=(const Beginnings&) = delete;

    ~Beginnings() {
        std::error_code failed;
        fs::remove_all(folder_, failed);
    }

    [[nodiscard]] Comparison compare(std::size_t rounds, bool ofBegin) {
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
    struct NoSession final : SessionProbe {
        std::optional<std::uint32_t> consoleUser() override { return std::nullopt; }

        bool isAppRunning(const std::string& /*bundlePath*/, std::uint32_t /*uid*/) override {
            return true;
        }
    };

    struct NoOpener final : AppOpener {
        void open(const std::string& /*appPath*/, std::uint32_t /*uid*/,
                  bool /*afterQuit*/) override {}
    };

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
        const std::string state = theirsIn_ + "/state";
        require(mkdir(state.c_str(), S_IRWXU) == 0, state);
        bareSync(theirsIn_);
        bareWrite(state, state + "/file", state + "/.file.new", bytes_);
        bareLock(theirsIn_ + bundle, true);
        bareWrite(state, state + "/file", state + "/.file.new", bytes_);
    }

    void bareEnd() const {
        const std::string state = theirsIn_ + "/state";
        bareLock(theirsIn_ + bundle, false);
        require(unlink((state + "/file").c_str()) == 0, state);
        bareSync(state);
        require(rmdir(state.c_str()) == 0, state);
        bareSync(theirsIn_);
    }

    std::string folder_;
    std::string oursIn_ = folder_ + "/ours";
    std::string theirsIn_ = folder_ + "/theirs";
    std::string bytes_;
    SystemHelperClock clock_;
    ChflagsFileFlags flags_{ItemFlag::systemImmutable};
    FileCommitmentStore store_{oursIn_ + "/state"};
    RecordedLocks locks_{store_, flags_};
    NoSession session_;
    NoOpener opener_;
    HelperEngine engine_{clock_, locks_, locks_, session_, opener_};
};

// Nothing that the engine says is shown, while it lives.
class QuietErrors {
  public:
    QuietErrors() {
        const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDERR_FILENO);
    }

    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

    ~QuietErrors() { dup2(before_.get(), STDERR_FILENO); }

  private:
    Descriptor before_{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

bool isOnDisk(const std::string& folder) {
    struct statfs status{};
    require(statfs(folder.c_str(), &status) == 0, folder);
    return status.f_type != TMPFS_MAGIC && status.f_type != RAMFS_MAGIC;
}

}  // namespace

void measureSave(Table& table, const Places& places, Effort effort) {
    const std::string peer = "bare write, fsync, rename, fsync";
    constexpr double limit = 1.1;
    progress("saving");
    if (!isOnDisk(places.disk)) {
        throw CannotMeasure(places.disk + " is in memory; --build names a folder on a disk");
    }
    table.add(Row::compared("save on a disk", "us", peer,
                            compareIn(places.disk + "/saves", effort.rounds(8000)), {limit, {}}));
    table.add(Row::compared("save in memory (tmpfs)", "us", peer,
                            compareIn("/tmp/saves", effort.rounds(8000)), {}));
    progress("beginning and ending");
    // Besides the calls: the clock, the flags and the folder looked at, and a line in the log.
    constexpr double engineLimit = 1.25;
    const QuietErrors quiet;
    Beginnings beginnings(places.disk + "/beginnings");
    table.add(Row::compared("begin on a disk", "us", "the same writes, renames, flags and fsyncs",
                            beginnings.compare(effort.rounds(4000), true), {engineLimit, {}}));
    table.add(Row::compared("end on a disk", "us", "the same removals, flags and fsyncs",
                            beginnings.compare(effort.rounds(4000), false), {engineLimit, {}}));
}

}  // namespace halvo::benchmark
