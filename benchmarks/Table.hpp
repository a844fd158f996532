// The one table that a run prints.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "benchmarks/Statistics.hpp"

namespace halvo::benchmark {

// What a row must reach; with none of the two it is only shown.
struct Target {
    std::optional<double> ratioAtMost;
    std::optional<double> oursAtMost;
};

struct Row {
    std::string what;
    std::string unit;
    double ours{};
    // Empty: nothing stands beside it.
    std::string peer;
    double theirs{};
    Spread ratio;
    Target target;

    // Ours beside a peer.
    static Row compared(std::string what, std::string unit, std::string peer,
                        const Comparison& measured, Target target);

    [[nodiscard]] bool isJudged() const;
    [[nodiscard]] bool isMissed() const;
};

class Table {
  public:
    void add(Row row) { rows_.push_back(std::move(row)); }

    // A line for the reader, below the table.
    void note(std::string line) { notes_.push_back(std::move(line)); }

    // Whether any row missed its target.
    [[nodiscard]] bool hasMissed() const;

    // As lines for a person, or as one JSON object.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] std::string json() const;

  private:
    std::vector<Row> rows_;
    std::vector<std::string> notes_;
};

}  // namespace halvo::benchmark
