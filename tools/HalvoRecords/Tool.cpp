#include "tools/HalvoRecords/Tool.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ranges>
#include <system_error>
#include <utility>
#include <variant>

#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/RFC3339.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::records {
namespace {

namespace ExitStatus = tools::ExitStatus;

using Json = nlohmann::ordered_json;
using Record = std::variant<KeepAliveState, WidgetSnapshot>;

// Standard input as a FILE.
constexpr const char* standardInput = "-";

// The arguments, and the outcome.
struct Call {
    Call(std::istream& source, WallDate date)
        : input(source), now(std::chrono::floor<std::chrono::seconds>(date)) {}

    std::istream& input;
    // Whole seconds, so that a printed date, given as --from, prints the same.
    WallDate now;
    // The files or URLs, then the options.
    std::vector<std::string> operands;
    std::string kind;
    GregorianCalendar calendar = GregorianCalendar::system();
    std::optional<std::string> group;
    bool isJSON = false;
    std::optional<std::string> screen;
    std::optional<std::string> style;
    std::optional<std::int64_t> minutes;
    std::optional<std::string> scheme;
    WallDate from = now;
    std::int64_t span = 3600;
    std::size_t limit = 60;
    tools::Outcome outcome;

    void fail(const std::string& problem) {
        outcome.errors += "halvo-records: " + problem + "\n";
        outcome.status = ExitStatus::problem;
    }
};

// The FILE arguments, else the files `names` in the folder of the app group.
std::vector<std::string> filesOf(const Call& call, const std::vector<std::string>& names = {}) {
    if (call.group && !call.operands.empty()) {
        throw CLI::ExcludesError("--group", "FILE");
    }
    if (std::ranges::count(call.operands, standardInput) > 1) {
        throw CLI::ValidationError("Standard input can be read once");
    }
    std::vector<std::string> files = call.operands;
    for (const std::string& name : names) {
        const bool isMeant = call.kind.empty() || name == call.kind + ".json";
        if (call.operands.empty() && isMeant) {
            const auto group = call.group ? call.group : AppGroup::identifier();
            files.push_back(AppGroup::pathOf(group) + "/" + name);
        }
    }
    return files;
}

// The name of `file` in messages.
std::string title(const std::string& file) {
    return file == standardInput ? "standard input" : printable(file);
}

std::expected<std::string, FileError> readAll(std::istream& input) {
    std::string bytes(shared_file::sizeLimit + 1, '\0');
    input.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(input.gcount()));
    if (input.bad()) {
        return std::unexpected(FileError{EIO, "standard input: This cannot be read"});
    }
    if (bytes.size() > shared_file::sizeLimit) {
        return std::unexpected(FileError{EFBIG, "standard input: This is longer than any record"});
    }
    return bytes;
}

template <class T>
std::expected<Record, std::string> decodeAs(const std::string& bytes, const std::string& file) {
    auto record = JSON::decode<T>(bytes);
    if (!record) {
        return std::unexpected(title(file) + ": " + printable(JSON::description(record.error())));
    }
    return *std::move(record);
}

// Reads the record in `file` as SharedFile does. Fails with "TITLE: PROBLEM", without a full stop:
// "widgets.json: phases[3].start: ...".
std::expected<Record, std::string> load(const Call& call, const std::string& file) {
    const std::string name =
        call.kind.empty() ? file.substr(file.rfind('/') + 1) : call.kind + ".json";
    const bool isKeepAlive = name == KeepAliveState::fileName;
    if (!isKeepAlive && name != WidgetSnapshot::fileName) {
        return std::unexpected(title(file) +
                               ": The name does not tell which record this is; --kind does");
    }
    const auto bytes =
        file == standardInput ? readAll(call.input) : readFile(file, shared_file::sizeLimit);
    if (!bytes) {
        return std::unexpected(printable(bytes.error().message));
    }
    return isKeepAlive ? decodeAs<KeepAliveState>(*bytes, file)
                       : decodeAs<WidgetSnapshot>(*bytes, file);
}

// "a widget snapshot of 1 phase, 2 days, ...".
std::string summary(const Record& record) {
    if (const auto* state = std::get_if<KeepAliveState>(&record)) {
        return "a keep-alive state of process " + std::to_string(state->pid);
    }
    const auto& snapshot = std::get<WidgetSnapshot>(record);
    return "a widget snapshot of " + counted(snapshot.phases.size(), "phase") + ", " +
           counted(snapshot.days.size(), "day") + ", " + counted(snapshot.lists.size(), "list") +
           " and " + counted(snapshot.blocks.size(), "block");
}

