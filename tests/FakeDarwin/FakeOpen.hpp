// A /usr/bin/open for a private machine.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TestBundle.hpp"

namespace halvo::testing {

// While it lives, /usr/bin contains only an `open` that reports how it was started.
class FakeOpen {
  public:
    FakeOpen() {
        EXPECT_TRUE(folder_.isMounted());
        copyProgram(HALVO_TEST_APP, "/usr/bin/open");
    }

    FakeOpen(const FakeOpen&) = delete;
    FakeOpen& operator=(const FakeOpen&) = delete;

    ~FakeOpen() { std::filesystem::remove(place); }

    // The report, which a user without write permission on /usr/bin leaves in /tmp.
    [[nodiscard]] TestReport report() const { return readReport(place); }

  private:
    static constexpr const char* place = "/tmp/open.report";

    PrivateMount folder_{"tmpfs", "tmpfs", "/usr/bin", 0, "mode=755"};
};

}  // namespace halvo::testing
