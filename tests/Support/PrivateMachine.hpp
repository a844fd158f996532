// Tests that need a machine of their own: people, an /Applications folder in which set-group-id
// counts, sessions at the console. scripts/private-machine gives them one.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// What scripts/private-machine says of the machine. Suites of this kind have "PrivateMachine" in
// their name, by which ctest runs them inside one; elsewhere they are skipped, and neither
// prepare() nor cleanUp() touches the machine.
class PrivateMachineTest : public ::testing::Test {
  protected:
    // Before and after each test.
    virtual void prepare() {}

    virtual void cleanUp() {}

    // The two people, of whom the first sits at the console at the beginning.
    Person user;
    Person other;
    std::string userName;
    // A group without members.
    gid_t appGroup = 0;

  private:
    void SetUp() final {
        if (std::getenv("HALVO_APP_GID") == nullptr || access("/.machine", F_OK) != 0) {
            GTEST_SKIP() << "needs scripts/private-machine";
        }
        // People's groups are numbered as they are.
        user = {number("HALVO_UID"), number("HALVO_UID")};
        other = {number("HALVO_OTHER_UID"), number("HALVO_OTHER_UID")};
        userName = std::getenv("HALVO_USER");
        appGroup = number("HALVO_APP_GID");
        prepare();
    }

    void TearDown() final {
        if (!IsSkipped()) {
            cleanUp();
        }
    }

    static unsigned number(const char* variable) {
        return static_cast<unsigned>(std::stoul(std::getenv(variable)));
    }
};

}  // namespace halvo::testing