// The record as indented JSON; with `calendar`, local time follows each date:
// "2026-11-20T09:00:00Z (2026-11-20 10:00:00 +01:00)".
std::string asJSON(const Record& record, const GregorianCalendar* calendar = nullptr) {
    // Cannot fail for a record that was decoded.
    const std::string text =
        std::visit([](const auto& value) { return *JSON::encode(value); }, record);
    const auto addLocalTime = [calendar](int /*depth*/, Json::parse_event_t event, Json& value) {
        auto* held = event == Json::parse_event_t::value ? value.get_ptr<std::string*>() : nullptr;
        const auto date = held != nullptr ? RFC3339::parse(*held) : std::nullopt;
        if (date && calendar != nullptr) {
            *held += " (" + zonedDate(*date, *calendar) + ")";
        }
        return true;
    };
    return indented(Json::parse(text, addLocalTime).dump());
}

void show(Call& call) {
    std::string& output = call.outcome.output;
    for (const auto& file : filesOf(call, {KeepAliveState::fileName, WidgetSnapshot::fileName})) {
        const auto record = load(call, file);
        if (!record) {
            call.fail(record.error());
        } else if (call.isJSON) {
            output += asJSON(*record);
        } else {
            output += (output.empty() ? "" : "\n") + title(file) + ": " + summary(*record) + "\n" +
                      asJSON(*record, &call.calendar);
        }
    }
}

// A run, or what comes next.
struct Shown {
    std::string name;
    std::optional<WallDate> end;
};

std::optional<Shown> shownIn(const WidgetSnapshot::State& state) {
    return std::visit(
        [](const auto& chosen) -> std::optional<Shown> {
            if constexpr (requires { chosen.running; }) {
                return Shown{chosen.running.name, chosen.running.end};
            } else if constexpr (requires { chosen.upcoming; }) {
                return Shown{chosen.upcoming.name, chosen.upcoming.end};
            } else {
                return std::nullopt;
            }
        },
        state);
}

std::string at(const char* list, std::size_t index) {
    return std::string(list) + "[" + std::to_string(index) + "]";
}

// What is valid but suspicious, in the order of the record's members, with their paths: "phases[3]
// starts before phases[2]".
std::vector<std::string> remarks(const Record& record) {
    std::vector<std::string> all;
    const auto* snapshot = std::get_if<WidgetSnapshot>(&record);
    if (snapshot == nullptr) {
        return all;
    }
    const auto& phases = snapshot->phases;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        if (i > 0 && phases[i].start <= phases[i - 1].start) {
            const bool together = phases[i].start == phases[i - 1].start;
            all.push_back(at("phases", i) + " starts " + (together ? "together with " : "before ") +
                          at("phases", i - 1));
        }
        const auto shown = shownIn(phases[i].state);
        if (shown && shown->end && *shown->end < phases[i].start) {
            all.push_back(at("phases", i) + " shows what ended before it starts");
        }
    }
    if (snapshot->horizon < snapshot->writtenAt) {
        all.emplace_back("horizon is before writtenAt");
    }
    std::map<WallDate, std::size_t> firstWith;
    for (std::size_t i = 0; i < snapshot->days.size(); ++i) {
        const auto [first, isNew] = firstWith.emplace(snapshot->days[i].start, i);
        if (!isNew) {
            all.push_back(at("days", i) + " has the same start as " + at("days", first->second));
        }
    }
    return all;
}

void check(Call& call) {
    // Of more remarks on one file only the number is printed.
    constexpr std::size_t mostRemarks = 20;
    const auto files = filesOf(call);
    if (files.empty()) {
        throw CLI::RequiredError("FILE");
    }
    std::string& output = call.outcome.output;
    for (const std::string& file : files) {
        const auto record = load(call, file);
        if (!record) {
            output += record.error() + "\n";
            call.outcome.status = ExitStatus::problem;
            continue;
        }
        output += title(file) + ": fine, " + summary(*record) + "\n";
        const auto found = remarks(*record);
        for (const std::string& remark : found | std::views::take(mostRemarks)) {
            output += title(file) + ": remark: " + remark + "\n";
        }
        if (found.size() > mostRemarks) {
            output +=
                title(file) + ": and " + counted(found.size() - mostRemarks, "more remark") + "\n";
        }
    }
}

