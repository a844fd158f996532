// The whole helper of macOS, from main() to its end, on simulated time.
//
// How the parts are put together on macOS: the rules of each part are tested beside it. Each run is
// a process of its own. Before it calls main() it writes a script: what happens when, in seconds
// since the start. The helper checks at 2, 4, 6 s and so on; the script acts in between.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"
#include "HalvoPlatform/Version.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"
#include "tests/FakeDarwin/FakeOpen.hpp"
#include "tests/FakeDarwin/FakeXPC.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

// The helper's main().
extern "C" int halvoHelperMain(int count, char** words);

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
const std::string stateFile = stateFolder + "/commitment.json";
constexpr std::uint32_t immutable = 0x20000;

// The exit status of a run whose script is over before the helper has ended.
constexpr int stillRuns = 200;

std::string infoOf(const std::string& members) {
    return "<plist version=\"1.0\"><dict>" + members + "</dict></plist>";
}

std::string member(const std::string& key, const std::string& value) {
    return "<key>" + key + "</key><string>" + value + "</string>";
}

const std::string goodInfo =
    infoOf(member("CFBundleIdentifier", service) + member("HalvoAppBundleID", "com.example.app") +
           member("HalvoTeamID", "7QX4KD19MT"));

// What the state file holds; null when there is none.
Json stored() {
    std::ifstream file(stateFile);
    return file ? Json::parse(file, nullptr, false) : Json();
}

// ---------------------------------------------------------------------- in the process of a helper

// What a process leaves to the test when it ends.
struct Record {
    std::ofstream file;
    std::uint64_t startedAt = 0;
    std::vector<std::string> notes;
};

Record& record() {
    static Record& record = *new Record;
    return record;
}

// Seconds since the start.
double age() { return static_cast<double>(fake::world().sinceBoot - record().startedAt) / 1e9; }

double wallClock() {
    return fake::world().bootedAt + static_cast<double>(fake::world().sinceBoot) / 1e9;
}

void note(const std::string& text) { record().notes.push_back(text); }

// Notes `text` with the age.
void noteTime(const std::string& text) {
    std::ostringstream line;
    line << text << " at " << age();
    note(line.str());
}

bool isLocked() { return (fake::world().flags[app] & immutable) != 0; }

// What it logs first once it serves.
const std::string startLine = std::string("Halvo helper ") + version + " started";

void writeRecord() {
    // Leaks are looked for with ptrace(2), to which a process that changed its user is closed.
    prctl(PR_SET_DUMPABLE, 1);
    Json log = Json::array();
    for (const fake::LogEntry& entry : fake::world().log) {
        EXPECT_EQ(entry.subsystem + " " + entry.category, "app.halvo Helper");
        if (entry.text == startLine) {
            continue;
        }
        log.push_back((entry.isError ? "error: " : "") + entry.text);
    }
    Json launches = Json::array();
    for (const fake::Launch& launch : fake::world().launches) {
        launches.push_back({{"executable", launch.executable},
                            {"arguments", launch.arguments},
                            {"environment", launch.environment}});
    }
    record().file << Json{{"age", age()},
                          {"notes", record().notes},
                          {"log", log},
                          {"launches", launches},
                          {"flags", fake::world().flags},
                          {"sinceBoot", fake::world().sinceBoot}};
    record().file.close();
}

// Ends as the helper ends.
[[noreturn]] void callMain(Words words) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    try {
        halvoHelperMain(static_cast<int>(words.size()), pointers.data());
    } catch (const fake::Over&) {
        std::exit(stillRuns);
    }
    ADD_FAILURE() << "main() returned";
    std::exit(EXIT_FAILURE);
}

// Somebody's app: a process, and its connection to the helper.
class App {
  public:
    App(uid_t user, pid_t process, std::string path = executable)
        : user_(user), process_(process), path_(std::move(path)) {}

    void connect() {
        connection_ = fake::connect(service, process_, user_);
        EXPECT_NE(connection_, nil);
    }

    // Its process too.
    void start() {
        fake::world().processes.push_back({process_, user_, path_});
        connect();
    }

    void quit() {
        std::erase_if(fake::world().processes,
                      [this](const fake::Process& process) { return process.pid == process_; });
        fake::invalidate(connection_);
        connection_ = nil;
    }

