// A test program inside an app bundle, which prints what it finds there.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// A bundle on the disk with an Info.plist and the program of BundledProgramMain.cpp. Removed by the
// destructor.
class BundledProgram {
  public:
    // The bundle lies at `place` in a new temporary folder. `members` is the XML of the
    // Info.plist's dictionary.
    BundledProgram(const std::string& place, const std::string& members)
        : path_(folder_ / place), program_(path_ + "/Contents/MacOS/Program") {
        std::filesystem::create_directories(path_ + "/Contents/MacOS");
        std::filesystem::copy_file(HALVO_BUNDLED_PROGRAM, program_);
        writeTestFile(path_ + "/Contents/Info.plist",
                      R"(<plist version="1.0"><dict>)" + members + "</dict></plist>");
    }

    // The path of the bundle.
    [[nodiscard]] const std::string& path() const { return path_; }

    // What the program prints for `question`, run with the variables `environment` ("NAME=value").
    // Fails the test when the program fails. Only while no other thread runs (it forks).
    [[nodiscard]] std::string says(const std::string& question,
                                   const std::vector<std::string>& environment = {}) const {
        const ChildResult result =
            runInChild({.words = {program_, question}, .environment = environment});
        EXPECT_EQ(result.status, 0) << result.output << " signal " << result.signal;
        return result.output;
    }

  private:
    TemporaryFolder folder_;
    std::string path_;
    std::string program_;
};

}  // namespace halvo::testing
