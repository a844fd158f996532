#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "examples/SampleApp/SampleApp.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

using Words = std::vector<std::string>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr Seconds minute{60};
constexpr Seconds hour{3600};
// 2026-11-20, 11:00 UTC.
constexpr WallDate noon = wallDate(1795165200);
const std::string app = "/Applications/Halvo.app";

TEST(ArgumentsTest, AreUnderstood) {
    const std::vector<std::pair<Words, Arguments>> rows{
        {{}, {}},
        {{"25"}, {Seconds{1500}}},
        {{"0.5"}, {Seconds{30}}},
        {{"007.250"}, {Seconds{435}}},
        {{"1440"}, {Seconds{86400}}},
        {{"-halvoRelaunchedAfterQuit", "YES"}, {std::nullopt, true}},
        {{"-halvoRelaunchedAfterQuit", "YES", "5"}, {Seconds{300}, true}},
        {{"--help"}, {std::nullopt, false, true}},
        {{"5", "-h"}, {Seconds{300}, false, true}},
    };
    for (const auto& [words, arguments] : rows) {
        EXPECT_EQ(parseArguments(words), arguments) << ::testing::PrintToString(words);
    }
}

TEST(ArgumentsTest, AreRefusedWithTheReason) {
    const auto problemWith = [](const Words& words) {
        const auto parsed = parseArguments(words);
        return parsed ? "none" : parsed.error();
    };
    for (const char* word : {"0",   "0.0",       "-1",    "+1",  "1440.01", "99999999999999999999",
                             "1e3", "0x10",      "inf",   "nan", "",        ".",
                             "5.",  ".5",        "1.2.3", "1,5", " 5",      "5 ",
                             "5m",  "--minutes", "end",   "stop"}) {
        EXPECT_EQ(problemWith({word}),
                  "'" + std::string(word) + "' is no number of minutes above 0, up to 1440.");
    }
    EXPECT_EQ(problemWith({"5", "6"}), "One number of minutes is enough: there is 6 too.");
    const std::string again = "-halvoRelaunchedAfterQuit";
    for (const Words& words : {Words{again}, {again, "NO"}, {again, "5"}}) {
        EXPECT_EQ(problemWith(words), again + " is followed by YES and nothing else.");
    }
}

TEST(LaterEndTest, NeverShortensWhatHolds) {
    EXPECT_EQ(laterEnd(HelperStatus::idle, noon), noon);
    EXPECT_EQ(laterEnd({true, noon, true}, noon + hour), noon + hour);
    EXPECT_EQ(laterEnd({true, noon, true}, noon - hour), std::nullopt);
    EXPECT_EQ(laterEnd({true, noon, false}, noon), std::nullopt);
}

TEST(WordingTest, CountsTheTimeLeftDown) {
    const std::vector<std::pair<double, const char*>> rows{
        {86400, "24:00:00"},  {3723, "1:02:03"},
        {3600, "1:00:00"},    {3599.5, "1:00:00"},
        {3599, "59:59"},      {0.1, "0:01"},
        {0, "0:00"},          {-5, "0:00"},
        {notANumber, "0:00"}, {1e300, "70389528:00:00"}};
    for (const auto& [span, text] : rows) {
        EXPECT_EQ(timeLeft(Seconds{span}), text) << span;
    }
}

TEST(WordingTest, SaysWhatHolds) {
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string until = "Ultra Hard mode holds until ";
    const std::vector<std::pair<HelperStatus, std::string>> rows{
        {HelperStatus::idle, "Nothing holds"},
        {{true, wallDate(1732199527.9), true}, until + "Thu 14:32:07, the app is locked"},
        {{true, wallDate(1732199527), false}, until + "Thu 14:32:07, the app is not locked"},
        {{true, std::nullopt, false}, until + "?, the app is not locked"},
        {{true, wallDate(-1e300), true}, until + "an unknown time, the app is locked"},
        {{true, wallDate(notANumber), true}, until + "an unknown time, the app is locked"}};
    for (const auto& [status, text] : rows) {
        EXPECT_EQ(holding(status), text);
    }
}

