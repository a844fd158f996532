#include "tools/HalvoRecords/Tool.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ranges>
#include <system_error>
#include <variant>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Record.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

namespace ExitStatus = tools::ExitStatus;

constexpr const char* exitStatus = R"(
Exit status: 0 when all is fine, 1 when a file is not what it should be (missing,
damaged), 64 after a usage error, 71 when memory ran out, 74 when the output could
not be written.)";

// What the words say, and what has come of them.
struct Call {
    Call(std::istream& source, WallDate date)
        : input(source), now(std::chrono::floor<std::chrono::seconds>(date)) {}

    std::istream& input;
    // To the second, so that a date which was printed, given as --from, prints the same again.
    WallDate now;
    // The files or URLs before "--" and after it, then the options.
    std::vector<std::string> operands;
    std::vector<std::string> operandsAfterOptions;
    std::string kind;
    GregorianCalendar calendar = GregorianCalendar::system();
    std::optional<std::string> group;
    bool isJSON = false;
    std::optional<std::string> screen;
    std::optional<std::string> style;
    std::optional<std::int64_t> minutes;
    std::optional<std::string> scheme;
    TimelineRequest timeline{.from = now};
    std::int64_t span = 3600;
    tools::Outcome outcome;

    void fail(const std::string& problem) {
        outcome.errors += "halvo-records: " + problem + "\n";
        outcome.status = ExitStatus::problem;
    }
};

// The files that are named, else those of `names` in the folder of the app group.
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

