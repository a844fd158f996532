#include "tools/HalvoRecords/Tool.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ranges>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/InternetDate.hpp"
#include "tools/HalvoRecords/Record.hpp"
#include "tools/HalvoRecords/Timeline.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

// Of more remarks on one file only the number is told.
constexpr std::size_t mostRemarks = 20;

constexpr std::size_t mostDates = 10000;

// A hundred years: more than any countdown, and still few enough seconds.
constexpr std::int64_t longestSpan = 3155760000;

constexpr const char* exitStatus = R"(
Exit status: 0 when all is fine, 1 when a file is not what it should be (missing,
damaged), 64 after a usage error, 74 when the output could not be written.)";

// What the words say, and what has come of them.
struct Call {
    Call(std::istream& source, WallDate date)
        : input(source), now(std::chrono::floor<std::chrono::seconds>(date)) {}

    std::istream& input;
    // To the second, so that a date which was printed, given as --from, prints the same again.
    WallDate now;
    Outcome outcome;

    // The files or URLs before "--" and after it, then the options.
    std::vector<std::string> operands;
    std::vector<std::string> operandsAfterOptions;
    std::optional<RecordKind> kind;
    std::optional<GregorianCalendar> zone;
    std::optional<std::string> group;
    bool isJSON = false;
    std::optional<HalvoLink::Screen> screen;
    std::optional<std::string> style;
    std::optional<std::int64_t> minutes;
    std::optional<std::string> scheme;
    std::optional<WallDate> from;
    std::int64_t span = 3600;
    std::size_t limit = 60;

    [[nodiscard]] GregorianCalendar calendar() const {
        return zone ? *zone : GregorianCalendar::system();
    }

    void fail(const std::string& problem) {
        outcome.errors += "halvo-records: " + problem + "\n";
        outcome.status = ExitStatus::notFine;
    }
};

void checkFiles(const Call& call) {
    if (call.group && !call.operands.empty()) {
        throw CLI::ExcludesError("--group", "FILE");
    }
    if (std::ranges::count(call.operands, standardInput) > 1) {
        throw CLI::ValidationError("Standard input can be read once");
    }
}

void show(Call& call) {
    checkFiles(call);
    std::vector<std::pair<std::string, std::optional<RecordKind>>> targets;
    targets.reserve(call.operands.size() + 2);
    for (const std::string& file : call.operands) {
        targets.emplace_back(file, call.kind);
    }
    for (const RecordKind kind : {RecordKind::keepAlive, RecordKind::widgets}) {
        if (call.operands.empty() && call.kind.value_or(kind) == kind) {
            targets.emplace_back(ownFile(kind, call.group), kind);
        }
    }
    const GregorianCalendar calendar = call.calendar();
    std::string& output = call.outcome.output;
    for (const auto& [file, kind] : targets) {
        const auto record = load(file, kind, call.input);
        if (!record) {
            call.fail(record.error());
        } else if (call.isJSON) {
            output += asJSON(*record);
        } else {
            output += (output.empty() ? "" : "\n") + title(file) + ": " + summary(*record) + "\n" +
                      description(*record, calendar);
        }
    }
}