TEST(WordingTest, SaysWhatIsTheMatterAndWhatToDo) {
    EXPECT_EQ(advice(HelperFailures::NotRunning{2}),
              "The helper is not running: No such file or directory. Is it installed, and is its "
              "service started?");
    EXPECT_THAT(advice(HelperFailures::Refused{}), HasSubstr("set-group-id"));
    EXPECT_THAT(advice(HelperFailures::Refused{true}), HasSubstr("start it anew"));
    EXPECT_THAT(advice(HelperFailures::TimedOut{}),
                AllOf(StartsWith("The helper did not answer"), EndsWith("very busy.")));
    EXPECT_THAT(advice(HelperFailures::Rejected{"a.b.C", "No"}), EndsWith("update both."));
    EXPECT_THAT(advice(HelperFailures::NoResources{24}), EndsWith("try again."));
}

std::string displayed(bool terminal, const std::function<void(Display&)>& use) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    Display display(stream, terminal);
    use(display);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return {text, size};
}

TEST(DisplayTest, WritesALineForEachChangeToAFileAndOverTheLineOfATerminal) {
    const auto use = [](Display& display) {
        display.say("Hello.");
        display.show("Holds until five", ", 0:02 left");
        display.show("Holds until five", ", 0:02 left");
        display.show("Holds until five", ", 0:01 left");
        display.say("");
        display.say("The helper is away.");
        display.show("Holds until six", "");
    };
    EXPECT_EQ(displayed(false, use),
              "Hello.\nHolds until five\nThe helper is away.\nHolds until six\n");
    EXPECT_EQ(displayed(true, use),
              "Hello.\n\r\033[2KHolds until five, 0:02 left\r\033[2KHolds until five, 0:01 left"
              "\r\033[2KThe helper is away.\n\r\033[2KHolds until six");
}

TEST(DisplayTest, GoesOnWhenItsStreamIsFull) {
    std::FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    Display display(full, false);
    display.say("The helper is back.");
    EXPECT_EQ(std::ferror(full), 0);
    std::fclose(full);
}

TEST(SessionTest, IsClosingAsItsOwnStateSaysElseThePersons) {
    constexpr std::nullopt_t none = std::nullopt;
    EXPECT_FALSE(isClosing(none, none)) << "without logind";
    EXPECT_TRUE(isClosing("closing", "active"));
    EXPECT_FALSE(isClosing("active", "closing"));
    for (const char* state : {"closing", "offline", "lingering", "online", "active", "opening"}) {
        EXPECT_EQ(isClosing(none, state), state == std::string("closing")) << state;
        EXPECT_EQ(isClosing(state, none), state == std::string("closing")) << state;
    }
}

// This process's session, as logind is made to tell of it; null: there is none.
const char* sessionState = nullptr;
bool hasSeat = false;

TEST(SessionTest, CountsOnlyWhereItHasASeat) {
    sessionState = "closing";
    EXPECT_FALSE(isClosing()) << "a remote login";
    hasSeat = true;
    EXPECT_TRUE(isClosing());
    sessionState = nullptr;
    EXPECT_FALSE(isClosing());
}

class RecordKeeperTest : public ::testing::Test {
  protected:
    static HelperStatus until(WallDate end) { return {true, end, true}; }

    TemporaryFolder folder;
    SharedFile<KeepAliveState> keepAlive{"keepalive.json", folder.path()};
    SharedFile<WidgetSnapshot> widgets{"widgets.json", folder.path()};
    RecordKeeper keeper{keepAlive, widgets, app};
};

TEST_F(RecordKeeperTest, WritesNothingBeforeItKnowsAnything) {
    EXPECT_EQ(keeper.end(noon), "");
    EXPECT_EQ(keepAlive.read(), std::nullopt);
    EXPECT_EQ(widgets.read(), std::nullopt);
}

