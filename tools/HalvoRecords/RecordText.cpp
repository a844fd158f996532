#include "tools/HalvoRecords/RecordText.hpp"

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

using S = WidgetSnapshot;
using Rows = std::vector<std::vector<std::string>>;

constexpr std::string_view indent = "  ";
constexpr std::string_view deepIndent = "    ";
constexpr std::string_view deepestIndent = "        ";

std::string yesOrNo(bool yes) { return yes ? "yes" : "no"; }

std::string levelText(S::Level level) {
    switch (level) {
        case S::Level::gentle:
            return "gentle";
        case S::Level::firm:
            return "firm";
        case S::Level::ultraHard:
            return "ultra hard";
    }
    return "unknown";
}

std::string minutes(std::int64_t number) {
    return std::to_string(number) + (number == 1 ? " minute" : " minutes");
}

std::string lookText(const S::Look& look) {
    return "color " + inQuotes(look.color) + ", symbol " + inQuotes(look.symbol);
}

std::string listed(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + inQuotes(text);
    }
    return all.empty() ? "none" : all;
}

// The same words for each state, everywhere.
struct ShortText {
    std::string operator()(const S::Block& state) const { return named("block", state.running); }

    std::string operator()(const S::Focus& state) const { return named("focus", state.running); }

    std::string operator()(const S::FocusFilter& state) const {
        return named("focus filter", state.running);
    }

    std::string operator()(const S::Next& state) const { return named("next", state.upcoming); }

    std::string operator()(const S::NothingScheduled& /*state*/) const {
        return "nothing scheduled";
    }

    std::string operator()(const S::NoBlocks& /*state*/) const { return "no blocks"; }

    template <class Named>
    static std::string named(const std::string& what, const Named& named) {
        return what + " " + inQuotes(named.name);
    }
};

// What more there is to say of a state: the rest of its line, then lines of its own.
struct Details {
    const GregorianCalendar& calendar;

    std::string operator()(const S::Next& state) const {
        const S::Upcoming& upcoming = state.upcoming;
        std::string text = ", " + levelText(upcoming.level) + ", from " + date(upcoming.start) +
                           " to " + date(upcoming.end) + "\n";
        if (upcoming.look) {
            text += line(lookText(*upcoming.look));
        }
        return text;
    }

    std::string operator()(const S::NothingScheduled& /*state*/) const { return "\n"; }

    std::string operator()(const S::NoBlocks& /*state*/) const { return "\n"; }

    template <class Runs>
    std::string operator()(const Runs& state) const {
        const S::Running& run = state.running;
        std::string text = ", " + levelText(run.level) + ", " +
                           (run.end ? "until " + date(*run.end) : "without end") + "\n";
        text += line("runs since " + date(run.start));
        text += line("names " + listed(run.names) + "; lists " + listed(run.listNames));
        if (run.look) {
            text += line(lookText(*run.look));
        }
        if (run.unlock) {
            text += line("unlocked by " + inQuotes(run.unlock->name) + " until " +
                         date(run.unlock->end));
        }
        return text;
    }

    [[nodiscard]] std::string date(WallDate date) const { return zonedDate(date, calendar); }

    static std::string line(const std::string& text) {
        return std::string(deepestIndent) + text + "\n";
    }
};

// A heading, and below it what `each` gives of each element as a line of a table.
template <class Element, class Each>
std::string section(const std::vector<Element>& elements, const std::string& noun, Each each) {
    Rows rows;
    rows.reserve(elements.size());
    for (const Element& element : elements) {
        rows.push_back(each(element));
    }
    return std::string(indent) + counted(elements.size(), noun) + (rows.empty() ? "" : ":") + "\n" +
           table(rows, deepIndent);
}

struct Describe {
    const GregorianCalendar& calendar;

    std::string operator()(const KeepAliveState& state) const {
        return table({{"process", std::to_string(state.pid)},
                      {"app", inQuotes(state.appPath)},
                      {"ended as it should", yesOrNo(state.clean)},
                      {"committed until",
                       state.commitmentUntil ? date(*state.commitmentUntil) : "not committed"},
                      {"ultra hard", yesOrNo(state.ultraHard)},
                      {"app released", yesOrNo(state.appReleased)},
                      {"bypass noted", yesOrNo(state.bypassNoted)},
                      {"written", date(state.updatedAt)}},
                     indent);
    }

    std::string operator()(const S& snapshot) const {
        std::string text = table({{"written", date(snapshot.writtenAt)},
                                  {"planned until", date(snapshot.horizon)},
                                  {"running", yesOrNo(snapshot.isRunning)},
                                  {"number of blocks", std::to_string(snapshot.blockCount)},
                                  {"breathe", "style " + inQuotes(snapshot.breathe.style) + ", " +
                                                  minutes(snapshot.breathe.minutes)},
                                  {"focus", minutes(snapshot.focusMinutes)}},
                                 indent);
        text += std::string(indent) + counted(snapshot.phases.size(), "phase") +
                (snapshot.phases.empty() ? "\n" : ":\n");
        for (const S::Phase& phase : snapshot.phases) {
            text += std::string(deepIndent) + date(phase.start) + "  " + shortText(phase.state) +
                    std::visit(Details{calendar}, phase.state);
        }
        text += section(snapshot.days, "day", [this](const S::Day& day) {
            return std::vector<std::string>{
                date(day.start), "breaths " + std::to_string(day.breaths),
                "minutes breathed " + std::to_string(day.minutesBreathed),
                "stayed off " + std::to_string(day.stayedOff)};
        });
        text += section(snapshot.lists, "list", [](const S::ListItem& item) {
            return std::vector<std::string>{inQuotes(item.name), lookText(item.look),
                                            item.id.text()};
        });
        text += section(snapshot.blocks, "block", [](const S::BlockItem& item) {
            return std::vector<std::string>{inQuotes(item.name),
                                            levelText(item.level),
                                            item.isEnabled ? "enabled" : "not enabled",
                                            item.isRunning ? "running" : "not running",
                                            lookText(item.look),
                                            item.id.text()};
        });
        return text;
    }

    [[nodiscard]] std::string date(WallDate date) const { return zonedDate(date, calendar); }
};

struct Summarize {
    std::string operator()(const KeepAliveState& state) const {
        return "a keep-alive state of process " + std::to_string(state.pid);
    }

    std::string operator()(const S& snapshot) const {
        return "a widget snapshot of " + counted(snapshot.phases.size(), "phase") + ", " +
               counted(snapshot.days.size(), "day") + ", " +
               counted(snapshot.lists.size(), "list") + " and " +
               counted(snapshot.blocks.size(), "block");
    }
};

}  // namespace

std::string summary(const Record& record) { return std::visit(Summarize{}, record); }

std::string description(const Record& record, const GregorianCalendar& calendar) {
    return std::visit(Describe{calendar}, record);
}

std::string shortText(const S::State& state) { return std::visit(ShortText{}, state); }

}  // namespace halvo::records
