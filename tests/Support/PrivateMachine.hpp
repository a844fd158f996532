// Tests that need user accounts, an /Applications folder where set-group-id is honoured, and
// console sessions: scripts/private-machine provides them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// The number in a variable that scripts/private-machine sets.
inline unsigned numberFrom(const char* variable) {
    return static_cast<unsigned>(std::stoul(std::getenv(variable)));
}

// A test inside scripts/private-machine, with what its environment says of the machine. Derived
// suites have "PrivateMachine" in their name, by which ctest runs them inside one; elsewhere they
// are skipped, and neither prepare() nor cleanUp() is called.
class PrivateMachineTest : public ::testing::Test {
  protected:
    // Before and after each test.
    virtual void prepare() {}

    virtual void cleanUp() {}

    // Two users; the first is the console user at the start.
    Credentials user;
    Credentials other;
    std::string userName;
    // A group without members.
    gid_t appGroup = 0;

  private:
    void SetUp() final {
        if (std::getenv("HALVO_APP_GID") == nullptr || access("/.machine", F_OK) != 0) {
            GTEST_SKIP() << "needs scripts/private-machine";
        }
        user = numberFrom("HALVO_UID");
        other = numberFrom("HALVO_OTHER_UID");
        userName = std::getenv("HALVO_USER");
        appGroup = numberFrom("HALVO_APP_GID");
        prepare();
    }

    void TearDown() final {
        if (!IsSkipped()) {
            cleanUp();
        }
    }
};

}  // namespace halvo::testing
