// A program in a bundle of its own, which tells what it finds there.
#pragma once

#include <string>
#include <vector>

#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {

// A bundle on the disk, with an Info.plist and the program of BundledProgramMain.cpp. Goes with the
// object.
class BundledProgram {
  public:
    // At `place` below a folder of its own; the Info.plist holds the XML `members`.
    BundledProgram(const std::string& place, const std::string& members);

    // The path of the bundle.
    [[nodiscard]] const std::string& path() const { return path_; }

    // What the program says of `question`, in the environment of the lines `environment`
    // ("NAME=value"). Fails the test when the program fails. Not while another thread runs.
    [[nodiscard]] std::string says(const std::string& question,
                                   const std::vector<std::string>& environment = {}) const;

  private:
    TemporaryFolder folder_;
    std::string path_;
};

}  // namespace halvo::testing