void check(Call& call) {
    checkFiles(call);
    if (call.operands.empty()) {
        throw CLI::RequiredError("FILE");
    }
    std::string& output = call.outcome.output;
    for (const std::string& file : call.operands) {
        const auto record = load(file, call.kind, call.input);
        if (!record) {
            output += record.error() + "\n";
            call.outcome.status = ExitStatus::notFine;
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

// `breathe, style "box", 5 minutes`.
std::string linkText(const HalvoLink& link) {
    std::string text(link.name());
    if (const auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen)) {
        if (breathe->style) {
            text += ", style " + inQuotes(*breathe->style);
        }
        if (breathe->minutes) {
            text += ", " + std::to_string(*breathe->minutes) +
                    (*breathe->minutes == 1 ? " minute" : " minutes");
        }
    }
    return text;
}

// {"screen":"breathe","style":"box"}. What the link does not give is left out.
std::string linkJSON(const HalvoLink& link) {
    nlohmann::ordered_json object{{"screen", link.name()}};
    if (const auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen)) {
        if (breathe->style) {
            object["style"] = *breathe->style;
        }
        if (breathe->minutes) {
            object["minutes"] = *breathe->minutes;
        }
    }
    return printable(object.dump());
}

void makeLink(Call& call) {
    HalvoLink link{*call.screen};  // NOLINT(bugprone-unchecked-optional-access): --to is required
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

void readLinks(Call& call) {
    if (call.operands.empty()) {
        throw CLI::RequiredError("URL or --to");
    }
    for (const std::string& url : call.operands) {
        const HalvoLink link = HalvoLink::reading(url);
        if (!call.isJSON && call.operands.size() > 1) {
            call.outcome.output += printable(url) + ": ";
        }
        call.outcome.output += (call.isJSON ? linkJSON(link) : linkText(link)) + "\n";
    }
}

void timeline(Call& call) {
    checkFiles(call);
    if (call.operands.size() > 1) {
        throw CLI::ExtrasError({call.operands[1]});
    }
    const std::string file =
        call.operands.empty() ? ownFile(RecordKind::widgets, call.group) : call.operands.front();
    const auto record = load(file, RecordKind::widgets, call.input);
    if (!record) {
        call.fail(record.error());
        return;
    }
    const GregorianCalendar calendar = call.calendar();
    const Timeline dates =
        Timeline::of(std::get<WidgetSnapshot>(*record), call.from.value_or(call.now), calendar,
                     std::chrono::seconds{call.span}, call.limit);
    call.outcome.output = call.isJSON ? asJSON(dates) : description(dates, calendar);
}

// What follows declares the words of the commands.

// A command with its operands, and what --help says after its options.
struct Command {
    const char* name;
    const char* help;
    const char* operand;
    const char* operandHelp;
    std::string more;
    void (*action)(Call&);
};

CLI::App& addCommand(CLI::App& app, Call& call, const Command& command) {
    CLI::App* added = app.add_subcommand(command.name, command.help);
    added->add_option(command.operand, call.operands, command.operandHelp)->type_name("");
    added->footer(command.more + exitStatus);
    added->callback([&call, action = command.action] {
        const auto& after = call.operandsAfterOptions;
        call.operands.insert(call.operands.end(), after.begin(), after.end());
        action(call);
    });
    return *added;
}

// Adds the option `name`, whose value `type` in the help is read by `read`: a function that returns
// nothing for a value that is not what `expected` says.
template <class T, class Read>
CLI::Option* addRead(CLI::App& command, const std::string& name, const std::string& type,
                     std::optional<T>& target, Read read, const std::string& expected,
                     const std::string& help) {
    const auto store = [name, &target, read, expected](const std::string& word) {
        const auto value = read(word);
        if (!value) {
            throw CLI::ValidationError(name, "Expected " + expected + ", found '" + word + "'");
        }
        target.emplace(*value);
    };
    return command.add_option_function<std::string>(name, store, help)->type_name(type);
}

void addKind(CLI::App& command, Call& call) {
    const auto read = [](const std::string& word) {
        const auto kind = word == "keepalive" ? RecordKind::keepAlive : RecordKind::widgets;
        return word == "keepalive" || word == "widgets" ? std::optional(kind) : std::nullopt;
    };
    addRead(command, "--kind", "KIND", call.kind, read, "keepalive or widgets",
            "which record it is: keepalive or widgets");
}

void addZone(CLI::App& command, Call& call, const std::string& help) {
    const auto store = [&call](const std::string& name) {
        const auto calendar = GregorianCalendar::named(name);
        if (!calendar) {
            throw CLI::ValidationError("--zone", calendar.error());
        }
        call.zone.emplace(*calendar);
    };
    command.add_option_function<std::string>("--zone", store, help)->type_name("ZONE");
}

void addGroup(CLI::App& command, Call& call) {
    command
        .add_option("--group", call.group,
                    "the app group whose folder is meant, when no FILE is named;\n"
                    "the folder is made when it is missing")
        ->type_name("GROUP");
}

void addJSON(CLI::App& command, Call& call, const std::string& help) {
    command.add_flag("--json", call.isJSON, help)->disable_flag_override();
}

void addShow(CLI::App& app, Call& call) {
    CLI::App& command =
        addCommand(app, call,
                   {"show", "Prints records as JSON.", "FILE",
                    "the records; else both in the app group's folder, or the one of\n--kind",
                    R"(Members that the app does not know are left out.

Examples:
  halvo-records show --group com.example.app
  halvo-records show widgets.json --zone UTC
  ssh laptop cat widgets.json | halvo-records show - --kind widgets
)",
                    show});
    addKind(command, call);
    addZone(command, call,
            "the zone of the local times beside the dates, such as\n"
            "Europe/Berlin; else the system's");
    addGroup(command, call);
    addJSON(command, call, "the JSON alone, without titles and local times");
}

void addCheck(CLI::App& app, Call& call) {
    CLI::App& command = addCommand(
        app, call,
        {"check", "Says of each FILE whether it is a record.", "FILE", "at least one",
         R"(Prints a line for each FILE: which record it holds, or where it is wrong. What
can be read and is suspicious all the same follows as remarks, which do not change
the exit status: phases that are not in order, runs that end before their phase
starts, a horizon before the writing, two days with the same start.

Examples:
  halvo-records check keepalive.json widgets.json
  halvo-records check backup.json --kind widgets
)",
         check});
    addKind(command, call);
}

