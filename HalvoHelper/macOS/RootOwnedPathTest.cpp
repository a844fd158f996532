// What only macOS has. What is the same everywhere: HalvoHelper/RootOwnedPathTest.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using RootOwnedPath::problem;

class RootOwnedPathOnMacOSPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fake::reset();
        std::filesystem::create_directory(folder);
        writeTestFile(file, "");
    }

    void cleanUp() override {
        std::filesystem::remove_all(folder);
        fake::reset();
    }

    const std::string folder = "/Applications/outer";
    const std::string file = folder + "/file";
};

// mount(2) and statfs(2): 0x1000 is local, 0x8 nosuid, 0x200000 noowners, 0x1 read-only.
TEST_F(RootOwnedPathOnMacOSPrivateMachineTest, NeedsAVolumeOfTheMachinesOwn) {
    EXPECT_EQ(problem(file), std::nullopt);
    fake::world().volumes[folder] = 0x1001;
    EXPECT_EQ(problem(file), std::nullopt);
    for (const std::uint32_t flags : {0U, 0x1008U, 0x201000U, 0x8U}) {
        fake::world().volumes[folder] = flags;
        EXPECT_EQ(problem(file), folder + " lies on a volume whose owners cannot be relied on");
    }
    fake::world().volumes.clear();
    fake::world().volumes["/"] = 0x1008;
    EXPECT_EQ(problem(file), "/ lies on a volume whose owners cannot be relied on");
    fake::world().statfsFails = true;
    EXPECT_EQ(problem(file), "/: Input/output error");
}

// /Applications has one that denies all users its removal.
TEST_F(RootOwnedPathOnMacOSPrivateMachineTest, NeedsAccessControlListsThatAllowNothing) {
    for (const char* list : {"", "d", "dd"}) {
        fake::world().accessLists[folder] = list;
        EXPECT_EQ(problem(file), std::nullopt) << list;
    }
    for (const char* list : {"a", "da", "ad", "?", "d?"}) {
        fake::world().accessLists[folder] = list;
        EXPECT_EQ(problem(file), "an access-control list lets others change " + folder) << list;
    }
    fake::world().accessLists.clear();
    fake::world().accessLists[file] = "a";
    EXPECT_EQ(problem(file), "an access-control list lets others change " + file);
    fake::world().accessListError = EIO;
    EXPECT_EQ(problem(file), "an access-control list lets others change /");
}

}  // namespace
}  // namespace halvo::testing
