#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "HalvoHelperCore/FileCommitmentStore.hpp"
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
    const int place = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(fsync(place) == 0 && close(place) == 0, folder);
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
}

}  // namespace halvo::benchmark