    // The requests. Each notes its reply.

    void begin(double length) {
        NSDate* started = [NSDate dateWithTimeIntervalSince1970:wallClock()];
        NSDate* until = [NSDate dateWithTimeIntervalSince1970:wallClock() + length];
        request(^(id<HalvoHelperXPC> helper) {
          [helper beginWithAppPath:foundationText(app)
                             until:until
                           started:started
                             reply:noting("begin")];
        });
    }

    void heartbeat() {
        request(^(id<HalvoHelperXPC> helper) {
          [helper heartbeatWithSessionEnding:NO reply:noting("heartbeat")];
        });
    }

    void end() {
        request(^(id<HalvoHelperXPC> helper) {
          [helper endWithReply:noting("end")];
        });
    }

    // As "holding for 600 s, locked".
    void status() {
        request(^(id<HalvoHelperXPC> helper) {
          [helper statusWithReply:^(BOOL holding, NSDate* until, BOOL locked) {
            std::string text = holding ? "holding" : "idle";
            if (until != nil) {
                const double left = until.timeIntervalSince1970 - wallClock();
                text += " for " + std::to_string(std::lround(left)) + " s";
            }
            note(text + (locked ? ", locked" : ""));
          }];
        });
    }

  private:
    void request(void (^work)(id<HalvoHelperXPC> helper)) {
        fake::request(connection_, ^(id exported) {
          work(exported);
        });
    }

    static void (^noting(std::string what))(BOOL) {
        return ^(BOOL ok) {
          note(what + (ok ? " yes" : " no"));
        };
    }

    uid_t user_;
    pid_t process_;
    std::string path_;
    NSXPCConnection* connection_ = nil;
};

// An app of this process, which lives as long.
App& newApp(uid_t user, const std::string& path = executable) {
    static std::deque<App>& apps = *new std::deque<App>;
    return apps.emplace_back(user, static_cast<pid_t>(300 + apps.size()), path);
}

// An app that has begun to hold `length` at the age of 1 s.
App& newHoldingApp(uid_t user, double length) {
    App& holding = newApp(user);
    fake::at(1, [&holding, length] {
        holding.start();
        holding.begin(length);
    });
    return holding;
}

// ------------------------------------------------------------------------------- in the test

struct HelperRun {
    int status = -1;
    // How long it lasted, in seconds.
    double age = 0;
    // What the script noted, what was said to the log, and what was launched.
    std::vector<std::string> notes;
    std::vector<std::string> log;
    std::vector<fake::Launch> launches;
};

class WholeHelperPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        fs::create_directories(app + "/Contents/MacOS");
        fs::create_directories(app + "/Contents/Helpers");
        writeTestFile(helperPath, "the helper");
        writeTestFile(executable, "");
        fs::permissions(executable, fs::perms{0755});
        machine.mainExecutable = helperPath;
        machine.mainInfo = goodInfo;
        machine.consoleUser = userName;
        machine.consoleUID = user.uid;
    }

    void cleanUp() override {
        fs::remove_all(app);
        fs::remove_all(stateFolder);
    }

    // Runs the helper in a process of its own, on the machine as it is by then. The file flags and
    // the time since boot carry over to the next run.
    HelperRun run(const std::function<void()>& script, const Words& words = {helperPath}) {
        const std::string file = disk / "record.json";
        const ChildResult child = runInChild([&] {
            fake::reset();
            fake::world() = machine;
            record().file.open(file);
            record().startedAt = machine.sinceBoot;
            std::atexit(writeRecord);
            script();
            callMain(words);
        });
        EXPECT_EQ(child.output, "");
        EXPECT_EQ(child.signal, 0);
        const Json json = Json::parse(readTestFile(file), nullptr, false);
        if (!json.is_object()) {
            ADD_FAILURE() << "the run left no record";
            return {};
        }
        machine.flags = json["flags"].get<std::map<std::string, std::uint32_t>>();
        machine.sinceBoot = json["sinceBoot"];
        HelperRun result{child.status, json["age"], json["notes"], json["log"], {}};
        for (const Json& launch : json["launches"]) {
            result.launches.push_back(
                {launch["executable"], launch["arguments"], launch["environment"], false});
        }
        return result;
    }

    // Whether the app carries the lock.
    [[nodiscard]] bool isLockedNow() { return (machine.flags[app] & immutable) != 0; }

    // The machine before the next run, or after the last.
    fake::World machine;
    TemporaryFolder disk;
};

