#include "HalvoShared/Linux/UserFolders.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <vector>

namespace halvo {
namespace {

std::optional<std::string> variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

bool isAbsolute(const std::string& path) { return path.starts_with('/'); }

bool isFolderName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

std::string within(const std::string& folder, const std::string& name) {
    return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

std::optional<std::string> homeOfAccount() {
    // Far more than any line of passwd(5) has.
    constexpr std::size_t limit = std::size_t{1} << 20U;
    for (std::vector<char> buffer(1024); buffer.size() <= limit; buffer.resize(buffer.size() * 2)) {
        passwd entry{};
        passwd* found = nullptr;
        const int error = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
        if (error != ERANGE) {
            return found == nullptr ? std::nullopt : std::optional<std::string>(entry.pw_dir);
        }
    }
    return std::nullopt;
}

}  // namespace

UserPlaces UserPlaces::current() {
    UserPlaces places{variable("XDG_DATA_HOME"), variable("HOME"), std::nullopt};
    if (!isAbsolute(places.dataHome.value_or("")) && !isAbsolute(places.home.value_or(""))) {
        places.accountHome = homeOfAccount();
    }
    return places;
}

std::string userDataFolder(const UserPlaces& places) {
    if (places.dataHome && isAbsolute(*places.dataHome)) {
        return *places.dataHome;
    }
    for (const auto& home : {places.home, places.accountHome}) {
        if (home && isAbsolute(*home)) {
            return within(*home, ".local/share");
        }
    }
    return "/.local/share";
}

std::string groupFolder(const std::string& dataFolder,
                        const std::optional<std::string>& identifier) {
    return within(dataFolder,
                  identifier && isFolderName(*identifier) ? *identifier : "Halvo-NoGroup");
}

}  // namespace halvo