TEST_F(RecordKeeperTest, WritesWhatHoldsAndHowItEnded) {
    using S = WidgetSnapshot;
    EXPECT_EQ(keeper.update(until(noon + hour), noon), "");
    KeepAliveState expected{.pid = getpid(),
                            .appPath = app,
                            .clean = false,
                            .commitmentUntil = noon + hour,
                            .ultraHard = true,
                            .appReleased = false,
                            .bypassNoted = false,
                            .updatedAt = noon};
    EXPECT_EQ(keepAlive.read(), expected);
    const S holding = widgets.read().value();
    EXPECT_TRUE(holding.isRunning && holding.blocks.at(0).isRunning);
    ASSERT_EQ(holding.phases.size(), 2U);
    EXPECT_EQ(std::get<S::Block>(holding.state(noon)).running.end, noon + hour);
    EXPECT_EQ(holding.state(noon + hour), S::State(S::NothingScheduled{}));
    EXPECT_GT(holding.horizon, noon + hour);

    keeper.update(until(noon + hour * 2), noon + minute);
    EXPECT_EQ(keepAlive.read()->commitmentUntil, noon + hour * 2);
    EXPECT_EQ(std::get<S::Block>(widgets.read()->phases[0].state).running.start, noon)
        << "it is still the same commitment";
    EXPECT_EQ(keeper.update({true, std::nullopt, false}, noon + minute), "");
    EXPECT_EQ(widgets.read()->phases.size(), 1U);

    keeper.update(HelperStatus::idle, noon + hour * 3);
    EXPECT_EQ(keeper.end(noon + hour * 4), "");
    expected.clean = true;
    expected.commitmentUntil = std::nullopt;
    expected.ultraHard = false;
    expected.updatedAt = noon + hour * 4;
    EXPECT_EQ(keepAlive.read(), expected);
    const S idle = widgets.read().value();
    EXPECT_FALSE(idle.isRunning || idle.blocks.at(0).isRunning);
    ASSERT_EQ(idle.phases.size(), 1U);
    EXPECT_EQ(idle.phases[0].start, noon + hour * 3);
    EXPECT_EQ(idle.state(noon + hour * 4), S::State(S::NothingScheduled{}));
}

TEST_F(RecordKeeperTest, WritesEveryHalfMinuteAndWhenTheClockWasSetBack) {
    // When it was told that the same still holds, and what the record then says.
    for (const auto& [told, written] : {std::pair{0, 0}, {29, 0}, {30, 30}, {59, 30}, {-7, -7}}) {
        keeper.update(until(noon + hour), noon + Seconds{told});
        EXPECT_EQ(keepAlive.read()->updatedAt, noon + Seconds{written}) << told;
    }
}

TEST_F(RecordKeeperTest, SaysOnceWhyItCannotWriteAndAgainAfterItHasGoneWell) {
    const std::string place = folder / "later";
    const std::string file = place + "/keepalive.json";
    RecordKeeper lost(SharedFile<KeepAliveState>(file), widgets, app);
    const std::string trouble =
        "What the widgets show could not be written: " + file + ": No such file or directory.";
    EXPECT_EQ(lost.update(HelperStatus::idle, noon), trouble);
    EXPECT_EQ(lost.update(HelperStatus::idle, noon + hour), "");
    std::filesystem::create_directory(place);
    EXPECT_EQ(lost.update(HelperStatus::idle, noon + hour * 2), "");
    std::filesystem::remove_all(place);
    EXPECT_EQ(lost.end(noon + hour * 3), trouble);
}

