// The process entry: HalvoHelper/main.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

using Words = std::vector<std::string>;

constexpr Credentials nobody{65534, 65534};

// A process that dropped its privileges cannot be traced for leaks, and the sanitizer's error about
// that would be taken for the helper's.
const Words sanitizerEnvironment{"ASAN_OPTIONS=detect_leaks=0"};

constexpr const char* onlyAsRoot = "error: The helper runs only as root, from launchd\n";
constexpr const char* noIdentity =
    "error: The helper has no team or app identifier in its Info.plist\n";

// A helper in a folder that every user can reach.
class MainTest : public ::testing::Test {
  protected:
    MainTest() {
        fs::permissions(disk.path(), fs::perms{0755});
        copyProgram(HALVO_HELPER, helper);
    }

    // The exit status and output of a helper that another user than root starts with these words.
    std::pair<int, std::string> runAsNobody(const Words& words) {
        TestProcess process([&] {
            if (geteuid() == 0) {
                become(nobody);
            }
            execute(helper, words, sanitizerEnvironment);
        });
        const int status = process.wait();
        return {status, process.readAll()};
    }

    TemporaryFolder disk;
    const std::string helper = disk / "HalvoHelper";
};

TEST_F(MainTest, StartsTheServiceOnlyAsRootAndSaysSoBeforeItReadsTheInfo) {
    // With the Info.plist missing here, the order shows.
    const auto [status, text] = runAsNobody({});
    EXPECT_EQ(status, 77);
    EXPECT_THAT(text, HasSubstr(onlyAsRoot));
    EXPECT_THAT(text, HasSubstr("to start it by hand: sudo " + helper + "\n")) << "what to do here";
    EXPECT_EQ(text.find("Info.plist"), std::string::npos);
}

TEST_F(MainTest, StartsTheServiceWithAnyOtherFirstWord) {
    for (const Words& words :
         {Words{"x"}, Words{""}, Words{"--after-quit"}, Words{"--help"}, Words{"--OPEN-AS-USER"},
          Words{"--open-as-user "}, Words{"--open-as-users", "501", "/Applications/Halvo.app"},
          Words{"x", "--open-as-user", "501", "/Applications/Halvo.app"},
          Words{"", "--open-as-user"}}) {
        const auto [status, text] = runAsNobody(words);
        EXPECT_EQ(status, 77) << ::testing::PrintToString(words);
        EXPECT_THAT(text, HasSubstr(onlyAsRoot)) << ::testing::PrintToString(words);
    }
}

TEST_F(MainTest, StartsTheOtherModeWithItsWordInFront) {
    EXPECT_EQ(runAsNobody({"--open-as-user"}), std::pair(64, std::string()));
    EXPECT_EQ(runAsNobody({"--open-as-user", "--open-as-user"}), std::pair(64, std::string()));
}

class MainPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override { copyProgram(HALVO_HELPER, helper); }

    // A service that has started, or null.
    std::unique_ptr<TestProcess> start(const Words& words = {}) const {
        auto process =
            std::make_unique<TestProcess>([&] { execute(helper, words, sanitizerEnvironment); });
        const pid_t pid = process->pid();
        const bool started = eventually([pid] { return handlesTermination(pid); });
        EXPECT_TRUE(started);
        return started ? std::move(process) : nullptr;
    }

    // Whether the process handles SIGTERM, nearly the last step of its start: the signal is blocked
    // for signalfd(2). During fork(2), or the start of a sanitizer, all signals are.
    static bool handlesTermination(pid_t pid) {
        const auto blocked = processNumbers(pid, "SigBlk", 16);
        const auto isBlocked = [&](int signal) { return (blocked[0] >> (signal - 1) & 1) != 0; };
        return blocked.size() == 1 && isBlocked(SIGTERM) && !isBlocked(SIGINT);
    }

    void writeInfo(const std::string& app, const std::string& team) const {
        replaceTestFile(disk / "Info.plist",
                        "<plist version=\"1.0\"><dict><key>HalvoAppBundleID</key><string>" + app +
                            "</string><key>HalvoTeamID</key><string>" + team +
                            "</string></dict></plist>");
    }

    TemporaryFolder disk;
    const std::string helper = disk / "HalvoHelper";
    const std::string socket = "/run/com.example.app.helper.sock";
};

TEST_F(MainPrivateMachineTest, EndsWithoutAnIdentity) {
    // The first has no Info.plist at all.
    const std::pair<const char*, const char*> rows[] = {
        {"", ""}, {"com..example", "7QX4KD19MT"}, {"com.example.app", "7qx4kd19mt"}};
    for (const auto& [app, team] : rows) {
        if (*app != '\0') {
            writeInfo(app, team);
        }
        SCOPED_TRACE(app);
        TestProcess process([&] { execute(helper, {}, sanitizerEnvironment); });
        EXPECT_EQ(process.wait(), 78);
        EXPECT_THAT(process.readAll(), HasSubstr(noIdentity));
    }
}

TEST_F(MainPrivateMachineTest, ServesUntilItIsTerminated) {
    writeInfo("com.example.app", "7QX4KD19MT");
    const auto service = start({"x", "--open-as-user", "0"});
    ASSERT_NE(service, nullptr);
    EXPECT_TRUE(fs::is_socket(socket));
    service->send(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    EXPECT_EQ(service->readAll(),
              std::string("app.halvo Helper: Halvo helper ") + version + " started\n");
    EXPECT_FALSE(fs::exists(socket));
    EXPECT_FALSE(fs::exists(socket + ".lock"));
}

TEST_F(MainPrivateMachineTest, LeavesOtherSignalsTheirMeaning) {
    writeInfo("com.example.app", "7QX4KD19MT");
    const auto service = start();
    ASSERT_NE(service, nullptr);
    service->send(SIGINT);
    EXPECT_EQ(service->wait(), 128 + SIGINT);
}

}  // namespace
}  // namespace halvo::testing
