// The whole helper of macOS, from main() to its end, on simulated time.
//
// Each run is a process of its own. Before it calls main() it writes a script: what happens when,
// in seconds since the start. The helper checks at 2, 4, 6 s and so on; the script acts in between.
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
#include "tests/Support/TestReport.hpp"

// The helper's main().
extern "C" int halvoHelperMain(int count, char** words);

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
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

    // The process alone.
    void run() { fake::world().processes.push_back({process_, user_, path_}); }

    void connect() {
        connection_ = fake::connect(service, process_, user_);
        EXPECT_NE(connection_, nil);
    }

    void start() {
        run();
        connect();
    }

    void disconnect() {
        fake::invalidate(connection_);
        connection_ = nil;
    }

    // The process alone.
    void die() {
        std::erase_if(fake::world().processes,
                      [this](const fake::Process& process) { return process.pid == process_; });
    }

    void quit() {
        die();
        disconnect();
    }

    // The requests. Each notes its reply.

    void begin(double length, double startedAgo = 0, const std::string& bundle = app) {
        NSDate* until = [NSDate dateWithTimeIntervalSince1970:wallClock() + length];
        NSDate* started = [NSDate dateWithTimeIntervalSince1970:wallClock() - startedAgo];
        NSString* place = foundationText(bundle);
        request(^(id<HalvoHelperXPC> helper) {
          [helper beginWithAppPath:place until:until started:started reply:noting("begin")];
        });
    }

    void heartbeat(bool sessionEnding = false) {
        request(^(id<HalvoHelperXPC> helper) {
          [helper heartbeatWithSessionEnding:sessionEnding reply:noting("heartbeat")];
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

// ------------------------------------------------------------------------------------- in the test

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

    // The machine goes on without a helper for a while.
    void pass(double seconds) { machine.sinceBoot += static_cast<std::uint64_t>(seconds * 1e9); }

    // The machine starts again, having been off for `seconds`.
    void reboot(double seconds) {
        machine.bootedAt += static_cast<double>(machine.sinceBoot) / 1e9 + seconds;
        machine.sinceBoot = 0;
        machine.bootSession = "another boot";
    }

    // Whether the app carries the lock.
    [[nodiscard]] bool isLockedNow() { return (machine.flags[app] & immutable) != 0; }

    // The machine before the next run, or after the last.
    fake::World machine;
    TemporaryFolder disk;
};

// ---------------------------------------------------------------------------------------- the
// start

TEST_F(WholeHelperPrivateMachineTest, RunsOnlyAsRootAndSaysSoBeforeItLooksForItsIdentity) {
    machine.mainInfo = "";
    const HelperRun helper = run([this] { become(user); });
    EXPECT_EQ(helper.status, 77);
    EXPECT_THAT(helper.log, ElementsAre("error: The helper runs only as root, from launchd"));
}

struct IdentityRow {
    std::string name;
    std::string info;
};

class WholeHelperNoIdentityPrivateMachineTest : public WholeHelperPrivateMachineTest,
                                                public ::testing::WithParamInterface<IdentityRow> {
};

TEST_P(WholeHelperNoIdentityPrivateMachineTest, EndsAtOnce) {
    machine.mainInfo = GetParam().info;
    const HelperRun helper = run([] {});
    EXPECT_EQ(helper.status, 78);
    EXPECT_EQ(helper.age, 0);
    EXPECT_THAT(helper.log,
                ElementsAre("error: The helper has no team or app identifier in its Info.plist"));
}

const std::string goodApp = member("HalvoAppBundleID", "com.example.app");
const std::string goodTeam = member("HalvoTeamID", "7QX4KD19MT");

INSTANTIATE_TEST_SUITE_P(
    Infos, WholeHelperNoIdentityPrivateMachineTest,
    ::testing::Values(
        IdentityRow{"None", ""}, IdentityRow{"Empty", infoOf("")},
        IdentityRow{"NoApp", infoOf(goodTeam)}, IdentityRow{"NoTeam", infoOf(goodApp)},
        IdentityRow{"AppIsNoText",
                    infoOf("<key>HalvoAppBundleID</key><integer>1</integer>" + goodTeam)},
        IdentityRow{"TeamIsNoText", infoOf(goodApp + "<key>HalvoTeamID</key><true/>")},
        IdentityRow{"BadApp", infoOf(member("HalvoAppBundleID", "com..example") + goodTeam)},
        IdentityRow{"BadTeam", infoOf(goodApp + member("HalvoTeamID", "7qx4kd19mt"))}),
    [](const auto& row) { return row.param.name; });

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

TEST_F(WholeHelperPrivateMachineTest, LeavesOtherSignalsTheirMeaning) {
    run([] {
        static const int others[]{SIGINT, SIGHUP, SIGQUIT};
        for (const int signal : others) {
            std::signal(signal, SIG_DFL);
        }
        fake::at(1, [] {
            const auto disposition = [](int signal) {
                struct sigaction action{};
                sigaction(signal, nullptr, &action);
                return action.sa_handler;
            };
            EXPECT_EQ(disposition(SIGTERM), SIG_IGN) << "a source watches it";
            for (const int signal : others) {
                EXPECT_FALSE(fake::raise(signal)) << signal;
                EXPECT_EQ(disposition(signal), SIG_DFL) << signal;
            }
        });
        fake::endAt(2);
    });
}

// ------------------------------------------------------------------------------------- the
// requests

TEST_F(WholeHelperPrivateMachineTest, ServesTheFourRequests) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] {
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
}

TEST_F(WholeHelperPrivateMachineTest, LocksTheAppAndStoresTheCommitmentWhileItHolds) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] {
            EXPECT_TRUE(isLocked());
            EXPECT_EQ(stored()["locked"], true);
            EXPECT_EQ(stored()["appPath"], app);
            EXPECT_EQ(stored()["remaining"], 600);
            EXPECT_EQ(stored()["checkpoint"]["bootID"], "9F0C6A5E-0000-4000-8000-00000000B007");
            mine.end();
        });
        fake::endAt(2.5);
    });
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