class CompanionTest : public ::testing::Test {
  protected:
    // So that no test asks the logind of this machine.
    void SetUp() override { setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + bus_).c_str(), 1); }

    void TearDown() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    // Runs the app in a process of its own, with `meanwhile` beside it in this one.
    ChildResult run(
        const Arguments& arguments,
        const std::function<void(TestProcess& app)>& meanwhile = [](TestProcess&) {}) {
        TestProcess process(Start{.body = [&] {
            HelperClient client(path_);
            Display display(stdout, /*terminal=*/false);
            RecordKeeper records(keepAlive_, widgets_, app);
            const Pace hurried{Seconds{0.05}, Seconds{0.5}, Seconds{0.2}, Seconds{0.4}};
            return Companion(client, display, records, app, hurried).run(arguments);
        }});
        meanwhile(process);
        const int status = process.wait();
        return {status, process.output()};
    }

    // Waits until the helper has answered `count` requests more.
    static void awaitRequests(const FakeHelper& helper, int count) {
        const int enough = helper.record().requests + count;
        EXPECT_TRUE(eventually([&] { return helper.record().requests >= enough; }));
    }

    static void hold(const FakeHelper& helper, Seconds span) {
        helper.record().until = secondsSince1970(wallNow() + span);
        helper.record().locked = true;
        helper.record().holding = true;
    }

    static void letGo(const FakeHelper& helper) {
        helper.record().yes = false;
        helper.record().holding = false;
        helper.record().until = 0.0;
        helper.record().locked = false;
    }

    // A run beside a helper that holds for ten minutes and lets go after some heartbeats.
    ChildResult runUntilLetGo(const Arguments& arguments) {
        FakeHelper const helper(path_, {Conduct::Answer});
        hold(helper, Seconds{600});
        return run(arguments, [&](TestProcess&) {
            awaitRequests(helper, 6);
            letGo(helper);
        });
    }

    // The last request of an app that `signal` ends while ten minutes hold.
    std::string lastRequestAt(int signal, const std::function<void()>& justBefore = [] {}) {
        FakeHelper const helper(path_, {Conduct::Answer});
        hold(helper, Seconds{600});
        ended_ = run({}, [&](TestProcess& process) {
            awaitRequests(helper, 6);
            justBefore();
            process.send(signal);
        });
        EXPECT_EQ(ended_.status, 0);
        return helper.record().lastRequest.data();
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
    std::string bus_ = folder_ / "bus";
    SharedFile<KeepAliveState> keepAlive_{"keepalive.json", folder_.path()};
    SharedFile<WidgetSnapshot> widgets_{"widgets.json", folder_.path()};
    ChildResult ended_;
};

// Where nothing comes to hold: how it ends, and what it says.
TEST_F(CompanionTest, EndsAtOnceWhereNothingHolds) {
    struct Row {
        std::optional<Conduct> helper;
        std::optional<Seconds> commitment;
        int status;
        std::string said;
    };

    const Row rows[] = {
        {Conduct::Answer, {}, 0, "Nothing holds. Commit yourself with: Halvo MINUTES\n"},
        {Conduct::Answer, minute, 1,
         "The helper did not take the commitment. Another person's may hold, or " + app +
             " is not where the helper sees this app.\n"},
        {Conduct::CloseAtAccept, {}, 77, advice(HelperFailures::Refused{}) + "\n"},
        {{}, {}, 69, advice(HelperFailures::NotRunning{ENOENT}) + "\n"},
        {{}, minute, 69, advice(HelperFailures::NotRunning{ENOENT}) + "\n"},
    };
    for (const Row& row : rows) {
        std::optional<FakeHelper> helper;
        if (row.helper) {
            helper.emplace(path_, std::vector{*row.helper});
            helper->record().yes = false;
        }
        EXPECT_EQ(run({row.commitment}), (ChildResult{row.status, row.said}));
        EXPECT_EQ(keepAlive_.read(), std::nullopt);
        EXPECT_EQ(widgets_.read(), std::nullopt);
        if (row.status == 1) {
            EXPECT_THAT(helper->record().lastRequest.data(), StartsWith("Begin " + app + " "));
        }
    }
}

