#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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

    // Somebody's process with the executable at `path`, and two others before and after it.
    static void run(const std::string& path, std::uint32_t uid = ann) {
        fake::world().processes = {
            {1, 0, "/sbin/launchd"}, {300, uid, path}, {301, ann, "/usr/bin/tool"}};
    }

    bool isRunning() { return probe.isAppRunning(bundle, ann); }

    TemporaryFolder disk;
    const std::string bundle = makeBundle("Sample.app", "Sample");
    LiveSessionProbe probe;
};

// -------------------------------------------------------------------------------------- the
// console

struct ConsoleRow {
    std::optional<std::string> name;
    std::uint32_t uid;
    std::optional<std::uint32_t> user;
};

class LiveSessionProbeConsoleTest : public ::testing::TestWithParam<ConsoleRow> {};

TEST_P(LiveSessionProbeConsoleTest, IsWhoHasAName) {
    fake::reset();
    fake::world().consoleUser = GetParam().name;
    fake::world().consoleUID = GetParam().uid;
    EXPECT_EQ(LiveSessionProbe().consoleUser(), GetParam().user);
}

INSTANTIATE_TEST_SUITE_P(
    Sessions, LiveSessionProbeConsoleTest,
    ::testing::Values(ConsoleRow{"ann", ann, ann}, ConsoleRow{"ben", 4294967295, 4294967295},
                      ConsoleRow{"l\xC3\xA9o", 503, 503}, ConsoleRow{"LoginWindow", ann, ann},
                      ConsoleRow{"loginwindow2", ann, ann},
                      // Nobody.
                      ConsoleRow{std::nullopt, ann, std::nullopt},
                      ConsoleRow{"", ann, std::nullopt}, ConsoleRow{"loginwindow", 0, std::nullopt},
                      ConsoleRow{"loginwindow", 88, std::nullopt},
                      ConsoleRow{"root", 0, std::nullopt}, ConsoleRow{"ann", 0, std::nullopt}));

TEST_F(LiveSessionProbeTest, AsksForTheConsoleEachTime) {
    fake::world().consoleUser = "ann";
    fake::world().consoleUID = ann;
    EXPECT_EQ(probe.consoleUser(), ann);
    fake::world().consoleUser = "ben";
    fake::world().consoleUID = ben;
    EXPECT_EQ(probe.consoleUser(), ben);
    fake::world().consoleUser = std::nullopt;
    EXPECT_EQ(probe.consoleUser(), std::nullopt);
}

// ---------------------------------------------------------------------------- whether the app runs

TEST_F(LiveSessionProbeTest, SeesTheAppWhileItRuns) {
    run("/usr/bin/other");
    EXPECT_FALSE(isRunning());
    run(executableOf(bundle));
    EXPECT_TRUE(isRunning());
    run("/usr/bin/other");
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, StopsAtTheFirstThatMatches) {
    fake::world().processes = {{299, ben, executableOf(bundle)},
                               {300, ann, "/usr/bin/tool"},
                               {301, ann, executableOf(bundle)},
                               {302, ann, executableOf(bundle)},
                               {303, ann, "/usr/bin/tool"}};
    EXPECT_TRUE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 3);
    EXPECT_EQ(fake::world().pathCalls, 2);
}

TEST_F(LiveSessionProbeTest, AsksForThePathsOfThatUsersProcessesOnly) {
    run(executableOf(bundle), ben);
    EXPECT_FALSE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 3);
    EXPECT_EQ(fake::world().pathCalls, 1) << "that of the tool";
    EXPECT_TRUE(probe.isAppRunning(bundle, ben));
    EXPECT_FALSE(probe.isAppRunning(bundle, 4294967295));
}

TEST_F(LiveSessionProbeTest, SkipsAProcessOfWhichTheKernelTellsNotAll) {
    for (const int size : {0, -1, 1, 63}) {
        fake::world().processes = {{300, ann, executableOf(bundle), size}};
        EXPECT_FALSE(isRunning()) << size;
    }
    EXPECT_EQ(fake::world().pathCalls, 0);
    // And goes on.
    fake::world().processes.push_back({301, ann, executableOf(bundle)});
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, SkipsAProcessWithoutAPath) {
    fake::world().processes = {{300, ann, ""}, {301, ann, executableOf(bundle)}};
    EXPECT_TRUE(isRunning());
    EXPECT_EQ(fake::world().pathCalls, 2);
}

TEST_F(LiveSessionProbeTest, IgnoresWhatIsNoProcess) {
    fake::world().processes = {{0, ann, executableOf(bundle)}, {-1, ann, executableOf(bundle)}};
    EXPECT_FALSE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 0);
}

TEST_F(LiveSessionProbeTest, ComparesPathsAsBytes) {
    for (const std::string& path :
         {disk / "/Sample.app/Contents/MacOS/Sample", disk / "./Sample.app/Contents/MacOS/Sample",
          disk / "sample.app/Contents/MacOS/Sample", executableOf(bundle) + "/",
          executableOf(bundle) + "2", executableOf(bundle) + std::string("\0", 1),
          executableOf(bundle).substr(1), bundle + "/Contents/MacOS/Sampl",
          bundle + "/Contents/MacOS/Sampl\xFF", bundle + "/Contents/MacOS/sample"}) {
        run(path);
        EXPECT_FALSE(isRunning()) << path;
    }
}