TEST_F(WholeHelperPrivateMachineTest, KeepsTwoPeopleApart) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        App& theirs = newApp(other.uid);
        fake::at(1.5, [&] {
            theirs.start();
            theirs.begin(60);
            theirs.heartbeat();
            theirs.status();
            theirs.end();
            mine.status();
            mine.end();
            theirs.begin(60);
            mine.status();
        });
        fake::endAt(2.5);
    });
    EXPECT_THAT(helper.notes,
                ElementsAre("begin yes", "begin no", "heartbeat no", "idle", "end no",
                            "holding for 600 s, locked", "end yes", "begin yes", "idle"));
    EXPECT_THAT(helper.log,
                ElementsAre("Holding Ultra Hard mode for 600 s",
                            "error: Refused a begin while another person's Ultra Hard mode runs",
                            "Ultra Hard mode let go: ended", "Holding Ultra Hard mode for 60 s"));
}

TEST_F(WholeHelperPrivateMachineTest, HoldsNobodyForMoreThanADayFromTheStart) {
    const HelperRun helper = run([this] {
        App& mine = newApp(user.uid);
        fake::at(1, [&] {
            mine.start();
            // Started 23 hours ago.
            mine.begin(3 * 3600, 23 * 3600);
            mine.begin(9 * 3600);
            mine.status();
        });
        fake::at(3600.5, [&] { mine.status(); });
        fake::at(3603, [&] { mine.status(); });
        fake::endAt(3604);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "begin yes", "holding for 3600 s, locked",
                                          "holding for 1 s, locked", "idle"));
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 3600 s",
                                        "Holding Ultra Hard mode for 3600 s",
                                        "Ultra Hard mode let go: deadline"));
}

// ----------------------------------------------------------------------------- the periodic checks

