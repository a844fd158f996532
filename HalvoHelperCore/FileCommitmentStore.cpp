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

double number(const Json& object, const char* name) { return object.at(name).get<double>(); }

// Nothing, or Json::exception, where a member is missing, of another type or out of range.
std::optional<HelperCommitment> commitmentFrom(const Json& root) {
    // Any JSON number whose value is an integer in range, in any notation.
    const double uid = number(root, "uid");
    const bool fits = uid >= 0 && uid <= std::numeric_limits<std::uint32_t>::max();
    const auto user = static_cast<std::uint32_t>(fits ? uid : 0);
    if (user != uid) {
        return std::nullopt;
    }
    const Json& checkpoint = root.at("checkpoint");
    return HelperCommitment{
        root.at("appPath").get<std::string>(),
        user,
        wallDate(number(root, "startedWall")),
        Seconds{number(root, "remaining")},
        Seconds{number(root, "capRemaining")},
        {checkpoint.at("bootID").get<std::string>(), Seconds{number(checkpoint, "sinceBoot")},
         wallDate(number(checkpoint, "wall"))},
        root.at("locked").get<bool>(),
    };
}

StoredCommitment decode(const std::string& bytes) {
    UnreadableCommitment salvaged;
    // The library takes a zero byte for the end of the text, and ignores what follows.
    const Json root = bytes.contains('\0') ? Json() : Json::parse(bytes, nullptr, false);
    if (!root.is_object()) {
        return salvaged;
    }
    if (const auto path = root.find("appPath"); path != root.end() && path->is_string()) {
        salvaged.appPath = path->get<std::string>();
    }
    salvaged.locked = root.value("locked", Json()) == true;
    try {
        auto whole = commitmentFrom(root);
        return whole ? StoredCommitment(*std::move(whole)) : salvaged;
    } catch (const Json::exception&) {
        return salvaged;
    }
}

// The bytes of the state file, or why there are none. JSON has no infinity: the library would write
// null, which could not be read back.
std::expected<std::string, std::string> encode(const HelperCommitment& commitment) {
    const ClockReading& checkpoint = commitment.checkpoint;
    const Json root{
        {"appPath", commitment.appPath},
        {"capRemaining", commitment.capRemaining.count()},
        {"checkpoint",
         {{"bootID", checkpoint.bootID.text()},
          {"sinceBoot", checkpoint.sinceBoot.count()},
          {"wall", secondsSince1970(checkpoint.wall)}}},
        {"locked", commitment.locked},
        {"remaining", commitment.remaining.count()},
        {"startedWall", secondsSince1970(commitment.startedWall)},
        {"uid", commitment.uid},
    };
    for (const Json* object : {&root, &root["checkpoint"]}) {
        for (const auto& [name, value] : object->items()) {
            if (value.is_number_float() && !std::isfinite(value.get<double>())) {
                return std::unexpected(name + " is not a finite number");
            }
        }
    }
    if (!isUTF8(commitment.appPath) || !isUTF8(checkpoint.bootID.text())) {
        return std::unexpected("appPath or bootID is not UTF-8 text");
    }
    return root.dump(2) + "\n";
}

}  // namespace

std::string FileCommitmentStore::path() const { return folder_ + "/" + fileName; }

StoredCommitment FileCommitmentStore::load() {
    constexpr std::size_t limit = std::size_t{1} << 20U;
    const auto bytes = readFile(path(), limit);
    if (bytes) {
        return decode(*bytes);
    }
    return bytes.error().code == EFBIG ? StoredCommitment(UnreadableCommitment{}) : NoCommitment{};
}

bool FileCommitmentStore::save(const HelperCommitment& commitment) {
    const auto failed = [](const std::string& why) {
        HALVO_LOG_ERROR(helperLog, "Couldn't save the state: %{public}s", why.c_str());
        return false;
    };
    // The folder may be there and not be on the disk: the helper was killed when it had made it, or
    // could not sync it.
    const bool isFirst = !itemExists(path());
    auto made = createFolder(folder_, 0700);
    if (made && isFirst) {
        made = syncAbove(folder_);
    }
    if (!made) {
        return failed(made.error().message);
    }
    const auto bytes = encode(commitment);
    if (!bytes) {
        return failed(bytes.error());
    }
    const auto written = replaceFile(folder_, fileName, *bytes, 0600);
    return written || failed(written.error().message);
}

void FileCommitmentStore::remove() {
    const auto file = removeItem(path());
    // Even after a failure: the rest is removed with the folder.
    const auto folder = removeItem(folder_);
    if (!file || !folder) {
        const FileError& first = file ? folder.error() : file.error();
        HALVO_LOG_ERROR(helperLog, "Couldn't remove the state: %{public}s", first.message.c_str());
    }
}

}  // namespace halvo
