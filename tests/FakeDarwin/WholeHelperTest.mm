// The whole helper of macOS, from main() to exit, on simulated time: how main() assembles the
// parts, whose own tests cover their rules.
//
// Each run is a child process, which schedules the events of a script, in seconds since the start,
// and then calls main(). The helper ticks at 2, 4, 6 s and so on; the script acts in between.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoPlatform/Version.hpp"
#include "tests/FakeDarwin/FakeCaller.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeOpen.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

// The helper's main().
extern "C" int halvoHelperMain(int count, char* const* words);

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

const std::string service = "com.example.app.helper";
const std::string helperPath = "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";
const std::string app = "/Applications/Halvo.app";
const std::string executable = app + "/Contents/MacOS/Halvo";
const std::string stateFolder = "/Library/Application Support/com.example.app.helper";
// The exit status of a run whose script ends before the helper exits.
constexpr int stillRuns = 200;

std::string infoOf(const std::map<std::string, std::string>& members) {
    std::string info = "<plist version=\"1.0\"><dict>";
    for (const auto& [key, value] : members) {
        info += "<key>" + key + "</key><string>" + value + "</string>";
    }
    return info + "</dict></plist>";
}

Json stored() { return Json::parse(readTestFile(stateFolder + "/commitment.json")); }

// Its first log message, once it serves.
const std::string startLine = std::string("Halvo helper ") + version + " started";
const std::string holdingLine = "Holding Ultra Hard mode for 600 s";
const std::string openingLine = "Halvo isn't running during Ultra Hard mode; opening it";

// ------------------------------------------------------------------------- in the child process

// What the child passes to the test at exit: the script's notes, the log, the launched tasks
// (program, arguments, environment) and the time that it ran.
std::ofstream record;
std::vector<std::string> notes;
std::uint64_t startedAt = 0;

// Seconds since the start.
double age() { return static_cast<double>(fake::world().sinceBoot - startedAt) / 1e9; }

double wallClock() {
    return fake::world().bootedAt + static_cast<double>(fake::world().sinceBoot) / 1e9;
}

void note(const std::string& text) { notes.push_back(text); }

bool isLocked(const fake::World& world) {
    const auto found = world.flags.find(app);
    return found != world.flags.end() && (found->second & 0x20000) != 0;
}

void writeRecord() {
    // LeakSanitizer needs ptrace(2), which setuid(2) disables.
    prctl(PR_SET_DUMPABLE, 1);
    Json log = Json::array();
    for (const fake::LogEntry& entry : fake::world().log) {
        EXPECT_EQ(entry.subsystem + " " + entry.category, "app.halvo Helper");
        if (entry.text != startLine) {
            log.push_back((entry.isError ? "error: " : "") + entry.text);
        }
    }
    Json launches = Json::array();
    for (const fake::Launch& launch : fake::world().launches) {
        launches.push_back({launch.executable, launch.arguments, launch.environment});
    }
    record << Json{{"age", age()},
                   {"notes", notes},
                   {"log", log},
                   {"launches", launches},
                   {"flags", fake::world().flags},
                   {"sinceBoot", fake::world().sinceBoot}};
    record.close();
}

// Runs main(); exits as the helper does.
[[noreturn]] void callMain(const Words& words) {
    const ArgumentVector arguments(words);
    try {
        halvoHelperMain(static_cast<int>(words.size()), arguments.data());
    } catch (const fake::Over&) {
        std::exit(stillRuns);
    }
    ADD_FAILURE() << "main() returned";
    std::exit(EXIT_FAILURE);
}

// The app of the console user: a process, and its connection to the helper.
FakeCaller caller{notes, wallClock};
constexpr pid_t appProcess = 300;

void startApp() {
    const uid_t user = fake::world().consoleUID;
    fake::world().processes = {{appProcess, user, executable}};
    caller.connection = fake::connect(service, appProcess, user);
    EXPECT_NE(caller.connection, nil);
}

void quitApp() {
    fake::world().processes.clear();
    fake::invalidate(caller.connection);
    caller.connection = nil;
}