TEST_F(WholeHelperPrivateMachineTest, LetsGoAtTheFirstCheckAfterTheDeadline) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 10);
        fake::at(11.5, [] { EXPECT_TRUE(isLocked()) << "checked only at 12 s"; });
        fake::at(12.5, [] {
            EXPECT_FALSE(isLocked());
            EXPECT_TRUE(stored().is_null());
        });
        fake::endAt(13);
    });
    EXPECT_EQ(helper.status, stillRuns);
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 10 s",
                                        "Ultra Hard mode let go: deadline"));
    EXPECT_FALSE(fs::exists(stateFolder));
}

TEST_F(WholeHelperPrivateMachineTest, SavesTheBudgetOnceAMinute) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 600);
        const auto noteBudget = [] {
            note(std::to_string(std::lround(stored()["remaining"].get<double>())));
        };
        // A minute after the begin is at 61 s, the check after that at 62 s.
        fake::at(61.5, noteBudget);
        fake::at(62.5, noteBudget);
        fake::at(121.5, noteBudget);
        fake::at(122.5, noteBudget);
        fake::endAt(123);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "600", "539", "539", "479"));
}

TEST_F(WholeHelperPrivateMachineTest, SetsALockAgainThatSomebodyTookOff) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 600);
        fake::at(5, [] { fake::world().flags[app] = 0x8000; });
        fake::at(6.5, [] { EXPECT_EQ(fake::world().flags[app], 0x8000 | immutable); });
        fake::endAt(7);
    });
    EXPECT_THAT(helper.log,
                ElementsAre("Holding Ultra Hard mode for 600 s", "Locked Halvo's app again"));
}

TEST_F(WholeHelperPrivateMachineTest, HoldsWithoutALockThatTheSystemRefuses) {
    machine.lchflagsError = EPERM;
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] { mine.status(); });
        fake::endAt(5);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "holding for 600 s"));
    EXPECT_THAT(helper.log, ElementsAre("error: Couldn't lock Halvo: errno 1",
                                        "error: Couldn't lock Halvo's app",
                                        "Holding Ultra Hard mode for 600 s"));
    EXPECT_EQ(stored()["locked"], false);
}

TEST_F(WholeHelperPrivateMachineTest, SaysAtEachCheckThatALockCannotBeSetAgain) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 600);
        fake::at(3, [] {
            fake::world().flags[app] = 0;
            fake::world().lchflagsError = EACCES;
        });
        fake::endAt(7);
    });
    EXPECT_THAT(helper.log,
                ElementsAre("Holding Ultra Hard mode for 600 s",
                            "error: Couldn't lock Halvo: errno 13", "Locked Halvo's app again",
                            "error: Couldn't lock Halvo: errno 13", "Locked Halvo's app again"));
}

TEST_F(WholeHelperPrivateMachineTest, HoldsOnAMachineThatDoesNotTellItsBoot) {
    machine.bootSession = std::nullopt;
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 600);
        fake::endAt(3);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes"));
    EXPECT_EQ(stored()["checkpoint"]["bootID"], "unknown");
}

// ------------------------------------------------------------------------------------- the opening

const std::string opening = "Halvo isn't running during Ultra Hard mode; opening it";

TEST_F(WholeHelperPrivateMachineTest, OpensAnAppAgainThatWasQuit) {
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
    EXPECT_EQ(helper.launches[0].executable, "/bin/launchctl");
    EXPECT_THAT(helper.launches[0].arguments,
                ElementsAre("asuser", uid, helperPath, "--open-as-user", uid, app, "--after-quit"));
    EXPECT_THAT(helper.launches[0].environment, IsEmpty());
}

