#include "HalvoHelperCore/FileCommitmentStore.hpp"

#include <array>
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

// The member `name` of `object` when it is there and of type Value, else null.
template <class Value>
const Value* member(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found == object.end() ? nullptr : found->template get_ptr<const Value*>();
}

std::optional<double> number(const Json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_number()) {
        return std::nullopt;
    }
    return found->get<double>();
}

// A user id: any JSON number that is a whole one in range, however it is spelled.
std::optional<std::uint32_t> userID(const Json& object) {
    const auto value = number(object, key::uid);
    constexpr double last = std::numeric_limits<std::uint32_t>::max();
    const bool fits = value && *value >= 0 && *value <= last;  // not-a-number fits nowhere
    if (!fits) {
        return std::nullopt;
    }
    const auto user = static_cast<std::uint32_t>(*value);
    return user == *value ? std::optional(user) : std::nullopt;
}

std::optional<ClockReading> readingFrom(const Json& object) {
    const auto found = object.find(key::checkpoint);
    if (found == object.end() || !found->is_object()) {
        return std::nullopt;
    }
    const auto* bootID = member<std::string>(*found, key::bootID);
    const auto sinceBoot = number(*found, key::sinceBoot);
    const auto wall = number(*found, key::wall);
    if (bootID == nullptr || !sinceBoot || !wall) {
        return std::nullopt;
    }
    return ClockReading{*bootID, Seconds{*sinceBoot}, wallDate(*wall)};
}

std::optional<HelperCommitment> commitmentFrom(const Json& object) {
    const auto* appPath = member<std::string>(object, key::appPath);
    const auto uid = userID(object);
    const auto startedWall = number(object, key::startedWall);
    const auto remaining = number(object, key::remaining);
    const auto capRemaining = number(object, key::capRemaining);
    const auto checkpoint = readingFrom(object);
    const auto* locked = member<bool>(object, key::locked);
    if (appPath == nullptr || !uid || !startedWall || !remaining || !capRemaining || !checkpoint ||
        locked == nullptr) {
        return std::nullopt;
    }
    return HelperCommitment{
        *appPath,    *uid,   wallDate(*startedWall), Seconds{*remaining}, Seconds{*capRemaining},
        *checkpoint, *locked};
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
    if (auto commitment = commitmentFrom(root)) {
        return *std::move(commitment);
    }
    UnreadableCommitment salvaged;
    if (const auto* appPath = member<std::string>(root, key::appPath)) {
        salvaged.appPath = *appPath;
    }
    if (const auto* locked = member<bool>(root, key::locked)) {
        salvaged.locked = *locked;
    }
    return salvaged;
}

// The bytes of the state file, or why there can be none. JSON has no number for infinity and the
// library would write null, which could not be read back.
std::expected<std::string, std::string> encode(const HelperCommitment& commitment) {
    const ClockReading& checkpoint = commitment.checkpoint;
    const std::array numbers{
        std::pair{key::capRemaining, commitment.capRemaining.count()},
        std::pair{key::remaining, commitment.remaining.count()},
        std::pair{key::startedWall, secondsSince1970(commitment.startedWall)},
        std::pair{key::sinceBoot, checkpoint.sinceBoot.count()},
        std::pair{key::wall, secondsSince1970(checkpoint.wall)},
    };
    for (const auto& [name, value] : numbers) {
        if (!std::isfinite(value)) {
            return std::unexpected(std::string(name) + " is not a finite number");
        }
    }
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
    constexpr int indentation = 2;
    try {
        return root.dump(indentation) + "\n";
    } catch (const Json::type_error&) {
        return std::unexpected("appPath or bootID is not UTF-8 text");
    }
}

}  // namespace

FileCommitmentStore::FileCommitmentStore(std::string folder) : folder_(std::move(folder)) {}

std::string FileCommitmentStore::path() const { return folder_ + "/" + fileName; }

StoredCommitment FileCommitmentStore::load() {
    const auto bytes = readFile(path(), sizeLimit);
    if (bytes) {
        return decode(*bytes);
    }
    if (bytes.error().code == EFBIG) {
        return UnreadableCommitment{};
    }
    return NoCommitment{};
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
