#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

constexpr double quarter = 0.25;
constexpr double threeQuarters = 0.75;

constexpr std::size_t columns = 7;
using Line = std::array<std::string, columns>;

std::string number(double value, int decimals) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

// Three digits say all that a shared machine can.
std::string quantity(double value, const std::string& unit) {
    const int decimals = unit != "us" || value >= 100 ? 0 : value >= 10 ? 1 : 2;
    return number(value, decimals) + (unit.empty() ? "" : " " + unit);
}

std::string times(double ratio) { return number(ratio, 2) + "x"; }

Line line(const Row& row) {
    const auto& [ratioAtMost, oursAtMost] = row.target;
    Line cells{row.what, quantity(quantile(row.rounds.ours), row.unit)};
    if (!row.peer.empty()) {
        cells[2] = quantity(quantile(row.rounds.theirs), row.unit) + "  " + row.peer;
        cells[3] = times(row.ratio());
        cells[4] = number(row.ratio(quarter), 2) + " to " + number(row.ratio(threeQuarters), 2);
    }
    cells[5] = ratioAtMost  ? "at most " + times(*ratioAtMost)
               : oursAtMost ? "at most " + quantity(*oursAtMost, row.unit)
                            : "(shown)";
    cells[6] = row.isMissed() ? "MISSED" : row.isJudged() ? "ok" : "";
    return cells;
}

}  // namespace

double quantile(std::vector<double> values, double share) {
    std::ranges::sort(values);
    const double place = share * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const auto above = std::min(below + 1, values.size() - 1);
    return std::lerp(values[below], values[above], place - static_cast<double>(below));
}

Rounds takeTurns(std::size_t rounds, const std::function<double()>& ours,
                 const std::function<double()>& theirs) {
    constexpr std::chrono::seconds longest{20};
    constexpr std::size_t fewest = 20;
    const auto start = std::chrono::steady_clock::now();
    Rounds measured;
    for (std::size_t round = 0; round < rounds; ++round) {
        if (round >= fewest && std::chrono::steady_clock::now() - start > longest) {
            break;
        }
        const bool oursFirst = round % 2 == 0;
        const double first = oursFirst ? ours() : theirs();
        const double second = oursFirst ? theirs() : ours();
        measured.add(oursFirst ? first : second, oursFirst ? second : first);
    }
    return measured;
}

double Row::ratio(double share) const {
    std::vector<double> ratios;
    std::ranges::transform(rounds.ours, rounds.theirs, std::back_inserter(ratios), std::divides{});
    return quantile(ratios, share);
}

bool Row::isMissed() const {
    // Written so that not-a-number misses.
    return (target.ratioAtMost && !(ratio() <= *target.ratioAtMost)) ||
           (target.oursAtMost && !(quantile(rounds.ours) <= *target.oursAtMost));
}

bool Table::hasMissed() const { return std::ranges::any_of(rows, &Row::isMissed); }

std::string Table::text() const {
    std::vector<Line> lines{{"what", "ours", "peer", "ratio", "quartiles", "target", ""}};
    std::ranges::transform(rows, std::back_inserter(lines), line);
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
    text += notes.empty() ? "" : "\n";
    for (const std::string& note : notes) {
        text += note + "\n";
    }
    return text;
}

std::string Table::json() const {
    nlohmann::json list = nlohmann::json::array();
    for (const Row& row : rows) {
        nlohmann::json object{
            {"what", row.what}, {"unit", row.unit}, {"ours", quantile(row.rounds.ours)}};
        if (!row.peer.empty()) {
            object["peer"] = row.peer;
            object["theirs"] = quantile(row.rounds.theirs);
            object["ratio"] = row.ratio();
            object["ratioQuartiles"] = {row.ratio(quarter), row.ratio(threeQuarters)};
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
        list.push_back(std::move(object));
    }
    return nlohmann::json{{"rows", list}, {"notes", notes}, {"missed", hasMissed()}}.dump(2) + "\n";
}

}  // namespace halvo::benchmark