void show(Call& call) {
    std::string& output = call.outcome.output;
    for (const auto& file : filesOf(call, {KeepAliveState::fileName, WidgetSnapshot::fileName})) {
        const auto record = load(file, call.kind, call.input);
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

void check(Call& call) {
    // Of more remarks on one file only the number is told.
    constexpr std::size_t mostRemarks = 20;
    const auto files = filesOf(call);
    if (files.empty()) {
        throw CLI::RequiredError("FILE");
    }
    std::string& output = call.outcome.output;
    for (const std::string& file : files) {
        const auto record = load(file, call.kind, call.input);
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

// `breathe, style "box", 5 minutes`, or {"screen":"breathe","style":"box","minutes":5}. What the
// link does not give is left out.
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

void timeline(Call& call) {
    const auto files = filesOf(call, {WidgetSnapshot::fileName});
    if (files.size() > 1) {
        throw CLI::ExtrasError({files[1]});
    }
    const auto record = load(files.front(), "widgets", call.input);
    if (!record) {
        call.fail(record.error());
        return;
    }
    call.timeline.countdownSpan = std::chrono::seconds{call.span};
    call.outcome.output = (call.isJSON ? timelineJSON : timelineText)(
        std::get<WidgetSnapshot>(*record), call.timeline, call.calendar);
}

// What follows declares the words of the commands.

// Adds the option `name`, whose value `type` in the help is what `read` makes of a word, or why it
// makes nothing of it.
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

// CLI11 itself takes a number that is too large for the largest there is.
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

void addTimelineOptions(CLI::App& command, Call& call) {
    const auto readFrom = [&call](const std::string& word) -> std::expected<WallDate, std::string> {
        if (const auto date = word == "now" ? call.now : InternetDate::parse(word)) {
            return *date;
        }
        return std::unexpected("Expected a date such as 2026-11-20T09:30:00Z, or now, found '" +
                               word + "'");
    };
    addRead(command, "--from", "DATE", call.timeline.from, readFrom,
            "from when on: 2026-11-20T09:30:00Z or now, which it is else");
    // A hundred years: more than any countdown, and still few enough seconds.
    constexpr std::int64_t longestSpan = 3155760000;
    const std::map<std::string, std::int64_t> units{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    const CLI::AsNumberWithUnit asSeconds(units, CLI::AsNumberWithUnit::CASE_SENSITIVE);
    command
        .add_option("--span", call.span,
                    "for how long minutes are counted down: seconds, or\n5m, 2h, 1d; else 1h")
        ->transform(asSeconds.description(""))
        ->check(CLI::Range(std::int64_t{0}, longestSpan).description(""))
        ->type_name("SPAN");
    constexpr std::size_t mostDates = 10000;
    command
        .add_option("--limit", call.timeline.limit,
                    "at most so many dates, from 1 to 10000; else 60")
        ->check(CLI::Range(std::size_t{1}, mostDates).description(""))
        ->type_name("N");
}

// A command with its operands, and what --help says after its options.
struct Command {
    const char* name;
    const char* help;
    void (*action)(Call&);
    const char* operand;
    const char* operandHelp;
    std::string more;
    bool hasKind;
    // Whether it prints dates, and of the app group's own files where none is named.
    bool hasZoneAndGroup;
    // What --json prints; null for a command without it.
    const char* jsonHelp;
    void (*addOptions)(CLI::App&, Call&);
};

const std::vector<Command>& commands() {
    static const std::vector<Command> all{
        {"show", "Prints records as JSON.", show, "FILE",
         "the records; else both in the app group's folder, or the one of\n--kind",
         R"(Members that the app does not know are left out.

Examples:
  halvo-records show --group com.example.app
  halvo-records show widgets.json --zone UTC
  ssh laptop cat widgets.json | halvo-records show - --kind widgets
)",
         true, true, "the JSON alone, without titles and local times", nullptr},
        {"check", "Says of each FILE whether it is a record.", check, "FILE", "at least one",
         R"(Prints a line for each FILE: which record it holds, or where it is wrong. What
can be read and is suspicious all the same follows as remarks, which do not change
the exit status: phases that are not in order, runs that end before their phase
starts, a horizon before the writing, two days with the same start.

Examples:
  halvo-records check keepalive.json widgets.json
  halvo-records check backup.json --kind widgets
)",
         true, false, nullptr, nullptr},
        {"link", "Says what deep links lead to, or prints one.", links, "URL",
         "a text that leads nowhere leads to main", R"(Examples:
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records link --to breathe --style box --minutes 5
)",
         false, false, "one object on a line for each URL", addLinkOptions},
        {"timeline", "Prints the dates at which a widget's picture changes.", timeline, "FILE",
         "one widget snapshot; else the app group's own",
         R"(Prints a line for each date, and when to ask for a new timeline. WHY is any of
start (what was asked for), phase (one begins), midnight (a day begins), minute (of
a countdown); LEFT is what a block or focus still counts down.

Examples:
  halvo-records timeline --span 15m
  halvo-records timeline widgets.json --from 2026-11-20T09:30:00Z --zone UTC
)",
         false, true, R"(an object with the list "dates" and with "reload")", addTimelineOptions}};
    return all;
}

void add(const Command& command, CLI::App& app, Call& call) {
    CLI::App& added = *app.add_subcommand(command.name, command.help);
    added.add_option(command.operand, call.operands, command.operandHelp)->type_name("");
    if (command.hasKind) {
        added.add_option("--kind", call.kind, "which record it is: keepalive or widgets")
            ->check(CLI::IsMember({"keepalive", "widgets"}).description(""))
            ->type_name("KIND");
    }
    if (command.addOptions != nullptr) {
        command.addOptions(added, call);
    }
    if (command.hasZoneAndGroup) {
        addRead(
            added, "--zone", "ZONE", call.calendar, GregorianCalendar::named,
            "the zone of the days and of local times, such as\nEurope/Berlin; else the system's");
        added
            .add_option("--group", call.group,
                        "the app group whose folder is meant, when no FILE is named")
            ->type_name("GROUP");
    }
    if (command.jsonHelp != nullptr) {
        added.add_flag("--json", call.isJSON, command.jsonHelp)->disable_flag_override();
    }
    added.footer(command.more + exitStatus);
    added.callback([&call, action = command.action] {
        const auto& after = call.operandsAfterOptions;
        call.operands.insert(call.operands.end(), after.begin(), after.end());
        action(call);
    });
}

}  // namespace

tools::Outcome run(const std::vector<std::string>& words, std::istream& input, WallDate now) {
    Call call(input, now);
    CLI::App app{"Looks into what the app's processes share: records, deep links, timelines.",
                 "halvo-records"};
    app.set_version_flag("--version", std::string("halvo-records ") + version);
    app.require_subcommand(1);
    app.footer(R"(A FILE is named keepalive.json or widgets.json, or --kind tells which record it
is. "-" is standard input. "--" ends the options.

Examples:
  halvo-records show
  halvo-records check ~/.local/share/*/widgets.json
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records timeline widgets.json --zone Europe/Berlin
)" + std::string(exitStatus));
    for (const Command& command : commands()) {
        add(command, app, call);
    }
    // What the parser itself makes of "--" depends on the operands before it.
    const auto end = std::ranges::find(words, "--");
    call.operandsAfterOptions.assign(end == words.end() ? end : end + 1, words.end());
    return tools::parse(app, {words.begin(), end}).value_or(call.outcome);
}

}  // namespace halvo::records
