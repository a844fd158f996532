#include "tools/HalvoRecords/Tool.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <expected>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/JSON.hpp"
#include "tools/HalvoRecords/Arguments.hpp"
#include "tools/HalvoRecords/LinkText.hpp"
#include "tools/HalvoRecords/RecordText.hpp"
#include "tools/HalvoRecords/Remarks.hpp"
#include "tools/HalvoRecords/TimelineText.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

// So many remarks on one file are told; more say no more.
constexpr std::size_t mostRemarks = 20;

Outcome wrong(const std::string& problem) {
    return {ExitStatus::wrongWords, "",
            "halvo-records: " + problem + " See halvo-records --help.\n"};
}

std::expected<GregorianCalendar, std::string> calendarOf(const std::optional<std::string>& zone) {
    return zone ? GregorianCalendar::named(*zone) : GregorianCalendar::system();
}

Outcome wrongZone(const std::string& problem) {
    return wrong("--zone: " + printable(problem) + ".");
}

// What is read can be written, too: that fails only for what no JSON can have given.
std::string recordJSON(const Record& record) {
    return std::visit([](const auto& value) { return indented(*JSON::encode(value)); }, record);
}

class Runner {
  public:
    Runner(std::istream& input, WallDate now) : input_(input), now_(now) {}

    Outcome operator()(const Help& command) const { return {ExitStatus::fine, command.text, ""}; }

    Outcome operator()(const ShowVersion&) const {
        return {ExitStatus::fine, std::string("halvo-records ") + version + "\n", ""};
    }

    Outcome operator()(const Show& command) const {
        const auto calendar = calendarOf(command.zone);
        if (!calendar) {
            return wrongZone(calendar.error());
        }
        Outcome outcome;
        for (const auto& [file, kind] : targetsOf(command)) {
            const auto record = load(file, kind, input_);
            if (!record) {
                fail(outcome, record.error());
            } else if (command.asJSON) {
                outcome.output += recordJSON(*record);
            } else {
                outcome.output += (outcome.output.empty() ? "" : "\n") + title(file) + ": " +
                                  summary(*record) + "\n" + description(*record, *calendar);
            }
        }
        return outcome;
    }

    Outcome operator()(const Check& command) const {
        Outcome outcome;
        for (const std::string& file : command.files) {
            const auto record = load(file, command.kind, input_);
            if (!record) {
                outcome.output += record.error() + "\n";
                outcome.status = ExitStatus::notFine;
                continue;
            }
            outcome.output += title(file) + ": fine, " + summary(*record) + "\n";
            const auto found = remarks(*record);
            const std::size_t told = std::min(found.size(), mostRemarks);
            for (std::size_t i = 0; i < told; ++i) {
                outcome.output += title(file) + ": remark: " + found[i] + "\n";
            }
            if (told < found.size()) {
                outcome.output +=
                    title(file) + ": and " + counted(found.size() - told, "more remark") + "\n";
            }
        }
        return outcome;
    }

    Outcome operator()(const ReadLinks& command) const {
        Outcome outcome;
        for (const std::string& url : command.urls) {
            const HalvoLink link = HalvoLink::reading(url);
            if (!command.asJSON && command.urls.size() > 1) {
                outcome.output += printable(url) + ": ";
            }
            outcome.output += (command.asJSON ? asJSON(link) : description(link)) + "\n";
        }
        return outcome;
    }

    Outcome operator()(const MakeLink& command) const {
        const std::string url =
            command.scheme ? command.link.url(*command.scheme) : command.link.url();
        if (url == HalvoLink::noURL) {
            return wrong(command.scheme
                             ? "'" + printable(*command.scheme) + "' is no scheme of a URL."
                             : "The app's own scheme is none; --scheme gives another.");
        }
        return {ExitStatus::fine, url + "\n", ""};
    }

    Outcome operator()(const ShowTimeline& command) const {
        const auto calendar = calendarOf(command.zone);
        if (!calendar) {
            return wrongZone(calendar.error());
        }
        const auto record =
            load(command.file ? *command.file : ownFile(RecordKind::widgets, command.group),
                 RecordKind::widgets, input_);
        Outcome outcome;
        if (!record) {
            fail(outcome, record.error());
            return outcome;
        }
        // To the second, so that a date which was printed, given as --from, prints the same again.
        const WallDate from = command.from.value_or(std::chrono::floor<std::chrono::seconds>(now_));
        const Timeline timeline = Timeline::of(std::get<WidgetSnapshot>(*record), from, *calendar,
                                               command.span, command.limit);
        outcome.output = command.asJSON ? asJSON(timeline) : description(timeline, *calendar);
        return outcome;
    }

  private:
    using Target = std::pair<std::string, std::optional<RecordKind>>;

    static std::vector<Target> targetsOf(const Show& command) {
        std::vector<Target> targets;
        targets.reserve(command.files.size());
        for (const std::string& file : command.files) {
            targets.emplace_back(file, command.kind);
        }
        if (command.files.empty() && command.kind != RecordKind::widgets) {
            targets.emplace_back(ownFile(RecordKind::keepAlive, command.group),
                                 RecordKind::keepAlive);
        }
        if (command.files.empty() && command.kind != RecordKind::keepAlive) {
            targets.emplace_back(ownFile(RecordKind::widgets, command.group), RecordKind::widgets);
        }
        return targets;
    }

    static void fail(Outcome& outcome, const std::string& problem) {
        outcome.errors += "halvo-records: " + problem + "\n";
        outcome.status = ExitStatus::notFine;
    }

    std::istream& input_;
    WallDate now_;
};

}  // namespace

Outcome run(std::span<const std::string> words, std::istream& input, WallDate now) {
    const auto command = parseArguments(words);
    return command ? std::visit(Runner(input, now), *command) : wrong(command.error());
}

}  // namespace halvo::records