TEST_F(WholeHelperPrivateMachineTest, RunsOnlyAsRootAndSaysSoBeforeItLooksForItsIdentity) {
    machine.mainInfo = "";
    const HelperRun helper = run([this] { become(user); });
    EXPECT_EQ(helper.status, 77);
    EXPECT_THAT(helper.log, ElementsAre("error: The helper runs only as root, from launchd"));
}

TEST_F(WholeHelperPrivateMachineTest, EndsAtOnceWithoutAnIdentityInItsInfo) {
    for (const std::string& info :
         {std::string(), infoOf(member("HalvoAppBundleID", "com.example.app")),
          infoOf(member("HalvoTeamID", "7QX4KD19MT"))}) {
        machine.mainInfo = info;
        const HelperRun helper = run([] {});
        EXPECT_EQ(helper.status, 78) << info;
        EXPECT_EQ(helper.age, 0);
        EXPECT_THAT(
            helper.log,
            ElementsAre("error: The helper has no team or app identifier in its Info.plist"));
    }
}

TEST_F(WholeHelperPrivateMachineTest, OpensAsAUserOnlyWithThatWordInFront) {
    for (const Words& words :
         {Words{helperPath, "--open-as-user"}, Words{helperPath, "--open-as-user", "0", app},
          Words{"", "--open-as-user", "501"}}) {
        const HelperRun helper = run([] {}, words);
        EXPECT_EQ(helper.status, 64) << ::testing::PrintToString(words);
        EXPECT_THAT(helper.log, IsEmpty());
    }
    const auto expectService = [] {
        fake::at(1, [] { EXPECT_TRUE(fake::listener(service)); });
        fake::endAt(1.5);
    };
    for (const Words& words :
         {Words{}, Words{helperPath}, Words{"--open-as-user"}, Words{helperPath, ""},
          Words{helperPath, "x", "--open-as-user", "0", app},
          Words{helperPath, "--open-as-users", "0", app}, Words{helperPath, "--after-quit"}}) {
        EXPECT_EQ(run(expectService, words).status, stillRuns) << ::testing::PrintToString(words);
    }
}

TEST_F(WholeHelperPrivateMachineTest, ListensOnItsMachServiceForTheAppAlone) {
    const HelperRun helper = run([] {
        fake::at(0.5, [] {
            const auto listener = fake::listener(service);
            ASSERT_TRUE(listener);
            EXPECT_EQ(listener->requirement,
                      "anchor apple generic and identifier \"com.example.app\" and certificate "
                      "leaf[subject.OU] = \"7QX4KD19MT\"");
            EXPECT_TRUE(listener->isResumed);
            EXPECT_TRUE(listener->hadRequirementWhenResumed);
            EXPECT_TRUE(listener->hadDelegateWhenResumed);
            EXPECT_EQ(fake::world().log.at(0).text, startLine);
        });
        fake::endAt(1);
    });
    EXPECT_EQ(helper.status, stillRuns);
    EXPECT_THAT(helper.log, IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, ChecksEveryTwoSecondsAFifthOfASecondLateAtMost) {
    run([] {
        fake::at(0.5, [] {
            const std::uint64_t second = 1'000'000'000;
            ASSERT_EQ(fake::timers().size(), 1U);
            const fake::Timer timer = fake::timers().front();
            EXPECT_EQ(timer.first, 2 * second);
            EXPECT_EQ(timer.interval, 2 * second);
            EXPECT_EQ(timer.leeway, second / 5);
            EXPECT_FALSE(timer.isStrict);
        });
        fake::endAt(1);
    });
}

TEST_F(WholeHelperPrivateMachineTest, ServesTheFourRequestsLockingTheAppMeanwhile) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] {
            EXPECT_TRUE(isLocked());
            EXPECT_EQ(stored()["locked"], true);
            EXPECT_EQ(stored()["appPath"], app);
            EXPECT_EQ(stored()["remaining"], 600);
            EXPECT_EQ(stored()["checkpoint"]["bootID"], "9F0C6A5E-0000-4000-8000-00000000B007");
            mine.heartbeat();
            mine.status();
            mine.end();
            mine.status();
            mine.heartbeat();
            mine.end();
        });
        fake::endAt(2.5);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "heartbeat yes", "holding for 600 s, locked",
                                          "end yes", "idle", "heartbeat no", "end no"));
    EXPECT_THAT(helper.log,
                ElementsAre("Holding Ultra Hard mode for 600 s", "Ultra Hard mode let go: ended"));
    EXPECT_FALSE(isLockedNow());
    EXPECT_FALSE(fs::exists(stateFolder));
}