TEST_F(LiveSessionProbeTest, DoesNotResolveLinks) {
    fs::create_directory_symlink(bundle, disk / "Link.app");
    run(executableOf(bundle));
    EXPECT_FALSE(probe.isAppRunning(disk / "Link.app", ann));
    run(executableOf(disk / "Link.app"));
    EXPECT_FALSE(isRunning());
    EXPECT_TRUE(probe.isAppRunning(disk / "Link.app", ann));
}

// ------------------------------------------------------------------------------------- the listing

TEST_F(LiveSessionProbeTest, SeesNothingWhenNoProcessIsAnnounced) {
    run(executableOf(bundle));
    for (const int count : {0, -1, INT_MIN}) {
        fake::world().announcedProcesses = count;
        EXPECT_FALSE(isRunning()) << count;
    }
    EXPECT_EQ(fake::world().infoCalls, 0);
}

TEST_F(LiveSessionProbeTest, SeesNothingWhenNoProcessIsListed) {
    run(executableOf(bundle));
    for (const int count : {0, -1, INT_MIN}) {
        fake::world().listedProcesses = count;
        EXPECT_FALSE(isRunning()) << count;
    }
    EXPECT_EQ(fake::world().infoCalls, 0);
}

TEST_F(LiveSessionProbeTest, ForgetsAnEarlierListWhenThereIsNone) {
    run(executableOf(bundle));
    EXPECT_TRUE(isRunning());
    fake::world().announcedProcesses = 0;
    EXPECT_FALSE(isRunning());
}

TEST_F(LiveSessionProbeTest, ReadsAsManyAsAreListed) {
    run(executableOf(bundle));
    fake::world().listedProcesses = 1;
    EXPECT_FALSE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 1);
    fake::world().listedProcesses = 2;
    EXPECT_TRUE(isRunning());
}

TEST_F(LiveSessionProbeTest, HasRoomForSixtyFourThatStartBetweenTheTwoCalls) {
    fake::world().processes.clear();
    for (pid_t process = 1; process <= 65; ++process) {
        fake::world().processes.push_back({process, ann, "/usr/bin/tool"});
    }
    fake::world().announcedProcesses = 1;
    fake::world().processes.back().path = executableOf(bundle);
    EXPECT_TRUE(isRunning());
    fake::world().processes.insert(fake::world().processes.begin(), {1000, ben, ""});
    EXPECT_FALSE(isRunning()) << "one more has no room";
}

TEST_F(LiveSessionProbeTest, ReadsNoMoreThanItsBufferWhateverIsSaidToBeListed) {
    run(executableOf(bundle));
    fake::world().listedProcesses = INT_MAX;
    EXPECT_TRUE(isRunning());
    run("/usr/bin/other");
    fake::world().infoCalls = 0;
    EXPECT_FALSE(isRunning());
    EXPECT_EQ(fake::world().infoCalls, 3) << "where nothing was written there is nobody to ask for";
}

// ----------------------------------------------------------------------------------- the
// executable

TEST_F(LiveSessionProbeTest, FallsBackToTheUsualExecutable) {
    const std::string missing = disk / "Missing.app";
    run(missing + "/Contents/MacOS/Halvo");
    EXPECT_TRUE(probe.isAppRunning(missing, ann));
    run(missing + "/Contents/MacOS/Missing");
    EXPECT_FALSE(probe.isAppRunning(missing, ann));
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
    EXPECT_FALSE(probe.isAppRunning(late, ann));
    makeBundle("Late.app", "Sample");
    run(executableOf(late));
    EXPECT_TRUE(probe.isAppRunning(late, ann));
}

TEST_F(LiveSessionProbeTest, TellsBundlesApartFromOneQuestionToTheNext) {
    const std::string second = makeBundle("Second.app", "Sample");
    run(executableOf(second));
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_FALSE(isRunning());
        EXPECT_TRUE(probe.isAppRunning(second, ann));
    }
}

TEST_F(LiveSessionProbeTest, AnswersForWhatIsNoPath) {
    run(executableOf(bundle));
    EXPECT_FALSE(probe.isAppRunning("", ann));
    EXPECT_FALSE(probe.isAppRunning(disk / "\xFF.app", ann));
}

TEST_F(LiveSessionProbeTest, SaysNothing) {
    run(executableOf(bundle));
    fake::world().listedProcesses = -1;
    isRunning();
    probe.isAppRunning("", ann);
    probe.consoleUser();
    EXPECT_TRUE(fake::world().log.empty());
}

TEST_F(LiveSessionProbeTest, AllocatesNothingWhileNothingChanges) {
    for (const std::string& path : {std::string("/usr/bin/other"), executableOf(bundle)}) {
        run(path);
        const bool answer = isRunning();
        const std::size_t before = mallocsMade();
        for (int turn = 0; turn < 5; ++turn) {
            EXPECT_EQ(probe.isAppRunning(bundle, ann), answer);
        }
        EXPECT_EQ(mallocsMade(), before) << path;
    }
}

}  // namespace
}  // namespace halvo::testing
