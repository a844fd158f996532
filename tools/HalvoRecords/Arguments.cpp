#include "tools/HalvoRecords/Arguments.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

template <class T>
using Result = std::expected<T, std::string>;

constexpr std::size_t mostDates = 10000;

// A hundred years: more than any countdown, and still few enough seconds.
constexpr Seconds longestSpan = std::chrono::days{36525};

struct Option {
    std::string_view name;
    bool hasValue;
};

constexpr std::string_view kindOption = "--kind";
constexpr std::string_view zoneOption = "--zone";
constexpr std::string_view groupOption = "--group";
constexpr std::string_view jsonOption = "--json";
constexpr std::string_view toOption = "--to";
constexpr std::string_view styleOption = "--style";
constexpr std::string_view minutesOption = "--minutes";
constexpr std::string_view schemeOption = "--scheme";
constexpr std::string_view fromOption = "--from";
constexpr std::string_view spanOption = "--span";
constexpr std::string_view limitOption = "--limit";

// In single quotation marks, as a shell would take it.
std::string shown(std::string_view word) { return "'" + printable(word) + "'"; }

// The words of one command, sorted.
struct Words {
    // By the option's name; empty without a value.
    std::map<std::string_view, std::string> options;
    std::vector<std::string> operands;
    bool help = false;

    [[nodiscard]] bool has(std::string_view option) const { return options.contains(option); }

    [[nodiscard]] std::optional<std::string> value(std::string_view option) const {
        const auto found = options.find(option);
        return found == options.end() ? std::nullopt : std::optional(found->second);
    }
};

// Takes one option off the front of `words`.
Result<void> takeOption(Words& sorted, std::span<const std::string>& words,
                        std::span<const Option> known) {
    const std::string_view word = words.front();
    words = words.subspan(1);
    const std::size_t equals = word.find('=');
    const std::string_view name = word.substr(0, equals);
    const auto option = std::ranges::find(known, name, &Option::name);
    if (option == known.end()) {
        return std::unexpected(shown(word) + " is no option here.");
    }
    if (sorted.has(name)) {
        return std::unexpected(std::string(name) + " is given twice.");
    }
    std::string value;
    if (equals != std::string_view::npos) {
        value = word.substr(equals + 1);
        if (!option->hasValue) {
            return std::unexpected(std::string(name) + " takes no value.");
        }
    } else if (option->hasValue) {
        if (words.empty()) {
            return std::unexpected(std::string(name) + " needs a value.");
        }
        value = words.front();
        words = words.subspan(1);
    }
    sorted.options.emplace(option->name, std::move(value));
    return {};
}

Result<Words> sort(std::span<const std::string> words, std::span<const Option> known) {
    Words sorted;
    while (!words.empty()) {
        const std::string& word = words.front();
        if (word == "--help" || word == "-h") {
            sorted.help = true;
            return sorted;
        }
        if (word == "--") {
            sorted.operands.insert(sorted.operands.end(), words.begin() + 1, words.end());
            return sorted;
        }
        if (word.starts_with('-') && word != standardInput) {
            if (const auto taken = takeOption(sorted, words, known); !taken) {
                return std::unexpected(taken.error());
            }
        } else {
            sorted.operands.push_back(word);
            words = words.subspan(1);
        }
    }
    return sorted;
}

