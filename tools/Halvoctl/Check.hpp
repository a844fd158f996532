// One thing that doctor looked at.
#pragma once

#include <string>
#include <vector>

namespace halvo::control {

enum class Verdict { ok, problem, notApplicable, needsRoot };

struct Check {
    // What was looked at, in a word or two.
    std::string name;
    Verdict verdict{};
    // How it is, without a full stop. One line that a terminal shows and does not obey.
    std::string finding;
    // Of a problem: what to do. Else empty.
    std::string advice;

    bool operator==(const Check&) const = default;
};

using Checks = std::vector<Check>;

inline Check isOk(std::string name, std::string finding) {
    return {std::move(name), Verdict::ok, std::move(finding), ""};
}

inline Check isProblem(std::string name, std::string finding, std::string advice) {
    return {std::move(name), Verdict::problem, std::move(finding), std::move(advice)};
}

inline Check isNotApplicable(std::string name, std::string finding) {
    return {std::move(name), Verdict::notApplicable, std::move(finding), ""};
}

inline Check needsRoot(std::string name) {
    return {std::move(name), Verdict::needsRoot, "only root can look at it", ""};
}

}  // namespace halvo::control
