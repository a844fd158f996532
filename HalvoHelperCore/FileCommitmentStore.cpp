#include "HalvoHelperCore/FileCommitmentStore.hpp"

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

using Json = nlohmann::json;

constexpr const char* fileName = "commitment.json";
constexpr std::size_t sizeLimit = std::size_t{1} << 20U;
constexpr mode_t folderMode = 0700;
constexpr mode_t fileMode = 0600;

namespace key {
constexpr const char* appPath = "appPath";
constexpr const char* capRemaining = "capRemaining";
constexpr const char* checkpoint = "checkpoint";
constexpr const char* locked = "locked";
constexpr const char* remaining = "remaining";
constexpr const char* startedWall = "startedWall";
constexpr const char* uid = "uid";
constexpr const char* bootID = "bootID";
constexpr const char* sinceBoot = "sinceBoot";
constexpr const char* wall = "wall";
}  // namespace key

double number(const Json& object, const char* name) { return object.at(name).get<double>(); }

// A user id: any JSON number that is a whole one in range, however it is spelled.
std::optional<std::uint32_t> userID(const Json& root) {
    const double value = number(root, key::uid);
    const bool fits = value >= 0 && value <= std::numeric_limits<std::uint32_t>::max();
    const auto user = static_cast<std::uint32_t>(fits ? value : 0);
    return user == value ? std::optional(user) : std::nullopt;
}

// Nothing, or Json::exception, where a member is missing, of another type or out of its range.
std::optional<HelperCommitment> commitmentFrom(const Json& root) {
    const Json& checkpoint = root.at(key::checkpoint);
    const ClockReading reading{checkpoint.at(key::bootID).get<std::string>(),
                               Seconds{number(checkpoint, key::sinceBoot)},
                               wallDate(number(checkpoint, key::wall))};
    const auto uid = userID(root);
    return uid ? std::optional(HelperCommitment{root.at(key::appPath).get<std::string>(), *uid,
                                                wallDate(number(root, key::startedWall)),
                                                Seconds{number(root, key::remaining)},
                                                Seconds{number(root, key::capRemaining)}, reading,
                                                root.at(key::locked).get<bool>()})
               : std::nullopt;
}

StoredCommitment decode(const std::string& bytes) {
    // The library takes a zero byte for the end of the text, whatever follows.
    if (bytes.find('\0') != std::string::npos) {
        return UnreadableCommitment{};
    }
    const Json root = Json::parse(bytes, nullptr, /*allow_exceptions=*/false);
    if (!root.is_object()) {
        return UnreadableCommitment{};
    }
    std::optional<HelperCommitment> whole;
    try {
        whole = commitmentFrom(root);
    } catch (const Json::exception&) {
        whole.reset();
    }
    if (whole) {
        return *std::move(whole);
    }
    const auto appPath = root.find(key::appPath);
    const auto locked = root.find(key::locked);
    UnreadableCommitment salvaged;
    if (appPath != root.end() && appPath->is_string()) {
        salvaged.appPath = appPath->get<std::string>();
    }
    salvaged.locked = locked != root.end() && *locked == true;
    return salvaged;
}

// The bytes of the state file, or why there can be none. JSON has no number for infinity and the
// library would write null, which could not be read back.
std::expected<std::string, std::string> encode(const HelperCommitment& commitment) {
    const ClockReading& checkpoint = commitment.checkpoint;
    const Json root{
        {key::appPath, commitment.appPath},
        {key::capRemaining, commitment.capRemaining.count()},
        {key::checkpoint,
         {{key::bootID, checkpoint.bootID.text()},
          {key::sinceBoot, checkpoint.sinceBoot.count()},
          {key::wall, secondsSince1970(checkpoint.wall)}}},
        {key::locked, commitment.locked},
        {key::remaining, commitment.remaining.count()},
        {key::startedWall, secondsSince1970(commitment.startedWall)},
        {key::uid, commitment.uid},
    };
    for (const Json* object : {&root, &root[key::checkpoint]}) {
        for (const auto& [name, value] : object->items()) {
            if (value.is_number_float() && !std::isfinite(value.get<double>())) {
                return std::unexpected(name + " is not a finite number");
            }
        }
    }
    if (!isUTF8(commitment.appPath) || !isUTF8(checkpoint.bootID.text())) {
        return std::unexpected("appPath or bootID is not UTF-8 text");
    }
    constexpr int indentation = 2;
    return root.dump(indentation) + "\n";
}

}  // namespace

std::string FileCommitmentStore::path() const { return folder_ + "/" + fileName; }

StoredCommitment FileCommitmentStore::load() {
    const auto bytes = readFile(path(), sizeLimit);
    if (bytes) {
        return decode(*bytes);
    }
    return bytes.error().code == EFBIG ? StoredCommitment(UnreadableCommitment{}) : NoCommitment{};
}

bool FileCommitmentStore::saveDurably(const HelperCommitment& commitment) {
    const auto failed = [](const std::string& why) {
        HALVO_LOG_ERROR(helperLog, "Couldn't save the state: %{public}s", why.c_str());
        return false;
    };
    if (const auto made = createFolder(folder_, folderMode); !made) {
        return failed(made.error().message);
    }
    const auto bytes = encode(commitment);
    if (!bytes) {
        return failed(bytes.error());
    }
    const auto written = replaceFile(folder_, fileName, *bytes, fileMode);
    return written || failed(written.error().message);
}

void FileCommitmentStore::remove() {
    const auto file = removeItem(path());
    // Even so: what is left of the file goes with its folder.
    const auto folder = removeItem(folder_);
    if (!file || !folder) {
        const FileError& first = file ? folder.error() : file.error();
        HALVO_LOG_ERROR(helperLog, "Couldn't remove the state: %{public}s", first.message.c_str());
    }
}

}  // namespace halvo