TEST_F(CompanionTest, StaysWhileACommitmentHoldsAndEndsAfterIt) {
    const ChildResult result = runUntilLetGo({});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(
        result.output,
        AllOf(StartsWith("Ultra Hard mode holds until "), HasSubstr(", the app is locked\n"),
              HasSubstr("Ultra Hard mode is over. Halvo ends by itself in 0 seconds.\n"),
              EndsWith("Nothing holds\n")));
    EXPECT_TRUE(keepAlive_.read()->clean);
    EXPECT_EQ(keepAlive_.read()->commitmentUntil, std::nullopt);
    EXPECT_FALSE(widgets_.read()->isRunning);
}

TEST_F(CompanionTest, LeavesRecordsOfWhatHoldsWhenItIsKilled) {
    FakeHelper const helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    pid_t process = 0;
    run({}, [&](TestProcess& running) {
        process = running.pid();
        awaitRequests(helper, 4);
        running.kill();
    });
    const auto state = keepAlive_.read();
    ASSERT_TRUE(state);
    EXPECT_EQ(state->pid, process);
    EXPECT_TRUE(state->shouldRelaunch(wallNow()));
    EXPECT_TRUE(widgets_.read()->isRunning);
}

TEST_F(CompanionTest, GoesOnWhenARecordCannotBeWritten) {
    const std::string elsewhere = folder_ / "none";
    keepAlive_ = SharedFile<KeepAliveState>("keepalive.json", elsewhere);
    const ChildResult result = runUntilLetGo({});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output,
                HasSubstr("What the widgets show could not be written: " + elsewhere +
                          "/keepalive.json: No such file or directory.\n"));
}

TEST_F(CompanionTest, ShowsAnEndThatMovesByLessThanAHairOnce) {
    FakeHelper const helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    const auto move = [&](Seconds by) {
        helper.record().until = helper.record().until + by.count();
        awaitRequests(helper, 4);
    };
    const ChildResult result = run({}, [&](TestProcess& process) {
        awaitRequests(helper, 4);
        move(Seconds{1.4});
        move(Seconds{-2.8});
        move(Seconds{3.4});
        process.send(SIGINT);
    });
    const std::string line = "Ultra Hard mode holds until ";
    EXPECT_EQ(result.output.find(line), 0U);
    const auto second = result.output.find(line, 1);
    ASSERT_NE(second, std::string::npos) << "the last move is two seconds";
    EXPECT_EQ(result.output.find(line, second + 1), std::string::npos) << result.output;
}

TEST_F(CompanionTest, NeverAsksForAnEarlierEnd) {
    FakeHelper const helper(path_, {Conduct::AnswerOnce, Conduct::CloseAtAccept});
    hold(helper, Seconds{600});
    const ChildResult result = run({minute}, [](TestProcess& process) {
        sleepFor(Seconds{0.3});
        process.send(SIGINT);
    });
    EXPECT_THAT(result.output, HasSubstr("What holds already ends later; the later end stays.\n"));
    // One answer only, and that was for the status.
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

TEST_F(CompanionTest, SaysThatTheHelperAllowsNoLaterEnd) {
    const ChildResult result = runUntilLetGo({Seconds{900}});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("The helper allows no later end"));
}