// launchctl runs the words that follow the user as a program in that user's session.
TEST_F(WholeHelperPrivateMachineTest, ReachesTheUsersOpenThroughTheOtherModeOfTheHelper) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(3, [&] { mine.quit(); });
        fake::endAt(9);
    });
    ASSERT_EQ(helper.launches.size(), 1U);
    const Words& launched = helper.launches[0].arguments;
    ASSERT_GT(launched.size(), 2U);
    ASSERT_EQ(launched[2], helperPath);
    const FakeOpen open;
    const ChildResult mode = runInChild([&] { callMain({launched.begin() + 2, launched.end()}); });
    EXPECT_EQ(mode.status, 0);
    EXPECT_EQ(mode.output, "");
    TestReport report = open.report();
    EXPECT_THAT(report["argument"], ElementsAre("/usr/bin/open", "-g", "-a", app, "--args",
                                                "-halvoRelaunchedAfterQuit", "YES"));
    const std::string uid = std::to_string(user.uid);
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

TEST_F(WholeHelperPrivateMachineTest, OpensNothingWhileTheAppRuns) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        // It hangs: it runs, but says nothing.
        fake::at(2.5, [&] { mine.disconnect(); });
        fake::endAt(120);
    });
    EXPECT_THAT(helper.launches, IsEmpty());
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

TEST_F(WholeHelperPrivateMachineTest, DoesNotTakeAnotherPersonsAppForTheCommittedOnes) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        App& theirs = newApp(other.uid);
        fake::at(1.5, [&] {
            theirs.run();
            mine.quit();
        });
        fake::endAt(9);
    });
    EXPECT_EQ(helper.launches.size(), 1U);
}

TEST_F(WholeHelperPrivateMachineTest, TriesAgainAfterFifteenSecondsAndSaysWhyItCouldNot) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] { mine.quit(); });
        fake::at(7, [] { fake::world().launchError = "no launchctl"; });
        fake::at(9, [] { fake::world().launchError = std::nullopt; });
        fake::world().onLaunch = [](const fake::Launch&) { noteTime("open"); };
        fake::endAt(41);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "open at 24", "open at 40"));
    EXPECT_THAT(helper.log,
                ElementsAre("Holding Ultra Hard mode for 600 s", opening,
                            "error: Couldn't open Halvo: no launchctl", opening, opening,
                            ::testing::StartsWith("error: Opened Halvo 2 times in a row")));
}

TEST_F(WholeHelperPrivateMachineTest, OpensNothingWhileAnotherPersonIsAtTheConsole) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] { mine.quit(); });
        fake::at(3, [this] { fake::world().consoleUID = other.uid; });
        // Nobody, then root, then the committed person again, who is given 6 s from the check at
        // 62 s on.
        fake::at(21, [] { fake::world().consoleUser = "loginwindow"; });
        fake::at(41, [] {
            fake::world().consoleUser = "root";
            fake::world().consoleUID = 0;
        });
        fake::at(61, [this] {
            fake::world().consoleUser = userName;
            fake::world().consoleUID = user.uid;
        });
        fake::world().onLaunch = [](const fake::Launch&) { noteTime("open"); };
        fake::endAt(69);
    });
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "open at 68"));
    ASSERT_EQ(helper.launches.size(), 1U);
    EXPECT_THAT(helper.launches[0].arguments, Not(Contains("--after-quit")))
        << "it was not alive in this session at the console";
}

TEST_F(WholeHelperPrivateMachineTest, LeavesASessionThatEndsAloneForNinetySeconds) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(3, [&] {
            mine.heartbeat(true);
            mine.quit();
        });
        fake::world().onLaunch = [](const fake::Launch&) { noteTime("open"); };
        fake::endAt(95);
    });
    // The 90 s are over at 93 s.
    EXPECT_THAT(helper.notes, ElementsAre("begin yes", "heartbeat yes", "open at 94"));
}

TEST_F(WholeHelperPrivateMachineTest, OpensNothingOfAnAppThatIsGone) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 600);
        fake::at(1.5, [&] {
            mine.quit();
            fs::remove_all(app);
        });
        fake::endAt(9);
    });
    EXPECT_THAT(helper.launches, IsEmpty());
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 600 s", opening));
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

// ------------------------------------------------------------------------------------------ the
// end