void addLink(CLI::App& app, Call& call) {
    CLI::App& command = addCommand(app, call,
                                   {"link", "Says what deep links lead to, or prints one.", "URL",
                                    "a text that leads nowhere leads to main", R"(Examples:
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records link --to breathe --style box --minutes 5
)",
                                    [](Call& of) { of.screen ? makeLink(of) : readLinks(of); }});
    addJSON(command, call, "one object on a line for each URL");
    const std::string screens = "breathe, focus, today, settings or main";
    CLI::Option* to = addRead(command, "--to", "SCREEN", call.screen, HalvoLink::screenNamed,
                              screens, "print the link to " + screens);
    command.add_option("--style", call.style, "the style of a breathing exercise")
        ->check([](const std::string& word) { return isUTF8(word) ? "" : "This is not UTF-8"; })
        ->type_name("TEXT")
        ->needs(to);
    const auto readMinutes = [](const std::string& word) {
        std::int64_t minutes{};
        const char* end = word.data() + word.size();
        const auto [rest, error] = std::from_chars(word.data(), end, minutes);
        return error == std::errc() && rest == end ? std::optional(minutes) : std::nullopt;
    };
    addRead(command, "--minutes", "N", call.minutes, readMinutes, "a whole number",
            "how many minutes it takes")
        ->needs(to);
    command.add_option("--scheme", call.scheme, "the URL's scheme; else the app's own")
        ->type_name("S")
        ->needs(to);
}

void addTimeline(CLI::App& app, Call& call) {
    CLI::App& command = addCommand(
        app, call,
        {"timeline", "Prints the dates at which a widget's picture changes.", "FILE",
         "one widget snapshot; else the app group's own",
         R"(Prints a line for each date, and when to ask for a new timeline. WHY is any of
start (what was asked for), phase (one begins), midnight (a day begins), minute (of
a countdown); LEFT is what a block or focus still counts down.

Examples:
  halvo-records timeline --span 15m
  halvo-records timeline widgets.json --from 2026-11-20T09:30:00Z --zone UTC
)",
         timeline});
    const auto readFrom = [&call](const std::string& word) {
        return word == "now" ? call.now : InternetDate::parse(word);
    };
    addRead(command, "--from", "DATE", call.from, readFrom,
            "a date such as 2026-11-20T09:30:00Z, or now",
            "from when on: 2026-11-20T09:30:00Z or now, which it is else");
    addZone(command, call, "where the days are, such as Europe/Berlin; else the\nsystem's zone");
    const std::map<std::string, std::int64_t> units{{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    const CLI::AsNumberWithUnit asSeconds(units, CLI::AsNumberWithUnit::CASE_SENSITIVE);
    command
        .add_option("--span", call.span,
                    "for how long minutes are counted down: seconds, or\n5m, 2h, 1d; else 1h")
        ->transform(asSeconds.description(""))
        ->check(CLI::Range(std::int64_t{0}, longestSpan).description(""))
        ->type_name("SPAN");
    command.add_option("--limit", call.limit, "at most so many dates, from 1 to 10000; else 60")
        ->check(CLI::Range(std::size_t{1}, mostDates).description(""))
        ->type_name("N");
    addGroup(command, call);
    addJSON(command, call, R"(an object with the list "dates" and with "reload")");
}

// The words before "--" as the parser takes them: the last one first, and an empty value as a word
// of its own, for which it would else take the next word.
std::vector<std::string> forParser(std::span<const std::string> words) {
    std::vector<std::string> all;
    for (const std::string& word : std::views::reverse(words)) {
        const bool hasEmptyValue = word.starts_with("--") && word.ends_with('=');
        if (hasEmptyValue) {
            all.emplace_back();
        }
        all.push_back(word.substr(0, word.size() - (hasEmptyValue ? 1 : 0)));
    }
    return all;
}

}  // namespace

Outcome run(std::span<const std::string> words, std::istream& input, WallDate now) {
    Call call(input, now);
    CLI::App app{"Looks into what the app's processes share: records, deep links, timelines.",
                 "halvo-records"};
    app.set_version_flag("--version", std::string("halvo-records ") + version);
    app.require_subcommand(0, 1);
    app.footer(R"(A FILE is named keepalive.json or widgets.json, or --kind tells which record it
is. "-" is standard input. "--" ends the options.

Examples:
  halvo-records show
  halvo-records check ~/.local/share/*/widgets.json
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records timeline widgets.json --zone Europe/Berlin
)" + std::string(exitStatus));
    addShow(app, call);
    addCheck(app, call);
    addLink(app, call);
    addTimeline(app, call);
    try {
        // What the parser itself makes of "--" depends on the operands before it.
        const auto end = std::ranges::find(words, "--");
        call.operandsAfterOptions.assign(end == words.end() ? end : end + 1, words.end());
        app.parse(forParser({words.begin(), end}));
        if (app.get_subcommands().empty()) {
            throw CLI::RequiredError("A command (show, check, link or timeline)");
        }
        return call.outcome;
    } catch (const CLI::CallForHelp&) {
        return {ExitStatus::fine, app.help(), ""};
    } catch (const CLI::CallForVersion& text) {
        return {ExitStatus::fine, std::string(text.what()) + "\n", ""};
    } catch (const CLI::ParseError& problem) {
        return {ExitStatus::usageError, "",
                "halvo-records: " + printable(problem.what()) + ". See halvo-records --help.\n"};
    }
}

}  // namespace halvo::records