TEST_F(CompanionTest, OutlivesTheHelper) {
    std::optional<FakeHelper> helper;
    helper.emplace(path_, std::vector{Conduct::Answer});
    hold(*helper, Seconds{600});
    const ChildResult result = run({}, [&](TestProcess&) {
        awaitRequests(*helper, 4);
        helper.reset();
        sleepFor(Seconds{0.3});
        helper.emplace(path_, std::vector{Conduct::Answer});
        hold(*helper, Seconds{600});
        awaitRequests(*helper, 4);
        letGo(*helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("Halvo keeps trying.\nThe helper is back.\n"));
}

TEST_F(CompanionTest, EndsWithoutTheHelperWhenTheCommitmentMustBeOver) {
    std::optional<FakeHelper> helper;
    helper.emplace(path_, std::vector{Conduct::Answer});
    hold(*helper, Seconds{0.3});
    const ChildResult result = run({}, [&](TestProcess&) {
        awaitRequests(*helper, 3);
        helper.reset();
    });
    EXPECT_EQ(result.status, 69);
    EXPECT_THAT(result.output, EndsWith("Halvo ends: the helper has been away for too long.\n"));
}

TEST_F(CompanionTest, LooksForTheHelperThatBroughtItBack) {
    const ChildResult alone = run({std::nullopt, /*broughtBack=*/true});
    EXPECT_EQ(alone.status, 69);
    EXPECT_THAT(alone.output, StartsWith("The helper opened Halvo again after it was quit.\n"));
    std::optional<FakeHelper> helper;
    const ChildResult result = run({std::nullopt, /*broughtBack=*/true}, [&](TestProcess&) {
        sleepFor(Seconds{0.15});
        helper.emplace(path_, std::vector{Conduct::Answer});
        hold(*helper, Seconds{600});
        awaitRequests(*helper, 4);
        letGo(*helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("The helper is back.\nUltra Hard mode holds until "));
}

TEST_F(CompanionTest, EndsOnASignalWithoutAnExcuse) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_THAT(lastRequestAt(signal), Not(HasSubstr("true"))) << signal;
        EXPECT_THAT(ended_.output, EndsWith("the helper opens it again.\n"));
    }
}

TEST_F(CompanionTest, AnnouncesAShutdownButNoInterrupt) {
    FakeHelper const bus(bus_, {Conduct::AnswerForLogind});
    EXPECT_EQ(lastRequestAt(SIGTERM), "Heartbeat true");
    EXPECT_THAT(ended_.output, EndsWith("The session is ending; the helper knows.\n"));
    EXPECT_NE(lastRequestAt(SIGINT), "Heartbeat true");
    bus.record().yes = false;
    EXPECT_NE(lastRequestAt(SIGTERM), "Heartbeat true") << "logind says no";
}

TEST_F(CompanionTest, WaitsForLogindNoLongerThanAllowed) {
    for (const Conduct conduct : {Conduct::NeverAuthenticate, Conduct::NeverAnswer}) {
        FakeHelper const bus(bus_, {conduct});
        const Seconds before = timeNow();
        EXPECT_FALSE(isShuttingDown(Seconds{0.2}));
        EXPECT_LT(timeNow() - before, Seconds{3});
    }
}

// In the files that logind keeps of a person who belongs to no session.
TEST_F(CompanionTest, AnnouncesTheEndOfASessionThatWasOpenBefore) {
    const PrivateMount run("tmpfs", "run", "/run");
    if (!run.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    std::filesystem::create_directories("/run/systemd/users");
    const auto state = [](const std::string& text) {
        writeTestFile("/run/systemd/users/" + std::to_string(getuid()), "STATE=" + text + "\n");
    };
    state("active");
    EXPECT_EQ(lastRequestAt(SIGTERM, [&] { state("closing"); }), "Heartbeat true");
    // Closing all the time: a program that is left behind keeps it so.
    EXPECT_NE(lastRequestAt(SIGTERM), "Heartbeat true");
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for what replaces a function.
extern "C" {
int __wrap_sd_pid_get_session(pid_t, char** session) {
    *session = sessionState == nullptr ? nullptr : strdup("c1");
    return *session == nullptr ? -ENODATA : 0;
}

int __wrap_sd_session_get_seat(const char*, char** seat) {
    *seat = hasSeat ? strdup("seat0") : nullptr;
    return hasSeat ? 0 : -ENODATA;
}

int __wrap_sd_session_get_state(const char*, char** state) {
    *state = strdup(sessionState);
    return 0;
}
}
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace halvo::testing