void makeLink(Call& call) {
    HalvoLink link{HalvoLink::screenNamed(call.screen.value_or("")).value_or(HalvoLink::Main{})};
    if (!call.operands.empty() || call.isJSON) {
        throw CLI::ExcludesError("--to", call.isJSON ? "--json" : "URL");
    }
    if (auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen)) {
        *breathe = {.style = call.style, .minutes = call.minutes};
    } else if (call.style || call.minutes) {
        throw CLI::ValidationError("Only breathe has a style and minutes");
    }
    const std::string url = call.scheme ? link.url(*call.scheme) : link.url();
    if (url == HalvoLink::noURL) {
        throw CLI::ValidationError(call.scheme
                                       ? "'" + *call.scheme + "' is no scheme of a URL"
                                       : "The app's own scheme is none; --scheme gives another");
    }
    call.outcome.output = url + "\n";
}

// `breathe, style "box", 5 minutes`, or {"screen":"breathe","style":"box","minutes":5}, without
// what is absent.
std::string linkText(const HalvoLink& link, bool isJSON) {
    std::string text(link.name());
    nlohmann::ordered_json object{{"screen", text}};
    const auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen);
    if (breathe != nullptr && breathe->style) {
        text += ", style " + inQuotes(*breathe->style);
        object["style"] = *breathe->style;
    }
    if (breathe != nullptr && breathe->minutes) {
        text += ", " + std::to_string(*breathe->minutes) +
                (*breathe->minutes == 1 ? " minute" : " minutes");
        object["minutes"] = *breathe->minutes;
    }
    return isJSON ? printable(object.dump()) : text;
}

void links(Call& call) {
    if (call.screen) {
        makeLink(call);
        return;
    }
    if (call.operands.empty()) {
        throw CLI::RequiredError("URL or --to");
    }
    for (const std::string& url : call.operands) {
        const bool isNamed = !call.isJSON && call.operands.size() > 1;
        call.outcome.output += (isNamed ? printable(url) + ": " : "") +
                               linkText(HalvoLink::reading(url), call.isJSON) + "\n";
    }
}

// The kind of the state and its name: `block "Deep work"`.
std::string shortText(const WidgetSnapshot::State& state) {
    constexpr std::array<const char*, std::variant_size_v<WidgetSnapshot::State>> kinds{
        "block", "focus", "focus filter", "next", "nothing scheduled", "no blocks"};
    const auto shown = shownIn(state);
    return kinds.at(state.index()) + (shown ? " " + inQuotes(shown->name) : "");
}

// Why `date` is in the timeline: "start, phase". `end` is the end of the countdown, if there is
// one.
std::string reasons(const Call& call, const WidgetSnapshot& snapshot, WallDate date,
                    std::optional<WallDate> end) {
    const bool isMinute = end && date > call.from &&
                          date <= std::min(*end, call.from + std::chrono::seconds{call.span}) &&
                          std::fmod(Seconds(*end - date).count(), 60) == 0;
    const auto phase = std::ranges::find(snapshot.phases, date, &WidgetSnapshot::Phase::start);
    std::string all;
    for (const auto& [isSo, reason] :
         {std::pair(date == call.from, "start"), std::pair(phase != snapshot.phases.end(), "phase"),
          std::pair(call.calendar.startOfDay(date) == date, "midnight"),
          std::pair(isMinute, "minute")}) {
        all += isSo ? (all.empty() ? "" : ", ") + std::string(reason) : "";
    }
    // Else a minute of a phase that overlaps another one.
    return all.empty() ? "minute" : all;
}

// A table with a line for each date: time, reason, time left, state.
std::string timelineText(const Call& call, const WidgetSnapshot& snapshot,
                         const std::vector<WallDate>& dates, WallDate reload) {
    std::vector<std::vector<std::string>> rows{{"DATE", "WHY", "LEFT", "STATE"}};
    for (const WallDate date : dates) {
        const auto state = snapshot.state(date);
        const auto* running = WidgetSnapshot::countdown(state);
        const auto end = running == nullptr ? std::nullopt : running->end;
        rows.push_back({zonedDate(date, call.calendar), reasons(call, snapshot, date, end),
                        end ? countdown(*end - date) : "-", shortText(state)});
    }
    rows.push_back({zonedDate(reload, call.calendar), "reload"});
    return table(rows, "");
}

// Each date as in the records; null for one outside the years 0 to 9999.
std::string timelineJSON(const std::vector<WallDate>& dates, WallDate reload) {
    const auto inJSON = [](WallDate date) {
        std::string text;
        return RFC3339::append(date, text) ? Json(text) : Json();
    };
    Json object{{"dates", Json::array()}, {"reload", inJSON(reload)}};
    std::ranges::transform(dates, std::back_inserter(object["dates"]), inJSON);
    return object.dump(2) + "\n";
}