// That a stranger never gets as far as this is the system's doing: it checks the caller's signature
// by the listener's requirement, and the delegate is not asked about who fails. What is the
// helper's is that nobody commits a bundle but their own.
TEST_F(WholeHelperPrivateMachineTest, CommitsACallersOwnBundleOnly) {
    const HelperRun helper = run([this] {
        App& other = newApp(user.uid, "/Applications/Other.app/Contents/MacOS/Other");
        App& tool = newApp(user.uid, "/usr/local/bin/tool");
        App& gone = newApp(user.uid);
        fake::at(1, [&] {
            other.start();
            other.begin(600);
            tool.start();
            tool.begin(600);
            // Nothing is known of its process.
            gone.connect();
            gone.begin(600);
            other.status();
        });
        fake::endAt(2.5);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin no", "begin no", "begin no", "idle"));
    const std::string refusal = "error: Refused a begin for a bundle that isn't the caller's own";
    EXPECT_THAT(helper.log, ElementsAre(refusal, refusal, refusal));
    EXPECT_FALSE(fs::exists(stateFolder));
}

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

// launchctl runs the words that follow the user as a program in that user's session.
TEST_F(WholeHelperPrivateMachineTest, OpensAnAppAgainThatWasQuitThroughItsOtherMode) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        // Last looked for, and seen, at 8 s.
        fake::at(11, [&] { mine.quit(); });
        fake::world().onLaunch = [](const fake::Launch&) { noteTime("open"); };
        fake::endAt(15);
    });
    // The silence lasts 6 s.
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "open at 14"));
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 600 s", opening));
    ASSERT_EQ(helper.launches.size(), 1U);
    const std::string uid = std::to_string(user.uid);
    const Words& launched = helper.launches[0].arguments;
    EXPECT_EQ(helper.launches[0].executable, "/bin/launchctl");
    ASSERT_THAT(launched,
                ElementsAre("asuser", uid, helperPath, "--open-as-user", uid, app, "--after-quit"));
    EXPECT_THAT(helper.launches[0].environment, IsEmpty());

    const FakeOpen open;
    const ChildResult mode = runInChild([&] { callMain({launched.begin() + 2, launched.end()}); });
    EXPECT_EQ(mode.status, 0);
    EXPECT_EQ(mode.output, "");
    TestReport report = open.report();
    EXPECT_THAT(report["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app, "--args",
                                                "-halvoRelaunchedAfterQuit", "YES"));
    EXPECT_THAT(report["user"], ElementsAre(uid, uid, uid));
    EXPECT_THAT(report["environment"],
                ElementsAre("HOME=/home/" + userName, "USER=" + userName, "LOGNAME=" + userName,
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin"));
}

// What the helper ignores, and what the thread of its main queue blocks, is its own affair.
TEST_F(WholeHelperPrivateMachineTest, StartsLaunchctlWithEverySignalAsItIsByDefault) {
    const FakeOpen programs;
    copyProgram(HALVO_TEST_APP, "/bin/launchctl");
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(3, [&] { mine.quit(); });
        fake::world().onLaunch = [](const fake::Launch&) { kill(getpid(), SIGTERM); };
        fake::at(9, [] {
            struct sigaction action{};
            sigaction(SIGTERM, nullptr, &action);
            EXPECT_EQ(action.sa_handler, SIG_IGN) << "as before";
            note("survived");
        });
        fake::endAt(9.5);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "survived"));
    TestReport report = readReport(reportBeside("/bin/launchctl"));
    EXPECT_THAT(report["SigBlk"], ElementsAre("0000000000000000"));
    EXPECT_EQ(ignoredSignals(report), 0U);
    EXPECT_THAT(report["environment"], IsEmpty());
}

