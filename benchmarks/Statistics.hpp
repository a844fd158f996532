// What many rounds say together.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

// Why not a benchmark library: those time one thing after the other and report each by itself. On a
// machine that does other work meanwhile only a ratio within one moment means anything, so ours and
// the peer take turns here, and each round gives one ratio.
namespace halvo::benchmark {

// The value that a share of `values` lies below: 0.5 is the median. Not of an empty list.
double quantile(std::vector<double> values, double share);

// A median and the quartiles around it.
struct Spread {
    double low{};
    double median{};
    double high{};
};

// Ours and a peer, measured in the same rounds.
class Comparison {
  public:
    void add(double ours, double theirs);

    [[nodiscard]] double ours() const { return quantile(ours_, 0.5); }

    [[nodiscard]] double theirs() const { return quantile(theirs_, 0.5); }

    // The ratio of the medians, with the quartiles of the rounds' own ratios.
    [[nodiscard]] Spread ratio() const;

  private:
    std::vector<double> ours_;
    std::vector<double> theirs_;
};

// Calls both `rounds` times, each first in every other round, so that neither always finds the
// caches as the other left them. Both give what they measured. Fewer rounds, where they take so
// long that all would take more than twenty seconds.
Comparison takeTurns(std::size_t rounds, const std::function<double()>& ours,
                     const std::function<double()>& theirs);

// How long `work` takes on average of `times` calls in a row, in microseconds.
template <class Work>
double microsecondsOf(std::size_t times, const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < times; ++i) {
        work();
    }
    const std::chrono::duration<double, std::micro> span = std::chrono::steady_clock::now() - start;
    return span.count() / static_cast<double>(times);
}

}  // namespace halvo::benchmark
