// The words of the command line.
#pragma once

#include <cstddef>
#include <expected>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "tools/HalvoRecords/RecordFile.hpp"

namespace halvo::records {

// Prints a text of help, which lives as long as the process.
struct Help {
    const char* text;

    bool operator==(const Help&) const = default;
};

// Prints the version.
struct ShowVersion {
    bool operator==(const ShowVersion&) const = default;
};

// Prints records: those of `files`, else the app group's own, both or the one of `kind`.
struct Show {
    std::vector<std::string> files;
    std::optional<RecordKind> kind;
    // The app group whose files are meant where none is named; the program's own when absent.
    std::optional<std::string> group;
    // The time zone; the system's when absent.
    std::optional<std::string> zone;
    bool asJSON = false;

    bool operator==(const Show&) const = default;
};

// Says whether files, at least one, are what they should be.
struct Check {
    std::vector<std::string> files;
    std::optional<RecordKind> kind;

    bool operator==(const Check&) const = default;
};

// Says what deep links, at least one, lead to.
struct ReadLinks {
    std::vector<std::string> urls;
    bool asJSON = false;

    bool operator==(const ReadLinks&) const = default;
};

// Prints a deep link.
struct MakeLink {
    HalvoLink link;
    // The app's own when absent.
    std::optional<std::string> scheme;

    bool operator==(const MakeLink&) const = default;
};

// Prints the timeline of a snapshot: that of `file`, else the app group's own.
struct ShowTimeline {
    std::optional<std::string> file;
    std::optional<std::string> group;
    // Now when absent.
    std::optional<WallDate> from;
    std::optional<std::string> zone;
    Seconds span{3600};
    std::size_t limit = 60;
    bool asJSON = false;

    bool operator==(const ShowTimeline&) const = default;
};

using Command = std::variant<Help, ShowVersion, Show, Check, ReadLinks, MakeLink, ShowTimeline>;

// Understands the words that follow the program's own name, or says what is wrong with them, as
// sentences that can be printed to a terminal. Time zones and schemes are not looked up.
std::expected<Command, std::string> parseArguments(std::span<const std::string> words);

// What --help prints: alone, and after each command.
extern const char* const helpText;
extern const char* const showHelpText;
extern const char* const checkHelpText;
extern const char* const linkHelpText;
extern const char* const timelineHelpText;

}  // namespace halvo::records
