#include "benchmarks/Table.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

namespace halvo::benchmark {
namespace {

constexpr std::size_t columns = 7;
using Line = std::array<std::string, columns>;

std::string number(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

// Three digits say all that a shared machine can.
std::string quantity(double value, const std::string& unit) {
    const bool isCount = unit.empty() || unit == "KiB";
    const int decimals = isCount || value >= 100 ? 0 : value >= 10 ? 1 : 2;
    return number(value, decimals) + (unit.empty() ? "" : " " + unit);
}

std::string times(double ratio) { return number(ratio, 2) + "x"; }

std::string verdict(const Row& row) {
    if (!row.isJudged()) {
        return "";
    }
    return row.isMissed() ? "MISSED" : "ok";
}

std::string target(const Row& row) {
    if (row.target.ratioAtMost) {
        return "at most " + times(*row.target.ratioAtMost);
    }
    if (row.target.oursAtMost) {
        return "at most " + quantity(*row.target.oursAtMost, row.unit);
    }
    return "(shown)";
}

Line line(const Row& row) {
    Line cells{row.what, quantity(row.ours, row.unit), "", "", "", target(row), verdict(row)};
    if (!row.peer.empty()) {
        cells[2] = quantity(row.theirs, row.unit) + "  " + row.peer;
        cells[3] = times(row.ratio.median);
        cells[4] = number(row.ratio.low, 2) + " to " + number(row.ratio.high, 2);
    }
    return cells;
}

}  // namespace

Row Row::compared(std::string what, std::string unit, std::string peer, const Comparison& measured,
                  Target target) {
    return {std::move(what),   std::move(unit),  measured.ours(), std::move(peer),
            measured.theirs(), measured.ratio(), target};
}

bool Row::isJudged() const { return target.ratioAtMost || target.oursAtMost; }

bool Row::isMissed() const {
    // Written so that not-a-number misses.
    return (target.ratioAtMost && !(ratio.median <= *target.ratioAtMost)) ||
           (target.oursAtMost && !(ours <= *target.oursAtMost));
}

bool Table::hasMissed() const {
    return std::ranges::any_of(rows_, [](const Row& row) { return row.isMissed(); });
}

std::string Table::text() const {
    std::vector<Line> lines{{"what", "ours", "peer", "ratio", "quartiles", "target", ""}};
    for (const Row& row : rows_) {
        lines.push_back(line(row));
    }
    std::array<std::size_t, columns> widths{};
    for (const Line& cells : lines) {
        for (std::size_t i = 0; i < columns; ++i) {
            widths[i] = std::max(widths[i], cells[i].size());
        }
    }
    std::string text;
    for (const Line& cells : lines) {
        std::string laidOut;
        for (std::size_t i = 0; i < columns; ++i) {
            laidOut += cells[i] + std::string(widths[i] - cells[i].size() + 2, ' ');
        }
        text += laidOut.substr(0, laidOut.find_last_not_of(' ') + 1) + "\n";
    }
    text += notes_.empty() ? "" : "\n";
    for (const std::string& note : notes_) {
        text += note + "\n";
    }
    return text;
}

std::string Table::json() const {
    nlohmann::json rows = nlohmann::json::array();
    for (const Row& row : rows_) {
        nlohmann::json object{{"what", row.what}, {"unit", row.unit}, {"ours", row.ours}};
        if (!row.peer.empty()) {
            object["peer"] = row.peer;
            object["theirs"] = row.theirs;
            object["ratio"] = row.ratio.median;
            object["ratioQuartiles"] = {row.ratio.low, row.ratio.high};
        }
        if (row.target.ratioAtMost) {
            object["ratioAtMost"] = *row.target.ratioAtMost;
        }
        if (row.target.oursAtMost) {
            object["oursAtMost"] = *row.target.oursAtMost;
        }
        if (row.isJudged()) {
            object["missed"] = row.isMissed();
        }
        rows.push_back(std::move(object));
    }
    constexpr int indentation = 2;
    return nlohmann::json{{"rows", rows}, {"notes", notes_}, {"missed", hasMissed()}}.dump(
               indentation) +
           "\n";
}

}  // namespace halvo::benchmark
