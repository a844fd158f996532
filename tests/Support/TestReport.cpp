#include "tests/Support/TestReport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

TestReport readReport(const std::string& path) {
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(path); })) << "no " << path;
    TestReport report;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t sign = line.find('=');
        report[line.substr(0, sign)].push_back(line.substr(sign + 1));
    }
    return report;
}

std::uint64_t ignoredSignals(const TestReport& report) {
    // Signal 1 is the lowest bit.
    constexpr std::uint64_t thoseOfTheCLibrary = std::uint64_t{3} << 31;
    return std::stoull(report.at("SigIgn").at(0), nullptr, 16) & ~thoseOfTheCLibrary;
}

}  // namespace halvo::testing