// The number that the whole of `word` is, in decimal.
template <class Number>
std::optional<Number> numberIn(const std::string& word) {
    Number number{};
    const char* end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

Result<std::optional<RecordKind>> kindIn(const Words& words) {
    const auto word = words.value(kindOption);
    if (!word) {
        return std::nullopt;
    }
    if (*word == "keepalive") {
        return RecordKind::keepAlive;
    }
    if (*word == "widgets") {
        return RecordKind::widgets;
    }
    return std::unexpected(shown(*word) + " is no kind of record: keepalive or widgets.");
}

Result<std::optional<WallDate>> fromIn(const Words& words) {
    const auto word = words.value(fromOption);
    if (!word || *word == "now") {
        return std::nullopt;
    }
    const auto date = InternetDate::parse(*word);
    if (!date) {
        return std::unexpected(shown(*word) +
                               " is no date such as 2026-11-20T09:30:00Z, and not 'now'.");
    }
    return date;
}

std::optional<Seconds> parseSpan(std::string word) {
    struct Unit {
        char letter;
        Seconds length;
    };

    constexpr std::array units{Unit{'s', std::chrono::seconds{1}},
                               Unit{'m', std::chrono::minutes{1}}, Unit{'h', std::chrono::hours{1}},
                               Unit{'d', std::chrono::days{1}}};
    Seconds length{1};
    if (!word.empty()) {
        const auto* const unit = std::ranges::find(units, word.back(), &Unit::letter);
        if (unit != units.end()) {
            length = unit->length;
            word.pop_back();
        }
    }
    const auto number = numberIn<std::uint32_t>(word);
    const bool isShort = number && length * *number <= longestSpan;
    return isShort ? std::optional(length * *number) : std::nullopt;
}

Result<Seconds> spanIn(const Words& words, Seconds usual) {
    const auto word = words.value(spanOption);
    if (!word) {
        return usual;
    }
    const auto span = parseSpan(*word);
    if (!span) {
        return std::unexpected(shown(*word) +
                               " is no span such as 90, 5m, 2h or 1d, up to a hundred years.");
    }
    return *span;
}

Result<std::size_t> limitIn(const Words& words, std::size_t usual) {
    const auto word = words.value(limitOption);
    if (!word) {
        return usual;
    }
    const auto limit = numberIn<std::size_t>(*word);
    if (!limit || *limit == 0 || *limit > mostDates) {
        return std::unexpected(shown(*word) + " is no number of dates from 1 to 10000.");
    }
    return *limit;
}

// What every command that takes files asks of them.
Result<void> areFiles(const Words& words) {
    if (std::ranges::count(words.operands, standardInput) > 1) {
        return std::unexpected("Standard input can be read once.");
    }
    if (words.has(groupOption) && !words.operands.empty()) {
        return std::unexpected("--group is for when no FILE is named.");
    }
    return {};
}

Result<Command> showIn(const Words& words) {
    if (const auto files = areFiles(words); !files) {
        return std::unexpected(files.error());
    }
    const auto kind = kindIn(words);
    if (!kind) {
        return std::unexpected(kind.error());
    }
    return Show{.files = words.operands,
                .kind = *kind,
                .group = words.value(groupOption),
                .zone = words.value(zoneOption),
                .asJSON = words.has(jsonOption)};
}

Result<Command> checkIn(const Words& words) {
    if (words.operands.empty()) {
        return std::unexpected("check needs a FILE.");
    }
    if (const auto files = areFiles(words); !files) {
        return std::unexpected(files.error());
    }
    const auto kind = kindIn(words);
    if (!kind) {
        return std::unexpected(kind.error());
    }
    return Check{words.operands, *kind};
}

Result<HalvoLink::Screen> breatheIn(const Words& words) {
    HalvoLink::Breathe breathe{.style = words.value(styleOption), .minutes = std::nullopt};
    if (breathe.style && !isUTF8(*breathe.style)) {
        return std::unexpected("The style is not UTF-8.");
    }
    if (const auto word = words.value(minutesOption)) {
        breathe.minutes = numberIn<std::int64_t>(*word);
        if (!breathe.minutes) {
            return std::unexpected(shown(*word) + " is no number of minutes.");
        }
    }
    return breathe;
}

Result<HalvoLink::Screen> screenIn(const Words& words, const std::string& name) {
    const auto screen = HalvoLink::screenNamed(name);
    if (!screen) {
        return std::unexpected(shown(name) +
                               " is no screen: breathe, focus, today, settings or main.");
    }
    if (std::holds_alternative<HalvoLink::Breathe>(*screen)) {
        return breatheIn(words);
    }
    if (words.has(styleOption) || words.has(minutesOption)) {
        return std::unexpected("Only breathe has a style and minutes.");
    }
    return *screen;
}

Result<Command> linkIn(const Words& words) {
    if (const auto name = words.value(toOption)) {
        if (!words.operands.empty() || words.has(jsonOption)) {
            return std::unexpected("link takes either URLs, with or without --json, or --to.");
        }
        const auto screen = screenIn(words, *name);
        if (!screen) {
            return std::unexpected(screen.error());
        }
        return MakeLink{HalvoLink{*screen}, words.value(schemeOption)};
    }
    if (words.has(styleOption) || words.has(minutesOption) || words.has(schemeOption)) {
        return std::unexpected("--style, --minutes and --scheme go with --to.");
    }
    if (words.operands.empty()) {
        return std::unexpected("link needs a URL or --to.");
    }
    return ReadLinks{words.operands, words.has(jsonOption)};
}

Result<Command> timelineIn(const Words& words) {
    if (const auto files = areFiles(words); !files) {
        return std::unexpected(files.error());
    }
    if (words.operands.size() > 1) {
        return std::unexpected("timeline takes one FILE; there is " + shown(words.operands[1]) +
                               " too.");
    }
    ShowTimeline command;
    const auto from = fromIn(words);
    const auto span = spanIn(words, command.span);
    const auto limit = limitIn(words, command.limit);
    if (!from) {
        return std::unexpected(from.error());
    }
    if (!span) {
        return std::unexpected(span.error());
    }
    if (!limit) {
        return std::unexpected(limit.error());
    }
    if (!words.operands.empty()) {
        command.file = words.operands.front();
    }
    command.group = words.value(groupOption);
    command.from = *from;
    command.zone = words.value(zoneOption);
    command.span = *span;
    command.limit = *limit;
    command.asJSON = words.has(jsonOption);
    return command;
}

constexpr std::array showOptions{Option{kindOption, true}, Option{zoneOption, true},
                                 Option{groupOption, true}, Option{jsonOption, false}};
constexpr std::array checkOptions{Option{kindOption, true}};
constexpr std::array linkOptions{Option{toOption, true}, Option{styleOption, true},
                                 Option{minutesOption, true}, Option{schemeOption, true},
                                 Option{jsonOption, false}};
constexpr std::array timelineOptions{Option{fromOption, true},  Option{zoneOption, true},
                                     Option{spanOption, true},  Option{limitOption, true},
                                     Option{groupOption, true}, Option{jsonOption, false}};

struct Entry {
    std::string_view name;
    std::span<const Option> options;
    const char* const& help;
    Result<Command> (*make)(const Words& words);
};

constexpr std::array entries{Entry{"show", showOptions, showHelpText, showIn},
                             Entry{"check", checkOptions, checkHelpText, checkIn},
                             Entry{"link", linkOptions, linkHelpText, linkIn},
                             Entry{"timeline", timelineOptions, timelineHelpText, timelineIn}};

}  // namespace

std::expected<Command, std::string> parseArguments(std::span<const std::string> words) {
    if (words.empty()) {
        return std::unexpected("What is to be done? show, check, link or timeline.");
    }
    const std::string& name = words.front();
    if (name == "--help" || name == "-h") {
        return Help{helpText};
    }
    if (name == "--version") {
        return ShowVersion{};
    }
    const auto* const entry = std::ranges::find(entries, name, &Entry::name);
    if (entry == entries.end()) {
        return std::unexpected(shown(name) + " is no command: show, check, link or timeline.");
    }
    const auto sorted = sort(words.subspan(1), entry->options);
    if (!sorted) {
        return std::unexpected(sorted.error());
    }
    return sorted->help ? Command(Help{entry->help}) : entry->make(*sorted);
}

}  // namespace halvo::records
