#include "benchmarks/Statistics.hpp"

#include <algorithm>
#include <cmath>

namespace halvo::benchmark {

double quantile(std::vector<double> values, double share) {
    std::ranges::sort(values);
    const double place = share * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const auto above = std::min(below + 1, values.size() - 1);
    return std::lerp(values[below], values[above], place - static_cast<double>(below));
}

void Comparison::add(double ours, double theirs) {
    ours_.push_back(ours);
    theirs_.push_back(theirs);
}

Spread Comparison::ratio() const {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < ours_.size(); ++i) {
        ratios.push_back(ours_[i] / theirs_[i]);
    }
    return {quantile(ratios, 0.25), ours() / theirs(), quantile(ratios, 0.75)};
}

Comparison takeTurns(std::size_t rounds, const std::function<double()>& ours,
                     const std::function<double()>& theirs) {
    constexpr std::chrono::seconds longest{20};
    constexpr std::size_t fewest = 20;
    const auto start = std::chrono::steady_clock::now();
    Comparison comparison;
    for (std::size_t round = 0; round < rounds; ++round) {
        if (round >= fewest && std::chrono::steady_clock::now() - start > longest) {
            break;
        }
        if (round % 2 == 0) {
            const double first = ours();
            comparison.add(first, theirs());
        } else {
            const double first = theirs();
            comparison.add(ours(), first);
        }
    }
    return comparison;
}

}  // namespace halvo::benchmark