void timeline(Call& call) {
    const auto files = filesOf(call, {WidgetSnapshot::fileName});
    if (files.size() > 1) {
        throw CLI::ExtrasError({files[1]});
    }
    call.kind = "widgets";
    const auto record = load(call, files.front());
    if (!record) {
        call.fail(record.error());
        return;
    }
    const auto& snapshot = std::get<WidgetSnapshot>(*record);
    const auto dates = snapshot.timelineDates(call.from, call.calendar,
                                              std::chrono::seconds{call.span}, call.limit);
    const WallDate reload = snapshot.reloadDate(dates, call.from);
    call.outcome.output =
        call.isJSON ? timelineJSON(dates, reload) : timelineText(call, snapshot, dates, reload);
}

// From here on: the command line.

// Adds the option `name`, whose value `type` in the help `read` parses; it returns the value or an
// error.
template <class Target, class Read>
CLI::Option* addRead(CLI::App& command, const std::string& name, const std::string& type,
                     Target& target, Read read, const std::string& help) {
    const auto store = [name, &target, read](const std::string& word) {
        const auto value = read(word);
        if (!value) {
            throw CLI::ValidationError(name, value.error());
        }
        target = *value;
    };
    return command.add_option_function<std::string>(name, store, help)->type_name(type);
}

// CLI11 itself clamps a number that is too large.
std::expected<std::int64_t, std::string> readNumber(const std::string& word) {
    std::int64_t number{};
    const char* end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || rest != end) {
        return std::unexpected("Expected a whole number, found '" + word + "'");
    }
    return number;
}

void addLinkOptions(CLI::App& command, Call& call) {
    const std::vector<std::string> screens{"breathe", "focus", "today", "settings", "main"};
    CLI::Option* to = command.add_option(
        "--to", call.screen, "print the link to breathe, focus, today, settings or main");
    to->check(CLI::IsMember(screens).description(""))->type_name("SCREEN");
    command.add_option("--style", call.style, "the style of a breathing exercise")
        ->check([](const std::string& word) { return isUTF8(word) ? "" : "This is not UTF-8"; })
        ->type_name("TEXT")
        ->needs(to);
    addRead(command, "--minutes", "N", call.minutes, readNumber, "how many minutes it takes")
        ->needs(to);
    command.add_option("--scheme", call.scheme, "the URL's scheme; else the app's own")
        ->type_name("S")
        ->needs(to);
}

// CLI::Range, with a text that does not depend on CLI11's version.
template <class Number>
auto range(Number least, Number greatest) {
    const std::string bounds = std::to_string(least) + " to " + std::to_string(greatest);
    return [within = CLI::Range(least, greatest), bounds](const std::string& word) {
        return within(word).empty() ? "" : "Value " + word + " not in range " + bounds;
    };
}

void addTimelineOptions(CLI::App& command, Call& call) {
    const auto readFrom = [&call](const std::string& word) -> std::expected<WallDate, std::string> {
        if (const auto date = word == "now" ? call.now : RFC3339::parse(word)) {
            return *date;
        }
        return std::unexpected("Expected a date such as 2026-11-20T09:30:00Z, or now, found '" +
                               word + "'");
    };
    addRead(command, "--from", "DATE", call.from, readFrom,
            "from when on: 2026-11-20T09:30:00Z or now, which it is else");
    // A hundred years: longer than any countdown.
    constexpr std::int64_t longestSpan = 3155760000;
    const std::map<std::string, std::int64_t> units{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    const CLI::AsNumberWithUnit asSeconds(units, CLI::AsNumberWithUnit::CASE_SENSITIVE);
    command
        .add_option("--span", call.span,
                    "for how long minutes are counted down: seconds, or\n5m, 2h, 1d; else 1h")
        ->transform(asSeconds.description(""))
        ->check(range(std::int64_t{0}, longestSpan))
        ->type_name("SPAN");
    constexpr std::size_t mostDates = 10000;
    command.add_option("--limit", call.limit, "at most so many dates, from 1 to 10000; else 60")
        ->check(range(std::size_t{1}, mostDates))
        ->type_name("N");
}

void addZoneAndGroup(CLI::App& command, Call& call) {
    addRead(command, "--zone", "ZONE", call.calendar, GregorianCalendar::named,
            "the zone of the days and of local times, such as\nEurope/Berlin; else the system's");
    command
        .add_option("--group", call.group,
                    "the app group whose folder is meant, when no FILE is named")
        ->type_name("GROUP");
}

void addKind(CLI::App& command, Call& call) {
    command.add_option("--kind", call.kind, "which record it is: keepalive or widgets")
        ->check(CLI::IsMember({"keepalive", "widgets"}).description(""))
        ->type_name("KIND");
}

void addJSON(CLI::App& command, Call& call, const std::string& help) {
    command.add_flag("--json", call.isJSON, help)->disable_flag_override();
}

constexpr const char* exitStatus = R"(
Exit status: 0 when all is fine, 1 when a file is not what it should be (missing,
damaged), 64 after a usage error, 71 when memory ran out, 74 when the output could
not be written.)";

