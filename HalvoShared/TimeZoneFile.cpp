#include "HalvoShared/TimeZoneFile.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "HalvoPlatform/Files.hpp"

namespace halvo {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using std::chrono::sys_seconds;

// RFC 8536 (3.1): what both parts of a file begin with.
constexpr std::string_view magic = "TZif";

// RFC 8536 (3.2): an offset, whether it is summer, and where the abbreviation begins.
constexpr std::size_t bytesOfType = 6;

// RFC 8536 (3.2): no clock is as much ahead of UTC.
constexpr seconds farthestAhead = hours{26};

bool isPrintable(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

// Names of zones are short and plain; anything else would only spoil a message.
std::string noSuchZone(const std::string& name) {
    constexpr std::size_t longest = 100;
    return name.size() <= longest && isPrintable(name) ? "no time zone is named \"" + name + '"'
                                                       : "that is not the name of a time zone";
}

std::string fileOf(const std::string& name) { return "the file of the time zone \"" + name + '"'; }

bool isComponent(std::string_view text) {
    // The character classes of <cctype> depend on the locale.
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-_.";
    return !text.empty() && text != "." && text != ".." &&
           text.find_first_not_of(allowed) == std::string_view::npos;
}

// Whether `name` is a path that stays in the folder of zones.
bool isPlainPath(std::string_view name) {
    while (true) {
        const std::size_t end = name.find('/');
        if (!isComponent(name.substr(0, end))) {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        name.remove_prefix(end + 1);
    }
}

// A number of RFC 8536 (3.2): its most significant byte comes first, negative ones in two's
// complement.
std::int64_t numberOf(std::string_view bytes) {
    std::uint64_t number = (static_cast<unsigned char>(bytes[0]) & 0x80U) != 0 ? ~0ULL : 0;
    for (const char byte : bytes) {
        number = number << 8U | static_cast<unsigned char>(byte);
    }
    return static_cast<std::int64_t>(number);
}

// The tables of one part of a file.
struct Tables {
    std::string_view times;
    std::string_view typesOfTimes;
    std::string_view types;
    std::string_view abbreviations;
    std::string_view leapSeconds;
    std::size_t bytesOfTime = 0;
    // What follows the part.
    std::string_view rest;

    [[nodiscard]] std::size_t timeCount() const { return typesOfTimes.size(); }

    [[nodiscard]] std::size_t typeCount() const { return types.size() / bytesOfType; }

    // May be no instant of a year that std::chrono knows.
    [[nodiscard]] sys_seconds time(std::size_t i) const {
        return sys_seconds{seconds{numberOf(times.substr(i * bytesOfTime, bytesOfTime))}};
    }

    [[nodiscard]] std::size_t typeOfTime(std::size_t i) const {
        return static_cast<unsigned char>(typesOfTimes[i]);
    }

    [[nodiscard]] seconds offset(std::size_t type) const {
        return seconds{numberOf(types.substr(type * bytesOfType, 4))};
    }

    [[nodiscard]] std::size_t abbreviation(std::size_t type) const {
        return static_cast<unsigned char>(types[(type * bytesOfType) + 5]);
    }
};

// RFC 8536 (3.1, 3.2). Nothing when `part` does not begin as it must, or ends before its tables do.
std::optional<Tables> tablesOf(std::string_view part, std::size_t bytesOfTime) {
    constexpr std::size_t header = 44;
    constexpr std::size_t firstCount = 20;
    std::array<std::size_t, 6> counts{};
    if (part.size() < header || !part.starts_with(magic)) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const std::int64_t count = numberOf(part.substr(firstCount + (4 * i), 4));
        if (count < 0) {
            return std::nullopt;
        }
        counts[i] = static_cast<std::size_t>(count);
    }
    const auto [utc, standard, leaps, times, types, characters] = counts;
    part.remove_prefix(header);
    bool isWhole = true;
    const auto take = [&](std::size_t size) {
        isWhole = isWhole && size <= part.size();
        const std::string_view taken = isWhole ? part.substr(0, size) : std::string_view();
        part.remove_prefix(taken.size());
        return taken;
    };
    Tables tables;
    tables.bytesOfTime = bytesOfTime;
    tables.times = take(times * bytesOfTime);
    tables.typesOfTimes = take(times);
    tables.types = take(types * bytesOfType);
    tables.abbreviations = take(characters);
    tables.leapSeconds = take(leaps * (bytesOfTime + 4));
    take(standard + utc);
    tables.rest = part;
    return isWhole ? std::optional(tables) : std::nullopt;
}

// Whether every number in the tables leads to something.
bool areSound(const Tables& tables) {
    if (tables.typeCount() == 0 || !tables.abbreviations.ends_with('\0')) {
        return false;
    }
    for (std::size_t i = 0; i < tables.typeCount(); ++i) {
        if (tables.offset(i) > farthestAhead || tables.offset(i) < -farthestAhead ||
            tables.abbreviation(i) >= tables.abbreviations.size()) {
            return false;
        }
    }
    for (std::size_t i = 0; i < tables.timeCount(); ++i) {
        if (tables.typeOfTime(i) >= tables.typeCount() ||
            (i > 0 && tables.time(i) <= tables.time(i - 1))) {
            return false;
        }
    }
    return true;
}

// RFC 8536 (3.3): the text of the rule, which may be empty, stands between two line ends. Nothing
// when `rest`, what follows the tables, is anything else.
std::optional<std::string_view> footerOf(std::string_view rest) {
    if (rest.size() < 2 || !rest.starts_with('\n') || !rest.ends_with('\n')) {
        return std::nullopt;
    }
    const std::string_view footer = rest.substr(1, rest.size() - 2);
    return isPrintable(footer) ? std::optional(footer) : std::nullopt;
}

}  // namespace

std::expected<TimeZoneFile, std::string> TimeZoneFile::read(const std::string& name) {
    constexpr std::size_t limit = 1 << 20;
    if (!isPlainPath(name)) {
        return std::unexpected(noSuchZone(name));
    }
    const auto bytes = readFile("/usr/share/zoneinfo/" + name, limit);
    if (!bytes) {
        // Nothing there, below a file, a folder, or longer than a file's name can be.
        for (const int code : {ENOENT, ENOTDIR, EINVAL, ENAMETOOLONG}) {
            if (bytes.error().code == code) {
                return std::unexpected(noSuchZone(name));
            }
        }
        return std::unexpected("the time zone file cannot be read: " + bytes.error().message);
    }
    // The lists beside the zones ("zone.tab", "leapseconds") all begin with a comment.
    if (bytes->starts_with('#')) {
        return std::unexpected(noSuchZone(name));
    }
    return parse(*bytes, name);
}

std::expected<TimeZoneFile, std::string> TimeZoneFile::parse(std::string_view bytes,
                                                             const std::string& name) {
    const auto damaged = std::unexpected(fileOf(name) + " is damaged");
    auto tables = tablesOf(bytes, 4);
    // The version is the byte after the magic ones. The first had one part and no rule; since the
    // second, a part in which times have eight bytes says all that the first does, and more.
    const bool hasSecondPart = tables && bytes[magic.size()] >= '2';
    if (hasSecondPart) {
        tables = tablesOf(tables->rest, 8);
    }
    if (!tables || !areSound(*tables)) {
        return damaged;
    }
    if (!tables->leapSeconds.empty()) {
        return std::unexpected(fileOf(name) + " counts leap seconds");
    }
    TimeZoneFile file;
    // RFC 8536 (3.2): the first type is that before the first change.
    file.firstOffset = tables->offset(0);
    file.changes.reserve(tables->timeCount());
    for (std::size_t i = 0; i < tables->timeCount(); ++i) {
        file.changes.push_back({tables->time(i), tables->offset(tables->typeOfTime(i))});
    }
    if (!hasSecondPart) {
        return file;
    }
    const auto footer = footerOf(tables->rest);
    if (!footer) {
        return damaged;
    }
    if (!footer->empty()) {
        file.rule = TimeZoneRule::parse(*footer);
        if (!file.rule) {
            return std::unexpected("the time zone \"" + name +
                                   "\" has a rule that cannot be read: " + std::string(*footer));
        }
    }
    return file;
}

std::optional<std::string> timeZoneOfMachine() {
    constexpr std::string_view folder = "zoneinfo/";
    constexpr int mostLinks = 40;  // as many as Linux follows
    constexpr std::size_t limit = 4096;
    std::filesystem::path path = "/etc/localtime";
    std::error_code error;
    if (!std::filesystem::is_symlink(path, error)) {
        const auto lines = readFile("/etc/timezone", limit);
        return lines ? std::optional(lines->substr(0, lines->find('\n'))) : std::nullopt;
    }
    for (int i = 0; i < mostLinks; ++i) {
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error) {
            break;
        }
        const std::string& text = target.native();
        if (const std::size_t found = text.rfind(folder); found != std::string::npos) {
            return text.substr(found + folder.size());
        }
        path = path.parent_path() / target;
    }
    return std::nullopt;
}

}  // namespace halvo