// Starts the app after 1 s and begins a commitment of ten minutes.
void hold() {
    fake::at(1, [] {
        startApp();
        caller.begin(app, 600);
    });
}

// ----------------------------------------------------------------------------------- in the test

class WholeHelperPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fs::create_directories(app + "/Contents/MacOS");
        fs::create_directories(app + "/Contents/Helpers");
        writeTestFile(helperPath, "the helper");
        writeTestFile(executable, "");
        fs::permissions(executable, fs::perms{0755});
        machine.mainExecutable = helperPath;
        machine.mainInfo = infoOf({{"CFBundleIdentifier", service},
                                   {"HalvoAppBundleID", "com.example.app"},
                                   {"HalvoTeamID", "7QX4KD19MT"}});
        machine.consoleUser = userName;
        machine.consoleUID = user.uid;
    }

    void cleanUp() override {
        fs::remove_all(app);
        fs::remove_all(stateFolder);
    }

    // Runs the helper in a child process with `machine` as its world; returns its record and exit
    // status. File flags and the time since boot carry over to the next run.
    Json run(const std::function<void()>& script, const Words& words = {helperPath}) {
        const std::string file = disk / "record.json";
        const ChildResult child = runInChild([&] {
            fake::reset();
            fake::world() = machine;
            record.open(file);
            startedAt = machine.sinceBoot;
            std::atexit(writeRecord);
            script();
            callMain(words);
        });
        EXPECT_EQ(child.output, "");
        EXPECT_EQ(child.signal, 0);
        Json result = Json::parse(readTestFile(file));
        machine.flags = result["flags"].get<std::map<std::string, std::uint32_t>>();
        machine.sinceBoot = result["sinceBoot"];
        result["status"] = child.status;
        return result;
    }

    // The machine before the next run, or after the last.
    fake::World machine;
    TemporaryFolder disk;
};

TEST_F(WholeHelperPrivateMachineTest, RunsOnlyAsRootAndChecksThatFirst) {
    machine.mainInfo = "";
    const Json helper = run([this] { become(user); });
    EXPECT_EQ(helper["status"], 77);
    EXPECT_THAT(helper["log"], ElementsAre("error: The helper runs only as root, from launchd"));
}

TEST_F(WholeHelperPrivateMachineTest, ExitsWithoutAnIdentityInItsInfoPlist) {
    for (const std::string& info :
         {std::string(), infoOf({{"HalvoAppBundleID", "com.example.app"}}),
          infoOf({{"HalvoTeamID", "7QX4KD19MT"}})}) {
        machine.mainInfo = info;
        const Json helper = run([] {});
        EXPECT_EQ(helper["status"], 78) << info;
        EXPECT_EQ(helper["age"], 0);
        EXPECT_THAT(
            helper["log"],
            ElementsAre("error: The helper has no team or app identifier in its Info.plist"));
    }
}

TEST_F(WholeHelperPrivateMachineTest, ServesWithoutAnyWord) {
    const auto script = [] {
        fake::at(1, [] { EXPECT_TRUE(fake::listener(service)); });
        fake::endAt(1.5);
    };
    EXPECT_EQ(run(script, {})["status"], stillRuns);
}

