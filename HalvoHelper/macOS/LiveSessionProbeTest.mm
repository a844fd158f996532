#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t ann = 501;
constexpr std::uint32_t ben = 502;

class LiveSessionProbeTest : public ::testing::Test {
  protected:
    LiveSessionProbeTest() { fake::reset(); }

    // A bundle on the disk, whose Info.plist names `executable`.
    std::string makeBundle(const std::string& name, const std::string& executable) {
        const std::string path = disk / name;
        fs::create_directories(path + "/Contents/MacOS");
        writeTestFile(path + "/Contents/MacOS/" + executable, "");
        fs::permissions(path + "/Contents/MacOS/" + executable, fs::perms{0755});
        nameExecutable(path, executable);
        return path;
    }

    static void nameExecutable(const std::string& bundle, const std::string& executable) {
        writeTestFile(bundle + "/Contents/Info.plist",
                      "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>" +
                          executable + "</string></dict></plist>");
    }

    static std::string executableOf(const std::string& bundle) {
        return bundle + "/Contents/MacOS/Sample";
    }

    // A process of `uid` with the executable at `path`, and two others before and after it.
    static void run(const std::string& path, std::uint32_t uid = ann) {
        fake::world().processes = {
            {1, 0, "/sbin/launchd"}, {300, uid, path}, {301, ann, "/usr/bin/tool"}};
    }

    bool isRunning() { return probe->isAppRunning(bundle, ann); }

    TemporaryFolder disk;
    const std::string bundle = makeBundle("Sample.app", "Sample");
    const std::unique_ptr<SessionProbe> probe = makeLiveSessionProbe();
};

TEST_F(LiveSessionProbeTest, TakesWhoHasANameForTheUserAtTheConsole) {
    const struct {
        std::optional<std::string> name;
        std::uint32_t uid;
        std::optional<std::uint32_t> user;
    } rows[] = {
        {"ann", ann, ann},
        {"ben", 4294967295, 4294967295},
        {"l\xC3\xA9o", 503, 503},
        {"LoginWindow", ann, ann},
        {"loginwindow2", ann, ann},
        {std::nullopt, ann, std::nullopt},
        {"", ann, std::nullopt},
        {"loginwindow", 0, std::nullopt},
        {"loginwindow", 88, std::nullopt},
        {"root", 0, std::nullopt},
        {"ann", 0, std::nullopt},
    };

    for (const auto& row : rows) {
        fake::world().consoleUser = row.name;
        fake::world().consoleUID = row.uid;
        EXPECT_EQ(probe->consoleUser(), row.user) << row.name.value_or("none") << row.uid;
    }
}

TEST_F(LiveSessionProbeTest, SeesTheAppWhileItRuns) {
    EXPECT_FALSE(isRunning());
    run(executableOf(bundle));
    EXPECT_TRUE(isRunning());
    run("/usr/bin/other");
    EXPECT_FALSE(isRunning());
    run(executableOf(bundle));
    fake::world().announcedProcesses = 0;
    EXPECT_FALSE(isRunning()) << "from an earlier list";
    EXPECT_TRUE(fake::world().log.empty());
}

// Not for those of another user, a PID that does not exist, a truncated proc_pidinfo() result, or a
// process without a path; and for none after the first that matches.
TEST_F(LiveSessionProbeTest, AsksForThePathsOfThatUsersProcessesOnly) {
    const std::string path = executableOf(bundle);
    fake::world().processes = {{0, ann, path},       {-1, ann, path},      {298, ann, path, 0},
                               {298, ann, path, -1}, {298, ann, path, 63}, {299, ben, path},
                               {300, ann, ""},       {301, ann, path},     {302, ann, path}};
    EXPECT_TRUE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 6);
    EXPECT_EQ(fake::world().pathCalls, 2);
    run(path, ben);
    EXPECT_FALSE(isRunning());
    EXPECT_TRUE(probe->isAppRunning(bundle, ben));
    EXPECT_FALSE(probe->isAppRunning(bundle, 4294967295));
}

TEST_F(LiveSessionProbeTest, ComparesPathsAsBytesAndResolvesNoLinks) {
    fs::create_directory_symlink(bundle, disk / "Link.app");
    for (const std::string& path :
         {disk / "/Sample.app/Contents/MacOS/Sample", disk / "./Sample.app/Contents/MacOS/Sample",
          disk / "sample.app/Contents/MacOS/Sample", executableOf(bundle) + "/",
          executableOf(bundle) + "2", executableOf(bundle) + std::string("\0", 1),
          executableOf(bundle).substr(1), bundle + "/Contents/MacOS/Sampl",
          bundle + "/Contents/MacOS/Sampl\xFF", bundle + "/Contents/MacOS/sample",
          executableOf(disk / "Link.app")}) {
        run(path);
        EXPECT_FALSE(isRunning()) << path;
    }
    EXPECT_TRUE(probe->isAppRunning(disk / "Link.app", ann));
    run(executableOf(bundle));
    for (const std::string& path : {disk / "Link.app", std::string(), disk / "\xFF.app"}) {
        EXPECT_FALSE(probe->isAppRunning(path, ann)) << path;
    }
}

TEST_F(LiveSessionProbeTest, FallsBackToTheUsualExecutable) {
    const std::string missing = disk / "Missing.app";
    run(missing + "/Contents/MacOS/Halvo");
    EXPECT_TRUE(probe->isAppRunning(missing, ann));
    run(missing + "/Contents/MacOS/Missing");
    EXPECT_FALSE(probe->isAppRunning(missing, ann));
}

TEST_F(LiveSessionProbeTest, AsksTheBundleAgainWhenItsExecutableIsGone) {
    run(executableOf(bundle));
    EXPECT_TRUE(isRunning());
    fs::remove(executableOf(bundle));
    writeTestFile(bundle + "/Contents/MacOS/Renamed", "");
    fs::permissions(bundle + "/Contents/MacOS/Renamed", fs::perms{0755});
    nameExecutable(bundle, "Renamed");
    EXPECT_FALSE(isRunning());
    run(bundle + "/Contents/MacOS/Renamed");
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, AsksABundleAgainThatWasNotThereBefore) {
    const std::string late = disk / "Late.app";
    EXPECT_FALSE(probe->isAppRunning(late, ann));
    makeBundle("Late.app", "Sample");
    run(executableOf(late));
    EXPECT_TRUE(probe->isAppRunning(late, ann));
}

TEST_F(LiveSessionProbeTest, TellsBundlesApartFromOneQuestionToTheNext) {
    const std::string second = makeBundle("Second.app", "Sample");
    run(executableOf(second));
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_FALSE(isRunning());
        EXPECT_TRUE(probe->isAppRunning(second, ann));
    }
}

TEST_F(LiveSessionProbeTest, AllocatesNothingWhileNothingChanges) {
    for (const std::string& path : {std::string("/usr/bin/other"), executableOf(bundle)}) {
        run(path);
        const bool answer = isRunning();
        const std::size_t before = mallocsMade();
        for (int turn = 0; turn < 5; ++turn) {
            EXPECT_EQ(probe->isAppRunning(bundle, ann), answer);
        }
        EXPECT_EQ(mallocsMade(), before) << path;
    }
}

}  // namespace
}  // namespace halvo::testing