TEST_F(WholeHelperPrivateMachineTest, EndsWhenItHasHadNothingToDoForThirtySeconds) {
    const HelperRun helper = run([] { fake::endAt(60); });
    EXPECT_EQ(helper.status, 0);
    EXPECT_EQ(helper.age, 30);
    EXPECT_THAT(helper.log, IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, EndsThirtySecondsAfterTheLastConnectionHasClosed) {
    const HelperRun helper = run([this] {
        App& first = newApp(user.uid);
        App& second = newApp(other.uid);
        fake::at(1, [&] { first.start(); });
        fake::at(29, [&] { second.start(); });
        fake::at(50, [&] { first.quit(); });
        fake::at(1001, [&] { second.quit(); });
        fake::endAt(2000);
    });
    EXPECT_EQ(helper.status, 0);
    EXPECT_EQ(helper.age, 1032) << "the first check at which 30 s have passed";
}

TEST_F(WholeHelperPrivateMachineTest, StaysWhileAConnectionIsOpen) {
    const HelperRun helper = run([this] {
        App& mine = newApp(user.uid);
        fake::at(1, [&] { mine.start(); });
        fake::endAt(600);
    });
    EXPECT_EQ(helper.status, stillRuns);
}

TEST_F(WholeHelperPrivateMachineTest, StaysWhileItHoldsAndThirtySecondsLonger) {
    const HelperRun helper = run([this] {
        App& mine = newHoldingApp(user.uid, 100);
        fake::at(2.5, [&] { mine.disconnect(); });
        fake::endAt(600);
    });
    EXPECT_EQ(helper.status, 0);
    // Last busy at the check at 100 s; let go at that at 102 s.
    EXPECT_EQ(helper.age, 130);
}

TEST_F(WholeHelperPrivateMachineTest, EndsWithZeroWhenItIsTerminatedHoldingNothing) {
    const HelperRun helper = run([] { fake::at(3, [] { EXPECT_TRUE(fake::raise(SIGTERM)); }); });
    EXPECT_EQ(helper.status, 0);
    EXPECT_EQ(helper.age, 3);
    EXPECT_THAT(helper.log, IsEmpty());
}

TEST_F(WholeHelperPrivateMachineTest, EndsWithSeventyFiveAndTheLockOffWhenItIsTerminatedHolding) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 600);
        fake::at(5, [] { fake::raise(SIGTERM); });
    });
    EXPECT_EQ(helper.status, 75);
    EXPECT_EQ(helper.age, 5);
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for 600 s"));
    EXPECT_FALSE(isLockedNow());
    EXPECT_EQ(stored()["locked"], true) << "the next helper sets it again";
    EXPECT_EQ(stored()["remaining"], 596);
}

TEST_F(WholeHelperPrivateMachineTest, EndsWithZeroWhenItIsTerminatedAfterTheTimeRanOut) {
    const HelperRun helper = run([this] {
        newHoldingApp(user.uid, 10);
        fake::at(11.5, [] { fake::raise(SIGTERM); });
    });
    EXPECT_EQ(helper.status, 0);
    EXPECT_FALSE(isLockedNow());
    EXPECT_FALSE(stored().is_null()) << "the next helper lets it go";
}

// ---------------------------------------------------------------------------------- the next
// helper

class WholeHelperRestartPrivateMachineTest : public WholeHelperPrivateMachineTest {
  protected:
    // A helper that takes a commitment of 600 s and is terminated 10 s later.
    void terminateWhileHolding() {
        const HelperRun helper = run([this] {
            newHoldingApp(user.uid, 600);
            fake::at(11, [] { fake::raise(SIGTERM); });
        });
        ASSERT_EQ(helper.status, 75);
    }

    // A helper that is asked for the status at once. The app runs all the while.
    HelperRun restart() {
        return run([this] {
            App& mine = newApp(user.uid);
            fake::at(0, [&] {
                mine.start();
                mine.status();
            });
            fake::endAt(3);
        });
    }
};