TEST_F(WholeHelperPrivateMachineTest, ListensWithARequirementAndTicksEveryTwoSeconds) {
    const Json helper = run([] {
        fake::at(0.5, [] {
            const auto listener = fake::listener(service);
            ASSERT_TRUE(listener);
            EXPECT_THAT(listener->requirement, ::testing::HasSubstr("\"com.example.app\""));
            EXPECT_TRUE(listener->isResumed);
            EXPECT_EQ(fake::world().log.at(0).text, startLine);
            ASSERT_EQ(fake::timers().size(), 1U);
            const fake::Timer timer = fake::timers().front();
            EXPECT_EQ(timer.first, 2'000'000'000U);
            EXPECT_EQ(timer.interval, 2'000'000'000U);
            EXPECT_EQ(timer.leeway, 200'000'000U);
            EXPECT_FALSE(timer.isStrict);
        });
        fake::endAt(1);
    });
    EXPECT_EQ(helper["status"], stillRuns);
    EXPECT_THAT(helper["log"], IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, ServesTheFourRequestsAndLocksTheApp) {
    const Json helper = run([] {
        hold();
        fake::at(1.5, [] {
            EXPECT_TRUE(isLocked(fake::world()));
            EXPECT_EQ(stored()["locked"], true);
            EXPECT_EQ(stored()["appPath"], app);
            EXPECT_EQ(stored()["remaining"], 600);
            EXPECT_EQ(stored()["checkpoint"]["bootID"], "9F0C6A5E-0000-4000-8000-00000000B007");
            caller.heartbeat();
            caller.status();
            caller.end();
            caller.status();
            caller.heartbeat();
            caller.end();
        });
        fake::endAt(2.5);
    });
    EXPECT_THAT(helper["notes"],
                ElementsAre("begin yes", "heartbeat yes", "holding for 600 s, locked", "end yes",
                            "idle", "heartbeat no", "end no"));
    EXPECT_THAT(helper["log"], ElementsAre(holdingLine, "Ultra Hard mode let go: ended"));
    EXPECT_FALSE(isLocked(machine));
    EXPECT_FALSE(fs::exists(stateFolder));
}

// launchctl(1), asuser: runs the program that follows in the session of that user.
TEST_F(WholeHelperPrivateMachineTest, OpensAQuitAppThroughItsOpenAsUserMode) {
    const Json helper = run([] {
        hold();
        // Last seen running at 8 s; then 6 s of silence.
        fake::at(11, quitApp);
        fake::world().onLaunch = [](const fake::Launch&) {
            note("open at " + std::to_string(std::lround(10 * age())));
        };
        fake::endAt(15);
    });
    EXPECT_THAT(helper["notes"], ElementsAre("begin yes", "open at 140"));
    EXPECT_THAT(helper["log"], ElementsAre(holdingLine, openingLine));
    ASSERT_EQ(helper["launches"].size(), 1U);
    const std::string uid = std::to_string(user.uid);
    const Words launched = helper["launches"][0][1];
    EXPECT_EQ(helper["launches"][0][0], "/bin/launchctl");
    ASSERT_THAT(launched,
                ElementsAre("asuser", uid, helperPath, "--open-as-user", uid, app, "--after-quit"));
    EXPECT_THAT(helper["launches"][0][2], IsEmpty());

    const FakeOpen open;
    const ChildResult mode = runInChild([&] { callMain({launched.begin() + 2, launched.end()}); });
    EXPECT_EQ(mode.status, 0);
    EXPECT_EQ(mode.output, "");
    TestReport report = open.report();
    EXPECT_THAT(report["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app, "--args",
                                                "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(report["user"], ElementsAre(uid, uid, uid));
}

// The helper ignores signals, and the thread of its main queue blocks them.
TEST_F(WholeHelperPrivateMachineTest, StartsLaunchctlWithDefaultSignals) {
    const FakeOpen programs;
    copyProgram(HALVO_TEST_APP, "/bin/launchctl");
    const Json helper = run([] {
        hold();
        fake::at(3, quitApp);
        fake::world().onLaunch = [](const fake::Launch&) { kill(getpid(), SIGTERM); };
        fake::at(9, [] {
            struct sigaction action{};
            sigaction(SIGTERM, nullptr, &action);
            EXPECT_EQ(action.sa_handler, SIG_IGN) << "the helper itself still ignores it";
            note("survived");
        });
        fake::endAt(9.5);
    });
    EXPECT_THAT(helper["notes"], ElementsAre("begin yes", "survived"));
    TestReport report = readReport(reportBeside("/bin/launchctl"));
    EXPECT_THAT(report["SigBlk"], ElementsAre("0000000000000000"));
    EXPECT_EQ(ignoredSignals(report), 0U);
    EXPECT_THAT(report["environment"], IsEmpty());
}

// As after a drag to /Applications.
TEST_F(WholeHelperPrivateMachineTest, OpensAnAppThatTheUserOwnsThroughACheckedCopy) {
    ASSERT_EQ(chown(app.c_str(), user.uid, user.gid), 0);
    machine.signedFiles["the helper"] =
        "anchor apple generic and identifier \"com.example.app.helper\" and certificate "
        "leaf[subject.OU] = \"7QX4KD19MT\"";
    const std::string copy = stateFolder + ".copy/HalvoHelper";
    const Json helper = run([&] {
        hold();
        fake::at(3, quitApp);
        fake::world().onLaunch = [&](const fake::Launch&) { note(readTestFile(copy)); };
        // Between two openings the user replaces it.
        fake::at(9, [] { writeTestFile(helperPath, "a way to root"); });
        fake::at(25, [] { fake::raise(SIGTERM); });
    });
    EXPECT_THAT(helper["notes"], ElementsAre("begin yes", "the helper"));
    ASSERT_EQ(helper["launches"].size(), 1U);
    EXPECT_EQ(helper["launches"][0][1].at(2), copy);
    EXPECT_THAT(helper["log"], ElementsAre(holdingLine, openingLine, openingLine,
                                           "error: Couldn't open Halvo: " + copy +
                                               ".unchecked: code object is not signed at all"));
    EXPECT_FALSE(fs::exists(stateFolder + ".copy")) << "the copy was not removed";
}

TEST_F(WholeHelperPrivateMachineTest, StartsItselfByArgvZeroWithoutABundleExecutable) {
    machine.mainExecutable = std::nullopt;
    const std::string elsewhere = app + "/Contents/HalvoHelper";
    writeTestFile(elsewhere, "");
    const auto script = [] {
        hold();
        fake::at(1.5, quitApp);
        fake::endAt(9);
    };
    EXPECT_EQ(run(script, {elsewhere})["launches"].at(0)[1][2], elsewhere);
}

TEST_F(WholeHelperPrivateMachineTest, ExitsWithZeroAfterThirtyIdleSecondsOrSIGTERM) {
    for (const double terminated : {60, 3}) {
        const Json helper = run([=] {
            fake::at(terminated, [] { EXPECT_TRUE(fake::raise(SIGTERM)); });
            fake::endAt(60);
        });
        EXPECT_EQ(helper["status"], 0);
        EXPECT_EQ(helper["age"], std::min(terminated, 30.0));
        EXPECT_THAT(helper["log"], IsEmpty());
    }
}

TEST_F(WholeHelperPrivateMachineTest, ExitsWithTempfailWhileHoldingAndTheNextResumes) {
    const Json first = run([] {
        hold();
        fake::at(11, [] { fake::raise(SIGTERM); });
    });
    EXPECT_EQ(first["status"], 75);
    EXPECT_EQ(first["age"], 11);
    EXPECT_THAT(first["log"], ElementsAre(holdingLine));
    EXPECT_FALSE(isLocked(machine));
    EXPECT_EQ(stored()["locked"], true) << "the next helper sets it again";
    EXPECT_EQ(stored()["remaining"], 590);

    // A boot later: the machine was off for 100 s, and is up for 30 s.
    machine.bootedAt += static_cast<double>(machine.sinceBoot) / 1e9 + 100;
    machine.sinceBoot = 30'000'000'000;
    machine.bootSession = "another boot";
    const Json next = run([] {
        fake::at(0, [] {
            startApp();
            caller.status();
        });
        fake::endAt(3);
    });
    EXPECT_THAT(next["notes"], ElementsAre("holding for 460 s, locked"));
    EXPECT_THAT(next["log"], ElementsAre("Locked Halvo's app again",
                                         "Holding Ultra Hard mode for another 460 s"));
    EXPECT_EQ(stored()["checkpoint"]["bootID"], "another boot");
    EXPECT_TRUE(isLocked(machine));
}

}  // namespace
}  // namespace halvo::testing