constexpr const char* programFooter =
    R"(A FILE is named keepalive.json or widgets.json, or --kind tells which record it
is. "-" is standard input. "--" ends the options.

Examples:
  halvo-records show
  halvo-records check ~/.local/share/*/widgets.json
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records timeline widgets.json --zone Europe/Berlin
)";

constexpr const char* showFooter = R"(Members that the app does not know are left out.

Examples:
  halvo-records show --group com.example.app
  halvo-records show widgets.json --zone UTC
  ssh laptop cat widgets.json | halvo-records show - --kind widgets
)";

constexpr const char* checkFooter =
    R"(Prints a line for each FILE: which record it holds, or where it is wrong. What
can be read and is suspicious all the same follows as remarks, which do not change
the exit status: phases that are not in order, runs that end before their phase
starts, a horizon before the writing, two days with the same start.

Examples:
  halvo-records check keepalive.json widgets.json
  halvo-records check backup.json --kind widgets
)";

constexpr const char* linkFooter = R"(Examples:
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records link --to breathe --style box --minutes 5
)";

constexpr const char* timelineFooter =
    R"(Prints a line for each date, and when to ask for a new timeline. WHY is any of
start (what was asked for), phase (one begins), midnight (a day begins), minute (of
a countdown); LEFT is what a block or focus still counts down.

Examples:
  halvo-records timeline --span 15m
  halvo-records timeline widgets.json --from 2026-11-20T09:30:00Z --zone UTC
)";

}  // namespace

tools::Outcome run(const std::vector<std::string>& words, std::istream& input, WallDate now) {
    Call call(input, now);
    CLI::App app{"Looks into what the app's processes share: records, deep links, timelines.",
                 "halvo-records"};
    app.set_version_flag("--version", std::string("halvo-records ") + version);
    app.require_subcommand(1);
    app.footer(std::string(programFooter) + exitStatus);
    // How CLI11 treats "--" depends on the operands before it.
    const auto end = std::ranges::find(words, "--");
    const std::vector<std::string> rest(end == words.end() ? end : end + 1, words.end());
    const auto add = [&](const char* name, const char* help, void (*action)(Call&),
                         const char* operand, const char* operandHelp,
                         const char* footer) -> CLI::App& {
        CLI::App& command = *app.add_subcommand(name, help);
        command.add_option(operand, call.operands, operandHelp)->type_name("");
        command.footer(std::string(footer) + exitStatus);
        command.callback([&call, &rest, action] {
            call.operands.insert(call.operands.end(), rest.begin(), rest.end());
            action(call);
        });
        return command;
    };
    CLI::App& showing = add("show", "Prints records as JSON.", show, "FILE",
                            "the records; else both in the app group's folder, or the one of\n"
                            "--kind",
                            showFooter);
    addKind(showing, call);
    addZoneAndGroup(showing, call);
    addJSON(showing, call, "the JSON alone, without titles and local times");
    addKind(add("check", "Says of each FILE whether it is a record.", check, "FILE", "at least one",
                checkFooter),
            call);
    CLI::App& linking = add("link", "Says what deep links lead to, or prints one.", links, "URL",
                            "a text that leads nowhere leads to main", linkFooter);
    addLinkOptions(linking, call);
    addJSON(linking, call, "one object on a line for each URL");
    CLI::App& planning =
        add("timeline", "Prints the dates at which a widget's picture changes.", timeline, "FILE",
            "one widget snapshot; else the app group's own", timelineFooter);
    addTimelineOptions(planning, call);
    addZoneAndGroup(planning, call);
    addJSON(planning, call, R"(an object with the list "dates" and with "reload")");
    return tools::parse(app, {words.begin(), end}).value_or(call.outcome);
}

}  // namespace halvo::records