TEST_F(WholeHelperRestartPrivateMachineTest, HoldsOnBeforeItServesAnybody) {
    terminateWhileHolding();
    pass(5);
    const HelperRun helper = restart();
    EXPECT_THAT(helper.notes, ElementsAre("holding for 585 s, locked"));
    EXPECT_THAT(helper.log, ElementsAre("Locked Halvo's app again",
                                        "Holding Ultra Hard mode for another 585 s"));
    EXPECT_TRUE(isLockedNow());
}

TEST_F(WholeHelperRestartPrivateMachineTest, HoldsOnAfterAHelperThatWasKilled) {
    run([this] {
        newHoldingApp(user.uid, 600);
        fake::endAt(11);
    });
    EXPECT_TRUE(isLockedNow());
    const HelperRun helper = restart();
    EXPECT_THAT(helper.log, ElementsAre("Holding Ultra Hard mode for another 590 s"));
}

TEST_F(WholeHelperRestartPrivateMachineTest, CountsTheTimeThatTheMachineWasOff) {
    terminateWhileHolding();
    reboot(100);
    pass(30);
    const HelperRun helper = restart();
    EXPECT_THAT(helper.notes, ElementsAre("holding for 460 s, locked"));
    EXPECT_EQ(stored()["checkpoint"]["bootID"], "another boot");
}

// The wall clock cannot be trusted over a reboot; the time since then can.
TEST_F(WholeHelperRestartPrivateMachineTest, CountsTheTimeSinceTheBootWhenTheClockWasSetBack) {
    terminateWhileHolding();
    reboot(0);
    machine.bootedAt -= 1000;
    pass(30);
    EXPECT_THAT(restart().notes, ElementsAre("holding for 560 s, locked"));
}

TEST_F(WholeHelperRestartPrivateMachineTest, LetsGoWhatHasRunOutMeanwhile) {
    run([this] {
        newHoldingApp(user.uid, 600);
        fake::endAt(11);
    });
    EXPECT_TRUE(isLockedNow());
    pass(600);
    const HelperRun helper = restart();
    EXPECT_THAT(helper.notes, ElementsAre("idle"));
    EXPECT_THAT(helper.log, ElementsAre("Ultra Hard mode let go: expiredAtStartup"));
    EXPECT_FALSE(isLockedNow());
    EXPECT_FALSE(fs::exists(stateFolder));
}

TEST_F(WholeHelperRestartPrivateMachineTest, GivesTheAppSixSecondsAndDoesNotCallItQuit) {
    terminateWhileHolding();
    const HelperRun helper = run([] {
        fake::world().onLaunch = [](const fake::Launch&) { noteTime("open"); };
        fake::endAt(7);
    });
    EXPECT_THAT(helper.notes, ElementsAre("open at 6"));
    ASSERT_EQ(helper.launches.size(), 1U);
    EXPECT_EQ(helper.launches[0].arguments.back(), app);
}

TEST_F(WholeHelperRestartPrivateMachineTest, LiftsEverythingWhenTheStateCannotBeRead) {
    fs::create_directories(stateFolder);
    writeTestFile(stateFile, R"({"appPath": "/Applications/Halvo.app", "locked": true})");
    machine.flags[app] = immutable | 0x8000;
    const HelperRun helper = restart();
    EXPECT_THAT(helper.notes, ElementsAre("idle"));
    EXPECT_THAT(helper.log,
                ElementsAre("error: The state file couldn't be read; everything was lifted"));
    EXPECT_EQ(machine.flags[app], 0x8000U) << "other flags stay";
    EXPECT_FALSE(fs::exists(stateFolder));
}

TEST_F(WholeHelperRestartPrivateMachineTest, UnlocksNothingThatAnUnreadableStateDoesNotName) {
    fs::create_directories(stateFolder);
    writeTestFile(stateFile, "no JSON");
    machine.flags[app] = immutable;
    const HelperRun helper = restart();
    EXPECT_THAT(helper.log,
                ElementsAre("error: The state file couldn't be read; everything was lifted"));
    EXPECT_TRUE(isLockedNow());
}

}  // namespace
}  // namespace halvo::testing