// As it is when it was dragged into place.
TEST_F(WholeHelperPrivateMachineTest, OpensAnAppThatBelongsToThePersonThroughACheckedCopy) {
    ASSERT_EQ(chown(app.c_str(), user.uid, user.gid), 0);
    machine.signedFiles["the helper"] =
        "anchor apple generic and identifier \"com.example.app.helper\" and certificate "
        "leaf[subject.OU] = \"7QX4KD19MT\"";
    const std::string copy = stateFolder + ".copy/HalvoHelper";
    const HelperRun helper = run([&] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(3, [&] { mine.quit(); });
        fake::world().onLaunch = [&](const fake::Launch&) { note(readTestFile(copy)); };
        // Between two openings they put something else in its place.
        fake::at(9, [] { writeTestFile(helperPath, "a way to root"); });
        fake::at(25, [] { fake::raise(SIGTERM); });
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "the helper"));
    ASSERT_EQ(helper.launches.size(), 1U);
    EXPECT_EQ(helper.launches[0].arguments.at(2), copy);
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 600 s", opening, opening,
                                        "error: Couldn't open Halvo: " + copy +
                                            ".unchecked: code object is not signed at all"));
    EXPECT_FALSE(fs::exists(stateFolder + ".copy")) << "nothing is left of it";
}

TEST_F(WholeHelperPrivateMachineTest, StartsItselfByItsFirstWordWhenTheBundleKnowsNoExecutable) {
    machine.mainExecutable = std::nullopt;
    const std::string elsewhere = app + "/Contents/HalvoHelper";
    writeTestFile(elsewhere, "");
    const HelperRun helper = run(
        [this] {
            App& mine = newHoldingApp(user.uid, 600);
            fake::at(1.5, [&] { mine.quit(); });
            fake::endAt(9);
        },
        {elsewhere});
    ASSERT_EQ(helper.launches.size(), 1U);
    EXPECT_EQ(helper.launches[0].arguments.at(2), elsewhere);
}

TEST_F(WholeHelperPrivateMachineTest, EndsWhenItHasHadNothingToDoForThirtySeconds) {
    const HelperRun helper = run([] { fake::endAt(60); });
    EXPECT_EQ(helper.status, 0);
    EXPECT_EQ(helper.age, 30);
    EXPECT_THAT(helper.log, IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, EndsWithZeroWhenItIsTerminatedHoldingNothing) {
    const HelperRun helper = run([] { fake::at(3, [] { EXPECT_TRUE(fake::raise(SIGTERM)); }); });
    EXPECT_EQ(helper.status, 0);
    EXPECT_EQ(helper.age, 3);
    EXPECT_THAT(helper.log, IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, IsTakenUpByTheNextWhenItIsTerminatedHolding) {
    const HelperRun first = run([this] {
        newHoldingApp(user.uid, 600);
        fake::at(11, [] { fake::raise(SIGTERM); });
    });
    EXPECT_EQ(first.status, 75);
    EXPECT_EQ(first.age, 11);
    EXPECT_THAT(first.log, ElementsAre("Holding Ultra Hard mode for 600 s"));
    EXPECT_FALSE(isLockedNow());
    EXPECT_EQ(stored()["locked"], true) << "the next helper sets it again";
    EXPECT_EQ(stored()["remaining"], 590);

    // A boot later: the machine was off for 100 s, and is up for 30 s.
    machine.bootedAt += static_cast<double>(machine.sinceBoot) / 1e9 + 100;
    machine.sinceBoot = 30'000'000'000;
    machine.bootSession = "another boot";
    const HelperRun next = run([this] {
        App& mine = newApp(user.uid);
        fake::at(0, [&] {
            mine.start();
            mine.status();
        });
        fake::endAt(3);
    });
    EXPECT_THAT(next.notes, ElementsAre("holding for 460 s, locked"));
    EXPECT_THAT(next.log, ElementsAre("Locked Halvo's app again",
                                      "Holding Ultra Hard mode for another 460 s"));
    EXPECT_EQ(stored()["checkpoint"]["bootID"], "another boot");
    EXPECT_TRUE(isLockedNow());
}

}  // namespace
}  // namespace halvo::testing
