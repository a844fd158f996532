#include "tests/Support/BundledProgram.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void execute(std::string path, std::string question,
                          std::vector<std::string> environment) {
    const std::array<char*, 3> arguments{path.data(), question.data(), nullptr};
    std::vector<char*> lines;
    lines.reserve(environment.size() + 1);
    for (std::string& line : environment) {
        lines.push_back(line.data());
    }
    lines.push_back(nullptr);
    execve(path.c_str(), arguments.data(), lines.data());
    std::abort();
}

}  // namespace

BundledProgram::BundledProgram(const std::string& place, const std::string& members)
    : path_(folder_ / place) {
    fs::create_directories(path_ + "/Contents/MacOS");
    fs::copy_file(HALVO_BUNDLED_PROGRAM, path_ + "/Contents/MacOS/Program");
    writeTestFile(path_ + "/Contents/Info.plist",
                  R"(<plist version="1.0"><dict>)" + members + "</dict></plist>");
}

std::string BundledProgram::says(const std::string& question,
                                 const std::vector<std::string>& environment) const {
    const ChildResult result =
        runInChild([&] { execute(path_ + "/Contents/MacOS/Program", question, environment); });
    EXPECT_EQ(result.status, 0) << result.output << " signal " << result.signal;
    return result.output;
}

}  // namespace halvo::testing
