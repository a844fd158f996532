#include "HalvoHelper/macOS/HelperCopy.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/CodeSignature.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"

namespace halvo::HelperCopy {
namespace {

// Several times what it takes, for both architectures.
constexpr std::size_t longestExecutable = 16777216;
constexpr const char* name = "HalvoHelper";
constexpr const char* uncheckedName = "HalvoHelper.unchecked";

// What cannot be removed lies in a folder of root's, and is replaced by the next copy.
void removeFolder(const std::string& path) { std::ignore = removeItem(path); }

// Takes the folder away when the process ends.
void removeAtExit(const std::string& path) {
    static std::string& place = *new std::string;
    [[maybe_unused]] static const int once = std::atexit([] { removeFolder(place); });
    place = path;
}

}  // namespace

std::string folder(const HelperIdentity& identity) { return identity.stateFolder() + ".copy"; }

std::expected<std::string, std::string> make(const std::string& executable,
                                             const HelperIdentity& identity) {
    const std::string place = folder(identity);
    const auto bytes = readFile(executable, longestExecutable);
    if (!bytes) {
        return std::unexpected(bytes.error().message);
    }
    removeAtExit(place);
    if (const auto made = createFolder(place, 0700); !made) {
        return std::unexpected(made.error().message);
    }
    if (auto problem = RootOwnedPath::problem(place, RootOwnedPath::Item::folder)) {
        return std::unexpected(*std::move(problem));
    }
    // A new file each time: the system remembers of a file what it has found its signature to be,
    // and ends what runs from one that is written over.
    if (const auto written = replaceFile(place, uncheckedName, *bytes, 0700); !written) {
        return std::unexpected(written.error().message);
    }
    const std::string unchecked = place + "/" + uncheckedName;
    if (const auto checked = checkCodeSignature(unchecked, identity.helperRequirement());
        !checked) {
        removeFolder(place);
        return std::unexpected(checked.error());
    }
    // Only now: what the last opening has started may not yet have come to its execve(2).
    std::string copy = place + "/" + name;
    if (std::rename(unchecked.c_str(), copy.c_str()) != 0) {
        return std::unexpected(copy + ": " + errorText(errno));
    }
    return copy;
}

void remove(const HelperIdentity& identity) { removeFolder(folder(identity)); }

}  // namespace halvo::HelperCopy
